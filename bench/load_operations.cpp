#include "load_operations.h"

#include <array>
#include <cstdio>
#include <random>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

namespace bench {
namespace {

constexpr std::uint32_t kUnstable = 0;
constexpr std::uint32_t kFileSync = 2;

void requireOk(Decoder& results) {
  if (const std::uint32_t status = results.word(); status != 0) {
    throw std::runtime_error("the server answered with NFS status " + std::to_string(status));
  }
}

void requireAttributes(Decoder& results) {
  if (results.word() != 1) throw std::runtime_error("a reply without attributes");
  results.take(kAttributesSize);
}

class Null final : public LoadOperation {
 public:
  using LoadOperation::LoadOperation;
  bool call(ClientConnection& connection, unsigned slot, bool last) override {
    if (!last) connection.queue(slot, Procedure::Null, [](Encoder&) {});
    return !last;
  }
  void reply(unsigned, Decoder results) override {
    if (results.left() != 0) throw std::runtime_error("NULL has results");
  }
};

class GetAttr final : public LoadOperation {
 public:
  using LoadOperation::LoadOperation;
  bool call(ClientConnection& connection, unsigned slot, bool last) override {
    if (last) return false;
    connection.queue(slot, Procedure::GetAttr,
                     [this](Encoder& call) { call.opaque(m_target.handle); });
    return true;
  }
  void reply(unsigned, Decoder results) override {
    requireOk(results);
    if (results.left() != kAttributesSize) throw std::runtime_error("attributes of a wrong size");
  }
};

class Lookup final : public LoadOperation {
 public:
  using LoadOperation::LoadOperation;
  bool call(ClientConnection& connection, unsigned slot, bool last) override {
    if (last) return false;
    std::array<char, 32> name;
    const int length =
        std::snprintf(name.data(), name.size(), "file-%06llu",
                      static_cast<unsigned long long>(m_random() % m_target.entries));
    connection.queue(slot, Procedure::Lookup, [&](Encoder& call) {
      call.opaque(m_target.handle).opaque({name.data(), static_cast<std::size_t>(length)});
    });
    return true;
  }
  void reply(unsigned, Decoder results) override {
    requireOk(results);
    if (results.opaque().empty()) throw std::runtime_error("an empty handle");
    requireAttributes(results);
    requireAttributes(results);
  }

 private:
  std::minstd_rand m_random;  // the same names in every run
};

class Read final : public Transfer {
 public:
  using Transfer::Transfer;
  bool call(ClientConnection& connection, unsigned slot, bool last) override {
    if (last) return false;
    connection.queue(slot, Procedure::Read, [this, slot](Encoder& call) {
      call.opaque(m_target.handle).hyper(nextOffset(slot)).word(m_target.transfer);
    });
    return true;
  }
  void reply(unsigned slot, Decoder results) override {
    requireOk(results);
    requireAttributes(results);
    requireWholeTransfer(results.word());
    results.word();  // end of file
    const auto data = results.opaque();
    if (data.size() != m_target.transfer) {
      throw std::runtime_error("READ's count and data differ");
    }
    verify(data, slot);
  }
};

class Write final : public Transfer {
 public:
  explicit Write(LoadTarget target)
      : Transfer(std::move(target)), m_data(m_target.transfer, std::byte{0x5A}) {}
  bool call(ClientConnection& connection, unsigned slot, bool last) override {
    if (last) return false;
    connection.queue(slot, Procedure::Write, [this, slot](Encoder& call) {
      call.opaque(m_target.handle).hyper(nextOffset(slot)).word(m_target.transfer);
      call.word(m_target.stable ? kFileSync : kUnstable).word(m_target.transfer).bytes(m_data);
      call.zeros(padded(m_data.size()) - m_data.size());
    });
    return true;
  }
  void reply(unsigned, Decoder results) override {
    requireOk(results);
    if (results.word() == 1) results.take(24);  // before the change
    requireAttributes(results);
    requireWholeTransfer(results.word());
  }

 private:
  std::vector<std::byte> m_data;
};

// Whole listings, one after the other; every slot has a listing of its own.
class ReadDirPlus final : public LoadOperation {
 public:
  using LoadOperation::LoadOperation;
  bool call(ClientConnection& connection, unsigned slot, bool last) override {
    const Listing& listing = m_listings.at(slot);
    if (last && listing.cookie == 0) return false;
    connection.queue(slot, Procedure::ReadDirPlus, [&](Encoder& call) {
      call.opaque(m_target.handle).hyper(listing.cookie).hyper(listing.verifier);
      call.word(kPageSize).word(kPageSize);
    });
    return true;
  }

  void reply(unsigned slot, Decoder results) override {
    Listing& listing = m_listings.at(slot);
    requireOk(results);
    requireAttributes(results);
    listing.verifier = results.hyper();
    const std::uint64_t before = listing.count;
    while (results.word() != 0) {
      results.hyper();  // the file's number
      const auto name = results.opaque();
      if (name.empty()) throw std::runtime_error("an entry without a name");
      listing.cookie = results.hyper();
      // What is above the directory need not be described.
      const bool up = name.size() == 2 && name[0] == std::byte{'.'} && name[1] == std::byte{'.'};
      if (!up) {
        requireAttributes(results);
        if (results.word() != 1) throw std::runtime_error("an entry without a handle");
        results.opaque();
      } else {
        if (results.word() != 0) results.take(kAttributesSize);
        if (results.word() != 0) results.opaque();
      }
      ++listing.count;
    }
    entries += listing.count - before;
    if (results.word() != 0) {
      // "." and ".." are listed by some servers.
      if (listing.count != m_target.entries && listing.count != m_target.entries + 2) {
        throw std::runtime_error("a listing of " + std::to_string(listing.count) + " entries");
      }
      listing = {};
    } else if (listing.count == before) {
      throw std::runtime_error("a page without an entry before the end of the listing");
    }
  }

 private:
  struct Listing {
    std::uint64_t cookie = 0;
    std::uint64_t verifier = 0;
    std::uint64_t count = 0;
  };
  std::array<Listing, ClientConnection::kMaxSlots> m_listings = {};
};

// One call, waited for.
template <class Arguments, class Results>
void callOnce(ClientConnection& connection, Procedure procedure, Arguments&& arguments,
              Results&& results) {
  connection.queue(0, procedure, arguments);
  connection.flush();
  connection.receive([&](unsigned, Decoder decoder, std::uint64_t) { results(decoder); });
}

}  // namespace

Handle takeHandle(Decoder& results) {
  const auto bytes = results.opaque();
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

Transfer::Transfer(LoadTarget target) : LoadOperation(std::move(target)) {
  if (m_target.fileSize < m_target.transfer) {
    throw std::runtime_error("the file is smaller than one transfer");
  }
}

std::uint64_t Transfer::nextOffset(unsigned slot) {
  if (m_next + m_target.transfer > m_target.fileSize) m_next = 0;
  return m_offsets.at(slot) = std::exchange(m_next, m_next + m_target.transfer);
}

void Transfer::requireWholeTransfer(std::size_t count) {
  if (count != m_target.transfer) throw std::runtime_error("a transfer was cut short");
  bytes += count;
}

void Transfer::verify(std::span<const std::byte> data, unsigned slot) const {
  if (!m_target.verifyData) return;
  const std::uint64_t at = m_offsets.at(slot);
  for (std::size_t i = 0; i + 8 <= data.size(); i += 8) {
    if (__builtin_bswap64(fromWire<std::uint64_t>(data.data() + i)) != at + i) {
      throw std::runtime_error("wrong data at offset " + std::to_string(at + i));
    }
  }
}

std::unique_ptr<LoadOperation> makeOperation(const std::string& name, LoadTarget target) {
  if (name == "null") return std::make_unique<Null>(std::move(target));
  if (name == "getattr") return std::make_unique<GetAttr>(std::move(target));
  if (name == "lookup") return std::make_unique<Lookup>(std::move(target));
  if (name == "read") return std::make_unique<Read>(std::move(target));
  if (name == "write") return std::make_unique<Write>(std::move(target));
  if (name == "readdirplus") return std::make_unique<ReadDirPlus>(std::move(target));
  throw std::runtime_error("there is no operation [" + name + "]");
}

Handle mountExport(const std::string& host, unsigned short port, const std::string& path) {
  ClientConnection connection(host, port, kMountProgram, 3, 1, kMaxHeaders);
  Handle handle;
  callOnce(
      connection, kMountMnt, [&](Encoder& call) { call.opaque(path); },
      [&](Decoder& results) {
        requireOk(results);
        handle = takeHandle(results);
      });
  return handle;
}

Handle lookupPath(ClientConnection& connection, const Handle& root, const std::string& path) {
  Handle handle = root;
  std::istringstream components(path);
  for (std::string name; std::getline(components, name, '/');) {
    callOnce(
        connection, Procedure::Lookup, [&](Encoder& call) { call.opaque(handle).opaque(name); },
        [&](Decoder& results) {
          requireOk(results);
          handle = takeHandle(results);
        });
  }
  return handle;
}

std::uint64_t sizeOf(ClientConnection& connection, const Handle& file) {
  std::uint64_t size = 0;
  callOnce(
      connection, Procedure::GetAttr, [&](Encoder& call) { call.opaque(file); },
      [&](Decoder& results) {
        requireOk(results);
        results.take(kSizeInAttributes);
        size = results.hyper();
      });
  return size;
}

}  // namespace bench

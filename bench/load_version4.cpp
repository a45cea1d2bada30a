#include "load_version4.h"

#include <algorithm>
#include <chrono>
#include <sstream>
#include <stdexcept>
#include <utility>

#include <unistd.h>

namespace bench {
namespace {

constexpr std::uint32_t kMinorVersion = 1;
constexpr std::uint32_t kNonPnfs = 0x0001'0000;

void requireAttributes(Decoder& results, std::uint32_t first, std::uint32_t second) {
  if (results.word() != 2 || results.word() != first || results.word() != second) {
    throw std::runtime_error("other attributes than those asked for");
  }
}

class GetAttr4 final : public LoadOperation {
 public:
  GetAttr4(LoadTarget target, Session4& session)
      : LoadOperation(std::move(target)), m_session(session) {}
  bool call(ClientConnection&, unsigned slot, bool last) override {
    if (last) return false;
    m_session.queue(slot, 2, [this](Encoder& call) {
      Session4::operation(call, Operation::PutFh).opaque(m_target.handle);
      Session4::operation(call, Operation::GetAttr).word(2);
      call.word(kAttributes4[0]).word(kAttributes4[1]);
    });
    return true;
  }
  void reply(unsigned, Decoder results) override {
    Session4::skipHead(results);
    Session4::requireDone(results, Operation::PutFh);
    Session4::requireDone(results, Operation::GetAttr);
    requireAttributes(results, kAttributes4[0], kAttributes4[1]);
    const std::size_t size = results.word();
    if (size < kAttributes4Size || results.left() != size) {
      throw std::runtime_error("attributes of a wrong size");
    }
  }

 private:
  Session4& m_session;
};

class Read4 final : public Transfer {
 public:
  Read4(LoadTarget target, Session4& session)
      : Transfer(std::move(target)), m_session(session), m_state(session.open(m_target.handle)) {}
  bool call(ClientConnection&, unsigned slot, bool last) override {
    if (last) return false;
    m_session.queue(slot, 2, [this, slot](Encoder& call) {
      Session4::operation(call, Operation::PutFh).opaque(m_target.handle);
      Session4::operation(call, Operation::Read).bytes(m_state);
      call.hyper(nextOffset(slot)).word(m_target.transfer);
    });
    return true;
  }
  void reply(unsigned slot, Decoder results) override {
    Session4::skipHead(results);
    Session4::requireDone(results, Operation::PutFh);
    Session4::requireDone(results, Operation::Read);
    results.word();  // end of file
    const auto data = results.opaque();
    requireWholeTransfer(data.size());
    verify(data, slot);
  }

 private:
  Session4& m_session;
  const Session4::StateId m_state;
};

// Whole listings, one after the other; every slot has a listing of its own.
class ReadDir4 final : public LoadOperation {
 public:
  ReadDir4(LoadTarget target, Session4& session)
      : LoadOperation(std::move(target)), m_session(session) {}
  bool call(ClientConnection&, unsigned slot, bool last) override {
    const Listing& listing = m_listings.at(slot);
    if (last && listing.cookie == 0) return false;
    m_session.queue(slot, 2, [&](Encoder& call) {
      Session4::operation(call, Operation::PutFh).opaque(m_target.handle);
      Session4::operation(call, Operation::ReadDir).hyper(listing.cookie).hyper(listing.verifier);
      call.word(kPageSize).word(kPageSize).word(2);
      call.word(kAttributes4[0] | kHandleAndError).word(kAttributes4[1]);
    });
    return true;
  }

  void reply(unsigned slot, Decoder results) override {
    Listing& listing = m_listings.at(slot);
    Session4::skipHead(results);
    Session4::requireDone(results, Operation::PutFh);
    Session4::requireDone(results, Operation::ReadDir);
    listing.verifier = results.hyper();
    const std::uint64_t before = listing.count;
    while (results.word() != 0) {
      listing.cookie = results.hyper();
      if (results.opaque().empty()) throw std::runtime_error("an entry without a name");
      requireAttributes(results, kAttributes4[0] | kHandleAndError, kAttributes4[1]);
      if (results.opaque().size() < kAttributes4Size) {
        throw std::runtime_error("attributes of a wrong size");
      }
      ++listing.count;
    }
    entries += listing.count - before;
    if (results.word() != 0) {
      if (listing.count != m_target.entries) {
        throw std::runtime_error("a listing of " + std::to_string(listing.count) + " entries");
      }
      listing = {};
    } else if (listing.count == before) {
      throw std::runtime_error("a page without an entry before the end of the listing");
    }
  }

 private:
  static constexpr std::uint32_t kHandleAndError = 1U << 19 | 1U << 11;

  struct Listing {
    std::uint64_t cookie = 0;
    std::uint64_t verifier = 0;
    std::uint64_t count = 0;
  };
  Session4& m_session;
  std::array<Listing, ClientConnection::kMaxSlots> m_listings = {};
};

}  // namespace

template <class Arguments, class Results>
void Session4::callAlone(Operation number, Arguments&& arguments, Results&& results) {
  m_connection.queue(0, kCompound, [&](Encoder& call) {
    begin(call, 1);
    operation(call, number);
    arguments(call);
  });
  m_connection.flush();
  m_connection.receive([&](unsigned, Decoder decoder, std::uint64_t) {
    requireCompound(decoder);
    requireDone(decoder, number);
    results(decoder);
  });
}

template <class Operations, class Results>
void Session4::callOnce(unsigned count, Operations&& operations, Results&& results) {
  queue(0, count, operations);
  m_connection.flush();
  m_connection.receive([&](unsigned, Decoder decoder, std::uint64_t) {
    skipHead(decoder);
    results(decoder);
  });
}

Session4::Session4(ClientConnection& connection, unsigned slots, bool isReal)
    : m_connection(connection), m_slots(slots), m_isReal(isReal) {
  if (!isReal) return;
  const auto now = std::chrono::system_clock::now().time_since_epoch().count();
  std::uint32_t sequence = 0;
  callAlone(
      Operation::ExchangeId,
      [&](Encoder& call) {
        call.hyper(static_cast<std::uint64_t>(now));
        call.opaque("nfslib-bench " + std::to_string(getpid()) + " " + std::to_string(now));
        call.word(kNonPnfs).word(0).word(0);  // flags, no state protection, no implementation
      },
      [&](Decoder& results) {
        m_clientId = results.hyper();
        sequence = results.word();
      });
  callAlone(
      Operation::CreateSession,
      [&](Encoder& call) {
        constexpr std::uint32_t kMaxMessage = kMaxTransfer + kMaxHeaders;
        call.hyper(m_clientId).word(sequence).word(0);
        for (int channel = 0; channel < 2; ++channel) {  // forth and back
          call.word(0).word(kMaxTransfer).word(kMaxMessage).word(kMaxHeaders);
          call.word(8).word(slots).word(0);  // operations, requests, no RDMA
        }
        call.word(0x4000'0000).word(1).word(0);  // callback program, one flavor: AUTH_NONE
      },
      [&](Decoder& results) {
        std::ranges::copy(results.take(kSessionIdSize), m_id.begin());
        results.take(8 + 20);
        if (results.word() < slots) throw std::runtime_error("the session has too few slots");
      });
  callOnce(
      1, [](Encoder& call) { operation(call, Operation::ReclaimComplete).word(0); },
      [](Decoder& results) { requireDone(results, Operation::ReclaimComplete); });
}

void Session4::end() {
  if (!m_isReal) return;
  for (const auto& opened : m_open) {
    callOnce(
        2,
        [&](Encoder& call) {
          operation(call, Operation::PutFh).opaque(opened.first);
          operation(call, Operation::Close).word(0).bytes(opened.second);
        },
        [&](Decoder& results) {
          requireDone(results, Operation::PutFh);
          requireDone(results, Operation::Close);
        });
  }
  callAlone(
      Operation::DestroySession, [&](Encoder& call) { call.bytes(m_id); }, [](Decoder&) {});
  callAlone(
      Operation::DestroyClientId, [&](Encoder& call) { call.hyper(m_clientId); }, [](Decoder&) {});
}

void Session4::begin(Encoder& call, unsigned count) {
  call.word(0).word(kMinorVersion).word(count);  // an empty tag
}

void Session4::requireCompound(Decoder& results) {
  if (const std::uint32_t status = results.word(); status != 0) {
    throw std::runtime_error("the server answered with NFS status " + std::to_string(status));
  }
  results.opaque();
  results.word();
}

void Session4::requireDone(Decoder& results, Operation number) {
  if (results.word() != static_cast<std::uint32_t>(number) || results.word() != 0) {
    throw std::runtime_error("the result of another operation, or none");
  }
}

void Session4::skipHead(Decoder& results) {
  requireCompound(results);
  requireDone(results, Operation::Sequence);
  results.take(kSequenceResultSize);
}

Handle Session4::lookupPath(const std::string& path) {
  Handle handle;
  const auto takeResult = [&](Decoder& results, Operation found) {
    requireDone(results, found);
    requireDone(results, Operation::GetFh);
    handle = takeHandle(results);
  };
  callOnce(
      2,
      [](Encoder& call) {
        operation(call, Operation::PutRootFh);
        operation(call, Operation::GetFh);
      },
      [&](Decoder& results) { takeResult(results, Operation::PutRootFh); });
  std::istringstream components(path);
  for (std::string name; std::getline(components, name, '/');) {
    if (name.empty()) continue;
    callOnce(
        3,
        [&](Encoder& call) {
          operation(call, Operation::PutFh).opaque(handle);
          operation(call, Operation::Lookup).opaque(name);
          operation(call, Operation::GetFh);
        },
        [&](Decoder& results) {
          requireDone(results, Operation::PutFh);
          takeResult(results, Operation::Lookup);
        });
  }
  return handle;
}

std::uint64_t Session4::sizeOf(const Handle& file) {
  std::uint64_t size = 0;
  callOnce(
      2,
      [&](Encoder& call) {
        operation(call, Operation::PutFh).opaque(file);
        operation(call, Operation::GetAttr).word(2);
        call.word(kAttributes4[0]).word(kAttributes4[1]);
      },
      [&](Decoder& results) {
        requireDone(results, Operation::PutFh);
        requireDone(results, Operation::GetAttr);
        requireAttributes(results, kAttributes4[0], kAttributes4[1]);
        results.word();
        results.take(kSizeInAttributes4);
        size = results.hyper();
      });
  return size;
}

Session4::StateId Session4::open(const Handle& file) {
  StateId state{};
  if (!m_isReal) return state;
  callOnce(
      2,
      [&](Encoder& call) {
        operation(call, Operation::PutFh).opaque(file);
        constexpr std::uint32_t kRead = 1;
        constexpr std::uint32_t kByHandle = 4;
        operation(call, Operation::Open).word(0).word(kRead).word(0);
        call.hyper(m_clientId).opaque("bench").word(0).word(kByHandle);
      },
      [&](Decoder& results) {
        requireDone(results, Operation::PutFh);
        requireDone(results, Operation::Open);
        std::ranges::copy(results.take(kStateIdSize), state.begin());
      });
  m_open.emplace_back(file, state);
  return state;
}

std::unique_ptr<LoadOperation> makeOperation4(const std::string& name, LoadTarget target,
                                              Session4& session) {
  if (name == "getattr") return std::make_unique<GetAttr4>(std::move(target), session);
  if (name == "read") return std::make_unique<Read4>(std::move(target), session);
  if (name == "readdir") return std::make_unique<ReadDir4>(std::move(target), session);
  throw std::runtime_error("version 4 has no operation [" + name + "]");
}

}  // namespace bench

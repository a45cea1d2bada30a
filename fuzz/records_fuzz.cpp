// Every decoder of the stream and of the shared records: the first byte chooses, the rest is the
// wire. What a decoder yields never outgrows what it was given, and what has an encoder comes back
// from it unchanged.

#include "check.h"
#include "common/memory_stream.h"
#include "common/xdr_records.h"
#include "rpc/rpc_header.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace nfslib;

constexpr int kRoundTrips = 8;

template <class Record>
std::size_t footprint(const Record&) {
  return 0;
}
std::size_t footprint(const std::string& value) { return value.size(); }
template <class Element>
std::size_t footprint(const std::vector<Element>& value) {
  return value.size();
}

// Decodes records until the input is used up or refused.
template <class Record>
void decode(MemoryStream& in, std::size_t size) {
  for (unsigned before = in.getInputDataSize() + 1; in && in.getInputDataSize() < before;) {
    before = in.getInputDataSize();
    Record record{};
    in >> record;
    FUZZ_CHECK(in.getInputDataSize() <= before);
    FUZZ_CHECK(footprint(record) <= size);
  }
}

// The same for the first few records, and sends back what was decoded.
template <class Record>
void roundTrip(MemoryStream& in, std::size_t size) {
  for (int i = 0; i < kRoundTrips && in.getInputDataSize() != 0; ++i) {
    Record record{};
    in >> record;
    FUZZ_CHECK(footprint(record) <= size);
    if (!in) return;
    MemoryStream out;
    out << record;
    MemoryStream again;
    again.setInputData(out.getOutputBuffer());
    Record copy{};
    again >> copy;
    FUZZ_CHECK(static_cast<bool>(again));
    MemoryStream twice;
    twice << copy;
    FUZZ_CHECK(twice.getOutputBuffer() == out.getOutputBuffer());
  }
}

void readStrings(MemoryStream& in, std::size_t) {
  std::array<char, 16> room{};
  for (unsigned before = in.getInputDataSize() + 1; in && in.getInputDataSize() < before;) {
    before = in.getInputDataSize();
    FUZZ_CHECK(in.readString({room.data(), room.size()}) <= room.size());
  }
}

void readCounts(MemoryStream& in, std::size_t size) {
  for (const unsigned elementSize : {1U, 4U, 24U, 0xFFFFFFFFU}) {
    const unsigned count = in.readCount(elementSize);
    FUZZ_CHECK(static_cast<std::size_t>(count) * elementSize <= size);
  }
  in.skipInput(0xFFFFFFFFU);
  in.skipOpaqueTail(0xFFFFFFFFU);
  FUZZ_CHECK(in.getInputDataSize() == 0);
  FUZZ_CHECK(in.readView(1).empty());
}

using Decoder = void (*)(MemoryStream&, std::size_t);

constexpr std::array<Decoder, 24> kDecoders{
    roundTrip<unsigned int>,
    roundTrip<unsigned long>,
    decode<long>,
    roundTrip<bool>,
    roundTrip<std::string>,
    roundTrip<std::vector<std::byte>>,
    roundTrip<std::vector<unsigned int>>,
    readStrings,
    readCounts,
    roundTrip<FixedOpaque<12>>,
    decode<nfstime4>,
    decode<CharDevSpec>,
    roundTrip<FilesystemId>,
    roundTrip<NfsHandle>,
    roundTrip<FsObjectStateId>,
    decode<ClientOwner>,
    roundTrip<NfsAce4>,
    roundTrip<std::vector<NfsAce4>>,
    decode<nfs_impl_id4>,
    roundTrip<ChannelAttributes>,
    decode<state_protect_ops4>,
    decode<ssv_sp_parms4>,
    decode<rpc::RpcHeader>,
    decode<verifier4>,
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  MemoryStream in;
  in.setInputData({data + 1, size - 1});
  kDecoders[data[0] % kDecoders.size()](in, size - 1);
  if (!in) {
    // A failed stream stays failed, gives zeros, and can still be replied on.
    unsigned int word = 1;
    in >> word;
    FUZZ_CHECK(!in);
    in << 7U;
    FUZZ_CHECK(in.getOutputDataSize() == 4);
  }
  return 0;
}

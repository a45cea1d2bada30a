#include "common/xdr_records.h"

#include "support/hex.h"

#include <gmock/gmock.h>

namespace nfslib::testing {
namespace {

using ::testing::ElementsAre;

// The records byte by byte as the RFCs lay them out, typed by hand: an encoder that checks its own
// decoder proves only that the two agree.

template <class T>
T decode(const char* wire) {
  MemoryStream in;
  setInput(in, wire);
  T value{};
  in >> value;
  EXPECT_TRUE(in);
  EXPECT_EQ(in.getInputDataSize(), 0U);
  return value;
}

template <class T>
std::string encode(const T& value) {
  MemoryStream out;
  out << value;
  return hex(out.getOutputBuffer());
}

constexpr const char* kFsid = "00000000 00000001 00000000 00000002";
constexpr const char* kStateId = "00000007 01020304 05060708 090a0b0c";
constexpr const char* kAce = "00000001 00000002 001f01ff 00000006 4f574e45 52400000";
constexpr const char* kChannel = "00000001 00000002 00000003 00000004 00000005 00000006 00000000";
constexpr const char* kRdmaChannel =
    "00000001 00000002 00000003 00000004 00000005 00000006 00000001 00000008";

TEST(XdrRecords, FixedBytes) {
  EXPECT_EQ(encode(decode<verifier4>("01020304 05060708")), "01020304 05060708");
  EXPECT_EQ(encode(decode<sessionid>("00112233 44556677 8899aabb ccddeeff")),
            "00112233 44556677 8899aabb ccddeeff");
  EXPECT_EQ(decode<verifier4>("01020304 05060708").bytes[7], std::byte{8});
  EXPECT_NE(decode<verifier4>("01020304 05060708"), verifier4());

  // Cut short: what is there, then zeros, and no failure.
  EXPECT_EQ(encode(decode<verifier4>("010203")), "01020300 00000000");
}

TEST(XdrRecords, TimeDeviceAndFsid) {
  const auto time = decode<nfstime4>("ffffffff ffffffff 3b9ac9ff");
  EXPECT_EQ(time.seconds, -1);
  EXPECT_EQ(time.nanoseconds, 999'999'999U);
  const auto device = decode<CharDevSpec>("00000008 00000011");
  EXPECT_EQ(device.major, 8U);
  EXPECT_EQ(device.minor, 17U);
  const auto fsid = decode<FilesystemId>(kFsid);
  EXPECT_EQ(fsid.major, 1U);
  EXPECT_EQ(fsid.minor, 2U);
  EXPECT_EQ(encode(fsid), kFsid);
}

TEST(XdrRecords, HandleIsSentAsHeldInMemory) {
  const NfsHandle handle{0x01010101, 0x02020202, 0x0303030304040404};
  const std::string id =
      std::endian::native == std::endian::little ? "04040404 03030303" : "03030303 04040404";
  const std::string wire = "00000010 01010101 02020202 " + id;
  EXPECT_EQ(encode(handle), wire);
  EXPECT_EQ(decode<NfsHandle>(wire.c_str()), handle);
  EXPECT_EQ(str(NfsHandle{5, 2, 4294967296}), "5:2:4294967296");
}

TEST(XdrRecords, HandleOfAnotherLengthFailsAndTakesOnlyTheLength) {
  const std::string body = " 01020304 05060708 090a0b0c 0d0e0f10 11121314";
  for (const char* length : {"0000000f", "00000011", "00000020", "00000000", "ffffffff"}) {
    MemoryStream in;
    setInput(in, length + body);
    NfsHandle handle{1, 2, 3};
    in >> handle;
    EXPECT_FALSE(in) << length;
    EXPECT_EQ(in.getInputDataSize(), 20U) << length;
    EXPECT_EQ(handle, (NfsHandle{1, 2, 3})) << length;
  }
  MemoryStream in;
  setInput(in, "00000010 01020304 05060708 090a0b0c 0d0e0f");
  NfsHandle handle;
  EXPECT_FALSE(in >> handle);
  EXPECT_EQ(handle, NfsHandle());
}

TEST(XdrRecords, StateIdAndChangeInfo) {
  const auto state = decode<FsObjectStateId>(kStateId);
  EXPECT_EQ(state.sequenceId, 7U);
  EXPECT_EQ(state.other.bytes[11], std::byte{12});
  EXPECT_EQ(encode(state), kStateId);
  EXPECT_EQ(encode(ChangeInfo{true, 1, 0x0200000000}),
            "00000001 00000000 00000001 00000002 00000000");
}

TEST(XdrRecords, Owners) {
  const auto client = decode<ClientOwner>("01020304 05060708 00000003 61626300");
  EXPECT_EQ(encode(client.verifier), "01020304 05060708");
  EXPECT_EQ(client.ownerId, "abc");
  EXPECT_EQ(encode(ServerOwner{5, "srv"}), "00000000 00000005 00000003 73727600");
  const auto id =
      decode<nfs_impl_id4>("00000001 64000000 00000002 6e6d0000 00000000 00000005 00000006");
  EXPECT_EQ(id.domain + "," + id.name, "d,nm");
  EXPECT_EQ(id.date.seconds, 5);
  EXPECT_EQ(id.date.nanoseconds, 6U);
}

TEST(XdrRecords, AccessControlLists) {
  const NfsAce4 ace{1, 2, 0x1f01ff, "OWNER@"};
  EXPECT_EQ(decode<NfsAce4>(kAce), ace);
  EXPECT_EQ(encode(ace), kAce);
  const std::string list = std::string("00000002 ") + kAce + " " + kAce;
  EXPECT_THAT(decode<std::vector<NfsAce4>>(list.c_str()), ElementsAre(ace, ace));
  EXPECT_EQ(encode(std::vector{ace, ace}), list);
  EXPECT_EQ(encode(std::vector<NfsAce4>()), "00000000");

  MemoryStream hostile;  // three entries cannot stand in 32 bytes
  setInput(hostile, std::string("00000003 ") + kAce + " 00000000 00000000");
  std::vector<NfsAce4> aces;
  EXPECT_FALSE(hostile >> aces);
  EXPECT_TRUE(aces.empty());
}

TEST(XdrRecords, ChannelAttributesHaveTheRdmaWordOnlyWhenCounted) {
  for (const char* wire : {kChannel, kRdmaChannel}) {
    const auto channel = decode<ChannelAttributes>(wire);
    EXPECT_EQ(channel.headerPadSize, 1U);
    EXPECT_EQ(channel.maxRequestSize, 2U);
    EXPECT_EQ(channel.maxResponseSize, 3U);
    EXPECT_EQ(channel.maxResponseSizeCached, 4U);
    EXPECT_EQ(channel.maxOperations, 5U);
    EXPECT_EQ(channel.maxRequests, 6U);
    EXPECT_EQ(encode(channel), wire);
  }
  EXPECT_EQ(decode<ChannelAttributes>(kRdmaChannel).rdma, 8U);
}

TEST(XdrRecords, StateProtection) {
  const auto ssv = decode<ssv_sp_parms4>(
      "00000001 00000011 00000002 00000021 00000022"  // must enforce, must allow
      "00000002 00000001 aa000000 00000002 bbcc0000"  // hash algorithms
      "00000001 00000000"                             // encryption algorithms
      "00000080 00000004");                           // window, number of GSS handles
  EXPECT_THAT(ssv.operations.mustEnforce, ElementsAre(0x11U));
  EXPECT_THAT(ssv.operations.mustAllow, ElementsAre(0x21U, 0x22U));
  EXPECT_THAT(ssv.hashAlgorithms, ElementsAre(unhex("aa"), unhex("bbcc")));
  EXPECT_THAT(ssv.encryptionAlgorithms, ElementsAre(unhex("")));
  EXPECT_EQ(ssv.window, 128U);
  EXPECT_EQ(ssv.gssHandles, 4U);

  MemoryStream hostile;
  setInput(hostile, "00000000 00000000 10000000 00000000 00000000");
  ssv_sp_parms4 parms;
  EXPECT_FALSE(hostile >> parms);
  EXPECT_TRUE(parms.hashAlgorithms.empty());
}

}  // namespace
}  // namespace nfslib::testing

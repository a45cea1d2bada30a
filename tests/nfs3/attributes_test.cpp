#include "nfs3/attributes.h"

#include "common/clock.h"
#include "support/stream_call.h"

#include <gtest/gtest.h>

namespace nfslib::testing {
namespace {

using namespace nfs3;

// Every field has a value of its own, so that none can stand in another's place.
const NfsHandle kHandle{0x11111111, 0x000000AA, 0x2222222233333333};

fattr3 sample() {
  MetaData md;
  md.type = 2;
  md.mode = 07755;
  md.linkCount = 5;
  md.uid = 1000;
  md.gid = 100;
  md.size = 0x123456789A;
  md.fileId = 0x7777;  // the handle's object id is what is sent
  md.accessTime = 0x60000001;
  md.modifyTime = 0x60000002;
  md.changeTime = 0x60000003;
  return procedures::utility::getAttributes(kHandle, md);
}

constexpr const char* kSampleWords =
    "00000002 00000fed 00000005 000003e8 00000064 "           // type, mode, nlink, uid, gid
    "00000012 3456789a 00000012 3456789a "                    // size, used
    "00000000 00000000 "                                      // rdev
    "00000000 000000aa 22222222 33333333 "                    // fsid, fileid
    "60000001 00000000 60000002 00000000 60000003 00000000";  // atime, mtime, ctime

TEST(Attributes, AreTwentyOneWordsBehindAFlag) {
  const std::string optional = std::string("00000001 ") + kSampleWords;
  EXPECT_EQ(wire(sample()), kSampleWords);
  EXPECT_EQ(wire(PostOpAttr{sample()}), optional);
  EXPECT_EQ(wire(WccData{PreOpAttr(sample()), PostOpAttr{sample()}}),
            "00000001 00000012 3456789a 60000002 00000000 60000003 00000000 " + optional);
}

TEST(Attributes, OptionalHandleAlwaysFollows) {
  // The fields of a handle stand as they do in memory, that is on a little-endian processor.
  EXPECT_EQ(wire(PostOpHandle{kHandle}), "00000001 00000010 11111111 aa000000 33333333 22222222");
}

SetAttributes3 decoded(const std::string& words, bool good = true) {
  const auto bytes = unhex(words);
  MemoryStream in;
  in.setInputData({bytes.data(), bytes.size()});
  SetAttributes3 wanted;
  in >> wanted;
  EXPECT_EQ(static_cast<bool>(in), good) << words;
  EXPECT_EQ(in.getInputDataSize(), 0U) << words;
  return wanted;
}

TEST(SetAttributes, ThoseThatAreNamedAreApplied) {
  MetaData md;
  md.changeTime = 9;
  decoded(
      "00000001 00012345 00000001 00000065 00000001 00000066 "  // mode, uid, gid
      "00000001 00000012 3456789a "                             // size
      "00000002 60000001 000000ff 00000002 60000002 00000000")  // atime, mtime
      .applyTo(md);
  MetaData expected;
  expected.mode = 0x2345;  // the low 16 bits
  expected.uid = 101;
  expected.gid = 102;
  expected.size = 0x12'3456'789A;
  expected.accessTime = 0x60000001;
  expected.modifyTime = 0x60000002;
  expected.changeTime = 9;
  EXPECT_EQ(md, expected);
  decoded("00000000 00000000 00000000 00000000 00000000 00000000").applyTo(md);
  EXPECT_EQ(md, expected);
}

TEST(SetAttributes, TheServersTimeIsNow) {
  MetaData md;
  const auto before = utility::currentSeconds();
  decoded("00000000 00000000 00000000 00000000 00000001 00000000").applyTo(md);
  EXPECT_GE(md.accessTime, before);
  EXPECT_LE(md.accessTime, utility::currentSeconds());
  EXPECT_EQ(md.modifyTime, 0U);
}

TEST(SetAttributes, ATimeThatIsSetInNoKnownWayIsRefused) {
  decoded("00000000 00000000 00000000 00000000 00000000 00000003", false);
}

}  // namespace
}  // namespace nfslib::testing

#include "nfs4/attributes.h"

#include "common/clock.h"
#include "support/nfs4_fixture.h"

namespace nfslib::testing {
namespace {

using ::testing::ElementsAre;

Bitmap bit(unsigned number) {
  Bitmap bitmap(number / 32 + 1);
  bitmap.back() = 1U << number % 32;
  return bitmap;
}

// Typed by hand from RFC 7530 section 5.
TEST(Attributes4Test, AllThatCanBeRead) {
  MetaData md;
  md.type = 1;
  md.fileId = 0x0102'0304'0506'0708;
  md.size = 0x1'0000'0002;
  md.linkCount = 3;
  md.uid = 1000;
  md.gid = 4'294'967'295;
  md.accessTime = 0xF000'0001;
  md.changeTime = 0xC0;
  md.modifyTime = 0xB0;
  md.mode = 0x1FF;
  md.acl = {{1, 2, 4, "me"}};
  MemoryStream out;
  const NfsHandle handle{0x1111'1111, 0x2222'2222, 0x3333'3333'3333'3333};
  nfs4::printAttributes(out, {~0U, ~0U, ~0U}, {handle, md});
  EXPECT_EQ(hex(out.getOutputBuffer()),
            "00000002 ec1abfff 00b0803e 000000fc"
            " 00000002 ec1abfff 00f1803e"           // supported_attrs
            " 00000001 00000000"                    // type, fh_expire_type
            " 00000000 000000b0 00000001 00000002"  // change, size
            " 00000001 00000001 00000000"           // link, symlink, named_attr
            " 00000000 00000000 00000000 00000000"  // fsid
            " 00000001 00000258 00000000"           // unique_handles, lease, rdattr_error
            " 00000001 00000001 00000002 00000004 00000002 6d650000"  // acl
            " 0000000f 00000001 00000001"                    // aclsupport, cansettime, case
            " 00000010 11111111 22222222 33333333 33333333"  // filehandle
            " 01020304 05060708 00000001"                    // fileid, homogeneous
            " 00001000 00000000 00000100"                    // maxfilesize, maxname
            " 00000000 00800000 00000000 00800000"           // maxread, maxwrite
            " 000001ff 00000001 00000003"                    // mode, no_trunc, numlinks
            " 00000004 31303030"                             // owner
            " 0000000a 34323934 39363732 39350000"           // owner_group
            " 00000000 f0000001 00000000"                    // time_access
            " 00000000 000000c0 00000000"                    // time_metadata
            " 00000000 000000b0 00000000"                    // time_modify
            " 01020304 05060708");                           // mounted_on_fileid
}

TEST(Attributes4Test, WhatCanBeSetIsAppliedAndNamed) {
  const std::uint64_t now = utility::currentSeconds();
  MemoryStream in;
  // The length, size, acl, mode, owner, group, the server's time of access and a time of
  // modification.
  setInput(in,
           "00000000 00000000 00000007 00000000 0001a1ff 00000004 31303030 00000002 6d650000"
           " 00000000 00000001 00000000 00000055 00000009");
  auto status = nfs::OperationResult::OK;
  const auto values = nfs4::readWritableAttributes(in, {0x1010, 0x0041'0032}, status);
  EXPECT_TRUE(in);
  EXPECT_EQ(in.getInputDataSize(), 0U);
  MetaData md;
  md.gid = 9;
  md.changeTime = 8;
  EXPECT_THAT(nfs4::setAttributes(values, md), ElementsAre(0x10U, 0x0041'0032U));
  EXPECT_EQ(md.size, 7U);
  EXPECT_EQ(md.mode, 0xA1FF);
  EXPECT_EQ(md.uid, 1000U);
  EXPECT_EQ(md.gid, 0U);  // "me"
  EXPECT_GE(md.accessTime, now);
  EXPECT_EQ(md.modifyTime, 0x55U);
  EXPECT_EQ(md.changeTime, 8U);
  EXPECT_EQ(status, nfs::OperationResult::OK);

  setInput(in, "00000008 00000000 00000006");
  const auto more = nfs4::readWritableAttributes(in, {0x4010, 0, 5}, status);
  EXPECT_EQ(status, nfs::OperationResult::AttributeNotSupported);
  EXPECT_THAT(nfs4::setAttributes(more, md), ElementsAre(0x10U));
  EXPECT_EQ(md.size, 6U);
  EXPECT_TRUE(nfs4::setAttributes({}, md).empty());
}

class AttributesTest : public BothVersionsTest {
 protected:
  AttributesTest() {
    dir("/d");
    file("/d/f", "content");
  }
};
INSTANTIATE_TEST_SUITE_P(Both, AttributesTest, ::testing::Values(0U, 1U), minorVersionName);

TEST_P(AttributesTest, GetAttrGivesWhatIsThereAndNoMore) {
  serve();
  const auto get = [&](const Bitmap& bitmap) { return run(at("/d/f").getAttr(bitmap)).body(); };
  EXPECT_EQ(get({1}), "00000001 00000001 0000000c 00000002 ec1abfff 00f1803e");
  EXPECT_EQ(get({}), "00000000 00000000");
  EXPECT_EQ(get(bit(14)), "00000001 00000000 00000000");
  EXPECT_EQ(get({0x12, 0, 1U << 11U}),
            "00000002 00000012 00000000 0000000c 00000001 00000000 00000007");
  EXPECT_EQ(get(bit(48)), "00000002 00000000 00000000 00000000");
  EXPECT_EQ(get(bit(75)), "00000002 00000000 00000000 00000000");
  EXPECT_EQ(get(bit(19)), wire(fattr4(bit(19), handleOf("/d/f"))));
  EXPECT_EQ(status(Compound().put({}).getAttr({1})), kNoFileHandle);
}

TEST_P(AttributesTest, VerifyComparesWhatCanBeCompared) {
  serve();
  const MetaData md = attributes("/d/f");
  NfsHandle other = handleOf("/d/f");
  ++other.objectId;
  const auto time = [](std::uint64_t seconds) { return raw(seconds, 5U); };
  struct Case {
    unsigned number;
    Raw right, wrong;
  };
  for (const Case& c : {
           Case{1, raw(1U), raw(2U)},
           Case{3, raw(std::uint64_t{md.modifyTime}), raw(~std::uint64_t{0})},
           Case{4, raw(std::uint64_t{7}), raw(std::uint64_t{0x1'0000'0007})},
           Case{19, raw(handleOf("/d/f")), raw(other)},
           Case{20, raw(md.fileId), raw(md.fileId + 1)},
           Case{33, raw(unsigned{md.mode}), raw(0x1'0000U + md.mode)},
           Case{35, raw(1U), raw(2U)},
           Case{36, raw(std::to_string(md.uid)), raw("0"s + std::to_string(md.uid))},
           Case{37, raw(std::to_string(md.gid)), raw(""s)},
           Case{47, time(md.accessTime), time(1)},
           Case{52, time(md.changeTime), time(1)},
           Case{53, time(md.modifyTime), time(md.modifyTime + 0x1'0000'0000)},
           Case{55, raw(md.fileId), raw(std::uint64_t{0})},
       }) {
    const auto ask = [&](unsigned operation, const Raw& value) {
      return run(at("/d/f").add(operation, fattr4(bit(c.number), value)).add(op::kGetFh)).status;
    };
    EXPECT_EQ(ask(op::kVerify, c.right), kOk) << c.number;
    EXPECT_EQ(ask(op::kVerify, c.wrong), kNotSame) << c.number;
    EXPECT_EQ(ask(op::kNVerify, c.right), kSame) << c.number;
    EXPECT_EQ(ask(op::kNVerify, c.wrong), kOk) << c.number;
  }
  for (const unsigned operation : {op::kVerify, op::kNVerify}) {
    const auto ask = [&](const Raw& attributes) {
      return run(at("/d/f").add(operation, attributes)).status;
    };
    EXPECT_EQ(ask(fattr4(bit(11), 0U)), kInvalid);
    EXPECT_EQ(ask(fattr4(bit(48), 0U)), kUnsupported);
    EXPECT_EQ(ask(fattr4(bit(14), 0U)), kUnsupported);
    EXPECT_EQ(ask(fattr4({0, 0, 0})), kUnsupported);
    // Nobody compares these: lease_time and supported_attrs of another server.
    const bool wantsEqual = operation == op::kVerify;
    EXPECT_EQ(ask(fattr4({0x401}, Bitmap{1}, 3U)), wantsEqual ? kOk : kSame);
  }
  EXPECT_EQ(status(Compound().put({}).add(op::kVerify, fattr4(kSize, std::uint64_t{0}))),
            kNoFileHandle);
}

TEST_P(AttributesTest, SetAttrIsSeenByEverybody) {
  serve(true);
  ClientSession other = makeSession("other");
  EXPECT_EQ(run(other, at("/d/f").getAttr(kSize)).body(), sizeIs(7));
  const auto set = [&](const Raw& attributes, const std::string& path = "/d/f") {
    return run(at(path).add(op::kSetAttr, kNoState, attributes).getAttr(kSize));
  };
  const Answer cut = set(fattr4({0x10, 0x32}, std::uint64_t{3}, 0600U, "12"s, "34"s));
  EXPECT_THAT(cut.statuses(), ElementsAre(kOk, kOk, kOk));
  EXPECT_EQ(cut.results[1].body(), wire(Bitmap{0x10, 0x32}));
  EXPECT_EQ(cut.body(), sizeIs(3));
  EXPECT_EQ(contentOf("/d/f"), "con");
  EXPECT_EQ(attributes("/d/f").mode, 0600);
  EXPECT_EQ(attributes("/d/f").uid, 12U);
  EXPECT_EQ(run(other, at("/d/f").getAttr({0x10, 0x32})).body(),
            wire(fattr4({0x10, 0x32}, std::uint64_t{3}, 0600U, "12"s, "34"s)));
  EXPECT_EQ(call(kGetAttr, handleOf("/d/f")).body(), wire(kOk, fattrOf("/d/f")));

  EXPECT_EQ(set(fattr4(bit(48), 1U, std::uint64_t{77}, 0U), "/d").results[1].body(), wire(bit(48)));
  EXPECT_EQ(attributes("/d").accessTime, 77U);
  // What cannot be set, beside what can.
  for (const Raw& refused :
       {fattr4({0x12}, 2U, std::uint64_t{1}), fattr4({0x10, 0, 0}, std::uint64_t{1})}) {
    const Answer answer = set(refused);
    EXPECT_EQ(answer.status, kUnsupported);
    EXPECT_EQ(answer.body(), wire(Bitmap{}));
  }
  EXPECT_EQ(attributes("/d/f").size, 3U);
  const Answer nowhere =
      run(Compound().put({}).add(op::kSetAttr, kNoState, fattr4(kSize, std::uint64_t{0})));
  EXPECT_EQ(nowhere.status, kNoFileHandle);
  EXPECT_EQ(nowhere.body(), wire(Bitmap{}));
}

}  // namespace
}  // namespace nfslib::testing

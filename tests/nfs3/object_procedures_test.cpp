#include "support/nfs3_fixture.h"

// GETATTR, LOOKUP, ACCESS, READLINK and the three information procedures.

namespace nfslib::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

class ObjectProceduresTest : public Nfs3Test {
 protected:
  ObjectProceduresTest() {
    dir("/docs");
    file("/docs/a.txt", "hello");
    MetaData md = attributes("/docs/a.txt");
    md.mode = 0644;
    md.uid = 1000;
    parentOf("/docs/a.txt")->OpenFile("a.txt")->SetMetaData(md);
    link("/docs/link", "../a.txt");
  }

  nfs3::PostOpAttr asNamedBy(const NfsHandle& handle, const std::string& path) {
    return {nfs3::procedures::utility::getAttributes(handle, attributes(path))};
  }
};

TEST_F(ObjectProceduresTest, GetAttrIsTheStatusAndTheBareAttributes) {
  serve();
  const NfsHandle file = handleOf("/docs/a.txt");
  log.takeLines();
  const Reply reply = call(kGetAttr, file);
  EXPECT_EQ(reply.body(), wire(kOk, fattrOf("/docs/a.txt")));
  EXPECT_EQ(reply.inputLeft, 0U);
  EXPECT_THAT(log.takeLines(), ::testing::Contains("dbg getAttributes: path [/docs/a.txt]"));
}

TEST_F(ObjectProceduresTest, LookupGivesHandleAttributesAndThoseOfTheDirectory) {
  serve();
  const NfsHandle dir = handleOf("/docs");
  view->findMetaData(NfsPath("/docs/a.txt"));
  log.takeLines();
  const Reply reply = call(kLookup, dir, std::string("a.txt"));
  const auto lines = log.takeLines();
  const NfsHandle file = handleOf("/docs/a.txt");
  EXPECT_EQ(reply.body(), wire(kOk, file, attributesOf("/docs/a.txt"), attributesOf("/docs")));
  EXPECT_THAT(lines,
              ElementsAre("info Nfs procedure: [3]", "dbg lookupObject: path [/docs/a.txt]",
                          "dbg Create handle for path [/docs/a.txt], handle [" + str(file) + "]"));
  // A handle that LOOKUP gave out is good for what it names.
  EXPECT_EQ(call(kGetAttr, file).body(), wire(kOk, fattrOf("/docs/a.txt")));
}

TEST_F(ObjectProceduresTest, LookupOfDotDotStaysInsideTheExport) {
  serve();
  EXPECT_EQ(call(kLookup, root, std::string("..")).body(),
            wire(kOk, root, attributesOf("/"), attributesOf("/")));
  EXPECT_EQ(call(kLookup, handleOf("/docs"), std::string("../..")).body(),
            wire(kOk, root, attributesOf("/"), asNamedBy(handleOf("/docs"), "/")));
}

TEST_F(ObjectProceduresTest, LookupOfAMissingNameIsNoEntryAndOneFalse) {
  serve();
  const NfsHandle dir = handleOf("/docs");
  log.takeLines();
  const Reply reply = call(kLookup, dir, std::string("b.txt"));
  EXPECT_EQ(reply.acceptStatus, kAccepted);
  EXPECT_EQ(reply.body(), wire(kNoEntry, false));
  EXPECT_THAT(log.takeLines(),
              ElementsAre("info Nfs procedure: [3]",
                          HasSubstr("dbg Failed to find metadata in cache. Error: ["),
                          "dbg NFS procedure failed. Procedure: [3]. Result: [NoEntry]."));
}

struct AccessCase {
  const char* name;
  const char* path;
  bool writable;
  unsigned uid;
  unsigned asked, granted;
};

class AccessTest : public ObjectProceduresTest, public ::testing::WithParamInterface<AccessCase> {};

TEST_P(AccessTest, GrantsExactly) {
  const AccessCase& c = GetParam();
  serve(c.writable);
  server.setAllowedGroupId(50);
  send.caller.uid = c.uid;
  send.caller.gid = 50;
  EXPECT_EQ(call(kAccess, handleOf(c.path), c.asked).body(),
            wire(kOk, attributesOf(c.path), c.granted));
}

INSTANTIATE_TEST_SUITE_P(Callers, AccessTest,
                         ::testing::ValuesIn(std::to_array<AccessCase>({
                             {"ReadOnlyFile", "/docs/a.txt", false, 0, 0x3F, 0x01},
                             {"ReadOnlyDirectory", "/docs", false, 0, 0x3F, 0x03},
                             {"FileNobodyExecutes", "/docs/a.txt", true, 0, 0x3F, 0x1D},
                             {"DirectoryIsNeverExecuted", "/docs", true, 0, 0x3F, 0x1F},
                             {"OwnerWrites", "/docs/a.txt", true, 1000, 0x3F, 0x1D},
                             {"OthersOnlyRead", "/docs/a.txt", true, 1001, 0x3F, 0x01},
                             {"NothingAsked", "/docs/a.txt", true, 0, 0, 0},
                             {"UnknownBits", "/docs/a.txt", true, 0, 0xFFFFFFC0, 0},
                         })),
                         [](const auto& param) { return param.param.name; });

TEST_F(ObjectProceduresTest, AccessLogsWhatIsRefused) {
  serve(true);
  const NfsHandle file = handleOf("/docs/a.txt");
  view->findMetaData(NfsPath("/docs/a.txt"));
  log.takeLines();
  call(kAccess, file, 0x3FU);
  EXPECT_THAT(
      log.takeLines(),
      ElementsAre("info Nfs procedure: [4]", "dbg checkAccess: path [/docs/a.txt] access [63]",
                  "info The requested [EXECUTE] permission to [/docs/a.txt] has not been granted",
                  "dbg Check result : [29]"));
}

TEST_F(ObjectProceduresTest, ReadLinkGivesTheTextUnchanged) {
  serve();
  const NfsHandle link = handleOf("/docs/link");
  log.takeLines();
  EXPECT_EQ(call(kReadLink, link).body(),
            wire(kOk, attributesOf("/docs/link"), std::string("../a.txt")));
  EXPECT_THAT(log.takeLines(), ::testing::Contains("dbg readLink: path [/docs/link]"));
}

TEST_F(ObjectProceduresTest, ReadLinkOfSomethingElseIsGarbage) {
  serve();
  const Reply reply = call(kReadLink, handleOf("/docs/a.txt"));
  EXPECT_EQ(reply.acceptStatus, kGarbageArguments);
  EXPECT_EQ(reply.body(), "");
  EXPECT_THAT(log.takeLines(), ::testing::Contains(HasSubstr("err NFS server failed.: ")));
}

TEST_F(ObjectProceduresTest, ReadLinkOfATargetThatNoReplyHoldsIsGarbage) {
  constexpr unsigned kHead = 28 + 4 + 88 + 4;  // what stands before the target
  link("/fits", std::string(1000, 'x'));
  link("/long", std::string(1001, 'x'));
  serve();
  send.outputLimit = kHead + 1000;
  EXPECT_EQ(call(kReadLink, handleOf("/fits")).size, kHead + 1000);
  EXPECT_EQ(call(kReadLink, handleOf("/long")).acceptStatus, kGarbageArguments);
}

struct InformationCase {
  const char* name;
  unsigned procedure;
  const char* line;
  const char* constants;
};

class InformationTest : public ObjectProceduresTest,
                        public ::testing::WithParamInterface<InformationCase> {};

TEST_P(InformationTest, IsTheSameForEveryObject) {
  const InformationCase& c = GetParam();
  serve();
  for (const std::string path : {"/", "/docs/a.txt"}) {
    const NfsHandle handle = handleOf(path);
    log.takeLines();
    EXPECT_EQ(call(c.procedure, handle).body(), wire(kOk, attributesOf(path)) + " " + c.constants);
    EXPECT_THAT(log.takeLines(), ::testing::Contains(c.line + ("[" + path + "]")));
  }
}

INSTANTIATE_TEST_SUITE_P(Procedures, InformationTest,
                         ::testing::ValuesIn(std::to_array<InformationCase>({
                             {"FsStat", kFsStat, "dbg getDynamicFsInfo: path ",
                              "00000000 00000000 00000000 00000000 00000000 00000000 "
                              "00000000 00000000 00000000 00000000 00000000 00000000 00000000"},
                             {"FsInfo", kFsInfo, "dbg getStaticFsInfo: path ",
                              "000c0000 000c0000 00001000 000c0000 000c0000 00001000 00008000 "
                              "7fffffff ffffffff 00000001 00000000 0000000b"},
                             {"PathConf", kPathConf, "dbg getPathConfiguration: path ",
                              "000003ff 000000ff 00000001 00000001 00000000 00000001"},
                         })),
                         [](const auto& param) { return param.param.name; });

}  // namespace
}  // namespace nfslib::testing

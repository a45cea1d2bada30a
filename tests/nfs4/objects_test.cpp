#include "support/counting_tree.h"
#include "support/nfs4_fixture.h"

#include <chrono>
#include <thread>

namespace nfslib::testing {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;

class ObjectsTest : public BothVersionsTest {
 protected:
  ObjectsTest() {
    dir("/d");
    dir("/d/sub");
    file("/d/f", "content");
    link("/d/l", "f/../target");
  }
  void callAs(unsigned user) {
    server4.setAllowedGroupId(50);
    caller4.caller.uid = user;
    caller4.caller.gid = 50;
  }
  Compound atRoot() const { return Compound().add(op::kPutRootFh); }
  std::string handleAfter(const Compound& compound) {
    return run(Compound(compound).add(op::kGetFh)).body();
  }
  // Of FileType and fileid.
  std::string typeAndId(unsigned type, std::uint64_t fileId) const {
    return wire(fattr4({0x10'0002}, type, fileId));
  }
};
INSTANTIATE_TEST_SUITE_P(Both, ObjectsTest, ::testing::Values(0U, 1U), minorVersionName);

TEST_P(ObjectsTest, NothingIsCurrentAtFirst) {
  serve(true);
  for (const unsigned operation :
       {op::kGetFh, op::kSaveFh, op::kRestoreFh, op::kLookupP, op::kReadLink}) {
    EXPECT_EQ(status(Compound().add(operation)), kNoFileHandle) << operation;
  }
  for (const Compound& compound : {
           Compound().lookup("d"),
           Compound().getAttr({1}),
           Compound().add(op::kAccess, 1U),
           Compound().read(),
           Compound().write(0, "x"),
           Compound().close(),
           Compound().open(kNoCreate, kByHandle),
           Compound().open(unchecked(), byName("x")),
           Compound().add(op::kCreate, 2U, "x"s, kNoAttributes),
           Compound().add(op::kRemove, "x"s),
           Compound().add(op::kRename, "x"s, "y"s),
           Compound().add(op::kLink, "x"s),
           Compound().add(op::kReadDir, std::uint64_t{0}, std::uint64_t{0}, 1U, 1U, Bitmap{}),
       }) {
    EXPECT_EQ(status(compound), kNoFileHandle) << compound.operations;
  }
}

TEST_P(ObjectsTest, HandlesOfNothingAreBad) {
  serve();
  NfsHandle earlierRun = handleOf("/d/f");
  --earlierRun.generation;
  NfsHandle unknown = handleOf("/d/f");
  unknown.objectId = 999;
  NfsHandle elsewhere = handleOf("/d/f");
  elsewhere.fileSystemId = 9;
  for (const NfsHandle& bad : {earlierRun, unknown, elsewhere}) {
    EXPECT_THAT(statuses(at("/d").put(bad).add(op::kGetFh)), ElementsAre(kOk, kBadHandle));
  }
  // The object of before stays; the session lasts.
  EXPECT_EQ(run(Compound().add(op::kGetFh)).body(), wire(handleOf("/d")));
}

TEST_P(ObjectsTest, PseudoRootHoldsTheExports) {
  CountingTree second({"/x"});
  service.exportFileSystem(NfsPath("/another"), second, {});
  serve(true);
  const NfsHandle top{service.getGeneration(), 0, 0};
  EXPECT_EQ(handleAfter(atRoot()), wire(top));
  EXPECT_EQ(handleAfter(Compound().put(top)), wire(top));
  EXPECT_EQ(run(atRoot().getAttr({0x10'0002})).body(), typeAndId(2, 0));
  EXPECT_EQ(run(atRoot().add(op::kVerify, fattr4({2}, 2U))).status, kOk);
  EXPECT_EQ(handleAfter(atRoot().lookup("export")), wire(root));
  EXPECT_EQ(run(atRoot().lookup("another").getAttr({0x10'0002})).body(), typeAndId(2, 1));
  EXPECT_EQ(handleAfter(atRoot().lookup("export").add(op::kLookupP)), wire(root));
  EXPECT_EQ(status(atRoot().add(op::kLookupP)), kNoEntry);
  for (const std::string& name : {"none"s, ""s, "."s, ".."s, "/export"s, "export/d"s}) {
    EXPECT_EQ(status(atRoot().lookup(name)), kNoEntry) << name;
  }
  // Everybody may look, nobody may change it.
  callAs(1234);
  EXPECT_EQ(run(atRoot().add(op::kAccess, 0x3FU)).body(), wire(3U, 3U));
  for (const Compound& change : {
           Compound().add(op::kCreate, 2U, "x"s, kNoAttributes),
           Compound().add(op::kRemove, "export"s),
           Compound().add(op::kRename, "export"s, "x"s),
           Compound().add(op::kLink, "x"s),
           Compound().add(op::kSetAttr, kNoState, fattr4(kSize, std::uint64_t{0})),
           Compound().open(kNoCreate, byName("export")),
           Compound().open(unchecked(), byName("x")),
       }) {
    const Compound saved = change.operations.starts_with(" 0000000b") ? at("/d/f") : atRoot();
    EXPECT_EQ(status(Compound(saved).add(op::kSaveFh).add(op::kPutRootFh).add(change)), kReadOnly)
        << change.operations;
  }
  EXPECT_EQ(status(at("/d").add(op::kSaveFh).add(op::kPutRootFh).add(op::kRename, "f"s, "g"s)),
            kReadOnly);
  EXPECT_EQ(status(atRoot().read()), kIsDirectory);
  EXPECT_EQ(status(atRoot().write(0, "x")), kReadOnly);
  EXPECT_EQ(status(atRoot().add(op::kReadLink)), kIsDirectory);
  EXPECT_EQ(status(atRoot().close()), kOk);
}

TEST_P(ObjectsTest, LookupGoesOneLevelDownOrUp) {
  serve();
  EXPECT_EQ(handleAfter(at("/d").lookup("sub")), wire(handleOf("/d/sub")));
  EXPECT_EQ(handleAfter(at("/d/sub").add(op::kLookupP).add(op::kLookupP)), wire(root));
  EXPECT_EQ(handleAfter(at("/").add(op::kLookupP)), wire(root));
  EXPECT_EQ(status(at("/d/f").lookup("x")), kNotDirectory);
  EXPECT_EQ(status(at("/d/l").lookup("x")), kIsLink);
  EXPECT_EQ(status(at("/d/f").add(op::kLookupP)), kNotDirectory);
  for (const std::string& name :
       {""s, "."s, ".."s, "sub/.."s, "../d"s, "/d"s, "f\0"s, std::string(300, 'x')}) {
    EXPECT_EQ(status(at("/d").lookup(name)), kNoEntry) << name;
    EXPECT_EQ(run(Compound().add(op::kGetFh)).body(), wire(handleOf("/d")));
  }
  log.takeLines();
  run(at("/d").lookup("missing"));
  const auto lines = log.takeLines();
  EXPECT_THAT(lines,
              Contains("dbg Put file handle: [" + std::to_string(handleOf("/d").objectId) + "]"));
  EXPECT_THAT(lines, Contains(::testing::StartsWith("warn Unable to set filesystem object: [")));
}

TEST_P(ObjectsTest, SavedObjectComesBackWhole) {
  serve();
  Compound compound = at("/d/f").open(kNoCreate, kByHandle).add(op::kSaveFh);
  compound.add(op::kPutRootFh).add(op::kRestoreFh).read().add(op::kGetFh);
  const Answer answer = run(compound);
  EXPECT_EQ(answer.body(), wire(handleOf("/d/f")));
  EXPECT_EQ(answer.results[5].body(), wire(true, "content"s));
}

TEST_P(ObjectsTest, AccessGoesByModeAndServer) {
  MetaData md = attributes("/d/f");
  md.mode = 0754;
  md.uid = 7;
  parentOf("/d/f")->OpenFile("f")->SetMetaData(md);
  serve();
  callAs(9);
  EXPECT_EQ(run(at("/d/f").add(op::kAccess, 0x3FU)).body(), wire(1U, 1U));
  const std::string onDirectory = run(at("/d").add(op::kAccess, 0x3FU)).body();
  EXPECT_EQ(onDirectory.substr(0, 8), "00000003");
  server4.registerProgram(kProgram, std::make_unique<nfs::Nfs4Program>(service, true));
  EXPECT_EQ(run(at("/d/f").add(op::kAccess, 0x3FU)).body(), wire(0x2DU, 1U));
  EXPECT_EQ(run(at("/d").add(op::kAccess, 0x3FU)).body().substr(0, 8), "0000001f");
  callAs(7);
  EXPECT_EQ(run(at("/d/f").add(op::kAccess, 0x3FU)).body(), wire(0x2DU, 0x2DU));
  EXPECT_EQ(run(at("/d/f").add(op::kAccess, 4U)).body(), wire(0x2DU, 4U));
}

TEST_P(ObjectsTest, ReadLinkGivesTheTextAsItIs) {
  serve();
  EXPECT_EQ(run(at("/d/l").add(op::kReadLink)).body(), wire("f/../target"s));
  EXPECT_EQ(status(at("/d/f").add(op::kReadLink)), kWrongType);
  EXPECT_EQ(status(at("/d").add(op::kReadLink)), kIsDirectory);
}

TEST_P(ObjectsTest, WithdrawnExportIsLetGo) {
  serve();
  EXPECT_EQ(status(at("/d/f").add(op::kSaveFh).open(kNoCreate, kByHandle)), kOk);
  const std::uint32_t number = root.fileSystemId;
  const NfsHandle file = handleOf("/d/f");
  view.reset();
  service.removeExport(NfsPath("/export"));
  const auto now = std::chrono::steady_clock::now();
  const auto session =
      minorVersion == 0 ? Nfs4Session::getDefaultSession() : service.findSessionById(own.id);
  {
    // One whose COMPOUND does not end holds up nobody.
    const auto taken = session->take(service.profile());
    std::thread([&] { service.releaseObjects(number, now); }).join();
    EXPECT_FALSE(service.waitForViews(now));
  }
  session->take(service.profile());
  EXPECT_TRUE(service.waitForViews(now));
  EXPECT_EQ(status(Compound().add(op::kGetFh)), kNoFileHandle);
  EXPECT_EQ(status(Compound().add(op::kRestoreFh)), kNoFileHandle);
  EXPECT_EQ(status(Compound().put(file)), kBadHandle);
}

}  // namespace
}  // namespace nfslib::testing

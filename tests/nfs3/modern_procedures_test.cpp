#include "support/nfs3_fixture.h"

#include <cerrno>
#include <functional>
#include <map>
#include <string>

// What the modern profile answers in another way than the classic one.

namespace nfslib::testing {
namespace {

enum Status : unsigned {
  kNotOwner = 1,
  kIo = 5,
  kAccessDenied = 13,
  kExists = 17,
  kCrossDevice = 18,
  kNotDirectory = 20,
  kIsDirectory = 21,
  kInvalid = 22,
  kReadOnly = 30,
  kNameTooLong = 63,
  kNotEmpty = 66,
  kQuota = 69,
  kBadHandle = 10001,
  kNotSync = 10002,
};

// The words behind the status of a failure, by RFC 1813.
const std::map<unsigned, unsigned> kFailureWords{
    {kGetAttr, 0},     {kSetAttr, 2}, {kLookup, 1}, {kAccess, 1},   {kReadLink, 1},
    {kRead, 1},        {kWrite, 2},   {kCreate, 2}, {kMkDir, 2},    {kSymlink, 2},
    {kRemove, 2},      {kRmDir, 2},   {kRename, 4}, {kLink, 3},     {kReadDir, 1},
    {kReadDirPlus, 1}, {kFsStat, 1},  {kFsInfo, 1}, {kPathConf, 1}, {kCommit, 2}};

std::string failure(unsigned procedure, unsigned status) {
  MemoryStream out;
  out << status;
  for (unsigned i = 0; i < kFailureWords.at(procedure); ++i) out << false;
  return hex(out.getOutputBuffer());
}

// sattr3
const std::string kNothing = wire(0U, 0U, 0U, 0U, 0U, 0U);
std::string size(std::uint64_t bytes) { return wire(0U, 0U, 0U, true, bytes, 0U, 0U); }
enum CreateMode : unsigned { kUnchecked, kGuarded, kExclusive };

class ModernNfs3Test : public Nfs3Test {
 protected:
  ModernNfs3Test() {
    const Profile profile = profileOf(NfsServerPolicy::modern());
    service.setProfile(profile);
    server.setProfile(profile);
    server.setAllowedGroupId(50);
    send.caller.uid = 1000;
    send.caller.gid = 50;
    dir("/d");
    dir("/d/full");
    file("/d/full/x", "x");
    file("/f", "content");
    for (const char* path : {"/", "/d", "/d/full", "/d/full/x", "/f"}) {
      change(path, [](MetaData& md) { md.uid = 1000; });
    }
  }
  // The status alone.
  unsigned statusOf(unsigned procedure, const std::string& arguments) const {
    const Reply reply = send(procedure, arguments);
    MemoryStream results;
    results.setInputData({reply.results.data(), reply.results.size()});
    unsigned status = 0;
    results >> status;
    return results && reply.acceptStatus == kAccepted ? status : ~0U;
  }
  std::string entry(const char* name) { return wire(root, std::string(name)); }
  void failWith(const char* operation, std::function<void()> fail) {
    host.onCall = [=](std::string_view called) {
      if (called == operation) fail();
    };
  }
  void change(const std::string& path, const std::function<void(MetaData&)>& edit) {
    MetaData md = attributes(path);
    edit(md);
    if (isType(md, FileType::Directory)) {
      directoryAt(NfsPath(path))->SetMetaData(md);
    } else {
      parentOf(path)->OpenFile(NfsPath(path).getFileName())->SetMetaData(md);
    }
  }
};

TEST_F(ModernNfs3Test, AHandleThatLeadsNowhereFailsInTheShapeOfItsProcedure) {
  serve(true);
  NfsHandle earlierRun = root, unknown = root, otherExport = root;
  --earlierRun.generation;
  unknown.objectId = 999;
  otherExport.fileSystemId = 7;
  const std::string shortHandle = "0000000f 00000000 00000000 00000000 00000000";
  for (const auto& [procedure, words] : kFailureWords) {
    const std::string rest = " " + wire(std::string("name"));
    EXPECT_EQ(send(procedure, shortHandle + rest).body(), failure(procedure, kBadHandle));
    EXPECT_EQ(send(procedure, wire(earlierRun) + rest).body(), failure(procedure, kStale));
    EXPECT_EQ(send(procedure, "").acceptStatus, kGarbageArguments) << procedure;
  }
  for (const NfsHandle& handle : {unknown, otherExport}) {
    EXPECT_EQ(call(kGetAttr, handle).body(), failure(kGetAttr, kStale));
    EXPECT_EQ(call(kLookup, handle, std::string("f")).body(), failure(kLookup, kStale));
    EXPECT_EQ(call(kCommit, handle, std::uint64_t{0}, 0U).body(), failure(kCommit, kStale));
  }
  // The host took the object away.
  const NfsHandle gone = handleOf("/d/full/x");
  directoryAt(NfsPath("/d/full"))->RemoveFile("x");
  EXPECT_EQ(call(kGetAttr, gone).body(), failure(kGetAttr, kStale));
}

TEST_F(ModernNfs3Test, AReadOnlyServerRefusesEveryChange) {
  serve(false);
  for (const unsigned procedure :
       {kSetAttr, kWrite, kCreate, kMkDir, kSymlink, kRemove, kRmDir, kRename, kLink}) {
    EXPECT_EQ(send(procedure, entry("f")).body(), failure(procedure, kReadOnly)) << procedure;
  }
  EXPECT_EQ(statusOf(kCommit, wire(handleOf("/f"), std::uint64_t{0}, 0U)), kOk);
  EXPECT_EQ(attributes("/f").size, 7U);
}

TEST_F(ModernNfs3Test, AFailureOfTheHostIsTheStatusThatFits) {
  serve(true);
  struct Case {
    unsigned procedure;
    std::string arguments;
    const char* operation;
    int error;
    unsigned status;
  };
  const NfsHandle f = handleOf("/f");
  const std::string data = wire(std::uint64_t{0}, 1U, 0U, std::string("1"));
  for (const Case& c : {
           Case{kRead, wire(f, std::uint64_t{0}, 4U), "Read", EACCES, kAccessDenied},
           Case{kReadDir, wire(root, 0UL, 0UL, 4096U), "Enumerate", EACCES, kAccessDenied},
           Case{kReadLink, wire(f), "", 0, kInvalid},
           Case{kWrite, wire(f) + data, "Write", EDQUOT, kQuota},
           Case{kSetAttr, wire(f) + size(1) + wire(false), "SetMetaData", EPERM, kNotOwner},
       }) {
    failWith(c.operation, [&] { throw SystemNfsException(c.error, "the host says why"); });
    EXPECT_EQ(send(c.procedure, c.arguments).body(), failure(c.procedure, c.status)) << c.procedure;
  }
  for (const Case& c : {
           Case{kLookup, entry("new"), "GetEntryByName", EACCES, kAccessDenied},
           Case{kLookup, entry(std::string(256, 'n').c_str()), "", 0, kNameTooLong},
           Case{kLookup, entry("d/full"), "", 0, kInvalid},
           Case{kLookup, wire(f, std::string("x")), "", 0, kNotDirectory},
           Case{kMkDir, entry("new") + kNothing, "CreateSubdir", EACCES, kAccessDenied},
           Case{kMkDir, entry("d") + kNothing, "", 0, kExists},
           Case{kRemove, entry("f"), "RemoveFile", EPERM, kNotOwner},
           Case{kRemove, entry("d"), "", 0, kIsDirectory},
           Case{kRemove, entry("none"), "", 0, kNoEntry},
           Case{kRemove, entry(".."), "", 0, kInvalid},
           Case{kRmDir, entry("f"), "", 0, kNotDirectory},
           Case{kRmDir, entry("d"), "", 0, kNotEmpty},
           Case{kRename, entry("f") + entry("g"), "MoveEntry", EXDEV, kCrossDevice},
           Case{kRename, entry("none") + entry("g"), "", 0, kNoEntry},
           Case{kRename, entry("f") + entry("d"), "", 0, kIsDirectory},
           Case{kLink, wire(f) + entry("d"), "", 0, kExists},
       }) {
    failWith(c.operation, [&] { throw SystemNfsException(c.error, "the host says why"); });
    EXPECT_EQ(statusOf(c.procedure, c.arguments), c.status) << c.procedure << c.operation;
  }
  // A host that gives no cause.
  failWith("GetEntryByName", [] { throw INfsException("no"); });
  EXPECT_EQ(call(kLookup, root, std::string("new")).body(), failure(kLookup, kNoEntry));
  failWith("Read", [] { throw std::runtime_error("no"); });
  EXPECT_EQ(call(kRead, f, std::uint64_t{0}, 4U).body(), failure(kRead, kIo));
}

TEST_F(ModernNfs3Test, WhatIsMadeBelongsToTheCaller) {
  serve(true);
  change("/d", [](MetaData& md) {
    md.mode = 02775;
    md.gid = 77;
  });
  const NfsHandle d = handleOf("/d");
  EXPECT_EQ(statusOf(kMkDir, entry("dir") + kNothing), kOk);
  EXPECT_EQ(statusOf(kSymlink, entry("link") + kNothing + wire(std::string("to"))), kOk);
  EXPECT_EQ(statusOf(kCreate, wire(d, std::string("new"), kGuarded) + kNothing), kOk);
  EXPECT_EQ(attributes("/dir").uid, 1000U);
  EXPECT_EQ(attributes("/dir").gid, 50U);
  EXPECT_EQ(attributes("/link").uid, 1000U);
  EXPECT_EQ(attributes("/d/new").uid, 1000U);
  EXPECT_EQ(attributes("/d/new").gid, 77U) << "that of the directory";
  // Who names another gets that one.
  send.caller.uid = 0;
  EXPECT_EQ(statusOf(kMkDir, entry("his") + wire(0U, true, 7U, 0U, 0U, 0U, 0U)), kOk);
  EXPECT_EQ(attributes("/his").uid, 7U);
  send.caller.uid = 1000;
  // The host does not let it.
  bool first = true;
  failWith("SetMetaData", [&] {
    if (std::exchange(first, false)) throw SystemNfsException(EPERM, "not yours to give");
  });
  EXPECT_EQ(statusOf(kMkDir, entry("kept") + kNothing), kOk);
  EXPECT_NE(attributes("/kept").uid, 1000U);
}

TEST_F(ModernNfs3Test, CreateMeetsANameAsItsModeSays) {
  serve(true);
  const std::string verifier = "89abcdef 01234567", other = "89abcdef 01234568";
  const auto create = [&](const char* name, CreateMode mode, const std::string& rest) {
    return statusOf(kCreate, entry(name) + wire(unsigned{mode}) + rest);
  };
  EXPECT_EQ(create("once", kExclusive, verifier), kOk);
  const std::uint64_t id = attributes("/once").fileId;
  EXPECT_EQ(create("once", kExclusive, verifier), kOk) << "the reply was lost";
  EXPECT_EQ(attributes("/once").fileId, id);
  EXPECT_EQ(create("once", kExclusive, other), kExists);
  change("/once", [](MetaData& md) { md.modifyTime = 5; });
  EXPECT_EQ(create("once", kExclusive, verifier), kExists) << "the client has set its times";

  EXPECT_EQ(create("f", kGuarded, kNothing), kExists);
  EXPECT_EQ(create("d", kUnchecked, kNothing), kExists);
  EXPECT_EQ(create("f", kUnchecked, wire(true, 0600U, 0U, 0U, 0U, 0U, 0U)), kOk);
  EXPECT_EQ(attributes("/f").size, 7U);
  EXPECT_EQ(attributes("/f").mode, 0644U) << "modes are for files that are made";
  EXPECT_EQ(create("f", kUnchecked, size(0)), kOk);
  EXPECT_EQ(attributes("/f").size, 0U);
}

TEST_F(ModernNfs3Test, SetAttributesKeepsItsGuardAndMovesTheTimes) {
  serve(true);
  change("/f", [](MetaData& md) { md.modifyTime = 1000; });
  const NfsHandle f = handleOf("/f");
  const unsigned changed = attributes("/f").changeTime;
  const auto set = [&](unsigned guard, unsigned count = 0) {
    return statusOf(kSetAttr, wire(f) + size(7) + wire(true, guard, count));
  };
  EXPECT_EQ(set(changed - 1), kNotSync);
  EXPECT_EQ(set(changed, 1), kNotSync) << "another count of changes";
  EXPECT_EQ(attributes("/f").modifyTime, 1000U);
  EXPECT_EQ(set(changed), kOk);
  EXPECT_NE(attributes("/f").modifyTime, 1000U) << "although the size is the old one";
}

TEST_F(ModernNfs3Test, OwnersMayWriteAndProgramsRun) {
  change("/f", [](MetaData& md) {
    md.uid = 1000;
    md.mode = 0555;
  });
  const auto granted = [&](const std::string& path) {
    const Reply reply = call(kAccess, handleOf(path), 0x3FU);
    return reply.body().substr(reply.body().size() - 8);
  };
  serve(true);
  EXPECT_EQ(granted("/f"), "0000002d") << "read, modify, extend, execute";
  send.caller.uid = 1001;
  EXPECT_EQ(granted("/f"), "00000021");
  server.registerProgram(kProgram, std::make_unique<nfs::Nfs3Program>(service, false));
  EXPECT_EQ(granted("/f"), "00000021") << "read-only";
}

TEST_F(ModernNfs3Test, EachStartHasAWriteVerifierOfItsOwn) {
  serve(true);
  const NfsHandle f = handleOf("/f");
  const auto verifierOf = [&](const Reply& reply) {
    return reply.body().substr(reply.body().size() - 17);
  };
  const auto write = [&] {
    return verifierOf(call(kWrite, f, std::uint64_t{0}, 1U, 0U, std::string("1")));
  };
  const std::string before = write();
  EXPECT_EQ(before, wire(service.identity().writeVerifier));
  EXPECT_EQ(verifierOf(call(kCommit, f, std::uint64_t{0}, 0U)), before);
  service.renewIdentity();
  EXPECT_NE(write(), before);
}

}  // namespace
}  // namespace nfslib::testing

#include "support/nfs3_fixture.h"

#include <cstdint>
#include <string>
#include <vector>

// What the modern profile shows of a tree in version 3.

namespace nfslib::testing {
namespace {

using ::testing::ElementsAre;

constexpr unsigned kTooSmall = 10005;
constexpr unsigned kAttributesSize = 84;

struct Entry {
  std::uint64_t fileId = 0;
  std::string name;
  std::uint64_t cookie = 0;
  NfsHandle handle;
};
struct Page {
  unsigned status = 0;
  std::vector<Entry> entries;
  bool eof = false;
};

class ModernTree3Test : public Nfs3Test {
 protected:
  ModernTree3Test() {
    service.setProfile(profileOf(NfsServerPolicy::modern()));
    dir("/d");
    for (const char* name : {"a", "b", "c"}) file(std::string("/d/") + name, "");
    serve(true);
  }
  Page page(const std::string& path, std::uint64_t cookie, unsigned count, bool plus) {
    const NfsHandle dir = handleOf(path);
    const Reply reply = plus ? call(kReadDirPlus, dir, cookie, std::uint64_t{0}, 1U, count)
                             : call(kReadDir, dir, cookie, std::uint64_t{0}, count);
    MemoryStream in;
    in.setInputData({reply.results.data(), reply.results.size()});
    Page result;
    in >> result.status;
    in.skipInput(4 + kAttributesSize);
    if (result.status != kOk) {
      EXPECT_EQ(in.getInputDataSize(), 0U);
      return result;
    }
    in.skipInput(8);
    bool follows = false;
    for (in >> follows; follows && in; in >> follows) {
      Entry entry;
      in >> entry.fileId >> entry.name >> entry.cookie;
      if (plus) {
        in.skipInput(4 + kAttributesSize + 4);
        in >> entry.handle;
      }
      result.entries.push_back(std::move(entry));
    }
    in >> result.eof;
    EXPECT_TRUE(in);
    return result;
  }

  static std::string words(const Reply& reply, std::size_t first, std::size_t count) {
    constexpr std::size_t kWord = 9;
    return reply.body().substr(first * kWord, count * kWord - 1);
  }
  // ctime of the object, as GETATTR tells it.
  std::string changeTime(const std::string& path) {
    return words(call(kGetAttr, handleOf(path)), 20, 2);
  }
};

TEST_F(ModernTree3Test, ListingsBeginWithSelfAndParent) {
  const std::uint64_t rootId = attributes("/").fileId;
  const std::uint64_t dir = attributes("/d").fileId;
  for (const bool plus : {false, true}) {
    // Page by page, each with room for one entry and not for two.
    std::vector<std::string> names;
    std::vector<std::uint64_t> ids;
    std::uint64_t cookie = 0;
    for (bool eof = false; !eof && names.size() < 10;) {
      const Page part = page("/d", cookie, plus ? 300 : 180, plus);
      eof = part.eof;
      for (const Entry& entry : part.entries) {
        names.push_back(entry.name);
        ids.push_back(entry.fileId);
        cookie = entry.cookie;
        EXPECT_TRUE(names.size() > 2 || cookie == names.size());
        if (!plus) continue;
        EXPECT_EQ(entry.handle,
                  NfsFileSystem::createHandle(root, MetaData{.fileId = entry.fileId}));
      }
    }
    EXPECT_THAT(names, ElementsAre(".", "..", "a", "b", "c"));
    EXPECT_EQ(ids[0], dir);
    EXPECT_EQ(ids[1], rootId);
    EXPECT_EQ(page("/", 0, 4000, plus).entries.at(1).fileId, rootId);
    EXPECT_EQ(page("/d", 0, 130, plus).status, kTooSmall);
  }
  // The handles lead where the names do.
  EXPECT_EQ(view->getPath(page("/d", 0, 4000, true).entries.at(1).handle), NfsPath("/"));
}

TEST_F(ModernTree3Test, RemovingWhatWasListedHidesNothing) {
  std::uint64_t cookie = 2;
  std::vector<std::string> seen;
  for (bool eof = false; !eof && seen.size() < 5;) {
    const Page part = page("/d", cookie, 180, false);
    eof = part.eof;
    for (const Entry& entry : part.entries) {
      seen.push_back(entry.name);
      cookie = entry.cookie;
      call(kRemove, handleOf("/d"), entry.name);
    }
  }
  EXPECT_THAT(seen, ElementsAre("a", "b", "c"));
}

TEST_F(ModernTree3Test, EveryChangeMovesTheChangeTimeOfWhatItChanges) {
  const std::string kNothing = wire(0U, 0U, 0U, 0U, 0U, 0U);
  dir("/e");
  const NfsHandle d = handleOf("/d");
  const NfsHandle e = handleOf("/e");
  const NfsHandle a = handleOf("/d/a");
  const std::string text = "text";
  struct Case {
    unsigned procedure;
    std::string arguments;
    std::vector<std::string> changed, same;
  };
  for (const Case& c : {
           Case{kWrite, wire(a, std::uint64_t{0}, 4U, 0U, text), {"/d/a"}, {"/d", "/d/b"}},
           Case{kSetAttr, wire(a) + " " + kNothing + wire(0U), {"/d/a"}, {"/d"}},
           Case{kLink, wire(a, e, std::string("a2")), {"/d/a", "/e"}, {"/d", "/d/b"}},
           Case{kCreate, wire(e, std::string("n"), 0U) + " " + kNothing, {"/e"}, {"/d", "/d/a"}},
           Case{kMkDir, wire(e, std::string("m")) + " " + kNothing, {"/e"}, {"/d"}},
           Case{kRename, wire(d, std::string("b"), e, std::string("b")), {"/d", "/e"}, {"/d/a"}},
           Case{kRename, wire(d, std::string("c"), e, std::string("a2")), {"/d/a"}, {"/e/m"}},
           Case{kRemove, wire(e, std::string("b")), {"/e"}, {"/d", "/d/a"}},
           Case{kRmDir, wire(e, std::string("m")), {"/e"}, {"/d"}},
       }) {
    std::vector<std::string> before, sameBefore;
    for (const auto& path : c.changed) before.push_back(changeTime(path));
    for (const auto& path : c.same) sameBefore.push_back(changeTime(path));
    EXPECT_EQ(words(send(c.procedure, c.arguments), 0, 1), "00000000") << c.procedure;
    for (std::size_t i = 0; i < before.size(); ++i) {
      EXPECT_NE(changeTime(c.changed[i]), before[i]) << c.procedure << " " << c.changed[i];
    }
    for (std::size_t i = 0; i < c.same.size(); ++i) {
      EXPECT_EQ(changeTime(c.same[i]), sameBefore[i]) << c.procedure << c.same[i];
    }
  }
}

// Weak cache consistency: what a reply calls the state before is what the last one told.
TEST_F(ModernTree3Test, RepliesToChangesFitTogether) {
  const NfsHandle a = handleOf("/d/a");
  const std::string text = "text";
  std::string last = changeTime("/d/a");
  for (std::uint64_t offset = 0; offset < 12; offset += 4) {
    const Reply reply = call(kWrite, a, offset, 4U, 0U, text);
    EXPECT_EQ(words(reply, 6, 2), last);
    last = words(reply, 28, 2);
    EXPECT_NE(last, words(reply, 6, 2));
    EXPECT_EQ(changeTime("/d/a"), last);
  }
  const Reply set = call(kSetAttr, a, true, 0600U, 0U, 0U, 0U, 0U, 0U, false);
  EXPECT_EQ(words(set, 6, 2), last);
  EXPECT_EQ(words(set, 28, 2), changeTime("/d/a"));
}

TEST_F(ModernTree3Test, FsStatTellsHowFullItIs) {
  const auto told = tree.GetStatistics();
  EXPECT_EQ(told.totalBytes, 256U << 20U);
  EXPECT_EQ(told.freeBytes, told.totalBytes - tree.usedBytes());
  const std::string numbers = wire(told.totalBytes, told.freeBytes, told.availableBytes,
                                   told.totalFiles, told.freeFiles, told.availableFiles, 0U);
  // The observer between has no statistics: zeros.
  const std::uint64_t zero = 0;
  EXPECT_EQ(words(call(kFsStat, root), 23, 13), wire(zero, zero, zero, zero, zero, zero, 0U));
  service.exportFileSystem(NfsPath("/full"), tree, {});
  EXPECT_EQ(words(call(kFsStat, service.getHandle(NfsPath("/full"))), 23, 13), numbers);
}

}  // namespace
}  // namespace nfslib::testing

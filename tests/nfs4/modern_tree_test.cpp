#include "support/nfs4_fixture.h"

#include <grp.h>
#include <pwd.h>

// What the modern profile shows of a tree in version 4.

namespace nfslib::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr unsigned kDenied = 13, kNotSupported = 10004, kBadStateId = 10025, kNoGrace = 10033,
                   kBadOwner = 10039;
const Bitmap kChange{1U << 3U};

Bitmap bit(unsigned number) {
  Bitmap bitmap(number / 32 + 1);
  bitmap.back() = 1U << number % 32;
  return bitmap;
}

class ModernTree4Test : public BothVersionsTest {
 protected:
  ModernTree4Test() {
    service.setProfile(profileOf(NfsServerPolicy::modern()));
    dir("/d");
    dir("/e");
    file("/d/f", "content");
    file("/d/g", "");
  }

  static Compound top() { return Compound().add(op::kPutRootFh); }
  std::string get(Compound place, const Bitmap& bitmap) {
    return run(place.getAttr(bitmap)).body();
  }
  std::uint64_t change(const std::string& path) {
    return numberAt(run(at(path).getAttr(kChange)), 12);
  }
};
INSTANTIATE_TEST_SUITE_P(Both, ModernTree4Test, ::testing::Values(0U, 1U), minorVersionName);

// Typed by hand from RFC 7530 section 5 and RFC 8881 section 5.
TEST_P(ModernTree4Test, WhatIsAnnouncedCanBeRead) {
  service.exportFileSystem(NfsPath("/full"), tree, {});
  serve();
  const bool has75 = minorVersion == 1;
  // No list of access, and no statistics in the export behind the observer.
  EXPECT_EQ(get(at("/d/f"), {1}),
            "00000001 00000001 " + (has75 ? "00000010 00000003 fc1f8fff 00f9a03e 00000800"s
                                          : "0000000c 00000002 fc1f8fff 00f9a03e"s));
  const auto told = tree.GetStatistics();
  const Compound full = top().lookup("full");
  EXPECT_EQ(get(full, {7U << 21U, 7U << 10U}),
            wire(fattr4({7U << 21U, 7U << 10U}, told.availableFiles, told.freeFiles,
                        told.totalFiles, told.availableBytes, told.freeBytes, told.totalBytes)));
  struct Case {
    unsigned number;
    Raw value;
  };
  for (const Case& c : {
           Case{10, raw(90U)},
           Case{16, raw(0U)},
           Case{18, raw(1U)},
           Case{29, raw(255U)},
           Case{30, raw(std::uint64_t{1'044'480})},
           Case{31, raw(std::uint64_t{1'044'480})},
           Case{33, raw(unsigned{attributes("/d/f").mode})},
           Case{45, raw(std::uint64_t{512})},
           Case{51, raw(std::uint64_t{1}, 0U)},
           Case{55, raw(attributes("/d/f").fileId)},
       }) {
    EXPECT_EQ(get(at("/d/f"), bit(c.number)), wire(fattr4(bit(c.number), c.value))) << c.number;
    EXPECT_EQ(status(at("/d/f").add(op::kVerify, fattr4(bit(c.number), c.value))), kOk) << c.number;
  }
  EXPECT_EQ(get(at("/d/f"), bit(12)), "00000001 00000000 00000000");
  EXPECT_EQ(get(at("/d/f"), bit(75)), has75 ? wire(fattr4(bit(75), Bitmap{0x10, 0x0041'0032}))
                                            : "00000002 00000000 00000000 00000000");
}

TEST(ModernAttributes4Test, ListsOfAccessAreToldWhereThereAreAny) {
  constexpr Profile kModern{.isModern = true, .fewestLinks = 1};
  const NfsHandle handle{1, 2, 3};
  MetaData md;
  md.size = 513;
  md.mode = 0xF1FF;
  for (const bool hasList : {false, true}) {
    if (hasList) md.acl = {{1, 2, 4, "me"}};
    MemoryStream out;
    nfs4::printAttributes(out, {0x3001, 0x200A}, {.handle = handle, .md = md, .profile = kModern});
    EXPECT_EQ(hex(out.getOutputBuffer()),
              hasList ? "00000002 00003001 0000200a 00000038 00000002 fc1fbfff 00f9a03e"
                        " 00000001 00000001 00000002 00000004 00000002 6d650000 0000000f"
                        " 000001ff 00000001 00000000 00000400"
                      : "00000002 00000001 0000200a 0000001c 00000002 fc1f8fff 00f9a03e"
                        " 000001ff 00000001 00000000 00000400");
  }
}

TEST_P(ModernTree4Test, EveryExportIsAFileSystemOfItsOwn) {
  service.exportFileSystem(NfsPath("/other"), tree, {});
  serve();
  const Bitmap ids{1U << 8U | 1U << 20U, 1U << 23U};
  const std::uint64_t zero = 0;
  const auto shown = [&](std::uint64_t fsid, std::uint64_t fileId, std::uint64_t mounted) {
    return wire(fattr4(ids, fsid, zero, fileId, mounted));
  };
  const std::uint64_t rootId = attributes("/").fileId;
  EXPECT_EQ(get(top(), ids), shown(0, 1, 1));
  EXPECT_EQ(get(top().lookup("other"), ids), shown(1, rootId, 2));
  EXPECT_EQ(get(at("/"), ids), shown(2, rootId, 3));
  EXPECT_EQ(get(at("/d"), ids), shown(2, attributes("/d").fileId, attributes("/d").fileId));
  EXPECT_EQ(get(top(), bit(33)), wire(fattr4(bit(33), 0555U)));
  EXPECT_EQ(get(top(), bit(35)), wire(fattr4(bit(35), 2U)));

  // The same in a listing, whose cookies are those of the exports.
  const auto list = [&](std::uint64_t cookie) {
    return run(top().add(op::kReadDir, cookie, zero, 0U, 4000U, ids)).body();
  };
  const std::string other = wire(true, std::uint64_t{3}, "other"s) + " " + shown(1, rootId, 2);
  const std::string second = wire(true, std::uint64_t{4}, "export"s) + " " + shown(2, rootId, 3);
  EXPECT_EQ(list(0), wire(zero) + " " + other + " " + second + " " + wire(false, true));
  EXPECT_EQ(list(3), wire(zero) + " " + second + " " + wire(false, true));
  const std::string before = get(top(), kChange);
  service.removeExport(NfsPath("/other"));
  EXPECT_NE(get(top(), kChange), before);
  EXPECT_EQ(list(3), wire(zero) + " " + second + " " + wire(false, true));
}

TEST_P(ModernTree4Test, OwnersMayBeNamedAndUnknownOnesAreRefused) {
  serve(true);
  const std::string user = ::getpwuid(0)->pw_name;
  const std::string group = ::getgrgid(0)->gr_name;
  const auto set = [&](const std::string& owner, const std::string& ownerGroup) {
    return status(at("/d/f").add(op::kSetAttr, kNoState, fattr4({0, 0x30}, owner, ownerGroup)));
  };
  EXPECT_EQ(set("4294967294", "12"), kOk);
  EXPECT_EQ(attributes("/d/f").uid, 4'294'967'294U);
  EXPECT_EQ(attributes("/d/f").gid, 12U);
  for (const std::string bad : {"no such user@here", "", "@here", "-1", "4294967296"}) {
    EXPECT_EQ(set(bad, "13"), kBadOwner) << bad;
    EXPECT_EQ(set("13", bad), kBadOwner) << bad;
  }
  EXPECT_EQ(attributes("/d/f").gid, 12U);
  EXPECT_EQ(set(user + "@any.where", group), kOk);
  EXPECT_EQ(attributes("/d/f").uid, 0U);
  EXPECT_EQ(attributes("/d/f").gid, 0U);
  EXPECT_EQ(get(at("/d/f"), bit(36)), wire(fattr4(bit(36), "0"s)));
}

TEST_P(ModernTree4Test, ChangesWithinASecondAreSeenAndToldOf) {
  serve(true);
  struct Case {
    const char* what;
    Compound compound;
    std::vector<std::string> changed;
    unsigned infos;  // change_info4 in the result, of `changed` in their order
  };
  const std::uint64_t client = minorVersion == 0 ? setClientId("client") : 0;
  const Compound intoE = Compound().put(handleOf("/e"));
  for (const Case& c : {
           Case{"write", at("/d/f").write(0, "x"), {"/d/f"}, 0},
           Case{"setattr",
                at("/d/f").add(op::kSetAttr, kNoState, fattr4(bit(33), 0600U)),
                {"/d/f"},
                0},
           Case{"create", at("/d").add(op::kCreate, 2U, "s"s, kNoAttributes), {"/d"}, 1},
           Case{"link",
                at("/d/f").add(op::kSaveFh).add(intoE).add(op::kLink, "h"s),
                {"/e", "/d/f"},
                1},
           Case{"rename",
                at("/d").add(op::kSaveFh).add(intoE).add(op::kRename, "g"s, "g"s),
                {"/d", "/e"},
                2},
           Case{"remove", at("/e").add(op::kRemove, "h"s), {"/e", "/d/f"}, 1},
           Case{"open", at("/d").open(guarded(), byName("new"), "owner", client), {"/d"}, 0},
       }) {
    std::vector<std::uint64_t> before;
    for (const auto& path : c.changed) before.push_back(change(path));
    const std::uint64_t same = change("/");
    const Answer answer = run(c.compound);
    ASSERT_EQ(answer.status, kOk) << c.what;
    for (std::size_t i = 0; i < c.changed.size(); ++i) {
      const std::uint64_t after = change(c.changed[i]);
      EXPECT_GT(after, before[i]) << c.what << " " << c.changed[i];
      if (i >= c.infos) continue;
      EXPECT_EQ(numberAt(answer, 20 * i + 4), before[i]) << c.what;
      EXPECT_EQ(numberAt(answer, 20 * i + 12), after) << c.what;
    }
    if (c.what == "open"s) {
      EXPECT_EQ(numberAt(answer, 16 + 4), before[0]);
      EXPECT_EQ(numberAt(answer, 16 + 12), change("/d"));
    }
    EXPECT_EQ(change("/"), same) << c.what;
  }
}

TEST_P(ModernTree4Test, ListingsGoOnWhereTheyWere) {
  serve(true);
  const std::uint64_t zero = 0;
  const auto list = [&](std::uint64_t cookie, unsigned count) {
    return run(at("/d").add(op::kReadDir, cookie, zero, 0U, count, Bitmap{}));
  };
  const std::string f = wire(true, std::uint64_t{3}, "f"s, Bitmap{}, 0U);
  const unsigned one = 28 + 16 + (minorVersion == 0 ? 0 : 44) + 8 + 16 + 8 + 28;
  EXPECT_EQ(list(0, one).body(), wire(zero) + " " + f + " " + wire(false, false));
  EXPECT_EQ(status(at("/d").add(op::kRemove, "f"s)), kOk);
  EXPECT_THAT(list(3, 4000).body(), HasSubstr(wire(std::uint64_t{4}, "g"s)));
  EXPECT_EQ(list(2, 4000).body().substr(27, 8), wire(1U << 8U));  // a listing of its own
  EXPECT_EQ(list(0, one - 28).status, kTooSmall);
  EXPECT_EQ(list(0, one - 28).results.back().bytes.size(), 0U);
}

TEST_P(ModernTree4Test, WhatIsRefusedLeavesNothingBehind) {
  serve(true);
  const auto make = [&](const std::string& name, const Raw& values) {
    return status(at("/d").add(op::kCreate, 2U, name, values));
  };
  EXPECT_EQ(make("n", fattr4(bit(36), "no such user"s)), kBadOwner);
  EXPECT_EQ(make("n", fattr4(bit(35), 1U)), kUnsupported);
  EXPECT_EQ(make(std::string(256, 'n'), kNoAttributes), kTooLong);
  EXPECT_EQ(make(std::string(255, 'n'), kNoAttributes), kOk);
  EXPECT_EQ(parentOf("/d/n")->TryGetEntryByName("n"), std::nullopt);

  // What a claim to reclaim is about was never given.
  const std::uint64_t client = minorVersion == 0 ? setClientId("client") : 0;
  const auto claim = [&](const std::string& path, const Raw& what) {
    return status(at(path).open(kNoCreate, what, "owner", client));
  };
  EXPECT_EQ(claim("/d/f", raw(1U, 0U)), kNoGrace);
  EXPECT_EQ(claim("/d", raw(2U, kNoState, "f"s)), kBadStateId);
  EXPECT_EQ(claim("/d", raw(3U, "f"s)), kNotSupported);
  EXPECT_EQ(claim("/d/f", raw(5U, kNoState)), kBadStateId);
  EXPECT_EQ(claim("/d/f", raw(6U)), kNotSupported);
}

TEST_P(ModernTree4Test, TheHostsReasonDecides) {
  serve(true);
  const auto f = handleOf("/d/f");
  int error = EIO;
  host.onCall = [&](std::string_view operation) {
    if (operation == "GetEntryByName") throw SystemNfsException(error, "not empty, already exists");
  };
  const auto look = [&](const Compound& compound) {
    service.getFileSystem(f).second->dropMetaData(NfsPath("/d/f"));
    return status(compound);
  };
  const Compound byName = Compound().put(handleOf("/d")).lookup("f");
  for (const auto& [cause, named, held] :
       {std::tuple{EIO, kIo, kIo}, {EACCES, kDenied, kDenied}, {ENOENT, kNoEntry, kStale}}) {
    error = cause;
    EXPECT_EQ(look(byName), named);
    EXPECT_EQ(look(Compound().put(f)), held);
  }
}

TEST_P(ModernTree4Test, ASizeThatIsSetMovesTheTimesEvenWhenItIsTheOldOne) {
  serve(true);
  for (const std::uint64_t size : {7U, 3U}) {
    MetaData md = attributes("/d/f");
    md.modifyTime = 1000;
    parentOf("/d/f")->OpenFile("f")->SetMetaData(md);
    EXPECT_EQ(status(at("/d/f").add(op::kSetAttr, kNoState, fattr4(kSize, size))), kOk);
    EXPECT_GT(attributes("/d/f").modifyTime, 1000U) << size;
  }
  // Unless the client says which they are.
  const Raw both = fattr4({1U << 4U, 1U << 22U}, std::uint64_t{3}, 1U, std::uint64_t{2000}, 0U);
  EXPECT_EQ(status(at("/d/f").add(op::kSetAttr, kNoState, both)), kOk);
  EXPECT_EQ(attributes("/d/f").modifyTime, 2000U);
}

}  // namespace
}  // namespace nfslib::testing

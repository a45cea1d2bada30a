// Directories: names, creation, removal, listing, and the ids of what is in them.

#include "hosts/host_conformance.h"

#include <set>

#include <gmock/gmock.h>

namespace nfslib::conformance {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAreArray;

TEST_P(HostConformance, TheRootIsOneDirectory) {
  const MetaData md = root->GetMetaData();
  EXPECT_TRUE(isType(md, FileType::Directory));
  EXPECT_EQ(host.tree->OpenRoot()->GetMetaData().fileId, md.fileId);
  EXPECT_THAT(namesIn(*root), IsEmpty());

  host.tree->OpenRoot()->CreateFile("seen");
  EXPECT_THAT(namesIn(*root), ElementsAre("seen"));
}

TEST_P(HostConformance, ANameIsOneComponent) {
  const auto dir = root->CreateSubdir("dir");
  const auto other = file("file", "text");
  const Picture before = picture();
  for (const std::string& name :
       {std::string(), std::string("."), std::string(".."), std::string("a/b"), std::string("/a"),
        std::string("a/"), std::string("file\0x", 6), std::string(1, '\0')}) {
    SCOPED_TRACE(name);
    expectRefused([&] { root->CreateFile(name); });
    expectRefused([&] { dir->CreateFile(name); });
    expectRefused([&] { root->CreateSubdir(name); });
    expectRefused([&] { root->CreateSymlink(name, "text"); });
    expectRefused([&] { root->Link(name, other); });
    expectRefused([&] { root->RemoveFile(name); });
    expectRefused([&] { dir->RemoveSubdir(name); });
    expectRefused([&] { root->MoveEntry("file", dir, name); });
    expectRefused([&] { root->MoveEntry(name, dir, "new"); });
    expectRefused([&] { dir->OpenSubdir(name); });
    expectRefused([&] { dir->OpenFile(name); });
    expectRefused([&] { dir->OpenSymlink(name); });
    expectRefused([&] { dir->GetEntryByName(name); });
    EXPECT_FALSE(dir->TryGetEntryByName(name));
  }
  EXPECT_EQ(picture(), before);
}

TEST_P(HostConformance, NamesAreBytes) {
  const std::vector<std::string> names = {
      "a b", "ümlaut", "\xC3\xBC",       "\xFF\xFE",           "...", ".hidden", "-rf",
      "A",   "a",      "tab\tand\nline", std::string(200, 'n')};
  for (const std::string& name : names) {
    if (!root->TryGetEntryByName(name)) file(name, name);
  }
  for (const std::string& name : names) {
    EXPECT_EQ(root->GetEntryByName(name).name, name);
    EXPECT_EQ(contentOf(*root->OpenFile(name)), name);
  }
  EXPECT_THAT(namesIn(*root),
              UnorderedElementsAreArray(std::set<std::string>(names.begin(), names.end())));
}

TEST_P(HostConformance, ATakenNameAlreadyExists) {
  const auto source = file("file", "text");
  root->CreateSubdir("dir")->CreateFile("inside");
  root->CreateSymlink("link", "nowhere");
  const Picture before = picture();
  for (const std::string name : {"file", "dir", "link"}) {
    SCOPED_TRACE(name);
    expectRefused([&] { root->CreateFile(name); }, "already exists");
    expectRefused([&] { root->CreateSubdir(name); }, "already exists");
    expectRefused([&] { root->CreateSymlink(name, "text"); }, "already exists");
    expectRefused([&] { root->Link(name, source); }, "already exists");
  }
  EXPECT_EQ(picture(), before);
}

TEST_P(HostConformance, WhatIsAbsentOrOfAnotherKindIsRefused) {
  file("file");
  root->CreateSubdir("dir");
  root->CreateSymlink("link", "file");
  const Picture before = picture();
  for (const std::string name : {"file", "dir", "link", "absent"}) {
    SCOPED_TRACE(name);
    if (name != "file") expectRefused([&] { root->OpenFile(name); });
    if (name != "dir") expectRefused([&] { root->OpenSubdir(name); });
    if (name != "link") expectRefused([&] { root->OpenSymlink(name); });
    if (name != "dir") expectRefused([&] { root->RemoveSubdir(name); });
  }
  expectRefused([&] { root->RemoveFile("dir"); });
  expectRefused([&] { root->RemoveFile("absent"); });
  expectRefused([&] { root->MoveEntry("absent", root, "new"); });
  expectRefused([&] { root->GetEntryByName("absent"); });
  EXPECT_FALSE(root->TryGetEntryByName("absent"));
  EXPECT_EQ(picture(), before);
}

TEST_P(HostConformance, OnlyAnEmptyDirectoryIsRemoved) {
  const auto dir = root->CreateSubdir("dir");
  const auto inner = dir->CreateSubdir("inner");
  inner->CreateFile("file");
  const Picture before = picture();
  expectRefused([&] { root->RemoveSubdir("dir"); }, "not empty");
  expectRefused([&] { dir->RemoveSubdir("inner"); }, "not empty");
  EXPECT_EQ(picture(), before);

  inner->RemoveFile("file");
  dir->RemoveSubdir("inner");
  EXPECT_THAT(namesIn(*dir), IsEmpty());
  expectRefused([&] { inner->CreateFile("late"); });
  const auto successor = dir->CreateSubdir("inner");
  expectRefused([&] { inner->CreateFile("late"); });
  EXPECT_THAT(namesIn(*successor), IsEmpty()) << "the removed directory acts on its successor";
}

// Long names, so that a host that reads a directory piece by piece needs several.
static std::string longName(const char* kind, int number) {
  return kind + std::string(100, '-') + std::to_string(number);
}

TEST_P(HostConformance, APassShowsEveryEntryOnce) {
  constexpr int kEntries = 1500;
  const auto dir = root->CreateSubdir("dir");
  std::multiset<std::string> expected;
  for (int i = 0; i < kEntries; ++i) {
    dir->CreateFile(longName("entry", i));
    expected.insert(longName("entry", i));
  }
  const std::vector<std::string> names = namesIn(*dir);
  EXPECT_TRUE(std::multiset<std::string>(names.begin(), names.end()) == expected);

  // Two passes do not move each other, and one survives that the directory changes.
  const auto pass = dir->Enumerate();
  std::multiset<std::string> seen;
  for (int step = 0; pass->IsValid(); pass->MoveNext(), ++step) {
    const std::string name = pass->Current().name;
    if (name == "." || name == ".." || name.starts_with("late")) continue;
    seen.insert(name);
    if (step != kEntries / 3) continue;
    EXPECT_EQ(namesIn(*dir).size(), expected.size());
    EXPECT_EQ(pass->Current().name, name);
    // Of those that go, what was not shown yet must not come any more.
    for (int i = 0; i < kEntries; i += 3) {
      const std::string gone = longName("entry", i);
      dir->RemoveFile(gone);
      if (!seen.contains(gone)) expected.erase(gone);
    }
    for (int i = 0; i < 50; ++i) dir->CreateFile(longName("late", i));
  }
  EXPECT_TRUE(seen == expected) << seen.size() << " were seen instead of " << expected.size();

  const auto last = dir->Enumerate();
  for (const std::string& name : namesIn(*dir)) dir->RemoveFile(name);
  root->RemoveSubdir("dir");
  while (last->IsValid()) last->MoveNext();  // whatever it shows, it ends
}

TEST_P(HostConformance, IdsDifferInTheirLowHalfAndAreNotUsedAgain) {
  std::set<std::uint32_t> ids{static_cast<std::uint32_t>(root->GetMetaData().fileId)};
  for (int i = 0; i < 300; ++i) {
    const std::uint64_t id = root->CreateFile("file")->GetMetaData().fileId;
    EXPECT_TRUE(ids.insert(static_cast<std::uint32_t>(id)).second) << "round " << i;
    EXPECT_EQ(root->GetEntryByName("file").metaData.fileId, id);
    if (i % 2 == 0) {
      root->RemoveFile("file");
    } else {
      root->MoveEntry("file", root, "kept " + std::to_string(i));
      EXPECT_EQ(root->GetEntryByName("kept " + std::to_string(i)).metaData.fileId, id);
    }
  }
  for (int i = 0; i < 100; ++i) {
    const std::uint64_t id = root->CreateSubdir("dir")->GetMetaData().fileId;
    EXPECT_TRUE(ids.insert(static_cast<std::uint32_t>(id)).second) << "directory " << i;
    root->RemoveSubdir("dir");
  }
}

}  // namespace nfslib::conformance

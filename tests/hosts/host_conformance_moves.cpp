// Renames, under the rules of rename(2) in POSIX.

#include "hosts/host_conformance.h"

#include <gmock/gmock.h>

namespace nfslib::conformance {

using testing::ElementsAre;

TEST_P(HostConformance, AMoveKeepsTheObject) {
  const auto moved = file("file", "text");
  const auto dir = root->CreateSubdir("dir");
  const std::uint64_t id = moved->GetMetaData().fileId;

  root->MoveEntry("file", root, "renamed");
  root->MoveEntry("renamed", dir, "inside");
  EXPECT_FALSE(root->TryGetEntryByName("file"));
  EXPECT_FALSE(root->TryGetEntryByName("renamed"));
  EXPECT_EQ(dir->GetEntryByName("inside").metaData.fileId, id);
  put(*moved, "T");
  EXPECT_EQ(contentOf(*dir->OpenFile("inside")), "Text");

  dir->CreateSymlink("link", "text");
  dir->MoveEntry("link", root, "link");
  EXPECT_EQ(root->OpenSymlink("link")->GetTarget(), "text");
}

TEST_P(HostConformance, ObjectsFollowAMovedDirectory) {
  const auto top = root->CreateSubdir("top");
  const auto middle = top->CreateSubdir("middle");
  const auto bottom = middle->CreateSubdir("bottom");
  const auto held = bottom->CreateFile("file");
  const std::uint64_t id = middle->GetMetaData().fileId;

  top->MoveEntry("middle", root, "moved");
  // Another directory now has the old path: nobody may take it for the moved one.
  const auto other = top->CreateSubdir("middle");
  other->CreateSubdir("bottom");

  put(*held, "text");
  bottom->CreateFile("new");
  EXPECT_EQ(middle->GetMetaData().fileId, id);
  EXPECT_EQ(root->OpenSubdir("moved")->GetMetaData().fileId, id);
  const auto found = root->OpenSubdir("moved")->OpenSubdir("bottom");
  EXPECT_THAT(namesIn(*found), testing::UnorderedElementsAre("file", "new"));
  EXPECT_EQ(contentOf(*found->OpenFile("file")), "text");
  EXPECT_THAT(namesIn(*other->OpenSubdir("bottom")), ElementsAre());

  middle->MoveEntry("bottom", top, "bottom");
  EXPECT_THAT(namesIn(*bottom), testing::UnorderedElementsAre("file", "new"));
}

TEST_P(HostConformance, AMoveReplacesAFile) {
  const auto replacing = file("replacing", "new");
  const auto replaced = file("replaced", "old");
  root->MoveEntry("replacing", root, "replaced");
  EXPECT_THAT(namesIn(*root), ElementsAre("replaced"));
  EXPECT_EQ(contentOf(*root->OpenFile("replaced")), "new");
  EXPECT_EQ(root->GetEntryByName("replaced").metaData.fileId, replacing->GetMetaData().fileId);
  EXPECT_EQ(contentOf(*replaced), "old") << "whoever had it open lost it";
  EXPECT_EQ(replaced->GetMetaData().linkCount, 0U);

  root->CreateSymlink("link", "text");
  root->MoveEntry("link", root, "replaced");
  EXPECT_EQ(root->OpenSymlink("replaced")->GetTarget(), "text");
}

TEST_P(HostConformance, AMoveReplacesAnEmptyDirectory) {
  const auto moved = root->CreateSubdir("moved");
  moved->CreateFile("file");
  const auto replaced = root->CreateSubdir("replaced");
  root->MoveEntry("moved", root, "replaced");
  EXPECT_THAT(namesIn(*root), ElementsAre("replaced"));
  EXPECT_THAT(namesIn(*root->OpenSubdir("replaced")), ElementsAre("file"));
  EXPECT_THAT(namesIn(*moved), ElementsAre("file"));
  expectRefused([&] { replaced->CreateFile("late"); });
}

TEST_P(HostConformance, AMoveOntoTheSameObjectChangesNothing) {
  const auto one = file("one", "text");
  root->Link("two", one);
  const auto dir = root->CreateSubdir("dir");
  dir->CreateFile("inside");
  const Picture before = picture();
  root->MoveEntry("one", root, "one");
  root->MoveEntry("one", root, "two");
  root->MoveEntry("dir", root, "dir");
  EXPECT_EQ(picture(), before);
  EXPECT_THAT(namesIn(*dir), ElementsAre("inside"));
}

TEST_P(HostConformance, ForbiddenMovesLeaveTheTreeAsItWas) {
  file("file", "text");
  const auto dir = root->CreateSubdir("dir");
  const auto below = dir->CreateSubdir("below");
  const auto deep = below->CreateSubdir("deep");
  root->CreateSubdir("full")->CreateFile("inside");
  root->CreateSubdir("empty");
  root->CreateSymlink("link", "file");
  const Picture before = picture();

  expectRefused([&] { root->MoveEntry("dir", dir, "self"); });
  expectRefused([&] { root->MoveEntry("dir", below, "self"); });
  expectRefused([&] { root->MoveEntry("dir", deep, "self"); });
  expectRefused([&] { root->MoveEntry("dir", root, "full"); }, "not empty");
  expectRefused([&] { below->MoveEntry("deep", root, "dir"); }, "not empty");
  expectRefused([&] { root->MoveEntry("dir", root, "file"); });
  expectRefused([&] { root->MoveEntry("empty", root, "link"); });
  expectRefused([&] { root->MoveEntry("file", root, "empty"); });
  expectRefused([&] { root->MoveEntry("link", root, "dir"); });
  EXPECT_EQ(picture(), before);
}

TEST_P(HostConformance, ObjectsOfAnotherTreeAreRefused) {
  const HostUnderTest other = GetParam().make();
  const auto otherRoot = other.tree->OpenRoot();
  const auto mine = file("file");
  expectRefused([&] { root->MoveEntry("file", otherRoot, "file"); });
  expectRefused([&] { otherRoot->Link("file", mine); });
  EXPECT_THAT(namesIn(*otherRoot), ElementsAre());
}

}  // namespace nfslib::conformance

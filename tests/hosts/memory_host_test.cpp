// What the tree in memory promises beyond the common rules: its capacity, and link counts.

#include <nfslib/exception.h>
#include <nfslib/hosts/memory_file_system.h>

#include "hosts/host_conformance.h"

#include <gmock/gmock.h>

namespace nfslib {

namespace {

using conformance::contentOf;
using conformance::expectRefused;
using conformance::HostFactory;
using conformance::HostUnderTest;
using conformance::put;
using hosts::MemoryFileSystem;

}  // namespace

namespace conformance {

INSTANTIATE_TEST_SUITE_P(
    Memory, HostConformance,
    testing::Values(HostFactory{
        "Memory",
        [] {
          return HostUnderTest{std::make_unique<MemoryFileSystem>(64U << 20), nullptr};
        }}),
    hostName);

}  // namespace conformance

TEST(MemoryHostTest, WhatDoesNotFitIsRefusedAndChangesNothing) {
  MemoryFileSystem tree(64 * 1024);
  const auto root = tree.OpenRoot();
  const auto file = root->CreateFile("file");
  put(*file, std::string(1000, 'x'));
  int created = 0;
  EXPECT_THROW(for (;; ++created) root->CreateFile("filler " + std::to_string(created)),
               OutOfSpaceNfsException);
  EXPECT_GT(created, 50);

  const conformance::Picture before = conformance::pictureOf(*root);
  const std::uint64_t used = tree.usedBytes();
  const std::string much(60'000, 'y');
  EXPECT_THROW(root->CreateSubdir("new"), OutOfSpaceNfsException);
  EXPECT_THROW(root->CreateSymlink("new", "target"), OutOfSpaceNfsException);
  EXPECT_THROW(root->Link("new", file), OutOfSpaceNfsException);
  EXPECT_THROW(file->Write(500, much.data(), much.size()), OutOfSpaceNfsException);
  expectRefused([&] { root->CreateSymlink("file", much.substr(0, 4000)); }, "already exists");
  EXPECT_EQ(conformance::pictureOf(*root), before);
  EXPECT_EQ(tree.usedBytes(), used);

  // What needs no more space still works.
  put(*file, std::string(1000, 'z'));
  root->MoveEntry("file", root, "renamed");
  EXPECT_EQ(contentOf(*root->OpenFile("renamed")), std::string(1000, 'z'));
}

TEST(MemoryHostTest, SpaceComesBack) {
  MemoryFileSystem tree(1U << 20);
  const auto root = tree.OpenRoot();
  ASSERT_EQ(tree.usedBytes(), 0U);

  auto file = root->CreateFile("file");
  put(*file, std::string(500'000, 'x'));
  root->Link("linked", file);
  root->CreateSubdir("dir")->CreateSymlink("link", "target");
  const std::uint64_t full = tree.usedBytes();
  EXPECT_GE(full, 500'000 + 4 * MemoryFileSystem::kEntryCost + 6);

  MetaData md = file->GetMetaData();
  md.size = 100'000;
  file->SetMetaData(md);
  EXPECT_LE(tree.usedBytes(), full - 399'000);

  // The last name goes, then the last holder.
  root->RemoveFile("file");
  EXPECT_GT(tree.usedBytes(), 100'000U);
  root->RemoveFile("linked");
  EXPECT_GT(tree.usedBytes(), 100'000U);
  file.reset();
  EXPECT_LT(tree.usedBytes(), 10'000U);

  // Replacing gives back as removing does.
  put(*root->CreateFile("old"), std::string(500'000, 'x'));
  put(*root->CreateFile("new"), "x");
  root->MoveEntry("new", root, "old");
  EXPECT_LT(tree.usedBytes(), 10'000U);

  root->OpenSubdir("dir")->RemoveFile("link");
  root->RemoveSubdir("dir");
  root->RemoveFile("old");
  EXPECT_EQ(tree.usedBytes(), 0U);
}

TEST(MemoryHostTest, OnlyWhatWasWrittenCosts) {
  MemoryFileSystem tree(1U << 20);
  const auto file = tree.OpenRoot()->CreateFile("file");
  put(*file, "ten bytes.");
  EXPECT_LE(tree.usedBytes(), MemoryFileSystem::kEntryCost + 128);
  put(*file, "far", 1UL << 40);
  MetaData md = file->GetMetaData();
  md.size = 1UL << 50;
  file->SetMetaData(md);
  EXPECT_LE(tree.usedBytes(), MemoryFileSystem::kEntryCost + 256);
  expectRefused([&] { file->Write(UINT64_MAX - 1, "xyz", 3); });
  EXPECT_EQ(file->GetMetaData().size, 1UL << 50);
}

TEST(MemoryHostTest, DirectoriesCountTheirSubdirectories) {
  MemoryFileSystem tree(1U << 20);
  const auto root = tree.OpenRoot();
  const auto links = [](Directory& dir) { return dir.GetMetaData().linkCount; };
  EXPECT_EQ(links(*root), 2U);
  const auto dir = root->CreateSubdir("dir");
  const auto inner = dir->CreateSubdir("inner");
  root->CreateFile("file");
  EXPECT_EQ(links(*root), 3U);
  EXPECT_EQ(links(*dir), 3U);
  dir->MoveEntry("inner", root, "inner");
  EXPECT_EQ(links(*root), 4U);
  EXPECT_EQ(links(*dir), 2U);
  root->MoveEntry("inner", root, "dir");
  EXPECT_EQ(links(*root), 3U);
  EXPECT_EQ(links(*inner), 2U);
  EXPECT_EQ(links(*dir), 0U);
}

TEST(MemoryHostTest, ObjectsOutliveTheFileSystem) {
  auto tree = std::make_unique<MemoryFileSystem>(1U << 20);
  const auto dir = tree->OpenRoot()->CreateSubdir("dir");
  const auto file = dir->CreateFile("file");
  const auto pass = dir->Enumerate();
  tree.reset();
  put(*file, "text");
  dir->MoveEntry("file", dir, "renamed");
  EXPECT_EQ(contentOf(*dir->OpenFile("renamed")), "text");
  EXPECT_TRUE(pass->IsValid());
}

TEST(MemoryHostTest, AVeryDeepTreeIsFreedWithoutADeepStack) {
  MemoryFileSystem tree(1U << 30);
  auto dir = tree.OpenRoot();
  for (int level = 0; level < 100'000; ++level) dir = dir->CreateSubdir("d");
}

}  // namespace nfslib

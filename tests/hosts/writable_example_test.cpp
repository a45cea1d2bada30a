// The example of a writable host keeps to what is expected of every host, and to its capacity.

#include <nfslib/exception.h>

#include "hosts/host_conformance.h"
#include "writable_tree.h"

#include <memory>

namespace nfslib::conformance {

INSTANTIATE_TEST_SUITE_P(
    WritableExample, HostConformance,
    testing::Values(HostFactory{
        "WritableExample",
        [] {
          return HostUnderTest{std::make_unique<writable::Tree>(64U << 20), nullptr};
        }}),
    hostName);

TEST(WritableExampleTest, WhatDoesNotFitChangesNothingAndSpaceComesBack) {
  constexpr std::uint64_t kBlocks = 20;
  writable::Tree tree(kBlocks * writable::Tree::kBlock);
  const auto root = tree.OpenRoot();
  for (int round = 0; round < 3; ++round) {
    auto file = root->CreateFile("file");
    put(*file, "begin");
    const Picture before = pictureOf(*root);
    // A name and a block are taken: what is left is one block too small.
    const std::string much((kBlocks - 1) * writable::Tree::kBlock, 'x');
    EXPECT_THROW(file->Write(writable::Tree::kBlock, much.data(), much.size()),
                 OutOfSpaceNfsException);
    EXPECT_THROW(file->Write(~0UL - 5, much.data(), 10), INfsException);
    EXPECT_EQ(pictureOf(*root), before);
    // With one block less it fits, and leaves no room for a name.
    put(*file, much.substr(0, (kBlocks - 2) * writable::Tree::kBlock), writable::Tree::kBlock);
    EXPECT_THROW(root->CreateSubdir("dir"), OutOfSpaceNfsException);
    EXPECT_THROW(root->Link("linked", file), OutOfSpaceNfsException);
    root->MoveEntry("file", root, "renamed");
    root->RemoveFile("renamed");
    file.reset();
  }
}

}  // namespace nfslib::conformance

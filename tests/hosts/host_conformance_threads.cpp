// Many threads on one tree. Worth most under ThreadSanitizer.

#include <nfslib/exception.h>

#include "hosts/host_conformance.h"

#include <atomic>
#include <thread>

#include <gmock/gmock.h>

namespace nfslib::conformance {

namespace {

constexpr int kThreads = 8;

// Runs `work(number)` on every thread, and passes on as failures what it throws.
void onThreads(const std::function<void(int)>& work) {
  std::vector<std::thread> threads;
  for (int number = 0; number < kThreads; ++number) {
    threads.emplace_back([&work, number] {
      try {
        work(number);
      } catch (const std::exception& e) {
        ADD_FAILURE() << "thread " << number << ": " << e.what();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace

TEST_P(HostConformance, OneOfManyCreatorsWins) {
  for (int round = 0; round < 20; ++round) {
    const std::string name = "file " + std::to_string(round);
    std::atomic<int> won = 0;
    onThreads([&](int number) {
      try {
        if (number % 2 == 0) {
          root->CreateFile(name);
        } else {
          root->CreateSubdir(name);
        }
        ++won;
      } catch (const INfsException& refusal) {
        EXPECT_THAT(refusal.what(), testing::HasSubstr("already exists"));
      }
    });
    EXPECT_EQ(won, 1);
  }
}

TEST_P(HostConformance, ThreadsWriteTheirPartsOfOneFile) {
  const auto shared = root->CreateFile("file");
  constexpr int kPieces = 100;
  constexpr unsigned long kPiece = 1000;
  onThreads([&](int number) {
    const auto mine = number % 2 == 0 ? shared : root->OpenFile("file");
    const std::string text(kPiece, static_cast<char>('a' + number));
    for (int piece = 0; piece < kPieces; ++piece) {
      const unsigned long at = static_cast<unsigned long>(piece * kThreads + number) * kPiece;
      put(*mine, text, at);
      std::string read(kPiece, '\0');
      mine->Read(at, read.data(), kPiece);
      EXPECT_EQ(read, text);
      EXPECT_GE(mine->GetMetaData().size, at + kPiece);
    }
  });
  std::string expected;
  for (int piece = 0; piece < kPieces; ++piece) {
    for (int number = 0; number < kThreads; ++number) {
      expected += std::string(kPiece, static_cast<char>('a' + number));
    }
  }
  EXPECT_EQ(contentOf(*shared), expected);
}

// Every thread has names of its own in one directory, while that directory is renamed and its
// neighbours come and go: no operation may fail or go astray.
TEST_P(HostConformance, ThreadsWorkInADirectoryThatMoves) {
  const auto home = root->CreateSubdir("home");
  const auto away = root->CreateSubdir("away");
  constexpr int kRounds = 60;
  onThreads([&](int number) {
    if (number == 0) {
      for (int round = 0; round < kRounds; ++round) {
        root->MoveEntry("home", away, "home");
        root->CreateSubdir("home");  // a decoy under the old path
        root->RemoveSubdir("home");
        away->MoveEntry("home", root, "home");
      }
      return;
    }
    const std::string mine = "of thread " + std::to_string(number);
    const auto dir = home->CreateSubdir(mine);
    for (int round = 0; round < kRounds; ++round) {
      const auto created = dir->CreateFile("file");
      put(*created, mine);
      dir->Link("linked", created);
      dir->MoveEntry("linked", home, mine + " moved");
      EXPECT_EQ(contentOf(*home->OpenFile(mine + " moved")), mine);
      EXPECT_EQ(home->GetEntryByName(mine + " moved").metaData.linkCount, 2U);
      std::vector<std::string> names = namesIn(*home);
      EXPECT_THAT(names, testing::IsSupersetOf({mine, mine + " moved"}));
      MetaData md = created->GetMetaData();
      md.mode = 0600;
      created->SetMetaData(md);
      dir->RemoveFile("file");
      home->RemoveFile(mine + " moved");
      EXPECT_EQ(contentOf(*created), mine);
      EXPECT_THAT(namesIn(*dir), testing::IsEmpty());
    }
    home->RemoveSubdir(mine);
  });
  EXPECT_THAT(namesIn(*root), testing::UnorderedElementsAre("home", "away"));
  EXPECT_THAT(namesIn(*home), testing::IsEmpty());
  EXPECT_THAT(namesIn(*away), testing::IsEmpty());
}

}  // namespace nfslib::conformance

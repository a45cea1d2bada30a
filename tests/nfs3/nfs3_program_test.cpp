#include "nfs3/nfs3_program.h"

#include "nfs3/procedure_table.h"
#include "support/nfs3_fixture.h"

#include <array>
#include <cstdint>
#include <map>

namespace nfslib::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Nfs3ProgramTest : public Nfs3Test {
 protected:
  Nfs3ProgramTest() {
    dir("/dir");
    file("/dir/file", std::string(5000, 'f'));
    link("/dir/link", "file");
  }

  // Arguments that each procedure of the table accepts.
  std::map<unsigned, std::string> arguments() {
    const NfsHandle dir = handleOf("/dir");
    const NfsHandle file = handleOf("/dir/file");
    const FixedOpaque<8> verifier;
    const std::uint64_t start = 0;
    return {
        {kNull, ""},
        {kGetAttr, wire(file)},
        {kLookup, wire(dir, std::string("file"))},
        {kAccess, wire(file, 0x3FU)},
        {kReadLink, wire(handleOf("/dir/link"))},
        {kRead, wire(file, start, 4096U)},
        {kReadDir, wire(dir, start, verifier, 4096U)},
        {kReadDirPlus, wire(dir, start, verifier, 512U, 4096U)},
        {kFsStat, wire(dir)},
        {kFsInfo, wire(dir)},
        {kPathConf, wire(dir)},
    };
  }

  // The same for those that change the tree, each of which can be done once.
  std::map<unsigned, std::string> changes() {
    const NfsHandle dir = handleOf("/dir");
    const NfsHandle file = handleOf("/dir/file");
    const std::string sattr = wire(true, 0600U, false, false, false, 0U, 2U, 7U, 0U);
    const std::uint64_t start = 0;
    return {
        {kSetAttr, wire(file) + sattr + wire(true, 1U, 2U)},
        {kWrite, wire(file, start, 4U, 2U, std::string("data"))},
        {kCreate, wire(dir, std::string("newf"), 1U) + sattr},
        {kMkDir, wire(dir, std::string("made")) + sattr},
        {kSymlink, wire(dir, std::string("soft")) + sattr + wire(std::string("file"))},
        {kRemove, wire(dir, std::string("link"))},
        {kRmDir, wire(dir, std::string("made"))},
        {kRename, wire(dir, std::string("newf"), dir, std::string("newg"))},
        {kLink, wire(file, dir, std::string("hard"))},
        {kCommit, wire(file, start, 0U)},
    };
  }
  std::map<unsigned, std::string> everything() {
    auto all = arguments();
    all.merge(changes());
    return all;
  }
};

TEST_F(Nfs3ProgramTest, ServesTheRowsOfTheTableAndNothingElse) {
  serve();
  const auto all = everything();
  std::map<unsigned, std::string_view> names;
  for (const nfs3::Procedure& row : nfs3::procedureTable()) names[row.number] = row.name;
  EXPECT_EQ(names.size(), all.size());

  for (const unsigned number : {0U,  1U,  2U,  3U,  4U,  5U,  6U,  7U,  8U,  9U,  10U, 11U,
                                12U, 13U, 14U, 15U, 16U, 17U, 18U, 19U, 20U, 21U, 22U, ~0U}) {
    log.takeLines();
    const auto given = all.find(number);
    const Reply reply = send(number, given == all.end() ? "" : given->second);
    EXPECT_EQ(names.contains(number), given != all.end()) << number;
    if (given != all.end()) {
      EXPECT_EQ(reply.acceptStatus, kAccepted) << names[number];
      EXPECT_EQ(reply.body().substr(0, 8), number == kNull ? "" : "00000000") << names[number];
      EXPECT_EQ(reply.inputLeft, 0U) << names[number];
    } else {
      EXPECT_EQ(reply.acceptStatus, kProcedureUnavailable);
      EXPECT_EQ(reply.body(), "");
      const std::string text = std::to_string(number);
      EXPECT_THAT(log.takeLines(),
                  ElementsAre("info Nfs procedure: [" + text + "]",
                              "err NFS procedure [" + text + "] is not implemented."));
    }
  }
}

TEST_F(Nfs3ProgramTest, OtherVersionsAreUnavailableWithoutALine) {
  serve();
  for (const unsigned version : {0U, 2U, 4U}) {
    send.version = version;
    EXPECT_EQ(call(kNull).acceptStatus, kProcedureUnavailable);
  }
  EXPECT_THAT(log.takeLines(), IsEmpty());
}

TEST_F(Nfs3ProgramTest, HandleThatNamesNothingIsStale) {
  serve();
  NfsHandle earlierRun = root;
  --earlierRun.generation;
  NfsHandle unknown = root;
  unknown.objectId = 999;
  const std::string fifteenBytes = "0000000f 00000000 00000000 00000000 00000000";
  for (const auto& [number, accepted] : everything()) {
    if (number == kNull) continue;
    const std::string rest = accepted.substr(wire(root).size());
    for (const std::string& handle : {wire(earlierRun), wire(unknown), fifteenBytes}) {
      const Reply reply = send(number, handle + rest);
      EXPECT_EQ(reply.acceptStatus, kAccepted) << number;
      EXPECT_EQ(reply.body(), wire(kStale, false)) << number;
      // What was not decoded must not be taken for the next call of the record.
      EXPECT_EQ(reply.inputLeft, 0U) << number;
    }
  }

  log.takeLines();
  call(kGetAttr, unknown);
  EXPECT_THAT(
      log.takeLines(),
      ElementsAre("info Nfs procedure: [1]", "err NFS handle [" + str(unknown) + "] is invalid.",
                  "dbg NFS procedure failed. Procedure: [1]. Result: [InvalidFileHandle]."));
}

TEST_F(Nfs3ProgramTest, HandleOfAWithdrawnExportIsGarbage) {
  serve();
  NfsHandle elsewhere = root;
  elsewhere.fileSystemId = 9;
  log.takeLines();
  EXPECT_EQ(call(kGetAttr, elsewhere).acceptStatus, kGarbageArguments);
  EXPECT_THAT(log.takeLines(),
              ElementsAre("info Nfs procedure: [1]", "err NFS server failed.: NFS handle [" +
                                                         str(elsewhere) + "] is invalid."));
}

TEST_F(Nfs3ProgramTest, ArgumentsCutAnywhereDoNothing) {
  serve();
  constexpr std::size_t kHandleBytes = 20;
  constexpr std::size_t kNameBytes = 8;
  // Where the last handle of those with two ends.
  const std::map<unsigned, std::size_t> twoHandles{{kRename, 2 * kHandleBytes + kNameBytes},
                                                   {kLink, 2 * kHandleBytes}};
  constexpr std::array kQuiet{"OpenFile",     "Enumerate",     "SetMetaData", "Write",
                              "CreateFile",   "CreateSubdir",  "MoveEntry",   "RemoveFile",
                              "RemoveSubdir", "CreateSymlink", "Link"};
  for (const auto& [number, accepted] : everything()) {
    const std::vector<std::byte> bytes = unhex(accepted);
    for (std::size_t size = 0; size < bytes.size(); ++size) {
      for (const char* quiet : kQuiet) host.takeCalls(quiet);
      const Reply reply = send(number, hex({bytes.data(), size}));
      const auto last = twoHandles.find(number);
      const bool handleIsWhole = size >= (last == twoHandles.end() ? kHandleBytes : last->second);
      EXPECT_EQ(reply.acceptStatus, handleIsWhole ? kGarbageArguments : kAccepted)
          << "procedure " << number << " cut to " << size;
      EXPECT_EQ(reply.body(), handleIsWhole ? "" : wire(kStale, false));
      for (const char* quiet : kQuiet) EXPECT_EQ(host.takeCalls(quiet), 0U);
    }
  }
}

TEST_F(Nfs3ProgramTest, LengthsThatTheInputDoesNotHoldAreGarbage) {
  serve();
  for (const unsigned length : {5U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
    EXPECT_EQ(send(kLookup, wire(handleOf("/dir"), length) + " 66696c65").acceptStatus,
              kGarbageArguments);
  }
}

}  // namespace
}  // namespace nfslib::testing

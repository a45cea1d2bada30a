#include "nfs3/procedure_table.h"
#include "nfs4/attribute_table.h"
#include "nfs4/operation_table.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

// What docs/conformance.md says is served is what the tables have.

namespace nfslib::testing {
namespace {

struct Row {
  unsigned number = 0;
  std::string name;
  std::array<std::string, 2> verdicts;  // of the profiles
};

// The rows of the tables whose first heading is `heading`.
std::vector<Row> rowsOf(const std::string& heading) {
  std::ifstream document(NFSLIB_CONFORMANCE);
  EXPECT_TRUE(document) << NFSLIB_CONFORMANCE;
  const std::regex pattern(R"(\| (\d+) (\w+) \| ([^|]+) \| ([^|]+) \|.*)");
  std::vector<Row> rows;
  bool isWanted = false;
  for (std::string line; std::getline(document, line);) {
    std::smatch parts;
    if (line.starts_with("| " + heading + " |")) isWanted = true;
    if (!line.starts_with("|")) isWanted = false;
    if (!isWanted || !std::regex_match(line, parts, pattern)) continue;
    rows.push_back({static_cast<unsigned>(std::stoul(parts[1])), parts[2], {parts[3], parts[4]}});
  }
  return rows;
}

const std::array kProfiles{profileOf({}), profileOf(NfsServerPolicy::modern())};

TEST(Conformance, ProceduresAndOperationsAreThoseOfTheTables) {
  const auto procedures = rowsOf("procedure");
  EXPECT_EQ(procedures.size(), 22U);
  for (const Row& row : procedures) {
    for (std::size_t i = 0; i < kProfiles.size(); ++i) {
      const auto* procedure = nfs3::findProcedure(row.number, kProfiles[i]);
      EXPECT_EQ(procedure == nullptr, row.verdicts[i] == "no") << row.name;
      if (procedure != nullptr) {
        EXPECT_EQ(procedure->name, row.name);
      }
    }
  }
  const auto operations = rowsOf("operation");
  EXPECT_EQ(operations.size(), 57U);
  for (const Row& row : operations) {
    if (row.name == "ILLEGAL") continue;  // which stands for all that there are not
    for (std::size_t i = 0; i < kProfiles.size(); ++i) {
      const auto* operation = nfs4::findOperation(kProfiles[i], row.number);
      EXPECT_EQ(operation == nullptr, row.verdicts[i] == "no") << row.name;
      if (operation != nullptr) {
        EXPECT_EQ(operation->name, row.name);
      }
    }
  }
}

TEST(Conformance, AttributesAreThoseOfTheTables) {
  const auto attributes = rowsOf("attribute");
  EXPECT_EQ(attributes.size(), 77U);
  for (const Row& row : attributes) {
    for (std::size_t i = 0; i < kProfiles.size(); ++i) {
      const auto& table = nfs4::attributeTable(kProfiles[i], 1);
      const std::size_t word = row.number / 32;
      const unsigned bit = 1U << row.number % 32;
      const std::string& verdict = row.verdicts[i];
      EXPECT_EQ((table.readable[word] & bit) != 0, verdict.find("read") != verdict.npos)
          << row.name;
      EXPECT_EQ((table.settable[word] & bit) != 0, verdict.find("set") != verdict.npos) << row.name;
    }
  }
}

}  // namespace
}  // namespace nfslib::testing

#include "pelmora/common/error_texts.h"

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "pelmora/common/error.h"

namespace pelmora {
namespace {

struct Row {
  int32_t code;
  std::string name;
  std::string text;
};

// Reads a reference table; the shared reference folder sits beside the checkout, and the copy
// kept in the tree is used when it is absent.
std::vector<Row> ReadTable(const std::string& file, bool has_name) {
  std::ifstream in("../shared/reference/" + file);
  if (!in) in.open("pelmora/common/data/" + file);
  EXPECT_TRUE(in.good()) << file;
  std::vector<Row> rows;
  std::string line;
  std::getline(in, line);  // header
  while (std::getline(in, line)) {
    if (line.empty()) continue;
    std::istringstream fields(line);
    Row row;
    std::string code;
    std::getline(fields, code, '\t');
    row.code = std::stoi(code);
    if (has_name) std::getline(fields, row.name, '\t');
    std::getline(fields, row.text);
    rows.push_back(row);
  }
  return rows;
}

TEST(ErrorTexts, EverySystemNumberGivesItsExactText) {
  auto rows = ReadTable("error-texts.tsv", true);
  ASSERT_GT(rows.size(), 200u);
  for (const Row& row : rows) {
    auto text = SystemMessageText(row.code);
    ASSERT_TRUE(text.has_value()) << row.code;
    EXPECT_EQ(*text, row.text) << row.code;
    EXPECT_EQ(*SystemMessageName(row.code), row.name) << row.code;
    EXPECT_EQ(DescribeError(row.code), row.text) << row.code;
  }
}

TEST(ErrorTexts, EveryRuntimeNumberGivesItsExactText) {
  auto rows = ReadTable("runtime-errors.tsv", false);
  ASSERT_GT(rows.size(), 50u);
  for (const Row& row : rows) {
    auto text = RuntimeErrorText(row.code);
    ASSERT_TRUE(text.has_value()) << row.code;
    EXPECT_EQ(*text, row.text) << row.code;
    Error error = RuntimeError(row.code, "Test");
    EXPECT_EQ(error.Number(), row.code);
    EXPECT_EQ(error.Description(), row.text);
    EXPECT_EQ(error.Source(), "Test");
  }
}

TEST(ErrorTexts, NumbersWithoutAMessageGetTheFallback) {
  EXPECT_FALSE(SystemMessageText(40006).has_value());
  EXPECT_EQ(DescribeError(40006), "Error: 40006 (no description)");
  EXPECT_EQ(DescribeError(-7), "Error: -7 (no description)");
  EXPECT_EQ(RuntimeError(31999).Description(), "Error: 31999 (no description)");
  EXPECT_EQ(DescribeError(10061),
            "No connection could be made because the target machine actively refused it.");
  EXPECT_EQ(DescribeError(-2146893821), "Bad Key.");
}

}  // namespace
}  // namespace pelmora

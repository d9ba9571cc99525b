#include "tools/pelmora/sql_output.h"

#include <gtest/gtest.h>

#include <string>

namespace pelmora_tool {
namespace {

using pelmora::Currency;
using pelmora::Date;
using pelmora::Null;
using pelmora::Variant;

ResultTable Sample() {
  ResultTable table;
  table.columns = {"id", "name", "when", "ok"};
  table.rows.push_back({Variant(int32_t{7}), Variant("Zoë, \"Z\""),
                        Variant(*Date::FromCivil({2009, 3, 14, 8, 5, 9})), Variant(true)});
  table.rows.push_back({Variant(12.5), Variant(Null{}), Variant(Currency{15000}),
                        Variant(std::vector<uint8_t>{0x0A, 0xFF})});
  return table;
}

TEST(SqlOutput, TableAlignsColumnsAndRightAlignsNumbers) {
  EXPECT_EQ(FormatTable(Sample()),
            "id   | name     | when                | ok    \n"
            "-----+----------+---------------------+-------\n"
            "   7 | Zoë, \"Z\" | 2009-03-14 08:05:09 | True  \n"
            "12.5 | NULL     |                 1.5 | 0x0AFF\n"
            "(2 rows)\n");
  EXPECT_EQ(FormatTable(ResultTable{{"x"}, {}}), "x\n-\n(0 rows)\n");
}

TEST(SqlOutput, CsvQuotesFieldsThatNeedIt) {
  EXPECT_EQ(FormatCsv(Sample()),
            "id,name,when,ok\r\n"
            "7,\"Zoë, \"\"Z\"\"\",2009-03-14 08:05:09,True\r\n"
            "12.5,,1.5,0x0AFF\r\n");
}

TEST(SqlOutput, JsonKeepsNumbersBooleansAndNulls) {
  EXPECT_EQ(FormatJson(Sample()),
            "[\n"
            "  {\n"
            "    \"id\": 7,\n"
            "    \"name\": \"Zoë, \\\"Z\\\"\",\n"
            "    \"when\": \"2009-03-14 08:05:09\",\n"
            "    \"ok\": true\n"
            "  },\n"
            "  {\n"
            "    \"id\": 12.5,\n"
            "    \"name\": null,\n"
            "    \"when\": 1.5,\n"
            "    \"ok\": \"0x0AFF\"\n"
            "  }\n"
            "]\n");
}

TEST(SqlOutput, ChangedRowsCountsInWords) {
  EXPECT_EQ(ChangedRows(1), "1 row changed\n");
  EXPECT_EQ(ChangedRows(0), "0 rows changed\n");
  EXPECT_EQ(ChangedRows(25), "25 rows changed\n");
  EXPECT_EQ(ChangedRows(-1), "OK\n");
}

}  // namespace
}  // namespace pelmora_tool

// ListingReader: listing data parsed as it arrives, in pieces of any size.
#include "pelmora/admin/listing_reader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "pelmora/admin/internal/byte_order.h"

namespace pelmora::admin {
namespace {

using Bytes = std::vector<uint8_t>;

FileInfoRecord Record(std::string name) {
  FileInfoRecord record;
  record.attributes = 16;
  record.size = 42;
  record.last_write_time = 132000000000000000;
  record.full_path = "C:\\x\\" + name;
  record.parent_path = "C:\\x";
  record.name = std::move(name);
  return record;
}

void AppendEntry(Bytes& out, const Bytes& record) {
  internal::AppendInt32(out, static_cast<int32_t>(record.size()));
  out.insert(out.end(), record.begin(), record.end());
}

// Feeds `data` in pieces of `piece` bytes; returns the records and whether the listing was whole.
std::pair<std::vector<FileInfoRecord>, bool> Read(const Bytes& data, size_t piece) {
  ListingReader reader;
  std::vector<FileInfoRecord> records;
  for (size_t at = 0; at < data.size(); at += piece) {
    const size_t n = std::min(piece, data.size() - at);
    reader.Feed(std::span<const uint8_t>(data).subspan(at, n), records);
  }
  return {records, reader.Finish()};
}

TEST(ListingReader, ReadsEntriesWhateverThePieceSize) {
  Bytes data;
  AppendEntry(data, BuildFileInfoRecord(Record("a.txt")));
  internal::AppendInt32(data, 0);  // empty entries carry no record
  internal::AppendInt32(data, -5);
  AppendEntry(data, BuildFileInfoRecord(Record("b")));
  for (size_t piece : {size_t{1}, size_t{3}, size_t{4}, size_t{7}, size_t{64}, data.size()}) {
    auto [records, whole] = Read(data, piece);
    ASSERT_TRUE(whole) << piece;
    ASSERT_EQ(records.size(), 2u) << piece;
    EXPECT_EQ(records[0].name, "a.txt");
    EXPECT_EQ(records[0].last_write_time, 132000000000000000u);
    EXPECT_EQ(records[1].full_path, "C:\\x\\b");
  }
}

TEST(ListingReader, NothingIsAnEmptyListing) {
  auto [records, whole] = Read({}, 1);
  EXPECT_TRUE(whole);
  EXPECT_TRUE(records.empty());
}

TEST(ListingReader, OddTextLengthsKeepTheLastByteAsACharacter) {
  Bytes record = BuildFileInfoRecord(Record(""));
  // Name length 3: "A" and a lone "B" byte.
  Bytes odd(record.begin(), record.begin() + 32);
  internal::AppendInt32(odd, 3);
  odd.insert(odd.end(), {'A', 0, 'B'});
  internal::AppendInt32(odd, 0);
  internal::AppendInt32(odd, 0);
  Bytes data;
  AppendEntry(data, odd);
  auto [records, whole] = Read(data, 5);
  ASSERT_TRUE(whole);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].name, "AB");
  EXPECT_EQ(records[0].full_path, "");
}

TEST(ListingReader, RefusesEntriesThatLie) {
  const Bytes good = BuildFileInfoRecord(Record("n"));
  struct Case {
    const char* name;
    Bytes data;
  };
  Bytes inner_overrun = good;
  internal::PutInt32(inner_overrun, 32, 1000);  // name length past the record's end
  Bytes short_record(good.begin(), good.begin() + 20);
  Bytes huge;
  internal::AppendInt32(huge, static_cast<int32_t>(kMaxListingRecord + 1));
  Bytes cut;
  AppendEntry(cut, good);
  cut.resize(cut.size() - 1);
  std::vector<Case> cases = {{"inner length overruns", {}},
                             {"record shorter than its fixed part", {}},
                             {"entry longer than any record", huge},
                             {"listing ends inside an entry", cut},
                             {"listing ends inside a length", {1, 0}}};
  AppendEntry(cases[0].data, inner_overrun);
  AppendEntry(cases[1].data, short_record);
  for (const Case& c : cases) {
    for (size_t piece : {size_t{1}, size_t{4096}}) {
      auto [records, whole] = Read(c.data, piece);
      EXPECT_FALSE(whole) << c.name;
      EXPECT_TRUE(records.empty()) << c.name;
    }
  }
}

TEST(ListingReader, AFaultStopsTheReading) {
  Bytes data;
  internal::AppendInt32(data, 8);
  data.resize(data.size() + 8);
  AppendEntry(data, BuildFileInfoRecord(Record("later")));
  ListingReader reader;
  std::vector<FileInfoRecord> records;
  EXPECT_FALSE(reader.Feed(data, records));
  EXPECT_TRUE(reader.Failed());
  EXPECT_TRUE(records.empty());
}

TEST(ListingReader, ReadsTenThousandEntries) {
  std::vector<FileInfoRecord> sent;
  for (int i = 0; i < 10000; ++i) sent.push_back(Record("file" + std::to_string(i)));
  const Bytes data = BuildListing(sent);
  auto [records, whole] = Read(data, 1500);
  ASSERT_TRUE(whole);
  ASSERT_EQ(records.size(), 10000u);
  EXPECT_EQ(records[9999].name, "file9999");
}

}  // namespace
}  // namespace pelmora::admin

#include "pelmora/admin/wire_replies.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace pelmora::admin {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes Cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
  return out;
}

TEST(CommandRequest, TenCharacterCommandIsAnnouncedAs25AndPaddedTo1500) {
  EXPECT_EQ(CommandRequestTotal("dir C:\\ /s"), 25);
  Bytes expected = Cat({{20, 2, 11, 0, 0, 0},
                        {'d', 'i', 'r', ' ', 'C', ':', '\\', ' ', '/', 's', 0},
                        {4, 0, 0, 0, 0x88, 0x13, 0, 0}});
  expected.resize(1500, 0);
  EXPECT_EQ(BuildCommandRequest("dir C:\\ /s", 5000), expected);
}

TEST(CommandRequest, LongCommandIsSentAtItsExactLength) {
  std::string command(2000, 'x');
  Bytes block = BuildCommandRequest(command, -1);
  ASSERT_EQ(block.size(), 2015u);
  EXPECT_EQ(CommandRequestTotal(command), 2015);
  EXPECT_EQ(Bytes(block.end() - 8, block.end()), (Bytes{4, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}));
}

TEST(CommandRequest, ServiceReadsBackCommandAndTimeOut) {
  auto block = ParseRequestBlock(BuildCommandRequest("echo \xC3\xBC", 1234));
  ASSERT_TRUE(block);
  auto request = ParseCommandRequest(*block);
  ASSERT_TRUE(request);
  EXPECT_EQ(request->command, "echo \xC3\xBC");
  EXPECT_EQ(request->timeout, 1234);
  block->args[1].pop_back();
  EXPECT_EQ(ParseCommandRequest(*block), std::nullopt);
  EXPECT_EQ(ParseCommandRequest(RequestBlock{19, {{0}, {0, 0, 0, 0}}}), std::nullopt);
}

struct CommandReplyCase {
  const char* name;
  Bytes data;
  bool valid;
  CommandReplyKind kind;
  std::int32_t status;
  std::string output;
};

class CommandReplyTest : public ::testing::TestWithParam<CommandReplyCase> {};

TEST_P(CommandReplyTest, Parses) {
  const CommandReplyCase& c = GetParam();
  std::optional<CommandReply> reply = ParseCommandReply(c.data);
  ASSERT_EQ(reply.has_value(), c.valid);
  if (!reply) return;
  EXPECT_EQ(reply->kind, c.kind);
  EXPECT_EQ(reply->status, c.status);
  EXPECT_EQ(reply->output, c.output);
}

using K = CommandReplyKind;
INSTANTIATE_TEST_SUITE_P(
    Replies, CommandReplyTest,
    ::testing::Values(
        CommandReplyCase{"Status9000", {0, 0, 0, 0, 0x28, 0x23, 0, 0}, true, K::kStatus, 9000, ""},
        CommandReplyCase{"UnknownStatus", {0, 0, 0, 0, 7, 0, 0, 0}, true, K::kStatus, 7, ""},
        CommandReplyCase{"Output",
                         {1, 0, 0, 0, 3, 0, 0, 0, 'a', 0xFC, '\n', 0},
                         true,
                         K::kOutput,
                         0,
                         "a\xC3\xBC\n"},
        CommandReplyCase{"EmptyOutput", {1, 0, 0, 0, 0, 0, 0, 0}, true, K::kOutput, 0, ""},
        CommandReplyCase{"UnknownKind", {2, 0, 0, 0}, true, K::kOther, 0, ""},
        CommandReplyCase{"Empty", {}, false, K::kOther, 0, ""},
        CommandReplyCase{"TruncatedKind", {0, 0, 0}, false, K::kOther, 0, ""},
        CommandReplyCase{"TruncatedStatus", {0, 0, 0, 0, 0x28}, false, K::kOther, 0, ""},
        CommandReplyCase{
            "NegativeOutputLength", {1, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}, false, K::kOther, 0, ""},
        CommandReplyCase{"OutputPastEnd", {1, 0, 0, 0, 4, 0, 0, 0, 'a'}, false, K::kOther, 0, ""},
        CommandReplyCase{"HugeOutputLength",
                         {1, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0x7F, 'a'},
                         false,
                         K::kOther,
                         0,
                         ""}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(CommandReply, BuildsStatusAndOutputReplies) {
  EXPECT_EQ(BuildCommandStatusReply(kProcessTimedOut), (Bytes{0, 0, 0, 0, 0x2B, 0x23, 0, 0}));
  EXPECT_EQ(BuildCommandOutputReply("ok\xC3\xBC"), (Bytes{1, 0, 0, 0, 3, 0, 0, 0, 'o', 'k', 0xFC}));
  Bytes longest = BuildCommandOutputReply(std::string(5000, 'z'));
  EXPECT_EQ(longest.size(), kMaxFramedData);
  EXPECT_EQ(ParseCommandReply(longest)->output.size(), kMaxCommandOutput);
}

TEST(WireText, DecodesUtf16AndKeepsAnOddLastByteAsACharacter) {
  EXPECT_EQ(DecodeWireText(Bytes{'C', 0, ':', 0}), "C:");
  EXPECT_EQ(DecodeWireText(Bytes{'C', 0, 'A'}), "CA");
  EXPECT_EQ(DecodeWireText(Bytes{}), "");
  EXPECT_EQ(EncodeWireText("\xE2\x82\xAC"), (Bytes{0xAC, 0x20}));
}

FileInfoRecord SampleRecord() {
  FileInfoRecord record;
  record.attributes = 0x20;
  record.size = 705032704;
  record.creation_time = 0x01D0000000000001;
  record.last_access_time = 2;
  record.last_write_time = 0xFFFFFFFFFFFFFFFF;
  record.name = "shop.ini";
  record.full_path = "D:\\Data\\shop.ini";
  record.parent_path = "D:\\Data";
  return record;
}

void ExpectSameRecord(const FileInfoRecord& a, const FileInfoRecord& b) {
  EXPECT_EQ(a.attributes, b.attributes);
  EXPECT_EQ(a.size, b.size);
  EXPECT_EQ(a.creation_time, b.creation_time);
  EXPECT_EQ(a.last_access_time, b.last_access_time);
  EXPECT_EQ(a.last_write_time, b.last_write_time);
  EXPECT_EQ(a.name, b.name);
  EXPECT_EQ(a.full_path, b.full_path);
  EXPECT_EQ(a.parent_path, b.parent_path);
}

TEST(FileInfoRecord, LayoutRoundTripsAndIgnoresPadding) {
  Bytes bytes = BuildFileInfoRecord(SampleRecord());
  ASSERT_EQ(bytes.size(), 44u + 16 + 32 + 14);
  EXPECT_EQ(Bytes(bytes.begin(), bytes.begin() + 12),
            (Bytes{0x20, 0, 0, 0, 0, 0xF2, 0x05, 0x2A, 1, 0, 0, 0}));
  EXPECT_EQ(Bytes(bytes.begin() + 32, bytes.begin() + 38), (Bytes{16, 0, 0, 0, 's', 0}));
  bytes.resize(1500, 0);
  auto parsed = ParseFileInfoRecord(bytes);
  ASSERT_TRUE(parsed);
  ExpectSameRecord(*parsed, SampleRecord());
}

TEST(FileInfoRecord, NonPositiveTextLengthsGiveEmptyTexts) {
  Bytes bytes(32, 0);
  Bytes tail = {0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 2, 0, 0, 0, 'P', 0};
  bytes.insert(bytes.end(), tail.begin(), tail.end());
  auto parsed = ParseFileInfoRecord(bytes);
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->name, "");
  EXPECT_EQ(parsed->full_path, "");
  EXPECT_EQ(parsed->parent_path, "P");
}

TEST(FileInfoRecord, TruncatedOrOverlongRecordsAreRefused) {
  Bytes bytes = BuildFileInfoRecord(SampleRecord());
  for (std::size_t cut : {0u, 31u, 32u, 35u, 36u, 50u}) {
    EXPECT_EQ(ParseFileInfoRecord(Bytes(bytes.begin(), bytes.begin() + cut)), std::nullopt) << cut;
  }
  bytes[32] = 0xFF;  // name length 255: past the end
  EXPECT_EQ(ParseFileInfoRecord(bytes), std::nullopt);
  bytes[35] = 0x7F;
  EXPECT_EQ(ParseFileInfoRecord(bytes), std::nullopt);
}

TEST(Listing, SkipsEmptyEntriesAndKeepsServerOrder) {
  FileInfoRecord second = SampleRecord();
  second.name = "b";
  std::vector<FileInfoRecord> records = {SampleRecord(), second};
  Bytes listing = BuildListing(records);
  Bytes with_empty = Cat({{0, 0, 0, 0}, listing, {0xFF, 0xFF, 0xFF, 0xFF}});
  auto parsed = ParseListing(with_empty);
  ASSERT_TRUE(parsed);
  ASSERT_EQ(parsed->size(), 2u);
  ExpectSameRecord((*parsed)[1], second);
  EXPECT_EQ(ParseListing(Bytes{})->size(), 0u);
}

TEST(Listing, TruncatedEntriesAreRefused) {
  Bytes listing = BuildListing(std::vector<FileInfoRecord>{SampleRecord()});
  EXPECT_EQ(ParseListing(Bytes(listing.begin(), listing.end() - 1)), std::nullopt);
  EXPECT_EQ(ParseListing(Bytes{1, 0}), std::nullopt);
  EXPECT_EQ(ParseListing(Bytes{4, 0, 0, 0, 1, 2, 3, 4}), std::nullopt);  // record too short
}

TEST(Transfer, HeaderIs28BytesAndGoReplyIsFourBytes) {
  TransferHeader header{-1, 1, 0x0102030405060708, 3};
  Bytes bytes = BuildTransferHeader(header);
  EXPECT_EQ(bytes, Cat({{0xFF, 0xFF, 0xFF, 0xFF, 1, 0, 0, 0, 0, 0, 0, 0},
                        {8, 7, 6, 5, 4, 3, 2, 1, 3, 0, 0, 0, 0, 0, 0, 0}}));
  auto parsed = ParseTransferHeader(bytes);
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->size, -1);
  EXPECT_EQ(parsed->last_access_time, 0x0102030405060708u);
  EXPECT_EQ(ParseTransferHeader(Bytes(27, 0)), std::nullopt);
  EXPECT_EQ(BuildGoReply(true), (Bytes{'T', 0, 0, 0}));
  EXPECT_EQ(BuildGoReply(false), (Bytes{'F', 0, 0, 0}));
  EXPECT_TRUE(IsGoReply(BuildGoReply(true)));
  EXPECT_FALSE(IsGoReply(Bytes{}));
  EXPECT_FALSE(IsGoReply(Bytes{'t'}));
}

}  // namespace
}  // namespace pelmora::admin

#include "pelmora/admin/wire.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace pelmora::admin {
namespace {

using Bytes = std::vector<std::uint8_t>;
using ::testing::ElementsAreArray;

Bytes B(std::string_view text) { return Bytes(text.begin(), text.end()); }

Bytes Concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
  return out;
}

Bytes Header(std::int32_t sequence, std::int32_t size) {
  auto s = static_cast<std::uint32_t>(sequence);
  auto n = static_cast<std::uint32_t>(size);
  return {0xFF,
          0xFF,
          0xFF,
          static_cast<std::uint8_t>(s),
          static_cast<std::uint8_t>(s >> 8),
          static_cast<std::uint8_t>(s >> 16),
          static_cast<std::uint8_t>(s >> 24),
          static_cast<std::uint8_t>(n),
          static_cast<std::uint8_t>(n >> 8),
          static_cast<std::uint8_t>(n >> 16),
          static_cast<std::uint8_t>(n >> 24)};
}

Bytes Padded(Bytes bytes, std::size_t size) {
  bytes.resize(size, 0);
  return bytes;
}

TEST(Wire, SequenceNumbersRunFromTheFirstAndWrapToZeroAtTheEighthMessage) {
  std::int32_t sequence = kFirstSequenceNumber;
  std::vector<std::int32_t> sent;
  for (int i = 0; i < 9; ++i) sent.push_back(sequence = NextSequenceNumber(sequence));
  EXPECT_THAT(sent, ElementsAreArray({2147483641, 2147483642, 2147483643, 2147483644, 2147483645,
                                      2147483646, 2147483647, 0, 1}));
  EXPECT_EQ(NextSequenceNumber(-1), 0);
}

struct PacketCase {
  const char* name;
  std::int32_t sequence;
  Bytes data;
  Bytes expected_prefix;  // the rest of the 1500 bytes is zero
};

class FramedPacketTest : public ::testing::TestWithParam<PacketCase> {};

TEST_P(FramedPacketTest, BuildsExactBytes) {
  const PacketCase& c = GetParam();
  Bytes packet = BuildFramedPacket(c.sequence, c.data);
  EXPECT_EQ(packet, Padded(c.expected_prefix, kPacketSize));
}

INSTANTIATE_TEST_SUITE_P(
    Packets, FramedPacketTest,
    ::testing::Values(
        PacketCase{"EmptyData", 2147483641, {}, Header(2147483641, 0)},
        PacketCase{"WrappedSequence", 0, B("ab"), Concat({Header(0, 2), B("ab")})},
        PacketCase{"LastBeforeWrap", 2147483647, {7}, Concat({Header(2147483647, 1), {7}})},
        PacketCase{"FullData", 5, Bytes(1489, 0xAA), Concat({Header(5, 1489), Bytes(1489, 0xAA)})},
        PacketCase{"OversizeDataIsCut", 5, Bytes(1500, 0xAA),
                   Concat({Header(5, 1489), Bytes(1489, 0xAA)})}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Wire, ParsesTheDataOfAValidPacket) {
  Bytes packet = BuildFramedPacket(0, B("hello"));
  FramedMessage message = ParseFramedPacket(packet, 0);
  EXPECT_EQ(message.fault, PacketFault::kNone);
  EXPECT_EQ(message.sequence, 0);
  EXPECT_EQ(Bytes(message.data.begin(), message.data.end()), B("hello"));
}

struct FaultCase {
  const char* name;
  Bytes packet;
  std::int32_t expected_sequence;
  PacketFault fault;
};

class PacketFaultTest : public ::testing::TestWithParam<FaultCase> {};

TEST_P(PacketFaultTest, ReportsTheFirstFault) {
  const FaultCase& c = GetParam();
  FramedMessage message = ParseFramedPacket(c.packet, c.expected_sequence);
  EXPECT_EQ(message.fault, c.fault);
  EXPECT_TRUE(message.data.empty());
}

Bytes WithByte(Bytes bytes, std::size_t at, std::uint8_t value) {
  bytes[at] = value;
  return bytes;
}

INSTANTIATE_TEST_SUITE_P(
    Faults, PacketFaultTest,
    ::testing::Values(
        FaultCase{"Empty", {}, 0, PacketFault::kBadHeader},
        FaultCase{"ShorterThanHeader", Bytes(10, 0xFF), 0, PacketFault::kBadHeader},
        FaultCase{"FirstMarker", WithByte(BuildFramedPacket(1, {}), 0, 0xFE), 1,
                  PacketFault::kBadHeader},
        FaultCase{"ThirdMarker", WithByte(BuildFramedPacket(1, {}), 2, 0), 1,
                  PacketFault::kBadHeader},
        FaultCase{"BadHeaderBeforeBadSequence", WithByte(BuildFramedPacket(1, {}), 1, 0), 2,
                  PacketFault::kBadHeader},
        FaultCase{"StaleSequence", BuildFramedPacket(2147483647, {}), 0, PacketFault::kBadSequence},
        FaultCase{"NegativeSize", Padded(Header(3, -1), 1500), 3, PacketFault::kBadDataSize},
        FaultCase{"SizeOfWholePacket", Padded(Header(3, 1500), 1500), 3, PacketFault::kBadDataSize},
        FaultCase{"SizeOneTooMany", Padded(Header(3, 1490), 1500), 3, PacketFault::kBadDataSize},
        FaultCase{"SizePastShortPacket", Padded(Header(3, 5), 15), 3, PacketFault::kBadDataSize},
        FaultCase{"HugeSize", Padded(Header(3, 0x7FFFFFFF), 1500), 3, PacketFault::kBadDataSize}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Wire, StaleSequenceFaultStillReportsTheSequenceNumber) {
  EXPECT_EQ(ParseFramedPacket(BuildFramedPacket(41, {}), 42).sequence, 41);
}

TEST(Wire, AcceptsTheLargestDataSizeThatFitsThePacket) {
  FramedMessage message = ParseFramedPacket(Padded(Header(3, 1489), 1500), 3);
  EXPECT_EQ(message.fault, PacketFault::kNone);
  EXPECT_EQ(message.data.size(), 1489u);
}

TEST(Wire, EncodesArgumentsInAnsiAndUnicodeForm) {
  EXPECT_EQ(EncodeAnsiArgument(""), Bytes{});
  EXPECT_EQ(EncodeAnsiArgument("ab"), (Bytes{'a', 'b', 0}));
  EXPECT_EQ(EncodeAnsiArgument("\xC3\xBC"), (Bytes{0xFC, 0}));  // ü in Windows-1252
  EXPECT_EQ(EncodeUnicodeArgument(""), (Bytes{0, 0}));
  EXPECT_EQ(EncodeUnicodeArgument("ab"), (Bytes{'a', 0, 'b', 0, 0, 0}));
  EXPECT_EQ(EncodeUnicodeArgument("\xE2\x82\xAC"), (Bytes{0xAC, 0x20, 0, 0}));  // €
}

TEST(Wire, FlagsAreTrueOnlyForMinusOne) {
  EXPECT_EQ(FlagText(-1), "TRUE");
  EXPECT_EQ(FlagText(0), "FALSE");
  EXPECT_EQ(FlagText(1), "FALSE");
}

TEST(Wire, ShortRequestBlockIsPaddedTo1500Bytes) {
  std::vector<Bytes> args = {EncodeUnicodeArgument("C:"), EncodeAnsiArgument("")};
  EXPECT_EQ(RequestBlockTotal(args), 2 + (4 + 6) + (4 + 0));
  Bytes expected = {5, 2, 6, 0, 0, 0, 'C', 0, ':', 0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(BuildRequestBlock(RequestCode::kFileExists, args), Padded(expected, 1500));
}

TEST(Wire, RequestBlockOfExactly1500BytesHasNoPadding) {
  std::vector<Bytes> args = {Bytes(1494, 'x')};
  ASSERT_EQ(RequestBlockTotal(args), 1500);
  Bytes block = BuildRequestBlock(std::uint8_t{18}, args);
  EXPECT_EQ(block, Concat({{18, 1, 0xD6, 0x05, 0, 0}, Bytes(1494, 'x')}));
}

TEST(Wire, LongRequestBlockIsSentAtItsExactLength) {
  std::vector<Bytes> args = {Bytes(1000, 'a'), Bytes(999, 'b')};
  ASSERT_EQ(RequestBlockTotal(args), 2009);
  Bytes block = BuildRequestBlock(RequestCode::kMoveRemoteFile, args);
  EXPECT_EQ(
      block,
      Concat({{15, 2, 0xE8, 0x03, 0, 0}, Bytes(1000, 'a'), {0xE7, 0x03, 0, 0}, Bytes(999, 'b')}));
}

TEST(Wire, SizeMessageIsTheLittleEndianTotal) {
  EXPECT_EQ(BuildSizeMessage(2009), (Bytes{0xD9, 0x07, 0, 0}));
  EXPECT_EQ(BuildSizeMessage(-1), (Bytes{0xFF, 0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(ParseSizeMessage(Bytes{0xD9, 0x07, 0, 0, 9}), 2009);
  EXPECT_EQ(ParseSizeMessage(Bytes{0xD9, 0x07, 0}), std::nullopt);
}

TEST(Wire, RequestBlockRoundTripsAndIgnoresPadding) {
  std::vector<Bytes> args = {EncodeUnicodeArgument("a.txt"), EncodeUnicodeArgument("TRUE"),
                             EncodeAnsiArgument("")};
  std::optional<RequestBlock> block = ParseRequestBlock(BuildRequestBlock(std::uint8_t{7}, args));
  ASSERT_TRUE(block);
  EXPECT_EQ(block->code, 7);
  EXPECT_EQ(block->args, args);
  EXPECT_EQ(DecodeUnicodeArgument(block->args[0]), "a.txt");
  EXPECT_EQ(DecodeAnsiArgument(EncodeAnsiArgument("\xC3\xBC")), "\xC3\xBC");
}

struct HostileBlockCase {
  const char* name;
  Bytes block;
};

class HostileRequestBlockTest : public ::testing::TestWithParam<HostileBlockCase> {};

TEST_P(HostileRequestBlockTest, IsRefused) {
  EXPECT_EQ(ParseRequestBlock(GetParam().block), std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(
    Hostile, HostileRequestBlockTest,
    ::testing::Values(HostileBlockCase{"Empty", {}}, HostileBlockCase{"CodeOnly", {5}},
                      HostileBlockCase{"CountWithoutArguments", {5, 1}},
                      HostileBlockCase{"TruncatedLength", {5, 1, 3, 0, 0}},
                      HostileBlockCase{"NegativeLength", {5, 1, 0xFF, 0xFF, 0xFF, 0xFF}},
                      HostileBlockCase{"LengthPastEnd", {5, 1, 3, 0, 0, 0, 'a', 'b'}},
                      HostileBlockCase{"HugeLength", {5, 1, 0xFF, 0xFF, 0xFF, 0x7F, 'a'}},
                      HostileBlockCase{"SecondArgumentMissing", {5, 2, 1, 0, 0, 0, 'a'}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Wire, ResultReplyRoundTrips) {
  EXPECT_EQ(BuildResultReply(true, 0, ""), (Bytes{'T', 0, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(BuildResultReply(false, 5, "\xC3\xBC!"),
            (Bytes{'F', 5, 0, 0, 0, 2, 0, 0, 0, 0xFC, '!'}));
  std::optional<ResultReply> reply = ParseResultReply(BuildResultReply(false, 53, "No file"));
  ASSERT_TRUE(reply);
  EXPECT_FALSE(reply->success);
  EXPECT_EQ(reply->code, 53);
  EXPECT_EQ(reply->message, "No file");
}

struct ResultCase {
  const char* name;
  Bytes data;
  std::optional<ResultReply> expected;
};

class ResultReplyTest : public ::testing::TestWithParam<ResultCase> {};

TEST_P(ResultReplyTest, Parses) {
  const ResultCase& c = GetParam();
  std::optional<ResultReply> reply = ParseResultReply(c.data);
  ASSERT_EQ(reply.has_value(), c.expected.has_value());
  if (!reply) return;
  EXPECT_EQ(reply->success, c.expected->success);
  EXPECT_EQ(reply->code, c.expected->code);
  EXPECT_EQ(reply->message, c.expected->message);
}

INSTANTIATE_TEST_SUITE_P(
    Replies, ResultReplyTest,
    ::testing::Values(
        ResultCase{"SuccessWithNonzeroCode", {'T', 7, 0, 0, 0}, ResultReply{true, 7, ""}},
        ResultCase{"SuccessIgnoresMessage",
                   {'T', 0, 0, 0, 0, 3, 0, 0, 0, 'a', 'b', 'c'},
                   ResultReply{true, 0, ""}},
        ResultCase{"LowercaseTIsFailure", {'t', 1, 0, 0, 0, 0, 0, 0, 0}, ResultReply{false, 1, ""}},
        ResultCase{"NegativeLengthGivesNoMessage",
                   {'F', 2, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF},
                   ResultReply{false, 2, ""}},
        ResultCase{"MessageWithPadding",
                   {'F', 2, 0, 0, 0, 1, 0, 0, 0, 'x', 0, 0},
                   ResultReply{false, 2, "x"}},
        ResultCase{"Empty", {}, std::nullopt},
        ResultCase{"TruncatedCode", {'T', 0, 0, 0}, std::nullopt},
        ResultCase{"FailureWithoutLength", {'F', 2, 0, 0, 0, 1}, std::nullopt},
        ResultCase{"LengthPastEnd", {'F', 2, 0, 0, 0, 3, 0, 0, 0, 'a', 'b'}, std::nullopt},
        ResultCase{"HugeLength", {'F', 2, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0x7F, 'a'}, std::nullopt}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Wire, LoginMessageIsUserLineFeedPassword) {
  EXPECT_EQ(BuildLoginMessage("u s", " "), (Bytes{'u', ' ', 's', '\n', ' '}));
  auto login = ParseLoginMessage(BuildLoginMessage("user", "pa\nss"));
  ASSERT_TRUE(login);
  EXPECT_EQ(login->first, "user");
  EXPECT_EQ(login->second, "pa\nss");
  EXPECT_EQ(ParseLoginMessage(B("no line feed")), std::nullopt);
}

}  // namespace
}  // namespace pelmora::admin

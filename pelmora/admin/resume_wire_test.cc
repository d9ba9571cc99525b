#include "pelmora/admin/resume_wire.h"

#include <gtest/gtest.h>

namespace pelmora::admin {
namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(ResumeWire, ReadFromBlockBytes) {
  // Code 44, two arguments: "C:\a" in UTF-16LE with its two zeros, then the int32 offset 3000.
  Bytes expected = {44, 2, 10, 0, 0, 0, 'C', 0, ':', 0, '\\', 0, 'a', 0, 0, 0,
                    4, 0, 0, 0, 0xB8, 0x0B, 0, 0};
  Bytes built = BuildRequestBlock(kResumeCode, ResumeArguments("C:\\a", 3000));
  ASSERT_EQ(built.size(), kPacketSize) << "zero-padded to a whole request block";
  EXPECT_EQ(Bytes(built.begin(), built.begin() + expected.size()), expected);
  auto block = ParseRequestBlock(expected);
  ASSERT_TRUE(block);
  EXPECT_EQ(ParseResumeRequest(*block), (ResumeRequest{"C:\\a", 3000}));
}

TEST(ResumeWire, RefusesMalformedRequests) {
  Bytes path = EncodeUnicodeArgument("C:\\a");
  Bytes offset = {0xB8, 0x0B, 0, 0};
  struct Case {
    const char* what;
    RequestBlock block;
  } cases[] = {
      {"a negative offset", {kResumeCode, {path, {0xFF, 0xFF, 0xFF, 0xFF}}}},
      {"a short offset", {kResumeCode, {path, {0xB8, 0x0B}}}},
      {"a long offset", {kResumeCode, {path, {0xB8, 0x0B, 0, 0, 0}}}},
      {"no offset", {kResumeCode, {path}}},
      {"a third argument", {kResumeCode, {path, offset, offset}}},
      {"an empty path", {kResumeCode, {{0, 0}, offset}}},
      {"an odd length", {kResumeCode, {{'C', 0, 0}, offset}}},
      {"no terminator", {kResumeCode, {{'C', 0, ':', 0}, offset}}},
      {"the download code", {1, {path, offset}}},
      {"the get mode code", {42, {path, offset}}},
  };
  for (const Case& c : cases) EXPECT_FALSE(ParseResumeRequest(c.block)) << c.what;
}

TEST(ResumeWire, ContentSizeIsTheRestOrNothing) {
  struct Case {
    std::int32_t size, offset, content;
  } cases[] = {{10, 0, 10}, {10, 4, 6}, {10, 10, 0}, {10, 11, 0}, {0, 0, 0}};
  for (const Case& c : cases) {
    EXPECT_EQ(ResumeContentSize(c.size, c.offset), c.content) << c.size << " from " << c.offset;
  }
}

}  // namespace
}  // namespace pelmora::admin

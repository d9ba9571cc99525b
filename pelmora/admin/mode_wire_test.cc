#include "pelmora/admin/mode_wire.h"

#include <gtest/gtest.h>

namespace pelmora::admin {
namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(ModeWire, SetModeBlockBytes) {
  // Code 43, two arguments: "C:\a" in UTF-16LE with its two zeros, then the int32 0755.
  Bytes expected = {43, 2, 10, 0, 0, 0, 'C', 0, ':', 0, '\\', 0, 'a', 0, 0, 0,
                    4, 0, 0, 0, 0xED, 0x01, 0, 0};
  Bytes built = BuildRequestBlock(kModeSetCode, ModeArguments("C:\\a", 0755));
  ASSERT_EQ(built.size(), kPacketSize) << "zero-padded to a whole request block";
  EXPECT_EQ(Bytes(built.begin(), built.begin() + expected.size()), expected);
  auto block = ParseRequestBlock(expected);
  ASSERT_TRUE(block);
  EXPECT_EQ(ParseModeRequest(*block), (ModeRequest{true, "C:\\a", 0755}));
  auto get = ParseRequestBlock(BuildRequestBlock(kModeGetCode, ModeArguments("C:\\a", {})));
  ASSERT_TRUE(get);
  EXPECT_EQ(ParseModeRequest(*get), (ModeRequest{false, "C:\\a", 0}));
}

TEST(ModeWire, RefusesMalformedRequestsAndSpecialBits) {
  Bytes path = EncodeUnicodeArgument("C:\\a");
  Bytes mode = {0xED, 0x01, 0, 0};
  struct Case {
    const char* what;
    RequestBlock block;
  } cases[] = {
      {"setuid", {kModeSetCode, {path, {0xED, 0x09, 0, 0}}}},
      {"setgid", {kModeSetCode, {path, {0xED, 0x05, 0, 0}}}},
      {"sticky", {kModeSetCode, {path, {0xED, 0x03, 0, 0}}}},
      {"a negative mode", {kModeSetCode, {path, {0xFF, 0xFF, 0xFF, 0xFF}}}},
      {"a short mode", {kModeSetCode, {path, {0xED, 0x01}}}},
      {"no mode", {kModeSetCode, {path}}},
      {"a mode on get", {kModeGetCode, {path, mode}}},
      {"no path", {kModeGetCode, {}}},
      {"an empty path", {kModeGetCode, {{0, 0}}}},
      {"an odd length", {kModeGetCode, {{'C', 0, 0}}}},
      {"no terminator", {kModeGetCode, {{'C', 0, ':', 0}}}},
      {"another code", {40, {path}}},
  };
  for (const Case& c : cases) EXPECT_FALSE(ParseModeRequest(c.block)) << c.what;
}

}  // namespace
}  // namespace pelmora::admin

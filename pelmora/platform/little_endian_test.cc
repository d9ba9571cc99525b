#include "pelmora/platform/little_endian.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

namespace pelmora::platform {
namespace {

constexpr std::array<uint8_t, 8> kBytes = {0x01, 0x02, 0x03, 0x04, 0xFE, 0xFF, 0xFF, 0xFF};

TEST(LittleEndian, LoadsLowestByteFirstAndZeroOutsideTheBuffer) {
  struct Case {
    size_t offset;
    size_t width;
    uint64_t value;
  };
  for (Case c :
       {Case{0, 1, 0x01}, Case{0, 2, 0x0201}, Case{0, 4, 0x04030201}, Case{4, 4, 0xFFFFFFFE},
        Case{0, 8, 0xFFFFFFFE04030201}, Case{7, 1, 0xFF}, Case{7, 2, 0}, Case{8, 1, 0},
        Case{9, 0, 0}, Case{0, 9, 0}, Case{SIZE_MAX, 4, 0}}) {
    EXPECT_EQ(LoadLeBytes(kBytes, c.offset, c.width), c.value) << c.offset << "+" << c.width;
  }
  EXPECT_EQ(LoadLe<int32_t>(kBytes, 4), -2);
  EXPECT_EQ(LoadLe<uint16_t>(kBytes, 6), 0xFFFF);
}

TEST(LittleEndian, StoresAndAppendsWhatLoadReads) {
  std::array<uint8_t, 6> buffer{};
  StoreLe<int32_t>(buffer, 1, -2);
  StoreLe<uint16_t>(buffer, 5, 0x1234);  // does not fit: nothing written
  EXPECT_EQ(buffer, (std::array<uint8_t, 6>{0, 0xFE, 0xFF, 0xFF, 0xFF, 0}));
  std::vector<uint8_t> bytes;
  AppendLe<uint16_t>(bytes, 48);
  AppendLe<int32_t>(bytes, -1);
  AppendLe<uint64_t>(bytes, 0x0102030405060708);
  EXPECT_EQ(bytes, (std::vector<uint8_t>{0x30, 0, 0xFF, 0xFF, 0xFF, 0xFF, 8, 7, 6, 5, 4, 3, 2, 1}));
  std::string text;
  AppendLe<uint32_t>(text, 0x41424344);
  EXPECT_EQ(text, "DCBA");
}

TEST(LeReader, StopsAtTheEndAndStaysStopped) {
  LeReader in(kBytes);
  EXPECT_EQ(in.U16(), 0x0201);
  EXPECT_EQ(in.U8(), 0x03);
  EXPECT_EQ(in.Take(1).size(), 1u);
  EXPECT_EQ(in.I32(), -2);
  EXPECT_TRUE(in.ok());
  EXPECT_EQ(in.remaining(), 0u);
  EXPECT_EQ(in.U8(), 0);
  EXPECT_FALSE(in.ok());
  LeReader short_read{std::span(kBytes).first(3)};
  EXPECT_EQ(short_read.U32(), 0u);
  EXPECT_FALSE(short_read.ok());
  EXPECT_EQ(short_read.position(), 0u);
  EXPECT_EQ(short_read.U8(), 0);  // nothing more once stopped, though a byte is left
}

}  // namespace
}  // namespace pelmora::platform

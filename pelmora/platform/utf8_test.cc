#include "pelmora/platform/utf8.h"

#include <gtest/gtest.h>

namespace pelmora::platform {
namespace {

TEST(Utf8SequenceLength, FollowsTheWellFormedLeadRanges) {
  struct Range {
    unsigned first;
    unsigned last;
    std::size_t length;
  };
  for (Range r : {Range{0x00, 0x7F, 1}, Range{0x80, 0xBF, 0}, Range{0xC0, 0xC1, 0},
                  Range{0xC2, 0xDF, 2}, Range{0xE0, 0xEF, 3}, Range{0xF0, 0xF4, 4},
                  Range{0xF5, 0xFF, 0}}) {
    for (unsigned byte = r.first; byte <= r.last; ++byte) {
      EXPECT_EQ(Utf8SequenceLength(static_cast<unsigned char>(byte)), r.length) << byte;
    }
  }
}

}  // namespace
}  // namespace pelmora::platform

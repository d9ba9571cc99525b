// The length of the UTF-8 sequence a lead byte starts: the one answer the code page conversion
// and the service's output cutting share.
//
//   pelmora::platform::Utf8SequenceLength(0xE2);  // 3
//   pelmora::platform::Utf8SequenceLength(0x80);  // 0: a continuation byte leads nothing
#ifndef PELMORA_PLATFORM_UTF8_H_
#define PELMORA_PLATFORM_UTF8_H_

#include <cstddef>

namespace pelmora::platform {

// 1 for ASCII, 2 for C2-DF, 3 for E0-EF, 4 for F0-F4; 0 for a byte no well-formed sequence
// starts with (a continuation byte, the overlong leads C0 and C1, F5-FF).
constexpr std::size_t Utf8SequenceLength(unsigned char lead) {
  if (lead < 0x80) return 1;
  if (lead < 0xC2) return 0;
  if (lead < 0xE0) return 2;
  if (lead < 0xF0) return 3;
  if (lead < 0xF5) return 4;
  return 0;
}

}  // namespace pelmora::platform

#endif  // PELMORA_PLATFORM_UTF8_H_

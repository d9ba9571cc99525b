// Little-endian integer access to byte buffers, for the administration protocol's wire units:
// the names the wire code uses for pelmora/platform/little_endian.h.
#ifndef PELMORA_ADMIN_INTERNAL_BYTE_ORDER_H_
#define PELMORA_ADMIN_INTERNAL_BYTE_ORDER_H_

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "pelmora/platform/little_endian.h"

namespace pelmora::admin::internal {

// Reads the unsigned little-endian value of `width` bytes at `offset` (0 when it does not fit).
inline std::uint64_t GetLittleEndian(std::span<const std::uint8_t> bytes, std::size_t offset,
                                     std::size_t width) {
  return platform::LoadLeBytes(bytes, offset, width);
}

// The signed 32-bit value at `offset`.
inline std::int32_t GetInt32(std::span<const std::uint8_t> bytes, std::size_t offset) {
  return platform::LoadLe<std::int32_t>(bytes, offset);
}

// The 64-bit value at `offset`.
inline std::uint64_t GetUint64(std::span<const std::uint8_t> bytes, std::size_t offset) {
  return platform::LoadLe<std::uint64_t>(bytes, offset);
}

// Writes `value` as `width` little-endian bytes at `offset` (nothing when it does not fit).
inline void PutLittleEndian(std::span<std::uint8_t> bytes, std::size_t offset, std::uint64_t value,
                            std::size_t width) {
  platform::StoreLeBytes(bytes, offset, value, width);
}

inline void PutInt32(std::span<std::uint8_t> bytes, std::size_t offset, std::int32_t value) {
  platform::StoreLe(bytes, offset, value);
}

// Appends `value` as 4 / 8 little-endian bytes.
inline void AppendInt32(std::vector<std::uint8_t>& out, std::int32_t value) {
  platform::AppendLe(out, value);
}
inline void AppendUint64(std::vector<std::uint8_t>& out, std::uint64_t value) {
  platform::AppendLe(out, value);
}

// Appends the bytes of `text` (any char string).
inline void AppendBytes(std::vector<std::uint8_t>& out, std::string_view text) {
  out.insert(out.end(), text.begin(), text.end());
}

}  // namespace pelmora::admin::internal

#endif  // PELMORA_ADMIN_INTERNAL_BYTE_ORDER_H_

// Little-endian integer access to byte buffers, for the administration protocol's wire units.
// Readers take an offset that the caller has already checked against the buffer's size.
#ifndef PELMORA_ADMIN_INTERNAL_BYTE_ORDER_H_
#define PELMORA_ADMIN_INTERNAL_BYTE_ORDER_H_

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace pelmora::admin::internal {

// Reads the unsigned little-endian value of `width` bytes at `offset` (offset + width <= size).
inline std::uint64_t GetLittleEndian(std::span<const std::uint8_t> bytes, std::size_t offset,
                                     std::size_t width) {
  std::uint64_t value = 0;
  for (std::size_t i = width; i > 0; --i) value = (value << 8) | bytes[offset + i - 1];
  return value;
}

// The signed 32-bit value at `offset` (offset + 4 <= bytes.size()).
inline std::int32_t GetInt32(std::span<const std::uint8_t> bytes, std::size_t offset) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(GetLittleEndian(bytes, offset, 4)));
}

// The 64-bit value at `offset` (offset + 8 <= bytes.size()).
inline std::uint64_t GetUint64(std::span<const std::uint8_t> bytes, std::size_t offset) {
  return GetLittleEndian(bytes, offset, 8);
}

// Writes `value` as `width` little-endian bytes at `offset` (offset + width <= bytes.size()).
inline void PutLittleEndian(std::span<std::uint8_t> bytes, std::size_t offset, std::uint64_t value,
                            std::size_t width) {
  for (std::size_t i = 0; i < width; ++i)
    bytes[offset + i] = static_cast<std::uint8_t>(value >> (8 * i));
}

inline void PutInt32(std::span<std::uint8_t> bytes, std::size_t offset, std::int32_t value) {
  PutLittleEndian(bytes, offset, static_cast<std::uint32_t>(value), 4);
}

// Appends `value` as 4 / 8 little-endian bytes.
inline void AppendInt32(std::vector<std::uint8_t>& out, std::int32_t value) {
  for (int i = 0; i < 4; ++i)
    out.push_back(static_cast<std::uint8_t>(static_cast<std::uint32_t>(value) >> (8 * i)));
}
inline void AppendUint64(std::vector<std::uint8_t>& out, std::uint64_t value) {
  for (int i = 0; i < 8; ++i) out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

// Appends the bytes of `text` (any char string).
inline void AppendBytes(std::vector<std::uint8_t>& out, std::string_view text) {
  out.insert(out.end(), text.begin(), text.end());
}

}  // namespace pelmora::admin::internal

#endif  // PELMORA_ADMIN_INTERNAL_BYTE_ORDER_H_

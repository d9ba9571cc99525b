// Little-endian integers in byte buffers, the one reader and writer of every fixed layout the
// system exchanges or stores (framed messages, zip fields, key blobs, version resources, .job
// files). Every access is checked against the buffer: a read past the end gives 0, a store past
// the end writes nothing, and LeReader remembers that it ran out.
//
//   uint32_t size = pelmora::platform::LoadLe<uint32_t>(packet, 7);
//   pelmora::platform::AppendLe<uint16_t>(out, 48);
//   LeReader in(bytes);
//   uint16_t count = in.U16();
//   if (!in.ok()) return std::nullopt;   // the buffer ended first
#ifndef PELMORA_PLATFORM_LITTLE_ENDIAN_H_
#define PELMORA_PLATFORM_LITTLE_ENDIAN_H_

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <type_traits>

namespace pelmora::platform {

// The unsigned value of the `width` (at most 8) bytes at `offset`, lowest first; 0 when they do
// not all lie inside `bytes`.
constexpr std::uint64_t LoadLeBytes(std::span<const std::uint8_t> bytes, std::size_t offset,
                                    std::size_t width) {
  if (width > 8 || offset > bytes.size() || bytes.size() - offset < width) return 0;
  std::uint64_t value = 0;
  for (std::size_t i = width; i > 0; --i) value = (value << 8) | bytes[offset + i - 1];
  return value;
}

// The integer of type T (signed types as two's complement) at `offset`; 0 when it does not fit.
template <std::integral T>
constexpr T LoadLe(std::span<const std::uint8_t> bytes, std::size_t offset) {
  return static_cast<T>(LoadLeBytes(bytes, offset, sizeof(T)));
}

// Stores the low `width` bytes of `value` at `offset`, lowest first; nothing when they do not all
// fit inside `bytes`.
constexpr void StoreLeBytes(std::span<std::uint8_t> bytes, std::size_t offset, std::uint64_t value,
                            std::size_t width) {
  if (width > 8 || offset > bytes.size() || bytes.size() - offset < width) return;
  for (std::size_t i = 0; i < width; ++i) {
    bytes[offset + i] = static_cast<std::uint8_t>(value >> (8 * i));
  }
}

template <std::integral T>
constexpr void StoreLe(std::span<std::uint8_t> bytes, std::size_t offset, T value) {
  StoreLeBytes(bytes, offset, static_cast<std::uint64_t>(value), sizeof(T));
}

// Appends the low `width` bytes of `value`, lowest first, to a byte container (std::vector of
// uint8_t, std::string, ...).
template <class Container>
void AppendLeBytes(Container& out, std::uint64_t value, std::size_t width) {
  using Byte = typename Container::value_type;
  for (std::size_t i = 0; i < width && i < 8; ++i) {
    out.push_back(static_cast<Byte>(static_cast<std::uint8_t>(value >> (8 * i))));
  }
}

template <std::integral T, class Container>
void AppendLe(Container& out, T value) {
  AppendLeBytes(out, static_cast<std::uint64_t>(static_cast<std::make_unsigned_t<T>>(value)),
                sizeof(T));
}

// A cursor over a buffer that never moves past its end: a read that does not fit gives zeros
// (an empty span for Take), leaves the position alone and makes ok() false for good.
class LeReader {
 public:
  explicit LeReader(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

  bool ok() const { return ok_; }
  std::size_t position() const { return position_; }
  std::size_t remaining() const { return bytes_.size() - position_; }

  std::span<const std::uint8_t> Take(std::size_t count) {
    if (!ok_ || count > remaining()) {
      ok_ = false;
      return {};
    }
    std::span<const std::uint8_t> taken = bytes_.subspan(position_, count);
    position_ += count;
    return taken;
  }
  std::uint8_t U8() { return static_cast<std::uint8_t>(Number(1)); }
  std::uint16_t U16() { return static_cast<std::uint16_t>(Number(2)); }
  std::uint32_t U32() { return static_cast<std::uint32_t>(Number(4)); }
  std::int32_t I32() { return static_cast<std::int32_t>(U32()); }
  std::uint64_t U64() { return Number(8); }

 private:
  std::uint64_t Number(std::size_t width) { return LoadLeBytes(Take(width), 0, width); }

  std::span<const std::uint8_t> bytes_;
  std::size_t position_ = 0;
  bool ok_ = true;
};

}  // namespace pelmora::platform

#endif  // PELMORA_PLATFORM_LITTLE_ENDIAN_H_

// The traditional PKWARE stream cipher, decryption side: the three keys, the 12-byte header
// check, and in-place decryption of the data that follows it.
#ifndef PELMORA_ARCHIVE_INTERNAL_PKWARE_H_
#define PELMORA_ARCHIVE_INTERNAL_PKWARE_H_

#include <cstdint>
#include <span>
#include <string_view>

namespace pelmora::archive::internal {

inline constexpr size_t kPkwareHeaderSize = 12;

// Decryption state of one entry.
class PkwareDecryptor {
 public:
  // Keys initialised from `password`.
  explicit PkwareDecryptor(std::string_view password);

  // Decrypts the 12-byte header and compares its last byte with `check_byte` (the high byte of
  // the MS-DOS time when the entry has a data descriptor, else of the CRC). With `either_byte`
  // the other one is accepted too (for archives whose flags could not be read).
  bool CheckHeader(std::span<const uint8_t, kPkwareHeaderSize> header, uint8_t check_byte,
                   uint8_t other_byte, bool either_byte);

  // Decrypts `data` in place.
  void Decrypt(std::span<uint8_t> data);

 private:
  void Update(uint8_t plain);
  uint8_t StreamByte() const;

  uint32_t keys_[3] = {0x12345678, 0x23456789, 0x34567890};
};

}  // namespace pelmora::archive::internal

#endif  // PELMORA_ARCHIVE_INTERNAL_PKWARE_H_

// Traditional PKWARE decryption over zlib's CRC-32 table.
#include "pelmora/archive/internal/pkware.h"

#include <zlib.h>

namespace pelmora::archive::internal {
namespace {

uint32_t Crc32Byte(uint32_t crc, uint8_t byte) {
  static const z_crc_t* table = get_crc_table();
  return table[(crc ^ byte) & 0xff] ^ (crc >> 8);
}

}  // namespace

PkwareDecryptor::PkwareDecryptor(std::string_view password) {
  for (char c : password) Update(static_cast<uint8_t>(c));
}

void PkwareDecryptor::Update(uint8_t plain) {
  keys_[0] = Crc32Byte(keys_[0], plain);
  keys_[1] = (keys_[1] + (keys_[0] & 0xff)) * 134775813u + 1;
  keys_[2] = Crc32Byte(keys_[2], static_cast<uint8_t>(keys_[1] >> 24));
}

uint8_t PkwareDecryptor::StreamByte() const {
  uint16_t temp = static_cast<uint16_t>(keys_[2] | 2);
  return static_cast<uint8_t>((temp * (temp ^ 1)) >> 8);
}

void PkwareDecryptor::Decrypt(std::span<uint8_t> data) {
  for (uint8_t& byte : data) {
    byte = static_cast<uint8_t>(byte ^ StreamByte());
    Update(byte);
  }
}

bool PkwareDecryptor::CheckHeader(std::span<const uint8_t, kPkwareHeaderSize> header,
                                  uint8_t check_byte, uint8_t other_byte, bool either_byte) {
  uint8_t plain[kPkwareHeaderSize];
  for (size_t i = 0; i < kPkwareHeaderSize; ++i) plain[i] = header[i];
  Decrypt(plain);
  uint8_t last = plain[kPkwareHeaderSize - 1];
  return last == check_byte || (either_byte && last == other_byte);
}

}  // namespace pelmora::archive::internal

#include "pelmora/crypto/hex.h"

namespace pelmora {
namespace {

constexpr char kDigits[] = "0123456789ABCDEF";

// The value of a hexadecimal digit, or -1.
int DigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

}  // namespace

std::string BytesToHex(std::span<const uint8_t> bytes) {
  std::string hex;
  hex.reserve(bytes.size() * 2);
  for (uint8_t byte : bytes) {
    hex.push_back(kDigits[byte >> 4]);
    hex.push_back(kDigits[byte & 0x0F]);
  }
  return hex;
}

std::vector<uint8_t> HexToBytes(std::string_view hex) {
  if (hex.size() < 2 || hex.size() % 2 != 0) return {};
  std::vector<uint8_t> bytes(hex.size() / 2);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    int high = DigitValue(hex[2 * i]);
    int low = DigitValue(hex[2 * i + 1]);
    if (high < 0 || low < 0) return {};
    bytes[i] = static_cast<uint8_t>(high << 4 | low);
  }
  return bytes;
}

}  // namespace pelmora

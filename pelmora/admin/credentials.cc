#include "pelmora/admin/credentials.h"

namespace pelmora::admin {
namespace {

constexpr unsigned char kFirst = 0x20;
constexpr unsigned char kLast = 0x7E;

// The one credential table shared by client and service. Changing it breaks every deployed peer.
constexpr std::array<std::uint8_t, kCredentialTableSize> kEncode = {
    0x3F, 0x36, 0x5C, 0x6D, 0x66, 0x49, 0x46, 0x21, 0x62, 0x70, 0x32, 0x3B, 0x48, 0x71, 0x60, 0x50,
    0x76, 0x7C, 0x58, 0x6E, 0x4F, 0x2D, 0x56, 0x65, 0x74, 0x22, 0x43, 0x37, 0x4A, 0x7E, 0x38, 0x47,
    0x29, 0x73, 0x6C, 0x7B, 0x51, 0x34, 0x5A, 0x30, 0x28, 0x68, 0x5F, 0x57, 0x3A, 0x24, 0x25, 0x72,
    0x63, 0x4C, 0x69, 0x44, 0x2F, 0x4D, 0x5E, 0x3C, 0x3E, 0x35, 0x78, 0x61, 0x5D, 0x26, 0x54, 0x59,
    0x41, 0x7A, 0x2C, 0x64, 0x3D, 0x4E, 0x20, 0x23, 0x55, 0x52, 0x42, 0x2B, 0x31, 0x27, 0x53, 0x7D,
    0x4B, 0x40, 0x75, 0x45, 0x33, 0x5B, 0x2A, 0x67, 0x77, 0x39, 0x79, 0x2E, 0x6A, 0x6B, 0x6F,
};

constexpr std::array<std::uint8_t, kCredentialTableSize> Invert(
    const std::array<std::uint8_t, kCredentialTableSize>& table) {
  std::array<std::uint8_t, kCredentialTableSize> inverse{};
  for (std::size_t i = 0; i < table.size(); ++i) {
    inverse[table[i] - kFirst] = static_cast<std::uint8_t>(kFirst + i);
  }
  return inverse;
}

constexpr std::array<std::uint8_t, kCredentialTableSize> kDecode = Invert(kEncode);

std::string Map(std::string_view text,
                const std::array<std::uint8_t, kCredentialTableSize>& table) {
  std::string out(text);
  for (char& c : out) {
    auto byte = static_cast<unsigned char>(c);
    if (byte >= kFirst && byte <= kLast) c = static_cast<char>(table[byte - kFirst]);
  }
  return out;
}

}  // namespace

const std::array<std::uint8_t, kCredentialTableSize>& CredentialTable() { return kEncode; }

std::string EncodeCredential(std::string_view text) { return Map(text, kEncode); }

std::string DecodeCredential(std::string_view text) { return Map(text, kDecode); }

}  // namespace pelmora::admin

#include "pelmora/crypto/internal/key_blob.h"

#include <openssl/crypto.h>

#include "pelmora/crypto/internal/rsa_numbers.h"
#include "pelmora/platform/little_endian.h"

namespace pelmora::crypto_internal {
namespace {

uint32_t ReadU32(const uint8_t* at) {
  return pelmora::platform::LoadLe<uint32_t>(std::span(at, 4), 0);
}

void WriteU32(uint32_t value, uint8_t* at) { pelmora::platform::StoreLe(std::span(at, 4), 0, value); }

// One big number of a blob: its field in RsaNumbers and its width in units of bitlen/16 bytes.
struct BlobNumber {
  BignumPtr RsaNumbers::*field;
  std::size_t halves;  // width = halves * bitlen / 16
};

// The big numbers after the fixed part, in blob order; the first is the only public one.
constexpr BlobNumber kBlobNumbers[] = {
    {&RsaNumbers::n, 2},    {&RsaNumbers::p, 1},    {&RsaNumbers::q, 1}, {&RsaNumbers::dmp1, 1},
    {&RsaNumbers::dmq1, 1}, {&RsaNumbers::iqmp, 1}, {&RsaNumbers::d, 2},
};

void WriteFixedPart(uint8_t type, uint32_t magic, uint32_t bits, uint32_t exponent, uint8_t* at) {
  at[0] = type;
  at[1] = kBlobVersion;
  at[2] = at[3] = 0;
  WriteU32(kSignatureKeyAlg, at + 4);
  WriteU32(magic, at + 8);
  WriteU32(bits, at + 12);
  WriteU32(exponent, at + 16);
}

// Writes the key's numbers into `blob`, which is already sized for `private_blob`.
CryptoStatus WriteBlob(const EVP_PKEY* key, bool private_blob, std::span<uint8_t> blob) {
  RsaNumbers numbers;
  if (CryptoStatus status = ReadRsaNumbers(key, private_blob, numbers); status != kOk) {
    return status;
  }
  uint32_t bits = static_cast<uint32_t>(EVP_PKEY_get_bits(key));
  if (BN_num_bits(numbers.e.get()) > 32) return kNteBadKey;
  WriteFixedPart(private_blob ? kPrivateKeyBlob : kPublicKeyBlob,
                 private_blob ? kPrivateMagic : kPublicMagic, bits,
                 static_cast<uint32_t>(BN_get_word(numbers.e.get())), blob.data());
  std::size_t offset = kBlobFixedSize;
  for (const BlobNumber& number : kBlobNumbers) {
    if (offset == blob.size()) break;
    int width = static_cast<int>(number.halves * bits / 16);
    if (BN_bn2lebinpad((numbers.*number.field).get(), blob.data() + offset, width) != width) {
      return kNteFail;
    }
    offset += static_cast<std::size_t>(width);
  }
  return kOk;
}

// Checks the clear header (bytes 0..7).
CryptoStatus CheckHeader(std::span<const uint8_t> blob) {
  if (blob.size() < kBlobHeaderSize) return kNteBadLen;
  if (blob[0] != kPublicKeyBlob && blob[0] != kPrivateKeyBlob) return kNteBadType;
  if (blob[1] != kBlobVersion) return kNteBadVer;
  if (blob[2] != 0 || blob[3] != 0) return kNteBadData;
  uint32_t alg = ReadU32(blob.data() + 4);
  if (alg != kSignatureKeyAlg && alg != kExchangeKeyAlg) return kNteBadKey;
  return kOk;
}

// Checks the fixed part after the header of a clear blob and its total length.
CryptoStatus CheckBody(std::span<const uint8_t> blob, bool is_private) {
  if (blob.size() < kBlobFixedSize) return kNteBadLen;
  // The magic is the first thing a wrong password spoils; compare it without early exits.
  uint8_t magic[4];
  WriteU32(is_private ? kPrivateMagic : kPublicMagic, magic);
  if (CRYPTO_memcmp(magic, blob.data() + 8, sizeof magic) != 0) return kNteBadData;
  uint32_t bits = ReadU32(blob.data() + 12);
  if (bits < kMinBlobBits || bits > kMaxBlobBits || bits % (is_private ? 16 : 8) != 0) {
    return kNteBadKey;
  }
  std::size_t expected = is_private ? PrivateBlobSize(bits) : PublicBlobSize(bits);
  return blob.size() == expected ? kOk : kNteBadLen;
}

// Reads the numbers of a checked clear blob. Private numbers go to wiped, secure big numbers.
CryptoStatus ReadBlobNumbers(std::span<const uint8_t> blob, bool is_private, RsaNumbers& out) {
  uint32_t bits = ReadU32(blob.data() + 12);
  out.e.reset(BN_new());
  if (!out.e || BN_set_word(out.e.get(), ReadU32(blob.data() + 16)) != 1) return kNteNoMemory;
  std::size_t offset = kBlobFixedSize;
  for (const BlobNumber& number : kBlobNumbers) {
    if (offset == blob.size()) break;
    bool secret = number.field != &RsaNumbers::n;
    BignumPtr value(secret ? BN_secure_new() : BN_new());
    std::size_t width = number.halves * bits / 16;
    if (!value || !BN_lebin2bn(blob.data() + offset, static_cast<int>(width), value.get())) {
      return kNteNoMemory;
    }
    if (secret) BN_set_flags(value.get(), BN_FLG_CONSTTIME);
    out.*number.field = std::move(value);
    offset += width;
  }
  // A modulus must fill its field: a top byte of zero means the blob's bitlen is wrong.
  if (BN_num_bits(out.n.get()) <= static_cast<int>(bits) - 8) return kNteBadData;
  return CheckRsaNumbers(out, is_private);
}

}  // namespace

CryptoStatus ExportPublicKeyBlob(const EVP_PKEY* key, std::vector<uint8_t>& blob) {
  int bits = EVP_PKEY_get_bits(key);
  if (bits <= 0 || bits % 16 != 0) return kNteBadKey;
  std::vector<uint8_t> made(PublicBlobSize(static_cast<uint32_t>(bits)));
  if (CryptoStatus status = WriteBlob(key, false, made); status != kOk) return status;
  blob = std::move(made);
  return kOk;
}

CryptoStatus ExportPrivateKeyBlob(const EVP_PKEY* key, SecretBytes& blob) {
  int bits = EVP_PKEY_get_bits(key);
  if (bits <= 0 || bits % 16 != 0) return kNteBadKey;
  SecretBytes made(PrivateBlobSize(static_cast<uint32_t>(bits)));
  if (CryptoStatus status = WriteBlob(key, true, made); status != kOk) return status;
  blob = std::move(made);
  return kOk;
}

CryptoStatus CryptPrivateBlob(const CryptoProvider& provider, const PasswordKey& key,
                              std::span<uint8_t> blob) {
  if (blob.size() <= kBlobHeaderSize) return kOk;
  std::span<uint8_t> body = blob.subspan(kBlobHeaderSize);
  return provider.Rc4(key, body, body.data());
}

CryptoStatus ImportKeyBlob(const CryptoProvider& provider, std::span<const uint8_t> blob,
                           const PasswordKey* decrypt_key, ImportedKey& out) {
  if (CryptoStatus status = CheckHeader(blob); status != kOk) return status;
  bool is_private = blob[0] == kPrivateKeyBlob;
  SecretBytes clear(blob.begin(), blob.end());
  if (is_private && decrypt_key != nullptr) {
    if (CryptoStatus status = CryptPrivateBlob(provider, *decrypt_key, clear); status != kOk) {
      return status;
    }
  }
  if (CryptoStatus status = CheckBody(clear, is_private); status != kOk) return status;
  RsaNumbers numbers;
  if (CryptoStatus status = ReadBlobNumbers(clear, is_private, numbers); status != kOk) {
    return status;
  }
  ImportedKey made;
  made.has_private = is_private;
  CryptoStatus status = BuildRsaKey(provider.LibCtx(), numbers, is_private, made.key);
  if (status == kOk) out = std::move(made);
  return status;
}

}  // namespace pelmora::crypto_internal

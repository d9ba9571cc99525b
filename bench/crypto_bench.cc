// The Crypto object next to the same operations called directly through OpenSSL, in one run:
// MD5 and RC4 over 1 MiB, signing with a 1024-bit key, and the per-call password key
// derivation that every EncryptByte, DecryptByte and SignHash call pays.
//
//   pelmora_bench --benchmark_filter='Crypto|Openssl'
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/provider.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "benchmark/benchmark.h"
#include "pelmora/crypto/crypto.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr size_t kMiB = 1 << 20;
const Bytes kPassword = {'b', 'e', 'n', 'c', 'h'};
const Bytes kMessage = {'s', 'i', 'g', 'n', ' ', 'm', 'e'};

void Check(bool ok) {
  if (!ok) std::abort();
}

// The direct peer's algorithms: MD5 and RSA from the default provider, RC4 from the legacy one.
struct DirectOpenssl {
  OSSL_LIB_CTX* libctx = OSSL_LIB_CTX_new();
  OSSL_PROVIDER* default_provider = OSSL_PROVIDER_load(libctx, "default");
  OSSL_PROVIDER* legacy_provider = OSSL_PROVIDER_load(libctx, "legacy");
  EVP_MD* md5 = EVP_MD_fetch(libctx, "MD5", nullptr);
  EVP_CIPHER* rc4 = EVP_CIPHER_fetch(libctx, "RC4", nullptr);

  static DirectOpenssl& Get() {
    static DirectOpenssl* direct = new DirectOpenssl;
    Check(direct->md5 != nullptr && direct->rc4 != nullptr);
    return *direct;
  }

  void Md5(const Bytes& data, uint8_t* digest) const {
    Check(EVP_Digest(data.data(), data.size(), digest, nullptr, md5, nullptr) == 1);
  }

  // MD5 of the password as the RC4 key, then one RC4 pass: what EncryptByte does.
  void Rc4WithPassword(const Bytes& in, uint8_t* out) const {
    uint8_t key[16];
    Md5(kPassword, key);
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    int written = 0;
    Check(EVP_EncryptInit_ex2(ctx, rc4, key, nullptr, nullptr) == 1 &&
          EVP_EncryptUpdate(ctx, out, &written, in.data(), static_cast<int>(in.size())) == 1);
    EVP_CIPHER_CTX_free(ctx);
  }

  // PKCS #1 v1.5 signature of the message's MD5, byte-reversed as the platform returns it.
  Bytes Sign(EVP_PKEY* key, const Bytes& message) const {
    uint8_t digest[16];
    Md5(message, digest);
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new_from_pkey(libctx, key, nullptr);
    Bytes signature(static_cast<size_t>(EVP_PKEY_get_size(key)));
    size_t size = signature.size();
    Check(EVP_PKEY_sign_init(ctx) == 1 &&
          EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PADDING) == 1 &&
          EVP_PKEY_CTX_set_signature_md(ctx, md5) == 1 &&
          EVP_PKEY_sign(ctx, signature.data(), &size, digest, sizeof digest) == 1);
    EVP_PKEY_CTX_free(ctx);
    std::reverse(signature.begin(), signature.end());
    return signature;
  }
};

struct SigningKey {
  Bytes public_blob, private_blob;
};

const SigningKey& Key1024() {
  static const SigningKey* key = [] {
    auto* made = new SigningKey;
    pelmora::Crypto crypto;
    Check(crypto.GenKeyPairs(made->public_blob, made->private_blob, kPassword));
    return made;
  }();
  return *key;
}

// Creating an object builds its own library context and loads both providers into it.
void BM_CryptoCreate(benchmark::State& state) {
  for (auto _ : state) {
    pelmora::Crypto crypto;
    benchmark::DoNotOptimize(crypto.LastError());
  }
}
BENCHMARK(BM_CryptoCreate);

void BM_CryptoHashByte1MiB(benchmark::State& state) {
  pelmora::Crypto crypto;
  Bytes data(kMiB, 0xA5), digest;
  for (auto _ : state) Check(crypto.HashByte(data, digest));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kMiB));
}
BENCHMARK(BM_CryptoHashByte1MiB);

void BM_OpensslMd51MiB(benchmark::State& state) {
  const DirectOpenssl& direct = DirectOpenssl::Get();
  Bytes data(kMiB, 0xA5), digest(16);
  for (auto _ : state) direct.Md5(data, digest.data());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kMiB));
}
BENCHMARK(BM_OpensslMd51MiB);

void BM_CryptoEncryptByte(benchmark::State& state) {
  pelmora::Crypto crypto;
  Bytes data(static_cast<size_t>(state.range(0)), 0xA5), cipher;
  for (auto _ : state) Check(crypto.EncryptByte(kPassword, data, cipher));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * data.size()));
}
// 1 byte measures the per-call key derivation; 1 MiB the cipher.
BENCHMARK(BM_CryptoEncryptByte)->Arg(1)->Arg(kMiB);

void BM_OpensslRc4WithPassword(benchmark::State& state) {
  const DirectOpenssl& direct = DirectOpenssl::Get();
  Bytes data(static_cast<size_t>(state.range(0)), 0xA5);
  for (auto _ : state) {
    Bytes cipher(data.size());
    direct.Rc4WithPassword(data, cipher.data());
    benchmark::DoNotOptimize(cipher.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * data.size()));
}
BENCHMARK(BM_OpensslRc4WithPassword)->Arg(1)->Arg(kMiB);

void BM_CryptoSignHash1024(benchmark::State& state) {
  pelmora::Crypto crypto;
  const SigningKey& key = Key1024();
  Bytes signature;
  for (auto _ : state) Check(crypto.SignHash(key.private_blob, kMessage, signature, kPassword));
}
BENCHMARK(BM_CryptoSignHash1024);

// The same work done directly: RC4-open the private blob, read it with OpenSSL's own blob
// reader, sign.
void BM_OpensslSignFromBlob1024(benchmark::State& state) {
  const DirectOpenssl& direct = DirectOpenssl::Get();
  const SigningKey& key = Key1024();
  for (auto _ : state) {
    Bytes clear = key.private_blob;
    direct.Rc4WithPassword(Bytes(clear.begin() + 8, clear.end()), clear.data() + 8);
    const unsigned char* at = clear.data();
    EVP_PKEY* pkey = b2i_PrivateKey(&at, static_cast<long>(clear.size()));
    Check(pkey != nullptr);
    benchmark::DoNotOptimize(direct.Sign(pkey, kMessage));
    EVP_PKEY_free(pkey);
  }
}
BENCHMARK(BM_OpensslSignFromBlob1024);

// Signing alone with a key already loaded: the floor under both of the above.
void BM_OpensslSignLoadedKey1024(benchmark::State& state) {
  const DirectOpenssl& direct = DirectOpenssl::Get();
  Bytes clear = Key1024().private_blob;
  direct.Rc4WithPassword(Bytes(clear.begin() + 8, clear.end()), clear.data() + 8);
  const unsigned char* at = clear.data();
  EVP_PKEY* pkey = b2i_PrivateKey(&at, static_cast<long>(clear.size()));
  Check(pkey != nullptr);
  for (auto _ : state) benchmark::DoNotOptimize(direct.Sign(pkey, kMessage));
  EVP_PKEY_free(pkey);
}
BENCHMARK(BM_OpensslSignLoadedKey1024);

}  // namespace

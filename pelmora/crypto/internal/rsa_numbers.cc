#include "pelmora/crypto/internal/rsa_numbers.h"

#include <openssl/core_names.h>

#include <utility>

namespace pelmora::crypto_internal {
namespace {

struct NumberName {
  BignumPtr RsaNumbers::*field;
  const char* name;
  bool is_private;
};

constexpr NumberName kNumberNames[] = {
    {&RsaNumbers::n, OSSL_PKEY_PARAM_RSA_N, false},
    {&RsaNumbers::e, OSSL_PKEY_PARAM_RSA_E, false},
    {&RsaNumbers::d, OSSL_PKEY_PARAM_RSA_D, true},
    {&RsaNumbers::p, OSSL_PKEY_PARAM_RSA_FACTOR1, true},
    {&RsaNumbers::q, OSSL_PKEY_PARAM_RSA_FACTOR2, true},
    {&RsaNumbers::dmp1, OSSL_PKEY_PARAM_RSA_EXPONENT1, true},
    {&RsaNumbers::dmq1, OSSL_PKEY_PARAM_RSA_EXPONENT2, true},
    {&RsaNumbers::iqmp, OSSL_PKEY_PARAM_RSA_COEFFICIENT1, true},
};

// True when exponent * public exponent = 1 modulo (prime - 1), and exponent = d mod (prime - 1).
bool CrtExponentFits(const RsaNumbers& k, const BIGNUM* prime, const BIGNUM* exponent,
                     BN_CTX* ctx) {
  BignumPtr prime_less_one(BN_dup(prime));
  BignumPtr product(BN_new());
  BignumPtr reduced(BN_new());
  if (!prime_less_one || !product || !reduced) return false;
  BN_set_flags(reduced.get(), BN_FLG_CONSTTIME);
  return BN_sub_word(prime_less_one.get(), 1) == 1 &&
         BN_mod_mul(product.get(), exponent, k.e.get(), prime_less_one.get(), ctx) == 1 &&
         BN_is_one(product.get()) && BN_mod(reduced.get(), k.d.get(), prime_less_one.get(), ctx) &&
         BN_cmp(reduced.get(), exponent) == 0;
}

bool KeyPairFits(const RsaNumbers& k) {
  BnCtxPtr ctx(BN_CTX_secure_new());
  BignumPtr product(BN_new());
  if (!ctx || !product) return false;
  if (BN_is_zero(k.p.get()) || BN_is_zero(k.q.get()) || BN_is_one(k.p.get()) ||
      BN_is_one(k.q.get()) || BN_is_zero(k.d.get())) {
    return false;
  }
  if (BN_mul(product.get(), k.p.get(), k.q.get(), ctx.get()) != 1 ||
      BN_cmp(product.get(), k.n.get()) != 0) {
    return false;
  }
  if (BN_mod_mul(product.get(), k.iqmp.get(), k.q.get(), k.p.get(), ctx.get()) != 1 ||
      !BN_is_one(product.get())) {
    return false;
  }
  return CrtExponentFits(k, k.p.get(), k.dmp1.get(), ctx.get()) &&
         CrtExponentFits(k, k.q.get(), k.dmq1.get(), ctx.get());
}

}  // namespace

CryptoStatus ReadRsaNumbers(const EVP_PKEY* key, bool with_private, RsaNumbers& out) {
  for (const NumberName& number : kNumberNames) {
    if (number.is_private && !with_private) continue;
    BIGNUM* value = nullptr;
    if (EVP_PKEY_get_bn_param(key, number.name, &value) != 1) return kNteFail;
    (out.*number.field).reset(value);
  }
  return kOk;
}

CryptoStatus CheckRsaNumbers(const RsaNumbers& numbers, bool with_private) {
  if (!BN_is_odd(numbers.n.get()) || !BN_is_odd(numbers.e.get()) || BN_is_one(numbers.e.get())) {
    return kNteBadData;
  }
  if (with_private && !KeyPairFits(numbers)) return kNteBadData;
  return kOk;
}

CryptoStatus BuildRsaKey(OSSL_LIB_CTX* libctx, const RsaNumbers& numbers, bool with_private,
                         EvpPkeyPtr& out) {
  ParamBldPtr builder(OSSL_PARAM_BLD_new());
  if (!builder) return kNteNoMemory;
  for (const NumberName& number : kNumberNames) {
    if (number.is_private && !with_private) continue;
    if (OSSL_PARAM_BLD_push_BN(builder.get(), number.name, (numbers.*number.field).get()) != 1) {
      return kNteNoMemory;
    }
  }
  ParamsPtr params(OSSL_PARAM_BLD_to_param(builder.get()));
  EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(libctx, "RSA", nullptr));
  if (!params || !ctx) return kNteNoMemory;
  EVP_PKEY* key = nullptr;
  int selection = with_private ? EVP_PKEY_KEYPAIR : EVP_PKEY_PUBLIC_KEY;
  if (EVP_PKEY_fromdata_init(ctx.get()) != 1 ||
      EVP_PKEY_fromdata(ctx.get(), &key, selection, params.get()) != 1) {
    return kNteBadData;
  }
  out.reset(key);
  return kOk;
}

}  // namespace pelmora::crypto_internal

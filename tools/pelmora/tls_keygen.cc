// `pelmora admin keygen [--force]`: the user's client key (ECDSA P-256) and self-signed
// certificate for certificate login, and the line that lets an account accept it.
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "pelmora/net/tls_client.h"
#include "tools/pelmora/crypto_io.h"
#include "tools/pelmora/tls_options.h"

namespace pelmora_tool {
namespace {

// Ten years: the certificate names a key, the account's list decides whether it is accepted.
constexpr long kValiditySeconds = 10L * 366 * 24 * 3600;

struct PkeyFree {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct X509Free {
  void operator()(X509* certificate) const { X509_free(certificate); }
};
struct BioFree {
  void operator()(BIO* bio) const { BIO_free(bio); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;
using Certificate = std::unique_ptr<X509, X509Free>;
using Bio = std::unique_ptr<BIO, BioFree>;

void Require(bool done, const char* what) {
  if (!done) throw CommandError(std::string("cannot make the client key: ") + what + " failed");
}

// "user@host" of the caller, for the certificate's name.
std::string Owner() {
  const char* user = std::getenv("USER");
  char host[256] = {};
  if (gethostname(host, sizeof(host) - 1) != 0) host[0] = '\0';
  return std::string(user != nullptr ? user : "user") + "@" + host;
}

void AddExtension(X509* certificate, int nid, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
  Require(extension != nullptr, "an extension");
  const int added = X509_add_ext(certificate, extension, -1);
  X509_EXTENSION_free(extension);
  Require(added == 1, "an extension");
}

Certificate SelfSigned(EVP_PKEY* key) {
  Certificate certificate(X509_new());
  Require(certificate != nullptr, "X509_new");
  X509* c = certificate.get();
  Require(X509_set_version(c, 2) == 1, "the version");
  unsigned char serial[16];
  Require(RAND_bytes(serial, sizeof(serial)) == 1, "the serial number");
  serial[0] &= 0x7f;  // a positive number
  BIGNUM* number = BN_bin2bn(serial, sizeof(serial), nullptr);
  Require(number != nullptr && BN_to_ASN1_INTEGER(number, X509_get_serialNumber(c)) != nullptr,
          "the serial number");
  BN_free(number);
  Require(X509_gmtime_adj(X509_getm_notBefore(c), 0) != nullptr, "the dates");
  Require(X509_gmtime_adj(X509_getm_notAfter(c), kValiditySeconds) != nullptr, "the dates");
  X509_NAME* name = X509_get_subject_name(c);
  const std::string owner = "pelmora client " + Owner();
  Require(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                                     reinterpret_cast<const unsigned char*>(owner.c_str()), -1,
                                     -1, 0) == 1,
          "the name");
  Require(X509_set_issuer_name(c, name) == 1, "the name");
  Require(X509_set_pubkey(c, key) == 1, "the public key");
  AddExtension(c, NID_basic_constraints, "critical,CA:FALSE");
  AddExtension(c, NID_key_usage, "critical,digitalSignature");
  AddExtension(c, NID_ext_key_usage, "clientAuth");
  Require(X509_sign(c, key, EVP_sha256()) > 0, "the signature");
  return certificate;
}

Bytes BioBytes(BIO* bio) {
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio, &data);
  return Bytes(data, data + size);
}

int Keygen(bool force) {
  const std::string folder = ConfigFolder(std::getenv);
  const std::string key_path = folder + "/client.key";
  const std::string certificate_path = folder + "/client.crt";
  for (const std::string& path : {key_path, certificate_path}) {
    if (access(path.c_str(), F_OK) == 0 && !force) {
      throw CommandError(path + " exists: give --force to replace the key and certificate");
    }
  }
  MakePrivateFolder(folder);
  Pkey key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
  Require(key != nullptr, "EC P-256 key generation");
  Certificate certificate = SelfSigned(key.get());
  Bio key_pem(BIO_new(BIO_s_mem()));
  Bio certificate_pem(BIO_new(BIO_s_mem()));
  Require(key_pem && certificate_pem, "BIO_new");
  Require(PEM_write_bio_PrivateKey(key_pem.get(), key.get(), nullptr, nullptr, 0, nullptr,
                                   nullptr) == 1,
          "writing the key");
  Require(PEM_write_bio_X509(certificate_pem.get(), certificate.get()) == 1,
          "writing the certificate");
  unsigned char* der = nullptr;
  const int der_size = i2d_X509(certificate.get(), &der);
  Require(der_size > 0, "encoding the certificate");
  const std::string fingerprint =
      pelmora::CertificateFingerprint({der, static_cast<size_t>(der_size)});
  OPENSSL_free(der);
  if (force) {
    unlink(key_path.c_str());
    unlink(certificate_path.c_str());
  }
  WriteNewFile(key_path, BioBytes(key_pem.get()), 0600);
  WriteNewFile(certificate_path, BioBytes(certificate_pem.get()), 0600);
  std::fprintf(stderr,
               "Your client key is in %s and its certificate in %s.\n"
               "The certificate's fingerprint is %s.\n"
               "To log in with it, add this line to your account in the service's "
               "configuration:\n",
               key_path.c_str(), certificate_path.c_str(), fingerprint.c_str());
  std::printf("client_certificates = [\"%s\"]\n", fingerprint.c_str());
  return 0;
}

}  // namespace

void AddKeygenCommand(CLI::App& admin, CommandAction& action) {
  CLI::App* keygen = admin.add_subcommand(
      "keygen",
      "Make your client key and certificate (~/.config/pelmora/client.key and .crt, mode 600) "
      "and print the line that lets an account log in with them");
  auto force = std::make_shared<bool>(false);
  keygen->add_flag("--force", *force, "Replace an existing key and certificate");
  keygen->callback([&action, force] {
    action = [force] {
      try {
        return Keygen(*force);
      } catch (const CommandError& e) {
        std::fprintf(stderr, "pelmora: %s\n", e.what());
        return 2;
      }
    };
  });
}

}  // namespace pelmora_tool

#include "pelmorad/tls_identity.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "pelmora/common/error.h"
#include "pelmora/net/tls_client.h"
#include "pelmorad/audit.h"

namespace pelmorad {
namespace {

constexpr int kReadFailure = 2;
constexpr int kWriteFailure = 5;
// The certificate is valid from an hour before it was made (clocks drift) to the end of the
// time values a certificate can hold: like a host key, it never expires by itself.
constexpr long kBackdateSeconds = 3600;
constexpr char kNoExpiry[] = "99991231235959Z";
constexpr int kSerialBits = 127;

struct OpenSslFree {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(X509* certificate) const { X509_free(certificate); }
  void operator()(BIGNUM* number) const { BN_free(number); }
  void operator()(FILE* file) const { std::fclose(file); }
};
template <typename T>
using Owned = std::unique_ptr<T, OpenSslFree>;

[[noreturn]] void Fail(int number, std::string text) {
  throw pelmora::Error(number, std::move(text), "pelmorad");
}

Owned<X509> MakeSelfSigned(EVP_PKEY* key) {
  Owned<X509> certificate(X509_new());
  Owned<BIGNUM> serial(BN_new());
  char host[256] = {};
  if (::gethostname(host, sizeof(host) - 1) != 0 || host[0] == '\0') std::strcpy(host, "pelmorad");
  X509_NAME* name = X509_get_subject_name(certificate.get());
  bool made =
      certificate && serial && X509_set_version(certificate.get(), 2) == 1 &&
      BN_rand(serial.get(), kSerialBits, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) == 1 &&
      BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(certificate.get())) &&
      X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -kBackdateSeconds) &&
      ASN1_TIME_set_string(X509_getm_notAfter(certificate.get()), kNoExpiry) == 1 &&
      X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                                 reinterpret_cast<const unsigned char*>(host), -1, -1, 0) == 1 &&
      X509_set_issuer_name(certificate.get(), name) == 1 &&
      X509_set_pubkey(certificate.get(), key) == 1 &&
      X509_sign(certificate.get(), key, EVP_sha256()) > 0;
  if (!made) Fail(kWriteFailure, "cannot make the TLS certificate");
  return certificate;
}

// Writes `path` through a temporary made with `mode`; `write` fills the open file.
template <typename Write>
void WriteAtomically(const std::string& path, mode_t mode, Write write) {
  std::string temporary = path + ".new";
  ::unlink(temporary.c_str());
  int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode);
  if (fd < 0)
    Fail(kWriteFailure, fmt::format("cannot write {}: {}", temporary, std::strerror(errno)));
  ::fchmod(fd, mode);  // whatever the umask
  Owned<FILE> file(::fdopen(fd, "w"));
  if (!file) {
    ::close(fd);
    Fail(kWriteFailure, fmt::format("cannot write {}", temporary));
  }
  bool written = write(file.get()) && std::fflush(file.get()) == 0 && ::fsync(fd) == 0;
  file.reset();
  if (!written || ::rename(temporary.c_str(), path.c_str()) != 0) {
    ::unlink(temporary.c_str());
    Fail(kWriteFailure, fmt::format("cannot write {}", path));
  }
}

void CreateOwnPair(const std::string& folder, const std::string& key_path,
                   const std::string& certificate_path) {
  if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
    Fail(kWriteFailure,
         fmt::format("cannot make the state folder {}: {}", folder, std::strerror(errno)));
  }
  Owned<EVP_PKEY> key(EVP_EC_gen("P-256"));
  if (!key) Fail(kWriteFailure, "cannot make the TLS key");
  Owned<X509> certificate = MakeSelfSigned(key.get());
  WriteAtomically(key_path, 0600, [&](FILE* file) {
    return PEM_write_PrivateKey(file, key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1;
  });
  WriteAtomically(certificate_path, 0644,
                  [&](FILE* file) { return PEM_write_X509(file, certificate.get()) == 1; });
  ServiceMessage(fmt::format("made the TLS key {} and its self-signed certificate {} ({})",
                             key_path, certificate_path,
                             CertificateFingerprintOf(certificate.get())));
}

// The own pair is trusted only where no other user could have put or changed it: the folder
// belongs to root or the service's user and nobody else may write in it, and the key is
// readable by its owner only (as sshd refuses an unprotected host key).
void CheckOwnPair(const std::string& folder, const std::string& key_path) {
  struct stat info {};
  if (::stat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
    Fail(kReadFailure, fmt::format("cannot read the state folder {}", folder));
  }
  if ((info.st_uid != 0 && info.st_uid != ::geteuid()) || (info.st_mode & (S_IWGRP | S_IWOTH))) {
    Fail(kWriteFailure,
         fmt::format("{}: refused, the state folder can be changed by other users", folder));
  }
  if (::stat(key_path.c_str(), &info) != 0) {
    Fail(kReadFailure, fmt::format("cannot read the TLS key {}", key_path));
  }
  if ((info.st_mode & 077) != 0) {
    Fail(kWriteFailure,
         fmt::format("{}: refused, other users may read the key (chmod 600)", key_path));
  }
}

}  // namespace

std::string CertificateFingerprintOf(X509* certificate) {
  unsigned char* der = nullptr;
  const int size = i2d_X509(certificate, &der);
  if (size <= 0) return "";
  std::string fingerprint = pelmora::CertificateFingerprint({der, static_cast<size_t>(size)});
  OPENSSL_free(der);
  return fingerprint;
}

std::string CertificateFileFingerprint(const std::string& path) {
  Owned<FILE> file(std::fopen(path.c_str(), "re"));
  if (!file) Fail(kReadFailure, fmt::format("cannot read the certificate {}", path));
  Owned<X509> certificate(PEM_read_X509(file.get(), nullptr, nullptr, nullptr));
  if (!certificate) Fail(kReadFailure, fmt::format("{} holds no PEM certificate", path));
  return CertificateFingerprintOf(certificate.get());
}

TlsIdentity LoadOrCreateTlsIdentity(const Config& config) {
  TlsIdentity identity;
  if (!config.tls.certificate.empty()) {
    identity.certificate_path = config.tls.certificate;
    identity.key_path = config.tls.key;
  } else {
    identity.certificate_path = config.state_directory + "/" + kOwnCertificateName;
    identity.key_path = config.state_directory + "/" + kOwnKeyName;
    if (::access(identity.key_path.c_str(), F_OK) != 0 ||
        ::access(identity.certificate_path.c_str(), F_OK) != 0) {
      CreateOwnPair(config.state_directory, identity.key_path, identity.certificate_path);
    }
    CheckOwnPair(config.state_directory, identity.key_path);
  }
  identity.fingerprint = CertificateFileFingerprint(identity.certificate_path);
  return identity;
}

}  // namespace pelmorad

// The certificate and key the TLS listeners present: the configured pair ([tls] certificate and
// key), or the service's own, made on first start in the state folder as an ECDSA P-256 key and
// a self-signed certificate and reused afterwards (as sshd makes its host keys).
//
//   TlsIdentity identity = LoadOrCreateTlsIdentity(config);
//   std::cout << identity.fingerprint << '\n';   // SHA256:...
#ifndef PELMORAD_TLS_IDENTITY_H_
#define PELMORAD_TLS_IDENTITY_H_

#include <openssl/x509.h>

#include <string>

#include "pelmorad/config.h"

namespace pelmorad {

// The names of the service's own key and certificate inside the state folder.
inline constexpr char kOwnKeyName[] = "tls.key";
inline constexpr char kOwnCertificateName[] = "tls.crt";

struct TlsIdentity {
  std::string certificate_path;  // PEM: the certificate first, then any chain
  std::string key_path;          // PEM private key
  std::string fingerprint;       // of the first certificate, as the client shows it
};

// The configured pair when [tls] names one; otherwise the state folder's own pair, made first
// when either file is missing: the folder with mode 700 when it does not exist, the key with
// mode 600, the certificate with 644, each written under a temporary name and renamed into
// place. Throws pelmora::Error 2 when a file cannot be read or is not PEM, 5 when the folder or
// a file cannot be made, when the state folder belongs to another user than root and the
// service's or others may write in it, or when others may read the own key. Blocks on the
// files.
TlsIdentity LoadOrCreateTlsIdentity(const Config& config);

// The fingerprint ("SHA256:" + base64 without padding) of the first certificate in the PEM file
// at `path`. Throws pelmora::Error 2 when it cannot be read or holds no certificate.
std::string CertificateFileFingerprint(const std::string& path);
// The fingerprint of `certificate` in the same form ("" when it cannot be encoded).
std::string CertificateFingerprintOf(X509* certificate);

}  // namespace pelmorad

#endif  // PELMORAD_TLS_IDENTITY_H_

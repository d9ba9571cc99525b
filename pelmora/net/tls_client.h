// The client's encrypted transport for the administration protocol: TLS 1.3 and the checks of
// the server's identity.
//
// A TlsClientSettings value, handed to RCFSO (or AdminClient) before Connect, selects the
// transport. With `enabled` the TCP connection is wrapped in TLS 1.3 (OpenSSL's default cipher
// suites, no compression, no renegotiation) and the server's certificate is checked before the
// login message leaves the client; every byte above the channel is the same as on the plain
// transport. At least one check must be given, otherwise the connection is refused:
//
//   - `fingerprint`: the certificate's SHA-256 fingerprint as "SHA256:" + base64 without
//     padding (the form CertificateFingerprint gives);
//   - `ca_file`: PEM certificates of the authorities; the chain, the dates and the host name
//     (or address) the caller connected to are verified;
//   - `known_hosts`: a file of "host:port SHA256:..." lines; a host not listed is refused, or,
//     with `trust_new`, accepted and appended to the file.
//
// Every check given must pass. `client_certificate` and `client_key` (PEM paths, both or
// neither) present a client certificate to the server.
#ifndef PELMORA_NET_TLS_CLIENT_H_
#define PELMORA_NET_TLS_CLIENT_H_

#include <cstdint>
#include <span>
#include <string>

#include "pelmora/platform/export.h"

namespace pelmora {

struct PELMORA_API TlsClientSettings {
  bool enabled = false;
  std::string fingerprint;
  std::string ca_file;
  std::string known_hosts;
  bool trust_new = false;
  std::string client_certificate;
  std::string client_key;
};

// Error numbers of the TLS transport (WinInet's certificate numbers, which callers already know
// from the internet classes).
enum TlsErrorConstants : int32_t {
  // The certificate has expired or is not valid yet (CA file check).
  tlsCertificateDateInvalid = 12037,
  // The certificate is not issued to the host connected to (CA file check).
  tlsCertificateNameInvalid = 12038,
  // The client certificate or key cannot be read or do not belong together.
  tlsClientCertificateInvalid = 12044,
  // The certificate is not trusted: unknown authority, a host not in the known hosts file, or no
  // check given at all.
  tlsCertificateNotTrusted = 12045,
  // The server presented another certificate than the pinned or recorded one.
  tlsCertificateChanged = 12169,
  // The TLS handshake failed (the peer does not speak TLS 1.3, closed, or did not answer in time).
  tlsChannelError = 12157,
};

// "SHA256:" followed by the base64 (without padding) of the SHA-256 of `der`, a certificate in
// DER form.
PELMORA_API std::string CertificateFingerprint(std::span<const uint8_t> der);

}  // namespace pelmora

#endif  // PELMORA_NET_TLS_CLIENT_H_

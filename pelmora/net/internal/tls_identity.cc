// The server's identity after a TLS handshake: the certificate's fingerprint, its check
// against a pinned fingerprint and against the known hosts file, where trust on first use
// records a new server.
#include <fcntl.h>
#include <openssl/evp.h>

#include <fstream>
#include <optional>
#include <sstream>
#include <string>

#include "pelmora/net/internal/known_hosts.h"
#include "pelmora/net/internal/tls_socket_api.h"
#include "pelmora/platform/file_io.h"

namespace pelmora {

std::string CertificateFingerprint(std::span<const uint8_t> der) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digest_size = 0;
  EVP_Digest(der.data(), der.size(), digest, &digest_size, EVP_sha256(), nullptr);
  std::string encoded(4 * ((digest_size + 2) / 3) + 1, '\0');
  const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(encoded.data()), digest,
                                     static_cast<int>(digest_size));
  encoded.resize(static_cast<size_t>(length));
  while (!encoded.empty() && encoded.back() == '=') encoded.pop_back();
  return "SHA256:" + encoded;
}

namespace net_internal {
namespace {

std::optional<std::string> ReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

// Appends `line` to `path`, creating it readable by its owner only.
bool AppendLine(const std::string& path, const std::string& line) {
  platform::UniqueFd fd(
      platform::Open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600));
  if (!fd) return false;
  bool written = platform::WriteFully(fd.get(), line) == 0;
  return fd.reset() == 0 && written;
}

}  // namespace

int32_t TlsSocketApi::CheckIdentity(const std::string& host_port, std::string& message) {
  if (presented_.empty()) {
    message = "The server " + host_port + " presented no certificate";
    return tlsCertificateNotTrusted;
  }
  if (!settings_.fingerprint.empty() && settings_.fingerprint != presented_) {
    message = "The server " + host_port + " presented the certificate " + presented_ +
              ", not the pinned " + settings_.fingerprint +
              ": the connection may be intercepted. If the server's certificate was replaced on "
              "purpose, check its fingerprint on the server and pin the new one.";
    return tlsCertificateChanged;
  }
  if (!settings_.known_hosts.empty()) return CheckKnownHosts(host_port, message);
  return 0;
}

int32_t TlsSocketApi::CheckKnownHosts(const std::string& host_port, std::string& message) {
  const std::string& file = settings_.known_hosts;
  const std::optional<KnownHost> known = FindKnownHost(ReadWholeFile(file).value_or(""), host_port);
  if (known) {
    if (known->fingerprint == presented_) return 0;
    const std::string line = std::to_string(known->line);
    message = "The server " + host_port + " presented the certificate " + presented_ +
              ", but line " + line + " of " + file + " expects " + known->fingerprint +
              ": the connection may be intercepted, or the server's key was changed. If it was "
              "changed on purpose, check the new fingerprint on the server, remove line " +
              line + " of " + file + " and connect again.";
    return tlsCertificateChanged;
  }
  if (!settings_.trust_new) {
    message = "The server " + host_port + " is not in " + file + " (it presented " + presented_ +
              "). Check this fingerprint on the server, then add the line \"" + host_port + " " +
              presented_ + "\" to the file, or connect allowing trust on first use.";
    return tlsCertificateNotTrusted;
  }
  if (!AppendLine(file, KnownHostLine(host_port, presented_))) {
    message = "The server " + host_port + " (" + presented_ + ") cannot be recorded in " + file;
    return tlsCertificateNotTrusted;
  }
  return 0;
}

}  // namespace net_internal
}  // namespace pelmora

#include "pelmora/testing/web_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "pelmora/net/tls_client.h"

extern char** environ;

namespace pelmora::testing {
namespace {

constexpr long kDay = 24 * 60 * 60;

[[noreturn]] void Fail(const std::string& what) {
  throw std::runtime_error("web server fixture: " + what);
}

using KeyPtr = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using CertPtr = std::unique_ptr<X509, decltype(&X509_free)>;

KeyPtr NewKey() {
  KeyPtr key(EVP_EC_gen("P-256"), &EVP_PKEY_free);
  if (!key) Fail("cannot make a key");
  return key;
}

void AddExtension(X509* cert, X509* issuer, int nid, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, cert, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
  if (extension == nullptr || X509_add_ext(cert, extension, -1) != 1) Fail("bad extension");
  X509_EXTENSION_free(extension);
}

// What one certificate says about itself.
struct CertProfile {
  const char* common_name;
  const char* alt_names;  // null for the authority
  long valid_from;        // seconds from now
  long valid_until;
};

// A certificate for `key` signed by `issuer` (itself when null).
CertPtr MakeCert(const CertProfile& profile, EVP_PKEY* key, X509* issuer, EVP_PKEY* issuer_key) {
  static long serial = 1000;
  CertPtr cert(X509_new(), &X509_free);
  X509_set_version(cert.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), ++serial);
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), profile.valid_from);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), profile.valid_until);
  X509_set_pubkey(cert.get(), key);
  X509_NAME* name = X509_get_subject_name(cert.get());
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(profile.common_name), -1, -1, 0);
  X509* signer = issuer != nullptr ? issuer : cert.get();
  X509_set_issuer_name(cert.get(), X509_get_subject_name(signer));
  bool authority = profile.alt_names == nullptr;
  AddExtension(cert.get(), signer, NID_basic_constraints,
               authority ? "critical,CA:TRUE" : "CA:FALSE");
  AddExtension(cert.get(), signer, NID_subject_key_identifier, "hash");
  if (authority) AddExtension(cert.get(), signer, NID_key_usage, "critical,keyCertSign,cRLSign");
  if (!authority) AddExtension(cert.get(), signer, NID_subject_alt_name, profile.alt_names);
  if (X509_sign(cert.get(), issuer_key != nullptr ? issuer_key : key, EVP_sha256()) == 0) {
    Fail("cannot sign a certificate");
  }
  return cert;
}

void WritePem(const std::string& path, X509* cert, EVP_PKEY* key) {
  BIO* bio = BIO_new_file(path.c_str(), "w");
  bool ok = bio != nullptr && PEM_write_bio_X509(bio, cert) == 1 &&
            (key == nullptr || PEM_write_bio_PrivateKey(bio, key, nullptr, nullptr, 0, nullptr,
                                                        nullptr) == 1);
  BIO_free(bio);
  if (!ok) Fail("cannot write " + path);
}

const char* CertFileName(int index) {
  static const char* const kNames[] = {"valid", "expired", "future", "wrong-host", "self-signed"};
  return kNames[index];
}

std::string ServerBlock(uint16_t port, const std::string& folder, const char* cert) {
  std::ostringstream out;
  out << "  server {\n    listen 127.0.0.1:" << port << (cert ? " ssl" : "") << ";\n";
  if (cert != nullptr) {
    out << "    ssl_certificate " << folder << "/" << cert << ".pem;\n"
        << "    ssl_certificate_key " << folder << "/" << cert << ".pem;\n";
  }
  out << "    root " << folder << "/www;\n"
      << "    location / { dav_methods PUT; create_full_put_path on; }\n"
      << "    location = /echo-headers { return 200 \"agent=$http_user_agent;accept="
         "$http_accept;connection=$http_connection;cookie=$http_cookie;\"; }\n"
      << "    location = /set-cookie { add_header Set-Cookie \"session=abc123; Path=/\"; "
         "return 200 \"set\"; }\n"
      << "    location = /redirect { return 302 /small.txt; }\n"
      << "    location = /redirect-loop { return 302 /redirect-loop; }\n"
      << "    location = /dup { add_header X-Dup first; add_header X-Dup second; "
         "return 200 \"dup\"; }\n"
      << "    location = /post { return 200 \"posted\"; }\n"
      << "    location = /echo-request { return 200 \"method=$request_method;"
         "x-test=$http_x_test;length=$content_length;\"; }\n"
      << "    location /chunked/ { alias " << folder << "/www/; sub_filter_types *; "
      << "sub_filter '\\x01never' ''; }\n  }\n";
  return out.str();
}

}  // namespace

int ListenOnFreeLoopbackPort(uint16_t& port) {
  // Ports up to 32767: the internet object's requests take the port as a 16-bit number, and the
  // system hands out ephemeral ports above that.
  static uint32_t next = 20000 + static_cast<uint32_t>(::getpid()) % 10000;
  for (int attempt = 0; attempt < 500; ++attempt) {
    uint16_t candidate = static_cast<uint16_t>(10000 + (next++ % 22000));
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);  // inheritable on purpose
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(candidate);
    if (fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
        ::listen(fd, 128) == 0) {
      port = candidate;
      return fd;
    }
    if (fd >= 0) ::close(fd);
  }
  Fail(std::string("no free port below 32768: ") + std::strerror(errno));
}

int ListenOnHighLoopbackPort(uint16_t& port) {
  for (int attempt = 0; attempt < 500; ++attempt) {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);  // inheritable on purpose
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    bool bound = fd >= 0 &&
                 ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
                 ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0;
    if (bound && ntohs(address.sin_port) > 32767 && ::listen(fd, 128) == 0) {
      port = ntohs(address.sin_port);
      return fd;
    }
    if (fd >= 0) ::close(fd);
  }
  Fail(std::string("no free port above 32767: ") + std::strerror(errno));
}

std::string MakeScratchFolder(std::string_view purpose) {
  std::string pattern =
      (std::filesystem::temp_directory_path() / ("pelmora-" + std::string(purpose) + "-XXXXXX"))
          .string();
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (::mkdtemp(buffer.data()) == nullptr) Fail("cannot make a scratch folder");
  return buffer.data();
}

pid_t SpawnWithLog(const char* const* argv, const std::string& extra_env,
                   const std::string& log_file) {
  std::vector<char*> env;
  for (char** e = environ; *e != nullptr; ++e) env.push_back(*e);
  std::string extra = extra_env;
  if (!extra.empty()) env.push_back(extra.data());
  env.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, log_file.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                   0644);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  pid_t pid = -1;
  int error = posix_spawn(&pid, argv[0], &actions, nullptr, const_cast<char* const*>(argv),
                          env.data());
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) Fail(std::string("cannot start ") + argv[0] + ": " + std::strerror(error));
  return pid;
}

void StopProcess(pid_t pid) {
  if (pid <= 0) return;
  ::kill(pid, SIGTERM);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
}

WebServer::WebServer(HttpPortRange range) : folder_(MakeScratchFolder("web")) {
  std::filesystem::create_directories(DocumentRoot());
  std::filesystem::create_directories(folder_ + "/temp");
  MakeCertificates();
  int fds[1 + kCertCount];
  fds[0] = range == HttpPortRange::kAbove32767 ? ListenOnHighLoopbackPort(http_port_)
                                               : ListenOnFreeLoopbackPort(http_port_);
  for (int i = 0; i < kCertCount; ++i) fds[1 + i] = ListenOnFreeLoopbackPort(tls_ports_[i]);
  WriteConfig();
  WriteDocument("small.txt", "small file\n");
  Launch(fds, 1 + kCertCount);
}

WebServer::~WebServer() {
  StopProcess(pid_);
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
}

void WebServer::Launch(const int* fds, int count) {
  std::string inherited = "NGINX=";
  for (int i = 0; i < count; ++i) inherited += std::to_string(fds[i]) + ";";
  std::string prefix = folder_ + "/";
  std::string config = folder_ + "/nginx.conf";
  std::string log = folder_ + "/error.log";
  const char* argv[] = {"/usr/sbin/nginx", "-p", prefix.c_str(), "-c", config.c_str(),
                        "-e", log.c_str(), nullptr};
  try {
    pid_ = SpawnWithLog(argv, inherited, folder_ + "/console.log");
  } catch (...) {
    for (int i = 0; i < count; ++i) ::close(fds[i]);
    throw;
  }
  for (int i = 0; i < count; ++i) ::close(fds[i]);
}

void WriteTestCertificates(const std::string& folder) {
  KeyPtr ca_key = NewKey();
  CertPtr ca = MakeCert({"Pelmora Test CA", nullptr, -kDay, 365 * kDay}, ca_key.get(), nullptr,
                        nullptr);
  WritePem(folder + "/ca.pem", ca.get(), nullptr);
  const char* local = "DNS:localhost,IP:127.0.0.1";
  constexpr int kCertCount = WebServer::kCertCount;
  const CertProfile profiles[kCertCount] = {
      {"localhost", local, -kDay, 30 * kDay},
      {"localhost", local, -30 * kDay, -kDay},
      {"localhost", local, kDay, 30 * kDay},
      {"other.example", "DNS:other.example", -kDay, 30 * kDay},
      {"localhost", local, -kDay, 30 * kDay},
  };
  for (int i = 0; i < kCertCount; ++i) {
    KeyPtr key = NewKey();
    bool self_signed = static_cast<WebServer::Cert>(i) == WebServer::Cert::kSelfSigned;
    CertPtr cert = MakeCert(profiles[i], key.get(), self_signed ? nullptr : ca.get(),
                            self_signed ? nullptr : ca_key.get());
    WritePem(folder + "/" + CertFileName(i) + ".pem", cert.get(), key.get());
  }
}

std::string PemCertificateFingerprint(const std::string& path) {
  FILE* file = std::fopen(path.c_str(), "r");
  if (file == nullptr) return "";
  X509* certificate = PEM_read_X509(file, nullptr, nullptr, nullptr);
  std::fclose(file);
  unsigned char* der = nullptr;
  const int size = certificate != nullptr ? i2d_X509(certificate, &der) : 0;
  std::string fingerprint =
      size > 0 ? pelmora::CertificateFingerprint({der, static_cast<size_t>(size)}) : "";
  OPENSSL_free(der);
  X509_free(certificate);
  return fingerprint;
}

void WebServer::MakeCertificates() const { WriteTestCertificates(folder_); }

void WebServer::WriteConfig() const {
  std::ofstream out(folder_ + "/nginx.conf");
  std::string temp = folder_ + "/temp";
  out << "daemon off;\nuser root;\nworker_processes 1;\npid " << folder_ << "/nginx.pid;\n"
      << "events { worker_connections 256; }\nhttp {\n  access_log off;\n"
      << "  default_type application/octet-stream;\n  sendfile on;\n"
      << "  client_max_body_size 0;\n  client_body_temp_path " << temp << "/body;\n"
      << "  proxy_temp_path " << temp << "/proxy;\n  fastcgi_temp_path " << temp << "/fcgi;\n"
      << "  uwsgi_temp_path " << temp << "/uwsgi;\n  scgi_temp_path " << temp << "/scgi;\n";
  out << ServerBlock(http_port_, folder_, nullptr);
  for (int i = 0; i < kCertCount; ++i) out << ServerBlock(tls_ports_[i], folder_, CertFileName(i));
  out << "}\n";
  if (!out) Fail("cannot write the configuration");
}

std::string WebServer::HttpUrl(std::string_view path) const {
  return "http://127.0.0.1:" + std::to_string(http_port_) + std::string(path);
}

std::string WebServer::TlsUrl(Cert cert, std::string_view path) const {
  return "https://127.0.0.1:" + std::to_string(TlsPort(cert)) + std::string(path);
}

std::string WebServer::WriteDocument(std::string_view name, std::string_view bytes) const {
  return WriteFileUnder(DocumentRoot(), name, bytes);
}

std::string WebServer::ErrorLog() const { return ReadWholeFile(folder_ + "/error.log"); }

std::string WriteFileUnder(const std::string& root, std::string_view name,
                           std::string_view bytes) {
  std::filesystem::path path = std::filesystem::path(root) / name;
  std::filesystem::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return path.string();
}

std::string ReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace pelmora::testing

// The service's TLS listeners against real TLS clients on loopback: its own key and certificate
// (made once, owner-only, shown by --show-fingerprint as the client sees it) and a configured
// one under each way the client checks a server, the pre-login bounds a handshake counts
// against, and tls_only. Logins over TLS are in tls_login_test.cc.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "pelmora/admin/credentials.h"
#include "pelmora/admin/rcfso.h"
#include "pelmora/net/tls_client.h"
#include "pelmora/testing/web_server.h"
#include "pelmorad/tls_identity.h"
#include "pelmorad/tls_listener.h"
#include "tests/service/raw_client.h"
#include "tests/service/service_process.h"
#include "tests/service/tls_login.h"

namespace pelmorad::testing {
namespace {

using pelmora::TlsClientSettings;
using pelmora::admin::RCFSO;
using ::testing::HasSubstr;

// What `pelmorad ARGUMENTS` prints on standard output.
std::string ServiceOutput(const std::string& arguments) {
  const char* binary = std::getenv("PELMORAD_BINARY");
  std::string command =
      std::string(binary != nullptr ? binary : PELMORAD_DEFAULT_BINARY) + " " + arguments;
  FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) return "";
  std::string output;
  char buffer[512];
  while (std::fgets(buffer, sizeof(buffer), pipe) != nullptr) output += buffer;
  ::pclose(pipe);
  return output;
}

mode_t ModeOf(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 ? (info.st_mode & 07777) : 0;
}

TEST(ServiceTls, OwnCertificateIsMadeOnceOwnerOnlyAndShownAsTheClientSeesIt) {
  ServiceProcess service;
  service.set_listeners(Listeners::kPlainAndTls);
  // Shown before the first start: made by --show-fingerprint, then used by the service.
  const std::string shown = ServiceOutput("--show-fingerprint -c " + service.config_path());
  ASSERT_THAT(shown, ::testing::MatchesRegex("SHA256:[A-Za-z0-9+/]{43}\n"));
  ASSERT_TRUE(service.Start());
  const std::string key = service.StateFolder() + "/" + kOwnKeyName;
  const std::string key_text = ReadFile(key);
  EXPECT_EQ(ModeOf(service.StateFolder()), 0700u);
  EXPECT_EQ(ModeOf(key), 0600u);
  EXPECT_EQ(ModeOf(service.StateFolder() + "/" + kOwnCertificateName), 0644u);
  EXPECT_THAT(key_text, HasSubstr("PRIVATE KEY"));
  const std::string known_hosts = service.folder() + "/known_hosts";
  RCFSO fso;
  ASSERT_TRUE(LogIn(fso, TlsChecks("", "", known_hosts, true), service.tls_port(), "operator",
                    kOperatorPassword))
      << fso.ErrDescription();
  EXPECT_EQ(fso.PresentedFingerprint() + "\n", shown);
  // A restart reuses the pair: the recorded host is still the same.
  ASSERT_EQ(service.Stop(SIGTERM), 0);
  WriteFile(known_hosts, "");
  ASSERT_TRUE(service.Start());
  EXPECT_EQ(ReadFile(key), key_text);
  EXPECT_EQ(service.ErrorOutput().find("made the TLS key"),
            service.ErrorOutput().rfind("made the TLS key"));
  RCFSO again;
  EXPECT_TRUE(LogIn(again, TlsChecks(shown.substr(0, shown.size() - 1)), service.tls_port(),
                    "operator", kOperatorPassword))
      << again.ErrDescription();
  // A key others may read, or a state folder others may write in, is not used.
  ::chmod(key.c_str(), 0640);
  EXPECT_THAT(ServiceOutput("--show-fingerprint -c " + service.config_path() + " 2>&1"),
              HasSubstr(key + ": refused, other users may read the key (chmod 600)"));
  ::chmod(key.c_str(), 0600);
  ::chmod(service.StateFolder().c_str(), 0777);
  EXPECT_THAT(ServiceOutput("--show-fingerprint -c " + service.config_path() + " 2>&1"),
              HasSubstr("refused, the state folder can be changed by other users"));
}

TEST(ServiceTls, EachTrustModeAcceptsTheOwnAndAConfiguredCertificate) {
  for (bool configured : {false, true}) {
    ServiceProcess service;
    pelmora::testing::WriteTestCertificates(service.folder());
    const std::string pem = service.folder() + "/valid.pem";
    if (configured) {
      service.WriteConfig("[tls]\ncertificate = \"" + pem + "\"\nkey = \"" + pem + "\"\n");
    }
    service.set_listeners(Listeners::kPlainAndTls);
    ASSERT_TRUE(service.Start());
    const std::string fingerprint = service.tls_fingerprint();
    if (configured) {
      EXPECT_EQ(fingerprint, CertificateFileFingerprint(pem));
    }
    EXPECT_EQ(ServiceOutput("--show-fingerprint --config " + service.config_path()),
              fingerprint + "\n");
    EXPECT_EQ(PathExists(service.StateFolder()), !configured);
    const std::string known_hosts = service.folder() + "/known_hosts";
    struct Case {
      const char* name;
      TlsClientSettings settings;
      const char* host;
    };
    std::vector<Case> cases = {
        {"pinned", TlsChecks(fingerprint), "127.0.0.1"},
        {"first use", TlsChecks("", "", known_hosts, true), "127.0.0.1"},
        {"known host", TlsChecks("", "", known_hosts), "127.0.0.1"},
    };
    if (configured) {
      cases.push_back(
          {"CA file, address", TlsChecks("", service.folder() + "/ca.pem"), "127.0.0.1"});
      cases.push_back({"CA file, name", TlsChecks("", service.folder() + "/ca.pem"), "localhost"});
    }
    for (const Case& c : cases) {
      RCFSO fso;
      EXPECT_TRUE(LogIn(fso, c.settings, service.tls_port(), "operator", kOperatorPassword, c.host))
          << configured << " " << c.name << ": " << fso.ErrDescription();
      EXPECT_EQ(fso.PresentedFingerprint(), fingerprint) << c.name;
      EXPECT_EQ(fso.GetSystemDirectory(), "C:\\Windows\\system32") << c.name;
    }
    // The own certificate is no authority's: the CA file check refuses it.
    if (!configured) {
      RCFSO fso;
      pelmora::testing::WriteTestCertificates(service.folder());
      EXPECT_FALSE(LogIn(fso, TlsChecks("", service.folder() + "/ca.pem"), service.tls_port(),
                         "operator", kOperatorPassword));
      EXPECT_EQ(fso.ErrCode(), pelmora::tlsCertificateNotTrusted);
    }
  }
}

TEST(ServiceTls, AHandshakeCountsAgainstThePreLoginBounds) {
  ServiceProcess service(
      "[limits]\nlogin_grace_seconds = 1\nunauthenticated = 1\nunauthenticated_start = 1\n");
  service.set_listeners(Listeners::kPlainAndTls);
  ASSERT_TRUE(service.Start());
  // A handshake that starts and never goes on holds the only place for a connection not
  // logged in, and is closed at the login grace time.
  RawClient stalled;
  ASSERT_TRUE(stalled.Connect(service.tls_port()));
  const std::vector<uint8_t> record_start = {0x16, 0x03, 0x01};
  ASSERT_TRUE(stalled.Send(record_start));
  RawClient second;  // to the same listener, so it is accepted after the first
  ASSERT_TRUE(second.Connect(service.tls_port()));
  EXPECT_TRUE(second.WaitForClose());
  EXPECT_THAT(service.ErrorOutput(), HasSubstr("refused: too many connections not logged in"));
  EXPECT_TRUE(stalled.WaitForClose());
  EXPECT_THAT(service.ErrorOutput(),
              HasSubstr("path=\"closed: no TLS handshake within the login grace time\""));
  // With the place free again, a TLS login goes through.
  RCFSO fso;
  EXPECT_TRUE(LogIn(fso, TlsChecks(service.tls_fingerprint()), service.tls_port(), "operator",
                    kOperatorPassword))
      << fso.ErrDescription();
}

TEST(ServiceTls, TlsOnlyOpensNoPlainListenerAndCheckConfigSaysSo) {
  ServiceProcess service("", "tls_only = true\nlisten_tls = [\"127.0.0.1:0\"]\n");
  EXPECT_THAT(ServiceOutput("--check-config -c " + service.config_path()),
              HasSubstr("tls_only: no plain listeners; TLS only on 127.0.0.1:0"));
  service.set_listeners(Listeners::kTlsOnly);
  ASSERT_TRUE(service.Start());
  const std::string log = service.ErrorOutput();
  EXPECT_EQ(log.find("listening on"), log.rfind("listening on")) << log;
  EXPECT_THAT(log, HasSubstr("(TLS, certificate " + service.tls_fingerprint() + ")"));
  RCFSO fso;
  EXPECT_TRUE(LogIn(fso, TlsChecks(service.tls_fingerprint()), service.tls_port(), "operator",
                    kOperatorPassword))
      << fso.ErrDescription();
  // A configured certificate with another certificate's key does not pass the check.
  pelmora::testing::WriteTestCertificates(service.folder());
  service.WriteConfig("[tls]\ncertificate = \"" + service.folder() + "/valid.pem\"\nkey = \"" +
                      service.folder() + "/expired.pem\"\n");
  EXPECT_THAT(ServiceOutput("--check-config -c " + service.config_path() + " 2>&1"),
              HasSubstr("cannot use the TLS certificate " + service.folder() + "/valid.pem"));
}

}  // namespace
}  // namespace pelmorad::testing

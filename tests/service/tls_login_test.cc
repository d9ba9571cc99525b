// Logins over the service's TLS listener against real TLS clients on loopback: certificate
// login, require_tls, what crosses the wire during a TLS login, the plain/TLS mismatches on both
// sides, the refused older TLS version, and how the service sends its records.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "pelmora/admin/credentials.h"
#include "pelmora/admin/rcfso.h"
#include "pelmora/net/tls_client.h"
#include "pelmora/testing/tls_relay.h"
#include "pelmora/testing/web_server.h"
#include "pelmorad/tls_identity.h"
#include "pelmorad/tls_listener.h"
#include "tests/service/raw_client.h"
#include "tests/service/service_process.h"
#include "tests/service/service_socket.h"
#include "tests/service/tls_login.h"

namespace pelmorad::testing {
namespace {

using pelmora::TlsClientSettings;
using pelmora::admin::RCFSO;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr int32_t kLogonFailure = 1326;

TlsClientSettings Presenting(TlsClientSettings settings, const std::string& pem) {
  settings.client_certificate = pem;
  settings.client_key = pem;
  return settings;
}

class ServiceTlsLogin : public ::testing::Test {
 protected:
  void SetUp() override {
    pelmora::testing::WriteTestCertificates(service_.folder());
    certificate_ = service_.folder() + "/self-signed.pem";
    foreign_ = service_.folder() + "/valid.pem";
    service_.WriteConfig("[accounts.certified]\npassword = \"" + HashOf(kOperatorPassword) +
                         "\"\nclient_certificates = [\"" +
                         CertificateFileFingerprint(certificate_) +
                         "\"]\n[accounts.tlsonly]\npassword = \"" + HashOf(kOperatorPassword) +
                         "\"\nrequire_tls = true\n");
    service_.set_listeners(Listeners::kPlainAndTls);
    ASSERT_TRUE(service_.Start());
  }

  TlsClientSettings Pinned() const { return TlsChecks(service_.tls_fingerprint()); }

  ServiceProcess service_;
  std::string certificate_;
  std::string foreign_;
};

TEST_F(ServiceTlsLogin, ACertificateLogsInItsAccountAndAForeignOneFallsToThePassword) {
  const std::string fingerprint = CertificateFileFingerprint(certificate_);
  const std::string foreign = CertificateFileFingerprint(foreign_);
  struct Case {
    const char* name;
    TlsClientSettings settings;
    const char* user;
    std::string_view password;
    bool accepted;
    std::string audit;
  };
  const Case cases[] = {
      {"listed certificate, any password", Presenting(Pinned(), certificate_), "certified",
       "not the password", true, "path=\"login by client certificate " + fingerprint + "\""},
      {"listed certificate, another account", Presenting(Pinned(), certificate_), "operator",
       "not the password", false,
       "path=\"login failed by password over TLS (client certificate " + fingerprint +
           " is not the account's)\""},
      {"foreign certificate, wrong password", Presenting(Pinned(), foreign_), "certified",
       "not the password", false,
       "path=\"login failed by password over TLS (client certificate " + foreign +
           " is not the account's)\""},
      {"foreign certificate, right password", Presenting(Pinned(), foreign_), "certified",
       kOperatorPassword, true,
       "path=\"login by password over TLS (client certificate " + foreign +
           " is not the account's)\""},
      {"no certificate, right password", Pinned(), "certified", kOperatorPassword, true,
       "account=\"certified\" code=-1 path=\"login by password over TLS\""},
  };
  for (const Case& c : cases) {
    RCFSO fso;
    EXPECT_EQ(LogIn(fso, c.settings, service_.tls_port(), c.user, c.password), c.accepted)
        << c.name << ": " << fso.ErrDescription();
    if (c.accepted) {
      EXPECT_EQ(fso.GetSystemDirectory(), "C:\\Windows\\system32") << c.name;
    } else {
      EXPECT_EQ(fso.ErrCode(), kLogonFailure) << c.name;
    }
    EXPECT_THAT(service_.ErrorOutput(), HasSubstr(c.audit)) << c.name;
  }
}

TEST_F(ServiceTlsLogin, RequireTlsRefusesOnlyThePlainLogin) {
  RCFSO plain;
  EXPECT_FALSE(plain.Connect("127.0.0.1", service_.port(), "tlsonly", kOperatorPassword, false));
  EXPECT_EQ(plain.ErrCode(), kLogonFailure);
  EXPECT_THAT(
      service_.ErrorOutput(),
      HasSubstr("account=\"tlsonly\" code=-1 path=\"login refused: the account requires TLS "
                "and this connection is plain\" result=1326"));
  RCFSO tls;
  EXPECT_TRUE(LogIn(tls, Pinned(), service_.tls_port(), "tlsonly", kOperatorPassword))
      << tls.ErrDescription();
  // The others still log in on the plain port.
  EXPECT_TRUE(plain.Connect("127.0.0.1", service_.port(), "certified", kOperatorPassword, false));
}

TEST_F(ServiceTlsLogin, ThePasswordNeverCrossesTheWireInTheClear) {
  const std::string encoded = pelmora::admin::EncodeCredential(kOperatorPassword);
  // A plain relay in front of each port records every byte the client sends.
  pelmora::testing::TlsRelay over_tls("", static_cast<uint16_t>(service_.tls_port()));
  RCFSO fso;
  ASSERT_TRUE(LogIn(fso, Pinned(), over_tls.port(), "operator", kOperatorPassword))
      << fso.ErrDescription();
  EXPECT_EQ(fso.GetSystemDirectory(), "C:\\Windows\\system32");
  fso.set_tls({});
  fso.Connect("127.0.0.1", service_.port(), "operator", kOperatorPassword, false);
  const std::string seen = over_tls.Received();
  EXPECT_GT(seen.size(), pelmora::admin::kPacketSize);
  for (std::string_view secret : {std::string_view(kOperatorPassword), std::string_view(encoded),
                                  std::string_view("operator")}) {
    EXPECT_EQ(seen.find(secret), std::string::npos) << secret;
  }
  // The same login on the plain port carries the encoded password: the check can see it.
  pelmora::testing::TlsRelay over_plain("", static_cast<uint16_t>(service_.port()));
  RCFSO plain;
  ASSERT_TRUE(plain.Connect("127.0.0.1", over_plain.port(), "operator", kOperatorPassword, false));
  EXPECT_NE(over_plain.Received().find(encoded), std::string::npos);
}

TEST_F(ServiceTlsLogin, MismatchedTransportsFailClearlyOnBothSides) {
  RCFSO plain_client;
  EXPECT_FALSE(
      plain_client.Connect("127.0.0.1", service_.tls_port(), "operator", kOperatorPassword, false));
  EXPECT_EQ(plain_client.ErrCode(), kLogonFailure);
  EXPECT_EQ(plain_client.ErrDescription(), kPlainClientOnTlsPort);
  EXPECT_THAT(service_.ErrorOutput(), HasSubstr("refused: a plain client on the TLS port"));
  RCFSO tls_client;
  tls_client.set_timeout(20000);
  EXPECT_FALSE(LogIn(tls_client, Pinned(), service_.port(), "operator", kOperatorPassword));
  EXPECT_EQ(tls_client.ErrCode(), pelmora::tlsChannelError);
  // Closed by the service, not left to the client's time-out.
  EXPECT_THAT(tls_client.ErrDescription(), HasSubstr("the server closed the connection"));
  EXPECT_THAT(tls_client.ErrDescription(), HasSubstr("plain administration port"));
  EXPECT_THAT(service_.ErrorOutput(), HasSubstr("closed: a TLS client on the plain port"));
  EXPECT_THAT(service_.ErrorOutput(), Not(HasSubstr("grace time")));
}

// Runs a client handshake limited to TLS 1.2 on the connected `fd`; true when it completes.
bool Tls12HandshakeCompletes(int fd) {
  SSL_CTX* context = SSL_CTX_new(TLS_client_method());
  SSL_CTX_set_max_proto_version(context, TLS1_2_VERSION);
  SSL* ssl = SSL_new(context);
  SSL_set_fd(ssl, fd);
  const bool completed = SSL_connect(ssl) == 1;
  SSL_free(ssl);
  SSL_CTX_free(context);
  return completed;
}

TEST_F(ServiceTlsLogin, AnOlderTlsVersionIsRefusedAtTheHandshakeAndAudited) {
  RawClient client;
  ASSERT_TRUE(client.Connect(service_.tls_port()));
  EXPECT_FALSE(Tls12HandshakeCompletes(client.fd()));
  EXPECT_TRUE(client.WaitForClose());
  EXPECT_THAT(service_.ErrorOutput(), HasSubstr("path=\"closed: TLS handshake failed: "
                                                "unsupported protocol\" result=87"));
}

TEST_F(ServiceTlsLogin, TheServiceSendsEachRecordAtOnceAndNoTicket) {
  // Records written one after another (the handshake's last flight, a size message and its
  // block) must not wait for the client's delayed acknowledgement of the one before.
  RawClient client;
  ASSERT_TRUE(client.Connect(service_.tls_port()));
  SSL_CTX* context = SSL_CTX_new(TLS_client_method());
  SSL* ssl = SSL_new(context);
  SSL_set_fd(ssl, client.fd());
  ASSERT_EQ(SSL_connect(ssl), 1);  // the service has set its socket up once it answered
  EXPECT_EQ(ServiceSideTcpOption(service_.pid(), LocalPort(client.fd()), TCP_NODELAY), 1);
  // No session ticket comes before the login reply: every connection presents the certificate,
  // so the client checks it every time.
  const int32_t sequence = pelmora::admin::NextSequenceNumber(pelmora::admin::kFirstSequenceNumber);
  const std::vector<uint8_t> login = pelmora::admin::BuildFramedPacket(
      sequence,
      pelmora::admin::BuildLoginMessage(pelmora::admin::EncodeCredential("operator"),
                                        pelmora::admin::EncodeCredential(kOperatorPassword)));
  ASSERT_EQ(SSL_write(ssl, login.data(), static_cast<int>(login.size())),
            static_cast<int>(login.size()));
  std::vector<uint8_t> reply(pelmora::admin::kPacketSize);
  for (std::size_t filled = 0; filled < reply.size();) {
    const int got = SSL_read(ssl, reply.data() + filled, static_cast<int>(reply.size() - filled));
    ASSERT_GT(got, 0);
    filled += static_cast<std::size_t>(got);
  }
  EXPECT_EQ(pelmora::admin::ParseFramedPacket(reply, sequence).fault,
            pelmora::admin::PacketFault::kNone);
  EXPECT_EQ(SSL_SESSION_is_resumable(SSL_get0_session(ssl)), 0);
  SSL_free(ssl);
  SSL_CTX_free(context);
}

}  // namespace
}  // namespace pelmorad::testing

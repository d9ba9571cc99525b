// The library's TLS transport against the real service behind a TLS-terminating relay: each way
// of checking the server's identity, the refusals (a changed key, a relay in the middle with its
// own certificate, expired, wrong-name and unknown-authority certificates), the plain/TLS
// mismatches in both directions, and the whole request set carried over TLS.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "pelmora/admin/rc_file_info.h"
#include "pelmora/admin/rcfso.h"
#include "pelmora/automation/registry.h"
#include "pelmora/net/tls_client.h"
#include "pelmora/testing/tls_relay.h"
#include "pelmora/testing/web_server.h"
#include "tests/service/service_process.h"

namespace pelmorad::testing {
namespace {

using pelmora::TlsClientSettings;
using pelmora::admin::RCFSO;
using pelmora::testing::PemCertificateFingerprint;
using pelmora::testing::TlsRelay;
using ::testing::HasSubstr;

constexpr int kWaitMilliseconds = 10000;
// The size of the login message on the wire.
constexpr size_t kLoginSize = 1500;


// Settings for the TLS transport with the given checks.

TlsClientSettings WithClientCertificate(TlsClientSettings settings, std::string certificate,
                                        std::string key) {
  settings.client_certificate = std::move(certificate);
  settings.client_key = std::move(key);
  return settings;
}

class ServiceOverTls : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(service_.Start());
    pelmora::testing::WriteTestCertificates(service_.folder());
    valid_fingerprint_ = PemCertificateFingerprint(Pem("valid"));
    ASSERT_THAT(valid_fingerprint_, ::testing::StartsWith("SHA256:"));
  }

  std::string Pem(const std::string& name) const { return service_.folder() + "/" + name + ".pem"; }
  std::string Scratch(const std::string& name) const { return service_.folder() + "/" + name; }
  std::string HostPort(const TlsRelay& relay) const {
    return "127.0.0.1:" + std::to_string(relay.port());
  }

  bool Login(RCFSO& fso, const TlsClientSettings& settings, int port,
             const std::string& host = "127.0.0.1") {
    fso.set_tls(settings);
    return fso.Connect(host, port, "operator", kOperatorPassword, false);
  }

  TlsClientSettings Pinned(const std::string& fingerprint) const { return TlsChecks(fingerprint); }

  ServiceProcess service_;
  std::string valid_fingerprint_;
};

TEST_F(ServiceOverTls, EachTrustModeAcceptsTheRealServer) {
  const std::string known_hosts = Scratch("known_hosts");
  struct Case {
    const char* name;
    TlsClientSettings settings;
    const char* host;
  };
  TlsRelay relay(Pem("valid"), static_cast<uint16_t>(service_.port()));
  const std::string recorded = HostPort(relay) + " " + valid_fingerprint_ + "\n";
  WriteFile(known_hosts, "# hosts\n\nother:1 SHA256:xyz\n" + recorded);
  const std::vector<Case> cases = {
      {"pinned", Pinned(valid_fingerprint_), "127.0.0.1"},
      {"CA file, address", TlsChecks("", Scratch("ca.pem")), "127.0.0.1"},
      {"CA file, name", TlsChecks("", Scratch("ca.pem")), "localhost"},
      {"known host", TlsChecks("", "", known_hosts), "127.0.0.1"},
      {"all three",
       TlsChecks(valid_fingerprint_, Scratch("ca.pem"), known_hosts),
       "127.0.0.1"},
  };
  for (const Case& c : cases) {
    RCFSO fso;
    EXPECT_TRUE(Login(fso, c.settings, relay.port(), c.host))
        << c.name << ": " << fso.ErrCode() << " " << fso.ErrDescription();
    EXPECT_EQ(fso.PresentedFingerprint(), valid_fingerprint_) << c.name;
    EXPECT_EQ(fso.GetSystemDirectory(), "C:\\Windows\\system32") << c.name;
  }
  EXPECT_EQ(ReadFile(known_hosts), "# hosts\n\nother:1 SHA256:xyz\n" + recorded);
}

TEST_F(ServiceOverTls, TrustOnFirstUseRecordsTheHostOnlyWhenAllowed) {
  TlsRelay relay(Pem("valid"), static_cast<uint16_t>(service_.port()));
  const std::string known_hosts = Scratch("known_hosts");
  RCFSO fso;
  // Not allowed: refused, nothing recorded, nothing sent.
  EXPECT_FALSE(Login(fso, TlsChecks("", "", known_hosts), relay.port()));
  EXPECT_EQ(fso.ErrCode(), pelmora::tlsCertificateNotTrusted);
  EXPECT_THAT(fso.ErrDescription(), HasSubstr(HostPort(relay) + " " + valid_fingerprint_));
  EXPECT_FALSE(PathExists(known_hosts));
  ASSERT_TRUE(relay.WaitForEndedConnections(1, kWaitMilliseconds));
  EXPECT_EQ(relay.Received(), "");
  // Allowed: accepted and recorded, owner-only.
  EXPECT_TRUE(Login(fso, TlsChecks("", "", known_hosts, true),
                    relay.port()))
      << fso.ErrDescription();
  EXPECT_EQ(ReadFile(known_hosts), HostPort(relay) + " " + valid_fingerprint_ + "\n");
  EXPECT_EQ(std::filesystem::status(known_hosts).permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  // Known from then on, without trust on first use.
  RCFSO again;
  EXPECT_TRUE(Login(again, TlsChecks("", "", known_hosts), relay.port()))
      << again.ErrDescription();
  EXPECT_EQ(ReadFile(known_hosts), HostPort(relay) + " " + valid_fingerprint_ + "\n");
}

TEST_F(ServiceOverTls, AChangedKeyIsRefusedSayingWhatChanged) {
  TlsRelay relay(Pem("self-signed"), static_cast<uint16_t>(service_.port()));
  const std::string presented = PemCertificateFingerprint(Pem("self-signed"));
  const std::string known_hosts = Scratch("known_hosts");
  WriteFile(known_hosts, "# first line\n" + HostPort(relay) + " " + valid_fingerprint_ + "\n");
  RCFSO fso;
  EXPECT_FALSE(Login(fso, TlsChecks("", "", known_hosts, true),
                     relay.port()));
  EXPECT_EQ(fso.ErrCode(), pelmora::tlsCertificateChanged);
  for (const std::string& part :
       {presented, valid_fingerprint_, "line 2 of " + known_hosts, std::string("remove line 2")}) {
    EXPECT_THAT(fso.ErrDescription(), HasSubstr(part));
  }
  // Trust on first use never replaces a recorded key.
  EXPECT_EQ(ReadFile(known_hosts), "# first line\n" + HostPort(relay) + " " + valid_fingerprint_ +
                                       "\n");
  EXPECT_FALSE(Login(fso, Pinned(valid_fingerprint_), relay.port()));
  EXPECT_EQ(fso.ErrCode(), pelmora::tlsCertificateChanged);
  EXPECT_THAT(fso.ErrDescription(), HasSubstr(presented));
}

TEST_F(ServiceOverTls, ARelayInTheMiddleIsRefusedBeforeAnyCredentialLeaves) {
  // The relay in the middle terminates TLS with its own certificate and forwards to the service.
  TlsRelay middle(Pem("self-signed"), static_cast<uint16_t>(service_.port()));
  RCFSO fso;
  EXPECT_FALSE(Login(fso, Pinned(valid_fingerprint_), middle.port()));
  EXPECT_EQ(fso.ErrCode(), pelmora::tlsCertificateChanged);
  ASSERT_TRUE(middle.WaitForEndedConnections(1, kWaitMilliseconds));
  EXPECT_EQ(middle.Received(), "");
  EXPECT_EQ(fso.GetSystemDirectory(), "");
  EXPECT_EQ(fso.ErrCode(), 8117);
  // The same client through the real relay logs in: the relay records the login message.
  TlsRelay real(Pem("valid"), static_cast<uint16_t>(service_.port()));
  EXPECT_TRUE(Login(fso, Pinned(valid_fingerprint_), real.port())) << fso.ErrDescription();
  EXPECT_GE(real.Received().size(), kLoginSize);
}

TEST_F(ServiceOverTls, TheCaFileRefusesBadCertificatesDuringTheHandshake) {
  struct Case {
    const char* pem;
    const char* host;
    int32_t code;
  };
  const Case cases[] = {
      {"expired", "127.0.0.1", pelmora::tlsCertificateDateInvalid},
      {"future", "localhost", pelmora::tlsCertificateDateInvalid},
      {"wrong-host", "localhost", pelmora::tlsCertificateNameInvalid},
      {"self-signed", "127.0.0.1", pelmora::tlsCertificateNotTrusted},
  };
  for (const Case& c : cases) {
    TlsRelay relay(Pem(c.pem), static_cast<uint16_t>(service_.port()));
    RCFSO fso;
    EXPECT_FALSE(Login(fso, TlsChecks("", Scratch("ca.pem")), relay.port(), c.host))
        << c.pem;
    EXPECT_EQ(fso.ErrCode(), c.code) << c.pem << ": " << fso.ErrDescription();
    ASSERT_TRUE(relay.WaitForEndedConnections(1, kWaitMilliseconds)) << c.pem;
    EXPECT_EQ(relay.FailedHandshakes(), 1) << c.pem;
    EXPECT_EQ(relay.Received(), "") << c.pem;
  }
}

TEST_F(ServiceOverTls, SettingsThatCannotBeUsedAreRefusedWithoutSending) {
  TlsRelay relay(Pem("valid"), static_cast<uint16_t>(service_.port()));
  struct Case {
    const char* name;
    TlsClientSettings settings;
    int32_t code;
  };
  const Case cases[] = {
      {"no check at all", TlsChecks(""), pelmora::tlsCertificateNotTrusted},
      {"missing CA file",
       TlsChecks("", Scratch("none.pem")),
       pelmora::tlsCertificateNotTrusted},
      {"certificate without key",
       WithClientCertificate(Pinned(valid_fingerprint_), Pem("valid"), ""),
       pelmora::tlsClientCertificateInvalid},
      {"key of another certificate",
       WithClientCertificate(Pinned(valid_fingerprint_), Pem("valid"), Pem("expired")),
       pelmora::tlsClientCertificateInvalid},
  };
  int connections = 0;
  for (const Case& c : cases) {
    RCFSO fso;
    EXPECT_FALSE(Login(fso, c.settings, relay.port())) << c.name;
    EXPECT_EQ(fso.ErrCode(), c.code) << c.name << ": " << fso.ErrDescription();
    ASSERT_TRUE(relay.WaitForEndedConnections(++connections, kWaitMilliseconds)) << c.name;
  }
  EXPECT_EQ(relay.Received(), "");
  // A usable client certificate is presented without changing anything above the channel.
  RCFSO fso;
  EXPECT_TRUE(Login(fso,
                    WithClientCertificate(Pinned(valid_fingerprint_), Pem("valid"), Pem("valid")),
                    relay.port()))
      << fso.ErrDescription();
}

TEST_F(ServiceOverTls, PlainAndTlsMismatchesFailClearlyInsteadOfHanging) {
  // A TLS client at the plain port: the service closes at once on its handshake record.
  RCFSO tls_client;
  tls_client.set_timeout(2000);
  EXPECT_FALSE(Login(tls_client, Pinned(valid_fingerprint_), service_.port()));
  EXPECT_EQ(tls_client.ErrCode(), pelmora::tlsChannelError);
  EXPECT_THAT(tls_client.ErrDescription(), HasSubstr("plain administration port"));
  // A plain client at a TLS port: the relay's handshake fails and it closes the connection.
  TlsRelay relay(Pem("valid"), static_cast<uint16_t>(service_.port()));
  RCFSO plain_client;
  plain_client.set_timeout(2000);
  EXPECT_FALSE(plain_client.Connect("127.0.0.1", relay.port(), "operator", kOperatorPassword,
                                    false));
  EXPECT_EQ(plain_client.ErrCode(), 10054) << plain_client.ErrDescription();
  EXPECT_EQ(relay.FailedHandshakes(), 1);
  // Switching the same object back to plain speaks the plain protocol again.
  plain_client.set_tls({});
  EXPECT_TRUE(plain_client.Connect("127.0.0.1", service_.port(), "operator", kOperatorPassword,
                                   false))
      << plain_client.ErrDescription();
  EXPECT_EQ(plain_client.PresentedFingerprint(), "");
}

TEST_F(ServiceOverTls, AServerThatGoesAwayIsAnErrorNotASignal) {
  auto relay = std::make_unique<TlsRelay>(Pem("valid"), static_cast<uint16_t>(service_.port()));
  RCFSO fso;
  ASSERT_TRUE(Login(fso, Pinned(valid_fingerprint_), relay->port())) << fso.ErrDescription();
  relay.reset();
  // Sends into a closed connection: each must come back as an error (SIGPIPE would end the
  // test program).
  WriteFile(Scratch("big.bin"), std::string(size_t{4} << 20, 'x'));
  EXPECT_FALSE(fso.Upload(Scratch("big.bin"), "C:\\big.bin"));
  EXPECT_NE(fso.ErrCode(), 0);
  EXPECT_FALSE(fso.FileExists("C:\\big.bin"));
  EXPECT_NE(fso.ErrCode(), 0);
}

class CollectOutput : public pelmora::admin::RCFSOEvents {
 public:
  void CommandOutput(std::string& text) override { output += text; }
  std::string output;
};

TEST_F(ServiceOverTls, TheWholeRequestSetWorksOverTls) {
  TlsRelay relay(Pem("valid"), static_cast<uint16_t>(service_.port()));
  RCFSO fso;
  fso.set_timeout(20000);
  ASSERT_TRUE(Login(fso, Pinned(valid_fingerprint_), relay.port())) << fso.ErrDescription();
  std::filesystem::create_directory(service_.Drive('C') + "/data");
  // Transfers of sizes around the piece and buffer sizes, both ways.
  for (size_t size : {size_t{0}, size_t{1500}, size_t{70000}, size_t{3 << 20}}) {
    std::string content(size, '\0');
    for (size_t i = 0; i < size; ++i) content[i] = static_cast<char>(i * 7 % 251);
    WriteFile(Scratch("up.bin"), content);
    ASSERT_TRUE(fso.Upload(Scratch("up.bin"), "C:\\data\\stored.bin")) << fso.ErrDescription();
    ASSERT_TRUE(fso.Download(Scratch("down.bin"), "C:\\data\\stored.bin")) << fso.ErrDescription();
    EXPECT_EQ(ReadFile(Scratch("down.bin")), content) << size;
  }
  EXPECT_TRUE(fso.CreateRemoteFolder("C:\\data\\sub")) << fso.ErrDescription();
  EXPECT_TRUE(fso.FolderExists("C:\\data\\sub"));
  EXPECT_TRUE(fso.CopyRemoteFile("C:\\data\\stored.bin", "C:\\data\\copy.bin", true));
  EXPECT_TRUE(fso.FileExists("C:\\data\\copy.bin"));
  EXPECT_TRUE(fso.DeleteRemoteFile("C:\\data\\copy.bin"));
  EXPECT_FALSE(fso.FileExists("C:\\data\\copy.bin"));
  pelmora::admin::RCFileInfoCollection listing = fso.GetFolderFiles("C:\\data");
  EXPECT_EQ(fso.ErrCode(), 0) << fso.ErrDescription();
  ASSERT_EQ(listing.Count(), 2);
  EXPECT_EQ(listing.Item(1)->FileName() + " " + listing.Item(2)->FileName(), "stored.bin sub");
  pelmora::admin::RCFileInfo info;
  ASSERT_TRUE(fso.GetFileInfo("C:\\data\\stored.bin", info)) << fso.ErrDescription();
  EXPECT_EQ(info.FileSize(), 3 << 20);
  CollectOutput output;
  fso.AddEventSink(&output);
  EXPECT_TRUE(fso.SyncCreateProcess("echo one; echo two", 10000)) << fso.ErrDescription();
  EXPECT_EQ(output.output, "one\ntwo\n");
  fso.RemoveEventSink(&output);
  EXPECT_GT(fso.ExtendedCommandVersion(), 0);
}

TEST_F(ServiceOverTls, LateBoundCallersSelectTheTransportByName) {
  using pelmora::Variant;
  using pelmora::automation::CallByName;
  using pelmora::automation::CallKind;
  using pelmora::automation::GetProperty;
  using pelmora::automation::SetProperty;
  TlsRelay relay(Pem("valid"), static_cast<uint16_t>(service_.port()));
  pelmora::ObjectRef fso = pelmora::automation::CreateObject("Pelmora.RCFSO");
  EXPECT_FALSE(GetProperty(fso, "Tls").ToBool());
  SetProperty(fso, "Tls", Variant(true));
  SetProperty(fso, "TlsCaFile", Variant(Scratch("ca.pem")));
  SetProperty(fso, "TlsKnownHosts", Variant(Scratch("known_hosts")));
  SetProperty(fso, "TlsTrustNew", Variant(true));
  EXPECT_EQ(GetProperty(fso, "TlsCaFile").ToString(), Scratch("ca.pem"));
  std::vector<Variant> login = {Variant("127.0.0.1"), Variant(int32_t{relay.port()}),
                                Variant("operator"), Variant(std::string(kOperatorPassword)),
                                Variant(false)};
  EXPECT_TRUE(CallByName(fso, "Connect", CallKind::kMethod, login).ToBool())
      << GetProperty(fso, "ErrDescription").ToString();
  EXPECT_EQ(GetProperty(fso, "TlsPresentedFingerprint").ToString(), valid_fingerprint_);
  SetProperty(fso, "TlsFingerprint", Variant("SHA256:other"));
  EXPECT_FALSE(CallByName(fso, "Connect", CallKind::kMethod, login).ToBool());
  EXPECT_EQ(GetProperty(fso, "ErrCode").ToLong(), pelmora::tlsCertificateChanged);
  // The facade takes the same settings for its own session.
  pelmora::ObjectRef client = pelmora::automation::CreateObject("Pelmora.AdminClient");
  SetProperty(client, "ServicePort", Variant(int32_t{relay.port()}));
  SetProperty(client, "Tls", Variant(true));
  SetProperty(client, "TlsFingerprint", Variant(valid_fingerprint_));
  EXPECT_TRUE(CallByName(client, "Connect", CallKind::kMethod, {Variant("127.0.0.1")}).ToBool())
      << GetProperty(client, "ErrDescription").ToString();
  EXPECT_EQ(GetProperty(client, "TlsPresentedFingerprint").ToString(), valid_fingerprint_);
  SetProperty(client, "TlsFingerprint", Variant("SHA256:other"));
  EXPECT_FALSE(CallByName(client, "Connect", CallKind::kMethod, {Variant("127.0.0.1")}).ToBool());
  EXPECT_EQ(GetProperty(client, "ErrNumber").ToLong(), pelmora::tlsCertificateChanged);
}

}  // namespace
}  // namespace pelmorad::testing

#include "tools/pelmora/defaults_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>

#include "tools/pelmora/crypto_io.h"
#include "tools/pelmora/host_defaults.h"
#include "tools/pelmora/tls_options.h"

namespace pelmora_tool {
namespace {

using ::testing::HasSubstr;
using Variables = std::map<std::string, std::string>;

GetEnvironment From(const Variables& variables) {
  return [&variables](const char* name) -> const char* {
    auto found = variables.find(name);
    return found == variables.end() ? nullptr : found->second.c_str();
  };
}

const Variables kHome = {{"HOME", "/home/ann"}};

DefaultsFile Parse(std::string_view text, const Variables& variables = kHome) {
  return ParseDefaultsFile(text, "/home/ann/.config/pelmora/config.toml", From(variables));
}

constexpr std::string_view kFile = R"(
account = "operator"
port = 8100
password_file = "~/pw/operator"
connect_timeout = 3000

[hosts.web1]
host = "web1.example.org"
port = 8003
tls = true
known_hosts = "known_hosts"

[hosts.db]
host = "dba@10.0.0.9:9000"
fingerprint = "SHA256:abc"
)";

TEST(DefaultsFileTest, ReadsTopLevelAndHostSections) {
  DefaultsFile file = Parse(kFile);
  EXPECT_EQ(file.defaults.account, "operator");
  EXPECT_EQ(file.defaults.port, 8100);
  EXPECT_EQ(file.defaults.password_file, "/home/ann/pw/operator");
  EXPECT_EQ(file.defaults.connect_timeout_ms, 3000);
  ASSERT_NE(file.Section("web1"), nullptr);
  EXPECT_EQ(file.Section("web1")->host, "web1.example.org");
  // A relative path is taken from the defaults file's folder.
  EXPECT_EQ(file.Section("web1")->known_hosts, "/home/ann/.config/pelmora/known_hosts");
  EXPECT_EQ(file.Section("web2"), nullptr);
}

TEST(DefaultsFileTest, RefusesWhatItDoesNotKnowWithTheLine) {
  const std::string path = "/home/ann/.config/pelmora/config.toml";
  struct Case {
    std::string_view text;
    std::string error;
  } cases[] = {
      {"acount = \"x\"\n", "line 1: unknown key acount (did you mean account?)"},
      {"[hosts.web1]\nprot = 1\n", "line 2: unknown key hosts.web1.prot (did you mean port?)"},
      {"\n\nciphers = 1\n", "line 3: unknown key ciphers"},
      {"port = 70000\n", "line 1: port must be a whole number 1-65535"},
      {"port = \"8002\"\n", "line 1: port must be a whole number 1-65535"},
      {"tls = \"yes\"\n", "line 1: tls must be true or false"},
      {"account = \"\"\n", "line 1: account must be a non-empty text in quotes"},
      {"timeout = -1\n", "line 1: timeout must be a whole number 0-2147483647"},
      {"hosts = 1\n", "line 1: hosts must be sections: [hosts.NAME]"},
      {"[hosts]\nweb1 = 1\n", "line 2: hosts.web1 must be a section: [hosts.web1]"},
      {"[hosts.a]\nhosts = 1\n", "line 2: unknown key hosts.a.hosts (did you mean host?)"},
      {"port = \n", "line 1: "},
  };
  for (const Case& c : cases) {
    try {
      Parse(c.text);
      ADD_FAILURE() << c.text;
    } catch (const CommandError& e) {
      EXPECT_THAT(e.what(), HasSubstr(path + ": " + c.error)) << c.text;
    }
  }
}

ConnectDefaults Choose(const HostFlags& flags, const Variables& variables,
                       const DefaultsFile& file) {
  return ChooseConnectDefaults(flags, From(variables), 8002, file);
}

TEST(DefaultsFileTest, FlagsThenEnvironmentThenSectionThenTopLevel) {
  DefaultsFile file = Parse(kFile);
  struct Case {
    const char* what;
    HostFlags flags;
    Variables variables;
    std::string host, address, account;
    int32_t port;
  } cases[] = {
      {"the top level alone", {}, {}, "localhost", "", "operator", 8100},
      {"an alias", {"web1", {}, {}}, {}, "web1", "web1.example.org", "operator", 8003},
      {"an alias whose host carries account and port", {"db", {}, {}}, {}, "db", "10.0.0.9",
       "dba", 9000},
      {"the environment over the section",
       {"db", {}, {}}, {{"PELMORA_ACCOUNT", "ops"}, {"PELMORA_PORT", "8200"}}, "db", "10.0.0.9",
       "ops", 8200},
      {"an alias from the environment", {}, {{"PELMORA_HOST", "web1"}}, "web1",
       "web1.example.org", "operator", 8003},
      {"flags over everything", {"me@web1:9", {}, {}}, {{"PELMORA_ACCOUNT", "ops"}}, "web1",
       "web1.example.org", "me", 9},
  };
  for (const Case& c : cases) {
    ConnectDefaults chosen = Choose(c.flags, c.variables, file);
    EXPECT_EQ(chosen.host, c.host) << c.what;
    EXPECT_EQ(chosen.address, c.address) << c.what;
    EXPECT_EQ(chosen.account, c.account) << c.what;
    EXPECT_EQ(chosen.port, c.port) << c.what;
  }
  DefaultsFile with_host = Parse("host = \"adm@central:8500\"\n");
  ConnectDefaults central = Choose({}, {}, with_host);
  EXPECT_EQ(central.host, "central");
  EXPECT_EQ(central.account, "adm");
  EXPECT_EQ(central.port, 8500);
  // Another host given drops the top level's host with its account and port.
  EXPECT_EQ(Choose({"web9", {}, {}}, {}, with_host).account, "");
}

TEST(DefaultsFileTest, OtherOptionsFillOnlyWhatFlagsAndEnvironmentLeave) {
  DefaultsFile file = Parse("timeout = 500\n" + std::string(kFile));
  AdminOptions options;
  ApplyDefaultsFile(file, "web1", {}, From(kHome), options);
  EXPECT_EQ(options.password_file, "/home/ann/pw/operator");
  EXPECT_EQ(options.connect_timeout_ms, 3000);
  EXPECT_EQ(options.timeout_ms, 500);
  EXPECT_TRUE(options.tls.enabled);
  EXPECT_EQ(options.tls.known_hosts, "/home/ann/.config/pelmora/known_hosts");

  AdminOptions flagged;
  flagged.password_file = "given";
  flagged.connect_timeout_ms = 0;
  flagged.tls.known_hosts = "/flag/known";
  ApplyDefaultsFile(file, "web1", {.password_file = true, .connect_timeout = true}, From(kHome),
                    flagged);
  EXPECT_EQ(flagged.password_file, "given");
  EXPECT_EQ(flagged.connect_timeout_ms, 0);
  EXPECT_EQ(flagged.tls.known_hosts, "/flag/known");

  // PELMORA_PASSWORD is the environment's password: it wins over the file's password file.
  AdminOptions from_environment;
  Variables with_password = {{"PELMORA_PASSWORD", "secret"}};
  ApplyDefaultsFile(file, "db", {}, From(with_password), from_environment);
  EXPECT_EQ(from_environment.password_file, "");
  EXPECT_EQ(from_environment.tls.fingerprint, "SHA256:abc");
  EXPECT_FALSE(from_environment.tls.enabled);
}

TEST(DefaultsFileTest, FleetHostsTakeTheirSectionsNameAndPort) {
  DefaultsFile file = Parse(kFile);
  AdminOptions run;
  HostTarget web1{"web1", 0};
  AdminOptions options = FleetHostOptions(file, web1, run);
  EXPECT_EQ(options.address, "web1.example.org");
  EXPECT_EQ(web1.port, 8003);
  EXPECT_TRUE(options.tls.enabled);
  HostTarget db_given_port{"db", 7000};
  EXPECT_EQ(FleetHostOptions(file, db_given_port, run).address, "10.0.0.9");
  EXPECT_EQ(db_given_port.port, 7000);
  HostTarget other{"other", 0};
  EXPECT_EQ(FleetHostOptions(file, other, run).address, "");
  EXPECT_EQ(other.port, 0);
}

TEST(DefaultsFileTest, PathFollowsXdgConfigHome) {
  EXPECT_EQ(DefaultsFilePath(From({{"HOME", "/home/ann"}})),
            "/home/ann/.config/pelmora/config.toml");
  EXPECT_EQ(DefaultsFilePath(From({{"HOME", "/home/ann"}, {"XDG_CONFIG_HOME", "/cfg"}})),
            "/cfg/pelmora/config.toml");
  EXPECT_EQ(DefaultsFilePath(From({})), "");
}

TEST(DefaultsFileTest, RefusesAFileOthersMayWrite) {
  std::string folder = ::testing::TempDir() + "defaults-file-" + std::to_string(::getpid());
  std::filesystem::create_directories(folder);
  std::string path = folder + "/config.toml";
  std::ofstream(path) << "account = \"operator\"\npassword_file = \"pw\"\n";
  ::chmod(path.c_str(), 0644);  // readable by others is fine
  EXPECT_EQ(ReadDefaultsFile(path, From(kHome)).defaults.password_file, folder + "/pw");
  ::chmod(path.c_str(), 0666);
  try {
    ReadDefaultsFile(path, From(kHome));
    ADD_FAILURE() << "a file others may write was read";
  } catch (const CommandError& e) {
    EXPECT_EQ(std::string(e.what()),
              path + ": refused, others may write to it (mode 666): chmod go-w " + path);
  }
  EXPECT_EQ(ReadDefaultsFile(folder + "/none.toml", From(kHome)).path, "");
  std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace pelmora_tool

namespace pelmora_tool {
namespace {

// The file's transport settings fill only what the TLS flags leave unset; a client pair comes
// whole from one place.
TEST(DefaultsFileTest, FileTransportFillsWhatTheTlsFlagsLeave) {
  pelmora::TlsClientSettings file;
  file.enabled = true;
  file.fingerprint = "SHA256:file";
  file.known_hosts = "/home/ann/hosts";
  file.client_certificate = "/home/ann/c.crt";
  file.client_key = "/home/ann/c.key";
  TlsFlags none = WithFileTransport({}, file);
  EXPECT_TRUE(none.tls);
  EXPECT_EQ(none.fingerprint, "SHA256:file");
  EXPECT_EQ(none.known_hosts, "/home/ann/hosts");
  EXPECT_EQ(none.certificate, "/home/ann/c.crt");
  TlsFlags given{.fingerprint = "SHA256:flag", .certificate = "mine.crt", .key = "mine.key"};
  TlsFlags merged = WithFileTransport(given, file);
  EXPECT_EQ(merged.fingerprint, "SHA256:flag");
  EXPECT_EQ(merged.certificate, "mine.crt");
  EXPECT_EQ(merged.key, "mine.key");
  EXPECT_FALSE(WithFileTransport({}, pelmora::TlsClientSettings{}).tls);
}

}  // namespace
}  // namespace pelmora_tool

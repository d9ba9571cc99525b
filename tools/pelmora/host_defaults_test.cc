#include "tools/pelmora/host_defaults.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

#include "tools/pelmora/crypto_io.h"

namespace pelmora_tool {
namespace {

using ::testing::HasSubstr;
using Variables = std::map<std::string, std::string>;

ConnectDefaults Choose(const HostFlags& flags, const Variables& variables) {
  return ChooseConnectDefaults(
      flags,
      [&variables](const char* name) -> const char* {
        auto found = variables.find(name);
        return found == variables.end() ? nullptr : found->second.c_str();
      },
      8002);
}

TEST(HostDefaultsTest, FlagsThenEnvironmentThenBuiltIns) {
  struct Case {
    const char* what;
    HostFlags flags;
    Variables variables;
    std::string host;
    std::string account;
    int32_t port;
  };
  const Case cases[] = {
      {"nothing given", {}, {}, "localhost", "", 8002},
      {"ssh's destination", {"operator@web1:8003", {}, {}}, {}, "web1", "operator", 8003},
      {"an address and a port", {"10.0.0.5:9000", {}, {}}, {}, "10.0.0.5", "", 9000},
      {"an account holding '@'", {"a@b@web1", {}, {}}, {}, "web1", "a@b", 8002},
      {"the environment fills in",
       {},
       {{"PELMORA_HOST", "web2"}, {"PELMORA_ACCOUNT", "ops"}, {"PELMORA_PORT", "8100"}},
       "web2", "ops", 8100},
      {"flags win over the environment",
       {"web1", "root", 8003},
       {{"PELMORA_HOST", "web2"}, {"PELMORA_ACCOUNT", "ops"}, {"PELMORA_PORT", "8100"}},
       "web1", "root", 8003},
      {"what the used host carries wins over the variables",
       {},
       {{"PELMORA_HOST", "me@web2:8200"}, {"PELMORA_ACCOUNT", "ops"}, {"PELMORA_PORT", "8100"}},
       "web2", "me", 8200},
      {"a flag host drops the variable's account and port",
       {"web1", {}, {}},
       {{"PELMORA_HOST", "me@web2:8200"}, {"PELMORA_PORT", "8100"}},
       "web1", "", 8100},
      {"empty variables name nothing",
       {},
       {{"PELMORA_HOST", ""}, {"PELMORA_ACCOUNT", ""}, {"PELMORA_PORT", ""}},
       "localhost", "", 8002},
      {"agreeing flags", {"op@web1:8003", "op", 8003}, {}, "web1", "op", 8003},
  };
  for (const Case& c : cases) {
    ConnectDefaults chosen = Choose(c.flags, c.variables);
    EXPECT_EQ(chosen.host, c.host) << c.what;
    EXPECT_EQ(chosen.account, c.account) << c.what;
    EXPECT_EQ(chosen.port, c.port) << c.what;
  }
}

TEST(HostDefaultsTest, ContradictionsAndMalformedValuesAreRefused) {
  struct Case {
    HostFlags flags;
    Variables variables;
    std::string message;
  };
  const Case cases[] = {
      {{"op@web1", "root", {}}, {}, "--host names the account op and --account root: give one"},
      {{"web1:8003", {}, 8004}, {}, "--host names the port 8003 and --port 8004: give one"},
      {{"@web1", {}, {}}, {}, "--host: an empty account before '@'"},
      {{"web1:99999", {}, {}}, {}, "--host: bad port"},
      {{"web[1-2]", {}, {}}, {}, "--host names one host (\"web[1-2]\" is 2): use --hosts"},
      {{"", {}, {}}, {}, "--host names no host"},
      {{}, {{"PELMORA_PORT", "80x"}}, "PELMORA_PORT: bad port \"80x\""},
      {{}, {{"PELMORA_PORT", "0"}}, "PELMORA_PORT: bad port \"0\""},
      {{}, {{"PELMORA_HOST", "a,b"}}, "PELMORA_HOST names one host"},
  };
  for (const Case& c : cases) {
    try {
      Choose(c.flags, c.variables);
      ADD_FAILURE() << "accepted: " << c.message;
    } catch (const CommandError& e) {
      EXPECT_THAT(e.what(), HasSubstr(c.message));
    }
  }
}


TEST(HostDefaultsTest, FleetHostsTakeTheirSectionsAccountsAndSecrets) {
  const char* text =
      "account = \"everyone\"\n"
      "password_file = \"/run/all.pw\"\n"
      "[hosts.web1]\n"
      "host = \"deploy@10.0.0.1:9000\"\n"
      "password_file = \"/run/deploy.pw\"\n"
      "[hosts.db1]\n"
      "account = \"dba\"\n"
      "access_code_file = \"/run/db.code\"\n"
      "tls = true\n";
  DefaultsFile file = ParseDefaultsFile(text, "/home/u/.config/pelmora/config.toml",
                                        [](const char*) -> const char* { return nullptr; });
  AdminOptions run;
  run.account = "everyone";
  run.password_file = "/run/all.pw";
  struct Case {
    const char* host;
    FleetGiven given;
    std::string account, password_file, access_code_file, address;
    int32_t port;
    bool tls;
  } cases[] = {
      {"web1", {}, "deploy", "/run/deploy.pw", "", "10.0.0.1", 9000, false},
      {"db1", {}, "dba", "/run/all.pw", "/run/db.code", "", 0, true},
      {"other", {}, "everyone", "/run/all.pw", "", "", 0, false},
      // --account (or PELMORA_ACCOUNT) and --password-file hold for every host.
      {"web1", {true, {.password_file = true}}, "everyone", "/run/all.pw", "", "10.0.0.1", 9000,
       false},
  };
  for (const Case& c : cases) {
    HostTarget target{c.host, 0};
    AdminOptions options = FleetHostOptions(file, target, run, c.given);
    EXPECT_EQ(options.account, c.account) << c.host;
    EXPECT_EQ(options.password_file, c.password_file) << c.host;
    EXPECT_EQ(options.access_code_file, c.access_code_file) << c.host;
    EXPECT_EQ(options.address, c.address) << c.host;
    EXPECT_EQ(target.port, c.port) << c.host;
    EXPECT_EQ(options.tls.enabled, c.tls) << c.host;
  }
}

}  // namespace
}  // namespace pelmora_tool

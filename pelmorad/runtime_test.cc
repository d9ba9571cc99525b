#include "pelmorad/runtime.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "pelmora/common/error.h"

namespace pelmorad {
namespace {

Config WithAccount(const std::string& keys) {
  return ParseConfig("[accounts.ops]\npassword = \"$y$j9T$abc$def\"\n" + keys, "test");
}

struct AccountCase {
  const char* keys;
  bool service_is_root;
  const char* refusal;  // part of the description, "" when the account is accepted
};

TEST(CheckAccounts, RefusesWhatWouldRunAsRootOrAsNobody) {
  const AccountCase cases[] = {
      {"commands = true\n", true, "accounts.ops: may run commands but names no run_as user"},
      {"tasks = true\n", true, "accounts.ops: may run tasks but names no run_as user"},
      {"commands = true\n", false, ""},  // a service that is not root runs them as itself
      {"commands = true\nrun_as = \"root\"\n", true, ""},
      {"read_only = true\n", true, ""},
      {"run_as = \"no-such-user-here\"\n", true,
       "accounts.ops.run_as: \"no-such-user-here\" is no user of this machine"},
      {"commands = true\nrun_as = \"no-such-user-here\"\n", false, "is no user of this machine"},
  };
  for (const AccountCase& test : cases) {
    SCOPED_TRACE(test.keys);
    Config config = WithAccount(test.keys);
    if (*test.refusal == '\0') {
      EXPECT_NO_THROW(CheckAccounts(config, test.service_is_root));
      continue;
    }
    try {
      CheckAccounts(config, test.service_is_root);
      ADD_FAILURE() << "accepted";
    } catch (const pelmora::Error& error) {
      EXPECT_EQ(error.Number(), 87);
      EXPECT_THAT(error.Description(), ::testing::HasSubstr(test.refusal));
    }
  }
}

TEST(CheckAccounts, LooksUpTheIdentityOfEachRunAsUser) {
  std::map<std::string, Identity> identities =
      CheckAccounts(WithAccount("commands = true\nrun_as = \"root\"\n"), true);
  ASSERT_EQ(identities.count("ops"), 1u);
  EXPECT_EQ(identities.at("ops").uid, 0u);
  EXPECT_EQ(identities.at("ops").gid, 0u);
  EXPECT_THAT(identities.at("ops").groups, ::testing::Contains(0u));
}

}  // namespace
}  // namespace pelmorad

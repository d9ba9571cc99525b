#include "pelmora/net/internal/known_hosts.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "pelmora/net/tls_client.h"

namespace pelmora::net_internal {
namespace {

TEST(KnownHosts, FindsTheFirstEntryOfAHostWithItsLineNumber) {
  const std::string file =
      "# known hosts\n"
      "\n"
      "other:8443 SHA256:other\n"
      "  server:8443\tSHA256:first  trailing words\r\n"
      "server:8443 SHA256:second\n"
      "server:8444\n"
      "#server:9 SHA256:commented\n"
      "server:10 SHA256:last";
  struct Case {
    const char* host;
    std::optional<KnownHost> expected;
  };
  const std::vector<Case> cases = {
      {"server:8443", KnownHost{"SHA256:first", 4}},
      {"other:8443", KnownHost{"SHA256:other", 3}},
      {"server:10", KnownHost{"SHA256:last", 8}},
      {"server:8444", std::nullopt},  // no fingerprint on its line
      {"server:9", std::nullopt},     // commented out
      {"#server:9", std::nullopt},
      {"SERVER:8443", std::nullopt},  // compared exactly
      {"server", std::nullopt},
      {"", std::nullopt},
  };
  for (const Case& c : cases) {
    const std::optional<KnownHost> found = FindKnownHost(file, c.host);
    ASSERT_EQ(found.has_value(), c.expected.has_value()) << c.host;
    if (!found) continue;
    EXPECT_EQ(found->fingerprint, c.expected->fingerprint) << c.host;
    EXPECT_EQ(found->line, c.expected->line) << c.host;
  }
}

TEST(KnownHosts, AWrittenLineIsFoundAgain) {
  const std::string line = KnownHostLine("10.0.0.1:8443", "SHA256:abc");
  EXPECT_EQ(line, "10.0.0.1:8443 SHA256:abc\n");
  const std::optional<KnownHost> found = FindKnownHost("x:1 SHA256:y\n" + line, "10.0.0.1:8443");
  ASSERT_TRUE(found);
  EXPECT_EQ(found->fingerprint, "SHA256:abc");
  EXPECT_EQ(found->line, 2);
}

TEST(CertificateFingerprint, IsBase64OfTheSha256WithoutPadding) {
  // The SHA-256 of no bytes and of "abc", as ssh-keygen would print them.
  EXPECT_EQ(CertificateFingerprint({}), "SHA256:47DEQpj8HBSa+/TImW+5JCeuQeRkm5NMpJWZG3hSuFU");
  const uint8_t abc[] = {'a', 'b', 'c'};
  EXPECT_EQ(CertificateFingerprint(abc), "SHA256:ungWv48Bz+pBQUDeXa4iI7ADYaOWF3qctBD/YfIAFa0");
}

}  // namespace
}  // namespace pelmora::net_internal

// The small pieces of the service: the login throttle, UTF-8 splitting of command output, file
// attributes and times, audit quoting, the errno mapping and the command line.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <vector>

#include "pelmora/common/error.h"
#include "pelmorad/audit.h"
#include "pelmorad/command_output.h"
#include "pelmorad/file_info.h"
#include "pelmorad/login_throttle.h"
#include "pelmorad/options.h"
#include "pelmorad/win_error.h"

namespace pelmorad {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

LoginThrottle MakeThrottle() {
  return LoginThrottle({.free_failures = 3,
                        .memory = seconds(60),
                        .step = milliseconds(100),
                        .ceiling = milliseconds(2000)});
}

TEST(LoginThrottle, DelaysGrowByStepsThenDoubleUpToTheCeilingWithoutLockingOut) {
  LoginThrottle throttle = MakeThrottle();
  const std::pair<int, int> delays[] = {{0, 0},    {1, 100},  {2, 200},  {3, 300},
                                        {4, 600},  {5, 1200}, {6, 2000}, {40, 2000}};
  for (auto [count, delay] : delays) {
    EXPECT_EQ(throttle.DelayFor(count), milliseconds(delay)) << count;
  }
}

TEST(LoginThrottle, AttemptsInFlightCountLikeFailures) {
  LoginThrottle throttle = MakeThrottle();
  auto now = LoginThrottle::Clock::now();
  EXPECT_EQ(throttle.Begin("a", "ops", now), milliseconds(0));
  EXPECT_EQ(throttle.Begin("a", "ops", now), milliseconds(100));
  EXPECT_EQ(throttle.Begin("a", "ops", now), milliseconds(200));
  throttle.Finish("a", "ops", false, now);
  throttle.Finish("a", "ops", false, now);
  throttle.Finish("a", "ops", false, now);
  EXPECT_EQ(throttle.Begin("a", "ops", now), milliseconds(300));  // three failures now
}

TEST(LoginThrottle, ParallelAttemptsBeforeAnyFailureAreFreeUpToTheAllowance) {
  LoginThrottle throttle({.free_failures = 3,
                          .memory = seconds(60),
                          .step = milliseconds(100),
                          .ceiling = milliseconds(2000),
                          .free_in_flight = 2});
  auto now = LoginThrottle::Clock::now();
  EXPECT_EQ(throttle.Begin("a", "ops", now), milliseconds(0));
  EXPECT_EQ(throttle.Begin("a", "ops", now), milliseconds(0));
  EXPECT_EQ(throttle.Begin("a", "ops", now), milliseconds(0));    // two in flight: free
  EXPECT_EQ(throttle.Begin("a", "ops", now), milliseconds(100));  // three: one beyond
  throttle.Finish("a", "ops", false, now);
  // From the first failure on, every attempt in flight counts again.
  EXPECT_EQ(throttle.Begin("b", "ops", now), milliseconds(600));  // 1 failure + 3 in flight
}

TEST(LoginThrottle, CountsPerAddressAndPerAccountName) {
  LoginThrottle throttle = MakeThrottle();
  auto now = LoginThrottle::Clock::now();
  for (const char* address : {"a", "b", "c"}) {  // one account name from rotating addresses
    throttle.Begin(address, "ops", now);
    throttle.Finish(address, "ops", false, now);
  }
  EXPECT_EQ(throttle.Begin("d", "ops", now), milliseconds(300));
  throttle.Finish("d", "ops", true, now);
  for (const char* account : {"x", "y", "z"}) {  // many account names from one address
    throttle.Begin("e", account, now);
    throttle.Finish("e", account, false, now);
  }
  EXPECT_EQ(throttle.Begin("e", "w", now), milliseconds(300));
}

TEST(LoginThrottle, ASuccessForgetsOnlyItsOwnAccountNamesFailures) {
  LoginThrottle throttle = MakeThrottle();
  auto now = LoginThrottle::Clock::now();
  for (int i = 0; i < 2; ++i) {
    throttle.Begin("a", "ops", now);
    throttle.Finish("a", "ops", false, now);
  }
  throttle.Begin("a", "reader", now);
  throttle.Finish("a", "reader", true, now);
  EXPECT_EQ(throttle.Begin("a", "ops", now), milliseconds(200));
  throttle.Finish("a", "ops", true, now);
  // The address keeps its failures; the account name's are gone.
  EXPECT_EQ(throttle.Begin("b", "ops", now), milliseconds(0));
  EXPECT_EQ(throttle.Begin("a", "other", now), milliseconds(200));
}

TEST(LoginThrottle, FailuresAreForgottenAfterTheirMemory) {
  LoginThrottle throttle = MakeThrottle();
  auto now = LoginThrottle::Clock::now();
  throttle.Begin("a", "ops", now);
  throttle.Finish("a", "ops", false, now);
  EXPECT_EQ(throttle.Begin("a", "ops", now + seconds(61)), milliseconds(0));
}

TEST(WholeUtf8Prefix, HoldsBackOnlyAnUnfinishedCharacter) {
  EXPECT_EQ(WholeUtf8Prefix("abc"), 3u);
  EXPECT_EQ(WholeUtf8Prefix(""), 0u);
  EXPECT_EQ(WholeUtf8Prefix("caf\xC3"), 3u);               // lead byte of é, no continuation
  EXPECT_EQ(WholeUtf8Prefix("caf\xC3\xA9"), 5u);           // é complete
  EXPECT_EQ(WholeUtf8Prefix("x\xE2\x82"), 1u);             // two of the three bytes of €
  EXPECT_EQ(WholeUtf8Prefix("x\xF0\x9F\x98\x80"), 5u);     // a four-byte character complete
  EXPECT_EQ(WholeUtf8Prefix("x\xFF"), 2u);                 // not UTF-8: never held back
  EXPECT_EQ(WholeUtf8Prefix("x\xC1"), 2u);                 // an overlong lead never completes
  EXPECT_EQ(WholeUtf8Prefix("\x80\x80\x80\x80\x80"), 5u);  // stray continuation bytes
}

TEST(FileInfo, AttributesFollowTheModeAndTheName) {
  EXPECT_EQ(AttributesFor(S_IFDIR | 0755, "dir"), kAttributeDirectory);
  EXPECT_EQ(AttributesFor(S_IFREG | 0644, "a.txt"), kAttributeArchive);
  EXPECT_EQ(AttributesFor(S_IFREG | 0444, "a.txt"), kAttributeArchive | kAttributeReadOnly);
  EXPECT_EQ(AttributesFor(S_IFREG | 0644, ".profile"), kAttributeArchive | kAttributeHidden);
}

TEST(FileInfo, FileTimesRoundTripTo100Nanoseconds) {
  timespec epoch{0, 0};
  EXPECT_EQ(ToFileTime(epoch), 116444736000000000u);
  timespec time{1622550896, 789000000};
  EXPECT_EQ(ToFileTime(time), 132670244967890000u);
  timespec back = FromFileTime(ToFileTime(time));
  EXPECT_EQ(back.tv_sec, time.tv_sec);
  EXPECT_EQ(back.tv_nsec, time.tv_nsec);
  EXPECT_EQ(ToFileTime(timespec{-11644473601, 0}), 0u);  // before 1601
  EXPECT_EQ(FromFileTime(0).tv_sec, -11644473600);
}

TEST(Audit, QuotesTextsAndEscapesControlCharacters) {
  std::string line = AuditLine({"127.0.0.1:5", "op", 9, "C:\\a\"b\nc", 2});
  EXPECT_THAT(line, ::testing::EndsWith(" audit client=127.0.0.1:5 account=\"op\" code=9 "
                                        "path=\"C:\\\\a\\\"b\\x0ac\" result=2"));
}

struct ErrnoCase {
  int error;
  Missing missing;
  int32_t code;
};

TEST(WinError, ErrnoMapsToTheNumbersClientsExpect) {
  for (ErrnoCase c :
       {ErrnoCase{ENOENT, Missing::kFile, 2}, ErrnoCase{ENOENT, Missing::kPath, 3},
        ErrnoCase{ENOTDIR, Missing::kFile, 3}, ErrnoCase{EXDEV, Missing::kFile, 5},
        ErrnoCase{ELOOP, Missing::kFile, 5}, ErrnoCase{EACCES, Missing::kFile, 5},
        ErrnoCase{EEXIST, Missing::kFile, 80}, ErrnoCase{ENOTEMPTY, Missing::kFile, 145},
        ErrnoCase{ENOSPC, Missing::kFile, 112}, ErrnoCase{ENAMETOOLONG, Missing::kFile, 206},
        ErrnoCase{EPROTO, Missing::kFile, 1}}) {
    EXPECT_EQ(FromErrno(c.error, c.missing), c.code) << c.error;
  }
  EXPECT_EQ(ErrorText(145), "The directory is not empty.");
  EXPECT_EQ(ErrorText(1326), "The user name or password is incorrect.");
}

Options Parse(std::vector<std::string_view> arguments) { return ParseOptions(arguments); }

TEST(Options, ReadsEveryOption) {
  Options options = Parse({"--config", "/x.toml", "--listen", "127.0.0.1:0", "--listen",
                           "[::1]:8002", "--port-file", "/p", "--listen-tls", "127.0.0.1:8443",
                           "--tls-port-file", "/t"});
  EXPECT_EQ(options.action, Action::kServe);
  EXPECT_EQ(options.server.config_path, "/x.toml");
  EXPECT_THAT(options.server.listen, ::testing::ElementsAre("127.0.0.1:0", "[::1]:8002"));
  EXPECT_EQ(options.server.port_file, "/p");
  EXPECT_THAT(options.server.listen_tls, ::testing::ElementsAre("127.0.0.1:8443"));
  EXPECT_EQ(options.server.tls_port_file, "/t");
  Options shown = Parse({"--show-fingerprint", "-c", "/y.toml"});
  EXPECT_EQ(shown.action, Action::kShowFingerprint);
  EXPECT_EQ(shown.server.config_path, "/y.toml");
  EXPECT_EQ(Parse({}).server.config_path, "/etc/pelmora/pelmorad.toml");
  EXPECT_EQ(Parse({"--check-config"}).action, Action::kCheckConfig);
  EXPECT_EQ(Parse({"--hash-password"}).action, Action::kHashPassword);
}

TEST(Options, RefusesUnknownArgumentsMissingValuesAndBadAddresses) {
  for (std::vector<std::string_view> arguments : {std::vector<std::string_view>{"--bogus"},
                                                  {"--config"},
                                                  {"--listen", "localhost:1"},
                                                  {"--listen", "127.0.0.1"},
                                                  {"--listen", "127.0.0.1:70000"},
                                                  {"--listen-tls", "localhost:8443"},
                                                  {"--tls-port-file"}}) {
    try {
      Parse(arguments);
      ADD_FAILURE() << "accepted " << arguments[0];
    } catch (const pelmora::Error& error) {
      EXPECT_EQ(error.Number(), 87);
    }
  }
}

TEST(ListenAddress, AcceptsIpv4AndBracketedIpv6) {
  auto v4 = ParseListenAddress("127.0.0.1:8002");
  ASSERT_TRUE(v4.has_value());
  EXPECT_EQ(v4->port(), 8002);
  auto v6 = ParseListenAddress("[::1]:0");
  ASSERT_TRUE(v6.has_value());
  EXPECT_TRUE(v6->address().is_v6());
  EXPECT_FALSE(ParseListenAddress(":80").has_value());
  EXPECT_FALSE(ParseListenAddress("1.2.3.4:").has_value());
}

}  // namespace
}  // namespace pelmorad

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

TEST(LoginThrottle, DelaysGrowThenTheAddressIsLockedOutUntilTheLockoutEnds) {
  LoginThrottle throttle(3, seconds(60), milliseconds(100));
  auto now = LoginThrottle::Clock::now();
  EXPECT_EQ(throttle.Check("a", now).delay, milliseconds(0));
  throttle.Failed("a", now);
  EXPECT_EQ(throttle.Check("a", now).delay, milliseconds(100));
  throttle.Failed("a", now);
  EXPECT_EQ(throttle.Check("a", now).delay, milliseconds(200));
  EXPECT_FALSE(throttle.Check("a", now).locked);
  throttle.Failed("a", now);
  EXPECT_TRUE(throttle.Check("a", now + seconds(59)).locked);
  EXPECT_FALSE(throttle.Check("b", now).locked);  // other addresses are not affected
  EXPECT_FALSE(throttle.Check("a", now + seconds(61)).locked);
}

TEST(LoginThrottle, SuccessForgetsFailures) {
  LoginThrottle throttle(2, seconds(60), milliseconds(100));
  auto now = LoginThrottle::Clock::now();
  throttle.Failed("a", now);
  throttle.Succeeded("a");
  throttle.Failed("a", now);
  EXPECT_FALSE(throttle.Check("a", now).locked);
  EXPECT_EQ(throttle.Tracked(), 1u);
}

TEST(WholeUtf8Prefix, HoldsBackOnlyAnUnfinishedCharacter) {
  EXPECT_EQ(WholeUtf8Prefix("abc"), 3u);
  EXPECT_EQ(WholeUtf8Prefix(""), 0u);
  EXPECT_EQ(WholeUtf8Prefix("caf\xC3"), 3u);               // lead byte of é, no continuation
  EXPECT_EQ(WholeUtf8Prefix("caf\xC3\xA9"), 5u);           // é complete
  EXPECT_EQ(WholeUtf8Prefix("x\xE2\x82"), 1u);             // two of the three bytes of €
  EXPECT_EQ(WholeUtf8Prefix("x\xF0\x9F\x98\x80"), 5u);     // a four-byte character complete
  EXPECT_EQ(WholeUtf8Prefix("x\xFF"), 2u);                 // not UTF-8: never held back
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
                           "[::1]:8002", "--port-file", "/p"});
  EXPECT_EQ(options.action, Action::kServe);
  EXPECT_EQ(options.server.config_path, "/x.toml");
  EXPECT_THAT(options.server.listen, ::testing::ElementsAre("127.0.0.1:0", "[::1]:8002"));
  EXPECT_EQ(options.server.port_file, "/p");
  EXPECT_EQ(Parse({}).server.config_path, "/etc/pelmora/pelmorad.toml");
  EXPECT_EQ(Parse({"--check-config"}).action, Action::kCheckConfig);
  EXPECT_EQ(Parse({"--hash-password"}).action, Action::kHashPassword);
}

TEST(Options, RefusesUnknownArgumentsMissingValuesAndBadAddresses) {
  for (std::vector<std::string_view> arguments : {std::vector<std::string_view>{"--bogus"},
                                                  {"--config"},
                                                  {"--listen", "localhost:1"},
                                                  {"--listen", "127.0.0.1"},
                                                  {"--listen", "127.0.0.1:70000"}}) {
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

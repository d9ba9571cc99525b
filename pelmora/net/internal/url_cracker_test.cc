#include "pelmora/net/internal/url_cracker.h"

#include <gtest/gtest.h>

#include <string>

namespace pelmora::net_internal {
namespace {

struct CanonicalCase {
  const char* input;
  const char* expected;
};

// Every canonicalisation the internet object relies on, in browser mode.
constexpr CanonicalCase kCanonicalCases[] = {
    {"http://h/a b/c d?q=a b#frag x", "http://h/a%20b/c%20d?q=a b#frag x"},
    {"http://h/a?x=1  ", "http://h/a?x=1"},
    {"http://h/a\tb", "http://h/ab"},
    {"http://h/a\r\nb", "http://h/ab"},
    {"http://h/a/../b/./c", "http://h/b/c"},
    {"http://h/a/..?x", "http://h/?x"},
    {"http://h/..", "http://h/.."},
    {"http://h/a/b/../../../c", "http://h/../c"},
    {"http://h/./a", "http://h/a"},
    {"http://h/a/.", "http://h/a/"},
    {"http://h/a%20b/%41%zz%", "http://h/a%20b/%41%zz%"},
    {"http://h/\"<>{}|^`~", "http://h/%22%3C%3E%7B%7D%7C%5E%60~"},
    {"http://h/\xE4\xF6", "http://h/%E4%F6"},
    {"http://h/a?q=\"<>", "http://h/a?q=\"<>"},
    {"http://h\\a\\b\\c", "http://h/a/b/c"},
    {"http://h/a\\b?x=\\y", "http://h/a/b?x=/y"},
    {"http://h", "http://h/"},
    {"HTTP://H.Example.COM/A", "HTTP://H.Example.COM/A"},
    {"h/a", "h/a"},
    {"ftp://h/a b", "ftp://h/a%20b"},
    {"ftp://h/x/../y", "ftp://h/x/../y"},
    {"gopher://h/1 x", "gopher://h/1%20x"},
    {"file:///c:/x", "file://c:/x"},
    {"file:////::/x", "file:////::/x"},  // no drive letter: nothing dropped
    {"http://h/a", "http://h/a"},
    {"http://h:8080/a/b?x=1#f", "http://h:8080/a/b?x=1#f"},
    {"https://u:p@h/", "https://u:p@h/"},
    {"ftp://u:p@h/dir/file.txt", "ftp://u:p@h/dir/file.txt"},
    {"gopher://h/1", "gopher://h/1"},
    {"mailto:x@y", "mailto:x@y"},
};

TEST(UrlCracker, CanonicalizesEveryKnownForm) {
  for (const CanonicalCase& c : kCanonicalCases) {
    CanonicalResult result = CanonicalizeUrl(c.input);
    EXPECT_TRUE(result.ok) << c.input;
    EXPECT_EQ(result.url, c.expected) << c.input;
  }
}

TEST(UrlCracker, CanonicalFormOverTheBufferFailsWithInsufficientBuffer) {
  std::string fits = "http://h/" + std::string(kMaxCanonicalUrl - 9, 'a');
  EXPECT_TRUE(CanonicalizeUrl(fits).ok);
  CanonicalResult over = CanonicalizeUrl(fits + "a");
  EXPECT_FALSE(over.ok);
  EXPECT_EQ(over.error, 122);
  // Escaping counts: 400 spaces become 1200 characters.
  EXPECT_EQ(CanonicalizeUrl("http://h/" + std::string(400, ' ') + "x").error, 122);
}

struct CrackCase {
  const char* input;
  int32_t scheme;
  const char* host;
  int32_t port;
  const char* user;
  const char* password;
  const char* path;
  const char* extra;
};

constexpr CrackCase kCrackCases[] = {
    {"http://h/a", 3, "h", 80, "", "", "/a", ""},
    {"http://h:8080/a/b?x=1#f", 3, "h", 8080, "", "", "/a/b", "?x=1#f"},
    {"https://u:p@h/", 4, "h", 443, "u", "p", "/", ""},
    {"ftp://u:p@h/dir/file.txt", 1, "h", 21, "u", "p", "/dir/file.txt", ""},
    {"gopher://h/1", 2, "h", 0, "", "", "/1", ""},
    {"mailto:x@y", 7, "", 0, "", "", "x@y", ""},
    {"file:///c:/x", 5, "", 0, "", "", "c:\\x", ""},
    {"http://h", 3, "h", 80, "", "", "", ""},
    {"http://h?x=1", 3, "h", 80, "", "", "", "?x=1"},
    {"http://h#f", 3, "h", 80, "", "", "", "#f"},
    {"http://h/a#c?b", 3, "h", 80, "", "", "/a#c", "?b"},
    {"http://u:p:q@h/", 3, "h", 80, "u:p", "q", "/", ""},
    {"http://u@h/", 3, "h", 80, "u", "", "/", ""},
    {"http://u:@h/", 3, "h", 80, "u", "", "/", ""},
    {"http://[::1]:8080/a", 3, "[::1]", 8080, "", "", "/a", ""},
    {"https://h:99999/", 4, "h", 34463, "", "", "/", ""},
    {"https://h:abc/", 4, "h", 0, "", "", "/", ""},
    {"telnet://h", -1, "h", 0, "", "", "", ""},
    {"about:blank", -1, "", 0, "", "", "blank", ""},
    {"http:/h/a", 3, "", 0, "", "", "/h/a", ""},
    {"http://h\\a\\b", 3, "h\\a\\b", 80, "", "", "", ""},
    {"HtTp://h/", 3, "h", 80, "", "", "/", ""},
};

TEST(UrlCracker, CracksEveryKnownForm) {
  for (const CrackCase& c : kCrackCases) {
    CrackedUrl u = CrackUrl(c.input);
    ASSERT_TRUE(u.ok) << c.input;
    EXPECT_EQ(u.scheme, c.scheme) << c.input;
    EXPECT_EQ(u.host, c.host) << c.input;
    EXPECT_EQ(u.port, c.port) << c.input;
    EXPECT_EQ(u.user, c.user) << c.input;
    EXPECT_EQ(u.password, c.password) << c.input;
    EXPECT_EQ(u.path, c.path) << c.input;
    EXPECT_EQ(u.extra, c.extra) << c.input;
  }
}

TEST(UrlCracker, TextWithoutSchemeFailsWithUnrecognizedScheme) {
  for (const char* input : {"h/a", "", ":x", "a b:c"}) {
    CrackedUrl u = CrackUrl(input);
    EXPECT_FALSE(u.ok) << input;
    EXPECT_EQ(u.error, 12006) << input;
  }
}

TEST(UrlCracker, SchemeNameKeepsItsCaseAndMatchesWithoutIt) {
  EXPECT_EQ(CrackUrl("HtTp://h/").scheme_text, "HtTp");
  EXPECT_EQ(SchemeNumber("GOPHER"), kSchemeGopher);
  EXPECT_EQ(SchemeNumber("socks"), kSchemeSocks);
  EXPECT_EQ(SchemeNumber("gopher2"), kSchemeUnknown);
}

TEST(UrlCracker, WireDocumentEscapesWhatTheWireCannotCarry) {
  EXPECT_EQ(WireDocument(""), "/");
  EXPECT_EQ(WireDocument("a b"), "/a%20b");
  EXPECT_EQ(WireDocument("/a b?c d"), "/a%20b?c%20d");
  EXPECT_EQ(WireDocument("/x/../y?q=\xE4"), "/x/../y?q=%E4");
  EXPECT_EQ(WireDocument("/a#frag?b"), "/a");
}

}  // namespace
}  // namespace pelmora::net_internal

#include "pelmora/net/internal/http_headers.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

namespace pelmora::net_internal {
namespace {

ResponseHeaders Feed(std::initializer_list<const char*> lines) {
  ResponseHeaders headers;
  for (const char* line : lines) headers.AddLine(line);
  return headers;
}

TEST(ResponseHeaders, RawBlockKeepsOrderAndDuplicatesAndEndsWithEmptyLine) {
  ResponseHeaders h = Feed({"HTTP/1.1 200 OK\r\n", "Content-Type: text/plain\r\n",
                            "X-Dup: first\r\n", "Set-Cookie: a=1; Path=/\r\n", "X-Dup: second\r\n",
                            "Content-Length: 5\r\n", "\r\n"});
  std::string raw = h.Raw();
  EXPECT_EQ(raw,
            "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nX-Dup: first\r\n"
            "Set-Cookie: a=1; Path=/\r\nX-Dup: second\r\nContent-Length: 5\r\n\r\n");
  EXPECT_EQ(raw.size(), 118u);
  EXPECT_TRUE(h.Ended());
  EXPECT_EQ(h.Status(), 200);
}

TEST(ResponseHeaders, FindsByNameWithoutCaseAndByOccurrence) {
  ResponseHeaders h = Feed({"HTTP/1.1 200 OK\n", "X-Dup:   first  \n", "x-dup: second\n", "\n"});
  EXPECT_EQ(h.Find("X-DUP"), "first");
  EXPECT_EQ(h.Find("x-dup", 1), "second");
  EXPECT_EQ(h.Find("x-dup", 2), std::nullopt);
  EXPECT_EQ(h.Find("Missing"), std::nullopt);
  EXPECT_EQ(h.Find("HTTP/1.1 200 OK"), std::nullopt);
}

TEST(ResponseHeaders, BareLineFeedsBecomeCrLfAndFoldedLinesAreDropped) {
  ResponseHeaders h = Feed({"HTTP/1.1 200 \n", "X-Fold: a\n", "  b\n", "\n"});
  EXPECT_EQ(h.Raw(), "HTTP/1.1 200 \r\nX-Fold: a\r\n\r\n");
  EXPECT_EQ(h.Find("X-Fold"), "a");
}

TEST(ResponseHeaders, StatusLineStartsANewBlockAfterRedirectsAndInterimReplies) {
  ResponseHeaders h = Feed({"HTTP/1.1 100 Continue\r\n", "\r\n", "HTTP/1.1 302 Found\r\n",
                            "Location: /b\r\n", "\r\n", "HTTP/1.1 200 OK\r\n", "A: 1\r\n", "\r\n",
                            "Trailer: x\r\n"});
  EXPECT_EQ(h.Raw(), "HTTP/1.1 200 OK\r\nA: 1\r\n\r\n");
  EXPECT_EQ(h.Find("Location"), std::nullopt);
}

TEST(ResponseHeaders, NothingReceivedGivesAnEmptyBlock) {
  ResponseHeaders h;
  EXPECT_FALSE(h.AddLine("\r\n"));
  EXPECT_EQ(h.Raw(), "");
  EXPECT_EQ(h.Status(), 0);
}

TEST(ResponseHeaders, StatusCodeNeedsThreeDigits) {
  struct Case {
    const char* line;
    int32_t status;
  };
  for (Case c : {Case{"HTTP/1.1 404 Not Found", 404}, Case{"HTTP/1.0 200", 200},
                 Case{"HTTP/1.1 20 OK", 0}, Case{"HTTP/1.1 2000 OK", 0}, Case{"HTTP/1.1", 0},
                 Case{"HTTX/1.1 200 OK", 0}, Case{"HTTP/1.1 2x0 OK", 0}}) {
    EXPECT_EQ(ParseStatusCode(c.line), c.status) << c.line;
  }
}

TEST(RequestHeaders, CallerLinesAreAddedOrReplaceTheirName) {
  struct Case {
    const char* caller;
    std::vector<std::string> sent;
  };
  const Case kCases[] = {
      {"", {"Accept:", "Connection: Keep-Alive"}},
      {"connection:  close \r\n", {"Accept:", "connection: close"}},
      {"X-A: 1\r\nX-A: 2", {"Accept:", "Connection: Keep-Alive", "X-A: 2"}},
      {"Accept: text/html\nNoColon\r\n\r\nX-B:",
       {"Accept: text/html", "Connection: Keep-Alive", "X-B:"}},
      {"Connection:", {"Accept:", "Connection:"}},  // an empty value sends no such header
  };
  for (const Case& c : kCases) {
    std::vector<std::string> lines = {"Accept:", "Connection: Keep-Alive"};
    AddOrReplaceHeaders(lines, c.caller);
    EXPECT_EQ(lines, c.sent) << c.caller;
  }
}

}  // namespace
}  // namespace pelmora::net_internal

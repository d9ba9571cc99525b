// `pelmora http` run in-process against the loopback web server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tools/pelmora/commands.h"
#include "pelmora/testing/scripted_peer.h"
#include "pelmora/testing/web_server.h"

namespace pelmora_tool {
namespace {

// Parses `args` as the tool would and runs the selected command; returns its status.
int RunTool(std::vector<std::string> args) {
  CLI::App app;
  CommandAction action;
  AddHttpCommand(app, action);
  std::vector<const char*> argv{"pelmora"};
  for (const std::string& a : args) argv.push_back(a.c_str());
  app.parse(static_cast<int>(argv.size()), argv.data());
  return action();
}

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

TEST(HttpCommand, GetHeadAndPutGoThroughTheWebServer) {
  pelmora::testing::WebServer web;
  std::string out = web.DocumentRoot() + "/../out.bin";
  EXPECT_EQ(RunTool({"http", "get", web.HttpUrl("/small.txt"), "-o", out}), 0);
  EXPECT_EQ(Slurp(out), "small file\n");
  EXPECT_EQ(RunTool({"http", "head", web.HttpUrl("/small.txt"), "-o", out}), 0);
  EXPECT_EQ(Slurp(out).rfind("HTTP/1.1 200 OK\r\n", 0), 0u);
  std::string source = web.WriteDocument("source.txt", "put body");
  EXPECT_EQ(RunTool({"http", "put", web.HttpUrl("/copy.txt"), "-d", "@" + source, "-o", out}), 0);
  EXPECT_EQ(Slurp(web.DocumentRoot() + "/copy.txt"), "put body");
  EXPECT_EQ(RunTool({"http", "post", web.HttpUrl("/post"), "-d", "a=1", "-H", "X-A: 1", "-o",
                     out}),
            0);
  EXPECT_EQ(Slurp(out), "posted");
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(RunTool({"http", "get", web.HttpUrl("/small.txt"), "-o", "/dev/full"}), 2);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "pelmora: http: cannot write /dev/full\n");
}

// Every verb (the subcommands and -X), a -d body and -H headers reach nginx on a port above 32767,
// which the object's 16-bit port property cannot hold.
TEST(HttpCommand, EveryVerbWithBodyAndHeadersWorksOnAPortAbove32767) {
  using Range = pelmora::testing::WebServer::HttpPortRange;
  pelmora::testing::WebServer web(Range::kAbove32767);
  ASSERT_GT(web.HttpPort(), 32767);
  std::string out = web.DocumentRoot() + "/../out.txt";
  std::string echo = web.HttpUrl("/echo-request");
  struct Case {
    std::vector<std::string> args;
    std::string body;  // what -o receives
  };
  const Case cases[] = {
      {{"get", echo, "-H", "X-Test: one"}, "method=GET;x-test=one;length=;"},
      {{"get", echo, "-X", "delete", "-H", "X-Test: two"}, "method=DELETE;x-test=two;length=;"},
      {{"get", echo, "-X", "OPTIONS", "-d", "abc"}, "method=OPTIONS;x-test=;length=3;"},
      {{"post", echo, "-d", "a=1", "-H", "X-Test: three"}, "method=POST;x-test=three;length=3;"},
      {{"put", echo, "-X", "PATCH", "-d", "12345"}, "method=PATCH;x-test=;length=5;"},
      {{"get", web.HttpUrl("/small.txt"), "-H", "X-Test: 4"}, "small file\n"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args = {"http"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    args.insert(args.end(), {"-o", out});
    EXPECT_EQ(RunTool(args), 0) << c.args[0] << " " << c.body;
    EXPECT_EQ(Slurp(out), c.body);
  }
  std::string source = web.WriteDocument("source.txt", "put body");
  EXPECT_EQ(RunTool({"http", "put", web.HttpUrl("/copy.txt"), "-d", "@" + source, "-H",
                     "X-Test: 5", "-o", out}),
            0);
  EXPECT_EQ(Slurp(web.DocumentRoot() + "/copy.txt"), "put body");
  EXPECT_EQ(RunTool({"http", "head", web.HttpUrl("/small.txt"), "-H", "X-Test: 6", "-o", out}),
            0);
  EXPECT_EQ(Slurp(out).rfind("HTTP/1.1 200 OK\r\n", 0), 0u);
}

// A one-response HTTP server on a loopback port from the ephemeral range (above 32767).
struct OneResponse {
  explicit OneResponse(const std::string& response) {
    peer.Send(pelmora::testing::Bytes(response.begin(), response.end())).ReceiveUntilClosed();
    peer.Start();
  }
  std::string Url() const { return "http://127.0.0.1:" + std::to_string(peer.Port()) + "/x"; }
  pelmora::testing::ScriptedPeer peer;
};

TEST(HttpCommand, HighPortsIncludedHeadersAndFail) {
  const std::string kOk = "HTTP/1.1 200 OK\r\nContent-Length: 6\r\nConnection: close\r\n\r\nhello\n";
  const std::string kMissing =
      "HTTP/1.1 404 Not Found\r\nContent-Length: 5\r\nConnection: close\r\n\r\nnope\n";
  std::string out = ::testing::TempDir() + "http-high-port.txt";
  {
    OneResponse server(kOk);
    ASSERT_GT(server.peer.Port(), 32767);
    EXPECT_EQ(RunTool({"http", "get", "-i", server.Url(), "-o", out}), 0);
    EXPECT_EQ(Slurp(out), "HTTP/1.1 200 OK\r\nContent-Length: 6\r\nConnection: close\r\n\r\nhello\n");
  }
  {
    OneResponse server(kMissing);
    EXPECT_EQ(RunTool({"http", "get", server.Url(), "-o", out}), 0) << "a 404 is a response";
    EXPECT_EQ(Slurp(out), "nope\n");
  }
  {
    OneResponse server(kMissing);
    std::remove(out.c_str());
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(RunTool({"http", "get", "--fail", server.Url(), "-o", out}), 1);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "pelmora: http: " + server.Url() + ": HTTP/1.1 404 Not Found\n");
    EXPECT_FALSE(std::ifstream(out).good()) << "--fail writes no body";
  }  {
    OneResponse stalled("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\npartial");
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(RunTool({"http", "get", "--max-time", "0.3", stalled.Url(), "-o", out}), 1);
    EXPECT_THAT(::testing::internal::GetCapturedStderr(),
                ::testing::StartsWith("pelmora: http: error 12002: "));
  }
}

TEST(HttpCommand, FailureExitsWithOneAndNamesTheWinInetNumber) {
  ::testing::internal::CaptureStderr();
  int status = RunTool({"http", "get", "http://127.0.0.1:1/"});
  std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(status, 1);
  EXPECT_EQ(err,
            "pelmora: http: error 12029: A connection with the server could not be established\n");
  EXPECT_EQ(RunTool({"http", "post", "http://127.0.0.1:1/", "-d", "@/nonexistent/file"}), 2);
}

TEST(HttpCommand, CertificatesAreCheckedAgainstTheCaFileOrNotAtAllWithInsecure) {
  using Cert = pelmora::testing::WebServer::Cert;
  ::unsetenv("SSL_CERT_FILE");
  pelmora::testing::WebServer web;
  std::string out = web.DocumentRoot() + "/../tls-out.txt";
  struct Case {
    Cert cert;
    std::vector<std::string> flags;
    int status;
    const char* error;  // the start of standard error when the request fails
  };
  const Case cases[] = {
      {Cert::kValid, {}, 1, "pelmora: http: error 12045: "},
      {Cert::kValid, {"--cacert", web.CaFile()}, 0, ""},
      {Cert::kWrongHost, {"--cacert", web.CaFile()}, 1, "pelmora: http: error 12038: "},
      {Cert::kSelfSigned, {"--cacert", web.CaFile()}, 1, "pelmora: http: error 12045: "},
      {Cert::kSelfSigned, {"-k"}, 0, ""},
      {Cert::kExpired, {"--insecure"}, 0, ""},
      {Cert::kValid, {"--cacert", web.CaFile() + ".missing"}, 2,
       "pelmora: http: cannot read the CA file "},
  };
  for (const Case& c : cases) {
    std::remove(out.c_str());
    std::vector<std::string> args = {"http", "get", web.TlsUrl(c.cert, "/small.txt"), "-o", out};
    args.insert(args.end(), c.flags.begin(), c.flags.end());
    ::testing::internal::CaptureStderr();
    int status = RunTool(args);
    std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(status, c.status) << args[2] << " " << err;
    if (c.status == 0) {
      EXPECT_EQ(Slurp(out), "small file\n");
    } else {
      EXPECT_THAT(err, ::testing::StartsWith(c.error));
    }
  }
}

}  // namespace
}  // namespace pelmora_tool

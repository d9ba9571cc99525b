// The WinINet object against a real web server (nginx) on loopback, plain and TLS.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <memory>
#include <string>
#include <vector>

#include "pelmora/net/wininet.h"
#include "pelmora/testing/raised_error.h"
#include "pelmora/testing/web_server.h"

namespace pelmora {
namespace {

using testing::RaisedError;
using testing::WebServer;
using Cert = WebServer::Cert;

// Large enough for the result's pages to be made resident ahead of the copying.
constexpr size_t kHugeSize = (size_t{40} << 20) + 12345;

std::string Pattern(size_t size) {
  std::string text(size, '\0');
  for (size_t i = 0; i < size; ++i) text[i] = static_cast<char>('a' + (i * 7 + i / 251) % 26);
  return text;
}

std::string Text(const Variant& v) { return v.IsEmpty() ? std::string() : v.ToString(); }

std::string Bytes(const Variant& v) {
  const auto* bytes = v.Get<std::vector<uint8_t>>();
  return bytes == nullptr ? "<not bytes>" : std::string(bytes->begin(), bytes->end());
}

// Records the totals of Receiving; cancels the transfer at the n-th event when asked.
class Recorder : public WinINetEvents {
 public:
  explicit Recorder(WinINet& inet, size_t cancel_at = 0) : inet_(inet), cancel_at_(cancel_at) {
    inet_.SetEventSink(this);
  }
  ~Recorder() override { inet_.SetEventSink(nullptr); }
  void Receiving(int32_t Size) override {
    totals.push_back(Size);
    if (totals.size() == cancel_at_) inet_.Cancel();
  }
  void Uploading(int32_t) override { ++uploads; }
  std::vector<int32_t> totals;
  int uploads = 0;

 private:
  WinINet& inet_;
  size_t cancel_at_;
};

class WinINetWeb : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    web_ = new WebServer();
    web_->WriteDocument("big.bin", Pattern(1234567));
    web_->WriteDocument("huge.bin", Pattern(kHugeSize));
    web_->WriteDocument("empty.txt", "");
    ::setenv("SSL_CERT_FILE", web_->CaFile().c_str(), 1);
  }
  static void TearDownTestSuite() {
    delete web_;
    web_ = nullptr;
  }
  static WebServer* web_;
};

WebServer* WinINetWeb::web_ = nullptr;

TEST_F(WinINetWeb, OpenUrlReturnsTheWholeBodyAsTextOrBytes) {
  WinINet inet;
  EXPECT_EQ(Text(inet.OpenURL(web_->HttpUrl("/small.txt"))), "small file\n") << web_->ErrorLog();
  EXPECT_EQ(Bytes(inet.OpenURL("", icByteArray)), "small file\n");
  EXPECT_NE(inet.hInternet(), 0);
  EXPECT_EQ(inet.GetHeader("Content-Length"), "11");
}

TEST_F(WinINetWeb, EmptyBodyGivesEmptyValueOrEmptyBytes) {
  WinINet inet;
  EXPECT_TRUE(inet.OpenURL(web_->HttpUrl("/empty.txt")).IsEmpty());
  EXPECT_EQ(inet.OpenURL("", icByteArray), Variant(std::vector<uint8_t>()));
}

TEST_F(WinINetWeb, LargeBodyArrivesWholeWithGrowingReceivingTotals) {
  WinINet inet;
  Recorder recorder(inet);
  inet.SetChunkSize(500000);
  EXPECT_EQ(Bytes(inet.OpenURL(web_->HttpUrl("/big.bin"), icByteArray)), Pattern(1234567));
  EXPECT_EQ(recorder.totals, (std::vector<int32_t>{500000, 1000000, 1234567}));
  EXPECT_EQ(recorder.uploads, 0);
}

TEST_F(WinINetWeb, HugeBodyArrivesWholeAndCancellingItKeepsWhatWasRead) {
  WinINet inet;
  Recorder recorder(inet);
  inet.SetChunkSize(4000000);
  EXPECT_EQ(Bytes(inet.OpenURL(web_->HttpUrl("/huge.bin"), icByteArray)), Pattern(kHugeSize));
  ASSERT_EQ(recorder.totals.size(), kHugeSize / 4000000 + 1);
  EXPECT_EQ(recorder.totals[0], 4000000);
  EXPECT_EQ(recorder.totals.back(), static_cast<int32_t>(kHugeSize));

  Recorder canceller(inet, 3);
  Variant body = inet.OpenURL(web_->HttpUrl("/huge.bin"), icByteArray);
  EXPECT_EQ(canceller.totals.back(), 12000000);
  EXPECT_EQ(Bytes(body), Pattern(12000000));
}

TEST_F(WinINetWeb, ChunkedResponseIsReassembled) {
  WinINet inet;
  std::string body = Text(inet.OpenURL(web_->HttpUrl("/chunked/big.bin")));
  EXPECT_EQ(inet.GetHeader("Transfer-Encoding"), "chunked");
  EXPECT_EQ(body, Pattern(1234567));
}

TEST_F(WinINetWeb, CancelFromReceivingStopsAfterThatRead) {
  WinINet inet;
  Recorder recorder(inet, 1);
  inet.SetChunkSize(100000);
  Variant body = inet.OpenURL(web_->HttpUrl("/big.bin"), icByteArray);
  EXPECT_EQ(recorder.totals, std::vector<int32_t>{100000});
  EXPECT_EQ(Bytes(body), Pattern(100000));
  EXPECT_TRUE(inet.GetChunk(10).IsEmpty());  // the request is closed
}

TEST_F(WinINetWeb, GetChunkWalksTheResponseInCallerSizedPieces) {
  WinINet inet;
  inet.Execute(web_->HttpUrl("/big.bin"), "GET");
  std::string all;
  std::vector<size_t> sizes;
  for (int i = 0; i < 100; ++i) {
    std::string piece = Bytes(inet.GetChunk(300000, icByteArray));
    if (piece.empty()) break;
    sizes.push_back(piece.size());
    all += piece;
  }
  EXPECT_EQ(sizes, (std::vector<size_t>{300000, 300000, 300000, 300000, 34567}));
  EXPECT_EQ(all, Pattern(1234567));
  EXPECT_EQ(Bytes(inet.GetChunk(1, icByteArray)), "");
}

TEST_F(WinINetWeb, ReadResponseToHandsOverTheRestInOrderAndStopsWhenRefused) {
  WinINet inet;
  inet.Execute(web_->HttpUrl("/big.bin"), "GET");
  std::string all = Bytes(inet.GetChunk(1000, icByteArray));  // some may already be staged
  int pieces = 0;
  EXPECT_TRUE(inet.ReadResponseTo([&](const uint8_t* data, size_t size) {
    all.append(reinterpret_cast<const char*>(data), size);
    ++pieces;
    return true;
  }));
  EXPECT_EQ(all, Pattern(1234567));
  EXPECT_GT(pieces, 0);
  EXPECT_TRUE(inet.ReadResponseTo([](const uint8_t*, size_t) { return false; })) << "ended";

  inet.Execute(web_->HttpUrl("/chunked/big.bin"), "GET");
  size_t taken = 0;
  EXPECT_FALSE(inet.ReadResponseTo([&](const uint8_t*, size_t size) {
    taken += size;
    return false;
  }));
  EXPECT_GT(taken, 0u);
  EXPECT_TRUE(inet.GetChunk(10).IsEmpty()) << "a refused piece closes the request";
  EXPECT_TRUE(inet.ReadResponseTo([](const uint8_t*, size_t) { return false; }));
}

TEST_F(WinINetWeb, FullPortRangeLetsRequestsWithAVerbUsePortsAbove32767) {
  WebServer high(WebServer::HttpPortRange::kAbove32767);
  std::string url = high.HttpUrl("/small.txt");
  WinINet inet;
  EXPECT_EQ(RaisedError([&] { inet.Execute(url, "GET"); }).Number(), 6);
  inet.SetFullPortRange(true);
  inet.Execute(url, "GET");
  EXPECT_EQ(Bytes(inet.GetResponse(icByteArray)), "small file\n");
  EXPECT_EQ(RaisedError([&] { (void)inet.RemotePort(); }).Number(), 6) << "still 16-bit";
  std::string file = high.WriteDocument("up.txt", "uploaded");
  inet.UploadFile(file, 0, 0, high.HttpUrl("/post"));
  EXPECT_EQ(Bytes(inet.GetResponse(icByteArray)), "posted");
}

TEST_F(WinINetWeb, HeadReturnsHeadersWithoutBody) {
  WinINet inet;
  inet.Execute(web_->HttpUrl("/big.bin"), "head");
  EXPECT_EQ(inet.GetHeader("content-length"), "1234567");
  EXPECT_TRUE(inet.GetResponse().IsEmpty());
}

TEST_F(WinINetWeb, AllHeadersComeWithStatusLineFirstAndEmptyLineLast) {
  WinINet inet;
  inet.Execute(web_->HttpUrl("/dup"), "GET");
  std::string all = inet.GetHeader();
  EXPECT_EQ(all.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << all;
  EXPECT_EQ(all.substr(all.size() - 4), "\r\n\r\n");
  EXPECT_NE(all.find("X-Dup: first\r\nX-Dup: second\r\n"), std::string::npos) << all;
  EXPECT_EQ(inet.GetHeader("x-dup"), "first");
  EXPECT_EQ(inet.GetHeader("X-Missing"), "");
  EXPECT_EQ(Text(inet.GetResponse()), "dup");
}

TEST_F(WinINetWeb, RequestCarriesTheAgentAndNoAcceptHeader) {
  WinINet inet;
  EXPECT_EQ(Text(inet.OpenURL(web_->HttpUrl("/echo-headers"))),
            "agent=Corvanta Inet Agent;accept=;connection=Keep-Alive;cookie=;");
}

TEST_F(WinINetWeb, PutStoresTheBodyAndPostIsAnswered) {
  WinINet inet;
  Variant body("uploaded text");
  inet.Execute(web_->HttpUrl("/put/one.txt"), "put", body, "Content-Type: text/plain");
  EXPECT_EQ(body, Variant("uploaded text"));
  EXPECT_EQ(Text(inet.OpenURL(web_->HttpUrl("/put/one.txt"))), "uploaded text");
  Variant form("a=1");
  inet.Execute(web_->HttpUrl("/post"), "POST", form);
  EXPECT_EQ(Text(inet.GetResponse()), "posted");
  EXPECT_EQ(form, Variant("a=1"));
  Variant ignored("x");
  inet.Execute(web_->HttpUrl("/post"), "get", ignored);
  EXPECT_EQ(ignored, Variant(std::string()));
}

TEST_F(WinINetWeb, RedirectsAreFollowedAndLoopsRaise12156) {
  WinINet inet;
  inet.Execute(web_->HttpUrl("/redirect"));
  EXPECT_EQ(Text(inet.GetResponse()), "small file\n");
  EXPECT_EQ(inet.GetHeader("Location"), "");
  Error e = RaisedError([&] { inet.Execute(web_->HttpUrl("/redirect-loop")); });
  EXPECT_EQ(e.Number(), 12156);
  EXPECT_EQ(e.Description(), "The HTTP redirect request failed");
}

TEST_F(WinINetWeb, NotFoundIsAResponseNotAnError) {
  WinINet inet;
  inet.Execute(web_->HttpUrl("/missing.txt"));
  EXPECT_EQ(inet.GetHeader().rfind("HTTP/1.1 404 Not Found\r\n", 0), 0u);
}

TEST_F(WinINetWeb, CookiesAreKeptPerObjectUnlessNoCookies) {
  WinINet inet;
  inet.OpenURL(web_->HttpUrl("/set-cookie"));
  EXPECT_EQ(Text(inet.OpenURL(web_->HttpUrl("/echo-headers"))),
            "agent=Corvanta Inet Agent;accept=;connection=Keep-Alive;cookie=session=abc123;");
  WinINet other;
  EXPECT_NE(Text(other.OpenURL(web_->HttpUrl("/echo-headers"))).find("cookie=;"),
            std::string::npos);
  WinINet plain;
  plain.SetNoCookies(true);
  plain.OpenURL(web_->HttpUrl("/set-cookie"));
  EXPECT_NE(Text(plain.OpenURL(web_->HttpUrl("/echo-headers"))).find("cookie=;"),
            std::string::npos);
}

TEST_F(WinINetWeb, UploadFileSendsTheStretchAndReportsWholeChunks) {
  std::string source = web_->WriteDocument("upload-source.bin", Pattern(100000));
  WinINet inet;
  inet.SetChunkSize(30000);
  Recorder recorder(inet);
  EXPECT_EQ(inet.UploadFile(source, 10, 0, web_->HttpUrl("/post")), 99990);
  EXPECT_EQ(Text(inet.GetResponse()), "posted");
  EXPECT_EQ(inet.UploadFile(source, 0, 10), 30000);  // one whole chunk for 10 declared bytes
  EXPECT_EQ(inet.UploadFile(source, 100000), 0);
  Error beyond = RaisedError([&] { inet.UploadFile(source, 100001); });
  EXPECT_EQ(beyond.Number(), 5);
  Error missing = RaisedError([&] { inet.UploadFile(source + ".missing"); });
  EXPECT_EQ(missing.Number(), 2);
  EXPECT_EQ(missing.Description(), "The system cannot find the file specified.");
  Error folder = RaisedError([&] { inet.UploadFile(web_->DocumentRoot()); });
  EXPECT_EQ(folder.Number(), 5);
  EXPECT_EQ(folder.Description(), "Access is denied.");
  EXPECT_EQ(recorder.uploads, 0);
}

struct CertCase {
  Cert cert;
  bool ignore_date;
  bool ignore_name;
  int32_t error;  // 0: the page arrives
};

class WinINetCerts : public WinINetWeb, public ::testing::WithParamInterface<CertCase> {};

TEST_P(WinINetCerts, CertificateChecksRaiseTheirNumbersUnlessIgnored) {
  const CertCase& c = GetParam();
  WinINet inet;
  inet.SetIgnoreCertDate(c.ignore_date);
  inet.SetIgnoreCertCommonName(c.ignore_name);
  Variant page;
  Error e = RaisedError([&] { page = inet.OpenURL(web_->TlsUrl(c.cert, "/small.txt")); });
  EXPECT_EQ(e.Number(), c.error) << e.Description() << "\n" << web_->ErrorLog();
  if (c.error == 0) {
    EXPECT_EQ(Text(page), "small file\n");
  }
}

INSTANTIATE_TEST_SUITE_P(
    AllCases, WinINetCerts,
    ::testing::Values(CertCase{Cert::kValid, false, false, 0},
                      CertCase{Cert::kExpired, false, false, 12037},
                      CertCase{Cert::kExpired, true, false, 0},
                      CertCase{Cert::kExpired, false, true, 12037},
                      CertCase{Cert::kNotYetValid, false, false, 12037},
                      CertCase{Cert::kNotYetValid, true, false, 0},
                      CertCase{Cert::kWrongHost, false, false, 12038},
                      CertCase{Cert::kWrongHost, false, true, 0},
                      CertCase{Cert::kWrongHost, true, false, 12038},
                      CertCase{Cert::kSelfSigned, false, false, 12045},
                      CertCase{Cert::kSelfSigned, true, true, 12045}));

TEST_F(WinINetWeb, TlsToAPlainPortRaises12157) {
  WinINet inet;
  Error e = RaisedError([&] {
    inet.OpenURL("https://127.0.0.1:" + std::to_string(web_->HttpPort()) + "/small.txt");
  });
  EXPECT_EQ(e.Number(), 12157);
  EXPECT_EQ(e.Description(), "An error occurred in the secure channel support");
}

TEST_F(WinINetWeb, DirectAccessIgnoresTheEnvironmentProxyAndNamedProxyIsUsed) {
  ::setenv("http_proxy", "http://127.0.0.1:1", 1);
  WinINet direct;
  direct.SetAccessType(icDirect);
  EXPECT_EQ(Text(direct.OpenURL(web_->HttpUrl("/small.txt"))), "small file\n");
  WinINet preconfigured;
  Error e = RaisedError([&] { preconfigured.OpenURL(web_->HttpUrl("/small.txt")); });
  ::unsetenv("http_proxy");
  EXPECT_EQ(e.Number(), 12029);
  WinINet named;
  named.SetAccessType(icNamedProxy);
  named.SetProxy("127.0.0.1:1");
  EXPECT_EQ(RaisedError([&] { named.OpenURL(web_->HttpUrl("/small.txt")); }).Number(), 12029);
}

}  // namespace
}  // namespace pelmora

// A blocking client for the service that speaks the wire units directly: for transfers, for
// requests the library's client cannot send (malformed frames, hostile paths) and for timing
// what the service does. Every read waits at most 10 s.
//
//   RawClient client;
//   client.Connect(port);
//   client.Login("operator", "secret");
//   client.Request(RequestCode::kFileExists, {EncodeUnicodeArgument("C:\\a")});
//   std::optional<ResultReply> reply = client.ReadResult();
#ifndef TESTS_SERVICE_RAW_CLIENT_H_
#define TESTS_SERVICE_RAW_CLIENT_H_

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "pelmora/admin/wire.h"
#include "pelmora/admin/wire_replies.h"

namespace pelmorad::testing {

using Bytes = std::vector<uint8_t>;

class RawClient {
 public:
  RawClient() = default;
  ~RawClient();
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  // Connects to `host`:`port`. False when refused.
  bool Connect(int port, const std::string& host = "127.0.0.1");
  // Closes the connection (RST when `reset`).
  void Close(bool reset = false);

  bool Send(std::span<const uint8_t> bytes);
  // Reads exactly `count` bytes; nullopt on end of stream, error or 10 s of silence.
  std::optional<Bytes> Read(std::size_t count, int milliseconds = 10000);
  // True when the service closes the connection within `milliseconds` (data before the end of
  // the stream is skipped).
  bool WaitForClose(int milliseconds = 10000);

  // A framed message with the next sequence number.
  bool SendFramed(std::span<const uint8_t> data);
  // The data of the next framed reply; nullopt when it does not arrive or is malformed or
  // carries another sequence number than the last one sent.
  std::optional<Bytes> ReadFramed(int milliseconds = 10000);
  std::optional<pelmora::admin::ResultReply> ReadResult();

  // Sends the login message with encoded credentials and reads the result reply.
  std::optional<pelmora::admin::ResultReply> Login(std::string_view user,
                                                   std::string_view password);
  // Sends a size message and a request block.
  bool Request(pelmora::admin::RequestCode code, const std::vector<Bytes>& args);
  bool RequestPath(pelmora::admin::RequestCode code, std::string_view path);

  // Uploads `content` to `remote` with the given times; the final result reply, or nullopt
  // when the service refused ("F" go reply: `refused` is set).
  std::optional<pelmora::admin::ResultReply> Upload(std::string_view remote,
                                                    std::string_view content,
                                                    const pelmora::admin::TransferHeader& times,
                                                    bool* refused = nullptr);
  // Downloads `remote`: the header and the content (nullopt when the exchange breaks).
  std::optional<std::pair<pelmora::admin::TransferHeader, std::string>> Download(
      std::string_view remote);

  int fd() const { return fd_; }

 private:
  int fd_ = -1;
  int32_t sequence_ = pelmora::admin::kFirstSequenceNumber;
};

}  // namespace pelmorad::testing

#endif  // TESTS_SERVICE_RAW_CLIENT_H_

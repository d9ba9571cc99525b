// The service's end of a connection over a real unix socket pair: framing in and out, the
// sequence number carried into replies, bytes taken over with a handed-off connection, the ends
// it reports for a TLS client and a broken packet, and the refusal form of every request code.
#include "pelmorad/session_channel.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <asio/co_spawn.hpp>
#include <asio/io_context.hpp>
#include <asio/use_future.hpp>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "pelmora/admin/exec_wire.h"
#include "pelmora/admin/mode_wire.h"
#include "pelmora/admin/wire.h"
#include "pelmora/admin/wire_replies.h"
#include "pelmora/platform/file_io.h"
#include "pelmorad/session_requests.h"
#include "pelmorad/win_error.h"

namespace pelmorad {
namespace {

using pelmora::admin::BuildFramedPacket;
using pelmora::admin::kPacketSize;
using pelmora::admin::RequestBlock;
using pelmora::admin::RequestCode;
using Bytes = std::vector<uint8_t>;

// A channel on one end of a socket pair; the test plays the client on the other end.
class SessionChannelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    client_.reset(ends[1]);
    SessionChannel::Socket socket(io_, asio::generic::stream_protocol(AF_UNIX, 0), ends[0]);
    channel_.emplace(
        std::move(socket),
        SessionChannel::Hooks{.idle_deadline = [] { return asio::steady_timer::time_point::max(); },
                              .closing = [this](const std::string& reason) { closed_ = reason; }});
  }

  // Runs `step` on the channel until it ends (its bytes to read are written beforehand).
  template <typename Step>
  auto Run(Step step) {
    auto result = asio::co_spawn(io_, step(*channel_), asio::use_future);
    io_.run();
    io_.restart();
    return result.get();
  }

  void ClientSends(const Bytes& bytes) {
    ASSERT_EQ(pelmora::platform::WriteFully(client_.get(), bytes), 0);
  }

  // The next packet the service sent, which must be framed under `sequence`: its data.
  Bytes ClientReceives(int32_t sequence) {
    Bytes packet(kPacketSize);
    EXPECT_EQ(pelmora::platform::ReadFully(client_.get(), packet),
              static_cast<ssize_t>(kPacketSize));
    pelmora::admin::FramedMessage framed = pelmora::admin::ParseFramedPacket(packet, sequence);
    EXPECT_EQ(framed.fault, pelmora::admin::PacketFault::kNone);
    return Bytes(framed.data.begin(), framed.data.end());
  }

  asio::io_context io_;
  pelmora::platform::UniqueFd client_;
  std::optional<SessionChannel> channel_;
  std::string closed_;
};

TEST_F(SessionChannelTest, RepliesCarryTheSequenceNumberOfTheClientsLastMessage) {
  ClientSends(BuildFramedPacket(41, Bytes{1, 2, 3}));
  auto message = Run([](SessionChannel& channel) { return channel.ReadMessage(); });
  ASSERT_TRUE(message.has_value());
  EXPECT_EQ(message->sequence, 41);
  EXPECT_EQ(message->data, (Bytes{1, 2, 3}));
  EXPECT_TRUE(Run([](SessionChannel& channel) { return channel.SendResult(kAccessDenied); }));
  EXPECT_EQ(ClientReceives(41),
            pelmora::admin::BuildResultReply(false, kAccessDenied, ErrorText(kAccessDenied)));
}

TEST_F(SessionChannelTest, BytesTakenOverAreReadBeforeTheSocketsOwn) {
  Bytes packet = BuildFramedPacket(7, Bytes{9, 8});
  channel_->Resume(6, Bytes(packet.begin(), packet.begin() + 100));
  EXPECT_EQ(channel_->sequence(), 6);
  ClientSends(Bytes(packet.begin() + 100, packet.end()));
  auto message = Run([](SessionChannel& channel) { return channel.ReadMessage(); });
  ASSERT_TRUE(message.has_value());
  EXPECT_EQ(message->sequence, 7);
  EXPECT_EQ(message->data, (Bytes{9, 8}));
  EXPECT_TRUE(channel_->TakePending().empty());
}

TEST_F(SessionChannelTest, ASizedReplyIsASizeMessageAndTheBytesUnframed) {
  Bytes data(3000, 0x5A);
  EXPECT_TRUE(Run([&](SessionChannel& channel) { return channel.SendSized(data); }));
  EXPECT_EQ(ClientReceives(0), pelmora::admin::BuildSizeMessage(3000));
  Bytes raw(data.size());
  EXPECT_EQ(pelmora::platform::ReadFully(client_.get(), raw), 3000);
  EXPECT_EQ(raw, data);
}

TEST_F(SessionChannelTest, ATlsHandshakeOnThePlainPortEndsAfterThreeBytes) {
  ClientSends(Bytes{0x16, 0x03, 0x01});  // and then waits for the handshake's answer
  auto message = Run([](SessionChannel& channel) { return channel.ReadMessage(true); });
  EXPECT_FALSE(message.has_value());
  EXPECT_EQ(closed_, "closed: a TLS client on the plain port");
}

TEST_F(SessionChannelTest, APacketWithoutItsMarkersEndsTheConnection) {
  ClientSends(Bytes(kPacketSize, 0x00));
  auto message = Run([](SessionChannel& channel) { return channel.ReadMessage(true); });
  EXPECT_FALSE(message.has_value());
  EXPECT_EQ(closed_, "closed: malformed packet");
}

TEST_F(SessionChannelTest, AClosedClientEndsAReadWithoutAReason) {
  client_.reset();
  auto message = Run([](SessionChannel& channel) { return channel.ReadMessage(); });
  EXPECT_FALSE(message.has_value());
  EXPECT_EQ(closed_, "");
}

// Each request code refused with 5 gets the reply its client waits for in place of a success.
TEST_F(SessionChannelTest, EveryRequestIsRefusedInItsOwnReplyForm) {
  pelmora::admin::TransferHeader no_file;
  no_file.size = -1;
  const Bytes result = pelmora::admin::BuildResultReply(false, 5, ErrorText(5));
  const Bytes size = pelmora::admin::BuildSizeMessage(-1);
  struct Case {
    uint8_t code;
    Bytes reply;
  };
  auto code = [](RequestCode request) { return static_cast<uint8_t>(request); };
  const Case cases[] = {
      {code(RequestCode::kDownload), pelmora::admin::BuildTransferHeader(no_file)},
      {code(RequestCode::kGetFileInfo), size},
      {code(RequestCode::kGetFolderFiles), size},
      {code(RequestCode::kGetPathWithKey), size},
      {code(RequestCode::kGetPrintQ), size},
      {code(RequestCode::kGetFileVersion), {}},
      {code(RequestCode::kGetSystemDirectory), {}},
      {code(RequestCode::kGetSystemTime), {}},
      {code(RequestCode::kSyncCreateProcess),
       pelmora::admin::BuildCommandStatusReply(pelmora::admin::kProcessNotStarted)},
      {code(RequestCode::kFileExists), result},
      {code(RequestCode::kDeleteRemoteFolder), result},
      {code(RequestCode::kCopyRemoteFolder), result},
      {code(RequestCode::kMoveRemoteFile), result},
      {code(RequestCode::kIsSameMachineWithSvr), result},
      {pelmora::admin::kExecRunCode, result},
      {pelmora::admin::kModeSetCode, result},
      {99, result},  // not a request the service serves
  };
  for (const Case& refused : cases) {
    SCOPED_TRACE(static_cast<int>(refused.code));
    RequestBlock block{refused.code, {}};
    EXPECT_TRUE(Run([&](SessionChannel& channel) { return Refuse(channel, block, 5); }));
    EXPECT_EQ(ClientReceives(0), refused.reply);
  }
}

TEST_F(SessionChannelTest, ARefusedUploadReadsItsHeaderBeforeSayingNo) {
  pelmora::admin::TransferHeader header;
  header.size = 10;
  ClientSends(BuildFramedPacket(3, pelmora::admin::BuildTransferHeader(header)));
  RequestBlock block{static_cast<uint8_t>(RequestCode::kUpload), {}};
  EXPECT_TRUE(Run([&](SessionChannel& channel) { return Refuse(channel, block, 5); }));
  EXPECT_EQ(ClientReceives(3), pelmora::admin::BuildGoReply(false));
}

}  // namespace
}  // namespace pelmorad

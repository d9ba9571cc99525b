// Tests of the channel on its own, against a scripted peer: what RCFSO's members never show
// apart (an open connection that has not logged in, the raw stream's pieces and its end when the
// peer closes part way).
#include "pelmora/admin/internal/channel.h"

#include <gtest/gtest.h>

#include <vector>

#include "pelmora/admin/wire.h"
#include "pelmora/testing/admin_peer.h"

namespace pelmora::admin::internal {
namespace {

using pelmora::testing::Answer;
using pelmora::testing::Bytes;
using pelmora::testing::ExpectLogin;
using pelmora::testing::ExpectRequest;
using pelmora::testing::LastSequence;
using pelmora::testing::ScriptedPeer;
using pelmora::testing::SizeData;

Bytes Counting(size_t n) {
  Bytes bytes(n);
  for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<uint8_t>(i % 7 == 0 ? 0 : i);
  return bytes;
}

// The TCP connection alone does not make the channel connected: requests wait for the login,
// and a refused request advances no sequence number, so the login still carries the first one.
TEST(Channel, RequestsWaitForTheLoginNotForTheConnection) {
  ScriptedPeer peer;
  ExpectLogin(peer, true);
  ExpectRequest(peer).ReplyWith(Answer(SizeData(42)));
  peer.Start();
  Channel channel(2000);
  ASSERT_TRUE(channel.Open("127.0.0.1", peer.Port()));
  EXPECT_FALSE(channel.connected());
  EXPECT_FALSE(channel.SendRequestAnsi("", 19));
  EXPECT_EQ(channel.error().code(), 8117);
  EXPECT_EQ(channel.error().description(), "Connection has not established");
  ASSERT_TRUE(channel.LogIn("u", "p"));
  EXPECT_TRUE(channel.connected());
  EXPECT_EQ(channel.error().code(), 0);
  ASSERT_TRUE(channel.SendRequestAnsi("", 19));
  EXPECT_EQ(channel.ReceiveSize(), 42);
  ASSERT_TRUE(peer.Finish()) << peer.Failure();
  const std::vector<Bytes> received = peer.ReceivedChunks();
  ASSERT_EQ(received.size(), 3u);
  EXPECT_EQ(pelmora::testing::SequenceOf(received[0]), 2147483641);  // the login
  EXPECT_EQ(LastSequence(received), 2147483642);
}

// Raw bytes are counted, not judged: zeros are data, pieces are never larger than asked for,
// and a peer that closes part way ends the stream with 10054 and the bytes it did send.
TEST(Channel, RawStreamsComeInBoundedPiecesAndKeepWhatCameBeforeAClose) {
  const Bytes content = Counting(2500);
  const Bytes cut = Counting(700);
  ScriptedPeer peer;
  ExpectLogin(peer, true);
  peer.Send(content).Send(cut).Close();
  peer.Start();
  Channel channel(2000);
  ASSERT_TRUE(channel.Open("127.0.0.1", peer.Port()) && channel.LogIn("u", "p"));

  Bytes streamed;
  std::vector<size_t> pieces;
  const int32_t e = channel.StreamRawBytes(2500, 1000, [&](std::span<const uint8_t> piece) {
    pieces.push_back(piece.size());
    streamed.insert(streamed.end(), piece.begin(), piece.end());
  });
  EXPECT_EQ(e, 0);
  EXPECT_EQ(pieces, (std::vector<size_t>{1000, 1000, 500}));
  EXPECT_EQ(streamed, content);

  Bytes partial;
  EXPECT_EQ(channel.ReadRawBytes(1000, partial), 10054);
  EXPECT_EQ(partial, cut);
  ASSERT_TRUE(peer.Finish()) << peer.Failure();
}

}  // namespace
}  // namespace pelmora::admin::internal

// RCFSO's framing routines: packets, framed messages, request blocks and result replies.
//
// Every framed message is one 1500-byte packet whose sequence number is the client's counter after
// advancing it; a reply must carry the number of the last framed message sent. Packets with a bad
// header (an all-zero or short packet included) or an old sequence number are skipped (their error
// stays set), so a stale reply never desynchronises the session; a wrong data size, a read that
// brings nothing because the peer has closed, or a socket error ends the read.
#include <algorithm>
#include <chrono>
#include <string>

#include "pelmora/admin/rcfso.h"
#include "pelmora/admin/wire.h"
#include "pelmora/common/error_numbers.h"

namespace pelmora::admin {
namespace {

// Raw data after a size message is read in pieces of at most this many bytes, so that memory
// grows with the bytes that actually arrive, never with the size the peer announced.
constexpr int32_t kRawChunk = 64 * 1024;

}  // namespace

bool RCFSO::SendPacket(std::span<const uint8_t> Buffer) {
  ClearError();
  const int32_t e = socket_.SendData(Buffer);
  if (e == sckSuccess) return true;
  SetSocketError(e);
  LogFailure(HandlePrefix() + "**Send Packet fail err = " + std::to_string(e), "RSFSO",
             "SendPacket");
  if (e == sckConnectionReset) RaiseEvent(&RCFSOEvents::FSODisconnect, err_description_);
  return false;
}

bool RCFSO::FrameMessage(int32_t lMsgSize, std::span<const uint8_t> aMsg, Bytes& packet) {
  ClearError();
  // Only 1489 data bytes fit behind the header; larger sizes (up to the packet size, which the
  // protocol nominally allows) are refused rather than cut.
  if (lMsgSize < 0 || static_cast<size_t>(lMsgSize) > kMaxFramedData ||
      static_cast<size_t>(lMsgSize) > aMsg.size()) {
    SetError(errors::kInvalidDataSize, "Invalid Data Size");
    LogFailure("Invalid Data Size", "RCFSO", "SendMessage");
    return false;
  }
  sequence_ = NextSequenceNumber(sequence_);
  packet = BuildFramedPacket(sequence_, aMsg.first(static_cast<size_t>(lMsgSize)));
  return true;
}

bool RCFSO::SendMessage(int32_t lMsgSize, std::span<const uint8_t> aMsg) {
  Bytes packet;
  return FrameMessage(lMsgSize, aMsg, packet) && SendPacket(packet);
}

// Receives one packet of `size` bytes. A read that brings nothing means the peer has closed the
// connection: reported as 10054, so that a closed peer ends the read at once. A read that ends
// early with some bytes gives a short packet, which the caller skips as a bad header.
bool RCFSO::ReceivePacket(int32_t size, Bytes& packet) {
  int32_t e = socket_.GetData(packet, size);
  if (e == sckSuccess && socket_.LastReceivedCount() == 0) e = sckConnectionReset;
  if (e == sckSuccess) return true;
  SetSocketError(e);
  LogFailure(err_description_, "RCFSO", "RecvMessage");
  return false;
}

bool RCFSO::RecvMessage(int32_t lPacketSize, Bytes& aMsg, int32_t& lSeqNo) {
  ClearError();
  using Clock = std::chrono::steady_clock;
  const Clock::time_point start = Clock::now();
  const auto limit = std::chrono::milliseconds(socket_.ReceiveTimeout());
  Bytes packet;
  for (;;) {
    if (!ReceivePacket(std::max<int32_t>(lPacketSize, 1), packet)) return false;
    FramedMessage message = ParseFramedPacket(packet, sequence_);
    // A packet cut short (the peer closed part way) is skipped like a foreign one.
    if (packet.size() < static_cast<size_t>(lPacketSize)) message.fault = PacketFault::kBadHeader;
    switch (message.fault) {
      case PacketFault::kNone:
        lSeqNo = message.sequence;
        aMsg.assign(message.data.begin(), message.data.end());
        return true;
      case PacketFault::kBadDataSize:
        lSeqNo = message.sequence;
        LogFailure("Invalid Data Size", "RCFSO", "RecvMessage");
        SetError(errors::kIncorrectSequenceNumber, "Incorrect Sequence Number");
        return false;
      case PacketFault::kBadHeader:
        LogFailure("Invalid Header", "RCFSO", "RecvMessage");
        SetError(errors::kInvalidHeader, "Invalid Header");
        break;
      case PacketFault::kBadSequence:
        lSeqNo = message.sequence;
        LogFailure("Invalid Sequence Number", "RCFSO", "RecvMessage");
        SetError(errors::kInvalidDataSize, "Invalid DataSize");
        break;
    }
    // Skipped packets may keep coming; the whole read still ends within the receive time-out.
    if (limit.count() > 0 && Clock::now() - start >= limit) {
      SetSocketError(sckTimedout);
      LogFailure(err_description_, "RCFSO", "RecvMessage");
      return false;
    }
  }
}

// The size message and the block it announces go to the socket in one send: the bytes on the
// wire are the same as with two sends, and the peer wakes once per request instead of twice.
bool RCFSO::SendAnnouncedBlock(int32_t total, std::span<const uint8_t> block) {
  const Bytes size_message = BuildSizeMessage(total);
  Bytes packets;
  if (!FrameMessage(static_cast<int32_t>(size_message.size()), size_message, packets)) {
    return false;
  }
  packets.insert(packets.end(), block.begin(), block.end());
  return SendPacket(packets);
}

bool RCFSO::SendRequestBlock(int16_t iCommand, std::span<const Bytes> args) {
  ClearError();
  if (!connected_) {
    SetError(errors::kNotConnected, "Connection has not established");
    return false;
  }
  const Bytes block = BuildRequestBlock(static_cast<uint8_t>(iCommand & 0xFF), args);
  return SendAnnouncedBlock(RequestBlockTotal(args), block);
}

bool RCFSO::SendRequestAnsi(std::string_view sArg, int16_t iCommand) {
  const Bytes args[] = {EncodeAnsiArgument(sArg)};
  return SendRequestBlock(iCommand, args);
}

bool RCFSO::SendRequestUnicode(std::string_view sArg, int16_t iCommand) {
  const Bytes args[] = {EncodeUnicodeArgument(sArg)};
  return SendRequestBlock(iCommand, args);
}

bool RCFSO::SendRequestList(std::span<const std::string> aArgs, int16_t iCommand) {
  std::vector<Bytes> args;
  args.reserve(aArgs.size());
  for (const std::string& arg : aArgs) args.push_back(EncodeUnicodeArgument(arg));
  return SendRequestBlock(iCommand, args);
}

bool RCFSO::SendRequestTwo(std::string_view sArg1, std::string_view sArg2, int16_t iCommand) {
  const Bytes args[] = {EncodeUnicodeArgument(sArg1), EncodeUnicodeArgument(sArg2)};
  return SendRequestBlock(iCommand, args);
}

bool RCFSO::RecvResult() {
  ClearError();
  Bytes data;
  int32_t sequence = 0;
  if (!RecvMessage(static_cast<int32_t>(kPacketSize), data, sequence)) return false;
  const std::optional<ResultReply> reply = ParseResultReply(data);
  if (!reply) {
    SetError(errors::kInvalidDataSize, "Invalid Data Size");
    LogFailure("Invalid Data Size", "RCFSO", "RecvResult");
    return false;
  }
  if (reply->success) ClearError();
  // On a refusal the description is replaced only when the reply carries a message.
  err_code_ = reply->code;
  if (!reply->success && !reply->message.empty()) err_description_ = reply->message;
  return reply->success;
}

int32_t RCFSO::ReadRawBytes(int32_t count, Bytes& out) {
  out.clear();
  Bytes piece;
  while (out.size() < static_cast<size_t>(count)) {
    const auto wanted =
        static_cast<int32_t>(std::min<size_t>(static_cast<size_t>(count) - out.size(), kRawChunk));
    const int32_t e = ReceiveRaw(wanted, piece);
    out.insert(out.end(), piece.begin(), piece.end());
    if (e != sckSuccess) return e;
  }
  return sckSuccess;
}

// Raw bytes are counted, not judged by their value: a block of zero bytes is data, and only a read
// that brings nothing (the peer has closed) ends the stream early. A read cut short by the peer's
// close keeps its bytes in `out`.
int32_t RCFSO::ReceiveRaw(int32_t wanted, Bytes& out) {
  int32_t e = socket_.GetData(out, wanted);
  out.resize(static_cast<size_t>(socket_.LastReceivedCount()));
  Bytes piece;
  while (e == sckSuccess && out.size() < static_cast<size_t>(wanted) &&
         socket_.LastReceivedCount() > 0 && !socket_.LastReceiveReachedEnd()) {
    e = socket_.GetData(piece, wanted - static_cast<int32_t>(out.size()));
    const auto got = static_cast<std::ptrdiff_t>(socket_.LastReceivedCount());
    out.insert(out.end(), piece.begin(), piece.begin() + got);
  }
  if (e != sckSuccess) return e;
  return out.size() < static_cast<size_t>(wanted) ? sckConnectionReset : sckSuccess;
}

}  // namespace pelmora::admin

// The channel's framing: packets, framed messages, request blocks, result and size replies, and
// the raw streams outside the framing.
//
// Every framed message is one 1500-byte packet whose sequence number is the client's counter after
// advancing it; a reply must carry the number of the last framed message sent. Packets with a bad
// header (an all-zero or short packet included) or an old sequence number are skipped (their error
// stays set), so a stale reply never desynchronises the session; a wrong data size, a read that
// brings nothing because the peer has closed, or a socket error ends the read.
#include "pelmora/admin/internal/channel.h"

#include <algorithm>
#include <chrono>
#include <string>

#include "pelmora/admin/wire.h"
#include "pelmora/common/error_numbers.h"

namespace pelmora::admin::internal {
namespace {

// Raw data after a size message is read in pieces of at most this many bytes, so that memory
// grows with the bytes that actually arrive, never with the size the peer announced.
constexpr int32_t kRawChunk = 64 * 1024;

}  // namespace

bool Channel::SendPacket(std::span<const uint8_t> buffer) {
  error_.Clear();
  const int32_t e = socket_.SendData(buffer);
  if (e == sckSuccess) return true;
  SetSocketError(e);
  LogFailure(HandlePrefix() + "**Send Packet fail err = " + std::to_string(e), "RSFSO",
             "SendPacket");
  if (e == sckConnectionReset) events_.Raise(&RCFSOEvents::FSODisconnect, error_.description());
  return false;
}

bool Channel::FrameMessage(int32_t size, std::span<const uint8_t> data, Bytes& packet) {
  error_.Clear();
  // Only 1489 data bytes fit behind the header; larger sizes (up to the packet size, which the
  // protocol nominally allows) are refused rather than cut.
  if (size < 0 || static_cast<size_t>(size) > kMaxFramedData ||
      static_cast<size_t>(size) > data.size()) {
    error_.Set(errors::kInvalidDataSize, "Invalid Data Size");
    LogFailure("Invalid Data Size", "RCFSO", "SendMessage");
    return false;
  }
  sequence_ = NextSequenceNumber(sequence_);
  packet = BuildFramedPacket(sequence_, data.first(static_cast<size_t>(size)));
  return true;
}

bool Channel::SendMessage(int32_t size, std::span<const uint8_t> data) {
  Bytes packet;
  return FrameMessage(size, data, packet) && SendPacket(packet);
}

// Receives one packet of `size` bytes. A read that brings nothing means the peer has closed the
// connection: reported as 10054, so that a closed peer ends the read at once. A read that ends
// early with some bytes gives a short packet, which the caller skips as a bad header.
bool Channel::ReceivePacket(int32_t size, Bytes& packet) {
  int32_t e = socket_.GetData(packet, size);
  if (e == sckSuccess && socket_.LastReceivedCount() == 0) e = sckConnectionReset;
  if (e == sckSuccess) return true;
  SetSocketError(e);
  LogFailure(error_.description(), "RCFSO", "RecvMessage");
  return false;
}

bool Channel::RecvMessage(int32_t packet_size, Bytes& data, int32_t& sequence) {
  error_.Clear();
  using Clock = std::chrono::steady_clock;
  const Clock::time_point start = Clock::now();
  const auto limit = std::chrono::milliseconds(socket_.ReceiveTimeout());
  Bytes packet;
  for (;;) {
    if (!ReceivePacket(std::max<int32_t>(packet_size, 1), packet)) return false;
    FramedMessage message = ParseFramedPacket(packet, sequence_);
    // A packet cut short (the peer closed part way) is skipped like a foreign one.
    if (packet.size() < static_cast<size_t>(packet_size)) message.fault = PacketFault::kBadHeader;
    switch (message.fault) {
      case PacketFault::kNone:
        sequence = message.sequence;
        data.assign(message.data.begin(), message.data.end());
        return true;
      case PacketFault::kBadDataSize:
        sequence = message.sequence;
        LogFailure("Invalid Data Size", "RCFSO", "RecvMessage");
        error_.Set(errors::kIncorrectSequenceNumber, "Incorrect Sequence Number");
        return false;
      case PacketFault::kBadHeader:
        LogFailure("Invalid Header", "RCFSO", "RecvMessage");
        error_.Set(errors::kInvalidHeader, "Invalid Header");
        break;
      case PacketFault::kBadSequence:
        sequence = message.sequence;
        LogFailure("Invalid Sequence Number", "RCFSO", "RecvMessage");
        error_.Set(errors::kInvalidDataSize, "Invalid DataSize");
        break;
    }
    // Skipped packets may keep coming; the whole read still ends within the receive time-out.
    if (limit.count() > 0 && Clock::now() - start >= limit) {
      SetSocketError(sckTimedout);
      LogFailure(error_.description(), "RCFSO", "RecvMessage");
      return false;
    }
  }
}

bool Channel::RecvResult() {
  error_.Clear();
  Bytes data;
  int32_t sequence = 0;
  if (!RecvMessage(static_cast<int32_t>(kPacketSize), data, sequence)) return false;
  const std::optional<ResultReply> reply = ParseResultReply(data);
  if (!reply) {
    error_.Set(errors::kInvalidDataSize, "Invalid Data Size");
    LogFailure("Invalid Data Size", "RCFSO", "RecvResult");
    return false;
  }
  if (reply->success) error_.Clear();
  // On a refusal the description is replaced only when the reply carries a message.
  error_.SetCode(reply->code);
  if (!reply->success && !reply->message.empty()) error_.SetDescription(reply->message);
  return reply->success;
}

std::optional<int32_t> Channel::ReceiveSize() {
  Bytes data;
  int32_t sequence = 0;
  if (!RecvMessage(static_cast<int32_t>(kPacketSize), data, sequence)) return std::nullopt;
  const std::optional<int32_t> size = ParseSizeMessage(data);
  if (!size) error_.Set(errors::kInvalidDataSize, "Invalid Data Size");
  return size;
}

// The size message and the block it announces go to the socket in one send: the bytes on the
// wire are the same as with two sends, and the peer wakes once per request instead of twice.
bool Channel::SendAnnouncedBlock(int32_t total, std::span<const uint8_t> block) {
  const Bytes size_message = BuildSizeMessage(total);
  Bytes packets;
  if (!FrameMessage(static_cast<int32_t>(size_message.size()), size_message, packets)) {
    return false;
  }
  packets.insert(packets.end(), block.begin(), block.end());
  return SendPacket(packets);
}

bool Channel::SendRequest(int16_t code, std::span<const Bytes> args) {
  error_.Clear();
  if (!connected_) {
    error_.Set(errors::kNotConnected, "Connection has not established");
    return false;
  }
  const Bytes block = BuildRequestBlock(static_cast<uint8_t>(code & 0xFF), args);
  return SendAnnouncedBlock(RequestBlockTotal(args), block);
}

bool Channel::SendRequestAnsi(std::string_view arg, int16_t code) {
  const Bytes args[] = {EncodeAnsiArgument(arg)};
  return SendRequest(code, args);
}

bool Channel::SendRequestUnicode(std::string_view arg, int16_t code) {
  const Bytes args[] = {EncodeUnicodeArgument(arg)};
  return SendRequest(code, args);
}

bool Channel::SendRequestTwo(std::string_view first, std::string_view second, int16_t code) {
  const Bytes args[] = {EncodeUnicodeArgument(first), EncodeUnicodeArgument(second)};
  return SendRequest(code, args);
}

bool Channel::SendRequestList(std::span<const std::string> args, int16_t code) {
  std::vector<Bytes> encoded;
  encoded.reserve(args.size());
  for (const std::string& arg : args) encoded.push_back(EncodeUnicodeArgument(arg));
  return SendRequest(code, encoded);
}

int32_t Channel::ReadRawBytes(int32_t count, Bytes& out) {
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
int32_t Channel::ReceiveRaw(int32_t wanted, Bytes& out) {
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

int32_t Channel::StreamRawBytes(int64_t count, int32_t piece, const RawConsumer& consumer) {
  Bytes data;
  while (count > 0) {
    const auto wanted = static_cast<int32_t>(std::min<int64_t>(count, piece));
    const int32_t e = ReceiveRaw(wanted, data);
    if (e != sckSuccess) return e;
    consumer(data);
    count -= wanted;
  }
  return sckSuccess;
}

}  // namespace pelmora::admin::internal

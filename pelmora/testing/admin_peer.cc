#include "pelmora/testing/admin_peer.h"

#include <algorithm>
#include <fstream>
#include <iterator>

#include "pelmora/admin/wire.h"
#include "pelmora/admin/wire_replies.h"
#include "pelmora/common/log.h"

namespace pelmora::testing {
namespace {

void AppendInt32(Bytes& out, int32_t value) {
  for (int i = 0; i < 4; ++i) {
    out.push_back(static_cast<uint8_t>(static_cast<uint32_t>(value) >> (8 * i)));
  }
}

bool IsFramed(const Bytes& chunk) {
  return chunk.size() >= 7 && chunk[0] == 0xFF && chunk[1] == 0xFF && chunk[2] == 0xFF;
}

}  // namespace

int32_t SequenceOf(const Bytes& packet) {
  if (packet.size() < 7) return 0;
  uint32_t value = 0;
  for (int i = 3; i >= 0; --i) value = (value << 8) | packet[3 + i];
  return static_cast<int32_t>(value);
}

int32_t LastSequence(const std::vector<Bytes>& received) {
  for (auto it = received.rbegin(); it != received.rend(); ++it) {
    if (IsFramed(*it)) return SequenceOf(*it);
  }
  return 0;
}

Bytes FramedPacket(int32_t sequence, const Bytes& data) {
  return admin::BuildFramedPacket(sequence, data);
}

Reply Answer(std::vector<Bytes> datas) {
  return [datas = std::move(datas)](const std::vector<Bytes>& received) {
    Bytes out;
    for (const Bytes& data : datas) {
      Bytes packet = FramedPacket(LastSequence(received), data);
      out.insert(out.end(), packet.begin(), packet.end());
    }
    return out;
  };
}

Reply Answer(Bytes data) { return Answer(std::vector<Bytes>{std::move(data)}); }

Bytes ResultData(bool success, int32_t code, std::string_view message) {
  return admin::BuildResultReply(success, code, message);
}

Bytes UnicodeRequestBlock(admin::RequestCode code, std::string_view argument) {
  const std::vector<Bytes> args = {admin::EncodeUnicodeArgument(argument)};
  return admin::BuildRequestBlock(code, args);
}

Bytes ReadFileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

Bytes SizeData(int32_t n) { return admin::BuildSizeMessage(n); }

Bytes TextData(std::string_view utf8) { return admin::EncodeWireText(utf8); }

Bytes OutputData(std::string_view utf8) { return admin::BuildCommandOutputReply(utf8); }

Bytes StatusData(int32_t status) { return admin::BuildCommandStatusReply(status); }

Bytes KindData(int32_t kind, int32_t value) {
  Bytes out;
  AppendInt32(out, kind);
  AppendInt32(out, value);
  return out;
}

ScriptedPeer& ExpectLogin(ScriptedPeer& peer, bool accept) {
  return peer.Receive(admin::kPacketSize)
      .ReplyWith(Answer(ResultData(accept, accept ? 0 : 5, accept ? "" : "Logon failure")));
}

ScriptedPeer& ExpectRequest(ScriptedPeer& peer, size_t block_size) {
  return peer.Receive(admin::kPacketSize).Receive(block_size);
}

bool LogIn(admin::RCFSO& fso, ScriptedPeer& peer) {
  peer.Start();
  return fso.Connect("127.0.0.1", peer.Port(), "u", "p", true);
}

LogCapture::LogCapture()
    : clock_({2009, 3, 14, 8, 5, 9}), saved_root_(LogRoot()), saved_level_(LogLevel()) {
  LogRoot() = folder_.Path();
  LogLevel() = 3;
}

LogCapture::~LogCapture() {
  LogRoot() = saved_root_;
  LogLevel() = saved_level_;
}

std::vector<LogLine> LogCapture::Lines(std::string_view extension) const {
  std::string content =
      internal::ReadWholeFile(folder_.Path() + "/200903/20090314" + std::string(extension))
          .value_or("");
  std::vector<LogLine> lines;
  for (size_t pos = 0; pos < content.size();) {
    size_t end = content.find("\r\n", pos);
    if (end == std::string::npos) end = content.size();
    std::string line = content.substr(pos, end - pos);
    pos = end + 2;
    // time stamp, letter, computer name, [module:routine], text
    size_t c1 = line.find(',');
    size_t c2 = line.find(',', c1 + 1);
    size_t open = line.find(",[", c2 + 1);
    size_t colon = line.find(':', open);
    size_t close = line.find("],", colon);
    if (c1 == std::string::npos || c2 == std::string::npos || open == std::string::npos ||
        colon == std::string::npos || close == std::string::npos) {
      lines.push_back({.text = line});
      continue;
    }
    lines.push_back({line.substr(c1 + 1, c2 - c1 - 1), line.substr(open + 2, colon - open - 2),
                     line.substr(colon + 1, close - colon - 1), line.substr(close + 2)});
  }
  return lines;
}

bool LogCapture::Has(std::string_view extension, const LogLine& line) const {
  std::vector<LogLine> lines = Lines(extension);
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

}  // namespace pelmora::testing

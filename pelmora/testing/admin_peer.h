// Canned administration-service replies for ScriptedPeer scripts.
//
// A client's framed messages start with 0xFF 0xFF 0xFF and carry its sequence number; request
// blocks start with their command code. A reply must carry the sequence number of the last framed
// message the client sent, so the helpers below answer "the last framed message received":
//
//   ScriptedPeer peer;
//   ExpectLogin(peer, true);                                   // login, then a "T" result reply
//   ExpectRequest(peer, 1500).ReplyWith(Answer(ResultData(true)));
//   peer.Start();
#ifndef PELMORA_TESTING_ADMIN_PEER_H_
#define PELMORA_TESTING_ADMIN_PEER_H_

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "pelmora/admin/rcfso.h"
#include "pelmora/admin/wire.h"
#include "pelmora/common/internal/log_test_support.h"
#include "pelmora/testing/scripted_peer.h"

namespace pelmora::testing {

using Reply = std::function<Bytes(const std::vector<Bytes>& received)>;

// The sequence number at offset 3 of a framed packet (0 when it is too short).
int32_t SequenceOf(const Bytes& packet);

// The sequence number of the last framed message among `received` (0 when there is none).
int32_t LastSequence(const std::vector<Bytes>& received);

// A 1500-byte framed packet with `sequence` and `data` (the client's own framing).
Bytes FramedPacket(int32_t sequence, const Bytes& data);

// A reply that frames each of `datas` with the last sequence number received, concatenated.
Reply Answer(std::vector<Bytes> datas);
Reply Answer(Bytes data);

// Data of a result reply ("T"/"F", code, message in ANSI).
Bytes ResultData(bool success, int32_t code = 0, std::string_view message = {});

// Data of a size message carrying `n`.
Bytes SizeData(int32_t n);

// Data of a text message: `utf8` as UTF-16LE, no terminator.
Bytes TextData(std::string_view utf8);

// Data of command replies: output (kind 1), status (kind 0), or any kind with a 4-byte value.
Bytes OutputData(std::string_view utf8);
Bytes StatusData(int32_t status);
Bytes KindData(int32_t kind, int32_t value);

// A request block with one argument in Unicode form, as the client sends it for `code`.
Bytes UnicodeRequestBlock(admin::RequestCode code, std::string_view argument);

// The whole content of the file at `path` (empty when it cannot be read).
Bytes ReadFileBytes(const std::string& path);

// Script steps: receive the login packet and answer it with a result reply.
ScriptedPeer& ExpectLogin(ScriptedPeer& peer, bool accept);
// Script steps: receive the size message (1500 bytes) and a request block of `block_size` bytes.
ScriptedPeer& ExpectRequest(ScriptedPeer& peer, size_t block_size = 1500);

// Starts `peer`, whose script begins with ExpectLogin(peer, true), and logs `fso` in to it
// (bEncoded true, user "u", password "p"). Returns Connect's result.
bool LogIn(admin::RCFSO& fso, ScriptedPeer& peer);

// One parsed WriteLog line.
struct LogLine {
  std::string letter{};   // "I", "E", ...
  std::string module{};   // class name
  std::string routine{};  // routine name
  std::string text{};     // the message
  friend bool operator==(const LogLine&, const LogLine&) = default;
};

// A temporary log root for the calling thread, with the clock pinned to 2009-03-14 08:05:09 and
// the log level at 3; restores the previous root, level and the system clock when destroyed.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  const std::string& Root() const { return folder_.Path(); }
  // The lines of the day's information (".log") or error (".err") file, in order.
  std::vector<LogLine> Lines(std::string_view extension) const;
  // Whether `line` is among the lines of that file.
  bool Has(std::string_view extension, const LogLine& line) const;

 private:
  internal::ScratchFolder folder_;
  internal::PinnedClock clock_;
  std::string saved_root_;
  int16_t saved_level_ = 0;
};

}  // namespace pelmora::testing

#endif  // PELMORA_TESTING_ADMIN_PEER_H_

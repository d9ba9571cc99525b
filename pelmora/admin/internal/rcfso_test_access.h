// Test access to RCFSO's private framing routines and protocol state. Tests only.
#ifndef PELMORA_ADMIN_INTERNAL_RCFSO_TEST_ACCESS_H_
#define PELMORA_ADMIN_INTERNAL_RCFSO_TEST_ACCESS_H_

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "pelmora/admin/rcfso.h"

namespace pelmora::admin::internal {

class RCFSOTestAccess {
 public:
  static int32_t Sequence(const RCFSO& fso) { return fso.sequence_; }
  static bool Connected(const RCFSO& fso) { return fso.connected_; }
  static WinSock& Socket(RCFSO& fso) { return fso.socket_; }
  // "(H)": the socket handle in parentheses, as log lines begin.
  static std::string Handle(const RCFSO& fso) { return fso.HandlePrefix(); }
  static bool SendPacket(RCFSO& fso, std::span<const uint8_t> buffer) {
    return fso.SendPacket(buffer);
  }
  static bool SendMessage(RCFSO& fso, int32_t size, std::span<const uint8_t> data) {
    return fso.SendMessage(size, data);
  }
  static bool RecvMessage(RCFSO& fso, int32_t size, std::vector<uint8_t>& data, int32_t& seq) {
    return fso.RecvMessage(size, data, seq);
  }
  static bool RecvResult(RCFSO& fso) { return fso.RecvResult(); }
  static bool SendRequestAnsi(RCFSO& fso, std::string_view arg, int16_t code) {
    return fso.SendRequestAnsi(arg, code);
  }
  static bool SendRequestUnicode(RCFSO& fso, std::string_view arg, int16_t code) {
    return fso.SendRequestUnicode(arg, code);
  }
  static bool SendRequestList(RCFSO& fso, std::span<const std::string> args, int16_t code) {
    return fso.SendRequestList(args, code);
  }
  static bool SendRequestTwo(RCFSO& fso, std::string_view a, std::string_view b, int16_t code) {
    return fso.SendRequestTwo(a, b, code);
  }
  static std::string CachePath(const RCFSO& fso, std::string_view remote) {
    return fso.CachePathOf(remote);
  }
};

}  // namespace pelmora::admin::internal

#endif  // PELMORA_ADMIN_INTERNAL_RCFSO_TEST_ACCESS_H_

// Test access to RCFSO's channel (framing routines, protocol state, socket) and cache paths.
// Tests only.
#ifndef PELMORA_ADMIN_INTERNAL_RCFSO_TEST_ACCESS_H_
#define PELMORA_ADMIN_INTERNAL_RCFSO_TEST_ACCESS_H_

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "pelmora/admin/internal/channel.h"
#include "pelmora/admin/internal/server_file_cache.h"
#include "pelmora/admin/rcfso.h"

namespace pelmora::admin::internal {

class RCFSOTestAccess {
 public:
  static Channel& ChannelOf(RCFSO& fso) { return *fso.channel_; }
  static const Channel& ChannelOf(const RCFSO& fso) { return *fso.channel_; }

  static int32_t Sequence(const Channel& channel) { return channel.sequence_; }
  static WinSock& Socket(Channel& channel) { return channel.socket_; }

  static int32_t Sequence(const RCFSO& fso) { return Sequence(ChannelOf(fso)); }
  static bool Connected(const RCFSO& fso) { return ChannelOf(fso).connected(); }
  static WinSock& Socket(RCFSO& fso) { return Socket(ChannelOf(fso)); }
  // "(H)": the socket handle in parentheses, as log lines begin.
  static std::string Handle(const RCFSO& fso) { return ChannelOf(fso).HandlePrefix(); }
  static bool SendPacket(RCFSO& fso, std::span<const uint8_t> buffer) {
    return ChannelOf(fso).SendPacket(buffer);
  }
  static bool SendMessage(RCFSO& fso, int32_t size, std::span<const uint8_t> data) {
    return ChannelOf(fso).SendMessage(size, data);
  }
  static bool RecvMessage(RCFSO& fso, int32_t size, std::vector<uint8_t>& data, int32_t& seq) {
    return ChannelOf(fso).RecvMessage(size, data, seq);
  }
  static bool RecvResult(RCFSO& fso) { return ChannelOf(fso).RecvResult(); }
  static bool SendRequestAnsi(RCFSO& fso, std::string_view arg, int16_t code) {
    return ChannelOf(fso).SendRequestAnsi(arg, code);
  }
  static bool SendRequestUnicode(RCFSO& fso, std::string_view arg, int16_t code) {
    return ChannelOf(fso).SendRequestUnicode(arg, code);
  }
  static bool SendRequestList(RCFSO& fso, std::span<const std::string> args, int16_t code) {
    return ChannelOf(fso).SendRequestList(args, code);
  }
  static bool SendRequestTwo(RCFSO& fso, std::string_view a, std::string_view b, int16_t code) {
    return ChannelOf(fso).SendRequestTwo(a, b, code);
  }
  static std::string CachePath(RCFSO& fso, std::string_view remote) {
    return ServerFileCache(ChannelOf(fso), fso.cache_folder_).PathOf(remote);
  }
};

}  // namespace pelmora::admin::internal

#endif  // PELMORA_ADMIN_INTERNAL_RCFSO_TEST_ACCESS_H_

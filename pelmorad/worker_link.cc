#include "pelmorad/worker_link.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace pelmorad {
namespace {

// Groups beyond this many are not passed (LookUpIdentity reads at most as many).
constexpr uint32_t kMaxGroups = 1024;

class Writer {
 public:
  explicit Writer(LinkKind kind) { bytes_.push_back(static_cast<uint8_t>(kind)); }
  void Number(uint64_t value, int size) {
    for (int i = 0; i < size; ++i) bytes_.push_back(static_cast<uint8_t>(value >> (8 * i)));
  }
  void Bytes(std::span<const uint8_t> data) {
    Number(data.size(), 4);
    bytes_.insert(bytes_.end(), data.begin(), data.end());
  }
  void Text(const std::string& text) {
    Bytes({reinterpret_cast<const uint8_t*>(text.data()), text.size()});
  }
  std::vector<uint8_t> Take() { return std::move(bytes_); }

 private:
  std::vector<uint8_t> bytes_;
};

// Reads fields in order; once a field does not fit, every later read fails too.
class Reader {
 public:
  Reader(LinkKind kind, std::span<const uint8_t> packet) : rest_(packet) {
    ok_ = !rest_.empty() && rest_[0] == static_cast<uint8_t>(kind);
    if (ok_) rest_ = rest_.subspan(1);
  }
  uint64_t Number(int size) {
    if (!ok_ || rest_.size() < static_cast<std::size_t>(size)) return Fail();
    uint64_t value = 0;
    for (int i = 0; i < size; ++i) value |= static_cast<uint64_t>(rest_[i]) << (8 * i);
    rest_ = rest_.subspan(static_cast<std::size_t>(size));
    return value;
  }
  std::vector<uint8_t> Bytes() {
    uint64_t size = Number(4);
    if (!ok_ || rest_.size() < size) return Fail(), std::vector<uint8_t>();
    std::vector<uint8_t> data(rest_.begin(), rest_.begin() + static_cast<std::ptrdiff_t>(size));
    rest_ = rest_.subspan(size);
    return data;
  }
  std::string Text() {
    std::vector<uint8_t> data = Bytes();
    return std::string(data.begin(), data.end());
  }
  // True when every field fitted and nothing is left over.
  bool Done() const { return ok_ && rest_.empty(); }

 private:
  uint64_t Fail() {
    ok_ = false;
    return 0;
  }
  std::span<const uint8_t> rest_;
  bool ok_ = false;
};

}  // namespace

std::vector<uint8_t> EncodeSetup(const WorkerSetup& setup) {
  Writer out(LinkKind::kSetup);
  out.Text(setup.account);
  out.Text(setup.config_source);
  out.Number(static_cast<uint64_t>(setup.service), 4);
  out.Number(setup.command_slot, 4);
  out.Number(setup.identity ? 1 : 0, 1);
  if (setup.identity) {
    out.Text(setup.identity->user);
    out.Number(setup.identity->uid, 4);
    out.Number(setup.identity->gid, 4);
    std::size_t groups = std::min<std::size_t>(setup.identity->groups.size(), kMaxGroups);
    out.Number(groups, 4);
    for (std::size_t i = 0; i < groups; ++i) out.Number(setup.identity->groups[i], 4);
  }
  out.Text(setup.drive_letters);
  return out.Take();
}

std::optional<WorkerSetup> DecodeSetup(std::span<const uint8_t> packet) {
  Reader in(LinkKind::kSetup, packet);
  WorkerSetup setup;
  setup.account = in.Text();
  setup.config_source = in.Text();
  setup.service = static_cast<pid_t>(in.Number(4));
  setup.command_slot = static_cast<uint32_t>(in.Number(4));
  if (in.Number(1) == 1) {
    Identity identity;
    identity.user = in.Text();
    identity.uid = static_cast<uid_t>(in.Number(4));
    identity.gid = static_cast<gid_t>(in.Number(4));
    uint64_t groups = in.Number(4);
    if (groups > kMaxGroups) return std::nullopt;
    for (uint64_t i = 0; i < groups; ++i) identity.groups.push_back(static_cast<gid_t>(in.Number(4)));
    setup.identity = std::move(identity);
  }
  setup.drive_letters = in.Text();
  if (!in.Done()) return std::nullopt;
  return setup;
}

std::vector<uint8_t> EncodeSession(const SessionState& state) {
  Writer out(LinkKind::kSession);
  out.Number(state.id, 8);
  out.Text(state.address);
  out.Text(state.peer);
  out.Number(static_cast<uint32_t>(state.sequence), 4);
  out.Bytes(state.pending);
  return out.Take();
}

std::optional<SessionState> DecodeSession(std::span<const uint8_t> packet) {
  Reader in(LinkKind::kSession, packet);
  SessionState state;
  state.id = in.Number(8);
  state.address = in.Text();
  state.peer = in.Text();
  state.sequence = static_cast<int32_t>(static_cast<uint32_t>(in.Number(4)));
  state.pending = in.Bytes();
  if (!in.Done()) return std::nullopt;
  return state;
}

std::vector<uint8_t> EncodeNumber(LinkKind kind, uint64_t number) {
  Writer out(kind);
  out.Number(number, 8);
  return out.Take();
}

std::optional<uint64_t> DecodeNumber(LinkKind kind, std::span<const uint8_t> packet) {
  Reader in(kind, packet);
  uint64_t number = in.Number(8);
  if (!in.Done()) return std::nullopt;
  return number;
}

int SendPacket(int link, std::span<const uint8_t> packet, std::span<const int> descriptors) {
  if (packet.size() > kMaxLinkPacket || descriptors.size() > kMaxLinkDescriptors) return EMSGSIZE;
  iovec part{const_cast<uint8_t*>(packet.data()), packet.size()};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxLinkDescriptors)] = {};
  if (!descriptors.empty()) {
    message.msg_control = control;
    message.msg_controllen = CMSG_SPACE(sizeof(int) * descriptors.size());
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int) * descriptors.size());
    std::memcpy(CMSG_DATA(header), descriptors.data(), sizeof(int) * descriptors.size());
  }
  while (true) {
    ssize_t sent = ::sendmsg(link, &message, MSG_NOSIGNAL);
    if (sent >= 0) return 0;
    if (errno != EINTR) return errno;
  }
}

Received ReceivePacket(int link, bool wait) {
  Received received;
  received.data.resize(kMaxLinkPacket);
  iovec part{received.data.data(), received.data.size()};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxLinkDescriptors)];
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  ssize_t got;
  do {
    got = ::recvmsg(link, &message, MSG_CMSG_CLOEXEC | (wait ? 0 : MSG_DONTWAIT));
  } while (got < 0 && errno == EINTR);
  if (got < 0) {
    received.error = errno;
    received.data.clear();
    return received;
  }
  received.data.resize(static_cast<std::size_t>(got));
  for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
       header = CMSG_NXTHDR(&message, header)) {
    if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) continue;
    std::size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (std::size_t i = 0; i < count; ++i) {
      int fd;
      std::memcpy(&fd, CMSG_DATA(header) + i * sizeof(int), sizeof(int));
      received.descriptors.emplace_back(fd);
    }
  }
  if ((message.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0) {
    received.error = EMSGSIZE;
    received.data.clear();
    received.descriptors.clear();
  } else if (got == 0) {
    received.closed = true;
  }
  return received;
}

}  // namespace pelmorad

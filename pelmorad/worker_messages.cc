// The link's messages as bytes (declared in worker_link.h); kept apart from the socket calls so
// the fuzz build can take the decoders alone.
#include <algorithm>

#include "pelmorad/worker_link.h"

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
  uint64_t has_identity = in.Number(1);
  if (has_identity > 1) return std::nullopt;
  if (has_identity == 1) {
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

}  // namespace pelmorad

// The link between the service's root process and an account worker: a SOCK_SEQPACKET socket
// pair, one message per packet, descriptors passed with SCM_RIGHTS. The root process sends the
// set-up (once, first), logged-in sessions, revocation and stop; the worker sends the end of each
// session. Every message is a kind byte and fields in a fixed order (32-bit and 64-bit numbers
// little-endian, texts and byte strings with a 32-bit length); the decoders check every length
// against what is left of the packet.
//
//   SendPacket(link, EncodeSession(state), {connection});
//   Received packet = ReceivePacket(link, false);
//   std::optional<SessionState> state = DecodeSession(packet.data);
#ifndef PELMORAD_WORKER_LINK_H_
#define PELMORAD_WORKER_LINK_H_

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "pelmorad/drives.h"
#include "pelmorad/identity.h"

namespace pelmorad {

enum class LinkKind : uint8_t {
  kSetup = 1,    // root -> worker: descriptors config text, command counts, drive folders
  kSession = 2,  // root -> worker: descriptor the session's connection
  kRevoke = 3,   // root -> worker: the account was removed or changed; end every session now
  kStop = 4,     // root -> worker: the service stops; let transfers run for the grace period
  kEnded = 5,    // worker -> root: a session ended
};

// The largest packet either side sends or accepts, and the most descriptors in one.
inline constexpr std::size_t kMaxLinkPacket = 64 * 1024;
inline constexpr std::size_t kMaxLinkDescriptors = 32;

// What a worker learns before it serves: whose it is and what to drop to.
struct WorkerSetup {
  std::string account;
  std::string config_source;    // the configuration's path, for messages
  pid_t service = 0;            // the root process, which the worker must not outlive
  uint32_t command_slot = 0;    // this worker's place in the shared command count
  std::optional<Identity> identity;  // nullopt: keep the service's own (it is not root)
  std::string drive_letters;    // the letter of each drive descriptor, in order
};

// A logged-in session as the login left it.
struct SessionState {
  uint64_t id = 0;
  std::string address;  // the client's address without the port
  std::string peer;     // address:port, for the audit lines
  int32_t sequence = 0;  // of the client's last framed message (the login)
  std::vector<uint8_t> pending;  // bytes read from the connection past the login message
};

std::vector<uint8_t> EncodeSetup(const WorkerSetup& setup);
std::optional<WorkerSetup> DecodeSetup(std::span<const uint8_t> packet);
std::vector<uint8_t> EncodeSession(const SessionState& state);
std::optional<SessionState> DecodeSession(std::span<const uint8_t> packet);
// kRevoke, kStop (with the grace period) and kEnded (with the session's id).
std::vector<uint8_t> EncodeNumber(LinkKind kind, uint64_t number);
std::optional<uint64_t> DecodeNumber(LinkKind kind, std::span<const uint8_t> packet);
// The kind of a packet (0 for an empty one).
inline uint8_t KindOf(std::span<const uint8_t> packet) { return packet.empty() ? 0 : packet[0]; }

// Sends one packet with `descriptors` (which stay open here). Returns 0 or the errno (EAGAIN on
// a full non-blocking link).
int SendPacket(int link, std::span<const uint8_t> packet, std::span<const int> descriptors);

struct Received {
  int error = 0;                  // errno; 0 with an empty `data` and `closed` at the end
  bool closed = false;            // the other side is gone
  std::vector<uint8_t> data;
  std::vector<UniqueFd> descriptors;  // close-on-exec
};

// Receives one packet; `wait` false returns error EAGAIN when none is there. A truncated packet
// or descriptor list is an error (EMSGSIZE), its descriptors closed.
Received ReceivePacket(int link, bool wait);

}  // namespace pelmorad

#endif  // PELMORAD_WORKER_LINK_H_

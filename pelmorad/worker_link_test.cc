#include "pelmorad/worker_link.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "pelmorad/runtime.h"
#include "pelmorad/worker.h"

namespace pelmorad {
namespace {

WorkerSetup FullSetup() {
  WorkerSetup setup;
  setup.account = "alpha";
  setup.config_source = "/etc/pelmora/pelmorad.toml";
  setup.service = 4321;
  setup.command_slot = 17;
  setup.identity = Identity{"backup", 998, 997, {997, 27, 100}};
  setup.drive_letters = "CDZ";
  return setup;
}

TEST(WorkerLink, MessagesDecodeToWhatWasEncoded) {
  std::optional<WorkerSetup> setup = DecodeSetup(EncodeSetup(FullSetup()));
  ASSERT_TRUE(setup);
  EXPECT_EQ(setup->account, "alpha");
  EXPECT_EQ(setup->service, 4321);
  EXPECT_EQ(setup->command_slot, 17u);
  ASSERT_TRUE(setup->identity);
  EXPECT_EQ(setup->identity->uid, 998u);
  EXPECT_EQ(setup->identity->groups, (std::vector<gid_t>{997, 27, 100}));
  EXPECT_EQ(setup->drive_letters, "CDZ");

  SessionState state{.id = 1ULL << 40, .address = "::1", .peer = "[::1]:5", .sequence = -7,
                     .pending = {1, 2, 3}};
  std::optional<SessionState> back = DecodeSession(EncodeSession(state));
  ASSERT_TRUE(back);
  EXPECT_EQ(back->id, state.id);
  EXPECT_EQ(back->peer, "[::1]:5");
  EXPECT_EQ(back->sequence, -7);
  EXPECT_EQ(back->pending, state.pending);
  EXPECT_EQ(DecodeNumber(LinkKind::kEnded, EncodeNumber(LinkKind::kEnded, 99)), 99u);
}

TEST(WorkerLink, EveryShortenedLengthenedOrMislabelledPacketIsRefused) {
  std::vector<uint8_t> setup = EncodeSetup(FullSetup());
  std::vector<uint8_t> session =
      EncodeSession({.id = 3, .address = "a", .peer = "a:1", .sequence = 0, .pending = {}});
  for (std::size_t size = 0; size < setup.size(); ++size) {
    EXPECT_FALSE(DecodeSetup(std::span(setup).first(size))) << size;
  }
  for (std::size_t size = 0; size < session.size(); ++size) {
    EXPECT_FALSE(DecodeSession(std::span(session).first(size))) << size;
  }
  setup.push_back(0);
  EXPECT_FALSE(DecodeSetup(setup));
  EXPECT_FALSE(DecodeSession(EncodeNumber(LinkKind::kEnded, 1)));
  EXPECT_FALSE(DecodeNumber(LinkKind::kStop, EncodeNumber(LinkKind::kEnded, 1)));
}

TEST(WorkerLink, DescriptorsTravelWithTheirPacketAndAnEndIsSeen) {
  int pair[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
  UniqueFd root(pair[0]), worker(pair[1]);
  int pipe_ends[2];
  ASSERT_EQ(::pipe(pipe_ends), 0);
  UniqueFd read_end(pipe_ends[0]), write_end(pipe_ends[1]);
  int fds[] = {write_end.get()};
  ASSERT_EQ(SendPacket(root.get(), EncodeNumber(LinkKind::kStop, 5), fds), 0);
  EXPECT_EQ(ReceivePacket(worker.get(), false).descriptors.size(), 1u);
  EXPECT_EQ(ReceivePacket(worker.get(), false).error, EAGAIN);
  root = UniqueFd();
  EXPECT_TRUE(ReceivePacket(worker.get(), true).closed);
}

TEST(CommandCount, SharedPlacesNeverAdmitMoreThanTheLimit) {
  std::atomic<int> slots[3] = {0, 0, 0};
  CommandCount first, second;
  first.Share(slots, 3, 1);
  second.Share(slots, 3, 2);
  EXPECT_TRUE(first.TryTake(2));
  EXPECT_TRUE(second.TryTake(2));
  EXPECT_FALSE(first.TryTake(2));
  EXPECT_FALSE(second.TryTake(2));
  EXPECT_EQ(first.Total(), 2);
  second.Give();
  EXPECT_TRUE(first.TryTake(2));
  EXPECT_EQ(slots[1].load(), 2);
  EXPECT_EQ(slots[2].load(), 0);
}

// In a child process: DropTo makes every id the user's, keeps only its groups, and root cannot
// be had back.
TEST(DropTo, LeavesNoWayBackToRoot) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root";
  std::optional<Identity> nobody = LookUpIdentity(kDefaultAccountUser);
  ASSERT_TRUE(nobody);
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    bool dropped = DropTo(*nobody);
    uid_t r, e, s;
    ::getresuid(&r, &e, &s);
    gid_t groups[8];
    int count = ::getgroups(8, groups);
    bool groups_right = count == static_cast<int>(nobody->groups.size()) &&
                        std::equal(groups, groups + count, nobody->groups.begin());
    bool back = ::setuid(0) == 0 || ::seteuid(0) == 0 || ::setresuid(0, 0, 0) == 0;
    ::_exit(dropped && r == nobody->uid && e == r && s == r && groups_right && !back ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

}  // namespace
}  // namespace pelmorad

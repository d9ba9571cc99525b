#include "pelmora/common/process_tree.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "pelmora/common/child_process.h"
#include "pelmora/testing/process_ends.h"

namespace pelmora {
namespace {

using testing::ProcessEnds;
constexpr int kWaitMs = 10000;  // upper bound for anything a test waits on

TEST(ParseChildList, ReadsNumbersUpToTheFirstStrayByte) {
  const struct {
    const char* text;
    std::vector<pid_t> pids;
  } cases[] = {
      {"", {}},
      {"1234 5678 ", {1234, 5678}},
      {"42\n", {42}},
      {"  7  8", {7, 8}},
      {"12 x3 4", {12}},
      {"12 3x 4", {12}},
      {"0 5", {}},
      {"-5 6", {}},
      {"2147483647 1", {2147483647, 1}},
      {"2147483648 1", {}},
      {"99999999999 7", {}},
  };
  for (const auto& test : cases) {
    EXPECT_EQ(ParseChildList(test.text), test.pids) << '"' << test.text << '"';
  }
}

// The first `count` process numbers the child writes, one per line (bounded by kWaitMs).
std::vector<pid_t> ReadPids(const ChildProcess& child, std::size_t count) {
  std::string text;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
  auto lines = [&] { return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')); };
  while (lines() < count && std::chrono::steady_clock::now() < deadline) {
    pollfd entry{child.output_fd(), POLLIN, 0};
    if (poll(&entry, 1, kWaitMs) != 1) break;
    char buffer[256];
    ssize_t got = read(child.output_fd(), buffer, sizeof(buffer));
    if (got == 0) break;
    if (got > 0) text.append(buffer, static_cast<std::size_t>(got));
  }
  std::vector<pid_t> pids;
  std::istringstream in(text);
  for (pid_t pid = 0; in >> pid;) pids.push_back(pid);
  return pids;
}

ChildSpec Tracked(const std::string& command_line) {
  ChildSpec launch;
  launch.command_line = command_line;
  launch.track_descendants = true;
  return launch;
}

// Processes that leave the child's group and session, or lose their parent, are still killed.
TEST(KillProcessTree, KillsWhatATrackedChildDetached) {
  const struct {
    const char* name;
    const char* command;
    std::size_t count;  // detached processes, each writing its pid
  } cases[] = {
      {"setsid", "setsid sh -c 'echo $$; exec sleep 60' & wait", 1},
      {"double fork", "(setsid sh -c 'echo $$; exec sleep 60' &); sleep 60", 1},
      {"orphans of orphans",
       "(sh -c '(setsid sh -c \"echo \\$\\$; exec sleep 60\" &); echo $$; exec sleep 60' &); "
       "exec sleep 60",
       2},
      {"many", "for i in 1 2 3 4 5 6 7 8; do (setsid sh -c 'echo $$; exec sleep 60' &); done; exec sleep 60",
       8},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.name);
    ChildProcess child = ChildProcess::Start(Tracked(test.command));
    std::vector<pid_t> detached = ReadPids(child, test.count);
    ASSERT_EQ(detached.size(), test.count);
    child.KillTree();
    EXPECT_EQ(child.Wait(), (ChildExit{true, SIGKILL}));
    for (pid_t pid : detached) {
      EXPECT_TRUE(ProcessEnds(pid, kWaitMs)) << pid;
      if (!ProcessEnds(pid, 0)) kill(pid, SIGKILL);
    }
  }
}

TEST(KillProcessTree, DestroyingARunningTrackedChildKillsWhatItDetached) {
  std::vector<pid_t> detached;
  {
    ChildProcess child =
        ChildProcess::Start(Tracked("(setsid sh -c 'echo $$; exec sleep 60' &); sleep 60"));
    detached = ReadPids(child, 1);
    ASSERT_EQ(detached.size(), 1u);
  }
  EXPECT_TRUE(ProcessEnds(detached[0], kWaitMs));
  if (!ProcessEnds(detached[0], 0)) kill(detached[0], SIGKILL);
}

// What a child leaves running when it ends normally goes on, as without tracking.
TEST(KillProcessTree, LeavesWhatOutlivesANormalEnd) {
  ChildProcess probe = ChildProcess::Start(Tracked("setsid sh -c 'echo $$; exec sleep 60' &"));
  std::vector<pid_t> left = ReadPids(probe, 1);
  ASSERT_EQ(left.size(), 1u);
  EXPECT_EQ(probe.Wait(), (ChildExit{false, 0}));
  probe.KillTree();  // reaped: no longer the tree's root, so nothing is killed
  EXPECT_FALSE(ProcessEnds(left[0], 0));
  kill(left[0], SIGKILL);
  EXPECT_TRUE(ProcessEnds(left[0], kWaitMs));
}

}  // namespace
}  // namespace pelmora

#include "pelmorad/exec_stream.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <future>
#include <string>
#include <vector>

#include "pelmora/admin/exec_wire.h"
#include "pelmora/common/child_process.h"
#include "pelmorad/command_tree.h"

namespace pelmorad {
namespace {

using pelmora::admin::ExecFrame;
using pelmora::admin::ExecFrameKind;
using pelmora::admin::ExecFrameReader;
using pelmora::admin::ExecPeer;

// The client's end of a stream phase over a socket pair.
class Client {
 public:
  explicit Client(int fd) : fd_(fd) {}

  void Send(const std::vector<uint8_t>& bytes) {
    ASSERT_EQ(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  // True when the service sent anything within `ms`.
  bool Readable(int ms) {
    pollfd wait{fd_, POLLIN, 0};
    return ::poll(&wait, 1, ms) == 1;
  }
  // Frames up to and including the exit frame (bounded: 10 s of silence ends the read).
  std::vector<ExecFrame> ReadToExit() {
    std::vector<ExecFrame> frames;
    while (frames.empty() || frames.back().kind != ExecFrameKind::kExit) {
      if (std::optional<ExecFrame> frame = reader_.Next()) {
        frames.push_back(std::move(*frame));
        continue;
      }
      uint8_t buffer[4096];
      if (!Readable(10000)) break;
      ssize_t got = ::recv(fd_, buffer, sizeof(buffer), 0);
      if (got <= 0) break;
      reader_.Append(std::span<const uint8_t>(buffer, static_cast<std::size_t>(got)));
    }
    return frames;
  }

 private:
  int fd_;
  ExecFrameReader reader_{ExecPeer::kService};
};

std::string Text(const ExecFrame& frame) {
  return std::string(frame.payload.begin(), frame.payload.end());
}

// A command that exits before the client's first frame arrives (a client slowed down, or a
// loaded machine): nothing may reach the client before that frame, and the output still comes
// in full before the exit frame.
TEST(ExecStream, ACommandThatEndsBeforeTheClientsFirstFrameKeepsItsOutput) {
  int pair[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  pelmora::ChildSpec launch = TrackedCommand("/bin/sh", "printf out; printf err >&2");
  launch.separate_streams = true;
  pelmora::ChildProcess child = pelmora::ChildProcess::Start(launch);
  pollfd exited{child.exit_fd(), POLLIN, 0};  // readable once the command has exited
  auto stream = std::async(std::launch::async, [&] {
    return RunExecStream(pair[0], child, {.finish_ms = 10000, .drain_ms = 300});
  });

  ASSERT_EQ(::poll(&exited, 1, 10000), 1);
  Client client(pair[1]);
  EXPECT_FALSE(client.Readable(800)) << "the service spoke before the client's first frame";
  client.Send(pelmora::admin::BuildExecGrant(ExecFrameKind::kGrant, 65536));
  client.Send(pelmora::admin::BuildExecFrame(ExecFrameKind::kInputEnd, {}));
  std::vector<ExecFrame> frames = client.ReadToExit();
  client.Send(pelmora::admin::BuildExecFrame(ExecFrameKind::kDone, {}));

  ASSERT_GE(frames.size(), 4u);
  EXPECT_EQ(frames.front().kind, ExecFrameKind::kInputGrant);
  std::string out, err;
  for (const ExecFrame& frame : frames) {
    if (frame.kind == ExecFrameKind::kOutput) out += Text(frame);
    if (frame.kind == ExecFrameKind::kError) err += Text(frame);
  }
  EXPECT_EQ(out, "out");
  EXPECT_EQ(err, "err");
  ASSERT_EQ(frames.back().kind, ExecFrameKind::kExit);
  EXPECT_EQ(pelmora::admin::ParseExecExit(frames.back().payload),
            (pelmora::admin::ExecExit{pelmora::admin::ExecOutcome::kExited, 0}));
  ExecStreamResult result = stream.get();
  EXPECT_TRUE(result.in_step);
  ::close(pair[0]);
  ::close(pair[1]);
}

// A client that never sends its first frame does not hold the loop beyond the finish time.
TEST(ExecStream, AClientThatNeverStartsIsGivenUpAfterTheFinishTime) {
  int pair[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  pelmora::ChildSpec launch = TrackedCommand("/bin/sh", "true");
  launch.separate_streams = true;
  pelmora::ChildProcess child = pelmora::ChildProcess::Start(launch);
  auto stream = std::async(std::launch::async, [&] {
    return RunExecStream(pair[0], child, {.finish_ms = 200, .drain_ms = 0});
  });
  ASSERT_EQ(stream.wait_for(std::chrono::seconds(30)), std::future_status::ready);
  EXPECT_FALSE(stream.get().in_step);
  ::close(pair[0]);
  ::close(pair[1]);
}

}  // namespace
}  // namespace pelmorad

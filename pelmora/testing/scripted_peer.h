// A scripted TCP peer on loopback for protocol tests.
//
// The peer listens on 127.0.0.1 at a free port, accepts one connection and plays a script on its
// own thread: receive exactly n bytes (recorded), send canned bytes, compute a reply from what was
// received, stall, or close. Tests then compare the recorded bytes with the exact bytes expected.
//
//   ScriptedPeer peer;
//   peer.Receive(1500).ReplyWith([](const Bytes& got) { return ResultReplyFor(got); }).Close();
//   peer.Start();
//   ... connect a client to peer.Port() and run it ...
//   EXPECT_EQ(peer.Received(0), expected_login_packet);
//
// Every wait is bounded (the step time-out, 10 s by default), so a broken client fails a test
// instead of hanging it.
#ifndef PELMORA_TESTING_SCRIPTED_PEER_H_
#define PELMORA_TESTING_SCRIPTED_PEER_H_

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace pelmora::testing {

using Bytes = std::vector<uint8_t>;

class ScriptedPeer {
 public:
  // Listens on 127.0.0.1 at a free port; the script runs once Start is called.
  ScriptedPeer();
  // Closes the connection and waits for the script's thread.
  ~ScriptedPeer();
  ScriptedPeer(const ScriptedPeer&) = delete;
  ScriptedPeer& operator=(const ScriptedPeer&) = delete;

  uint16_t Port() const { return port_; }

  // Script steps, played in the order added.
  // Reads exactly `n` bytes and records them as the next received chunk.
  ScriptedPeer& Receive(size_t n);
  // Sends `bytes` as they are.
  ScriptedPeer& Send(Bytes bytes);
  // Sends what `reply` makes of every chunk received so far (the last one is back()).
  ScriptedPeer& ReplyWith(std::function<Bytes(const std::vector<Bytes>& received)> reply);
  // Reads until the client closes the connection (or the step time-out), recording the bytes.
  ScriptedPeer& ReceiveUntilClosed();
  // Keeps the connection open, sending nothing, until the client closes it or the test ends.
  ScriptedPeer& Stall();
  // Closes the connection (a normal close, or a reset when `reset` is true).
  ScriptedPeer& Close(bool reset = false);

  // Time-out for each step; a step that runs out fails the script.
  void SetStepTimeout(std::chrono::milliseconds timeout) { step_timeout_ = timeout; }

  // Starts accepting and playing the script on the peer's thread.
  void Start();

  // Waits (bounded by the step time-out times the number of steps) for the script to finish and
  // returns whether every step succeeded; Failure() then says which step failed and why.
  bool Finish();
  std::string Failure() const;

  // The chunks received so far, in order, and one of them by index (empty when missing).
  std::vector<Bytes> ReceivedChunks() const;
  Bytes Received(size_t index) const;

 private:
  struct Step;
  void Run();
  bool RunStep(const Step& step);
  bool ReadExactly(size_t n, Bytes& out);
  bool WaitReadable();
  void Fail(std::string why);

  int listen_fd_ = -1;
  int conn_fd_ = -1;
  uint16_t port_ = 0;
  std::chrono::milliseconds step_timeout_{10000};
  std::vector<Step> steps_;
  std::thread thread_;
  mutable std::mutex mutex_;
  std::condition_variable done_cv_;
  bool done_ = false;
  bool ok_ = true;
  std::string failure_;
  std::vector<Bytes> received_;
  int stop_pipe_[2] = {-1, -1};
};

}  // namespace pelmora::testing

#endif  // PELMORA_TESTING_SCRIPTED_PEER_H_

// What the tests of the tool against scripted administration peers share: scratch files of this
// test process, the environment every run gets, the admin command line for a peer, a one-shot
// gate between a peer's thread and the test, and a plain peer's answer to the hello.
#ifndef TESTS_CLI_CLI_SCRIPTED_SUPPORT_H_
#define TESTS_CLI_CLI_SCRIPTED_SUPPORT_H_

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "pelmora/admin/internal/built_in_secrets.h"
#include "pelmora/testing/admin_peer.h"

namespace pelmora_cli_test::scripted {

using pelmora::testing::Answer;
using pelmora::testing::ExpectRequest;
using pelmora::testing::ScriptedPeer;
using Env = std::vector<std::pair<std::string, std::string>>;

inline constexpr std::chrono::seconds kLimit(20);

// A scratch file of this test process (ctest runs the tests as parallel processes).
inline std::string Scratch(const std::string& name) {
  std::string path =
      ::testing::TempDir() + "pelmora-cli-" + std::to_string(::getpid()) + "-" + name;
  std::ofstream(path).close();
  return path;
}

// The environment every run gets: the library's own folders in a scratch place, the access code.
inline Env BaseEnv() {
  return {{"PELMORA_HOME", ::testing::TempDir() + "pelmora-cli-home"},
          {"PELMORA_ACCESS_CODE", pelmora::admin::internal::BuiltInAccessCode()}};
}

inline std::vector<std::string> Admin(const ScriptedPeer& peer, std::vector<std::string> command) {
  std::vector<std::string> args = {"admin", "--host", "127.0.0.1", "--port",
                                   std::to_string(peer.Port())};
  args.insert(args.end(), command.begin(), command.end());
  return args;
}

// A one-shot gate between the peer's thread and the test.
class Gate {
 public:
  void Open() {
    std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  bool Wait() {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kLimit, [this] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
};

// A plain peer's answer to the hello: the failure of an unknown request.
inline void RefuseHello(ScriptedPeer& peer) {
  ExpectRequest(peer).ReplyWith(
      Answer(pelmora::testing::ResultData(false, 1, "Incorrect function.")));
}

// What the tool says when a plain peer cannot report the command's exit status.
inline constexpr const char* kUnknownStatus =
    "pelmora: 127.0.0.1: the command ended, but the service does not report exit statuses: the "
    "status is unknown\n";

}  // namespace pelmora_cli_test::scripted

#endif  // TESTS_CLI_CLI_SCRIPTED_SUPPORT_H_

// The service's open descriptors after many short commands, through both the plain command
// exchange and the extended one: each command's pipe and exit descriptor must be closed by the
// time its status has reached the client, whichever of its output's end and its exit the service
// saw first.
#include <gtest/gtest.h>

#include <filesystem>
#include <span>
#include <functional>
#include <string>

#include "pelmora/admin/rcfso.h"
#include "tests/service/service_process.h"

namespace pelmorad::testing {
namespace {

using pelmora::admin::ExecExit;
using pelmora::admin::RCFSO;
using pelmora::admin::RemoteCommand;
using pelmora::admin::RemoteCommandIo;

constexpr int kWarmUp = 3;
constexpr int kCommands = 20;
// What one command may still hold for a moment after its status reached the client (its pipe,
// exit descriptor and their duplicates): the count is compared with this margin, far below the
// two or more per command that a leak adds.
constexpr size_t kOneCommand = 4;

size_t OpenDescriptors(pid_t pid) {
  size_t count = 0;
  for (const auto& entry :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
    (void)entry;
    ++count;
  }
  return count;
}

TEST(ServiceDescriptors, ShortCommandsGiveBackEveryDescriptor) {
  ServiceProcess service;
  ASSERT_TRUE(service.Start());
  RCFSO fso;
  ASSERT_TRUE(fso.Connect("127.0.0.1", service.port(), "operator", kOperatorPassword, false));
  fso.set_timeout(20000);
  struct Exchange {
    const char* name;
    std::function<bool()> run;
  };
  const Exchange exchanges[] = {
      {"plain", [&] { return fso.SyncCreateProcess("echo a; echo b", 10000); }},
      {"extended",
       [&] {
         RemoteCommandIo io;
         io.output = [](std::span<const uint8_t>) {};
         io.error = [](std::span<const uint8_t>) {};
         ExecExit exit;
         RemoteCommand command{.command_line = "echo a; echo b", .arguments = {}, .timeout = 10000};
         return fso.RunCommand(command, io, exit) && exit.code == 0;
       }},
  };
  for (const Exchange& exchange : exchanges) {
    SCOPED_TRACE(exchange.name);
    for (int i = 0; i < kWarmUp; ++i) ASSERT_TRUE(exchange.run()) << fso.ErrDescription();
    const size_t before = OpenDescriptors(service.pid());
    for (int i = 0; i < kCommands; ++i) ASSERT_TRUE(exchange.run()) << fso.ErrDescription();
    EXPECT_LE(OpenDescriptors(service.pid()), before + kOneCommand);
  }
}

}  // namespace
}  // namespace pelmorad::testing

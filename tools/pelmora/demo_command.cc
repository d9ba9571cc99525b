// `pelmora demo`: writes the day's logs under a log root and runs a WinSock exchange with a peer
// that listens on a loopback port in the same process.
//
//   pelmora demo [--log-root DIR]
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "pelmora/common/error.h"
#include "pelmora/common/log.h"
#include "pelmora/common/system.h"
#include "pelmora/net/winsock.h"
#include "tools/pelmora/commands.h"

namespace pelmora_tool {
namespace {

constexpr std::string_view kModule = "PelmoraDemo";
constexpr std::string_view kPing = "PING from the pelmora demo";
constexpr std::string_view kPong = "PONG from the loopback peer";

void Trace(std::string_view routine, const std::string& text) {
  pelmora::WriteLog(3, text, kModule, routine, pelmora::kLogEntryInformation);
  std::printf("  %s\n", text.c_str());
}

// The port the kernel chose for a socket that listens on port 0.
int BoundPort(const pelmora::WinSock& socket) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  if (getsockname(socket.SocketHandle(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return -1;
  }
  return ntohs(address.sin_port);
}

std::vector<uint8_t> Bytes(std::string_view text) { return {text.begin(), text.end()}; }

// The peer: accepts one connection, reads the ping and answers with the pong.
void ServeOnce(pelmora::WinSock& listener) {
  std::unique_ptr<pelmora::WinSock> peer = listener.Accept();
  if (!peer) return;
  peer->SetReceiveTimeout(5000);
  std::string ping;
  if (peer->GetData(ping, static_cast<int32_t>(kPing.size())) != 0) return;
  peer->SendData(Bytes(kPong));
}

int RunExchange() {
  pelmora::WinSock listener;
  listener.SetLocalPort(0);
  listener.Listen();
  int port = BoundPort(listener);
  Trace("Listen", "peer listening on 127.0.0.1:" + std::to_string(port));
  std::thread peer([&listener] { ServeOnce(listener); });

  pelmora::WinSock client;
  client.SetRemoteHost("127.0.0.1");
  client.SetRemotePort(port);
  client.SetReceiveTimeout(5000);
  int32_t status = 0;
  std::string pong;
  try {
    client.Connect();
    Trace("Connect", "connected, socket handle " + std::to_string(client.SocketHandle()));
    status = client.SendData(Bytes(kPing));
    if (status == 0) status = client.GetData(pong, static_cast<int32_t>(kPong.size()));
  } catch (const pelmora::Error& error) {
    status = error.Number();
  }
  client.Disconnect();
  listener.Disconnect();
  peer.join();
  if (status != 0) {
    std::string text = client.GetErrorDescription(status);
    pelmora::WriteLog(1, text, kModule, "Exchange", pelmora::kLogEntryError);
    pelmora::WriteLogFile(status, text, kModule, "Exchange", pelmora::kLogEntryError);
    std::printf("  exchange failed: %d %s\n", status, text.c_str());
    return 1;
  }
  Trace("SendData", "sent \"" + std::string(kPing) + "\"");
  Trace("GetData", "received \"" + pong + "\"");
  pelmora::WriteLogFile(-1, "exchange complete", kModule, "Exchange",
                        pelmora::kLogEntryInformation);
  return 0;
}

void ShowFiles(const std::filesystem::path& folder) {
  std::error_code error;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder, error)) {
    if (!entry.is_regular_file()) continue;
    std::printf("\n%s:\n", entry.path().c_str());
    std::ifstream file(entry.path(), std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    std::fputs(text.str().c_str(), stdout);
  }
}

int Demo(std::string root) {
  if (root.empty()) root = pelmora::GetTempFolder() + "pelmora-demo/logs";
  std::error_code error;
  std::filesystem::create_directories(root, error);
  pelmora::LogRoot() = root;
  pelmora::LogLevel() = 3;
  std::printf("pelmora demo on %s, logs under %s\n", pelmora::LocalComputerName().c_str(),
              root.c_str());
  int status = RunExchange();
  ShowFiles(root);
  ShowFiles(pelmora::LibraryFolder() + "/../Log");
  return status;
}

}  // namespace

void AddDemoCommand(CLI::App& app, CommandAction& action) {
  CLI::App* demo = app.add_subcommand("demo", "Write logs and run a loopback WinSock exchange");
  auto root = std::make_shared<std::string>();
  demo->add_option("--log-root", *root, "Folder for the day's logs (default: a temporary one)");
  demo->callback([root, &action] { action = [root] { return Demo(*root); }; });
}

int RunDefaultDemo() { return Demo(""); }

}  // namespace pelmora_tool

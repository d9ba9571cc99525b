// Progress of a file transfer that runs on the calling thread, taken from the transfer itself:
// while an upload reads its local file, or a download writes it, a watcher thread reads the file
// offset of the transfer's own descriptor (/proc/self/fdinfo) every tenth of a second and reports
// it. Nothing is estimated: the count is what the transfer has read from or written to the file.
//
//   TransferWatch watch(output, "/tmp/big.iso", info.FileSize());
//   fso.Download("/tmp/big.iso", "C:\\big.iso");     // output.TransferBytes(...) meanwhile
//   watch.Stop(final_bytes);
#ifndef TOOLS_PELMORA_TRANSFER_WATCH_H_
#define TOOLS_PELMORA_TRANSFER_WATCH_H_

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "tools/pelmora/admin_session.h"

namespace pelmora_tool {

// The offset of the open descriptor of this process whose file is `path` (the first one found),
// or nullopt when no descriptor has it open. Reads /proc/self; never fails otherwise.
std::optional<uint64_t> OpenFileOffset(const std::string& path);

class TransferWatch {
 public:
  // Starts watching `path` (a transfer of `total` bytes, 0 when unknown) when `output` shows
  // progress; otherwise does nothing.
  TransferWatch(HostOutput& output, std::string path, uint64_t total);
  // Stops the watcher (as Stop without a final count).
  ~TransferWatch();
  TransferWatch(const TransferWatch&) = delete;
  TransferWatch& operator=(const TransferWatch&) = delete;

  // Stops and joins the watcher; reports `final_bytes` when given. Idempotent.
  void Stop(std::optional<uint64_t> final_bytes = std::nullopt);

 private:
  void Watch();

  HostOutput& output_;
  std::string path_;
  uint64_t total_;
  std::mutex mutex_;
  std::condition_variable stop_signal_;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace pelmora_tool

#endif  // TOOLS_PELMORA_TRANSFER_WATCH_H_

#include "tools/pelmora/transfer_watch.h"

#include <chrono>
#include <filesystem>
#include <fstream>

namespace pelmora_tool {
namespace {

constexpr auto kInterval = std::chrono::milliseconds(100);
constexpr int kMostDescriptors = 4096;  // bounds the scan of /proc/self/fd

std::optional<uint64_t> OffsetOf(const std::string& fd) {
  std::ifstream info("/proc/self/fdinfo/" + fd);
  std::string key;
  uint64_t offset = 0;
  if (info >> key >> offset && key == "pos:") return offset;
  return std::nullopt;
}

}  // namespace

std::optional<uint64_t> OpenFileOffset(const std::string& path) {
  std::error_code error;
  std::filesystem::path wanted = std::filesystem::weakly_canonical(path, error);
  if (error) return std::nullopt;
  int seen = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", error)) {
    if (++seen > kMostDescriptors) break;
    std::filesystem::path target = std::filesystem::read_symlink(entry.path(), error);
    if (error || target != wanted) continue;
    return OffsetOf(entry.path().filename().string());
  }
  return std::nullopt;
}

TransferWatch::TransferWatch(HostOutput& output, std::string path, uint64_t total)
    : output_(output), path_(std::move(path)), total_(total) {
  if (output_.ShowsProgress()) thread_ = std::thread(&TransferWatch::Watch, this);
}

TransferWatch::~TransferWatch() { Stop(); }

void TransferWatch::Stop(std::optional<uint64_t> final_bytes) {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    stop_signal_.notify_all();
  }
  if (!thread_.joinable()) return;
  thread_.join();
  if (final_bytes) output_.TransferBytes(*final_bytes, total_);
  output_.TransferEnded();
}

void TransferWatch::Watch() {
  output_.TransferBytes(0, total_);
  std::unique_lock lock(mutex_);
  while (!stop_signal_.wait_for(lock, kInterval, [this] { return stopping_; })) {
    lock.unlock();
    if (std::optional<uint64_t> done = OpenFileOffset(path_)) output_.TransferBytes(*done, total_);
    lock.lock();
  }
}

}  // namespace pelmora_tool

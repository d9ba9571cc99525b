#include "pelmorad/command_output.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

#include "pelmora/common/error.h"
#include "pelmora/platform/file_io.h"
#include "pelmora/platform/utf8.h"
#include "pelmorad/command_tree.h"

namespace pelmorad {

std::size_t WholeUtf8Prefix(std::string_view bytes) {
  std::size_t size = bytes.size();
  for (std::size_t back = 1; back <= 4 && back <= size; ++back) {
    auto byte = static_cast<unsigned char>(bytes[size - back]);
    if ((byte & 0xC0) == 0x80) continue;  // a continuation byte: look further back
    std::size_t needed = pelmora::platform::Utf8SequenceLength(byte);
    return needed > back ? size - back : size;
  }
  return size;
}

std::optional<std::string> RunForOutput(const pelmora::ChildSpec& launch, std::size_t max_bytes,
                                        std::chrono::milliseconds limit) {
  std::optional<pelmora::ChildProcess> child;
  try {
    child.emplace(pelmora::ChildProcess::Start(launch));
  } catch (const pelmora::Error&) {
    return std::nullopt;
  }
  std::string output;
  auto deadline = std::chrono::steady_clock::now() + limit;
  char buffer[4096];
  while (output.size() < max_bytes) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) break;
    pollfd entry{child->output_fd(), POLLIN, 0};
    if (::poll(&entry, 1, static_cast<int>(left.count())) <= 0) continue;
    ssize_t got = pelmora::platform::Read(child->output_fd(), buffer, sizeof(buffer));
    if (got < 0 && errno == EAGAIN) continue;
    if (got <= 0) break;
    output.append(buffer, static_cast<std::size_t>(got));
  }
  if (output.size() > max_bytes) output.resize(max_bytes);
  KillCommandTree(*child);
  child->Wait();
  return output;
}

}  // namespace pelmorad

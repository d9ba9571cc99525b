// Fuzzes the stream frame reader of the extended command exchange on both ends (byte 0 picks
// whose frames: even the client's, as the service reads them; odd the service's, as the client
// reads them; byte 1 the size of the pieces the bytes arrive in). Every frame it yields must fit
// its kind, and the frames rebuilt and read again in one piece must come back the same.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "fuzz/fuzz_check.h"
#include "pelmora/admin/exec_wire.h"

using namespace pelmora::admin;

namespace {

std::vector<ExecFrame> ReadAll(ExecPeer sender, std::span<const std::uint8_t> bytes,
                               std::size_t piece) {
  ExecFrameReader reader(sender);
  std::vector<ExecFrame> frames;
  while (!bytes.empty()) {
    std::size_t size = std::min({piece, bytes.size(), reader.Wanted()});
    PELMORA_FUZZ_CHECK(size > 0);
    reader.Append(bytes.first(size));
    bytes = bytes.subspan(size);
    while (auto frame = reader.Next()) frames.push_back(std::move(*frame));
    PELMORA_FUZZ_CHECK(reader.Pending() <= kExecFrameHeaderSize + kExecMaxPayload);
    if (reader.Broken()) break;
  }
  return frames;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  ExecPeer sender = data[0] % 2 == 0 ? ExecPeer::kClient : ExecPeer::kService;
  std::size_t piece = data[1] == 0 ? 1 : data[1];
  std::vector<ExecFrame> frames = ReadAll(sender, std::span(data + 2, size - 2), piece);
  std::vector<std::uint8_t> rebuilt;
  for (const ExecFrame& frame : frames) {
    PELMORA_FUZZ_CHECK(frame.payload.size() <= static_cast<std::size_t>(kExecMaxPayload));
    if (frame.kind == ExecFrameKind::kGrant || frame.kind == ExecFrameKind::kInputGrant) {
      PELMORA_FUZZ_CHECK(ParseExecGrant(frame.payload) >= 0);
    }
    if (frame.kind == ExecFrameKind::kExit) ParseExecExit(frame.payload);
    std::vector<std::uint8_t> bytes = BuildExecFrame(frame.kind, frame.payload);
    rebuilt.insert(rebuilt.end(), bytes.begin(), bytes.end());
  }
  std::vector<ExecFrame> again = ReadAll(sender, rebuilt, rebuilt.size() + 1);
  PELMORA_FUZZ_CHECK(again.size() == frames.size());
  for (std::size_t i = 0; i < again.size(); ++i) {
    PELMORA_FUZZ_CHECK(again[i].kind == frames[i].kind && again[i].payload == frames[i].payload);
  }
  return 0;
}

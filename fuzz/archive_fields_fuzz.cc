// Fuzzes the archive engines' byte-level parsers: entry names made safe, the UT and ux extra
// fields, link targets, and the central directory walk over the input taken as a whole archive.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>

#include "fuzz/fuzz_check.h"
#include "pelmora/archive/internal/zip_fields.h"

using namespace pelmora::archive::internal;

namespace {

// A safe path never climbs, never starts at the root and has no empty components.
void CheckSafeName(std::string_view name, bool junk, bool underscore) {
  SafeName safe = SanitizeEntryName(name, junk, underscore);
  const std::string& path = safe.path;
  PELMORA_FUZZ_CHECK(path.empty() || (path.front() != '/' && path.back() != '/'));
  PELMORA_FUZZ_CHECK(path.find("//") == std::string::npos);
  PELMORA_FUZZ_CHECK(path != ".." && path.rfind("../", 0) != 0 &&
                     path.find("/../") == std::string::npos &&
                     (path.size() < 3 || path.compare(path.size() - 3, 3, "/..") != 0));
  PELMORA_FUZZ_CHECK(!junk || path.find('/') == std::string::npos);
  if (!path.empty()) PELMORA_FUZZ_CHECK(LinkStaysInside(path, "x"));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::span<const std::uint8_t> bytes(data, size);
  std::string_view text(reinterpret_cast<const char*>(data), size);
  CheckSafeName(text, false, false);
  CheckSafeName(text, true, true);
  size_t split = text.find('\n');
  if (split != std::string_view::npos) {
    bool inside = LinkStaysInside(text.substr(0, split), text.substr(split + 1));
    PELMORA_FUZZ_CHECK(!inside || (split + 1 < size && data[split + 1] != '/'));
  }
  for (uint16_t id : {kUnixTimeFieldId, kUnixOwnerFieldId}) {
    if (auto body = FindExtraField(bytes, id)) {
      PELMORA_FUZZ_CHECK(body->data() >= data && body->data() + body->size() <= data + size);
      ParseUnixTimeField(*body);
      ParseUnixOwnerField(*body);
    }
  }
  if (auto mtime = ParseUnixTimeField(bytes)) {
    PELMORA_FUZZ_CHECK(*ParseUnixTimeField(BuildCentralUnixTime(*mtime)) == *mtime);
  }
  if (auto owner = ParseUnixOwnerField(bytes)) {
    auto again = ParseUnixOwnerField(BuildUnixOwner(owner->uid, owner->gid));
    PELMORA_FUZZ_CHECK(again && again->uid == owner->uid && again->gid == owner->gid);
  }
  auto flags = ReadCentralFlags(
      [&](uint64_t offset, std::span<uint8_t> out) {
        if (offset > size || out.size() > size - offset) return false;
        std::memcpy(out.data(), data + offset, out.size());
        return true;
      },
      size, 1 << 16);
  PELMORA_FUZZ_CHECK(flags.size() <= size / 46);
  return 0;
}

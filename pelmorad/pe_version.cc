// The walk: DOS header -> PE signature and file header -> optional header (PE32 or PE32+) ->
// resource data directory -> section table (to turn relative virtual addresses into file
// offsets) -> resource tree (type 16 = version, then a name, then a language) -> data entry ->
// VS_VERSIONINFO block -> VS_FIXEDFILEINFO. All reads go through one bounds-checked reader.
#include "pelmorad/pe_version.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <string_view>
#include <vector>

#include "pelmora/platform/file_io.h"
#include "pelmora/platform/little_endian.h"

namespace pelmorad {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kMaxSections = 96;   // the loader's own limit
constexpr uint32_t kMaxEntries = 4096;  // per resource directory; real images have a few
constexpr uint32_t kResourceTypeVersion = 16;
constexpr uint32_t kVersionNameId = 1;
constexpr uint32_t kSubdirectoryFlag = 0x80000000u;
constexpr uint32_t kFixedInfoSignature = 0xFEEF04BDu;
constexpr size_t kFixedInfoOffset = 40;  // 6 header bytes + "VS_VERSION_INFO\0", 4-aligned
constexpr size_t kFixedInfoSize = 52;
constexpr std::u16string_view kVersionKey = u"VS_VERSION_INFO";

uint16_t Le16(const Bytes& b, size_t at) { return pelmora::platform::LoadLe<uint16_t>(b, at); }

uint32_t Le32(const Bytes& b, size_t at) { return pelmora::platform::LoadLe<uint32_t>(b, at); }

// Reads exactly out.size() bytes at `offset`, or fails.
using ReadAt = std::function<bool(uint64_t offset, std::span<uint8_t> out)>;

// One section's mapping of relative virtual addresses to file bytes.
struct Section {
  uint32_t virtual_address = 0;
  uint32_t raw_size = 0;
  uint32_t raw_offset = 0;
};

class ImageWalker {
 public:
  explicit ImageWalker(ReadAt read) : read_(std::move(read)) {}

  std::string FileVersion();

 private:
  std::optional<Bytes> Read(uint64_t offset, size_t size);
  std::optional<Bytes> ReadRva(uint64_t rva, size_t size);
  bool ReadHeaders();
  std::optional<uint32_t> FindEntry(uint32_t directory, std::optional<uint32_t> id);
  std::optional<Bytes> VersionBlock();

  ReadAt read_;
  std::vector<Section> sections_;
  uint32_t resource_rva_ = 0;
};

std::optional<Bytes> ImageWalker::Read(uint64_t offset, size_t size) {
  Bytes bytes(size);
  if (!read_(offset, bytes)) return std::nullopt;
  return bytes;
}

// Reads `size` bytes at the relative virtual address `rva`, all within one section's file bytes.
std::optional<Bytes> ImageWalker::ReadRva(uint64_t rva, size_t size) {
  if (rva > UINT32_MAX) return std::nullopt;
  for (const Section& s : sections_) {
    if (rva < s.virtual_address) continue;
    uint64_t into = rva - s.virtual_address;
    if (into + size <= s.raw_size) return Read(uint64_t{s.raw_offset} + into, size);
  }
  return std::nullopt;
}

// Reads the file header, the resource directory's address and the section table.
bool ImageWalker::ReadHeaders() {
  std::optional<Bytes> dos = Read(0, 64);
  if (!dos || (*dos)[0] != 'M' || (*dos)[1] != 'Z') return false;
  uint64_t pe = Le32(*dos, 0x3C);
  std::optional<Bytes> file = Read(pe, 24);
  if (!file || std::memcmp(file->data(), "PE\0\0", 4) != 0) return false;
  uint32_t section_count = Le16(*file, 6);
  uint16_t optional_size = Le16(*file, 20);
  std::optional<Bytes> optional = Read(pe + 24, optional_size);
  if (!optional || optional_size < 2 || section_count > kMaxSections) return false;
  uint16_t magic = Le16(*optional, 0);
  size_t directories = magic == 0x10B ? 96 : magic == 0x20B ? 112 : 0;
  if (directories == 0 || optional_size < directories + 3 * 8) return false;
  if (Le32(*optional, directories - 4) < 3) return false;  // no resource directory entry
  resource_rva_ = Le32(*optional, directories + 2 * 8);
  std::optional<Bytes> table = Read(pe + 24 + optional_size, section_count * 40);
  if (!table || resource_rva_ == 0) return false;
  for (size_t at = 0; at < table->size(); at += 40) {
    sections_.push_back({Le32(*table, at + 12), Le32(*table, at + 16), Le32(*table, at + 20)});
  }
  return true;
}

// The OffsetToData of the entry of the resource directory at `directory` (an offset from the
// resource tree's start) whose integer id is `id`, or of its first entry when `id` is nullopt.
std::optional<uint32_t> ImageWalker::FindEntry(uint32_t directory, std::optional<uint32_t> id) {
  uint64_t at = uint64_t{resource_rva_} + directory;
  std::optional<Bytes> header = ReadRva(at, 16);
  if (!header) return std::nullopt;
  uint32_t count = std::min<uint32_t>(Le16(*header, 12) + Le16(*header, 14), kMaxEntries);
  std::optional<Bytes> entries = ReadRva(at + 16, count * 8);
  if (!entries || count == 0) return std::nullopt;
  if (!id) return Le32(*entries, 4);
  // Entries named by a string come first; an id is looked up among the others only.
  for (size_t at = size_t{Le16(*header, 12)} * 8; at < entries->size(); at += 8) {
    if (Le32(*entries, at) == *id) return Le32(*entries, at + 4);
  }
  return std::nullopt;
}

// The first bytes of the version resource: type 16, name 1 (or the first name), first language.
std::optional<Bytes> ImageWalker::VersionBlock() {
  std::optional<uint32_t> names = FindEntry(0, kResourceTypeVersion);
  if (!names || !(*names & kSubdirectoryFlag)) return std::nullopt;
  std::optional<uint32_t> languages = FindEntry(*names & ~kSubdirectoryFlag, kVersionNameId);
  if (!languages) languages = FindEntry(*names & ~kSubdirectoryFlag, std::nullopt);
  if (!languages || !(*languages & kSubdirectoryFlag)) return std::nullopt;
  std::optional<uint32_t> leaf = FindEntry(*languages & ~kSubdirectoryFlag, std::nullopt);
  if (!leaf || (*leaf & kSubdirectoryFlag)) return std::nullopt;
  std::optional<Bytes> data_entry = ReadRva(uint64_t{resource_rva_} + *leaf, 16);
  if (!data_entry) return std::nullopt;
  if (Le32(*data_entry, 4) < kFixedInfoOffset + kFixedInfoSize) return std::nullopt;
  return ReadRva(Le32(*data_entry, 0), kFixedInfoOffset + kFixedInfoSize);
}

bool HasVersionKey(const Bytes& block) {
  for (size_t i = 0; i <= kVersionKey.size(); ++i) {
    char16_t expected = i < kVersionKey.size() ? kVersionKey[i] : u'\0';
    if (Le16(block, 6 + 2 * i) != expected) return false;
  }
  return true;
}

std::string ImageWalker::FileVersion() {
  if (!ReadHeaders()) return "";
  std::optional<Bytes> block = VersionBlock();
  if (!block || !HasVersionKey(*block) || Le16(*block, 2) < kFixedInfoSize) return "";
  if (Le16(*block, 0) < kFixedInfoOffset + kFixedInfoSize) return "";
  if (Le32(*block, kFixedInfoOffset) != kFixedInfoSignature) return "";
  uint32_t ms = Le32(*block, kFixedInfoOffset + 8);
  uint32_t ls = Le32(*block, kFixedInfoOffset + 12);
  return std::to_string(ms >> 16) + "." + std::to_string(ms & 0xFFFF) + "." +
         std::to_string(ls >> 16) + "." + std::to_string(ls & 0xFFFF);
}

bool PreadExactly(int fd, uint64_t offset, std::span<uint8_t> out) {
  return pelmora::platform::PreadFully(fd, out, offset) == static_cast<ssize_t>(out.size());
}

}  // namespace

std::string ParseFileVersion(std::span<const uint8_t> image) {
  return ImageWalker([image](uint64_t offset, std::span<uint8_t> out) {
           if (offset > image.size() || out.size() > image.size() - offset) return false;
           std::copy_n(image.begin() + static_cast<ptrdiff_t>(offset), out.size(), out.begin());
           return true;
         })
      .FileVersion();
}

std::string ReadFileVersion(int fd) {
  return ImageWalker([fd](uint64_t offset, std::span<uint8_t> out) {
           return PreadExactly(fd, offset, out);
         })
      .FileVersion();
}

}  // namespace pelmorad

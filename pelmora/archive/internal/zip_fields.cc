// Extra fields, MS-DOS times, safe entry names and the central directory walk.
#include "pelmora/archive/internal/zip_fields.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "pelmora/platform/little_endian.h"

namespace pelmora::archive::internal {
namespace {

void PutLe(std::vector<uint8_t>& out, uint64_t value, int bytes) {
  platform::AppendLeBytes(out, value, static_cast<size_t>(bytes));
}

uint64_t GetLe(std::span<const uint8_t> in, size_t at, int bytes) {
  return platform::LoadLeBytes(in, at, static_cast<size_t>(bytes));
}

// The body of an id of 1 to 8 bytes at `at`, advancing `at`; nullopt when it does not fit.
std::optional<uint32_t> ReadSizedId(std::span<const uint8_t> body, size_t& at) {
  if (at >= body.size()) return std::nullopt;
  size_t size = body[at++];
  if (size == 0 || size > 8 || body.size() - at < size) return std::nullopt;
  uint64_t id = GetLe(body, at, static_cast<int>(std::min<size_t>(size, 4)));
  at += size;
  return static_cast<uint32_t>(id);
}

}  // namespace

std::vector<uint8_t> BuildLocalUnixTime(int64_t mtime, int64_t atime) {
  std::vector<uint8_t> out{3};
  PutLe(out, static_cast<uint32_t>(mtime), 4);
  PutLe(out, static_cast<uint32_t>(atime), 4);
  return out;
}

std::vector<uint8_t> BuildCentralUnixTime(int64_t mtime) {
  std::vector<uint8_t> out{3};
  PutLe(out, static_cast<uint32_t>(mtime), 4);
  return out;
}

std::vector<uint8_t> BuildUnixOwner(uint32_t uid, uint32_t gid) {
  std::vector<uint8_t> out{1, 4};
  PutLe(out, uid, 4);
  out.push_back(4);
  PutLe(out, gid, 4);
  return out;
}

std::optional<int64_t> ParseUnixTimeField(std::span<const uint8_t> body) {
  if (body.size() < 5 || (body[0] & 1) == 0) return std::nullopt;
  // The times are signed 32-bit seconds since 1970.
  return static_cast<int64_t>(static_cast<int32_t>(GetLe(body, 1, 4)));
}

std::optional<UnixOwner> ParseUnixOwnerField(std::span<const uint8_t> body) {
  if (body.empty() || body[0] != 1) return std::nullopt;
  size_t at = 1;
  auto uid = ReadSizedId(body, at);
  if (!uid) return std::nullopt;
  auto gid = ReadSizedId(body, at);
  if (!gid) return std::nullopt;
  return UnixOwner{*uid, *gid};
}

std::optional<std::span<const uint8_t>> FindExtraField(std::span<const uint8_t> block,
                                                       uint16_t id) {
  size_t at = 0;
  while (block.size() - at >= 4) {
    auto field_id = static_cast<uint16_t>(GetLe(block, at, 2));
    auto size = static_cast<size_t>(GetLe(block, at + 2, 2));
    at += 4;
    if (block.size() - at < size) return std::nullopt;
    if (field_id == id) return block.subspan(at, size);
    at += size;
  }
  return std::nullopt;
}

int64_t RoundUpToEven(int64_t unix_time) { return unix_time + (unix_time & 1); }

uint32_t ToDosTime(int64_t unix_time) {
  time_t t = static_cast<time_t>(RoundUpToEven(unix_time));
  std::tm tm{};
  if (localtime_r(&t, &tm) == nullptr || tm.tm_year < 80) return (1u << 21) | (1u << 16);
  if (tm.tm_year > 207) tm.tm_year = 207;
  uint32_t date = static_cast<uint32_t>(((tm.tm_year - 80) << 9) | ((tm.tm_mon + 1) << 5) |
                                        tm.tm_mday);
  uint32_t time = static_cast<uint32_t>((tm.tm_hour << 11) | (tm.tm_min << 5) | (tm.tm_sec / 2));
  return (date << 16) | time;
}

int64_t FromDosTime(uint32_t dos) {
  std::tm tm{};
  tm.tm_year = static_cast<int>((dos >> 25) & 0x7f) + 80;
  tm.tm_mon = static_cast<int>((dos >> 21) & 0x0f) - 1;
  tm.tm_mday = static_cast<int>((dos >> 16) & 0x1f);
  tm.tm_hour = static_cast<int>((dos >> 11) & 0x1f);
  tm.tm_min = static_cast<int>((dos >> 5) & 0x3f);
  tm.tm_sec = static_cast<int>((dos & 0x1f) * 2);
  tm.tm_isdst = -1;
  return static_cast<int64_t>(mktime(&tm));
}

SafeName SanitizeEntryName(std::string_view name, bool junk_folders, bool space_to_underscore) {
  SafeName safe;
  safe.is_directory = !name.empty() && name.back() == '/';
  size_t start = name.find_first_not_of('/');
  safe.stripped_absolute = start != 0 && !name.empty();
  if (start == std::string_view::npos) start = name.size();
  std::vector<std::string_view> parts;
  for (size_t at = start; at < name.size();) {
    size_t end = std::min(name.find('/', at), name.size());
    std::string_view part = name.substr(at, end - at);
    if (part == "..") {
      safe.skipped_parent = true;
    } else if (!part.empty() && part != ".") {
      parts.push_back(part);
    }
    at = end + 1;
  }
  if (junk_folders && parts.size() > 1) parts.erase(parts.begin(), parts.end() - 1);
  if (junk_folders && safe.is_directory) parts.clear();
  for (std::string_view part : parts) {
    if (!safe.path.empty()) safe.path += '/';
    safe.path += part;
  }
  if (space_to_underscore) std::replace(safe.path.begin(), safe.path.end(), ' ', '_');
  return safe;
}

bool LinkStaysInside(std::string_view link_path, std::string_view target) {
  if (target.empty() || target.front() == '/') return false;
  // Depth of the folder holding the link, then walk the target from there.
  long depth = static_cast<long>(std::count(link_path.begin(), link_path.end(), '/'));
  for (size_t at = 0; at <= target.size();) {
    size_t end = std::min(target.find('/', at), target.size());
    std::string_view part = target.substr(at, end - at);
    if (part == "..") {
      if (--depth < 0) return false;
    } else if (!part.empty() && part != ".") {
      ++depth;
    }
    at = end + 1;
  }
  return true;
}

namespace {

// Where the central directory starts and how many entries it holds.
struct DirectoryPlace {
  uint64_t offset = 0;
  uint64_t size = 0;
  uint64_t entries = 0;
};

std::optional<DirectoryPlace> FindZip64Directory(const ReadAt& read, uint64_t end_at) {
  if (end_at < 20) return std::nullopt;
  std::array<uint8_t, 20> locator{};
  if (!read(end_at - 20, locator) || GetLe(locator, 0, 4) != 0x07064b50) return std::nullopt;
  std::array<uint8_t, 56> record{};
  if (!read(GetLe(locator, 8, 8), record) || GetLe(record, 0, 4) != 0x06064b50) {
    return std::nullopt;
  }
  return DirectoryPlace{GetLe(record, 48, 8), GetLe(record, 40, 8), GetLe(record, 32, 8)};
}

std::optional<DirectoryPlace> FindDirectory(const ReadAt& read, uint64_t archive_size) {
  uint64_t tail_size = std::min<uint64_t>(archive_size, 65535 + 22);
  std::vector<uint8_t> tail(static_cast<size_t>(tail_size));
  if (tail_size < 22 || !read(archive_size - tail_size, tail)) return std::nullopt;
  for (size_t at = tail.size() - 22 + 1; at-- > 0;) {
    if (GetLe(tail, at, 4) != 0x06054b50) continue;
    DirectoryPlace place{GetLe(tail, at + 16, 4), GetLe(tail, at + 12, 4), GetLe(tail, at + 10, 2)};
    if (place.offset == 0xffffffff || place.entries == 0xffff) {
      return FindZip64Directory(read, archive_size - tail_size + at);
    }
    return place;
  }
  return std::nullopt;
}

}  // namespace

std::vector<CentralFlags> ReadCentralFlags(const ReadAt& read, uint64_t archive_size,
                                           uint64_t max_entries) {
  auto place = FindDirectory(read, archive_size);
  if (!place || place->offset > archive_size || place->size > archive_size - place->offset) {
    return {};
  }
  std::vector<CentralFlags> out;
  uint64_t at = place->offset;
  uint64_t end = place->offset + place->size;
  std::array<uint8_t, 46> header{};
  for (uint64_t i = 0; i < place->entries && i < max_entries; ++i) {
    if (end - at < header.size() || !read(at, header) || GetLe(header, 0, 4) != 0x02014b50) {
      return {};
    }
    out.push_back(CentralFlags{
        static_cast<uint16_t>(GetLe(header, 8, 2)),
        static_cast<uint32_t>(GetLe(header, 14, 2) << 16 | GetLe(header, 12, 2)),
        static_cast<uint16_t>(GetLe(header, 36, 2))});
    uint64_t skip = header.size() + GetLe(header, 28, 2) + GetLe(header, 30, 2) +
                    GetLe(header, 32, 2);
    if (end - at < skip) return {};
    at += skip;
  }
  return out;
}

}  // namespace pelmora::archive::internal

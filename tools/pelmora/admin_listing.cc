// Listings and file information as the tool prints them: `ls` (short, long, human sizes,
// JSON) and `stat`.
#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "pelmora/admin/rc_file_info.h"
#include "tools/pelmora/admin_transfers.h"
#include "tools/pelmora/remote_wildcards.h"

namespace pelmora_tool {
namespace {

using pelmora::admin::RCFileInfo;

constexpr const char* kDateForm = "yyyy-mm-dd hh:nn:ss";
constexpr const char* kJsonDateForm = "yyyy-mm-ddThh:nn:ss";

// One entry as a JSON record: the fields of `stat`, the times in the server's local time.
nlohmann::ordered_json Record(const RCFileInfo& info) {
  const int32_t bits = info.FileAttribues();
  return {{"name", info.FileName()},
          {"path", info.FullPathName()},
          {"folder", info.ParentPath()},
          {"type", (bits & 0x10) != 0 ? "folder" : "file"},
          {"size", info.FileSize()},
          {"attributes", AttributeLetters(bits)},
          {"attribute_bits", bits},
          {"created", info.CreationTime().Format(kJsonDateForm)},
          {"accessed", info.LastAccessTime().Format(kJsonDateForm)},
          {"modified", info.LastWriteTime().Format(kJsonDateForm)}};
}

std::string LongLine(const RCFileInfo& info, bool human) {
  std::string size = human ? HumanSize(info.FileSize()) : std::to_string(info.FileSize());
  return fmt::format("{} {:>{}} {} {}\n", AttributeLetters(info.FileAttribues()), size,
                     human ? 5 : 11, info.LastWriteTime().Format(kDateForm), info.FileName());
}

}  // namespace

std::string AttributeLetters(int32_t attributes) {
  static constexpr std::pair<int32_t, char> kLetters[] = {
      {0x10, 'd'}, {0x01, 'r'}, {0x02, 'h'}, {0x04, 's'}, {0x20, 'a'}};
  std::string letters;
  for (auto [bit, letter] : kLetters) letters += (attributes & bit) ? letter : '-';
  if ((attributes & 0x400) != 0) letters[0] = 'l';  // a link (reparse point), as ls shows it
  return letters;
}

std::string HumanSize(int64_t size) {
  if (size < 1024) return std::to_string(size);
  static constexpr char kUnits[] = "KMGTPE";
  double value = static_cast<double>(size);
  int unit = -1;
  do {
    value /= 1024;
    ++unit;
  } while (value >= 1024 && unit < 5);
  // Rounded up, as ls -h does: one decimal below 10.
  if (value < 10) {
    double tenths = std::ceil(value * 10) / 10;
    if (tenths < 10) return fmt::format("{:.1f}{}", tenths, kUnits[unit]);
    value = tenths;
  }
  double whole = std::ceil(value);
  if (whole >= 1024 && unit < 5) return fmt::format("1.0{}", kUnits[unit + 1]);
  return fmt::format("{:.0f}{}", whole, kUnits[unit]);
}

int ListFolder(HostSession& session, const std::string& folder, bool long_form, bool human,
               bool json) {
  // A wildcard in the last component lists the matching entries of its folder.
  WildcardPath split{folder, "", ""};
  if (HasWildcard(folder)) split = SplitWildcardPath(folder);
  pelmora::admin::RCFileInfoCollection entries = session.Fso().GetFolderFiles(split.folder);
  if (session.Fso().ErrCode() != 0) return session.FailOnPath(kExitFailed, split.folder);
  std::vector<std::shared_ptr<RCFileInfo>> shown;
  for (const auto& entry : entries) {
    if (split.pattern.empty() || WildcardMatch(split.pattern, entry->FileName())) {
      shown.push_back(entry);
    }
  }
  if (!split.pattern.empty() && shown.empty()) {
    return session.Fail(kExitFailed, {0, "no matches found: " + folder});
  }
  if (json) {
    nlohmann::ordered_json records = nlohmann::ordered_json::array();
    for (const auto& entry : shown) records.push_back(Record(*entry));
    session.Output().Write(records.dump() + "\n");
    return kExitOk;
  }
  std::string text;
  for (const auto& entry : shown) text += long_form ? LongLine(*entry, human) : entry->FileName() + "\n";
  if (!text.empty()) session.Output().Write(text);
  return kExitOk;
}

int Stat(HostSession& session, const std::string& path, bool json) {
  RCFileInfo info;
  if (!session.Fso().GetFileInfo(path, info)) return session.FailOnPath(kExitFailed, path);
  if (json) {
    session.Output().Write(Record(info).dump() + "\n");
    return kExitOk;
  }
  session.Output().Write(fmt::format(
      "Name:       {}\nPath:       {}\nFolder:     {}\nSize:       {}\n"
      "Attributes: {} (0x{:X})\nCreated:    {}\nAccessed:   {}\nModified:   {}\n",
      info.FileName(), info.FullPathName(), info.ParentPath(), info.FileSize(),
      AttributeLetters(info.FileAttribues()), static_cast<uint32_t>(info.FileAttribues()),
      info.CreationTime().Format(kDateForm), info.LastAccessTime().Format(kDateForm),
      info.LastWriteTime().Format(kDateForm)));
  return kExitOk;
}

}  // namespace pelmora_tool

#include "pelmora/platform/log_layout.h"

namespace pelmora::platform {

std::string LogMonthFolder(std::string_view root, std::string_view day) {
  std::string folder(root);
  folder += '/';
  folder += day.substr(0, 6);
  return folder;
}

std::string LogFileName(std::string_view day, LogKind kind, std::string_view prefix) {
  std::string name(prefix);
  name += day;
  name += LogExtension(kind);
  return name;
}

std::string LogFilePath(std::string_view root, std::string_view day, LogKind kind,
                        std::string_view prefix) {
  std::string path = LogMonthFolder(root, day);
  path += '/';
  path += LogFileName(day, kind, prefix);
  return path;
}

}  // namespace pelmora::platform

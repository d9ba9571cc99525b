// Where the log files lie: root/yyyymm/<prefix>yyyymmdd.log for information lines and .err for
// errors and warnings. The one layout the writers (pelmora/common/log.h) write and
// `pelmora log tail` reads.
//
//   pelmora::platform::LogFilePath("/opt/pelmora/Log", "20090314", LogKind::kError)
//     // "/opt/pelmora/Log/200903/20090314.err"
#ifndef PELMORA_PLATFORM_LOG_LAYOUT_H_
#define PELMORA_PLATFORM_LOG_LAYOUT_H_

#include <string>
#include <string_view>

#include "pelmora/platform/export.h"

namespace pelmora::platform {

// Which day file a line goes to.
enum class LogKind { kInformation, kError };

// ".log" or ".err".
constexpr std::string_view LogExtension(LogKind kind) {
  return kind == LogKind::kInformation ? ".log" : ".err";
}

// The month folder of day `day` (yyyymmdd) under `root`: root + "/" + yyyymm.
PELMORA_API std::string LogMonthFolder(std::string_view root, std::string_view day);

// The file name of day `day` (yyyymmdd): prefix + day + extension.
PELMORA_API std::string LogFileName(std::string_view day, LogKind kind,
                                    std::string_view prefix = "");

// LogMonthFolder(root, day) + "/" + LogFileName(day, kind, prefix).
PELMORA_API std::string LogFilePath(std::string_view root, std::string_view day, LogKind kind,
                                    std::string_view prefix = "");

}  // namespace pelmora::platform

#endif  // PELMORA_PLATFORM_LOG_LAYOUT_H_

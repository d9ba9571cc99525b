// A fresh task folder for one test, removed with everything in it at the end.
#ifndef PELMORA_SCHED_INTERNAL_TEMP_FOLDER_FOR_TEST_H_
#define PELMORA_SCHED_INTERNAL_TEMP_FOLDER_FOR_TEST_H_

#include <stdlib.h>

#include <filesystem>
#include <string>

namespace pelmora::sched::testing {

class TempFolder {
 public:
  TempFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "pelmora-tasks-XXXXXX");
    path_ = mkdtemp(pattern.data()) != nullptr ? pattern : "";
  }
  ~TempFolder() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace pelmora::sched::testing

#endif  // PELMORA_SCHED_INTERNAL_TEMP_FOLDER_FOR_TEST_H_

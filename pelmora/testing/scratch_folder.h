// A fresh folder under the system's temporary folder for one test, removed with everything in it
// when the object goes.
//
//   pelmora::testing::ScratchFolder folder;
//   WriteFile(folder.Path("in/a.txt"), "text");   // folder.Path() + "/in/a.txt"
#ifndef PELMORA_TESTING_SCRATCH_FOLDER_H_
#define PELMORA_TESTING_SCRATCH_FOLDER_H_

#include <stdlib.h>

#include <filesystem>
#include <string>
#include <system_error>

namespace pelmora::testing {

class ScratchFolder {
 public:
  ScratchFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "pelmora-XXXXXX").string();
    if (mkdtemp(pattern.data()) != nullptr) path_ = pattern;
  }
  ~ScratchFolder() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  // The folder's path without a trailing '/'; empty when mkdtemp failed.
  const std::string& Path() const { return path_; }
  // `relative` inside the folder.
  std::string Path(const std::string& relative) const {
    return relative.empty() ? path_ : path_ + "/" + relative;
  }

 private:
  std::string path_;
};

}  // namespace pelmora::testing

#endif  // PELMORA_TESTING_SCRATCH_FOLDER_H_

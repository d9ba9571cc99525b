// The unzip engine's test fixture: an archive of two files (one in a folder, with its mode and
// time set) made by the real zip program, the engine's controls set to extract it into out/, and
// callbacks that record the printed text and the replace questions.
#ifndef PELMORA_TESTING_UNZIP_ENGINE_FIXTURE_H_
#define PELMORA_TESTING_UNZIP_ENGINE_FIXTURE_H_

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <string_view>
#include <vector>

#include "pelmora/archive/internal/test_archives.h"
#include "pelmora/archive/unzip_engine.h"

namespace pelmora::archive::testing {

inline const std::string kText = std::string(2000, 'a') + "\n";

class UnzipEngine : public ::testing::Test {
 protected:
  void SetUp() override {
    WriteFile(dir_.Path("src/a.txt"), kText);
    WriteFile(dir_.Path("src/sub/b.txt"), "bee\n");
    chmod(dir_.Path("src/sub/b.txt").c_str(), 0640);
    ASSERT_EQ(RunIn(dir_.Path("src"), "touch -d '2021-03-04 05:06:07' a.txt sub/b.txt"), 0);
    ASSERT_EQ(RunIn(dir_.Path("src"), "zip -r ../a.zip a.txt sub"), 0);
    dcl_.zip_file_name = dir_.Path("a.zip");
    dcl_.extract_dir = dir_.Path("out");
    dcl_.honor_directories = 1;
    dcl_.overwrite = 1;
    callbacks_.print = [this](std::string_view text) {
      printed_ += text;
      return 0;
    };
    callbacks_.replace = [this](std::string& name) {
      asked_.push_back(name);
      return replace_answer_;
    };
  }

  int Run() {
    printed_.clear();
    return RunUnzip(dcl_, callbacks_, selection_, limits_);
  }

  ScratchFolder dir_;
  DecompressionControl dcl_;
  UnzipCallbacks callbacks_;
  EntrySelection selection_;
  ExtractLimits limits_;
  std::string printed_;
  std::vector<std::string> asked_;
  int replace_answer_ = kReplaceYes;
};

}  // namespace pelmora::archive::testing

#endif  // PELMORA_TESTING_UNZIP_ENGINE_FIXTURE_H_

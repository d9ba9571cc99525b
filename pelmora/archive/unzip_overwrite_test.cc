// The unzip engine's rules for files that exist already: overwrite, the replace questions and
// their answers, extracting only newer files, freshening, and the names that junked folders and
// underscores give.
#include <gtest/gtest.h>

#include <string>

#include "pelmora/archive/unzip_engine.h"
#include "pelmora/testing/unzip_engine_fixture.h"

namespace pelmora::archive {
namespace {

using testing::Exists;
using testing::kText;
using testing::ReadFile;
using testing::RunIn;
using testing::UnzipEngine;
using testing::WriteFile;

TEST_F(UnzipEngine, NeverOverwritesWithoutOverwriteOrPrompt) {
  WriteFile(dir_.Path("out/a.txt"), "mine");
  dcl_.overwrite = 0;
  ASSERT_EQ(Run(), kUnzipOk);
  EXPECT_EQ(ReadFile(dir_.Path("out/a.txt")), "mine");
  EXPECT_NE(printed_.find("Target file exists.\nSkipping " + dir_.Path("out/a.txt") + "\n"),
            std::string::npos);
  EXPECT_TRUE(asked_.empty());
}

struct ReplaceCase {
  int answer;
  bool a_replaced;
  bool b_replaced;
  int asked;
};

class UnzipReplace : public UnzipEngine, public ::testing::WithParamInterface<ReplaceCase> {};

TEST_P(UnzipReplace, AnswersDecideThisAndLaterFiles) {
  WriteFile(dir_.Path("out/a.txt"), "mine");
  WriteFile(dir_.Path("out/sub/b.txt"), "mine");
  dcl_.overwrite = 0;
  dcl_.prompt_to_overwrite = 1;
  replace_answer_ = GetParam().answer;
  ASSERT_EQ(Run(), kUnzipOk);
  EXPECT_EQ(ReadFile(dir_.Path("out/a.txt")) == kText, GetParam().a_replaced);
  EXPECT_EQ(ReadFile(dir_.Path("out/sub/b.txt")) == "bee\n", GetParam().b_replaced);
  EXPECT_EQ(static_cast<int>(asked_.size()), GetParam().asked);
  if (!asked_.empty()) {
    EXPECT_EQ(asked_[0], dir_.Path("out/a.txt"));
  }
}

INSTANTIATE_TEST_SUITE_P(Answers, UnzipReplace,
                         ::testing::Values(ReplaceCase{kReplaceNo, false, false, 2},
                                           ReplaceCase{kReplaceText, true, true, 2},
                                           ReplaceCase{kReplaceYes, true, true, 2},
                                           ReplaceCase{kReplaceAll, true, true, 1},
                                           ReplaceCase{kReplaceNone, false, false, 1},
                                           ReplaceCase{kReplaceHelp, true, true, 2}));

TEST_F(UnzipEngine, RenameAnswerExtractsUnderTheNewName) {
  WriteFile(dir_.Path("out/a.txt"), "mine");
  dcl_.overwrite = 0;
  dcl_.prompt_to_overwrite = 1;
  callbacks_.replace = [&](std::string& name) {
    if (name != dir_.Path("out/a.txt")) return kReplaceNo;
    name = dir_.Path("out/renamed.txt");
    return kReplaceRename;
  };
  ASSERT_EQ(Run(), kUnzipOk);
  EXPECT_EQ(ReadFile(dir_.Path("out/a.txt")), "mine");
  EXPECT_EQ(ReadFile(dir_.Path("out/renamed.txt")), kText);
}

TEST_F(UnzipEngine, ExtractOnlyNewerSkipsFilesThatAreNotOlder) {
  WriteFile(dir_.Path("out/a.txt"), "newer");
  WriteFile(dir_.Path("out/sub/b.txt"), "older");
  ASSERT_EQ(RunIn(dir_.Path("out"), "touch -d '2020-01-01' sub/b.txt"), 0);
  dcl_.extract_only_newer = 1;
  ASSERT_EQ(Run(), kUnzipOk);
  EXPECT_EQ(ReadFile(dir_.Path("out/a.txt")), "newer");
  EXPECT_EQ(ReadFile(dir_.Path("out/sub/b.txt")), "bee\n");
}

TEST_F(UnzipEngine, FreshenSkipsFilesThatDoNotExist) {
  WriteFile(dir_.Path("out/sub/b.txt"), "older");
  ASSERT_EQ(RunIn(dir_.Path("out"), "touch -d '2020-01-01' sub/b.txt"), 0);
  dcl_.freshen = 1;
  ASSERT_EQ(Run(), kUnzipOk);
  EXPECT_FALSE(Exists(dir_.Path("out/a.txt")));
  EXPECT_EQ(ReadFile(dir_.Path("out/sub/b.txt")), "bee\n");
}

TEST_F(UnzipEngine, JunkedFoldersAndUnderscoresChangeTheNames) {
  WriteFile(dir_.Path("src/with space.txt"), "s");
  ASSERT_EQ(RunIn(dir_.Path("src"), "zip -r ../a.zip 'with space.txt'"), 0);
  dcl_.honor_directories = 0;
  dcl_.space_to_underscore = 1;
  ASSERT_EQ(Run(), kUnzipOk);
  EXPECT_TRUE(Exists(dir_.Path("out/b.txt")));
  EXPECT_TRUE(Exists(dir_.Path("out/with_space.txt")));
  EXPECT_FALSE(Exists(dir_.Path("out/sub")));
}

}  // namespace
}  // namespace pelmora::archive

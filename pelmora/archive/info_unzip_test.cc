// InfoUnzip: the record's defaults and reading rules, the module's callbacks and listing, and
// the late-bound face.
#include "pelmora/archive/info_unzip.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "pelmora/archive/archive_prompt.h"
#include "pelmora/archive/internal/test_archives.h"
#include "pelmora/automation/registry.h"
#include "pelmora/common/variant.h"

namespace pelmora {
namespace {

using archive::testing::Exists;
using archive::testing::ReadFile;
using archive::testing::RunIn;
using archive::testing::ScratchFolder;
using archive::testing::WriteFile;

TEST(InfoUnzip, FreshObjectHasTheRecordDefaults) {
  InfoUnzip u;
  EXPECT_TRUE(u.HonorDirectories());
  EXPECT_TRUE(u.OverWriteFiles());
  EXPECT_TRUE(u.CaseSensitive());
  EXPECT_FALSE(u.ExtractOnlyNewer() || u.SpaceToUnderscore() || u.PromptOverwrite() ||
               u.WriteToStdOut() || u.TestZip() || u.DisplayComment() || u.ConvertCRtoCRLF() ||
               u.Verbose());
  EXPECT_EQ(u.MessageLevel(), All);
  EXPECT_EQ(u.ExtractList(), Extract);
  EXPECT_EQ(u.Privilege(), Ignore);
  EXPECT_EQ(u.ErrNumber(), 0);
  EXPECT_EQ(u.Options().honor_directories, 1);
  EXPECT_EQ(u.Options().case_insensitive, 1);
}

TEST(InfoUnzip, ReadingFreshenSetsExtractOnlyNewerAndReturnsFalse) {
  InfoUnzip u;
  u.FreshenExisting(true);
  EXPECT_EQ(u.Options().freshen, 1);
  EXPECT_FALSE(u.FreshenExisting());
  EXPECT_TRUE(u.ExtractOnlyNewer());
  u.FreshenExisting(false);
  EXPECT_FALSE(u.FreshenExisting());
  EXPECT_FALSE(u.ExtractOnlyNewer());
}

TEST(InfoUnzip, EnumeratedFieldsAreStoredUnchecked) {
  InfoUnzip u;
  u.MessageLevel(2);
  u.ExtractList(7);
  u.Privilege(-3);
  EXPECT_EQ(u.Options().quiet, 2);
  EXPECT_EQ(u.ExtractList(), 7);
  EXPECT_EQ(u.Privilege(), -3);
}

class InfoUnzipArchive : public ::testing::Test {
 protected:
  void SetUp() override {
    WriteFile(dir_.Path("src/a.txt"), std::string(1000, 'a'));
    WriteFile(dir_.Path("src/b.txt"), "bee");
    ASSERT_EQ(RunIn(dir_.Path("src"), "touch -d '2021-03-04 05:06:07' a.txt b.txt"), 0);
    ASSERT_TRUE(archive::testing::MakeEncrypted(
        dir_.Path("src"), "zip -P secret ../e.zip a.txt b.txt", dir_.Path("e.zip"), {"wrong"}));
  }
  ScratchFolder dir_;
};

TEST_F(InfoUnzipArchive, ArgumentsReplaceTheProperties) {
  InfoUnzip u;
  u.Password("secret");
  ASSERT_TRUE(u.Unzip(dir_.Path("e.zip"), dir_.Path("out")));
  EXPECT_EQ(u.ZipFileName(), dir_.Path("e.zip"));
  EXPECT_EQ(u.ExtractDir(), dir_.Path("out"));
  EXPECT_EQ(ReadFile(dir_.Path("out/b.txt")), "bee");
  EXPECT_EQ(u.ErrDescription(), "");
  EXPECT_EQ(UnzipModule().password_offered, 1);
}

TEST_F(InfoUnzipArchive, PasswordIsOfferedAsAnsiBytes) {
  // zip -P with the bytes E9 74 E9: "été" in code page 1252, not its UTF-8 form.
  ASSERT_TRUE(archive::testing::MakeEncrypted(
      dir_.Path("src"), "zip -P \"$(printf '\\351t\\351')\" ../ansi.zip a.txt b.txt",
      dir_.Path("ansi.zip"), {"\u00e9t\u00e9"}));
  InfoUnzip u;
  u.Password("\u00e9t\u00e9");
  ASSERT_TRUE(u.Unzip(dir_.Path("ansi.zip"), dir_.Path("out"))) << u.ErrDescription();
  EXPECT_EQ(ReadFile(dir_.Path("out/b.txt")), "bee");
}

TEST_F(InfoUnzipArchive, WrongPasswordIsOfferedOnceAndItsMessagesKept) {
  InfoUnzip u;
  u.Password("wrong");
  EXPECT_FALSE(u.Unzip(dir_.Path("e.zip"), dir_.Path("out")));
  EXPECT_EQ(u.ErrNumber(), archive::kUnzipBadPassword);
  EXPECT_EQ(u.ErrDescription(),
            "   skipping: a.txt                   incorrect password\n"
            "   skipping: b.txt                   incorrect password\n");
  EXPECT_FALSE(Exists(dir_.Path("out/a.txt")));
  // A later success clears the description.
  u.Password("secret");
  EXPECT_TRUE(u.Unzip());
  EXPECT_EQ(u.ErrNumber(), 0);
  EXPECT_EQ(u.ErrDescription(), "");
}

TEST_F(InfoUnzipArchive, ListingIsKeptInTheModule) {
  InfoUnzip u;
  u.ExtractList(ListContents);
  ASSERT_TRUE(u.Unzip(dir_.Path("e.zip")));
  const std::string& listing = UnzipModule().listing;
  EXPECT_EQ(listing.rfind("FileName\tSize\tModifed\tRatio\tPacked\tCrypt\r\n"
                          "a.txt\t1000\t2021-03-04 05:06\t", 0), 0u) << listing;
  EXPECT_EQ(UnzipModule().listing_count, 2);
  EXPECT_NE(UnzipModule().listing.find("b.txt\t3\t2021-03-04 05:06\t0\t3\t1\r\n"),
            std::string::npos);
}

// A prompt that answers from a script and records the questions.
class ScriptedPrompt : public archive::ArchivePrompt {
 public:
  explicit ScriptedPrompt(archive::PromptAnswer answer) : answer_(answer) {}
  archive::PromptAnswer AskYesNoCancel(std::string_view text, std::string_view title) override {
    asked.push_back(std::string(title) + "|" + std::string(text));
    return answer_;
  }
  std::string AskText(std::string_view) override { return {}; }
  std::vector<std::string> asked;

 private:
  archive::PromptAnswer answer_;
};

TEST_F(InfoUnzipArchive, OverwritePromptGoesThroughThePromptInterface) {
  struct Case {
    archive::PromptAnswer answer;
    bool replaced;
    size_t asked;
  };
  for (Case c : {Case{archive::PromptAnswer::kYes, true, 2}, Case{archive::PromptAnswer::kNo,
                 false, 2}, Case{archive::PromptAnswer::kCancel, false, 1}}) {
    WriteFile(dir_.Path("out/a.txt"), "mine");
    WriteFile(dir_.Path("out/b.txt"), "mine");
    auto prompt = std::make_shared<ScriptedPrompt>(c.answer);
    archive::SetArchivePrompt(prompt);
    InfoUnzip u;
    u.OverWriteFiles(false);
    u.PromptOverwrite(true);
    u.Password("secret");
    EXPECT_TRUE(u.Unzip(dir_.Path("e.zip"), dir_.Path("out")));
    EXPECT_EQ(ReadFile(dir_.Path("out/b.txt")) == "bee", c.replaced);
    ASSERT_EQ(prompt->asked.size(), c.asked);
    EXPECT_EQ(prompt->asked[0],
              "Unzip - File Already Exists!|Overwrite " + dir_.Path("out/a.txt") + "?");
  }
  archive::SetArchivePrompt(nullptr);
}

TEST_F(InfoUnzipArchive, LateBoundObjectExtracts) {
  ObjectRef u = automation::CreateObject("Pelmora.InfoUnzip");
  EXPECT_TRUE(automation::GetProperty(u, "HonorDirectories").ToBool());
  automation::SetProperty(u, "Password", Variant(std::string("secret")));
  automation::SetProperty(u, "ExtractDir", Variant(dir_.Path("late")));
  std::vector<Variant> args = {Variant(dir_.Path("e.zip"))};
  EXPECT_TRUE(automation::CallByName(u, "Unzip", automation::CallKind::kMethod, args).ToBool());
  EXPECT_EQ(ReadFile(dir_.Path("late/b.txt")), "bee");
  EXPECT_EQ(automation::GetProperty(u, "ErrNumber").ToLong(), 0);
}

}  // namespace
}  // namespace pelmora

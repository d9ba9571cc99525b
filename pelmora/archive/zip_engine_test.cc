// The zip engine, round-tripped through the real unzip and zip programs: messages, return codes,
// update rules, encryption, attributes and times, order under parallel compression.
#include "pelmora/archive/zip_engine.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zip.h>

#include <random>
#include <filesystem>
#include <string>
#include <vector>

#include "pelmora/archive/internal/test_archives.h"
#include "pelmora/archive/unzip_engine.h"

namespace pelmora::archive {
namespace {

using testing::Exists;
using testing::ReadFile;
using testing::RunIn;
using testing::ScratchFolder;
using testing::WriteFile;

std::string RandomBytes(size_t size) {
  std::mt19937 random(7);
  std::string bytes(size, '\0');
  for (char& c : bytes) c = static_cast<char>(random());
  return bytes;
}

// The entry names of an archive in order.
std::vector<std::string> EntryNames(const std::string& path) {
  std::vector<std::string> names;
  int error = 0;
  zip_t* archive = zip_open(path.c_str(), ZIP_RDONLY, &error);
  if (archive == nullptr) return names;
  for (zip_int64_t i = 0; i < zip_get_num_entries(archive, 0); ++i) {
    names.emplace_back(zip_get_name(archive, static_cast<zip_uint64_t>(i), 0));
  }
  zip_discard(archive);
  return names;
}

class ZipEngine : public ::testing::Test {
 protected:
  void SetUp() override {
    WriteFile(dir_.Path("src/a.txt"), std::string(3000, 'a'));
    WriteFile(dir_.Path("src/sub/r.bin"), RandomBytes(20000));
    WriteFile(dir_.Path("src/sub/empty"), "");
    chmod(dir_.Path("src/sub/r.bin").c_str(), 0600);
    ASSERT_EQ(RunIn(dir_.Path("src"), "touch -d '2021-03-04 05:06:07' a.txt sub/r.bin sub"), 0);
    options_.root_dir = dir_.Path("src");
    callbacks_.print = [this](std::string_view text) {
      printed_ += text;
      return 0;
    };
  }

  int Zip(const std::vector<std::string>& names, const std::string& zip = "../a.zip") {
    printed_.clear();
    return RunZip(options_, zip, names, callbacks_, tuning_);
  }

  ScratchFolder dir_;
  ZipOptions options_;
  ZipCallbacks callbacks_;
  ZipTuning tuning_;
  std::string printed_;
};

TEST_F(ZipEngine, CreatesAnArchiveTheZipProgramsAccept) {
  options_.recurse = 1;
  ASSERT_EQ(Zip({"a.txt", "sub"}), kZipOk);
  EXPECT_EQ(printed_,
            "  adding: a.txt (deflated 99%)\n"
            "  adding: sub/ (stored 0%)\n"
            "  adding: sub/empty (stored 0%)\n"
            "  adding: sub/r.bin (stored 0%)\n");
  EXPECT_EQ(RunIn(dir_.Path(), "unzip -t a.zip"), 0);
  EXPECT_EQ(RunIn(dir_.Path(), "zip -T a.zip"), 0);
  ASSERT_EQ(RunIn(dir_.Path(), "unzip -q a.zip -d out"), 0);
  EXPECT_EQ(ReadFile(dir_.Path("out/sub/r.bin")), ReadFile(dir_.Path("src/sub/r.bin")));
  EXPECT_EQ(ReadFile(dir_.Path("out/a.txt")), std::string(3000, 'a'));
  struct stat src {}, out {};
  ASSERT_EQ(stat(dir_.Path("src/sub/r.bin").c_str(), &src), 0);
  ASSERT_EQ(stat(dir_.Path("out/sub/r.bin").c_str(), &out), 0);
  EXPECT_EQ(out.st_mode & 0777, 0600u);
  EXPECT_EQ(out.st_mtime, src.st_mtime);  // 05:06:07 comes back through the UT field
}

TEST_F(ZipEngine, ListingShowsZipsMethodsAndRoundedMsDosTime) {
  options_.recurse = 1;
  options_.no_extra = 1;
  ASSERT_EQ(Zip({"a.txt", "sub"}), kZipOk);
  DecompressionControl dcl;
  dcl.zip_file_name = dir_.Path("a.zip");
  dcl.list = 1;
  std::vector<ListedEntry> listed;
  UnzipCallbacks callbacks;
  callbacks.print = [](std::string_view) { return 0; };
  callbacks.replace = [](std::string&) { return kReplaceNo; };
  callbacks.message = [&](const ListedEntry& entry) { listed.push_back(entry); };
  ASSERT_EQ(RunUnzip(dcl, callbacks), kUnzipOk);
  ASSERT_EQ(listed.size(), 4u);
  EXPECT_EQ(listed[0].method, "Defl:N");
  EXPECT_EQ(listed[3].method, "Stored");
  EXPECT_EQ(listed[3].size, 20000u);
  EXPECT_EQ(listed[0].minute, 6u);
}

TEST_F(ZipEngine, EncryptedArchivePassesUnzipWithThePassword) {
  options_.encrypt = 1;
  std::vector<std::string> prompts;
  callbacks_.password = [&](std::string& answer, std::string_view prompt, std::string_view name) {
    prompts.push_back(std::string(prompt) + std::string(name));
    answer = "secret";
    return kPasswordEntered;
  };
  ASSERT_EQ(Zip({"a.txt", "sub/r.bin"}), kZipOk);
  EXPECT_EQ(prompts, (std::vector<std::string>{"Enter password: ../a.zip",
                                               "Verify password: ../a.zip"}));
  EXPECT_EQ(RunIn(dir_.Path(), "unzip -t -P secret a.zip"), 0);
  EXPECT_NE(RunIn(dir_.Path(), "unzip -t -P wrong a.zip"), 0);
  ASSERT_EQ(RunIn(dir_.Path(), "unzip -q -P secret a.zip -d out"), 0);
  EXPECT_EQ(ReadFile(dir_.Path("out/sub/r.bin")), ReadFile(dir_.Path("src/sub/r.bin")));
}

struct PasswordCase {
  const char* label;
  int enter_rc;
  std::string enter;
  int verify_rc;
  std::string verify;
  int code;
  const char* message;
};

class ZipPassword : public ZipEngine, public ::testing::WithParamInterface<PasswordCase> {};

TEST_P(ZipPassword, AnswersDecideTheRun) {
  const PasswordCase& c = GetParam();
  options_.encrypt = 1;
  int call = 0;
  callbacks_.password = [&](std::string& answer, std::string_view, std::string_view) {
    answer = call == 0 ? c.enter : c.verify;
    return call++ == 0 ? c.enter_rc : c.verify_rc;
  };
  EXPECT_EQ(Zip({"a.txt"}), c.code);
  EXPECT_EQ(printed_.substr(0, std::string(c.message).size()), c.message);
  EXPECT_EQ(Exists(dir_.Path("a.zip")), c.code == kZipOk);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ZipPassword,
    ::testing::Values(
        PasswordCase{"mismatch", 0, "one", 0, "two", kZipParms,
                     "\nzip error: Invalid command arguments (password verification failed)\n"},
        PasswordCase{"empty", 0, "", 0, "", kZipParms,
                     "\nzip error: Invalid command arguments (zero length password not "
                     "allowed)\n"},
        PasswordCase{"cancel", kPasswordCancel, "", 0, "", kZipParms, "\nzip error: Invalid"},
        PasswordCase{"error", kPasswordError, "", 0, "", kZipLogic,
                     "\nzip error: Internal logic error (was getting password)\n"},
        PasswordCase{"skip_verify", 0, "pw", kPasswordCancel, "", kZipOk, "  adding: a.txt"}),
    [](const auto& info) { return std::string(info.param.label); });

TEST_F(ZipEngine, NamesThatMatchNothingAreWarnedAbout) {
  EXPECT_EQ(Zip({"nosuch.txt"}), kZipNothingToDo);
  EXPECT_EQ(printed_, "\tzip warning: name not matched: nosuch.txt\n"
                      "\nzip error: Nothing to do! (../a.zip)\n");
  EXPECT_EQ(Zip({"nosuch.txt", "a.txt"}), kZipOk);
  EXPECT_EQ(printed_, "\tzip warning: name not matched: nosuch.txt\n"
                      "  adding: a.txt (deflated 99%)\n");
}

TEST_F(ZipEngine, WildcardsAreExpandedWithGlob) {
  WriteFile(dir_.Path("src/b.txt"), "b");
  ASSERT_EQ(Zip({"*.txt", "sub/*.none"}), kZipOk);
  EXPECT_EQ(EntryNames(dir_.Path("a.zip")), (std::vector<std::string>{"a.txt", "b.txt"}));
  EXPECT_NE(printed_.find("name not matched: sub/*.none"), std::string::npos);
}

TEST_F(ZipEngine, JunkedPathsAndRootPrefixesAreStripped) {
  options_.junk_dir = 1;
  options_.recurse = 1;
  ASSERT_EQ(Zip({dir_.Path("src/sub")}), kZipOk);
  EXPECT_EQ(EntryNames(dir_.Path("a.zip")), (std::vector<std::string>{"empty", "r.bin"}));
}

TEST_F(ZipEngine, UpdateReplacesOnlyNewerFilesAndDropsTheirOldTimes) {
  ASSERT_EQ(RunIn(dir_.Path("src"), "zip -r ../a.zip a.txt sub"), 0);
  options_.update = 1;
  EXPECT_EQ(Zip({"a.txt", "sub/r.bin"}), kZipNothingToDo);
  EXPECT_EQ(printed_, "");
  WriteFile(dir_.Path("src/a.txt"), "new contents");
  ASSERT_EQ(RunIn(dir_.Path("src"), "touch -d '2022-05-06 07:08:09' a.txt"), 0);
  WriteFile(dir_.Path("src/c.txt"), "c");
  ASSERT_EQ(Zip({"a.txt", "sub/r.bin", "c.txt"}), kZipOk);
  EXPECT_EQ(printed_, "updating: a.txt (stored 0%)\n  adding: c.txt (stored 0%)\n");
  EXPECT_EQ(EntryNames(dir_.Path("a.zip")),
            (std::vector<std::string>{"a.txt", "sub/", "sub/empty", "sub/r.bin", "c.txt"}));
  ASSERT_EQ(RunIn(dir_.Path(), "unzip -q a.zip a.txt -d out"), 0);
  struct stat out {};
  ASSERT_EQ(stat(dir_.Path("out/a.txt").c_str(), &out), 0);
  struct stat src {};
  ASSERT_EQ(stat(dir_.Path("src/a.txt").c_str(), &src), 0);
  EXPECT_EQ(out.st_mtime, src.st_mtime);
}

TEST_F(ZipEngine, FreshenAddsNothingNew) {
  ASSERT_EQ(RunIn(dir_.Path("src"), "zip ../a.zip a.txt"), 0);
  options_.freshen = 1;
  WriteFile(dir_.Path("src/c.txt"), "c");
  EXPECT_EQ(Zip({"c.txt"}), kZipNothingToDo);
  EXPECT_EQ(EntryNames(dir_.Path("a.zip")), std::vector<std::string>{"a.txt"});
}

TEST_F(ZipEngine, UnreadableFileIsSkippedWith18) {
  WriteFile(dir_.Path("src/secret.txt"), "s");
  chmod(dir_.Path("src/secret.txt").c_str(), 0);
  // Root reads every file: the archive is then made as "nobody" (the effective user only, so
  // the test takes root back), in folders that user may write.
  const bool root = geteuid() == 0;
  if (root) {
    ASSERT_EQ(chmod(dir_.Path().c_str(), 0777), 0);
    ASSERT_EQ(chmod(dir_.Path("src").c_str(), 0777), 0);
    ASSERT_EQ(seteuid(65534), 0);
  }
  int result = Zip({"secret.txt", "a.txt"});
  if (root) ASSERT_EQ(seteuid(0), 0);
  EXPECT_EQ(result, kZipOpen);
  EXPECT_NE(printed_.find("\tzip warning: could not open for reading: secret.txt\n"),
            std::string::npos);
  EXPECT_EQ(EntryNames(dir_.Path("a.zip")), std::vector<std::string>{"a.txt"});
}

TEST_F(ZipEngine, ExistingFileThatIsNotAZipIsAStructureError) {
  WriteFile(dir_.Path("a.zip"), "not a zip at all");
  EXPECT_EQ(Zip({"a.txt"}), kZipForm);
  EXPECT_EQ(printed_,
            "\tzip warning: missing end signature--probably not a zip file (did you\n"
            "\tzip warning: remember to use binary mode when you transferred it?)\n"
            "\tzip warning: (if you are trying to read a damaged archive try -F)\n"
            "\nzip error: Zip file structure invalid (../a.zip)\n");
}

TEST_F(ZipEngine, ServiceCallbackAbortsWithoutWritingTheArchive) {
  callbacks_.service = [](std::string_view name, uint64_t size) {
    return name == "a.txt" && size == 3000 ? 1 : 0;
  };
  EXPECT_EQ(Zip({"a.txt", "sub/r.bin"}), kZipAbort);
  EXPECT_NE(printed_.find("\nzip error: Interrupted (User terminated operation)\n"),
            std::string::npos);
  EXPECT_FALSE(Exists(dir_.Path("a.zip")));
}

TEST_F(ZipEngine, ParallelCompressionKeepsTheListOrder) {
  std::vector<std::string> names;
  for (int i = 0; i < 120; ++i) {
    std::string name = "many/f" + std::to_string(119 - i) + ".txt";
    WriteFile(dir_.Path("src/" + name), std::string(static_cast<size_t>(i) * 300, 'x') + name);
    names.push_back(name);
  }
  tuning_.threads = 4;
  tuning_.window_bytes = 4096;
  options_.quiet = 1;
  ASSERT_EQ(Zip(names), kZipOk);
  EXPECT_EQ(printed_, "");
  EXPECT_EQ(EntryNames(dir_.Path("a.zip")), names);
  EXPECT_EQ(RunIn(dir_.Path(), "unzip -t a.zip"), 0);
}

// Deflate at each level stays within 1% of the zip program's size on C headers (the system's own,
// about 3.6 MB), and the archive is one the zip programs accept.
TEST_F(ZipEngine, DeflatedSizeStaysWithinOnePercentOfZips) {
  ASSERT_EQ(RunIn(dir_.Path("src"), "mkdir text && cp /usr/include/*.h text/"), 0);
  options_.recurse = 1;
  for (char level : {'1', '3', '5', '6', '7', '9'}) {
    SCOPED_TRACE(level);
    options_.level = level;
    ASSERT_EQ(Zip({"text"}, "../ours.zip"), kZipOk);
    std::string zip = std::string("zip -q -r -") + level + " ../theirs.zip text";
    ASSERT_EQ(RunIn(dir_.Path("src"), zip), 0);
    double ours = static_cast<double>(ReadFile(dir_.Path("ours.zip")).size());
    double theirs = static_cast<double>(ReadFile(dir_.Path("theirs.zip")).size());
    EXPECT_GT(ours, 100000);
    EXPECT_LE(ours, theirs * 1.01);
    EXPECT_EQ(RunIn(dir_.Path(), "unzip -tq ours.zip && zip -T ours.zip"), 0);
    std::filesystem::remove(dir_.Path("ours.zip"));
    std::filesystem::remove(dir_.Path("theirs.zip"));
  }
}

TEST_F(ZipEngine, LargeFilesAreStreamedAndLevelZeroStores) {
  WriteFile(dir_.Path("src/big.txt"), std::string(9 << 20, 'b'));
  WriteFile(dir_.Path("src/big.bin"), RandomBytes(9 << 20));
  ASSERT_EQ(Zip({"big.txt", "big.bin"}), kZipOk);
  EXPECT_EQ(printed_, "  adding: big.txt (deflated 100%)\n  adding: big.bin (stored 0%)\n");
  EXPECT_EQ(RunIn(dir_.Path(), "unzip -t a.zip"), 0);
  options_.level = '0';
  ASSERT_EQ(Zip({"a.txt"}, "../b.zip"), kZipOk);
  EXPECT_EQ(printed_, "  adding: a.txt (stored 0%)\n");
}

}  // namespace
}  // namespace pelmora::archive

// InfoZip: the name list, the record flags, the module's callbacks and the late-bound face.
#include "pelmora/archive/info_zip.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "pelmora/archive/internal/test_archives.h"
#include "pelmora/automation/registry.h"
#include "pelmora/common/error.h"
#include "pelmora/common/variant.h"
#include "pelmora/testing/raised_error.h"

namespace pelmora {
namespace {

using archive::testing::Exists;
using archive::testing::ReadFile;
using archive::testing::RunIn;
using archive::testing::ScratchFolder;
using archive::testing::WriteFile;

TEST(InfoZip, TheHundredAndFirstNameIsRefusedEvenWhenListed) {
  InfoZip zip;
  for (int i = 0; i < 100; ++i) zip.AddFile("f" + std::to_string(i));
  EXPECT_EQ(zip.ZipFileCount(), 100);
  try {
    zip.AddFile("f0");
    FAIL() << "no error raised";
  } catch (const Error& e) {
    EXPECT_EQ(e.Number(), 2002);
    EXPECT_EQ(e.Description(), "Too may zip files");
    EXPECT_EQ(e.Source(), "AddFile");
  }
}

TEST(InfoZip, NamesDifferingOnlyInCaseAreOneAndReAddingMovesToTheEnd) {
  InfoZip zip;
  zip.AddFile("A.txt");
  zip.AddFile("b.txt");
  zip.AddFile("a.TXT");
  EXPECT_EQ(zip.ZipFileCount(), 2);
  zip.RemoveFile("a.txt");
  zip.AddFile("a.txt");
  EXPECT_EQ(zip.FileNames(), (std::vector<std::string>{"b.txt", "a.txt"}));
  EXPECT_THROW(zip.RemoveFile("zzz"), Error);
  zip.RemoveAllFile();
  EXPECT_EQ(zip.ZipFileCount(), 0);
}

TEST(InfoZip, PropertiesWriteTheirRecordFlags) {
  InfoZip zip;
  zip.RecurseFolders(true);
  zip.Encrypted(true);
  zip.IncludeSystemFiles(true);
  zip.IgnorePath(true);
  zip.UpdatingZip(true);
  zip.RootDirectory("C:\\root");
  const archive::ZipOptions& o = zip.Options();
  EXPECT_EQ(o.recurse, 1);
  EXPECT_EQ(o.encrypt, 1);
  EXPECT_EQ(o.system, 1);
  EXPECT_EQ(o.junk_dir, 1);
  EXPECT_EQ(o.update, 1);
  EXPECT_EQ(o.root_dir, "C:\\root");
  EXPECT_EQ(o.level, 0);
  EXPECT_EQ(o.quiet + o.freshen + o.comment + o.no_extra, 0);
}

class InfoZipFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    WriteFile(dir_.Path("src/a.txt"), std::string(1000, 'a'));
    zip_.RootDirectory(dir_.Path("src"));
    zip_.ZipFileName(dir_.Path("a.zip"));
  }
  ScratchFolder dir_;
  InfoZip zip_;
};

TEST_F(InfoZipFiles, EmptyListReturnsFalseAndKeepsTheLastError) {
  zip_.AddFile("nosuch");
  EXPECT_FALSE(zip_.Create());
  EXPECT_EQ(zip_.ErrNumber(), archive::kZipNothingToDo);
  EXPECT_EQ(zip_.ErrDescription(), "\nzip error: Nothing to do! (" + dir_.Path("a.zip") + ")\n");
  zip_.RemoveAllFile();
  EXPECT_FALSE(zip_.Create());
  EXPECT_EQ(zip_.ErrNumber(), archive::kZipNothingToDo);
  // A later success clears the description.
  zip_.AddFile("a.txt");
  EXPECT_TRUE(zip_.Create());
  EXPECT_EQ(zip_.ErrNumber(), 0);
  EXPECT_EQ(zip_.ErrDescription(), "");
  EXPECT_EQ(ZipModule().last_message, " (deflated 99%)\n");
}

TEST_F(InfoZipFiles, PasswordIsOfferedOnlyWhenEncrypted) {
  zip_.AddFile("a.txt");
  zip_.Password("secret");
  ASSERT_TRUE(zip_.Create());
  EXPECT_EQ(ZipModule().password, "");
  EXPECT_EQ(RunIn(dir_.Path(), "unzip -t a.zip"), 0);
  zip_.Encrypted(true);
  zip_.ZipFileName(dir_.Path("e.zip"));
  ASSERT_TRUE(zip_.Create());
  EXPECT_EQ(RunIn(dir_.Path(), "unzip -t -P secret e.zip"), 0);
  EXPECT_NE(RunIn(dir_.Path(), "unzip -t -P other e.zip"), 0);
}

TEST_F(InfoZipFiles, PasswordKeysTheArchiveWithItsAnsiBytes) {
  zip_.AddFile("a.txt");
  zip_.Encrypted(true);
  zip_.Password("\u00e9t\u00e9");
  ASSERT_TRUE(zip_.Create());
  EXPECT_EQ(RunIn(dir_.Path(), "unzip -t -P \"$(printf '\\351t\\351')\" a.zip"), 0);
}

TEST_F(InfoZipFiles, NamesDifferingInCaseBeyondAsciiAreOne) {
  zip_.AddFile("\u00e9.txt");
  zip_.AddFile("\u00c9.txt");
  EXPECT_EQ(zip_.ZipFileCount(), 1);
}

TEST_F(InfoZipFiles, EncryptedWithoutPasswordFailsWithTheCallbacksAnswer) {
  zip_.AddFile("a.txt");
  zip_.Encrypted(true);
  EXPECT_FALSE(zip_.Create());
  EXPECT_EQ(zip_.ErrNumber(), 1);
  EXPECT_FALSE(Exists(dir_.Path("a.zip")));
}

// Exit statuses of the child that creates an archive where no thread can be started.
constexpr int kThreadsStillStart = 102;
constexpr int kCreateThrew = 103;

TEST_F(InfoZipFiles, CreateWorksOnTheCallersThreadWhenNoThreadCanStart) {
  WriteFile(dir_.Path("src/b.txt"), std::string(5000, 'b'));
  zip_.AddFile("a.txt");
  zip_.AddFile("b.txt");
  // The child runs as an ordinary user (the process limit does not bind root) in a folder it
  // may write.
  namespace fs = std::filesystem;
  for (const auto& entry : fs::recursive_directory_iterator(dir_.Path())) {
    fs::permissions(entry.path(), fs::perms::all, fs::perm_options::add);
  }
  fs::permissions(dir_.Path(), fs::perms::all, fs::perm_options::add);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    rlimit no_processes{0, 0};
    if ((getuid() == 0 && setuid(65534) != 0) || setrlimit(RLIMIT_NPROC, &no_processes) != 0) {
      _exit(kThreadsStillStart);  // no way to limit threads here
    }
    try {
      std::thread([] {}).join();
      _exit(kThreadsStillStart);
    } catch (const std::system_error&) {
    }
    try {
      _exit(zip_.Create() ? 0 : 50 + zip_.ErrNumber());
    } catch (...) {
      _exit(kCreateThrew);
    }
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == kThreadsStillStart)
    GTEST_SKIP() << "the process limit is not enforced";
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(RunIn(dir_.Path(), "unzip -t a.zip"), 0);
}

// Points TMPDIR somewhere for the life of the object.
class ScopedTmpDir {
 public:
  explicit ScopedTmpDir(const std::string& folder) {
    if (const char* old = std::getenv("TMPDIR")) saved_ = old;
    setenv("TMPDIR", folder.c_str(), 1);
  }
  ~ScopedTmpDir() {
    if (saved_.empty()) {
      unsetenv("TMPDIR");
    } else {
      setenv("TMPDIR", saved_.c_str(), 1);
    }
  }

 private:
  std::string saved_;
};

TEST_F(InfoZipFiles, MissingTemporaryFolderIsAReturnCode) {
  ScopedTmpDir missing(dir_.Path("gone"));
  zip_.AddFile("a.txt");
  zip_.ZipFileName(dir_.Path("gone/a.zip"));  // no folder to spool in beside the archive either
  EXPECT_FALSE(zip_.Create());
  EXPECT_EQ(zip_.ErrNumber(), archive::kZipTemp);
}

TEST_F(InfoZipFiles, LateBoundObjectCreatesTheArchive) {
  ObjectRef zip = automation::CreateObject("Pelmora.InfoZip");
  automation::SetProperty(zip, "RootDirectory", Variant(dir_.Path("src")));
  automation::SetProperty(zip, "ZipFileName", Variant(std::string("../late.zip")));
  std::vector<Variant> args = {Variant(std::string("a.txt"))};
  EXPECT_TRUE(automation::CallByName(zip, "AddFile", automation::CallKind::kMethod, args)
                  .IsEmpty());
  EXPECT_EQ(automation::GetProperty(zip, "ZipFileCount").ToLong(), 1);
  std::vector<Variant> none;
  EXPECT_TRUE(automation::CallByName(zip, "Create", automation::CallKind::kMethod, none).ToBool());
  EXPECT_EQ(RunIn(dir_.Path(), "unzip -t late.zip"), 0);
}

}  // namespace
}  // namespace pelmora

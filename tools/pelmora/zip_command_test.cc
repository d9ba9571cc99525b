// `pelmora zip` and `pelmora unzip`: exit statuses are the archive return codes, passwords come
// from -P or a file.
#include "tools/pelmora/zip_command.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "pelmora/archive/internal/test_archives.h"

namespace pelmora_tool {
namespace {

using pelmora::archive::testing::ReadFile;
using pelmora::archive::testing::ScratchFolder;
using pelmora::archive::testing::WriteFile;

ZipCommandLine ZipLine(const std::string& archive, const std::string& name) {
  ZipCommandLine line;
  line.archive = archive;
  line.names = {name};
  return line;
}

// Captures what a command prints.
class Output {
 public:
  Output() : file_(std::tmpfile()) {}
  ~Output() { std::fclose(file_); }
  std::FILE* File() { return file_; }
  std::string Text() {
    std::fflush(file_);
    std::rewind(file_);
    std::string text;
    char buffer[4096];
    while (size_t n = std::fread(buffer, 1, sizeof(buffer), file_)) text.append(buffer, n);
    return text;
  }

 private:
  std::FILE* file_;
};

class ZipCommand : public ::testing::Test {
 protected:
  void SetUp() override {
    WriteFile(dir_.Path("src/a.txt"), std::string(500, 'a'));
    WriteFile(dir_.Path("src/sub/b.txt"), "bee");
    WriteFile(dir_.Path("pw"), "secret\n");
  }
  ScratchFolder dir_;
  Output out_;
};

TEST_F(ZipCommand, EncryptedRoundTripWithPasswordFileAndOption) {
  ZipCommandLine zip = ZipLine(dir_.Path("e.zip"), dir_.Path("src"));
  zip.recurse = zip.encrypt = true;
  zip.password_file = dir_.Path("pw");
  ASSERT_EQ(RunZipCommand(zip, out_.File()), 0);
  UnzipCommandLine unzip;
  unzip.archive = dir_.Path("e.zip");
  unzip.extract_dir = dir_.Path("out");
  unzip.password = "secret";
  ASSERT_EQ(RunUnzipCommand(unzip, out_.File()), 0);
  EXPECT_EQ(ReadFile(dir_.Path("out") + dir_.Path("src/sub/b.txt")), "bee");
  unzip.password = "wrong";
  unzip.test = true;
  EXPECT_NE(RunUnzipCommand(unzip, out_.File()), 0);  // 82, or 2 when the check byte matches by chance
}

TEST_F(ZipCommand, ExitStatusesAreTheReturnCodes) {
  ZipCommandLine zip = ZipLine(dir_.Path("a.zip"), dir_.Path("nosuch"));
  EXPECT_EQ(RunZipCommand(zip, out_.File()), 12);
  UnzipCommandLine unzip;
  unzip.archive = dir_.Path("a.zip");
  unzip.test = true;
  EXPECT_EQ(RunUnzipCommand(unzip, out_.File()), 9);
  zip.password_file = dir_.Path("missing-password-file");
  EXPECT_EQ(RunZipCommand(zip, out_.File()), 16);
}

TEST_F(ZipCommand, ListPrintsTheEntries) {
  ZipCommandLine zip = ZipLine(dir_.Path("a.zip"), dir_.Path("src/a.txt"));
  zip.junk_paths = true;
  ASSERT_EQ(RunZipCommand(zip, out_.File()), 0);
  UnzipCommandLine unzip;
  unzip.archive = dir_.Path("a.zip");
  unzip.list = true;
  ASSERT_EQ(RunUnzipCommand(unzip, out_.File()), 0);
  std::string text = out_.Text();
  EXPECT_NE(text.find("  adding: a.txt (deflated 98%)\n"), std::string::npos) << text;
  EXPECT_NE(text.find("      500  "), std::string::npos) << text;
  EXPECT_NE(text.find("   a.txt\n"), std::string::npos) << text;
}

TEST_F(ZipCommand, ExcludePatternsLeaveOutFilesAndWholeFolders) {
  WriteFile(dir_.Path("src/sub/c.log"), "log");
  WriteFile(dir_.Path("src/d.log"), "log");
  WriteFile(dir_.Path("src/skip/e.txt"), "e");
  ZipCommandLine zip = ZipLine(dir_.Path("x.zip"), dir_.Path("src"));
  zip.recurse = true;
  zip.quiet = true;
  zip.exclude = {"*.log", "*/src/skip"};
  ASSERT_EQ(RunZipCommand(zip, out_.File()), 0);
  UnzipCommandLine unzip;
  unzip.archive = dir_.Path("x.zip");
  unzip.list = true;
  ASSERT_EQ(RunUnzipCommand(unzip, out_.File()), 0);
  std::string text = out_.Text();
  for (const char* kept : {"src/a.txt\n", "src/sub/b.txt\n", "src/sub/\n"}) {
    EXPECT_NE(text.find(kept), std::string::npos) << kept << " missing from\n" << text;
  }
  for (const char* left_out : {".log", "skip"}) {
    EXPECT_EQ(text.find(left_out), std::string::npos) << left_out << " in\n" << text;
  }
}

}  // namespace
}  // namespace pelmora_tool

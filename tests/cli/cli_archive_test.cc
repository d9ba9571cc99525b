// `pelmora zip` and `pelmora unzip` as processes: what unzip says when it cannot ask.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "tests/cli/child_process.h"

namespace pelmora_cli_test {
namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kLimit(30);

TEST(CliArchive, UnzipWithoutATerminalNamesWhatItSkipped) {
  fs::path folder = fs::path(::testing::TempDir()) /
                    ("pelmora-cli-archive-" + std::to_string(::getpid()));
  fs::remove_all(folder);
  fs::create_directories(folder / "out");
  std::ofstream(folder / "a.txt") << "new";
  std::ofstream(folder / "out" / "a.txt") << "old";
  std::string archive = (folder / "a.zip").string();
  ChildProcess::Result zip =
      ChildProcess({"zip", "-j", archive, (folder / "a.txt").string()}).Finish(kLimit);
  ASSERT_EQ(zip.status, 0) << zip.err;
  std::vector<std::string> unzip = {"unzip", "-d", (folder / "out").string(), archive};
  ChildProcess::Result asked = ChildProcess(unzip, {}, Attach::kPipesNoTerminal).Finish(kLimit);
  EXPECT_EQ(asked.status, 0) << asked.err;
  EXPECT_EQ(asked.err, "pelmora: unzip: " + (folder / "out" / "a.txt").string() +
                           " exists: skipped (no terminal to ask; -o replaces, -n skips quietly)\n");
  std::ifstream kept(folder / "out" / "a.txt");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(kept), {}), "old");
  unzip.insert(unzip.begin() + 1, "-n");
  ChildProcess::Result quiet = ChildProcess(unzip, {}, Attach::kPipesNoTerminal).Finish(kLimit);
  EXPECT_EQ(quiet.err, "");
  fs::remove_all(folder);
}

}  // namespace
}  // namespace pelmora_cli_test

// The `pelmora admin` tool as a process against the real pelmorad: every file and folder command,
// transfers with byte equality, the clock and paths, and the errors that name a path.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>

#include "tests/cli/cli_service_fixture.h"

namespace pelmora_cli_test {
namespace {

using ::testing::HasSubstr;
using ::testing::MatchesRegex;
namespace fs = std::filesystem;

TEST_F(CliServiceTest, TimePrintsTheServerClock) {
  ChildProcess::Result result = Admin({"time"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.out, MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\n"));
}

TEST_F(CliServiceTest, PutListGetRoundTripKeepsEveryByte) {
  std::string content(100000, '\0');
  std::mt19937 random(7);
  for (char& c : content) c = static_cast<char>(random());
  std::ofstream(Local("up.bin"), std::ios::binary) << content;
  EXPECT_EQ(Admin({"mkdir", "C:\\in"}).status, 0);
  ChildProcess::Result put = Admin({"put", Local("up.bin"), "C:\\in\\"});
  EXPECT_EQ(put.status, 0) << put.err;
  ChildProcess::Result list = Admin({"ls", "-l", "C:\\in"});
  EXPECT_EQ(list.status, 0) << list.err;
  EXPECT_THAT(list.out, MatchesRegex("-...a      100000 [0-9: -]+ up\\.bin\n"));
  ChildProcess::Result human = Admin({"ls", "-lh", "C:\\in"});
  EXPECT_THAT(human.out, MatchesRegex("-...a   98K [0-9: -]+ up\\.bin\n")) << human.err;
  ChildProcess::Result get = Admin({"get", "C:\\in\\up.bin", Local("down.bin")});
  EXPECT_EQ(get.status, 0) << get.err;
  std::ifstream back(Local("down.bin"), std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(back), {}), content);
  ChildProcess::Result stat = Admin({"stat", "C:\\in\\up.bin"});
  EXPECT_THAT(stat.out, HasSubstr("Size:       100000\n"));
  EXPECT_THAT(stat.out, HasSubstr("Path:       C:\\in\\up.bin\n"));

  nlohmann::json record = nlohmann::json::parse(Admin({"stat", "--json", "C:\\in\\up.bin"}).out);
  EXPECT_EQ(record["size"], 100000);
  EXPECT_EQ(record["path"], "C:\\in\\up.bin");
  EXPECT_EQ(record["type"], "file");
  EXPECT_THAT(record["modified"].get<std::string>(),
              MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}"));
  nlohmann::json entries = nlohmann::json::parse(Admin({"ls", "--json", "C:\\"}).out);
  ASSERT_TRUE(entries.is_array());
  bool folder_seen = false;
  for (const auto& entry : entries) {
    if (entry["name"] == "in") folder_seen = entry["type"] == "folder";
  }
  EXPECT_TRUE(folder_seen) << entries.dump();
}

TEST_F(CliServiceTest, FailedDownloadsLeaveNothingUnderTheTargetName) {
  ServerFile("big.bin", 200000);
  fs::create_directory(Local("down"));
  ChildProcess::Result missing = Admin({"get", "C:\\none.bin", Local("down/none.bin")});
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.err, "pelmora: 127.0.0.1: 8004 Cannot open remote file (C:\\none.bin: not there)\n");
  // A file-size limit makes the local writes fail part-way, as a full disk does.
  std::vector<std::string> limited = {
      "-c", "trap '' XFSZ; ulimit -f 8; exec \"$0\" \"$@\"", ToolPath(), "admin", "--host",
      "127.0.0.1", "--port", std::to_string(service_.port()), "get", "C:\\big.bin",
      Local("down/big.bin")};
  ChildProcess::Result too_large = ChildProcess(limited, env_, Attach::kPipes, "/bin/sh").Finish(kLimit);
  EXPECT_EQ(too_large.status, 2);
  EXPECT_EQ(too_large.err, "pelmora: cannot write " + Local("down/big.bin") +
                               ": File too large (from 127.0.0.1)\n");
  EXPECT_THAT(Names(Local("down")), ::testing::IsEmpty());
  ChildProcess::Result full = Admin({"get", "C:\\big.bin", "/dev/full"});
  EXPECT_EQ(full.status, 2);
  EXPECT_EQ(full.err, "pelmora: cannot write /dev/full: No space left on device (from 127.0.0.1)\n");
}

TEST_F(CliServiceTest, ResumeKeepsAFileThatMatchesTheRemoteOne) {
  ServerFile("r.txt", 5000);
  std::string local = Local("r.txt");
  ASSERT_EQ(Admin({"get", "C:\\r.txt", local}).status, 0);
  // Same size and write time, other bytes: -C keeps them, a plain get replaces them.
  auto written = fs::last_write_time(local);
  std::ofstream(local, std::ios::binary) << std::string(5000, 'y');
  fs::last_write_time(local, written);
  ChildProcess::Result resumed = Admin({"get", "-C", "C:\\r.txt", local});
  EXPECT_EQ(resumed.status, 0) << resumed.err;
  std::ifstream kept(local, std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(kept), {}), std::string(5000, 'y'));
  std::ofstream(local, std::ios::binary) << "short";
  ASSERT_EQ(Admin({"get", "--resume", "C:\\r.txt", local}).status, 0);
  EXPECT_EQ(fs::file_size(local), 5000u);
  fs::permissions(local, fs::perms(0640));
  ASSERT_EQ(Admin({"get", "C:\\r.txt", local}).status, 0);
  EXPECT_EQ(fs::status(local).permissions(), fs::perms(0640)) << "a replaced file keeps its mode";
}

TEST_F(CliServiceTest, TouchLeavesAnExistingFileAsItIs) {
  ServerFile("t.txt", 10);
  EXPECT_EQ(Admin({"touch", "C:\\t.txt"}).status, 0);
  EXPECT_EQ(Admin({"touch", "-f", "C:\\t.txt"}).status, 0);
  EXPECT_EQ(fs::file_size(service_.Drive('C') + "/t.txt"), 10u);
}

TEST_F(CliServiceTest, ErrorsNameThePathAndWhatIsWrongWithIt) {
  ServerFile("f.txt", 3);
  ASSERT_EQ(Admin({"mkdir", "C:\\d"}).status, 0);
  struct Case {
    std::vector<std::string> args;
    std::string err;
  };
  const Case kCases[] = {
      {{"ls", "C:\\nope"}, "8118 Cannot open remote folder (C:\\nope: not there)"},
      {{"ls", "Q:\\x"}, "8118 Cannot open remote folder (Q:\\x: the server has no drive Q:)"},
      {{"ls", "C:\\f.txt"}, "8118 Cannot open remote folder (C:\\f.txt: a file)"},
      {{"ls", "data"}, "8118 Cannot open remote folder (data: server paths begin with a drive, as C:\\)"},
      {{"get", "C:\\d", Local("x")}, "8004 Cannot open remote file (C:\\d: a folder: get copies files)"},
      {{"rm", "C:\\d"}, "5 Access is denied. (C:\\d: a folder: use rm -r)"},
      {{"cp", "C:\\d", "C:\\e"}, "5 Access is denied. (C:\\d: a folder: use cp -r)"},
      {{"mkdir", "C:\\no\\sub"}, "3 The system cannot find the path specified. (C:\\no\\sub: no folder C:\\no)"},
  };
  for (const Case& c : kCases) {
    ChildProcess::Result result = Admin(c.args);
    EXPECT_EQ(result.status, 1) << c.args[0];
    EXPECT_EQ(result.err, "pelmora: 127.0.0.1: " + c.err + "\n");
  }
  // Into an existing folder without a trailing separator: the file goes inside, as scp puts it.
  std::ofstream(Local("in.txt")) << "inside";
  ChildProcess::Result put = Admin({"put", Local("in.txt"), "C:\\d"});
  EXPECT_EQ(put.status, 0) << put.err;
  EXPECT_TRUE(fs::exists(service_.Drive('C') + "/d/in.txt"));
}

TEST_F(CliServiceTest, FileAndFolderCommandsWithTheirExitStatuses) {
  EXPECT_EQ(Admin({"mkdir", "C:\\a"}).status, 0);
  EXPECT_EQ(Admin({"touch", "C:\\a\\one.txt"}).status, 0);
  ChildProcess::Result exists = Admin({"exists", "C:\\a\\one.txt"});
  EXPECT_EQ(exists.out, "file\n");
  EXPECT_EQ(Admin({"exists", "C:\\a"}).out, "folder\n");
  ChildProcess::Result missing = Admin({"exists", "C:\\a\\none"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.out, "missing\n");
  EXPECT_EQ(Admin({"cp", "C:\\a\\one.txt", "C:\\a\\two.txt"}).status, 0);
  ChildProcess::Result again = Admin({"cp", "C:\\a\\one.txt", "C:\\a\\two.txt"});
  EXPECT_EQ(again.status, 1);
  EXPECT_THAT(again.err, MatchesRegex("pelmora: 127\\.0\\.0\\.1: 80 .*\n"));
  EXPECT_EQ(Admin({"cp", "-f", "C:\\a\\one.txt", "C:\\a\\two.txt"}).status, 0);
  EXPECT_EQ(Admin({"cp", "-r", "C:\\a", "C:\\b"}).status, 0);
  EXPECT_TRUE(fs::exists(service_.Drive('C') + "/b/two.txt"));
  EXPECT_EQ(Admin({"mv", "C:\\b\\two.txt", "C:\\b\\three.txt"}).status, 0);
  EXPECT_EQ(Admin({"ls", "C:\\b"}).out.find("three.txt") != std::string::npos, true);
  ChildProcess::Result not_empty = Admin({"rmdir", "C:\\b"});
  EXPECT_EQ(not_empty.status, 1);
  EXPECT_THAT(not_empty.err, MatchesRegex("pelmora: 127\\.0\\.0\\.1: 145 .*\n"));
  EXPECT_EQ(Admin({"rm", "C:\\b\\one.txt"}).status, 0);
  EXPECT_EQ(Admin({"rm", "C:\\b\\three.txt"}).status, 0);
  EXPECT_EQ(Admin({"rmdir", "C:\\b"}).status, 0);
  EXPECT_FALSE(fs::exists(service_.Drive('C') + "/b"));
}

TEST_F(CliServiceTest, PathsOfTheServer) {
  EXPECT_EQ(Admin({"approot", "--product", "qel"}).out, "C:\\\n");
  EXPECT_EQ(Admin({"path", "QelProgram"}).out, "C:\\qel\\bin\n");
  EXPECT_EQ(Admin({"sysdir"}).out, "C:\\Windows\\system32\n");
  ChildProcess::Result none = Admin({"path", "NoSuchKey"});
  EXPECT_EQ(none.status, 1);
}

TEST_F(CliServiceTest, FetchKeepsItsCacheInTheUsersOwnFolder) {
  ServerFile("cached.txt", 5);
  const std::string temporary = Local("tmp");
  fs::create_directories(temporary);
  struct Case {
    Env extra;
    std::string root;
  };
  const Case cases[] = {
      {{{"XDG_CACHE_HOME", Local("xdg")}, {"TMPDIR", temporary}}, Local("xdg") + "/pelmora"},
      {{{"XDG_CACHE_HOME", ""}, {"HOME", Local("user")}, {"TMPDIR", temporary}},
       Local("user") + "/.cache/pelmora"},
  };
  for (const Case& c : cases) {
    Env env = env_;
    env.insert(env.end(), c.extra.begin(), c.extra.end());
    std::vector<std::string> args = {"admin", "--host", "127.0.0.1", "--port",
                                     std::to_string(service_.port()), "fetch", "C:\\cached.txt"};
    ChildProcess::Result result = ChildProcess(args, env).Finish(kLimit);
    ASSERT_EQ(result.status, 0) << result.err;
    ASSERT_THAT(result.out, ::testing::StartsWith(c.root + "/"));
    std::string path = result.out.substr(0, result.out.size() - 1);
    std::ifstream cached(path);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(cached), {}), "xxxxx");
    EXPECT_EQ(fs::status(c.root).permissions(), fs::perms::owner_all);
  }
  EXPECT_TRUE(Names(temporary).empty()) << "nothing in the shared temporary folder";
}

TEST_F(CliServiceTest, MkdirParentsAndRecursiveRm) {
  EXPECT_EQ(Admin({"mkdir", "C:\\a\\b"}).status, 1) << "no parent without -p";
  for (int round = 0; round < 2; ++round) {
    ChildProcess::Result made = Admin({"mkdir", "-p", "C:\\a\\b\\c"});
    EXPECT_EQ(made.status, 0) << "round " << round << ": " << made.err;
  }
  ASSERT_TRUE(fs::is_directory(service_.Drive('C') + "/a/b/c"));
  ServerFile("a/top.txt", 3);
  ServerFile("a/b/c/deep.txt", 4);
  fs::create_directories(service_.Drive('C') + "/a/empty");
  fs::create_directories(service_.Drive('C') + "/kept");
  ServerFile("kept/precious.txt", 2);
  fs::create_directory_symlink("../kept", service_.Drive('C') + "/a/link");

  ChildProcess::Result listing = Admin({"ls", "-l", "C:\\a"});
  EXPECT_THAT(listing.out, ::testing::ContainsRegex("l---- [^\n]* link\n")) << "ls -l shows links";
  ChildProcess::Result plain = Admin({"rm", "C:\\a"});
  EXPECT_EQ(plain.status, 1);
  EXPECT_TRUE(fs::exists(service_.Drive('C') + "/a/b/c/deep.txt"));
  ChildProcess::Result tree = Admin({"rm", "-r", "C:\\a"});
  EXPECT_EQ(tree.status, 0) << tree.err;
  EXPECT_FALSE(fs::exists(service_.Drive('C') + "/a"));
  EXPECT_TRUE(fs::exists(service_.Drive('C') + "/kept/precious.txt")) << "links are not followed";
  ServerFile("single.txt", 1);
  EXPECT_EQ(Admin({"rm", "-r", "C:\\single.txt"}).status, 0) << "a file needs no folder walk";
  EXPECT_FALSE(fs::exists(service_.Drive('C') + "/single.txt"));
}

TEST_F(CliServiceTest, GetToStandardOutputAndPutFromStandardInput) {
  std::string bytes;
  for (int i = 0; i < 200000; ++i) bytes += static_cast<char>(i * 7 % 256);
  std::ofstream(Local("input.bin"), std::ios::binary) << bytes;
  std::vector<std::string> put = {"admin", "--host", "127.0.0.1", "--port",
                                  std::to_string(service_.port()), "put", "-", "C:\\in.bin"};
  ChildProcess::Result stored =
      ChildProcess(put, env_, Attach::kPipes, "", Local("input.bin")).Finish(kLimit);
  EXPECT_EQ(stored.status, 0) << stored.err;
  std::ifstream uploaded(service_.Drive('C') + "/in.bin", std::ios::binary);
  EXPECT_TRUE(std::string(std::istreambuf_iterator<char>(uploaded), {}) == bytes);

  ChildProcess::Result fetched = Admin({"get", "C:\\in.bin", "-"});
  EXPECT_EQ(fetched.status, 0) << fetched.err;
  EXPECT_TRUE(fetched.out == bytes) << fetched.out.size() << " bytes";
  EXPECT_FALSE(fs::exists("-"));

  put.back() = "C:\\";
  ChildProcess::Result folder =
      ChildProcess(put, env_, Attach::kPipes, "", Local("input.bin")).Finish(kLimit);
  EXPECT_EQ(folder.status, 2);
  EXPECT_THAT(folder.err, HasSubstr("put - needs a file name on the server"));
}

TEST_F(CliServiceTest, SeveralFilesGoIntoAFolderBothWays) {
  for (const char* name : {"one.txt", "two.txt"}) std::ofstream(Local(name)) << name;
  fs::create_directories(service_.Drive('C') + "/data");
  ChildProcess::Result up = Admin({"put", Local("one.txt"), Local("two.txt"), "C:\\data\\"});
  EXPECT_EQ(up.status, 0) << up.err;
  ChildProcess::Result into = Admin({"put", Local("one.txt"), Local("two.txt"), "C:\\data"});
  EXPECT_EQ(into.status, 0) << "an existing folder without the \\: " << into.err;
  EXPECT_THAT(Names(service_.Drive('C') + "/data"),
              ::testing::UnorderedElementsAre("one.txt", "two.txt"));

  fs::create_directories(Local("back"));
  ChildProcess::Result down =
      Admin({"get", "C:\\data\\one.txt", "C:\\data\\two.txt", Local("back")});
  EXPECT_EQ(down.status, 0) << down.err;
  EXPECT_THAT(Names(Local("back")), ::testing::UnorderedElementsAre("one.txt", "two.txt"));

  struct Refusal {
    std::vector<std::string> args;
    std::string message;
  };
  const Refusal refusals[] = {
      {{"put", Local("one.txt"), Local("two.txt"), "C:\\new.txt"},
       "several files need a folder on the server as target"},
      {{"put", Local("missing.txt"), "C:\\data\\"}, "no such local file: "},
      {{"get", "C:\\data\\one.txt", "C:\\data\\two.txt", Local("none")},
       "several files need an existing local folder as target"},
  };
  for (const Refusal& refusal : refusals) {
    ChildProcess::Result result = Admin(refusal.args);
    EXPECT_EQ(result.status, 2) << refusal.message;
    EXPECT_THAT(result.err, HasSubstr(refusal.message));
  }
  EXPECT_FALSE(fs::exists(service_.Drive('C') + "/new.txt"));
}

TEST_F(CliServiceTest, RecursiveTransfersCopyWholeFoldersBothWays) {
  fs::create_directories(Local("site/css/deep"));
  fs::create_directories(Local("site/empty"));
  std::ofstream(Local("site/index.html")) << "index";
  std::ofstream(Local("site/css/deep/a.css")) << "css";
  ChildProcess::Result plain = Admin({"put", Local("site"), "C:\\"});
  EXPECT_EQ(plain.status, 2);
  EXPECT_THAT(plain.err, HasSubstr("a folder: use put -r"));

  ChildProcess::Result up = Admin({"put", "-r", Local("site"), "C:\\"});
  EXPECT_EQ(up.status, 0) << up.err;
  const std::string drive = service_.Drive('C');
  EXPECT_TRUE(fs::is_directory(drive + "/site/empty"));
  std::ifstream deep(drive + "/site/css/deep/a.css");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(deep), {}), "css");
  ChildProcess::Result renamed = Admin({"put", "-r", Local("site"), "C:\\copy"});
  EXPECT_EQ(renamed.status, 0) << renamed.err;
  EXPECT_TRUE(fs::exists(drive + "/copy/index.html")) << "a new target is the folder itself";

  ChildProcess::Result down = Admin({"get", "-r", "C:\\site", Local("back")});
  EXPECT_EQ(down.status, 0) << down.err;
  std::ifstream back(Local("back/css/deep/a.css"));
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(back), {}), "css");
  EXPECT_TRUE(fs::is_directory(Local("back/empty")));
  ChildProcess::Result again = Admin({"get", "-r", "C:\\site", Local("back")});
  EXPECT_EQ(again.status, 0) << again.err;
  EXPECT_TRUE(fs::exists(Local("back/site/index.html"))) << "an existing folder receives it";
}

TEST_F(CliServiceTest, RemoteWildcardsTakeEveryMatchOfTheLastName) {
  ASSERT_EQ(Admin({"mkdir", "C:\\logs"}).status, 0);
  for (const char* name : {"a.log", "b.log", "c.LOG", "notes.txt", ".hidden.log"}) {
    ServerFile(std::string("logs/") + name, 3);
  }
  ChildProcess::Result list = Admin({"ls", "C:\\logs\\*.log"});
  EXPECT_EQ(list.status, 0) << list.err;
  std::vector<std::string> listed;
  std::istringstream lines(list.out);
  for (std::string line; std::getline(lines, line);) listed.push_back(line);
  EXPECT_THAT(listed, ::testing::UnorderedElementsAre("a.log", "b.log"));

  fs::create_directory(Local("down"));
  ChildProcess::Result get = Admin({"get", "C:\\logs\\?.log", Local("down")});
  EXPECT_EQ(get.status, 0) << get.err;
  EXPECT_THAT(Names(Local("down")), ::testing::UnorderedElementsAre("a.log", "b.log"));

  ChildProcess::Result none = Admin({"get", "C:\\logs\\*.gz", Local("down")});
  EXPECT_EQ(none.status, 1);
  EXPECT_EQ(none.err, "pelmora: 127.0.0.1: no matches found: C:\\logs\\*.gz\n");
  ChildProcess::Result no_folder = Admin({"ls", "C:\\nowhere\\*.log"});
  EXPECT_EQ(no_folder.status, 1);
  EXPECT_THAT(no_folder.err, HasSubstr("C:\\nowhere: not there"));

  ChildProcess::Result removed = Admin({"rm", "C:\\logs\\*.log"});
  EXPECT_EQ(removed.status, 0) << removed.err;
  EXPECT_THAT(Names(service_.Drive('C') + "/logs"),
              ::testing::UnorderedElementsAre("c.LOG", "notes.txt", ".hidden.log"));
  EXPECT_EQ(Admin({"rm", "C:\\logs\\*.log"}).err,
            "pelmora: 127.0.0.1: no matches found: C:\\logs\\*.log\n");
}

TEST_F(CliServiceTest, PermissionBitsTravelWithTheFileButNeverSetuid) {
  const std::string script = Local("run.sh");
  std::ofstream(script) << "#!/bin/sh\necho hi\n";
  fs::permissions(script, static_cast<fs::perms>(04755));  // setuid is never sent
  ChildProcess::Result put = Admin({"put", script, "C:\\"});
  EXPECT_EQ(put.status, 0) << put.err;
  EXPECT_EQ(fs::status(service_.Drive('C') + "/run.sh").permissions() & fs::perms::mask,
            static_cast<fs::perms>(0755));
  const std::string note = Local("note.txt");
  std::ofstream(note) << "x";
  fs::permissions(note, static_cast<fs::perms>(0600));
  ASSERT_EQ(Admin({"put", note, "C:\\"}).status, 0);
  EXPECT_EQ(fs::status(service_.Drive('C') + "/note.txt").permissions() & fs::perms::mask,
            static_cast<fs::perms>(0600));

  fs::create_directory(Local("back"));
  ChildProcess::Result get = Admin({"get", "C:\\run.sh", "C:\\note.txt", Local("back")});
  EXPECT_EQ(get.status, 0) << get.err;
  // As scp gives new files: the remote bits less the umask (the test runs with 022 or less).
  EXPECT_EQ(fs::status(Local("back/run.sh")).permissions() & fs::perms::mask,
            static_cast<fs::perms>(0755));
  EXPECT_EQ(fs::status(Local("back/note.txt")).permissions() & fs::perms::mask,
            static_cast<fs::perms>(0600));
  // A file the download replaces keeps its own bits.
  fs::permissions(Local("back/run.sh"), static_cast<fs::perms>(0700));
  ASSERT_EQ(Admin({"get", "C:\\run.sh", Local("back")}).status, 0);
  EXPECT_EQ(fs::status(Local("back/run.sh")).permissions() & fs::perms::mask,
            static_cast<fs::perms>(0700));
}

}  // namespace
}  // namespace pelmora_cli_test

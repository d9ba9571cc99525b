// Host lists: ranges, ports, duplicates, hosts files and folding names back into ranges.
#include "tools/pelmora/host_list.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "tools/pelmora/crypto_io.h"

namespace pelmora_tool {
namespace {

std::vector<std::string> Displays(const std::vector<HostTarget>& hosts) {
  std::vector<std::string> out;
  for (const HostTarget& host : hosts) out.push_back(host.Display());
  return out;
}

struct ListCase {
  const char* text;
  std::vector<std::string> hosts;
};

class HostListParses : public ::testing::TestWithParam<ListCase> {};

TEST_P(HostListParses, ExpandsToTheHostsInOrder) {
  EXPECT_EQ(Displays(ParseHostList(GetParam().text)), GetParam().hosts);
}

INSTANTIATE_TEST_SUITE_P(
    HostList, HostListParses,
    ::testing::Values(
        ListCase{"h1,h2:8003", {"h1", "h2:8003"}},
        ListCase{"web[01-03]", {"web01", "web02", "web03"}},
        ListCase{"db[1-3,7]", {"db1", "db2", "db3", "db7"}},
        ListCase{"n[8-10]", {"n8", "n9", "n10"}},
        ListCase{"r[1-2]-n[1-2].lan:9000", {"r1-n1.lan:9000", "r1-n2.lan:9000",
                                            "r2-n1.lan:9000", "r2-n2.lan:9000"}},
        ListCase{" a , ,b ", {"a", "b"}},
        ListCase{"a b\tc:9\nweb[1-2]", {"a", "b", "c:9", "web1", "web2"}},
        ListCase{"a,b,a,a:1,a:1", {"a", "b", "a:1"}},
        ListCase{"10.0.0.[1-2]", {"10.0.0.1", "10.0.0.2"}},
        ListCase{"", {}}));

struct BadCase {
  const char* text;
  const char* message;
};

class HostListRefuses : public ::testing::TestWithParam<BadCase> {};

TEST_P(HostListRefuses, WithAOneLineReason) {
  try {
    ParseHostList(GetParam().text);
    ADD_FAILURE() << "accepted " << GetParam().text;
  } catch (const CommandError& e) {
    EXPECT_STREQ(e.what(), GetParam().message);
  }
}

INSTANTIATE_TEST_SUITE_P(
    HostList, HostListRefuses,
    ::testing::Values(BadCase{"web[1-3", "unbalanced '[' in \"web[1-3\""},
                      BadCase{"web1-3]", "unbalanced ']' in \"web1-3]\""},
                      BadCase{"a[[1]]", "unbalanced '[' in \"a[[1]]\""},
                      BadCase{"a[3-1]", "reversed range \"3-1\""},
                      BadCase{"a[x]", "bad range \"[x]\": use numbers such as [1-3,7]"},
                      BadCase{"a[]", "bad range \"[]\": use numbers such as [1-3,7]"},
                      BadCase{"a[1-]", "bad range \"[1-]\": use numbers such as [1-3,7]"},
                      BadCase{"a[1234567890]",
                              "bad range \"[1234567890]\": use numbers such as [1-3,7]"},
                      BadCase{"a:0", "bad port in \"a:0\""},
                      BadCase{"a:65536", "bad port in \"a:65536\""},
                      BadCase{"a:http", "bad port in \"a:http\""},
                      BadCase{":8002", "a host entry has a port but no name"},
                      BadCase{"a[0-100000]", "more than 100000 hosts"},
                      BadCase{"a[0-999]b[0-999]", "more than 100000 hosts"}));

TEST(HostList, HostsFileSkipsCommentsAndBlankLinesAndMergesDuplicates) {
  std::filesystem::path file = std::filesystem::temp_directory_path() / "pelmora_hosts_test.txt";
  std::ofstream(file) << "# the web tier\n"
                         "web[1-2]   # two of them\n"
                         "\n"
                         "   \t\n"
                         "db1:8003 db2, web1\n"
                         "#db9\n";
  EXPECT_THAT(Displays(ReadHostsFile(file.string())),
              ::testing::ElementsAre("web1", "web2", "db1:8003", "db2"));
  std::ofstream(file) << "ok\n\nbad[2-1]\n";
  try {
    ReadHostsFile(file.string());
    ADD_FAILURE() << "accepted a reversed range";
  } catch (const CommandError& e) {
    EXPECT_EQ(std::string(e.what()), file.string() + ":3: reversed range \"2-1\"");
  }
  std::filesystem::remove(file);
}

// A fleet's file holds a host a line: the whole limit's worth reads back in order, a host repeated
// on a later line is dropped, and the line past the limit is named. (Each line used to re-index
// every host before it, which took minutes for a file this long.)
TEST(HostList, HostsFileOfAHostALineReadsToTheLimit) {
  std::filesystem::path file = std::filesystem::temp_directory_path() / "pelmora_hosts_limit.txt";
  {
    std::ofstream out(file);
    for (std::size_t i = 0; i < kMaxHosts; ++i) out << "h" << i << ":8002\n";
    out << "h0:8002\n";
  }
  std::vector<HostTarget> hosts = ReadHostsFile(file.string());
  ASSERT_EQ(hosts.size(), kMaxHosts);
  EXPECT_EQ(hosts.front().Display(), "h0:8002");
  EXPECT_EQ(hosts.back().Display(), fmt::format("h{}:8002", kMaxHosts - 1));
  std::ofstream(file, std::ios::app) << "one.more\n";
  try {
    ReadHostsFile(file.string());
    ADD_FAILURE() << "accepted more than the limit";
  } catch (const CommandError& e) {
    EXPECT_EQ(std::string(e.what()),
              fmt::format("{}:{}: more than {} hosts", file.string(), kMaxHosts + 2, kMaxHosts));
  }
  std::filesystem::remove(file);
}

TEST(HostList, MissingHostsFileIsRefused) {
  EXPECT_THROW(ReadHostsFile("/nonexistent/hosts"), CommandError);
}

TEST(HostList, FoldsNamesIntoRangesThatParseBackToThem) {
  const std::vector<std::string> names = {"web01", "web02", "web03", "web05", "db7",
                                          "db1",   "web10", "alpha", "n9",    "n10"};
  const std::string folded = FoldHostNames(names);
  EXPECT_EQ(folded, "web[01-03,05,10],db[1,7],alpha,n[9-10]");
  std::vector<std::string> back = Displays(ParseHostList(folded));
  EXPECT_THAT(back, ::testing::UnorderedElementsAreArray(names));
}

TEST(HostList, FoldKeepsNumbersOfDifferentWidthsApart) {
  EXPECT_EQ(FoldHostNames({"n08", "n09", "n10", "n8"}), "n[8,08-10]");
  EXPECT_EQ(FoldHostNames({"web1.lan", "web2.lan"}), "web[1-2].lan");
  EXPECT_EQ(FoldHostNames({"only"}), "only");
}

}  // namespace
}  // namespace pelmora_tool

// The log writers under concurrent writers: lines from several threads and from several
// processes into the same day files stay whole and all arrive.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "pelmora/common/log.h"
#include "pelmora/testing/log_test_fixture.h"

namespace pelmora {
namespace {

using internal::LogTest;
using internal::ReadWholeFile;

constexpr int kLinesPerWriter = 2000;

std::string ConcurrentMessage(int writer, int line) {
  return "writer " + std::to_string(writer) + " line " + std::to_string(line) + " " +
         std::string(120, '.');
}

// Writes kLinesPerWriter lines with each writer; true when every call succeeded.
bool WriteConcurrentLines(int writer) {
  bool all_written = true;
  for (int line = 0; line < kLinesPerWriter; ++line) {
    all_written &= WriteLog(1, ConcurrentMessage(writer, line), "M", "P", 4);
    all_written &= WriteLogFile(-1, ConcurrentMessage(writer, line), "M", "P", 4);
  }
  return all_written;
}

// Checks that `content` holds exactly the lines of `writers` writers, each whole and once.
void ExpectEveryLineIntact(const std::optional<std::string>& content, const std::string& head,
                           int writers) {
  ASSERT_TRUE(content.has_value());
  std::set<std::pair<int, int>> seen;
  size_t start = 0;
  while (start < content->size()) {
    size_t end = content->find("\r\n", start);
    ASSERT_NE(end, std::string::npos) << "unterminated line at byte " << start;
    std::string line = content->substr(start, end - start);
    int writer = -1;
    int number = -1;
    ASSERT_EQ(sscanf(line.c_str() + std::min(line.size(), head.size()), "writer %d line %d",
                     &writer, &number),
              2)
        << line;
    EXPECT_EQ(line, head + ConcurrentMessage(writer, number));
    EXPECT_TRUE(seen.emplace(writer, number).second) << "repeated: " << line;
    start = end + 2;
  }
  EXPECT_EQ(seen.size(), static_cast<size_t>(writers * kLinesPerWriter));
}

TEST_F(LogTest, LinesFromConcurrentThreadsStayWholeAndAllArrive) {
  constexpr int kThreads = 4;
  std::vector<std::thread> threads;
  bool results[kThreads] = {};
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      LogRoot() = root_;  // each thread has its own settings
      LogLevel() = 1;
      results[t] = WriteConcurrentLines(t);
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (bool result : results) EXPECT_TRUE(result);
  ExpectEveryLineIntact(ReadWholeFile(DayFile(".log")),
                        "2009-03-14 08:05:09,I," + host_ + ",[M:P],", kThreads);
  ExpectEveryLineIntact(ReadWholeFile(LibraryDayFile("20090314.log")),
                        "2009-03-14 08:05:09`I`" + host_ + "`[M:P]`0`-1`", kThreads);
}

TEST_F(LogTest, LinesFromConcurrentProcessesStayWholeAndAllArrive) {
  constexpr int kProcesses = 3;
  std::vector<pid_t> children;
  for (int p = 0; p < kProcesses; ++p) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      alarm(60);  // a stuck child ends itself
      _exit(WriteConcurrentLines(p) ? 0 : 1);
    }
    children.push_back(pid);
  }
  for (pid_t pid : children) {
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  }
  ExpectEveryLineIntact(ReadWholeFile(DayFile(".log")),
                        "2009-03-14 08:05:09,I," + host_ + ",[M:P],", kProcesses);
  ExpectEveryLineIntact(ReadWholeFile(LibraryDayFile("20090314.log")),
                        "2009-03-14 08:05:09`I`" + host_ + "`[M:P]`0`-1`", kProcesses);
}

}  // namespace
}  // namespace pelmora

// WriteLog and WriteLogFile next to their plain peer: the same line appended with
// open(O_APPEND) + write + close to a file in the same scratch folder. The ratio of their
// items_per_second is the cost of the writers' folder tests, formatting and cleaning; each writer's
// row carries it as `vs_plain` (1 is the plain loop's rate).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "pelmora/common/log.h"
#include "pelmora/common/system.h"

namespace {

constexpr std::string_view kMessage = "** FolderExists /srv/data/reports exists";

// A scratch folder holding the log root and the library's log folder for the whole run.
class Scratch {
 public:
  Scratch() {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "pelmora-bench-XXXXXX").string();
    if (mkdtemp(pattern.data()) != nullptr) path_ = pattern;
    std::filesystem::create_directory(path_ + "/root");
    setenv("PELMORA_HOME", (path_ + "/lib").c_str(), 1);
  }
  ~Scratch() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  const std::string& Path() const { return path_; }

 private:
  std::string path_;
};

Scratch& TheScratch() {
  static Scratch scratch;
  return scratch;
}

// Runs `line` for every iteration of `state` and returns the lines per second of this run.
template <class Line>
double LinesPerSecond(benchmark::State& state, Line line) {
  auto start = std::chrono::steady_clock::now();
  for (auto _ : state) line();
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  state.SetItemsProcessed(state.iterations());
  return seconds > 0 ? static_cast<double>(state.iterations()) / seconds : 0;
}

// The plain loop's rate from its last run, which the writers' rows compare against.
double plain_rate = 0;

void ReportVersusPlain(benchmark::State& state, double rate) {
  if (plain_rate > 0) state.counters["vs_plain"] = rate / plain_rate;
}

void BM_PlainAppend(benchmark::State& state) {
  std::string file = TheScratch().Path() + "/plain.log";
  std::string line = pelmora::CurrentLocalTime().Format("yyyy-mm-dd hh:nn:ss") + ",I," +
                     pelmora::LocalComputerName() + ",[RSFSO:FolderExists]," +
                     std::string(kMessage) + "\r\n";
  plain_rate = LinesPerSecond(state, [&] {
    int fd = open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    benchmark::DoNotOptimize(write(fd, line.data(), line.size()));
    close(fd);
  });
}
BENCHMARK(BM_PlainAppend);

void BM_WriteLog(benchmark::State& state) {
  pelmora::LogRoot() = TheScratch().Path() + "/root";
  pelmora::LogLevel() = 3;
  ReportVersusPlain(state, LinesPerSecond(state, [] {
    benchmark::DoNotOptimize(pelmora::WriteLog(3, kMessage, "RSFSO", "FolderExists", 4));
  }));
}
BENCHMARK(BM_WriteLog);

void BM_WriteLogFile(benchmark::State& state) {
  TheScratch();
  ReportVersusPlain(state, LinesPerSecond(state, [] {
    benchmark::DoNotOptimize(pelmora::WriteLogFile(-1, kMessage, "SocketClient", "RecvMessage", 4));
  }));
}
BENCHMARK(BM_WriteLogFile);

// A line above the thread's level costs only the comparison.
void BM_WriteLogFiltered(benchmark::State& state) {
  pelmora::LogLevel() = 1;
  for (auto _ : state) {
    benchmark::DoNotOptimize(pelmora::WriteLog(3, kMessage, "RSFSO", "FolderExists", 4));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_WriteLogFiltered);

}  // namespace

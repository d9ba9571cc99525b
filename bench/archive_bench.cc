// The archive engines next to the Info-ZIP programs on the same corpus in the same run: a copy
// of the system's C and C++ headers (about 140 MB). Creation is compared with `zip -r -6 -q`,
// extraction with `unzip -q -o` and testing with `unzip -tq`. Each benchmark runs once per
// repetition (the corpus is large); the archive sizes are reported as counters, and each peer's row
// carries `ratio`: our time over theirs (below 1 is faster), and for creation `size_ratio`. Written
// data is flushed before each timed run so that neither side pays for the other's writeback.
// BM_ArchiveExtractCliVsUnzip runs the whole `pelmora unzip -q -o` process and `unzip -q -o` by
// turns into the corpus folder (0) or into /dev/shm (1) and reports the load average beside the
// ratio, since both sides wait on the file system and the machine may be shared.
//
//   build/h/bench/pelmora_bench --benchmark_filter=Archive
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>

#include "pelmora/archive/unzip_engine.h"
#include "pelmora/archive/zip_engine.h"

namespace {

namespace archive = pelmora::archive;

// The corpus and both archives, made once for the whole run and removed at exit.
class ArchiveCorpus {
 public:
  ArchiveCorpus() {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "pelmora-archive-bench-XXXXXX").string();
    if (mkdtemp(pattern.data()) != nullptr) path_ = pattern;
    Shell("cp -r /usr/include corpus");
  }
  ~ArchiveCorpus() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  std::string Path(const std::string& relative) const { return path_ + "/" + relative; }
  int Shell(const std::string& command) const {
    return std::system(("cd '" + path_ + "' && " + command + " >/dev/null 2>&1").c_str());
  }
  double Size(const std::string& relative) const {
    struct stat st {};
    return stat(Path(relative).c_str(), &st) == 0 ? static_cast<double>(st.st_size) : 0;
  }

 private:
  std::string path_;
};

ArchiveCorpus& Corpus() {
  static ArchiveCorpus corpus;
  return corpus;
}

int Quiet(std::string_view) { return 0; }

// Our side's seconds per task, kept for the peer's row that follows it.
double& OurSeconds(const std::string& task) {
  static std::map<std::string, double> seconds;
  return seconds[task];
}

// Times `run` once per iteration of `state` (the loop runs once) after flushing written data.
template <class Run>
double Timed(benchmark::State& state, Run run) {
  Corpus().Shell("sync");
  double seconds = 0;
  for (auto _ : state) {
    auto start = std::chrono::steady_clock::now();
    run();
    seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  }
  return seconds;
}

void ReportRatio(benchmark::State& state, const std::string& task, double their_seconds) {
  if (their_seconds > 0) state.counters["ratio"] = OurSeconds(task) / their_seconds;
}

void BM_ArchiveCreate_Pelmora(benchmark::State& state) {
  ArchiveCorpus& c = Corpus();
  archive::ZipOptions options;
  options.recurse = 1;
  options.root_dir = c.Path("");
  archive::ZipCallbacks callbacks;
  callbacks.print = &Quiet;
  std::filesystem::remove(c.Path("ours.zip"));
  OurSeconds("create") = Timed(state, [&] {
    if (archive::RunZip(options, "ours.zip", {"corpus"}, callbacks) != 0) state.SkipWithError("zip");
  });
  state.counters["archive_bytes"] = c.Size("ours.zip");
}
BENCHMARK(BM_ArchiveCreate_Pelmora)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ArchiveCreate_InfoZip(benchmark::State& state) {
  ArchiveCorpus& c = Corpus();
  std::filesystem::remove(c.Path("theirs.zip"));
  double seconds = Timed(state, [&] {
    if (c.Shell("zip -r -6 -q theirs.zip corpus") != 0) state.SkipWithError("zip");
  });
  state.counters["archive_bytes"] = c.Size("theirs.zip");
  ReportRatio(state, "create", seconds);
  if (c.Size("theirs.zip") > 0) state.counters["size_ratio"] = c.Size("ours.zip") / c.Size("theirs.zip");
}
BENCHMARK(BM_ArchiveCreate_InfoZip)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

archive::UnzipCallbacks QuietUnzip() {
  archive::UnzipCallbacks callbacks;
  callbacks.print = &Quiet;
  callbacks.replace = [](std::string&) { return archive::kReplaceYes; };
  return callbacks;
}

void BM_ArchiveExtract_Pelmora(benchmark::State& state) {
  ArchiveCorpus& c = Corpus();
  archive::DecompressionControl dcl;
  dcl.zip_file_name = c.Path("theirs.zip");
  dcl.extract_dir = c.Path("out-ours");
  dcl.honor_directories = 1;
  dcl.overwrite = 1;
  archive::UnzipCallbacks callbacks = QuietUnzip();
  OurSeconds("extract") = Timed(state, [&] {
    if (archive::RunUnzip(dcl, callbacks) != 0) state.SkipWithError("unzip");
  });
}
BENCHMARK(BM_ArchiveExtract_Pelmora)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ArchiveExtract_InfoUnzip(benchmark::State& state) {
  ArchiveCorpus& c = Corpus();
  double seconds = Timed(state, [&] {
    if (c.Shell("unzip -q -o theirs.zip -d out-theirs") != 0) state.SkipWithError("unzip");
  });
  ReportRatio(state, "extract", seconds);
}
BENCHMARK(BM_ArchiveExtract_InfoUnzip)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ArchiveTest_Pelmora(benchmark::State& state) {
  ArchiveCorpus& c = Corpus();
  archive::DecompressionControl dcl;
  dcl.zip_file_name = c.Path("theirs.zip");
  dcl.test = 1;
  archive::UnzipCallbacks callbacks = QuietUnzip();
  OurSeconds("test") = Timed(state, [&] {
    if (archive::RunUnzip(dcl, callbacks) != 0) state.SkipWithError("test");
  });
}
BENCHMARK(BM_ArchiveTest_Pelmora)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ArchiveTest_InfoUnzip(benchmark::State& state) {
  ArchiveCorpus& c = Corpus();
  double seconds = Timed(state, [&] {
    if (c.Shell("unzip -tq theirs.zip") != 0) state.SkipWithError("unzip -t");
  });
  ReportRatio(state, "test", seconds);
}
BENCHMARK(BM_ArchiveTest_InfoUnzip)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// The archive of the corpus made by `zip`, made here when the creation rows did not run.
bool TheirArchive(ArchiveCorpus& c) {
  return c.Size("theirs.zip") > 0 || c.Shell("zip -r -6 -q theirs.zip corpus") == 0;
}

void BM_ArchiveExtractCliVsUnzip(benchmark::State& state) {
  using Clock = std::chrono::steady_clock;
  ArchiveCorpus& c = Corpus();
  if (!TheirArchive(c)) {
    state.SkipWithError("zip");
    return;
  }
  std::string base = state.range(0) == 0
                         ? c.Path("")
                         : "/dev/shm/pelmora-bench-unzip-" + std::to_string(::getpid()) + "/";
  std::filesystem::create_directories(base);
  std::string zip = c.Path("theirs.zip");
  double seconds[2] = {0, 0};  // unzip, the tool
  bool tool_first = false;
  int run = 0;
  // Each run writes a folder of its own, all removed at the end: removing 10 000 files on ext4
  // leaves work that lands on whichever run creates files next (several seconds of system time).
  for (auto _ : state) {
    for (bool tool : {tool_first, !tool_first}) {
      std::string out = base + (tool ? "out-cli-" : "out-unzip-") + std::to_string(run);
      c.Shell("sync");
      std::string command = tool ? std::string(PELMORA_TOOL_PATH) + " unzip" : "unzip";
      auto start = Clock::now();
      if (c.Shell(command + " -q -o '" + zip + "' -d '" + out + "'") != 0) {
        state.SkipWithError(tool ? "pelmora unzip" : "unzip");
      }
      seconds[tool] += std::chrono::duration<double>(Clock::now() - start).count();
    }
    tool_first = !tool_first;
    ++run;
  }
  for (int i = 0; i < run; ++i) {
    for (const char* name : {"out-cli-", "out-unzip-"}) {
      std::filesystem::remove_all(base + name + std::to_string(i));
    }
  }
  if (state.range(0) != 0) std::filesystem::remove_all(base);
  double load[1] = {0};
  getloadavg(load, 1);
  state.counters["unzip_s"] = seconds[0];
  state.counters["tool_s"] = seconds[1];
  state.counters["ratio"] = seconds[0] > 0 ? seconds[1] / seconds[0] : 0;
  state.counters["load1"] = load[0];
}
BENCHMARK(BM_ArchiveExtractCliVsUnzip)
    ->Arg(0)
    ->Arg(1)
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

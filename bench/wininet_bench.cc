// WinINet downloads of 1 GiB from the local nginx next to the curl program fetching the same file
// in the same run.
//
// BM_WinINetGetChunk reads the response with GetChunk in ChunkSize pieces (memory stays bounded:
// the max_rss_growth_kib counter shows the resident growth during the run), BM_WinINetOpenUrl
// fetches it whole as a Byte(), BM_CurlProgram runs `curl -s -o /dev/null` on the same URL and
// BM_CurlProgramToMemory `curl -s -o /dev/shm/...` (the body kept in memory, like OpenURL's).
// BM_HttpToolVsCurl/0 runs `pelmora http get -o /dev/null` and `curl -s -o /dev/null` by turns
// (whole processes), /1 the same into a file in /dev/shm, and reports curl's time over the
// tool's as rate_vs_curl (above 1: the tool is faster).
// Compare bytes_per_second within one run:
//   build/h/bench/pelmora_bench --benchmark_filter='WinINet|CurlProgram|HttpTool'
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "pelmora/net/wininet.h"
#include "pelmora/testing/web_server.h"

extern char** environ;

namespace {

constexpr int64_t kFileSize = int64_t{1} << 30;
constexpr int32_t kChunk = 1 << 20;

// The web server with a 1 GiB file, started once for the run and stopped (its folder removed) when
// the program ends. The file is written out in full (not left sparse) so that it sits in the page
// cache before any timed read: otherwise the first benchmark would also pay for the server's file
// system filling holes.
const pelmora::testing::WebServer& Server() {
  static const std::unique_ptr<pelmora::testing::WebServer> server = [] {
    auto web = std::make_unique<pelmora::testing::WebServer>();
    std::string path = web->WriteDocument("gib.bin", "");
    std::ofstream file(path, std::ios::binary);
    std::vector<char> block(kChunk);
    for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(i * 131 + 7);
    for (int64_t written = 0; written < kFileSize; written += kChunk) {
      file.write(block.data(), kChunk);
    }
    return web;
  }();
  return *server;
}

long MaxRssKib() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

void BM_WinINetGetChunk(benchmark::State& state) {
  std::string url = Server().HttpUrl("/gib.bin");
  long rss_before = MaxRssKib();
  pelmora::WinINet inet;
  for (auto _ : state) {
    inet.Execute(url, "GET");
    int64_t total = 0;
    while (true) {
      pelmora::Variant piece = inet.GetChunk(kChunk, pelmora::icByteArray);
      size_t size = piece.Get<std::vector<uint8_t>>()->size();
      if (size == 0) break;
      total += static_cast<int64_t>(size);
    }
    if (total != kFileSize) state.SkipWithError("short download");
  }
  state.SetBytesProcessed(state.iterations() * kFileSize);
  state.counters["max_rss_growth_kib"] = static_cast<double>(MaxRssKib() - rss_before);
}
BENCHMARK(BM_WinINetGetChunk)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

void BM_WinINetOpenUrl(benchmark::State& state) {
  std::string url = Server().HttpUrl("/gib.bin");
  pelmora::WinINet inet;
  for (auto _ : state) {
    pelmora::Variant body = inet.OpenURL(url, pelmora::icByteArray);
    if (static_cast<int64_t>(body.Get<std::vector<uint8_t>>()->size()) != kFileSize) {
      state.SkipWithError("short download");
    }
  }
  state.SetBytesProcessed(state.iterations() * kFileSize);
}
BENCHMARK(BM_WinINetOpenUrl)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

// Runs a program to its end; false when it cannot start or fails.
bool RunProgram(const char* const* argv) {
  pid_t pid = -1;
  if (posix_spawn(&pid, argv[0], nullptr, nullptr, const_cast<char* const*>(argv), environ) != 0) {
    return false;
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  return status == 0;
}

// Runs the curl program on `url`, writing the body to `output`; false when it fails.
bool RunCurl(const std::string& url, const char* output) {
  const char* argv[] = {"/usr/bin/curl", "-s", "-o", output, url.c_str(), nullptr};
  return RunProgram(argv);
}

bool RunTool(const std::string& url, const char* output) {
  const char* argv[] = {PELMORA_TOOL_PATH, "http", "get", url.c_str(), "-o", output, nullptr};
  return RunProgram(argv);
}

void BM_CurlProgram(benchmark::State& state) {
  std::string url = Server().HttpUrl("/gib.bin");
  for (auto _ : state) {
    if (!RunCurl(url, "/dev/null")) state.SkipWithError("curl failed");
  }
  state.SetBytesProcessed(state.iterations() * kFileSize);
}
BENCHMARK(BM_CurlProgram)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

// The curl program keeping the body in memory (a file in /dev/shm), as OpenURL does: the peer
// for what filling 1 GiB of fresh memory costs on top of the transfer.
void BM_CurlProgramToMemory(benchmark::State& state) {
  std::string url = Server().HttpUrl("/gib.bin");
  const std::string output = "/dev/shm/pelmora-bench-curl-" + std::to_string(::getpid());
  for (auto _ : state) {
    if (!RunCurl(url, output.c_str())) state.SkipWithError("curl failed");
    state.PauseTiming();
    ::unlink(output.c_str());
    state.ResumeTiming();
  }
  state.SetBytesProcessed(state.iterations() * kFileSize);
}
BENCHMARK(BM_CurlProgramToMemory)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

// The tool and curl by turns on the same URL and output (0: /dev/null, 1: a file in /dev/shm).
void BM_HttpToolVsCurl(benchmark::State& state) {
  using Clock = std::chrono::steady_clock;
  std::string url = Server().HttpUrl("/gib.bin");
  std::string output = state.range(0) == 0
                           ? "/dev/null"
                           : "/dev/shm/pelmora-bench-http-" + std::to_string(::getpid());
  double curl_seconds = 0;
  double tool_seconds = 0;
  for (auto _ : state) {
    for (bool tool : {false, true}) {
      auto start = Clock::now();
      bool ok = tool ? RunTool(url, output.c_str()) : RunCurl(url, output.c_str());
      (tool ? tool_seconds : curl_seconds) +=
          std::chrono::duration<double>(Clock::now() - start).count();
      if (!ok) state.SkipWithError(tool ? "pelmora http failed" : "curl failed");
      if (output != "/dev/null") ::unlink(output.c_str());
    }
  }
  state.SetBytesProcessed(state.iterations() * kFileSize * 2);
  state.counters["curl_s"] = curl_seconds;
  state.counters["tool_s"] = tool_seconds;
  state.counters["rate_vs_curl"] = tool_seconds > 0 ? curl_seconds / tool_seconds : 0;
}
BENCHMARK(BM_HttpToolVsCurl)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(5)
    ->UseRealTime();

}  // namespace

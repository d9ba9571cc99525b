// Soak: 1000 sessions against one pelmorad for a bounded time, each doing a realistic mix
// (logins, listings, small and large uploads and downloads, commands with output, wrong
// passwords, missing files) through the library's client, while the service's resident memory,
// open descriptors and threads are sampled every second.
//
//   build/release/bench/soak/pelmora_soak [--seconds 600] [--sessions 1000] [--threads 16]
//                                         [--service PATH]
//
// Passes (exit 0) when there was no unexpected error, every transferred file came back
// byte-identical, memory and descriptors stayed flat after the warm-up (the slopes are printed)
// and no zombie process was left. The service is found beside the build tree (or PELMORAD_BINARY).
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "pelmora/admin/rc_file_info.h"
#include "pelmora/admin/rcfso.h"
#include "bench/soak/soak_process.h"
#include "bench/soak/soak_service.h"
#include "bench/soak/soak_worker.h"

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

using pelmora_soak::Counters;
using pelmora_soak::DefaultService;
using pelmora_soak::kLarge;
using pelmora_soak::kSharedFiles;
using pelmora_soak::kSmall;
using pelmora_soak::RandomBytes;
using pelmora_soak::Sample;
using pelmora_soak::SampleProcess;
using pelmora_soak::Service;
using pelmora_soak::Slope;
using pelmora_soak::Worker;
using pelmora_soak::WriteAll;
using pelmora_soak::Zombies;

struct Options {
  int seconds = 600;
  int sessions = 1000;
  int threads = 16;
  std::string service;
};

bool ParseOptions(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    std::string name = argv[i];
    if (i + 1 >= argc) return false;
    std::string value = argv[++i];
    if (name == "--seconds") {
      options.seconds = std::atoi(value.c_str());
    } else if (name == "--sessions") {
      options.sessions = std::atoi(value.c_str());
    } else if (name == "--threads") {
      options.threads = std::atoi(value.c_str());
    } else if (name == "--service") {
      options.service = value;
    } else {
      return false;
    }
  }
  return options.seconds > 0 && options.sessions > 0 && options.threads > 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, options)) {
    std::fprintf(stderr,
                 "usage: pelmora_soak [--seconds 600] [--sessions 1000] [--threads 16] "
                 "[--service PATH]\n");
    return 2;
  }
  if (options.service.empty()) options.service = DefaultService();
  ::signal(SIGPIPE, SIG_IGN);
  // Room for every session's socket on both sides (the service inherits the limit).
  rlimit files{};
  ::getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &files);

  char folder_template[] = "/tmp/pelmora-soak-XXXXXX";
  std::string folder = ::mkdtemp(folder_template);
  std::string scratch = folder + "/local";
  fs::create_directories(scratch);
  if (std::getenv("PELMORA_LOG_ROOT") == nullptr) {
    ::setenv("PELMORA_LOG_ROOT", (folder + "/log").c_str(), 1);
  }
  int status = 1;
  {
    Service service(options.service, folder, options.sessions);
    if (service.port() <= 0) {
      std::fprintf(stderr, "pelmorad did not start (%s)\n", options.service.c_str());
      fs::remove_all(folder);
      return 1;
    }
    std::mt19937_64 random(42);
    std::vector<std::string> shared;
    for (int i = 0; i < kSharedFiles; ++i) {
      shared.push_back(RandomBytes(i % 2 == 0 ? kSmall : kLarge / 2, random));
      WriteAll(service.Drive("shared/f" + std::to_string(i) + ".bin"), shared.back());
    }

    Counters counters;
    std::vector<Sample> samples;
    Sample before = SampleProcess(service.pid(), 0);
    Clock::time_point start = Clock::now();
    Clock::time_point end = start + std::chrono::seconds(options.seconds);
    std::vector<std::unique_ptr<Worker>> workers;
    std::vector<std::thread> threads;
    for (int t = 0; t < options.threads; ++t) {
      int share = options.sessions / options.threads + (t < options.sessions % options.threads);
      workers.push_back(
          std::make_unique<Worker>(t, share, service, shared, scratch, counters));
      threads.emplace_back([&worker = *workers.back(), end] { worker.Run(end); });
    }
    std::printf("%8s %10s %6s %8s %10s %7s\n", "seconds", "rss_kb", "fds", "threads",
                "operations", "errors");
    double all_logged_in = options.seconds;
    for (int second = 1; Clock::now() < end; ++second) {
      std::this_thread::sleep_until(start + std::chrono::seconds(second));
      double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
      if (counters.logged_in == options.threads && all_logged_in == options.seconds) {
        all_logged_in = elapsed;
      }
      samples.push_back(SampleProcess(service.pid(), elapsed));
      if (second % 10 == 0) {
        const Sample& s = samples.back();
        std::printf("%8.0f %10ld %6ld %8ld %10ld %7ld\n", s.seconds, s.rss_kb, s.fds, s.threads,
                    counters.operations.load(), counters.errors.load());
        std::fflush(stdout);
      }
    }
    for (std::thread& thread : threads) thread.join();
    // Sessions are gone once the client threads end; the service's descriptors follow as it
    // sees the closes (given up to 5 s to settle).
    Sample after = SampleProcess(service.pid(), options.seconds);
    for (int i = 0; i < 50 && after.fds > before.fds; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      after = SampleProcess(service.pid(), options.seconds);
    }
    std::vector<pid_t> zombies = Zombies(service.pid());
    int stop_status = service.Stop();
    std::vector<pid_t> own_zombies = Zombies(::getpid());

    // The warm-up lasts until every session has logged in, plus 5 s, and at least a fifth of
    // the run; the slopes are over the rest.
    double warm_up = std::max(all_logged_in + 5, options.seconds / 5.0);
    std::size_t warm = 0;
    while (warm < samples.size() && samples[warm].seconds < warm_up) ++warm;
    if (warm + 2 > samples.size()) warm = samples.size() / 2;
    double rss_slope = Slope(samples, warm, [](const Sample& s) { return s.rss_kb; });
    double fd_slope = Slope(samples, warm, [](const Sample& s) { return s.fds; });
    double thread_slope = Slope(samples, warm, [](const Sample& s) { return s.threads; });
    double window = samples.size() > warm ? samples.back().seconds - samples[warm].seconds : 0;
    double mean_rss = 0;
    for (std::size_t i = warm; i < samples.size(); ++i) mean_rss += samples[i].rss_kb;
    mean_rss /= std::max<double>(1, static_cast<double>(samples.size() - warm));
    // Flat: over the measured window the fitted line rises less than 10% of the mean memory
    // (and 64 MiB), and by fewer than 16 descriptors.
    bool rss_flat = rss_slope * window < std::min(0.10 * mean_rss, 65536.0);
    bool fds_flat = fd_slope * window < 16;
    bool fds_released = after.fds <= before.fds + 16;  // the sessions' descriptors are given back

    std::printf(
        "\n%d s, %d sessions on %d threads: %ld operations (%ld logins, %ld listings, %ld uploads, "
        "%ld downloads, %ld commands, %ld expected refusals), %.1f MiB moved\n",
        options.seconds, options.sessions, options.threads, counters.operations.load(),
        counters.logins.load(), counters.listings.load(), counters.uploads.load(),
        counters.downloads.load(), counters.commands.load(), counters.refusals.load(),
        static_cast<double>(counters.bytes.load()) / (1 << 20));
    std::printf("unexpected errors: %ld, files not byte-identical: %ld\n", counters.errors.load(),
                counters.mismatches.load());
    for (const std::string& text : counters.first_errors) std::printf("  %s\n", text.c_str());
    std::printf("all sessions logged in after %.0f s\n", all_logged_in);
    std::printf("memory: %.2f KiB/s after the %zu s warm-up (mean %.0f KiB, peak %ld KiB)%s\n",
                rss_slope, warm, mean_rss,
                samples.empty() ? 0L
                                : std::max_element(samples.begin(), samples.end(),
                                                   [](const Sample& a, const Sample& b) {
                                                     return a.rss_kb < b.rss_kb;
                                                   })->rss_kb,
                rss_flat ? "" : "  NOT FLAT");
    std::printf("descriptors: %.4f /s (%ld before the load, last %ld during it, %ld after it)%s%s\n",
                fd_slope, before.fds, samples.empty() ? 0L : samples.back().fds, after.fds,
                fds_flat ? "" : "  NOT FLAT", fds_released ? "" : "  NOT RELEASED");
    std::printf("threads: %.4f /s (last %ld during the load, %ld after it)\n", thread_slope,
                samples.empty() ? 0L : samples.back().threads, after.threads);
    std::printf("zombies: %zu of the service, %zu of this program; service exit status %d\n",
                zombies.size(), own_zombies.size(), stop_status);
    bool pass = counters.errors == 0 && counters.mismatches == 0 && rss_flat && fds_flat && fds_released &&
                zombies.empty() && own_zombies.empty() && stop_status == 0;
    std::printf("%s\n", pass ? "PASS" : "FAIL");
    status = pass ? 0 : 1;
  }
  fs::remove_all(folder);
  return status;
}

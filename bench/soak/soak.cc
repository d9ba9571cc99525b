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

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

using pelmora_soak::DefaultService;
using pelmora_soak::kAccount;
using pelmora_soak::kPassword;
using pelmora_soak::ReadAll;
using pelmora_soak::Sample;
using pelmora_soak::SampleProcess;
using pelmora_soak::Service;
using pelmora_soak::Slope;
using pelmora_soak::Zombies;
constexpr int kSharedFiles = 8;                    // files in C:\shared, listed and downloaded
constexpr std::size_t kSmall = 4096;               // bytes of a small transfer
constexpr std::size_t kLarge = 8 * 1024 * 1024;    // bytes of a large transfer
constexpr int kReplyTimeoutMs = 60000;             // a loaded shared machine is slow, not silent

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
std::string RandomBytes(std::size_t size, std::mt19937_64& random) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; i += 8) {
    uint64_t word = random();
    std::memcpy(bytes.data() + i, &word, std::min<std::size_t>(8, size - i));
  }
  return bytes;
}

void WriteAll(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc).write(bytes.data(),
                                                               static_cast<long>(bytes.size()));
}

struct Counters {
  std::atomic<int> logged_in{0};  // workers whose sessions have all logged in once
  std::atomic<long> operations{0};
  std::atomic<long> logins{0};
  std::atomic<long> listings{0};
  std::atomic<long> uploads{0};
  std::atomic<long> downloads{0};
  std::atomic<long> commands{0};
  std::atomic<long> refusals{0};  // wrong passwords and missing files, refused as expected
  std::atomic<long> bytes{0};
  std::atomic<long> errors{0};
  std::atomic<long> mismatches{0};
  std::mutex mutex;
  std::vector<std::string> first_errors;

  void Error(std::string text) {
    errors++;
    std::lock_guard lock(mutex);
    if (first_errors.size() < 20) first_errors.push_back(std::move(text));
  }
};

class OutputSink : public pelmora::admin::RCFSOEvents {
 public:
  void CommandOutput(std::string& text) override { output += text; }
  std::string output;
};

// One client thread: its share of the sessions, each used in turn for a random operation.
class Worker {
 public:
  Worker(int index, int sessions, const Service& service, const std::vector<std::string>& shared,
         const std::string& scratch, Counters& counters)
      : index_(index),
        port_(service.port()),
        service_(service),
        shared_(shared),
        scratch_(scratch),
        counters_(counters),
        random_(static_cast<uint64_t>(index) * 7919 + 17) {
    sessions_.resize(static_cast<std::size_t>(sessions));
  }

  void Run(Clock::time_point end) {
    for (std::size_t i = 0; i < sessions_.size(); ++i) Login(i);
    counters_.logged_in++;
    while (Clock::now() < end) {
      for (std::size_t i = 0; i < sessions_.size() && Clock::now() < end; ++i) Operate(i);
    }
    for (auto& session : sessions_) {
      if (session) session->Disconnect();
    }
  }

 private:
  std::string Remote(std::size_t session, const char* kind) const {
    return "C:\\work\\w" + std::to_string(index_) + "s" + std::to_string(session) + kind;
  }
  std::string Local(const char* name) const {
    return scratch_ + "/w" + std::to_string(index_) + name;
  }
  void Fail(std::size_t session, const std::string& what) {
    pelmora::admin::RCFSO& fso = *sessions_[session];
    counters_.Error("worker " + std::to_string(index_) + " session " + std::to_string(session) +
                    ": " + what + ": " + std::to_string(fso.ErrCode()) + " " +
                    fso.ErrDescription());
    Login(session);  // a broken session is replaced
  }

  void Login(std::size_t session) {
    auto fso = std::make_unique<pelmora::admin::RCFSO>();
    fso->set_timeout(kReplyTimeoutMs);
    counters_.logins++;
    if (!fso->Connect("127.0.0.1", port_, kAccount, kPassword, false)) {
      counters_.Error("login: " + std::to_string(fso->ErrCode()) + " " + fso->ErrDescription());
    }
    sessions_[session] = std::move(fso);
  }

  void Operate(std::size_t session) {
    pelmora::admin::RCFSO& fso = *sessions_[session];
    counters_.operations++;
    int choice = static_cast<int>(random_() % 100);
    if (choice < 25) {
      pelmora::admin::RCFileInfoCollection entries = fso.GetFolderFiles("C:\\shared");
      counters_.listings++;
      if (entries.Count() != kSharedFiles) Fail(session, "listing");
    } else if (choice < 50) {
      Transfer(session, kSmall, ".small");
    } else if (choice < 53) {
      Transfer(session, kLarge, ".large");
    } else if (choice < 68) {
      std::size_t file = random_() % shared_.size();
      std::string local = Local(".down");
      counters_.downloads++;
      if (!fso.Download(local, "C:\\shared\\f" + std::to_string(file) + ".bin")) {
        Fail(session, "download");
      } else if (ReadAll(local) != shared_[file]) {
        counters_.mismatches++;
      } else {
        counters_.bytes += static_cast<long>(shared_[file].size());
      }
    } else if (choice < 78) {
      OutputSink sink;
      fso.AddEventSink(&sink);
      std::string word = "w" + std::to_string(random_() % 100000);
      counters_.commands++;
      bool ran = fso.SyncCreateProcess("echo " + word + "; echo second line", 30000);
      fso.RemoveEventSink(&sink);
      if (!ran) {
        Fail(session, "command");
      } else if (sink.output.find(word) == std::string::npos ||
                 sink.output.find("second line") == std::string::npos) {
        counters_.mismatches++;
      }
    } else if (choice < 84) {
      pelmora::admin::RCFSO wrong;
      wrong.set_timeout(kReplyTimeoutMs);
      counters_.logins++;
      if (wrong.Connect("127.0.0.1", port_, kAccount, "not the password", false) ||
          wrong.ErrCode() != 1326) {
        counters_.Error("wrong password: " + std::to_string(wrong.ErrCode()) + " " +
                        wrong.ErrDescription());
      } else {
        counters_.refusals++;
      }
      wrong.Disconnect();
    } else if (choice < 92) {
      counters_.downloads++;
      if (fso.Download(Local(".missing"), "C:\\shared\\missing.bin") || fso.ErrCode() != 8004) {
        Fail(session, "missing file");
      } else if (fso.FileExists("C:\\shared\\missing.bin") ||
                 (fso.ErrCode() != 0 && fso.ErrCode() != 2)) {
        Fail(session, "missing file exists");
      } else {
        counters_.refusals++;
      }
    } else {
      // A new login on this session's slot.
      fso.Disconnect();
      Login(session);
    }
  }

  // Uploads fresh bytes, checks them on the service's disk and downloads them back.
  void Transfer(std::size_t session, std::size_t size, const char* kind) {
    pelmora::admin::RCFSO& fso = *sessions_[session];
    std::string bytes = RandomBytes(size, random_);
    std::string local = Local(kind);
    WriteAll(local, bytes);
    std::string remote = Remote(session, kind);
    counters_.uploads++;
    if (!fso.Upload(local, remote)) return Fail(session, "upload");
    std::string on_disk = service_.Drive("work/w" + std::to_string(index_) + "s" +
                                         std::to_string(session) + kind);
    counters_.downloads++;
    std::string back = Local(".back");
    if (!fso.Download(back, remote)) return Fail(session, "download back");
    if (ReadAll(on_disk) != bytes || ReadAll(back) != bytes) counters_.mismatches++;
    counters_.bytes += static_cast<long>(2 * size);
  }

  int index_;
  int port_;
  const Service& service_;
  const std::vector<std::string>& shared_;
  std::string scratch_;
  Counters& counters_;
  std::mt19937_64 random_;
  std::vector<std::unique_ptr<pelmora::admin::RCFSO>> sessions_;
};

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

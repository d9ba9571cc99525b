// The soak's client side: one thread's share of the sessions, each used in turn for a random
// operation (listings, small and large uploads checked on the service's disk and downloaded
// back, downloads of the shared files, commands with output, wrong passwords, missing files,
// new logins), and the counters all threads add to.
//
//   pelmora_soak::Counters counters;
//   pelmora_soak::Worker worker(0, 64, service, shared, scratch, counters);
//   worker.Run(std::chrono::steady_clock::now() + std::chrono::seconds(600));
#ifndef BENCH_SOAK_SOAK_WORKER_H_
#define BENCH_SOAK_SOAK_WORKER_H_

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "bench/soak/soak_service.h"
#include "pelmora/admin/rcfso.h"

namespace pelmora_soak {

inline constexpr int kSharedFiles = 8;                  // files in C:\shared, listed and downloaded
inline constexpr std::size_t kSmall = 4096;             // bytes of a small transfer
inline constexpr std::size_t kLarge = 8 * 1024 * 1024;  // bytes of a large transfer

// `size` random bytes.
std::string RandomBytes(std::size_t size, std::mt19937_64& random);

// Replaces the file at `path` with `bytes`.
void WriteAll(const std::string& path, const std::string& bytes);

// What the client threads did, summed over all of them.
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

// One client thread: its share of the sessions, each used in turn for a random operation.
class Worker {
 public:
  // `sessions` sessions of `service`; `shared` holds the contents of C:\shared\f<i>.bin, and
  // `scratch` is a local folder for the thread's files. All must outlive the worker.
  Worker(int index, int sessions, const Service& service, const std::vector<std::string>& shared,
         const std::string& scratch, Counters& counters);

  // Logs every session in, then operates them in turn until `end`, then disconnects them.
  void Run(std::chrono::steady_clock::time_point end);

 private:
  std::string Remote(std::size_t session, const char* kind) const;
  std::string Local(const char* name) const;
  void Fail(std::size_t session, const std::string& what);
  void Login(std::size_t session);
  void Operate(std::size_t session);
  // Uploads fresh bytes, checks them on the service's disk and downloads them back.
  void Transfer(std::size_t session, std::size_t size, const char* kind);

  int index_;
  int port_;
  const Service& service_;
  const std::vector<std::string>& shared_;
  std::string scratch_;
  Counters& counters_;
  std::mt19937_64 random_;
  std::vector<std::unique_ptr<pelmora::admin::RCFSO>> sessions_;
};

}  // namespace pelmora_soak

#endif  // BENCH_SOAK_SOAK_WORKER_H_

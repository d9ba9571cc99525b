// What the soak watches of the service's process: samples of its memory, descriptors and
// threads from /proc, zombie children, and the trend of a sampled value.
//
//   std::vector<pelmora_soak::Sample> samples{pelmora_soak::SampleProcess(pid, 0)};
//   double kb_per_second = pelmora_soak::Slope(samples, 0, [](const auto& s) { return s.rss_kb; });
#ifndef BENCH_SOAK_SOAK_PROCESS_H_
#define BENCH_SOAK_SOAK_PROCESS_H_

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

namespace pelmora_soak {

// All bytes of a file ("" when it cannot be read).
std::string ReadAll(const std::string& path);

// One sample of the service's process.
struct Sample {
  double seconds = 0;
  long rss_kb = 0;
  long fds = 0;
  long threads = 0;
};

// The process `pid` now, stamped `seconds`.
Sample SampleProcess(pid_t pid, double seconds);

// Processes in state Z whose parent is `parent` (or any, when parent is 0).
std::vector<pid_t> Zombies(pid_t parent);

// The slope of `value` over the samples from `from` on, per second (least squares).
template <typename Value>
double Slope(const std::vector<Sample>& samples, std::size_t from, Value value) {
  double n = 0, sx = 0, sy = 0, sxx = 0, sxy = 0;
  for (std::size_t i = from; i < samples.size(); ++i) {
    double x = samples[i].seconds, y = static_cast<double>(value(samples[i]));
    n += 1, sx += x, sy += y, sxx += x * x, sxy += x * y;
  }
  double d = n * sxx - sx * sx;
  return n < 2 || d == 0 ? 0 : (n * sxy - sx * sy) / d;
}

}  // namespace pelmora_soak

#endif  // BENCH_SOAK_SOAK_PROCESS_H_

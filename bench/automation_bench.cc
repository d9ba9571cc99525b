// Late-bound calls next to their plain peers.
//
// BM_InvokeMethod calls a two-argument method of a bound class through Dispatch::Invoke (name
// look-up, argument conversion, result conversion); BM_DirectMethod calls the same member
// directly. BM_InvokeByReference adds a by-reference string argument written back, next to
// BM_DirectByReference. Compare the times within one run:
//   build/h/bench/pelmora_bench --benchmark_filter='Invoke|Direct' --benchmark_repetitions=5
#include <cstdint>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "pelmora/automation/class_binder.h"
#include "pelmora/automation/registry.h"

namespace {

using pelmora::Variant;
using pelmora::automation::CallKind;

class Accumulator {
 public:
  int32_t Add(int32_t amount, int32_t times) { return total_ += amount * times; }
  bool Describe(const std::string& prefix, std::string& out) {
    out = prefix + std::to_string(total_ & 7);
    return true;
  }

 private:
  int32_t total_ = 0;
};

const pelmora::automation::ClassRegistrar kAccumulatorClass(
    pelmora::automation::ClassBinder<Accumulator>("Pelmora.BenchAccumulator")
        .Method("Add", &Accumulator::Add, {Variant(1)})
        .Method("Describe", &Accumulator::Describe));

void BM_InvokeMethod(benchmark::State& state) {
  auto object = pelmora::automation::CreateObject("Pelmora.BenchAccumulator");
  std::vector<Variant> args{Variant(3), Variant(int16_t{2})};
  for (auto _ : state) benchmark::DoNotOptimize(object->Invoke("add", CallKind::kMethod, args));
}
BENCHMARK(BM_InvokeMethod);

void BM_DirectMethod(benchmark::State& state) {
  Accumulator accumulator;
  int32_t amount = 3;
  int16_t times = 2;
  for (auto _ : state) {
    benchmark::DoNotOptimize(amount);
    benchmark::DoNotOptimize(accumulator.Add(amount, times));
  }
}
BENCHMARK(BM_DirectMethod);

void BM_InvokeByReference(benchmark::State& state) {
  auto object = pelmora::automation::CreateObject("Pelmora.BenchAccumulator");
  std::vector<Variant> args{Variant("total "), Variant()};
  for (auto _ : state) {
    benchmark::DoNotOptimize(object->Invoke("Describe", CallKind::kMethod, args));
  }
}
BENCHMARK(BM_InvokeByReference);

void BM_DirectByReference(benchmark::State& state) {
  Accumulator accumulator;
  std::string prefix = "total ";
  std::string out;
  for (auto _ : state) {
    benchmark::DoNotOptimize(prefix);
    benchmark::DoNotOptimize(accumulator.Describe(prefix, out));
  }
}
BENCHMARK(BM_DirectByReference);

}  // namespace

// What a boot pays for trying native plugins before it loads them: once for the process, and for each object, beside
// the real load of the same object.

#include <benchmark/benchmark.h>

#include "plugins/ObjectTrial.h"
#include "plugins/description/NativeDescription.h"

namespace lofter {
namespace {

// The process from its fork to its end, with one object in it.
void TrialProcess(benchmark::State& state) {
    for ([[maybe_unused]] auto _ : state) {
        ObjectTrial().Try(BENCH_OBJECT);
    }
}

void TrialOfObject(benchmark::State& state) {
    ObjectTrial trial;
    trial.Try(BENCH_OBJECT);
    for ([[maybe_unused]] auto _ : state) {
        trial.Try(BENCH_OBJECT);
    }
}

void RealLoad(benchmark::State& state) {
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(DescribeNativePlugin("p", BENCH_OBJECT));
    }
}

BENCHMARK(TrialProcess)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(TrialOfObject)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(RealLoad)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace lofter

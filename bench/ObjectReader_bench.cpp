// What a boot pays for reading native plugins in a process of their own: once for the process, and for each object,
// beside the same in this process.

#include <benchmark/benchmark.h>

#include "plugins/ObjectReader.h"
#include "plugins/description/NativeDescription.h"

namespace lofter {
namespace {

// The process from its fork to its end, with one object in it.
void ReaderProcess(benchmark::State& state) {
    for ([[maybe_unused]] auto _ : state) {
        ObjectReader().Describe("p", BENCH_OBJECT);
    }
}

void ReadOfObject(benchmark::State& state) {
    ObjectReader reader;
    reader.Describe("p", BENCH_OBJECT);
    for ([[maybe_unused]] auto _ : state) {
        reader.Describe("p", BENCH_OBJECT);
    }
}

void LoadInThisProcess(benchmark::State& state) {
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(DescribeNativePlugin("p", BENCH_OBJECT));
    }
}

BENCHMARK(ReaderProcess)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(ReadOfObject)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(LoadInThisProcess)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace lofter

// Reading a JSON plugin file that is mostly members which mean nothing, as a function of their number. The counter
// `per_member` is the figure to read: it should not grow with the file.

#include <string>

#include <benchmark/benchmark.h>
#include <nlohmann/json.hpp>

#include "plugins/description/JsonFile.h"

namespace {

std::string Members(long count) {
    std::string text = "{";
    for (long number = 0; number < count; ++number) {
        text += (number > 0 ? ",\"member" : "\"member") + std::to_string(number) + "\":{}";
    }
    return text + "}";
}

std::string Nested(long count) {
    std::string text;
    for (long level = 0; level < count; ++level) {
        text += "{\"member\":";
    }
    return text + "0" + std::string(static_cast<std::size_t>(count), '}');
}

void ReadMembers(benchmark::State& state, std::string (*make)(long)) {
    const std::string text = make(state.range(0));
    for ([[maybe_unused]] auto _ : state) {
        if (!lofter::ParseJson(text).is_object()) {
            state.SkipWithError("not read");
        }
    }
    state.counters["per_member"] =
        benchmark::Counter(static_cast<double>(state.iterations()) * static_cast<double>(state.range(0)),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void Sizes(benchmark::internal::Benchmark* file) {
    file->ArgName("members")->Unit(benchmark::kMicrosecond)->Arg(1'000)->Arg(10'000)->Arg(100'000);
}

BENCHMARK_CAPTURE(ReadMembers, of_one_object, Members)->Apply(Sizes);
BENCHMARK_CAPTURE(ReadMembers, nested, Nested)->Apply(Sizes);

}  // namespace

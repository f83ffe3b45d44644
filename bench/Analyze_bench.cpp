// Every command of the companion on a host of 100,000 plugins, as a process of its own: all that a person waits for.
// Inputs are a dump and a log; for `verify`, `flags` and one more `plan` a directory of JSON plugins. Counters:
//      cpu        seconds of processor time, which other work on the machine leaves as it is
//      peak_rss   of the process, in bytes

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ProfilingLog.h"
#include "support/TemporaryDirectory.h"

namespace {

constexpr std::size_t kPlugins = 100'000;
constexpr std::size_t kThreads = 4;

// Plugins that wait for up to three of those before them, each run by the first thread that is free.
class LargeHost {
  public:
    LargeHost() {
        std::mt19937 random(1);
        std::vector<long> free(kThreads, 1'000);
        for (std::size_t plugin = 0; plugin < kPlugins; ++plugin) {
            long ready = 0;
            std::vector<std::size_t>& waits = waitsFor.emplace_back();
            for (std::size_t count = std::min<std::size_t>(random() % 4, plugin); count > 0; --count) {
                waits.push_back(plugin - 1 - random() % std::min<std::size_t>(plugin, 2'000));
                ready = std::max(ready, ends[waits.back()]);
            }
            long& thread = *std::min_element(free.begin(), free.end());
            starts.push_back(std::max(thread, ready));
            ends.push_back(starts.back() + static_cast<long>(100 + random() % 5'000));
            thread = ends.back();
        }
        WriteDump();
        WriteLog();
        WritePlugins();
    }

    std::string Dump() const { return folder / "dump.dot"; }
    std::string Log() const { return folder / "log"; }
    std::string PluginDirectory() const { return folder / "plugins"; }

  private:
    static std::string NameOf(std::size_t plugin) { return "plugin-" + std::to_string(plugin); }
    static std::string BarrierOf(std::size_t plugin) { return "barrier-" + std::to_string(plugin); }

    void WriteDump() const {
        std::vector<std::vector<std::size_t>> waitedBy(kPlugins);
        for (std::size_t plugin = 0; plugin < kPlugins; ++plugin) {
            for (const std::size_t before : waitsFor[plugin]) {
                waitedBy[before].push_back(plugin);
            }
        }
        std::ofstream file(Dump());
        file << "digraph g {\n";
        for (std::size_t plugin = 0; plugin < kPlugins; ++plugin) {
            file << plugin << " [label=\"" << NameOf(plugin) << "\"];\n"
                 << plugin << " -> " << kPlugins + plugin << ";\n";
        }
        for (std::size_t plugin = 0; plugin < kPlugins; ++plugin) {
            file << kPlugins + plugin << " [label=\"" << BarrierOf(plugin) << "\" shape=box];\n";
            for (const std::size_t after : waitedBy[plugin]) {
                file << kPlugins + plugin << " -> " << after << ";\n";
            }
        }
        file << "}\n";
    }

    static std::string ShownTime(long microseconds) {
        constexpr long kStart = 1'767'323'045;
        constexpr long kMicrosecondsPerSecond = 1'000'000;
        return lofter::FormatTime(
            {kStart + microseconds / kMicrosecondsPerSecond, microseconds % kMicrosecondsPerSecond});
    }

    void WriteLog() const {
        std::ofstream file(Log());
        file << "Krxkernel Initialization Time: 2000000\n";
        for (std::size_t plugin = 0; plugin < kPlugins; ++plugin) {
            file << '[' << ShownTime(starts[plugin]) << " - " << ShownTime(ends[plugin])
                 << "] sysboot: " << NameOf(plugin) << '\n';
        }
        file << "=== Lofter configuration info ===\n Start: " << ShownTime(0)
             << "\n End: " << ShownTime(*std::max_element(ends.begin(), ends.end()))
             << "\n Verbose: 0\n Parallel: 1\n Randomize: 0\n Interactive Mode: 0\n Random Seed: 1\n";
    }

    void WritePlugins() const {
        std::filesystem::create_directory(PluginDirectory());
        for (std::size_t plugin = 0; plugin < kPlugins; ++plugin) {
            std::ofstream file(PluginDirectory() + '/' + NameOf(plugin) + ".json");
            file << R"({"metadata": {"version": 1, "requires": [)";
            const char* separator = "";
            for (const std::size_t before : waitsFor[plugin]) {
                file << separator << '"' << BarrierOf(before) << '"';
                separator = ", ";
            }
            file << R"(], "provides": [")" << BarrierOf(plugin) << R"("]}, "operations": {"start": []}})";
        }
    }

    lofter::test::TemporaryDirectory folder;
    std::vector<std::vector<std::size_t>> waitsFor;
    std::vector<long> starts;
    std::vector<long> ends;
};

const LargeHost& Host() {
    static const LargeHost host;
    return host;
}

double Seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

// With its answer thrown away. Findings are an answer, too.
rusage Run(std::vector<std::string> arguments) {
    std::vector<char*> vector{const_cast<char*>(LOFTER_ANALYZE)};
    for (std::string& argument : arguments) {
        vector.push_back(argument.data());
    }
    vector.push_back(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, STDOUT_FILENO);
        dup2(null, STDERR_FILENO);
        execv(LOFTER_ANALYZE, vector.data());
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    wait4(child, &status, 0, &usage);
    if (!WIFEXITED(status) || WEXITSTATUS(status) > 1) {
        std::fprintf(stderr, "%s ended with wait status %#x\n", arguments.front().c_str(),
                     static_cast<unsigned>(status));
    }
    return usage;
}

void MeasureCommand(benchmark::State& state, const std::vector<std::string>& arguments) {
    double processor = 0;
    long peakKilobytes = 0;
    for (auto iteration : state) {
        const rusage usage = Run(arguments);
        processor += Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
        peakKilobytes = std::max(peakKilobytes, usage.ru_maxrss);
    }
    constexpr double kBytesPerKilobyte = 1024;
    state.counters["cpu"] = benchmark::Counter(processor, benchmark::Counter::kAvgIterations);
    state.counters["peak_rss"] = benchmark::Counter(static_cast<double>(peakKilobytes) * kBytesPerKilobyte,
                                                    benchmark::Counter::kDefaults, benchmark::Counter::kIs1024);
}

void AnalyzeLargeBoot(benchmark::State& state, std::vector<std::string> arguments) {
    arguments.insert(arguments.end(), {"--graph", Host().Dump(), "--log", Host().Log()});
    MeasureCommand(state, arguments);
}

void AnalyzeLargeHost(benchmark::State& state, std::vector<std::string> arguments) {
    arguments.insert(arguments.end(), {"--plugin-directory", Host().PluginDirectory()});
    MeasureCommand(state, arguments);
}

void CompareLargeBoots(benchmark::State& state) {
    MeasureCommand(state, {"diff", Host().Log(), "--", Host().Log()});
}

using Words = std::vector<std::string>;

BENCHMARK_CAPTURE(AnalyzeLargeBoot, summary, Words{"summary"})->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(AnalyzeLargeHost, verify, Words{"verify"})->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(AnalyzeLargeBoot, plan, Words{"plan"})->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(AnalyzeLargeHost, plan, Words{"plan"})->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(AnalyzeLargeBoot, blame, Words{"blame"})->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(AnalyzeLargeBoot, critical_chain, Words{"critical-chain"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(AnalyzeLargeBoot, why, Words{"why", "plugin-50000"})->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(AnalyzeLargeBoot, why_two, Words{"why", "plugin-7", "plugin-99990"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(AnalyzeLargeBoot, whatif, Words{"whatif", "--set=plugin-500=1s", "--without=plugin-700"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(AnalyzeLargeBoot, whatif_rank, Words{"whatif", "--rank"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(CompareLargeBoots)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(AnalyzeLargeBoot, chart_svg, Words{"chart", "-o", "/dev/shm/lofter-chart.svg"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(AnalyzeLargeBoot, dot, Words{"dot", "--plugins-only"})->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(AnalyzeLargeHost, flags, Words{"flags"})->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

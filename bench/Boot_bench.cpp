// Whole boots of the installed program, beside a bare loop of the same system() calls on the same root.
//
// Needs root and LOFTER_BENCH_ROOT, a host root that holds the installed program; each boot is a plain run entered with
// chroot. Counters:
//      per_plugin      what a plugin that runs the shell's builtin `true` costs
//      bare_call       what the same system() call costs in a bare loop, on as many threads
//      own_share       how much more the plugin costs, as a fraction of the bare call
//      first_plugin    from the program's start to the start of the first plugin
//      peak_rss        of the orchestrator, in bytes

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int kThreads = 4;  // what --parallel chooses on two processors

std::string Root() {
    const char* root = std::getenv("LOFTER_BENCH_ROOT");
    return root != nullptr ? root : "";
}

bool IsUsable(benchmark::State& state) {
    if (Root().empty() || geteuid() != 0) {
        state.SkipWithError("needs root and LOFTER_BENCH_ROOT");
        return false;
    }
    return true;
}

void WriteDebugConfiguration(long entries) {
    std::ofstream file(Root() + "/etc/tessel/lofter/debug.conf", std::ios_base::trunc);
    for (long i = 0; i < entries; ++i) {
        file << "plugin" << i << ":::true\n";
    }
}

struct Outcome {
    double seconds = 0;
    long peakKilobytes = 0;
};

double Seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

// Runs the work in a child that lives in the root, with its output thrown away.
Outcome RunInRoot(const std::function<void()>& work) {
    const auto start = std::chrono::steady_clock::now();
    const pid_t child = fork();
    if (child == 0) {
        if (chroot(Root().c_str()) != 0 || chdir("/") != 0) {
            _exit(1);
        }
        const int null = open("/dev/null", O_RDWR);
        dup2(null, STDIN_FILENO);
        dup2(null, STDOUT_FILENO);
        work();
        _exit(0);
    }
    int status = 0;
    rusage usage{};
    wait4(child, &status, 0, &usage);
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "the run ended with wait status %#x\n", static_cast<unsigned>(status));
    }
    return {elapsed.count(), usage.ru_maxrss};
}

Outcome Boot(bool isParallel) {
    // A stale control socket would keep the executor process from starting.
    unlink((Root() + "/run/tessel/lofterExecutor.sock").c_str());
    return RunInRoot(
        [isParallel] { execl("/usr/sbin/lofter", "lofter", isParallel ? "--parallel" : nullptr, nullptr); });
}

Outcome BareLoop(long calls, int threads) {
    return RunInRoot([calls, threads] {
        std::vector<std::thread> loops;
        for (int i = 0; i < threads; ++i) {
            loops.emplace_back([calls, threads] {
                for (long call = 0; call < calls / threads; ++call) {
                    static_cast<void>(std::system("true") == 0);
                }
            });
        }
        for (std::thread& loop : loops) {
            loop.join();
        }
    });
}

// The start of the first plugin's run, from the profiling log: "[YYYY-MM-DD hh:mm:ss.uuuuuu - ...".
double FirstPluginStart() {
    std::ifstream log(Root() + "/var/log/sysboot.log");
    std::string line;
    std::getline(log, line);
    std::getline(log, line);
    std::tm parts{};
    int microseconds = 0;
    if (std::sscanf(line.c_str(), "[%d-%d-%d %d:%d:%d.%d", &parts.tm_year, &parts.tm_mon, &parts.tm_mday,
                    &parts.tm_hour, &parts.tm_min, &parts.tm_sec, &microseconds) != 7) {
        return 0;
    }
    parts.tm_year -= 1900;
    parts.tm_mon -= 1;
    return static_cast<double>(timegm(&parts)) + microseconds / 1e6;
}

double Median(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2), values.end());
    return values[values.size() / 2];
}

double MedianOf(int runs, const std::function<double()>& measure) {
    std::vector<double> values;
    std::generate_n(std::back_inserter(values), runs, measure);
    return Median(values);
}

// Boots and bare loops take turns, so that a machine whose speed drifts is as fast or slow for both.
void BootOf(benchmark::State& state, bool isParallel) {
    if (!IsUsable(state)) {
        return;
    }
    constexpr int kEmptyRuns = 9;
    const long plugins = state.range(0);
    const int threads = isParallel ? kThreads : 1;
    WriteDebugConfiguration(0);
    const double emptyBoot = MedianOf(kEmptyRuns, [&] { return Boot(isParallel).seconds; });
    const double emptyLoop = MedianOf(kEmptyRuns, [&] { return BareLoop(0, threads).seconds; });
    WriteDebugConfiguration(plugins);

    std::vector<double> boots;
    std::vector<double> loops;
    double untilFirst = 1e9;
    long peak = 0;
    for ([[maybe_unused]] auto _ : state) {
        timeval start{};
        gettimeofday(&start, nullptr);
        const Outcome outcome = Boot(isParallel);
        state.SetIterationTime(outcome.seconds);
        boots.push_back(outcome.seconds - emptyBoot);
        loops.push_back(BareLoop(plugins, threads).seconds - emptyLoop);
        untilFirst = std::min(untilFirst, FirstPluginStart() - Seconds(start));
        peak = std::max(peak, outcome.peakKilobytes);
    }
    if (plugins > 0) {
        state.counters["per_plugin"] = Median(boots) / static_cast<double>(plugins);
        state.counters["bare_call"] = Median(loops) / static_cast<double>(plugins);
        state.counters["own_share"] = Median(boots) / Median(loops) - 1;
        state.counters["first_plugin"] = untilFirst;
    }
    state.counters["peak_rss"] = benchmark::Counter(static_cast<double>(peak) * 1024, benchmark::Counter::kDefaults,
                                                    benchmark::Counter::OneK::kIs1024);
}

void Sizes(benchmark::internal::Benchmark* boot) {
    boot->UseManualTime()->Unit(benchmark::kMillisecond);
}

BENCHMARK_CAPTURE(BootOf, serial, false)->Apply(Sizes)->Arg(0)->Iterations(20);
BENCHMARK_CAPTURE(BootOf, serial, false)->Apply(Sizes)->Arg(100)->Arg(1000)->Iterations(15);
BENCHMARK_CAPTURE(BootOf, parallel, true)->Apply(Sizes)->Arg(1000)->Iterations(15);

}  // namespace

#include "ProfilingLog.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <stdexcept>

#include "base/Logging.h"
#include "base/Settings.h"
#include "plugins/Plugin.h"
#include "util/afstream.h"

namespace lofter {

namespace {

// What tells the two sections apart.
struct SectionTexts {
    const char* plugin;
    const char* heading;
    const char* start;
    const char* end;
};

constexpr SectionTexts kBootTexts{" sysboot: ", "=== Lofter configuration info ===", " Start: ", " End: "};
constexpr SectionTexts kDaemonTexts{
    " daemon: ", "=== Daemon configuration info ===", " Start Daemon: ", " End Daemon: "};

void WriteSection(std::ostream& output, const SectionTexts& texts, const RunTimes& times,
                  const std::deque<Plugin*>& plugins, const Settings& settings) {
    for (const Plugin* plugin : plugins) {
        output << '[' << FormatTime(plugin->StartTime()) << " - " << FormatTime(plugin->EndTime()) << ']'
               << texts.plugin << plugin->Name() << std::endl;
    }
    output << texts.heading << '\n'
           << texts.start << FormatTime(times.start) << '\n'
           << texts.end << FormatTime(times.end) << '\n'
           << " Verbose: " << settings.verbose << '\n'
           << " Parallel: " << settings.parallel << '\n'
           << " Randomize: " << settings.randomize << '\n'
           << " Interactive Mode: " << settings.interactive << '\n'
           << " Random Seed: " << settings.randomSeed << '\n';
}

// What the log's two ways of being written have in common: fill the opened stream, then put the file in place. A write
// that failed must end here, before the old log is replaced.
template <typename Section>
void FillAndCommit(afstream& stream, const char* failureFormat, const Section& writeSection) {
    try {
        errno = 0;
        writeSection(stream);
        stream.flush();
        if (!stream.good()) {
            throw std::runtime_error(errno != 0 ? std::strerror(errno) : "write failed");
        }
        stream.commit();
    } catch (const std::exception& e) {
        Log_Level(kWarning, failureFormat, e.what());
    }
}

}  // namespace

std::string FormatTime(const timeval& time) {
    std::tm parts{};
    gmtime_r(&time.tv_sec, &parts);
    char text[96];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%06ld", parts.tm_year + 1900, parts.tm_mon + 1,
                  parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, static_cast<long>(time.tv_usec));
    return text;
}

void WriteBootSection(std::ostream& output, const RunTimes& times, const std::deque<Plugin*>& plugins,
                      const Settings& settings) {
    constexpr unsigned long kMicrosecondsPerSecond = 1'000'000;
    output << "Krxkernel Initialization Time: " << times.uptime * kMicrosecondsPerSecond << '\n';
    WriteSection(output, kBootTexts, times, plugins, settings);
}

void WriteDaemonSection(std::ostream& output, const RunTimes& times, const std::deque<Plugin*>& plugins,
                        const Settings& settings) {
    WriteSection(output, kDaemonTexts, times, plugins, settings);
}

void LogBootProfile(const char* path, const RunTimes& times, const std::deque<Plugin*>& plugins,
                    const Settings& settings) {
    afstream stream;
    try {
        stream.open(path, std::ios_base::out);
    } catch (const std::exception&) {
        Log_Level(kError, "unable to open profiling log (%s): %s.\n", path, std::strerror(errno));
        return;
    }
    FillAndCommit(stream, "unable to log profiling information: %s.\n",
                  [&](std::ostream& output) { WriteBootSection(output, times, plugins, settings); });
}

void LogDaemonProfile(const char* path, const RunTimes& times, const std::deque<Plugin*>& plugins,
                      const Settings& settings) {
    afstream stream;
    try {
        stream.reopen(path, std::ios_base::out);
    } catch (const std::exception&) {
        Log_Level(kError, "unable to reopen profiling log (%s): %s.\n", path, std::strerror(errno));
        return;
    }
    FillAndCommit(stream, "unable to log daemon profiling information: %s.\n",
                  [&](std::ostream& output) { WriteDaemonSection(output, times, plugins, settings); });
}

}  // namespace lofter

#include "RunSequence.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <iostream>
#include <memory>
#include <utility>

#include <boost/iostreams/device/file_descriptor.hpp>
#include <boost/iostreams/stream.hpp>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ExitWatch.h"
#include "ProgramLauncher.h"
#include "SyslogReload.h"
#include "base/Exception.h"
#include "base/Logging.h"
#include "base/Paths.h"
#include "console/Progress.h"
#include "executor/QorcliExecutor.h"
#include "graph/Dump.h"
#include "graph/Executor.h"
#include "graph/GraphRun.h"
#include "hopper/InitScriptDiscovery.h"
#include "hostkernel/hostkernel.h"
#include "posix/File.h"
#include "util/RunOnceRecord.h"

namespace lofter {

namespace {

constexpr const char* kSyslogDaemonArguments[] = {paths::kSyslogDaemon, "-i", nullptr};
constexpr const char* kObservationDaemonArguments[] = {paths::kObservationDaemon, "start", nullptr};

// The workers for the run. A host that is short of threads boots on one rather than not at all.
std::unique_ptr<Executor> MakeExecutor(std::uint32_t threadCount, bool randomize) {
    try {
        return std::make_unique<Executor>(static_cast<int>(threadCount), randomize);
    } catch (const Exception& e) {
        if (threadCount <= 1) {
            throw;
        }
        Log_Level(kError, "%s\n", e.what());
        return std::make_unique<Executor>(1, randomize);
    }
}

}  // namespace

RunSequence::RunSequence(RunOptions runOptions, const RunTimes& runTimes, Settings& runSettings)
    : options(std::move(runOptions)),
      times(runTimes),
      settings(runSettings),
      interactiveMode(settings),
      activation(settings, interactiveMode),
      graph(settings),
      runOnce(options.runOnce) {}

int RunSequence::Run() {
    if (options.init) {
        LaunchHostDaemons();
    }
    if (!options.daemon && !StartExecutorProcess()) {
        return EXIT_FAILURE;
    }
    try {
        RunPlugins();
    } catch (const std::exception& e) {
        // Short of memory, as a rule. The executor process must not be left behind.
        Log_Level(kError, "unable to complete the run: %s\n", e.what());
        exitStatus = EXIT_FAILURE;
    }
    if (!options.daemon && !StopExecutorProcess()) {
        return EXIT_FAILURE;
    }
    return exitStatus;
}

void RunSequence::RunPlugins() {
    EnterRoot();
    if (BuildNodeList()) {
        ChooseThreadCount();
        if (options.dump) {
            Dump();
        } else {
            Execute();
        }
    } else {
        exitStatus = EXIT_FAILURE;
    }
    gettimeofday(&times.end, nullptr);
    WriteProfilingLog();
    if (options.init) {
        ReloadSyslogDaemon();
    }
}

// The outcome is of no consequence here: a host without these daemons boots all the same.
void RunSequence::LaunchHostDaemons() const {
    for (const char* const* arguments : {kSyslogDaemonArguments, kObservationDaemonArguments}) {
        static_cast<void>(LaunchProgram(arguments, settings.environment, paths::kNull));
    }
}

bool RunSequence::StartExecutorProcess() const {
    Log_Level(kInfo, "Launching Executor\n");
    try {
        QorcliExecutor::Instance()->Reset();
        return true;
    } catch (const std::exception& e) {
        Log_Level(kWarning, "Failed to start executor %s\n", e.what());
    } catch (...) {
        Log_Level(kWarning, "Failed to start executor\n");
    }
    return false;
}

void RunSequence::EnterRoot() {
    std::error_code error;
    const std::filesystem::path absolute = std::filesystem::absolute(options.pluginDirectory, error);
    settings.pluginDirectory = error ? options.pluginDirectory : absolute.string();
    // An empty path stays empty wherever the run is called.
    directoryFailure = options.pluginDirectory.empty() ? std::error_code() : error;

    if (chdir("/") != 0) {
        Log_Level(kInfo, "unable to change filesystem root: %s.\n", std::strerror(errno));
    }
    if (setsid() < 0) {
        Log_Level(kInfo, "unable to create session: %s.\n", std::strerror(errno));
    }
}

bool RunSequence::BuildNodeList() {
    try {
        if (options.daemon) {
            DiscoverDaemons();
        } else {
            DiscoverPlugins();
        }
        return true;
    } catch (const std::exception& e) {
        Log_Level(kError, "unhandled exception whilst enumerating plugins.\nDetails:\n %s \n\n", e.what());
        plugins.clear();  // an unfinished list is none: what is on it never runs
        return false;
    }
}

void RunSequence::DiscoverPlugins() {
    if (settings.invoke) {
        ReadRunOnceRecord(paths::kRunOnceArchive, runOnce);
    }
    if (directoryFailure) {
        throw std::filesystem::filesystem_error("no current directory to go by", options.pluginDirectory,
                                                directoryFailure);
    }
    Discovery discovery(
        {settings.pluginDirectory, paths::kDebugConfiguration, {settings.disabledPlugins, options.pluginFlags}}, graph,
        activation, runOnce, plugins);
    // The last defence against an object, where there is no process to load it in: a boot that ends here is none that
    // went well.
    const ExitWatch watch([&] {
        Log_Level(kError, "lofter was made to exit whilst loading plugin %s, nothing was run\n",
                  discovery.CurrentFile().c_str());
        StopExecutorProcess();
    });
    if (options.plugins.empty()) {
        discovery.DiscoverAll();
    } else {
        discovery.DiscoverListed(options.plugins);
    }
}

void RunSequence::DiscoverDaemons() {
    const std::vector<Plugin*> daemons =
        DiscoverInitDaemons(IsStopRun() ? 1 : 0, {graph, activation, CommandSettingsOf(settings)});
    plugins.assign(daemons.begin(), daemons.end());
}

void RunSequence::ChooseThreadCount() {
    std::error_code error;
    if (std::filesystem::exists(std::filesystem::symlink_status(paths::kStatelessMarker, error))) {
        settings.parallel = false;
    } else if (settings.parallel) {
        settings.threadCount =
            static_cast<std::uint32_t>(std::min<std::size_t>(plugins.size(), 2UL * HostKernel_ProcessorCount()));
    }
}

void RunSequence::Execute() {
    try {
        const std::unique_ptr<Executor> executor = MakeExecutor(settings.threadCount, settings.randomize);
        ExecuteOn(*executor);
    } catch (const std::exception& e) {
        Log_Level(kError, "unable to execute plugins: %s\n", e.what());
        exitStatus = EXIT_FAILURE;
    }
}

void RunSequence::ExecuteOn(Executor& executor) {
    if (options.daemon && IsStopRun()) {
        StopRun(graph, Nodes(), executor);
        return;
    }
    if (options.daemon) {
        StartRun(graph, Nodes(), executor);
        return;
    }
    ShowProgress();
    StartRun(graph, Nodes(), executor);
    WriteRunOnce();
}

// A boot bank that cannot be written costs a message, not the run.
void RunSequence::WriteRunOnce() const {
    try {
        WriteRunOnceRecord(paths::kRunOnceArchive, runOnce);
    } catch (const std::exception& e) {
        Log_Level(kError, "unable to save run-once record: %s\n", e.what());
    }
}

void RunSequence::Dump() {
    // A reader that has gone costs the dump, not the run. Daemon runs have no executor's client that sees to it.
    std::signal(SIGPIPE, SIG_IGN);
    if (!options.dumpPath) {
        DumpGraph(graph, Nodes(), std::cout);
        return;
    }
    // Not by a file stream: the run leads a session by now, and a terminal must not become its controlling one.
    constexpr mode_t kMode = S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH;  // less the umask
    const posix::Descriptor file = posix::OpenFile(*options.dumpPath, O_WRONLY | O_CREAT | O_TRUNC, kMode);
    if (!file) {
        exitStatus = EXIT_FAILURE;
        return;
    }
    namespace io = boost::iostreams;
    io::stream<io::file_descriptor_sink> output(file.Get(), io::never_close_handle);
    DumpGraph(graph, Nodes(), output);
}

void RunSequence::WriteProfilingLog() {
    if (options.daemon) {
        LogDaemonProfile(paths::kProfilingLog, times, plugins, settings);
    } else if (!settings.invoke) {
        LogBootProfile(paths::kProfilingLog, times, plugins, settings);
    }
}

bool RunSequence::StopExecutorProcess() const {
    try {
        QorcliExecutor::Instance()->Stop();
        return true;
    } catch (const std::exception& e) {
        Log_Level(kError, "Failed to stop Executor: %s\n", e.what());
    } catch (...) {
        Log_Level(kError, "Failed to stop Executor\n");
    }
    return false;
}

}  // namespace lofter

// One run from the checked command line to the exit status: a fixed sequence whose steps the run mode switches on or
// off.
//
//      boot (--init)   launch syslog and observation daemons, then as plain, then reload the syslog daemon
//      plain           executor process, plugins, run, run-once record, profiling log, stop of the executor process
//      invoke          as plain, but reads the run-once record first, runs one method and writes no profiling log
//      daemon          one plugin per init.d script, start or stop run, section appended to the profiling log
//      dump            with any of the above: the graph is written as a digraph instead of being run
//
// The executor process is started before the working directory and the session change, so it inherits those of the
// invoking process; the syslog daemon is reloaded after the profiling log is in place. Both are relied on.
//
// Runs on the main thread, once.
#pragma once

#include <set>
#include <string>
#include <system_error>
#include <vector>

#include "Activation.h"
#include "CommandLine.h"
#include "ProfilingLog.h"
#include "base/Settings.h"
#include "console/InteractiveMode.h"
#include "graph/Graph.h"
#include "plugins/Discovery.h"

namespace lofter {

class Executor;

class RunSequence {
  public:
    // The times hold the start and the uptime.
    RunSequence(RunOptions options, const RunTimes& times, Settings& settings);

    // The process's exit status: 0, or 1 when the executor process cannot be started or stopped, the plugins cannot be
    // enumerated or executed, or the dump file cannot be opened. Failures of single plugins do not count.
    int Run();

  private:
    void RunPlugins();
    void LaunchHostDaemons() const;
    bool StartExecutorProcess() const;
    void EnterRoot();
    bool BuildNodeList();
    void DiscoverPlugins();
    void DiscoverDaemons();
    void ChooseThreadCount();
    void Execute();
    void ExecuteOn(Executor& executor);
    void WriteRunOnce() const;
    void Dump();
    void WriteProfilingLog();
    bool StopExecutorProcess() const;

    bool IsStopRun() const { return settings.method == "stop"; }
    std::vector<Node*> Nodes() const { return {plugins.begin(), plugins.end()}; }

    RunOptions options;
    RunTimes times;
    Settings& settings;
    InteractiveMode interactiveMode;
    Activation activation;
    Graph graph;
    std::set<std::string> runOnce;
    PluginList plugins;
    std::error_code directoryFailure;  // why the plugin directory could not be made absolute
    int exitStatus = 0;
};

}  // namespace lofter

#include "hopper/InitScriptDiscovery.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <sstream>
#include <string_view>
#include <utility>

#include <boost/lexical_cast/try_lexical_convert.hpp>
#include <sys/wait.h>
#include <unistd.h>

#include "base/Exception.h"
#include "base/Logging.h"
#include "base/Paths.h"
#include "hopper/LegacyDaemonPlugin.h"
#include "posix/AcrossSignals.h"
#include "posix/Printable.h"

namespace lofter {

namespace {

constexpr int kStarting = 0;
constexpr std::size_t kLongestQuote = 200;

bool IsStartedByTheBootRun(std::string_view name) {
    return name == "tssyslogd" || name == "hxed";
}

// The start of a line from outside, fit for a log.
std::string Quotable(const std::string& line) {
    const std::string text = posix::Printable(posix::Shortened(line, kLongestQuote));
    return line.size() > kLongestQuote ? text + "..." : text;
}

std::optional<InitScript> ReadLine(const std::string& line) {
    std::istringstream words(line);
    InitScript script{};
    std::string number;
    if (!(words >> script.path >> number) || !boost::conversion::try_lexical_convert(number, script.priority)) {
        return std::nullopt;
    }
    return script;
}

// A shell command whose output can be read.
class ReadPipe {
  public:
    explicit ReadPipe(const std::string& shellCommand) : command(shellCommand), pipe(popen(command.c_str(), "re")) {}
    ReadPipe(const ReadPipe&) = delete;
    ReadPipe& operator=(const ReadPipe&) = delete;

    // -1 when there is no pipe.
    int Descriptor() const { return pipe == nullptr ? -1 : fileno(pipe); }

    // Waits for the command's end.
    ~ReadPipe() {
        if (pipe != nullptr) {
            Report(pclose(pipe));
        }
    }

  private:
    void Report(int status) const {
        if (status == -1) {
            Log_Level(kWarning, "%s: no exit status: %s\n", command.c_str(), std::strerror(errno));
        } else if (WIFSIGNALED(status)) {
            Log_Level(kWarning, "%s was killed by signal %d\n", command.c_str(), WTERMSIG(status));
        } else if (WEXITSTATUS(status) != 0) {
            Log_Level(kWarning, "%s exited with status %d\n", command.c_str(), WEXITSTATUS(status));
        }
    }

    const std::string command;
    std::FILE* const pipe;
};

// What was read before a failure counts: better some daemons than none.
std::string ReadToTheEnd(int descriptor, const std::string& command) {
    std::string text;
    std::array<char, 4096> buffer;
    for (;;) {
        const ssize_t length = posix::AcrossSignals([&] { return ::read(descriptor, buffer.data(), buffer.size()); });
        if (length < 0) {
            Log_Level(kWarning, "%s: unable to read its output: %s\n", command.c_str(), std::strerror(errno));
        }
        if (length <= 0) {
            return text;
        }
        text.append(buffer.data(), static_cast<std::size_t>(length));
    }
}

// The group is joined last: a plugin that could not be made must hold up nobody.
Plugin& AddPlugin(const std::string& name, const InitScript& script, const DaemonSurroundings& surroundings) {
    // A negative priority wraps around to a large one: such a script comes last.
    const auto priority = static_cast<std::uint32_t>(script.priority);
    auto made = std::make_unique<LegacyDaemonPlugin>(name, script.path, priority, surroundings.commandSettings,
                                                     surroundings.activator);
    const GraphLock lock;
    PriorityBarrier* const barrier = surroundings.graph.GetPriorityBarrier(priority);
    Plugin& plugin = surroundings.graph.Add(std::move(made));
    try {
        barrier->AddPlugin(plugin);
    } catch (...) {
        plugin.MarkStarted();
        throw;
    }
    return plugin;
}

// The name ends where the script's path does. There is room for the plugin: one that is linked must not be lost.
void AppendPlugin(std::vector<Plugin*>& plugins, std::string_view name, const InitScript& script,
                  const DaemonSurroundings& surroundings) {
    try {
        plugins.push_back(&AddPlugin(std::string(name), script, surroundings));
    } catch (const std::exception& failure) {
        Log_Level(kWarning, "Failed to create init.d daemon plugin: %s because: %s\n", name.data(), failure.what());
    } catch (...) {
        Log_Level(kWarning, "Failed to create init.d daemon plugin: %s\n", name.data());
    }
}

}  // namespace

std::vector<InitScript> ReadInitScripts(std::istream& output) {
    std::vector<InitScript> scripts;
    for (std::string line; std::getline(output, line);) {
        if (std::optional<InitScript> script = ReadLine(line)) {
            scripts.push_back(std::move(*script));
        } else {
            Log_Level(kWarning, "Skipping a line that is not an init.d script and its priority: '%s'\n",
                      Quotable(line).c_str());
        }
    }
    if (output.bad()) {  // as a rule short of memory, which a stream says in no other way
        Log_Level(kWarning, "unable to read all init.d scripts and their priorities\n");
    }
    return scripts;
}

std::vector<InitScript> ListInitScripts(const std::string& command) {
    const ReadPipe pipe(command);
    if (pipe.Descriptor() <= 0) {
        throw Exception("Failed obtaining list of init.d scripts");
    }
    std::istringstream output(ReadToTheEnd(pipe.Descriptor(), command));
    return ReadInitScripts(output);
}

std::vector<Plugin*> MakeDaemonPlugins(const std::vector<InitScript>& scripts, int startStopFlag,
                                       const DaemonSurroundings& surroundings) {
    std::vector<Plugin*> plugins;
    plugins.reserve(scripts.size());
    for (const InitScript& script : scripts) {
        const std::string_view name = std::string_view(script.path).substr(script.path.rfind('/') + 1);
        if (startStopFlag != kStarting || !IsStartedByTheBootRun(name)) {
            AppendPlugin(plugins, name, script, surroundings);
        }
    }
    return plugins;
}

std::vector<Plugin*> DiscoverInitDaemons(int startStopFlag, const DaemonSurroundings& surroundings) {
    return MakeDaemonPlugins(ListInitScripts(paths::kInitScriptLister), startStopFlag, surroundings);
}

}  // namespace lofter

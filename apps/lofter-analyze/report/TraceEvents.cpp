#include "report/TraceEvents.h"

#include <algorithm>
#include <string>

#include "report/Json.h"

namespace lofter::analyze {

namespace {

constexpr int kProcess = 1;

// One event a line. A boot of many plugins is never held as one document.
class EventList {
  public:
    explicit EventList(std::ostream& stream) : output(stream) {
        output << R"({"displayTimeUnit":"ms","traceEvents":[)";
    }
    void Add(const Json& event) {
        output << separator << event.dump(-1, ' ', false, Json::error_handler_t::replace);
        separator = ",\n";
    }
    void Close() { output << "\n]}\n"; }

  private:
    std::ostream& output;
    const char* separator = "\n";
};

Json NamingEvent(const char* what, std::size_t thread, const std::string& name) {
    return {{"name", what}, {"ph", "M"}, {"pid", kProcess}, {"tid", thread}, {"args", {{"name", name}}}};
}

Json ArgumentsOf(const Boot& boot, const Course& course, PluginIndex index) {
    const BootPlugin& plugin = boot.plugins[index];
    Json arguments{{"start_us", plugin.timing->start}};
    arguments["duration_us"] = plugin.timing->end ? Json(TimeTaken(plugin)) : Json(nullptr);
    if (const std::optional<Wait>& wait = course.waits[index]) {
        arguments["ready_us"] = wait->ready;
        arguments["wait_us"] = wait->wait;
        arguments["waited_for"] = wait->barrier ? Json(boot.barriers[*wait->barrier].name) : Json(nullptr);
        arguments["opened_by"] = wait->opener ? Json(boot.plugins[*wait->opener].Name()) : Json(nullptr);
    }
    arguments["critical"] = static_cast<bool>(course.isCritical[index]);
    return arguments;
}

Json PluginEvent(const Boot& boot, const Course& course, PluginIndex index, std::size_t thread) {
    const BootPlugin& plugin = boot.plugins[index];
    Json event{{"name", plugin.Name()},
               {"cat", course.isCritical[index] ? "plugin,critical" : "plugin"},
               {"ph", plugin.timing->end ? "X" : "i"},
               {"ts", plugin.timing->start - course.begin}};
    if (plugin.timing->end) {
        event["dur"] = TimeTaken(plugin);
    } else {
        event["s"] = "t";  // an instant of its thread
    }
    event["pid"] = kProcess;
    event["tid"] = thread;
    event["args"] = ArgumentsOf(boot, course, index);
    return event;
}

// From the end of one plugin of the chain to the start of the next. An arrow is tied to the events that enclose its
// ends, so it leaves at the start of the last microsecond that is still the plugin's.
void AddArrows(const Boot& boot, const Course& course, const std::vector<std::size_t>& threads, EventList& events) {
    for (std::size_t next = 1; next < course.chain.size(); ++next) {
        const PluginIndex from = course.chain[next - 1];
        const PluginIndex to = course.chain[next];
        const BootPlugin& opener = boot.plugins[from];
        const Microseconds leaves = opener.timing->start + std::max<Microseconds>(TimeTaken(opener) - 1, 0);
        const auto arrow = [&](const char* phase, Microseconds at, PluginIndex plugin) {
            return Json{{"name", "critical chain"}, {"cat", "critical"}, {"ph", phase},           {"id", next},
                        {"ts", at - course.begin},  {"pid", kProcess},   {"tid", threads[plugin]}};
        };
        events.Add(arrow("s", leaves, from));
        Json end = arrow("f", boot.plugins[to].timing->start, to);
        end["bp"] = "e";  // ends at the event that it meets, not at the one behind it
        events.Add(end);
    }
}

}  // namespace

void WriteTraceEvents(const Boot& boot, const Course& course, std::ostream& output) {
    EventList events(output);
    events.Add(NamingEvent("process_name", 0, "boot"));
    std::vector<std::size_t> threads(boot.plugins.size());
    for (std::size_t lane = 0; lane < course.lanes.size(); ++lane) {
        events.Add(NamingEvent("thread_name", lane + 1, "thread " + std::to_string(lane + 1)));
        for (const PluginIndex plugin : course.lanes[lane]) {
            threads[plugin] = lane + 1;
            events.Add(PluginEvent(boot, course, plugin, lane + 1));
        }
    }
    AddArrows(boot, course, threads, events);
    events.Close();
}

}  // namespace lofter::analyze

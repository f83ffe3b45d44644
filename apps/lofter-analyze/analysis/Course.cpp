#include "analysis/Course.h"

#include <algorithm>
#include <functional>
#include <queue>
#include <set>
#include <tuple>
#include <utility>

namespace lofter::analyze {

namespace {

Microseconds EndOf(const BootPlugin& plugin) {
    return plugin.timing->end.value_or(plugin.timing->start);
}

// Those that have a start, by it. What took no time comes before what began at the same instant, which leaves it room.
std::vector<PluginIndex> ByStart(const Boot& boot) {
    std::vector<PluginIndex> started;
    for (PluginIndex index = 0; index < boot.plugins.size(); ++index) {
        if (boot.plugins[index].timing) {
            started.push_back(index);
        }
    }
    std::sort(started.begin(), started.end(), [&](PluginIndex left, PluginIndex right) {
        const auto rank = [&](PluginIndex index) {
            const BootPlugin& plugin = boot.plugins[index];
            return std::tuple(plugin.timing->start, TimeTaken(plugin) > 0, index);
        };
        return rank(left) < rank(right);
    });
    return started;
}

std::vector<std::vector<PluginIndex>> FindLanes(const Boot& boot, const std::vector<PluginIndex>& started) {
    using BusyLane = std::pair<Microseconds, std::size_t>;  // until when, and which
    std::vector<std::vector<PluginIndex>> lanes;
    std::priority_queue<BusyLane, std::vector<BusyLane>, std::greater<>> busy;
    std::set<std::size_t> free;
    for (const PluginIndex plugin : started) {
        while (!busy.empty() && busy.top().first <= boot.plugins[plugin].timing->start) {
            free.insert(busy.top().second);
            busy.pop();
        }
        if (free.empty()) {
            free.insert(lanes.size());
            lanes.emplace_back();
        }
        const std::size_t lane = *free.begin();
        free.erase(free.begin());
        lanes[lane].push_back(plugin);
        busy.emplace(EndOf(boot.plugins[plugin]), lane);
    }
    return lanes;
}

}  // namespace

Course FindCourse(const Boot& boot) {
    Course course;
    const std::vector<PluginIndex> started = ByStart(boot);
    course.lanes = FindLanes(boot, started);
    course.waits = FindWaits(boot);
    course.isCritical.resize(boot.plugins.size());
    if (const std::optional<PluginIndex> last = LastToEnd(boot)) {
        course.chain = ChainTo(*last, course.waits);
    }
    for (const PluginIndex plugin : course.chain) {
        course.isCritical[plugin] = true;
    }
    for (const PluginIndex plugin : started) {
        course.begin = std::min(course.begin, boot.plugins[plugin].timing->start);
        course.end = std::max(course.end, EndOf(boot.plugins[plugin]));
    }
    return course;
}

Microseconds TimeTaken(const BootPlugin& plugin) {
    return EndOf(plugin) - plugin.timing->start;
}

}  // namespace lofter::analyze

#include "analysis/Standstill.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <iterator>
#include <optional>
#include <utility>

#include "analysis/LinkGraph.h"

namespace lofter::analyze {

namespace {

using Node = LinkGraph::Node;

// What is not over yet: what is over counts as kept out, and what runs waits for nothing any more.
Boot RestOf(Boot boot, const std::vector<Progress>& progress) {
    for (PluginIndex plugin = 0; plugin < boot.plugins.size(); ++plugin) {
        if (progress[plugin] == Progress::Over && boot.plugins[plugin].Runs()) {
            boot.plugins[plugin].keptOutBy = "it is over";
        }
    }
    for (BootBarrier& barrier : boot.barriers) {
        std::erase_if(barrier.requirers, [&](PluginIndex plugin) { return progress[plugin] == Progress::Running; });
    }
    return boot;
}

// The rest of a boot, with its parts: whoever waits behind one member of a part waits behind all of them.
class Rest {
  public:
    Rest(const Boot& boot, const std::vector<Progress>& itsProgress)
        : rest(RestOf(boot, itsProgress)),
          progress(itsProgress),
          graph(rest),
          parts(FindParts(graph)),
          partOf(graph.Size()) {
        for (std::size_t part = 0; part < parts.size(); ++part) {
            for (const Node node : parts[part]) {
                partOf[node] = part;
            }
        }
    }

    const Boot& Plugins() const { return rest; }
    bool IsRunning(PluginIndex plugin) const { return IsLeft(plugin) && progress[plugin] == Progress::Running; }
    bool HasToBegin(PluginIndex plugin) const { return IsLeft(plugin) && progress[plugin] == Progress::NotBegun; }

    // Each behind those that follow it.
    const std::vector<Part>& Parts() const { return parts; }
    std::size_t PartOf(PluginIndex plugin) const { return partOf[plugin]; }

    template <typename Action>
    void ForEachPluginToBegin(const Part& part, const Action& action) const {
        for (const Node node : part) {
            if (graph.IsPlugin(node) && HasToBegin(node)) {
                action(node);
            }
        }
    }

    // Calls with the parts behind it, some of them more than once.
    template <typename Action>
    void ForEachFollower(std::size_t part, const Action& action) const {
        for (const Node node : parts[part]) {
            for (const Node follower : graph.Followers()[node]) {
                if (partOf[follower] != part) {
                    action(partOf[follower]);
                }
            }
        }
    }

    bool IsOpen(BarrierIndex barrier) const { return graph.Leaders()[graph.NodeOf(barrier)].empty(); }

  private:
    bool IsLeft(PluginIndex plugin) const { return rest.plugins[plugin].Runs(); }

    Boot rest;
    const std::vector<Progress>& progress;
    LinkGraph graph;
    std::vector<Part> parts;
    std::vector<std::size_t> partOf;
};

// How many plugins wait in and behind each part. A set of plugins for every part would be too much for large boots, so
// some plugins are looked for at a time, in the order of the parts. Most parts lead to all of them or to none.
class WaiterCount {
  public:
    explicit WaiterCount(const Rest& theRest) : rest(theRest), sights(rest.Parts().size()), sets(sights.size()) {
        for (std::size_t part = 0; part < sights.size(); ++part) {
            firstOf.push_back(waiterCount);
            rest.ForEachPluginToBegin(rest.Parts()[part], [this](PluginIndex) { ++waiterCount; });
            followersFrom.push_back(followers.size());
            rest.ForEachFollower(part, [this](std::size_t follower) { followers.push_back(follower); });
        }
        firstOf.push_back(waiterCount);
        followersFrom.push_back(followers.size());
        counts.resize(sights.size());
        std::size_t part = 0;
        for (std::size_t first = 0; first < waiterCount; first += kAtOnce) {
            while (firstOf[part + 1] <= first) {
                sights[part++] = Sight::None;  // it follows those that are looked for
            }
            for (std::size_t leader = part; leader < sights.size(); ++leader) {
                Look(leader, first, std::min(first + kAtOnce, waiterCount));
            }
        }
    }

    std::size_t HeldUpBy(PluginIndex plugin) const {
        return counts[rest.PartOf(plugin)] - (rest.HasToBegin(plugin) ? 1 : 0);
    }

  private:
    static constexpr std::size_t kWordBits = 64;
    static constexpr std::size_t kWords = 16;
    static constexpr std::size_t kAtOnce = kWords * kWordBits;
    using Set = std::array<std::uint64_t, kWords>;
    // How many of those that are looked for are in and behind a part.
    enum class Sight : std::uint8_t { None, Some, All };

    // Looks for the plugins from the first to before the last; the part's followers have been looked at.
    void Look(std::size_t part, std::size_t first, std::size_t last) {
        Sight sight = Sight::None;
        for (std::size_t link = followersFrom[part]; link < followersFrom[part + 1]; ++link) {
            sight = std::max(sight, sights[followers[link]]);
        }
        const std::size_t ownFirst = std::max(firstOf[part], first);
        const std::size_t ownLast = std::min(firstOf[part + 1], last);
        if (sight != Sight::All && (sight == Sight::Some || ownFirst < ownLast)) {
            const std::size_t seen = Fill(part, ownFirst - first, ownLast - first);
            counts[part] += seen;
            sight = seen == last - first ? Sight::All : Sight::Some;
        } else if (sight == Sight::All) {
            counts[part] += last - first;
        }
        sights[part] = sight;
    }

    // Fills the part's set from those of its followers and from its own plugins, and counts it.
    std::size_t Fill(std::size_t part, std::size_t ownFirst, std::size_t ownLast) {
        Set set{};
        for (std::size_t link = followersFrom[part]; link < followersFrom[part + 1]; ++link) {
            if (sights[followers[link]] == Sight::Some) {
                const Set& other = sets[followers[link]];
                for (std::size_t word = 0; word < kWords; ++word) {
                    set[word] |= other[word];
                }
            }
        }
        for (std::size_t own = ownFirst; own < ownLast; ++own) {
            set[own / kWordBits] |= std::uint64_t{1} << (own % kWordBits);
        }
        sets[part] = set;
        std::size_t seen = 0;
        for (const std::uint64_t word : set) {
            seen += static_cast<std::size_t>(std::popcount(word));
        }
        return seen;
    }

    const Rest& rest;
    std::size_t waiterCount = 0;
    std::vector<std::size_t> firstOf;  // of each part, among the plugins that are looked for, and their number
    std::vector<std::size_t> followersFrom;
    std::vector<std::size_t> followers;  // of all parts, one part behind the other
    std::vector<std::size_t> counts;
    std::vector<Sight> sights;
    std::vector<Set> sets;
};

constexpr std::size_t kMostHolders = 100;

// What is at the root of the waits in each part, by rank: what runs, then cycles. Only the lowest ranks are kept.
class RootSearch {
  public:
    using Ranks = std::vector<std::size_t>;  // ascending

    RootSearch(const Rest& theRest, const Standstill& standstill) : rest(theRest), ranks(rest.Parts().size()) {
        std::size_t rank = 0;
        for (const Standstill::Holder& holder : standstill.running) {
            ranks[rest.PartOf(holder.plugin)] = {rank++};
        }
        for (const Standstill::Loop& loop : standstill.loops) {
            ranks[rest.PartOf(loop.cycle.front().plugin)] = {rank++};
        }
        for (std::size_t part = ranks.size(); part-- > 0;) {
            rest.ForEachFollower(part, [&](std::size_t follower) { Add(ranks[follower], ranks[part]); });
        }
    }

    const Ranks& Of(PluginIndex plugin) const { return ranks[rest.PartOf(plugin)]; }

  private:
    static void Add(Ranks& to, const Ranks& from) {
        if (from.empty() || to == from) {
            return;
        }
        Ranks both;
        std::set_union(to.begin(), to.end(), from.begin(), from.end(), std::back_inserter(both));
        both.resize(std::min(both.size(), kMostHolders));
        to = std::move(both);
    }

    const Rest& rest;
    std::vector<Ranks> ranks;
};

std::vector<PluginIndex> PluginsOf(const RootSearch::Ranks& ranks, const Standstill& standstill) {
    std::vector<PluginIndex> plugins;
    for (const std::size_t rank : ranks) {
        if (rank < standstill.running.size()) {
            plugins.push_back(standstill.running[rank].plugin);
            continue;
        }
        for (const CycleStep& step : standstill.loops[rank - standstill.running.size()].cycle) {
            if (plugins.size() < kMostHolders) {
                plugins.push_back(step.plugin);
            }
        }
    }
    return plugins;
}

std::vector<BarrierIndex> ClosedBarriers(const BootPlugin& plugin, const Rest& rest) {
    std::vector<BarrierIndex> closed;
    for (const BarrierIndex barrier : plugin.requiredBarriers) {
        if (!rest.IsOpen(barrier) && std::find(closed.begin(), closed.end(), barrier) == closed.end()) {
            closed.push_back(barrier);
        }
    }
    return closed;
}

PluginIndex PluginOf(const Standstill::Holder& holder) {
    return holder.plugin;
}
PluginIndex PluginOf(const Standstill::Waiter& waiter) {
    return waiter.plugin;
}
PluginIndex PluginOf(const Standstill::Loop& loop) {
    return loop.cycle.front().plugin;
}

template <typename Item>
void SortByWeight(std::vector<Item>& items, const Boot& boot) {
    std::stable_sort(items.begin(), items.end(), [&](const Item& left, const Item& right) {
        return left.holdsUp != right.holdsUp
                   ? left.holdsUp > right.holdsUp
                   : boot.plugins[PluginOf(left)].Name() < boot.plugins[PluginOf(right)].Name();
    });
}

}  // namespace

std::vector<Progress> WithWhatMustBeOver(const Boot& boot, std::vector<Progress> progress) {
    std::vector<PluginIndex> begun;
    for (PluginIndex plugin = 0; plugin < boot.plugins.size(); ++plugin) {
        if (boot.plugins[plugin].Runs() && progress[plugin] != Progress::NotBegun) {
            begun.push_back(plugin);
        }
    }
    std::vector<bool> isOpen(boot.barriers.size());
    while (!begun.empty()) {
        const PluginIndex plugin = begun.back();
        begun.pop_back();
        for (const BarrierIndex barrier : boot.plugins[plugin].requiredBarriers) {
            if (isOpen[barrier]) {
                continue;
            }
            isOpen[barrier] = true;
            for (const PluginIndex provider : boot.barriers[barrier].providers) {
                if (std::exchange(progress[provider], Progress::Over) == Progress::NotBegun) {
                    begun.push_back(provider);
                }
            }
        }
    }
    return progress;
}

Standstill FindStandstill(const Boot& boot, const std::vector<Progress>& progress) {
    const Rest rest(boot, progress);
    const WaiterCount waiters(rest);

    Standstill standstill;
    for (PluginIndex plugin = 0; plugin < boot.plugins.size(); ++plugin) {
        if (rest.IsRunning(plugin)) {
            standstill.running.push_back({plugin, waiters.HeldUpBy(plugin)});
        }
    }
    for (Cycle& cycle : FindCycles(rest.Plugins())) {
        const std::size_t holdsUp = waiters.HeldUpBy(cycle.front().plugin) + 1 - cycle.size();
        standstill.loops.push_back({std::move(cycle), holdsUp});
    }
    SortByWeight(standstill.running, boot);
    SortByWeight(standstill.loops, boot);

    const RootSearch roots(rest, standstill);
    for (PluginIndex plugin = 0; plugin < boot.plugins.size(); ++plugin) {
        if (rest.HasToBegin(plugin) && !roots.Of(plugin).empty()) {
            standstill.waiting.push_back({plugin, ClosedBarriers(boot.plugins[plugin], rest),
                                          PluginsOf(roots.Of(plugin), standstill), waiters.HeldUpBy(plugin)});
        }
    }
    SortByWeight(standstill.waiting, boot);
    return standstill;
}

}  // namespace lofter::analyze

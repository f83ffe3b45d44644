// Barriers: the named synchronisation points through which plugins find each other.
//
// The plugins that provide a barrier are its dependencies, the plugins that require it are its dependents. The graph
// makes barriers on first mention, owns them and knows them by their names.
#pragma once

#include <cstdint>
#include <string>

#include "graph/Node.h"

namespace lofter {

class Graph;
struct Settings;

class InitBarrier : public Node {
  public:
    // The settings outlive the barrier.
    InitBarrier(const std::string& name, const Settings& runSettings);

    // Reports a barrier that plugins require and no plugin provides: as the host's alert, unless one method is being
    // invoked, and in the log. The plugins that require it run all the same.
    void Start() override;
    std::string DotAttributes() const override { return " shape=box"; }

  private:
    void ReportIfUnprovided() const;

    const Settings& settings;
};

// Closes the group of init.d daemons of one start priority. Groups run strictly one after another, in ascending order;
// the daemons of one group may run in parallel.
class PriorityBarrier : public InitBarrier {
  public:
    static std::string NameOf(std::uint32_t priority);

    // Made by Graph::GetPriorityBarrier alone, which gives it its place in the chain of priorities. The graph outlives
    // it.
    PriorityBarrier(Graph& owner, std::uint32_t ownPriority, const Settings& runSettings);

    void Start() override {}
    std::string DotAttributes() const override { return " shape=trapezium"; }

    // Puts a plugin into this barrier's group.
    void AddPlugin(Node& plugin);

    std::uint32_t Priority() const { return priority; }

  private:
    Graph& graph;
    std::int32_t priorityIndex = -1;  // position in the sorted priorities when last looked up
    const std::uint32_t priority;
};

}  // namespace lofter

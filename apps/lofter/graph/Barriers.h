// Barriers: the named synchronisation points through which plugins find each other, and the registry that holds them.
//
// The plugins that provide a barrier are its dependencies, the plugins that require it are its dependents. Barriers are
// created on first mention and live until the process ends. All functions take the graph lock.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "graph/Node.h"

namespace lofter {

class InitBarrier : public Node {
  public:
    explicit InitBarrier(const std::string& name);

    // Reports a barrier that plugins require and no plugin provides: as the host's alert, unless one method is being
    // invoked, and in the log. The plugins that require it run all the same.
    void Start() override;
    std::string DotAttributes() const override { return " shape=box"; }

  private:
    void ReportIfUnprovided() const;
};

// Closes the group of init.d daemons of one start priority. Groups run strictly one after another, in ascending order;
// the daemons of one group may run in parallel.
class PriorityBarrier : public InitBarrier {
  public:
    // Registers itself and takes its place in the chain of priorities.
    explicit PriorityBarrier(std::uint32_t priority);

    void Start() override {}
    std::string DotAttributes() const override { return " shape=trapezium"; }

    // Puts a plugin into this barrier's group.
    void AddPlugin(Node& plugin);

    std::uint32_t Priority() const { return priority; }

  private:
    void TakePlace();

    std::int32_t priorityIndex = -1;  // position in the sorted priorities when last looked up
    const std::uint32_t priority;
};

// The barrier of that name; null, or a new one if `create` says so, when there is none.
InitBarrier* GetBarrier(const std::string& name, bool create);

// Makes the barrier, which must live as long as the process, the registry's entry for the name. An earlier entry is
// replaced but lives on, since nodes may be linked to it.
void RegisterBarrier(InitBarrier* barrier, const std::string& name);

// Every registered barrier, in byte-wise order of the names.
std::vector<InitBarrier*> AllBarriers();

// The barrier of that priority, created when there is none.
PriorityBarrier* GetPriorityBarrier(std::uint32_t priority);

// Empties the registry, the priorities and the store of kept nodes. For tests and benchmarks, which build one graph
// after another: nodes of their own are destroyed before.
void ForgetGraph();

}  // namespace lofter

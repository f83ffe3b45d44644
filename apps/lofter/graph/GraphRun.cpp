#include "graph/GraphRun.h"

namespace lofter {

// One hold of the lock over all scheduling: the first pick already sees everything that is ready, so that one thread
// means one order.

void StartRun(const Graph& graph, const std::vector<Node*>& nodes, Executor& executor) {
    executor.Reserve(graph.Size());
    {
        GraphLock lock;
        for (Node* node : nodes) {
            node->ScheduleStart(executor);
        }
    }
    for (Node* node : nodes) {
        node->WaitStarted();
    }
}

void StopRun(const Graph& graph, const std::vector<Node*>& nodes, Executor& executor) {
    executor.Reserve(graph.Size());
    {
        GraphLock lock;
        for (Node* node : nodes) {
            node->ScheduleStop(executor);
        }
    }
    for (Node* node : nodes) {
        node->WaitStopped();
    }
}

}  // namespace lofter

// Drives a run over a sequence of nodes, in the order in which they were discovered. Barriers are not in the sequence;
// they are reached through the links. A cycle makes the run wait for ever. Both throw std::bad_alloc, with nothing
// scheduled, when there is no memory for a run.
#pragma once

#include <vector>

#include "graph/Executor.h"
#include "graph/Graph.h"

namespace lofter {

// Starts every node of the sequence after what it depends on, and returns when all have started.
void StartRun(const Graph& graph, const std::vector<Node*>& nodes, Executor& executor);

// Stops every node of the sequence after what depends on it, and returns when all have stopped.
void StopRun(const Graph& graph, const std::vector<Node*>& nodes, Executor& executor);

}  // namespace lofter

// Start runs of graphs whose nodes do no work: what the orchestrator itself costs per node. Building the graph is not
// counted. The counter `per_node` is the figure to read: it should not grow with the graph.

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "base/Settings.h"
#include "graph/Executor.h"
#include "graph/Graph.h"
#include "graph/GraphRun.h"

namespace {

using lofter::Graph;
using lofter::Node;

constexpr int kLayer = 100;

class IdleNode : public Node {
  public:
    IdleNode() : Node("node", kDefaultClass) {}
    void Start() override {}
    std::string DotAttributes() const override { return {}; }
};

using Nodes = std::vector<Node*>;

Nodes MakeNodes(Graph& graph, int count) {
    Nodes nodes;
    for (int i = 0; i < count; ++i) {
        nodes.push_back(&graph.Add(std::make_unique<IdleNode>()));
    }
    return nodes;
}

void LinkNothing(Graph&, const Nodes&) {}

void LinkChain(Graph&, const Nodes& nodes) {
    for (std::size_t i = 1; i < nodes.size(); ++i) {
        nodes[i]->AddDependency(*nodes[i - 1]);
    }
}

void LinkLayers(Graph& graph, const Nodes& nodes) {
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        const std::size_t layer = i / kLayer;
        graph.Provide(*nodes[i], "layer" + std::to_string(layer));
        if (layer > 0) {
            graph.Require(*nodes[i], "layer" + std::to_string(layer - 1));
        }
    }
}

void RunGraph(benchmark::State& state, void (*link)(Graph&, const Nodes&), bool randomize) {
    const lofter::Settings settings;
    const int count = static_cast<int>(state.range(0));
    const int threads = static_cast<int>(state.range(1));
    for ([[maybe_unused]] auto _ : state) {
        Graph graph(settings);
        const Nodes nodes = MakeNodes(graph, count);
        link(graph, nodes);
        lofter::Executor executor(threads, randomize);
        const auto start = std::chrono::steady_clock::now();
        lofter::StartRun(graph, nodes, executor);
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(elapsed.count());
    }
    state.counters["per_node"] = benchmark::Counter(static_cast<double>(state.iterations()) * count,
                                                    benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void Sizes(benchmark::internal::Benchmark* graph) {
    graph->ArgNames({"nodes", "threads"})->UseManualTime()->Unit(benchmark::kMicrosecond);
    for (const int threads : {1, 4}) {
        for (const int nodes : {1'000, 10'000, 100'000}) {
            graph->Args({nodes, threads});
        }
    }
}

BENCHMARK_CAPTURE(RunGraph, independent, LinkNothing, false)->Apply(Sizes);
BENCHMARK_CAPTURE(RunGraph, chain, LinkChain, false)->Apply(Sizes);
BENCHMARK_CAPTURE(RunGraph, layers, LinkLayers, false)->Apply(Sizes);
// A random pick looks at every node that is ready: here `per_node` does grow, in proportion.
BENCHMARK_CAPTURE(RunGraph, independent_randomized, LinkNothing, true)
    ->ArgNames({"nodes", "threads"})
    ->Args({1'000, 1})
    ->Args({10'000, 1})
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace

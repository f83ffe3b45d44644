#include "graph/NodeStore.h"

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

namespace lofter {

namespace {

using Links = std::vector<Node*>;

class StandIn : public Node {
  public:
    explicit StandIn(const std::string& leavingName) : Node(leavingName, kDefaultClass) { MarkStarted(); }
    void Start() override {}
    std::string DotAttributes() const override { return {}; }
};

// Each node that the links lead to once, with how often they do.
template <typename Action>
void ForEachNeighbour(Links links, Action action) {
    std::sort(links.begin(), links.end());
    for (auto first = links.begin(); first != links.end();) {
        const auto end = std::upper_bound(first, links.end(), *first);
        action(**first, end - first);
        first = end;
    }
}

// Never destroyed: worker threads may still look at nodes while the process exits.
std::vector<std::unique_ptr<Node>>& KeptNodes() {
    static auto* nodes = new std::vector<std::unique_ptr<Node>>;
    return *nodes;
}

}  // namespace

Node* NodeStore::KeepNode(std::unique_ptr<Node> node) {
    GraphLock lock;
    return KeptNodes().emplace_back(std::move(node)).get();
}

void NodeStore::MakeRoom() {
    GraphLock lock;
    std::vector<std::unique_ptr<Node>>& nodes = KeptNodes();
    if (nodes.size() == nodes.capacity()) {
        nodes.reserve(2 * nodes.size() + 1);
    }
}

void NodeStore::Clear() {
    GraphLock lock;
    for (const std::unique_ptr<Node>& node : KeptNodes()) {
        node->dependencies.clear();
        node->dependents.clear();
    }
    KeptNodes().clear();
}

void NodeStore::LeaveStandIn(Node& leaving) noexcept {
    GraphLock lock;
    Node* standIn = nullptr;
    try {
        Links dependencies = leaving.dependencies;
        Links dependents = leaving.dependents;
        // Kept before it has links: destroyed with links, it would leave a stand-in itself, and so on without end.
        standIn = Keep(std::make_unique<StandIn>(leaving.name));
        standIn->dependencies = std::move(dependencies);
        standIn->dependents = std::move(dependents);
    } catch (...) {
        standIn = nullptr;
    }

    // Looked for from the back: what is destroyed was linked a moment ago, as a rule.
    const auto replaceIn = [&](Links& links, std::ptrdiff_t times) {
        for (auto link = links.rbegin(); link != links.rend() && times > 0; ++link) {
            if (*link == &leaving) {
                *link = standIn;
                --times;
            }
        }
        if (standIn == nullptr) {
            std::erase(links, nullptr);
        }
    };
    if (standIn != nullptr) {
        std::replace(standIn->dependencies.begin(), standIn->dependencies.end(), &leaving,
                     standIn);  // linked to itself
        std::replace(standIn->dependents.begin(), standIn->dependents.end(), &leaving, standIn);
    }
    ForEachNeighbour(std::move(leaving.dependencies),
                     [&](Node& dependency, std::ptrdiff_t times) { replaceIn(dependency.dependents, times); });
    ForEachNeighbour(std::move(leaving.dependents),
                     [&](Node& dependent, std::ptrdiff_t times) { replaceIn(dependent.dependencies, times); });
}

}  // namespace lofter

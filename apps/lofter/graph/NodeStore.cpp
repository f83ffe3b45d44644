#include "graph/NodeStore.h"

#include <algorithm>
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

// Each node once, however often it was linked: all links to it are looked through for each.
Links Distinct(Links links) {
    std::sort(links.begin(), links.end());
    links.erase(std::unique(links.begin(), links.end()), links.end());
    return links;
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
        auto node = std::make_unique<StandIn>(leaving.name);
        node->dependencies = leaving.dependencies;
        node->dependents = leaving.dependents;
        standIn = Keep(std::move(node));
    } catch (...) {
        standIn = nullptr;
    }

    const auto replaceIn = [&](Links& links) {
        if (standIn != nullptr) {
            std::replace(links.begin(), links.end(), &leaving, standIn);
        } else {
            std::erase(links, &leaving);
        }
    };
    if (standIn != nullptr) {
        replaceIn(standIn->dependencies);  // a node may be linked to itself
        replaceIn(standIn->dependents);
    }
    for (Node* dependency : Distinct(std::move(leaving.dependencies))) {
        replaceIn(dependency->dependents);
    }
    for (Node* dependent : Distinct(std::move(leaving.dependents))) {
        replaceIn(dependent->dependencies);
    }
}

}  // namespace lofter

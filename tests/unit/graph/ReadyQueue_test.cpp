#include "graph/ReadyQueue.h"

#include <cstdlib>
#include <list>
#include <memory>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "graph/Executor.h"
#include "support/Faults.h"

namespace lofter {
namespace {

class PlainNode : public Node {
  public:
    PlainNode(int number, std::uint32_t nodeClass) : Node(std::to_string(number), nodeClass) {}
    void Start() override {}
    std::string DotAttributes() const override { return {}; }
};

// The rule as the executor's users know it: walk the waiting nodes from front to back and keep the best.
Node& TakeByWalking(std::list<Node*>& queue, bool random) {
    std::vector<std::list<Node*>::iterator> candidates;
    std::uint32_t bestClass = 0xffffffff;
    std::int32_t bestDepth = 0;
    for (auto place = queue.begin(); place != queue.end(); ++place) {
        Node& node = **place;
        const std::int32_t depth =
            node.State() == NodeState::StartQueued ? node.DependentDepth() : node.DependencyDepth();
        if (node.ScheduleClass() < bestClass) {
            candidates = {place};
            bestClass = node.ScheduleClass();
            bestDepth = depth;
        } else if (node.ScheduleClass() == bestClass && depth > bestDepth) {
            candidates = {place};
            bestDepth = depth;
        } else if (node.ScheduleClass() == bestClass && depth == bestDepth) {
            candidates.push_back(place);
        }
    }
    const std::size_t index = random ? static_cast<std::size_t>(std::rand()) % candidates.size() : 0;
    Node& taken = **candidates.at(index);
    queue.erase(candidates.at(index));
    return taken;
}

// A random forest of links, so that depths vary, and every node put into one of the queued states.
std::vector<std::unique_ptr<PlainNode>> RandomNodes(std::mt19937& random, Executor& executor) {
    std::vector<std::unique_ptr<PlainNode>> nodes;
    const int count = 1 + static_cast<int>(random() % 60);
    for (int i = 0; i < count; ++i) {
        nodes.push_back(std::make_unique<PlainNode>(i, random() % 4 == 0 ? 3 : 1));
        if (i > 0 && random() % 2 == 0) {
            nodes.back()->AddDependency(*nodes[random() % static_cast<unsigned>(i)]);
        }
    }
    for (const auto& node : nodes) {
        node->MarkStarted();
    }
    for (const auto& node : nodes) {
        if (random() % 2 == 0) {
            node->ScheduleStop(executor);  // all are started, so each is queued for stopping
        }
    }
    return nodes;
}

class ReadyQueueAgainstTheWalk : public testing::TestWithParam<bool> {};

TEST_P(ReadyQueueAgainstTheWalk, TakesExactlyTheSameNodes) {
    const bool isRandom = GetParam();
    for (unsigned seed = 0; seed < 300; ++seed) {
        std::mt19937 random(seed);
        Executor executor(0, false);
        const std::vector<std::unique_ptr<PlainNode>> nodes = RandomNodes(random, executor);

        // The same pushes and takes, interleaved at random, on the queue and on the walked list.
        std::vector<std::string> fromQueue;
        std::vector<std::string> fromWalk;
        ReadyQueue queue;
        std::list<Node*> walked;
        const auto take = [&] {
            std::srand(seed + static_cast<unsigned>(fromQueue.size()));
            fromQueue.push_back(queue.Take(isRandom).Name());
            std::srand(seed + static_cast<unsigned>(fromWalk.size()));
            fromWalk.push_back(TakeByWalking(walked, isRandom).Name());
        };
        for (const auto& node : nodes) {
            queue.Push(*node);
            walked.push_back(node.get());
            if (random() % 3 == 0) {
                take();
            }
        }
        while (!walked.empty()) {
            ASSERT_FALSE(queue.Empty());
            take();
        }
        EXPECT_TRUE(queue.Empty());
        ASSERT_EQ(fromQueue, fromWalk) << "seed " << seed;
    }
}

INSTANTIATE_TEST_SUITE_P(InOrderAndAtRandom, ReadyQueueAgainstTheWalk, testing::Bool());

TEST(ReadyQueue, DrawsOneRandomNumberPerTake) {
    PlainNode a(1, 1);
    PlainNode b(2, 1);
    ReadyQueue queue;
    queue.Push(a);
    queue.Push(b);
    std::srand(7);
    queue.Take(true);
    queue.Take(true);
    const int third = std::rand();
    std::srand(7);
    static_cast<void>(std::rand());
    static_cast<void>(std::rand());
    EXPECT_EQ(third, std::rand());
}

TEST(ReadyQueue, DrawsNoRandomNumberWhenItIsNotAskedTo) {
    PlainNode a(1, 1);
    ReadyQueue queue;
    queue.Push(a);
    std::srand(7);
    queue.Take(false);
    const int first = std::rand();
    std::srand(7);
    EXPECT_EQ(first, std::rand());
}

TEST(ReadyQueue, TakesWithoutMemoryWhereRoomWasReserved) {
    for (const bool isRandom : {false, true}) {
        std::list<PlainNode> nodes;
        ReadyQueue queue;
        queue.Reserve(100);
        for (int i = 0; i < 100; ++i) {
            nodes.emplace_back(i, 1);
        }
        const test::FailingCall failing(test::Call::OperatorNew, 0);
        for (PlainNode& node : nodes) {
            queue.Push(node);
        }
        while (!queue.Empty()) {
            queue.Take(isRandom);
        }
        EXPECT_FALSE(failing.Happened());
    }
}

TEST(ReadyQueue, TakesEqualNodesInEveryOrderOverDifferentRandomNumbers) {
    PlainNode a(1, 1);
    PlainNode b(2, 1);
    bool isFirstA = false;
    bool isFirstB = false;
    for (unsigned seed = 0; seed < 64; ++seed) {
        ReadyQueue queue;
        queue.Push(a);
        queue.Push(b);
        std::srand(seed);
        (&queue.Take(true) == &a ? isFirstA : isFirstB) = true;
    }
    EXPECT_TRUE(isFirstA);
    EXPECT_TRUE(isFirstB);
}

}  // namespace
}  // namespace lofter

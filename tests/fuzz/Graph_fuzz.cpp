// The bytes are a graph and a run of it. The first three: how many threads there are, what the run does (start, stop,
// or one after the other; picking at random or not), and where random numbers begin. Then one node after another: a
// byte for its kind (its schedule class, whether it joins a priority group, counts as started from the beginning, or
// is rejected) and for how long it works, one for how many links it has, and one for each link: to barriers
// that it requires, to barriers that it provides, and straight to other nodes, later ones and itself included. So there
// are cycles, too; what waits for one must wait for ever, while the rest goes on.
//
// The program's graph is built beside the model's and has the same links. With one thread the nodes work in the model's
// order. With many, everything works once, after what it waits for, on no more threads than there are. In the end every
// node has the model's state, and the log has the model's complaints.
#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <mutex>

#include <sched.h>

#include "GraphModel.h"
#include "base/Settings.h"
#include "graph/Executor.h"
#include "graph/Graph.h"
#include "graph/GraphRun.h"
#include "support/Bytes.h"
#include "support/LogCapture.h"
#include "support/Require.h"

namespace lofter::fuzz {
namespace {

using Id = GraphModel::Id;

constexpr std::size_t kMostNodes = 40;
constexpr std::array<unsigned, 6> kPriorities = {0, 1, 2, 10, 99, 4294967295U};

// The last one looks like the barrier of a priority group.
const std::array<std::string, 8> kBarriers = {"a", "b", "c", "d", "e", "f", "g", "_<->_priority_<->_1"};

// What worked when. Several threads write.
class Journal {
  public:
    void Begin(Id node) {
        const std::lock_guard<std::mutex> held(mutex);
        begun.push_back(node);
        beginnings[node] = ++time;
        mostAtOnce = std::max(mostAtOnce, ++atOnce);
    }
    void End(Id node) {
        const std::lock_guard<std::mutex> held(mutex);
        ends[node] = ++time;
        --atOnce;
    }

    // Read when nobody writes any more.
    std::vector<Id> begun;
    std::map<Id, int> beginnings;
    std::map<Id, int> ends;
    int mostAtOnce = 0;

  private:
    std::mutex mutex;
    int time = 0;
    int atOnce = 0;
};

class WorkNode : public Node {
  public:
    WorkNode(const std::string& nodeName, unsigned nodeClass, Id nodeId, std::size_t nodeLength, Journal*& nodeJournal)
        : Node(nodeName, nodeClass), id(nodeId), length(nodeLength), journal(nodeJournal) {}
    void Start() override { Work(); }
    void Stop() override { Work(); }
    std::string DotAttributes() const override { return {}; }

  private:
    void Work() {
        journal->Begin(id);
        for (std::size_t pause = 0; pause < length; ++pause) {
            ::sched_yield();
        }
        journal->End(id);
    }

    const Id id;
    const std::size_t length;
    Journal*& journal;
};

// The same graph twice: the program's and the model's.
class TwinGraph {
  public:
    explicit TwinGraph(Bytes& bytes) {
        std::vector<std::pair<Id, std::size_t>> toLaterNodes;
        while (!bytes.Empty() && works.size() < kMostNodes) {
            AddNode(bytes, toLaterNodes);
        }
        for (const auto& [id, target] : toLaterNodes) {
            if (target < works.size()) {
                LinkStraight(id, works[target]);
            }
        }
    }
    TwinGraph(const TwinGraph&) = delete;
    TwinGraph& operator=(const TwinGraph&) = delete;

    void HasTheSameLinks() const {
        for (const auto& [id, node] : program) {
            Require(Names(node->Dependencies()) == Names(model[id].dependencies),
                    "what " + node->Name() + " waits for");
            Require(Names(node->Dependents()) == Names(model[id].dependents), "what waits for " + node->Name());
        }
    }

    void HasTheSameStates() const {
        for (const auto& [id, node] : program) {
            Require(static_cast<int>(node->State()) == static_cast<int>(model[id].state), "state of " + node->Name());
        }
    }

    // Those that are to run, in the order of making.
    std::vector<Id> Sequence() const {
        std::vector<Id> sequence;
        std::copy_if(works.begin(), works.end(), std::back_inserter(sequence),
                     [this](Id id) { return program.contains(id); });
        return sequence;
    }

    GraphModel model;
    Settings settings = InvokingOne();
    Graph graph{settings};
    std::map<Id, Node*> program;  // without what was rejected
    Journal* journal = nullptr;   // of the run that is going on

  private:
    // Where one method is invoked, barriers that nobody provides are logged and raise no alert on the machine.
    static Settings InvokingOne() {
        Settings invoking;
        invoking.invoke = true;
        return invoking;
    }

    void AddNode(Bytes& bytes, std::vector<std::pair<Id, std::size_t>>& toLaterNodes) {
        const std::uint8_t kind = bytes.Byte();
        const std::uint8_t links = bytes.Byte();
        const bool joinsGroup = kind % 4 == 3;
        const unsigned scheduleClass = kind % 4 < 2 ? Node::kDefaultClass : Node::kInitScriptClass;
        const std::string name = "n" + std::to_string(works.size());

        const Id id = model.AddWork(name, scheduleClass);
        works.push_back(id);
        program[id] = &graph.Add(std::make_unique<WorkNode>(name, scheduleClass, id, kind >> 4U & 3U, journal));
        for (int count = links & 7; count > 0; --count) {
            LinkBarrier(id, kBarriers[bytes.Below(kBarriers.size())], true);
        }
        for (int count = links >> 3 & 7; count > 0; --count) {
            LinkBarrier(id, kBarriers[bytes.Below(kBarriers.size())], false);
        }
        for (int count = links >> 6; count > 0; --count) {
            const std::size_t target = bytes.Below(kMostNodes);
            if (target < works.size()) {
                LinkStraight(id, works[target]);
            } else {
                toLaterNodes.emplace_back(id, target);
            }
        }
        if (joinsGroup) {
            JoinGroup(id, kPriorities[bytes.Below(kPriorities.size())]);
        }
        Settle(id, (kind & 4U) != 0, (kind & 8U) != 0);
    }

    // What is rejected is on no list of what to run, and counts as started wherever it was linked.
    void Settle(Id id, bool isMarked, bool isRejected) {
        if (isMarked || isRejected) {
            program[id]->MarkStarted();
            model.MarkStarted(id);
        }
        if (isRejected) {
            program.erase(id);
        }
    }

    void LinkBarrier(Id id, const std::string& name, bool isRequired) {
        const Id barrier = model.Barrier(name);
        program[barrier] = graph.GetBarrier(name, true);
        if (isRequired) {
            program[id]->AddDependency(*program[barrier]);
            model.Link(id, barrier);
        } else {
            program[id]->AddDependent(*program[barrier]);
            model.Link(barrier, id);
        }
    }

    void LinkStraight(Id id, Id other) {
        if (program.contains(id) && program.contains(other)) {
            program[id]->AddDependency(*program[other]);
            model.Link(id, other);
        }
    }

    void JoinGroup(Id id, unsigned priority) {
        lofter::PriorityBarrier* barrier = graph.GetPriorityBarrier(priority);
        barrier->AddPlugin(*program[id]);
        const Id modelled = model.PriorityBarrier(priority);
        model.JoinPriority(id, modelled);
        program[modelled] = barrier;
    }

    std::vector<std::string> Names(const Node::Links& links) const {
        std::vector<std::string> names;
        std::transform(links.begin(), links.end(), std::back_inserter(names),
                       [](const Node* node) { return node->Name(); });
        return names;
    }
    std::vector<std::string> Names(const std::vector<Id>& links) const {
        std::vector<std::string> names;
        std::transform(links.begin(), links.end(), std::back_inserter(names), [this](Id id) { return model[id].name; });
        return names;
    }

    std::vector<Id> works;
};

// One run of both graphs.
class TwinRun {
  public:
    TwinRun(TwinGraph& twins, bool starts, int threadCount, bool picksAtRandom)
        : graph(twins), starting(starts), threads(threadCount), random(picksAtRandom) {
        for (Id id = 0; id < graph.model.Size(); ++id) {
            (graph.model[id].state == GraphModel::State::Idle ? idle : touched).insert(id);
        }
    }

    void Compare(unsigned seed) {
        const std::vector<Id> sequence = graph.Sequence();
        std::srand(seed);
        expected = starting ? graph.model.Start(sequence, random) : graph.model.Stop(sequence, random);
        std::srand(seed);
        RunProgram(sequence);
        graph.HasTheSameStates();
        WorkedAsExpected();
        ComplainedAsExpected();
        if (touched.empty() || starting) {
            WorkedInTurn();
        }
    }

  private:
    // Until everything is finished that the model finishes: barriers, which nobody else waits for, as well.
    void RunProgram(const std::vector<Id>& sequence) {
        graph.journal = &journal;
        Executor executor(threads, random);
        if (std::all_of(sequence.begin(), sequence.end(), [this](Id id) { return IsFinished(id); })) {
            std::vector<Node*> nodes;
            std::transform(sequence.begin(), sequence.end(), std::back_inserter(nodes),
                           [this](Id id) { return graph.program[id]; });
            starting ? StartRun(graph.graph, nodes, executor) : StopRun(graph.graph, nodes, executor);
        } else {
            const GraphLock held;
            for (const Id id : sequence) {
                Node* node = graph.program[id];
                starting ? node->ScheduleStart(executor) : node->ScheduleStop(executor);
            }
        }
        for (const auto& [id, node] : graph.program) {
            if (IsFinished(id)) {
                starting ? node->WaitStarted() : node->WaitStopped();
            }
        }
    }

    bool IsFinished(Id id) const {
        return graph.model[id].state == (starting ? GraphModel::State::Started : GraphModel::State::Stopped);
    }

    void WorkedAsExpected() const {
        std::vector<Id> works;
        std::copy_if(expected.worked.begin(), expected.worked.end(), std::back_inserter(works),
                     [this](Id id) { return graph.model[id].kind == GraphModel::Kind::Work; });
        Require(journal.mostAtOnce <= threads, "no more at once than there are threads");
        if (HasOneOrder()) {
            Require(journal.begun == works, "one thread means one order");
            return;
        }
        std::vector<Id> begun = journal.begun;
        std::sort(begun.begin(), begun.end());
        std::sort(works.begin(), works.end());
        Require(begun == works, "what can work works, once");
    }

    void ComplainedAsExpected() const {
        std::vector<std::string> lines = log.Lines();
        std::vector<std::string> messages = expected.messages;
        if (!HasOneOrder()) {
            std::sort(lines.begin(), lines.end());
            std::sort(messages.begin(), messages.end());
        }
        Require(lines == messages, "barriers that nobody provides are named");
    }

    // Depths, which decide between nodes that are ready, mean nothing where there is a cycle.
    bool HasOneOrder() const { return threads == 1 && !graph.model.HasCycle(); }

    // Nothing begins before everything has ended that it waits for, directly or through barriers.
    void WorkedInTurn() const {
        for (const auto& [id, beginning] : journal.beginnings) {
            std::set<Id> seen;
            std::vector<Id> before = WaitedFor(id);
            while (!before.empty()) {
                const Id other = before.back();
                before.pop_back();
                if (!idle.contains(other) || !seen.insert(other).second) {
                    continue;  // counted as started all along
                }
                const auto end = journal.ends.find(other);
                Require(end == journal.ends.end() ? graph.model[other].kind != GraphModel::Kind::Work
                                                  : end->second < beginning,
                        graph.model[id].name + " works after " + graph.model[other].name);
                const std::vector<Id> further = WaitedFor(other);
                before.insert(before.end(), further.begin(), further.end());
            }
        }
    }

    const std::vector<Id>& WaitedFor(Id id) const {
        return starting ? graph.model[id].dependencies : graph.model[id].dependents;
    }

    TwinGraph& graph;
    const bool starting;
    const int threads;
    const bool random;
    std::set<Id> idle;  // at the beginning
    std::set<Id> touched;
    Journal journal;
    GraphModel::RunResult expected;
    const test::LogCapture log;
};

}  // namespace
}  // namespace lofter::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lofter::fuzz;
    Bytes bytes(data, size);
    const int threads = static_cast<int>(1 + bytes.Below(8));
    const std::uint8_t run = bytes.Byte();
    const unsigned seed = bytes.Byte();
    const bool random = (run & 1U) != 0;
    const bool startsFirst = (run & 2U) == 0;

    TwinGraph graph(bytes);
    graph.HasTheSameLinks();
    TwinRun(graph, startsFirst, threads, random).Compare(seed);
    if ((run & 4U) != 0) {
        TwinRun(graph, !startsFirst, threads, random).Compare(seed);
    }
    return 0;
}

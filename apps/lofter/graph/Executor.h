// Runs the graph: a fixed pool of worker threads that take ready nodes from one shared queue and run their start or
// stop work, which in turn makes more nodes ready.
//
//      driver: ScheduleStart ──▶ Enqueue ──▶ ready queue ──▶ worker: Take, RunQueued ──▶ Finish ──▶ followers: Enqueue
//                                                                                          └──────▶ driver: WaitStarted
//
// With one thread the run is a deterministic serial order: what is ready first goes by schedule class, then by the
// longest chain of nodes behind it (the critical path), then by the time it has waited. With several threads
// independent nodes run at once, in the same order of preference.
//
// The queue and the shutdown flag are guarded by the graph lock; idle workers wait on `workAvailable` with it. No lock
// is held while a node works. The driver waits for every node before it destroys the executor, which does not drain the
// queue.
#pragma once

#include <cstddef>
#include <vector>

#include <pthread.h>

#include "base/GraphLock.h"
#include "graph/ReadyQueue.h"

namespace lofter {

class Executor {
  public:
    // Starts the workers; a count below 1 starts none. With `randomize` the choice among equally good nodes is random.
    // Throws Exception with "Condition variable for Executor could not be initialized", or, when only some of the
    // threads could be created, with "Could not create enough execution threads. (<created> created,
    // <requested>requested)".
    Executor(int threadCount, bool randomize);

    // Lets every worker finish the node it is running, and joins them.
    virtual ~Executor();

    Executor(const Executor&) = delete;
    Executor& operator=(const Executor&) = delete;

    // Room for that many nodes that are ready at once: queueing them cannot fail from then on. Throws std::bad_alloc.
    void Reserve(std::size_t nodes);

    // Adds a node that has just been put into one of the queued states.
    void Enqueue(Node& node);

    // Removes and returns the node to run next, null when none is ready. For whoever runs the nodes himself, with an
    // executor that has no workers, as these do.
    Node* Take();

  private:
    static void* WorkerMain(void* executor);
    bool CreateWorker();
    void Work();
    void JoinWorkers();

    GraphCondition workAvailable;
    ReadyQueue readyQueue;
    std::vector<pthread_t> threads;
    bool shutdown = false;
    const bool randomize;
};

}  // namespace lofter

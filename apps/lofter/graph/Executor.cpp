#include "graph/Executor.h"

#include <new>
#include <string>

#include "base/Exception.h"

namespace lofter {

Executor::Executor(int threadCount, bool randomizePicks)
    : workAvailable("Condition variable for Executor could not be initialized"), randomize(randomizePicks) {
    int created = 0;
    while (created < threadCount && CreateWorker()) {
        ++created;
    }
    if (created < threadCount) {
        // The workers need the lock to see the shutdown, so it is not held while they are joined.
        JoinWorkers();
        // The missing blank is kept on purpose: operators match on this text.
        throw Exception("Could not create enough execution threads. (" + std::to_string(created) + " created, " +
                        std::to_string(threadCount) + "requested)");
    }
}

Executor::~Executor() {
    JoinWorkers();
}

bool Executor::CreateWorker() {
    try {
        threads.reserve(threads.size() + 1);
        pthread_t thread{};
        if (pthread_create(&thread, nullptr, WorkerMain, this) != 0) {
            return false;
        }
        threads.push_back(thread);
        return true;
    } catch (const std::bad_alloc&) {
        return false;  // like a thread that the system refuses: those that exist must be joined
    }
}

void Executor::JoinWorkers() {
    {
        GraphLock lock;
        shutdown = true;
        workAvailable.Broadcast();
    }
    for (pthread_t thread : threads) {
        pthread_join(thread, nullptr);
    }
}

void Executor::Reserve(std::size_t nodes) {
    GraphLock lock;
    readyQueue.Reserve(nodes);
}

void Executor::Enqueue(Node& node) {
    GraphLock lock;
    readyQueue.Push(node);
    workAvailable.Broadcast();
}

Node* Executor::Take() {
    GraphLock lock;
    return readyQueue.Empty() ? nullptr : &readyQueue.Take(randomize);
}

void* Executor::WorkerMain(void* executor) {
    static_cast<Executor*>(executor)->Work();
    return nullptr;
}

void Executor::Work() {
    GraphLock lock;
    while (!shutdown) {
        if (Node* node = Take(); node != nullptr) {
            node->RunQueued(*this, lock);
        } else {
            workAvailable.Wait();
        }
    }
}

}  // namespace lofter

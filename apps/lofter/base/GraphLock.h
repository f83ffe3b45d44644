// The one program-wide lock.
//
// It guards the graph (links, depth caches, node states, barriers by name), the executor's ready queue, the
// creation of the settings record, the once-per-process host-profile check, the construction of init.d plugins and the
// reset of the command executor process. It is recursive, because scheduling a node schedules its dependencies. There
// is no other lock in the orchestrator, hence no lock order. Plugin work runs without it.
//
// A forked child must never take it: the thread that held it at the fork does not exist there.
#pragma once

#include <pthread.h>

namespace lofter {

// Scoped ownership. Takes the lock on construction; on destruction releases it only if it still holds it.
class GraphLock {
  public:
    GraphLock();
    ~GraphLock();
    GraphLock(const GraphLock&) = delete;
    GraphLock& operator=(const GraphLock&) = delete;

    void Release();
    void Acquire();

    // Whether the calling thread holds the program-wide lock, through whichever guard.
    static bool HeldByCaller();

  private:
    bool held = false;
};

// A condition variable that is waited on with the program-wide lock.
class GraphCondition {
  public:
    // Throws Exception with the given text when the system refuses a condition variable.
    explicit GraphCondition(const char* failureText);
    ~GraphCondition();
    GraphCondition(const GraphCondition&) = delete;
    GraphCondition& operator=(const GraphCondition&) = delete;

    // The caller holds the lock exactly once; it holds it again when the wait ends. Wakes up spuriously.
    void Wait();
    void Broadcast();

  private:
    pthread_cond_t condition;
};

}  // namespace lofter

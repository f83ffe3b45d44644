#include "base/GraphLock.h"

#include <atomic>

#include "base/Exception.h"

namespace lofter {

namespace {

pthread_mutex_t graphMutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;

// Kept beside the mutex. Only the owner writes them; HeldByCaller reads them from any thread, hence atomics. Every
// count is published after the owner that it belongs to: a thread that sees another one's count must not see itself as
// owner.
std::atomic<int> lockCount{0};
std::atomic<pthread_t> lockOwner{};

void NoteTaken(int count) {
    lockOwner.store(pthread_self(), std::memory_order_relaxed);
    lockCount.store(count, std::memory_order_release);
}

}  // namespace

GraphLock::GraphLock() {
    Acquire();
}

GraphLock::~GraphLock() {
    if (held) {
        Release();
    }
}

void GraphLock::Acquire() {
    pthread_mutex_lock(&graphMutex);
    NoteTaken(lockCount.load(std::memory_order_relaxed) + 1);
    held = true;
}

void GraphLock::Release() {
    held = false;
    lockCount.store(lockCount.load(std::memory_order_relaxed) - 1, std::memory_order_release);
    pthread_mutex_unlock(&graphMutex);
}

bool GraphLock::HeldByCaller() {
    return lockCount.load(std::memory_order_acquire) >= 1 &&
           pthread_equal(lockOwner.load(std::memory_order_relaxed), pthread_self()) != 0;
}

GraphCondition::GraphCondition(const char* failureText) {
    if (pthread_cond_init(&condition, nullptr) != 0) {
        throw Exception(failureText);
    }
}

GraphCondition::~GraphCondition() {
    pthread_cond_destroy(&condition);
}

void GraphCondition::Wait() {
    lockCount.store(0, std::memory_order_release);
    pthread_cond_wait(&condition, &graphMutex);
    NoteTaken(1);
}

void GraphCondition::Broadcast() {
    pthread_cond_broadcast(&condition);
}

}  // namespace lofter

#include "support/Faults.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>

#include <pthread.h>

namespace lofter::test {

namespace {

constexpr int kNeverFails = INT_MAX;

std::array<std::atomic<int>, 3> successesLeft{kNeverFails, kNeverFails, kNeverFails};

std::atomic<int>& SuccessesLeft(Call call) {
    return successesLeft.at(static_cast<std::size_t>(call));
}

bool MustFail(Call call) {
    std::atomic<int>& left = SuccessesLeft(call);
    return left != kNeverFails && left.fetch_sub(1) <= 0;
}

}  // namespace

FailingCall::FailingCall(Call failingCall, int successes) : call(failingCall) {
    SuccessesLeft(call) = successes;
}

FailingCall::~FailingCall() {
    SuccessesLeft(call) = kNeverFails;
}

}  // namespace lofter::test

// The linker sends calls here and keeps the real functions under the other names.
extern "C" {

int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __real_pthread_cond_init(pthread_cond_t*, const pthread_condattr_t*);
int __real_system(const char*);
int __wrap_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __wrap_pthread_cond_init(pthread_cond_t*, const pthread_condattr_t*);
int __wrap_system(const char*);

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                          void* argument) {
    if (lofter::test::MustFail(lofter::test::Call::PthreadCreate)) {
        return EAGAIN;
    }
    return __real_pthread_create(thread, attributes, function, argument);
}

int __wrap_pthread_cond_init(pthread_cond_t* condition, const pthread_condattr_t* attributes) {
    if (lofter::test::MustFail(lofter::test::Call::PthreadCondInit)) {
        return ENOMEM;
    }
    return __real_pthread_cond_init(condition, attributes);
}

int __wrap_system(const char* command) {
    if (lofter::test::MustFail(lofter::test::Call::System)) {
        errno = EAGAIN;
        return -1;
    }
    return __real_system(command);
}

}  // extern "C"

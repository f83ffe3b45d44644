#include "support/Faults.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <new>

#include <dirent.h>
#include <pthread.h>

namespace lofter::test {

namespace {

constexpr int kNeverFails = INT_MAX;

struct Plan {
    std::atomic<int> successesLeft = kNeverFails;
    std::atomic<int> failures = INT_MAX;
};
std::array<Plan, 4> plans;
std::atomic<int> joins = 0;

Plan& PlanOf(Call call) {
    return plans.at(static_cast<std::size_t>(call));
}

bool MustFail(Call call) {
    Plan& plan = PlanOf(call);
    if (plan.successesLeft == kNeverFails) {
        return false;
    }
    const int left = plan.successesLeft.fetch_sub(1);
    return left <= 0 && left > -plan.failures;
}

}  // namespace

FailingCall::FailingCall(Call failingCall, int successes, int failures) : call(failingCall) {
    PlanOf(call).failures = failures;
    PlanOf(call).successesLeft = successes;
}

FailingCall::~FailingCall() {
    PlanOf(call).successesLeft = kNeverFails;
}

bool FailingCall::Happened() const {
    return PlanOf(call).successesLeft < 0;
}

int Joins() {
    return joins;
}

}  // namespace lofter::test

// The linker sends calls here and keeps the real functions under the other names.
extern "C" {

int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __real_pthread_cond_init(pthread_cond_t*, const pthread_condattr_t*);
int __real_pthread_join(pthread_t, void**);
int __real_system(const char*);
DIR* __real_opendir(const char*);
int __wrap_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __wrap_pthread_cond_init(pthread_cond_t*, const pthread_condattr_t*);
int __wrap_pthread_join(pthread_t, void**);
int __wrap_system(const char*);
DIR* __wrap_opendir(const char*);
void* __real__Znwm(std::size_t);  // operator new
void* __wrap__Znwm(std::size_t);

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                          void* argument) {
    if (lofter::test::MustFail(lofter::test::Call::PthreadCreate)) {
        return EAGAIN;
    }
    return __real_pthread_create(thread, attributes, function, argument);
}

int __wrap_pthread_join(pthread_t thread, void** result) {
    ++lofter::test::joins;
    return __real_pthread_join(thread, result);
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

DIR* __wrap_opendir(const char* path) {
    DIR* const directory = __real_opendir(path);
    if (directory != nullptr) {
        errno = ENOTTY;
    }
    return directory;
}

void* __wrap__Znwm(std::size_t size) {
    if (lofter::test::MustFail(lofter::test::Call::OperatorNew)) {
        throw std::bad_alloc();
    }
    return __real__Znwm(size);
}

}  // extern "C"

// Makes system calls and allocations of the library under test fail on request. The test program is linked so that its
// calls go through here first. Process-wide; not synchronised with calls in progress.
//
// Without request, and always: joins are counted; a directory that was opened leaves an error in errno, which a success
// may.
#pragma once

#include <climits>

namespace lofter::test {

enum class Call { PthreadCreate, PthreadCondInit, System, OperatorNew };

// From construction to destruction, the call fails after it has succeeded `successes` times more: for good, or as often
// as given.
class FailingCall {
  public:
    FailingCall(Call call, int successes, int failures = INT_MAX);
    ~FailingCall();
    FailingCall(const FailingCall&) = delete;
    FailingCall& operator=(const FailingCall&) = delete;

    // Whether the call has failed yet.
    bool Happened() const;

  private:
    const Call call;
};

// How many threads the library under test has begun to wait for the end of.
int Joins();

}  // namespace lofter::test

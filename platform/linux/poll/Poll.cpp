// The poll library's calls over libevent: one event base per class, one event per callback and class.

#include "poll/poll.h"

#include <array>
#include <cerrno>
#include <list>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <tuple>
#include <vector>

#include <event2/event.h>
#include <event2/thread.h>
#include <unistd.h>

namespace {

struct FreeBase {
    void operator()(event_base* base) const { event_base_free(base); }
};
struct FreeEvent {
    void operator()(event* one) const { event_free(one); }
};
using Base = std::unique_ptr<event_base, FreeBase>;
using Event = std::unique_ptr<event, FreeEvent>;

// What a callback is known by.
using Key = std::tuple<int, int, PollFunction, void*, int>;

struct Registration {
    Key key;
    std::mutex* lock;
    std::vector<Event> events;

    bool Periodic() const { return (std::get<1>(key) & kPollPeriodic) != 0; }
};

struct PollClass {
    Base base;
    Event wakeUp;
};

struct Loops {
    std::array<PollClass, kPollClassCount> classes;
    std::mutex mutex;  // guards the registrations
    std::list<Registration> registrations;

    Loops();
    std::list<Registration>::iterator Find(const Key& key);
};

// Allocated once per process and never freed; see Poll_InitDefault.
Loops* loops = nullptr;
pid_t loopsOwner = 0;

void Nothing(evutil_socket_t, short, void*) {}

Loops::Loops() {
    for (PollClass& one : classes) {
        one.base.reset(event_base_new());
        one.wakeUp.reset(one.base ? event_new(one.base.get(), -1, 0, Nothing, nullptr) : nullptr);
        if (!one.wakeUp) {
            throw std::bad_alloc();
        }
    }
}

std::list<Registration>::iterator Loops::Find(const Key& key) {
    auto place = registrations.begin();
    while (place != registrations.end() && place->key != key) {
        ++place;
    }
    return place;
}

void Fire(evutil_socket_t, short, void* argument) {
    // The registration may be gone once the callback has run.
    const auto* registration = static_cast<const Registration*>(argument);
    const auto [classSet, flags, callback, clientData, type] = registration->key;
    std::optional<std::unique_lock<std::mutex>> held;
    if (registration->lock != nullptr) {
        held.emplace(*registration->lock);
    }
    if (!registration->Periodic()) {
        Poll_CallbackRemove(classSet, flags, callback, clientData, type);
    }
    callback(clientData);
}

short EventsOf(int flags) {
    int events = 0;
    events |= (flags & kPollPeriodic) != 0 ? EV_PERSIST : 0;
    events |= (flags & kPollRead) != 0 ? EV_READ : 0;
    events |= (flags & kPollWrite) != 0 ? EV_WRITE : 0;
    return static_cast<short>(events);
}

bool Known(int classSet, int flags, int type) {
    constexpr int directions = kPollRead | kPollWrite;
    constexpr int allFlags = kPollPeriodic | directions | kPollSocket;
    return classSet > 0 && classSet < (1 << kPollClassCount) && (flags & ~allFlags) == 0 && (flags & directions) != 0 &&
           type == kPollDevice;
}

// Adds the registration's events to the loops of its classes. Returns 0 or an errno.
int Arm(Registration& registration, int device) {
    const auto [classSet, flags, callback, clientData, type] = registration.key;
    for (int number = 0; number < kPollClassCount; ++number) {
        if ((classSet & (1 << number)) == 0) {
            continue;
        }
        event_base* base = loops->classes[static_cast<std::size_t>(number)].base.get();
        Event added(event_new(base, device, EventsOf(flags), Fire, &registration));
        if (!added) {
            return ENOMEM;
        }
        errno = EINVAL;
        if (event_add(added.get(), nullptr) != 0) {
            return errno;
        }
        registration.events.push_back(std::move(added));
    }
    return 0;
}

}  // namespace

void Poll_InitDefault() {
    if (loops != nullptr && loopsOwner == ::getpid()) {
        return;
    }
    evthread_use_pthreads();
    // What a forked child has from its parent is left alone: its descriptors may be closed here, their numbers taken.
    loops = new Loops();
    loopsOwner = ::getpid();
}

int Poll_Callback(int classSet, int flags, PollFunction callback, void* clientData, int type, int device,
                  std::mutex* lock) {
    if (loops == nullptr || callback == nullptr || !Known(classSet, flags, type)) {
        return EINVAL;
    }
    const Key key{classSet, flags, callback, clientData, type};
    const std::lock_guard<std::mutex> guard(loops->mutex);
    if (loops->Find(key) != loops->registrations.end()) {
        return EEXIST;
    }
    Registration& registration = loops->registrations.emplace_back(Registration{key, lock, {}});
    const int result = Arm(registration, device);
    if (result != 0) {
        loops->registrations.pop_back();
    }
    return result;
}

void Poll_Loop(bool loop, const bool* exitFlag, int pollClass) {
    if (loops == nullptr || pollClass < 0 || pollClass >= kPollClassCount) {
        return;
    }
    event_base* base = loops->classes[static_cast<std::size_t>(pollClass)].base.get();
    while (exitFlag == nullptr || !*exitFlag) {
        const bool failed = event_base_loop(base, EVLOOP_ONCE | EVLOOP_NO_EXIT_ON_EMPTY) == -1;
        if (failed || !loop) {
            return;
        }
    }
}

void Poll_NotifyChange(int classSet) {
    for (int number = 0; loops != nullptr && number < kPollClassCount; ++number) {
        if ((classSet & (1 << number)) != 0) {
            event_active(loops->classes[static_cast<std::size_t>(number)].wakeUp.get(), 0, 0);
        }
    }
}

bool Poll_CallbackRemove(int classSet, int flags, PollFunction callback, void* clientData, int type) {
    if (loops == nullptr) {
        return false;
    }
    std::list<Registration> removed;
    {
        const std::lock_guard<std::mutex> guard(loops->mutex);
        const auto place = loops->Find(Key{classSet, flags, callback, clientData, type});
        if (place == loops->registrations.end()) {
            return false;
        }
        removed.splice(removed.end(), loops->registrations, place);
    }
    // Freed without the mutex: freeing an event waits for its callback when another thread runs it right now.
    return true;
}

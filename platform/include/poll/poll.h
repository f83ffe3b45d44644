// Event loop of the host's poll library: calls back when a descriptor becomes ready.
//
// Callbacks belong to a set of classes, a mask in which class N is bit N; a loop runs the callbacks of one class. A
// callback is known by its class set, flags, function, client data and type together. Callbacks run on the thread that
// runs the loop, one at a time, and may register and remove callbacks, themselves included.
#pragma once

#include <mutex>

using PollFunction = void (*)(void* clientData);

// The class of every program that needs only one loop, alone in its set.
inline constexpr int kPollMainClass = 0;
inline constexpr int kPollMainClassSet = 1;
inline constexpr int kPollClassCount = 4;

// Flags: stay registered after firing; what to wait for; that the descriptor is a socket (which makes no difference
// here).
inline constexpr int kPollPeriodic = 0x01;
inline constexpr int kPollRead = 0x04;
inline constexpr int kPollWrite = 0x08;
inline constexpr int kPollSocket = 0x10;

// Event type: a device, named by its descriptor. The only one on this system.
inline constexpr int kPollDevice = 2;

// Sets up the loops of all classes; the first call of a process. Further calls do nothing, except in a forked child,
// which starts without any callback and without touching the descriptors of its parent's loops.
void Poll_InitDefault();

// Registers a callback for the device. The lock, unless null, is held while the callback runs. Returns 0, or an errno:
// EINVAL for a type, class or flags it does not know or before Poll_InitDefault, EEXIST for a callback registered
// already.
int Poll_Callback(int classSet, int flags, PollFunction callback, void* clientData, int type, int device,
                  std::mutex* lock);

// Runs the callbacks of one class: with `loop` until *exitFlag is true (null: for ever), else until one round of events
// has been served. The flag is looked at on the loop's thread, after every round and after every Poll_NotifyChange.
void Poll_Loop(bool loop, const bool* exitFlag, int pollClass);

// Makes the loops of those classes look at their exit flags. Callable from any thread.
void Poll_NotifyChange(int classSet);

// Takes back a registration. False when there is none like it.
bool Poll_CallbackRemove(int classSet, int flags, PollFunction callback, void* clientData, int type);

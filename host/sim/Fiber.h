// The host's threads as fibers on virtual time. Internal to libobdhost.
//
// On virtual time one participant runs at a time, so a thread per participant buys no
// parallelism: it only makes every turn a futex hand-off through the kernel, often across cores.
// A fiber is a stack of its own run by one carrier thread (the engine); a turn between two fibers
// is a switch of a few registers in user space. Whatever the fibers run waits only through the
// host's waits (which suspend the fiber instead of the thread), so the order of turns, and with it
// every byte a run produces, is the same as with threads.
//
// Threads that are not fibers (the runner's main thread, a test's thread) still take part as
// before: a turn handed to one of them is a futex wake, and one handed back to a fiber wakes the
// engine. A fiber that blocks in the kernel (a real-time poll, a mutex held by a thread) holds up
// every other fiber for that long, just as a thread holding the turn would hold up the run.
//
// The thread sanitizer does not follow stacks that change under it, so a build with it runs
// threads only; the address sanitizer is told about every switch.
#pragma once

#include <functional>
#include <string>

#include "ClockState.h"

namespace hostsim {
namespace detail {

#pragma GCC visibility push(hidden)

struct Fiber;

// Whether a thread started now on virtual time becomes a fiber: compiled in, chosen (see
// hostsim::SetVirtualFibers) and the clock virtual.
bool FibersChosen();
// Back to the choice the process started with (hostsim::Reset).
void ResetFibers();
// Starts `fn` as a fiber; it runs as soon as the engine is free. Never null.
Fiber* FiberStart(const std::string& name, std::function<void()> fn);
// Waits for the fiber to end, from any thread or fiber (a fiber joining itself detaches), and
// gives it back.
void FiberJoin(Fiber* f);
// The fiber gives itself back when it ends.
void FiberDetach(Fiber* f);
// The fiber running on the calling thread; null on any other thread.
Fiber* FiberSelf();

// With the clock's mutex held, on a fiber: lets the others run until `ready` (evaluated under the
// mutex whenever the engine looks for work) or until `realTimeoutMs` (< 0: no limit) of real time
// passed while the engine had nothing else to run. False after the timeout.
bool FiberSuspendLocked(ClockState& c, ClockLock& lock, std::function<bool()> ready,
                        int realTimeoutMs);
// With the clock's mutex held: something a suspended fiber may wait for changed. The engine
// looks again once the mutex is released.
void FiberWakeEngineLocked(ClockState& c);
// Called by ClockLock::unlock, once the mutex is released, when a wake was asked for.
void FiberWakeEngine();

#pragma GCC visibility pop

}  // namespace detail
}  // namespace hostsim

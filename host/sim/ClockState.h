// The host clock's state and the virtual mode's turn-taking, shared by Clock.cpp and Virtual.cpp.
// Internal to libobdhost.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "HostSim.h"

namespace hostsim {
namespace detail {

struct Fiber;

// One participant of the virtual mode (see HostSim.h). Every field but `wake` is guarded by the
// clock's mutex. Records come from a pool and are never freed (see PartNew), so a wake that
// arrives late only ever finds a record that is still there.
struct Part {
    enum class State { Idle, Runnable, Running };
    explicit Part(std::string n) : name(std::move(n)) {}
    std::string name;
    // Bumped on every change its thread may be waiting for; the thread sleeps on it (a futex).
    std::atomic<uint32_t> wake{0};
    State state = State::Idle;
    bool registered = false;
    bool hasDeadline = false;
    uint64_t deadlineUs = 0;  // forward-only host time
    uint64_t order = 0;       // when it last went idle: ties at one deadline run in this order
    bool kicked = false;      // kicked while running: runnable again as soon as it waits
    bool interrupted = false;
    Fiber* fiber = nullptr;  // the fiber that runs it, if one does (see Fiber.h)
};

// The two ends of one serial line and the bytes each has written that the other has not read.
// Kept for the life of the process (a handful of tty paths), so pointers to it stay valid.
struct Line {
    std::string path;
    Part* reader = nullptr;  // the peripheral thread
    int readerFd = -1;
    Part* peer = nullptr;  // whoever plays the box on the other end
    int peerFd = -1;
    long long toReader = 0;
    long long toPeer = 0;
    uint64_t nudgedAt = UINT64_MAX;  // host time of the last wake for unaccounted bytes
    bool counted = false;            // every byte on it is counted (ServeCountedLine)
};

}  // namespace detail

#pragma GCC visibility push(hidden)
namespace detail {

// A host sleep by a thread that is not a participant.
struct Sleeper {
    bool fired = false;
};

struct ClockState {
    using Steady = std::chrono::steady_clock;

    std::mutex mutex;
    std::condition_variable changed;
    ClockMode mode = ClockMode::Real;
    double factor = 1.0;
    uint64_t monoBaseUs = 0;  // mono at `anchor` (the whole of mono when time does not run)
    Steady::time_point anchor = Steady::now();
    long long offsetUs = 0;
    long long wallBaseMs = 0;  // wall time at host time wallHostBaseMs
    long long wallHostBaseMs = 0;
    uint64_t generation = 0;
    std::vector<int> wakers;
    std::vector<std::condition_variable*> events;  // of the live CTMWaitEvents
    uint64_t maxLateUs = 0;                        // see ClockMaxLateMs; since the mode was chosen

    // The virtual mode.
    std::vector<Part*> parts;    // registered, in registration order
    std::deque<Part*> runnable;  // waiting for their turn, in the order they became runnable
    Part* running = nullptr;     // the one whose turn it is
    uint64_t order = 0;
    std::multimap<uint64_t, Sleeper*> sleepers;
    std::map<std::string, std::unique_ptr<Line>> lines;
    std::vector<Part*> handedTo;   // given the turn under the mutex: woken once it is released
    std::vector<Part*> freeParts;  // the pool (see Part)
    std::vector<Part*> due;        // QueueDueLocked's, kept for its capacity
    bool engineWakeAsked = false;  // see FiberWakeEngineLocked

    // Copies for readers that take no lock: the mode, and host time while it does not run
    // (stepped or virtual), which is read far more often than it changes. Stored by
    // PublishLocked after every change.
    std::atomic<int> modeSeen{static_cast<int>(ClockMode::Real)};
    std::atomic<uint64_t> frozenMonoUs{0};
    std::atomic<long long> frozenNowUs{0};

    bool Frozen() const { return mode == ClockMode::Stepped || mode == ClockMode::Virtual; }
    static bool FrozenMode(int m) {
        return m == static_cast<int>(ClockMode::Stepped) ||
               m == static_cast<int>(ClockMode::Virtual);
    }
    void PublishLocked() {
        frozenMonoUs.store(monoBaseUs);
        frozenNowUs.store(static_cast<long long>(monoBaseUs) + offsetUs);
        modeSeen.store(static_cast<int>(mode));
    }
    uint64_t MonoLocked() const {
        if (Frozen()) return monoBaseUs;
        const auto realUs =
            std::chrono::duration_cast<std::chrono::microseconds>(Steady::now() - anchor).count();
        return monoBaseUs + static_cast<uint64_t>(static_cast<double>(realUs) * factor);
    }
    long long NowUsLocked() const { return static_cast<long long>(MonoLocked()) + offsetUs; }
    // Called with the mutex held after any change that is not the clock's own running.
    void ChangedLocked();
    // A wait for `deadlineUs` (mono) ends now: how late it is counts on a running clock only.
    void NoteLateLocked(uint64_t deadlineUs) {
        if (Frozen()) return;
        const uint64_t mono = MonoLocked();
        if (mono > deadlineUs && mono - deadlineUs > maxLateUs) maxLateUs = mono - deadlineUs;
    }
};

ClockState& Clock();

// The clock's mutex, held. A turn handed on while it is held is signalled when it is released,
// so that the thread given the turn does not wake only to wait for the mutex.
class ClockLock {
  public:
    explicit ClockLock(ClockState& c) : m_c(c), m_lock(c.mutex) {}
    ~ClockLock() {
        if (m_lock.owns_lock()) unlock();
    }
    void lock() { m_lock.lock(); }
    void unlock();
    // For a condition variable: release once with unlock() first, so that no turn handed on
    // waits for the condition variable's own release.
    std::unique_lock<std::mutex>& Raw() { return m_lock; }
    ClockLock(const ClockLock&) = delete;
    ClockLock& operator=(const ClockLock&) = delete;

  private:
    ClockState& m_c;
    std::unique_lock<std::mutex> m_lock;
};

// ---- Turn-taking, all with the clock's mutex held ----
// After host time moved forward (a jump, ClockAdvance, ClockSet): due participants become
// runnable (earliest deadline first, ties in the order they went idle) and due sleepers wake.
void QueueDueLocked(ClockState& c);
// Hands the turn on when nobody has it; when nobody wants it either, moves host time.
void GrantLocked(ClockState& c);
// A mode change into or out of the virtual mode: nobody has the turn, every waiter re-checks.
void ResetTurnsLocked(ClockState& c);
// A host sleep in the virtual mode until `deadlineUs` (forward-only time): true once it is over,
// false when the mode changed first.
bool SleepVirtualLocked(ClockState& c, ClockLock& lock, uint64_t deadlineUs);
// A CTMWaitEvent wait in the virtual mode by the calling thread's participant: idle until
// `deadlineUs` or a kick from EventNotifyVirtualLocked, listed in `waiters` meanwhile. False
// (nothing done) when the thread takes no part.
bool EventWaitVirtualLocked(ClockState& c, ClockLock& lock, std::vector<Part*>& waiters,
                            uint64_t deadlineUs);
void EventNotifyVirtualLocked(ClockState& c, const std::vector<Part*>& waiters);

}  // namespace detail
#pragma GCC visibility pop
}  // namespace hostsim

// The virtual mode: participants take turns, and host time jumps to the earliest deadline when no
// participant has anything left to do at the current instant (the contract is in HostSim.h).
//
// One turn at a time is what makes a run reproducible: when the box answers, the plug-in's send
// thread has already gone to sleep, whatever the machine's load; when the peripheral thread
// broadcasts, the bus thread prints before the box writes its next frame.
//
// A turn passes from one party to the next some hundred thousand times per host hour. Between
// two fibers (Fiber.h) it is a switch in user space by the fiber engine; to a thread it is a
// futex wake issued after the clock's mutex is released (ClockLock), so that the thread given
// the turn wakes once and finds the mutex free.
#include <linux/futex.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <ctime>

#include "ClockState.h"
#include "Fiber.h"
#include "HostInternal.h"
#include "HostSim.h"

namespace hostsim {
namespace detail {
namespace {

using State = Part::State;

// How long (real time) a reader waits for bytes that were written towards it to show up on its
// end of a pseudo-terminal; they normally take microseconds.
constexpr int kArriveMs = 1000;

thread_local Part* t_part = nullptr;

uint32_t* Word(Part* p) {
    static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t), "a futex is 32 bits");
    return reinterpret_cast<uint32_t*>(&p->wake);
}

void FutexWake(Part* p) {
    ::syscall(SYS_futex, Word(p), FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

// Sleeps while the word still holds `seen`, at most `timeoutMs` (< 0: no limit).
void FutexWait(Part* p, uint32_t seen, long long timeoutMs) {
    timespec ts{};
    if (timeoutMs >= 0) {
        ts.tv_sec = static_cast<time_t>(timeoutMs / 1000);
        ts.tv_nsec = static_cast<long>(timeoutMs % 1000) * 1000000L;
    }
    ::syscall(SYS_futex, Word(p), FUTEX_WAIT_PRIVATE, seen, timeoutMs >= 0 ? &ts : nullptr, nullptr,
              0);
}

// Wakes `p`'s thread now, for anything but a turn (see GrantLocked).
void SignalLocked(ClockState& c, Part* p) {
    p->wake.fetch_add(1);
    if (p->fiber != nullptr) {
        FiberWakeEngineLocked(c);
    } else {
        FutexWake(p);
    }
}

bool Virtual(const ClockState& c) {
    return c.mode == ClockMode::Virtual;
}

void MakeRunnableLocked(ClockState& c, Part* p) {
    p->state = State::Runnable;
    p->hasDeadline = false;
    c.runnable.push_back(p);
}

bool InputWaiting(int fd) {
    int n = 0;
    return fd >= 0 && ::ioctl(fd, FIONREAD, &n) == 0 && n > 0;
}

// Bytes towards an idle end of a line: that end reads before host time moves. Bytes written
// through the counted calls have kicked their reader already; this catches the rest (a test that
// writes to the tty itself), once per instant, so bytes that nobody can read never stop the clock.
bool NudgeReadersLocked(ClockState& c) {
    bool any = false;
    for (auto& entry : c.lines) {
        Line& l = *entry.second;
        if (l.nudgedAt == c.monoBaseUs || l.counted) continue;
        bool nudged = false;
        if (l.reader != nullptr && l.reader->state == State::Idle &&
            (l.toReader > 0 || InputWaiting(l.readerFd))) {
            MakeRunnableLocked(c, l.reader);
            nudged = true;
        }
        if (l.peer != nullptr && l.peer->state == State::Idle &&
            (l.toPeer > 0 || InputWaiting(l.peerFd))) {
            MakeRunnableLocked(c, l.peer);
            nudged = true;
        }
        if (nudged) l.nudgedAt = c.monoBaseUs;
        any = any || nudged;
    }
    return any;
}

// Nobody runs or wants to: moves host time to the earliest deadline. False when nothing is
// pending at all (host time then stands).
bool AdvanceLocked(ClockState& c) {
    if (NudgeReadersLocked(c)) return true;
    for (;;) {
        uint64_t next = UINT64_MAX;
        for (const Part* p : c.parts) {
            if (p->state == State::Idle && p->hasDeadline) next = std::min(next, p->deadlineUs);
        }
        if (!c.sleepers.empty()) next = std::min(next, c.sleepers.begin()->first);
        if (next == UINT64_MAX) return false;
        if (next > c.monoBaseUs) {
            c.monoBaseUs = next;
            c.PublishLocked();
        }
        QueueDueLocked(c);
        if (!c.runnable.empty()) return true;
        // Only threads that take no part woke: nothing waits for them.
    }
}

void IdleLocked(ClockState& c, Part* p, bool hasDeadline, uint64_t deadlineUs) {
    if (!p->registered) return;
    // A thread that waits again for the same thing (its real timeout passed before its turn came)
    // keeps its place among those due at the same instant: how often a real timeout passes on a
    // slow or loaded machine must not change the order of turns.
    const bool again = p->state == State::Idle && p->hasDeadline == hasDeadline &&
                       (!hasDeadline || p->deadlineUs == deadlineUs);
    p->hasDeadline = hasDeadline;
    p->deadlineUs = deadlineUs;
    if (!again) p->order = ++c.order;
    if (!Virtual(c)) {
        p->state = State::Idle;
        return;
    }
    if (p->state == State::Running) {
        c.running = nullptr;
        p->state = State::Idle;
        if (p->kicked) {
            p->kicked = false;
            MakeRunnableLocked(c, p);
        }
    }
    if (p->state == State::Idle && hasDeadline && deadlineUs <= c.monoBaseUs) {
        MakeRunnableLocked(c, p);
    }
    GrantLocked(c);
}

void KickLocked(ClockState& c, Part* p) {
    if (p == nullptr || !p->registered || !Virtual(c)) return;
    if (p->state == State::Idle) {
        MakeRunnableLocked(c, p);
        GrantLocked(c);
    } else if (p->state == State::Running) {
        p->kicked = true;
    }
}

// Waits until it is `p`'s turn, the mode changes, `p` is interrupted or leaves, or the real
// timeout (< 0: none) passes. True when it is its turn.
bool WaitTurnLocked(ClockState& c, ClockLock& lock, Part* p, int realTimeoutMs) {
    auto ready = [&] {
        return !Virtual(c) || p->state == State::Running || p->interrupted || !p->registered;
    };
    if (FiberSelf() != nullptr) {
        // The engine runs the others meanwhile and comes back when `ready` holds.
        if (!ready() && realTimeoutMs != 0) FiberSuspendLocked(c, lock, ready, realTimeoutMs);
        return Virtual(c) && p->registered && p->state == State::Running;
    }
    using Steady = std::chrono::steady_clock;
    const auto limit = Steady::now() + std::chrono::milliseconds(std::max(0, realTimeoutMs));
    while (!ready()) {
        long long left = -1;
        if (realTimeoutMs >= 0) {
            left = std::chrono::duration_cast<std::chrono::milliseconds>(limit - Steady::now())
                       .count();
            if (left <= 0) break;
        }
        const uint32_t seen = p->wake.load();
        lock.unlock();  // also wakes whoever this thread just handed its turn to
        FutexWait(p, seen, left);
        lock.lock();
    }
    return Virtual(c) && p->registered && p->state == State::Running;
}

void LeaveLocked(ClockState& c, Part* p) {
    if (!p->registered) return;
    p->registered = false;
    c.parts.erase(std::remove(c.parts.begin(), c.parts.end(), p), c.parts.end());
    c.runnable.erase(std::remove(c.runnable.begin(), c.runnable.end(), p), c.runnable.end());
    if (c.running == p) c.running = nullptr;
    p->state = State::Idle;
    p->hasDeadline = false;
    p->kicked = false;
    // Nobody reads what was on its way to it any more.
    for (auto& entry : c.lines) {
        Line& l = *entry.second;
        if (l.reader == p) {
            l.reader = nullptr;
            l.readerFd = -1;
            l.toReader = 0;
        }
        if (l.peer == p) {
            l.peer = nullptr;
            l.peerFd = -1;
            l.toPeer = 0;
            l.counted = false;
        }
    }
    SignalLocked(c, p);
    GrantLocked(c);
}

Line& LineLocked(ClockState& c, const std::string& path) {
    auto& slot = c.lines[path];
    if (!slot) {
        slot = std::make_unique<Line>();
        slot->path = path;
    }
    return *slot;
}

// Host time in microseconds of the forward-only clock for a host time in milliseconds.
uint64_t MonoForHostMs(const ClockState& c, long long hostMs) {
    const long long mono = hostMs * 1000 - c.offsetUs;
    return mono < 0 ? 0 : static_cast<uint64_t>(mono);
}

}  // namespace

void ClockLock::unlock() {
    if (m_c.handedTo.empty() && !m_c.engineWakeAsked) {
        m_lock.unlock();
        return;
    }
    std::vector<Part*> handed;
    handed.swap(m_c.handedTo);
    const bool engine = m_c.engineWakeAsked;
    m_c.engineWakeAsked = false;
    m_lock.unlock();
    for (Part* p : handed) FutexWake(p);
    if (engine) FiberWakeEngine();
}

void QueueDueLocked(ClockState& c) {
    if (!Virtual(c)) return;
    const uint64_t mono = c.monoBaseUs;
    std::vector<Part*>& due = c.due;
    due.clear();
    for (Part* p : c.parts) {
        if (p->state == State::Idle && p->hasDeadline && p->deadlineUs <= mono) due.push_back(p);
    }
    std::sort(due.begin(), due.end(), [](const Part* a, const Part* b) {
        return a->deadlineUs != b->deadlineUs ? a->deadlineUs < b->deadlineUs : a->order < b->order;
    });
    for (Part* p : due) MakeRunnableLocked(c, p);
    bool woke = false;
    while (!c.sleepers.empty() && c.sleepers.begin()->first <= mono) {
        c.sleepers.begin()->second->fired = true;
        c.sleepers.erase(c.sleepers.begin());
        woke = true;
    }
    if (woke) {
        c.changed.notify_all();
        FiberWakeEngineLocked(c);
    }
}

void GrantLocked(ClockState& c) {
    if (!Virtual(c)) return;
    while (c.running == nullptr) {
        if (!c.runnable.empty()) {
            Part* p = c.runnable.front();
            c.runnable.pop_front();
            p->state = State::Running;
            c.running = p;
            // Woken when the mutex is released (ClockLock::unlock); a fiber by the engine, which
            // finds it without a wake when the turn passes between two fibers.
            p->wake.fetch_add(1);
            if (p->fiber != nullptr) {
                FiberWakeEngineLocked(c);
            } else {
                c.handedTo.push_back(p);
            }
            return;
        }
        if (!AdvanceLocked(c)) return;
    }
}

void ResetTurnsLocked(ClockState& c) {
    c.running = nullptr;
    c.runnable.clear();
    for (Part* p : c.parts) {
        p->state = State::Idle;
        p->kicked = false;
        SignalLocked(c, p);
    }
    for (auto& entry : c.lines) {
        entry.second->toReader = entry.second->toPeer = 0;
        entry.second->nudgedAt = UINT64_MAX;
    }
    // Sleepers re-check under the new mode.
    for (auto& s : c.sleepers) s.second->fired = true;
    c.sleepers.clear();
    c.changed.notify_all();
    FiberWakeEngineLocked(c);
}

bool SleepVirtualLocked(ClockState& c, ClockLock& lock, uint64_t deadlineUs) {
    Part* self = t_part;
    if (self != nullptr && self->registered) {
        if (c.monoBaseUs >= deadlineUs && self->state == State::Running) return true;
        IdleLocked(c, self, true, deadlineUs);
        WaitTurnLocked(c, lock, self, -1);
        if (!self->registered) return true;  // it left (see Participant::Leave)
        return Virtual(c) && c.monoBaseUs >= deadlineUs && self->state == State::Running;
    }
    if (c.monoBaseUs >= deadlineUs) return true;
    Sleeper me;
    const auto entry = c.sleepers.emplace(deadlineUs, &me);
    GrantLocked(c);  // with everything idle this sleep may be what time jumps to
    if (FiberSelf() != nullptr) {
        FiberSuspendLocked(
            c, lock, [&] { return me.fired || !Virtual(c); }, -1);
    } else {
        lock.unlock();  // hands on a turn given just now
        lock.lock();
        c.changed.wait(lock.Raw(), [&] { return me.fired || !Virtual(c); });
    }
    if (!me.fired) c.sleepers.erase(entry);
    return Virtual(c) && c.monoBaseUs >= deadlineUs;
}

bool EventWaitVirtualLocked(ClockState& c, ClockLock& lock, std::vector<Part*>& waiters,
                            uint64_t deadlineUs) {
    Part* self = t_part;
    if (self == nullptr || !self->registered) return false;
    waiters.push_back(self);
    IdleLocked(c, self, true, deadlineUs);
    WaitTurnLocked(c, lock, self, -1);
    waiters.erase(std::remove(waiters.begin(), waiters.end(), self), waiters.end());
    return true;
}

void EventNotifyVirtualLocked(ClockState& c, const std::vector<Part*>& waiters) {
    for (Part* p : waiters) KickLocked(c, p);
}

// ---- The host's own threads ----

Part* PartNew(const std::string& name) {
    ClockState& c = Clock();
    ClockLock lock(c);
    if (c.freeParts.empty()) return new Part(name);
    Part* p = c.freeParts.back();
    c.freeParts.pop_back();
    p->name = name;
    p->fiber = nullptr;
    return p;
}

void PartFree(Part* p) {
    if (p == nullptr) return;
    ClockState& c = Clock();
    ClockLock lock(c);
    LeaveLocked(c, p);
    c.freeParts.push_back(p);
}

void PartRegister(Part* p) {
    ClockState& c = Clock();
    ClockLock lock(c);
    if (p->registered) return;
    p->registered = true;
    p->interrupted = false;
    p->kicked = false;
    p->fiber = nullptr;  // bound again by the thread or fiber that runs it
    p->state = State::Idle;
    c.parts.push_back(p);
    if (Virtual(c)) {
        MakeRunnableLocked(c, p);
        GrantLocked(c);
    }
}

void PartLeave(Part* p) {
    if (p == nullptr) return;
    ClockState& c = Clock();
    ClockLock lock(c);
    LeaveLocked(c, p);
}

void PartBind(Part* p) {
    t_part = p;
    if (p == nullptr) return;
    Fiber* self = FiberSelf();
    ClockState& c = Clock();
    ClockLock lock(c);
    p->fiber = self;
}

Part* PartSwapCurrent(Part* p) {
    Part* was = t_part;
    t_part = p;
    return was;
}

Part* PartCurrent() {
    return t_part;
}

bool PartWaitTurn(Part* p, int realTimeoutMs) {
    ClockState& c = Clock();
    ClockLock lock(c);
    return WaitTurnLocked(c, lock, p, realTimeoutMs);
}

bool PartHasTurn(Part* p) {
    ClockState& c = Clock();
    ClockLock lock(c);
    return Virtual(c) && p->registered && p->state == State::Running;
}

bool PartIdleWait(Part* p, bool hasDeadline, uint64_t deadlineUs, int realTimeoutMs) {
    ClockState& c = Clock();
    ClockLock lock(c);
    IdleLocked(c, p, hasDeadline, deadlineUs);
    return WaitTurnLocked(c, lock, p, realTimeoutMs);
}

void PartKick(Part* p) {
    ClockState& c = Clock();
    ClockLock lock(c);
    KickLocked(c, p);
}

void PartInterrupt(Part* p) {
    ClockState& c = Clock();
    ClockLock lock(c);
    p->interrupted = true;
    SignalLocked(c, p);
}

// ---- The peripheral's end of its line ----

Line* LineAttachReader(const std::string& path, Part* reader, int fd) {
    ClockState& c = Clock();
    ClockLock lock(c);
    Line& l = LineLocked(c, path);
    l.reader = reader;
    l.readerFd = fd;
    l.toReader = 0;
    return &l;
}

bool LineReaderHasInput(Line* l) {
    if (l == nullptr) return false;
    int fd = -1;
    {
        ClockState& c = Clock();
        ClockLock lock(c);
        if (l->toReader > 0) return true;
        if (l->counted) return false;
        fd = l->readerFd;
    }
    return InputWaiting(fd);
}

void LineReaderTook(Line* l, size_t n) {
    if (l == nullptr || n == 0) return;
    ClockState& c = Clock();
    ClockLock lock(c);
    l->toReader = std::max(0LL, l->toReader - static_cast<long long>(n));
}

void LineReaderGaveUp(Line* l) {
    if (l == nullptr) return;
    ClockState& c = Clock();
    ClockLock lock(c);
    if (l->toReader > 0) {
        HOST_LOG(1, "%lld bytes towards the peripheral not read", l->toReader);
    }
    l->toReader = 0;
}

void LineReaderWrote(Line* l, long long n) {
    if (l == nullptr || n == 0) return;
    ClockState& c = Clock();
    ClockLock lock(c);
    if (!Virtual(c) || l->peer == nullptr) return;
    l->toPeer += n;
    if (n > 0) KickLocked(c, l->peer);
}

}  // namespace detail

// ---- Participant ----

struct Participant::Impl {
    explicit Impl(const std::string& name) : part(*detail::PartNew(name)) {}
    detail::Part& part;                // from the pool: given back, never freed
    detail::Line* line = nullptr;      // guarded by the clock's mutex
    detail::Line* readLine = nullptr;  // the line whose near end it reads (ReadLine), if any
    // Its thread is doing its turn's work (Enter or Wait returned with the turn). A turn given
    // while the thread was between two Waits (after a real timeout) is not yet begun: the next
    // Wait begins it instead of giving it away. Guarded by the clock's mutex.
    bool working = false;
};

Participant::Participant(std::string name) : m_impl(new Impl(name)) {
    detail::PartRegister(&m_impl->part);
}

Participant::~Participant() {
    if (detail::t_part == &m_impl->part) detail::t_part = nullptr;
    detail::PartFree(&m_impl->part);
}

void Participant::Enter() {
    using namespace detail;
    t_part = &m_impl->part;
    ClockState& c = Clock();
    ClockLock lock(c);
    m_impl->part.fiber = FiberSelf();
    m_impl->working = WaitTurnLocked(c, lock, &m_impl->part, -1);
}

bool Participant::Wait(long long untilMs, int realTimeoutMs, int fd) {
    using namespace detail;
    ClockState& c = Clock();
    Part* p = &m_impl->part;
    t_part = p;
    ClockLock lock(c);
    p->fiber = FiberSelf();
    Line* line = m_impl->line;
    if (line != nullptr && fd >= 0) line->peerFd = fd;
    if (!Virtual(c)) {
        int timeout = realTimeoutMs;
        uint64_t deadline = 0;
        if (untilMs >= 0) {
            deadline = MonoForHostMs(c, untilMs);
            const uint64_t mono = c.MonoLocked();
            if (mono >= deadline) return true;
            if (!c.Frozen()) {
                const double realMs = static_cast<double>(deadline - mono) / c.factor / 1000.0;
                if (realMs < static_cast<double>(timeout) || timeout < 0) {
                    timeout = std::max(1, static_cast<int>(std::min(realMs + 1.0, 1e9)));
                }
            }
        }
        lock.unlock();
        pollfd pfd{fd, POLLIN, 0};
        ::poll(&pfd, fd >= 0 ? 1 : 0, timeout);
        if (untilMs >= 0) {
            lock.lock();
            c.NoteLateLocked(deadline);
        }
        return true;
    }
    Line* near = m_impl->readLine;
    const bool holding = p->registered && p->state == State::Running;
    const bool incoming =
        (line != nullptr && line->toPeer > 0) || (near != nullptr && near->toReader > 0);
    if (!holding || (m_impl->working && !incoming)) {
        m_impl->working = false;
        IdleLocked(c, p, untilMs >= 0, MonoForHostMs(c, untilMs));
        if (!WaitTurnLocked(c, lock, p, realTimeoutMs)) return false;
    }
    m_impl->working = true;
    if (line != nullptr && fd >= 0 && line->toPeer > 0) {
        lock.unlock();
        pollfd pfd{fd, POLLIN, 0};
        const int rc = ::poll(&pfd, 1, kArriveMs);
        lock.lock();
        if (rc <= 0 && line->toPeer > 0) {
            HOST_LOG(1, "%lld bytes from the peripheral never arrived", line->toPeer);
            line->toPeer = 0;
        }
    }
    if (near != nullptr && near->reader == p && near->readerFd >= 0 && near->toReader > 0) {
        const int nearFd = near->readerFd;
        lock.unlock();
        pollfd pfd{nearFd, POLLIN, 0};
        const int rc = ::poll(&pfd, 1, kArriveMs);
        lock.lock();
        if (rc <= 0 && near->toReader > 0) {
            HOST_LOG(1, "%lld bytes from the box never arrived", near->toReader);
            near->toReader = 0;
        }
    }
    return true;
}

void Participant::Run(const std::function<void()>& work) {
    if (!detail::FibersChosen()) {
        work();
        return;
    }
    {
        Thread fiber(m_impl->part.name, [&] {
            Enter();
            work();
        });
        fiber.Join();
    }
    detail::PartBind(&m_impl->part);
}

void Participant::Kick() {
    detail::PartKick(&m_impl->part);
}

void Participant::Leave() {
    detail::PartLeave(&m_impl->part);
}

void Participant::ServeLine(const std::string& ttyPath) {
    auto& c = detail::Clock();
    detail::ClockLock lock(c);
    if (!m_impl->part.registered) return;
    detail::Line& l = detail::LineLocked(c, ttyPath);
    l.peer = &m_impl->part;
    l.toPeer = 0;
    l.counted = false;
    m_impl->line = &l;
}

void Participant::ServeCountedLine(const std::string& ttyPath) {
    ServeLine(ttyPath);
    auto& c = detail::Clock();
    detail::ClockLock lock(c);
    if (m_impl->line != nullptr && m_impl->line->peer == &m_impl->part)
        m_impl->line->counted = true;
}

void Participant::LineRead(size_t n) {
    auto& c = detail::Clock();
    detail::ClockLock lock(c);
    detail::Line* l = m_impl->line;
    if (l == nullptr || l->peer != &m_impl->part) return;
    l->toPeer = std::max(0LL, l->toPeer - static_cast<long long>(n));
}

void Participant::LineWrote(size_t n) {
    using namespace detail;
    ClockState& c = Clock();
    ClockLock lock(c);
    Line* l = m_impl->line;
    Part* p = &m_impl->part;
    if (n == 0 || l == nullptr || l->peer != p || l->reader == nullptr || !Virtual(c)) return;
    l->toReader += static_cast<long long>(n);
    KickLocked(c, l->reader);
    if (t_part != p || p->state != State::Running) return;
    // Let the reader take these bytes before anything else is written: a read then never holds
    // two writes, whatever the machine's speed.
    p->kicked = true;
    IdleLocked(c, p, false, 0);
    WaitTurnLocked(c, lock, p, -1);
}

void Participant::ReadLine(const std::string& ttyPath, int fd) {
    detail::Line* l = detail::LineAttachReader(ttyPath, &m_impl->part, fd);
    auto& c = detail::Clock();
    detail::ClockLock lock(c);
    m_impl->readLine = l;
}

void Participant::LineTook(size_t n) {
    detail::Line* l = nullptr;
    {
        auto& c = detail::Clock();
        detail::ClockLock lock(c);
        l = m_impl->readLine;
    }
    detail::LineReaderTook(l, n);
}

void Participant::LineSent(size_t n) {
    detail::Line* l = nullptr;
    {
        auto& c = detail::Clock();
        detail::ClockLock lock(c);
        l = m_impl->readLine;
    }
    detail::LineReaderWrote(l, static_cast<long long>(n));
}

}  // namespace hostsim

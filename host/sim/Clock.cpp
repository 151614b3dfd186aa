// The host clock: real, scaled or stepped, and the time functions the plug-in calls.
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cmath>
#include <condition_variable>
#include <ctime>
#include <mutex>
#include <vector>

#include "ClockState.h"
#include "HostCommon.h"
#include "HostInternal.h"
#include "HostSim.h"

namespace hostsim {
namespace detail {

namespace {

long long SystemEpochMs() {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// 2024-01-01 00:00:00 UTC: where the wall clock of a virtual run starts.
constexpr long long kVirtualWallStartMs = 1704067200000LL;

void SelectLocked(ClockState& c, ClockMode m, double f, long long startMs) {
    const bool turns = c.mode == ClockMode::Virtual || m == ClockMode::Virtual;
    c.monoBaseUs = c.MonoLocked();  // deadlines keep counting across a mode change
    c.anchor = ClockState::Steady::now();
    c.mode = m;
    c.factor = f;
    c.offsetUs = startMs * 1000 - static_cast<long long>(c.monoBaseUs);
    c.wallBaseMs = m == ClockMode::Virtual ? kVirtualWallStartMs : SystemEpochMs();
    c.wallHostBaseMs = startMs;
    c.maxLateUs = 0;
    c.PublishLocked();
    if (turns) ResetTurnsLocked(c);
    c.ChangedLocked();
}

}  // namespace

void ClockState::ChangedLocked() {
    ++generation;
    changed.notify_all();
    for (std::condition_variable* cv : events) cv->notify_all();
    const uint64_t one = 1;
    for (int fd : wakers) {
        ssize_t n = ::write(fd, &one, sizeof(one));
        (void)n;  // a full eventfd is already signalled
    }
}

// Never destroyed: detached plug-in threads may still sleep on it while the process exits.
ClockState& Clock() {
    static ClockState* state = [] {
        auto* s = new ClockState;
        s->wallBaseMs = SystemEpochMs();
        return s;
    }();
    return *state;
}

}  // namespace detail

using detail::Clock;
using detail::ClockState;

void ClockUseReal(long long startMs) {
    ClockState& c = Clock();
    detail::ClockLock lock(c);
    detail::SelectLocked(c, ClockMode::Real, 1.0, std::max(0LL, startMs));
}

bool ClockUseScaled(double factor, long long startMs) {
    if (!(factor > 0.0) || !std::isfinite(factor)) return false;
    ClockState& c = Clock();
    detail::ClockLock lock(c);
    detail::SelectLocked(c, ClockMode::Scaled, factor, std::max(0LL, startMs));
    return true;
}

void ClockUseStepped(long long startMs) {
    ClockState& c = Clock();
    detail::ClockLock lock(c);
    detail::SelectLocked(c, ClockMode::Stepped, 1.0, std::max(0LL, startMs));
}

void ClockUseVirtual(long long startMs) {
    ClockState& c = Clock();
    detail::ClockLock lock(c);
    detail::SelectLocked(c, ClockMode::Virtual, 1.0, std::max(0LL, startMs));
}

ClockMode ClockGetMode() {
    return static_cast<ClockMode>(Clock().modeSeen.load());
}

bool ClockAdvance(long long ms) {
    if (ms < 0) return false;
    ClockState& c = Clock();
    detail::ClockLock lock(c);
    c.monoBaseUs += static_cast<uint64_t>(ms) * 1000;
    c.PublishLocked();
    c.ChangedLocked();
    detail::QueueDueLocked(c);
    detail::GrantLocked(c);
    return true;
}

bool ClockSet(long long ms) {
    if (ms < 0) return false;
    ClockState& c = Clock();
    detail::ClockLock lock(c);
    const long long delta = ms * 1000 - c.NowUsLocked();
    if (delta >= 0) {
        c.monoBaseUs += static_cast<uint64_t>(delta);
    } else {
        c.offsetUs += delta;  // backwards: reported time only, deadlines unaffected
    }
    c.PublishLocked();
    c.ChangedLocked();
    detail::QueueDueLocked(c);
    detail::GrantLocked(c);
    return true;
}

long long ClockNowMs() {
    return detail::ClockNowUs() / 1000;
}

long long ClockMaxLateMs() {
    ClockState& c = Clock();
    detail::ClockLock lock(c);
    return static_cast<long long>(c.maxLateUs / 1000);
}

void ClockSetWallStart(long long epochMs) {
    ClockState& c = Clock();
    detail::ClockLock lock(c);
    c.wallBaseMs = epochMs;
    c.wallHostBaseMs = c.NowUsLocked() / 1000;
}

namespace detail {

uint64_t ClockMonoUs() {
    ClockState& c = Clock();
    if (ClockState::FrozenMode(c.modeSeen.load())) return c.frozenMonoUs.load();
    detail::ClockLock lock(c);
    return c.MonoLocked();
}

long long ClockNowUs() {
    ClockState& c = Clock();
    if (ClockState::FrozenMode(c.modeSeen.load())) return c.frozenNowUs.load();
    detail::ClockLock lock(c);
    return c.NowUsLocked();
}

void ClockNoteLate(uint64_t deadlineUs) {
    ClockState& c = Clock();
    detail::ClockLock lock(c);
    c.NoteLateLocked(deadlineUs);
}

uint64_t ClockGeneration() {
    ClockState& c = Clock();
    detail::ClockLock lock(c);
    return c.generation;
}

bool ClockIsStepped() {
    return ClockGetMode() == ClockMode::Stepped;
}

bool ClockIsVirtual() {
    return ClockGetMode() == ClockMode::Virtual;
}

int ClockRealTimeoutMs(uint64_t deadlineUs) {
    ClockState& c = Clock();
    detail::ClockLock lock(c);
    const uint64_t mono = c.MonoLocked();
    if (mono >= deadlineUs) return 0;
    if (c.Frozen()) return -1;
    const double realMs = static_cast<double>(deadlineUs - mono) / c.factor / 1000.0;
    if (realMs >= static_cast<double>(INT_MAX)) return INT_MAX;
    return std::max(1, static_cast<int>(std::ceil(realMs)));
}

void ClockAddWaker(int fd) {
    ClockState& c = Clock();
    detail::ClockLock lock(c);
    c.wakers.push_back(fd);
}

void ClockRemoveWaker(int fd) {
    ClockState& c = Clock();
    detail::ClockLock lock(c);
    c.wakers.erase(std::remove(c.wakers.begin(), c.wakers.end(), fd), c.wakers.end());
}

}  // namespace detail
}  // namespace hostsim

namespace Common {

uint64_t P4X_TMGetSystemMicroSecond() {
    const long long us = hostsim::detail::ClockNowUs();
    return us < 0 ? 0 : static_cast<uint64_t>(us);
}

int P4X_TMGetShareTime(_datetime_* dt) {
    if (dt == nullptr) return -1;
    long long wallMs = 0;
    {
        auto& c = hostsim::detail::Clock();
        hostsim::detail::ClockLock lock(c);
        wallMs = c.wallBaseMs + (c.NowUsLocked() / 1000 - c.wallHostBaseMs);
    }
    if (wallMs < 0) wallMs = 0;
    const time_t secs = static_cast<time_t>(wallMs / 1000);
    tm parts{};
    gmtime_r(&secs, &parts);
    const int years = std::min(255, std::max(0, parts.tm_year + 1900 - 2000));
    dt->year = static_cast<uint8_t>(years);
    dt->month = static_cast<uint8_t>(parts.tm_mon + 1);
    dt->day = static_cast<uint8_t>(parts.tm_mday);
    dt->hour = static_cast<uint8_t>(parts.tm_hour);
    dt->minute = static_cast<uint8_t>(parts.tm_min);
    dt->second = static_cast<uint8_t>(parts.tm_sec);
    dt->millisecond = static_cast<uint16_t>(wallMs % 1000);
    return 0;
}

void P4X_TMSleepMicroSecond(unsigned int us) {
    if (us == 0) {
        std::this_thread::yield();
        return;
    }
    auto& c = hostsim::detail::Clock();
    hostsim::detail::ClockLock lock(c);
    const uint64_t deadline = c.MonoLocked() + us;
    for (;;) {
        const uint64_t mono = c.MonoLocked();
        if (c.mode == hostsim::ClockMode::Virtual) {
            if (hostsim::detail::SleepVirtualLocked(c, lock, deadline)) return;
            continue;  // the mode changed while it slept
        }
        if (mono >= deadline) {
            c.NoteLateLocked(deadline);
            return;
        }
        if (c.mode == hostsim::ClockMode::Stepped) {
            c.changed.wait(lock.Raw());
        } else {
            const double realUs = std::ceil(static_cast<double>(deadline - mono) / c.factor);
            c.changed.wait_for(lock.Raw(),
                               std::chrono::microseconds(static_cast<long long>(realUs)));
        }
    }
}

// Waiters of an event sleep on the event's own condition variable but under the clock's mutex:
// a clock change (a step, a mode change) reaches them like every sleeper, a Notify only them. On
// virtual time a participant waits for its turn instead, with the deadline as its wake-up time,
// and a Notify makes it runnable.
struct CTMWaitEvent::State {
    std::condition_variable cv;
    std::vector<hostsim::detail::Part*> waiters;  // virtual time: the participants waiting
};

CTMWaitEvent::CTMWaitEvent() : m_state(new State) {
    auto& c = hostsim::detail::Clock();
    hostsim::detail::ClockLock lock(c);
    c.events.push_back(&m_state->cv);
}

CTMWaitEvent::~CTMWaitEvent() {
    {
        auto& c = hostsim::detail::Clock();
        hostsim::detail::ClockLock lock(c);
        c.events.erase(std::remove(c.events.begin(), c.events.end(), &m_state->cv), c.events.end());
    }
    delete m_state;
}

bool CTMWaitEvent::WaitMicroSecond(unsigned int us, bool (*ready)(void*), void* arg) {
    auto& c = hostsim::detail::Clock();
    hostsim::detail::ClockLock lock(c);
    const uint64_t deadline = c.MonoLocked() + us;
    for (;;) {
        if (ready != nullptr && ready(arg)) return true;
        const uint64_t mono = c.MonoLocked();
        if (mono >= deadline) {
            c.NoteLateLocked(deadline);
            return false;
        }
        if (c.mode == hostsim::ClockMode::Virtual) {
            if (hostsim::detail::EventWaitVirtualLocked(c, lock, m_state->waiters, deadline)) {
                continue;
            }
            // Not a participant: nobody can kick it, so it looks again every host millisecond.
            hostsim::detail::SleepVirtualLocked(c, lock, std::min(deadline, mono + 1000));
        } else if (c.mode == hostsim::ClockMode::Stepped) {
            m_state->cv.wait(lock.Raw());
        } else {
            const double realUs = std::ceil(static_cast<double>(deadline - mono) / c.factor);
            m_state->cv.wait_for(lock.Raw(),
                                 std::chrono::microseconds(static_cast<long long>(realUs)));
        }
    }
}

void CTMWaitEvent::Notify() {
    auto& c = hostsim::detail::Clock();
    hostsim::detail::ClockLock lock(c);
    m_state->cv.notify_all();
    hostsim::detail::EventNotifyVirtualLocked(c, m_state->waiters);
}

}  // namespace Common

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

#include "HostCommon.h"
#include "HostInternal.h"
#include "HostSim.h"

namespace hostsim {
namespace {

using Steady = std::chrono::steady_clock;

long long SystemEpochMs() {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Host time is split in two: a forward-only part (`mono`) in which every deadline is measured,
// and an offset that only a jump backwards changes. Reported time = mono + offset.
struct ClockState {
    std::mutex mutex;
    std::condition_variable changed;
    ClockMode mode = ClockMode::Real;
    double factor = 1.0;
    uint64_t monoBaseUs = 0;  // mono at `anchor` (the whole of mono in the stepped mode)
    Steady::time_point anchor = Steady::now();
    long long offsetUs = 0;
    long long wallBaseMs = SystemEpochMs();  // wall time at host time wallHostBaseMs
    long long wallHostBaseMs = 0;
    uint64_t generation = 0;
    std::vector<int> wakers;
    std::vector<std::condition_variable*> events;  // of the live CTMWaitEvents

    uint64_t MonoLocked() const {
        if (mode == ClockMode::Stepped) return monoBaseUs;
        const auto realUs =
            std::chrono::duration_cast<std::chrono::microseconds>(Steady::now() - anchor).count();
        return monoBaseUs + static_cast<uint64_t>(static_cast<double>(realUs) * factor);
    }
    long long NowUsLocked() const { return static_cast<long long>(MonoLocked()) + offsetUs; }

    // Called with the mutex held after any change that is not the clock's own running.
    void ChangedLocked() {
        ++generation;
        changed.notify_all();
        for (std::condition_variable* cv : events) cv->notify_all();
        const uint64_t one = 1;
        for (int fd : wakers) {
            ssize_t n = ::write(fd, &one, sizeof(one));
            (void)n;  // a full eventfd is already signalled
        }
    }

    void SelectLocked(ClockMode m, double f, long long startMs) {
        monoBaseUs = MonoLocked();  // deadlines keep counting across a mode change
        anchor = Steady::now();
        mode = m;
        factor = f;
        offsetUs = startMs * 1000 - static_cast<long long>(monoBaseUs);
        wallBaseMs = SystemEpochMs();
        wallHostBaseMs = startMs;
        ChangedLocked();
    }
};

// Never destroyed: detached plug-in threads may still sleep on it while the process exits.
ClockState& Clock() {
    static ClockState* state = new ClockState;
    return *state;
}

}  // namespace

void ClockUseReal(long long startMs) {
    ClockState& c = Clock();
    std::lock_guard<std::mutex> lock(c.mutex);
    c.SelectLocked(ClockMode::Real, 1.0, std::max(0LL, startMs));
}

bool ClockUseScaled(double factor, long long startMs) {
    if (!(factor > 0.0) || !std::isfinite(factor)) return false;
    ClockState& c = Clock();
    std::lock_guard<std::mutex> lock(c.mutex);
    c.SelectLocked(ClockMode::Scaled, factor, std::max(0LL, startMs));
    return true;
}

void ClockUseStepped(long long startMs) {
    ClockState& c = Clock();
    std::lock_guard<std::mutex> lock(c.mutex);
    c.SelectLocked(ClockMode::Stepped, 1.0, std::max(0LL, startMs));
}

ClockMode ClockGetMode() {
    ClockState& c = Clock();
    std::lock_guard<std::mutex> lock(c.mutex);
    return c.mode;
}

bool ClockAdvance(long long ms) {
    if (ms < 0) return false;
    ClockState& c = Clock();
    std::lock_guard<std::mutex> lock(c.mutex);
    c.monoBaseUs += static_cast<uint64_t>(ms) * 1000;
    c.ChangedLocked();
    return true;
}

bool ClockSet(long long ms) {
    if (ms < 0) return false;
    ClockState& c = Clock();
    std::lock_guard<std::mutex> lock(c.mutex);
    const long long delta = ms * 1000 - c.NowUsLocked();
    if (delta >= 0) {
        c.monoBaseUs += static_cast<uint64_t>(delta);
    } else {
        c.offsetUs += delta;  // backwards: reported time only, deadlines unaffected
    }
    c.ChangedLocked();
    return true;
}

long long ClockNowMs() {
    ClockState& c = Clock();
    std::lock_guard<std::mutex> lock(c.mutex);
    return c.NowUsLocked() / 1000;
}

void ClockSetWallStart(long long epochMs) {
    ClockState& c = Clock();
    std::lock_guard<std::mutex> lock(c.mutex);
    c.wallBaseMs = epochMs;
    c.wallHostBaseMs = c.NowUsLocked() / 1000;
}

namespace detail {

uint64_t ClockMonoUs() {
    ClockState& c = Clock();
    std::lock_guard<std::mutex> lock(c.mutex);
    return c.MonoLocked();
}

long long ClockNowUs() {
    ClockState& c = Clock();
    std::lock_guard<std::mutex> lock(c.mutex);
    return c.NowUsLocked();
}

uint64_t ClockGeneration() {
    ClockState& c = Clock();
    std::lock_guard<std::mutex> lock(c.mutex);
    return c.generation;
}

bool ClockIsStepped() {
    return ClockGetMode() == ClockMode::Stepped;
}

int ClockRealTimeoutMs(uint64_t deadlineUs) {
    ClockState& c = Clock();
    std::lock_guard<std::mutex> lock(c.mutex);
    const uint64_t mono = c.MonoLocked();
    if (mono >= deadlineUs) return 0;
    if (c.mode == ClockMode::Stepped) return -1;
    const double realMs = static_cast<double>(deadlineUs - mono) / c.factor / 1000.0;
    if (realMs >= static_cast<double>(INT_MAX)) return INT_MAX;
    return std::max(1, static_cast<int>(std::ceil(realMs)));
}

void ClockAddWaker(int fd) {
    ClockState& c = Clock();
    std::lock_guard<std::mutex> lock(c.mutex);
    c.wakers.push_back(fd);
}

void ClockRemoveWaker(int fd) {
    ClockState& c = Clock();
    std::lock_guard<std::mutex> lock(c.mutex);
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
        auto& c = hostsim::Clock();
        std::lock_guard<std::mutex> lock(c.mutex);
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
    auto& c = hostsim::Clock();
    std::unique_lock<std::mutex> lock(c.mutex);
    const uint64_t deadline = c.MonoLocked() + us;
    for (;;) {
        const uint64_t mono = c.MonoLocked();
        if (mono >= deadline) return;
        if (c.mode == hostsim::ClockMode::Stepped) {
            c.changed.wait(lock);
        } else {
            const double realUs = std::ceil(static_cast<double>(deadline - mono) / c.factor);
            c.changed.wait_for(lock, std::chrono::microseconds(static_cast<long long>(realUs)));
        }
    }
}

// Waiters of an event sleep on the event's own condition variable but under the clock's mutex:
// a clock change (a step, a mode change) reaches them like every sleeper, a Notify only them.
struct CTMWaitEvent::State {
    std::condition_variable cv;
};

CTMWaitEvent::CTMWaitEvent() : m_state(new State) {
    auto& c = hostsim::Clock();
    std::lock_guard<std::mutex> lock(c.mutex);
    c.events.push_back(&m_state->cv);
}

CTMWaitEvent::~CTMWaitEvent() {
    {
        auto& c = hostsim::Clock();
        std::lock_guard<std::mutex> lock(c.mutex);
        c.events.erase(std::remove(c.events.begin(), c.events.end(), &m_state->cv), c.events.end());
    }
    delete m_state;
}

bool CTMWaitEvent::WaitMicroSecond(unsigned int us, bool (*ready)(void*), void* arg) {
    auto& c = hostsim::Clock();
    std::unique_lock<std::mutex> lock(c.mutex);
    const uint64_t deadline = c.MonoLocked() + us;
    for (;;) {
        if (ready != nullptr && ready(arg)) return true;
        const uint64_t mono = c.MonoLocked();
        if (mono >= deadline) return false;
        if (c.mode == hostsim::ClockMode::Stepped) {
            m_state->cv.wait(lock);
        } else {
            const double realUs = std::ceil(static_cast<double>(deadline - mono) / c.factor);
            m_state->cv.wait_for(lock, std::chrono::microseconds(static_cast<long long>(realUs)));
        }
    }
}

void CTMWaitEvent::Notify() {
    auto& c = hostsim::Clock();
    std::lock_guard<std::mutex> lock(c.mutex);
    m_state->cv.notify_all();
}

}  // namespace Common

// The peripheral object's bases and the host's peripheral thread.
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "CPeripheralBase.h"
#include "ClockState.h"
#include "Fiber.h"
#include "HostInternal.h"
#include "HostSim.h"

namespace Common {

CThread::CThread() : m_pThreadState(new ThreadState) {}

CThread::~CThread() {
    // The owner stops the thread before destruction; this is the last line of defence.
    if (m_pThreadState->fiber != nullptr) {
        m_pThreadState->stop = true;
        hostsim::detail::FiberJoin(m_pThreadState->fiber);  // from itself: detaches
        m_pThreadState->fiber = nullptr;
    }
    if (m_pThreadState->thread.joinable()) {
        m_pThreadState->stop = true;
        if (m_pThreadState->thread.get_id() == std::this_thread::get_id()) {
            m_pThreadState->thread.detach();
        } else {
            m_pThreadState->thread.join();
        }
    }
    delete m_pThreadState;
}

int CThread::PreBeginThread() {
    return 0;
}
int CThread::PostExitThread() {
    return 0;
}

}  // namespace Common

namespace {

void Wake(int fd) {
    const uint64_t one = 1;
    ssize_t n = ::write(fd, &one, sizeof(one));
    (void)n;  // already signalled when full
}

void DrainWake(int fd) {
    uint64_t value = 0;
    ssize_t n = ::read(fd, &value, sizeof(value));
    (void)n;
}

}  // namespace

CPeripheralBase::CPeripheralBase(CPeripheralManage* manage, CMsgClientManage* msgClient,
                                 unsigned int /*periphId*/, unsigned int /*portIndex*/)
    : m_pPeripheralManage(manage),
      m_pMsgClient(msgClient),
      m_moduleId(0),
      m_bUpgrading(0),
      m_pPeripheralState(new PeripheralState) {
    // The recorder hands its own client to every peripheral; ours comes from the manager that
    // PluginHost set up. A caller's client is kept only when the manager has none.
    if (manage != nullptr) {
        std::lock_guard<std::mutex> lock(manage->impl()->mutex);
        if (manage->impl()->client != nullptr) m_pMsgClient = manage->impl()->client;
        m_moduleId = manage->impl()->moduleId;
    }
    m_pPeripheralState->wakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (m_pPeripheralState->wakeFd < 0) {
        HOST_LOG(0, "eventfd failed: %s", std::strerror(errno));
    }
}

CPeripheralBase::~CPeripheralBase() {
    StopPeripheralThread();
    if (m_pPeripheralState->wakeFd >= 0) ::close(m_pPeripheralState->wakeFd);
    hostsim::detail::PartFree(m_pPeripheralState->part);
    delete m_pPeripheralState;
}

int CPeripheralBase::PeripheralInitialize() {
    return 0;
}
int CPeripheralBase::PeripheralThreadCycle(long long /*now*/) {
    return 0;
}
int CPeripheralBase::MessageRegister() {
    return 0;
}
int CPeripheralBase::MessageUnRegister() {
    return 0;
}
int CPeripheralBase::HandlePeripParamChange() {
    return 0;
}
int CPeripheralBase::ProcessPeripheralData() {
    return 0;
}

void CPeripheralBase::SetThreadCircleTime(unsigned int ms) {
    // A zero period would spin the thread; the shortest period is 1 ms of host time.
    m_pPeripheralState->circleMs = ms == 0 ? 1 : ms;
    if (m_pPeripheralState->wakeFd >= 0) Wake(m_pPeripheralState->wakeFd);
}

void CPeripheralBase::SetCurPeripheralStatus(bool ok) {
    m_pPeripheralState->statusOk = ok;
    HOST_LOG(1, "peripheral status %s", ok ? "ok" : "not working");
}

int CPeripheralBase::StopPeripheralThread() {
    auto* ts = hostsim::detail::BaseAccess::Thread(this);
    std::lock_guard<std::mutex> lock(ts->control);
    if (!ts->Running()) return 0;
    ts->stop = true;
    if (m_pPeripheralState->wakeFd >= 0) Wake(m_pPeripheralState->wakeFd);
    if (m_pPeripheralState->part != nullptr)
        hostsim::detail::PartInterrupt(m_pPeripheralState->part);
    if (ts->fiber != nullptr) {
        // From a cycle it detaches: the fiber ends when that call returns.
        hostsim::detail::FiberJoin(ts->fiber);
        ts->fiber = nullptr;
    } else if (ts->thread.get_id() == std::this_thread::get_id()) {
        // Called from a cycle: the thread ends when that call returns.
        ts->thread.detach();
    } else {
        ts->thread.join();
    }
    return 0;
}

int CPeripheralBase::ThreadFuncImpl() {
    using namespace hostsim::detail;
    PeripheralState* st = m_pPeripheralState;
    auto* ts = BaseAccess::Thread(this);
    if (st->wakeFd < 0) return -1;
    ClockAddWaker(st->wakeFd);
    uint64_t next = ClockMonoUs();  // the first cycle runs at once
    bool inputGone = false;         // bytes announced did not come: not again before the cycle
    while (!ts->stop) {
        if (ClockIsVirtual()) {
            // In turns (see HostSim.h): the cycle when due, then whatever came on the line, then
            // the turn goes to the next participant until the next cycle or the next bytes.
            st->idle = true;
            const bool turn = PartWaitTurn(st->part, -1);
            st->idle = false;
            if (!turn || ts->stop) continue;
            const uint64_t mono = ClockMonoUs();
            if (mono >= next) {
                PeripheralThreadCycle(ClockNowUs() / 1000);
                st->cycles.fetch_add(1);
                next += static_cast<uint64_t>(st->circleMs.load()) * 1000;
                if (next <= mono) next = mono + static_cast<uint64_t>(st->circleMs.load()) * 1000;
                inputGone = false;
                continue;
            }
            Line* line = st->line.load();
            if (!inputGone && st->serialFd >= 0 && LineReaderHasInput(line)) {
                // A plug-in that leaves the bytes where they are (or bytes that never come) must
                // not hold host time: until its next cycle it is not asked again.
                const uint64_t before = st->bytesTaken.load();
                pollfd p{st->serialFd, POLLIN, 0};
                if (::poll(&p, 1, 1000) > 0 && (p.revents & POLLIN)) ProcessPeripheralData();
                if (st->bytesTaken.load() == before) {
                    LineReaderGaveUp(line);
                    inputGone = true;
                }
                continue;
            }
            PartIdleWait(st->part, true, next, 0);
            continue;
        }
        const uint64_t generation = ClockGeneration();
        const uint64_t mono = ClockMonoUs();
        if (mono >= next) {
            ClockNoteLate(next);
            PeripheralThreadCycle(ClockNowUs() / 1000);
            st->cycles.fetch_add(1);
            const uint64_t period = static_cast<uint64_t>(st->circleMs.load()) * 1000;
            // A jump longer than a period gives one call, as a thread that overslept would.
            next += period;
            if (next <= mono) next = mono + period;
            st->serialHung = false;  // look at a hung-up port again once per cycle
            continue;
        }
        const int timeout = ClockRealTimeoutMs(next);
        pollfd fds[2] = {{st->wakeFd, POLLIN, 0}, {-1, POLLIN, 0}};
        if (st->serialFd >= 0 && !st->serialHung) fds[1].fd = st->serialFd;
        st->idleGeneration = generation;
        st->idle = true;
        const int rc = ::poll(fds, 2, timeout);
        st->idle = false;
        if (rc < 0) {
            if (errno != EINTR) {
                HOST_LOG(0, "poll failed: %s", std::strerror(errno));
                break;
            }
            continue;
        }
        if (fds[0].revents & POLLIN) DrainWake(st->wakeFd);
        if (ts->stop) break;
        if (fds[1].revents & POLLIN) ProcessPeripheralData();
        if (fds[1].revents & (POLLHUP | POLLERR | POLLNVAL)) {
            // The far end went away; polling it now would spin. Retried every cycle.
            if (!st->serialHung.exchange(true)) HOST_LOG(2, "serial port hung up");
        }
    }
    ClockRemoveWaker(st->wakeFd);
    return 0;
}

namespace hostsim {
namespace detail {

bool StartPeripheralThread(CPeripheralBase* object) {
    if (object == nullptr) return false;
    auto* ts = BaseAccess::Thread(object);
    std::lock_guard<std::mutex> lock(ts->control);
    if (ts->Running()) return false;
    ts->stop = false;
    // A participant from here, so that its first turn follows what the caller did before.
    auto* st = BaseAccess::State(object);
    if (st->part == nullptr) st->part = PartNew("peripheral");
    PartRegister(st->part);
    if (st->serialFd >= 0) st->line = LineAttachReader(st->serialPath, st->part, st->serialFd);
    Part* part = st->part;
    auto body = [object, part] {
        PartBind(part);
        PartWaitTurn(part, -1);
        object->PreBeginThread();
        object->ThreadFuncImpl();
        object->PostExitThread();
        PartLeave(part);
    };
    if (FibersChosen()) {
        ts->fiber = FiberStart("peripheral", body);
    } else {
        ts->thread = std::thread(body);
    }
    return true;
}

}  // namespace detail
}  // namespace hostsim

// Internals shared by the host layer's sources. Not for the plug-in, not for tests.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "CPeripheralBase.h"
#include "CPeripheralManage.h"
#include "CSerialBase.h"
#include "CThread.h"

namespace hostsim {
// Internal to libobdhost: not exported.
#pragma GCC visibility push(hidden)
namespace detail {

// ---- Clock ----
// Forward-only host time in microseconds: what deadlines are measured in. Moves with the clock
// except on a jump backwards, which changes only the reported time.
uint64_t ClockMonoUs();
// Reported host time in microseconds.
long long ClockNowUs();
// Bumped on every change of the clock other than its own running (advance, set, mode change).
uint64_t ClockGeneration();
// Real milliseconds a poll should wait for the forward-only time to reach `deadlineUs`; 0 when
// it has, -1 (forever) in the stepped mode.
int ClockRealTimeoutMs(uint64_t deadlineUs);
// eventfds written whenever the clock is changed, so poll loops recompute their timeout.
void ClockAddWaker(int fd);
void ClockRemoveWaker(int fd);
bool ClockIsStepped();

// ---- Log ----
void EmitLine(int level, const std::string& line);
// The host's own lines, printf-style, through the same filter as the plug-in's.
void HostLog(int level, const char* func, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

// ---- Threads started through CreateNormalThread that have not yet returned ----
int LiveWorkerThreads();
void ResetPlatform();
void ResetLog();
void ResetBus();
void BusDropModule(unsigned int moduleId);

}  // namespace detail
#pragma GCC visibility pop
}  // namespace hostsim

#define HOST_LOG(level, ...) ::hostsim::detail::HostLog((level), __func__, __VA_ARGS__)

// Manager configuration: written by PluginHost before the object exists, read by the bases.
struct CPeripheralManage::Impl {
    mutable std::mutex mutex;
    std::string serialPath;
    int baud = 115200;
    CMsgClientManage* client = nullptr;
    unsigned int moduleId = 0;
    std::string serialOpenError;
    int lastStatus = -1;
    int statusCount = 0;
};

struct CMsgClientManage::Impl {
    unsigned int ownerModule = 0;
};

namespace Common {
struct CThread::ThreadState {
    std::mutex control;  // serialises start and stop
    std::thread thread;
    std::atomic<bool> stop{false};
};
}  // namespace Common

struct CPeripheralBase::PeripheralState {
    int wakeFd = -1;  // eventfd: stop requests and clock changes wake the poll
    int serialFd = -1;
    std::atomic<unsigned int> maxBuffer{1024};
    std::atomic<unsigned int> circleMs{100};
    std::atomic<bool> statusOk{true};
    std::mutex writeMutex;  // one frame at a time on the wire
    std::atomic<bool> idle{false};
    std::atomic<uint64_t> idleGeneration{0};
    std::atomic<bool> serialHung{false};
    std::atomic<long long> cycles{0};
};

namespace hostsim {
// Internal to libobdhost: not exported.
#pragma GCC visibility push(hidden)
namespace detail {
// Reaches the host-private parts of the base classes (protected members).
struct BaseAccess : CPeripheralBase {
    static PeripheralState* State(const CPeripheralBase* p) {
        return p->*(&BaseAccess::m_pPeripheralState);
    }
    static Common::CThread::ThreadState* Thread(const Common::CThread* t) {
        return t->*(&BaseAccess::m_pThreadState);
    }
};
bool StartPeripheralThread(CPeripheralBase* object);
}  // namespace detail
#pragma GCC visibility pop
}  // namespace hostsim

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
namespace detail {
// Default visibility: the peripheral's state, which is not hidden, points to them.
struct Part;
struct Line;
struct Fiber;
}  // namespace detail

// Internal to libobdhost: not exported.
#pragma GCC visibility push(hidden)
namespace detail {

// ---- Clock ----
// Forward-only host time in microseconds: what deadlines are measured in. Moves with the clock
// except on a jump backwards, which changes only the reported time.
uint64_t ClockMonoUs();
// The peripheral's cycle due at `deadlineUs` (mono) runs now (see ClockMaxLateMs).
void ClockNoteLate(uint64_t deadlineUs);
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
bool ClockIsVirtual();

// ---- Virtual mode: the host's own threads as participants (see HostSim.h, ClockState.h) ----
// A participant's record, from a pool; PartFree makes it leave and gives it back.
Part* PartNew(const std::string& name);
void PartFree(Part* p);
// Registers `p` (runnable at once in the virtual mode) / takes it out; from any thread.
void PartRegister(Part* p);
void PartLeave(Part* p);
// Makes the calling thread `p`'s: its host sleeps become `p`'s waits.
void PartBind(Part* p);
Part* PartCurrent();
// Makes `p` the calling thread's participant without binding it; returns the one it had. For
// the fiber engine, which keeps each fiber's own.
Part* PartSwapCurrent(Part* p);
// Waits for `p`'s turn (realTimeoutMs < 0: no limit); true when it has it. False at once outside
// the virtual mode, and when `p` is interrupted or leaves.
bool PartWaitTurn(Part* p, int realTimeoutMs);
bool PartHasTurn(Part* p);
// Gives up the turn (idle until `deadlineUs` of forward-only time, or until kicked), then waits
// for the next one as PartWaitTurn does.
bool PartIdleWait(Part* p, bool hasDeadline, uint64_t deadlineUs, int realTimeoutMs);
void PartKick(Part* p);
// Ends a PartWaitTurn in progress and every later one (a thread being stopped).
void PartInterrupt(Part* p);
// The peripheral's end of the line `path` (opened as `fd`); null for no line.
Line* LineAttachReader(const std::string& path, Part* reader, int fd);
// Bytes written towards the peripheral that it has not read, or bytes waiting in its tty.
bool LineReaderHasInput(Line* l);
void LineReaderTook(Line* l, size_t n);
// They did not come: forget them.
void LineReaderGaveUp(Line* l);
// The peripheral wrote `n` bytes (counted before the write; negative for what a failed write
// did not send): the far end is kicked.
void LineReaderWrote(Line* l, long long n);

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
    hostsim::detail::Fiber* fiber = nullptr;  // instead of `thread` on virtual time (Fiber.h)
    std::atomic<bool> stop{false};
    bool Running() const { return thread.joinable() || fiber != nullptr; }
};
}  // namespace Common

struct CPeripheralBase::PeripheralState {
    int wakeFd = -1;  // eventfd: stop requests and clock changes wake the poll
    int serialFd = -1;
    std::string serialPath;
    hostsim::detail::Part* part = nullptr;  // the peripheral thread's, made by its first start
    std::atomic<hostsim::detail::Line*> line{nullptr};
    std::atomic<unsigned int> maxBuffer{1024};
    std::atomic<unsigned int> circleMs{100};
    std::atomic<bool> statusOk{true};
    std::mutex writeMutex;  // one frame at a time on the wire
    std::atomic<bool> idle{false};
    std::atomic<uint64_t> idleGeneration{0};
    std::atomic<bool> serialHung{false};
    std::atomic<long long> cycles{0};
    std::atomic<uint64_t> bytesTaken{0};  // read or flushed by the plug-in
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

// Host framework: common types and free functions the plug-in calls.
//
// This directory is the one seam between the plug-in and the recorder's framework. It declares
// only what the plug-in uses. On the recorder the framework's own libraries implement it; here
// the project's host layer (host/sim) and the unit-test fakes (tests/fakes) implement the same
// declarations, and the plug-in cannot tell which one it runs on.
#pragma once

#include <cstddef>
#include <cstdint>

// Product types known to the host. Only the CAN-box value changes the plug-in's behaviour.
enum eProductType {
    PRODUCT_TYPE_DEFAULT = 0,
    PRODUCT_TYPE_CAN_BOX = 72,
    PRODUCT_TYPE_UNKNOWN = 255,
};

// Fills `type` with the recorder's product type. Any thread. Returns 0.
int P4X_GetProductType(eProductType& type);

// Starts a detached worker thread running `entry(arg)`. `tid` may be null. Returns 0 on success,
// a negative value when no thread could be started. The plug-in neither joins nor detaches it.
int CreateNormalThread(void* (*entry)(void*), void* arg, unsigned long* tid);

namespace Common {

// The host's 16-byte head in front of every inbound bus payload. The plug-in reads only
// `lenFlags & MSG_HEAD_LEN_MASK` (the payload length); every other field is the host's, handed
// back unchanged to answer a message.
struct SMessageHead {
    uint32_t msgId;      // id of the message
    uint32_t srcModule;  // sender's module id (where an answer goes)
    uint32_t seq;        // sender's sequence number
    uint32_t lenFlags;   // bits 0-22 payload length, bits 23-31 host flags
};
static_assert(sizeof(SMessageHead) == 16, "bus head is 16 bytes");
static_assert(offsetof(SMessageHead, srcModule) == 4, "bus head layout");
static_assert(offsetof(SMessageHead, seq) == 8, "bus head layout");
static_assert(offsetof(SMessageHead, lenFlags) == 12, "payload length word sits at offset 12");
constexpr uint32_t MSG_HEAD_LEN_MASK = 0x007FFFFFu;

// Shared wall-clock date and time. The first six bytes are copied into black-box records.
struct _datetime_ {
    uint8_t year;  // years since 2000
    uint8_t month;
    uint8_t day;
    uint8_t hour;
    uint8_t minute;
    uint8_t second;
    uint16_t millisecond;
};
static_assert(sizeof(_datetime_) == 8, "date-time record is 8 bytes");
static_assert(offsetof(_datetime_, second) == 5, "the six date-time bytes lead the record");
static_assert(offsetof(_datetime_, millisecond) == 6, "date-time record");

// Fills `dt` from the host clock. Any thread. Returns 0, -1 for a null pointer.
int P4X_TMGetShareTime(_datetime_* dt);

// Monotonic microseconds from the host clock (follows the host's time scale). Any thread.
uint64_t P4X_TMGetSystemMicroSecond();

// The plug-in's only sleep: blocks the calling thread for `us` microseconds of host time.
// On the recorder this is usleep(); the project's host layer scales or steps it with its clock,
// so a test of a 2 s command timeout does not cost 2 real seconds.
void P4X_TMSleepMicroSecond(unsigned int us);

// A sleep on host time that another thread can cut short: the way one thread waits for
// something another thread does (the link's command wait for the box's answer).
// WaitMicroSecond(us, ready, arg) returns as soon as `ready(arg)` is true, at the latest when `us`
// microseconds of host time have passed, and returns ready's last result. The deadline counts as
// P4X_TMSleepMicroSecond(us) does: a wait whose condition never holds returns at the same host
// time as that sleep would (exactly, with a stepped clock). `ready` is tested at once, after
// every Notify() and whenever the host decides to look again; it is called with a host lock
// held, so it must only read (an atomic) and return. Notify: any thread, any time, also when
// nobody waits. Several threads may wait on one event. On the recorder this is a condition
// variable waited on with the monotonic clock.
class CTMWaitEvent {
  public:
    CTMWaitEvent();
    ~CTMWaitEvent();
    CTMWaitEvent(const CTMWaitEvent&) = delete;
    CTMWaitEvent& operator=(const CTMWaitEvent&) = delete;

    bool WaitMicroSecond(unsigned int us, bool (*ready)(void* arg), void* arg);
    void Notify();

  private:
    struct State;
    State* m_state;  // the host's
};

// Level-filtered log line. `file` is the module's source path, `func` and `line` the caller's.
// Any thread; a line is written whole.
void gclDebugPrintf(int level, const char* file, const char* func, int line, const char* fmt, ...)
    __attribute__((format(printf, 5, 6)));

}  // namespace Common

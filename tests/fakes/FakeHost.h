// A fake of the recorder's host framework for unit tests of the plug-in.
//
// It implements the same host-interface declarations as the Linux host layer, but records every
// call instead of touching a tty or a bus thread, so a test can assert on the exact bytes the
// plug-in wrote, the messages it sent and the order of lifecycle calls. All state is
// process-wide (one peripheral per test) and guarded by one mutex; Reset() starts a test clean.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "CSerialBase.h"
#include "HostCommon.h"

namespace fakehost {

struct LogLine {
    int level;
    std::string file;
    std::string func;
    int line;
    std::string text;
};

struct BusSend {
    int dest;
    int id;
    int flags;
    std::vector<unsigned char> payload;
    int moduleId;
};

struct BusResponse {
    Common::SMessageHead head;
    std::vector<unsigned char> payload;
};

struct Registration {
    int moduleId;
    int msgId;
    const CPeripheralBase* object;
    PeripheralMsgHandler handler;
};

struct Dump {
    std::string label;
    std::vector<unsigned char> bytes;
    int level;
};

constexpr unsigned int kModuleId = 0x38;

// Configuration.
void Reset();
// Forgets what was recorded (logs, dumps, writes, messages, events) but keeps registrations and
// settings: long runs such as fuzzing stay small.
void ClearRecords();
void SetProductType(int type);
void FailThreadCreation(bool fail);
// Threads created while held wait before running their entry until ReleaseThreads().
void HoldThreads(bool hold);
void ReleaseThreads();
// Blocks until every thread started through CreateNormalThread has returned from its entry.
bool WaitThreadsExited(int timeoutMs);
int ThreadsStarted();
// A sleep of `us` host microseconds takes us / divisor real microseconds (default 1000); with 0
// it only yields (single-threaded runs such as fuzzing, where nothing else moves time).
void SetSleepDivisor(unsigned int divisor);
uint64_t SleepCalls();
uint64_t SleptUs();
// Every CTMWaitEvent wait that had to block (its condition false when called): the host time it
// was given, and whether its condition held when it returned (false: it ran to its deadline).
// It lasts us / divisor real microseconds unless notified, like a sleep.
struct TimedWait {
    unsigned int us;
    bool ready;
};
std::vector<TimedWait> TimedWaits();
void SetMicroSeconds(uint64_t us);
void SetShareTime(const Common::_datetime_& dt);

// Serial port: each queued chunk is handed over by one GetSerialBufferData call.
void QueueSerialInput(const std::vector<unsigned char>& chunk);
// Called on the writer's thread, inside the write, after it is recorded: with the bytes of every
// serial write (msgId 0) and the payload of every bus message sent (msgId). A box that answers
// faster than the writer returns. Reset() removes it.
using SendHook = std::function<void(int msgId, const std::vector<unsigned char>& bytes)>;
void SetSendHook(SendHook hook);
std::vector<std::vector<unsigned char>> SerialWrites();
// A box that answers on a thread of its own takes part in the waits (tests/link's ScriptedBox):
// while attached, a CTMWaitEvent wait takes no real time but ends when its condition holds or,
// at its deadline, once the box has handled every serial write so far without making it hold.
// An answer then never misses its wait however late the box's thread runs, and an unanswered
// command costs nothing. Attached with no box reporting, host time stands: a wait ends only by
// its condition (what ends a wait early), or as a fault after 10 s of real time, not ready.
// Reset() detaches it (ClearRecords() does not).
void AttachAnswerer(bool attached);
// The box's view: every serial write and the epoch they belong to (Reset() and ClearRecords()
// begin a new one); then it reports the first `count` writes of `epoch` handled.
std::vector<std::vector<unsigned char>> SerialWrites(uint64_t* epoch);
void AnswererHandled(uint64_t epoch, size_t count);
int ClearCalls();
std::vector<int> ConfigStatuses();
unsigned int MaxBufferSize();
unsigned int CircleTime();
bool PeripheralStatus();

// Bus.
std::vector<BusSend> Sends();
std::vector<BusResponse> Responses();
std::vector<Registration> Registrations();
std::vector<int> Unregistrations();
// Calls the handler registered for `msgId` with a host head and `payload`, on the caller's
// thread. Returns the handler's result, or -1000 when nothing is registered for the id.
int Deliver(int msgId, const std::vector<unsigned char>& payload);
// Calls the handler with exactly these message bytes (tests of short and lying messages).
int DeliverRaw(int msgId, const char* msg, int len);

// Logging.
std::vector<LogLine> Logs();
int CountLogs(const std::string& substring, int level = -1);
std::vector<Dump> Dumps();

// Lifecycle calls in order ("StopPeripheralThread", "SetSerialConfigStatus:6", "~CSerialBase").
std::vector<std::string> Events();

}  // namespace fakehost

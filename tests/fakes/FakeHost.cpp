#include "FakeHost.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>

#include "CMsgClientManage.h"
#include "CPeripheralManage.h"

namespace fakehost {
namespace {

// Everything Reset() starts afresh; the lock, the running threads and the numbering outlive it.
struct Records {
    int productType = 0;
    bool failThreads = false;
    bool holdThreads = false;
    int threadsStarted = 0;
    unsigned int sleepDivisor = 1000;
    uint64_t sleepCalls = 0;
    uint64_t sleptUs = 0;
    std::vector<TimedWait> timedWaits;
    bool answerer = false;  // a box thread takes part in the waits (AttachAnswerer)
    size_t answered = 0;    // serial writes of this epoch the box has handled
    uint64_t microSeconds = 0;
    Common::_datetime_ shareTime{};
    std::deque<std::vector<unsigned char>> serialIn;
    std::vector<std::vector<unsigned char>> serialOut;
    int clearCalls = 0;
    std::vector<int> configStatuses;
    unsigned int maxBuffer = 0;
    unsigned int circleTime = 0;
    bool periphStatus = true;
    std::vector<BusSend> sends;
    std::vector<BusResponse> responses;
    std::vector<Registration> registrations;
    std::vector<int> unregistrations;
    std::vector<LogLine> logs;
    std::vector<Dump> dumps;
    std::vector<std::string> events;
    SendHook sendHook;
};

struct State : Records {
    std::mutex mu;
    std::condition_variable cv;
    int threadsRunning = 0;
    uint64_t waitEpoch = 0;  // bumped whenever timedWaits and serialOut are emptied
    uint32_t nextSeq = 1;
};

State& S() {
    static State s;
    return s;
}

CMsgClientManage& Bus() {
    static CMsgClientManage bus;
    return bus;
}

}  // namespace

void Reset() {
    State& s = S();
    std::lock_guard<std::mutex> lock(s.mu);
    static_cast<Records&>(s) = Records{};
    ++s.waitEpoch;
}

void ClearRecords() {
    State& s = S();
    std::lock_guard<std::mutex> lock(s.mu);
    s.serialOut.clear();
    s.timedWaits.clear();
    ++s.waitEpoch;
    s.answered = 0;
    s.sends.clear();
    s.responses.clear();
    s.logs.clear();
    s.dumps.clear();
    s.events.clear();
    s.configStatuses.clear();
}

#define FAKE_GET(type, name, field)               \
    type name() {                                 \
        std::lock_guard<std::mutex> lock(S().mu); \
        return S().field;                         \
    }
FAKE_GET(int, ThreadsStarted, threadsStarted)
FAKE_GET(uint64_t, SleepCalls, sleepCalls)
FAKE_GET(uint64_t, SleptUs, sleptUs)
FAKE_GET(std::vector<TimedWait>, TimedWaits, timedWaits)
FAKE_GET(std::vector<std::vector<unsigned char>>, SerialWrites, serialOut)
FAKE_GET(int, ClearCalls, clearCalls)
FAKE_GET(std::vector<int>, ConfigStatuses, configStatuses)
FAKE_GET(unsigned int, MaxBufferSize, maxBuffer)
FAKE_GET(unsigned int, CircleTime, circleTime)
FAKE_GET(bool, PeripheralStatus, periphStatus)
FAKE_GET(std::vector<BusSend>, Sends, sends)
FAKE_GET(std::vector<BusResponse>, Responses, responses)
FAKE_GET(std::vector<Registration>, Registrations, registrations)
FAKE_GET(std::vector<int>, Unregistrations, unregistrations)
FAKE_GET(std::vector<LogLine>, Logs, logs)
FAKE_GET(std::vector<Dump>, Dumps, dumps)
FAKE_GET(std::vector<std::string>, Events, events)
#undef FAKE_GET

#define FAKE_SET(name, type, field)               \
    void name(type v) {                           \
        std::lock_guard<std::mutex> lock(S().mu); \
        S().field = v;                            \
    }
FAKE_SET(SetProductType, int, productType)
FAKE_SET(FailThreadCreation, bool, failThreads)
FAKE_SET(SetSleepDivisor, unsigned int, sleepDivisor)
FAKE_SET(SetMicroSeconds, uint64_t, microSeconds)
#undef FAKE_SET

void SetShareTime(const Common::_datetime_& dt) {
    std::lock_guard<std::mutex> lock(S().mu);
    S().shareTime = dt;
}

void HoldThreads(bool hold) {
    std::lock_guard<std::mutex> lock(S().mu);
    S().holdThreads = hold;
    S().cv.notify_all();
}

void ReleaseThreads() {
    HoldThreads(false);
}

bool WaitThreadsExited(int timeoutMs) {
    std::unique_lock<std::mutex> lock(S().mu);
    return S().cv.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                           [] { return S().threadsRunning == 0; });
}

void AttachAnswerer(bool attached) {
    std::lock_guard<std::mutex> lock(S().mu);
    S().answerer = attached;
    S().answered = 0;
    S().cv.notify_all();
}

std::vector<std::vector<unsigned char>> SerialWrites(uint64_t* epoch) {
    std::lock_guard<std::mutex> lock(S().mu);
    *epoch = S().waitEpoch;
    return S().serialOut;
}

void AnswererHandled(uint64_t epoch, size_t count) {
    std::lock_guard<std::mutex> lock(S().mu);
    if (epoch != S().waitEpoch) return;  // writes the test has cleared since
    S().answered = std::max(S().answered, count);
    S().cv.notify_all();
}

void SetSendHook(SendHook hook) {
    std::lock_guard<std::mutex> lock(S().mu);
    S().sendHook = std::move(hook);
}

namespace {
// Runs the hook outside the fake's lock: it may call back into the plug-in, which logs.
void CallSendHook(int msgId, const std::vector<unsigned char>& bytes) {
    SendHook hook;
    {
        std::lock_guard<std::mutex> lock(S().mu);
        hook = S().sendHook;
    }
    if (hook) hook(msgId, bytes);
}
}  // namespace

void QueueSerialInput(const std::vector<unsigned char>& chunk) {
    std::lock_guard<std::mutex> lock(S().mu);
    S().serialIn.push_back(chunk);
}

int CountLogs(const std::string& substring, int level) {
    std::lock_guard<std::mutex> lock(S().mu);
    return static_cast<int>(std::count_if(S().logs.begin(), S().logs.end(), [&](const LogLine& l) {
        return (level < 0 || l.level == level) && l.text.find(substring) != std::string::npos;
    }));
}

int DeliverRaw(int msgId, const char* msg, int len) {
    Registration reg{};
    bool found = false;
    {
        std::lock_guard<std::mutex> lock(S().mu);
        for (const auto& r : S().registrations) {
            if (r.msgId == msgId) {
                reg = r;
                found = true;
            }
        }
    }
    if (!found) return -1000;
    auto* object = const_cast<CPeripheralBase*>(reg.object);
    return (object->*reg.handler)(msg, len);
}

int Deliver(int msgId, const std::vector<unsigned char>& payload) {
    std::vector<char> msg(sizeof(Common::SMessageHead) + payload.size());
    Common::SMessageHead head{};
    head.msgId = static_cast<uint32_t>(msgId);
    head.srcModule = 0x77;
    {
        std::lock_guard<std::mutex> lock(S().mu);
        head.seq = S().nextSeq++;
    }
    head.lenFlags = static_cast<uint32_t>(payload.size()) & Common::MSG_HEAD_LEN_MASK;
    std::memcpy(msg.data(), &head, sizeof(head));
    if (!payload.empty()) std::memcpy(msg.data() + sizeof(head), payload.data(), payload.size());
    return DeliverRaw(msgId, msg.data(), static_cast<int>(msg.size()));
}

}  // namespace fakehost

using fakehost::S;

// ---- host free functions ----

int P4X_GetProductType(eProductType& type) {
    std::lock_guard<std::mutex> lock(S().mu);
    type = static_cast<eProductType>(S().productType);
    return 0;
}

namespace {
struct ThreadStart {
    void* (*entry)(void*);
    void* arg;
};
void* FakeThreadMain(void* p) {
    ThreadStart start = *static_cast<ThreadStart*>(p);
    delete static_cast<ThreadStart*>(p);
    {
        std::unique_lock<std::mutex> lock(S().mu);
        S().cv.wait(lock, [] { return !S().holdThreads; });
    }
    start.entry(start.arg);
    std::lock_guard<std::mutex> lock(S().mu);
    --S().threadsRunning;
    S().cv.notify_all();
    return nullptr;
}
}  // namespace

int CreateNormalThread(void* (*entry)(void*), void* arg, unsigned long* tid) {
    if (entry == nullptr) {
        ADD_FAILURE() << "CreateNormalThread without an entry";
        return -1;
    }
    {
        std::lock_guard<std::mutex> lock(S().mu);
        if (S().failThreads) return -1;
        ++S().threadsStarted;
        ++S().threadsRunning;
    }
    pthread_t thread;
    auto* start = new ThreadStart{entry, arg};
    if (pthread_create(&thread, nullptr, FakeThreadMain, start) != 0) {
        delete start;
        std::lock_guard<std::mutex> lock(S().mu);
        --S().threadsRunning;
        return -1;
    }
    pthread_detach(thread);
    if (tid != nullptr) *tid = static_cast<unsigned long>(thread);
    return 0;
}

namespace Common {

int P4X_TMGetShareTime(_datetime_* dt) {
    if (dt == nullptr) return -1;
    std::lock_guard<std::mutex> lock(S().mu);
    *dt = S().shareTime;
    return 0;
}

uint64_t P4X_TMGetSystemMicroSecond() {
    std::lock_guard<std::mutex> lock(S().mu);
    return S().microSeconds;
}

void P4X_TMSleepMicroSecond(unsigned int us) {
    unsigned int divisor;
    {
        std::lock_guard<std::mutex> lock(S().mu);
        ++S().sleepCalls;
        S().sleptUs += us;
        divisor = S().sleepDivisor;
    }
    if (divisor == 0) {
        std::this_thread::yield();
        return;
    }
    std::this_thread::sleep_for(std::chrono::microseconds(std::max(1u, us / divisor)));
}

// Waiters block under the fake's one mutex on the event's own condition variable.
struct CTMWaitEvent::State {
    std::condition_variable cv;
};

CTMWaitEvent::CTMWaitEvent() : m_state(new State) {}

CTMWaitEvent::~CTMWaitEvent() {
    delete m_state;
}

bool CTMWaitEvent::WaitMicroSecond(unsigned int us, bool (*ready)(void*), void* arg) {
    std::unique_lock<std::mutex> lock(S().mu);
    auto test = [&] { return ready != nullptr && ready(arg); };
    if (test()) return true;
    const unsigned int divisor = S().sleepDivisor;
    const size_t record = S().timedWaits.size();
    const uint64_t epoch = S().waitEpoch;
    S().timedWaits.push_back(fakehost::TimedWait{us, false});
    bool done;
    if (S().answerer) {
        // No real time: the deadline is reached once the box has handled every write so far and
        // the condition still does not hold, as host time would jump there with nothing to do.
        // (The real limit is for a fault only: a wait that nothing ends fails instead of hanging.)
        S().cv.wait_for(lock, std::chrono::seconds(10), [&] {
            return test() || !S().answerer || S().answered >= S().serialOut.size();
        });
        done = test();
    } else if (divisor == 0) {
        lock.unlock();
        std::this_thread::yield();
        lock.lock();
        done = test();
    } else {
        const auto real = std::chrono::microseconds(std::max(1u, us / divisor));
        done = m_state->cv.wait_for(lock, real, test);
    }
    // A Reset() meanwhile has dropped the record.
    if (epoch == S().waitEpoch) S().timedWaits[record].ready = done;
    return done;
}

void CTMWaitEvent::Notify() {
    std::lock_guard<std::mutex> lock(S().mu);
    m_state->cv.notify_all();
    S().cv.notify_all();  // the waits that a box takes part in
}

void gclDebugPrintf(int level, const char* file, const char* func, int line, const char* fmt, ...) {
    char text[1024];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(text, sizeof(text), fmt, ap);
    va_end(ap);
    std::lock_guard<std::mutex> lock(S().mu);
    S().logs.push_back(fakehost::LogLine{level, file ? file : "", func ? func : "", line, text});
}

CThread::CThread() : m_pThreadState(nullptr) {}
CThread::~CThread() {}
int CThread::PreBeginThread() {
    return 0;
}
int CThread::PostExitThread() {
    return 0;
}

}  // namespace Common

// ---- peripheral manager ----

struct CPeripheralManage::Impl {};
CPeripheralManage::CPeripheralManage() : m_pImpl(nullptr) {}
CPeripheralManage::~CPeripheralManage() {}
void CPeripheralManage::hex_dump(std::string label, const char* data, unsigned int len, int level) {
    if (data == nullptr && len > 0) ADD_FAILURE() << "hex_dump of " << len << " bytes from null";
    std::vector<unsigned char> bytes;
    if (data != nullptr) bytes.assign(data, data + len);
    std::lock_guard<std::mutex> lock(S().mu);
    S().dumps.push_back(fakehost::Dump{label, bytes, level});
}

// ---- bus client ----

struct CMsgClientManage::Impl {};
CMsgClientManage::CMsgClientManage() : m_pImpl(nullptr) {}
CMsgClientManage::~CMsgClientManage() {}

int CMsgClientManage::MSGEventRegister(int moduleId, int msgId, const void* object, ...) {
    va_list ap;
    va_start(ap, object);
    PeripheralMsgHandler handler = va_arg(ap, PeripheralMsgHandler);
    va_end(ap);
    if (object == nullptr || handler == nullptr) {
        ADD_FAILURE() << "MSGEventRegister for " << msgId << " without object or handler";
        return -1;
    }
    std::lock_guard<std::mutex> lock(S().mu);
    S().registrations.push_back(fakehost::Registration{
        moduleId, msgId, static_cast<const CPeripheralBase*>(object), handler});
    return 0;
}

int CMsgClientManage::MSGEventUnRegister(int moduleId, int msgId) {
    (void)moduleId;
    std::lock_guard<std::mutex> lock(S().mu);
    S().unregistrations.push_back(msgId);
    auto& regs = S().registrations;
    regs.erase(std::remove_if(regs.begin(), regs.end(),
                              [&](const fakehost::Registration& r) { return r.msgId == msgId; }),
               regs.end());
    return 0;
}

int CMsgClientManage::MSGSendMessage(int dest, int msgId, int flags, const char* data, int len,
                                     int moduleId) {
    if (len < 0 || (data == nullptr && len > 0)) {
        ADD_FAILURE() << "MSGSendMessage " << msgId << " with a bad payload";
        return -1;
    }
    std::vector<unsigned char> payload;
    if (len > 0) payload.assign(data, data + len);
    {
        std::lock_guard<std::mutex> lock(S().mu);
        S().sends.push_back(fakehost::BusSend{dest, msgId, flags, payload, moduleId});
    }
    fakehost::CallSendHook(msgId, payload);
    return 0;
}

int CMsgClientManage::MSGResponseMessage(Common::SMessageHead* head, const char* data, int len) {
    if (head == nullptr || len < 0 || (data == nullptr && len > 0)) {
        ADD_FAILURE() << "MSGResponseMessage with a bad head or payload";
        return -1;
    }
    std::vector<unsigned char> payload;
    if (len > 0) payload.assign(data, data + len);
    std::lock_guard<std::mutex> lock(S().mu);
    S().responses.push_back(fakehost::BusResponse{*head, payload});
    return 0;
}

// ---- peripheral base ----

CPeripheralBase::CPeripheralBase(CPeripheralManage* manage, CMsgClientManage* /*msgClient*/,
                                 unsigned int, unsigned int)
    : m_pPeripheralManage(manage),
      m_pMsgClient(&fakehost::Bus()),
      m_moduleId(fakehost::kModuleId),
      m_bUpgrading(0),
      m_pPeripheralState(nullptr) {}
CPeripheralBase::~CPeripheralBase() {}
int CPeripheralBase::ThreadFuncImpl() {
    return 0;
}
int CPeripheralBase::PeripheralInitialize() {
    return 0;
}
int CPeripheralBase::PeripheralThreadCycle(long long) {
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
    std::lock_guard<std::mutex> lock(S().mu);
    S().circleTime = ms;
}
void CPeripheralBase::SetCurPeripheralStatus(bool ok) {
    std::lock_guard<std::mutex> lock(S().mu);
    S().periphStatus = ok;
}
int CPeripheralBase::StopPeripheralThread() {
    std::lock_guard<std::mutex> lock(S().mu);
    S().events.push_back("StopPeripheralThread");
    return 0;
}

// ---- serial base ----

CSerialBase::CSerialBase(CPeripheralManage* manage, CMsgClientManage* msgClient,
                         unsigned int periphId, unsigned int portIndex)
    : CPeripheralBase(manage, msgClient, periphId, portIndex) {}
CSerialBase::~CSerialBase() {
    std::lock_guard<std::mutex> lock(S().mu);
    S().events.push_back("~CSerialBase");
}
int CSerialBase::HandlePeripParamChange() {
    return 0;
}
int CSerialBase::SetMainChipSerialProperty(unsigned char, SerialBaudRate, SerialDataBitMode,
                                           SerialStopBitMode, SerialParityMode,
                                           SerialFlowControlMode) {
    return 0;
}
void CSerialBase::SetSerialMaxBufferSize(unsigned int size) {
    std::lock_guard<std::mutex> lock(S().mu);
    S().maxBuffer = size;
}
int CSerialBase::GetSerialBufferData(char* buf, unsigned int& len) {
    if (buf == nullptr) {
        ADD_FAILURE() << "GetSerialBufferData into null";
        return -1;
    }
    std::lock_guard<std::mutex> lock(S().mu);
    len = 0;
    if (S().serialIn.empty()) return 0;
    auto& chunk = S().serialIn.front();
    const size_t n = std::min<size_t>(chunk.size(), S().maxBuffer);
    std::memcpy(buf, chunk.data(), n);
    len = static_cast<unsigned int>(n);
    if (n == chunk.size()) {
        S().serialIn.pop_front();
    } else {
        chunk.erase(chunk.begin(), chunk.begin() + static_cast<long>(n));
    }
    return 0;
}
int CSerialBase::SendDataToPeripheral(const char* data, unsigned int len) {
    if (data == nullptr || len == 0) {
        ADD_FAILURE() << "SendDataToPeripheral with nothing to send";
        return -1;
    }
    const std::vector<unsigned char> bytes(data, data + len);
    {
        std::lock_guard<std::mutex> lock(S().mu);
        S().serialOut.push_back(bytes);
    }
    fakehost::CallSendHook(0, bytes);
    return static_cast<int>(len);
}
int CSerialBase::ClearSerialBufferValue() {
    std::lock_guard<std::mutex> lock(S().mu);
    ++S().clearCalls;
    return 0;
}
int CSerialBase::SetSerialConfigStatus(unsigned char status, unsigned int, unsigned int) {
    std::lock_guard<std::mutex> lock(S().mu);
    S().configStatuses.push_back(status);
    S().events.push_back("SetSerialConfigStatus:" + std::to_string(status));
    return 0;
}

// The fiber engine: one carrier thread that runs the fibers one at a time (see Fiber.h).
#include "Fiber.h"

#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <thread>
#include <vector>

#include "HostInternal.h"
#include "HostSim.h"

#if defined(__SANITIZE_THREAD__)
#define OBD_FIBERS 0
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define OBD_FIBERS 0
#endif
#endif
#ifndef OBD_FIBERS
#define OBD_FIBERS 1
#endif

#if defined(__SANITIZE_ADDRESS__)
#define OBD_FIBER_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define OBD_FIBER_ASAN 1
#endif
#endif
#ifdef OBD_FIBER_ASAN
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#endif

#if !defined(__x86_64__)
#include <ucontext.h>
#define OBD_FIBER_UCONTEXT 1
#endif

namespace hostsim {
namespace detail {

// The fiber's own stack: as large as a thread's, and only the pages it touches are ever backed.
constexpr size_t kStackBytes = 8u << 20;

struct Fiber {
    enum class Run { New, Running, Suspended, Ended, Done };
    std::string name;
    std::function<void()> fn;
    // All below guarded by the clock's mutex, except what only the engine thread touches.
    Run run = Run::New;
    std::function<bool()> ready;  // Suspended: may it go on
    bool hasLimit = false;
    std::chrono::steady_clock::time_point limit;
    bool timedOut = false;
    bool detached = false;
    Part* part = nullptr;  // the participant bound to it (t_part while it runs)
    std::condition_variable ended;
    // The engine thread only.
    char* stack = nullptr;  // the mapping, guard page first
    size_t mapped = 0;
#ifdef OBD_FIBER_UCONTEXT
    ucontext_t ctx{};
#else
    void* sp = nullptr;
#endif
    void* asanFake = nullptr;
};

namespace {

struct Engine {
    std::vector<Fiber*> fibers;  // started, not yet Done; guarded by the clock's mutex
    std::atomic<uint32_t> word{0};
    bool sleeping = false;  // guarded by the clock's mutex
    bool started = false;
#ifdef OBD_FIBER_UCONTEXT
    ucontext_t ctx{};
#else
    void* sp = nullptr;
#endif
    const void* asanBottom = nullptr;  // the engine's own stack, as the address sanitizer saw it
    size_t asanSize = 0;
    void* asanFake = nullptr;
};

// Never destroyed: the engine thread may still wait on it while the process exits.
Engine& TheEngine() {
    static Engine* e = new Engine;
    return *e;
}

thread_local Fiber* t_fiber = nullptr;
thread_local bool t_onEngine = false;

std::atomic<bool> g_chosen{true};
std::atomic<bool> g_envRead{false};

void FutexWakeWord(std::atomic<uint32_t>* word) {
    ::syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr,
              0);
}

void FutexWaitWord(std::atomic<uint32_t>* word, uint32_t seen, long long timeoutMs) {
    timespec ts{};
    if (timeoutMs >= 0) {
        ts.tv_sec = static_cast<time_t>(timeoutMs / 1000);
        ts.tv_nsec = static_cast<long>(timeoutMs % 1000) * 1000000L;
    }
    ::syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAIT_PRIVATE, seen,
              timeoutMs >= 0 ? &ts : nullptr, nullptr, 0);
}

}  // namespace
}  // namespace detail
}  // namespace hostsim

#ifndef OBD_FIBER_UCONTEXT
// Saves the callee-saved registers and the floating-point control words on the current stack,
// stores its pointer in *save and continues on the stack `to` (saved the same way, or laid out so
// by FiberFrame). The System V ABI leaves everything else to the caller.
extern "C" void obdhost_fiber_switch(void** save, void* to);
__asm__(
    ".text\n"
    ".globl obdhost_fiber_switch\n"
    ".hidden obdhost_fiber_switch\n"
    ".type obdhost_fiber_switch,@function\n"
    "obdhost_fiber_switch:\n"
    "  .cfi_startproc\n"
    "  pushq %rbp\n"
    "  pushq %rbx\n"
    "  pushq %r12\n"
    "  pushq %r13\n"
    "  pushq %r14\n"
    "  pushq %r15\n"
    "  subq $8, %rsp\n"
    "  stmxcsr (%rsp)\n"
    "  fnstcw 4(%rsp)\n"
    "  movq %rsp, (%rdi)\n"
    "  movq %rsi, %rsp\n"
    "  ldmxcsr (%rsp)\n"
    "  fldcw 4(%rsp)\n"
    "  addq $8, %rsp\n"
    "  popq %r15\n"
    "  popq %r14\n"
    "  popq %r13\n"
    "  popq %r12\n"
    "  popq %rbx\n"
    "  popq %rbp\n"
    "  ret\n"
    "  .cfi_endproc\n"
    ".size obdhost_fiber_switch,.-obdhost_fiber_switch\n");
#endif

namespace hostsim {
namespace detail {
namespace {

[[noreturn]] void FiberMain();

#ifdef OBD_FIBER_UCONTEXT
void FiberMainUc() {
    FiberMain();
}
#else
extern "C" [[noreturn]] void obdhost_fiber_entry() {
    FiberMain();
}

// The stack of a fiber that never ran, as obdhost_fiber_switch expects to find it: the control
// words, six zeroed registers and the entry as the return address, which then sees the stack
// as a function called with an aligned stack does.
void* FiberFrame(char* top) {
    auto* w = reinterpret_cast<uint64_t*>(reinterpret_cast<uintptr_t>(top) & ~uintptr_t{15});
    w[-1] = 0;  // the entry's own return address: there is none
    w[-2] = reinterpret_cast<uint64_t>(&obdhost_fiber_entry);
    for (int i = 3; i <= 8; ++i) w[-i] = 0;
    const uint32_t mxcsr = 0x1F80;  // all exceptions masked, round to nearest
    const uint16_t fpucw = 0x037F;  // the same for the x87 unit, extended precision
    std::memcpy(&w[-9], &mxcsr, sizeof(mxcsr));
    std::memcpy(reinterpret_cast<char*>(&w[-9]) + 4, &fpucw, sizeof(fpucw));
    return &w[-9];
}
#endif

// The address sanitizer keeps a shadow of every stack; it is told before and after each switch
// which stack is about to run.
void AsanStart(void** fake, const void* bottom, size_t size) {
#ifdef OBD_FIBER_ASAN
    __sanitizer_start_switch_fiber(fake, bottom, size);
#else
    (void)fake;
    (void)bottom;
    (void)size;
#endif
}

void AsanFinish(void* fake, const void** oldBottom, size_t* oldSize) {
#ifdef OBD_FIBER_ASAN
    __sanitizer_finish_switch_fiber(fake, oldBottom, oldSize);
#else
    (void)fake;
    (void)oldBottom;
    (void)oldSize;
#endif
}

// From the engine into `f` and back once it suspends or ends.
void SwitchIn(Fiber* f) {
    Engine& e = TheEngine();
    AsanStart(&e.asanFake, f->stack + getpagesize(),
              f->mapped - static_cast<size_t>(getpagesize()));
#ifdef OBD_FIBER_UCONTEXT
    swapcontext(&e.ctx, &f->ctx);
#else
    obdhost_fiber_switch(&e.sp, f->sp);
#endif
    AsanFinish(e.asanFake, nullptr, nullptr);
}

// From the fiber `f` back to the engine; returns when the engine resumes it. An ended fiber
// never comes back.
void SwitchOut(Fiber* f, bool ending) {
    Engine& e = TheEngine();
    AsanStart(ending ? nullptr : &f->asanFake, e.asanBottom, e.asanSize);
#ifdef OBD_FIBER_UCONTEXT
    swapcontext(&f->ctx, &e.ctx);
#else
    obdhost_fiber_switch(&f->sp, e.sp);
#endif
    AsanFinish(f->asanFake, &e.asanBottom, &e.asanSize);
}

void FiberMain() {
    Fiber* f = t_fiber;
    AsanFinish(nullptr, &TheEngine().asanBottom, &TheEngine().asanSize);
    f->fn();
    f->fn = nullptr;  // what it captured goes while the fiber is still there to run destructors
    {
        ClockState& c = Clock();
        ClockLock lock(c);
        f->run = Fiber::Run::Ended;
        // No participant is run by it any more: a turn given to one wakes its thread, if any.
        for (Part* p : c.parts) {
            if (p->fiber == f) p->fiber = nullptr;
        }
        Part* bound = PartCurrent();
        if (bound != nullptr && bound->fiber == f) bound->fiber = nullptr;
    }
    SwitchOut(f, true);
    std::abort();  // an ended fiber is never resumed
}

void FreeFiber(Fiber* f) {
    if (f->stack != nullptr) {
#ifdef OBD_FIBER_ASAN
        ASAN_UNPOISON_MEMORY_REGION(f->stack, f->mapped);
#endif
        ::munmap(f->stack, f->mapped);
    }
    delete f;
}

// The fiber to run next: the one whose turn it is, else any that may go on. Clock mutex held.
Fiber* PickLocked(ClockState& c, Engine& e, bool& anyLimit,
                  std::chrono::steady_clock::time_point& earliest) {
    if (c.running != nullptr && c.running->fiber != nullptr) {
        Fiber* f = c.running->fiber;
        if (f->run == Fiber::Run::Suspended && f->ready()) return f;
    }
    anyLimit = false;
    bool haveNow = false;
    std::chrono::steady_clock::time_point now;
    for (Fiber* f : e.fibers) {
        if (f->run == Fiber::Run::New) return f;
        if (f->run != Fiber::Run::Suspended) continue;
        if (f->ready()) return f;
        if (!f->hasLimit) continue;
        if (!haveNow) {
            now = std::chrono::steady_clock::now();
            haveNow = true;
        }
        if (now >= f->limit) {
            f->timedOut = true;
            return f;
        }
        if (!anyLimit || f->limit < earliest) earliest = f->limit;
        anyLimit = true;
    }
    return nullptr;
}

void EngineMain() {
    t_onEngine = true;
    ClockState& c = Clock();
    Engine& e = TheEngine();
    ClockLock lock(c);
    for (;;) {
        bool anyLimit = false;
        std::chrono::steady_clock::time_point earliest;
        Fiber* f = PickLocked(c, e, anyLimit, earliest);
        if (f != nullptr) {
            f->run = Fiber::Run::Running;
            f->ready = nullptr;
            t_fiber = f;
            Part* outer = PartSwapCurrent(f->part);
            lock.unlock();  // hands on turns given to threads under the mutex
            SwitchIn(f);
            lock.lock();
            f->part = PartSwapCurrent(outer);
            t_fiber = nullptr;
            if (f->run == Fiber::Run::Ended) {
                f->run = Fiber::Run::Done;
                e.fibers.erase(std::remove(e.fibers.begin(), e.fibers.end(), f), e.fibers.end());
                f->ended.notify_all();
                if (f->detached) FreeFiber(f);
            }
            continue;
        }
        long long timeoutMs = -1;
        if (anyLimit) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                                  earliest - std::chrono::steady_clock::now())
                                  .count() +
                              1;
            timeoutMs = std::max(0LL, static_cast<long long>(left));
        }
        const uint32_t seen = e.word.load();
        e.sleeping = true;
        lock.unlock();
        FutexWaitWord(&e.word, seen, timeoutMs);
        lock.lock();
        e.sleeping = false;
    }
}

}  // namespace

namespace {
// The choice a process starts with: fibers, unless its environment says OBD_HOST_FIBERS=0.
bool ChosenByEnvironment() {
    const char* env = std::getenv("OBD_HOST_FIBERS");
    return env == nullptr || std::strcmp(env, "0") != 0;
}
}  // namespace

bool FibersChosen() {
#if OBD_FIBERS
    if (!g_envRead.exchange(true)) g_chosen = ChosenByEnvironment();
    return g_chosen.load() && ClockIsVirtual();
#else
    return false;
#endif
}

void ResetFibers() {
    g_envRead = true;
    g_chosen = ChosenByEnvironment();
}

Fiber* FiberStart(const std::string& name, std::function<void()> fn) {
    auto* f = new Fiber;
    f->name = name;
    f->fn = std::move(fn);
    const size_t page = static_cast<size_t>(getpagesize());
    f->mapped = kStackBytes + page;
    void* map = ::mmap(nullptr, f->mapped, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
    if (map == MAP_FAILED) {
        HOST_LOG(0, "no stack for %s: %s", name.c_str(), std::strerror(errno));
        std::abort();
    }
    f->stack = static_cast<char*>(map);
    ::mprotect(f->stack, page, PROT_NONE);  // an overflow faults instead of writing elsewhere
#ifdef OBD_FIBER_UCONTEXT
    getcontext(&f->ctx);
    f->ctx.uc_stack.ss_sp = f->stack + page;
    f->ctx.uc_stack.ss_size = kStackBytes;
    f->ctx.uc_link = nullptr;
    makecontext(&f->ctx, FiberMainUc, 0);
#else
    f->sp = FiberFrame(f->stack + f->mapped);
#endif
    ClockState& c = Clock();
    Engine& e = TheEngine();
    ClockLock lock(c);
    e.fibers.push_back(f);
    if (!e.started) {
        e.started = true;
        std::thread(EngineMain).detach();
    }
    FiberWakeEngineLocked(c);
    return f;
}

void FiberJoin(Fiber* f) {
    if (f == nullptr) return;
    if (f == t_fiber) {
        FiberDetach(f);
        return;
    }
    ClockState& c = Clock();
    ClockLock lock(c);
    if (t_fiber != nullptr) {
        FiberSuspendLocked(
            c, lock, [f] { return f->run == Fiber::Run::Done; }, -1);
    } else {
        lock.unlock();  // hands on a turn given just now
        lock.lock();
        f->ended.wait(lock.Raw(), [f] { return f->run == Fiber::Run::Done; });
    }
    FreeFiber(f);
}

void FiberDetach(Fiber* f) {
    if (f == nullptr) return;
    ClockState& c = Clock();
    ClockLock lock(c);
    if (f->run == Fiber::Run::Done) {
        FreeFiber(f);
    } else {
        f->detached = true;
    }
}

Fiber* FiberSelf() {
    return t_fiber;
}

bool FiberSuspendLocked(ClockState& c, ClockLock& lock, std::function<bool()> ready,
                        int realTimeoutMs) {
    (void)c;
    Fiber* f = t_fiber;
    f->ready = std::move(ready);
    f->hasLimit = realTimeoutMs >= 0;
    if (f->hasLimit) {
        f->limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(realTimeoutMs);
    }
    f->timedOut = false;
    f->run = Fiber::Run::Suspended;
    lock.unlock();
    SwitchOut(f, false);
    lock.lock();
    return !f->timedOut;
}

void FiberWakeEngineLocked(ClockState& c) {
    Engine& e = TheEngine();
    if (e.fibers.empty()) return;
    e.word.fetch_add(1);
    if (e.sleeping && !t_onEngine) c.engineWakeAsked = true;
}

void FiberWakeEngine() {
    FutexWakeWord(&TheEngine().word);
}

}  // namespace detail

void SetVirtualFibers(bool on) {
    detail::g_envRead = true;
    detail::g_chosen = on;
}

bool VirtualFibers() {
#if OBD_FIBERS
    detail::FibersChosen();  // reads the environment once
    return detail::g_chosen.load();
#else
    return false;
#endif
}

// ---- Thread ----

struct Thread::Impl {
    std::thread thread;
    detail::Fiber* fiber = nullptr;
};

Thread::Thread() = default;

Thread::Thread(const std::string& name, std::function<void()> fn) : m_impl(new Impl) {
    if (detail::FibersChosen()) {
        m_impl->fiber = detail::FiberStart(name, std::move(fn));
    } else {
        m_impl->thread = std::thread(std::move(fn));
    }
}

Thread::~Thread() {
    Join();
}

Thread::Thread(Thread&&) noexcept = default;

Thread& Thread::operator=(Thread&& other) noexcept {
    if (this != &other) {
        Join();
        m_impl = std::move(other.m_impl);
    }
    return *this;
}

bool Thread::Joinable() const {
    return m_impl && (m_impl->fiber != nullptr || m_impl->thread.joinable());
}

void Thread::Join() {
    if (!m_impl) return;
    if (m_impl->fiber != nullptr) {
        detail::FiberJoin(m_impl->fiber);
        m_impl->fiber = nullptr;
    } else if (m_impl->thread.joinable()) {
        m_impl->thread.join();
    }
}

bool Thread::OnFiber() const {
    return m_impl && m_impl->fiber != nullptr;
}

}  // namespace hostsim

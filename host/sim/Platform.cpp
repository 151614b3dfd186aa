// Product type, worker threads and the global reset.
#include <pthread.h>

#include <atomic>
#include <cstring>
#include <new>

#include "ClockState.h"
#include "Fiber.h"
#include "HostCommon.h"
#include "HostInternal.h"
#include "HostSim.h"

namespace hostsim {
namespace {

std::atomic<int> g_productType{PRODUCT_TYPE_DEFAULT};
std::atomic<int> g_failThreadCreates{0};
std::atomic<int> g_liveWorkers{0};

struct WorkerStart {
    void* (*entry)(void*);
    void* arg;
    detail::Part* part = detail::PartNew("worker");
};

// The count drops only after the plug-in's entry has returned, so once it is zero no worker
// executes plug-in code and the library may be unloaded.
void* WorkerTrampoline(void* raw) {
    auto* start = static_cast<WorkerStart*>(raw);
    detail::PartBind(start->part);
    detail::PartWaitTurn(start->part, -1);
    start->entry(start->arg);
    g_liveWorkers.fetch_sub(1);
    detail::PartBind(nullptr);
    detail::PartFree(start->part);
    delete start;
    return nullptr;
}

bool TakeInjectedFailure() {
    int pending = g_failThreadCreates.load();
    while (pending > 0) {
        if (g_failThreadCreates.compare_exchange_weak(pending, pending - 1)) return true;
    }
    return false;
}

}  // namespace

void SetProductType(int type) {
    g_productType = type;
}
int ProductType() {
    return g_productType;
}
void FailNextThreadCreates(int count) {
    g_failThreadCreates = count < 0 ? 0 : count;
}

namespace detail {

int LiveWorkerThreads() {
    return g_liveWorkers.load();
}

void ResetPlatform() {
    g_productType = PRODUCT_TYPE_DEFAULT;
    g_failThreadCreates = 0;
}

}  // namespace detail

void Reset() {
    ClockUseReal(0);
    detail::ResetPlatform();
    detail::ResetFibers();
    detail::ResetLog();
    detail::ResetBus();
}

}  // namespace hostsim

int P4X_GetProductType(eProductType& type) {
    type = static_cast<eProductType>(hostsim::g_productType.load());
    return 0;
}

int CreateNormalThread(void* (*entry)(void*), void* arg, unsigned long* tid) {
    if (entry == nullptr) return -1;
    if (hostsim::TakeInjectedFailure()) {
        HOST_LOG(0, "thread creation refused on request");
        return -1;
    }
    auto* start = new (std::nothrow) hostsim::WorkerStart;
    if (start == nullptr) return -1;
    start->entry = entry;
    start->arg = arg;
    // Registered by the creating thread, so that its first turn follows what that thread did.
    hostsim::detail::PartRegister(start->part);
    if (hostsim::detail::FibersChosen()) {
        hostsim::g_liveWorkers.fetch_add(1);
        static std::atomic<unsigned long> fiberIds{1};
        hostsim::detail::FiberDetach(
            hostsim::detail::FiberStart("worker", [start] { hostsim::WorkerTrampoline(start); }));
        // Not a pthread: a number of its own, as the recorder's ids are only ever logged.
        if (tid != nullptr) *tid = fiberIds.fetch_add(1);
        return 0;
    }
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t thread{};
    hostsim::g_liveWorkers.fetch_add(1);
    const int rc = pthread_create(&thread, &attr, hostsim::WorkerTrampoline, start);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        hostsim::g_liveWorkers.fetch_sub(1);
        hostsim::detail::PartFree(start->part);
        delete start;
        HOST_LOG(0, "pthread_create failed: %s", std::strerror(rc));
        return -2;
    }
    if (tid != nullptr) *tid = static_cast<unsigned long>(thread);
    return 0;
}

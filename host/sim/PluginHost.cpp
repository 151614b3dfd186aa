// PluginHost: loads one plug-in and drives it in the recorder's order.
#include <dlfcn.h>
#include <poll.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "CMsgClientManage.h"
#include "CPeripheralBase.h"
#include "CPeripheralManage.h"
#include "ClockState.h"
#include "HostInternal.h"
#include "HostSim.h"

namespace hostsim {
namespace {

using CreateFn = void* (*)(CPeripheralManage*, CMsgClientManage*, unsigned int, unsigned int);
using ReleaseFn = int (*)(void*);

// Module ids of the peripherals; 1 is the control API's own (see Bus.cpp).
std::atomic<unsigned int> g_nextModuleId{0x100};

// Runs `work` on a helper thread; in the stepped mode moves host time forward in 10 ms steps
// until it is done, since the plug-in's shutdown waits sleep on host time. In the virtual mode
// the helper takes part, and a caller that takes part waits for it without its turn.
void RunWithTimePassing(const std::function<void()>& work) {
    if (detail::ClockIsVirtual()) {
        detail::Part* caller = detail::PartCurrent();
        if (caller != nullptr && !detail::PartHasTurn(caller)) caller = nullptr;
        detail::Part* helper = detail::PartNew("release");
        detail::PartRegister(helper);
        std::atomic<bool> done{false};
        std::thread t([&] {
            detail::PartBind(helper);
            detail::PartWaitTurn(helper, -1);
            work();
            done = true;
            if (caller != nullptr) detail::PartKick(caller);
            detail::PartLeave(helper);
        });
        while (!done) {
            if (caller == nullptr || !detail::PartIdleWait(caller, false, 0, -1)) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
        t.join();
        detail::PartFree(helper);
        return;
    }
    std::atomic<bool> done{false};
    std::thread helper([&] {
        work();
        done = true;
    });
    while (!done) {
        if (detail::ClockIsStepped()) ClockAdvance(10);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    helper.join();
}

}  // namespace

struct PluginHost::Impl {
    CPeripheralManage manager;
    CMsgClientManage client;
    unsigned int moduleId = g_nextModuleId.fetch_add(1);
    void* library = nullptr;
    ReleaseFn release = nullptr;
    void* handle = nullptr;  // what PeripheralCreate returned
    CPeripheralBase* object = nullptr;
    bool adopted = false;
    std::string lastError;
};

PluginHost::PluginHost() : m_impl(new Impl) {
    std::lock_guard<std::mutex> lock(m_impl->manager.impl()->mutex);
    m_impl->manager.impl()->client = &m_impl->client;
    m_impl->manager.impl()->moduleId = m_impl->moduleId;
    m_impl->client.impl()->ownerModule = m_impl->moduleId;
}

PluginHost::~PluginHost() {
    Release();
}

void PluginHost::SetSerial(const std::string& path, int baud) {
    std::lock_guard<std::mutex> lock(m_impl->manager.impl()->mutex);
    m_impl->manager.impl()->serialPath = path;
    m_impl->manager.impl()->baud = baud;
}

bool PluginHost::Load(const std::string& soPath) {
    if (m_impl->object != nullptr) {
        m_impl->lastError = "a plug-in is already loaded";
        return false;
    }
    void* lib = dlopen(soPath.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (lib == nullptr) {
        const char* why = dlerror();
        m_impl->lastError = why != nullptr ? why : ("cannot load " + soPath);
        return false;
    }
    auto create = reinterpret_cast<CreateFn>(dlsym(lib, "PeripheralCreate"));
    auto release = reinterpret_cast<ReleaseFn>(dlsym(lib, "PeripheralRelease"));
    if (create == nullptr || release == nullptr) {
        m_impl->lastError = soPath + ": PeripheralCreate or PeripheralRelease missing";
        dlclose(lib);
        return false;
    }
    // As the recorder does: no client through the argument, the base takes the host's own.
    void* handle = create(&m_impl->manager, nullptr, 0, 0);
    if (handle == nullptr) {
        m_impl->lastError = soPath + ": PeripheralCreate returned no object";
        dlclose(lib);
        return false;
    }
    m_impl->library = lib;
    m_impl->release = release;
    m_impl->handle = handle;
    // The recorder's ABI: the returned pointer is the object seen as its peripheral base.
    m_impl->object = static_cast<CPeripheralBase*>(handle);
    m_impl->adopted = false;
    HOST_LOG(1, "plug-in %s loaded, module %u", soPath.c_str(), m_impl->moduleId);
    return true;
}

bool PluginHost::Adopt(CPeripheralBase* object) {
    if (object == nullptr || m_impl->object != nullptr) return false;
    m_impl->object = object;
    m_impl->adopted = true;
    return true;
}

int PluginHost::Initialize() {
    return m_impl->object != nullptr ? m_impl->object->PeripheralInitialize() : -1;
}

int PluginHost::RegisterHandlers() {
    return m_impl->object != nullptr ? m_impl->object->MessageRegister() : -1;
}

bool PluginHost::Start() {
    return detail::StartPeripheralThread(m_impl->object);
}

int PluginHost::Release() {
    if (m_impl->object == nullptr) return 0;
    CPeripheralBase* object = m_impl->object;
    object->MessageUnRegister();
    // Handlers the plug-in left registered would outlive its code.
    detail::BusDropModule(m_impl->moduleId);
    int result = 1;
    if (m_impl->adopted) {
        RunWithTimePassing([object] {
            object->StopPeripheralThread();
            delete object;
        });
    } else {
        RunWithTimePassing([&] { result = m_impl->release(m_impl->handle); });
        // Wait for the plug-in's own threads to leave its code before it is unmapped.
        bool workersGone = false;
        RunWithTimePassing([&] {
            const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(5);
            while (detail::LiveWorkerThreads() > 0 && std::chrono::steady_clock::now() < limit) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
            workersGone = detail::LiveWorkerThreads() == 0;
        });
        if (workersGone) {
            dlclose(m_impl->library);
        } else {
            HOST_LOG(0, "plug-in threads still running; library left loaded");
        }
    }
    m_impl->object = nullptr;
    m_impl->handle = nullptr;
    m_impl->library = nullptr;
    m_impl->release = nullptr;
    return result;
}

bool PluginHost::WaitPeripheralIdle(int realTimeoutMs) {
    if (m_impl->object == nullptr) return false;
    auto* st = detail::BaseAccess::State(m_impl->object);
    const auto limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(realTimeoutMs);
    for (;;) {
        bool idle = st->idle && st->idleGeneration == detail::ClockGeneration();
        if (idle && st->serialFd >= 0 && !st->serialHung) {
            pollfd p{st->serialFd, POLLIN, 0};
            if (::poll(&p, 1, 0) > 0 && (p.revents & POLLIN)) idle = false;
        }
        if (idle) return true;
        if (std::chrono::steady_clock::now() >= limit) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
}

CPeripheralManage* PluginHost::Manager() const {
    return &m_impl->manager;
}
CMsgClientManage* PluginHost::Client() const {
    return &m_impl->client;
}
unsigned int PluginHost::ModuleId() const {
    return m_impl->moduleId;
}
CPeripheralBase* PluginHost::Object() const {
    return m_impl->object;
}

int PluginHost::LastSerialConfigStatus() const {
    std::lock_guard<std::mutex> lock(m_impl->manager.impl()->mutex);
    return m_impl->manager.impl()->lastStatus;
}

int PluginHost::SerialConfigStatusCount() const {
    std::lock_guard<std::mutex> lock(m_impl->manager.impl()->mutex);
    return m_impl->manager.impl()->statusCount;
}

std::string PluginHost::SerialOpenError() const {
    std::lock_guard<std::mutex> lock(m_impl->manager.impl()->mutex);
    return m_impl->manager.impl()->serialOpenError;
}

bool PluginHost::PeripheralStatusOk() const {
    if (m_impl->object == nullptr) return true;
    return detail::BaseAccess::State(m_impl->object)->statusOk;
}

long long PluginHost::CycleCount() const {
    if (m_impl->object == nullptr) return 0;
    return detail::BaseAccess::State(m_impl->object)->cycles;
}

const std::string& PluginHost::LastError() const {
    return m_impl->lastError;
}

}  // namespace hostsim

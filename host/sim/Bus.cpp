// The process-wide message bus: one delivery thread, handler registrations, listeners.
#include <condition_variable>
#include <cstdarg>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "CMsgClientManage.h"
#include "CPeripheralBase.h"
#include "ClockState.h"
#include "Fiber.h"
#include "HostInternal.h"
#include "HostSim.h"

namespace hostsim {
namespace {

// The sender module of messages that the control API injects.
constexpr uint32_t kControlModule = 1;

struct Registration {
    unsigned int moduleId = 0;
    int msgId = 0;
    const CPeripheralBase* object = nullptr;
    PeripheralMsgHandler handler = nullptr;
    std::atomic<bool> active{true};
    int inCall = 0;  // guarded by the bus mutex
};

struct Listener {
    int token = 0;
    BusListener fn;
    std::atomic<bool> active{true};
    int inCall = 0;
};

struct Item {
    bool inbound = false;
    BusMessage msg;  // outbound as the listeners see it; inbound: id, seq, payload
};

class Bus {
  public:
    int Post(Item item) {
        std::lock_guard<std::mutex> lock(m_mutex);
        EnsureThreadLocked();
        if (item.inbound || !item.msg.response) item.msg.seq = m_nextSeq++;
        const int seq = static_cast<int>(item.msg.seq);
        m_queue.push_back(std::move(item));
        ++m_posted;
        m_work.notify_one();
        detail::PartKick(&m_part);
        return seq;
    }

    int Register(unsigned int moduleId, int msgId, const CPeripheralBase* object,
                 PeripheralMsgHandler handler) {
        Unregister(moduleId, msgId);  // registering again replaces the handler
        auto reg = std::make_shared<Registration>();
        reg->moduleId = moduleId;
        reg->msgId = msgId;
        reg->object = object;
        reg->handler = handler;
        std::lock_guard<std::mutex> lock(m_mutex);
        m_regs.push_back(std::move(reg));
        return 0;
    }

    // Removes matching registrations (msgId < 0: all of the module) and waits out running calls.
    int Unregister(unsigned int moduleId, int msgId) {
        std::unique_lock<std::mutex> lock(m_mutex);
        std::vector<std::shared_ptr<Registration>> removed;
        for (auto it = m_regs.begin(); it != m_regs.end();) {
            if ((*it)->moduleId == moduleId && (msgId < 0 || (*it)->msgId == msgId)) {
                (*it)->active = false;
                removed.push_back(*it);
                it = m_regs.erase(it);
            } else {
                ++it;
            }
        }
        if (!OnBusLocked()) {
            m_done.wait(lock, [&] {
                for (auto& r : removed)
                    if (r->inCall > 0) return false;
                return true;
            });
        }
        return removed.empty() ? -1 : 0;
    }

    int Subscribe(BusListener fn) {
        auto l = std::make_shared<Listener>();
        l->fn = std::move(fn);
        std::lock_guard<std::mutex> lock(m_mutex);
        l->token = m_nextToken++;
        m_listeners.push_back(l);
        return l->token;
    }

    void Unsubscribe(int token) {
        std::unique_lock<std::mutex> lock(m_mutex);
        std::shared_ptr<Listener> gone;
        for (auto it = m_listeners.begin(); it != m_listeners.end(); ++it) {
            if ((*it)->token == token) {
                gone = *it;
                gone->active = false;
                m_listeners.erase(it);
                break;
            }
        }
        if (gone && !OnBusLocked()) {
            m_done.wait(lock, [&] { return gone->inCall == 0; });
        }
    }

    void Drain() {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (OnBusLocked()) return;
        const uint64_t target = m_posted;
        detail::Part* self = detail::PartCurrent();
        if (self != nullptr && m_delivered < target && detail::PartHasTurn(self)) {
            // A participant waits without its turn, or the bus would never get one; the bus
            // hands it back once it has delivered up to here.
            m_drainers.emplace_back(target, self);
            while (m_delivered < target) {
                lock.unlock();
                const bool turn = detail::PartIdleWait(self, false, 0, -1);
                lock.lock();
                if (!turn) break;  // the mode changed: wait as anyone else does
            }
        }
        m_done.wait(lock, [&] { return m_delivered >= target; });
    }

    void Reset() {
        Drain();
        std::unique_lock<std::mutex> lock(m_mutex);
        for (auto& r : m_regs) r->active = false;
        for (auto& l : m_listeners) l->active = false;
        m_regs.clear();
        m_listeners.clear();
        m_nextSeq = 1;
    }

  private:
    void EnsureThreadLocked() {
        if (m_started) return;
        m_started = true;
        detail::PartRegister(&m_part);
        // Detached and never destroyed, like the bus of the recorder: it lives as long as the
        // process, and plug-in threads may still post while the process exits.
        std::thread t([this] { Run(); });
        m_threadId = t.get_id();
        t.detach();
    }

    // The bus's own thread. On virtual time with fibers chosen it hands delivery to a fiber
    // (RunFiber) and waits for that to end with the mode.
    void Run() {
        detail::PartBind(&m_part);
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;) {
            if (m_fiber != nullptr) {
                m_fiberEnded.wait(lock, [&] { return m_fiber == nullptr; });
                continue;
            }
            if (detail::ClockIsVirtual()) {
                if (detail::FibersChosen()) {
                    m_fiber = detail::FiberStart("bus", [this] { RunFiber(); });
                    detail::FiberDetach(m_fiber);
                    continue;
                }
                if (!TurnToDeliver(lock)) continue;
            } else {
                m_work.wait(lock, [&] { return !m_queue.empty(); });
                if (detail::ClockIsVirtual() && detail::FibersChosen()) continue;
            }
            DeliverFront(lock);
        }
    }

    void RunFiber() {
        detail::PartBind(&m_part);
        std::unique_lock<std::mutex> lock(m_mutex);
        while (detail::ClockIsVirtual()) {
            if (TurnToDeliver(lock)) DeliverFront(lock);
        }
        m_fiber = nullptr;
        m_fiberEnded.notify_all();
    }

    // Delivers only in its turn (see HostSim.h); kicked by every post. False when it waited
    // instead (look again).
    bool TurnToDeliver(std::unique_lock<std::mutex>& lock) {
        const bool turn = detail::PartHasTurn(&m_part);
        const bool pending = !m_queue.empty();
        if (pending && turn) return true;
        lock.unlock();
        if (turn) {
            detail::PartIdleWait(&m_part, false, 0, -1);
        } else {
            // Posted before the mode changed, nobody kicked it: ask for a turn.
            if (pending) detail::PartKick(&m_part);
            detail::PartWaitTurn(&m_part, -1);
        }
        lock.lock();
        return false;
    }

    void DeliverFront(std::unique_lock<std::mutex>& lock) {
        Item item = std::move(m_queue.front());
        m_queue.pop_front();
        if (item.inbound) {
            DeliverInbound(lock, item.msg);
        } else {
            DeliverOutbound(lock, item.msg);
        }
        ++m_delivered;
        m_done.notify_all();
        for (auto it = m_drainers.begin(); it != m_drainers.end();) {
            if (it->first <= m_delivered) {
                detail::PartKick(it->second);
                it = m_drainers.erase(it);
            } else {
                ++it;
            }
        }
    }

    // On the bus's thread or its fiber. With m_mutex held.
    bool OnBusLocked() const {
        return std::this_thread::get_id() == m_threadId ||
               (m_fiber != nullptr && detail::FiberSelf() == m_fiber);
    }

    void DeliverInbound(std::unique_lock<std::mutex>& lock, const BusMessage& msg) {
        std::vector<std::shared_ptr<Registration>> targets;
        for (auto& r : m_regs) {
            if (r->msgId == msg.id) {
                ++r->inCall;
                targets.push_back(r);
            }
        }
        if (targets.empty()) return;
        lock.unlock();
        std::vector<char> buffer(sizeof(Common::SMessageHead) + msg.payload.size());
        Common::SMessageHead head{};
        head.msgId = static_cast<uint32_t>(msg.id);
        head.srcModule = kControlModule;
        head.seq = msg.seq;
        head.lenFlags = static_cast<uint32_t>(msg.payload.size()) & Common::MSG_HEAD_LEN_MASK;
        std::memcpy(buffer.data(), &head, sizeof(head));
        if (!msg.payload.empty()) {
            std::memcpy(buffer.data() + sizeof(head), msg.payload.data(), msg.payload.size());
        }
        for (auto& r : targets) {
            if (r->active) {
                auto* object = const_cast<CPeripheralBase*>(r->object);
                (object->*(r->handler))(buffer.data(), static_cast<int>(buffer.size()));
            }
            std::lock_guard<std::mutex> relock(m_mutex);
            --r->inCall;
            m_done.notify_all();
        }
        lock.lock();
    }

    void DeliverOutbound(std::unique_lock<std::mutex>& lock, const BusMessage& msg) {
        std::vector<std::shared_ptr<Listener>> targets;
        for (auto& l : m_listeners) {
            ++l->inCall;
            targets.push_back(l);
        }
        if (targets.empty()) return;
        lock.unlock();
        for (auto& l : targets) {
            if (l->active) l->fn(msg);
            std::lock_guard<std::mutex> relock(m_mutex);
            --l->inCall;
            m_done.notify_all();
        }
        lock.lock();
    }

    std::mutex m_mutex;
    std::condition_variable m_work;
    std::condition_variable m_done;
    std::condition_variable m_fiberEnded;  // its own, so that a post does not wake the thread
    std::deque<Item> m_queue;
    std::vector<std::shared_ptr<Registration>> m_regs;
    std::vector<std::shared_ptr<Listener>> m_listeners;
    uint64_t m_posted = 0;
    uint64_t m_delivered = 0;
    uint32_t m_nextSeq = 1;
    int m_nextToken = 1;
    bool m_started = false;
    std::thread::id m_threadId;
    detail::Fiber* m_fiber = nullptr;  // delivering on virtual time (see Run)
    detail::Part m_part{"bus"};
    std::vector<std::pair<uint64_t, detail::Part*>> m_drainers;  // virtual-mode BusDrain callers
};

Bus& TheBus() {
    static Bus* bus = new Bus;  // see EnsureThreadLocked
    return *bus;
}

bool PayloadOk(const char* data, int len) {
    if (len < 0 || static_cast<uint32_t>(len) > Common::MSG_HEAD_LEN_MASK) return false;
    return len == 0 || data != nullptr;
}

}  // namespace

int BusSubscribe(BusListener listener) {
    if (!listener) return -1;
    return TheBus().Subscribe(std::move(listener));
}

void BusUnsubscribe(int token) {
    TheBus().Unsubscribe(token);
}

int BusInject(int id, const std::vector<unsigned char>& payload) {
    if (id < 0 || payload.size() > Common::MSG_HEAD_LEN_MASK) return -1;
    Item item;
    item.inbound = true;
    item.msg.tMs = ClockNowMs();
    item.msg.id = id;
    item.msg.payload = payload;
    return TheBus().Post(std::move(item));
}

void BusDrain() {
    TheBus().Drain();
}

namespace detail {
void ResetBus() {
    TheBus().Reset();
}
void BusDropModule(unsigned int moduleId) {
    TheBus().Unregister(moduleId, -1);
}
}  // namespace detail

}  // namespace hostsim

CMsgClientManage::CMsgClientManage() : m_pImpl(new Impl) {}

CMsgClientManage::~CMsgClientManage() {
    if (m_pImpl->ownerModule != 0) hostsim::detail::BusDropModule(m_pImpl->ownerModule);
    delete m_pImpl;
}

int CMsgClientManage::MSGEventRegister(int moduleId, int msgId, const void* object, ...) {
    va_list ap;
    va_start(ap, object);
    PeripheralMsgHandler handler = va_arg(ap, PeripheralMsgHandler);
    va_end(ap);
    if (object == nullptr || handler == nullptr || msgId < 0) return -1;
    const auto* periph = static_cast<const CPeripheralBase*>(object);
    return hostsim::TheBus().Register(static_cast<unsigned int>(moduleId), msgId, periph, handler);
}

int CMsgClientManage::MSGEventUnRegister(int moduleId, int msgId) {
    if (msgId < 0) return -1;
    return hostsim::TheBus().Unregister(static_cast<unsigned int>(moduleId), msgId);
}

// `dest` and `flags` route messages between the recorder's services; with one bus and the
// control API as the only other party they select nothing here.
int CMsgClientManage::MSGSendMessage(int /*dest*/, int msgId, int /*flags*/, const char* data,
                                     int len, int /*moduleId*/) {
    if (msgId < 0 || !hostsim::PayloadOk(data, len)) return -1;
    hostsim::Item item;
    item.msg.tMs = hostsim::ClockNowMs();
    item.msg.id = msgId;
    item.msg.payload.assign(reinterpret_cast<const unsigned char*>(data),
                            reinterpret_cast<const unsigned char*>(data) + len);
    hostsim::TheBus().Post(std::move(item));
    return 0;
}

int CMsgClientManage::MSGResponseMessage(Common::SMessageHead* head, const char* data, int len) {
    if (head == nullptr || !hostsim::PayloadOk(data, len)) return -1;
    Common::SMessageHead copy;
    std::memcpy(&copy, head, sizeof(copy));  // the plug-in may hand a copy kept unaligned
    hostsim::Item item;
    item.msg.tMs = hostsim::ClockNowMs();
    item.msg.response = true;
    item.msg.id = static_cast<int>(copy.msgId);
    item.msg.seq = copy.seq;
    item.msg.payload.assign(reinterpret_cast<const unsigned char*>(data),
                            reinterpret_cast<const unsigned char*>(data) + len);
    hostsim::TheBus().Post(std::move(item));
    return 0;
}

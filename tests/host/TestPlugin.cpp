// A minimal peripheral plug-in for the host tests. Like the real one it is created through
// PeripheralCreate with a null client, starts a worker through CreateNormalThread whose stop
// handshake sleeps on host time, talks on the bus and on the serial port:
//  - PeripheralInitialize sends message 500 "init" and writes "HELLO" to the port;
//  - message 100 is answered with its payload reversed;
//  - bytes from the port are echoed back.
#include <atomic>
#include <cstring>
#include <string>

#include "CSerialBase.h"

namespace {

constexpr int kMsgReverse = 100;
constexpr int kMsgInit = 500;

class HostTestPeripheral : public CSerialBase {
  public:
    HostTestPeripheral(CPeripheralManage* manage, unsigned int a, unsigned int b)
        : CSerialBase(manage, nullptr, a, b) {
        SetThreadCircleTime(100);
        SetSerialMaxBufferSize(1024);
    }

    ~HostTestPeripheral() override {
        SetSerialConfigStatus(6, 0, 0);
        m_run = 0;
        if (m_workerStarted) {
            while (m_run.load() == 0) Common::P4X_TMSleepMicroSecond(20000);
        }
    }

    int PeripheralInitialize() override {
        if (CreateNormalThread(Worker, this, nullptr) < 0) {
            SetCurPeripheralStatus(false);
            return -1;
        }
        m_workerStarted = true;
        m_pMsgClient->MSGSendMessage(0, kMsgInit, 0, "init", 4, static_cast<int>(m_moduleId));
        SendDataToPeripheral("HELLO", 5);
        return 0;
    }

    int MessageRegister() override {
        return m_pMsgClient->MSGEventRegister(
            static_cast<int>(m_moduleId), kMsgReverse, this,
            static_cast<PeripheralMsgHandler>(&HostTestPeripheral::OnReverse));
    }

    int MessageUnRegister() override {
        return m_pMsgClient->MSGEventUnRegister(static_cast<int>(m_moduleId), kMsgReverse);
    }

    int ProcessPeripheralData() override {
        char buffer[1024] = {};
        unsigned int len = 0;
        if (GetSerialBufferData(buffer, len) == 0 && len > 0 && len <= sizeof(buffer)) {
            SendDataToPeripheral(buffer, len);
        }
        return 0;
    }

    int OnReverse(const char* msg, int len) {
        if (msg == nullptr || len < static_cast<int>(sizeof(Common::SMessageHead))) return -1;
        Common::SMessageHead head;
        std::memcpy(&head, msg, sizeof(head));
        const size_t n = head.lenFlags & Common::MSG_HEAD_LEN_MASK;
        if (n > static_cast<size_t>(len) - sizeof(head)) return -1;
        std::string payload(msg + sizeof(head), n);
        std::string reversed(payload.rbegin(), payload.rend());
        return m_pMsgClient->MSGResponseMessage(&head, reversed.data(),
                                                static_cast<int>(reversed.size()));
    }

  private:
    static void* Worker(void* object) {
        auto* self = static_cast<HostTestPeripheral*>(object);
        while (self->m_run.load() == 1) Common::P4X_TMSleepMicroSecond(100000);
        self->m_run = 1;  // handshake: the destructor may go on
        return nullptr;
    }

    std::atomic<int> m_run{1};
    bool m_workerStarted = false;
};

}  // namespace

extern "C" __attribute__((visibility("default"))) void* PeripheralCreate(CPeripheralManage* manage,
                                                                         CMsgClientManage*,
                                                                         unsigned int a,
                                                                         unsigned int b) {
    return static_cast<CPeripheralBase*>(new HostTestPeripheral(manage, a, b));
}

extern "C" __attribute__((visibility("default"))) int PeripheralRelease(void* object) {
    if (object == nullptr) return 1;
    auto* periph = static_cast<CPeripheralBase*>(object);
    periph->StopPeripheralThread();
    delete periph;
    return 1;
}

// A minimal peripheral plug-in for the host tests, created through PeripheralCreate with a null
// client like the real one, with answers a test can predict:
//  - PeripheralInitialize sends message 500 "init" and writes "HELLO" to the port;
//  - message 100 is answered with its payload reversed.
#include <cstring>
#include <iterator>
#include <string>

#include "CSerialBase.h"

#define PLUGIN_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

class HostTestPeripheral : public CSerialBase {
  public:
    explicit HostTestPeripheral(CPeripheralManage* manage) : CSerialBase(manage, nullptr, 0, 0) {}

    int PeripheralInitialize() override {
        m_pMsgClient->MSGSendMessage(0, 500, 0, "init", 4, static_cast<int>(m_moduleId));
        return SendDataToPeripheral("HELLO", 5) == 5 ? 0 : -1;
    }
    // Left registered on purpose: the host drops what a plug-in leaves behind.
    int MessageRegister() override {
        return m_pMsgClient->MSGEventRegister(
            static_cast<int>(m_moduleId), 100, this,
            static_cast<PeripheralMsgHandler>(&HostTestPeripheral::OnReverse));
    }
    int OnReverse(const char* msg, int len) {
        Common::SMessageHead head;
        if (msg == nullptr || len < static_cast<int>(sizeof(head))) return -1;
        std::memcpy(&head, msg, sizeof(head));
        const std::string reversed(std::make_reverse_iterator(msg + len),
                                   std::make_reverse_iterator(msg + sizeof(head)));
        return m_pMsgClient->MSGResponseMessage(&head, reversed.data(),
                                                static_cast<int>(reversed.size()));
    }
};

}  // namespace

PLUGIN_EXPORT void* PeripheralCreate(CPeripheralManage* manage, CMsgClientManage*, unsigned int,
                                     unsigned int) {
    return static_cast<CPeripheralBase*>(new HostTestPeripheral(manage));
}

PLUGIN_EXPORT int PeripheralRelease(void* object) {
    auto* periph = static_cast<CPeripheralBase*>(object);
    if (periph != nullptr) periph->StopPeripheralThread();  // before its parts are destroyed
    delete periph;
    return 1;
}

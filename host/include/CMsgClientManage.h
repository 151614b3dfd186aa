// Host framework: the message-bus client of a peripheral.
#pragma once

#include "HostCommon.h"

class CPeripheralBase;

// A bus handler: a member function of the peripheral object called with the whole inbound
// message (16-byte SMessageHead, then the payload) and its total length.
typedef int (CPeripheralBase::*PeripheralMsgHandler)(const char* msg, int len);

class CMsgClientManage {
  public:
    CMsgClientManage();
    ~CMsgClientManage();

    // Registers `object` (a CPeripheralBase*) for message id `msgId`. The variadic part holds one
    // PeripheralMsgHandler. From then on the bus's own thread calls (object->*handler)(msg, len)
    // for every message of that id. Returns 0, -1 for a bad argument.
    int MSGEventRegister(int moduleId, int msgId, const void* object, ...);
    // Stops delivery of `msgId` to `moduleId`; returns once no handler call for it is running.
    int MSGEventUnRegister(int moduleId, int msgId);
    // Posts a message to every subscriber of `msgId`. The bus copies the payload before
    // returning. Returns 0, -1 for a bad argument.
    int MSGSendMessage(int dest, int msgId, int flags, const char* data, int len, int moduleId);
    // Answers the message whose head is `head` (as received, unchanged). Copies the payload.
    int MSGResponseMessage(Common::SMessageHead* head, const char* data, int len);

    CMsgClientManage(const CMsgClientManage&) = delete;
    CMsgClientManage& operator=(const CMsgClientManage&) = delete;

    struct Impl;
    Impl* impl() const { return m_pImpl; }

  private:
    Impl* m_pImpl;  // host-private
};

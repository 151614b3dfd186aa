// Host framework: base of every peripheral object.
#pragma once

#include <atomic>

#include "CMsgClientManage.h"
#include "CPeripheralManage.h"
#include "CThread.h"

// Virtual slots 5 to 10 are declared here, in this order: PeripheralInitialize (5),
// PeripheralThreadCycle (6), MessageRegister (7), MessageUnRegister (8),
// HandlePeripParamChange (9), ProcessPeripheralData (10).
class CPeripheralBase : public Common::CThread {
  public:
    // The host supplies the message client and module id by its own means; the `msgClient`
    // argument may be null.
    CPeripheralBase(CPeripheralManage* manage, CMsgClientManage* msgClient, unsigned int periphId,
                    unsigned int portIndex);
    ~CPeripheralBase() override;

    // The host's peripheral thread: calls PeripheralThreadCycle(now ms) at the circle time and
    // ProcessPeripheralData when the port has bytes, one call at a time.
    int ThreadFuncImpl() override;

    virtual int PeripheralInitialize();
    virtual int PeripheralThreadCycle(long long now);
    virtual int MessageRegister();
    virtual int MessageUnRegister();
    virtual int HandlePeripParamChange();
    virtual int ProcessPeripheralData();

    // Period of PeripheralThreadCycle in host milliseconds.
    void SetThreadCircleTime(unsigned int ms);
    // false marks the peripheral as not working.
    void SetCurPeripheralStatus(bool ok);
    // Stops the host's peripheral thread; returns when it no longer calls into the object.
    // Safe when the thread was never started.
    int StopPeripheralThread();

  protected:
    CPeripheralManage* m_pPeripheralManage;
    CMsgClientManage* m_pMsgClient;
    unsigned int m_moduleId;
    // 1 while a firmware upgrade of the box runs. Written on the bus and send threads, read on
    // the peripheral thread.
    std::atomic<unsigned char> m_bUpgrading;

    struct PeripheralState;
    PeripheralState* m_pPeripheralState;  // host-private
};

// The OBD peripheral object: what the recorder's peripheral manager creates from this library.
//
// Threads that enter it:
//  - the host's peripheral thread: PeripheralInitialize, PeripheralThreadCycle (every 100 ms),
//    ProcessPeripheralData (when serial bytes wait), and from there the receiver, the analyser
//    run and the broadcasts;
//  - the send thread (TaskSendRoutine): the only one that talks to the box and waits for answers;
//  - the host's bus thread: the On* handlers.
// m_taskMutex guards the queue; m_devInfoMutex the device information and black-box buffer.
// Flags crossing threads without a lock are atomics.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <deque>

#include "../analyser/GdsLogicAnalyser.h"
#include "CSerialBase.h"
#include "ObdBusRecords.h"
#include "ObdTypes.h"

class COBDCtrl;

extern "C" {
__attribute__((visibility("default"))) void* PeripheralCreate(CPeripheralManage* manage,
                                                              CMsgClientManage* msgClient,
                                                              unsigned int arg3, unsigned int arg4);
__attribute__((visibility("default"))) int PeripheralRelease(void* object);
}

class CSerialDevOBD : public CSerialBase {
  public:
    CSerialDevOBD(CPeripheralManage* manage, CMsgClientManage* msgClient, unsigned int arg3,
                  unsigned int arg4);
    ~CSerialDevOBD() override;

    // Host entry points (virtual slots of the base).
    int PeripheralInitialize() override;
    int PeripheralThreadCycle(long long now) override;
    int MessageRegister() override;
    int MessageUnRegister() override;
    int ProcessPeripheralData() override;

    // The single exit of every frame towards the box (send thread). Returns `len`.
    int SendData(char* data, int len);

    // Send-task queue (any thread) and the send thread.
    int InsertSendTask(TaskBody_t task);
    int Request(GdsGetInfoType_t_ type);
    int ConfigObd(GdsCfgType_t_ type, void* data);
    int RequestGdsDevFeature();
    static void* TaskSendThreadEntry(void* object);
    void TaskSendRoutine();
    int HandleOBDTask(TaskBody_t* task);

    // Bus handlers (bus thread). Each gets the whole message: 16-byte head, then the payload.
    int OnUpdateGdsParam(const char* msg, int len);
    int OnUpdateInertiaSensor(const char* msg, int len);
    int OnGetGdsConfigInfo(const char* msg, int len);
    int OnHandlePowerDown(const char* msg, int len);
    int OnUpdateOBDData(const char* msg, int len);
    int OnGetTotalMileage(const char* msg, int len);
    int OnTriggerObdUpgrade(const char* msg, int len);
    int OnGetPeripheralUpgradeState(const char* msg, int len);
    int OnTriggerObdDemacate(const char* msg, int len);

    // Upgrade orchestration: queues the transfer of the file at `path` (at most 64 characters);
    // a path it refuses (-1) ends an accepted upgrade as failed.
    int UpgradeObd(const char* path);

    // Device information store (receiving thread, send thread, peripheral thread).
    int UpdateDevInfo(IDDataType_Eum type, void* data);
    // Sample feed from the data stream (receiving thread).
    int UpdateCollectData(CollectDataType_Eum kind, void* data);

    // Periodic broadcasts (peripheral thread).
    int BroadcastObdOriginalData();
    int BroadcastBlackboxObdData();
    int BroadcastGdsAlarm();
    int BroadcastCanBoxData();
    int BroadcastObdCollectStatus();
    int HandleOBDDataDisConnect();

    // Read-only views for the host side and tests.
    COBDCtrl* ObdCtrl() const { return m_pObdCtrl; }
    // The host's manager, for the link controller's frame dumps.
    CPeripheralManage* PeripheralManage() const { return m_pPeripheralManage; }
    bool IsCanBoxMode() const { return m_bCanBoxMode != 0; }
    bool IsUpgrading() const { return m_bUpgrading.load() != 0; }
    bool IsPowerDown() const { return m_bPowerDown.load() != 0; }
    size_t QueuedTaskCount();
    // Copies the queued tasks, front first (tests and diagnostics).
    std::deque<TaskBody_t> QueuedTasks();
    unsigned char InfoPending(int type);

  private:
    friend class CSerialDevOBDTestPeer;

    void FillGdsConfigInfo(GdsConfigInfo_t* info);
    void StoreVersion(const _OBD_Version_t& version);
    void StoreFaultCode(const _OBD_FaultCode_t& report);
    void AppendBlackboxRecord(const uint32_t* words, uint32_t n);
    void Broadcast(int id, const void* payload, uint32_t len);
    // Upgrade bookkeeping, under m_devInfoMutex (called from UpdateDevInfo).
    int HandleObdUpgradeFinish();
    void BroadcastUpgradeState(int state, int source, bool finished);
    // Takes tasks out of the queue unexecuted (under m_taskMutex); true when an upgrade was among
    // them. An accepted upgrade whose task will never run then ends as failed (no lock held).
    bool DiscardUnrunTasks(std::deque<TaskBody_t>::iterator first,
                           std::deque<TaskBody_t>::iterator last);
    void FailUnrunUpgrade();
    // Turns the host's inertial-sensor message into an analyser sample (bus thread).
    void ConvertInertiaSensorData(const char* msg);

    COBDCtrl* m_pObdCtrl;
    unsigned char m_infoPending[INFO_PENDING_COUNT];
    pthread_mutex_t m_taskMutex;
    std::atomic<unsigned char> m_bTaskThreadRun;
    // Whether a send thread was started: without one nothing answers the destructor's handshake.
    bool m_bSendThreadStarted;
    std::deque<TaskBody_t> m_sendTaskQueue;
    // Under m_taskMutex: the front entry is the task the send thread is running. The task in hand
    // stays queued until it has finished; a twin inserted meanwhile removes it and clears this.
    bool m_bFrontRunning;
    pthread_mutex_t m_devInfoMutex;
    std::atomic<int> m_bPowerDown;
    unsigned char m_bCanBoxMode;  // set once in the constructor, read-only afterwards
    eProductType m_productType;

    // Analyser state (peripheral thread; the analyser serialises its own calls).
    tagGdsParam_t m_gdsParam;

    // Device information store, under m_devInfoMutex.
    _OBD_Version_t m_devVersion;
    _OBD_ScanTimeLevel_t m_devScanTimeLevel;
    _OBD_DataStreamLevel_t m_devDataScanLevel;
    _OBD_Engine_t m_devEngine;
    UpgradeProgress_t m_devUpgradeState;
    int32_t m_devDemarcateResult;
    unsigned char alarmThreshold[GDS_THRESHOLD_BYTES];
    uint32_t m_devInfoChanged;
    int32_t m_faultCodeSize;
    char* m_pFaultCode;
    Common::SMessageHead m_demarcateMsgHead;

    // Link state and black-box buffer, under m_devInfoMutex: in CAN-box mode the feed that
    // writes them runs on the bus thread, the status tick that ages them on the peripheral thread.
    uint8_t m_obdState;
    unsigned char* m_pBlackboxBuf;
    uint32_t m_blackboxLen;
    uint32_t m_blackboxNum;
    uint32_t m_obdDataAge;
    uint8_t m_obdLinkTimeout;
    uint8_t m_bObdLinkUp;
    // Records that did not fit the black-box buffer while its broadcast was held; the first drop
    // of a full spell is logged, the next broadcast reports the count.
    uint32_t m_blackboxDropped;
    bool m_bBlackboxFullLogged;

    // Alarm trackers of the alarm broadcast (peripheral thread only).
    uint64_t m_prevAlarmWords[4];
    AlarmOverData m_neutralGlideRecord;
    AlarmOverData m_idlingRecord;
    AlarmOverData m_overspeedRecord;
    CurveAlarmData m_curveRecord;

    // Upgrade bookkeeping.
    struct UpgContext_t {
        int source;
        uint8_t percent;
    } m_upgContext;
    UpgradeResult_t m_upgResult[7];

    // Figures reported over the bus in CAN-box mode; written together under m_devInfoMutex.
    double m_totalMileage;
    uint32_t m_engineTime;
};

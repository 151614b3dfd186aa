// Shared fixture of the plug-in core tests: a fresh fake host and cycle timers per test, and a
// peer that reaches the few internals a black-box test cannot set up (flags the bus handlers
// will set, a link controller without a send thread).
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "COBDCtrl.h"
#include "FakeHost.h"
#include "SerialDevOBD.h"
#include "SerialDevOBDInternal.h"

class CSerialDevOBDTestPeer {
  public:
    explicit CSerialDevOBDTestPeer(CSerialDevOBD* obj) : m_obj(obj) {}
    // A link controller as PeripheralInitialize makes it, but no send thread: the queue then
    // holds exactly what the code under test put there.
    void AttachCtrl() {
        m_obj->m_pObdCtrl = new COBDCtrl(m_obj);
        m_obj->m_pObdCtrl->OBD_Init();
    }
    void SetPowerDown(int v) { m_obj->m_bPowerDown = v; }
    void SetUpgrading(unsigned char v) { m_obj->m_bUpgrading = v; }
    // Starts a six-axis calibration and feeds it its first sample, which allocates its buffer.
    int StartCalibration() {
        if (Gds_IF_StartSixAxisProofread(&m_obj->m_gdsParam) != 0) return -1;
        unsigned char sample[12] = {0x01, 0x00, 0x00, 0x20, 0x10, 0x00};
        return Gds_IF_UpdateCollectData(COLLECT_SIX_AXIS_DATA, sample, &m_obj->m_gdsParam);
    }
    void InitAnalyser() { Gds_IF_InitLogicAnalyser(&m_obj->m_gdsParam); }
    double TotalMileage() { return m_obj->m_totalMileage; }
    uint32_t EngineTime() { return m_obj->m_engineTime; }
    const tagSixAxisOrgData& LastSixAxisSample() { return m_obj->m_gdsParam.collData.sixAxisOrg; }
    void SetAlarmWords(uint64_t w1, uint64_t w2, uint64_t w3, uint64_t w4) {
        Alarm_Info_t& a = m_obj->m_gdsParam.collData.alarmInfo;
        a.eventType1Alarms = w1;
        a.eventType2Alarms = w2;
        a.eventType3Alarms = w3;
        a.eventType4Alarms = w4;
    }
    _OBD_DataTable_t& AnalyserTable() { return m_obj->m_gdsParam.collData.obdData; }
    uint32_t& DataAge() { return m_obj->m_obdDataAge; }
    uint32_t& Changed() { return m_obj->m_devInfoChanged; }
    uint8_t LinkTimeout() { return m_obj->m_obdLinkTimeout; }
    void ClearQueue() {
        pthread_mutex_lock(&m_obj->m_taskMutex);
        m_obj->m_sendTaskQueue.clear();
        pthread_mutex_unlock(&m_obj->m_taskMutex);
    }

  private:
    CSerialDevOBD* m_obj;
};

class CoreTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fakehost::Reset();
        ObdCycleTimersReset();
    }
    void TearDown() override {
        // A held send thread could never acknowledge the destructor's stop request.
        fakehost::ReleaseThreads();
        if (m_obj != nullptr) {
            EXPECT_EQ(PeripheralRelease(m_obj), 1);
        }
        m_obj = nullptr;
        EXPECT_TRUE(fakehost::WaitThreadsExited(5000)) << "send thread outlived its object";
    }
    CSerialDevOBD* Create(int productType = 0) {
        fakehost::SetProductType(productType);
        m_obj = static_cast<CSerialDevOBD*>(PeripheralCreate(&m_manage, nullptr, 0, 0));
        return m_obj;
    }
    // Object with a link controller and no send thread.
    CSerialDevOBD* CreateWithCtrl(int productType = 0) {
        Create(productType);
        CSerialDevOBDTestPeer(m_obj).AttachCtrl();
        return m_obj;
    }
    template <typename Pred>
    static bool WaitFor(Pred pred, int timeoutMs = 3000) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (!pred()) {
            if (std::chrono::steady_clock::now() > end) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return true;
    }

    CPeripheralManage m_manage;
    CSerialDevOBD* m_obj = nullptr;
};

// (taskType, cmd) pairs of the queue, front first.
inline std::vector<std::pair<uint32_t, uint32_t>> QueueKeys(CSerialDevOBD* obj) {
    std::vector<std::pair<uint32_t, uint32_t>> keys;
    for (const auto& t : obj->QueuedTasks()) keys.emplace_back(t.taskType, t.cmd);
    return keys;
}

inline std::pair<uint32_t, uint32_t> Get(uint32_t cmd) {
    return {TASK_TYPE_GET_INFO, cmd};
}
inline std::pair<uint32_t, uint32_t> Cfg(uint32_t cmd) {
    return {TASK_TYPE_CONFIG, cmd};
}

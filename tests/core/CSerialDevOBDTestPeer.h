// Reaches the few internals of the peripheral object that a black-box test cannot set up (flags
// the bus handlers will set, a link controller without a send thread, alarm words that would
// take minutes of driving). Friend of CSerialDevOBD; header-only.
#pragma once

#include <vector>

#include "COBDCtrl.h"
#include "SerialDevOBD.h"

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
    // Seconds the analyser has evaluated with the vehicle moving: one per 1 s run after Moving().
    uint32_t AnalyserRuns() { return m_obj->m_gdsParam.collData.statistics.base.runTime; }
    void Moving() {
        _OBD_DataTable_t t{};
        t.item[OBD_IDX_SPEED] = {OBD_IDX_SPEED, 30.0f};
        m_obj->UpdateCollectData(COLLECT_OBD_DATA, &t);
    }
    // The thresholds as the store holds them and as the analyser has them.
    std::vector<unsigned char> StoredThresholds() {
        return {m_obj->alarmThreshold, m_obj->alarmThreshold + GDS_THRESHOLD_BYTES};
    }
    std::vector<unsigned char> AnalyserThresholds() {
        const auto* p = reinterpret_cast<const unsigned char*>(&m_obj->m_gdsParam);
        return {p, p + GDS_THRESHOLD_BYTES};
    }
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

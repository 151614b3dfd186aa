// The analyser's entry points: initialisation, sample intake, the once-a-second evaluation and
// the small exported services around them (calibration start, release, statistics copy).
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "GdsInternal.h"

namespace {

// One process-wide lock rather than one in the record: the record stays a plain structure the
// owner zeroes and copies, and the checks' own process-wide states need the same lock anyway.
// std::mutex is constant-initialised and never allocates, so a locked second stays heap-free.
std::mutex g_gdsMutex;

const GDS_ALARM_THRESOLD_tag_ kDefaultAlarmThreshold = [] {
    GDS_ALARM_THRESOLD_tag_ t{};
    t.accLevel1 = 8;
    t.accLevel2 = 10;
    t.accLevel3 = 12;
    t.speedAccLevel1 = 130;
    t.speedAccLevel2 = 150;
    t.speedAccLevel3 = 180;
    t.decLevel1 = 17;
    t.decLevel2 = 19;
    t.decLevel3 = 21;
    t.speedDecLevel1 = 180;
    t.speedDecLevel2 = 200;
    t.speedDecLevel3 = 230;
    t.turnLevel1 = 540;
    t.turnLevel2 = 600;
    t.turnLevel3 = 650;
    t.lateralSensitivity = 2;
    t.turbulenceSensitivity = 2;
    t.reserved40 = 2;
    t.voltage = {23, 11, 2450, 1200, 2700, 1350};
    t.idlingTimeout = {240, 900, 1800, {0, 0}};
    t.engineFlameout = {5, 10, 100, {0, 0}};
    t.neutralGlide = {5, 50, 900, {0, 0}};
    t.coolantHigh = {100, 10, 120, {0, 0}};
    t.coolantLow = {100, 10, 5, {0, 0}};
    t.coolantTempDrop = {3, 90, 50, {0, 0}};
    t.revving = {5, 1800, 5, 2000, 5, 2400};
    t.throttle.level[0] = {5, 20, 60, 0};
    t.throttle.level[1] = {5, 20, 60, 0};
    t.throttle.level[2] = {5, 20, 80, 0};
    t.parkingLargeGas = {2, 1500};
    t.lowGearHighSpeed = {30, 1500};
    t.parkOnClutch = {20, {0, 0, 0}};
    t.runningWithBrake = {10, 10};
    t.coldStart = {100, 0};
    t.parkingCloseEngine = {60, 10, 50};
    t.brakeWear = {15, 15, 10, 30, 20, 30};
    t.clutchWear = {10, 15, 20, 30, 30, 30};
    t.highSpeedStartEngine = {10};
    return t;
}();

const StatisticsThresold_tag_ kDefaultStatThreshold = {
    {0, 800, 1000, 1200, 1400, 1600, 2000, 2400},
    {0, 30, 60, 90, 120},
    {0, 10, 30, 60, 80},
    {50, 60, 75, 80, 85, 90, 100, 125, 130},
    {0, 10, 30, 50, 70, 90},
    {0, 3, 15, 30},
    {0, 0, 0},
};

void FreeProofreadBuffer(tagGds6AxisProofread* pr) {
    std::free(pr->buffer);
    pr->buffer = nullptr;
}

int StatisticsDataLocked(const _OBD_DataTable_t* cur, const _OBD_DataTable_t* prev,
                         Alarm_Info_t* alarm, GdsStatisticsData_t_* stat,
                         const StatisticsThresold_tag_* thr) {
    if (cur == nullptr || prev == nullptr || alarm == nullptr || stat == nullptr) return -1;
    GdsStatisticsBaseData(cur, prev, alarm, &stat->base);
    GdsStatisticsDrivingData(cur, prev, &stat->driving, thr);
    return 0;
}

}  // namespace

int Gds_IF_InitLogicAnalyser(tagGdsParam_t* gds) {
    if (gds == nullptr) return -1;
    std::lock_guard<std::mutex> lock(g_gdsMutex);
    gds->alarmThreshold = kDefaultAlarmThreshold;
    gds->statThreshold = kDefaultStatThreshold;
    for (auto& it : gds->collData.obdData.item) {
        it.id = -1;
        it.value = 0.0f;
    }
    // A second initialisation must not leak a calibration buffer (the owner zeroed the record
    // at construction, so the pointer is either null or ours).
    FreeProofreadBuffer(&gds->proofread);
    gds->proofread = tagGds6AxisProofread{};
    gds->event1Counter = _EventType1Counter_t_{};
    gds->obdAlarmCounter = _ObdAlarmCounter_t{};
    gds->sixAxisCounter = _SixAxisCounter_t{};
    gds->event2Counter = _EventType2Counter_t_{};
    gds->event3Counter = _EventType3Counter_t_{};
    gds->event4Counter = _EventType4Counter_t_{};
    tagGdsCollDataList& c = gds->collData;
    c.speedRing.writeIndex = 0;
    c.speedRing.readIndex = 1;
    for (int r : {AXIS_RING_LONGITUDINAL, AXIS_RING_LATERAL, AXIS_RING_LATERAL_LOAD}) {
        c.axisRing[r].writeIndex = 0;
        c.axisRing[r].readIndex = 1;
    }
    return 0;
}

int Gds_IF_UpdateCollectData(CollectDataType_Eum kind, void* data, tagGdsParam_t* gds) {
    if (data == nullptr || gds == nullptr) return -1;
    std::lock_guard<std::mutex> lock(g_gdsMutex);
    tagGdsCollDataList& c = gds->collData;
    if (kind == COLLECT_OBD_DATA) {
        _OBD_DataTable_t next;
        std::memcpy(&next, data, sizeof(next));
        StatisticsDataLocked(&next, &c.obdData, &c.alarmInfo, &c.statistics, &gds->statThreshold);
        c.obdData = next;
    } else if (kind == COLLECT_SIX_AXIS_DATA) {
        tagSixAxisOrgData sample;
        std::memcpy(&sample, data, sizeof(sample));
        // A failed calibration allocation only postpones the calibration; the sample still counts.
        (void)ProofreadSixAxisData(&sample, &gds->proofread);
        FillSixAxisDataToBuffer(&sample, gds);
        c.sixAxisOrg = sample;
    }
    return 0;
}

void Gds_IF_AnalyserData(tagGdsParam_t* gds) {
    if (gds == nullptr) return;
    std::lock_guard<std::mutex> lock(g_gdsMutex);
    tagGdsCollDataList* c = &gds->collData;
    const GDS_ALARM_THRESOLD_tag_* thr = &gds->alarmThreshold;
    AlgorithmObdAlarm(c, thr, &gds->obdAlarmCounter);
    Algorithm6AxisData(c, thr, &gds->sixAxisCounter);
    GdsAnalyserEventType1(c, &gds->event1Counter, thr);
    GdsAnalyserEventType2(c, &gds->event2Counter, thr);
    GdsAnalyserEventType3(c, &gds->event3Counter, thr);
    GdsAnalyserEventType4(c, &gds->event4Counter, thr);
    GdsStatisticsBaseDataTime(&c->obdData, &c->statistics.base);
    GdsStatisticsDrivingDataTime(&c->obdData, &c->statistics.driving, &gds->statThreshold);
    GdsStatisticsEconomyDataTime(&c->obdData, &c->economy, gds->event2Counter.idling,
                                 &gds->statThreshold);
}

int Gds_IF_StatisticsData(const _OBD_DataTable_t* cur, const _OBD_DataTable_t* prev,
                          Alarm_Info_t* alarm, GdsStatisticsData_t_* stat,
                          const StatisticsThresold_tag_* thr) {
    std::lock_guard<std::mutex> lock(g_gdsMutex);
    return StatisticsDataLocked(cur, prev, alarm, stat, thr);
}

int Gds_IF_StartSixAxisProofread(tagGdsParam_t* gds) {
    if (gds == nullptr) return -1;
    std::lock_guard<std::mutex> lock(g_gdsMutex);
    // A restart mid-way discards the partial collection; the buffer is reused by the next sample.
    gds->proofread.state = 1;
    gds->proofread.count = 0;
    return 0;
}

int Gds_IF_ReleaseLogicAnalyser(tagGdsParam_t* gds) {
    if (gds == nullptr) return -1;
    std::lock_guard<std::mutex> lock(g_gdsMutex);
    FreeProofreadBuffer(&gds->proofread);
    gds->proofread.state = 0;
    gds->proofread.count = 0;
    return 0;
}

int Gds_IF_GetStatistics(tagGdsParam_t* gds, GdsStatisticsData_t_* stat,
                         EconomyStatisticsData_t_* economy) {
    if (gds == nullptr || stat == nullptr) return -1;
    std::lock_guard<std::mutex> lock(g_gdsMutex);
    *stat = gds->collData.statistics;
    if (economy != nullptr) *economy = gds->collData.economy;
    return 0;
}

void Gds_TestResetProcessState() {
    std::lock_guard<std::mutex> lock(g_gdsMutex);
    gds::ResetObdAlarmProcessState();
    gds::ResetStatisticsProcessState();
}

// Trip statistics: per OBD sample (differences of cumulative readings) and per second.
#include "GdsInternal.h"

using gds::IntValue;
using gds::Value;

namespace {

// Idle fuel of the current idling period, kept until the idling alarm decides its fate.
float g_pendingIdleFuel = 0.0f;

constexpr float kReadingMax = 100000000.0f;
constexpr uint64_t kIdlingAlarmBits = uint64_t{7} << GDS_E2_IDLING;

bool Plausible(float n, float p) {
    return n > 0.0f && n < kReadingMax && n >= p;
}

// Picks the (new, previous) pair of the preferred item, or of the fallback item when the
// preferred one is implausible. requireChange: a reading that did not move selects nothing.
bool SelectReading(const _OBD_DataTable_t* cur, const _OBD_DataTable_t* prev, int preferred,
                   int fallback, bool requireChange, float* n, float* p) {
    *n = Value(cur, preferred);
    *p = Value(prev, preferred);
    if (Plausible(*n, *p)) return !(requireChange && *n == *p);
    *n = Value(cur, fallback);
    *p = Value(prev, fallback);
    return Plausible(*n, *p) && !(requireChange && *n == *p);
}

// The filtered difference of a cumulative reading: false when nothing is to be added.
bool CumulativeDiff(const _OBD_DataTable_t* cur, const _OBD_DataTable_t* prev, int preferred,
                    int fallback, bool requireChange, float* d) {
    float n = 0.0f;
    float p = 0.0f;
    if (!SelectReading(cur, prev, preferred, fallback, requireChange, &n, &p)) return false;
    if (p == 0.0f) return false;  // first reading after a gap only sets the base
    *d = n - p;
    return *d < 10.0f;
}

bool FuelDiff(const _OBD_DataTable_t* cur, const _OBD_DataTable_t* prev, float* d) {
    return CumulativeDiff(cur, prev, OBD_IDX_FUEL, OBD_IDX_GROSS, false, d);
}

bool EngineOffAndStill(const _OBD_DataTable_t* cur) {
    return Value(cur, OBD_IDX_ENGINE_SPEED) == 0.0f && Value(cur, OBD_IDX_SPEED) == 0.0f;
}

// Band i (i < k) holds b_i < v <= b_(i+1), band k holds v > b_k; -1 for no band.
template <typename T>
int BandOf(float v, const T* edges, int count) {
    for (int i = 0; i < count; ++i) {
        const float lo = static_cast<float>(edges[i]);
        if (i + 1 < count) {
            if (v > lo && v <= static_cast<float>(edges[i + 1])) return i;
        } else if (v > lo) {
            return i;
        }
    }
    return -1;
}

void AddFuel(BandStat_t_* stat, int band, float d) {
    if (band >= 0) stat[band].fuel += d;
}
void AddSecond(BandStat_t_* stat, int band) {
    if (band >= 0) ++stat[band].seconds;
}

}  // namespace

namespace gds {
void ResetStatisticsProcessState() {
    g_pendingIdleFuel = 0.0f;
}
}  // namespace gds

void StatisticsMileage(const _OBD_DataTable_t* cur, const _OBD_DataTable_t* prev, float* mileage1,
                       float* mileage2) {
    if (cur == nullptr || prev == nullptr || mileage1 == nullptr || mileage2 == nullptr) return;
    if (EngineOffAndStill(cur)) return;
    float d = 0.0f;
    if (!CumulativeDiff(cur, prev, OBD_IDX_MILEAGE, OBD_IDX_MILEAGE2, true, &d)) return;
    *mileage1 += d;
    *mileage2 += d;
}

void StatisticsFule(const _OBD_DataTable_t* cur, const _OBD_DataTable_t* prev, float* fuel1,
                    float* fuel2) {
    if (cur == nullptr || prev == nullptr || fuel1 == nullptr || fuel2 == nullptr) return;
    if (EngineOffAndStill(cur)) return;
    float d = 0.0f;
    if (!FuelDiff(cur, prev, &d)) return;
    *fuel1 += d;
    *fuel2 += d;
}

void StatisticsIdlingFule(const _OBD_DataTable_t* cur, const _OBD_DataTable_t* prev,
                          float* idleFuel) {
    if (cur == nullptr || prev == nullptr || idleFuel == nullptr) return;
    if (IntValue(cur, OBD_IDX_ENGINE_SPEED) == 0 || IntValue(cur, OBD_IDX_SPEED) > 0) return;
    float d = 0.0f;
    if (FuelDiff(cur, prev, &d)) *idleFuel += d;
}

void StatisticsSteerFule(const _OBD_DataTable_t* cur, const _OBD_DataTable_t* prev,
                         float* driveFuel) {
    if (cur == nullptr || prev == nullptr || driveFuel == nullptr) return;
    if (IntValue(cur, OBD_IDX_ENGINE_SPEED) == 0 || IntValue(cur, OBD_IDX_SPEED) == 0) return;
    float d = 0.0f;
    if (FuelDiff(cur, prev, &d)) *driveFuel += d;
}

void StatisticsBrake(const _OBD_DataTable_t* cur, const _OBD_DataTable_t* prev,
                     uint32_t* brakeCount) {
    if (cur == nullptr || prev == nullptr || brakeCount == nullptr) return;
    const float b = Value(cur, OBD_IDX_BRAKE);
    if (b > 0.0f && b != Value(prev, OBD_IDX_BRAKE)) ++*brakeCount;
}

void StatisticsIdlingAlarmFule(const _OBD_DataTable_t* cur, const _OBD_DataTable_t* prev,
                               const Alarm_Info_t* alarm, float* idleAlarmFuel) {
    if (cur == nullptr || prev == nullptr || alarm == nullptr || idleAlarmFuel == nullptr) return;
    if (IntValue(cur, OBD_IDX_ENGINE_SPEED) == 0 || IntValue(cur, OBD_IDX_SPEED) > 0) {
        g_pendingIdleFuel = 0.0f;
        return;
    }
    float n = 0.0f;
    float p = 0.0f;
    if (!SelectReading(cur, prev, OBD_IDX_FUEL, OBD_IDX_GROSS, false, &n, &p)) return;
    if (p == 0.0f) {
        g_pendingIdleFuel = 0.0f;
        return;
    }
    const float d = n - p;
    if (!(d < 10.0f)) return;
    if ((alarm->eventType2Alarms & kIdlingAlarmBits) == 0) {
        g_pendingIdleFuel += d;
    } else {
        *idleAlarmFuel += d + g_pendingIdleFuel;
        g_pendingIdleFuel = 0.0f;
    }
}

int GdsStatisticsBaseData(const _OBD_DataTable_t* cur, const _OBD_DataTable_t* prev,
                          const Alarm_Info_t* alarm, BaseStatisticsData_t_* base) {
    if (cur == nullptr || prev == nullptr || alarm == nullptr || base == nullptr) return -1;
    StatisticsMileage(cur, prev, &base->mileage1, &base->mileage2);
    StatisticsFule(cur, prev, &base->fuel1, &base->fuel2);
    StatisticsIdlingFule(cur, prev, &base->idleFuel);
    StatisticsSteerFule(cur, prev, &base->driveFuel);
    StatisticsBrake(cur, prev, &base->brakeCount);
    StatisticsIdlingAlarmFule(cur, prev, alarm, &base->idleAlarmFuel);
    return 0;
}

void GdsStatisticsDrivingData(const _OBD_DataTable_t* cur, const _OBD_DataTable_t* prev,
                              DrivingBehavior_t_* drv, const StatisticsThresold_tag_* thr) {
    if (cur == nullptr || prev == nullptr || drv == nullptr || thr == nullptr) return;
    const float speed = Value(cur, OBD_IDX_SPEED);
    const float rpm = Value(cur, OBD_IDX_ENGINE_SPEED);
    if (rpm == 0.0f || speed == 0.0f) return;
    float n = 0.0f;
    float p = 0.0f;
    if (!SelectReading(cur, prev, OBD_IDX_FUEL, OBD_IDX_GROSS, false, &n, &p)) return;
    // An implausible previous reading (0 after a gap, negative, -inf) is no base: with it any
    // step, up to infinity, would pass the jump filter below.
    if (!(p > 0.0f && p < kReadingMax)) return;
    const float d = n - p;
    // The band fuel drops a jump only when it exceeds 5 (exactly 5 still counts).
    if (d > 5.0f) return;
    AddFuel(drv->speedBandStat, BandOf(speed, thr->speedBand, 5), d);
    AddFuel(drv->engineSpeedBandStat, BandOf(rpm, thr->engineSpeedBand, 8), d);
    AddFuel(drv->acceleratorBandStat,
            BandOf(Value(cur, OBD_IDX_ACCELERATOR), thr->acceleratorBand, 5), d);
}

void GdsStatisticsBaseDataTime(const _OBD_DataTable_t* obd, BaseStatisticsData_t_* base) {
    if (obd == nullptr || base == nullptr) return;
    const float speed = Value(obd, OBD_IDX_SPEED);
    if (speed > 0.0f) {
        ++base->driveTime;
        ++base->runTime;
    } else if (speed == 0.0f && Value(obd, OBD_IDX_ENGINE_SPEED) > 0.0f) {
        ++base->idleTime;
        ++base->runTime;
    }
}

void GdsStatisticsDrivingDataTime(const _OBD_DataTable_t* obd, DrivingBehavior_t_* drv,
                                  const StatisticsThresold_tag_* thr) {
    if (obd == nullptr || drv == nullptr || thr == nullptr) return;
    const float acc = Value(obd, OBD_IDX_ACCELERATOR);
    AddSecond(drv->speedBandStat, BandOf(Value(obd, OBD_IDX_SPEED), thr->speedBand, 5));
    AddSecond(drv->engineSpeedBandStat,
              BandOf(Value(obd, OBD_IDX_ENGINE_SPEED), thr->engineSpeedBand, 8));
    AddSecond(drv->acceleratorBandStat, BandOf(acc, thr->acceleratorBand, 5));
    for (int j = 0; j < 9; ++j) {
        if (acc > static_cast<float>(thr->acceleratorLevel[j]))
            drv->acceleratorLevelTime[j] = static_cast<uint16_t>(drv->acceleratorLevelTime[j] + 1);
    }
}

void GdsStatisticsEconomyDataTime(const _OBD_DataTable_t* obd, EconomyStatisticsData_t_* eco,
                                  int idleCounter, const StatisticsThresold_tag_* thr) {
    if (obd == nullptr || eco == nullptr || thr == nullptr) return;
    uint16_t* over = eco->idleOverTime;
    if (idleCounter > thr->idleMinuteBand[0]) over[0] = static_cast<uint16_t>(over[0] + 1);
    for (int j = 1; j < 4; ++j) {
        if (60 * thr->idleMinuteBand[j] <= idleCounter)
            over[j] = static_cast<uint16_t>(over[j] + 1);
    }
}

// OBD-data alarm checks and the speed-derived acceleration / hold judgement.
#include <initializer_list>

#include "GdsInternal.h"

using gds::IntValue;
using gds::Present;

namespace {

// States the checks keep for the life of the process (one analyser per process).
int g_startLatch = 0;         // CheckHighSpeedStartEngineAlarm
int g_movedFlag = 0;          // CheckParkingCloseEngineAlarm
int g_highTempCounter = 0;    // CheckCoolantTempHighAlarm
int g_lowTempCounter = 0;     // CheckCoolantTempLowAlarm
int g_warmFlag = 0;           // CheckCoolantTempDropAlarm
int g_engineRunningFlag = 0;  // CheckBatteryVoltAlarm

template <typename C>
C Inc(C c) {
    return static_cast<C>(c + 1);  // counters wrap at their own width
}

// Condition held: count on, else restart; past the limit hold at it and report.
template <typename C>
int Latch(C* counter, bool cond, int limit, int result) {
    *counter = cond ? Inc(*counter) : static_cast<C>(0);
    if (*counter > limit) {
        *counter = static_cast<C>(limit);
        return result;
    }
    return 0;
}

// The two coolant checks report from the 20th second and keep their counter at 20.
int CoolantLatch(int* counter, bool cond) {
    *counter = cond ? *counter + 1 : 0;
    if (*counter > 19) {
        *counter = 20;
        return 1;
    }
    return 0;
}

bool AllPresent(const _OBD_DataTable_t* obd, std::initializer_list<int> idx) {
    for (int i : idx)
        if (!Present(obd, i)) return false;
    return true;
}

// Shared by the brake- and clutch-wear checks.
int WearCheck(const _OBD_DataTable_t* obd, int pedalIdx, uint8_t* counter, int16_t continueTime1,
              int16_t speed1, int16_t speed2, int16_t speed3) {
    if (!AllPresent(obd, {pedalIdx, OBD_IDX_SPEED})) return 0;
    const int32_t pedal = IntValue(obd, pedalIdx);
    const int32_t speed = IntValue(obd, OBD_IDX_SPEED);
    if (pedal <= 0 || speed == 0) {
        *counter = 0;
        return 0;
    }
    int level = 0;
    if (speed > speed1)
        level = 1;
    else if (speed > speed2)
        level = 2;
    else if (speed > speed3)
        level = 3;
    if (level == 0) return 0;
    *counter = Inc(*counter);
    return *counter > static_cast<uint8_t>(continueTime1 & 0xFF) ? level : 0;
}

// (s1 - s0) * 20000 / 3600 as the 16-bit value the level tables are written for.
int16_t SpeedDelta(int32_t from, int32_t to) {
    const int64_t q = (static_cast<int64_t>(to) - from) * 20000 / 3600;
    return static_cast<int16_t>(static_cast<uint16_t>(static_cast<uint64_t>(q) & 0xFFFFu));
}

uint16_t Advance(uint16_t idx, int size) {
    // An index outside the ring (a record never initialised) restarts at 0 instead of overrunning.
    return (idx + 1 >= size) ? uint16_t{0} : static_cast<uint16_t>(idx + 1);
}

}  // namespace

namespace gds {
void ResetObdAlarmProcessState() {
    g_startLatch = 0;
    g_movedFlag = 0;
    g_highTempCounter = 0;
    g_lowTempCounter = 0;
    g_warmFlag = 0;
    g_engineRunningFlag = 0;
}
}  // namespace gds

int CheckRunningWithBrakeAlarm(const _OBD_DataTable_t* obd, uint8_t* counter,
                               const RunningWithBrake_tag_* thr) {
    if (obd == nullptr || counter == nullptr || thr == nullptr) return 0;
    if (!AllPresent(obd, {OBD_IDX_RUNNING_BRAKE, OBD_IDX_SPEED})) return 0;
    const bool cond =
        IntValue(obd, OBD_IDX_RUNNING_BRAKE) > 0 && IntValue(obd, OBD_IDX_SPEED) > thr->speed;
    return Latch(counter, cond, thr->continueTime, 1);
}

int CheckColdStartAlarm(const _OBD_DataTable_t* obd, uint8_t* counter, const ColdStart_tag_* thr) {
    if (obd == nullptr || counter == nullptr || thr == nullptr) return 0;
    if (!AllPresent(obd, {OBD_IDX_ENGINE_SPEED, OBD_IDX_SPEED, OBD_IDX_COOLANT_TEMP})) return 0;
    const bool cond = IntValue(obd, OBD_IDX_SPEED) > 0 &&
                      IntValue(obd, OBD_IDX_ENGINE_SPEED) > thr->engineSpeed &&
                      IntValue(obd, OBD_IDX_COOLANT_TEMP) < thr->coolantTemp;
    return Latch(counter, cond, 5, 1);
}

int CheckCoolantTempHighAlarm(const _OBD_DataTable_t* obd, const COOLANT_TDMP_tag_* thr) {
    if (obd == nullptr || thr == nullptr) return 0;
    if (!AllPresent(obd, {OBD_IDX_COOLANT_TEMP, OBD_IDX_SPEED, OBD_IDX_ENGINE_SPEED})) return 0;
    const bool cond = IntValue(obd, OBD_IDX_ENGINE_SPEED) > thr->engineSpeed &&
                      IntValue(obd, OBD_IDX_SPEED) > thr->speed &&
                      IntValue(obd, OBD_IDX_COOLANT_TEMP) >= thr->temp;
    return CoolantLatch(&g_highTempCounter, cond);
}

int CheckCoolantTempLowAlarm(const _OBD_DataTable_t* obd, const COOLANT_TDMP_tag_* thr) {
    if (obd == nullptr || thr == nullptr) return 0;
    if (!AllPresent(obd, {OBD_IDX_COOLANT_TEMP, OBD_IDX_SPEED, OBD_IDX_ENGINE_SPEED})) return 0;
    const bool cond = IntValue(obd, OBD_IDX_ENGINE_SPEED) > thr->engineSpeed &&
                      IntValue(obd, OBD_IDX_SPEED) > thr->speed &&
                      IntValue(obd, OBD_IDX_COOLANT_TEMP) < thr->temp;
    return CoolantLatch(&g_lowTempCounter, cond);
}

int CheckNeutralGlideAlarm(const _OBD_DataTable_t* obd, uint8_t* counter,
                           const NeutralGlide_tag_* thr) {
    if (obd == nullptr || counter == nullptr || thr == nullptr) return 0;
    if (!AllPresent(obd, {OBD_IDX_ENGINE_SPEED, OBD_IDX_SPEED})) return 0;
    const int32_t rpm = IntValue(obd, OBD_IDX_ENGINE_SPEED);
    const bool cond =
        IntValue(obd, OBD_IDX_SPEED) > thr->speed && rpm >= 1 && rpm < thr->engineSpeed;
    return Latch(counter, cond, thr->continueTime, 1);
}

int CheckEngineFlameoutAlarm(const _OBD_DataTable_t* obd, uint8_t* counter,
                             const EngineFlameout_tag_* thr) {
    if (obd == nullptr || counter == nullptr || thr == nullptr) return 0;
    if (!AllPresent(obd, {OBD_IDX_ENGINE_SPEED, OBD_IDX_SPEED})) return 0;
    const bool cond = IntValue(obd, OBD_IDX_SPEED) > thr->speed &&
                      IntValue(obd, OBD_IDX_ENGINE_SPEED) < thr->engineSpeed;
    return Latch(counter, cond, thr->continueTime, 1);
}

int CheckParkingLargeGasAlarm(const _OBD_DataTable_t* obd, uint8_t* counter,
                              const ParkingLargeGas_tag_* thr) {
    if (obd == nullptr || counter == nullptr || thr == nullptr) return 0;
    if (!AllPresent(obd, {OBD_IDX_SPEED, OBD_IDX_ENGINE_SPEED})) return 0;
    const bool cond =
        IntValue(obd, OBD_IDX_SPEED) <= 0 && IntValue(obd, OBD_IDX_ENGINE_SPEED) > thr->engineSpeed;
    return Latch(counter, cond, thr->continueTime, 1);
}

int CheckLowGearHighSpeedAlarm(const _OBD_DataTable_t* obd, int16_t* counter,
                               const LowGearHighSpeed_tag_* thr) {
    if (obd == nullptr || counter == nullptr || thr == nullptr) return 0;
    if (!AllPresent(obd, {OBD_IDX_SPEED, OBD_IDX_ENGINE_SPEED})) return 0;
    const int32_t speed = IntValue(obd, OBD_IDX_SPEED);
    const bool cond =
        IntValue(obd, OBD_IDX_ENGINE_SPEED) > thr->engineSpeed && speed > 0 && speed < thr->speed;
    return Latch(counter, cond, 5, 1);
}

int CheckParkingOnClutchTimeoutAlarm(const _OBD_DataTable_t* obd, uint8_t* counter,
                                     const ParkOnClutch_tag_* thr) {
    if (obd == nullptr || counter == nullptr || thr == nullptr) return 0;
    if (!AllPresent(obd, {OBD_IDX_SPEED, OBD_IDX_ENGINE_SPEED, OBD_IDX_CLUTCH})) return 0;
    const bool cond = IntValue(obd, OBD_IDX_SPEED) == 0 &&
                      IntValue(obd, OBD_IDX_ENGINE_SPEED) > 0 && IntValue(obd, OBD_IDX_CLUTCH) > 0;
    return Latch(counter, cond, thr->continueTime, 1);
}

int CheckOverRunningAlarm(const _OBD_DataTable_t* obd, uint8_t* counter, const REVVING_tag_* thr) {
    if (obd == nullptr || counter == nullptr || thr == nullptr) return 0;
    if (!AllPresent(obd, {OBD_IDX_SPEED, OBD_IDX_ENGINE_SPEED})) return 0;
    const int32_t rpm = IntValue(obd, OBD_IDX_ENGINE_SPEED);
    if (IntValue(obd, OBD_IDX_SPEED) == 0 || rpm <= thr->engineSpeed1) {
        *counter = 0;
        return 0;
    }
    int level = 3;
    if (rpm <= thr->engineSpeed2)
        level = 1;
    else if (rpm <= thr->engineSpeed3)
        level = 2;
    *counter = Inc(*counter);  // one counter for all levels: changing level keeps counting
    if (*counter > thr->continueTime1) {
        *counter = static_cast<uint8_t>(thr->continueTime1);
        return level;
    }
    return 0;
}

int CheckIdlingTimeoutAlarm(const _OBD_DataTable_t* obd, int16_t* counter,
                            const IdlingTimeout_tag_* thr) {
    if (obd == nullptr || counter == nullptr || thr == nullptr) return 0;
    if (!AllPresent(obd, {OBD_IDX_SPEED, OBD_IDX_ENGINE_SPEED})) return 0;
    const bool idling =
        IntValue(obd, OBD_IDX_ENGINE_SPEED) > 0 && IntValue(obd, OBD_IDX_SPEED) == 0;
    *counter = idling ? Inc(*counter) : int16_t{0};
    const int c = *counter;
    if (c >= thr->level1Time && c < thr->level2Time) return 1;
    if (c >= thr->level2Time && c < thr->level3Time) return 2;
    if (c >= thr->level3Time) {
        *counter = thr->level3Time;
        return 3;
    }
    return 0;
}

int CheckBrakeWearAlarm(const _OBD_DataTable_t* obd, uint8_t* counter, const BrakeWear_tag_* thr) {
    if (obd == nullptr || counter == nullptr || thr == nullptr) return 0;
    return WearCheck(obd, OBD_IDX_BRAKE, counter, thr->continueTime1, thr->speed1, thr->speed2,
                     thr->speed3);
}

int CheckClutchWearAlarm(const _OBD_DataTable_t* obd, uint8_t* counter,
                         const ClutchWear_tag_* thr) {
    if (obd == nullptr || counter == nullptr || thr == nullptr) return 0;
    return WearCheck(obd, OBD_IDX_CLUTCH, counter, thr->continueTime1, thr->speed1, thr->speed2,
                     thr->speed3);
}

int CheckThrottleAlarm(const _OBD_DataTable_t* obd, uint8_t* counter, const TTLE_tag_* thr) {
    if (obd == nullptr || counter == nullptr || thr == nullptr) return 0;
    if (!AllPresent(obd, {OBD_IDX_SPEED, OBD_IDX_ACCELERATOR})) return 0;
    const int32_t speed = IntValue(obd, OBD_IDX_SPEED);
    const int32_t a = IntValue(obd, OBD_IDX_ACCELERATOR);
    const TTLE_Level_tag_* g = thr->level;
    if (speed == 0) {
        *counter = 0;
        return 0;
    }
    int level = 0;
    if (speed <= g[0].speed) {
        if (a > g[0].throttle) {
            *counter = Inc(*counter);
            level = 1;
        } else {
            *counter = 0;
        }
    }
    if (speed > g[1].speed) {
        if (level == 1) *counter = 0;
        if (g[1].throttle < a && a < g[2].throttle) {
            *counter = Inc(*counter);
            level = 2;
        } else {
            *counter = 0;
        }
    }
    if (speed > g[2].speed && a >= g[2].throttle) {
        *counter = Inc(*counter);
        level = 3;
    }
    if (level >= 1 && *counter > g[level - 1].continueTime) {
        *counter = g[level - 1].continueTime;
        return level;
    }
    return 0;
}

int CheckParkingCloseEngineAlarm(const _OBD_DataTable_t* obd, uint8_t* counter,
                                 const ParkingCloseEngine_tag_* thr) {
    if (obd == nullptr || counter == nullptr || thr == nullptr) return 0;
    if (!AllPresent(obd, {OBD_IDX_MILEAGE2, OBD_IDX_SPEED, OBD_IDX_ENGINE_SPEED})) return 0;
    const int32_t mileage2 = IntValue(obd, OBD_IDX_MILEAGE2);
    if (IntValue(obd, OBD_IDX_SPEED) > 0 && mileage2 > 0) {
        g_movedFlag = 1;
        *counter = 0;
        return 0;
    }
    if (g_movedFlag == 0) {
        *counter = 0;
        return 0;
    }
    if (IntValue(obd, OBD_IDX_ENGINE_SPEED) > 0) {
        *counter = Inc(*counter);
        return 0;
    }
    int required = 0;
    if (mileage2 > thr->mileageLimit)
        required = thr->idleTimeHigh;
    else if (mileage2 < thr->mileageLimit)
        required = thr->idleTimeLow;
    if (*counter < required) return 1;
    *counter = static_cast<uint8_t>(required);
    return 0;
}

int CheckHighSpeedStartEngineAlarm(const _OBD_DataTable_t* obd, uint8_t* counter,
                                   const HighSpeedStartEngine_tag_* thr) {
    if (obd == nullptr || counter == nullptr || thr == nullptr) return 0;
    if (!AllPresent(obd, {OBD_IDX_ENGINE_SPEED, OBD_IDX_SPEED})) return 0;
    const int32_t rpm = IntValue(obd, OBD_IDX_ENGINE_SPEED);
    const int32_t speed = IntValue(obd, OBD_IDX_SPEED);
    if (rpm == 0 || g_startLatch != 0) {
        *counter = 0;
        return 0;
    }
    if (rpm > 0 && speed == 0) {
        *counter = Inc(*counter);
        return 0;
    }
    if (speed <= 0) return 0;
    const bool coldStart = *counter < thr->warmUpTime;
    *counter = 0;
    g_startLatch = 1;
    return coldStart ? 1 : 0;
}

int CheckCoolantTempDropAlarm(const _OBD_DataTable_t* obd, int16_t* counter,
                              const CoolantTempDrop_tag_* thr) {
    if (obd == nullptr || counter == nullptr || thr == nullptr) return 0;
    if (!AllPresent(obd, {OBD_IDX_COOLANT_TEMP, OBD_IDX_SPEED})) return 0;
    const int32_t coolant = IntValue(obd, OBD_IDX_COOLANT_TEMP);
    if (coolant > thr->highTemp) {
        g_warmFlag = 1;
        *counter = 0;
        return 0;
    }
    if (IntValue(obd, OBD_IDX_SPEED) == 0 || g_warmFlag == 0) {
        *counter = 0;
        return 0;
    }
    if (thr->lowTemp < coolant && coolant < thr->highTemp) {
        *counter = Inc(*counter);
        return 0;
    }
    if (coolant < thr->lowTemp) return *counter < 60 * thr->dropTime ? 1 : 0;
    *counter = 0;
    return 0;
}

int CheckBatteryVoltAlarm(const _OBD_DataTable_t* obd, int16_t* counter, const VOLTAG_tag_* thr) {
    if (obd == nullptr || thr == nullptr) return 0;
    // Without a counter the engine state is still followed; only the 120 s duration is lost.
    int16_t scratch = 0;
    if (counter == nullptr) counter = &scratch;
    if (!AllPresent(obd, {OBD_IDX_ENGINE_SPEED, OBD_IDX_BATTERY_VOLT})) return 0;
    const int32_t volts = IntValue(obd, OBD_IDX_BATTERY_VOLT);
    if (volts <= 0) {
        *counter = 0;
        return 0;
    }
    const int32_t rpm = IntValue(obd, OBD_IDX_ENGINE_SPEED);
    const bool system24 = volts > 18;
    const int64_t centi = static_cast<int64_t>(volts) * 100;
    if (g_engineRunningFlag == 0 && rpm > 100) {
        g_engineRunningFlag = 1;
        *counter = 0;
    } else if (g_engineRunningFlag == 1 && rpm <= 99) {
        g_engineRunningFlag = 0;
        *counter = 0;
    }
    int level = 0;
    if (g_engineRunningFlag == 1 && rpm > 100) {
        const int16_t low = system24 ? thr->lowVolt24 : thr->lowVolt12;
        const int16_t charge = system24 ? thr->chargeVolt24 : thr->chargeVolt12;
        if (centi < low)
            level = 1;
        else if (centi < charge)
            level = 3;
    } else {
        // Engine-off limits are whole volts (defaults 23 / 11), compared with the whole-volt
        // reading: the defaults only make sense so, and the record's values stay as they are.
        const int16_t off = system24 ? thr->engineOffVolt24 : thr->engineOffVolt12;
        if (volts < off) level = 2;
    }
    *counter = level != 0 ? Inc(*counter) : int16_t{0};
    if (*counter > 120) {
        *counter = 120;
        return level;
    }
    return 0;
}

int AlgorithmObdAlarm(tagGdsCollDataList* coll, const GDS_ALARM_THRESOLD_tag_* thr,
                      _ObdAlarmCounter_t* counter) {
    if (coll == nullptr || thr == nullptr || counter == nullptr) return -1;
    const _OBD_DataTable_t* obd = &coll->obdData;
    Alarm_Info_t& out = coll->alarmInfo;
    SpeedRing& ring = coll->speedRing;

    ring.writeIndex = Advance(ring.writeIndex, GDS_SPEED_RING_SIZE);
    const int32_t s = IntValue(obd, OBD_IDX_SPEED);
    ring.speed[ring.writeIndex] = s;
    ring.readIndex = Advance(ring.readIndex, GDS_SPEED_RING_SIZE);
    const int32_t p = ring.speed[ring.readIndex];

    if (counter->accHold != 0)
        counter->accHold = static_cast<uint8_t>(counter->accHold - 1);
    else
        out.speedAccDec = 0;

    uint8_t level = 0;
    if (p > 0 && s > p) {
        int lower = 0;
        if (s >= 30 && s <= 49)
            lower = 15;
        else if (s >= 50 && s <= 89)
            lower = 30;
        else if (s >= 90 && s <= 119)
            lower = 40;
        else if (s >= 120)
            lower = 45;
        const int l1 = static_cast<uint16_t>(thr->speedAccLevel1 - lower);
        const int l2 = static_cast<uint16_t>(thr->speedAccLevel2 - lower);
        const int l3 = static_cast<uint16_t>(thr->speedAccLevel3 - lower);
        const int a = SpeedDelta(p, s);
        if (l1 <= a && a < l2)
            level = 8;
        else if (l2 <= a && a < l3)
            level = 16;
        else if (a >= l3)
            level = 32;
    } else if (p > 20 && s > 0 && s < p) {
        const int d = SpeedDelta(s, p);
        if (thr->speedDecLevel1 <= d && d < thr->speedDecLevel2)
            level = 1;
        else if (thr->speedDecLevel2 <= d && d < thr->speedDecLevel3)
            level = 2;
        else if (d >= thr->speedDecLevel3)
            level = 4;
    }
    if (level != 0) {
        out.speedAccDec = level;
        counter->accHold = 3;
    }

    if (IntValue(obd, OBD_IDX_ENGINE_SPEED) > 1800) {
        if (counter->highRpmHold > 3) {
            counter->highRpmHold = 3;
            out.highRpmHold = 1;
        } else {
            counter->highRpmHold = Inc(counter->highRpmHold);
        }
    } else if (counter->highRpmHold == 0) {
        out.highRpmHold = 0;
    } else {
        counter->highRpmHold = static_cast<uint8_t>(counter->highRpmHold - 1);
    }

    if (IntValue(obd, OBD_IDX_BRAKE) > 0) {
        out.brakeHold = 1;
        counter->brakeHold = 3;
    } else if (counter->brakeHold == 0) {
        out.brakeHold = 0;
    } else {
        counter->brakeHold = static_cast<uint8_t>(counter->brakeHold - 1);
    }
    return 0;
}

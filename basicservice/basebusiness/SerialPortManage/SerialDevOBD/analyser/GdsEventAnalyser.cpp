// The four event analysers (one event word each) and the combined motion checks.
#include "GdsInternal.h"

namespace {

uint64_t Flag(int result, int bit) {
    return static_cast<uint64_t>(result != 0 ? 1u : 0u) << bit;
}

// A graded result 1-3 sets the bit of its level; anything else sets nothing.
uint64_t Level(int result, int firstBit) {
    if (result < 1 || result > 3) return 0;
    return uint64_t{1} << (firstBit + result - 1);
}

// Level 1-3 from two judgements given as their level masks (lowest level first); the lower of
// the two wins when both saw something, else the hold decides whether the speed alone counts.
int CombineLevels(uint32_t speedLevel, uint32_t axisLevel, uint32_t m1, uint32_t m2, uint32_t m3,
                  uint8_t hold) {
    const uint32_t any = m1 | m2 | m3;
    if (((speedLevel & m1) != 0 && (axisLevel & any) != 0) ||
        ((axisLevel & m1) != 0 && (speedLevel & any) != 0))
        return 1;
    if (((speedLevel & m2) != 0 && (axisLevel & (m2 | m3)) != 0) ||
        ((axisLevel & m2) != 0 && (speedLevel & (m2 | m3)) != 0))
        return 2;
    if ((speedLevel & m3) != 0 && (axisLevel & m3) != 0) return 3;
    if (hold == 0) return 0;
    return (speedLevel & any) != 0 ? 1 : 0;
}

}  // namespace

int CheckSuddenTurn(const _OBD_DataTable_t* obd, const Alarm_Info_t* alarm) {
    if (obd == nullptr || alarm == nullptr) return 0;
    if (!gds::Present(obd, OBD_IDX_SPEED) || gds::IntValue(obd, OBD_IDX_SPEED) < 30) return 0;
    if ((alarm->sixAxisLevel & 0x40) != 0) return 1;
    if ((alarm->sixAxisLevel & 0x80) != 0) return 2;
    if ((alarm->sixAxisLevel & 0x100) != 0) return 3;
    return 0;
}

int CheckRapidAcceAlarm(const Alarm_Info_t* alarm) {
    if (alarm == nullptr) return 0;
    return CombineLevels(alarm->speedAccDec, alarm->sixAxisLevel, 8, 16, 32, alarm->highRpmHold);
}

int CheckEmergencyDecelerationAlarm(const Alarm_Info_t* alarm) {
    if (alarm == nullptr) return 0;
    return CombineLevels(alarm->speedAccDec, alarm->sixAxisLevel, 1, 2, 4, alarm->brakeHold);
}

void GdsAnalyserEventType1(tagGdsCollDataList* coll, _EventType1Counter_t_* counter,
                           const GDS_ALARM_THRESOLD_tag_* thr) {
    if (coll == nullptr || counter == nullptr || thr == nullptr) return;
    const _OBD_DataTable_t* obd = &coll->obdData;
    uint64_t w = 0;
    w |= Flag(CheckRunningWithBrakeAlarm(obd, &counter->runningWithBrake, &thr->runningWithBrake),
              GDS_E1_RUNNING_WITH_BRAKE);
    w |= Flag(CheckColdStartAlarm(obd, &counter->coldStart, &thr->coldStart), GDS_E1_COLD_START);
    w |= Flag(CheckCoolantTempHighAlarm(obd, &thr->coolantHigh), GDS_E1_COOLANT_HIGH);
    w |= Flag(CheckCoolantTempLowAlarm(obd, &thr->coolantLow), GDS_E1_COOLANT_LOW);
    w |= Flag(
        CheckParkingCloseEngineAlarm(obd, &counter->parkingCloseEngine, &thr->parkingCloseEngine),
        GDS_E1_PARKING_CLOSE_ENGINE);
    w |= Level(CheckBrakeWearAlarm(obd, &counter->brakeWear, &thr->brakeWear), GDS_E1_BRAKE_WEAR);
    w |= Level(CheckClutchWearAlarm(obd, &counter->clutchWear, &thr->clutchWear),
               GDS_E1_CLUTCH_WEAR);
    w |= Flag(CheckHighSpeedStartEngineAlarm(obd, &counter->highSpeedStartEngine,
                                             &thr->highSpeedStartEngine),
              GDS_E1_HIGH_SPEED_START);
    coll->alarmInfo.eventType1Alarms = w;
}

void GdsAnalyserEventType2(tagGdsCollDataList* coll, _EventType2Counter_t_* counter,
                           const GDS_ALARM_THRESOLD_tag_* thr) {
    if (coll == nullptr || counter == nullptr || thr == nullptr) return;
    const _OBD_DataTable_t* obd = &coll->obdData;
    uint64_t w = 0;
    w |= Level(CheckOverRunningAlarm(obd, &counter->overRunning, &thr->revving),
               GDS_E2_OVER_RUNNING);
    w |= Flag(CheckParkingLargeGasAlarm(obd, &counter->parkingLargeGas, &thr->parkingLargeGas),
              GDS_E2_PARKING_LARGE_GAS);
    w |= Flag(CheckLowGearHighSpeedAlarm(obd, &counter->lowGearHighSpeed, &thr->lowGearHighSpeed),
              GDS_E2_LOW_GEAR_HIGH_SPEED);
    w |= Flag(CheckParkingOnClutchTimeoutAlarm(obd, &counter->parkingOnClutch, &thr->parkOnClutch),
              GDS_E2_PARKING_ON_CLUTCH);
    w |= Level(CheckThrottleAlarm(obd, &counter->throttle, &thr->throttle), GDS_E2_THROTTLE);
    w |= Level(CheckIdlingTimeoutAlarm(obd, &counter->idling, &thr->idlingTimeout), GDS_E2_IDLING);
    coll->alarmInfo.eventType2Alarms = w;
}

void GdsAnalyserEventType3(tagGdsCollDataList* coll, _EventType3Counter_t_* counter,
                           const GDS_ALARM_THRESOLD_tag_* thr) {
    if (coll == nullptr || counter == nullptr || thr == nullptr) return;
    const _OBD_DataTable_t* obd = &coll->obdData;
    uint64_t w = 0;
    w |= Level(CheckBatteryVoltAlarm(obd, &counter->batteryVolt, &thr->voltage), GDS_E3_BATTERY);
    w |= Flag(CheckCoolantTempDropAlarm(obd, &counter->coolantTempDrop, &thr->coolantTempDrop),
              GDS_E3_COOLANT_DROP);
    coll->alarmInfo.eventType3Alarms = w;
}

void GdsAnalyserEventType4(tagGdsCollDataList* coll, _EventType4Counter_t_* counter,
                           const GDS_ALARM_THRESOLD_tag_* thr) {
    if (coll == nullptr || counter == nullptr || thr == nullptr) return;
    const _OBD_DataTable_t* obd = &coll->obdData;
    uint64_t w = 0;
    w |= Flag(CheckNeutralGlideAlarm(obd, &counter->neutralGlide, &thr->neutralGlide),
              GDS_E4_NEUTRAL_GLIDE);
    w |= Flag(CheckIntenseTurbAlarm(coll, &counter->intenseTurbulence), GDS_E4_INTENSE_TURB);
    w |= Flag(CheckEngineFlameoutAlarm(obd, &counter->engineFlameout, &thr->engineFlameout),
              GDS_E4_ENGINE_FLAMEOUT);
    w |= Flag(CheckSideTurnAlarm(coll, &counter->sideTurn), GDS_E4_SIDE_TURN);
    w |= Level(CheckSuddenTurn(obd, &coll->alarmInfo), GDS_E4_SUDDEN_TURN);
    w |= Level(CheckRapidAcceAlarm(&coll->alarmInfo), GDS_E4_RAPID_ACCE);
    w |= Level(CheckEmergencyDecelerationAlarm(&coll->alarmInfo), GDS_E4_EMERGENCY_DEC);
    coll->alarmInfo.eventType4Alarms = w;
}

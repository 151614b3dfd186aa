// Driving-behaviour analyser: the records of its state and its exported functions.
//
// Everything lives in one caller-owned tagGdsParam_t. The first 238 bytes (alarm thresholds, then
// statistics thresholds) are copied byte for byte into a bus message, and so are the OBD table and
// the four event words: those parts are an external layout and are pinned by static_asserts below,
// for x86-64 and 32-bit ARM alike (fixed-width fields only, every gap spelled out).
#pragma once

#include <cstddef>
#include <cstdint>

#define GDS_EXPORT __attribute__((visibility("default")))

// ---------------------------------------------------------------------------------------------
// OBD data table
// ---------------------------------------------------------------------------------------------
constexpr int OBD_ITEM_COUNT = 59;

constexpr int OBD_IDX_MILEAGE = 0;
constexpr int OBD_IDX_GROSS = 1;
constexpr int OBD_IDX_MILEAGE2 = 2;
constexpr int OBD_IDX_FUEL = 3;
constexpr int OBD_IDX_ENGINE_SPEED = 6;
constexpr int OBD_IDX_SPEED = 7;
constexpr int OBD_IDX_BATTERY_VOLT = 8;
constexpr int OBD_IDX_COOLANT_TEMP = 9;
constexpr int OBD_IDX_ACCELERATOR = 14;
constexpr int OBD_IDX_CLUTCH = 15;
constexpr int OBD_IDX_BRAKE = 16;
constexpr int OBD_IDX_RUNNING_BRAKE = 17;
constexpr int OBD_IDX_OIL_TEMP = 57;

// id is -1 until the box has sent the item, then the item's own index.
struct OBD_DataItem_t {
    int32_t id;
    float value;
};
struct _OBD_DataTable_t {
    OBD_DataItem_t item[OBD_ITEM_COUNT];
};
static_assert(sizeof(OBD_DataItem_t) == 8, "OBD item");
static_assert(offsetof(OBD_DataItem_t, value) == 4, "OBD item value");
static_assert(sizeof(_OBD_DataTable_t) == 472, "OBD data table");

// One inertial sample: six big-endian s16 values (acc X, Y, Z, rotation rate X, Y, Z).
struct tagSixAxisOrgData {
    uint8_t data[12];
};
static_assert(sizeof(tagSixAxisOrgData) == 12, "six-axis sample");

enum CollectDataType_Eum {
    COLLECT_OBD_DATA = 2,
    COLLECT_GSENSOR_DATA = 3,
    COLLECT_SIX_AXIS_DATA = 4,
};

// ---------------------------------------------------------------------------------------------
// Alarm thresholds (external layout, 190 bytes)
// ---------------------------------------------------------------------------------------------
struct VOLTAG_tag_ {
    int16_t engineOffVolt24;  // whole volts (see CheckBatteryVoltAlarm)
    int16_t engineOffVolt12;  // whole volts
    int16_t lowVolt24;        // hundredths of a volt
    int16_t lowVolt12;
    int16_t chargeVolt24;
    int16_t chargeVolt12;
};
struct IdlingTimeout_tag_ {
    int16_t level1Time;
    int16_t level2Time;
    int16_t level3Time;
    uint8_t reserved[2];
};
struct EngineFlameout_tag_ {
    int16_t continueTime;
    int16_t speed;
    int16_t engineSpeed;
    uint8_t reserved[2];
};
struct NeutralGlide_tag_ {
    int16_t continueTime;
    int16_t speed;
    int16_t engineSpeed;
    uint8_t reserved[2];
};
struct COOLANT_TDMP_tag_ {
    int16_t engineSpeed;
    int16_t speed;
    int16_t temp;
    uint8_t reserved[2];
};
struct CoolantTempDrop_tag_ {
    int16_t dropTime;  // minutes
    int16_t highTemp;
    int16_t lowTemp;
    uint8_t reserved[2];
};
struct REVVING_tag_ {
    int16_t continueTime1;
    int16_t engineSpeed1;
    int16_t continueTime2;
    int16_t engineSpeed2;
    int16_t continueTime3;
    int16_t engineSpeed3;
};
struct TTLE_Level_tag_ {
    uint8_t continueTime;
    uint8_t speed;
    uint8_t throttle;
    uint8_t reserved;
};
struct TTLE_tag_ {
    TTLE_Level_tag_ level[3];
};
struct ParkingLargeGas_tag_ {
    int16_t continueTime;
    int16_t engineSpeed;
};
struct LowGearHighSpeed_tag_ {
    int16_t speed;
    int16_t engineSpeed;
};
struct ParkOnClutch_tag_ {
    uint8_t continueTime;
    uint8_t reserved[3];
};
struct RunningWithBrake_tag_ {
    int16_t continueTime;
    int16_t speed;
};
struct ColdStart_tag_ {
    int16_t engineSpeed;
    int16_t coolantTemp;
};
struct ParkingCloseEngine_tag_ {
    int16_t idleTimeHigh;
    int16_t idleTimeLow;
    int16_t mileageLimit;
};
struct BrakeWear_tag_ {
    int16_t continueTime1;
    int16_t continueTime2;
    int16_t continueTime3;
    int16_t speed1;
    int16_t speed2;
    int16_t speed3;
};
struct ClutchWear_tag_ {
    int16_t continueTime1;
    int16_t continueTime2;
    int16_t continueTime3;
    int16_t speed1;
    int16_t speed2;
    int16_t speed3;
};
struct HighSpeedStartEngine_tag_ {
    int16_t warmUpTime;
};

struct GDS_ALARM_THRESOLD_tag_ {
    int16_t accLevel1;
    int16_t accLevel2;
    int16_t accLevel3;
    uint16_t speedAccLevel1;
    uint16_t speedAccLevel2;
    uint16_t speedAccLevel3;
    int16_t decLevel1;
    int16_t decLevel2;
    int16_t decLevel3;
    int16_t speedDecLevel1;
    int16_t speedDecLevel2;
    int16_t speedDecLevel3;
    int16_t turnLevel1;
    int16_t turnLevel2;
    int16_t turnLevel3;
    uint8_t reserved30[2];
    uint8_t lateralSensitivity;
    uint8_t reserved33[3];
    uint8_t turbulenceSensitivity;
    uint8_t reserved37[3];
    uint8_t reserved40;  // carries a default of 2 that nothing reads
    uint8_t reserved41[3];
    VOLTAG_tag_ voltage;
    IdlingTimeout_tag_ idlingTimeout;
    EngineFlameout_tag_ engineFlameout;
    NeutralGlide_tag_ neutralGlide;
    COOLANT_TDMP_tag_ coolantHigh;
    COOLANT_TDMP_tag_ coolantLow;
    CoolantTempDrop_tag_ coolantTempDrop;
    REVVING_tag_ revving;
    TTLE_tag_ throttle;
    ParkingLargeGas_tag_ parkingLargeGas;
    LowGearHighSpeed_tag_ lowGearHighSpeed;
    ParkOnClutch_tag_ parkOnClutch;
    RunningWithBrake_tag_ runningWithBrake;
    ColdStart_tag_ coldStart;
    ParkingCloseEngine_tag_ parkingCloseEngine;
    BrakeWear_tag_ brakeWear;
    ClutchWear_tag_ clutchWear;
    HighSpeedStartEngine_tag_ highSpeedStartEngine;
    uint8_t reserved180[10];
};

static_assert(sizeof(VOLTAG_tag_) == 12, "VOLTAG");
static_assert(sizeof(IdlingTimeout_tag_) == 8, "IdlingTimeout");
static_assert(sizeof(EngineFlameout_tag_) == 8, "EngineFlameout");
static_assert(sizeof(NeutralGlide_tag_) == 8, "NeutralGlide");
static_assert(sizeof(COOLANT_TDMP_tag_) == 8, "COOLANT_TDMP");
static_assert(sizeof(CoolantTempDrop_tag_) == 8, "CoolantTempDrop");
static_assert(sizeof(REVVING_tag_) == 12, "REVVING");
static_assert(sizeof(TTLE_Level_tag_) == 4 && sizeof(TTLE_tag_) == 12, "TTLE");
static_assert(sizeof(ParkingLargeGas_tag_) == 4, "ParkingLargeGas");
static_assert(sizeof(LowGearHighSpeed_tag_) == 4, "LowGearHighSpeed");
static_assert(sizeof(ParkOnClutch_tag_) == 4, "ParkOnClutch");
static_assert(sizeof(RunningWithBrake_tag_) == 4, "RunningWithBrake");
static_assert(sizeof(ColdStart_tag_) == 4, "ColdStart");
static_assert(sizeof(ParkingCloseEngine_tag_) == 6, "ParkingCloseEngine");
static_assert(sizeof(BrakeWear_tag_) == 12, "BrakeWear");
static_assert(sizeof(ClutchWear_tag_) == 12, "ClutchWear");
static_assert(sizeof(HighSpeedStartEngine_tag_) == 2, "HighSpeedStartEngine");

static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, accLevel1) == 0, "accLevel1");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, accLevel2) == 2, "accLevel2");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, accLevel3) == 4, "accLevel3");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, speedAccLevel1) == 6, "speedAccLevel1");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, speedAccLevel2) == 8, "speedAccLevel2");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, speedAccLevel3) == 10, "speedAccLevel3");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, decLevel1) == 12, "decLevel1");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, decLevel2) == 14, "decLevel2");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, decLevel3) == 16, "decLevel3");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, speedDecLevel1) == 18, "speedDecLevel1");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, speedDecLevel2) == 20, "speedDecLevel2");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, speedDecLevel3) == 22, "speedDecLevel3");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, turnLevel1) == 24, "turnLevel1");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, turnLevel2) == 26, "turnLevel2");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, turnLevel3) == 28, "turnLevel3");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, lateralSensitivity) == 32, "lateralSensitivity");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, turbulenceSensitivity) == 36, "turbulence");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, reserved40) == 40, "byte 40");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, voltage) == 44, "voltage");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, voltage.chargeVolt12) == 54, "chargeVolt12");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, idlingTimeout) == 56, "idlingTimeout");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, engineFlameout) == 64, "engineFlameout");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, neutralGlide) == 72, "neutralGlide");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, coolantHigh) == 80, "coolantHigh");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, coolantLow) == 88, "coolantLow");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, coolantTempDrop) == 96, "coolantTempDrop");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, revving) == 104, "revving");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, throttle) == 116, "throttle");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, throttle.level[2].throttle) == 126, "throttle 3");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, parkingLargeGas) == 128, "parkingLargeGas");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, lowGearHighSpeed) == 132, "lowGearHighSpeed");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, parkOnClutch) == 136, "parkOnClutch");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, runningWithBrake) == 140, "runningWithBrake");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, coldStart) == 144, "coldStart");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, parkingCloseEngine) == 148, "parkingClose");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, brakeWear) == 154, "brakeWear");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, clutchWear) == 166, "clutchWear");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, highSpeedStartEngine) == 178, "highSpeedStart");
static_assert(offsetof(GDS_ALARM_THRESOLD_tag_, reserved180) == 180, "tail");
static_assert(sizeof(GDS_ALARM_THRESOLD_tag_) == 190, "alarm thresholds");

// ---------------------------------------------------------------------------------------------
// Statistics thresholds (external layout, 48 bytes, right after the alarm thresholds)
// ---------------------------------------------------------------------------------------------
struct StatisticsThresold_tag_ {
    int16_t engineSpeedBand[8];
    uint8_t speedBand[5];
    uint8_t acceleratorBand[5];
    uint8_t acceleratorLevel[9];
    uint8_t reserved35[6];  // carries defaults that nothing reads
    uint8_t idleMinuteBand[4];
    uint8_t reserved45[3];
};
static_assert(offsetof(StatisticsThresold_tag_, engineSpeedBand) == 0, "engineSpeedBand");
static_assert(offsetof(StatisticsThresold_tag_, speedBand) == 16, "speedBand");
static_assert(offsetof(StatisticsThresold_tag_, acceleratorBand) == 21, "acceleratorBand");
static_assert(offsetof(StatisticsThresold_tag_, acceleratorLevel) == 26, "acceleratorLevel");
static_assert(offsetof(StatisticsThresold_tag_, reserved35) == 35, "byte 35");
static_assert(offsetof(StatisticsThresold_tag_, idleMinuteBand) == 41, "idleMinuteBand");
static_assert(offsetof(StatisticsThresold_tag_, reserved45) == 45, "tail");
static_assert(sizeof(StatisticsThresold_tag_) == 48, "statistics thresholds");

constexpr size_t GDS_THRESHOLD_BYTES = 238;

// ---------------------------------------------------------------------------------------------
// Six-axis calibration and counters
// ---------------------------------------------------------------------------------------------
constexpr uint32_t GDS_PROOFREAD_SAMPLES = 20;

struct tagGds6AxisProofread {
    uint32_t state;  // 1 while collecting
    uint32_t count;  // samples collected, 0-20
    int16_t offset[6];
    int16_t* buffer;  // 20 x 6 s16 while collecting, else null
};

struct _EventType1Counter_t_ {
    uint8_t runningWithBrake;
    uint8_t coldStart;
    uint8_t parkingCloseEngine;
    uint8_t brakeWear;
    uint8_t clutchWear;
    uint8_t highSpeedStartEngine;
};
struct _ObdAlarmCounter_t {
    uint8_t accHold;
    uint8_t highRpmHold;
    uint8_t brakeHold;
};
struct _SixAxisCounter_t {
    uint16_t lateralHold;
    uint16_t levelHold;
};
struct _EventType2Counter_t_ {
    uint8_t overRunning;
    uint8_t parkingLargeGas;
    uint8_t parkingOnClutch;
    uint8_t throttle;
    int16_t lowGearHighSpeed;
    int16_t idling;  // idling seconds; the economy statistics read it
};
struct _EventType3Counter_t_ {
    int16_t batteryVolt;
    int16_t coolantTempDrop;
};
struct _EventType4Counter_t_ {
    uint8_t neutralGlide;
    uint8_t intenseTurbulence;
    uint8_t engineFlameout;
    uint8_t sideTurn;
};

// ---------------------------------------------------------------------------------------------
// Results and statistics
// ---------------------------------------------------------------------------------------------
// Event word bits (a graded alarm takes three bits, level 1 lowest).
constexpr int GDS_E1_RUNNING_WITH_BRAKE = 2;
constexpr int GDS_E1_COLD_START = 3;
constexpr int GDS_E1_COOLANT_HIGH = 4;
constexpr int GDS_E1_COOLANT_LOW = 5;
constexpr int GDS_E1_PARKING_CLOSE_ENGINE = 7;
constexpr int GDS_E1_BRAKE_WEAR = 8;
constexpr int GDS_E1_CLUTCH_WEAR = 11;
constexpr int GDS_E1_HIGH_SPEED_START = 14;
constexpr int GDS_E2_OVER_RUNNING = 0;
constexpr int GDS_E2_PARKING_LARGE_GAS = 3;
constexpr int GDS_E2_LOW_GEAR_HIGH_SPEED = 4;
constexpr int GDS_E2_PARKING_ON_CLUTCH = 6;
constexpr int GDS_E2_THROTTLE = 7;
constexpr int GDS_E2_IDLING = 10;
constexpr int GDS_E3_BATTERY = 0;
constexpr int GDS_E3_COOLANT_DROP = 6;
constexpr int GDS_E4_NEUTRAL_GLIDE = 0;
constexpr int GDS_E4_INTENSE_TURB = 1;
constexpr int GDS_E4_ENGINE_FLAMEOUT = 3;
constexpr int GDS_E4_SIDE_TURN = 4;
constexpr int GDS_E4_SUDDEN_TURN = 5;
constexpr int GDS_E4_RAPID_ACCE = 8;
constexpr int GDS_E4_EMERGENCY_DEC = 11;

struct Alarm_Info_t {
    uint64_t eventType1Alarms;
    uint64_t eventType2Alarms;
    uint64_t eventType3Alarms;
    uint64_t eventType4Alarms;
    uint8_t speedAccDec;    // acc 8/16/32, dec 1/2/4
    uint8_t highRpmHold;    // 1 while above 1800 rpm
    uint8_t brakeHold;      // 1 while braking or within 3 s after
    uint32_t sixAxisLevel;  // acc 8/16/32, dec 1/2/4, turn 0x40/0x80/0x100
};
static_assert(offsetof(Alarm_Info_t, eventType1Alarms) == 0, "event word 1");
static_assert(offsetof(Alarm_Info_t, eventType2Alarms) == 8, "event word 2");
static_assert(offsetof(Alarm_Info_t, eventType3Alarms) == 16, "event word 3");
static_assert(offsetof(Alarm_Info_t, eventType4Alarms) == 24, "event word 4");
static_assert(offsetof(Alarm_Info_t, speedAccDec) == 32, "speedAccDec");
static_assert(offsetof(Alarm_Info_t, highRpmHold) == 33, "highRpmHold");
static_assert(offsetof(Alarm_Info_t, brakeHold) == 34, "brakeHold");
static_assert(offsetof(Alarm_Info_t, sixAxisLevel) == 36, "sixAxisLevel");
static_assert(sizeof(Alarm_Info_t) == 40, "alarm info");

struct BaseStatisticsData_t_ {
    uint32_t runTime;
    uint32_t driveTime;
    uint32_t idleTime;
    float idleFuel;
    float driveFuel;
    float fuel2;
    float fuel1;
    float mileage2;
    float mileage1;
    uint32_t brakeCount;
    float idleAlarmFuel;
};
static_assert(sizeof(BaseStatisticsData_t_) == 44, "base statistics");
static_assert(offsetof(BaseStatisticsData_t_, mileage1) == 32, "mileage1");
static_assert(offsetof(BaseStatisticsData_t_, idleAlarmFuel) == 40, "idleAlarmFuel");

struct BandStat_t_ {
    uint32_t seconds;
    float fuel;
};
struct DrivingBehavior_t_ {
    BandStat_t_ speedBandStat[5];
    BandStat_t_ engineSpeedBandStat[8];
    BandStat_t_ acceleratorBandStat[5];
    uint16_t acceleratorLevelTime[9];
};
static_assert(offsetof(DrivingBehavior_t_, engineSpeedBandStat) == 40, "rpm bands");
static_assert(offsetof(DrivingBehavior_t_, acceleratorBandStat) == 104, "accelerator bands");
static_assert(offsetof(DrivingBehavior_t_, acceleratorLevelTime) == 144, "accelerator levels");
static_assert(sizeof(DrivingBehavior_t_) == 164, "driving behaviour");

struct GdsStatisticsData_t_ {
    BaseStatisticsData_t_ base;
    DrivingBehavior_t_ driving;
};
static_assert(offsetof(GdsStatisticsData_t_, driving) == 44, "driving after base");
static_assert(sizeof(GdsStatisticsData_t_) == 208, "statistics");

struct EconomyStatisticsData_t_ {
    uint16_t idleOverTime[4];
};
static_assert(sizeof(EconomyStatisticsData_t_) == 8, "economy statistics");

// ---------------------------------------------------------------------------------------------
// Collected data and the whole state
// ---------------------------------------------------------------------------------------------
constexpr int GDS_SPEED_RING_SIZE = 5;
constexpr int GDS_AXIS_RING_SIZE = 10;

struct SpeedRing {
    uint16_t writeIndex;
    uint16_t readIndex;
    int32_t speed[GDS_SPEED_RING_SIZE];
};
struct AxisRing {
    uint16_t writeIndex;
    uint16_t readIndex;
    int16_t value[GDS_AXIS_RING_SIZE];
};
static_assert(sizeof(SpeedRing) == 24 && sizeof(AxisRing) == 24, "rings");

enum GdsAxisRing_Eum {
    AXIS_RING_LONGITUDINAL = 0,
    AXIS_RING_LATERAL = 1,
    AXIS_RING_VERTICAL = 2,
    AXIS_RING_LATERAL_LOAD = 3,
    AXIS_RING_COUNT = 4,
};

// sixAxisState bits
constexpr uint32_t SIX_AXIS_STATE_DEC = 0x1;
constexpr uint32_t SIX_AXIS_STATE_ACC = 0x2;
constexpr uint32_t SIX_AXIS_STATE_LATERAL_POS = 0x4;
constexpr uint32_t SIX_AXIS_STATE_LATERAL_NEG = 0x8;
constexpr uint32_t SIX_AXIS_STATE_STRONG_POS = 0x1000;
constexpr uint32_t SIX_AXIS_STATE_STRONG_NEG = 0x2000;
constexpr uint32_t SIX_AXIS_STATE_TURBULENCE = 0x4000;

struct tagGdsCollDataList {
    _OBD_DataTable_t obdData;      // latest sample
    tagSixAxisOrgData sixAxisOrg;  // latest raw inertial sample
    Alarm_Info_t alarmInfo;
    GdsStatisticsData_t_ statistics;
    EconomyStatisticsData_t_ economy;
    SpeedRing speedRing;
    AxisRing axisRing[AXIS_RING_COUNT];
    uint32_t sixAxisState;
};

struct tagGdsParam_t {
    GDS_ALARM_THRESOLD_tag_ alarmThreshold;
    StatisticsThresold_tag_ statThreshold;
    tagGds6AxisProofread proofread;
    _EventType1Counter_t_ event1Counter;
    _ObdAlarmCounter_t obdAlarmCounter;
    _SixAxisCounter_t sixAxisCounter;
    _EventType2Counter_t_ event2Counter;
    _EventType3Counter_t_ event3Counter;
    _EventType4Counter_t_ event4Counter;
    tagGdsCollDataList collData;
};
static_assert(offsetof(tagGdsParam_t, alarmThreshold) == 0, "thresholds open the state");
static_assert(offsetof(tagGdsParam_t, statThreshold) == 190, "statistics thresholds");
static_assert(offsetof(tagGdsParam_t, proofread) >= GDS_THRESHOLD_BYTES, "238 bytes");

// ---------------------------------------------------------------------------------------------
// Interface. The Gds_IF_* calls serialise on one process-wide lock; the named checks below are
// building blocks called inside it (a direct caller must serialise them itself).
// ---------------------------------------------------------------------------------------------
GDS_EXPORT int Gds_IF_InitLogicAnalyser(tagGdsParam_t* gds);
GDS_EXPORT int Gds_IF_UpdateCollectData(CollectDataType_Eum kind, void* data, tagGdsParam_t* gds);
GDS_EXPORT void Gds_IF_AnalyserData(tagGdsParam_t* gds);
GDS_EXPORT int Gds_IF_StatisticsData(const _OBD_DataTable_t* cur, const _OBD_DataTable_t* prev,
                                     Alarm_Info_t* alarm, GdsStatisticsData_t_* stat,
                                     const StatisticsThresold_tag_* thr);
// Starts a six-axis calibration over the next 20 samples (the 21st completes it). -1 on null.
GDS_EXPORT int Gds_IF_StartSixAxisProofread(tagGdsParam_t* gds);
// Frees what the state still holds (a calibration buffer); the owner calls it before the record
// dies. Safe to call more than once. -1 on null.
GDS_EXPORT int Gds_IF_ReleaseLogicAnalyser(tagGdsParam_t* gds);
// Copies the trip statistics out under the lock; economy may be null. -1 on null gds or stat.
GDS_EXPORT int Gds_IF_GetStatistics(tagGdsParam_t* gds, GdsStatisticsData_t_* stat,
                                    EconomyStatisticsData_t_* economy);

// OBD-data checks: 0 for no alarm, 1 or a level 1-3.
GDS_EXPORT int CheckRunningWithBrakeAlarm(const _OBD_DataTable_t* obd, uint8_t* counter,
                                          const RunningWithBrake_tag_* thr);
GDS_EXPORT int CheckColdStartAlarm(const _OBD_DataTable_t* obd, uint8_t* counter,
                                   const ColdStart_tag_* thr);
GDS_EXPORT int CheckCoolantTempHighAlarm(const _OBD_DataTable_t* obd, const COOLANT_TDMP_tag_* thr);
GDS_EXPORT int CheckCoolantTempLowAlarm(const _OBD_DataTable_t* obd, const COOLANT_TDMP_tag_* thr);
GDS_EXPORT int CheckParkingCloseEngineAlarm(const _OBD_DataTable_t* obd, uint8_t* counter,
                                            const ParkingCloseEngine_tag_* thr);
GDS_EXPORT int CheckBrakeWearAlarm(const _OBD_DataTable_t* obd, uint8_t* counter,
                                   const BrakeWear_tag_* thr);
GDS_EXPORT int CheckClutchWearAlarm(const _OBD_DataTable_t* obd, uint8_t* counter,
                                    const ClutchWear_tag_* thr);
GDS_EXPORT int CheckHighSpeedStartEngineAlarm(const _OBD_DataTable_t* obd, uint8_t* counter,
                                              const HighSpeedStartEngine_tag_* thr);
GDS_EXPORT int CheckOverRunningAlarm(const _OBD_DataTable_t* obd, uint8_t* counter,
                                     const REVVING_tag_* thr);
GDS_EXPORT int CheckParkingLargeGasAlarm(const _OBD_DataTable_t* obd, uint8_t* counter,
                                         const ParkingLargeGas_tag_* thr);
GDS_EXPORT int CheckLowGearHighSpeedAlarm(const _OBD_DataTable_t* obd, int16_t* counter,
                                          const LowGearHighSpeed_tag_* thr);
GDS_EXPORT int CheckParkingOnClutchTimeoutAlarm(const _OBD_DataTable_t* obd, uint8_t* counter,
                                                const ParkOnClutch_tag_* thr);
GDS_EXPORT int CheckThrottleAlarm(const _OBD_DataTable_t* obd, uint8_t* counter,
                                  const TTLE_tag_* thr);
GDS_EXPORT int CheckIdlingTimeoutAlarm(const _OBD_DataTable_t* obd, int16_t* counter,
                                       const IdlingTimeout_tag_* thr);
GDS_EXPORT int CheckBatteryVoltAlarm(const _OBD_DataTable_t* obd, int16_t* counter,
                                     const VOLTAG_tag_* thr);
GDS_EXPORT int CheckCoolantTempDropAlarm(const _OBD_DataTable_t* obd, int16_t* counter,
                                         const CoolantTempDrop_tag_* thr);
GDS_EXPORT int CheckNeutralGlideAlarm(const _OBD_DataTable_t* obd, uint8_t* counter,
                                      const NeutralGlide_tag_* thr);
GDS_EXPORT int CheckEngineFlameoutAlarm(const _OBD_DataTable_t* obd, uint8_t* counter,
                                        const EngineFlameout_tag_* thr);
GDS_EXPORT int AlgorithmObdAlarm(tagGdsCollDataList* coll, const GDS_ALARM_THRESOLD_tag_* thr,
                                 _ObdAlarmCounter_t* counter);

// Six-axis processing.
GDS_EXPORT int ProofreadSixAxisData(const tagSixAxisOrgData* sample, tagGds6AxisProofread* pr);
GDS_EXPORT int FillSixAxisDataToBuffer(const tagSixAxisOrgData* sample, tagGdsParam_t* gds);
GDS_EXPORT int CalculateRMSEC(const int16_t* values, int n);
GDS_EXPORT int Algorithm6AxisData(tagGdsCollDataList* coll, const GDS_ALARM_THRESOLD_tag_* thr,
                                  _SixAxisCounter_t* counter);
GDS_EXPORT int CheckIntenseTurbAlarm(const tagGdsCollDataList* coll, uint8_t* counter);
GDS_EXPORT int CheckSideTurnAlarm(const tagGdsCollDataList* coll, uint8_t* counter);

// Event analysers and motion checks.
GDS_EXPORT void GdsAnalyserEventType1(tagGdsCollDataList* coll, _EventType1Counter_t_* counter,
                                      const GDS_ALARM_THRESOLD_tag_* thr);
GDS_EXPORT void GdsAnalyserEventType2(tagGdsCollDataList* coll, _EventType2Counter_t_* counter,
                                      const GDS_ALARM_THRESOLD_tag_* thr);
GDS_EXPORT void GdsAnalyserEventType3(tagGdsCollDataList* coll, _EventType3Counter_t_* counter,
                                      const GDS_ALARM_THRESOLD_tag_* thr);
GDS_EXPORT void GdsAnalyserEventType4(tagGdsCollDataList* coll, _EventType4Counter_t_* counter,
                                      const GDS_ALARM_THRESOLD_tag_* thr);
GDS_EXPORT int CheckSuddenTurn(const _OBD_DataTable_t* obd, const Alarm_Info_t* alarm);
GDS_EXPORT int CheckRapidAcceAlarm(const Alarm_Info_t* alarm);
GDS_EXPORT int CheckEmergencyDecelerationAlarm(const Alarm_Info_t* alarm);

// Trip statistics: per sample ...
GDS_EXPORT int GdsStatisticsBaseData(const _OBD_DataTable_t* cur, const _OBD_DataTable_t* prev,
                                     const Alarm_Info_t* alarm, BaseStatisticsData_t_* base);
GDS_EXPORT void GdsStatisticsDrivingData(const _OBD_DataTable_t* cur, const _OBD_DataTable_t* prev,
                                         DrivingBehavior_t_* drv,
                                         const StatisticsThresold_tag_* thr);
GDS_EXPORT void StatisticsMileage(const _OBD_DataTable_t* cur, const _OBD_DataTable_t* prev,
                                  float* mileage1, float* mileage2);
GDS_EXPORT void StatisticsFule(const _OBD_DataTable_t* cur, const _OBD_DataTable_t* prev,
                               float* fuel1, float* fuel2);
GDS_EXPORT void StatisticsIdlingFule(const _OBD_DataTable_t* cur, const _OBD_DataTable_t* prev,
                                     float* idleFuel);
GDS_EXPORT void StatisticsSteerFule(const _OBD_DataTable_t* cur, const _OBD_DataTable_t* prev,
                                    float* driveFuel);
GDS_EXPORT void StatisticsBrake(const _OBD_DataTable_t* cur, const _OBD_DataTable_t* prev,
                                uint32_t* brakeCount);
GDS_EXPORT void StatisticsIdlingAlarmFule(const _OBD_DataTable_t* cur, const _OBD_DataTable_t* prev,
                                          const Alarm_Info_t* alarm, float* idleAlarmFuel);
// ... and per second.
GDS_EXPORT void GdsStatisticsBaseDataTime(const _OBD_DataTable_t* obd, BaseStatisticsData_t_* base);
GDS_EXPORT void GdsStatisticsDrivingDataTime(const _OBD_DataTable_t* obd, DrivingBehavior_t_* drv,
                                             const StatisticsThresold_tag_* thr);
GDS_EXPORT void GdsStatisticsEconomyDataTime(const _OBD_DataTable_t* obd,
                                             EconomyStatisticsData_t_* eco, int idleCounter,
                                             const StatisticsThresold_tag_* thr);

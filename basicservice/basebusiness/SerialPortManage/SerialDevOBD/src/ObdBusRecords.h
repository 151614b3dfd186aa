// Payloads of the plug-in's periodic broadcasts, as the recorder's other services read them.
//
// Every record here is a bus format: little-endian, fixed size, no padding the compiler could
// choose. The layout checks below run on every target the library is built for (armhf too), so a
// field that moves fails the build rather than a receiver in the field.
#pragma once

#include <cstddef>
#include <cstdint>

#include "../analyser/GdsLogicAnalyser.h"
#include "ObdTypes.h"

// MSG_OBD_ORIGINAL_DATA: the analyser's current table, then room the receivers expect.
struct ObdOriginalDataMsg_t {
    _OBD_DataTable_t table;
    uint8_t reserved[32];
};
static_assert(sizeof(ObdOriginalDataMsg_t) == 504, "OBD data message");
static_assert(offsetof(ObdOriginalDataMsg_t, reserved) == 472, "OBD data message");

// One change record in the black-box buffer: time, count n, then n item words and 16 zero bytes.
// An item word holds the item's id in bits 0-7 and its value x 100 (low 24 bits) in bits 8-31.
struct BlackboxRecordHead_t {
    uint8_t time[6];  // the leading six bytes of the host's _datetime_
    uint8_t reserved[2];
    uint32_t count;
};
static_assert(sizeof(BlackboxRecordHead_t) == 12, "black-box record head");
static_assert(offsetof(BlackboxRecordHead_t, count) == 8, "black-box record head");
constexpr uint32_t BLACKBOX_RECORD_TAIL = 16;
constexpr uint32_t BlackboxRecordSize(uint32_t items) {
    return static_cast<uint32_t>(sizeof(BlackboxRecordHead_t)) + 4 * items + BLACKBOX_RECORD_TAIL;
}
static_assert(BlackboxRecordSize(3) == 40, "a three-item record");
static_assert(BlackboxRecordSize(OBD_ITEM_COUNT) == 264, "the largest record");

// MSG_BLACKBOX_OBD_DATA opens with this head; the records follow and 12 zero bytes close it.
struct BlackboxMsgHead_t {
    uint16_t recordCount;
    uint8_t reserved[10];
};
static_assert(sizeof(BlackboxMsgHead_t) == 12, "black-box message head");
constexpr uint32_t BLACKBOX_MSG_TAIL = 12;

// Details of an alarm that has just ended.
struct AlarmOverData {
    uint16_t continueTime;  // host clock difference / 1000 (ms on a microsecond clock), 16 bits
    uint16_t threshold;
    int16_t maxValue;  // the item's value when the alarm began
    uint8_t reserved[26];
};
static_assert(sizeof(AlarmOverData) == 32, "alarm detail record");
static_assert(offsetof(AlarmOverData, threshold) == 2, "alarm detail record");
static_assert(offsetof(AlarmOverData, maxValue) == 4, "alarm detail record");

struct CurveAlarmData {
    uint16_t threshold;
    int16_t maxValue;
    uint8_t reserved[4];
};
static_assert(sizeof(CurveAlarmData) == 8, "curve alarm record");
static_assert(offsetof(CurveAlarmData, maxValue) == 2, "curve alarm record");

// MSG_GDS_ALARM: the four event words every second; a detail record only in the broadcast in
// which its alarm ended.
struct GdsAlarmMsg_t {
    uint64_t eventType1Alarms;
    uint64_t eventType2Alarms;
    uint64_t eventType3Alarms;
    uint64_t eventType4Alarms;
    uint8_t reserved1[48];
    AlarmOverData neutralGlide;
    AlarmOverData idling;
    AlarmOverData overspeed;
    CurveAlarmData curve;
    uint8_t reserved2[24];
};
static_assert(sizeof(GdsAlarmMsg_t) == 208, "alarm message");
static_assert(offsetof(GdsAlarmMsg_t, eventType2Alarms) == 8, "alarm message");
static_assert(offsetof(GdsAlarmMsg_t, eventType4Alarms) == 24, "alarm message");
static_assert(offsetof(GdsAlarmMsg_t, neutralGlide) == 80, "alarm message");
static_assert(offsetof(GdsAlarmMsg_t, idling) == 112, "alarm message");
static_assert(offsetof(GdsAlarmMsg_t, overspeed) == 144, "alarm message");
static_assert(offsetof(GdsAlarmMsg_t, curve) == 176, "alarm message");
static_assert(offsetof(GdsAlarmMsg_t, reserved2) == 184, "alarm message");

// MSG_CAN_BOX_DATA: the vehicle summary of CAN-box mode.
struct CanBoxData_t {
    uint8_t kind;     // 0
    uint8_t version;  // 1
    uint16_t reserved;
    uint32_t speed;              // km/h x 100
    uint32_t engineSpeed;        // rpm x 100
    uint32_t totalMileageValue;  // x 100
    uint32_t engineTimeValue;    // engine-time counter / 36000
};
static_assert(sizeof(CanBoxData_t) == 20, "CAN-box summary");
static_assert(offsetof(CanBoxData_t, speed) == 4, "CAN-box summary");
static_assert(offsetof(CanBoxData_t, engineSpeed) == 8, "CAN-box summary");
static_assert(offsetof(CanBoxData_t, totalMileageValue) == 12, "CAN-box summary");
static_assert(offsetof(CanBoxData_t, engineTimeValue) == 16, "CAN-box summary");

// Event-word bits the alarm broadcast follows.
constexpr uint64_t ALARM_BIT_NEUTRAL_GLIDE = 1ull << 0;  // eventType4Alarms
constexpr uint64_t ALARM_BITS_IDLING = 7ull << 10;       // eventType2Alarms, levels 1-3
constexpr uint64_t ALARM_BITS_OVERSPEED = 7ull << 0;     // eventType2Alarms, levels 1-3
constexpr uint64_t ALARM_BITS_SUDDEN_TURN = 7ull << 5;   // eventType4Alarms, levels 1-3
constexpr uint16_t CURVE_ALARM_THRESHOLD = 30;

// Change-mask bit: OBD data arrived after silence.
constexpr uint32_t OBD_DATA_CHANGED_BIT = 0x20;

#include "ObdNames.h"

#include <array>

#include "GdsItemNames.h"
#include "GdsLogicAnalyser.h"

namespace obdsim {
namespace {

static_assert(kItemCount == OBD_ITEM_COUNT, "one name per table item");

const std::array<std::string, kItemCount>& Names() {
    static const std::array<std::string, kItemCount> names = [] {
        std::array<std::string, kItemCount> n;
        // The shared names of the interpreted items; the others by their index.
        for (int i = 0; i < kItemCount; ++i) {
            const char* shared = kGdsItemNames[i].name;
            n[i] = shared != nullptr ? shared : "item_" + std::to_string(i);
        }
        return n;
    }();
    return names;
}

constexpr AlarmDef kAlarms[kAlarmCount] = {
    {1, GDS_E1_RUNNING_WITH_BRAKE, false, "running_with_brake", "running with brake"},
    {1, GDS_E1_COLD_START, false, "cold_start", "cold start"},
    {1, GDS_E1_COOLANT_HIGH, false, "coolant_high", "coolant temperature high"},
    {1, GDS_E1_COOLANT_LOW, false, "coolant_low", "coolant temperature low"},
    {1, GDS_E1_PARKING_CLOSE_ENGINE, false, "parking_close_engine", "parking close engine"},
    {1, GDS_E1_BRAKE_WEAR, true, "brake_wear", "brake wear"},
    {1, GDS_E1_CLUTCH_WEAR, true, "clutch_wear", "clutch wear"},
    {1, GDS_E1_HIGH_SPEED_START, false, "high_speed_start", "high-speed start engine"},
    {2, GDS_E2_OVER_RUNNING, true, "over_running", "engine over-running"},
    {2, GDS_E2_PARKING_LARGE_GAS, false, "parking_large_gas", "parking with large gas"},
    {2, GDS_E2_LOW_GEAR_HIGH_SPEED, false, "low_gear_high_speed", "low gear, high speed"},
    {2, GDS_E2_PARKING_ON_CLUTCH, false, "parking_on_clutch", "parking on clutch timeout"},
    {2, GDS_E2_THROTTLE, true, "throttle", "throttle"},
    {2, GDS_E2_IDLING, true, "idling_timeout", "idling timeout"},
    {3, GDS_E3_BATTERY, true, "battery_voltage", "battery voltage"},
    {3, GDS_E3_COOLANT_DROP, false, "coolant_drop", "coolant temperature drop"},
    {4, GDS_E4_NEUTRAL_GLIDE, false, "neutral_glide", "neutral glide"},
    {4, GDS_E4_INTENSE_TURB, false, "intense_turbulence", "intense turbulence"},
    {4, GDS_E4_ENGINE_FLAMEOUT, false, "engine_flameout", "engine flameout"},
    {4, GDS_E4_SIDE_TURN, false, "side_turn", "side turn"},
    {4, GDS_E4_SUDDEN_TURN, true, "sudden_turn", "sudden turn"},
    {4, GDS_E4_RAPID_ACCE, true, "rapid_acceleration", "rapid acceleration"},
    {4, GDS_E4_EMERGENCY_DEC, true, "emergency_deceleration", "emergency deceleration"},
};

}  // namespace

const char* ItemName(int index) {
    return index >= 0 && index < kItemCount ? Names()[static_cast<size_t>(index)].c_str() : nullptr;
}

int ItemIndex(const std::string& name) {
    for (int i = 0; i < kItemCount; ++i) {
        if (Names()[static_cast<size_t>(i)] == name) return i;
    }
    return -1;
}

bool ItemIsState(int index) {
    return index == OBD_IDX_CLUTCH || index == OBD_IDX_BRAKE || index == OBD_IDX_RUNNING_BRAKE;
}

const AlarmDef& Alarm(int i) {
    return kAlarms[i];
}

int AlarmIndex(const std::string& key) {
    for (int i = 0; i < kAlarmCount; ++i) {
        if (key == kAlarms[i].key) return i;
    }
    return -1;
}

int AlarmLevel(int i, const uint64_t words[4]) {
    const AlarmDef& a = kAlarms[i];
    const uint64_t w = words[a.word - 1] >> a.bit;
    if (!a.graded) return (w & 1u) != 0 ? 1 : 0;
    // The highest level set: a word never holds two levels of one alarm, but if it did the
    // stronger one is what a driver would be told.
    if ((w & 4u) != 0) return 3;
    if ((w & 2u) != 0) return 2;
    return (w & 1u) != 0 ? 1 : 0;
}

}  // namespace obdsim

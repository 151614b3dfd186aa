#include "Thresholds.h"

#include <cmath>
#include <fstream>
#include <limits>
#include <set>
#include <sstream>
#include <type_traits>
#include <utility>

#include "GdsLogicAnalyser.h"

namespace obdsim {
namespace {

static_assert(sizeof(GDS_ALARM_THRESOLD_tag_) + sizeof(StatisticsThresold_tag_) == kThresholdBytes,
              "the threshold record is 238 bytes");
static_assert(offsetof(tagGdsParam_t, statThreshold) == sizeof(GDS_ALARM_THRESOLD_tag_),
              "the statistics thresholds follow the alarm thresholds");
constexpr size_t kStatAt = sizeof(GDS_ALARM_THRESOLD_tag_);

// Two records of one shape at two places in the threshold record.
struct Sub {
    const char* name;
    size_t at;
};

template <typename T>
void Add(std::vector<ThresholdField>& out, std::string name, size_t offset) {
    static_assert(std::is_integral<T>::value && sizeof(T) <= 2, "integer fields only");
    out.push_back({std::move(name), offset, sizeof(T), std::is_signed<T>::value});
}

// One entry per element: "name[i]".
template <typename T>
void AddArray(std::vector<ThresholdField>& out, const std::string& name, size_t offset) {
    using E = std::remove_all_extents_t<T>;
    for (size_t i = 0; i < std::extent<T>::value; ++i) {
        Add<E>(out, name + "[" + std::to_string(i) + "]", offset + i * sizeof(E));
    }
}

template <typename M>
using Plain = std::remove_cv_t<std::remove_reference_t<M>>;

#define OBD_ALARM(path)                                                  \
    Add<Plain<decltype(std::declval<GDS_ALARM_THRESOLD_tag_&>().path)>>( \
        f, #path, offsetof(GDS_ALARM_THRESOLD_tag_, path))
#define OBD_ALARM_ARRAY(path)                                                 \
    AddArray<Plain<decltype(std::declval<GDS_ALARM_THRESOLD_tag_&>().path)>>( \
        f, #path, offsetof(GDS_ALARM_THRESOLD_tag_, path))
#define OBD_STAT_ARRAY(path)                                                  \
    AddArray<Plain<decltype(std::declval<StatisticsThresold_tag_&>().path)>>( \
        f, #path, kStatAt + offsetof(StatisticsThresold_tag_, path))

std::vector<ThresholdField> BuildFields() {
    std::vector<ThresholdField> f;
    OBD_ALARM(accLevel1);
    OBD_ALARM(accLevel2);
    OBD_ALARM(accLevel3);
    OBD_ALARM(speedAccLevel1);
    OBD_ALARM(speedAccLevel2);
    OBD_ALARM(speedAccLevel3);
    OBD_ALARM(decLevel1);
    OBD_ALARM(decLevel2);
    OBD_ALARM(decLevel3);
    OBD_ALARM(speedDecLevel1);
    OBD_ALARM(speedDecLevel2);
    OBD_ALARM(speedDecLevel3);
    OBD_ALARM(turnLevel1);
    OBD_ALARM(turnLevel2);
    OBD_ALARM(turnLevel3);
    OBD_ALARM_ARRAY(reserved30);
    OBD_ALARM(lateralSensitivity);
    OBD_ALARM_ARRAY(reserved33);
    OBD_ALARM(turbulenceSensitivity);
    OBD_ALARM_ARRAY(reserved37);
    OBD_ALARM(reserved40);
    OBD_ALARM_ARRAY(reserved41);
    OBD_ALARM(voltage.engineOffVolt24);
    OBD_ALARM(voltage.engineOffVolt12);
    OBD_ALARM(voltage.lowVolt24);
    OBD_ALARM(voltage.lowVolt12);
    OBD_ALARM(voltage.chargeVolt24);
    OBD_ALARM(voltage.chargeVolt12);
    OBD_ALARM(idlingTimeout.level1Time);
    OBD_ALARM(idlingTimeout.level2Time);
    OBD_ALARM(idlingTimeout.level3Time);
    OBD_ALARM_ARRAY(idlingTimeout.reserved);
    for (const Sub& sub : {Sub{"engineFlameout", offsetof(GDS_ALARM_THRESOLD_tag_, engineFlameout)},
                           Sub{"neutralGlide", offsetof(GDS_ALARM_THRESOLD_tag_, neutralGlide)}}) {
        const size_t at = sub.at;
        const std::string s = sub.name;
        Add<int16_t>(f, s + ".continueTime", at + offsetof(EngineFlameout_tag_, continueTime));
        Add<int16_t>(f, s + ".speed", at + offsetof(EngineFlameout_tag_, speed));
        Add<int16_t>(f, s + ".engineSpeed", at + offsetof(EngineFlameout_tag_, engineSpeed));
        AddArray<uint8_t[2]>(f, s + ".reserved", at + offsetof(EngineFlameout_tag_, reserved));
    }
    static_assert(sizeof(EngineFlameout_tag_) == sizeof(NeutralGlide_tag_), "one shape");
    for (const Sub& sub : {Sub{"coolantHigh", offsetof(GDS_ALARM_THRESOLD_tag_, coolantHigh)},
                           Sub{"coolantLow", offsetof(GDS_ALARM_THRESOLD_tag_, coolantLow)}}) {
        const size_t at = sub.at;
        const std::string s = sub.name;
        Add<int16_t>(f, s + ".engineSpeed", at + offsetof(COOLANT_TDMP_tag_, engineSpeed));
        Add<int16_t>(f, s + ".speed", at + offsetof(COOLANT_TDMP_tag_, speed));
        Add<int16_t>(f, s + ".temp", at + offsetof(COOLANT_TDMP_tag_, temp));
        AddArray<uint8_t[2]>(f, s + ".reserved", at + offsetof(COOLANT_TDMP_tag_, reserved));
    }
    OBD_ALARM(coolantTempDrop.dropTime);
    OBD_ALARM(coolantTempDrop.highTemp);
    OBD_ALARM(coolantTempDrop.lowTemp);
    OBD_ALARM_ARRAY(coolantTempDrop.reserved);
    OBD_ALARM(revving.continueTime1);
    OBD_ALARM(revving.engineSpeed1);
    OBD_ALARM(revving.continueTime2);
    OBD_ALARM(revving.engineSpeed2);
    OBD_ALARM(revving.continueTime3);
    OBD_ALARM(revving.engineSpeed3);
    for (size_t i = 0; i < 3; ++i) {
        const size_t at = offsetof(GDS_ALARM_THRESOLD_tag_, throttle) + i * sizeof(TTLE_Level_tag_);
        const std::string s = "throttle.level[" + std::to_string(i) + "]";
        Add<uint8_t>(f, s + ".continueTime", at + offsetof(TTLE_Level_tag_, continueTime));
        Add<uint8_t>(f, s + ".speed", at + offsetof(TTLE_Level_tag_, speed));
        Add<uint8_t>(f, s + ".throttle", at + offsetof(TTLE_Level_tag_, throttle));
        Add<uint8_t>(f, s + ".reserved", at + offsetof(TTLE_Level_tag_, reserved));
    }
    OBD_ALARM(parkingLargeGas.continueTime);
    OBD_ALARM(parkingLargeGas.engineSpeed);
    OBD_ALARM(lowGearHighSpeed.speed);
    OBD_ALARM(lowGearHighSpeed.engineSpeed);
    OBD_ALARM(parkOnClutch.continueTime);
    OBD_ALARM_ARRAY(parkOnClutch.reserved);
    OBD_ALARM(runningWithBrake.continueTime);
    OBD_ALARM(runningWithBrake.speed);
    OBD_ALARM(coldStart.engineSpeed);
    OBD_ALARM(coldStart.coolantTemp);
    OBD_ALARM(parkingCloseEngine.idleTimeHigh);
    OBD_ALARM(parkingCloseEngine.idleTimeLow);
    OBD_ALARM(parkingCloseEngine.mileageLimit);
    for (const Sub& sub : {Sub{"brakeWear", offsetof(GDS_ALARM_THRESOLD_tag_, brakeWear)},
                           Sub{"clutchWear", offsetof(GDS_ALARM_THRESOLD_tag_, clutchWear)}}) {
        const size_t at = sub.at;
        const std::string s = sub.name;
        Add<int16_t>(f, s + ".continueTime1", at + offsetof(BrakeWear_tag_, continueTime1));
        Add<int16_t>(f, s + ".continueTime2", at + offsetof(BrakeWear_tag_, continueTime2));
        Add<int16_t>(f, s + ".continueTime3", at + offsetof(BrakeWear_tag_, continueTime3));
        Add<int16_t>(f, s + ".speed1", at + offsetof(BrakeWear_tag_, speed1));
        Add<int16_t>(f, s + ".speed2", at + offsetof(BrakeWear_tag_, speed2));
        Add<int16_t>(f, s + ".speed3", at + offsetof(BrakeWear_tag_, speed3));
    }
    static_assert(sizeof(BrakeWear_tag_) == sizeof(ClutchWear_tag_), "one shape");
    OBD_ALARM(highSpeedStartEngine.warmUpTime);
    OBD_ALARM_ARRAY(reserved180);
    OBD_STAT_ARRAY(engineSpeedBand);
    OBD_STAT_ARRAY(speedBand);
    OBD_STAT_ARRAY(acceleratorBand);
    OBD_STAT_ARRAY(acceleratorLevel);
    OBD_STAT_ARRAY(reserved35);
    OBD_STAT_ARRAY(idleMinuteBand);
    OBD_STAT_ARRAY(reserved45);
    return f;
}

#undef OBD_ALARM
#undef OBD_ALARM_ARRAY
#undef OBD_STAT_ARRAY

// Every field is one or two bytes (Add's static_assert).
long long Lowest(const ThresholdField& f) {
    if (!f.isSigned) return 0;
    return f.size == 1 ? -128 : -32768;
}
long long Highest(const ThresholdField& f) {
    if (f.isSigned) return f.size == 1 ? 127 : 32767;
    return f.size == 1 ? 255 : 65535;
}

// Nested objects and arrays become the code's own paths: a.b, a[i].
bool Flatten(const Json& j, const std::string& path, std::vector<ThresholdEdit>& edits,
             std::set<std::string>& seen, std::string& error) {
    if (j.is_object()) {
        for (auto it = j.begin(); it != j.end(); ++it) {
            if (!Flatten(it.value(), path.empty() ? it.key() : path + "." + it.key(), edits, seen,
                         error)) {
                return false;
            }
        }
        return true;
    }
    if (j.is_array()) {
        for (size_t i = 0; i < j.size(); ++i) {
            if (!Flatten(j[i], path + "[" + std::to_string(i) + "]", edits, seen, error))
                return false;
        }
        return true;
    }
    const ThresholdField* field = FindThresholdField(path);
    if (field == nullptr) {
        error = "unknown threshold field \"" + path +
                "\" (the fields are named as in the analyser's threshold records, e.g. "
                "revving.engineSpeed1, voltage.chargeVolt12, speedBand[1])";
        return false;
    }
    if (!seen.insert(path).second) {
        error = "threshold field \"" + path + "\" given twice";
        return false;
    }
    long long v = 0;
    if (j.is_number_integer()) {
        v = j.is_number_unsigned() &&
                    j.get<unsigned long long>() >
                        static_cast<unsigned long long>(std::numeric_limits<long long>::max())
                ? std::numeric_limits<long long>::max()
                : j.get<long long>();
    } else if (j.is_number_float() && std::isfinite(j.get<double>()) &&
               std::floor(j.get<double>()) == j.get<double>() &&
               std::fabs(j.get<double>()) < 1e15) {
        v = static_cast<long long>(j.get<double>());
    } else {
        error = "threshold field \"" + path + "\": " + j.dump() + " is not a whole number";
        return false;
    }
    if (v < Lowest(*field) || v > Highest(*field)) {
        error = "threshold field \"" + path + "\": " + std::to_string(v) + " is outside " +
                std::to_string(Lowest(*field)) + ".." + std::to_string(Highest(*field));
        return false;
    }
    edits.push_back({field, v});
    return true;
}

}  // namespace

const std::vector<ThresholdField>& ThresholdFields() {
    static const std::vector<ThresholdField> fields = BuildFields();
    return fields;
}

const ThresholdField* FindThresholdField(const std::string& name) {
    for (const ThresholdField& f : ThresholdFields()) {
        if (f.name == name) return &f;
    }
    return nullptr;
}

bool ParseThresholds(const std::string& text, std::vector<ThresholdEdit>& edits,
                     std::string& error) {
    edits.clear();
    const Json j = Json::parse(text, nullptr, false);
    if (j.is_discarded()) {
        error = "not JSON";
        return false;
    }
    if (!j.is_object()) {
        error = "not a JSON object of threshold fields";
        return false;
    }
    std::set<std::string> seen;
    std::vector<ThresholdEdit> out;
    if (!Flatten(j, "", out, seen, error)) return false;
    edits = std::move(out);
    return true;
}

bool LoadThresholds(const std::string& path, std::vector<ThresholdEdit>& edits,
                    std::string& error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = path + ": cannot read";
        return false;
    }
    std::stringstream text;
    text << in.rdbuf();
    if (!ParseThresholds(text.str(), edits, error)) {
        error = path + ": " + error;
        return false;
    }
    return true;
}

void ApplyThresholds(const std::vector<ThresholdEdit>& edits, uint8_t* record) {
    for (const ThresholdEdit& e : edits) {
        const auto u = static_cast<uint64_t>(e.value);
        for (size_t i = 0; i < e.field->size; ++i) {
            record[e.field->offset + i] = static_cast<uint8_t>(u >> (8 * i));
        }
    }
}

long long ThresholdValue(const ThresholdField& field, const uint8_t* record) {
    uint64_t u = 0;
    for (size_t i = 0; i < field.size; ++i) {
        u |= static_cast<uint64_t>(record[field.offset + i]) << (8 * i);
    }
    const auto v = static_cast<long long>(u);
    return field.isSigned && v > Highest(field) ? v - (Highest(field) + 1) * 2 : v;
}

Json ThresholdsJson(const std::vector<ThresholdEdit>& edits) {
    Json j = Json::object();
    for (const ThresholdEdit& e : edits) j[e.field->name] = e.value;
    return j;
}

}  // namespace obdsim

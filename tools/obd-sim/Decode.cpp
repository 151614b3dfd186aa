#include "Decode.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "ObdBusRecords.h"
#include "ObdNames.h"
#include "ObdTypes.h"

namespace obdsim {
namespace {

template <typename T>
bool Read(const std::vector<unsigned char>& p, size_t offset, T& out) {
    if (offset > p.size() || p.size() - offset < sizeof(T)) return false;
    std::memcpy(&out, p.data() + offset, sizeof(T));
    return true;
}

Json WrongSize(size_t want, size_t got) {
    return Json{
        {"error", "expected " + std::to_string(want) + " bytes, got " + std::to_string(got)}};
}

// A fixed text field: up to its first NUL, never past its end; bytes outside printable ASCII are
// shown as \xNN so that the JSON stays valid whatever the box sent.
std::string Text(const char* field, size_t size) {
    std::string out;
    for (size_t i = 0; i < size && field[i] != '\0'; ++i) {
        const auto c = static_cast<unsigned char>(field[i]);
        if (c >= 0x20 && c < 0x7F && c != '\\') {
            out += static_cast<char>(c);
        } else {
            char esc[8];
            std::snprintf(esc, sizeof(esc), "\\x%02X", c);
            out += esc;
        }
    }
    return out;
}

std::string Hex(const unsigned char* p, size_t n) {
    static const char kDigits[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < n; ++i) {
        s += kDigits[p[i] >> 4];
        s += kDigits[p[i] & 0x0F];
    }
    return s;
}

template <typename T, size_t N>
Json Array(const T (&a)[N]) {
    Json j = Json::array();
    for (const T& v : a) j.push_back(v);
    return j;
}

Json Items(const _OBD_DataTable_t& table) {
    Json items = Json::object();
    for (int i = 0; i < OBD_ITEM_COUNT; ++i) {
        if (table.item[i].id != -1) items[ItemName(i)] = Num(table.item[i].value);
    }
    return items;
}

Json ObdData(const std::vector<unsigned char>& p) {
    ObdOriginalDataMsg_t m;
    if (!Read(p, 0, m) || p.size() != sizeof(m)) return WrongSize(sizeof(m), p.size());
    return Json{{"items", Items(m.table)}};
}

Json AlarmMsg(const std::vector<unsigned char>& p) {
    GdsAlarmMsg_t m;
    if (!Read(p, 0, m) || p.size() != sizeof(m)) return WrongSize(sizeof(m), p.size());
    const uint64_t words[4] = {m.eventType1Alarms, m.eventType2Alarms, m.eventType3Alarms,
                               m.eventType4Alarms};
    Json j;
    j["event_words"] = Array(words);
    Json alarms = Json::array();
    for (int i = 0; i < kAlarmCount; ++i) {
        const int level = AlarmLevel(i, words);
        if (level == 0) continue;
        Json a{{"key", Alarm(i).key}, {"title", Alarm(i).title}};
        if (Alarm(i).graded) a["level"] = level;
        alarms.push_back(a);
    }
    j["alarms"] = alarms;
    // A detail record is all zero except in the broadcast in which its alarm ended.
    auto zero = [](const void* rec, size_t n) {
        const auto* b = static_cast<const unsigned char*>(rec);
        for (size_t i = 0; i < n; ++i) {
            if (b[i] != 0) return false;
        }
        return true;
    };
    Json ended = Json::object();
    const std::pair<const char*, const AlarmOverData*> over[] = {{"neutral_glide", &m.neutralGlide},
                                                                 {"idling_timeout", &m.idling},
                                                                 {"over_running", &m.overspeed}};
    for (const auto& [key, rec] : over) {
        if (zero(rec, sizeof(*rec))) continue;
        ended[key] = {{"continue_time", rec->continueTime},
                      {"threshold", rec->threshold},
                      {"max_value", rec->maxValue}};
    }
    if (!zero(&m.curve, sizeof(m.curve))) {
        ended["sudden_turn"] = {{"threshold", m.curve.threshold}, {"max_value", m.curve.maxValue}};
    }
    j["ended"] = ended;
    return j;
}

Json Thresholds(const unsigned char* raw) {
    GDS_ALARM_THRESOLD_tag_ a;
    StatisticsThresold_tag_ s;
    std::memcpy(&a, raw, sizeof(a));
    std::memcpy(&s, raw + sizeof(a), sizeof(s));
    auto three = [](auto x, auto y, auto z) { return Json::array({x, y, z}); };
    auto pair = [](auto x, auto y, auto z) {
        return Json{{"continue_time", x}, {"speed", y}, {"engine_speed", z}};
    };
    auto coolant = [](const COOLANT_TDMP_tag_& c) {
        return Json{{"engine_speed", c.engineSpeed}, {"speed", c.speed}, {"temp", c.temp}};
    };
    auto wear = [&](const auto& w) {
        return Json{{"continue_time", three(w.continueTime1, w.continueTime2, w.continueTime3)},
                    {"speed", three(w.speed1, w.speed2, w.speed3)}};
    };
    Json throttle = Json::array();
    for (const auto& l : a.throttle.level) {
        throttle.push_back(
            {{"continue_time", l.continueTime}, {"speed", l.speed}, {"throttle", l.throttle}});
    }
    const VOLTAG_tag_& v = a.voltage;
    const REVVING_tag_& r = a.revving;
    return Json{
        {"acc_level", three(a.accLevel1, a.accLevel2, a.accLevel3)},
        {"speed_acc_level", three(a.speedAccLevel1, a.speedAccLevel2, a.speedAccLevel3)},
        {"dec_level", three(a.decLevel1, a.decLevel2, a.decLevel3)},
        {"speed_dec_level", three(a.speedDecLevel1, a.speedDecLevel2, a.speedDecLevel3)},
        {"turn_level", three(a.turnLevel1, a.turnLevel2, a.turnLevel3)},
        {"lateral_sensitivity", a.lateralSensitivity},
        {"turbulence_sensitivity", a.turbulenceSensitivity},
        {"battery_voltage",
         {{"engine_off", {v.engineOffVolt12, v.engineOffVolt24}},
          {"low", {v.lowVolt12, v.lowVolt24}},
          {"charge", {v.chargeVolt12, v.chargeVolt24}}}},
        {"idling_timeout",
         {{"level_time", three(a.idlingTimeout.level1Time, a.idlingTimeout.level2Time,
                               a.idlingTimeout.level3Time)}}},
        {"engine_flameout",
         pair(a.engineFlameout.continueTime, a.engineFlameout.speed, a.engineFlameout.engineSpeed)},
        {"neutral_glide",
         pair(a.neutralGlide.continueTime, a.neutralGlide.speed, a.neutralGlide.engineSpeed)},
        {"coolant_high", coolant(a.coolantHigh)},
        {"coolant_low", coolant(a.coolantLow)},
        {"coolant_drop",
         {{"drop_time_min", a.coolantTempDrop.dropTime},
          {"high_temp", a.coolantTempDrop.highTemp},
          {"low_temp", a.coolantTempDrop.lowTemp}}},
        {"over_running",
         {{"continue_time", three(r.continueTime1, r.continueTime2, r.continueTime3)},
          {"engine_speed", three(r.engineSpeed1, r.engineSpeed2, r.engineSpeed3)}}},
        {"throttle", throttle},
        {"parking_large_gas",
         {{"continue_time", a.parkingLargeGas.continueTime},
          {"engine_speed", a.parkingLargeGas.engineSpeed}}},
        {"low_gear_high_speed",
         {{"speed", a.lowGearHighSpeed.speed}, {"engine_speed", a.lowGearHighSpeed.engineSpeed}}},
        {"parking_on_clutch", {{"continue_time", a.parkOnClutch.continueTime}}},
        {"running_with_brake",
         {{"continue_time", a.runningWithBrake.continueTime}, {"speed", a.runningWithBrake.speed}}},
        {"cold_start",
         {{"engine_speed", a.coldStart.engineSpeed}, {"coolant_temp", a.coldStart.coolantTemp}}},
        {"parking_close_engine",
         {{"idle_time_high", a.parkingCloseEngine.idleTimeHigh},
          {"idle_time_low", a.parkingCloseEngine.idleTimeLow},
          {"mileage_limit", a.parkingCloseEngine.mileageLimit}}},
        {"brake_wear", wear(a.brakeWear)},
        {"clutch_wear", wear(a.clutchWear)},
        {"high_speed_start", {{"warm_up_time", a.highSpeedStartEngine.warmUpTime}}},
        {"engine_speed_band", Array(s.engineSpeedBand)},
        {"speed_band", Array(s.speedBand)},
        {"accelerator_band", Array(s.acceleratorBand)},
        {"accelerator_level", Array(s.acceleratorLevel)},
        {"idle_minute_band", Array(s.idleMinuteBand)},
    };
}

Json ConfigInfo(const std::vector<unsigned char>& p) {
    GdsConfigInfo_t c;
    if (!Read(p, 0, c) || p.size() != sizeof(c)) return WrongSize(sizeof(c), p.size());
    Json j;
    j["mask"] = c.mask;
    const std::pair<uint32_t, const char*> bits[] = {{CFG_MASK_VERSION, "version"},
                                                     {CFG_MASK_SCAN_TIME_LEVEL, "scan_time_level"},
                                                     {CFG_MASK_DATA_SCAN_LEVEL, "data_scan_level"},
                                                     {CFG_MASK_ENGINE, "engine"},
                                                     {CFG_MASK_ALARM_THRESHOLD, "alarm_threshold"},
                                                     {CFG_MASK_MODE, "mode"},
                                                     {CFG_MASK_OBD_STATE, "obd_state"}};
    Json valid = Json::array();
    for (const auto& [bit, name] : bits) {
        if ((c.mask & bit) != 0) valid.push_back(name);
    }
    j["valid"] = valid;
    if ((c.mask & CFG_MASK_VERSION) != 0) {
        const _OBD_Version_t& v = c.version;
        j["version"] = {{"hw_name", Text(v.HwName, sizeof(v.HwName))},
                        {"serial_number", Text(v.DevSerialNum, sizeof(v.DevSerialNum))},
                        {"hw_version", Text(v.HWVer, sizeof(v.HWVer))},
                        {"date", Text(v.VerDate, sizeof(v.VerDate))},
                        {"device_type", Text(v.DevType, sizeof(v.DevType))},
                        {"boot_version", Text(v.BootVer, sizeof(v.BootVer))},
                        {"download_version", Text(v.DLVer, sizeof(v.DLVer))},
                        {"diag_version", Text(v.DiagSWVer, sizeof(v.DiagSWVer))}};
    }
    if ((c.mask & CFG_MASK_SCAN_TIME_LEVEL) != 0) {
        Json levels = Json::array();
        for (int i = 0; i < c.scanTimeLevel.num && i < OBD_LEVEL_MAX; ++i) {
            levels.push_back({{"level", c.scanTimeLevel.item[i].level},
                              {"time_ms", c.scanTimeLevel.item[i].time}});
        }
        j["scan_time_level"] = levels;
    }
    if ((c.mask & CFG_MASK_DATA_SCAN_LEVEL) != 0) {
        Json levels = Json::array();
        for (int i = 0; i < c.dataScanLevel.num && i < OBD_LEVEL_MAX; ++i) {
            const auto& it = c.dataScanLevel.item[i];
            const size_t n =
                it.len < 0 ? 0 : std::min<size_t>(static_cast<size_t>(it.len), OBD_LEVEL_DATA_MAX);
            levels.push_back({{"level", it.level}, {"data", Hex(it.data, n)}});
        }
        j["data_scan_level"] = levels;
    }
    if ((c.mask & CFG_MASK_ENGINE) != 0) {
        j["engine"] = {{"id", c.engine.engine_id},
                       {"name", Text(c.engine.name, sizeof(c.engine.name))}};
    }
    if ((c.mask & CFG_MASK_ALARM_THRESHOLD) != 0)
        j["alarm_threshold"] = Thresholds(c.alarmThreshold);
    j["mode"] = c.mode;
    j["obd_state"] = c.obd_state;
    j["link_up"] = (c.obd_state & 1u) != 0;
    j["box_known"] = (c.obd_state & 2u) != 0;
    return j;
}

Json Blackbox(const std::vector<unsigned char>& p) {
    BlackboxMsgHead_t head;
    if (!Read(p, 0, head)) return WrongSize(sizeof(head) + BLACKBOX_MSG_TAIL, p.size());
    Json records = Json::array();
    size_t at = sizeof(head);
    for (unsigned r = 0; r < head.recordCount; ++r) {
        BlackboxRecordHead_t rec;
        if (!Read(p, at, rec) || rec.count > OBD_ITEM_COUNT ||
            p.size() - at < BlackboxRecordSize(rec.count)) {
            return Json{{"error", "record " + std::to_string(r) + " runs past the payload"},
                        {"records", records}};
        }
        char time[32];
        std::snprintf(time, sizeof(time), "%04u-%02u-%02u %02u:%02u:%02u", 2000u + rec.time[0],
                      rec.time[1], rec.time[2], rec.time[3], rec.time[4], rec.time[5]);
        Json items = Json::object();
        for (uint32_t i = 0; i < rec.count; ++i) {
            uint32_t word = 0;
            Read(p, at + sizeof(rec) + 4 * i, word);
            const int id = static_cast<int>(word & 0xFF);
            const char* name = ItemName(id);
            items[name != nullptr ? name : "id_" + std::to_string(id)] =
                static_cast<double>(word >> 8) / 100.0;
        }
        records.push_back({{"time", time}, {"items", items}});
        at += BlackboxRecordSize(rec.count);
    }
    return Json{{"record_count", head.recordCount}, {"records", records}};
}

Json Upgrade(const std::vector<unsigned char>& p) {
    UpgradeResult_t u;
    if (!Read(p, 0, u) || p.size() != sizeof(u)) return WrongSize(sizeof(u), p.size());
    std::string state = "state_" + std::to_string(u.state);
    if (u.state == PERIP_UPG_STATE_PROGRESS) state = "progress";
    if (u.state == PERIP_UPG_STATE_FAILED) state = "failed";
    if (u.state == PERIP_UPG_STATE_SUCCESS) state = "success";
    return Json{{"source", u.source},
                {"device", u.device},
                {"state", u.state},
                {"state_name", state},
                {"percent", u.percent}};
}

Json CanBox(const std::vector<unsigned char>& p) {
    CanBoxData_t c;
    if (!Read(p, 0, c) || p.size() != sizeof(c)) return WrongSize(sizeof(c), p.size());
    return Json{{"speed", c.speed / 100.0},
                {"engine_speed", c.engineSpeed / 100.0},
                {"total_mileage", c.totalMileageValue / 100.0},
                {"engine_time", c.engineTimeValue}};
}

// A frame to the box relayed in CAN-box mode, or bytes from it: int32 length, then a frame (55 AA,
// direction, L = payload + 3 MSB first, sequence number, code MSB first, payload, XOR) when the
// bytes are one whole frame, else just the bytes.
Json CanFrame(const std::vector<unsigned char>& p) {
    int32_t n = 0;
    if (!Read(p, 0, n) || n < 0 || static_cast<size_t>(n) > p.size() - 4) {
        return Json{{"error", "length field does not match the payload"}};
    }
    const unsigned char* f = p.data() + 4;
    Json j{{"length", n}};
    const size_t l = n >= 6 ? (static_cast<size_t>(f[4]) << 8 | f[5]) : 0;
    if (n < 10 || f[0] != 0x55 || f[1] != 0xAA || l < 3 || l + 7 != static_cast<size_t>(n)) {
        j["bytes"] = Hex(f, static_cast<size_t>(n));
        return j;
    }
    char code[8];
    std::snprintf(code, sizeof(code), "%02x%02x", f[7], f[8]);
    j["seq"] = f[6];
    j["code"] = code;
    j["payload"] = Hex(f + 9, l - 3);
    return j;
}

}  // namespace

double Num(float v) {
    char text[32];
    for (int digits = 6; digits <= 9; ++digits) {
        std::snprintf(text, sizeof(text), "%.*g", digits, static_cast<double>(v));
        if (std::strtof(text, nullptr) == v) break;
    }
    return std::strtod(text, nullptr);
}

bool AlarmWords(const std::vector<unsigned char>& payload, uint64_t words[4]) {
    GdsAlarmMsg_t m;
    if (payload.size() != sizeof(m)) return false;
    std::memcpy(&m, payload.data(), sizeof(m));
    words[0] = m.eventType1Alarms;
    words[1] = m.eventType2Alarms;
    words[2] = m.eventType3Alarms;
    words[3] = m.eventType4Alarms;
    return true;
}

bool ItemValue(const std::vector<unsigned char>& payload, int index, float& value) {
    if (payload.size() != sizeof(ObdOriginalDataMsg_t) || index < 0 || index >= OBD_ITEM_COUNT) {
        return false;
    }
    OBD_DataItem_t it;
    std::memcpy(&it, payload.data() + sizeof(OBD_DataItem_t) * static_cast<size_t>(index),
                sizeof(it));
    value = it.value;
    return it.id != -1;
}

Json Decode(int id, bool response, const std::vector<unsigned char>& payload) {
    if (response) {
        switch (id) {
            case MSG_GET_GDS_CONFIG_INFO:
                return ConfigInfo(payload);
            case MSG_TRIGGER_PERIPHERAL_UPGRADE:
            case MSG_GET_PERIPHERAL_UPGRADE_STATE:
                return Upgrade(payload);
            case MSG_TRIGGER_OBD_DEMACATE: {
                int32_t result = 0;
                if (payload.size() != 4 || !Read(payload, 0, result))
                    return WrongSize(4, payload.size());
                return Json{{"result", result}};
            }
            default:
                return nullptr;
        }
    }
    switch (id) {
        case MSG_GDS_CONFIG_INFO_REPORT:
            return ConfigInfo(payload);
        case MSG_OBD_ORIGINAL_DATA:
            return ObdData(payload);
        case MSG_BLACKBOX_OBD_DATA:
            return Blackbox(payload);
        case MSG_GDS_ALARM:
            return AlarmMsg(payload);
        case MSG_PERIPHERAL_UPGRADE_STATE:
            return Upgrade(payload);
        case MSG_CAN_BOX_DATA:
            return CanBox(payload);
        case MSG_CAN_BOX_OBD_DATA_OUT:
        case MSG_CAN_BOX_OBD_DATA_IN:  // the same layout: the box's bytes, a frame when whole
            return CanFrame(payload);
        default:
            return nullptr;
    }
}

}  // namespace obdsim

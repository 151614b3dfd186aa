// The simulator's parts on their own: scenario files, the decoding of the plug-in's payloads, the
// drives against the analyser, the trip checks, the reference analyser's own copy.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <map>

#include "BoxEmulator.h"
#include "Decode.h"
#include "Direct.h"
#include "Drive.h"
#include "Feeder.h"
#include "GdsInternal.h"
#include "ObdBusRecords.h"
#include "Reference.h"
#include "Scenario.h"
#include "Summary.h"
#include "Trip.h"
#include "TripOutputs.h"

namespace obdsim {
namespace {

std::string TempFile(const std::string& text) {
    char name[] = "/tmp/obdsim-testXXXXXX";
    const int fd = mkstemp(name);
    if (fd >= 0) close(fd);
    std::ofstream(name) << text;
    return name;
}

struct Loaded {
    bool ok;
    Drive drive;
    std::string error;
};
Loaded Load(const std::string& text, const std::string& columns = "", Gaps gaps = Gaps::ByKind) {
    const std::string path = TempFile(text);
    Loaded l{false, Drive(), ""};
    std::vector<ColumnMap> map;
    l.ok = ParseColumns(columns, map, l.error) && LoadScenario(path, map, l.drive, l.error, gaps);
    std::remove(path.c_str());
    return l;
}

// Value of `item` at `t`, NAN when absent.
float At(const Drive& d, double t, const char* item) {
    const DriveSample s = d.ItemsAt(t);
    const int i = ItemIndex(item);
    return s.present[static_cast<size_t>(i)] ? s.value[static_cast<size_t>(i)] : NAN;
}

TEST(Scenario, ReadsRowsAsTheBoxReportsThem) {
    struct Case {
        const char* what;
        std::string csv, columns;
        Gaps gaps;
        double t;
        const char* item;
        float want;  // NAN: absent
    };
    const std::string native =
        "# comment\n\nt,speed,brake,coolant_temp,acc_z\n"
        "0,10,0,,1\n2,,1,,\n4,30,,80,\n14,130,0,,\n";
    const std::string poli =
        "time,speed,rpm,acceleration,throttle_position,engine_temperature,system_voltage,"
        "distance_travelled,current_weather\n13:47:21,,,,,,,,Sun\n13:47:22,0.0,598.0,,12.9,94.0,"
        "13.0,0.0,Sun\n13:47:23,,610.0,0.1,,,13.1,,Sun\n13:47:25,4.0,,,14.5,95.0,,0.01,Sun\n";
    const std::string km = "sec,km\n0,1.5\n1,2.5\n";
    const Gaps kind = Gaps::ByKind, hold = Gaps::Hold, ramp = Gaps::Interpolate;
    const std::vector<Case> cases = {
        {"empty cell repeats the value above", native, "", kind, 1.0, "speed", 10.0f},
        {"own format: interpolated between rows", native, "", kind, 3.0, "speed", 20.0f},
        {"own format: across a gap of 10 s", native, "", kind, 9.0, "speed", 80.0f},
        {"own format held: a row stands", native, "", hold, 13.9, "speed", 30.0f},
        {"a state holds to the next row", native, "", ramp, 1.9, "brake", 0.0f},
        {"a state repeated by an empty cell", native, "", kind, 3.9, "brake", 1.0f},
        {"absent before its first value", native, "", kind, 3.9, "coolant_temp", NAN},
        {"present from its first value", native, "", kind, 4.0, "coolant_temp", 80.0f},
        {"the last value holds after the end", native, "", kind, 99.0, "speed", 130.0f},
        {"clock time past midnight", "time,speed\n23:59:59,1\n0:00:01,3\n", "", kind, 1.0, "speed",
         2.0f},
        {"mapped and scaled column", "sec,mph\n0,10\n1,20\n", "sec=t,mph=speed*1.609344", ramp, 1.0,
         "speed", 32.18688f},
        {"one column feeds two names", km, "sec=t,km=mileage+mileage2*1000", kind, 1.0, "mileage",
         2.5f},
        {"each name with its factor", km, "sec=t,km=mileage+mileage2*1000", kind, 1.0, "mileage2",
         2500.0f},
        {"a factor's exponent is no name", km, "sec=t,km=mileage*1e+3", kind, 0.0, "mileage",
         1500.0f},
        {"mapped: a row stands until the next", km, "sec=t,km=mileage", kind, 0.9, "mileage", 1.5f},
        {"preset: rpm is the engine speed", poli, "polidriving", kind, 2.0, "engine_speed", 610.0f},
        {"preset: a gap holds the row before it", poli, "polidriving", kind, 3.0, "accelerator",
         12.9f},
        {"preset interpolated: a gap is a ramp", poli, "polidriving", ramp, 3.0, "accelerator",
         13.7f},
        {"preset: throttle is the accelerator", poli, "polidriving", kind, 4.0, "accelerator",
         14.5f},
        {"preset: absent before the first row with data", poli, "polidriving", kind, 0.5, "speed",
         NAN},
        {"preset: distance is the mileage", poli, "polidriving", kind, 4.0, "mileage", 0.01f},
        {"preset: and the second mileage too", poli, "polidriving", kind, 4.0, "mileage2", 0.01f},
    };
    for (const Case& c : cases) {
        const Loaded l = Load(c.csv, c.columns, c.gaps);
        ASSERT_TRUE(l.ok) << c.what << ": " << l.error;
        const float got = At(l.drive, c.t, c.item);
        if (std::isnan(c.want)) {
            EXPECT_TRUE(std::isnan(got)) << c.what << ": " << got;
        } else {
            EXPECT_NEAR(got, c.want, 1e-3) << c.what;
        }
    }
    const Loaded l = Load(native);
    EXPECT_EQ(l.drive.DurationS(), 14.0);
    EXPECT_TRUE(l.drive.HasMotion());
    EXPECT_EQ(l.drive.MotionAt(5).acc[2], 1.0f);
    EXPECT_FALSE(Load(poli, "polidriving").drive.HasMotion());
}

TEST(Scenario, BadInputGivesOneLineNamingTheFileAndLine) {
    const std::vector<std::tuple<std::string, std::string, std::string>> cases = {
        {"t,sped\n0,1\n", "", "unknown column \"sped\""},
        {"time,speed\n1:00:00,1\n", "polidriving", "no column \"rpm\""},
        {"t,speed\n0,1\n1,abc\n", "", ":3: column \"speed\": \"abc\" is not a number"},
        {"t,speed\n0,1\n1,nan\n", "", ":3: column \"speed\": \"nan\" is not a number"},
        {"t,speed\n0,1\n0,2\n", "", ":3: time 0 is not after the previous row's"},
        {"t,speed\n0,1\n1,2,3\n", "", "Too many columns in line 3"},
        {"t,speed\n0\n", "", "Too few columns in line 2"},
        {"t,speed\n", "", "no rows"},
        {"", "", "Header missing"},
        {"speed\n1\n", "", "needs a time column"},
        {"t,time,speed\n0,0:00:00,1\n", "", "two time columns"},
        {"time,speed\n12:61:00,1\n", "", ":2: bad time \"12:61:00\""},
        {"# expect no_such_alarm 1 1 1\nt,speed\n0,1\n", "", ":1: expected \"# expect KEY"},
        {"t,speed\n0,1\n", "nosuch", "unknown column preset \"nosuch\""},
        {"t,speed\n0,1\n", "t=t,speed", "expected SOURCE=NAME"},
        {"t,speed\n0,1\n", "t=t,speed=sped", "unknown name \"sped\""},
        {"t,speed\n0,1\n", "t=t,speed=speed*x", "bad factor"},
        {"t,speed\n0,1\n", "t=t,speed=speed,speed=fuel", "column used twice"},
        {"t,speed\n0,1\n", "t=t,speed=speed+fuel+speed", "name \"speed\" used twice"},
        {"t,speed\n0,1\n", "t=t,speed=speed+", "unknown name \"\""},
    };
    for (const auto& [csv, columns, said] : cases) {
        const Loaded l = Load(csv, columns);
        EXPECT_FALSE(l.ok) << csv;
        EXPECT_NE(l.error.find(said), std::string::npos) << csv << " -> " << l.error;
        EXPECT_EQ(l.error.find('\n'), std::string::npos) << l.error;
    }
    Drive d;
    std::string error;
    EXPECT_FALSE(LoadScenario("/nonexistent/x.csv", {}, d, error));
    EXPECT_NE(error.find("/nonexistent/x.csv"), std::string::npos) << error;
}

// Payloads the plug-in sent in obd-sim runs (the built-in drive; CAN-box mode; an upgrade trigger).
std::string Absent(int n) {
    std::string s;
    for (int i = 0; i < n; ++i) s += "ffffffff00000000";
    return s;
}
const std::string kObdData =
    "0000000012553c47ffffffff00000000ffffffff00000000030000007a6f4841" + Absent(2) +
    "0600000011f1b344070000003dcaf24108000000333363410900000049533641" + Absent(4) +
    "0e00000030d6bc41ffffffff000000001000000000000000" + Absent(42) + std::string(64, '0');
const std::string kAlarmActive = "08" + std::string(414, '0');
const std::string kAlarmEnded = std::string(352, '0') + "1e002800" + std::string(56, '0');
const std::string kBlackbox =
    "0200000000000000000000001a0b170e01040000040000000037914903e30400090000000ede0400000000000000"
    "000000000000000000001a0b170e01050000040000000037914903e30400090000000ec904000000000000000000"
    "0000000000000000000000000000000000000000";
const std::string kStatus =
    "49060000454d552d4f42442d424f580000000000000000000000000000000000534e30303030303100000000000000"
    "004857312e3000000000000000323032342d30352d30310000543100000000000000000000424f4f54312e30000000"
    "0000444c312e300000000000000044494147312e30" +
    std::string(315, '0') + "1" + std::string(174, '0') +
    "08000a000c0082009600b400110013001500b400c800e6001c0258028a02000002000000020000000200000017000b"
    "009209b0048c0a4605f00084030807000005000a0064000000050032008403000064000a007800000064000a000500"
    "000003005a0032000000050008070500d0070500600905143c0005143c00051450000200dc051e00dc05140000000a"
    "000a00640000003c000a0032000f000f000a001e0014001e000a000f0014001e001e001e000a000000000000000000"
    "000000002003e803b00478054006d0076009001e3c5a78000a1e3c50323c4b50555a647d82000a1e32465a00030f1e"
    "0000000000000000000000000000000003" +
    std::string(80, '0');

std::vector<unsigned char> Bytes(const std::string& hex) {
    std::vector<unsigned char> b;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        b.push_back(static_cast<unsigned char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    return b;
}

TEST(Decode, RealPayloadsGiveNamedFields) {
    struct Case {
        int id;
        bool response;
        std::string hex;
        const char* pointer;
        Json want;  // null: the field is not there
    };
    const std::vector<Case> cases = {
        {6702, false, kObdData, "/items/speed", 30.34875},
        {6702, false, kObdData, "/items/engine_speed", 1439.5333},
        {6702, false, kObdData, "/items/mileage", 48213.07},
        {6702, false, kObdData, "/items/item_4", nullptr},
        {6720, false, kAlarmActive, "/alarms/0/key", "cold_start"},
        {6720, false, kAlarmActive, "/alarms/0/level", nullptr},  // not a graded alarm
        {6720, false, kAlarmActive, "/event_words/0", 8},
        {6720, false, kAlarmEnded, "/ended/sudden_turn",
         Json{{"threshold", 30}, {"max_value", 40}}},
        {6720, false, kAlarmEnded, "/ended/over_running", nullptr},
        {6714, false, kBlackbox, "/record_count", 2},
        {6714, false, kBlackbox, "/records/1/time", "2026-11-23 14:01:05"},
        {6714, false, kBlackbox, "/records/1/items/accelerator", 12.25},
        {6714, false, kBlackbox, "/records/0/items/coolant_temp", 0.0},  // negative values give 0
        {6699, false, kStatus, "/valid",
         Json::array({"version", "engine", "alarm_threshold", "mode", "obd_state"})},
        {6699, false, kStatus, "/version/hw_name", "EMU-OBD-BOX"},
        {6699, false, kStatus, "/version/diag_version", "DIAG1.0"},
        {6699, false, kStatus, "/engine/id", 1},
        {6699, false, kStatus, "/alarm_threshold/idling_timeout/level_time", {240, 900, 1800}},
        {6699, false, kStatus, "/alarm_threshold/over_running/engine_speed", {1800, 2000, 2400}},
        {6699, false, kStatus, "/alarm_threshold/throttle/2/throttle", 80},
        {6699, false, kStatus, "/alarm_threshold/speed_band", {0, 30, 60, 90, 120}},
        {6699, false, kStatus, "/scan_time_level", nullptr},  // its mask bit is clear
        {6699, false, kStatus, "/link_up", true},
        {6698, true, "0006" + std::string(1300, '0'), "/valid", {"mode", "obd_state"}},
        {6877, false, "0001000040e2010030d40000d2e20100020000", "/error",
         "expected 20 bytes, got 19"},
        {6877, false, "0001000040e2010030d40000d2e2010002000000", "/speed", 1234.56},
        {6899, false, "0f00000055aaf0f80008012c01ff00000000d3", "/code", "2c01"},
        {6899, false, "0f00000055aaf0f80008012c01ff00000000d3", "/payload", "ff00000000"},
        {6899, false, "ff00000055aa", "/error", "length field does not match the payload"},
        {6898, false, "0800000055aaf8f00003016c", "/bytes", "55aaf8f00003016c"},
        {6898, false, "0900000055aaf8f00003016c", "/error",
         "length field does not match the payload"},
        {6729, true, "00070000" + std::string(32, '0'), "/state_name", "progress"},
        {6730, false, "00070a64" + std::string(32, '0'), "/state_name", "success"},
        {6730, false, "00070a64" + std::string(32, '0'), "/percent", 100},
        {6702, false, kObdData.substr(2), "/error", "expected 504 bytes, got 503"},
        {6714, false, "0300" + kBlackbox.substr(4, 120), "/error",
         "record 1 runs past the payload"},
    };
    for (const Case& c : cases) {
        const Json d = Decode(c.id, c.response, Bytes(c.hex));
        const Json::json_pointer p(c.pointer);
        const Json got = d.contains(p) ? d[p] : Json();
        EXPECT_EQ(got, c.want) << c.id << " " << c.pointer << " in " << d.dump();
    }
    EXPECT_TRUE(Decode(1071, false, Bytes("00")).is_null());
    EXPECT_TRUE(Decode(6702, true, Bytes(kObdData)).is_null());
}

// The drive played through the analyser as the plug-in feeds it: a data-stream frame every second
// at `phase` of the second, six-axis samples every 100 ms, the analysis at half past.
std::vector<AlarmEvent> Replay(const Drive& d, double phase) {
    Gds_TestResetProcessState();
    auto* g = static_cast<tagGdsParam_t*>(std::calloc(1, sizeof(tagGdsParam_t)));
    Gds_IF_InitLogicAnalyser(g);
    _OBD_DataTable_t table;
    for (auto& it : table.item) it = {-1, 0.0f};
    AlarmEpisodes episodes;
    const long long end = static_cast<long long>(d.DurationS() * 10) + 20;
    for (long long k = 0; k <= end; ++k) {
        const double t = static_cast<double>(k) / 10.0;
        if (d.HasMotion()) {
            tagSixAxisOrgData s = SixAxisSample(d.MotionAt(t));
            Gds_IF_UpdateCollectData(COLLECT_SIX_AXIS_DATA, &s, g);
        }
        if (k % 10 == static_cast<long long>(phase * 10)) {
            const DriveSample x = d.ItemsAt(t);
            for (int i = 0; i < kItemCount; ++i) {
                if (x.present[static_cast<size_t>(i)])
                    table.item[i] = {i, x.value[static_cast<size_t>(i)]};
            }
            Gds_IF_UpdateCollectData(COLLECT_OBD_DATA, &table, g);
        }
        if (k % 10 != 5) continue;
        Gds_IF_AnalyserData(g);
        const Alarm_Info_t& a = g->collData.alarmInfo;
        const uint64_t words[4] = {a.eventType1Alarms, a.eventType2Alarms, a.eventType3Alarms,
                                   a.eventType4Alarms};
        episodes.Step(k * 100, words);
    }
    Gds_IF_ReleaseLogicAnalyser(g);
    std::free(g);
    return episodes.Events();
}

TEST(Drives, EveryDriveRaisesItsAlarmsOnceAtTheirTimesWhateverTheStreamPhase) {
    std::vector<Drive> drives = {BuiltinDrive()};
    for (const char* name : {"overheating", "rough-road", "hill-town"}) {
        drives.emplace_back();
        std::string error;
        ASSERT_TRUE(
            LoadScenario(std::string(OBD_SOURCE_DIR "/tools/obd-sim/scenarios/") + name + ".csv",
                         {}, drives.back(), error))
            << error;
        EXPECT_FALSE(drives.back().Expected().empty()) << name;
    }
    for (const Drive& d : drives) {
        for (double phase : {0.0, 0.3, 0.6, 0.9}) {
            const std::vector<AlarmEvent> events = Replay(d, phase);
            std::string got;
            for (const AlarmEvent& e : events) {
                got +=
                    std::string(Alarm(e.alarm).key) + "@" + std::to_string(e.startMs / 1000) + " ";
            }
            EXPECT_EQ(events.size(), d.Expected().size())
                << d.Name() << " " << phase << ": " << got;
            for (const ExpectedAlarm& x : d.Expected()) {
                const auto e = std::find_if(events.begin(), events.end(), [&](const AlarmEvent& a) {
                    return Alarm(a.alarm).key == x.key;
                });
                ASSERT_NE(e, events.end()) << d.Name() << ": " << x.key << " missing: " << got;
                EXPECT_NEAR(static_cast<double>(e->startMs) / 1000.0, x.startS, 1.6) << x.key;
                EXPECT_EQ(e->level, x.level) << x.key;
            }
        }
    }
}

TEST(Drives, InertialMessageCarriesTheSampleThePlugInHandsItsAnalyser) {
    // Counts: 4096 per g, 16.4 per degree per second, saturating at the 16-bit limits.
    const std::vector<std::pair<Motion, std::vector<int>>> cases = {
        {{{0.25f, -0.5f, 1.0f}, {1.0f, -2.0f, 30.0f}}, {1024, -2048, 4096, 16, -33, 492}},
        {{{9.0f, -9.0f, 0.0f}, {0.0f, 0.0f, -2500.0f}}, {32767, -32768, 0, 0, 0, -32768}},
    };
    for (const auto& [motion, counts] : cases) {
        const std::vector<unsigned char> p = InertialPayload(motion);
        const tagSixAxisOrgData s = SixAxisSample(motion);
        ASSERT_EQ(p.size(), 32u);
        EXPECT_EQ(p[24], 1);  // six-axis kind
        for (size_t i = 0; i < 6; ++i) {
            const size_t at = i < 3 ? 6 + 2 * i : 18 + 2 * (i - 3);
            EXPECT_EQ(static_cast<int16_t>(p[at] | p[at + 1] << 8), counts[i]) << i;
            EXPECT_EQ(static_cast<int16_t>(s.data[2 * i] << 8 | s.data[2 * i + 1]), counts[i]) << i;
        }
    }
}

// The trip checks fed with synthetic broadcasts.
hostsim::BusMessage Msg(long long t, int id, std::vector<unsigned char> payload,
                        bool response = false) {
    hostsim::BusMessage m;
    m.tMs = t;
    m.id = id;
    m.response = response;
    m.payload = std::move(payload);
    return m;
}
std::vector<unsigned char> Status(bool up) {
    std::vector<unsigned char> p(sizeof(GdsConfigInfo_t), 0);
    p[offsetof(GdsConfigInfo_t, obd_state)] = up ? 3 : 2;
    return p;
}
std::vector<unsigned char> Table(float speed) {
    ObdOriginalDataMsg_t m{};
    for (auto& it : m.table.item) it = {-1, 0.0f};
    m.table.item[OBD_IDX_SPEED] = {OBD_IDX_SPEED, speed};
    const auto* b = reinterpret_cast<const unsigned char*>(&m);
    return std::vector<unsigned char>(b, b + sizeof(m));
}
std::vector<unsigned char> Words(uint64_t w2, uint64_t w4 = 0) {
    GdsAlarmMsg_t m{};
    m.eventType2Alarms = w2;
    m.eventType4Alarms = w4;
    const auto* b = reinterpret_cast<const unsigned char*>(&m);
    return std::vector<unsigned char>(b, b + sizeof(m));
}

TEST(Trip, ChecksTellWhenThePlugInMisbehaved) {
    Drive drive;
    drive.SetExpected({{"over_running", 20, 6, 3}});
    using Events = std::function<void(TripLog&)>;
    // Every second from `from` to `to`: the box's frame, the data and the alarm broadcasts.
    auto seconds = [](TripLog& trip, int from, int to, float speed, uint64_t w2 = 0) {
        for (int s = from; s <= to; ++s) {
            DriveSample f;
            f.value[OBD_IDX_SPEED] = speed;
            f.present.set(OBD_IDX_SPEED);
            trip.OnFrame(s * 1000 - 500, f);
            trip.OnBus(Msg(s * 1000, 6702, Table(speed)));
            trip.OnBus(Msg(s * 1000 + 1, 6720, Words(w2)));
        }
    };
    // The link reported up at 0.5 s when `up`; the first problem must start with `problem` ("" for
    // none).
    auto check = [](const char* what, const Drive* d, bool up, long long endMs,
                    const std::string& problem, const Events& events) {
        SCOPED_TRACE(what);
        TripLog trip(d, 0);
        if (up) trip.OnBus(Msg(500, 6699, Status(true)));
        events(trip);
        trip.Finish(endMs);
        const std::vector<std::string> problems = trip.Problems();
        if (problem.empty()) {
            EXPECT_TRUE(problems.empty()) << problems.front();
        } else {
            ASSERT_FALSE(problems.empty());
            EXPECT_EQ(problems.front().rfind(problem, 0), 0u) << problems.front();
        }
    };
    check("a healthy trip", &drive, true, 30000, "", [&](TripLog& t) {
        seconds(t, 1, 19, 10);
        seconds(t, 20, 25, 10, 4);  // over-running at level 3 from 20 s
        seconds(t, 26, 30, 10);
    });
    check("a broadcast late", &drive, true, 19000,
          "no OBD data broadcast (6702) from 0:00:05 to 0:00:08", [&](TripLog& t) {
              seconds(t, 1, 5, 10);
              seconds(t, 8, 19, 10);
          });
    check("broadcasts stop before the end", &drive, true, 14000,
          "no OBD data broadcast (6702) from 0:00:10 to 0:00:14",
          [&](TripLog& t) { seconds(t, 1, 10, 10); });
    check("the link reported lost", &drive, true, 10000,
          "the plug-in reported the OBD link lost at 0:00:10", [&](TripLog& t) {
              seconds(t, 1, 10, 10);
              t.OnBus(Msg(10500, 6699, Status(false)));
          });
    check("the link never up", &drive, false, 16000, "the plug-in never reported the OBD link up",
          [&](TripLog& t) { seconds(t, 1, 16, 10); });
    check("data that does not follow the box", &drive, true, 12000,
          "the plug-in's OBD data stopped following the box from 0:00:08", [&](TripLog& t) {
              seconds(t, 1, 5, 10);
              for (int s = 6; s <= 12; ++s) {
                  DriveSample f;
                  f.value[OBD_IDX_SPEED] = 50;
                  f.present.set(OBD_IDX_SPEED);
                  t.OnFrame(s * 1000 - 500, f);
                  t.OnBus(Msg(s * 1000, 6702, Table(10)));
                  t.OnBus(Msg(s * 1000, 6720, Words(0)));
              }
          });
    check("an alarm missing", &drive, true, 30000,
          "engine over-running expected at 0:00:20 did not come",
          [&](TripLog& t) { seconds(t, 1, 30, 10); });
    check("an alarm twice", &drive, true, 30000, "engine over-running came 2 times",
          [&](TripLog& t) {
              seconds(t, 1, 19, 10);
              seconds(t, 20, 21, 10, 4);
              seconds(t, 22, 25, 10);
              seconds(t, 26, 30, 10, 4);
          });
    check("an alarm dropping for a second is one", &drive, true, 30000, "", [&](TripLog& t) {
        seconds(t, 1, 19, 10);
        seconds(t, 20, 21, 10, 4);
        seconds(t, 22, 22, 10);
        seconds(t, 23, 30, 10, 4);
    });
    check("an alarm late", &drive, true, 30000,
          "engine over-running came at 0:00:26, expected at 0:00:20", [&](TripLog& t) {
              seconds(t, 1, 25, 10);
              seconds(t, 26, 30, 10, 4);
          });
    check("another alarm", &drive, true, 30000, "unexpected alarm: idling timeout at 0:00:20",
          [&](TripLog& t) {
              seconds(t, 1, 19, 10);
              seconds(t, 20, 30, 10, 4 | 1 << 10);
          });
    check("an upgrade pauses the 1 s work", &drive, true, 19000, "", [&](TripLog& t) {
        seconds(t, 1, 5, 10);
        t.OnBus(Msg(5500, 6729, std::vector<unsigned char>(20, 0), true));
        t.OnBus(Msg(15500, 6730, Bytes("00070a64" + std::string(32, '0'))));
        seconds(t, 16, 19, 10);
    });
    check("a real box, nothing expected", nullptr, true, 30000, "", [&](TripLog& t) {
        seconds(t, 1, 3, 10);
        seconds(t, 9, 10, 10);
    });
    check("no OBD plug-in, a short run", &drive, false, 5000, "", [&](TripLog&) {});
}

// The plug-in's 1 s timer restarts from the cycle that ran it, so on a clock with late cycles its
// steps last longer and an alarm held for 240 of them comes 12 s late at 1.05 s a step. Counted in
// its steps that is on time; on an exact clock the same lateness is the plug-in's.
TEST(Trip, AlarmHoldsCountThePlugInsStepsOnALateClock) {
    Drive drive;
    drive.SetExpected({{"over_running", 240, 240, 3}});
    for (const hostsim::ClockMode mode : {hostsim::ClockMode::Real, hostsim::ClockMode::Virtual}) {
        if (mode == hostsim::ClockMode::Virtual) hostsim::ClockUseVirtual(0);
        TripLog trip(&drive, 100);  // a cycle's slack: each step may be that much late
        trip.OnBus(Msg(500, 6699, Status(true)));
        for (int step = 1; step <= 300; ++step) {
            const long long t = step * 1050;
            trip.OnBus(Msg(t, 6702, Table(10)));
            trip.OnBus(Msg(t + 1, 6720, Words(step >= 240 && step < 250 ? 4 : 0)));
        }
        trip.Finish(300 * 1050);
        hostsim::ClockUseReal(0);
        const std::vector<std::string> problems = trip.Problems();
        EXPECT_NEAR(trip.MeanStepMs(), 1050.0, 0.01);
        if (mode == hostsim::ClockMode::Real) {
            EXPECT_TRUE(problems.empty()) << problems.front();
        } else {
            ASSERT_EQ(problems.size(), 1u);
            EXPECT_EQ(problems[0], "engine over-running came at 0:04:12, expected at 0:04:00");
        }
    }
}

// Problems are the plug-in's only when the host kept its pace and the settings are the ones the
// drive's checks assume.
TEST(Summary, VerdictBlamesThePlugInOnlyForWhatItDid) {
    Drive drive;
    drive.SetExpected({{"over_running", 20, 6, 3}});
    struct Case {
        long long behindMs;
        std::string unjudged;
        bool problem;
        std::string verdict, text;
    };
    for (const Case& c : std::vector<Case>{
             {0, "", false, "behaved", "Verdict: the plug-in behaved (timing to within 0.5 s)"},
             {250, "", true, "misbehaved",
              "Verdict: the plug-in MISBEHAVED (timing to within 0.8 s)"},
             {251, "", true, "host behind",
              "Verdict: not judged: obd-sim fell behind the pace of --speed 20 by up to 0.3 s"},
             {251, "", false, "behaved", "Verdict: the plug-in behaved (timing to within 0.8 s)"},
             {0, "--box-stream-ms 0: the box sends no data stream", true, "not judged",
              "Verdict: not judged (--box-stream-ms 0: the box sends no data stream)\n  seen: "},
         }) {
        TripLog trip(&drive, 0);
        trip.OnBus(Msg(500, 6699, Status(true)));
        for (int s = 1; s <= 30; ++s) {
            trip.OnBus(Msg(s * 1000, 6702, Table(10)));
            trip.OnBus(Msg(s * 1000, 6720, Words(c.problem || (s >= 20 && s < 26) ? 4 : 0)));
        }
        trip.Finish(30000);
        RunFacts facts;
        facts.slackMs = 500;
        facts.behindMs = c.behindMs;
        facts.speed = "20";
        facts.unjudged = c.unjudged;
        const Json summary = SummaryJson(trip, nullptr, facts);
        EXPECT_EQ(summary["verdict"], c.verdict) << c.behindMs << c.unjudged;
        EXPECT_NE(SummaryText(summary).find(c.text), std::string::npos) << SummaryText(summary);
    }
}

TEST(Direct, ComparisonNamesEveryEpisodeThatDiffers) {
    auto a = [](const char* key, double start, double duration, int level) {
        return Json{{"key", key}, {"start_s", start}, {"duration_s", duration}, {"level", level}};
    };
    const Json direct = {a("battery_voltage", 121, 81, 3), a("over_running", 300, 10, 2),
                         a("over_running", 400, 5, 1)};
    const Json sameOver = {a("over_running", 300, 10, 2), a("over_running", 400, 5, 1)};
    auto with = [&](Json first, const Json& rest) {
        Json j = Json::array({std::move(first)});
        for (const Json& x : rest) j.push_back(x);
        return j;
    };
    const std::string bat = "at 0:02:01 for 81 s, level 3";
    const std::vector<std::tuple<const char*, Json, std::vector<std::string>>> cases = {
        {"the same", direct, {}},
        {"a second either way",
         {a("battery_voltage", 122, 80, 3), a("over_running", 299, 11, 2),
          a("over_running", 401, 4, 1)},
         {}},
        {"started 2 s late",
         with(a("battery_voltage", 123, 81, 3), sameOver),
         {"battery voltage " + bat + " only in the direct analysis",
          "battery voltage at 0:02:03 for 81 s, level 3 only in the replay"}},
        {"2 s shorter",
         with(a("battery_voltage", 121, 79, 3), sameOver),
         {"battery voltage at 0:02:01 for 79 s, level 3 in the replay, " + bat +
          " in the direct analysis"}},
        {"another level",
         with(a("battery_voltage", 121, 81, 2), sameOver),
         {"battery voltage at 0:02:01 for 81 s, level 2 in the replay, " + bat +
          " in the direct analysis"}},
        {"an episode missing",
         {a("battery_voltage", 121, 81, 3), a("over_running", 300, 10, 2)},
         {"engine over-running at 0:06:40 for 5 s, level 1 only in the direct analysis"}},
        {"an episode more",
         with(a("parking_close_engine", 50, 10, 1), direct),
         {"parking close engine at 0:00:50 for 10 s only in the replay"}},
        {"no alarms of a summary",
         Json{{"alarms", 1}},
         {"engine over-running at 0:05:00 for 10 s, level 2 only in the direct analysis",
          "engine over-running at 0:06:40 for 5 s, level 1 only in the direct analysis",
          "battery voltage " + bat + " only in the direct analysis"}},
    };
    for (const auto& [what, replay, said] : cases) {
        EXPECT_EQ(CompareAlarms(replay, direct, 1.0).differences, said) << what;
    }
    EXPECT_NE(CompareAlarms(direct, direct, 1.0)
                  .table.find("  battery voltage                  1       1        81        81\n"),
              std::string::npos)
        << CompareAlarms(direct, direct, 1.0).table;
}

TEST(Direct, AnalysesEachSecondOfTheDriveOnceToItsEnd) {
    // Idling at 13 V (below the charging limit) from 0 to 200 s: the analyser raises the battery
    // alarm in its 121st second (at 120 s, broadcast at 121 s) and keeps it to the drive's last
    // second, 200 s: 81 seconds.
    Drive d;
    d.SetChannel({OBD_IDX_ENGINE_SPEED, Drive::Mode::Hold, {0, 200}, {800, 800}});
    d.SetChannel({OBD_IDX_SPEED, Drive::Mode::Hold, {0}, {0}});
    d.SetChannel({OBD_IDX_BATTERY_VOLT, Drive::Mode::Hold, {0}, {13}});
    ReferenceAnalyser r;
    std::string error;
    ASSERT_TRUE(r.Load(OBD_PLUGIN_PATH, error)) << error;
    const Json alarms = DirectAlarms(d, r);
    ASSERT_EQ(alarms.size(), 1u) << alarms.dump();
    EXPECT_EQ(alarms[0]["key"], "battery_voltage");
    EXPECT_EQ(alarms[0]["level"], 3);
    EXPECT_EQ(alarms[0]["start_s"], 121.0);
    EXPECT_EQ(alarms[0]["duration_s"], 81.0);
    EXPECT_EQ(alarms[0]["active"], true);
}

TEST(Reference, LoadsItsOwnCopyOfTheAnalyser) {
    std::string error;
    ReferenceAnalyser missing;
    EXPECT_FALSE(missing.Load("/nonexistent/lib.so", error));
    EXPECT_NE(error.find("/nonexistent/lib.so"), std::string::npos) << error;
#ifdef HOST_TEST_PLUGIN
    error.clear();
    ReferenceAnalyser other;
    EXPECT_FALSE(other.Load(HOST_TEST_PLUGIN, error));
    EXPECT_NE(error.find("analyser function missing"), std::string::npos) << error;
#endif
    // The fuel of an idle is counted once the idling alarm rises, from a process-wide running
    // sum: with one copy shared, the first analyser's idle would land in the second's count.
    ReferenceAnalyser a, b;
    ASSERT_TRUE(a.Load(OBD_PLUGIN_PATH, error)) << error;
    ASSERT_TRUE(b.Load(OBD_PLUGIN_PATH, error)) << error;
    auto idle = [](ReferenceAnalyser& r, int s) {
        DriveSample x;
        for (int i : {OBD_IDX_SPEED, OBD_IDX_ENGINE_SPEED, OBD_IDX_FUEL})
            x.present.set(static_cast<size_t>(i));
        x.value[OBD_IDX_ENGINE_SPEED] = 800;
        x.value[OBD_IDX_FUEL] = 10.0f + 0.001f * static_cast<float>(s);
        r.Frame(x);
        r.Second();
    };
    idle(b, 0);
    for (int s = 0; s < 100; ++s) idle(a, s);
    for (int s = 1; s <= 300; ++s) idle(b, s);
    GdsStatisticsData_t_ st{};
    EconomyStatisticsData_t_ eco{};
    ASSERT_TRUE(b.Statistics(st, eco));
    EXPECT_NEAR(st.base.idleAlarmFuel, 0.3, 0.002);
    EXPECT_EQ(st.base.idleTime, 301u);
    EXPECT_EQ(eco.idleOverTime[1], 301u - 180u + 1u);  // idle counter 180 s to 301 s
}

// A replay hands the analysers the items of the box's data-stream frames as the box's value
// source gave them: every float bit for bit (escaped bytes included), and nothing from a frame
// the plug-in would refuse or that is not the box's data stream.
TEST(Replay, DataStreamItemsAreTheFramesValuesOrNothing) {
    auto item = [](uint8_t id, float v) {
        obdbox::ByteVec b{id, 0, 0, 0, 0};
        std::memcpy(b.data() + 1, &v, 4);
        return b;
    };
    auto cat = [](std::initializer_list<obdbox::ByteVec> parts) {
        obdbox::ByteVec out;
        for (const obdbox::ByteVec& p : parts) out.insert(out.end(), p.begin(), p.end());
        return out;
    };
    // 0x7E in a value: escaped on the line, whole again in the record.
    float escaped = 0;
    const uint8_t escapedBytes[4] = {0x7E, 0x7D, 0x7F, 0x41};
    std::memcpy(&escaped, escapedBytes, 4);
    const obdbox::ByteVec good = cat({item(1, 42.5F), item(59, escaped)});
    struct Case {
        const char* name;
        obdbox::ByteVec frame;
        bool ok;
    };
    using obdbox::BoxEmulator;
    const Case cases[] = {
        {"first and last item", BoxEmulator::EncodeFrame(0x2C81, good, 3, false, false, false),
         true},
        {"escaped", BoxEmulator::EncodeFrame(0x2C81, good, 3, true, false, false), true},
        {"no items", BoxEmulator::EncodeFrame(0x2C81, {}, 3, false, false, false), false},
        {"an item cut short",
         BoxEmulator::EncodeFrame(0x2C81, cat({good, {7, 0, 0}}), 3, false, false, false), false},
        {"id 0", BoxEmulator::EncodeFrame(0x2C81, item(0, 1.0F), 3, false, false, false), false},
        {"id 60", BoxEmulator::EncodeFrame(0x2C81, item(60, 1.0F), 3, false, false, false), false},
        {"another code", BoxEmulator::EncodeFrame(0x2C10, good, 3, false, false, false), false},
        {"bad checksum", BoxEmulator::EncodeFrame(0x2C81, good, 3, false, false, true), false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::vector<obdframe::Record> r =
            obdframe::DecodeStream(c.frame.data(), c.frame.size(), obdframe::Dir::FromBox);
        ASSERT_EQ(r.size(), 1u);
        DriveSample items;
        items.present.set(5);  // left as it was when nothing is taken
        ASSERT_EQ(DataStreamItems(r.front(), items), c.ok);
        if (!c.ok) {
            EXPECT_EQ(items.present.count(), 1u);
            continue;
        }
        EXPECT_EQ(items.present.count(), 2u);
        EXPECT_TRUE(items.present[0] && items.present[58]);
        EXPECT_EQ(std::memcmp(&items.value[0], good.data() + 1, 4), 0);
        EXPECT_EQ(std::memcmp(&items.value[58], escapedBytes, 4), 0);
    }
    // A frame towards the box is never the box's data stream, whatever its code.
    obdframe::Record toBox;
    toBox.kind = obdframe::Kind::Frame;
    toBox.dir = obdframe::Dir::ToBox;
    toBox.checksumOk = true;
    toBox.body = cat({{3, 0x2C, 0x81}, good});
    DriveSample items;
    EXPECT_FALSE(DataStreamItems(toBox, items));
}

}  // namespace
}  // namespace obdsim

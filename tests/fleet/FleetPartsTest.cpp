// What-if threshold files against the analyser's own record, the fleet table's rows from trip
// summaries, and synthetic trips read back as obd-sim reads them.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <sstream>

#include "Fleet.h"
#include "GdsLogicAnalyser.h"
#include "ObdNames.h"
#include "Scenario.h"
#include "Synth.h"
#include "Thresholds.h"

namespace {

using obdfleet::Json;

TEST(Thresholds, TheNamedFieldsCoverEachOfThe238BytesOnce) {
    std::vector<int> covered(obdsim::kThresholdBytes, 0);
    size_t next = 0;
    for (const obdsim::ThresholdField& f : obdsim::ThresholdFields()) {
        EXPECT_EQ(f.offset, next) << f.name;  // in offset order, no gap
        ASSERT_LE(f.offset + f.size, covered.size()) << f.name;
        for (size_t i = 0; i < f.size; ++i) ++covered[f.offset + i];
        next = f.offset + f.size;
        EXPECT_EQ(obdsim::FindThresholdField(f.name), &f) << f.name;
    }
    for (size_t i = 0; i < covered.size(); ++i) EXPECT_EQ(covered[i], 1) << "byte " << i;
}

// Each name lands on the field the analyser's code calls so, and on nothing else.
TEST(Thresholds, ANameWritesItsOwnFieldOfTheAnalysersRecord) {
    // The field as the analyser's code names it, read from the record.
#define FIELD(member) [](const tagGdsParam_t& g) -> long long { return g.member; }
    struct Case {
        const char* json;
        long long (*read)(const tagGdsParam_t&);
        long long want;
    };
    const Case cases[] = {
        {R"({"accLevel1": -5})", FIELD(alarmThreshold.accLevel1), -5},
        {R"({"speedAccLevel3": 65535})", FIELD(alarmThreshold.speedAccLevel3), 65535},
        {R"({"revving.engineSpeed1": 2500})", FIELD(alarmThreshold.revving.engineSpeed1), 2500},
        {R"({"revving": {"engineSpeed3": 3200}})", FIELD(alarmThreshold.revving.engineSpeed3),
         3200},
        {R"({"voltage.chargeVolt12": 1300})", FIELD(alarmThreshold.voltage.chargeVolt12), 1300},
        {R"({"throttle.level[2].throttle": 200})", FIELD(alarmThreshold.throttle.level[2].throttle),
         200},
        {R"({"throttle": {"level": [{}, {"speed": 40}]}})",
         FIELD(alarmThreshold.throttle.level[1].speed), 40},
        {R"({"parkingCloseEngine.mileageLimit": -32768})",
         FIELD(alarmThreshold.parkingCloseEngine.mileageLimit), -32768},
        {R"({"highSpeedStartEngine.warmUpTime": 30})",
         FIELD(alarmThreshold.highSpeedStartEngine.warmUpTime), 30},
        {R"({"reserved180[9]": 7})", FIELD(alarmThreshold.reserved180[9]), 7},
        {R"({"engineSpeedBand[7]": 3000})", FIELD(statThreshold.engineSpeedBand[7]), 3000},
        {R"({"speedBand": [0, 20, 40, 80, 110]})", FIELD(statThreshold.speedBand[4]), 110},
        {R"({"idleMinuteBand[3]": 45})", FIELD(statThreshold.idleMinuteBand[3]), 45},
        {R"({"reserved45[2]": 255})", FIELD(statThreshold.reserved45[2]), 255},
    };
#undef FIELD
    for (const Case& c : cases) {
        SCOPED_TRACE(c.json);
        std::vector<obdsim::ThresholdEdit> edits;
        std::string error;
        ASSERT_TRUE(obdsim::ParseThresholds(c.json, edits, error)) << error;
        tagGdsParam_t g;
        std::memset(static_cast<void*>(&g), 0, sizeof(g));
        auto* bytes = reinterpret_cast<uint8_t*>(&g);
        obdsim::ApplyThresholds(edits, bytes);
        EXPECT_EQ(c.read(g), c.want);
        // Only the named bytes changed, and never past the 238.
        size_t changed = 0;
        for (size_t i = 0; i < sizeof(g); ++i) changed += bytes[i] != 0 ? 1 : 0;
        size_t named = 0;
        for (const auto& e : edits) {
            named += e.field->size;
            EXPECT_EQ(obdsim::ThresholdValue(*e.field, bytes), e.value);
        }
        EXPECT_LE(changed, named);
        for (size_t i = obdsim::kThresholdBytes; i < sizeof(g); ++i) ASSERT_EQ(bytes[i], 0) << i;
    }
}

TEST(Thresholds, AFileWithABadFieldIsRefusedWhole) {
    const std::pair<const char*, const char*> cases[] = {
        {R"({"revving.engineSpeed4": 1})", "unknown threshold field \"revving.engineSpeed4\""},
        {R"({"revving": 2500})", "unknown threshold field \"revving\""},
        {R"({"rpm": 2500})", "unknown threshold field \"rpm\""},
        {R"({"speedBand": [0, 1, 2, 3, 4, 5]})", "unknown threshold field \"speedBand[5]\""},
        {R"({"revving.engineSpeed1": 40000})", "40000 is outside -32768..32767"},
        {R"({"speedAccLevel1": -1})", "-1 is outside 0..65535"},
        {R"({"throttle.level[0].throttle": 256})", "256 is outside 0..255"},
        {R"({"accLevel1": 1.5})", "is not a whole number"},
        {R"({"accLevel1": "8"})", "is not a whole number"},
        {R"({"accLevel1": 8, "accLevel2": 9, "accLevel1 ": 1})", "unknown threshold field"},
        {R"({"voltage.lowVolt12": 1100, "voltage": {"lowVolt12": 1000}})", "given twice"},
        {R"([{"accLevel1": 8}])", "not a JSON object"},
        {R"({"accLevel1": 8)", "not JSON"},
    };
    for (const auto& [text, why] : cases) {
        std::vector<obdsim::ThresholdEdit> edits = {{&obdsim::ThresholdFields()[0], 1}};
        std::string error;
        EXPECT_FALSE(obdsim::ParseThresholds(text, edits, error)) << text;
        EXPECT_NE(error.find(why), std::string::npos) << text << ": " << error;
        EXPECT_TRUE(edits.empty()) << text;
    }
}

TEST(FleetTable, DriverAndDateComeFromTheFolderNames) {
    const std::vector<std::array<std::string, 3>> cases = {
        {"alonso/20231229_151643/20231229_151643_col.csv", "alonso", "2023-12-29"},
        {"vehicle-0007/20260107_000000/trip.csv", "vehicle-0007", "2026-01-07"},
        {"trip.csv", "-", ""},
        {"bus 12/2024/a20240105b.csv", "bus 12", "2024-01-05"},
        {"v/20231399/x.csv", "v", ""},                     // no 13th month
        {"v/120231229/x.csv", "v", ""},                    // nine digits are no date
        {"v/x/20240230_20240301.csv", "v", "2024-02-30"},  // the first; no calendar of months
    };
    for (const auto& [path, driver, date] : cases) {
        const obdfleet::Place p = obdfleet::PlaceOf(path);
        EXPECT_EQ(p.driver, driver) << path;
        EXPECT_EQ(p.date, date) << path;
    }
    EXPECT_EQ(obdfleet::TripId("a/b/c_col.csv"), "a__b__c_col");
}

Json Episode(const char* key, double start, double duration) {
    return {{"key", key}, {"start_s", start}, {"duration_s", duration}};
}

TEST(FleetTable, ARowCountsTheSummarysAlarmsAndSaysWhyATripDidNotReplay) {
    obdfleet::TripResult t;
    t.id = "d__20240101__t";
    t.file = "d/20240101/t.csv";
    t.status = 0;
    t.summary = {
        {"vehicle_s", 2000.0},
        {"alarms",
         Json::array({Episode("over_running", 10, 30), Episode("battery_voltage", 0, 1000),
                      Episode("over_running", 100, 20)})},
        {"statistics", {{"distance_km", 40.0}, {"drive_s", 1800}, {"idle_s", 180}, {"fuel_l", 0}}},
        {"what_if", Json::array({{{"name", "rpm"},
                                  {"alarms", Json::array({Episode("over_running", 10, 5)})}}})},
        {"link",
         {{"from_box", {{"frames", 99}, {"bad_checksum", 2}}},
          {"data_stream", {{"gaps", 1}, {"longest_ms", 3500}}}}},
        {"box", {{"link_up_s", 6.0}}}};
    Json row = obdfleet::TripRow(t);
    EXPECT_EQ(row["status"], "ok");
    EXPECT_EQ(row["driver"], "d");
    EXPECT_EQ(row["drive_h"], 0.5);
    EXPECT_EQ(row["idle_h"], 0.05);
    const Json& over = row["alarms"]["over_running"];
    EXPECT_EQ(over["n"], 2);
    EXPECT_EQ(over["s"], 50.0);
    EXPECT_EQ(over["per100km"], 5.0);
    EXPECT_EQ(over["pct"], 2.5);
    EXPECT_EQ(row["alarms"]["battery_voltage"]["pct"], 50.0);
    EXPECT_EQ(row["alarms"]["cold_start"]["n"], 0);
    EXPECT_EQ(row["alarms"].size(), static_cast<size_t>(obdsim::kAlarmCount));
    EXPECT_EQ(row["what_if"]["rpm"]["over_running"]["s"], 5.0);
    EXPECT_FALSE(row["what_if"]["rpm"].contains("battery_voltage"));
    EXPECT_EQ(row["link"]["bad_checksum"], 2.0);
    EXPECT_EQ(row["link"]["longest_gap_s"], 3.5);
    EXPECT_EQ(row["link"]["link_up_s"], 6.0);

    // Too short a trip has no rate per 100 km.
    t.summary["statistics"]["distance_km"] = 0.2;
    EXPECT_TRUE(obdfleet::TripRow(t)["alarms"]["over_running"]["per100km"].is_null());

    struct Case {
        int status;
        bool summary;
        const char* err;
        const char* wantStatus;
        const char* wantReason;
    };
    const Case cases[] = {
        {1, false, "obd-sim: scenario note\nobd-sim: cannot read scenario x.csv: no rows\n",
         "failed", "cannot read scenario x.csv: no rows"},
        {1, false, "fleet: the file is cut off (its last line has no line end)\n", "failed",
         "the file is cut off (its last line has no line end)"},
        {3, true, "obd-sim: plug-in misbehaved: crashed\n", "misbehaved", "link lost at 0:10:00"},
        {3, false, "\nobd-sim: plug-in misbehaved: crashed (SIGSEGV) at vehicle second 12\n\n",
         "failed", "plug-in misbehaved: crashed (SIGSEGV) at vehicle second 12"},
        {6, true, "", "diverged",
         "replay diverged at 1200 ms: answer to 348 recorded, nothing now"},
        {6, false, "obd-sim: cannot load plug-in: x.so\n", "failed", "cannot load plug-in: x.so"},
        {139, false, "", "failed", "obd-sim ended with status 139"},
        {-1, false, "", "not run", "no finished run in the job log"},
    };
    for (const Case& c : cases) {
        obdfleet::TripResult f = t;
        f.status = c.status;
        f.err = c.err;
        if (c.summary) {
            f.summary["problems"] = Json::array({"link lost at 0:10:00"});
            f.summary["replay"] = {{"first", "1200 ms: answer to 348 recorded, nothing now"}};
        } else {
            f.summary = Json();
        }
        const Json r = obdfleet::TripRow(f);
        EXPECT_EQ(r["status"], c.wantStatus) << c.err;
        EXPECT_EQ(r["reason"], c.wantReason) << c.err;
        EXPECT_EQ(r["km"].is_null(), !c.summary) << c.err;
    }
}

// A summary file holds whatever was written to it: fields of the wrong type count as missing.
TEST(FleetTable, ASummaryOfOtherShapesGivesARowNotACrash) {
    const char* shapes[] = {
        R"({"alarms": 5})",
        R"({"alarms": [1, "x", {"key": 7, "duration_s": "long"}, {"key": "throttle"}], "vehicle_s": "a"})",
        R"({"alarms": [], "statistics": [1], "link": {"from_box": 3, "commands": null}, "box": 1})",
        R"({"alarms": [], "what_if": [{"name": 1}, {"name": "w", "alarms": {"a": 1}}], "problems": 2})",
        R"({"alarms": [], "statistics": {"distance_km": "far"}, "box": {"link_up_s": "soon"}})",
    };
    for (const char* text : shapes) {
        obdfleet::TripResult t;
        t.id = "x";
        t.file = "x.csv";
        t.status = 3;
        t.summary = Json::parse(text);
        Json row;
        ASSERT_NO_THROW(row = obdfleet::TripRow(t)) << text;
        EXPECT_EQ(row["status"], "misbehaved") << text;
        const Json fleet = {
            {"rows", Json::array({row})}, {"sets", Json::array()}, {"kinds", Json::array()}};
        EXPECT_NO_THROW(obdfleet::FleetCsv(fleet)) << text;
        EXPECT_NO_THROW(obdfleet::FleetHtml(fleet)) << text;
        EXPECT_NO_THROW(obdfleet::FleetText(fleet)) << text;
    }
}

TEST(FleetTable, TheCsvQuotesReasonsAndKeepsOneCellPerColumn) {
    obdfleet::TripResult ok;
    ok.id = "a";
    ok.file = "a.csv";
    ok.status = 0;
    ok.summary = {{"vehicle_s", 100.0},
                  {"alarms", Json::array({Episode("throttle", 1, 2)})},
                  {"what_if", Json::array({{{"name", "w"}, {"alarms", Json::array()}}})}};
    obdfleet::TripResult bad;
    bad.id = "b";
    bad.file = "b.csv";
    bad.status = 1;
    bad.err = "obd-sim: cannot read scenario b.csv: column \"speed\": \"1,5\" is not a number\n";
    const Json fleet = {{"rows", Json::array({obdfleet::TripRow(ok), obdfleet::TripRow(bad)})},
                        {"sets", Json::array({"w"})},
                        {"kinds", Json::array({"throttle"})}};
    const std::string csv = obdfleet::FleetCsv(fleet);
    std::istringstream in(csv);
    std::vector<std::vector<std::string>> lines;
    for (std::string line; std::getline(in, line);) {
        std::vector<std::string> cells;
        std::string cell;
        bool quoted = false;
        for (size_t i = 0; i < line.size(); ++i) {
            const char ch = line[i];
            if (ch == '"' && quoted && i + 1 < line.size() && line[i + 1] == '"') {
                cell += '"';
                ++i;
            } else if (ch == '"') {
                quoted = !quoted;
            } else if (ch == ',' && !quoted) {
                cells.push_back(cell);
                cell.clear();
            } else {
                cell += ch;
            }
        }
        cells.push_back(cell);
        lines.push_back(cells);
    }
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[1].size(), lines[0].size());
    EXPECT_EQ(lines[2].size(), lines[0].size());
    auto at = [&](const std::string& name) {
        return static_cast<size_t>(std::find(lines[0].begin(), lines[0].end(), name) -
                                   lines[0].begin());
    };
    EXPECT_EQ(lines[2][at("reason")],
              "cannot read scenario b.csv: column \"speed\": \"1,5\" is not a number");
    EXPECT_EQ(lines[1][at("throttle_s")], "2");
    EXPECT_EQ(lines[1][at("throttle_pct")], "2");
    EXPECT_EQ(lines[1][at("w:throttle_s")], "0");  // the set raised none of it
    EXPECT_EQ(lines[2][at("w:throttle_s")], "");   // no replay, no figure
    EXPECT_EQ(lines[2][at("throttle_n")], "");
}

TEST(Synth, ATripReadsBackAsTheDriveAtEverySecond) {
    obdsim::Drive drive("d");
    obdsim::Drive::Channel speed;
    speed.id = OBD_IDX_SPEED;
    speed.t = {0, 10, 20};
    speed.v = {0, 83.3333f, 12.5f};
    drive.SetChannel(speed);
    obdsim::Drive::Channel mileage;  // absent for the first 5 s, then a large reading
    mileage.id = OBD_IDX_MILEAGE2;
    mileage.t = {5, 20};
    mileage.v = {1000000.25f, 1000000.75f};
    drive.SetChannel(mileage);
    obdsim::Drive::Channel accX;
    accX.id = obdsim::kAccX;
    accX.t = {0, 20};
    accX.v = {0.5f, -0.25f};
    drive.SetChannel(accX);
    for (bool motion : {false, true}) {
        std::ostringstream text;
        obdfleet::WriteTrip(drive, motion, text);
        char path[] = "/tmp/fleet-synthXXXXXX";
        const int fd = mkstemp(path);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(write(fd, text.str().data(), text.str().size()),
                  static_cast<ssize_t>(text.str().size()));
        close(fd);
        obdsim::Drive back;
        std::string error;
        const bool read = obdsim::LoadScenario(path, {}, back, error);
        unlink(path);
        ASSERT_TRUE(read) << error << "\n" << text.str();
        EXPECT_EQ(back.HasMotion(), motion);
        for (int s = 0; s <= 20; ++s) {
            const obdsim::DriveSample want = drive.ItemsAt(s), got = back.ItemsAt(s);
            for (int i : {OBD_IDX_SPEED, OBD_IDX_MILEAGE2}) {
                EXPECT_EQ(got.present[i], want.present[i]) << s << " " << i;
                EXPECT_EQ(got.value[i], want.value[i]) << s << " " << i;
            }
            if (motion) {
                EXPECT_FLOAT_EQ(back.MotionAt(s).acc[0], drive.MotionAt(s).acc[0]) << s;
            }
        }
    }
}

TEST(Synth, AVehicleIsItsSeedsDriveEveryTime) {
    char dir[] = "/tmp/fleet-synthXXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    std::string error;
    auto slurp = [](const std::string& p) {
        std::stringstream s;
        s << std::ifstream(p).rdbuf();
        return s.str();
    };
    const std::string a = obdfleet::WriteVehicle(std::string(dir) + "/1", 5, 2, 0.05, false, error);
    const std::string b = obdfleet::WriteVehicle(std::string(dir) + "/2", 5, 2, 0.05, false, error);
    const std::string c = obdfleet::WriteVehicle(std::string(dir) + "/3", 6, 2, 0.05, false, error);
    ASSERT_FALSE(a.empty() || b.empty() || c.empty()) << error;
    EXPECT_EQ(a, std::string(dir) + "/1/vehicle-0003/20260103_000000/trip.csv");
    const std::string text = slurp(a);
    EXPECT_EQ(text, slurp(b));
    EXPECT_NE(text, slurp(c));
    // A twentieth of an hour, a row a second.
    const auto rows = std::count(text.begin(), text.end(), '\n');
    EXPECT_GE(rows, 150);
    EXPECT_LE(rows, 400);
    std::system(("rm -rf " + std::string(dir)).c_str());
}

}  // namespace

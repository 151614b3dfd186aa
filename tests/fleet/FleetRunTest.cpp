// obd-sim's what-if thresholds on a real recorded trip, and scripts/fleet.sh end to end on a
// small fleet with broken trip files: GNU parallel runs it, the joblog resumes it, the table
// agrees with each trip's own summary, and the page renders in headless Chromium.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <map>
#include <sstream>

#include "Direct.h"
#include "Fleet.h"
#include "ObdNames.h"
#include "SimProcess.h"

namespace {

using obdfleet::Json;

const std::string kTrip = OBD_SOURCE_DIR "/tests/data/polidriving/andres_20231222_134710.csv";

class FleetRun : public obdsim::RunDirTest {
  protected:
    void SetUp() override {
#ifdef OBD_TEST_EMULATED
        GTEST_SKIP() << "runs the native programs and GNU parallel";
#endif
        RunDirTest::SetUp();
    }
    int Shell(const std::string& cmd, int seconds = 110) {
        const int code =
            obdsim::RunShell(cmd + " </dev/null >" + dir + "/out 2>" + dir + "/err", seconds);
        out = Slurp("/out");
        err = Slurp("/err");
        return code;
    }
    void Write(const std::string& name, const std::string& text) {
        std::ofstream(dir + name, std::ios::binary) << text;
    }
    Json ReadJson(const std::string& name) const {
        const Json j = Json::parse(Slurp(name), nullptr, false);
        return j.is_discarded() ? Json() : j;
    }
    std::string out, err;
};

double Seconds(const Json& alarms, const char* key) {
    double s = 0;
    for (const Json& a : alarms) s += a["key"] == key ? a["duration_s"].get<double>() : 0.0;
    return s;
}

// A set that changes nothing is the plug-in's own analysis, episode for episode; raised limits
// cut exactly the alarms they govern, and a refused file stops the run before it starts.
TEST_F(FleetRun, WhatIfThresholdsAreTheAnalysersAnswerOnTheSameSamples) {
    Write("/same.json", "{}");
    Write("/rpm.json",
          R"({"revving": {"engineSpeed1": 2500, "engineSpeed2": 2800, "engineSpeed3": 3200}})");
    Write("/volt.json", R"({"voltage.chargeVolt12": 1300})");
    ASSERT_EQ(Shell(std::string(OBD_SIM) + " --scenario " + kTrip + " --columns polidriving" +
                    " --thresholds " + dir + "/same.json --thresholds " + dir + "/rpm.json" +
                    " --thresholds " + dir + "/volt.json --summary-json " + dir + "/s.json"),
              0)
        << err;
    const Json s = ReadJson("/s.json");
    ASSERT_TRUE(s.contains("what_if")) << s.dump().substr(0, 300);
    ASSERT_EQ(s["what_if"].size(), 3u);
    const Json& same = s["what_if"][0];
    const Json& rpm = s["what_if"][1];
    const Json& volt = s["what_if"][2];
    EXPECT_EQ(same["name"], "same");
    EXPECT_EQ(rpm["thresholds"]["revving.engineSpeed1"], 2500);
    const obdsim::AlarmComparison c = obdsim::CompareAlarms(s["alarms"], same["alarms"], 0.0);
    EXPECT_TRUE(c.differences.empty()) << c.table << c.differences[0];
    EXPECT_EQ(same["alarms"].size(), s["alarms"].size());

    const double over = Seconds(s["alarms"], "over_running");
    const double battery = Seconds(s["alarms"], "battery_voltage");
    ASSERT_GT(over, 600);
    ASSERT_GT(battery, 3600);
    EXPECT_GT(Seconds(rpm["alarms"], "over_running"), 0);
    EXPECT_LT(Seconds(rpm["alarms"], "over_running"), over / 2);
    EXPECT_EQ(Seconds(rpm["alarms"], "battery_voltage"), battery);
    EXPECT_LT(Seconds(volt["alarms"], "battery_voltage"), battery / 10);
    EXPECT_EQ(Seconds(volt["alarms"], "over_running"), over);
    // Only the over-running limits moved: every other kind is as the plug-in raised it.
    for (int k = 0; k < obdsim::kAlarmCount; ++k) {
        const char* key = obdsim::Alarm(k).key;
        if (std::string(key) == "over_running") continue;
        EXPECT_EQ(Seconds(rpm["alarms"], key), Seconds(s["alarms"], key)) << key;
    }
    EXPECT_NE(out.find("What if (rpm: "), std::string::npos) << out.substr(0, 200);

    Write("/bad.json", R"({"revving": {"engineSpeed": 2500}})");
    EXPECT_EQ(Shell(std::string(OBD_SIM) + " --scenario " + kTrip + " --columns polidriving" +
                    " --thresholds " + dir + "/bad.json --summary-json " + dir + "/bad-s.json"),
              2);
    EXPECT_NE(err.find("unknown threshold field \"revving.engineSpeed\""), std::string::npos)
        << err;
    EXPECT_TRUE(Slurp("/bad-s.json").empty());
}

// Rows of the joblog: trip id (from the command line's summary path) to its count of runs.
std::map<std::string, int> Logged(const std::string& joblog) {
    std::map<std::string, int> runs;
    std::istringstream in(joblog);
    std::string line;
    std::getline(in, line);
    while (std::getline(in, line)) {
        const size_t at = line.find("/trips/");
        if (at == std::string::npos) continue;
        const size_t end = line.find('/', at + 7);
        ++runs[line.substr(at + 7, end - at - 7)];
    }
    return runs;
}

TEST_F(FleetRun, AFleetReplaysReportsItsBrokenTripsAndResumes) {
    // Two short real trips of two drivers, and three files that cannot be replayed.
    std::ifstream in(kTrip);
    std::string header, line, first, second;
    std::getline(in, header);
    for (int i = 0; i < 900 && std::getline(in, line); ++i)
        (i < 600 ? first : second) += line + "\n";
    const std::string fleet = dir + "/fleet";
    for (const char* sub : {"/andres/20231222_134710", "/pablo/20231123_094610", "/bad"})
        ASSERT_EQ(Shell("mkdir -p " + fleet + sub), 0);
    Write("/fleet/andres/20231222_134710/trip.csv", header + "\n" + first);
    Write("/fleet/pablo/20231123_094610/trip.csv", header + "\n" + second);
    Write("/fleet/bad/empty.csv", "");
    Write("/fleet/bad/cut.csv", header + "\n" + first.substr(0, first.size() / 2 + 7));
    Write("/fleet/bad/columns.csv", "t,speed,engine_speed\n0,0,800\n1,10,1200\n");
    Write("/rpm.json", R"({"revving.engineSpeed1": 2500})");
    const std::string run = "env OBD_SIM=" OBD_SIM " OBD_FLEET=" OBD_FLEET " bash " OBD_FLEET_SCRIPT
                            " --columns polidriving --report --jobs 2 --thresholds " +
                            dir + "/rpm.json --out " + dir + "/run " + fleet;
    ASSERT_EQ(Shell(run), 6) << out << err;
    EXPECT_NE(out.find("this call replayed 5 of 5 trips"), std::string::npos) << out;

    Json table;
    std::string error;
    ASSERT_TRUE(obdfleet::ReadFleet(dir + "/run", table, error)) << error;
    std::map<std::string, Json> rows;
    for (const Json& r : table["rows"]) rows[r["trip"].get<std::string>()] = r;
    ASSERT_EQ(rows.size(), 5u);
    const std::map<std::string, std::string> reasons = {
        {"bad__empty", "Header missing"},
        {"bad__cut", "cut off (its last line has no line end)"},
        {"bad__columns", "no column \"time\""}};
    for (const auto& [id, why] : reasons) {
        EXPECT_EQ(rows[id]["status"], "failed") << id;
        EXPECT_NE(rows[id]["reason"].get<std::string>().find(why), std::string::npos)
            << id << ": " << rows[id]["reason"];
    }
    // Each replayed trip's row holds what its own summary says, counted afresh here.
    for (const char* id : {"andres__20231222_134710__trip", "pablo__20231123_094610__trip"}) {
        const Json& r = rows[id];
        ASSERT_EQ(r["status"], "ok") << id << r["reason"];
        const Json s = ReadJson(std::string("/run/trips/") + id + "/summary.json");
        ASSERT_TRUE(s.is_object()) << id;
        EXPECT_EQ(r["km"], std::round(s["statistics"]["distance_km"].get<double>() * 100) / 100);
        int raised = 0;
        for (int k = 0; k < obdsim::kAlarmCount; ++k) {
            const char* key = obdsim::Alarm(k).key;
            int n = 0;
            for (const Json& a : s["alarms"]) n += a["key"] == key;
            raised += n;
            EXPECT_EQ(r["alarms"][key]["n"], n) << id << " " << key;
            EXPECT_EQ(r["alarms"][key]["s"], Seconds(s["alarms"], key)) << id << " " << key;
        }
        EXPECT_GT(raised, 0) << id;
        EXPECT_EQ(r["what_if"]["rpm"].value("over_running", Json::object()).value("s", 0.0),
                  Seconds(s["what_if"][0]["alarms"], "over_running"));
        EXPECT_EQ(r["report"], std::string("trips/") + id + "/report.html");
        struct stat st {};
        EXPECT_EQ(stat((dir + "/run/" + r["report"].get<std::string>()).c_str(), &st), 0);
    }
    EXPECT_EQ(rows["andres__20231222_134710__trip"]["date"], "2023-12-22");
    EXPECT_EQ(rows["pablo__20231123_094610__trip"]["driver"], "pablo");

    // Done trips are not run again; a trip cut short (no joblog row, its files half written)
    // is, alone.
    ASSERT_EQ(Shell(run), 6) << out << err;
    EXPECT_NE(out.find("this call replayed 0 of 5 trips"), std::string::npos) << out;
    const std::string joblog = Slurp("/run/joblog");
    std::string kept;
    std::istringstream rowsIn(joblog);
    for (std::string l; std::getline(rowsIn, l);) {
        if (l.find("/trips/pablo__") == std::string::npos) kept += l + "\n";
    }
    Write("/run/joblog", kept);
    ASSERT_EQ(Shell("rm " + dir + "/run/trips/pablo__20231123_094610__trip/status"), 0);
    ASSERT_EQ(Shell(run), 6) << out << err;
    EXPECT_NE(out.find("this call replayed 1 of 5 trips"), std::string::npos) << out;
    const std::map<std::string, int> runs = Logged(Slurp("/run/joblog"));
    EXPECT_EQ(runs.size(), 5u);
    for (const auto& [id, n] : runs) EXPECT_EQ(n, 1) << id;
    ASSERT_TRUE(obdfleet::ReadFleet(dir + "/run", table, error)) << error;
    ASSERT_EQ(table["rows"].size(), 5u);
    EXPECT_EQ(table["rows"][4]["trip"], "pablo__20231123_094610__trip");  // in the list's order
    EXPECT_EQ(table["rows"][4]["status"], "ok") << table["rows"][4].dump();

    // Another run's settings in the same folder are refused, not mixed in.
    EXPECT_EQ(
        Shell("env OBD_SIM=" OBD_SIM " OBD_FLEET=" OBD_FLEET " bash " OBD_FLEET_SCRIPT " --out " +
              dir + "/run " + fleet),
        2);
    EXPECT_NE(err.find("holds another run"), std::string::npos) << err;

#ifdef OBD_CHROMIUM
    // The page as a person sees it: every chart painted, a row per trip, the failed ones with
    // their reason, the worst trips linked to their own pages, the what-if set beside the
    // defaults with the values of the table.
    const std::string page = dir + "/run/fleet.html";
    ASSERT_EQ(Shell(OBD_CHROMIUM " --headless --no-sandbox --disable-gpu --window-size=1300,1800"
                                 " --dump-dom 'file://" +
                    page + "#kind=over_running'"),
              0);
    const size_t at = out.find("<output id=\"layout\" hidden=\"\">");
    ASSERT_NE(at, std::string::npos) << out.substr(0, 400);
    const size_t from = out.find('>', at) + 1;
    const Json layout =
        Json::parse(out.substr(from, out.find("</output>", from) - from), nullptr, false);
    ASSERT_TRUE(layout.is_object());
    EXPECT_EQ(layout["kind"], "over_running");
    EXPECT_EQ(layout["sets"], Json::array({"defaults", "rpm"}));
    EXPECT_EQ(layout["trips"], 2);
    EXPECT_EQ(layout["drivers"], 2);
    for (const auto& [chart, painted] : layout["painted"].items()) {
        EXPECT_GT(painted.get<int>(), 2000) << chart;
    }
    ASSERT_EQ(layout["values"].size(), 2u);
    EXPECT_EQ(layout["values"][0][0],
              rows["andres__20231222_134710__trip"]["alarms"]["over_running"]["pct"]);
    size_t trips = 0, failed = 0;
    for (size_t p = 0; (p = out.find("<tr data-trip=", p)) != std::string::npos; ++p) ++trips;
    for (size_t p = 0; (p = out.find("class=\"failed\"", p)) != std::string::npos; ++p) ++failed;
    EXPECT_EQ(trips, 5u);
    EXPECT_EQ(failed, 3u);
    EXPECT_NE(out.find("cut off (its last line has no line end)"), std::string::npos);
    for (const char* id : {"andres__20231222_134710__trip", "pablo__20231123_094610__trip"}) {
        EXPECT_NE(out.find(std::string("<tr data-worst=\"") + id + "\"><td><a href=\"trips/" + id +
                           "/report.html\">"),
                  std::string::npos)
            << id;
    }
#elif defined(OBD_BROWSER_MISSING)
    FAIL() << "the page's browser check needs " OBD_BROWSER_MISSING;
#endif
}

// The Slurm task script, run as task 0 of its array would be: the same layout and table as
// fleet.sh's, and a second submission leaves the trips that have a status alone.
// A trip and the capture recorded from it are two rows that agree in every column but their
// names; a damaged capture is listed as failed with the reader's reason.
TEST_F(FleetRun, ACaptureTripGivesTheRowOfItsCsvTrip) {
    std::ifstream in(kTrip);
    std::string text, line;
    for (int i = 0; i < 301 && std::getline(in, line); ++i) text += line + "\n";
    const std::string trip = dir + "/fleet/andres/20231222_134710/trip";
    ASSERT_EQ(Shell("mkdir -p " + dir + "/fleet/andres/20231222_134710 " + dir + "/fleet/bad"), 0);
    Write("/fleet/andres/20231222_134710/trip.csv", text);
    Write("/rpm.json", R"({"revving.engineSpeed1": 2500})");
    ASSERT_EQ(Shell(std::string(OBD_SIM) + " --scenario " + trip + ".csv --columns polidriving" +
                    " --capture " + trip + ".pcap"),
              0)
        << err;
    ASSERT_EQ(Shell("head -c -5 " + trip + ".pcap > " + dir + "/fleet/bad/cut.pcap"), 0);
    ASSERT_EQ(Shell("env OBD_SIM=" OBD_SIM " OBD_FLEET=" OBD_FLEET " bash " OBD_FLEET_SCRIPT
                    " --columns polidriving --jobs 2 --thresholds " +
                    dir + "/rpm.json --out " + dir + "/result " + dir + "/fleet"),
              6)
        << err;
    Json fleet;
    std::string error;
    ASSERT_TRUE(obdfleet::ReadFleet(dir + "/result", fleet, error)) << error;
    std::map<std::string, Json> rows;
    for (const Json& r : fleet["rows"]) rows[r["file"].get<std::string>()] = r;
    ASSERT_EQ(rows.size(), 3u) << fleet.dump();
    Json csv = rows["andres/20231222_134710/trip.csv"];
    Json cap = rows["andres/20231222_134710/trip.pcap"];
    EXPECT_EQ(csv["status"], "ok") << csv["reason"];
    EXPECT_GT(csv["km"].get<double>(), 1.0);
    EXPECT_FALSE(csv["what_if"].empty());
    for (Json* r : {&csv, &cap}) {
        r->erase("trip");
        r->erase("file");
    }
    EXPECT_EQ(csv, cap);
    const Json cut = rows["bad/cut.pcap"];
    EXPECT_EQ(cut["status"], "failed");
    EXPECT_NE(cut["reason"].get<std::string>().find("truncated"), std::string::npos) << cut;
}

TEST_F(FleetRun, TheSlurmTaskReplaysItsBlockOfTheList) {
    std::ifstream in(kTrip);
    std::string text, line;
    for (int i = 0; i < 400 && std::getline(in, line); ++i) text += line + "\n";
    const std::string fleet = dir + "/fleet";
    ASSERT_EQ(Shell("mkdir -p " + fleet + "/andres"), 0);
    Write("/fleet/andres/20231222.csv", text);
    Write("/fleet/andres/cut.csv", text.substr(0, text.size() - 3));
    const std::string env = "env OBD_SIM=" OBD_SIM " OBD_FLEET=" OBD_FLEET " OUT=" + dir +
                            "/run FLEET=" + fleet +
                            " SLURM_ARRAY_TASK_ID=0 SLURM_SUBMIT_DIR=/nowhere "
                            "ARGS='--columns polidriving' ";
    ASSERT_EQ(Shell("env OBD_SIM=" OBD_SIM " OBD_FLEET=" OBD_FLEET " bash " OBD_FLEET_SCRIPT
                    " --list-only --out " +
                    dir + "/run " + fleet),
              0)
        << err;
    ASSERT_EQ(Shell(env + "bash " OBD_SOURCE_DIR "/scripts/fleet.sbatch"), 0) << err;
    Json table;
    std::string error;
    ASSERT_TRUE(obdfleet::ReadFleet(dir + "/run", table, error)) << error;
    ASSERT_EQ(table["rows"].size(), 2u);
    EXPECT_EQ(table["rows"][0]["trip"], "andres__20231222");
    EXPECT_EQ(table["rows"][0]["status"], "ok") << table["rows"][0]["reason"];
    EXPECT_EQ(table["rows"][0]["date"], "2023-12-22");
    EXPECT_EQ(table["rows"][1]["status"], "failed");
    EXPECT_EQ(table["rows"][1]["reason"], "the file is cut off (its last line has no line end)");
    ASSERT_EQ(Shell("rm " + dir + "/run/trips/andres__20231222/summary.json"), 0);
    ASSERT_EQ(Shell(env + "bash " OBD_SOURCE_DIR "/scripts/fleet.sbatch"), 0) << err;
    EXPECT_TRUE(Slurp("/run/trips/andres__20231222/summary.json").empty());
}

}  // namespace

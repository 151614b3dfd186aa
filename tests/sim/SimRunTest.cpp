// obd-sim end to end: the real plug-in, loaded as the recorder loads it, against the built-in box
// playing the built-in drive, the example scenarios and a real recorded trip, on virtual time.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include "Decode.h"
#include "Drive.h"
#include "Report.h"
#include "GdsLogicAnalyser.h"
#include "Scenario.h"
#include "SimProcess.h"

namespace obdsim {
namespace {

const std::string kScenarios = OBD_SOURCE_DIR "/tools/obd-sim/scenarios/";
const std::string kTrip = OBD_SOURCE_DIR "/tests/data/polidriving/andres_20231222_134710.csv";

class SimRun : public RunDirTest {
  protected:
    // Starts obd-sim with `args` (stdout, stderr to files; stdin empty).
    void Start(const std::string& args) {
        pid = SpawnShell(OBD_SIM_LAUNCHER " " OBD_SIM " " + args + " </dev/null >" + dir +
                         "/out 2>" + dir + "/err");
        ASSERT_GT(pid, 0);
    }
    // Its exit code, -1 when it did not end by itself within `seconds`.
    int Finish(int seconds = 100) {
        const int code = WaitExit(pid, seconds);
        out = Slurp("/out");
        err = Slurp("/err");
        return code;
    }
    int Run(const std::string& args, int seconds = 100) {
        Start(args);
        return Finish(seconds);
    }
    Json Summary() const {
        Json j = Json::parse(Slurp("/summary.json"), nullptr, false);
        return j.is_discarded() ? Json() : j;
    }
    static std::multiset<std::string> Keys(const Json& summary) {
        std::multiset<std::string> keys;
        for (const Json& a : summary["alarms"]) keys.insert(a["key"].get<std::string>());
        return keys;
    }
    static std::multiset<std::string> Keys(const Drive& d) {
        std::multiset<std::string> keys;
        for (const ExpectedAlarm& e : d.Expected()) keys.insert(e.key);
        return keys;
    }
    std::string out, err;
    pid_t pid = -1;
};

// On the serial line, and in CAN-box mode, where the box is reached through bus messages (6899
// out, 6898 back) that obd-sim relays to the same built-in box: the same drive, the same alarms.
TEST_F(SimRun, BuiltInDriveGivesEachAlarmOnceAndDecodedMessages) {
    const struct {
        const char* args;
        bool canBox;
    } modes[] = {{"", false}, {" --product-type 72", true}};
    const Drive drive = BuiltinDrive();
    for (const auto& mode : modes) {
        SCOPED_TRACE(mode.args);
        ASSERT_EQ(Run("--speed max --json --summary-json " + dir + "/summary.json" + mode.args), 0)
            << err;
        const Json s = Summary();
        EXPECT_TRUE(s["ok"].get<bool>()) << s["problems"].dump();
        EXPECT_EQ(Keys(s), Keys(drive));
        // An alarm without levels has none in the JSON either, as the text's "-" says.
        for (const Json& a : s["alarms"]) {
            EXPECT_EQ(a["level"].is_null(), a["key"] == "cold_start") << a.dump();
        }
        EXPECT_NE(err.find("        -  cold start\n"), std::string::npos) << err;
        const float km = drive.ItemsAt(drive.DurationS()).value[OBD_IDX_MILEAGE] -
                         drive.ItemsAt(0).value[OBD_IDX_MILEAGE];
        EXPECT_NEAR(s["statistics"]["distance_km"].get<double>(), km, 0.01);
        EXPECT_GT(s["statistics"]["brake_count"].get<int>(), 0);
        // In CAN-box mode the plug-in asks for no device information.
        if (!mode.canBox) {
            EXPECT_EQ(s["box"]["version"]["hw_name"], "EMU-OBD-BOX");
        }
        EXPECT_NE(err.find("Trip summary: built-in drive"), std::string::npos) << err;
        // The link as the plug-in saw it, over the line or the relay: every command answered,
        // every frame whole.
        const Json& link = s["link"];
        ASSERT_TRUE(link.is_object()) << s.dump();
        EXPECT_GT(link["commands"]["sent"].get<int>(), 80);
        EXPECT_EQ(link["commands"]["answered"], link["commands"]["sent"]);
        EXPECT_GT(link["data_stream"]["frames"].get<int>(), 880);
        EXPECT_EQ(link["from_box"]["cut_off"], 0);
        EXPECT_EQ(link["from_box"]["bad_checksum"], 0);
        // Every data message shows the plug-in's table following the drive: its speed is one the
        // drive had in the seconds before; every alarm message names alarms of the summary.
        std::istringstream lines(out);
        int data = 0, records = 0, wire = 0, toBox = 0, fromBox = 0;
        for (std::string line; std::getline(lines, line);) {
            const Json j = Json::parse(line, nullptr, false);
            ASSERT_FALSE(j.is_discarded()) << line;
            if (j["kind"] == "wire") {
                ++wire;
                continue;
            }
            const double t = j["t_ms"].get<double>() / 1000.0;
            if (j["id"] == 6899) ++toBox;
            if (j["id"] == 6898) {
                // Relayed to the plug-in, a CAN frame's data at a time, its count in front.
                EXPECT_EQ(j["kind"], "inbound") << line;
                const size_t len = j["len"].get<size_t>();
                EXPECT_TRUE(len > 4 && len <= 12) << line;
                EXPECT_EQ(j["decoded"]["length"], len - 4) << line;
                ++fromBox;
            }
            if (j["id"] == 6702 && j["decoded"]["items"].contains("speed")) {
                const double v = j["decoded"]["items"]["speed"].get<double>();
                float lo = 1e9f, hi = -1e9f;
                for (int k = 0; k <= 400; ++k) {
                    const float at = drive.ItemsAt(t - 4.0 + k / 100.0).value[OBD_IDX_SPEED];
                    lo = std::min(lo, at);
                    hi = std::max(hi, at);
                }
                EXPECT_TRUE(v >= lo - 0.01 && v <= hi + 0.01) << t << ": " << v;
                ++data;
            }
            if (j["id"] == 6720) {
                for (const Json& a : j["decoded"]["alarms"]) {
                    EXPECT_EQ(Keys(s).count(a["key"].get<std::string>()), 1u) << line;
                }
            }
            if (j["id"] == 6714) records += j["decoded"]["record_count"].get<int>();
        }
        EXPECT_GT(data, 800);
        EXPECT_GT(records, 500);  // a frame that changes nothing makes no record
        // The box's bytes reach the plug-in one way only: the line or the bus.
        if (mode.canBox) {
            EXPECT_EQ(wire, 0);
            EXPECT_EQ(toBox, link["commands"]["sent"].get<int>());
            EXPECT_GT(fromBox, 5000);  // some 900 frames of 40 to 60 bytes, 8 at a time
        } else {
            EXPECT_GT(wire, 1000);
            EXPECT_EQ(toBox + fromBox, 0);
        }
    }
}

TEST_F(SimRun, ExampleScenariosGiveTheAlarmsTheyName) {
    for (const char* name : {"overheating", "rough-road", "hill-town"}) {
        const std::string file = kScenarios + name + ".csv";
        EXPECT_EQ(
            Run("--scenario " + file + " --speed max --summary-json " + dir + "/summary.json"), 0)
            << name << ": " << out;
        Drive d;
        std::string error;
        ASSERT_TRUE(LoadScenario(file, {}, d, error)) << error;
        EXPECT_EQ(Keys(Summary()), Keys(d)) << name;
        // Off a terminal stdout carries the summary and nothing else.
        EXPECT_EQ(out.rfind(std::string("Trip summary: scenario ") + name + ".csv, ", 0), 0u)
            << out;
    }
}

// Stretches of the trip where `holds` is true, as [begin, end] vehicle seconds, looked at every
// 0.1 s; breaks shorter than `bridge` seconds are bridged (a data-stream frame may fall on either
// side of them).
template <typename Holds>
std::vector<std::pair<double, double>> Stretches(const Drive& d, Holds holds, double bridge) {
    std::vector<std::pair<double, double>> s;
    for (int k = 0; k <= static_cast<int>(d.DurationS() * 10); ++k) {
        const double t = k / 10.0;
        const DriveSample x = d.ItemsAt(t);
        // The analyser truncates values to integers.
        if (!holds(static_cast<int>(x.value[OBD_IDX_SPEED]),
                   static_cast<int>(x.value[OBD_IDX_ENGINE_SPEED]))) {
            continue;
        }
        if (s.empty() || t - s.back().second > bridge + 0.15) s.push_back({t, t});
        s.back().second = t;
    }
    return s;
}

TEST_F(SimRun, RealTripGivesWhatItsDriverWouldRecognise) {
    if (std::string(OBD_SIM_LAUNCHER).size() > 0) {
        GTEST_SKIP() << "168 minutes of trip are too long for an emulated target";
    }
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the scenarios run under the sanitizer; the long trip runs in the plain build";
#endif
    // On virtual time the trip replays in seconds, every plug-in cycle in its place; the distance
    // comes from the reference analyser, which counts vehicle time exactly.
    ASSERT_EQ(Run("--scenario " + kTrip + " --columns polidriving --speed max --summary-json " +
                      dir + "/summary.json",
                  110),
              0)
        << err.substr(0, 2000) << out;
    const Json s = Summary();
    Drive trip;
    std::vector<ColumnMap> map;
    std::string error;
    ASSERT_TRUE(ParseColumns("polidriving", map, error) && LoadScenario(kTrip, map, trip, error));
    std::vector<double> idling;
    std::vector<std::pair<double, double>> revving;  // [start, end] of each over-running alarm
    for (const Json& a : s["alarms"]) {
        const double start = a["start_s"].get<double>();
        if (a["key"] == "idling_timeout") idling.push_back(start);
        if (a["key"] == "over_running") {
            revving.push_back({start, start + a["duration_s"].get<double>()});
        }
        EXPECT_NE(a["key"], "coolant_high") << "the trip peaks at 96 C";
    }
    // The 5-minute idle: the idling alarm 240 s into it.
    const auto idles = Stretches(
        trip, [](int v, int rpm) { return v == 0 && rpm > 0; }, 0);
    const auto longest = *std::max_element(idles.begin(), idles.end(), [](auto a, auto b) {
        return a.second - a.first < b.second - b.first;
    });
    EXPECT_GT(longest.second - longest.first, 300);
    ASSERT_EQ(idling.size(), 1u) << s["alarms"].dump();
    EXPECT_GE(idling[0], longest.first + 238);
    EXPECT_LE(idling[0], longest.second + 2);
    // Over-running only where the engine stayed above 1800 rpm while moving, and in every such
    // stretch of 20 s or more. The box's stream pauses while the plug-in restarts it every 10 s,
    // at this scale for a second or two of host time, in which the plug-in's table keeps its last
    // values: a dip below 1800 rpm shorter than 3 s may pass unseen.
    auto revs1800 = [](int v, int rpm) { return v > 0 && rpm > 1800; };
    const auto revs = Stretches(trip, revs1800, 3.0);
    for (const auto& alarm : revving) {
        EXPECT_TRUE(std::any_of(
            revs.begin(), revs.end(),
            [&](auto r) { return alarm.first >= r.first + 4 && alarm.first <= r.second + 3; }))
            << "over-running at " << alarm.first;
    }
    for (const auto& r : Stretches(trip, revs1800, 0)) {
        if (r.second - r.first < 20) continue;
        EXPECT_TRUE(
            std::any_of(revving.begin(), revving.end(),
                        [&](auto a) { return a.first <= r.second + 3 && a.second >= r.first; }))
            << "no over-running in " << r.first << "-" << r.second;
    }
    const double logged = trip.ItemsAt(trip.DurationS()).value[OBD_IDX_MILEAGE];
    EXPECT_NEAR(s["statistics"]["distance_km"].get<double>(), logged, 0.03 * logged);
    // Every alarm of the replay is one that the trip's rows give when they go straight into the
    // analyser, one analysis a second: the same episodes, starts and seconds.
    EXPECT_EQ(Run("--scenario " + kTrip + " --columns polidriving --direct-check " + dir +
                  "/summary.json"),
              0)
        << out << err;
    EXPECT_NE(out.find("Verdict: the replay gives the direct analysis's alarms"), std::string::npos)
        << out;
}

// The README's recipe for a log that obd-frame reads: both directions, each frame at its time.
TEST_F(SimRun, TracedRunDecodesToRequestsAndAnswersAtTheirTimes) {
    ASSERT_EQ(
        RunShell(OBD_SIM_LAUNCHER
                 " " OBD_SIM " --speed max --trace --log-level 2 --dump-level 2 --duration 12 >" +
                 dir + "/run.log 2>&1 </dev/null"),
        0)
        << Slurp("/run.log");
    ASSERT_EQ(RunShell(OBD_SIM_LAUNCHER " " OBD_FRAME " " + dir + "/run.log >" + dir + "/out 2>" +
                       dir + "/err"),
              0)
        << Slurp("/err");
    const std::string frames = Slurp("/out");
    EXPECT_EQ(frames.rfind("# log input, source wire", 0), 0u) << frames.substr(0, 400);
    EXPECT_NE(frames.find("0 ms  to_box  seq 1  STOP_TS (0x2C04)"), std::string::npos) << frames;
    EXPECT_NE(frames.find("0 ms  from_box  seq 1  STOP_TS_ACK (0x6C04)"), std::string::npos);
    // The stream's frames a second apart, as the box sent them.
    EXPECT_NE(frames.find("\n1000 ms  from_box"), std::string::npos) << frames;
    EXPECT_NE(frames.find(", 0 bad checksum, 0 unknown code, 0 truncated"), std::string::npos);
}

TEST_F(SimRun, AlarmStillOnAtTheEndCountsToTheEndOfTheTrip) {
    // Idling at 13 V: the battery alarm from the analyser's 121st second to the drive's last,
    // 200 s: 81 seconds in the summary, its JSON and the report alike.
    std::ofstream(dir + "/idle.csv") << "t,speed,engine_speed,battery_volt\n0,0,800,13\n200,,,\n";
    ASSERT_EQ(Run("--scenario " + dir + "/idle.csv --speed max --summary-json " + dir +
                  "/summary.json --report " + dir + "/trip.html"),
              0)
        << err;
    const Json s = Summary();
    ASSERT_EQ(s["alarms"].size(), 1u) << s["alarms"].dump();
    EXPECT_EQ(s["alarms"][0]["key"], "battery_voltage");
    EXPECT_EQ(s["alarms"][0]["duration_s"], 81.0);
    EXPECT_EQ(s["alarms"][0]["active"], true);
    EXPECT_NE(out.find("0:01:21        3  battery voltage (still on at the end)"),
              std::string::npos)
        << out;
    EXPECT_NE(Slurp("/trip.html").find("0:01:21 (on at the end)"), std::string::npos);
}

TEST_F(SimRun, UnusableScenarioOrMisbehavingPlugInEndsWithItsReason) {
    std::ofstream(dir + "/bad.csv") << "t,speed\n0,1\n1,fast\n";
    std::ofstream(dir + "/other.json") << R"({"source": "scenario x.csv", "alarms": []})";
    const std::vector<std::tuple<std::string, int, std::string>> cases = {
        {"--scenario /nonexistent/trip.csv", 1, "cannot read scenario"},
        {"--scenario " + dir + "/bad.csv", 1, "bad.csv:3: column \"speed\": \"fast\" is not"},
        {"--no-box --scenario " + dir + "/bad.csv", 2, "--scenario needs the built-in box"},
        {"--columns polidriving", 2, "--columns needs --scenario"},
        {"--scenario " + dir + "/bad.csv --columns nosuch", 2, "unknown column preset"},
        {"--gaps hold", 2, "--gaps needs --scenario"},
        {"--scenario " + dir + "/bad.csv --gaps ramp", 2, "--gaps: ramp not in {hold,interpolate}"},
        {"--direct-check " + dir + "/s.json --json", 2, "--direct-check runs no plug-in"},
        {"--direct-check /nonexistent/s.json", 1, "cannot read /nonexistent/s.json"},
        // Infinity is max (which a real box refuses); a factor that would wrap host time is not.
        {"--speed inf --serial /dev/null", 2, "--speed max: a real box keeps real time"},
        {"--time-scale 1e300", 2, "--time-scale: must be a number above 0 and at most 100 "},
        {"--speed 101", 2, "--speed: must be a number above 0 and at most 100 "},
        {"--direct-check " + dir + "/bad.csv", 1, "bad.csv: not a summary written by"},
        // A box without a data stream is the user's choice: nothing for the plug-in to answer for.
        {"--speed max --duration 30 --box-stream-ms 0", 0,
         "Verdict: not judged (--box-stream-ms 0: the box sends no data stream)\n  seen: the "
         "plug-in never reported the OBD link up"},
        {"--direct-check " + dir + "/other.json", 1,
         "the summary of scenario x.csv, not of built-in"},
#ifdef HOST_TEST_PLUGIN
        // A program that is no OBD plug-in: the drive runs, the link never comes up.
        {"--plugin " HOST_TEST_PLUGIN " --speed max --duration 60", 3,
         "obd-sim: plug-in misbehaved: the plug-in never reported the OBD link up\n"},
#endif
    };
    for (const auto& [args, code, said] : cases) {
        EXPECT_EQ(Run(args), code) << args << ": " << err;
        // A failure says why on stderr; a run that ends says it in its summary.
        EXPECT_NE((code == 0 ? out : err).find(said), std::string::npos) << args << ": " << err;
    }
}

TEST_F(SimRun, BoxNamesTheBadArgumentAndExitsTwo) {
    // Each bad value must stop obd-box before it opens a line; one that were taken as absent
    // would leave it running until the deadline kills it.
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"--stream-ms abc", "obd-box: --stream-ms: "},
        {"--garbage -1", "obd-box: --garbage: Value -1 not in range 0 to 4096"},
        {"--split 5000", "obd-box: --split: Value 5000 not in range 0 to 4096"},
        {"--baud 1234", "obd-box: --baud: 1234 not in {"},
        {"--value 60=1", "obd-box: --value 60=1: must be ID=V with ID 1..59 and V a number"},
        {"--value 5=fast", "obd-box: --value 5=fast: must be ID=V"},
        {"--refuse-step 12345", "obd-box: --refuse-step: must be a hex code of at most 4 digits"},
        {"--seed x", "obd-box: Could not convert: --seed = x"},
        {"--drop", "obd-box: --drop: 1 required"},
        {"--frobnicate", "obd-box: The following argument was not expected: --frobnicate"},
        {"stray", "obd-box: The following argument was not expected: stray"},
    };
    for (const auto& [args, said] : cases) {
        const int code = RunShell(OBD_SIM_LAUNCHER " " OBD_BOX " " + args + " </dev/null >" + dir +
                                      "/out 2>" + dir + "/err",
                                  60);
        err = Slurp("/err");
        EXPECT_EQ(code, 2) << args << ": " << err;
        EXPECT_EQ(err.rfind(said, 0), 0u) << args << ": " << err;
    }
    // --help names every default it has, and exits 0.
    ASSERT_EQ(RunShell(OBD_SIM_LAUNCHER " " OBD_BOX " --help >" + dir + "/out", 60), 0);
    out = Slurp("/out");
    for (const char* shown : {"--stream-ms INT:INT in [0 - 3600000]=1000", "--baud", "=115200",
                              "--silent-after-chunks", "=-1", "--seed UINT=1"}) {
        EXPECT_NE(out.find(shown), std::string::npos) << shown << "\n" << out;
    }
}

TEST_F(SimRun, OptionsAreCheckedBeforeTheRunAndToldInOneLine) {
    std::ofstream(dir + "/long.csv") << "t,speed\n0,1\n1e12,2\n";
    std::ofstream(dir + "/wild.csv") << "t,speed,acc_x\n0,-5,0\n1,1e30,0\n2,-3,9\n3,10,0\n";
    const std::string wild = "obd-sim: scenario " + dir + "/wild.csv: column \"speed\": ";
    struct Row {
        std::string args;
        int code;
        std::string line;  // the start of a line of stderr
        bool first;        // and of the first one
    };
    const std::vector<Row> rows = {
        {"--report '' --duration 1", 2, "obd-sim: --report: needs a name, not \"\"", true},
        {"--scenario '' --duration 1", 2, "obd-sim: --scenario: needs a name, not \"\"", true},
        {"--summary-json '' --duration 1", 2, "obd-sim: --summary-json: needs a name, not \"\"",
         true},
        {"--inject '' --duration 1", 2, "obd-sim: --inject: needs a name, not \"\"", true},
        {"--serial ''", 2, "obd-sim: --serial: needs a name, not \"\"", true},
        {"--plugin ''", 2, "obd-sim: --plugin: needs a name, not \"\"", true},
        {"--serial /dev/null --no-box", 2, "obd-sim: --serial excludes --no-box", true},
        {"--json --trace --duration 1", 2, "obd-sim: --json excludes --trace", true},
        {"--time-scale 5 --speed 5 --duration 1", 2, "obd-sim: --speed excludes --time-scale",
         true},
        // Checked before the run, and nothing left behind.
        {"--speed max --summary-json " + dir + "/no/s.json", 1,
         "obd-sim: cannot write " + dir + "/no/s.json: No such file or directory", true},
        {"--speed max --report " + dir, 1, "obd-sim: cannot write " + dir + ": Is a directory",
         true},
        {"--report " + dir + "/trip.html --plugin /nonexistent/lib.so", 1,
         "obd-sim: cannot load plug-in: /nonexistent/lib.so", true},
        // A write that fails at the end says why.
        {"--speed max --duration 3 --summary-json /dev/full", 1,
         "obd-sim: cannot write /dev/full: No space left on device", false},
        {"--scenario " + dir + "/long.csv", 1,
         "obd-sim: cannot read scenario " + dir +
             "/long.csv:3: time 1e12 is past 7 days of vehicle time, the longest trip obd-sim "
             "plays",
         true},
        // One line a column, however many rows.
        {"--scenario " + dir + "/wild.csv --speed max", 0,
         wild + "3 values outside 0 to 16777216 clamped (lowest -5, highest 1e+30)", true},
        {"--scenario " + dir + "/wild.csv --speed max", 0,
         "obd-sim: scenario " + dir +
             "/wild.csv: column \"acc_x\": 1 value outside -8 to 7.999755859 clamped (lowest 9, "
             "highest 9)",
         false},
        {"--time-scale 50 --duration 1", 0, "obd-sim: --time-scale is deprecated: use --speed",
         true},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(Run(r.args, 60), r.code) << r.args << ": " << err.substr(0, 2000);
        const size_t at = ("\n" + err).find("\n" + r.line);
        EXPECT_TRUE(r.first ? at == 0 : at != std::string::npos) << r.args << ": " << err;
        // Said once, not once a use or a row.
        EXPECT_EQ(err.find(r.line, at + 1), std::string::npos) << r.args << ": " << err;
    }
    EXPECT_FALSE(std::ifstream(dir + "/trip.html").good()) << "an empty report left behind";
}

TEST_F(SimRun, AFloodOfBadInjectLinesIsCountedNotPrinted) {
    // Garbage: lines of random bytes, some without an end, and a line no buffer should hold.
    std::string junk;
    unsigned seed = 7;
    for (int line = 0; line < 3000; ++line) {
        for (int k = 0; k < 40; ++k) {
            seed = seed * 1103515245u + 12345u;
            const char c = static_cast<char>(seed >> 16);
            junk += c == '\n' || c == '#' ? 'x' : c;
        }
        junk += '\n';
    }
    junk += std::string(200 * 1024, 'z') + "\n@1000 6729 01\n";
    std::ofstream(dir + "/junk", std::ios::binary) << junk;
    ASSERT_EQ(Run("--speed max --duration 2 --inject " + dir + "/junk"), 0) << err.substr(0, 3000);
    std::istringstream lines(err);
    int told = 0;
    for (std::string line; std::getline(lines, line);)
        told += line.rfind("obd-sim: inject line", 0) == 0;
    EXPECT_EQ(told, 20) << err.substr(0, 3000);
    EXPECT_NE(err.find("obd-sim: inject: 2981 more bad lines not shown\n"), std::string::npos)
        << err.substr(err.size() > 3000 ? err.size() - 3000 : 0);
}

TEST_F(SimRun, DefaultSpeedIsVirtualWithTheBuiltInBoxAndEveryOutputRepeats) {
    // With the built-in box a run is on virtual time unless a speed is asked for; a real box, a
    // bare line or lines typed on stdin keep real time, which the summary then tells.
    const std::vector<std::pair<std::string, bool>> rows = {
        {"--no-box --duration 1", false},
        {"--inject - --duration 1", false},
        {"--duration 1", true},
    };
    for (const auto& [args, virtualTime] : rows) {
        EXPECT_EQ(Run(args + " --summary-json " + dir + "/summary.json", 60), 0) << args << err;
        EXPECT_EQ(Summary().contains("real_s"), !virtualTime) << args;
        EXPECT_EQ(out.find(" of vehicle time in ") == std::string::npos, virtualTime) << out;
    }
    // Two whole default runs print the same bytes: the summary, its JSON and the report.
    std::string first[3];
    for (int run = 0; run < 2; ++run) {
        ASSERT_EQ(Run("--summary-json " + dir + "/summary.json" +
                      (ReportAvailable() ? " --report " + dir + "/trip.html" : "")),
                  0)
            << err;
        const std::string now[3] = {out, Slurp("/summary.json"), Slurp("/trip.html")};
        for (int k = 0; k < 3 && run == 1; ++k) EXPECT_EQ(now[k], first[k]) << k;
        std::copy(now, now + 3, first);
    }
    EXPECT_EQ(out.rfind("Trip summary: built-in drive, 0:14:49 of vehicle time\n", 0), 0u) << out;
}

TEST_F(SimRun, ThreadsAndFibersGiveTheSameBytes) {
    // On virtual time the host's threads run as fibers unless OBD_HOST_FIBERS=0 asks for
    // operating-system threads; the turns, and so every byte of every output, must not change:
    // every message with its time, the summary and the report, in serial and CAN-box mode.
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a build with the thread sanitizer runs threads only: nothing to compare";
#endif
    const std::string report = ReportAvailable() ? " --report " + dir + "/trip.html" : "";
    const std::vector<std::string> rows = {
        "--json",
        "--json --product-type 72 --duration 300",
        "--json --scenario " + kTrip + " --columns polidriving --duration 900",
        "--json --box-garbage 3 --box-escape --box-seed 7 --duration 300",
        "--json --duration 120 --inject " + dir + "/script",
        "--json --duration 120 --product-type 72 --inject " + dir + "/script",
    };
    std::ofstream(dir + "/script") << "@500 6729 01 00 07 00\n@1500 6729 01 00 07 00\n"
                                      "@90000 6729 01 00 07 00\n";
    for (const std::string& args : rows) {
        std::string outputs[2][3];
        for (int fibers = 0; fibers < 2; ++fibers) {
            if (fibers == 0) setenv("OBD_HOST_FIBERS", "0", 1);
            const int code = Run(args + " --summary-json " + dir + "/summary.json" + report);
            unsetenv("OBD_HOST_FIBERS");
            ASSERT_EQ(code, 0) << args << "\n" << err.substr(0, 2000);
            outputs[fibers][0] = out;
            outputs[fibers][1] = Slurp("/summary.json");
            outputs[fibers][2] = Slurp("/trip.html");
        }
        EXPECT_GT(outputs[1][0].size(), 10000u) << args;
        for (int k = 0; k < 3; ++k) EXPECT_TRUE(outputs[0][k] == outputs[1][k]) << args << " " << k;
    }
}

TEST_F(SimRun, HelpShowsEveryDefaultAndTheFirstCommandBuildsEveryToolShown) {
    ASSERT_EQ(Run("--help"), 0) << err;
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"--speed", "max (1 with --serial, --no-box or --inject -)"},
        {"--duration", "the drive's length and 1 s"},
        {"--scenario", "the built-in drive"},
        {"--gaps", "hold with --columns, else interpolate"},
        {"--baud", "115200"},
        {"--box-stream-ms", "1000"},
        {"--box-link-ms", "0"},
        {"--product-type", "0"},
        {"--log-level", "1"},
        {"--dump-level", "0"},
        {"--plugin", "libSerialDevOBD.so"},
    };
    for (const auto& [option, shown] : rows) {
        const size_t at = out.find("  " + option + " ");
        ASSERT_NE(at, std::string::npos) << option << ": " << out;
        const std::string entry = out.substr(at, out.find("\n  -", at + 1) - at);
        EXPECT_NE(entry.find(shown), std::string::npos) << option << ": " << entry;
    }
    // Every program the README runs from build/bin is one the README's first command builds.
    std::stringstream readme, script;
    readme << std::ifstream(OBD_SOURCE_DIR "/README.md").rdbuf();
    script << std::ifstream(OBD_SOURCE_DIR "/scripts/run-sim.sh").rdbuf();
    const std::string text = readme.str(), sh = script.str();
    const size_t targets = sh.find("--target ");
    ASSERT_NE(targets, std::string::npos);
    const std::string built = sh.substr(targets, sh.find('\n', targets) - targets) + " ";
    std::set<std::string> shown;
    for (size_t at = 0; (at = text.find("build/bin/", at)) != std::string::npos;) {
        at += 10;
        size_t end = at;
        while (end < text.size() && (std::isalnum(static_cast<unsigned char>(text[end])) != 0 ||
                                     text[end] == '-' || text[end] == '_'))
            ++end;
        shown.insert(text.substr(at, end - at));
    }
    EXPECT_GE(shown.size(), 3u);
    for (const std::string& tool : shown) {
        EXPECT_NE(built.find(" " + tool + " "), std::string::npos) << tool << ": " << built;
    }
}

TEST_F(SimRun, SignalEndsASlowRunWithItsSummary) {
    // At 0.0001 one host step of 50 ms lasts 500 real seconds: the shutdown must not wait them.
    for (int sig : {SIGTERM, SIGINT}) {
        std::remove((dir + "/err").c_str());  // not the last run's
        Start("--speed 0.0001");
        // The handlers are in place once the plug-in is loaded; at this pace nothing else shows.
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (Slurp("/err").find("loaded, module") == std::string::npos &&
               std::chrono::steady_clock::now() < limit)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        const auto sent = std::chrono::steady_clock::now();
        kill(pid, sig);
        EXPECT_EQ(Finish(20), 0) << strsignal(sig) << ": " << err;
        const double took =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - sent).count();
        std::printf("%s: ended %.3f s after the signal\n", strsignal(sig), took);
        EXPECT_EQ(out.rfind("Trip summary: built-in drive", 0), 0u) << out;
    }
}

TEST_F(SimRun, CrashEndsInOneLineAndTheMisbehaviourStatus) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer's own handler takes the signal";
#endif
    Start("--time-scale 20 --json");
    // Its handler is in place once the run prints (under qemu on a busy machine that can take
    // seconds); a signal before that would end it by the default action.
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (Slurp("/out").empty() && std::chrono::steady_clock::now() < limit)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    kill(pid, SIGSEGV);
    EXPECT_EQ(Finish(), 3);
    EXPECT_NE(err.find("obd-sim: plug-in misbehaved: crashed (SIGSEGV) at vehicle second "),
              std::string::npos)
        << err;
}

}  // namespace
}  // namespace obdsim

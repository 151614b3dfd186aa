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
#include "GdsLogicAnalyser.h"
#include "Scenario.h"
#include "SimProcess.h"

namespace obdsim {
namespace {

const std::string kScenarios = OBD_SOURCE_DIR "/tools/obd-sim/scenarios/";
const std::string kTrip = OBD_SOURCE_DIR "/tests/data/polidriving/andres_20231222_134710.csv";

class SimRun : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_NE(mkdtemp(&dir[0]), nullptr); }
    void TearDown() override { std::system(("rm -rf " + dir).c_str()); }
    std::string Slurp(const std::string& name) const {
        std::stringstream s;
        s << std::ifstream(dir + name).rdbuf();
        return s.str();
    }
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
    std::string dir = "/tmp/obdsimrunXXXXXX", out, err;
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

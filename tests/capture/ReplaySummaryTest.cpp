// A capture replayed with the trip outputs gives the summary of the run it recorded: every field
// but those naming the run itself, on drives with and without inertial samples (which decide the
// order of a second's frame and evaluation), in CAN-box mode, on a poor line and with what-if sets.
// An older capture without run facts still gets its analysis, unjudged; a damaged one none.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "SimProcess.h"

namespace {

using Json = nlohmann::json;

const std::string kData = OBD_TEST_DATA_DIR;

class ReplaySummary : public obdsim::RunDirTest {
  protected:
    int Sim(const std::string& args) {
        return obdsim::RunShell(OBD_SIM_LAUNCHER " " OBD_SIM " " + args + " </dev/null >" + dir +
                                "/out 2>" + dir + "/err");
    }
    Json Read(const std::string& name) const {
        const Json j = Json::parse(Slurp(name), nullptr, false);
        return j.is_discarded() ? Json() : j;
    }
    // The fields that describe the run rather than the trip.
    static Json TripOnly(Json s) {
        for (const char* k : {"source", "real_s", "replay"}) s.erase(k);
        return s;
    }
};

TEST_F(ReplaySummary, ReplayGivesTheRunsSummary) {
    // A real trip cut to its first five minutes, with its rows' line ends kept.
    ASSERT_EQ(obdsim::RunShell("head -n 301 " + kData +
                               "/polidriving/andres_20231222_134710.csv > " + dir + "/short.csv"),
              0);
    std::ofstream(dir + "/rpm.json")
        << R"({"revving": {"engineSpeed1": 2500, "engineSpeed2": 2800, "engineSpeed3": 3200}})";
    struct Case {
        const char* name;
        std::string run;     // obd-sim's arguments for the recorded run
        std::string replay;  // and for the replay, beside --replay and --summary-json
    };
    const std::string whatIf = " --thresholds " + dir + "/rpm.json";
    const Case cases[] = {
        {"recorded trip, no inertial samples, what-if",
         "--scenario " + dir + "/short.csv --columns polidriving" + whatIf, whatIf},
        {"built-in drive: inertial samples, expected alarms", "--duration 120", ""},
        {"CAN-box mode", "--product-type 72 --duration 40", ""},
        {"poor line, raw chunks",
         "--scenario " + kData +
             "/captures/escaping.csv --gaps hold --duration 40 --box-garbage 3 "
             "--box-split 4 --box-escape --box-seed 7 --capture-chunks",
         ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_EQ(Sim(c.run + " --capture " + dir + "/c.pcap --summary-json " + dir + "/a.json"), 0)
            << Slurp("/err");
        ASSERT_EQ(Sim("--replay " + dir + "/c.pcap --summary-json " + dir + "/b.json" + c.replay),
                  0)
            << Slurp("/err");
        const Json a = Read("/a.json");
        const Json b = Read("/b.json");
        ASSERT_TRUE(a.is_object() && b.is_object());
        EXPECT_EQ(TripOnly(a), TripOnly(b));
        // Compared field by field too, so that a failure names the field.
        for (auto it = a.begin(); it != a.end(); ++it) {
            if (it.key() == "source") continue;
            EXPECT_EQ(it.value(), b.value(it.key(), Json())) << it.key();
        }
        EXPECT_NE(a["verdict"], "not judged");
        EXPECT_FALSE(a["statistics"].is_null());
        EXPECT_EQ(b["replay"]["divergences"], 0);
        EXPECT_NE(b["source"].get<std::string>().find(a["source"].get<std::string>()),
                  std::string::npos);
        EXPECT_NE(Slurp("/out").find("replay: identical"), std::string::npos);
    }
}

// The golden CAN-box capture predates the run facts: the plug-in's alarms, the statistics and the
// link come from the replay as from the run that made it; the checks are not run, and say why.
TEST_F(ReplaySummary, OlderCaptureIsAnalysedButNotJudged) {
    ASSERT_EQ(Sim("--product-type 72 --duration 30 --summary-json " + dir + "/a.json"), 0);
    ASSERT_EQ(Sim("--replay " + kData + "/captures/can-box.pcap --summary-json " + dir +
                  "/b.json --report " + dir + "/b.html"),
              0)
        << Slurp("/err");
    const Json a = Read("/a.json");
    const Json b = Read("/b.json");
    ASSERT_TRUE(b.is_object());
    for (const char* k : {"alarms", "statistics", "link", "problems"}) EXPECT_EQ(a[k], b[k]) << k;
    EXPECT_FALSE(b["statistics"].is_null());
    EXPECT_EQ(b["verdict"], "not judged");
    EXPECT_NE(b["unjudged"].get<std::string>().find("does not say what drove the box"),
              std::string::npos);
    EXPECT_NE(Slurp("/b.html").find("<html"), std::string::npos);
}

// Nothing is written for a capture that cannot be read whole, and the run's status tells it.
TEST_F(ReplaySummary, DamagedCaptureWritesNoSummary) {
    ASSERT_EQ(Sim("--duration 5 --capture " + dir + "/run.pcap"), 0);
    ASSERT_EQ(obdsim::RunShell("head -c -3 " + dir + "/run.pcap > " + dir + "/cut.pcap"), 0);
    EXPECT_EQ(Sim("--replay " + dir + "/cut.pcap --summary-json " + dir + "/s.json --report " +
                  dir + "/r.html"),
              1);
    EXPECT_NE(Slurp("/err").find("truncated"), std::string::npos) << Slurp("/err");
    std::ifstream summary(dir + "/s.json"), report(dir + "/r.html");
    EXPECT_FALSE(summary.good());
    EXPECT_FALSE(report.good());
}

}  // namespace

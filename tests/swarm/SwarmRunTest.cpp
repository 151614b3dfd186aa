// obd-swarm end to end: the real plug-in under seeded drives and faults on virtual time.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "Invariants.h"
#include "Schedule.h"
#include "SimProcess.h"

namespace {

class SwarmRun : public obdsim::RunDirTest {
  protected:
    // Runs obd-swarm with `args`; its stdout in `out`, stderr in `err`.
    int Run(const std::string& args) {
        const int code = obdsim::RunShell(OBD_SWARM_LAUNCHER " " OBD_SWARM " " + args +
                                              " </dev/null >" + dir + "/out 2>" + dir + "/err",
                                          110);
        out = Slurp("/out");
        err = Slurp("/err");
        return code;
    }
    std::string out, err;
};

// One seed is one exact run: the same bytes twice, and again from the schedule it wrote.
TEST_F(SwarmRun, OneSeedIsOneRunByteForByteAndReplays) {
    ASSERT_EQ(Run("--seed 12 --hours 0.25 --schedule-out " + dir + "/s.json"), 0) << err;
    const std::string first = out, schedule = Slurp("/s.json");
    EXPECT_EQ(first.rfind("seed 12: ", 0), 0u) << first;
    EXPECT_NE(first.find(": ok; reproduce: obd-swarm --seed 12 --hours 0.25\n"), std::string::npos)
        << first;
    EXPECT_EQ(std::count(first.begin(), first.end(), '\n'), 1);
    ASSERT_EQ(Run("--seed 12 --hours 0.25 --schedule-out " + dir + "/s.json"), 0) << err;
    EXPECT_EQ(out, first);
    EXPECT_EQ(Slurp("/s.json"), schedule);
    ASSERT_EQ(Run("--replay " + dir + "/s.json --json"), 0) << err;
    const nlohmann::json j = nlohmann::json::parse(out, nullptr, false);
    ASSERT_TRUE(j.is_object()) << out;
    EXPECT_EQ(j["seed"], 12);
    EXPECT_EQ(j["result"], "ok");
    EXPECT_EQ(j["reproduce"], "obd-swarm --replay " + dir + "/s.json");
    EXPECT_EQ(
        first.substr(0, first.find(": ok;")),
        "seed 12: " + obdswarm::ClockSeconds(std::llround(j["vehicle_s"].get<double>() * 1000)) +
            " of vehicle time, can-box, faults " + [&] {
                std::string kinds;
                for (const auto& [k, n] : j["faults"].items()) {
                    kinds += (kinds.empty() ? "" : " ") + k + " " + std::to_string(n.get<int>());
                }
                return kinds;
            }());
}

// Seeds whose schedules hold every kind of fault between them, in both modes of the box.
TEST_F(SwarmRun, SeedsWithEveryKindOfFaultRunClean) {
#ifdef OBD_TEST_EMULATED
    const int seeds[] = {11, 13};  // several times slower under an emulator: two of them
#else
    const int seeds[] = {1, 4, 6, 7, 10, 12, 13};
#endif
    for (int seed : seeds) {
        SCOPED_TRACE(seed);
        EXPECT_EQ(Run("--seed " + std::to_string(seed) + " --hours 0.25"), 0) << out << err;
        EXPECT_NE(out.find(": ok; reproduce: "), std::string::npos) << out;
    }
}

// A release mid-drive ends the run there, with the drive counted to that moment, whatever was in
// flight (here an inertial gap open across it).
TEST_F(SwarmRun, AReleaseMidDriveEndsTheRunThere) {
    obdswarm::Schedule s = obdswarm::Draw(8, 0.05);
    s.faults = {{obdswarm::FaultKind::InertialGap, 20000, 90000, 0, 0, 0},
                {obdswarm::FaultKind::Release, 47300, 180000, 0, 0, 0}};
    std::ofstream(dir + "/r.json") << obdswarm::ToJson(s);
    ASSERT_EQ(Run("--replay " + dir + "/r.json --json"), 0) << out << err;
    const nlohmann::json j = nlohmann::json::parse(out, nullptr, false);
    ASSERT_TRUE(j.is_object()) << out;
    EXPECT_EQ(j["result"], "ok") << out;
    EXPECT_DOUBLE_EQ(j["vehicle_s"].get<double>(), 47.3);
    EXPECT_EQ(j["faults"], nlohmann::json::parse(R"({"inertial-gap":1,"release":1})"));
}

// Upgrades and calibrations on a three-minute serial drive: one that ends well, ones the box
// breaks, one the slow flash only slows down, and a calibration the box ignores. Each runs clean
// (the upgrade file, the failure reports and the answer checked by the invariants) and ends as
// the box made it end.
TEST_F(SwarmRun, UpgradesEndAsTheBoxLetsThem) {
    using obdswarm::Fault;
    using obdswarm::FaultKind;
    const struct {
        const char* name;
        Fault fault;
        int succeeded, failed, calibrationAnswers;
    } rows[] = {
        {"a good file",
         {FaultKind::UpgradeTrigger, 20000, 60000, obdswarm::kFileGood, 0, 3},
         1,
         0,
         0},
        {"a second trigger",
         {FaultKind::UpgradeTrigger, 20000, 60000, obdswarm::kFileGood, 300, 3},
         1,
         0,
         0},
        {"the MD5 refused",
         {FaultKind::UpgradeBox, 20000, 60000, obdswarm::kRefuseStep, 3, 3},
         0,
         1,
         0},
        {"silent after 2 chunks",
         {FaultKind::UpgradeBox, 20000, 60000, obdswarm::kSilentAfterChunks, 2, 5},
         0,
         1,
         0},
        {"a slow flash",
         {FaultKind::UpgradeBox, 20000, 60000, obdswarm::kSlowFlash, 300, 3},
         1,
         0,
         0},
        {"a calibration ignored", {FaultKind::Calibration, 20000, 60000, 2, 0, 3}, 0, 0, 1},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        obdswarm::Schedule s = obdswarm::Draw(5, 0.05);
        s.productType = 0;
        s.faults = {r.fault};
        std::ofstream(dir + "/s.json") << obdswarm::ToJson(s);
        ASSERT_EQ(Run("--replay " + dir + "/s.json --json"), 0) << out << err;
        const nlohmann::json j = nlohmann::json::parse(out, nullptr, false);
        ASSERT_TRUE(j.is_object()) << out;
        EXPECT_EQ(j["result"], "ok") << out;
        EXPECT_EQ(j["upgrades"]["succeeded"], r.succeeded) << out;
        EXPECT_EQ(j["upgrades"]["failed"], r.failed) << out;
        EXPECT_GE(j["calibrations"]["answers"], r.calibrationAnswers) << out;
    }
}

TEST_F(SwarmRun, BadArgumentsAndFilesSayWhy) {
    std::ofstream(dir + "/bad.json") << "{\"seed\": 1}";
    const struct {
        std::string args;
        int code;
        const char* says;
    } rows[] = {{"", 2, "--seed S or --replay FILE is needed"},
                {"--seed 1 --replay x.json", 2, "excludes"},
                {"--seed 1 --hours 0", 2, "--hours"},
                {"--replay " + dir + "/none.json", 1, "cannot read schedule"},
                {"--replay " + dir + "/bad.json", 1, "cannot read schedule"},
                {"--seed 1 --plugin " + dir + "/none.so", 1, "cannot load plug-in"},
                {"--seed 1 --bound linkdown=5", 2, "unknown bound 'linkdown'"},
                {"--seed 1 --bound link-down=5s", 2, "'5s' is no number"},
                {"--seed 1 --bound link-down", 2, "'' is no number"},
                {"--seed 1 --shrink --plugin " + dir + "/none.so", 1, "gave no result"}};
    for (const auto& r : rows) {
        SCOPED_TRACE(r.args);
        EXPECT_EQ(Run(r.args), r.code);
        EXPECT_NE(err.find(r.says), std::string::npos) << err;
        EXPECT_EQ(out, "");
    }
}

// A nine-minute drive of seed 17 with three faults of which only the silence can break a tight
// link-down bound: bad values first, the silence, an inertial gap after it.
std::string SilenceAmongOthers(const std::string& dir) {
    obdswarm::Schedule s = obdswarm::Draw(17, 0.15);
    s.faults = {{obdswarm::FaultKind::BadValues, 60000, 90000, 0, -1, 1},
                {obdswarm::FaultKind::Silent, 200000, 215000, 0, 0, 2},
                {obdswarm::FaultKind::InertialGap, 300000, 320000, 0, 0, 3}};
    const std::string file = dir + "/orig.json";
    std::ofstream(file) << obdswarm::ToJson(s);
    return file;
}

// A bound given on the command line is part of the run: in its JSON and in the command that
// repeats it (only where it differs from the default).
TEST_F(SwarmRun, ABoundIsPartOfTheRunAndItsCommand) {
    const std::string orig = SilenceAmongOthers(dir);
    EXPECT_EQ(Run("--replay " + orig + " --bound link-down=1500 --bound release=1000 --json"), 6);
    nlohmann::json j = nlohmann::json::parse(out, nullptr, false);
    ASSERT_TRUE(j.is_object()) << out << err;
    EXPECT_EQ(j["invariant"], "link-down");
    EXPECT_EQ(j["bounds"]["link-down"], 1500);
    EXPECT_EQ(j["bounds"]["link-up"], 3000);
    EXPECT_EQ(j["reproduce"], "obd-swarm --replay " + orig + " --bound link-down=1500");
    EXPECT_EQ(Run("--replay " + orig + " --json"), 0) << out;
    j = nlohmann::json::parse(out, nullptr, false);
    EXPECT_EQ(j["bounds"]["link-down"], 12000);
}

// The shrinker judges each candidate in a child of /proc/self/exe, which under a user-mode
// emulator is the emulator itself: these run natively only.
#ifndef OBD_TEST_EMULATED
// The shrinker on the real plug-in: the silence among three faults of a nine-minute drive comes
// down to a shorter silence alone in a drive of seconds, which breaks the same invariant again
// under the same bound, and nothing under the normal ones.
TEST_F(SwarmRun, ShrinksAViolationToAScheduleThatRepeatsIt) {
    const std::string orig = SilenceAmongOthers(dir), file = dir + "/s.json";
    ASSERT_EQ(Run("--replay " + orig + " --bound link-down=1500 --shrink --shrink-out " + file), 6)
        << out << err;
    EXPECT_EQ(
        out.rfind("seed 17: link-down shrunk from 3 faults, 0:09:00 of drive to 1 fault, ", 0), 0u)
        << out;
    EXPECT_NE(out.find(" candidate runs; reproduce: obd-swarm --replay " + file +
                       " --bound link-down=1500\n"),
              std::string::npos)
        << out;
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1);
    EXPECT_NE(err.find("obd-swarm: shrink: dropped "), std::string::npos) << err;
    const std::string shrunk = Slurp("/s.json");
    obdswarm::Schedule original, s;
    std::string error;
    ASSERT_TRUE(obdswarm::FromJson(Slurp("/orig.json"), original, error)) << error;
    ASSERT_TRUE(obdswarm::FromJson(shrunk, s, error)) << error << shrunk;
    ASSERT_EQ(s.faults.size(), 1u);
    EXPECT_EQ(s.faults[0].kind, obdswarm::FaultKind::Silent);
    EXPECT_LT(s.DriveSeconds(), original.DriveSeconds() / 10);
    EXPECT_LT(s.faults[0].endMs - s.faults[0].startMs, 15000);
    const nlohmann::json j = nlohmann::json::parse(shrunk);
    EXPECT_EQ(j["violates"], "link-down");
    EXPECT_EQ(j["bounds"], nlohmann::json({{"link-down", 1500}}));

    ASSERT_EQ(Run("--replay " + file + " --bound link-down=1500 --json"), 6) << out << err;
    const nlohmann::json again = nlohmann::json::parse(out, nullptr, false);
    ASSERT_TRUE(again.is_object()) << out;
    EXPECT_EQ(again["invariant"], "link-down");
    EXPECT_EQ(again["t_ms"], j["violates_at_ms"]);
    EXPECT_EQ(Run("--replay " + file), 0) << out << err;
    // Same input, same shrunk file.
    ASSERT_EQ(Run("--replay " + orig + " --bound link-down=1500 --shrink --shrink-out " + file), 6);
    EXPECT_EQ(Slurp("/s.json"), shrunk);
}

TEST_F(SwarmRun, ARunWithoutViolationIsNotShrunk) {
    EXPECT_EQ(Run("--seed 17 --hours 0.15 --shrink --shrink-out " + dir + "/s.json"), 0) << err;
    EXPECT_EQ(out,
              "seed 17: no violation, nothing to shrink; reproduce: obd-swarm --seed 17 --hours "
              "0.15\n");
    EXPECT_EQ(Slurp("/s.json"), "");
}

#endif

#ifdef HOST_TEST_PLUGIN
// A plug-in that broadcasts nothing violates the first invariant it meets: one line, status 6.
TEST_F(SwarmRun, AViolationGivesItsLineAndStatusSix) {
    EXPECT_EQ(Run("--seed 2 --hours 0.01 --plugin " HOST_TEST_PLUGIN), 6) << err;
    EXPECT_NE(out.find(": VIOLATION broadcast-period at 0:00:03.100: no 6702 broadcast since the "
                       "start of the run; reproduce: obd-swarm --seed 2 --hours 0.01\n"),
              std::string::npos)
        << out;
}
#endif

}  // namespace

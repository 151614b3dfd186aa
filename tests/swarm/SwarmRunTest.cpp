// obd-swarm end to end: the real plug-in under seeded drives and faults on virtual time.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

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
    EXPECT_EQ(first.rfind("seed 12: 0:15:00 of vehicle time, can-box, faults ", 0), 0u) << first;
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
        "seed 12: 0:15:00 of vehicle time, can-box, faults " + [&] {
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
    const int seeds[] = {4, 11, 13, 19, 24};
#endif
    for (int seed : seeds) {
        SCOPED_TRACE(seed);
        EXPECT_EQ(Run("--seed " + std::to_string(seed) + " --hours 0.25"), 0) << out << err;
        EXPECT_NE(out.find(": ok; reproduce: "), std::string::npos) << out;
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

// A tight bound turns a short silence into a violation; the bound is part of the run's command.
TEST_F(SwarmRun, ABoundIsPartOfTheRunAndItsCommand) {
    EXPECT_EQ(Run("--seed 16 --hours 0.15 --bound link-down=1500 --bound release=1000 --json"), 6);
    nlohmann::json j = nlohmann::json::parse(out, nullptr, false);
    ASSERT_TRUE(j.is_object()) << out << err;
    EXPECT_EQ(j["invariant"], "link-down");
    EXPECT_EQ(j["bounds"]["link-down"], 1500);
    EXPECT_EQ(j["bounds"]["link-up"], 3000);
    EXPECT_EQ(j["reproduce"], "obd-swarm --seed 16 --hours 0.15 --bound link-down=1500");
    EXPECT_EQ(Run("--seed 16 --hours 0.15 --json"), 0) << out;
    j = nlohmann::json::parse(out, nullptr, false);
    EXPECT_EQ(j["bounds"]["link-down"], 12000);
}

// The shrinker judges each candidate in a child of /proc/self/exe, which under a user-mode
// emulator is the emulator itself: these run natively only.
#ifndef OBD_TEST_EMULATED
// The shrinker on the real plug-in: a silence after a fault of bad values in a nine-minute drive
// comes down to a short silence alone in a drive of seconds, which breaks the same invariant again
// under the same bound, and nothing under the normal ones.
TEST_F(SwarmRun, ShrinksAViolationToAScheduleThatRepeatsIt) {
    const std::string file = dir + "/s.json";
    ASSERT_EQ(Run("--seed 17 --hours 0.15 --bound link-down=1500 --schedule-out " + dir +
                  "/orig.json --shrink --shrink-out " + file),
              6)
        << out << err;
    EXPECT_EQ(
        out.rfind("seed 17: link-down shrunk from 2 faults, 0:09:00 of drive to 1 fault, ", 0), 0u)
        << out;
    EXPECT_NE(out.find(" candidate runs; reproduce: obd-swarm --replay " + file +
                       " --bound link-down=1500\n"),
              std::string::npos)
        << out;
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1);
    EXPECT_NE(err.find("obd-swarm: shrink: dropped 1 fault: 1 fault, "), std::string::npos) << err;
    const std::string shrunk = Slurp("/s.json");
    obdswarm::Schedule original, s;
    std::string error;
    ASSERT_TRUE(obdswarm::FromJson(Slurp("/orig.json"), original, error)) << error;
    ASSERT_TRUE(obdswarm::FromJson(shrunk, s, error)) << error << shrunk;
    ASSERT_EQ(s.faults.size(), 1u);
    EXPECT_EQ(s.faults[0].kind, obdswarm::FaultKind::Silent);
    EXPECT_LT(s.DriveSeconds(), original.DriveSeconds() / 10);
    for (const obdswarm::Fault& f : original.faults) {
        if (f.kind == obdswarm::FaultKind::Silent) {
            EXPECT_LT(s.faults[0].endMs - s.faults[0].startMs, f.endMs - f.startMs);
        }
    }
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
    ASSERT_EQ(Run("--seed 17 --hours 0.15 --bound link-down=1500 --shrink --shrink-out " + file),
              6);
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

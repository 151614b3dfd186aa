// scripts/swarm.sh end to end on a few short seeds: GNU parallel runs them, its joblog lets a
// second call resume, and the table at the end sums up what the seeds printed. And the Slurm
// task script, run as one task of its array would be.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "SimProcess.h"

namespace {

class SwarmScript : public obdsim::RunDirTest {
  protected:
    void SetUp() override {
        RunDirTest::SetUp();
        if (std::system("command -v parallel >/dev/null 2>&1") != 0) {
            GTEST_SKIP() << "GNU parallel is not installed (bash scripts/deps.sh installs it)";
        }
    }
    // Runs `script` with `args` (and `env` before it); stdout in `out`, stderr in `err`.
    int Run(const std::string& args, const std::string& env = "",
            const std::string& script = OBD_SWARM_SCRIPT) {
        const int code = obdsim::RunShell(
            "env OBD_SWARM=" OBD_SWARM " OBD_SWARM_LAUNCHER='" OBD_SWARM_LAUNCHER "' " + env +
                " bash " + script + " " + args + " </dev/null >" + dir + "/out 2>" + dir + "/err",
            110);
        out = Slurp("/out");
        err = Slurp("/err");
        return code;
    }
    // The seeds of the joblog's rows, and whether every one exited 0 with no signal.
    std::multiset<int> Logged(const std::string& joblog, bool& allClean) const {
        std::multiset<int> seeds;
        std::istringstream in(Slurp(joblog));
        std::string line;
        std::getline(in, line);  // the header
        allClean = true;
        while (std::getline(in, line)) {
            std::vector<std::string> cols;
            std::istringstream row(line);
            for (std::string c; std::getline(row, c, '\t');) cols.push_back(c);
            if (cols.size() != 9) {
                ADD_FAILURE() << "joblog row: " << line;
                continue;
            }
            allClean = allClean && cols[6] == "0" && cols[7] == "0";
            const size_t at = cols[8].find("--seed ");
            seeds.insert(at == std::string::npos ? -1 : std::atoi(cols[8].c_str() + at + 7));
        }
        return seeds;
    }
    std::string out, err;
};

TEST_F(SwarmScript, RunsARangeResumesAndSumsItUp) {
    const std::string args = "--seeds 1-4 --hours 0.02 --jobs 2 --out " + dir + "/run";
    ASSERT_EQ(Run(args), 0) << out << err;
    bool clean = false;
    EXPECT_EQ(Logged("/run/joblog", clean), (std::multiset<int>{1, 2, 3, 4}));
    EXPECT_TRUE(clean);
    EXPECT_NE(out.find("this call ran 4 of 4 seeds"), std::string::npos) << out;
    EXPECT_NE(out.find("\nall 4 seeds ran clean\n"), std::string::npos) << out;

    // The table's sums are those of the seeds' own lines.
    nlohmann::json faults = nlohmann::json::object();
    double vehicleS = 0;
    for (int seed = 1; seed <= 4; ++seed) {
        const auto j =
            nlohmann::json::parse(Slurp("/run/seeds/" + std::to_string(seed)), nullptr, false);
        ASSERT_TRUE(j.is_object()) << seed;
        EXPECT_EQ(j["seed"], seed);
        vehicleS += j["vehicle_s"].get<double>();
        for (const auto& [kind, n] : j["faults"].items()) {
            faults[kind] = faults.value(kind, 0) + n.get<int>();
        }
    }
    ASSERT_EQ(obdsim::RunShell(OBD_SWARM_LAUNCHER " " OBD_SWARM " --table-json --table " + dir +
                                   "/run/seeds >" + dir + "/table.json",
                               60),
              0);
    const auto table = nlohmann::json::parse(Slurp("/table.json"), nullptr, false);
    ASSERT_TRUE(table.is_object());
    EXPECT_EQ(table["seeds_run"], 4);
    EXPECT_DOUBLE_EQ(table["vehicle_s"].get<double>(), vehicleS);
    EXPECT_GT(vehicleS, 0.0);
    EXPECT_EQ(table["faults"], faults);
    EXPECT_EQ(table["violations"], nlohmann::json::object());
    char hours[64];
    std::snprintf(hours, sizeof(hours), "\nvehicle-hours     %.2f\n", vehicleS / 3600);
    EXPECT_NE(out.find(hours), std::string::npos) << out;

    // Again: nothing runs, the same table. A run cut short leaves an empty file and no row in the
    // joblog: those seeds run again, alone.
    const std::string joblog = Slurp("/run/joblog"), firstOut = out;
    ASSERT_EQ(Run(args), 0) << out << err;
    EXPECT_NE(out.find("this call ran 0 of 4 seeds"), std::string::npos) << out;
    EXPECT_EQ(Slurp("/run/joblog"), joblog);
    EXPECT_EQ(out.substr(out.find("seeds run")), firstOut.substr(firstOut.find("seeds run")));
    ASSERT_EQ(
        std::system(("cd " + dir + "/run && : >seeds/2 && : >seeds/3 && grep -v 'seed [23] ' " +
                     "joblog >j && mv j joblog")
                        .c_str()),
        0);
    ASSERT_EQ(Run(args), 0) << out << err;
    EXPECT_NE(out.find("this call ran 2 of 4 seeds"), std::string::npos) << out;
    EXPECT_EQ(Logged("/run/joblog", clean), (std::multiset<int>{1, 2, 3, 4}));
    EXPECT_EQ(out.substr(out.find("seeds run")), firstOut.substr(firstOut.find("seeds run")));

    // Another range in the same folder would resume by the wrong job numbers.
    EXPECT_EQ(Run("--seeds 1-5 --hours 0.02 --out " + dir + "/run"), 2);
    EXPECT_NE(err.find("holds another run"), std::string::npos) << err;
}

#ifdef HOST_TEST_PLUGIN
TEST_F(SwarmScript, AViolationFailsTheRunAndNamesItsSeeds) {
    EXPECT_EQ(Run("--seeds 5-6 --hours 0.02 --out " + dir + "/run -- --plugin " HOST_TEST_PLUGIN),
              6)
        << out << err;
    EXPECT_NE(out.find("\n  broadcast-period  2 seeds: 5 6\n"), std::string::npos) << out;
    EXPECT_NE(out.find("\nFAILED: 2 violated, 0 without a result\n"), std::string::npos) << out;
}
#endif

TEST_F(SwarmScript, BadArgumentsSayWhy) {
    const struct {
        std::string args, env;
        int code;
        const char* says;
    } rows[] = {
        {"", "", 2, "--seeds A-B is needed"},
        {"--seeds 9-1", "", 2, "above the last"},
        {"--seeds 1-x", "", 2, "--seeds A-B is needed"},
        {"--seeds 1 --hours x", "", 2, "not a number"},
        {"--seeds 1 --jobs 0", "", 2, "not a count"},
        {"--seeds 1 --sshloginfile " + dir + "/none", "", 2, "cannot read"},
        {"--seeds 1 --frobnicate", "", 2, "unknown argument"},
        {"--seeds", "", 2, "needs a value"},
        {"--seeds 1", "OBD_SWARM=" + dir + "/none", 1, "no obd-swarm at"},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.args + " " + r.env);
        EXPECT_EQ(Run("--out " + dir + "/run " + r.args, r.env), r.code);
        EXPECT_NE(err.find(r.says), std::string::npos) << err;
    }
}

// One task of the array: its block of seeds into the shared folder, and a second submission
// leaves a seed that has its line alone.
TEST_F(SwarmScript, TheSlurmTaskRunsItsBlockOnce) {
    // The task calls the program as one word: a wrapper puts the launcher in front.
    std::ofstream(dir + "/obd-swarm")
        << "#!/bin/sh\nexec " OBD_SWARM_LAUNCHER " " OBD_SWARM " \"$@\"\n";
    ASSERT_EQ(obdsim::RunShell("chmod +x " + dir + "/obd-swarm"), 0);
    const std::string env = "OBD_SWARM=" + dir + "/obd-swarm OUT=" + dir +
                            "/shared FIRST=10 PER_TASK=2 HOURS=0.02 SLURM_ARRAY_TASK_ID=1 " +
                            "SLURM_SUBMIT_DIR=/nowhere";
    ASSERT_EQ(Run("", env, OBD_SWARM_SBATCH), 0) << err;
    ASSERT_EQ(obdsim::RunShell("ls " + dir + "/shared/seeds >" + dir + "/ls"), 0);
    EXPECT_EQ(Slurp("/ls"), "12\n12.err\n13\n13.err\n");
    for (const char* seed : {"/shared/seeds/12", "/shared/seeds/13"}) {
        const auto j = nlohmann::json::parse(Slurp(seed), nullptr, false);
        ASSERT_TRUE(j.is_object()) << seed;
        EXPECT_EQ(std::to_string(j["seed"].get<int>()), std::string(seed).substr(14));
    }
    std::ofstream(dir + "/shared/seeds/12") << "kept\n";
    ASSERT_EQ(Run("", env, OBD_SWARM_SBATCH), 0) << err;
    EXPECT_EQ(Slurp("/shared/seeds/12"), "kept\n");
}

}  // namespace

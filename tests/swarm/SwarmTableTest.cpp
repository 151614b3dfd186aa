// The swarm's results table on result files written by hand: both kinds of result line, seeds
// that left none, lines that are no result, and the order of what it prints.
#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "SimProcess.h"
#include "Table.h"

namespace {

using obdswarm::ParseResultLine;
using obdswarm::RunResult;

std::string Faults(const RunResult& r) {
    std::string s;
    for (const auto& [kind, n] : r.faults) s += kind + "=" + std::to_string(n) + " ";
    return s;
}

TEST(SwarmTable, ResultLinesOfBothKindsAndNothingElse) {
    const struct {
        std::string line;
        uint64_t seed;
        double vehicleS;
        const char* invariant;  // "" when ok
        const char* faults;
        const char* reproduce;
    } rows[] = {
        {R"({"seed":1,"hours":0.02,"vehicle_s":72.0,"mode":"can-box","faults":{"bad-values":1},)"
         R"("result":"ok","reproduce":"obd-swarm --seed 1 --hours 0.02"})",
         1, 72, "", "bad-values=1 ", "obd-swarm --seed 1 --hours 0.02"},
        {R"({"seed":2,"hours":0.02,"vehicle_s":72.0,"mode":"serial","faults":{},"result":)"
         R"("violation","invariant":"broadcast-period","t_ms":3100,"message":"m","reproduce":"r"})",
         2, 72, "broadcast-period", "", "r"},
        {"seed 42: 1:00:00 of vehicle time, serial, faults bad-values 1 bus 1 drop-answers 2: ok; "
         "reproduce: obd-swarm --seed 42 --hours 1",
         42, 3600, "", "bad-values=1 bus=1 drop-answers=2 ", "obd-swarm --seed 42 --hours 1"},
        {"seed 9: 1:00:00 of vehicle time, serial, faults none: VIOLATION link-down at "
         "0:16:11.200: "
         "no data frame since 0:15:59.150; reproduce: obd-swarm --seed 9 --hours 1",
         9, 3600, "link-down", "", "obd-swarm --seed 9 --hours 1"},
        // What the crash handler and the watchdog print, also under --json.
        {"seed 6: 0:01:12 of vehicle time, can-box, faults silent 2: VIOLATION crash (SIGSEGV) at "
         "vehicle second 12; reproduce: obd-swarm --seed 6 --hours 0.02",
         6, 72, "crash", "silent=2 ", "obd-swarm --seed 6 --hours 0.02"},
        {"seed 3: 0:15:00 of vehicle time, serial, faults none: VIOLATION hang at 0:12:00.100: "
         "host "
         "time stood for 300 s of real time; reproduce: obd-swarm --seed 3 --hours 0.25",
         3, 900, "hang", "", "obd-swarm --seed 3 --hours 0.25"},
        // Ten hours and more: the head's clock is cut to seven characters.
        {"seed 206: 10:00:0 of vehicle time, serial, faults none: ok; reproduce: x", 206, 36000, "",
         "", "x"},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.line);
        RunResult got;
        std::string why;
        ASSERT_TRUE(ParseResultLine(r.line, got, why)) << why;
        EXPECT_EQ(got.seed, r.seed);
        EXPECT_DOUBLE_EQ(got.vehicleS, r.vehicleS);
        EXPECT_EQ(got.ok, std::string(r.invariant).empty());
        EXPECT_EQ(got.invariant, r.invariant);
        EXPECT_EQ(Faults(got), r.faults);
        EXPECT_EQ(got.reproduce, r.reproduce);
    }
    // Lines that are no result: refused, with a reason.
    const std::string refused[] = {
        "junk",
        "",
        "{}",
        R"({"seed":1,"vehicle_s":72,"result":"ok")",
        R"({"seed":"1","vehicle_s":72,"result":"ok"})",
        R"({"seed":-1,"vehicle_s":72,"result":"ok"})",
        R"({"seed":1.5,"vehicle_s":72,"result":"ok"})",
        R"({"seed":1,"vehicle_s":-72,"result":"ok"})",
        R"({"seed":1,"result":"ok"})",
        R"({"seed":1,"vehicle_s":72,"result":"maybe"})",
        R"({"seed":1,"vehicle_s":72,"result":"violation"})",
        R"({"seed":1,"vehicle_s":72,"result":"ok","faults":[1]})",
        R"({"seed":1,"vehicle_s":72,"result":"ok","faults":{"silent":-1}})",
        R"({"seed":1,"vehicle_s":72,"result":"ok","faults":{"silent":9223372036854775807}})",
        "[1,2]",
        "seed 1: ok",
        "seed 1: 0:01:12 of vehicle time, serial, faults silent x: ok; reproduce: r",
        "seed 1: 0:01:12 of vehicle time, serial, faults silent: ok; reproduce: r",
        "seed 1: 0:01:12 of vehicle time, serial, faults none: ok",
        "seed 1: 0:01:12 of vehicle time, serial, faults none: fine; reproduce: r",
        "seed 1: 0:01:12 of vehicle time, serial, faults none: VIOLATION ; reproduce: r",
        "seed 1: x:01:12 of vehicle time, serial, faults none: ok; reproduce: r",
        "seed 99999999999999999999: 0:01:12 of vehicle time, serial, faults none: ok; reproduce: r",
        std::string("seed 1: \xff\x00\x80 of vehicle time", 27),
    };
    for (const std::string& line : refused) {
        RunResult got;
        std::string why;
        EXPECT_FALSE(ParseResultLine(line, got, why)) << line;
        EXPECT_FALSE(why.empty()) << line;
    }
}

class SwarmTableFiles : public obdsim::RunDirTest {
  protected:
    void Write(const std::string& name, const std::string& text) {
        std::ofstream(dir + name, std::ios::binary) << text;
    }
    static std::string Ok(int seed, const std::string& faults) {
        return R"({"seed":)" + std::to_string(seed) +
               R"(,"hours":0.5,"vehicle_s":1800,"mode":"serial","faults":)" + faults +
               R"(,"result":"ok","reproduce":"obd-swarm --seed )" + std::to_string(seed) +
               " --hours 0.5\"}\n";
    }
    static std::string Violated(int seed, const std::string& invariant) {
        return R"({"seed":)" + std::to_string(seed) +
               R"(,"hours":0.5,"vehicle_s":1800,"mode":"can-box","faults":{"silent":1},)"
               R"("result":"violation","invariant":")" +
               invariant + R"(","t_ms":5000,"message":"m","reproduce":"obd-swarm --seed )" +
               std::to_string(seed) + " --hours 0.5\"}\n";
    }
    // The table with this run's folder written as D.
    std::string Text(const obdswarm::SwarmTable& t) const {
        std::string s = obdswarm::FormatTable(t);
        for (size_t at; (at = s.find(dir)) != std::string::npos;) s.replace(at, dir.size(), "D");
        return s;
    }
};

// A run's folder as scripts/swarm.sh leaves it, with every kind of outcome in it.
TEST_F(SwarmTableFiles, SumsUpAFolderInSeedOrder) {
    std::system(("mkdir -p " + dir + "/seeds/more").c_str());
    Write("/seeds/1", Ok(1, R"({"silent":2,"split":1})"));
    Write("/seeds/1.err", Violated(1, "never-read"));  // stderr, not a result
    Write("/seeds/1.seq", "1\n");
    Write("/joblog", Violated(99, "never-read"));
    Write("/seeds/2", Violated(2, "link-up"));
    Write("/seeds/3", "");                             // killed before it printed
    Write("/seeds/more/10", Violated(10, "link-up"));  // a later seed in a folder read first
    Write("/seeds/4",
          "seed 4: 0:30:00 of vehicle time, serial, faults split 3: VIOLATION crash (SIGSEGV) at "
          "vehicle second 7; reproduce: obd-swarm --seed 4 --hours 0.5\n");
    Write("/seeds/5", "\r\n" + Ok(5, "{}") + "AddressSanitizer: stray\r\n");
    const obdswarm::SwarmTable t = obdswarm::ReadTable({dir + "/seeds"});

    EXPECT_EQ(Text(t),
              "seeds run         5  (can-box 2, serial 3)\n"
              "vehicle-hours     2.50\n"
              "faults injected   8\n"
              "  silent          4\n"
              "  split           4\n"
              "violations        3 seeds\n"
              "  crash           1 seed: 4\n"
              "                  obd-swarm --seed 4 --hours 0.5\n"
              "  link-up         2 seeds: 2 10\n"
              "                  obd-swarm --seed 2 --hours 0.5\n"
              "                  obd-swarm --seed 10 --hours 0.5\n"
              "no result line    1 seed\n"
              "  3               D/seeds/3\n"
              "bad lines         1\n"
              "                  D/seeds/5:3: not a result line: \"AddressSanitizer: stray\"\n"
              "FAILED: 3 violated, 1 without a result\n");
    EXPECT_EQ(obdswarm::TableStatus(t), 6);

    // The same files named one by one, in another order, give the same table.
    EXPECT_EQ(Text(obdswarm::ReadTable({dir + "/seeds/5", dir + "/seeds/more/10", dir + "/seeds/4",
                                        dir + "/seeds/3", dir + "/seeds/2", dir + "/seeds/1"})),
              Text(t));

    const nlohmann::json j = nlohmann::json::parse(obdswarm::TableJson(t));
    EXPECT_EQ(j["seeds_run"], 5);
    EXPECT_EQ(j["vehicle_s"], 9000.0);
    EXPECT_EQ(j["faults"], nlohmann::json::parse(R"({"silent":4,"split":4})"));
    EXPECT_EQ(j["violations"]["link-up"][1]["seed"], 10);
    EXPECT_EQ(j["violations"]["link-up"][1]["t_ms"], 5000);
    EXPECT_TRUE(j["violations"]["crash"][0]["t_ms"].is_null());
    EXPECT_EQ(j["no_result"][0]["seed"], 3);
    EXPECT_EQ(j["bad_lines"], 1);
    EXPECT_EQ(j["status"], 6);
}

TEST_F(SwarmTableFiles, StatusAndBadInputAreNamedNeverFatal) {
    std::string junk;
    for (int i = 0; i < 25; ++i) junk += "line " + std::to_string(i) + "\n";
    std::string binary(3 << 20, '\0');  // one line above the limit: no newline in it
    for (size_t i = 0; i < binary.size(); ++i) binary[i] = static_cast<char>(0x80 | (i & 0x7F));
    Write("/ok", Ok(1, "{}") + Ok(2, "{}"));
    Write("/junk", Ok(3, "{}") + junk);
    Write("/7", binary);
    const struct {
        std::vector<std::string> paths;
        int status;
        long long results, bad;
        size_t noResult, unreadable;
    } rows[] = {
        {{dir + "/ok"}, 0, 2, 0, 0, 0},
        {{dir + "/ok", dir + "/ok"}, 0, 2, 0, 0, 0},  // one file read once
        {{dir + "/junk"}, 1, 1, 25, 0, 0},
        {{dir + "/ok", dir + "/none"}, 1, 2, 0, 0, 1},
        {{dir + "/7"}, 6, 0, 1, 1, 0},
        {{}, 1, 0, 0, 0, 0},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(testing::PrintToString(r.paths));
        const obdswarm::SwarmTable t = obdswarm::ReadTable(r.paths);
        EXPECT_EQ(obdswarm::TableStatus(t), r.status);
        EXPECT_EQ(static_cast<long long>(t.results.size()), r.results);
        EXPECT_EQ(t.badLineCount, r.bad);
        EXPECT_LE(t.badLines.size(), 10u);
        EXPECT_EQ(t.noResult.size(), r.noResult);
        EXPECT_EQ(t.unreadable.size(), r.unreadable);
        EXPECT_TRUE(nlohmann::json::parse(obdswarm::TableJson(t), nullptr, false).is_object());
    }
}

}  // namespace

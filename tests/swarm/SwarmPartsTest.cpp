// obd-swarm's parts on synthetic input: the schedule drawn from a seed, and the invariant checker
// fed events by hand, rows that must fire and rows that must not.
#include <array>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <fstream>
#include <set>
#include <sstream>
#include <tuple>

#include "BoxEmulator.h"
#include "Invariants.h"
#include "ObdBusRecords.h"
#include "PrivateFile.h"
#include "ObdTypes.h"
#include "Schedule.h"

namespace obdswarm {
namespace {

// The engine the C++ standard fixes: its 10000th number from the default seed.
TEST(Schedule, DrawsFromTheStandardEngineAndTheSeedAlone) {
    Rng r(5489);
    uint64_t v = 0;
    for (int i = 0; i < 10000; ++i) v = r.Next();
    EXPECT_EQ(v, 9981545732273789042ull);

    const Schedule a = Draw(7, 2), b = Draw(7, 2), c = Draw(8, 2);
    EXPECT_EQ(ToJson(a), ToJson(b));
    EXPECT_NE(ToJson(a), ToJson(c));
    Schedule back;
    std::string error;
    ASSERT_TRUE(FromJson(ToJson(a), back, error)) << error;
    EXPECT_EQ(ToJson(back), ToJson(a));
    EXPECT_DOUBLE_EQ(BuildDrive(a).DurationS(), 7200.0);
    for (const Fault& f : a.faults) {
        EXPECT_GE(f.startMs, 0);
        EXPECT_LE(f.endMs, 7200000);
        EXPECT_LE(f.startMs, f.endMs);
    }
}

// Result lines give host time to the second, past ten hours too.
TEST(Schedule, HostTimeToTheSecond) {
    EXPECT_EQ(ClockSeconds(3599999), "0:59:59");
    EXPECT_EQ(ClockSeconds(36000000), "10:00:00");
    EXPECT_EQ(Clock(36000250), "10:00:00.250");
}

TEST(Schedule, BadFilesAreRefusedWithAReason) {
    const char* rows[] = {
        "",
        "[1, 2]",
        R"({"seed": 1})",
        R"({"seed": 1, "hours": -1, "product_type": 0, "motion": true, "phases": [], "faults": []})",
        R"({"seed": 1, "hours": 1, "product_type": 0, "motion": true, "phases": [{"kind": "fly",
            "s": 1, "speed": 0, "rpm": 0, "noise": 0, "saturated": false}], "faults": []})",
        R"({"seed": 1, "hours": 1, "product_type": 0, "motion": true, "phases": [], "faults":
            [{"kind": "silent", "start_ms": 5, "end_ms": 1, "a": 0, "b": 0, "seed": 0}]})",
        R"({"seed": "x", "hours": 1, "product_type": 0, "motion": true, "phases": [], "faults": []})",
        R"({"seed": 1, "hours": 1, "product_type": 0, "motion": true, "phases": [], "faults":
            [{"kind": "upgrade", "start_ms": 5, "end_ms": 9, "a": 4, "b": 0, "seed": 0}]})",
        R"({"seed": 1, "hours": 1, "product_type": 0, "motion": true, "phases": [], "faults":
            [{"kind": "calibration", "start_ms": 5, "end_ms": 9, "a": 0, "b": -1, "seed": 0}]})",
    };
    for (const char* text : rows) {
        SCOPED_TRACE(text);
        Schedule s;
        std::string error;
        EXPECT_FALSE(FromJson(text, s, error));
        EXPECT_FALSE(error.empty());
    }
}

// The box's windows: what holds at each instant, and when the next change comes.
TEST(Schedule, BoxFaultsHoldInsideTheirWindowsOnly) {
    const std::vector<Fault> faults = {{FaultKind::Silent, 1000, 2000, 0, 0, 0},
                                       {FaultKind::Split, 1500, 3000, 4, 0, 0},
                                       {FaultKind::BadValues, 0, 9000, 0, 0, 0},
                                       {FaultKind::DropAnswers, 5000, 6000, 3, 0, 0}};
    const struct {
        double ms;
        bool silent;
        int split, drop;
        double next;
    } rows[] = {{0, false, 0, 0, 1000},    {999, false, 0, 0, 1000},  {1000, true, 0, 0, 1500},
                {1500, true, 4, 0, 2000},  {2000, false, 4, 0, 3000}, {3000, false, 0, 0, 5000},
                {5500, false, 0, 3, 6000}, {6000, false, 0, 0, -1}};
    for (const auto& r : rows) {
        SCOPED_TRACE(r.ms);
        const obdbox::FaultState s = BoxFaults(faults, r.ms);
        EXPECT_EQ(s.silent, r.silent);
        EXPECT_EQ(s.splitMaxChunk, r.split);
        EXPECT_EQ(s.dropEveryNth, r.drop);
        EXPECT_EQ(s.nextChangeMs, r.next);
    }
}

// The host's clocks: the date runs with host time, jumps either way and stays within the years
// a black-box record holds; stalls that overlap stood still once; both kinds are drawn.
TEST(Schedule, DateJumpsAndStalls) {
    const std::vector<Fault> f = {{FaultKind::DateJump, 1000, 1100, 0, -3600, 0},
                                  {FaultKind::DateJump, 2000, 2100, 0, -2000000000, 0},
                                  {FaultKind::DateJump, 3000, 3100, 0, 86400, 0},
                                  {FaultKind::Stall, 10000, 20000, 0, 0, 0},
                                  {FaultKind::Stall, 15000, 30000, 0, 0, 0},
                                  {FaultKind::Silent, 0, 90000, 0, 0, 0}};
    EXPECT_EQ(DateMs(f, 0), kDateStartMs);
    EXPECT_EQ(DateMs(f, 999), kDateStartMs + 999);
    EXPECT_EQ(DateMs(f, 1000), kDateStartMs + 1000 - 3600000);
    EXPECT_EQ(DateMs(f, 2000), 946684800000);  // 2000-01-01, no earlier
    EXPECT_EQ(DateMs(f, 2500), 946684800500);
    EXPECT_EQ(DateMs(f, 3000), 946684801000 + 86400000);
    EXPECT_EQ(Stalled(f, 0, 90000), 20000);
    EXPECT_EQ(Stalled(f, 12000, 16000), 4000);
    EXPECT_EQ(Stalled(f, 30000, 90000), 0);
    int stalls = 0, jumps = 0;
    for (uint64_t seed = 1; seed <= 100; ++seed) {
        for (const Fault& x : Draw(seed, 1).faults) {
            if (x.kind == FaultKind::Stall) {
                ++stalls;
                EXPECT_GE(x.endMs - x.startMs, 100);
                EXPECT_LE(x.endMs - x.startMs, 100000);
            }
            if (x.kind == FaultKind::DateJump) {
                ++jumps;
                EXPECT_NE(x.b, 0);
            }
        }
    }
    EXPECT_GT(stalls, 50);
    EXPECT_GT(jumps, 50);
}

// The host's own faults: a release ends the run at the first one, a gap holds samples in its
// window only, and both are drawn for a share of the seeds.
TEST(Schedule, ReleasesAndInertialGaps) {
    Schedule s = Draw(3, 1);
    s.faults.clear();
    EXPECT_EQ(EndMs(s), 3601000);
    s.faults = {{FaultKind::Release, 900000, 3600000, 0, 0, 0},
                {FaultKind::InertialGap, 1000, 2000, 0, 0, 0},
                {FaultKind::Release, 600000, 3600000, 0, 0, 0},
                {FaultKind::Silent, 3000, 4000, 0, 0, 0}};
    EXPECT_EQ(EndMs(s), 600000);
    EXPECT_FALSE(InertialHeld(s.faults, 999));
    EXPECT_TRUE(InertialHeld(s.faults, 1000));
    EXPECT_TRUE(InertialHeld(s.faults, 1999));
    EXPECT_FALSE(InertialHeld(s.faults, 2000));
    EXPECT_FALSE(InertialHeld(s.faults, 3500));
    int released = 0, gapped = 0;
    for (uint64_t seed = 1; seed <= 200; ++seed) {
        const Schedule d = Draw(seed, 1);
        bool r = false, g = false;
        for (const Fault& f : d.faults) {
            r = r || f.kind == FaultKind::Release;
            g = g || f.kind == FaultKind::InertialGap;
            if (f.kind == FaultKind::Release) {
                EXPECT_GE(f.startMs, 5000);
            }
        }
        released += r ? 1 : 0;
        gapped += g ? 1 : 0;
    }
    EXPECT_GT(released, 10);
    EXPECT_LT(released, 60);
    EXPECT_GT(gapped, 10);
}

TEST(Schedule, BadValuesAndInboundMessages) {
    const struct {
        int a, b;
        float expect7;  // item 7's new value (box id 8), from 50
        float expect9;  // item 9's, from 12
    } rows[] = {{kNaN, -1, NAN, NAN},
                {kPlusInf, 7, INFINITY, 12},
                {kMinusInf, 9, 50, -INFINITY},
                {kNegative, -1, -51, -13},
                {kOutOfRange, 7, 3.0e9f, 12}};
    for (const auto& r : rows) {
        obdbox::DataItems items = {{8, 50.0f}, {10, 12.0f}};
        AlterValues({{FaultKind::BadValues, 100, 200, r.a, r.b, 0}}, 150, items);
        for (const auto& [got, want] :
             {std::pair{items[0].second, r.expect7}, std::pair{items[1].second, r.expect9}}) {
            EXPECT_TRUE(std::isnan(want) ? std::isnan(got) : got == want) << r.a << " " << got;
        }
        obdbox::DataItems outside = {{8, 50.0f}};
        AlterValues({{FaultKind::BadValues, 100, 200, r.a, r.b, 0}}, 200, outside);
        EXPECT_EQ(outside[0].second, 50.0f);
    }
    std::set<int> ids;
    std::set<std::string> sizes;
    for (uint64_t seed = 1; seed <= 20; ++seed) {
        const Fault f{FaultKind::BusMessages, 1000, 5000, 40, 0, seed};
        for (const Inbound& m : Messages(f)) {
            EXPECT_GE(m.tMs, 1000);
            EXPECT_LT(m.tMs, 5000);
            ids.insert(m.id);
            for (const InboundId& i : InboundIds()) {
                if (i.id != m.id) continue;
                const int n = static_cast<int>(m.payload.size());
                sizes.insert(n < i.exactBytes ? "short" : n == i.exactBytes ? "exact" : "long");
            }
        }
    }
    EXPECT_EQ(ids.size(), InboundIds().size());
    EXPECT_EQ(ids.count(MSG_POWER_DOWN), 0u);  // a fault of its own
    EXPECT_EQ(sizes, (std::set<std::string>{"short", "exact", "long"}));
}

// Every variant of the three kinds is drawn, an upgrade after a power-down and a calibration
// during an upgrade among them, and each schedule comes back from its JSON unchanged.
TEST(Schedule, DrawsEveryUpgradeAndCalibrationVariant) {
    std::set<std::string> seen;
    for (uint64_t seed = 1; seed <= 300; ++seed) {
        const Schedule s = Draw(seed, 1);
        Schedule back;
        std::string error;
        ASSERT_TRUE(FromJson(ToJson(s), back, error)) << error;
        ASSERT_EQ(ToJson(back), ToJson(s));
        long long powerDownMs = -1;
        for (const Fault& f : s.faults) {
            if (f.kind == FaultKind::PowerDown) powerDownMs = f.startMs;
        }
        for (const Fault& f : s.faults) {
            const std::string a = std::to_string(f.a);
            if (f.kind == FaultKind::UpgradeTrigger) {
                seen.insert("upgrade " + a);
                if (f.b > 0) seen.insert("twice");
                EXPECT_LE(f.b, 1500);
                if (powerDownMs >= 0 && f.startMs >= powerDownMs) seen.insert("after power-down");
            } else if (f.kind == FaultKind::UpgradeBox) {
                seen.insert("box " + a);
                EXPECT_GE(f.b, f.a == kDropChunkAnswers ? 1 : 0);
            } else if (f.kind == FaultKind::Calibration) {
                seen.insert("calibration " + a);
                for (const Fault& u : s.faults) {
                    if ((u.kind == FaultKind::UpgradeTrigger || u.kind == FaultKind::UpgradeBox) &&
                        f.startMs > u.startMs && f.startMs <= u.startMs + 5000) {
                        seen.insert("calibration during an upgrade");
                    }
                }
            }
        }
    }
    EXPECT_EQ(seen, (std::set<std::string>{"upgrade 0", "upgrade 1", "upgrade 2", "upgrade 3",
                                           "twice", "after power-down", "box 0", "box 1", "box 2",
                                           "box 3", "calibration 0", "calibration 1",
                                           "calibration 2", "calibration during an upgrade"}));
}

// What each upgrade or calibration fault does to the file and on the bus, and to the box.
TEST(Schedule, UpgradeFaultsWriteTheirFileBeforeTheirTriggers) {
    const FaultKind kTrigger = FaultKind::UpgradeTrigger;
    const struct {
        const char* name;
        Fault f;
        std::vector<long long> writes;    // times; -1 entries: removals
        std::vector<size_t> sizes;        // of the writes; 0 for an empty file
        std::vector<long long> triggers;  // none: a calibration
    } rows[] = {
        {"good file", {kTrigger, 5000, 9000, kFileGood, 0, 3}, {5000}, {1}, {5000}},
        {"missing, twice", {kTrigger, 5000, 9000, kFileMissing, 1200, 3}, {-1}, {}, {5000, 6200}},
        {"empty file", {kTrigger, 5000, 9000, kFileEmpty, 0, 3}, {5000}, {0}, {5000}},
        {"file changing", {kTrigger, 5000, 9000, kFileChanging, 0, 3}, {5000, 1}, {1, 1}, {5000}},
        {"box fault", {FaultKind::UpgradeBox, 5000, 9000, kSlowFlash, 300, 3}, {5000}, {1}, {5000}},
        {"calibration", {FaultKind::Calibration, 5000, 9000, 1, 0, 3}, {}, {}, {}},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        const std::vector<FileAction> files = UpgradeFiles(r.f);
        ASSERT_EQ(files.size(), r.writes.size());
        for (size_t i = 0; i < files.size(); ++i) {
            if (r.writes[i] < 0) {
                EXPECT_FALSE(files[i].present);
                EXPECT_EQ(files[i].tMs, r.f.startMs);
                continue;
            }
            EXPECT_TRUE(files[i].present);
            // A later rewrite (1) comes within 3 s, with other bytes.
            if (r.writes[i] == 1) {
                EXPECT_GT(files[i].tMs, files[i - 1].tMs);
                EXPECT_LE(files[i].tMs, r.f.startMs + 3000);
                EXPECT_NE(files[i].bytes, files[i - 1].bytes);
            } else {
                EXPECT_EQ(files[i].tMs, r.writes[i]);
            }
            EXPECT_EQ(files[i].bytes.empty(), r.sizes[i] == 0);
            EXPECT_LE(files[i].bytes.size(), static_cast<size_t>(kMaxUpgradeFile));
        }
        const std::vector<Inbound> in = Messages(r.f);
        if (r.f.kind == FaultKind::Calibration) {
            ASSERT_EQ(in.size(), 1u);
            EXPECT_EQ(in[0].id, MSG_TRIGGER_OBD_DEMACATE);
            ASSERT_EQ(in[0].payload.size(), sizeof(_OBD_Engine_t));
            const int code = in[0].payload[0] | in[0].payload[1] << 8;  // little-endian
            EXPECT_EQ(std::string(reinterpret_cast<const char*>(&in[0].payload[4])),
                      "ENGINE-" + std::to_string(code));
            continue;
        }
        ASSERT_EQ(in.size(), r.triggers.size());
        for (size_t i = 0; i < in.size(); ++i) {
            EXPECT_EQ(in[i].tMs, r.triggers[i]);
            EXPECT_EQ(in[i].id, MSG_TRIGGER_PERIPHERAL_UPGRADE);
            ASSERT_EQ(in[i].payload.size(), 4u);
            EXPECT_EQ(in[i].payload[2], 7);  // the box
        }
    }
    // The box misbehaves inside the window only; with an upgrade trigger alone it takes its time
    // to store each chunk (10 + seed % 51 ms).
    const std::vector<Fault> faults = {
        {FaultKind::UpgradeBox, 1000, 2000, kRefuseStep, 3, 0},
        {FaultKind::UpgradeBox, 3000, 4000, kSilentAfterChunks, 0, 0},
        {FaultKind::UpgradeBox, 5000, 6000, kDropChunkAnswers, 2, 0},
        {FaultKind::UpgradeBox, 7000, 8000, kSlowFlash, 700, 0},
        {FaultKind::Calibration, 9000, 10000, 1, 0, 0},
        {FaultKind::Calibration, 11000, 12000, 2, 0, 0},
        {FaultKind::UpgradeTrigger, 13000, 14000, 0, 0, 40}};
    const struct {
        double ms;
        uint16_t refuse;
        int silentAfter, dropNth, flashMs;
        bool engineRefused, engineUnanswered;
        double next;
    } windows[] = {
        {500, 0, -1, 0, 0, false, false, 1000},    {1500, 0x2404, -1, 0, 0, false, false, 2000},
        {3500, 0, 0, 0, 0, false, false, 4000},    {5500, 0, -1, 2, 0, false, false, 6000},
        {7500, 0, -1, 0, 700, false, false, 8000}, {9500, 0, -1, 0, 0, true, false, 10000},
        {11500, 0, -1, 0, 0, false, true, 12000},  {13500, 0, -1, 0, 50, false, false, 14000},
        {14000, 0, -1, 0, 0, false, false, -1}};
    for (const auto& w : windows) {
        SCOPED_TRACE(w.ms);
        const obdbox::FaultState s = BoxFaults(faults, w.ms);
        EXPECT_EQ(s.upgradeRefuseStep, w.refuse);
        EXPECT_EQ(s.upgradeSilentAfterChunks, w.silentAfter);
        EXPECT_EQ(s.upgradeDropEveryNthChunk, w.dropNth);
        EXPECT_EQ(s.upgradeFlashMs, w.flashMs);
        EXPECT_EQ(s.engineRefused, w.engineRefused);
        EXPECT_EQ(s.engineUnanswered, w.engineUnanswered);
        EXPECT_EQ(s.nextChangeMs, w.next);
    }
}

// Two runs at once with the same upgrade file path: each sees only its own file, and in the
// namespace neither sees the one outside. Where the kernel refuses namespaces they take turns:
// the second is held until the first is done with its file.
TEST(PrivateFile, TwoRunsAtOnceSeeOnlyTheirOwnFile) {
    char tmpl[] = "/tmp/obd-swarm-file-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::string dir = tmpl, path = dir + "/upgrade/DOWNLOAD.bin";
    ASSERT_EQ(mkdir((dir + "/upgrade").c_str(), 0700), 0);
    std::ofstream(path) << "outside";
    auto slurp = [&path] {
        std::stringstream text;
        text << std::ifstream(path).rdbuf();
        return text.str();
    };
    // A run: makes the file its own, says how ('N' with its file written, 'L' before waiting for
    // the lock), writes its text, waits for `go` (if any), and exits 0 if its text is still there.
    auto run = [&](const std::string& own, int ready, int go) {
        std::string note;
        const bool ns = EnterPrivateDir(dir + "/upgrade", note);
        if (!ns) {
            if (::write(ready, "L", 1) != 1 || !LockBeside(path, note)) ::_exit(3);
        } else if (::access(path.c_str(), F_OK) == 0) {
            ::_exit(4);  // the file from outside shows through
        }
        std::ofstream(path) << own;
        if (ns && ::write(ready, "N", 1) != 1) ::_exit(3);
        char byte = 0;
        if (go >= 0 && ::read(go, &byte, 1) != 1) ::_exit(3);
        ::_exit(slurp() == own ? 0 : 5);
    };
    int readyA[2], readyB[2], go[2];
    ASSERT_EQ(pipe(readyA), 0);
    ASSERT_EQ(pipe(readyB), 0);
    ASSERT_EQ(pipe(go), 0);
    const pid_t a = fork();
    if (a == 0) run("first run", readyA[1], go[0]);
    char howA = 0, howB = 0;
    ASSERT_EQ(::read(readyA[0], &howA, 1), 1);
    const pid_t b = fork();
    if (b == 0) run("second run", readyB[1], -1);
    ASSERT_EQ(::read(readyB[0], &howB, 1), 1);  // 'N': the second has written its file
    ASSERT_EQ(::write(go[1], "g", 1), 1);
    int statusA = -1, statusB = -1;
    waitpid(a, &statusA, 0);
    waitpid(b, &statusB, 0);
    EXPECT_TRUE(WIFEXITED(statusA) && WEXITSTATUS(statusA) == 0) << statusA;
    EXPECT_TRUE(WIFEXITED(statusB) && WEXITSTATUS(statusB) == 0) << statusB;
    EXPECT_EQ(howA, howB);
    if (howA == 'N') {
        EXPECT_EQ(slurp(), "outside");
    }
    RecordProperty("isolation", howA == 'N' ? "namespace" : "lock");
    for (int fd : {readyA[0], readyA[1], readyB[0], readyB[1], go[0], go[1]}) ::close(fd);
    std::system(("rm -rf " + dir).c_str());
}

// The line and box faults: drawn over their parameters' ranges, named both ways, read back, and
// reaching the box inside their windows only.
TEST(Schedule, LineAndBoxFaultsAreDrawnNamedAndReachTheBox) {
    std::set<std::string> seen;
    std::set<int> conventions, lateVsTimeout;  // 0: within the command's 2050 ms, 1: past it
    for (uint64_t seed = 1; seed <= 300; ++seed) {
        for (const Fault& f : Draw(seed, 1).faults) {
            seen.insert(FaultName(f.kind));
            if (f.kind == FaultKind::Escaped) conventions.insert(f.a);
            if (f.kind == FaultKind::LateAnswers) lateVsTimeout.insert(f.a >= 2050 ? 1 : 0);
            EXPECT_TRUE(f.kind != FaultKind::Restart || f.endMs - f.startMs <= 8000);
        }
    }
    for (const char* name : {"duplicate", "escaped", "late-answers", "refusals", "restart"}) {
        FaultKind k = FaultKind::Count;
        EXPECT_TRUE(seen.count(name) == 1 && FaultByName(name, k) &&
                    FaultName(k) == std::string(name))
            << name;
    }
    EXPECT_EQ(conventions, (std::set<int>{0, 1}));
    EXPECT_EQ(lateVsTimeout, (std::set<int>{0, 1}));

    Schedule s = Draw(3, 0.1);
    s.faults = {{FaultKind::Duplicate, 1000, 2000, 3, 0, 0},
                {FaultKind::Escaped, 1500, 2500, 1, 0, 0},
                {FaultKind::LateAnswers, 3000, 4000, 2600, 0, 0},
                {FaultKind::Refusals, 3500, 4000, 0, 0, 0},
                {FaultKind::Restart, 5000, 5400, 0, 0, 0}};
    Schedule back;
    std::string error;
    ASSERT_TRUE(FromJson(ToJson(s), back, error)) << error;
    EXPECT_EQ(ToJson(back), ToJson(s));
    const struct {
        double ms;
        int duplicate;
        bool escape, counts;
        double delay;
        bool refuse;
        double restart, next;
    } rows[] = {{999, 0, false, false, 0, false, -1, 1000},
                {1500, 3, true, true, 0, false, -1, 2000},
                {2000, 0, true, true, 0, false, -1, 2500},
                {3600, 0, false, false, 2600, true, -1, 4000},
                {5399, 0, false, false, 0, false, 5000, 5400},
                {5400, 0, false, false, 0, false, -1, -1}};
    for (const auto& r : rows) {
        SCOPED_TRACE(r.ms);
        const obdbox::FaultState b = BoxFaults(back.faults, r.ms);
        EXPECT_EQ(
            std::make_tuple(b.duplicateEveryNth, b.escape, b.escapeCountsInLength, b.answerDelayMs,
                            b.refuse, b.restartMs, b.nextChangeMs),
            std::make_tuple(r.duplicate, r.escape, r.counts, r.delay, r.refuse, r.restart, r.next));
    }
}

// In an escaped window every data frame holds escape pairs: the values' low bytes carry 7D, 7E or
// 7F (the rest of each value stays); outside it nothing changes.
TEST(Schedule, EscapedWindowsPutEscapedBytesIntoEveryFrame) {
    const std::vector<Fault> faults = {{FaultKind::Escaped, 1000, 60000, 0, 0, 77}};
    const obdbox::DataItems original = {{7, 850.0f}, {8, 0.0f}, {9, 13.8f}, {10, 88.0f}};
    size_t pairs = 0;
    for (long long ms = 1000; ms <= 60000; ms += 1000) {
        obdbox::DataItems items = original;
        AlterValues(faults, ms, items);
        std::vector<uint8_t> payload;
        for (size_t i = 0; i < items.size(); ++i) {
            uint8_t was[4], now[4];
            std::memcpy(was, &original[i].second, 4);
            std::memcpy(now, &items[i].second, 4);
            EXPECT_EQ(std::memcmp(was + 1, now + 1, 3), 0);
            payload.push_back(items[i].first);
            payload.insert(payload.end(), now, now + 4);
        }
        const size_t n =
            obdbox::BoxEmulator::EncodeFrame(0x2C81, payload, 1, true, false, false).size() -
            obdbox::BoxEmulator::EncodeFrame(0x2C81, payload, 1, false, false, false).size();
        EXPECT_EQ(n > 0, ms < 60000) << ms;
        pairs += n;
    }
    EXPECT_GT(pairs, 59u * 3 / 2);  // about half the items each time
}

// ---- The checker ---------------------------------------------------------------------------

hostsim::BusMessage Message(int id, long long tMs, std::vector<unsigned char> payload,
                            bool response = false) {
    hostsim::BusMessage m;
    m.id = id;
    m.tMs = tMs;
    m.payload = std::move(payload);
    m.response = response;
    return m;
}

// The OBD data broadcast of a table holding `items` (box ids).
hostsim::BusMessage Table(long long tMs, const obdbox::DataItems& items) {
    ObdOriginalDataMsg_t msg{};
    for (auto& it : msg.table.item) it.id = -1;
    for (const auto& [id, v] : items) {
        msg.table.item[id - 1].id = id - 1;
        msg.table.item[id - 1].value = v;
    }
    std::vector<unsigned char> p(sizeof(msg));
    std::memcpy(p.data(), &msg, sizeof(msg));
    return Message(MSG_OBD_ORIGINAL_DATA, tMs, p);
}

hostsim::BusMessage Status(long long tMs, bool up) {
    std::vector<unsigned char> p(sizeof(GdsConfigInfo_t), 0);
    p[offsetof(GdsConfigInfo_t, obd_state)] = up ? 3 : 2;
    return Message(MSG_GDS_CONFIG_INFO_REPORT, tMs, p);
}

hostsim::BusMessage Upgrade(int id, long long tMs, int state, bool response) {
    std::vector<unsigned char> p(sizeof(UpgradeResult_t), 0);
    p[offsetof(UpgradeResult_t, state)] = static_cast<unsigned char>(state);
    return Message(id, tMs, p, response);
}

const obdbox::DataItems kFrame = {{7, 900.0f}, {8, 30.0f}};

// A black-box message of one-item records dated (years since 2000, month, day, h, min, s).
hostsim::BusMessage Blackbox(long long tMs, const std::vector<std::array<uint8_t, 6>>& dates) {
    std::vector<unsigned char> p(sizeof(BlackboxMsgHead_t), 0);
    p[0] = static_cast<unsigned char>(dates.size());
    for (const auto& d : dates) {
        BlackboxRecordHead_t head{};
        std::copy(d.begin(), d.end(), head.time);
        head.count = 1;
        const size_t at = p.size();
        p.resize(at + BlackboxRecordSize(1), 0);
        std::memcpy(p.data() + at, &head, sizeof(head));
    }
    p.resize(p.size() + 12, 0);
    return Message(MSG_BLACKBOX_OBD_DATA, tMs, p);
}

// A status record with the link up and the box's software version `dl`.
hostsim::BusMessage VersionStatus(long long tMs, const char* dl) {
    hostsim::BusMessage m = Status(tMs, true);
    GdsConfigInfo_t info;
    std::memcpy(&info, m.payload.data(), sizeof(info));
    info.mask |= CFG_MASK_VERSION;
    std::snprintf(info.version.DLVer, sizeof(info.version.DLVer), "%s", dl);
    std::memcpy(m.payload.data(), &info, sizeof(info));
    return m;
}

// A healthy plug-in from `fromS` to `toS`: a frame each second, the broadcasts that show it,
// a step after each, the link up at the first.
void Healthy(Checker& c, int fromS, int toS, obdbox::DataItems frame = kFrame) {
    for (int s = fromS; s <= toS; ++s) {
        const long long t = s * 1000LL;
        c.OnFrame(t, frame);
        c.OnBus(Table(t + 100, frame));
        c.OnBus(Message(MSG_GDS_ALARM, t + 100, std::vector<unsigned char>(208, 0)));
        if (s == fromS) c.OnBus(Status(t + 100, true));
        c.Step(t + 200);
    }
}

// The broadcasts alone, without frames, from `fromS` to `toS`.
void BroadcastsOnly(Checker& c, int fromS, int toS, bool linkDownAt = false, int downS = -1) {
    for (int s = fromS; s <= toS; ++s) {
        const long long t = s * 1000LL;
        c.OnBus(Table(t + 100, kFrame));
        c.OnBus(Message(MSG_GDS_ALARM, t + 100, std::vector<unsigned char>(208, 0)));
        if (linkDownAt && s == downS) c.OnBus(Status(t + 100, false));
        c.Step(t + 200);
    }
}

// Frames without broadcasts (the 1 s work held), from `fromS` to `toS`.
void FramesOnly(Checker& c, int fromS, int toS) {
    for (int s = fromS; s <= toS; ++s) {
        c.OnFrame(s * 1000LL, kFrame);
        c.Step(s * 1000LL + 200);
    }
}

// Runs `events` on a checker of `faults`: the first violation must be `invariant` at `atMs` (""
// and -1: none), told in one line.
void Expect(const char* name, const char* invariant, long long atMs,
            const std::vector<Fault>& faults, const std::function<void(Checker&)>& events) {
    SCOPED_TRACE(name);
    Checker c(faults);
    events(c);
    const Violation v = c.First();
    EXPECT_EQ(v.name, invariant) << v.message;
    EXPECT_EQ(v.tMs, atMs);
    EXPECT_EQ(c.Failed(), std::string(invariant) != "");
    EXPECT_EQ(v.message.find('\n'), std::string::npos);
}

TEST(Checker, EachInvariantFiresOnItsFaultAndOnlyThere) {
    const obdbox::DataItems nan = {{7, std::numeric_limits<float>::quiet_NaN()}};
    Expect("a healthy minute", "", -1, {}, [](Checker& c) { Healthy(c, 1, 60); });
    Expect("no broadcast at all", "broadcast-period", 3100, {}, [](Checker& c) { c.Step(3100); });
    Expect("one 6702 late by 0.2 s", "broadcast-period", 7300, {}, [](Checker& c) {
        Healthy(c, 1, 5);
        c.OnBus(Table(7300, kFrame));
    });
    Expect("broadcasts stop, the step notices", "broadcast-period", 7200, {}, [](Checker& c) {
        Healthy(c, 1, 5);
        c.Step(6200);
        c.Step(7200);
    });
    Expect("a gap after a power-down", "", -1, {{FaultKind::PowerDown, 5500, 60000, 0, 0, 0}},
           [](Checker& c) {
               Healthy(c, 1, 5);
               c.Step(30000);
           });
    Expect("a gap after an injected power-down", "", -1, {}, [](Checker& c) {
        Healthy(c, 1, 5);
        c.OnInject(5500, MSG_POWER_DOWN);
        c.Step(30000);
    });
    Expect("a gap while an upgrade runs, and back within a second", "", -1, {}, [](Checker& c) {
        Healthy(c, 1, 5);
        c.OnBus(Upgrade(MSG_TRIGGER_PERIPHERAL_UPGRADE, 5500, 0, true));
        FramesOnly(c, 6, 24);
        c.OnBus(Upgrade(MSG_PERIPHERAL_UPGRADE_STATE, 25000, 9, false));
        Healthy(c, 26, 30);
    });
    Expect("an upgrade that never ends", "upgrade-ends", 425600, {}, [](Checker& c) {
        Healthy(c, 1, 5);
        c.OnBus(Upgrade(MSG_TRIGGER_PERIPHERAL_UPGRADE, 5500, 0, true));
        FramesOnly(c, 6, 425);
        c.Step(425600);
    });
    // Upgrades the box installed, and the upgrade file.
    Expect("installed, reported well, then failed by a second transfer", "upgrade-not-failed", 9000,
           {}, [](Checker& c) {
               c.OnBus(Upgrade(MSG_TRIGGER_PERIPHERAL_UPGRADE, 5500, 0, true));
               c.OnBus(Upgrade(MSG_TRIGGER_PERIPHERAL_UPGRADE, 6000, 0, true));
               c.OnBoxInstalled(8000);
               c.OnBus(Upgrade(MSG_PERIPHERAL_UPGRADE_STATE, 8000, 10, false));
               c.OnBus(Upgrade(MSG_PERIPHERAL_UPGRADE_STATE, 9000, 9, false));
           });
    Expect("installed and reported failed", "upgrade-not-failed", 8500, {}, [](Checker& c) {
        c.OnBus(Upgrade(MSG_TRIGGER_PERIPHERAL_UPGRADE, 5500, 0, true));
        c.OnBoxInstalled(8000);
        c.OnBus(Upgrade(MSG_PERIPHERAL_UPGRADE_STATE, 8500, 9, false));
    });
    Expect("installed by an earlier upgrade, this one fails", "", -1, {}, [](Checker& c) {
        c.OnBus(Upgrade(MSG_TRIGGER_PERIPHERAL_UPGRADE, 5500, 0, true));
        c.OnBoxInstalled(6000);
        c.OnBus(Upgrade(MSG_PERIPHERAL_UPGRADE_STATE, 6000, 10, false));
        c.OnBus(Upgrade(MSG_TRIGGER_PERIPHERAL_UPGRADE, 7000, 0, true));
        c.OnBus(Upgrade(MSG_PERIPHERAL_UPGRADE_STATE, 8000, 9, false));
    });
    Expect("reported installed, the box installed nothing", "upgrade-installed", 7000, {},
           [](Checker& c) {
               c.OnBus(Upgrade(MSG_TRIGGER_PERIPHERAL_UPGRADE, 5500, 0, true));
               c.OnBus(Upgrade(MSG_PERIPHERAL_UPGRADE_STATE, 7000, 10, false));
           });
    Expect("the file gone without a success", "upgrade-file", 5000, {}, [](Checker& c) {
        c.OnUpgradeFile(1000, true);
        c.OnFileSeen(1100, true);
        c.OnBus(Upgrade(MSG_PERIPHERAL_UPGRADE_STATE, 3000, 9, false));
        c.OnFileSeen(5000, false);
    });
    Expect("the file kept after a failure, deleted after a success", "", -1, {}, [](Checker& c) {
        c.OnUpgradeFile(1000, true);
        c.OnBus(Upgrade(MSG_PERIPHERAL_UPGRADE_STATE, 3000, 9, false));
        c.OnFileSeen(3100, true);
        c.OnBoxInstalled(9000);
        c.OnBus(Upgrade(MSG_PERIPHERAL_UPGRADE_STATE, 9000, 10, false));
        c.OnFileSeen(9100, false);
        c.OnUpgradeFile(12000, true);  // written again, for the next one
        c.OnFileSeen(20000, true);
    });
    Expect("the file still there after a success", "upgrade-file", 4100, {}, [](Checker& c) {
        c.OnUpgradeFile(1000, true);
        c.OnBoxInstalled(3000);
        c.OnBus(Upgrade(MSG_PERIPHERAL_UPGRADE_STATE, 3000, 10, false));
        c.OnFileSeen(3100, true);
        c.OnFileSeen(4100, true);
    });
    Expect("a file the swarm removed itself", "", -1, {}, [](Checker& c) {
        c.OnUpgradeFile(1000, false);
        c.OnFileSeen(1100, false);
    });
    // Calibrations.
    Expect("a calibration never answered", "calibration-answered", 471100,
           {{FaultKind::PowerDown, 0, 900000, 0, 0, 0}},  // no broadcasts owed
           [](Checker& c) {
               c.OnInject(1000, MSG_TRIGGER_OBD_DEMACATE, 52);
               c.Step(471000);
               c.Step(471100);
           });
    Expect("two calibrations, one answer for both", "", -1,
           {{FaultKind::PowerDown, 0, 900000, 0, 0, 0}},  // no broadcasts owed
           [](Checker& c) {
               c.OnInject(1000, MSG_TRIGGER_OBD_DEMACATE, 52);
               c.OnInject(2000, MSG_TRIGGER_OBD_DEMACATE, 52);
               c.OnBus(Message(MSG_TRIGGER_OBD_DEMACATE, 30000, {0xFF, 0xFF, 0xFF, 0xFF}, true));
               c.Step(600000);
           });
    Expect("a short calibration request is refused, not owed an answer", "", -1,
           {{FaultKind::PowerDown, 0, 900000, 0, 0, 0}},  // no broadcasts owed
           [](Checker& c) {
               c.OnInject(1000, MSG_TRIGGER_OBD_DEMACATE, 51);
               c.Step(600000);
           });
    Expect("the frame's last item not in the table", "data-to-table", 4100, {}, [](Checker& c) {
        Healthy(c, 1, 3);
        c.OnFrame(4000, kFrame);
        c.OnBus(Table(4100, {{7, 900.0f}}));
    });
    Expect("a value one bit off", "data-to-table", 1100, {}, [](Checker& c) {
        c.OnFrame(1000, {{7, 900.0f}});
        c.OnBus(Table(1100, {{7, std::nextafter(900.0f, 1000.0f)}}));
    });
    Expect("a frame of the same instant is not yet owed", "", -1, {}, [](Checker& c) {
        Healthy(c, 1, 3);
        c.OnFrame(4100, {{7, 1.0f}});
        c.OnBus(Table(4100, kFrame));
    });
    Expect("a later frame replaced it", "", -1, {}, [](Checker& c) {
        c.OnFrame(1000, kFrame);
        c.OnFrame(1050, {{7, 1.0f}, {8, 2.0f}});
        c.OnBus(Table(1100, {{7, 1.0f}, {8, 2.0f}}));
    });
    Expect("NaN sent, NaN stored", "", -1, {}, [nan](Checker& c) { Healthy(c, 1, 10, nan); });
    Expect("a mismatch inside a bus-message window", "", -1,
           {{FaultKind::BusMessages, 900, 1000, 1, 0, 1}}, [](Checker& c) {
               c.OnFrame(1000, kFrame);
               c.OnBus(Table(1100, {}));
           });
    Expect("frames stop, the link stays up", "link-down", 17200, {}, [](Checker& c) {
        Healthy(c, 1, 5);
        BroadcastsOnly(c, 6, 18);
    });
    Expect("frames stop, the link goes down after 9 s", "", -1, {}, [](Checker& c) {
        Healthy(c, 1, 5);
        BroadcastsOnly(c, 6, 30, true, 14);
    });
    Expect("the link reported down 3 s after a frame", "link-down-early", 8000, {}, [](Checker& c) {
        Healthy(c, 1, 5);
        c.OnBus(Status(8000, false));
    });
    Expect("a frame of the down report's own instant", "", -1, {}, [](Checker& c) {
        Healthy(c, 1, 5);
        BroadcastsOnly(c, 6, 13);
        c.OnFrame(14100, kFrame);
        BroadcastsOnly(c, 14, 15, true, 14);
        Healthy(c, 16, 20);
    });
    Expect("frames resume and the link comes up at the next status", "", -1, {}, [](Checker& c) {
        Healthy(c, 1, 5);
        BroadcastsOnly(c, 6, 20, true, 14);
        Healthy(c, 21, 26);
    });
    Expect("frames resume and the link stays down", "link-up", 24200, {}, [](Checker& c) {
        Healthy(c, 1, 5);
        BroadcastsOnly(c, 6, 20, true, 14);
        c.OnFrame(21000, kFrame);
        for (int s = 21; s <= 25; ++s) {
            c.OnBus(Table(s * 1000 + 100, kFrame));
            c.OnBus(Message(MSG_GDS_ALARM, s * 1000 + 100, std::vector<unsigned char>(208, 0)));
            c.Step(s * 1000 + 200);
        }
    });
    Expect("memory grows 100 MB after the warm-up", "memory", 660000, {}, [](Checker& c) {
        c.OnMemory(0, 5000);
        c.OnMemory(600000, 10000);
        c.OnMemory(660000, 110000);
    });
    Expect("memory grows 1 MB", "", -1, {}, [](Checker& c) {
        c.OnMemory(600000, 10000);
        c.OnMemory(660000, 11000);
    });
    Expect("a release of 1.5 s", "release", 9000, {}, [](Checker& c) { c.OnRelease(9000, 1500); });
    Expect("a release of 0.2 s", "", -1, {}, [](Checker& c) { c.OnRelease(9000, 200); });
    Expect("a run that stops early", "run-ends", 4000, {}, [](Checker& c) { c.OnEnd(9000, 4000); });
    // The line and box faults.
    Expect("a restart, the stream back 20 s after", "", -1,
           {{FaultKind::Restart, 5500, 6000, 0, 0, 0}}, [](Checker& c) {
               Healthy(c, 1, 5);
               BroadcastsOnly(c, 6, 25, true, 14);
               Healthy(c, 26, 30);
           });
    Expect("a restart, the stream never back", "stream-back", 51200,
           {{FaultKind::Restart, 5500, 6000, 0, 0, 0}}, [](Checker& c) {
               Healthy(c, 1, 5);
               BroadcastsOnly(c, 6, 60, true, 14);
           });
    Expect("counting the pairs, the first frame may wait, the second may not", "data-to-table",
           5100, {{FaultKind::Escaped, 3500, 9000, 1, 0, 0}}, [](Checker& c) {
               Healthy(c, 1, 3);
               c.OnFrame(4000, {{7, 1.0f}});
               c.OnBus(Table(4100, kFrame));
               c.OnFrame(5000, {{7, 2.0f}});
               c.OnBus(Table(5100, kFrame));
           });
    Expect(
        "counting the pairs after a frame with a wrong checksum: the next may still wait", "", -1,
        {{FaultKind::Escaped, 3500, 9000, 1, 0, 0}, {FaultKind::BadChecksum, 3500, 4100, 0, 0, 0}},
        [](Checker& c) {
            Healthy(c, 1, 3);
            c.OnFrame(4000, {{7, 1.0f}});
            c.OnBus(Table(4100, kFrame));
            c.OnFrame(5000, {{7, 2.0f}});
            c.OnBus(Table(5100, kFrame));
            c.OnFrame(6000, {{7, 3.0f}});
            c.OnBus(Table(6100, {{7, 3.0f}}));
        });
    Expect("escaped with a wrong checksum: not in the table, the link down while frames come", "",
           -1,
           {{FaultKind::Escaped, 5500, 40000, 0, 0, 0},
            {FaultKind::BadChecksum, 5500, 30000, 0, 0, 0}},
           [](Checker& c) {
               Healthy(c, 1, 5);
               for (int s = 6; s <= 29; ++s) {
                   c.OnFrame(s * 1000LL, {{7, 1.0f}});
                   BroadcastsOnly(c, s, s, true, 14);
               }
               Healthy(c, 30, 31);
           });
    // The host's clocks. Seconds since 2000 of 2026-01-01 00:00:10 and 10 s of host time on.
    Expect("a stall of 30 s: no broadcast, no frame, the link stays up, nothing is late", "", -1,
           {{FaultKind::Stall, 5300, 35300, 0, 0, 0}}, [](Checker& c) {
               Healthy(c, 1, 5);
               Healthy(c, 36, 40);
           });
    Expect("the same 30 s without a stall", "broadcast-period", 36100, {}, [](Checker& c) {
        Healthy(c, 1, 5);
        Healthy(c, 36, 40);
    });
    Expect("the seconds a stall missed, made up in a burst", "broadcast-period", 35400,
           {{FaultKind::Stall, 5300, 35300, 0, 0, 0}}, [](Checker& c) {
               Healthy(c, 1, 5);
               c.OnBus(Table(35300, kFrame));
               c.OnBus(Table(35400, kFrame));
           });
    Expect("a frame of the stall's first instant is owed to the broadcast after it",
           "data-to-table", 7000, {{FaultKind::Stall, 5000, 6000, 0, 0, 0}}, [](Checker& c) {
               Healthy(c, 1, 4);
               c.OnFrame(5000, {{7, 1.0f}});
               c.OnBus(Table(6000, kFrame));
               c.OnBus(Table(7000, kFrame));
           });
    Expect("records dated as the host's date ran", "", -1, {}, [](Checker& c) {
        c.OnBus(Blackbox(1000, {{26, 1, 1, 0, 0, 0}, {26, 1, 1, 0, 0, 1}}));
        c.OnBus(Blackbox(12000, {{26, 1, 1, 0, 0, 1}, {26, 1, 1, 0, 0, 12}}));
    });
    Expect("a record dated a second after its message", "blackbox-date", 12000, {}, [](Checker& c) {
        c.OnBus(Blackbox(12000, {{26, 1, 1, 0, 0, 13}}));
    });
    Expect("a record dated before the date jumped back a day, and after", "", -1,
           {{FaultKind::DateJump, 5000, 5100, 0, -86400, 0}}, [](Checker& c) {
               c.OnBus(Blackbox(6000, {{26, 1, 1, 0, 0, 5}, {25, 12, 31, 0, 0, 5}}));
           });
    Expect("a record dated the old day after the jump", "blackbox-date", 7000,
           {{FaultKind::DateJump, 5000, 5100, 0, -86400, 0}}, [](Checker& c) {
               c.OnBus(Blackbox(6000, {{26, 1, 1, 0, 0, 5}}));
               c.OnBus(Blackbox(7000, {{26, 1, 1, 0, 0, 7}}));
           });
    Expect("a black-box message shorter than its records", "blackbox-date", 1000, {},
           [](Checker& c) {
               hostsim::BusMessage m = Blackbox(1000, {{26, 1, 1, 0, 0, 0}});
               m.payload[0] = 3;
               c.OnBus(m);
           });
    // The status record.
    Expect("the same status record again with nothing changed", "status-quiet", 6100, {},
           [](Checker& c) {
               Healthy(c, 1, 5);
               c.OnBus(Status(6100, true));
           });
    Expect("the same status record after a pause of the frames, or a calibration", "", -1, {},
           [](Checker& c) {
               Healthy(c, 1, 5);
               BroadcastsOnly(c, 6, 7);
               Healthy(c, 8, 10);  // sends it again at 8.1 s
               c.OnInject(11000, MSG_TRIGGER_OBD_DEMACATE, 52);
               c.OnBus(Status(12100, true));
           });
    Expect("the new version after an install, and none after the next", "", -1, {}, [](Checker& c) {
        c.SetInstalledVersion("DL2.0");
        c.OnBus(VersionStatus(1000, "DL1.0"));
        c.OnBus(Upgrade(MSG_TRIGGER_PERIPHERAL_UPGRADE, 2000, 0, true));
        c.OnBoxInstalled(8000);
        c.OnBus(Upgrade(MSG_PERIPHERAL_UPGRADE_STATE, 8000, 10, false));
        c.OnBus(VersionStatus(14000, "DL2.0"));
        c.OnBus(Upgrade(MSG_TRIGGER_PERIPHERAL_UPGRADE, 20000, 0, true));
        c.OnBoxInstalled(28000);
        c.OnBus(Upgrade(MSG_PERIPHERAL_UPGRADE_STATE, 28000, 10, false));
        c.OnInject(28100, MSG_POWER_DOWN);  // no broadcasts owed
        c.Step(200000);
    });
    Expect("installed and the old version stays", "status-version", 53100, {}, [](Checker& c) {
        c.SetInstalledVersion("DL2.0");
        c.OnBus(VersionStatus(1000, "DL1.0"));
        c.OnBus(Upgrade(MSG_TRIGGER_PERIPHERAL_UPGRADE, 2000, 0, true));
        c.OnBoxInstalled(8000);
        c.OnBus(Upgrade(MSG_PERIPHERAL_UPGRADE_STATE, 8000, 10, false));
        c.OnInject(8100, MSG_POWER_DOWN);
        c.Step(53000);
        c.Step(53100);
    });
    Expect("an upgrade of 90 s in a window of late answers", "", -1,
           {{FaultKind::LateAnswers, 5000, 60000, 4000, 0, 0}}, [](Checker& c) {
               Healthy(c, 1, 5);
               c.OnBus(Upgrade(MSG_TRIGGER_PERIPHERAL_UPGRADE, 5500, 0, true));
               FramesOnly(c, 6, 95);
               c.OnBus(Upgrade(MSG_PERIPHERAL_UPGRADE_STATE, 96000, 9, false));
               Healthy(c, 97, 98);
           });
}

}  // namespace
}  // namespace obdswarm

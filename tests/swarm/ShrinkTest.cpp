// The shrinker's parts on synthetic schedules, judged by fakes that say which invariant a
// candidate breaks; and the bound overrides' names and numbers.
#include <gtest/gtest.h>

#include <set>

#include "Shrink.h"

namespace obdswarm {
namespace {

// Twenty faults a second apart, one drive of `phases` (seconds each).
Schedule Synthetic(const std::vector<double>& phases, size_t faults = 20) {
    Schedule s;
    s.seed = 99;
    double total = 0;
    for (double seconds : phases) {
        Phase p;
        p.kind = PhaseKind::City;
        p.seconds = seconds;
        p.noise = static_cast<uint64_t>(total) + 1;
        s.phases.push_back(p);
        total += seconds;
    }
    s.hours = total / 3600;
    for (size_t i = 0; i < faults; ++i) {
        Fault f;
        f.kind = i % 2 == 0 ? FaultKind::Silent : FaultKind::Garbage;
        f.startMs = 10000 + static_cast<long long>(i) * 1000;
        f.endMs = f.startMs + 20000;
        f.seed = i;
        s.faults.push_back(f);
    }
    return s;
}

bool Has(const Schedule& s, uint64_t faultSeed) {
    for (const Fault& f : s.faults) {
        if (f.seed == faultSeed) return true;
    }
    return false;
}

long long DriveMs(const Schedule& s) {
    return static_cast<long long>(s.DriveSeconds() * 1000);
}

TEST(Ddmin, FindsTheCulpritsWithFewTries) {
    const struct {
        std::set<size_t> culprits;
        int maxTries;
    } rows[] = {{{7}, 12}, {{0}, 12}, {{19}, 12}, {{3, 14}, 60}, {{5, 6, 7}, 40}, {{}, 1}};
    for (const auto& r : rows) {
        SCOPED_TRACE(testing::PrintToString(r.culprits));
        int tries = 0;
        const auto found = Ddmin(20, [&](const std::vector<size_t>& subset) {
            ++tries;
            EXPECT_TRUE(std::is_sorted(subset.begin(), subset.end()));
            const std::set<size_t> have(subset.begin(), subset.end());
            return std::includes(have.begin(), have.end(), r.culprits.begin(), r.culprits.end());
        });
        EXPECT_EQ(std::set<size_t>(found.begin(), found.end()), r.culprits);
        EXPECT_LE(tries, r.maxTries);
    }
    EXPECT_TRUE(Ddmin(0, [](const std::vector<size_t>&) { return true; }).empty());
}

TEST(Truncate, CutsPhasesDropsAndClipsFaults) {
    Schedule s = Synthetic({60, 120, 30}, 0);
    s.faults = {{FaultKind::Silent, 10000, 20000, 0, 0, 1},
                {FaultKind::StreamHeld, 80000, 150000, 0, 0, 2},
                {FaultKind::PowerDown, 205000, 210000, 0, 0, 3}};
    const struct {
        long long untilMs;
        std::vector<double> phases;
        std::vector<std::pair<long long, long long>> windows;
    } rows[] = {
        {90500, {60, 31}, {{10000, 20000}, {80000, 91000}}},
        {80000, {60, 20}, {{10000, 20000}}},  // a window starting at the end goes
        {15000, {15}, {{10000, 15000}}},
        {0, {1}, {}},
        {209999, {60, 120, 30}, {{10000, 20000}, {80000, 150000}, {205000, 210000}}},
        {400000, {60, 120, 30}, {{10000, 20000}, {80000, 150000}, {205000, 210000}}},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.untilMs);
        const Schedule t = Truncate(s, r.untilMs);
        std::vector<double> phases;
        for (const Phase& p : t.phases) phases.push_back(p.seconds);
        EXPECT_EQ(phases, r.phases);
        std::vector<std::pair<long long, long long>> windows;
        for (const Fault& f : t.faults) windows.emplace_back(f.startMs, f.endMs);
        EXPECT_EQ(windows, r.windows);
        EXPECT_GE(DriveMs(t), std::min(r.untilMs, DriveMs(s)));
    }
}

// Faults stay where they were in the drive when phases before them go or shrink.
TEST(Resize, FaultsMoveWithTheirPhases) {
    Schedule s = Synthetic({60, 120, 30}, 0);
    s.faults = {{FaultKind::Silent, 10000, 20000, 0, 0, 1},
                {FaultKind::Garbage, 100000, 130000, 5, 0, 2},
                {FaultKind::BadChecksum, 190000, 200000, 0, 0, 3}};
    const struct {
        std::vector<double> seconds;
        bool fromFront;
        double driveS;
        std::vector<std::pair<long long, long long>> windows;
    } rows[] = {
        {{0, 120, 30}, false, 150, {{40000, 70000}, {130000, 140000}}},
        {{60, 0, 30}, false, 90, {{10000, 20000}, {70000, 80000}}},
        {{60, 60, 30}, false, 150, {{10000, 20000}, {100000, 120000}, {130000, 140000}}},
        {{60, 60, 30}, true, 150, {{10000, 20000}, {60000, 70000}, {130000, 140000}}},
        {{60, 120, 0}, false, 180, {{10000, 20000}, {100000, 130000}}},
        {{0, 0, 0}, false, 210, {{10000, 20000}, {100000, 130000}, {190000, 200000}}},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(testing::PrintToString(r.seconds) + (r.fromFront ? " from the front" : ""));
        const Schedule t = Resize(s, r.seconds, r.fromFront);
        EXPECT_EQ(t.DriveSeconds(), r.driveS);
        std::vector<std::pair<long long, long long>> windows;
        for (const Fault& f : t.faults) windows.emplace_back(f.startMs, f.endMs);
        EXPECT_EQ(windows, r.windows);
    }
}

// A judge that plays the plug-in: `link-down` 1.5 s into the window of the fault seeded 7 when
// the run gets that far, and only when `with` (if any) is there too; `link-up` without it.
Judge Fake(int& calls, int with = -1) {
    return [&calls, with](const Schedule& s) {
        ++calls;
        Verdict v;
        for (const Fault& f : s.faults) {
            if (f.seed != 7 || f.endMs - f.startMs < 100) continue;
            const long long at = f.startMs + 1500;
            if (at >= DriveMs(s) + 1000) break;
            v.invariant = with < 0 || Has(s, static_cast<uint64_t>(with)) ? "link-down" : "link-up";
            v.tMs = at;
        }
        return v;
    };
}

TEST(Shrink, KeepsOnlyWhatBreaksTheSameInvariant) {
    const Schedule s = Synthetic({300, 600, 900, 1200});
    const struct {
        int with;
        std::set<uint64_t> left;
    } rows[] = {{-1, {7}}, {3, {3, 7}}, {15, {7, 15}}};
    for (const auto& r : rows) {
        SCOPED_TRACE(r.with);
        int calls = 0;
        const Judge judge = Fake(calls, r.with);
        const Verdict first = judge(s);
        ASSERT_EQ(first.invariant, "link-down");
        std::vector<std::string> lines;
        ShrinkOptions o;
        o.log = [&lines](const std::string& line) { lines.push_back(line); };
        const ShrinkResult out = Shrink(s, first, judge, o);
        std::set<uint64_t> left;
        for (const Fault& f : out.schedule.faults) left.insert(f.seed);
        EXPECT_EQ(left, r.left);
        EXPECT_EQ(out.verdict.invariant, "link-down");
        EXPECT_EQ(out.verdict.tMs, judge(out.schedule).tMs);
        // The violation stays inside the drive, with the margin after it.
        EXPECT_GE(DriveMs(out.schedule), out.verdict.tMs + o.marginMs);
        EXPECT_LT(DriveMs(out.schedule), 60000);
        EXPECT_EQ(out.schedule.phases.size(), 1u);
        for (const Fault& f : out.schedule.faults) EXPECT_LE(f.endMs - f.startMs, 1600);
        EXPECT_FALSE(out.capped);
        EXPECT_EQ(out.runs, calls - 2);  // the first verdict and the check above are not its own
        EXPECT_FALSE(lines.empty());
        EXPECT_LE(out.runs, 300);
        // Same input, same result.
        EXPECT_EQ(ToJson(Shrink(s, first, judge, o).schedule), ToJson(out.schedule));
    }
}

TEST(Shrink, StopsAtTheCapWithTheBestSoFar) {
    const Schedule s = Synthetic({300, 600, 900, 1200});
    int calls = 0;
    const Judge judge = Fake(calls);
    const Verdict first = judge(s);
    ShrinkOptions o;
    o.maxRuns = 5;
    const ShrinkResult out = Shrink(s, first, judge, o);
    EXPECT_TRUE(out.capped);
    EXPECT_EQ(out.runs, 5);
    EXPECT_EQ(calls, 6);
    EXPECT_EQ(judge(out.schedule).invariant, "link-down");
    EXPECT_LT(DriveMs(out.schedule), DriveMs(s));  // the cut after the violation came first
}

TEST(Shrink, ARunThatBreaksNothingWhenCutStaysWhole) {
    const Schedule s = Synthetic({300, 600});
    int calls = 0;
    // Only the whole schedule breaks it: every cut is refused.
    const std::string whole = ToJson(s);
    const Judge judge = [&](const Schedule& c) {
        ++calls;
        return ToJson(c) == whole ? Verdict{"memory", 800000} : Verdict{};
    };
    const ShrinkResult out = Shrink(s, judge(s), judge, {});
    EXPECT_EQ(ToJson(out.schedule), whole);
    EXPECT_EQ(out.verdict.invariant, "memory");
    EXPECT_GT(out.runs, 0);
    EXPECT_EQ(calls, out.runs + 1);
}

TEST(Bounds, NamesAndNumbers) {
    const struct {
        const char* arg;
        bool ok;
        long long Bounds::*field;
        long long value;
    } rows[] = {
        {"link-down=1500", true, &Bounds::linkDownMs, 1500},
        {"link-down-early=0", true, &Bounds::linkDownEarlyMs, 0},
        {"link-up=3000", true, &Bounds::linkUpMs, 3000},
        {"upgrade-ends=60000", true, &Bounds::upgradeMs, 60000},
        {"release=86400000", true, &Bounds::releaseMs, 86400000},
        {"broadcast-period=900", true, &Bounds::periodMs, 900},
        {"memory=1024", true, &Bounds::rssGrowthKb, 1024},
        {"link-down", false, nullptr, 0},
        {"link-down=", false, nullptr, 0},
        {"link-down=-5", false, nullptr, 0},
        {"link-down=+5", false, nullptr, 0},
        {"link-down=1.5", false, nullptr, 0},
        {"link-down=12s", false, nullptr, 0},
        {"link-down=86400001", false, nullptr, 0},
        {"link-down=99999999999999999999999", false, nullptr, 0},
        {"linkdown=5", false, nullptr, 0},
        {"=5", false, nullptr, 0},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.arg);
        Bounds b;
        std::string error;
        EXPECT_EQ(SetBound(r.arg, b, error), r.ok);
        EXPECT_EQ(error.empty(), r.ok) << error;
        if (r.ok) {
            EXPECT_EQ(b.*r.field, r.value);
            EXPECT_EQ(BoundArgs(b) == "", Bounds{}.*r.field == r.value);
        } else {
            EXPECT_EQ(BoundArgs(b), "");
        }
    }
    Bounds b;
    std::string error;
    ASSERT_TRUE(SetBound("release=10", b, error));
    ASSERT_TRUE(SetBound("link-down=1500", b, error));
    EXPECT_EQ(BoundArgs(b), " --bound link-down=1500 --bound release=10");
    EXPECT_EQ(BoundValues(b).at("link-down"), 1500);
    EXPECT_EQ(BoundValues(b).size(), BoundFields().size());
}

}  // namespace
}  // namespace obdswarm

#include "Direct.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "Feeder.h"
#include "ObdNames.h"
#include "Reference.h"
#include "Summary.h"
#include "Trip.h"

namespace obdsim {

Json DirectAlarms(const Drive& drive, ReferenceAnalyser& reference) {
    AlarmEpisodes episodes;
    const bool motion = drive.HasMotion();
    const auto seconds = static_cast<long long>(std::floor(drive.DurationS()));
    long long tick = 0;  // the next inertial sample, in periods of kInertialPeriodMs
    for (long long s = 0; s <= seconds; ++s) {
        for (; motion && tick * kInertialPeriodMs <= s * 1000; ++tick) {
            const double t = static_cast<double>(tick * kInertialPeriodMs) / 1000.0;
            reference.SixAxis(SixAxisSample(drive.MotionAt(t)));
        }
        reference.Frame(drive.ItemsAt(static_cast<double>(s)));
        reference.Second();
        uint64_t words[4];
        reference.AlarmWords(words);
        episodes.Step((s + 1) * kStepMs, words);
    }
    Json alarms = Json::array();
    for (const AlarmEvent& e : episodes.Events()) {
        alarms.push_back({{"key", Alarm(e.alarm).key},
                          {"title", Alarm(e.alarm).title},
                          {"level", Alarm(e.alarm).graded ? Json(e.level) : Json(nullptr)},
                          {"start_s", static_cast<double>(e.startMs) / 1000.0},
                          {"duration_s", static_cast<double>(e.UntilMs() - e.startMs) / 1000.0},
                          {"active", e.endMs < 0}});
    }
    return alarms;
}

namespace {

struct Episode {
    double start, duration;
    int level;
};

double Number(const Json& a, const char* field) {
    return a.contains(field) && a[field].is_number() ? a[field].get<double>() : 0.0;
}

// A summary read from a file may hold anything: an entry that is not an alarm counts as none.
std::vector<Episode> OfKind(const Json& alarms, const char* key) {
    std::vector<Episode> out;
    if (!alarms.is_array()) return out;
    for (const Json& a : alarms) {
        if (!a.is_object() || !a.contains("key") || a["key"] != key) continue;
        out.push_back(
            {Number(a, "start_s"), Number(a, "duration_s"), static_cast<int>(Number(a, "level"))});
    }
    std::sort(out.begin(), out.end(),
              [](const Episode& a, const Episode& b) { return a.start < b.start; });
    return out;
}

std::string Describe(const Episode& e, bool graded) {
    return "at " + Dur(e.start) + " for " + Fmt("%.0f", e.duration) + " s" +
           (graded ? ", level " + std::to_string(e.level) : "");
}

}  // namespace

AlarmComparison CompareAlarms(const Json& replay, const Json& direct, double toleranceS) {
    AlarmComparison c;
    c.table =
        "  alarm                         episodes            seconds\n"
        "                             replay  direct    replay    direct\n";
    for (int k = 0; k < kAlarmCount; ++k) {
        const AlarmDef& def = Alarm(k);
        const std::vector<Episode> r = OfKind(replay, def.key), d = OfKind(direct, def.key);
        if (r.empty() && d.empty()) continue;
        double rs = 0, ds = 0;
        for (const Episode& e : r) rs += e.duration;
        for (const Episode& e : d) ds += e.duration;
        char line[160];
        std::snprintf(line, sizeof(line), "  %-26s %7zu %7zu %9.0f %9.0f\n", def.title, r.size(),
                      d.size(), rs, ds);
        c.table += line;
        // Both lists in order of their starts: an episode pairs with the other side's next one
        // when they start within the tolerance; otherwise the earlier of the two has no match.
        const std::string title = def.title;
        size_t i = 0, j = 0;
        while (i < r.size() || j < d.size()) {
            if (j == d.size() || (i < r.size() && r[i].start < d[j].start - toleranceS)) {
                c.differences.push_back(title + " " + Describe(r[i++], def.graded) +
                                        " only in the replay");
            } else if (i == r.size() || d[j].start < r[i].start - toleranceS) {
                c.differences.push_back(title + " " + Describe(d[j++], def.graded) +
                                        " only in the direct analysis");
            } else {
                if (std::fabs(r[i].duration - d[j].duration) > toleranceS ||
                    (def.graded && r[i].level != d[j].level)) {
                    c.differences.push_back(title + " " + Describe(r[i], def.graded) +
                                            " in the replay, " + Describe(d[j], def.graded) +
                                            " in the direct analysis");
                }
                ++i;
                ++j;
            }
        }
    }
    return c;
}

}  // namespace obdsim

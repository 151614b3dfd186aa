#include "WhatIf.h"

#include <cstdio>
#include <mutex>

#include "ObdNames.h"
#include "Reference.h"
#include "Summary.h"
#include "Trip.h"

namespace obdsim {

struct WhatIf::Run {
    std::string name, file;
    std::vector<ThresholdEdit> edits;
    ReferenceAnalyser analyser;
    std::mutex mutex;  // guards episodes: stepped on the feeder's thread, read at the end
    AlarmEpisodes episodes;
};

WhatIf::WhatIf() = default;
WhatIf::~WhatIf() = default;

std::string WhatIfName(const std::string& path) {
    const size_t slash = path.rfind('/');
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    if (name.size() > 5 && name.compare(name.size() - 5, 5, ".json") == 0)
        name.resize(name.size() - 5);
    return name;
}

bool WhatIf::Load(const std::string& libraryPath, const std::vector<std::string>& files,
                  std::string& error) {
    for (const std::string& file : files) {
        auto run = std::make_unique<Run>();
        run->file = file;
        run->name = WhatIfName(file);
        for (const auto& other : m_runs) {
            if (other->name == run->name) {
                error = file + ": a second threshold file named " + run->name;
                return false;
            }
        }
        if (!LoadThresholds(file, run->edits, error)) return false;
        std::string why;
        if (!run->analyser.Load(libraryPath, why)) {
            error = file;
            error += ": cannot load an analyser for it (" + why + ")";
            return false;
        }
        // Applied over the analyser's own defaults, before it has seen a sample.
        uint8_t record[kThresholdBytes];
        run->analyser.ThresholdRecord(record);
        ApplyThresholds(run->edits, record);
        run->analyser.SetThresholdRecord(record);
        m_runs.push_back(std::move(run));
    }
    return true;
}

void WhatIf::Frame(const DriveSample& items) {
    for (auto& r : m_runs) r->analyser.Frame(items);
}

void WhatIf::SixAxis(const tagSixAxisOrgData& sample) {
    for (auto& r : m_runs) r->analyser.SixAxis(sample);
}

void WhatIf::Second(long long tMs) {
    for (auto& r : m_runs) {
        r->analyser.Second();
        uint64_t words[4];
        r->analyser.AlarmWords(words);
        std::lock_guard<std::mutex> lock(r->mutex);
        r->episodes.Step(tMs, words);
    }
}

Json WhatIf::ToJson() const {
    Json out = Json::array();
    for (const auto& r : m_runs) {
        Json alarms = Json::array();
        std::lock_guard<std::mutex> lock(r->mutex);
        for (const AlarmEvent& e : r->episodes.Events()) {
            const AlarmDef& def = Alarm(e.alarm);
            alarms.push_back({{"key", def.key},
                              {"title", def.title},
                              {"level", def.graded ? Json(e.level) : Json(nullptr)},
                              {"start_s", static_cast<double>(e.startMs) / 1000.0},
                              {"duration_s", static_cast<double>(e.UntilMs() - e.startMs) / 1000.0},
                              {"active", e.endMs < 0}});
        }
        out.push_back({{"name", r->name},
                       {"file", r->file},
                       {"thresholds", ThresholdsJson(r->edits)},
                       {"alarms", alarms}});
    }
    return out;
}

std::string WhatIfText(const Json& whatIf) {
    std::string t;
    if (!whatIf.is_array()) return t;
    for (const Json& set : whatIf) {
        t += "\nWhat if (" + set["name"].get<std::string>() + ": " + set["thresholds"].dump() +
             "; the analyser on the same samples)\n";
        bool any = false;
        for (int k = 0; k < kAlarmCount; ++k) {
            int n = 0;
            double s = 0;
            for (const Json& a : set["alarms"]) {
                if (a["key"] != Alarm(k).key) continue;
                ++n;
                s += a["duration_s"].get<double>();
            }
            if (n == 0) continue;
            any = true;
            char line[160];
            std::snprintf(line, sizeof(line), "  %5d  %-9s  %s\n", n, Dur(s).c_str(),
                          Alarm(k).title);
            t += line;
        }
        if (!any) t += "  no alarms\n";
    }
    return t;
}

}  // namespace obdsim

// What-if thresholds in a replay: for each threshold file, one more copy of the analyser (as the
// reference analyser, Reference.h) with those thresholds, fed the very samples the plug-in was
// handed and run once per vehicle second, its alarms followed as the plug-in's are.
//
// The plug-in itself keeps its defaults: its threshold messages (ids 348 and 33115) are
// acknowledged with a log line and their payload is never read, and nothing else changes its
// thresholds. So the what-if alarms are the analyser's answer on the same trip, beside the
// plug-in's own; a file that changes nothing gives the plug-in's alarms.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Decode.h"
#include "Drive.h"
#include "GdsLogicAnalyser.h"
#include "Thresholds.h"

namespace obdsim {

class ReferenceAnalyser;
class AlarmEpisodes;

class WhatIf {
  public:
    WhatIf();
    ~WhatIf();
    WhatIf(const WhatIf&) = delete;
    WhatIf& operator=(const WhatIf&) = delete;

    // Reads every file and loads an analyser for each. False with `error` naming the file: a
    // refused field, two files of one name, a library that cannot be loaded.
    bool Load(const std::string& libraryPath, const std::vector<std::string>& files,
              std::string& error);
    bool Empty() const { return m_runs.empty(); }

    // The feed, as the reference analyser's (any thread; the analysers serialise their calls).
    void Frame(const DriveSample& items);
    void SixAxis(const tagSixAxisOrgData& sample);
    // The once-a-second evaluation at host time tMs: the alarms are stepped there.
    void Second(long long tMs);

    // [{"name", "file", "thresholds": {field: value}, "alarms": [as the summary's]}].
    Json ToJson() const;

  private:
    struct Run;
    std::vector<std::unique_ptr<Run>> m_runs;
};

// Lines for the trip summary: per what-if set, the alarm kinds with their episodes and seconds.
std::string WhatIfText(const Json& whatIf);

// A set's name: the file's name without its folder and its .json.
std::string WhatIfName(const std::string& path);

}  // namespace obdsim

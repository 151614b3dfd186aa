// The direct analysis of a drive, and the check of a replay against it.
//
// A replay puts a drive through the box's data stream, the plug-in's table and its once-a-second
// cycle. The direct analysis skips all of that: a copy of the analyser (Reference.h) is handed the
// drive's values at each whole second of vehicle time, as a logger's rows stand, and analyses once
// a second. Both should see the same trip, so a replay's alarms should be the direct analysis's,
// episode for episode; where they are not, the replay changed what the analyser saw.
#pragma once

#include <string>
#include <vector>

#include "Decode.h"
#include "Drive.h"

namespace obdsim {

class ReferenceAnalyser;

// The direct analysis's alarms, in the form of the summary's "alarms" (key, title, level,
// start_s, duration_s, active). The analysis of second s runs at s + 1, where the plug-in's 1 s
// step that has that second's values broadcasts. `reference` is loaded and has seen nothing yet.
Json DirectAlarms(const Drive& drive, ReferenceAnalyser& reference);

struct AlarmComparison {
    std::string table;                     // per alarm kind: episodes and seconds on both sides
    std::vector<std::string> differences;  // episodes not matched within the tolerance
};

// Compares two lists of alarms in the summary's form kind by kind: each episode of one must have
// one in the other that starts within `toleranceS`, lasts as long within `toleranceS` and reaches
// the same level.
AlarmComparison CompareAlarms(const Json& replay, const Json& direct, double toleranceS);

}  // namespace obdsim

// The trip summary printed at the end of a run: the plug-in's alarms (name, level, start,
// duration), the trip statistics of the reference analyser, the box's device information and
// the verdict. Built once as JSON (--json's last line, --summary-json) and rendered from that as
// text, so the two never disagree.
#pragma once

#include <string>

#include "Decode.h"

namespace obdsim {

class TripLog;
class ReferenceAnalyser;

struct RunFacts {
    std::string source;  // what drove the box: "built-in drive", "scenario FILE", "serial PATH"
    double realSeconds = 0;
    long long slackMs = 0;       // how late the clock may deliver a periodic event (TripLog)
    long long behindMs = 0;      // how far the host fell behind its pace (ClockMaxLateMs)
    std::string speed;           // --speed as given, for the verdict's words
    std::string unjudged;        // why this run's settings take the drive's checks out of play
    std::string statisticsNote;  // why there are no statistics, when there are none
    Json link;                   // LinkMonitor's figures; null when the line was not seen
};

// The verdict ("verdict" in the JSON): "behaved", "misbehaved", "not judged" (no drive to check,
// or settings the drive's checks do not hold for), or "host behind" (problems seen while the host
// had fallen behind the pace it asked for, so they may be its own lag).
// `reference` may be null or not loaded: the summary then says why, from `facts`.
Json SummaryJson(const TripLog& trip, const ReferenceAnalyser* reference, const RunFacts& facts);
std::string SummaryText(const Json& summary);

// Pieces of the text that the report shares: one number in a printf format, seconds as H:MM:SS.
std::string Fmt(const char* format, double v);
std::string Dur(double s);

}  // namespace obdsim

// A trip's analysis and its outputs, the same for a run of obd-sim and for a capture's replay:
// the plug-in's broadcasts followed (TripLog, the report's timeline), the samples it was handed
// fed to the reference analyser and the what-if copies, and at the end the summary (text, JSON)
// and the report page built from them.
//
// A run's feeder hands the samples over itself (Feeder.h taps); a replay has no drive and hands
// over what the capture played in: the box's data-stream frames, the inertial samples and the
// once-a-second evaluations, in the order a run makes them.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "Decode.h"
#include "Drive.h"
#include "FrameDecoder.h"
#include "GdsLogicAnalyser.h"
#include "HostSim.h"
#include "Reference.h"
#include "Report.h"
#include "Summary.h"
#include "Trip.h"
#include "WhatIf.h"

namespace obdsim {

// How late, in host milliseconds, the clock may deliver a periodic event while the host keeps its
// pace: a real or scaled clock by scheduling (a busy machine holds a thread back now and then);
// virtual time (scale 0) never, so one plug-in cycle is left for the cycle's own granularity.
// Whatever the host falls behind beyond that is measured (hostsim::ClockMaxLateMs) and allowed
// for on top, since it is the host's lag and not the plug-in's.
inline long long ClockSlackMs(double timeScale) {
    return timeScale <= 0.0 ? 100 : 500;
}

// The items of a data-stream frame from the box (id 1..59 and a little-endian float, five bytes
// an item), as the box's value source gave them. False for any other record, and for a payload
// the plug-in would refuse (not whole items, or an id out of range).
bool DataStreamItems(const obdframe::Record& r, DriveSample& items);

struct TripOutputs {
    std::string summaryJson;    // where the summary goes as one JSON object, when given
    std::string report;         // where the report page goes, when given
    Json settings;              // the report's table of the run's settings
    bool virtualTime = false;   // the wall time is left out: two runs give the same bytes
    std::FILE* text = nullptr;  // where the summary's text goes (none: not printed)
    Json extra;                 // the caller's own fields, added to the summary as they are
};

class TripAnalysis {
  public:
    // `drive`: what the box played (null: nothing known to check against). `timeline`: follow
    // the broadcasts for a report page.
    TripAnalysis(const Drive* drive, long long slackMs, bool timeline);

    // The analysers: the reference's failure leaves a note in the summary; a what-if set that
    // cannot be used is an error (false, `error` naming the file).
    void LoadReference(const std::string& plugin);
    bool LoadWhatIf(const std::string& plugin, const std::vector<std::string>& thresholds,
                    std::string& error);

    TripLog& Trip() { return m_trip; }
    ReferenceAnalyser& Reference() { return m_reference; }
    WhatIf& WhatIfs() { return m_whatIf; }
    RunFacts& Facts() { return m_facts; }

    // Every message the plug-in sends or answers (the bus thread).
    void OnBus(const hostsim::BusMessage& m);
    // What a replay hands over in a run's order (one thread): a frame the box sent, an
    // inertial sample the plug-in was handed, the once-a-second evaluation at host time tMs.
    void Frame(long long tMs, const DriveSample& items);
    void SixAxis(const tagSixAxisOrgData& sample);
    void Second(long long tMs);

    // The summary of the finished trip (TripLog::Finish done), printed and written as asked;
    // false with `error` when a file cannot be written (the summary is made all the same).
    bool Write(const TripOutputs& out, Json& summary, std::string& error);

  private:
    TripLog m_trip;
    ReferenceAnalyser m_reference;
    WhatIf m_whatIf;
    RunFacts m_facts;
    std::unique_ptr<Timeline> m_timeline;
};

// Writes the whole file; false with the system's reason when any step fails (a full disk shows
// only when the data leaves the buffer).
bool WriteText(const std::string& path, const std::string& text, std::string& error);

}  // namespace obdsim

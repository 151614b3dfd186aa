// The alarms invariant: the plug-in's alarm words, broadcast once a second (6720), equal those of
// a second copy of the analyser (obdsim::ReferenceAnalyser, a library copy of its own) fed with
// the same samples in the same order: every inertial sample the plug-in was handed (the feeder's,
// and those a bus-message fault injects, read as the plug-in reads an inertial payload), and at
// each of the plug-in's seconds the OBD table it broadcast that second (6702), which is what its
// own analyser held. The copy sees one table a second; the plug-in's analyser sees every frame,
// and some of its checks (the rapid acceleration and deceleration) compare consecutive tables.
// The two agree while the box's one frame a second reaches the plug-in one a second, which holds
// until a fault touches the line: from the first window of a kind that can delay, lose or bunch
// frames (all but bad values, bus messages, dropped answers and the power-down, whose data both
// sides see alike) the check stands down for the rest of the run, since the analyser's counters
// keep a difference for minutes. A difference before that is the plug-in's plumbing (feed,
// timer, broadcast), never a fault's.
//
//  alarms-reference  at every alarm broadcast the four event words equal the copy's.
//
// Calls come from the feeder's thread (samples), the plug-in's cycle (bus messages) and the
// stepping thread; one mutex orders them.
#pragma once

#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "GdsLogicAnalyser.h"
#include "HostSim.h"
#include "Invariants.h"
#include "Reference.h"

namespace obdswarm {

class Agreement {
  public:
    explicit Agreement(std::vector<Fault> faults);
    // False with `error` when the analyser copy cannot be loaded from `plugin`.
    bool Load(const std::string& plugin, std::string& error);
    // An inertial sample the plug-in is handed at host time tMs.
    void OnSixAxis(long long tMs, const tagSixAxisOrgData& sample);
    void OnBus(const hostsim::BusMessage& m);
    // An inbound message the swarm delivered (not the feeder's own samples): its payload, after
    // the host's head.
    void OnInject(long long tMs, int id, const std::vector<unsigned char>& payload);

    bool Failed() const;
    Violation First() const;
    // Alarm broadcasts compared so far.
    long long Compared() const;

  private:
    const std::vector<Fault> m_faults;
    obdsim::ReferenceAnalyser m_reference;
    mutable std::mutex m_mutex;  // everything below, and the copy's calls
    // Samples not yet fed, in host time order: the plug-in handles a sample delivered in the
    // same instant as its 1 s work before or after it as its turns fall, so the copy takes
    // those before the broadcast's instant and stands down at a tie.
    std::deque<std::pair<long long, tagSixAxisOrgData>> m_samples;
    _OBD_DataTable_t m_table{};
    bool m_haveTable = false;
    long long m_compared = 0;
    long long m_touchedMs = -1;  // the first fault that touched the line began then
    Violation m_first;
};

}  // namespace obdswarm

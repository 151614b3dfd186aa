// The alarms invariant: the plug-in's alarm words, broadcast once a second (6720), equal those of
// a second copy of the analyser (obdsim::ReferenceAnalyser, a library copy of its own) fed the
// same input in the same order: every data frame the box sent and every inertial sample the
// plug-in was handed (the feeder's, and those a bus-message fault injects, read as the plug-in
// reads an inertial payload), in host time order, then at each of the plug-in's seconds the OBD
// table it broadcast that second (6702), which is what its own analyser held, and the evaluation.
// Order matters beyond the second: each sample's lateral load is worked out with the vehicle
// speed of the table at that moment.
//
// Two things the copy cannot know, so the check stands down for the rest of the run from them on
// (the analyser's counters keep a difference for minutes):
//  - a fault that can delay, lose, split or bunch frames on the line, or hold the box's stream
//    (every kind but bad values, bus messages, dropped answers, the power-down, inertial gaps,
//    the release and date jumps, whose data both sides see alike; a stall wakes the box, the
//    samples and the 1 s work in one instant): which frames the plug-in took, and when, would be
//    the plug-in's receiver's word against the checker's;
//  - an injected sample in the very instant of the 1 s work, which the plug-in handles before or
//    after it as its turns fall (the feeder's samples come between the 100 ms cycles; a frame in
//    that instant is settled by the table broadcast).
// A difference before that is the plug-in's plumbing (feed, timer, broadcast), never a fault's.
//
//  alarms-reference  at every alarm broadcast the four event words equal the copy's.
//
// Calls come from the box's thread (frames), the feeder's (samples), the plug-in's cycle (bus
// messages) and the stepping thread; one mutex orders them.
#pragma once

#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "BoxEmulator.h"
#include "Drive.h"
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
    // A data frame the box sends at host time tMs with these items (box ids 1..59).
    void OnFrame(long long tMs, const obdbox::DataItems& items);
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
    struct Input {
        long long tMs;
        bool frame;
        obdsim::DriveSample items;  // a frame's
        tagSixAxisOrgData sample;   // a sample's
    };
    void Queue(Input in);

    const std::vector<Fault> m_faults;
    obdsim::ReferenceAnalyser m_reference;
    mutable std::mutex m_mutex;  // everything below, and the copy's calls
    std::deque<Input> m_inputs;  // not yet fed, in host time order
    _OBD_DataTable_t m_table{};
    bool m_haveTable = false;
    long long m_compared = 0;
    long long m_touchedMs = -1;  // the check stands down from then on
    Violation m_first;
};

}  // namespace obdswarm

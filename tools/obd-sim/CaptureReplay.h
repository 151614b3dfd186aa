// obd-sim --replay: a capture's outside world played back into the plug-in on virtual time, and
// what the plug-in does now compared with what it did then.
//
// Played in: the box's line bytes (its raw reads when the capture holds them, else its frames
// and garbage), the inbound bus messages and the inertial samples, each at its recorded host
// time. In CAN-box mode (the capture's run facts say product type 72) the box's bytes arrive in
// the recorded 6898 messages and the line frames cut from them are not played a second time.
//
// Compared: the plug-in's frames and garbage towards the box (serial mode) and every bus message
// it sends or answers, in order, each with its time. Within one instant the recorded order is
// causal (a request is written before the box answers it), so an input waits, at its instant,
// for the plug-in's outputs recorded before it; one that does not come is a divergence, and the
// input goes in a millisecond late.
//
// The capture is read twice as a stream (once to check it whole, once to play it); only the
// packets not yet matched are held, so a capture of any length replays in flat memory.
#pragma once

#include <cstddef>
#include <cstdio>
#include <deque>
#include <string>
#include <vector>

#include "Capture.h"

namespace obdsim {

// What the replayed plug-in did against what the capture recorded.
class ReplayComparator {
  public:
    struct Divergence {
        long long tUs = 0;  // the recorded packet's time (the new one's when none was recorded)
        std::string text;   // which frame or message, and the first field that differs
    };
    explicit ReplayComparator(size_t keep = 10);
    // A packet the plug-in sent in the recorded run, and one it sends now (frames and garbage
    // towards the box, bus messages from it; other packets are ignored).
    void Recorded(const obdcap::Packet& p);
    void Now(const obdcap::Packet& p);
    // The run is over: what is left on either side differs.
    void Finish();
    // How many recorded packets of each lane wait for their counterpart.
    size_t RecordedWaiting() const;
    unsigned long long Compared() const { return m_compared; }
    unsigned long long Count() const { return m_count; }
    const std::vector<Divergence>& First() const { return m_first; }

    // The first difference between two packets of one lane, in words; empty when they match.
    static std::string Describe(const obdcap::Packet& recorded, const obdcap::Packet& now);

  private:
    struct Lane {
        std::deque<obdcap::Packet> recorded, now;
    };
    static bool Comparable(const obdcap::Packet& p);
    Lane& LaneOf(const obdcap::Packet& p);
    void Match(Lane& lane);
    void Add(long long tUs, std::string text);

    size_t m_keep;
    Lane m_line, m_bus;
    unsigned long long m_compared = 0, m_count = 0;
    std::vector<Divergence> m_first;
};

struct ReplayOptions {
    std::string path;         // the capture to play
    std::string plugin;       // the plug-in library
    int productType = -1;     // from the command line; -1: as the capture says (else 0)
    int logLevel = 0;         // the plug-in's log, on stderr
    std::string capturePath;  // a new capture of the replayed run, when given
    bool captureChunks = false;
    size_t shown = 10;  // divergences printed
    // The trip's outputs, as a run of obd-sim writes them (TripOutputs.h); none asked for: the
    // replay only compares.
    std::string summaryJson;
    std::string report;
    std::vector<std::string> thresholds;
    bool TripWanted() const {
        return !summaryJson.empty() || !report.empty() || !thresholds.empty();
    }
};

// Exit status of a replay that ran but differed.
constexpr int kReplayDiverged = 6;

// Plays the capture and prints the verdict on stdout (the plug-in's own stdout goes to stderr).
// Returns 0 (identical), kReplayDiverged, or 1 with `error` for a capture that cannot be read
// whole, a plug-in that cannot be run or a file that cannot be written (2: a what-if set that
// cannot be used).
//
// With trip outputs the summary is made as a run makes it, from what the plug-in broadcast in the
// replay and the samples played in, and written whichever the verdict (printed before it); an
// identical replay whose trip checks find the plug-in misbehaving returns 3, as the run did.
// What the line and the bus do not show comes from the capture's run facts (what drove the box,
// the drive's expected alarms, where the trip ended); a capture without them is not judged.
int RunReplay(const ReplayOptions& options, std::string& error);

}  // namespace obdsim

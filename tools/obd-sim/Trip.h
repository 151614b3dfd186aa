// What the recorder would have seen of a trip: the plug-in's broadcasts followed as they arrive
// (alarms begun and ended, the box's device information, the link state, the latest OBD data),
// and the checks that tell whether the plug-in behaved.
//
// The plug-in misbehaved when, with the built-in box playing a drive:
//  - it did not report the OBD link up (status record) within 15 s;
//  - from then on, its OBD data or alarm broadcast (1 s each) did not come within a second (plus
//    the clock's slack) of the previous one;
//  - it reported the OBD link lost (status record, link bit cleared), or its OBD data stopped
//    following the frames the box kept sending (for longer than 3 s plus the slack);
//  - for a drive that names its alarms (the built-in one), an alarm did not come once at its
//    time and level, or another one came.
// An upgrade in progress and a power-down message suspend the broadcast checks, as they suspend
// the plug-in's 1 s work. A crash is caught by the caller (the process is gone).
#pragma once

#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "Decode.h"
#include "Drive.h"
#include "HostSim.h"

namespace obdsim {

// The plug-in's analyser and broadcasts run once a second: each alarm broadcast speaks for one.
constexpr long long kStepMs = 1000;

struct AlarmEvent {
    int alarm = 0;  // ObdNames alarm index
    int level = 0;  // highest level while it lasted
    long long startMs = 0;
    long long endMs = -1;  // -1: still on at the end
    bool expected = false;
    long long lastMs = 0;  // the last step that had it

    // Where its time ends: the first step without it, or for one still on, the end of the second
    // of its last step (a trip that ends with an alarm on does not lose that second).
    long long UntilMs() const { return endMs >= 0 ? endMs : lastMs + kStepMs; }
};

// Alarm episodes from the event words of successive once-a-second steps: an alarm begins with the
// first step that has its bits and ends with the first that has not; a graded one keeps the
// highest level it reached.
class AlarmEpisodes {
  public:
    AlarmEpisodes();
    void Step(long long tMs, const uint64_t words[4]);
    std::vector<AlarmEvent>& Events() { return m_events; }
    const std::vector<AlarmEvent>& Events() const { return m_events; }

  private:
    std::vector<AlarmEvent> m_events;
    int m_open[kAlarmCount];  // index into m_events of the alarm on now, -1 when off
};

class TripLog {
  public:
    // `drive` is what the built-in box plays (null: a real box, or none). `slackMs`: how late a
    // clock may deliver a periodic event when it keeps its pace (0 on an exact clock); the host's
    // measured lateness (hostsim::ClockMaxLateMs) comes on top.
    TripLog(const Drive* drive, long long slackMs);

    // Every outbound bus message, in order (the bus thread).
    void OnBus(const hostsim::BusMessage& m);
    // Every data-stream frame the box sent (the box's thread).
    void OnFrame(long long tMs, const DriveSample& items);
    // An inbound message the simulator injected for the user.
    void OnInject(int id);

    // One line for a terminal at host time `nowMs`.
    std::string Status(long long nowMs) const;
    // Closes the trip at host time `endMs`: alarms still on stay open, the checks that need the
    // whole trip run.
    void Finish(long long endMs);

    std::vector<AlarmEvent> Alarms() const;
    // Alarms the drive names that did not come (after Finish).
    std::vector<ExpectedAlarm> Missing() const;
    // Reasons the plug-in misbehaved, first first; empty when it behaved.
    std::vector<std::string> Problems() const;
    // The last status record (decoded), null before any.
    Json Box() const;
    long long LinkUpMs() const;
    // The plug-in's mean 1 s step (ms between its alarm broadcasts), 0 before two of them. Its
    // 1 s timer restarts from the cycle that ran it, so every late cycle of the host stretches
    // the step (as on the recorder): on a real or scaled clock it comes out above 1000.
    double MeanStepMs() const;
    long long EndMs() const;
    const Drive* DriveOf() const { return m_drive; }

  private:
    struct Frame {
        long long tMs;
        DriveSample items;
    };
    void Problem(const std::string& text);
    void CheckGap(int id, long long& last, long long nowMs);
    void CheckFollows(const hostsim::BusMessage& m);
    bool Suspended() const;
    long long Slack() const;

    const Drive* m_drive;
    const long long m_slackMs;
    mutable std::mutex m_mutex;  // guards everything below
    uint64_t m_words[4] = {0, 0, 0, 0};
    AlarmEpisodes m_alarms;
    std::vector<unsigned char> m_lastData;  // latest OBD data message
    Json m_box;
    int m_linkState = -1;  // obd_state bit 0 of the last status record, -1 before any
    long long m_linkUpMs = -1;
    long long m_lastObdMs = -1, m_lastAlarmMs = -1;
    std::vector<long long> m_steps;  // host times of the plug-in's alarm broadcasts
    bool m_upgrading = false, m_poweredDown = false;
    std::deque<Frame> m_frames;  // the box's recent frames
    long long m_staleSinceMs = -1;
    bool m_staleReported = false;
    std::vector<std::string> m_problems;
    std::vector<ExpectedAlarm> m_missing;
    long long m_endMs = -1;
};

// Host time as H:MM:SS.
std::string Clock(long long ms);

}  // namespace obdsim

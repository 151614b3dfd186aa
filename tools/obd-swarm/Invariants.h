// The swarm's invariants: what must hold after every host step of a run whatever the faults,
// checked from what a recorder sees (the plug-in's bus messages) against what the box sent. Each
// has a name and gives a one-line message; the first violation is kept, with its host time.
//
//  broadcast-period  the OBD data (6702) and alarm (6720) broadcasts each come every second,
//                    and not more often (the first within kFirstBroadcastMs), except while an
//                    upgrade runs (from the accepted trigger to its final state) and after a
//                    power-down message;
//  data-to-table     every data frame the box sent is in the next OBD data broadcast (or a
//                    later frame replaced it), except for frames of a bus-message window, of an
//                    upgrade, or after a power-down;
//  link-down         once the box sends no data frame for linkDownMs, the status record
//                    (6699) has reported the link down;
//  link-down-early   ... and not before linkDownEarlyMs after the last frame;
//  link-up           once the box sends a data frame again, the status record reports the
//                    link up within linkUpMs;
//  upgrade-ends      an upgrade the plug-in accepted ends (success or failure) within upgradeMs;
//  upgrade-not-failed  an upgrade the box installed (it accepted the end, the image matching its
//                    MD5, and said so) is not reported failed: from its acceptance until the
//                    next accepted upgrade no failure (9) is broadcast once the box installed;
//  upgrade-installed ... and the other way round: a success (10) is broadcast only once the box
//                    installed since the upgrade's acceptance;
//  upgrade-file      the upgrade file the swarm wrote disappears only after a reported success,
//                    and is gone within fileSlackMs of one;
//  calibration-answered  a calibration request (6779 with its 52 bytes) is answered (success
//                    or failure) within calibrationMs; a later request takes over the answer;
//  memory            the resident set grows by at most rssGrowthKb after the warm-up;
//  release           the plug-in's release returns within releaseMs of host time;
//  run-ends          the run reaches the end of its host time;
//  status-quiet      the status record (6699) comes when something changed: one the same as
//                    the one before only after a pause of the data frames (two 2 s ticks
//                    without one), a calibration, or a fault or upgrade that can change it
//                    unseen;
//  status-version    after an upgrade reported installed, the status record carries the
//                    version the box now reports within versionMs (counted again after the
//                    windows that hold the plug-in's commands back);
//  blackbox-date     every black-box record (6714) is dated with a date the host reported
//                    between the previous black-box message and this one (the date jumps);
//  stream-back       after a box restart (its window's end) data frames come again within
//                    streamBackMs: the plug-in starts the stream anew. The bound counts again
//                    from the end of any window that holds the plug-in's commands back (the box
//                    silent, dropping, holding or refusing answers, restarting, its stream held,
//                    its frames unreadable, bus messages queueing tasks) and of an upgrade; none
//                    after a power-down.
// The alarms against a second copy of the analyser are Agreement.h's.
//
// Every bound counts host time less the stalls in it: a host that stood still gave the plug-in
// one cycle for all of it, and the box's emulation stood still too, so to the link no time passed.
//
// The line and box faults excuse only this:
//  duplicate, late-answers, refusals, restart: nothing but the above (the link checks measure
//                    from the frames the box really sent, so a stream that a restart or slow
//                    answers stop is judged like any silence: down after 6..12 s, up within 3 s);
//                    late answers restart the upgrade-ends bound at their window's end;
//  escaped           escaped frames, under either length convention, are read whole, with two
//                    exceptions, each frame owed to no broadcast and not counted as a frame for
//                    link-down-early and link-up (link-down measures from the last frame of any
//                    kind). The plug-in learns the box's convention from its frames (L unescaped
//                    to begin with): the first frame that counts its pairs in L after one that
//                    did not may wait for the next bytes. And a frame sent while an escaped
//                    window and a bad-checksum window are both open cannot be told from a cut
//                    one (the checksum decides between the readings).
// A crash and a hang are caught around the run (the process, a real-time watchdog).
//
// Every call may come from any thread (the box's, the bus's, the stepping one).
#pragma once

#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "BoxEmulator.h"
#include "HostSim.h"
#include "Schedule.h"

namespace obdswarm {

struct Bounds {
    long long periodMs = 1000;          // the 1 s broadcasts
    long long slackMs = 100;            // one plug-in cycle: its 1 s work runs on the cycle
    long long firstBroadcastMs = 3000;  // from the start of the run
    long long linkDownMs = 12000;       // 8-10 s by design, one status tick more
    long long linkDownEarlyMs = 6000;
    long long linkUpMs = 3000;  // the next 2 s status tick and a cycle
    // The slowest upgrade that may still end well, on a box that answers only the last attempt
    // of every step: start, name, MD5 and end 11 x 2.05 s (90.2 s), 64 full chunks 4 x 0.55 s
    // (140.8 s), the short last one 4 x 2.05 s (8.2 s): 239.2 s; before it, the task in hand and
    // up to three queued ones of at most 45.1 s each (a stop of the stream and one command, each
    // 11 x 2.05 s): 180.4 s. Files are at most kMaxUpgradeFile.
    long long upgradeMs = 420000;
    // Behind a whole upgrade, the calibration's own task: a stop and the configure, 45.1 s.
    long long calibrationMs = 470000;
    long long fileSlackMs = 1000;
    long long releaseMs = 1000;
    long long rssWarmupMs = 600000;
    long long rssGrowthKb = 64 * 1024;
    // The 10 s restart of the stream, behind a link task that holds the send thread for 11
    // unanswered tries of 2 s, then the stop and start commands.
    long long streamBackMs = 45000;
    // The version read after an install: the next 5 s request, behind the same.
    long long versionMs = 45000;
    // ... from a box that sends link frames: behind one more task, the link task the 10 s timer
    // queues, which no answer ends (11 tries of 2.05 s).
    long long versionLinkMs = 70000;
};

// What a run's upgrades and calibrations came to, for its report and for checking the bounds.
struct UpgradeTally {
    int succeeded = 0, failed = 0;  // final upgrade states broadcast
    int calibrationAnswers = 0;
    long long longestUpgradeMs = 0, longestCalibrationMs = 0;  // accepted/requested to the end
    long long longestVersionMs = 0;  // a success to the status record with the new version
};

struct Violation {
    std::string name;  // empty: none
    long long tMs = -1;
    std::string message;
};

class Checker {
  public:
    explicit Checker(std::vector<Fault> faults, Bounds bounds = {});

    // A data-stream frame the box sends at host time tMs with these items (box ids 1..59).
    void OnFrame(long long tMs, const obdbox::DataItems& items);
    // Every message the plug-in sends or answers.
    void OnBus(const hostsim::BusMessage& m);
    // An inbound message delivered to the plug-in (a power-down ends the 1 s work for good), of
    // `bytes` payload bytes.
    void OnInject(long long tMs, int id, size_t bytes = 0);
    // The box accepted an upgrade's end and is answering so.
    void OnBoxInstalled(long long tMs);
    // The swarm wrote the upgrade file (present) or removed it.
    void OnUpgradeFile(long long tMs, bool present);
    // Whether the upgrade file is there, looked at between host steps.
    void OnFileSeen(long long tMs, bool present);
    // After every host step: the checks that a missing event breaks.
    void Step(long long nowMs);
    void OnMemory(long long tMs, long long rssKb);
    void OnRelease(long long tMs, long long tookMs);
    void OnEnd(long long endMs, long long reachedMs);
    // The software version (DL) the box reports once it installed an upgrade (empty: no
    // status-version check), and whether the box sends link frames.
    void SetInstalledVersion(const std::string& dlVersion, bool linkFrames = false);

    bool Failed() const;
    Violation First() const;
    UpgradeTally Tally() const;

  private:
    struct Frame {
        long long tMs;
        obdbox::DataItems items;
        bool owed;  // to the next broadcast
    };
    void Fail(const char* name, long long tMs, const std::string& message);
    // Host time between two instants less the stalls in it: what the bounds measure.
    long long Elapsed(long long fromMs, long long toMs) const;
    bool PoweredDown(long long tMs) const;
    bool Excused(long long fromMs, long long toMs) const;
    bool BusWindow(long long tMs) const;
    bool Open(FaultKind kind, long long tMs) const;
    bool Unreadable(long long tMs) const;
    long long UpgradeDeadline(long long nowMs) const;
    long long CommandDeadline(long long fromMs, long long boundMs) const;
    void Gap(int id, long long& last, long long nowMs);
    void Soon(int id, long long last, long long nowMs);
    void CheckTable(const hostsim::BusMessage& m);
    bool DateBetween(long long seconds, long long fromMs, long long toMs) const;
    void CheckBlackbox(const hostsim::BusMessage& m);
    bool StatusNews(long long fromMs, long long toMs) const;
    void CheckStatus(const hostsim::BusMessage& m);

    const std::vector<Fault> m_faults;
    const Bounds m_b;

    mutable std::mutex m_mutex;  // everything below
    long long m_powerDownMs = -1;
    Violation m_first;
    long long m_lastObdMs = -1, m_lastAlarmMs = -1;
    long long m_lastBlackboxMs = 0;
    long long m_upgradeFromMs = -1;                           // an upgrade running since then
    std::vector<std::pair<long long, long long>> m_upgrades;  // the ones that ended
    std::deque<Frame> m_frames;  // frames not yet checked against a broadcast
    int m_link = -1;             // the last status record's link bit; -1 before any
    long long m_lastCleanMs = -1, m_prevCleanMs = -1, m_backSinceMs = -1;
    long long m_rssBaseKb = -1;
    // upgrades and calibrations
    long long m_acceptedMs = -1;                       // the last accepted upgrade
    long long m_installedMs = -1;                      // the box installed since then
    bool m_fileWritten = false;                        // the swarm's file should be there
    long long m_fileWrittenMs = -1, m_successMs = -1;  // a success since the write, when
    long long m_calibrationMs = -1;                    // a calibration unanswered since then
    UpgradeTally m_tally;
    // line and box faults
    long long m_lastFrameMs = -1;          // any data frame, readable or not
    std::vector<long long> m_restartEnds;  // the restarts still to be checked, by time
    bool m_countsPairs = false;            // the last escaped frame's length convention
    // the status record
    static constexpr long long kPauseMs = 1900;  // a gap in the frames that spans two 2 s ticks
    std::vector<uint8_t> m_lastStatus;
    long long m_lastStatusMs = -1;
    long long m_pauseMs = -1;       // the last frame after a pause
    long long m_calibratedMs = -1;  // the last calibration request
    std::string m_installedVersion, m_reportedVersion;
    long long m_versionDueMs = -1;  // a success not yet followed by the new version
    bool m_linkFrames = false;
};

// Host time as H:MM:SS.mmm, and as H:MM:SS (whole seconds, any number of hours).
std::string Clock(long long ms);
std::string ClockSeconds(long long ms);

}  // namespace obdswarm

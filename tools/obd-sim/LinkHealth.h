// Link health: what the line between the plug-in and the box looked like over a run, from the
// bytes each way as the plug-in read and wrote them (the host layer's serial tap), so that two
// boxes or two firmware versions can be compared at a glance.
//
// The bytes are cut into frames as they come (obd-frame's streaming decoder: a record is taken
// only once no later byte can change it, so a frame split across reads is cut as a reader of the
// whole line would cut it), and only counters and two fixed histograms are kept, so a run of any
// length holds its memory.
//
//  - frames each way; frames with a wrong checksum; cut-off frames (a head whose frame never
//    completed); garbage: bytes outside any frame, and how many runs of it (each one a
//    resynchronisation of a reader looking for the next head);
//  - commands: a frame to the box that repeats the previous one's code and sequence number is a
//    retry; a command that got no answer before the next command (or the end) is unanswered;
//  - answer latency: from the last attempt of a command to its answer (host ms);
//  - data stream: the box's data frames, their usual period (the median) and the gaps: periods
//    longer than one and a half times that (a frame or more missing).
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

#include "Decode.h"
#include "FrameDecoder.h"

namespace obdsim {

class LinkMonitor {
  public:
    // Each record as it is cut (a frame, a garbage run, a frame cut off), with the host time of
    // its last byte; called under the monitor's lock, in each direction's order.
    using RecordTap =
        std::function<void(const obdframe::Record& r, bool toBox, long long lastByteMs)>;
    explicit LinkMonitor(RecordTap tap = {});
    // One chunk as read or written (any thread; chunks of one direction in order).
    void OnChunk(bool toBox, const unsigned char* data, size_t n, long long tMs);
    // The line has gone quiet for good: what is still pending is cut as it stands (the tap hears
    // of it now rather than at Figures).
    void Finish();
    // The figures at the end of the run: what is still pending counts as it stands.
    Json Figures();

  private:
    struct Direction {
        explicit Direction(obdframe::Dir line);
        obdframe::StreamDecoder decoder;
        // Stream offset where each chunk not yet wholly cut begins, and its host time.
        std::deque<std::pair<size_t, long long>> chunks;
        long long frames = 0, badChecksum = 0, cutOff = 0, garbageBytes = 0, garbageRuns = 0;
    };
    struct Outstanding {
        bool open = false;
        uint16_t code = 0;
        uint8_t seq = 0;
        long long lastSentMs = 0;
    };
    void Cut(Direction& d, bool toBox);
    void Record(const obdframe::Record& r, bool toBox, long long tMs);
    static void Count(Direction& d, const obdframe::Record& r);
    static Json FiguresOf(const Direction& d);
    static long long TimeAt(const Direction& d, size_t offset);

    RecordTap m_tap;
    mutable std::mutex m_mutex;  // everything below: the two directions come on two threads
    Direction m_to, m_from;
    Outstanding m_cmd;
    long long m_sent = 0, m_retries = 0, m_answered = 0, m_unanswered = 0;
    // Answer latency in 1 ms buckets up to 10 s (the longest command wait), the last one for
    // anything longer; data-stream periods in 10 ms buckets up to 120 s.
    std::vector<uint32_t> m_latency;
    std::vector<uint32_t> m_period;
    long long m_latencyMaxMs = 0;
    long long m_dataFrames = 0, m_lastDataMs = -1, m_longestDataMs = 0;
};

}  // namespace obdsim

// OBD box emulator: the box's side of the serial protocol, on a pseudo-terminal or a real tty.
//
// What it does:
//  - answers every request of the plug-in (versions, engine, scan-time and data-scan levels read
//    and configure, fault codes, configure engine, start/stop data stream, link, upgrade steps;
//    restart and jump are, like on the real box, not answered), echoing the request's sequence
//    number;
//  - sends data-stream frames while the stream is started and link frames, each at its own rate,
//    and any frame or raw bytes on request;
//  - keeps the last frames it received (time, sequence number, code, payload, raw bytes) so a
//    test can assert on the exact bytes the plug-in sent, and counts all of them per code; a box
//    that runs for days keeps no more than that;
//  - takes a firmware upgrade: keeps the file, checks its size and MD5, reports the new version;
//  - can pace its line like a UART at a given byte rate.
// Fault options make it silent, refuse, drop answers, put garbage between frames, split frames
// into chunks, corrupt checksums, escape bytes and send frames twice; fault windows also hold
// answers back for a while and restart the box.
//
// Frame: 55 AA, direction (F0 F8 towards the box, F8 F0 from it), length L (MSB first) =
// payload + 3, sequence number, code (MSB first), payload, XOR of bytes 2.. end of payload.
//
// Use: fill BoxOptions, construct, Start(), point the plug-in at SlavePath(), ..., Stop() (or
// destroy). One thread of its own reads the line, answers and sends periodic frames; every
// public function may be called from any thread. Times are milliseconds of BoxOptions::clock:
// real (steady clock) ones unless a simulator gives its own.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace obdbox {

using ByteVec = std::vector<uint8_t>;

// One frame received from the plug-in.
struct ReceivedFrame {
    double tMs = 0;  // since Start()
    uint8_t seq = 0;
    uint16_t code = 0;
    ByteVec payload;
    ByteVec raw;  // the whole frame as it came off the line
    bool checksumOk = false;
};

// A firmware upgrade as the box saw it (BoxEmulatorUpgrade.cpp). The start step begins a new one.
struct BoxUpgrade {
    std::string name;        // from the file-name step, without its NUL
    uint32_t size = 0;       // announced with the name
    ByteVec image;           // the chunks' bytes at their offsets
    int chunks = 0;          // chunk requests received, repetitions included
    bool md5Ok = false;      // the MD5 text matched the image, and the image the announced size
    bool installed = false;  // the end step was accepted
};

// Faults that hold for a window of time, on top of the whole-run options below: what
// BoxOptions::faultSchedule says holds at a given moment of the box's clock.
struct FaultState {
    bool silent = false;       // says nothing (answers, stream, link frames)
    bool streamHeld = false;   // the data stream sends nothing; answers go on
    int dropEveryNth = 0;      // as BoxOptions::dropEveryNth; 0: the whole-run setting
    int garbageBytes = 0;      // as BoxOptions::garbageBytes; the larger of the two applies
    int splitMaxChunk = 0;     // as BoxOptions::splitMaxChunk; 0: the whole-run setting
    bool badChecksum = false;  // every frame sent (answers too) carries a wrong checksum
    // Upgrade and calibration misbehaviour, as the whole-run options of the same names; these
    // win while their window holds. A box silenced after its chunks stays silent to the window's
    // end, as one that hung while flashing and is power-cycled then.
    uint16_t upgradeRefuseStep = 0;     // 0: the whole-run setting
    int upgradeSilentAfterChunks = -1;  // -1: the whole-run setting
    int upgradeDropEveryNthChunk = 0;   // 0: the whole-run setting
    int upgradeFlashMs = 0;             // box-clock time per chunk; 0: the whole-run setting
    bool engineRefused = false;         // configure engine answered with status 1
    bool engineUnanswered = false;      // configure engine not answered at all

    // Line and box faults.
    int duplicateEveryNth = 0;          // as BoxOptions::duplicateEveryNth; 0: the whole-run one
    bool escape = false;                // frames sent are escaped (BoxOptions::escape) ...
    bool escapeCountsInLength = false;  // ... with this length convention
    double answerDelayMs = 0;           // answers leave this long (box clock) after the request
    bool refuse = false;                // as BoxOptions::refuse
    // >= 0 while the box reboots: the start of its restart. Once per start the box forgets that
    // it was streaming and its configuration; it hears and says nothing until the window ends,
    // then answers and sends its link frames, but streams only once started again.
    double restartMs = -1;

    double nextChangeMs = -1;  // when this state ends or another begins; < 0: never
};

// Data-stream items: id (1..59) and value, asked for once per data-stream frame.
using DataItems = std::vector<std::pair<uint8_t, float>>;
using ValueSource = std::function<DataItems()>;

// Where the box's thread takes its time from and how it waits. Empty members: the machine's
// steady clock and a short poll of the line, as on a bench.
struct BoxClock {
    // Milliseconds, any origin.
    std::function<double()> nowMs;
    // Waits until `fd` has input, the clock reaches `untilMs` (< 0: nothing due) or a short real
    // while has passed. False when there is nothing to do yet (the box just waits again).
    std::function<bool(int fd, double untilMs)> wait;
    // The box has read (toBox) or written `n` bytes on the line; after a write it may block until
    // the other end has read them.
    std::function<void(bool toBox, size_t n)> moved;
    // Stop() waits for the box's thread next: a wait in progress must end.
    std::function<void()> stopping;
    // Runs the box's loop on a thread of the clock's choosing and returns how to wait for its
    // end; empty: a thread of the box's own.
    std::function<std::function<void()>(std::function<void()> loop)> start;
};

struct BoxOptions {
    std::string ttyPath;  // empty: create a pseudo-terminal; else open this tty
    int baud = 115200;    // for a given tty

    int streamPeriodMs = 0;  // data-stream frame period while the stream is started; 0: none
    int linkPeriodMs = 0;    // link frame period (always, like the box's keep-alive); 0: none
    ValueSource values;      // empty: a small built-in table; no items: no data-stream frame

    // Escaping of the frames it sends: 7E -> 7D 01, 7F -> 7D 02, 7D -> 7D 03 (never the first or
    // last byte; the length field too). Whether L counts the escape pairs is not fixed by the
    // protocol: by default it counts the unescaped bytes; escapeCountsInLength: the raw bytes from
    // the sequence number to the end of the payload, their pairs included.
    bool escape = false;
    bool escapeCountsInLength = false;

    // Faults.
    bool silent = false;        // says nothing at all (records what it receives)
    bool refuse = false;        // upgrade steps answer status 2, configure engine status 1
    int dropEveryNth = 0;       // the Nth, 2Nth, ... answer is not sent; 0: none dropped
    int garbageBytes = 0;       // random bytes (never a whole head) before each frame sent
    int splitMaxChunk = 0;      // write frames in random chunks of 1..N bytes; 0: whole
    int splitGapUs = 3000;      // pause between chunks, so that the reader sees separate reads
    bool badChecksum = false;   // every frame sent carries a wrong checksum
    int duplicateEveryNth = 0;  // the Nth, 2Nth, ... frame sent goes out twice; 0: none
    bool stopAckAlt = false;    // acknowledge a stop of the stream with 0x2301 instead of 0x6C04
    std::vector<uint16_t> unanswered;  // request codes the box ignores (recorded all the same)
    unsigned int seed = 1;             // for garbage and chunk sizes
    // Windows of faults in the clock's time (not since Start), consulted for every frame sent,
    // every answer and every wait of the box's thread; the box also wakes when a window ends,
    // as a box that comes back would. Empty: only the whole-run options above.
    std::function<FaultState(double nowMs)> faultSchedule;

    // What the box reports.
    std::vector<std::string> hwTexts{"EMU-OBD-BOX", "SN000001", "HW1.0", "2024-05-01", "T1"};
    std::vector<std::string> swTexts{"BOOT1.0", "DL1.0", "DIAG1.0"};
    uint16_t engineId = 0x0001;
    std::vector<std::pair<uint8_t, uint32_t>> scanTimeLevels{{1, 1000}, {2, 5000}};
    std::vector<std::pair<uint8_t, ByteVec>> dataScanLevels{{1, {0x0C, 0x0D}}};
    ByteVec faultCodes{0x01, 0x33, 0x00};
    uint8_t upgradeStatus = 4;  // 4: accepted

    // Receives one line per frame received or sent (decoded) and per fault applied.
    std::function<void(const std::string&)> log;
    // Whether `log` gets a line for each frame the box sends: a caller that shows the wire
    // already spares the box writing them out.
    bool logSent = true;
    // Fixed at construction (Update does not change it). A simulator gives its own clock so
    // that the periods above are periods of its time.
    BoxClock clock;
    // How many received frames Received() keeps; the counts cover every frame.
    size_t receivedKept = 1024;

    // Sees every byte on the line as it crosses it: what the box read (toBox) and what it wrote,
    // garbage and split chunks included. Fixed at construction (Update does not change it); it
    // runs on the box's thread and must not call back into the emulator.
    std::function<void(bool toBox, const uint8_t* data, size_t n)> wireTap;

    // Firmware upgrade (BoxEmulatorUpgrade.cpp). The box keeps the file it is sent and checks
    // it: a chunk must lie within the size given with the name, the MD5 text must match the
    // bytes held, the end needs a matched MD5. Once the end is accepted the software-version
    // answer carries upgradedSwTexts. A failed check, like `refuse`, answers status 2.
    std::vector<std::string> upgradedSwTexts{"BOOT1.0", "DL2.0", "DIAG2.0"};
    uint16_t upgradeRefuseStep = 0;     // request code of a step always refused; 0: none
    int upgradeSilentAfterChunks = -1;  // after this many chunks the box falls silent (`silent`
                                        // set, so Update can revive it); -1: never
    int upgradeDropEveryNthChunk = 0;   // the Nth, 2Nth, ... chunk answer is not sent; 0: none
    int upgradeFlashUs = 0;  // time spent storing a chunk before answering it: box-clock time
                             // when the clock waits (a simulator's), else real time
    // Called on the box's thread just before the answer that accepts the end step (the image
    // checked against its MD5) goes out, that is an upgrade the plug-in is told is installed.
    // Fixed at construction (Update does not change it); it must not call back into the emulator.
    std::function<void()> onInstalled;

    // Line pacing (BoxEmulatorPacing.cpp): bytes per second in each direction, as a UART carries
    // them (11520 for 115200 baud 8N1: ten bit times a byte); 0: as fast as the pseudo-terminal.
    // Bytes the box writes leave no faster, and bytes it reads count as arrived only when the
    // line could have delivered them, so the plug-in's timing against it is a real line's.
    int lineBytesPerSec = 0;
};

class BoxEmulator {
  public:
    explicit BoxEmulator(BoxOptions options = {});
    ~BoxEmulator();
    BoxEmulator(const BoxEmulator&) = delete;
    BoxEmulator& operator=(const BoxEmulator&) = delete;

    // Opens the line and starts the thread. False (see LastError) when the line cannot be had.
    bool Start();
    // Stops the thread and closes the line. Safe to call twice.
    void Stop();
    const std::string& SlavePath() const { return m_slavePath; }
    const std::string& LastError() const { return m_error; }

    // The last frames received (at most BoxOptions::receivedKept), oldest first.
    std::vector<ReceivedFrame> Received() const;
    // All frames received, and those with `code`, kept or not.
    uint64_t ReceivedTotal() const;
    uint64_t ReceivedCount(uint16_t code) const;
    void ClearReceived();
    // Waits (real time) until `pred` holds for the kept frames.
    bool WaitFor(const std::function<bool(const std::vector<ReceivedFrame>&)>& pred,
                 int timeoutMs) const;
    // Waits (real time) until `count` frames were received in all.
    bool WaitForFrames(size_t count, int timeoutMs) const;

    // Changes options while running (faults, rates, contents). Not ttyPath/baud.
    void Update(const std::function<void(BoxOptions&)>& change);
    bool Streaming() const { return m_streaming.load(); }

    // Sends now, through the fault options (escape, garbage, split, checksum).
    void SendFrame(uint16_t code, const ByteVec& payload, uint8_t seq = 0);
    void SendLink();
    // The values' items; nothing when there are none.
    void SendDataStream();
    // Sends bytes exactly as given.
    void SendRaw(const ByteVec& bytes);

    // The firmware upgrade so far.
    BoxUpgrade Upgrade() const;

    // A frame from the box (F8 F0), escaped as asked. Exposed for tests and tools.
    static ByteVec EncodeFrame(uint16_t code, const ByteVec& payload, uint8_t seq, bool escape,
                               bool escapeCountsInLength, bool badChecksum);
    static std::string Describe(const ReceivedFrame& f);

  private:
    void Run();
    void OnBytes(const uint8_t* data, size_t n);
    void OnFrame(ReceivedFrame f);
    void Answer(const ReceivedFrame& req, BoxOptions& o, std::vector<ByteVec>& out);
    ByteVec Encode(uint16_t code, const ByteVec& payload, uint8_t seq, const BoxOptions& o);
    void Transmit(const ByteVec& frame, const BoxOptions& o);
    void TransmitOnce(const ByteVec& frame, const BoxOptions& o);  // under m_writeMutex
    void WriteAll(const uint8_t* data, size_t n);
    void Log(const std::string& line);
    BoxOptions Snapshot() const;
    // A snapshot with the fault windows open at `nowMs` folded in; `state` receives them.
    BoxOptions Effective(double nowMs, FaultState* state = nullptr) const;
    static void Fold(BoxOptions& o, const FaultState& s);
    // Upgrade steps (BoxEmulatorUpgrade.cpp); called like Answer, under m_optMutex.
    void AnswerUpgrade(const ReceivedFrame& req, BoxOptions& o, std::vector<ByteVec>& out);
    // The flash time an upgrade chunk asked for, spent before its answer (box thread).
    void PauseBeforeAnswer();
    // A restart window's start not seen before: the box forgets its stream and configuration.
    void Restart(const FaultState& s);
    // Sends the held answers that are due at `nowMs` (box thread).
    void SendLateAnswers(double nowMs, const BoxOptions& o);
    // Line pacing (BoxEmulatorPacing.cpp): PaceTransmit under m_writeMutex before bytes are
    // written; TakeIn hands bytes read to OnBytes at the line's pace (box thread).
    void PaceTransmit(size_t n);
    void TakeIn(const uint8_t* data, size_t n);
    int LineBytesPerSec() const;

    mutable std::mutex m_optMutex;  // guards m_opt
    BoxOptions m_opt;
    double Now() const;

    mutable std::mutex m_rxMutex;  // guards m_rx, m_rxTotal, m_rxCounts
    mutable std::condition_variable m_rxCv;
    std::deque<ReceivedFrame> m_rx;
    uint64_t m_rxTotal = 0;
    std::map<uint16_t, uint64_t> m_rxCounts;
    const size_t m_rxKept;
    const BoxClock m_clock;
    std::mutex m_writeMutex;    // one frame's bytes are never interleaved with another's
    std::mt19937 m_rng;         // under m_writeMutex
    uint64_t m_framesSent = 0;  // under m_writeMutex
    const std::function<void(bool, const uint8_t*, size_t)> m_wireTap;

    ByteVec m_inBuf;  // box thread only
    int m_masterFd = -1;
    int m_slaveHoldFd = -1;
    std::string m_slavePath;
    std::string m_error;
    std::thread m_thread;
    std::function<void()> m_join;  // the clock's thread, when it started one
    std::atomic<bool> m_run{false};
    std::atomic<bool> m_streaming{false};
    std::atomic<uint8_t> m_boxSeq{0};
    uint64_t m_answers = 0;  // box thread only
    double m_t0 = 0;

    // Late answers (box thread only): each with the time it is due, in due order; `installs`:
    // the answer to an accepted upgrade end.
    struct LateAnswer {
        double due;
        ByteVec bytes;
        bool installs;
    };
    std::deque<LateAnswer> m_late;
    double m_restartSeenMs = -1;  // box thread only
    const BoxOptions m_factory;   // the configuration a restart goes back to

    BoxUpgrade m_upgrade;                        // guarded by m_optMutex
    int m_answerDelayUs = 0;                     // box thread only
    FaultState m_frameWindow;                    // box thread: the windows at a request
    bool m_installAnswer = false;                // box thread: the end was accepted
    std::atomic<bool> m_upgradeSilenced{false};  // silent after chunks, in a window
    const std::function<void()> m_onInstalled;
    std::chrono::steady_clock::time_point m_txLineFree;  // under m_writeMutex
    std::chrono::steady_clock::time_point m_rxLineFree;  // box thread only
};

}  // namespace obdbox

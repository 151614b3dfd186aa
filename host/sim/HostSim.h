// Control API of the project's host layer (libobdhost).
//
// The host layer makes the recorder's host interface (host/include) real on Linux: a tty opened
// with termios, a peripheral thread, a process-wide message bus with its own delivery thread, one
// host clock and a log. This header is how the runner (tools/obd-sim) and the tests drive it.
//
// Threads: every function here may be called from any thread unless stated otherwise. The bus
// delivers on its own thread; a bus listener or a log sink must not block for long.
//
// Host time. Everything time-based in the host and in the plug-in reads one host clock:
// the cycle's `now`, P4X_TMGetSystemMicroSecond, P4X_TMGetShareTime, P4X_TMSleepMicroSecond and
// the deadline of CTMWaitEvent::WaitMicroSecond.
//  - Real:    host time runs with the machine's monotonic clock.
//  - Scaled:  host time runs `factor` times faster; host sleeps last 1/factor as long.
//  - Stepped: host time moves only through ClockAdvance / ClockSet; a sleeper wakes exactly when
//             host time reaches its deadline, and not before (a CTMWaitEvent waiter also when
//             notified, in real time).
//  - Virtual: host time stands while anything is left to do at the current instant and then
//             jumps straight to the earliest deadline, so a run costs only the CPU it needs and
//             gives the same result every time (see "Virtual time" below).
// Setting the clock backwards (ClockSet below the current time) moves the reported time back but
// does not count as time passing: a sleep or a pending cycle still needs the host time it had
// left at the jump, measured from the new time. So a jump backwards never hangs a sleeper and
// never fires one early.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class CPeripheralBase;
class CPeripheralManage;
class CMsgClientManage;

namespace hostsim {

// ---- Global state -----------------------------------------------------------------------------

// Puts every global setting back to its default: real clock at host time 0, product type 0, log
// level 1, dump level 0, log sink stderr, no pending thread-creation failures, bus without
// registrations, listeners or queued messages, fibers as the environment chose them. Call between
// tests, with no PluginHost alive.
void Reset();

// ---- Clock ------------------------------------------------------------------------------------

enum class ClockMode { Real, Scaled, Stepped, Virtual };

// Each selects the mode and sets host time to `startMs`. The wall clock of P4X_TMGetShareTime is
// re-anchored to the machine's current date and time at that instant (see ClockSetWallStart).
void ClockUseReal(long long startMs = 0);
// `factor` > 0 (e.g. 20: one real second is 20 host seconds). Returns false for a bad factor.
bool ClockUseScaled(double factor, long long startMs = 0);
void ClockUseStepped(long long startMs = 0);
// Select it before the participants start (see "Virtual time"). The wall clock starts at
// 2024-01-01 00:00:00 UTC instead of the machine's date, so that two runs print the same dates;
// ClockSetWallStart moves it.
void ClockUseVirtual(long long startMs = 0);
ClockMode ClockGetMode();

// Moves host time forward by `ms` (>= 0) in any mode and wakes everything waiting on it. In the
// stepped mode this is the only way, with ClockSet, for time to pass. Returns false for ms < 0.
// In the virtual mode it is allowed too and wakes what became due, as a jump would.
bool ClockAdvance(long long ms);
// Sets host time to `ms` (>= 0), forwards or backwards (see the header comment for backwards).
bool ClockSet(long long ms);
long long ClockNowMs();
// How far behind its own pace the host fell since the mode was chosen: the most, in host ms, by
// which a host-time sleep, an event's wait or the peripheral's cycle ran past its deadline. A
// scaled clock multiplies every real delay of a busy machine by its factor; this says how much
// that cost. Always 0 on the stepped and virtual clocks, which wait for the work.
long long ClockMaxLateMs();

// Anchors P4X_TMGetShareTime: the current host time corresponds to `epochMs` (milliseconds since
// 1970-01-01 00:00:00 UTC); the date then runs with host time. The date is broken down in UTC so
// that runs and tests give the same result whatever the machine's time zone.
void ClockSetWallStart(long long epochMs);

// ---- Virtual time -----------------------------------------------------------------------------
//
// In the virtual mode the host knows when nothing is left to do at the current instant through
// its participants: the threads whose work host time must wait for.
//  - The host's own threads take part by themselves: the peripheral thread, every thread started
//    through CreateNormalThread (the plug-in's send thread), the bus thread, and the helper
//    threads of PluginHost::Release.
//  - Anything else that must be waited for takes part through a Participant: the runner's main
//    thread while it sets up and waits for the end of the run, the box on the other end of the
//    line (which also reports the bytes it moves, see ServeLine).
//
// Contract:
//  - Participants take turns: one runs at a time, from being given its turn until it waits again
//    (a host sleep on its thread, Participant::Wait, or one of the host's own waits).
//  - A participant becomes runnable when it registers, when host time reaches its deadline (the
//    earliest deadline first; ties in the order the participants went idle), or when it is
//    kicked: bytes written towards it on its line, a bus message posted (the bus thread), a
//    release step done (the thread waiting for it). Turns are given in the order participants
//    became runnable.
//  - Host time jumps to the earliest deadline (of an idle participant, or of a host sleep by any
//    thread) only when no participant runs or is runnable and no byte is in flight on a line:
//    written by one end and not yet read by the other, or, for bytes nobody accounted for, waiting
//    in a tty's input (FIONREAD). With nothing pending at all, host time stands; once a plug-in
//    runs its next cycle is always pending.
//  - Since turns follow only from what participants do, never from how fast the machine is, the
//    same inputs give the same run, byte for byte: the same bus messages with the same host
//    times, in the same order.
//  - A thread that is not a participant still wakes from a host sleep at its deadline, but
//    nothing waits for what it does next: host time may already have moved on.
//  - A registered participant must wait or leave: one that keeps its turn stops host time.
// In the other modes a Participant is inert: Enter returns at once, Wait waits on the running
// clock, the line counts are not kept.
class Participant {
  public:
    // Registers it, runnable at once: registering (like kicking) on a thread that has the turn
    // is what makes the order of turns reproducible, so create participants before the threads
    // that use them.
    explicit Participant(std::string name);
    // Leaves (see Leave).
    ~Participant();

    // Makes the calling thread this participant's thread and waits for its turn. A host sleep on
    // that thread (P4X_TMSleepMicroSecond) is from then on this participant's wait; the thread
    // must not sleep on host time once the participant is destroyed.
    void Enter();
    // Gives up its turn and waits until host time reaches `untilMs` (< 0: no deadline), it is
    // kicked, or `realTimeoutMs` of real time passed; binds the calling thread like Enter. Returns
    // true when it is its turn again, false after the real timeout (then call Wait again). A
    // turn given while its thread was not waiting (after registering, after a real timeout) is
    // begun by the next Wait, which then returns true at once. With `fd` (its end of a served
    // line) bytes on the way to it are there to read when Wait returns true. In the other modes
    // it returns true when `untilMs` is reached, `fd` has input or the real timeout passed,
    // whichever is first.
    bool Wait(long long untilMs, int realTimeoutMs, int fd = -1);
    // Runs `work` as this participant (its host sleeps are this participant's waits) and returns
    // when it is done: on a fiber when fibers are chosen (see SetVirtualFibers), so that the turns
    // of a runner's main loop stay in user space; on the calling thread otherwise. Call it from
    // the participant's thread; that thread is its thread again afterwards.
    void Run(const std::function<void()>& work);
    // Makes it runnable (from any thread).
    void Kick();
    // No longer waited for; gives up its turn; from any thread, more than once. A Wait or a host
    // sleep in progress on its thread ends at once (so a thread can be stopped while time
    // stands); later host sleeps there are those of a thread that takes no part.
    void Leave();

    // Plays the far end of the serial line that a peripheral opens as `ttyPath`: bytes the
    // peripheral writes to it kick this participant and count as in flight until LineRead.
    void ServeLine(const std::string& ttyPath);
    // As ServeLine, for a far end that reports every byte it moves (LineRead, LineWrote) on a
    // line that nobody else writes to: host time then moves on without looking into the tty
    // for bytes nobody counted, a system call at each end of the line per instant.
    void ServeCountedLine(const std::string& ttyPath);
    // `n` bytes read from the line.
    void LineRead(size_t n);
    // `n` bytes written towards the peripheral, which is kicked. On this participant's own thread
    // it returns once the peripheral has read them, so a later write is a separate read.
    void LineWrote(size_t n);

    // Takes the near end of a line that another participant serves, as a peripheral that opened
    // `ttyPath` as `fd` would: for a relay that carries the box's bytes somewhere other than a
    // peripheral's tty. Bytes the serving end writes kick this participant and count as in
    // flight until LineTook; a Wait that gives it its turn finds them there to read.
    void ReadLine(const std::string& ttyPath, int fd);
    // `n` bytes read from that near end.
    void LineTook(size_t n);
    // `n` bytes about to be written there towards the serving end, which is kicked. Count them
    // before writing, so that the serving end never reads bytes it was not told about.
    void LineSent(size_t n);

    Participant(const Participant&) = delete;
    Participant& operator=(const Participant&) = delete;

  private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

// How the host's threads run on virtual time. By default each is a fiber, a stack of its own
// run by one carrier thread of the host: the peripheral thread, the threads the plug-in starts
// through CreateNormalThread, the bus's delivery and every hostsim::Thread, so that a turn
// between them is a switch in user space instead of a wake through the kernel. Off, each is an
// operating-system thread as on the other clocks (also the choice of a process started with
// OBD_HOST_FIBERS=0 in its environment, and the only one in a build with the thread sanitizer).
// Either way the turns come in the same order, so a run gives the same bytes. Choose before
// the threads start; threads already running keep what they were started as.
void SetVirtualFibers(bool on);
bool VirtualFibers();

// A thread for a participant's work (a box on the far end of the line, a feeder of samples):
// on virtual time with fibers chosen, a fiber on the host's carrier thread; otherwise an
// operating-system thread. What it runs must wait only through the host's waits (host sleeps,
// Participant::Wait, CTMWaitEvent) or briefly in the kernel: while a fiber blocks, no other
// fiber runs. Join waits for it to end; the destructor joins.
class Thread {
  public:
    Thread();
    Thread(const std::string& name, std::function<void()> fn);
    ~Thread();
    Thread(Thread&&) noexcept;
    Thread& operator=(Thread&&) noexcept;
    bool Joinable() const;
    void Join();
    bool OnFiber() const;

  private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

// ---- Platform ---------------------------------------------------------------------------------

// What P4X_GetProductType reports (72 = CAN-box mode).
void SetProductType(int type);
int ProductType();
// Makes the next `count` calls of CreateNormalThread fail (negative result), to test the
// plug-in's failure path.
void FailNextThreadCreates(int count);

// ---- Log --------------------------------------------------------------------------------------

// Log lines look like "[L1 SerialDevOBD:PeripheralInitialize:142] S38_OBD: ..." (level, source
// file's last path component, function, line); dumps like "[D2] obd data: 7E 01 ..".
// gclDebugPrintf prints when level <= log level; hex_dump when its level <= dump level.
void SetLogLevel(int level);
int LogLevel();
void SetDumpLevel(int level);
int DumpLevel();
// Receives every printed line (without its newline) instead of stderr; lines from several
// threads are handed over one at a time. An empty function restores stderr. The sink must not
// log itself.
using LogSink = std::function<void(int level, const std::string& line)>;
void SetLogSink(LogSink sink);

// ---- Serial line ------------------------------------------------------------------------------

// Receives every chunk the plug-in reads from its tty (`toDevice` false) and every chunk it
// writes there (`toDevice` true), with the host time of the read or write, on the thread that
// did it. A tool that follows the line's health sees the bytes as the plug-in does, whatever is
// on the far end (the built-in box or a real one). An empty function removes it. Set it before
// the plug-in starts and remove it after the release: it is not guarded against a call in
// flight.
using SerialTap =
    std::function<void(bool toDevice, const unsigned char* data, size_t n, long long tMs)>;
void SetSerialTap(SerialTap tap);

// ---- Bus --------------------------------------------------------------------------------------

// One outbound bus message as a listener sees it.
struct BusMessage {
    long long tMs = 0;      // host time when the plug-in sent it
    bool response = false;  // true: MSGResponseMessage
    int id = 0;             // message id; for a response the id of the message it answers
    std::vector<unsigned char> payload;
    // For a response: the sequence number of the answered message (what BusInject returned).
    // For a send: the bus's own running number.
    unsigned int seq = 0;
};
using BusListener = std::function<void(const BusMessage&)>;

// Every message the plug-in sends or answers reaches every listener, in order, on the bus
// thread. Returns a token (> 0).
int BusSubscribe(BusListener listener);
// Returns once the listener is not running (at once when called on the bus thread itself).
void BusUnsubscribe(int token);
// Delivers an inbound message to every handler registered for `id`, on the bus thread: 16-byte
// head (id, sender module 1, sequence number, payload length) followed by the payload. Returns
// the message's sequence number (> 0), or -1 for a bad argument (negative id, payload longer
// than 0x7FFFFF bytes).
int BusInject(int id, const std::vector<unsigned char>& payload);
// Returns when everything injected or sent before the call has been delivered (at once when
// called on the bus thread).
void BusDrain();

// ---- One plug-in ------------------------------------------------------------------------------

// Owns the manager, the bus client and the peripheral thread of one plug-in, and drives the
// object as the recorder does. Use from one thread. Typical order: SetSerial, Load (or Adopt),
// Initialize, RegisterHandlers, Start, ... , Release.
class PluginHost {
  public:
    PluginHost();
    // Releases a still loaded plug-in.
    ~PluginHost();

    // The tty the peripheral's serial base opens and its speed. Before Load/Adopt.
    void SetSerial(const std::string& path, int baud = 115200);

    // dlopen's the plug-in, looks up PeripheralCreate and PeripheralRelease and creates the object
    // with PeripheralCreate(manager, nullptr, 0, 0). False (see LastError) when the library or a
    // symbol is missing or the object is not created. A serial port that fails to open does not
    // make Load fail: check SerialOpenError().
    bool Load(const std::string& soPath);
    // Drives an object the caller built with Manager() (a test peripheral); Release() then stops
    // it and deletes it through its virtual destructor.
    bool Adopt(CPeripheralBase* object);

    // The recorder's calls, in its order. Each returns the plug-in's result, -1 without object.
    int Initialize();        // PeripheralInitialize
    int RegisterHandlers();  // MessageRegister
    // Starts the peripheral thread: PeripheralThreadCycle(host ms) at once and then every circle
    // time, ProcessPeripheralData when the tty has bytes. A jump of host time longer than a
    // period gives one call, not a burst. False without object or when already running.
    bool Start();
    // MessageUnRegister, drop any registration the plug-in left, PeripheralRelease (which stops
    // the peripheral thread), wait for the threads the plug-in started through
    // CreateNormalThread to end, dlclose. In the stepped mode host time is moved forward in
    // 10 ms steps while this waits, since the plug-in's shutdown handshake sleeps on host time.
    // In the virtual mode the release runs as a participant; a caller that takes part waits for
    // it without its turn and has it back when the release is done.
    // Returns PeripheralRelease's result (1), 0 when nothing was loaded.
    int Release();

    // True once the peripheral thread has done everything due at the current host time and
    // waits (no cycle due, no tty bytes it has seen pending). Bytes written to a pseudo-terminal
    // master reach the slave asynchronously: after writing, wait for the effect instead.
    bool WaitPeripheralIdle(int realTimeoutMs = 2000);

    CPeripheralManage* Manager() const;
    CMsgClientManage* Client() const;
    unsigned int ModuleId() const;
    CPeripheralBase* Object() const;
    // Last SetSerialConfigStatus status (-1 before any) and how many calls were made.
    int LastSerialConfigStatus() const;
    int SerialConfigStatusCount() const;
    // Empty when the tty is open; else a one-line reason ("/dev/x: No such file or directory").
    std::string SerialOpenError() const;
    // What the plug-in last passed to SetCurPeripheralStatus (true before any call).
    bool PeripheralStatusOk() const;
    // PeripheralThreadCycle calls made by the peripheral thread so far.
    long long CycleCount() const;
    const std::string& LastError() const;

    PluginHost(const PluginHost&) = delete;
    PluginHost& operator=(const PluginHost&) = delete;

  private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace hostsim

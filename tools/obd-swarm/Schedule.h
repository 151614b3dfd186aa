// A swarm run's schedule: the drive (a list of phases) and the faults over it, drawn from a seed
// alone, or read back from the file a run wrote. Everything a run does follows from it, so a
// schedule is the exact description of one run, and the unit a shrinker cuts down.
//
// Drawing uses std::mt19937_64, whose output the C++ standard fixes, and integer arithmetic of
// our own on top of it (never std:: distributions, which differ between library versions), so a
// seed gives the same schedule on every machine.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "BoxEmulator.h"
#include "Drive.h"

namespace obdswarm {

// Uniform integers and reals from the 64-bit Mersenne Twister, by fixed arithmetic.
class Rng {
  public:
    explicit Rng(uint64_t seed) : m_gen(seed) {}
    uint64_t Next();
    // lo..hi inclusive (hi >= lo).
    long long Int(long long lo, long long hi);
    // [0, 1) with 53 bits.
    double Real();
    double Range(double lo, double hi) { return lo + (hi - lo) * Real(); }
    bool Chance(double p) { return Real() < p; }

  private:
    std::mt19937_64 m_gen;
};

enum class PhaseKind {
    ColdStart,
    Idle,
    City,
    Motorway,
    HardAccel,
    HardBrake,
    SharpTurn,
    EngineOff
};

struct Phase {
    PhaseKind kind = PhaseKind::Idle;
    double seconds = 0;
    double speed = 0;        // target km/h
    double rpm = 0;          // target engine speed
    uint64_t noise = 0;      // the phase's own variations
    bool saturated = false;  // inertial samples beyond the sensor's range
};

enum class FaultKind {
    Silent,       // the box says nothing
    StreamHeld,   // the data stream stops; answers go on
    Garbage,      // `a` random bytes before every frame
    Split,        // frames written in chunks of 1..`a` bytes: reads split
    DropAnswers,  // every `a`th answer is lost
    BadChecksum,  // every frame carries a wrong checksum
    BadValues,    // item `b` (-1: all) reads NaN, infinite, negative or out of range (`a`)
    BusMessages,  // `a` inbound messages of the handled ids, random payload sizes (`seed`)
    PowerDown,    // the power-down message at the start; lasts to the end of the run
    // Line and box faults.
    Duplicate,    // every `a`th frame the box sends goes out twice
    Escaped,      // the box escapes its frames, counting the pairs in L when `a` is 1; the
                  // values of its data frames hold escaped bytes (`seed`)
    LateAnswers,  // answers leave `a` ms of host time after their request
    Refusals,     // upgrade steps and the engine configuration are refused
    Restart,      // the box restarts at the start and is back at the end, without its stream
    // Upgrades and calibrations (UpgradeFiles, Messages): what the recorder's services ask for.
    UpgradeTrigger,  // the upgrade file as `a` (UpgradeFile) just before a trigger at the start;
                     // `b` > 0: a second trigger `b` ms later, during the first's transfer;
                     // over the window the box takes 10-60 ms (by `seed`) to store a chunk
    UpgradeBox,      // a good file and a trigger at the start; over the window the box misbehaves
                     // during the upgrade as `a` (UpgradeBoxFault) with `b` its parameter
    Calibration,     // the engine calibration message at the start; over the window the box
                     // answers it (`a` 0), refuses it (1) or stays silent (2)
    // Host-side faults.
    InertialGap,  // the host sends no inertial samples in the window
    Release,      // the host releases the plug-in at the start, whatever is in flight: the run
                  // ends there
    // The host's clocks, drawn from a stream of their own (every other draw of a seed stays).
    Stall,     // the recorder stands still over the window (suspended, starved): host time
               // jumps to its end at its start, and every thread, the box's too, wakes at once
    DateJump,  // the date the host reports moves by `b` seconds, forward or back (a time sync)
    Count
};
const char* FaultName(FaultKind k);
// The kind of a name FaultName gives; false when none.
bool FaultByName(const std::string& name, FaultKind& k);

struct Fault {
    FaultKind kind = FaultKind::Silent;
    long long startMs = 0;
    long long endMs = 0;  // exclusive
    int a = 0;
    int b = 0;
    uint64_t seed = 0;
};

// The values BadValues puts in (a = 0..4).
enum BadValue { kNaN, kPlusInf, kMinusInf, kNegative, kOutOfRange, kBadValueCount };

// The upgrade file an UpgradeTrigger leaves (a = 0..3): a good one, none, an empty one, or a good
// one rewritten with other bytes while its transfer runs.
enum UpgradeFile { kFileGood, kFileMissing, kFileEmpty, kFileChanging, kUpgradeFileCount };
// An UpgradeBox's box (a = 0..3): refuses step `b` (0..4: start, name, chunk, MD5, end), falls
// silent after `b` chunks, drops every `b`th chunk answer, spends `b` ms flashing each chunk.
enum UpgradeBoxFault {
    kRefuseStep,
    kSilentAfterChunks,
    kDropChunkAnswers,
    kSlowFlash,
    kUpgradeBoxFaultCount
};
// The upgrade files are at most this big: 64 chunks, which the upgrade-ends bound allows for.
constexpr int kMaxUpgradeFile = 16384;

struct Schedule {
    uint64_t seed = 0;
    double hours = 1;
    int productType = 0;  // 72: CAN-box mode
    bool motion = true;   // inertial samples at all
    // The box's own link frames, one every this many ms (0: none). With them the plug-in's 10 s
    // timer queues its link task, which no answer releases: it holds the commands 22.5 s a time.
    int boxLinkMs = 0;
    std::vector<Phase> phases;
    std::vector<Fault> faults;  // by start time

    double DriveSeconds() const;
};

// The inbound ids the plug-in handles, and the payload size each handler reads in full.
struct InboundId {
    int id;
    int exactBytes;
};
const std::vector<InboundId>& InboundIds();

// One inbound message of a BusMessages fault.
struct Inbound {
    long long tMs;
    int id;
    std::vector<unsigned char> payload;
};

Schedule Draw(uint64_t seed, double hours);
obdsim::Drive BuildDrive(const Schedule& s);
// The messages a fault delivers, in time order: a BusMessages fault's within its window, the
// upgrade triggers and the calibration message of the upgrade and calibration kinds.
std::vector<Inbound> Messages(const Fault& f);
// What an upgrade fault does to the upgrade file, in time order: (re)written with `bytes`, or
// removed (`present` false). Nothing for the other kinds.
struct FileAction {
    long long tMs;
    bool present;
    std::vector<unsigned char> bytes;
};
std::vector<FileAction> UpgradeFiles(const Fault& f);
// What the box's faults hold at host time `ms`.
obdbox::FaultState BoxFaults(const std::vector<Fault>& faults, double ms);
// Applies the BadValues faults open at `ms` to a frame's items (box ids 1..59), and gives the
// items of an Escaped window bytes that the box escapes (7D, 7E, 7F).
void AlterValues(const std::vector<Fault>& faults, long long ms, obdbox::DataItems& items);

// Whether an inertial gap holds the host's samples back at host time `ms`.
bool InertialHeld(const std::vector<Fault>& faults, long long ms);
// The date the host reports at host time `ms`, in ms since 1970 (UTC): kDateStartMs at host time
// 0, running with host time, moved by the date jumps up to `ms` and kept within the years a
// black-box record holds (2000-2099). At a jump's own instant it is the date after the jump.
constexpr long long kDateStartMs = 1767225600000;  // 2026-01-01 00:00:00
long long DateMs(const std::vector<Fault>& faults, long long ms);
// How much of the host time from `fromMs` to `toMs` the host stood still for (its stalls).
long long Stalled(const std::vector<Fault>& faults, long long fromMs, long long toMs);

// The host time at which the run releases the plug-in: the drive's end and a second more, or the
// first release fault.
long long EndMs(const Schedule& s);

std::string ToJson(const Schedule& s);
// False with `error` for a file that is no schedule.
bool FromJson(const std::string& text, Schedule& s, std::string& error);

}  // namespace obdswarm

// Plays a drive into the plug-in: the box emulator's data-stream frames take the drive's values
// at the host time each frame is sent (vehicle time = host time since the plug-in was created),
// six-axis samples go out as the host's inertial-sensor messages ten times per second of vehicle
// time, and the reference analyser (Reference.h) sees the same frames and samples and runs once
// per second of vehicle time.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "BoxEmulator.h"
#include "Drive.h"
#include "GdsLogicAnalyser.h"
#include "HostSim.h"

namespace obdsim {

class ReferenceAnalyser;

// Raw counts of the inertial sensor: 4096 per g (the analyser's rings then read hundredths of a
// g) and 16.4 per degree per second (its lateral load then reads degrees per second x km/h).
constexpr double kCountsPerG = 4096.0;
constexpr double kCountsPerDegPerS = 16.4;
constexpr long long kInertialPeriodMs = 100;

// The 32-byte payload of the host's inertial-sensor message (after its 16-byte head): the three
// accelerations at 6, 8, 10 and the three rotation rates at 18, 20, 22, 16-bit little-endian;
// kind 1 (six-axis) at 24.
std::vector<unsigned char> InertialPayload(const Motion& m);
// The same sample as the plug-in hands it to its analyser: six 16-bit values, high byte first.
tagSixAxisOrgData SixAxisSample(const Motion& m);

class Feeder {
  public:
    // Called with every frame the box sends, on the box's thread.
    using FrameTap = std::function<void(long long tMs, const DriveSample& items)>;
    // Called with every inertial sample right after the plug-in was handed it, on the feeder's
    // thread, so that a second analyser can be fed in the plug-in's own order.
    using SixAxisTap = std::function<void(long long tMs, const tagSixAxisOrgData& sample)>;

    // `drive` may be null (no built-in box: only the reference analyser's seconds run).
    Feeder(const Drive* drive, ReferenceAnalyser* reference, FrameTap tap);
    ~Feeder();
    Feeder(const Feeder&) = delete;
    Feeder& operator=(const Feeder&) = delete;

    // Whether the host holds back the inertial sample due at host time tMs (a sensor gap).
    using SixAxisHeld = std::function<bool(long long tMs)>;
    // Before Start.
    void SetSixAxisTap(SixAxisTap tap) { m_sixAxisTap = std::move(tap); }
    void SetSixAxisHeld(SixAxisHeld held) { m_sixAxisHeld = std::move(held); }
    // Called right after each of the reference's once-a-second evaluations (feeder's thread).
    using SecondTap = std::function<void(long long tMs)>;
    void SetSecondTap(SecondTap tap) { m_secondTap = std::move(tap); }
    // Samples at this many ms past each period instead of on it (0..kInertialPeriodMs-1): off
    // the plug-in's 100 ms cycle, a sample is never handled in the same instant as the 1 s work,
    // so which of the two came first is never a matter of the order of turns.
    void SetSixAxisPhaseMs(long long ms) { m_phaseMs = ms; }
    // The emulator's value source: the drive at the current host time.
    obdbox::DataItems Frame();
    // The thread of inertial samples and reference seconds.
    void Start();
    void Stop();

  private:
    void Run();
    void Tick(long long tick);
    long long At(long long tick) const { return tick * kInertialPeriodMs + m_phaseMs; }

    const Drive* m_drive;
    ReferenceAnalyser* m_reference;
    FrameTap m_tap;
    SixAxisTap m_sixAxisTap;
    SixAxisHeld m_sixAxisHeld;
    SecondTap m_secondTap;
    long long m_phaseMs = 0;
    std::atomic<bool> m_stop{false};
    // Takes its turns on virtual time like the plug-in's threads, so a run at max speed repeats.
    std::unique_ptr<hostsim::Participant> m_part;
    hostsim::Thread m_thread;
};

}  // namespace obdsim

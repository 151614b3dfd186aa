// One run of the plug-in against the built-in box on virtual time, as obd-sim sets it up: the
// virtual clock with the calling thread taking part, the box emulator on a pseudo-terminal of
// its own (through the CAN-box relay with product type 72), the feeder playing a drive, the
// plug-in loaded, initialised, registered and started through the host layer, and a listener on
// the bus. The caller steps host time forward and acts between steps with the turn (injecting
// bus messages, changing the box), then releases and tears down.
//
// Use from one thread: Start, RunUntil (any number of times), Release, Stop (or destroy). Only
// one Session may run in a process at a time (the host layer is process-wide).
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "BoxEmulator.h"
#include "CanRelay.h"
#include "Drive.h"
#include "Feeder.h"
#include "HostSim.h"

namespace obdsim {

class ReferenceAnalyser;

struct SessionOptions {
    std::string plugin;   // the plug-in library
    int productType = 0;  // 72: CAN-box mode, the box reached through the relay
    int baud = 115200;
    const Drive* drive = nullptr;            // what the box plays; must outlive the session
    ReferenceAnalyser* reference = nullptr;  // fed by the feeder when given
    Feeder::FrameTap frameTap;               // the drive's sample for every data frame
    Feeder::SixAxisTap sixAxisTap;           // every inertial sample the plug-in was handed
    Feeder::SixAxisHeld sixAxisHeld;         // samples the host holds back
    long long sixAxisPhaseMs = 0;            // Feeder::SetSixAxisPhaseMs
    // The items of each data-stream frame as the box is about to send them, at host time tMs:
    // may change them (a box that reports nonsense) and sees what goes out.
    std::function<void(long long tMs, obdbox::DataItems& items)> alterValues;
    // Changes the box's options before it starts (periods, faults, the fault schedule).
    std::function<void(obdbox::BoxOptions&)> box;
    hostsim::BusListener onBus;     // every message the plug-in sends or answers
    CanRelay::Delivered onRelayed;  // CAN-box mode: every message the relay delivers
    hostsim::SerialTap serialTap;   // serial mode: every chunk on the plug-in's line
};

class Session {
  public:
    explicit Session(SessionOptions options);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Host time 0 is now. False with `error` when the box, the relay or the plug-in cannot be
    // had; Stop() then undoes what was started.
    bool Start(std::string& error);
    // Lets host time run to `endMs`, calling `step(nowMs)` every `stepMs` of host time, with the
    // turn, before sleeping again; a step that returns false ends the run there. Returns the host
    // time reached. The broadcasts of the last instant are delivered before it returns.
    long long RunUntil(long long endMs, long long stepMs,
                       const std::function<bool(long long nowMs)>& step);
    // Stops the feeder and releases the plug-in; returns the host milliseconds the release took.
    long long Release();
    // Unsubscribes and stops the relay and the box. Safe to call twice.
    void Stop();

    obdbox::BoxEmulator& Box() { return *m_emulator; }

  private:
    SessionOptions m_opt;
    std::unique_ptr<hostsim::Participant> m_self;
    std::unique_ptr<Feeder> m_feeder;
    std::unique_ptr<obdbox::BoxEmulator> m_emulator;
    std::unique_ptr<CanRelay> m_relay;
    std::unique_ptr<hostsim::PluginHost> m_host;
    int m_token = 0;
    bool m_tapSet = false;
    bool m_released = false;
};

// The plug-in the tools load by default: the library beside the running program.
std::string DefaultPluginPath();

}  // namespace obdsim

// obd-sim --capture: everything the run's taps see, written to a pcap capture as it happens (see
// Capture.h for the format): the line's frames as the link monitor cuts them (at the time of
// their last byte), garbage and cut-off frames, optionally the raw chunks, every bus message both
// ways and every inertial sample. Times are host times, so a run on virtual time gives the same
// file every time.
//
// The taps call in from several threads (the peripheral thread, the send thread, the bus, the
// feeder, the CAN-box relay); one lock keeps the packets whole and in the order they were seen.
#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include "Capture.h"
#include "Drive.h"
#include "FrameDecoder.h"
#include "GdsLogicAnalyser.h"
#include "HostSim.h"

namespace obdsim {

class CaptureSink {
  public:
    // `chunks`: also the raw bytes of every read and write (channel 2). The first packet states
    // the host's product type, which tells a replay whether the box is reached over the bus, and
    // the `facts` ("key=value") a replay's trip summary needs and cannot see on the line.
    bool Open(const std::string& path, bool chunks, int productType, std::string& error,
              const std::vector<std::string>& facts = {});
    // The trip closed at host time tMs: a run-facts packet "end_ms", so that a replay closes its
    // trip at the same instant even when the release goes on sending after it.
    void End(long long tMs);
    // A record the link monitor cut: line bytes from the plug-in (toBox) or to it.
    void Record(const obdframe::Record& r, bool toBox, long long lastByteMs);
    // One read or write of line bytes.
    void Chunk(bool toBox, const unsigned char* data, size_t n, long long tMs);
    // `inbound`: delivered to the plug-in; otherwise sent or answered by it.
    void Bus(const hostsim::BusMessage& m, bool inbound);
    void Inbound(int id, const std::vector<unsigned char>& payload, long long tMs);
    void SixAxis(long long tMs, const tagSixAxisOrgData& sample);
    // Closes the file; false with `error` when it could not be written whole. Later calls of the
    // taps are dropped.
    bool Close(std::string& error);

  private:
    void Put(long long tMs, obdcap::Channel c, obdcap::Direction d, uint8_t flags, uint32_t id,
             const unsigned char* data, size_t n);

    std::mutex m_mutex;
    obdcap::Writer m_writer;
    bool m_chunks = false;
};

// A drive's expected alarms as one run-facts value: "KEY START HOLD LEVEL" per alarm, split by
// ','; the numbers read back exactly.
std::string ExpectedFact(const std::vector<ExpectedAlarm>& expected);
// False for a value not written by ExpectedFact (nothing is taken from it then).
bool ParseExpectedFact(const std::string& text, std::vector<ExpectedAlarm>& expected);

}  // namespace obdsim

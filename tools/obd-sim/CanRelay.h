// The CAN-box service for the built-in box: in CAN-box mode the plug-in does not talk to its box
// on its serial port but through another service on the bus. Each frame the plug-in sends as bus
// message 6899 (int32 length, then the frame) goes onto the box's line, and every byte the box
// writes there comes back to the plug-in as bus message 6898 (int32 count, then the bytes), cut
// into chunks the size of a CAN frame's data, as a relay receiving the box frame by frame hands
// them on. The plug-in's own serial port is then a line nobody answers on, so the box's bytes
// reach it once, through the bus.
//
// On virtual time the relay takes part like the box: it reads the box's line as its near end, so
// host time waits for the bytes in flight each way and a run repeats byte for byte.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "HostSim.h"

namespace obdsim {

class CanRelay {
  public:
    // The bus ids of the relay, as the plug-in knows them.
    static constexpr int kFrameToBoxId = 6899;
    static constexpr int kBytesFromBoxId = 6898;
    // What one relayed message carries at most: the data of one CAN frame.
    static constexpr size_t kChunk = 8;

    // Bytes crossing between the plug-in and the box, as the plug-in wrote (toBox) and read
    // them, with the host time: the link's view of the run.
    using Tap = std::function<void(bool toBox, const unsigned char* data, size_t n, long long tMs)>;
    // Every message the relay delivers to the plug-in, when it delivers it.
    using Delivered = std::function<void(const hostsim::BusMessage& m)>;

    CanRelay(std::string boxLinePath, Tap tap, Delivered delivered);
    ~CanRelay();

    // Opens the box's line and the plug-in's silent one, subscribes to 6899 and starts the relay.
    // Call on the thread that has the turn, before the plug-in starts. False with `error` when a
    // line cannot be had.
    bool Start(std::string& error);
    // The tty for the plug-in's serial port.
    const std::string& PluginLinePath() const { return m_pluginPath; }
    // Unsubscribes, stops the relay and closes both lines. Safe to call twice.
    void Stop();

    // The frame inside a 6899 payload; empty when its length field does not fit the payload.
    static std::vector<unsigned char> FrameOf(const std::vector<unsigned char>& payload);
    // The 6898 payloads that carry `bytes`: at most kChunk bytes each, in order.
    static std::vector<std::vector<unsigned char>> Chunks(const unsigned char* bytes, size_t n);

    CanRelay(const CanRelay&) = delete;
    CanRelay& operator=(const CanRelay&) = delete;

  private:
    void Run();
    void ToBox(const std::vector<unsigned char>& frame);
    void FromBox();

    std::string m_boxPath;
    Tap m_tap;
    Delivered m_delivered;
    int m_boxFd = -1;  // the near end of the box's line
    int m_pluginMaster = -1, m_pluginSlave = -1;
    std::string m_pluginPath;
    int m_token = 0;
    int m_wakeFd = -1;  // wakes the relay on the real and scaled clocks
    std::unique_ptr<hostsim::Participant> m_part;
    std::mutex m_mutex;  // m_frames: filled on the bus thread, emptied by the relay
    std::deque<std::vector<unsigned char>> m_frames;
    std::atomic<bool> m_stop{false};
    hostsim::Thread m_thread;
};

}  // namespace obdsim

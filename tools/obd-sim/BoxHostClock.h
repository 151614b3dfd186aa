// The built-in box on the host clock: its periods are host-time periods in every mode, and in the
// virtual mode it takes part as the far end of the peripheral's line (see hostsim::Participant).
#pragma once

#include <cmath>
#include <functional>
#include <memory>

#include "BoxEmulator.h"
#include "HostSim.h"

namespace obdsim {

// Make `peer` before the box starts, on the thread that has the turn, and call
// peer->ServeCountedLine(box.SlavePath()) before the plug-in opens the line (the box counts
// every byte it moves).
inline obdbox::BoxClock BoxHostClock(std::shared_ptr<hostsim::Participant> peer) {
    obdbox::BoxClock clock;
    clock.nowMs = [] { return static_cast<double>(hostsim::ClockNowMs()); };
    clock.wait = [peer](int fd, double untilMs) {
        return peer->Wait(untilMs < 0 ? -1 : static_cast<long long>(std::ceil(untilMs)), 20, fd);
    };
    clock.moved = [peer](bool toBox, size_t n) {
        if (toBox) {
            peer->LineRead(n);
        } else {
            peer->LineWrote(n);
        }
    };
    clock.stopping = [peer] { peer->Leave(); };
    // A fiber on virtual time, so that a turn between the box and the plug-in stays in user space.
    clock.start = [](std::function<void()> loop) {
        auto thread = std::make_shared<hostsim::Thread>("obd-box", std::move(loop));
        return std::function<void()>([thread] { thread->Join(); });
    };
    return clock;
}

}  // namespace obdsim

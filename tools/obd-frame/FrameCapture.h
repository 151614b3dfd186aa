// obd-frame and pcap captures (tools/capture): a record cut from a log becomes a packet, and a
// capture's packets are printed as obd-frame prints any input.
#pragma once

#include <cstdint>
#include <string>

#include "Capture.h"
#include "FrameFields.h"

namespace obdframe {

// The packet for a record cut from a log: a frame or a cut-off frame on channel 1 (cut off:
// flagged), garbage on channel 3, the direction from the frame's mark or the line's. Its time is
// that of the chunk holding its last byte; a record without time gets `untimedUs`.
obdcap::Packet PacketOf(const Placed& p, long long untimedUs);

// The records a line packet (channel 1 or 3) holds, each as it stands: a frame packet is cut
// alone, a garbage packet is one garbage record. Empty for other channels.
std::vector<Placed> RecordsOf(const obdcap::Packet& p);

// One line for a bus message or an inertial sample (text or JSON), as printed among the frames.
std::string FormatOther(const obdcap::Packet& p, bool json);

// Whether the file at `path` begins with a pcap file header.
bool IsCaptureFile(const std::string& path);

}  // namespace obdframe

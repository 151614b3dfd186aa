// What a decoded frame means: its command (from the plug-in's command table) and its payload
// fields, and the text and JSON forms obd-frame prints.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "FrameDecoder.h"

namespace obdframe {

// The obdcmd_t index of a code seen in a frame going `dir`, or -1 for a code not in the table.
// The link code stands at two indices: towards the box it is the request, from it the answer.
// 0x2301, the box's other acknowledgement of a stop, counts as OBD_CMD_STOP_TS_ACK.
int CommandIndex(uint16_t code, Dir dir);
// "READ_HW_VER", "DATA_STREAM", ..., or "unknown" (the obdcmd_t name without OBD_CMD_).
const char* CommandName(int index);

struct Field {
    std::string name;
    std::string value;
};

// The payload of a frame, field by field, as the plug-in reads it (answers) or as the box is
// meant to read it (requests). A field named "note" says where the plug-in would refuse or stop.
std::vector<Field> DecodePayload(const Record& r);

// Bytes as "55 AA F0 ..", at most `limit` of them and ".." when there were more.
std::string Hex(const uint8_t* data, size_t n, size_t limit = static_cast<size_t>(-1));

// A record placed in the input: when and where it was seen.
struct Placed {
    Record record;
    bool hasTime = false;
    double tMs = 0;
    size_t line = 0;    // 1-based input line of its first byte; 0 for binary input
    double tEndMs = 0;  // the time of the chunk holding its last byte (with hasTime)
};

struct PrintOptions {
    bool bytes = false;  // also the raw bytes of every frame
    bool fields = true;  // the payload fields under each frame
};

// One head line and its indented field lines, without newlines.
std::vector<std::string> FormatText(const Placed& p, const PrintOptions& o);
// One JSON object (a single line).
std::string FormatJson(const Placed& p, const PrintOptions& o);

struct Summary {
    size_t frames = 0;
    size_t toBox = 0;
    size_t fromBox = 0;
    size_t badChecksum = 0;
    size_t unknownCode = 0;
    size_t truncated = 0;
    size_t garbageRuns = 0;
    size_t garbageBytes = 0;
    void Add(const Record& r);
    std::string Text() const;
    std::string Json() const;
};

}  // namespace obdframe

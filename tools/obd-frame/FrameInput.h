// The inputs obd-frame reads, turned into byte chunks per line direction:
//  - logs: the plug-in's dumps "obd data:" (each serial read from the box) and "one obd data:"
//    (each frame the receiver cut), as the host layer prints them ("[D2] obd data: 55 AA .."),
//    a hex-only line after a dump continuing it; obd-sim's "[T ms] wire to_box|from_box HEX"
//    lines and its bus lines for 6899 (a frame to the box in CAN-box mode) and 6898 (bytes from
//    the box relayed on the bus);
//  - obd-sim --json output: "wire" objects and the same two bus ids;
//  - hex text (a raw capture: hex bytes, "0x" prefixes, commas and '#' comments allowed);
//  - binary captures, taken as they are.
// A log holds the same bytes several times (on the wire, as read, as cut): one source is chosen,
// by default the most complete one present.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "FrameDecoder.h"
#include "FrameFields.h"

namespace obdframe {

enum class Format { Auto, Log, Json, Hex, Bin };
enum class Source {
    Auto,   // wire if the log has wire lines, else reads, else frames
    Wire,   // obd-sim's wire lines and bus frames: both directions, with times
    Read,   // "obd data:": what the plug-in read from the line
    Frame,  // "one obd data:": each frame as the plug-in cut it
};

struct Chunk {
    Dir dir = Dir::Unknown;
    Source source = Source::Wire;
    bool hasTime = false;
    double tMs = 0;
    size_t line = 0;  // 1-based; 0 for binary input
    Bytes bytes;
};

struct Input {
    Format format = Format::Auto;  // as read
    Source source = Source::Auto;  // as chosen, for logs
    std::vector<Chunk> chunks;
    size_t badLines = 0;  // lines that looked like input but could not be read (JSON, hex)
};

// Binary when the content holds bytes no text log has; JSON when the first line opens an object;
// hex when every line is hex bytes or a comment; a log otherwise.
Format DetectFormat(const std::string& content);

Input ParseInput(const std::string& content, Format format, Source source);

// Reads "55 aa 0x01,02" or "55aa0102" into `out`; false at the first token that is not hex
// bytes (the bytes before it stay in `out`). A token ".." or "..." ends the bytes (a dump cut
// short for display) and counts as success.
bool ParseHexBytes(const std::string& text, Bytes& out);

// Decodes every direction's bytes as one stream each and returns the records in input order.
std::vector<Placed> DecodeInput(const Input& input);

}  // namespace obdframe

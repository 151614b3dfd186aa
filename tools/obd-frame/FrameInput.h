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
#include <deque>
#include <functional>
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
    bool more = false;  // more bytes of the chunk before (read in pieces), not a chunk of its own
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

// Reads an input of a known format as it comes and hands on each chunk (of any source) once it is
// complete. A line longer than kMaxLine is read up to there; a dump that keeps growing is handed
// on in pieces (`more`), as is binary input.
class InputReader {
  public:
    static constexpr size_t kMaxLine = 65536;
    InputReader(Format format, std::function<void(Chunk&&)> sink);
    void Feed(const char* data, size_t n);
    void Finish();
    size_t BadLines() const { return m_in.badLines; }
    // Called for each line cut at kMaxLine, with its number.
    std::function<void(size_t line)> onLineCut;

  private:
    void EndLine();
    void LogLine(const std::string& line, size_t lineNo);
    void CloseDump();
    void Flush();

    Format m_format;
    std::function<void(Chunk&&)> m_sink;
    Input m_in;  // chunks read and not yet handed on, and the count of bad lines
    std::string m_line;
    bool m_lineCut = false;
    size_t m_lineNo = 0;
    bool m_inDump = false;
    bool m_dumpHandedOn = false;  // part of the open dump went on already
    Chunk m_dump;
    bool m_binStarted = false;
};

// Decodes chunks as they come, every direction's bytes as one stream each, and hands the records
// on in input order, as DecodeInput does. A record waits while a record of another direction
// that began in an earlier chunk is still open, unless the records waiting hold more than
// `holdBytes`: then they go on ahead of it. `maxRun` as in StreamDecoder.
class ChunkDecoder {
  public:
    ChunkDecoder(std::function<void(Placed&&)> sink, size_t maxRun = StreamDecoder::kNoLimit,
                 size_t holdBytes = StreamDecoder::kNoLimit);
    void Add(Chunk&& chunk);
    void Finish();

  private:
    struct Start {
        size_t offset;  // in its direction's stream
        size_t index;   // the chunk's, in the input
        bool hasTime;
        double tMs;
        size_t line;
    };
    struct Lane {
        explicit Lane(Dir d, size_t maxRun) : decoder(d, maxRun) {}
        StreamDecoder decoder;
        std::deque<Start> starts;  // of the chunks still holding undecoded bytes, and later ones
        std::deque<std::pair<size_t, Placed>> done;  // chunk index, record
    };
    void Collect(Lane& lane);
    size_t Frontier(const Lane& lane) const;
    void Release(bool all);

    std::function<void(Placed&&)> m_sink;
    size_t m_holdBytes;
    size_t m_held = 0;
    size_t m_count = 0;
    std::vector<Lane> m_lanes;  // to_box, from_box, unknown
};

}  // namespace obdframe

// Cuts a byte stream of the box link into frames, garbage and cut-off frames.
//
// Frame: 55 AA, direction mark (F0 F8 towards the box, F8 F0 from it), length L (MSB first) =
// payload + 3, sequence number, code (MSB first), payload, XOR of bytes 2.. end of payload. The
// box escapes its frames (7E -> 7D 01, 7F -> 7D 02, 7D -> 7D 03, never the first or last byte,
// its length field too) and may or may not count the escape pairs in L; the plug-in never escapes.
//
// Unlike the plug-in's receiver, which trusts L and checks the checksum only to tell how an
// escaped frame's L counts (choosing as the decoder does), the decoder is for reading a log after
// the fact: it sees the whole stream, checks the checksum, and uses what follows a frame to tell
// a wrong length from a wrong checksum. Every input byte ends up in
// exactly one record, in order, so nothing is silently lost and nothing is counted twice.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace obdframe {

using Bytes = std::vector<uint8_t>;

enum class Dir { Unknown, ToBox, FromBox };
const char* DirName(Dir d);  // "to_box", "from_box", "?"

enum class Kind {
    Frame,      // a head, a length and all the bytes it announces
    Garbage,    // bytes outside any frame
    Truncated,  // a head whose frame never completes: the input ends, or another head begins
};

struct Record {
    Kind kind = Kind::Garbage;
    Dir dir = Dir::Unknown;      // a frame's own mark; the stream's direction for garbage
    Dir lineDir = Dir::Unknown;  // the line the bytes were seen on, when known
    size_t offset = 0;           // of raw[0] in the stream
    Bytes raw;                   // the bytes as on the line

    // Frames (and truncated frames as far as their bytes go).
    uint16_t length = 0;  // the L field (an escape in it undone)
    Bytes body;           // sequence, code and payload with the escapes undone
    uint8_t checksum = 0;
    uint8_t computed = 0;  // XOR over mark, L and body
    bool checksumOk = false;
    int escapePairs = 0;               // undone in L and body
    bool lengthCountsEscapes = false;  // L counted the raw bytes, escape pairs included
    bool notEscaped = false;  // from the box, yet its 7D pairs only add up when read as they are

    bool HasCode() const { return body.size() >= 3; }
    uint8_t Seq() const { return body.empty() ? uint8_t{0} : body[0]; }
    uint16_t Code() const {
        return HasCode() ? static_cast<uint16_t>((body[1] << 8) | body[2]) : uint16_t{0};
    }
    const uint8_t* Payload() const { return body.data() + 3; }
    size_t PayloadSize() const { return body.size() > 3 ? body.size() - 3 : 0; }
};

// The largest L a frame may carry: a frame must fit the plug-in's 1024-byte receive buffer, so a
// head announcing more is taken for garbage.
constexpr uint16_t kMaxLength = 1016;

// Cuts a stream that arrives in pieces. A record is handed on once no later byte can change it
// (a head waits until every reading of it is complete and, where two add up or none does, the
// bytes after them are in hand; garbage waits for the next head), so
// the records are DecodeStream's over the whole stream. With `maxRun`, a garbage run or a cut-off
// frame longer than that is handed on in pieces of at most `maxRun` bytes, the rest of a cut-off
// frame as garbage: one unbroken run must not have to be held whole.
class StreamDecoder {
  public:
    static constexpr size_t kNoLimit = static_cast<size_t>(-1);
    explicit StreamDecoder(Dir streamDir, size_t maxRun = kNoLimit);
    void Feed(const uint8_t* data, size_t n);
    void Finish();  // the stream ends: what waits becomes records
    // The records cut so far and not yet taken, in stream order.
    std::vector<Record> Take();
    size_t Fed() const { return m_base + m_buf.size(); }
    // Stream offset of the first byte in no record handed on yet (Fed() when none waits).
    size_t Pending() const;

  private:
    struct Candidate;
    void Cut();
    void FlushGarbage(size_t end);
    size_t InnerHead(size_t from, size_t limit) const;
    bool FollowedWell(size_t end) const;
    void Seal(Candidate& c, size_t pos) const;
    bool EscapedAt(size_t& j, uint8_t& b, int& pairs) const;
    const Candidate* Matching(const std::vector<Candidate>& candidates) const;
    size_t TryFrame(size_t pos);
    size_t EmitTruncated(size_t pos, size_t end, Dir mark);

    static constexpr size_t kNone = static_cast<size_t>(-1);
    Dir m_line;
    size_t m_maxRun;
    bool m_final = false;
    bool m_waiting = false;  // the head at m_pos needs more bytes before it can be read
    Bytes m_buf;             // the bytes from stream offset m_base on
    size_t m_base = 0;
    size_t m_pos = 0;  // in m_buf: the next byte to look at
    size_t m_garbageStart = kNone;
    size_t m_truncStart = kNone;  // a head no frame could be read from: cut at the next head
    Dir m_truncMark = Dir::Unknown;
    std::vector<Record> m_out;
};

// Decodes a whole stream. `streamDir` is the line the bytes were seen on (Unknown when not
// known); it labels garbage only, since a frame carries its direction in its mark.
std::vector<Record> DecodeStream(const uint8_t* data, size_t n, Dir streamDir);

// Undoes the box's escaping as the plug-in does: a 7D followed by 01/02/03 is one byte, any other
// 7D is kept as it is. Returns the number of pairs undone.
int Unescape(const uint8_t* data, size_t n, Bytes& out);

uint8_t Xor(const uint8_t* data, size_t n);

}  // namespace obdframe

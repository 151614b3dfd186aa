#include "FrameDecoder.h"

namespace obdframe {

namespace {

constexpr size_t kHeadSize = 6;  // 55 AA, mark, L

Dir MarkAt(const uint8_t* p) {
    if (p[0] == 0xF0 && p[1] == 0xF8) return Dir::ToBox;
    if (p[0] == 0xF8 && p[1] == 0xF0) return Dir::FromBox;
    return Dir::Unknown;
}

bool HeadAt(const uint8_t* data, size_t n, size_t i) {
    return i + 4 <= n && data[i] == 0x55 && data[i + 1] == 0xAA &&
           MarkAt(data + i + 2) != Dir::Unknown;
}

// The bytes from i to the end could still grow into a head.
bool HeadPrefixAt(const uint8_t* data, size_t n, size_t i) {
    static const uint8_t kTo[] = {0x55, 0xAA, 0xF0, 0xF8};
    static const uint8_t kFrom[] = {0x55, 0xAA, 0xF8, 0xF0};
    bool to = true;
    bool from = true;
    for (size_t k = 0; i + k < n && k < 4; ++k) {
        to = to && data[i + k] == kTo[k];
        from = from && data[i + k] == kFrom[k];
    }
    return to || from;
}

bool IsEscapeCode(uint8_t b) {
    return b >= 0x01 && b <= 0x03;
}

// One way of reading the frame that starts at a head.
struct Candidate {
    uint16_t length = 0;  // L as this reading takes it
    size_t end = 0;       // one past the checksum byte
    Bytes body;
    int pairs = 0;
    bool countsEscapes = false;
    bool notEscaped = false;
    uint8_t checksum = 0;
    uint8_t computed = 0;
    bool ok = false;
};

uint8_t Unescaped(uint8_t code) {
    static const uint8_t kValue[] = {0, 0x7E, 0x7F, 0x7D};
    return kValue[code];
}

}  // namespace

const char* DirName(Dir d) {
    switch (d) {
        case Dir::ToBox:
            return "to_box";
        case Dir::FromBox:
            return "from_box";
        case Dir::Unknown:
            break;
    }
    return "?";
}

uint8_t Xor(const uint8_t* data, size_t n) {
    uint8_t x = 0;
    for (size_t i = 0; i < n; ++i) x = static_cast<uint8_t>(x ^ data[i]);
    return x;
}

int Unescape(const uint8_t* data, size_t n, Bytes& out) {
    int pairs = 0;
    for (size_t i = 0; i < n; ++i) {
        if (data[i] == 0x7D && i + 1 < n && IsEscapeCode(data[i + 1])) {
            out.push_back(Unescaped(data[i + 1]));
            ++i;
            ++pairs;
        } else {
            out.push_back(data[i]);
        }
    }
    return pairs;
}

namespace {

class Decoder {
  public:
    Decoder(const uint8_t* data, size_t n, Dir line) : m_data(data), m_n(n), m_line(line) {}

    std::vector<Record> Run() {
        size_t pos = 0;
        while (pos < m_n) {
            if (HeadAt(m_data, m_n, pos)) {
                const size_t next = TryFrame(pos);
                if (next > pos) {
                    pos = next;
                    continue;
                }
            }
            if (m_garbageStart == kNone) m_garbageStart = pos;
            ++pos;
        }
        FlushGarbage(m_n);
        return std::move(m_out);
    }

  private:
    static constexpr size_t kNone = static_cast<size_t>(-1);

    void FlushGarbage(size_t end) {
        if (m_garbageStart == kNone) return;
        Record r;
        r.kind = Kind::Garbage;
        r.dir = m_line;
        r.lineDir = m_line;
        r.offset = m_garbageStart;
        r.raw.assign(m_data + m_garbageStart, m_data + end);
        m_out.push_back(std::move(r));
        m_garbageStart = kNone;
    }

    // The first head after `from` and before `limit`, or kNone.
    size_t InnerHead(size_t from, size_t limit) const {
        for (size_t k = from; k < limit && k < m_n; ++k) {
            if (HeadAt(m_data, m_n, k)) return k;
        }
        return kNone;
    }

    bool FollowedWell(size_t end) const {
        return end >= m_n || HeadAt(m_data, m_n, end) ||
               (m_n - end < 4 && HeadPrefixAt(m_data, m_n, end));
    }

    void Seal(Candidate& c, size_t pos) const {
        c.checksum = m_data[c.end - 1];
        c.computed = static_cast<uint8_t>(Xor(m_data + pos + 2, 2) ^ (c.length >> 8) ^
                                          (c.length & 0xFF) ^ Xor(c.body.data(), c.body.size()));
        c.ok = c.checksum == c.computed;
    }

    // The byte at `j` with an escape pair undone: false when the input ends before it is known.
    bool EscapedAt(size_t& j, uint8_t& b, int& pairs) const {
        if (j >= m_n) return false;
        if (m_data[j] == 0x7D && j + 1 < m_n && IsEscapeCode(m_data[j + 1])) {
            b = Unescaped(m_data[j + 1]);
            ++pairs;
            j += 2;
        } else {
            b = m_data[j++];
        }
        return true;
    }

    // The reading whose checksum matches. Of a box's two readings of an escaped frame one may
    // match by chance: then, as the plug-in decides, the one followed by a head (or the end), the
    // one counting the escapes in L (the shorter) if both or neither are.
    const Candidate* Matching(const std::vector<Candidate>& candidates) const {
        const Candidate* unescaped = nullptr;
        const Candidate* counted = nullptr;
        const Candidate* raw = nullptr;
        for (const Candidate& c : candidates) {
            if (!c.ok) continue;
            (c.countsEscapes ? counted : c.notEscaped ? raw : unescaped) = &c;
        }
        if (unescaped != nullptr && counted != nullptr) {
            return !FollowedWell(counted->end) && FollowedWell(unescaped->end) ? unescaped
                                                                               : counted;
        }
        if (counted != nullptr) return counted;
        return unescaped != nullptr ? unescaped : raw;
    }

    // Reads the frame at the head at `pos`. Returns the position after what it emitted, or
    // `pos` itself when the head is not a frame's (its length cannot be).
    size_t TryFrame(size_t pos) {
        const Dir mark = MarkAt(m_data + pos + 2);
        if (pos + kHeadSize > m_n) return EmitTruncated(pos, m_n, mark);
        const uint16_t rawLength = static_cast<uint16_t>((m_data[pos + 4] << 8) | m_data[pos + 5]);
        // The box escapes its length field too (a low byte of 7D to 7F).
        uint16_t length = rawLength;
        size_t bodyStart = pos + kHeadSize;
        int lengthPairs = 0;
        if (mark == Dir::FromBox) {
            size_t j = pos + 4;
            uint8_t hi = 0, lo = 0;
            if (!EscapedAt(j, hi, lengthPairs) || !EscapedAt(j, lo, lengthPairs)) {
                return EmitTruncated(pos, m_n, mark);
            }
            length = static_cast<uint16_t>((hi << 8) | lo);
            bodyStart = j;
        }
        if (length < 3 || length > kMaxLength) return pos;

        std::vector<Candidate> candidates;
        bool undone = lengthPairs > 0;  // escapes undone by some reading
        if (mark == Dir::FromBox) {
            // L counting the unescaped bytes: it is what the box does unless told otherwise.
            Candidate a;
            a.length = length;
            a.pairs = lengthPairs;
            size_t j = bodyStart;
            uint8_t b = 0;
            while (a.body.size() < length && EscapedAt(j, b, a.pairs)) a.body.push_back(b);
            if (a.body.size() == length && j < m_n) {
                a.end = j + 1;
                undone = undone || a.pairs > 0;
                Seal(a, pos);
                candidates.push_back(std::move(a));
            }
            // L counting the raw bytes after it: with no pair among them the same as the first.
            Candidate c;
            c.length = length;
            c.end = bodyStart + length + 1;
            if (c.end <= m_n) {
                c.pairs = Unescape(m_data + bodyStart, length, c.body);
                if (c.pairs > 0) {
                    c.pairs += lengthPairs;
                    c.countsEscapes = undone = true;
                    Seal(c, pos);
                    candidates.push_back(std::move(c));
                }
            }
        }
        // The bytes as they are: the plug-in's frames, or a box that does not escape.
        Candidate plain;
        plain.length = rawLength;
        plain.end = pos + kHeadSize + rawLength + 1;
        if (plain.end <= m_n && rawLength >= 3 && (undone || candidates.empty())) {
            plain.body.assign(m_data + pos + kHeadSize, m_data + plain.end - 1);
            plain.notEscaped = undone;
            Seal(plain, pos);
            candidates.push_back(std::move(plain));
        }

        const Candidate* chosen = Matching(candidates);
        // A bad checksum: believe the length only if no other frame starts inside it, preferably
        // when another frame (or the end) follows right after it.
        for (int pass = 0; pass < 2 && chosen == nullptr; ++pass) {
            for (const Candidate& c : candidates) {
                if (InnerHead(pos + 1, c.end) != kNone) continue;
                if (pass == 0 && !FollowedWell(c.end)) continue;
                chosen = &c;
                break;
            }
        }
        if (chosen == nullptr) {
            const size_t cut = InnerHead(pos + 1, m_n);
            return EmitTruncated(pos, cut == kNone ? m_n : cut, mark);
        }

        FlushGarbage(pos);
        Record r;
        r.kind = Kind::Frame;
        r.dir = mark;
        r.lineDir = m_line;
        r.offset = pos;
        r.raw.assign(m_data + pos, m_data + chosen->end);
        r.length = length;
        r.body = chosen->body;
        r.checksum = chosen->checksum;
        r.computed = chosen->computed;
        r.checksumOk = chosen->ok;
        r.escapePairs = chosen->notEscaped ? 0 : chosen->pairs;
        r.lengthCountsEscapes = chosen->countsEscapes;
        r.notEscaped = chosen->notEscaped;
        const size_t end = chosen->end;
        m_out.push_back(std::move(r));
        return end;
    }

    size_t EmitTruncated(size_t pos, size_t end, Dir mark) {
        FlushGarbage(pos);
        Record r;
        r.kind = Kind::Truncated;
        r.dir = mark;
        r.lineDir = m_line;
        r.offset = pos;
        r.raw.assign(m_data + pos, m_data + end);
        if (end >= pos + kHeadSize) {
            r.length = static_cast<uint16_t>((m_data[pos + 4] << 8) | m_data[pos + 5]);
            if (mark == Dir::FromBox) {
                r.escapePairs = Unescape(m_data + pos + kHeadSize, end - pos - kHeadSize, r.body);
            } else {
                r.body.assign(m_data + pos + kHeadSize, m_data + end);
            }
        }
        m_out.push_back(std::move(r));
        return end;
    }

    const uint8_t* m_data;
    size_t m_n;
    Dir m_line;
    size_t m_garbageStart = kNone;
    std::vector<Record> m_out;
};

}  // namespace

std::vector<Record> DecodeStream(const uint8_t* data, size_t n, Dir streamDir) {
    if (data == nullptr) n = 0;
    return Decoder(data, n, streamDir).Run();
}

}  // namespace obdframe

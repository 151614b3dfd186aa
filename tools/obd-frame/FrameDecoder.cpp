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

// One way of reading the frame that starts at a head.
struct StreamDecoder::Candidate {
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

namespace {}  // namespace

StreamDecoder::StreamDecoder(Dir streamDir, size_t maxRun)
    : m_line(streamDir), m_maxRun(maxRun < 1 ? 1 : maxRun) {}

void StreamDecoder::Feed(const uint8_t* data, size_t n) {
    if (m_final || data == nullptr || n == 0) return;
    m_buf.insert(m_buf.end(), data, data + n);
    Cut();
}

void StreamDecoder::Finish() {
    if (m_final) return;
    m_final = true;
    Cut();
}

std::vector<Record> StreamDecoder::Take() {
    std::vector<Record> out;
    out.swap(m_out);
    return out;
}

size_t StreamDecoder::Pending() const {
    size_t first = m_pos;
    if (m_garbageStart != kNone && m_garbageStart < first) first = m_garbageStart;
    if (m_truncStart != kNone && m_truncStart < first) first = m_truncStart;
    return m_base + first;
}

void StreamDecoder::Cut() {
    const uint8_t* d = m_buf.data();
    const size_t n = m_buf.size();
    for (;;) {
        if (m_truncStart != kNone) {
            while (m_pos < n && m_pos - m_truncStart < m_maxRun) {
                if (!m_final && n - m_pos < 4) break;  // a head may yet begin here
                if (HeadAt(d, n, m_pos)) break;
                ++m_pos;
            }
            const bool ends =
                m_pos - m_truncStart >= m_maxRun || (m_pos < n && HeadAt(d, n, m_pos));
            if (!ends && !m_final) break;
            const size_t start = m_truncStart;
            m_truncStart = kNone;
            m_pos = EmitTruncated(start, m_pos, m_truncMark);
            continue;
        }
        if (m_pos >= n) break;
        if (!m_final && n - m_pos < 4 && HeadPrefixAt(d, n, m_pos)) break;
        if (HeadAt(d, n, m_pos)) {
            const size_t next = TryFrame(m_pos);
            if (m_waiting) break;
            if (next > m_pos) {
                m_pos = next;
                continue;
            }
        }
        if (m_garbageStart == kNone) {
            m_garbageStart = m_pos;
        } else if (m_pos - m_garbageStart >= m_maxRun) {
            FlushGarbage(m_pos);
            m_garbageStart = m_pos;
        }
        ++m_pos;
    }
    if (m_final) {
        FlushGarbage(n);
        return;
    }
    // Drop what no record needs any more, once that is at least half the buffer (each byte is
    // moved a bounded number of times).
    const size_t keep = Pending() - m_base;
    if (keep > 0 && keep * 2 >= n) {
        m_buf.erase(m_buf.begin(), m_buf.begin() + static_cast<std::ptrdiff_t>(keep));
        m_base += keep;
        m_pos -= keep;
        if (m_garbageStart != kNone) m_garbageStart -= keep;
        if (m_truncStart != kNone) m_truncStart -= keep;
    }
}
void StreamDecoder::FlushGarbage(size_t end) {
    if (m_garbageStart == kNone) return;
    Record r;
    r.kind = Kind::Garbage;
    r.dir = m_line;
    r.lineDir = m_line;
    r.offset = m_base + m_garbageStart;
    r.raw.assign(m_buf.data() + m_garbageStart, m_buf.data() + end);
    m_out.push_back(std::move(r));
    m_garbageStart = kNone;
}

// The first head after `from` and before `limit`, or kNone.
size_t StreamDecoder::InnerHead(size_t from, size_t limit) const {
    for (size_t k = from; k < limit && k < m_buf.size(); ++k) {
        if (HeadAt(m_buf.data(), m_buf.size(), k)) return k;
    }
    return kNone;
}

bool StreamDecoder::FollowedWell(size_t end) const {
    return end >= m_buf.size() || HeadAt(m_buf.data(), m_buf.size(), end) ||
           (m_buf.size() - end < 4 && HeadPrefixAt(m_buf.data(), m_buf.size(), end));
}

void StreamDecoder::Seal(Candidate& c, size_t pos) const {
    c.checksum = m_buf.data()[c.end - 1];
    c.computed = static_cast<uint8_t>(Xor(m_buf.data() + pos + 2, 2) ^ (c.length >> 8) ^
                                      (c.length & 0xFF) ^ Xor(c.body.data(), c.body.size()));
    c.ok = c.checksum == c.computed;
}

// The byte at `j` with an escape pair undone: false when the input ends before it is known.
bool StreamDecoder::EscapedAt(size_t& j, uint8_t& b, int& pairs) const {
    if (j >= m_buf.size()) return false;
    if (m_buf.data()[j] == 0x7D && j + 1 < m_buf.size() && IsEscapeCode(m_buf.data()[j + 1])) {
        b = Unescaped(m_buf.data()[j + 1]);
        ++pairs;
        j += 2;
    } else {
        b = m_buf.data()[j++];
    }
    return true;
}

// The reading whose checksum matches. Of a box's two readings of an escaped frame one may
// match by chance: then, as the plug-in decides, the one followed by a head (or the end), the
// one counting the escapes in L (the shorter) if both or neither are.
const StreamDecoder::Candidate* StreamDecoder::Matching(
    const std::vector<Candidate>& candidates) const {
    const Candidate* unescaped = nullptr;
    const Candidate* counted = nullptr;
    const Candidate* raw = nullptr;
    for (const Candidate& c : candidates) {
        if (!c.ok) continue;
        (c.countsEscapes ? counted : c.notEscaped ? raw : unescaped) = &c;
    }
    if (unescaped != nullptr && counted != nullptr) {
        return !FollowedWell(counted->end) && FollowedWell(unescaped->end) ? unescaped : counted;
    }
    if (counted != nullptr) return counted;
    return unescaped != nullptr ? unescaped : raw;
}

// Reads the frame at the head at `pos`. Returns the position after what it emitted, or
// `pos` itself when the head is not a frame's (its length cannot be).
size_t StreamDecoder::TryFrame(size_t pos) {
    m_waiting = false;
    // Until the stream ends, a reading whose bytes have not all come yet (or whose choice
    // depends on what follows it) leaves the head waiting: deciding on what is in hand would
    // take a box's escaped frame for the shorter reading and cut it short.
    const auto wait = [this, pos] {
        m_waiting = !m_final;
        return pos;
    };
    const Dir mark = MarkAt(m_buf.data() + pos + 2);
    if (pos + kHeadSize > m_buf.size()) {
        return m_final ? EmitTruncated(pos, m_buf.size(), mark) : wait();
    }
    const uint16_t rawLength =
        static_cast<uint16_t>((m_buf.data()[pos + 4] << 8) | m_buf.data()[pos + 5]);
    // The box escapes its length field too (a low byte of 7D to 7F).
    uint16_t length = rawLength;
    size_t bodyStart = pos + kHeadSize;
    int lengthPairs = 0;
    if (mark == Dir::FromBox) {
        size_t j = pos + 4;
        uint8_t hi = 0, lo = 0;
        if (!EscapedAt(j, hi, lengthPairs) || !EscapedAt(j, lo, lengthPairs) ||
            (!m_final && j >= m_buf.size())) {
            return m_final ? EmitTruncated(pos, m_buf.size(), mark) : wait();
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
        if (!m_final && (a.body.size() < length || j >= m_buf.size())) return wait();
        if (a.body.size() == length && j < m_buf.size()) {
            a.end = j + 1;
            undone = undone || a.pairs > 0;
            Seal(a, pos);
            candidates.push_back(std::move(a));
        }
        // L counting the raw bytes after it: with no pair among them the same as the first.
        Candidate c;
        c.length = length;
        c.end = bodyStart + length + 1;
        if (!m_final && c.end > m_buf.size()) return wait();
        if (c.end <= m_buf.size()) {
            c.pairs = Unescape(m_buf.data() + bodyStart, length, c.body);
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
    if (!m_final && plain.end > m_buf.size() && rawLength >= 3 && (undone || candidates.empty())) {
        return wait();
    }
    if (plain.end <= m_buf.size() && rawLength >= 3 && (undone || candidates.empty())) {
        plain.body.assign(m_buf.data() + pos + kHeadSize, m_buf.data() + plain.end - 1);
        plain.notEscaped = undone;
        Seal(plain, pos);
        candidates.push_back(std::move(plain));
    }

    if (!m_final) {
        // Two readings that both add up, or none: what follows them decides, so it must be here.
        size_t ok = 0;
        bool nearEnd = false;
        for (const Candidate& c : candidates) {
            ok += c.ok ? 1 : 0;
            nearEnd = nearEnd || c.end + 4 > m_buf.size();
        }
        if (ok != 1 && nearEnd) return wait();
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
        // Cut off where the next head begins (Cut looks for it as the bytes come).
        FlushGarbage(pos);
        m_truncStart = pos;
        m_truncMark = mark;
        return pos + 1;
    }

    FlushGarbage(pos);
    Record r;
    r.kind = Kind::Frame;
    r.dir = mark;
    r.lineDir = m_line;
    r.offset = m_base + pos;
    r.raw.assign(m_buf.data() + pos, m_buf.data() + chosen->end);
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

size_t StreamDecoder::EmitTruncated(size_t pos, size_t end, Dir mark) {
    FlushGarbage(pos);
    Record r;
    r.kind = Kind::Truncated;
    r.dir = mark;
    r.lineDir = m_line;
    r.offset = m_base + pos;
    r.raw.assign(m_buf.data() + pos, m_buf.data() + end);
    if (end >= pos + kHeadSize) {
        r.length = static_cast<uint16_t>((m_buf.data()[pos + 4] << 8) | m_buf.data()[pos + 5]);
        if (mark == Dir::FromBox) {
            r.escapePairs = Unescape(m_buf.data() + pos + kHeadSize, end - pos - kHeadSize, r.body);
        } else {
            r.body.assign(m_buf.data() + pos + kHeadSize, m_buf.data() + end);
        }
    }
    m_out.push_back(std::move(r));
    return end;
}

std::vector<Record> DecodeStream(const uint8_t* data, size_t n, Dir streamDir) {
    StreamDecoder d(streamDir);
    if (data != nullptr) d.Feed(data, n);
    d.Finish();
    return d.Take();
}

}  // namespace obdframe

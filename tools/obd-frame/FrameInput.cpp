#include "FrameInput.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>

namespace obdframe {

namespace {

constexpr int kBusFrameToBox = 6899;    // int32 count, then a frame for the box
constexpr int kBusBytesFromBox = 6898;  // int32 count, then bytes the box sent

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool IsSpace(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == ',';
}

std::vector<std::string> Tokens(const std::string& text) {
    std::vector<std::string> out;
    size_t i = 0;
    while (i < text.size()) {
        while (i < text.size() && IsSpace(text[i])) ++i;
        size_t j = i;
        while (j < text.size() && !IsSpace(text[j])) ++j;
        if (j > i) out.push_back(text.substr(i, j - i));
        i = j;
    }
    return out;
}

std::string Trim(const std::string& s) {
    size_t a = 0;
    size_t b = s.size();
    while (a < b && IsSpace(s[a])) ++a;
    while (b > a && IsSpace(s[b - 1])) --b;
    return s.substr(a, b - a);
}

bool StartsWith(const std::string& s, const char* prefix) {
    return s.compare(0, std::strlen(prefix), prefix) == 0;
}

// A leading "[12 ms]" or "[12.5 ms]": the time, and the rest of the line after it.
bool LeadingTime(const std::string& line, double& tMs, std::string& rest) {
    if (line.empty() || line[0] != '[') return false;
    const size_t close = line.find(']');
    if (close == std::string::npos) return false;
    const std::string inner = line.substr(1, close - 1);
    if (inner.size() < 4 || inner.compare(inner.size() - 3, 3, " ms") != 0) return false;
    const std::string number = inner.substr(0, inner.size() - 3);
    char* end = nullptr;
    const double v = std::strtod(number.c_str(), &end);
    if (number.empty() || end != number.c_str() + number.size()) return false;
    tMs = v;
    rest = Trim(line.substr(close + 1));
    return true;
}

// A dump's continuation line holds only two-digit bytes, as the host layer writes them (the
// receiver's own "0x%x" traces on standard output are not a continuation).
bool DumpContinuation(const std::string& line, Bytes& out) {
    std::string rest = Trim(line);
    if (StartsWith(rest, "[D")) {
        const size_t close = rest.find(']');
        if (close == std::string::npos) return false;
        rest = rest.substr(close + 1);
    }
    const std::vector<std::string> tokens = Tokens(rest);
    if (tokens.empty()) return false;
    Bytes bytes;
    for (const std::string& t : tokens) {
        if (t.size() != 2 || HexDigit(t[0]) < 0 || HexDigit(t[1]) < 0) return false;
        bytes.push_back(static_cast<uint8_t>(HexDigit(t[0]) * 16 + HexDigit(t[1])));
    }
    out.insert(out.end(), bytes.begin(), bytes.end());
    return true;
}

// A bus payload of 6899 or 6898: int32 count (little-endian), then the bytes; the count is
// trusted only as far as the payload goes.
Bytes BusBytes(const Bytes& payload) {
    if (payload.size() < 4) return {};
    const uint32_t count =
        static_cast<uint32_t>(payload[0]) | (static_cast<uint32_t>(payload[1]) << 8) |
        (static_cast<uint32_t>(payload[2]) << 16) | (static_cast<uint32_t>(payload[3]) << 24);
    const size_t have = payload.size() - 4;
    const size_t n = count < have ? count : have;
    return Bytes(payload.begin() + 4, payload.begin() + 4 + static_cast<std::ptrdiff_t>(n));
}

Dir DirOf(const std::string& name) {
    return name == "to_box" ? Dir::ToBox : name == "from_box" ? Dir::FromBox : Dir::Unknown;
}

void AddChunk(Input& in, Dir dir, Source source, bool hasTime, double tMs, size_t line,
              Bytes bytes) {
    if (bytes.empty()) return;
    Chunk c;
    c.dir = dir;
    c.source = source;
    c.hasTime = hasTime;
    c.tMs = tMs;
    c.line = line;
    c.bytes = std::move(bytes);
    in.chunks.push_back(std::move(c));
}

// "send id=6899 len=19 0f 00 .." (obd-sim's readable bus line; 6898 comes as "inbound").
void BusLine(Input& in, const std::string& rest, bool hasTime, double tMs, size_t lineNo) {
    const std::vector<std::string> tokens = Tokens(rest);
    int id = -1;
    size_t first = tokens.size();
    for (size_t i = 1; i < tokens.size(); ++i) {
        if (StartsWith(tokens[i], "id=")) {
            id = std::atoi(tokens[i].c_str() + 3);
        } else if (!StartsWith(tokens[i], "len=")) {
            first = i;
            break;
        }
    }
    if (id != kBusFrameToBox && id != kBusBytesFromBox) return;
    std::string hex;
    for (size_t i = first; i < tokens.size(); ++i) hex += tokens[i] + " ";
    Bytes payload;
    if (!ParseHexBytes(hex, payload)) ++in.badLines;
    AddChunk(in, id == kBusFrameToBox ? Dir::ToBox : Dir::FromBox, Source::Wire, hasTime, tMs,
             lineNo, BusBytes(payload));
}

// One object of obd-sim --json: a "wire" line or a bus message that carries box bytes.
void JsonLine(Input& in, const std::string& line, size_t lineNo) {
    const nlohmann::json j = nlohmann::json::parse(line, nullptr, false);
    if (!j.is_object()) {
        ++in.badLines;
        return;
    }
    const auto hex = j.find("hex");
    if (hex == j.end() || !hex->is_string()) return;
    const auto t = j.find("t_ms");
    const bool hasTime = t != j.end() && t->is_number();
    const double tMs = hasTime ? t->get<double>() : 0.0;
    Bytes bytes;
    if (!ParseHexBytes(hex->get<std::string>(), bytes)) {
        ++in.badLines;
        return;
    }
    const auto kind = j.find("kind");
    if (kind != j.end() && kind->is_string() && kind->get<std::string>() == "wire") {
        const auto d = j.find("dir");
        const std::string dir = d != j.end() && d->is_string() ? d->get<std::string>() : "";
        AddChunk(in, DirOf(dir), Source::Wire, hasTime, tMs, lineNo, std::move(bytes));
        return;
    }
    const auto id = j.find("id");
    if (id == j.end() || !id->is_number_integer()) return;
    const long long v = id->get<long long>();
    if (v == kBusFrameToBox || v == kBusBytesFromBox) {
        AddChunk(in, v == kBusFrameToBox ? Dir::ToBox : Dir::FromBox, Source::Wire, hasTime, tMs,
                 lineNo, BusBytes(bytes));
    }
}

// A dump longer than this goes on in pieces, so that endless continuation lines are not held.
constexpr size_t kDumpPiece = 65536;

}  // namespace

bool ParseHexBytes(const std::string& text, Bytes& out) {
    for (const std::string& token : Tokens(text)) {
        if (token == ".." || token == "...") return true;
        size_t i = 0;
        if (token.size() > 2 && token[0] == '0' && (token[1] == 'x' || token[1] == 'X')) i = 2;
        const size_t digits = token.size() - i;
        if (i == 2 && digits == 1) {  // "0x7"
            const int d = HexDigit(token[2]);
            if (d < 0) return false;
            out.push_back(static_cast<uint8_t>(d));
            continue;
        }
        if (digits == 0 || digits % 2 != 0) return false;
        for (size_t k = i; k < token.size(); k += 2) {
            const int hi = HexDigit(token[k]);
            const int lo = HexDigit(token[k + 1]);
            if (hi < 0 || lo < 0) return false;
            out.push_back(static_cast<uint8_t>(hi * 16 + lo));
        }
    }
    return true;
}

Format DetectFormat(const std::string& content) {
    for (char c : content) {
        const auto u = static_cast<unsigned char>(c);
        if (u < 0x20 && u != '\t' && u != '\n' && u != '\r') return Format::Bin;
    }
    // Line by line without holding them all: a window of empty lines is millions of them.
    bool any = false;
    for (size_t start = 0; start < content.size();) {
        size_t nl = content.find('\n', start);
        if (nl == std::string::npos) nl = content.size();
        std::string line = content.substr(start, nl - start);
        start = nl + 1;
        const size_t hash = line.find('#');
        if (hash != std::string::npos) line.resize(hash);
        line = Trim(line);
        if (line.empty()) continue;
        if (!any && line[0] == '{') return Format::Json;
        any = true;
        Bytes ignored;
        if (!ParseHexBytes(line, ignored)) return Format::Log;
    }
    return any ? Format::Hex : Format::Log;
}

InputReader::InputReader(Format format, std::function<void(Chunk&&)> sink)
    : m_format(format), m_sink(std::move(sink)) {}

void InputReader::Feed(const char* data, size_t n) {
    if (n == 0) return;
    if (m_format == Format::Bin) {
        Chunk c;
        c.bytes.assign(reinterpret_cast<const uint8_t*>(data),
                       reinterpret_cast<const uint8_t*>(data) + n);
        c.more = m_binStarted;
        m_binStarted = true;
        m_sink(std::move(c));
        return;
    }
    const char* end = data + n;
    while (data < end) {
        const char* nl =
            static_cast<const char*>(std::memchr(data, '\n', static_cast<size_t>(end - data)));
        const char* stop = nl != nullptr ? nl : end;
        const size_t room = kMaxLine - m_line.size();
        const size_t take = static_cast<size_t>(stop - data);
        m_line.append(data, take < room ? take : room);
        if (take > room) m_lineCut = true;
        if (nl == nullptr) break;
        EndLine();
        data = nl + 1;
    }
}

void InputReader::Finish() {
    if (m_format != Format::Bin && (!m_line.empty() || m_lineCut)) EndLine();
    CloseDump();
}

void InputReader::EndLine() {
    ++m_lineNo;
    if (m_line.empty() && !m_lineCut) {  // adds nothing, only ends a dump
        if (m_format != Format::Hex) CloseDump();
        return;
    }
    if (m_lineCut && onLineCut) onLineCut(m_lineNo);
    if (!m_line.empty() && m_line.back() == '\r') m_line.pop_back();
    if (m_format == Format::Hex) {
        const size_t hash = m_line.find('#');
        if (hash != std::string::npos) m_line.resize(hash);
        Bytes bytes;
        if (!ParseHexBytes(m_line, bytes)) ++m_in.badLines;
        AddChunk(m_in, Dir::Unknown, Source::Wire, false, 0, m_lineNo, std::move(bytes));
    } else {
        LogLine(m_line, m_lineNo);
    }
    m_line.clear();
    m_lineCut = false;
    Flush();
}

void InputReader::Flush() {
    for (Chunk& c : m_in.chunks) m_sink(std::move(c));
    m_in.chunks.clear();
}

// A dump stays open while continuation lines follow; an empty one adds nothing.
void InputReader::CloseDump() {
    if (!m_inDump) return;
    m_inDump = false;
    if (!m_dump.bytes.empty()) m_sink(std::move(m_dump));
    m_dump = Chunk();
}

void InputReader::LogLine(const std::string& line, size_t lineNo) {
    double tMs = 0;
    std::string rest;
    const bool hasTime = LeadingTime(line, tMs, rest);
    if (!hasTime) rest = Trim(line);
    if (!rest.empty() && rest[0] == '{') {  // obd-sim --json lines among the log's own
        CloseDump();
        JsonLine(m_in, rest, lineNo);
        return;
    }
    if (StartsWith(rest, "wire ")) {
        CloseDump();
        const std::vector<std::string> tokens = Tokens(rest);
        if (tokens.size() < 2) return;
        const Dir dir = DirOf(tokens[1]);
        Bytes bytes;
        if (!ParseHexBytes(rest.substr(rest.find(tokens[1]) + tokens[1].size()), bytes)) {
            ++m_in.badLines;
        }
        AddChunk(m_in, dir, Source::Wire, hasTime, tMs, lineNo, std::move(bytes));
        return;
    }
    // "inbound": the bytes obd-sim's CAN-box relay hands the plug-in.
    if (StartsWith(rest, "send ") || StartsWith(rest, "response ") ||
        StartsWith(rest, "inbound ")) {
        CloseDump();
        BusLine(m_in, rest, hasTime, tMs, lineNo);
        return;
    }
    static const char kFrameLabel[] = "one obd data:";
    static const char kReadLabel[] = "obd data:";
    size_t at = line.find(kFrameLabel);
    Source source = Source::Frame;
    size_t labelSize = sizeof(kFrameLabel) - 1;
    if (at == std::string::npos) {
        at = line.find(kReadLabel);
        source = Source::Read;
        labelSize = sizeof(kReadLabel) - 1;
    }
    if (at != std::string::npos) {
        CloseDump();
        Bytes bytes;
        if (!ParseHexBytes(line.substr(at + labelSize), bytes)) ++m_in.badLines;
        // Even an empty dump opens a block its continuation lines add to.
        m_dump.dir = Dir::FromBox;  // the plug-in dumps only what it reads from the box
        m_dump.source = source;
        m_dump.hasTime = hasTime;
        m_dump.tMs = tMs;
        m_dump.line = lineNo;
        m_dump.bytes = std::move(bytes);
        m_inDump = true;
        m_dumpHandedOn = false;
        return;
    }
    if (m_inDump && DumpContinuation(line, m_dump.bytes)) {
        if (m_dump.bytes.size() >= kDumpPiece) {
            Chunk piece = m_dump;
            piece.more = m_dumpHandedOn;
            m_dumpHandedOn = true;
            m_dump.bytes.clear();
            m_dump.more = true;
            m_sink(std::move(piece));
        }
        return;
    }
    CloseDump();
}

Input ParseInput(const std::string& content, Format format, Source source) {
    Input in;
    in.format = format == Format::Auto ? DetectFormat(content) : format;
    InputReader reader(in.format, [&in](Chunk&& c) {
        if (c.more && !in.chunks.empty()) {
            Bytes& to = in.chunks.back().bytes;
            to.insert(to.end(), c.bytes.begin(), c.bytes.end());
            return;
        }
        c.more = false;
        in.chunks.push_back(std::move(c));
    });
    reader.Feed(content.data(), content.size());
    reader.Finish();
    in.badLines = reader.BadLines();
    if (source == Source::Auto) {
        auto has = [&in](Source s) {
            return std::any_of(in.chunks.begin(), in.chunks.end(),
                               [s](const Chunk& c) { return c.source == s; });
        };
        source = has(Source::Wire)   ? Source::Wire
                 : has(Source::Read) ? Source::Read
                                     : Source::Frame;
    }
    in.source = source;
    in.chunks.erase(std::remove_if(in.chunks.begin(), in.chunks.end(),
                                   [source](const Chunk& c) { return c.source != source; }),
                    in.chunks.end());
    return in;
}

std::vector<Placed> DecodeInput(const Input& input) {
    std::vector<Placed> out;
    ChunkDecoder decoder([&out](Placed&& p) { out.push_back(std::move(p)); });
    for (const Chunk& c : input.chunks) decoder.Add(Chunk(c));
    decoder.Finish();
    return out;
}

ChunkDecoder::ChunkDecoder(std::function<void(Placed&&)> sink, size_t maxRun, size_t holdBytes)
    : m_sink(std::move(sink)), m_holdBytes(holdBytes) {
    for (Dir d : {Dir::ToBox, Dir::FromBox, Dir::Unknown}) m_lanes.emplace_back(d, maxRun);
}

void ChunkDecoder::Add(Chunk&& c) {
    if (c.bytes.empty()) return;
    Lane& lane = m_lanes[c.dir == Dir::ToBox ? 0 : c.dir == Dir::FromBox ? 1 : 2];
    const bool more =
        c.more && m_count > 0 && !lane.starts.empty() && lane.starts.back().index == m_count - 1;
    if (!more) {
        lane.starts.push_back(Start{lane.decoder.Fed(), m_count++, c.hasTime, c.tMs, c.line});
    }
    lane.decoder.Feed(c.bytes.data(), c.bytes.size());
    Collect(lane);
    Release(false);
}

void ChunkDecoder::Finish() {
    for (Lane& lane : m_lanes) {
        lane.decoder.Finish();
        Collect(lane);
    }
    Release(true);
}

void ChunkDecoder::Collect(Lane& lane) {
    for (Record& r : lane.decoder.Take()) {
        // The chunk holding the record's first byte gives its time and line.
        auto it = std::upper_bound(lane.starts.begin(), lane.starts.end(), r.offset,
                                   [](size_t off, const Start& s) { return off < s.offset; });
        const Start& s = *std::prev(it);
        // The chunks a record spans are all still held: none is let go before the decoder has
        // handed on every record that begins in it.
        const size_t last = r.offset + (r.raw.empty() ? 0 : r.raw.size() - 1);
        const auto end =
            std::upper_bound(lane.starts.begin(), lane.starts.end(), last,
                             [](size_t off, const Start& st) { return off < st.offset; });
        Placed p;
        p.hasTime = s.hasTime;
        p.tMs = s.tMs;
        p.tEndMs = std::prev(end)->tMs;
        p.line = s.line;
        m_held += r.raw.size();
        p.record = std::move(r);
        lane.done.emplace_back(s.index, std::move(p));
    }
    const size_t pending = lane.decoder.Pending();
    while (lane.starts.size() > 1 && lane.starts[1].offset <= pending) lane.starts.pop_front();
}

// The chunk index of the lane's first undecoded byte: no later record of the lane starts before.
size_t ChunkDecoder::Frontier(const Lane& lane) const {
    if (lane.decoder.Pending() == lane.decoder.Fed() || lane.starts.empty()) {
        return static_cast<size_t>(-1);
    }
    return lane.starts.front().index;
}

void ChunkDecoder::Release(bool all) {
    for (;;) {
        Lane* first = nullptr;
        for (Lane& lane : m_lanes) {
            if (!lane.done.empty() &&
                (first == nullptr || lane.done.front().first < first->done.front().first)) {
                first = &lane;
            }
        }
        if (first == nullptr) return;
        const size_t index = first->done.front().first;
        bool blocked = false;
        for (const Lane& lane : m_lanes) {
            if (&lane != first && Frontier(lane) < index) blocked = true;
        }
        if (blocked && !all && m_held <= m_holdBytes) return;
        Placed p = std::move(first->done.front().second);
        first->done.pop_front();
        m_held -= p.record.raw.size();
        m_sink(std::move(p));
    }
}

}  // namespace obdframe

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

std::vector<std::string> Lines(const std::string& content) {
    std::vector<std::string> out;
    size_t start = 0;
    while (start <= content.size()) {
        size_t nl = content.find('\n', start);
        if (nl == std::string::npos) nl = content.size();
        std::string line = content.substr(start, nl - start);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        out.push_back(std::move(line));
        if (nl == content.size()) break;
        start = nl + 1;
    }
    if (!out.empty() && out.back().empty()) out.pop_back();
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

// "send id=6899 len=19 0f 00 .." (obd-sim's readable bus line).
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

void JsonLine(Input& in, const std::string& line, size_t lineNo);

void ParseLog(const std::string& content, Input& in) {
    const std::vector<std::string> lines = Lines(content);
    bool inDump = false;  // the last line was a dump (or its continuation)
    size_t lastDumpIndex = 0;
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string& line = lines[i];
        const size_t lineNo = i + 1;
        double tMs = 0;
        std::string rest;
        const bool hasTime = LeadingTime(line, tMs, rest);
        if (!hasTime) rest = Trim(line);
        if (!rest.empty() && rest[0] == '{') {  // obd-sim --json lines among the log's own
            inDump = false;
            JsonLine(in, rest, lineNo);
            continue;
        }

        if (StartsWith(rest, "wire ")) {
            inDump = false;
            const std::vector<std::string> tokens = Tokens(rest);
            if (tokens.size() < 2) continue;
            const Dir dir = DirOf(tokens[1]);
            Bytes bytes;
            if (!ParseHexBytes(rest.substr(rest.find(tokens[1]) + tokens[1].size()), bytes)) {
                ++in.badLines;
            }
            AddChunk(in, dir, Source::Wire, hasTime, tMs, lineNo, std::move(bytes));
            continue;
        }
        if (StartsWith(rest, "send ") || StartsWith(rest, "response ")) {
            inDump = false;
            BusLine(in, rest, hasTime, tMs, lineNo);
            continue;
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
            Bytes bytes;
            if (!ParseHexBytes(line.substr(at + labelSize), bytes)) ++in.badLines;
            // Even an empty dump opens a block its continuation lines add to.
            Chunk c;
            c.dir = Dir::FromBox;  // the plug-in dumps only what it reads from the box
            c.source = source;
            c.hasTime = hasTime;
            c.tMs = tMs;
            c.line = lineNo;
            c.bytes = std::move(bytes);
            in.chunks.push_back(std::move(c));
            lastDumpIndex = in.chunks.size() - 1;
            inDump = true;
            continue;
        }
        if (inDump && DumpContinuation(line, in.chunks[lastDumpIndex].bytes)) continue;
        inDump = false;
    }
    // Dumps that stayed empty add nothing.
    in.chunks.erase(std::remove_if(in.chunks.begin(), in.chunks.end(),
                                   [](const Chunk& c) { return c.bytes.empty(); }),
                    in.chunks.end());
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

void ParseHex(const std::string& content, Input& in) {
    const std::vector<std::string> lines = Lines(content);
    for (size_t i = 0; i < lines.size(); ++i) {
        std::string line = lines[i];
        const size_t hash = line.find('#');
        if (hash != std::string::npos) line.resize(hash);
        Bytes bytes;
        if (!ParseHexBytes(line, bytes)) ++in.badLines;
        AddChunk(in, Dir::Unknown, Source::Wire, false, 0, i + 1, std::move(bytes));
    }
}

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
    const std::vector<std::string> lines = Lines(content);
    bool any = false;
    for (std::string line : lines) {
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

Input ParseInput(const std::string& content, Format format, Source source) {
    Input in;
    in.format = format == Format::Auto ? DetectFormat(content) : format;
    switch (in.format) {
        case Format::Bin:
            AddChunk(in, Dir::Unknown, Source::Wire, false, 0, 0,
                     Bytes(content.begin(), content.end()));
            break;
        case Format::Hex:
            ParseHex(content, in);
            break;
        case Format::Json:  // a log reader takes JSON lines, also among other lines
        case Format::Log:
        case Format::Auto:
            ParseLog(content, in);
            break;
    }
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
    struct Keyed {
        size_t chunk;
        size_t offset;
        Placed placed;
    };
    std::vector<Keyed> all;
    for (Dir dir : {Dir::ToBox, Dir::FromBox, Dir::Unknown}) {
        Bytes stream;
        std::vector<std::pair<size_t, size_t>> starts;  // stream offset, chunk index
        for (size_t i = 0; i < input.chunks.size(); ++i) {
            const Chunk& c = input.chunks[i];
            if (c.dir != dir) continue;
            starts.emplace_back(stream.size(), i);
            stream.insert(stream.end(), c.bytes.begin(), c.bytes.end());
        }
        if (stream.empty()) continue;
        for (Record& r : DecodeStream(stream.data(), stream.size(), dir)) {
            // The chunk holding the record's first byte gives its time and line.
            auto it = std::upper_bound(
                starts.begin(), starts.end(), r.offset,
                [](size_t off, const std::pair<size_t, size_t>& s) { return off < s.first; });
            const size_t chunkIndex = std::prev(it)->second;
            const Chunk& c = input.chunks[chunkIndex];
            Keyed k{chunkIndex, r.offset, Placed{}};
            k.placed.hasTime = c.hasTime;
            k.placed.tMs = c.tMs;
            k.placed.line = c.line;
            k.placed.record = std::move(r);
            all.push_back(std::move(k));
        }
    }
    std::stable_sort(all.begin(), all.end(), [](const Keyed& a, const Keyed& b) {
        return a.chunk != b.chunk ? a.chunk < b.chunk : a.offset < b.offset;
    });
    std::vector<Placed> out;
    out.reserve(all.size());
    for (Keyed& k : all) out.push_back(std::move(k.placed));
    return out;
}

}  // namespace obdframe

#include "FrameFields.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>

#include "COBDParser.h"
#include "GdsItemNames.h"
#include "ObdCmdTable.h"

namespace obdframe {

namespace {

// Display names of the obdcmd_t indices (the enumerators without OBD_CMD_).
constexpr const char* kNames[] = {"NONE",
                                  "READ_HW_VER",
                                  "READ_HW_VER_ACK",
                                  "READ_SW_VER",
                                  "READ_SW_VER_ACK",
                                  "UPG_START",
                                  "UPG_START_ACK",
                                  "UPG_FILE_NAME",
                                  "UPG_FILE_NAME_ACK",
                                  "UPG_FILE_DATA",
                                  "UPG_FILE_DATA_ACK",
                                  "UPG_MD5",
                                  "UPG_MD5_ACK",
                                  "UPG_END",
                                  "UPG_END_ACK",
                                  "START_TS",
                                  "START_TS_ACK",
                                  "STOP_TS",
                                  "STOP_TS_ACK",
                                  "FAIL",
                                  "RESERVED",
                                  "CFG_ENGINE",
                                  "CFG_ENGINE_ACK",
                                  "CFG_STL",
                                  "CFG_STL_ACK",
                                  "CFG_DSL",
                                  "CFG_DSL_ACK",
                                  "READ_STL",
                                  "READ_STL_ACK",
                                  "READ_DSL",
                                  "READ_DSL_ACK",
                                  "READ_ENGINE",
                                  "READ_ENGINE_ACK",
                                  "LINK",
                                  "LINK_ACK",
                                  "DATA_STREAM",
                                  "IGNORED",
                                  "RESTART",
                                  "JUMP_APP",
                                  "READ_FAULT_CODE",
                                  "READ_FAULT_CODE_ACK"};
static_assert(sizeof(kNames) / sizeof(kNames[0]) == OBD_CMD_COUNT, "one name per command");

constexpr size_t kHexShown = 64;

uint32_t U16(const uint8_t* p) {
    return (static_cast<uint32_t>(p[0]) << 8) | p[1];
}
uint32_t U32(const uint8_t* p) {
    return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
           (static_cast<uint32_t>(p[2]) << 8) | p[3];
}

std::string Format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* fmt, ...) {
    char buf[256];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(buf, sizeof(buf), fmt, ap);
    va_end(ap);
    return buf;
}

// A text from the box or for it, quoted, with anything unprintable spelled out.
std::string Quote(const char* s, size_t n) {
    std::string out = "\"";
    for (size_t i = 0; i < n && s[i] != '\0'; ++i) {
        const auto c = static_cast<unsigned char>(s[i]);
        if (c >= 0x20 && c < 0x7F && c != '"' && c != '\\') {
            out += static_cast<char>(c);
        } else {
            out += Format("\\x%02X", c);
        }
    }
    return out + "\"";
}

template <size_t N>
std::string Quote(const char (&field)[N]) {
    return Quote(field, N);
}

class PayloadReader {
  public:
    PayloadReader(const Record& r, std::vector<Field>& out)
        : m_p(r.Payload()), m_n(r.PayloadSize()), m_out(out) {}

    void Add(std::string name, std::string value) {
        m_out.push_back({std::move(name), std::move(value)});
    }
    void Note(std::string text) { Add("note", std::move(text)); }
    void Rest(size_t from, const char* what = "payload") {
        if (from < m_n) Add(what, Hex(m_p + from, m_n - from, kHexShown));
    }
    // A copy the plug-in's parsers may read as they please (they take char*).
    std::vector<char> Copy() const { return std::vector<char>(m_p, m_p + m_n); }

    const uint8_t* m_p;
    size_t m_n;
    int Len() const { return static_cast<int>(m_n); }

  private:
    std::vector<Field>& m_out;
};

// Answers are read with the plug-in's own parsers, so the fields are what the device store gets.
void VersionAnswer(PayloadReader& rd, bool hardware) {
    _OBD_Version_t v{};
    std::vector<char> copy = rd.Copy();
    copy.push_back('\0');  // a parser is handed a valid pointer even for an empty payload
    COBDParser parser;
    if (hardware) {
        parser.OBD_ParserHwVer(copy.data(), rd.Len(), &v);
        rd.Add("HwName", Quote(v.HwName));
        rd.Add("DevSerialNum", Quote(v.DevSerialNum));
        rd.Add("HWVer", Quote(v.HWVer));
        rd.Add("VerDate", Quote(v.VerDate));
        rd.Add("DevType", Quote(v.DevType));
    } else {
        parser.OBD_ParserSwVer(copy.data(), rd.Len(), &v);
        rd.Add("BootVer", Quote(v.BootVer));
        rd.Add("DLVer", Quote(v.DLVer));
        rd.Add("DiagSWVer", Quote(v.DiagSWVer));
    }
}

void EngineAnswer(PayloadReader& rd) {
    _OBD_Engine_t e{};
    std::vector<char> copy = rd.Copy();
    copy.push_back('\0');
    if (COBDParser().OBD_ParserEngineInfo(copy.data(), rd.Len(), &e) != 0) {
        rd.Note("no engine code: the plug-in refuses the answer");
        rd.Rest(0);
        return;
    }
    rd.Add("engine", Format("0x%04X (%u)", e.engine_id, e.engine_id));
    rd.Rest(2, "ignored");
}

void ScanTimeAnswer(PayloadReader& rd) {
    _OBD_ScanTimeLevel_t s{};
    std::vector<char> copy = rd.Copy();
    copy.push_back('\0');
    if (COBDParser().OBD_ParserScanTimeLevel(copy.data(), rd.Len(), &s) != 0) {
        rd.Note("no count: the plug-in refuses the answer");
        return;
    }
    rd.Add("levels", Format("%d", s.num));
    for (int k = 0; k < s.num && k < OBD_LEVEL_MAX; ++k) {
        rd.Add(Format("level %d", s.item[k].level), Format("time %u", s.item[k].time));
    }
    if (rd.m_p[0] != s.num) {
        rd.Note(Format("%u announced, %d kept", rd.m_p[0], s.num));
    }
}

void DataScanAnswer(PayloadReader& rd) {
    _OBD_DataStreamLevel_t d{};
    std::vector<char> copy = rd.Copy();
    copy.push_back('\0');
    if (COBDParser().OBD_ParserDataStreamLevelInfo(copy.data(), rd.Len(), &d) != 0) {
        rd.Note("no count: the plug-in refuses the answer");
        return;
    }
    rd.Add("levels", Format("%d", d.num));
    for (int k = 0; k < d.num && k < OBD_LEVEL_MAX; ++k) {
        const auto& it = d.item[k];
        const size_t n =
            it.len > 0 && it.len <= OBD_LEVEL_DATA_MAX ? static_cast<size_t>(it.len) : 0;
        rd.Add(Format("level %d", it.level),
               Format("data[%d] %s", it.len, Hex(it.data, n).c_str()));
    }
    if (rd.m_p[0] != d.num) {
        rd.Note(Format("%u announced, %d kept", rd.m_p[0], d.num));
    }
}

void UpgradeAnswer(PayloadReader& rd) {
    int result = 0;
    std::vector<char> copy = rd.Copy();
    copy.push_back('\0');
    if (COBDParser().OBD_ParserUpgAck(copy.data(), rd.Len(), &result) != 0) {
        rd.Note("no status byte: the plug-in refuses the answer");
        return;
    }
    rd.Add("status", Format("%u (%s)", rd.m_p[0], result == 0 ? "accepted" : "refused"));
    rd.Rest(1, "ignored");
}

// Read here, not through the plug-in's parser, which prints to standard output as it goes.
void CfgEngineAnswer(PayloadReader& rd) {
    if (rd.m_n != 1) {
        rd.Note(Format("%zu bytes, not 1: the plug-in reports a failed calibration", rd.m_n));
        rd.Rest(0);
        return;
    }
    rd.Add("status", Format("%u (%s)", rd.m_p[0], rd.m_p[0] == 0 ? "success" : "failure"));
}

void DataStream(PayloadReader& rd) {
    if (rd.m_n == 0 || rd.m_n % 5 != 0) {
        rd.Note(Format("%zu bytes, not a multiple of 5: the plug-in refuses the frame", rd.m_n));
    }
    size_t pos = 0;
    for (; pos + 5 <= rd.m_n; pos += 5) {
        const uint8_t id = rd.m_p[pos];
        if (id == 0 || id > OBD_ITEM_COUNT) {
            rd.Note(Format("id %u: the plug-in stops reading here", id));
            break;
        }
        float v = 0;
        std::memcpy(&v, rd.m_p + pos + 1, sizeof(v));  // least significant byte first
        const GdsItemName_t& info = kGdsItemNames[id - 1];
        std::string value = Format("%.7g", static_cast<double>(v));
        if (info.unit[0] != '\0') value += std::string(" ") + info.unit;
        rd.Add(info.name != nullptr ? Format("id %u %s", id, info.name) : Format("id %u", id),
               value);
    }
    rd.Rest(pos, "not read");
}

void CfgEngineRequest(PayloadReader& rd) {
    if (rd.m_n < 2) {
        rd.Note("no engine code");
        rd.Rest(0);
        return;
    }
    rd.Add("engine", Format("0x%04X (%u)", U16(rd.m_p), U16(rd.m_p)));
    if (rd.m_n != 10) rd.Note(Format("%zu bytes, not 10", rd.m_n));
}

void CfgScanTimeRequest(PayloadReader& rd) {
    if (rd.m_n < 1) return rd.Note("no count");
    rd.Add("levels", Format("%u", rd.m_p[0]));
    size_t pos = 1;
    for (unsigned k = 0; k < rd.m_p[0] && pos + 5 <= rd.m_n; ++k, pos += 5) {
        rd.Add(Format("level %u", rd.m_p[pos]), Format("time %u", U32(rd.m_p + pos + 1)));
    }
    rd.Rest(pos, "left over");
}

void CfgDataScanRequest(PayloadReader& rd) {
    if (rd.m_n < 1) return rd.Note("no count");
    rd.Add("levels", Format("%u", rd.m_p[0]));
    size_t pos = 1;
    for (unsigned k = 0; k < rd.m_p[0] && pos + 2 <= rd.m_n; ++k) {
        const size_t n = rd.m_p[pos + 1];
        const size_t have = pos + 2 + n <= rd.m_n ? n : rd.m_n - pos - 2;
        rd.Add(Format("level %u", rd.m_p[pos]),
               Format("data[%zu] %s", n, Hex(rd.m_p + pos + 2, have).c_str()));
        if (have < n) rd.Note(Format("entry cut off after %zu of %zu bytes", have, n));
        pos += 2 + have;
    }
    rd.Rest(pos, "left over");
}

void FileNameRequest(PayloadReader& rd) {
    if (rd.m_n < 2) return rd.Note("no name length");
    const size_t n = U16(rd.m_p);
    if (2 + n + 4 > rd.m_n) {
        rd.Note(Format("name of %zu bytes and size do not fit %zu bytes", n, rd.m_n));
        return rd.Rest(0);
    }
    rd.Add("name", Quote(reinterpret_cast<const char*>(rd.m_p + 2), n));
    rd.Add("size", Format("%u", U32(rd.m_p + 2 + n)));
    rd.Rest(2 + n + 4, "left over");
}

void FileDataRequest(PayloadReader& rd) {
    if (rd.m_n < 6) {
        rd.Note("no offset and length");
        return rd.Rest(0);
    }
    const size_t n = U16(rd.m_p + 4);
    rd.Add("offset", Format("%u", U32(rd.m_p)));
    rd.Add("length", Format("%zu", n));
    if (rd.m_n - 6 != n) rd.Note(Format("%zu data bytes carried, %zu announced", rd.m_n - 6, n));
}

void Md5Request(PayloadReader& rd) {
    rd.Add("md5", Quote(reinterpret_cast<const char*>(rd.m_p), rd.m_n));
    if (rd.m_n != 32) rd.Note(Format("%zu bytes, not 32", rd.m_n));
}

}  // namespace

int CommandIndex(uint16_t code, Dir dir) {
    if (code == 0) return -1;  // the indices without a code are never on the line
    if (code == OBD_CODE_STOP_TS_ALT_ACK) return OBD_CMD_STOP_TS_ACK;
    int found = -1;
    for (int i = 0; i < OBD_CMD_COUNT; ++i) {
        if (ObdCmdArray[i] != code) continue;
        if (found < 0 || dir == Dir::FromBox) found = i;  // from the box: the later index
    }
    return found;
}

const char* CommandName(int index) {
    return index >= 0 && index < OBD_CMD_COUNT ? kNames[index] : "unknown";
}

std::string Hex(const uint8_t* data, size_t n, size_t limit) {
    std::string out;
    const size_t shown = n < limit ? n : limit;
    out.reserve(shown * 3 + 2);
    for (size_t i = 0; i < shown; ++i) {
        if (i != 0) out += ' ';
        out += Format("%02X", data[i]);
    }
    if (shown < n) out += " ..";
    return out;
}

std::vector<Field> DecodePayload(const Record& r) {
    std::vector<Field> out;
    if (!r.HasCode()) return out;
    PayloadReader rd(r, out);
    // The plug-in takes an escaped frame whole when its checksum matches, L counting the escape
    // pairs or not; else it cuts the frame at L + 7 raw bytes (L as received) and hands on L - 3
    // payload bytes.
    if (r.kind == Kind::Frame && r.escapePairs > 0 && !r.checksumOk) {
        const unsigned rawLength = (static_cast<unsigned>(r.raw[4]) << 8) | r.raw[5];
        if (rawLength + 7u < r.raw.size()) {
            rd.Note(Format("the plug-in cuts the frame at L + 7 = %u of its %zu bytes",
                           rawLength + 7u, r.raw.size()));
        } else if (rawLength > r.body.size()) {
            rd.Note(Format("the plug-in takes L - 3 = %u payload bytes, %zu more than there are",
                           rawLength - 3u, rawLength - r.body.size()));
        }
    }
    switch (CommandIndex(r.Code(), r.dir)) {
        case OBD_CMD_READ_HW_VER_ACK:
            VersionAnswer(rd, true);
            break;
        case OBD_CMD_READ_SW_VER_ACK:
            VersionAnswer(rd, false);
            break;
        case OBD_CMD_READ_ENGINE_ACK:
            EngineAnswer(rd);
            break;
        case OBD_CMD_READ_STL_ACK:
            ScanTimeAnswer(rd);
            break;
        case OBD_CMD_READ_DSL_ACK:
            DataScanAnswer(rd);
            break;
        case OBD_CMD_UPG_START_ACK:
        case OBD_CMD_UPG_FILE_NAME_ACK:
        case OBD_CMD_UPG_FILE_DATA_ACK:
        case OBD_CMD_UPG_MD5_ACK:
        case OBD_CMD_UPG_END_ACK:
            UpgradeAnswer(rd);
            break;
        case OBD_CMD_CFG_ENGINE_ACK:
            CfgEngineAnswer(rd);
            break;
        case OBD_CMD_READ_FAULT_CODE_ACK:
            // One block the device store keeps as it is; its inner layout is the box's.
            rd.Add("fault codes",
                   Format("%zu bytes: %s", rd.m_n, Hex(rd.m_p, rd.m_n, kHexShown).c_str()));
            break;
        case OBD_CMD_DATA_STREAM:
            DataStream(rd);
            break;
        case OBD_CMD_CFG_ENGINE:
            CfgEngineRequest(rd);
            break;
        case OBD_CMD_CFG_STL:
            CfgScanTimeRequest(rd);
            break;
        case OBD_CMD_CFG_DSL:
            CfgDataScanRequest(rd);
            break;
        case OBD_CMD_UPG_FILE_NAME:
            FileNameRequest(rd);
            break;
        case OBD_CMD_UPG_FILE_DATA:
            FileDataRequest(rd);
            break;
        case OBD_CMD_UPG_MD5:
            Md5Request(rd);
            break;
        default:
            // Start of the stream (FF 00 00 00 00), acknowledgements, link: not examined.
            rd.Rest(0);
            break;
    }
    return out;
}

namespace {

std::string TimeText(const Placed& p) {
    if (!p.hasTime) return "";
    if (p.tMs == std::floor(p.tMs) && std::fabs(p.tMs) < 1e15) {
        return Format("%lld ms  ", static_cast<long long>(p.tMs));
    }
    return Format("%.3f ms  ", p.tMs);
}

std::string Verdict(const Record& r) {
    std::string s =
        r.checksumOk ? "ok" : Format("bad checksum %02X, expected %02X", r.checksum, r.computed);
    if (r.escapePairs > 0) {
        s += Format("  %d escape%s undone", r.escapePairs, r.escapePairs == 1 ? "" : "s");
        if (r.lengthCountsEscapes) s += " (counted in the length)";
    }
    if (r.notEscaped) s += "  not escaped (its 7D pairs read as they are)";
    if (r.lineDir != Dir::Unknown && r.lineDir != r.dir) {
        s += Format("  (seen on the %s line)", DirName(r.lineDir));
    }
    return s;
}

std::string CodeText(const Record& r) {
    const int index = CommandIndex(r.Code(), r.dir);
    return Format("seq %u  %s (0x%04X)", r.Seq(), CommandName(index), r.Code());
}

}  // namespace

std::vector<std::string> FormatText(const Placed& p, const PrintOptions& o) {
    const Record& r = p.record;
    std::vector<std::string> lines;
    const std::string head = TimeText(p) + DirName(r.dir) + "  ";
    switch (r.kind) {
        case Kind::Garbage:
            lines.push_back(head + Format("garbage %zu bytes: ", r.raw.size()) +
                            Hex(r.raw.data(), r.raw.size(), kHexShown));
            return lines;
        case Kind::Truncated:
            lines.push_back(
                head + "truncated frame" + (r.HasCode() ? "  " + CodeText(r) : std::string()) +
                Format("  %zu bytes", r.raw.size()) +
                (r.raw.size() >= 6 ? Format(" of %u announced", r.length + 7u) : std::string()) +
                ": " + Hex(r.raw.data(), r.raw.size(), kHexShown));
            return lines;
        case Kind::Frame:
            break;
    }
    lines.push_back(head + CodeText(r) + Format("  len %u  ", r.length) + Verdict(r));
    if (o.bytes) lines.push_back("    bytes: " + Hex(r.raw.data(), r.raw.size()));
    if (o.fields) {
        for (const Field& f : DecodePayload(r)) lines.push_back("    " + f.name + ": " + f.value);
    }
    return lines;
}

std::string FormatJson(const Placed& p, const PrintOptions& o) {
    const Record& r = p.record;
    nlohmann::ordered_json j;
    if (p.hasTime) j["t_ms"] = p.tMs;
    if (p.line != 0) j["line"] = p.line;
    j["kind"] = r.kind == Kind::Frame ? "frame" : r.kind == Kind::Garbage ? "garbage" : "truncated";
    j["dir"] = DirName(r.dir);
    j["bytes"] = r.raw.size();
    if (r.kind != Kind::Garbage && r.raw.size() >= 6) j["length"] = r.length;
    if (r.HasCode()) {
        const int index = CommandIndex(r.Code(), r.dir);
        j["seq"] = r.Seq();
        j["code"] = Format("0x%04X", r.Code());
        j["command"] = CommandName(index);
    }
    if (r.kind == Kind::Frame) {
        j["checksum_ok"] = r.checksumOk;
        if (!r.checksumOk) j["checksum_expected"] = Format("%02X", r.computed);
        j["escapes"] = r.escapePairs;
        if (r.lengthCountsEscapes) j["length_counts_escapes"] = true;
        if (r.notEscaped) j["not_escaped"] = true;
        if (o.fields) {
            nlohmann::ordered_json fields = nlohmann::ordered_json::array();
            for (const Field& f : DecodePayload(r))
                fields.push_back({{"name", f.name}, {"value", f.value}});
            j["fields"] = fields;
        }
    }
    if (r.kind != Kind::Frame || o.bytes) {
        std::string hex;
        for (uint8_t b : r.raw) hex += Format("%02x", b);
        j["hex"] = hex;
    }
    return j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

void Summary::Add(const Record& r) {
    switch (r.kind) {
        case Kind::Frame:
            ++frames;
            if (r.dir == Dir::ToBox) ++toBox;
            if (r.dir == Dir::FromBox) ++fromBox;
            if (!r.checksumOk) ++badChecksum;
            if (CommandIndex(r.Code(), r.dir) < 0) ++unknownCode;
            break;
        case Kind::Truncated:
            ++truncated;
            break;
        case Kind::Garbage:
            ++garbageRuns;
            garbageBytes += r.raw.size();
            break;
    }
}

std::string Summary::Text() const {
    return Format(
        "summary: %zu frames (%zu to_box, %zu from_box), %zu bad checksum, %zu unknown "
        "code, %zu truncated, garbage %zu bytes in %zu runs",
        frames, toBox, fromBox, badChecksum, unknownCode, truncated, garbageBytes, garbageRuns);
}

std::string Summary::Json() const {
    nlohmann::ordered_json j;
    j["kind"] = "summary";
    j["frames"] = frames;
    j["to_box"] = toBox;
    j["from_box"] = fromBox;
    j["bad_checksum"] = badChecksum;
    j["unknown_code"] = unknownCode;
    j["truncated"] = truncated;
    j["garbage_bytes"] = garbageBytes;
    j["garbage_runs"] = garbageRuns;
    return j.dump();
}

}  // namespace obdframe

// The Wireshark dissector (tools/wireshark/obd.lua) run by the real tshark over captures that
// obd-sim makes: every line frame must carry the fields and values obd-frame's decoder finds in
// the same bytes, every bus message its id, nothing may be marked malformed, and the filters a
// user types must pick the packets obd-frame's view says they should. Hand-made and damaged
// packets check the expert info and that bad input is marked, never a Lua error.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "Capture.h"
#include "FrameDecoder.h"
#include "FrameFields.h"

namespace {

using obdcap::Channel;
using obdcap::Direction;
using obdcap::Packet;
using obdframe::Dir;
using obdframe::Kind;
using obdframe::Record;

using Row = std::map<std::string, std::vector<std::string>>;

std::string TempPath(const std::string& name) {
    return ::testing::TempDir() + "dissector-" + std::to_string(::getpid()) + "-" + name;
}

// Runs a shell command and returns its standard output; `status` gets its exit status.
std::string Shell(const std::string& command, int& status) {
    std::string out;
    FILE* p = ::popen(command.c_str(), "r");
    if (p == nullptr) {
        status = -1;
        return out;
    }
    char buf[65536];
    size_t n = 0;
    while ((n = std::fread(buf, 1, sizeof(buf), p)) > 0) out.append(buf, n);
    const int rc = ::pclose(p);
    status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    return out;
}

std::vector<std::string> Split(const std::string& s, char sep) {
    std::vector<std::string> out;
    std::string cur;
    for (char c : s) {
        if (c == sep) {
            out.push_back(cur);
            cur.clear();
        } else {
            cur += c;
        }
    }
    out.push_back(cur);
    return out;
}

const char* ItemField(int id) {
    static const std::map<int, const char*> kNamed = {
        {1, "mileage"},      {2, "gross"},   {3, "mileage2"},     {4, "fuel"},
        {7, "engine_speed"}, {8, "speed"},   {9, "battery_volt"}, {10, "coolant_temp"},
        {15, "accelerator"}, {16, "clutch"}, {17, "brake"},       {18, "running_brake"},
        {58, "oil_temp"}};
    static std::map<int, std::string> names;
    if (names.empty()) {
        for (int i = 1; i <= 59; ++i) {
            auto it = kNamed.find(i);
            names[i] = "obd.item." +
                       (it != kNamed.end() ? std::string(it->second) : "id_" + std::to_string(i));
        }
    }
    return names[id].c_str();
}

// The fields compared, one tshark column each (all occurrences, joined by '|').
std::vector<std::string> FrameColumns() {
    std::vector<std::string> c = {
        "obd.dir",         "obd.seq",         "obd.code",     "obd.cmd",
        "obd.length",      "obd.checksum_ok", "obd.escapes",  "obd.length_counts_escapes",
        "obd.engine",      "obd.levels",      "obd.level",    "obd.level.time",
        "obd.level.len",   "obd.level.data",  "obd.status",   "obd.verdict",
        "obd.fault_codes", "obd.item.id",     "obd.upg.name", "obd.upg.size",
        "obd.upg.offset",  "obd.upg.length",  "obd.upg.md5",  "obd.note",
        "obd.rest"};
    for (const char* v : {"HwName", "DevSerialNum", "HWVer", "VerDate", "DevType", "BootVer",
                          "DLVer", "DiagSWVer"}) {
        c.push_back(std::string("obd.version.") + v);
    }
    for (int id = 1; id <= 59; ++id) c.push_back(ItemField(id));
    return c;
}

const std::vector<std::string> kMarks = {"_ws.malformed",    "obdcap.malformed",
                                         "obd.malformed",    "obdbus.malformed",
                                         "obdimu.malformed", "obdcap.dissector_error"};

// tshark with the dissector over `path`, two passes (so that a command's lack of an answer is
// marked on it too), one row per packet.
std::vector<Row> Tshark(const std::string& path, const std::vector<std::string>& columns,
                        const std::string& filter = "") {
    // A home of its own: a copy installed in the user's plugins folder would be loaded first and
    // make this one fail to register, so the test would read the installed copy.
    const std::string home = TempPath("home");
    const std::string errors = TempPath("tshark.err");
    std::string cmd = "mkdir -p '" + home + "' && HOME='" + home + "' " + OBD_TSHARK +
                      " -n -2 -X lua_script:" + OBD_DISSECTOR + " -r '" + path +
                      "' -T fields -E occurrence=a -E aggregator='|' -e frame.number";
    for (const std::string& c : columns) cmd += " -e " + c;
    if (!filter.empty()) cmd += " -Y '" + filter + "'";
    cmd += " 2>'" + errors + "'";
    int status = 0;
    const std::string out = Shell(cmd, status);
    EXPECT_EQ(status, 0) << cmd;
    std::ifstream err(errors);
    const std::string errorText{std::istreambuf_iterator<char>(err),
                                std::istreambuf_iterator<char>()};
    EXPECT_EQ(errorText.find("Lua"), std::string::npos) << errorText;
    std::vector<Row> rows;
    for (const std::string& line : Split(out, '\n')) {
        if (line.empty()) continue;
        const std::vector<std::string> cells = Split(line, '\t');
        Row row;
        for (size_t i = 0; i < columns.size() && i + 1 < cells.size(); ++i) {
            if (!cells[i + 1].empty()) row[columns[i]] = Split(cells[i + 1], '|');
        }
        row["frame.number"] = {cells[0]};
        rows.push_back(row);
    }
    return rows;
}

size_t Count(const std::string& path, const std::string& filter) {
    return Tshark(path, {}, filter).size();
}

std::vector<Packet> ReadCapture(const std::string& path) {
    std::vector<Packet> out;
    obdcap::Reader r;
    std::string error;
    EXPECT_TRUE(r.Open(path, error)) << error;
    Packet p;
    while (r.Next(p, error)) out.push_back(p);
    EXPECT_EQ(error, "") << path;
    return out;
}

std::string Lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

std::string HexCompact(const std::string& spaced) {  // "0A 0B .." -> "0a0b"
    std::string out;
    for (char c : spaced) {
        if (std::isxdigit(static_cast<unsigned char>(c))) out += c;
    }
    return Lower(out);
}

std::string Unquote(const std::string& q) {
    return q.size() >= 2 && q.front() == '"' && q.back() == '"' ? q.substr(1, q.size() - 2) : q;
}

// What obd-frame's decoder says of one frame, in the dissector's field names. Numbers are kept
// as text and compared as numbers; byte strings as lowercase hex.
Row Expected(const Record& r) {
    Row e;
    const int index = obdframe::CommandIndex(r.Code(), r.dir);
    e["obd.dir"] = {obdframe::DirName(r.dir)};
    e["obd.seq"] = {std::to_string(r.Seq())};
    e["obd.code"] = {std::to_string(r.Code())};
    e["obd.cmd"] = {obdframe::CommandName(index)};
    e["obd.length"] = {std::to_string(r.length)};
    e["obd.checksum_ok"] = {r.checksumOk ? "1" : "0"};
    if (r.escapePairs > 0) {
        e["obd.escapes"] = {std::to_string(r.escapePairs)};
        e["obd.length_counts_escapes"] = {r.lengthCountsEscapes ? "1" : "0"};
    }
    for (const obdframe::Field& f : obdframe::DecodePayload(r)) {
        const std::string& v = f.value;
        if (f.name == "note") {
            e["obd.note"].push_back(v);
        } else if (f.name == "payload" || f.name == "ignored" || f.name == "not read" ||
                   f.name == "left over") {
            e["obd.rest"].push_back(HexCompact(v));
        } else if (f.name == "engine") {  // "0x0001 (1)"
            e["obd.engine"].push_back(std::to_string(std::strtoul(v.c_str(), nullptr, 16)));
        } else if (f.name == "levels" || f.name == "size" || f.name == "offset") {
            e[f.name == "levels" ? "obd.levels" : "obd.upg." + f.name].push_back(v);
        } else if (f.name == "length") {
            e["obd.upg.length"].push_back(v);
        } else if (f.name == "name" || f.name == "md5") {
            e["obd.upg." + f.name].push_back(Unquote(v));
        } else if (f.name.rfind("level ", 0) == 0) {
            e["obd.level"].push_back(f.name.substr(6));
            if (v.rfind("time ", 0) == 0) {
                e["obd.level.time"].push_back(v.substr(5));
            } else {  // "data[n] HEX"
                const unsigned long n = std::strtoul(v.c_str() + 5, nullptr, 10);
                e["obd.level.len"].push_back(std::to_string(n));
                if (n > 0) e["obd.level.data"].push_back(HexCompact(v.substr(v.find(']') + 1)));
            }
        } else if (f.name == "status") {  // "4 (accepted)"
            e["obd.status"].push_back(v.substr(0, v.find(' ')));
            const size_t open = v.find('(');
            e["obd.verdict"].push_back(v.substr(open + 1, v.size() - open - 2));
        } else if (f.name == "fault codes") {  // "3 bytes: 01 33 00"
            e["obd.fault_codes"].push_back(HexCompact(v.substr(v.find(':') + 1)));
        } else if (f.name.rfind("id ", 0) == 0) {  // "id 8 speed": "120.5 km/h"
            const int id = std::atoi(f.name.c_str() + 3);
            e["obd.item.id"].push_back(std::to_string(id));
            e[ItemField(id)].push_back(v.substr(0, v.find(' ')));
        } else {
            e["obd.version." + f.name].push_back(Unquote(v));
        }
    }
    return e;
}

bool SameValue(const std::string& column, const std::string& want, const std::string& got) {
    if (column.rfind("obd.item.", 0) == 0 && column != "obd.item.id") {
        const double a = std::strtod(want.c_str(), nullptr);
        const double b = std::strtod(got.c_str(), nullptr);
        return std::fabs(a - b) <= 1e-5 * std::fmax(1.0, std::fabs(a));
    }
    if (column == "obd.rest" || column == "obd.fault_codes" || column == "obd.level.data") {
        // obd-frame shows at most 64 bytes and then "..".
        return got.compare(0, want.size(), want) == 0;
    }
    char* end = nullptr;
    const unsigned long long wn = std::strtoull(want.c_str(), &end, 0);
    if (!want.empty() && *end == '\0') {
        const unsigned long long gn = std::strtoull(got.c_str(), &end, 0);
        return *end == '\0' && wn == gn;
    }
    return want == got;
}

struct Compared {
    size_t frames = 0;
    size_t bus = 0;
    size_t escaped = 0;
    size_t badChecksum = 0;
    size_t garbage = 0;
    std::map<std::string, size_t> commands;
    size_t speedOver100 = 0;
    size_t bus6702 = 0;
    std::vector<std::string> mismatches;
};

// Compares every packet of a capture as tshark shows it with what obd-frame makes of its bytes.
Compared Compare(const std::string& path) {
    Compared c;
    const std::vector<Packet> packets = ReadCapture(path);
    std::vector<std::string> columns = FrameColumns();
    columns.insert(columns.end(),
                   {"obdcap.channel", "obdbus.id", "obdbus.size", "obdbus.item.speed"});
    columns.insert(columns.end(), kMarks.begin(), kMarks.end());
    const std::vector<Row> rows = Tshark(path, columns);
    EXPECT_EQ(rows.size(), packets.size());
    const std::vector<std::string> frameColumns = FrameColumns();
    for (size_t i = 0; i < packets.size() && i < rows.size(); ++i) {
        const Packet& p = packets[i];
        const Row& got = rows[i];
        const std::string where = path + " packet " + std::to_string(i + 1);
        for (const std::string& m : kMarks) {
            if (got.count(m) != 0) c.mismatches.push_back(where + ": marked " + m.c_str());
        }
        if (p.channel == Channel::Bus) {
            ++c.bus;
            if (p.busId == 6702) ++c.bus6702;
            const auto id = got.find("obdbus.id");
            if (id == got.end() ||
                id->second != std::vector<std::string>{std::to_string(p.busId)}) {
                c.mismatches.push_back(where + ": bus id");
            }
            // The table's speed item read here from the record itself: item 7, id then float.
            if (p.busId == 6702 && p.payload.size() == 504) {
                int32_t present = 0;
                float speed = 0;
                std::memcpy(&present, &p.payload[size_t{7} * 8], 4);
                std::memcpy(&speed, &p.payload[size_t{7} * 8 + 4], 4);
                const auto s = got.find("obdbus.item.speed");
                const bool shown = s != got.end();
                if (shown != (present >= 0) ||
                    (shown && !SameValue("obd.item.speed", std::to_string(speed), s->second[0]))) {
                    c.mismatches.push_back(where + ": table speed");
                }
            }
            continue;
        }
        if (p.channel == Channel::Garbage) ++c.garbage;
        if (p.channel != Channel::Frame || (p.flags & obdcap::kFlagCut) != 0) continue;
        const Dir line = p.direction == Direction::FromPlugin ? Dir::ToBox : Dir::FromBox;
        const std::vector<Record> recs =
            obdframe::DecodeStream(p.payload.data(), p.payload.size(), line);
        if (recs.size() != 1 || recs[0].kind != Kind::Frame) {
            c.mismatches.push_back(where + ": obd-frame does not read one frame here");
            continue;
        }
        const Record& r = recs[0];
        ++c.frames;
        if (r.escapePairs > 0) ++c.escaped;
        if (!r.checksumOk) ++c.badChecksum;
        const Row want = Expected(r);
        ++c.commands[want.at("obd.cmd")[0]];
        const auto speed = want.find("obd.item.speed");
        if (speed != want.end()) {
            for (const std::string& v : speed->second) {
                if (std::strtod(v.c_str(), nullptr) > 100) {
                    ++c.speedOver100;
                    break;
                }
            }
        }
        for (const std::string& col : frameColumns) {
            const auto w = want.find(col);
            const auto g = got.find(col);
            const std::vector<std::string> wv =
                w == want.end() ? std::vector<std::string>{} : w->second;
            const std::vector<std::string> gv =
                g == got.end() ? std::vector<std::string>{} : g->second;
            bool same = wv.size() == gv.size();
            for (size_t k = 0; same && k < wv.size(); ++k) same = SameValue(col, wv[k], gv[k]);
            if (!same) {
                std::string text = where;
                text += " (" + want.at("obd.cmd")[0] + "): " + col.c_str() + " obd-frame [";
                for (const auto& v : wv) text += v + ";";
                text += "] tshark [";
                for (const auto& v : gv) text += v + ";";
                c.mismatches.push_back(text + "]");
            }
        }
    }
    return c;
}

std::string Join(const std::vector<std::string>& v, size_t limit = 20) {
    std::string out;
    for (size_t i = 0; i < v.size() && i < limit; ++i) out += v[i] + "\n";
    return out;
}

// obd-sim runs on virtual time: the same capture every time, whatever the machine's load.
std::string MakeCapture(const std::string& name, const std::string& args) {
    std::string path = TempPath(name + ".pcap");
    int status = 0;
    const std::string cmd =
        std::string(OBD_SIM) + " --speed max --capture '" + path + "' " + args + " >/dev/null 2>&1";
    Shell(cmd, status);
    EXPECT_EQ(status, 0) << cmd;
    return path;
}

const std::string& DriveCapture() {
    // Past the motorway's first minute: speeds above 100 km/h.
    static const std::string path = MakeCapture("drive", "--duration 420");
    return path;
}

// A drive whose values carry the bytes the box escapes in every data frame: 63.5 km/h and
// 1016 rpm are 0x427E0000 and 0x447E0000, 63.25 C is 0x427D0000.
const std::string& EscapingDrive() {
    static const std::string path = [] {
        std::string p = TempPath("escaping.csv");
        std::ofstream(p) << "t,speed,engine_speed,coolant_temp,battery_volt\n"
                            "0,63.5,1016,63.25,14\n"
                            "60,63.5,1016,63.25,14\n";
        return p;
    }();
    return path;
}

const std::string& FaultCapture() {
    static std::string path;
    if (!path.empty()) return path;
    // A firmware file of a few chunks, and a trigger once the plug-in has started.
    {
        const std::string file = OBD_UPGRADE_FILE_PATH;
        int status = 0;
        Shell("mkdir -p \"$(dirname '" + file + "')\"", status);
        std::ofstream out(file, std::ios::binary | std::ios::trunc);
        for (int i = 0; i < 1000; ++i) out.put(static_cast<char>(i * 37 + 0x7D));
    }
    const std::string inject = TempPath("upgrade.inject");
    std::ofstream(inject) << "@12000 6729 01000700\n";
    path = MakeCapture("faults", "--scenario '" + EscapingDrive() +
                                     "' --gaps hold --duration 40 --box-garbage 3 --box-split 4 "
                                     "--box-escape --box-seed 7 --inject '" +
                                     inject + "'");
    return path;
}

const std::string& CountedEscapeCapture() {
    static const std::string path =
        MakeCapture("escape-in-length", "--scenario '" + EscapingDrive() +
                                            "' --gaps hold --duration 20 "
                                            "--box-escape-in-length --box-split 3");
    return path;
}

TEST(Dissector, DriveCaptureDecodesAsObdFrameDoes) {
    const Compared c = Compare(DriveCapture());
    EXPECT_TRUE(c.mismatches.empty()) << c.mismatches.size() << " mismatches:\n"
                                      << Join(c.mismatches);
    EXPECT_GT(c.frames, 400u);
    EXPECT_GT(c.commands.at("DATA_STREAM"), 300u);
    for (const char* cmd :
         {"READ_HW_VER_ACK", "READ_SW_VER_ACK", "READ_ENGINE_ACK", "START_TS", "STOP_TS_ACK"}) {
        EXPECT_GT(c.commands.count(cmd), 0u) << cmd;
    }
    EXPECT_GT(c.bus6702, 400u);
}

TEST(Dissector, FaultCaptureDecodesAsObdFrameDoes) {
    const Compared c = Compare(FaultCapture());
    EXPECT_TRUE(c.mismatches.empty()) << c.mismatches.size() << " mismatches:\n"
                                      << Join(c.mismatches);
    EXPECT_GT(c.escaped, 10u);
    EXPECT_GT(c.garbage, 10u);
    for (const char* cmd : {"UPG_START", "UPG_FILE_NAME", "UPG_FILE_DATA", "UPG_MD5", "UPG_END",
                            "UPG_END_ACK", "UPG_FILE_DATA_ACK"}) {
        EXPECT_GT(c.commands.count(cmd), 0u) << cmd;
    }
}

TEST(Dissector, EscapesCountedInTheLengthDecodeAsObdFrameDoes) {
    const Compared c = Compare(CountedEscapeCapture());
    EXPECT_TRUE(c.mismatches.empty()) << c.mismatches.size() << " mismatches:\n"
                                      << Join(c.mismatches);
    EXPECT_GT(c.escaped, 5u);
    EXPECT_GT(Count(CountedEscapeCapture(), "obd.length_counts_escapes == 1"), 5u);
}

TEST(Dissector, FiltersSelectWhatObdFrameSees) {
    const Compared c = Compare(DriveCapture());
    ASSERT_GT(c.commands.count("READ_ENGINE"), 0u);
    EXPECT_EQ(Count(DriveCapture(), "obd.cmd == \"READ_ENGINE\""), c.commands.at("READ_ENGINE"));
    EXPECT_EQ(Count(DriveCapture(), "obdbus.id == 6702"), c.bus6702);
    ASSERT_GT(c.speedOver100, 0u);
    EXPECT_EQ(Count(DriveCapture(), "obd.item.speed > 100"), c.speedOver100);
    EXPECT_EQ(Count(DriveCapture(), "obd.code == 0x2c81"), c.commands.at("DATA_STREAM"));
}

// ---- Hand-made packets: the expert info at the boundaries --------------------------------

std::vector<uint8_t> Frame(bool toBox, uint8_t seq, uint16_t code,
                           const std::vector<uint8_t>& payload, uint8_t checksumFlip = 0) {
    const uint16_t l = static_cast<uint16_t>(payload.size() + 3);
    std::vector<uint8_t> f;
    f.reserve(payload.size() + 10);
    for (int b : {0x55, 0xAA, toBox ? 0xF0 : 0xF8, toBox ? 0xF8 : 0xF0, l >> 8, l & 0xFF,
                  static_cast<int>(seq), code >> 8, code & 0xFF}) {
        f.push_back(static_cast<uint8_t>(b));
    }
    for (uint8_t b : payload) f.push_back(b);
    f.push_back(static_cast<uint8_t>(obdframe::Xor(f.data() + 2, f.size() - 2) ^ checksumFlip));
    return f;
}

Packet Line(const std::vector<uint8_t>& frame, bool toBox) {
    Packet p;
    p.channel = Channel::Frame;
    p.direction = toBox ? Direction::FromPlugin : Direction::ToPlugin;
    p.payload = frame;
    return p;
}

Packet BusPacket(uint32_t id, std::vector<uint8_t> payload, bool out = true, uint8_t flags = 0) {
    Packet p;
    p.channel = Channel::Bus;
    p.direction = out ? Direction::FromPlugin : Direction::ToPlugin;
    p.flags = flags;
    p.busId = id;
    p.payload = std::move(payload);
    return p;
}

std::string WriteCapture(const std::string& name, std::vector<Packet> packets) {
    std::string path = TempPath(name + ".pcap");
    obdcap::Writer w;
    std::string error;
    EXPECT_TRUE(w.Open(path, error)) << error;
    long long t = 0;
    for (Packet& p : packets) {
        p.tUs = t += 1000;
        EXPECT_TRUE(w.Write(p));
    }
    EXPECT_TRUE(w.Close(error)) << error;
    return path;
}

TEST(Dissector, ExpertInfoMarksRetriesSilenceRefusalsAndBadChecksums) {
    const std::vector<Packet> packets = {
        Line(Frame(true, 1, 0x2C12, {}), true),                        // 1 READ_ENGINE, unanswered
        Line(Frame(true, 1, 0x2C12, {}), true),                        // 2 its retry
        Line(Frame(false, 1, 0x6C12, {0x00, 0x01}), false),            // 3 the answer
        Line(Frame(true, 2, 0x2407, {}), true),                        // 4 UPG_START
        Line(Frame(false, 2, 0x6407, {0x02}), false),                  // 5 refused
        Line(Frame(true, 3, 0x2407, {}), true),                        // 6 new seq: no retry
        Line(Frame(false, 3, 0x6407, {0x04}), false),                  // 7 accepted
        Line(Frame(true, 4, 0x2C03, std::vector<uint8_t>(10)), true),  // 8 CFG_ENGINE
        Line(Frame(false, 4, 0x6C03, {0x01}), false),                  // 9 calibration failed
        Line(Frame(false, 0, 0x2C81, {8, 0, 0, 0xC8, 0x42}, 0x10), false),  // 10 bad checksum
        Line(Frame(true, 5, 0x2C04, {}), true),                             // 11 STOP_TS
        Line(Frame(false, 5, 0x2301, {}), false),  // 12 its other acknowledgement
        Line(Frame(true, 6, 0x2506, {}), true),    // 13 RESTART, never answered
        Line(Frame(true, 6, 0x2506, {}), true),    // 14 its retry
        BusPacket(6729, {0x01, 0x07, 0x09, 0x00, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
                  true, obdcap::kFlagResponse),  // 15 upgrade failed
    };
    const std::string path = WriteCapture("experts", packets);
    struct Case {
        const char* filter;
        std::vector<std::string> frames;
    };
    const Case cases[] = {
        {"obd.retry", {"2", "14"}},
        {"obd.unanswered", {"1", "2", "13", "14"}},
        {"obd.refused", {"5", "9"}},
        {"obd.checksum_bad", {"10"}},
        {"obdbus.failed", {"15"}},
        {"obd.answer_in", {"2", "4", "6", "8", "11"}},
        {"obd.request_in == 11", {"12"}},
        {"obd.item.speed == 100", {"10"}},
        {"obd.verdict == \"accepted\"", {"7"}},
    };
    for (const Case& c : cases) {
        std::vector<std::string> got;
        for (const Row& r : Tshark(path, {}, c.filter)) got.push_back(r.at("frame.number")[0]);
        EXPECT_EQ(got, c.frames) << c.filter;
    }
    EXPECT_EQ(Count(path, "obdcap.dissector_error"), 0u);
}

// Every packet of a real capture, cut short at every few bytes and with a byte spoilt: marked
// malformed where the cut reaches a record, and never a failure of the dissector itself.
TEST(Dissector, DamagedPacketsAreMarkedNeverAnError) {
    std::vector<Packet> damaged;
    std::mt19937 rng(5);
    std::map<uint32_t, bool> busSeen;
    for (const Packet& p : ReadCapture(FaultCapture())) {
        const bool firstOfKind =
            !busSeen[p.channel == Channel::Bus ? p.busId
                                               : 100000u + static_cast<uint32_t>(p.channel)];
        busSeen[p.channel == Channel::Bus ? p.busId : 100000u + static_cast<uint32_t>(p.channel)] =
            true;
        if (!firstOfKind && rng() % 20 != 0) continue;
        for (size_t cut = 0; cut < p.payload.size(); cut += 1 + p.payload.size() / 16) {
            Packet d = p;
            d.payload.resize(cut);
            damaged.push_back(d);
        }
        if (!p.payload.empty()) {
            Packet d = p;
            d.payload[rng() % d.payload.size()] ^= static_cast<uint8_t>(1 + rng() % 255);
            damaged.push_back(d);
        }
    }
    ASSERT_GT(damaged.size(), 200u);
    const std::string path = WriteCapture("damaged", damaged);
    EXPECT_EQ(Count(path, "obdcap.dissector_error || _ws.lua"), 0u);
    EXPECT_EQ(Count(path, "frame"), damaged.size());
    EXPECT_GT(Count(path, "obdbus.malformed"), 20u);
    EXPECT_GT(Count(path, "obd.malformed"), 5u);
}

}  // namespace

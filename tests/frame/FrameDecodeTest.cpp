// obd-frame's decoder: streams with escapes both ways, bad checksums, cut-off frames, garbage and
// lying lengths; and the payload fields of each kind of frame. The box's frames are built by the
// emulator's encoder, an implementation independent of the decoder.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "BoxEmulator.h"
#include "FrameDecoder.h"
#include "FrameFields.h"

namespace {

using obdframe::Bytes;
using obdframe::Dir;
using obdframe::Kind;
using obdframe::Record;

Bytes Sealed(Bytes f) {
    f.push_back(obdframe::Xor(f.data() + 2, f.size() - 2));
    return f;
}

// A frame from the plug-in: never escaped.
Bytes ToBox(uint16_t code, const Bytes& payload, uint8_t seq = 1) {
    const auto l = static_cast<uint8_t>(payload.size() + 3);  // no payload here reaches 253
    const auto hi = static_cast<uint8_t>(code >> 8), lo = static_cast<uint8_t>(code);
    Bytes f = {0x55, 0xAA, 0xF0, 0xF8, 0x00, l, seq, hi, lo};
    f.insert(f.end(), payload.begin(), payload.end());
    return Sealed(f);
}

Bytes FromBox(uint16_t code, const Bytes& payload, bool escape = false, bool inLength = false,
              bool badChecksum = false, uint8_t seq = 1) {
    return obdbox::BoxEmulator::EncodeFrame(code, payload, seq, escape, inLength, badChecksum);
}

Bytes Cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

Bytes WithLength(Bytes f, int delta) {
    const int l = ((f[4] << 8) | f[5]) + delta;
    f[4] = static_cast<uint8_t>(l >> 8);
    f[5] = static_cast<uint8_t>(l);
    return f;
}

const Bytes kTricky = {0x7E, 0x01, 0x7F, 0x7D, 0x42};  // every escaped value
const Bytes kFrame = FromBox(0x6C12, {0x00, 0x2A});
const Bytes kGarbage3 = {0x13, 0x55, 0xAA};

struct Expect {
    Kind kind;
    size_t bytes;
    bool ok = true;  // frames: checksum verdict
    int escapes = 0;
    bool inLength = false;
};

struct StreamCase {
    const char* name;
    Bytes input;
    std::vector<Expect> expect;
};

TEST(FrameDecode, StreamsCutIntoFramesGarbageAndCutOffFrames) {
    const Bytes esc = FromBox(0x2C81, kTricky, true, false);
    const Bytes escIn = FromBox(0x2C81, kTricky, true, true);
    const Bytes bad = FromBox(0x6C01, {}, false, false, true);
    const Bytes stl = FromBox(0x6C22, {0x01, 0x01, 0x00, 0x00, 0x05, 0x00});
    // Frames the emulator would not send, the checksum over the bytes as they are: a box that
    // does not escape (a raw 7D 01), and a 7D before a byte that is no escape code.
    const Bytes raw = Sealed({0x55, 0xAA, 0xF8, 0xF0, 0x00, 0x05, 0x01, 0x2C, 0xF1, 0x7D, 0x01});
    const Bytes noPair = Sealed({0x55, 0xAA, 0xF8, 0xF0, 0x00, 0x05, 0x01, 0x2C, 0xF1, 0x7D, 0x05});
    // A low byte of L of 7E and 7D, sent as pairs (the second frame counts the sequence number's).
    const Bytes escL = FromBox(0x6CF1, Bytes(123, 0), true, false);
    const Bytes escLIn = FromBox(0x6CF1, Bytes(121, 0), true, true, false, 0x7F);
    // Counting the pairs in L, then a 00: read L unescaped, with the 00 as its checksum, it matches
    // too; as for the plug-in, the shorter reading stands when neither is followed by a head.
    const Bytes oneIn = FromBox(0x2C81, {0x7E}, true, true);
    auto C = [](const char* name, Bytes input, std::vector<Expect> expect) {
        return StreamCase{name, input, expect};
    };
    const std::vector<StreamCase> cases = {
        C("the plug-in's first frame", {0x55, 0xAA, 0xF0, 0xF8, 0x00, 0x03, 0x01, 0x21, 0x05, 0x2E},
          {{Kind::Frame, 10}}),
        C("escapes, length of the unescaped bytes", esc, {{Kind::Frame, esc.size(), true, 3}}),
        C("escapes counted in the length", escIn, {{Kind::Frame, escIn.size(), true, 3, true}}),
        C("7D 05 is no escape", noPair, {{Kind::Frame, 12, true, 0}}),
        C("a box that does not escape", raw, {{Kind::Frame, raw.size(), true, 0}}),
        C("an escaped length", escL, {{Kind::Frame, escL.size(), true, 1}}),
        C("an escaped length, pairs counted", escLIn,
          {{Kind::Frame, escLIn.size(), true, 2, true}}),
        C("two readings matching", Cat({oneIn, {0x00, 0x13}}),
          {{Kind::Frame, oneIn.size(), true, 1, true}, {Kind::Garbage, 2}}),
        C("garbage before, between and after",
          Cat({kGarbage3, kFrame, {0x00, 0x7D}, kFrame, {0x55}}),
          {{Kind::Garbage, 3},
           {Kind::Frame, 12},
           {Kind::Garbage, 2},
           {Kind::Frame, 12},
           {Kind::Garbage, 1}}),
        C("bad checksum, then a good frame", Cat({bad, kFrame}),
          {{Kind::Frame, 10, false}, {Kind::Frame, 12}}),
        C("bad checksum then garbage", Cat({bad, kGarbage3}),
          {{Kind::Frame, 10, false}, {Kind::Garbage, 3}}),
        C("cut off by the end", Cat({kFrame, Bytes(kFrame.begin(), kFrame.begin() + 7)}),
          {{Kind::Frame, 12}, {Kind::Truncated, 7}}),
        C("cut off by the next head", Cat({Bytes(stl.begin(), stl.begin() + 11), kFrame}),
          {{Kind::Truncated, 11}, {Kind::Frame, 12}}),
        C("length longer than the frame", Cat({WithLength(stl, 4), kFrame}),
          {{Kind::Truncated, stl.size()}, {Kind::Frame, 12}}),
        C("length shorter than the frame", Cat({WithLength(stl, -2), kFrame}),
          {{Kind::Frame, stl.size() - 2, false}, {Kind::Garbage, 2}, {Kind::Frame, 12}}),
        C("length below 3", Cat({WithLength(FromBox(0x6C01, {}), -1), kFrame}),
          {{Kind::Garbage, 10}, {Kind::Frame, 12}}),
        C("length beyond any frame", Cat({WithLength(kFrame, 2000), kFrame}),
          {{Kind::Garbage, 12}, {Kind::Frame, 12}}),
        C("a head and nothing more", {0x00, 0x55, 0xAA, 0xF8, 0xF0, 0x00},
          {{Kind::Garbage, 1}, {Kind::Truncated, 5}}),
        C("half a head at the end", Cat({kFrame, {0x55, 0xAA, 0xF8}}),
          {{Kind::Frame, 12}, {Kind::Garbage, 3}}),
        C("both directions", Cat({ToBox(0x2C12, {}), kFrame}),
          {{Kind::Frame, 10}, {Kind::Frame, 12}}),
    };
    for (const StreamCase& c : cases) {
        SCOPED_TRACE(c.name);
        const std::vector<Record> got =
            obdframe::DecodeStream(c.input.data(), c.input.size(), Dir::FromBox);
        ASSERT_EQ(got.size(), c.expect.size());
        Bytes covered;
        for (size_t i = 0; i < got.size(); ++i) {
            SCOPED_TRACE(i);
            EXPECT_EQ(got[i].kind, c.expect[i].kind);
            EXPECT_EQ(got[i].raw.size(), c.expect[i].bytes);
            if (got[i].kind == Kind::Frame) {
                EXPECT_EQ(got[i].checksumOk, c.expect[i].ok);
                EXPECT_EQ(got[i].escapePairs, c.expect[i].escapes);
                EXPECT_EQ(got[i].lengthCountsEscapes, c.expect[i].inLength);
            }
            covered.insert(covered.end(), got[i].raw.begin(), got[i].raw.end());
        }
        EXPECT_EQ(covered, c.input);  // every byte in exactly one record, in order
        // Fed in pieces (a byte at a time, then uneven ones), the same records come out.
        for (size_t piece : {size_t{1}, size_t{7}}) {
            obdframe::StreamDecoder d(Dir::FromBox);
            std::vector<Record> streamed;
            for (size_t at = 0; at < c.input.size(); at += piece) {
                d.Feed(c.input.data() + at, std::min(piece, c.input.size() - at));
                for (Record& r : d.Take()) streamed.push_back(std::move(r));
            }
            d.Finish();
            for (Record& r : d.Take()) streamed.push_back(std::move(r));
            ASSERT_EQ(streamed.size(), got.size()) << piece;
            for (size_t i = 0; i < got.size(); ++i) {
                EXPECT_EQ(streamed[i].kind, got[i].kind) << piece << " " << i;
                EXPECT_EQ(streamed[i].offset, got[i].offset) << piece << " " << i;
                EXPECT_EQ(streamed[i].raw, got[i].raw) << piece << " " << i;
                EXPECT_EQ(streamed[i].body, got[i].body) << piece << " " << i;
            }
        }
    }
}

TEST(FrameDecode, AFrameIsHandedOnOnceNoLaterByteCanChangeIt) {
    // Fed up to and including a frame's last byte, with nothing after it yet.
    struct Case {
        const char* name;
        Bytes frame;
        bool handedOn;  // at once, or only when later bytes (or the end) settle it
    };
    const Case cases[] = {
        {"plain frame from the box", FromBox(0x2C81, {1, 2, 3}), true},
        {"plug-in frame", ToBox(0x2C12, {}), true},
        // Only one reading adds up: no later byte can change it.
        {"escaped, pairs not counted", FromBox(0x2C81, kTricky, true, false), true},
        // The shorter reading is complete and adds up, but so might the longer one that the
        // next bytes complete: it waits.
        {"escaped, pairs counted", FromBox(0x2C81, kTricky, true, true), false},
        {"bad checksum", FromBox(0x2C81, {1, 2, 3}, false, false, true), false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        for (size_t piece : {size_t{1}, size_t{3}, c.frame.size()}) {
            obdframe::StreamDecoder d(Dir::FromBox);
            std::vector<Record> got;
            for (size_t at = 0; at < c.frame.size(); at += piece) {
                d.Feed(c.frame.data() + at, std::min(piece, c.frame.size() - at));
                for (Record& r : d.Take()) got.push_back(std::move(r));
            }
            if (!c.handedOn) {
                EXPECT_TRUE(got.empty()) << piece;
                d.Feed(kFrame.data(), kFrame.size());
                for (Record& r : d.Take()) got.push_back(std::move(r));
            }
            ASSERT_FALSE(got.empty()) << piece;
            EXPECT_EQ(got[0].kind, Kind::Frame) << piece;
            EXPECT_EQ(got[0].raw, c.frame) << piece;
        }
    }
}

TEST(FrameDecode, LongRunsGoOnInPiecesOfTheLimit) {
    // A cut-off frame longer than the limit: its first bytes stay a cut-off frame, the rest is
    // garbage; every byte still in one record, in order.
    const Bytes in = Cat({kGarbage3, Bytes(kFrame.begin(), kFrame.begin() + 9)});
    obdframe::StreamDecoder d(Dir::FromBox, 4);
    d.Feed(in.data(), in.size());
    d.Finish();
    std::vector<std::pair<Kind, size_t>> got;
    size_t at = 0;
    for (const Record& r : d.Take()) {
        EXPECT_EQ(r.offset, at);
        at += r.raw.size();
        got.emplace_back(r.kind, r.raw.size());
    }
    const std::vector<std::pair<Kind, size_t>> expect = {
        {Kind::Garbage, 3}, {Kind::Truncated, 4}, {Kind::Garbage, 4}, {Kind::Garbage, 1}};
    EXPECT_EQ(got, expect);
}

TEST(FrameDecode, EscapesAreUndoneInTheBodyAndTheMarkGivesTheDirection) {
    for (bool inLength : {false, true}) {
        const Bytes f = FromBox(0x2C81, kTricky, true, inLength, false, 9);
        const std::vector<Record> got = obdframe::DecodeStream(f.data(), f.size(), Dir::ToBox);
        ASSERT_EQ(got.size(), 1u);
        EXPECT_EQ(got[0].dir, Dir::FromBox);
        EXPECT_EQ(got[0].Seq(), 9);
        EXPECT_EQ(got[0].Code(), 0x2C81);
        EXPECT_EQ(Bytes(got[0].Payload(), got[0].Payload() + got[0].PayloadSize()), kTricky);
        // Seen on the other line: said so.
        const obdframe::Placed p{got[0], false, 0, 1};
        EXPECT_NE(obdframe::FormatText(p, {})[0].find("(seen on the to_box line)"),
                  std::string::npos);
    }
    // Bytes of the plug-in's frames are taken as they are: 7D 01 in a chunk stays.
    const Bytes chunk = ToBox(0x2403, {0, 0, 0, 0, 0, 2, 0x7D, 0x01});
    const std::vector<Record> got = obdframe::DecodeStream(chunk.data(), chunk.size(), Dir::ToBox);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_TRUE(got[0].checksumOk);
    EXPECT_EQ(got[0].escapePairs, 0);
    EXPECT_EQ(got[0].PayloadSize(), 8u);
}

struct FieldCase {
    const char* name;
    Bytes frame;
    std::vector<std::string> lines;  // each expected among the printed lines; "!x": x is not
};

std::vector<std::string> Printed(const Bytes& f) {
    const std::vector<Record> got = obdframe::DecodeStream(f.data(), f.size(), Dir::Unknown);
    if (got.size() != 1) return {"(not one record)"};
    return obdframe::FormatText({got[0], true, 12.5, 1}, {});
}

Bytes Float(uint8_t id, float v) {
    Bytes b = {id, 0, 0, 0, 0};
    std::memcpy(b.data() + 1, &v, 4);
    return b;
}

Bytes Text(const std::string& s) {
    Bytes b = {static_cast<uint8_t>(s.size() >> 8), static_cast<uint8_t>(s.size())};
    for (char c : s) b.push_back(static_cast<uint8_t>(c));
    return b;
}

TEST(FrameFields, EachCommandPrintsItsFields) {
    Bytes chunk = {0, 0, 2, 0, 0, 88};
    chunk.resize(6 + 88, 0xEE);
    Bytes fileName = Text(std::string("DOWNLOAD.BIN") + '\0');
    fileName.insert(fileName.end(), {0x00, 0x01, 0x11, 0x70});
    auto C = [](const char* name, Bytes frame, std::vector<std::string> lines) {
        return FieldCase{name, frame, lines};
    };
    const std::vector<FieldCase> cases = {
        C("head line", ToBox(0x2103, {}, 4),
          {"12.500 ms  to_box  seq 4  READ_HW_VER (0x2103)  len 3  ok"}),
        C("bad checksum", FromBox(0x6C01, {}, false, false, true, 2),
          {"from_box  seq 2  START_TS_ACK (0x6C01)  len 3  bad checksum"}),
        C("hardware version, a text refused",
          FromBox(0x6103, Cat({Text(""), Text("0123456789ABCDEF"), Text("HW1.0"), Text("2024"),
                               Text("T\x01")})),
          {"    HwName: \"\"", "    DevSerialNum: \"\"", "    HWVer: \"HW1.0\"",
           "    VerDate: \"2024\"", "    DevType: \"T\\x01\""}),
        C("software version", FromBox(0x6105, Cat({Text("B1"), Text("D1"), Text("S1")})),
          {"    BootVer: \"B1\"", "    DLVer: \"D1\"", "    DiagSWVer: \"S1\""}),
        C("escaped, length of the unescaped bytes", FromBox(0x2CF1, kTricky, true, false),
          {"    payload: 7E 01 7F 7D 42", "!note"}),
        C("escaped, pairs counted in the length", FromBox(0x2CF1, kTricky, true, true),
          {"    payload: 7E 01 7F 7D 42", "!note"}),
        C("escaped, length of the unescaped bytes, bad checksum",
          FromBox(0x2CF1, kTricky, true, false, true),
          {"    note: the plug-in cuts the frame at L + 7 = 15 of its 18 bytes"}),
        C("escaped, pairs counted in the length, bad checksum",
          FromBox(0x2CF1, kTricky, true, true, true),
          {"    note: the plug-in takes L - 3 = 8 payload bytes, 3 more than there are"}),
        C("engine", FromBox(0x6C12, {0x01, 0x2C, 0x99}),
          {"    engine: 0x012C (300)", "    ignored: 99"}),
        C("engine without its code", FromBox(0x6C12, {0x01}),
          {"    note: no engine code: the plug-in refuses the answer"}),
        C("scan-time levels", FromBox(0x6C22, {2, 1, 0, 0, 5, 0, 2, 0, 0, 3, 0}),
          {"    levels: 2", "    level 1: time 1280", "    level 2: time 768"}),
        C("scan-time levels announced beyond the payload", FromBox(0x6C22, {5, 1, 0, 0, 5, 0}),
          {"    levels: 1", "    note: 5 announced, 1 kept"}),
        C("data-scan levels", FromBox(0x6C42, {1, 3, 2, 0x0A, 0x0B}),
          {"    level 3: data[2] 0A 0B"}),
        C("upgrade step accepted", FromBox(0x6407, {4}), {"    status: 4 (accepted)"}),
        C("upgrade step accepted with 0", FromBox(0x6111, {0}), {"    status: 0 (accepted)"}),
        C("upgrade step refused", FromBox(0x6403, {2}), {"    status: 2 (refused)"}),
        C("engine configured", FromBox(0x6C03, {0}), {"    status: 0 (success)"}),
        C("engine answer of two bytes", FromBox(0x6C03, {0, 0}),
          {"    note: 2 bytes, not 1: the plug-in reports a failed calibration"}),
        C("fault codes", FromBox(0x6CF1, {0x01, 0x33, 0x00}),
          {"    fault codes: 3 bytes: 01 33 00"}),
        C("data stream", FromBox(0x2C81, Cat({Float(8, 63.5f), Float(9, 12.5f), Float(5, 1.0f)})),
          {"    id 8 speed: 63.5 km/h", "    id 9 battery_volt: 12.5 V", "    id 5: 1"}),
        C("data stream with an id beyond 59", FromBox(0x2C81, Cat({Float(8, 1), Float(60, 2)})),
          {"    id 8 speed: 1 km/h", "    note: id 60: the plug-in stops reading here",
           "    not read: 3C 00 00 00 40"}),
        C("data stream of 7 bytes", FromBox(0x2C81, {7, 0, 0, 0x80, 0x3F, 1, 2}),
          {"    note: 7 bytes, not a multiple of 5: the plug-in refuses the frame",
           "    id 7 engine_speed: 1 rpm", "    not read: 01 02"}),
        C("start of the stream", ToBox(0x2C01, {0xFF, 0, 0, 0, 0}),
          {"    payload: FF 00 00 00 00"}),
        C("engine configuration", ToBox(0x2C03, {0x00, 0x07, 0, 0, 0, 0, 0, 0, 0, 0}),
          {"    engine: 0x0007 (7)"}),
        C("scan-time configuration", ToBox(0x2C23, {2, 1, 0, 0, 0x0B, 0xB8, 2, 0, 0, 0x17, 0x70}),
          {"    levels: 2", "    level 1: time 3000", "    level 2: time 6000"}),
        C("data-scan configuration cut short", ToBox(0x2C43, {2, 3, 2, 0x0A, 0x0B, 4, 9, 1}),
          {"    level 3: data[2] 0A 0B", "    level 4: data[9] 01",
           "    note: entry cut off after 1 of 9 bytes"}),
        C("upgrade file name", ToBox(0x2402, fileName),
          {"    name: \"DOWNLOAD.BIN\"", "    size: 70000"}),
        C("upgrade chunk", ToBox(0x2403, chunk), {"    offset: 512", "    length: 88"}),
        C("upgrade digest", ToBox(0x2404, Bytes(32, '7')),
          {"    md5: \"" + std::string(32, '7') + "\""}),
        C("stop acknowledged with 0x2301", FromBox(0x2301, {}), {"STOP_TS_ACK (0x2301)"}),
        C("link towards the box", ToBox(0x2C10, {}), {"LINK (0x2C10)"}),
        C("link from the box", FromBox(0x2C10, {}), {"LINK_ACK (0x2C10)"}),
        C("code not in the table", FromBox(0x6C05, {1}), {"unknown (0x6C05)", "    payload: 01"}),
        C("no code at all", FromBox(0x0000, {}), {"unknown (0x0000)"}),
    };
    for (const FieldCase& c : cases) {
        SCOPED_TRACE(c.name);
        const std::vector<std::string> printed = Printed(c.frame);
        std::string all;
        for (const std::string& l : printed) all += l + "\n";
        for (const std::string& want : c.lines) {
            const bool absent = want[0] == '!';
            const bool found = all.find(absent ? want.substr(1) : want) != std::string::npos;
            EXPECT_NE(found, absent) << want << "\nin:\n" << all;
        }
    }
}

TEST(FrameFields, GarbageAndCutOffFramesAreNamedAsSuch) {
    const Bytes in = Cat({kGarbage3, Bytes(kFrame.begin(), kFrame.begin() + 9)});
    std::vector<std::string> lines;
    for (const Record& r : obdframe::DecodeStream(in.data(), in.size(), Dir::FromBox)) {
        for (const std::string& l : obdframe::FormatText({r, false, 0, 0}, {})) lines.push_back(l);
    }
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "from_box  garbage 3 bytes: 13 55 AA");
    EXPECT_EQ(
        lines[1],
        "from_box  truncated frame  seq 1  READ_ENGINE_ACK (0x6C12)  9 bytes of 12 announced: "
        "55 AA F8 F0 00 05 01 6C 12");
}

}  // namespace

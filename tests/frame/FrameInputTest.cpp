// obd-frame's inputs: each format read into chunks per direction, and two captured logs decoded
// against what the plug-in and the emulator themselves logged.
//
// The logs in data/ were captured so:
//   builtin-box.log:  obd-sim --log-level 3 --dump-level 3 --duration 7 --time-scale 4
//   serial-escape-garbage.log:  obd-box --escape --escape-in-length --garbage 5 --link-ms 1500
//       --value 7=1012 --value 8=63.5 --value 1=850 --seed 7, then obd-sim --serial on its line
//       with the same log options
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "FrameFields.h"
#include "FrameInput.h"

namespace {

using obdframe::Bytes;
using obdframe::Dir;
using obdframe::Format;
using obdframe::Kind;
using obdframe::Source;

std::string HexOf(const Bytes& b) {
    return obdframe::Hex(b.data(), b.size());
}

struct ChunkExpect {
    Dir dir;
    std::string hex;
    double tMs;  // -1: no time
};

struct InputCase {
    const char* name;
    std::string content;
    Format format;
    Source source;
    Format detected;
    std::vector<ChunkExpect> chunks;
    size_t badLines = 0;
};

const char kLog[] =
    "[L1 host:CSerialBase:0] serial /dev/pts/1 open at 115200 8N1\n"
    "[2 ms] wire to_box 55 aa f0 f8 00 03 01 2c 04 22\n"
    "[3 ms] box: plug-in ->        1.0 ms  seq   1  code 2C04  payload[0]\n"
    "[3 ms] wire from_box 55 aa f8 f0 00 03 01 6c 04 62\n"
    "[D2] obd data: 55 AA F8 F0 00 03 01\n"
    "[D2] 6C 04 62\n"
    "[D3] one obd data: 55 AA F8 F0 00 03 01 6C 04 62\n"
    "0x7 0x0\n"
    "[D2] obd data: 13\n"
    "0x7 0x0\n"
    "[1003 ms] send id=6702 len=504 00 00 00 00 ...\n"
    "[1004 ms] send id=6899 len=14 0a 00 00 00 55 aa f0 f8 00 03 02 2c 04\n"
    "[1005 ms] inbound id=6898 len=7 03 00 00 00 55 aa f8\n";

TEST(FrameInput, EachFormatIsReadIntoChunksPerDirection) {
    auto C = [](const char* name, std::string content, Format format, Source source,
                Format detected, std::vector<ChunkExpect> chunks, size_t badLines = 0) {
        return InputCase{name, content, format, source, detected, chunks, badLines};
    };
    const std::vector<InputCase> cases = {
        C("a log: the wire lines and the bus frames first", kLog, Format::Auto, Source::Auto,
          Format::Log,
          {{Dir::ToBox, "55 AA F0 F8 00 03 01 2C 04 22", 2},
           {Dir::FromBox, "55 AA F8 F0 00 03 01 6C 04 62", 3},
           {Dir::ToBox, "55 AA F0 F8 00 03 02 2C 04", 1004},
           {Dir::FromBox, "55 AA F8", 1005}}),
        C("a log's reads, a dump continued and a trace not", kLog, Format::Auto, Source::Read,
          Format::Log,
          {{Dir::FromBox, "55 AA F8 F0 00 03 01 6C 04 62", -1}, {Dir::FromBox, "13", -1}}),
        C("a log's frames", kLog, Format::Log, Source::Frame, Format::Log,
          {{Dir::FromBox, "55 AA F8 F0 00 03 01 6C 04 62", -1}}),
        C("a log of dumps only falls back to the reads",
          "[D3] one obd data: 55 AA\n[D2] obd data: 01 02\n", Format::Auto, Source::Auto,
          Format::Log, {{Dir::FromBox, "01 02", -1}}),
        C("obd-sim --json",
          "{\"t_ms\":9,\"kind\":\"wire\",\"dir\":\"from_box\",\"hex\":\"55aaf8f0\"}\n"
          "{\"t_ms\":10,\"kind\":\"send\",\"id\":6702,\"len\":2,\"hex\":\"0102\"}\n"
          "{\"t_ms\":11,\"kind\":\"send\",\"id\":6899,\"len\":7,\"hex\":\"02000000aabbcc\"}\n"
          "{\"t_ms\":12,\"kind\":\"send\",\"id\":6898,\"len\":5,\"hex\":\"09000000dd\"}\n"
          "{\"t_ms\":13,\"kind\":\"wire\",\"dir\":\"to_box\",\"hex\":\"55zz\"}\n"
          "{not json\n",
          Format::Auto, Source::Auto, Format::Json,
          {{Dir::FromBox, "55 AA F8 F0", 9}, {Dir::ToBox, "AA BB", 11}, {Dir::FromBox, "DD", 12}},
          2),
        C("JSON lines among log lines",
          "[L1 x] start\n{\"t_ms\":1,\"kind\":\"wire\",\"dir\":\"to_box\",\"hex\":\"55aa\"}\n",
          Format::Auto, Source::Auto, Format::Log, {{Dir::ToBox, "55 AA", 1}}),
        C("hex text", "# capture\n55 aa, 0xF8 0xf0\n\n0003 # L\n", Format::Auto, Source::Auto,
          Format::Hex, {{Dir::Unknown, "55 AA F8 F0", -1}, {Dir::Unknown, "00 03", -1}}),
        C("hex text with a fault", "55 aa 5\n", Format::Hex, Source::Auto, Format::Hex,
          {{Dir::Unknown, "55 AA", -1}}, 1),
        C("binary", std::string("\x55\xAA\x00\x0A", 4), Format::Auto, Source::Auto, Format::Bin,
          {{Dir::Unknown, "55 AA 00 0A", -1}}),
    };
    for (const InputCase& c : cases) {
        SCOPED_TRACE(c.name);
        const obdframe::Input in = obdframe::ParseInput(c.content, c.format, c.source);
        EXPECT_EQ(in.format, c.detected);
        EXPECT_EQ(in.badLines, c.badLines);
        ASSERT_EQ(in.chunks.size(), c.chunks.size());
        for (size_t i = 0; i < c.chunks.size(); ++i) {
            SCOPED_TRACE(i);
            EXPECT_EQ(in.chunks[i].dir, c.chunks[i].dir);
            EXPECT_EQ(HexOf(in.chunks[i].bytes), c.chunks[i].hex);
            EXPECT_EQ(in.chunks[i].hasTime, c.chunks[i].tMs >= 0);
            if (in.chunks[i].hasTime) {
                EXPECT_EQ(in.chunks[i].tMs, c.chunks[i].tMs);
            }
        }
    }
}

TEST(FrameInput, DirectionsInterleaveInInputOrderAndAFrameTakesItsFirstLine) {
    const std::string log =
        "[10 ms] wire to_box 55 aa f0 f8 00 03 01 21\n"
        "[11 ms] wire from_box 55 aa f8 f0 00 03 07 2c 10 30\n"
        "[12 ms] wire to_box 05 2e 00\n";
    const std::vector<obdframe::Placed> got =
        obdframe::DecodeInput(obdframe::ParseInput(log, Format::Auto, Source::Auto));
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0].record.Code(), 0x2105);  // cut over two wire lines
    EXPECT_EQ(got[0].tMs, 10);
    EXPECT_EQ(got[0].line, 1u);
    EXPECT_EQ(got[1].record.Code(), 0x2C10);
    EXPECT_EQ(got[1].tMs, 11);
    EXPECT_EQ(got[2].record.kind, Kind::Garbage);
    EXPECT_EQ(got[2].record.dir, Dir::ToBox);
    EXPECT_EQ(got[2].tMs, 12);
}

std::string ReadFile(const std::string& name) {
    std::ifstream f(std::string(OBD_FRAME_DATA_DIR) + "/" + name, std::ios::binary);
    std::ostringstream s;
    s << f.rdbuf();
    return s.str();
}

std::vector<obdframe::Placed> Decode(const std::string& log, Source source) {
    return obdframe::DecodeInput(obdframe::ParseInput(log, Format::Auto, source));
}

std::vector<std::string> FramesHex(const std::vector<obdframe::Placed>& records) {
    std::vector<std::string> out;
    for (const auto& p : records) {
        if (p.record.kind == Kind::Frame) out.push_back(HexOf(p.record.raw));
    }
    return out;
}

// Every record a good frame with a code of the table.
void ExpectAllFramesGood(const std::vector<obdframe::Placed>& records) {
    for (const auto& p : records) {
        SCOPED_TRACE(p.line);
        if (p.record.kind != Kind::Frame) continue;
        EXPECT_TRUE(p.record.checksumOk);
        EXPECT_GE(obdframe::CommandIndex(p.record.Code(), p.record.dir), 0);
    }
}

TEST(FrameCapturedLog, TheBuiltInBoxRunIsDecodedFrameForFrame) {
    const std::string log = ReadFile("builtin-box.log");
    ASSERT_FALSE(log.empty());
    const auto wire = Decode(log, Source::Auto);
    const auto frames = Decode(log, Source::Frame);
    const auto reads = Decode(log, Source::Read);
    ExpectAllFramesGood(wire);
    obdframe::Summary s;
    for (const auto& p : wire) s.Add(p.record);
    EXPECT_EQ(s.truncated + s.garbageRuns + s.badChecksum + s.unknownCode, 0u);

    // Towards the box: what the emulator says it received, frame by frame.
    std::vector<std::string> received;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        unsigned seq = 0;
        unsigned code = 0;
        const size_t at = line.find("box: plug-in ->");
        if (at == std::string::npos) continue;
        const size_t seqAt = line.find("seq", at);
        ASSERT_EQ(std::sscanf(line.c_str() + seqAt, "seq %u code %x", &seq, &code), 2) << line;
        received.push_back(std::to_string(seq) + "/" + std::to_string(code));
    }
    std::vector<std::string> toBox;
    for (const auto& p : wire) {
        if (p.record.dir == Dir::ToBox) {
            toBox.push_back(std::to_string(p.record.Seq()) + "/" + std::to_string(p.record.Code()));
        }
    }
    EXPECT_FALSE(received.empty());
    EXPECT_EQ(toBox, received);

    // From the box: the frames the plug-in cut ("one obd data:"), one each, are those of the
    // line (which may carry more, sent after the plug-in stopped reading) and of its reads.
    std::vector<std::string> fromBox;
    for (const auto& p : wire) {
        if (p.record.dir == Dir::FromBox) fromBox.push_back(HexOf(p.record.raw));
    }
    const std::vector<std::string> cut = FramesHex(frames);
    size_t dumps = 0;
    for (size_t at = 0; (at = log.find("one obd data:", at)) != std::string::npos; ++at) ++dumps;
    EXPECT_EQ(cut.size(), dumps);
    EXPECT_EQ(frames.size(), dumps);  // nothing else in them
    ASSERT_GE(fromBox.size(), cut.size());
    EXPECT_EQ(std::vector<std::string>(fromBox.begin(), fromBox.begin() + cut.size()), cut);
    EXPECT_EQ(FramesHex(reads), cut);
}

TEST(FrameCapturedLog, GarbageAndEscapesFromAFaultyBoxAreToldApart) {
    const std::string log = ReadFile("serial-escape-garbage.log");
    ASSERT_FALSE(log.empty());
    const auto reads = Decode(log, Source::Auto);
    const auto frames = Decode(log, Source::Frame);
    ExpectAllFramesGood(reads);
    // The box put 5 random bytes before every frame: as many garbage runs as frames, each 5
    // bytes, the frames themselves the ones the plug-in cut, none invented and none cut off.
    size_t garbage = 0;
    size_t escaped = 0;
    for (const auto& p : reads) {
        EXPECT_NE(p.record.kind, Kind::Truncated);
        if (p.record.kind == Kind::Garbage) {
            EXPECT_EQ(p.record.raw.size(), 5u);
            ++garbage;
        }
        if (p.record.kind == Kind::Frame && p.record.escapePairs > 0) {
            EXPECT_TRUE(p.record.lengthCountsEscapes);
            ++escaped;
        }
    }
    const std::vector<std::string> cut = FramesHex(frames);
    EXPECT_EQ(FramesHex(reads), cut);
    EXPECT_EQ(garbage, cut.size());
    EXPECT_GT(escaped, 0u);
}

}  // namespace

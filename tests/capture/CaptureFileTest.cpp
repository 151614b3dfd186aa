// The capture library at its boundaries: what goes in comes out (every channel, empty and 64 KiB
// payloads, times past 2038), the bytes on disk are those the format documents, and a truncated
// or corrupt file gives an error naming the packet, never a crash.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "Capture.h"

namespace {

using obdcap::Channel;
using obdcap::Direction;
using obdcap::Packet;

std::string TempPath(const std::string& name) {
    return ::testing::TempDir() + "capture-" + std::to_string(::getpid()) + "-" + name;
}

std::vector<uint8_t> ReadBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void WriteBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
}

Packet Make(long long tUs, Channel c, Direction d, uint8_t flags, uint32_t id, size_t n) {
    Packet p;
    p.tUs = tUs;
    p.channel = c;
    p.direction = d;
    p.flags = flags;
    p.busId = id;
    p.payload.resize(n);
    for (size_t i = 0; i < n; ++i) p.payload[i] = static_cast<uint8_t>(i * 7 + 3);
    return p;
}

void WriteAll(const std::string& path, const std::vector<Packet>& packets) {
    obdcap::Writer w;
    std::string error;
    ASSERT_TRUE(w.Open(path, error)) << error;
    for (const Packet& p : packets) ASSERT_TRUE(w.Write(p));
    ASSERT_TRUE(w.Close(error)) << error;
}

// Reads to the end or the first error, which it returns.
std::string ReadAll(const std::string& path, std::vector<Packet>& out) {
    obdcap::Reader r;
    std::string error;
    if (!r.Open(path, error)) return error;
    Packet p;
    while (r.Next(p, error)) out.push_back(p);
    return error;
}

// 2040-01-01 and the last second a pcap record can hold (2106-02-07 06:28:15).
constexpr long long k2040Us = 2208988800LL * 1000000LL + 123456;

TEST(CaptureFile, RoundTripKeepsEveryFieldAtTheBoundaries) {
    const std::vector<Packet> packets = {
        Make(0, Channel::Frame, Direction::FromPlugin, 0, 0, 12),
        Make(1, Channel::Chunk, Direction::ToPlugin, 0, 0, 0),  // empty payload
        Make(999999, Channel::Garbage, Direction::ToPlugin, 0, 0, 1),
        Make(1000000, Channel::Bus, Direction::FromPlugin, obdcap::kFlagResponse, 6702, 472),
        Make(1000001, Channel::Bus, Direction::ToPlugin, 0, 0xFFFFFFFFu, 3),
        Make(2500000, Channel::Inertial, Direction::ToPlugin, 0, 0, 12),
        Make(3000000, Channel::Frame, Direction::ToPlugin, obdcap::kFlagCut, 0, 5),
        Make(k2040Us, Channel::Chunk, Direction::ToPlugin, 0, 0, 65536),  // 64 KiB
        Make(obdcap::kMaxTimeUs, Channel::Bus, Direction::ToPlugin, 0, 1071, 32),
    };
    const std::string path = TempPath("roundtrip.pcap");
    WriteAll(path, packets);
    std::vector<Packet> back;
    EXPECT_EQ(ReadAll(path, back), "");
    ASSERT_EQ(back.size(), packets.size());
    for (size_t i = 0; i < packets.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(back[i].tUs, packets[i].tUs);
        EXPECT_EQ(back[i].channel, packets[i].channel);
        EXPECT_EQ(back[i].direction, packets[i].direction);
        EXPECT_EQ(back[i].flags, packets[i].flags);
        EXPECT_EQ(back[i].busId, packets[i].busId);
        EXPECT_EQ(back[i].payload, packets[i].payload);
    }
    std::remove(path.c_str());
}

// The documented layout, read from the file's bytes without the library: anyone can parse it.
TEST(CaptureFile, BytesOnDiskAreTheDocumentedLayout) {
    const std::string path = TempPath("layout.pcap");
    WriteAll(path, {Make(2000003, Channel::Bus, Direction::FromPlugin, obdcap::kFlagResponse,
                         0x01020304, 2)});
    const std::vector<uint8_t> b = ReadBytes(path);
    ASSERT_EQ(b.size(), 24u + 16u + 8u + 2u);
    auto u32 = [&b](size_t at) {
        return static_cast<uint32_t>(b[at]) | static_cast<uint32_t>(b[at + 1]) << 8 |
               static_cast<uint32_t>(b[at + 2]) << 16 | static_cast<uint32_t>(b[at + 3]) << 24;
    };
    // The file header as libpcap writes it on a little-endian machine (x86, ARM).
    EXPECT_EQ(u32(0), 0xA1B2C3D4u);
    EXPECT_EQ(u32(16), obdcap::kSnapLen);
    EXPECT_EQ(u32(20), 147u);
    EXPECT_EQ(u32(24), 2u);  // seconds
    EXPECT_EQ(u32(28), 3u);  // microseconds
    EXPECT_EQ(u32(32), 10u);
    EXPECT_EQ(u32(36), 10u);
    const std::vector<uint8_t> header(b.begin() + 40, b.begin() + 48);
    EXPECT_EQ(header, (std::vector<uint8_t>{1, 4, 1, 1, 0x04, 0x03, 0x02, 0x01}));
    std::remove(path.c_str());
}

TEST(CaptureFile, WriterRefusesWhatTheFormatCannotHold) {
    const std::string path = TempPath("refused.pcap");
    obdcap::Writer w;
    std::string error;
    ASSERT_TRUE(w.Open(path, error)) << error;
    EXPECT_FALSE(w.Write(Make(-1, Channel::Frame, Direction::ToPlugin, 0, 0, 1)));
    EXPECT_FALSE(
        w.Write(Make(obdcap::kMaxTimeUs + 1, Channel::Frame, Direction::ToPlugin, 0, 0, 1)));
    EXPECT_FALSE(
        w.Write(Make(5, Channel::Chunk, Direction::ToPlugin, 0, 0, obdcap::kMaxPayload + 1)));
    EXPECT_TRUE(w.Write(Make(5, Channel::Chunk, Direction::ToPlugin, 0, 0, obdcap::kMaxPayload)));
    EXPECT_FALSE(w.Close(error));
    EXPECT_NE(error.find("3 packet(s) left out"), std::string::npos) << error;
    std::vector<Packet> back;
    EXPECT_EQ(ReadAll(path, back), "");
    ASSERT_EQ(back.size(), 1u);
    EXPECT_EQ(back[0].payload.size(), obdcap::kMaxPayload);
    std::remove(path.c_str());
}

TEST(CaptureFile, OpenFailsOnAPathThatCannotBeWritten) {
    obdcap::Writer w;
    std::string error;
    EXPECT_FALSE(w.Open("/nonexistent-dir/x.pcap", error));
    EXPECT_NE(error.find("/nonexistent-dir/x.pcap"), std::string::npos) << error;
    EXPECT_FALSE(w.Write(Make(0, Channel::Frame, Direction::ToPlugin, 0, 0, 1)));
}

// A good three-packet file, then damaged: each case names where the damage is.
TEST(CaptureFile, DamagedFilesGiveANamedError) {
    const std::string good = TempPath("good.pcap");
    WriteAll(good, {Make(10, Channel::Frame, Direction::FromPlugin, 0, 0, 12),
                    Make(20, Channel::Frame, Direction::ToPlugin, 0, 0, 20),
                    Make(30, Channel::Bus, Direction::FromPlugin, 0, 6702, 40)});
    const std::vector<uint8_t> bytes = ReadBytes(good);
    // Packet records start at 24, 24+16+20=60, 60+16+28=104; the file ends at 104+16+48=168.
    ASSERT_EQ(bytes.size(), 168u);
    struct Case {
        const char* name;
        std::vector<uint8_t> bytes;
        size_t packetsBefore;  // read before the error
        std::vector<std::string> wanted;
    };
    auto cut = [&bytes](size_t n) {
        return std::vector<uint8_t>(bytes.begin(), bytes.begin() + static_cast<long>(n));
    };
    auto patched = [&bytes](size_t at, uint8_t v) {
        std::vector<uint8_t> b = bytes;
        b[at] = v;
        return b;
    };
    const std::vector<Case> cases = {
        {"file header cut", cut(10), 0, {"not a readable capture"}},
        {"empty file", {}, 0, {"not a readable capture"}},
        {"mid packet header", cut(60 + 9), 1, {"packet 2 (byte 60)", "truncated"}},
        {"mid pseudo-header", cut(60 + 16 + 3), 1, {"packet 2 (byte 60)", "truncated"}},
        {"mid payload of the last", cut(167), 2, {"packet 3 (byte 104)", "truncated"}},
        {"bad magic", patched(0, 0x00), 0, {"not a readable capture"}},
        {"wrong link type", patched(20, 1), 0, {"link type 1", "not an OBD capture"}},
        {"pseudo-header version 2", patched(104 + 16, 2), 2, {"packet 3 (byte 104)", "version 2"}},
        {"channel 9", patched(60 + 16 + 1, 9), 1, {"packet 2 (byte 60)", "unknown channel 9"}},
        {"direction 2", patched(24 + 16 + 2, 2), 0, {"packet 1 (byte 24)", "unknown direction 2"}},
        {"flag bit 7", patched(24 + 16 + 3, 0x80), 0, {"packet 1 (byte 24)", "flag"}},
        {"caplen shorter than the pseudo-header",
         [&] {
             std::vector<uint8_t> b = cut(24 + 16 + 4);
             b[24 + 8] = b[24 + 12] = 4;  // caplen = len = 4
             return b;
         }(),
         0,
         {"packet 1 (byte 24)", "shorter than its pseudo-header"}},
        {"caplen below len",
         patched(24 + 12, 21),
         0,
         {"packet 1 (byte 24)", "cut at the snap length"}},
        {"caplen beyond any snap length",
         [&] {
             std::vector<uint8_t> b = bytes;
             b[24 + 8 + 3] = b[24 + 12 + 3] = 0x7F;
             return b;
         }(),
         0,
         {"packet 1 (byte 24)"}},
    };
    const std::string path = TempPath("damaged.pcap");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        WriteBytes(path, c.bytes);
        std::vector<Packet> back;
        const std::string error = ReadAll(path, back);
        EXPECT_EQ(back.size(), c.packetsBefore);
        for (const std::string& w : c.wanted) EXPECT_NE(error.find(w), std::string::npos) << error;
        // Once failed, it stays failed with the same error.
        obdcap::Reader r;
        std::string e1, e2;
        Packet p;
        if (r.Open(path, e1)) {
            while (r.Next(p, e1)) {
            }
            EXPECT_FALSE(r.Next(p, e2));
            EXPECT_EQ(e1, e2);
        }
    }
    std::remove(path.c_str());
    std::remove(good.c_str());
}

TEST(CaptureFile, MagicDetection) {
    struct Case {
        std::vector<uint8_t> head;
        bool pcap;
    };
    const std::vector<Case> cases = {
        {{0xD4, 0xC3, 0xB2, 0xA1}, true},   // little-endian, microseconds
        {{0xA1, 0xB2, 0xC3, 0xD4}, true},   // big-endian
        {{0x4D, 0x3C, 0xB2, 0xA1}, true},   // nanoseconds
        {{0x0A, 0x0D, 0x0D, 0x0A}, false},  // pcapng: not what the tools write
        {{0x55, 0xAA, 0xF0, 0xF8}, false},  // a frame
        {{0xD4, 0xC3, 0xB2}, false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(obdcap::LooksLikePcap(c.head.data(), c.head.size()), c.pcap);
    }
}

}  // namespace

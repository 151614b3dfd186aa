// The box emulator's firmware upgrade and line pacing, from the plug-in's end of its line.
#include "BoxTestSupport.h"

namespace {

using namespace boxtest;

class BoxUpgradeTest : public BoxLineTest {
  protected:
    // Sends a request and returns the answer's status byte, or -1 when none came within `ms`.
    int Step(uint16_t code, const ByteVec& payload = {}, int ms = kAnswerMs) {
        Write(Request(code, payload));
        const ByteVec a = Read(11, ms);
        if (a.size() != 11) return -1;
        EXPECT_EQ((a[7] << 8) | a[8], code + 0x4000);
        return a[9];
    }
    static ByteVec Text(const std::string& s) { return ByteVec(s.begin(), s.end()); }
    static ByteVec Name(uint32_t size) {
        ByteVec p = {0x00, 0x0D};
        for (char c : std::string("DOWNLOAD.BIN")) p.push_back(static_cast<uint8_t>(c));
        p.insert(p.end(), {0x00, static_cast<uint8_t>(size >> 24), static_cast<uint8_t>(size >> 16),
                           static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size)});
        return p;
    }
    static ByteVec Chunk(uint32_t offset, const std::string& bytes) {
        ByteVec p = {static_cast<uint8_t>(offset >> 24),      static_cast<uint8_t>(offset >> 16),
                     static_cast<uint8_t>(offset >> 8),       static_cast<uint8_t>(offset),
                     static_cast<uint8_t>(bytes.size() >> 8), static_cast<uint8_t>(bytes.size())};
        for (char c : bytes) p.push_back(static_cast<uint8_t>(c));
        return p;
    }
};

// The digest of "abc" from RFC 1321's test suite.
const char kAbcMd5[] = "900150983cd24fb0d6963f7d28e17f72";

TEST_F(BoxUpgradeTest, KeepsTheFileChecksSizeAndDigestAndReportsTheNewVersion) {
    StartBox({});
    struct S {
        uint16_t code;
        ByteVec payload;
        int status;
    };
    const std::vector<S> steps = {
        {0x2111, {}, 2},  // nothing received yet
        {0x2407, {}, 4},
        {0x2402, Name(3), 4},
        {0x2403, Chunk(1, "abc"), 2},  // beyond the size given
        {0x2403, Chunk(0, "ab"), 4},
        {0x2404, Text(kAbcMd5), 2},  // a byte missing
        {0x2403, Chunk(2, "c"), 4},
        {0x2404, Text("900150983cd24fb0d6963f7d28e17f73"), 2},
        {0x2404, Text(kAbcMd5), 4},
        {0x2111, {}, 4},
    };
    for (size_t i = 0; i < steps.size(); ++i)
        EXPECT_EQ(Step(steps[i].code, steps[i].payload), steps[i].status) << "step " << i;
    const obdbox::BoxUpgrade u = m_box->Upgrade();
    EXPECT_EQ(u.name, "DOWNLOAD.BIN");
    EXPECT_EQ(u.size, 3u);
    EXPECT_EQ(u.image, Text("abc"));
    EXPECT_EQ(u.chunks, 3);
    EXPECT_TRUE(u.md5Ok && u.installed);
    // The software version now names the new firmware (its last text).
    Write(Request(0x2105, {}, 2));
    const ByteVec a = Read(10 + 3 * 2 + 7 + 5 + 7);
    ASSERT_EQ(a.size(), 35u);
    EXPECT_EQ(ByteVec(a.end() - 8, a.end() - 1), Text("DIAG2.0"));
}

TEST_F(BoxUpgradeTest, RefusesAStepDropsChunkAnswersAndFallsSilent) {
    BoxOptions o;
    o.upgradeRefuseStep = 0x2407;
    o.upgradeDropEveryNthChunk = 2;
    o.upgradeSilentAfterChunks = 3;
    StartBox(o);
    EXPECT_EQ(Step(0x2407), 2);
    EXPECT_EQ(Step(0x2402, Name(1024)), 4);
    EXPECT_EQ(Step(0x2403, Chunk(0, "x")), 4);
    EXPECT_EQ(Step(0x2403, Chunk(1, "y"), 150), -1);  // the second answer is dropped
    EXPECT_EQ(Step(0x2403, Chunk(2, "z")), 4);
    EXPECT_EQ(Step(0x2403, Chunk(3, "w"), 150), -1);  // the fourth: silent from now on
    EXPECT_EQ(Step(0x2407, {}, 150), -1);
    EXPECT_EQ(m_box->Upgrade().image, Text("xyzw"));  // dropped answers, kept chunks
    m_box->Update([](BoxOptions& opt) { opt.silent = false; });
    EXPECT_EQ(Step(0x2402, Name(1024)), 4);
}

// At 11520 bytes/s four 272-byte chunk frames written at once reach the box one after the other,
// and the four 11-byte answers follow at their own pace.
TEST_F(BoxUpgradeTest, PacedLineDeliversAtItsByteRate) {
    BoxOptions o;
    o.lineBytesPerSec = 11520;
    StartBox(o);
    ByteVec burst;
    for (uint32_t k = 0; k < 4; ++k) {
        const ByteVec f = Request(0x2403, Chunk(256 * k, std::string(256, 'q')));
        burst.insert(burst.end(), f.begin(), f.end());
    }
    const auto t0 = std::chrono::steady_clock::now();
    Write(burst);
    ASSERT_EQ(Read(44).size(), 44u);
    const double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_GE(ms, (4 * 272 + 11) * 1000.0 / 11520);  // the last answer after the last chunk
    // Each frame is taken in at its own time, not with the whole burst, which would give the four
    // one time: the last comes three frames' time after the first, less what a late stamp of the
    // first (the box's thread waking late on a busy machine) eats into that.
    const auto rx = m_box->Received();
    ASSERT_EQ(rx.size(), 4u);
    EXPECT_GE(rx[3].tMs - rx[0].tMs, 272 * 1000.0 / 11520);
}

}  // namespace

// The box emulator on its own pseudo-terminal: what it answers, byte for byte, what it records,
// and each of its fault options, seen from the plug-in's end of the line.
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>

#include <gtest/gtest.h>

#include "BoxEmulator.h"

namespace {

using obdbox::BoxEmulator;
using obdbox::BoxOptions;
using obdbox::ByteVec;

// The plug-in's end of the line: raw, read with a deadline.
class Line {
  public:
    explicit Line(const std::string& path) : m_fd(open(path.c_str(), O_RDWR | O_NOCTTY)) {
        termios t{};
        tcgetattr(m_fd, &t);
        cfmakeraw(&t);
        tcsetattr(m_fd, TCSANOW, &t);
    }
    ~Line() {
        if (m_fd >= 0) close(m_fd);
    }
    bool ok() const { return m_fd >= 0; }
    void Write(const ByteVec& b) { ASSERT_EQ(write(m_fd, b.data(), b.size()), (ssize_t)b.size()); }
    // Reads until `want` bytes arrived or `ms` passed; also counts the separate reads.
    ByteVec Read(size_t want, int ms, int* reads = nullptr) {
        ByteVec out;
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        while (out.size() < want && std::chrono::steady_clock::now() < end) {
            pollfd p{m_fd, POLLIN, 0};
            if (poll(&p, 1, 5) <= 0) continue;
            uint8_t buf[512];
            const ssize_t n = read(m_fd, buf, std::min(sizeof(buf), want - out.size()));
            if (n > 0) {
                out.insert(out.end(), buf, buf + n);
                if (reads) ++*reads;
            }
        }
        return out;
    }

  private:
    int m_fd;
};

// A request as the plug-in frames it (F0 F8).
ByteVec Request(uint16_t code, const ByteVec& payload = {}, uint8_t seq = 1) {
    const size_t l = payload.size() + 3;
    ByteVec f = {0x55,
                 0xAA,
                 0xF0,
                 0xF8,
                 static_cast<uint8_t>(l >> 8),
                 static_cast<uint8_t>(l),
                 seq,
                 static_cast<uint8_t>(code >> 8),
                 static_cast<uint8_t>(code)};
    f.insert(f.end(), payload.begin(), payload.end());
    uint8_t x = 0;
    for (size_t i = 2; i < f.size(); ++i) x ^= f[i];
    f.push_back(x);
    return f;
}

class BoxEmulatorTest : public ::testing::Test {
  protected:
    void StartBox(BoxOptions o = {}) {
        m_box = std::make_unique<BoxEmulator>(o);
        ASSERT_TRUE(m_box->Start()) << m_box->LastError();
        m_line = std::make_unique<Line>(m_box->SlavePath());
        ASSERT_TRUE(m_line->ok());
    }
    void TearDown() override {
        m_line.reset();
        if (m_box) m_box->Stop();
    }
    std::unique_ptr<BoxEmulator> m_box;
    std::unique_ptr<Line> m_line;
};

TEST_F(BoxEmulatorTest, AnswersEngineReadWithTheExactFrameAndRecordsTheRequest) {
    BoxOptions o;
    o.engineId = 0x1234;
    StartBox(o);
    const ByteVec req = Request(0x2C12, {}, 0x07);
    m_line->Write(req);
    // 55 AA F8 F0 00 05 07 6C 12 12 34, XOR(F8..34) = 0x52.
    const ByteVec expected = {0x55, 0xAA, 0xF8, 0xF0, 0x00, 0x05,
                              0x07, 0x6C, 0x12, 0x12, 0x34, 0x52};
    EXPECT_EQ(m_line->Read(expected.size(), 1000), expected);
    ASSERT_TRUE(m_box->WaitForFrames(1, 1000));
    const auto rx = m_box->Received();
    EXPECT_EQ(rx[0].raw, req);
    EXPECT_EQ(rx[0].seq, 0x07);
    EXPECT_EQ(rx[0].code, 0x2C12);
    EXPECT_TRUE(rx[0].checksumOk);
    EXPECT_TRUE(rx[0].payload.empty());
}

TEST_F(BoxEmulatorTest, AnswersEveryRequestWithItsAnswerCode) {
    StartBox();
    const std::vector<std::pair<uint16_t, uint16_t>> pairs = {
        {0x2103, 0x6103}, {0x2105, 0x6105}, {0x2C22, 0x6C22}, {0x2C42, 0x6C42}, {0x2CF1, 0x6CF1},
        {0x2C01, 0x6C01}, {0x2C04, 0x6C04}, {0x2C10, 0x2C10}, {0x2407, 0x6407}, {0x2111, 0x6111}};
    for (const auto& p : pairs) {
        m_line->Write(Request(p.first, {}, 9));
        const ByteVec head = m_line->Read(9, 1000);
        ASSERT_EQ(head.size(), 9u) << std::hex << p.first;
        const size_t l = (head[4] << 8) | head[5];
        m_line->Read(l - 2, 1000);
        EXPECT_EQ((head[7] << 8) | head[8], p.second) << std::hex << p.first;
        EXPECT_EQ(head[6], 9);
    }
    // Restart and jump are not answered.
    m_line->Write(Request(0x2506));
    m_line->Write(Request(0x2114));
    EXPECT_TRUE(m_line->Read(1, 100).empty());
}

TEST_F(BoxEmulatorTest, ConfigureRequestsChangeWhatIsReadBack) {
    StartBox();
    m_line->Write(Request(0x2C23, {0x01, 0x03, 0x00, 0x00, 0x0B, 0xB8}));
    m_line->Read(10, 1000);
    m_line->Write(Request(0x2C22));
    // 01 03 00 00 0B B8
    const ByteVec a = m_line->Read(16, 1000);
    ASSERT_EQ(a.size(), 16u);
    EXPECT_EQ(ByteVec(a.begin() + 9, a.end() - 1), (ByteVec{0x01, 0x03, 0x00, 0x00, 0x0B, 0xB8}));
    m_line->Write(Request(0x2C03, {0xAB, 0xCD, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(m_line->Read(11, 1000)[9], 0x00);  // status: success
    m_line->Write(Request(0x2C12));
    const ByteVec e = m_line->Read(12, 1000);
    ASSERT_EQ(e.size(), 12u);
    EXPECT_EQ(e[9], 0xAB);
    EXPECT_EQ(e[10], 0xCD);
}

TEST_F(BoxEmulatorTest, RefuseAndSilentAndDrop) {
    BoxOptions o;
    o.refuse = true;
    StartBox(o);
    m_line->Write(Request(0x2407));
    EXPECT_EQ(m_line->Read(11, 1000)[9], 0x02);
    m_line->Write(Request(0x2C03, ByteVec(10, 0)));
    EXPECT_EQ(m_line->Read(11, 1000)[9], 0x01);

    m_box->Update([](BoxOptions& opt) {
        opt.refuse = false;
        opt.dropEveryNth = 2;
    });
    for (int i = 0; i < 4; ++i) m_line->Write(Request(0x2C01, {}, static_cast<uint8_t>(i)));
    const ByteVec got = m_line->Read(40, 300);
    ASSERT_EQ(got.size(), 20u);  // answers 1 and 3 of the four (counting from the two above)
    EXPECT_EQ(got[6], 0);
    EXPECT_EQ(got[16], 2);

    m_box->Update([](BoxOptions& opt) { opt.silent = true; });
    m_line->Write(Request(0x2C12));
    EXPECT_TRUE(m_line->Read(1, 150).empty());
    ASSERT_TRUE(m_box->WaitForFrames(7, 1000));  // everything was still recorded
}

TEST_F(BoxEmulatorTest, EscapesBytesAndKeepsLengthUnescapedByDefault) {
    const ByteVec f =
        BoxEmulator::EncodeFrame(0x2C81, {0x01, 0x7E, 0x7D, 0x7F, 0x00}, 0x7E, true, false, false);
    // L counts 8 bytes; the sequence number 7E is escaped too.
    const ByteVec expected = {0x55, 0xAA, 0xF8, 0xF0, 0x00, 0x08, 0x7D, 0x01, 0x2C,
                              0x81, 0x01, 0x7D, 0x01, 0x7D, 0x03, 0x7D, 0x02, 0x00};
    ASSERT_EQ(f.size(), expected.size() + 1);
    EXPECT_EQ(ByteVec(f.begin(), f.end() - 1), expected);
    EXPECT_EQ(f.back(), 0xF8 ^ 0xF0 ^ 0x08 ^ 0x7E ^ 0x2C ^ 0x81 ^ 0x01 ^ 0x7E ^ 0x7D ^ 0x7F);
    const ByteVec counted = BoxEmulator::EncodeFrame(0x2C81, {0x7E}, 1, true, true, false);
    EXPECT_EQ(counted[5], 5);  // 4 + one pair
    const ByteVec bad = BoxEmulator::EncodeFrame(0x2C10, {}, 1, false, false, true);
    EXPECT_EQ(bad.back(), (0xF8 ^ 0xF0 ^ 0x03 ^ 0x01 ^ 0x2C ^ 0x10) ^ 0xA5);
}

TEST_F(BoxEmulatorTest, StreamsOnlyWhileStartedAndSendsLinkFrames) {
    BoxOptions o;
    o.streamPeriodMs = 20;
    o.values = [] { return obdbox::DataItems{{5, 2.0f}}; };
    StartBox(o);
    EXPECT_TRUE(m_line->Read(1, 100).empty());
    m_line->Write(Request(0x2C01));
    const ByteVec got = m_line->Read(10 + 3 * 15, 1000);
    ASSERT_EQ(got.size(), 55u);
    EXPECT_EQ(ByteVec(got.begin() + 10 + 7, got.begin() + 10 + 14),
              (ByteVec{0x2C, 0x81, 0x05, 0x00, 0x00, 0x00, 0x40}));
    m_line->Write(Request(0x2C04));
    m_line->Read(1000, 100);  // the stop's answer and what was under way
    EXPECT_TRUE(m_line->Read(1, 100).empty());
    EXPECT_FALSE(m_box->Streaming());

    m_box->Update([](BoxOptions& opt) { opt.linkPeriodMs = 20; });
    const ByteVec link = m_line->Read(20, 1000);
    ASSERT_EQ(link.size(), 20u);
    EXPECT_EQ(link[7], 0x2C);
    EXPECT_EQ(link[8], 0x10);
}

TEST_F(BoxEmulatorTest, GarbageAndSplitFramesStillCarryTheFrame) {
    BoxOptions o;
    o.garbageBytes = 7;
    o.splitMaxChunk = 3;
    o.splitGapUs = 2000;
    o.engineId = 0x0A0B;
    StartBox(o);
    m_line->Write(Request(0x2C12, {}, 3));
    int reads = 0;
    const ByteVec got = m_line->Read(7 + 12, 1000, &reads);
    ASSERT_EQ(got.size(), 19u);
    const ByteVec frame(got.begin() + 7, got.end());
    EXPECT_EQ(frame, BoxEmulator::EncodeFrame(0x6C12, {0x0A, 0x0B}, 3, false, false, false));
    EXPECT_GE(reads, 4);  // 12 bytes in chunks of at most 3
    // The garbage never holds a whole head.
    for (size_t i = 0; i + 4 <= 7; ++i) {
        EXPECT_FALSE(got[i] == 0x55 && got[i + 1] == 0xAA && got[i + 2] == 0xF8 &&
                     got[i + 3] == 0xF0);
    }
}

TEST_F(BoxEmulatorTest, RecordsFramesThatArriveInPiecesAndAfterNoise) {
    StartBox();
    const ByteVec a = Request(0x2C04, {}, 0x10);
    const ByteVec b = Request(0x2C01, {0xFF, 0, 0, 0, 0}, 0x11);
    m_line->Write({0x00, 0x55, 0xAA, 0x13});
    m_line->Write(ByteVec(a.begin(), a.begin() + 3));
    usleep(5000);
    ByteVec rest(a.begin() + 3, a.end());
    rest.insert(rest.end(), b.begin(), b.end());
    m_line->Write(rest);
    ASSERT_TRUE(m_box->WaitForFrames(2, 1000));
    const auto rx = m_box->Received();
    EXPECT_EQ(rx[0].raw, a);
    EXPECT_EQ(rx[1].raw, b);
    EXPECT_EQ(rx[1].payload, (ByteVec{0xFF, 0, 0, 0, 0}));
    EXPECT_LE(rx[0].tMs, rx[1].tMs);
    EXPECT_NE(BoxEmulator::Describe(rx[1]).find("code 2C01"), std::string::npos);
}

TEST(BoxEmulatorStart, MissingTtyIsReported) {
    BoxOptions o;
    o.ttyPath = "/nonexistent/tty";
    BoxEmulator box(o);
    EXPECT_FALSE(box.Start());
    EXPECT_NE(box.LastError().find("/nonexistent/tty"), std::string::npos);
}

}  // namespace

// The box emulator on its own pseudo-terminal: what it answers, byte for byte, what it records,
// and each of its fault options, seen from the plug-in's end of the line.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <tuple>

#include "BoxTestSupport.h"

namespace {

using namespace boxtest;
using BoxEmulatorTest = BoxLineTest;

TEST_F(BoxEmulatorTest, AnswersEveryRequestWithItsAnswerCodeAndRecordsIt) {
    BoxOptions o;
    o.engineId = 0x1234;
    StartBox(o);
    const ByteVec req = Request(0x2C12, {}, 0x07);
    Write(req);
    // 55 AA F8 F0 00 05 07 6C 12 12 34, XOR(F8..34) = 0x52.
    EXPECT_EQ(Read(12),
              (ByteVec{0x55, 0xAA, 0xF8, 0xF0, 0x00, 0x05, 0x07, 0x6C, 0x12, 0x12, 0x34, 0x52}));
    ASSERT_TRUE(m_box->WaitForFrames(1, kAnswerMs));
    const auto rx = m_box->Received();
    EXPECT_EQ(rx[0].raw, req);
    EXPECT_EQ(rx[0].seq, 0x07);
    EXPECT_EQ(rx[0].code, 0x2C12);
    EXPECT_TRUE(rx[0].checksumOk);
    EXPECT_NE(BoxEmulator::Describe(rx[0]).find("code 2C12"), std::string::npos);
    const std::pair<uint16_t, uint16_t> answers[] = {
        {0x2103, 0x6103}, {0x2105, 0x6105}, {0x2C22, 0x6C22}, {0x2C42, 0x6C42}, {0x2CF1, 0x6CF1},
        {0x2C01, 0x6C01}, {0x2C04, 0x6C04}, {0x2C10, 0x2C10}, {0x2407, 0x6407}, {0x2111, 0x6111}};
    for (const auto& [request, answer] : answers) {
        Write(Request(request, {}, 9));
        const ByteVec head = Read(9);
        ASSERT_EQ(head.size(), 9u) << std::hex << request;
        Read(static_cast<size_t>((head[4] << 8) | head[5]) - 2);
        EXPECT_EQ((head[7] << 8) | head[8], answer) << std::hex << request;
        EXPECT_EQ(head[6], 9);
    }
    // Restart and jump are not answered.
    Write(Request(0x2506));
    Write(Request(0x2114));
    EXPECT_TRUE(Read(1, 100).empty());
}

TEST_F(BoxEmulatorTest, ConfigureRequestsChangeWhatIsReadBack) {
    StartBox();
    Write(Request(0x2C23, {0x01, 0x03, 0x00, 0x00, 0x0B, 0xB8}));
    Read(10);
    Write(Request(0x2C22));
    const ByteVec a = Read(16);
    ASSERT_EQ(a.size(), 16u);
    EXPECT_EQ(ByteVec(a.begin() + 9, a.end() - 1), (ByteVec{0x01, 0x03, 0x00, 0x00, 0x0B, 0xB8}));
    Write(Request(0x2C03, {0xAB, 0xCD, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(Read(11)[9], 0x00);  // status: success
    Write(Request(0x2C12));
    EXPECT_EQ(Read(12), BoxEmulator::EncodeFrame(0x6C12, {0xAB, 0xCD}, 1, false, false, false));
}

TEST_F(BoxEmulatorTest, RefuseDropSilentAndUnanswered) {
    BoxOptions o;
    o.refuse = true;
    StartBox(o);
    Write(Request(0x2407));
    EXPECT_EQ(Read(11)[9], 0x02);
    Write(Request(0x2C03, ByteVec(10, 0)));
    EXPECT_EQ(Read(11)[9], 0x01);
    m_box->Update([](BoxOptions& opt) {
        opt.refuse = false;
        opt.dropEveryNth = 2;
    });
    for (int i = 0; i < 4; ++i) Write(Request(0x2C01, {}, static_cast<uint8_t>(i)));
    const ByteVec got = Read(20);
    ASSERT_EQ(got.size(), 20u);  // answers 1 and 3 of the four (counting from the two above)
    EXPECT_EQ(got[6], 0);
    EXPECT_EQ(got[16], 2);
    EXPECT_TRUE(Read(1, 150).empty());  // nor the fourth
    m_box->Update([](BoxOptions& opt) {
        opt.dropEveryNth = 0;
        opt.unanswered = {0x2C12};
    });
    Write(Request(0x2C12));
    EXPECT_TRUE(Read(1, 150).empty());
    m_box->Update([](BoxOptions& opt) { opt.silent = true; });
    Write(Request(0x2C01));
    EXPECT_TRUE(Read(1, 150).empty());
    ASSERT_TRUE(m_box->WaitForFrames(8, kAnswerMs));  // everything was still recorded
}

TEST_F(BoxEmulatorTest, EscapesBytesAndCountsPairsInLengthOnlyWhenAsked) {
    const ByteVec f =
        BoxEmulator::EncodeFrame(0x2C81, {0x01, 0x7E, 0x7D, 0x7F, 0x00}, 0x7E, true, false, false);
    // L counts 8 bytes; the sequence number 7E is escaped too.
    EXPECT_EQ(f, (ByteVec{0x55, 0xAA, 0xF8, 0xF0, 0x00, 0x08, 0x7D, 0x01, 0x2C, 0x81, 0x01, 0x7D,
                          0x01, 0x7D, 0x03, 0x7D, 0x02, 0x00,
                          0xF8 ^ 0xF0 ^ 0x08 ^ 0x7E ^ 0x2C ^ 0x81 ^ 0x01 ^ 0x7E ^ 0x7D ^ 0x7F}));
    // Counted in L: every pair from the sequence number on; L's own pair (a low byte of 7D to 7F)
    // never. {payload, sequence number, counted, L's raw bytes, frame's raw bytes}.
    const std::vector<std::tuple<ByteVec, uint8_t, bool, ByteVec, size_t>> rows = {
        {{0x7E}, 1, true, {0x00, 0x05}, 12},
        {{0x7E}, 0x7E, true, {0x00, 0x06}, 13},
        {ByteVec(123, 0), 1, false, {0x00, 0x7D, 0x01}, 134},
        {ByteVec(121, 0), 0x7F, true, {0x00, 0x7D, 0x03}, 133},
    };
    for (const auto& [payload, seq, counted, length, size] : rows) {
        const ByteVec g = BoxEmulator::EncodeFrame(0x2C81, payload, seq, true, counted, false);
        EXPECT_EQ(ByteVec(g.begin() + 4, g.begin() + 4 + static_cast<long>(length.size())), length);
        EXPECT_EQ(g.size(), size);
    }
    const ByteVec bad = BoxEmulator::EncodeFrame(0x2C10, {}, 1, false, false, true);
    EXPECT_EQ(bad.back(), (0xF8 ^ 0xF0 ^ 0x03 ^ 0x01 ^ 0x2C ^ 0x10) ^ 0xA5);
}

TEST_F(BoxEmulatorTest, StreamsOnlyWhileStartedAndSendsLinkFrames) {
    BoxOptions o;
    o.streamPeriodMs = 20;
    o.stopAckAlt = true;
    // No value known at first: no frame until there is one.
    o.values = [n = std::make_shared<std::atomic<int>>(0)] {
        return ++*n <= 2 ? obdbox::DataItems{} : obdbox::DataItems{{5, 2.0f}};
    };
    StartBox(o);
    EXPECT_TRUE(Read(1, 100).empty());
    Write(Request(0x2C01));
    const ByteVec got = Read(10 + 3 * 15);
    ASSERT_EQ(got.size(), 55u);
    EXPECT_EQ(ByteVec(got.begin() + 10 + 7, got.begin() + 10 + 14),
              (ByteVec{0x2C, 0x81, 0x05, 0x00, 0x00, 0x00, 0x40}));
    Write(Request(0x2C04));
    // What was under way, then the stop's answer (its code and checksum), acknowledged with the
    // other code; nothing after it.
    const ByteVec alt = {0x23, 0x01};
    const ByteVec stop = ReadUntil([&alt](const ByteVec& b) {
        const auto at = std::search(b.begin(), b.end(), alt.begin(), alt.end());
        return at != b.end() && b.end() - at == 3;
    });
    EXPECT_NE(std::search(stop.begin(), stop.end(), alt.begin(), alt.end()), stop.end());
    EXPECT_TRUE(Read(1, 100).empty());
    EXPECT_FALSE(m_box->Streaming());
    m_box->Update([](BoxOptions& opt) { opt.linkPeriodMs = 20; });
    const ByteVec link = Read(20);
    ASSERT_EQ(link.size(), 20u);
    EXPECT_EQ(ByteVec(link.begin() + 7, link.begin() + 9), (ByteVec{0x2C, 0x10}));
}

TEST_F(BoxEmulatorTest, GarbageAndSplitFramesStillCarryTheFrame) {
    BoxOptions o;
    o.garbageBytes = 7;
    o.splitMaxChunk = 3;
    o.splitGapUs = 2000;
    o.engineId = 0x0A0B;
    o.clock = WritesReadOneByOne();  // chunks that a late reader would see as one
    StartBox(o);
    Write(Request(0x2C12, {}, 3));
    int reads = 0;
    const ByteVec got = Read(7 + 12, kAnswerMs, &reads);
    ASSERT_EQ(got.size(), 19u);
    EXPECT_EQ(ByteVec(got.begin() + 7, got.end()),
              BoxEmulator::EncodeFrame(0x6C12, {0x0A, 0x0B}, 3, false, false, false));
    EXPECT_GE(reads, 4);                            // 12 bytes in chunks of at most 3
    const ByteVec head = {0x55, 0xAA, 0xF8, 0xF0};  // the garbage never holds a whole head
    EXPECT_EQ(std::search(got.begin(), got.end(), head.begin(), head.end()), got.begin() + 7);
}

TEST_F(BoxEmulatorTest, RecordsFramesThatArriveInPiecesAndAfterNoise) {
    StartBox();
    const ByteVec a = Request(0x2C04, {}, 0x10);
    const ByteVec b = Request(0x2C01, {0xFF, 0, 0, 0, 0}, 0x11);
    Write({0x00, 0x55, 0xAA, 0x13});
    Write(ByteVec(a.begin(), a.begin() + 3));
    usleep(5000);
    ByteVec rest(a.begin() + 3, a.end());
    rest.insert(rest.end(), b.begin(), b.end());
    Write(rest);
    ASSERT_TRUE(m_box->WaitForFrames(2, kAnswerMs));
    const auto rx = m_box->Received();
    EXPECT_EQ(rx[0].raw, a);
    EXPECT_EQ(rx[1].raw, b);
    EXPECT_EQ(rx[1].payload, (ByteVec{0xFF, 0, 0, 0, 0}));
    EXPECT_LE(rx[0].tMs, rx[1].tMs);
}

TEST_F(BoxEmulatorTest, KeepsTheLastFramesAndCountsAllPerCode) {
    BoxOptions o;
    o.receivedKept = 3;
    o.silent = true;
    StartBox(o);
    ByteVec all;
    for (uint8_t seq = 1; seq <= 5; ++seq) {
        const ByteVec r = Request(seq % 2 ? 0x2C04 : 0x2C01, {}, seq);
        all.insert(all.end(), r.begin(), r.end());
    }
    Write(all);
    ASSERT_TRUE(m_box->WaitForFrames(5, kAnswerMs));
    const auto rx = m_box->Received();
    ASSERT_EQ(rx.size(), 3u);
    EXPECT_EQ(std::vector<int>({rx[0].seq, rx[1].seq, rx[2].seq}), std::vector<int>({3, 4, 5}));
    EXPECT_EQ(std::vector<uint64_t>({m_box->ReceivedTotal(), m_box->ReceivedCount(0x2C04),
                                     m_box->ReceivedCount(0x2C01), m_box->ReceivedCount(0x2103)}),
              std::vector<uint64_t>({5, 3, 2, 0}));
    m_box->ClearReceived();
    EXPECT_TRUE(m_box->Received().empty());
    EXPECT_EQ(m_box->ReceivedTotal(), 0u);
}

// An embedding simulator's clock drives the periods; the box reports every byte it moves.
TEST_F(BoxEmulatorTest, PeriodsRunOnTheGivenClockAndEveryByteIsReported) {
    std::atomic<double> now{5000};
    std::atomic<size_t> in{0}, out{0};
    std::atomic<bool> stopping{false};
    BoxOptions o;
    o.streamPeriodMs = 1000;
    o.values = [] { return obdbox::DataItems{{5, 2.0f}}; };
    o.clock.nowMs = [&now] { return now.load(); };
    o.clock.wait = [&now](int fd, double until) {
        pollfd p{fd, POLLIN, 0};
        poll(&p, 1, 2);
        return (p.revents & POLLIN) != 0 || (until >= 0 && now.load() >= until);
    };
    o.clock.moved = [&](bool toBox, size_t n) { (toBox ? in : out) += n; };
    o.clock.stopping = [&stopping] { stopping = true; };
    StartBox(o);
    Write(Request(0x2C01));
    EXPECT_EQ(Read(10 + 15).size(), 25u);  // the answer and the first frame at once
    EXPECT_TRUE(Read(1, 100).empty());     // real time passes, the given clock does not
    now = 5999;
    EXPECT_TRUE(Read(1, 50).empty());
    now = 6000;
    EXPECT_EQ(Read(15).size(), 15u);
    m_box->Stop();
    EXPECT_TRUE(stopping);
    EXPECT_EQ(in.load(), 10u);
    EXPECT_EQ(out.load(), 40u);
    EXPECT_EQ(m_box->Received().at(0).tMs, 0.0);  // since Start, on the given clock
}

// Fault windows hold on the box's clock only while open, answers and stream alike, and a box
// whose window ends sends the frame it held back without waiting to be asked.
TEST_F(BoxEmulatorTest, FaultWindowsHoldOnlyWhileOpen) {
    std::atomic<double> now{0};
    BoxOptions o;
    o.streamPeriodMs = 1000;
    o.values = [] { return obdbox::DataItems{{5, 2.0f}}; };
    o.clock.nowMs = [&now] { return now.load(); };
    o.clock.wait = [&now](int fd, double until) {
        pollfd p{fd, POLLIN, 0};
        poll(&p, 1, 2);
        return (p.revents & POLLIN) != 0 || (until >= 0 && now.load() >= until);
    };
    o.faultSchedule = [](double ms) {
        obdbox::FaultState s;
        s.silent = ms >= 1000 && ms < 2000;
        s.badChecksum = ms >= 3000 && ms < 4000;
        s.streamHeld = ms >= 5000;
        s.nextChangeMs = ms < 1000   ? 1000
                         : ms < 2000 ? 2000
                         : ms < 3000 ? 3000
                         : ms < 4000 ? 4000
                                     : -1;
        return s;
    };
    StartBox(o);
    auto checksumOk = [](const ByteVec& f) {
        uint8_t x = 0;
        for (size_t i = 2; i + 1 < f.size(); ++i) x = static_cast<uint8_t>(x ^ f[i]);
        return x == f.back();
    };
    const struct {
        double at;
        bool answered, checksumOk;
    } rows[] = {{500, true, true},  {1000, false, false}, {1999, false, false},
                {2000, true, true}, {3500, true, false},  {4000, true, true}};
    for (const auto& r : rows) {
        SCOPED_TRACE(r.at);
        now = r.at;
        Write(Request(0x2C12));
        const ByteVec got = Read(12, r.answered ? kAnswerMs : 150);  // 6C12: engine id
        ASSERT_EQ(got.size(), r.answered ? 12u : 0u);
        if (r.answered) {
            EXPECT_EQ(checksumOk(got), r.checksumOk);
        }
    }
    now = 5000;  // the stream starts while held: the answer, no frame
    Write(Request(0x2C01));
    EXPECT_EQ(Read(10).size(), 10u);
    EXPECT_TRUE(Read(1, 150).empty());
    m_box->Update([](BoxOptions& opt) {
        opt.faultSchedule = [](double ms) {
            obdbox::FaultState s;
            s.streamHeld = ms < 6000;
            s.nextChangeMs = ms < 6000 ? 6000 : -1;
            return s;
        };
    });
    now = 6000;  // the window ends: the frame comes unasked
    EXPECT_EQ(Read(15).size(), 15u);
}

TEST(BoxEmulatorStart, MissingTtyIsReported) {
    BoxOptions o;
    o.ttyPath = "/nonexistent/tty";
    BoxEmulator box(o);
    EXPECT_FALSE(box.Start());
    EXPECT_NE(box.LastError().find("/nonexistent/tty"), std::string::npos);
}

}  // namespace

// The box emulator's line and box fault windows on a clock the test steps, seen from the plug-in's
// end of the line: frames sent twice, escaping by either length convention, answers held back in
// the box's time, and a restart that forgets the stream.
#include <atomic>

#include "BoxTestSupport.h"

namespace {

using namespace boxtest;
using BoxWindowTest = BoxLineTest;

// A box clock that moves only when the test sets it, with one fault window before 1000 ms.
BoxOptions Stepped(std::atomic<double>& now, const obdbox::FaultState& window) {
    BoxOptions o;
    o.clock.nowMs = [&now] { return now.load(); };
    o.clock.wait = [&now](int fd, double until) {
        pollfd p{fd, POLLIN, 0};
        poll(&p, 1, 2);
        return (p.revents & POLLIN) != 0 || (until >= 0 && now.load() >= until);
    };
    o.faultSchedule = [window](double ms) {
        obdbox::FaultState s = ms < 1000 ? window : obdbox::FaultState{};
        s.nextChangeMs = ms < 1000 ? 1000 : -1;
        return s;
    };
    return o;
}

ByteVec EngineAnswer(uint8_t seq, uint16_t engine = 0x0001, bool escape = false,
                     bool counts = false) {
    return BoxEmulator::EncodeFrame(
        0x6C12, {static_cast<uint8_t>(engine >> 8), static_cast<uint8_t>(engine & 0xFF)}, seq,
        escape, counts, false);
}

// Every 2nd frame of the window goes out twice, byte for byte; after it each frame once.
TEST_F(BoxWindowTest, DuplicateWindowSendsEveryNthFrameTwice) {
    std::atomic<double> now{0};
    obdbox::FaultState w;
    w.duplicateEveryNth = 2;
    StartBox(Stepped(now, w));
    for (uint8_t seq = 1; seq <= 4; ++seq) {
        Write(Request(0x2C12, {}, seq));
        const ByteVec a = EngineAnswer(seq);
        ByteVec want = a;
        if (seq % 2 == 0) want.insert(want.end(), a.begin(), a.end());
        EXPECT_EQ(Read(want.size()), want) << int(seq);
    }
    now = 1000;
    Write(Request(0x2C12, {}, 5));
    EXPECT_EQ(Read(12), EngineAnswer(5));
    EXPECT_TRUE(Read(1, 150).empty());
}

// In the window answers are escaped with its length convention (engine 7E7D: two pairs).
TEST_F(BoxWindowTest, EscapeWindowEscapesByItsLengthConvention) {
    for (const bool counts : {false, true}) {
        SCOPED_TRACE(counts);
        std::atomic<double> now{0};
        obdbox::FaultState w;
        w.escape = true;
        w.escapeCountsInLength = counts;
        BoxOptions o = Stepped(now, w);
        o.engineId = 0x7E7D;
        StartBox(o);
        Write(Request(0x2C12, {}, 3));
        const ByteVec got = Read(14);
        EXPECT_EQ(got, EngineAnswer(3, 0x7E7D, true, counts));
        EXPECT_EQ(got.at(5), counts ? 7 : 5);
        now = 1000;
        Write(Request(0x2C12, {}, 4));
        EXPECT_EQ(Read(12), EngineAnswer(4, 0x7E7D));
        TearDown();
        m_fd = -1;
    }
}

// An answer leaves the window's delay of box-clock time after its request, not before, however
// much real time passes.
TEST_F(BoxWindowTest, LateAnswerLeavesAfterTheDelayOnTheBoxClock) {
    std::atomic<double> now{100};
    obdbox::FaultState w;
    w.answerDelayMs = 2500;
    StartBox(Stepped(now, w));
    Write(Request(0x2C12, {}, 1));
    ASSERT_TRUE(m_box->WaitForFrames(1, kAnswerMs));
    now = 2599;
    EXPECT_TRUE(Read(1, 150).empty());
    now = 2600;
    EXPECT_EQ(Read(12), EngineAnswer(1));
}

// A restart: unheard while the box boots (so no request starts the stream), then it answers with
// its factory configuration and streams only once started again.
TEST_F(BoxWindowTest, RestartForgetsTheStreamAndTheConfiguration) {
    std::atomic<double> now{-2000};
    obdbox::FaultState w;
    BoxOptions o = Stepped(now, w);
    o.streamPeriodMs = 1000;
    o.values = [] { return obdbox::DataItems{{5, 2.0f}}; };
    o.faultSchedule = [](double ms) {
        obdbox::FaultState s;
        if (ms >= 0 && ms < 500) s.restartMs = 0;
        s.nextChangeMs = ms < 0 ? 0 : ms < 500 ? 500 : -1;
        return s;
    };
    o.engineId = 0x0A0B;  // the factory's; the change below stands for a configuration
    StartBox(o);
    m_box->Update([](BoxOptions& opt) { opt.engineId = 0x0C0D; });
    Write(Request(0x2C01));
    EXPECT_EQ(Read(10 + 15).size(), 25u);  // the answer and the first frame
    now = 0;
    Write(Request(0x2C01, {}, 5));  // unheard
    ASSERT_TRUE(m_box->WaitForFrames(2, kAnswerMs));
    EXPECT_TRUE(Read(1, 150).empty());
    EXPECT_FALSE(m_box->Streaming());
    now = 500;
    Write(Request(0x2C12, {}, 6));
    EXPECT_EQ(Read(12), EngineAnswer(6, 0x0A0B));
    now = 2000;
    EXPECT_TRUE(Read(1, 150).empty());
    Write(Request(0x2C01, {}, 7));
    EXPECT_EQ(Read(10 + 15).size(), 25u);
}

}  // namespace

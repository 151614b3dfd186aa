// The box emulator's line and box fault windows on a clock the test steps, seen from the plug-in's
// end of the line: frames sent twice, escaping by either length convention, answers held back in
// the box's time, refusals, and a restart that forgets the stream.
#include <atomic>

#include "BoxTestSupport.h"

namespace {

using namespace boxtest;
using BoxWindowTest = BoxLineTest;

// A box clock that moves only when the test sets it.
obdbox::BoxClock SteppedClock(std::atomic<double>& now) {
    obdbox::BoxClock clock;
    clock.nowMs = [&now] { return now.load(); };
    clock.wait = [&now](int fd, double until) {
        pollfd p{fd, POLLIN, 0};
        poll(&p, 1, 2);
        return (p.revents & POLLIN) != 0 || (until >= 0 && now.load() >= until);
    };
    return clock;
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
    BoxOptions o;
    o.clock = SteppedClock(now);
    o.faultSchedule = [](double ms) {
        obdbox::FaultState s;
        s.duplicateEveryNth = ms < 1000 ? 2 : 0;
        s.nextChangeMs = ms < 1000 ? 1000 : -1;
        return s;
    };
    StartBox(o);
    ByteVec want, got;
    for (uint8_t seq = 1; seq <= 4; ++seq) {
        Write(Request(0x2C12, {}, seq));
        const ByteVec a = EngineAnswer(seq);
        for (int copy = seq % 2 == 0 ? 2 : 1; copy > 0; --copy) {
            want.insert(want.end(), a.begin(), a.end());
        }
        const ByteVec more = Read(want.size() - got.size());
        got.insert(got.end(), more.begin(), more.end());
    }
    EXPECT_EQ(got, want);
    now = 1000;
    Write(Request(0x2C12, {}, 5));
    EXPECT_EQ(Read(12), EngineAnswer(5));
    EXPECT_TRUE(Read(1, 150).empty());
}

// In the window answers are escaped with its length convention (engine 7E7D: two pairs);
// outside it they are not.
TEST_F(BoxWindowTest, EscapeWindowEscapesByItsLengthConvention) {
    for (const bool counts : {false, true}) {
        SCOPED_TRACE(counts);
        std::atomic<double> now{0};
        BoxOptions o;
        o.engineId = 0x7E7D;
        o.clock = SteppedClock(now);
        o.faultSchedule = [counts](double ms) {
            obdbox::FaultState s;
            s.escape = ms < 1000;
            s.escapeCountsInLength = counts;
            s.nextChangeMs = ms < 1000 ? 1000 : -1;
            return s;
        };
        StartBox(o);
        const ByteVec inWindow = EngineAnswer(3, 0x7E7D, true, counts);
        ASSERT_EQ(inWindow.size(), 14u);  // two pairs
        EXPECT_EQ(inWindow[5], counts ? 7 : 5);
        Write(Request(0x2C12, {}, 3));
        EXPECT_EQ(Read(14), inWindow);
        now = 1000;
        Write(Request(0x2C12, {}, 4));
        EXPECT_EQ(Read(12), EngineAnswer(4, 0x7E7D));
        TearDown();
        m_fd = -1;
    }
}

// An answer leaves the given box-clock time after its request, not before, whatever real time
// passes; answers of the window keep their order, and the one after it is not held.
TEST_F(BoxWindowTest, LateAnswerLeavesAfterTheDelayOnTheBoxClock) {
    std::atomic<double> now{1000};
    BoxOptions o;
    o.clock = SteppedClock(now);
    o.faultSchedule = [](double ms) {
        obdbox::FaultState s;
        s.answerDelayMs = ms < 5000 ? 2500 : 0;
        s.nextChangeMs = ms < 5000 ? 5000 : -1;
        return s;
    };
    StartBox(o);
    Write(Request(0x2C12, {}, 1));
    ASSERT_TRUE(m_box->WaitForFrames(1, kAnswerMs));
    now = 1100;
    Write(Request(0x2C12, {}, 2));
    ASSERT_TRUE(m_box->WaitForFrames(2, kAnswerMs));
    now = 3499;
    EXPECT_TRUE(Read(1, 150).empty());
    now = 3500;
    EXPECT_EQ(Read(12), EngineAnswer(1));
    EXPECT_TRUE(Read(1, 150).empty());
    now = 3600;
    EXPECT_EQ(Read(12), EngineAnswer(2));
    now = 5000;
    Write(Request(0x2C12, {}, 3));
    EXPECT_EQ(Read(12), EngineAnswer(3));
}

// Refused in the window (the engine configuration answers status 1 and changes nothing), taken
// after it.
TEST_F(BoxWindowTest, RefuseWindowRefusesOnlyWhileOpen) {
    std::atomic<double> now{0};
    BoxOptions o;
    o.clock = SteppedClock(now);
    o.faultSchedule = [](double ms) {
        obdbox::FaultState s;
        s.refuse = ms < 1000;
        s.nextChangeMs = ms < 1000 ? 1000 : -1;
        return s;
    };
    StartBox(o);
    const ByteVec engine = {0x0A, 0x0B, 0, 0, 0, 0, 0, 0, 0, 0};
    const struct {
        double at;
        uint8_t status;
        uint16_t engineAfter;
    } rows[] = {{500, 1, 0x0001}, {1000, 0, 0x0A0B}};
    for (const auto& r : rows) {
        SCOPED_TRACE(r.at);
        now = r.at;
        Write(Request(0x2C03, engine));
        EXPECT_EQ(Read(11).at(9), r.status);
        Write(Request(0x2C12, {}, 9));
        EXPECT_EQ(Read(12), EngineAnswer(9, r.engineAfter));
    }
}

// A restart: silent while the box boots (requests unheard, so none starts the stream), then it
// answers with its factory configuration and streams only once started again.
TEST_F(BoxWindowTest, RestartForgetsTheStreamAndTheConfiguration) {
    std::atomic<double> now{0};
    BoxOptions o;
    o.streamPeriodMs = 1000;
    o.values = [] { return obdbox::DataItems{{5, 2.0f}}; };
    o.clock = SteppedClock(now);
    o.faultSchedule = [](double ms) {
        obdbox::FaultState s;
        if (ms >= 2000 && ms < 2500) s.restartMs = 2000;
        s.nextChangeMs = ms < 2000 ? 2000 : ms < 2500 ? 2500 : -1;
        return s;
    };
    StartBox(o);
    Write(Request(0x2C03, {0x0A, 0x0B, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(Read(11).at(9), 0);
    Write(Request(0x2C01));
    EXPECT_EQ(Read(10 + 15).size(), 25u);  // the answer and the first frame
    now = 1000;
    EXPECT_EQ(Read(15).size(), 15u);
    ASSERT_TRUE(m_box->Streaming());
    now = 2000;
    Write(Request(0x2C01, {}, 5));  // unheard
    ASSERT_TRUE(m_box->WaitForFrames(3, kAnswerMs));
    EXPECT_TRUE(Read(1, 150).empty());
    EXPECT_FALSE(m_box->Streaming());
    now = 2500;
    Write(Request(0x2C12, {}, 6));
    EXPECT_EQ(Read(12), EngineAnswer(6));  // the factory engine
    now = 3000;
    EXPECT_TRUE(Read(1, 150).empty());
    now = 4000;
    EXPECT_TRUE(Read(1, 150).empty());
    Write(Request(0x2C01, {}, 7));
    EXPECT_EQ(Read(10 + 15).size(), 25u);
}

}  // namespace

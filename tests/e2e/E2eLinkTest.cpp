// End to end, the link: the plug-in loaded as the recorder loads it, on a real pseudo-terminal,
// against the box emulator (fixture in E2eFixture.h). What a link unit test pins down byte for
// byte is only re-proved here where the integration could break it.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "E2eFixture.h"
#include "ObdBusRecords.h"

namespace {

using e2e::E2eTest;
using obdbox::BoxEmulator;
using obdbox::BoxOptions;
using obdbox::ByteVec;

// After start the plug-in stops the box's data stream and starts it again, answered within a
// poll; an unanswered command is sent retries + 1 times under one sequence number, then the
// task ends and the stream restarts.
TEST_F(E2eTest, E2eStartFramesAndRetriesOnTheWire) {
    BoxOptions o;
    o.unanswered = {0x2103};  // the hardware-version read
    Launch(o);
    ASSERT_TRUE(StepUntil([&] { return m_box->Received().size() >= 1; }, 1000, 10));
    const long long firstAt = hostsim::ClockNowMs();
    ASSERT_TRUE(StepUntil([&] { return m_box->Received().size() >= 2; }, 1000, 10));
    EXPECT_LE(hostsim::ClockNowMs() - firstAt, 100);  // the first 50 ms poll sees the answer
    auto rx = m_box->Received();
    // F0^F8^00^03^01^2C^04 = 0x22; F0^F8^00^08^02^2C^01^FF = 0xD0.
    EXPECT_EQ(rx[0].raw, (ByteVec{0x55, 0xAA, 0xF0, 0xF8, 0x00, 0x03, 0x01, 0x2C, 0x04, 0x22}));
    EXPECT_EQ(rx[1].raw, (ByteVec{0x55, 0xAA, 0xF0, 0xF8, 0x00, 0x08, 0x02, 0x2C, 0x01, 0xFF, 0x00,
                                  0x00, 0x00, 0x00, 0xD0}));
    Step(4000);  // both answered: nothing is repeated before the 5 s work
    EXPECT_EQ(m_box->Received().size(), 2u);
    EXPECT_TRUE(m_box->Streaming());

    // The 5 s work asks for the versions: stop, 11 reads, start again.
    ASSERT_TRUE(StepUntil([&] { return m_box->Received().size() >= 15; }, 40000));
    rx = m_box->Received();
    const auto codes = Codes();
    EXPECT_EQ(std::vector<uint16_t>(codes.begin(), codes.begin() + 15),
              (std::vector<uint16_t>{0x2C04, 0x2C01, 0x2C04, 0x2103, 0x2103, 0x2103, 0x2103, 0x2103,
                                     0x2103, 0x2103, 0x2103, 0x2103, 0x2103, 0x2103, 0x2C01}));
    for (int i = 3; i < 14; ++i) EXPECT_EQ(rx[i].raw, rx[3].raw) << i;
    EXPECT_EQ(rx[3].seq, 4);
    EXPECT_EQ(rx[14].seq, 5);
}

// Released while a task is in hand: the host thread no longer reads the box's answers, so the
// command gives up at its next poll and no further attempt leaves.
TEST_F(E2eTest, E2eReleaseOfABusyPlugInReturnsWithinASecond) {
    BoxOptions o;
    o.unanswered = {0x2103};  // the 5 s version read waits in its first poll
    Launch(o);
    ASSERT_TRUE(StepUntil([&] { return Count(0x2103) >= 1; }, 7000));
    const size_t sent = m_box->Received().size();
    const long long start = hostsim::ClockNowMs();
    EXPECT_EQ(m_host->Release(), 1);
    m_host.reset();
    EXPECT_LT(hostsim::ClockNowMs() - start, 1000);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // for bytes still on the line
    EXPECT_LE(m_box->Received().size(), sent + 1);
}

// Power-down with a box that never answers the stop (in CAN-box mode no stop is relayed at all):
// the bus thread does not wait, so a configuration query right after it is answered at once. In
// serial mode the stop is on the wire at once, sent once. The 1 s work ends for good.
class E2ePowerDownTest : public E2eTest, public ::testing::WithParamInterface<int> {};

TEST_P(E2ePowerDownTest, E2eConfigurationQueryRightAfterPowerDownIsAnsweredAtOnce) {
    Launch({}, GetParam());
    Step(1000);
    m_box->Update([](BoxOptions& o) { o.unanswered = {0x2C04}; });
    const size_t before = m_box->Received().size();
    hostsim::BusInject(1194, {});
    Step(100);
    const long long asked = hostsim::ClockNowMs();
    const int seq = hostsim::BusInject(6698, {});
    if (!StepUntil([&] { return !Responses().empty(); }, 1000, 10)) {
        ADD_FAILURE() << "no answer: the bus thread waits for the stop's answer";
        Step(30000);  // its 451 polls sleep on host time; release would wait for them
        return;
    }
    const auto answer = Responses().front();
    EXPECT_EQ(answer.seq, static_cast<unsigned>(seq));
    EXPECT_EQ(answer.payload.size(), 652u);
    EXPECT_LE(answer.tMs - asked, 100);
    const size_t stops = GetParam() == 72 ? 0 : 1;
    m_box->WaitForFrames(before + 1, stops == 0 ? 20 : 10000);  // real time: bytes on the line
    ASSERT_EQ(m_box->Received().size(), before + stops);
    if (stops == 1) {
        EXPECT_EQ(m_box->Received().back().code, 0x2C04);
    }
    const size_t sent = BusCount(MSG_OBD_ORIGINAL_DATA);
    EXPECT_GE(sent, 1u);  // the 1 s work ran before
    Step(12000);
    EXPECT_EQ(BusCount(MSG_OBD_ORIGINAL_DATA), sent);
    EXPECT_EQ(BusCount(MSG_GDS_ALARM), sent);
}

INSTANTIATE_TEST_SUITE_P(Modes, E2ePowerDownTest, ::testing::Values(0, 72));

TEST_F(E2eTest, E2eLinkFrameLeadsToLinkTasksOnTheTenSecondTimer) {
    Launch();
    // Without a link frame from the box the 10 s work only restarts the stream.
    Step(10500);
    EXPECT_EQ(Count(0x2C10), 0);
    EXPECT_EQ(m_box->Received().back().code, 0x2C01);

    m_box->SendLink();
    ASSERT_TRUE(StepUntil([&] { return COBDCtrlTestPeer(Ctrl()).BoxAlive() == 1; }, 1000));
    EXPECT_EQ(Count(0x2C10), 0);  // not before the timer
    const size_t before = m_box->Received().size();
    ASSERT_TRUE(StepUntil([&] { return Count(0x2C10) >= 1; }, 10000));
    EXPECT_GE(hostsim::ClockNowMs(), 20000);
    // The timer first restarts the stream (stop, start), then the link task stops it and links.
    const auto codes = Codes();
    ASSERT_GE(codes.size(), before + 4);
    EXPECT_EQ(std::vector<uint16_t>(codes.end() - 4, codes.end()),
              (std::vector<uint16_t>{0x2C04, 0x2C01, 0x2C04, 0x2C10}));
    // Never released (the box's link answer is no engine answer): 11 attempts, then the stream
    // is started again.
    ASSERT_TRUE(StepUntil(
        [&] { return Count(0x2C10) >= 11 && m_box->Received().back().code == 0x2C01; }, 30000));
    EXPECT_EQ(Count(0x2C10), 11);
}

TEST_F(E2eTest, E2eDataStreamLandsInTheTableThroughEscapesSplitsAndGarbage) {
    // One value carries 0x7E, which the box escapes.
    const float escaped = [] {
        const unsigned char b[4] = {0x00, 0x7E, 0x20, 0x41};
        float f;
        std::memcpy(&f, b, 4);
        return f;
    }();
    BoxOptions o;
    o.streamPeriodMs = 15;
    o.values = [escaped] { return obdbox::DataItems{{9, escaped}, {1, 850.0f}, {3, 88.0f}}; };
    Launch(o);
    // Two round trips to a box that answers in real time: small steps leave them real time
    // (on a loaded machine, native or qemu, 3% of runs needed more than 20 steps of 50 ms).
    ASSERT_TRUE(StepUntil([&] { return m_box->Streaming(); }, 1500, 3));
    // Escaped, cut into reads of 1 to 8 bytes, garbage before each frame: reassembled wherever
    // the reads end, inside a frame's head too.
    m_box->Update([](BoxOptions& opt) {
        opt.escape = true;
        opt.garbageBytes = 6;
        opt.splitMaxChunk = 8;
        opt.splitGapUs = 1000;
    });
    ASSERT_TRUE(StepUntil(
        [&] {
            const auto t = Table();
            return t.item[0].id == 0 && t.item[2].id == 2 && t.item[8].id == 8;
        },
        3000, 10));
    const auto t = Table();
    EXPECT_EQ(t.item[0].value, 850.0f);
    EXPECT_EQ(t.item[2].value, 88.0f);
    EXPECT_EQ(t.item[8].value, escaped);
    EXPECT_EQ(t.item[1].id, -1);  // never sent
}

// A box that escapes, counting its pairs in L or not: every item of a frame of all 59, whose value
// bytes hold 7D, 7E and 7F, lands exactly in the OBD data broadcast, and no frame is refused.
class E2eEscapeTest : public E2eTest, public ::testing::WithParamInterface<bool> {};

TEST_P(E2eEscapeTest, E2eEveryEscapedValueReachesTheDataBroadcastExactly) {
    auto refused = std::make_shared<std::atomic<int>>(0);
    hostsim::SetLogSink([refused](int, const std::string& line) {
        if (line.find("crc error") != std::string::npos) ++*refused;
    });
    obdbox::DataItems items;
    for (uint8_t id = 1; id <= 59; ++id) {
        const uint8_t b[4] = {static_cast<uint8_t>(0x7D + id % 3),
                              static_cast<uint8_t>(0x7F - id % 3), id, 0x42};
        float v;
        std::memcpy(&v, b, 4);
        items.emplace_back(id, v);
    }
    BoxOptions o;
    o.streamPeriodMs = 20;
    o.escape = true;
    o.escapeCountsInLength = GetParam();
    o.values = [items] { return items; };
    Launch(o);
    const auto exact = [&] {
        const auto sent = Bus(MSG_OBD_ORIGINAL_DATA);
        if (sent.empty() || sent.back().payload.size() != sizeof(ObdOriginalDataMsg_t))
            return false;
        ObdOriginalDataMsg_t m;
        std::memcpy(&m, sent.back().payload.data(), sizeof(m));
        for (const auto& [id, v] : items) {
            const auto& item = m.table.item[id - 1];
            if (item.id != id - 1 || std::memcmp(&item.value, &v, 4) != 0) return false;
        }
        return true;
    };
    ASSERT_TRUE(StepUntil(exact, 10000));
    Step(4000);  // 200 frames more, past the sequence numbers 7D to 7F
    EXPECT_TRUE(exact());
    EXPECT_EQ(refused->load(), 0);
}

INSTANTIATE_TEST_SUITE_P(LengthCounts, E2eEscapeTest, ::testing::Bool());

// Every fault of the box, then a good box again: the plug-in survives (the sanitizer build
// checks every access) and recognises the next good frame.
const std::vector<std::function<void(BoxOptions&)>> kFaults = {
    [](BoxOptions& o) { o.silent = true; },
    [](BoxOptions& o) { o.refuse = true; },
    [](BoxOptions& o) { o.dropEveryNth = 2; },
    [](BoxOptions& o) { o.garbageBytes = 40; },
    [](BoxOptions& o) { o.splitMaxChunk = 3, o.splitGapUs = 500; },
    [](BoxOptions& o) { o.badChecksum = true; },
    [](BoxOptions& o) { o.escape = o.escapeCountsInLength = true; },
    [](BoxOptions& o) { o.stopAckAlt = o.escape = true; },
    [](BoxOptions& o) {
        o.unanswered = {0x2C04, 0x2C01};
    },
};

class E2eFaultTest : public E2eTest, public ::testing::WithParamInterface<size_t> {};

TEST_P(E2eFaultTest, E2eSurvivesTheFaultAndRecognisesTheNextGoodFrame) {
    BoxOptions o;
    o.streamPeriodMs = 10;
    o.linkPeriodMs = 700;
    o.seed = static_cast<unsigned>(GetParam() + 1);
    kFaults[GetParam()](o);
    int tick = 0;
    o.values = [&tick] {
        ++tick;
        return obdbox::DataItems{
            {static_cast<uint8_t>(1 + tick % 59), 125.0f + float(tick)}, {0x7E, 1.0f}, {2, -3.5f}};
    };
    Launch(o);
    m_box->SendRaw(ByteVec{0x55, 0xAA, 0xF8, 0xF0, 0x03, 0xF0, 0x00});  // a lying head
    Step(12000, 100);
    // The faults stop; one good frame must be enough.
    m_box->Update([](BoxOptions& opt) {
        opt = Answering(opt);
        opt.escapeCountsInLength = false;
        opt.streamPeriodMs = opt.linkPeriodMs = 0;
        opt.values = [] { return obdbox::DataItems{{59, 4321.0f}}; };
    });
    // Flushes a pending lying head at once; were it read in pieces, the head would still hold
    // the receiver for at most its L + 7 <= 1023 bytes, which the frames below provide.
    m_box->SendRaw(ByteVec(1000, 0x00));
    ASSERT_TRUE(StepUntil(
        [&] {
            m_box->SendDataStream();
            return Table().item[58].value == 4321.0f;
        },
        6000, 50));
}

INSTANTIATE_TEST_SUITE_P(Faults, E2eFaultTest, ::testing::Range<size_t>(0, kFaults.size()));

// CAN-box mode: the box is behind another service. Only the start of the stream leaves, as a
// bus message carrying the frame; the serial line stays silent. The box's answers come back
// relayed on the bus: count, then the bytes as the box sent them.
TEST_F(E2eTest, E2eCanBoxModeTalksToTheBoxOnlyThroughTheBus) {
    Launch({}, 72);
    ASSERT_TRUE(StepUntil([&] { return CanOut().size() >= 1; }, 1000));
    // No stop in CAN-box mode: the first frame is the start, sequence number 1.
    // F0^F8^00^08^01^2C^01^FF = 0xD3.
    EXPECT_EQ(CanOut()[0], (ByteVec{15, 0, 0, 0, 0x55, 0xAA, 0xF0, 0xF8, 0x00, 0x08, 0x01, 0x2C,
                                    0x01, 0xFF, 0x00, 0x00, 0x00, 0x00, 0xD3}));
    // The acknowledgement split across two messages, then item 8 = 42.5.
    const ByteVec ack = BoxEmulator::EncodeFrame(0x6C01, {}, 1, false, false, false);
    Relay(ack.begin(), ack.begin() + 5);
    Relay(ack.begin() + 5, ack.end());
    const ByteVec data =
        BoxEmulator::EncodeFrame(0x2C81, {0x08, 0x00, 0x00, 0x2A, 0x42}, 2, false, false, false);
    Relay(data);
    hostsim::BusDrain();
    ASSERT_TRUE(StepUntil([&] { return Table().item[7].id == 7; }, 2000));
    EXPECT_EQ(Table().item[7].value, 42.5f);
    // Released by the relayed answer: the start is not repeated before the 10 s timer's own.
    Step(7000);
    EXPECT_EQ(CanOut().size(), 1u);
    EXPECT_TRUE(m_box->Received().empty());  // nothing on the serial line
}

}  // namespace

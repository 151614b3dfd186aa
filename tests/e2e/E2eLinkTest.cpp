// End to end: the plug-in loaded as the recorder loads it (dlopen through the host layer), on a
// real pseudo-terminal, against the box emulator. Host time is virtual and the box takes part on
// it, so command timeouts of seconds pass in milliseconds and host time never moves while the box
// still has a request to answer, however slow the machine. What a link unit test pins down byte
// for byte is only re-proved here where the integration could break it.
// E2E_VERBOSE=1 prints the host log and the serial dumps while the tests run.
#include <dlfcn.h>
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

#include "BoxEmulator.h"
#include "BoxHostClock.h"
#include "COBDCtrlTestPeer.h"
#include "HostCommon.h"
#include "HostSim.h"
#include "SerialDevOBD.h"

namespace {

using obdbox::BoxEmulator;
using obdbox::BoxOptions;
using obdbox::ByteVec;

class E2eTest : public ::testing::Test {
  protected:
    void SetUp() override {
        hostsim::Reset();
        const bool verbose = getenv("E2E_VERBOSE") != nullptr;
        if (verbose) hostsim::SetDumpLevel(3);
        hostsim::SetLogSink([verbose](int, const std::string& line) {
            if (verbose) fprintf(stderr, "%lld %s\n", hostsim::ClockNowMs(), line.c_str());
        });
        m_token = hostsim::BusSubscribe([this](const hostsim::BusMessage& m) {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (!m.response && m.id == 6899) m_canOut.push_back(m.payload);
        });
        hostsim::ClockUseVirtual(0);
        // The test's thread takes part: host time moves only while it sleeps (Step).
        m_self = std::make_unique<hostsim::Participant>("test");
        m_self->Enter();
    }
    void TearDown() override {
        if (m_host) {
            // Before the shutdown handshake the send thread must come to rest: a healthy box
            // that does not answer link requests (a link task is never released and would keep
            // the destructor waiting for its 11 attempts), and host time to finish what runs.
            // Nor does it stream: once the plug-in stops reading, a full line would hold up
            // every further frame the box writes.
            if (m_box) {
                m_box->Update([](BoxOptions& o) {
                    o = Answering(o);
                    o.linkPeriodMs = o.streamPeriodMs = 0;
                    o.unanswered = {0x2C10};
                });
            }
            Step(30000, 200);
            // The destructor waits for the send thread's current command, which sleeps on host
            // time: that time passes while this thread waits for the release.
            EXPECT_EQ(m_host->Release(), 1);
        }
        m_host.reset();
        if (m_box) m_box->Stop();
        hostsim::BusUnsubscribe(m_token);
        m_self.reset();
        hostsim::Reset();
    }
    // The box without any fault (its rates and contents unchanged).
    static BoxOptions Answering(BoxOptions o) {
        o.silent = o.refuse = o.badChecksum = o.escape = o.stopAckAlt = false;
        o.dropEveryNth = o.garbageBytes = o.splitMaxChunk = 0;
        o.unanswered.clear();
        return o;
    }
    void Launch(BoxOptions o = {}, int productType = 0) {
        hostsim::SetProductType(productType);
        auto peer = std::make_shared<hostsim::Participant>("box");
        o.clock = obdsim::BoxHostClock(peer);
        m_box = std::make_unique<BoxEmulator>(o);
        ASSERT_TRUE(m_box->Start()) << m_box->LastError();
        peer->ServeLine(m_box->SlavePath());
        m_host = std::make_unique<hostsim::PluginHost>();
        m_host->SetSerial(m_box->SlavePath());
        ASSERT_TRUE(m_host->Load(OBD_PLUGIN_PATH)) << m_host->LastError();
        ASSERT_EQ(m_host->SerialOpenError(), "");
        ASSERT_EQ(m_host->Initialize(), 0);
        ASSERT_EQ(m_host->RegisterHandlers(), 0);
        ASSERT_TRUE(m_host->Start());
    }
    // Lets host time run on in `step` ms sleeps, each ending only when the plug-in's threads and
    // the box have done everything due by then, until `done` holds or `hostMs` have passed. Host
    // time, not real time, bounds the wait, so a loaded machine only makes it slower.
    bool StepUntil(const std::function<bool()>& done, long long hostMs, int step = 50) {
        const long long end = hostsim::ClockNowMs() + hostMs;
        while (!done()) {
            if (hostsim::ClockNowMs() >= end) return false;
            Common::P4X_TMSleepMicroSecond(static_cast<unsigned int>(step) * 1000);
        }
        return true;
    }
    void Step(long long hostMs, int step = 50) {
        StepUntil([] { return false; }, hostMs, step);
    }
    std::vector<uint16_t> Codes() const {
        std::vector<uint16_t> c;
        for (const auto& f : m_box->Received()) c.push_back(f.code);
        return c;
    }
    int Count(uint16_t code) const {
        const auto c = Codes();
        return static_cast<int>(std::count(c.begin(), c.end(), code));
    }
    COBDCtrl* Ctrl() const { return static_cast<CSerialDevOBD*>(m_host->Object())->ObdCtrl(); }
    _OBD_DataTable_t Table() const { return COBDCtrlTestPeer(Ctrl()).DataTable(); }
    std::vector<ByteVec> CanOut() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_canOut;
    }

    std::unique_ptr<hostsim::Participant> m_self;
    std::unique_ptr<BoxEmulator> m_box;
    std::unique_ptr<hostsim::PluginHost> m_host;
    std::mutex m_mutex;
    std::vector<ByteVec> m_canOut;
    int m_token = 0;
};

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
    ASSERT_TRUE(StepUntil([&] { return m_box->Streaming(); }, 1000));
    // Escaped, cut into reads of 1 to 8 bytes, garbage before each frame. A frame cut inside
    // its four head bytes is lost; the others are reassembled.
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

// The command table leaves the library as data under its plain name.
TEST(E2eExports, E2eCommandTableIsExportedAsData) {
    void* lib = dlopen(OBD_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(lib, nullptr) << dlerror();
    const auto* table = static_cast<const uint16_t*>(dlsym(lib, "ObdCmdArray"));
    ASSERT_NE(table, nullptr);
    Dl_info info{};
    ASSERT_NE(dladdr(table, &info), 0);
    EXPECT_STREQ(info.dli_sname, "ObdCmdArray");
    // Spot checks: the unit tests check the table entry by entry.
    EXPECT_EQ(std::vector<uint16_t>(
                  {table[0], table[3], table[4], table[19], table[33], table[34], table[40]}),
              (std::vector<uint16_t>{0x0000, 0x2105, 0x6105, 0x0000, 0x2C10, 0x2C10, 0x6CF1}));
    dlclose(lib);
}

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
    auto relay = [](ByteVec::const_iterator from, ByteVec::const_iterator to) {
        ByteVec msg(static_cast<size_t>(to - from) + 4, 0);
        msg[0] = static_cast<uint8_t>(to - from);
        std::copy(from, to, msg.begin() + 4);
        hostsim::BusInject(6898, msg);
    };
    // The acknowledgement split across two messages, then item 8 = 42.5.
    const ByteVec ack = BoxEmulator::EncodeFrame(0x6C01, {}, 1, false, false, false);
    relay(ack.begin(), ack.begin() + 5);
    relay(ack.begin() + 5, ack.end());
    const ByteVec data =
        BoxEmulator::EncodeFrame(0x2C81, {0x08, 0x00, 0x00, 0x2A, 0x42}, 2, false, false, false);
    relay(data.begin(), data.end());
    hostsim::BusDrain();
    ASSERT_TRUE(StepUntil([&] { return Table().item[7].id == 7; }, 2000));
    EXPECT_EQ(Table().item[7].value, 42.5f);
    // Released by the relayed answer: the start is not repeated before the 10 s timer's own.
    Step(7000);
    EXPECT_EQ(CanOut().size(), 1u);
    EXPECT_TRUE(m_box->Received().empty());  // nothing on the serial line
}

}  // namespace

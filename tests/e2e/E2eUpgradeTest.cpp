// End to end, the firmware upgrade and the engine calibration as the recorder drives them: a
// trigger on the bus, the plug-in loaded through the host layer, the box emulator taking the file
// on a pseudo-terminal. Host time is virtual and the box takes part on it (E2eFixture.h): an
// answered command needs none, since the answer itself ends its wait, and a deadline passes only
// once the box has nothing left to answer, however slow the machine. The upgrade file is the
// build's OBD_UPGRADE_FILE_PATH (the test scripts point it into a temporary directory); ctest runs
// these tests one at a time. E2E_VERBOSE=1 prints the host log while they run.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <vector>

#include "E2eFixture.h"

namespace {

using obdbox::BoxOptions;
using obdbox::ByteVec;

const std::string kFile = OBD_UPGRADE_FILE_PATH;

// The 20-byte upgrade-state record of the bus.
ByteVec Result(int source, int state, int percent) {
    ByteVec b(20, 0);
    b[0] = static_cast<uint8_t>(source);
    b[1] = 7;
    b[2] = static_cast<uint8_t>(state);
    b[3] = static_cast<uint8_t>(percent);
    return b;
}

class E2eUpgradeTest : public e2e::E2eTest {
  protected:
    void SetUp() override {
        E2eTest::SetUp();
        if (kFile == "/var/run/DOWNLOAD.bin") {
            GTEST_SKIP() << "built with the recorder's own upgrade file; configure with "
                            "-DOBD_UPGRADE_FILE_PATH=/tmp/.../DOWNLOAD.bin (scripts/test.sh does)";
        }
        mkdir(kFile.substr(0, kFile.rfind('/')).c_str(), 0700);
        unlink(kFile.c_str());
    }
    void TearDown() override {
        E2eTest::TearDown();
        if (kFile != "/var/run/DOWNLOAD.bin") unlink(kFile.c_str());
    }
    ByteVec WriteFile(size_t size) {
        ByteVec b(size);
        for (size_t i = 0; i < size; ++i) b[i] = static_cast<uint8_t>(i * 31 + i / 256);
        std::ofstream(kFile, std::ios::binary)
            .write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
        return b;
    }
    static bool FileThere() { return access(kFile.c_str(), F_OK) == 0; }
    int Trigger(uint8_t source) { return hostsim::BusInject(6729, {source, 1, 7, 2}); }
    // The upgrade-state broadcasts, in order.
    std::vector<ByteVec> States() {
        std::vector<ByteVec> out;
        for (const auto& m : Bus(6730)) out.push_back(m.payload);
        return out;
    }
    bool Ended() {
        const auto s = States();
        return !s.empty() && (s.back()[2] == 9 || s.back()[2] == 10);
    }
    // The answer to the message injected as `seq`; empty until it came.
    ByteVec Answer(int id, int seq) {
        for (const auto& m : Bus(id, true))
            if (m.seq == static_cast<unsigned>(seq)) return m.payload;
        return {};
    }
    // The software version's last text in the last status broadcast that carried the versions.
    std::string BroadcastVersion() {
        std::string v;
        for (const auto& m : Bus(6699)) {
            if (m.payload.size() == sizeof(GdsConfigInfo_t) && (m.payload[0] & CFG_MASK_VERSION))
                v = reinterpret_cast<const char*>(m.payload.data() + 4 + 104);
        }
        return v;
    }
    // The slot of `source` as a query answers it (empty: no answer).
    ByteVec Slot(uint8_t source) {
        const int query = hostsim::BusInject(6731, {source, 7});
        StepUntil([&] { return !Answer(6731, query).empty(); }, 1000);
        return Answer(6731, query);
    }
    bool Upgrading() { return static_cast<CSerialDevOBD*>(m_host->Object())->IsUpgrading(); }
};

// A few hundred KiB arrive whole; the bus sees the answer, every percent once and success; the
// file is gone and the box's new versions reach the status broadcast.
TEST_F(E2eUpgradeTest, E2eTriggerTransfersTheFileAndTheNewVersionsAreBroadcast) {
    Launch();
    ASSERT_TRUE(StepUntil([&] { return BroadcastVersion() == "DIAG1.0"; }, 10000));
    const ByteVec file = WriteFile(300 * 1024 + 100);  // 1200 full chunks and 100 bytes
    const int seq = Trigger(1);
    ASSERT_TRUE(StepUntil([&] { return !Answer(6729, seq).empty(); }, 1000));
    EXPECT_EQ(Answer(6729, seq), Result(1, 0, 0));
    EXPECT_TRUE(Upgrading());
    ASSERT_TRUE(StepUntil([&] { return Ended(); }, 60000));

    std::vector<ByteVec> expected;
    for (int p = 0; p < 100; ++p) expected.push_back(Result(1, 0, p));
    expected.push_back(Result(1, 10, 100));
    EXPECT_EQ(States(), expected);
    const obdbox::BoxUpgrade u = m_box->Upgrade();
    EXPECT_EQ(u.name, "DOWNLOAD.BIN");
    EXPECT_EQ(u.size, file.size());
    EXPECT_TRUE(u.image == file);
    EXPECT_EQ(u.chunks, 1201);  // none repeated
    EXPECT_TRUE(u.installed);
    EXPECT_TRUE(StepUntil([] { return !FileThere(); }, 1000));  // deleted after the report
    EXPECT_FALSE(Upgrading());

    ASSERT_TRUE(StepUntil([&] { return BroadcastVersion() == "DIAG2.0"; }, 10000));
    EXPECT_EQ(Slot(1), Result(1, 10, 100));
}

// A refused MD5 fails with the last percent and keeps the file; the next trigger succeeds.
TEST_F(E2eUpgradeTest, E2eRefusedDigestFailsKeepsTheFileAndTheNextTriggerSucceeds) {
    BoxOptions o;
    o.upgradeRefuseStep = 0x2404;
    Launch(o);
    const ByteVec file = WriteFile(2000);  // 7 full chunks: 1792 bytes, 89 %
    Trigger(2);
    ASSERT_TRUE(StepUntil([&] { return Ended(); }, 60000));
    EXPECT_EQ(States().back(), Result(2, 9, 89));
    EXPECT_EQ(Count(0x2404), 11);
    EXPECT_EQ(Count(0x2111), 0);
    EXPECT_TRUE(FileThere());
    EXPECT_EQ(Slot(2), Result(2, 9, 89));

    m_box->Update([](BoxOptions& opt) { opt.upgradeRefuseStep = 0; });
    const size_t first = States().size();
    Trigger(2);
    ASSERT_TRUE(StepUntil([&] { return States().size() > first && Ended(); }, 60000));
    EXPECT_EQ(States().back(), Result(2, 10, 100));
    EXPECT_TRUE(m_box->Upgrade().image == file);
    EXPECT_TRUE(StepUntil([] { return !FileThere(); }, 1000));  // deleted after the report
}

// A box that falls silent mid-transfer: the chunk it does not answer is sent four times, 550 ms
// of host time apart, and the upgrade fails 2200 ms after its first attempt.
TEST_F(E2eUpgradeTest, E2eSilentBoxFailsTheTransferWithinTheChunkBound) {
    BoxOptions o;
    o.upgradeSilentAfterChunks = 5;
    Launch(o);
    WriteFile(4096);
    Trigger(0);
    ASSERT_TRUE(StepUntil([&] { return Count(0x2403) >= 6; }, 60000, 10));
    const long long firstAttempt = hostsim::ClockNowMs();  // within one step after it
    ASSERT_TRUE(StepUntil([&] { return Ended(); }, 10000));
    const long long failedAt = Bus(6730).back().tMs;
    // (The test looks every 10 ms of host time: a margin.)
    EXPECT_GE(failedAt - firstAttempt, 2200 - 100);
    EXPECT_LE(failedAt - firstAttempt, 2200 + 150);
    EXPECT_EQ(States().back(), Result(0, 9, 31));  // 5 x 256 of 4096 bytes
    const auto rx = m_box->Received();
    std::vector<uint8_t> seqs;
    for (const auto& f : rx)
        if (f.code == 0x2403 && f.payload[2] == 0x05) seqs.push_back(f.seq);  // offset 1280
    EXPECT_EQ(seqs, std::vector<uint8_t>(4, seqs.at(0)));
    EXPECT_TRUE(FileThere());
}

// Power-down in the middle: the box loses power, the handler's own stop request holds the bus
// thread for its attempts; the transfer fails, the file stays, the failure is broadcast and
// answered.
TEST_F(E2eUpgradeTest, E2ePowerDownMidTransferLeavesTheFileAndAFailure) {
    BoxOptions o;
    o.upgradeSilentAfterChunks = 20;
    Launch(o);
    WriteFile(65536);
    Trigger(1);
    ASSERT_TRUE(StepUntil([&] { return Count(0x2403) >= 21; }, 60000));
    const int stopsBefore = Count(0x2C04);
    hostsim::BusInject(1194, {});
    ASSERT_TRUE(StepUntil([&] { return Ended(); }, 60000));
    EXPECT_EQ(States().back(), Result(1, 9, 7));  // 20 x 256 of 65536 bytes
    EXPECT_TRUE(StepUntil([&] { return Count(0x2C04) > stopsBefore; }, 1000));  // left at once
    EXPECT_TRUE(FileThere());
    EXPECT_EQ(Slot(1), Result(1, 9, 7));
}

// Calibration: the engine is configured and read again; the box's verdict goes back to the
// requester as four bytes, and the new engine reaches the status broadcast.
TEST_F(E2eUpgradeTest, E2eCalibrationConfiguresReadsAndAnswersFourBytes) {
    Launch();
    ByteVec engine(52, 0);
    engine[0] = 0x34;
    engine[1] = 0x12;
    std::memcpy(&engine[4], "V6", 2);
    const int seq = hostsim::BusInject(6779, engine);
    ASSERT_TRUE(StepUntil([&] { return !Answer(6779, seq).empty(); }, 10000));
    EXPECT_EQ(Answer(6779, seq), (ByteVec{0, 0, 0, 0}));
    ASSERT_TRUE(StepUntil(
        [&] {
            const auto s = Bus(6699);
            return !s.empty() && (s.back().payload[0] & CFG_MASK_ENGINE) &&
                   s.back().payload[272] == 0x34 && s.back().payload[273] == 0x12;
        },
        10000));
    const auto rx = m_box->Received();
    const auto cfg =
        std::find_if(rx.begin(), rx.end(), [](const auto& f) { return f.code == 0x2C03; });
    ASSERT_NE(cfg, rx.end());
    EXPECT_EQ(cfg->payload, (ByteVec{0x12, 0x34, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_NE(std::find_if(cfg, rx.end(), [](const auto& f) { return f.code == 0x2C12; }),
              rx.end());
}

// A calibration the box never answers (a box that ignores the request; behind the CAN box, where
// the request is not relayed at all) still gets its answer: failure, once the configure step has
// used up its attempts (11 x 2 s), rather than a requester left waiting for good.
TEST_F(E2eUpgradeTest, E2eUnansweredCalibrationIsAnsweredAsFailed) {
    const struct {
        const char* name;
        int productType;
    } rows[] = {{"serial, request ignored", 0}, {"CAN box", 72}};
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        BoxOptions o;
        o.unanswered = {0x2C03};
        Launch(o, r.productType);
        const ByteVec engine(52, 0x11);
        const int seq = hostsim::BusInject(6779, engine);
        // Behind whatever the queue held before it: at most a stream start and an info read.
        ASSERT_TRUE(StepUntil([&] { return !Answer(6779, seq).empty(); }, 120000));
        EXPECT_EQ(Answer(6779, seq), (ByteVec{0xFF, 0xFF, 0xFF, 0xFF}));
        TearDown();
        SetUp();
    }
}

// A second trigger while the transfer runs (the box holding back a chunk's answer, so that host
// time stands still until the test lets it go) is answered with the running upgrade's percent and
// changes nothing: one transfer on the wire, one success for the first source and no failure,
// even once the box has been asked for its new versions, and the second source's slot as it was.
TEST_F(E2eUpgradeTest, E2eSecondTriggerDuringTheTransferLeavesItAlone) {
    BoxOptions o;
    o.upgradeSilentAfterChunks = 5;
    Launch(o);
    const ByteVec file = WriteFile(4096);  // 16 chunks
    Trigger(1);
    ASSERT_TRUE(StepUntil([&] { return Count(0x2403) >= 6; }, 60000));
    const int second = Trigger(2);
    hostsim::BusDrain();                                // the handler has run and answered
    hostsim::BusDrain();                                // and the answer has reached the listener
    EXPECT_EQ(Answer(6729, second), Result(2, 0, 31));  // 5 x 256 of 4096 bytes
    m_box->Update([](BoxOptions& opt) {
        opt.silent = false;
        opt.upgradeSilentAfterChunks = -1;
    });
    ASSERT_TRUE(StepUntil([&] { return Ended(); }, 60000));
    ASSERT_TRUE(StepUntil([&] { return BroadcastVersion() == "DIAG2.0"; }, 10000));

    int otherSources = 0, failures = 0, successes = 0;
    for (const ByteVec& s : States()) {
        otherSources += s[0] != 1;
        failures += s[2] == 9;
        successes += s[2] == 10;
    }
    EXPECT_EQ(otherSources, 0);
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(successes, 1);
    EXPECT_EQ(States().back(), Result(1, 10, 100));
    EXPECT_EQ(Count(0x2407), 1);
    EXPECT_EQ(Count(0x2402), 1);
    EXPECT_EQ(Count(0x2111), 1);
    EXPECT_TRUE(m_box->Upgrade().image == file);
    EXPECT_FALSE(Upgrading());
    EXPECT_EQ(Slot(1), Result(1, 10, 100));
    EXPECT_EQ(Slot(2), Result(0xFF, 0, 0));
}

// CAN-box mode: the send thread does not execute upgrade tasks there, so the trigger's upgrade
// ends as failed when its task comes to the front and is dropped: nothing on the line, the file
// stays, the slot says failed and the 1 s broadcasts come back.
TEST_F(E2eUpgradeTest, E2eCanBoxTriggerEndsAsFailedAndTheOneSecondWorkGoesOn) {
    Launch({}, 72);
    WriteFile(1024);
    ASSERT_TRUE(StepUntil([&] { return Bus(6702).size() >= 2; }, 5000));
    const int seq = Trigger(1);
    // The start of the stream queued before it waits out its attempts unanswered first.
    ASSERT_TRUE(StepUntil([&] { return !Answer(6729, seq).empty() && Ended(); }, 60000));
    EXPECT_EQ(Answer(6729, seq), Result(1, 0, 0));
    EXPECT_EQ(States(), std::vector<ByteVec>{Result(1, 9, 0)});
    EXPECT_FALSE(Upgrading());
    const size_t broadcasts = Bus(6702).size();
    EXPECT_TRUE(StepUntil([&] { return Bus(6702).size() >= broadcasts + 2; }, 5000));
    EXPECT_EQ(Slot(1), Result(1, 9, 0));
    EXPECT_TRUE(FileThere());
    EXPECT_TRUE(m_box->Received().empty());  // nothing on the serial line
}

}  // namespace

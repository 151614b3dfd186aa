// The periodic cycle's four timers: due at exactly their interval, on absolute differences,
// and gated by the upgrade and power-down flags. Time is whatever `now` the test passes.
#include "CoreTestSupport.h"

namespace {

using Keys = std::vector<std::pair<uint32_t, uint32_t>>;

class CycleTest : public CoreTest {
  protected:
    void SetUp() override {
        CoreTest::SetUp();
        CreateWithCtrl();
    }
    // Runs one cycle at `now` and returns what it queued.
    Keys CycleAt(long long now) {
        CSerialDevOBDTestPeer(m_obj).ClearQueue();
        EXPECT_EQ(m_obj->PeripheralThreadCycle(now), 0);
        return QueueKeys(m_obj);
    }
    // Analyser runs (the 1 s work) since the last call.
    uint32_t AnalyserRuns() {
        CSerialDevOBDTestPeer peer(m_obj);
        const uint32_t runs = peer.AnalyserRuns() - m_runsSeen;
        m_runsSeen = peer.AnalyserRuns();
        peer.Moving();
        return runs;
    }
    uint32_t m_runsSeen = 0;
};

const Keys kFiveSecondWork = {Get(GDS_GET_VERSION), Get(GDS_GET_ENGINE)};
const Keys kTenSecondWork = {Cfg(GDS_CFG_START_TS)};
const Keys kBoth = {Get(GDS_GET_VERSION), Get(GDS_GET_ENGINE), Cfg(GDS_CFG_START_TS)};

TEST_F(CycleTest, FirstCycleBelowOneSecondRunsNothing) {
    EXPECT_EQ(CycleAt(999), Keys{});
    EXPECT_EQ(m_obj->InfoPending(GDS_GET_ALARM_THRESHOLD), 1);
}

TEST_F(CycleTest, FirstCycleAtTenSecondsRunsEveryTimer) {
    AnalyserRuns();
    EXPECT_EQ(CycleAt(10000), kBoth);
    EXPECT_EQ(AnalyserRuns(), 1u);
    // The 5 s work also hands the thresholds to the store.
    EXPECT_EQ(m_obj->InfoPending(GDS_GET_ALARM_THRESHOLD), 0);
    // Right after, nothing is due.
    EXPECT_EQ(CycleAt(10100), Keys{});
    EXPECT_EQ(AnalyserRuns(), 0u);
    CycleAt(11000);
    EXPECT_EQ(AnalyserRuns(), 1u);
}

// Each timer is due at exactly its interval after its last run, on the absolute difference, so a
// clock jumping backwards makes it due too. Rows: cycles at `now` and what each queued.
TEST_F(CycleTest, TimersAreDueAtExactlyTheirIntervalOnAbsoluteDifferences) {
    const std::vector<std::vector<std::pair<long long, Keys>>> runs = {
        // 7000 moves the 5 s timer out of the 10 s timer's way.
        {{7000, kFiveSecondWork}, {9999, {}}, {10000, kTenSecondWork}},
        {{5000, kFiveSecondWork},
         {9999, {}},
         {10000, kBoth},
         {14999, {}},
         {15000, kFiveSecondWork}},
        // 4999 back: nothing; 5000 back; 10000 back from 20000 and 5000 from 15000; the origin.
        {{20000, kBoth}, {15001, {}}, {15000, kFiveSecondWork}, {10000, kBoth}, {0, kBoth}},
    };
    for (size_t r = 0; r < runs.size(); ++r) {
        ObdCycleTimersReset();
        for (const auto& [now, keys] : runs[r]) EXPECT_EQ(CycleAt(now), keys) << r << " at " << now;
    }
}

TEST_F(CycleTest, PowerDownEndsTheCycleInWhichTheOneSecondTimerFalls) {
    CSerialDevOBDTestPeer(m_obj).SetPowerDown(1);
    AnalyserRuns();
    EXPECT_EQ(CycleAt(10000), Keys{});
    EXPECT_EQ(AnalyserRuns(), 0u);
    // The 1 s timer stored 10000: next cycle runs the 2 s, 5 s and 10 s work that is due.
    EXPECT_EQ(CycleAt(10100), kBoth);
    EXPECT_EQ(CycleAt(11000), Keys{});
}

// While upgrading the 1 s timer is neither due nor stored: the first cycle after the upgrade runs
// the 1 s work at once, whenever the timer last ran.
TEST_F(CycleTest, UpgradeTakesTheOneSecondTimerOutOfTheCycle) {
    CSerialDevOBDTestPeer peer(m_obj);
    peer.SetUpgrading(1);
    AnalyserRuns();
    // The 5 s work refuses to ask the box anything while upgrading; the 10 s work still queues
    // its restart.
    EXPECT_EQ(CycleAt(10000), kTenSecondWork);
    EXPECT_EQ(fakehost::CountLogs("S38_OBD: Upgrading......, so not request anything\n", 3), 1);
    CycleAt(11000);
    EXPECT_EQ(AnalyserRuns(), 0u);
    peer.SetUpgrading(0);
    CycleAt(11100);
    EXPECT_EQ(AnalyserRuns(), 1u);
    CycleAt(12099);
    EXPECT_EQ(AnalyserRuns(), 0u);
}

TEST_F(CycleTest, CanBoxModeChecksSilenceInsteadOfRequestingDeviceInformation) {
    PeripheralRelease(m_obj);
    m_obj = nullptr;
    fakehost::Reset();
    ObdCycleTimersReset();
    CreateWithCtrl(72);
    EXPECT_EQ(CycleAt(10000), kTenSecondWork);
    EXPECT_EQ(m_obj->InfoPending(GDS_GET_ALARM_THRESHOLD), 1);
}

TEST_F(CycleTest, CycleWithoutLinkControllerQueuesNothing) {
    PeripheralRelease(m_obj);
    m_obj = nullptr;
    Create();
    EXPECT_EQ(m_obj->PeripheralThreadCycle(10000), 0);
    EXPECT_EQ(m_obj->QueuedTaskCount(), 0u);
}

}  // namespace

// Six-axis calibration, ring filling, the once-a-second evaluation and its two checks.
#include "AnalyserTestUtil.h"

namespace analyser_test {
namespace {

class SixAxisTest : public AnalyserTest {
  protected:
    AxisRing& Ring(int r) { return gds_->collData.axisRing[r]; }
    int16_t Last(int r) { return Ring(r).value[Ring(r).writeIndex]; }
    // Fills the first `count` slots of a ring with v and the rest with `rest`.
    void Fill(int r, int count, int16_t v, int16_t rest = 0) {
        for (int i = 0; i < GDS_AXIS_RING_SIZE; ++i) Ring(r).value[i] = i < count ? v : rest;
    }
    void Evaluate(float speed) {
        Obd obd;
        obd.Speed(speed);
        Second(obd);
    }
    uint32_t Level() const { return Alarm().sixAxisLevel; }
    uint32_t State() const { return gds_->collData.sixAxisState; }
};

TEST_F(SixAxisTest, SampleScalingIntoTheRings) {
    Push(Sample(400, -400, 4096, 0, 0, 0));
    EXPECT_EQ(Last(AXIS_RING_LONGITUDINAL), 9);
    EXPECT_EQ(Last(AXIS_RING_LATERAL), -9);
    EXPECT_EQ(Last(AXIS_RING_VERTICAL), 100);
    EXPECT_EQ(Ring(AXIS_RING_LONGITUDINAL).writeIndex, 1);
    EXPECT_EQ(Ring(AXIS_RING_LONGITUDINAL).readIndex, 2);
    EXPECT_EQ(
        std::memcmp(gds_->collData.sixAxisOrg.data, Sample(400, -400, 4096, 0, 0, 0).data, 12), 0);
}

TEST_F(SixAxisTest, LateralLoadIsYawRateTimesSpeed) {
    Obd obd;
    obd.Speed(60.9f);
    ASSERT_EQ(Gds_IF_UpdateCollectData(COLLECT_OBD_DATA, &obd.Table(), gds_.get()), 0);
    Push(Sample(0, 0, 0, 0, 0, 1640));
    EXPECT_EQ(Last(AXIS_RING_LATERAL_LOAD), 6000);
    Push(Sample(0, 0, 0, 0, 0, -1640));
    EXPECT_EQ(Last(AXIS_RING_LATERAL_LOAD), -6000);
}

TEST_F(SixAxisTest, RingIndexWrapsAfterTenSamples) {
    for (int i = 1; i <= 10; ++i) Push(Sample(static_cast<int16_t>(41 * i), 0, 0, 0, 0, 0));
    EXPECT_EQ(Ring(AXIS_RING_LONGITUDINAL).writeIndex, 0);
    EXPECT_EQ(Ring(AXIS_RING_LONGITUDINAL).value[0], 10);  // 410 * 100 / 4096
    EXPECT_EQ(Ring(AXIS_RING_LONGITUDINAL).value[1], 1);
}

TEST_F(SixAxisTest, CalibrationAveragesTwentySamplesAndIgnoresThe21st) {
    ASSERT_EQ(Gds_IF_StartSixAxisProofread(gds_.get()), 0);
    for (int i = 0; i < 20; ++i)  // acc X alternates 100/101, rotation Z sums to -39
        Push(Sample(static_cast<int16_t>(i % 2 ? 101 : 100), -3, 0, 7, 0,
                    static_cast<int16_t>(i < 19 ? -2 : -1)));
    EXPECT_EQ(gds_->proofread.state, 1u);
    EXPECT_EQ(gds_->proofread.count, 20u);
    EXPECT_NE(gds_->proofread.buffer, nullptr);
    Push(Sample(30000, 30000, 30000, 30000, 30000, 30000));
    EXPECT_EQ(gds_->proofread.state, 0u);
    EXPECT_EQ(gds_->proofread.buffer, nullptr);
    EXPECT_EQ(gds_->proofread.offset[0], 100);  // 2010 / 20
    EXPECT_EQ(gds_->proofread.offset[1], -3);
    EXPECT_EQ(gds_->proofread.offset[3], 7);
    EXPECT_EQ(gds_->proofread.offset[5], -1);  // -39 / 20 truncates toward zero
    Push(Sample(500, 0, 0, 0, 0, 0));
    EXPECT_EQ(Last(AXIS_RING_LONGITUDINAL), 9);  // (500 - 100) * 100 / 4096
}

TEST_F(SixAxisTest, CalibrationAllocatesOnlyOnceAndReleaseFreesAPendingBuffer) {
    ASSERT_EQ(Gds_IF_StartSixAxisProofread(gds_.get()), 0);
    ResetAllocationCount();
    for (int i = 0; i < 5; ++i) Push(Sample(1, 2, 3, 4, 5, 6));
    EXPECT_EQ(AllocationCount(), 1);
    ASSERT_EQ(Gds_IF_StartSixAxisProofread(gds_.get()), 0);  // restart reuses the buffer
    Push(Sample(1, 2, 3, 4, 5, 6));
    EXPECT_EQ(AllocationCount(), 1);
    EXPECT_EQ(gds_->proofread.count, 1u);
    EXPECT_EQ(Gds_IF_ReleaseLogicAnalyser(gds_.get()), 0);
    EXPECT_EQ(gds_->proofread.buffer, nullptr);
    EXPECT_EQ(gds_->proofread.state, 0u);
    EXPECT_EQ(Gds_IF_ReleaseLogicAnalyser(gds_.get()), 0);
    EXPECT_EQ(Gds_IF_ReleaseLogicAnalyser(nullptr), -1);
    EXPECT_EQ(Gds_IF_StartSixAxisProofread(nullptr), -1);
}

TEST_F(SixAxisTest, OffsetDifferenceWrapsAtSixteenBits) {
    gds_->proofread.offset[0] = -32768;
    Push(Sample(32767, 0, 0, 0, 0, 0));          // 32767 + 32768 wraps to -1
    EXPECT_EQ(Last(AXIS_RING_LONGITUDINAL), 0);  // -1 * 100 / 4096
    gds_->proofread.offset[0] = 1;
    Push(Sample(-32768, 0, 0, 0, 0, 0));  // wraps to 32767
    EXPECT_EQ(Last(AXIS_RING_LONGITUDINAL), 799);
}

TEST(CalculateRmsecTest, VarianceWithIntegerMean) {
    const int16_t equal[10] = {7, 7, 7, 7, 7, 7, 7, 7, 7, 7};
    EXPECT_EQ(CalculateRMSEC(equal, 10), 0);
    const int16_t split[10] = {10, 10, 10, 10, 10, -10, -10, -10, -10, -10};
    EXPECT_EQ(CalculateRMSEC(split, 10), 100);
    const int16_t skew[3] = {0, 0, 5};  // mean 1: (1 + 1 + 16) / 3
    EXPECT_EQ(CalculateRMSEC(skew, 3), 6);
    int16_t extreme[10];
    for (int i = 0; i < 10; ++i) extreme[i] = i % 2 ? int16_t{32767} : int16_t{-32768};
    EXPECT_EQ(CalculateRMSEC(extreme, 10), 1073709056);
    EXPECT_EQ(CalculateRMSEC(extreme, 0), 0);
    EXPECT_EQ(CalculateRMSEC(nullptr, 10), 0);
}

TEST_F(SixAxisTest, AccelerationNeedsSixOfTenValues) {
    Fill(AXIS_RING_LONGITUDINAL, 5, 12);
    Evaluate(30);
    EXPECT_EQ(Level(), 0u);
    Fill(AXIS_RING_LONGITUDINAL, 6, 12);
    Evaluate(30);
    EXPECT_EQ(Level(), 32u);
    EXPECT_EQ(State(), SIX_AXIS_STATE_ACC);
    Fill(AXIS_RING_LONGITUDINAL, 6, 11);
    Evaluate(30);
    EXPECT_EQ(Level(), 16u);
    Fill(AXIS_RING_LONGITUDINAL, 6, 8);
    Evaluate(30);
    EXPECT_EQ(Level(), 8u);
}

TEST_F(SixAxisTest, DecelerationFlipsTheStateBits) {
    Fill(AXIS_RING_LONGITUDINAL, 6, 12);
    Evaluate(30);
    Fill(AXIS_RING_LONGITUDINAL, 6, -21);
    Evaluate(30);
    EXPECT_EQ(Level(), 4u);
    EXPECT_EQ(State(), SIX_AXIS_STATE_DEC);
    Fill(AXIS_RING_LONGITUDINAL, 6, -17);
    Evaluate(30);
    EXPECT_EQ(Level(), 1u);
    Fill(AXIS_RING_LONGITUDINAL, 6, -16);  // not beyond -17: the level holds, then drops
    const uint32_t want[] = {1, 1, 1, 0};
    for (uint32_t w : want) {
        Evaluate(30);
        EXPECT_EQ(Level(), w);
    }
    EXPECT_EQ(State(), 0u);
}

TEST_F(SixAxisTest, TurnNeedsSevenValuesBelow51AndEightAbove) {
    Fill(AXIS_RING_LATERAL_LOAD, 7, 600);
    Evaluate(40);
    EXPECT_EQ(Level(), 0x80u);
    SetUp();
    Fill(AXIS_RING_LATERAL_LOAD, 7, 600);
    Evaluate(60);
    EXPECT_EQ(Level(), 0u);
    Fill(AXIS_RING_LATERAL_LOAD, 8, -650);
    Evaluate(60);
    EXPECT_EQ(Level(), 0x100u);
    Fill(AXIS_RING_LATERAL_LOAD, 8, 540);
    Evaluate(50);
    EXPECT_EQ(Level(), 0x40u);
    // A turn written in the same second as an acceleration replaces it, and holds two seconds.
    Fill(AXIS_RING_LONGITUDINAL, 6, 12);
    Evaluate(50);
    EXPECT_EQ(Level(), 0x40u);
    EXPECT_EQ(State(), SIX_AXIS_STATE_ACC);
    EXPECT_EQ(gds_->sixAxisCounter.levelHold, 2);
}

TEST_F(SixAxisTest, LateralSideBitsHoldTwoSecondsWhileALevelKeepsTheWord) {
    Fill(AXIS_RING_LATERAL, 6, -19);
    Evaluate(30);
    EXPECT_EQ(State(), SIX_AXIS_STATE_LATERAL_NEG);
    Fill(AXIS_RING_LATERAL, 6, 18);
    Evaluate(30);
    EXPECT_EQ(State(), 0u);               // no level held: the whole word is cleared at once
    Fill(AXIS_RING_LONGITUDINAL, 6, 12);  // a renewed level keeps the word alive
    Fill(AXIS_RING_LATERAL, 6, 19);
    Evaluate(30);
    EXPECT_EQ(State(), SIX_AXIS_STATE_ACC | SIX_AXIS_STATE_LATERAL_POS);
    Fill(AXIS_RING_LATERAL, 6, 18);
    const uint32_t want[] = {SIX_AXIS_STATE_LATERAL_POS, SIX_AXIS_STATE_LATERAL_POS, 0};
    for (uint32_t w : want) {
        Evaluate(30);
        EXPECT_EQ(State(), SIX_AXIS_STATE_ACC | w);
    }
}

TEST_F(SixAxisTest, StrongLateralReplacesTheWholeStateWord) {
    Fill(AXIS_RING_LONGITUDINAL, 6, 12);
    Fill(AXIS_RING_LATERAL, 8, -50);  // below -19 - 29
    Evaluate(30);
    EXPECT_EQ(State(), SIX_AXIS_STATE_STRONG_NEG);
    Fill(AXIS_RING_LATERAL, 8, -48);  // -48 is not below -48
    Evaluate(30);
    EXPECT_NE(State(), SIX_AXIS_STATE_STRONG_NEG);
    Fill(AXIS_RING_LATERAL, 8, 49);
    Evaluate(30);
    EXPECT_EQ(State(), SIX_AXIS_STATE_STRONG_POS);
    Fill(AXIS_RING_LATERAL, 7, 49);
    Evaluate(30);
    EXPECT_NE(State(), SIX_AXIS_STATE_STRONG_POS);
}

TEST_F(SixAxisTest, TurbulenceNeedsTwoOfThreeVariances) {
    Fill(AXIS_RING_LONGITUDINAL, 5, 11, -11);  // variance 121 > 100
    Evaluate(30);
    EXPECT_EQ(State(), 0u);
    Fill(AXIS_RING_LATERAL, 5, 11, -11);
    Evaluate(30);
    EXPECT_EQ(State(), SIX_AXIS_STATE_TURBULENCE);
    Fill(AXIS_RING_LATERAL, 5, 10, -10);  // exactly 100 is not above
    Evaluate(30);
    EXPECT_EQ(State(), 0u);
    Fill(AXIS_RING_VERTICAL, 5, 18, -18);  // 324 > 300
    Evaluate(30);
    EXPECT_EQ(State(), SIX_AXIS_STATE_TURBULENCE);
    gds_->alarmThreshold.turbulenceSensitivity = 3;  // X/Y limit 60, Z limit 200
    Fill(AXIS_RING_LONGITUDINAL, 5, 8, -8);
    Fill(AXIS_RING_VERTICAL, 5, 15, -15);
    Evaluate(30);
    EXPECT_EQ(State(), SIX_AXIS_STATE_TURBULENCE);
}

TEST_F(SixAxisTest, IntenseTurbulenceAlarmFromFourthSecondWhileMoving) {
    Fill(AXIS_RING_LONGITUDINAL, 5, 11, -11);
    Fill(AXIS_RING_LATERAL, 5, 11, -11);
    const float speed[] = {30, 30, 30, 30, 30, 0, 30, 30, 30, 30};
    const bool want[] = {false, false, false, true, true, false, false, false, false, true};
    for (size_t i = 0; i < 10; ++i) {
        Evaluate(speed[i]);
        EXPECT_EQ((E4() & Bit(GDS_E4_INTENSE_TURB)) != 0, want[i]) << "second " << i + 1;
    }
}

TEST_F(SixAxisTest, SideTurnFromSeventhSecondAndSlowDecay) {
    Fill(AXIS_RING_LATERAL, 8, 60);
    for (int t = 1; t <= 7; ++t) {
        Evaluate(30);
        EXPECT_EQ((E4() & Bit(GDS_E4_SIDE_TURN)) != 0, t == 7) << t;
    }
    EXPECT_EQ(gds_->event4Counter.sideTurn, 6);
    Fill(AXIS_RING_LATERAL, 0, 0);
    Evaluate(30);
    EXPECT_EQ(gds_->event4Counter.sideTurn, 0);  // 6 is above 4: straight to 0
    Fill(AXIS_RING_LATERAL, 8, 60);
    for (int t = 0; t < 3; ++t) Evaluate(30);
    Fill(AXIS_RING_LATERAL, 0, 0);
    Evaluate(30);
    EXPECT_EQ(gds_->event4Counter.sideTurn, 2);
}

TEST_F(SixAxisTest, OutOfRangeSensitivityDisablesLateralButZeroesTurbulenceLimits) {
    gds_->alarmThreshold.lateralSensitivity = 0;
    gds_->alarmThreshold.turbulenceSensitivity = 9;
    Fill(AXIS_RING_LATERAL, 8, -60);
    Evaluate(30);
    EXPECT_EQ(State() & (SIX_AXIS_STATE_STRONG_NEG | SIX_AXIS_STATE_LATERAL_NEG), 0u);
    Fill(AXIS_RING_LONGITUDINAL, 5, 1, -1);  // any spread on two axes now counts as turbulence
    Evaluate(30);
    EXPECT_EQ(State(), SIX_AXIS_STATE_TURBULENCE);
}

TEST(SixAxisNullTest, NullArguments) {
    tagSixAxisOrgData s{};
    tagGds6AxisProofread pr{};
    EXPECT_EQ(ProofreadSixAxisData(nullptr, &pr), -1);
    EXPECT_EQ(ProofreadSixAxisData(&s, nullptr), -1);
    EXPECT_EQ(FillSixAxisDataToBuffer(&s, nullptr), -1);
    EXPECT_EQ(Algorithm6AxisData(nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(CheckIntenseTurbAlarm(nullptr, nullptr), 0);
    EXPECT_EQ(CheckSideTurnAlarm(nullptr, nullptr), 0);
    EXPECT_EQ(ProofreadSixAxisData(&s, &pr), 0);  // idle: nothing collected, nothing allocated
    EXPECT_EQ(pr.buffer, nullptr);
}

}  // namespace
}  // namespace analyser_test

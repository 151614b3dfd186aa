// Six-axis intake (scaling, calibration, 16-bit wrap), the once-a-second ring evaluation, its
// two checks, and the motion checks that combine it with the speed judgement.
#include "AnalyserTestUtil.h"

namespace analyser_test {
namespace {

constexpr int X = AXIS_RING_LONGITUDINAL, L = AXIS_RING_LATERAL_LOAD;

class SixAxisTest : public AnalyserTest {
  protected:
    AxisRing& Ring(int r) { return gds_->collData.axisRing[r]; }
    int16_t Last(int r) { return Ring(r).value[Ring(r).writeIndex]; }
    // Rows "rings speed = sixAxisLevel sixAxisState [event word 4 bits]" (see AnalyserTest::Run).
    void Axis(const std::string& table, uint64_t e4mask = 0) {
        std::vector<Observer> o = {FIELD(collData.alarmInfo.sixAxisLevel),
                                   FIELD(collData.sixAxisState)};
        if (e4mask != 0) o.push_back(Word(4, e4mask));
        Run(Scenario("six-axis", {OBD_IDX_SPEED}, o, table));
    }
};

TEST_F(SixAxisTest, SamplesAreScaledIntoTheRingsAndWrapAtSixteenBits) {
    Push(Sample(400, -400, 4096, 0, 0, 0));
    EXPECT_EQ((std::vector<int>{Last(X), Last(AXIS_RING_LATERAL), Last(AXIS_RING_VERTICAL)}),
              (std::vector<int>{9, -9, 100}));
    EXPECT_EQ(
        std::memcmp(gds_->collData.sixAxisOrg.data, Sample(400, -400, 4096, 0, 0, 0).data, 12), 0);
    Obd obd;
    Feed(obd.Speed(60.9f));  // yaw rate times speed: (1640 * 100 / 164) * 60 / 10
    Push(Sample(0, 0, 0, 0, 0, 1640));
    EXPECT_EQ(Last(L), 6000);
    Push(Sample(0, 0, 0, 0, 0, -1640));
    EXPECT_EQ(Last(L), -6000);
    Feed(obd.Speed(25.9f));  // each division truncates in turn: 10000 / 164 = 60, 60 * 25 / 10
    Push(Sample(0, 0, 0, 0, 0, 100));
    EXPECT_EQ(Last(L), 150);
    Feed(obd.Speed(65561));  // the speed is taken as 16 bits (25): 1000 / 164 = 6, 6 * 25 / 10
    Push(Sample(0, 0, 0, 0, 0, 10));
    EXPECT_EQ(Last(L), 15);
    Feed(obd.Speed(60.9f));  // 60 km/h again for the offsets below
    for (int i = 1; i <= 5; ++i) Push(Sample(410 * i, 0, 0, 0, 0, 0));
    EXPECT_EQ(Ring(X).writeIndex, 0);  // ten writes: back at slot 0
    EXPECT_EQ(Ring(X).value[0], 50);   // 2050 * 100 / 4096
    gds_->proofread.offset[0] = -32768;
    Push(Sample(32767, 0, 0, 0, 0, 0));  // the difference wraps to -1
    EXPECT_EQ(Last(X), 0);
    gds_->proofread.offset[0] = 1;
    Push(Sample(-32768, 0, 0, 0, 0, 0));  // wraps to 32767
    EXPECT_EQ(Last(X), 799);
    // Each ring has its own offset: acceleration X, Y, Z and rotation Z (rotation X, Y unused).
    const int16_t offsets[6] = {100, -200, 300, 7, 7, 50};
    std::memcpy(gds_->proofread.offset, offsets, sizeof(offsets));
    Push(Sample(500, -600, 4396, 0, 0, 214));
    EXPECT_EQ(
        (std::vector<int>{Last(X), Last(AXIS_RING_LATERAL), Last(AXIS_RING_VERTICAL), Last(L)}),
        (std::vector<int>{9, -9, 100, 600}));
}

TEST_F(SixAxisTest, CalibrationAveragesTwentySamplesTruncatingAndAllocatesOnce) {
    ASSERT_EQ(Gds_IF_StartSixAxisProofread(gds_.get()), 0);
    gAllocations = 0;
    for (int i = 0; i < 5; ++i) Push(Sample(9, 9, 9, 9, 9, 9));
    ASSERT_EQ(Gds_IF_StartSixAxisProofread(gds_.get()), 0);  // restart: the buffer is reused
    for (int i = 0; i < 20; ++i)  // acc X sums to 2010, rotation Z to -39
        Push(Sample(i % 2 ? 101 : 100, -3, 0, 7, 0, i < 19 ? -2 : -1));
    EXPECT_EQ(gAllocations.load(), 1);
    EXPECT_EQ(gds_->proofread.state, 1u);
    Push(Sample(30000, 30000, 30000, 30000, 30000, 30000));  // the 21st only completes
    EXPECT_EQ(gds_->proofread.state, 0u);
    EXPECT_EQ(Last(X), 729);  // but is itself filled with the new offsets: 29900 * 100 / 4096
    EXPECT_EQ(gds_->proofread.buffer, nullptr);
    const int16_t want[6] = {100, -3, 0, 7, 0, -1};  // -39 / 20 truncates toward zero
    EXPECT_EQ(std::memcmp(gds_->proofread.offset, want, sizeof(want)), 0);
    Push(Sample(500, 0, 0, 0, 0, 0));
    EXPECT_EQ(Last(X), 9);  // (500 - 100) * 100 / 4096
    Gds_IF_StartSixAxisProofread(gds_.get());
    Push(Sample(1, 2, 3, 4, 5, 6));
    EXPECT_EQ(Gds_IF_ReleaseLogicAnalyser(gds_.get()), 0);  // frees a pending buffer
    EXPECT_EQ(gds_->proofread.buffer, nullptr);
}

// The variance with an integer mean; no overflow at the extremes, nothing for no values.
TEST(CalculateRmsecTest, IntegerVariance) {
    const int16_t skew[3] = {0, 0, 5};  // mean 1: (1 + 1 + 16) / 3
    int16_t extreme[10];
    for (int i = 0; i < 10; ++i) extreme[i] = i % 2 ? int16_t{32767} : int16_t{-32768};
    EXPECT_EQ(CalculateRMSEC(skew, 3), 6);
    EXPECT_EQ(CalculateRMSEC(extreme, 10), 1073709056);
    EXPECT_EQ(CalculateRMSEC(extreme, 0), 0);
}

// One evaluation each. Levels need more than five of ten values (acceleration 8/10/12,
// deceleration -17/-19/-21, lateral band), a turn seven of ten (eight above 50 km/h), a strong
// lateral more than seven beyond the band by 29, turbulence two of three variances above their
// limits (a variance equal to the limit is not above it). A sensitivity out of 1-3 gives no
// lateral band and turbulence limits of 0.
TEST_F(SixAxisTest, CountThresholdsInOneSecond) {
    Axis(
        "!X5*12 30 = 0 0; !X6*12 30 = 32 ACC; !X6*11 30 = 16 ACC; !X6*10 30 = 16 ACC;"
        "!X6*9 30 = 8 ACC; !X6*8 30 = 8 ACC; !X6*7 30 = 0 0; !X5*12/10 30 = 16 ACC;"
        "!X5*-21 30 = 0 0; !X6*-21 30 = 4 DEC; !X6*-19 30 = 2 DEC; !X6*-17 30 = 1 DEC;"
        "!X6*-16 30 = 0 0; !L7*600 40 = 0x80 0; !L7*600 50 = 0x80 0; !L7*600 51 = 0 0;"
        "!L8*600 51 = 0x80 0; !L6*650 40 = 0 0; !L7*-650 40 = 0x100 0; !L7*540 40 = 0x40 0;"
        "!L7*539 40 = 0 0; !L7*650 40 = 0x100 0; !L7*-600 40 = 0x80 0; !L7*-540 40 = 0x40 0;"
        "!X6*12 L7*540 40 = 0x40 ACC; !Y6*-19 30 = 0 NEG; !Y5*-19 30 = 0 0;"
        "!Y6*-18 30 = 0 0; !Y6*19 30 = 0 POS; !Y6*18 30 = 0 0; !lat1 Y6*-24 30 = 0 NEG;"
        "!lat1 Y6*-23 30 = 0 0; !lat3 Y6*14 30 = 0 POS; !lat3 Y6*13 30 = 0 0;"
        "!Y8*-49 30 = 0 SN; !Y8*-48 30 = 0 NEG; !Y7*-49 30 = 0 NEG; !Y8*49 30 = 0 SP;"
        "!Y5*19 30 = 0 0; !Y8*48 30 = 0 POS; !Y7*49 30 = 0 POS; !X6*12/-12 Y6*12/-12 30 = 32 TURB;"
        "!X6*12 Y8*-50 30 = 32 SN; !X5*11/-11 30 = 0 0; !X5*11/-11 Y5*11/-11 30 = 0 TURB;"
        "!X5*10/-10 Y5*11/-11 30 = 0 0; !X5*11/-11 Z5*18/-18 30 = 0 TURB;"
        "!X5*11/-11 Z5*17/-17 30 = 0 0; !turb1 X5*15/-15 Y5*15/-15 30 = 0 TURB;"
        "!turb1 X5*14/-14 Y5*14/-14 30 = 0 0; !turb3 X5*8/-8 Z5*15/-15 30 = 0 TURB;"
        "!turb3 X5*7/-7 Z5*14/-14 30 = 0 0; !lat0 turb9 Y8*-60 30 = 0 0;"
        "!lat0 turb9 Y8*-60 X5*1/-1 30 = 0 TURB");
}

TEST_F(SixAxisTest, HoldsAndAlarmsOverSeconds) {
    // A level (deceleration or acceleration) holds three more seconds, a turn two.
    Axis(
        "X6*12 30 = 32 ACC; X6*-21 30 = 4 DEC; X6*-17 30 = 1 DEC; 3* X6*-16 30 = 1 DEC;"
        "30 = 0 0; X6*12 30 = 32 ACC; 3* X0*0 30 = 32 ACC; 30 = 0 0");
    Axis("L7*600 40 = 0x80 0; 2* L0*0 40 = 0x80 0; 40 = 0 0");
    // Without a held level the whole state word clears each second; with one, either side holds
    // two more seconds, and a switch of side clears the other side's bit.
    Axis(
        "Y6*-19 30 = 0 NEG; Y6*18 30 = 0 0; X6*12 Y6*19 30 = 32 ACC|POS;"
        "2* Y6*18 30 = 32 ACC|POS; 30 = 32 ACC; Y6*-19 30 = 32 ACC|NEG;"
        "2* Y6*-18 30 = 32 ACC|NEG; 30 = 32 ACC; Y6*19 30 = 32 ACC|POS; Y6*-19 30 = 32 ACC|NEG;"
        "Y6*19 30 = 32 ACC|POS");
    // Turbulence alarm from the 4th second while the speed value is above 0.
    Axis(
        "3* X5*11/-11 Y5*11/-11 30 = 0 TURB 0; 2* 30 = 0 TURB b1; 0 = 0 TURB 0;"
        "3* 30 = 0 TURB 0; 0.5 = 0 TURB b1",
        B(1));
    // Side turn from the 7th second; a quiet second takes a count of 1-4 down by one (3, 4) and
    // clears a higher one (6, 5).
    Axis(
        "6* Y8*60 30 = 0 SP 0; 30 = 0 SP b4; Y0*0 30 = 0 0 0; 3* Y8*60 30 = 0 SP 0;"
        "Y0*0 30 = 0 0 0; 4* Y8*60 30 = 0 SP 0; 30 = 0 SP b4; Y0*0 30 = 0 0 0;"
        "4* Y8*60 30 = 0 SP 0; Y0*0 30 = 0 0 0; 3* Y8*60 30 = 0 SP 0; 30 = 0 SP b4;"
        "Y0*0 30 = 0 0 0; 5* Y8*60 30 = 0 SP 0; Y0*0 30 = 0 0 0; 6* Y8*60 30 = 0 SP 0;"
        "30 = 0 SP b4",
        B(4));
    // Sudden turn from 30 km/h (29.9 reads 29), at the turn level, and only with the speed sent
    // (an absent slot's stale 40 does not count); rapid acceleration from both judgements (speed
    // level 32 with six-axis level 16 gives level 2; six-axis alone nothing).
    Axis(
        "L10*600 25 = 0x80 0 0; 30 = 0x80 0 b6; 29.9 = 0x80 0 0; ~40 = 0x80 0 0;"
        "L10*540 30 = 0x40 0 b5; L10*650 30 = 0x100 0 b7",
        7 * B(5));
    Axis("X6*10 4* 20 = 16 ACC 0; 50 = 16 ACC b9", 7 * B(8));
    // Emergency deceleration: speed (four seconds back) and six-axis both at a level.
    Axis(
        "!4* 60 = 0 0 0; X6*-17 27 = 1 DEC b11; !4* 60 = 0 0 0; X6*-19 24 = 2 DEC b12;"
        "!4* 60 = 0 0 0; X6*-21 18 = 4 DEC b13",
        7 * B(11));
}

// {speedAccDec, sixAxisLevel, hold (both highRpmHold and brakeHold), rapid acceleration,
// emergency deceleration}. Both judgements: the lower level; speed alone: level 1 while held.
TEST(MotionCheckTest, CombinationRules) {
    std::istringstream cases(
        "32 16 0 2 0  16 32 0 2 0  8 32 0 1 0  32 8 0 1 0  32 32 0 3 0  16 16 0 2 0  8 0 1 1 0"
        "  8 0 0 0 0  32 0 1 1 0  0 32 1 0 0  32 128 0 0 0  8 4 1 1 0  4 0 1 0 1  4 0 0 0 0"
        "  4 2 0 0 2  2 4 0 0 2  4 4 0 0 3  1 4 0 0 1  0 4 1 0 0  2 2 1 0 2");
    unsigned o, x, hold;
    int rapid, emergency;
    while (cases >> o >> x >> hold >> rapid >> emergency) {
        Alarm_Info_t a{};
        a.speedAccDec = static_cast<uint8_t>(o);
        a.sixAxisLevel = x;
        a.highRpmHold = a.brakeHold = static_cast<uint8_t>(hold);
        EXPECT_EQ(CheckRapidAcceAlarm(&a), rapid) << o << "/" << x << "/" << hold;
        EXPECT_EQ(CheckEmergencyDecelerationAlarm(&a), emergency) << o << "/" << x << "/" << hold;
    }
}

}  // namespace
}  // namespace analyser_test

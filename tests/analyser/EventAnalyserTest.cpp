// Event words and the motion checks that combine the speed and six-axis judgements.
#include "AnalyserTestUtil.h"

namespace analyser_test {
namespace {

Alarm_Info_t Info(uint8_t speedAccDec, uint32_t sixAxisLevel, uint8_t highRpm, uint8_t brake) {
    Alarm_Info_t a{};
    a.speedAccDec = speedAccDec;
    a.sixAxisLevel = sixAxisLevel;
    a.highRpmHold = highRpm;
    a.brakeHold = brake;
    return a;
}

TEST(MotionCheckTest, RapidAccelerationTakesTheLowerOfBothLevels) {
    struct Case {
        uint8_t o;
        uint32_t x;
        uint8_t rpm;
        int want;
    } cases[] = {
        {32, 16, 0, 2},   {16, 32, 0, 2}, {8, 32, 0, 1}, {32, 8, 0, 1},
        {32, 32, 0, 3},   {16, 16, 0, 2}, {8, 0, 1, 1},  {8, 0, 0, 0},
        {32, 0, 1, 1},    {0, 32, 1, 0},  {4, 4, 1, 0},  // decelerations are not accelerations
        {32, 0x80, 0, 0},
    };
    for (const Case& c : cases) {
        const Alarm_Info_t a = Info(c.o, c.x, c.rpm, 0);
        EXPECT_EQ(CheckRapidAcceAlarm(&a), c.want) << int(c.o) << "/" << c.x << "/" << int(c.rpm);
    }
    EXPECT_EQ(CheckRapidAcceAlarm(nullptr), 0);
}

TEST(MotionCheckTest, EmergencyDecelerationUsesTheBrakeHold) {
    struct Case {
        uint8_t o;
        uint32_t x;
        uint8_t brake;
        int want;
    } cases[] = {
        {4, 0, 1, 1}, {4, 0, 0, 0}, {4, 2, 0, 2}, {2, 4, 0, 2},
        {4, 4, 0, 3}, {1, 4, 0, 1}, {0, 4, 1, 0}, {8, 0, 1, 0},
    };
    for (const Case& c : cases) {
        const Alarm_Info_t a = Info(c.o, c.x, 0, c.brake);
        EXPECT_EQ(CheckEmergencyDecelerationAlarm(&a), c.want)
            << int(c.o) << "/" << c.x << "/" << int(c.brake);
    }
}

TEST(MotionCheckTest, SuddenTurnNeeds30KmH) {
    Obd obd;
    const Alarm_Info_t a = Info(0, 0x80, 0, 0);
    obd.Speed(29.9f);
    EXPECT_EQ(CheckSuddenTurn(&obd.Table(), &a), 0);
    obd.Speed(30);
    EXPECT_EQ(CheckSuddenTurn(&obd.Table(), &a), 2);
    obd.Absent(OBD_IDX_SPEED);
    EXPECT_EQ(CheckSuddenTurn(&obd.Table(), &a), 0);
    obd.Speed(30);
    const Alarm_Info_t l1 = Info(0, 0x40, 0, 0), l3 = Info(0, 0x100, 0, 0);
    EXPECT_EQ(CheckSuddenTurn(&obd.Table(), &l1), 1);
    EXPECT_EQ(CheckSuddenTurn(&obd.Table(), &l3), 3);
}

using EventWordTest = AnalyserTest;

TEST_F(EventWordTest, SuddenTurnBitThroughTheWholeSecond) {
    for (int i = 0; i < GDS_AXIS_RING_SIZE; ++i)
        gds_->collData.axisRing[AXIS_RING_LATERAL_LOAD].value[i] = i < 7 ? 600 : 0;
    Obd slow;
    slow.Speed(25);
    Second(slow);
    EXPECT_EQ(Alarm().sixAxisLevel, 0x80u);
    EXPECT_EQ(E4() & (7 * Bit(GDS_E4_SUDDEN_TURN)), 0u);
    Obd thirty;
    thirty.Speed(30);
    Second(thirty);
    EXPECT_EQ(E4() & (7 * Bit(GDS_E4_SUDDEN_TURN)), Bit(6));
}

TEST_F(EventWordTest, RapidAccelerationFromBothJudgementsInTheSameSecond) {
    for (int i = 0; i < GDS_AXIS_RING_SIZE; ++i)
        gds_->collData.axisRing[AXIS_RING_LONGITUDINAL].value[i] = i < 6 ? 10 : 0;  // level 16
    Obd before;
    before.Speed(20);
    for (int i = 0; i < 4; ++i) Second(before);
    EXPECT_EQ(E4() & (7 * Bit(GDS_E4_RAPID_ACCE)), 0u);  // six-axis alone reports nothing
    Obd after;
    after.Speed(50);  // speed level 32
    Second(after);
    EXPECT_EQ(E4() & (7 * Bit(GDS_E4_RAPID_ACCE)), Bit(9));
}

TEST_F(EventWordTest, WordsAreRewrittenEverySecond) {
    Obd glide;
    glide.Speed(60).Rpm(800);
    for (int i = 0; i < 6; ++i) Second(glide);
    ASSERT_NE(E4() & Bit(GDS_E4_NEUTRAL_GLIDE), 0u);
    Obd cruise;
    cruise.Speed(60).Rpm(1500);
    Second(cruise);
    EXPECT_EQ(E4(), 0u);
}

TEST_F(EventWordTest, NullArgumentsLeaveTheWordsAsTheyWere) {
    tagGdsCollDataList& c = gds_->collData;
    c.alarmInfo.eventType1Alarms = 0x11;
    c.alarmInfo.eventType4Alarms = 0x44;
    GdsAnalyserEventType1(&c, nullptr, &gds_->alarmThreshold);
    GdsAnalyserEventType2(&c, &gds_->event2Counter, nullptr);
    GdsAnalyserEventType3(nullptr, &gds_->event3Counter, &gds_->alarmThreshold);
    GdsAnalyserEventType4(&c, nullptr, &gds_->alarmThreshold);
    EXPECT_EQ(c.alarmInfo.eventType1Alarms, 0x11u);
    EXPECT_EQ(c.alarmInfo.eventType4Alarms, 0x44u);
}

}  // namespace
}  // namespace analyser_test

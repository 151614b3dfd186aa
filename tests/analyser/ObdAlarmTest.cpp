// OBD-data checks driven through the once-a-second evaluation, second by second.
#include <vector>

#include "AnalyserTestUtil.h"

namespace analyser_test {
namespace {

using ObdAlarmTest = AnalyserTest;

// One row = `seconds` consecutive seconds with the same readings and the same expected word.
struct Row {
    int seconds;
    float speed;
    float rpm;
    uint64_t word;
};

TEST_F(ObdAlarmTest, NeutralGlideRisesInSixthSecondAndOneQuietSecondClearsIt) {
    const std::vector<Row> rows = {
        {5, 60, 800, 0}, {2, 60, 800, Bit(GDS_E4_NEUTRAL_GLIDE)}, {1, 60, 0, 0}, {5, 60, 800, 0},
        {1, 60, 900, 0},  // rpm must stay below 900
        {6, 50, 800, 0},  // speed must exceed 50
    };
    int t = 0;
    for (const Row& r : rows)
        for (int i = 0; i < r.seconds; ++i, ++t) {
            Obd obd;
            obd.Speed(r.speed).Rpm(r.rpm);
            Second(obd);
            EXPECT_EQ(E4() & Bit(GDS_E4_NEUTRAL_GLIDE), r.word) << "second " << t + 1;
        }
}

TEST_F(ObdAlarmTest, AbsentItemFreezesTheCounter) {
    Obd moving;
    moving.Speed(60).Rpm(800);
    Obd noSpeed;
    noSpeed.Rpm(800);
    for (int i = 0; i < 3; ++i) Second(moving);
    Second(noSpeed);
    EXPECT_EQ(gds_->event4Counter.neutralGlide, 3);
    for (int i = 0; i < 2; ++i) Second(moving);
    EXPECT_EQ(E4() & Bit(GDS_E4_NEUTRAL_GLIDE), 0u);
    Second(moving);
    EXPECT_NE(E4() & Bit(GDS_E4_NEUTRAL_GLIDE), 0u);
}

TEST_F(ObdAlarmTest, ColdStartNeedsMoreThanFiveSecondsBelowZero) {
    Obd cold;
    cold.Speed(5).Rpm(101).Coolant(-1.9f);  // truncates to -1
    for (int i = 1; i <= 5; ++i) {
        Second(cold);
        EXPECT_EQ(E1() & Bit(GDS_E1_COLD_START), 0u) << i;
    }
    Second(cold);
    EXPECT_NE(E1() & Bit(GDS_E1_COLD_START), 0u);
    Obd zero;
    zero.Speed(5).Rpm(101).Coolant(-0.5f);  // truncates to 0: not below 0
    Second(zero);
    EXPECT_EQ(E1() & Bit(GDS_E1_COLD_START), 0u);
}

TEST_F(ObdAlarmTest, CoolantHighRaisesInTwentiethSecondAndHoldsCounterAtTwenty) {
    Obd hot;
    hot.Coolant(120).Speed(11).Rpm(101);
    for (int i = 1; i <= 19; ++i) {
        Second(hot);
        ASSERT_EQ(E1() & Bit(GDS_E1_COOLANT_HIGH), 0u) << i;
    }
    Second(hot);
    EXPECT_NE(E1() & Bit(GDS_E1_COOLANT_HIGH), 0u);
    Obd cooler;
    cooler.Coolant(119.9f).Speed(11).Rpm(101);
    Second(cooler);
    EXPECT_EQ(E1() & Bit(GDS_E1_COOLANT_HIGH), 0u);
    Obd slow;
    slow.Coolant(130).Speed(10).Rpm(101);
    for (int i = 0; i < 25; ++i) Second(slow);
    EXPECT_EQ(E1() & Bit(GDS_E1_COOLANT_HIGH), 0u);
}

TEST_F(ObdAlarmTest, CoolantLowUsesItsOwnProcessWideCounter) {
    Obd chilly;
    chilly.Coolant(4).Speed(20).Rpm(900);
    for (int i = 1; i <= 20; ++i) Second(chilly);
    EXPECT_NE(E1() & Bit(GDS_E1_COOLANT_LOW), 0u);
    EXPECT_EQ(E1() & Bit(GDS_E1_COOLANT_HIGH), 0u);
}

TEST_F(ObdAlarmTest, OverRunningGradesByCurrentRpmWithOneSharedCounter) {
    for (int i = 1; i <= 10; ++i) {
        Obd obd;
        const bool high = i % 2 == 0;
        obd.Speed(50).Rpm(high ? 2450 : 1900);
        Second(obd);
        const uint64_t want = i < 6 ? 0 : Bit(GDS_E2_OVER_RUNNING + (high ? 2 : 0));
        EXPECT_EQ(E2() & (7 * Bit(GDS_E2_OVER_RUNNING)), want) << "second " << i;
    }
    Obd level2;
    level2.Speed(50).Rpm(2400);  // 2000 < rpm <= 2400
    Second(level2);
    EXPECT_EQ(E2() & 7, Bit(1));
    Obd atLimit;
    atLimit.Speed(50).Rpm(1800);
    Second(atLimit);
    EXPECT_EQ(gds_->event2Counter.overRunning, 0);
    EXPECT_EQ(E2() & 7, 0u);
}

TEST_F(ObdAlarmTest, IdlingLevelsAtTheirSecondsAndCounterStopsAtLevel3Time) {
    Obd idle;
    idle.Speed(0).Rpm(750);
    const uint64_t mask = 7 * Bit(GDS_E2_IDLING);
    for (int t = 1; t <= 1805; ++t) {
        Second(idle);
        uint64_t want = 0;
        if (t >= 1800)
            want = Bit(GDS_E2_IDLING + 2);
        else if (t >= 900)
            want = Bit(GDS_E2_IDLING + 1);
        else if (t >= 240)
            want = Bit(GDS_E2_IDLING);
        ASSERT_EQ(E2() & mask, want) << "second " << t;
    }
    EXPECT_EQ(gds_->event2Counter.idling, 1800);
    Obd off;
    off.Speed(0).Rpm(0);
    Second(off);
    EXPECT_EQ(gds_->event2Counter.idling, 0);
    EXPECT_EQ(E2() & mask, 0u);
}

TEST_F(ObdAlarmTest, ThrottleBandsAndTheLevel3CounterReset) {
    Obd wide;
    wide.Speed(30).Set(OBD_IDX_ACCELERATOR, 90);
    for (int i = 0; i < 10; ++i) {
        Second(wide);
        EXPECT_EQ(gds_->event2Counter.throttle, 1);
        EXPECT_EQ(E2() & (7 * Bit(GDS_E2_THROTTLE)), 0u);
    }
    SetUp();
    Obd mid;
    mid.Speed(30).Set(OBD_IDX_ACCELERATOR, 70);
    for (int i = 1; i <= 7; ++i) {
        Second(mid);
        EXPECT_EQ(E2() & (7 * Bit(GDS_E2_THROTTLE)), i >= 6 ? Bit(GDS_E2_THROTTLE + 1) : 0u);
    }
    Obd slow;
    slow.Speed(20).Set(OBD_IDX_ACCELERATOR, 61);  // level 1 band: speed <= 20, a > 60
    for (int i = 1; i <= 6; ++i) Second(slow);
    EXPECT_EQ(E2() & (7 * Bit(GDS_E2_THROTTLE)), Bit(GDS_E2_THROTTLE));
    Obd stopped;
    stopped.Speed(0).Set(OBD_IDX_ACCELERATOR, 61);
    Second(stopped);
    EXPECT_EQ(gds_->event2Counter.throttle, 0);
}

// Drive, stop with the engine idling for idleSeconds, then switch off.
void DriveStopIdle(ObdAlarmTest* t, int idleSeconds, float mileage2,
                   void (ObdAlarmTest::*second)(Obd&)) {
    Obd drive;
    drive.Speed(40).Rpm(1500).Set(OBD_IDX_MILEAGE2, mileage2);
    (t->*second)(drive);
    Obd idle;
    idle.Speed(0).Rpm(700).Set(OBD_IDX_MILEAGE2, mileage2);
    for (int i = 0; i < idleSeconds; ++i) (t->*second)(idle);
}

class ParkingCloseEngineTest : public ObdAlarmTest {
  public:
    void Run(int idleSeconds, float mileage2) {
        DriveStopIdle(this, idleSeconds, mileage2, &ParkingCloseEngineTest::Second);
        Obd off;
        off.Speed(0).Rpm(0).Set(OBD_IDX_MILEAGE2, mileage2);
        Second(off);
        first = E1() & Bit(GDS_E1_PARKING_CLOSE_ENGINE);
        Second(off);
        second = E1() & Bit(GDS_E1_PARKING_CLOSE_ENGINE);
    }
    uint64_t first = 0, second = 0;
};

TEST_F(ParkingCloseEngineTest, ShortIdleBeforeSwitchOffRepeatsEverySecond) {
    Run(5, 20);
    EXPECT_NE(first, 0u);
    EXPECT_NE(second, 0u);
}
TEST_F(ParkingCloseEngineTest, IdleOfTheRequiredTimeIsQuiet) {
    Run(12, 20);
    EXPECT_EQ(first | second, 0u);
    EXPECT_EQ(gds_->event1Counter.parkingCloseEngine, 10);
}
TEST_F(ParkingCloseEngineTest, EightBitCounterWrapsAfter255Seconds) {
    Run(260, 20);
    EXPECT_NE(first, 0u);
    EXPECT_EQ(gds_->event1Counter.parkingCloseEngine, 4);
}
TEST_F(ParkingCloseEngineTest, LongTripNeedsSixtySecondsAndEqualLimitNeedsNothing) {
    Run(59, 51);
    EXPECT_NE(first, 0u);
    SetUp();
    Run(60, 51);
    EXPECT_EQ(first, 0u);
    SetUp();
    Run(0, 50);
    EXPECT_EQ(first, 0u);
}
TEST_F(ParkingCloseEngineTest, NeverMovedNeverAlarms) {
    Obd off;
    off.Speed(0).Rpm(0).Set(OBD_IDX_MILEAGE2, 20);
    for (int i = 0; i < 3; ++i) Second(off);
    EXPECT_EQ(E1() & Bit(GDS_E1_PARKING_CLOSE_ENGINE), 0u);
}

TEST_F(ObdAlarmTest, HighSpeedStartJudgedOnceForThePlugInsLife) {
    Obd moving;
    moving.Speed(40).Rpm(1500);
    Second(moving);
    EXPECT_NE(E1() & Bit(GDS_E1_HIGH_SPEED_START), 0u);
    Second(moving);
    EXPECT_EQ(E1() & Bit(GDS_E1_HIGH_SPEED_START), 0u);
    Obd idle;
    idle.Speed(0).Rpm(800);
    Second(idle);
    Second(moving);
    EXPECT_EQ(E1() & Bit(GDS_E1_HIGH_SPEED_START), 0u);
}

TEST_F(ObdAlarmTest, HighSpeedStartWarmUpBoundary) {
    Obd idle;
    idle.Speed(0).Rpm(800);
    Obd moving;
    moving.Speed(10).Rpm(1200);
    for (int i = 0; i < 9; ++i) Second(idle);
    Second(moving);
    EXPECT_NE(E1() & Bit(GDS_E1_HIGH_SPEED_START), 0u);
    Gds_TestResetProcessState();
    SetUp();
    for (int i = 0; i < 10; ++i) Second(idle);
    Second(moving);
    EXPECT_EQ(E1() & Bit(GDS_E1_HIGH_SPEED_START), 0u);
}

TEST_F(ObdAlarmTest, BatteryLevelsAfter120SecondsPerSystemAndEngineState) {
    struct Case {
        float rpm;
        float volt;
        uint64_t word;  // expected from the 121st second
    };
    const Case cases[] = {
        {800, 13.9f, Bit(GDS_E3_BATTERY + 2)},  // running 12 V: 1300 < 1350 charge limit
        {800, 14.0f, 0},                        // 1400: charging fine
        {800, 11.9f, Bit(GDS_E3_BATTERY)},      // 1100 < 1200: low
        {800, 24.9f, Bit(GDS_E3_BATTERY)},      // 24 V system: 2400 < 2450
        {800, 26.0f, Bit(GDS_E3_BATTERY + 2)},  // 2600 < 2700
        {0, 10.9f, Bit(GDS_E3_BATTERY + 1)},    // engine off: 10 < 11 whole volts
        {0, 11.5f, 0},                          // 11 is not below 11
        {0, 22.0f, Bit(GDS_E3_BATTERY + 1)},    // 24 V system off: 22 < 23
        {0, 23.5f, 0},
    };
    for (const Case& c : cases) {
        Gds_TestResetProcessState();
        SetUp();
        Obd obd;
        obd.Rpm(c.rpm).Volt(c.volt);
        for (int t = 1; t <= 121; ++t) {
            Second(obd);
            ASSERT_EQ(E3() & 7, t <= 120 ? 0u : c.word)
                << "rpm " << c.rpm << " V " << c.volt << " second " << t;
        }
    }
}

TEST_F(ObdAlarmTest, BatteryEngineStateHysteresisAndCounterReset) {
    Obd running;
    running.Rpm(101).Volt(13);
    for (int i = 0; i < 121; ++i) Second(running);
    EXPECT_EQ(E3() & 7, Bit(2));
    Obd hundred;
    hundred.Rpm(100).Volt(13);  // counts as off without clearing the flag: 13 V is fine when off
    Second(hundred);
    EXPECT_EQ(gds_->event3Counter.batteryVolt, 0);
    Second(running);  // flag still set: running again at once, counting from 1
    EXPECT_EQ(gds_->event3Counter.batteryVolt, 1);
    Obd noVolt;
    noVolt.Rpm(800).Volt(0.5f);
    Second(noVolt);
    EXPECT_EQ(gds_->event3Counter.batteryVolt, 0);
}

TEST_F(ObdAlarmTest, BrakeWearLevel2SetsOnlyBit9AndWrapsAt256) {
    Obd braking;
    braking.Speed(25).Set(OBD_IDX_BRAKE, 1);
    for (int t = 1; t <= 16; ++t) {
        Second(braking);
        ASSERT_EQ(E1() & (7 * Bit(GDS_E1_BRAKE_WEAR)), t <= 15 ? 0u : Bit(9)) << t;
    }
    for (int t = 17; t <= 256; ++t) Second(braking);
    EXPECT_EQ(gds_->event1Counter.brakeWear, 0);  // 8-bit counter wrapped
    EXPECT_EQ(E1() & (7 * Bit(GDS_E1_BRAKE_WEAR)), 0u);
    Obd fast;
    fast.Speed(31).Set(OBD_IDX_BRAKE, 1);
    for (int t = 1; t <= 16; ++t) Second(fast);
    EXPECT_EQ(E1() & (7 * Bit(GDS_E1_BRAKE_WEAR)), Bit(8));
}

TEST_F(ObdAlarmTest, ClutchWearOnlyAbove30WithDefaults) {
    Obd fast;
    fast.Speed(31).Set(OBD_IDX_CLUTCH, 1);
    for (int t = 1; t <= 11; ++t) {
        Second(fast);
        ASSERT_EQ(E1() & (7 * Bit(GDS_E1_CLUTCH_WEAR)), t <= 10 ? 0u : Bit(11)) << t;
    }
    Obd slow;
    slow.Speed(30).Set(OBD_IDX_CLUTCH, 1);
    Second(slow);  // no level: counter kept, nothing reported
    EXPECT_EQ(E1() & (7 * Bit(GDS_E1_CLUTCH_WEAR)), 0u);
    EXPECT_EQ(gds_->event1Counter.clutchWear, 11);
}

TEST_F(ObdAlarmTest, RunningWithBrakeAndParkingChecksAtTheirLimits) {
    Obd brake;
    brake.Speed(11).Set(OBD_IDX_RUNNING_BRAKE, 1);
    for (int t = 1; t <= 11; ++t) {
        Second(brake);
        ASSERT_EQ(E1() & Bit(GDS_E1_RUNNING_WITH_BRAKE), t <= 10 ? 0u : Bit(2)) << t;
    }
    Obd gas;
    gas.Speed(0).Rpm(1501);
    for (int t = 1; t <= 3; ++t) {
        Second(gas);
        ASSERT_EQ(E2() & Bit(GDS_E2_PARKING_LARGE_GAS), t <= 2 ? 0u : Bit(3)) << t;
    }
    Obd clutch;
    clutch.Speed(0).Rpm(700).Set(OBD_IDX_CLUTCH, 1);
    for (int t = 1; t <= 21; ++t) {
        Second(clutch);
        ASSERT_EQ(E2() & Bit(GDS_E2_PARKING_ON_CLUTCH), t <= 20 ? 0u : Bit(6)) << t;
    }
    Obd lowGear;
    lowGear.Speed(29).Rpm(1501);
    for (int t = 1; t <= 6; ++t) {
        Second(lowGear);
        ASSERT_EQ(E2() & Bit(GDS_E2_LOW_GEAR_HIGH_SPEED), t <= 5 ? 0u : Bit(4)) << t;
    }
    Obd flameout;
    flameout.Speed(11).Rpm(99);
    for (int t = 1; t <= 6; ++t) {
        Second(flameout);
        ASSERT_EQ(E4() & Bit(GDS_E4_ENGINE_FLAMEOUT), t <= 5 ? 0u : Bit(3)) << t;
    }
}

TEST_F(ObdAlarmTest, CoolantDropTimedFromWarm) {
    Obd warm;
    warm.Speed(50).Coolant(91);
    Second(warm);
    Obd falling;
    falling.Speed(50).Coolant(70);
    for (int i = 0; i < 179; ++i) Second(falling);
    Obd cold;
    cold.Speed(50).Coolant(49);
    Second(cold);
    EXPECT_NE(E3() & Bit(GDS_E3_COOLANT_DROP), 0u);  // 179 s < 180 s
    Second(warm);
    for (int i = 0; i < 180; ++i) Second(falling);
    Second(cold);
    EXPECT_EQ(E3() & Bit(GDS_E3_COOLANT_DROP), 0u);  // 180 s is slow enough
    EXPECT_EQ(gds_->event3Counter.coolantTempDrop, 180);
}

TEST_F(ObdAlarmTest, CoolantDropNeedsTheWarmFlagFirst) {
    Obd cold;
    cold.Speed(50).Coolant(40);
    Second(cold);
    EXPECT_EQ(E3() & Bit(GDS_E3_COOLANT_DROP), 0u);
}

// ---- speed-derived acceleration and the holds ----

TEST_F(ObdAlarmTest, SpeedAccelerationLevelAndItsFourSecondVisibility) {
    // Back to 20 after the jump so that no later second renews the level.
    const float speeds[] = {20, 20, 20, 20, 50, 20, 20, 20, 20};
    const uint8_t want[] = {0, 0, 0, 0, 32, 32, 32, 32, 0};
    for (size_t i = 0; i < sizeof(speeds) / sizeof(speeds[0]); ++i) {
        Obd obd;
        obd.Speed(speeds[i]);
        Second(obd);
        EXPECT_EQ(Alarm().speedAccDec, want[i]) << "second " << i + 1;
    }
}

// Four seconds at p, then one at s: the level the speed change gives in that fifth second.
struct SpeedCase {
    int p, s;
    uint8_t level;
};

class SpeedChangeTest : public AnalyserTest {
  protected:
    uint8_t Run(const SpeedCase& c) {
        SetUp();
        Obd before;
        before.Speed(static_cast<float>(c.p));
        for (int i = 0; i < 4; ++i) Second(before);
        Obd now;
        now.Speed(static_cast<float>(c.s));
        Second(now);
        return Alarm().speedAccDec;
    }
};

TEST_F(SpeedChangeTest, AccelerationLimitsLoweredBySpeedBand) {
    // a = (s - p) * 20000 / 3600; limits 130/150/180 lowered by 15/30/40/45 from 30/50/90/120.
    const SpeedCase cases[] = {
        {5, 29, 8},      // a = 133, not lowered
        {5, 28, 0},      // a = 127
        {10, 30, 0},     // a = 111 < 115
        {10, 31, 8},     // a = 116 >= 115
        {25, 49, 8},     // a = 133: 115 <= a < 135
        {25, 50, 16},    // a = 138: lowered 30 -> 120 <= a < 150
        {20, 50, 32},    // a = 166 >= 150
        {90, 109, 8},    // a = 105: lowered 40 -> 90 <= a < 110
        {90, 110, 16},   // a = 111 >= 110
        {120, 137, 8},   // a = 94: lowered 45 -> 85 <= a < 105
        {100, 125, 32},  // a = 138 >= 135
        {0, 100, 0},     // nothing four seconds ago
    };
    for (const SpeedCase& c : cases) EXPECT_EQ(Run(c), c.level) << c.p << " -> " << c.s;
}

TEST_F(SpeedChangeTest, DecelerationLimitsAreNotLowered) {
    const SpeedCase cases[] = {
        {60, 28, 0},  // d = 177
        {60, 27, 1},  // d = 183
        {60, 24, 2},  // d = 200
        {60, 19, 2},  // d = 227
        {60, 18, 4},  // d = 233
        {60, 0, 0},   // standing still is not judged
        {60, 60, 0},
    };
    for (const SpeedCase& c : cases) EXPECT_EQ(Run(c), c.level) << c.p << " -> " << c.s;
}

TEST_F(ObdAlarmTest, HighRpmHoldRisesInFifthSecondAndDrains) {
    const float rpm[] = {1900, 1900, 1900, 1900, 1900, 1900, 1000, 1000, 1000, 1000, 1000};
    const uint8_t want[] = {0, 0, 0, 0, 1, 1, 1, 1, 1, 1, 0};
    for (size_t i = 0; i < sizeof(rpm) / sizeof(rpm[0]); ++i) {
        Obd obd;
        obd.Rpm(rpm[i]);
        Second(obd);
        EXPECT_EQ(Alarm().highRpmHold, want[i]) << "second " << i + 1;
    }
    Obd edge;
    edge.Rpm(1800);  // not above 1800
    for (int i = 0; i < 6; ++i) Second(edge);
    EXPECT_EQ(Alarm().highRpmHold, 0);
}

TEST_F(ObdAlarmTest, BrakeHoldLastsThreeSecondsAfterRelease) {
    const float brake[] = {1, 0, 0, 0, 0, 0.9f};
    const uint8_t want[] = {1, 1, 1, 1, 0, 0};
    for (size_t i = 0; i < sizeof(brake) / sizeof(brake[0]); ++i) {
        Obd obd;
        obd.Set(OBD_IDX_BRAKE, brake[i]);
        Second(obd);
        EXPECT_EQ(Alarm().brakeHold, want[i]) << "second " << i + 1;
    }
}

TEST(ObdAlarmNullTest, NullArgumentsGiveZeroWithoutSideEffects) {
    _OBD_DataTable_t t{};
    uint8_t c8 = 0;
    int16_t c16 = 0;
    GDS_ALARM_THRESOLD_tag_ thr{};
    EXPECT_EQ(CheckNeutralGlideAlarm(nullptr, &c8, &thr.neutralGlide), 0);
    EXPECT_EQ(CheckNeutralGlideAlarm(&t, nullptr, &thr.neutralGlide), 0);
    EXPECT_EQ(CheckIdlingTimeoutAlarm(&t, &c16, nullptr), 0);
    EXPECT_EQ(CheckCoolantTempHighAlarm(nullptr, &thr.coolantHigh), 0);
    EXPECT_EQ(AlgorithmObdAlarm(nullptr, &thr, nullptr), -1);
    // The battery check runs without a counter; it must not write through the null pointer.
    t.item[OBD_IDX_ENGINE_SPEED] = {OBD_IDX_ENGINE_SPEED, 800};
    t.item[OBD_IDX_BATTERY_VOLT] = {OBD_IDX_BATTERY_VOLT, 12};
    EXPECT_EQ(CheckBatteryVoltAlarm(&t, nullptr, &thr.voltage), 0);
}

}  // namespace
}  // namespace analyser_test

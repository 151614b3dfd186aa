// Trip statistics: per-sample differences with their filters, per-second counts and bands.
#include <limits>

#include "AnalyserTestUtil.h"

namespace analyser_test {
namespace {

class StatisticsTest : public AnalyserTest {
  protected:
    // Hands one OBD sample to the analyser (per-sample statistics only).
    void Sample(Obd& obd) {
        ASSERT_EQ(Gds_IF_UpdateCollectData(COLLECT_OBD_DATA, &obd.Table(), gds_.get()), 0);
    }
    const BaseStatisticsData_t_& Base() const { return gds_->collData.statistics.base; }
    const DrivingBehavior_t_& Drv() const { return gds_->collData.statistics.driving; }
};

TEST_F(StatisticsTest, MileageAddsSmallStepsAndDropsJumps) {
    const struct {
        float odo;
        float total;
    } rows[] = {
        {1000.0f, 0.0f},                    // first reading only sets the base
        {1000.5f, 0.5f},  {1020.0f, 0.5f},  // a jump of 19.5 is dropped
        {1029.9f, 10.4f},                   // 9.9 is kept
        {1039.9f, 10.4f},                   // exactly 10 is dropped
        {1039.0f, 10.4f},                   // backwards: nothing
        {1039.5f, 10.9f},                   // counted from the reading that went backwards
    };
    for (const auto& r : rows) {
        Obd obd;
        obd.Rpm(800).Set(OBD_IDX_MILEAGE, r.odo);
        Sample(obd);
        EXPECT_NEAR(Base().mileage1, r.total, 1e-3) << r.odo;
        EXPECT_EQ(Base().mileage1, Base().mileage2);
    }
}

TEST_F(StatisticsTest, MileageFallsBackToTheSecondDistanceItem) {
    Obd a, b;
    a.Speed(5).Set(OBD_IDX_MILEAGE2, 200.0f);
    b.Speed(5).Set(OBD_IDX_MILEAGE2, 200.3f);
    Sample(a);
    Sample(b);
    EXPECT_NEAR(Base().mileage1, 0.3f, 1e-4);
    Obd still;  // engine off and standing: nothing counted
    still.Set(OBD_IDX_MILEAGE2, 200.6f);
    Sample(still);
    EXPECT_NEAR(Base().mileage1, 0.3f, 1e-4);
}

TEST_F(StatisticsTest, FuelGoingBackwardsAddsNothingAndResetsTheBase) {
    // An implausible reading adds nothing, and the next one cannot go back below it either.
    const float fuel[] = {51.0f, 51.5f, 50.0f, 50.5f, 1e9f, 51.0f, 51.5f};
    const float want[] = {0.0f, 0.5f, 0.5f, 1.0f, 1.0f, 1.0f, 1.5f};
    for (int i = 0; i < 7; ++i) {
        Obd obd;
        obd.Rpm(800).Speed(10).Set(OBD_IDX_FUEL, fuel[i]);
        Sample(obd);
        EXPECT_NEAR(Base().fuel1, want[i], 1e-4) << i;
        EXPECT_EQ(Base().fuel1, Base().fuel2);
        EXPECT_EQ(Base().driveFuel, Base().fuel1);
        EXPECT_EQ(Base().idleFuel, 0.0f);
    }
}

TEST_F(StatisticsTest, GrossIsTheFuelFallbackAndIdleFuelNeedsTheEngine) {
    const struct {
        float rpm, speed, gross;
        float idle, drive;
    } rows[] = {
        {700, 0, 10.0f, 0, 0},         {700, 0, 10.25f, 0.25f, 0}, {700, 0.9f, 10.5f, 0.5f, 0},
        {700, 5, 10.75f, 0.5f, 0.25f}, {0, 5, 11.0f, 0.5f, 0.25f},
    };
    for (const auto& r : rows) {
        Obd obd;
        obd.Rpm(r.rpm).Speed(r.speed).Set(OBD_IDX_GROSS, r.gross);
        Sample(obd);
        EXPECT_FLOAT_EQ(Base().idleFuel, r.idle) << r.gross;
        EXPECT_FLOAT_EQ(Base().driveFuel, r.drive) << r.gross;
    }
    EXPECT_FLOAT_EQ(Base().fuel1, 1.0f);  // the last row moved without engine speed: still counts
}

TEST_F(StatisticsTest, BrakeCountsNewPositiveValuesOnly) {
    const float brake[] = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 2, 3, -1, 0.5f};
    for (float b : brake) {
        Obd obd;
        obd.Set(OBD_IDX_BRAKE, b);
        Sample(obd);
    }
    EXPECT_EQ(Base().brakeCount, 4u);  // 1, 2, 3, 0.5
}

TEST_F(StatisticsTest, IdleFuelOfALongIdleCountsFromItsStartOnceTheAlarmRises) {
    for (int t = 1; t <= 300; ++t) {
        Obd obd;
        obd.Speed(0).Rpm(750).Set(OBD_IDX_FUEL, 10.0f + 0.01f * static_cast<float>(t));
        Second(obd);
        if (t == 240) {
            EXPECT_EQ(Base().idleAlarmFuel, 0.0f);
        }
        if (t == 241) {
            EXPECT_NEAR(Base().idleAlarmFuel, 2.40f, 2e-3);
        }
    }
    EXPECT_NEAR(Base().idleAlarmFuel, 2.99f, 2e-3);
    EXPECT_NEAR(Base().idleFuel, 2.99f, 2e-3);
}

TEST_F(StatisticsTest, ShortIdleThenDrivingOffAddsNothingToTheAlarmFuel) {
    for (int t = 1; t <= 200; ++t) {
        Obd obd;
        obd.Speed(0).Rpm(750).Set(OBD_IDX_FUEL, 10.0f + 0.01f * static_cast<float>(t));
        Second(obd);
    }
    Obd drive;
    drive.Speed(20).Rpm(1500).Set(OBD_IDX_FUEL, 12.02f);
    Second(drive);
    for (int t = 1; t <= 250; ++t) {  // a later idle starts from zero pending fuel
        Obd obd;
        obd.Speed(0).Rpm(750).Set(OBD_IDX_FUEL, 12.02f + 0.01f * static_cast<float>(t));
        Second(obd);
        if (t == 240) {
            EXPECT_EQ(Base().idleAlarmFuel, 0.0f);
        }
    }
    // The first idle sample already has a base (the driving sample), so 250 steps count.
    EXPECT_NEAR(Base().idleAlarmFuel, 2.50f, 2e-3);
}

TEST_F(StatisticsTest, PerSecondDriveIdleAndRunTime) {
    const struct {
        float speed, rpm;
    } rows[] = {{10, 1500}, {0.5f, 0}, {0, 800}, {0, 0}, {-3, 800}};
    for (const auto& r : rows) {
        Obd obd;
        obd.Speed(r.speed).Rpm(r.rpm);
        Second(obd);
    }
    EXPECT_EQ(Base().driveTime, 2u);
    EXPECT_EQ(Base().idleTime, 1u);
    EXPECT_EQ(Base().runTime, 3u);
}

TEST_F(StatisticsTest, BandEdgesBelongToTheLowerBand) {
    const struct {
        float speed;
        int band;  // -1: none
    } rows[] = {{0, -1}, {30, 0}, {30.5f, 1}, {60, 1}, {120, 3}, {120.5f, 4}, {250, 4}};
    for (const auto& r : rows) {
        SetUp();
        Obd obd;
        obd.Speed(r.speed);
        Second(obd);
        for (int b = 0; b < 5; ++b)
            EXPECT_EQ(Drv().speedBandStat[b].seconds, b == r.band ? 1u : 0u)
                << "speed " << r.speed << " band " << b;
    }
    SetUp();
    const float rpm[] = {800, 800.5f, 2400, 2400.5f, 0};
    for (float v : rpm) {
        Obd obd;
        obd.Rpm(v);
        Second(obd);
    }
    EXPECT_EQ(Drv().engineSpeedBandStat[0].seconds, 1u);
    EXPECT_EQ(Drv().engineSpeedBandStat[1].seconds, 1u);
    EXPECT_EQ(Drv().engineSpeedBandStat[6].seconds, 1u);
    EXPECT_EQ(Drv().engineSpeedBandStat[7].seconds, 1u);
}

TEST_F(StatisticsTest, AcceleratorBandsAndLevelTimes) {
    Obd obd;
    obd.Set(OBD_IDX_ACCELERATOR, 80.0f);
    Second(obd);
    EXPECT_EQ(Drv().acceleratorBandStat[3].seconds, 1u);   // 60 < 80 <= 80
    const uint16_t want[9] = {1, 1, 1, 0, 0, 0, 0, 0, 0};  // above 50, 60, 75 only
    for (int j = 0; j < 9; ++j) EXPECT_EQ(Drv().acceleratorLevelTime[j], want[j]) << j;
    obd.Set(OBD_IDX_ACCELERATOR, 130.5f);
    Second(obd);
    EXPECT_EQ(Drv().acceleratorBandStat[4].seconds, 1u);
    EXPECT_EQ(Drv().acceleratorLevelTime[8], 1u);
}

TEST_F(StatisticsTest, BandFuelDropsJumpsAboveFive) {
    const struct {
        float fuel;
        float bandFuel;
    } rows[] = {{100, 0}, {105, 5}, {110.5f, 5}, {111, 5.5f}};
    for (const auto& r : rows) {
        Obd obd;
        obd.Speed(45).Rpm(1300).Set(OBD_IDX_ACCELERATOR, 20).Set(OBD_IDX_FUEL, r.fuel);
        Sample(obd);
        EXPECT_FLOAT_EQ(Drv().speedBandStat[1].fuel, r.bandFuel) << r.fuel;
        EXPECT_FLOAT_EQ(Drv().engineSpeedBandStat[3].fuel, r.bandFuel);
        EXPECT_FLOAT_EQ(Drv().acceleratorBandStat[1].fuel, r.bandFuel);
    }
    EXPECT_FLOAT_EQ(Base().fuel1, 11.0f);  // the 5.5 step is fine for the base statistics
}

TEST_F(StatisticsTest, EconomyIdleClassesFromTheIdlingCounter) {
    EconomyStatisticsData_t_ eco{};
    Obd obd;
    const int counters[] = {0, 1, 179, 180, 900, 1800};
    for (int c : counters)
        GdsStatisticsEconomyDataTime(&obd.Table(), &eco, c, &gds_->statThreshold);
    EXPECT_EQ(eco.idleOverTime[0], 5u);
    EXPECT_EQ(eco.idleOverTime[1], 3u);
    EXPECT_EQ(eco.idleOverTime[2], 2u);
    EXPECT_EQ(eco.idleOverTime[3], 1u);
}

TEST_F(StatisticsTest, EconomyFollowsTheIdlingCheckSecondBySecond) {
    Obd idle;
    idle.Speed(0).Rpm(700);
    for (int t = 0; t < 181; ++t) Second(idle);
    EXPECT_EQ(gds_->collData.economy.idleOverTime[0], 181u);
    EXPECT_EQ(gds_->collData.economy.idleOverTime[1], 2u);  // seconds 180 and 181
}

TEST_F(StatisticsTest, ImplausibleReadingsAddNothing) {
    const float bad[] = {std::numeric_limits<float>::quiet_NaN(),
                         std::numeric_limits<float>::infinity(), -5.0f, 1e8f};
    for (float v : bad) {
        SetUp();
        Obd a, b;
        a.Rpm(800).Set(OBD_IDX_FUEL, 10).Set(OBD_IDX_MILEAGE, 10);
        b.Rpm(800).Set(OBD_IDX_FUEL, v).Set(OBD_IDX_MILEAGE, v);
        Sample(a);
        Sample(b);
        EXPECT_EQ(Base().fuel1, 0.0f) << v;
        EXPECT_EQ(Base().mileage1, 0.0f) << v;
    }
}

}  // namespace
}  // namespace analyser_test

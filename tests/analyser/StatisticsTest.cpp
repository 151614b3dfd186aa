// Trip statistics: the filters of the per-sample differences (gap, jump, going backwards,
// implausible values, fallback items), per-second times, band edges and idle classes.
#include "AnalyserTestUtil.h"

#define BASE(field) FIELD(collData.statistics.base.field)

namespace analyser_test {
namespace {

constexpr int S = OBD_IDX_SPEED, R = OBD_IDX_ENGINE_SPEED, ACC = OBD_IDX_ACCELERATOR;
constexpr int FUEL = OBD_IDX_FUEL, MILES = OBD_IDX_MILEAGE, GROSS = OBD_IDX_GROSS;

// Bitmask of the bands (0 speed, 1 rpm, 2 accelerator; 3 the accelerator levels) that counted.
Observer Mask(int which) {
    return [which](const tagGdsParam_t& g) {
        const DrivingBehavior_t_& d = g.collData.statistics.driving;
        const BandStat_t_* b[3] = {d.speedBandStat, d.engineSpeedBandStat, d.acceleratorBandStat};
        double m = 0;
        for (int i = 0; i < (which == 3 ? 9 : which == 1 ? 8 : 5); ++i)
            m += std::ldexp(which == 3 ? d.acceleratorLevelTime[i] : b[which][i].seconds, i);
        return m;
    };
}

using StatisticsTest = AnalyserTest;

// Per sample: the first reading only sets the base; a step of 10 or more, a reading going
// backwards and one outside (0, 1e8) add nothing, and the next step counts from the last
// plausible reading. The second distance item (gross fuel) stands in for an implausible
// odometer (fuel reading); an odometer that did not move is used as it is; standing with the
// engine off counts no distance or fuel (an engine speed or a speed of 0.5 is not off). Idle fuel
// needs the engine and a speed truncating to 0 or below, drive fuel both truncating to non-zero
// (so a negative speed counts for both). The brake counts new positive values.
TEST_F(StatisticsTest, CumulativeDifferenceFilters) {
    Run(Scenario(
            "mileage", {R, MILES}, {BASE(mileage1), BASE(mileage2)},
            "800 1000=0 0; 800 1000.5=0.5 0.5; 800 1020=0.5 0.5; 800 1029.9=10.4 10.4;"
            "800 1039.9=10.4 10.4; 800 1039=10.4 10.4; 800 1039.5=10.9 10.9; 800 nan=10.9 10.9;"
            "800 inf=10.9 10.9; 800 1e8=10.9 10.9; !800 99999992=0 0; 800 1e8=0 0"),
        false);
    Run(Scenario("fallback", {S, MILES, OBD_IDX_MILEAGE2}, {BASE(mileage1)},
                 "5 0 200=0; 5 0 200.3=0.3; 0 0 200.6=0.3; 5 100 200.9=0.3; 5 100 201.2=0.3"),
        false);
    Run(Scenario("fuel", {R, S, FUEL}, {BASE(fuel1), BASE(fuel2), BASE(driveFuel)},
                 "800 10 51=0 0 0; 800 10 51.5=.5 .5 .5; 800 10 50=.5 .5 .5; 800 10 50.5=1 1 1;"
                 "800 10 1e9=1 1 1; 800 10 51=1 1 1; 800 10 51.5=1.5 1.5 1.5; 0 0 52=1.5 1.5 1.5;"
                 "800 10 62=1.5 1.5 1.5; 800 10 -5=1.5 1.5 1.5; !0.5 0 20=0 0 0;"
                 "0.5 0 20.5=.5 .5 0; 0 0.5 21=1 1 0; 0 0 21.5=1 1 0"),
        false);
    Run(Scenario(
            "idle or drive", {R, S, GROSS}, {BASE(idleFuel), BASE(driveFuel), BASE(fuel1)},
            "700 0 10=0 0 0; 700 0 10.25=.25 0 .25; 700 0.9 10.5=.5 0 .5; 700 5 10.75=.5 .25 .75;"
            "0 5 11=.5 .25 1; 700 -3 11.25=.75 .5 1.25"),
        false);
    Run(Scenario("brake", {OBD_IDX_BRAKE}, {BASE(brakeCount)},
                 "10*1=1; 0=1; 2=2; 3=3; -1=3; 0.5=4; 0.25=5"),
        false);
}

// The fuel of an idle counts from its start (or from a gap in the fuel readings) once the
// idling alarm rises (240 s), else never; at idling levels 2 and 3 (900 s, 1800 s) it goes on.
// A reading going backwards keeps what is pending, an unchanged one still hands it over, a step
// of exactly 10 is dropped. Idling is judged on the truncated speed and engine speed.
TEST_F(StatisticsTest, IdleAlarmFuel) {
    Run(Scenario("idle alarm fuel", {S, R, FUEL}, {BASE(idleAlarmFuel), BASE(idleFuel)},
                 "240*0 750 10.01+.01=0 -; 0 750 12.41=2.4 2.4; !200*0 750 10.01+.01=0 -;"
                 "20 1500 12.02=0 1.99; 240*0 750 12.03+.01=0 -; 0 750 14.43=2.41 4.4;"
                 "9*0 750 14.44+.01=- -; 0 750 14.53=2.51 4.5; !100*0 750 10.01+.01=0 -;"
                 "0 750 -=0 -; 0 750 12=0 -; 138*0 750 12.01+.01=0 -; 0 750 13.39=1.39 -;"
                 "!900*0 750 1+1=- -; 0 750 901=900 -; 899*0 750 902+1=- -; 0 750 1801=1800 -;"
                 "0 750 1811=1800 -; 0 750 1812=1801 -; !100*0 750 10.01+.01=0 -; 0 750 10.5=0 -;"
                 "139*0 750 10.51+.01=0 -; 0 750 11.9=2.39 2.39; !239*0 750 10.01+.01=0 -;"
                 "0 750 12.5=0 -; 0 750 12.5=2.49 2.49; !240*0.9 750 10.01+.01=0 -;"
                 "0.9 750 12.41=2.4 2.4; !240*0 750 10.01+.01=0 -; 0 0.5 12.41=0 -"));
}

// Per second: drive time for speed > 0, idle time for speed 0 with rpm > 0, run time for both.
// Band i holds b_i < v <= b_(i+1), the last band everything above; the accelerator level times
// count values above each level. The band fuel drops a step above 5 (exactly 5 counts) and any
// step from a previous reading outside (0, 1e8); it goes to the bands of the new sample, at any
// speed and engine speed that are not 0 (0.5 too).
TEST_F(StatisticsTest, PerSecondTimesAndBands) {
    Run(Scenario("times", {S, R}, {BASE(driveTime), BASE(idleTime), BASE(runTime)},
                 "10 1500=1 0 1; 0.5 0=2 0 2; 0 800=2 1 3; 0 0=2 1 3; -3 800=2 1 3"));
    Run(Scenario("bands", {S, R, ACC}, {Mask(0), Mask(1), Mask(2), Mask(3)},
                 "!0 0 0=0 0 0 0; !30 800 10=b0 b0 b0 0; !30.5 800.5 10.5=b1 b1 b1 0;"
                 "!60 2400 50=b1 b6 b2 0; !120 2400.5 80=b3 b7 b3 7; !120.5 3000 80.5=b4 b7 b4 15;"
                 "!250 1000 130=b4 b1 b4 255; !90 1000.5 130.5=b2 b2 b4 511"));
    Run(Scenario("band fuel", {S, R, ACC, FUEL},
                 {FIELD(collData.statistics.driving.speedBandStat[1].fuel),
                  FIELD(collData.statistics.driving.engineSpeedBandStat[3].fuel),
                  FIELD(collData.statistics.driving.acceleratorBandStat[1].fuel), BASE(fuel1)},
                 "45 1300 20 100=0 0 0 0; 45 1300 20 105=5 5 5 5; 45 1300 20 110.5=5 5 5 10.5;"
                 "45 1300 20 111=5.5 5.5 5.5 11; 0 1300 20 112=5.5 5.5 5.5 12;"
                 "45 1300 20 -1=5.5 5.5 5.5 12; 45 1300 20 12345=5.5 5.5 5.5 12;"
                 "45 1300 20 -inf=5.5 5.5 5.5 12; 45 1300 20 50=5.5 5.5 5.5 12;"
                 "45 1300 20 51=6.5 6.5 6.5 13; 75 1700 40 52=6.5 6.5 6.5 14;"
                 "0.5 1300 20 53=6.5 7.5 7.5 15; 45 0.5 20 54=7.5 7.5 8.5 16"),
        false);
    Run(Scenario("band fuel of the new sample", {S, R, ACC, FUEL},
                 {FIELD(collData.statistics.driving.speedBandStat[2].fuel),
                  FIELD(collData.statistics.driving.engineSpeedBandStat[5].fuel),
                  FIELD(collData.statistics.driving.acceleratorBandStat[2].fuel)},
                 "45 1300 20 100=0 0 0; 75 1700 40 101=1 1 1; 45 1300 20 102=1 1 1"),
        false);
}

// Idle classes from the idling count: seconds idling at all, and from 3, 15 and 30 minutes on.
TEST_F(StatisticsTest, EconomyIdleClasses) {
    Run(Scenario("economy", {S, R},
                 {FIELD(collData.economy.idleOverTime[0]), FIELD(collData.economy.idleOverTime[1]),
                  FIELD(collData.economy.idleOverTime[2]), FIELD(collData.economy.idleOverTime[3])},
                 "0 0=0 0 0 0; 179*0 700=- 0 0 0; 0 700=180 1 0 0; 719*0 700=- - 0 0;"
                 "0 700=900 721 1 0; 899*0 700=- - - 0; 0 700=1800 1621 901 1"));
}

}  // namespace
}  // namespace analyser_test

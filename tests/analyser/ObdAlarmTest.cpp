// OBD-data checks and the speed-derived judgement, second by second through the whole evaluation.
// Each table pins a check's rise (the second before, at and after its duration), its fall, and
// every threshold from both sides; a second with one of its items absent leaves its counter as
// it was (the rise comes one second later). Expected bits are wire bit numbers.
#include "AnalyserTestUtil.h"

namespace analyser_test {
namespace {

constexpr int S = OBD_IDX_SPEED, R = OBD_IDX_ENGINE_SPEED, C = OBD_IDX_COOLANT_TEMP;
constexpr int M2 = OBD_IDX_MILEAGE2, V = OBD_IDX_BATTERY_VOLT, A = OBD_IDX_ACCELERATOR;

std::vector<Scenario> Scenarios() {
    return {
        // An absent item leaves the counter as it was.
        Scenario(
            "NeutralGlide", {S, R}, {Word(4, B(0))},
            "5*60 800=0; 2*60 800=b0; 60 0=0; 5*60 1=0; 60 1=b0; 60 900=0; 5*51 899=0; 51 899=b0;"
            "50 899=0; 3*51 899=0; - 899=0; 2*51 899=0; 51 899=b0"),
        Scenario("EngineFlameout", {S, R}, {Word(4, B(3))},
                 "5*11 99=0; 2*11 99=b3; 10 99=0; 6*11 100=0; 5*11 0=0; 11 0=b3;"
                 "!4*11 99=0; - 99=0; 11 99=0; 11 99=b3"),
        Scenario("RunningWithBrake", {OBD_IDX_RUNNING_BRAKE, S}, {Word(1, B(2))},
                 "10*1 11=0; 2*1 11=b2; 0.9 11=0; 11*1 10=0; !9*1 11=0; 1 -=0; 1 11=0; 1 11=b2"),
        Scenario("ColdStart", {S, R, C}, {Word(1, B(3))},  // -1.9 reads -1, -0.5 reads 0
                 "5*5 101 -1.9=0; 5 101 -1.9=b3; 5 101 -0.5=0; 6*5 100 -5=0; 6*0.9 101 -5=0;"
                 "!4*5 101 -5=0; 5 101 -=0; 5 101 -5=0; 5 101 -5=b3"),
        // Each coolant check keeps its own count.
        Scenario("Coolant", {C, S, R}, {Word(1, B(4) | B(5))},
                 "19*120 11 101=0; 2*120 11 101=b4; 119.9 11 101=0; 20*130 10 101=0;"
                 "20*130 11 100=0; 19*4 11 101=0; 2*4 11 101=b5; 5 11 101=0; 20*-40 10 101=0;"
                 "!18*120 11 101=0; 120 11 -=0; 120 11 101=0; 120 11 101=b4;"
                 "!18*4 11 101=0; - 11 101=0; 4 11 101=0; 4 11 101=b5"),
        Scenario(
            "ParkingLargeGasLowGearHighSpeed", {S, R}, {Word(2, B(3) | B(4))},
            "2*0 1501=0; 0 1501=b3; 0.9 1501=b3; 3*0 1500=0; 3*1 1501=0; 0 0=0; 5*29 1501=0;"
            "2*29 1501=b4; 6*30 1501=0; 6*29 1500=0; 2*0 1501=0; 0 1501=b3; !0 1501=0; - 1501=0;"
            "0 1501=0; 0 1501=b3; !4*29 1501=0; 29 -=0; 29 1501=0; 29 1501=b4"),
        Scenario("ParkingOnClutch", {S, R, OBD_IDX_CLUTCH}, {Word(2, B(6))},
                 "20*0 700 1=0; 2*0 700 1=b6; 0 700 0=0; 21*1 700 1=0; 21*0 0 1=0;"
                 "!19*0 700 1=0; 0 700 -=0; 0 700 1=0; 0 700 1=b6"),
        // One counter for all levels; the level follows the current rpm.
        Scenario(
            "OverRunning", {S, R}, {Word(2, 7)},
            "5*50 1801=0; 50 1801=b0; 50 2000=b0; 50 2001=b1; 50 2400=b1; 50 2401=b2; 50 1800=0;"
            "2*50 1900=0; 2*50 2450=0; 50 1900=0; 50 2450=b2; 50 1900=b0; 6*0 2450=0;"
            "!4*50 1801=0; - 1801=0; 50 1801=0; 50 1801=b0"),
        Scenario("Idling", {S, R}, {Word(2, 7 * B(10)), FIELD(event2Counter.idling)},
                 "239*0 750=0 -; 660*0 750=b10 -; 900*0.9 750=b11 -; 5*0 750=b12 1800; 0 0=0 0;"
                 "239*0 1=0 -; 0 1=b10 240; !238*0 750=0 -; 0 -=0 238; 0 750=0 239; 0 750=b10 240"),
        // A level-3 pedal at a level-2 speed restarts the count every second: never reported.
        Scenario(
            "Throttle", {S, A}, {Word(2, 7 * B(7))},
            "5*30 70=0; 2*30 70=b8; 10*30 90=0; 30 60=0; 5*30 79=0; 30 79=b8; 0 0=0; 5*20 61=0;"
            "20 61=b7; 0 61=0; 6*20 60=0; 5*21 61=0; 21 61=b8; !4*20 61=0; 20 -=0; 20 61=0;"
            "20 61=b7"),
        Scenario("ThrottleLevel3", {S, A}, {Word(2, 7 * B(7))}, "5*30 80=0; 2*30 80=b9; 30 79=0",
                 [](tagGdsParam_t& g) { g.alarmThreshold.throttle.level[1].speed = 40; }),
        // Each level is timed and held by its own group (3, 8, 6 s here). Below group 1's speed
        // but above group 2's, a pedal counted at level 1 restarts at level 2: at 15 km/h the count
        // is 1 every second, never reported. At 8 km/h levels 1 and 3 both count: two a second.
        Scenario("ThrottleGroups", {S, A}, {Word(2, 7 * B(7))},
                 "3*5 70=0; 2*5 70=b7; !8*30 70=0; 2*30 70=b8; !3*8 85=0; 2*8 85=b9; !12*15 70=0",
                 [](tagGdsParam_t& g) {
                     g.alarmThreshold.throttle = {{{3, 20, 60, 0}, {8, 10, 60, 0}, {6, 5, 80, 0}}};
                 }),
        // The 8-bit counter is not held: it wraps after 255 seconds and counts up again. Without
        // a level the count is kept.
        Scenario("BrakeWear", {OBD_IDX_BRAKE, S}, {Word(1, 7 * B(8))},
                 "15*1 25=0; 240*1 25=b9; 16*1 25=0; 1 25=b9; 1 20=0; 1 31=b8; 0 31=0;"
                 "15*1 31=0; 1 31=b8; !14*1 25=0; - 25=0; 1 25=0; 1 25=b9"),
        Scenario("BrakeWearLevel3LowByteTime", {OBD_IDX_BRAKE, S}, {Word(1, 7 * B(8))},
                 "3*1 35=0; 1 35=b10; 1 45=b9; 1 61=b8; 1 30=0",
                 [](tagGdsParam_t& g) { g.alarmThreshold.brakeWear = {0x0103, 0, 0, 60, 40, 30}; }),
        Scenario("ClutchWear", {OBD_IDX_CLUTCH, S}, {Word(1, 7 * B(11))},
                 "10*1 31=0; 1 31=b11; 1 30=0; 1 31=b11; 1 0=0; 1 31=0; !9*1 31=0; 1 -=0; 1 31=0;"
                 "1 31=b11"),
        // Drive, stop, idle, switch off: the alarm repeats while the idle was shorter than 10 s
        // (60 s above 50 distance units, none at exactly 50); the 8-bit idle count wraps. It needs
        // a move with distance first.
        Scenario("ParkingCloseEngine", {M2, S, R}, {Word(1, B(7))},
                 "!20 40 1500=0; 9*20 0 700=0; 3*20 0 0=b7; !20 40 1500=0; 10*20 0 700=0; 20 0 0=0;"
                 "!20 40 1500=0; 255*20 0 700=0; 20 0 0=0; !20 40 1500=0; 256*20 0 700=0;"
                 "20 0 0=b7; !51 40 1500=0; 59*51 0 700=0; 51 0 0=b7; 51 40 1500=0; 60*51 0 700=0;"
                 "51 0 0=0; !0 40 1500=0; 50 0 0=0; 50 40 1500=0; 50 0 0=0; !0 40 1500=0; 20 0 0=0;"
                 "!20 40 1500=0; 9*20 0 700=0; 20 - 700=0; 20 0 0=b7"),
        // Judged once for the process, from the idle before the vehicle first moves.
        Scenario("HighSpeedStart", {S, R}, {Word(1, B(14))},
                 "!40 1500=b14; 40 1500=0; 0 800=0; 40 1500=0; !5*0 800=0; 0 0=0; 9*0 800=0;"
                 "10 1200=b14; !10*0 800=0; 10 1200=0; !9*0 800=0; - 800=0; 10 1200=b14"),
        // 179 s from warm to cold is too fast, 180 s is not; 50 and 90 themselves restart it, and
        // nothing counts before the coolant was once above 90.
        Scenario(
            "CoolantDrop", {S, C}, {Word(3, B(6))},
            "50 91=0; 179*50 70=0; 2*50 49=b6; 50 91=0; 180*50 70=0; 50 49=0; 50 91=0; 179*50 70=0;"
            "50 50=0; 50 70=0; 50 49=b6; 50 91=0; 179*50 70=0; 0 70=0; 50 70=0; 50 49=b6;"
            "!50 90=0; 50 40=0; !50 91=0; 180*50 70=0; - 70=0; 50 49=0"),
        Scenario("SpeedAccHoldsFourSeconds", {S}, {FIELD(collData.alarmInfo.speedAccDec)},
                 "4*20=0; 50=32; 3*20=32; 20=0"),
        Scenario("HighRpmHold", {R}, {FIELD(collData.alarmInfo.highRpmHold)},
                 "4*1900=0; 2*1900=1; 4*1000=1; 1000=0; 6*1800=0"),
        Scenario("BrakeHold", {OBD_IDX_BRAKE}, {FIELD(collData.alarmInfo.brakeHold)},
                 "1=1; 3*0=1; 0=0; 0.9=0"),
        // Battery from the 121st second: the system is 24 V above 18 V; running limits are in
        // hundredths (1200/1350, 2450/2700), engine-off limits in whole volts (11, 23).
        // The count restarts on 0 V, on a good voltage and when the engine state changes.
        Scenario("Battery", {R, V}, {Word(3, 7)},
                 "100*800 13=0; 800 0.5=0; 120*800 13=0; 800 13=b2; 800 14=0; 60*800 13=0;"
                 "120*99 10.9=0; 99 10.9=b1; !120*800 11.9=0; 2*800 11.9=b0; !120*800 12=0; 2*800 "
                 "12=b2; !120*800 13.9=0;"
                 "2*800 13.9=b2; !122*800 14=0; !122*800 18=0; !120*800 19=0; 2*800 19=b0;"
                 "!120*800 24.9=0; 2*800 24.9=b0; !120*800 25=0; 2*800 25=b2; !122*800 27=0;"
                 "!120*101 10.9=0; 2*101 10.9=b0; !120*100 10.9=0; 2*100 10.9=b1; !122*0 11.5=0;"
                 "!122*0 18=0; !120*0 19=0; 2*0 19=b1; !120*0 22.9=0; 2*0 22.9=b1; !122*0 23=0;"
                 "!119*800 11.9=0; - 11.9=0; 800 11.9=0; 800 11.9=b0; !119*800 11.9=0; 800 -=0;"
                 "800 11.9=0; 800 11.9=b0; !60*800 10.9=0; 60*100 10.9=0; 100 10.9=b1;"
                 "!60*100 10.9=0; 61*800 10.9=0"),
        // Four seconds at p, then one at s. Acceleration limits 130/150/180 are lowered by
        // 15/30/40/45 from s = 30/50/90/120; deceleration limits 180/200/230 are not.
        Scenario("SpeedChangeLevels", {S}, {FIELD(collData.alarmInfo.speedAccDec)},
                 "!4*5=0; 29=8; !4*5=0; 28=0; !4*10=0; 30=0; !4*10=0; 31=8; !4*30=0; 49=0;"
                 "!4*25=0; 49=8; !4*31=0; 50=8; !4*25=0; 50=16; !4*20=0; 50=32; !4*72=0; 89=0;"
                 "!4*73=0; 90=8; !4*90=0; 109=8; !4*90=0; 110=16; !4*103=0; 119=0; !4*104=0;"
                 "120=8; !4*120=0; 137=8; !4*100=0; 125=32; !4*0=0; 100=0; !4*60=0; 28=0;"
                 "!4*60=0; 27=1; !4*60=0; 24=2; !4*60=0; 19=2; !4*60=0; 18=4; !4*60=0; 0=0;"
                 "!4*60=0; 60=0; !4*1=0; 28=16; !4*8=0; 30=8; !4*7=0; 29=0;"
                 // The difference is a 16-bit value: 5999 km/h up or down reads as -32209 (no
                 // level), 11820 up as 130 (level 2 with the limits lowered by 45).
                 "!4*1=0; 6000=0; !4*6000=0; 1=0; !4*1=0; 11821=16"),
        // A deceleration limit the defaults cannot hit exactly (9 km/h in four seconds is 50);
        // a drop counts only from a speed above 20.
        Scenario("SpeedDecLevel1Edge", {S}, {FIELD(collData.alarmInfo.speedAccDec)},
                 "!4*30=0; 21=1; !4*30=0; 22=0; !4*21=0; 12=1; !4*20=0; 11=0",
                 [](tagGdsParam_t& g) { g.alarmThreshold.speedDecLevel1 = 50; }),
    };
}

class ObdScenarioTest : public AnalyserTest, public ::testing::WithParamInterface<Scenario> {};
TEST_P(ObdScenarioTest, SecondBySecond) {
    Run(GetParam());
}
INSTANTIATE_TEST_SUITE_P(Checks, ObdScenarioTest, ::testing::ValuesIn(Scenarios()),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace analyser_test

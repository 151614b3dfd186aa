// The entry points: defaults of the threshold block as bus bytes, initialisation, sample intake,
// statistics copy; null, unknown and hostile input; heap use of one second; two feeding threads.
#include <cstdlib>
#include <limits>
#include <new>
#include <random>
#include <thread>

#include "AnalyserTestUtil.h"

// Every heap allocation of this binary is counted: operator new directly, the malloc family
// through the linker's --wrap (which also covers the analyser objects linked from the archive).
std::atomic<long> analyser_test::gAllocations{0};
extern "C" {
void* __real_malloc(size_t n);
void* __real_calloc(size_t n, size_t size);
void* __real_realloc(void* p, size_t n);
void* __wrap_malloc(size_t n) {
    ++analyser_test::gAllocations;
    return __real_malloc(n);
}
void* __wrap_calloc(size_t n, size_t size) {
    ++analyser_test::gAllocations;
    return __real_calloc(n, size);
}
void* __wrap_realloc(void* p, size_t n) {
    ++analyser_test::gAllocations;
    return __real_realloc(p, n);
}
}
void* operator new(size_t n) {
    ++analyser_test::gAllocations;
    if (void* p = __real_malloc(n == 0 ? 1 : n)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, size_t) noexcept {
    std::free(p);
}

namespace analyser_test {
namespace {

using InterfaceTest = AnalyserTest;

// Runs "offset:width values": little-endian 16-bit values (width 2) or bytes (width 1); every
// byte not listed is 0.
TEST_F(InterfaceTest, InitWritesTheThresholdBytesExactly) {
    std::istringstream runs(
        "0:2 8 10 12 130 150 180 17 19 21 180 200 230 540 600 650 | 32:1 2 0 0 0 2 0 0 0 2 |"
        "44:2 23 11 2450 1200 2700 1350 240 900 1800 0 5 10 100 0 5 50 900 0 100 10 120 0 100"
        "     10 5 0 3 90 50 0 5 1800 5 2000 5 2400 | 116:1 5 20 60 0 5 20 60 0 5 20 80 0 |"
        "128:2 2 1500 30 1500 | 136:1 20 | 140:2 10 10 100 0 60 10 50 15 15 10 30 20 30 10 15 20"
        "     30 30 30 10 | 190:2 0 800 1000 1200 1400 1600 2000 2400 | 206:1 0 30 60 90 120 0 10"
        "     30 60 80 50 60 75 80 85 90 100 125 130 0 10 30 50 70 90 0 3 15 30");
    uint8_t want[GDS_THRESHOLD_BYTES] = {};
    std::string run;
    while (std::getline(runs, run, '|')) {
        std::istringstream in(run);
        size_t off = 0, width = 0;
        char colon = 0;
        in >> off >> colon >> width;
        for (int v = 0; in >> v; off += width)
            for (size_t b = 0; b < width; ++b) want[off + b] = uint8_t(v >> (8 * b));
    }
    const auto* got = reinterpret_cast<const uint8_t*>(gds_.get());
    for (size_t i = 0; i < GDS_THRESHOLD_BYTES; ++i) EXPECT_EQ(got[i], want[i]) << "byte " << i;
}

// Init marks every item absent, sets the ring indexes (vertical ring untouched) and clears every
// counter record and the calibration state, but keeps statistics and alarm words. The first
// evaluation after it raises nothing.
TEST_F(InterfaceTest, InitAndTheFirstEvaluation) {
    Gds_IF_AnalyserData(gds_.get());
    const Alarm_Info_t& a = Alarm();
    tagGdsCollDataList& c = gds_->collData;
    EXPECT_EQ(a.eventType1Alarms | a.eventType2Alarms | a.eventType3Alarms | a.eventType4Alarms |
                  a.speedAccDec | a.highRpmHold | a.brakeHold | a.sixAxisLevel | c.sixAxisState,
              0u);
    c.obdData.item[3] = {3, 1.0f};
    c.statistics.base.runTime = 77;
    c.alarmInfo.eventType2Alarms = 5;
    tagGdsParam_t& g = *gds_;
    const std::pair<void*, size_t> cleared[] = {{&g.event1Counter, sizeof g.event1Counter},
                                                {&g.obdAlarmCounter, sizeof g.obdAlarmCounter},
                                                {&g.sixAxisCounter, sizeof g.sixAxisCounter},
                                                {&g.event2Counter, sizeof g.event2Counter},
                                                {&g.event3Counter, sizeof g.event3Counter},
                                                {&g.event4Counter, sizeof g.event4Counter},
                                                {&g.proofread.state, sizeof g.proofread.state},
                                                {&g.proofread.count, sizeof g.proofread.count},
                                                {g.proofread.offset, sizeof g.proofread.offset}};
    for (const auto& r : cleared) std::memset(r.first, 0x5A, r.second);
    ASSERT_EQ(Gds_IF_InitLogicAnalyser(gds_.get()), 0);
    for (const auto& it : c.obdData.item) EXPECT_EQ(it.id, -1);
    for (const auto& r : cleared)
        EXPECT_EQ(std::string(static_cast<const char*>(r.first), r.second),
                  std::string(r.second, 0))
            << "record at offset "
            << static_cast<uint8_t*>(r.first) - reinterpret_cast<uint8_t*>(&g);
    EXPECT_EQ(
        (std::vector<int>{c.speedRing.writeIndex, c.speedRing.readIndex, c.axisRing[0].readIndex,
                          c.axisRing[1].readIndex, c.axisRing[2].readIndex, c.axisRing[3].readIndex,
                          int(c.statistics.base.runTime), int(c.alarmInfo.eventType2Alarms)}),
        (std::vector<int>{0, 1, 1, 1, 0, 1, 77, 5}));
}

// A sample replaces the whole table; other kinds change nothing. Without thresholds the base
// statistics still accumulate; the copy-out carries them.
TEST_F(InterfaceTest, SampleIntakeAndStatisticsEntryPoints) {
    Obd first, cur, prev;
    for (int i = 0; i < OBD_ITEM_COUNT; ++i) first.Set(i, static_cast<float>(i) + 0.5f);
    Second(first);
    Feed(cur.Speed(3));  // everything else absent in this table
    // Byte comparisons on purpose: the records travel byte for byte.
    // NOLINTNEXTLINE(bugprone-suspicious-memory-comparison)
    EXPECT_EQ(std::memcmp(&gds_->collData.obdData, &cur.t, sizeof(_OBD_DataTable_t)), 0);
    auto before = std::make_unique<tagGdsParam_t>();
    std::memcpy(before.get(), gds_.get(), sizeof(tagGdsParam_t));
    uint8_t junk[472] = {0xAB};
    EXPECT_EQ(Gds_IF_UpdateCollectData(COLLECT_GSENSOR_DATA, junk, gds_.get()), 0);
    EXPECT_EQ(Gds_IF_UpdateCollectData(static_cast<CollectDataType_Eum>(7), junk, gds_.get()), 0);
    EXPECT_EQ(std::memcmp(before.get(), gds_.get(), sizeof(tagGdsParam_t)), 0);  // NOLINT
    GdsStatisticsData_t_ stat{};
    Alarm_Info_t alarm{};
    prev.Rpm(800).Set(OBD_IDX_MILEAGE, 100.0f);
    cur.Rpm(800).Set(OBD_IDX_MILEAGE, 101.0f);
    EXPECT_EQ(Gds_IF_StatisticsData(&cur.t, &prev.t, &alarm, &stat, nullptr), 0);
    EXPECT_FLOAT_EQ(stat.base.mileage1, 1.0f);
    for (int i = 0; i < 3; ++i) Second(cur.Speed(40));
    EconomyStatisticsData_t_ eco{};
    ASSERT_EQ(Gds_IF_GetStatistics(gds_.get(), &stat, &eco), 0);
    EXPECT_EQ(stat.base.driveTime, 4u);  // with the first second above
    EXPECT_EQ(stat.driving.speedBandStat[1].seconds, 3u);
    EXPECT_EQ(Gds_IF_GetStatistics(gds_.get(), &stat, nullptr), 0);
}

// Under the sanitizer build this is the proof that no value (NaN, infinities, huge or negative
// floats, absent items, any six-axis bytes, even scrambled thresholds) reaches undefined
// behaviour; and no bit outside the listed alarms is ever set.
TEST_F(InterfaceTest, HostileValuesNeverSetUnusedBits) {
    const uint64_t used[4] = {0x7FBC, 0x1FDF, 0x47, 0x3FFB};
    using F = std::numeric_limits<float>;
    const float pool[] = {F::quiet_NaN(),  F::infinity(), -F::infinity(), F::max(),      -F::max(),
                          F::denorm_min(), 2147483648.0f, -2147483904.0f, 4294967296.0f, 65535.9f,
                          -32769.0f,       1e8f,          -0.0f,          0.0f,          0.99f,
                          -1.0f,           30.0f,         1801.0f};
    std::mt19937 rng(12345);
    std::uniform_int_distribution<int> byte(0, 255), word(-32768, 32767);
    std::uniform_int_distribution<size_t> pick(0, sizeof(pool) / sizeof(pool[0]) + 2);
    std::uniform_real_distribution<float> plain(-5000.0f, 5000.0f);
    for (int round = 0; round < 3; ++round) {
        SetUp();
        if (round == 2)  // scrambled thresholds too
            for (size_t i = 0; i < GDS_THRESHOLD_BYTES; ++i)
                reinterpret_cast<uint8_t*>(gds_.get())[i] = static_cast<uint8_t>(byte(rng));
        for (int t = 0; t < 600; ++t) {
            tagGdsCollDataList& c = gds_->collData;
            if (t % 100 == 0)  // ring indexes of a record never set restart at 0
                for (auto* i : {&c.speedRing.writeIndex, &c.speedRing.readIndex,
                                &c.axisRing[0].writeIndex, &c.axisRing[3].readIndex})
                    *i = static_cast<uint16_t>(byte(rng) * 256 + byte(rng));
            Obd obd;
            for (int i = 0; i < OBD_ITEM_COUNT; ++i) {
                if (byte(rng) < 40) continue;  // absent
                const size_t k = pick(rng);
                obd.Set(i, k < sizeof(pool) / sizeof(pool[0]) ? pool[k] : plain(rng));
            }
            Second(obd);
            for (int k = 0; k < 3; ++k)
                Push(Sample(word(rng), word(rng), word(rng), word(rng), word(rng), word(rng)));
            if (t % 200 == 0) Gds_IF_StartSixAxisProofread(gds_.get());
            ASSERT_LT(c.speedRing.writeIndex + c.axisRing[0].writeIndex, 14) << t;
            for (int w = 1; w <= 4; ++w)
                ASSERT_EQ(Word(w, ~used[w - 1])(*gds_), 0) << w << " at " << t;
        }
    }
}

// Null pointers are refused (-1 from the entry points and record functions, 0 from the checks)
// and change nothing.
TEST_F(InterfaceTest, NullArguments) {
    _OBD_DataTable_t t{};
    uint8_t c8 = 0;
    GDS_ALARM_THRESOLD_tag_ thr{};
    tagSixAxisOrgData s{};
    tagGds6AxisProofread pr{};
    EXPECT_EQ(Gds_IF_InitLogicAnalyser(nullptr) + Gds_IF_StartSixAxisProofread(nullptr) +
                  Gds_IF_ReleaseLogicAnalyser(nullptr) + AlgorithmObdAlarm(nullptr, &thr, nullptr) +
                  Gds_IF_UpdateCollectData(COLLECT_OBD_DATA, nullptr, gds_.get()) +
                  Gds_IF_UpdateCollectData(COLLECT_OBD_DATA, &t, nullptr) +
                  ProofreadSixAxisData(nullptr, &pr) + ProofreadSixAxisData(&s, nullptr) +
                  FillSixAxisDataToBuffer(&s, nullptr) +
                  Algorithm6AxisData(nullptr, &thr, nullptr) +
                  Gds_IF_StatisticsData(&t, &t, &gds_->collData.alarmInfo, nullptr, nullptr) +
                  Gds_IF_GetStatistics(gds_.get(), nullptr, nullptr) +
                  Gds_IF_GetStatistics(nullptr, &gds_->collData.statistics, nullptr),
              -13);
    EXPECT_EQ(CheckNeutralGlideAlarm(nullptr, &c8, &thr.neutralGlide) +
                  CheckCoolantTempHighAlarm(&t, nullptr) + CheckSideTurnAlarm(nullptr, &c8) +
                  CheckRapidAcceAlarm(nullptr) + CheckSuddenTurn(&t, nullptr) +
                  CalculateRMSEC(nullptr, 10),
              0);
    Gds_IF_AnalyserData(nullptr);
    // The battery check runs without a counter; it must not write through the null pointer.
    t.item[OBD_IDX_ENGINE_SPEED] = {OBD_IDX_ENGINE_SPEED, 800};
    t.item[OBD_IDX_BATTERY_VOLT] = {OBD_IDX_BATTERY_VOLT, 12};
    EXPECT_EQ(CheckBatteryVoltAlarm(&t, nullptr, &thr.voltage), 0);
    tagGdsCollDataList& c = gds_->collData;  // the event words stay as they were
    c.alarmInfo.eventType1Alarms = 0x11;
    GdsAnalyserEventType1(&c, nullptr, &gds_->alarmThreshold);
    GdsAnalyserEventType2(&c, &gds_->event2Counter, nullptr);
    GdsAnalyserEventType4(nullptr, &gds_->event4Counter, &gds_->alarmThreshold);
    EXPECT_EQ(c.alarmInfo.eventType1Alarms, 0x11u);
}

TEST_F(InterfaceTest, OneAnalyserSecondDoesNotTouchTheHeap) {
    // Warm up into a state where every part works: moving, idling history, rings full.
    Obd obd;
    obd.Speed(45).Rpm(1900).Set(OBD_IDX_COOLANT_TEMP, 95).Set(OBD_IDX_BATTERY_VOLT, 13);
    obd.Set(OBD_IDX_FUEL, 20).Set(OBD_IDX_MILEAGE, 100).Set(OBD_IDX_MILEAGE2, 100);
    obd.Set(OBD_IDX_BRAKE, 1).Set(OBD_IDX_ACCELERATOR, 70);
    for (int i = 0; i < 12; ++i) Push(Sample(600, -900, 100, 0, 0, 2000));
    for (int i = 0; i < 6; ++i) Second(obd);
    gAllocations = 0;
    for (int i = 0; i < 10; ++i) {
        obd.Set(OBD_IDX_FUEL, 20.0f + 0.1f * static_cast<float>(i));
        Push(Sample(600 + i, -900, 100, 0, 0, 2000));
        Second(obd);
    }
    EXPECT_NE(Alarm().eventType4Alarms, 0u);  // the second really did work
    EXPECT_EQ(gAllocations.load(), 0);
    // The hook itself sees allocations: a calibration start makes the next sample allocate.
    Gds_IF_StartSixAxisProofread(gds_.get());
    Push(Sample(1, 1, 1, 1, 1, 1));
    EXPECT_EQ(gAllocations.load(), 1);
}

TEST_F(InterfaceTest, SamplesFromTheBusThreadInterleaveWithTheEvaluation) {
    std::thread bus([this] {
        for (int i = 0; i < 3000; ++i) {
            tagSixAxisOrgData s = Sample(i, -i, 0, 0, 0, i * 3);
            Gds_IF_UpdateCollectData(COLLECT_SIX_AXIS_DATA, &s, gds_.get());
            if (i == 1000) Gds_IF_StartSixAxisProofread(gds_.get());
        }
    });
    Obd obd;
    for (int t = 0; t < 300; ++t) Second(obd.Speed(static_cast<float>(t % 90)).Rpm(1200));
    bus.join();
    GdsStatisticsData_t_ stat{};
    ASSERT_EQ(Gds_IF_GetStatistics(gds_.get(), &stat, nullptr), 0);
    EXPECT_EQ(stat.base.runTime, 300u);
}

}  // namespace
}  // namespace analyser_test

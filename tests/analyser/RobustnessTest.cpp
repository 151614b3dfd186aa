// Hostile inputs, heap use of one analyser second, and the two feeding threads.
#include <limits>
#include <random>
#include <thread>

#include "AnalyserTestUtil.h"

namespace analyser_test {
namespace {

// Bits that no check can ever set, per event word.
constexpr uint64_t kUsed1 = 0x7FBCu;  // 2-5, 7-14
constexpr uint64_t kUsed2 = 0x1FDFu;  // 0-4, 6-12
constexpr uint64_t kUsed3 = 0x47u;    // 0-2, 6
constexpr uint64_t kUsed4 = 0x3FFBu;  // 0, 1, 3-13

float Hostile(std::mt19937& rng) {
    static const float pool[] = {std::numeric_limits<float>::quiet_NaN(),
                                 std::numeric_limits<float>::infinity(),
                                 -std::numeric_limits<float>::infinity(),
                                 std::numeric_limits<float>::max(),
                                 -std::numeric_limits<float>::max(),
                                 std::numeric_limits<float>::denorm_min(),
                                 2147483648.0f,
                                 -2147483904.0f,
                                 4294967296.0f,
                                 65535.9f,
                                 -32769.0f,
                                 1e8f,
                                 -0.0f,
                                 0.0f,
                                 0.99f,
                                 -1.0f,
                                 30.0f,
                                 1801.0f};
    std::uniform_int_distribution<size_t> pick(0, sizeof(pool) / sizeof(pool[0]) + 2);
    const size_t i = pick(rng);
    if (i < sizeof(pool) / sizeof(pool[0])) return pool[i];
    return std::uniform_real_distribution<float>(-5000.0f, 5000.0f)(rng);
}

using RobustnessTest = AnalyserTest;

// Under the sanitizer build this is the proof that no value (NaN, infinities, huge or negative
// floats, absent items, any six-axis bytes, even scrambled thresholds) reaches undefined behaviour.
TEST_F(RobustnessTest, HostileValuesNeverSetUnusedBits) {
    std::mt19937 rng(12345);
    std::uniform_int_distribution<int> byte(0, 255);
    for (int round = 0; round < 3; ++round) {
        SetUp();
        if (round == 2) {  // scrambled thresholds too
            auto* raw = reinterpret_cast<uint8_t*>(gds_.get());
            for (size_t i = 0; i < GDS_THRESHOLD_BYTES; ++i)
                raw[i] = static_cast<uint8_t>(byte(rng));
        }
        for (int t = 0; t < 1500; ++t) {
            Obd obd;
            for (int i = 0; i < OBD_ITEM_COUNT; ++i) {
                if (byte(rng) < 40) continue;  // absent
                obd.Set(i, Hostile(rng));
            }
            Second(obd);
            for (int k = 0; k < 3; ++k) {
                tagSixAxisOrgData s;
                for (auto& b : s.data) b = static_cast<uint8_t>(byte(rng));
                Push(s);
            }
            if (t % 200 == 0) Gds_IF_StartSixAxisProofread(gds_.get());
            ASSERT_EQ(E1() & ~kUsed1, 0u);
            ASSERT_EQ(E2() & ~kUsed2, 0u);
            ASSERT_EQ(E3() & ~kUsed3, 0u);
            ASSERT_EQ(E4() & ~kUsed4, 0u);
        }
    }
}

TEST_F(RobustnessTest, CorruptRingIndexesAreNotFollowedOutOfBounds) {
    gds_->collData.speedRing.writeIndex = 0xFFFF;
    gds_->collData.speedRing.readIndex = 77;
    for (auto& r : gds_->collData.axisRing) r.writeIndex = r.readIndex = 500;
    Push(Sample(1000, 0, 0, 0, 0, 0));
    EXPECT_EQ(gds_->collData.axisRing[AXIS_RING_LONGITUDINAL].writeIndex, 0);
    EXPECT_EQ(gds_->collData.axisRing[AXIS_RING_LONGITUDINAL].value[0], 24);
    Obd obd;
    obd.Speed(40);
    Second(obd);
    EXPECT_EQ(gds_->collData.speedRing.writeIndex, 0);
    EXPECT_EQ(gds_->collData.speedRing.speed[0], 40);
}

TEST_F(RobustnessTest, OneAnalyserSecondDoesNotTouchTheHeap) {
    // Warm up into a state where every part works: moving, idling history, rings full.
    Obd obd;
    obd.Speed(45).Rpm(1900).Coolant(95).Volt(13).Set(OBD_IDX_FUEL, 20).Set(OBD_IDX_MILEAGE, 100);
    obd.Set(OBD_IDX_BRAKE, 1).Set(OBD_IDX_ACCELERATOR, 70).Set(OBD_IDX_MILEAGE2, 100);
    for (int i = 0; i < 12; ++i) Push(Sample(600, -900, 100, 0, 0, 2000));
    for (int i = 0; i < 6; ++i) Second(obd);
    ResetAllocationCount();
    for (int i = 0; i < 10; ++i) {
        obd.Set(OBD_IDX_FUEL, 20.0f + 0.1f * static_cast<float>(i));
        Push(Sample(static_cast<int16_t>(600 + i), -900, 100, 0, 0, 2000));
        Second(obd);
    }
    EXPECT_NE(E4(), 0u);  // the second really did work
    EXPECT_EQ(AllocationCount(), 0);
    // The hook itself sees allocations: a calibration start makes the next sample allocate.
    Gds_IF_StartSixAxisProofread(gds_.get());
    Push(Sample(1, 1, 1, 1, 1, 1));
    EXPECT_EQ(AllocationCount(), 1);
}

TEST_F(RobustnessTest, SamplesFromTheBusThreadInterleaveWithTheEvaluation) {
    std::thread bus([this] {
        for (int i = 0; i < 3000; ++i) {
            tagSixAxisOrgData s = Sample(static_cast<int16_t>(i), static_cast<int16_t>(-i), 0, 0, 0,
                                         static_cast<int16_t>(i * 3));
            Gds_IF_UpdateCollectData(COLLECT_SIX_AXIS_DATA, &s, gds_.get());
            if (i == 1000) Gds_IF_StartSixAxisProofread(gds_.get());
        }
    });
    for (int t = 0; t < 300; ++t) {
        Obd obd;
        obd.Speed(static_cast<float>(t % 90)).Rpm(1200);
        Second(obd);
    }
    bus.join();
    GdsStatisticsData_t_ stat{};
    ASSERT_EQ(Gds_IF_GetStatistics(gds_.get(), &stat, nullptr), 0);
    EXPECT_EQ(stat.base.runTime, 300u);
}

}  // namespace
}  // namespace analyser_test

// Data model defaults, the interface functions and their null/unknown-input behaviour.
#include <vector>

#include "AnalyserTestUtil.h"

namespace analyser_test {
namespace {

// The 238 threshold bytes as they must appear on the bus, written out byte by byte.
std::vector<uint8_t> ExpectedThresholdBytes() {
    std::vector<uint8_t> b(GDS_THRESHOLD_BYTES, 0);
    auto put16 = [&b](size_t off, int v) {
        b[off] = static_cast<uint8_t>(v & 0xFF);
        b[off + 1] = static_cast<uint8_t>((v >> 8) & 0xFF);
    };
    auto puts = [&put16](size_t off, std::initializer_list<int> vals) {
        for (int v : vals) {
            put16(off, v);
            off += 2;
        }
    };
    auto putb = [&b](size_t off, std::initializer_list<int> vals) {
        for (int v : vals) b[off++] = static_cast<uint8_t>(v);
    };
    puts(0, {8, 10, 12, 130, 150, 180, 17, 19, 21, 180, 200, 230, 540, 600, 650});
    putb(32, {2});
    putb(36, {2});
    putb(40, {2});
    puts(44, {23, 11, 2450, 1200, 2700, 1350});
    puts(56, {240, 900, 1800});
    puts(64, {5, 10, 100});
    puts(72, {5, 50, 900});
    puts(80, {100, 10, 120});
    puts(88, {100, 10, 5});
    puts(96, {3, 90, 50});
    puts(104, {5, 1800, 5, 2000, 5, 2400});
    putb(116, {5, 20, 60, 0, 5, 20, 60, 0, 5, 20, 80, 0});
    puts(128, {2, 1500, 30, 1500});
    putb(136, {20});
    puts(140, {10, 10, 100, 0, 60, 10, 50, 15, 15, 10, 30, 20, 30, 10, 15, 20, 30, 30, 30, 10});
    puts(190, {0, 800, 1000, 1200, 1400, 1600, 2000, 2400});
    putb(206, {0,  30,  60,  90,  120, 0,  10, 30, 60, 80, 50, 60, 75, 80, 85,
               90, 100, 125, 130, 0,   10, 30, 50, 70, 90, 0,  3,  15, 30});
    return b;
}

using InterfaceTest = AnalyserTest;

TEST_F(InterfaceTest, InitLoadsThresholdBytesExactlyAndLeavesUnusedBytesZero) {
    const std::vector<uint8_t> want = ExpectedThresholdBytes();
    const auto* got = reinterpret_cast<const uint8_t*>(gds_.get());
    for (size_t i = 0; i < GDS_THRESHOLD_BYTES; ++i)
        EXPECT_EQ(got[i], want[i]) << "threshold byte " << i;
}

TEST_F(InterfaceTest, InitMarksItemsAbsentAndSetsRingIndexes) {
    for (int i = 0; i < OBD_ITEM_COUNT; ++i) {
        EXPECT_EQ(gds_->collData.obdData.item[i].id, -1);
        EXPECT_EQ(gds_->collData.obdData.item[i].value, 0.0f);
    }
    const tagGdsCollDataList& c = gds_->collData;
    EXPECT_EQ(c.speedRing.writeIndex, 0);
    EXPECT_EQ(c.speedRing.readIndex, 1);
    for (int r : {AXIS_RING_LONGITUDINAL, AXIS_RING_LATERAL, AXIS_RING_LATERAL_LOAD}) {
        EXPECT_EQ(c.axisRing[r].writeIndex, 0);
        EXPECT_EQ(c.axisRing[r].readIndex, 1);
    }
    EXPECT_EQ(c.axisRing[AXIS_RING_VERTICAL].readIndex, 0);
}

TEST_F(InterfaceTest, ReinitResetsCountersButKeepsStatisticsAndAlarms) {
    gds_->collData.statistics.base.runTime = 77;
    gds_->collData.alarmInfo.eventType2Alarms = 5;
    gds_->event2Counter.idling = 300;
    gds_->obdAlarmCounter.brakeHold = 2;
    ASSERT_EQ(Gds_IF_InitLogicAnalyser(gds_.get()), 0);
    EXPECT_EQ(gds_->collData.statistics.base.runTime, 77u);
    EXPECT_EQ(gds_->collData.alarmInfo.eventType2Alarms, 5u);
    EXPECT_EQ(gds_->event2Counter.idling, 0);
    EXPECT_EQ(gds_->obdAlarmCounter.brakeHold, 0);
}

TEST_F(InterfaceTest, NullAndUnknownInputsAreRefusedOrIgnored) {
    EXPECT_EQ(Gds_IF_InitLogicAnalyser(nullptr), -1);
    Obd obd;
    EXPECT_EQ(Gds_IF_UpdateCollectData(COLLECT_OBD_DATA, nullptr, gds_.get()), -1);
    EXPECT_EQ(Gds_IF_UpdateCollectData(COLLECT_OBD_DATA, &obd.Table(), nullptr), -1);
    Gds_IF_AnalyserData(nullptr);

    auto before = std::make_unique<tagGdsParam_t>();
    std::memcpy(before.get(), gds_.get(), sizeof(tagGdsParam_t));
    uint8_t junk[472] = {0xAB};
    EXPECT_EQ(Gds_IF_UpdateCollectData(COLLECT_GSENSOR_DATA, junk, gds_.get()), 0);
    EXPECT_EQ(Gds_IF_UpdateCollectData(static_cast<CollectDataType_Eum>(7), junk, gds_.get()), 0);
    EXPECT_EQ(std::memcmp(before.get(), gds_.get(), sizeof(tagGdsParam_t)), 0);
}

TEST_F(InterfaceTest, FirstEvaluationAfterInitRaisesNothing) {
    Gds_IF_AnalyserData(gds_.get());
    EXPECT_EQ(E1(), 0u);
    EXPECT_EQ(E2(), 0u);
    EXPECT_EQ(E3(), 0u);
    EXPECT_EQ(E4(), 0u);
    EXPECT_EQ(Alarm().speedAccDec, 0);
    EXPECT_EQ(Alarm().sixAxisLevel, 0u);
    EXPECT_EQ(gds_->collData.sixAxisState, 0u);
}

TEST_F(InterfaceTest, ObdSampleReplacesEveryItem) {
    Obd first;
    for (int i = 0; i < OBD_ITEM_COUNT; ++i) first.Set(i, static_cast<float>(i) + 0.5f);
    Second(first);
    Obd second;
    second.Speed(3.0f);  // everything else absent in this table
    ASSERT_EQ(Gds_IF_UpdateCollectData(COLLECT_OBD_DATA, &second.Table(), gds_.get()), 0);
    EXPECT_EQ(std::memcmp(&gds_->collData.obdData, &second.Table(), sizeof(_OBD_DataTable_t)), 0);
}

TEST_F(InterfaceTest, StatisticsDataWithoutThresholdsStillAccumulatesBase) {
    Obd prev, cur;
    prev.Rpm(800).Set(OBD_IDX_MILEAGE, 100.0f);
    cur.Rpm(800).Set(OBD_IDX_MILEAGE, 101.0f);
    GdsStatisticsData_t_ stat{};
    Alarm_Info_t alarm{};
    EXPECT_EQ(Gds_IF_StatisticsData(&cur.Table(), &prev.Table(), &alarm, &stat, nullptr), 0);
    EXPECT_FLOAT_EQ(stat.base.mileage1, 1.0f);
    EXPECT_EQ(Gds_IF_StatisticsData(&cur.Table(), &prev.Table(), &alarm, nullptr, nullptr), -1);
    EXPECT_EQ(Gds_IF_StatisticsData(nullptr, &prev.Table(), &alarm, &stat, nullptr), -1);
}

TEST_F(InterfaceTest, StatisticsCanBeCopiedOut) {
    Obd obd;
    obd.Speed(40).Rpm(1500);
    for (int i = 0; i < 3; ++i) Second(obd);
    GdsStatisticsData_t_ stat{};
    EconomyStatisticsData_t_ eco{};
    ASSERT_EQ(Gds_IF_GetStatistics(gds_.get(), &stat, &eco), 0);
    EXPECT_EQ(stat.base.driveTime, 3u);
    EXPECT_EQ(stat.driving.speedBandStat[1].seconds, 3u);
    EXPECT_EQ(Gds_IF_GetStatistics(gds_.get(), &stat, nullptr), 0);
    EXPECT_EQ(Gds_IF_GetStatistics(gds_.get(), nullptr, &eco), -1);
    EXPECT_EQ(Gds_IF_GetStatistics(nullptr, &stat, &eco), -1);
}

}  // namespace
}  // namespace analyser_test

// Scenario helpers: one analyser state per test, process-wide check states reset, and a table
// builder that marks items present as it sets them.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "GdsInternal.h"
#include "GdsLogicAnalyser.h"

namespace analyser_test {

// Counts of allocations seen since the counters were last cleared (see RobustnessTest.cpp).
long AllocationCount();
void ResetAllocationCount();

inline uint64_t Bit(int b) {
    return uint64_t{1} << b;
}

class Obd {
  public:
    Obd() {
        for (int i = 0; i < OBD_ITEM_COUNT; ++i) {
            t_.item[i].id = -1;
            t_.item[i].value = 0.0f;
        }
    }
    Obd& Set(int idx, float v) {
        t_.item[idx].id = idx;
        t_.item[idx].value = v;
        return *this;
    }
    Obd& Absent(int idx) {
        t_.item[idx].id = -1;
        t_.item[idx].value = 0.0f;
        return *this;
    }
    Obd& Speed(float v) { return Set(OBD_IDX_SPEED, v); }
    Obd& Rpm(float v) { return Set(OBD_IDX_ENGINE_SPEED, v); }
    Obd& Coolant(float v) { return Set(OBD_IDX_COOLANT_TEMP, v); }
    Obd& Volt(float v) { return Set(OBD_IDX_BATTERY_VOLT, v); }
    _OBD_DataTable_t& Table() { return t_; }

  private:
    _OBD_DataTable_t t_;
};

inline tagSixAxisOrgData Sample(int16_t ax, int16_t ay, int16_t az, int16_t rx, int16_t ry,
                                int16_t rz) {
    tagSixAxisOrgData s{};
    const int16_t v[6] = {ax, ay, az, rx, ry, rz};
    for (int i = 0; i < 6; ++i) {
        const auto u = static_cast<uint16_t>(v[i]);
        s.data[2 * i] = static_cast<uint8_t>(u >> 8);
        s.data[2 * i + 1] = static_cast<uint8_t>(u & 0xFF);
    }
    return s;
}

class AnalyserTest : public ::testing::Test {
  protected:
    void SetUp() override {
        Gds_TestResetProcessState();
        if (gds_) Gds_IF_ReleaseLogicAnalyser(gds_.get());  // scenarios may restart mid-test
        gds_ = std::make_unique<tagGdsParam_t>();           // zeroed, as the owner does
        ASSERT_EQ(Gds_IF_InitLogicAnalyser(gds_.get()), 0);
    }
    void TearDown() override { Gds_IF_ReleaseLogicAnalyser(gds_.get()); }

    // One second: the sample arrives, then the once-a-second evaluation runs.
    void Second(Obd& obd) {
        ASSERT_EQ(Gds_IF_UpdateCollectData(COLLECT_OBD_DATA, &obd.Table(), gds_.get()), 0);
        Gds_IF_AnalyserData(gds_.get());
    }
    void Push(const tagSixAxisOrgData& s) {
        tagSixAxisOrgData copy = s;
        ASSERT_EQ(Gds_IF_UpdateCollectData(COLLECT_SIX_AXIS_DATA, &copy, gds_.get()), 0);
    }
    const Alarm_Info_t& Alarm() const { return gds_->collData.alarmInfo; }
    uint64_t E1() const { return Alarm().eventType1Alarms; }
    uint64_t E2() const { return Alarm().eventType2Alarms; }
    uint64_t E3() const { return Alarm().eventType3Alarms; }
    uint64_t E4() const { return Alarm().eventType4Alarms; }

    std::unique_ptr<tagGdsParam_t> gds_;
};

}  // namespace analyser_test

// The alarms invariant against a plug-in's broadcasts made by hand: an oracle copy of the analyser
// fed alike gives the words a sound plug-in would send; one bit off must fire, and the line
// faults that make the copy's one table a second unfaithful must stand it down.
#include <gtest/gtest.h>

#include <cstring>

#include "Agreement.h"
#include "ObdBusRecords.h"
#include "ObdTypes.h"

namespace obdswarm {
namespace {

// A broadcast of the plug-in's carrying `record` byte for byte.
template <typename Record>
hostsim::BusMessage Broadcast(long long tMs, int id, const Record& record) {
    hostsim::BusMessage m;
    m.tMs = tMs;
    m.id = id;
    m.payload.resize(sizeof(record));
    std::memcpy(m.payload.data(), &record, sizeof(record));
    return m;
}

hostsim::BusMessage Table(long long tMs, float speed, float rpm) {
    ObdOriginalDataMsg_t msg{};
    for (int i = 0; i < OBD_ITEM_COUNT; ++i) msg.table.item[i].id = i;
    msg.table.item[OBD_IDX_SPEED].value = speed;
    msg.table.item[OBD_IDX_ENGINE_SPEED].value = rpm;
    return Broadcast(tMs, MSG_OBD_ORIGINAL_DATA, msg);
}

hostsim::BusMessage Alarm(long long tMs, const uint64_t words[4]) {
    GdsAlarmMsg_t msg{};
    msg.eventType1Alarms = words[0];
    msg.eventType2Alarms = words[1];
    msg.eventType3Alarms = words[2];
    msg.eventType4Alarms = words[3];
    return Broadcast(tMs, MSG_GDS_ALARM, msg);
}

// The oracle's second on the table a broadcast carries: the words a sound plug-in sends.
void OracleSecond(obdsim::ReferenceAnalyser& oracle, const hostsim::BusMessage& table,
                  uint64_t words[4]) {
    _OBD_DataTable_t copy;
    std::memcpy(&copy, table.payload.data(), sizeof(copy));
    oracle.Table(copy);
    oracle.Second();
    oracle.AlarmWords(words);
}

// A cabin shaken along X and Z (turbulence takes two rough axes), the other axes still: as the
// host sends it (values little-endian at 6..10 and 18..22, kind at 24), and as the plug-in hands
// it to its analyser (high byte first).
std::vector<unsigned char> Inertial(int16_t acc, uint8_t kind) {
    std::vector<unsigned char> p(32, 0);
    const auto u = static_cast<uint16_t>(acc);
    for (size_t at : {6, 10}) {
        p[at] = static_cast<unsigned char>(u & 0xFF);
        p[at + 1] = static_cast<unsigned char>(u >> 8);
    }
    p[24] = kind;
    return p;
}

tagSixAxisOrgData Sample(int16_t acc) {
    tagSixAxisOrgData s{};
    const auto u = static_cast<uint16_t>(acc);
    for (size_t at : {0, 4}) {
        s.data[at] = static_cast<uint8_t>(u >> 8);
        s.data[at + 1] = static_cast<uint8_t>(u & 0xFF);
    }
    return s;
}

struct Row {
    const char* name;
    Fault fault;  // kind Count: none
    int flipAtS;  // the plug-in's word 1 is off by a bit from this second on; -1: never
    bool fires;
};

TEST(Agreement, OneBitOffFiresUnlessTheLineWasTouched) {
    const Fault none{FaultKind::Count, 0, 0, 0, 0, 0};
    const Row rows[] = {
        {"sound plug-in", none, -1, false},
        {"a bit off from the 30th second", none, 30, true},
        {"bad values leave the check on", {FaultKind::BadValues, 10000, 20000, 0, -1, 0}, 30, true},
        {"bus messages leave it on", {FaultKind::BusMessages, 10000, 20000, 5, 0, 1}, 30, true},
        {"split reads before stand it down", {FaultKind::Split, 10000, 11000, 3, 0, 0}, 30, false},
        {"silence after comes too late", {FaultKind::Silent, 31000, 40000, 0, 0, 0}, 30, true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        std::vector<Fault> faults;
        if (row.fault.kind != FaultKind::Count) faults.push_back(row.fault);
        Agreement check(faults);
        obdsim::ReferenceAnalyser oracle;
        std::string error;
        ASSERT_TRUE(check.Load(OBD_PLUGIN, error)) << error;
        ASSERT_TRUE(oracle.Load(OBD_PLUGIN, error)) << error;
        bool anyAlarm = false;
        for (int s = 1; s <= 60; ++s) {
            const long long t = s * 1000LL;
            // A shaking cabin (turbulence) through injected samples, half of them of the
            // three-axis kind the analyser ignores, and a car that speeds up hard.
            for (int k = 0; k < 10; ++k) {
                const int16_t z = static_cast<int16_t>(k % 2 == 0 ? 8192 : -8192);
                check.OnInject(t - 950 + 50 * k, MSG_INERTIA_SENSOR_DATA,
                               Inertial(z, s % 2 == 0 ? 1 : 0));
                if (s % 2 == 0) oracle.SixAxis(Sample(z));
            }
            const hostsim::BusMessage table = Table(t, static_cast<float>(s * 4), 3000);
            uint64_t words[4];
            OracleSecond(oracle, table, words);
            anyAlarm = anyAlarm || (words[0] | words[1] | words[2] | words[3]) != 0;
            if (row.flipAtS >= 0 && s >= row.flipAtS) words[0] ^= 1u << 2;
            check.OnBus(table);
            check.OnBus(Alarm(t, words));
        }
        EXPECT_TRUE(anyAlarm) << "the drive must raise some alarm, or agreement proves little";
        EXPECT_EQ(check.Failed(), row.fires);
        if (row.fires) {
            EXPECT_EQ(check.First().name, "alarms-reference");
            EXPECT_EQ(check.First().tMs, row.flipAtS * 1000LL);
            EXPECT_NE(check.First().message.find("event word 1"), std::string::npos);
        }
    }
}

// Short and foreign payloads are the plug-in's to refuse: the copy must not read them either,
// while the same samples whole and of the six-axis kind do move the copy's words.
TEST(Agreement, InertialPayloadsThePlugInRefusesFeedNothing) {
    Agreement refused({}), accepted({});
    obdsim::ReferenceAnalyser oracle;  // sees no samples at all
    std::string error;
    ASSERT_TRUE(refused.Load(OBD_PLUGIN, error)) << error;
    ASSERT_TRUE(accepted.Load(OBD_PLUGIN, error)) << error;
    ASSERT_TRUE(oracle.Load(OBD_PLUGIN, error)) << error;
    for (int s = 1; s <= 20; ++s) {
        for (int k = 0; k < 10; ++k) {
            const long long t = s * 1000LL - 950 + 50 * k;
            std::vector<unsigned char> p = Inertial(k % 2 == 0 ? 8192 : -8192, 1);
            accepted.OnInject(t, MSG_INERTIA_SENSOR_DATA, p);
            refused.OnInject(t, MSG_INERTIA_SENSOR_DATA, {p.begin(), p.begin() + 31});
            refused.OnInject(t, MSG_GDS_PARAM_UPDATE, p);
            p[24] = 7;
            refused.OnInject(t, MSG_INERTIA_SENSOR_DATA, p);
        }
        // Turbulence counts only while the vehicle moves.
        const hostsim::BusMessage table = Table(s * 1000LL, 40, 2000);
        uint64_t words[4];
        OracleSecond(oracle, table, words);
        for (Agreement* a : {&refused, &accepted}) {
            a->OnBus(table);
            a->OnBus(Alarm(s * 1000LL, words));
        }
    }
    EXPECT_FALSE(refused.Failed()) << refused.First().message;
    EXPECT_EQ(refused.Compared(), 20);
    EXPECT_TRUE(accepted.Failed());
}

// A sample handed in the very instant of the 1 s work may have come before or after it in the
// plug-in: from such a tie on the check stands down; samples later than a broadcast wait for the
// next one.
TEST(Agreement, ASampleInTheInstantOfTheBroadcastStandsTheCheckDown) {
    for (const bool tie : {false, true}) {
        SCOPED_TRACE(tie ? "tie" : "no tie");
        Agreement check({});
        std::string error;
        ASSERT_TRUE(check.Load(OBD_PLUGIN, error)) << error;
        const uint64_t none[4] = {0, 0, 0, 0};
        const uint64_t off[4] = {1, 0, 0, 0};
        check.OnSixAxis(tie ? 2000 : 2050, Sample(8192));
        check.OnBus(Alarm(1000, none));
        check.OnBus(Alarm(2000, none));
        check.OnBus(Alarm(3000, off));
        EXPECT_EQ(check.Compared(), tie ? 1 : 3);
        EXPECT_EQ(check.Failed(), !tie);
    }
}

}  // namespace
}  // namespace obdswarm

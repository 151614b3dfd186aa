// The plug-in's side of the bus that the link tests cannot see: the sample feed with its
// black-box records and link state, the device store, the periodic broadcasts with their alarm
// trackers, and the upgrade and calibration bookkeeping. Asserted on the payload bytes the fake
// bus recorded; the plug-in's internals are set only where a test needs a state (alarm words,
// data age) that would otherwise take minutes of driving.
#include <cmath>
#include <cstring>
#include <iterator>

#include "CoreTestSupport.h"

namespace {

using Bytes = std::vector<unsigned char>;

std::vector<Bytes> SentPayloads(int id) {
    std::vector<Bytes> out;
    for (const auto& s : fakehost::Sends())
        if (s.id == id) out.push_back(s.payload);
    return out;
}

template <typename T>
T As(const Bytes& b) {
    T t;
    EXPECT_EQ(b.size(), sizeof(T));
    std::memcpy(&t, b.data(), std::min(b.size(), sizeof(T)));
    return t;
}

uint32_t Le32At(const Bytes& b, size_t off) {
    return b[off] | (b[off + 1] << 8) | (b[off + 2] << 16) |
           (static_cast<uint32_t>(b[off + 3]) << 24);
}

// A table as the data stream leaves it: the given items received, the rest absent.
_OBD_DataTable_t Table(std::initializer_list<std::pair<int, float>> items) {
    _OBD_DataTable_t t;
    for (auto& it : t.item) it = {-1, 0.0f};
    for (const auto& [i, v] : items) t.item[i] = {i, v};
    return t;
}

class BroadcastTest : public CoreTest {
  protected:
    void SetUp() override {
        CoreTest::SetUp();
        ObdAlarmStartTimesReset();
        ObdUpgradePercentReset();
        CreateWithCtrl();
        CSerialDevOBDTestPeer(m_obj).InitAnalyser();
    }
    void Feed(_OBD_DataTable_t t) { ASSERT_EQ(m_obj->UpdateCollectData(COLLECT_OBD_DATA, &t), 0); }
};

TEST_F(BroadcastTest, ChangedItemsBecomeBlackBoxRecordsSentOnceAndCleared) {
    Common::_datetime_ dt{24, 5, 17, 9, 30, 59, 0};
    fakehost::SetShareTime(dt);
    Feed(Table({{6, 812.5f}, {7, 63.0f}, {9, -5.0f}}));  // three items differ from the zeroed start
    Feed(Table({{6, 812.5f}, {7, 63.0f}, {9, -5.0f}}));  // nothing changed: no record
    Feed(Table({{6, 900.0f}, {7, 63.0f}, {9, -5.0f}}));
    EXPECT_EQ(fakehost::CountLogs("S38_obd: OBD Data respose is normal set OBD connect \n", 0), 1);
    EXPECT_EQ(fakehost::ConfigStatuses(), (std::vector<int>{7}));

    m_obj->BroadcastBlackboxObdData();
    m_obj->BroadcastBlackboxObdData();  // emptied: nothing more
    const auto sent = SentPayloads(MSG_BLACKBOX_OBD_DATA);
    ASSERT_EQ(sent.size(), 1u);
    const Bytes& m = sent[0];
    ASSERT_EQ(m.size(), 12u + 40 + 32 + 12);
    EXPECT_EQ(m[0] | (m[1] << 8), 2);
    EXPECT_EQ(Bytes(m.begin() + 12, m.begin() + 18), (Bytes{24, 5, 17, 9, 30, 59}));
    EXPECT_EQ(Le32At(m, 20), 3u);
    EXPECT_EQ(Le32At(m, 24), 6u | (81250u << 8));
    EXPECT_EQ(Le32At(m, 28), 7u | (6300u << 8));
    EXPECT_EQ(Le32At(m, 32), 9u);  // -5.0: id only, value bits 0
    EXPECT_EQ(Bytes(m.begin() + 36, m.begin() + 52), Bytes(16, 0));
    EXPECT_EQ(Le32At(m, 52 + 8), 1u);
    EXPECT_EQ(Le32At(m, 52 + 12), 6u | (90000u << 8));
    EXPECT_EQ(Bytes(m.end() - 12, m.end()), Bytes(12, 0));

    Feed(Table({{6, 901.0f}, {7, 63.0f}, {9, -5.0f}}));
    m_obj->BroadcastBlackboxObdData();
    EXPECT_EQ(SentPayloads(MSG_BLACKBOX_OBD_DATA).back().size(), 12u + 32 + 12);
}

TEST_F(BroadcastTest, ValueWordKeepsLowTwentyFourBitsAndSaturatesHugeValues) {
    EXPECT_EQ(ObdBlackboxWord(57, 1.239f), 57u | (123u << 8));
    EXPECT_EQ(ObdBlackboxWord(0, 167772.16f), 0u);  // 2^24 hundredths wrap to 0
    EXPECT_EQ(ObdBlackboxWord(3, 1e30f), 3u | (0xFFFFFFu << 8));
    EXPECT_EQ(ObdBlackboxWord(3, std::nanf("")), 3u);
    EXPECT_EQ(ObdBlackboxWord(300, 1.0f), 44u | (100u << 8));  // low byte of the id
}

// An item changes when its value differs from the last table's. A NaN the box keeps sending is
// no change: it would write a record on every frame and keep the link countdown reloaded.
TEST_F(BroadcastTest, AnItemChangesOnlyWhenItsValueDiffersAndNaNEqualsNaN) {
    CSerialDevOBDTestPeer peer(m_obj);
    const float nan = std::nanf("");
    struct Row {
        float before, after;
        bool changed;
    };
    const Row rows[] = {
        {5.0f, 5.0f, false}, {5.0f, 6.0f, true}, {nan, nan, false},
        {nan, 1.0f, true},   {1.0f, nan, true},  {0.0f, -0.0f, false},
    };
    for (size_t i = 0; i < std::size(rows); ++i) {
        const float mark = static_cast<float>(i + 1);  // the first table always changes
        Feed(Table({{30, mark}, {20, rows[i].before}}));
        m_obj->BroadcastBlackboxObdData();
        m_obj->HandleOBDDataDisConnect();  // countdown 12 -> 11
        const size_t records = SentPayloads(MSG_BLACKBOX_OBD_DATA).size();
        Feed(Table({{30, mark}, {20, rows[i].after}}));
        m_obj->BroadcastBlackboxObdData();
        EXPECT_EQ(SentPayloads(MSG_BLACKBOX_OBD_DATA).size(), records + rows[i].changed) << i;
        EXPECT_EQ(peer.LinkTimeout(), rows[i].changed ? 12 : 11) << i;
    }
}

// While the 1 s broadcasts are held (upgrade, power-down) the buffer fills: records that do not
// fit are dropped and counted, the message never passes 4096 bytes, and nothing stored is lost.
TEST_F(BroadcastTest, FullBlackBoxBufferDropsNewRecordsAndKeepsTheStoredOnes) {
    _OBD_DataTable_t t = Table({});
    for (int round = 0; round < 20; ++round) {  // 20 records of 59 items, 264 bytes each
        for (int i = 0; i < OBD_ITEM_COUNT; ++i) t.item[i] = {i, static_cast<float>(round + 1)};
        Feed(t);
    }
    const int fits = (4096 - 12 - 12) / 264;  // 15
    EXPECT_EQ(fakehost::CountLogs("blackbox buffer is full, drop record", 0), 1);
    m_obj->BroadcastBlackboxObdData();
    auto sent = SentPayloads(MSG_BLACKBOX_OBD_DATA);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].size(), 12u + 264 * fits + 12);
    EXPECT_LE(sent[0].size(), 4096u);
    EXPECT_EQ(sent[0][0], fits);
    EXPECT_EQ(Le32At(sent[0], 12 + 12) >> 8, 100u);  // the first record is the first sample
    EXPECT_EQ(fakehost::CountLogs("buffer was full, dropped = 5", 0), 1);
    // The next spell of a full buffer is reported again.
    for (int round = 0; round < 16; ++round) {
        for (int i = 0; i < OBD_ITEM_COUNT; ++i) t.item[i].value = static_cast<float>(100 + round);
        Feed(t);
    }
    EXPECT_EQ(fakehost::CountLogs("blackbox buffer is full, drop record", 0), 2);
}

// The data age advances on every 2 s status tick whether or not a record goes out, so a box that
// falls silent while nothing else changes is noticed: reaching the limit is broadcast, once.
TEST_F(BroadcastTest, StatusGoesOutOnChangeOrSilenceAndItsLinkBitsFollowTheDataAge) {
    CSerialDevOBDTestPeer peer(m_obj);
    m_obj->BroadcastObdCollectStatus();
    EXPECT_TRUE(SentPayloads(MSG_GDS_CONFIG_INFO_REPORT).empty());

    _OBD_Version_t v{};
    std::strcpy(v.DLVer, "DL2.0");
    m_obj->UpdateDevInfo(ID_DATA_VERSION, &v);
    m_obj->UpdateDevInfo(ID_DATA_VERSION, &v);  // the same again: no second change
    Feed(Table({{6, 2100.0f}, {7, 60.0f}, {17, 1.0f}, {18, 4.0f}}));  // age 1, data resumed
    m_obj->BroadcastObdCollectStatus();
    auto sent = SentPayloads(MSG_GDS_CONFIG_INFO_REPORT);
    ASSERT_EQ(sent.size(), 1u);
    auto info = As<GdsConfigInfo_t>(sent[0]);
    EXPECT_EQ(info.mask, 0x601u);
    EXPECT_STREQ(info.version.DLVer, "DL2.0");
    EXPECT_EQ(info.obd_state, 0x03);
    EXPECT_EQ(peer.DataAge(), 2u);

    // One status tick each, no data in between; `changed` is set before the tick.
    struct Tick {
        uint32_t changed;
        uint32_t ageAfter;
        size_t sentAfter;
        uint8_t lastState;
    };
    const Tick ticks[] = {
        {0, 3, 1, 0x03},      // nothing else changed: aged all the same, nothing sent
        {0x008, 4, 2, 0x03},  // another change goes out, link still up
        {0, 5, 2, 0x03},      // at the limit
        {0, 0, 3, 0x02},      // past it: link down, sent on its own; the box is known
        {0, 0, 3, 0x02},      // once
        {0x008, 0, 4, 0x02},  // still down while silent
    };
    for (size_t i = 0; i < std::size(ticks); ++i) {
        const Tick& t = ticks[i];
        peer.Changed() |= t.changed;
        m_obj->BroadcastObdCollectStatus();
        sent = SentPayloads(MSG_GDS_CONFIG_INFO_REPORT);
        EXPECT_EQ(peer.DataAge(), t.ageAfter) << i;
        ASSERT_EQ(sent.size(), t.sentAfter) << i;
        info = As<GdsConfigInfo_t>(sent.back());
        EXPECT_EQ(info.obd_state, t.lastState) << i;
        EXPECT_EQ(info.mask, 0x601u) << i;
    }
    EXPECT_EQ(
        fakehost::CountLogs("S38_OBD: 5 second, OBD not recv any data, so obd is disconnect\n", 0),
        1);
    // A silent box's items 6-17 are zeroed, ids kept; item 18 is not touched. The next OBD data
    // broadcast carries the zeros.
    m_obj->BroadcastObdOriginalData();
    const _OBD_DataTable_t t =
        As<ObdOriginalDataMsg_t>(SentPayloads(MSG_OBD_ORIGINAL_DATA)[0]).table;
    EXPECT_EQ(t.item[6].value, 0.0f);
    EXPECT_EQ(t.item[6].id, 6);
    EXPECT_EQ(t.item[7].value, 0.0f);
    EXPECT_EQ(t.item[17].value, 0.0f);
    EXPECT_EQ(t.item[18].value, 4.0f);

    // Data again: the link is up in the next status record.
    Feed(Table({{6, 800.0f}, {18, 4.0f}}));
    m_obj->BroadcastObdCollectStatus();
    sent = SentPayloads(MSG_GDS_CONFIG_INFO_REPORT);
    ASSERT_EQ(sent.size(), 5u);
    EXPECT_EQ(As<GdsConfigInfo_t>(sent.back()).obd_state, 0x03);
    EXPECT_EQ(peer.DataAge(), 2u);

    // Data after silence, or after three quiet status ticks, is a change of its own.
    for (uint32_t age : {0u, 1u, 2u, 3u}) {
        peer.Changed() = 0;
        peer.DataAge() = age;
        Feed(Table({{6, 810.0f + static_cast<float>(age)}}));
        EXPECT_EQ(peer.Changed(), age == 1 || age == 2 ? 0u : OBD_DATA_CHANGED_BIT) << age;
        EXPECT_EQ(peer.DataAge(), 1u);
    }
}

TEST_F(BroadcastTest, DeviceStoreMarksWhatChangedAndKeepsFaultCodesUntilTheyDiffer) {
    CSerialDevOBDTestPeer peer(m_obj);
    _OBD_Version_t empty{};
    m_obj->UpdateDevInfo(ID_DATA_VERSION, &empty);  // equals the zeroed store: no change
    EXPECT_EQ(peer.Changed(), 0u);
    EXPECT_EQ(m_obj->InfoPending(GDS_GET_VERSION), 0);

    _OBD_Engine_t e{};
    e.engine_id = 0x0203;
    std::strcpy(e.name, "PETROL");
    m_obj->UpdateDevInfo(ID_DATA_ENGINE, &e);
    EXPECT_EQ(peer.Changed(), 0x008u);
    EXPECT_EQ(fakehost::CountLogs("S38_OBD: [OBD_engine] ack, engine = 0x203, name = \n", 1), 1);

    EXPECT_EQ(m_obj->UpdateDevInfo(static_cast<IDDataType_Eum>(7), &e), 0);
    EXPECT_EQ(m_obj->UpdateDevInfo(ID_DATA_VERSION, nullptr), -1);
    EXPECT_EQ(fakehost::CountLogs("S38_OBD: UpdateDevInfo failed, param is null\n", 0), 1);

    const char ten[] = "0123456789", twelve[] = "abcdefghijkl";
    struct Row {
        int size;
        const char* data;
        const char* log;
    };
    const Row rows[] = {
        {-1, ten, "S38_OBD: GDS get fault code result error\n"},
        {10, ten, "oldSize = 0, newSize = 10"},
        {10, ten, "S38_OBD: GDS get fault code is same, and break\n"},
        {12, twelve, "oldSize = 10, newSize = 12"},
        {0, twelve, "oldSize = 12, newSize = 0"},
        {0, ten, "S38_OBD: GDS get fault code is same, and break\n"},
        {5, nullptr, "S38_OBD: GDS get fault code result error\n"},
    };
    for (const Row& r : rows) {
        const int before = fakehost::CountLogs(r.log);
        _OBD_FaultCode_t f{0, r.size, r.data};
        m_obj->UpdateDevInfo(ID_DATA_FAULT_CODE, &f);
        EXPECT_EQ(fakehost::CountLogs(r.log), before + 1) << r.size;
        if (r.size == -1) {
            EXPECT_EQ(m_obj->InfoPending(GDS_GET_FAULT_CODE), 1);
        }
    }
    EXPECT_EQ(m_obj->InfoPending(GDS_GET_FAULT_CODE), 0);
}

// Alarm details go out once, in the broadcast in which the alarm ended; the event words every
// second. Times are host microseconds.
TEST_F(BroadcastTest, AlarmTrackersReportEachEndOnceWithDurationThresholdAndStartValue) {
    CSerialDevOBDTestPeer peer(m_obj);
    m_obj->RequestGdsDevFeature();  // the threshold copy the details are taken from
    // The thresholds as the store reports them to a host service.
    m_obj->MessageRegister();
    fakehost::Deliver(MSG_GET_GDS_CONFIG_INFO, {});
    m_obj->MessageUnRegister();
    GDS_ALARM_THRESOLD_tag_ thr;
    std::memcpy(&thr, As<GdsConfigInfo_t>(fakehost::Responses().back().payload).alarmThreshold,
                sizeof(thr));
    peer.AnalyserTable().item[6].value = 4321.9f;
    peer.AnalyserTable().item[7].value = 88.7f;
    struct Step {
        uint64_t us;
        uint64_t w2, w4;
    };
    const uint64_t idle2 = 1ull << 11, over1 = 1ull << 0, over2 = 1ull << 1, glide = 1,
                   turn3 = 1ull << 7;
    const Step steps[] = {
        {1000000, idle2 | over2, glide | turn3},  // all four begin
        {2000000, idle2 | over1 | over2, glide},  // level change: no restart; the turn ends
        {905000000, 0, 0},                        // the rest end
        {906000000, 0, 0},                        // nothing more
    };
    for (const Step& s : steps) {
        fakehost::SetMicroSeconds(s.us);
        peer.SetAlarmWords(0, s.w2, 0, s.w4);
        if (s.us == 2000000) peer.AnalyserTable().item[6].value = 9999.0f;
        m_obj->BroadcastGdsAlarm();
    }
    const auto sent = SentPayloads(MSG_GDS_ALARM);
    ASSERT_EQ(sent.size(), 4u);
    std::vector<GdsAlarmMsg_t> m;
    for (const auto& p : sent) m.push_back(As<GdsAlarmMsg_t>(p));
    EXPECT_EQ(m[0].eventType2Alarms, idle2 | over2);
    EXPECT_EQ(m[0].eventType4Alarms, glide | turn3);
    const AlarmOverData none{};
    EXPECT_EQ(std::memcmp(&m[0].idling, &none, sizeof(none)), 0);

    EXPECT_EQ(m[1].curve.threshold, 30);
    EXPECT_EQ(m[1].curve.maxValue, 88);
    EXPECT_EQ(m[1].overspeed.threshold, 0);  // still running

    EXPECT_EQ(m[2].idling.continueTime, 52032);  // 904000 s kept to 16 bits
    EXPECT_EQ(m[2].idling.threshold, static_cast<uint16_t>(thr.idlingTimeout.level2Time));
    EXPECT_EQ(m[2].idling.maxValue, 0);
    // Ended with levels 1 and 2 set: the lowest level's threshold; the value from its beginning.
    EXPECT_EQ(m[2].overspeed.threshold, static_cast<uint16_t>(thr.revving.engineSpeed1));
    EXPECT_EQ(m[2].overspeed.maxValue, 4321);
    EXPECT_EQ(m[2].neutralGlide.threshold, static_cast<uint16_t>(thr.neutralGlide.speed));
    EXPECT_EQ(m[2].neutralGlide.maxValue, 88);
    EXPECT_EQ(m[2].curve.threshold, 0);  // reported the second before, not again

    const Bytes quiet(sent[3].begin() + 32, sent[3].end());
    EXPECT_EQ(quiet, Bytes(208 - 32, 0));
}

TEST_F(BroadcastTest, CanBoxSummaryAndSilenceCountdown) {
    CSerialDevOBDTestPeer peer(m_obj);
    peer.AnalyserTable().item[7].value = 63.456f;
    peer.AnalyserTable().item[6].value = 812.5f;
    Bytes mileage(16, 0);
    const double km = 1234.567;
    std::memcpy(mileage.data(), &km, 8);
    mileage[8] = 0xA0;  // 100000
    mileage[9] = 0x86;
    mileage[10] = 0x01;
    m_obj->MessageRegister();
    fakehost::Deliver(MSG_CAN_BOX_TOTAL_MILEAGE, mileage);
    m_obj->BroadcastCanBoxData();
    peer.AnalyserTable().item[7].value = -3.0f;
    m_obj->BroadcastCanBoxData();
    m_obj->MessageUnRegister();
    const auto sent = SentPayloads(MSG_CAN_BOX_DATA);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0],
              (Bytes{0,    1, 0,    0,    0xC9, 0x18, 0, 0, 0x62, 0x3D,
                     0x01, 0, 0x40, 0xE2, 0x01, 0,    2, 0, 0,    0}));  // 6345, 81250, 123456, 2
    EXPECT_EQ(Le32At(sent[1], 4), 0u);

    // Twelve checks without a changed table declare the link down, once; a change brings it up.
    Feed(Table({{7, 5.0f}}));
    for (int check = 1; check <= 14; ++check) {
        m_obj->HandleOBDDataDisConnect();
        EXPECT_EQ(peer.LinkTimeout(), check < 12 ? 12 - check : 0) << check;
    }
    EXPECT_EQ(fakehost::ConfigStatuses(), (std::vector<int>{7, 5}));
    Feed(Table({{7, 10.0f}}));
    EXPECT_EQ(peer.LinkTimeout(), 12);
    EXPECT_EQ(fakehost::ConfigStatuses(), (std::vector<int>{7, 5, 7}));
}

// Upgrade and calibration as the bus sees them (the transfer itself is the link's).
class UpgradeBusTest : public BroadcastTest {
  protected:
    void SetUp() override {
        BroadcastTest::SetUp();
        m_obj->MessageRegister();
        CSerialDevOBDTestPeer(m_obj).ClearQueue();
    }
    void TearDown() override {
        m_obj->MessageUnRegister();
        BroadcastTest::TearDown();
    }
    void Progress(int state, int percent) {
        UpgradeProgress_t p{state, percent};
        m_obj->UpdateDevInfo(ID_DATA_UPGRADE_STATE, &p);
    }
};

TEST_F(UpgradeBusTest, TriggerProgressAndEndAsTheBusSeesThem) {
    fakehost::Deliver(MSG_TRIGGER_PERIPHERAL_UPGRADE, {1, 1, 3, 2});  // another device
    EXPECT_TRUE(fakehost::Responses().empty());
    EXPECT_FALSE(m_obj->IsUpgrading());

    fakehost::Deliver(MSG_TRIGGER_PERIPHERAL_UPGRADE, {1, 1, 7, 2});
    ASSERT_EQ(fakehost::Responses().size(), 1u);
    EXPECT_EQ(fakehost::Responses()[0].payload, UpgradeState(1, 0, 0));
    EXPECT_TRUE(m_obj->IsUpgrading());
    const auto tasks = m_obj->QueuedTasks();
    ASSERT_EQ(tasks.size(), 1u);
    EXPECT_EQ(tasks[0].taskType, TASK_TYPE_UPGRADE);
    EXPECT_STREQ(reinterpret_cast<const char*>(tasks[0].data), OBD_UPGRADE_FILE_PATH);

    for (int p : {0, 10, 10, 20}) Progress(UPG_STATE_PROGRESS, p);
    Progress(UPG_STATE_SUCCESS, 100);
    std::vector<Bytes> expected = {UpgradeState(1, 0, 0), UpgradeState(1, 0, 10),
                                   UpgradeState(1, 0, 20), UpgradeState(1, 10, 100)};
    EXPECT_EQ(SentPayloads(MSG_PERIPHERAL_UPGRADE_STATE), expected);
    EXPECT_FALSE(m_obj->IsUpgrading());
    EXPECT_EQ(m_obj->InfoPending(GDS_GET_VERSION), 1);  // new firmware: versions read again

    fakehost::Deliver(MSG_GET_PERIPHERAL_UPGRADE_STATE, {1, 7});
    EXPECT_EQ(fakehost::Responses().back().payload, UpgradeState(1, 10, 100));
    // A failed upgrade keeps the last percent; a second trigger may try again.
    fakehost::Deliver(MSG_TRIGGER_PERIPHERAL_UPGRADE, {2, 0, 7, 0});
    Progress(UPG_STATE_PROGRESS, 40);
    Progress(UPG_STATE_FAILED, 40);
    EXPECT_EQ(SentPayloads(MSG_PERIPHERAL_UPGRADE_STATE).back(), UpgradeState(2, 9, 40));
    fakehost::Deliver(MSG_GET_PERIPHERAL_UPGRADE_STATE, {2, 7});
    EXPECT_EQ(fakehost::Responses().back().payload, UpgradeState(2, 9, 40));

    const size_t answered = fakehost::Responses().size();
    fakehost::Deliver(MSG_GET_PERIPHERAL_UPGRADE_STATE, {0, 7});  // untouched slot
    EXPECT_EQ(fakehost::Responses().back().payload, UpgradeState(-1, 0, 0));
    fakehost::Deliver(MSG_GET_PERIPHERAL_UPGRADE_STATE, {3, 7});  // kept, never answered
    fakehost::Deliver(MSG_GET_PERIPHERAL_UPGRADE_STATE, {1, 6});
    fakehost::Deliver(MSG_GET_PERIPHERAL_UPGRADE_STATE, {1});  // short: refused
    EXPECT_EQ(fakehost::Responses().size(), answered + 1);
}

// A trigger while an upgrade runs is told where the running one stands and changes nothing: no
// second task, the running upgrade keeps its source and percent, no other slot is written. Once
// it has ended, a trigger starts a new one.
TEST_F(UpgradeBusTest, TriggerWhileAnUpgradeRunsGetsItsProgressAndChangesNothing) {
    auto answer = [](const std::vector<unsigned char>& query) {
        fakehost::Deliver(MSG_GET_PERIPHERAL_UPGRADE_STATE, query);
        return fakehost::Responses().back().payload;
    };
    fakehost::Deliver(MSG_TRIGGER_PERIPHERAL_UPGRADE, {1, 1, 7, 2});
    Progress(UPG_STATE_PROGRESS, 40);
    for (uint8_t source : {2, 1, 5, 0xFF}) {
        fakehost::Deliver(MSG_TRIGGER_PERIPHERAL_UPGRADE, {source, 0, 7, 0});
        EXPECT_EQ(fakehost::Responses().back().payload, UpgradeState(source, 0, 40)) << +source;
        const std::string line = "S38_obd: [UPG] upgrade already running, source = " +
                                 std::to_string(static_cast<int8_t>(source)) + ", percent = 40\n";
        EXPECT_EQ(fakehost::CountLogs(line, 0), 1) << line;
    }
    EXPECT_EQ(QueueKeys(m_obj),
              (std::vector<std::pair<uint32_t, uint32_t>>{{TASK_TYPE_UPGRADE, 0}}));
    EXPECT_EQ(fakehost::CountLogs("Same cmd"), 0);
    EXPECT_EQ(answer({2, 7}), UpgradeState(0xFF, 0, 0));
    EXPECT_EQ(answer({1, 7}), UpgradeState(1, 0, 40));

    Progress(UPG_STATE_FAILED, 40);
    std::vector<Bytes> states;
    for (const auto& m : fakehost::Sends())
        if (m.id == MSG_PERIPHERAL_UPGRADE_STATE) states.push_back(m.payload);
    EXPECT_EQ(states, (std::vector<Bytes>{UpgradeState(1, 0, 40), UpgradeState(1, 9, 40)}));
    EXPECT_FALSE(m_obj->IsUpgrading());
    EXPECT_EQ(answer({1, 7}), UpgradeState(1, 9, 40));
    EXPECT_EQ(answer({2, 7}), UpgradeState(0xFF, 0, 0));

    fakehost::Deliver(MSG_TRIGGER_PERIPHERAL_UPGRADE, {2, 0, 7, 0});
    EXPECT_EQ(fakehost::Responses().back().payload, UpgradeState(2, 0, 0));
    EXPECT_TRUE(m_obj->IsUpgrading());
    EXPECT_EQ(answer({2, 7}), UpgradeState(2, 0, 0));
}

TEST_F(UpgradeBusTest, CalibrationQueuesConfigureAndReadAndAnswersAgainstTheSavedHead) {
    Bytes engine(52, 0);
    engine[0] = 0x34;
    engine[1] = 0x12;
    fakehost::Deliver(MSG_TRIGGER_OBD_DEMACATE, Bytes(engine.begin(), engine.begin() + 51));
    EXPECT_EQ(m_obj->QueuedTaskCount(), 0u);  // short: refused whole
    fakehost::Deliver(MSG_TRIGGER_OBD_DEMACATE, engine);
    EXPECT_EQ(fakehost::CountLogs("S38_obd:  Demacate = 4660\n", 0), 1);
    EXPECT_EQ(QueueKeys(m_obj), (std::vector<std::pair<uint32_t, uint32_t>>{Cfg(1), Get(4)}));
    EXPECT_EQ(m_obj->QueuedTasks()[0].data[0], 0x34);
    EXPECT_EQ(m_obj->InfoPending(GDS_GET_ENGINE), 1);

    int32_t result = -1;
    m_obj->UpdateDevInfo(ID_DATA_DEMARCATE_RESULT, &result);
    const auto r = fakehost::Responses();
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].payload, (Bytes{0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(r[0].head.msgId, static_cast<uint32_t>(MSG_TRIGGER_OBD_DEMACATE));
}

}  // namespace

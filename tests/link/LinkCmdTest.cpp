// The command table as exported data, sequence numbers, the answer wait and its retries, the
// wrappers' frames and the two task dispatchers, against the recording fake host.
#include <map>

#include "LinkTestSupport.h"

namespace {

TEST(LinkCmdTable, TheCodesInTheirPlaces) {
    const uint16_t expected[] = {
        0x0000, 0x2103, 0x6103, 0x2105, 0x6105, 0x2407, 0x6407, 0x2402, 0x6402, 0x2403, 0x6403,
        0x2404, 0x6404, 0x2111, 0x6111, 0x2C01, 0x6C01, 0x2C04, 0x6C04, 0x0000, 0x0000, 0x2C03,
        0x6C03, 0x2C23, 0x6C23, 0x2C43, 0x6C43, 0x2C22, 0x6C22, 0x2C42, 0x6C42, 0x2C12, 0x6C12,
        0x2C10, 0x2C10, 0x2C81, 0x6C7F, 0x2506, 0x2114, 0x2CF1, 0x6CF1};
    static_assert(sizeof(expected) == sizeof(ObdCmdArray), "41 codes");
    for (int i = 0; i < OBD_CMD_COUNT; ++i) EXPECT_EQ(ObdCmdArray[i], expected[i]) << "index " << i;
    EXPECT_EQ(OBD_CMD_FAIL, 19);
    EXPECT_EQ(OBD_CMD_READ_FAULT_CODE_ACK, 40);
}

// A repetition carries its command's first number even when the power-down's stop took a number
// in between; that stop leaves the awaited command alone.
TEST_F(LinkTest, SequenceNumbersStartAtOneRepeatOnRetryAndWrapAfter255) {
    m_ctrl->OBD_ExecuteCmd(OBD_CMD_READ_ENGINE, nullptr, 0);
    EXPECT_EQ(m_ctrl->OBD_StopTsNoWait(), 0);
    EXPECT_EQ(m_ctrl->WaitCmdState(), OBD_CMD_READ_ENGINE);
    m_ctrl->OBD_ExecuteCmd(OBD_CMD_READ_ENGINE, nullptr, 1);
    m_ctrl->OBD_ExecuteCmd(OBD_CMD_READ_STL, nullptr, 0);
    Peer().SetSeqNo(254);
    m_ctrl->OBD_ExecuteCmd(OBD_CMD_READ_STL, nullptr, 0);
    m_ctrl->OBD_ExecuteCmd(OBD_CMD_READ_STL, nullptr, 0);
    m_ctrl->OBD_ExecuteCmd(OBD_CMD_READ_STL, nullptr, 1);
    std::vector<int> seqs;
    for (const auto& w : fakehost::SerialWrites()) seqs.push_back(w[6]);
    EXPECT_EQ(seqs, (std::vector<int>{1, 2, 1, 3, 255, 0, 0}));
    EXPECT_EQ(fakehost::SerialWrites()[1], Hex("55 AA F0 F8 00 03 02 2C 04 21"));
    // 55 AA F0 F8 00 03 00 2C 22: the checksum covers the sequence byte.
    EXPECT_EQ(fakehost::SerialWrites().back().back(), 0x05);
    EXPECT_EQ(fakehost::SleepCalls(), 0u);
}

// Release cancels: a command gives up at its next look at the answer, and none starts again.
TEST_F(LinkTest, CancelledCommandsStopAtTheNextPoll) {
    fakehost::SetSendHook([this](int, const std::vector<unsigned char>&) {
        m_ctrl->OBD_CancelCommands();  // while the first frame is on its way
    });
    EXPECT_EQ(m_ctrl->OBD_ReadVersion(), -1);
    EXPECT_EQ(m_ctrl->OBD_StartTs(), -1);
    EXPECT_EQ(SentCodes(), (std::vector<uint16_t>{0x2103}));
    EXPECT_EQ(fakehost::SleepCalls(), 0u);
}

// An unanswered wait ends when timeout / 50 + 1 polls of 50 ms would have: one wait that long.
TEST_F(LinkTest, WaitEndsWhereFiftyMsPollsWouldHaveOrAtOnce) {
    Peer().SetWaitCmd(OBD_CMD_READ_ENGINE);
    for (const auto& c : std::vector<std::pair<int, unsigned int>>{
             {2000, 2050000}, {100, 150000}, {49, 50000}, {0, 50000}, {-50, 0}}) {
        fakehost::Reset();
        EXPECT_EQ(m_ctrl->OBD_WaitCmd(OBD_CMD_READ_ENGINE_ACK, c.first), 2);
        const auto waits = fakehost::TimedWaits();
        ASSERT_EQ(waits.size(), c.second != 0 ? 1u : 0u) << c.first << " ms";
        for (const auto& w : waits) EXPECT_EQ(w.us, c.second) << c.first << " ms";
        EXPECT_EQ(fakehost::SleepCalls(), 0u);
    }
    fakehost::Reset();
    Peer().SetWaitCmd(OBD_CMD_READ_ENGINE_ACK);
    EXPECT_EQ(m_ctrl->OBD_WaitCmd(OBD_CMD_READ_ENGINE_ACK, 2000), 0);
    Peer().SetWaitCmd(OBD_CMD_FAIL);
    EXPECT_EQ(m_ctrl->OBD_WaitCmd(OBD_CMD_UPG_START_ACK, 2000), 1);
    EXPECT_EQ(m_ctrl->OBD_WaitCmd(OBD_CMD_FAIL, 2000), 0);
    EXPECT_TRUE(fakehost::TimedWaits().empty());
}

// Nobody answers: each wrapper sends its frame (sequence number 1, checksum worked out by hand)
// retries + 1 times, byte for byte the same, waits its full timeout each time and fails.
TEST_F(LinkTest, UnansweredWrappersSendTheirExactFrameRetriesPlusOneTimes) {
    _OBD_ScanTimeLevel_t stl{};
    stl.num = 2;
    stl.item[0] = {1, 3000};
    stl.item[1] = {2, 6000};
    _OBD_DataStreamLevel_t dsl{};
    dsl.num = 1;
    dsl.item[0] = {3, 2, {0x0A, 0x0B}};
    _OBD_Engine_t engine{};
    engine.engine_id = 0xBEEF;
    std::strcpy(engine.name, "not sent");
    struct Case {
        std::function<int(COBDCtrl*)> call;
        size_t attempts;
        const char* frame;
    };
    const std::vector<Case> cases = {
        {&COBDCtrl::OBD_ReadVersion, 11, "55 AA F0 F8 00 03 01 21 03 28"},
        {&COBDCtrl::OBD_ReadScanTimeLevel, 11, "55 AA F0 F8 00 03 01 2C 22 04"},
        {&COBDCtrl::OBD_ReadDataScanLevel, 11, "55 AA F0 F8 00 03 01 2C 42 64"},
        {&COBDCtrl::OBD_ReadEngine, 11, "55 AA F0 F8 00 03 01 2C 12 34"},
        {&COBDCtrl::OBD_ReadFaultCode, 11, "55 AA F0 F8 00 03 01 2C F1 D7"},
        {&COBDCtrl::OBD_Link, 11, "55 AA F0 F8 00 03 01 2C 10 36"},
        {&COBDCtrl::OBD_StopTs, 11, "55 AA F0 F8 00 03 01 2C 04 22"},
        {&COBDCtrl::OBD_Restart, 2, "55 AA F0 F8 00 03 01 25 06 29"},
        {&COBDCtrl::OBD_JumpApp, 2, "55 AA F0 F8 00 03 01 21 14 3F"},
        {&COBDCtrl::OBD_StartTs, 11, "55 AA F0 F8 00 08 01 2C 01 FF 00 00 00 00 D3"},
        {[&](COBDCtrl* c) { return c->OBD_CfgEngine(&engine); }, 11,
         "55 AA F0 F8 00 0D 01 2C 03 BE EF 00 00 00 00 00 00 00 00 7A"},
        {[&](COBDCtrl* c) { return c->OBD_CfgScanTimeLevel(&stl); }, 11,
         "55 AA F0 F8 00 0E 01 2C 23 02 01 00 00 0B B8 02 00 00 17 70 DD"},
        {[&](COBDCtrl* c) { return c->OBD_CfgDataScanLevel(&dsl); }, 11,
         "55 AA F0 F8 00 08 01 2C 43 01 03 02 0A 0B 6F"},
        {[](COBDCtrl* c) { return c->OBD_CfgEngine(nullptr); }, 0, ""},
        {[](COBDCtrl* c) { return c->OBD_CfgScanTimeLevel(nullptr); }, 0, ""},
        {[](COBDCtrl* c) { return c->OBD_CfgDataScanLevel(nullptr); }, 0, ""},
        {[](COBDCtrl* c) { return c->OBD_ConfigProc(GDS_CFG_ENGINE, nullptr); }, 0, ""},
    };
    std::string log;
    for (const auto& c : cases) {
        fakehost::Reset();
        Peer().SetSeqNo(0);
        int r = 0;
        log += Printed([&] { r = c.call(m_ctrl); });
        EXPECT_EQ(r, -1) << c.frame;
        const auto writes = fakehost::SerialWrites();
        ASSERT_EQ(writes.size(), c.attempts) << c.frame;
        for (const auto& w : writes) EXPECT_EQ(w, Hex(c.frame));
        // Each attempt waits what 2000 ms (100 ms for restart and jump) in 50 ms polls took.
        const auto waits = fakehost::TimedWaits();
        ASSERT_EQ(waits.size(), c.attempts) << c.frame;
        for (const auto& w : waits) {
            EXPECT_EQ(w.us, c.attempts == 2 ? 150000u : 2050000u) << c.frame;
            EXPECT_FALSE(w.ready) << c.frame;
        }
    }
    EXPECT_NE(log.find("====================restart OBD===============\n"), std::string::npos);
}

TEST_F(LinkTest, OversizedConfigurationCountsAreCappedToTheRecord) {
    _OBD_ScanTimeLevel_t stl{};
    stl.num = 7;
    _OBD_DataStreamLevel_t dsl{};
    dsl.num = 300;  // low byte 44, capped at 3
    for (int k = 0; k < 3; ++k) {
        dsl.item[k].len = 200;  // capped at 32
        std::memset(dsl.item[k].data, 0x40 + k, 32);
    }
    m_ctrl->OBD_CfgScanTimeLevel(&stl);
    m_ctrl->OBD_CfgDataScanLevel(&dsl);
    // Three entries each: 1 + 3 * 5 bytes, and 1 + 3 * (2 + 32) with the data capped.
    const auto w = fakehost::SerialWrites();
    ASSERT_EQ(w.size(), 22u);
    EXPECT_EQ(Bytes({w[0][5], w[0][9], w[11][5], w[11][9], w[11][9 + 1 + 34 + 1]}),
              Bytes({3 + 16, 3, 3 + 1 + 3 * 34, 3, 32}));
    EXPECT_EQ(Bytes(w[11].begin() + 9 + 1 + 34 + 2, w[11].begin() + 9 + 1 + 68), Bytes(32, 0x41));
}

// A box that answers the engine read at once, refuses the upgrade start, answers a link with
// its own link frame and a scan-time read only at its second attempt, with the first one's
// number (numbers are not matched).
TEST_F(LinkTest, AnswersRefusalsAndLateAnswersEndTheWait) {
    std::atomic<int> stlReads{0};
    ScriptedBox box(m_ctrl, [&](uint16_t code, unsigned char seq) -> std::vector<Bytes> {
        if (code == 0x2C12) return {BoxFrame(0x6C12, {0x01, 0x23, 0xEE}, seq)};
        if (code == 0x2407) return {BoxFrame(0x6407, {0x02}, seq)};
        if (code == 0x2C10) return {BoxFrame(0x2C10, {}, seq)};
        if (code == 0x2C22 && ++stlReads == 2)
            return {BoxFrame(0x6C22, {0x00}, static_cast<unsigned char>(seq - 1))};
        return {};
    });
    // Each wait that ends with `ready` was ended by the answer, not by its deadline.
    auto endings = [] {
        std::vector<bool> out;
        for (const auto& w : fakehost::TimedWaits()) out.push_back(w.ready);
        return out;
    };
    EXPECT_EQ(m_ctrl->OBD_ReadEngine(), 0);
    EXPECT_EQ(fakehost::SerialWrites().size(), 1u);
    EXPECT_LE(endings().size(), 1u);  // none when the answer came before the wait began
    for (bool ready : endings()) EXPECT_TRUE(ready);
    EXPECT_EQ(Peer().Engine().engine_id, 0x0123);
    EXPECT_EQ(m_obj->InfoPending(GDS_GET_ENGINE), 0);
    fakehost::ClearRecords();
    EXPECT_EQ(m_ctrl->OBD_SendCmd(OBD_CMD_UPG_START, OBD_CMD_UPG_START_ACK, nullptr, 2000, 3), -1);
    EXPECT_EQ(fakehost::SerialWrites().size(), 4u);  // each refusal ends its attempt at once
    for (bool ready : endings()) EXPECT_TRUE(ready);
    EXPECT_EQ(m_ctrl->WaitCmdState(), OBD_CMD_FAIL);
    fakehost::ClearRecords();
    EXPECT_EQ(m_ctrl->OBD_Link(), -1);  // the box's link frame releases no link
    EXPECT_EQ(fakehost::SerialWrites().size(), 11u);
    EXPECT_EQ(endings(), std::vector<bool>(11, false));
    EXPECT_EQ(m_ctrl->OBD_CheckObdHeartBeat(), 1);
    fakehost::ClearRecords();
    EXPECT_EQ(m_ctrl->OBD_ReadScanTimeLevel(), 0);
    const auto w = fakehost::SerialWrites();
    ASSERT_EQ(w.size(), 2u);
    EXPECT_EQ(w[0], w[1]);
    EXPECT_FALSE(endings().at(0));  // the first attempt ran to its deadline
}

TEST_F(LinkTest, InitOnceHeartbeatAndWatchdog) {
    EXPECT_EQ(m_ctrl->OBD_Init(), -1);  // the fixture initialised it
    EXPECT_EQ(m_ctrl->OBD_CheckObdHeartBeat(), 0);
    for (int i = 0; i < 30; ++i) m_ctrl->OBD_CheckObdAlive();
    EXPECT_EQ(m_ctrl->NoDataCount(), 30);
    m_ctrl->OBD_CheckObdAlive();
    EXPECT_EQ(m_ctrl->NoDataCount(), 0);
    m_ctrl->OBD_CheckObdAlive();
    m_ctrl->OBD_WatchDog();
    EXPECT_EQ(m_ctrl->NoDataCount(), 0);
}

// ---- task dispatchers ----

// Answers everything the box answers, like a healthy box.
std::vector<Bytes> HealthyBox(uint16_t code, unsigned char seq) {
    static const std::map<uint16_t, Bytes> kPayloads = {
        {0x2103, {0, 2, 'H', 'W', 0, 1, 'S', 0, 1, 'V', 0, 1, 'D', 0, 1, 'T'}},
        {0x2105, {0, 2, 'B', '1', 0, 2, 'D', '2', 0, 2, 'G', '3'}},
        {0x2C12, {0x00, 0x07}},
        {0x2C03, {0x00}},
        {0x2C22, {0x00}},
        {0x2C42, {0x00}}};
    if (code == 0x2C10 || code == 0x2506 || code == 0x2114) return {};
    const auto it = kPayloads.find(code);
    return {BoxFrame(static_cast<uint16_t>(code + 0x4000),
                     it == kPayloads.end() ? Bytes{} : it->second, seq)};
}

TEST_F(LinkTest, DispatchersStopTheStreamFirst) {
    Peer().SetBoxAlive(1);
    EXPECT_EQ(m_ctrl->OBD_ConfigProc(GDS_CFG_START_TS, m_ctrl), -1);  // nobody answers
    EXPECT_EQ(m_ctrl->OBD_CheckObdHeartBeat(), 1);
    EXPECT_EQ(fakehost::SerialWrites().size(), 22u);  // stop and start, 11 times each
    fakehost::Reset();
    ScriptedBox box(m_ctrl, HealthyBox);
    EXPECT_EQ(m_ctrl->OBD_ReadInfoProc(GDS_GET_VERSION), 0);
    EXPECT_EQ(SentCodes(), (std::vector<uint16_t>{0x2C04, 0x2103, 0x2105}));
    EXPECT_STREQ(Peer().Version().HwName, "HW");
    EXPECT_STREQ(Peer().Version().DiagSWVer, "G3");
    fakehost::ClearRecords();  // (the box keeps its time to answer)
    for (auto t : {GDS_GET_FAULT_CODE, GDS_GET_SCAN_TIME_LEVEL, GDS_GET_DATA_SCAN_LEVEL,
                   GDS_GET_ENGINE, GDS_GET_ALARM_THRESHOLD})
        EXPECT_EQ(m_ctrl->OBD_ReadInfoProc(t), 0) << t;
    // A type without an operation only stops the stream and reports that.
    EXPECT_EQ(SentCodes(), (std::vector<uint16_t>{0x2C04, 0x2CF1, 0x2C04, 0x2C22, 0x2C04, 0x2C42,
                                                  0x2C04, 0x2C12, 0x2C04}));
    fakehost::ClearRecords();
    unsigned char data[TASK_DATA_SIZE] = {};
    EXPECT_EQ(m_ctrl->OBD_ConfigProc(GDS_CFG_START_TS, data), 0);
    EXPECT_EQ(m_ctrl->OBD_CheckObdHeartBeat(), 0);  // earned again by the next link frame
    EXPECT_EQ(m_ctrl->OBD_ConfigProc(static_cast<GdsCfgType_t_>(5), data), 0);
    EXPECT_EQ(SentCodes(), (std::vector<uint16_t>{0x2C04, 0x2C01, 0x2C04}));
}

class LinkCanBoxTest : public LinkTest {
  protected:
    int ProductType() const override { return 72; }
};

TEST_F(LinkCanBoxTest, DispatchersDoNotStopTheStreamAndReadOnlyTheSoftwareVersion) {
    EXPECT_TRUE(m_ctrl->IsCanBoxMode());
    // Behind the CAN box nothing reaches the serial port: the frames go out on the bus, after
    // their byte count.
    EXPECT_EQ(m_ctrl->OBD_ReadInfoProc(GDS_GET_VERSION), -1);
    const auto sends = fakehost::Sends();
    ASSERT_EQ(sends.size(), 11u);
    for (const auto& m : sends) {
        EXPECT_EQ(m.id, MSG_CAN_BOX_OBD_DATA_OUT);
        EXPECT_EQ(m.payload, Hex("0A 00 00 00 55 AA F0 F8 00 03 01 21 05 2E"));
    }
    EXPECT_TRUE(fakehost::SerialWrites().empty());
    unsigned char data[TASK_DATA_SIZE] = {};
    EXPECT_EQ(m_ctrl->OBD_ConfigProc(static_cast<GdsCfgType_t_>(5), data), -1);
    EXPECT_EQ(m_ctrl->OBD_ReadInfoProc(static_cast<GdsGetInfoType_t_>(6)), -1);
    EXPECT_EQ(fakehost::Sends().size(), 11u);
}

}  // namespace

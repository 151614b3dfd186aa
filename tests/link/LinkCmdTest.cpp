// The command table as exported data, sequence numbers, the answer wait and its retries, the
// wrappers' payloads and the two task dispatchers, against the recording fake host.
#include <set>

#include "LinkTestSupport.h"

namespace {

// ---- the table ----

TEST(LinkCmdTable, FortyOneCodesWithAnswersAtTheNextIndex) {
    EXPECT_EQ(sizeof(ObdCmdArray), 41u * 2u);
    std::set<uint16_t> codes;
    int requests = 0;
    for (int i = 0; i < OBD_CMD_COUNT; ++i) {
        if (ObdCmdArray[i] == 0) continue;
        if (i == OBD_CMD_LINK_ACK) continue;  // the link comes back with its own code
        EXPECT_TRUE(codes.insert(ObdCmdArray[i]).second) << "duplicate code at " << i;
    }
    const int answered[] = {1, 3, 5, 7, 9, 11, 13, 15, 17, 21, 23, 25, 27, 29, 31, 39};
    for (int r : answered) {
        EXPECT_EQ(ObdCmdArray[r + 1], ObdCmdArray[r] + 0x4000) << "request index " << r;
        EXPECT_EQ(ObdCmdArray[r] & 0x4000, 0) << "request index " << r;
        ++requests;
    }
    EXPECT_EQ(requests, 16);
    EXPECT_EQ(ObdCmdArray[OBD_CMD_LINK], 0x2C10);
    EXPECT_EQ(ObdCmdArray[OBD_CMD_LINK_ACK], 0x2C10);
    EXPECT_EQ(OBD_CMD_FAIL, 19);
    EXPECT_EQ(ObdCmdArray[OBD_CMD_FAIL], 0);
    EXPECT_EQ(ObdCmdArray[OBD_CMD_NONE], 0);
    EXPECT_EQ(ObdCmdArray[OBD_CMD_RESERVED], 0);
    EXPECT_EQ(ObdCmdArray[OBD_CMD_DATA_STREAM], 0x2C81);
    EXPECT_EQ(ObdCmdArray[OBD_CMD_IGNORED], 0x6C7F);
    EXPECT_EQ(ObdCmdArray[OBD_CMD_RESTART], 0x2506);
    EXPECT_EQ(ObdCmdArray[OBD_CMD_JUMP_APP], 0x2114);
    EXPECT_EQ(ObdCmdArray[OBD_CMD_STOP_TS], 0x2C04);
    EXPECT_EQ(ObdCmdArray[OBD_CMD_READ_FAULT_CODE], 0x2CF1);
}

// ---- sequence numbers ----

TEST_F(LinkTest, SequenceNumbersStartAtOneRepeatOnRetryAndWrapAfter255) {
    m_ctrl->OBD_ExecuteCmd(OBD_CMD_READ_ENGINE, nullptr, 0);
    m_ctrl->OBD_ExecuteCmd(OBD_CMD_READ_ENGINE, nullptr, 1);
    m_ctrl->OBD_ExecuteCmd(OBD_CMD_READ_STL, nullptr, 0);
    Peer().SetSeqNo(254);
    m_ctrl->OBD_ExecuteCmd(OBD_CMD_READ_STL, nullptr, 0);
    m_ctrl->OBD_ExecuteCmd(OBD_CMD_READ_STL, nullptr, 0);
    m_ctrl->OBD_ExecuteCmd(OBD_CMD_READ_STL, nullptr, 1);
    std::vector<int> seqs;
    for (const auto& s : Sent()) seqs.push_back(s.seq);
    EXPECT_EQ(seqs, (std::vector<int>{1, 1, 2, 255, 0, 0}));
    // Each frame's checksum covers its sequence byte.
    for (const auto& w : fakehost::SerialWrites()) EXPECT_EQ(w.back(), Xor(w, 2, w.size() - 1));
}

// ---- the wait ----

TEST_F(LinkTest, WaitSleepsTimeoutOverFiftyPlusOneTimesBeforeTimingOut) {
    Peer().SetWaitCmd(OBD_CMD_READ_ENGINE);
    EXPECT_EQ(m_ctrl->OBD_WaitCmd(OBD_CMD_READ_ENGINE_ACK, 2000), 2);
    EXPECT_EQ(fakehost::SleepCalls(), 41u);
    EXPECT_EQ(fakehost::SleptUs(), 41u * 50000u);
    EXPECT_EQ(m_ctrl->OBD_WaitCmd(OBD_CMD_READ_ENGINE_ACK, 100), 2);
    EXPECT_EQ(fakehost::SleepCalls(), 41u + 3u);
    EXPECT_EQ(m_ctrl->OBD_WaitCmd(OBD_CMD_READ_ENGINE_ACK, 49), 2);
    EXPECT_EQ(fakehost::SleepCalls(), 41u + 3u + 1u);
}

TEST_F(LinkTest, WaitReturnsAtOnceWhenAnsweredOrRefused) {
    Peer().SetWaitCmd(OBD_CMD_READ_ENGINE_ACK);
    EXPECT_EQ(m_ctrl->OBD_WaitCmd(OBD_CMD_READ_ENGINE_ACK, 2000), 0);
    Peer().SetWaitCmd(OBD_CMD_FAIL);
    EXPECT_EQ(m_ctrl->OBD_WaitCmd(OBD_CMD_UPG_START_ACK, 2000), 1);
    EXPECT_EQ(m_ctrl->OBD_WaitCmd(OBD_CMD_FAIL, 2000), 0);
    EXPECT_EQ(fakehost::SleepCalls(), 0u);
}

TEST_F(LinkTest, AnswerDuringTheWaitReleasesIt) {
    ScriptedBox box(m_ctrl, [](const SentFrame& f) -> std::vector<Bytes> {
        if (f.code == 0x2C12) return {BoxFrame(0x6C12, {0x01, 0x23, 0xEE}, f.seq)};
        return {};
    });
    fakehost::SetSleepDivisor(50);  // 1 ms per poll: the answer comes within the first polls
    EXPECT_EQ(m_ctrl->OBD_ReadEngine(), 0);
    EXPECT_EQ(fakehost::SerialWrites().size(), 1u);
    EXPECT_LT(fakehost::SleepCalls(), 41u);
    EXPECT_EQ(Peer().Engine().engine_id, 0x0123);
    EXPECT_EQ(m_ctrl->WaitCmdState(), OBD_CMD_READ_ENGINE_ACK);
    EXPECT_EQ(m_obj->InfoPending(GDS_GET_ENGINE), 0);
}

TEST_F(LinkTest, UnansweredCommandIsSentRetriesPlusOneTimesWithOneSequenceNumber) {
    EXPECT_EQ(m_ctrl->OBD_StopTs(), -1);
    const auto sent = Sent();
    ASSERT_EQ(sent.size(), 11u);
    for (const auto& s : sent) {
        EXPECT_EQ(s.code, 0x2C04);
        EXPECT_EQ(s.seq, 1);
    }
    EXPECT_EQ(fakehost::SerialWrites().front(), fakehost::SerialWrites().back());
    EXPECT_EQ(fakehost::SleepCalls(), 11u * 41u);
    // The next command takes the next number.
    EXPECT_EQ(m_ctrl->OBD_SendCmd(OBD_CMD_READ_STL, OBD_CMD_READ_STL_ACK, nullptr, 100, 0), -1);
    EXPECT_EQ(Sent().back().seq, 2);
}

TEST_F(LinkTest, RefusedStepRepeatsAtOnce) {
    // The box refuses every upgrade start: each attempt ends as soon as the refusal is seen.
    ScriptedBox box(m_ctrl, [](const SentFrame& f) -> std::vector<Bytes> {
        if (f.code == 0x2407) return {BoxFrame(0x6407, {0x02}, f.seq)};
        return {};
    });
    fakehost::SetSleepDivisor(50);
    EXPECT_EQ(m_ctrl->OBD_SendCmd(OBD_CMD_UPG_START, OBD_CMD_UPG_START_ACK, nullptr, 2000, 3), -1);
    EXPECT_EQ(Sent().size(), 4u);
    EXPECT_LT(fakehost::SleepCalls(), 4u * 41u);
    EXPECT_EQ(m_ctrl->WaitCmdState(), OBD_CMD_FAIL);
}

TEST_F(LinkTest, LateAnswerOfAnEarlierAttemptReleasesTheRetry) {
    // The box answers only the second attempt's frame, with the sequence number of the first:
    // numbers are not matched.
    std::atomic<int> seen{0};
    ScriptedBox box(m_ctrl, [&](const SentFrame& f) -> std::vector<Bytes> {
        if (++seen == 2) return {BoxFrame(0x6C22, {0x00}, static_cast<unsigned char>(f.seq - 1))};
        return {};
    });
    fakehost::SetSleepDivisor(200);
    EXPECT_EQ(m_ctrl->OBD_ReadScanTimeLevel(), 0);
    const auto sent = Sent();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].seq, sent[1].seq);
}

// ---- wrappers ----

TEST_F(LinkTest, RestartAndJumpAreSentTwiceAndReportFailure) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(m_ctrl->OBD_Restart(), -1);
    EXPECT_NE(testing::internal::GetCapturedStdout().find(
                  "====================restart OBD==============="),
              std::string::npos);
    EXPECT_EQ(m_ctrl->OBD_JumpApp(), -1);
    const auto sent = Sent();
    ASSERT_EQ(sent.size(), 4u);
    EXPECT_EQ(sent[0].code, 0x2506);
    EXPECT_EQ(sent[1].code, 0x2506);
    EXPECT_EQ(sent[2].code, 0x2114);
    EXPECT_EQ(sent[3].code, 0x2114);
    EXPECT_EQ(sent[1].seq, sent[0].seq);
    EXPECT_EQ(fakehost::SleepCalls(), 4u * 3u);  // 100 ms: three polls per attempt
}

TEST_F(LinkTest, LinkIsNeverReleasedByTheBoxsLinkFrame) {
    ScriptedBox box(m_ctrl, [](const SentFrame& f) -> std::vector<Bytes> {
        if (f.code == 0x2C10) return {BoxFrame(0x2C10, {}, f.seq)};
        return {};
    });
    EXPECT_EQ(m_ctrl->OBD_Link(), -1);
    EXPECT_EQ(Sent().size(), 11u);
    EXPECT_EQ(m_ctrl->OBD_CheckObdHeartBeat(), 1);
}

TEST_F(LinkTest, ConfigurationPayloads) {
    _OBD_ScanTimeLevel_t stl{};
    stl.num = 2;
    stl.item[0] = {1, 3000};
    stl.item[1] = {2, 6000};
    _OBD_DataStreamLevel_t dsl{};
    dsl.num = 1;
    dsl.item[0].level = 3;
    dsl.item[0].len = 2;
    dsl.item[0].data[0] = 0x0A;
    dsl.item[0].data[1] = 0x0B;
    _OBD_Engine_t engine{};
    engine.engine_id = 0xBEEF;
    std::strcpy(engine.name, "not sent");
    // Answered at once, so each wrapper sends once.
    ScriptedBox box(m_ctrl, [](const SentFrame& f) -> std::vector<Bytes> {
        if (f.code == 0x2C03) return {BoxFrame(0x6C03, {0x00}, f.seq)};
        return {BoxFrame(static_cast<uint16_t>(f.code + 0x4000), {}, f.seq)};
    });
    fakehost::SetSleepDivisor(50);
    testing::internal::CaptureStdout();
    EXPECT_EQ(m_ctrl->OBD_CfgScanTimeLevel(&stl), 0);
    EXPECT_EQ(m_ctrl->OBD_CfgDataScanLevel(&dsl), 0);
    EXPECT_EQ(m_ctrl->OBD_CfgEngine(&engine), 0);
    EXPECT_EQ(m_ctrl->OBD_StartTs(), 0);
    testing::internal::GetCapturedStdout();
    const auto sent = Sent();
    ASSERT_EQ(sent.size(), 4u);
    EXPECT_EQ(sent[0].code, 0x2C23);
    EXPECT_EQ(sent[0].payload,
              (Bytes{0x02, 0x01, 0x00, 0x00, 0x0B, 0xB8, 0x02, 0x00, 0x00, 0x17, 0x70}));
    EXPECT_EQ(sent[1].code, 0x2C43);
    EXPECT_EQ(sent[1].payload, (Bytes{0x01, 0x03, 0x02, 0x0A, 0x0B}));
    EXPECT_EQ(sent[2].code, 0x2C03);
    EXPECT_EQ(sent[2].payload, (Bytes{0xBE, 0xEF, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(sent[3].code, 0x2C01);
    EXPECT_EQ(sent[3].payload, (Bytes{0xFF, 0x00, 0x00, 0x00, 0x00}));
    EXPECT_EQ(Peer().DemarcateResult(), 0);
}

TEST_F(LinkTest, OversizedConfigurationCountsAreCappedToTheRecord) {
    _OBD_ScanTimeLevel_t stl{};
    stl.num = 7;
    for (int k = 0; k < 3; ++k) stl.item[k] = {k + 1, static_cast<uint32_t>(k)};
    _OBD_DataStreamLevel_t dsl{};
    dsl.num = 300;  // low byte 44, capped at 3
    for (int k = 0; k < 3; ++k) {
        dsl.item[k].level = k;
        dsl.item[k].len = 200;  // capped at 32
        std::memset(dsl.item[k].data, 0x40 + k, 32);
    }
    EXPECT_EQ(m_ctrl->OBD_SendCmd(OBD_CMD_CFG_STL, OBD_CMD_CFG_STL_ACK, nullptr, 0, 0), -1);
    fakehost::Reset();
    m_ctrl->OBD_CfgScanTimeLevel(&stl);
    m_ctrl->OBD_CfgDataScanLevel(&dsl);
    const auto sent = Sent();
    ASSERT_EQ(sent.size(), 22u);
    EXPECT_EQ(sent[0].payload.size(), 16u);
    EXPECT_EQ(sent[0].payload[0], 3);
    const auto& d = sent[11].payload;
    ASSERT_EQ(d.size(), 1u + 3u * 34u);
    EXPECT_EQ(d[0], 3);
    EXPECT_EQ(d[1 + 34 + 1], 32);
    EXPECT_EQ(d[1 + 34 + 2], 0x41);
    EXPECT_EQ(d.back(), 0x42);
}

TEST_F(LinkTest, NullRecordsAreRefusedBeforeAnythingIsSent) {
    EXPECT_EQ(m_ctrl->OBD_CfgEngine(nullptr), -1);
    EXPECT_EQ(m_ctrl->OBD_CfgScanTimeLevel(nullptr), -1);
    EXPECT_EQ(m_ctrl->OBD_CfgDataScanLevel(nullptr), -1);
    EXPECT_EQ(m_ctrl->OBD_ConfigProc(GDS_CFG_ENGINE, nullptr), -1);
    EXPECT_TRUE(fakehost::SerialWrites().empty());
}

TEST_F(LinkTest, InitOnlyOnce) {
    EXPECT_EQ(m_ctrl->OBD_Init(), -1);  // the fixture initialised it
    COBDCtrl other(m_obj);
    EXPECT_EQ(other.OBD_Init(), 0);
    EXPECT_EQ(other.OBD_Init(), -1);
}

TEST_F(LinkTest, HeartbeatAndWatchdog) {
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
std::vector<Bytes> HealthyBox(const SentFrame& f) {
    switch (f.code) {
        case 0x2103:
            return {BoxFrame(0x6103, {0, 2, 'H', 'W', 0, 1, 'S', 0, 1, 'V', 0, 1, 'D', 0, 1, 'T'},
                             f.seq)};
        case 0x2105:
            return {BoxFrame(0x6105, {0, 2, 'B', '1', 0, 2, 'D', '2', 0, 2, 'G', '3'}, f.seq)};
        case 0x2C03:
            return {BoxFrame(0x6C03, {0x00}, f.seq)};
        case 0x2C12:
            return {BoxFrame(0x6C12, {0x00, 0x07}, f.seq)};
        case 0x2C22:
        case 0x2C42:
            return {BoxFrame(static_cast<uint16_t>(f.code + 0x4000), {0x00}, f.seq)};
        case 0x2C10:
        case 0x2506:
        case 0x2114:
            return {};
        default:
            return {BoxFrame(static_cast<uint16_t>(f.code + 0x4000), {}, f.seq)};
    }
}

std::vector<uint16_t> Codes(const std::vector<SentFrame>& sent) {
    std::vector<uint16_t> codes;
    for (const auto& s : sent) codes.push_back(s.code);
    return codes;
}

TEST_F(LinkTest, ReadInfoStopsTheStreamFirst) {
    ScriptedBox box(m_ctrl, HealthyBox);
    fakehost::SetSleepDivisor(50);
    EXPECT_EQ(m_ctrl->OBD_ReadInfoProc(GDS_GET_VERSION), 0);
    EXPECT_EQ(Codes(Sent()), (std::vector<uint16_t>{0x2C04, 0x2103, 0x2105}));
    EXPECT_STREQ(Peer().Version().HwName, "HW");
    EXPECT_STREQ(Peer().Version().DiagSWVer, "G3");
    fakehost::Reset();
    EXPECT_EQ(m_ctrl->OBD_ReadInfoProc(GDS_GET_FAULT_CODE), 0);
    EXPECT_EQ(m_ctrl->OBD_ReadInfoProc(GDS_GET_SCAN_TIME_LEVEL), 0);
    EXPECT_EQ(m_ctrl->OBD_ReadInfoProc(GDS_GET_DATA_SCAN_LEVEL), 0);
    EXPECT_EQ(m_ctrl->OBD_ReadInfoProc(GDS_GET_ENGINE), 0);
    // Types without an operation only stop the stream and report that.
    EXPECT_EQ(m_ctrl->OBD_ReadInfoProc(GDS_GET_ALARM_THRESHOLD), 0);
    EXPECT_EQ(Codes(Sent()), (std::vector<uint16_t>{0x2C04, 0x2CF1, 0x2C04, 0x2C22, 0x2C04, 0x2C42,
                                                    0x2C04, 0x2C12, 0x2C04}));
}

TEST_F(LinkTest, ConfigStartClearsTheHeartbeatOnlyWhenTheStreamStarts) {
    Peer().SetBoxAlive(1);
    EXPECT_EQ(m_ctrl->OBD_ConfigProc(GDS_CFG_START_TS, m_ctrl), -1);  // nobody answers
    EXPECT_EQ(m_ctrl->OBD_CheckObdHeartBeat(), 1);
    EXPECT_EQ(Sent().size(), 22u);  // stop and start, 11 times each
    fakehost::Reset();
    ScriptedBox box(m_ctrl, HealthyBox);
    fakehost::SetSleepDivisor(50);
    unsigned char data[TASK_DATA_SIZE] = {};
    EXPECT_EQ(m_ctrl->OBD_ConfigProc(GDS_CFG_START_TS, data), 0);
    EXPECT_EQ(m_ctrl->OBD_CheckObdHeartBeat(), 0);
    EXPECT_EQ(Codes(Sent()), (std::vector<uint16_t>{0x2C04, 0x2C01}));
    fakehost::Reset();
    EXPECT_EQ(m_ctrl->OBD_ConfigProc(static_cast<GdsCfgType_t_>(5), data), 0);
    EXPECT_EQ(Codes(Sent()), (std::vector<uint16_t>{0x2C04}));
}

class LinkCanBoxTest : public LinkTest {
  protected:
    int ProductType() const override { return 72; }
};

TEST_F(LinkCanBoxTest, DispatchersDoNotStopTheStreamAndReadOnlyTheSoftwareVersion) {
    EXPECT_TRUE(m_ctrl->IsCanBoxMode());
    // Behind the CAN box nothing reaches the serial port; count the attempts on the bus.
    EXPECT_EQ(m_ctrl->OBD_ReadInfoProc(GDS_GET_VERSION), -1);
    const auto sends = fakehost::Sends();
    ASSERT_EQ(sends.size(), 11u);
    for (const auto& m : sends) {
        EXPECT_EQ(m.id, MSG_CAN_BOX_OBD_DATA_OUT);
        ASSERT_EQ(m.payload.size(), 14u);
        EXPECT_EQ(m.payload[4 + 7], 0x21);
        EXPECT_EQ(m.payload[4 + 8], 0x05);
    }
    EXPECT_TRUE(fakehost::SerialWrites().empty());
    unsigned char data[TASK_DATA_SIZE] = {};
    EXPECT_EQ(m_ctrl->OBD_ConfigProc(static_cast<GdsCfgType_t_>(5), data), -1);
    EXPECT_EQ(m_ctrl->OBD_ReadInfoProc(static_cast<GdsGetInfoType_t_>(6)), -1);
    EXPECT_EQ(fakehost::Sends().size(), 11u);
}

}  // namespace

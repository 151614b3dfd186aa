// The dispatcher and the parsers: which answer releases which wait, what is stored and
// reported, and that no count, length or text in a payload makes a parser read past its frame
// or write past its record. Payloads live in exactly sized heap buffers, so the sanitizer build
// catches any read past them.
#include "LinkTestSupport.h"

namespace {

// Frame from its sequence byte on, as the receiver hands it over.
Bytes Body(uint16_t code, const Bytes& payload = {}) {
    Bytes b = {0x42, static_cast<unsigned char>(code >> 8), static_cast<unsigned char>(code)};
    b.insert(b.end(), payload.begin(), payload.end());
    return b;
}

Bytes Text(const std::string& s) {
    Bytes b = {static_cast<unsigned char>(s.size() >> 8), static_cast<unsigned char>(s.size())};
    b.insert(b.end(), s.begin(), s.end());
    return b;
}

// ---- dispatch table ----

struct Release {
    uint16_t code;
    obdcmd_t waiting;
    Bytes payload;
};

TEST_F(LinkTest, EachAnswerReleasesOnlyItsOwnCommand) {
    const std::vector<Release> cases = {
        {0x6103, OBD_CMD_READ_HW_VER, Text("h")},
        {0x6105, OBD_CMD_READ_SW_VER, Text("s")},
        {0x6407, OBD_CMD_UPG_START, {0x04}},
        {0x6402, OBD_CMD_UPG_FILE_NAME, {0x00}},
        {0x6403, OBD_CMD_UPG_FILE_DATA, {0x04}},
        {0x6404, OBD_CMD_UPG_MD5, {0x04}},
        {0x6111, OBD_CMD_UPG_END, {0x04}},
        {0x6C01, OBD_CMD_START_TS, {}},
        {0x6C04, OBD_CMD_STOP_TS, {}},
        {0x2301, OBD_CMD_STOP_TS, {}},
        {0x6C03, OBD_CMD_CFG_ENGINE, {0x00}},
        {0x6C23, OBD_CMD_CFG_STL, {}},
        {0x6C43, OBD_CMD_CFG_DSL, {}},
        {0x6C22, OBD_CMD_READ_STL, {0x00}},
        {0x6C42, OBD_CMD_READ_DSL, {0x00}},
        {0x6C12, OBD_CMD_READ_ENGINE, {0x00, 0x01}},
        {0x6CF1, OBD_CMD_READ_FAULT_CODE, {0xAB}},
    };
    testing::internal::CaptureStdout();
    for (const auto& c : cases) {
        Peer().SetWaitCmd(c.waiting);
        EXPECT_EQ(Handle(Body(c.code, c.payload)), 0) << std::hex << c.code;
        EXPECT_EQ(m_ctrl->WaitCmdState(), c.waiting + 1) << std::hex << c.code;
        // The same answer while another command waits releases nobody.
        const obdcmd_t other =
            c.waiting == OBD_CMD_READ_ENGINE ? OBD_CMD_LINK : OBD_CMD_READ_ENGINE;
        Peer().SetWaitCmd(other);
        Handle(Body(c.code, c.payload));
        EXPECT_EQ(m_ctrl->WaitCmdState(), other) << std::hex << c.code;
    }
    testing::internal::GetCapturedStdout();
}

TEST_F(LinkTest, AnswerForTheWrongCommandIsStoredButReleasesNobody) {
    Peer().SetWaitCmd(OBD_CMD_READ_ENGINE);
    EXPECT_EQ(Handle(Body(0x6C22, {0x01, 0x02, 0x00, 0x00, 0x05, 0x00})), 0);
    EXPECT_EQ(m_ctrl->WaitCmdState(), OBD_CMD_READ_ENGINE);
    EXPECT_EQ(Peer().ScanTimeLevel().num, 1);
    EXPECT_EQ(Peer().ScanTimeLevel().item[0].time, 0x500u);
    EXPECT_EQ(m_obj->InfoPending(GDS_GET_SCAN_TIME_LEVEL), 0);
}

TEST_F(LinkTest, RefusedUpgradeStepSetsFailWhateverWaits) {
    Peer().SetWaitCmd(OBD_CMD_UPG_START);
    EXPECT_EQ(Handle(Body(0x6407, {0x02})), 0);
    EXPECT_EQ(m_ctrl->WaitCmdState(), OBD_CMD_FAIL);
    Peer().SetWaitCmd(OBD_CMD_READ_STL);
    EXPECT_EQ(Handle(Body(0x6403, {0x01})), 0);
    EXPECT_EQ(m_ctrl->WaitCmdState(), OBD_CMD_FAIL);
    Peer().SetWaitCmd(OBD_CMD_UPG_FILE_DATA);
    EXPECT_EQ(Handle(Body(0x6407, {0x04})), 0);  // accepted, but not the step that waits
    EXPECT_EQ(m_ctrl->WaitCmdState(), OBD_CMD_UPG_FILE_DATA);
    EXPECT_EQ(Handle(Body(0x6407)), -1);  // no status byte
    EXPECT_EQ(m_ctrl->WaitCmdState(), OBD_CMD_UPG_FILE_DATA);
}

TEST_F(LinkTest, ConfigureEngineSuccessAndFailurePaths) {
    testing::internal::CaptureStdout();
    Peer().SetWaitCmd(OBD_CMD_CFG_ENGINE);
    EXPECT_EQ(Handle(Body(0x6C03, {0x00})), 0);
    EXPECT_EQ(m_ctrl->WaitCmdState(), OBD_CMD_CFG_ENGINE_ACK);
    EXPECT_EQ(Peer().DemarcateResult(), 0);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("0x0 \n\xB7\xA2\xB6\xAF\xD0\xCD\xBA\xC5\xB1\xEA\xB6\xA8\xB3\xC9\xB9\xA6\n"),
              std::string::npos);

    // The box's refusal: reported as failed, the wait runs on into its timeout.
    Peer().SetWaitCmd(OBD_CMD_CFG_ENGINE);
    EXPECT_EQ(Handle(Body(0x6C03, {0x01})), 0);
    EXPECT_EQ(m_ctrl->WaitCmdState(), OBD_CMD_CFG_ENGINE);
    EXPECT_EQ(Peer().DemarcateResult(), -1);

    // A good answer nobody waits for counts as a failed calibration.
    Peer().SetWaitCmd(OBD_CMD_NONE);
    EXPECT_EQ(Handle(Body(0x6C03, {0x00})), 0);
    EXPECT_EQ(Peer().DemarcateResult(), -1);
    EXPECT_EQ(m_ctrl->WaitCmdState(), OBD_CMD_NONE);

    // Wrong length: refused, dumped, reported as failed.
    testing::internal::CaptureStdout();
    Peer().SetWaitCmd(OBD_CMD_CFG_ENGINE);
    EXPECT_EQ(Handle(Body(0x6C03, {0x00, 0x07})), -1);
    out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("[GDS_ParserCommonPack]: illegal data. Response data length is not "
                       "correct...\n0x0 0x7 \n"),
              std::string::npos);
    EXPECT_EQ(m_ctrl->WaitCmdState(), OBD_CMD_CFG_ENGINE);
    EXPECT_EQ(Peer().DemarcateResult(), -1);
}

TEST_F(LinkTest, ConfigureEngineThatTheBoxRefusesRunsIntoItsTimeout) {
    ScriptedBox box(m_ctrl, [](const SentFrame& f) -> std::vector<Bytes> {
        if (f.code == 0x2C03) return {BoxFrame(0x6C03, {0x03}, f.seq)};
        return {};
    });
    _OBD_Engine_t engine{};
    engine.engine_id = 5;
    testing::internal::CaptureStdout();
    EXPECT_EQ(m_ctrl->OBD_CfgEngine(&engine), -1);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(Sent().size(), 11u);
    EXPECT_EQ(Peer().DemarcateResult(), -1);
}

TEST_F(LinkTest, LinkFrameSetsTheHeartbeatAndNothingElse) {
    Peer().SetWaitCmd(OBD_CMD_LINK);
    EXPECT_EQ(Handle(Body(0x2C10, {0x99})), 0);
    EXPECT_EQ(Peer().BoxAlive(), 1);
    EXPECT_EQ(m_ctrl->WaitCmdState(), OBD_CMD_LINK);
}

TEST_F(LinkTest, RefusedFrames) {
    EXPECT_EQ(Handle(Body(0x6C7F, {1, 2, 3})), 0);
    EXPECT_EQ(Handle(Body(0x6C05)), -1);
    EXPECT_EQ(Handle(Body(0x0000)), -1);
    EXPECT_EQ(m_ctrl->HandleData(nullptr, 5), -1);
    Bytes two = {0x01, 0x2C};
    EXPECT_EQ(m_ctrl->HandleData(reinterpret_cast<char*>(two.data()), 2), -1);
    // A state beyond the last command refuses even the data stream.
    Peer().SetWaitCmd(static_cast<obdcmd_t>(41));
    EXPECT_EQ(Handle(Body(0x2C81, Item(1, 1.0f))), -1);
    Peer().SetWaitCmd(static_cast<obdcmd_t>(-1));
    EXPECT_EQ(Handle(Body(0x2C10)), -1);
    EXPECT_EQ(Peer().BoxAlive(), 0);
    EXPECT_EQ(m_ctrl->DataTable().item[0].id, -1);
    // Without an owner nothing is dispatched.
    COBDCtrl orphan(nullptr);
    Bytes link = Body(0x2C10);
    EXPECT_EQ(orphan.HandleData(reinterpret_cast<char*>(link.data()), 3), -1);
}

TEST_F(LinkTest, FaultCodesAreReportedWhole) {
    Peer().SetWaitCmd(OBD_CMD_READ_FAULT_CODE);
    EXPECT_EQ(Handle(Body(0x6CF1, {})), 0);  // an empty block is a valid answer
    EXPECT_EQ(m_ctrl->WaitCmdState(), OBD_CMD_READ_FAULT_CODE_ACK);
}

// ---- version texts ----

TEST_F(LinkTest, HardwareVersionTextsAndTheirLimits) {
    Bytes p =
        Cat({Text(""), Text("123456789012345"), Text("V1.2"), Text("2024-01-02"), Text("BOX")});
    Peer().SetWaitCmd(OBD_CMD_READ_HW_VER);
    EXPECT_EQ(Handle(Body(0x6103, p)), 0);
    const _OBD_Version_t& v = Peer().Version();
    EXPECT_STREQ(v.HwName, "");
    EXPECT_STREQ(v.DevSerialNum, "123456789012345");
    EXPECT_STREQ(v.HWVer, "V1.2");
    EXPECT_STREQ(v.VerDate, "2024-01-02");
    EXPECT_STREQ(v.DevType, "BOX");
    EXPECT_EQ(m_ctrl->WaitCmdState(), OBD_CMD_READ_HW_VER_ACK);
    EXPECT_EQ(m_obj->InfoPending(GDS_GET_VERSION), 0);

    // 16 characters do not fit: that field is emptied, the next ones are still read.
    p = Cat({Text("NAME"), Text("1234567890123456"), Text("V2"), Text("D"), Text("T")});
    Handle(Body(0x6103, p));
    EXPECT_STREQ(v.HwName, "NAME");
    EXPECT_STREQ(v.DevSerialNum, "");
    EXPECT_STREQ(v.HWVer, "V2");
    EXPECT_STREQ(v.DevType, "T");
}

TEST_F(LinkTest, SoftwareVersionLeavesTheHardwareFields) {
    Handle(Body(0x6103, Cat({Text("HW"), Text("SN"), Text("1"), Text("2"), Text("3")})));
    Handle(Body(0x6105, Cat({Text("boot"), Text("dl"), Text("diag")})));
    const _OBD_Version_t& v = Peer().Version();
    EXPECT_STREQ(v.HwName, "HW");
    EXPECT_STREQ(v.DevType, "3");
    EXPECT_STREQ(v.BootVer, "boot");
    EXPECT_STREQ(v.DLVer, "dl");
    EXPECT_STREQ(v.DiagSWVer, "diag");
}

TEST_F(LinkTest, VersionTextRunningPastThePayloadEmptiesItAndWhatFollows) {
    // DLVer announces 9 bytes but only 3 remain; no byte beyond the payload is read.
    Handle(Body(0x6105, Cat({Text("old"), Text("old"), Text("old")})));
    Bytes p = Cat({Text("B1"), Bytes{0x00, 0x09, 'a', 'b', 'c'}});
    EXPECT_EQ(Handle(Body(0x6105, p)), 0);
    const _OBD_Version_t& v = Peer().Version();
    EXPECT_STREQ(v.BootVer, "B1");
    EXPECT_STREQ(v.DLVer, "");
    EXPECT_STREQ(v.DiagSWVer, "");
    // A length byte cut in half, and a length of 0xFFFF.
    EXPECT_EQ(Handle(Body(0x6105, Bytes{0x00})), 0);
    EXPECT_STREQ(v.BootVer, "");
    EXPECT_EQ(Handle(Body(0x6103, Bytes{0xFF, 0xFF, 'x'})), 0);
    EXPECT_STREQ(v.HwName, "");
}

// ---- levels and engine ----

TEST_F(LinkTest, ScanTimeLevelsLastAnswerWins) {
    Handle(Body(0x6C22, {0x01, 0x02, 0x00, 0x00, 0x05, 0x00}));
    Handle(Body(0x6C22, {0x01, 0x02, 0x00, 0x00, 0x03, 0x00}));
    EXPECT_EQ(Peer().ScanTimeLevel().item[0].level, 2);
    EXPECT_EQ(Peer().ScanTimeLevel().item[0].time, 768u);
}

TEST_F(LinkTest, ScanTimeLevelCountIsCappedByRecordAndPayload) {
    Bytes p = {0x05};
    for (int k = 0; k < 5; ++k) {
        const Bytes e = {static_cast<unsigned char>(k + 1), 0, 0, 0, static_cast<unsigned char>(k)};
        p.insert(p.end(), e.begin(), e.end());
    }
    EXPECT_EQ(Handle(Body(0x6C22, p)), 0);
    const _OBD_ScanTimeLevel_t& s = Peer().ScanTimeLevel();
    EXPECT_EQ(s.num, 3);
    EXPECT_EQ(s.item[2].level, 3);
    EXPECT_EQ(s.item[2].time, 2u);
    // Three announced, one and a half present: one stored, the others keep their values.
    EXPECT_EQ(Handle(Body(0x6C22, {0x03, 0x09, 0, 0, 0, 9, 0x08, 0})), 0);
    EXPECT_EQ(s.num, 1);
    EXPECT_EQ(s.item[0].level, 9);
    EXPECT_EQ(s.item[1].level, 2);
    // No count byte at all: refused, nothing released.
    Peer().SetWaitCmd(OBD_CMD_READ_STL);
    EXPECT_EQ(Handle(Body(0x6C22)), -1);
    EXPECT_EQ(m_ctrl->WaitCmdState(), OBD_CMD_READ_STL);
}

TEST_F(LinkTest, DataScanLevelEntriesAreCappedAtThirtyTwoBytes) {
    Bytes p = {0x04};
    Bytes e0 = {0x01, 40};
    for (int i = 0; i < 40; ++i) e0.push_back(static_cast<unsigned char>(i));
    const Bytes e1 = {0x02, 2, 0xAA, 0xBB};
    const Bytes e2 = {0x03, 0};
    const Bytes e3 = {0x04, 1, 0xCC};
    p = Cat({p, e0, e1, e2, e3});
    EXPECT_EQ(Handle(Body(0x6C42, p)), 0);
    const _OBD_DataStreamLevel_t& d = Peer().DataScanLevel();
    EXPECT_EQ(d.num, 3);
    EXPECT_EQ(d.item[0].level, 1);
    EXPECT_EQ(d.item[0].len, 32);
    EXPECT_EQ(d.item[0].data[31], 31);
    // The next entry is still read at its place, after all 40 bytes.
    EXPECT_EQ(d.item[1].level, 2);
    EXPECT_EQ(d.item[1].len, 2);
    EXPECT_EQ(d.item[1].data[1], 0xBB);
    EXPECT_EQ(d.item[2].len, 0);
    // An entry running past the payload keeps what is there.
    EXPECT_EQ(Handle(Body(0x6C42, {0x01, 0x07, 10, 0x01, 0x02})), 0);
    EXPECT_EQ(d.num, 1);
    EXPECT_EQ(d.item[0].level, 7);
    EXPECT_EQ(d.item[0].len, 2);
    EXPECT_EQ(d.item[0].data[1], 0x02);
    EXPECT_EQ(d.item[0].data[2], 2);  // beyond len: the earlier value
}

TEST_F(LinkTest, EngineAnswerIsClearedThenParsed) {
    Peer().SetWaitCmd(OBD_CMD_READ_ENGINE);
    EXPECT_EQ(Handle(Body(0x6C12, {0x12, 0x34, 0x56})), 0);
    EXPECT_EQ(Peer().Engine().engine_id, 0x1234);
    EXPECT_EQ(m_ctrl->WaitCmdState(), OBD_CMD_READ_ENGINE_ACK);
    Peer().SetWaitCmd(OBD_CMD_READ_ENGINE);
    EXPECT_EQ(Handle(Body(0x6C12, {0x12})), -1);
    EXPECT_EQ(m_ctrl->WaitCmdState(), OBD_CMD_READ_ENGINE);
}

TEST(LinkParser, NullPointersAreRefused) {
    COBDParser p;
    char b[4] = {};
    int r = 5;
    _OBD_Version_t v{};
    _OBD_Engine_t e{};
    _OBD_ScanTimeLevel_t s{};
    _OBD_DataStreamLevel_t d{};
    EXPECT_EQ(p.OBD_ParserHwVer(nullptr, 4, &v), -1);
    EXPECT_EQ(p.OBD_ParserSwVer(b, 4, nullptr), -1);
    EXPECT_EQ(p.OBD_ParserEngineInfo(nullptr, 4, &e), -1);
    EXPECT_EQ(p.OBD_ParserScanTimeLevel(b, 4, nullptr), -1);
    EXPECT_EQ(p.OBD_ParserDataStreamLevelInfo(nullptr, 4, &d), -1);
    EXPECT_EQ(p.OBD_ParserUpgAck(b, 1, nullptr), -1);
    EXPECT_EQ(p.OBD_ParserStartTsAck(nullptr, 0, &r), -1);
    EXPECT_EQ(p.OBD_ParserCloseTsAck(b, 0, &r), 0);
    EXPECT_EQ(r, 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(p.OBD_ParserCommonPack(nullptr, 1, &r), -1);
    EXPECT_NE(testing::internal::GetCapturedStdout().find(
                  "[GDS_ParserCommonPack]:iPacketData or oResult data buffer is NULL\n"),
              std::string::npos);
    (void)s;
}

TEST(LinkParser, UpgradeStatusMapping) {
    COBDParser p;
    int r = -7;
    for (const auto& c : std::vector<std::pair<int, int>>{{4, 0}, {0, 0}, {2, 2}, {255, 255}}) {
        char b = static_cast<char>(c.first);
        EXPECT_EQ(p.OBD_ParserUpgAck(&b, 1, &r), 0);
        EXPECT_EQ(r, c.second) << "status " << c.first;
    }
}

// ---- data stream ----

TEST_F(LinkTest, DataStreamStoresItemsUpToTheFirstBadId) {
    Peer().SetNoDataCount(7);
    EXPECT_EQ(Handle(Body(0x2C81, Cat({Item(8, 88.5f), Item(60, 1.0f)}))), 0);
    const auto t = m_ctrl->DataTable();
    EXPECT_EQ(t.item[7].id, 7);
    EXPECT_EQ(t.item[7].value, 88.5f);
    EXPECT_EQ(m_ctrl->NoDataCount(), 0);
    EXPECT_EQ(Handle(Body(0x2C81, Cat({Item(59, -5.0f), Item(0, 2.0f), Item(1, 3.0f)}))), 0);
    EXPECT_EQ(m_ctrl->DataTable().item[58].value, -5.0f);
    EXPECT_EQ(m_ctrl->DataTable().item[0].id, -1);
    // Items not mentioned keep their values.
    EXPECT_EQ(m_ctrl->DataTable().item[7].value, 88.5f);
}

TEST_F(LinkTest, DataStreamOfBadLengthIsRefusedWithADump) {
    Peer().SetNoDataCount(7);
    testing::internal::CaptureStdout();
    EXPECT_EQ(Handle(Body(0x2C81, {1, 2, 3, 4, 5, 6, 7})), -1);
    EXPECT_EQ(Handle(Body(0x2C81)), -1);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("[OBD_HandleOrgData]: illegal data. Response data length (7) is not "
                       "correct...\n0x1 0x2 0x3 0x4 0x5 0x6 0x7 \n"),
              std::string::npos);
    EXPECT_EQ(m_ctrl->NoDataCount(), 7);
    EXPECT_EQ(m_ctrl->DataTable().item[0].id, -1);
}

TEST_F(LinkTest, DataStreamWithoutOwnerStillStores) {
    COBDCtrl orphan(nullptr);
    Bytes p = Item(2, 4.0f);
    EXPECT_EQ(orphan.OBD_HandleOrgData(reinterpret_cast<char*>(p.data()), 5), 0);
    EXPECT_EQ(orphan.DataTable().item[1].value, 4.0f);
}

}  // namespace

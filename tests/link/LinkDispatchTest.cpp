// The dispatcher and the parsers: which answer releases which wait, what is stored and
// reported, and that no count, length or text in a payload makes a parser read past its frame
// or write past its record (payloads end their buffers, so the sanitizer build sees any
// over-read).
#include <cstdio>
#include <tuple>

#include "LinkTestSupport.h"

namespace {

Bytes Texts(std::initializer_list<std::string> texts) {
    Bytes out;
    for (const auto& t : texts)
        out =
            Cat({out,
                 {static_cast<unsigned char>(t.size() >> 8), static_cast<unsigned char>(t.size())},
                 Bytes(t.begin(), t.end())});
    return out;
}

// The record a code fills, as text: version texts, scan-time levels (all three entries, so
// that untouched ones show), data-scan levels (data up to len), engine id, calibration result,
// heartbeat.
std::string Render(COBDCtrlTestPeer p, uint16_t code) {
    std::string s;
    char b[8];
    if (code == 0x6103 || code == 0x6105) {
        const auto& v = p.Version();
        for (const char* f : {v.HwName, v.DevSerialNum, v.HWVer, v.VerDate, v.DevType, v.BootVer,
                              v.DLVer, v.DiagSWVer})
            s += std::string(f) + "|";
    } else if (code == 0x6C22) {
        s = std::to_string(p.ScanTimeLevel().num) + ":";
        for (const auto& e : p.ScanTimeLevel().item)
            s += " " + std::to_string(e.level) + "/" + std::to_string(e.time);
    } else if (code == 0x6C42) {
        s = std::to_string(p.DataScanLevel().num) + ":";
        for (const auto& e : p.DataScanLevel().item) {
            s += " " + std::to_string(e.level) + "/" + std::to_string(e.len) + "/";
            for (int i = 0; i < e.len && i < OBD_LEVEL_DATA_MAX; ++i) {
                std::snprintf(b, sizeof(b), "%02X", e.data[i]);
                s += b;
            }
        }
    } else if (code == 0x6C12) {
        std::snprintf(b, sizeof(b), "%04X", p.Engine().engine_id);
        s = b;
    } else if (code == 0x6C03) {
        s = "calibrated " + std::to_string(p.DemarcateResult());
    } else if (code == 0x2C10) {
        s = "alive " + std::to_string(p.BoxAlive());
    }
    return s;
}

// Frames in order (each row starts from what the rows before left): the state that waits, the
// handler's result, the state after, and the record filled ("" where none is looked at).
TEST_F(LinkTest, EachAnswerReleasesItsOwnCommandAndParsesWithinItsPayload) {
    Bytes forty = {0x01, 40};
    for (int i = 0; i < 40; ++i) forty.push_back(static_cast<unsigned char>(i));
    const int kFail = OBD_CMD_FAIL;
    const std::vector<std::tuple<uint16_t, int, Bytes, int, int, std::string>> cases = {
        {0x6103, OBD_CMD_READ_HW_VER, Texts({"", "123456789012345", "V1.2", "2024-01-02", "BOX"}),
         0, OBD_CMD_READ_HW_VER_ACK, "|123456789012345|V1.2|2024-01-02|BOX||||"},
        // 16 characters do not fit: that field is emptied, the next ones are still read.
        {0x6103, OBD_CMD_LINK, Texts({"NAME", "1234567890123456", "V2", "D", "T"}), 0, OBD_CMD_LINK,
         "NAME||V2|D|T||||"},
        {0x6105, OBD_CMD_READ_SW_VER, Texts({"boot", "dl", "diag"}), 0, OBD_CMD_READ_SW_VER_ACK,
         "NAME||V2|D|T|boot|dl|diag|"},
        // A text running past the payload empties itself and what follows.
        {0x6105, OBD_CMD_NONE, Cat({Texts({"B1"}), {0x00, 0x09, 'a', 'b', 'c'}}), 0, OBD_CMD_NONE,
         "NAME||V2|D|T|B1|||"},
        {0x6105, OBD_CMD_NONE, {0x00}, 0, OBD_CMD_NONE, "NAME||V2|D|T||||"},
        {0x6103, OBD_CMD_NONE, {0xFF, 0xFF, 'x'}, 0, OBD_CMD_NONE, "||||||||"},
        // An answer for another command is stored all the same, but releases nobody.
        {0x6C22, OBD_CMD_READ_ENGINE, Hex("01 02 00 00 05 00"), 0, OBD_CMD_READ_ENGINE,
         "1: 2/1280 0/0 0/0"},
        {0x6C22, OBD_CMD_READ_STL,
         Hex("05 01 00 00 00 00 02 00 00 00 01 03 00 00 00 02 04 00 00 00 03 05 00 00 00 04"), 0,
         OBD_CMD_READ_STL_ACK, "3: 1/0 2/1 3/2"},
        // Three announced, one and a half present: one stored, the others keep their values.
        {0x6C22, OBD_CMD_NONE, Hex("03 09 00 00 00 09 08 00"), 0, OBD_CMD_NONE, "1: 9/9 2/1 3/2"},
        // Two announced, the first one byte short, at the very end of its buffer: none stored.
        {0x6C22, OBD_CMD_NONE, {0x02, 0x07, 0, 0, 0}, 0, OBD_CMD_NONE, "0: 9/9 2/1 3/2"},
        {0x6C22, OBD_CMD_READ_STL, {}, -1, OBD_CMD_READ_STL, "0: 9/9 2/1 3/2"},
        // 40 data bytes are capped at 32; the next entry is still read at its place.
        {0x6C42, OBD_CMD_READ_DSL,
         Cat({{0x04}, forty, {0x02, 2, 0xAA, 0xBB, 0x03, 0, 0x04, 1, 0xCC}}), 0,
         OBD_CMD_READ_DSL_ACK,
         "3: 1/32/000102030405060708090A0B0C0D0E0F101112131415161718191A1B1C1D1E1F 2/2/AABB 3/0/"},
        {0x6C42, OBD_CMD_READ_STL, Hex("01 07 0A 01 02"), 0, OBD_CMD_READ_STL,
         "1: 7/2/0102 2/2/AABB 3/0/"},
        {0x6C42, OBD_CMD_READ_DSL, {}, -1, OBD_CMD_READ_DSL, "1: 7/2/0102 2/2/AABB 3/0/"},
        {0x6C12, OBD_CMD_READ_ENGINE, {0x12, 0x34, 0x56}, 0, OBD_CMD_READ_ENGINE_ACK, "1234"},
        {0x6C12, OBD_CMD_READ_ENGINE, {0x12}, -1, OBD_CMD_READ_ENGINE, "0000"},  // cleared first
        // Calibration: only the awaited success counts; a refusal runs into the timeout.
        {0x6C03, OBD_CMD_CFG_ENGINE, {0x00}, 0, OBD_CMD_CFG_ENGINE_ACK, "calibrated 0"},
        {0x6C03, OBD_CMD_CFG_ENGINE, {0x01}, 0, OBD_CMD_CFG_ENGINE, "calibrated -1"},
        {0x6C03, OBD_CMD_NONE, {0x00}, 0, OBD_CMD_NONE, "calibrated -1"},
        {0x6C03, OBD_CMD_CFG_ENGINE, {0x00, 0x07}, -1, OBD_CMD_CFG_ENGINE, "calibrated -1"},
        // Upgrade steps: status 4 (or 0) accepts, anything else fails whatever waits.
        {0x6407, OBD_CMD_UPG_START, {0x04}, 0, OBD_CMD_UPG_START_ACK, ""},
        {0x6402, OBD_CMD_UPG_FILE_NAME, {0x00}, 0, OBD_CMD_UPG_FILE_NAME_ACK, ""},
        {0x6403, OBD_CMD_UPG_FILE_DATA, {0x04}, 0, OBD_CMD_UPG_FILE_DATA_ACK, ""},
        {0x6404, OBD_CMD_UPG_MD5, {0x04}, 0, OBD_CMD_UPG_MD5_ACK, ""},
        {0x6111, OBD_CMD_UPG_END, {0x04}, 0, OBD_CMD_UPG_END_ACK, ""},
        {0x6407, OBD_CMD_UPG_FILE_DATA, {0x04}, 0, OBD_CMD_UPG_FILE_DATA, ""},
        {0x6407, OBD_CMD_UPG_START, {0x02}, 0, kFail, ""},
        {0x6403, OBD_CMD_READ_STL, {0xFF}, 0, kFail, ""},
        {0x6407, OBD_CMD_UPG_START, {}, -1, OBD_CMD_UPG_START, ""},
        {0x6C01, OBD_CMD_START_TS, {}, 0, OBD_CMD_START_TS_ACK, ""},
        {0x6C04, OBD_CMD_STOP_TS, {}, 0, OBD_CMD_STOP_TS_ACK, ""},
        {0x2301, OBD_CMD_STOP_TS, {}, 0, OBD_CMD_STOP_TS_ACK, ""},
        {0x6C23, OBD_CMD_CFG_STL, {}, 0, OBD_CMD_CFG_STL_ACK, ""},
        {0x6C43, OBD_CMD_CFG_DSL, {}, 0, OBD_CMD_CFG_DSL_ACK, ""},
        {0x6CF1, OBD_CMD_READ_FAULT_CODE, {}, 0, OBD_CMD_READ_FAULT_CODE_ACK, ""},  // none stored
        {0x6CF1, OBD_CMD_READ_DSL, {0xAB}, 0, OBD_CMD_READ_DSL, ""},
        // A state beyond the last command refuses everything, even the data stream and link.
        {0x2C10, -1, {}, -1, -1, "alive 0"},
        {0x2C81, 41, Item(1, 1.0f), -1, 41, ""},
        {0x2C10, OBD_CMD_LINK, {0x99}, 0, OBD_CMD_LINK, "alive 1"},  // the heartbeat, nothing else
        {0x6C7F, OBD_CMD_LINK, {1, 2, 3}, 0, OBD_CMD_LINK, ""},
        {0x6C05, OBD_CMD_LINK, {}, -1, OBD_CMD_LINK, ""},
        {0x0000, OBD_CMD_LINK, {}, -1, OBD_CMD_LINK, ""},
    };
    std::string out;
    for (const auto& [code, waits, payload, ret, after, record] : cases) {
        Peer().SetWaitCmd(static_cast<obdcmd_t>(waits));
        int r = 0;
        out += Printed([&, &code = code, &payload = payload] { r = Handle(code, payload); });
        EXPECT_EQ(r, ret) << std::hex << code << " " << record;
        EXPECT_EQ(m_ctrl->WaitCmdState(), after) << std::hex << code << " " << record;
        if (!record.empty()) {
            EXPECT_EQ(Render(Peer(), code), record);
        }
    }
    EXPECT_NE(out.find("0x0 \n\xB7\xA2\xB6\xAF\xD0\xCD\xBA\xC5\xB1\xEA\xB6\xA8\xB3\xC9\xB9\xA6\n"),
              std::string::npos);
    EXPECT_NE(out.find("[GDS_ParserCommonPack]: illegal data. Response data length is not "
                       "correct...\n0x0 0x7 \n"),
              std::string::npos);
    EXPECT_EQ(m_ctrl->DataTable().item[0].id, -1);
    EXPECT_EQ(m_obj->InfoPending(GDS_GET_VERSION), 0);
    EXPECT_EQ(m_obj->InfoPending(GDS_GET_SCAN_TIME_LEVEL), 0);
}

TEST_F(LinkTest, NullShortAndOwnerlessFramesAreRefused) {
    EXPECT_EQ(m_ctrl->HandleData(nullptr, 5), -1);
    Bytes link = {0x42, 0x2C, 0x10};
    EXPECT_EQ(m_ctrl->HandleData(reinterpret_cast<char*>(link.data()), 2), -1);
    COBDCtrl orphan(nullptr);
    EXPECT_EQ(orphan.HandleData(reinterpret_cast<char*>(link.data()), 3), -1);
    EXPECT_EQ(Peer().BoxAlive(), 0);
    COBDParser p;
    char b[4] = {};
    int r = 5;
    _OBD_Version_t v{};
    _OBD_Engine_t e{};
    _OBD_DataStreamLevel_t d{};
    EXPECT_EQ(std::vector<int>(
                  {p.OBD_ParserHwVer(nullptr, 4, &v), p.OBD_ParserSwVer(b, 4, nullptr),
                   p.OBD_ParserEngineInfo(nullptr, 4, &e), p.OBD_ParserScanTimeLevel(b, 4, nullptr),
                   p.OBD_ParserDataStreamLevelInfo(nullptr, 4, &d),
                   p.OBD_ParserUpgAck(b, 1, nullptr), p.OBD_ParserStartTsAck(nullptr, 0, &r)}),
              std::vector<int>(7, -1));
    EXPECT_NE(Printed([&] {
                  EXPECT_EQ(p.OBD_ParserCommonPack(nullptr, 1, &r), -1);
              }).find("[GDS_ParserCommonPack]:iPacketData or oResult data buffer is NULL\n"),
              std::string::npos);
}

TEST_F(LinkTest, DataStreamStoresItemsUpToTheFirstBadId) {
    Peer().SetNoDataCount(7);
    EXPECT_EQ(Handle(0x2C81, Cat({Item(8, 88.5f), Item(60, 1.0f), Item(9, 1.0f)})), 0);
    EXPECT_EQ(m_ctrl->NoDataCount(), 0);
    EXPECT_EQ(Handle(0x2C81, Cat({Item(1, -5.0f), Item(59, 6.0f), Item(0, 2.0f), Item(2, 3.0f)})),
              0);
    const auto t = m_ctrl->DataTable();
    for (int i = 0; i < OBD_ITEM_COUNT; ++i) {
        const bool stored = i == 0 || i == 7 || i == 58;
        EXPECT_EQ(t.item[i].id, stored ? i : -1) << i;
    }
    EXPECT_EQ(t.item[0].value, -5.0f);
    EXPECT_EQ(t.item[7].value, 88.5f);  // items not mentioned keep their values
    EXPECT_EQ(t.item[58].value, 6.0f);
    // A length that is no multiple of an item is refused with a dump.
    Peer().SetNoDataCount(7);
    int r1 = 0, r2 = 0;
    const std::string out = Printed([&] {
        r1 = Handle(0x2C81, {1, 2, 3, 4, 5, 6, 7});
        r2 = Handle(0x2C81);
    });
    EXPECT_EQ(r1, -1);
    EXPECT_EQ(r2, -1);
    EXPECT_NE(out.find("[OBD_HandleOrgData]: illegal data. Response data length (7) is not "
                       "correct...\n0x1 0x2 0x3 0x4 0x5 0x6 0x7 \n"),
              std::string::npos);
    EXPECT_EQ(m_ctrl->NoDataCount(), 7);
    // Without an owner the items are still stored.
    COBDCtrl orphan(nullptr);
    Bytes p = Item(2, 4.0f);
    EXPECT_EQ(orphan.OBD_HandleOrgData(reinterpret_cast<char*>(p.data()), 5), 0);
    EXPECT_EQ(orphan.DataTable().item[1].value, 4.0f);
}

}  // namespace

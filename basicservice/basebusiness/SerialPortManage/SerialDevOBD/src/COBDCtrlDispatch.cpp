// Dispatch of the box's frames: which parser runs for each command code, which record it fills,
// what is reported to the device-information store, and which waiting command it releases.
//
// Runs inside ReceiveData, one frame at a time. Takes no lock of its own besides the data-table
// mutex per item; UpdateDevInfo takes the owner's device-information lock and never calls back
// into the receiver, so the two cannot deadlock.
#include <cstdio>
#include <cstring>

#include "COBDCtrl.h"
#include "ObdLog.h"
#include "SerialDevOBD.h"

namespace {

// Upgrade-step answers, each with the request it answers.
struct UpgStep {
    uint16_t code;
    obdcmd_t request;
};
constexpr UpgStep kUpgSteps[] = {
    {0x6407, OBD_CMD_UPG_START}, {0x6402, OBD_CMD_UPG_FILE_NAME}, {0x6403, OBD_CMD_UPG_FILE_DATA},
    {0x6404, OBD_CMD_UPG_MD5},   {0x6111, OBD_CMD_UPG_END},
};

}  // namespace

int COBDCtrl::HandleData(char* frame, int len) {
    const obdcmd_t waiting = m_waitCmd.load();
    if (static_cast<uint32_t>(waiting) > static_cast<uint32_t>(OBD_CMD_COUNT - 1)) return -1;
    if (frame == nullptr || len <= 2) return -1;
    if (m_pOwner == nullptr) return -1;

    const auto* f = reinterpret_cast<const unsigned char*>(frame);
    const unsigned int code = (static_cast<unsigned int>(f[1]) << 8) | f[2];
    char* payload = frame + 3;
    const int plen = len - 3;

    // Releases the command that waits for `request` by moving the state to its answer and waking
    // its wait. A compare-exchange, so that a command sent meanwhile is never overwritten.
    auto release = [this](obdcmd_t request) {
        obdcmd_t expected = request;
        if (m_waitCmd.compare_exchange_strong(expected, static_cast<obdcmd_t>(request + 1)))
            OBD_WakeCmdWait();
    };

    for (const UpgStep& step : kUpgSteps) {
        if (code != step.code) continue;
        int result = 0;
        const int r = OBD_ParserUpgAck(payload, plen, &result);
        if (r == 0) {
            if (result != 0) {
                m_waitCmd = OBD_CMD_FAIL;  // refused: the waiting step returns at once
                OBD_WakeCmdWait();
            } else {
                release(step.request);
            }
        }
        return r;
    }

    switch (code) {
        case 0x6103: {
            const int r = OBD_ParserHwVer(payload, plen, &m_version);
            m_pOwner->UpdateDevInfo(ID_DATA_VERSION, &m_version);
            if (r == 0) release(OBD_CMD_READ_HW_VER);
            return r;
        }
        case 0x6105: {
            const int r = OBD_ParserSwVer(payload, plen, &m_version);
            m_pOwner->UpdateDevInfo(ID_DATA_VERSION, &m_version);
            if (r == 0) release(OBD_CMD_READ_SW_VER);
            return r;
        }
        case 0x6C01: {
            int result = 0;
            OBD_ParserStartTsAck(payload, plen, &result);
            release(OBD_CMD_START_TS);
            return 0;
        }
        case 0x6C04:
        case OBD_CODE_STOP_TS_ALT_ACK: {
            int result = 0;
            OBD_ParserCloseTsAck(payload, plen, &result);
            release(OBD_CMD_STOP_TS);
            return 0;
        }
        case 0x6C03: {
            int result = 0;
            const int r = OBD_ParserCfgEngineAck(payload, plen, &result);
            if (r == 0 && result == 0 && m_waitCmd.load() == OBD_CMD_CFG_ENGINE) {
                // "Engine type calibrated" in GBK, as the box's integrators read it on the console.
                std::printf("\xB7\xA2\xB6\xAF\xD0\xCD\xBA\xC5\xB1\xEA\xB6\xA8\xB3\xC9\xB9\xA6\n");
                std::fflush(stdout);
                m_demarcateResult = 0;
                m_pOwner->UpdateDevInfo(ID_DATA_DEMARCATE_RESULT, &m_demarcateResult);
                release(OBD_CMD_CFG_ENGINE);
            } else {
                // Also a good answer that nobody waits for: the calibration it would confirm
                // is not the one in progress, if any.
                m_demarcateResult = -1;
                m_pOwner->UpdateDevInfo(ID_DATA_DEMARCATE_RESULT, &m_demarcateResult);
            }
            return r;
        }
        case 0x6C23: {
            int result = 0;
            OBD_ParserCfgSTLAck(payload, plen, &result);
            release(OBD_CMD_CFG_STL);
            return 0;
        }
        case 0x6C43: {
            int result = 0;
            OBD_ParserCfgDSLAck(payload, plen, &result);
            release(OBD_CMD_CFG_DSL);
            return 0;
        }
        case 0x6C22: {
            const int r = OBD_ParserScanTimeLevel(payload, plen, &m_scanTimeLevel);
            // An answer without its leading field is refused: nothing to report, and the
            // command asks again.
            if (r != 0) return r;
            m_pOwner->UpdateDevInfo(ID_DATA_SCAN_TIME_LEVEL, &m_scanTimeLevel);
            release(OBD_CMD_READ_STL);
            return 0;
        }
        case 0x6C42: {
            const int r = OBD_ParserDataStreamLevelInfo(payload, plen, &m_dataScanLevel);
            if (r != 0) return r;
            m_pOwner->UpdateDevInfo(ID_DATA_DATA_SCAN_LEVEL, &m_dataScanLevel);
            release(OBD_CMD_READ_DSL);
            return 0;
        }
        case 0x6C12: {
            std::memset(&m_engine, 0, sizeof(m_engine));
            const int r = OBD_ParserEngineInfo(payload, plen, &m_engine);
            if (r != 0) return r;
            m_pOwner->UpdateDevInfo(ID_DATA_ENGINE, &m_engine);
            release(OBD_CMD_READ_ENGINE);
            return 0;
        }
        case 0x6CF1: {
            _OBD_FaultCode_t faults{0, plen, payload};
            m_pOwner->UpdateDevInfo(ID_DATA_FAULT_CODE, &faults);
            release(OBD_CMD_READ_FAULT_CODE);
            return 0;
        }
        case 0x2C10:
            m_bBoxAlive = 1;
            return 0;
        case 0x2C81:
            return OBD_HandleOrgData(payload, plen);
        case 0x6C7F:
            return 0;
        default:
            return -1;
    }
}

int COBDCtrl::OBD_HandleOrgData(char* payload, int len) {
    if (payload == nullptr) return -1;
    const auto* p = reinterpret_cast<const unsigned char*>(payload);
    if (len <= 0 || len % OBD_DATA_ITEM_BYTES != 0) {
        std::printf(
            "[OBD_HandleOrgData]: illegal data. Response data length (%d) is not correct...\n",
            len);
        for (int i = 0; i < len; ++i) std::printf("0x%x ", p[i]);
        std::printf("\n");
        std::fflush(stdout);
        return -1;
    }
    m_noDataCount = 0;
    for (int off = 0; off + OBD_DATA_ITEM_BYTES <= len; off += OBD_DATA_ITEM_BYTES) {
        const int id = p[off];
        if (id == 0 || id > OBD_ITEM_COUNT) break;  // the rest of the frame is not trusted
        float value;
        std::memcpy(&value, p + off + 1, sizeof(value));  // LSB first, as the target stores it
        pthread_mutex_lock(&m_dataTableMutex);
        m_dataTable.item[id - 1].id = id - 1;
        m_dataTable.item[id - 1].value = value;
        pthread_mutex_unlock(&m_dataTableMutex);
    }
    if (m_pOwner != nullptr) m_pOwner->UpdateCollectData(COLLECT_OBD_DATA, &m_dataTable);
    return 0;
}

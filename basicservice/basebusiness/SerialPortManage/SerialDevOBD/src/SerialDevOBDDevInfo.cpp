// Device information store: what the box has told about itself, and what is due to the host.
//
// Threads: the thread that handles the box's answers (peripheral, or bus in CAN-box mode), the
// send thread (upgrade progress) and the peripheral thread (threshold copy). Every call holds
// m_devInfoMutex from the argument check to its return; what it calls inside (the upgrade state
// broadcast, the calibration answer) never takes it again.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ObdLog.h"
#include "SerialDevOBD.h"

namespace {

// The record's texts stand in fixed fields; a box that filled one to the brim left no NUL.
template <size_t N, size_t M>
const char* Text(const char (&field)[N], char (&out)[M]) {
    static_assert(M > N, "room for the NUL");
    std::memcpy(out, field, N);
    out[N] = '\0';
    return out;
}

}  // namespace

int CSerialDevOBD::UpdateDevInfo(IDDataType_Eum type, void* data) {
    if (data == nullptr || m_pObdCtrl == nullptr) {
        OBD_DEV_LOG(0, "S38_OBD: UpdateDevInfo failed, param is null\n");
        return -1;
    }
    pthread_mutex_lock(&m_devInfoMutex);
    switch (type) {
        case ID_DATA_VERSION:
            StoreVersion(*static_cast<const _OBD_Version_t*>(data));
            break;
        case ID_DATA_ENGINE: {
            const auto* engine = static_cast<const _OBD_Engine_t*>(data);
            if (std::memcmp(engine, &m_devEngine, sizeof(m_devEngine)) != 0) {
                // Only the code: the name stays what the store was given first (all zero).
                m_devEngine.engine_id = engine->engine_id;
                m_devInfoChanged |= CFG_MASK_ENGINE;
            }
            char name[sizeof(m_devEngine.name) + 1];
            OBD_DEV_LOG(1, "S38_OBD: [OBD_engine] ack, engine = 0x%x, name = %s\n",
                        static_cast<unsigned>(m_devEngine.engine_id), Text(m_devEngine.name, name));
            m_infoPending[GDS_GET_ENGINE] = 0;
            break;
        }
        case ID_DATA_SCAN_TIME_LEVEL:
            std::memcpy(&m_devScanTimeLevel, data, sizeof(m_devScanTimeLevel));
            OBD_DEV_LOG(1, "S38_OBD: [OBD_STL] ack, num = %d\n",
                        static_cast<int>(m_devScanTimeLevel.num));
            m_infoPending[GDS_GET_SCAN_TIME_LEVEL] = 0;
            break;
        case ID_DATA_DATA_SCAN_LEVEL:
            std::memcpy(&m_devDataScanLevel, data, sizeof(m_devDataScanLevel));
            OBD_DEV_LOG(1, "S38_OBD: [OBD_DSL] ack, num = %d\n",
                        static_cast<int>(m_devDataScanLevel.num));
            m_infoPending[GDS_GET_DATA_SCAN_LEVEL] = 0;
            break;
        case ID_DATA_UPGRADE_STATE:
            std::memcpy(&m_devUpgradeState, data, sizeof(m_devUpgradeState));
            HandleObdUpgradeFinish();
            break;
        case ID_DATA_DEMARCATE_RESULT: {
            std::memcpy(&m_devDemarcateResult, data, sizeof(m_devDemarcateResult));
            OBD_DEV_LOG(1, "OBD dema result = %d\n", static_cast<int>(m_devDemarcateResult));
            // Answered for every configure-engine answer, against the head saved last (all zero
            // when no calibration was asked for): the requester matches it, not the plug-in.
            if (m_pMsgClient != nullptr) {
                m_pMsgClient->MSGResponseMessage(
                    &m_demarcateMsgHead, reinterpret_cast<const char*>(&m_devDemarcateResult),
                    static_cast<int>(sizeof(m_devDemarcateResult)));
            }
            break;
        }
        case ID_DATA_GDS_THRESHOLD:
            std::memcpy(alarmThreshold, data, GDS_THRESHOLD_BYTES);
            m_infoPending[GDS_GET_ALARM_THRESHOLD] = 0;
            break;
        case ID_DATA_FAULT_CODE:
            StoreFaultCode(*static_cast<const _OBD_FaultCode_t*>(data));
            break;
        default:
            break;
    }
    pthread_mutex_unlock(&m_devInfoMutex);
    return 0;
}

// Caller holds m_devInfoMutex.
void CSerialDevOBD::StoreVersion(const _OBD_Version_t& version) {
    if (std::memcmp(&version, &m_devVersion, sizeof(m_devVersion)) != 0) {
        m_devVersion = version;
        char buf[sizeof(m_devVersion.HwName) + 1];
        std::printf("---------BootVer:%s\n", Text(m_devVersion.BootVer, buf));
        std::printf("---------HWVer:%s\n", Text(m_devVersion.HWVer, buf));
        std::printf("---------VerDate:%s\n", Text(m_devVersion.VerDate, buf));
        char serial[sizeof(m_devVersion.DevSerialNum) + 1];
        std::printf("---------DevSerialNum:%s\n", Text(m_devVersion.DevSerialNum, serial));
        std::printf("---------DiagSWVer:%s\n", Text(m_devVersion.DiagSWVer, buf));
        std::printf("---------DevType:%s\n", Text(m_devVersion.DevType, buf));
        std::printf("---------DLVer:%s\n", Text(m_devVersion.DLVer, buf));
        std::fflush(stdout);
        m_devInfoChanged |= CFG_MASK_VERSION;
    }
    m_infoPending[GDS_GET_VERSION] = 0;
}

// Caller holds m_devInfoMutex. The block is the box's payload as received; it is kept, not read.
void CSerialDevOBD::StoreFaultCode(const _OBD_FaultCode_t& r) {
    OBD_DEV_LOG(1, "S38_OBD: GDS get fault code result, oldSize = %d, newSize = %d\n",
                static_cast<int>(m_faultCodeSize), static_cast<int>(r.size));
    if (r.size < 0 || r.data == nullptr) {
        OBD_DEV_LOG(0, "S38_OBD: GDS get fault code result error\n");
        return;
    }
    const size_t size = static_cast<size_t>(r.size);
    if (m_pFaultCode != nullptr && m_faultCodeSize == r.size &&
        std::memcmp(m_pFaultCode, r.data, size) == 0) {
        OBD_DEV_LOG(1, "S38_OBD: GDS get fault code is same, and break\n");
        return;
    }
    std::free(m_pFaultCode);
    m_faultCodeSize = r.size;
    // malloc(0) may return null: one spare byte makes an empty block a stored block.
    m_pFaultCode = static_cast<char*>(std::malloc(size + 1));
    if (m_pFaultCode != nullptr && size > 0) std::memcpy(m_pFaultCode, r.data, size);
    m_infoPending[GDS_GET_FAULT_CODE] = 0;
}

// Bus registration and the inbound handlers of configuration, samples, relayed box bytes,
// mileage and power-down (upgrade and calibration handlers: SerialDevOBDUpgrade.cpp).
//
// Untrusted input: every message comes from another service. A handler first checks that the
// 16-byte head is there, and reads no payload byte beyond `len`, whatever the head's length word
// or a count inside the payload claims; a message too short for what it must carry is rejected
// with the handler's own text and changes nothing.
#include <cstdio>
#include <cstring>

#include "COBDCtrl.h"
#include "ObdLog.h"
#include "SerialDevOBD.h"

namespace {

constexpr int kHeadSize = static_cast<int>(sizeof(Common::SMessageHead));

bool Accepted(const char* msg, int len) {
    return msg != nullptr && len > kHeadSize - 1;
}

const unsigned char* Payload(const char* msg) {
    return reinterpret_cast<const unsigned char*>(msg) + kHeadSize;
}

uint32_t U32Le(const unsigned char* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

uint32_t HeadPayloadLength(const char* msg) {
    return U32Le(reinterpret_cast<const unsigned char*>(msg) +
                 offsetof(Common::SMessageHead, lenFlags)) &
           Common::MSG_HEAD_LEN_MASK;
}

struct Route {
    int id;
    int (CSerialDevOBD::*handler)(const char*, int);
};

// Registration order as the recorder's bus expects it.
constexpr Route kRoutes[] = {
    {MSG_GDS_PARAM_UPDATE_EX, &CSerialDevOBD::OnUpdateGdsParam},
    {MSG_GDS_PARAM_UPDATE, &CSerialDevOBD::OnUpdateGdsParam},
    {MSG_INERTIA_SENSOR_DATA, &CSerialDevOBD::OnUpdateInertiaSensor},
    {MSG_GET_GDS_CONFIG_INFO, &CSerialDevOBD::OnGetGdsConfigInfo},
    {MSG_TRIGGER_PERIPHERAL_UPGRADE, &CSerialDevOBD::OnTriggerObdUpgrade},
    {MSG_TRIGGER_OBD_DEMACATE, &CSerialDevOBD::OnTriggerObdDemacate},
    {MSG_GET_PERIPHERAL_UPGRADE_STATE, &CSerialDevOBD::OnGetPeripheralUpgradeState},
    {MSG_POWER_DOWN, &CSerialDevOBD::OnHandlePowerDown},
    {MSG_CAN_BOX_OBD_DATA_IN, &CSerialDevOBD::OnUpdateOBDData},
    {MSG_CAN_BOX_TOTAL_MILEAGE, &CSerialDevOBD::OnGetTotalMileage},
};

}  // namespace

int CSerialDevOBD::MessageRegister() {
    if (m_pMsgClient == nullptr) return 0;
    for (const Route& r : kRoutes) {
        // The bus calls back through the peripheral base; single inheritance keeps the object's
        // address and makes the conversion of the member pointer exact.
        m_pMsgClient->MSGEventRegister(static_cast<int>(m_moduleId), r.id,
                                       static_cast<const CPeripheralBase*>(this),
                                       static_cast<PeripheralMsgHandler>(r.handler));
    }
    return 0;
}

int CSerialDevOBD::MessageUnRegister() {
    if (m_pMsgClient == nullptr) return 0;
    for (const Route& r : kRoutes)
        m_pMsgClient->MSGEventUnRegister(static_cast<int>(m_moduleId), r.id);
    return 0;
}

int CSerialDevOBD::OnUpdateGdsParam(const char* msg, int len) {
    if (!Accepted(msg, len)) {
        OBD_DEV_LOG(0, "S38_OBD: Get GDS param length or msg is error \n");
        return 0;
    }
    std::printf("S38_OBD: update GDS alarm thres...\n");
    std::fflush(stdout);
    return 0;
}

int CSerialDevOBD::OnUpdateInertiaSensor(const char* msg, int len) {
    // The converter reads the whole 32-byte sample: a shorter message is refused, not half read.
    if (!Accepted(msg, len) || len < kHeadSize + 32) {
        OBD_DEV_LOG(0, "S38_OBD: Get perip upgrade result length or msg is error \n");
        return 0;
    }
    ConvertInertiaSensorData(msg);
    return 0;
}

// The configuration and status record from the store; the caller holds m_devInfoMutex. A field
// is filled, and its mask bit set, only once the box has reported it.
void CSerialDevOBD::FillGdsConfigInfo(GdsConfigInfo_t* info) {
    std::memset(info, 0, sizeof(*info));
    if (m_infoPending[GDS_GET_VERSION] == 0) {
        info->mask |= CFG_MASK_VERSION;
        info->version = m_devVersion;
    }
    if (m_infoPending[GDS_GET_SCAN_TIME_LEVEL] == 0) {
        info->mask |= CFG_MASK_SCAN_TIME_LEVEL;
        info->scanTimeLevel = m_devScanTimeLevel;
    }
    if (m_infoPending[GDS_GET_DATA_SCAN_LEVEL] == 0) {
        info->mask |= CFG_MASK_DATA_SCAN_LEVEL;
        info->dataScanLevel = m_devDataScanLevel;
    }
    if (m_infoPending[GDS_GET_ENGINE] == 0) {
        info->mask |= CFG_MASK_ENGINE;
        info->engine = m_devEngine;
    }
    if (m_infoPending[GDS_GET_ALARM_THRESHOLD] == 0) {
        info->mask |= CFG_MASK_ALARM_THRESHOLD;
        std::memcpy(info->alarmThreshold, alarmThreshold, sizeof(info->alarmThreshold));
    }
    info->mask |= CFG_MASK_OBD_STATE;
    info->obd_state = m_obdState;
    info->mask |= CFG_MASK_MODE;
    info->mode = 0;
}

int CSerialDevOBD::OnGetGdsConfigInfo(const char* msg, int len) {
    if (!Accepted(msg, len)) {
        OBD_DEV_LOG(0, "S38_OBD: Get gds config info length or msg is error \n");
        return 0;
    }
    pthread_mutex_lock(&m_devInfoMutex);
    GdsConfigInfo_t info;
    FillGdsConfigInfo(&info);
    char name[sizeof(info.engine.name) + 1] = {};
    std::memcpy(name, info.engine.name, sizeof(info.engine.name));
    std::printf(
        "555555, engine_id = %x, name = %s, obd_state = 0x%x, mode = %d,  mask = 0x%x, "
        "msgLen = %d\n",
        static_cast<unsigned>(info.engine.engine_id), name, static_cast<unsigned>(info.obd_state),
        static_cast<int>(info.mode), static_cast<unsigned>(info.mask),
        static_cast<int>(sizeof(info)));
    std::fflush(stdout);
    // The host's head is answered as received; a private copy keeps the caller's bytes const.
    Common::SMessageHead head;
    std::memcpy(&head, msg, sizeof(head));
    if (m_pMsgClient != nullptr) {
        m_pMsgClient->MSGResponseMessage(&head, reinterpret_cast<const char*>(&info),
                                         static_cast<int>(sizeof(info)));
    }
    pthread_mutex_unlock(&m_devInfoMutex);
    return 0;
}

int CSerialDevOBD::OnHandlePowerDown(const char* msg, int len) {
    if (!Accepted(msg, len)) {
        OBD_DEV_LOG(0, "S38_obd: Power down msg length or msg is error \n");
        return 0;
    }
    OBD_DEV_LOG(1, "S38_obd:  reboot or power off\n");
    m_bPowerDown = 1;
    // Directly, not queued: the box must stop streaming before the power goes. Not waited for:
    // no bus handler may block the bus (behind the CAN box no answer would ever come).
    if (m_pObdCtrl != nullptr) m_pObdCtrl->OBD_StopTsNoWait();
    return 0;
}

int CSerialDevOBD::OnUpdateOBDData(const char* msg, int len) {
    // The relayed count must fit in what was received: a chunk that claims more than it carries
    // is refused whole rather than fed half-way into the receiver.
    bool ok = Accepted(msg, len) && len >= kHeadSize + 4;
    int32_t n = 0;
    if (ok) {
        n = static_cast<int32_t>(U32Le(Payload(msg)));
        ok = n >= 0 && n <= len - kHeadSize - 4;
    }
    if (!ok) {
        OBD_DEV_LOG(0, "S38_obd: Get perip upgrade result length or msg is error \n");
        return 0;
    }
    const char* bytes = msg + kHeadSize + 4;
    if (m_pPeripheralManage != nullptr) {
        m_pPeripheralManage->hex_dump("obd data:", bytes, static_cast<unsigned int>(n), 3);
    }
    if (m_pObdCtrl != nullptr) {
        // The receiver keeps what it is given only for the call; it does not write through it.
        m_pObdCtrl->ReceiveData(reinterpret_cast<unsigned char*>(const_cast<char*>(bytes)), n);
    }
    return 0;
}

int CSerialDevOBD::OnGetTotalMileage(const char* msg, int len) {
    if (!Accepted(msg, len)) {
        OBD_DEV_LOG(0, "update calc pulse length error \n");
        return 0;
    }
    const uint32_t stated = HeadPayloadLength(msg);
    // A head that states 16 bytes over a shorter message is lying: report what it stated.
    if (stated != 16 || len < kHeadSize + 12) {
        OBD_DEV_LOG(0, "adjust speed param failed msgerror=%d\n", static_cast<int>(stated));
        return 0;
    }
    double mileage = 0.0;
    std::memcpy(&mileage, Payload(msg), sizeof(mileage));
    const uint32_t engineTime = U32Le(Payload(msg) + 8);
    pthread_mutex_lock(&m_devInfoMutex);
    m_totalMileage = mileage;
    m_engineTime = engineTime;
    pthread_mutex_unlock(&m_devInfoMutex);
    OBD_DEV_LOG(2, "S38_CanObd m_totalMileage= %f \n", mileage);
    return 0;
}

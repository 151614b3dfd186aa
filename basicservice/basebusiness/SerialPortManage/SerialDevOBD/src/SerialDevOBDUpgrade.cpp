// Upgrade and calibration orchestration: the bus side of a firmware upgrade of the box (trigger,
// progress broadcasts, state per source, state query) and of an engine calibration.
//
// One upgrade at a time: from the accepted trigger until its end, m_bUpgrading is set and further
// triggers only hear how it stands. It ends through its transfer's progress records, or as failed
// when its task never runs.
//
// Threads: the handlers run on the bus thread; HandleObdUpgradeFinish and BroadcastUpgradeState
// on the send thread inside UpdateDevInfo, which holds m_devInfoMutex; FailUnrunUpgrade on
// whichever thread saw the task go, holding no lock. The handlers take the same lock around the
// bookkeeping they share with them (context and state slots).
#include <atomic>
#include <cstring>

#include "ObdLog.h"
#include "SerialDevOBD.h"
#include "SerialDevOBDInternal.h"

namespace {

constexpr int kHeadSize = static_cast<int>(sizeof(Common::SMessageHead));
constexpr size_t UPGRADE_PATH_MAX = 64;

// The last progress percent broadcast. Process-wide and never reset, like the recorder's own
// build: a new upgrade's first 0 % is not repeated after a failure at 0 %.
std::atomic<int> g_lastUpgradePercent{-1};

bool Accepted(const char* msg, int len, int payloadBytes) {
    return msg != nullptr && len >= kHeadSize + payloadBytes;
}

}  // namespace

void ObdUpgradePercentReset() {
    g_lastUpgradePercent = -1;
}

// A path it refuses never reaches the queue: an upgrade accepted for it ends at once, as one whose
// task the queue dropped does.
int CSerialDevOBD::UpgradeObd(const char* path) {
    if (path == nullptr || std::strlen(path) > UPGRADE_PATH_MAX) {
        OBD_DEV_LOG(0, "path is null\n");
        FailUnrunUpgrade();
        return -1;
    }
    TaskBody_t task;
    std::memset(&task, 0, sizeof(task));
    task.taskType = TASK_TYPE_UPGRADE;
    task.cmd = 0;
    std::memcpy(task.data, path, std::strlen(path));
    return InsertSendTask(task);
}

// An accepted upgrade ends only through its task's progress records: one whose task left the
// queue unexecuted, or never got there, would hold m_bUpgrading, and with it the cycle's 1 s
// work, for good. It ends as failed with the percent it had. Caller holds neither mutex.
void CSerialDevOBD::FailUnrunUpgrade() {
    pthread_mutex_lock(&m_devInfoMutex);
    if (m_bUpgrading.load() != 0) {
        OBD_DEV_LOG(0, "S38_obd: [UPG] upgrade task not run, source = %d\n", m_upgContext.source);
        BroadcastUpgradeState(PERIP_UPG_STATE_FAILED, m_upgContext.source, true);
    }
    pthread_mutex_unlock(&m_devInfoMutex);
}

// A trigger reads four payload bytes: a shorter one is refused, not read past its end.
int CSerialDevOBD::OnTriggerObdUpgrade(const char* msg, int len) {
    if (!Accepted(msg, len, 4)) {
        OBD_DEV_LOG(0, "S38_obd: Trigger gds/obd upgrade msg length or msg is error \n");
        return 0;
    }
    const auto* p = reinterpret_cast<const unsigned char*>(msg) + kHeadSize;
    const int source = static_cast<signed char>(p[0]);
    const int verify = p[1], device = p[2], fileSource = p[3];
    OBD_DEV_LOG(0,
                "S38_obd: [UPG], source = %d, verfify = %d, device = %d(7:obd), fileSource = %d\n",
                source, verify, device, fileSource);
    if (device != UPG_DEVICE_OBD) {
        OBD_DEV_LOG(0, "S38_obd: [UPG], device = %d(7:obd), fileSource = %d\n", device, fileSource);
        return 0;
    }
    auto answer = [&](int percent) {
        UpgradeResult_t result;
        std::memset(&result, 0, sizeof(result));
        result.source = static_cast<int8_t>(source);
        result.device = UPG_DEVICE_OBD;
        result.state = PERIP_UPG_STATE_PROGRESS;
        result.percent = static_cast<int8_t>(percent);
        Common::SMessageHead head;
        std::memcpy(&head, msg, sizeof(head));
        if (m_pMsgClient != nullptr) {
            m_pMsgClient->MSGResponseMessage(&head, reinterpret_cast<const char*>(&result),
                                             static_cast<int>(sizeof(result)));
        }
    };
    pthread_mutex_lock(&m_devInfoMutex);
    if (m_bUpgrading.load() != 0) {
        // A second transfer would follow the running one, whose success deletes the file, and
        // end the upgrade as failed: the running one is left alone and reported as it stands.
        const int percent = m_upgContext.percent;
        pthread_mutex_unlock(&m_devInfoMutex);
        OBD_DEV_LOG(0, "S38_obd: [UPG] upgrade already running, source = %d, percent = %d\n",
                    source, percent);
        answer(percent);
        return 0;
    }
    m_upgContext = UpgContext_t{};
    m_upgContext.source = source;
    m_bUpgrading = 1;
    if (source >= 0 && source <= 3) {
        m_upgResult[source].source = static_cast<int8_t>(source);
        m_upgResult[source].state = PERIP_UPG_STATE_PROGRESS;
        m_upgResult[source].percent = 0;
    }
    pthread_mutex_unlock(&m_devInfoMutex);
    OBD_DEV_LOG(0,
                "S38_obd: [UPG], source = %d, verfify = %d, device = %d(7:obd), fileSource = %d\n",
                source, verify, device, fileSource);
    OBD_DEV_LOG(0,
                "S38_obd: [GDS_UPG] up broadcast, upgSource = %d, devId = %d, reslut = %d, "
                "percent = %d\n",
                source, UPG_DEVICE_OBD, 0, 0);
    answer(0);
    // Queued last: the send thread may end the upgrade from here on (progress, or a task it
    // drops), and its broadcasts must come after the answer and be what the slot keeps.
    UpgradeObd(OBD_UPGRADE_FILE_PATH);
    return 0;
}

int CSerialDevOBD::OnGetPeripheralUpgradeState(const char* msg, int len) {
    if (!Accepted(msg, len, 2)) {
        OBD_DEV_LOG(0, "S38_obd: Get perip upgrade result length or msg is error \n");
        return 0;
    }
    const auto* p = reinterpret_cast<const unsigned char*>(msg) + kHeadSize;
    const int source = static_cast<signed char>(p[0]);
    const int device = p[1];
    OBD_DEV_LOG(1, "S38_obd: Get upgrade result, source = %d, device = %d\n", source, device);
    // Slot 3 is kept but never answered, as the recorder's services expect.
    if (source < 0 || source > 2 || device != UPG_DEVICE_OBD) return 0;
    pthread_mutex_lock(&m_devInfoMutex);
    const UpgradeResult_t answer = m_upgResult[source];
    pthread_mutex_unlock(&m_devInfoMutex);
    OBD_DEV_LOG(1,
                "S38_obd: Response upgrade result, source = %d, device = %d, reslut = %d  "
                "Percent = %d\n",
                answer.source, answer.device, answer.state, answer.percent);
    Common::SMessageHead head;
    std::memcpy(&head, msg, sizeof(head));
    if (m_pMsgClient != nullptr) {
        m_pMsgClient->MSGResponseMessage(&head, reinterpret_cast<const char*>(&answer),
                                         static_cast<int>(sizeof(answer)));
    }
    return 0;
}

// A calibration request carries a 52-byte engine record: a shorter one is refused whole.
int CSerialDevOBD::OnTriggerObdDemacate(const char* msg, int len) {
    if (!Accepted(msg, len, static_cast<int>(sizeof(_OBD_Engine_t)))) {
        OBD_DEV_LOG(0, "S12_GDS: Trigger gds/obd upgrade msg length or msg is error \n");
        return 0;
    }
    _OBD_Engine_t engine;
    std::memcpy(&engine, msg + kHeadSize, sizeof(engine));
    pthread_mutex_lock(&m_devInfoMutex);
    std::memcpy(&m_demarcateMsgHead, msg, sizeof(m_demarcateMsgHead));
    pthread_mutex_unlock(&m_devInfoMutex);
    OBD_DEV_LOG(0, "S38_obd:  Demacate = %d\n", static_cast<int>(engine.engine_id));
    ConfigObd(GDS_CFG_ENGINE, &engine);
    pthread_mutex_lock(&m_devInfoMutex);
    m_infoPending[GDS_GET_ENGINE] = 1;
    pthread_mutex_unlock(&m_devInfoMutex);
    Request(GDS_GET_ENGINE);
    return 0;
}

// Caller (UpdateDevInfo) holds m_devInfoMutex.
int CSerialDevOBD::HandleObdUpgradeFinish() {
    switch (m_devUpgradeState.state) {
        case UPG_STATE_SUCCESS:
            m_upgContext.percent = static_cast<uint8_t>(m_devUpgradeState.percent);
            BroadcastUpgradeState(PERIP_UPG_STATE_SUCCESS, m_upgContext.source, true);
            m_infoPending[GDS_GET_VERSION] = 1;  // the box runs new firmware: read it again
            break;
        case UPG_STATE_FAILED:
            BroadcastUpgradeState(PERIP_UPG_STATE_FAILED, m_upgContext.source, true);
            break;
        case UPG_STATE_PROGRESS:
            m_upgContext.percent = static_cast<uint8_t>(m_devUpgradeState.percent);
            if (g_lastUpgradePercent.exchange(m_upgContext.percent) == m_upgContext.percent) break;
            BroadcastUpgradeState(PERIP_UPG_STATE_PROGRESS, m_upgContext.source, false);
            break;
        default:
            break;
    }
    return 0;
}

// Caller holds m_devInfoMutex.
void CSerialDevOBD::BroadcastUpgradeState(int state, int source, bool finished) {
    if (state > PERIP_UPG_STATE_SUCCESS) {
        OBD_DEV_LOG(0, "S38_obd: GDS upgrade state is error, state = %d\n", state);
    } else {
        UpgradeResult_t msg;
        std::memset(&msg, 0, sizeof(msg));
        msg.source = static_cast<int8_t>(source);
        msg.device = UPG_DEVICE_OBD;
        msg.state = static_cast<uint8_t>(state);
        msg.percent = static_cast<int8_t>(m_upgContext.percent);
        OBD_DEV_LOG(3,
                    "S38_obd: [GDS_UPG] state broadcast, upgSource = %d, devId = %d, reslut = %d, "
                    "percent = %d\n",
                    source, UPG_DEVICE_OBD, state, static_cast<int>(m_upgContext.percent));
        Broadcast(MSG_PERIPHERAL_UPGRADE_STATE, &msg, sizeof(msg));
    }
    if (source >= 0 && source <= 3) {
        m_upgResult[source].source = static_cast<int8_t>(source);
        m_upgResult[source].state = static_cast<uint8_t>(state);
        m_upgResult[source].percent = static_cast<int8_t>(m_upgContext.percent);
    }
    if (finished) {
        m_bUpgrading = 0;
        m_upgContext = UpgContext_t{};
    } else {
        m_bUpgrading = 1;
    }
}

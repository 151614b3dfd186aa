// Peripheral object: entry points, lifecycle, serial input and output, periodic cycle.
#include "SerialDevOBD.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "COBDCtrl.h"
#include "ObdLog.h"
#include "SerialDevOBDInternal.h"

namespace {

// Last run of the 1 s, 2 s, 5 s and 10 s work. Process-wide like the recorder's own build, and
// touched only from the host's peripheral thread; atomics keep a second instance race-free.
std::atomic<long long> g_last1s{0};
std::atomic<long long> g_last2s{0};
std::atomic<long long> g_last5s{0};
std::atomic<long long> g_last10s{0};

// Due when |now - last| reaches the interval; a clock that jumps backwards makes it due too.
bool TimerDue(std::atomic<long long>& last, long long now, long long intervalMs) {
    long long diff = now - last.load(std::memory_order_relaxed);
    if (diff < 0) diff = -diff;
    if (diff < intervalMs) return false;
    last.store(now, std::memory_order_relaxed);
    return true;
}

}  // namespace

void ObdCycleTimersReset() {
    g_last1s = 0;
    g_last2s = 0;
    g_last5s = 0;
    g_last10s = 0;
}

extern "C" void* PeripheralCreate(CPeripheralManage* manage, CMsgClientManage* msgClient,
                                  unsigned int arg3, unsigned int arg4) {
    return new (std::nothrow) CSerialDevOBD(manage, msgClient, arg3, arg4);
}

extern "C" int PeripheralRelease(void* object) {
    if (object == nullptr) return 1;
    // The host hands back what PeripheralCreate returned: our object seen as its peripheral base.
    auto* periph = static_cast<CPeripheralBase*>(static_cast<CSerialDevOBD*>(object));
    periph->StopPeripheralThread();
    delete periph;
    return 1;
}

// The message client given here is deliberately not handed on: the host base provides its own.
CSerialDevOBD::CSerialDevOBD(CPeripheralManage* manage, CMsgClientManage* /*msgClient*/,
                             unsigned int arg3, unsigned int arg4)
    : CSerialBase(manage, nullptr, arg3, arg4),
      m_pObdCtrl(nullptr),
      m_infoPending{},
      m_taskMutex(),
      m_bTaskThreadRun(1),
      m_bSendThreadStarted(false),
      m_sendTaskQueue(),
      m_bFrontRunning(false),
      m_devInfoMutex(),
      m_bPowerDown(0),
      m_bCanBoxMode(0),
      m_productType(PRODUCT_TYPE_UNKNOWN),
      m_gdsParam(),
      m_devVersion(),
      m_devScanTimeLevel(),
      m_devDataScanLevel(),
      m_devEngine(),
      m_devUpgradeState(),
      m_devDemarcateResult(0),
      alarmThreshold{},
      m_devInfoChanged(0),
      m_faultCodeSize(0),
      m_pFaultCode(nullptr),
      m_demarcateMsgHead(),
      m_obdState(0),
      m_pBlackboxBuf(nullptr),
      m_blackboxLen(OBD_BLACKBOX_HEAD_SIZE),
      m_blackboxNum(0),
      m_obdDataAge(0),
      m_obdLinkTimeout(12),
      m_bObdLinkUp(0),
      m_blackboxDropped(0),
      m_bBlackboxFullLogged(false),
      m_prevAlarmWords{},
      m_neutralGlideRecord(),
      m_idlingRecord(),
      m_overspeedRecord(),
      m_curveRecord(),
      m_upgContext(),
      m_upgResult(),
      m_totalMileage(0.0),
      m_engineTime(0) {
    SetThreadCircleTime(OBD_CYCLE_PERIOD_MS);
    SetSerialMaxBufferSize(OBD_SERIAL_BUFFER_SIZE);
    P4X_GetProductType(m_productType);
    if (m_productType == PRODUCT_TYPE_CAN_BOX) m_bCanBoxMode = 1;
    m_bUpgrading = 0;
    std::memset(m_infoPending, 1, sizeof(m_infoPending));
    m_pBlackboxBuf = new unsigned char[OBD_BLACKBOX_BUF_SIZE]();
    for (auto& slot : m_upgResult) {
        std::memset(&slot, 0, sizeof(slot));
        slot.source = static_cast<int8_t>(-1);  // 0xFF: no source yet
        slot.device = 7;
    }
    pthread_mutex_init(&m_devInfoMutex, nullptr);
    pthread_mutex_init(&m_taskMutex, nullptr);
    OBD_DEV_LOG(0, "S38_OBD: **CSerialDevOBD** is start!!!\n");
    m_bPowerDown = 0;
}

CSerialDevOBD::~CSerialDevOBD() {
    SetSerialConfigStatus(6, 0, 0);
    // Under the lock: in CAN-box mode a late relayed frame may still be appending a record.
    pthread_mutex_lock(&m_devInfoMutex);
    delete[] m_pBlackboxBuf;
    m_pBlackboxBuf = nullptr;
    pthread_mutex_unlock(&m_devInfoMutex);
    // Handshake with the send thread: it sets the flag back to 1 on its way out. Without a send
    // thread nobody would ever answer, so there is nothing to wait for.
    m_bTaskThreadRun = 0;
    // The host no longer reads the box's answers: the task in hand gives up at its next poll.
    if (m_pObdCtrl != nullptr) m_pObdCtrl->OBD_CancelCommands();
    if (m_bSendThreadStarted) {
        while (m_bTaskThreadRun.load() == 0) Common::P4X_TMSleepMicroSecond(20000);
    }
    // A calibration still collecting owns a buffer; nobody feeds it once we are gone.
    Gds_IF_ReleaseLogicAnalyser(&m_gdsParam);
    delete m_pObdCtrl;
    m_pObdCtrl = nullptr;
    std::free(m_pFaultCode);
    m_pFaultCode = nullptr;
    pthread_mutex_destroy(&m_devInfoMutex);
    pthread_mutex_destroy(&m_taskMutex);
    OBD_DEV_LOG(0, "S38_OBD: **CSerialDevOBD** is destruct!!!\n");
}

int CSerialDevOBD::PeripheralInitialize() {
    m_pObdCtrl = new COBDCtrl(this);
    if (m_pObdCtrl->OBD_Init() != 0) {
        OBD_DEV_LOG(0, "S38_OBD: CGDSBoardCtrl instance init failed\n");
        SetCurPeripheralStatus(false);
        return -1;
    }
    if (CreateNormalThread(TaskSendThreadEntry, this, nullptr) < 0) {
        std::printf("S38_OBD: Create [MsgSendThreadEntry] thread failed");
        std::fflush(stdout);
        return -1;
    }
    m_bSendThreadStarted = true;
    Gds_IF_InitLogicAnalyser(&m_gdsParam);
    ConfigObd(GDS_CFG_START_TS, nullptr);
    pthread_mutex_lock(&m_devInfoMutex);
    std::memcpy(alarmThreshold, &m_gdsParam, GDS_THRESHOLD_BYTES);
    pthread_mutex_unlock(&m_devInfoMutex);
    return 0;
}

int CSerialDevOBD::ProcessPeripheralData() {
    char buffer[OBD_SERIAL_BUFFER_SIZE] = {};
    unsigned int length = 0;
    GetSerialBufferData(buffer, length);
    // The host promises at most the maximum buffer size; never hand on more than we hold.
    if (length > OBD_SERIAL_BUFFER_SIZE) length = OBD_SERIAL_BUFFER_SIZE;
    if (m_pPeripheralManage != nullptr)
        m_pPeripheralManage->hex_dump("obd data:", buffer, length, 2);
    if (m_pObdCtrl != nullptr) {
        m_pObdCtrl->ReceiveData(reinterpret_cast<unsigned char*>(buffer), static_cast<int>(length));
    }
    return 0;
}

int CSerialDevOBD::SendData(char* data, int len) {
    if (m_bCanBoxMode == 0) {
        if (data != nullptr && len > 0) SendDataToPeripheral(data, static_cast<unsigned int>(len));
        return len;
    }
    // CAN-box mode: the box is behind another service; only the software-version read and the
    // start of the data stream are relayed to it.
    if (data == nullptr || len < 9) return len;
    const auto* frame = reinterpret_cast<const unsigned char*>(data);
    const unsigned int code = (static_cast<unsigned int>(frame[7]) << 8) | frame[8];
    if (code != 0x2105 && code != 0x2C01) return len;
    const size_t total = static_cast<size_t>(len) + 4;
    auto* buffer = static_cast<unsigned char*>(std::malloc(total));
    if (buffer == nullptr) return len;
    const uint32_t n = static_cast<uint32_t>(len);
    buffer[0] = static_cast<unsigned char>(n & 0xFF);
    buffer[1] = static_cast<unsigned char>((n >> 8) & 0xFF);
    buffer[2] = static_cast<unsigned char>((n >> 16) & 0xFF);
    buffer[3] = static_cast<unsigned char>((n >> 24) & 0xFF);
    std::memcpy(buffer + 4, data, static_cast<size_t>(len));
    if (m_pMsgClient != nullptr) {
        m_pMsgClient->MSGSendMessage(0, MSG_CAN_BOX_OBD_DATA_OUT, 0,
                                     reinterpret_cast<const char*>(buffer), static_cast<int>(total),
                                     static_cast<int>(m_moduleId));
    }
    std::free(buffer);
    return len;
}

int CSerialDevOBD::PeripheralThreadCycle(long long now) {
    // While an upgrade runs the 1 s timer is neither due nor updated, so the first cycle after
    // it runs the 1 s work at once.
    if (m_bUpgrading.load() == 0 && TimerDue(g_last1s, now, 1000)) {
        if (m_bPowerDown.load() == 1) return 0;
        Gds_IF_AnalyserData(&m_gdsParam);
        BroadcastObdOriginalData();
        BroadcastBlackboxObdData();
        BroadcastGdsAlarm();
        if (m_bCanBoxMode == 1) BroadcastCanBoxData();
    }
    if (TimerDue(g_last2s, now, 2000)) BroadcastObdCollectStatus();
    if (TimerDue(g_last5s, now, 5000)) {
        if (m_bCanBoxMode == 0) {
            RequestGdsDevFeature();
        } else {
            HandleOBDDataDisConnect();
        }
    }
    if (TimerDue(g_last10s, now, 10000)) {
        ConfigObd(GDS_CFG_START_TS, nullptr);
        if (m_pObdCtrl != nullptr && m_pObdCtrl->OBD_CheckObdHeartBeat() != 0) {
            ConfigObd(GDS_CFG_LINK, nullptr);
        }
    }
    return 0;
}

unsigned char CSerialDevOBD::InfoPending(int type) {
    if (type < 0 || type >= INFO_PENDING_COUNT) return 0;
    pthread_mutex_lock(&m_devInfoMutex);
    const unsigned char v = m_infoPending[type];
    pthread_mutex_unlock(&m_devInfoMutex);
    return v;
}

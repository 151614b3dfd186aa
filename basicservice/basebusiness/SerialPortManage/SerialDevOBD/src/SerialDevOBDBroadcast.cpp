// Periodic broadcasts: the OBD table, black-box records, alarms, the CAN-box summary (1 s), the
// status record when something changed or the box fell silent (2 s), and the CAN-box silence
// check (5 s).
//
// Thread: the host's peripheral thread only. What the receiving side writes (the table, the
// black-box buffer, the link counters) and the bus thread (mileage pair) is read under
// m_devInfoMutex; the alarm trackers and their records are this thread's alone.
#include <atomic>
#include <cstring>

#include "COBDCtrl.h"
#include "ObdBusRecords.h"
#include "ObdLog.h"
#include "SerialDevOBD.h"
#include "SerialDevOBDInternal.h"

namespace {

// When the neutral-glide, idling and overspeed alarms began (host microseconds). Process-wide
// like the recorder's own build; atomics keep a second instance race-free.
std::atomic<uint64_t> g_neutralGlideStart{0};
std::atomic<uint64_t> g_idlingStart{0};
std::atomic<uint64_t> g_overspeedStart{0};

constexpr uint32_t OBD_DATA_AGE_LIMIT = 5;

// A product as the receivers expect it: truncated toward zero, negative and NaN as 0, saturated
// at the top rather than undefined.
uint32_t ToU32(double v) {
    if (!(v > 0.0)) return 0;
    if (v >= 4294967295.0) return 0xFFFFFFFFu;
    return static_cast<uint32_t>(v);
}

// An item's value as a 16-bit detail field: truncated toward zero, clamped to the field.
int16_t ToI16(float v) {
    if (!(v == v)) return 0;
    if (v >= 32767.0f) return 32767;
    if (v <= -32768.0f) return -32768;
    return static_cast<int16_t>(v);
}

// The host clock's difference / 1000, whichever reads later: milliseconds on the host's
// microsecond clock. Kept to the 16-bit field it goes into.
uint16_t HostMillisecondsBetween(uint64_t now, uint64_t start) {
    const uint64_t d = now >= start ? now - start : start - now;
    return static_cast<uint16_t>(d / 1000u);
}

// The threshold of the lowest level set among the three level bits from bit `first` of `word`.
uint16_t LowestLevelThreshold(uint64_t word, int first, int16_t level1, int16_t level2,
                              int16_t level3) {
    int16_t t = level3;
    if (word & (1ull << first)) {
        t = level1;
    } else if (word & (1ull << (first + 1))) {
        t = level2;
    }
    return static_cast<uint16_t>(t);
}

// How an alarm's bits moved from the last alarm broadcast to this one. A change of level while
// the alarm lasts is neither a beginning nor an end.
enum class AlarmEdge { None, Began, Ended };

AlarmEdge EdgeOf(uint64_t previousWord, uint64_t currentWord, uint64_t bits) {
    const bool was = (previousWord & bits) != 0;
    const bool is = (currentWord & bits) != 0;
    if (!was && is) return AlarmEdge::Began;
    if (was && !is) return AlarmEdge::Ended;
    return AlarmEdge::None;
}

// A timed alarm (neutral glide, idling, engine overspeed) at one broadcast: how its bits moved,
// the record it keeps from its beginning to its end, when it began, and what it reports.
struct TimedAlarm {
    AlarmEdge edge;
    AlarmOverData& record;
    std::atomic<uint64_t>& startedAt;
    int16_t valueAtStart;  // the record's maxValue, taken when it begins
    uint16_t threshold;    // reported when it ends
    AlarmOverData& slot;   // where the ended record goes in this broadcast
};

void BeginTimedAlarm(TimedAlarm& alarm, uint64_t now) {
    alarm.record = AlarmOverData{};
    alarm.record.maxValue = alarm.valueAtStart;
    alarm.startedAt = now;
}

void EndTimedAlarm(TimedAlarm& alarm, uint64_t now) {
    alarm.record.continueTime = HostMillisecondsBetween(now, alarm.startedAt);
    alarm.record.threshold = alarm.threshold;
    alarm.slot = alarm.record;
}

}  // namespace

void ObdAlarmStartTimesReset() {
    g_neutralGlideStart = 0;
    g_idlingStart = 0;
    g_overspeedStart = 0;
}

void CSerialDevOBD::Broadcast(int id, const void* payload, uint32_t len) {
    if (m_pMsgClient == nullptr) return;
    m_pMsgClient->MSGSendMessage(0, id, 0, static_cast<const char*>(payload), static_cast<int>(len),
                                 static_cast<int>(m_moduleId));
}

int CSerialDevOBD::BroadcastObdOriginalData() {
    ObdOriginalDataMsg_t msg;
    std::memset(&msg, 0, sizeof(msg));
    pthread_mutex_lock(&m_devInfoMutex);
    msg.table = m_gdsParam.collData.obdData;
    pthread_mutex_unlock(&m_devInfoMutex);
    const OBD_DataItem_t* it = msg.table.item;
    OBD_DEV_LOG(2,
                "S38_OBD: OBD data, epm = %.2lf, speed = %.2lf, temp = %.2lf, miles = %.2lf, "
                "gross = %.2lf, oilTemp = %.2lf, breakState = %.2lf, acceler = %.2lf\n",
                static_cast<double>(it[OBD_IDX_ENGINE_SPEED].value),
                static_cast<double>(it[OBD_IDX_SPEED].value),
                static_cast<double>(it[OBD_IDX_COOLANT_TEMP].value),
                static_cast<double>(it[0].value), static_cast<double>(it[OBD_IDX_GROSS].value),
                static_cast<double>(it[OBD_IDX_OIL_TEMP].value),
                static_cast<double>(it[OBD_IDX_BRAKE].value),
                static_cast<double>(it[OBD_IDX_ACCELERATOR].value));
    Broadcast(MSG_OBD_ORIGINAL_DATA, &msg, sizeof(msg));
    return 0;
}

int CSerialDevOBD::BroadcastBlackboxObdData() {
    if (m_pBlackboxBuf == nullptr) return 0;
    pthread_mutex_lock(&m_devInfoMutex);
    if (m_blackboxNum == 0) {
        pthread_mutex_unlock(&m_devInfoMutex);
        return 0;
    }
    const auto count = static_cast<uint16_t>(m_blackboxNum);
    std::memcpy(m_pBlackboxBuf, &count, sizeof(count));
    OBD_DEV_LOG(3, "S38_OBD: OBD data to blackbox, num = %d, length = %d\n",
                static_cast<int>(m_blackboxNum), static_cast<int>(m_blackboxLen));
    if (m_bBlackboxFullLogged) {
        OBD_DEV_LOG(0, "S38_OBD: OBD data to blackbox, buffer was full, dropped = %u\n",
                    m_blackboxDropped);
        m_bBlackboxFullLogged = false;
    }
    // The 12-byte tail is inside the buffer: records stop short of it (AppendBlackboxRecord).
    Broadcast(MSG_BLACKBOX_OBD_DATA, m_pBlackboxBuf, m_blackboxLen + BLACKBOX_MSG_TAIL);
    std::memset(m_pBlackboxBuf, 0, m_blackboxLen);
    m_blackboxLen = OBD_BLACKBOX_HEAD_SIZE;
    m_blackboxNum = 0;
    pthread_mutex_unlock(&m_devInfoMutex);
    return 0;
}

int CSerialDevOBD::BroadcastGdsAlarm() {
    const uint64_t now = Common::P4X_TMGetSystemMicroSecond();
    pthread_mutex_lock(&m_devInfoMutex);
    const Alarm_Info_t alarm = m_gdsParam.collData.alarmInfo;
    const float engineSpeed = m_gdsParam.collData.obdData.item[OBD_IDX_ENGINE_SPEED].value;
    const float speed = m_gdsParam.collData.obdData.item[OBD_IDX_SPEED].value;
    GDS_ALARM_THRESOLD_tag_ thr;
    // The thresholds reported to the host, not the analyser's live ones.
    std::memcpy(&thr, alarmThreshold, sizeof(thr));
    pthread_mutex_unlock(&m_devInfoMutex);

    const uint64_t* prev = m_prevAlarmWords;
    GdsAlarmMsg_t msg;
    std::memset(&msg, 0, sizeof(msg));
    msg.eventType1Alarms = alarm.eventType1Alarms;
    msg.eventType2Alarms = alarm.eventType2Alarms;
    msg.eventType3Alarms = alarm.eventType3Alarms;
    msg.eventType4Alarms = alarm.eventType4Alarms;

    // Idling keeps no value from its beginning; the graded alarms report the threshold of the
    // lowest level set before they ended.
    TimedAlarm neutralGlide{EdgeOf(prev[3], alarm.eventType4Alarms, ALARM_BIT_NEUTRAL_GLIDE),
                            m_neutralGlideRecord,
                            g_neutralGlideStart,
                            ToI16(speed),
                            static_cast<uint16_t>(thr.neutralGlide.speed),
                            msg.neutralGlide};
    TimedAlarm idling{
        EdgeOf(prev[1], alarm.eventType2Alarms, ALARM_BITS_IDLING),
        m_idlingRecord,
        g_idlingStart,
        0,
        LowestLevelThreshold(prev[1], 10, thr.idlingTimeout.level1Time,
                             thr.idlingTimeout.level2Time, thr.idlingTimeout.level3Time),
        msg.idling};
    TimedAlarm overspeed{EdgeOf(prev[1], alarm.eventType2Alarms, ALARM_BITS_OVERSPEED),
                         m_overspeedRecord,
                         g_overspeedStart,
                         ToI16(engineSpeed),
                         LowestLevelThreshold(prev[1], 0, thr.revving.engineSpeed1,
                                              thr.revving.engineSpeed2, thr.revving.engineSpeed3),
                         msg.overspeed};
    for (TimedAlarm* timed : {&neutralGlide, &idling, &overspeed}) {
        if (timed->edge == AlarmEdge::Began) BeginTimedAlarm(*timed, now);
        if (timed->edge == AlarmEdge::Ended) EndTimedAlarm(*timed, now);
    }
    if (neutralGlide.edge == AlarmEdge::Ended) {
        OBD_DEV_LOG(
            1,
            "S38_OBD: NetralGlide alarm over, continue time = %d, threshold = %d, maxValue = %d\n",
            m_neutralGlideRecord.continueTime, m_neutralGlideRecord.threshold,
            m_neutralGlideRecord.maxValue);
    }
    if (idling.edge == AlarmEdge::Ended) {
        OBD_DEV_LOG(1, "S38_OBD: KdlingTimeout alarm over, continue time = %d, threshold = %d\n",
                    m_idlingRecord.continueTime, m_idlingRecord.threshold);
    }
    if (overspeed.edge == AlarmEdge::Ended) {
        OBD_DEV_LOG(1,
                    "S38_OBD: Engine overspeed alarm over, continue time = %d, threshold = %d, "
                    "maxValue = %d\n",
                    m_overspeedRecord.continueTime, m_overspeedRecord.threshold,
                    m_overspeedRecord.maxValue);
    }

    // The sudden turn keeps no start time; its threshold is fixed.
    const AlarmEdge turn = EdgeOf(prev[3], alarm.eventType4Alarms, ALARM_BITS_SUDDEN_TURN);
    if (turn == AlarmEdge::Began) {
        m_curveRecord = CurveAlarmData{};
        m_curveRecord.maxValue = ToI16(speed);
    } else if (turn == AlarmEdge::Ended) {
        m_curveRecord.threshold = CURVE_ALARM_THRESHOLD;
        msg.curve = m_curveRecord;
        OBD_DEV_LOG(1, "S38_OBD: CurveAlarmData alarm over, threshold = %d, maxValue = %d\n",
                    m_curveRecord.threshold, m_curveRecord.maxValue);
    }

    Broadcast(MSG_GDS_ALARM, &msg, sizeof(msg));
    m_prevAlarmWords[0] = alarm.eventType1Alarms;
    m_prevAlarmWords[1] = alarm.eventType2Alarms;
    m_prevAlarmWords[2] = alarm.eventType3Alarms;
    m_prevAlarmWords[3] = alarm.eventType4Alarms;
    return 0;
}

int CSerialDevOBD::BroadcastCanBoxData() {
    CanBoxData_t msg;
    std::memset(&msg, 0, sizeof(msg));
    msg.kind = 0;
    msg.version = 1;
    pthread_mutex_lock(&m_devInfoMutex);
    const float speed = m_gdsParam.collData.obdData.item[OBD_IDX_SPEED].value;
    const float engineSpeed = m_gdsParam.collData.obdData.item[OBD_IDX_ENGINE_SPEED].value;
    // The pair is written together under this lock by the mileage handler.
    const double mileage = m_totalMileage;
    const uint32_t engineTime = m_engineTime;
    pthread_mutex_unlock(&m_devInfoMutex);
    // Items in single precision, as the receivers compute them; the mileage in double.
    msg.speed = ToU32(static_cast<double>(speed * 100.0f));
    msg.engineSpeed = ToU32(static_cast<double>(engineSpeed * 100.0f));
    msg.totalMileageValue = ToU32(mileage * 100.0);
    msg.engineTimeValue = engineTime / 36000u;
    OBD_DEV_LOG(
        2,
        "CAN_BOX data: speed = %d, engineSpeed =%d, engineTimeValue =%d,totalMileageValue = %d\n",
        static_cast<int>(msg.speed), static_cast<int>(msg.engineSpeed),
        static_cast<int>(msg.engineTimeValue), static_cast<int>(msg.totalMileageValue));
    Broadcast(MSG_CAN_BOX_DATA, &msg, sizeof(msg));
    return 0;
}

int CSerialDevOBD::BroadcastObdCollectStatus() {
    pthread_mutex_lock(&m_devInfoMutex);
    // Aged on every tick, sent or not: a box gone dead changes nothing else that would send it.
    bool fellSilent = false;
    if (m_obdDataAge != 0 && ++m_obdDataAge > OBD_DATA_AGE_LIMIT) {
        m_obdDataAge = 0;
        fellSilent = true;
        OBD_DEV_LOG(0, "S38_OBD: 5 second, OBD not recv any data, so obd is disconnect\n");
    }
    if (m_devInfoChanged == 0 && !fellSilent) {
        pthread_mutex_unlock(&m_devInfoMutex);
        return 0;
    }
    GdsConfigInfo_t info;
    FillGdsConfigInfo(&info);
    char text[sizeof(m_devEngine.name) + 1] = {};
    if (info.mask & CFG_MASK_VERSION) {
        std::memcpy(text, m_devVersion.DLVer, sizeof(m_devVersion.DLVer));
        text[sizeof(m_devVersion.DLVer)] = '\0';
        OBD_DEV_LOG(1, "S38_OBD: OBD version broadcast, ver = %s\n", text);
    }
    if (info.mask & CFG_MASK_ENGINE) {
        std::memcpy(text, m_devEngine.name, sizeof(m_devEngine.name));
        OBD_DEV_LOG(1, "S38_OBD: OBD Engine broadcast, type = %x, name = %s\n",
                    static_cast<unsigned>(m_devEngine.engine_id), text);
    }
    if (info.mask & CFG_MASK_ALARM_THRESHOLD) OBD_DEV_LOG(1, "S38_OBD: Alarm thresold broadcast\n");

    if (m_obdDataAge != 0) {
        m_obdState |= 0x03;
    } else {
        m_obdState &= static_cast<uint8_t>(~0x01);
        // A silent box's last engine and motion values must not live on in the broadcasts.
        for (int i = OBD_IDX_ENGINE_SPEED; i <= OBD_IDX_RUNNING_BRAKE; ++i)
            m_gdsParam.collData.obdData.item[i].value = 0.0f;
        if (m_devVersion.DLVer[0] != '\0') {
            m_obdState |= 0x02;
        } else {
            m_obdState &= static_cast<uint8_t>(~0x02);
        }
    }
    info.obd_state = m_obdState;
    OBD_DEV_LOG(1, "S38_OBD: GDS config changed and upload, mask = 0x%x, obd_state = 0x%x\n",
                static_cast<unsigned>(info.mask), static_cast<unsigned>(info.obd_state));
    Broadcast(MSG_GDS_CONFIG_INFO_REPORT, &info, sizeof(info));
    m_devInfoChanged = 0;
    pthread_mutex_unlock(&m_devInfoMutex);
    return 0;
}

int CSerialDevOBD::HandleOBDDataDisConnect() {
    pthread_mutex_lock(&m_devInfoMutex);
    if (m_obdLinkTimeout == 1) {
        OBD_DEV_LOG(0, "S38_CanObd: OBD Data respose is too long and set OBD disconnect \n");
        SetSerialConfigStatus(5, 0, 0);
        m_obdLinkTimeout = 0;
    } else if (m_obdLinkTimeout > 1) {
        --m_obdLinkTimeout;
    }
    pthread_mutex_unlock(&m_devInfoMutex);
    return 0;
}

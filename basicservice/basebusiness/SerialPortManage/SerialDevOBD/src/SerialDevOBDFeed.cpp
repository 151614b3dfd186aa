// Sample feed: every OBD table from the data stream, and the host's inertial samples, into the
// analyser; changes of the table into the black-box buffer; the link's up/down bookkeeping.
//
// Threads: the table arrives on the thread that feeds the frame receiver (the peripheral thread,
// or the bus thread in CAN-box mode); the inertial samples on the bus thread. The whole table
// step runs under m_devInfoMutex in both modes, so the once-a-second broadcasts on the
// peripheral thread never see a half-written record or table.
#include <cmath>
#include <cstring>

#include "ObdBusRecords.h"
#include "ObdLog.h"
#include "SerialDevOBD.h"
#include "SerialDevOBDInternal.h"

namespace {

constexpr uint8_t OBD_LINK_TIMEOUT_RELOAD = 12;

// value x 100 as the black-box word carries it: truncated toward zero, negative and NaN as 0,
// saturated instead of undefined for values beyond 32 bits.
uint32_t Hundredths(float value) {
    const float v = value * 100.0f;
    if (!(v > 0.0f)) return 0;
    if (v >= 4294967295.0f) return 0xFFFFFFFFu;
    return static_cast<uint32_t>(v);
}

// Float equality, except that a NaN equals a NaN: a box that keeps sending one for an item has
// not changed it. NaN against a number is a change.
bool SameValue(float a, float b) {
    return a == b || (std::isnan(a) && std::isnan(b));
}

void PutU32Le(unsigned char* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}

}  // namespace

uint32_t ObdBlackboxWord(int32_t id, float value) {
    return (static_cast<uint32_t>(id) & 0xFFu) | ((Hundredths(value) & 0xFFFFFFu) << 8);
}

int CSerialDevOBD::UpdateCollectData(CollectDataType_Eum kind, void* data) {
    if (data == nullptr) return -1;
    if (kind != COLLECT_OBD_DATA) {
        Gds_IF_UpdateCollectData(kind, data, &m_gdsParam);
        return 0;
    }
    const auto* table = static_cast<const _OBD_DataTable_t*>(data);
    pthread_mutex_lock(&m_devInfoMutex);
    if (m_obdDataAge != 1 && m_obdDataAge != 2) m_devInfoChanged |= OBD_DATA_CHANGED_BIT;
    m_obdDataAge = 1;

    uint32_t words[OBD_ITEM_COUNT];
    uint32_t n = 0;
    const _OBD_DataTable_t& prev = m_gdsParam.collData.obdData;
    for (int i = 0; i < OBD_ITEM_COUNT; ++i) {
        if (!SameValue(table->item[i].value, prev.item[i].value)) {
            words[n++] = ObdBlackboxWord(table->item[i].id, table->item[i].value);
        }
    }
    if (n > 0) {
        if (m_obdLinkTimeout == 0 || m_bObdLinkUp == 0) {
            OBD_DEV_LOG(0, "S38_obd: OBD Data respose is normal set OBD connect \n");
            SetSerialConfigStatus(7, 0, 0);
        }
        m_obdLinkTimeout = OBD_LINK_TIMEOUT_RELOAD;
        m_bObdLinkUp = 1;
        AppendBlackboxRecord(words, n);
    }
    Gds_IF_UpdateCollectData(kind, data, &m_gdsParam);
    pthread_mutex_unlock(&m_devInfoMutex);
    return 0;
}

// Caller holds m_devInfoMutex. The message sends the buffer plus a 12-byte tail, so records stop
// 12 bytes short of its end. A record that does not fit waits for nobody: while the 1 s work is
// held (upgrade, power-down) it is dropped and counted, and what is already buffered is kept.
void CSerialDevOBD::AppendBlackboxRecord(const uint32_t* words, uint32_t n) {
    if (m_pBlackboxBuf == nullptr) return;
    const uint32_t size = BlackboxRecordSize(n);
    if (m_blackboxLen + size > OBD_BLACKBOX_BUF_SIZE - BLACKBOX_MSG_TAIL) {
        ++m_blackboxDropped;
        if (!m_bBlackboxFullLogged) {
            m_bBlackboxFullLogged = true;
            OBD_DEV_LOG(0,
                        "S38_OBD: [OBD data] blackbox buffer is full, drop record, num = %d, "
                        "dropped = %u\n",
                        static_cast<int>(m_blackboxNum), m_blackboxDropped);
        }
        return;
    }
    unsigned char* rec = m_pBlackboxBuf + m_blackboxLen;
    Common::_datetime_ now{};
    Common::P4X_TMGetShareTime(&now);
    BlackboxRecordHead_t head{};
    std::memcpy(head.time, &now, sizeof(head.time));
    head.count = n;
    std::memcpy(rec, &head, sizeof(head));
    for (uint32_t i = 0; i < n; ++i) PutU32Le(rec + sizeof(head) + 4 * i, words[i]);
    std::memset(rec + sizeof(head) + 4 * n, 0, BLACKBOX_RECORD_TAIL);
    ++m_blackboxNum;
    m_blackboxLen += size;
    OBD_DEV_LOG(2, "S38_OBD: [OBD data] changed and broadcast, count = %d, curBlockboxNum = %d\n",
                static_cast<int>(n), static_cast<int>(m_blackboxNum));
}

// A 12-bit two's-complement reading scaled by 100/256, truncated toward zero, low 16 bits kept.
uint16_t ObdConvertGSensorAxis(uint16_t v) {
    const int32_t r = v <= 3840 ? (100 * static_cast<int32_t>(v)) >> 8
                                : 100 * (static_cast<int32_t>(v) - 4096) / 256;
    return static_cast<uint16_t>(static_cast<uint32_t>(r) & 0xFFFFu);
}

// The caller has checked that the message holds the head and the whole 32-byte sample.
void CSerialDevOBD::ConvertInertiaSensorData(const char* msg) {
    unsigned char sample[32];
    std::memcpy(sample, msg + sizeof(Common::SMessageHead), sizeof(sample));
    unsigned char out[12] = {};
    auto u16 = [&](int off) {
        return static_cast<uint16_t>(sample[off] | (static_cast<unsigned>(sample[off + 1]) << 8));
    };
    auto putBe = [&](int off, uint16_t v) {
        out[off] = static_cast<unsigned char>(v >> 8);
        out[off + 1] = static_cast<unsigned char>(v & 0xFF);
    };
    const unsigned char kind = sample[24];
    if (kind == 1) {
        const int offsets[6] = {6, 8, 10, 18, 20, 22};
        for (int i = 0; i < 6; ++i) putBe(2 * i, u16(offsets[i]));
        Gds_IF_UpdateCollectData(COLLECT_SIX_AXIS_DATA, out, &m_gdsParam);
    } else if (kind == 0) {
        putBe(0, ObdConvertGSensorAxis(u16(10)));  // Z first, then X and Y
        putBe(2, ObdConvertGSensorAxis(u16(6)));
        putBe(4, ObdConvertGSensorAxis(u16(8)));
        Gds_IF_UpdateCollectData(COLLECT_GSENSOR_DATA, out, &m_gdsParam);
    }
}

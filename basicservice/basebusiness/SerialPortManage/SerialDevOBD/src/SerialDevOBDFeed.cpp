// Sample feed from the data stream into the analyser.
// (First slice: the table reaches the analyser. Change records and link state come later.)
#include <cstring>

#include "SerialDevOBD.h"
#include "SerialDevOBDInternal.h"

int CSerialDevOBD::UpdateCollectData(CollectDataType_Eum kind, void* data) {
    if (data == nullptr) return -1;
    Gds_IF_UpdateCollectData(kind, data, &m_gdsParam);
    return 0;
}

// A 12-bit two's-complement reading scaled by 100/256, truncated toward zero, low 16 bits kept.
uint16_t ObdConvertGSensorAxis(uint16_t v) {
    const int32_t r = v <= 3840 ? (100 * static_cast<int32_t>(v)) >> 8
                                : 100 * (static_cast<int32_t>(v) - 4096) / 256;
    return static_cast<uint16_t>(static_cast<uint32_t>(r) & 0xFFFFu);
}

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

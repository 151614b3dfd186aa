// Helpers shared by the analyser's sources; nothing here leaves the library.
#pragma once

#include <cstdint>

#include "GdsLogicAnalyser.h"

#define GDS_HIDDEN __attribute__((visibility("hidden")))

namespace gds {

// Truncates toward zero like a C cast, but defined for every float: out-of-range values
// saturate and NaN reads as 0, because the bare conversion is undefined and ARM and x86 disagree.
inline int32_t TruncToInt(float f) {
    if (!(f == f)) return 0;
    if (f >= 2147483648.0f) return INT32_MAX;
    if (f < -2147483648.0f) return INT32_MIN;
    return static_cast<int32_t>(f);
}

inline bool Present(const _OBD_DataTable_t* obd, int idx) {
    return obd->item[idx].id != -1;
}
inline float Value(const _OBD_DataTable_t* obd, int idx) {
    return obd->item[idx].value;
}
inline int32_t IntValue(const _OBD_DataTable_t* obd, int idx) {
    return TruncToInt(obd->item[idx].value);
}

// Big-endian s16 at byte offset off of a six-axis sample.
inline int16_t SampleValue(const tagSixAxisOrgData* s, int off) {
    const auto hi = static_cast<uint16_t>(s->data[off]);
    const auto lo = static_cast<uint16_t>(s->data[off + 1]);
    return static_cast<int16_t>(static_cast<uint16_t>((hi << 8) | lo));
}

// Clears the checks' process-wide states so each test scenario starts from load time.
GDS_HIDDEN void ResetObdAlarmProcessState();
GDS_HIDDEN void ResetStatisticsProcessState();

}  // namespace gds

// For tests only (they link the static archive): every process-wide analyser state back to 0.
GDS_HIDDEN void Gds_TestResetProcessState();

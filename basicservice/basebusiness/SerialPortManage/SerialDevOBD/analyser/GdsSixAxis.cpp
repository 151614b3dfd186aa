// Six-axis inertial processing: calibration, ring filling and the once-a-second evaluation.
#include <cstdlib>
#include <cstring>

#include "GdsInternal.h"

using gds::IntValue;
using gds::SampleValue;

namespace {

constexpr size_t kProofreadValues = size_t{GDS_PROOFREAD_SAMPLES} * 6;

struct Sensitivity {
    int lateralLow;
    int lateralHigh;
    int turbXY;
    int turbZ;
};

// Indexed by the sensitivity fields 1-3; any other value selects all-zero limits.
Sensitivity SensitivityOf(uint8_t lateral, uint8_t turbulence) {
    static const int kLateral[3] = {24, 19, 14};
    static const int kTurbXY[3] = {200, 100, 60};
    static const int kTurbZ[3] = {300, 300, 200};
    Sensitivity s{0, 0, 0, 0};
    if (lateral >= 1 && lateral <= 3) {
        s.lateralLow = -kLateral[lateral - 1];
        s.lateralHigh = kLateral[lateral - 1];
    }
    if (turbulence >= 1 && turbulence <= 3) {
        s.turbXY = kTurbXY[turbulence - 1];
        s.turbZ = kTurbZ[turbulence - 1];
    }
    return s;
}

void PushRing(AxisRing* ring, int16_t value) {
    // An index outside the ring (a record never initialised) restarts at 0 instead of overrunning.
    ring->writeIndex =
        ring->writeIndex + 1 >= GDS_AXIS_RING_SIZE ? uint16_t{0} : uint16_t(ring->writeIndex + 1);
    ring->readIndex =
        ring->readIndex + 1 >= GDS_AXIS_RING_SIZE ? uint16_t{0} : uint16_t(ring->readIndex + 1);
    ring->value[ring->writeIndex] = value;
}

int16_t Wrap16(int32_t v) {
    return static_cast<int16_t>(static_cast<uint16_t>(static_cast<uint32_t>(v) & 0xFFFFu));
}

// Counts values at or beyond three graded limits into c3 (also c2, c1), c2 (also c1) or c1.
void Grade(int v, int l1, int l2, int l3, int* c1, int* c2, int* c3) {
    if (v >= l3) {
        ++*c3;
        ++*c2;
        ++*c1;
    } else if (v >= l2) {
        ++*c2;
        ++*c1;
    } else if (v >= l1) {
        ++*c1;
    }
}

}  // namespace

int ProofreadSixAxisData(const tagSixAxisOrgData* sample, tagGds6AxisProofread* pr) {
    if (sample == nullptr || pr == nullptr) return -1;
    if (pr->state != 1) return 0;
    if (pr->count == 0 || pr->buffer == nullptr) {
        // Reuse a buffer left by an interrupted calibration rather than leaking it.
        if (pr->buffer == nullptr) {
            pr->buffer = static_cast<int16_t*>(std::calloc(kProofreadValues, sizeof(int16_t)));
            if (pr->buffer == nullptr) return -1;
        } else {
            std::memset(pr->buffer, 0, kProofreadValues * sizeof(int16_t));
        }
        pr->count = 0;
    }
    if (pr->count < GDS_PROOFREAD_SAMPLES) {
        int16_t* slot = pr->buffer + size_t{pr->count} * 6;
        for (int i = 0; i < 6; ++i) slot[i] = SampleValue(sample, 2 * i);
        ++pr->count;
        return 0;
    }
    // The 21st sample completes the calibration; its own values are not used.
    for (int i = 0; i < 6; ++i) {
        int32_t sum = 0;
        for (uint32_t k = 0; k < GDS_PROOFREAD_SAMPLES; ++k) sum += pr->buffer[k * 6 + uint32_t(i)];
        pr->offset[i] = static_cast<int16_t>(sum / static_cast<int32_t>(GDS_PROOFREAD_SAMPLES));
    }
    pr->count = 0;
    pr->state = 0;
    std::free(pr->buffer);
    pr->buffer = nullptr;
    return 0;
}

int FillSixAxisDataToBuffer(const tagSixAxisOrgData* sample, tagGdsParam_t* gds) {
    if (sample == nullptr || gds == nullptr) return -1;
    const int16_t* off = gds->proofread.offset;
    const int16_t x = Wrap16(SampleValue(sample, 0) - off[0]);
    const int16_t y = Wrap16(SampleValue(sample, 2) - off[1]);
    const int16_t z = Wrap16(SampleValue(sample, 4) - off[2]);
    const int16_t r = Wrap16(SampleValue(sample, 10) - off[5]);
    const int32_t v = Wrap16(IntValue(&gds->collData.obdData, OBD_IDX_SPEED));
    AxisRing* rings = gds->collData.axisRing;
    PushRing(&rings[AXIS_RING_LONGITUDINAL], static_cast<int16_t>(x * 100 / 4096));
    PushRing(&rings[AXIS_RING_LATERAL], static_cast<int16_t>(y * 100 / 4096));
    PushRing(&rings[AXIS_RING_VERTICAL], static_cast<int16_t>(z * 100 / 4096));
    PushRing(&rings[AXIS_RING_LATERAL_LOAD], Wrap16((r * 100 / 164) * v / 10));
    return 0;
}

int CalculateRMSEC(const int16_t* values, int n) {
    // Defined result for a bad call instead of a division by zero.
    if (values == nullptr || n <= 0) return 0;
    int64_t sum = 0;
    for (int i = 0; i < n; ++i) sum += values[i];
    const int64_t mean = sum / n;
    int64_t sq = 0;
    for (int i = 0; i < n; ++i) sq += (values[i] - mean) * (values[i] - mean);
    // At most (65535 / 2)^2 for s16 input, so the variance always fits an int.
    return static_cast<int>(sq / n);
}

int Algorithm6AxisData(tagGdsCollDataList* coll, const GDS_ALARM_THRESOLD_tag_* thr,
                       _SixAxisCounter_t* counter) {
    if (coll == nullptr || thr == nullptr || counter == nullptr) return -1;
    AxisRing ring[AXIS_RING_COUNT];
    std::memcpy(ring, coll->axisRing, sizeof(ring));
    const int32_t s = IntValue(&coll->obdData, OBD_IDX_SPEED);
    const Sensitivity sens = SensitivityOf(thr->lateralSensitivity, thr->turbulenceSensitivity);
    uint32_t& state = coll->sixAxisState;
    uint32_t& level = coll->alarmInfo.sixAxisLevel;

    int a1 = 0, a2 = 0, a3 = 0, d1 = 0, d2 = 0, d3 = 0;
    int left = 0, right = 0, strongLeft = 0, strongRight = 0;
    int p1 = 0, p2 = 0, p3 = 0, n1 = 0, n2 = 0, n3 = 0;
    for (int i = 0; i < GDS_AXIS_RING_SIZE; ++i) {
        const int a = ring[AXIS_RING_LONGITUDINAL].value[i];
        if (a > 0)
            Grade(a, thr->accLevel1, thr->accLevel2, thr->accLevel3, &a1, &a2, &a3);
        else
            Grade(-a, thr->decLevel1, thr->decLevel2, thr->decLevel3, &d1, &d2, &d3);

        const int b = ring[AXIS_RING_LATERAL].value[i];
        if (sens.lateralLow < 0 && b <= sens.lateralLow)
            ++left;
        else if (sens.lateralHigh > 0 && b >= sens.lateralHigh)
            ++right;
        if (sens.lateralLow < 0 && b < sens.lateralLow - 29)
            ++strongLeft;
        else if (sens.lateralHigh > 0 && b > sens.lateralHigh + 29)
            ++strongRight;

        const int t = ring[AXIS_RING_LATERAL_LOAD].value[i];
        if (t >= 0)
            Grade(t, thr->turnLevel1, thr->turnLevel2, thr->turnLevel3, &p1, &p2, &p3);
        else
            Grade(-t, thr->turnLevel1, thr->turnLevel2, thr->turnLevel3, &n1, &n2, &n3);
    }

    if (counter->levelHold > 0) {
        --counter->levelHold;
    } else {
        counter->levelHold = 0;
        level = 0;
        state = 0;
    }

    uint32_t found = 0;
    if (a3 > 5)
        found = 32;
    else if (a2 > 5)
        found = 16;
    else if (a1 > 5)
        found = 8;
    if (found != 0) {
        level = found;
        counter->levelHold = 3;
        state = (state & ~SIX_AXIS_STATE_DEC) | SIX_AXIS_STATE_ACC;
    } else {
        if (d3 > 5)
            found = 4;
        else if (d2 > 5)
            found = 2;
        else if (d1 > 5)
            found = 1;
        if (found != 0) {
            level = found;
            counter->levelHold = 3;
            state = (state & ~SIX_AXIS_STATE_ACC) | SIX_AXIS_STATE_DEC;
        }
    }

    const int k = s > 50 ? 8 : 7;
    uint32_t turn = 0;
    if (p3 >= k || n3 >= k)
        turn = 0x100;
    else if (p2 >= k || n2 >= k)
        turn = 0x80;
    else if (p1 >= k || n1 >= k)
        turn = 0x40;
    if (turn != 0) {
        level = turn;
        counter->levelHold = 2;
    }

    if (left > 5) {
        counter->lateralHold = 2;
        state = (state & ~SIX_AXIS_STATE_LATERAL_POS) | SIX_AXIS_STATE_LATERAL_NEG;
    } else if (right > 5) {
        counter->lateralHold = 2;
        state = (state & ~SIX_AXIS_STATE_LATERAL_NEG) | SIX_AXIS_STATE_LATERAL_POS;
    } else if (counter->lateralHold > 0) {
        --counter->lateralHold;
    } else {
        state &= ~(SIX_AXIS_STATE_LATERAL_POS | SIX_AXIS_STATE_LATERAL_NEG);
    }

    if (strongLeft > 7)
        state = SIX_AXIS_STATE_STRONG_NEG;
    else if (strongRight > 7)
        state = SIX_AXIS_STATE_STRONG_POS;

    const int varX = CalculateRMSEC(ring[AXIS_RING_LONGITUDINAL].value, GDS_AXIS_RING_SIZE);
    const int varY = CalculateRMSEC(ring[AXIS_RING_LATERAL].value, GDS_AXIS_RING_SIZE);
    const int varZ = CalculateRMSEC(ring[AXIS_RING_VERTICAL].value, GDS_AXIS_RING_SIZE);
    const int rough =
        (varX > sens.turbXY ? 1 : 0) + (varY > sens.turbXY ? 1 : 0) + (varZ > sens.turbZ ? 1 : 0);
    if (rough >= 2) state = SIX_AXIS_STATE_TURBULENCE;
    return 0;
}

int CheckIntenseTurbAlarm(const tagGdsCollDataList* coll, uint8_t* counter) {
    if (coll == nullptr || counter == nullptr) return 0;
    if ((coll->sixAxisState & SIX_AXIS_STATE_TURBULENCE) != 0 &&
        coll->obdData.item[OBD_IDX_SPEED].value > 0.0f) {
        int result = 0;
        if (*counter > 2) {
            *counter = 2;
            result = 1;
        }
        *counter = static_cast<uint8_t>(*counter + 1);
        return result;
    }
    *counter = 0;
    return 0;
}

int CheckSideTurnAlarm(const tagGdsCollDataList* coll, uint8_t* counter) {
    if (coll == nullptr || counter == nullptr) return 0;
    if ((coll->sixAxisState & (SIX_AXIS_STATE_STRONG_POS | SIX_AXIS_STATE_STRONG_NEG)) != 0) {
        int result = 0;
        if (*counter > 5) {
            *counter = 5;
            result = 1;
        }
        *counter = static_cast<uint8_t>(*counter + 1);
        return result;
    }
    if (*counter >= 1 && *counter <= 4)
        *counter = static_cast<uint8_t>(*counter - 1);
    else
        *counter = 0;
    return 0;
}

#include "Drive.h"

#include <algorithm>
#include <cmath>

#include "GdsLogicAnalyser.h"

namespace obdsim {

void Drive::SetChannel(Channel channel) {
    for (auto& c : m_channels) {
        if (c.id == channel.id) {
            c = std::move(channel);
            return;
        }
    }
    m_channels.push_back(std::move(channel));
}

double Drive::DurationS() const {
    double end = 0;
    for (const auto& c : m_channels) {
        if (!c.t.empty()) end = std::max(end, c.t.back());
    }
    return end;
}

bool Drive::HasMotion() const {
    return std::any_of(m_channels.begin(), m_channels.end(),
                       [](const Channel& c) { return c.id >= kAccX && !c.t.empty(); });
}

float Drive::ValueAt(const Channel& c, double tS) {
    // First keyframe after tS; the caller has made sure tS is not before the first.
    const auto next = std::upper_bound(c.t.begin(), c.t.end(), tS);
    if (next == c.t.end()) return c.v.back();
    const size_t i = static_cast<size_t>(next - c.t.begin());
    if (c.mode == Mode::Hold) return c.v[i - 1];
    const double f = (tS - c.t[i - 1]) / (c.t[i] - c.t[i - 1]);
    return static_cast<float>(c.v[i - 1] + f * (c.v[i] - c.v[i - 1]));
}

DriveSample Drive::ItemsAt(double tS) const {
    DriveSample s;
    for (const auto& c : m_channels) {
        if (c.id >= kItemCount || c.t.empty() || tS < c.t.front()) continue;
        s.value[static_cast<size_t>(c.id)] = ValueAt(c, tS);
        s.present.set(static_cast<size_t>(c.id));
    }
    return s;
}

Motion Drive::MotionAt(double tS) const {
    Motion m;
    for (const auto& c : m_channels) {
        if (c.id < kAccX || c.t.empty() || tS < c.t.front()) continue;
        const float v = ValueAt(c, tS);
        if (c.id <= kAccZ) {
            m.acc[c.id - kAccX] = v;
        } else {
            m.rot[c.id - kRotX] = v;
        }
    }
    return m;
}

std::string Drive::PhaseAt(double tS) const {
    std::string phase;
    for (const auto& p : m_phases) {
        if (p.first <= tS) phase = p.second;
    }
    return phase;
}

// ---- The built-in drive ------------------------------------------------------------------------

namespace {

// One stretch of the drive. Speed, engine speed, coolant, accelerator and voltage move in a
// straight line from the previous stretch's end to the values given here; brake and yaw rate hold
// for the whole stretch.
struct Segment {
    const char* phase;  // a new phase name, or nullptr to stay in the previous one
    double seconds;
    float speed;        // km/h
    float rpm;          // 1/min
    float coolant;      // degrees C
    float accelerator;  // %
    float volts;
    float brake;  // 0 or 1
    float yaw;    // degrees per second, positive to the left
};

// Tuned against the analyser's default thresholds (each alarm's cause is noted where it happens):
// a stretch that should not raise an alarm stays clear of it by a margin of seconds or units, so
// that the drive gives the same alarms at any phase of the box's data stream.
constexpr Segment kSegments[] = {
    // Ignition on at -8 degrees C, then the engine starts and idles until it runs smoothly.
    {"cold start", 5, 0, 0, -8, 0, 12.4f, 0, 0},
    {nullptr, 1, 0, 1100, -8, 0, 14.2f, 0, 0},
    {nullptr, 34, 0, 950, -4, 0, 14.2f, 0, 0},
    // Creeping out of the yard below 10 km/h while the coolant is still below 0: cold start.
    {nullptr, 3, 8, 1100, -3.5f, 15, 14.2f, 0, 0},
    {nullptr, 15, 8, 1100, 0, 12, 14.2f, 0, 0},
    {nullptr, 2, 0, 900, 0.5f, 0, 14.2f, 1, 0},
    {"idling", 15, 0, 900, 6, 0, 14.2f, 0, 0},
    // City: gentle starts and stops, engine below 1800 rpm.
    {"city driving", 12, 45, 1700, 14, 35, 14.2f, 0, 0},
    {nullptr, 25, 48, 1500, 24, 25, 14.2f, 0, 0},
    {nullptr, 10, 0, 850, 28, 0, 14.2f, 1, 0},
    {nullptr, 20, 0, 850, 34, 0, 14.2f, 0, 0},
    {nullptr, 12, 42, 1650, 42, 35, 14.2f, 0, 0},
    {nullptr, 30, 40, 1450, 52, 22, 14.2f, 0, 0},
    {nullptr, 8, 0, 850, 56, 0, 14.2f, 1, 0},
    {nullptr, 12, 0, 850, 60, 0, 14.2f, 0, 0},
    // Full throttle from the lights: two gears, the engine above 1800 rpm for under 5 s at a
    // time (no over-running), speed up by 10 km/h every second: rapid acceleration.
    {"hard acceleration", 2.5, 22, 2900, 61, 95, 14.2f, 0, 0},
    {nullptr, 0.5, 23, 1500, 61, 30, 14.2f, 0, 0},
    {nullptr, 1.5, 27, 1700, 62, 60, 14.2f, 0, 0},
    {nullptr, 3.5, 60, 2900, 63, 95, 14.2f, 0, 0},
    {nullptr, 0.5, 61, 1500, 63, 30, 14.2f, 0, 0},
    {nullptr, 1.5, 63, 1650, 64, 40, 14.2f, 0, 0},
    {nullptr, 14, 66, 1700, 66, 30, 14.2f, 0, 0},
    // From 66 km/h to a stop in 5 s, braking hard: emergency deceleration.
    {"emergency stop", 5, 0, 850, 67, 0, 14.2f, 1, 0},
    {nullptr, 12, 0, 850, 68, 0, 14.2f, 0, 0},
    {nullptr, 12, 40, 1600, 70, 30, 14.2f, 0, 0},
    {nullptr, 10, 40, 1500, 71, 22, 14.2f, 0, 0},
    // A quarter turn at 40 km/h, 20 degrees per second: sudden turn.
    {"sharp turn", 4.5, 40, 1500, 72, 22, 14.2f, 0, 20},
    {nullptr, 15, 42, 1500, 73, 22, 14.2f, 0, 0},
    // Second gear held at 3200 rpm for 15 s: over-running at level 3.
    {"over-revving", 2, 45, 3200, 74, 45, 14.2f, 0, 0},
    {nullptr, 15, 47, 3200, 76, 45, 14.2f, 0, 0},
    {nullptr, 2, 48, 1500, 77, 25, 14.2f, 0, 0},
    {nullptr, 12, 48, 1500, 78, 25, 14.2f, 0, 0},
    // Onto the motorway: a long gentle acceleration, then top gear at 110 km/h.
    {"highway", 35, 110, 1750, 84, 40, 14.2f, 0, 0},
    {nullptr, 150, 112, 1750, 88, 30, 14.2f, 0, 0},
    {nullptr, 30, 50, 1300, 88, 5, 14.2f, 0, 0},
    {nullptr, 20, 45, 1400, 88, 20, 14.2f, 0, 0},
    {nullptr, 10, 0, 850, 88, 0, 14.2f, 1, 0},
    // Waiting with the engine on, lights and fan drawing more than the alternator gives at idle
    // (13.4 V, read in whole volts: below the 13.5 V charging limit): battery voltage at level 3
    // after 2 minutes, idling timeout after 4.
    {"long idle", 5, 0, 800, 89, 0, 13.4f, 0, 0},
    {nullptr, 300, 0, 800, 90, 0, 13.4f, 0, 0},
    {"engine off", 1, 0, 0, 90, 0, 12.4f, 0, 0},
    {nullptr, 20, 0, 0, 89, 0, 12.4f, 0, 0},
};

// What the drive provokes with the analyser's default thresholds, and when (vehicle seconds): a
// check raises its alarm in the second after its condition has held for its duration, and the
// alarm broadcast carries it at the plug-in's next 1 s step.
const std::vector<ExpectedAlarm> kExpected = {
    {"cold_start", 46, 6, 1},               // moving from 40 s, coolant below 0 until 58 s
    {"rapid_acceleration", 209, 5, 3},      // +10 km/h a second from 204 s
    {"emergency_deceleration", 231, 3, 3},  // 66 km/h to 0 from 228 s
    {"sudden_turn", 268, 1, 3},             // 20 degrees a second at 40 km/h from 267 s
    {"over_running", 292, 6, 3},            // above 1800 rpm from 286.5 s
    {"battery_voltage", 685, 121, 3},       // 13 V (whole volts) from 564 s
    {"idling_timeout", 802, 240, 1},        // stopped from 562.5 s
};

// The box's cumulative readings at the start: an odometer and a fuel counter.
constexpr float kOdometerKm = 48213.0f;
constexpr float kFuelLitres = 12.5f;
// Keyframe step of the channels that are integrated or derived.
constexpr double kStepS = 0.5;
constexpr double kGravity = 9.81;

float FuelRateLitresPerHour(float rpm, float accelerator) {
    return rpm / 1000.0f * (0.8f + 0.09f * accelerator);
}

}  // namespace

Drive BuiltinDrive() {
    Drive d("built-in drive");
    Drive::Channel speed{OBD_IDX_SPEED, Drive::Mode::Linear, {}, {}};
    Drive::Channel rpm{OBD_IDX_ENGINE_SPEED, Drive::Mode::Linear, {}, {}};
    Drive::Channel coolant{OBD_IDX_COOLANT_TEMP, Drive::Mode::Linear, {}, {}};
    Drive::Channel accel{OBD_IDX_ACCELERATOR, Drive::Mode::Linear, {}, {}};
    Drive::Channel volts{OBD_IDX_BATTERY_VOLT, Drive::Mode::Linear, {}, {}};
    Drive::Channel brake{OBD_IDX_BRAKE, Drive::Mode::Hold, {}, {}};
    Drive::Channel accX{kAccX, Drive::Mode::Hold, {}, {}};
    Drive::Channel rotZ{kRotZ, Drive::Mode::Hold, {}, {}};
    auto key = [](Drive::Channel& c, double t, float v) {
        c.t.push_back(t);
        c.v.push_back(v);
    };
    // The drive starts from rest with the first segment's values.
    const Segment& first = kSegments[0];
    key(speed, 0, first.speed);
    key(rpm, 0, first.rpm);
    key(coolant, 0, first.coolant);
    key(accel, 0, first.accelerator);
    key(volts, 0, first.volts);
    double t = 0;
    float lastSpeed = first.speed;
    for (const Segment& s : kSegments) {
        if (s.phase != nullptr) d.AddPhase(t, s.phase);
        key(brake, t, s.brake);
        key(rotZ, t, s.yaw);
        const double ms = (s.speed - lastSpeed) / 3.6 / s.seconds;  // m/s^2
        key(accX, t, static_cast<float>(ms / kGravity));
        t += s.seconds;
        key(speed, t, s.speed);
        key(rpm, t, s.rpm);
        key(coolant, t, s.coolant);
        key(accel, t, s.accelerator);
        key(volts, t, s.volts);
        lastSpeed = s.speed;
    }
    key(brake, t, 0);
    key(rotZ, t, 0);
    key(accX, t, 0);
    const double end = t;
    // Odometer, fuel counter and lateral acceleration follow from the channels above.
    Drive draft;
    for (const auto* c : {&speed, &rpm, &accel, &rotZ}) draft.SetChannel(*c);
    Drive::Channel mileage{OBD_IDX_MILEAGE, Drive::Mode::Linear, {}, {}};
    Drive::Channel fuel{OBD_IDX_FUEL, Drive::Mode::Linear, {}, {}};
    Drive::Channel accY{kAccY, Drive::Mode::Linear, {}, {}};
    Drive::Channel accZ{kAccZ, Drive::Mode::Hold, {0.0}, {1.0f}};
    double km = kOdometerKm, litres = kFuelLitres;
    constexpr int kSub = 10;
    for (double k = 0; k <= end + 1e-9; k += kStepS) {
        const DriveSample s = draft.ItemsAt(k);
        const Motion m = draft.MotionAt(k);
        key(mileage, k, static_cast<float>(km));
        key(fuel, k, static_cast<float>(litres));
        const double v = s.value[OBD_IDX_SPEED] / 3.6;
        key(accY, k, static_cast<float>(v * m.rot[2] * M_PI / 180.0 / kGravity));
        for (int i = 0; i < kSub; ++i) {
            const double at = k + kStepS * i / kSub;
            const DriveSample x = draft.ItemsAt(at);
            km += x.value[OBD_IDX_SPEED] / 3600.0 * kStepS / kSub;
            litres +=
                FuelRateLitresPerHour(x.value[OBD_IDX_ENGINE_SPEED], x.value[OBD_IDX_ACCELERATOR]) /
                3600.0 * kStepS / kSub;
        }
    }
    for (auto* c : {&speed, &rpm, &coolant, &accel, &volts, &brake, &mileage, &fuel, &accX, &accY,
                    &accZ, &rotZ}) {
        d.SetChannel(std::move(*c));
    }
    d.SetExpected(kExpected);
    return d;
}

}  // namespace obdsim

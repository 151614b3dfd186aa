#include "Schedule.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <nlohmann/json.hpp>

#include "ObdNames.h"

namespace obdswarm {

uint64_t Rng::Next() {
    return m_gen();
}

long long Rng::Int(long long lo, long long hi) {
    if (hi <= lo) return lo;
    const uint64_t span = static_cast<uint64_t>(hi - lo) + 1;
    return lo + static_cast<long long>(Next() % span);
}

double Rng::Real() {
    return static_cast<double>(Next() >> 11) * (1.0 / 9007199254740992.0);
}

namespace {

const char* const kFaultNames[] = {"silent", "stream-held", "garbage", "split", "drop-answers",
                                   "bad-checksum", "bad-values", "bus", "power-down",
                                   // line and box
                                   "duplicate", "escaped", "late-answers", "refusals", "restart",
                                   // upgrades and calibrations
                                   "upgrade", "upgrade-box", "calibration",
                                   // the host's own
                                   "inertial-gap", "release",
                                   // the host's clocks
                                   "stall", "date-jump"};
static_assert(sizeof(kFaultNames) / sizeof(kFaultNames[0]) == static_cast<size_t>(FaultKind::Count),
              "a name for every fault kind");

const char* const kPhaseNames[] = {"cold-start", "idle",       "city",       "motorway",
                                   "hard-accel", "hard-brake", "sharp-turn", "engine-off"};

constexpr long long kGrainMs = 100;  // fault times fall on the plug-in's cycle

long long Grain(long long ms) {
    return ms / kGrainMs * kGrainMs;
}

// How long each kind of fault lasts (s) and how often it is drawn against the others.
struct FaultDraw {
    FaultKind kind;
    int weight;
    double minS, maxS;
};
const FaultDraw kFaultDraws[] = {
    {FaultKind::Silent, 3, 1, 40},
    {FaultKind::StreamHeld, 2, 1, 120},
    {FaultKind::Garbage, 2, 5, 120},
    {FaultKind::Split, 3, 5, 300},
    {FaultKind::DropAnswers, 2, 5, 60},
    {FaultKind::BadChecksum, 2, 1, 30},
    {FaultKind::BadValues, 2, 2, 60},
    {FaultKind::BusMessages, 3, 1, 60},
    // Line and box faults. A restart's window is the time the box takes to boot.
    {FaultKind::Duplicate, 2, 5, 120},
    {FaultKind::Escaped, 3, 5, 300},
    {FaultKind::LateAnswers, 2, 5, 120},
    {FaultKind::Refusals, 1, 5, 120},
    {FaultKind::Restart, 2, 0.3, 8},
    // upgrades and calibrations
    {FaultKind::UpgradeTrigger, 3, 5, 60},
    {FaultKind::UpgradeBox, 3, 10, 120},
    {FaultKind::Calibration, 2, 1, 30},
    // the host's own
    {FaultKind::InertialGap, 1, 1, 120},
};

// The upgrade steps an UpgradeBox may refuse: start, name, chunk, MD5, end.
const uint16_t kUpgradeSteps[] = {0x2407, 0x2402, 0x2403, 0x2404, 0x2111};

// A good file for two in five, so that most triggers have an upgrade that can end well.
int DrawUpgradeFile(Rng& r) {
    const long long pick = r.Int(0, kUpgradeFileCount);
    return pick == kUpgradeFileCount ? kFileGood : static_cast<int>(pick);
}

int UpgradeFlashMs(const Fault& f) {
    return 10 + static_cast<int>(f.seed % 51);
}

bool IsUpgradeKind(FaultKind k) {
    return k == FaultKind::UpgradeTrigger || k == FaultKind::UpgradeBox ||
           k == FaultKind::Calibration;
}

// A firmware image of 1 byte to kMaxUpgradeFile, whole chunks for a third of them.
std::vector<unsigned char> Image(Rng& r) {
    const long long n =
        r.Chance(0.3) ? 256 * r.Int(1, kMaxUpgradeFile / 256) : r.Int(1, kMaxUpgradeFile);
    std::vector<unsigned char> b(static_cast<size_t>(n));
    for (auto& byte : b) byte = static_cast<unsigned char>(r.Next() & 0xFF);
    return b;
}

// The trigger's four bytes: source (now and then one no slot keeps), verify flag, the box's
// device id, file source.
std::vector<unsigned char> TriggerPayload(Rng& r) {
    const auto source = static_cast<unsigned char>(r.Chance(0.1) ? 5 : r.Int(0, 3));
    return {source, static_cast<unsigned char>(r.Int(0, 1)), 7,
            static_cast<unsigned char>(r.Int(0, 3))};
}

std::vector<Inbound> UpgradeMessages(const Fault& f) {
    std::vector<Inbound> out;
    Rng r(f.seed ^ 0x5157A7C0ull);  // not the file's numbers
    if (f.kind == FaultKind::Calibration) {
        // The engine record as the bus carries it: u16 code (little-endian), a named engine.
        std::vector<unsigned char> p(52, 0);
        const auto code = static_cast<uint16_t>(r.Int(1, 0xFFFF));
        p[0] = static_cast<unsigned char>(code & 0xFF);
        p[1] = static_cast<unsigned char>(code >> 8);
        const std::string name = "ENGINE-" + std::to_string(code);
        std::copy(name.begin(), name.end(), p.begin() + 4);
        out.push_back({f.startMs, 6779, p});
        return out;
    }
    out.push_back({f.startMs, 6729, TriggerPayload(r)});
    if (f.kind == FaultKind::UpgradeTrigger && f.b > 0) {
        out.push_back({f.startMs + f.b, 6729, TriggerPayload(r)});
    }
    return out;
}

// Stalls of the host and jumps of its date, about two of each an hour. Most stalls are a
// starved moment within the box's 2 s command timeout, some outlast it and the link's 10 s, a few
// are a suspended recorder. Dates jump by seconds to a day (a time sync, a time zone taken for
// UTC) and now and then by years (a clock battery gone flat, a GPS week rollover).
void DrawClocks(uint64_t seed, long long totalMs, double hours, std::vector<Fault>& faults) {
    Rng r(seed ^ 0xC10C4D47E5ull);
    if (totalMs <= 10000) return;
    const long long count = std::llround(r.Range(0, 4) * hours);
    for (long long i = 0; i < count; ++i) {
        Fault f;
        f.startMs = Grain(r.Int(5000, totalMs - 5000));
        f.seed = r.Next();
        if (r.Chance(0.5)) {
            f.kind = FaultKind::Stall;
            const long long pick = r.Int(0, 19);
            f.endMs = f.startMs + kGrainMs * (pick < 14   ? r.Int(1, 20)
                                              : pick < 19 ? r.Int(21, 150)
                                                          : r.Int(151, 1000));
        } else {
            f.kind = FaultKind::DateJump;
            const long long magnitude = r.Chance(0.8)   ? r.Int(1, 86400)
                                        : r.Chance(0.5) ? 86400 * r.Int(2, 400)
                                                        : 31536000 * r.Int(2, 12);
            f.b = static_cast<int>(r.Chance(0.5) ? magnitude : -magnitude);
            f.endMs = f.startMs + kGrainMs;
        }
        faults.push_back(f);
    }
}

Phase DrawPhase(Rng& r, bool engineOn, double speed) {
    Phase p;
    p.noise = r.Next();
    p.saturated = r.Chance(0.03);
    if (!engineOn) {
        p.kind = PhaseKind::ColdStart;
        p.seconds = std::round(r.Range(20, 90));
        return p;
    }
    // Weights by what the vehicle is doing: hard events only when moving.
    const long long pick = r.Int(0, 99);
    if (speed < 5 && pick < 15) {
        p.kind = PhaseKind::Idle;
        p.seconds = std::round(r.Range(10, 400));
        p.rpm = r.Range(750, 950);
    } else if (pick < 45) {
        p.kind = PhaseKind::City;
        p.seconds = std::round(r.Range(60, 900));
        p.speed = r.Range(25, 60);
    } else if (pick < 65) {
        p.kind = PhaseKind::Motorway;
        p.seconds = std::round(r.Range(120, 1500));
        p.speed = r.Range(85, 135);
    } else if (pick < 74) {
        p.kind = PhaseKind::HardAccel;
        p.seconds = std::round(r.Range(3, 6));
        p.speed = std::min(160.0, speed + r.Range(25, 50));
    } else if (pick < 83) {
        p.kind = PhaseKind::HardBrake;
        p.seconds = std::round(r.Range(3, 6));
    } else if (pick < 92) {
        p.kind = PhaseKind::SharpTurn;
        p.seconds = std::round(r.Range(3, 8));
        p.speed = r.Range(15, 35);  // yaw rate, degrees per second
    } else {
        p.kind = PhaseKind::EngineOff;
        p.seconds = std::round(r.Range(5, 600));
    }
    return p;
}

double Norm(double v) {
    return std::isfinite(v) ? v : 0.0;
}

// The vehicle's state as keyframes are laid down.
struct Builder {
    double t = 0, speed = 0, rpm = 0, coolant = 10, volts = 12.4, accel = 0, brake = 0;
    double yaw = 0, accX = 0, accY = 0, mileage = 1000, fuel = 50;
    bool motion = true, saturated = false;
    std::vector<obdsim::Drive::Channel> ch;

    enum { kSpeed, kRpm, kCoolant, kVolts, kAccel, kBrake, kMileage, kMileage2, kFuel, kItems };

    Builder() {
        const char* names[kItems] = {"speed",        "engine_speed", "coolant_temp",
                                     "battery_volt", "accelerator",  "brake",
                                     "mileage",      "mileage2",     "fuel"};
        for (const char* n : names) {
            obdsim::Drive::Channel c;
            c.id = obdsim::ItemIndex(n);
            c.mode =
                std::string(n) == "brake" ? obdsim::Drive::Mode::Hold : obdsim::Drive::Mode::Linear;
            ch.push_back(c);
        }
        for (int id = obdsim::kAccX; id < obdsim::kChannelCount; ++id) {
            obdsim::Drive::Channel c;
            c.id = id;
            ch.push_back(c);
        }
    }

    void Key() {
        const double items[kItems] = {speed, rpm,     coolant,        volts, accel,
                                      brake, mileage, mileage * 1000, fuel};
        for (int i = 0; i < kItems; ++i) Put(ch[static_cast<size_t>(i)], items[i]);
        if (!motion) return;
        const double sat = saturated ? 12.0 : 1.0;
        const double motionValues[6] = {accX * sat, accY * sat, 1.0, 0.0, 0.0, yaw * sat};
        for (int a = 0; a < 6; ++a) Put(ch[static_cast<size_t>(kItems + a)], motionValues[a]);
    }

    void Put(obdsim::Drive::Channel& c, double v) {
        if (!c.t.empty() && c.t.back() >= t) {
            c.v.back() = static_cast<float>(Norm(v));
            return;
        }
        c.t.push_back(t);
        c.v.push_back(static_cast<float>(Norm(v)));
    }

    // Moves to `to` over `dt` seconds: speed and engine speed in a straight line, the counters
    // and the coolant as they follow from them.
    void Go(double dt, double toSpeed, double toRpm, double toAccel, double toBrake) {
        if (dt <= 0) return;
        const double from = speed;
        accX = (toSpeed - from) / 3.6 / dt / 9.81;
        brake = toBrake;
        mileage += (from + toSpeed) / 2 * dt / 3600.0;
        fuel += (rpm + toRpm) / 2 / 1000.0 * 0.4 * dt / 3600.0;
        const double target = toRpm > 0 ? 90.0 : 5.0;
        const double tau = toRpm > 0 ? 500.0 : 1800.0;
        coolant = target + (coolant - target) * std::exp(-dt / tau);
        Key();  // the slope starts here
        t += dt;
        speed = toSpeed;
        rpm = toRpm;
        accel = toAccel;
        volts = toRpm > 0 ? 14.2 : 12.4;
        Key();
        accX = 0;
        accY = 0;
    }
};

double RpmFor(double speed, Rng& r) {
    if (speed < 1) return r.Range(780, 900);
    return std::min(3200.0, 900 + speed * r.Range(14, 22));
}

void Lay(Builder& b, const Phase& p) {
    Rng r(p.noise);
    b.saturated = p.saturated;
    const double end = b.t + p.seconds;
    switch (p.kind) {
        case PhaseKind::ColdStart:
            b.coolant = std::min(b.coolant, r.Range(-20, 15));
            b.Go(std::min(3.0, p.seconds / 3), 0, 0, 0, 0);
            b.Go(1, 0, 1100, 0, 0);
            b.Go(std::max(1.0, end - b.t), 0, RpmFor(0, r), 0, 0);
            break;
        case PhaseKind::Idle:
            b.Go(std::max(1.0, p.seconds), 0, p.rpm, 0, r.Chance(0.5) ? 1 : 0);
            break;
        case PhaseKind::City:
            while (b.t < end - 1) {
                const double v = r.Range(10, p.speed);
                const double up = r.Range(5, 15), hold = r.Range(5, 40), down = r.Range(4, 10);
                b.Go(std::min(up, end - b.t), v, RpmFor(v, r), r.Range(15, 45), 0);
                b.Go(std::max(0.0, std::min(hold, end - b.t)), v, RpmFor(v, r), r.Range(10, 30), 0);
                if (b.t >= end - 1) break;
                b.Go(std::min(down, end - b.t), 0, RpmFor(0, r), 0, 1);
                b.Go(std::min(r.Range(2, 30), end - b.t), 0, RpmFor(0, r), 0, r.Chance(0.5));
            }
            break;
        case PhaseKind::Motorway:
            b.Go(std::min(30.0, p.seconds / 4), p.speed, RpmFor(p.speed, r), 45, 0);
            while (b.t < end - 1) {
                const double v = p.speed + r.Range(-8, 8);
                b.Go(std::min(r.Range(20, 120), end - b.t), v, RpmFor(v, r), r.Range(20, 40), 0);
            }
            break;
        case PhaseKind::HardAccel:
            b.Go(p.seconds, p.speed, 2900, 95, 0);
            break;
        case PhaseKind::HardBrake:
            b.Go(p.seconds, 0, RpmFor(0, r), 0, 1);
            break;
        case PhaseKind::SharpTurn:
            b.yaw = r.Chance(0.5) ? p.speed : -p.speed;
            b.accY = b.yaw * b.speed / 3.6 * 3.14159265 / 180.0 / 9.81;
            b.Go(p.seconds, b.speed, b.rpm, b.accel, 0);
            b.yaw = 0;
            b.Key();
            break;
        case PhaseKind::EngineOff:
            b.Go(std::min(5.0, p.seconds), 0, 0, 0, 0);
            b.Go(std::max(0.0, end - b.t), 0, 0, 0, 0);
            break;
    }
    b.saturated = false;
}

}  // namespace

const char* FaultName(FaultKind k) {
    const auto i = static_cast<size_t>(k);
    return i < static_cast<size_t>(FaultKind::Count) ? kFaultNames[i] : "?";
}

bool FaultByName(const std::string& name, FaultKind& k) {
    for (size_t i = 0; i < static_cast<size_t>(FaultKind::Count); ++i) {
        if (name == kFaultNames[i]) {
            k = static_cast<FaultKind>(i);
            return true;
        }
    }
    return false;
}

double Schedule::DriveSeconds() const {
    return std::round(hours * 3600.0);
}

const std::vector<InboundId>& InboundIds() {
    // 6898: the byte count and as many bytes (here 8, one CAN frame's data). The power-down
    // (1194, any payload) ends the 1 s work for good: it is a fault of its own, drawn once for
    // a share of the runs, so that bus messages do not end most runs' checks early.
    static const std::vector<InboundId> ids = {{348, 0},   {33115, 0}, {1071, 32},
                                               {6893, 16}, {6898, 12}, {6698, 0},
                                               {6729, 4},  {6731, 2},  {6779, 52}};
    return ids;
}

Schedule Draw(uint64_t seed, double hours) {
    Schedule s;
    s.seed = seed;
    s.hours = hours;
    Rng r(seed);
    s.productType = r.Chance(0.2) ? 72 : 0;
    s.motion = r.Chance(0.85);
    const double total = s.DriveSeconds();
    double t = 0, speed = 0;
    bool engineOn = false;
    while (t < total) {
        Phase p = DrawPhase(r, engineOn, speed);
        p.seconds = std::max(1.0, std::min(p.seconds, total - t));
        engineOn = p.kind != PhaseKind::EngineOff;
        if (p.kind == PhaseKind::City || p.kind == PhaseKind::HardBrake ||
            p.kind == PhaseKind::Idle || p.kind == PhaseKind::ColdStart ||
            p.kind == PhaseKind::EngineOff) {
            speed = 0;
        } else if (p.kind != PhaseKind::SharpTurn) {
            speed = p.speed;
        }
        t += p.seconds;
        s.phases.push_back(p);
    }
    const long long totalMs = static_cast<long long>(total * 1000);
    int weights = 0;
    for (const FaultDraw& d : kFaultDraws) weights += d.weight;
    const long long count = std::max(1LL, std::llround(r.Range(4, 14) * hours));
    for (long long i = 0; i < count && totalMs > 10000; ++i) {
        long long pick = r.Int(0, weights - 1);
        const FaultDraw* d = kFaultDraws;
        while (pick >= d->weight) pick -= (d++)->weight;
        Fault f;
        f.kind = d->kind;
        f.startMs = Grain(r.Int(5000, totalMs - 5000));
        f.endMs =
            std::min(totalMs, f.startMs + Grain(std::llround(r.Range(d->minS, d->maxS) * 1000)));
        f.seed = r.Next();
        switch (f.kind) {
            case FaultKind::Garbage:
                f.a = static_cast<int>(r.Int(1, 24));
                break;
            case FaultKind::Split:
                f.a = static_cast<int>(r.Int(1, 16));
                break;
            case FaultKind::DropAnswers:
                f.a = static_cast<int>(r.Int(1, 4));
                break;
            case FaultKind::BadValues:
                f.a = static_cast<int>(r.Int(0, kBadValueCount - 1));
                f.b = r.Chance(0.3) ? -1 : static_cast<int>(r.Int(0, obdsim::kItemCount - 1));
                break;
            case FaultKind::BusMessages:
                f.a = static_cast<int>(r.Int(1, 40));
                break;
            // upgrades and calibrations
            case FaultKind::UpgradeTrigger:
                f.a = DrawUpgradeFile(r);
                // A transfer of up to 64 chunks at 10-60 ms each: a second trigger within 1.5 s
                // mostly comes while it runs.
                f.b = r.Chance(0.5) ? static_cast<int>(Grain(r.Int(100, 1500))) : 0;
                break;
            case FaultKind::UpgradeBox: {
                f.a = static_cast<int>(r.Int(0, kUpgradeBoxFaultCount - 1));
                const long long params[][2] = {{0, 4}, {0, 40}, {1, 4}, {50, 900}};
                f.b = static_cast<int>(r.Int(params[f.a][0], params[f.a][1]));
                break;
            }
            case FaultKind::Calibration:
                f.a = static_cast<int>(r.Int(0, 2));
                break;
            case FaultKind::Duplicate:
                f.a = static_cast<int>(r.Int(1, 4));
                break;
            case FaultKind::Escaped:
                f.a = static_cast<int>(r.Int(0, 1));
                break;
            case FaultKind::LateAnswers:
                // Half within the command's 2 s timeout (and its 50 ms poll), half past it, up
                // to a few of its repetitions.
                f.a = static_cast<int>(r.Chance(0.5) ? r.Int(20, 2000) : r.Int(2001, 7000));
                break;
            default:
                break;
        }
        s.faults.push_back(f);
    }
    // A release mid-run for a share of the runs, at any moment after the start-up: whatever is in
    // flight then (a command, an upgrade, a power-down) must let it go within its bound.
    if (r.Chance(0.15) && totalMs > 10000) {
        Fault f;
        f.kind = FaultKind::Release;
        f.startMs = Grain(r.Int(5000, totalMs - 1000));
        f.endMs = totalMs;
        s.faults.push_back(f);
    }
    if (r.Chance(0.1) && totalMs > 10000) {
        Fault f;
        f.kind = FaultKind::PowerDown;
        f.startMs = Grain(r.Int(totalMs * 7 / 10, totalMs - 1000));
        f.endMs = totalMs;
        s.faults.push_back(f);
    }
    // Upgrades and calibrations where they are hardest: an upgrade after a power-down, a
    // calibration during an upgrade.
    if (!s.faults.empty() && s.faults.back().kind == FaultKind::PowerDown && r.Chance(0.5)) {
        Fault f;
        f.kind = FaultKind::UpgradeTrigger;
        f.startMs = Grain(r.Int(s.faults.back().startMs, totalMs - 500));
        f.endMs = std::min(totalMs, f.startMs + 30000);
        f.a = DrawUpgradeFile(r);
        f.seed = r.Next();
        s.faults.push_back(f);
    }
    std::vector<size_t> upgrades;
    for (size_t i = 0; i < s.faults.size(); ++i) {
        const FaultKind k = s.faults[i].kind;
        if (k == FaultKind::UpgradeTrigger || k == FaultKind::UpgradeBox) upgrades.push_back(i);
    }
    for (Fault& c : s.faults) {
        if (c.kind != FaultKind::Calibration || upgrades.empty() || !r.Chance(0.3)) continue;
        const Fault& u = s.faults[upgrades[static_cast<size_t>(
            r.Int(0, static_cast<long long>(upgrades.size()) - 1))]];
        const long long length = c.endMs - c.startMs;
        c.startMs = std::min(totalMs - 100, Grain(u.startMs + r.Int(100, 5000)));
        c.endMs = std::min(totalMs, c.startMs + length);
    }
    DrawClocks(seed, totalMs, hours, s.faults);
    // From a stream of its own too: a third of the boxes keep their link alive.
    Rng link(seed ^ 0x11E4F2A3B5ull);
    if (link.Chance(0.3)) s.boxLinkMs = static_cast<int>(1000 * link.Int(1, 30));
    std::stable_sort(s.faults.begin(), s.faults.end(),
                     [](const Fault& x, const Fault& y) { return x.startMs < y.startMs; });
    return s;
}

obdsim::Drive BuildDrive(const Schedule& s) {
    obdsim::Drive drive("swarm seed " + std::to_string(s.seed));
    Builder b;
    b.motion = s.motion;
    b.Key();
    for (const Phase& p : s.phases) {
        drive.AddPhase(b.t, kPhaseNames[static_cast<size_t>(p.kind)]);
        Lay(b, p);
    }
    for (auto& c : b.ch) {
        if (!c.t.empty()) drive.SetChannel(std::move(c));
    }
    return drive;
}

std::vector<Inbound> Messages(const Fault& f) {
    if (IsUpgradeKind(f.kind)) return UpgradeMessages(f);
    std::vector<Inbound> out;
    if (f.kind != FaultKind::BusMessages) return out;
    Rng r(f.seed);
    const auto& ids = InboundIds();
    for (int i = 0; i < f.a; ++i) {
        Inbound m;
        m.tMs = Grain(r.Int(f.startMs, std::max(f.startMs, f.endMs - 1)));
        const InboundId& id =
            ids[static_cast<size_t>(r.Int(0, static_cast<long long>(ids.size()) - 1))];
        m.id = id.id;
        long long n = id.exactBytes;
        switch (r.Int(0, 3)) {
            case 0:  // short
                n = id.exactBytes > 0 ? r.Int(0, id.exactBytes - 1) : 0;
                break;
            case 1:  // exact
                break;
            case 2:  // long
                n = id.exactBytes + r.Int(1, 64);
                break;
            default:  // any size
                n = r.Int(0, 2048);
                break;
        }
        m.payload.resize(static_cast<size_t>(n));
        for (auto& byte : m.payload) byte = static_cast<unsigned char>(r.Next() & 0xFF);
        // A relayed-bytes message of the exact size carries its own count, as a relay's would.
        if (id.id == 6898 && n == id.exactBytes) {
            m.payload[0] = 8;
            m.payload[1] = m.payload[2] = m.payload[3] = 0;
        }
        // Half the exact triggers name the box, so that upgrades start (and end) mid-run.
        if (id.id == 6729 && n == id.exactBytes && (m.payload[0] & 1) != 0) m.payload[2] = 7;
        out.push_back(std::move(m));
    }
    std::stable_sort(out.begin(), out.end(),
                     [](const Inbound& x, const Inbound& y) { return x.tMs < y.tMs; });
    return out;
}

std::vector<FileAction> UpgradeFiles(const Fault& f) {
    std::vector<FileAction> out;
    if (f.kind != FaultKind::UpgradeTrigger && f.kind != FaultKind::UpgradeBox) return out;
    Rng r(f.seed);
    const int variant = f.kind == FaultKind::UpgradeBox ? kFileGood : f.a;
    switch (variant) {
        case kFileMissing:
            out.push_back({f.startMs, false, {}});
            break;
        case kFileEmpty:
            out.push_back({f.startMs, true, {}});
            break;
        case kFileChanging: {
            out.push_back({f.startMs, true, Image(r)});
            const long long at = f.startMs + Grain(r.Int(100, 3000));
            out.push_back({at, true, Image(r)});
            break;
        }
        default:
            out.push_back({f.startMs, true, Image(r)});
            break;
    }
    return out;
}

obdbox::FaultState BoxFaults(const std::vector<Fault>& faults, double ms) {
    obdbox::FaultState s;
    double next = -1;
    auto later = [&next](double at) {
        if (next < 0 || at < next) next = at;
    };
    for (const Fault& f : faults) {
        // Only the box's own faults wake it; the others act elsewhere.
        if (f.kind == FaultKind::BadValues || f.kind == FaultKind::BusMessages ||
            f.kind == FaultKind::PowerDown || f.kind == FaultKind::InertialGap ||
            f.kind == FaultKind::Release || f.kind == FaultKind::Stall ||
            f.kind == FaultKind::DateJump) {
            continue;
        }
        const auto start = static_cast<double>(f.startMs), end = static_cast<double>(f.endMs);
        if (ms < start) {
            later(start);
            continue;
        }
        if (ms >= end) continue;
        later(end);
        switch (f.kind) {
            case FaultKind::Silent:
                s.silent = true;
                break;
            case FaultKind::StreamHeld:
                s.streamHeld = true;
                break;
            case FaultKind::Garbage:
                s.garbageBytes = std::max(s.garbageBytes, f.a);
                break;
            case FaultKind::Split:
                s.splitMaxChunk = s.splitMaxChunk > 0 ? std::min(s.splitMaxChunk, f.a) : f.a;
                break;
            case FaultKind::DropAnswers:
                s.dropEveryNth = s.dropEveryNth > 0 ? std::min(s.dropEveryNth, f.a) : f.a;
                break;
            case FaultKind::BadChecksum:
                s.badChecksum = true;
                break;
            // upgrades and calibrations
            case FaultKind::UpgradeTrigger:
                // A box that takes its time to store each chunk, as a real one does: the
                // transfer lasts long enough for a second trigger to come during it.
                s.upgradeFlashMs = std::max(s.upgradeFlashMs, UpgradeFlashMs(f));
                break;
            case FaultKind::UpgradeBox:
                if (f.a == kRefuseStep) {
                    s.upgradeRefuseStep = kUpgradeSteps[std::clamp(f.b, 0, 4)];
                } else if (f.a == kSilentAfterChunks) {
                    s.upgradeSilentAfterChunks = f.b;
                } else if (f.a == kDropChunkAnswers) {
                    s.upgradeDropEveryNthChunk = std::max(1, f.b);
                } else {
                    s.upgradeFlashMs = std::max(s.upgradeFlashMs, f.b);
                }
                break;
            case FaultKind::Calibration:
                s.engineRefused = s.engineRefused || f.a == 1;
                s.engineUnanswered = s.engineUnanswered || f.a == 2;
                break;
            case FaultKind::Duplicate:
                s.duplicateEveryNth =
                    s.duplicateEveryNth > 0 ? std::min(s.duplicateEveryNth, f.a) : f.a;
                break;
            case FaultKind::Escaped:
                s.escape = true;
                s.escapeCountsInLength = f.a != 0;
                break;
            case FaultKind::LateAnswers:
                s.answerDelayMs = std::max(s.answerDelayMs, static_cast<double>(f.a));
                break;
            case FaultKind::Refusals:
                s.refuse = true;
                break;
            case FaultKind::Restart:
                if (s.restartMs < 0 || start < s.restartMs) s.restartMs = start;
                break;
            default:
                break;
        }
    }
    s.nextChangeMs = next;
    return s;
}

namespace {

// Puts an escaped byte (7D, 7E or 7F) into the low byte of some finite values, at least one of
// them, chosen by the fault's seed and the instant: every frame then holds escape pairs. The
// value moves by a few units in its last place.
void EscapeBytes(const Fault& f, long long ms, obdbox::DataItems& items) {
    Rng r(f.seed ^ (static_cast<uint64_t>(ms) * 0x9E3779B97F4A7C15ull));
    bool any = false;
    for (size_t i = 0; i < items.size(); ++i) {
        float& v = items[i].second;
        if (!std::isfinite(v) || (any && r.Chance(0.4)) ||
            (!any && i + 1 < items.size() && r.Chance(0.4))) {
            continue;
        }
        uint32_t bits = 0;
        std::memcpy(&bits, &v, sizeof(bits));
        bits = (bits & ~0xFFu) | static_cast<uint32_t>(0x7D + r.Int(0, 2));
        std::memcpy(&v, &bits, sizeof(v));
        any = true;
    }
}

}  // namespace

void AlterValues(const std::vector<Fault>& faults, long long ms, obdbox::DataItems& items) {
    for (const Fault& f : faults) {
        if (f.kind == FaultKind::Escaped && ms >= f.startMs && ms < f.endMs) {
            EscapeBytes(f, ms, items);
            continue;
        }
        if (f.kind != FaultKind::BadValues || ms < f.startMs || ms >= f.endMs) continue;
        for (auto& item : items) {
            if (f.b >= 0 && item.first != f.b + 1) continue;
            float& v = item.second;
            switch (f.a) {
                case kNaN:
                    v = std::numeric_limits<float>::quiet_NaN();
                    break;
                case kPlusInf:
                    v = std::numeric_limits<float>::infinity();
                    break;
                case kMinusInf:
                    v = -std::numeric_limits<float>::infinity();
                    break;
                case kNegative:
                    v = -(std::fabs(v) + 1.0f);
                    break;
                default:
                    v = 3.0e9f;
                    break;
            }
        }
    }
}

bool InertialHeld(const std::vector<Fault>& faults, long long ms) {
    for (const Fault& f : faults) {
        if (f.kind == FaultKind::InertialGap && ms >= f.startMs && ms < f.endMs) return true;
    }
    return false;
}

long long DateMs(const std::vector<Fault>& faults, long long ms) {
    constexpr long long kFirst = 946684800000;  // 2000-01-01 00:00:00
    constexpr long long kLast = 4102444799000;  // 2099-12-31 23:59:59
    long long offset = 0;                       // the date's lead over kDateStartMs + host time
    for (const Fault& f : faults) {
        if (f.kind != FaultKind::DateJump || f.startMs > ms) continue;
        const long long at = kDateStartMs + f.startMs;
        offset = std::clamp(at + offset + 1000LL * f.b, kFirst, kLast) - at;
    }
    return kDateStartMs + ms + offset;
}

long long Stalled(const std::vector<Fault>& faults, long long fromMs, long long toMs) {
    // Stalls may overlap: the host stood still once for the time two of them share.
    std::vector<std::pair<long long, long long>> spans;
    for (const Fault& f : faults) {
        const long long a = std::max(fromMs, f.startMs), b = std::min(toMs, f.endMs);
        if (f.kind == FaultKind::Stall && b > a) spans.emplace_back(a, b);
    }
    std::sort(spans.begin(), spans.end());
    long long stood = 0, covered = fromMs;
    for (const auto& [a, b] : spans) {
        if (b > covered) stood += b - std::max(a, covered);
        covered = std::max(covered, b);
    }
    return stood;
}

long long EndMs(const Schedule& s) {
    long long end = static_cast<long long>(s.DriveSeconds() * 1000.0) + 1000;
    for (const Fault& f : s.faults) {
        if (f.kind == FaultKind::Release) end = std::min(end, f.startMs);
    }
    return end;
}

std::string ToJson(const Schedule& s) {
    nlohmann::ordered_json j;
    j["seed"] = s.seed;
    j["hours"] = s.hours;
    j["product_type"] = s.productType;
    j["motion"] = s.motion;
    j["box_link_ms"] = s.boxLinkMs;
    j["phases"] = nlohmann::ordered_json::array();
    for (const Phase& p : s.phases) {
        j["phases"].push_back({{"kind", kPhaseNames[static_cast<size_t>(p.kind)]},
                               {"s", p.seconds},
                               {"speed", p.speed},
                               {"rpm", p.rpm},
                               {"noise", p.noise},
                               {"saturated", p.saturated}});
    }
    j["faults"] = nlohmann::ordered_json::array();
    for (const Fault& f : s.faults) {
        j["faults"].push_back({{"kind", FaultName(f.kind)},
                               {"start_ms", f.startMs},
                               {"end_ms", f.endMs},
                               {"a", f.a},
                               {"b", f.b},
                               {"seed", f.seed}});
    }
    return j.dump(1) + "\n";
}

bool FromJson(const std::string& text, Schedule& s, std::string& error) {
    const nlohmann::json j = nlohmann::json::parse(text, nullptr, false);
    if (j.is_discarded() || !j.is_object()) {
        error = "not JSON";
        return false;
    }
    try {
        Schedule out;
        out.seed = j.at("seed").get<uint64_t>();
        out.hours = j.at("hours").get<double>();
        out.productType = j.at("product_type").get<int>();
        out.motion = j.at("motion").get<bool>();
        out.boxLinkMs = j.value("box_link_ms", 0);  // absent from the older files: none
        if (out.boxLinkMs < 0 || out.boxLinkMs > 600000) {
            throw std::runtime_error("box_link_ms out of range");
        }
        if (!(out.hours > 0 && out.hours <= 10000)) throw std::runtime_error("hours out of range");
        for (const auto& p : j.at("phases")) {
            Phase ph;
            const std::string kind = p.at("kind").get<std::string>();
            const auto* it = std::find(std::begin(kPhaseNames), std::end(kPhaseNames), kind);
            if (it == std::end(kPhaseNames)) throw std::runtime_error("unknown phase " + kind);
            ph.kind = static_cast<PhaseKind>(it - std::begin(kPhaseNames));
            ph.seconds = p.at("s").get<double>();
            if (!(ph.seconds > 0 && ph.seconds <= 36e6))
                throw std::runtime_error("bad phase length");
            ph.speed = p.at("speed").get<double>();
            ph.rpm = p.at("rpm").get<double>();
            ph.noise = p.at("noise").get<uint64_t>();
            ph.saturated = p.at("saturated").get<bool>();
            out.phases.push_back(ph);
        }
        for (const auto& f : j.at("faults")) {
            Fault ft;
            if (!FaultByName(f.at("kind").get<std::string>(), ft.kind)) {
                throw std::runtime_error("unknown fault " + f.at("kind").get<std::string>());
            }
            ft.startMs = f.at("start_ms").get<long long>();
            ft.endMs = f.at("end_ms").get<long long>();
            ft.a = f.at("a").get<int>();
            ft.b = f.at("b").get<int>();
            ft.seed = f.at("seed").get<uint64_t>();
            if (ft.startMs < 0 || ft.endMs < ft.startMs || ft.a < 0 || ft.a > 100000) {
                throw std::runtime_error("bad fault window or parameter");
            }
            const int kinds[] = {kUpgradeFileCount, kUpgradeBoxFaultCount, 3};
            if (IsUpgradeKind(ft.kind) &&
                (ft.a >= kinds[static_cast<int>(ft.kind) -
                               static_cast<int>(FaultKind::UpgradeTrigger)] ||
                 ft.b < 0 || ft.b > 100000)) {
                throw std::runtime_error("bad upgrade or calibration parameter");
            }
            out.faults.push_back(ft);
        }
        s = std::move(out);
        return true;
    } catch (const std::exception& e) {
        error = e.what();
        return false;
    }
}

}  // namespace obdswarm

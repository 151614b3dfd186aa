#include "Feeder.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "HostCommon.h"
#include "HostSim.h"
#include "Reference.h"

namespace obdsim {
namespace {

// The value nearest `v` none of whose three mantissa bytes is 0x7D. The built-in box sends its
// frames unescaped, and the plug-in's receiver reads 0x7D 0x01-0x03 inside a box frame as an
// escape pair; whether a box that escapes counts the pairs in its length field the protocol leaves
// open. Values that never need the escape rule keep the drive out of that corner: most move by one
// unit in the last place, one in 256 (0x7D in the high mantissa byte) by up to 0.4 %.
float WireSafe(float v) {
    uint32_t u;
    std::memcpy(&u, &v, 4);
    for (int shift : {16, 8, 0}) {
        if (((u >> shift) & 0xFFu) != 0x7Du) continue;
        // The nearer of 0x7C followed by 0xFF.. and 0x7E followed by 0x00..: the exponent stays.
        const uint32_t keep = shift == 16 ? 0xFF000000u : 0xFFFFFFFFu << (shift + 8);
        const uint32_t low = (1u << shift) - 1;
        const uint32_t down = (u & keep) | (0x7Cu << shift) | low;
        const uint32_t up = (u & keep) | (0x7Eu << shift);
        u = u - down <= up - u ? down : up;
    }
    std::memcpy(&v, &u, 4);
    return v;
}

int16_t Counts(double value, double perUnit) {
    const double c = std::round(value * perUnit);
    return static_cast<int16_t>(std::max(-32768.0, std::min(32767.0, c)));
}

}  // namespace

std::vector<unsigned char> InertialPayload(const Motion& m) {
    std::vector<unsigned char> p(32, 0);
    auto put = [&p](size_t at, int16_t v) {
        const auto u = static_cast<uint16_t>(v);
        p[at] = static_cast<unsigned char>(u & 0xFF);
        p[at + 1] = static_cast<unsigned char>(u >> 8);
    };
    for (size_t a = 0; a < 3; ++a) {
        put(6 + 2 * a, Counts(m.acc[a], kCountsPerG));
        put(18 + 2 * a, Counts(m.rot[a], kCountsPerDegPerS));
    }
    p[24] = 1;
    return p;
}

tagSixAxisOrgData SixAxisSample(const Motion& m) {
    tagSixAxisOrgData s{};
    auto put = [&s](size_t at, int16_t v) {
        const auto u = static_cast<uint16_t>(v);
        s.data[at] = static_cast<uint8_t>(u >> 8);
        s.data[at + 1] = static_cast<uint8_t>(u & 0xFF);
    };
    for (size_t a = 0; a < 3; ++a) {
        put(2 * a, Counts(m.acc[a], kCountsPerG));
        put(6 + 2 * a, Counts(m.rot[a], kCountsPerDegPerS));
    }
    return s;
}

Feeder::Feeder(const Drive* drive, ReferenceAnalyser* reference, FrameTap tap)
    : m_drive(drive), m_reference(reference), m_tap(std::move(tap)) {}

Feeder::~Feeder() {
    Stop();
}

obdbox::DataItems Feeder::Frame() {
    obdbox::DataItems items;
    if (m_drive == nullptr) return items;
    const long long tMs = hostsim::ClockNowMs();
    DriveSample s = m_drive->ItemsAt(static_cast<double>(tMs) / 1000.0);
    for (float& v : s.value) v = WireSafe(v);
    if (m_reference != nullptr) m_reference->Frame(s);
    if (m_tap) m_tap(tMs, s);
    for (int i = 0; i < kItemCount; ++i) {
        // The box numbers its items from 1.
        if (s.present[static_cast<size_t>(i)]) {
            items.emplace_back(static_cast<uint8_t>(i + 1), s.value[static_cast<size_t>(i)]);
        }
    }
    return items;
}

void Feeder::Start() {
    if (m_thread.Joinable()) return;
    m_stop = false;
    m_part = std::make_unique<hostsim::Participant>("feeder");  // before its thread: see Enter
    m_thread = hostsim::Thread("feeder", [this] {
        m_part->Enter();
        Run();
        m_part->Leave();
    });
}

void Feeder::Stop() {
    m_stop = true;
    if (m_part) m_part->Leave();  // ends a host sleep in progress at once
    m_thread.Join();
    m_part.reset();
}

void Feeder::Run() {
    long long next = 0;  // the next tick, in periods of kInertialPeriodMs
    while (!m_stop) {
        // Every tick that is due is played, so a thread that fell behind the host clock (a busy
        // machine at a high time scale) catches up instead of losing vehicle time.
        const long long now = hostsim::ClockNowMs();
        while (!m_stop && At(next) <= now) Tick(next++);
        // Without motion only the reference's seconds are left to play: waking ten times a second
        // for nothing costs a run at max speed a turn each time.
        constexpr long long kPerSecond = 1000 / kInertialPeriodMs;
        if (m_drive == nullptr || !m_drive->HasMotion()) {
            while (!m_stop && next % kPerSecond != 0) Tick(next++);
        }
        const long long wait = At(next) - hostsim::ClockNowMs();
        // On virtual time leaving the clock ends the sleep (Stop); on the others short steps, so
        // that a stop is noticed soon.
        const long long step = hostsim::ClockGetMode() == hostsim::ClockMode::Virtual ? wait : 50;
        if (wait > 0)
            Common::P4X_TMSleepMicroSecond(static_cast<unsigned>(std::min(wait, step) * 1000));
    }
}

void Feeder::Tick(long long tick) {
    if (m_drive != nullptr && m_drive->HasMotion() && !(m_sixAxisHeld && m_sixAxisHeld(At(tick)))) {
        const Motion m = m_drive->MotionAt(static_cast<double>(At(tick)) / 1000.0);
        hostsim::BusInject(1071, InertialPayload(m));
        if (m_reference != nullptr) m_reference->SixAxis(SixAxisSample(m));
        if (m_sixAxisTap) m_sixAxisTap(At(tick), SixAxisSample(m));
    }
    if (tick > 0 && tick % (1000 / kInertialPeriodMs) == 0) {
        if (m_reference != nullptr) m_reference->Second();
        if (m_secondTap) m_secondTap(At(tick));
    }
}

}  // namespace obdsim

// Scenario helpers: a fresh analyser per scenario (process-wide check states reset too), a table
// builder that marks items present as it sets them, and the per-second scenario table runner.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cctype>
#include <cmath>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "GdsInternal.h"
#include "GdsLogicAnalyser.h"

namespace analyser_test {

// Heap allocations of this binary (counted in AnalyserInterfaceTest.cpp); tests clear it.
extern std::atomic<long> gAllocations;

constexpr uint64_t B(int b) {
    return uint64_t{1} << b;
}

struct Obd {
    Obd() {
        for (auto& it : t.item) it = {-1, 0.0f};
    }
    Obd& Set(int idx, float v) {
        t.item[idx] = {idx, v};
        return *this;
    }
    Obd& Speed(float v) { return Set(OBD_IDX_SPEED, v); }
    Obd& Rpm(float v) { return Set(OBD_IDX_ENGINE_SPEED, v); }
    _OBD_DataTable_t t;
};

inline tagSixAxisOrgData Sample(int ax, int ay, int az, int rx, int ry, int rz) {
    tagSixAxisOrgData s{};
    const int v[6] = {ax, ay, az, rx, ry, rz};
    for (int i = 0; i < 12; ++i)  // big-endian s16
        s.data[i] = static_cast<uint8_t>(static_cast<uint16_t>(v[i / 2]) >> (i % 2 ? 0 : 8));
    return s;
}

using Observer = std::function<double(const tagGdsParam_t&)>;
#define FIELD(path) [](const tagGdsParam_t& g) { return double(g.path); }

// The watched bits of event word 1-4.
inline Observer Word(int w, uint64_t mask) {
    return [w, mask](const tagGdsParam_t& g) {
        const Alarm_Info_t& a = g.collData.alarmInfo;
        const uint64_t words[4] = {a.eventType1Alarms, a.eventType2Alarms, a.eventType3Alarms,
                                   a.eventType4Alarms};
        return static_cast<double>(words[w - 1] & mask);
    };
}

// A named per-second table (grammar at AnalyserTest::Run) over the OBD `items` it sets, checked
// by its `observe` list, optionally with thresholds other than the defaults.
struct Scenario {
    using Tweak = void (*)(tagGdsParam_t&);  // thresholds other than the defaults
    Scenario(std::string n, std::vector<int> i, std::vector<Observer> o, std::string t,
             Tweak w = nullptr)
        : name(n), items(i), observe(o), table(t), tweak(w) {}
    friend void PrintTo(const Scenario& s, std::ostream* os) { *os << s.name; }
    std::string name;
    std::vector<int> items;
    std::vector<Observer> observe;
    std::string table;
    Tweak tweak;
};

class AnalyserTest : public ::testing::Test {
  protected:
    void SetUp() override {
        Gds_TestResetProcessState();
        if (gds_) Gds_IF_ReleaseLogicAnalyser(gds_.get());  // scenarios restart mid-test
        gds_ = std::make_unique<tagGdsParam_t>();           // zeroed, as the owner does
        ASSERT_EQ(Gds_IF_InitLogicAnalyser(gds_.get()), 0);
    }
    void TearDown() override { Gds_IF_ReleaseLogicAnalyser(gds_.get()); }

    void Feed(Obd& obd) {
        ASSERT_EQ(Gds_IF_UpdateCollectData(COLLECT_OBD_DATA, &obd.t, gds_.get()), 0);
    }
    // One second: the sample arrives, then the once-a-second evaluation runs.
    void Second(Obd& obd) {
        Feed(obd);
        Gds_IF_AnalyserData(gds_.get());
    }
    void Push(tagSixAxisOrgData s) {
        ASSERT_EQ(Gds_IF_UpdateCollectData(COLLECT_SIX_AXIS_DATA, &s, gds_.get()), 0);
    }
    // Runs a scenario table. Grammar (tokens are separated by blanks):
    //   table := row {';' row}
    //   row   := ['!'] [n'*'] {token} '=' {want}
    //   token := v       the next of the scenario's items is sent with value v (a float: 12,
    //                    -0.5, 1e8, inf, nan)
    //          | '-'     the next item is not sent at all (absent, id -1)
    //          | '~'v    the next item is absent, but its slot holds the stale value v
    //          | v'+'d   the next item is v in the row's first second and rises by d each second
    //          | R c'*'v['/'w]  six-axis ring R (X longitudinal, Y lateral, Z vertical, L lateral
    //                    load) is rewritten before the row's first second: c of its ten values
    //                    are v, the rest w (0 if not given); the rings keep their values after
    //          | 'lat'k | 'turb'k  lateral or turbulence sensitivity k until the next fresh start
    //   want  := number | 'b'N (bit N alone) | STATE{'|'STATE} (six-axis state bits: DEC ACC
    //            POS NEG SP SN TURB) | '-' (not checked)
    // The row is held for n seconds (1 if not given; "n*" may also stand alone as a token).
    // Each second the sample is fed and, if perSecond, the evaluation runs; then the i-th
    // observer must read the i-th want (within 1e-3). Values and wants follow the order of the
    // scenario's items and observers; every item needs a token. '!', and the first row, start
    // from a fresh analyser (process-wide check states too). perSecond false: samples only,
    // without the evaluation (per-sample statistics).
    // Read aloud, NeutralGlide's (items speed, rpm; observer: event word 4, bit 0) row
    //   5*60 800=0
    // says: for five seconds speed 60 and rpm 800, and after each of them bit 0 is clear.
    void Run(const Scenario& s, bool perSecond = true) {
        std::istringstream rows(s.table);
        std::string row, tok;
        for (int r = 1, t = 0; std::getline(rows, row, ';'); ++r) {
            const size_t bang = row.find('!'), eq = row.find('=');
            if (r == 1 || bang < eq) SetUp();
            if ((r == 1 || bang < eq) && s.tweak) s.tweak(*gds_);
            if (bang < eq) row[bang] = ' ';
            std::istringstream in(row.substr(0, eq)), out(row.substr(eq + 1));
            std::vector<double> want;
            while (out >> tok) want.push_back(Want(tok));
            Obd obd;
            std::vector<std::array<float, 3>> rising;  // item, first value, rise per second
            int n = 1;
            size_t k = 0;
            while (in >> tok) {
                if (std::isdigit(static_cast<unsigned char>(tok[0])) &&
                    tok.find('*') != std::string::npos) {
                    n = std::stoi(tok);
                    tok.erase(0, tok.find('*') + 1);
                }
                if (tok.empty()) continue;
                if (tok.rfind("lat", 0) == 0 || tok.rfind("turb", 0) == 0)
                    (tok[0] == 'l' ? gds_->alarmThreshold.lateralSensitivity
                                   : gds_->alarmThreshold.turbulenceSensitivity) =
                        static_cast<uint8_t>(std::stoi(tok.substr(tok[0] == 'l' ? 3 : 4)));
                else if (std::string("XYZL").find(tok[0]) != std::string::npos)
                    FillRing(tok);
                else if (tok == "-")
                    ++k;
                else if (tok[0] == '~')
                    obd.t.item[s.items.at(k++)].value = std::stof(tok.substr(1));
                else if (tok.find('+', 1) != std::string::npos)
                    rising.push_back({float(s.items.at(k++)), std::stof(tok),
                                      std::stof(tok.substr(tok.find('+', 1) + 1))});
                else
                    obd.Set(s.items.at(k++), std::stof(tok));
            }
            ASSERT_EQ(k, s.items.size()) << s.name << " row " << r;
            ASSERT_EQ(want.size(), s.observe.size()) << s.name << " row " << r;
            for (int i = 0; i < n; ++i, ++t) {
                for (const auto& u : rising) obd.Set(int(u[0]), u[1] + u[2] * float(i));
                perSecond ? Second(obd) : Feed(obd);
                for (size_t o = 0; o < want.size(); ++o) {
                    if (std::isnan(want[o])) continue;
                    ASSERT_NEAR(s.observe[o](*gds_), want[o], 1e-3)
                        << s.name << ": row " << r << " (" << row << "), second " << t + 1
                        << ", observer " << o + 1;
                }
            }
        }
    }
    static double Want(const std::string& tok) {
        if (tok == "-") return std::nan("");  // not checked in this row
        if (tok[0] == 'b') return double(B(std::stoi(tok.substr(1))));
        if (!std::isalpha(static_cast<unsigned char>(tok[0]))) return std::stod(tok);
        const std::map<std::string, uint32_t> bits = {
            {"DEC", 0x1},   {"ACC", 0x2},   {"POS", 0x4},    {"NEG", 0x8},
            {"SP", 0x1000}, {"SN", 0x2000}, {"TURB", 0x4000}};
        std::istringstream names(tok);
        std::string name;
        uint32_t w = 0;
        while (std::getline(names, name, '|')) w |= bits.at(name);
        return w;
    }
    void FillRing(const std::string& tok) {
        const size_t star = tok.find('*'), slash = tok.find('/');
        const int count = std::stoi(tok.substr(1, star - 1));
        const int v = std::stoi(tok.substr(star + 1, slash - star - 1));
        const int rest = slash == std::string::npos ? 0 : std::stoi(tok.substr(slash + 1));
        AxisRing& ring = gds_->collData.axisRing[std::string("XYZL").find(tok[0])];
        for (int i = 0; i < GDS_AXIS_RING_SIZE; ++i)
            ring.value[i] = static_cast<int16_t>(i < count ? v : rest);
    }
    const Alarm_Info_t& Alarm() const { return gds_->collData.alarmInfo; }

    std::unique_ptr<tagGdsParam_t> gds_;
};

}  // namespace analyser_test

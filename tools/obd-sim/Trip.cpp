#include "Trip.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "ObdBusRecords.h"
#include "ObdTypes.h"

namespace obdsim {
namespace {

constexpr long long kFirstBroadcastMs = 2000;  // the first one comes at its first 1 s step
constexpr long long kStaleMs = 3000;           // data that does not follow the box for this long
constexpr long long kLinkUpMs = 15000;         // the plug-in reports its link up by then
constexpr long long kAlarmToleranceMs = 2000;  // an expected alarm's start, either way
constexpr size_t kMaxProblems = 10;

}  // namespace

std::string Clock(long long ms) {
    if (ms < 0) ms = 0;
    const long long s = ms / 1000;
    char text[32];
    std::snprintf(text, sizeof(text), "%lld:%02lld:%02lld", s / 3600, s / 60 % 60, s % 60);
    return text;
}

AlarmEpisodes::AlarmEpisodes() {
    std::fill(std::begin(m_open), std::end(m_open), -1);
}

void AlarmEpisodes::Step(long long tMs, const uint64_t words[4]) {
    for (int i = 0; i < kAlarmCount; ++i) {
        const int level = AlarmLevel(i, words);
        if (level > 0 && m_open[i] < 0) {
            m_open[i] = static_cast<int>(m_events.size());
            m_events.push_back({i, level, tMs, -1, false, tMs});
        } else if (level > 0) {
            AlarmEvent& e = m_events[static_cast<size_t>(m_open[i])];
            e.level = std::max(e.level, level);
            e.lastMs = tMs;
        } else if (m_open[i] >= 0) {
            m_events[static_cast<size_t>(m_open[i])].endMs = tMs;
            m_open[i] = -1;
        }
    }
}

TripLog::TripLog(const Drive* drive, long long slackMs) : m_drive(drive), m_slackMs(slackMs) {}

long long TripLog::Slack() const {
    // A host that fell behind its pace delivers everything that much later: that is its own
    // lateness, not the plug-in's.
    return m_slackMs + hostsim::ClockMaxLateMs();
}

void TripLog::Problem(const std::string& text) {
    if (m_problems.size() < kMaxProblems) m_problems.push_back(text);
}

bool TripLog::Suspended() const {
    return m_upgrading || m_poweredDown;
}

void TripLog::CheckGap(int id, long long& last, long long nowMs) {
    // Broadcasts are owed from the moment the plug-in reports its link up (or sends its first):
    // before that the plug-in may still be starting, and a program that is no OBD plug-in at all
    // owes none.
    if (last < 0 && m_linkUpMs < 0) {
        last = nowMs;
        return;
    }
    const long long from = last < 0 ? m_linkUpMs : last;
    const long long limit = (last < 0 ? kFirstBroadcastMs : kStepMs) + Slack();
    if (m_drive != nullptr && !Suspended() && nowMs - from > limit) {
        Problem("no " + std::string(id == MSG_OBD_ORIGINAL_DATA ? "OBD data" : "alarm") +
                " broadcast (" + std::to_string(id) + ") from " + Clock(from) + " to " +
                Clock(nowMs));
    }
    last = nowMs;
}

void TripLog::OnInject(int id) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (id == MSG_POWER_DOWN) m_poweredDown = true;
}

void TripLog::OnFrame(long long tMs, const DriveSample& items) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_frames.push_back({tMs, items});
}

void TripLog::CheckFollows(const hostsim::BusMessage& m) {
    if (m_drive == nullptr || m_frames.empty() || Suspended()) return;
    ObdOriginalDataMsg_t msg;
    std::memcpy(&msg, m.payload.data(), sizeof(msg));
    const long long window = kStaleMs + Slack();
    while (!m_frames.empty() && m_frames.front().tMs < m.tMs - window) m_frames.pop_front();
    // The table follows the box when some frame sent lately left it as it is: the values of every
    // item the frame carried (later frames may have replaced some).
    bool follows = false;
    for (const Frame& f : m_frames) {
        if (f.tMs > m.tMs) break;
        bool same = true;
        for (int i = 0; i < kItemCount && same; ++i) {
            if (!f.items.present[static_cast<size_t>(i)]) continue;
            same = msg.table.item[i].id == i &&
                   msg.table.item[i].value == f.items.value[static_cast<size_t>(i)];
        }
        follows = follows || same;
    }
    if (follows) {
        m_staleSinceMs = -1;
        return;
    }
    if (m_staleSinceMs < 0) m_staleSinceMs = m.tMs;
    if (!m_staleReported && m.tMs - m_staleSinceMs > window) {
        m_staleReported = true;
        Problem("the plug-in's OBD data stopped following the box from " + Clock(m_staleSinceMs));
    }
}

void TripLog::OnBus(const hostsim::BusMessage& m) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_endMs >= 0) return;  // the trip is closed; the release's last messages are not in it
    if (m.response) {
        // An accepted upgrade trigger: the plug-in's 1 s work pauses until the upgrade ends.
        if (m.id == MSG_TRIGGER_PERIPHERAL_UPGRADE) m_upgrading = true;
        return;
    }
    switch (m.id) {
        case MSG_GDS_ALARM: {
            uint64_t words[4];
            if (!AlarmWords(m.payload, words)) break;
            m_steps.push_back(m.tMs);
            CheckGap(m.id, m_lastAlarmMs, m.tMs);
            std::copy(words, words + 4, m_words);
            m_alarms.Step(m.tMs, words);
            break;
        }
        case MSG_OBD_ORIGINAL_DATA:
            if (m.payload.size() != sizeof(ObdOriginalDataMsg_t)) break;
            CheckGap(m.id, m_lastObdMs, m.tMs);
            m_lastData = m.payload;
            CheckFollows(m);
            break;
        case MSG_GDS_CONFIG_INFO_REPORT: {
            if (m.payload.size() != sizeof(GdsConfigInfo_t)) break;
            m_box = Decode(m.id, false, m.payload);
            const int up = (m.payload[offsetof(GdsConfigInfo_t, obd_state)] & 1u) != 0 ? 1 : 0;
            if (up == 1 && m_linkUpMs < 0) m_linkUpMs = m.tMs;
            if (up == 0 && m_linkState == 1 && m_drive != nullptr) {
                Problem("the plug-in reported the OBD link lost at " + Clock(m.tMs));
            }
            m_linkState = up;
            break;
        }
        case MSG_PERIPHERAL_UPGRADE_STATE: {
            if (m.payload.size() != sizeof(UpgradeResult_t)) break;
            const uint8_t state = m.payload[offsetof(UpgradeResult_t, state)];
            const bool upgrading = state == PERIP_UPG_STATE_PROGRESS;
            if (m_upgrading && !upgrading) m_lastObdMs = m_lastAlarmMs = m.tMs;
            m_upgrading = upgrading;
            break;
        }
        default:
            break;
    }
}

std::string TripLog::Status(long long nowMs) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::string line = Clock(nowMs);
    if (m_drive != nullptr) {
        const std::string phase = m_drive->PhaseAt(static_cast<double>(nowMs) / 1000.0);
        if (!phase.empty()) line += "  " + phase;
    }
    float speed = 0, rpm = 0, coolant = 0;
    char values[96] = "  no OBD data yet";
    const bool hasSpeed = ItemValue(m_lastData, OBD_IDX_SPEED, speed);
    const bool hasRpm = ItemValue(m_lastData, OBD_IDX_ENGINE_SPEED, rpm);
    const bool hasCoolant = ItemValue(m_lastData, OBD_IDX_COOLANT_TEMP, coolant);
    if (hasSpeed || hasRpm || hasCoolant) {
        std::snprintf(values, sizeof(values), "  %.0f km/h  %.0f rpm  %.0f C",
                      static_cast<double>(speed), static_cast<double>(rpm),
                      static_cast<double>(coolant));
    }
    line += values;
    line += m_linkState == 1 ? "  link up" : m_linkState == 0 ? "  link down" : "  no link yet";
    std::string alarms;
    for (int i = 0; i < kAlarmCount; ++i) {
        const int level = AlarmLevel(i, m_words);
        if (level == 0) continue;
        alarms += alarms.empty() ? "  | " : ", ";
        alarms += Alarm(i).title;
        if (Alarm(i).graded) alarms += " " + std::to_string(level);
    }
    return line + alarms;
}

void TripLog::Finish(long long endMs) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_endMs = endMs;
    if (m_drive == nullptr) return;
    if (m_linkUpMs < 0 && endMs > kLinkUpMs + Slack()) {
        Problem("the plug-in never reported the OBD link up");
    }
    // A broadcast that stopped before the end has no later one to show the gap.
    const std::pair<int, long long> lasts[] = {{MSG_OBD_ORIGINAL_DATA, m_lastObdMs},
                                               {MSG_GDS_ALARM, m_lastAlarmMs}};
    for (auto [id, last] : lasts) {
        if (m_linkUpMs >= 0 && (last < 0 || endMs - last > kStepMs + Slack())) {
            CheckGap(id, last, endMs);
        }
    }
    if (m_drive->Expected().empty()) return;
    const long long tolerance = kAlarmToleranceMs + Slack();
    // An alarm whose condition must hold for H of the plug-in's steps comes H steps after the
    // condition began. On a clock that was late those steps last longer than a second (see
    // MeanStepMs), so its time is counted in the steps the plug-in actually made; an exact clock
    // is never late, and there a step must be a second.
    const hostsim::ClockMode mode = hostsim::ClockGetMode();
    const bool exactClock = mode != hostsim::ClockMode::Real && mode != hostsim::ClockMode::Scaled;
    const auto stepsLate = [&](long long atMs, double holdS) -> long long {
        if (exactClock || holdS <= 0.0) return 0;
        const long long began = atMs - std::llround(holdS * 1000.0);
        const auto first = std::lower_bound(m_steps.begin(), m_steps.end(), began);
        const auto held = static_cast<std::ptrdiff_t>(std::llround(holdS));
        if (m_steps.end() - first <= held) return 0;
        return std::max(0LL, *(first + held) - atMs);
    };
    std::vector<AlarmEvent>& alarms = m_alarms.Events();
    std::vector<bool> named(alarms.size(), false);
    for (const ExpectedAlarm& e : m_drive->Expected()) {
        const long long at = std::llround(e.startS * 1000.0);
        const long long late = stepsLate(at, e.holdS);
        const int alarm = AlarmIndex(e.key);
        // An alarm that drops for a moment and comes back within the tolerance is one event: its
        // checks count whole seconds of a clock that may be late.
        std::vector<size_t> came;
        long long lastEnd = -1;
        for (size_t k = 0; k < alarms.size(); ++k) {
            if (alarms[k].alarm != alarm) continue;
            named[k] = true;
            alarms[k].expected = true;
            if (came.empty() || lastEnd < 0 || alarms[k].startMs - lastEnd > tolerance) {
                came.push_back(k);
            }
            lastEnd = alarms[k].endMs;
        }
        const std::string title = alarm >= 0 ? Alarm(alarm).title : e.key;
        if (came.empty() && at + tolerance + late > endMs) {
            continue;  // the run ended before it was due
        } else if (came.empty()) {
            m_missing.push_back(e);
            Problem(title + " expected at " + Clock(at) + " did not come");
        } else if (came.size() > 1) {
            Problem(title + " came " + std::to_string(came.size()) + " times, expected once at " +
                    Clock(at));
        } else if (alarms[came[0]].startMs < at - tolerance ||
                   alarms[came[0]].startMs > at + tolerance + late) {
            Problem(title + " came at " + Clock(alarms[came[0]].startMs) + ", expected at " +
                    Clock(at));
        } else if (alarms[came[0]].level != e.level) {
            Problem(title + " reached level " + std::to_string(alarms[came[0]].level) +
                    ", expected " + std::to_string(e.level));
        }
    }
    for (size_t k = 0; k < alarms.size(); ++k) {
        if (!named[k]) {
            Problem("unexpected alarm: " + std::string(Alarm(alarms[k].alarm).title) + " at " +
                    Clock(alarms[k].startMs));
        }
    }
}

std::vector<AlarmEvent> TripLog::Alarms() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_alarms.Events();
}

std::vector<ExpectedAlarm> TripLog::Missing() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_missing;
}

std::vector<std::string> TripLog::Problems() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_problems;
}

Json TripLog::Box() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_box;
}

long long TripLog::LinkUpMs() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_linkUpMs;
}

double TripLog::MeanStepMs() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_steps.size() < 2) return 0.0;
    return static_cast<double>(m_steps.back() - m_steps.front()) /
           static_cast<double>(m_steps.size() - 1);
}

long long TripLog::EndMs() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_endMs;
}

}  // namespace obdsim

#include "Invariants.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

#include "ObdBusRecords.h"
#include "ObdTypes.h"

namespace obdswarm {

std::string Clock(long long ms) {
    if (ms < 0) ms = 0;
    const long long s = ms / 1000;
    char text[40];
    std::snprintf(text, sizeof(text), "%lld:%02lld:%02lld.%03lld", s / 3600, s / 60 % 60, s % 60,
                  ms % 1000);
    return text;
}

std::string ClockSeconds(long long ms) {
    const std::string c = Clock(ms);
    return c.substr(0, c.find('.'));
}

namespace {

// The plug-in stores what the box said: NaN is NaN, every other value bit for bit.
bool Same(float a, float b) {
    if (std::isnan(a) || std::isnan(b)) return std::isnan(a) && std::isnan(b);
    return std::memcmp(&a, &b, sizeof(a)) == 0;
}

std::string Value(float v) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.9g", static_cast<double>(v));
    return text;
}

// Seconds since 1970 of a UTC date (days from the civil calendar, proleptic Gregorian).
long long EpochSeconds(int year, int month, int day, int hour, int minute, int second) {
    const int y = year - (month <= 2 ? 1 : 0);
    const int era = (y >= 0 ? y : y - 399) / 400;
    const int yoe = y - era * 400;
    const int doy = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const int doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    const long long days = era * 146097LL + doe - 719468;
    return days * 86400 + hour * 3600LL + minute * 60LL + second;
}

}  // namespace

Checker::Checker(std::vector<Fault> faults, Bounds bounds)
    : m_faults(std::move(faults)), m_b(bounds) {
    for (const Fault& f : m_faults) {
        if (f.kind == FaultKind::PowerDown && (m_powerDownMs < 0 || f.startMs < m_powerDownMs)) {
            m_powerDownMs = f.startMs;
        }
        if (f.kind == FaultKind::Restart) m_restartEnds.push_back(f.endMs);
    }
    std::sort(m_restartEnds.begin(), m_restartEnds.end());
}

bool Checker::Open(FaultKind kind, long long tMs) const {
    for (const Fault& f : m_faults) {
        if (f.kind == kind && tMs >= f.startMs && tMs < f.endMs) return true;
    }
    return false;
}

// With a wrong checksum the plug-in cannot choose between an escaped frame's two readings.
bool Checker::Unreadable(long long tMs) const {
    return Open(FaultKind::Escaped, tMs) && Open(FaultKind::BadChecksum, tMs);
}

// The upgrade's bound runs from its start, or from the end of a window of late answers that
// slowed it down.
long long Checker::UpgradeDeadline(long long nowMs) const {
    long long from = m_upgradeFromMs;
    for (const Fault& f : m_faults) {
        if (f.kind == FaultKind::LateAnswers && f.startMs <= nowMs && f.endMs > from) {
            from = std::max(from, std::min(f.endMs, nowMs));
        }
    }
    return from + m_b.upgradeMs + Stalled(m_faults, from, nowMs);
}

// When something the plug-in's commands bring about must have happened, `boundMs` after `fromMs`:
// the bound counts again from the end of every window that holds the commands back meanwhile.
long long Checker::CommandDeadline(long long fromMs, long long boundMs) const {
    long long deadline = fromMs + boundMs;
    for (bool moved = true; moved;) {
        moved = false;
        const auto push = [&](long long start, long long end) {
            if (start < deadline && end > fromMs && end + boundMs > deadline) {
                deadline = end + boundMs;
                moved = true;
            }
        };
        for (const Fault& f : m_faults) {
            switch (f.kind) {
                case FaultKind::Silent:
                case FaultKind::StreamHeld:
                case FaultKind::DropAnswers:
                case FaultKind::BadChecksum:
                case FaultKind::BusMessages:
                case FaultKind::LateAnswers:
                case FaultKind::Refusals:
                case FaultKind::Restart:
                    push(f.startMs, f.endMs);
                    break;
                default:
                    break;
            }
        }
        for (const auto& u : m_upgrades) push(u.first, u.second);
        if (m_upgradeFromMs >= 0) push(m_upgradeFromMs, std::numeric_limits<long long>::max() / 2);
    }
    return deadline;
}

void Checker::Fail(const char* name, long long tMs, const std::string& message) {
    if (!m_first.name.empty()) return;
    m_first.name = name;
    m_first.tMs = tMs;
    m_first.message = message;
}

long long Checker::Elapsed(long long fromMs, long long toMs) const {
    return toMs - fromMs - Stalled(m_faults, fromMs, toMs);
}

bool Checker::PoweredDown(long long tMs) const {
    return m_powerDownMs >= 0 && tMs >= m_powerDownMs;
}

bool Checker::BusWindow(long long tMs) const {
    for (const Fault& f : m_faults) {
        // A message delivered at the window's last instant is handled a moment later.
        if (f.kind == FaultKind::BusMessages && tMs >= f.startMs && tMs <= f.endMs + m_b.periodMs) {
            return true;
        }
    }
    return false;
}

// Something that lawfully holds the 1 s work back between the two times.
bool Checker::Excused(long long fromMs, long long toMs) const {
    if (PoweredDown(toMs)) return true;
    if (m_upgradeFromMs >= 0 && m_upgradeFromMs <= toMs) return true;
    for (const auto& u : m_upgrades) {
        if (u.first <= toMs && u.second >= fromMs) return true;
    }
    return false;
}

void Checker::Gap(int id, long long& last, long long nowMs) {
    const long long limit = m_b.periodMs + m_b.slackMs;
    if (last < 0) {
        if (nowMs > m_b.firstBroadcastMs && !Excused(0, nowMs)) {
            Fail("broadcast-period", nowMs,
                 "no " + std::to_string(id) + " broadcast since the start of the run");
        }
        return;
    }
    if (Elapsed(last, nowMs) > limit && !Excused(last, nowMs)) {
        Fail("broadcast-period", nowMs,
             "no " + std::to_string(id) + " broadcast from " + Clock(last) + " to " + Clock(nowMs));
    }
}

// Once a second means not more often either: a host that stood still gets one second's work
// when it wakes, not a burst of the seconds it missed.
void Checker::Soon(int id, long long last, long long nowMs) {
    if (last >= 0 && nowMs - last < m_b.periodMs - m_b.slackMs && !Excused(last, nowMs)) {
        Fail("broadcast-period", nowMs,
             "two " + std::to_string(id) + " broadcasts " + std::to_string(nowMs - last) +
                 " ms apart (" + Clock(last) + ", " + Clock(nowMs) + ")");
    }
}

void Checker::OnFrame(long long tMs, const obdbox::DataItems& items) {
    std::lock_guard<std::mutex> lock(m_mutex);
    // A frame of the instant a stall began waits in the line until the host wakes.
    for (const Fault& f : m_faults) {
        if (f.kind == FaultKind::Stall && f.startMs == tMs) tMs = std::max(tMs, f.endMs);
    }
    // Two of the plug-in's 2 s ticks without a frame make the next one news (data resumed).
    if (m_lastFrameMs < 0 || tMs - m_lastFrameMs > kPauseMs) m_pauseMs = tMs;
    m_lastFrameMs = tMs;
    const bool unreadable = Unreadable(tMs);
    bool owed = !unreadable;
    const obdbox::FaultState box = BoxFaults(m_faults, static_cast<double>(tMs));
    if (box.escape) {
        // The first frame that counts its pairs after one that did not (or after the start).
        if (box.escapeCountsInLength && !m_countsPairs) owed = false;
        // The plug-in learns the convention from a frame whose checksum settles between its
        // readings: a spoilt one teaches it nothing.
        if (!box.badChecksum) m_countsPairs = box.escapeCountsInLength;
    }
    // A wrong checksum alone does not spoil a frame: the plug-in's receiver does not verify it.
    // A frame not owed reaches the plug-in late or not at all: the link checks wait for the next.
    if (owed) {
        if (tMs > m_lastCleanMs) m_prevCleanMs = m_lastCleanMs;
        m_lastCleanMs = tMs;
        if (m_link != 1 && m_backSinceMs < 0) m_backSinceMs = tMs;
    }
    m_frames.push_back({tMs, items, owed});
    // A plug-in that broadcasts nothing more is caught by the period check; the list stays short.
    while (m_frames.size() > 64) m_frames.pop_front();
}

void Checker::CheckTable(const hostsim::BusMessage& m) {
    ObdOriginalDataMsg_t msg;
    std::memcpy(&msg, m.payload.data(), sizeof(msg));
    // The frames of earlier instants must be in it; one of this instant may or may not be yet.
    size_t last = m_frames.size();
    for (size_t i = 0; i < m_frames.size(); ++i) {
        if (m_frames[i].tMs < m.tMs) last = i;
    }
    if (last == m_frames.size()) return;
    const Frame& due = m_frames[last];
    std::string mismatch;
    bool follows = false;
    for (size_t i = last; i < m_frames.size() && !follows; ++i) {
        bool same = true;
        for (const auto& item : m_frames[i].items) {
            const int index = item.first - 1;
            if (index < 0 || index >= OBD_ITEM_COUNT) continue;
            const auto& in = msg.table.item[index];
            if (in.id != index || !Same(in.value, item.second)) {
                if (i == last && mismatch.empty()) {
                    mismatch = "item " + std::to_string(index) + " sent as " + Value(item.second) +
                               ", broadcast as " +
                               (in.id == index ? Value(in.value) : std::string("absent"));
                }
                same = false;
                break;
            }
        }
        follows = same;
    }
    const bool excused = !due.owed || BusWindow(due.tMs) || Excused(due.tMs, m.tMs);
    if (!follows && !excused) {
        Fail("data-to-table", m.tMs,
             "the frame sent at " + Clock(due.tMs) + " is not in the broadcast at " + Clock(m.tMs) +
                 ": " + mismatch);
    }
    m_frames.erase(m_frames.begin(), m_frames.begin() + static_cast<long>(last) + 1);
}

// Whether the date the host reported at some moment from `fromMs` to `toMs` reads `seconds`. A
// jump's own instant reads both dates: the plug-in's work of that instant may come before it.
bool Checker::DateBetween(long long seconds, long long fromMs, long long toMs) const {
    std::vector<long long> jumps;
    for (const Fault& f : m_faults) {
        if (f.kind == FaultKind::DateJump && f.startMs > fromMs && f.startMs <= toMs) {
            jumps.push_back(f.startMs);
        }
    }
    std::sort(jumps.begin(), jumps.end());
    long long from = fromMs;
    for (size_t i = 0; i <= jumps.size(); ++i) {
        const long long to = i < jumps.size() ? jumps[i] : toMs;
        // Before a jump its instant still reads the old date, carried on.
        const long long last =
            i < jumps.size() ? DateMs(m_faults, to - 1) + 1 : DateMs(m_faults, to);
        const long long first = DateMs(m_faults, from);
        if (seconds >= first / 1000 && seconds <= last / 1000) return true;
        from = to;
    }
    return false;
}

// Every black-box record carries the date its data came at: from the previous black-box message
// to this one, whichever way the date jumped meanwhile.
void Checker::CheckBlackbox(const hostsim::BusMessage& m) {
    const long long from = m_lastBlackboxMs;
    m_lastBlackboxMs = m.tMs;
    const size_t n = m.payload.size();
    const uint8_t* p = m.payload.data();
    if (n < sizeof(BlackboxMsgHead_t) + 12) {
        Fail("blackbox-date", m.tMs, "a 6714 broadcast of " + std::to_string(n) + " bytes");
        return;
    }
    const unsigned records = p[0] | (p[1] << 8);
    size_t at = sizeof(BlackboxMsgHead_t);
    for (unsigned r = 0; r < records; ++r) {
        BlackboxRecordHead_t head;
        if (at + sizeof(head) > n - 12) {
            Fail("blackbox-date", m.tMs, "a 6714 broadcast shorter than its records");
            return;
        }
        std::memcpy(&head, p + at, sizeof(head));
        const long long seconds = EpochSeconds(2000 + head.time[0], head.time[1], head.time[2],
                                               head.time[3], head.time[4], head.time[5]);
        if (!DateBetween(seconds, from, m.tMs)) {
            char date[40];
            std::snprintf(date, sizeof(date), "20%02u-%02u-%02u %02u:%02u:%02u", head.time[0],
                          head.time[1], head.time[2], head.time[3], head.time[4], head.time[5]);
            Fail("blackbox-date", m.tMs,
                 "a black-box record dated " + std::string(date) + ", a date the host did not " +
                     "report from " + Clock(from) + " to " + Clock(m.tMs));
            return;
        }
        at += BlackboxRecordSize(std::min<uint32_t>(head.count, OBD_ITEM_COUNT));
    }
}

// Faults that may change what the status record says without the checker seeing it: frames the
// plug-in lost or got late (a pause it saw and the checker did not), an engine calibrated, a
// version read again.
bool Checker::StatusNews(long long fromMs, long long toMs) const {
    if (m_pauseMs > fromMs || m_calibratedMs > fromMs) return true;
    if (Excused(fromMs, toMs) && !PoweredDown(fromMs)) return true;  // an upgrade
    for (const Fault& f : m_faults) {
        if (f.startMs > toMs || f.endMs + m_b.linkUpMs < fromMs) continue;
        switch (f.kind) {
            case FaultKind::Silent:
            case FaultKind::StreamHeld:
            case FaultKind::Garbage:
            case FaultKind::Split:
            case FaultKind::BadChecksum:
            case FaultKind::BusMessages:
            case FaultKind::Escaped:
            case FaultKind::Restart:
            case FaultKind::UpgradeTrigger:
            case FaultKind::UpgradeBox:
            case FaultKind::Calibration:
            case FaultKind::Stall:
                return true;
            default:
                break;
        }
    }
    return false;
}

void Checker::CheckStatus(const hostsim::BusMessage& m) {
    GdsConfigInfo_t info;
    std::memcpy(&info, m.payload.data(), sizeof(info));
    if ((info.mask & CFG_MASK_VERSION) != 0) {
        m_reportedVersion.assign(info.version.DLVer,
                                 strnlen(info.version.DLVer, sizeof(info.version.DLVer)));
    }
    if (m_versionDueMs >= 0 && m_reportedVersion == m_installedVersion) {
        m_tally.longestVersionMs =
            std::max(m_tally.longestVersionMs, Elapsed(m_versionDueMs, m.tMs));
        m_versionDueMs = -1;
    }
    const long long from = m_lastStatusMs;
    const bool same = from >= 0 && m_lastStatus == m.payload;
    m_lastStatus = m.payload;
    m_lastStatusMs = m.tMs;
    if (same && !StatusNews(from, m.tMs)) {
        Fail("status-quiet", m.tMs,
             "a status record the same as the one at " + Clock(from) +
                 ", and nothing changed in between");
    }
}

void Checker::SetInstalledVersion(const std::string& dlVersion, bool linkFrames) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_installedVersion = dlVersion;
    m_linkFrames = linkFrames;
}

void Checker::OnBus(const hostsim::BusMessage& m) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m.response) {
        if (m.id == MSG_TRIGGER_PERIPHERAL_UPGRADE && m.payload.size() == sizeof(UpgradeResult_t) &&
            m.payload[offsetof(UpgradeResult_t, state)] == PERIP_UPG_STATE_PROGRESS &&
            m_upgradeFromMs < 0) {
            m_upgradeFromMs = m.tMs;
            m_acceptedMs = m.tMs;
            m_installedMs = -1;
        }
        // Whatever the result: a request answered, and the ones before it with it.
        if (m.id == MSG_TRIGGER_OBD_DEMACATE) {
            ++m_tally.calibrationAnswers;
            if (m_calibrationMs >= 0) {
                m_tally.longestCalibrationMs =
                    std::max(m_tally.longestCalibrationMs, Elapsed(m_calibrationMs, m.tMs));
            }
            m_calibrationMs = -1;
        }
        return;
    }
    switch (m.id) {
        case MSG_OBD_ORIGINAL_DATA:
            if (m.payload.size() != sizeof(ObdOriginalDataMsg_t)) {
                Fail("broadcast-period", m.tMs,
                     "a 6702 broadcast of " + std::to_string(m.payload.size()) + " bytes");
                break;
            }
            Soon(m.id, m_lastObdMs, m.tMs);
            Gap(m.id, m_lastObdMs, m.tMs);
            m_lastObdMs = m.tMs;
            CheckTable(m);
            break;
        case MSG_BLACKBOX_OBD_DATA:
            CheckBlackbox(m);
            break;
        case MSG_GDS_ALARM:
            Soon(m.id, m_lastAlarmMs, m.tMs);
            Gap(m.id, m_lastAlarmMs, m.tMs);
            m_lastAlarmMs = m.tMs;
            break;
        case MSG_GDS_CONFIG_INFO_REPORT: {
            if (m.payload.size() != sizeof(GdsConfigInfo_t)) break;
            const int up = (m.payload[offsetof(GdsConfigInfo_t, obd_state)] & 1u) != 0 ? 1 : 0;
            // A frame of the report's own instant may be read just before or just after it.
            const long long before = m_lastCleanMs < m.tMs ? m_lastCleanMs : m_prevCleanMs;
            // A stall gives the plug-in one cycle for all the time it stood, and with it maybe a
            // tick of the data's age that no time paid for.
            if (up == 0 && m_link == 1 && !PoweredDown(m.tMs) && before >= 0 &&
                m.tMs - before < m_b.linkDownEarlyMs && Stalled(m_faults, before, m.tMs) == 0) {
                Fail("link-down-early", m.tMs,
                     "link reported down " + std::to_string(m.tMs - before) +
                         " ms after the last data frame (" + Clock(before) + ")");
            }
            if (up == 1) m_backSinceMs = -1;
            if (up == 0 && m_link != 0) m_backSinceMs = m_lastCleanMs >= m.tMs ? m_lastCleanMs : -1;
            m_link = up;
            CheckStatus(m);
            break;
        }
        case MSG_PERIPHERAL_UPGRADE_STATE: {
            if (m.payload.size() != sizeof(UpgradeResult_t)) break;
            const int state = m.payload[offsetof(UpgradeResult_t, state)];
            if (state == PERIP_UPG_STATE_FAILED && m_installedMs >= 0) {
                Fail("upgrade-not-failed", m.tMs,
                     "the upgrade accepted at " + Clock(m_acceptedMs) +
                         " was reported failed after the box installed it at " +
                         Clock(m_installedMs));
            }
            if (state == PERIP_UPG_STATE_SUCCESS && m_installedMs < 0) {
                Fail("upgrade-installed", m.tMs,
                     "the upgrade accepted at " + Clock(m_acceptedMs) +
                         " was reported installed, and the box installed nothing since");
            }
            if (state == PERIP_UPG_STATE_SUCCESS) {
                m_successMs = m.tMs;
                // Serial mode only: behind the CAN box no version is read again.
                if (!m_installedVersion.empty() && m_reportedVersion != m_installedVersion) {
                    m_versionDueMs = m.tMs;
                }
            }
            m_tally.succeeded += state == PERIP_UPG_STATE_SUCCESS;
            m_tally.failed += state == PERIP_UPG_STATE_FAILED;
            if (state != PERIP_UPG_STATE_PROGRESS && m_upgradeFromMs >= 0) {
                m_tally.longestUpgradeMs =
                    std::max(m_tally.longestUpgradeMs, Elapsed(m_upgradeFromMs, m.tMs));
            }
            if (m.payload[offsetof(UpgradeResult_t, state)] != PERIP_UPG_STATE_PROGRESS &&
                m_upgradeFromMs >= 0) {
                m_upgrades.emplace_back(m_upgradeFromMs, m.tMs);
                m_upgradeFromMs = -1;
                // The 1 s work comes back at the first cycle after the upgrade.
                if (m_lastObdMs >= 0) m_lastObdMs = m.tMs;
                if (m_lastAlarmMs >= 0) m_lastAlarmMs = m.tMs;
            }
            break;
        }
        default:
            break;
    }
}

void Checker::Step(long long nowMs) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Gap(MSG_OBD_ORIGINAL_DATA, m_lastObdMs, nowMs);
    Gap(MSG_GDS_ALARM, m_lastAlarmMs, nowMs);
    if (m_upgradeFromMs >= 0 && nowMs > UpgradeDeadline(nowMs)) {
        Fail("upgrade-ends", nowMs,
             "the upgrade accepted at " + Clock(m_upgradeFromMs) + " has not ended");
    }
    if (m_calibrationMs >= 0 && Elapsed(m_calibrationMs, nowMs) > m_b.calibrationMs) {
        Fail("calibration-answered", nowMs,
             "the calibration requested at " + Clock(m_calibrationMs) + " has no answer");
    }
    if (m_versionDueMs >= 0 &&
        nowMs - Stalled(m_faults, m_versionDueMs, nowMs) >
            CommandDeadline(m_versionDueMs, m_linkFrames ? m_b.versionLinkMs : m_b.versionMs)) {
        Fail("status-version", nowMs,
             "no status record with the version " + m_installedVersion +
                 " the box runs since the upgrade reported installed at " + Clock(m_versionDueMs));
    }
    if (PoweredDown(nowMs)) return;
    // A restart is answered by a frame after its end; the next restart's own check takes over.
    while (!m_restartEnds.empty() && (m_lastFrameMs >= m_restartEnds.front() ||
                                      (m_restartEnds.size() > 1 && nowMs >= m_restartEnds[1]))) {
        m_restartEnds.erase(m_restartEnds.begin());
    }
    if (!m_restartEnds.empty() && nowMs >= m_restartEnds.front() &&
        nowMs - Stalled(m_faults, m_restartEnds.front(), nowMs) >
            CommandDeadline(m_restartEnds.front(), m_b.streamBackMs)) {
        Fail(
            "stream-back", nowMs,
            "no data frame since the box restarted (back at " + Clock(m_restartEnds.front()) + ")");
    }
    if (m_link == 1 && m_lastFrameMs >= 0 && Elapsed(m_lastFrameMs, nowMs) > m_b.linkDownMs) {
        Fail("link-down", nowMs,
             "no data frame since " + Clock(m_lastFrameMs) + " and the link still reported up");
    }
    if (m_link != 1 && m_backSinceMs >= 0 && Elapsed(m_backSinceMs, nowMs) > m_b.linkUpMs) {
        Fail("link-up", nowMs,
             "data frames again since " + Clock(m_backSinceMs) + " and the link not reported up");
    }
}

void Checker::OnInject(long long tMs, int id, size_t bytes) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (id == MSG_POWER_DOWN && (m_powerDownMs < 0 || tMs < m_powerDownMs)) m_powerDownMs = tMs;
    // Shorter ones are refused by the plug-in unread, and rightly never answered.
    if (id == MSG_TRIGGER_OBD_DEMACATE && bytes >= sizeof(_OBD_Engine_t)) {
        if (m_calibrationMs < 0) m_calibrationMs = tMs;
        m_calibratedMs = tMs;
    }
}

void Checker::OnBoxInstalled(long long tMs) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_installedMs = tMs;
}

void Checker::OnUpgradeFile(long long tMs, bool present) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_fileWritten = present;
    m_fileWrittenMs = tMs;
}

void Checker::OnFileSeen(long long tMs, bool present) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_fileWritten) return;
    const bool success = m_successMs >= m_fileWrittenMs;
    if (!present) {
        if (!success) {
            Fail("upgrade-file", tMs,
                 "the upgrade file written at " + Clock(m_fileWrittenMs) +
                     " is gone without a reported success");
        }
        m_fileWritten = false;
    } else if (success && Elapsed(m_successMs, tMs) > m_b.fileSlackMs) {
        Fail("upgrade-file", tMs,
             "the upgrade file is still there after the success reported at " + Clock(m_successMs));
    }
}

void Checker::OnMemory(long long tMs, long long rssKb) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (tMs < m_b.rssWarmupMs || rssKb <= 0) return;
    if (m_rssBaseKb < 0) {
        m_rssBaseKb = rssKb;
        return;
    }
    if (rssKb - m_rssBaseKb > m_b.rssGrowthKb) {
        Fail("memory", tMs,
             "resident set " + std::to_string(rssKb) + " kB, " +
                 std::to_string(rssKb - m_rssBaseKb) + " kB more than after the warm-up");
    }
}

void Checker::OnRelease(long long tMs, long long tookMs) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (tookMs > m_b.releaseMs) {
        Fail("release", tMs, "the release took " + std::to_string(tookMs) + " ms of host time");
    }
}

void Checker::OnEnd(long long endMs, long long reachedMs) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (reachedMs < endMs && m_first.name.empty()) {
        Fail("run-ends", reachedMs, "the run stopped before its end at " + Clock(endMs));
    }
}

bool Checker::Failed() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return !m_first.name.empty();
}

Violation Checker::First() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_first;
}

UpgradeTally Checker::Tally() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_tally;
}

}  // namespace obdswarm

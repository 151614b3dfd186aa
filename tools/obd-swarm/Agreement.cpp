#include "Agreement.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "Decode.h"
#include "ObdBusRecords.h"
#include "ObdTypes.h"

namespace obdswarm {

namespace {

// Faults whose data reaches the plug-in as it reaches the copy (the table the plug-in broadcast,
// the samples as the plug-in reads them), or that end the seconds altogether.
bool LeavesTheLine(FaultKind k) {
    return k == FaultKind::BadValues || k == FaultKind::BusMessages ||
           k == FaultKind::DropAnswers || k == FaultKind::PowerDown ||
           k == FaultKind::InertialGap || k == FaultKind::Release;
}

}  // namespace

Agreement::Agreement(std::vector<Fault> faults) : m_faults(std::move(faults)) {
    for (const Fault& f : m_faults) {
        if (LeavesTheLine(f.kind)) continue;
        if (m_touchedMs < 0 || f.startMs < m_touchedMs) m_touchedMs = f.startMs;
    }
}

bool Agreement::Load(const std::string& plugin, std::string& error) {
    return m_reference.Load(plugin, error);
}

void Agreement::OnSixAxis(long long tMs, const tagSixAxisOrgData& sample) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    auto at = m_samples.end();
    while (at != m_samples.begin() && std::prev(at)->first > tMs) --at;
    m_samples.insert(at, {tMs, sample});
}

void Agreement::OnInject(long long tMs, int id, const std::vector<unsigned char>& payload) {
    // The plug-in refuses a payload under 32 bytes, hands a six-axis sample (kind 1) on with its
    // six 16-bit little-endian values high byte first, and nothing else to the alarms.
    constexpr size_t kKind = 24;
    if (id != MSG_INERTIA_SENSOR_DATA || payload.size() < 32 || payload[kKind] != 1) return;
    tagSixAxisOrgData sample{};
    constexpr size_t kAt[6] = {6, 8, 10, 18, 20, 22};
    for (size_t i = 0; i < 6; ++i) {
        sample.data[2 * i] = payload[kAt[i] + 1];
        sample.data[2 * i + 1] = payload[kAt[i]];
    }
    OnSixAxis(tMs, sample);
}

void Agreement::OnBus(const hostsim::BusMessage& m) {
    if (m.response) return;
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_reference.Loaded()) return;
    if (m.id == MSG_OBD_ORIGINAL_DATA && m.payload.size() == sizeof(ObdOriginalDataMsg_t)) {
        std::memcpy(&m_table, m.payload.data(), sizeof(m_table));
        m_haveTable = true;
        return;
    }
    uint64_t got[4];
    if (m.id != MSG_GDS_ALARM || !obdsim::AlarmWords(m.payload, got)) return;
    // The plug-in's second: its analyser ran on the samples handed before this instant and on the
    // table it then broadcast.
    bool tie = false;
    while (!m_samples.empty() && m_samples.front().first <= m.tMs) {
        tie = tie || m_samples.front().first == m.tMs;
        m_reference.SixAxis(m_samples.front().second);
        m_samples.pop_front();
    }
    if (tie && (m_touchedMs < 0 || m.tMs < m_touchedMs)) m_touchedMs = m.tMs;
    if (m_haveTable) m_reference.Table(m_table);
    m_reference.Second();
    if (!m_first.name.empty() || (m_touchedMs >= 0 && m.tMs >= m_touchedMs)) return;
    uint64_t want[4];
    m_reference.AlarmWords(want);
    ++m_compared;
    for (int i = 0; i < 4; ++i) {
        if (got[i] == want[i]) continue;
        char text[160];
        std::snprintf(text, sizeof(text),
                      "event word %d is 0x%016" PRIx64 ", the reference analyser's 0x%016" PRIx64,
                      i + 1, got[i], want[i]);
        m_first = {"alarms-reference", m.tMs, text};
        return;
    }
}

bool Agreement::Failed() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return !m_first.name.empty();
}

Violation Agreement::First() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_first;
}

long long Agreement::Compared() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_compared;
}

}  // namespace obdswarm

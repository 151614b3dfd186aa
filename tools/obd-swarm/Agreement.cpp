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
           k == FaultKind::InertialGap || k == FaultKind::Release || k == FaultKind::DateJump;
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

void Agreement::Queue(Input in) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    auto at = m_inputs.end();
    while (at != m_inputs.begin() && std::prev(at)->tMs > in.tMs) --at;
    m_inputs.insert(at, std::move(in));
}

void Agreement::OnFrame(long long tMs, const obdbox::DataItems& items) {
    Input in{tMs, true, {}, {}};
    for (const auto& [id, value] : items) {
        if (id < 1 || id > obdsim::kItemCount) continue;
        in.items.present.set(id - 1u);
        in.items.value[id - 1u] = value;
    }
    Queue(std::move(in));
}

void Agreement::OnSixAxis(long long tMs, const tagSixAxisOrgData& sample) {
    Queue({tMs, false, {}, sample});
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
    // The plug-in's second: its analyser ran on what came before this instant and on the table
    // it then broadcast. A frame of this very instant may have come before or after: the table
    // settles it, and the frame is fed after the evaluation all the same (again, if it came
    // before: a table the same as the last changes no alarm).
    for (const Input& in : m_inputs) {
        if (in.tMs > m.tMs) break;
        if (in.tMs == m.tMs && !in.frame && (m_touchedMs < 0 || m.tMs < m_touchedMs)) {
            m_touchedMs = m.tMs;
        }
    }
    while (!m_inputs.empty() && m_inputs.front().tMs < m.tMs) {
        const Input& in = m_inputs.front();
        if (in.frame) {
            m_reference.Frame(in.items);
        } else {
            m_reference.SixAxis(in.sample);
        }
        m_inputs.pop_front();
    }
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

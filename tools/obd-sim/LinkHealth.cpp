#include "LinkHealth.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <utility>

namespace obdsim {

namespace {

constexpr size_t kLatencyBuckets = 10001;  // 0..10000 ms, then "longer"
constexpr long long kPeriodBucketMs = 10;
constexpr size_t kPeriodBuckets = 12001;  // 0..120 s
constexpr uint16_t kDataStream = 0x2C81;
constexpr uint16_t kLink = 0x2C10;
constexpr uint16_t kStop = 0x2C04;
constexpr uint16_t kStopAltAck = 0x2301;
// A garbage run or cut-off frame longer than any frame is handed on in pieces of this size.
constexpr size_t kPendingLimit = 4096;

// Commands the box never answers by design: a missing answer is no fault of the line.
bool Unanswerable(uint16_t code) {
    return code == 0x2506 || code == 0x2114;
}

bool Answers(uint16_t request, uint16_t answer) {
    if (request == kLink) return answer == kLink;
    if (request == kStop && answer == kStopAltAck) return true;
    return answer == static_cast<uint16_t>(request + 0x4000);
}

// The value below which `share` of the histogram's counts lie (bucket index).
size_t Quantile(const std::vector<uint32_t>& h, double share) {
    unsigned long long total = 0;
    for (uint32_t c : h) total += c;
    if (total == 0) return 0;
    const auto rank =
        static_cast<unsigned long long>(std::ceil(share * static_cast<double>(total)));
    unsigned long long seen = 0;
    for (size_t i = 0; i < h.size(); ++i) {
        seen += h[i];
        if (seen >= std::max(rank, 1ULL)) return i;
    }
    return h.size() - 1;
}

}  // namespace

LinkMonitor::Direction::Direction(obdframe::Dir line) : decoder(line, kPendingLimit) {}

LinkMonitor::LinkMonitor(RecordTap tap)
    : m_tap(std::move(tap)),
      m_to(obdframe::Dir::ToBox),
      m_from(obdframe::Dir::FromBox),
      m_latency(kLatencyBuckets, 0),
      m_period(kPeriodBuckets, 0) {}

void LinkMonitor::Finish() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_to.decoder.Finish();
    m_from.decoder.Finish();
    Cut(m_to, true);
    Cut(m_from, false);
}

void LinkMonitor::OnChunk(bool toBox, const unsigned char* data, size_t n, long long tMs) {
    if (n == 0) return;
    std::lock_guard<std::mutex> lock(m_mutex);
    Direction& d = toBox ? m_to : m_from;
    d.chunks.emplace_back(d.decoder.Fed(), tMs);
    d.decoder.Feed(data, n);
    Cut(d, toBox);
}

long long LinkMonitor::TimeAt(const Direction& d, size_t offset) {
    // The chunk that holds `offset`: the last one starting at or before it.
    const auto it = std::upper_bound(
        d.chunks.begin(), d.chunks.end(), offset,
        [](size_t at, const std::pair<size_t, long long>& c) { return at < c.first; });
    if (it == d.chunks.begin()) return d.chunks.empty() ? 0 : d.chunks.front().second;
    return std::prev(it)->second;
}

void LinkMonitor::Cut(Direction& d, bool toBox) {
    for (const obdframe::Record& r : d.decoder.Take()) {
        Record(r, toBox, TimeAt(d, r.offset));
        if (m_tap && !r.raw.empty()) m_tap(r, toBox, TimeAt(d, r.offset + r.raw.size() - 1));
        Count(d, r);
    }
    // Chunks wholly before the first byte still waiting are done with.
    const size_t pending = d.decoder.Pending();
    while (d.chunks.size() > 1 && d.chunks[1].first <= pending) d.chunks.pop_front();
}

Json LinkMonitor::FiguresOf(const Direction& d) {
    return {{"frames", d.frames},
            {"bad_checksum", d.badChecksum},
            {"cut_off", d.cutOff},
            {"garbage_bytes", d.garbageBytes},
            {"resyncs", d.garbageRuns}};
}

void LinkMonitor::Count(Direction& d, const obdframe::Record& r) {
    switch (r.kind) {
        case obdframe::Kind::Frame:
            ++d.frames;
            if (!r.checksumOk) ++d.badChecksum;
            break;
        case obdframe::Kind::Truncated:
            ++d.cutOff;
            break;
        case obdframe::Kind::Garbage:
            d.garbageBytes += static_cast<long long>(r.raw.size());
            ++d.garbageRuns;
            break;
    }
}

void LinkMonitor::Record(const obdframe::Record& r, bool toBox, long long tMs) {
    if (r.kind != obdframe::Kind::Frame || !r.HasCode() || !r.checksumOk) return;
    const uint16_t code = r.Code();
    if (toBox) {
        if (m_cmd.open && m_cmd.code == code && m_cmd.seq == r.Seq()) {
            ++m_retries;
            m_cmd.lastSentMs = tMs;
            return;
        }
        if (m_cmd.open) ++m_unanswered;
        ++m_sent;
        m_cmd = {!Unanswerable(code), code, r.Seq(), tMs};
        return;
    }
    if (code == kDataStream) {
        if (m_lastDataMs >= 0) {
            const long long period = std::max(0LL, tMs - m_lastDataMs);
            m_longestDataMs = std::max(m_longestDataMs, period);
            ++m_period[std::min(static_cast<size_t>(period / kPeriodBucketMs), kPeriodBuckets - 1)];
        }
        m_lastDataMs = tMs;
        ++m_dataFrames;
        return;
    }
    if (m_cmd.open && Answers(m_cmd.code, code)) {
        const long long latency = std::max(0LL, tMs - m_cmd.lastSentMs);
        m_latencyMaxMs = std::max(m_latencyMaxMs, latency);
        ++m_latency[std::min(static_cast<size_t>(latency), kLatencyBuckets - 1)];
        ++m_answered;
        m_cmd.open = false;
    }
}

Json LinkMonitor::Figures() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_to.decoder.Finish();
    m_from.decoder.Finish();
    Cut(m_to, true);
    Cut(m_from, false);
    if (m_cmd.open) {
        ++m_unanswered;
        m_cmd.open = false;
    }
    Json j;
    j["to_box"] = FiguresOf(m_to);
    j["from_box"] = FiguresOf(m_from);
    Json c;
    c["sent"] = m_sent;
    c["answered"] = m_answered;
    c["retries"] = m_retries;
    c["unanswered"] = m_unanswered;
    j["commands"] = c;
    Json l;
    l["count"] = m_answered;
    if (m_answered > 0) {
        l["median_ms"] = Quantile(m_latency, 0.5);
        l["p99_ms"] = Quantile(m_latency, 0.99);
        l["max_ms"] = m_latencyMaxMs;
    }
    j["latency"] = l;
    Json s;
    s["frames"] = m_dataFrames;
    long long gaps = 0;
    if (m_dataFrames > 1) {
        const long long period = static_cast<long long>(Quantile(m_period, 0.5)) * kPeriodBucketMs;
        // A gap: a period of more than one and a half times the usual one, so that a single
        // frame missing counts whatever the jitter.
        for (size_t i = 0; i < m_period.size(); ++i) {
            if (static_cast<long long>(i) * kPeriodBucketMs > period + period / 2) {
                gaps += m_period[i];
            }
        }
        s["period_ms"] = period;
        s["longest_ms"] = m_longestDataMs;
    }
    s["gaps"] = gaps;
    j["data_stream"] = s;
    return j;
}

}  // namespace obdsim

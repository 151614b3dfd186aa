#include "TripOutputs.h"

#include <cerrno>
#include <cstring>

namespace obdsim {

namespace {

constexpr uint16_t kDataStreamCode = 0x2C81;
constexpr size_t kItemBytes = 5;

}  // namespace

bool DataStreamItems(const obdframe::Record& r, DriveSample& items) {
    if (r.kind != obdframe::Kind::Frame || !r.checksumOk || r.dir != obdframe::Dir::FromBox ||
        r.Code() != kDataStreamCode) {
        return false;
    }
    const size_t n = r.PayloadSize();
    if (n == 0 || n % kItemBytes != 0) return false;
    const uint8_t* p = r.Payload();
    DriveSample s;
    for (size_t at = 0; at < n; at += kItemBytes) {
        const unsigned id = p[at];
        if (id == 0 || id > static_cast<unsigned>(kItemCount)) return false;
        float v = 0;
        std::memcpy(&v, p + at + 1, sizeof(v));  // the box's own byte order (least first)
        s.value[id - 1] = v;
        s.present[id - 1] = true;
    }
    items = s;
    return true;
}

TripAnalysis::TripAnalysis(const Drive* drive, long long slackMs, bool timeline)
    : m_trip(drive, slackMs) {
    m_facts.slackMs = slackMs;
    if (timeline) m_timeline = std::make_unique<Timeline>(drive);
}

void TripAnalysis::LoadReference(const std::string& plugin) {
    std::string error;
    if (!m_reference.Load(plugin, error)) {
        m_facts.statisticsNote = "the reference analyser could not be loaded (" + error + ")";
    }
}

bool TripAnalysis::LoadWhatIf(const std::string& plugin, const std::vector<std::string>& thresholds,
                              std::string& error) {
    return m_whatIf.Load(plugin, thresholds, error);
}

void TripAnalysis::OnBus(const hostsim::BusMessage& m) {
    m_trip.OnBus(m);
    if (m_timeline) m_timeline->OnBus(m);
}

void TripAnalysis::Frame(long long tMs, const DriveSample& items) {
    m_reference.Frame(items);
    m_trip.OnFrame(tMs, items);
    if (!m_whatIf.Empty()) m_whatIf.Frame(items);
}

void TripAnalysis::SixAxis(const tagSixAxisOrgData& sample) {
    m_reference.SixAxis(sample);
    if (!m_whatIf.Empty()) m_whatIf.SixAxis(sample);
}

void TripAnalysis::Second(long long tMs) {
    m_reference.Second();
    if (!m_whatIf.Empty()) m_whatIf.Second(tMs);
}

bool TripAnalysis::Write(const TripOutputs& out, Json& summary, std::string& error) {
    summary = SummaryJson(m_trip, &m_reference, m_facts);
    // On virtual time the wall time is the one thing that differs between two runs; the outputs
    // leave it out, so that they stay byte for byte the same.
    if (out.virtualTime) summary.erase("real_s");
    if (!m_whatIf.Empty()) summary["what_if"] = m_whatIf.ToJson();
    if (out.extra.is_object()) {
        for (auto it = out.extra.begin(); it != out.extra.end(); ++it) summary[it.key()] = *it;
    }
    if (out.text != nullptr) {
        const std::string text =
            SummaryText(summary) + WhatIfText(summary.value("what_if", Json()));
        std::fputs(text.c_str(), out.text);
        std::fflush(out.text);
    }
    bool ok = true;
    if (!out.summaryJson.empty()) {
        const std::string line = summary.dump(-1, ' ', false, Json::error_handler_t::replace);
        ok = WriteText(out.summaryJson, line + "\n", error);
    }
    if (!out.report.empty()) {
        const std::vector<TimelinePoint> points =
            m_timeline ? m_timeline->Points() : std::vector<TimelinePoint>();
        std::string reportError;
        if (!WriteText(out.report, ReportHtml(summary, points, out.settings), reportError)) {
            if (ok) error = reportError;
            ok = false;
        }
    }
    return ok;
}

bool WriteText(const std::string& path, const std::string& text, std::string& error) {
    FILE* f = std::fopen(path.c_str(), "w");
    int err = f == nullptr ? errno : 0;
    if (f != nullptr) {
        if (std::fwrite(text.data(), 1, text.size(), f) != text.size() || std::fflush(f) != 0) {
            err = errno;
        }
        if (std::fclose(f) != 0 && err == 0) err = errno;
    }
    if (err != 0) error = "cannot write " + path + ": " + std::strerror(err);
    return err == 0;
}

}  // namespace obdsim

#include "CaptureSink.h"

#include <cstdio>

namespace obdsim {

namespace {

obdcap::Direction LineDirection(bool toBox) {
    return toBox ? obdcap::Direction::FromPlugin : obdcap::Direction::ToPlugin;
}

}  // namespace

bool CaptureSink::Open(const std::string& path, bool chunks, int productType, std::string& error,
                       const std::vector<std::string>& facts) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_chunks = chunks;
    if (!m_writer.Open(path, error)) return false;
    std::string text = "product_type=" + std::to_string(productType) + "\n";
    for (std::string fact : facts) {
        // One line each: a name with a line end in it must not start a fact of its own.
        for (char& c : fact) c = c == '\n' || c == '\r' ? ' ' : c;
        text += fact + "\n";
    }
    m_writer.Write(0, obdcap::Channel::Run, obdcap::Direction::ToPlugin, 0, 0,
                   reinterpret_cast<const uint8_t*>(text.data()), text.size());
    return true;
}

void CaptureSink::End(long long tMs) {
    const std::string text = "end_ms=" + std::to_string(tMs) + "\n";
    Put(tMs, obdcap::Channel::Run, obdcap::Direction::ToPlugin, 0, 0,
        reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

std::string ExpectedFact(const std::vector<ExpectedAlarm>& expected) {
    std::string text;
    for (const ExpectedAlarm& e : expected) {
        char numbers[96];
        std::snprintf(numbers, sizeof(numbers), " %.17g %.17g %d", e.startS, e.holdS, e.level);
        text += (text.empty() ? "" : ",") + e.key + numbers;
    }
    return text;
}

bool ParseExpectedFact(const std::string& text, std::vector<ExpectedAlarm>& expected) {
    std::vector<ExpectedAlarm> out;
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find(',', at);
        if (end == std::string::npos) end = text.size();
        const std::string item = text.substr(at, end - at);
        char key[64] = {};
        ExpectedAlarm e;
        int used = 0;
        if (std::sscanf(item.c_str(), "%63s %lf %lf %d%n", key, &e.startS, &e.holdS, &e.level,
                        &used) != 4 ||
            static_cast<size_t>(used) != item.size()) {
            return false;
        }
        e.key = key;
        out.push_back(e);
        at = end + 1;
    }
    expected = std::move(out);
    return true;
}

void CaptureSink::Put(long long tMs, obdcap::Channel c, obdcap::Direction d, uint8_t flags,
                      uint32_t id, const unsigned char* data, size_t n) {
    std::lock_guard<std::mutex> lock(m_mutex);
    // Host time never runs backwards from 0; a negative one would be a fault of the caller and is
    // counted by the writer, not written.
    m_writer.Write(tMs * 1000, c, d, flags, id, data, n);
}

void CaptureSink::Record(const obdframe::Record& r, bool toBox, long long lastByteMs) {
    const bool garbage = r.kind == obdframe::Kind::Garbage;
    const uint8_t flags = r.kind == obdframe::Kind::Truncated ? obdcap::kFlagCut : 0;
    Put(lastByteMs, garbage ? obdcap::Channel::Garbage : obdcap::Channel::Frame,
        LineDirection(toBox), flags, 0, r.raw.data(), r.raw.size());
}

void CaptureSink::Chunk(bool toBox, const unsigned char* data, size_t n, long long tMs) {
    if (m_chunks && n > 0) {
        Put(tMs, obdcap::Channel::Chunk, LineDirection(toBox), 0, 0, data, n);
    }
}

void CaptureSink::Bus(const hostsim::BusMessage& m, bool inbound) {
    const uint8_t flags = !inbound && m.response ? obdcap::kFlagResponse : 0;
    Put(m.tMs, obdcap::Channel::Bus,
        inbound ? obdcap::Direction::ToPlugin : obdcap::Direction::FromPlugin, flags,
        static_cast<uint32_t>(m.id), m.payload.data(), m.payload.size());
}

void CaptureSink::Inbound(int id, const std::vector<unsigned char>& payload, long long tMs) {
    Put(tMs, obdcap::Channel::Bus, obdcap::Direction::ToPlugin, 0, static_cast<uint32_t>(id),
        payload.data(), payload.size());
}

void CaptureSink::SixAxis(long long tMs, const tagSixAxisOrgData& sample) {
    Put(tMs, obdcap::Channel::Inertial, obdcap::Direction::ToPlugin, 0, 0, sample.data,
        sizeof(sample.data));
}

bool CaptureSink::Close(std::string& error) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_writer.Close(error);
}

}  // namespace obdsim

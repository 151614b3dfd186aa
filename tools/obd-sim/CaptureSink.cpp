#include "CaptureSink.h"

namespace obdsim {

namespace {

obdcap::Direction LineDirection(bool toBox) {
    return toBox ? obdcap::Direction::FromPlugin : obdcap::Direction::ToPlugin;
}

}  // namespace

bool CaptureSink::Open(const std::string& path, bool chunks, int productType, std::string& error) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_chunks = chunks;
    if (!m_writer.Open(path, error)) return false;
    const std::string facts = "product_type=" + std::to_string(productType) + "\n";
    m_writer.Write(0, obdcap::Channel::Run, obdcap::Direction::ToPlugin, 0, 0,
                   reinterpret_cast<const uint8_t*>(facts.data()), facts.size());
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

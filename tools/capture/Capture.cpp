#include "Capture.h"

#include <cerrno>
#include <cstring>

#ifdef OBD_HAVE_PCAP
#include <pcap/pcap.h>
#endif

namespace obdcap {

const char* const kUnavailable = "built without libpcap (install libpcap-dev and rebuild)";

void EncodeHeader(const PseudoHeader& h, uint8_t out[kHeaderSize]) {
    out[0] = h.version;
    out[1] = h.channel;
    out[2] = h.direction;
    out[3] = h.flags;
    for (size_t i = 0; i < 4; ++i) out[4 + i] = static_cast<uint8_t>(h.busId >> (8 * i));
}

PseudoHeader DecodeHeader(const uint8_t in[kHeaderSize]) {
    PseudoHeader h{};
    h.version = in[0];
    h.channel = in[1];
    h.direction = in[2];
    h.flags = in[3];
    h.busId = 0;
    for (size_t i = 0; i < 4; ++i) h.busId |= static_cast<uint32_t>(in[4 + i]) << (8 * i);
    return h;
}

std::string CheckHeader(const PseudoHeader& h) {
    if (h.version != kVersion) {
        return "pseudo-header version " + std::to_string(h.version) + ", not " +
               std::to_string(kVersion);
    }
    if (h.channel < static_cast<uint8_t>(Channel::Frame) ||
        h.channel > static_cast<uint8_t>(Channel::Run)) {
        return "unknown channel " + std::to_string(h.channel);
    }
    if (h.direction > static_cast<uint8_t>(Direction::FromPlugin)) {
        return "unknown direction " + std::to_string(h.direction);
    }
    if ((h.flags & ~(kFlagResponse | kFlagCut)) != 0) {
        return "unknown flag bits " + std::to_string(h.flags & ~(kFlagResponse | kFlagCut));
    }
    if (h.busId != 0 && h.channel != static_cast<uint8_t>(Channel::Bus)) {
        return "bus id " + std::to_string(h.busId) + " outside a bus message";
    }
    return {};
}

const char* ChannelName(Channel c) {
    switch (c) {
        case Channel::Frame:
            return "frame";
        case Channel::Chunk:
            return "chunk";
        case Channel::Garbage:
            return "garbage";
        case Channel::Bus:
            return "bus";
        case Channel::Inertial:
            return "inertial";
        case Channel::Run:
            return "run";
    }
    return "?";
}

bool RunFact(const std::vector<uint8_t>& payload, const std::string& key, std::string& value) {
    const std::string text(payload.begin(), payload.end());
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos) end = text.size();
        const std::string line = text.substr(at, end - at);
        if (line.size() > key.size() && line.compare(0, key.size(), key) == 0 &&
            line[key.size()] == '=') {
            value = line.substr(key.size() + 1);
            return true;
        }
        at = end + 1;
    }
    return false;
}

bool LooksLikePcap(const uint8_t* head, size_t n) {
    if (n < 4) return false;
    const uint32_t le = static_cast<uint32_t>(head[0]) | static_cast<uint32_t>(head[1]) << 8 |
                        static_cast<uint32_t>(head[2]) << 16 | static_cast<uint32_t>(head[3]) << 24;
    const uint32_t be = static_cast<uint32_t>(head[3]) | static_cast<uint32_t>(head[2]) << 8 |
                        static_cast<uint32_t>(head[1]) << 16 | static_cast<uint32_t>(head[0]) << 24;
    // Microsecond and nanosecond resolutions, written on either byte order.
    for (uint32_t magic : {0xA1B2C3D4u, 0xA1B23C4Du}) {
        if (le == magic || be == magic) return true;
    }
    return false;
}

Writer::Writer() = default;

Writer::~Writer() {
    std::string ignored;
    Close(ignored);
}

bool Writer::Write(const Packet& p) {
    return Write(p.tUs, p.channel, p.direction, p.flags, p.busId, p.payload.data(),
                 p.payload.size());
}

Reader::Reader() = default;

#ifdef OBD_HAVE_PCAP

bool Available() {
    return true;
}

bool Writer::Open(const std::string& path, std::string& error) {
    std::string ignored;
    Close(ignored);
    m_written = m_refused = 0;
    m_firstRefusal.clear();
    m_path = path;
    m_pcap = pcap_open_dead_with_tstamp_precision(kLinkType, static_cast<int>(kSnapLen),
                                                  PCAP_TSTAMP_PRECISION_MICRO);
    if (m_pcap == nullptr) {
        error = path + ": cannot set up libpcap";
        return false;
    }
    m_dump = pcap_dump_open(m_pcap, path.c_str());
    if (m_dump == nullptr) {
        error = path + ": " + pcap_geterr(m_pcap);
        pcap_close(m_pcap);
        m_pcap = nullptr;
        return false;
    }
    return true;
}

bool Writer::Write(long long tUs, Channel channel, Direction direction, uint8_t flags,
                   uint32_t busId, const uint8_t* data, size_t n) {
    if (m_dump == nullptr) return false;
    const char* refusal = nullptr;
    if (tUs < 0 || tUs > kMaxTimeUs) {
        refusal = "a time outside 1970 to 2106";
    } else if (n > kMaxPayload) {
        refusal = "a payload longer than the snap length allows";
    } else if (n > 0 && data == nullptr) {
        refusal = "a payload without bytes";
    }
    if (refusal != nullptr) {
        if (m_refused++ == 0) m_firstRefusal = refusal;
        return false;
    }
    m_buf.resize(kHeaderSize + n);
    EncodeHeader(
        {kVersion, static_cast<uint8_t>(channel), static_cast<uint8_t>(direction), flags, busId},
        m_buf.data());
    if (n > 0) std::memcpy(m_buf.data() + kHeaderSize, data, n);
    pcap_pkthdr h{};
    h.ts.tv_sec = static_cast<time_t>(tUs / 1000000);
    h.ts.tv_usec = static_cast<suseconds_t>(tUs % 1000000);
    h.caplen = h.len = static_cast<bpf_u_int32>(m_buf.size());
    pcap_dump(reinterpret_cast<u_char*>(m_dump), &h, m_buf.data());
    ++m_written;
    return true;
}

bool Writer::Close(std::string& error) {
    if (m_dump == nullptr) return true;
    // pcap_dump reports nothing: a full disk shows in the stream's error flag, checked here.
    bool ok = pcap_dump_flush(m_dump) == 0;
    const int flushErrno = errno;
    FILE* f = pcap_dump_file(m_dump);
    if (f != nullptr && std::ferror(f) != 0) ok = false;
    pcap_dump_close(m_dump);
    pcap_close(m_pcap);
    m_dump = nullptr;
    m_pcap = nullptr;
    if (!ok) {
        error = "cannot write " + m_path + ": " + std::strerror(flushErrno != 0 ? flushErrno : EIO);
        return false;
    }
    if (m_refused > 0) {
        error = m_path + ": " + std::to_string(m_refused) + " packet(s) left out, the first for " +
                m_firstRefusal;
        return false;
    }
    return true;
}

Reader::~Reader() {
    if (m_pcap != nullptr) pcap_close(m_pcap);
}

bool Reader::Open(const std::string& path, std::string& error) {
    if (m_pcap != nullptr) pcap_close(m_pcap);
    m_pcap = nullptr;
    m_path = path;
    m_count = 0;
    m_offset = 24;  // the file header
    m_error.clear();
    char errbuf[PCAP_ERRBUF_SIZE] = {};
    pcap_t* p =
        pcap_open_offline_with_tstamp_precision(path.c_str(), PCAP_TSTAMP_PRECISION_MICRO, errbuf);
    if (p == nullptr) {
        error = path + ": not a readable capture: " + errbuf;
        return false;
    }
    if (pcap_datalink(p) != kLinkType) {
        error = path + ": link type " + std::to_string(pcap_datalink(p)) + ", not " +
                std::to_string(kLinkType) + " (USER0): not an OBD capture";
        pcap_close(p);
        return false;
    }
    if (pcap_snapshot(p) < static_cast<int>(kHeaderSize)) {
        error = path + ": snap length " + std::to_string(pcap_snapshot(p)) +
                " cannot hold a pseudo-header";
        pcap_close(p);
        return false;
    }
    m_pcap = p;
    return true;
}

bool Reader::Next(Packet& p, std::string& error) {
    error = m_error;
    if (!m_error.empty() || m_pcap == nullptr) return false;
    pcap_pkthdr* h = nullptr;
    const u_char* data = nullptr;
    const int rc = pcap_next_ex(m_pcap, &h, &data);
    const std::string where = m_path + ": packet " + std::to_string(m_count + 1) + " (byte " +
                              std::to_string(m_offset) + "): ";
    if (rc == PCAP_ERROR_BREAK) return false;
    if (rc != 1) {
        m_error = where + pcap_geterr(m_pcap);
    } else if (h->caplen != h->len) {
        m_error = where + "cut at the snap length (" + std::to_string(h->caplen) + " of " +
                  std::to_string(h->len) + " bytes)";
    } else if (h->caplen < kHeaderSize) {
        m_error = where + std::to_string(h->caplen) + " bytes, shorter than its pseudo-header";
    } else {
        const PseudoHeader ph = DecodeHeader(data);
        const std::string bad = CheckHeader(ph);
        if (!bad.empty()) m_error = where + bad;
        if (m_error.empty()) {
            // The file holds unsigned 32-bit seconds; libpcap hands them on as a signed 32-bit
            // value, which would put every time past January 2038 before 1970.
            p.tUs = static_cast<long long>(static_cast<uint32_t>(h->ts.tv_sec)) * 1000000LL +
                    static_cast<long long>(h->ts.tv_usec);
            p.channel = static_cast<Channel>(ph.channel);
            p.direction = static_cast<Direction>(ph.direction);
            p.flags = ph.flags;
            p.busId = ph.busId;
            p.payload.assign(data + kHeaderSize, data + h->caplen);
        }
    }
    if (!m_error.empty()) {
        error = m_error;
        return false;
    }
    ++m_count;
    m_offset += 16 + h->caplen;
    return true;
}

#else  // no libpcap: the format's own code stays, files cannot be opened

bool Available() {
    return false;
}

bool Writer::Open(const std::string&, std::string& error) {
    error = kUnavailable;
    return false;
}

bool Writer::Write(long long, Channel, Direction, uint8_t, uint32_t, const uint8_t*, size_t) {
    return false;
}

bool Writer::Close(std::string&) {
    return true;
}

Reader::~Reader() = default;

bool Reader::Open(const std::string&, std::string& error) {
    error = kUnavailable;
    return false;
}

bool Reader::Next(Packet&, std::string& error) {
    error = kUnavailable;
    return false;
}

#endif

}  // namespace obdcap

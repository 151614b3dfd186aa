// The box's side of the serial protocol. Written independently of the plug-in's framing code,
// so that a mistake on one side is not mirrored on the other.
#include "BoxEmulator.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <sstream>

namespace obdbox {
namespace {

constexpr uint8_t kHeadToBox[4] = {0x55, 0xAA, 0xF0, 0xF8};
constexpr size_t kMaxFrame = 4096;

uint8_t Xor(const uint8_t* p, size_t n) {
    uint8_t x = 0;
    for (size_t i = 0; i < n; ++i) x = static_cast<uint8_t>(x ^ p[i]);
    return x;
}

void PutTexts(ByteVec& out, const std::vector<std::string>& texts) {
    for (const auto& t : texts) {
        out.push_back(static_cast<uint8_t>(t.size() >> 8));
        out.push_back(static_cast<uint8_t>(t.size() & 0xFF));
        out.insert(out.end(), t.begin(), t.end());
    }
}

speed_t Speed(int baud) {
    switch (baud) {
        case 9600:
            return B9600;
        case 19200:
            return B19200;
        case 38400:
            return B38400;
        case 57600:
            return B57600;
        case 230400:
            return B230400;
        case 460800:
            return B460800;
        case 921600:
            return B921600;
        default:
            return B115200;
    }
}

bool MakeRaw(int fd, int baud, bool setSpeed) {
    termios t{};
    if (tcgetattr(fd, &t) != 0) return false;
    cfmakeraw(&t);
    if (setSpeed) {
        cfsetispeed(&t, Speed(baud));
        cfsetospeed(&t, Speed(baud));
    }
    return tcsetattr(fd, TCSANOW, &t) == 0;
}

std::string Hex(const ByteVec& b) {
    std::string s;
    char tmp[4];
    for (size_t i = 0; i < b.size(); ++i) {
        std::snprintf(tmp, sizeof(tmp), i ? " %02X" : "%02X", b[i]);
        s += tmp;
    }
    return s;
}

DataItems DefaultValues() {
    // Engine speed, vehicle speed, battery voltage and coolant temperature (box ids are the
    // table's indices + 1).
    return {{7, 850.0f}, {8, 0.0f}, {9, 13.8f}, {10, 88.0f}};
}

}  // namespace

BoxEmulator::BoxEmulator(BoxOptions options)
    : m_opt(std::move(options)),
      m_rxKept(std::max<size_t>(1, m_opt.receivedKept)),
      m_clock(m_opt.clock),
      m_rng(m_opt.seed),
      m_wireTap(m_opt.wireTap),
      m_factory(m_opt),
      m_onInstalled(m_opt.onInstalled) {}

double BoxEmulator::Now() const {
    if (m_clock.nowMs) return m_clock.nowMs();
    return std::chrono::duration<double, std::milli>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

BoxEmulator::~BoxEmulator() {
    Stop();
}

bool BoxEmulator::Start() {
    if (m_run.load()) return true;
    const BoxOptions o = Snapshot();
    if (o.ttyPath.empty()) {
        m_masterFd = posix_openpt(O_RDWR | O_NOCTTY);
        char name[128] = {};
        if (m_masterFd < 0 || grantpt(m_masterFd) != 0 || unlockpt(m_masterFd) != 0 ||
            ptsname_r(m_masterFd, name, sizeof(name)) != 0) {
            m_error = std::string("pseudo-terminal: ") + std::strerror(errno);
            Stop();
            return false;
        }
        m_slavePath = name;
        // Held open so that the line stays up while the plug-in closes and reopens it, and set
        // raw so nothing is echoed or translated before the plug-in configures it.
        m_slaveHoldFd = open(name, O_RDWR | O_NOCTTY);
        if (m_slaveHoldFd < 0 || !MakeRaw(m_slaveHoldFd, o.baud, false)) {
            m_error = m_slavePath + ": " + std::strerror(errno);
            Stop();
            return false;
        }
    } else {
        m_masterFd = open(o.ttyPath.c_str(), O_RDWR | O_NOCTTY);
        if (m_masterFd < 0 || !MakeRaw(m_masterFd, o.baud, true)) {
            m_error = o.ttyPath + ": " + std::strerror(errno);
            Stop();
            return false;
        }
        m_slavePath = o.ttyPath;
    }
    // A line nobody reads must not block the box: what does not fit is lost, as on a UART.
    fcntl(m_masterFd, F_SETFL, fcntl(m_masterFd, F_GETFL) | O_NONBLOCK);
    m_t0 = Now();
    m_run = true;
    if (m_clock.start) {
        m_join = m_clock.start([this] { Run(); });
    } else {
        m_thread = std::thread([this] { Run(); });
    }
    return true;
}

void BoxEmulator::Stop() {
    m_run = false;
    if (m_thread.joinable() || m_join) {
        if (m_clock.stopping) m_clock.stopping();
        if (m_join) {
            auto join = std::move(m_join);
            m_join = nullptr;
            join();
        } else {
            m_thread.join();
        }
    }
    if (m_masterFd >= 0) close(m_masterFd);
    if (m_slaveHoldFd >= 0) close(m_slaveHoldFd);
    m_masterFd = -1;
    m_slaveHoldFd = -1;
    m_streaming = false;
}

BoxOptions BoxEmulator::Snapshot() const {
    std::lock_guard<std::mutex> lock(m_optMutex);
    return m_opt;
}

void BoxEmulator::Fold(BoxOptions& o, const FaultState& s) {
    o.silent = o.silent || s.silent;
    if (s.dropEveryNth > 0) o.dropEveryNth = s.dropEveryNth;
    o.garbageBytes = std::max(o.garbageBytes, s.garbageBytes);
    if (s.splitMaxChunk > 0) o.splitMaxChunk = s.splitMaxChunk;
    o.badChecksum = o.badChecksum || s.badChecksum;
    if (s.duplicateEveryNth > 0) o.duplicateEveryNth = s.duplicateEveryNth;
    if (s.escape) {
        o.escape = true;
        o.escapeCountsInLength = s.escapeCountsInLength;
    }
    o.refuse = o.refuse || s.refuse;
    o.silent = o.silent || s.restartMs >= 0;
}

void BoxEmulator::Restart(const FaultState& s) {
    if (s.restartMs < 0 || s.restartMs == m_restartSeenMs) return;
    m_restartSeenMs = s.restartMs;
    m_streaming = false;
    m_late.clear();   // answers it was about to send are gone with it
    m_inBuf.clear();  // and so is a request half received
    {
        std::lock_guard<std::mutex> lock(m_optMutex);
        m_opt.engineId = m_factory.engineId;
        m_opt.scanTimeLevels = m_factory.scanTimeLevels;
        m_opt.dataScanLevels = m_factory.dataScanLevels;
    }
    Log("box: restarting");
}

void BoxEmulator::SendLateAnswers(double nowMs, const BoxOptions& o) {
    while (!m_late.empty() && m_late.front().due <= nowMs) {
        const LateAnswer a = std::move(m_late.front());
        m_late.pop_front();
        if (o.silent) {
            Log("box: late answer lost");
            continue;
        }
        if (a.installs && m_onInstalled) m_onInstalled();
        if (o.logSent && o.log) Log("box -> " + Hex(a.bytes));
        Transmit(a.bytes, o);
    }
}

BoxOptions BoxEmulator::Effective(double nowMs, FaultState* state) const {
    BoxOptions o = Snapshot();
    FaultState s;
    if (o.faultSchedule) s = o.faultSchedule(nowMs);
    Fold(o, s);
    if (m_upgradeSilenced.load() && s.upgradeSilentAfterChunks >= 0) o.silent = true;
    if (state != nullptr) *state = s;
    return o;
}

void BoxEmulator::Update(const std::function<void(BoxOptions&)>& change) {
    std::lock_guard<std::mutex> lock(m_optMutex);
    change(m_opt);
}

std::vector<ReceivedFrame> BoxEmulator::Received() const {
    std::lock_guard<std::mutex> lock(m_rxMutex);
    return std::vector<ReceivedFrame>(m_rx.begin(), m_rx.end());
}

uint64_t BoxEmulator::ReceivedTotal() const {
    std::lock_guard<std::mutex> lock(m_rxMutex);
    return m_rxTotal;
}

uint64_t BoxEmulator::ReceivedCount(uint16_t code) const {
    std::lock_guard<std::mutex> lock(m_rxMutex);
    const auto it = m_rxCounts.find(code);
    return it == m_rxCounts.end() ? 0 : it->second;
}

void BoxEmulator::ClearReceived() {
    std::lock_guard<std::mutex> lock(m_rxMutex);
    m_rx.clear();
    m_rxTotal = 0;
    m_rxCounts.clear();
}

bool BoxEmulator::WaitFor(const std::function<bool(const std::vector<ReceivedFrame>&)>& pred,
                          int timeoutMs) const {
    std::unique_lock<std::mutex> lock(m_rxMutex);
    return m_rxCv.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
        return pred(std::vector<ReceivedFrame>(m_rx.begin(), m_rx.end()));
    });
}

bool BoxEmulator::WaitForFrames(size_t count, int timeoutMs) const {
    std::unique_lock<std::mutex> lock(m_rxMutex);
    return m_rxCv.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                           [&] { return m_rxTotal >= count; });
}

void BoxEmulator::Log(const std::string& line) {
    std::function<void(const std::string&)> sink;
    {
        std::lock_guard<std::mutex> lock(m_optMutex);
        sink = m_opt.log;
    }
    if (sink) sink(line);
}

ByteVec BoxEmulator::EncodeFrame(uint16_t code, const ByteVec& payload, uint8_t seq, bool escape,
                                 bool escapeCountsInLength, bool badChecksum) {
    ByteVec plain = {0x55,
                     0xAA,
                     0xF8,
                     0xF0,
                     0,
                     0,
                     seq,
                     static_cast<uint8_t>(code >> 8),
                     static_cast<uint8_t>(code & 0xFF)};
    plain.insert(plain.end(), payload.begin(), payload.end());
    size_t l = payload.size() + 3;
    size_t pairs = 0;  // from the sequence number on: the bytes L counts
    if (escape) {
        for (size_t i = 6; i < plain.size(); ++i) {
            if (plain[i] == 0x7D || plain[i] == 0x7E || plain[i] == 0x7F) ++pairs;
        }
    }
    // L's low byte may itself need a pair (7D to 7F); being before the bytes L counts, that pair
    // is never counted, so L does not depend on itself.
    if (escapeCountsInLength) l += pairs;
    plain[4] = static_cast<uint8_t>(l >> 8);
    plain[5] = static_cast<uint8_t>(l & 0xFF);
    uint8_t sum = Xor(plain.data() + 2, plain.size() - 2);
    if (badChecksum) sum = static_cast<uint8_t>(sum ^ 0xA5);
    if (!escape) {
        plain.push_back(sum);
        return plain;
    }
    ByteVec out;
    out.reserve(plain.size() + pairs + 3);
    out.push_back(plain[0]);
    for (size_t i = 1; i < plain.size(); ++i) {
        const uint8_t b = plain[i];
        if (b == 0x7E) {
            out.insert(out.end(), {0x7D, 0x01});
        } else if (b == 0x7F) {
            out.insert(out.end(), {0x7D, 0x02});
        } else if (b == 0x7D) {
            out.insert(out.end(), {0x7D, 0x03});
        } else {
            out.push_back(b);
        }
    }
    out.push_back(sum);  // the last byte is never escaped
    return out;
}

std::string BoxEmulator::Describe(const ReceivedFrame& f) {
    std::ostringstream s;
    char head[64];
    std::snprintf(head, sizeof(head), "%10.1f ms  seq %3u  code %04X  payload[%zu]", f.tMs, f.seq,
                  f.code, f.payload.size());
    s << head;
    if (!f.payload.empty()) s << " " << Hex(f.payload);
    if (!f.checksumOk) s << "  (bad checksum)";
    return s.str();
}

ByteVec BoxEmulator::Encode(uint16_t code, const ByteVec& payload, uint8_t seq,
                            const BoxOptions& o) {
    return EncodeFrame(code, payload, seq, o.escape, o.escapeCountsInLength, o.badChecksum);
}

void BoxEmulator::WriteAll(const uint8_t* data, size_t n) {
    if (m_wireTap && n > 0) m_wireTap(false, data, n);
    PaceTransmit(n);
    size_t done = 0;
    int stalls = 0;
    while (done < n && m_masterFd >= 0) {
        const ssize_t w = write(m_masterFd, data + done, n - done);
        if (w > 0) {
            done += static_cast<size_t>(w);
            continue;
        }
        if (w < 0 && errno == EINTR) continue;
        // Full line (nobody reads) or gone: give it a moment, then drop the rest.
        if (++stalls > 50) break;
        usleep(1000);
    }
    if (m_clock.moved && done > 0) m_clock.moved(false, done);
}

void BoxEmulator::Transmit(const ByteVec& frame, const BoxOptions& o) {
    std::lock_guard<std::mutex> lock(m_writeMutex);
    ++m_framesSent;
    const bool twice =
        o.duplicateEveryNth > 0 && m_framesSent % static_cast<uint64_t>(o.duplicateEveryNth) == 0;
    for (int copy = twice ? 2 : 1; copy > 0; --copy) TransmitOnce(frame, o);
}

void BoxEmulator::TransmitOnce(const ByteVec& frame, const BoxOptions& o) {
    if (o.garbageBytes > 0) {
        ByteVec g;
        std::uniform_int_distribution<int> byte(0, 255);
        while (g.size() < static_cast<size_t>(o.garbageBytes)) {
            const uint8_t b = static_cast<uint8_t>(byte(m_rng));
            // Never a whole head (55 AA F8 F0): a false head would make the receiver wait for
            // a frame that is not there, which is a different fault.
            if (g.size() >= 3 && g[g.size() - 3] == 0x55 && g[g.size() - 2] == 0xAA &&
                g.back() == 0xF8 && b == 0xF0) {
                continue;
            }
            g.push_back(b);
        }
        // Nor a head's start that the frame's own head would complete.
        while (!g.empty() && (g.back() == 0x55 || g.back() == 0xAA || g.back() == 0xF8))
            g.pop_back();
        WriteAll(g.data(), g.size());
    }
    if (o.splitMaxChunk <= 0) {
        WriteAll(frame.data(), frame.size());
        return;
    }
    std::uniform_int_distribution<int> chunk(1, o.splitMaxChunk);
    size_t pos = 0;
    while (pos < frame.size()) {
        const size_t n = std::min(frame.size() - pos, static_cast<size_t>(chunk(m_rng)));
        WriteAll(frame.data() + pos, n);
        pos += n;
        if (pos < frame.size() && o.splitGapUs > 0) usleep(static_cast<useconds_t>(o.splitGapUs));
    }
}

void BoxEmulator::SendFrame(uint16_t code, const ByteVec& payload, uint8_t seq) {
    const BoxOptions o = Effective(Now());
    const ByteVec f = Encode(code, payload, seq, o);
    if (o.logSent && o.log) Log("box -> " + Hex(f));
    Transmit(f, o);
}

void BoxEmulator::SendLink() {
    SendFrame(0x2C10, {}, ++m_boxSeq);
}

void BoxEmulator::SendDataStream() {
    ValueSource source;
    {
        std::lock_guard<std::mutex> lock(m_optMutex);
        source = m_opt.values;
    }
    const DataItems items = source ? source() : DefaultValues();
    // Nothing known yet (a drive's first rows): a box with nothing to send sends no frame.
    if (items.empty()) return;
    ByteVec payload;
    for (const auto& it : items) {
        uint8_t v[4];
        std::memcpy(v, &it.second, 4);  // IEEE 754, least significant byte first
        payload.push_back(it.first);
        payload.insert(payload.end(), v, v + 4);
    }
    SendFrame(0x2C81, payload, ++m_boxSeq);
}

void BoxEmulator::SendRaw(const ByteVec& bytes) {
    std::lock_guard<std::mutex> lock(m_writeMutex);
    WriteAll(bytes.data(), bytes.size());
}

void BoxEmulator::Run() {
    double nextStream = Now();
    double nextLink = nextStream;
    uint8_t buf[1024];
    while (m_run.load()) {
        FaultState fault;
        BoxOptions o = Effective(Now(), &fault);
        // The window that silenced the box mid-upgrade is over: it is back.
        if (fault.upgradeSilentAfterChunks < 0) m_upgradeSilenced = false;
        const bool streamOn = m_streaming.load() && !fault.streamHeld;
        double due = -1;  // the next periodic frame, if any
        if (!o.silent && o.streamPeriodMs > 0 && streamOn) due = nextStream;
        if (!o.silent && o.linkPeriodMs > 0 && (due < 0 || nextLink < due)) due = nextLink;
        // A fault window that ends may let a frame out: wake for it.
        if (fault.nextChangeMs >= 0 && (due < 0 || fault.nextChangeMs < due)) {
            due = fault.nextChangeMs;
        }
        if (!m_late.empty() && (due < 0 || m_late.front().due < due)) due = m_late.front().due;
        int r = 0;
        pollfd p{m_masterFd, POLLIN, 0};
        if (m_clock.wait) {
            if (!m_clock.wait(m_masterFd, due)) continue;
            r = poll(&p, 1, 0);
        } else {
            r = poll(&p, 1, 2);
        }
        if (r > 0 && (p.revents & POLLIN)) {
            const ssize_t n = read(m_masterFd, buf, sizeof(buf));
            if (n > 0) {
                if (m_clock.moved) m_clock.moved(true, static_cast<size_t>(n));
                TakeIn(buf, static_cast<size_t>(n));
            }
        } else if (r > 0 && (p.revents & (POLLHUP | POLLERR))) {
            usleep(2000);  // no reader on the other side yet
        }
        const double now = Now();
        // The frames read may have changed the box, and time may have opened or closed a window.
        o = Effective(now, &fault);
        Restart(fault);
        SendLateAnswers(now, o);
        if (o.silent) continue;
        if (o.streamPeriodMs > 0 && m_streaming.load() && !fault.streamHeld && now >= nextStream) {
            SendDataStream();
            nextStream = now + o.streamPeriodMs;
        }
        if (o.linkPeriodMs > 0 && now >= nextLink) {
            SendLink();
            nextLink = now + o.linkPeriodMs;
        }
    }
}

void BoxEmulator::OnBytes(const uint8_t* data, size_t n) {
    if (m_wireTap) m_wireTap(true, data, n);
    m_inBuf.insert(m_inBuf.end(), data, data + n);
    for (;;) {
        size_t head = 0;
        while (head + 4 <= m_inBuf.size() &&
               std::memcmp(m_inBuf.data() + head, kHeadToBox, 4) != 0) {
            ++head;
        }
        if (head + 4 > m_inBuf.size()) {
            // Keep a possible head start at the end.
            const size_t keep = std::min<size_t>(3, m_inBuf.size());
            m_inBuf.erase(m_inBuf.begin(), m_inBuf.end() - static_cast<long>(keep));
            return;
        }
        m_inBuf.erase(m_inBuf.begin(), m_inBuf.begin() + static_cast<long>(head));
        if (m_inBuf.size() < 6) return;
        const size_t l = (static_cast<size_t>(m_inBuf[4]) << 8) | m_inBuf[5];
        if (l < 3 || l + 7 > kMaxFrame) {
            m_inBuf.erase(m_inBuf.begin());  // not a frame: look for the next head
            continue;
        }
        if (m_inBuf.size() < l + 7) return;
        ReceivedFrame f;
        f.tMs = Now() - m_t0;
        f.raw.assign(m_inBuf.begin(), m_inBuf.begin() + static_cast<long>(l + 7));
        f.seq = f.raw[6];
        f.code = static_cast<uint16_t>((f.raw[7] << 8) | f.raw[8]);
        f.payload.assign(f.raw.begin() + 9, f.raw.end() - 1);
        f.checksumOk = Xor(f.raw.data() + 2, l + 4) == f.raw.back();
        m_inBuf.erase(m_inBuf.begin(), m_inBuf.begin() + static_cast<long>(l + 7));
        OnFrame(std::move(f));
    }
}

void BoxEmulator::OnFrame(ReceivedFrame f) {
    Log("plug-in -> " + Describe(f));
    std::function<FaultState(double)> schedule;
    {
        std::lock_guard<std::mutex> lock(m_optMutex);
        schedule = m_opt.faultSchedule;
    }
    const double now = Now();
    const FaultState s = schedule ? schedule(now) : FaultState{};
    Restart(s);
    std::vector<ByteVec> answers;
    BoxOptions o;
    m_installAnswer = false;
    {
        std::lock_guard<std::mutex> lock(m_optMutex);
        m_frameWindow = s;
        // A rebooting box hears nothing. A window's refusal and escaping hold for the answers
        // of this request only: the whole-run options are put back at once.
        if (s.restartMs < 0) {
            const bool refuse = m_opt.refuse, escape = m_opt.escape;
            const bool counts = m_opt.escapeCountsInLength;
            m_opt.refuse = refuse || s.refuse;
            if (s.escape) {
                m_opt.escape = true;
                m_opt.escapeCountsInLength = s.escapeCountsInLength;
            }
            Answer(f, m_opt, answers);  // may change the box's contents (configure requests)
            m_opt.refuse = refuse;
            m_opt.escape = escape;
            m_opt.escapeCountsInLength = counts;
        }
        o = m_opt;
    }
    // The answers were encoded with the whole-run checksum setting: a window spoils them now, as
    // EncodeFrame would (the checksum is the last byte, never escaped).
    if (s.badChecksum && !o.badChecksum) {
        for (ByteVec& a : answers) {
            if (!a.empty()) a.back() = static_cast<uint8_t>(a.back() ^ 0xA5);
        }
    }
    Fold(o, s);
    if (m_upgradeSilenced.load() && s.upgradeSilentAfterChunks >= 0) o.silent = true;
    {
        std::lock_guard<std::mutex> lock(m_rxMutex);
        ++m_rxTotal;
        ++m_rxCounts[f.code];
        m_rx.push_back(std::move(f));
        if (m_rx.size() > m_rxKept) m_rx.pop_front();
    }
    m_rxCv.notify_all();
    if (o.silent) return;
    PauseBeforeAnswer();
    for (const auto& a : answers) {
        ++m_answers;
        if (o.dropEveryNth > 0 && m_answers % static_cast<uint64_t>(o.dropEveryNth) == 0) {
            Log("box: answer dropped");
            continue;
        }
        if (s.answerDelayMs > 0) {
            // Held on the box's clock: in order of their due times, the run loop sends them.
            const double due = now + s.answerDelayMs;
            auto at = m_late.end();
            while (at != m_late.begin() && std::prev(at)->due > due) --at;
            m_late.insert(at, {due, a, m_installAnswer});
            continue;
        }
        if (m_installAnswer && m_onInstalled) m_onInstalled();
        if (o.logSent && o.log) Log("box -> " + Hex(a));
        Transmit(a, o);
    }
}

void BoxEmulator::Answer(const ReceivedFrame& req, BoxOptions& o, std::vector<ByteVec>& out) {
    const ByteVec& p = req.payload;
    ByteVec payload;
    auto answer = [&](uint16_t code, const ByteVec& body) {
        out.push_back(Encode(code, body, req.seq, o));
    };
    for (uint16_t code : o.unanswered) {
        if (code == req.code) return;
    }
    switch (req.code) {
        case 0x2103:
            PutTexts(payload, o.hwTexts);
            answer(0x6103, payload);
            break;
        case 0x2105:
            PutTexts(payload, o.swTexts);
            answer(0x6105, payload);
            break;
        case 0x2C12:
            answer(0x6C12, {static_cast<uint8_t>(o.engineId >> 8),
                            static_cast<uint8_t>(o.engineId & 0xFF)});
            break;
        case 0x2C22:
            payload.push_back(static_cast<uint8_t>(o.scanTimeLevels.size()));
            for (const auto& e : o.scanTimeLevels) {
                payload.insert(payload.end(), {e.first, static_cast<uint8_t>(e.second >> 24),
                                               static_cast<uint8_t>(e.second >> 16),
                                               static_cast<uint8_t>(e.second >> 8),
                                               static_cast<uint8_t>(e.second)});
            }
            answer(0x6C22, payload);
            break;
        case 0x2C42:
            payload.push_back(static_cast<uint8_t>(o.dataScanLevels.size()));
            for (const auto& e : o.dataScanLevels) {
                payload.push_back(e.first);
                payload.push_back(static_cast<uint8_t>(e.second.size()));
                payload.insert(payload.end(), e.second.begin(), e.second.end());
            }
            answer(0x6C42, payload);
            break;
        case 0x2CF1:
            answer(0x6CF1, o.faultCodes);
            break;
        case 0x2C03: {
            if (m_frameWindow.engineUnanswered) break;
            const bool refuse = o.refuse || m_frameWindow.engineRefused;
            if (!refuse && p.size() >= 2) o.engineId = static_cast<uint16_t>((p[0] << 8) | p[1]);
            answer(0x6C03, {static_cast<uint8_t>(refuse ? 1 : 0)});
            break;
        }
        case 0x2C23:
            if (!p.empty()) {
                o.scanTimeLevels.clear();
                for (size_t i = 1; i + 5 <= p.size() && o.scanTimeLevels.size() < p[0]; i += 5) {
                    o.scanTimeLevels.emplace_back(
                        p[i], (static_cast<uint32_t>(p[i + 1]) << 24) |
                                  (static_cast<uint32_t>(p[i + 2]) << 16) |
                                  (static_cast<uint32_t>(p[i + 3]) << 8) | p[i + 4]);
                }
            }
            answer(0x6C23, {});
            break;
        case 0x2C43:
            if (!p.empty()) {
                o.dataScanLevels.clear();
                size_t i = 1;
                while (i + 2 <= p.size() && o.dataScanLevels.size() < p[0]) {
                    const size_t n = std::min<size_t>(p[i + 1], p.size() - i - 2);
                    o.dataScanLevels.emplace_back(
                        p[i], ByteVec(p.begin() + static_cast<long>(i + 2),
                                      p.begin() + static_cast<long>(i + 2 + n)));
                    i += 2 + n;
                }
            }
            answer(0x6C43, {});
            break;
        case 0x2C01:
            m_streaming = true;
            answer(0x6C01, {});
            break;
        case 0x2C04:
            m_streaming = false;
            answer(o.stopAckAlt ? 0x2301 : 0x6C04, {});
            break;
        case 0x2C10:
            answer(0x2C10, {});  // the box's link frame, with the same code
            break;
        case 0x2506:  // restart: the box goes quiet and comes back without its stream
            m_streaming = false;
            break;
        case 0x2114:  // jump to the application: no answer either
            break;
        case 0x2407:
        case 0x2402:
        case 0x2403:
        case 0x2404:
        case 0x2111:
            AnswerUpgrade(req, o, out);
            break;
        default:
            if (o.log) o.log("box: unknown request, not answered");  // m_optMutex is held
            break;
    }
}

}  // namespace obdbox

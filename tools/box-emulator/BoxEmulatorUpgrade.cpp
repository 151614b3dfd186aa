// The box's side of a firmware upgrade: it keeps the file it is sent, checks it against the size
// and MD5 text it is told, installs it at the end, and answers each step with a status byte
// (4 accepted, 2 refused). Its fault options refuse a step, fall silent after some chunks, drop
// chunk answers and spend flash time per chunk.
#include <poll.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <thread>

#include "BoxEmulator.h"

namespace obdbox {
namespace {

constexpr uint8_t kRefused = 2;
constexpr size_t kMaxChunk = 256;
constexpr uint32_t kMaxImage = 64u << 20;  // more than any box's flash

uint32_t Be(const ByteVec& p, size_t at, int n) {
    uint32_t v = 0;
    for (int i = 0; i < n; ++i) v = (v << 8) | p[at + static_cast<size_t>(i)];
    return v;
}

uint32_t Rotl(uint32_t x, int c) {
    return (x << c) | (x >> (32 - c));
}

// MD5 (RFC 1321) as lowercase hex text, written here on its own so that the box does not check
// the plug-in's digest with the plug-in's code.
std::string Md5Hex(const ByteVec& data) {
    static const int kShift[4][4] = {
        {7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};
    uint32_t k[64];
    for (int i = 0; i < 64; ++i)
        k[i] = static_cast<uint32_t>(std::floor(std::fabs(std::sin(i + 1.0)) * 4294967296.0));
    ByteVec m(data);
    m.push_back(0x80);
    while (m.size() % 64 != 56) m.push_back(0);
    const uint64_t bits = static_cast<uint64_t>(data.size()) * 8;
    for (int i = 0; i < 8; ++i) m.push_back(static_cast<uint8_t>(bits >> (8 * i)));
    uint32_t h[4] = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
    for (size_t block = 0; block < m.size(); block += 64) {
        uint32_t w[16];
        for (int i = 0; i < 16; ++i) {
            const uint8_t* q = &m[block + 4 * static_cast<size_t>(i)];
            w[i] = q[0] | (q[1] << 8) | (q[2] << 16) | (static_cast<uint32_t>(q[3]) << 24);
        }
        uint32_t a = h[0], b = h[1], c = h[2], d = h[3];
        for (int i = 0; i < 64; ++i) {
            uint32_t f;
            int g;
            if (i < 16) {
                f = (b & c) | (~b & d), g = i;
            } else if (i < 32) {
                f = (d & b) | (~d & c), g = (5 * i + 1) % 16;
            } else if (i < 48) {
                f = b ^ c ^ d, g = (3 * i + 5) % 16;
            } else {
                f = c ^ (b | ~d), g = (7 * i) % 16;
            }
            const uint32_t next = b + Rotl(a + f + k[i] + w[g], kShift[i / 16][i % 4]);
            a = d;
            d = c;
            c = b;
            b = next;
        }
        h[0] += a, h[1] += b, h[2] += c, h[3] += d;
    }
    std::string out;
    char hex[3];
    for (uint32_t word : h) {
        for (int i = 0; i < 4; ++i) {
            std::snprintf(hex, sizeof(hex), "%02x", (word >> (8 * i)) & 0xFF);
            out += hex;
        }
    }
    return out;
}

}  // namespace

BoxUpgrade BoxEmulator::Upgrade() const {
    std::lock_guard<std::mutex> lock(m_optMutex);
    return m_upgrade;
}

// Under m_optMutex: logs go straight to the sink.
void BoxEmulator::AnswerUpgrade(const ReceivedFrame& req, BoxOptions& o,
                                std::vector<ByteVec>& out) {
    const ByteVec& p = req.payload;
    BoxUpgrade& u = m_upgrade;
    auto note = [&o](const std::string& line) {
        if (o.log) o.log(line);
    };
    // A window's misbehaviour wins over the whole-run setting of the same name.
    const FaultState& w = m_frameWindow;
    const uint16_t refuseStep =
        w.upgradeRefuseStep != 0 ? w.upgradeRefuseStep : o.upgradeRefuseStep;
    const int silentAfter =
        w.upgradeSilentAfterChunks >= 0 ? w.upgradeSilentAfterChunks : o.upgradeSilentAfterChunks;
    const int dropNth =
        w.upgradeDropEveryNthChunk > 0 ? w.upgradeDropEveryNthChunk : o.upgradeDropEveryNthChunk;
    const int flashUs = w.upgradeFlashMs > 0 ? w.upgradeFlashMs * 1000 : o.upgradeFlashUs;
    bool ok = !o.refuse && req.code != refuseStep;
    bool answer = true;
    switch (req.code) {
        case 0x2407:  // start
            if (ok) u = BoxUpgrade{};
            break;
        case 0x2402: {  // name: n, the name and its NUL, the size
            const size_t n = p.size() >= 2 ? Be(p, 0, 2) : 0;
            ok = ok && n >= 1 && p.size() == 2 + n + 4 && p[1 + n] == 0 &&
                 Be(p, 2 + n, 4) <= kMaxImage;
            if (ok) {
                u.name.assign(p.begin() + 2, p.begin() + static_cast<long>(1 + n));
                u.size = Be(p, 2 + n, 4);
                u.image.clear();
                u.md5Ok = u.installed = false;
            }
            break;
        }
        case 0x2403: {  // chunk: offset, length, bytes
            ++u.chunks;
            const size_t len = p.size() >= 6 ? Be(p, 4, 2) : 0;
            const size_t at = p.size() >= 6 ? Be(p, 0, 4) : 0;
            // (In 64 bits: an offset near 4 GiB must not wrap round on a 32-bit machine.)
            ok = ok && len >= 1 && len <= kMaxChunk && p.size() == 6 + len &&
                 static_cast<uint64_t>(at) + len <= u.size;
            if (ok) {
                if (u.image.size() < at + len) u.image.resize(at + len);
                std::copy(p.begin() + 6, p.end(), u.image.begin() + static_cast<long>(at));
            }
            if (silentAfter >= 0 && u.chunks > silentAfter) {
                // For good when asked for the whole run; to the window's end when by a window.
                if (w.upgradeSilentAfterChunks >= 0) {
                    m_upgradeSilenced = true;
                } else {
                    o.silent = true;
                }
                note("box: silent after " + std::to_string(silentAfter) + " chunks");
                return;
            }
            if (dropNth > 0 && u.chunks % dropNth == 0) {
                note("box: chunk answer dropped");
                answer = false;
            }
            m_answerDelayUs = flashUs;
            break;
        }
        case 0x2404:  // MD5 text of the whole file
            u.md5Ok = ok && p.size() == 32 && u.image.size() == u.size &&
                      std::string(p.begin(), p.end()) == Md5Hex(u.image);
            if (ok && !u.md5Ok) note("box: MD5 does not match the file received");
            ok = u.md5Ok;
            break;
        case 0x2111:  // end: install
            ok = ok && u.md5Ok;
            if (ok) {
                u.installed = true;
                o.swTexts = o.upgradedSwTexts;
                m_installAnswer = true;
            }
            break;
        default:
            return;
    }
    if (!answer) return;
    out.push_back(Encode(static_cast<uint16_t>(req.code + 0x4000),
                         {ok ? o.upgradeStatus : kRefused}, req.seq, o));
}

// On a simulator's clock the flash time is the clock's: the box waits its turn like any other
// wait, so a slow flash costs no real time and comes out the same however busy the machine is.
// Bytes that arrive meanwhile are read (a simulator's clock stands while bytes are on their way
// to the box) and held: they are taken in after the answer, as a busy box would.
void BoxEmulator::PauseBeforeAnswer() {
    if (m_answerDelayUs <= 0) return;
    const int us = m_answerDelayUs;
    m_answerDelayUs = 0;
    if (!m_clock.wait) {
        std::this_thread::sleep_for(std::chrono::microseconds(us));
        return;
    }
    const double until = Now() + us / 1000.0;
    uint8_t buf[1024];
    while (m_run.load() && Now() < until) {
        if (!m_clock.wait(m_masterFd, until)) continue;
        pollfd p{m_masterFd, POLLIN, 0};
        if (poll(&p, 1, 0) <= 0 || (p.revents & POLLIN) == 0) continue;
        const ssize_t n = read(m_masterFd, buf, sizeof(buf));
        if (n <= 0) continue;
        if (m_clock.moved) m_clock.moved(true, static_cast<size_t>(n));
        if (m_wireTap) m_wireTap(true, buf, static_cast<size_t>(n));
        // OnBytes, which is taking in the frame being answered, goes on with these next.
        m_inBuf.insert(m_inBuf.end(), buf, buf + n);
    }
}

}  // namespace obdbox

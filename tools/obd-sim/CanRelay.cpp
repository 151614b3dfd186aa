#include "CanRelay.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/eventfd.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace obdsim {

namespace {

void MakeRaw(int fd) {
    termios tio{};
    if (tcgetattr(fd, &tio) == 0) {
        cfmakeraw(&tio);
        tcsetattr(fd, TCSANOW, &tio);
    }
}

}  // namespace

CanRelay::CanRelay(std::string boxLinePath, Tap tap, Delivered delivered)
    : m_boxPath(std::move(boxLinePath)), m_tap(std::move(tap)), m_delivered(std::move(delivered)) {}

CanRelay::~CanRelay() {
    Stop();
}

std::vector<unsigned char> CanRelay::FrameOf(const std::vector<unsigned char>& payload) {
    if (payload.size() < 4) return {};
    const uint32_t len =
        static_cast<uint32_t>(payload[0]) | (static_cast<uint32_t>(payload[1]) << 8) |
        (static_cast<uint32_t>(payload[2]) << 16) | (static_cast<uint32_t>(payload[3]) << 24);
    // A length that is not the frame's would put a torn or padded frame on the box's line.
    if (len != payload.size() - 4) return {};
    return std::vector<unsigned char>(payload.begin() + 4, payload.end());
}

std::vector<std::vector<unsigned char>> CanRelay::Chunks(const unsigned char* bytes, size_t n) {
    std::vector<std::vector<unsigned char>> out;
    for (size_t at = 0; at < n; at += kChunk) {
        const size_t k = n - at < kChunk ? n - at : kChunk;
        std::vector<unsigned char> m(4 + k);
        m[0] = static_cast<unsigned char>(k);  // k <= 8: the upper bytes of the count stay 0
        std::memcpy(m.data() + 4, bytes + at, k);
        out.push_back(std::move(m));
    }
    return out;
}

bool CanRelay::Start(std::string& error) {
    m_boxFd = ::open(m_boxPath.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (m_boxFd < 0) {
        error = m_boxPath + ": " + std::strerror(errno);
        return false;
    }
    MakeRaw(m_boxFd);
    char name[256] = {};
    if (::openpty(&m_pluginMaster, &m_pluginSlave, name, nullptr, nullptr) != 0) {
        error = std::string("openpty: ") + std::strerror(errno);
        Stop();
        return false;
    }
    // Raw before the plug-in opens it, and held open so the line stays up while it reopens it.
    MakeRaw(m_pluginSlave);
    m_pluginPath = name;
    m_wakeFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (m_wakeFd < 0) {
        error = std::string("eventfd: ") + std::strerror(errno);
        Stop();
        return false;
    }
    m_part = std::make_unique<hostsim::Participant>("can-relay");
    m_part->ReadLine(m_boxPath, m_boxFd);
    m_token = hostsim::BusSubscribe([this](const hostsim::BusMessage& m) {
        if (m.response || m.id != kFrameToBoxId) return;
        std::vector<unsigned char> frame = FrameOf(m.payload);
        if (frame.empty()) return;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_frames.push_back(std::move(frame));
        }
        m_part->Kick();
        const uint64_t one = 1;
        (void)!::write(m_wakeFd, &one, sizeof(one));
    });
    m_stop = false;
    m_thread = hostsim::Thread("can-relay", [this] { Run(); });
    return true;
}

void CanRelay::Stop() {
    m_stop = true;
    if (m_token != 0) hostsim::BusUnsubscribe(m_token);
    m_token = 0;
    if (m_part) m_part->Leave();
    if (m_wakeFd >= 0) {
        const uint64_t one = 1;
        (void)!::write(m_wakeFd, &one, sizeof(one));
    }
    m_thread.Join();
    m_part.reset();
    for (int* fd : {&m_boxFd, &m_pluginMaster, &m_pluginSlave, &m_wakeFd}) {
        if (*fd >= 0) ::close(*fd);
        *fd = -1;
    }
}

void CanRelay::Run() {
    const bool turns = hostsim::ClockGetMode() == hostsim::ClockMode::Virtual;
    m_part->Enter();
    while (!m_stop.load()) {
        if (turns) {
            // Kicked by a frame from the bus or by the box's bytes; the real timeout only lets a
            // stop be seen.
            if (!m_part->Wait(-1, 50)) continue;
        } else {
            pollfd p[2] = {{m_boxFd, POLLIN, 0}, {m_wakeFd, POLLIN, 0}};
            if (::poll(p, 2, 50) <= 0) continue;
            uint64_t count = 0;
            if (p[1].revents & POLLIN) (void)!::read(m_wakeFd, &count, sizeof(count));
        }
        if (m_stop.load()) break;
        std::deque<std::vector<unsigned char>> frames;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            frames.swap(m_frames);
        }
        for (const auto& f : frames) ToBox(f);
        FromBox();
    }
    m_part->Leave();
}

void CanRelay::ToBox(const std::vector<unsigned char>& frame) {
    const long long tMs = hostsim::ClockNowMs();
    if (m_tap) m_tap(true, frame.data(), frame.size(), tMs);
    m_part->LineSent(frame.size());
    size_t done = 0;
    int stalls = 0;
    while (done < frame.size()) {
        const ssize_t n = ::write(m_boxFd, frame.data() + done, frame.size() - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else if (n < 0 && errno == EAGAIN && ++stalls < 100) {
            pollfd p{m_boxFd, POLLOUT, 0};
            ::poll(&p, 1, 20);
        } else {
            break;  // a box that reads nothing loses the rest, as on a line
        }
    }
}

void CanRelay::FromBox() {
    unsigned char buf[1024];
    for (;;) {
        const ssize_t n = ::read(m_boxFd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        m_part->LineTook(static_cast<size_t>(n));
        for (auto& payload : Chunks(buf, static_cast<size_t>(n))) {
            const long long tMs = hostsim::ClockNowMs();
            hostsim::BusMessage m;
            m.tMs = tMs;
            m.id = kBytesFromBoxId;
            m.payload = payload;
            m.seq = static_cast<unsigned int>(hostsim::BusInject(kBytesFromBoxId, payload));
            if (m_delivered) m_delivered(m);
            // The link's view after the message: a frame this message completes is seen after it.
            if (m_tap) m_tap(false, payload.data() + 4, payload.size() - 4, tMs);
        }
    }
}

}  // namespace obdsim

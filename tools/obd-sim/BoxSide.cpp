#include "BoxSide.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

#include "HostSim.h"

namespace obdsim {

BoxSide::BoxSide(int masterFd, WireTap tap) : m_fd(masterFd), m_tap(std::move(tap)) {}

BoxSide::~BoxSide() {
    Stop();
    if (m_fd >= 0) ::close(m_fd);
}

void BoxSide::Start() {
    if (m_thread.joinable()) return;
    m_stop = false;
    m_thread = std::thread([this] { Run(); });
}

void BoxSide::Stop() {
    m_stop = true;
    if (m_thread.joinable()) m_thread.join();
}

bool BoxSide::Write(const std::vector<unsigned char>& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(m_fd, bytes.data() + done, bytes.size() - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else if (n < 0 && errno == EAGAIN) {
            pollfd p{m_fd, POLLOUT, 0};
            ::poll(&p, 1, 50);
        } else {
            return false;
        }
    }
    return true;
}

void BoxSide::OnBytesFromPlugin(long long tMs, const std::vector<unsigned char>& bytes) {
    if (m_tap) m_tap(tMs, bytes);
}

void BoxSide::Run() {
    std::vector<unsigned char> buffer(4096);
    while (!m_stop) {
        pollfd p{m_fd, POLLIN, 0};
        const int rc = ::poll(&p, 1, 50);  // short, so Stop() is seen quickly
        if (rc <= 0) continue;
        if (!(p.revents & POLLIN)) {
            // The slave side is closed for a moment (the plug-in reopening it): do not spin.
            ::usleep(10000);
            continue;
        }
        const ssize_t n = ::read(m_fd, buffer.data(), buffer.size());
        if (n > 0) {
            OnBytesFromPlugin(hostsim::ClockNowMs(),
                              std::vector<unsigned char>(buffer.begin(), buffer.begin() + n));
        } else if (n < 0 && errno != EINTR && errno != EAGAIN) {
            ::usleep(10000);
        }
    }
}

}  // namespace obdsim

#include "StatusLine.h"

#include <sys/ioctl.h>
#include <unistd.h>

namespace obdsim {

void StatusLine::Draw() {
    winsize ws{};
    size_t width = 80;
    if (ioctl(fileno(m_out), TIOCGWINSZ, &ws) == 0 && ws.ws_col > 1) width = ws.ws_col;
    // The last column stays free: some terminals wrap as soon as it is written.
    std::string shown = m_text.substr(0, width - 1);
    std::fputs(("\r" + shown + "\x1b[K").c_str(), m_out);
    std::fflush(m_out);
}

void StatusLine::Show(const std::string& text) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_text = text;
    Draw();
}

void StatusLine::Log(const std::string& line) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_errShared) {
        std::fputs("\r\x1b[K", m_out);
        std::fflush(m_out);
    }
    std::fprintf(stderr, "%s\n", line.c_str());
    std::fflush(stderr);
    if (m_errShared && !m_text.empty()) Draw();
}

void StatusLine::Clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::fputs("\r\x1b[K", m_out);
    std::fflush(m_out);
    m_text.clear();
}

}  // namespace obdsim

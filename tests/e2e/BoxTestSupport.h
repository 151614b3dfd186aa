// The box emulator's tests: the emulator on its own pseudo-terminal, driven from the plug-in's
// end of the line.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>

#include "BoxEmulator.h"

namespace boxtest {

using obdbox::BoxEmulator;
using obdbox::BoxOptions;
using obdbox::ByteVec;

// A request as the plug-in frames it: the box's frame with the direction bytes swapped, which
// leaves the checksum as it is.
inline ByteVec Request(uint16_t code, const ByteVec& payload = {}, uint8_t seq = 1) {
    ByteVec f = BoxEmulator::EncodeFrame(code, payload, seq, false, false, false);
    std::swap(f[2], f[3]);
    return f;
}

class BoxLineTest : public ::testing::Test {
  protected:
    void StartBox(BoxOptions o = {}) {
        m_box = std::make_unique<BoxEmulator>(o);
        ASSERT_TRUE(m_box->Start()) << m_box->LastError();
        m_fd = open(m_box->SlavePath().c_str(), O_RDWR | O_NOCTTY);  // the plug-in's end, raw
        ASSERT_GE(m_fd, 0);
        termios t{};
        tcgetattr(m_fd, &t);
        cfmakeraw(&t);
        tcsetattr(m_fd, TCSANOW, &t);
    }
    void TearDown() override {
        if (m_fd >= 0) close(m_fd);
        if (m_box) m_box->Stop();
    }
    void Write(const ByteVec& b) { ASSERT_EQ(write(m_fd, b.data(), b.size()), (ssize_t)b.size()); }
    // Reads until `want` bytes arrived or `ms` (real time) passed; counts the separate reads.
    ByteVec Read(size_t want, int ms, int* reads = nullptr) {
        ByteVec out;
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        while (out.size() < want && std::chrono::steady_clock::now() < end) {
            pollfd p{m_fd, POLLIN, 0};
            uint8_t buf[512];
            if (poll(&p, 1, 5) <= 0) continue;
            const ssize_t n = read(m_fd, buf, std::min(sizeof(buf), want - out.size()));
            if (n <= 0) continue;
            out.insert(out.end(), buf, buf + n);
            if (reads) ++*reads;
        }
        return out;
    }
    std::unique_ptr<BoxEmulator> m_box;
    int m_fd = -1;
};

}  // namespace boxtest

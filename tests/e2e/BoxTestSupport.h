// The box emulator's tests: the emulator on its own pseudo-terminal, driven from the plug-in's
// end of the line.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>

#include "BoxEmulator.h"

namespace boxtest {

// Real time for an answer that must come: only a box that never answers waits it out. (A check
// that nothing comes waits a short while: a busy machine can only make it pass.)
constexpr int kAnswerMs = 10000;

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
    ByteVec Read(size_t want, int ms = kAnswerMs, int* reads = nullptr) {
        ByteVec out;
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        while (out.size() < want && std::chrono::steady_clock::now() < end) {
            pollfd p{m_fd, POLLIN, 0};
            uint8_t buf[512];
            if (poll(&p, 1, 5) <= 0) continue;
            const ssize_t n = read(m_fd, buf, std::min(sizeof(buf), want - out.size()));
            if (n <= 0) continue;
            out.insert(out.end(), buf, buf + n);
            m_readTotal += static_cast<size_t>(n);
            if (reads) ++*reads;
        }
        return out;
    }
    // Reads until `done` holds for what was read, or `ms` passed.
    template <typename Done>
    ByteVec ReadUntil(Done done, int ms = kAnswerMs) {
        ByteVec out;
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        while (!done(out) && std::chrono::steady_clock::now() < end) {
            const ByteVec more = Read(1, 5);
            out.insert(out.end(), more.begin(), more.end());
        }
        return out;
    }
    // A box clock that holds each of the box's writes until the test has read it, so that every
    // write arrives as a read of its own however late this thread runs.
    obdbox::BoxClock WritesReadOneByOne() {
        obdbox::BoxClock clock;
        clock.moved = [this](bool toBox, size_t n) {
            if (toBox) return;
            m_written += n;
            const auto end =
                std::chrono::steady_clock::now() + std::chrono::milliseconds(kAnswerMs);
            while (m_readTotal < m_written && !m_stopping && std::chrono::steady_clock::now() < end)
                usleep(200);
        };
        clock.stopping = [this] { m_stopping = true; };
        return clock;
    }
    std::unique_ptr<BoxEmulator> m_box;
    int m_fd = -1;
    std::atomic<size_t> m_readTotal{0}, m_written{0};
    std::atomic<bool> m_stopping{false};
};

}  // namespace boxtest

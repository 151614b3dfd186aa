// Helpers shared by the host-layer tests: a clean host per test, a pseudo-terminal, and a probe
// peripheral that records every call the host makes into it.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "CSerialBase.h"
#include "HostSim.h"

namespace hosttest {

using Bytes = std::vector<unsigned char>;

// Polls `done` in real time; true once it holds, false after `ms`.
inline bool WaitUntil(const std::function<bool()>& done, int ms = 2000) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!done()) {
        if (std::chrono::steady_clock::now() >= limit) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

class HostTest : public ::testing::Test {
  protected:
    void SetUp() override { hostsim::Reset(); }
    void TearDown() override { hostsim::Reset(); }
};

// A pseudo-terminal pair; the test plays the box on the master side. The test keeps its own
// slave descriptor open so the line never hangs up under the peripheral.
class Pty {
  public:
    Pty() {
        char name[256] = {};
        if (openpty(&master, &slave, name, nullptr, nullptr) != 0) return;
        path = name;
        termios tio{};
        tcgetattr(slave, &tio);
        cfmakeraw(&tio);
        tcsetattr(slave, TCSANOW, &tio);
        fcntl(master, F_SETFL, fcntl(master, F_GETFL) | O_NONBLOCK);
    }
    ~Pty() {
        if (master >= 0) close(master);
        if (slave >= 0) close(slave);
    }
    bool Ok() const { return master >= 0 && slave >= 0; }

    void WriteMaster(const Bytes& bytes) {
        size_t done = 0;
        while (done < bytes.size()) {
            const ssize_t n = write(master, bytes.data() + done, bytes.size() - done);
            if (n > 0) {
                done += static_cast<size_t>(n);
            } else {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
    }

    // Reads from the master until `count` bytes came or `ms` of real time passed.
    Bytes ReadMaster(size_t count, int ms = 2000) {
        Bytes out;
        unsigned char buf[4096];
        WaitUntil(
            [&] {
                const ssize_t n = read(master, buf, sizeof(buf));
                if (n > 0) out.insert(out.end(), buf, buf + n);
                return out.size() >= count;
            },
            ms);
        return out;
    }

    // True once input written on the master is queued on the slave side.
    bool SlaveReadable(int ms = 1000) {
        pollfd p{slave, POLLIN, 0};
        return poll(&p, 1, ms) > 0 && (p.revents & POLLIN);
    }

    int master = -1;
    int slave = -1;
    std::string path;
};

// Records what the host does with a peripheral: cycles, serial reads, bus messages.
class ProbePeripheral : public CSerialBase {
  public:
    static constexpr int kMsgId = 42;

    explicit ProbePeripheral(CPeripheralManage* manage) : CSerialBase(manage, nullptr, 7, 0) {}

    int PeripheralThreadCycle(long long now) override {
        Enter();
        {
            std::lock_guard<std::mutex> lock(mutex);
            cycleTimes.push_back(now);
        }
        Leave();
        return 0;
    }

    int ProcessPeripheralData() override {
        Enter();
        char buf[4096];
        unsigned int len = 0;
        const int rc = GetSerialBufferData(buf, len);
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (rc == 0 && len > 0) {
                const auto* b = reinterpret_cast<const unsigned char*>(buf);
                received.insert(received.end(), b, b + len);
                if (len > largestRead) largestRead = len;
            }
            ++reads;
        }
        Leave();
        return 0;
    }

    int MessageRegister() override {
        return m_pMsgClient->MSGEventRegister(
            static_cast<int>(m_moduleId), kMsgId, this,
            static_cast<PeripheralMsgHandler>(&ProbePeripheral::OnMsg));
    }
    int MessageUnRegister() override {
        return m_pMsgClient->MSGEventUnRegister(static_cast<int>(m_moduleId), kMsgId);
    }

    int OnMsg(const char* msg, int len) {
        deliveries.fetch_add(1);
        if (gate) gate();
        std::lock_guard<std::mutex> lock(mutex);
        messages.emplace_back(reinterpret_cast<const unsigned char*>(msg),
                              reinterpret_cast<const unsigned char*>(msg) + len);
        if (answer) {
            Common::SMessageHead head;
            std::memcpy(&head, msg, sizeof(head));
            m_pMsgClient->MSGResponseMessage(&head, "ok", 2);
        }
        return 0;
    }

    std::vector<long long> Cycles() {
        std::lock_guard<std::mutex> lock(mutex);
        return cycleTimes;
    }
    Bytes Received() {
        std::lock_guard<std::mutex> lock(mutex);
        return received;
    }
    std::vector<Bytes> Messages() {
        std::lock_guard<std::mutex> lock(mutex);
        return messages;
    }

    int Reads() {
        std::lock_guard<std::mutex> lock(mutex);
        return reads;
    }
    unsigned int LargestRead() {
        std::lock_guard<std::mutex> lock(mutex);
        return largestRead;
    }

    CMsgClientManage* Client() const { return m_pMsgClient; }
    unsigned int ModuleId() const { return m_moduleId; }
    CPeripheralManage* Manager() const { return m_pPeripheralManage; }

    std::mutex mutex;
    std::vector<long long> cycleTimes;
    Bytes received;
    unsigned int largestRead = 0;
    int reads = 0;
    std::vector<Bytes> messages;
    std::atomic<bool> overlap{false};
    bool answer = false;
    std::function<void()> gate;
    static inline std::atomic<int> deliveries{
        0};  // all probes, alive or not  // runs first in the handler (set before registering)

  private:
    void Enter() {
        if (m_inside.fetch_add(1) != 0) overlap = true;
    }
    void Leave() { m_inside.fetch_sub(1); }
    std::atomic<int> m_inside{0};
};

}  // namespace hosttest

// Helpers shared by the host-layer tests: a clean host layer, a host and a pseudo-terminal per
// test, a probe peripheral that records every call the host makes into it, a bus listener.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "CSerialBase.h"
#include "HostSim.h"

namespace hosttest {

using Bytes = std::vector<unsigned char>;

// Polls `done` in real time; true once it holds, false after `ms`. Generous by default: a
// loaded machine may be slow, a correct host is never wrong, and only a fault waits it out.
template <typename Done>
bool WaitUntil(Done done, int ms = 30000) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!done()) {
        if (std::chrono::steady_clock::now() >= limit) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

// Waits till thread `tid` blocks: a sleep or wait has taken its deadline, so time may move.
inline bool WaitBlocked(const std::atomic<pid_t>& tid) {
    return WaitUntil([&tid] {
        std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
        std::string line;
        std::getline(stat, line);  // "tid (name) S ..."
        return tid != 0 && line.find(") S ") != std::string::npos;
    });
}

inline bool Has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// A pseudo-terminal; the test plays the box on the master side. The slave stays in the kernel's
// cooked default, so only the host's own termios set-up can make the line raw; the test keeps a
// slave descriptor open so that the line never hangs up under the peripheral.
struct Pty {
    Pty() {
        char name[256] = {};
        if (openpty(&master, &slave, name, nullptr, nullptr) != 0) return;
        path = name;
        fcntl(master, F_SETFL, fcntl(master, F_GETFL) | O_NONBLOCK);
    }
    ~Pty() {
        if (master >= 0) close(master);
        if (slave >= 0) close(slave);
    }
    void WriteMaster(const Bytes& bytes) {
        for (size_t done = 0; done < bytes.size();) {
            const ssize_t n = write(master, bytes.data() + done, bytes.size() - done);
            if (n > 0) done += static_cast<size_t>(n);
            if (n <= 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));  // pty full
        }
    }
    // Reads from the master until `count` bytes came or the wait ran out.
    Bytes ReadMaster(size_t count) {
        Bytes out;
        unsigned char buf[4096];
        WaitUntil([&] {
            const ssize_t n = read(master, buf, sizeof(buf));
            if (n > 0) out.insert(out.end(), buf, buf + n);
            return out.size() >= count;
        });
        return out;
    }
    int master = -1;
    int slave = -1;
    std::string path;
};

// Records what the host does with a peripheral: cycles, serial reads, bus messages.
class Probe : public CSerialBase {
  public:
    static constexpr int kMsgId = 42;
    explicit Probe(CPeripheralManage* manage) : CSerialBase(manage, nullptr, 7, 0) {}

    int PeripheralThreadCycle(long long now) override {
        if (inside++ != 0) overlap = true;
        std::lock_guard<std::mutex> lock(mutex);
        cycles.push_back(now);
        --inside;
        return 0;
    }
    int ProcessPeripheralData() override {
        if (inside++ != 0) overlap = true;
        char buf[4096];
        unsigned int len = 0;
        const int rc = GetSerialBufferData(buf, len);
        std::lock_guard<std::mutex> lock(mutex);
        if (rc == 0) received.insert(received.end(), buf, buf + len);
        if (len > largestRead) largestRead = len;
        --inside;
        return 0;
    }
    int MessageRegister() override {
        return m_pMsgClient->MSGEventRegister(static_cast<int>(m_moduleId), kMsgId, this,
                                              static_cast<PeripheralMsgHandler>(&Probe::OnMsg));
    }
    int MessageUnRegister() override {
        return m_pMsgClient->MSGEventUnRegister(static_cast<int>(m_moduleId), kMsgId);
    }
    int OnMsg(const char* msg, int len) {
        deliveries.fetch_add(1);
        if (gate) gate();
        Common::SMessageHead head;
        std::memcpy(&head, msg, sizeof(head));
        m_pMsgClient->MSGResponseMessage(&head, "ok", 2);
        std::lock_guard<std::mutex> lock(mutex);
        messages.emplace_back(msg, msg + len);
        return 0;
    }
    // A copy of one of the recorded fields below, taken under the lock.
    template <typename T>
    T Get(const T& field) {
        std::lock_guard<std::mutex> lock(mutex);
        return field;
    }

    std::mutex mutex;
    std::vector<long long> cycles;
    Bytes received;
    unsigned int largestRead = 0;
    std::vector<Bytes> messages;
    std::atomic<int> inside{0};
    std::atomic<bool> overlap{false};  // a cycle and a read (or two of either) ran at once
    std::function<void()> gate;        // runs first in the handler (set before registering)
    static inline std::atomic<int> deliveries{0};  // to all probes, alive or not
};

// Everything the plug-in side puts on the bus, in order.
struct BusLog {
    BusLog() {
        token = hostsim::BusSubscribe([this](const hostsim::BusMessage& m) {
            std::lock_guard<std::mutex> lock(mutex);
            heard.push_back(m);
        });
    }
    ~BusLog() { hostsim::BusUnsubscribe(token); }
    // Drained twice: what handlers answer during a delivery is posted after the first began.
    std::vector<hostsim::BusMessage> Heard() {
        hostsim::BusDrain();
        hostsim::BusDrain();
        std::lock_guard<std::mutex> lock(mutex);
        return heard;
    }
    int token = 0;
    std::mutex mutex;
    std::vector<hostsim::BusMessage> heard;
};

class HostTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_GE(pty.master, 0); }
    void TearDown() override { host.Release(); }
    // A probe on `path` (default: the test's pty), driven by the host but not started.
    Probe* Attach(int baud = 115200, std::string path = "") {
        host.SetSerial(path.empty() ? pty.path : path, baud);
        auto* probe = new Probe(host.Manager());
        EXPECT_TRUE(host.Adopt(probe));
        return probe;
    }
    bool Idle() { return host.WaitPeripheralIdle(10000); }  // generous: the machine may be busy
    struct Clean {
        Clean() { hostsim::Reset(); }
    } clean;  // first: the members after it (a BusLog too) start on a clean host layer
    Pty pty;
    hostsim::PluginHost host;
};

}  // namespace hosttest

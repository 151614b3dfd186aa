// Shared fixture of the plug-in core tests: a fresh fake host and cycle timers per test.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "COBDCtrl.h"
#include "FakeHost.h"
#include "SerialDevOBD.h"
#include "CSerialDevOBDTestPeer.h"
#include "SerialDevOBDInternal.h"

class CoreTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fakehost::Reset();
        ObdCycleTimersReset();
    }
    void TearDown() override {
        // A held send thread could never acknowledge the destructor's stop request.
        fakehost::ReleaseThreads();
        if (m_obj != nullptr) {
            EXPECT_EQ(PeripheralRelease(m_obj), 1);
        }
        m_obj = nullptr;
        EXPECT_TRUE(fakehost::WaitThreadsExited(30000)) << "send thread outlived its object";
    }
    CSerialDevOBD* Create(int productType = 0) {
        fakehost::SetProductType(productType);
        m_obj = static_cast<CSerialDevOBD*>(PeripheralCreate(&m_manage, nullptr, 0, 0));
        return m_obj;
    }
    // Object with a link controller and no send thread.
    CSerialDevOBD* CreateWithCtrl(int productType = 0) {
        Create(productType);
        CSerialDevOBDTestPeer(m_obj).AttachCtrl();
        return m_obj;
    }
    // Polls `pred` in real time. Generous: only a fault waits it out, a busy machine never does.
    template <typename Pred>
    static bool WaitFor(Pred pred, int timeoutMs = 30000) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (!pred()) {
            if (std::chrono::steady_clock::now() > end) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return true;
    }

    CPeripheralManage m_manage;
    CSerialDevOBD* m_obj = nullptr;
};

// (taskType, cmd) pairs of the queue, front first.
inline std::vector<std::pair<uint32_t, uint32_t>> QueueKeys(CSerialDevOBD* obj) {
    std::vector<std::pair<uint32_t, uint32_t>> keys;
    for (const auto& t : obj->QueuedTasks()) keys.emplace_back(t.taskType, t.cmd);
    return keys;
}

inline std::pair<uint32_t, uint32_t> Get(uint32_t cmd) {
    return {TASK_TYPE_GET_INFO, cmd};
}
inline std::pair<uint32_t, uint32_t> Cfg(uint32_t cmd) {
    return {TASK_TYPE_CONFIG, cmd};
}

// The bus's 20-byte upgrade-state record.
inline std::vector<unsigned char> UpgradeState(int source, int state, int percent) {
    std::vector<unsigned char> b(20, 0);
    b[0] = static_cast<unsigned char>(source);
    b[1] = 7;
    b[2] = static_cast<unsigned char>(state);
    b[3] = static_cast<unsigned char>(percent);
    return b;
}

// The box as fast as can be: answers a request it answers (all but link, restart and jump) from
// inside the plug-in's write, before SendData returns; relayed frames of CAN-box mode too.
inline void AnswerAsTheBox(COBDCtrl* ctrl, int msgId, const std::vector<unsigned char>& sent) {
    const size_t at = msgId == MSG_CAN_BOX_OBD_DATA_OUT ? 4 : 0;  // after the relay's length
    if ((msgId != 0 && at == 0) || sent.size() < at + 10) return;
    const unsigned code = (unsigned{sent[at + 7]} << 8) | sent[at + 8];
    if (code == 0x2C10 || code == 0x2506 || code == 0x2114) return;
    const unsigned ack = code | 0x4000;
    const unsigned char seq = sent[at + 6], hi = static_cast<unsigned char>(ack >> 8),
                        lo = static_cast<unsigned char>(ack);
    std::vector<unsigned char> f = {0x55, 0xAA, 0xF8, 0xF0, 0x00, 0x05, seq, hi, lo, 0x00, 0x01};
    unsigned char x = 0;
    for (size_t i = 2; i < f.size(); ++i) x ^= f[i];
    f.push_back(x);
    ctrl->ReceiveData(f.data(), static_cast<int>(f.size()));
}

// "code/seq" of every frame that left, on the serial port or relayed on the bus, in order.
inline std::string FramesOut() {
    std::string out;
    auto add = [&out](const std::vector<unsigned char>& f, size_t at) {
        if (f.size() < at + 9) return;
        char item[16];
        std::snprintf(item, sizeof(item), "%s%02X%02X/%u", out.empty() ? "" : " ", f[at + 7],
                      f[at + 8], unsigned{f[at + 6]});
        out += item;
    };
    for (const auto& w : fakehost::SerialWrites()) add(w, 0);
    for (const auto& m : fakehost::Sends())
        if (m.id == MSG_CAN_BOX_OBD_DATA_OUT) add(m.payload, 4);
    return out;
}

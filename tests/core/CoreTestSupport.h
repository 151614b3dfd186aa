// Shared fixture of the plug-in core tests: a fresh fake host and cycle timers per test.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
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
        EXPECT_TRUE(fakehost::WaitThreadsExited(5000)) << "send thread outlived its object";
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
    template <typename Pred>
    static bool WaitFor(Pred pred, int timeoutMs = 3000) {
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

// Host clock, log and platform services.
#include <atomic>
#include <chrono>
#include <thread>

#include "CPeripheralManage.h"
#include "HostCommon.h"
#include "HostTestUtil.h"

namespace {

using hosttest::HostTest;
using hosttest::WaitUntil;

// ---- Clock ----

class ClockTest : public HostTest {};

TEST_F(ClockTest, SteppedSleepWakesExactlyAtItsDeadline) {
    hostsim::ClockUseStepped(1000);
    std::atomic<bool> woke{false};
    std::atomic<long long> wokeAt{-1};
    std::thread sleeper([&] {
        Common::P4X_TMSleepMicroSecond(250000);
        wokeAt = hostsim::ClockNowMs();
        woke = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(5));  // let it start sleeping
    hostsim::ClockAdvance(249);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(woke) << "woke 1 ms early";
    hostsim::ClockAdvance(1);
    EXPECT_TRUE(WaitUntil([&] { return woke.load(); }));
    sleeper.join();
    EXPECT_EQ(wokeAt, 1250);
}

TEST_F(ClockTest, JumpBackwardsNeitherWakesNorStrandsASleeper) {
    hostsim::ClockUseStepped(5000);
    std::atomic<bool> woke{false};
    std::thread sleeper([&] {
        Common::P4X_TMSleepMicroSecond(100000);
        woke = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    hostsim::ClockAdvance(40);
    ASSERT_TRUE(hostsim::ClockSet(1000));
    EXPECT_EQ(hostsim::ClockNowMs(), 1000);
    EXPECT_EQ(Common::P4X_TMGetSystemMicroSecond(), 1000000u);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_FALSE(woke);
    hostsim::ClockAdvance(59);  // 99 ms of the 100 have passed
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_FALSE(woke);
    hostsim::ClockAdvance(1);
    EXPECT_TRUE(WaitUntil([&] { return woke.load(); }));
    sleeper.join();
    EXPECT_EQ(hostsim::ClockNowMs(), 1060);
}

TEST_F(ClockTest, ForwardSetWakesLikeAnAdvance) {
    hostsim::ClockUseStepped(0);
    std::atomic<bool> woke{false};
    std::thread sleeper([&] {
        Common::P4X_TMSleepMicroSecond(2000000);  // a 2 s command timeout
        woke = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    hostsim::ClockSet(2000);
    EXPECT_TRUE(WaitUntil([&] { return woke.load(); }));
    sleeper.join();
}

TEST_F(ClockTest, ScaledClockShortensSleepsAndRunsFaster) {
    ASSERT_TRUE(hostsim::ClockUseScaled(50.0));
    const auto realStart = std::chrono::steady_clock::now();
    const long long hostStart = hostsim::ClockNowMs();
    Common::P4X_TMSleepMicroSecond(1000000);
    const auto realMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                            std::chrono::steady_clock::now() - realStart)
                            .count();
    EXPECT_GE(hostsim::ClockNowMs() - hostStart, 1000);
    EXPECT_GE(realMs, 15);   // 1000 / 50 = 20 ms, less a little rounding
    EXPECT_LT(realMs, 300);  // far from one real second
}

TEST_F(ClockTest, RejectsBadArguments) {
    EXPECT_FALSE(hostsim::ClockUseScaled(0.0));
    EXPECT_FALSE(hostsim::ClockUseScaled(-2.0));
    hostsim::ClockUseStepped(10);
    EXPECT_FALSE(hostsim::ClockAdvance(-1));
    EXPECT_FALSE(hostsim::ClockSet(-5));
    EXPECT_EQ(hostsim::ClockNowMs(), 10);
    EXPECT_EQ(hostsim::ClockGetMode(), hostsim::ClockMode::Stepped);
}

TEST_F(ClockTest, ShareTimeRunsFromTheWallStartWithHostTime) {
    hostsim::ClockUseStepped(0);
    // 2024-02-29 23:59:59.500 UTC: the next 600 ms cross a leap day, a month and a second.
    hostsim::ClockSetWallStart(1709251199500LL);
    Common::_datetime_ dt{};
    ASSERT_EQ(Common::P4X_TMGetShareTime(&dt), 0);
    EXPECT_EQ(dt.year, 24);
    EXPECT_EQ(dt.month, 2);
    EXPECT_EQ(dt.day, 29);
    EXPECT_EQ(dt.hour, 23);
    EXPECT_EQ(dt.minute, 59);
    EXPECT_EQ(dt.second, 59);
    EXPECT_EQ(dt.millisecond, 500);
    hostsim::ClockAdvance(600);
    ASSERT_EQ(Common::P4X_TMGetShareTime(&dt), 0);
    EXPECT_EQ(dt.month, 3);
    EXPECT_EQ(dt.day, 1);
    EXPECT_EQ(dt.hour, 0);
    EXPECT_EQ(dt.second, 0);
    EXPECT_EQ(dt.millisecond, 100);
    EXPECT_EQ(Common::P4X_TMGetSystemMicroSecond(), 600000u);
    EXPECT_EQ(Common::P4X_TMGetShareTime(nullptr), -1);
}

// ---- Log ----

struct Captured {
    std::mutex mutex;
    std::vector<std::string> lines;
    std::vector<int> levels;
    void Install() {
        hostsim::SetLogSink([this](int level, const std::string& line) {
            std::lock_guard<std::mutex> lock(mutex);
            lines.push_back(line);
            levels.push_back(level);
        });
    }
};

class LogTest : public HostTest {};

TEST_F(LogTest, FiltersByLevelAndNamesFileFunctionAndLine) {
    Captured cap;
    cap.Install();
    hostsim::SetLogLevel(1);
    Common::gclDebugPrintf(2, "a/src/COBDCtrl", "OBD_SendCmd", 120, "hidden %d", 1);
    Common::gclDebugPrintf(1, "a/src/COBDCtrl", "OBD_SendCmd", 123, "S38_OBD: x=%d\n", 5);
    Common::gclDebugPrintf(0, "SerialDevOBD", "Run", 7, "%s", "no newline");
    ASSERT_EQ(cap.lines.size(), 2u);
    EXPECT_EQ(cap.lines[0], "[L1 COBDCtrl:OBD_SendCmd:123] S38_OBD: x=5");
    EXPECT_EQ(cap.levels[0], 1);
    EXPECT_EQ(cap.lines[1], "[L0 SerialDevOBD:Run:7] no newline");
    hostsim::SetLogLevel(-1);
    Common::gclDebugPrintf(0, "f", "g", 1, "silenced");
    EXPECT_EQ(cap.lines.size(), 2u);
}

TEST_F(LogTest, HexDumpPrintsUpToTheDumpLevel) {
    Captured cap;
    cap.Install();
    hostsim::SetDumpLevel(2);
    CPeripheralManage manager;
    const char bytes[] = {0x00, 0x7E, static_cast<char>(0xFF), 0x0A};
    manager.hex_dump("obd data:", bytes, 4, 2);
    manager.hex_dump("one obd data:", bytes, 4, 3);  // above the dump level
    manager.hex_dump("empty:", nullptr, 5, 1);       // a null pointer never reads
    ASSERT_EQ(cap.lines.size(), 2u);
    EXPECT_EQ(cap.lines[0], "[D2] obd data: 00 7E FF 0A");
    EXPECT_EQ(cap.lines[1], "[D1] empty:");
}

TEST_F(LogTest, LinesFromManyThreadsStayWhole) {
    Captured cap;
    cap.Install();
    const std::string tail(600, 'x');  // longer than the formatter's first buffer
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t, &tail] {
            for (int i = 0; i < 200; ++i) {
                Common::gclDebugPrintf(0, "T", "f", t, "t%d i%d %s", t, i, tail.c_str());
            }
        });
    }
    for (auto& th : threads) th.join();
    ASSERT_EQ(cap.lines.size(), 800u);
    for (const auto& line : cap.lines) {
        ASSERT_EQ(line.compare(0, 3, "[L0"), 0) << line;
        ASSERT_EQ(line.size() - line.rfind(' ') - 1, tail.size()) << line;
    }
}

// ---- Platform ----

class PlatformTest : public HostTest {};

TEST_F(PlatformTest, ProductTypeIsTheConfiguredOneUntilReset) {
    eProductType type = PRODUCT_TYPE_UNKNOWN;
    EXPECT_EQ(P4X_GetProductType(type), 0);
    EXPECT_EQ(type, PRODUCT_TYPE_DEFAULT);
    hostsim::SetProductType(72);
    P4X_GetProductType(type);
    EXPECT_EQ(type, PRODUCT_TYPE_CAN_BOX);
    hostsim::Reset();
    P4X_GetProductType(type);
    EXPECT_EQ(type, PRODUCT_TYPE_DEFAULT);
}

std::atomic<int> g_workerRuns{0};
void* CountingWorker(void* arg) {
    g_workerRuns.fetch_add(*static_cast<int*>(arg));
    return nullptr;
}

TEST_F(PlatformTest, CreateNormalThreadRunsDetachedAndFailsOnDemand) {
    g_workerRuns = 0;
    int step = 1;
    unsigned long tid = 0;
    ASSERT_EQ(CreateNormalThread(CountingWorker, &step, &tid), 0);
    EXPECT_NE(tid, 0u);
    EXPECT_TRUE(WaitUntil([] { return g_workerRuns.load() == 1; }));

    hostsim::FailNextThreadCreates(1);
    EXPECT_LT(CreateNormalThread(CountingWorker, &step, nullptr), 0);
    ASSERT_EQ(CreateNormalThread(CountingWorker, &step, nullptr), 0);  // only the next one
    EXPECT_TRUE(WaitUntil([] { return g_workerRuns.load() == 2; }));
    EXPECT_LT(CreateNormalThread(nullptr, &step, nullptr), 0);
}

}  // namespace

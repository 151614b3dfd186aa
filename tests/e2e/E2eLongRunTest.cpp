// Long runs on virtual time: the plug-in, the host layer and the built-in box for two host hours
// (twenty minutes under the sanitizers, whose allocators keep freed memory on purpose, and under
// an emulator, where the process's memory is the emulator's).
#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <mutex>
#include <vector>

#include "BoxEmulator.h"
#include "BoxHostClock.h"
#include "HostCommon.h"
#include "HostSim.h"

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(OBD_TEST_EMULATED)
constexpr bool kMeasured = false;
#else
constexpr bool kMeasured = true;
#endif

long long RssBytes() {
    long long pages = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return resident * sysconf(_SC_PAGESIZE);
}

long long HeapBytes() {
    const struct mallinfo2 m = mallinfo2();
    return static_cast<long long>(m.uordblks + m.hblkhd);
}

void SleepUntil(long long hostMs) {
    while (hostsim::ClockNowMs() < hostMs) {
        const long long left = hostMs - hostsim::ClockNowMs();
        Common::P4X_TMSleepMicroSecond(static_cast<unsigned int>(std::min(left, 60000LL) * 1000));
    }
}

TEST(E2eLongRun, E2eHostHoursKeepMemoryFlatAndEverySecondHasItsBroadcasts) {
    const long long warmMs = 10 * 60 * 1000;
    const long long endMs = kMeasured ? 2 * 3600 * 1000 : 20 * 60 * 1000;
    hostsim::Reset();
    hostsim::SetLogSink([](int, const std::string&) {});
    // Per host second: how many OBD data (6702) and alarm (6720) broadcasts. Allocated before the
    // run, so that the test itself does not grow while it measures.
    const size_t seconds = static_cast<size_t>(endMs / 1000) + 2;
    std::vector<int> data(seconds), alarms(seconds);
    std::mutex mutex;
    const int token = hostsim::BusSubscribe([&](const hostsim::BusMessage& m) {
        const size_t s = static_cast<size_t>(m.tMs / 1000);
        if (m.response || s >= seconds) return;
        std::lock_guard<std::mutex> lock(mutex);
        if (m.id == 6702) ++data[s];
        if (m.id == 6720) ++alarms[s];
    });

    hostsim::ClockUseVirtual(0);
    hostsim::Participant self("test");
    self.Enter();
    auto peer = std::make_shared<hostsim::Participant>("box");
    obdbox::BoxOptions o;
    o.streamPeriodMs = 1000;
    o.linkPeriodMs = 5000;
    o.receivedKept = 64;
    o.clock = obdsim::BoxHostClock(peer);
    obdbox::BoxEmulator box(o);
    ASSERT_TRUE(box.Start()) << box.LastError();
    peer->ServeLine(box.SlavePath());
    auto host = std::make_unique<hostsim::PluginHost>();
    host->SetSerial(box.SlavePath());
    ASSERT_TRUE(host->Load(OBD_PLUGIN_PATH)) << host->LastError();
    ASSERT_EQ(host->Initialize(), 0);
    ASSERT_EQ(host->RegisterHandlers(), 0);
    ASSERT_TRUE(host->Start());

    SleepUntil(warmMs);
    const long long rssWarm = RssBytes(), heapWarm = HeapBytes();
    SleepUntil(endMs);
    const long long rssEnd = RssBytes(), heapEnd = HeapBytes();
    if (kMeasured) {
        // Measured: one page of RSS and 3 KB of heap over the 110 minutes. Keeping every frame
        // the box received would add about 400 KB.
        EXPECT_LT(rssEnd - rssWarm, 64 * 1024) << rssWarm << " -> " << rssEnd;
        EXPECT_LT(heapEnd - heapWarm, 16 * 1024) << heapWarm << " -> " << heapEnd;
    }
    EXPECT_EQ(box.Received().size(), 64u);
    EXPECT_GT(box.ReceivedTotal(), 64u * 4);
    int missing = 0;
    long long firstMissing = -1;
    {
        std::lock_guard<std::mutex> lock(mutex);
        for (size_t s = 1; s < static_cast<size_t>(endMs / 1000); ++s) {
            if (data[s] == 1 && alarms[s] == 1) continue;
            if (missing++ == 0) firstMissing = static_cast<long long>(s);
        }
    }
    EXPECT_EQ(missing, 0) << "first at host second " << firstMissing;

    EXPECT_EQ(host->Release(), 1);
    host.reset();
    box.Stop();
    hostsim::BusUnsubscribe(token);
    hostsim::Reset();
}

}  // namespace

// The host's wakeable wait (Common::CTMWaitEvent) on the host clock.
#include <sys/syscall.h>

#include "HostCommon.h"
#include "HostTestUtil.h"

namespace {

using namespace hosttest;

bool Ready(void* flag) {
    return static_cast<std::atomic<int>*>(flag)->load() != 0;
}

// Waits on `event` for `ms` of host time on a thread of its own, once it has blocked.
struct Waiter {
    Waiter(Common::CTMWaitEvent& event, std::atomic<int>& flag, unsigned int ms)
        : thread([&, ms] {
              tid = static_cast<pid_t>(syscall(SYS_gettid));
              result = event.WaitMicroSecond(ms * 1000, Ready, &flag) ? 1 : 0;
              at = hostsim::ClockNowMs();
          }) {
        EXPECT_TRUE(WaitBlocked(tid));
    }
    ~Waiter() {
        if (at < 0) hostsim::ClockAdvance(1LL << 30);
        thread.join();
    }
    bool Ended(int ms) {
        return WaitUntil([this] { return at >= 0; }, ms);
    }
    std::atomic<pid_t> tid{0};
    std::atomic<long long> at{-1};
    std::atomic<int> result{-1};
    std::thread thread;
};

// Stepped: a wait ends exactly at its deadline, like a sleep, unless a Notify finds its condition
// true; a Notify with the condition false changes nothing.
TEST_F(HostTest, WaitEventEndsAtItsDeadlineOrWhenNotifiedWithItsConditionTrue) {
    hostsim::ClockUseStepped(1000);
    Common::CTMWaitEvent event;
    std::atomic<int> flag{0};
    {
        Waiter w(event, flag, 250);
        hostsim::ClockAdvance(249);
        event.Notify();
        EXPECT_FALSE(w.Ended(30)) << "ended at " << w.at;
        hostsim::ClockAdvance(1);
        ASSERT_TRUE(w.Ended(5000));
        EXPECT_EQ(w.at, 1250);
        EXPECT_EQ(w.result, 0);
    }
    {
        Waiter w(event, flag, 2000);
        flag = 1;
        event.Notify();
        ASSERT_TRUE(w.Ended(5000));
        EXPECT_EQ(w.at, 1250);  // no host time passed
        EXPECT_EQ(w.result, 1);
    }
    EXPECT_TRUE(event.WaitMicroSecond(1000000, Ready, &flag));  // true at once: no wait
    // Scaled 100 times: 2 s of host time in about 20 ms.
    ASSERT_TRUE(hostsim::ClockUseScaled(100.0));
    flag = 0;
    const long long start = hostsim::ClockNowMs();
    EXPECT_FALSE(event.WaitMicroSecond(2000000, Ready, &flag));
    EXPECT_GE(hostsim::ClockNowMs() - start, 2000);
}

}  // namespace

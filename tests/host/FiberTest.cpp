// The host's threads as fibers on virtual time: the same turns as threads, and what a fiber
// may meet that a thread meets too (a join, a lock held elsewhere, a deep stack).
#include "HostCommon.h"
#include "HostTestUtil.h"

namespace {

using namespace hosttest;

// Whether this build runs fibers at all (a build with the thread sanitizer does not).
bool FibersBuilt() {
    hostsim::SetVirtualFibers(true);
    return hostsim::VirtualFibers();
}

struct Seen {
    void Note(const std::string& who) {
        std::lock_guard<std::mutex> lock(mutex);
        list.emplace_back(who, hostsim::ClockNowMs());
    }
    std::mutex mutex;
    std::vector<std::pair<std::string, long long>> list;
};

bool Fire(void* flag) {
    return std::exchange(*static_cast<bool*>(flag), false);
}

class FiberTurns : public HostTest, public ::testing::WithParamInterface<bool> {
  protected:
    void TearDown() override {
        HostTest::TearDown();
        hostsim::SetVirtualFibers(true);
    }
};

// Sleeps, kicks and an event's notify between three parties and the test: one order of turns
// whether each party is a fiber or a thread.
TEST_P(FiberTurns, TurnsComeInOneOrderWhateverRunsTheParties) {
    hostsim::SetVirtualFibers(GetParam());
    hostsim::ClockUseVirtual(0);
    hostsim::Participant self("test");
    self.Enter();
    Seen seen;
    Common::CTMWaitEvent event;
    bool fired = false;  // read and written in turns only
    hostsim::Participant a("a"), b("b"), c("c");
    hostsim::Thread ta("a", [&] {
        a.Enter();
        for (int i = 0; i < 3; ++i) {
            Common::P4X_TMSleepMicroSecond(100000);
            seen.Note("a");
            b.Kick();
        }
        a.Leave();
    });
    hostsim::Thread tb("b", [&] {
        b.Enter();
        for (int i = 0; i < 3; ++i) {
            b.Wait(-1, -1);
            seen.Note("b");
            fired = true;
            event.Notify();
        }
        b.Leave();
    });
    hostsim::Thread tc("c", [&] {
        c.Enter();
        for (int i = 0; i < 3; ++i) {
            seen.Note(event.WaitMicroSecond(250000, Fire, &fired) ? "c" : "c late");
        }
        c.Leave();
    });
    EXPECT_EQ(ta.OnFiber(), GetParam() && FibersBuilt());
    self.Run([&] {
        Common::P4X_TMSleepMicroSecond(300000);
        seen.Note("test");
        Common::P4X_TMSleepMicroSecond(1000);
    });
    ta.Join();
    tb.Join();
    tc.Join();
    // c's first wait starts at 0 and is notified at 100; the test, due at 300 since it went idle
    // before a, comes before a's third turn.
    EXPECT_EQ(seen.list, (std::vector<std::pair<std::string, long long>>{{"a", 100},
                                                                         {"b", 100},
                                                                         {"c", 100},
                                                                         {"a", 200},
                                                                         {"b", 200},
                                                                         {"c", 200},
                                                                         {"test", 300},
                                                                         {"a", 300},
                                                                         {"b", 300},
                                                                         {"c", 300}}));
}

INSTANTIATE_TEST_SUITE_P(ThreadsAndFibers, FiberTurns, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return std::string(info.param ? "Fibers" : "Threads");
                         });

TEST_F(HostTest, AThreadIsAFiberOnlyOnVirtualTimeWithFibersChosen) {
    const bool built = FibersBuilt();
    struct Row {
        bool virtualTime, chosen;
    };
    for (const Row& row : {Row{true, true}, Row{true, false}, Row{false, true}}) {
        hostsim::SetVirtualFibers(row.chosen);
        if (row.virtualTime) {
            hostsim::ClockUseVirtual(0);
        } else {
            hostsim::ClockUseStepped(0);
        }
        std::atomic<bool> ran{false};
        hostsim::Thread t("t", [&ran] { ran = true; });
        EXPECT_EQ(t.OnFiber(), built && row.virtualTime && row.chosen);
        t.Join();
        EXPECT_TRUE(ran.load());
        EXPECT_FALSE(t.Joinable());
    }
    hostsim::SetVirtualFibers(true);
}

// A fiber that joins another waits without blocking the carrier; a thread joins a fiber too.
TEST_F(HostTest, AFiberJoinsAnotherAndAThreadJoinsAFiber) {
    hostsim::ClockUseVirtual(0);
    hostsim::Participant self("test");
    self.Enter();
    Seen seen;
    hostsim::Participant outerPart("outer");
    hostsim::Thread outer("outer", [&] {
        outerPart.Enter();
        hostsim::Participant innerPart("inner");
        hostsim::Thread inner("inner", [&] {
            innerPart.Enter();
            Common::P4X_TMSleepMicroSecond(200000);
            seen.Note("inner");
            innerPart.Leave();
        });
        // Joining in its turn would keep the inner one from ever having one.
        outerPart.Leave();
        inner.Join();
        std::lock_guard<std::mutex> lock(seen.mutex);
        seen.list.emplace_back("outer", -1);
    });
    self.Run([] { Common::P4X_TMSleepMicroSecond(1000000); });
    outer.Join();
    EXPECT_EQ(seen.list,
              (std::vector<std::pair<std::string, long long>>{{"inner", 200}, {"outer", -1}}));
    EXPECT_EQ(hostsim::ClockNowMs(), 1000);
}

// A fiber that meets a lock a thread holds waits in the kernel, as a thread would, and the other
// fibers have their turns once it goes on.
TEST_F(HostTest, AFiberBlockedOnALockAThreadHoldsGoesOnWhenItIsReleased) {
    hostsim::ClockUseVirtual(0);
    std::mutex mutex;
    std::unique_lock<std::mutex> held(mutex);
    Seen seen;
    hostsim::Participant lockerPart("locker"), otherPart("other");
    hostsim::Thread locker("locker", [&] {
        lockerPart.Enter();
        std::lock_guard<std::mutex> lock(mutex);
        seen.Note("locked");
        lockerPart.Leave();
    });
    hostsim::Thread other("other", [&] {
        otherPart.Enter();
        Common::P4X_TMSleepMicroSecond(50000);
        seen.Note("other");
        otherPart.Leave();
    });
    held.unlock();
    locker.Join();
    other.Join();
    EXPECT_EQ(seen.list,
              (std::vector<std::pair<std::string, long long>>{{"locked", 0}, {"other", 50}}));
}

// The plug-in's threads get a thread's stack: two megabytes of frames fit.
TEST_F(HostTest, AFiberHasAThreadsStack) {
    hostsim::ClockUseVirtual(0);
    std::function<long(int)> deep = [&deep](int n) -> long {
        volatile char frame[4096];
        frame[0] = static_cast<char>(n);
        frame[sizeof(frame) - 1] = 1;
        return n == 0 ? frame[sizeof(frame) - 1] : deep(n - 1) + frame[sizeof(frame) - 1];
    };
    long depth = 0;
    hostsim::Thread t("deep", [&] { depth = deep(512); });
    t.Join();
    EXPECT_EQ(depth, 513);
}

}  // namespace

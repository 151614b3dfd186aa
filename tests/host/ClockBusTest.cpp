// Host clock, log and bus.
#include <sys/ioctl.h>
#include <sys/syscall.h>

#include "CPeripheralManage.h"
#include "HostCommon.h"
#include "HostTestUtil.h"

namespace {

using namespace hosttest;

// Sleeps `ms` of host time on a thread of its own; `at` becomes the host time it woke at.
struct Sleeper {
    explicit Sleeper(unsigned int ms)
        : thread([this, ms] {
              tid = static_cast<pid_t>(syscall(SYS_gettid));
              Common::P4X_TMSleepMicroSecond(ms * 1000);
              at = hostsim::ClockNowMs();
          }) {
        EXPECT_TRUE(WaitBlocked(tid));
    }
    ~Sleeper() {
        if (at < 0) hostsim::ClockAdvance(1LL << 30);  // never leave it behind
        thread.join();
    }
    bool WokeWithin(int ms) {
        return WaitUntil([this] { return at >= 0; }, ms);
    }
    std::atomic<pid_t> tid{0};
    std::atomic<long long> at{-1};
    std::thread thread;  // last: starts once the fields it uses exist
};

TEST_F(HostTest, SteppedSleepWakesExactlyAtItsDeadline) {
    hostsim::ClockUseStepped(1000);
    {
        Sleeper s(250);
        hostsim::ClockAdvance(249);
        EXPECT_FALSE(s.WokeWithin(30)) << "woke at " << s.at;
        hostsim::ClockAdvance(1);
        ASSERT_TRUE(s.WokeWithin(5000));
        EXPECT_EQ(s.at, 1250);
    }
    {
        Sleeper s(2000);  // a forward set wakes like an advance
        ASSERT_TRUE(hostsim::ClockSet(3250));
        ASSERT_TRUE(s.WokeWithin(5000));
        EXPECT_EQ(s.at, 3250);
    }
    // Set backwards: the time reported goes back, the sleep still needs the 60 ms it had left.
    Sleeper s(100);
    hostsim::ClockAdvance(40);
    ASSERT_TRUE(hostsim::ClockSet(1000));
    EXPECT_EQ(Common::P4X_TMGetSystemMicroSecond(), 1000000u);
    hostsim::ClockAdvance(59);
    EXPECT_FALSE(s.WokeWithin(30)) << "woke at " << s.at;
    hostsim::ClockAdvance(1);
    ASSERT_TRUE(s.WokeWithin(5000));
    EXPECT_EQ(s.at, 1060);
}

TEST_F(HostTest, ScaledSleepsAreShorterAndBadClockArgumentsAreRefused) {
    EXPECT_FALSE(hostsim::ClockUseScaled(0.0));
    ASSERT_TRUE(hostsim::ClockUseScaled(1000.0));
    const auto realStart = std::chrono::steady_clock::now();
    const long long hostStart = hostsim::ClockNowMs();
    Common::P4X_TMSleepMicroSecond(20000000);
    EXPECT_GE(hostsim::ClockNowMs() - hostStart, 20000);
    // 20 ms; unscaled it would take 20 s, which no busy machine comes near for 20 ms.
    EXPECT_LT(std::chrono::steady_clock::now() - realStart, std::chrono::seconds(10));
    hostsim::ClockUseStepped(10);
    EXPECT_FALSE(hostsim::ClockAdvance(-1) || hostsim::ClockSet(-5));
    EXPECT_EQ(hostsim::ClockNowMs(), 10);
}

// How far the host fell behind its pace: a wait that ends past its deadline on a running clock
// counts (a jump makes this one 50 s late); choosing a mode starts the count again, and the
// frozen clocks wait for the work, so nothing on them is ever late.
TEST_F(HostTest, LatenessIsCountedOnARunningClockOnly) {
    ASSERT_TRUE(hostsim::ClockUseScaled(1.0));
    {
        Sleeper s(10000);
        hostsim::ClockAdvance(60000);
        ASSERT_TRUE(s.WokeWithin(5000));
    }
    EXPECT_GE(hostsim::ClockMaxLateMs(), 50000);
    EXPECT_LT(hostsim::ClockMaxLateMs(), 55000);
    hostsim::ClockUseStepped(0);
    EXPECT_EQ(hostsim::ClockMaxLateMs(), 0);
    Sleeper s(250);
    hostsim::ClockAdvance(1000);
    ASSERT_TRUE(s.WokeWithin(5000));
    EXPECT_EQ(hostsim::ClockMaxLateMs(), 0);
}

// ---- Virtual time ----

TEST_F(HostTest, VirtualTimeStandsWhileAParticipantRunsAndJumpsToTheEarliestDeadline) {
    hostsim::ClockUseVirtual(1000);
    hostsim::Participant self("test");
    self.Enter();
    std::mutex mutex;
    std::vector<std::pair<std::string, long long>> seen;
    auto note = [&](const std::string& who) {
        std::lock_guard<std::mutex> lock(mutex);
        seen.emplace_back(who, hostsim::ClockNowMs());
    };
    // Registered here, in this order: their first turns come in this order.
    hostsim::Participant late("late"), early("early");
    auto run = [&](hostsim::Participant& p, const std::string& name, unsigned int ms) {
        return std::thread([&p, &note, name, ms] {
            p.Enter();
            Common::P4X_TMSleepMicroSecond(ms * 1000);
            note(name);
            std::this_thread::sleep_for(std::chrono::milliseconds(20));  // busy in real time
            note(name);
            p.Leave();
        });
    };
    std::thread a = run(late, "late", 300), b = run(early, "early", 200);
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(hostsim::ClockNowMs(), 1000);  // the test still has its turn
    Common::P4X_TMSleepMicroSecond(500000);
    note("test");
    a.join();
    b.join();
    EXPECT_EQ(
        seen,
        (std::vector<std::pair<std::string, long long>>{
            {"early", 1200}, {"early", 1200}, {"late", 1300}, {"late", 1300}, {"test", 1500}}));
}

// A wait whose real timeout passes before its turn, taken up again, keeps its place among those
// due at the same instant: on a slow machine (qemu) the built-in box's 20 ms re-waits once let the
// plug-in's send thread and cycle swap turns, and two runs at max speed differed.
TEST_F(HostTest, VirtualWaitTakenUpAgainKeepsItsPlaceInTheOrderOfTurns) {
    hostsim::ClockUseVirtual(0);
    hostsim::Participant self("test");
    self.Enter();
    hostsim::Participant impatient("impatient"), patient("patient");
    std::mutex mutex;
    std::vector<std::string> seen;
    auto run = [&](hostsim::Participant& p, const std::string& name, int realMs) {
        return std::thread([&p, &mutex, &seen, name, realMs] {
            p.Enter();
            while (!p.Wait(100, realMs)) {
            }
            std::lock_guard<std::mutex> lock(mutex);
            seen.push_back(name);
            p.Leave();
        });
    };
    std::thread a = run(impatient, "impatient", 1), b = run(patient, "patient", 5000);
    Common::P4X_TMSleepMicroSecond(50000);  // both go idle for 100, the impatient one first
    std::this_thread::sleep_for(std::chrono::milliseconds(30));  // its real timeouts pass
    Common::P4X_TMSleepMicroSecond(150000);
    a.join();
    b.join();
    EXPECT_EQ(seen, (std::vector<std::string>{"impatient", "patient"}));
}

TEST_F(HostTest, VirtualTimeStandsWithNothingPendingAndKicksAndSleepersWakeOnTime) {
    hostsim::ClockUseVirtual(0);
    {
        hostsim::Participant p("p");
        p.Enter();
        // Nothing anywhere has a deadline: host time stands, the wait ends by its real limit.
        EXPECT_FALSE(p.Wait(-1, 30));
        EXPECT_EQ(hostsim::ClockNowMs(), 0);
        ASSERT_TRUE(p.Wait(250, 5000));
        EXPECT_EQ(hostsim::ClockNowMs(), 250);
        // Kicked: its turn comes at the same instant.
        std::thread kicker([&p] {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            p.Kick();
        });
        EXPECT_TRUE(p.Wait(-1, 5000));
        EXPECT_EQ(hostsim::ClockNowMs(), 250);
        kicker.join();
    }
    // A thread that takes no part is still woken exactly at its deadline.
    long long at = -1;
    std::thread([&at] {
        Common::P4X_TMSleepMicroSecond(400000);
        at = hostsim::ClockNowMs();
    }).join();
    EXPECT_EQ(at, 650);
}

TEST_F(HostTest, VirtualCyclesKeepTheirGridAndLineBytesAreReadBeforeTimeMoves) {
    hostsim::ClockUseVirtual(0);
    hostsim::Participant box("box");
    box.Enter();
    box.ServeLine(pty.path);
    Probe* probe = Attach();
    ASSERT_TRUE(host.Start());
    Common::P4X_TMSleepMicroSecond(1000000);
    // The box went idle first, so at 1000 it runs before the cycle due then.
    EXPECT_EQ(probe->Get(probe->cycles),
              (std::vector<long long>{0, 100, 200, 300, 400, 500, 600, 700, 800, 900}));
    for (size_t i = 1; i <= 3; ++i) {
        pty.WriteMaster({'a', 'b', 'c'});
        box.LineWrote(3);  // returns once the peripheral has read them
        EXPECT_EQ(probe->Get(probe->received).size(), 3 * i);
    }
    EXPECT_EQ(probe->Get(probe->largestRead), 3u);  // one read per write
    EXPECT_EQ(hostsim::ClockNowMs(), 1000);
    // Bytes nobody counted (written to the tty behind the host's back) are read before time
    // moves on too.
    pty.WriteMaster({'x', 'y'});
    int pending = 0;  // the pty moves them to the slave side asynchronously
    ASSERT_TRUE(WaitUntil([&] {
        return (ioctl(pty.slave, FIONREAD, &pending) == 0 && pending == 2) ||
               probe->Get(probe->received).size() == 11;
    }));
    Common::P4X_TMSleepMicroSecond(1000);
    EXPECT_EQ(probe->Get(probe->received).size(), 11u);
    EXPECT_EQ(hostsim::ClockNowMs(), 1001);
}

TEST_F(HostTest, ShareTimeRunsWithHostTimeAndLogLinesKeepTheirForm) {
    hostsim::ClockUseStepped(0);
    // 2024-02-29 23:59:59.500 UTC: the next 600 ms cross a leap day, a month and a second.
    hostsim::ClockSetWallStart(1709251199500LL);
    hostsim::ClockAdvance(600);
    Common::_datetime_ t{};
    ASSERT_EQ(Common::P4X_TMGetShareTime(&t), 0);
    EXPECT_EQ(std::vector<int>({t.year, t.month, t.day, t.hour, t.minute, t.second, t.millisecond}),
              std::vector<int>({24, 3, 1, 0, 0, 0, 100}));

    std::mutex mutex;
    std::vector<std::string> lines;
    hostsim::SetLogSink([&](int level, const std::string& line) {
        std::lock_guard<std::mutex> lock(mutex);
        lines.push_back(std::to_string(level) + line);
    });
    hostsim::SetDumpLevel(2);
    const std::string tail(600, 'x');  // longer than the formatter's first buffer
    Common::gclDebugPrintf(2, "a/src/COBDCtrl", "OBD_SendCmd", 120, "hidden %d", 1);
    Common::gclDebugPrintf(1, "a/src/COBDCtrl", "OBD_SendCmd", 123, "S38_OBD: x=%d\n", 5);
    Common::gclDebugPrintf(0, "SerialDevOBD", "Run", 7, "%s", tail.c_str());
    const char bytes[] = {0x00, 0x7E, static_cast<char>(0xFF), 0x0A};
    CPeripheralManage manager;
    manager.hex_dump("obd data:", bytes, 4, 2);
    manager.hex_dump("one obd data:", bytes, 4, 3);  // above the dump level
    manager.hex_dump("empty:", nullptr, 5, 1);       // a null pointer is never read
    hostsim::SetLogSink(nullptr);
    EXPECT_EQ(lines, std::vector<std::string>({"1[L1 COBDCtrl:OBD_SendCmd:123] S38_OBD: x=5",
                                               "0[L0 SerialDevOBD:Run:7] " + tail,
                                               "2[D2] obd data: 00 7E FF 0A", "1[D1] empty:"}));
}

// ---- Bus ----

class BusTest : public HostTest {
  protected:
    void SetUp() override {
        HostTest::SetUp();
        probe = Attach();
        ASSERT_EQ(host.RegisterHandlers(), 0);
    }
    Probe* probe = nullptr;
    BusLog bus;
};

TEST_F(BusTest, HandlersGetHeadAndPayloadAndAllThatIsSentIsHeardInOrder) {
    hostsim::ClockUseStepped(4321);
    hostsim::BusInject(Probe::kMsgId + 1, {1});  // nobody registered
    const int seq = hostsim::BusInject(Probe::kMsgId, {0xA1, 0x00, 0xFF});
    hostsim::BusInject(Probe::kMsgId, {});
    hostsim::BusDrain();
    const uint32_t head[4] = {Probe::kMsgId, 1, static_cast<uint32_t>(seq), 3};  // sender 1
    Bytes expected(reinterpret_cast<const unsigned char*>(head),
                   reinterpret_cast<const unsigned char*>(head + 4));
    expected.insert(expected.end(), {0xA1, 0x00, 0xFF});
    const auto msgs = probe->Get(probe->messages);
    ASSERT_EQ(msgs.size(), 2u);
    EXPECT_EQ(msgs[0], expected);
    EXPECT_EQ(msgs[1].size(), 16u);  // the head alone
    for (char i = 0; i < 20; ++i) {
        char buffer[2] = {i, 0};
        ASSERT_EQ(host.Client()->MSGSendMessage(0, 6699, 0, buffer, 2, 0), 0);
        buffer[0] = -1;  // the bus must have its own copy
        hostsim::ClockAdvance(10);
    }
    const auto heard = bus.Heard();
    ASSERT_EQ(heard.size(), 22u);
    // The handler's answers, each with the id and sequence number it answers.
    EXPECT_TRUE(heard[0].response && heard[0].payload == Bytes({'o', 'k'}));
    EXPECT_EQ(heard[0].id, Probe::kMsgId);
    EXPECT_EQ(heard[0].seq, static_cast<unsigned int>(seq));
    EXPECT_EQ(heard[1].seq, static_cast<unsigned int>(seq) + 1);
    EXPECT_EQ(heard[0].tMs, 4321);
    for (int i = 0; i < 20; ++i) {
        const hostsim::BusMessage& m = heard[static_cast<size_t>(i) + 2];
        EXPECT_EQ(m.payload, Bytes({static_cast<unsigned char>(i), 0}));
        EXPECT_TRUE(!m.response && m.id == 6699 && m.tMs == 4321 + i * 10) << i;
    }
}

TEST_F(BusTest, UnregisterWaitsForTheRunningHandlerAndStopsDelivery) {
    std::atomic<bool> inHandler{false}, release{false}, unregistered{false};
    probe->gate = [&] {
        inHandler = true;
        while (!release) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    };
    hostsim::BusInject(Probe::kMsgId, {1});
    ASSERT_TRUE(WaitUntil([&] { return inHandler.load(); }));
    std::thread t([&] {
        EXPECT_EQ(probe->MessageUnRegister(), 0);
        unregistered = true;
    });
    EXPECT_FALSE(WaitUntil([&] { return unregistered.load(); }, 30)) << "handler still running";
    release = true;
    t.join();
    hostsim::BusInject(Probe::kMsgId, {2});
    hostsim::BusDrain();
    EXPECT_EQ(probe->Get(probe->messages).size(), 1u);
}

TEST_F(BusTest, BadArgumentsAreRefusedAndReleaseDropsLeftoverHandlers) {
    CMsgClientManage* client = host.Client();
    EXPECT_EQ(client->MSGSendMessage(0, 5, 0, "x", -1, 0), -1);
    EXPECT_EQ(client->MSGSendMessage(0, 5, 0, nullptr, 3, 0), -1);
    EXPECT_EQ(client->MSGResponseMessage(nullptr, "x", 1), -1);
    EXPECT_EQ(hostsim::BusInject(7, Bytes(Common::MSG_HEAD_LEN_MASK + 1)), -1);
    EXPECT_TRUE(bus.Heard().empty());
    // A handler the plug-in "forgets" to unregister: only the host's clean-up keeps the bus
    // from calling into the deleted object.
    const auto handler = static_cast<PeripheralMsgHandler>(&Probe::OnMsg);
    EXPECT_EQ(client->MSGEventRegister(static_cast<int>(host.ModuleId()), 77, nullptr, handler),
              -1);
    client->MSGEventRegister(static_cast<int>(host.ModuleId()), 77, probe, handler);
    host.Release();
    const int before = Probe::deliveries;
    hostsim::BusInject(77, {1});
    hostsim::BusInject(Probe::kMsgId, {1});
    hostsim::BusDrain();
    EXPECT_EQ(Probe::deliveries, before);
}

}  // namespace

// The serial base on a real pseudo-terminal, the peripheral thread that drives it, and the real
// plug-in driven through both in the recorder's order.
#include <sys/ioctl.h>
#include <termios.h>

#include <tuple>

#include "HostTestUtil.h"

namespace {

using namespace hosttest;

Bytes Pattern(size_t size, unsigned int step) {
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<unsigned char>(i * step);
    return bytes;
}

TEST_F(HostTest, LineIsTransparentBothWays) {
    Probe* probe = Attach();
    ASSERT_TRUE(host.Start());
    // Every byte value, NUL, XON/XOFF, CR/LF, ^C among them, which a cooked line eats or
    // translates; then a frame larger than the pty's buffer, so that a send has to be resumed.
    Bytes fromBox;
    for (const Bytes& data : {Pattern(256, 1), Pattern(20000, 7)}) {
        pty.WriteMaster(data);
        fromBox.insert(fromBox.end(), data.begin(), data.end());
        WaitUntil([&] { return probe->Get(probe->received).size() >= fromBox.size(); });
        ASSERT_TRUE(probe->Get(probe->received) == fromBox) << data.size() << " bytes from the box";
        Bytes toBox;
        std::thread box([&] { toBox = pty.ReadMaster(data.size()); });
        EXPECT_EQ(probe->SendDataToPeripheral(reinterpret_cast<const char*>(data.data()),
                                              static_cast<unsigned int>(data.size())),
                  static_cast<int>(data.size()));
        box.join();
        EXPECT_TRUE(toBox == data) << data.size() << " bytes to the box";
    }
}

TEST_F(HostTest, ReadsStayWithinTheMaximumAndNeverOverlapACycle) {
    ASSERT_TRUE(hostsim::ClockUseScaled(100.0));
    Probe* probe = Attach();
    probe->SetThreadCircleTime(10);    // a cycle every 0.1 ms of real time
    probe->SetSerialMaxBufferSize(8);  // many small reads between the cycles
    ASSERT_TRUE(host.Start());
    const Bytes sent = Pattern(2000, 13);
    pty.WriteMaster(sent);
    WaitUntil([&] {
        return probe->Get(probe->received).size() >= sent.size() &&
               probe->Get(probe->cycles).size() > 20;
    });
    EXPECT_EQ(probe->Get(probe->received), sent);
    EXPECT_LE(probe->Get(probe->largestRead), 8u);
    EXPECT_GT(probe->Get(probe->cycles).size(), 20u);
    EXPECT_FALSE(probe->overlap);
}

// The host hands over all it reads, so clearing its buffer must not touch the bytes that
// arrived after the last read: they begin the next frames.
TEST_F(HostTest, ClearKeepsInputNotYetRead) {
    Probe* probe = Attach();  // not started: the test reads itself
    pty.WriteMaster({1, 2, 3, 4});
    int pending = 0;
    ASSERT_TRUE(
        WaitUntil([&] { return ioctl(pty.slave, FIONREAD, &pending) == 0 && pending == 4; }));
    EXPECT_EQ(probe->ClearSerialBufferValue(), 0);
    char buf[16];
    unsigned int len = 0;
    EXPECT_EQ(probe->GetSerialBufferData(buf, len), 0);
    EXPECT_EQ(Bytes(buf, buf + len), (Bytes{1, 2, 3, 4}));
}

TEST_F(HostTest, PortIsOpenedAtItsBaudOrTheReasonIsReported) {
    for (const auto& [path, baud, error] : std::vector<std::tuple<std::string, int, std::string>>{
             {"", 9600, ""},
             {"", 12345, "unsupported baud rate 12345"},
             {"/nonexistent/ttyOBD", 115200, "/nonexistent/ttyOBD: No such"}}) {
        Probe* probe = Attach(baud, path);
        EXPECT_TRUE(error.empty() ? host.SerialOpenError().empty()
                                  : Has(host.SerialOpenError(), error))
            << baud << ": " << host.SerialOpenError();
        EXPECT_EQ(probe->SendDataToPeripheral("ab", 2), error.empty() ? 2 : -1);
        ASSERT_TRUE(host.Start());  // the cycle runs with or without a port
        EXPECT_TRUE(WaitUntil([&] { return !probe->Get(probe->cycles).empty(); }));
        host.Release();
    }
    termios tio{};  // 8N1 at the first case's speed; raw shows in the transparency test
    ASSERT_EQ(tcgetattr(pty.slave, &tio), 0);
    EXPECT_EQ(cfgetospeed(&tio), static_cast<speed_t>(B9600));
    EXPECT_EQ(tio.c_cflag & (CSIZE | PARENB | CSTOPB | CRTSCTS), static_cast<tcflag_t>(CS8));
}

TEST_F(HostTest, OneCyclePerPeriodAtHostTimeUntilStopped) {
    hostsim::ClockUseStepped(10000);
    Probe* probe = Attach();
    probe->SetThreadCircleTime(100);
    EXPECT_EQ(probe->StopPeripheralThread(), 0);  // never started
    ASSERT_TRUE(host.Start());
    EXPECT_FALSE(host.Start());  // already running
    ASSERT_TRUE(Idle());
    const auto step = [&](long long ms) {
        hostsim::ClockAdvance(ms);
        ASSERT_TRUE(Idle());
    };
    // In 10 ms steps: a cycle exactly on each period and never in between.
    for (int i = 0; i < 30; ++i) step(10);
    EXPECT_EQ(probe->Get(probe->cycles), std::vector<long long>({10000, 10100, 10200, 10300}));
    // A long jump gives one call at the new time, not a burst, and the period runs from there.
    step(1000);
    step(99);
    step(1);
    // Set backwards: the new time is reported once the 60 ms left of the period have passed.
    step(40);
    ASSERT_TRUE(hostsim::ClockSet(1000));
    step(59);
    step(1);
    const std::vector<long long> cycles = {10000, 10100, 10200, 10300, 11300, 11400, 1060};
    EXPECT_EQ(probe->Get(probe->cycles), cycles);
    EXPECT_EQ(host.CycleCount(), 7);

    EXPECT_EQ(probe->StopPeripheralThread(), 0);
    hostsim::ClockAdvance(1000);
    pty.WriteMaster({1, 2, 3});
    std::this_thread::sleep_for(std::chrono::milliseconds(30));  // a chance to go wrong
    EXPECT_EQ(probe->Get(probe->cycles), cycles);
    EXPECT_TRUE(probe->Get(probe->received).empty());
    EXPECT_EQ(probe->StopPeripheralThread(), 0);
}

TEST_F(HostTest, RunsTheRealPluginThroughItsTimersAndReleasesIt) {
    hostsim::SetLogLevel(-1);  // its start and stop lines are not under test here
    hostsim::ClockUseStepped(0);
    host.SetSerial(pty.path);
    ASSERT_TRUE(host.Load(OBD_BIN_DIR "/libSerialDevOBD.so")) << host.LastError();
    EXPECT_EQ(host.Initialize(), 0);
    EXPECT_EQ(host.RegisterHandlers(), 0);
    ASSERT_TRUE(host.Start());
    ASSERT_TRUE(Idle());             // the first cycle, at host time 0
    for (int i = 0; i < 120; ++i) {  // 12 s of host time: every timer of the cycle falls due
        hostsim::ClockAdvance(100);
        ASSERT_TRUE(Idle());
    }
    EXPECT_EQ(host.CycleCount(), 121);
    // Its shutdown handshake sleeps on host time: Release has to keep the stepped clock moving.
    EXPECT_EQ(host.Release(), 1);
    EXPECT_EQ(host.LastSerialConfigStatus(), 6);
}

}  // namespace

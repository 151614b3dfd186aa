// The serial base on a real pseudo-terminal, and the peripheral thread on the stepped clock.
#include <termios.h>

#include <memory>

#include "HostTestUtil.h"

namespace {

using hosttest::Bytes;
using hosttest::HostTest;
using hosttest::ProbePeripheral;
using hosttest::Pty;
using hosttest::WaitUntil;

class SerialTest : public HostTest {
  protected:
    void SetUp() override {
        HostTest::SetUp();
        ASSERT_TRUE(pty.Ok());
    }
    // A probe on the pty, driven by the host (not started).
    ProbePeripheral* Attach(int baud = 115200) {
        host.SetSerial(pty.path, baud);
        auto* probe = new ProbePeripheral(host.Manager());
        EXPECT_TRUE(host.Adopt(probe));
        return probe;
    }
    Pty pty;
    hostsim::PluginHost host;
};

TEST_F(SerialTest, BoxBytesArriveInReadsNoLargerThanTheMaximum) {
    ProbePeripheral* probe = Attach();
    EXPECT_EQ(host.SerialOpenError(), "");
    probe->SetSerialMaxBufferSize(64);
    ASSERT_TRUE(host.Start());
    Bytes sent(1000);
    for (size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<unsigned char>(i * 7);
    pty.WriteMaster(sent);
    ASSERT_TRUE(WaitUntil([&] { return probe->Received().size() >= sent.size(); }));
    EXPECT_EQ(probe->Received(), sent);
    EXPECT_LE(probe->LargestRead(), 64u);
    EXPECT_GE(probe->Reads(), 16);  // 1000 bytes cannot fit in fewer 64-byte reads
}

TEST_F(SerialTest, RawLinePassesControlBytesUnchangedBothWays) {
    ProbePeripheral* probe = Attach();
    ASSERT_TRUE(host.Start());
    // NUL, XON, XOFF, CR, LF, DEL, ^C, ^Z, ^D: each would be eaten or translated by a cooked tty.
    const Bytes special = {0x00, 0x11, 0x13, 0x0D, 0x0A, 0x7F, 0x03, 0x1A, 0x04, 0xFF};
    pty.WriteMaster(special);
    ASSERT_TRUE(WaitUntil([&] { return probe->Received().size() >= special.size(); }));
    EXPECT_EQ(probe->Received(), special);

    EXPECT_EQ(probe->SendDataToPeripheral(reinterpret_cast<const char*>(special.data()),
                                          static_cast<unsigned int>(special.size())),
              static_cast<int>(special.size()));
    EXPECT_EQ(pty.ReadMaster(special.size()), special);
}

TEST_F(SerialTest, SendWritesEveryByte) {
    ProbePeripheral* probe = Attach();
    Bytes frame(3000);
    for (size_t i = 0; i < frame.size(); ++i) frame[i] = static_cast<unsigned char>(i);
    std::thread reader([&] { EXPECT_EQ(pty.ReadMaster(frame.size()), frame); });
    EXPECT_EQ(probe->SendDataToPeripheral(reinterpret_cast<const char*>(frame.data()), 3000u),
              3000);
    reader.join();
    EXPECT_EQ(probe->SendDataToPeripheral(nullptr, 0), 0);
    EXPECT_EQ(probe->SendDataToPeripheral(nullptr, 4), -1);
}

TEST_F(SerialTest, ClearDiscardsPendingInput) {
    ProbePeripheral* probe = Attach();
    pty.WriteMaster({1, 2, 3, 4});
    ASSERT_TRUE(pty.SlaveReadable());
    EXPECT_EQ(probe->ClearSerialBufferValue(), 0);
    char buf[16];
    unsigned int len = 99;
    EXPECT_EQ(probe->GetSerialBufferData(buf, len), 0);
    EXPECT_EQ(len, 0u);
    pty.WriteMaster({5});
    ASSERT_TRUE(pty.SlaveReadable());
    ASSERT_TRUE(WaitUntil([&] {
        probe->GetSerialBufferData(buf, len);
        return len > 0;
    }));
    EXPECT_EQ(len, 1u);
    EXPECT_EQ(buf[0], 5);
}

TEST_F(SerialTest, PortIsRaw8N1WithoutFlowControlAtTheConfiguredBaud) {
    Attach(9600);
    termios tio{};
    ASSERT_EQ(tcgetattr(pty.slave, &tio), 0);
    EXPECT_EQ(cfgetospeed(&tio), static_cast<speed_t>(B9600));
    EXPECT_EQ(tio.c_cflag & CSIZE, static_cast<tcflag_t>(CS8));
    EXPECT_EQ(tio.c_cflag & (PARENB | CSTOPB | CRTSCTS), 0u);
    EXPECT_EQ(tio.c_lflag & (ICANON | ECHO | ISIG | IEXTEN), 0u);
    EXPECT_EQ(tio.c_iflag & (IXON | IXOFF | ICRNL | INLCR | IGNCR), 0u);
    EXPECT_EQ(tio.c_oflag & OPOST, 0u);
}

TEST_F(SerialTest, UnsupportedBaudIsReportedAsOpenError) {
    ProbePeripheral* probe = Attach(12345);
    EXPECT_NE(host.SerialOpenError().find("unsupported baud rate 12345"), std::string::npos);
    EXPECT_EQ(probe->SendDataToPeripheral("x", 1), -1);
}

TEST_F(SerialTest, MissingTtyIsReportedAndEveryCallFailsSafely) {
    host.SetSerial("/nonexistent/ttyOBD");
    auto* probe = new ProbePeripheral(host.Manager());
    ASSERT_TRUE(host.Adopt(probe));
    EXPECT_NE(host.SerialOpenError().find("/nonexistent/ttyOBD"), std::string::npos);
    char buf[8];
    unsigned int len = 5;
    EXPECT_EQ(probe->GetSerialBufferData(buf, len), -1);
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(probe->SendDataToPeripheral("ab", 2), -1);
    EXPECT_EQ(probe->ClearSerialBufferValue(), 0);
    ASSERT_TRUE(host.Start());  // runs its cycle without a port
    EXPECT_TRUE(WaitUntil([&] { return !probe->Cycles().empty(); }));
}

TEST_F(SerialTest, ConfigStatusIsRecordedPerManager) {
    ProbePeripheral* probe = Attach();
    EXPECT_EQ(host.LastSerialConfigStatus(), -1);
    probe->SetSerialConfigStatus(5, 1, 2);
    probe->SetSerialConfigStatus(7, 0, 0);
    EXPECT_EQ(host.LastSerialConfigStatus(), 7);
    EXPECT_EQ(host.SerialConfigStatusCount(), 2);
}

// ---- Peripheral thread ----

class PeripheralThreadTest : public SerialTest {};

TEST_F(PeripheralThreadTest, OneCycleEveryPeriodWithNowEqualToHostTime) {
    hostsim::ClockUseStepped(10000);
    ProbePeripheral* probe = Attach();
    probe->SetThreadCircleTime(100);
    ASSERT_TRUE(host.Start());
    ASSERT_TRUE(host.WaitPeripheralIdle());
    EXPECT_EQ(probe->Cycles(), std::vector<long long>({10000}));  // at once on start
    for (int i = 1; i <= 5; ++i) {
        hostsim::ClockAdvance(100);
        ASSERT_TRUE(host.WaitPeripheralIdle());
        ASSERT_EQ(probe->Cycles().size(), static_cast<size_t>(i + 1));
        EXPECT_EQ(probe->Cycles().back(), hostsim::ClockNowMs());
    }
    hostsim::ClockAdvance(99);
    ASSERT_TRUE(host.WaitPeripheralIdle());
    EXPECT_EQ(probe->Cycles().size(), 6u) << "a cycle 1 ms early";
    hostsim::ClockAdvance(1);
    ASSERT_TRUE(host.WaitPeripheralIdle());
    EXPECT_EQ(probe->Cycles().back(), 10600);
    // A long jump gives one call at the new time, not a burst of catch-up calls.
    hostsim::ClockAdvance(1000);
    ASSERT_TRUE(host.WaitPeripheralIdle());
    EXPECT_EQ(probe->Cycles().size(), 8u);
    EXPECT_EQ(probe->Cycles().back(), 11600);
    hostsim::ClockAdvance(100);
    ASSERT_TRUE(host.WaitPeripheralIdle());
    EXPECT_EQ(probe->Cycles().back(), 11700);
    EXPECT_EQ(host.CycleCount(), 9);
    EXPECT_FALSE(probe->overlap);
}

TEST_F(PeripheralThreadTest, ClockSetBackwardsReportsTheNewTimeAfterTheRemainingPeriod) {
    hostsim::ClockUseStepped(5000);
    ProbePeripheral* probe = Attach();
    ASSERT_TRUE(host.Start());
    ASSERT_TRUE(host.WaitPeripheralIdle());
    hostsim::ClockAdvance(40);
    hostsim::ClockSet(1000);
    ASSERT_TRUE(host.WaitPeripheralIdle());
    EXPECT_EQ(probe->Cycles().size(), 1u);
    hostsim::ClockAdvance(60);
    ASSERT_TRUE(host.WaitPeripheralIdle());
    EXPECT_EQ(probe->Cycles(), std::vector<long long>({5000, 1060}));
}

TEST_F(PeripheralThreadTest, StopReturnsWithNoFurtherCallsAndIsSafeTwice) {
    hostsim::ClockUseStepped(0);
    ProbePeripheral* probe = Attach();
    EXPECT_EQ(probe->StopPeripheralThread(), 0);  // never started
    ASSERT_TRUE(host.Start());
    EXPECT_FALSE(host.Start());  // already running
    ASSERT_TRUE(host.WaitPeripheralIdle());
    EXPECT_EQ(probe->StopPeripheralThread(), 0);
    const size_t cycles = probe->Cycles().size();
    const int reads = probe->Reads();
    hostsim::ClockAdvance(1000);
    pty.WriteMaster({1, 2, 3});
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(probe->Cycles().size(), cycles);
    EXPECT_EQ(probe->Reads(), reads);
    EXPECT_EQ(probe->StopPeripheralThread(), 0);
}

TEST_F(PeripheralThreadTest, CyclesAndSerialCallsNeverOverlap) {
    ASSERT_TRUE(hostsim::ClockUseScaled(100.0));
    ProbePeripheral* probe = Attach();
    probe->SetThreadCircleTime(10);
    probe->SetSerialMaxBufferSize(8);  // many small reads interleaved with cycles
    ASSERT_TRUE(host.Start());
    for (int i = 0; i < 50; ++i) {
        pty.WriteMaster(Bytes(40, static_cast<unsigned char>(i)));
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ASSERT_TRUE(WaitUntil([&] { return probe->Received().size() >= 2000; }));
    EXPECT_GT(probe->Cycles().size(), 5u);
    EXPECT_FALSE(probe->overlap);
}

TEST_F(PeripheralThreadTest, HungUpLineDoesNotSpinTheThread) {
    hostsim::ClockUseStepped(0);
    ProbePeripheral* probe = Attach();
    ASSERT_TRUE(host.Start());
    ASSERT_TRUE(host.WaitPeripheralIdle());
    close(pty.master);  // the box side disappears
    pty.master = -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const int reads = probe->Reads();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_LE(probe->Reads() - reads, 1);  // at most one look per cycle, and no cycle is due
    hostsim::ClockAdvance(100);
    EXPECT_TRUE(WaitUntil([&] { return probe->Cycles().size() == 2; }));
}

}  // namespace

// PluginHost: loading through dlopen and driving a plug-in in the recorder's order.
#include "HostTestUtil.h"

namespace {

using hosttest::Bytes;
using hosttest::HostTest;
using hosttest::Pty;
using hosttest::WaitUntil;

class PluginHostTest : public HostTest {
  protected:
    void SetUp() override {
        HostTest::SetUp();
        ASSERT_TRUE(pty.Ok());
        token = hostsim::BusSubscribe([this](const hostsim::BusMessage& m) {
            std::lock_guard<std::mutex> lock(mutex);
            heard.push_back(m);
        });
    }
    void TearDown() override {
        hostsim::BusUnsubscribe(token);
        HostTest::TearDown();
    }
    std::vector<hostsim::BusMessage> Heard() {
        std::lock_guard<std::mutex> lock(mutex);
        return heard;
    }
    Pty pty;
    int token = 0;
    std::mutex mutex;
    std::vector<hostsim::BusMessage> heard;
};

TEST_F(PluginHostTest, DrivesAPluginLikeTheRecorderOnTheSteppedClock) {
    hostsim::ClockUseStepped(0);
    hostsim::PluginHost host;
    host.SetSerial(pty.path);
    ASSERT_TRUE(host.Load(HOST_TEST_PLUGIN)) << host.LastError();
    ASSERT_NE(host.Object(), nullptr);
    EXPECT_EQ(host.SerialOpenError(), "");
    ASSERT_EQ(host.Initialize(), 0);
    EXPECT_EQ(pty.ReadMaster(5), Bytes({'H', 'E', 'L', 'L', 'O'}));
    ASSERT_EQ(host.RegisterHandlers(), 0);
    ASSERT_TRUE(host.Start());

    const int seq = hostsim::BusInject(100, {'a', 'b', 'c'});
    hostsim::BusDrain();
    hostsim::BusDrain();
    pty.WriteMaster({0x7E, 0x00, 0x0D});  // echoed back by the plug-in's ProcessPeripheralData
    EXPECT_EQ(pty.ReadMaster(3), Bytes({0x7E, 0x00, 0x0D}));

    const auto msgs = Heard();
    ASSERT_EQ(msgs.size(), 2u);
    EXPECT_FALSE(msgs[0].response);
    EXPECT_EQ(msgs[0].id, 500);
    EXPECT_EQ(msgs[0].payload, Bytes({'i', 'n', 'i', 't'}));
    EXPECT_TRUE(msgs[1].response);
    EXPECT_EQ(msgs[1].id, 100);
    EXPECT_EQ(msgs[1].seq, static_cast<unsigned int>(seq));
    EXPECT_EQ(msgs[1].payload, Bytes({'c', 'b', 'a'}));

    // The destructor's handshake with its worker sleeps on host time; Release keeps it moving.
    const auto realStart = std::chrono::steady_clock::now();
    EXPECT_EQ(host.Release(), 1);
    EXPECT_LT(std::chrono::steady_clock::now() - realStart, std::chrono::seconds(2));
    EXPECT_EQ(host.Object(), nullptr);
    EXPECT_EQ(host.LastSerialConfigStatus(), 6);
    EXPECT_EQ(host.Release(), 0);  // nothing loaded any more
}

TEST_F(PluginHostTest, InitializeFailsWhenNoThreadCanBeStarted) {
    hostsim::PluginHost host;
    host.SetSerial(pty.path);
    ASSERT_TRUE(host.Load(HOST_TEST_PLUGIN)) << host.LastError();
    hostsim::FailNextThreadCreates(1);
    EXPECT_EQ(host.Initialize(), -1);
    EXPECT_FALSE(host.PeripheralStatusOk());
    EXPECT_EQ(host.Release(), 1);
}

TEST_F(PluginHostTest, LoadReportsAMissingLibraryOrEntryPoint) {
    hostsim::PluginHost host;
    EXPECT_FALSE(host.Load("/nonexistent/libNothing.so"));
    EXPECT_FALSE(host.LastError().empty());
    // The host layer itself has no PeripheralCreate.
    EXPECT_FALSE(host.Load(OBD_BIN_DIR "/libobdhost.so"));
    EXPECT_NE(host.LastError().find("PeripheralCreate"), std::string::npos);
    EXPECT_EQ(host.Object(), nullptr);
    EXPECT_EQ(host.Initialize(), -1);
    EXPECT_FALSE(host.Start());
}

TEST_F(PluginHostTest, RunsTheRealPluginThroughItsTimersAndReleasesIt) {
    hostsim::SetLogLevel(-1);  // its start and stop lines are not under test here
    hostsim::ClockUseStepped(0);
    hostsim::PluginHost host;
    host.SetSerial(pty.path);
    ASSERT_TRUE(host.Load(OBD_BIN_DIR "/libSerialDevOBD.so")) << host.LastError();
    EXPECT_EQ(host.Initialize(), 0);
    EXPECT_EQ(host.RegisterHandlers(), 0);
    ASSERT_TRUE(host.Start());
    ASSERT_TRUE(host.WaitPeripheralIdle());  // the first cycle, at host time 0
    for (int i = 0; i < 120; ++i) {  // 12 s of host time: every timer of the cycle falls due
        hostsim::ClockAdvance(100);
        ASSERT_TRUE(host.WaitPeripheralIdle());
    }
    EXPECT_EQ(host.CycleCount(), 121);
    EXPECT_EQ(host.Release(), 1);
    EXPECT_EQ(host.LastSerialConfigStatus(), 6);
}

}  // namespace

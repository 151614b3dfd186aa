// Entry points, construction, initialisation and release as the host drives them.
#include "CoreTestSupport.h"

namespace {

const char* const kDevFile =
    "basicservice/basebusiness/SerialPortManage/SerialDevOBD/src/SerialDevOBD";

TEST_F(CoreTest, CreateAsksForTheCycleAndBufferAndLogsStart) {
    CSerialDevOBD* obj = Create();
    ASSERT_NE(obj, nullptr);
    EXPECT_EQ(fakehost::CircleTime(), 100u);
    EXPECT_EQ(fakehost::MaxBufferSize(), 1024u);
    EXPECT_FALSE(obj->IsCanBoxMode());
    EXPECT_EQ(obj->ObdCtrl(), nullptr);
    for (int i = 1; i < INFO_PENDING_COUNT; ++i) EXPECT_EQ(obj->InfoPending(i), 1) << i;
    const auto logs = fakehost::Logs();
    ASSERT_EQ(logs.size(), 1u);
    EXPECT_EQ(logs[0].level, 0);
    EXPECT_EQ(logs[0].file, kDevFile);
    EXPECT_EQ(logs[0].text, "S38_OBD: **CSerialDevOBD** is start!!!\n");
    // Nothing of the plug-in runs yet.
    EXPECT_EQ(fakehost::ThreadsStarted(), 0);
    // Only product type 72 selects CAN-box mode.
    PeripheralRelease(m_obj);
    EXPECT_TRUE(Create(72)->IsCanBoxMode());
    PeripheralRelease(m_obj);
    EXPECT_FALSE(Create(71)->IsCanBoxMode());
}

TEST_F(CoreTest, ReleaseStopsHostThreadBeforeDestructionAndNeverWaitsWithoutSendThread) {
    EXPECT_EQ(PeripheralRelease(nullptr), 1);  // touches nothing
    EXPECT_TRUE(fakehost::Events().empty());
    Create();
    EXPECT_EQ(PeripheralRelease(m_obj), 1);
    m_obj = nullptr;
    const std::vector<std::string> expected = {"StopPeripheralThread", "SetSerialConfigStatus:6",
                                               "~CSerialBase"};
    EXPECT_EQ(fakehost::Events(), expected);
    EXPECT_EQ(fakehost::SleepCalls(), 0u) << "destructor waited for a send thread that never ran";
    EXPECT_EQ(fakehost::CountLogs("S38_OBD: **CSerialDevOBD** is destruct!!!\n", 0), 1);
}

TEST_F(CoreTest, InitialiseStartsSendThreadAndQueuesStartOfDataStream) {
    fakehost::HoldThreads(true);
    CSerialDevOBD* obj = Create();
    ASSERT_EQ(obj->PeripheralInitialize(), 0);
    EXPECT_NE(obj->ObdCtrl(), nullptr);
    EXPECT_EQ(fakehost::ThreadsStarted(), 1);
    EXPECT_EQ(QueueKeys(obj), (std::vector<std::pair<uint32_t, uint32_t>>{Cfg(GDS_CFG_START_TS)}));
    EXPECT_TRUE(fakehost::PeripheralStatus());
    // The store holds the analyser's default thresholds from the start.
    CSerialDevOBDTestPeer peer(obj);
    EXPECT_EQ(peer.StoredThresholds(), peer.AnalyserThresholds());
    EXPECT_NE(peer.StoredThresholds(), std::vector<unsigned char>(GDS_THRESHOLD_BYTES, 0));
}

TEST_F(CoreTest, InitialiseWithoutSendThreadFailsQueuesNothingAndReleasesWithoutWaiting) {
    fakehost::FailThreadCreation(true);
    CSerialDevOBD* obj = Create();
    testing::internal::CaptureStdout();
    EXPECT_EQ(obj->PeripheralInitialize(), -1);
    EXPECT_NE(testing::internal::GetCapturedStdout().find(
                  "S38_OBD: Create [MsgSendThreadEntry] thread failed"),
              std::string::npos);
    EXPECT_EQ(obj->QueuedTaskCount(), 0u);
    EXPECT_EQ(PeripheralRelease(m_obj), 1);
    m_obj = nullptr;
    EXPECT_EQ(fakehost::SleepCalls(), 0u);
}

TEST_F(CoreTest, ReleaseDuringSixAxisCalibrationFreesItsBuffer) {
    // The sanitizer build's leak check is what fails here if the buffer outlives the object.
    CSerialDevOBD* obj = Create();
    ASSERT_EQ(obj->PeripheralInitialize(), 0);
    ASSERT_EQ(CSerialDevOBDTestPeer(obj).StartCalibration(), 0);
}

// Nobody reads the box's answers once the host thread is stopped: the task in hand gives up at
// its next poll instead of sending its 21 remaining attempts first.
TEST_F(CoreTest, ReleaseOfABusyPlugInSendsNoFurtherAttempt) {
    // Host time stands: the start task's stop of the stream waits for an answer that never comes
    // until the release ends the wait, however late this thread looks.
    fakehost::AttachAnswerer(true);
    CSerialDevOBD* obj = Create();
    ASSERT_EQ(obj->PeripheralInitialize(), 0);
    ASSERT_TRUE(WaitFor([] { return !fakehost::SerialWrites().empty(); }));
    for (int i = 1; i <= 14; ++i) obj->Request(static_cast<GdsGetInfoType_t_>(i));
    EXPECT_EQ(PeripheralRelease(m_obj), 1);  // tasks left in the queue are dropped with it
    m_obj = nullptr;
    EXPECT_TRUE(fakehost::WaitThreadsExited(30000));
    EXPECT_EQ(fakehost::SerialWrites().size(), 1u);                     // the stop, once
    for (const auto& w : fakehost::TimedWaits()) EXPECT_TRUE(w.ready);  // ended by the release
}

}  // namespace

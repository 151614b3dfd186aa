// The send-task queue: twin replacement, overflow rule, accepted ranges, periodic requests, and
// the send thread draining it.
#include <cstring>

#include "CoreTestSupport.h"

namespace {

using Keys = std::vector<std::pair<uint32_t, uint32_t>>;

TaskBody_t MakeTask(uint32_t type, uint32_t cmd) {
    TaskBody_t t;
    std::memset(&t, 0, sizeof(t));
    t.taskType = type;
    t.cmd = cmd;
    return t;
}

class QueueTest : public CoreTest {
  protected:
    void SetUp() override {
        CoreTest::SetUp();
        CreateWithCtrl();
    }
};

TEST_F(QueueTest, RepeatedTaskReplacesItsOlderTwinAndMovesToTheBack) {
    ASSERT_EQ(m_obj->Request(GDS_GET_ENGINE), 0);
    ASSERT_EQ(m_obj->Request(GDS_GET_VERSION), 0);
    ASSERT_EQ(m_obj->Request(GDS_GET_ENGINE), 0);
    EXPECT_EQ(QueueKeys(m_obj), (Keys{Get(GDS_GET_VERSION), Get(GDS_GET_ENGINE)}));
    // Size counted before the removal and before the new task is added.
    EXPECT_EQ(fakehost::CountLogs("S38_OBD: Same cmd, delete the old, type = 131072, cmd = 4, "
                                  "size = 2\n",
                                  1),
              1);
}

TEST_F(QueueTest, ReplacementKeepsTheNewerPayload) {
    _OBD_Engine_t first{}, second{};
    first.engine_id = 0x1111;
    second.engine_id = 0x2222;
    ASSERT_EQ(m_obj->ConfigObd(GDS_CFG_ENGINE, &first), 0);
    ASSERT_EQ(m_obj->ConfigObd(GDS_CFG_ENGINE, &second), 0);
    const auto tasks = m_obj->QueuedTasks();
    ASSERT_EQ(tasks.size(), 1u);
    _OBD_Engine_t queued;
    std::memcpy(&queued, tasks[0].data, sizeof(queued));
    EXPECT_EQ(queued.engine_id, 0x2222);
}

TEST_F(QueueTest, SameCommandOfAnotherTypeIsNotATwin) {
    m_obj->Request(GDS_GET_ENGINE);
    m_obj->ConfigObd(static_cast<GdsCfgType_t_>(4), nullptr);
    EXPECT_EQ(QueueKeys(m_obj), (Keys{Get(4), Cfg(4)}));
    EXPECT_EQ(fakehost::CountLogs("Same cmd"), 0);
}

TEST_F(QueueTest, InsertionBeyondOneHundredTasksEmptiesTheQueue) {
    for (uint32_t i = 0; i < TASK_QUEUE_LIMIT; ++i) {
        m_obj->InsertSendTask(MakeTask(TASK_TYPE_CONFIG, 1000 + i));
    }
    ASSERT_EQ(m_obj->QueuedTaskCount(), 100u);
    EXPECT_EQ(fakehost::CountLogs("send buffer is to large"), 0);
    // A twin at 100 keeps the size.
    m_obj->InsertSendTask(MakeTask(TASK_TYPE_CONFIG, 1050));
    EXPECT_EQ(m_obj->QueuedTaskCount(), 100u);
    // A new task at 100: everything goes, the new one too.
    m_obj->InsertSendTask(MakeTask(TASK_TYPE_CONFIG, 5000));
    EXPECT_EQ(m_obj->QueuedTaskCount(), 0u);
    EXPECT_EQ(fakehost::CountLogs(
                  "S38_OBD: &&&&&&&& WARNING &&&&&&&&&&&&, send buffer is to large\n\n", 0),
              1);
}

TEST_F(QueueTest, RequestAndConfigRefuseOutOfRangeTypes) {
    EXPECT_EQ(m_obj->Request(static_cast<GdsGetInfoType_t_>(0)), -1);
    EXPECT_EQ(m_obj->Request(static_cast<GdsGetInfoType_t_>(15)), -1);
    EXPECT_EQ(m_obj->ConfigObd(static_cast<GdsCfgType_t_>(0), nullptr), -1);
    EXPECT_EQ(m_obj->ConfigObd(static_cast<GdsCfgType_t_>(31), nullptr), -1);
    EXPECT_EQ(m_obj->ConfigObd(GDS_CFG_ENGINE, nullptr), -1);  // nothing to configure
    EXPECT_EQ(m_obj->QueuedTaskCount(), 0u);
    EXPECT_EQ(m_obj->Request(static_cast<GdsGetInfoType_t_>(14)), 0);
    EXPECT_EQ(m_obj->ConfigObd(static_cast<GdsCfgType_t_>(30), nullptr), 0);
    EXPECT_EQ(QueueKeys(m_obj), (Keys{Get(14), Cfg(30)}));
}

TEST_F(QueueTest, DeviceFeatureRequestAsksOnlyForWhatIsMissing) {
    ASSERT_EQ(m_obj->RequestGdsDevFeature(), 0);
    ASSERT_EQ(m_obj->RequestGdsDevFeature(), 0);
    EXPECT_EQ(QueueKeys(m_obj), (Keys{Get(GDS_GET_VERSION), Get(GDS_GET_ENGINE)}));
    EXPECT_EQ(m_obj->InfoPending(GDS_GET_ALARM_THRESHOLD), 0);

    CSerialDevOBDTestPeer(m_obj).ClearQueue();
    _OBD_Version_t version{};
    std::strcpy(version.DLVer, "1.0");
    m_obj->UpdateDevInfo(ID_DATA_VERSION, &version);
    m_obj->RequestGdsDevFeature();
    EXPECT_EQ(QueueKeys(m_obj), (Keys{Get(GDS_GET_ENGINE)}));
}

TEST_F(QueueTest, NothingIsQueuedWithoutLinkController) {
    PeripheralRelease(m_obj);
    m_obj = nullptr;
    Create();
    EXPECT_EQ(m_obj->Request(GDS_GET_VERSION), -1);
    EXPECT_EQ(m_obj->ConfigObd(GDS_CFG_START_TS, nullptr), -1);
    EXPECT_EQ(m_obj->QueuedTaskCount(), 0u);
}

TEST_F(QueueTest, SendThreadTakesOneTaskPerPeriodUntilTheQueueIsEmpty) {
    PeripheralRelease(m_obj);
    m_obj = nullptr;
    Create();
    ASSERT_EQ(m_obj->PeripheralInitialize(), 0);
    for (int i = 1; i <= 5; ++i) m_obj->Request(static_cast<GdsGetInfoType_t_>(i));
    ASSERT_TRUE(WaitFor([&] { return m_obj->QueuedTaskCount() == 0; }));
    // Six tasks (the initial start and five reads) cost at least six 100 ms sleeps.
    EXPECT_GE(fakehost::SleptUs(), 6u * 100000u);
}

// The send thread against a box that answers from inside the write. Each answered command leaves
// once, so the awaited command was stored before its frame left. In CAN-box mode only the
// version read and the start of the stream run; the others take no sequence number. A twin queued
// while its task runs replaces it without costing the task queued behind it.
TEST_F(CoreTest, SendThreadRunsEachTaskOnceInQueueOrder) {
    struct Case {
        int productType;
        Keys queued, queuedWhileFirstRuns;
        std::string frames;
    };
    const std::vector<Case> cases = {
        {0, {Get(4)}, {}, "2C04/1 2C12/2 2C01/3"},
        {72, {Get(4), Get(1), Cfg(29), Cfg(4)}, {}, "2105/1 2C01/2 2C01/3"},
        {0,
         {Cfg(29)},
         {Cfg(27), Cfg(29)},
         "2C04/1 2C01/2 2C04/3 2506/4 2506/4 2C01/5 2C04/6 2C01/7"},
    };
    for (const Case& c : cases) {
        fakehost::Reset();
        fakehost::HoldThreads(true);
        ASSERT_EQ(Create(c.productType)->PeripheralInitialize(), 0);
        CSerialDevOBDTestPeer(m_obj).ClearQueue();
        for (const auto& [type, cmd] : c.queued) m_obj->InsertSendTask(MakeTask(type, cmd));
        bool first = true;
        fakehost::SetSendHook([&](int msgId, const std::vector<unsigned char>& sent) {
            if (first)
                for (const auto& [type, cmd] : c.queuedWhileFirstRuns)
                    m_obj->InsertSendTask(MakeTask(type, cmd));
            first = false;
            AnswerAsTheBox(m_obj->ObdCtrl(), msgId, sent);
        });
        fakehost::ReleaseThreads();
        EXPECT_TRUE(WaitFor([&] { return m_obj->QueuedTaskCount() == 0; }));
        EXPECT_EQ(FramesOut(), c.frames) << c.productType;
        PeripheralRelease(m_obj);
        m_obj = nullptr;
    }
}

TEST_F(QueueTest, InsertionsFromManyThreadsLoseNothing) {
    std::vector<std::thread> producers;
    for (uint32_t t = 0; t < 4; ++t) {
        producers.emplace_back([this, t] {
            for (uint32_t i = 0; i < 20; ++i) m_obj->InsertSendTask(MakeTask(t + 1, i));
        });
    }
    for (auto& p : producers) p.join();
    EXPECT_EQ(m_obj->QueuedTaskCount(), 80u);
}

}  // namespace

// The send-task queue: twin replacement, overflow rule, accepted ranges, periodic requests, and
// the send thread draining it.
#include <cstring>
#include <functional>
#include <string>

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

// A twin is the same command of the same type: the newer task takes its place with its payload
// (a repeated request does not lose its turn). The logged size is counted before the
// replacement. Each timer's repeated requests keep their order: a version read asked for every
// 5 s stays ahead of the 10 s start and link tasks queued after it, whatever the order of the
// ticks.
TEST_F(QueueTest, RepeatedTaskTakesItsWaitingTwinsPlaceWithItsPayload) {
    _OBD_Engine_t first{}, second{};
    first.engine_id = 0x1111;
    second.engine_id = 0x2222;
    ASSERT_EQ(m_obj->ConfigObd(GDS_CFG_ENGINE, &first), 0);
    ASSERT_EQ(m_obj->Request(static_cast<GdsGetInfoType_t_>(GDS_CFG_ENGINE)), 0);  // not a twin
    EXPECT_EQ(fakehost::CountLogs("Same cmd"), 0);
    ASSERT_EQ(m_obj->Request(GDS_GET_ENGINE), 0);
    ASSERT_EQ(m_obj->ConfigObd(GDS_CFG_ENGINE, &second), 0);
    ASSERT_EQ(m_obj->Request(GDS_GET_ENGINE), 0);
    EXPECT_EQ(QueueKeys(m_obj), (Keys{Cfg(1), Get(1), Get(GDS_GET_ENGINE)}));
    EXPECT_EQ(fakehost::CountLogs("S38_OBD: Same cmd, delete the old, type = 131072, cmd = 4, "
                                  "size = 3\n",
                                  1),
              1);
    _OBD_Engine_t queued;
    std::memcpy(&queued, m_obj->QueuedTasks()[0].data, sizeof(queued));
    EXPECT_EQ(queued.engine_id, 0x2222);

    CSerialDevOBDTestPeer(m_obj).ClearQueue();
    for (int s = 0; s <= 15; s += 5) {
        m_obj->Request(GDS_GET_VERSION);
        if (s % 10 != 0) continue;
        m_obj->ConfigObd(GDS_CFG_START_TS, nullptr);
        m_obj->ConfigObd(GDS_CFG_LINK, nullptr);
    }
    EXPECT_EQ(QueueKeys(m_obj),
              (Keys{Get(GDS_GET_VERSION), Cfg(GDS_CFG_START_TS), Cfg(GDS_CFG_LINK)}));
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
    // Nothing is queued without a link controller.
    PeripheralRelease(m_obj);
    Create();
    EXPECT_EQ(m_obj->Request(GDS_GET_VERSION), -1);
    EXPECT_EQ(m_obj->ConfigObd(GDS_CFG_START_TS, nullptr), -1);
    EXPECT_EQ(m_obj->QueuedTaskCount(), 0u);
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

// An accepted upgrade whose task never runs (a refused path, a queue overflow that takes it,
// before or with the trigger, a CAN box that does not run upgrades) ends as failed, once, with the
// percent it had; its slot says so and the cycle's 1 s work comes back. The task in hand when the
// queue overflows runs on and ends by itself; a path at the limit is queued.
TEST_F(CoreTest, UpgradeWhoseTaskNeverRunsEndsAsFailed) {
    using Bytes = std::vector<unsigned char>;
    auto overflow = [](CSerialDevOBD* obj) {
        for (uint32_t i = 0; i < TASK_QUEUE_LIMIT; ++i)
            obj->InsertSendTask(MakeTask(TASK_TYPE_CONFIG, 1000 + i));
    };
    auto trigger = [](CSerialDevOBD*) {
        fakehost::Deliver(MSG_TRIGGER_PERIPHERAL_UPGRADE, {1, 1, 7, 2});
    };
    auto refuse = [](size_t length) {
        return [length](CSerialDevOBD* obj) {
            CSerialDevOBDTestPeer(obj).SetUpgrading(1);  // as the trigger leaves it
            const std::string path(length, 'a');
            EXPECT_EQ(obj->UpgradeObd(length == 0 ? nullptr : path.c_str()),
                      length > 64 || length == 0 ? -1 : 0);
        };
    };
    struct Case {
        const char* name;
        int productType;
        bool sendThread;
        std::vector<std::function<void(CSerialDevOBD*)>> steps;
        int overflows;
        int lostLogs;   // "upgrade task not run"
        Bytes failure;  // the one failure broadcast; empty: still upgrading
    };
    const Bytes source0 = {0, 7, 9, 0}, source1 = {1, 7, 9, 0};
    const std::vector<Case> cases = {
        {"null path", 0, false, {refuse(0)}, 0, 1, source0},
        {"path of 65", 0, false, {refuse(65)}, 0, 1, source0},
        {"path of 64", 0, false, {refuse(64)}, 0, 0, {}},
        {"overflow after the trigger", 0, false, {trigger, overflow}, 1, 1, source1},
        {"overflow by the trigger", 0, false, {overflow, trigger}, 1, 1, source1},
        {"can box", 72, true, {trigger}, 0, 1, source1},
        {"overflow while it runs", 0, true, {trigger}, 1, 0, source1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        fakehost::Reset();
        ObdCycleTimersReset();
        ObdUpgradePercentReset();
        // The box answers all but the upgrade's start; the transfer's first frame overflows the
        // queue, and the start, unanswered, fails the transfer on its own.
        bool overflowed = false;
        fakehost::SetSendHook([&](int msgId, const std::vector<unsigned char>& sent) {
            if (msgId == 0 && sent.size() > 8 && sent[7] == 0x24 && sent[8] == 0x07) {
                if (!overflowed) overflow(m_obj);
                overflowed = true;
                return;
            }
            AnswerAsTheBox(m_obj->ObdCtrl(), msgId, sent);
        });
        if (c.sendThread) {
            ASSERT_EQ(Create(c.productType)->PeripheralInitialize(), 0);
        } else {
            CreateWithCtrl(c.productType);
        }
        m_obj->MessageRegister();
        for (const auto& step : c.steps) step(m_obj);
        if (!c.failure.empty()) {
            EXPECT_TRUE(WaitFor([&] { return !m_obj->IsUpgrading(); }));
        }
        Bytes failure;
        int failures = 0;
        for (const auto& m : fakehost::Sends()) {
            if (m.id != MSG_PERIPHERAL_UPGRADE_STATE || m.payload.at(2) != 9) continue;
            ++failures;
            failure.assign(m.payload.begin(), m.payload.begin() + 4);
        }
        EXPECT_EQ(failures, c.failure.empty() ? 0 : 1);
        EXPECT_EQ(failure, c.failure);
        EXPECT_EQ(fakehost::CountLogs("send buffer is to large", 0), c.overflows);
        EXPECT_EQ(fakehost::CountLogs("S38_obd: [UPG] upgrade task not run, source = ", 0),
                  c.lostLogs);
        if (!c.failure.empty()) {
            fakehost::Deliver(MSG_GET_PERIPHERAL_UPGRADE_STATE, {c.failure[0], 7});
            const auto answers = fakehost::Responses();
            ASSERT_FALSE(answers.empty());
            const Bytes& slot = answers.back().payload;
            EXPECT_EQ(Bytes(slot.begin(), slot.begin() + 4), c.failure);
        }
        EXPECT_EQ(m_obj->PeripheralThreadCycle(1000), 0);
        size_t oneSecond = 0;
        for (const auto& m : fakehost::Sends()) oneSecond += m.id == MSG_OBD_ORIGINAL_DATA;
        EXPECT_EQ(oneSecond, c.failure.empty() ? 0u : 1u);
        m_obj->MessageUnRegister();
        PeripheralRelease(m_obj);
        m_obj = nullptr;
        fakehost::SetSendHook(nullptr);
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

// The bus: registration with a member handler, the inbound head, responses, listeners.
#include <cstring>

#include "HostTestUtil.h"

namespace {

using hosttest::Bytes;
using hosttest::HostTest;
using hosttest::ProbePeripheral;
using hosttest::WaitUntil;

uint32_t Word(const Bytes& msg, size_t offset) {
    uint32_t v = 0;
    std::memcpy(&v, msg.data() + offset, sizeof(v));
    return v;
}

class BusTest : public HostTest {
  protected:
    void SetUp() override {
        HostTest::SetUp();
        token = hostsim::BusSubscribe([this](const hostsim::BusMessage& m) {
            std::lock_guard<std::mutex> lock(mutex);
            heard.push_back(m);
        });
        probe = new ProbePeripheral(host.Manager());
        ASSERT_TRUE(host.Adopt(probe));
    }
    void TearDown() override {
        hostsim::BusUnsubscribe(token);
        HostTest::TearDown();
    }
    std::vector<hostsim::BusMessage> Heard() {
        std::lock_guard<std::mutex> lock(mutex);
        return heard;
    }
    hostsim::PluginHost host;
    ProbePeripheral* probe = nullptr;
    int token = 0;
    std::mutex mutex;
    std::vector<hostsim::BusMessage> heard;
};

TEST_F(BusTest, BaseGetsTheHostsClientAndModuleDespiteANullArgument) {
    EXPECT_EQ(probe->Client(), host.Client());
    EXPECT_EQ(probe->ModuleId(), host.ModuleId());
    EXPECT_EQ(probe->Manager(), host.Manager());
}

TEST_F(BusTest, HandlerGetsTheHeadThenThePayload) {
    ASSERT_EQ(host.RegisterHandlers(), 0);
    const int seq = hostsim::BusInject(ProbePeripheral::kMsgId, {0xA1, 0x00, 0xFF});
    ASSERT_GT(seq, 0);
    hostsim::BusInject(ProbePeripheral::kMsgId, {});
    hostsim::BusInject(ProbePeripheral::kMsgId + 1, {1});  // nobody registered
    hostsim::BusDrain();
    const auto msgs = probe->Messages();
    ASSERT_EQ(msgs.size(), 2u);
    ASSERT_EQ(msgs[0].size(), 19u);
    EXPECT_EQ(Word(msgs[0], 0), static_cast<uint32_t>(ProbePeripheral::kMsgId));
    EXPECT_EQ(Word(msgs[0], 8), static_cast<uint32_t>(seq));
    EXPECT_EQ(Word(msgs[0], 12) & Common::MSG_HEAD_LEN_MASK, 3u);
    EXPECT_EQ(Bytes(msgs[0].begin() + 16, msgs[0].end()), Bytes({0xA1, 0x00, 0xFF}));
    ASSERT_EQ(msgs[1].size(), 16u);  // head alone
    EXPECT_EQ(Word(msgs[1], 12) & Common::MSG_HEAD_LEN_MASK, 0u);
}

TEST_F(BusTest, UnregisterStopsDelivery) {
    ASSERT_EQ(host.RegisterHandlers(), 0);
    hostsim::BusInject(ProbePeripheral::kMsgId, {1});
    hostsim::BusDrain();
    ASSERT_EQ(probe->MessageUnRegister(), 0);
    hostsim::BusInject(ProbePeripheral::kMsgId, {2});
    hostsim::BusDrain();
    EXPECT_EQ(probe->Messages().size(), 1u);
    EXPECT_EQ(probe->MessageUnRegister(), -1);  // nothing left to remove
}

TEST_F(BusTest, UnregisterWaitsForTheRunningHandler) {
    std::atomic<bool> inHandler{false};
    std::atomic<bool> release{false};
    probe->gate = [&] {
        inHandler = true;
        while (!release) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    };
    ASSERT_EQ(host.RegisterHandlers(), 0);
    hostsim::BusInject(ProbePeripheral::kMsgId, {1});
    ASSERT_TRUE(WaitUntil([&] { return inHandler.load(); }));
    std::atomic<bool> unregistered{false};
    std::thread t([&] {
        probe->MessageUnRegister();
        unregistered = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_FALSE(unregistered) << "returned while the handler still ran";
    release = true;
    t.join();
    EXPECT_EQ(probe->Messages().size(), 1u);
}

TEST_F(BusTest, ResponseCarriesTheAnsweredIdAndSequence) {
    hostsim::ClockUseStepped(4321);
    probe->answer = true;
    ASSERT_EQ(host.RegisterHandlers(), 0);
    const int seq = hostsim::BusInject(ProbePeripheral::kMsgId, {9, 9});
    hostsim::BusDrain();  // the handler's answer was posted during the delivery
    hostsim::BusDrain();
    const auto heardNow = Heard();
    ASSERT_EQ(heardNow.size(), 1u);
    EXPECT_TRUE(heardNow[0].response);
    EXPECT_EQ(heardNow[0].id, ProbePeripheral::kMsgId);
    EXPECT_EQ(heardNow[0].seq, static_cast<unsigned int>(seq));
    EXPECT_EQ(heardNow[0].payload, Bytes({'o', 'k'}));
    EXPECT_EQ(heardNow[0].tMs, 4321);
}

TEST_F(BusTest, SendsAreCopiedAndHeardInOrderWithTheirHostTime) {
    hostsim::ClockUseStepped(0);
    char buffer[4];
    for (int i = 0; i < 50; ++i) {
        std::memcpy(buffer, &i, sizeof(i));
        ASSERT_EQ(probe->Client()->MSGSendMessage(0, 6699, 0, buffer, 4,
                                                  static_cast<int>(probe->ModuleId())),
                  0);
        std::memset(buffer, 0xEE, sizeof(buffer));  // the bus must have its own copy
        hostsim::ClockAdvance(10);
    }
    hostsim::BusDrain();
    const auto heardNow = Heard();
    ASSERT_EQ(heardNow.size(), 50u);
    for (int i = 0; i < 50; ++i) {
        int value = -1;
        ASSERT_EQ(heardNow[static_cast<size_t>(i)].payload.size(), 4u);
        std::memcpy(&value, heardNow[static_cast<size_t>(i)].payload.data(), 4);
        EXPECT_EQ(value, i);
        EXPECT_FALSE(heardNow[static_cast<size_t>(i)].response);
        EXPECT_EQ(heardNow[static_cast<size_t>(i)].id, 6699);
        EXPECT_EQ(heardNow[static_cast<size_t>(i)].tMs, i * 10);
    }
}

TEST_F(BusTest, BadArgumentsAreRefused) {
    CMsgClientManage* client = probe->Client();
    const int module = static_cast<int>(probe->ModuleId());
    EXPECT_EQ(client->MSGEventRegister(module, 5, nullptr,
                                       static_cast<PeripheralMsgHandler>(&ProbePeripheral::OnMsg)),
              -1);
    EXPECT_EQ(
        client->MSGEventRegister(module, 5, probe, static_cast<PeripheralMsgHandler>(nullptr)), -1);
    EXPECT_EQ(client->MSGSendMessage(0, 5, 0, "x", -1, module), -1);
    EXPECT_EQ(client->MSGSendMessage(0, 5, 0, nullptr, 3, module), -1);
    EXPECT_EQ(client->MSGSendMessage(0, 5, 0, nullptr, 0, module), 0);  // empty is fine
    EXPECT_EQ(client->MSGResponseMessage(nullptr, "x", 1), -1);
    EXPECT_EQ(hostsim::BusInject(-1, {}), -1);
    EXPECT_EQ(hostsim::BusInject(7, Bytes(Common::MSG_HEAD_LEN_MASK + 1)), -1);
    hostsim::BusDrain();
    EXPECT_EQ(Heard().size(), 1u);
}

TEST_F(BusTest, ReleaseDropsHandlersThePluginLeftBehind) {
    ASSERT_EQ(host.RegisterHandlers(), 0);
    // A probe that "forgets" to unregister: only the host's clean-up can save us here.
    probe->Client()->MSGEventRegister(static_cast<int>(probe->ModuleId()), 77, probe,
                                      static_cast<PeripheralMsgHandler>(&ProbePeripheral::OnMsg));
    host.Release();
    const int before = ProbePeripheral::deliveries;
    hostsim::BusInject(77, {1});  // would call into a deleted object
    hostsim::BusInject(ProbePeripheral::kMsgId, {1});
    hostsim::BusDrain();
    EXPECT_EQ(ProbePeripheral::deliveries, before);
}

}  // namespace

// Bus side: registration, the acceptance test of every handler, and what each accepted message
// does. Messages are built as the host delivers them: a 16-byte head, then the payload.
#include <cstring>

#include "CoreTestSupport.h"

namespace {

using Bytes = std::vector<unsigned char>;

const std::vector<int> kRegistered = {33115, 348, 1071, 6698, 6729, 6779, 6731, 1194, 6898, 6893};

Bytes Le32(uint32_t v) {
    return {static_cast<unsigned char>(v), static_cast<unsigned char>(v >> 8),
            static_cast<unsigned char>(v >> 16), static_cast<unsigned char>(v >> 24)};
}

Bytes Cat(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// A whole message with a head whose length word says `stated`.
std::vector<char> Message(int id, const Bytes& payload, uint32_t stated) {
    Common::SMessageHead head{static_cast<uint32_t>(id), 0x77, 9, stated};
    std::vector<char> m(sizeof(head) + payload.size());
    std::memcpy(m.data(), &head, sizeof(head));
    if (!payload.empty()) std::memcpy(m.data() + sizeof(head), payload.data(), payload.size());
    return m;
}

int Raw(int id, const std::vector<char>& m) {
    return fakehost::DeliverRaw(id, m.data(), static_cast<int>(m.size()));
}

class MessagesTest : public CoreTest {
  protected:
    void SetUp() override {
        CoreTest::SetUp();
        Create();
        ASSERT_EQ(m_obj->MessageRegister(), 0);
    }
    void TearDown() override {
        m_obj->MessageUnRegister();
        CoreTest::TearDown();
    }
};

TEST_F(MessagesTest, RegistersEachHandledIdOnceInOrderAndUnregistersTheSame) {
    std::vector<int> ids;
    for (const auto& r : fakehost::Registrations()) {
        ids.push_back(r.msgId);
        EXPECT_EQ(r.moduleId, static_cast<int>(fakehost::kModuleId));
        EXPECT_EQ(r.object, static_cast<const CPeripheralBase*>(m_obj));
    }
    EXPECT_EQ(ids, kRegistered);
    m_obj->MessageUnRegister();
    EXPECT_EQ(fakehost::Unregistrations(), kRegistered);
    EXPECT_TRUE(fakehost::Registrations().empty());
}

TEST_F(MessagesTest, EveryHandlerRejectsAMessageWithoutWholeHeadInItsOwnWords) {
    const std::vector<std::pair<int, std::string>> texts = {
        {33115, "S38_OBD: Get GDS param length or msg is error \n"},
        {348, "S38_OBD: Get GDS param length or msg is error \n"},
        {1071, "S38_OBD: Get perip upgrade result length or msg is error \n"},
        {6698, "S38_OBD: Get gds config info length or msg is error \n"},
        {1194, "S38_obd: Power down msg length or msg is error \n"},
        {6898, "S38_obd: Get perip upgrade result length or msg is error \n"},
        {6893, "update calc pulse length error \n"},
        {6729, "S38_obd: Trigger gds/obd upgrade msg length or msg is error \n"},
        {6731, "S38_obd: Get perip upgrade result length or msg is error \n"},
        {6779, "S12_GDS: Trigger gds/obd upgrade msg length or msg is error \n"},
    };
    const std::vector<char> fifteen(15, 0);
    for (const auto& [id, text] : texts) {
        const int before = fakehost::CountLogs(text, 0);
        fakehost::DeliverRaw(id, fifteen.data(), 15);
        fakehost::DeliverRaw(id, nullptr, 64);
        EXPECT_EQ(fakehost::CountLogs(text, 0), before + 2) << id;
    }
    EXPECT_FALSE(m_obj->IsPowerDown());
    EXPECT_TRUE(fakehost::Responses().empty());
}

TEST_F(MessagesTest, PowerDownWithBareHeadStopsCycleWorkButReachesNoBoxBeforeInitialisation) {
    EXPECT_EQ(Raw(1194, Message(1194, {}, 0)), 0);
    EXPECT_TRUE(m_obj->IsPowerDown());
    EXPECT_EQ(fakehost::CountLogs("S38_obd:  reboot or power off\n", 1), 1);
    EXPECT_TRUE(fakehost::SerialWrites().empty());
}

// Power-down stops the stream at once, past the queue, in one frame that nobody waits for: the
// bus thread does not sleep, and the send thread's command in hand keeps its awaited answer and
// its sequence number. Behind the CAN box nothing is sent (a stop is never relayed).
TEST_F(MessagesTest, PowerDownSendsOneStopAndWaitsForNothing) {
    for (int productType : {0, 72}) {
        m_obj->MessageUnRegister();
        PeripheralRelease(m_obj);
        fakehost::Reset();
        CreateWithCtrl(productType)->MessageRegister();
        COBDCtrl* ctrl = m_obj->ObdCtrl();
        ctrl->OBD_ExecuteCmd(OBD_CMD_READ_SW_VER, nullptr, 0);  // in hand on the send thread
        fakehost::Deliver(1194, {});
        EXPECT_TRUE(m_obj->IsPowerDown());
        EXPECT_EQ(fakehost::SleepCalls(), 0u);
        EXPECT_EQ(ctrl->WaitCmdState(), OBD_CMD_READ_SW_VER);
        ctrl->OBD_ExecuteCmd(OBD_CMD_READ_SW_VER, nullptr, 1);  // its repetition
        ctrl->OBD_ExecuteCmd(OBD_CMD_START_TS, nullptr, 0);
        EXPECT_EQ(FramesOut(),
                  productType == 0 ? "2105/1 2C04/2 2105/1 2C01/3" : "2105/1 2105/1 2C01/2")
            << productType;
        EXPECT_EQ(m_obj->QueuedTaskCount(), 0u);
    }
}

TEST_F(MessagesTest, ConfigurationAnswerCarriesOnlyWhatTheBoxHasReported) {
    Raw(6698, Message(6698, {0xAB}, 1u | 0x00800000u));
    auto responses = fakehost::Responses();
    ASSERT_EQ(responses.size(), 1u);
    ASSERT_EQ(responses[0].payload.size(), 652u);
    GdsConfigInfo_t info;
    std::memcpy(&info, responses[0].payload.data(), sizeof(info));
    EXPECT_EQ(info.mask, 0x600u);
    EXPECT_EQ(responses[0].head.msgId, 6698u);  // answered against the request's own head
    EXPECT_EQ(responses[0].head.seq, fakehost::Responses()[0].head.seq);
    Bytes tail(responses[0].payload.begin() + 4, responses[0].payload.end());
    EXPECT_EQ(tail, Bytes(648, 0));

    CSerialDevOBDTestPeer(m_obj).AttachCtrl();
    CSerialDevOBDTestPeer(m_obj).InitAnalyser();
    _OBD_Version_t version{};
    std::strcpy(version.DLVer, "DL1.0");
    _OBD_Engine_t engine{};
    engine.engine_id = 0x0102;
    m_obj->UpdateDevInfo(ID_DATA_VERSION, &version);
    m_obj->UpdateDevInfo(ID_DATA_ENGINE, &engine);
    m_obj->RequestGdsDevFeature();  // hands the analyser's thresholds to the store
    fakehost::Deliver(6698, {});
    responses = fakehost::Responses();
    ASSERT_EQ(responses.size(), 2u);
    std::memcpy(&info, responses[1].payload.data(), sizeof(info));
    EXPECT_EQ(info.mask, 0x649u);
    EXPECT_STREQ(info.version.DLVer, "DL1.0");
    EXPECT_EQ(info.engine.engine_id, 0x0102);
    EXPECT_NE(Bytes(info.alarmThreshold, info.alarmThreshold + 238), Bytes(238, 0));
}

// The box's link frame as the CAN-box service relays it: count, then the bytes. A chunk that
// claims more than it carries, or too short for its own count, is refused whole.
TEST_F(MessagesTest, RelayedBoxBytesReachTheReceiverUnlessTheyClaimMoreThanTheyCarry) {
    CSerialDevOBDTestPeer(m_obj).AttachCtrl();
    const Bytes link = {0x55, 0xAA, 0xF8, 0xF0, 0x00, 0x03, 0x01, 0x2C, 0x10, 0x36};
    for (uint32_t claimed : {11u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        fakehost::Deliver(6898, Cat(Le32(claimed), link));
    }
    fakehost::Deliver(6898, {0x01, 0x00});
    EXPECT_EQ(fakehost::CountLogs("S38_obd: Get perip upgrade result length or msg is error \n", 0),
              4);
    EXPECT_EQ(m_obj->ObdCtrl()->OBD_CheckObdHeartBeat(), 0);
    EXPECT_TRUE(fakehost::Dumps().empty());

    fakehost::Deliver(6898, Cat(Le32(static_cast<uint32_t>(link.size())), link));
    EXPECT_NE(m_obj->ObdCtrl()->OBD_CheckObdHeartBeat(), 0);
    const auto dumps = fakehost::Dumps();
    ASSERT_FALSE(dumps.empty());
    EXPECT_EQ(dumps.front().label, "obd data:");  // the relayed chunk, before the receiver's own
    EXPECT_EQ(dumps.front().level, 3);
    EXPECT_EQ(dumps.front().bytes, link);
}

TEST_F(MessagesTest, MileageIsTakenOnlyFromAHeadStatingSixteenBytes) {
    CSerialDevOBDTestPeer peer(m_obj);
    const double km = 12345.5;
    Bytes payload(16, 0);
    std::memcpy(payload.data(), &km, sizeof(km));
    payload[8] = 0x10;
    payload[9] = 0x27;  // 10000
    // Bits 23 to 31 of the length word are the host's flags, not length.
    EXPECT_EQ(Raw(6893, Message(6893, payload, 16u | 0xFF800000u)), 0);
    EXPECT_DOUBLE_EQ(peer.TotalMileage(), km);
    EXPECT_EQ(peer.EngineTime(), 10000u);

    Bytes other = payload;
    other[0] ^= 0xFF;
    Raw(6893, Message(6893, other, 12));
    EXPECT_EQ(fakehost::CountLogs("adjust speed param failed msgerror=12\n", 0), 1);
    // A head that states 16 over an 8-byte payload must not be read past its end.
    Raw(6893, Message(6893, Bytes(other.begin(), other.begin() + 8), 16));
    EXPECT_EQ(fakehost::CountLogs("adjust speed param failed msgerror=16\n", 0), 1);
    EXPECT_DOUBLE_EQ(peer.TotalMileage(), km);
}

TEST_F(MessagesTest, SixAxisSampleReachesTheAnalyserHighByteFirst) {
    Bytes payload(32, 0);
    payload[6] = 0x34;  // acceleration X = 0x1234, little-endian on the bus
    payload[7] = 0x12;
    payload[22] = 0xCD;  // rotation rate Z = 0xABCD
    payload[23] = 0xAB;
    payload[24] = 1;
    fakehost::Deliver(1071, payload);
    const auto& s = CSerialDevOBDTestPeer(m_obj).LastSixAxisSample();
    const auto* b = reinterpret_cast<const unsigned char*>(&s);
    EXPECT_EQ(b[0], 0x12);
    EXPECT_EQ(b[1], 0x34);
    EXPECT_EQ(b[10], 0xAB);
    EXPECT_EQ(b[11], 0xCD);

    payload[6] = 0x99;
    payload[24] = 7;  // unknown kind: ignored
    fakehost::Deliver(1071, payload);
    payload[24] = 1;
    fakehost::Deliver(1071, Bytes(payload.begin(), payload.begin() + 31));  // short: refused
    EXPECT_EQ(b[1], 0x34);
    EXPECT_EQ(fakehost::CountLogs("S38_OBD: Get perip upgrade result length or msg is error \n", 0),
              1);
}

TEST(GSensorConversion, TwelveBitReadingsScaleTowardZero) {
    const std::vector<std::pair<uint16_t, uint16_t>> cases = {
        {0, 0},      {1, 0},    {3, 1},    {3840, 1500}, {3841, 0xFF9D},
        {0x0FFF, 0}, {4096, 0}, {4097, 0}, {4099, 1},    {0xFFFF, 23999},
    };
    for (const auto& [in, out] : cases) EXPECT_EQ(ObdConvertGSensorAxis(in), out) << in;
}

}  // namespace

// Serial input and output: what is read is dumped and handed on, frames leave on the port, and
// in CAN-box mode only the two relayed commands leave, as bus messages.
#include <tuple>

#include "CoreTestSupport.h"

namespace {

using Bytes = std::vector<unsigned char>;

// A frame towards the box with the given command code and payload (checksum not checked here).
Bytes Frame(uint16_t code, const Bytes& payload = {}) {
    const auto l = static_cast<unsigned char>(payload.size() + 3);
    const auto hi = static_cast<unsigned char>(code >> 8), lo = static_cast<unsigned char>(code);
    Bytes f = {0x55, 0xAA, 0xF0, 0xF8, 0x00, l, 0x01, hi, lo};
    for (unsigned char b : payload) f.push_back(b);  // (insert: a false array-bounds warning)
    f.push_back(0x5A);
    return f;
}

// In serial mode a frame leaves on the port unchanged. In CAN-box mode only the software version
// read and the start of the stream leave, as bus messages with their byte count in front; every
// other frame is dropped (codes whose bytes have the top bit set are not mistaken for relayed
// ones, a frame too short for a code is no relayed one), its length still reported as sent.
TEST_F(CoreTest, FramesLeaveOnThePortOrOnlyTheTwoRelayedOnesOnTheBus) {
    const Bytes start = Frame(0x2C01, {0xFF, 0x00, 0x00, 0x00, 0x00});
    const std::vector<std::tuple<int, Bytes, bool>> rows = {
        {0, start, true},           {72, Frame(0x2105), true},
        {72, start, true},          {72, Frame(0x2103), false},
        {72, Frame(0x2C04), false}, {72, Frame(0x2CF1), false},
        {72, Frame(0x6105), false}, {72, Frame(0xA105), false},
        {72, Frame(0x2185), false}, {72, {0x55, 0xAA, 0xF0, 0xF8, 0x00}, false},
    };
    for (const auto& [productType, frame, leaves] : rows) {
        SCOPED_TRACE(testing::PrintToString(frame));
        if (m_obj != nullptr) PeripheralRelease(m_obj);
        fakehost::Reset();
        Bytes sent = frame;
        EXPECT_EQ(
            Create(productType)
                ->SendData(reinterpret_cast<char*>(sent.data()), static_cast<int>(sent.size())),
            static_cast<int>(frame.size()));
        const auto sends = fakehost::Sends();
        EXPECT_EQ(fakehost::SerialWrites(),
                  productType == 0 ? std::vector<Bytes>{frame} : std::vector<Bytes>{});
        ASSERT_EQ(sends.size(), productType == 72 && leaves ? 1u : 0u);
        for (const auto& m : sends) {
            EXPECT_EQ(m.id, MSG_CAN_BOX_OBD_DATA_OUT);
            EXPECT_EQ(m.dest, 0);
            EXPECT_EQ(m.flags, 0);
            EXPECT_EQ(m.moduleId, static_cast<int>(fakehost::kModuleId));
            Bytes relayed = {static_cast<unsigned char>(frame.size()), 0, 0, 0};
            relayed.insert(relayed.end(), frame.begin(), frame.end());
            EXPECT_EQ(m.payload, relayed);
        }
    }
}

TEST_F(CoreTest, SerialReadsAreDumpedAndNeverExceedTheBuffer) {
    CSerialDevOBD* obj = Create();
    std::vector<unsigned char> big(1500);
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<unsigned char>(i);
    fakehost::QueueSerialInput(big);
    EXPECT_EQ(obj->ProcessPeripheralData(), 0);
    EXPECT_EQ(obj->ProcessPeripheralData(), 0);
    EXPECT_EQ(obj->ProcessPeripheralData(), 0);  // nothing waits: an empty read
    const auto dumps = fakehost::Dumps();
    ASSERT_EQ(dumps.size(), 3u);
    for (const auto& d : dumps) {
        EXPECT_EQ(d.label, "obd data:");
        EXPECT_EQ(d.level, 2);
    }
    EXPECT_EQ(dumps[0].bytes, std::vector<unsigned char>(big.begin(), big.begin() + 1024));
    EXPECT_EQ(dumps[1].bytes, std::vector<unsigned char>(big.begin() + 1024, big.end()));
    EXPECT_TRUE(dumps[2].bytes.empty());
}

}  // namespace

// Serial input and output: what is read is dumped and handed on, frames leave on the port, and
// in CAN-box mode only the two relayed commands leave, as bus messages.
#include <algorithm>
#include <cstring>

#include "CoreTestSupport.h"

namespace {

// A frame towards the box with the given command code and payload (checksum not checked here).
std::vector<unsigned char> Frame(uint16_t code, const std::vector<unsigned char>& payload = {}) {
    const size_t l = payload.size() + 3;
    std::vector<unsigned char> f(l + 7, 0);
    const unsigned char head[9] = {0x55,
                                   0xAA,
                                   0xF0,
                                   0xF8,
                                   static_cast<unsigned char>(l >> 8),
                                   static_cast<unsigned char>(l & 0xFF),
                                   0x01,
                                   static_cast<unsigned char>(code >> 8),
                                   static_cast<unsigned char>(code & 0xFF)};
    std::copy(head, head + 9, f.begin());
    std::copy(payload.begin(), payload.end(), f.begin() + 9);
    unsigned char x = f[2];
    for (size_t i = 3; i + 1 < f.size(); ++i) x ^= f[i];
    f.back() = x;
    return f;
}

int Send(CSerialDevOBD* obj, std::vector<unsigned char> frame) {
    return obj->SendData(reinterpret_cast<char*>(frame.data()), static_cast<int>(frame.size()));
}

TEST_F(CoreTest, FramesLeaveOnTheSerialPortUnchanged) {
    CSerialDevOBD* obj = Create();
    const auto frame = Frame(0x2C01, {0xFF, 0x00, 0x00, 0x00, 0x00});
    EXPECT_EQ(Send(obj, frame), static_cast<int>(frame.size()));
    ASSERT_EQ(fakehost::SerialWrites().size(), 1u);
    EXPECT_EQ(fakehost::SerialWrites()[0], frame);
    EXPECT_TRUE(fakehost::Sends().empty());
}

TEST_F(CoreTest, CanBoxModeRelaysSoftwareVersionAndStartAsLengthPrefixedMessages) {
    CSerialDevOBD* obj = Create(72);
    for (uint16_t code : {0x2105, 0x2C01}) {
        const auto frame = Frame(code, code == 0x2C01 ? std::vector<unsigned char>{0xFF, 0, 0, 0, 0}
                                                      : std::vector<unsigned char>{});
        EXPECT_EQ(Send(obj, frame), static_cast<int>(frame.size()));
        const auto sends = fakehost::Sends();
        ASSERT_FALSE(sends.empty());
        const auto& m = sends.back();
        EXPECT_EQ(m.id, MSG_CAN_BOX_OBD_DATA_OUT);
        EXPECT_EQ(m.dest, 0);
        EXPECT_EQ(m.flags, 0);
        EXPECT_EQ(m.moduleId, static_cast<int>(fakehost::kModuleId));
        ASSERT_EQ(m.payload.size(), frame.size() + 4);
        const std::vector<unsigned char> prefix = {static_cast<unsigned char>(frame.size()), 0, 0,
                                                   0};
        EXPECT_EQ(std::vector<unsigned char>(m.payload.begin(), m.payload.begin() + 4), prefix);
        EXPECT_EQ(std::vector<unsigned char>(m.payload.begin() + 4, m.payload.end()), frame);
    }
    EXPECT_EQ(fakehost::Sends().size(), 2u);
    EXPECT_TRUE(fakehost::SerialWrites().empty());
}

TEST_F(CoreTest, CanBoxModeDropsEveryOtherFrameButStillReportsItsLength) {
    CSerialDevOBD* obj = Create(72);
    // Codes whose bytes have the top bit set must not be mistaken for relayed ones.
    for (uint16_t code : {0x2103, 0x2C04, 0x2CF1, 0x6105, 0xA105, 0x2185}) {
        const auto frame = Frame(code);
        EXPECT_EQ(Send(obj, frame), static_cast<int>(frame.size())) << std::hex << code;
    }
    // Too short to carry a command code.
    std::vector<unsigned char> shortFrame = {0x55, 0xAA, 0xF0, 0xF8, 0x00};
    EXPECT_EQ(Send(obj, shortFrame), 5);
    EXPECT_TRUE(fakehost::Sends().empty());
    EXPECT_TRUE(fakehost::SerialWrites().empty());
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

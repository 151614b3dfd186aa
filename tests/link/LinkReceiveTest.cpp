// Frame building, checksum, unescaping and the receiver: wire bytes against hand-computed
// examples, and the receiver's behaviour when frames are cut, doubled, truncated or buried in
// garbage.
#include "LinkTestSupport.h"

namespace {

const Bytes kGarbage = {0x00, 0x55, 0x13, 0xAA, 0x55, 0xAA, 0xF8, 0x7D, 0xF0, 0xFF};

Bytes DataFrame(unsigned char id, float v) {
    return BoxFrame(0x2C81, Item(id, v));
}

// ---- frames towards the box ----

TEST_F(LinkTest, FirstSoftwareVersionReadIsTheHandComputedFrame) {
    char out[64] = {};
    EXPECT_EQ(m_ctrl->OBD_GenerateObdPackage(OBD_CMD_READ_SW_VER, nullptr, out, sizeof(out), 0),
              10);
    const Bytes expected = {0x55, 0xAA, 0xF0, 0xF8, 0x00, 0x03, 0x01, 0x21, 0x05, 0x2E};
    EXPECT_EQ(Bytes(out, out + 10), expected);
}

TEST_F(LinkTest, StartStreamFrameCarriesItsFiveBytePayload) {
    // F0^F8^00^08^02^2C^01^FF = D0 for the second frame.
    EXPECT_EQ(m_ctrl->OBD_ExecuteCmd(OBD_CMD_START_TS, nullptr, 0), 0);  // seq 1, no payload
    char payload[5] = {static_cast<char>(0xFF), 0, 0, 0, 0};
    _OBD_PkgInData_t in{5, payload};
    EXPECT_EQ(m_ctrl->OBD_ExecuteCmd(OBD_CMD_START_TS, &in, 0), 0);
    const auto writes = fakehost::SerialWrites();
    ASSERT_EQ(writes.size(), 2u);
    const Bytes expected = {0x55, 0xAA, 0xF0, 0xF8, 0x00, 0x08, 0x02, 0x2C,
                            0x01, 0xFF, 0x00, 0x00, 0x00, 0x00, 0xD0};
    EXPECT_EQ(writes[1], expected);
    EXPECT_EQ(m_ctrl->WaitCmdState(), OBD_CMD_START_TS);
}

TEST_F(LinkTest, FrameBuildingRefusesWhatDoesNotFit) {
    char out[32] = {};
    char payload[7] = {};
    _OBD_PkgInData_t in{7, payload};
    EXPECT_EQ(m_ctrl->OBD_GenerateObdPackage(OBD_CMD_START_TS, &in, nullptr, 16, 0), -1);
    EXPECT_EQ(m_ctrl->OBD_GenerateObdPackage(OBD_CMD_START_TS, &in, out, 16, 0), -1);  // 17 > 16
    EXPECT_EQ(m_ctrl->OBD_GenerateObdPackage(OBD_CMD_START_TS, &in, out, 17, 0), 17);
    EXPECT_EQ(m_ctrl->OBD_GenerateObdPackage(static_cast<obdcmd_t>(41), nullptr, out, 16, 0), -1);
    // Only the low 16 bits of the length are framed.
    _OBD_PkgInData_t wrapped{0x10002, payload};
    EXPECT_EQ(m_ctrl->OBD_GenerateObdPackage(OBD_CMD_START_TS, &wrapped, out, 16, 0), 12);
    EXPECT_EQ(static_cast<unsigned char>(out[5]), 5);
    // Nothing built, nothing sent, the awaited state untouched.
    Peer().SetWaitCmd(OBD_CMD_READ_STL_ACK);
    EXPECT_EQ(m_ctrl->OBD_ExecuteCmd(static_cast<obdcmd_t>(99), nullptr, 0), 0);
    EXPECT_TRUE(fakehost::SerialWrites().empty());
    EXPECT_EQ(m_ctrl->WaitCmdState(), OBD_CMD_READ_STL_ACK);
}

TEST(LinkChecksum, XorOfTheRange) {
    const char bytes[] = {
        static_cast<char>(0xF0), static_cast<char>(0xF8), 0x00, 0x03, 0x01, 0x21, 0x05};
    EXPECT_EQ(COBDCtrl::CalXOR(bytes, 7), 0x2E);
    EXPECT_EQ(COBDCtrl::CalXOR(bytes, 1), 0xF0);
    EXPECT_EQ(COBDCtrl::CalXOR(bytes, 0), 0xF0);
    EXPECT_EQ(COBDCtrl::CalXOR(nullptr, 5), 0);
}

// ---- unescaping ----

Bytes Unescape(const Bytes& in) {
    std::vector<char> out(in.size() + 1);
    int n = -1;
    EXPECT_EQ(COBDCtrl::ReverseTransferredContent(reinterpret_cast<const char*>(in.data()),
                                                  static_cast<int>(in.size()), out.data(), &n),
              0);
    return Bytes(out.begin(), out.begin() + n);
}

TEST(LinkUnescape, PairsInsideTheFrame) {
    EXPECT_EQ(Unescape({0x55, 0x7D, 0x01, 0x7D, 0x02, 0x7D, 0x03, 0x09}),
              (Bytes{0x55, 0x7E, 0x7F, 0x7D, 0x09}));
    // Not a pair: the 7D stays and the next byte is looked at by itself.
    EXPECT_EQ(Unescape({0x55, 0x7D, 0x05, 0x09}), (Bytes{0x55, 0x7D, 0x05, 0x09}));
    EXPECT_EQ(Unescape({0x55, 0x7D, 0x7D, 0x01, 0x09}), (Bytes{0x55, 0x7D, 0x7E, 0x09}));
}

TEST(LinkUnescape, FirstAndLastByteAreNeverEscapes) {
    EXPECT_EQ(Unescape({0x7D, 0x01, 0x09}), (Bytes{0x7D, 0x01, 0x09}));
    EXPECT_EQ(Unescape({0x55, 0x09, 0x7D}), (Bytes{0x55, 0x09, 0x7D}));
    // A pair whose code is the last byte is still a pair.
    EXPECT_EQ(Unescape({0x55, 0x7D, 0x02}), (Bytes{0x55, 0x7F}));
}

TEST(LinkUnescape, NullPointersAreRefused) {
    char out[4];
    int n = 7;
    EXPECT_EQ(COBDCtrl::ReverseTransferredContent(nullptr, 3, out, &n), -1);
    EXPECT_EQ(n, 0);
    n = 7;
    EXPECT_EQ(COBDCtrl::ReverseTransferredContent("abc", 3, nullptr, &n), -1);
    EXPECT_EQ(n, 0);
}

// ---- receiver ----

TEST_F(LinkTest, ReadSizeLimitsAndNullData) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(m_ctrl->ReceiveData(nullptr, 4), -1);
    EXPECT_NE(
        testing::internal::GetCapturedStdout().find("[CGDSBoardCtrl::ReceiveData] pData is NULL"),
        std::string::npos);
    Bytes big(1024, 0x00);
    EXPECT_EQ(Feed(big), -1);
    EXPECT_EQ(Peer().RecvLen(), 0);
    // 1023 bytes: accepted; a frame at their end is found.
    const Bytes f = DataFrame(3, 1.5f);
    Bytes most(1023 - f.size(), 0x00);
    most.insert(most.end(), f.begin(), f.end());
    ASSERT_EQ(most.size(), 1023u);
    EXPECT_EQ(Feed(most), 0);
    ASSERT_EQ(Dispatched().size(), 1u);
    EXPECT_EQ(m_ctrl->DataTable().item[2].value, 1.5f);
    unsigned char none = 0;
    EXPECT_EQ(m_ctrl->ReceiveData(&none, 0), 0);  // an empty read
}

TEST_F(LinkTest, TwoFramesInOneReadAreDispatchedInOrderAndTheBufferClearedOnce) {
    const Bytes a = DataFrame(1, 10.0f);
    const Bytes b = BoxFrame(0x2C10);
    EXPECT_EQ(Feed(Cat({kGarbage, a, b})), 0);
    EXPECT_EQ(Dispatched(), (std::vector<Bytes>{a, b}));
    EXPECT_EQ(fakehost::ClearCalls(), 1);
    EXPECT_EQ(m_ctrl->DataTable().item[0].value, 10.0f);
    EXPECT_EQ(m_ctrl->OBD_CheckObdHeartBeat(), 1);
    EXPECT_EQ(Peer().RecvLen(), 0);
}

TEST_F(LinkTest, FrameWithoutPayloadIsTenBytesAndDispatchedWithLengthThree) {
    const Bytes link = BoxFrame(0x2C10);
    ASSERT_EQ(link.size(), 10u);
    EXPECT_EQ(Feed(link), 0);
    EXPECT_EQ(Peer().BoxAlive(), 1);
    EXPECT_EQ(fakehost::CountLogs("crc error"), 0);
}

TEST_F(LinkTest, WrongChecksumIsDispatchedAllTheSame) {
    Bytes f = DataFrame(5, 42.0f);
    f.back() ^= 0x5A;
    Feed(f);
    EXPECT_EQ(m_ctrl->DataTable().item[4].value, 42.0f);
}

TEST_F(LinkTest, RejectedFrameIsLoggedWithItsRawLengthAndTheNextStillRead) {
    const Bytes unknown = BoxFrame(0x6C05, {0x01, 0x02});
    Feed(Cat({unknown, DataFrame(2, 7.0f)}));
    EXPECT_EQ(fakehost::CountLogs("####Analy original data failed, crc error, length = 12\n", 0),
              1);
    EXPECT_EQ(m_ctrl->DataTable().item[1].value, 7.0f);
}

TEST_F(LinkTest, EscapedBytesReachTheHandlerUnescaped) {
    // 0x7E inside the value; the box sends it as 7D 01 and counts the unescaped bytes in L.
    const float v = [] {
        const unsigned char b[4] = {0x00, 0x7E, 0x20, 0x41};
        float f;
        std::memcpy(&f, b, 4);
        return f;
    }();
    Bytes plain = DataFrame(9, v);
    Bytes escaped(plain.begin(), plain.begin() + 11);
    escaped.push_back(0x7D);
    escaped.push_back(0x01);
    escaped.insert(escaped.end(), plain.begin() + 12, plain.end());
    ASSERT_EQ(escaped.size(), plain.size() + 1);
    Feed(Cat({escaped, DataFrame(10, 1.0f)}));
    EXPECT_EQ(m_ctrl->DataTable().item[8].value, v);
    EXPECT_EQ(m_ctrl->DataTable().item[9].value, 1.0f);  // the surplus byte was dropped
}

TEST_F(LinkTest, NoHeadDropsEverythingAndDumpsItToStdout) {
    testing::internal::CaptureStdout();
    Feed({0x01, 0x02, 0x55, 0xAA, 0xF8});
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("####Analy original data failed, no frame head and tail, length = 5\n"
                       "0x1 0x2 0x55 0xaa 0xf8 \n\n"),
              std::string::npos);
    EXPECT_EQ(Peer().RecvLen(), 0);
    EXPECT_EQ(fakehost::ClearCalls(), 0);
}

TEST_F(LinkTest, OverflowDropsWhatWasBufferedAndKeepsTheNewRead) {
    const Bytes f = DataFrame(4, 3.0f);
    Feed(Bytes(f.begin(), f.end() - 1));  // incomplete: kept
    EXPECT_EQ(Peer().RecvLen(), static_cast<int>(f.size()) - 1);
    const Bytes g = DataFrame(6, 8.0f);
    Bytes fill(1023 - g.size(), 0x00);
    fill.insert(fill.end(), g.begin(), g.end());
    Feed(fill);
    EXPECT_EQ(Dispatched(), std::vector<Bytes>{g});
    EXPECT_EQ(m_ctrl->DataTable().item[3].id, -1);
}

TEST_F(LinkTest, ImpossibleLengthDoesNotHideTheFramesBehindIt) {
    const Bytes bogus = {0x55, 0xAA, 0xF8, 0xF0, 0xFF, 0xFF, 0x01, 0x2C, 0x81};
    const Bytes good = DataFrame(11, 2.5f);
    Feed(Cat({bogus, good}));
    EXPECT_EQ(Dispatched(), std::vector<Bytes>{good});
}

// Cutting a frame between two reads at every byte offset, with garbage before it: the frame is
// dispatched once whenever its four head bytes arrived together, and the frame after it always.
TEST_F(LinkTest, FrameCutAtEveryOffsetKeepsTheReceiverInSync) {
    const Bytes f = DataFrame(20, 123.25f);
    for (size_t cut = 0; cut <= f.size(); ++cut) {
        fakehost::Reset();
        const Bytes next = DataFrame(21, static_cast<float>(cut));
        Feed(Cat({kGarbage, Bytes(f.begin(), f.begin() + static_cast<long>(cut))}));
        Feed(Cat({Bytes(f.begin() + static_cast<long>(cut), f.end()), next}));
        const auto got = Dispatched();
        // A read that ends inside the head holds no head: its bytes are dropped, and so is the
        // rest of that frame.
        const bool headSplit = cut >= 1 && cut <= 3;
        const std::vector<Bytes> expected =
            headSplit ? std::vector<Bytes>{next} : std::vector<Bytes>{f, next};
        EXPECT_EQ(got, expected) << "cut at " << cut;
        EXPECT_EQ(m_ctrl->DataTable().item[20].value, static_cast<float>(cut));
        EXPECT_EQ(Peer().RecvLen(), 0) << "cut at " << cut;
    }
}

TEST_F(LinkTest, DoubledAndTruncatedFramesAreFollowedByAGoodFrame) {
    const Bytes f = DataFrame(30, 5.0f);
    Feed(Cat({f, f}));
    EXPECT_EQ(Dispatched().size(), 2u);
    for (size_t keep = 1; keep < f.size(); ++keep) {
        fakehost::Reset();
        // A frame that stops short: the receiver believes its length field and cuts into the
        // frames that follow, but once that many bytes have passed it is in step again.
        Feed(Bytes(f.begin(), f.begin() + static_cast<long>(keep)));
        std::vector<Bytes> sent;
        for (int i = 0; i < 20; ++i) {
            sent.push_back(DataFrame(31, static_cast<float>(i)));
            Feed(sent.back());
        }
        const auto got = Dispatched();
        ASSERT_GE(got.size(), 10u) << "kept " << keep;
        EXPECT_EQ(std::vector<Bytes>(got.end() - 10, got.end()),
                  std::vector<Bytes>(sent.end() - 10, sent.end()))
            << "kept " << keep;
        EXPECT_EQ(m_ctrl->DataTable().item[30].value, 19.0f);
        EXPECT_EQ(Peer().RecvLen(), 0);
    }
}

TEST_F(LinkTest, FrameSplitAfterItsHeadWaitsForTheRest) {
    const Bytes f = DataFrame(40, 9.0f);
    for (size_t i = 0; i < f.size(); ++i) {
        Feed(Bytes{f[i]});
        // One byte at a time only works once the head is in one read; here it never is.
    }
    EXPECT_TRUE(Dispatched().empty());
    fakehost::Reset();
    Feed(Cat({kGarbage, Bytes(f.begin(), f.begin() + 4)}));
    for (size_t i = 4; i < f.size(); ++i) Feed(Bytes{f[i]});
    EXPECT_EQ(Dispatched(), std::vector<Bytes>{f});
}

}  // namespace

namespace {

// Serial reads (peripheral thread) and relayed box bytes (bus thread) feed one receiver: each
// read is handled whole, so whole frames from both sides are all dispatched, none mixed.
TEST_F(LinkTest, TwoFeedersAtOnceLoseNoFrame) {
    constexpr int kReads = 300;
    auto feeder = [this](unsigned char id) {
        for (int i = 0; i < kReads; ++i) {
            Bytes f = DataFrame(id, static_cast<float>(i));
            m_ctrl->ReceiveData(f.data(), static_cast<int>(f.size()));
        }
    };
    std::thread serial(feeder, 1);
    std::thread bus(feeder, 2);
    serial.join();
    bus.join();
    EXPECT_EQ(Dispatched().size(), 2u * kReads);
    EXPECT_EQ(fakehost::CountLogs("crc error"), 0);
    const auto t = m_ctrl->DataTable();
    EXPECT_EQ(t.item[0].value, kReads - 1.0f);
    EXPECT_EQ(t.item[1].value, kReads - 1.0f);
}

}  // namespace

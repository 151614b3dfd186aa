// Frame building, unescaping and the receiver: wire bytes against hand-computed examples, and
// the receiver's behaviour when frames are cut, doubled, truncated or buried in garbage.
#include <algorithm>
#include <random>
#include <string>
#include <tuple>

#include "LinkTestSupport.h"

namespace {

const Bytes kGarbage = {0x00, 0x55, 0x13, 0xAA, 0x55, 0xAA, 0xF8, 0x7D, 0xF0, 0xFF};

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
    EXPECT_EQ(COBDCtrl::CalXOR(nullptr, 5), 0);
}

TEST(LinkUnescape, PairsAndTheBoundaries) {
    const std::vector<std::pair<Bytes, Bytes>> cases = {
        {{0x55, 0x7D, 0x01, 0x7D, 0x02, 0x7D, 0x03, 0x09}, {0x55, 0x7E, 0x7F, 0x7D, 0x09}},
        {{0x55, 0x7D, 0x05, 0x09}, {0x55, 0x7D, 0x05, 0x09}},  // not a pair: both bytes stay
        {{0x55, 0x7D, 0x7D, 0x01, 0x09}, {0x55, 0x7D, 0x7E, 0x09}},
        {{0x7D, 0x01, 0x09}, {0x7D, 0x01, 0x09}},  // the first byte is never an escape
        {{0x55, 0x09, 0x7D}, {0x55, 0x09, 0x7D}},  // nor the last
        {{0x55, 0x7D, 0x03}, {0x55, 0x7D}},        // a pair whose code is the last byte
    };
    for (const auto& [in, expected] : cases) {
        std::vector<char> out(in.size());  // exactly sized: the output never grows
        int n = -1;
        EXPECT_EQ(COBDCtrl::ReverseTransferredContent(reinterpret_cast<const char*>(in.data()),
                                                      static_cast<int>(in.size()), out.data(), &n),
                  0);
        EXPECT_EQ(Bytes(out.begin(), out.begin() + n), expected);
    }
    char out[4];
    int n = 7;
    EXPECT_EQ(COBDCtrl::ReverseTransferredContent(nullptr, 3, out, &n), -1);
    EXPECT_EQ(n, 0);
    EXPECT_EQ(COBDCtrl::ReverseTransferredContent("abc", 3, nullptr, &n), -1);
}

// Reads -> the frames the receiver cuts from them, which must leave it empty and in step.
TEST_F(LinkTest, ReceiverCutsWhatItShouldFromAnyReads) {
    const Bytes f = DataFrame(20, 123.25f), g = DataFrame(6, 8.0f), link = BoxFrame(0x2C10);
    const Bytes lyingHead = {0x55, 0xAA, 0xF8, 0xF0, 0xFF, 0xFF, 0x01, 0x2C, 0x81};
    const Bytes head(f.begin(), f.begin() + 4);
    // A full host read of 1024 bytes: 68 frames of backlog behind 4 bytes of noise.
    Bytes full = {0x01, 0x02, 0x03, 0x04};
    std::vector<Bytes> backlog;
    while (full.size() < 1024) {
        backlog.push_back(DataFrame(40, static_cast<float>(backlog.size())));
        full = Cat({full, backlog.back()});
    }
    ASSERT_EQ(full.size(), 1024u);
    std::vector<Bytes> twice = backlog;
    twice.insert(twice.end(), backlog.begin(), backlog.end());
    std::vector<std::pair<std::vector<Bytes>, std::vector<Bytes>>> cases = {
        {{Cat({kGarbage, f, link, g})}, {f, link, g}},
        {{Cat({f, f})}, {f, f}},
        {{full}, backlog},  // every byte of a full read counts
        {{Cat({full, full})}, twice},
        // Nothing buffered is dropped for a read that would overflow the buffer.
        {{Bytes(f.begin(), f.begin() + 7), Cat({Bytes(f.begin() + 7, f.end()), Bytes(1000, 0), g})},
         {f, g}},
        // A head in the last four bytes of a full buffer; its length field is not there yet.
        {{Cat({Bytes(1019, 0x00), head}), Bytes(f.begin() + 4, f.end())}, {f}},
        {{Cat({Bytes(1020, 0x00), {0x55, 0xAA, 0xF8}}), Bytes(f.begin() + 3, f.end())}, {f}},
        {{{0x01, 0x02, 0x55, 0xAA, 0xF8}, f}, {f}},  // a head's start that another completes
        {{Cat({lyingHead, g})}, {g}},                // a length that could never fit hides nothing
        {{Cat({kGarbage, head}), {f[4]}, {f[5]}, {f[6]}, Bytes(f.begin() + 7, f.end())}, {f}},
        {{{f[0]}, {f[1]}, Bytes(f.begin() + 2, f.end())}, {f}},
    };
    // A stream of frames with garbage between them, cut at every offset and in random small
    // reads: every frame is recognised wherever the reads end, inside a head too.
    const Bytes stream = Cat({kGarbage, f, link, kGarbage, g, {0x55, 0xAA}, f});
    const std::vector<Bytes> inStream = {f, link, g, f};
    for (size_t cut = 0; cut <= stream.size(); ++cut) {
        const auto at = stream.begin() + static_cast<long>(cut);
        cases.push_back({{Bytes(stream.begin(), at), Bytes(at, stream.end())}, inStream});
    }
    for (unsigned seed = 1; seed <= 40; ++seed) {
        std::mt19937 rng(seed);
        std::vector<Bytes> reads;
        for (size_t pos = 0, n = 0; pos < stream.size(); pos += n) {
            n = std::min<size_t>(stream.size() - pos, 1 + rng() % (seed % 2 ? 4 : 8));
            reads.emplace_back(stream.begin() + static_cast<long>(pos),
                               stream.begin() + static_cast<long>(pos + n));
        }
        cases.push_back({reads, inStream});
    }
    for (size_t i = 0; i < cases.size(); ++i) {
        fakehost::Reset();
        Printed([&] {  // the dumps of dropped bytes are not under test here
            for (const auto& read : cases[i].first) Feed(read);
        });
        EXPECT_EQ(Dispatched(), cases[i].second) << "case " << i;
        EXPECT_EQ(Peer().RecvLen(), 0) << "case " << i;
        // One read, one clearing of the serial buffer, however many frames it held.
        if (cases[i].first.size() == 1) {
            EXPECT_EQ(fakehost::ClearCalls(), 1) << "case " << i;
        }
    }
}

TEST_F(LinkTest, DispatchedFramesAreUnescapedAndHandledWhateverTheirChecksum) {
    int r = 0;
    EXPECT_NE(Printed([&] {
                  r = m_ctrl->ReceiveData(nullptr, 4);
              }).find("[CGDSBoardCtrl::ReceiveData] pData is NULL"),
              std::string::npos);
    EXPECT_EQ(r, -1);
    unsigned char none = 0;
    EXPECT_EQ(m_ctrl->ReceiveData(&none, 0), 0);
    EXPECT_EQ(m_ctrl->ReceiveData(&none, -1), -1);
    // 0x7E inside the value; the box sends it as 7D 01 and counts the unescaped bytes in L.
    const float v = [] {
        const unsigned char b[4] = {0x00, 0x7E, 0x20, 0x41};
        float x;
        std::memcpy(&x, b, 4);
        return x;
    }();
    const Bytes plain = DataFrame(9, v);
    const Bytes escaped = Cat({Bytes(plain.begin(), plain.begin() + 11),
                               {0x7D, 0x01},
                               Bytes(plain.begin() + 12, plain.end())});
    Bytes bad = DataFrame(5, 42.0f);
    bad.back() ^= 0x5A;
    EXPECT_EQ(
        Feed(Cat({escaped, BoxFrame(0x2C10), bad, BoxFrame(0x6C05, {1, 2}), DataFrame(10, 1.0f)})),
        0);
    EXPECT_EQ(Value(8), v);
    EXPECT_EQ(Value(9), 1.0f);  // the frames after the escaped one are in step
    EXPECT_EQ(Value(4), 42.0f);
    EXPECT_EQ(m_ctrl->OBD_CheckObdHeartBeat(), 1);
    EXPECT_EQ(fakehost::CountLogs("####Analy original data failed, crc error, length = 12\n", 0),
              1);
    // Only what precedes a possible head's start is reported; the start waits for its rest.
    EXPECT_NE(Printed([&] {
                  Feed({0x01, 0x02, 0x55, 0xAA, 0xF8});
              })
                  .find("####Analy original data failed, no frame head and tail, length = 2\n"
                        "0x1 0x2 \n\n"),
              std::string::npos);
    const Bytes last = DataFrame(11, 2.5f);
    Feed(Bytes(last.begin() + 3, last.end()));
    EXPECT_EQ(Value(10), 2.5f);
}

// A frame as a box that escapes sends it: 7E -> 7D 01, 7F -> 7D 02, 7D -> 7D 03, any byte but the
// first and the last. `countsPairs`: L counts the raw bytes after it, their pairs included (and
// the checksum covers that L); else the unescaped bytes.
Bytes Escaped(Bytes f, bool countsPairs) {
    const auto special = [](unsigned char b) { return b >= 0x7D && b <= 0x7F; };
    if (countsPairs) {
        const auto l =
            f.size() - 7 + static_cast<size_t>(std::count_if(f.begin() + 6, f.end() - 1, special));
        f[4] = static_cast<unsigned char>(l >> 8);
        f[5] = static_cast<unsigned char>(l);
        f.back() = 0;
        for (size_t i = 2; i + 1 < f.size(); ++i) f.back() ^= f[i];
    }
    Bytes out = {f.front()};
    for (size_t i = 1; i + 1 < f.size(); ++i) {
        if (special(f[i])) {
            out.insert(out.end(),
                       {0x7D, static_cast<unsigned char>(f[i] == 0x7D ? 3 : f[i] - 0x7D)});
        } else {
            out.push_back(f[i]);
        }
    }
    out.push_back(f.back());
    return out;
}

float FloatOf(Bytes b) {  // least significant byte first, as on the wire
    float v;
    std::memcpy(&v, b.data(), 4);
    return v;
}

// The bytes the receiver reported as garbage (every "no frame head" line) in `printed`.
int GarbageReported(const std::string& printed) {
    static const std::string kLine = "no frame head and tail, length = ";
    int sum = 0;
    for (size_t at = printed.find(kLine); at != std::string::npos; at = printed.find(kLine, at + 1))
        sum += std::stoi(printed.substr(at + kLine.size()));
    return sum;
}

// Escaped frames, L counting the unescaped bytes or the pairs too, read whole, cut after L + 7
// raw bytes, byte by byte, with garbage behind: the whole frame is taken, its payload handed on
// exactly, and the next frame read in step. A frame matching neither checksum is cut at L + 7.
TEST_F(LinkTest, EscapedFramesArriveWholeWhateverTheLengthCounts) {
    struct Case {
        std::string name;
        std::vector<Bytes> reads;
        std::vector<Bytes> dispatched;              // raw frames, in order
        std::vector<std::pair<int, float>> values;  // table index, value
        int garbage = 0;  // bytes reported without a head; -1: not checked
    };
    const Bytes link = BoxFrame(0x2C10);
    const float coolant = FloatOf({0x7D, 0x7F, 0x20, 0x42});  // 40.12 degrees
    // 127 items: L = 0x027E, whose low byte goes as a pair.
    Bytes many;
    std::vector<std::pair<int, float>> manyValues(59);
    for (int i = 0; i < 127; ++i) {
        many = Cat({many, Item(static_cast<unsigned char>(1 + i % 59), static_cast<float>(i))});
        manyValues[static_cast<size_t>(i % 59)] = {i % 59, static_cast<float>(i)};
    }
    const std::vector<std::tuple<std::string, Bytes, std::vector<std::pair<int, float>>>> frames = {
        {"7D and 7F in a value", DataFrame(10, coolant), {{9, coolant}}},
        {"a pair at the payload's last byte",
         DataFrame(11, FloatOf({0, 0, 0x80, 0x7E})),
         {{10, FloatOf({0, 0, 0x80, 0x7E})}}},
        {"several pairs",
         BoxFrame(0x2C81, Cat({Item(1, FloatOf({0x7D, 0x7E, 0x7F, 0x42})),
                               Item(2, FloatOf({0x7E, 0x7E, 0x7E, 0x3E})), Item(3, 8.0f)})),
         {{0, FloatOf({0x7D, 0x7E, 0x7F, 0x42})},
          {1, FloatOf({0x7E, 0x7E, 0x7E, 0x3E})},
          {2, 8.0f}}},
        {"a pair in the sequence byte", BoxFrame(0x2C81, Item(5, 2.5f), 0x7E), {{4, 2.5f}}},
        {"a pair in the command code", BoxFrame(0x6C7F, {0x7D, 0x00}, 0x7F), {}},
        {"a pair in the length field", BoxFrame(0x2C81, many), manyValues},
    };
    std::vector<Case> cases;
    for (const auto& [what, plain, values] : frames) {
        for (const bool countsPairs : {false, true}) {
            const std::string name = what + (countsPairs ? ", pairs in L" : ", L unescaped");
            const Bytes f = Escaped(plain, countsPairs);
            const size_t cut = static_cast<size_t>((f[4] << 8) | f[5]) + 7;  // by the raw L
            const size_t split = std::min(cut, f.size() - 1);
            std::vector<Bytes> bytewise;
            for (unsigned char b : f) bytewise.push_back({b});
            bytewise.push_back(link);
            Bytes bad = f;
            bad.back() ^= 0x5A;
            cases.push_back({name, {Cat({f, link})}, {f, link}, values});
            cases.push_back({name + ", the longer reading split off",
                             {Bytes(f.begin(), f.begin() + static_cast<long>(split)),
                              Cat({Bytes(f.begin() + static_cast<long>(split), f.end()), link})},
                             {f, link},
                             values});
            cases.push_back({name + ", byte by byte", bytewise, {f, link}, values});
            cases.push_back({name + ", garbage after",
                             {Cat({f, kGarbage}), link},
                             {f, link},
                             values,
                             static_cast<int>(kGarbage.size())});
            // The surplus of the cut precedes the next head: dropped without a word, as ever.
            cases.push_back({name + ", neither checksum",
                             {Cat({bad, link})},
                             {Bytes(bad.begin(), bad.begin() + static_cast<long>(cut)), link},
                             {}});
        }
    }
    // Its first L + 7 raw bytes pass for a frame by chance; the head after the whole one decides.
    const Bytes lucky = Escaped(DataFrame(10, FloatOf({0x7D, 0x7F, 0xB4, 0x42})), false);
    cases.push_back({"L unescaped, the shorter reading matching too",
                     {Cat({lucky, link})},
                     {lucky, link},
                     {{9, FloatOf({0x7D, 0x7F, 0xB4, 0x42})}}});
    // Neither: what the box sent is lost as before (the last bytes of the value read as 0) ...
    Bytes bad = Escaped(DataFrame(10, coolant), false);
    bad.back() ^= 0x5A;
    cases.push_back({"neither checksum, the value cut short",
                     {Cat({bad, link})},
                     {Bytes(bad.begin(), bad.end() - 2), link},
                     {{9, FloatOf({0x7D, 0x7F, 0x20, 0x00})}}});
    // ... and the reading L unescaped, longer than the buffer can hold, is not waited for.
    Bytes big = Escaped(BoxFrame(0x6CF1, Cat({Bytes(980, 0x00), Bytes(20, 0x7E)})), false);
    big.back() ^= 0x5A;
    cases.push_back({"neither checksum, the longer reading beyond the buffer",
                     {Cat({big, link})},
                     {Bytes(big.begin(), big.begin() + 1010), link},
                     {},
                     -1});
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        for (const auto& item : c.values)
            Feed(DataFrame(static_cast<unsigned char>(item.first + 1), -1.0f));
        fakehost::Reset();
        const std::string printed = Printed([&] {
            for (const auto& read : c.reads) Feed(read);
        });
        EXPECT_EQ(Dispatched(), c.dispatched);
        for (const auto& [index, value] : c.values)
            EXPECT_EQ(Value(index), value) << "item " << index;
        if (c.garbage >= 0) {
            EXPECT_EQ(GarbageReported(printed), c.garbage);
        }
        if (!c.values.empty()) {
            EXPECT_EQ(fakehost::CountLogs("crc error"), 0);
        }
        EXPECT_EQ(Peer().RecvLen(), 0);
    }
}

// Read one byte at a time, an escaped frame's shorter reading is complete before its longer one,
// and matches its checksum by chance once in 256 frames. The box's convention, as its frames
// showed it, decides: from a box that leaves its pairs out of L (so from the start) the next bytes
// are awaited; from one that counts them the frame is taken at its last byte.
TEST_F(LinkTest, EscapedFrameByteByByteIsTakenByTheBoxsLengthConvention) {
    const Bytes link = BoxFrame(0x2C10);
    const float lucky = FloatOf({0x7D, 0x7F, 0xB4, 0x42});  // the shorter reading matches too
    const float plain = FloatOf({0x7D, 0x7F, 0x20, 0x42});  // it does not
    const Bytes unescaped = Cat({Escaped(DataFrame(3, plain), false), link});
    const Bytes counted = Cat({Escaped(DataFrame(3, plain), true), link});
    const struct {
        const char* name;
        std::vector<Bytes> before;  // frames that show the box's convention, read whole
        float value;
        bool countsPairs;
        bool atLastByte;  // dispatched at its last byte; else once the next head is in
    } rows[] = {
        {"L unescaped, as a box starts", {}, lucky, false, true},
        {"L unescaped, once the box stopped counting", {counted, unescaped}, lucky, false, true},
        {"pairs in L, from a box known to count them", {counted}, plain, true, true},
        {"pairs in L, from a box known not to", {unescaped}, plain, true, false},
        {"pairs in L, once a frame with garbage after it showed it",
         {Cat({Escaped(DataFrame(3, plain), true), kGarbage, link})},
         plain,
         true,
         true},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        Feed(unescaped);  // back to the start's convention
        for (const Bytes& b : r.before) Feed(b);
        Feed(DataFrame(10, -1.0f));
        fakehost::Reset();
        const Bytes f = Escaped(DataFrame(10, r.value), r.countsPairs);
        for (unsigned char b : f) Feed({b});
        EXPECT_EQ(Dispatched(), r.atLastByte ? std::vector<Bytes>{f} : std::vector<Bytes>{});
        for (unsigned char b : link) Feed({b});
        EXPECT_EQ(Dispatched(), (std::vector<Bytes>{f, link}));
        EXPECT_EQ(Value(9), r.value);
        EXPECT_EQ(fakehost::CountLogs("crc error"), 0);
        EXPECT_EQ(Peer().RecvLen(), 0);
    }
}

TEST_F(LinkTest, TruncatedFrameIsFollowedByGoodFrames) {
    const Bytes f = DataFrame(30, 5.0f);
    for (size_t keep = 1; keep < f.size(); ++keep) {
        fakehost::Reset();
        // The receiver believes the short frame's length field and cuts into the frames that
        // follow, but once that many bytes have passed it is in step again.
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
        EXPECT_EQ(Peer().RecvLen(), 0);
    }
}

// Serial reads (peripheral thread) and relayed box bytes (bus thread) feed one receiver: each
// read is handled whole, so whole frames from both sides are all dispatched, none mixed.
TEST_F(LinkTest, TwoFeedersAtOnceLoseNoFrame) {
    constexpr int kReads = 300;
    auto feeder = [this](unsigned char id) {
        for (int i = 0; i < kReads; ++i) Feed(DataFrame(id, static_cast<float>(i)));
    };
    std::thread serial(feeder, 1);
    std::thread bus(feeder, 2);
    serial.join();
    bus.join();
    EXPECT_EQ(Dispatched().size(), 2u * kReads);
    EXPECT_EQ(fakehost::CountLogs("crc error"), 0);
    EXPECT_EQ(Value(0), kReads - 1.0f);
    EXPECT_EQ(Value(1), kReads - 1.0f);
}

}  // namespace

// The firmware transfer on the wire: step order, the three payloads, chunk offsets and lengths,
// timeouts and retries of a silent box, the progress the bus sees, and the file's fate.
#include <unistd.h>

#include <fstream>
#include <set>

#include "LinkTestSupport.h"

namespace {

struct Chunk {
    uint32_t offset;
    uint16_t len;
    bool operator==(const Chunk& o) const { return offset == o.offset && len == o.len; }
};
// (bus state, percent) of an upgrade-state broadcast.
using State = std::pair<int, int>;

uint32_t Be(const Bytes& b, size_t at, int n) {
    uint32_t v = 0;
    for (int i = 0; i < n; ++i) v = (v << 8) | b[at + static_cast<size_t>(i)];
    return v;
}

class LinkUpgradeTest : public LinkTest {
  protected:
    void SetUp() override {
        LinkTest::SetUp();
        ObdUpgradePercentReset();
    }
    void TearDown() override {
        unlink(m_path.c_str());
        LinkTest::TearDown();
    }
    // A file of `size` bytes of a pattern that differs from chunk to chunk.
    Bytes MakeFile(size_t size, const std::string& text = "") {
        m_path = testing::TempDir() + "obd-upgrade-" + std::to_string(getpid()) + ".bin";
        Bytes b(text.begin(), text.end());
        for (size_t i = b.size(); i < size; ++i)
            b.push_back(static_cast<unsigned char>(i * 7 + i / 256));
        std::ofstream(m_path, std::ios::binary)
            .write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
        return b;
    }
    bool FileThere() const { return access(m_path.c_str(), F_OK) == 0; }
    // A box that answers every upgrade step with status 4, refuses `refuse` with status 2,
    // ignores `ignore`, and answers the stream stop.
    std::unique_ptr<ScriptedBox> Box(uint16_t refuse = 0, uint16_t ignore = 0) {
        return std::make_unique<ScriptedBox>(
            m_ctrl, [=](uint16_t code, unsigned char seq) -> std::vector<Bytes> {
                if (code == ignore) return {};
                return {BoxFrame(static_cast<uint16_t>(code + 0x4000),
                                 {static_cast<unsigned char>(code == refuse ? 2 : 4)}, seq)};
            });
    }
    static Bytes Payload(const Bytes& frame) { return Bytes(frame.begin() + 9, frame.end() - 1); }
    static std::vector<Bytes> Sent(uint16_t code) {
        std::vector<Bytes> out;
        for (const auto& w : fakehost::SerialWrites())
            if (((w[7] << 8) | w[8]) == code) out.push_back(w);
        return out;
    }
    static std::vector<Chunk> Chunks() {
        std::vector<Chunk> out;
        for (const auto& w : Sent(0x2403)) {
            const Bytes p = Payload(w);
            out.push_back({Be(p, 0, 4), static_cast<uint16_t>(Be(p, 4, 2))});
        }
        return out;
    }
    static std::vector<State> Broadcasts() {
        std::vector<State> out;
        for (const auto& m : fakehost::Sends())
            if (m.id == MSG_PERIPHERAL_UPGRADE_STATE) out.emplace_back(m.payload[2], m.payload[3]);
        return out;
    }
    // Host time of the waits that ran to their deadline.
    static std::vector<unsigned int> Expired() {
        std::vector<unsigned int> out;
        for (const auto& w : fakehost::TimedWaits())
            if (!w.ready) out.push_back(w.us);
        return out;
    }

    std::string m_path;
};

TEST_F(LinkUpgradeTest, TransfersAsTheBoxAnswers) {
    struct Case {
        const char* what;
        size_t size;
        uint16_t refuse, ignore;
        int result;
        std::vector<Chunk> chunks;  // all of them, or {first, last} with `count`
        size_t count;
        std::vector<State> bus;  // empty: not checked
        std::vector<unsigned int> expired;
    };
    // (Rows as calls: one line a case.)
    auto C = [](const char* what, size_t size, uint16_t refuse, uint16_t ignore, int result,
                std::vector<Chunk> chunks, size_t count, std::vector<State> bus,
                std::vector<unsigned int> expired) {
        return Case{what, size, refuse, ignore, result, chunks, count, bus, expired};
    };
    const unsigned int k550 = 550000, k2050 = 2050000;
    const std::vector<Case> cases = {
        C("600 bytes", 600, 0, 0, 0, {{0, 256}, {256, 256}, {512, 88}}, 3,
          {{0, 0}, {0, 42}, {0, 85}, {10, 100}}, {}),
        C("512 bytes: the last full chunk reports 100", 512, 0, 0, 0, {{0, 256}, {256, 256}}, 2,
          {{0, 0}, {0, 50}, {0, 100}, {10, 100}}, {}),
        C("64 KiB + 10: one block, then the rest", 65546, 0, 0, 0, {{0, 256}, {65536, 10}}, 257, {},
          {}),
        C("empty: no chunk, no percent", 0, 0, 0, 0, {}, 0, {{0, 0}, {10, 100}}, {}),
        C("MD5 refused on every attempt", 600, 0x2404, 0, -1, {{0, 256}, {256, 256}, {512, 88}}, 3,
          {{0, 0}, {0, 42}, {0, 85}, {9, 85}}, {}),
        C("full chunk unanswered: 4 x 550 ms", 600, 0, 0x2403, -1, {{0, 256}, {0, 256}}, 4,
          {{0, 0}, {9, 0}}, {k550, k550, k550, k550}),
        C("short last chunk unanswered: 4 x 2050 ms", 88, 0, 0x2403, -1, {{0, 88}, {0, 88}}, 4,
          {{0, 0}, {9, 0}}, {k2050, k2050, k2050, k2050}),
        C("start refused", 600, 0x2407, 0, -1, {}, 0, {{9, 0}}, {}),
        C("end refused: the file stays", 256, 0x2111, 0, -1, {{0, 256}}, 1,
          {{0, 0}, {0, 100}, {9, 100}}, {}),
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        fakehost::Reset();
        ObdUpgradePercentReset();
        const Bytes file = MakeFile(c.size);
        int r = 0;
        std::string out;
        {
            auto box = Box(c.refuse, c.ignore);
            out = Printed([&] { r = m_ctrl->OBD_UpgradeProc(&m_path[0]); });
        }
        EXPECT_EQ(r, c.result);
        const auto chunks = Chunks();
        ASSERT_EQ(chunks.size(), c.count);
        if (c.count == c.chunks.size()) {
            EXPECT_EQ(chunks, c.chunks);
        } else if (c.count > 0) {
            EXPECT_EQ(chunks.front(), c.chunks.front());
            EXPECT_EQ(chunks.back(), c.chunks.back());
        }
        // Each answered chunk carries the file's bytes at its offset.
        std::set<uint32_t> offsets;
        for (const auto& w : Sent(0x2403)) {
            const Bytes p = Payload(w);
            const uint32_t at = Be(p, 0, 4);
            ASSERT_EQ(p.size(), 6 + Be(p, 4, 2));
            EXPECT_TRUE(std::equal(p.begin() + 6, p.end(), file.begin() + at)) << at;
            offsets.insert(at);
        }
        if (!c.bus.empty()) {
            EXPECT_EQ(Broadcasts(), c.bus);
        }
        for (const State& b : c.bus) {
            const std::string line = "\nUpgrading :" + std::to_string(b.second) + "/100\n";
            if (b.first == 0 && b.second > 0) {
                EXPECT_NE(out.find(line), std::string::npos);
            }
        }
        // A refused step is asked again until its attempts are used up.
        EXPECT_EQ(Sent(c.refuse).size(), c.refuse != 0 ? 11u : 0u);
        EXPECT_EQ(Expired(), c.expired);
        EXPECT_EQ(FileThere(), c.result != 0);
        const auto codes = SentCodes();
        ASSERT_FALSE(codes.empty());
        EXPECT_EQ(codes[0], 0x2C04);  // the stream is stopped first
        if (c.result == 0) {
            EXPECT_EQ(Sent(0x2402).size(), 1u);
            EXPECT_EQ(std::vector<uint16_t>(codes.end() - 2, codes.end()),
                      (std::vector<uint16_t>{0x2404, 0x2111}));
        }
    }
}

TEST_F(LinkUpgradeTest, PayloadsOfNameAndDigest) {
    auto box = Box();
    // "abc": one chunk of 3 bytes, and the digest of RFC 1321's test suite as lowercase text.
    MakeFile(3, "abc");
    const std::string out = Printed([&] { EXPECT_EQ(m_ctrl->OBD_UpgradeProc(&m_path[0]), 0); });
    EXPECT_EQ(Payload(Sent(0x2403).at(0)), Hex("00 00 00 00 00 03 61 62 63"));
    const Bytes md5 = Payload(Sent(0x2404).at(0));
    EXPECT_EQ(std::string(md5.begin(), md5.end()), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_NE(out.find("MD5Out:900150983cd24fb0d6963f7d28e17f72\n"), std::string::npos);
    EXPECT_NE(out.find("fileState.st_size:3\n"), std::string::npos);

    // 70000 bytes under the fixed name; a name of 121 characters fills the 128-byte packet, one
    // of 122 does not fit and is not sent.
    MakeFile(70000);
    fakehost::ClearRecords();
    char name[] = "DOWNLOAD.BIN";
    EXPECT_EQ(m_ctrl->OBD_UpgradeSendFileName(name, &m_path[0]), 0);
    EXPECT_EQ(Payload(Sent(0x2402).at(0)),
              Hex("00 0D 44 4F 57 4E 4C 4F 41 44 2E 42 49 4E 00 00 01 11 70"));
    std::string longName(121, 'n');
    EXPECT_EQ(m_ctrl->OBD_UpgradeSendFileName(&longName[0], &m_path[0]), 0);
    EXPECT_EQ(Payload(Sent(0x2402).at(1)).size(), 128u);
    longName += 'n';
    EXPECT_EQ(m_ctrl->OBD_UpgradeSendFileName(&longName[0], &m_path[0]), -1);
    EXPECT_EQ(Sent(0x2402).size(), 2u);
}

// Nothing to send: a null path fails before the start report, a missing file at the name step.
TEST_F(LinkUpgradeTest, NullPathAndMissingFile) {
    auto box = Box();
    EXPECT_EQ(m_ctrl->OBD_UpgradeProc(nullptr), -1);
    EXPECT_TRUE(fakehost::SerialWrites().empty());
    EXPECT_EQ(Broadcasts(), (std::vector<State>{{9, 0}}));
    char missing[] = "/nonexistent/DOWNLOAD.bin";
    testing::internal::CaptureStderr();
    EXPECT_EQ(m_ctrl->OBD_UpgradeProc(missing), -1);
    // The fault a field engineer meets most: the message names the file.
    EXPECT_NE(testing::internal::GetCapturedStderr().find(
                  "stat64(): /nonexistent/DOWNLOAD.bin: No such file or directory"),
              std::string::npos);
    EXPECT_EQ(SentCodes(), (std::vector<uint16_t>{0x2C04, 0x2407}));
    EXPECT_EQ(m_ctrl->OBD_UpgradeSendFile(nullptr), -1);
    EXPECT_EQ(m_ctrl->OBD_UpgradeSendMD5(missing), -1);
}

}  // namespace

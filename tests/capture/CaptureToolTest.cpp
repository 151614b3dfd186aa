// obd-sim --capture and obd-frame's captures end to end: what a run's capture holds (frames both
// ways at their last byte's time, broadcasts, answers, inbound messages, inertial samples), that
// it repeats byte for byte on virtual time, that its frames are what the decoder cuts from the raw
// chunks, that a Ctrl-C leaves a whole file, and that a log becomes a capture with its own times.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "Capture.h"
#include "FrameDecoder.h"
#include "SimProcess.h"

namespace {

using obdcap::Channel;
using obdcap::Direction;
using obdcap::Packet;

const std::string kFrameData = OBD_FRAME_DATA_DIR;

std::vector<Packet> ReadCapture(const std::string& path, std::string& error) {
    std::vector<Packet> out;
    obdcap::Reader r;
    if (!r.Open(path, error)) return out;
    Packet p;
    while (r.Next(p, error)) out.push_back(p);
    return out;
}

std::vector<Packet> Only(const std::vector<Packet>& all, Channel c, Direction d) {
    std::vector<Packet> out;
    for (const Packet& p : all) {
        if (p.channel == c && p.direction == d) out.push_back(p);
    }
    return out;
}

size_t CountBus(const std::vector<Packet>& all, uint32_t id, Direction d, uint8_t flags) {
    return static_cast<size_t>(std::count_if(all.begin(), all.end(), [&](const Packet& p) {
        return p.channel == Channel::Bus && p.busId == id && p.direction == d && p.flags == flags;
    }));
}

class CaptureTool : public obdsim::RunDirTest {
  protected:
    int Sim(const std::string& args) { return Shell(OBD_SIM_LAUNCHER " " OBD_SIM " " + args); }
    int Frame(const std::string& args) { return Shell(OBD_SIM_LAUNCHER " " OBD_FRAME " " + args); }
    int Shell(const std::string& cmd) {
        const int code = obdsim::RunShell(cmd + " </dev/null >" + dir + "/out 2>" + dir + "/err");
        out = Slurp("/out");
        err = Slurp("/err");
        return code;
    }
    std::vector<Packet> Capture(const std::string& name) {
        std::string error;
        std::vector<Packet> packets = ReadCapture(dir + name, error);
        EXPECT_EQ(error, "") << name;
        return packets;
    }
    std::string out, err;
};

// A short drive with one configuration query: frames both ways, the broadcasts and the answer,
// the query itself, the inertial samples, and the same bytes on a second run.
TEST_F(CaptureTool, RunCaptureHoldsEveryChannelAndRepeats) {
    std::ofstream(dir + "/inject") << "@1500 6698\n";
    const std::string args = "--speed max --duration 12 --inject " + dir + "/inject --capture ";
    ASSERT_EQ(Sim(args + dir + "/a.pcap"), 0) << err;
    ASSERT_EQ(Sim(args + dir + "/b.pcap"), 0) << err;
    EXPECT_EQ(Slurp("/a.pcap"), Slurp("/b.pcap")) << "two runs on virtual time differ";

    const std::vector<Packet> all = Capture("/a.pcap");
    const std::vector<Packet> toBox = Only(all, Channel::Frame, Direction::FromPlugin);
    const std::vector<Packet> fromBox = Only(all, Channel::Frame, Direction::ToPlugin);
    EXPECT_GE(toBox.size(), 2u);
    EXPECT_GE(fromBox.size(), 12u);  // a data frame a second and the answers
    for (const std::vector<Packet>* frames : {&toBox, &fromBox}) {
        for (const Packet& p : *frames) {
            ASSERT_GE(p.payload.size(), 8u);
            EXPECT_EQ(p.payload[0], 0x55);
            EXPECT_EQ(p.payload[1], 0xAA);
            EXPECT_EQ(p.payload[2], frames == &toBox ? 0xF0 : 0xF8) << "a frame's mark is its side";
            EXPECT_EQ(p.flags, 0);
        }
    }
    // 6702 every second; the query answered once, the query itself inbound.
    EXPECT_GE(CountBus(all, 6702, Direction::FromPlugin, 0), 11u);
    EXPECT_EQ(CountBus(all, 6698, Direction::FromPlugin, obdcap::kFlagResponse), 1u);
    EXPECT_EQ(CountBus(all, 6698, Direction::ToPlugin, 0), 1u);
    for (const Packet& p : all) {
        if (p.channel == Channel::Bus && p.busId == 6698 && p.direction == Direction::ToPlugin) {
            EXPECT_EQ(p.tUs, 1500000);
        }
    }
    // Inertial samples ten a second as 12-byte records, never doubled as bus messages.
    const std::vector<Packet> samples = Only(all, Channel::Inertial, Direction::ToPlugin);
    EXPECT_GE(samples.size(), 115u);
    EXPECT_LE(samples.size(), 125u);
    for (const Packet& p : samples) EXPECT_EQ(p.payload.size(), 12u);
    EXPECT_EQ(CountBus(all, 1071, Direction::ToPlugin, 0), 0u);
    for (const Packet& p : all) {
        EXPECT_LE(p.tUs, 13000000) << "host time since the start of the run";
        EXPECT_EQ(p.busId != 0, p.channel == Channel::Bus);
    }
}

// With the raw chunks: each side's frames and garbage are what the decoder cuts from that side's
// chunks, each at the time of the chunk holding its last byte; the rest of the capture is the
// same as without the chunks.
TEST_F(CaptureTool, FramesAreTheDecodersCutOfTheChunks) {
    const std::string args = "--speed max --duration 12 --box-stream-ms 300 --capture ";
    ASSERT_EQ(Sim(args + dir + "/chunks.pcap --capture-chunks"), 0) << err;
    ASSERT_EQ(Sim(args + dir + "/plain.pcap"), 0) << err;
    const std::vector<Packet> all = Capture("/chunks.pcap");
    std::vector<Packet> withoutChunks;
    for (const Packet& p : all) {
        if (p.channel != Channel::Chunk) withoutChunks.push_back(p);
    }
    const std::vector<Packet> plain = Capture("/plain.pcap");
    ASSERT_EQ(withoutChunks.size(), plain.size());
    for (size_t i = 0; i < plain.size(); ++i) {
        EXPECT_EQ(withoutChunks[i].tUs, plain[i].tUs) << i;
        EXPECT_EQ(withoutChunks[i].payload, plain[i].payload) << i;
    }

    for (Direction d : {Direction::FromPlugin, Direction::ToPlugin}) {
        SCOPED_TRACE(static_cast<int>(d));
        std::vector<uint8_t> stream;
        std::vector<std::pair<size_t, long long>> chunkAt;  // stream offset, time
        for (const Packet& p : Only(all, Channel::Chunk, d)) {
            chunkAt.emplace_back(stream.size(), p.tUs);
            stream.insert(stream.end(), p.payload.begin(), p.payload.end());
        }
        ASSERT_FALSE(stream.empty());
        const auto lineDir =
            d == Direction::FromPlugin ? obdframe::Dir::ToBox : obdframe::Dir::FromBox;
        const std::vector<obdframe::Record> cut =
            obdframe::DecodeStream(stream.data(), stream.size(), lineDir);
        std::vector<Packet> records;
        for (const Packet& p : all) {
            if (p.direction == d &&
                (p.channel == Channel::Frame || p.channel == Channel::Garbage)) {
                records.push_back(p);
            }
        }
        ASSERT_EQ(records.size(), cut.size());
        for (size_t i = 0; i < cut.size(); ++i) {
            const obdframe::Record& r = cut[i];
            EXPECT_EQ(records[i].payload, r.raw) << i;
            EXPECT_EQ(records[i].channel,
                      r.kind == obdframe::Kind::Garbage ? Channel::Garbage : Channel::Frame);
            EXPECT_EQ(records[i].flags, r.kind == obdframe::Kind::Truncated ? obdcap::kFlagCut : 0);
            const size_t last = r.offset + r.raw.size() - 1;
            const auto chunk = std::upper_bound(
                chunkAt.begin(), chunkAt.end(), last,
                [](size_t off, const std::pair<size_t, long long>& c) { return off < c.first; });
            EXPECT_EQ(records[i].tUs, std::prev(chunk)->second) << "frame " << i;
        }
    }
}

// CAN-box mode: the box's bytes come in 6898 messages and leave in 6899 ones, and the line frames
// are cut from exactly those bytes.
TEST_F(CaptureTool, CanBoxFramesAreTheRelayedBytes) {
    ASSERT_EQ(Sim("--speed max --duration 6 --product-type 72 --capture " + dir + "/can.pcap"), 0)
        << err;
    const std::vector<Packet> all = Capture("/can.pcap");
    std::vector<uint8_t> relayedIn, relayedOut, framesIn, framesOut;
    for (const Packet& p : all) {
        if (p.channel == Channel::Bus && p.busId == 6898) {
            ASSERT_EQ(p.direction, Direction::ToPlugin);
            relayedIn.insert(relayedIn.end(), p.payload.begin() + 4, p.payload.end());
        } else if (p.channel == Channel::Bus && p.busId == 6899) {
            ASSERT_EQ(p.direction, Direction::FromPlugin);
            relayedOut.insert(relayedOut.end(), p.payload.begin() + 4, p.payload.end());
        } else if (p.channel == Channel::Frame || p.channel == Channel::Garbage) {
            std::vector<uint8_t>& to = p.direction == Direction::ToPlugin ? framesIn : framesOut;
            to.insert(to.end(), p.payload.begin(), p.payload.end());
        }
    }
    EXPECT_FALSE(relayedIn.empty());
    EXPECT_FALSE(relayedOut.empty());
    EXPECT_EQ(framesIn, relayedIn);
    EXPECT_EQ(framesOut, relayedOut);
}

// Interrupted on the real clock: the file is closed as after a normal end.
TEST_F(CaptureTool, CtrlCLeavesACompleteCapture) {
    const std::string path = dir + "/int.pcap";
    const pid_t pid = obdsim::SpawnShell(OBD_SIM_LAUNCHER " " OBD_SIM " --no-box --capture " +
                                         path + " </dev/null >/dev/null 2>" + dir + "/err");
    ASSERT_GT(pid, 0);
    // The file is created before the plug-in starts, and the signal handler set before that.
    struct stat st {};
    for (int i = 0; i < 20000 && ::stat(path.c_str(), &st) != 0; ++i) ::usleep(1000);
    ASSERT_EQ(::stat(path.c_str(), &st), 0) << Slurp("/err");
    ::kill(pid, SIGINT);
    EXPECT_EQ(obdsim::WaitExit(pid, 100), 0) << Slurp("/err");
    std::string error;
    ReadCapture(path, error);
    EXPECT_EQ(error, "");
}

TEST_F(CaptureTool, BadCaptureOptionsAreToldBeforeTheRun) {
    struct Case {
        std::string args;
        int code;
        std::string message;
    };
    const std::vector<Case> cases = {
        {"--capture-chunks --duration 1", 2, "--capture-chunks requires --capture"},
        {"--capture '' --duration 1", 2, "needs a name"},
        {"--capture /nonexistent-dir/x.pcap --duration 1", 1, "cannot write /nonexistent-dir"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Sim(c.args), c.code) << c.args << ": " << err;
        EXPECT_NE(err.find(c.message), std::string::npos) << c.args << ": " << err;
    }
}

// A log with times: every wire line becomes a packet with its time, in order; obd-frame prints the
// capture's frames as it prints the log's.
TEST_F(CaptureTool, LogBecomesACaptureWithTheLogsTimes) {
    const std::string log = kFrameData + "/builtin-box.log";
    ASSERT_EQ(Frame("--pcap " + dir + "/log.pcap " + log), 0) << err;
    EXPECT_NE(err.find("times from the input"), std::string::npos) << err;
    struct Wire {
        long long tUs;
        Direction dir;
        std::vector<uint8_t> bytes;
    };
    std::vector<Wire> wires;
    std::ifstream in(log);
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream s(line);
        std::string t, ms, kind, side;
        if (line.empty() || line[0] != '[' || !(s >> t >> ms >> kind >> side) || kind != "wire") {
            continue;
        }
        Wire w{std::stoll(t.substr(1)) * 1000,
               side == "to_box" ? Direction::FromPlugin : Direction::ToPlugin,
               {}};
        unsigned v = 0;
        while (s >> std::hex >> v) w.bytes.push_back(static_cast<uint8_t>(v));
        wires.push_back(w);
    }
    const std::vector<Packet> packets = Capture("/log.pcap");
    ASSERT_EQ(packets.size(), wires.size());
    ASSERT_GE(packets.size(), 20u);
    for (size_t i = 0; i < wires.size(); ++i) {
        EXPECT_EQ(packets[i].tUs, wires[i].tUs) << i;
        EXPECT_EQ(packets[i].direction, wires[i].dir) << i;
        EXPECT_EQ(packets[i].payload, wires[i].bytes) << i;
        EXPECT_EQ(packets[i].channel, Channel::Frame) << i;
    }

    auto records = [](const std::string& text) {
        std::vector<std::string> lines;
        std::istringstream s(text);
        std::string l;
        while (std::getline(s, l)) {
            if (!l.empty() && l[0] != '#') lines.push_back(l);
        }
        return lines;
    };
    ASSERT_EQ(Frame(log), 0) << err;
    const std::vector<std::string> fromLog = records(out);
    ASSERT_EQ(Frame(dir + "/log.pcap"), 0) << err;
    EXPECT_EQ(records(out), fromLog);
}

// Inputs without times are numbered 0, 1, 2 ... us; garbage and a cut-off frame get their
// channel and flag, the direction that of the frame's mark or the line's.
TEST_F(CaptureTool, UntimedInputIsNumberedInOrder) {
    struct Expect {
        Channel channel;
        Direction dir;
        uint8_t flags;
        size_t bytes;
    };
    struct Case {
        const char* name;
        std::string file;  // written to the run directory when `content` is set
        std::string content;
        std::vector<Expect> expected;
    };
    const std::vector<Case> cases = {
        {"hex: garbage, a frame to the box, a head cut off",
         "/in.hex",
         "13 3A\n55 AA F0 F8 00 03 01 2C 04 22\n55 AA F8 F0 00 09 01\n",
         {{Channel::Garbage, Direction::ToPlugin, 0, 2},
          {Channel::Frame, Direction::FromPlugin, 0, 10},
          {Channel::Frame, Direction::ToPlugin, obdcap::kFlagCut, 7}}},
        {"a field log's reads",
         kFrameData + "/serial-escape-garbage.log",
         "",
         {{Channel::Garbage, Direction::ToPlugin, 0, 5},
          {Channel::Frame, Direction::ToPlugin, 0, 10}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::string input = c.file;
        if (!c.content.empty()) {
            input = dir + c.file;
            std::ofstream(input) << c.content;
        }
        ASSERT_EQ(Frame("--pcap " + dir + "/u.pcap " + input), 0) << err;
        EXPECT_NE(err.find("numbered 0, 1, 2"), std::string::npos) << err;
        const std::vector<Packet> packets = Capture("/u.pcap");
        ASSERT_GE(packets.size(), c.expected.size());
        for (size_t i = 0; i < packets.size(); ++i)
            EXPECT_EQ(packets[i].tUs, static_cast<long long>(i));
        for (size_t i = 0; i < c.expected.size(); ++i) {
            EXPECT_EQ(packets[i].channel, c.expected[i].channel) << i;
            EXPECT_EQ(packets[i].direction, c.expected[i].dir) << i;
            EXPECT_EQ(packets[i].flags, c.expected[i].flags) << i;
            EXPECT_EQ(packets[i].payload.size(), c.expected[i].bytes) << i;
        }
    }
}

// A capture cut short is printed up to the damage, which is named; a capture is no --pcap input.
TEST_F(CaptureTool, DamagedCaptureIsReadUpToTheDamage) {
    ASSERT_EQ(Frame("--pcap " + dir + "/log.pcap " + kFrameData + "/builtin-box.log"), 0) << err;
    const std::string whole = Slurp("/log.pcap");
    std::ofstream(dir + "/cut.pcap", std::ios::binary) << whole.substr(0, whole.size() - 3);
    EXPECT_EQ(Frame("--no-fields " + dir + "/cut.pcap"), 1);
    EXPECT_NE(err.find("packet 21 (byte "), std::string::npos) << err;
    EXPECT_NE(out.find("summary: 20 frames"), std::string::npos) << out;
    EXPECT_EQ(Frame("--pcap " + dir + "/again.pcap " + dir + "/log.pcap"), 2);
    EXPECT_NE(err.find("is a capture already"), std::string::npos) << err;
}

}  // namespace

// A run's own capture replayed: identical, and the new capture of the replay the same byte for
// byte. Each recorded packet of the plug-in's altered in turn: the replay fails (status 6) naming
// that packet and the first field that differs.
TEST_F(CaptureTool, ReplayIsIdenticalAndNamesTheFirstDifference) {
    ASSERT_EQ(Sim("--duration 12 --capture " + dir + "/run.pcap"), 0) << err;
    ASSERT_EQ(Sim("--replay " + dir + "/run.pcap --capture " + dir + "/again.pcap"), 0) << err;
    EXPECT_NE(out.find("replay: identical: "), std::string::npos) << out;
    EXPECT_EQ(Slurp("/again.pcap"), Slurp("/run.pcap"));
    const std::vector<Packet> recorded = Capture("/run.pcap");
    ASSERT_GT(recorded.size(), 100u);

    auto firstOf = [&recorded](Channel c, uint32_t id) {
        for (size_t i = 0; i < recorded.size(); ++i) {
            if (recorded[i].channel == c && recorded[i].direction == Direction::FromPlugin &&
                (id == 0 || recorded[i].busId == id)) {
                return i;
            }
        }
        return recorded.size();
    };
    struct Case {
        const char* name;
        std::function<size_t(std::vector<Packet>&)> alter;  // the packet altered
        std::string expect;
    };
    const std::vector<Case> cases = {
        {"a value of the OBD table",
         [&](std::vector<Packet>& ps) {
             const size_t at = firstOf(Channel::Bus, 6702);
             std::vector<uint8_t>& p = ps.at(at).payload;
             for (size_t item = 0; item + 8 <= p.size(); item += 8) {
                 if (p[item] == 0xFF) continue;  // an item the box has not sent (id -1)
                 float v = 0;
                 std::memcpy(&v, p.data() + item + 4, 4);
                 v += 1.5F;
                 std::memcpy(p.data() + item + 4, &v, 4);
                 break;
             }
             return at;
         },
         "6702 items."},
        {"a frame's sequence number",
         [&](std::vector<Packet>& ps) {
             const size_t at = firstOf(Channel::Frame, 0);
             std::vector<uint8_t>& f = ps.at(at).payload;
             f[6] ^= 0x40;
             f.back() ^= 0x40;  // the checksum still adds up
             return at;
         },
         " recorded, frame "},
        {"a broadcast the plug-in never sent",
         [&](std::vector<Packet>& ps) {
             const size_t at = firstOf(Channel::Bus, 6714);
             ps.insert(ps.begin() + static_cast<std::ptrdiff_t>(at), ps[at]);
             return at;
         },
         "6714 "},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<Packet> altered = recorded;
        const size_t at = c.alter(altered);
        {
            obdcap::Writer w;
            std::string error;
            ASSERT_TRUE(w.Open(dir + "/altered.pcap", error)) << error;
            for (const Packet& p : altered) w.Write(p);
            ASSERT_TRUE(w.Close(error)) << error;
        }
        EXPECT_EQ(Sim("--replay " + dir + "/altered.pcap"), 6) << err;
        // The first divergence is the altered packet, at its time.
        const size_t line = out.find("\n  ");
        ASSERT_NE(line, std::string::npos) << out;
        const std::string first = out.substr(line + 3, out.find('\n', line + 3) - line - 3);
        EXPECT_EQ(first.rfind(std::to_string(altered[at].tUs / 1000) + " ms  ", 0), 0u) << first;
        EXPECT_NE(first.find(c.expect), std::string::npos) << first;
    }
}

// A capture cut short, a file that is no capture, a missing file: refused with the reason, and
// never a crash.
TEST_F(CaptureTool, ReplayRefusesDamagedCapturesAndBadArguments) {
    ASSERT_EQ(Sim("--duration 3 --capture " + dir + "/run.pcap"), 0) << err;
    ASSERT_EQ(obdsim::RunShell("head -c -3 " + dir + "/run.pcap > " + dir + "/cut.pcap"), 0);
    ASSERT_EQ(obdsim::RunShell("echo not a capture > " + dir + "/text.pcap"), 0);
    struct Case {
        std::string args;
        int status;
        std::string expect;
    };
    const Case cases[] = {
        {"--replay " + dir + "/cut.pcap", 1, "truncated"},
        {"--replay " + dir + "/text.pcap", 1, "text.pcap"},
        {"--replay " + dir + "/missing.pcap", 2, "missing.pcap"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args);
        EXPECT_EQ(Sim(c.args), c.status) << err;
        EXPECT_NE(err.find(c.expect), std::string::npos) << err;
        EXPECT_EQ(out.find("replay:"), std::string::npos) << out;
    }
    Sim("--replay " + dir + "/cut.pcap");
    EXPECT_NE(err.find("packet "), std::string::npos) << err;
}

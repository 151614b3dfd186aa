#include "CaptureReplay.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <limits>
#include <mutex>
#include <thread>

#include "CaptureSink.h"
#include "Decode.h"
#include "FrameDecoder.h"
#include "FrameFields.h"
#include "HostCommon.h"
#include "HostSim.h"
#include "LinkHealth.h"
#include "TripOutputs.h"

namespace obdsim {

namespace {

constexpr int kCanBoxProduct = 72;
constexpr uint32_t kInertialId = 1071;
constexpr uint32_t kBytesFromBoxId = 6898;
constexpr uint32_t kFrameToBoxId = 6899;

std::string Ms(long long tUs) {
    char b[48];
    if (tUs % 1000 == 0) {
        std::snprintf(b, sizeof(b), "%lld ms", tUs / 1000);
    } else {
        std::snprintf(b, sizeof(b), "%.3f ms", static_cast<double>(tUs) / 1000.0);
    }
    return b;
}

std::string Value(const Json& j) {
    return j.is_string() ? j.get<std::string>() : j.dump();
}

// The first leaf where two decoded records differ: "items.speed 31.5 recorded, 32 now".
std::string FirstDifference(const Json& a, const Json& b, const std::string& path) {
    const std::string at = path.empty() ? "" : path + " ";
    if (a.is_object() && b.is_object()) {
        for (auto it = a.begin(); it != a.end(); ++it) {
            const std::string sub = path.empty() ? it.key() : path + "." + it.key();
            if (!b.contains(it.key()))
                return sub + " " + Value(it.value()) + " recorded, absent now";
            std::string d = FirstDifference(it.value(), b[it.key()], sub);
            if (!d.empty()) return d;
        }
        for (auto it = b.begin(); it != b.end(); ++it) {
            if (!a.contains(it.key())) {
                const std::string sub = path.empty() ? it.key() : path + "." + it.key();
                return sub + " absent recorded, " + Value(it.value()) + " now";
            }
        }
        return {};
    }
    if (a.is_array() && b.is_array()) {
        for (size_t i = 0; i < a.size() && i < b.size(); ++i) {
            std::string d = FirstDifference(a[i], b[i], path + "[" + std::to_string(i) + "]");
            if (!d.empty()) return d;
        }
        if (a.size() != b.size()) {
            return at + std::to_string(a.size()) + " entries recorded, " +
                   std::to_string(b.size()) + " now";
        }
        return {};
    }
    if (a == b) return {};
    return at + Value(a) + " recorded, " + Value(b) + " now";
}

std::string FirstByte(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
    for (size_t i = 0; i < a.size() && i < b.size(); ++i) {
        if (a[i] != b[i]) {
            char t[96];
            std::snprintf(t, sizeof(t), "byte %zu: %02X recorded, %02X now", i, a[i], b[i]);
            return t;
        }
    }
    return std::to_string(a.size()) + " bytes recorded, " + std::to_string(b.size()) + " now";
}

std::string BusName(const obdcap::Packet& p) {
    const bool response = (p.flags & obdcap::kFlagResponse) != 0;
    return (response ? "answer to " : "") + std::to_string(p.busId);
}

obdframe::Record LineRecord(const obdcap::Packet& p) {
    const std::vector<obdframe::Record> r =
        obdframe::DecodeStream(p.payload.data(), p.payload.size(), obdframe::Dir::ToBox);
    if (r.size() == 1) return r.front();
    obdframe::Record g;
    g.raw = p.payload;
    return g;
}

std::string FrameName(const obdframe::Record& r) {
    if (r.kind == obdframe::Kind::Garbage) return "garbage";
    if (r.kind == obdframe::Kind::Truncated || !r.HasCode()) return "cut-off frame";
    char code[16];
    std::snprintf(code, sizeof(code), "0x%04X", r.Code());
    return std::string("frame ") + obdframe::CommandName(obdframe::CommandIndex(r.Code(), r.dir)) +
           " (" + code + ") seq " + std::to_string(r.Seq());
}

std::string DescribeLine(const obdcap::Packet& rec, const obdcap::Packet& now) {
    const obdframe::Record a = LineRecord(rec);
    const obdframe::Record b = LineRecord(now);
    const std::string name = FrameName(a);
    if (name != FrameName(b)) return name + " recorded, " + FrameName(b) + " now";
    if (a.raw == b.raw) return name + " at " + Ms(rec.tUs) + " recorded, " + Ms(now.tUs) + " now";
    if (a.kind == obdframe::Kind::Frame && b.kind == obdframe::Kind::Frame) {
        const std::vector<obdframe::Field> fa = obdframe::DecodePayload(a);
        const std::vector<obdframe::Field> fb = obdframe::DecodePayload(b);
        for (size_t i = 0; i < fa.size() && i < fb.size(); ++i) {
            if (fa[i].name != fb[i].name) break;
            if (fa[i].value != fb[i].value) {
                return name + " " + fa[i].name + " " + fa[i].value + " recorded, " + fb[i].value +
                       " now";
            }
        }
        if (a.PayloadSize() != b.PayloadSize()) {
            return name + " payload of " + std::to_string(a.PayloadSize()) + " bytes recorded, " +
                   std::to_string(b.PayloadSize()) + " now";
        }
        if (a.checksum != b.checksum) return name + " checksum differs";
    }
    return name + " " + FirstByte(rec.payload, now.payload);
}

std::string DescribeBus(const obdcap::Packet& rec, const obdcap::Packet& now) {
    const std::string name = BusName(rec);
    if (name != BusName(now)) return name + " recorded, " + BusName(now) + " now";
    if (rec.payload == now.payload) {
        return name + " at " + Ms(rec.tUs) + " recorded, " + Ms(now.tUs) + " now";
    }
    const bool response = (rec.flags & obdcap::kFlagResponse) != 0;
    const std::vector<unsigned char> pa(rec.payload.begin(), rec.payload.end());
    const std::vector<unsigned char> pb(now.payload.begin(), now.payload.end());
    const Json da = Decode(static_cast<int>(rec.busId), response, pa);
    const Json db = Decode(static_cast<int>(now.busId), response, pb);
    if (!da.is_null() && !db.is_null()) {
        const std::string d = FirstDifference(da, db, "");
        if (!d.empty()) return name + " " + d;
    }
    return name + " " + FirstByte(rec.payload, now.payload);
}

}  // namespace

ReplayComparator::ReplayComparator(size_t keep) : m_keep(keep) {}

bool ReplayComparator::Comparable(const obdcap::Packet& p) {
    if (p.direction != obdcap::Direction::FromPlugin) return false;
    return p.channel == obdcap::Channel::Frame || p.channel == obdcap::Channel::Garbage ||
           p.channel == obdcap::Channel::Bus;
}

ReplayComparator::Lane& ReplayComparator::LaneOf(const obdcap::Packet& p) {
    return p.channel == obdcap::Channel::Bus ? m_bus : m_line;
}

void ReplayComparator::Recorded(const obdcap::Packet& p) {
    if (!Comparable(p)) return;
    Lane& lane = LaneOf(p);
    lane.recorded.push_back(p);
    Match(lane);
}

void ReplayComparator::Now(const obdcap::Packet& p) {
    if (!Comparable(p)) return;
    Lane& lane = LaneOf(p);
    lane.now.push_back(p);
    Match(lane);
}

void ReplayComparator::Match(Lane& lane) {
    while (!lane.recorded.empty() && !lane.now.empty()) {
        const obdcap::Packet& a = lane.recorded.front();
        const obdcap::Packet& b = lane.now.front();
        ++m_compared;
        const std::string d = Describe(a, b);
        if (!d.empty()) Add(a.tUs, d);
        lane.recorded.pop_front();
        lane.now.pop_front();
    }
}

void ReplayComparator::Finish() {
    for (Lane* lane : {&m_line, &m_bus}) {
        for (const obdcap::Packet& p : lane->recorded) {
            Add(p.tUs, (p.channel == obdcap::Channel::Bus ? BusName(p) : FrameName(LineRecord(p))) +
                           " recorded, nothing now");
        }
        for (const obdcap::Packet& p : lane->now) {
            Add(p.tUs, (p.channel == obdcap::Channel::Bus ? BusName(p) : FrameName(LineRecord(p))) +
                           " now, nothing recorded");
        }
        lane->recorded.clear();
        lane->now.clear();
    }
}

size_t ReplayComparator::RecordedWaiting() const {
    return m_line.recorded.size() + m_bus.recorded.size();
}

void ReplayComparator::Add(long long tUs, std::string text) {
    ++m_count;
    if (m_first.size() < m_keep) m_first.push_back({tUs, std::move(text)});
}

std::string ReplayComparator::Describe(const obdcap::Packet& recorded, const obdcap::Packet& now) {
    if (recorded.channel == now.channel && recorded.flags == now.flags &&
        recorded.busId == now.busId && recorded.payload == now.payload && recorded.tUs == now.tUs) {
        return {};
    }
    if (recorded.channel == obdcap::Channel::Bus || now.channel == obdcap::Channel::Bus) {
        if (recorded.channel != now.channel) return "a bus message against a line packet";
        return DescribeBus(recorded, now);
    }
    return DescribeLine(recorded, now);
}

namespace {

// The 32-byte inertial message the host hands the plug-in, from the 12-byte record it was read
// into: three accelerations and three rotation rates, high byte first there, little-endian here.
std::vector<unsigned char> InertialMessage(const std::vector<uint8_t>& sample) {
    std::vector<unsigned char> p(32, 0);
    for (size_t a = 0; a < 3; ++a) {
        p[6 + 2 * a] = sample[2 * a + 1];
        p[7 + 2 * a] = sample[2 * a];
        p[18 + 2 * a] = sample[6 + 2 * a + 1];
        p[19 + 2 * a] = sample[6 + 2 * a];
    }
    p[24] = 1;
    return p;
}

// The far end of the plug-in's line: a pseudo-terminal whose master this replay holds.
struct Line {
    int master = -1;
    int slaveHold = -1;
    std::string slave;
    ~Line() {
        if (master >= 0) ::close(master);
        if (slaveHold >= 0) ::close(slaveHold);
    }
    bool Open(std::string& error) {
        master = ::posix_openpt(O_RDWR | O_NOCTTY);
        char name[128] = {};
        if (master < 0 || ::grantpt(master) != 0 || ::unlockpt(master) != 0 ||
            ::ptsname_r(master, name, sizeof(name)) != 0) {
            error = std::string("pseudo-terminal: ") + std::strerror(errno);
            return false;
        }
        slave = name;
        // Held open and raw, so nothing is echoed before the plug-in configures its end.
        slaveHold = ::open(name, O_RDWR | O_NOCTTY);
        termios tio{};
        if (slaveHold < 0 || ::tcgetattr(slaveHold, &tio) != 0) {
            error = slave + ": " + std::strerror(errno);
            return false;
        }
        ::cfmakeraw(&tio);
        ::tcsetattr(slaveHold, TCSANOW, &tio);
        ::fcntl(master, F_SETFL, ::fcntl(master, F_GETFL) | O_NONBLOCK);
        return true;
    }
};

// What pass one learns: that the file reads whole, the run's facts, where it ends.
struct Scan {
    int productType = 0;
    bool chunks = false;    // the box's raw reads are there
    bool inbound = false;   // bus messages to the plug-in besides the relayed bytes
    bool inertial = false;  // inertial samples were played in
    long long endUs = 0;
    unsigned long long packets = 0;
    // The run facts a trip summary needs (empty / -1 when the capture does not state them).
    std::string source, unjudged;
    std::vector<std::string> facts;  // as written, for a new capture of the replay
    bool expectedKnown = false;
    std::vector<ExpectedAlarm> expected;
    long long tripEndMs = -1;
};

bool ScanCapture(const std::string& path, Scan& scan, std::string& error) {
    obdcap::Reader reader;
    if (!reader.Open(path, error)) return false;
    obdcap::Packet p;
    while (reader.Next(p, error)) {
        if (p.channel == obdcap::Channel::Run) {
            std::string v;
            if (obdcap::RunFact(p.payload, "product_type", v))
                scan.productType = std::atoi(v.c_str());
            if (obdcap::RunFact(p.payload, "source", v)) {
                scan.source = v;
                scan.facts.push_back("source=" + v);
            }
            if (obdcap::RunFact(p.payload, "unjudged", v)) {
                scan.unjudged = v;
                scan.facts.push_back("unjudged=" + v);
            }
            if (obdcap::RunFact(p.payload, "expected", v)) {
                scan.expectedKnown = ParseExpectedFact(v, scan.expected);
                scan.facts.push_back("expected=" + v);
            }
            if (obdcap::RunFact(p.payload, "end_ms", v)) {
                char* end = nullptr;
                const long long t = std::strtoll(v.c_str(), &end, 10);
                if (end != v.c_str() && *end == '\0' && t >= 0) scan.tripEndMs = t;
            }
        }
        if (p.channel == obdcap::Channel::Chunk && p.direction == obdcap::Direction::ToPlugin) {
            scan.chunks = true;
        }
        if (p.channel == obdcap::Channel::Bus && p.direction == obdcap::Direction::ToPlugin &&
            p.busId != kBytesFromBoxId) {
            scan.inbound = true;
        }
        if (p.channel == obdcap::Channel::Inertial) scan.inertial = true;
        if (p.channel == obdcap::Channel::Inertial && p.payload.size() != 12) {
            error = path + ": packet " + std::to_string(reader.Count()) +
                    ": an inertial sample of " + std::to_string(p.payload.size()) +
                    " bytes, not 12";
            return false;
        }
        scan.endUs = std::max(scan.endUs, p.tUs);
    }
    scan.packets = reader.Count();
    return error.empty();
}

}  // namespace

int RunReplay(const ReplayOptions& o, std::string& error) {
    Scan scan;
    if (!ScanCapture(o.path, scan, error)) return 1;
    // The verdict is what stdout carries; the plug-in's own stdout traces join its log.
    std::fflush(stdout);
    const int outFd = ::dup(STDOUT_FILENO);
    std::FILE* out = outFd >= 0 ? ::fdopen(outFd, "w") : nullptr;
    if (out == nullptr) {
        error = std::string("stdout: ") + std::strerror(errno);
        return 1;
    }
    ::dup2(STDERR_FILENO, STDOUT_FILENO);
    struct Closer {
        std::FILE* f;
        ~Closer() { std::fclose(f); }
    } closer{out};
    const int productType = o.productType >= 0 ? o.productType : scan.productType;
    // The trip as a run saw it: a drive of the capture's source name, with no values of its own
    // (those are in the capture) but with the alarms it named, so that the same checks run.
    std::unique_ptr<Drive> drive;
    std::unique_ptr<TripAnalysis> trip;
    const long long tripEndMs = scan.tripEndMs >= 0 ? scan.tripEndMs : scan.endUs / 1000;
    if (o.TripWanted()) {
        if (!scan.source.empty()) {
            drive = std::make_unique<Drive>(scan.source);
            drive->SetExpected(scan.expected);
        }
        trip = std::make_unique<TripAnalysis>(drive.get(), ClockSlackMs(0), !o.report.empty());
        if (!trip->LoadWhatIf(o.plugin, o.thresholds, error)) {
            error = "--thresholds " + error;
            return 2;
        }
        trip->LoadReference(o.plugin);
        RunFacts& facts = trip->Facts();
        facts.source = "capture " + o.path + (scan.source.empty() ? "" : " of " + scan.source);
        facts.speed = "max";
        facts.unjudged = scan.unjudged;
        if (scan.source.empty()) {
            facts.unjudged =
                "the capture does not say what drove the box (written before run facts "
                "named it)";
        }
    }
    TripAnalysis* const analysis = trip.get();
    std::unique_ptr<CaptureSink> sink;
    if (!o.capturePath.empty()) {
        sink = std::make_unique<CaptureSink>();
        if (!sink->Open(o.capturePath, o.captureChunks, productType, error, scan.facts)) return 1;
    }
    CaptureSink* const capture = sink.get();
    const bool canBox = productType == kCanBoxProduct;
    hostsim::SetLogLevel(o.logLevel);
    hostsim::SetProductType(productType);
    hostsim::ClockUseVirtual(0);
    // The same parties take turns as in a run of obd-sim, created in its order (this thread, the
    // box, the CAN-box relay, then after the plug-in the feeder and the injector), so that at an
    // instant they meet in the same order and the run repeats the recorded one.
    auto self = std::make_unique<hostsim::Participant>("obd-sim");
    self->Enter();
    Line line;
    if (!line.Open(error)) return 1;

    ReplayComparator compare(o.shown);
    std::mutex compareMutex;  // the plug-in's outputs come on its threads and the bus's
    std::atomic<unsigned long long> lineOut{0}, framesOut{0};
    auto now = [&](const obdcap::Packet& p) {
        std::lock_guard<std::mutex> lock(compareMutex);
        compare.Now(p);
    };
    // The line as the plug-in reads and writes it, cut as the capture was cut.
    LinkMonitor link([&](const obdframe::Record& r, bool toBox, long long lastByteMs) {
        if (capture) capture->Record(r, toBox, lastByteMs);
        if (!toBox || canBox) return;
        obdcap::Packet p;
        p.tUs = lastByteMs * 1000;
        p.channel =
            r.kind == obdframe::Kind::Garbage ? obdcap::Channel::Garbage : obdcap::Channel::Frame;
        p.direction = obdcap::Direction::FromPlugin;
        p.flags = r.kind == obdframe::Kind::Truncated ? obdcap::kFlagCut : 0;
        p.payload = r.raw;
        now(p);
        ++lineOut;
    });

    // The box's side: the line (or the relay's 6898 messages), its packets played at their
    // times; an answer waits at its instant for the plug-in's frames recorded before it.
    auto boxPart = std::make_shared<hostsim::Participant>(canBox ? "can-relay" : "obd-box");
    if (!canBox) boxPart->ServeLine(line.slave);
    std::atomic<bool> stop{false};
    std::string boxError;
    hostsim::Thread boxThread(canBox ? "can-relay" : "obd-box", [&, part = boxPart.get()] {
        part->Enter();
        auto drain = [&] {
            unsigned char buf[4096];
            for (;;) {
                const ssize_t n = ::read(line.master, buf, sizeof(buf));
                if (n < 0 && errno == EINTR) continue;
                if (n <= 0) break;
                if (!canBox) part->LineRead(static_cast<size_t>(n));
            }
        };
        unsigned long long expected = 0;
        // tMs < 0: only reads the line, until the run ends.
        auto waitFor = [&](long long tMs) {
            for (;;) {
                drain();
                const long long t = hostsim::ClockNowMs();
                const unsigned long long seen = canBox ? framesOut.load() : lineOut.load();
                if (stop.load() || (tMs >= 0 && (t > tMs || (t == tMs && seen >= expected)))) {
                    return;
                }
                const long long until = tMs < 0 ? -1 : t < tMs ? tMs : tMs + 1;
                part->Wait(until, 1000, canBox ? -1 : line.master);
            }
        };
        obdcap::Reader reader;
        obdcap::Packet p;
        std::string err;
        if (reader.Open(o.path, err)) {
            while (!stop.load() && reader.Next(p, err)) {
                if (p.direction == obdcap::Direction::FromPlugin) {
                    const bool frame = p.channel == obdcap::Channel::Frame ||
                                       p.channel == obdcap::Channel::Garbage;
                    if (canBox ? p.channel == obdcap::Channel::Bus && p.busId == kFrameToBoxId &&
                                     (p.flags & obdcap::kFlagResponse) == 0
                               : frame) {
                        ++expected;
                    }
                    std::lock_guard<std::mutex> lock(compareMutex);
                    if (!canBox || !frame) compare.Recorded(p);
                    continue;
                }
                const bool mine =
                    canBox        ? p.channel == obdcap::Channel::Bus && p.busId == kBytesFromBoxId
                    : scan.chunks ? p.channel == obdcap::Channel::Chunk
                                  : p.channel == obdcap::Channel::Frame ||
                                        p.channel == obdcap::Channel::Garbage;
                if (!mine) continue;
                waitFor(p.tUs / 1000);
                const long long t = hostsim::ClockNowMs();
                if (canBox) {
                    hostsim::BusMessage m;
                    m.tMs = t;
                    m.id = static_cast<int>(kBytesFromBoxId);
                    m.payload.assign(p.payload.begin(), p.payload.end());
                    hostsim::BusInject(m.id, m.payload);
                    if (capture) capture->Bus(m, true);
                    if (p.payload.size() > 4) {
                        link.OnChunk(false, p.payload.data() + 4, p.payload.size() - 4, t);
                    }
                    continue;
                }
                size_t done = 0;
                while (done < p.payload.size()) {
                    const ssize_t n =
                        ::write(line.master, p.payload.data() + done, p.payload.size() - done);
                    if (n > 0) {
                        done += static_cast<size_t>(n);
                    } else if (n < 0 && errno != EINTR && errno != EAGAIN) {
                        break;
                    }
                }
                if (done > 0) part->LineWrote(done);
            }
        }
        boxError = err;
        // Played out: it still reads what the plug-in writes until the run ends.
        while (!stop.load()) waitFor(-1);
        part->Leave();
    });

    if (!canBox) {
        hostsim::SetSerialTap([&](bool toBox, const unsigned char* data, size_t n, long long t) {
            link.OnChunk(toBox, data, n, t);
            if (capture) capture->Chunk(toBox, data, n, t);
        });
    }
    hostsim::Participant* boxTurn = boxPart.get();
    const int token = hostsim::BusSubscribe([&](const hostsim::BusMessage& m) {
        if (capture) capture->Bus(m, false);
        obdcap::Packet p;
        p.tUs = m.tMs * 1000;
        p.channel = obdcap::Channel::Bus;
        p.direction = obdcap::Direction::FromPlugin;
        p.flags = m.response ? obdcap::kFlagResponse : 0;
        p.busId = static_cast<uint32_t>(m.id);
        p.payload.assign(m.payload.begin(), m.payload.end());
        now(p);
        if (analysis != nullptr) analysis->OnBus(m);
        if (canBox && !m.response && m.id == static_cast<int>(kFrameToBoxId)) {
            if (m.payload.size() > 4) {
                link.OnChunk(true, m.payload.data() + 4, m.payload.size() - 4, m.tMs);
            }
            ++framesOut;
            boxTurn->Kick();
        }
    });

    // The host's side: inertial samples (the feeder) and other inbound messages (the injector),
    // each played at its time by a party of its own.
    std::vector<std::unique_ptr<hostsim::Participant>> hostParts;
    std::vector<hostsim::Thread> hostThreads;
    auto play = [&](const char* name, bool inertial) {
        hostParts.push_back(std::make_unique<hostsim::Participant>(name));
        hostThreads.emplace_back(name, [&, inertial, part = hostParts.back().get()] {
            part->Enter();
            obdcap::Reader reader;
            obdcap::Packet p;
            std::string err;
            // The feeder hands the analysers their samples; the injector none.
            TripAnalysis* const feed = inertial ? analysis : nullptr;
            auto waitUntil = [&](long long tMs) {
                while (!stop.load() && hostsim::ClockNowMs() < tMs) part->Wait(tMs, 1000);
            };
            // The analysers' seconds, as a run's feeder makes them: at each whole host second of
            // the trip, after the samples of that instant.
            long long nextSecondMs = 1000;
            auto secondsBefore = [&](long long tMs) {
                while (feed != nullptr && !stop.load() && nextSecondMs < tMs &&
                       nextSecondMs <= tripEndMs) {
                    waitUntil(nextSecondMs);
                    if (stop.load()) break;
                    feed->Second(nextSecondMs);
                    nextSecondMs += 1000;
                }
            };
            if (reader.Open(o.path, err)) {
                while (!stop.load() && reader.Next(p, err)) {
                    if (p.direction != obdcap::Direction::ToPlugin) continue;
                    // The box's data-stream frames, for the analysers only (the box plays them).
                    if (feed != nullptr && p.channel == obdcap::Channel::Frame) {
                        const std::vector<obdframe::Record> r = obdframe::DecodeStream(
                            p.payload.data(), p.payload.size(), obdframe::Dir::FromBox);
                        DriveSample items;
                        if (r.size() != 1 || !DataStreamItems(r.front(), items)) continue;
                        // Which of a run's box and feeder takes its turn first at a whole
                        // second depends on how the feeder sleeps: waking every 100 ms for
                        // inertial samples it comes after the box's frame, waking only for the
                        // seconds it comes before it (the frame then counts from the next one).
                        // The summary tests hold both orders to the run's.
                        secondsBefore(p.tUs / 1000 + (scan.inertial ? 0 : 1));
                        waitUntil(p.tUs / 1000);
                        if (p.tUs / 1000 <= tripEndMs) feed->Frame(p.tUs / 1000, items);
                        continue;
                    }
                    if (inertial ? p.channel != obdcap::Channel::Inertial
                                 : p.channel != obdcap::Channel::Bus ||
                                       (canBox && p.busId == kBytesFromBoxId)) {
                        continue;
                    }
                    secondsBefore(p.tUs / 1000);
                    waitUntil(p.tUs / 1000);
                    const long long t = hostsim::ClockNowMs();
                    if (inertial) {
                        hostsim::BusInject(static_cast<int>(kInertialId),
                                           InertialMessage(p.payload));
                        if (feed != nullptr && t <= tripEndMs) {
                            tagSixAxisOrgData sample{};
                            std::memcpy(sample.data, p.payload.data(), sizeof(sample.data));
                            feed->SixAxis(sample);
                        }
                        if (capture) {
                            tagSixAxisOrgData sample{};
                            std::memcpy(sample.data, p.payload.data(), sizeof(sample.data));
                            capture->SixAxis(t, sample);
                        }
                    } else {
                        const std::vector<unsigned char> payload(p.payload.begin(),
                                                                 p.payload.end());
                        hostsim::BusInject(static_cast<int>(p.busId), payload);
                        if (capture) capture->Inbound(static_cast<int>(p.busId), payload, t);
                        if (analysis != nullptr)
                            analysis->Trip().OnInject(static_cast<int>(p.busId));
                    }
                }
            }
            secondsBefore(tripEndMs + 1);
            part->Leave();
        });
    };

    int status = 0;
    {
        hostsim::PluginHost host;
        host.SetSerial(line.slave, 115200);
        if (!host.Load(o.plugin)) {
            error = "cannot load plug-in: " + host.LastError();
            status = 1;
        } else if (!host.SerialOpenError().empty()) {
            error = "cannot open serial port: " + host.SerialOpenError();
            host.Release();
            status = 1;
        } else {
            host.Initialize();
            host.RegisterHandlers();
            host.Start();
            play("feeder", true);
            if (scan.inbound) play("inject", false);
            // As obd-sim's own loop: host seconds until the end, then the last instant. The trip
            // closes where the run closed it, after that instant's broadcasts; what the release
            // sent after it is still compared.
            auto runTo = [](long long endMs) {
                for (long long t = hostsim::ClockNowMs(); t < endMs; t = hostsim::ClockNowMs()) {
                    Common::P4X_TMSleepMicroSecond(
                        static_cast<unsigned int>(std::min(endMs - t, 1000LL) * 1000));
                }
                Common::P4X_TMSleepMicroSecond(1000);
            };
            const long long endMs = scan.endUs / 1000;
            auto closeTrip = [&] {
                if (analysis != nullptr) analysis->Trip().Finish(tripEndMs);
                if (capture != nullptr && scan.tripEndMs >= 0) capture->End(tripEndMs);
            };
            const bool closes = analysis != nullptr || (capture != nullptr && scan.tripEndMs >= 0);
            self->Run([&] {
                if (closes && tripEndMs < endMs) {
                    runTo(tripEndMs);
                    closeTrip();
                }
                if (hostsim::ClockNowMs() <= endMs) runTo(endMs);
                if (closes && tripEndMs >= endMs) closeTrip();
            });
            if (analysis != nullptr) analysis->Facts().behindMs = hostsim::ClockMaxLateMs();
            stop = true;
            for (auto& part : hostParts) part->Leave();
            for (hostsim::Thread& t : hostThreads) t.Join();
            host.Release();
        }
    }
    stop = true;
    boxPart->Leave();
    boxThread.Join();
    for (auto& part : hostParts) part->Leave();
    for (hostsim::Thread& t : hostThreads) t.Join();
    if (status == 0 && !boxError.empty()) {
        error = boxError;
        status = 1;
    }
    hostsim::SetSerialTap({});
    hostsim::BusDrain();
    hostsim::BusUnsubscribe(token);
    link.Finish();
    // Taken before the comparator's lock: the link's tap takes that lock under the link's own.
    if (analysis != nullptr) analysis->Facts().link = link.Figures();
    self.reset();
    if (capture != nullptr && !capture->Close(error) && status == 0) status = 1;
    if (status != 0) return status;
    std::lock_guard<std::mutex> lock(compareMutex);
    compare.Finish();
    std::string misbehaved;  // the trip checks' first problem
    if (analysis != nullptr) {
        TripOutputs outputs;
        outputs.summaryJson = o.summaryJson;
        outputs.report = o.report;
        outputs.virtualTime = true;
        outputs.text = out;
        if (!o.report.empty()) {
            outputs.settings["source"] = analysis->Facts().source;
            outputs.settings["capture"] = o.path;
            outputs.settings["speed"] = "max";
            outputs.settings["product type"] = productType;
            outputs.settings["plug-in"] = o.plugin;
        }
        // The comparison goes into the summary too: a fleet lists a diverging capture with its
        // first difference beside the trip's analysis.
        Json replay{{"capture", o.path},
                    {"compared", compare.Compared()},
                    {"divergences", compare.Count()}};
        if (!compare.First().empty()) {
            const ReplayComparator::Divergence& d = compare.First().front();
            replay["first"] = Ms(d.tUs) + ": " + d.text;
        }
        outputs.extra["replay"] = replay;
        Json summary;
        const bool written = analysis->Write(outputs, summary, error);
        std::fputc('\n', out);
        if (!written) return 1;
        if (summary["verdict"] == "misbehaved" && summary["problems"].is_array() &&
            !summary["problems"].empty()) {
            misbehaved = summary["problems"][0].get<std::string>();
        }
    }
    if (compare.Count() == 0) {
        std::fprintf(out, "replay: identical: %llu packet(s) sent by the plug-in, as recorded\n",
                     compare.Compared());
        if (!misbehaved.empty()) {
            error = "plug-in misbehaved: " + misbehaved;
            return 3;
        }
        return 0;
    }
    std::fprintf(out, "replay: %llu divergence(s) in %llu packet(s) compared; the first %zu:\n",
                 compare.Count(), compare.Compared(), compare.First().size());
    for (const ReplayComparator::Divergence& d : compare.First()) {
        std::fprintf(out, "  %s  %s\n", Ms(d.tUs).c_str(), d.text.c_str());
    }
    return kReplayDiverged;
}

}  // namespace obdsim

// Link health from the bytes on the line, the report's thinning and tables, and obd-sim's report
// page and link figures end to end: the page rendered in headless Chromium as a person sees it,
// and the figures of a box with injected faults.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <thread>

#include "BoxEmulator.h"
#include "LinkHealth.h"
#include "ObdNames.h"
#include "Report.h"
#include "SimProcess.h"
#include "Summary.h"

#ifdef OBD_HAVE_PNG
#include <png.h>
#endif

namespace obdsim {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes ToBox(uint8_t seq, uint16_t code, const Bytes& payload = {}) {
    // Built byte by byte: GCC 12 at -O3 sees a false overflow in an insert after a brace list.
    Bytes f;
    for (uint8_t b : {uint8_t{0x55}, uint8_t{0xAA}, uint8_t{0xF0}, uint8_t{0xF8}, uint8_t{0},
                      static_cast<uint8_t>(payload.size() + 3), seq,
                      static_cast<uint8_t>(code >> 8), static_cast<uint8_t>(code)}) {
        f.push_back(b);
    }
    for (uint8_t b : payload) f.push_back(b);
    uint8_t x = 0;
    for (size_t i = 2; i < f.size(); ++i) x = static_cast<uint8_t>(x ^ f[i]);
    f.push_back(x);
    return f;
}

Bytes FromBox(uint8_t seq, uint16_t code, bool badChecksum = false, const Bytes& payload = {}) {
    return obdbox::BoxEmulator::EncodeFrame(code, payload, seq, false, false, badChecksum);
}

// Feeds `bytes` as one direction's chunks of random sizes, every chunk at `tMs`.
void Feed(LinkMonitor& m, bool toBox, const Bytes& bytes, long long tMs, std::mt19937& rng) {
    size_t at = 0;
    while (at < bytes.size()) {
        const size_t n = std::min(bytes.size() - at, static_cast<size_t>(rng() % 7 + 1));
        m.OnChunk(toBox, bytes.data() + at, n, tMs);
        at += n;
    }
}

TEST(LinkHealth, CommandsRetriesAnswersAndLatencyFromBytesCutAnywhere) {
    std::mt19937 rng(7);
    LinkMonitor m;
    // Answered at once; answered after one retry (latency from the retry); never answered;
    // the link frame answered with its own code; a stop acknowledged the other way.
    Feed(m, true, ToBox(1, 0x2105), 0, rng);
    Feed(m, false, FromBox(1, 0x6105, false, {1, 2, 3}), 12, rng);
    Feed(m, true, ToBox(2, 0x2C12), 100, rng);
    Feed(m, true, ToBox(2, 0x2C12), 2100, rng);
    Feed(m, false, FromBox(2, 0x6C12, false, {0, 1}), 2140, rng);
    Feed(m, true, ToBox(3, 0x2C22), 3000, rng);
    Feed(m, true, ToBox(4, 0x2C10), 5000, rng);
    Feed(m, false, FromBox(4, 0x2C10), 5030, rng);
    Feed(m, true, ToBox(5, 0x2C04), 6000, rng);
    Feed(m, false, FromBox(5, 0x2301), 6020, rng);
    // The restart is never answered by design; a command still open at the end is unanswered.
    Feed(m, true, ToBox(6, 0x2506), 7000, rng);
    Feed(m, true, ToBox(7, 0x2C01, {0xFF, 0, 0, 0, 0}), 8000, rng);
    const Json f = m.Figures();
    EXPECT_EQ(f["to_box"]["frames"], 8);
    EXPECT_EQ(f["from_box"]["frames"], 4);
    EXPECT_EQ(f["commands"]["sent"], 7);
    EXPECT_EQ(f["commands"]["retries"], 1);
    EXPECT_EQ(f["commands"]["answered"], 4);
    EXPECT_EQ(f["commands"]["unanswered"], 2);  // 2C22, and 2C01 at the end
    EXPECT_EQ(f["latency"]["median_ms"], 20);   // the lower median of 12, 40, 30, 20
    EXPECT_EQ(f["latency"]["p99_ms"], 40);
    EXPECT_EQ(f["latency"]["max_ms"], 40);
    for (const char* dir : {"to_box", "from_box"}) {
        EXPECT_EQ(f[dir]["bad_checksum"], 0) << dir;
        EXPECT_EQ(f[dir]["garbage_bytes"], 0) << dir;
        EXPECT_EQ(f[dir]["cut_off"], 0) << dir;
    }
}

TEST(LinkHealth, FaultsOnTheLineAndGapsInTheDataStreamAreCounted) {
    std::mt19937 rng(3);
    LinkMonitor m;
    long long t = 0;
    for (int i = 0; i < 20; ++i) {
        t += (i == 8) ? 3000 : (i == 15 ? 4500 : 1000);  // two periods lost, then three
        Bytes b = FromBox(static_cast<uint8_t>(i), 0x2C81, i == 4, {1, 0x12, 0x34, 0x56, 0x78});
        if (i % 5 == 2) {
            const Bytes garbage = {0x13, 0x55, 0x00, 0x42};
            b.insert(b.begin(), garbage.begin(), garbage.end());  // before the frame
        }
        Feed(m, false, b, t, rng);
    }
    // A head whose frame never completes before the next head.
    const Bytes head = {0x55, 0xAA, 0xF8, 0xF0, 0x00, 0x20, 0x01};
    Feed(m, false, head, t + 500, rng);
    Feed(m, false, FromBox(30, 0x2C81, false, {1, 1, 2, 3, 4}), t + 1000, rng);
    const Json f = m.Figures();
    const Json& from = f["from_box"];
    EXPECT_EQ(from["frames"], 21);
    EXPECT_EQ(from["bad_checksum"], 1);
    EXPECT_EQ(from["garbage_bytes"], 16);
    EXPECT_EQ(from["resyncs"], 4);
    EXPECT_EQ(from["cut_off"], 1);
    // The frame with the bad checksum is no data frame: its loss is a third gap.
    const Json& ds = f["data_stream"];
    EXPECT_EQ(ds["frames"], 20);
    EXPECT_EQ(ds["period_ms"], 1000);
    EXPECT_EQ(ds["gaps"], 3);
    EXPECT_EQ(ds["longest_ms"], 4500);
}

TEST(LinkHealth, EscapedFramesSplitAcrossReadsAreCutWhole) {
    // The data items hold every escaped value, so each frame has pairs whose shorter reading
    // fits inside it; read in pieces of 1 to 4 bytes, a second apart, every frame must still be
    // cut whole, at the time of its last byte, whichever way its length counts the pairs.
    const Bytes items = {1, 0x7E, 0x7D, 0x7F, 0x41, 2, 0x7D, 0x7D, 0x00, 0x3F};
    for (bool inLength : {false, true}) {
        SCOPED_TRACE(inLength);
        std::mt19937 rng(11);
        std::vector<std::pair<Bytes, long long>> seen;
        LinkMonitor m([&seen](const obdframe::Record& r, bool toBox, long long lastByteMs) {
            EXPECT_FALSE(toBox);
            seen.emplace_back(r.raw, lastByteMs);
        });
        std::vector<Bytes> sent;
        for (int i = 0; i < 30; ++i) {
            sent.push_back(obdbox::BoxEmulator::EncodeFrame(0x2C81, items, static_cast<uint8_t>(i),
                                                            true, inLength, false));
            const Bytes& f = sent.back();
            for (size_t at = 0; at < f.size();) {
                const size_t n = std::min(f.size() - at, static_cast<size_t>(rng() % 4 + 1));
                m.OnChunk(false, f.data() + at, n, i * 1000LL + static_cast<long long>(at));
                at += n;
            }
        }
        const Json f = m.Figures();
        ASSERT_EQ(seen.size(), sent.size());
        for (size_t i = 0; i < sent.size(); ++i) {
            EXPECT_EQ(seen[i].first, sent[i]) << i;
            EXPECT_LE(seen[i].second, static_cast<long long>(i) * 1000 + 99) << i;
            EXPECT_GE(seen[i].second,
                      static_cast<long long>(i) * 1000 + static_cast<long long>(sent[i].size()) - 4)
                << i;
        }
        EXPECT_EQ(f["from_box"]["frames"], 30);
        EXPECT_EQ(f["from_box"]["bad_checksum"], 0);
        EXPECT_EQ(f["from_box"]["garbage_bytes"], 0);
        EXPECT_EQ(f["data_stream"]["frames"], 30);
        EXPECT_EQ(f["data_stream"]["gaps"], 0);
    }
}

TEST(LinkHealth, PendingBytesStayBoundedOnAStreamWithoutHeads) {
    LinkMonitor m;
    const Bytes junk(1000, 0x11);
    for (int i = 0; i < 100; ++i) m.OnChunk(false, junk.data(), junk.size(), i);
    Bytes half = FromBox(1, 0x6105);
    half.resize(5);
    m.OnChunk(false, half.data(), half.size(), 200);
    const Json f = m.Figures();
    EXPECT_EQ(f["from_box"]["garbage_bytes"], 100000);
    EXPECT_EQ(f["from_box"]["cut_off"], 1);
    EXPECT_EQ(f["from_box"]["frames"], 0);
}

TEST(Report, ThinningKeepsEveryPeakAndNeverThinsTheTables) {
    // Three hours at 1 Hz with a one-second spike now and then.
    std::vector<TimelinePoint> points;
    for (int s = 0; s < 3 * 3600; ++s) {
        TimelinePoint p{};
        p.t = s;
        p.speed = (s % 997 == 500) ? 150.0f : 50.0f + static_cast<float>(s % 10);
        p.engineSpeed = p.coolant = p.accelerator = p.accG = p.rotDps = NAN;
        points.push_back(p);
    }
    const auto thin = Thin(points, &TimelinePoint::speed, 1500);
    EXPECT_LE(thin.size(), 3000u);
    int spikes = 0;
    for (size_t i = 0; i < thin.size(); ++i) {
        if (i > 0) {
            EXPECT_LT(thin[i - 1].first, thin[i].first);
        }
        spikes += thin[i].second == 150.0f;
    }
    EXPECT_EQ(spikes, 3 * 3600 / 997 + 1);
    EXPECT_TRUE(Thin(points, &TimelinePoint::accG, 1500).empty());  // no motion: no series

    Json summary = {{"source", "a <long> trip"},
                    {"vehicle_s", 10800.0},
                    {"real_s", 4.2},
                    {"ok", true},
                    {"verdict", "behaved"},
                    {"checked", true},
                    {"statistics", nullptr},
                    {"statistics_note", "none"},
                    {"box", {{"link_up_s", nullptr}}},
                    {"link", nullptr},
                    {"problems", Json::array()}};
    Json alarms = Json::array();
    for (int i = 0; i < 300; ++i) {
        alarms.push_back({{"key", "over_running"},
                          {"title", "engine over-running"},
                          {"level", 2},
                          {"start_s", i * 30.0},
                          {"duration_s", 5.0},
                          {"active", false}});
    }
    summary["alarms"] = alarms;
    const std::string page = ReportHtml(summary, points, {{"speed", "max"}});
    size_t rows = 0;
    for (size_t at = 0; (at = page.find("data-key=\"over_running\"", at)) != std::string::npos;
         ++at) {
        ++rows;
    }
    EXPECT_EQ(rows, 300u);
    EXPECT_NE(page.find("<tr class=\"kind\" data-kind=\"over_running\">"), std::string::npos);
    EXPECT_NE(page.find("<td class=\"count\">300</td>"), std::string::npos);
    EXPECT_NE(page.find("Trip report: a &lt;long&gt; trip"), std::string::npos);
    EXPECT_EQ(page.find("<long>"), std::string::npos);
    EXPECT_NE(page.find("Thinned for drawing"), std::string::npos);
}

// ---- obd-sim end to end ----

class SimReport : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_NE(mkdtemp(&dir[0]), nullptr); }
    void TearDown() override { std::system(("rm -rf " + dir).c_str()); }
    static std::string Slurp(const std::string& path) {
        std::stringstream s;
        s << std::ifstream(path).rdbuf();
        return s.str();
    }
    static int Shell(const std::string& cmd) { return RunShell(cmd); }
    int Sim(const std::string& args) {
        return Shell(OBD_SIM_LAUNCHER " " OBD_SIM " " + args + " </dev/null >" + dir + "/out 2>" +
                     dir + "/err");
    }
    Json Summary() const {
        Json j = Json::parse(Slurp(dir + "/summary.json"), nullptr, false);
        return j.is_discarded() ? Json() : j;
    }
    std::string dir = "/tmp/obdsimreportXXXXXX";
};

TEST_F(SimReport, LinkFiguresShowTheFaultsOfTheBoxOnTheLine) {
    // The box on a line of its own, with garbage before every frame and every 4th answer
    // dropped; obd-sim on that line at ten times real time.
    const std::string box = dir + "/box";
    const std::string boxCmd = OBD_SIM_LAUNCHER " " OBD_BOX " --garbage 3 --drop 4 >" + box +
                               " 2>&1 & echo $! >" + dir + "/box.pid";
    ASSERT_EQ(std::system(boxCmd.c_str()), 0);
    std::string line;
    for (int i = 0; i < 6000 && line.empty(); ++i) {  // generous: a busy machine, qemu
        const std::string text = Slurp(box);
        const size_t at = text.find("obd-box: line ");
        if (at != std::string::npos && text.find('\n', at) != std::string::npos) {
            line = text.substr(at + 14, text.find('\n', at) - at - 14);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_FALSE(line.empty()) << Slurp(box);
    const int rc = Sim("--serial " + line + " --speed 10 --duration 25 --summary-json " + dir +
                       "/summary.json");
    std::system(("kill $(cat " + dir + "/box.pid)").c_str());
    ASSERT_EQ(rc, 0) << Slurp(dir + "/err");
    const Json link = Summary()["link"];
    ASSERT_TRUE(link.is_object()) << Summary().dump();
    EXPECT_GT(link["from_box"]["frames"].get<int>(), 10);
    EXPECT_GT(link["from_box"]["garbage_bytes"].get<int>(), 0);
    // Three bytes before every frame; the last run may be cut short by the release.
    const int garbage = link["from_box"]["garbage_bytes"].get<int>();
    const int resyncs = link["from_box"]["resyncs"].get<int>();
    EXPECT_LE(garbage, 3 * resyncs);
    EXPECT_GE(garbage, 3 * resyncs - 2);
    EXPECT_EQ(link["from_box"]["bad_checksum"], 0);
    EXPECT_GT(link["commands"]["retries"].get<int>(), 0);
    EXPECT_GT(link["commands"]["answered"].get<int>(), 0);
    EXPECT_NE(Slurp(dir + "/out").find("Link (the bytes as the plug-in read and wrote them)"),
              std::string::npos);
}

#if defined(OBD_HAVE_PNG) && defined(OBD_CHROMIUM)
struct Rgb {
    int r, g, b;
};

Rgb ParseRgb(const Json& text) {
    Rgb c{-1, -1, -1};
    if (text.is_string())
        std::sscanf(text.get<std::string>().c_str(), "rgb(%d,%d,%d)", &c.r, &c.g, &c.b);
    return c;
}

// Pixels of the screenshot within `tolerance` of the colour, inside [x0,x1) x [y0,y1) when given.
int CountColour(const std::string& png, Rgb c, int tolerance, const Json& area = Json()) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, png.c_str())) return -1;
    image.format = PNG_FORMAT_RGB;
    std::vector<uint8_t> pixels(PNG_IMAGE_SIZE(image));
    if (!png_image_finish_read(&image, nullptr, pixels.data(), 0, nullptr)) return -1;
    const bool all = !area.is_array();
    int n = 0;
    for (int y = 0; y < static_cast<int>(image.height); ++y) {
        for (int x = 0; x < static_cast<int>(image.width); ++x) {
            if (!all && (x < area[0].get<int>() || y < area[1].get<int>() ||
                         x >= area[2].get<int>() || y >= area[3].get<int>())) {
                continue;
            }
            const uint8_t* p = &pixels[(static_cast<size_t>(y) * image.width + x) * 3];
            n += std::abs(p[0] - c.r) <= tolerance && std::abs(p[1] - c.g) <= tolerance &&
                 std::abs(p[2] - c.b) <= tolerance;
        }
    }
    return n;
}

int Seconds(const std::string& clock) {
    int h = -1, m = -1, s = -1;
    return std::sscanf(clock.c_str(), "%d:%d:%d", &h, &m, &s) == 3 ? h * 3600 + m * 60 + s : -1;
}

// The time axis' labels: five to twelve, evenly spaced by a round step, on multiples of it, inside
// the visible range.
void ExpectRoundTicks(const Json& layout) {
    const Json& ticks = layout["ticks"];
    ASSERT_GE(ticks.size(), 5u) << ticks.dump();
    ASSERT_LE(ticks.size(), 12u) << ticks.dump();
    const int step = Seconds(ticks[1]) - Seconds(ticks[0]);
    const std::vector<int> round = {1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600};
    EXPECT_NE(std::find(round.begin(), round.end(), step), round.end()) << ticks.dump();
    for (size_t i = 0; i < ticks.size(); ++i) {
        const int t = Seconds(ticks[i]);
        EXPECT_EQ(t % step, 0) << ticks.dump();
        if (i > 0) {
            EXPECT_EQ(t - Seconds(ticks[i - 1]), step) << ticks.dump();
        }
        EXPECT_GE(t, layout["range"][0].get<double>() - 0.5);
        EXPECT_LE(t, layout["range"][1].get<double>() + 0.5);
    }
}

// The real recorded trip (hours, 142 alarms, no inertial data) and a scenario with six-axis data.
TEST_F(SimReport, PageRendersInABrowserWithThePlotAndEveryAlarm) {
    const std::string browser = OBD_CHROMIUM
        " --headless --no-sandbox --disable-gpu --hide-scrollbars --window-size=1300,1800 ";
    const std::string page = dir + "/trip.html";
    // What the page's script reports of itself: visible range, tick labels, areas and colours.
    auto layoutOf = [&](const std::string& dom) {
        const size_t at = dom.find("<output id=\"layout\" hidden=\"\">");
        if (at == std::string::npos) return Json();
        const size_t from = dom.find('>', at) + 1;
        const Json j =
            Json::parse(dom.substr(from, dom.find("</output>", from) - from), nullptr, false);
        return j.is_discarded() ? Json() : j;
    };
    for (const std::string args :
         {"--scenario " OBD_SOURCE_DIR "/tests/data/polidriving/andres_20231222_134710.csv "
          "--columns polidriving",
          "--scenario " OBD_SOURCE_DIR "/tools/obd-sim/scenarios/rough-road.csv"}) {
        SCOPED_TRACE(args);
        ASSERT_EQ(Sim(args + " --speed max --report " + page + " --summary-json " + dir +
                      "/summary.json"),
                  0)
            << Slurp(dir + "/err");
        const Json s = Summary();
        ASSERT_FALSE(s["alarms"].empty());
        ASSERT_EQ(Shell(browser + "--dump-dom file://" + page + " >" + dir + "/dom 2>/dev/null"),
                  0);
        const std::string dom = Slurp(dir + "/dom");
        // The script ran and the charts painted their canvases.
        const size_t painted = dom.find("data-painted=\"");
        ASSERT_NE(painted, std::string::npos) << dom.substr(0, 400);
        EXPECT_GT(std::stol(dom.substr(painted + 14)), 5000);
        // Every alarm has its row, with its start, and every kind its count.
        size_t rows = 0;
        for (size_t at = 0; (at = dom.find("<tr data-key=", at)) != std::string::npos; ++at) ++rows;
        EXPECT_EQ(rows, s["alarms"].size());
        std::map<std::string, int> counts;
        for (const Json& a : s["alarms"]) {
            ++counts[a["key"].get<std::string>()];
            const std::string row = "<tr data-key=\"" + a["key"].get<std::string>() + "\"><td>" +
                                    Dur(a["start_s"].get<double>()) + "</td>";
            EXPECT_NE(dom.find(row), std::string::npos) << row;
        }
        size_t kindRows = 0;
        for (size_t at = 0; (at = dom.find("<tr class=\"kind\"", at)) != std::string::npos; ++at)
            ++kindRows;
        EXPECT_EQ(kindRows, counts.size());
        for (const auto& [key, n] : counts) {
            const size_t at = dom.find("<tr class=\"kind\" data-kind=\"" + key + "\">");
            ASSERT_NE(at, std::string::npos) << key;
            const size_t count = dom.find("<td class=\"count\">", at);
            ASSERT_NE(count, std::string::npos) << key;
            EXPECT_EQ(std::stoi(dom.substr(count + 18)), n) << key;
        }
        char distance[64];
        std::snprintf(distance, sizeof(distance), "<span id=\"distance\">%.2f</span>",
                      s["statistics"]["distance_km"].get<double>());
        EXPECT_NE(dom.find(distance), std::string::npos) << distance;

        const Json layout = layoutOf(dom);
        ASSERT_TRUE(layout.is_object()) << "no layout";
        EXPECT_EQ(layout["range"], Json::array({0, s["vehicle_s"]}));
        ExpectRoundTicks(layout);
        // The alarm strip lies below the plot of the lines and above the six-axis plot.
        const Json& plot = layout["plot"];
        const Json& strip = layout["strip"];
        ASSERT_TRUE(plot.is_array() && strip.is_array()) << layout.dump();
        EXPECT_GE(strip[1].get<int>(), plot[3].get<int>()) << layout.dump();
        if (layout["motion"].is_array()) {
            EXPECT_GE(layout["motion"][1].get<int>(), strip[3].get<int>()) << layout.dump();
        }
        // No alarm colour is a line colour, nor close to one.
        ASSERT_EQ(layout["alarms"].size(), counts.size());
        for (const Json& a : layout["alarms"]) {
            for (const Json& l : layout["lines"]) {
                const Rgb x = ParseRgb(a), y = ParseRgb(l);
                EXPECT_GT(std::hypot(x.r - y.r, x.g - y.g, x.b - y.b), 60.0) << a << " " << l;
            }
        }
        // What a person sees: the speed line drawn in its colour, the alarms in their strip and
        // nowhere in the plot of the lines.
        const std::string shot = dir + "/trip.png";
        ASSERT_EQ(Shell(browser + "--screenshot=" + shot + " file://" + page + " >/dev/null 2>&1"),
                  0);
        EXPECT_GT(CountColour(shot, {31, 119, 180}, 40), 300);  // 24 with no speed line drawn
        for (const Json& a : layout["alarms"]) {
            EXPECT_GT(CountColour(shot, ParseRgb(a), 6, strip), 20) << a;
            EXPECT_LT(CountColour(shot, ParseRgb(a), 6, plot), 10) << a;
        }
    }
    // A span of the last trip, asked in the address: the plots show just that span, with its own
    // round ticks.
    ASSERT_EQ(
        Shell(browser + "--dump-dom 'file://" + page + "#t=30-90' >" + dir + "/dom 2>/dev/null"),
        0);
    const Json zoomed = layoutOf(Slurp(dir + "/dom"));
    ASSERT_TRUE(zoomed.is_object()) << "no layout";
    EXPECT_EQ(zoomed["range"], Json::array({30, 90}));
    ExpectRoundTicks(zoomed);
}
#elif defined(OBD_BROWSER_MISSING)
TEST_F(SimReport, PageRendersInABrowserWithThePlotAndEveryAlarm) {
    FAIL() << "the browser test needs " OBD_BROWSER_MISSING;
}
#endif

}  // namespace
}  // namespace obdsim

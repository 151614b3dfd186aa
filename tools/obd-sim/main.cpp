// obd-sim: loads the OBD plug-in into the project's host layer and runs it as the recorder does,
// on a real tty (--serial) or against the built-in box emulator on a pseudo-terminal of its own,
// which plays a drive (the built-in one or --scenario) with matching inertial samples. It shows a
// status line while it runs (on a terminal), a trip summary at the end, and on request every
// wire byte and bus message (--trace, --json).
//
// Exit status: 0 after a clean release (end of the drive or --duration, SIGINT, SIGTERM); 1 when
// the plug-in, the tty or a named file cannot be used; 2 for bad arguments; 3 when the plug-in
// misbehaved (crashed, lost the link, missed a broadcast, or gave other alarms than the built-in
// drive provokes), with the reason on stderr; 4 when --direct-check finds a replay's alarms
// other than the direct analysis's; 5 when problems were seen while obd-sim had fallen behind
// the pace it asked for (no verdict: they may be its own lag).
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "BoxEmulator.h"
#include "BoxHostClock.h"
#include "BoxSide.h"
#include "CanRelay.h"
#include "CaptureReplay.h"
#include "CaptureSink.h"
#include "Decode.h"
#include "Direct.h"
#include "Drive.h"
#include "Feeder.h"
#include "HostCommon.h"
#include "HostSim.h"
#include "InjectLine.h"
#include "LinkHealth.h"
#include "Reference.h"
#include "Report.h"
#include "Scenario.h"
#include "Session.h"
#include "StatusLine.h"
#include "Summary.h"
#include "Trip.h"
#include "TripOutputs.h"
#include "WhatIf.h"

namespace {

// Set by the handler on whichever thread the signal lands (often the feeder's), read by the main
// loop: a lock-free atomic is both async-signal-safe and race-free across threads.
std::atomic<int> g_signalled{0};
static_assert(std::atomic<int>::is_always_lock_free, "the signal flag must be lock-free");
std::atomic<long long> g_hostMs{0};  // last host time the main loop saw, for the crash line

void OnSignal(int) {
    g_signalled.store(1);
}

// A crash in the plug-in (or anywhere) still ends in one line and the misbehaviour status. Only
// async-signal-safe calls: the line is put together from constant pieces and write(2).
void OnCrash(int sig) {
    const char* name = sig == SIGSEGV  ? "SIGSEGV"
                       : sig == SIGBUS ? "SIGBUS"
                       : sig == SIGILL ? "SIGILL"
                       : sig == SIGFPE ? "SIGFPE"
                                       : "SIGABRT";
    char at[24];
    long long s = g_hostMs.load() / 1000;
    int n = 0;
    char digits[24];
    do {
        digits[n++] = static_cast<char>('0' + s % 10);
        s /= 10;
    } while (s > 0 && n < 20);
    for (int i = 0; i < n; ++i) at[i] = digits[n - 1 - i];
    const char* parts[] = {"\nobd-sim: plug-in misbehaved: crashed (", name, ") at vehicle second ",
                           nullptr, "\n"};
    for (const char* p : parts) {
        if (p == nullptr) {
            (void)!::write(STDERR_FILENO, at, static_cast<size_t>(n));
        } else {
            (void)!::write(STDERR_FILENO, p, std::strlen(p));
        }
    }
    ::_exit(3);
}

std::string Hex(const std::vector<unsigned char>& bytes, size_t limit, const char* sep) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    const size_t n = bytes.size() < limit ? bytes.size() : limit;
    for (size_t i = 0; i < n; ++i) {
        if (i != 0) out += sep;
        out += kDigits[bytes[i] >> 4];
        out += kDigits[bytes[i] & 0x0F];
    }
    return out;
}

// Every message line on stdout goes through here: whole lines, flushed, so a reading program
// sees each message as it happens. Without --json or --trace it prints no message lines.
class Printer {
  public:
    enum class Mode { Quiet, Trace, Json };
    Printer(Mode mode, FILE* out)
        : m_json(mode == Mode::Json), m_quiet(mode == Mode::Quiet), m_out(out) {}

    // `inbound`: a message delivered to the plug-in (the CAN-box relay's) rather than its own.
    void Bus(const hostsim::BusMessage& m, bool inbound = false) {
        if (m_quiet) return;
        const char* kind = inbound ? "inbound" : m.response ? "response" : "send";
        if (m_json) {
            nlohmann::ordered_json j;
            j["t_ms"] = m.tMs;
            j["kind"] = kind;
            j["id"] = m.id;
            j["len"] = m.payload.size();
            j["hex"] = Hex(m.payload, m.payload.size(), "");
            nlohmann::ordered_json decoded = obdsim::Decode(m.id, m.response, m.payload);
            if (!decoded.is_null()) j["decoded"] = std::move(decoded);
            Line(j.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
            return;
        }
        // Readable lines stay short; --json carries the whole payload.
        constexpr size_t kShown = 32;
        std::string line = "[" + std::to_string(m.tMs) + " ms] " + kind +
                           " id=" + std::to_string(m.id) +
                           " len=" + std::to_string(m.payload.size());
        if (!m.payload.empty()) line += " " + Hex(m.payload, kShown, " ");
        if (m.payload.size() > kShown) line += " ...";
        Line(line);
    }

    void Wire(long long tMs, const std::vector<unsigned char>& bytes, bool toBox = true) {
        if (m_quiet) return;
        const char* dir = toBox ? "to_box" : "from_box";
        if (m_json) {
            nlohmann::ordered_json j;
            j["t_ms"] = tMs;
            j["kind"] = "wire";
            j["dir"] = dir;
            j["hex"] = Hex(bytes, bytes.size(), "");
            Line(j.dump());
            return;
        }
        Line("[" + std::to_string(tMs) + " ms] wire " + dir + " " + Hex(bytes, bytes.size(), " "));
    }

    // The built-in box's own account of a frame (readable mode only).
    void BoxNote(long long tMs, const std::string& text) {
        if (!m_json && !m_quiet) Line("[" + std::to_string(tMs) + " ms] box: " + text);
    }

  private:
    void Line(const std::string& text) {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::fwrite(text.data(), 1, text.size(), m_out);
        std::fputc('\n', m_out);
        std::fflush(m_out);
    }

    bool m_json;
    bool m_quiet;
    FILE* m_out;
    std::mutex m_mutex;
};

// Delivers the lines of an inject script, each at its host time or as soon as read.
class Injector {
  public:
    using OnInject = std::function<void(int id, const std::vector<unsigned char>& payload)>;
    Injector(std::string source, OnInject onInject)
        : m_source(std::move(source)), m_onInject(std::move(onInject)) {}
    ~Injector() { Stop(); }

    bool Open(std::string& error) {
        if (m_source == "-") {
            m_fd = STDIN_FILENO;
            return true;
        }
        m_fd = ::open(m_source.c_str(), O_RDONLY | O_CLOEXEC);
        if (m_fd < 0) {
            error = m_source + ": " + std::strerror(errno);
            return false;
        }
        m_own = true;
        return true;
    }

    void Start() {
        // A file is read at host time's pace: at max speed host time waits for each line. Lines
        // typed on stdin come when they come.
        if (m_source != "-") m_part = std::make_unique<hostsim::Participant>("inject");
        // A fiber on virtual time reads a file; a pipe, which may block, keeps its own thread.
        struct stat st {};
        if (m_part && ::fstat(m_fd, &st) == 0 && S_ISREG(st.st_mode)) {
            m_fileThread = hostsim::Thread("inject", [this] { Run(); });
        } else {
            m_thread = std::thread([this] { Run(); });
        }
    }

    void Stop() {
        m_stop = true;
        if (m_part) m_part->Leave();
        m_fileThread.Join();
        if (m_thread.joinable()) m_thread.join();
        if (m_own && m_fd >= 0) ::close(m_fd);
        m_fd = -1;
    }

    // The bad lines not told one by one, once the reading has stopped.
    void TellUntold() const {
        const long long untold = m_bad.load() - kToldBad;
        if (untold > 0) {
            std::fprintf(stderr, "obd-sim: inject: %lld more bad %s not shown\n", untold,
                         untold == 1 ? "line" : "lines");
        }
    }

  private:
    void Run() {
        if (m_part) m_part->Enter();
        Read();
        if (m_part) m_part->Leave();
    }

    void Read() {
        std::string pending;
        char chunk[4096];
        long long lineNo = 0;
        bool eof = false;
        bool overlong = false;  // within a line already told as too long
        while (!m_stop && !eof) {
            // Poll with a timeout so that Stop() is seen even while stdin stays silent.
            pollfd p{m_fd, POLLIN, 0};
            if (::poll(&p, 1, 50) <= 0) continue;
            const ssize_t n = ::read(m_fd, chunk, sizeof(chunk));
            if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
            if (n <= 0) {
                eof = true;
            } else {
                pending.append(chunk, static_cast<size_t>(n));
            }
            size_t nl;
            while (!m_stop && (nl = pending.find('\n')) != std::string::npos) {
                if (overlong) {
                    overlong = false;
                } else {
                    Handle(pending.substr(0, nl), ++lineNo);
                }
                pending.erase(0, nl + 1);
            }
            // No line is that long: a file without line ends (a binary given by mistake) is
            // told as one bad line and read on to its next line end, not kept in memory.
            if (!overlong && pending.size() > kLongestLine) {
                Bad(++lineNo, "line longer than " + std::to_string(kLongestLine) + " bytes");
                overlong = true;
            }
            if (overlong) pending.clear();
            if (eof && !m_stop && !pending.empty()) Handle(pending, ++lineNo);
        }
    }

    // The first few bad lines are told as they come; a flood of them (garbage) is only counted,
    // so that the run's own lines stay readable, and the count is told at the end.
    void Bad(long long lineNo, const std::string& why) {
        if (m_bad.fetch_add(1) < kToldBad) {
            std::fprintf(stderr, "obd-sim: inject line %lld: %s\n", lineNo, why.c_str());
        }
    }

    void Handle(const std::string& text, long long lineNo) {
        obdsim::InjectLine line;
        std::string error;
        switch (obdsim::ParseInjectLine(text, line, error)) {
            case obdsim::ParseResult::Skip:
                return;
            case obdsim::ParseResult::Error:
                Bad(lineNo, error);
                return;
            case obdsim::ParseResult::Message:
                break;
        }
        if (line.timed && !WaitFor(line.tMs)) return;
        if (m_onInject) m_onInject(line.id, line.payload);
        hostsim::BusInject(line.id, line.payload);
    }

    // Waits in short host-time steps so that a stop is noticed; false when stopped first.
    bool WaitFor(long long tMs) {
        for (;;) {
            if (m_stop) return false;
            const long long left = tMs - hostsim::ClockNowMs();
            if (left <= 0) return true;
            const long long step = left < 20 ? left : 20;
            Common::P4X_TMSleepMicroSecond(static_cast<unsigned int>(step * 1000));
        }
    }

    std::string m_source;
    OnInject m_onInject;
    int m_fd = -1;
    bool m_own = false;
    std::atomic<bool> m_stop{false};
    std::atomic<long long> m_bad{0};
    static constexpr long long kToldBad = 20;
    static constexpr size_t kLongestLine = 64 * 1024;
    std::unique_ptr<hostsim::Participant> m_part;
    std::thread m_thread;
    hostsim::Thread m_fileThread;
};

// Checks that `path` is a terminal we may open, before the plug-in tries, so that a wrong path
// gives one clear line instead of the plug-in's start and stop logs.
bool CheckTty(const std::string& path, std::string& error) {
    const int fd = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    const bool tty = ::isatty(fd) != 0;
    ::close(fd);
    if (!tty) error = path + ": not a terminal";
    return tty;
}

// Loads the plug-in once and looks for its two entry points, without creating anything.
bool CheckPlugin(const std::string& path, std::string& error) {
    void* lib = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (lib == nullptr) {
        const char* why = ::dlerror();
        error = why != nullptr ? why : path;
        return false;
    }
    const bool ok =
        ::dlsym(lib, "PeripheralCreate") != nullptr && ::dlsym(lib, "PeripheralRelease") != nullptr;
    ::dlclose(lib);
    if (!ok) error = path + ": PeripheralCreate or PeripheralRelease missing";
    return ok;
}

// Whether `path` can be written at the end of the run, told before it starts, without creating
// or truncating anything: a run that then fails to start leaves no empty file behind.
bool CheckWritable(const std::string& path, std::string& error) {
    struct stat st {};
    int err = 0;
    if (::stat(path.c_str(), &st) == 0) {
        if (S_ISDIR(st.st_mode)) {
            err = EISDIR;
        } else if (::access(path.c_str(), W_OK) != 0) {
            err = errno;
        }
    } else if (errno == ENOENT) {
        const size_t slash = path.rfind('/');
        const std::string dir = slash == std::string::npos ? "."
                                : slash == 0               ? "/"
                                                           : path.substr(0, slash);
        if (::access(dir.c_str(), W_OK | X_OK) != 0) err = errno;
    } else {
        err = errno;
    }
    if (err != 0) error = "cannot write " + path + ": " + std::strerror(err);
    return err == 0;
}

int Fail(const std::string& message, int code) {
    std::fprintf(stderr, "obd-sim: %s\n", message.c_str());
    return code;
}

// The fastest scaled clock: the host's waits are whole real milliseconds at least, so beyond
// 100 a 100 ms cycle cannot come on time (the run falls behind and its verdict says so);
// --speed max is faster than any factor and exact.
constexpr double kMaxSpeed = 100;

// --direct-check: no plug-in runs; the drive's direct analysis is held against the alarms of a
// replay's summary.
int DirectCheck(const std::string& path, const obdsim::Drive& drive, const std::string& plugin) {
    std::ifstream in(path);
    if (!in) return Fail("cannot read " + path, 1);
    const obdsim::Json summary = obdsim::Json::parse(in, nullptr, false);
    if (summary.is_discarded() || !summary.is_object() || !summary.contains("alarms") ||
        !summary["alarms"].is_array() || !summary.contains("source") ||
        !summary["source"].is_string()) {
        return Fail(path + ": not a summary written by --summary-json", 1);
    }
    const std::string source = summary["source"].get<std::string>();
    if (source != drive.Name()) {
        return Fail(path + ": the summary of " + source + ", not of " + drive.Name(), 1);
    }
    obdsim::ReferenceAnalyser reference;
    std::string error;
    if (!reference.Load(plugin, error)) return Fail("cannot load the analyser: " + error, 1);
    constexpr double kToleranceS = 1.0;
    const obdsim::AlarmComparison c = obdsim::CompareAlarms(
        summary["alarms"], obdsim::DirectAlarms(drive, reference), kToleranceS);
    std::string text = "Direct analysis: " + drive.Name() +
                       ", its values at each whole second of " +
                       obdsim::Dur(std::floor(drive.DurationS())) +
                       " straight into the analyser, once a second; against the replay in " + path +
                       "\n\n" + c.table;
    if (c.differences.empty()) {
        text += "\nVerdict: the replay gives the direct analysis's alarms (each episode within " +
                obdsim::Fmt("%.0f", kToleranceS) + " s)\n";
    } else {
        const size_t n = c.differences.size();
        text += "\nVerdict: the replay's alarms DIFFER from the direct analysis's (" +
                std::to_string(n) + (n == 1 ? " episode)\n" : " episodes)\n");
        constexpr size_t kShown = 30;
        for (size_t i = 0; i < c.differences.size() && i < kShown; ++i) {
            text += "  - " + c.differences[i] + "\n";
        }
        if (c.differences.size() > kShown) {
            text += "  and " + std::to_string(c.differences.size() - kShown) + " more\n";
        }
    }
    std::fputs(text.c_str(), stdout);
    return c.differences.empty() ? 0 : 4;
}

}  // namespace

int Run(int argc, char** argv) {
    const auto realStart = std::chrono::steady_clock::now();
    CLI::App app{"Runs the OBD plug-in under the host layer."};
    // --help shows each option's default beside it.
    app.option_defaults()->always_capture_default();
    // CLI11's own positive-number check prints its double range in full; say it plainly.
    const CLI::Validator positive(
        [](std::string& text) {
            char* end = nullptr;
            const double v = std::strtod(text.c_str(), &end);
            return (end != text.c_str() && *end == '\0' && v > 0.0) ? std::string()
                                                                    : "must be a number above 0";
        },
        "POSITIVE");
    std::string serial;
    std::string plugin = obdsim::DefaultPluginPath();
    std::string inject;
    std::string scenario;
    std::string columns;
    std::string directCheck;
    std::string summaryJson;
    std::string report;
    int baud = 115200;
    double duration = 0.0;
    int productType = 0;
    int logLevel = 1;
    int dumpLevel = 0;
    // Empty until given: the default depends on the box (see --speed).
    std::string speed;
    bool json = false;
    bool trace = false;
    bool noBox = false;
    int boxStreamMs = 1000;
    // The box's unsolicited link frames make the plug-in queue a link task every 10 s, which
    // stops the data stream for its eleven unanswered attempts (about 22 s): the built-in box
    // sends none unless asked, so that a drive reaches the analyser.
    int boxLinkMs = 0;
    // An empty path names nothing: refused rather than read as "not given".
    const CLI::Validator named(
        [](std::string& text) { return text.empty() ? "needs a name, not \"\"" : std::string(); },
        "");
    CLI::Option* serialOption =
        app.add_option("--serial", serial,
                       "tty of the box; without it a built-in box answers on a pseudo-terminal")
            ->check(named);
    app.add_flag("--no-box", noBox, "without --serial: a bare pseudo-terminal that answers nothing")
        ->excludes(serialOption);
    app.add_option("--scenario", scenario,
                   "built-in box: play this CSV drive instead of the built-in one")
        ->check(named)
        ->default_str("the built-in drive");
    app.add_option("--columns", columns,
                   "--scenario's column mapping: SOURCE=NAME[*FACTOR][+NAME[*FACTOR]...],... "
                   "(a column may feed several names: distance=mileage+mileage2) or a preset "
                   "(polidriving)")
        ->check(named)
        ->default_str("the file's own names");
    std::string gapsText;
    app.add_option("--gaps", gapsText,
                   "--scenario's values between rows: hold (each row stands until the next; the "
                   "default with --columns) or interpolate (a straight line; the default for "
                   "obd-sim's own format)")
        ->check(CLI::IsMember({"hold", "interpolate"}))
        // CLI11 shows no default beside an option text of its own.
        ->option_text("hold|interpolate=hold with --columns, else interpolate");
    app.add_option("--direct-check", directCheck,
                   "run no plug-in: analyse the drive's values at each whole second directly and "
                   "compare the alarms with this summary of its replay (--summary-json)")
        ->check(named);
    app.add_option("--box-stream-ms", boxStreamMs,
                   "built-in box: data-stream frame period in host ms (0: none)")
        ->check(CLI::Range(0, 60000));
    app.add_option("--box-link-ms", boxLinkMs,
                   "built-in box: period of its own link frames in host ms (0: none)")
        ->check(CLI::Range(0, 60000));
    // Line faults of the built-in box, so that a run (and its capture) shows what a poor line
    // does to the frames: garbage between them, frames in pieces, escaped bytes.
    obdbox::BoxOptions boxLine;
    app.add_option("--box-garbage", boxLine.garbageBytes,
                   "built-in box: random bytes before each frame it sends")
        ->check(CLI::Range(0, 64));
    app.add_option("--box-split", boxLine.splitMaxChunk,
                   "built-in box: write each frame in random pieces of 1..N bytes")
        ->check(CLI::Range(0, 1024));
    app.add_flag("--box-escape", boxLine.escape, "built-in box: escape 7D/7E/7F in its frames");
    app.add_flag("--box-escape-in-length", boxLine.escapeCountsInLength,
                 "built-in box: escape, and count the escape pairs in the length")
        ->excludes("--box-escape");
    app.add_option("--box-seed", boxLine.seed, "built-in box: seed of garbage and piece sizes");
    app.add_option("--box-refuse-step", boxLine.upgradeRefuseStep,
                   "built-in box: refuse this upgrade step (its request code, e.g. 9220 = 0x2404)");
    app.add_option("--baud", baud, "serial speed")
        ->check(CLI::IsMember(
            std::set<int>{9600, 19200, 38400, 57600, 115200, 230400, 460800, 921600}));
    app.add_option("--duration", duration,
                   "stop after this many seconds of host time (default: the drive's length; "
                   "with --serial or --no-box: until interrupted)")
        ->check(positive)
        ->default_str("the drive's length and 1 s");
    app.add_option("--product-type", productType, "host product type (72 = CAN-box mode)")
        ->check(CLI::Range(0, 255));
    CLI::Option* logOption =
        app.add_option("--log-level", logLevel, "print log lines up to this level");
    app.add_option("--dump-level", dumpLevel, "print byte dumps up to this level");
    // A factor too large for the clock's arithmetic would wrap host time; infinity (inf,
    // infinity, or a number beyond a double) asks for the fastest clock there is, which is max.
    const CLI::Validator speedCheck(
        [](std::string& text) {
            char* end = nullptr;
            const double v = std::strtod(text.c_str(), &end);
            if (text == "max" || (end != text.c_str() && *end == '\0' && std::isinf(v) && v > 0)) {
                text = "max";
                return std::string();
            }
            return (end != text.c_str() && *end == '\0' && v > 0.0 && v <= kMaxSpeed)
                       ? std::string()
                       : "must be a number above 0 and at most 100 (the host's cycle cannot keep a "
                         "faster pace), or max (inf)";
        },
        "K|max");
    CLI::Option* speedOption =
        app.add_option("--speed", speed,
                       "host time runs K times faster than real time (0 < K <= 100); max (or "
                       "inf): as fast as the work allows, the same run every time")
            ->transform(speedCheck)
            ->default_str("max (1 with --serial, --no-box or --inject -)");
    CLI::Option* timeScaleOption =
        app.add_option("--time-scale", speed, "deprecated: the same as --speed K")
            ->transform(speedCheck)
            ->excludes(speedOption);
    CLI::Option* jsonOption =
        app.add_flag("--json", json,
                     "one JSON object per line on stdout for every wire chunk and bus message "
                     "(decoded); the summary goes to stderr");
    app.add_flag("--trace", trace, "print every wire byte and bus message as readable lines")
        ->excludes(jsonOption);
    app.add_option("--summary-json", summaryJson,
                   "write the summary as one JSON object to this file")
        ->check(named);
    app.add_option("--report", report,
                   "write a self-contained HTML page of the trip (timeline, summary, link health)")
        ->check(named);
    app.add_option("--inject", inject, "inbound bus messages, '[@T_MS] ID [HEX]' a line; - = stdin")
        ->check(named);
    std::string capturePath;
    bool captureChunks = false;
    CLI::Option* captureOption =
        app.add_option("--capture", capturePath,
                       "write a pcap capture of the run: line frames, bus messages, inertial "
                       "samples (link type USER0; see the README)")
            ->check(named);
    app.add_flag("--capture-chunks", captureChunks,
                 "--capture: also every raw read and write on the line")
        ->needs(captureOption);
    std::vector<std::string> thresholds;
    app.add_option("--thresholds", thresholds,
                   "what-if: a JSON file of analyser threshold fields; its alarms on the same "
                   "samples go beside the plug-in's (repeatable)")
        ->check(named);
    std::string replayPath;
    app.add_option("--replay", replayPath,
                   "play a capture's box, bus and inertial side into the plug-in and compare what "
                   "it sends with what was recorded (exit 6 when it differs; see the README)")
        ->check(CLI::ExistingFile);
    app.add_option("--plugin", plugin, "plug-in library (default: next to this program)")
        ->check(named);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        return Fail(e.what(), 2);
    }
    if (timeScaleOption->count() > 0) {
        std::fprintf(stderr, "obd-sim: --time-scale is deprecated: use --speed\n");
    }
    // The built-in box keeps no real time, so its drive plays on virtual time unless a speed is
    // given: the same bytes every run. A real box, a bare line and lines typed on stdin come in
    // real time.
    if (speed.empty()) speed = serial.empty() && !noBox && inject != "-" ? "max" : "1";
    if (speed == "max" && !serial.empty()) {
        return Fail("--speed max: a real box keeps real time; use the built-in box", 2);
    }
    const bool builtInBox = serial.empty() && !noBox;
    if (!builtInBox && !scenario.empty()) return Fail("--scenario needs the built-in box", 2);
    if (scenario.empty() && !columns.empty()) return Fail("--columns needs --scenario", 2);
    if (scenario.empty() && !gapsText.empty()) return Fail("--gaps needs --scenario", 2);
    const obdsim::Gaps gaps = gapsText.empty()     ? obdsim::Gaps::ByKind
                              : gapsText == "hold" ? obdsim::Gaps::Hold
                                                   : obdsim::Gaps::Interpolate;
    if (!directCheck.empty() && (json || trace || !summaryJson.empty() || !report.empty() ||
                                 !inject.empty() || !builtInBox)) {
        return Fail(
            "--direct-check runs no plug-in: it takes --scenario, --columns, --gaps and --plugin",
            2);
    }
    if (!report.empty() && !obdsim::ReportAvailable()) {
        return Fail("--report: built without Chart.js (install libjs-chart.js and rebuild)", 2);
    }
    if (!capturePath.empty() && !obdcap::Available()) {
        return Fail(std::string("--capture: ") + obdcap::kUnavailable, 2);
    }
    for (const std::string* path : {&summaryJson, &report, &capturePath}) {
        std::string error;
        if (!path->empty() && !CheckWritable(*path, error)) return Fail(error, 1);
    }
    if (!replayPath.empty()) {
        if (!obdcap::Available()) return Fail(std::string("--replay: ") + obdcap::kUnavailable, 2);
        obdsim::ReplayOptions r;
        r.path = replayPath;
        r.plugin = plugin;
        r.productType = app.count("--product-type") > 0 ? productType : -1;
        r.logLevel = logOption->count() > 0 ? logLevel : 0;
        r.capturePath = capturePath;
        r.captureChunks = captureChunks;
        r.summaryJson = summaryJson;
        r.report = report;
        r.thresholds = thresholds;
        std::string error;
        const int status = obdsim::RunReplay(r, error);
        return error.empty() ? status : Fail(error, status);
    }
    std::vector<obdsim::ColumnMap> columnMap;
    {
        std::string error;
        if (!obdsim::ParseColumns(columns, columnMap, error)) return Fail("--columns: " + error, 2);
    }
    if (!directCheck.empty()) {
        // The same drive as the replay's: a recording's rows stand until the next row, a drive
        // written as keyframes moves from one to the next.
        obdsim::Drive drive = obdsim::BuiltinDrive();
        std::string error;
        std::vector<std::string> notes;
        if (!scenario.empty() &&
            !obdsim::LoadScenario(scenario, columnMap, drive, error, gaps, &notes)) {
            return Fail("cannot read scenario " + error, 1);
        }
        for (const std::string& note : notes)
            std::fprintf(stderr, "obd-sim: scenario %s\n", note.c_str());
        return DirectCheck(directCheck, drive, plugin);
    }

    struct sigaction sa {};
    sa.sa_handler = OnSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    struct sigaction crash {};
    crash.sa_handler = OnCrash;
    sigemptyset(&crash.sa_mask);
    crash.sa_flags = static_cast<int>(SA_RESETHAND);
    for (int sig : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT}) sigaction(sig, &crash, nullptr);

    // On a terminal the status line is the display: the plug-in's routine log would scroll it
    // away, so only its level-0 lines show, unless a level is asked for.
    const bool statusLine =
        !json && !trace && ::isatty(STDOUT_FILENO) != 0 && logOption->count() == 0;
    hostsim::SetLogLevel(statusLine ? 0 : logLevel);
    hostsim::SetDumpLevel(dumpLevel);
    hostsim::SetProductType(productType);

    if (!serial.empty()) {
        std::string error;
        if (!CheckTty(serial, error)) return Fail("cannot open serial port: " + error, 1);
    }

    // Everything named on the command line is checked before the box starts talking, so that a
    // wrong name gives its one line and nothing else.
    {
        std::string error;
        if (!CheckPlugin(plugin, error)) return Fail("cannot load plug-in: " + error, 1);
    }
    std::unique_ptr<obdsim::Drive> drive;
    if (builtInBox) {
        drive = std::make_unique<obdsim::Drive>();
        std::string error;
        if (scenario.empty()) {
            *drive = obdsim::BuiltinDrive();
        } else {
            std::vector<std::string> notes;
            if (!obdsim::LoadScenario(scenario, columnMap, *drive, error, gaps, &notes)) {
                return Fail("cannot read scenario " + error, 1);
            }
            for (const std::string& note : notes)
                std::fprintf(stderr, "obd-sim: scenario %s\n", note.c_str());
        }
    }
    const double timeScale = speed == "max" ? 0.0 : std::strtod(speed.c_str(), nullptr);
    const long long slackMs = obdsim::ClockSlackMs(timeScale);
    obdsim::TripAnalysis analysis(drive.get(), slackMs, !report.empty());
    obdsim::TripLog& trip = analysis.Trip();
    std::unique_ptr<obdsim::CaptureSink> capture;
    std::unique_ptr<Injector> injector;
    if (!inject.empty()) {
        injector = std::make_unique<Injector>(
            inject, [&trip, &capture](int id, const std::vector<unsigned char>& payload) {
                trip.OnInject(id);
                if (capture) capture->Inbound(id, payload, hostsim::ClockNowMs());
            });
        std::string error;
        if (!injector->Open(error)) return Fail("cannot read inject file " + error, 1);
    }
    obdsim::WhatIf& whatIf = analysis.WhatIfs();
    {
        std::string error;
        if (!analysis.LoadWhatIf(plugin, thresholds, error)) {
            return Fail("--thresholds " + error, 2);
        }
    }
    obdsim::ReferenceAnalyser& reference = analysis.Reference();
    obdsim::RunFacts& facts = analysis.Facts();
    facts.speed = speed;
    // The drive's checks assume a box that streams at least once a second and sends no link
    // frames of its own (those stop its stream for 22 s at a time): other settings are the
    // user's choice, and what the checks would find then is not the plug-in's doing.
    if (builtInBox && (boxStreamMs == 0 || boxStreamMs > 1000)) {
        facts.unjudged = boxStreamMs == 0 ? "--box-stream-ms 0: the box sends no data stream"
                                          : "--box-stream-ms " + std::to_string(boxStreamMs) +
                                                ": the drive's checks need a frame every second";
    } else if (builtInBox && boxLinkMs > 0) {
        facts.unjudged = "--box-link-ms " + std::to_string(boxLinkMs) +
                         ": the link requests stop the box's stream for 22 s at a time";
    }
    facts.source = drive            ? drive->Name()
                   : serial.empty() ? "bare pseudo-terminal"
                                    : "box on " + serial;
    analysis.LoadReference(plugin);
    if (!capturePath.empty()) {
        // What a replay of the capture cannot see on the line or the bus: what drove the box,
        // whether the drive's checks hold for these settings, the alarms the drive names.
        std::vector<std::string> runFacts;
        if (drive) {
            runFacts.push_back("source=" + facts.source);
            if (!facts.unjudged.empty()) runFacts.push_back("unjudged=" + facts.unjudged);
            if (!drive->Expected().empty()) {
                runFacts.push_back("expected=" + obdsim::ExpectedFact(drive->Expected()));
            }
        }
        capture = std::make_unique<obdsim::CaptureSink>();
        std::string error;
        if (!capture->Open(capturePath, captureChunks, productType, error, runFacts)) {
            return Fail(error, 1);
        }
    }

    // stdout carries only what the user asked for (message lines, the status line, the
    // summary); the plug-in's own stdout traces join the log on stderr, or vanish behind a
    // status line like its routine log, so a program reading --json sees nothing but JSON.
    FILE* out = nullptr;
    const int outFd = ::dup(STDOUT_FILENO);
    if (outFd >= 0) out = ::fdopen(outFd, "w");
    if (out == nullptr) return Fail(std::string("stdout: ") + std::strerror(errno), 1);
    std::fflush(stdout);
    const int quiet = statusLine ? ::open("/dev/null", O_WRONLY | O_CLOEXEC) : -1;
    ::dup2(quiet >= 0 ? quiet : STDERR_FILENO, STDOUT_FILENO);
    if (quiet >= 0) ::close(quiet);
    std::unique_ptr<obdsim::StatusLine> shownStatus;
    if (statusLine) {
        shownStatus = std::make_unique<obdsim::StatusLine>(out, ::isatty(STDERR_FILENO) != 0);
        hostsim::SetLogSink(
            [&shownStatus](int, const std::string& line) { shownStatus->Log(line); });
    }
    Printer printer(json    ? Printer::Mode::Json
                    : trace ? Printer::Mode::Trace
                            : Printer::Mode::Quiet,
                    out);
    obdsim::Feeder feeder(drive.get(), &reference,
                          [&trip, &whatIf](long long tMs, const obdsim::DriveSample& items) {
                              trip.OnFrame(tMs, items);
                              whatIf.Frame(items);
                          });
    if (capture || !whatIf.Empty()) {
        feeder.SetSixAxisTap([&capture, &whatIf](long long tMs, const tagSixAxisOrgData& sample) {
            if (capture) capture->SixAxis(tMs, sample);
            if (!whatIf.Empty()) whatIf.SixAxis(sample);
        });
    }
    if (!whatIf.Empty()) feeder.SetSecondTap([&whatIf](long long tMs) { whatIf.Second(tMs); });
    std::unique_ptr<obdsim::LinkMonitor> link;
    // The line's frames go to the capture as the link monitor cuts them.
    const obdsim::LinkMonitor::RecordTap recordTap =
        capture ? obdsim::LinkMonitor::RecordTap(
                      [&capture](const obdframe::Record& r, bool toBox, long long lastByteMs) {
                          capture->Record(r, toBox, lastByteMs);
                      })
                : obdsim::LinkMonitor::RecordTap();
    auto lineTap = [&link, &capture](bool toBox, const unsigned char* data, size_t n,
                                     long long tMs) {
        link->OnChunk(toBox, data, n, tMs);
        if (capture) capture->Chunk(toBox, data, n, tMs);
    };
    // Host time 0 is the start of the run. At max speed this thread takes part from here on: the
    // box, the plug-in, the bus and the feeder get their turns in the order it starts them, and
    // host time waits for it until it sleeps till the end of the run.
    std::unique_ptr<hostsim::Participant> self;
    if (speed == "max") {
        hostsim::ClockUseVirtual(0);
        self = std::make_unique<hostsim::Participant>("obd-sim");
        self->Enter();
    } else if (timeScale == 1.0) {
        hostsim::ClockUseReal(0);
    } else {
        hostsim::ClockUseScaled(timeScale, 0);
    }
    std::unique_ptr<obdsim::BoxSide> box;
    std::unique_ptr<obdbox::BoxEmulator> emulator;
    std::unique_ptr<obdsim::CanRelay> relay;
    // In CAN-box mode the built-in box answers through the bus relay, and its line is the
    // relay's: the bytes the plug-in sees are those of the bus lines.
    const bool canBox = builtInBox && productType == 72;
    int slaveFd = -1;
    if (builtInBox) {
        // The default: the box emulator on a pseudo-terminal of its own, playing the drive.
        obdbox::BoxOptions o;
        o.streamPeriodMs = boxStreamMs;
        o.linkPeriodMs = boxLinkMs;
        o.garbageBytes = boxLine.garbageBytes;
        o.splitMaxChunk = boxLine.splitMaxChunk;
        o.escape = boxLine.escape || boxLine.escapeCountsInLength;
        o.escapeCountsInLength = boxLine.escapeCountsInLength;
        o.seed = boxLine.seed;
        o.upgradeRefuseStep = boxLine.upgradeRefuseStep;
        o.values = [&feeder] { return feeder.Frame(); };
        if (!canBox) {
            o.wireTap = [&printer](bool toBox, const uint8_t* data, size_t n) {
                printer.Wire(hostsim::ClockNowMs(), std::vector<unsigned char>(data, data + n),
                             toBox);
            };
        }
        // The box's decoded view of what it received; what it sends is on the wire lines.
        o.log = [&printer](const std::string& line) {
            printer.BoxNote(hostsim::ClockNowMs(), line);
        };
        o.logSent = false;
        auto peer = std::make_shared<hostsim::Participant>("obd-box");
        o.clock = obdsim::BoxHostClock(peer);
        emulator = std::make_unique<obdbox::BoxEmulator>(std::move(o));
        if (!emulator->Start()) return Fail("box emulator: " + emulator->LastError(), 1);
        serial = emulator->SlavePath();
        peer->ServeCountedLine(serial);
        if (canBox) {
            link = std::make_unique<obdsim::LinkMonitor>(recordTap);
            relay = std::make_unique<obdsim::CanRelay>(
                serial, lineTap, [&printer, &capture](const hostsim::BusMessage& m) {
                    printer.Bus(m, true);
                    if (capture) capture->Bus(m, true);
                });
            std::string error;
            if (!relay->Start(error)) return Fail("CAN-box relay: " + error, 1);
            serial = relay->PluginLinePath();
        }
    } else if (serial.empty()) {
        int master = -1;
        char name[256] = {};
        if (openpty(&master, &slaveFd, name, nullptr, nullptr) != 0) {
            return Fail(std::string("openpty: ") + std::strerror(errno), 1);
        }
        // Raw before the plug-in opens it, so nothing it writes is echoed back in the meantime.
        termios tio{};
        if (tcgetattr(slaveFd, &tio) == 0) {
            cfmakeraw(&tio);
            tcsetattr(slaveFd, TCSANOW, &tio);
        }
        fcntl(master, F_SETFL, fcntl(master, F_GETFL) | O_NONBLOCK);
        serial = name;
        box = std::make_unique<obdsim::BoxSide>(
            master, [&printer](long long t, const std::vector<unsigned char>& bytes) {
                printer.Wire(t, bytes);
            });
        box->Start();
    }

    // In CAN-box mode the box is not on the line: only the relay's bytes can be followed.
    if (productType != 72) {
        link = std::make_unique<obdsim::LinkMonitor>(recordTap);
        hostsim::SetSerialTap(lineTap);
    }
    const int token = hostsim::BusSubscribe([&](const hostsim::BusMessage& m) {
        printer.Bus(m);
        if (capture) capture->Bus(m, false);
        analysis.OnBus(m);
        // Without the built-in box the plug-in's own table is the only sample the simulator has.
        if (!builtInBox && !m.response && m.id == 6702 &&
            m.payload.size() >= sizeof(_OBD_DataTable_t)) {
            _OBD_DataTable_t table;
            std::memcpy(&table, m.payload.data(), sizeof(table));
            reference.Table(table);
        }
    });
    int status = 0;
    bool ran = false;
    {
        hostsim::PluginHost host;
        host.SetSerial(serial, baud);
        if (!host.Load(plugin)) {
            status = Fail("cannot load plug-in: " + host.LastError(), 1);
        } else if (!host.SerialOpenError().empty()) {
            status = Fail("cannot open serial port: " + host.SerialOpenError(), 1);
            host.Release();
        } else {
            // A failing initialisation leaves the object running with its status false, as on
            // the recorder; its own log says why.
            host.Initialize();
            host.RegisterHandlers();
            host.Start();
            feeder.Start();
            if (injector) injector->Start();
            // Without --duration a drive runs to its end and a second more, for the broadcasts of
            // its last second.
            const long long endMs = duration > 0.0 ? std::llround(duration * 1000.0)
                                    : drive ? std::llround(drive->DurationS() * 1000.0) + 1000
                                            : -1;
            auto shown = std::chrono::steady_clock::now();
            long long finishMs = 0;
            auto untilTheEnd = [&] {
                for (;;) {
                    const long long now = hostsim::ClockNowMs();
                    g_hostMs = now;
                    if (g_signalled.load() != 0 || (endMs >= 0 && now >= endMs)) break;
                    if (shownStatus &&
                        std::chrono::steady_clock::now() - shown > std::chrono::milliseconds(100)) {
                        shown = std::chrono::steady_clock::now();
                        shownStatus->Show(trip.Status(now));
                    }
                    if (self) {
                        // Sleeps on host time in turn; a signal or the status line is seen at
                        // least every host second.
                        const long long left = endMs < 0 ? 1000 : endMs - now;
                        Common::P4X_TMSleepMicroSecond(
                            static_cast<unsigned int>(std::min(left, 1000LL) * 1000));
                    } else {
                        std::this_thread::sleep_for(std::chrono::milliseconds(2));
                    }
                }
                // The broadcasts of the last instant belong to the trip (the drive's last
                // second): on virtual time they come in turns after this thread's, so the
                // instant is let finish before the trip closes.
                finishMs = hostsim::ClockNowMs();
                if (self && g_signalled.load() == 0 && endMs >= 0) {
                    Common::P4X_TMSleepMicroSecond(1000);
                    finishMs = endMs;
                }
            };
            if (self) {
                self->Run(untilTheEnd);
            } else {
                untilTheEnd();
            }
            facts.behindMs = hostsim::ClockMaxLateMs();
            trip.Finish(finishMs);
            if (capture) capture->End(finishMs);
            facts.realSeconds =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - realStart).count();
            ran = true;
            // The shutdown waits on host time (the feeder's steps, the plug-in's release): on a
            // clock slower than real they would last minutes or days, and a Ctrl-C would seem
            // ignored. From here time runs at real pace; the change wakes every host sleep.
            if (!self && timeScale < 1.0) hostsim::ClockUseReal(hostsim::ClockNowMs());
            if (injector) {
                injector->Stop();
                injector->TellUntold();
            }
            feeder.Stop();
            host.Release();
        }
    }
    hostsim::SetSerialTap({});
    hostsim::BusDrain();
    hostsim::BusUnsubscribe(token);
    if (box) box->Stop();
    if (relay) relay->Stop();
    if (capture) {
        // Every tap is quiet now: what the line left pending goes in, then the file is closed,
        // whichever way the run ended.
        if (link) link->Finish();
        std::string error;
        if (!capture->Close(error) && status == 0) status = Fail(error, 1);
    }
    if (emulator) emulator->Stop();
    if (slaveFd >= 0) ::close(slaveFd);
    if (shownStatus) shownStatus->Clear();
    hostsim::SetLogSink({});
    if (ran) {
        if (link) facts.link = link->Figures();
        obdsim::TripOutputs outputs;
        outputs.summaryJson = summaryJson;
        outputs.report = report;
        outputs.virtualTime = self != nullptr;
        // With --json stdout stays one message per line; the summary goes where a person reads.
        outputs.text = json ? stderr : out;
        if (!report.empty()) {
            obdsim::Json& settings = outputs.settings;
            settings["source"] = facts.source;
            settings["speed"] = speed;
            if (duration > 0.0) settings["duration_s"] = duration;
            if (!columns.empty()) settings["columns"] = columns;
            if (!gapsText.empty()) settings["gaps"] = gapsText;
            settings["baud"] = baud;
            settings["product type"] = productType;
            if (builtInBox) {
                settings["box stream period (ms)"] = boxStreamMs;
                settings["box link period (ms)"] = boxLinkMs;
            }
            if (!inject.empty()) settings["inject"] = inject;
            settings["plug-in"] = plugin;
        }
        obdsim::Json summary;
        std::string error;
        if (!analysis.Write(outputs, summary, error)) status = Fail(error, 1);
        const std::string verdict = summary["verdict"].get<std::string>();
        if (verdict == "misbehaved" && status == 0) {
            status = Fail("plug-in misbehaved: " + summary["problems"][0].get<std::string>(), 3);
        } else if (verdict == "host behind" && status == 0) {
            status = Fail("no verdict: fell behind the pace of --speed " + speed + " by up to " +
                              obdsim::Fmt("%.1f", summary["behind_s"].get<double>()) +
                              " s of host time; first problem seen: " +
                              summary["problems"][0].get<std::string>(),
                          5);
        }
    }
    std::fclose(out);
    return status;
}

int main(int argc, char** argv) {
    // Whatever escapes (an allocation, a thread that cannot start) still ends in one line.
    try {
        return Run(argc, argv);
    } catch (const std::exception& e) {
        return Fail(e.what(), 1);
    }
}

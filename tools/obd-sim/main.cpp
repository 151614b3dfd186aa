// obd-sim: loads the OBD plug-in into the project's host layer and runs it as the recorder does,
// on a real tty (--serial) or on a pseudo-terminal of its own, printing what it puts on the bus
// and, on its own pseudo-terminal, on the wire.
//
// Exit status: 0 after a clean release (end of --duration, SIGINT, SIGTERM); 1 when the plug-in
// or the tty cannot be used; 2 for bad arguments.
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
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
#include "HostCommon.h"
#include "HostSim.h"
#include "InjectLine.h"

namespace {

volatile sig_atomic_t g_signalled = 0;

void OnSignal(int) {
    g_signalled = 1;
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

// Everything on stdout goes through here: whole lines, flushed, so a reading program sees each
// message as it happens.
class Printer {
  public:
    Printer(bool json, FILE* out) : m_json(json), m_out(out) {}

    void Bus(const hostsim::BusMessage& m) {
        const char* kind = m.response ? "response" : "send";
        if (m_json) {
            nlohmann::ordered_json j;
            j["t_ms"] = m.tMs;
            j["kind"] = kind;
            j["id"] = m.id;
            j["len"] = m.payload.size();
            j["hex"] = Hex(m.payload, m.payload.size(), "");
            Line(j.dump());
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
        if (!m_json) Line("[" + std::to_string(tMs) + " ms] box: " + text);
    }

  private:
    void Line(const std::string& text) {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::fwrite(text.data(), 1, text.size(), m_out);
        std::fputc('\n', m_out);
        std::fflush(m_out);
    }

    bool m_json;
    FILE* m_out;
    std::mutex m_mutex;
};

// Delivers the lines of an inject script, each at its host time or as soon as read.
class Injector {
  public:
    explicit Injector(std::string source) : m_source(std::move(source)) {}
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
        m_thread = std::thread([this] { Run(); });
    }

    void Stop() {
        m_stop = true;
        if (m_part) m_part->Leave();
        if (m_thread.joinable()) m_thread.join();
        if (m_own && m_fd >= 0) ::close(m_fd);
        m_fd = -1;
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
                Handle(pending.substr(0, nl), ++lineNo);
                pending.erase(0, nl + 1);
            }
            if (eof && !m_stop && !pending.empty()) Handle(pending, ++lineNo);
        }
    }

    void Handle(const std::string& text, long long lineNo) {
        obdsim::InjectLine line;
        std::string error;
        switch (obdsim::ParseInjectLine(text, line, error)) {
            case obdsim::ParseResult::Skip:
                return;
            case obdsim::ParseResult::Error:
                std::fprintf(stderr, "obd-sim: inject line %lld: %s\n", lineNo, error.c_str());
                return;
            case obdsim::ParseResult::Message:
                break;
        }
        if (line.timed && !WaitFor(line.tMs)) return;
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
    int m_fd = -1;
    bool m_own = false;
    std::atomic<bool> m_stop{false};
    std::unique_ptr<hostsim::Participant> m_part;
    std::thread m_thread;
};

std::string DefaultPluginPath() {
    char self[4096];
    const ssize_t n = ::readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (n <= 0) return "libSerialDevOBD.so";
    std::string path(self, static_cast<size_t>(n));
    const size_t slash = path.rfind('/');
    return (slash == std::string::npos ? std::string(".") : path.substr(0, slash)) +
           "/libSerialDevOBD.so";
}

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

int Fail(const std::string& message, int code) {
    std::fprintf(stderr, "obd-sim: %s\n", message.c_str());
    return code;
}

}  // namespace

int Run(int argc, char** argv) {
    CLI::App app{"Runs the OBD plug-in under the host layer."};
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
    std::string plugin = DefaultPluginPath();
    std::string inject;
    int baud = 115200;
    double duration = 0.0;
    int productType = 0;
    int logLevel = 1;
    int dumpLevel = 0;
    std::string speed = "1";
    bool json = false;
    bool noBox = false;
    int boxStreamMs = 1000;
    int boxLinkMs = 5000;
    app.add_option("--serial", serial,
                   "tty of the box; without it a built-in box answers on a pseudo-terminal and "
                   "the wire is printed");
    app.add_flag("--no-box", noBox,
                 "without --serial: a bare pseudo-terminal that answers nothing (wire printed)");
    app.add_option("--box-stream-ms", boxStreamMs,
                   "built-in box: data-stream frame period in host ms (0: none)")
        ->check(CLI::Range(0, 60000));
    app.add_option("--box-link-ms", boxLinkMs,
                   "built-in box: link frame period in host ms (0: none)")
        ->check(CLI::Range(0, 60000));
    app.add_option("--baud", baud, "serial speed")
        ->check(CLI::IsMember(
            std::set<int>{9600, 19200, 38400, 57600, 115200, 230400, 460800, 921600}));
    app.add_option("--duration", duration, "stop after this many seconds of host time")
        ->check(positive);
    app.add_option("--product-type", productType, "host product type (72 = CAN-box mode)")
        ->check(CLI::Range(0, 255));
    app.add_option("--log-level", logLevel, "print log lines up to this level");
    app.add_option("--dump-level", dumpLevel, "print byte dumps up to this level");
    const CLI::Validator speedCheck(
        [&positive](std::string& text) { return text == "max" ? std::string() : positive(text); },
        "K|max");
    app.add_option("--speed", speed,
                   "host time runs K times faster than real time; max: as fast as the work "
                   "allows, the same run every time")
        ->check(speedCheck);
    app.add_option("--time-scale", speed, "deprecated: the same as --speed K")->check(positive);
    app.add_flag("--json", json, "one JSON object per line on stdout");
    app.add_option("--inject", inject,
                   "inbound bus messages, '[@T_MS] ID [HEX]' a line; - = stdin");
    app.add_option("--plugin", plugin, "plug-in library (default: next to this program)");
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        return Fail(e.what(), 2);
    }
    if (speed == "max" && !serial.empty()) {
        return Fail("--speed max: a real box keeps real time; use the built-in box", 2);
    }

    struct sigaction sa {};
    sa.sa_handler = OnSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    hostsim::SetLogLevel(logLevel);
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
    std::unique_ptr<Injector> injector;
    if (!inject.empty()) {
        injector = std::make_unique<Injector>(inject);
        std::string error;
        if (!injector->Open(error)) return Fail("cannot read inject file " + error, 1);
    }

    // stdout carries only the message lines; the plug-in's own stdout traces join the log on
    // stderr, so a program reading --json sees nothing but JSON.
    FILE* out = nullptr;
    const int outFd = ::dup(STDOUT_FILENO);
    if (outFd >= 0) out = ::fdopen(outFd, "w");
    if (out == nullptr) return Fail(std::string("stdout: ") + std::strerror(errno), 1);
    std::fflush(stdout);
    ::dup2(STDERR_FILENO, STDOUT_FILENO);
    Printer printer(json, out);
    // Host time 0 is the start of the run. At max speed this thread takes part from here on: the
    // box, the plug-in and the bus get their turns in the order it starts them, and host time
    // waits for it until it sleeps till the end of the run.
    std::unique_ptr<hostsim::Participant> self;
    if (speed == "max") {
        hostsim::ClockUseVirtual(0);
        self = std::make_unique<hostsim::Participant>("obd-sim");
        self->Enter();
    } else if (std::stod(speed) == 1.0) {
        hostsim::ClockUseReal(0);
    } else {
        hostsim::ClockUseScaled(std::stod(speed), 0);
    }
    std::unique_ptr<obdsim::BoxSide> box;
    std::unique_ptr<obdbox::BoxEmulator> emulator;
    int slaveFd = -1;
    if (serial.empty() && !noBox) {
        // The default: the box emulator on a pseudo-terminal of its own, every byte of the line
        // printed with the host time it crossed.
        obdbox::BoxOptions o;
        o.streamPeriodMs = boxStreamMs;
        o.linkPeriodMs = boxLinkMs;
        o.wireTap = [&printer](bool toBox, const uint8_t* data, size_t n) {
            printer.Wire(hostsim::ClockNowMs(), std::vector<unsigned char>(data, data + n), toBox);
        };
        // The box's decoded view of what it received; what it sends is on the wire lines.
        o.log = [&printer](const std::string& line) {
            if (line.rfind("box -> ", 0) != 0) printer.BoxNote(hostsim::ClockNowMs(), line);
        };
        auto peer = std::make_shared<hostsim::Participant>("obd-box");
        o.clock = obdsim::BoxHostClock(peer);
        emulator = std::make_unique<obdbox::BoxEmulator>(std::move(o));
        if (!emulator->Start()) return Fail("box emulator: " + emulator->LastError(), 1);
        serial = emulator->SlavePath();
        peer->ServeLine(serial);
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

    const int token =
        hostsim::BusSubscribe([&printer](const hostsim::BusMessage& m) { printer.Bus(m); });
    int status = 0;
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
            if (injector) injector->Start();
            const long long endMs = static_cast<long long>(duration * 1000.0);
            while (!g_signalled && (duration <= 0.0 || hostsim::ClockNowMs() < endMs)) {
                if (self) {
                    // Sleeps on host time in turn; a signal is seen after at most 10 host s.
                    const long long left = duration <= 0.0 ? 10000 : endMs - hostsim::ClockNowMs();
                    Common::P4X_TMSleepMicroSecond(
                        static_cast<unsigned int>(std::min(left, 10000LL) * 1000));
                } else {
                    std::this_thread::sleep_for(std::chrono::milliseconds(2));
                }
            }
            if (injector) injector->Stop();
            host.Release();
        }
    }
    hostsim::BusDrain();
    hostsim::BusUnsubscribe(token);
    if (box) box->Stop();
    if (emulator) emulator->Stop();
    if (slaveFd >= 0) ::close(slaveFd);
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

// Level-filtered log lines and hexadecimal dumps, to stderr or a pluggable sink.
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "CPeripheralManage.h"
#include "HostCommon.h"
#include "HostInternal.h"
#include "HostSim.h"

namespace hostsim {
namespace {

constexpr int kDefaultLogLevel = 1;
constexpr int kDefaultDumpLevel = 0;

struct LogState {
    std::mutex mutex;  // one whole line at a time, in the order they were made
    std::atomic<int> level{kDefaultLogLevel};
    std::atomic<int> dumpLevel{kDefaultDumpLevel};
    LogSink sink;
};

LogState& Log() {
    static LogState* state = new LogState;  // detached threads may log during exit
    return *state;
}

std::string VFormat(const char* fmt, va_list ap) {
    if (fmt == nullptr) return std::string();
    char small[256];
    va_list copy;
    va_copy(copy, ap);
    const int n = std::vsnprintf(small, sizeof(small), fmt, copy);
    va_end(copy);
    if (n < 0) return std::string("(bad log format)");
    if (static_cast<size_t>(n) < sizeof(small)) return std::string(small, static_cast<size_t>(n));
    std::string big(static_cast<size_t>(n) + 1, '\0');
    std::vsnprintf(&big[0], big.size(), fmt, ap);
    big.resize(static_cast<size_t>(n));
    return big;
}

const char* BaseName(const char* path) {
    if (path == nullptr) return "?";
    const char* slash = std::strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

void FormatLine(int level, const char* file, const char* func, int line, std::string msg) {
    // The plug-in's texts usually end in "\n"; the line gets exactly one.
    while (!msg.empty() && (msg.back() == '\n' || msg.back() == '\r')) msg.pop_back();
    char prefix[192];
    std::snprintf(prefix, sizeof(prefix), "[L%d %s:%s:%d] ", level, BaseName(file),
                  func != nullptr ? func : "?", line);
    detail::EmitLine(level, prefix + msg);
}

}  // namespace

void SetLogLevel(int level) {
    Log().level = level;
}
int LogLevel() {
    return Log().level;
}
void SetDumpLevel(int level) {
    Log().dumpLevel = level;
}
int DumpLevel() {
    return Log().dumpLevel;
}

void SetLogSink(LogSink sink) {
    LogState& s = Log();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.sink = std::move(sink);
}

namespace detail {

void EmitLine(int level, const std::string& line) {
    LogState& s = Log();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.sink) {
        s.sink(level, line);
        return;
    }
    std::string out = line + "\n";
    size_t done = 0;
    while (done < out.size()) {
        const ssize_t n = ::write(STDERR_FILENO, out.data() + done, out.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
}

void HostLog(int level, const char* func, const char* fmt, ...) {
    if (level > Log().level) return;
    va_list ap;
    va_start(ap, fmt);
    std::string msg = VFormat(fmt, ap);
    va_end(ap);
    FormatLine(level, "host", func, 0, std::move(msg));
}

void ResetLog() {
    LogState& s = Log();
    s.level = kDefaultLogLevel;
    s.dumpLevel = kDefaultDumpLevel;
    std::lock_guard<std::mutex> lock(s.mutex);
    s.sink = nullptr;
}

}  // namespace detail
}  // namespace hostsim

namespace Common {

void gclDebugPrintf(int level, const char* file, const char* func, int line, const char* fmt, ...) {
    if (level > hostsim::Log().level) return;
    va_list ap;
    va_start(ap, fmt);
    std::string msg = hostsim::VFormat(fmt, ap);
    va_end(ap);
    hostsim::FormatLine(level, file, func, line, std::move(msg));
}

}  // namespace Common

CPeripheralManage::CPeripheralManage() : m_pImpl(new Impl) {}

CPeripheralManage::~CPeripheralManage() {
    delete m_pImpl;
}

void CPeripheralManage::hex_dump(std::string label, const char* data, unsigned int len, int level) {
    if (level > hostsim::Log().dumpLevel) return;
    if (data == nullptr) len = 0;
    static const char kDigits[] = "0123456789ABCDEF";
    std::string line = "[D" + std::to_string(level) + "] " + label;
    line.reserve(line.size() + static_cast<size_t>(len) * 3);
    const auto* bytes = reinterpret_cast<const unsigned char*>(data);
    for (unsigned int i = 0; i < len; ++i) {
        line += ' ';
        line += kDigits[bytes[i] >> 4];
        line += kDigits[bytes[i] & 0x0F];
    }
    hostsim::detail::EmitLine(level, line);
}

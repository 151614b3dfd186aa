// obd-box: the OBD box emulator as a stand-alone program. Prints the tty to point the recorder
// (or obd-sim) at, then every frame it receives and sends, until interrupted.
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <set>
#include <string>
#include <vector>

#include "BoxEmulator.h"

namespace {

std::atomic<bool> g_stop{false};
void OnSignal(int) {
    g_stop = true;
}

int Fail(const std::string& message, int code) {
    std::fprintf(stderr, "obd-box: %s\n", message.c_str());
    return code;
}

}  // namespace

int Run(int argc, char** argv) {
    CLI::App app{"The OBD box emulator on a pseudo-terminal (or a given tty), until interrupted."};
    obdbox::BoxOptions o;
    o.streamPeriodMs = 1000;
    std::vector<std::string> valueTexts;
    std::string refuseStep;
    app.add_option("--tty", o.ttyPath, "use this tty instead of a new pseudo-terminal");
    app.add_option("--baud", o.baud, "speed of --tty")
        ->check(
            CLI::IsMember(std::set<int>{9600, 19200, 38400, 57600, 115200, 230400, 460800, 921600}))
        ->capture_default_str();
    app.add_option("--stream-ms", o.streamPeriodMs, "data-stream period while started (0: none)")
        ->check(CLI::Range(0, 3600000))
        ->capture_default_str();
    app.add_option("--link-ms", o.linkPeriodMs, "link frame period (0: none)")
        ->check(CLI::Range(0, 3600000))
        ->capture_default_str();
    app.add_option("--value", valueTexts,
                   "data-stream item ID=V, ID 1..59 (repeatable; default: a small table)")
        ->type_name("ID=V")
        ->allow_extra_args(false);
    app.add_flag("--escape", o.escape, "escape 7D/7E/7F in frames sent");
    app.add_flag("--escape-in-length", o.escapeCountsInLength,
                 "count escape pairs in the length field");
    app.add_flag("--silent", o.silent, "answer nothing (what is received is still logged)");
    app.add_flag("--refuse", o.refuse, "refuse upgrade steps and engine configuration");
    app.add_option("--drop", o.dropEveryNth, "do not send every Nth answer (0: none)")
        ->check(CLI::Range(0, 1000000))
        ->capture_default_str();
    app.add_option("--garbage", o.garbageBytes, "random bytes before each frame sent")
        ->check(CLI::Range(0, 4096))
        ->capture_default_str();
    app.add_option("--split", o.splitMaxChunk,
                   "write frames in random chunks of 1..N bytes (0: whole)")
        ->check(CLI::Range(0, 4096))
        ->capture_default_str();
    app.add_flag("--bad-checksum", o.badChecksum, "every frame sent carries a wrong checksum");
    app.add_flag("--stop-ack-2301", o.stopAckAlt, "acknowledge a stop with 0x2301");
    app.add_option("--seed", o.seed, "seed of garbage and split sizes")->capture_default_str();
    app.add_option("--line-rate", o.lineBytesPerSec,
                   "pace the line at N bytes/s each way (11520: 115200 baud 8N1; 0: unpaced)")
        ->check(CLI::Range(0, 100000000))
        ->capture_default_str();
    app.add_option("--flash-us", o.upgradeFlashUs,
                   "time spent storing each upgrade chunk before answering")
        ->check(CLI::Range(0, 60000000))
        ->capture_default_str();
    app.add_option("--refuse-step", refuseStep,
                   "refuse this upgrade step (hex request code, e.g. 2404; default: none)")
        ->check(CLI::Validator(
            [](std::string& text) {
                char* end = nullptr;
                const unsigned long v = std::strtoul(text.c_str(), &end, 16);
                return !text.empty() && *end == '\0' && v <= 0xFFFF
                           ? std::string()
                           : "must be a hex code of at most 4 digits, e.g. 2404";
            },
            "HEX"));
    app.add_option("--silent-after-chunks", o.upgradeSilentAfterChunks,
                   "fall silent after this many upgrade chunks (-1: never)")
        ->check(CLI::Range(-1, 1000000))
        ->capture_default_str();
    app.add_option("--drop-chunk", o.upgradeDropEveryNthChunk,
                   "do not answer every Nth upgrade chunk (0: none)")
        ->check(CLI::Range(0, 1000000))
        ->capture_default_str();
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        return Fail(e.what(), 2);
    }
    if (!refuseStep.empty()) {
        o.upgradeRefuseStep = static_cast<uint16_t>(std::strtoul(refuseStep.c_str(), nullptr, 16));
    }
    obdbox::DataItems values;
    for (const std::string& v : valueTexts) {
        const auto eq = v.find('=');
        char* end = nullptr;
        const long id = eq == std::string::npos ? 0 : std::strtol(v.c_str(), &end, 10);
        const bool idOk = eq != std::string::npos && end == v.c_str() + eq && id >= 1 && id <= 59;
        const char* valueText = idOk ? v.c_str() + eq + 1 : "";
        const float value = std::strtof(valueText, &end);
        if (!idOk || end == valueText || *end != '\0' || !std::isfinite(value)) {
            return Fail("--value " + v + ": must be ID=V with ID 1..59 and V a number", 2);
        }
        values.emplace_back(static_cast<uint8_t>(id), value);
    }
    if (!values.empty()) o.values = [values] { return values; };
    o.log = [](const std::string& line) { std::cout << line << std::endl; };
    obdbox::BoxEmulator box(o);
    if (!box.Start()) return Fail(box.LastError(), 1);
    std::cout << "obd-box: line " << box.SlavePath() << std::endl;
    signal(SIGINT, OnSignal);
    signal(SIGTERM, OnSignal);
    while (!g_stop.load()) usleep(100000);
    box.Stop();
    return 0;
}

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& e) {
        return Fail(e.what(), 1);
    }
}

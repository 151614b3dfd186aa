// obd-box: the OBD box emulator as a stand-alone program. Prints the tty to point the recorder
// (or obd-sim) at, then every frame it receives and sends, until interrupted.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include "BoxEmulator.h"

namespace {

std::atomic<bool> g_stop{false};
void OnSignal(int) {
    g_stop = true;
}

void Usage() {
    std::printf(
        "usage: obd-box [options]\n"
        "  --tty PATH          use this tty instead of a new pseudo-terminal\n"
        "  --baud N            speed of --tty (default 115200)\n"
        "  --stream-ms N       data-stream period while started (default 1000, 0 = none)\n"
        "  --link-ms N         link frame period (default 0 = none)\n"
        "  --value ID=V        data-stream item (repeatable; default a small table)\n"
        "  --escape            escape 7D/7E/7F in frames sent\n"
        "  --escape-in-length  count escape pairs in the length field\n"
        "  --silent | --refuse | --drop N | --garbage N | --split N | --bad-checksum\n"
        "  --stop-ack-2301     acknowledge a stop with 0x2301\n"
        "  --seed N            seed of garbage and split sizes\n"
        "  --line-rate N       pace the line at N bytes/s each way (11520: 115200 baud 8N1)\n"
        "  --flash-us N        time spent storing each upgrade chunk before answering\n"
        "  --refuse-step CODE  refuse this upgrade step (hex request code, e.g. 2404)\n"
        "  --silent-after-chunks N | --drop-chunk N   upgrade faults\n");
}

}  // namespace

int main(int argc, char** argv) {
    obdbox::BoxOptions o;
    o.streamPeriodMs = 1000;
    obdbox::DataItems values;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto next = [&]() -> const char* {
            if (i + 1 >= argc) {
                Usage();
                std::exit(2);
            }
            return argv[++i];
        };
        if (a == "--tty")
            o.ttyPath = next();
        else if (a == "--baud")
            o.baud = std::atoi(next());
        else if (a == "--stream-ms")
            o.streamPeriodMs = std::atoi(next());
        else if (a == "--link-ms")
            o.linkPeriodMs = std::atoi(next());
        else if (a == "--escape")
            o.escape = true;
        else if (a == "--escape-in-length")
            o.escapeCountsInLength = true;
        else if (a == "--silent")
            o.silent = true;
        else if (a == "--refuse")
            o.refuse = true;
        else if (a == "--drop")
            o.dropEveryNth = std::atoi(next());
        else if (a == "--garbage")
            o.garbageBytes = std::atoi(next());
        else if (a == "--split")
            o.splitMaxChunk = std::atoi(next());
        else if (a == "--bad-checksum")
            o.badChecksum = true;
        else if (a == "--stop-ack-2301")
            o.stopAckAlt = true;
        else if (a == "--seed")
            o.seed = static_cast<unsigned>(std::atoi(next()));
        else if (a == "--line-rate")
            o.lineBytesPerSec = std::atoi(next());
        else if (a == "--flash-us")
            o.upgradeFlashUs = std::atoi(next());
        else if (a == "--refuse-step")
            o.upgradeRefuseStep = static_cast<uint16_t>(std::strtoul(next(), nullptr, 16));
        else if (a == "--silent-after-chunks")
            o.upgradeSilentAfterChunks = std::atoi(next());
        else if (a == "--drop-chunk")
            o.upgradeDropEveryNthChunk = std::atoi(next());
        else if (a == "--value") {
            const std::string v = next();
            const auto eq = v.find('=');
            const int id = std::atoi(v.substr(0, eq).c_str());
            if (eq == std::string::npos || id < 1 || id > 59) {
                Usage();
                return 2;
            }
            values.emplace_back(static_cast<uint8_t>(id), std::strtof(v.c_str() + eq + 1, nullptr));
        } else {
            Usage();
            return a == "--help" || a == "-h" ? 0 : 2;
        }
    }
    if (!values.empty()) o.values = [values] { return values; };
    o.log = [](const std::string& line) { std::cout << line << std::endl; };
    obdbox::BoxEmulator box(o);
    if (!box.Start()) {
        std::fprintf(stderr, "obd-box: %s\n", box.LastError().c_str());
        return 1;
    }
    std::cout << "obd-box: line " << box.SlavePath() << std::endl;
    signal(SIGINT, OnSignal);
    signal(SIGTERM, OnSignal);
    while (!g_stop.load()) usleep(100000);
    box.Stop();
    return 0;
}

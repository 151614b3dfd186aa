// A long replay on virtual time: the plug-in (loaded as the recorder loads it), the host layer
// and the built-in box streaming once a second, for N host minutes, as `obd-sim --speed max`
// runs them. What a run costs is the CPU of the work itself plus one hand-off of the turn per
// event (a cycle, a send-thread poll, a frame, a bus delivery).
//   cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DOBD_BENCH=ON
//   cmake --build build-bench -j2 --target obd_replay_bench && build-bench/bin/obd_replay_bench
// Measured on the project's 2-core x86-64 build machine (Release, GCC 12): 168 host minutes in
// 1.3 to 1.6 s of real time (6 100 to 7 700 host seconds per second, medians of three on two
// days); with every message and wire byte printed, `obd-sim --speed max --duration 10080 --json
// >/dev/null` takes about 1.8 s.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "BoxEmulator.h"
#include "BoxHostClock.h"
#include "HostCommon.h"
#include "HostSim.h"

namespace {

void BM_VirtualReplay(benchmark::State& state) {
    const long long endMs = state.range(0) * 60 * 1000;
    long long messages = 0;
    for (auto _ : state) {
        hostsim::Reset();
        hostsim::SetLogSink([](int, const std::string&) {});
        const int token = hostsim::BusSubscribe([&messages](const hostsim::BusMessage&) {
            ++messages;  // the bus thread only: no lock needed
        });
        hostsim::ClockUseVirtual(0);
        {
            hostsim::Participant self("bench");
            self.Enter();
            auto peer = std::make_shared<hostsim::Participant>("box");
            obdbox::BoxOptions o;
            o.streamPeriodMs = 1000;
            o.linkPeriodMs = 5000;
            o.clock = obdsim::BoxHostClock(peer);
            obdbox::BoxEmulator box(o);
            if (!box.Start()) {
                state.SkipWithError("no pseudo-terminal");
                break;
            }
            peer->ServeLine(box.SlavePath());
            hostsim::PluginHost host;
            host.SetSerial(box.SlavePath());
            if (!host.Load(OBD_PLUGIN_PATH)) {
                state.SkipWithError(host.LastError().c_str());
                break;
            }
            host.Initialize();
            host.RegisterHandlers();
            host.Start();
            while (hostsim::ClockNowMs() < endMs) {
                const long long left = std::min(endMs - hostsim::ClockNowMs(), 60000LL);
                Common::P4X_TMSleepMicroSecond(static_cast<unsigned int>(left * 1000));
            }
            host.Release();
            hostsim::BusDrain();
            box.Stop();
        }
        hostsim::BusUnsubscribe(token);
    }
    state.counters["host_s_per_s"] = benchmark::Counter(
        static_cast<double>(endMs / 1000) * static_cast<double>(state.iterations()),
        benchmark::Counter::kIsRate);
    state.counters["bus_messages"] = static_cast<double>(messages);
}
BENCHMARK(BM_VirtualReplay)
    ->Arg(168)
    ->Iterations(1)
    ->Repetitions(3)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// The real recorded trip (168 minutes at 1 Hz) as a user replays it: the whole obd-sim process,
// with the built-in box playing the trip, the reference analyser and the trip checks.
//   cmake --build build-bench -j2 --target obd_replay_bench obd-sim
//   build-bench/bin/obd_replay_bench --benchmark_filter=RealTrip
// Measured on the project's 2-core x86-64 build machine (Release, GCC 12): see the README's
// performance section.
void BM_RealTripReplay(benchmark::State& state) {
    const std::string cmd = std::string(OBD_SIM) + " --speed max --scenario " + OBD_SOURCE_DIR +
                            "/tests/data/polidriving/andres_20231222_134710.csv"
                            " --columns polidriving >/dev/null 2>&1";
    for (auto _ : state) {
        if (std::system(cmd.c_str()) != 0) {
            state.SkipWithError("obd-sim failed");
            break;
        }
    }
}
BENCHMARK(BM_RealTripReplay)
    ->Iterations(1)
    ->Repetitions(5)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();

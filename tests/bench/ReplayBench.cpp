// A long replay on virtual time: the plug-in (loaded as the recorder loads it), the host layer
// and the built-in box streaming once a second, for N host minutes, as `obd-sim --speed max`
// runs them. What a run costs is the CPU of the work itself plus one hand-off of the turn per
// event (a cycle, a send-thread poll, a frame, a bus delivery): `fibers:0` hands each turn from
// thread to thread through the kernel, `fibers:1` (the default) switches fibers in user space.
//   cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DOBD_BENCH=ON
//   cmake --build build-bench -j2 --target obd_replay_bench obd-sim &&
//   build-bench/bin/obd_replay_bench
// Measured figures: the README's "Simulation speed".
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
    hostsim::SetVirtualFibers(state.range(1) != 0);
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
            peer->ServeCountedLine(box.SlavePath());
            hostsim::PluginHost host;
            host.SetSerial(box.SlavePath());
            if (!host.Load(OBD_PLUGIN_PATH)) {
                state.SkipWithError(host.LastError().c_str());
                break;
            }
            host.Initialize();
            host.RegisterHandlers();
            host.Start();
            self.Run([endMs] {
                while (hostsim::ClockNowMs() < endMs) {
                    const long long left = std::min(endMs - hostsim::ClockNowMs(), 60000LL);
                    Common::P4X_TMSleepMicroSecond(static_cast<unsigned int>(left * 1000));
                }
            });
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
    ->ArgNames({"minutes", "fibers"})
    ->Args({168, 0})
    ->Args({168, 1})
    ->Iterations(1)
    ->Repetitions(3)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// The real recorded trip (168 minutes at 1 Hz) as a user replays it: the whole obd-sim process,
// with the built-in box playing the trip, the reference analyser and the trip checks; threads
// (OBD_HOST_FIBERS=0) against fibers.
//   build-bench/bin/obd_replay_bench --benchmark_filter=RealTrip
void BM_RealTripReplay(benchmark::State& state) {
    const std::string cmd = std::string(state.range(0) != 0 ? "" : "OBD_HOST_FIBERS=0 ") + OBD_SIM +
                            " --speed max --scenario " + OBD_SOURCE_DIR +
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
    ->ArgName("fibers")
    ->Arg(0)
    ->Arg(1)
    ->Iterations(1)
    ->Repetitions(5)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();

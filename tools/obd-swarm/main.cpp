// obd-swarm: runs the plug-in on virtual time against the built-in box playing a drive drawn from
// a seed, with faults drawn from the same seed at random moments, and checks the invariants
// (Invariants.h) after every host step. One line per run on stdout: the seed, the vehicle time,
// the faults by kind, "ok" or the first violation, and the command that repeats the run exactly.
// `--table` instead sums up the result lines many runs left (Table.h).
//
// Exit status: 0 when no invariant was violated; 6 at the first violation (a crash or a hang
// included); 1 when the plug-in or a named file cannot be used; 2 for a bad argument.
#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Agreement.h"
#include "HostSim.h"
#include "Invariants.h"
#include "PrivateFile.h"
#include "Schedule.h"
#include "Session.h"
#include "Shrink.h"
#include "Table.h"

namespace {

constexpr int kViolation = 6;
constexpr long long kStepMs = 100;  // the plug-in's cycle
constexpr long long kMemoryEveryMs = 60000;

// What the crash handler writes: put together before the run, since a handler may only write.
std::string g_crashHead;  // "seed S: ...: VIOLATION crash ("
std::string g_crashTail;  // "); reproduce: ...\n"
std::atomic<long long> g_hostMs{0};
int g_outFd = STDOUT_FILENO;

void WriteAll(int fd, const char* text, size_t n) {
    while (n > 0) {
        const ssize_t w = ::write(fd, text, n);
        if (w <= 0) return;
        text += w;
        n -= static_cast<size_t>(w);
    }
}

void OnCrash(int sig) {
    const char* name = sig == SIGSEGV  ? "SIGSEGV"
                       : sig == SIGBUS ? "SIGBUS"
                       : sig == SIGILL ? "SIGILL"
                       : sig == SIGFPE ? "SIGFPE"
                                       : "SIGABRT";
    char at[32];
    long long s = g_hostMs.load() / 1000;
    char digits[24];
    int n = 0;
    do {
        digits[n++] = static_cast<char>('0' + s % 10);
        s /= 10;
    } while (s > 0 && n < 20);
    for (int i = 0; i < n; ++i) at[i] = digits[n - 1 - i];
    WriteAll(g_outFd, g_crashHead.data(), g_crashHead.size());
    WriteAll(g_outFd, name, std::strlen(name));
    WriteAll(g_outFd, ") at vehicle second ", 20);
    WriteAll(g_outFd, at, static_cast<size_t>(n));
    WriteAll(g_outFd, g_crashTail.data(), g_crashTail.size());
    ::_exit(kViolation);
}

long long RssKb() {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("VmRSS:", 0) == 0) return std::atoll(line.c_str() + 6);
    }
    return -1;
}

std::string Hours(double h) {
    char text[32];
    std::snprintf(text, sizeof(text), "%g", h);
    return text;
}

int Fail(const std::string& message, int code) {
    std::fprintf(stderr, "obd-swarm: %s\n", message.c_str());
    return code;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{
        "Runs the OBD plug-in against seeded drives with seeded faults on virtual time "
        "and checks its invariants after every step."};
    uint64_t seed = 0;
    double hours = 1.0;
    std::string scheduleOut, replay, plugin = obdsim::DefaultPluginPath();
    bool json = false;
    int hangS = 300;
    int logLevel = -1;
    bool trace = false;
    std::vector<std::string> boundSets;
    bool shrink = false;
    std::string shrinkOut;
    int shrinkRuns = 300;
    int shrinkMarginS = 2;
    CLI::Option* seedOption = app.add_option("--seed", seed, "the seed that draws the run");
    app.add_option("--hours", hours, "vehicle hours to drive (default 1)")
        ->check(CLI::Range(0.001, 10000.0));
    app.add_option("--schedule-out", scheduleOut,
                   "write the drawn drive and fault schedule to this file");
    CLI::Option* replayOption =
        app.add_option("--replay", replay, "run the schedule in this file instead of drawing one");
    app.add_flag("--json", json, "print the result as one JSON object instead of a line");
    app.add_option("--plugin", plugin, "plug-in library (default: next to this program)");
    app.add_option("--hang-s", hangS,
                   "seconds of real time host time may stand before the run counts as hung")
        ->check(CLI::Range(1, 86400));
    app.add_option("--log-level", logLevel, "print the plug-in's log lines up to this level")
        ->check(CLI::Range(0, 3));
    app.add_flag("--trace", trace,
                 "print every bus message, injected message and data frame on stderr");
    app.add_option("--bound", boundSets,
                   "NAME=MS: the bound of an invariant (link-down, link-up, upgrade-ends, ...)")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    app.add_flag(
        "--shrink", shrink,
        "cut a violating run down to the smallest schedule that breaks the same invariant");
    app.add_option("--shrink-out", shrinkOut,
                   "where --shrink writes its schedule (default swarm-SEED.shrunk.json)");
    app.add_option("--shrink-runs", shrinkRuns, "at most this many candidate runs (default 300)")
        ->check(CLI::Range(1, 100000));
    app.add_option("--shrink-margin", shrinkMarginS,
                   "seconds of drive --shrink keeps after the violation (default 2)")
        ->check(CLI::Range(0, 86400));
    seedOption->excludes(replayOption);
    std::vector<std::string> table;
    bool tableJson = false;
    app.add_option("--table", table, "print the results table of these result files or folders")
        ->excludes(seedOption, replayOption);
    app.add_flag("--table-json", tableJson, "print the results table as one JSON object");
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        return Fail(e.what(), 2);
    }
    if (!table.empty()) return obdswarm::PrintTable(table, tableJson);
    if (seedOption->count() == 0 && replayOption->count() == 0) {
        return Fail("--seed S or --replay FILE is needed", 2);
    }
    obdswarm::Bounds base;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    // A sanitizer keeps freed memory and history of its own that fill over the first hours (the
    // address sanitizer's quarantine alone holds 256 MB): that is the tool's, not the plug-in's.
    base.rssGrowthKb += 256 * 1024;
#endif
    obdswarm::Bounds bounds = base;
    for (const std::string& set : boundSets) {
        std::string error;
        if (!obdswarm::SetBound(set, bounds, error)) return Fail(error, 2);
    }
    obdswarm::Schedule schedule;
    std::string reproduce;
    if (!replay.empty()) {
        std::ifstream in(replay);
        std::stringstream text;
        text << in.rdbuf();
        std::string error;
        if (!in || !obdswarm::FromJson(text.str(), schedule, error)) {
            return Fail("cannot read schedule " + replay + ": " + error, 1);
        }
        reproduce = "obd-swarm --replay " + replay;
    } else {
        schedule = obdswarm::Draw(seed, hours);
        reproduce = "obd-swarm --seed " + std::to_string(seed) + " --hours " + Hours(hours);
    }
    reproduce += obdswarm::BoundArgs(bounds, base);
    if (!scheduleOut.empty()) {
        std::ofstream file(scheduleOut);
        file << obdswarm::ToJson(schedule);
        if (!file) return Fail("cannot write " + scheduleOut, 1);
    }
    if (shrink) {
        obdswarm::ShrinkRequest q;
        q.plugin = plugin;
        q.hangS = hangS;
        q.bounds = bounds;
        q.base = base;
        q.reproduce = reproduce;
        q.outFile = shrinkOut.empty() ? "swarm-" + std::to_string(schedule.seed) + ".shrunk.json"
                                      : shrinkOut;
        q.maxRuns = shrinkRuns;
        q.marginMs = shrinkMarginS * 1000LL;
        return obdswarm::ShrinkCommand(schedule, q);
    }
    // Before any thread: the namespace is granted to a single-threaded process only. Not before
    // a shrink, whose runs each make the file their own: a lock held here would block them.
    const std::string upgradeFile = OBD_UPGRADE_FILE_PATH;
    {
        std::string note;
        const obdswarm::FileIsolation how = obdswarm::IsolateUpgradeFile(upgradeFile, note);
        if (how == obdswarm::FileIsolation::Failed) {
            return Fail("cannot make " + upgradeFile + " this run's own: " + note, 1);
        }
        if (how == obdswarm::FileIsolation::Lock) {
            std::fprintf(stderr,
                         "obd-swarm: no private upgrade file (%s): runs that share %s take turns\n",
                         note.c_str(), upgradeFile.c_str());
        }
        ::unlink(upgradeFile.c_str());  // a run's file is the one its schedule writes
    }
    const obdsim::Drive drive = obdswarm::BuildDrive(schedule);
    const long long endMs = obdswarm::EndMs(schedule);
    // A release mid-run ends the drive there.
    const double drivenS = std::min(schedule.DriveSeconds(), static_cast<double>(endMs) / 1000.0);

    std::map<std::string, int> byKind;
    std::vector<obdswarm::Inbound> inbound;
    std::vector<obdswarm::FileAction> files;
    for (const obdswarm::Fault& f : schedule.faults) {
        for (obdswarm::FileAction& a : obdswarm::UpgradeFiles(f)) files.push_back(std::move(a));
        ++byKind[obdswarm::FaultName(f.kind)];
        if (f.kind == obdswarm::FaultKind::PowerDown) {
            inbound.push_back({f.startMs, 1194, {}});
        }
        for (obdswarm::Inbound& m : obdswarm::Messages(f)) inbound.push_back(std::move(m));
    }
    std::stable_sort(
        inbound.begin(), inbound.end(),
        [](const obdswarm::Inbound& a, const obdswarm::Inbound& b) { return a.tMs < b.tMs; });
    std::vector<const obdswarm::Fault*> clocks;  // stalls and date jumps, by time
    for (const obdswarm::Fault& f : schedule.faults) {
        if (f.kind == obdswarm::FaultKind::Stall || f.kind == obdswarm::FaultKind::DateJump) {
            clocks.push_back(&f);
        }
    }
    std::stable_sort(
        clocks.begin(), clocks.end(),
        [](const obdswarm::Fault* a, const obdswarm::Fault* b) { return a->startMs < b->startMs; });
    std::stable_sort(
        files.begin(), files.end(),
        [](const obdswarm::FileAction& a, const obdswarm::FileAction& b) { return a.tMs < b.tMs; });
    std::string faults;
    for (const auto& [kind, n] : byKind) {
        faults += (faults.empty() ? "" : " ") + kind + " " + std::to_string(n);
    }
    if (faults.empty()) faults = "none";
    const std::string mode = schedule.productType == 72 ? "can-box" : "serial";
    const std::string head = "seed " + std::to_string(schedule.seed) + ": " +
                             obdswarm::ClockSeconds(std::llround(drivenS * 1000)) +
                             " of vehicle time, " + mode + ", faults " + faults + ": ";

    // stdout carries the result line alone: the plug-in's own prints go to stderr.
    std::fflush(stdout);
    g_outFd = ::dup(STDOUT_FILENO);
    if (g_outFd < 0) return Fail("stdout: " + std::string(std::strerror(errno)), 1);
    ::dup2(STDERR_FILENO, STDOUT_FILENO);
    FILE* out = ::fdopen(g_outFd, "w");
    g_crashHead = head + "VIOLATION crash (";
    g_crashTail = "; reproduce: " + reproduce + "\n";
    std::signal(SIGPIPE, SIG_IGN);
    struct sigaction crash {};
    crash.sa_handler = OnCrash;
    sigemptyset(&crash.sa_mask);
    crash.sa_flags = static_cast<int>(SA_RESETHAND);
    for (int sig : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT}) sigaction(sig, &crash, nullptr);
    if (logLevel < 0) {
        hostsim::SetLogSink([](int, const std::string&) {});
    } else {
        hostsim::SetLogLevel(logLevel);
    }

    obdswarm::Checker checker(schedule.faults, bounds);
    checker.SetInstalledVersion(obdbox::BoxOptions{}.upgradedSwTexts.at(1), schedule.boxLinkMs > 0);
    obdswarm::Agreement agreement(schedule.faults);
    obdsim::SessionOptions o;
    o.plugin = plugin;
    o.productType = schedule.productType;
    o.drive = &drive;
    o.alterValues = [&](long long tMs, obdbox::DataItems& items) {
        obdswarm::AlterValues(schedule.faults, tMs, items);
        checker.OnFrame(tMs, items);
        agreement.OnFrame(tMs, items);
        if (trace) std::fprintf(stderr, "[%lld ms] frame, %zu items\n", tMs, items.size());
    };
    o.box = [&](obdbox::BoxOptions& b) {
        b.seed = static_cast<unsigned int>(schedule.seed);
        b.splitGapUs = 0;  // on virtual time every chunk written is a read of its own
        b.linkPeriodMs = schedule.boxLinkMs;
        b.faultSchedule = [&schedule](double ms) {
            return obdswarm::BoxFaults(schedule.faults, ms);
        };
        b.onInstalled = [&checker] { checker.OnBoxInstalled(hostsim::ClockNowMs()); };
    };
    o.sixAxisHeld = [&schedule](long long tMs) {
        return obdswarm::InertialHeld(schedule.faults, tMs);
    };
    // Samples between the plug-in's cycles, so that the alarms' copy knows their order.
    o.sixAxisPhaseMs = 50;
    o.sixAxisTap = [&agreement](long long tMs, const tagSixAxisOrgData& sample) {
        agreement.OnSixAxis(tMs, sample);
    };
    o.onBus = [&checker, &agreement, trace](const hostsim::BusMessage& m) {
        checker.OnBus(m);
        agreement.OnBus(m);
        if (trace) {
            std::fprintf(stderr, "[%lld ms] %s %d, %zu bytes\n", m.tMs,
                         m.response ? "response" : "send", m.id, m.payload.size());
        }
    };

    // The last resort for a hang: host time that stands for minutes of real time.
    // It wakes at once when the run ends: a short run (a shrinker's candidate) waits for nothing.
    std::mutex doneMutex;
    std::condition_variable doneCv;
    bool done = false;
    std::thread watchdog([&] {
        long long seen = -1;
        auto since = std::chrono::steady_clock::now();
        std::unique_lock<std::mutex> lock(doneMutex);
        while (!doneCv.wait_for(lock, std::chrono::milliseconds(200), [&] { return done; })) {
            const long long now = hostsim::ClockNowMs();
            if (now != seen) {
                seen = now;
                since = std::chrono::steady_clock::now();
            } else if (std::chrono::steady_clock::now() - since > std::chrono::seconds(hangS)) {
                const std::string line = head + "VIOLATION hang at " + obdswarm::Clock(now) +
                                         ": host time stood for " + std::to_string(hangS) +
                                         " s of real time; reproduce: " + reproduce + "\n";
                WriteAll(g_outFd, line.data(), line.size());
                ::_exit(kViolation);
            }
        }
    });

    int status = 0;
    {
        obdsim::Session session(o);
        std::string error;
        if (!session.Start(error)) {
            status = Fail(error, 1);
        } else {
            // A plug-in without the exported analyser (a host's stand-in) runs all the same.
            if (!agreement.Load(plugin, error)) {
                std::fprintf(stderr,
                             "obd-swarm: alarms not compared with a reference analyser: %s\n",
                             error.c_str());
            }
            size_t next = 0, nextFile = 0;
            long long nextMemoryMs = 0;
            // The date runs from a fixed day, so that a run does not depend on when it ran.
            hostsim::ClockSetWallStart(obdswarm::DateMs(schedule.faults, hostsim::ClockNowMs()));
            size_t nextClock = 0;
            const long long reached = session.RunUntil(endMs, kStepMs, [&](long long now) {
                g_hostMs = now;
                std::vector<const obdswarm::Fault*> stalls;
                for (; nextClock < clocks.size() && clocks[nextClock]->startMs <= now;
                     ++nextClock) {
                    const obdswarm::Fault& f = *clocks[nextClock];
                    if (f.kind == obdswarm::FaultKind::Stall) {
                        stalls.push_back(&f);
                    } else {
                        hostsim::ClockSetWallStart(obdswarm::DateMs(schedule.faults, now));
                    }
                    if (trace) {
                        std::fprintf(stderr, "[%lld ms] %s %s\n", now, obdswarm::FaultName(f.kind),
                                     f.kind == obdswarm::FaultKind::Stall
                                         ? ("to " + std::to_string(f.endMs) + " ms").c_str()
                                         : (std::to_string(f.b) + " s").c_str());
                    }
                }
                checker.OnFileSeen(now, ::access(upgradeFile.c_str(), F_OK) == 0);
                // The file is written just before the trigger of the same instant.
                while (nextFile < files.size() && files[nextFile].tMs <= now) {
                    const obdswarm::FileAction& a = files[nextFile++];
                    if (a.present) {
                        std::ofstream file(upgradeFile, std::ios::binary | std::ios::trunc);
                        file.write(reinterpret_cast<const char*>(a.bytes.data()),
                                   static_cast<std::streamsize>(a.bytes.size()));
                    } else {
                        ::unlink(upgradeFile.c_str());
                    }
                    if (trace) {
                        std::fprintf(stderr, "[%lld ms] upgrade file %s, %zu bytes\n", now,
                                     a.present ? "written" : "removed", a.bytes.size());
                    }
                    checker.OnUpgradeFile(now, a.present);
                }
                while (next < inbound.size() && inbound[next].tMs <= now) {
                    if (trace) {
                        std::fprintf(stderr, "[%lld ms] inject %d, %zu bytes\n", now,
                                     inbound[next].id, inbound[next].payload.size());
                    }
                    checker.OnInject(now, inbound[next].id, inbound[next].payload.size());
                    agreement.OnInject(now, inbound[next].id, inbound[next].payload);
                    hostsim::BusInject(inbound[next].id, inbound[next].payload);
                    ++next;
                }
                checker.Step(now);
                if (now >= nextMemoryMs) {
                    checker.OnMemory(now, RssKb());
                    nextMemoryMs = now + kMemoryEveryMs;
                }
                // Last, so that everything above happened at `now`: the host stands still until
                // the stall's end and then every thread finds its time long past.
                for (const obdswarm::Fault* f : stalls) {
                    const long long at = hostsim::ClockNowMs();
                    if (f->endMs > at) hostsim::ClockAdvance(f->endMs - at);
                }
                return !checker.Failed() && !agreement.Failed();
            });
            if (!checker.Failed()) checker.Step(reached);
            const long long took = session.Release();
            checker.OnRelease(reached, took);
            checker.OnEnd(endMs, reached);
        }
        session.Stop();
    }
    {
        std::lock_guard<std::mutex> lock(doneMutex);
        done = true;
    }
    doneCv.notify_one();
    watchdog.join();
    if (status != 0) return status;

    obdswarm::Violation v = checker.First();
    const obdswarm::Violation a = agreement.First();
    if (!a.name.empty() && (v.name.empty() || a.tMs < v.tMs)) v = a;
    if (json) {
        nlohmann::ordered_json j;
        j["seed"] = schedule.seed;
        j["hours"] = schedule.hours;
        j["vehicle_s"] = drivenS;
        j["mode"] = mode;
        j["box_link_ms"] = schedule.boxLinkMs;
        j["faults"] = byKind;
        j["alarms_compared"] = agreement.Compared();
        const obdswarm::UpgradeTally t = checker.Tally();
        j["upgrades"] = {{"succeeded", t.succeeded},
                         {"failed", t.failed},
                         {"longest_ms", t.longestUpgradeMs},
                         {"new_version_longest_ms", t.longestVersionMs}};
        j["calibrations"] = {{"answers", t.calibrationAnswers},
                             {"longest_ms", t.longestCalibrationMs}};
        j["result"] = v.name.empty() ? "ok" : "violation";
        if (!v.name.empty()) {
            j["invariant"] = v.name;
            j["t_ms"] = v.tMs;
            j["message"] = v.message;
        }
        j["bounds"] = obdswarm::BoundValues(bounds);
        j["reproduce"] = reproduce;
        std::fprintf(out, "%s\n", j.dump().c_str());
    } else if (v.name.empty()) {
        std::fprintf(out, "%sok; reproduce: %s\n", head.c_str(), reproduce.c_str());
    } else {
        std::fprintf(out, "%sVIOLATION %s at %s: %s; reproduce: %s\n", head.c_str(), v.name.c_str(),
                     obdswarm::Clock(v.tMs).c_str(), v.message.c_str(), reproduce.c_str());
    }
    std::fclose(out);
    return v.name.empty() ? 0 : kViolation;
}

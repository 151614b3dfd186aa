#include "Shrink.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>

extern char** environ;

namespace obdswarm {

const std::vector<std::pair<const char*, long long Bounds::*>>& BoundFields() {
    static const std::vector<std::pair<const char*, long long Bounds::*>> fields = {
        {"broadcast-period", &Bounds::periodMs},
        {"broadcast-slack", &Bounds::slackMs},
        {"first-broadcast", &Bounds::firstBroadcastMs},
        {"link-down", &Bounds::linkDownMs},
        {"link-down-early", &Bounds::linkDownEarlyMs},
        {"link-up", &Bounds::linkUpMs},
        {"upgrade-ends", &Bounds::upgradeMs},
        {"upgrade-file", &Bounds::fileSlackMs},
        {"calibration-answered", &Bounds::calibrationMs},
        {"stream-back", &Bounds::streamBackMs},
        {"status-version", &Bounds::versionMs},
        {"status-version-link", &Bounds::versionLinkMs},
        {"release", &Bounds::releaseMs},
        {"memory-warmup", &Bounds::rssWarmupMs},
        {"memory", &Bounds::rssGrowthKb},  // kB, not ms
    };
    return fields;
}

bool SetBound(const std::string& arg, Bounds& b, std::string& error) {
    const size_t eq = arg.find('=');
    const std::string name = arg.substr(0, eq);
    const auto& fields = BoundFields();
    const auto it = std::find_if(fields.begin(), fields.end(),
                                 [&name](const auto& f) { return name == f.first; });
    if (it == fields.end()) {
        std::string names;
        for (const auto& f : fields) names += std::string(names.empty() ? "" : ", ") + f.first;
        error = "--bound: unknown bound '" + name + "' (one of " + names + ")";
        return false;
    }
    const std::string number = eq == std::string::npos ? "" : arg.substr(eq + 1);
    errno = 0;
    char* end = nullptr;
    const long long v = std::strtoll(number.c_str(), &end, 10);
    // Digits only: no sign, no blanks, no suffix; a day of host time at most.
    if (number.empty() || number.find_first_not_of("0123456789") != std::string::npos ||
        errno != 0 || *end != '\0' || v > 86400000) {
        error = "--bound " + name + ": '" + number + "' is no number of 0 to 86400000";
        return false;
    }
    b.*(it->second) = v;
    return true;
}

std::string BoundArgs(const Bounds& b, const Bounds& base) {
    std::string args;
    for (const auto& [name, field] : BoundFields()) {
        if (b.*field != base.*field) {
            args += " --bound " + std::string(name) + "=" + std::to_string(b.*field);
        }
    }
    return args;
}

std::map<std::string, long long> BoundValues(const Bounds& b) {
    std::map<std::string, long long> values;
    for (const auto& [name, field] : BoundFields()) values[name] = b.*field;
    return values;
}

namespace {

constexpr long long kGrainMs = 100;  // fault times stay on the plug-in's cycle

long long DriveMs(const Schedule& s) {
    return static_cast<long long>(s.DriveSeconds() * 1000.0);
}

// Faults that start after the drive's end go; the others end by it.
void ClipFaults(Schedule& s) {
    const long long endMs = DriveMs(s);
    std::vector<Fault> kept;
    for (Fault f : s.faults) {
        if (f.startMs >= endMs) continue;
        f.endMs = std::min(f.endMs, endMs);
        kept.push_back(f);
    }
    s.faults = std::move(kept);
}

std::string Drive(const Schedule& s) {
    return ClockSeconds(DriveMs(s));
}

std::string Count(size_t n, const char* what) {
    return std::to_string(n) + " " + what + (n == 1 ? "" : "s");
}

}  // namespace

Schedule Truncate(const Schedule& s, long long untilMs) {
    const double endS = std::max(1.0, std::ceil(static_cast<double>(untilMs) / 1000.0));
    if (endS >= s.DriveSeconds()) return s;
    Schedule out = s;
    out.phases.clear();
    double t = 0;
    for (const Phase& p : s.phases) {
        if (t >= endS) break;
        Phase q = p;
        q.seconds = std::min(p.seconds, endS - t);
        t += q.seconds;
        out.phases.push_back(q);
    }
    out.hours = endS / 3600.0;
    ClipFaults(out);
    return out;
}

Schedule Resize(const Schedule& s, const std::vector<double>& seconds, bool fromFront) {
    Schedule out = s;
    out.phases.clear();
    // Old phase boundaries, the new start of each phase and what it lost, in ms.
    std::vector<long long> from, to, lost;
    long long oldAt = 0, newAt = 0;
    for (size_t i = 0; i < s.phases.size(); ++i) {
        const double keep = i < seconds.size() ? std::min(seconds[i], s.phases[i].seconds) : 0.0;
        from.push_back(oldAt);
        to.push_back(newAt);
        lost.push_back(std::llround((s.phases[i].seconds - std::max(0.0, keep)) * 1000));
        oldAt += std::llround(s.phases[i].seconds * 1000);
        if (keep <= 0) continue;
        Phase q = s.phases[i];
        q.seconds = keep;
        out.phases.push_back(q);
        newAt += std::llround(keep * 1000);
    }
    if (out.phases.empty()) return s;
    // A time keeps its offset into its phase, as far as the phase still reaches.
    auto move = [&](long long t) {
        for (size_t i = from.size(); i-- > 0;) {
            if (t < from[i]) continue;
            const long long next = i + 1 < to.size() ? to[i + 1] : newAt;
            if (t >= oldAt) return newAt + (t - oldAt);
            const long long offset = t - from[i] - (fromFront ? lost[i] : 0);
            return std::min(to[i] + std::max(0LL, offset), next);
        }
        return t;
    };
    out.faults.clear();
    for (Fault f : s.faults) {
        f.startMs = move(f.startMs);
        f.endMs = move(f.endMs);
        if (f.endMs > f.startMs) out.faults.push_back(f);
    }
    out.hours = static_cast<double>(newAt) / 3600000.0;
    ClipFaults(out);
    return out;
}

std::vector<size_t> Ddmin(size_t n, const std::function<bool(const std::vector<size_t>&)>& fails) {
    std::vector<size_t> current(n);
    for (size_t i = 0; i < n; ++i) current[i] = i;
    if (n == 0) return current;
    if (fails({})) return {};
    size_t parts = 2;
    while (current.size() >= 2) {
        parts = std::min(parts, current.size());
        std::vector<std::vector<size_t>> chunks(parts);
        for (size_t c = 0, at = 0; c < parts; ++c) {
            const size_t size = (current.size() - at) / (parts - c);
            chunks[c].assign(current.begin() + static_cast<long>(at),
                             current.begin() + static_cast<long>(at + size));
            at += size;
        }
        bool reduced = false;
        for (const auto& chunk : chunks) {
            if (fails(chunk)) {
                current = chunk;
                parts = 2;
                reduced = true;
                break;
            }
        }
        // With two parts each complement is the other part, tried already.
        for (size_t c = 0; !reduced && parts > 2 && c < parts; ++c) {
            std::vector<size_t> rest;
            for (size_t d = 0; d < parts; ++d) {
                if (d != c) rest.insert(rest.end(), chunks[d].begin(), chunks[d].end());
            }
            std::sort(rest.begin(), rest.end());
            if (fails(rest)) {
                current = rest;
                parts = std::max<size_t>(parts - 1, 2);
                reduced = true;
            }
        }
        if (!reduced) {
            if (parts >= current.size()) break;
            parts = std::min(parts * 2, current.size());
        }
    }
    return current;
}

ShrinkResult Shrink(const Schedule& s, const Verdict& first, const Judge& judge,
                    const ShrinkOptions& options) {
    ShrinkResult r;
    r.schedule = s;
    r.verdict = first;
    // A candidate met before is not run again: its verdict is known.
    std::map<std::string, Verdict> seen;
    seen.emplace(ToJson(s), first);
    auto attempt = [&](const Schedule& c) {
        const std::string key = ToJson(c);
        auto it = seen.find(key);
        if (it == seen.end()) {
            if (r.runs >= options.maxRuns) {
                r.capped = true;
                return false;
            }
            ++r.runs;
            it = seen.emplace(key, judge(c)).first;
        }
        if (it->second.invariant != first.invariant) return false;
        // The drive goes on for the margin after the violation, as far as the original did.
        const long long want = (it->second.tMs + options.marginMs + 999) / 1000 * 1000;
        if (DriveMs(c) < std::min(DriveMs(s), want)) return false;
        r.schedule = c;
        r.verdict = it->second;
        return true;
    };
    auto log = [&](const std::string& what) {
        if (!options.log) return;
        options.log(what + ": " + Count(r.schedule.faults.size(), "fault") + ", " +
                    Count(r.schedule.phases.size(), "phase") + ", " + Drive(r.schedule) +
                    " of drive; " + r.verdict.invariant + " at " + Clock(r.verdict.tMs));
    };

    bool changed = true;
    while (changed && !r.capped) {
        changed = false;
        // The drive after the violation plays no part in it.
        if (r.verdict.tMs >= 0) {
            const Schedule c = Truncate(r.schedule, r.verdict.tMs + options.marginMs);
            if (DriveMs(c) < DriveMs(r.schedule) && attempt(c)) {
                log("cut the drive after the violation");
                changed = true;
            }
        }
        {
            const Schedule base = r.schedule;
            const auto keep = Ddmin(base.faults.size(), [&](const std::vector<size_t>& subset) {
                Schedule c = base;
                c.faults.clear();
                for (size_t i : subset) c.faults.push_back(base.faults[i]);
                return attempt(c);
            });
            if (keep.size() < base.faults.size()) {
                log("dropped " + Count(base.faults.size() - keep.size(), "fault"));
                changed = true;
            }
        }
        {
            const Schedule base = r.schedule;
            const auto keep = Ddmin(base.phases.size(), [&](const std::vector<size_t>& subset) {
                std::vector<double> seconds(base.phases.size(), 0.0);
                for (size_t i : subset) seconds[i] = base.phases[i].seconds;
                return !subset.empty() && attempt(Resize(base, seconds));
            });
            if (keep.size() < base.phases.size()) {
                log("dropped " + Count(base.phases.size() - keep.size(), "phase"));
                changed = true;
            }
        }
        for (size_t i = 0; i < r.schedule.phases.size() && !r.capped; ++i) {
            while (r.schedule.phases.size() > i && r.schedule.phases[i].seconds >= 2) {
                std::vector<double> seconds;
                for (const Phase& p : r.schedule.phases) seconds.push_back(p.seconds);
                seconds[i] = std::ceil(seconds[i] / 2);
                const bool front = !attempt(Resize(r.schedule, seconds, false));
                if (front && !attempt(Resize(r.schedule, seconds, true))) break;
                log(std::string(front ? "cut the first" : "cut the second") + " half of phase " +
                    std::to_string(i + 1));
                changed = true;
            }
        }
        // Each window from either side, by halves, down to one cycle.
        for (size_t i = 0; i < r.schedule.faults.size() && !r.capped; ++i) {
            auto length = [&] { return r.schedule.faults[i].endMs - r.schedule.faults[i].startMs; };
            long long step = length() / 2 / kGrainMs * kGrainMs;
            while (step >= kGrainMs && i < r.schedule.faults.size() && !r.capped) {
                const Fault before = r.schedule.faults[i];
                Schedule c = r.schedule;
                c.faults[i].startMs += step;
                bool cut = attempt(c);
                // A power-down lasts to the end whatever its window says.
                if (!cut && before.kind != FaultKind::PowerDown) {
                    c = r.schedule;
                    c.faults[i].endMs -= step;
                    cut = attempt(c);
                }
                if (cut) {
                    log(std::string("narrowed ") + FaultName(before.kind) + " " +
                        Clock(before.startMs) + "-" + Clock(before.endMs) + " to " +
                        Clock(r.schedule.faults[i].startMs) + "-" +
                        Clock(r.schedule.faults[i].endMs));
                    changed = true;
                    step = std::min(step, length() / 2 / kGrainMs * kGrainMs);
                } else {
                    step = step / 2 / kGrainMs * kGrainMs;
                }
            }
        }
    }
    return r;
}

namespace {

// The verdict in one result of `--json`, or in the line a crash or a hang writes instead.
Verdict ReadVerdict(const std::string& out) {
    Verdict v;
    const nlohmann::json j = nlohmann::json::parse(out, nullptr, false);
    if (j.is_object() && j.contains("result")) {
        if (j["result"] == "violation" && j.contains("invariant") && j["invariant"].is_string()) {
            v.invariant = j["invariant"].get<std::string>();
            if (j.contains("t_ms") && j["t_ms"].is_number_integer())
                v.tMs = j["t_ms"].get<long long>();
        }
        return v;
    }
    const size_t crash = out.find("VIOLATION crash (");
    const size_t hang = out.find("VIOLATION hang at ");
    if (crash != std::string::npos) {
        v.invariant = "crash";
        const size_t at = out.find("at vehicle second ", crash);
        if (at != std::string::npos) v.tMs = std::atoll(out.c_str() + at + 18) * 1000;
    } else if (hang != std::string::npos) {
        v.invariant = "hang";
        long long h = 0, m = 0, s = 0, ms = 0;
        if (std::sscanf(out.c_str() + hang + 18, "%lld:%lld:%lld.%lld", &h, &m, &s, &ms) == 4) {
            v.tMs = ((h * 60 + m) * 60 + s) * 1000 + ms;
        }
    } else {
        v.judged = false;
    }
    return v;
}

}  // namespace

Judge ChildJudge(std::string program, std::vector<std::string> args, std::string dir) {
    return [program = std::move(program), args = std::move(args),
            dir = std::move(dir)](const Schedule& s) {
        Verdict none;
        none.judged = false;
        const std::string file = dir + "/candidate.json";
        {
            std::ofstream out(file);
            out << ToJson(s);
            if (!out) return none;
        }
        std::vector<std::string> words = {program};
        words.insert(words.end(), args.begin(), args.end());
        for (const char* w : {"--replay", file.c_str(), "--json"}) words.emplace_back(w);
        std::vector<char*> argv;
        argv.reserve(words.size() + 1);
        for (std::string& w : words) argv.push_back(&w[0]);
        argv.push_back(nullptr);

        int pipeFds[2];
        if (::pipe(pipeFds) != 0) return none;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
        // The plug-in's own prints: not the judge's business.
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addclose(&actions, pipeFds[0]);
        posix_spawn_file_actions_addclose(&actions, pipeFds[1]);
        pid_t pid = -1;
        const int spawned =
            posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(pipeFds[1]);
        std::string text;
        char buffer[4096];
        ssize_t n = 0;
        while (spawned == 0 && ((n = ::read(pipeFds[0], buffer, sizeof(buffer))) > 0 ||
                                (n < 0 && errno == EINTR))) {
            if (n > 0) text.append(buffer, static_cast<size_t>(n));
        }
        ::close(pipeFds[0]);
        if (spawned != 0) return none;
        int status = 0;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        return ReadVerdict(text);
    };
}

int ShrinkCommand(const Schedule& s, const ShrinkRequest& q) {
    const std::string boundArgs = BoundArgs(q.bounds, q.base);
    std::vector<std::string> childArgs = {"--plugin", q.plugin, "--hang-s",
                                          std::to_string(q.hangS)};
    for (const auto& [name, field] : BoundFields()) {
        if (q.bounds.*field != q.base.*field) {
            childArgs.emplace_back("--bound");
            childArgs.push_back(std::string(name) + "=" + std::to_string(q.bounds.*field));
        }
    }
    const char* tmp = std::getenv("TMPDIR");
    std::string dir =
        std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/obd-swarm-shrink.XXXXXX";
    if (::mkdtemp(&dir[0]) == nullptr) {
        std::fprintf(stderr, "obd-swarm: cannot make a directory for candidates: %s\n",
                     std::strerror(errno));
        return 1;
    }
    const Judge judge = ChildJudge(q.program, childArgs, dir);
    const std::string head = "seed " + std::to_string(s.seed) + ": ";

    int status = 0;
    const Verdict first = judge(s);
    if (!first.judged) {
        std::fprintf(stderr, "obd-swarm: the run to shrink gave no result; run it alone: %s\n",
                     q.reproduce.c_str());
        status = 1;
    } else if (first.invariant.empty()) {
        std::printf("%sno violation, nothing to shrink; reproduce: %s\n", head.c_str(),
                    q.reproduce.c_str());
    } else {
        std::fprintf(stderr, "obd-swarm: shrink: %s at %s, %s, %s of drive\n",
                     first.invariant.c_str(), Clock(first.tMs).c_str(),
                     Count(s.faults.size(), "fault").c_str(), Drive(s).c_str());
        ShrinkOptions options;
        options.maxRuns = q.maxRuns;
        options.marginMs = q.marginMs;
        options.log = [](const std::string& line) {
            std::fprintf(stderr, "obd-swarm: shrink: %s\n", line.c_str());
        };
        const ShrinkResult r = Shrink(s, first, judge, options);
        nlohmann::ordered_json j = nlohmann::ordered_json::parse(ToJson(r.schedule));
        j["violates"] = r.verdict.invariant;
        j["violates_at_ms"] = r.verdict.tMs;
        j["bounds"] = nlohmann::ordered_json::object();
        for (const auto& [name, field] : BoundFields()) {
            if (q.bounds.*field != q.base.*field) j["bounds"][name] = q.bounds.*field;
        }
        std::ofstream out(q.outFile);
        out << j.dump(1) << "\n";
        out.close();
        if (!out) {
            std::fprintf(stderr, "obd-swarm: cannot write %s\n", q.outFile.c_str());
            status = 1;
        } else {
            std::printf(
                "%s%s shrunk from %s, %s of drive to %s, %s of drive in %d candidate "
                "runs%s; reproduce: obd-swarm --replay %s%s\n",
                head.c_str(), first.invariant.c_str(), Count(s.faults.size(), "fault").c_str(),
                Drive(s).c_str(), Count(r.schedule.faults.size(), "fault").c_str(),
                Drive(r.schedule).c_str(), r.runs,
                r.capped ? " (stopped at the --shrink-runs cap)" : "", q.outFile.c_str(),
                boundArgs.c_str());
            status = 6;
        }
    }
    std::remove((dir + "/candidate.json").c_str());
    ::rmdir(dir.c_str());
    return status;
}

}  // namespace obdswarm

// Cutting a failing swarm run down to the smallest schedule that still breaks the same invariant,
// and the bound overrides that make a run (and every candidate of a shrink) repeatable.
//
// The shrinker never runs the plug-in itself: a Judge runs one candidate schedule and says which
// invariant it broke. The program's judge starts a child process per candidate (only one Session
// may live in a process, and a candidate may crash); the tests give it a fake one.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Invariants.h"
#include "Schedule.h"

namespace obdswarm {

// ---- Bound overrides: `--bound NAME=MS`, named after the invariant each bound belongs to.

// The names in the order they are printed, each with the field it sets.
const std::vector<std::pair<const char*, long long Bounds::*>>& BoundFields();
// Sets one bound from "NAME=VALUE"; false with `error` for an unknown name or a bad number.
bool SetBound(const std::string& arg, Bounds& b, std::string& error);
// " --bound NAME=VALUE" for every bound of `b` that differs from `base`, in BoundFields order.
std::string BoundArgs(const Bounds& b, const Bounds& base = {});
// Every bound by name.
std::map<std::string, long long> BoundValues(const Bounds& b);

// ---- Shrinking.

struct Verdict {
    std::string invariant;  // empty: the run broke none
    long long tMs = -1;     // host time of the violation
    bool judged = true;     // false: the run gave no verdict (it could not start, say)
};
using Judge = std::function<Verdict(const Schedule&)>;

// The schedule cut to a drive that ends at `untilMs` (rounded up to a whole second): the phase
// running then is shortened, later phases and faults starting at or after the end go, and fault
// windows are clipped to the end. A drive that already ends by then is returned unchanged.
Schedule Truncate(const Schedule& s, long long untilMs);

// The schedule with phase i cut to `seconds[i]` (0: gone), its first seconds or, `fromFront`, its
// last. Faults move with the drive: a time keeps its place in its phase as far as the phase still
// holds it (else the nearer end), so a fault stays where it was in what the vehicle does; a window
// left empty goes.
Schedule Resize(const Schedule& s, const std::vector<double>& seconds, bool fromFront = false);

// Delta debugging: a 1-minimal subset of 0..n-1 for which `fails` holds, given that it holds for
// the whole set. Subsets are passed in ascending order; the empty set is tried first.
std::vector<size_t> Ddmin(size_t n, const std::function<bool(const std::vector<size_t>&)>& fails);

struct ShrinkOptions {
    int maxRuns = 300;          // judged candidates, the original run included
    long long marginMs = 2000;  // of drive kept after the violation, if the original had it
    std::function<void(const std::string&)> log;  // one line per accepted cut
};

struct ShrinkResult {
    Schedule schedule;
    Verdict verdict;      // of `schedule`
    int runs = 0;         // candidates judged
    bool capped = false;  // stopped at maxRuns
};

// Cuts `s`, which breaks `first.invariant` at `first.tMs`, as long as the same invariant breaks:
// the drive after the violation, the faults (ddmin), the phases (ddmin, then halving long ones),
// each fault's window; over again until a pass changes nothing. Same input, same result.
ShrinkResult Shrink(const Schedule& s, const Verdict& first, const Judge& judge,
                    const ShrinkOptions& options);

// The program's judge: runs `program` with `args` + "--replay FILE --json" on each candidate,
// written to a file in `dir`, and reads the verdict from its stdout (a crash or a hang line too).
// A child that gives no verdict counts as breaking nothing.
Judge ChildJudge(std::string program, std::vector<std::string> args, std::string dir);

// `obd-swarm --shrink`: judges `s` and shrinks it when it breaks an invariant, through children
// of `program` run with the same plug-in, hang limit and bounds. Writes the result to `outFile`,
// naming the invariant it breaks and the bounds that differ from `base`; reports each accepted
// cut on stderr and the outcome in one stdout line. Returns the exit status: 0 when `s` breaks
// nothing, 6 when it was shrunk, 1 when a run or the file failed.
struct ShrinkRequest {
    std::string program = "/proc/self/exe";
    std::string plugin;
    int hangS = 300;
    Bounds bounds, base;
    std::string reproduce;  // the command that repeats the original run
    std::string outFile;
    int maxRuns = 300;
    long long marginMs = 2000;
};
int ShrinkCommand(const Schedule& s, const ShrinkRequest& q);

}  // namespace obdswarm

// The results table of a swarm: reads the result lines many obd-swarm runs wrote (one file per
// seed from scripts/swarm.sh or a Slurm array, or any files of lines) and sums them up: seeds run,
// vehicle-hours, faults injected by kind, violations by invariant with their seeds and reproduce
// lines, seeds that left no result line, and lines that are no result at all.
//
// A result line is the JSON object of `--json`, or the plain line (a crash or a hang is printed
// as one even under `--json`). A file named by a seed number alone ("17") is that seed's output:
// with no result line in it, the seed counts as one that produced none (killed, or crashed before
// the handler could print). A directory is searched for such files; its other files (the
// runs' ".err" and ".seq" files, parallel's joblog) are not read. Named files are read whatever
// their name. Everything comes out in one order whatever the order of files on disk.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace obdswarm {

struct RunResult {
    uint64_t seed = 0;
    double vehicleS = 0;
    std::string mode;
    std::map<std::string, long long> faults;
    bool ok = true;
    std::string invariant;  // the violation's, empty when ok
    long long tMs = -1;     // when known (JSON lines)
    std::string message;
    std::string reproduce;
    std::string where;  // "file:line"
};

struct SwarmTable {
    std::vector<RunResult> results;                          // by seed, then by where
    std::vector<std::pair<uint64_t, std::string>> noResult;  // seed files without a result
    std::vector<std::string> badLines;                       // "file:line: what"
    long long badLineCount = 0;           // all of them; badLines keeps the first few
    std::vector<std::string> unreadable;  // paths that could not be read
};

// One line into `r`; false (and `why`) when it is no result line.
bool ParseResultLine(const std::string& line, RunResult& r, std::string& why);

SwarmTable ReadTable(const std::vector<std::string>& paths);

std::string FormatTable(const SwarmTable& t);
std::string TableJson(const SwarmTable& t);

// 0: every seed ran clean; 6: a violation or a seed without a result; 1: nothing to sum up, a
// path that could not be read, or a line that is no result.
int TableStatus(const SwarmTable& t);

// Reads `paths`, prints the table (or its JSON) on stdout and returns TableStatus.
int PrintTable(const std::vector<std::string>& paths, bool json);

}  // namespace obdswarm

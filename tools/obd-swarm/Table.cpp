#include "Table.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>

namespace obdswarm {

namespace {

namespace fs = std::filesystem;

constexpr size_t kMaxLine = 1 << 20;        // a result line is a few hundred bytes
constexpr size_t kBadLinesKept = 10;        // named in the table; all are counted
constexpr size_t kSeedsListed = 20;         // per invariant in the text table; JSON has all
constexpr size_t kReproducesListed = 3;     // per invariant
constexpr uint64_t kMaxCount = 1000000000;  // faults of one kind in one run: far fewer

// A line as it may be shown: its first bytes, anything unprintable as '?'.
std::string Shown(const std::string& line) {
    std::string s = line.substr(0, 60);
    for (char& c : s) {
        if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) >= 0x7F) c = '?';
    }
    return "\"" + s + (line.size() > 60 ? "...\"" : "\"");
}

// Digits only, at most 19 of them (so it fits), into `v`.
bool Digits(const std::string& s, uint64_t& v) {
    if (s.empty() || s.size() > 19) return false;
    v = 0;
    for (char c : s) {
        if (c < '0' || c > '9') return false;
        v = v * 10 + static_cast<uint64_t>(c - '0');
    }
    return true;
}

bool ParseJson(const std::string& line, RunResult& r, std::string& why) {
    const nlohmann::json j = nlohmann::json::parse(line, nullptr, false);
    if (j.is_discarded() || !j.is_object()) {
        why = "not a result line";
        return false;
    }
    auto string = [&j](const char* key, std::string& out) {
        const auto it = j.find(key);
        if (it == j.end() || !it->is_string()) return false;
        out = it->get<std::string>();
        return true;
    };
    const auto seed = j.find("seed");
    if (seed == j.end() || !seed->is_number_unsigned()) {
        why = "no seed";
        return false;
    }
    r.seed = seed->get<uint64_t>();
    const auto vs = j.find("vehicle_s");
    if (vs == j.end() || !vs->is_number() || !std::isfinite(vs->get<double>()) ||
        vs->get<double>() < 0) {
        why = "no vehicle_s";
        return false;
    }
    r.vehicleS = vs->get<double>();
    std::string result;
    if (!string("result", result) || (result != "ok" && result != "violation")) {
        why = "no result";
        return false;
    }
    r.ok = result == "ok";
    string("mode", r.mode);
    string("reproduce", r.reproduce);
    const auto faults = j.find("faults");
    if (faults != j.end()) {
        if (!faults->is_object()) {
            why = "faults not an object";
            return false;
        }
        for (const auto& [kind, n] : faults->items()) {
            if (!n.is_number_unsigned() || n.get<uint64_t>() > kMaxCount) {
                why = "fault count of " + kind + " not a count";
                return false;
            }
            r.faults[kind] = n.get<long long>();
        }
    }
    if (!r.ok) {
        if (!string("invariant", r.invariant) || r.invariant.empty()) {
            why = "a violation without its invariant";
            return false;
        }
        string("message", r.message);
        const auto t = j.find("t_ms");
        if (t != j.end() && t->is_number_integer()) r.tMs = t->get<long long>();
    }
    return true;
}

// "H:MM:SS" (hours of any length, the seconds possibly cut short) into seconds.
bool VehicleTime(const std::string& s, double& seconds) {
    unsigned long long h = 0, m = 0, sec = 0;
    int used = 0;
    if (std::sscanf(s.c_str(), "%llu:%llu:%llu%n", &h, &m, &sec, &used) != 3 ||
        static_cast<size_t>(used) != s.size()) {
        return false;
    }
    seconds =
        static_cast<double>(h) * 3600 + static_cast<double>(m) * 60 + static_cast<double>(sec);
    return true;
}

// The plain line: "seed S: H:MM:SS of vehicle time, MODE, faults KIND N ...: ok; reproduce: CMD"
// or "...: VIOLATION NAME ...; reproduce: CMD".
bool ParseText(const std::string& line, RunResult& r, std::string& why) {
    why = "not a result line";
    const size_t seedEnd = line.find(": ");
    if (line.rfind("seed ", 0) != 0 || seedEnd == std::string::npos ||
        !Digits(line.substr(5, seedEnd - 5), r.seed)) {
        return false;
    }
    const std::string of = " of vehicle time, ";
    const size_t timeEnd = line.find(of, seedEnd);
    const size_t modeEnd = line.find(", faults ", timeEnd == std::string::npos ? 0 : timeEnd);
    const size_t faultsEnd = line.find(": ", modeEnd == std::string::npos ? 0 : modeEnd);
    const std::string rep = "; reproduce: ";
    const size_t repAt = line.rfind(rep);
    if (timeEnd == std::string::npos || modeEnd == std::string::npos ||
        faultsEnd == std::string::npos || repAt == std::string::npos || repAt < faultsEnd ||
        !VehicleTime(line.substr(seedEnd + 2, timeEnd - seedEnd - 2), r.vehicleS)) {
        return false;
    }
    r.mode = line.substr(timeEnd + of.size(), modeEnd - timeEnd - of.size());
    const std::string faults = line.substr(modeEnd + 9, faultsEnd - modeEnd - 9);
    if (faults != "none") {
        size_t at = 0;
        while (at < faults.size()) {
            const size_t sp = faults.find(' ', at);
            const size_t end =
                sp == std::string::npos ? std::string::npos : faults.find(' ', sp + 1);
            uint64_t n = 0;
            if (sp == std::string::npos ||
                !Digits(faults.substr(sp + 1, end == std::string::npos ? end : end - sp - 1), n) ||
                n > kMaxCount) {
                why = "fault counts unreadable";
                return false;
            }
            r.faults[faults.substr(at, sp - at)] += static_cast<long long>(n);
            at = end == std::string::npos ? faults.size() : end + 1;
        }
    }
    const std::string status = line.substr(faultsEnd + 2, repAt - faultsEnd - 2);
    r.reproduce = line.substr(repAt + rep.size());
    if (status == "ok") {
        r.ok = true;
        return true;
    }
    if (status.rfind("VIOLATION ", 0) != 0) return false;
    const size_t nameEnd = status.find_first_of(" (", 10);
    r.ok = false;
    r.invariant = status.substr(10, nameEnd == std::string::npos ? nameEnd : nameEnd - 10);
    r.message = nameEnd == std::string::npos ? "" : status.substr(nameEnd + 1);
    if (r.invariant.empty()) {
        why = "a violation without its invariant";
        return false;
    }
    return true;
}

void ReadFile(const std::string& path, bool seedFile, uint64_t seed, SwarmTable& t) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        t.unreadable.push_back(path);
        return;
    }
    std::string line;
    long long number = 0;
    bool any = false;
    while (std::getline(in, line)) {
        ++number;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.find_first_not_of(" \t") == std::string::npos) continue;
        RunResult r;
        std::string why;
        const bool ok = line.size() <= kMaxLine &&
                        (line[0] == '{' ? ParseJson(line, r, why) : ParseText(line, r, why));
        if (line.size() > kMaxLine) why = "a line of " + std::to_string(line.size()) + " bytes";
        if (!ok) {
            if (t.badLines.size() < kBadLinesKept) {
                std::string named = path;
                named += ":" + std::to_string(number) + ": " + why + ": " + Shown(line);
                t.badLines.push_back(std::move(named));
            }
            ++t.badLineCount;
            continue;
        }
        any = true;
        r.where = path + ":" + std::to_string(number);
        t.results.push_back(std::move(r));
    }
    if (seedFile && !any) t.noResult.emplace_back(seed, path);
}

struct Violations {
    std::map<std::string, std::vector<const RunResult*>> byInvariant;
};

Violations Group(const SwarmTable& t) {
    Violations v;
    for (const RunResult& r : t.results) {
        if (!r.ok) v.byInvariant[r.invariant].push_back(&r);
    }
    return v;
}

struct Totals {
    double vehicleS = 0;
    std::map<std::string, long long> faults, modes;
    long long faultCount = 0, violated = 0;
};

Totals Sum(const SwarmTable& t) {
    Totals s;
    for (const RunResult& r : t.results) {
        s.vehicleS += r.vehicleS;
        if (!r.mode.empty()) ++s.modes[r.mode];
        for (const auto& [kind, n] : r.faults) {
            s.faults[kind] += n;
            s.faultCount += n;
        }
        if (!r.ok) ++s.violated;
    }
    return s;
}

std::string Seeds(long long n) {
    return std::to_string(n) + (n == 1 ? " seed" : " seeds");
}

}  // namespace

bool ParseResultLine(const std::string& line, RunResult& r, std::string& why) {
    r = RunResult{};
    const bool ok =
        !line.empty() && line[0] == '{' ? ParseJson(line, r, why) : ParseText(line, r, why);
    if (!ok) r = RunResult{};
    return ok;
}

SwarmTable ReadTable(const std::vector<std::string>& paths) {
    SwarmTable t;
    std::vector<std::string> files;  // every file to read, with whether it is a seed's
    std::set<std::string> seen;
    for (const std::string& p : paths) {
        std::error_code ec;
        if (fs::is_directory(p, ec)) {
            std::vector<std::string> found;
            for (fs::recursive_directory_iterator
                     it(p, fs::directory_options::skip_permission_denied, ec),
                 end;
                 !ec && it != end; it.increment(ec)) {
                uint64_t seed = 0;
                std::error_code fec;
                if (it->is_regular_file(fec) && Digits(it->path().filename().string(), seed)) {
                    found.push_back(it->path().string());
                }
            }
            if (ec) t.unreadable.push_back(p + " (" + ec.message() + ")");
            std::sort(found.begin(), found.end());
            for (auto& f : found) {
                if (seen.insert(f).second) files.push_back(f);
            }
        } else if (fs::is_regular_file(p, ec)) {
            if (seen.insert(p).second) files.push_back(p);
        } else {
            t.unreadable.push_back(p);
        }
    }
    for (const std::string& f : files) {
        uint64_t seed = 0;
        const bool seedFile = Digits(fs::path(f).filename().string(), seed);
        ReadFile(f, seedFile, seed, t);
    }
    std::stable_sort(t.results.begin(), t.results.end(),
                     [](const RunResult& a, const RunResult& b) { return a.seed < b.seed; });
    std::stable_sort(t.noResult.begin(), t.noResult.end());
    return t;
}

int TableStatus(const SwarmTable& t) {
    for (const RunResult& r : t.results) {
        if (!r.ok) return 6;
    }
    if (!t.noResult.empty()) return 6;
    if (t.results.empty() || !t.unreadable.empty() || t.badLineCount > 0) return 1;
    return 0;
}

std::string FormatTable(const SwarmTable& t) {
    const Totals s = Sum(t);
    const Violations v = Group(t);
    size_t width = 18;
    for (const auto& [kind, n] : s.faults) width = std::max(width, kind.size() + 4);
    for (const auto& [name, rs] : v.byInvariant) width = std::max(width, name.size() + 4);
    std::string out;
    auto row = [&out, width](const std::string& label, const std::string& value) {
        out += label + std::string(width - std::min(width, label.size()), ' ') + value + "\n";
    };
    std::string modes;
    for (const auto& [mode, n] : s.modes) {
        modes += (modes.empty() ? "  (" : ", ") + mode + " " + std::to_string(n);
    }
    row("seeds run", std::to_string(t.results.size()) + (modes.empty() ? "" : modes + ")"));
    char hours[32];
    std::snprintf(hours, sizeof(hours), "%.2f", s.vehicleS / 3600.0);
    row("vehicle-hours", hours);
    row("faults injected", std::to_string(s.faultCount));
    for (const auto& [kind, n] : s.faults) row("  " + kind, std::to_string(n));
    row("violations", s.violated == 0 ? "none" : Seeds(s.violated));
    for (const auto& [name, rs] : v.byInvariant) {
        std::string seeds;
        for (size_t i = 0; i < rs.size() && i < kSeedsListed; ++i) {
            seeds += (i == 0 ? "" : " ") + std::to_string(rs[i]->seed);
        }
        if (rs.size() > kSeedsListed) {
            seeds += " ... (" + std::to_string(rs.size() - kSeedsListed) + " more)";
        }
        row("  " + name, Seeds(static_cast<long long>(rs.size())) + ": " + seeds);
        for (size_t i = 0; i < rs.size() && i < kReproducesListed; ++i) {
            row("", rs[i]->reproduce.empty() ? rs[i]->where : rs[i]->reproduce);
        }
    }
    if (!t.noResult.empty()) {
        row("no result line", Seeds(static_cast<long long>(t.noResult.size())));
        for (const auto& [seed, file] : t.noResult) row("  " + std::to_string(seed), file);
    }
    if (t.badLineCount > 0) {
        row("bad lines", std::to_string(t.badLineCount));
        for (const std::string& b : t.badLines) row("", b);
    }
    for (const std::string& u : t.unreadable) row("unreadable", u);
    switch (TableStatus(t)) {
        case 0:
            out += "all " + Seeds(static_cast<long long>(t.results.size())) + " ran clean\n";
            break;
        case 6:
            out += "FAILED: " + std::to_string(s.violated) + " violated, " +
                   std::to_string(t.noResult.size()) + " without a result\n";
            break;
        default:
            out += t.results.empty() ? "no result lines found\n" : "input not all readable\n";
            break;
    }
    return out;
}

std::string TableJson(const SwarmTable& t) {
    const Totals s = Sum(t);
    nlohmann::ordered_json j;
    j["seeds_run"] = t.results.size();
    j["vehicle_s"] = s.vehicleS;
    j["vehicle_hours"] = s.vehicleS / 3600.0;
    j["modes"] = s.modes;
    j["faults"] = s.faults;
    j["violations"] = nlohmann::ordered_json::object();
    for (const auto& [name, rs] : Group(t).byInvariant) {
        auto& list = j["violations"][name];
        for (const RunResult* r : rs) {
            list.push_back({{"seed", r->seed},
                            {"t_ms", r->tMs >= 0 ? nlohmann::ordered_json(r->tMs) : nullptr},
                            {"message", r->message},
                            {"reproduce", r->reproduce},
                            {"where", r->where}});
        }
    }
    j["no_result"] = nlohmann::ordered_json::array();
    for (const auto& [seed, file] : t.noResult)
        j["no_result"].push_back({{"seed", seed}, {"file", file}});
    j["bad_lines"] = t.badLineCount;
    j["bad_line_examples"] = t.badLines;
    j["unreadable"] = t.unreadable;
    j["status"] = TableStatus(t);
    // Bytes of bad input are shown as '?', so the dump cannot meet invalid UTF-8 from there; a
    // path or message may still carry some.
    return j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

int PrintTable(const std::vector<std::string>& paths, bool json) {
    const SwarmTable t = ReadTable(paths);
    const std::string text = json ? TableJson(t) : FormatTable(t);
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
    return TableStatus(t);
}

}  // namespace obdswarm

#include "Fleet.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>

#include "ObdNames.h"

namespace obdfleet {
namespace {

// Rates per 100 km of trips shorter than this would be noise.
constexpr double kMinKmForRate = 0.5;

std::string Slurp(const std::string& path, bool& ok) {
    std::ifstream in(path, std::ios::binary);
    ok = static_cast<bool>(in);
    std::stringstream s;
    if (ok) s << in.rdbuf();
    return s.str();
}

double Round(double v, double unit) {
    return std::round(v / unit) * unit;
}

double Number(const Json& j, const char* key) {
    return j.is_object() && j.contains(key) && j[key].is_number() ? j[key].get<double>() : 0.0;
}

// The last line of the job's stderr (obd-sim's, or the script's own), without its tag.
std::string Reason(const std::string& err) {
    std::istringstream in(err);
    std::string line, last;
    while (std::getline(in, line)) {
        if (line.find_first_not_of(" \t\r") != std::string::npos) last = line;
    }
    for (const std::string prefix : {"obd-sim: ", "fleet: "}) {
        if (last.compare(0, prefix.size(), prefix) == 0) last.erase(0, prefix.size());
    }
    return last;
}

// Count, seconds, count per 100 km and share of the trip's time (%) of each kind in `alarms`.
Json Tally(const Json& alarms, double km, double vehicleS, bool everyKind) {
    Json out = Json::object();
    for (int k = 0; k < obdsim::kAlarmCount; ++k) {
        const char* key = obdsim::Alarm(k).key;
        int n = 0;
        double s = 0;
        if (alarms.is_array()) {
            for (const Json& a : alarms) {
                if (!a.is_object() || !a.contains("key") || a["key"] != key) continue;
                ++n;
                s += Number(a, "duration_s");
            }
        }
        if (n == 0 && !everyKind) continue;
        out[key] = {{"n", n},
                    {"s", s},
                    {"per100km", km >= kMinKmForRate ? Json(Round(n * 100.0 / km, 0.01)) : Json()},
                    {"pct", vehicleS > 0 ? Json(Round(100.0 * s / vehicleS, 0.01)) : Json()}};
    }
    return out;
}

bool IsDate(const std::string& d) {
    const int y = std::stoi(d.substr(0, 4)), m = std::stoi(d.substr(4, 2)),
              day = std::stoi(d.substr(6, 2));
    return y >= 1990 && y <= 2099 && m >= 1 && m <= 12 && day >= 1 && day <= 31;
}

std::string Cell(const Json& v) {
    if (v.is_null()) return "";
    if (v.is_string()) {
        std::string s = v.get<std::string>();
        if (s.find_first_of(",\"\n\r") == std::string::npos) return s;
        std::string q = "\"";
        for (char c : s) q += c == '"' ? std::string("\"\"") : std::string(1, c);
        return q + "\"";
    }
    if (v.is_number_float()) {
        char t[32];
        std::snprintf(t, sizeof(t), "%.6g", v.get<double>());
        return t;
    }
    return v.dump();
}

const char* kLinkKeys[] = {"frames_from_box", "bad_checksum", "cut_off",    "garbage_bytes",
                           "commands_sent",   "retries",      "unanswered", "stream_gaps",
                           "longest_gap_s",   "link_up_s"};

}  // namespace

Place PlaceOf(const std::string& relativePath) {
    Place p;
    const size_t slash = relativePath.find('/');
    p.driver = slash == std::string::npos ? "-" : relativePath.substr(0, slash);
    for (size_t i = 0; i + 8 <= relativePath.size(); ++i) {
        const std::string d = relativePath.substr(i, 8);
        const bool digits =
            std::all_of(d.begin(), d.end(), [](char c) { return c >= '0' && c <= '9'; });
        const bool alone =
            (i == 0 || !std::isdigit(static_cast<unsigned char>(relativePath[i - 1]))) &&
            (i + 8 == relativePath.size() ||
             !std::isdigit(static_cast<unsigned char>(relativePath[i + 8])));
        if (digits && alone && IsDate(d)) {
            p.date = d.substr(0, 4) + "-" + d.substr(4, 2) + "-" + d.substr(6, 2);
            break;
        }
    }
    return p;
}

std::string TripId(const std::string& relativePath) {
    std::string id;
    for (char c : relativePath) id += c == '/' ? std::string("__") : std::string(1, c);
    if (id.size() > 4 && id.compare(id.size() - 4, 4, ".csv") == 0) id.resize(id.size() - 4);
    return id;
}

Json TripRow(const TripResult& t) {
    const Place place = PlaceOf(t.file);
    Json row;
    row["trip"] = t.id;
    row["file"] = t.file;
    row["driver"] = place.driver;
    row["date"] = place.date;
    const Json& s = t.summary;
    const bool haveSummary = s.is_object() && s.contains("alarms");
    std::string status, reason;
    if (t.status < 0) {
        status = "not run";
        reason = "no finished run in the job log";
    } else if (t.status == 0 && haveSummary) {
        status = "ok";
    } else if (t.status == 3 && haveSummary) {
        status = "misbehaved";
        reason = s.contains("problems") && s["problems"].is_array() && !s["problems"].empty() &&
                         s["problems"][0].is_string()
                     ? s["problems"][0].get<std::string>()
                     : Reason(t.err);
    } else if (t.status == 6 && haveSummary && s.contains("replay") && s["replay"].is_object()) {
        // A capture whose plug-in now does other than it recorded: the trip's analysis is still
        // the replay's, and the first difference says where to look.
        status = "diverged";
        const Json& r = s["replay"];
        reason = "replay diverged";
        if (r.contains("first") && r["first"].is_string()) {
            reason += " at " + r["first"].get<std::string>();
        }
    } else {
        status = "failed";
        reason = Reason(t.err);
        if (reason.empty()) reason = "obd-sim ended with status " + std::to_string(t.status);
    }
    row["status"] = status;
    row["reason"] = reason;
    const Json stat = haveSummary && s.contains("statistics") ? s["statistics"] : Json();
    const double vehicleS = haveSummary ? Number(s, "vehicle_s") : 0.0;
    const double km = Number(stat, "distance_km");
    row["vehicle_h"] = haveSummary ? Json(Round(vehicleS / 3600.0, 0.001)) : Json();
    row["km"] = stat.is_object() ? Json(Round(km, 0.01)) : Json();
    row["drive_h"] =
        stat.is_object() ? Json(Round(Number(stat, "drive_s") / 3600.0, 0.001)) : Json();
    row["idle_h"] = stat.is_object() ? Json(Round(Number(stat, "idle_s") / 3600.0, 0.001)) : Json();
    row["fuel_l"] = stat.is_object() ? Json(Round(Number(stat, "fuel_l"), 0.001)) : Json();
    row["alarms"] = haveSummary ? Tally(s["alarms"], km, vehicleS, true) : Json::object();
    Json whatIf = Json::object();
    if (haveSummary && s.contains("what_if") && s["what_if"].is_array()) {
        for (const Json& set : s["what_if"]) {
            if (!set.is_object() || !set.contains("name") || !set["name"].is_string()) continue;
            whatIf[set["name"].get<std::string>()] =
                Tally(set.value("alarms", Json::array()), km, vehicleS, false);
        }
    }
    row["what_if"] = whatIf;
    Json link = Json::object();
    const Json l = haveSummary && s.contains("link") ? s["link"] : Json();
    if (l.is_object()) {
        const Json from = l.value("from_box", Json::object());
        const Json cmd = l.value("commands", Json::object());
        const Json ds = l.value("data_stream", Json::object());
        link["frames_from_box"] = Number(from, "frames");
        link["bad_checksum"] = Number(from, "bad_checksum");
        link["cut_off"] = Number(from, "cut_off");
        link["garbage_bytes"] = Number(from, "garbage_bytes");
        link["commands_sent"] = Number(cmd, "sent");
        link["retries"] = Number(cmd, "retries");
        link["unanswered"] = Number(cmd, "unanswered");
        link["stream_gaps"] = Number(ds, "gaps");
        link["longest_gap_s"] = Round(Number(ds, "longest_ms") / 1000.0, 0.1);
    }
    if (haveSummary && s.contains("box") && s["box"].is_object()) {
        link["link_up_s"] = s["box"].value("link_up_s", Json());
    }
    row["link"] = link;
    row["report"] = t.report ? Json("trips/" + t.id + "/report.html") : Json();
    return row;
}

bool ReadFleet(const std::string& folder, Json& fleet, std::string& error) {
    bool ok = false;
    const std::string list = Slurp(folder + "/trips.tsv", ok);
    if (!ok) {
        error = folder + "/trips.tsv: cannot read (not a fleet run's folder?)";
        return false;
    }
    Json rows = Json::array();
    std::set<std::string> sets, kinds;
    std::istringstream in(list);
    std::string line;
    while (std::getline(in, line)) {
        const size_t tab = line.find('\t');
        if (line.empty() || tab == std::string::npos) continue;
        TripResult t;
        t.id = line.substr(0, tab);
        t.file = line.substr(tab + 1);
        const std::string dir = folder + "/trips/" + t.id;
        bool have = false;
        const std::string status = Slurp(dir + "/status", have);
        if (have && !status.empty()) t.status = std::atoi(status.c_str());
        const std::string summary = Slurp(dir + "/summary.json", have);
        if (have) t.summary = Json::parse(summary, nullptr, false);
        if (t.summary.is_discarded()) t.summary = Json();
        t.err = Slurp(dir + "/sim.err", have);
        std::ifstream report(dir + "/report.html");
        t.report = static_cast<bool>(report);
        Json row = TripRow(t);
        for (const auto& [name, tally] : row["what_if"].items()) {
            sets.insert(name);
            for (const auto& kv : tally.items()) kinds.insert(kv.key());
        }
        for (const auto& kv : row["alarms"].items()) {
            if (kv.value()["n"].get<int>() > 0) kinds.insert(kv.key());
        }
        rows.push_back(std::move(row));
    }
    Json kindList = Json::array();
    for (int k = 0; k < obdsim::kAlarmCount; ++k) {
        if (kinds.count(obdsim::Alarm(k).key) != 0) kindList.push_back(obdsim::Alarm(k).key);
    }
    fleet = {{"rows", rows},
             {"sets", Json(std::vector<std::string>(sets.begin(), sets.end()))},
             {"kinds", kindList}};
    return true;
}

std::string FleetCsv(const Json& fleet) {
    std::vector<std::string> head = {"trip",      "file", "driver",  "date",   "status", "reason",
                                     "vehicle_h", "km",   "drive_h", "idle_h", "fuel_l"};
    const char* measures[] = {"n", "s", "per100km", "pct"};
    for (int k = 0; k < obdsim::kAlarmCount; ++k) {
        for (const char* m : measures) head.push_back(std::string(obdsim::Alarm(k).key) + "_" + m);
    }
    for (const Json& set : fleet["sets"]) {
        for (const Json& kind : fleet["kinds"]) {
            for (const char* m : measures) {
                head.push_back(set.get<std::string>() + ":" + kind.get<std::string>() + "_" + m);
            }
        }
    }
    for (const char* l : kLinkKeys) head.push_back(std::string("link_") + l);
    head.push_back("report");
    std::string out;
    for (size_t i = 0; i < head.size(); ++i) out += (i ? "," : "") + Cell(head[i]);
    out += "\n";
    for (const Json& r : fleet["rows"]) {
        std::vector<Json> cells;
        for (size_t i = 0; i < 11; ++i) cells.push_back(r.value(head[i], Json()));
        const bool ran = r["alarms"].contains(obdsim::Alarm(0).key);
        for (int k = 0; k < obdsim::kAlarmCount; ++k) {
            for (const char* m : measures) {
                cells.push_back(ran ? r["alarms"][obdsim::Alarm(k).key][m] : Json());
            }
        }
        for (const Json& set : fleet["sets"]) {
            const std::string name = set.get<std::string>();
            const bool has = r["what_if"].contains(name);
            for (const Json& kind : fleet["kinds"]) {
                const std::string key = kind.get<std::string>();
                for (const char* m : measures) {
                    if (!has) {
                        cells.push_back(Json());
                    } else if (r["what_if"][name].contains(key)) {
                        cells.push_back(r["what_if"][name][key][m]);
                    } else {
                        // A kind the set never raised: none of it, at any rate.
                        const std::string mm = m;
                        cells.push_back(mm == "per100km" && r["alarms"][key]["per100km"].is_null()
                                            ? Json()
                                        : mm == "pct" && r["vehicle_h"].is_null() ? Json()
                                                                                  : Json(0));
                    }
                }
            }
        }
        for (const char* l : kLinkKeys) cells.push_back(r["link"].value(l, Json()));
        cells.push_back(r["report"]);
        for (size_t i = 0; i < cells.size(); ++i) out += (i ? "," : "") + Cell(cells[i]);
        out += "\n";
    }
    return out;
}

std::string FleetText(const Json& fleet) {
    std::string t = "trip                                      status       km   hours  alarms\n";
    for (const Json& r : fleet["rows"]) {
        int n = 0;
        for (const auto& kv : r["alarms"].items()) n += kv.value()["n"].get<int>();
        char line[512];
        std::snprintf(line, sizeof(line), "%-40s  %-10s %7.1f %7.2f  %6d%s%s\n",
                      r["trip"].get<std::string>().c_str(), r["status"].get<std::string>().c_str(),
                      Number(r, "km"), Number(r, "vehicle_h"), n,
                      r["reason"].get<std::string>().empty() ? "" : "  ",
                      r["reason"].get<std::string>().c_str());
        t += line;
    }
    return t;
}

}  // namespace obdfleet

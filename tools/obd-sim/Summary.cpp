#include "Summary.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "ObdNames.h"
#include "Reference.h"
#include "Trip.h"

namespace obdsim {
namespace {

// Up to this many alarms are listed one by one; more are shown by kind.
constexpr size_t kListedAlarms = 24;
// A host this far behind has fed the plug-in samples a quarter of a second stale and run its
// seconds late: what the checks then see may be the host's own doing.
constexpr long long kBehindLimitMs = 250;

double Seconds(long long ms) {
    return static_cast<double>(ms) / 1000.0;
}

// Band i holds values above edge i up to edge i+1; the last band has no upper edge.
template <typename Edge>
Json Bands(const Edge* edges, const BandStat_t_* stat, int n) {
    Json bands = Json::array();
    for (int i = 0; i < n; ++i) {
        Json b{{"from", edges[i]}};
        b["to"] = i + 1 < n ? Json(edges[i + 1]) : Json(nullptr);
        b["s"] = stat[i].seconds;
        b["fuel_l"] = Num(stat[i].fuel);
        bands.push_back(b);
    }
    return bands;
}

Json Statistics(const ReferenceAnalyser& ref) {
    GdsStatisticsData_t_ st{};
    EconomyStatisticsData_t_ eco{};
    if (!ref.Statistics(st, eco)) return nullptr;
    const StatisticsThresold_tag_ thr = ref.Thresholds();
    const BaseStatisticsData_t_& b = st.base;
    Json j{{"distance_km", Num(b.mileage1)},
           {"fuel_l", Num(b.fuel1)},
           {"drive_fuel_l", Num(b.driveFuel)},
           {"idle_fuel_l", Num(b.idleFuel)},
           {"idle_alarm_fuel_l", Num(b.idleAlarmFuel)},
           {"run_s", b.runTime},
           {"drive_s", b.driveTime},
           {"idle_s", b.idleTime},
           {"brake_count", b.brakeCount}};
    j["speed_bands"] = Bands(thr.speedBand, st.driving.speedBandStat, 5);
    j["engine_speed_bands"] = Bands(thr.engineSpeedBand, st.driving.engineSpeedBandStat, 8);
    j["accelerator_bands"] = Bands(thr.acceleratorBand, st.driving.acceleratorBandStat, 5);
    Json above = Json::array();
    for (int i = 0; i < 9; ++i) {
        above.push_back(
            {{"above", thr.acceleratorLevel[i]}, {"s", st.driving.acceleratorLevelTime[i]}});
    }
    j["accelerator_above"] = above;
    Json idle = Json::array();
    for (int i = 0; i < 4; ++i) {
        idle.push_back({{"over_min", thr.idleMinuteBand[i]}, {"s", eco.idleOverTime[i]}});
    }
    j["idle_over"] = idle;
    return j;
}

// A table of bands: their edges, then the time and the fuel spent in each.
std::string BandTable(const char* title, const Json& bands, bool withFuel) {
    auto cell = [](std::string text) {
        return text.size() < 11 ? std::string(11 - text.size(), ' ') + text : " " + text;
    };
    std::string head = std::string("  ") + title, time = "    time", fuel = "    fuel (L)";
    head.resize(22, ' ');
    time.resize(22, ' ');
    fuel.resize(22, ' ');
    for (const Json& b : bands) {
        head += cell(b["to"].is_null() ? ">" + b["from"].dump()
                                       : b["from"].dump() + "-" + b["to"].dump());
        time += cell(Dur(b["s"].get<double>()));
        fuel += cell(Fmt("%.2f", b["fuel_l"].get<double>()));
    }
    return head + "\n" + time + "\n" + (withFuel ? fuel + "\n" : "");
}

std::string Level(const Json& alarm) {
    return Alarm(AlarmIndex(alarm["key"].get<std::string>())).graded ? alarm["level"].dump() : "-";
}

std::string Str(const Json& j, const char* key) {
    return j.contains(key) && j[key].is_string() ? j[key].get<std::string>() : std::string();
}

std::string Count(const Json& j, const char* key) {
    return j.contains(key) ? j[key].dump() : std::string("0");
}

std::string LinkText(const Json& link) {
    if (!link.is_object()) return {};
    const Json& to = link["to_box"];
    const Json& from = link["from_box"];
    const Json& cmd = link["commands"];
    const Json& lat = link["latency"];
    const Json& ds = link["data_stream"];
    std::string t = "\nLink (the bytes as the plug-in read and wrote them)\n";
    t += "  frames       to the box " + Count(to, "frames") + ", from the box " +
         Count(from, "frames") + "\n";
    t += "  refused      bad checksum " + Count(from, "bad_checksum") + ", cut off " +
         Count(from, "cut_off") + "; garbage " + Count(from, "garbage_bytes") + " bytes, " +
         Count(from, "resyncs") + " resynchronisations\n";
    t += "  commands     " + Count(cmd, "sent") + " sent, " + Count(cmd, "answered") +
         " answered, " + Count(cmd, "retries") + " retries, " + Count(cmd, "unanswered") +
         " unanswered\n";
    if (lat.contains("median_ms")) {
        t += "  answer time  median " + lat["median_ms"].dump() + " ms, 99th percentile " +
             lat["p99_ms"].dump() + " ms, longest " + lat["max_ms"].dump() + " ms (host time)\n";
    }
    t += "  data stream  " + Count(ds, "frames") + " frames";
    if (ds.contains("period_ms")) {
        t += ", every " + ds["period_ms"].dump() + " ms; " + Count(ds, "gaps") + " gaps, longest " +
             Fmt("%.1f", ds["longest_ms"].get<double>() / 1000.0) + " s";
    }
    return t + "\n";
}

}  // namespace

std::string Fmt(const char* format, double v) {
    char text[64];
    std::snprintf(text, sizeof(text), format, v);
    return text;
}

std::string Dur(double s) {
    return Clock(std::llround(s * 1000.0));
}

Json SummaryJson(const TripLog& trip, const ReferenceAnalyser* reference, const RunFacts& facts) {
    Json j;
    j["kind"] = "summary";
    j["source"] = facts.source;
    const long long endMs = trip.EndMs();
    j["vehicle_s"] = Seconds(endMs);
    j["real_s"] = std::round(facts.realSeconds * 10.0) / 10.0;
    Json alarms = Json::array();
    for (const AlarmEvent& e : trip.Alarms()) {
        alarms.push_back({{"key", Alarm(e.alarm).key},
                          {"title", Alarm(e.alarm).title},
                          {"level", Alarm(e.alarm).graded ? Json(e.level) : Json(nullptr)},
                          {"start_s", Seconds(e.startMs)},
                          {"duration_s", Seconds(e.UntilMs() - e.startMs)},
                          {"active", e.endMs < 0},
                          {"expected", e.expected}});
    }
    j["alarms"] = alarms;
    if (trip.DriveOf() != nullptr && !trip.DriveOf()->Expected().empty()) {
        Json missing = Json::array();
        for (const ExpectedAlarm& e : trip.Missing()) {
            const int a = AlarmIndex(e.key);
            missing.push_back(
                {{"key", e.key},
                 {"title", a >= 0 ? Alarm(a).title : e.key.c_str()},
                 {"level", a >= 0 && !Alarm(a).graded ? Json(nullptr) : Json(e.level)},
                 {"start_s", e.startS}});
        }
        j["missing_alarms"] = missing;
    }
    j["statistics"] =
        reference != nullptr && reference->Loaded() ? Statistics(*reference) : nullptr;
    if (j["statistics"].is_null()) j["statistics_note"] = facts.statisticsNote;
    Json box = trip.Box();
    Json outBox = Json::object();
    for (const char* key : {"version", "engine", "scan_time_level", "data_scan_level"}) {
        if (box.is_object() && box.contains(key)) outBox[key] = box[key];
    }
    const long long up = trip.LinkUpMs();
    outBox["link_up_s"] = up < 0 ? Json(nullptr) : Json(Seconds(up));
    outBox["link_up_at_end"] = box.is_object() && box.value("link_up", false);
    j["box"] = outBox;
    j["link"] = facts.link;
    const std::vector<std::string> problems = trip.Problems();
    j["problems"] = problems;
    j["ok"] = problems.empty();
    j["checked"] = trip.DriveOf() != nullptr;
    j["slack_s"] = Seconds(facts.slackMs + facts.behindMs);
    j["behind_s"] = Seconds(facts.behindMs);
    j["speed"] = facts.speed;
    j["step_s"] = std::round(trip.MeanStepMs()) / 1000.0;
    if (trip.DriveOf() == nullptr) {
        j["verdict"] = "not judged";
        j["unjudged"] =
            facts.unjudged.empty() ? "the checks need the built-in box" : facts.unjudged;
    } else if (!facts.unjudged.empty()) {
        j["verdict"] = "not judged";
        j["unjudged"] = facts.unjudged;
    } else if (problems.empty()) {
        j["verdict"] = "behaved";
    } else if (facts.behindMs > kBehindLimitMs) {
        j["verdict"] = "host behind";
    } else {
        j["verdict"] = "misbehaved";
    }
    return j;
}

std::string SummaryText(const Json& s) {
    std::string t;
    t += "Trip summary: " + Str(s, "source") + ", " + Dur(s["vehicle_s"].get<double>()) +
         " of vehicle time";
    if (s.contains("real_s")) t += " in " + Fmt("%.1f", s["real_s"].get<double>()) + " s";
    t += "\n\n";

    const Json& alarms = s["alarms"];
    if (alarms.empty()) {
        t += "Alarms (the plug-in's alarm broadcasts)\n  none\n";
    } else if (alarms.size() <= kListedAlarms) {
        t += "Alarms (the plug-in's alarm broadcasts)\n";
        t += "  start      duration   level  alarm\n";
        for (const Json& a : alarms) {
            char line[160];
            std::snprintf(line, sizeof(line), "  %-9s  %-9s  %5s  %s%s\n",
                          Dur(a["start_s"].get<double>()).c_str(),
                          Dur(a["duration_s"].get<double>()).c_str(), Level(a).c_str(),
                          a["title"].get<std::string>().c_str(),
                          a["active"].get<bool>() ? " (still on at the end)" : "");
            t += line;
        }
    } else {
        // A long trip's alarms, one line per kind; --summary-json keeps every one.
        t += "Alarms (the plug-in's alarm broadcasts: " + std::to_string(alarms.size()) +
             ", by kind)\n";
        t += "  times  first      longest    in all     level  alarm\n";
        for (int k = 0; k < kAlarmCount; ++k) {
            int times = 0, level = 0;
            double first = -1, longest = 0, total = 0;
            for (const Json& a : alarms) {
                if (a["key"] != Alarm(k).key) continue;
                const double d = a["duration_s"].get<double>();
                if (times++ == 0) first = a["start_s"].get<double>();
                longest = std::max(longest, d);
                total += d;
                if (a["level"].is_number()) level = std::max(level, a["level"].get<int>());
            }
            if (times == 0) continue;
            char line[160];
            std::snprintf(line, sizeof(line), "  %5d  %-9s  %-9s  %-9s  %5s  %s\n", times,
                          Dur(first).c_str(), Dur(longest).c_str(), Dur(total).c_str(),
                          Alarm(k).graded ? std::to_string(level).c_str() : "-", Alarm(k).title);
            t += line;
        }
    }
    if (s.contains("missing_alarms")) {
        for (const Json& m : s["missing_alarms"]) {
            t += "  missing: " + m["title"].get<std::string>() + ", expected at " +
                 Dur(m["start_s"].get<double>()) + "\n";
        }
    }

    t += "\nTrip statistics (reference analyser, same samples as the plug-in)\n";
    const Json& st = s["statistics"];
    if (st.is_null()) {
        t += "  none: " + Str(s, "statistics_note") + "\n";
    } else {
        t += Fmt("  distance            %.2f km\n", st["distance_km"].get<double>());
        if (st["fuel_l"].get<double>() > 0) {
            t += Fmt("  fuel                %.2f L", st["fuel_l"].get<double>()) +
                 Fmt("  (driving %.2f L", st["drive_fuel_l"].get<double>()) +
                 Fmt(", idling %.2f L", st["idle_fuel_l"].get<double>()) +
                 Fmt(", idling past the idling alarm %.2f L)\n",
                     st["idle_alarm_fuel_l"].get<double>());
        } else {
            t += "  fuel                none counted (no fuel reading from the box)\n";
        }
        t += "  time                driving " + Dur(st["drive_s"].get<double>()) + ", idling " +
             Dur(st["idle_s"].get<double>()) + ", engine running " +
             Dur(st["run_s"].get<double>()) + "\n";
        t += "  brake applications  " + st["brake_count"].dump() + "\n";
        const bool fuel = st["fuel_l"].get<double>() > 0;
        t += BandTable("speed (km/h)", st["speed_bands"], fuel);
        t += BandTable("engine speed (rpm)", st["engine_speed_bands"], fuel);
        t += BandTable("accelerator (%)", st["accelerator_bands"], fuel);
        std::string idle = "  idling longer than ";
        for (const Json& i : st["idle_over"]) {
            if (i["over_min"].get<int>() == 0) continue;
            idle += i["over_min"].dump() + " min " + Dur(i["s"].get<double>()) + "   ";
        }
        while (idle.back() == ' ') idle.pop_back();
        t += idle + "\n";
    }

    t += "\nBox\n";
    const Json& box = s["box"];
    if (box.contains("version")) {
        const Json& v = box["version"];
        t += "  hardware   " + Str(v, "hw_name") + ", serial " + Str(v, "serial_number") + ", " +
             Str(v, "hw_version") + ", " + Str(v, "date") + ", type " + Str(v, "device_type") +
             "\n";
        t += "  software   boot " + Str(v, "boot_version") + ", download " +
             Str(v, "download_version") + ", diagnosis " + Str(v, "diag_version") + "\n";
    } else {
        t += "  no device information received\n";
    }
    if (box.contains("engine")) {
        char engine[32];
        std::snprintf(engine, sizeof(engine), "  engine     0x%04X",
                      box["engine"]["id"].get<unsigned>());
        const std::string name = Str(box["engine"], "name");
        t += std::string(engine) + (name.empty() ? "" : " " + name) + "\n";
    }
    if (box["link_up_s"].is_null()) {
        t += "  link       never up\n";
    } else {
        t += "  link       up from " + Dur(box["link_up_s"].get<double>()) +
             (box["link_up_at_end"].get<bool>() ? ", up at the end\n" : ", down at the end\n");
    }

    t += LinkText(s["link"]);

    std::string slack = "timing to within " + Fmt("%.1f", s["slack_s"].get<double>()) + " s";
    const double step = s["step_s"].get<double>();
    if (step > 1.005) {
        slack += "; its 1 s step took " + Fmt("%.3f", step) +
                 " s on average, stretched by late cycles, and an alarm's hold counts its steps";
    }
    const std::string verdict = Str(s, "verdict");
    const std::string behind = Fmt("%.1f", s["behind_s"].get<double>()) + " s of host time";
    if (verdict == "not judged") {
        t += "\nVerdict: not judged (" + Str(s, "unjudged") + ")\n";
        for (const Json& p : s["problems"]) t += "  seen: " + p.get<std::string>() + "\n";
    } else if (verdict == "behaved") {
        t += "\nVerdict: the plug-in behaved (" + slack + ")\n";
    } else if (verdict == "host behind") {
        t += "\nVerdict: not judged: obd-sim fell behind the pace of --speed " + Str(s, "speed") +
             " by up to " + behind +
             ", so what it saw may be its own lag (a busy machine, or a "
             "speed it cannot hold: try a lower --speed, or max)\n";
        for (const Json& p : s["problems"]) t += "  seen: " + p.get<std::string>() + "\n";
    } else {
        t += "\nVerdict: the plug-in MISBEHAVED (" + slack + ")\n";
        for (const Json& p : s["problems"]) t += "  - " + p.get<std::string>() + "\n";
    }
    return t;
}

}  // namespace obdsim

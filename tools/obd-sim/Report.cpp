#include "Report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

#include "Drive.h"
#include "GdsLogicAnalyser.h"
#include "Summary.h"
#include "Trip.h"

extern const char* const kChartJs;  // ChartJs.cpp, generated at build time; null without it

namespace obdsim {

namespace {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr size_t kDrawBuckets = 1500;

float Item(const std::vector<unsigned char>& payload, int index) {
    float v = 0;
    return ItemValue(payload, index, v) ? v : kNaN;
}

std::string Esc(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

// JSON inside a <script> element: "</" would end the element.
std::string ScriptJson(const Json& j) {
    std::string text = j.dump(-1, ' ', false, Json::error_handler_t::replace);
    for (size_t at = 0; (at = text.find("</", at)) != std::string::npos; at += 3) {
        text.replace(at, 2, "<\\/");
    }
    return text;
}

std::string Str(const Json& j, const char* key) {
    if (!j.is_object() || !j.contains(key)) return {};
    return j[key].is_string() ? j[key].get<std::string>() : j[key].dump();
}

std::string Row(std::initializer_list<std::string> cells, const char* tag = "td") {
    std::string r = "<tr>";
    for (const std::string& c : cells) r += std::string("<") + tag + ">" + c + "</" + tag + ">";
    return r + "</tr>\n";
}

std::string AlarmsTable(const Json& summary) {
    const Json& alarms = summary["alarms"];
    std::string t = "<section id=\"alarms\"><h2>Alarms</h2>\n";
    if (alarms.empty()) return t + "<p>No alarm was broadcast.</p></section>\n";
    t += "<p>" + std::to_string(alarms.size()) +
         " alarms, as the plug-in's alarm broadcasts carried them.</p>\n<table>\n";
    t += Row({"start", "duration", "level", "alarm"}, "th");
    for (const Json& a : alarms) {
        const int k = AlarmIndex(a["key"].get<std::string>());
        const bool graded = k >= 0 && Alarm(k).graded;
        t += "<tr data-key=\"" + Esc(a["key"].get<std::string>()) + "\"><td>" +
             Dur(a["start_s"].get<double>()) + "</td><td>" + Dur(a["duration_s"].get<double>()) +
             (a["active"].get<bool>() ? " (on at the end)" : "") + "</td><td>" +
             (graded ? a["level"].dump() : "-") + "</td><td>" + Esc(a["title"].get<std::string>()) +
             "</td></tr>\n";
    }
    if (summary.contains("missing_alarms")) {
        for (const Json& m : summary["missing_alarms"]) {
            t += "<tr class=\"missing\"><td>" + Dur(m["start_s"].get<double>()) +
                 "</td><td>missing</td><td>" + m["level"].dump() + "</td><td>" +
                 Esc(m["title"].get<std::string>()) + "</td></tr>\n";
        }
    }
    return t + "</table></section>\n";
}

std::string Bands(const char* title, const Json& bands, bool fuel) {
    std::string head = "<tr><th>" + std::string(title) + "</th>";
    std::string time = "<tr><td>time</td>";
    std::string litres = "<tr><td>fuel (L)</td>";
    for (const Json& b : bands) {
        head += "<th>" +
                (b["to"].is_null() ? "&gt;" + b["from"].dump()
                                   : b["from"].dump() + "-" + b["to"].dump()) +
                "</th>";
        time += "<td>" + Dur(b["s"].get<double>()) + "</td>";
        litres += "<td>" + Fmt("%.2f", b["fuel_l"].get<double>()) + "</td>";
    }
    return "<table class=\"bands\">\n" + head + "</tr>\n" + time + "</tr>\n" +
           (fuel ? litres + "</tr>\n" : "") + "</table>\n";
}

std::string StatisticsTables(const Json& summary) {
    std::string t = "<section id=\"statistics\"><h2>Trip statistics</h2>\n";
    const Json& st = summary["statistics"];
    if (st.is_null())
        return t + "<p>None: " + Esc(Str(summary, "statistics_note")) + "</p></section>\n";
    const bool fuel = st["fuel_l"].get<double>() > 0;
    t += "<table>\n";
    t += "<tr><td>distance</td><td><span id=\"distance\">" +
         Fmt("%.2f", st["distance_km"].get<double>()) + "</span> km</td></tr>\n";
    t += Row({"fuel", fuel ? Fmt("%.2f L", st["fuel_l"].get<double>()) +
                                 Fmt(" (driving %.2f L", st["drive_fuel_l"].get<double>()) +
                                 Fmt(", idling %.2f L", st["idle_fuel_l"].get<double>()) +
                                 Fmt(", idling past the idling alarm %.2f L)",
                                     st["idle_alarm_fuel_l"].get<double>())
                           : "none counted (no fuel reading from the box)"});
    t += Row({"time", "driving " + Dur(st["drive_s"].get<double>()) + ", idling " +
                          Dur(st["idle_s"].get<double>()) + ", engine running " +
                          Dur(st["run_s"].get<double>())});
    t += Row({"brake applications", st["brake_count"].dump()});
    std::string idle;
    for (const Json& i : st["idle_over"]) {
        if (i["over_min"].get<int>() == 0) continue;
        idle += (idle.empty() ? "" : ", ") + i["over_min"].dump() +
                " min: " + Dur(i["s"].get<double>());
    }
    t += Row({"idling longer than", idle});
    t += "</table>\n";
    t += Bands("speed (km/h)", st["speed_bands"], fuel);
    t += Bands("engine speed (rpm)", st["engine_speed_bands"], fuel);
    t += Bands("accelerator (%)", st["accelerator_bands"], fuel);
    return t +
           "<p class=\"note\">From a reference analyser fed the same samples as the "
           "plug-in.</p></section>\n";
}

std::string BoxTable(const Json& summary) {
    const Json& box = summary["box"];
    std::string t = "<section id=\"box\"><h2>Box</h2>\n<table>\n";
    if (box.contains("version")) {
        const Json& v = box["version"];
        t += Row({"hardware", Esc(Str(v, "hw_name")) + ", serial " + Esc(Str(v, "serial_number")) +
                                  ", " + Esc(Str(v, "hw_version")) + ", " + Esc(Str(v, "date")) +
                                  ", type " + Esc(Str(v, "device_type"))});
        t += Row({"software", "boot " + Esc(Str(v, "boot_version")) + ", download " +
                                  Esc(Str(v, "download_version")) + ", diagnosis " +
                                  Esc(Str(v, "diag_version"))});
    } else {
        t += Row({"device", "no device information received"});
    }
    if (box.contains("engine")) {
        char id[16];
        std::snprintf(id, sizeof(id), "0x%04X", box["engine"]["id"].get<unsigned>());
        t += Row({"engine", std::string(id) + " " + Esc(Str(box["engine"], "name"))});
    }
    t += Row({"link", box["link_up_s"].is_null()
                          ? std::string("never up")
                          : "up from " + Dur(box["link_up_s"].get<double>()) +
                                (box["link_up_at_end"].get<bool>() ? ", up at the end"
                                                                   : ", down at the end")});
    return t + "</table></section>\n";
}

std::string LinkTable(const Json& summary) {
    const Json& link = summary["link"];
    std::string t = "<section id=\"link\"><h2>Link health</h2>\n";
    if (!link.is_object()) return t + "<p>The line was not seen in this run.</p></section>\n";
    auto n = [](const Json& j, const char* key) {
        return j.contains(key) ? j[key].dump() : std::string("-");
    };
    t += "<table>\n" + Row({"", "to the box", "from the box"}, "th");
    for (const char* key : {"frames", "bad_checksum", "cut_off", "garbage_bytes", "resyncs"}) {
        std::string name = key;
        std::replace(name.begin(), name.end(), '_', ' ');
        t += Row({name, n(link["to_box"], key), n(link["from_box"], key)});
    }
    t += "</table>\n<table>\n";
    const Json& c = link["commands"];
    t += Row({"commands", n(c, "sent") + " sent, " + n(c, "answered") + " answered, " +
                              n(c, "retries") + " retries, " + n(c, "unanswered") + " unanswered"});
    const Json& l = link["latency"];
    if (l.contains("median_ms")) {
        t += Row({"answer time (host)", "median " + n(l, "median_ms") + " ms, 99th percentile " +
                                            n(l, "p99_ms") + " ms, longest " + n(l, "max_ms") +
                                            " ms"});
    }
    const Json& d = link["data_stream"];
    t += Row({"data stream", n(d, "frames") + " frames" +
                                 (d.contains("period_ms")
                                      ? ", every " + n(d, "period_ms") + " ms; " + n(d, "gaps") +
                                            " gaps, longest " + n(d, "longest_ms") + " ms"
                                      : std::string())});
    return t + "</table></section>\n";
}

const char* const kStyle = R"css(
body { font: 14px/1.4 sans-serif; margin: 1.5em; color: #222; max-width: 1400px; }
h1 { font-size: 1.5em; margin-bottom: 0.2em; }
h2 { font-size: 1.15em; margin: 1.2em 0 0.4em; border-bottom: 1px solid #ccc; }
table { border-collapse: collapse; margin: 0.4em 0 0.8em; }
td, th { padding: 2px 10px; text-align: left; border-bottom: 1px solid #eee; }
table.bands td, table.bands th { text-align: right; }
.verdict { font-weight: bold; padding: 4px 8px; display: inline-block; }
.ok { background: #e3f4e3; } .bad { background: #f8dcdc; }
.chart { position: relative; height: 340px; margin-bottom: 0.6em; }
.chart.small { height: 200px; }
tr.missing td { color: #b00; }
.note { color: #666; font-size: 0.9em; }
#legend span { display: inline-block; margin-right: 1em; }
#legend i { display: inline-block; width: 12px; height: 12px; margin-right: 4px; vertical-align: -1px; }
)css";

// Draws the charts from TRIP; leaves the count of painted pixels on <body data-painted>, so that
// a browser test can tell a drawn plot from an empty canvas.
const char* const kScript = R"js(
(function () {
  const palette = ['214,39,40', '255,127,14', '148,103,189', '140,86,75', '227,119,194',
    '188,189,34', '23,190,207', '127,127,127'];
  const kinds = [...new Set(TRIP.alarms.map(a => a.key))];
  const colour = (key, alpha) => 'rgba(' + palette[kinds.indexOf(key) % palette.length] + ',' + alpha + ')';
  const clock = s => { s = Math.round(s); const h = Math.floor(s / 3600), m = Math.floor(s / 60) % 60;
    return h + ':' + String(m).padStart(2, '0') + ':' + String(s % 60).padStart(2, '0'); };
  // The alarms as bands: a faint one behind the lines, and a strip in a lane of its own per kind
  // along the top, so that a trip of hours with long and overlapping alarms stays readable. A
  // short list also gets a label at each band's start.
  const lane = 9;
  const bands = { id: 'alarmBands', beforeDatasetsDraw(chart) {
    const x = chart.scales.x, area = chart.chartArea, g = chart.ctx;
    g.save(); g.font = '11px sans-serif';
    TRIP.alarms.forEach((a, i) => {
      const x0 = Math.max(area.left, x.getPixelForValue(a.start_s));
      const x1 = Math.min(area.right, Math.max(x0 + 2, x.getPixelForValue(a.start_s + a.duration_s)));
      if (x1 <= area.left || x0 >= area.right) return;
      g.fillStyle = colour(a.key, 0.10); g.fillRect(x0, area.top, x1 - x0, area.bottom - area.top);
      g.fillStyle = colour(a.key, 0.85);
      g.fillRect(x0, area.top + lane * kinds.indexOf(a.key), x1 - x0, lane - 2);
      if (TRIP.alarms.length <= 12) {
        g.fillStyle = '#333';
        g.fillText(a.title + (a.level > 1 ? ' ' + a.level : ''), x0 + 2,
                   area.top + lane * kinds.length + 12 + 13 * (i % 4));
      }
    });
    g.restore(); } };
  const series = (name, data, colourLine, axis) => ({ label: name, data: data.map(p => ({ x: p[0], y: p[1] })),
    borderColor: colourLine, backgroundColor: colourLine.replace('rgb', 'rgba').replace(')', ',0.25)'),
    yAxisID: axis, borderWidth: 1.2,
    pointRadius: 0, spanGaps: false });
  const xAxis = { type: 'linear', min: 0, max: TRIP.end_s, title: { display: true, text: 'vehicle time' },
    ticks: { callback: v => clock(v), maxTicksLimit: 16 } };
  const options = axes => ({ animation: false, responsive: true, maintainAspectRatio: false,
    parsing: false, normalized: true, interaction: { mode: 'nearest', axis: 'x', intersect: false },
    plugins: { tooltip: { callbacks: { title: items => clock(items[0].parsed.x) } } },
    scales: Object.assign({ x: xAxis }, axes) });
  const charts = [];
  charts.push(new Chart(document.getElementById('chart-obd'), { type: 'line',
    data: { datasets: [
      series('speed (km/h)', TRIP.series.speed, 'rgb(31,119,180)', 'y'),
      series('coolant (C)', TRIP.series.coolant, 'rgb(44,160,44)', 'y'),
      series('accelerator (%)', TRIP.series.accelerator, 'rgb(255,127,14)', 'y'),
      series('engine speed (rpm)', TRIP.series.engine_speed, 'rgb(214,39,40)', 'rpm')] },
    options: options({ y: { position: 'left', title: { display: true, text: 'km/h, C, %' } },
      rpm: { position: 'right', title: { display: true, text: 'rpm' }, grid: { drawOnChartArea: false } } }),
    plugins: [bands] }));
  if (TRIP.series.acc_g.length > 0) {
    charts.push(new Chart(document.getElementById('chart-motion'), { type: 'line',
      data: { datasets: [
        series('acceleration (g)', TRIP.series.acc_g, 'rgb(148,103,189)', 'y'),
        series('rotation rate (deg/s)', TRIP.series.rot_dps, 'rgb(140,86,75)', 'rot')] },
      options: options({ y: { position: 'left', title: { display: true, text: 'g' } },
        rot: { position: 'right', title: { display: true, text: 'deg/s' }, grid: { drawOnChartArea: false } } }),
      plugins: [bands] }));
  } else {
    document.getElementById('chart-motion').parentNode.style.display = 'none';
  }
  document.getElementById('legend').innerHTML = kinds.map(k => {
    const a = TRIP.alarms.find(x => x.key === k);
    return '<span><i style="background:' + colour(k, 0.85) + '"></i>' + a.title + '</span>';
  }).join('');
  let painted = 0;
  charts.forEach(c => {
    const d = c.ctx.getImageData(0, 0, c.canvas.width, c.canvas.height).data;
    for (let i = 3; i < d.length; i += 4) if (d[i] !== 0) painted++;
  });
  document.body.dataset.painted = painted;
})();
)js";

}  // namespace

void Timeline::OnBus(const hostsim::BusMessage& m) {
    if (m.response || m.id != 6702) return;
    TimelinePoint p;
    p.t = static_cast<double>(m.tMs) / 1000.0;
    p.speed = Item(m.payload, OBD_IDX_SPEED);
    p.engineSpeed = Item(m.payload, OBD_IDX_ENGINE_SPEED);
    p.coolant = Item(m.payload, OBD_IDX_COOLANT_TEMP);
    p.accelerator = Item(m.payload, OBD_IDX_ACCELERATOR);
    p.accG = p.rotDps = kNaN;
    if (m_drive != nullptr && m_drive->HasMotion()) {
        const Motion mo = m_drive->MotionAt(p.t);
        p.accG = std::sqrt(mo.acc[0] * mo.acc[0] + mo.acc[1] * mo.acc[1] + mo.acc[2] * mo.acc[2]);
        p.rotDps = std::sqrt(mo.rot[0] * mo.rot[0] + mo.rot[1] * mo.rot[1] + mo.rot[2] * mo.rot[2]);
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_points.push_back(p);
}

std::vector<TimelinePoint> Timeline::Points() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_points;
}

std::vector<std::pair<double, float>> Thin(const std::vector<TimelinePoint>& points,
                                           float TimelinePoint::*field, size_t buckets) {
    std::vector<std::pair<double, float>> out;
    if (points.empty() || buckets == 0) return out;
    const double t0 = points.front().t;
    const double span = points.back().t - t0;
    if (points.size() <= 2 * buckets || span <= 0) {
        for (const TimelinePoint& p : points) {
            if (!std::isnan(p.*field)) out.emplace_back(p.t, p.*field);
        }
        return out;
    }
    size_t i = 0;
    for (size_t b = 0; b < buckets && i < points.size(); ++b) {
        const double end = t0 + span * static_cast<double>(b + 1) / static_cast<double>(buckets);
        const TimelinePoint* lo = nullptr;
        const TimelinePoint* hi = nullptr;
        for (; i < points.size() && (points[i].t <= end || b + 1 == buckets); ++i) {
            const float v = points[i].*field;
            if (std::isnan(v)) continue;
            if (lo == nullptr || v < lo->*field) lo = &points[i];
            if (hi == nullptr || v > hi->*field) hi = &points[i];
        }
        if (lo == nullptr) continue;
        if (lo->t > hi->t) std::swap(lo, hi);
        out.emplace_back(lo->t, lo->*field);
        if (hi != lo) out.emplace_back(hi->t, hi->*field);
    }
    return out;
}

bool ReportAvailable() {
    return kChartJs != nullptr;
}

std::string ReportHtml(const Json& summary, const std::vector<TimelinePoint>& points,
                       const Json& settings) {
    Json trip;
    trip["end_s"] = summary["vehicle_s"];
    Json alarms = Json::array();
    for (const Json& a : summary["alarms"]) {
        alarms.push_back({{"key", a["key"]},
                          {"title", a["title"]},
                          {"level", a["level"]},
                          {"start_s", a["start_s"]},
                          {"duration_s", a["duration_s"]}});
    }
    trip["alarms"] = alarms;
    const std::pair<const char*, float TimelinePoint::*> fields[] = {
        {"speed", &TimelinePoint::speed},     {"engine_speed", &TimelinePoint::engineSpeed},
        {"coolant", &TimelinePoint::coolant}, {"accelerator", &TimelinePoint::accelerator},
        {"acc_g", &TimelinePoint::accG},      {"rot_dps", &TimelinePoint::rotDps}};
    for (const auto& f : fields) {
        Json s = Json::array();
        for (const auto& p : Thin(points, f.second, kDrawBuckets)) {
            s.push_back({std::round(p.first * 10.0) / 10.0, Num(p.second)});
        }
        trip["series"][f.first] = s;
    }

    const bool ok = summary["ok"].get<bool>();
    const bool checked = summary["checked"].get<bool>();
    std::string verdict = !checked ? "Not judged (the checks need the built-in box)"
                          : ok     ? "The plug-in behaved"
                                   : "The plug-in MISBEHAVED";
    std::string page = "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n";
    page += "<title>Trip report: " + Esc(Str(summary, "source")) + "</title>\n";
    page += "<style>" + std::string(kStyle) + "</style></head>\n<body>\n";
    page += "<h1>Trip report: " + Esc(Str(summary, "source")) + "</h1>\n";
    page += "<p>" + Dur(summary["vehicle_s"].get<double>()) + " of vehicle time";
    if (summary.contains("real_s")) {
        page += " in " + Fmt("%.1f", summary["real_s"].get<double>()) + " s";
    }
    page += ". <span id=\"verdict\" class=\"verdict " + std::string(ok || !checked ? "ok" : "bad") +
            "\">" + verdict + "</span></p>\n";
    if (!ok) {
        page += "<ul>";
        for (const Json& p : summary["problems"])
            page += "<li>" + Esc(p.get<std::string>()) + "</li>";
        page += "</ul>\n";
    }
    page += "<section id=\"timeline\"><h2>Timeline</h2>\n";
    page += "<div class=\"chart\"><canvas id=\"chart-obd\"></canvas></div>\n";
    page += "<div class=\"chart small\"><canvas id=\"chart-motion\"></canvas></div>\n";
    page += "<div id=\"legend\"></div>\n";
    page += "<p class=\"note\">The plug-in's OBD data messages, once a second; alarms as bands. " +
            std::string(points.size() > 2 * kDrawBuckets
                            ? "Thinned for drawing to the lowest and highest value of each of " +
                                  std::to_string(kDrawBuckets) + " equal spans; the tables are not."
                            : "Every message is drawn.") +
            "</p></section>\n";
    page += AlarmsTable(summary);
    page += StatisticsTables(summary);
    page += BoxTable(summary);
    page += LinkTable(summary);
    page += "<section id=\"settings\"><h2>Run</h2>\n<table>\n";
    for (const auto& s : settings.items()) {
        page += Row({Esc(s.key()),
                     Esc(s.value().is_string() ? s.value().get<std::string>() : s.value().dump())});
    }
    page += "</table></section>\n";
    page += "<script>" + std::string(kChartJs != nullptr ? kChartJs : "") + "</script>\n";
    page += "<script>const TRIP = " + ScriptJson(trip) + ";\n" + kScript + "</script>\n";
    page += "</body></html>\n";
    return page;
}

}  // namespace obdsim

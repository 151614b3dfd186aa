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

std::string HtmlEscape(const std::string& text) {
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

namespace {

const auto Esc = HtmlEscape;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr size_t kDrawBuckets = 1500;

float Item(const std::vector<unsigned char>& payload, int index) {
    float v = 0;
    return ItemValue(payload, index, v) ? v : kNaN;
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

// Colours for the alarm kinds, far from every line colour of the plots (the script's), so that an
// alarm is never read as a line; kinds past the eighth share a colour, their lanes keep them apart.
const char* const kAlarmColours[] = {"rgb(231,41,138)", "rgb(0,210,210)",  "rgb(188,189,34)",
                                     "rgb(0,0,139)",    "rgb(0,90,80)",    "rgb(40,40,40)",
                                     "rgb(102,0,153)",  "rgb(255,160,220)"};

struct AlarmKind {
    std::string key, title, colour;
    std::vector<const Json*> episodes;
};

// The kinds in the order of their first episode.
std::vector<AlarmKind> AlarmKinds(const Json& alarms) {
    std::vector<AlarmKind> kinds;
    for (const Json& a : alarms) {
        const std::string key = a["key"].get<std::string>();
        auto k = std::find_if(kinds.begin(), kinds.end(),
                              [&](const AlarmKind& x) { return x.key == key; });
        if (k == kinds.end()) {
            const size_t n = sizeof(kAlarmColours) / sizeof(kAlarmColours[0]);
            kinds.push_back(
                {key, a["title"].get<std::string>(), kAlarmColours[kinds.size() % n], {}});
            k = kinds.end() - 1;
        }
        k->episodes.push_back(&a);
    }
    return kinds;
}

std::string EpisodeRow(const Json& a) {
    const int k = AlarmIndex(a["key"].get<std::string>());
    const bool graded = k >= 0 && Alarm(k).graded;
    return "<tr data-key=\"" + Esc(a["key"].get<std::string>()) + "\"><td>" +
           Dur(a["start_s"].get<double>()) + "</td><td>" + Dur(a["duration_s"].get<double>()) +
           (a["active"].get<bool>() ? " (on at the end)" : "") + "</td><td>" +
           (graded ? a["level"].dump() : "-") + "</td></tr>\n";
}

// One row per kind with its count, total and longest time; its episodes folded beneath, since a
// trip of hours has a hundred of them.
std::string AlarmsTable(const Json& summary) {
    const Json& alarms = summary["alarms"];
    std::string t = "<section id=\"alarms\"><h2>Alarms</h2>\n";
    if (alarms.empty()) {
        t += "<p>No alarm was broadcast.</p>\n";
    } else {
        const std::vector<AlarmKind> kinds = AlarmKinds(alarms);
        t += "<p>" + std::to_string(alarms.size()) + " alarms of " + std::to_string(kinds.size()) +
             " kinds, as the plug-in's alarm broadcasts carried them.</p>\n<table "
             "class=\"kinds\">\n";
        t += Row({"alarm", "count", "total", "longest", "episodes (start, duration, level)"}, "th");
        for (const AlarmKind& k : kinds) {
            double total = 0, longest = 0;
            for (const Json* a : k.episodes) {
                total += (*a)["duration_s"].get<double>();
                longest = std::max(longest, (*a)["duration_s"].get<double>());
            }
            t += "<tr class=\"kind\" data-kind=\"" + Esc(k.key) +
                 "\"><td><i style=\"background:" + k.colour + "\"></i>" + Esc(k.title) +
                 "</td><td class=\"count\">" + std::to_string(k.episodes.size()) + "</td><td>" +
                 Dur(total) + "</td><td>" + Dur(longest) + "</td><td><details><summary>" +
                 std::to_string(k.episodes.size()) +
                 (k.episodes.size() == 1 ? " episode" : " episodes") +
                 "</summary><table class=\"episodes\">\n";
            for (const Json* a : k.episodes) t += EpisodeRow(*a);
            t += "</table></details></td></tr>\n";
        }
        t += "</table>\n";
    }
    if (summary.contains("missing_alarms") && !summary["missing_alarms"].empty()) {
        t += "<p>Expected but never broadcast:</p>\n<table>\n";
        for (const Json& m : summary["missing_alarms"]) {
            t += "<tr class=\"missing\"><td>" + Dur(m["start_s"].get<double>()) +
                 "</td><td>missing</td><td>" + (m["level"].is_null() ? "-" : m["level"].dump()) +
                 "</td><td>" + Esc(m["title"].get<std::string>()) + "</td></tr>\n";
        }
        t += "</table>\n";
    }
    return t + "</section>\n";
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
td, th { padding: 2px 10px; text-align: left; border-bottom: 1px solid #eee; vertical-align: top; }
table.bands td, table.bands th { text-align: right; }
table.kinds { width: 100%; }
table.kinds i { display: inline-block; width: 12px; height: 12px; margin-right: 6px; vertical-align: -1px; }
table.episodes { margin: 0.2em 0; }
table.episodes td { border: none; padding: 0 10px 0 0; }
details summary { cursor: pointer; color: #555; }
.columns { display: grid; grid-template-columns: repeat(auto-fit, minmax(560px, 1fr)); gap: 0 2.5em; }
.columns section > table:not(.bands) { width: 100%; }
.verdict { font-weight: bold; padding: 4px 8px; display: inline-block; }
.ok { background: #e3f4e3; } .bad { background: #f8dcdc; }
.chart { position: relative; height: 340px; }
.chart.small { height: 240px; margin-top: 0.6em; }
.chart.strip { height: 60px; }
.chart canvas { cursor: crosshair; }
.chart .selection { position: absolute; top: 0; bottom: 0; background: rgba(0,0,0,0.08); pointer-events: none; }
#zoom { margin: 0.3em 0 0.5em; }
#zoom input { width: 6em; }
tr.missing td { color: #b00; }
.note { color: #666; font-size: 0.9em; }
)css";

// Draws the charts from TRIP. The alarms get a strip of their own under the time axis, a lane per
// kind labelled once, so that neither labels nor colours mix with the lines however busy the trip.
// For a browser test, the script leaves the count of painted pixels on <body data-painted> and
// the visible range, the time axis' labels, the plot areas (page pixels) and the colours in
// <output id="layout">.
const char* const kScript = R"js(
(function () {
  const clock = s => { s = Math.round(s); const h = Math.floor(s / 3600), m = Math.floor(s / 60) % 60;
    return h + ':' + String(m).padStart(2, '0') + ':' + String(s % 60).padStart(2, '0'); };
  const seconds = text => { const p = String(text).trim().split(':');
    return p.some(x => x === '' || isNaN(x)) ? NaN : p.reduce((a, v) => a * 60 + Number(v), 0); };
  const end = TRIP.end_s;
  // Ticks on round times: the smallest step that leaves at most twelve of them.
  const steps = [1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600];
  const stepFor = span => steps.find(s => Math.floor(span / s) + 1 <= 12) ||
    3600 * Math.ceil(span / 3600 / 11);
  const roundTicks = axis => { const s = stepFor(axis.max - axis.min), t = [];
    for (let v = Math.ceil(axis.min / s) * s; v <= axis.max; v += s) t.push({ value: v });
    axis.ticks = t; };
  // Every plot keeps the same margins, so that one time lines up across the plots and the strip.
  const left = 170, right = 64;
  const fit = width => ({ afterFit: axis => { axis.width = width; } });
  const xAxis = showTicks => ({ type: 'linear', min: 0, max: end, afterBuildTicks: roundTicks,
    title: { display: showTicks, text: 'vehicle time' },
    ticks: { display: showTicks, callback: v => clock(v), autoSkip: false, maxRotation: 0 } });
  const series = (name, data, colourLine, axis) => ({ label: name, data: data.map(p => ({ x: p[0], y: p[1] })),
    borderColor: colourLine, backgroundColor: colourLine.replace('rgb', 'rgba').replace(')', ',0.25)'),
    yAxisID: axis, borderWidth: 1.2, pointRadius: 0, spanGaps: false });
  const options = (axes, extra) => Object.assign({ animation: false, responsive: true, maintainAspectRatio: false,
    parsing: false, normalized: true, interaction: { mode: 'nearest', axis: 'x', intersect: false },
    plugins: { tooltip: { callbacks: { title: items => clock(items[0].parsed.x) } } },
    scales: Object.assign({ x: xAxis(true) }, axes) }, extra || {});
  const charts = [];
  const obd = new Chart(document.getElementById('chart-obd'), { type: 'line',
    data: { datasets: [
      series('speed (km/h)', TRIP.series.speed, 'rgb(31,119,180)', 'y'),
      series('coolant (C)', TRIP.series.coolant, 'rgb(44,160,44)', 'y'),
      series('accelerator (%)', TRIP.series.accelerator, 'rgb(255,127,14)', 'y'),
      series('engine speed (rpm)', TRIP.series.engine_speed, 'rgb(214,39,40)', 'rpm')] },
    options: options({
      y: Object.assign({ position: 'left', title: { display: true, text: 'km/h, C, %' } }, fit(left)),
      rpm: Object.assign({ position: 'right', title: { display: true, text: 'rpm' },
        grid: { drawOnChartArea: false } }, fit(right)) }) });
  charts.push(obd);
  // The strip: a floating bar per episode in its kind's lane, with the episode in its tooltip.
  let strip = null;
  const stripBox = document.getElementById('chart-alarms').parentNode;
  if (TRIP.alarms.length > 0) {
    stripBox.style.height = (24 + 22 * TRIP.kinds.length) + 'px';
    const kindOf = key => TRIP.kinds.find(k => k.key === key);
    strip = new Chart(document.getElementById('chart-alarms'), { type: 'bar',
      data: { labels: TRIP.kinds.map(k => k.title), datasets: [{ label: 'alarms',
        data: TRIP.alarms.map(a => ({ x: [a.start_s, a.start_s + a.duration_s], y: kindOf(a.key).title })),
        backgroundColor: TRIP.alarms.map(a => kindOf(a.key).colour),
        minBarLength: 3, barPercentage: 0.9, categoryPercentage: 0.9, grouped: false }] },
      options: { animation: false, responsive: true, maintainAspectRatio: false, indexAxis: 'y',
        layout: { padding: { right: right } },
        plugins: { legend: { display: false }, tooltip: { callbacks: {
          title: items => TRIP.alarms[items[0].dataIndex].title,
          label: item => { const a = TRIP.alarms[item.dataIndex];
            return clock(a.start_s) + ' for ' + clock(a.duration_s) + (a.level > 1 ? ', level ' + a.level : ''); } } } },
        scales: { x: xAxis(false), y: Object.assign({ type: 'category', grid: { display: false } }, fit(left)) } } });
    charts.push(strip);
  } else {
    stripBox.style.display = 'none';
  }
  // The six-axis magnitudes each in a band of its own height, on their own scales: together on
  // one scale the small swings of either were lost.
  let motion = null;
  if (TRIP.series.acc_g.length > 0) {
    motion = new Chart(document.getElementById('chart-motion'), { type: 'line',
      data: { datasets: [
        series('acceleration (g)', TRIP.series.acc_g, 'rgb(148,103,189)', 'g'),
        series('rotation rate (deg/s)', TRIP.series.rot_dps, 'rgb(140,86,75)', 'rot')] },
      options: options({
        g: Object.assign({ position: 'left', stack: 'motion', offset: true, title: { display: true, text: 'g' } }, fit(left)),
        rot: Object.assign({ position: 'left', stack: 'motion', offset: true, title: { display: true, text: 'deg/s' } }, fit(left)) },
        { layout: { padding: { right: right } } }) });
    charts.push(motion);
  } else {
    document.getElementById('chart-motion').parentNode.style.display = 'none';
  }
  const from = document.getElementById('from'), to = document.getElementById('to');
  const layout = () => {
    const area = c => { if (!c) return null; const r = c.canvas.getBoundingClientRect(), a = c.chartArea;
      return [r.left + scrollX + a.left, r.top + scrollY + a.top, r.left + scrollX + a.right,
        r.top + scrollY + a.bottom].map(Math.round); };
    const lines = [];
    charts.forEach(c => { if (c !== strip) c.data.datasets.forEach(d => lines.push(d.borderColor)); });
    document.getElementById('layout').textContent = JSON.stringify({
      range: [obd.scales.x.min, obd.scales.x.max], ticks: obd.scales.x.ticks.map(t => clock(t.value)),
      plot: area(obd), strip: area(strip), motion: area(motion), lines: lines,
      alarms: TRIP.kinds.map(k => k.colour) });
  };
  // Zoom: a span from the fields, a drag across any plot, or #t=FROM-TO (seconds) in the address.
  const show = (a, b) => {
    a = Math.max(0, Math.min(a, b)); b = Math.min(end, Math.max(a, b));
    if (!(b - a >= 2)) { a = 0; b = end; }
    charts.forEach(c => { c.options.scales.x.min = a; c.options.scales.x.max = b; c.update('none'); });
    from.value = clock(a); to.value = clock(b);
    try { history.replaceState(null, '', a === 0 && b === end ? location.pathname : '#t=' + Math.round(a) + '-' + Math.round(b)); } catch (e) {}
    layout();
  };
  from.onchange = to.onchange = () => show(seconds(from.value), seconds(to.value));
  document.getElementById('reset').onclick = () => show(0, end);
  charts.forEach(c => {
    const box = c.canvas.parentNode, mark = document.createElement('div');
    mark.className = 'selection'; mark.style.display = 'none'; box.appendChild(mark);
    let x0 = null;
    const x = e => Math.max(c.chartArea.left, Math.min(c.chartArea.right, e.offsetX));
    c.canvas.addEventListener('mousedown', e => { x0 = x(e); });
    c.canvas.addEventListener('mousemove', e => { if (x0 === null) return;
      mark.style.display = 'block'; mark.style.left = Math.min(x0, x(e)) + 'px';
      mark.style.width = Math.abs(x(e) - x0) + 'px'; });
    window.addEventListener('mouseup', e => { if (x0 === null) return;
      const x1 = e.target === c.canvas ? x(e) : x0; mark.style.display = 'none';
      if (Math.abs(x1 - x0) > 4) show(c.scales.x.getValueForPixel(Math.min(x0, x1)), c.scales.x.getValueForPixel(Math.max(x0, x1)));
      x0 = null; });
  });
  const asked = /^#t=([\d.]+)-([\d.]+)$/.exec(location.hash);
  show(asked ? Number(asked[1]) : 0, asked ? Number(asked[2]) : end);
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
    Json kinds = Json::array();
    for (const AlarmKind& k : AlarmKinds(summary["alarms"])) {
        kinds.push_back({{"key", k.key}, {"title", k.title}, {"colour", k.colour}});
    }
    trip["kinds"] = kinds;
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
    const std::string judged = Str(summary, "verdict");
    const bool bad = judged == "misbehaved";
    const std::string verdict = judged == "behaved" ? "The plug-in behaved"
                                : bad               ? "The plug-in MISBEHAVED"
                                : judged == "not judged"
                                    ? "Not judged (" + Str(summary, "unjudged") + ")"
                                    : "Not judged: obd-sim fell behind the pace of --speed " +
                                          Str(summary, "speed") + " by up to " +
                                          Fmt("%.1f", summary.value("behind_s", 0.0)) +
                                          " s of host time, so what it saw may be its own lag";
    std::string page = "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n";
    page += "<title>Trip report: " + Esc(Str(summary, "source")) + "</title>\n";
    page += "<style>" + std::string(kStyle) + "</style></head>\n<body>\n";
    page += "<h1>Trip report: " + Esc(Str(summary, "source")) + "</h1>\n";
    page += "<p>" + Dur(summary["vehicle_s"].get<double>()) + " of vehicle time";
    if (summary.contains("real_s")) {
        page += " in " + Fmt("%.1f", summary["real_s"].get<double>()) + " s";
    }
    page += ". <span id=\"verdict\" class=\"verdict " + std::string(bad ? "bad" : "ok") + "\">" +
            verdict + "</span></p>\n";
    if (!ok) {
        page += "<ul>";
        for (const Json& p : summary["problems"])
            page += "<li>" + Esc(p.get<std::string>()) + "</li>";
        page += "</ul>\n";
    }
    page += "<section id=\"timeline\"><h2>Timeline</h2>\n";
    page +=
        "<div id=\"zoom\">Show from <input id=\"from\"> to <input id=\"to\"> "
        "<button id=\"reset\">the whole trip</button> <span class=\"note\">(or drag "
        "across a plot)</span></div>\n";
    page += "<div class=\"chart\"><canvas id=\"chart-obd\"></canvas></div>\n";
    page += "<div class=\"chart strip\"><canvas id=\"chart-alarms\"></canvas></div>\n";
    page += "<div class=\"chart small\"><canvas id=\"chart-motion\"></canvas></div>\n";
    page += "<output id=\"layout\" hidden></output>\n";
    page +=
        "<p class=\"note\">The plug-in's OBD data messages, once a second; under them the "
        "alarms, a lane per kind (hover an episode for its times). " +
        std::string(points.size() > 2 * kDrawBuckets
                        ? "Thinned for drawing to the lowest and highest value of each of " +
                              std::to_string(kDrawBuckets) + " equal spans; the tables are not."
                        : "Every message is drawn.") +
        "</p></section>\n";
    page += AlarmsTable(summary);
    page += "<div class=\"columns\">\n";
    page += StatisticsTables(summary);
    page += BoxTable(summary);
    page += LinkTable(summary);
    page += "<section id=\"settings\"><h2>Run</h2>\n<table>\n";
    for (const auto& s : settings.items()) {
        page += Row({Esc(s.key()),
                     Esc(s.value().is_string() ? s.value().get<std::string>() : s.value().dump())});
    }
    page += "</table></section>\n</div>\n";
    page += "<script>" + std::string(kChartJs != nullptr ? kChartJs : "") + "</script>\n";
    page += "<script>const TRIP = " + ScriptJson(trip) + ";\n" + kScript + "</script>\n";
    page += "</body></html>\n";
    return page;
}

}  // namespace obdsim

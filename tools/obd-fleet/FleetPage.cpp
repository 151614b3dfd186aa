// The fleet page: the fleet's table as a self-contained HTML page with Chart.js (inlined, as in
// the trip report). For the alarm kind chosen at the top: its share of each trip's time and of
// each driver's time, the plug-in's defaults beside each what-if set; the distribution of that
// share over the trips; the worst trips, linked to their own report pages; then every trip's row
// and the trips that did not replay, with the reason.
#include <cstdio>

#include "Fleet.h"
#include "ObdNames.h"
#include "Report.h"

extern const char* const kChartJs;  // obd-sim's ChartJs.cpp, generated at build time

namespace obdfleet {
namespace {

const auto Esc = obdsim::HtmlEscape;
using obdsim::ScriptJson;

std::string Fixed(const Json& v, const char* format) {
    if (!v.is_number()) return "";
    char t[32];
    std::snprintf(t, sizeof(t), format, v.get<double>());
    return t;
}

constexpr const char* kStyle = R"css(
body { font: 14px sans-serif; margin: 1.5em; color: #222; }
h1 { font-size: 1.4em; } h2 { font-size: 1.15em; margin-top: 1.5em; }
table { border-collapse: collapse; } td, th { padding: 2px 8px; border-bottom: 1px solid #ddd; }
td.num, th.num { text-align: right; } tr.failed td { color: #a00; }
.chart { position: relative; height: 300px; max-width: 1250px; }
.row { display: flex; gap: 2em; flex-wrap: wrap; } .row .chart { flex: 1 1 500px; }
.note { color: #666; font-size: 0.9em; }
)css";

constexpr const char* kScript = R"js(
(() => {
  const rows = FLEET.rows, sets = ['defaults'].concat(FLEET.sets);
  const colours = ['#1f77b4', '#ff7f0e', '#2ca02c', '#d62728', '#9467bd', '#8c564b', '#e377c2'];
  const ran = rows.filter(r => r.vehicle_h !== null);
  const tally = (r, set, kind) => {
    const t = set === 'defaults' ? r.alarms : (r.what_if[set] || null);
    if (t === null) return null;
    return t[kind] || { n: 0, s: 0, pct: 0, per100km: r.km >= 0.5 ? 0 : null };
  };
  const select = document.getElementById('kind');
  const charts = {};
  const opts = (title) => ({ animation: false, responsive: true, maintainAspectRatio: false,
    plugins: { title: { display: true, text: title } },
    scales: { y: { beginAtZero: true, title: { display: true, text: '% of the time' } } } });
  const make = (id, type, title) => {
    charts[id] = new Chart(document.getElementById(id), { type: type,
      data: { labels: [], datasets: [] }, options: opts(title) });
  };
  make('chart-kinds', 'bar', 'the whole fleet, every alarm raised');
  make('chart-trips', 'bar', 'per trip');
  make('chart-drivers', 'bar', 'per vehicle or driver');
  make('chart-spread', 'bar', 'trips by share of their time');
  charts['chart-spread'].options.scales.y.title.text = 'trips';
  const drivers = [...new Set(ran.map(r => r.driver))];
  // A trip is shown by its driver and date, and by its id where two share them.
  const short = r => (r.driver + ' ' + r.date).trim();
  const label = r => ran.filter(o => short(o) === short(r)).length > 1 ? r.trip : short(r);
  const hours = ran.reduce((h, r) => h + r.vehicle_h, 0);
  const kinds = charts['chart-kinds'];
  kinds.data.labels = FLEET.kinds.map(k => select.querySelector('option[value="' + k + '"]').textContent);
  kinds.data.datasets = sets.map((s, i) => ({ label: s, backgroundColor: colours[i % colours.length],
    data: FLEET.kinds.map(k => { let sec = 0;
      for (const r of ran) { const t = tally(r, s, k); if (t) sec += t.s; }
      return hours > 0 ? Math.round(sec / 36 / hours * 100) / 100 : null; }) }));
  const wanted = /#kind=(\w+)/.exec(location.hash);
  if (wanted && select.querySelector('option[value="' + wanted[1] + '"]')) select.value = wanted[1];
  const worst = document.getElementById('worst');
  const draw = () => {
    const kind = select.value;
    const ds = (values) => sets.map((s, i) => ({ label: s, data: values(s),
      backgroundColor: colours[i % colours.length] }));
    const trips = charts['chart-trips'];
    trips.data.labels = ran.map(label);
    trips.data.datasets = ds(s => ran.map(r => { const t = tally(r, s, kind); return t && t.pct; }));
    const byDriver = charts['chart-drivers'];
    byDriver.data.labels = drivers;
    byDriver.data.datasets = ds(s => drivers.map(d => {
      let sec = 0, h = 0;
      for (const r of ran) if (r.driver === d) { const t = tally(r, s, kind);
        if (t) { sec += t.s; h += r.vehicle_h; } }
      return h > 0 ? Math.round(sec / 36 / h * 100) / 100 : null;
    }));
    const spread = charts['chart-spread'];
    spread.data.labels = [...Array(10).keys()].map(i => (i * 10) + '-' + (i * 10 + 10) + ' %');
    spread.data.datasets = ds(s => { const bins = new Array(10).fill(0);
      for (const r of ran) { const t = tally(r, s, kind);
        if (t) bins[Math.min(9, Math.floor(t.pct / 10))]++; }
      return bins; });
    for (const c of Object.values(charts)) c.update();
    const ranked = ran.slice().sort((a, b) => tally(b, 'defaults', kind).pct -
                                              tally(a, 'defaults', kind).pct).slice(0, 10);
    worst.innerHTML = '';
    for (const r of ranked) {
      const tr = document.createElement('tr');
      tr.dataset.worst = r.trip;
      const name = document.createElement('td');
      if (r.report) { const a = document.createElement('a'); a.href = r.report;
        a.textContent = r.trip; name.appendChild(a); } else name.textContent = r.trip;
      tr.appendChild(name);
      for (const s of sets) { const td = document.createElement('td'); td.className = 'num';
        const t = tally(r, s, kind); td.textContent = t ? t.pct.toFixed(1) + ' %' : '';
        tr.appendChild(td); }
      worst.appendChild(tr);
    }
    let painted = {};
    for (const [id, c] of Object.entries(charts)) {
      const d = c.ctx.getImageData(0, 0, c.canvas.width, c.canvas.height).data;
      let n = 0; for (let i = 3; i < d.length; i += 4) if (d[i] !== 0) n++;
      painted[id] = n;
    }
    document.getElementById('layout').textContent = JSON.stringify({ kind: kind, sets: sets,
      trips: trips.data.labels.length, drivers: drivers.length, painted: painted,
      values: trips.data.datasets.map(d => d.data), fleet: kinds.data.datasets.map(d => d.data) });
  };
  select.addEventListener('change', draw);
  draw();
})();
)js";

}  // namespace

std::string FleetHtml(const Json& fleet) {
    const Json& rows = fleet["rows"];
    int ok = 0, failed = 0;
    double km = 0, hours = 0;
    for (const Json& r : rows) {
        if (r["vehicle_h"].is_number()) {
            ++ok;
            hours += r["vehicle_h"].get<double>();
            km += r["km"].is_number() ? r["km"].get<double>() : 0.0;
        } else {
            ++failed;
        }
    }
    std::string page = "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n";
    page +=
        "<title>Fleet report</title>\n<style>" + std::string(kStyle) + "</style></head>\n<body>\n";
    page += "<h1>Fleet report</h1>\n";
    char line[256];
    std::snprintf(line, sizeof(line),
                  "<p id=\"totals\">%zu trips: %d replayed (%.1f km, %.1f vehicle hours), "
                  "%d did not.</p>\n",
                  rows.size(), ok, km, hours, failed);
    page += line;
    page += "<div class=\"chart\"><canvas id=\"chart-kinds\"></canvas></div>\n";
    page += "<p>Alarm <select id=\"kind\">";
    std::string first;
    for (const Json& k : fleet["kinds"]) {
        const std::string key = k.get<std::string>();
        if (first.empty() || key == "over_running") first = key;
    }
    for (int k = 0; k < obdsim::kAlarmCount; ++k) {
        const std::string key = obdsim::Alarm(k).key;
        page += "<option value=\"" + key + "\"" + (key == first ? " selected" : "") + ">" +
                Esc(obdsim::Alarm(k).title) + "</option>";
    }
    page +=
        "</select> <span class=\"note\">as a share of each trip's time: the plug-in's own "
        "alarms (defaults) beside each what-if set of thresholds</span></p>\n";
    page += "<div class=\"chart\"><canvas id=\"chart-trips\"></canvas></div>\n";
    page +=
        "<div class=\"row\"><div class=\"chart\"><canvas id=\"chart-drivers\"></canvas></div>\n";
    page += "<div class=\"chart\"><canvas id=\"chart-spread\"></canvas></div></div>\n";
    page += "<output id=\"layout\" hidden></output>\n";
    page += "<h2>Worst trips for this alarm</h2>\n<table><thead><tr><th>trip</th><th>defaults</th>";
    for (const Json& s : fleet["sets"]) page += "<th>" + Esc(s.get<std::string>()) + "</th>";
    page += "</tr></thead><tbody id=\"worst\"></tbody></table>\n";
    page +=
        "<h2>Trips</h2>\n<table id=\"trips\"><thead><tr><th>trip</th><th>driver</th>"
        "<th>date</th><th>status</th><th class=\"num\">km</th><th class=\"num\">driving h</th>"
        "<th class=\"num\">idling h</th><th class=\"num\">fuel</th>";
    for (const Json& k : fleet["kinds"]) {
        page += "<th class=\"num\">" +
                Esc(obdsim::Alarm(obdsim::AlarmIndex(k.get<std::string>())).title) + " (n, s)</th>";
    }
    page += "<th>reason</th></tr></thead><tbody>\n";
    for (const Json& r : rows) {
        const std::string trip = r["trip"].get<std::string>();
        const bool ran = r["vehicle_h"].is_number();
        page += "<tr data-trip=\"" + Esc(trip) + "\"" + (ran ? "" : " class=\"failed\"") + "><td>";
        page += r["report"].is_string() ? "<a href=\"" + Esc(r["report"].get<std::string>()) +
                                              "\">" + Esc(trip) + "</a>"
                                        : Esc(trip);
        page += "</td><td>" + Esc(r["driver"].get<std::string>()) + "</td><td>" +
                Esc(r["date"].get<std::string>()) + "</td><td>" +
                Esc(r["status"].get<std::string>()) + "</td>";
        page += "<td class=\"num\">" + Fixed(r["km"], "%.1f") + "</td><td class=\"num\">" +
                Fixed(r["drive_h"], "%.2f") + "</td><td class=\"num\">" +
                Fixed(r["idle_h"], "%.2f") + "</td><td class=\"num\">" +
                Fixed(r["fuel_l"], "%.2f") + "</td>";
        for (const Json& k : fleet["kinds"]) {
            const std::string key = k.get<std::string>();
            page += "<td class=\"num\">";
            if (ran) {
                page += r["alarms"][key]["n"].dump() + ", " + Fixed(r["alarms"][key]["s"], "%.0f");
            }
            page += "</td>";
        }
        page += "<td class=\"reason\">" + Esc(r["reason"].get<std::string>()) + "</td></tr>\n";
    }
    page += "</tbody></table>\n";
    page +=
        "<p class=\"note\">Alarms are the plug-in's own alarm broadcasts in each trip's replay; "
        "a what-if set is the analyser with that file's thresholds on the same samples. "
        "Per 100 km and the whole table are in fleet.csv beside this page.</p>\n";
    page += "<script>" + std::string(kChartJs != nullptr ? kChartJs : "") + "</script>\n";
    page += "<script>const FLEET = " + ScriptJson(fleet) + ";\n" + kScript + "</script>\n";
    page += "</body></html>\n";
    return page;
}

}  // namespace obdfleet

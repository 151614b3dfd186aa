// The fleet table: one row per trip of a fleet run (scripts/fleet.sh), from each trip's own
// summary (obd-sim --summary-json) or, for a trip that did not replay, the reason.
//
// A fleet run's folder holds trips.tsv (one line per trip: its id, then its file) and per trip
// trips/ID/ with summary.json, report.html (when asked for), status (obd-sim's exit status) and
// sim.err (its stderr, kept by GNU parallel's --results).
#pragma once

#include <string>
#include <vector>

#include "Decode.h"

namespace obdfleet {

using obdsim::Json;

// Who and when, from the trip's path under the fleet folder: the first folder is the vehicle or
// driver ("-" for a file directly in the fleet folder), the date the first YYYYMMDD in the path
// that is a calendar date ("" when none).
struct Place {
    std::string driver;
    std::string date;  // YYYY-MM-DD
};
Place PlaceOf(const std::string& relativePath);

// A trip's id in the result folder: its path with '/' as "__" and without the .csv.
std::string TripId(const std::string& relativePath);

struct TripResult {
    std::string id, file;
    int status = -1;  // obd-sim's exit status, -1 when the trip has not run (to its end)
    Json summary;     // null when none was written
    std::string err;  // obd-sim's stderr
    bool report = false;
};

// The row of one trip (ordered JSON): trip, file, driver, date, status (ok, misbehaved, diverged
// (a replayed capture whose plug-in did other than recorded), failed, not run), reason, vehicle_h,
// km, drive_h, idle_h, fuel_l, alarms {kind: {n, s, per100km, pct}} for every kind, what_if {set:
// {kind: ...}} for each what-if set, link {...}, report.
Json TripRow(const TripResult& trip);

// All rows of a fleet run's folder, in trips.tsv's order; false with `error` when the folder has
// no trips.tsv. {"rows": [...], "sets": [what-if names], "kinds": [kinds raised anywhere]}.
bool ReadFleet(const std::string& folder, Json& fleet, std::string& error);

// The table as CSV: a header line and one line per trip; every alarm kind for the plug-in's own
// alarms, and for each what-if set the kinds raised anywhere in the fleet.
std::string FleetCsv(const Json& fleet);
// A short text table for the terminal.
std::string FleetText(const Json& fleet);
// One self-contained HTML page (Chart.js inlined).
std::string FleetHtml(const Json& fleet);

}  // namespace obdfleet

// Scenarios: drives read from a CSV file of timestamped samples.
//
// The file has a header line and one row per sample. Its own format names its columns after
// what they hold:
//   t            vehicle seconds (decimal), or
//   time         a clock time H:MM:SS[.fff] (the first row is vehicle time 0; past midnight
//                continues),
//   speed, engine_speed, coolant_temp, ...   any OBD items by name (ObdNames.h),
//   acc_x, acc_y, acc_z                        acceleration in g (X forward, Y left, Z up),
//   rot_x, rot_y, rot_z                        rotation rate in degrees per second.
// Lines starting with # and blank lines are skipped. An empty cell repeats the column's last
// value; before a column's first value its item is absent (the box does not send it). A file in
// this format is a drive written as keyframes: its values move in a straight line from row to
// row, whatever the time between them; brake, clutch and running brake hold their value to the
// next row. With six-axis columns the host's inertial messages are sent (a missing axis reads 0).
// A comment line "# expect KEY START_S LEVEL HOLD_S" names an alarm the drive is written to
// provoke (ObdNames key, nominal start in vehicle seconds, highest level, seconds its condition
// must hold): obd-sim then checks the plug-in's alarms against these lines as it does for the
// built-in drive.
//
// A recorded trip in a format of its own is read as it is through a column mapping: a list
// "SOURCE=NAME[*FACTOR][+NAME[*FACTOR]...],..." naming, for each column used, the scenario names
// it stands for (each with a factor for its unit), or a preset name. Other columns are ignored.
// Preset "polidriving": time, speed, rpm -> engine_speed, throttle_position -> accelerator,
// engine_temperature -> coolant_temp, system_voltage -> battery_volt, distance_travelled ->
// mileage and mileage2. A recording's rows are what a logger saw: each row's values stand until
// the next row, so a row the logger missed is no ramp (Gaps).
#pragma once

#include <string>
#include <vector>

#include "Drive.h"

namespace obdsim {

// One name a column stands for; a column that feeds several names has one entry for each.
struct ColumnMap {
    std::string source;  // column name in the file
    std::string target;  // "t", "time", an item name or a six-axis name
    double factor = 1.0;
};

// How values go from one row to the next (brake, clutch and running brake always hold).
enum class Gaps {
    ByKind,       // Hold for a recording read through a column mapping, else Interpolate
    Hold,         // each row's values stand until the next row
    Interpolate,  // a straight line from row to row
};

// Parses --columns: empty gives an empty list (the file names its columns itself). False with
// `error` for an unknown preset, a malformed entry, an unknown target name, or a column or name
// given twice.
bool ParseColumns(const std::string& mapping, std::vector<ColumnMap>& out, std::string& error);

// Reads the scenario. False with a one-line `error` naming the file and, where it applies, the
// line: a missing file, an unknown or missing column, a bad cell, rows out of time order, a time
// past 7 days. Values beyond what a column can carry (a negative speed, 1e30) are clamped; each
// column that had some adds one line to `notes`, naming the column, the range and the count.
bool LoadScenario(const std::string& path, const std::vector<ColumnMap>& columns, Drive& out,
                  std::string& error, Gaps gaps = Gaps::ByKind,
                  std::vector<std::string>* notes = nullptr);

}  // namespace obdsim

#include "Scenario.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <utility>

// The parser's own reading thread buys nothing for files of a few megabytes.
#define CSV_IO_NO_THREAD
// The parser copies file names into its error records with strncpy and terminates them itself;
// GCC's truncation warning, raised where that code is inlined here, is about that copy.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wstringop-truncation"
#endif
#include <libfccp/csv.h>

#include "Feeder.h"

namespace obdsim {
namespace {

// Room for every name of the file format (2 time names, 59 items, 6 six-axis components) and as
// many mapped columns.
constexpr size_t kMaxColumns = 72;
using Reader = io::CSVReader<kMaxColumns, io::trim_chars<' ', '\t'>, io::no_quote_escape<','>,
                             io::throw_on_overflow, io::single_and_empty_line_comment<'#'>>;
using Cells = std::array<char*, kMaxColumns>;
using Names = std::array<std::string, kMaxColumns>;

constexpr int kTimeChannel = -2;
const char* const kMotionNames[] = {"acc_x", "acc_y", "acc_z", "rot_x", "rot_y", "rot_z"};

// The channel a scenario name stands for, kTimeChannel for t and time, -1 for none.
int Channel(const std::string& name) {
    if (name == "t" || name == "time") return kTimeChannel;
    for (int i = 0; i < 6; ++i) {
        if (name == kMotionNames[i]) return kAccX + i;
    }
    return ItemIndex(name);
}

template <size_t... I>
void ReadHeader(Reader& r, io::ignore_column policy, const Names& names,
                std::index_sequence<I...>) {
    r.read_header(policy, names[I]...);
}

template <size_t... I>
bool ReadRow(Reader& r, Cells& cells, std::index_sequence<I...>) {
    return r.read_row(cells[I]...);
}

bool Number(const char* text, double& out) {
    errno = 0;
    char* end = nullptr;
    out = std::strtod(text, &end);
    return end != text && *end == '\0' && errno == 0 && std::isfinite(out);
}

// H:MM:SS with optional fractions of a second.
bool ClockTime(const char* text, double& out) {
    const char* first = std::strchr(text, ':');
    const char* second = first != nullptr ? std::strchr(first + 1, ':') : nullptr;
    if (second == nullptr) return false;
    const std::string h(text, first), m(first + 1, second);
    double hours = 0, minutes = 0, seconds = 0;
    if (!Number(h.c_str(), hours) || !Number(m.c_str(), minutes) || !Number(second + 1, seconds) ||
        hours < 0 || minutes < 0 || minutes >= 60 || seconds < 0 || seconds >= 61) {
        return false;
    }
    out = hours * 3600 + minutes * 60 + seconds;
    return true;
}

// The "# expect KEY START_S LEVEL HOLD_S" comment lines: alarms the drive is written to provoke.
bool ReadExpected(const std::string& path, std::vector<ExpectedAlarm>& out, std::string& error) {
    std::ifstream in(path);
    std::string text;
    for (int line = 1; std::getline(in, text); ++line) {
        if (text.rfind("# expect ", 0) != 0) continue;
        std::istringstream words(text.substr(9));
        ExpectedAlarm e;
        std::string extra;
        if (!(words >> e.key >> e.startS >> e.level >> e.holdS) || (words >> extra) ||
            AlarmIndex(e.key) < 0 || e.level < 1 || e.level > 3 || e.startS < 0 || e.holdS < 0) {
            error = path + ":" + std::to_string(line) +
                    ": expected \"# expect KEY START_S LEVEL HOLD_S\" with an alarm key";
            return false;
        }
        out.push_back(e);
    }
    return true;
}

// The longest trip played: a week of vehicle time is far beyond any recording, and a time
// column gone astray (milliseconds read as seconds, an epoch stamp) would otherwise keep a run
// going for years of host time.
constexpr double kMaxTripS = 7 * 86400.0;

// What a column's values may be: the inertial axes what the bus's 16-bit counts carry, the
// items that count up or measure an amount not below 0, and every item no further than the
// whole units a float carries exactly.
struct Range {
    double lo, hi;
};
Range RangeOf(int channel) {
    constexpr double kFloatWhole = 16777216.0;
    if (channel >= kAccX && channel <= kAccZ)
        return {-32768.0 / kCountsPerG, 32767.0 / kCountsPerG};
    if (channel >= kRotX && channel <= kRotZ) {
        return {-32768.0 / kCountsPerDegPerS, 32767.0 / kCountsPerDegPerS};
    }
    // Looked up once: this runs for every value of a trip file.
    static const std::vector<int> notNegative = [] {
        std::vector<int> items;
        for (const char* name :
             {"speed", "engine_speed", "accelerator", "brake", "clutch", "running_brake", "mileage",
              "mileage2", "fuel", "gross", "battery_volt"}) {
            items.push_back(ItemIndex(name));
        }
        return items;
    }();
    for (int item : notNegative) {
        if (item == channel) return {0.0, kFloatWhole};
    }
    return {-kFloatWhole, kFloatWhole};
}

// Values a column had outside its range, told once for the column after the file is read.
struct Clamped {
    long long rows = 0;
    double lowest = 0, highest = 0;
};

std::string Num(double v) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.10g", v);
    return text;
}

std::string KnownNames() {
    return "t or time, OBD item names (speed, engine_speed, coolant_temp, battery_volt, "
           "accelerator, brake, mileage, fuel, ... item_N), acc_x, acc_y, acc_z, rot_x, rot_y, "
           "rot_z";
}

}  // namespace

bool ParseColumns(const std::string& mapping, std::vector<ColumnMap>& out, std::string& error) {
    out.clear();
    if (mapping.empty()) return true;
    std::string list = mapping;
    if (mapping == "polidriving") {
        // The parking checks read the second distance item, so the trip's distance feeds both.
        list =
            "time=time,speed=speed,rpm=engine_speed,throttle_position=accelerator,"
            "engine_temperature=coolant_temp,system_voltage=battery_volt,"
            "distance_travelled=mileage+mileage2";
    } else if (mapping.find('=') == std::string::npos) {
        error = "unknown column preset \"" + mapping + "\" (known: polidriving)";
        return false;
    }
    std::vector<std::string> sources;
    size_t at = 0;
    while (at <= list.size()) {
        size_t comma = list.find(',', at);
        if (comma == std::string::npos) comma = list.size();
        const std::string entry = list.substr(at, comma - at);
        at = comma + 1;
        const size_t eq = entry.find('=');
        if (eq == std::string::npos || eq == 0 || eq + 1 == entry.size()) {
            error = "column mapping \"" + entry + "\": expected SOURCE=NAME[*FACTOR][+NAME...]";
            return false;
        }
        const std::string source = entry.substr(0, eq);
        if (std::find(sources.begin(), sources.end(), source) != sources.end()) {
            error = "column mapping \"" + entry + "\": column used twice (SOURCE=NAME+NAME feeds " +
                    "several names)";
            return false;
        }
        sources.push_back(source);
        // A '+' followed by a name starts the next one; in a factor ("*1e+3") a digit follows.
        size_t from = eq + 1;
        while (from <= entry.size()) {
            size_t plus = from;
            while ((plus = entry.find('+', plus)) != std::string::npos && plus + 1 < entry.size() &&
                   std::isdigit(static_cast<unsigned char>(entry[plus + 1])) != 0) {
                ++plus;
            }
            if (plus == std::string::npos) plus = entry.size();
            ColumnMap c;
            c.source = source;
            c.target = entry.substr(from, plus - from);
            from = plus + 1;
            const size_t star = c.target.find('*');
            if (star != std::string::npos) {
                if (!Number(c.target.c_str() + star + 1, c.factor)) {
                    error = "column mapping \"" + entry + "\": bad factor";
                    return false;
                }
                c.target.resize(star);
            }
            if (Channel(c.target) == -1) {
                error = "column mapping \"" + entry + "\": unknown name \"" + c.target + "\"";
                return false;
            }
            for (const ColumnMap& o : out) {
                if (o.target == c.target) {
                    error =
                        "column mapping \"" + entry + "\": name \"" + c.target + "\" used twice";
                    return false;
                }
            }
            out.push_back(c);
        }
        if (sources.size() > kMaxColumns) {
            error = "column mapping: more than " + std::to_string(kMaxColumns) + " columns";
            return false;
        }
    }
    return true;
}

bool LoadScenario(const std::string& path, const std::vector<ColumnMap>& columns, Drive& out,
                  std::string& error, Gaps gaps, std::vector<std::string>* notes) {
    std::vector<ColumnMap> map = columns;
    const bool ownNames = map.empty();
    if (ownNames) {
        for (const char* n : {"t", "time"}) map.push_back({n, n, 1.0});
        for (int i = 0; i < kItemCount; ++i) map.push_back({ItemName(i), ItemName(i), 1.0});
        for (const char* n : kMotionNames) map.push_back({n, n, 1.0});
    }
    if (gaps == Gaps::ByKind) gaps = ownNames ? Gaps::Interpolate : Gaps::Hold;
    // The reader's slots hold each column once; a column that feeds several names is read once.
    std::vector<std::string> sources;
    std::vector<size_t> slot(map.size());
    for (size_t i = 0; i < map.size(); ++i) {
        const auto s = std::find(sources.begin(), sources.end(), map[i].source);
        slot[i] = static_cast<size_t>(s - sources.begin());
        if (s == sources.end()) sources.push_back(map[i].source);
    }
    if (sources.size() > kMaxColumns) {
        error = path + ": more than " + std::to_string(kMaxColumns) + " columns mapped";
        return false;
    }
    Names names;
    for (size_t i = 0; i < kMaxColumns; ++i) {
        // Unused slots get names no header can hold (a cell never contains a comma).
        names[i] = i < sources.size() ? sources[i] : ",unused" + std::to_string(i);
    }
    const std::string where = path + ": ";
    int line = 0;
    try {
        Reader reader(path);
        const io::ignore_column policy = ownNames
                                             ? io::ignore_missing_column
                                             : io::ignore_missing_column | io::ignore_extra_column;
        try {
            ReadHeader(reader, policy, names, std::make_index_sequence<kMaxColumns>());
        } catch (const io::error::extra_column_in_header& e) {
            error = where + "unknown column \"" + e.column_name + "\" (columns: " + KnownNames() +
                    "; another file's columns need --columns)";
            return false;
        }
        // Which of the mapped columns the file has, and its time column.
        std::vector<size_t> used;
        int timeSlot = -1;
        for (size_t i = 0; i < map.size(); ++i) {
            if (!reader.has_column(map[i].source)) {
                if (!ownNames) {
                    error = where + "no column \"" + map[i].source + "\" in its header";
                    return false;
                }
                continue;
            }
            if (Channel(map[i].target) == kTimeChannel) {
                if (timeSlot >= 0) {
                    error = where + "two time columns";
                    return false;
                }
                timeSlot = static_cast<int>(slot[i]);
            } else {
                used.push_back(i);
            }
        }
        if (timeSlot < 0 || used.empty()) {
            error = where + "needs a time column (t or time) and at least one more";
            return false;
        }
        std::vector<Drive::Channel> channels(used.size());
        std::vector<bool> known(used.size(), false);
        std::vector<float> last(used.size(), 0.0f);
        std::vector<Clamped> clamped(used.size());
        for (size_t k = 0; k < used.size(); ++k) {
            const int ch = Channel(map[used[k]].target);
            channels[k].id = ch;
            const bool state = ch < kItemCount && ItemIsState(ch);
            channels[k].mode =
                state || gaps == Gaps::Hold ? Drive::Mode::Hold : Drive::Mode::Linear;
        }
        Cells cells;
        double t0 = 0, previous = 0, dayOffset = 0, lastClock = 0;
        bool first = true;
        for (;;) {
            cells.fill(nullptr);
            if (!ReadRow(reader, cells, std::make_index_sequence<kMaxColumns>())) break;
            line = static_cast<int>(reader.get_file_line());
            const std::string at = path + ":" + std::to_string(line) + ": ";
            const char* timeCell = cells[static_cast<size_t>(timeSlot)];
            double t = 0;
            const bool clock = timeCell != nullptr && std::strchr(timeCell, ':') != nullptr;
            if (timeCell == nullptr || !(clock ? ClockTime(timeCell, t) : Number(timeCell, t))) {
                error = at + "bad time \"" + (timeCell != nullptr ? timeCell : "") + "\"";
                return false;
            }
            if (clock) {
                // A clock that goes back by more than half a day has passed midnight.
                if (!first && t + dayOffset < lastClock - 43200) dayOffset += 86400;
                t += dayOffset;
                lastClock = t;
            }
            if (first) t0 = t;
            t -= t0;
            if (!first && t <= previous) {
                error = at + "time " + timeCell + " is not after the previous row's";
                return false;
            }
            if (t > kMaxTripS) {
                error = at + "time " + timeCell +
                        " is past 7 days of vehicle time, the longest trip obd-sim plays";
                return false;
            }
            for (size_t k = 0; k < used.size(); ++k) {
                const char* cell = cells[slot[used[k]]];
                if (cell != nullptr && *cell != '\0') {
                    double v = 0;
                    if (!Number(cell, v)) {
                        error = at + "column \"" + map[used[k]].source + "\": \"" + cell +
                                "\" is not a number";
                        return false;
                    }
                    v *= map[used[k]].factor;
                    const Range r = RangeOf(channels[k].id);
                    if (v < r.lo || v > r.hi) {
                        Clamped& c = clamped[k];
                        c.lowest = c.rows == 0 ? v : std::min(c.lowest, v);
                        c.highest = c.rows == 0 ? v : std::max(c.highest, v);
                        ++c.rows;
                        v = std::clamp(v, r.lo, r.hi);
                    }
                    last[k] = static_cast<float>(v);
                    known[k] = true;
                }
                if (known[k]) {
                    channels[k].t.push_back(t);
                    channels[k].v.push_back(last[k]);
                }
            }
            previous = t;
            first = false;
        }
        if (first) {
            error = where + "no rows";
            return false;
        }
        std::vector<ExpectedAlarm> expected;
        if (!ReadExpected(path, expected, error)) return false;
        for (size_t k = 0; k < used.size() && notes != nullptr; ++k) {
            const Clamped& c = clamped[k];
            if (c.rows == 0) continue;
            const ColumnMap& m = map[used[k]];
            const Range r = RangeOf(channels[k].id);
            notes->push_back(where + "column \"" + m.source + "\"" +
                             (m.source != m.target ? " (" + m.target + ")" : "") + ": " +
                             std::to_string(c.rows) + (c.rows == 1 ? " value" : " values") +
                             " outside " + Num(r.lo) + " to " + Num(r.hi) + " clamped (lowest " +
                             Num(c.lowest) + ", highest " + Num(c.highest) + ")");
        }
        const size_t slash = path.rfind('/');
        Drive d("scenario " + (slash == std::string::npos ? path : path.substr(slash + 1)));
        for (auto& c : channels) d.SetChannel(std::move(c));
        d.SetExpected(std::move(expected));
        out = std::move(d);
        return true;
    } catch (const io::error::base& e) {
        // The parser's own words name the file and the line ("Too few columns in line 7 ...").
        error = e.what();
        return false;
    }
}

}  // namespace obdsim

// The trip report: one self-contained HTML page (opens offline) with a timeline of the trip, the
// summary's tables and the run's settings.
//
// The timeline is what the plug-in broadcast: speed, engine speed, coolant and accelerator of its
// OBD data messages, once a second, the alarms of the summary in a strip of lanes under it (a lane
// per kind, in colours no line uses), and the magnitudes of the six-axis samples when the drive has
// them. Any span of it can be shown on its own. It is drawn by Chart.js (Debian's libjs-chart.js,
// inlined at build time); a trip of hours is thinned for drawing only, to a point pair (lowest and
// highest) per pixel column or so, so every peak stays visible. The tables come from the summary
// itself and are never thinned.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "Decode.h"
#include "HostSim.h"

namespace obdsim {

class Drive;

struct TimelinePoint {
    double t = 0;  // vehicle seconds
    // NaN where the plug-in's table does not hold the item (or the drive has no motion).
    float speed, engineSpeed, coolant, accelerator;
    float accG, rotDps;  // six-axis magnitudes: acceleration (g), rotation rate (deg/s)
};

// Follows the plug-in's OBD data messages (on the bus thread) for the report.
class Timeline {
  public:
    explicit Timeline(const Drive* drive) : m_drive(drive) {}
    void OnBus(const hostsim::BusMessage& m);
    std::vector<TimelinePoint> Points() const;

  private:
    const Drive* m_drive;
    mutable std::mutex m_mutex;
    std::vector<TimelinePoint> m_points;
};

// Thins one series for drawing: at most about 2 x `buckets` points, the lowest and the highest of
// each bucket of equal time, in time order; NaN values are left out.
std::vector<std::pair<double, float>> Thin(const std::vector<TimelinePoint>& points,
                                           float TimelinePoint::*field, size_t buckets);

// Whether this build carries Chart.js (false: --report cannot be used).
bool ReportAvailable();

// The page. `settings`: name to value of the run's settings, shown as given.
std::string ReportHtml(const Json& summary, const std::vector<TimelinePoint>& points,
                       const Json& settings);

// For pages of our own (the trip report, the fleet page): text for HTML element content and
// attribute values, and JSON that a <script> element may hold ("</" cannot end it).
std::string HtmlEscape(const std::string& text);
std::string ScriptJson(const Json& j);

}  // namespace obdsim

#include "Synth.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <vector>

#include "ObdNames.h"
#include "Schedule.h"

namespace obdfleet {
namespace {

bool MakeDirs(const std::string& path, std::string& error) {
    for (size_t at = 1; at <= path.size(); ++at) {
        if (at != path.size() && path[at] != '/') continue;
        const std::string part = path.substr(0, at);
        if (::mkdir(part.c_str(), 0777) != 0 && errno != EEXIST) {
            error = part + ": " + std::strerror(errno);
            return false;
        }
    }
    return true;
}

void Value(std::ostream& out, float v) {
    char t[32];
    std::snprintf(t, sizeof(t), "%.9g", static_cast<double>(v));
    out << t;
}

}  // namespace

void WriteTrip(const obdsim::Drive& drive, bool motion, std::ostream& out) {
    const auto seconds = static_cast<long long>(std::floor(drive.DurationS()));
    // The items the drive ever reports, found on the way through it.
    std::vector<int> items;
    for (long long s = 0; s <= seconds; s += 1) {
        const obdsim::DriveSample d = drive.ItemsAt(static_cast<double>(s));
        for (int i = 0; i < obdsim::kItemCount; ++i) {
            if (d.present[static_cast<size_t>(i)] &&
                std::find(items.begin(), items.end(), i) == items.end()) {
                items.push_back(i);
            }
        }
    }
    std::sort(items.begin(), items.end());
    const bool withMotion = motion && drive.HasMotion();
    out << "t";
    for (int i : items) out << "," << obdsim::ItemName(i);
    if (withMotion) out << ",acc_x,acc_y,acc_z,rot_x,rot_y,rot_z";
    out << "\n";
    for (long long s = 0; s <= seconds; ++s) {
        const obdsim::DriveSample d = drive.ItemsAt(static_cast<double>(s));
        out << s;
        for (int i : items) {
            out << ",";
            if (d.present[static_cast<size_t>(i)]) Value(out, d.value[static_cast<size_t>(i)]);
        }
        if (withMotion) {
            const obdsim::Motion m = drive.MotionAt(static_cast<double>(s));
            for (float v : {m.acc[0], m.acc[1], m.acc[2], m.rot[0], m.rot[1], m.rot[2]}) {
                out << ",";
                Value(out, v);
            }
        }
        out << "\n";
    }
}

std::string WriteVehicle(const std::string& folder, uint64_t seed, int vehicle, double hours,
                         bool motion, std::string& error) {
    const obdswarm::Schedule schedule =
        obdswarm::Draw(seed + static_cast<uint64_t>(vehicle), hours);
    const obdsim::Drive drive = obdswarm::BuildDrive(schedule);
    // One date per vehicle, from 2026-01-01 on (a 28-day month keeps every date valid).
    char sub[64];
    std::snprintf(sub, sizeof(sub), "/vehicle-%04d/2026%02d%02d_000000", vehicle + 1,
                  vehicle / 28 % 12 + 1, vehicle % 28 + 1);
    const std::string dir = folder + sub;
    if (!MakeDirs(dir, error)) return {};
    std::string path = dir + "/trip.csv";
    std::ofstream out(path, std::ios::binary);
    WriteTrip(drive, motion, out);
    out.flush();
    if (!out) {
        error = path + ": cannot write";
        return {};
    }
    return path;
}

}  // namespace obdfleet

// A synthetic fleet: the swarm's drive generator (obd-swarm's Draw and BuildDrive, without its
// faults) writes each vehicle's drive as a trip file that obd-sim reads as it is, so a fleet run
// can be measured at sizes the recorded trips do not reach.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

#include "Drive.h"

namespace obdfleet {

// The drive as obd-sim's own scenario format: "t" and one column per item the drive reports
// (by its name), one row per vehicle second; a cell is empty before the item's first value.
// With `motion` and a drive that has it, acc_x..rot_z follow (g and degrees per second).
void WriteTrip(const obdsim::Drive& drive, bool motion, std::ostream& out);

// Vehicle v (0-based) of a fleet drawn from `seed`: its drive of `hours` from seed + v, written to
// FOLDER/vehicle-NNNN/DATE_000000/trip.csv (a date per vehicle, so the fleet table has dates).
// Returns the file's path; empty with `error` when it cannot be written.
std::string WriteVehicle(const std::string& folder, uint64_t seed, int vehicle, double hours,
                         bool motion, std::string& error);

}  // namespace obdfleet

// obd-fleet: the fleet table and page of a fleet run (scripts/fleet.sh runs the trips, then
// "obd-fleet table"), and synthetic fleets to measure it on.
//
//   obd-fleet table OUT                 OUT/fleet.csv and OUT/fleet.html from OUT's trips; a
//                                       short table on stdout
//   obd-fleet synth --vehicles N --hours H --out DIR [--seed S] [--motion]
//                                       N vehicles' trips of H hours each under DIR
//
// Exit status: 0 done (table: every trip replayed), 1 a file cannot be read or written, 2 bad
// arguments, 6 (table) some trips did not replay or the plug-in misbehaved in them.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <fstream>
#include <string>

#include "Fleet.h"
#include "Synth.h"

namespace {

int Fail(const std::string& message, int code) {
    std::fprintf(stderr, "obd-fleet: %s\n", message.c_str());
    return code;
}

bool Write(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary);
    out << text;
    out.flush();
    return static_cast<bool>(out);
}

int Table(const std::string& folder) {
    obdfleet::Json fleet;
    std::string error;
    if (!obdfleet::ReadFleet(folder, fleet, error)) return Fail(error, 1);
    if (!Write(folder + "/fleet.csv", obdfleet::FleetCsv(fleet)))
        return Fail("cannot write " + folder + "/fleet.csv", 1);
    if (!Write(folder + "/fleet.html", obdfleet::FleetHtml(fleet)))
        return Fail("cannot write " + folder + "/fleet.html", 1);
    std::fputs(obdfleet::FleetText(fleet).c_str(), stdout);
    int bad = 0;
    for (const obdfleet::Json& r : fleet["rows"]) bad += r["status"] != "ok";
    std::printf("fleet: %zu trips, %d not replayed cleanly; %s/fleet.csv, %s/fleet.html\n",
                fleet["rows"].size(), bad, folder.c_str(), folder.c_str());
    return bad == 0 ? 0 : 6;
}

}  // namespace

int Run(int argc, char** argv) {
    CLI::App app{"The fleet table and page of a fleet run; synthetic fleets."};
    app.require_subcommand(1);
    std::string folder;
    CLI::App* table = app.add_subcommand("table", "write OUT/fleet.csv and OUT/fleet.html");
    table->add_option("OUT", folder, "a fleet run's folder (scripts/fleet.sh --out)")->required();
    int vehicles = 0;
    double hours = 1;
    std::string out;
    uint64_t seed = 1;
    bool motion = false;
    CLI::App* synth = app.add_subcommand("synth", "write a synthetic fleet's trips");
    synth->add_option("--vehicles", vehicles, "how many vehicles (one trip each)")
        ->required()
        ->check(CLI::Range(1, 100000));
    synth->add_option("--hours", hours, "each trip's vehicle hours")->check(CLI::Range(0.01, 48.0));
    synth->add_option("--out", out, "the fleet folder")->required();
    synth->add_option("--seed", seed, "vehicle v drives the swarm's drive of seed S + v");
    synth->add_flag("--motion", motion, "add the inertial columns (the replay then sends them)");
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        return Fail(e.what(), 2);
    }
    if (*table) return Table(folder);
    for (int v = 0; v < vehicles; ++v) {
        std::string error;
        if (obdfleet::WriteVehicle(out, seed, v, hours, motion, error).empty())
            return Fail(error, 1);
    }
    std::printf("fleet: %d vehicles of %g h under %s\n", vehicles, hours, out.c_str());
    return 0;
}

int main(int argc, char** argv) {
    // Whatever escapes (a summary that is not what it says, memory) still ends in one line.
    try {
        return Run(argc, argv);
    } catch (const std::exception& e) {
        return Fail(e.what(), 1);
    } catch (...) {
        return Fail("unexpected error", 1);
    }
}

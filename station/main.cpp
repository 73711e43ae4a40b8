// orvel-station: what `orvel station` and `orvel spots` run.
#include <CLI/CLI.hpp>
#include <string>

#include "base/console.h"
#include "base/error.h"
#include "demo/demo.h"
#include "exit_status.h"
#include "liborvel.h"
#include "program.h"
#include "service/doctor.h"
#include "service/station.h"
#include "spots_command.h"
#include "system/child.h"

namespace {

std::string orvel_command() {
    std::string program = find_beside("orvel");
    if (program.empty()) throw IoError("the orvel command is not there");
    return program;
}

int run_command(int argc, char** argv) {
    int status = EXIT_DONE;
    CLI::App app("A station that listens for months: receivers in, spots kept and passed on", "orvel-station");
    app.set_version_flag("--version", std::string("orvel-station ") + ovl_version());
    app.require_subcommand(1);

    std::string file;
    CLI::App* run = app.add_subcommand("run", "Run a station by its configuration; SIGHUP reads it again");
    run->add_option("FILE", file, "Configuration")->required();
    run->callback([&] { status = run_station(file, orvel_command()); });
    CLI::App* check = app.add_subcommand("check", "Print every mistake of a configuration, with its line and column");
    check->add_option("FILE", file, "Configuration")->required();
    check->callback([&] { status = check_station(file) ? EXIT_DONE : EXIT_USAGE; });
    CLI::App* doctor = app.add_subcommand("doctor", "Look after receivers, clock, disk and outputs: a line each");
    doctor->add_option("FILE", file, "Configuration")->required();
    doctor->callback([&] { status = examine_station(file, orvel_command()) ? EXIT_DONE : EXIT_FAILED; });
    CLI::App* demo = app.add_subcommand("demo", "Show the page, with simulated beacons on simulated receivers");
    demo->callback([&] { status = run_demo(orvel_command()); });
    add_spots(app, status);

    return run_command_line(
        app, [&] { app.parse(argc, argv); }, status);
}

}  // namespace

int main(int argc, char** argv) {
    return run_program([&] { return run_command(argc, argv); });
}

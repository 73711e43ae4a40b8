// orvel: the library at the command line. Each subcommand has its own file.
#include <CLI/CLI.hpp>
#include <csignal>
#include <exception>
#include <memory>
#include <new>
#include <string>

#include "base/console.h"
#include "base/error.h"
#include "exit_status.h"
#include "help.h"
#include "liborvel.h"
#include "subcommands.h"

namespace {

int run_command(int argc, char** argv) {
    int status = EXIT_DONE;
    CLI::App app("Encoder and decoder for slow, weak radio beacons", "orvel");
    app.set_version_flag("--version", std::string("orvel ") + ovl_version());
    app.require_subcommand(1);
    app.formatter(std::make_shared<HelpFormatter>());  // before the subcommands, which inherit it
    add_subcommands(app, status);

    if (argc < 2) {
        std::fputs(app.help().c_str(), stderr);
        return EXIT_USAGE;
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        print(app.help());
    } catch (const CLI::CallForVersion& version) {
        print(std::string(version.what()) + "\n");
    } catch (const CLI::ParseError& error) {
        print_error(error.what());
        status = EXIT_USAGE;
    } catch (const UsageError& error) {
        print_error(error.what());
        status = EXIT_USAGE;
    }
    if (!flush_output() && status == EXIT_DONE) status = EXIT_FAILED;
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    // Writing into a pipe that nobody reads, or beyond the limit of a file's size, is then an error like any other, not
    // the end of the process.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    try {
        return run_command(argc, argv);
    } catch (const std::bad_alloc&) {
        print_error("memory is short");
    } catch (const std::exception& error) {
        print_error(error.what());
    }
    return EXIT_FAILED;
}

// orvel-collector: what `orvel collect` runs.
#include <CLI/CLI.hpp>
#include <csignal>
#include <exception>
#include <new>
#include <string>

#include "base/console.h"
#include "base/error.h"
#include "base/text.h"
#include "collect_options.h"
#include "collector.h"
#include "liborvel.h"

namespace {

constexpr int EXIT_USAGE = 2;

int collect(const CollectOptions& options) {
    std::vector<Mistake> mistakes;
    const CollectorConfig config = read_collector_config(options.config, mistakes);
    for (const Mistake& mistake : mistakes) {
        print_error(format("%s:%u:%u: %s", options.config.c_str(), mistake.line, mistake.column, mistake.text.c_str()));
    }
    if (!mistakes.empty()) return EXIT_USAGE;
    return options.check ? EXIT_SUCCESS : run_collector(config);
}

int run_command(int argc, char** argv) {
    CLI::App app("A network's spots from stations into a database", "orvel-collector");
    app.set_version_flag("--version", std::string("orvel-collector ") + ovl_version());
    app.require_subcommand(1);
    CollectOptions options;
    add_collect_options(app, options);
    int status = EXIT_SUCCESS;
    try {
        app.parse(argc, argv);
        status = collect(options);
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
    if (!flush_output() && status == EXIT_SUCCESS) status = EXIT_FAILURE;
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);
    try {
        return run_command(argc, argv);
    } catch (const std::bad_alloc&) {
        print_error("memory is short");
    } catch (const std::exception& error) {
        print_error(error.what());
    }
    return EXIT_FAILURE;
}

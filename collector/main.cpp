// orvel-collector: what `orvel collect` runs.
#include <CLI/CLI.hpp>
#include <string>

#include "base/console.h"
#include "base/error.h"
#include "base/text.h"
#include "collect_options.h"
#include "collector.h"
#include "exit_status.h"
#include "liborvel.h"
#include "program.h"

namespace {

int collect(const CollectOptions& options) {
    std::vector<Mistake> mistakes;
    const CollectorConfig config = read_collector_config(options.config, mistakes);
    for (const Mistake& mistake : mistakes) {
        print_error(format("%s:%u:%u: %s", options.config.c_str(), mistake.line, mistake.column, mistake.text.c_str()));
    }
    if (!mistakes.empty()) return EXIT_USAGE;
    return options.check ? EXIT_DONE : run_collector(config);
}

int run_command(int argc, char** argv) {
    CLI::App app("A network's spots from stations into a database", "orvel-collector");
    app.set_version_flag("--version", std::string("orvel-collector ") + ovl_version());
    app.require_subcommand(1);
    CollectOptions options;
    add_collect_options(app, options);
    int status = EXIT_DONE;
    const auto parse = [&] {
        app.parse(argc, argv);
        status = collect(options);
    };
    return run_command_line(app, parse, status);
}

}  // namespace

int main(int argc, char** argv) {
    return run_program([&] { return run_command(argc, argv); });
}

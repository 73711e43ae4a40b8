#include "collect_options.h"

CLI::App* add_collect_options(CLI::App& app, CollectOptions& options) {
    CLI::App* const sub = app.add_subcommand("collect", "Bring the spots of many stations into PostgreSQL");
    sub->add_option("FILE", options.config, "Configuration")->required();
    sub->add_flag("--check", options.check, "Print every mistake of the configuration, with its line and column");
    return sub;
}

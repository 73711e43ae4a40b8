// `orvel station` and `orvel spots` are a program of their own, and `orvel collect` another, which most users of the
// command do without: it takes the place of this one.
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/error.h"
#include "collect_options.h"
#include "spots_options.h"
#include "subcommands.h"
#include "system/child.h"

namespace {

constexpr const char* STATION = "orvel-station";
constexpr const char* COLLECTOR = "orvel-collector";

// Does not return.
[[noreturn]] void become(const char* program, std::vector<std::string> words) {
    const std::string path = find_beside(program);
    if (path.empty()) throw IoError(std::string(program) + " is not installed; it comes in a package of this name");
    words.insert(words.begin(), program);
    try {
        become_program(path, std::move(words));
    } catch (const IoError& error) {
        throw IoError("cannot run '" + path + "': " + error.what());
    }
}

// What was typed for a subcommand, as words.
std::vector<std::string> words_of(const CLI::App& sub) {
    std::vector<std::string> words = {sub.get_name()};
    for (const CLI::Option* option : sub.get_options()) {
        const bool is_flag = option->get_items_expected_max() == 0;
        for (const std::string& value : option->results()) {
            words.push_back("--" + option->get_single_name() + (is_flag ? "" : "=" + value));
        }
    }
    return words;
}

}  // namespace

void add_station(CLI::App& app, int&) {
    CLI::App* const sub = app.add_subcommand("station", "Listen for months: keep spots and pass them on");
    sub->prefix_command();
    sub->footer(
        "Usage of a command: orvel station COMMAND [ARGUMENT...]\n\n"
        "Commands:\n"
        "  run FILE              Run a station by its configuration; SIGHUP reads it again\n"
        "  check FILE            Print every mistake of a configuration, with its line and column\n"
        "  doctor FILE           Look after receivers, clock, disk and outputs: a line each\n"
        "  demo                  The same as --demo\n"
        "\norvel station COMMAND --help shows the options of one.");
    const CLI::Option* const demo = sub->add_flag("--demo")->description(
        "Show the page, with simulated beacons on simulated receivers; needs no FILE");
    sub->callback([sub, demo] {
        std::vector<std::string> words = sub->remaining();
        if (*demo) words.insert(words.begin(), "demo");
        if (words.empty()) throw UsageError("station: which command? (orvel station --help lists them)");
        become(STATION, std::move(words));
    });
}

void add_spots(CLI::App& app, int&) {
    const auto options = std::make_shared<SpotsOptions>();
    CLI::App* const sub = add_spots_options(app, *options);
    sub->callback([sub, options] { become(STATION, words_of(*sub)); });
}

void add_collect(CLI::App& app, int&) {
    const auto options = std::make_shared<CollectOptions>();
    CLI::App* const sub = add_collect_options(app, *options);
    sub->callback([options] {
        std::vector<std::string> words = {"collect"};
        if (options->check) words.emplace_back("--check");
        words.insert(words.end(), {"--", options->config});
        become(COLLECTOR, std::move(words));
    });
}

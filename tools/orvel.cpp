// orvel: the library at the command line. Each subcommand has its own file.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>
#include <memory>
#include <numeric>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/console.h"
#include "base/error.h"
#include "exit_status.h"
#include "help.h"
#include "liborvel.h"
#include "program.h"
#include "sources/source.h"
#include "subcommands.h"
#include "system/standard_streams.h"

namespace {

// Steps from one word to another: characters left out, put in or replaced.
std::size_t distance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 1; i <= a.size(); i++) {
        std::size_t diagonal = std::exchange(row[0], i);
        for (std::size_t j = 1; j <= b.size(); j++) {
            const std::size_t replaced = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
            diagonal = std::exchange(row[j], std::min({row[j] + 1, row[j - 1] + 1, replaced}));
        }
    }
    return row.back();
}

const CLI::App* find_subcommand(const CLI::App& app, const std::string& name) {
    const auto subcommands = app.get_subcommands({});
    const auto found = std::ranges::find(subcommands, name, [](const CLI::App* sub) { return sub->get_name(); });
    return found == subcommands.end() ? nullptr : *found;
}

// Throws UsageError, with the nearest name if there is a near one.
[[noreturn]] void refuse_subcommand(const CLI::App& app, const std::string& name) {
    if (is_left_out(name)) throw UsageError("'" + name + "' is left out of this build of orvel");
    const auto subcommands = app.get_subcommands({});
    const auto nearest =
        std::ranges::min_element(subcommands, {}, [&](const CLI::App* sub) { return distance(name, sub->get_name()); });
    const std::string& near = (*nearest)->get_name();
    const bool is_near = distance(name, near) <= 2 || near.starts_with(name);
    throw UsageError("'" + name + "' is not a subcommand" +
                     (is_near ? "; did you mean '" + near + "'?" : " (orvel --help lists them)"));
}

// The help of a subcommand, or of the command where the name is empty.
std::string help_of(const CLI::App& app, const std::string& name) {
    if (name.empty()) return app.help();
    const CLI::App* const sub = find_subcommand(app, name);
    if (sub == nullptr) refuse_subcommand(app, name);
    return sub->help("orvel");
}

// What needs no subcommand to run: help in words, and the version wherever it is asked for. False otherwise.
bool answer(const CLI::App& app, std::span<char* const> words) {
    const std::string first = words.front();
    if (first == "help") {
        if (words.size() > 2) throw UsageError("help takes one subcommand");
        print(help_of(app, words.size() > 1 ? words[1] : ""));
        return true;
    }
    if (first.starts_with('-')) return false;
    if (find_subcommand(app, first) == nullptr) refuse_subcommand(app, first);
    for (const std::string_view word : words) {
        if (word == "--") return false;
        if (word != "--version") continue;
        print(app.version() + "\n");
        return true;
    }
    return false;
}

int run_command(std::vector<std::string> arguments) {
    int status = EXIT_DONE;
    CLI::App app("Encoder and decoder for slow, weak radio beacons", "orvel");
    app.set_version_flag("--version", std::string("orvel ") + ovl_version());
    app.require_subcommand(1);
    // Before the subcommands, which inherit these.
    app.formatter(std::make_shared<HelpFormatter>());
    app.allow_windows_style_options(false);  // a / begins a path there, too
    add_subcommands(app, status);

    std::vector<char*> words;
    words.reserve(arguments.size());
    for (std::string& argument : arguments) words.push_back(argument.data());
    if (words.size() < 2) {
        std::fputs(app.help().c_str(), stderr);
        return EXIT_USAGE;
    }
    const auto parse = [&] {
        if (!answer(app, std::span(words).subspan(1))) app.parse(static_cast<int>(words.size()), words.data());
    };
    return run_command_line(app, parse, status);
}

}  // namespace

int main(int argc, char** argv) {
    const int status = run_program([&] { return run_command(begin_program(argc, argv)); });
    if (any_source_hangs()) {
        flush_output();
        std::_Exit(EXIT_FAILED);
    }
    return status;
}

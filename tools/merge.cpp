#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "archive/merge.h"
#include "base/console.h"
#include "base/error.h"
#include "exit_status.h"
#include "spots/spot.h"
#include "subcommands.h"
#include "system/files.h"

namespace {

void read_shards(const std::string& name, Merge& merge) {
    if (name == "-") return merge.add(name, std::cin);
    std::ifstream file(native_path(name), std::ios::binary);
    if (!file) throw IoError("cannot read '" + name + "'");
    merge.add(name, file);
}

int merge_shards(const std::vector<std::string>& files) {
    Merge merge;
    for (const std::string& file : files) read_shards(file, merge);
    const auto missing = merge.missing();
    for (const std::string& line : missing) print_error(line);
    if (!missing.empty()) return EXIT_FAILED;
    int status = EXIT_DONE;
    merge.finish([](const Spot& spot) { print(spot_line(spot)); },
                 [&](const std::string& problem) {
                     print_error(problem);
                     status = EXIT_FAILED;
                 });
    return status;
}

}  // namespace

void add_merge(CLI::App& app, int& status) {
    CLI::App* sub = app.add_subcommand("merge", "Join what 'orvel decode --shard' found on several machines");
    const auto files = std::make_shared<std::vector<std::string>>();
    sub->add_option("FILE", *files, "Output of 'orvel decode --shard', in any order; - is standard input")->required();
    sub->footer(
        "Prints the lines that 'orvel decode --json' prints of the whole list, or, when a part is missing, none.");
    sub->callback([files, &status] { status = merge_shards(*files); });
}

// How the help of the command and of its subcommands looks.
#pragma once

#include <CLI/CLI.hpp>
#include <cstddef>
#include <string>

// Columns that help may take: those of the terminal that is standard output; else $COLUMNS, if that is 40 to 1000; else
// 80. Never below 60, where descriptions become too narrow, or above 120, where lines are hard to read.
std::size_t help_width();

// Names on the left, descriptions on the right, neither wider than the help. Lines break between words and continue
// under their description; what fits, as a table in a footer, stays as it was written.
//
//     -o,--output FILE      WAV file to write (required)
//     --chips[=FRAME]       An option whose value may be missing
//
// What a description does not say itself is added to it in words: that the option is required, what range its value
// has, what it needs, and what it excludes. Defaults are left to the descriptions.
//
// Subcommands inherit the formatter from a command that has it when they are added.
class HelpFormatter : public CLI::Formatter {
  public:
    explicit HelpFormatter(std::size_t width = help_width());

    std::string make_description(const CLI::App* app) const override;
    std::string make_usage(const CLI::App* app, std::string name) const override;
    std::string make_footer(const CLI::App* app) const override;
    std::string make_subcommand(const CLI::App* sub) const override;
    std::string make_option(const CLI::Option* option, bool is_positional) const override;

  private:
    std::string entry(const std::string& name, const std::string& description) const;

    std::size_t width_;
};

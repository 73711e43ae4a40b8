#include "help.h"
#include "system/terminal.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <set>
#include <sstream>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

namespace {

constexpr std::size_t NAME_COLUMNS = 24;  // as the tables in footers have it
constexpr std::size_t NAME_GAP = 2;       // at least, before a description
constexpr std::size_t NARROWEST = 60, USUAL = 80, WIDEST = 120;
constexpr std::size_t LEAST_COLUMNS = 40, MOST_COLUMNS = 1000;  // that $COLUMNS is believed

// ---- Lines ----------------------------------------------------------------------------------------------------------

// Characters of UTF-8, of which each takes a column.
std::size_t characters_in(std::string_view text) {
    const auto begins = [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; };
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), begins));
}

// The words of a text that begins at column `indent`, on as many lines as it takes. A word that is wider than a line
// stays whole.
std::string wrap(const std::string& text, std::size_t indent, std::size_t width) {
    std::istringstream words(text);
    std::string wrapped;
    std::size_t column = indent;
    for (std::string word; words >> word;) {
        const std::size_t length = characters_in(word);
        if (column > indent && column + 1 + length > width) {
            wrapped += '\n' + std::string(indent, ' ');
            column = indent;
        } else if (column > indent) {
            wrapped += ' ';
            column++;
        }
        wrapped += word;
        column += length;
    }
    return wrapped;
}

// Bytes of a line before what may be wrapped: its indentation, and the first column if it is one of a table.
std::size_t head_of(std::string_view line) {
    const std::size_t begin = std::min(line.find_first_not_of(' '), line.size());
    const std::size_t gap = line.find("  ", begin);
    if (begin == 0 || gap == std::string_view::npos) return begin;
    return std::min(line.find_first_not_of(' ', gap), line.size());
}

// A text of several lines, of which those that are too wide continue on the next line.
std::string wrap_lines(const std::string& text, std::size_t width) {
    std::istringstream lines(text);
    std::string wrapped;
    for (std::string line; std::getline(lines, line);) {
        if (characters_in(line) > width) {
            const std::string rest = line.substr(head_of(line));
            line.resize(line.size() - rest.size());
            line += wrap(rest, characters_in(line), width);
        }
        wrapped += line + '\n';
    }
    return wrapped;
}

// ---- Options --------------------------------------------------------------------------------------------------------

struct Value {
    std::string name;   // "N"
    std::string range;  // "1 to 1024", or "" for any
};

// CLI11 writes the checks of a value after its name: "N:INT in [1 - 1024]".
Value value_of(const CLI::Option& option) {
    const std::string text = option.get_type_name();
    for (const std::string_view check : {":INT in [", ":UINT in [", ":FLOAT in ["}) {
        const std::size_t begin = text.find(check);
        if (begin == std::string::npos) continue;
        const std::size_t range = begin + check.size();
        return {text.substr(0, begin),
                CLI::detail::find_and_replace(text.substr(range, text.find(']', range) - range), " - ", " to ")};
    }
    for (const auto& [check, range] : {std::pair{":POSITIVE", "above 0"}, {":NONNEGATIVE", "0 or more"}}) {
        if (text.ends_with(check)) return {text.substr(0, text.size() - std::strlen(check)), range};
    }
    return {text, ""};
}

std::string name_of_positional(const CLI::Option& option) {
    const bool several = option.get_expected_max() >= CLI::detail::expected_max_vector_size;
    return option.get_name(true, false) + (several ? "..." : "");
}

// "-o,--output FILE", "--chips[=FRAME]"
std::string name_of_option(const CLI::Option& option) {
    std::string name;
    for (const std::string& letter : option.get_snames()) name += (name.empty() ? "-" : ",-") + letter;
    for (const std::string& word : option.get_lnames()) name += (name.empty() ? "--" : ",--") + word;
    const std::string value = value_of(option).name;
    if (value.empty() || option.get_type_size() == 0) return name;
    if (option.get_items_expected_max() == 0) return name + "[=" + value + "]";
    const bool several = option.get_expected_max() >= CLI::detail::expected_max_vector_size;
    return name + " " + value + (several ? "..." : "");
}

// "--draw, --json", in an order that does not depend on their addresses
std::string names_of(const std::set<CLI::Option*>& options) {
    std::vector<std::string> names(options.size());
    std::transform(options.begin(), options.end(), names.begin(), [](const CLI::Option* o) { return o->get_name(); });
    std::sort(names.begin(), names.end());
    return CLI::detail::join(names, ", ");
}

// Whether a phrase is in a text and not a part of longer words or numbers.
bool says(std::string_view text, std::string_view phrase) {
    const auto joins = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '.' || c == '-'; };
    for (std::size_t at = text.find(phrase); at != std::string_view::npos; at = text.find(phrase, at + 1)) {
        const std::size_t end = at + phrase.size();
        if ((at == 0 || !joins(text[at - 1])) && (end == text.size() || !joins(text[end]))) return true;
    }
    return false;
}

// The description, and in parentheses what it leaves unsaid.
std::string describe(const CLI::Option& option, bool is_positional) {
    const std::string& description = option.get_description();
    std::vector<std::string> notes;
    const auto note = [&](const std::string& phrase) {
        if (!says(description, phrase)) notes.push_back(phrase);
    };
    const std::string range = value_of(option).range;
    if (!range.empty()) note(range);
    if (option.get_required() && !is_positional) note("required");  // for others, the usage line says so
    if (!option.get_needs().empty()) note("needs " + names_of(option.get_needs()));
    if (!option.get_excludes().empty()) note("not with " + names_of(option.get_excludes()));
    if (notes.empty()) return description;
    return description + (description.empty() ? "(" : " (") + CLI::detail::join(notes, "; ") + ")";
}

}  // namespace

std::size_t help_width() {
    std::size_t width = USUAL;
    const std::size_t columns_there = is_terminal(Stream::OUTPUT) ? terminal_columns(Stream::OUTPUT) : 0;
    const char* const variable = std::getenv("COLUMNS");
    if (columns_there > 0) {
        width = columns_there;
    } else if (variable != nullptr) {
        const char* const end = variable + std::strlen(variable);
        std::size_t columns = 0;
        const auto [stop, error] = std::from_chars(variable, end, columns);
        if (error == std::errc() && stop == end && columns >= LEAST_COLUMNS && columns <= MOST_COLUMNS) width = columns;
    }
    return std::clamp(width, NARROWEST, WIDEST);
}

HelpFormatter::HelpFormatter(std::size_t width) : width_(width) {
    column_width(NAME_COLUMNS);
}

std::string HelpFormatter::make_description(const CLI::App* app) const {
    return wrap_lines(Formatter::make_description(app), width_);
}

std::string HelpFormatter::make_usage(const CLI::App* app, std::string name) const {
    return wrap_lines(Formatter::make_usage(app, std::move(name)), width_);
}

std::string HelpFormatter::make_footer(const CLI::App* app) const {
    return wrap_lines(Formatter::make_footer(app), width_);
}

std::string HelpFormatter::make_subcommand(const CLI::App* sub) const {
    return entry(sub->get_display_name(true), sub->get_description());
}

std::string HelpFormatter::make_option(const CLI::Option* option, bool is_positional) const {
    return entry(is_positional ? name_of_positional(*option) : name_of_option(*option),
                 describe(*option, is_positional));
}

std::string HelpFormatter::entry(const std::string& name, const std::string& description) const {
    std::string text = "  " + name;
    if (!description.empty()) {
        const std::size_t columns = get_column_width();
        const std::size_t taken = characters_in(text);
        text += taken + NAME_GAP > columns ? "\n" + std::string(columns, ' ') : std::string(columns - taken, ' ');
        text += wrap(description, columns, width_);
    }
    return text + "\n";
}

// Tables of a TOML file, read by the names that may be in them. What is wrong is noted with its place, and reading goes
// on, so that one look shows every mistake.
#pragma once

#include <toml++/toml.h>
#include <limits>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

struct Mistake {
    uint32_t line, column;  // from 1
    std::string text;
    bool operator==(const Mistake&) const = default;
};

enum class Kind {
    TEXT,
    TEXTS,  // an array, or one text
    NUMBER,
    FLAG,
    SECRET,  // a text, or, under this name with "_file" behind, the first line of a file
};

// A name that a table may hold.
struct Key {
    std::string_view name;
    Kind kind;
    bool required = false;
    double low = -std::numeric_limits<double>::infinity();  // of a number
    double high = std::numeric_limits<double>::infinity();
};

// What a table holds.
class Values {
  public:
    bool has(std::string_view name) const { return values_.contains(name); }
    std::string text(std::string_view name, std::string otherwise = "") const;
    std::vector<std::string> texts(std::string_view name) const;
    double number(std::string_view name, double otherwise) const;
    bool flag(std::string_view name) const;

    bool operator==(const Values&) const = default;

  private:
    friend Values read_values(const toml::table&, std::span<const Key>, const std::string&, std::vector<Mistake>&);
    std::map<std::string, std::variant<std::string, std::vector<std::string>, double, bool>, std::less<>> values_;
};

// `where` names the table in mistakes. Names that are not among the keys are mistakes.
Values read_values(const toml::table& table, std::span<const Key> keys, const std::string& where,
                   std::vector<Mistake>& mistakes);

// A file of tables; nothing, with a mistake noted, when it is none. Throws IoError when it cannot be read.
std::optional<toml::table> parse_file(const std::string& path, std::vector<Mistake>& mistakes);

// Notes a mistake at a place of the file.
void note(const toml::node& node, const std::string& text, std::vector<Mistake>& mistakes);

#include "config/values.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <optional>
#include <utility>

#include "base/error.h"
#include "base/text.h"

namespace {

constexpr std::string_view FILE_SUFFIX = "_file";
constexpr std::size_t MOST_BYTES = 1 << 20;  // of a file

const Key* find_key(std::span<const Key> keys, std::string_view name) {
    const auto found = std::ranges::find_if(keys, [&](const Key& key) {
        return key.name == name || (key.kind == Kind::SECRET && name.size() == key.name.size() + FILE_SUFFIX.size() &&
                                    name.starts_with(key.name) && name.ends_with(FILE_SUFFIX));
    });
    return found == keys.end() ? nullptr : &*found;
}

std::string names_of(std::span<const Key> keys) {
    std::string names;
    for (const Key& key : keys) names.append(names.empty() ? "" : ", ").append(key.name);
    return names;
}

std::optional<std::vector<std::string>> texts_of(const toml::node& node) {
    std::vector<std::string> texts;
    if (const auto text = node.value<std::string>()) return std::vector{*text};
    const toml::array* const array = node.as_array();
    if (array == nullptr) return std::nullopt;
    texts.reserve(array->size());
    for (const toml::node& item : *array) {
        const auto text = item.value_exact<std::string>();
        if (!text) return std::nullopt;
        texts.push_back(*text);
    }
    return texts;
}

std::optional<std::string> first_line(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    if (!std::getline(file, line)) return std::nullopt;
    return line;
}

using Value = std::variant<std::string, std::vector<std::string>, double, bool>;

// A key's value, or the reason why it is none.
struct Read {
    std::optional<Value> value;
    std::string problem;
};

template <class Got>
Read read_as(std::optional<Got> value, const char* problem) {
    if (value) return {std::move(*value), ""};
    return {std::nullopt, problem};
}

Read read_number(const toml::node& node, const Key& key) {
    const auto number = node.value<double>();
    if (!number || node.is_boolean() || !std::isfinite(*number)) return {std::nullopt, "is not a number"};
    if (*number >= key.low && *number <= key.high) return {*number, ""};
    return {std::nullopt, format("is out of range (%g to %g)", key.low, key.high)};
}

Read read_value(const toml::node& node, const Key& key, std::string_view name) {
    switch (key.kind) {
        case Kind::NUMBER:
            return read_number(node, key);
        case Kind::TEXTS:
            return read_as(texts_of(node), "is neither a text nor an array of texts");
        case Kind::FLAG:
            return read_as(node.value_exact<bool>(), "is neither true nor false");
        case Kind::TEXT:
        case Kind::SECRET:
            break;
    }
    const auto text = node.value_exact<std::string>();
    if (!text || name == key.name) return read_as(text, "is not a text");
    return read_as(first_line(*text), ("cannot be read from '" + *text + "'").c_str());
}

std::string read_file(const std::string& path) {
    errno = 0;
    std::ifstream file(path, std::ios::binary);
    std::string text(MOST_BYTES + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (!file.eof()) {
        const bool too_large = static_cast<std::size_t>(file.gcount()) == text.size();
        throw IoError("cannot read '" + path +
                      "': " + (too_large ? "it is too large" : std::strerror(errno != 0 ? errno : EIO)));
    }
    text.resize(static_cast<std::size_t>(file.gcount()));
    return text;
}

}  // namespace

std::optional<toml::table> parse_file(const std::string& path, std::vector<Mistake>& mistakes) {
    const std::string text = read_file(path);
    try {
        return toml::parse(text, path);
    } catch (const toml::parse_error& error) {
        mistakes.push_back({error.source().begin.line, error.source().begin.column, std::string(error.description())});
        return std::nullopt;
    }
}

void note(const toml::node& node, const std::string& text, std::vector<Mistake>& mistakes) {
    mistakes.push_back({node.source().begin.line, node.source().begin.column, text});
}

std::string Values::text(std::string_view name, std::string otherwise) const {
    const auto found = values_.find(name);
    if (found == values_.end()) return otherwise;
    return std::get<std::string>(found->second);
}

std::vector<std::string> Values::texts(std::string_view name) const {
    const auto found = values_.find(name);
    return found == values_.end() ? std::vector<std::string>{} : std::get<std::vector<std::string>>(found->second);
}

double Values::number(std::string_view name, double otherwise) const {
    const auto found = values_.find(name);
    return found == values_.end() ? otherwise : std::get<double>(found->second);
}

bool Values::flag(std::string_view name) const {
    const auto found = values_.find(name);
    return found != values_.end() && std::get<bool>(found->second);
}

Values read_values(const toml::table& table, std::span<const Key> keys, const std::string& where,
                   std::vector<Mistake>& mistakes) {
    Values read;
    const auto wrong = [&](const toml::node& node, std::string_view name, const std::string& problem) {
        note(node, format("%s: %.*s %s", where.c_str(), static_cast<int>(name.size()), name.data(), problem.c_str()),
             mistakes);
    };
    for (const auto& [name, node] : table) {
        const Key* const key = find_key(keys, name.str());
        if (key == nullptr) {
            wrong(node, format("'%s'", std::string(name.str()).c_str()), "is not one of " + names_of(keys));
            continue;
        }
        auto [value, problem] = read_value(node, *key, name.str());
        if (value) {
            read.values_.insert_or_assign(std::string(key->name), std::move(*value));
        } else {
            wrong(node, key->name, problem);
        }
    }
    for (const Key& key : keys) {
        const bool from_file = key.kind == Kind::SECRET && table.contains(std::string(key.name).append(FILE_SUFFIX));
        if (key.required && !table.contains(key.name) && !from_file) wrong(table, key.name, "is missing");
    }
    return read;
}

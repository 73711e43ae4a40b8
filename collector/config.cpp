#include <algorithm>
#include <array>

#include "base/error.h"
#include "collector.h"

namespace {

constexpr std::array BROKER_KEYS = {Key{"host", Kind::TEXT, true}, Key{"port", Kind::NUMBER, false, 1, 65535},
                                    Key{"user", Kind::TEXT},       Key{"password", Kind::SECRET},
                                    Key{"ca_file", Kind::TEXT},    Key{"prefix", Kind::TEXT}};
constexpr std::array DATABASE_KEYS = {Key{"connection", Kind::TEXT, true}, Key{"password", Kind::SECRET}};
constexpr std::array COLLECTOR_KEYS = {Key{"name", Kind::TEXT}};

struct Table {
    const char* name;
    std::span<const Key> keys;
    bool required;
    Values CollectorConfig::*values;
};
constexpr std::array TABLES = {Table{"broker", BROKER_KEYS, true, &CollectorConfig::broker},
                               Table{"database", DATABASE_KEYS, true, &CollectorConfig::database},
                               Table{"collector", COLLECTOR_KEYS, false, &CollectorConfig::collector}};

}  // namespace

CollectorConfig read_collector_config(const std::string& path, std::vector<Mistake>& mistakes) {
    CollectorConfig config;
    const auto parsed = parse_file(path, mistakes);
    if (!parsed) return config;
    const toml::table& file = *parsed;
    for (const Table& table : TABLES) {
        const toml::node* const node = file.get(table.name);
        if (node == nullptr) {
            if (table.required) note(file, std::string("[") + table.name + "] is missing", mistakes);
        } else if (const toml::table* const found = node->as_table()) {
            config.*table.values = read_values(*found, table.keys, table.name, mistakes);
        } else {
            note(*node, std::string("'") + table.name + "' is not a table", mistakes);
        }
    }
    for (const auto& [name, node] : file) {
        if (std::ranges::find(TABLES, name.str(), &Table::name) == TABLES.end()) {
            note(node, "'" + std::string(name.str()) + "' is not one of broker, database, collector", mistakes);
        }
    }
    return config;
}

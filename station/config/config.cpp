#include "config/config.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <optional>

#include "base/callsign.h"
#include "base/text.h"
#include "liborvel.h"

namespace {

constexpr double DAY_MINUTES = 1440;

constexpr std::array STATION_KEYS = {Key{"callsign", Kind::TEXT, true}, Key{"locator", Kind::TEXT, true},
                                     Key{"antenna", Kind::TEXT}};
constexpr std::array STORE_KEYS = {Key{"path", Kind::TEXT, true}, Key{"keep_days", Kind::NUMBER, false, 1, 36500},
                                   Key{"most_megabytes", Kind::NUMBER, false, 10, 1e7}};
constexpr std::array WEB_KEYS = {Key{"address", Kind::TEXT}, Key{"port", Kind::NUMBER, false, 0, 65535},
                                 Key{"token", Kind::SECRET}, Key{"hosts", Kind::TEXTS}};
constexpr std::array OUTPUT_KEYS = {Key{"type", Kind::TEXT, true}, Key{"name", Kind::TEXT},
                                    Key{"doubtful", Kind::FLAG}};

// What a receiver's table holds, and the option of `orvel listen` that it becomes; those without one are the station's
// own.
struct ReceiverKey {
    Key key;
    std::string_view option;
};
constexpr std::array RECEIVER_KEYS = {
    ReceiverKey{{"name", Kind::TEXT, true}, ""},
    ReceiverKey{{"source", Kind::TEXT, true}, ""},
    ReceiverKey{{"hours", Kind::TEXTS}, ""},
    ReceiverKey{{"rate", Kind::NUMBER, false, 1, 1e8}, "--rate"},
    ReceiverKey{{"iq", Kind::FLAG}, "--iq"},
    ReceiverKey{{"dial", Kind::NUMBER, false, 0, 1e11}, "--dial"},
    ReceiverKey{{"sideband", Kind::TEXT}, "--sideband"},
    ReceiverKey{{"center", Kind::NUMBER}, "--center"},
    ReceiverKey{{"search", Kind::NUMBER, false, 0, 1e9}, "--search"},
    ReceiverKey{{"spread", Kind::NUMBER, false, 0, 1e3}, "--spread"},
    ReceiverKey{{"wide", Kind::FLAG}, "--wide"},
    ReceiverKey{{"band", Kind::TEXT}, "--band"},
    ReceiverKey{{"protocols", Kind::TEXTS}, "--protocol"},
    ReceiverKey{{"known", Kind::TEXTS}, "--known"},
    ReceiverKey{{"known_file", Kind::TEXT}, "--known-file"},
    ReceiverKey{{"coherent", Kind::FLAG}, "--coherent"},
};

std::string joined(const std::vector<std::string>& texts) {
    std::string all;
    for (const std::string& text : texts) all.append(all.empty() ? "" : ",").append(text);
    return all;
}

// "18:00".
std::optional<int32_t> minute_of_day(std::string_view text) {
    const auto digit = [&](std::size_t at) { return text[at] >= '0' && text[at] <= '9' ? text[at] - '0' : 100; };
    if (text.size() != 5 || text[2] != ':') return std::nullopt;
    const int32_t hour = 10 * digit(0) + digit(1);
    const int32_t minute = 10 * digit(3) + digit(4);
    if (hour > 23 || minute > 59) return std::nullopt;
    return 60 * hour + minute;
}

// "18:00-06:00".
std::optional<Hours> parse_hours(const std::string& text) {
    const std::size_t dash = std::min(text.find('-'), text.size());
    const auto from = minute_of_day(std::string_view(text).substr(0, dash));
    const auto to = minute_of_day(std::string_view(text).substr(std::min(dash + 1, text.size())));
    if (!from || !to || *from == *to) return std::nullopt;
    return Hours{*from, *to};
}

// One file's tables, one after the other.
class Reader {
  public:
    Reader(const toml::table& file, std::span<const OutputKind> kinds, std::vector<Mistake>& mistakes)
        : file_(file), kinds_(kinds), mistakes_(mistakes) {}

    Config read() {
        Config config;
        config.station = table("station", STATION_KEYS, true);
        config.store = table("store", STORE_KEYS, true);
        const Values web = table("web", WEB_KEYS, false);
        if (file_.contains("web")) add_web(web, config);
        for_each("receiver", [&](const toml::table& table) { add_receiver(table, config); });
        for_each("output", [&](const toml::table& table) { add_output(table, config); });
        check_station(config.station);
        for (const auto& [name, node] : file_) {
            constexpr std::array<std::string_view, 5> TABLES = {"station", "store", "web", "receiver", "output"};
            if (std::ranges::find(TABLES, name.str()) != TABLES.end()) continue;
            note(node, "'" + std::string(name.str()) + "' is not one of station, store, web, receiver, output",
                 mistakes_);
        }
        return config;
    }

  private:
    Values table(const std::string& name, std::span<const Key> keys, bool required) {
        const toml::node* const node = file_.get(name);
        if (node == nullptr) {
            if (required) note(file_, "[" + name + "] is missing", mistakes_);
            return {};
        }
        if (const toml::table* const found = node->as_table()) return read_values(*found, keys, name, mistakes_);
        note(*node, "'" + name + "' is not a table", mistakes_);
        return {};
    }

    template <class Add>
    void for_each(const std::string& name, const Add& add) {
        const toml::node* const node = file_.get(name);
        if (node == nullptr) return;
        const toml::array* const tables = node->as_array();
        if (tables == nullptr) return note(*node, "write [[" + name + "]], as there may be several", mistakes_);
        for (const toml::node& item : *tables) {
            if (const toml::table* const one = item.as_table()) {
                add(*one);
            } else {
                note(item, "'" + name + "' is not a table", mistakes_);
            }
        }
    }

    void check_station(const Values& station) {
        const toml::table* const table = file_.get("station") != nullptr ? file_.get("station")->as_table() : nullptr;
        if (table == nullptr) return;
        const std::string callsign = station.text("callsign");
        if (station.has("callsign") && callsign.empty()) note(*table, "station: callsign is empty", mistakes_);
        const std::string locator = station.text("locator");
        if (station.has("locator") && !is_locator(locator)) {
            note(*table, "station: '" + locator + "' is no locator of 4 or 6 characters", mistakes_);
        }
    }

    void add_web(const Values& values, Config& config) {
        config.web = web_config(values);
        const std::string problem = web_problem(*config.web);
        if (!problem.empty()) note(*file_.get("web"), "web: " + problem, mistakes_);
    }

    static bool is_locator(const std::string& text) {
        const std::string upper = upper_case(text);
        const auto within = [&](std::size_t at, char first, char last) {
            return upper[at] >= first && upper[at] <= last && upper[at + 1] >= first && upper[at + 1] <= last;
        };
        if (upper.size() != 4 && upper.size() != 6) return false;
        return within(0, 'A', 'R') && within(2, '0', '9') && (upper.size() == 4 || within(4, 'A', 'X'));
    }

    void add_receiver(const toml::table& table, Config& config) {
        std::array<Key, RECEIVER_KEYS.size()> keys;
        std::ranges::transform(RECEIVER_KEYS, keys.begin(), &ReceiverKey::key);
        const Values values = read_values(table, keys, "receiver", mistakes_);
        ReceiverConfig receiver{values.text("name"),
                                values.text("source"),
                                {"--receiver", values.text("name") + "=" + values.text("source")},
                                {}};
        check_name(table, "receiver", receiver.name, config.receivers);
        for (const auto& [key, option] : RECEIVER_KEYS) {
            if (option.empty() || !values.has(key.name)) continue;
            const std::string name(option);
            if (key.kind == Kind::FLAG) {
                if (values.flag(key.name)) receiver.arguments.push_back(name);
                continue;
            }
            receiver.arguments.push_back(name + "=" +
                                         (key.kind == Kind::NUMBER  ? format("%.10g", values.number(key.name, 0))
                                          : key.kind == Kind::TEXTS ? joined(values.texts(key.name))
                                                                    : values.text(key.name)));
        }
        for (const std::string& text : values.texts("hours")) {
            if (const auto hours = parse_hours(text)) {
                receiver.hours.push_back(*hours);
            } else {
                note(table, "receiver: '" + text + "' are no hours like 18:00-06:00", mistakes_);
            }
        }
        config.receivers.push_back(std::move(receiver));
    }

    void add_output(const toml::table& table, Config& config) {
        const auto type = table["type"].value<std::string>();
        const auto kind = std::ranges::find(kinds_, type.value_or(""), &OutputKind::type);
        if (type && kind == kinds_.end()) {
            std::string names;
            for (const OutputKind& one : kinds_) names.append(names.empty() ? "" : ", ").append(one.type);
            return note(table, "output: '" + *type + "' is not one of " + names, mistakes_);
        }
        std::vector<Key> keys(OUTPUT_KEYS.begin(), OUTPUT_KEYS.end());
        if (kind != kinds_.end()) keys.insert(keys.end(), kind->keys.begin(), kind->keys.end());
        OutputConfig output{type.value_or(""), "", read_values(table, keys, "output", mistakes_)};
        output.name = output.values.text("name", output.type);
        check_name(table, "output", output.name, config.outputs);
        config.outputs.push_back(std::move(output));
    }

    // Names appear in topics, paths and addresses.
    template <class Named>
    void check_name(const toml::table& table, const std::string& what, const std::string& name,
                    const std::vector<Named>& others) {
        constexpr std::string_view ALLOWED = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-";
        if (name.empty() || name.size() > 64 || name.find_first_not_of(ALLOWED) != std::string::npos) {
            note(table, what + ": a name is 1 to 64 letters, digits, _ and -", mistakes_);
        }
        if (std::ranges::find(others, name, &Named::name) != others.end()) {
            note(table, what + ": '" + name + "' is there twice", mistakes_);
        }
    }

    const toml::table& file_;
    std::span<const OutputKind> kinds_;
    std::vector<Mistake>& mistakes_;
};

}  // namespace

bool Hours::contain(double utc) const {
    const auto minute = static_cast<int32_t>(std::fmod(std::floor(utc / 60), DAY_MINUTES));
    return from_minute < to_minute ? minute >= from_minute && minute < to_minute
                                   : minute >= from_minute || minute < to_minute;
}

Config read_config(const std::string& path, std::span<const OutputKind> kinds, std::vector<Mistake>& mistakes) {
    const auto file = parse_file(path, mistakes);
    if (!file) return {};
    Config config = Reader(*file, kinds, mistakes).read();
    std::ranges::stable_sort(mistakes, {}, [](const Mistake& mistake) { return mistake.line; });
    return config;
}

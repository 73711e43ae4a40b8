#include "web/api.h"

#include <sys/timex.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <string_view>

#include "base/error.h"
#include "base/parse.h"
#include "base/text.h"
#include "base/utc.h"
#include "liborvel.h"
#include "web/assets.h"
#include "web/lines.h"

namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t USUAL_SPOTS = 100;
constexpr std::size_t MOST_SPOTS = 1000;
constexpr std::size_t MOST_POINTS = 2000;
constexpr std::size_t USUAL_POINTS = 400;
constexpr double MOST_DAYS = 3700;
constexpr double LAST_YEAR = 253402300799;  // UTC, of what a time can be written as

WebAnswer failure(int status, const std::string& text) {
    return {.status = status, .body = json_text(Json{{"error", text}}) + "\n"};
}

std::optional<uint8_t> hex_digit(char c) {
    if (c >= '0' && c <= '9') return static_cast<uint8_t>(c - '0');
    if (c >= 'a' && c <= 'f') return static_cast<uint8_t>(c - 'a' + 10);
    if (c >= 'A' && c <= 'F') return static_cast<uint8_t>(c - 'A' + 10);
    return std::nullopt;
}

// "a%20b+c" as "a b c". Throws UsageError.
std::string decoded(std::string_view text) {
    std::string plain;
    plain.reserve(text.size());
    for (std::size_t at = 0; at < text.size(); at++) {
        if (text[at] != '%') {
            plain += text[at] == '+' ? ' ' : text[at];
            continue;
        }
        const auto high = at + 2 < text.size() ? hex_digit(text[at + 1]) : std::nullopt;
        const auto low = high ? hex_digit(text[at + 2]) : std::nullopt;
        if (!low || (*high == 0 && *low == 0)) throw UsageError("a % without two digits");
        plain += static_cast<char>(*high << 4 | *low);
        at += 2;
    }
    return plain;
}

// FNV-1a, 64 bits.
std::string etag_of(std::string_view body) {
    uint64_t high = 0xcbf29ce4;
    uint64_t low = 0x84222325;
    for (const char c : body) {
        low ^= static_cast<uint8_t>(c);
        const uint64_t product = low * 0x1b3;  // the prime is 2^40 + 0x1b3
        high = (high * 0x1b3 + (low << 8) + (product >> 32)) & 0xffffffffU;
        low = product & 0xffffffffU;
    }
    return format("\"%08llx%08llx\"", static_cast<unsigned long long>(high), static_cast<unsigned long long>(low));
}

// Of a list of tags, or "*".
bool matches(std::string_view list, std::string_view etag) {
    return list == "*" || list.find(etag) != std::string_view::npos;
}

Json clock_json() {
    timex clock{};
    const int state = adjtimex(&clock);
    const bool synchronized = state >= 0 && state != TIME_ERROR && (clock.status & STA_UNSYNC) == 0;
    return {{"utc", utc_text(utc_now(), 2)},
            {"synchronized", synchronized},
            {"error_s", synchronized ? Json(1e-6 * static_cast<double>(clock.esterror)) : Json()}};
}

// A label's value as Prometheus reads it.
std::string label(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        if (c == '\\' || c == '"') escaped += '\\';
        escaped += c == '\n' ? "\\n" : std::string(1, c);
    }
    return escaped;
}

// One measure of several things.
class Measure {
  public:
    Measure(std::string& text, const char* name, const char* type, const char* help) : text_(text), name_(name) {
        text_ += format("# HELP %s %s\n# TYPE %s %s\n", name, help, name, type);
    }
    void add(const std::string& labels, double value) {
        text_ += name_ + labels + (std::isfinite(value) ? format(" %.12g\n", value) : " NaN\n");
    }

  private:
    std::string& text_;
    std::string name_;
};

}  // namespace

// What stands behind the question mark. Its functions throw UsageError.
struct Api::Query {
    std::map<std::string, std::string, std::less<>> values;

    explicit Query(std::string_view text) {
        while (!text.empty()) {
            const std::size_t end = std::min(text.find('&'), text.size());
            const std::string_view one = text.substr(0, end);
            const std::size_t equals = std::min(one.find('='), one.size());
            if (!one.empty()) {
                values[decoded(one.substr(0, equals))] = decoded(one.substr(std::min(equals + 1, one.size())));
            }
            text.remove_prefix(std::min(end + 1, text.size()));
        }
    }

    void allow(std::initializer_list<std::string_view> names) const {
        for (const auto& [name, value] : values) {
            if (std::ranges::find(names, name) == names.end()) throw UsageError("'" + name + "' is not known here");
        }
    }
    bool has(std::string_view name) const {
        const auto found = values.find(name);
        return found != values.end() && !found->second.empty();
    }
    std::string text(std::string_view name) const { return has(name) ? values.find(name)->second : ""; }
    std::optional<double> number(std::string_view name, double low, double high) const {
        if (!has(name)) return std::nullopt;
        const auto number = parse_finite(text(name));
        if (!number || *number < low || *number > high) {
            throw UsageError("'" + std::string(name) + format("' is no number from %g to %g", low, high));
        }
        return number;
    }
    std::optional<int64_t> count(std::string_view name) const {
        const auto value = number(name, 0, 1e15);
        return value ? std::optional(static_cast<int64_t>(*value)) : std::nullopt;
    }
    std::size_t limit(std::string_view name, std::size_t usual, std::size_t most) const {
        return static_cast<std::size_t>(
            number(name, 1, static_cast<double>(most)).value_or(static_cast<double>(usual)));
    }
    // A UTC text, or seconds since 1970.
    std::optional<double> utc(std::string_view name) const {
        if (!has(name)) return std::nullopt;
        if (const auto seconds = parse_finite(text(name)); seconds && *seconds >= 0 && *seconds < LAST_YEAR) {
            return seconds;
        }
        const auto utc = text(name).find('T') != std::string::npos ? parse_utc(text(name), 0) : std::nullopt;
        if (!utc) throw UsageError("'" + std::string(name) + "' is no time like 2026-03-01T12:00Z");
        return utc;
    }
    std::optional<uint32_t> protocol() const {
        if (!has("protocol")) return std::nullopt;
        for (const uint32_t id : {OVL_OPERA, OVL_ORVEL_S, OVL_ORVEL_L}) {
            if (lower_case(ovl_proto_name(id)) == lower_case(text("protocol"))) return id;
        }
        throw UsageError("'" + text("protocol") + "' is no protocol");
    }
};

const std::vector<std::pair<std::string, std::string>>& security_fields() {
    static const std::vector<std::pair<std::string, std::string>> FIELDS = {
        {"Content-Security-Policy",
         "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; base-uri "
         "'none'; form-action 'none'; frame-ancestors 'none'"},
        {"X-Content-Type-Options", "nosniff"},
        {"X-Frame-Options", "DENY"},
        {"Referrer-Policy", "no-referrer"},
        {"Cross-Origin-Resource-Policy", "same-origin"},
        {"Cache-Control", "no-cache"},
    };
    return FIELDS;
}

Api::Api(WebConfig config, const Hub& hub, std::string store_path)
    : config_(std::move(config)), hub_(hub), store_path_(std::move(store_path)) {}

std::optional<WebAnswer> Api::refusal(const WebRequest& request) const {
    if (!is_our_host(request.host, config_.hosts)) return failure(421, "this server has no such name");
    if (!is_our_origin(request.origin, request.host)) return failure(403, "another page asks");
    if (bears_token(request, config_.token)) return std::nullopt;
    WebAnswer refused = failure(401, "a token is needed");
    refused.fields.emplace_back("WWW-Authenticate", "Bearer");
    return refused;
}

WebAnswer Api::answer(const WebRequest& request, const WebCounts& counts) {
    if (request.method != "GET" && request.method != "HEAD") {
        WebAnswer refused = failure(405, "only GET and HEAD");
        refused.fields.emplace_back("Allow", "GET, HEAD");
        return refused;
    }
    const auto refused = refusal(request);
    if (refused && refused->status != 401) return *refused;
    const std::string_view path = std::string_view(request.target).substr(0, request.target.find('?'));
    if (!path.starts_with("/api/") && path != "/metrics") return asset(request);
    if (refused) return *refused;
    try {
        WebAnswer answer = data(request, counts);
        if (answer.status != 200 || path == "/metrics") return answer;
        const std::string etag = etag_of(answer.body);
        if (matches(request.if_none_match, etag)) answer = {.status = 304};
        answer.fields.emplace_back("ETag", etag);
        return answer;
    } catch (const UsageError& error) {
        return failure(400, error.what());
    } catch (const IoError& error) {
        store_.reset();
        return failure(503, error.what());
    }
}

WebAnswer Api::asset(const WebRequest& request) const {
    std::string_view path = std::string_view(request.target).substr(0, request.target.find('?'));
    if (path == "/") path = "/index.html";
    const auto all = assets();
    const auto found = std::ranges::find(all, path, &Asset::path);
    if (found == all.end()) return failure(404, "nothing is there");
    const bool zipped = !found->gzipped.empty() && request.accept_encoding.find("gzip") != std::string::npos;
    WebAnswer answer{.type = std::string(found->type),
                     .fields = {{"ETag", std::string(found->etag)}, {"Vary", "Accept-Encoding"}}};
    if (matches(request.if_none_match, found->etag)) {
        answer.status = 304;
    } else {
        answer.body = zipped ? found->gzipped : found->body;
        if (zipped) answer.fields.emplace_back("Content-Encoding", "gzip");
    }
    return answer;
}

WebAnswer Api::data(const WebRequest& request, const WebCounts& counts) {
    const std::size_t mark = std::min(request.target.find('?'), request.target.size());
    const std::string path = request.target.substr(0, mark);
    const Query query(std::string_view(request.target).substr(std::min(mark + 1, request.target.size())));
    if (path == "/api/spots") return {.body = spots(query)};
    if (path == "/api/transmissions") return {.body = transmissions(query)};
    if (path == "/api/beacons") return {.body = beacons()};
    if (path == "/api/curve") return {.body = curve(query)};
    if (path == "/api/receivers") return {.body = receivers(query)};
    if (path == "/api/spectrum") return {.body = spectrum(query)};
    if (path == "/api/status") return {.body = status(counts)};
    if (path == "/api/login") return login();
    if (path == "/metrics") return {.type = "text/plain; version=0.0.4; charset=utf-8", .body = metrics(counts)};
    return failure(404, "nothing is there");
}

Store& Api::store() {
    if (!store_) store_ = std::make_unique<Store>(store_path_, Database::Access::READ);
    return *store_;
}

std::string Api::spots(const Query& query) {
    query.allow({"call", "receiver", "protocol", "from", "until", "low_hz", "high_hz", "before", "after", "limit"});
    const std::size_t limit = query.limit("limit", USUAL_SPOTS, MOST_SPOTS);
    SpotFilter filter{.call = query.text("call"),
                      .receiver = query.text("receiver"),
                      .protocol = query.protocol(),
                      .from = query.utc("from"),
                      .until = query.utc("until"),
                      .rf_low_hz = query.number("low_hz", 0, 1e12),
                      .rf_high_hz = query.number("high_hz", 0, 1e12),
                      .after = query.count("after"),
                      .before = query.count("before"),
                      .newest = limit};
    Json all = Json::array();
    int64_t oldest = 0;
    store().query(filter, [&](const StoredSpot& stored) {
        if (all.empty()) oldest = stored.number;
        all.push_back(spot_json(stored));
        return true;
    });
    std::ranges::reverse(all.get_ref<Json::array_t&>());
    const bool more = all.size() == limit;
    return json_text({{"spots", std::move(all)}, {"next", more ? Json(oldest) : Json()}});
}

std::string Api::transmissions(const Query& query) {
    query.allow({"call", "before", "limit"});
    const std::size_t limit = query.limit("limit", USUAL_SPOTS, MOST_SPOTS);
    Json all = Json::array();
    int64_t last = 0;
    for (const StoredSpot& stored : store().transmissions(query.text("call"), query.count("before"), limit)) {
        Json spot = spot_json(stored);
        if (stored.transmission != std::exchange(last, stored.transmission)) {
            all.push_back({{"number", stored.transmission},
                           {"call", spot["call"]},
                           {"protocol", spot["protocol"]},
                           {"locator", spot["locator"]},
                           {"utc_start", spot["utc_start"]},
                           {"hearings", Json::array()}});
        }
        for (const char* const shared : {"number", "transmission", "call", "protocol", "locator"}) spot.erase(shared);
        all.back()["hearings"].push_back(std::move(spot));
    }
    const bool more = all.size() == limit;
    return json_text({{"transmissions", std::move(all)}, {"next", more ? Json(last) : Json()}});
}

std::string Api::beacons() {
    Json all = Json::array();
    for (const Beacon& beacon : store().beacons()) {
        Json one = spot_json(beacon.last);
        one["locator"] = beacon.locator;
        all.push_back(std::move(one));
    }
    return json_text({{"beacons", std::move(all)}});
}

std::string Api::curve(const Query& query) {
    query.allow({"call", "from", "until", "points"});
    if (!query.has("call")) throw UsageError("'call' is missing");
    const double until = query.utc("until").value_or(std::ceil(utc_now() / 60) * 60);
    const double from = query.utc("from").value_or(until - DAY_S);
    if (!(from < until) || until - from > MOST_DAYS * DAY_S) throw UsageError("'from' and 'until' are no span of time");
    const auto points = static_cast<double>(query.limit("points", USUAL_POINTS, MOST_POINTS));
    const double step_s = std::max((until - from) / points, 1.0);
    const std::string call = upper_case(query.text("call"));
    Json receivers = Json::array();
    for (const CurvePoint& point : store().curve(call, from, until, step_s)) {
        if (receivers.empty() || receivers.back()["receiver"] != point.receiver) {
            receivers.push_back({{"receiver", point.receiver}, {"points", Json::array()}});
        }
        const auto tenth = [](const std::optional<double>& value) {
            return value ? Json(std::round(10 * *value) / 10) : Json();
        };
        receivers.back()["points"].push_back({point.utc, point.spots, tenth(point.snr_db), tenth(point.least_snr_db),
                                              tenth(point.most_snr_db), std::round(1000 * point.freq_hz) / 1000});
    }
    return json_text({{"call", call},
                      {"from", from},
                      {"until", until},
                      {"step_s", step_s},
                      {"columns", {"utc", "spots", "snr_db", "least_snr_db", "most_snr_db", "freq_hz"}},
                      {"receivers", std::move(receivers)}});
}

std::string Api::receivers(const Query& query) {
    query.allow({"receiver", "from", "until"});
    if (!query.has("receiver")) {
        Json names = Json::array();
        for (const std::string& name : store().receivers()) names.push_back(name);
        return json_text({{"receivers", receivers_json(hub_.state())}, {"known", std::move(names)}});
    }
    const double until = query.utc("until").value_or(utc_now() + 60);
    const double from = query.utc("from").value_or(until - DAY_S);
    if (!(from < until) || until - from > 8 * DAY_S)
        throw UsageError("'from' and 'until' are no span of a week or less");
    Json minutes = Json::array();
    for (const ReceiverMinute& minute : store().minutes(query.text("receiver"), from, until)) {
        minutes.push_back({minute.end, minute.level_db ? Json(*minute.level_db) : Json(),
                           minute.noise_db ? Json(*minute.noise_db) : Json(), minute.captured_s, minute.lost_s,
                           minute.decode_s, minute.clipped});
    }
    return json_text({{"receiver", query.text("receiver")},
                      {"columns", {"utc", "level_db", "noise_db", "captured_s", "lost_s", "decode_s", "clipped"}},
                      {"minutes", std::move(minutes)}});
}

std::string Api::spectrum(const Query& query) const {
    query.allow({"receiver"});
    std::string rows;
    for (const Hub::News& row : hub_.rows(query.text("receiver"))) rows.append(rows.empty() ? "" : ",").append(*row);
    return "{\"rows\":[" + rows + "]}";
}

std::string Api::status(const WebCounts& counts) {
    const StationState state = hub_.state();
    const int64_t last = store().last_number();
    return json_text({{"version", ovl_version()},
                      {"callsign", state.callsign},
                      {"locator", state.locator},
                      {"antenna", state.antenna},
                      {"clock", clock_json()},
                      {"receivers", receivers_json(state)},
                      {"outputs", outputs_json(state, last)},
                      {"store", {{"spots", last}, {"bytes", store().bytes()}, {"problem", state.store_problem}}},
                      {"web", {{"viewers", counts.viewers}, {"dropped", counts.dropped}}}});
}

std::string Api::metrics(const WebCounts& counts) {
    const StationState state = hub_.state();
    const int64_t last = store().last_number();
    std::string text;
    Measure(text, "orvel_spots_total", "counter", "Spots that the store has taken.").add("", static_cast<double>(last));
    Measure(text, "orvel_store_bytes", "gauge", "Size of the store.").add("", static_cast<double>(store().bytes()));
    Measure(text, "orvel_store_up", "gauge", "Whether the store takes spots.").add("", state.store_problem.empty());
    Measure(text, "orvel_clock_synchronized", "gauge", "Whether the clock is kept by a reference.")
        .add("", clock_json()["synchronized"].get<bool>());
    struct Column {
        const char *name, *type, *help;
        double (*value)(const Status&);
    };
    static constexpr std::array COLUMNS = {
        Column{"orvel_receiver_level_db", "gauge", "Level in dB of full scale.",
               [](const Status& status) { return status.level_db; }},
        Column{"orvel_receiver_noise_db", "gauge", "Noise in 1 Hz in dB of full scale.",
               [](const Status& status) { return status.noise_db.value_or(NAN); }},
        Column{"orvel_receiver_captured_seconds_total", "counter", "Length of what was heard.",
               [](const Status& status) { return status.captured_s; }},
        Column{"orvel_receiver_lost_seconds_total", "counter", "Length of what was lost.",
               [](const Status& status) { return status.lost_s; }},
        Column{"orvel_receiver_clipped", "gauge", "Samples at full scale in the last minute.",
               [](const Status& status) { return static_cast<double>(status.clipped); }},
        Column{"orvel_receiver_decode_seconds", "gauge", "Time that decodes took in the last minute.",
               [](const Status& status) { return status.decode_s; }},
        Column{"orvel_receiver_clock_error_ppm", "gauge", "How much faster samples come than their rate says.",
               [](const Status& status) { return status.clock_error_ppm.value_or(NAN); }}};
    Measure up(text, "orvel_receiver_up", "gauge", "Whether a receiver runs.");
    for (const ReceiverState& receiver : state.receivers) {
        up.add("{receiver=\"" + label(receiver.name) + "\"}", receiver.state == "running");
    }
    for (const Column& column : COLUMNS) {
        Measure measure(text, column.name, column.type, column.help);
        for (const ReceiverState& receiver : state.receivers) {
            if (!receiver.status) continue;
            measure.add("{receiver=\"" + label(receiver.name) + "\"}", column.value(*receiver.status));
        }
    }
    Measure works(text, "orvel_output_up", "gauge", "Whether an output works.");
    for (const OutputState& output : state.outputs) {
        works.add("{output=\"" + label(output.name) + "\"}", output.problem.empty());
    }
    Measure waiting(text, "orvel_output_waiting", "gauge", "Spots that an output has not passed on.");
    for (const OutputState& output : state.outputs) {
        waiting.add("{output=\"" + label(output.name) + "\"}",
                    static_cast<double>(std::max<int64_t>(last - output.position, 0)));
    }
    Measure(text, "orvel_web_clients", "gauge", "Connections.").add("", static_cast<double>(counts.clients));
    Measure(text, "orvel_web_viewers", "gauge", "Pages that are open.").add("", static_cast<double>(counts.viewers));
    Measure(text, "orvel_web_requests_total", "counter", "Requests.").add("", static_cast<double>(counts.requests));
    Measure(text, "orvel_web_refused_total", "counter", "Requests and connections that were refused.")
        .add("", static_cast<double>(counts.refused));
    Measure(text, "orvel_web_dropped_total", "counter", "Viewers that read too slowly.")
        .add("", static_cast<double>(counts.dropped));
    return text;
}

// The token that came with the request, kept by the browser for the requests to come.
WebAnswer Api::login() const {
    WebAnswer answer{.body = "{}"};
    if (!config_.token.empty()) {
        answer.fields.emplace_back("Set-Cookie", std::string(TOKEN_COOKIE) + "=" + config_.token +
                                                     "; Path=/; Max-Age=31536000; HttpOnly; SameSite=Strict");
    }
    return answer;
}

// What the page's server is asked for: any request has an answer, one with data only where the token is, and what is
// JSON by its type is JSON.
#include <nlohmann/json.hpp>
#include <set>
#include <string>

#include "input.h"
#include "station_store.h"
#include "web/api.h"

namespace {

constexpr const char* TOKEN = "0123456789abcdef";

bool is_json(const std::string& text) {
    return !nlohmann::json::parse(text, nullptr, false).is_discarded();
}

void check(const WebRequest& request, const WebAnswer& answer) {
    static const std::set<int> STATUSES = {200, 304, 400, 401, 403, 404, 405, 421};
    expect(STATUSES.count(answer.status) == 1);
    if (answer.status == 304) expect(answer.body.empty() && !request.if_none_match.empty());
    if (answer.status != 304 && answer.type == "application/json") expect(is_json(answer.body));
    if (answer.status >= 400) expect(answer.body.starts_with("{\"error\":"));
    for (const auto& [name, value] : answer.fields) {
        expect(name.find_first_of("\r\n") == std::string::npos && value.find_first_of("\r\n") == std::string::npos);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    static const SmallStore store;
    static const Hub hub;
    static Api open(WebConfig{.hosts = {"station.example"}}, hub, store.path());
    static Api guarded(WebConfig{.token = TOKEN}, hub, store.path());
    Input input(data, size);
    WebRequest request;
    request.method = input.flag() ? "GET" : input.text(8);
    request.host = input.flag() ? "localhost" : input.text(40);
    request.origin = input.text(40);
    request.authorization = input.text(40);
    request.cookie = input.text(60);
    request.if_none_match = input.text(40);
    request.accept_encoding = input.text(20);
    request.target = "/" + input.rest();

    const WebAnswer answer = open.answer(request);
    check(request, answer);
    expect(answer.status != 401);
    const WebAnswer behind = guarded.answer(request);
    check(request, behind);
    const bool is_told =
        request.authorization.find(TOKEN) != std::string::npos || request.cookie.find(TOKEN) != std::string::npos;
    const bool holds_data = request.target.starts_with("/api/") || request.target.starts_with("/metrics");
    if (!is_told && holds_data) expect(behind.status >= 400 || behind.body == "");
    expect(open.refusal(request).has_value() == (answer.status == 421 || answer.status == 403) || answer.status == 405);
    return 0;
}

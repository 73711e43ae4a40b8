#include "web/access.h"

#include <algorithm>

#include "base/text.h"

namespace {

// Without the port; of an IPv6 address without its brackets. "" when it is no such text.
std::string_view name_of(std::string_view host) {
    const bool bracket = host.starts_with('[');
    const std::size_t end = bracket ? host.find(']') : std::min(host.find(':'), host.size());
    if (end == std::string_view::npos) return {};
    const std::string_view port = host.substr(std::min(end + (bracket ? 1 : 0), host.size()));
    const bool sound = port.empty() || (port.size() <= 6 && port.starts_with(':') &&
                                        port.find_first_not_of("0123456789", 1) == std::string_view::npos);
    if (!sound) return {};
    return bracket ? host.substr(1, end - 1) : host.substr(0, end);
}

bool same(std::string_view a, std::string_view b) {
    unsigned difference = a.size() == b.size() ? 0 : 1;
    for (std::size_t k = 0; k < a.size(); k++) {
        difference |= static_cast<unsigned>(a[k] ^ b[k % b.size()]);
    }
    return difference == 0;
}

// The value of a cookie among others.
std::string_view cookie_of(std::string_view cookies, std::string_view name) {
    while (!cookies.empty()) {
        const std::size_t end = std::min(cookies.find(';'), cookies.size());
        std::string_view one = cookies.substr(0, end);
        one.remove_prefix(std::min(one.find_first_not_of(' '), one.size()));
        if (one.size() > name.size() && one.starts_with(name) && one[name.size()] == '=') {
            return one.substr(name.size() + 1);
        }
        cookies.remove_prefix(std::min(end + 1, cookies.size()));
    }
    return {};
}

}  // namespace

bool is_our_host(std::string_view host, const std::vector<std::string>& names) {
    const std::string name = lower_case(name_of(host));
    if (name.empty()) return false;
    return name == "localhost" || is_address(name) ||
           std::ranges::any_of(names, [&](const std::string& one) { return lower_case(one) == name; });
}

bool is_our_origin(std::string_view origin, std::string_view host) {
    if (origin.empty()) return true;
    const std::size_t scheme = origin.find("://");
    if (scheme == std::string_view::npos) return false;
    return lower_case(origin.substr(scheme + 3)) == lower_case(host);
}

bool bears_token(const WebRequest& request, std::string_view token) {
    constexpr std::string_view BEARER = "Bearer ";
    if (token.empty()) return true;
    const std::string_view field = request.authorization;
    if (field.starts_with(BEARER) && same(field.substr(BEARER.size()), token)) return true;
    return same(cookie_of(request.cookie, TOKEN_COOKIE), token);
}

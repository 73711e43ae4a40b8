// Who may see the page.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "config/web_config.h"

// The parts of a request that its answer depends on; "" where a field is missing.
struct WebRequest {
    std::string method, target;
    std::string host, origin, authorization, cookie;
    std::string if_none_match, accept_encoding;
};

// Whether a Host field names this server: an address, localhost, or one of its names. Others come from pages whose name
// was made to lead here.
bool is_our_host(std::string_view host, const std::vector<std::string>& names);

// Whether a request comes from a page of this server, or from no page at all.
bool is_our_origin(std::string_view origin, std::string_view host);

// Whether a request bears the token, as "Authorization: Bearer TOKEN" or in the cookie. Takes as long for a token that
// is nearly right as for any other of its length.
inline constexpr std::string_view TOKEN_COOKIE = "orvel_token";
bool bears_token(const WebRequest& request, std::string_view token);

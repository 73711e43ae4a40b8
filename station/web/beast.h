// Boost.Beast's view of requests and viewers, for the server and those who try it.
#pragma once

#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include "web/access.h"

using RequestParser = boost::beast::http::request_parser<boost::beast::http::empty_body>;

// With the limits of a request.
inline void limit_request(RequestParser& parser, std::size_t header_bytes) {
    parser.header_limit(static_cast<uint32_t>(header_bytes));
    parser.body_limit(0);
}

inline WebRequest request_of(const RequestParser& parser) {
    namespace http = boost::beast::http;
    const auto& message = parser.get();
    const auto field = [&](http::field name) {
        const auto value = message[name];
        return std::string(value.data(), value.size());
    };
    return {.method = std::string(message.method_string()),
            .target = std::string(message.target()),
            .host = field(http::field::host),
            .origin = field(http::field::origin),
            .authorization = field(http::field::authorization),
            .cookie = field(http::field::cookie),
            .if_none_match = field(http::field::if_none_match),
            .accept_encoding = field(http::field::accept_encoding)};
}

// Viewers have nothing to say.
inline constexpr std::size_t MOST_VIEWER_BYTES = 1024;

template <class Stream>
void limit_viewer(boost::beast::websocket::stream<Stream>& stream, std::chrono::milliseconds handshake,
                  std::chrono::milliseconds silence) {
    namespace websocket = boost::beast::websocket;
    stream.read_message_max(MOST_VIEWER_BYTES);
    stream.set_option(websocket::stream_base::timeout{handshake, silence, true});
    stream.auto_fragment(false);
}

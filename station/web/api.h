// What the web server answers. A request in, an answer out: no sockets here.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "store/store.h"
#include "web/access.h"
#include "web/hub.h"

struct WebAnswer {
    int status = 200;
    std::string type = "application/json";
    std::string body = {};
    std::vector<std::pair<std::string, std::string>> fields = {};  // besides those that every answer has
};

// How the server is doing.
struct WebCounts {
    std::size_t clients = 0, viewers = 0;
    int64_t requests = 0, refused = 0, dropped = 0;  // since the beginning; viewers that read too slowly
};

// For one thread. Paths:
//   /                    the page, and /style.css and so on: its files
//   /api/spots           spots, the newest first: call, receiver, protocol, from, until, low_hz, high_hz, before,
//   after,
//                        limit; "next" is the `before` of the next page
//   /api/transmissions   the same by transmission, each with all who heard it: call, before, limit
//   /api/beacons         each beacon as it was heard last, with its locator where that is known from what it sent
//   /api/curve           SNR and frequency of one beacon: call, from, until, points
//   /api/receivers       receivers, and of one (receiver=NAME, from, until) its minutes
//   /api/spectrum        the latest rows of a receiver's waterfall: receiver
//   /api/status          the station, its receivers, outputs, store and clock
//   /api/login           gives the browser a cookie for the token of this request
//   /metrics             the same for Prometheus
// All but the page's files ask for the token, where there is one.
class Api {
  public:
    Api(WebConfig config, const Hub& hub, std::string store_path);

    // Throws nothing but std::bad_alloc.
    WebAnswer answer(const WebRequest& request, const WebCounts& counts = {});

    // Why a viewer is refused; nothing when it may see what is live.
    std::optional<WebAnswer> refusal(const WebRequest& request) const;

  private:
    struct Query;
    WebAnswer asset(const WebRequest& request) const;
    WebAnswer data(const WebRequest& request, const WebCounts& counts);
    std::string spots(const Query& query);
    std::string transmissions(const Query& query);
    std::string beacons();
    std::string curve(const Query& query);
    std::string receivers(const Query& query);
    std::string spectrum(const Query& query) const;
    std::string status(const WebCounts& counts);
    std::string metrics(const WebCounts& counts);
    WebAnswer login() const;
    Store& store();

    WebConfig config_;
    const Hub& hub_;
    std::string store_path_;
    std::unique_ptr<Store> store_;  // opened with the first question
};

// The fields that every answer has: what the page may do, and what a browser may do with it.
const std::vector<std::pair<std::string, std::string>>& security_fields();

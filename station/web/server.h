// The web server: HTTP and WebSocket, in a thread of its own.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

#include "web/access.h"
#include "web/hub.h"

// What one client can take of the server.
struct WebLimits {
    std::size_t clients = 256;                  // connections at a time, with viewers
    std::size_t viewers = 100;                  // WebSockets at a time
    std::size_t header_bytes = 8192;            // of a request; a body has none
    std::size_t waiting_news = 256;             // lines that a viewer has not taken
    std::size_t waiting_bytes = 4 << 20;        // and their length
    std::chrono::milliseconds request{10'000};  // until a request is complete
    std::chrono::milliseconds answer{30'000};   // until an answer is taken
    std::chrono::milliseconds silence{60'000};  // of a viewer, which answers pings
    std::chrono::milliseconds retry{10'000};    // of a port that is taken
};

class WebServer {
  public:
    // Starts the thread. A port that cannot be listened on is told, and tried again; nothing here throws for it. To be
    // destroyed in the thread that tells the hub.
    WebServer(const WebConfig& config, Hub& hub, std::string store_path, const WebLimits& limits = {});
    WebServer(const WebServer&) = delete;
    WebServer& operator=(const WebServer&) = delete;
    ~WebServer();

    // Where it listens; 0 while it does not. Any thread.
    uint16_t port() const;

  private:
    class Core;
    std::unique_ptr<Core> core_;
};

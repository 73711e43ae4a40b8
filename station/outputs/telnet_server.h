// A server that sends lines to whoever is connected, in a thread of its own. It asks for a callsign and understands
// "sh/dx N" and "bye". Who does not read is dropped, and nobody waits for him.
#pragma once

#include <cstddef>
#include <deque>
#include <list>
#include <mutex>
#include <string>
#include <thread>

class TelnetServer {
  public:
    struct Limits {
        std::size_t clients = 50;
        std::size_t waiting_bytes = 65536;  // that a client has not read
        double login_s = 60;                // until a callsign has come
    };

    // `greeting` comes first. Throws IoError when the port is taken.
    TelnetServer(const std::string& address, int port, std::string greeting, const Limits& limits);
    TelnetServer(const TelnetServer&) = delete;
    TelnetServer& operator=(const TelnetServer&) = delete;
    ~TelnetServer();

    // Without its end. From any thread.
    void publish(const std::string& line);

    int port() const { return port_; }
    std::size_t clients() const;

  private:
    struct Client {
        int socket;
        double since;
        bool is_known = false;  // by a callsign
        bool ends = false;      // when it has read the rest
        std::string typed = {}, waiting = {};
    };
    void run();
    void accept_client();
    void read(Client& client);
    void obey(Client& client, std::string line);
    void show(Client& client, const std::string& command);
    bool is_over(Client& client) const;
    static bool write(Client& client);

    std::string greeting_;
    Limits limits_;
    int listener_ = -1;
    int wake_ = -1;
    int port_ = 0;
    mutable std::mutex lock_;
    std::list<Client> clients_;
    std::deque<std::string> history_;
    bool ended_ = false;
    std::thread thread_;
};

// A receiver that never was: an rtl_tcp server on a free port of loopback, which sends what is simulated in real time.
#pragma once

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <cstdint>
#include <functional>
#include <span>
#include <thread>
#include <vector>

#include "simulation/scene.h"

class SimulatedReceiver {
  public:
    // The scene that is on the air after `count` others, I/Q; all are of one rate. Called in the receiver's thread.
    using SceneAt = std::function<SimScene(int64_t count)>;

    // The first scene begins now, whether somebody listens or not. Throws boost::system::system_error.
    explicit SimulatedReceiver(SceneAt scene_at);
    SimulatedReceiver(const SimulatedReceiver&) = delete;
    SimulatedReceiver& operator=(const SimulatedReceiver&) = delete;
    ~SimulatedReceiver();

    uint16_t port() const { return port_; }

  private:
    void run();
    void play(const SimScene& scene);
    void wait_until_sent(int64_t pairs, int32_t rate);
    void take_listener();
    void send(std::span<const uint8_t> bytes);

    SceneAt scene_at_;
    boost::asio::io_context context_;
    boost::asio::ip::tcp::acceptor acceptor_;
    boost::asio::ip::tcp::socket listener_;  // the one who listens, the latest who came
    uint16_t port_;
    double begin_s_;    // monotonic, of the first sample
    int64_t sent_ = 0;  // pairs since then
    std::vector<uint8_t> bytes_;
    std::atomic<bool> ended_ = false;
    std::thread thread_;
};

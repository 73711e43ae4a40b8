// What the station's demonstration plays, and the server that plays it.
#include <gtest/gtest.h>

#include <algorithm>
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <cmath>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "base/interrupts.h"
#include "demo/demo.h"
#include "demo/simulated_receiver.h"

namespace {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;

constexpr int32_t RATE = 8000;
constexpr int64_t SCENES = 50;

TEST(Demo, FramesLieWithinTheirSceneAndTheirReceiversBand) {
    const auto receivers = demo_receivers();
    for (std::size_t which = 0; which < receivers.size(); which++) {
        for (int64_t count = 0; count < SCENES; count++) {
            const SimScene scene = demo_scene(which, count);
            EXPECT_TRUE(scene.iq);
            EXPECT_EQ(scene.rate, receivers[which].rate);
            EXPECT_GE(scene.stations.size(), 6u);
            for (const SimStation& station : scene.stations) {
                EXPECT_GE(station.t_start, 0) << station.call;
                EXPECT_LE(station.t_start + station.length_s(), scene.seconds) << station.call;
                EXPECT_LT(std::fabs(station.freq_hz) + 10, receivers[which].half_width_hz) << station.call;
            }
        }
    }
}

TEST(Demo, ReceiversOfABandHearTheSameTransmissionsInNoiseOfTheirOwn) {
    const auto receivers = demo_receivers();
    ASSERT_GE(receivers.size(), 2u);
    ASSERT_TRUE(receivers[0].wide);
    for (int64_t count = 0; count < SCENES; count++) {
        const SimScene wide = demo_scene(0, count);
        const SimScene narrow = demo_scene(1, count);
        EXPECT_NE(wide.seed, narrow.seed);
        std::map<std::string, SimStation> of_wide;
        for (const SimStation& station : wide.stations) of_wide[station.call] = station;
        for (const SimStation& station : narrow.stations) {
            ASSERT_EQ(of_wide.count(station.call), 1u) << station.call;
            const SimStation& other = of_wide[station.call];
            EXPECT_EQ(station.t_start, other.t_start);
            EXPECT_NEAR(station.freq_hz + receivers[1].center_hz, other.freq_hz + receivers[0].center_hz, 1e-6);
            EXPECT_NE(station.snr_db, other.snr_db);
        }
    }
}

TEST(Demo, NoTwoScenesAreAlike) {
    EXPECT_NE(demo_scene(0, 0).seed, demo_scene(0, 1).seed);
    EXPECT_NE(demo_scene(0, 0).stations[0].snr_db, demo_scene(0, 1).stations[0].snr_db);
}

// Noise of half a second, again and again.
SimScene short_scene(int64_t count) {
    return {.rate = RATE,
            .seconds = 0.5,
            .iq = true,
            .seed = static_cast<uint64_t>(count),
            .noise_rms = 0.5,
            .stations = {},
            .carriers = {},
            .impulses = {}};
}

class Listener {
  public:
    explicit Listener(const SimulatedReceiver& receiver) : socket_(context_) {
        socket_.connect({asio::ip::address_v4::loopback(), receiver.port()});
    }
    std::vector<uint8_t> take(std::size_t count) {
        std::vector<uint8_t> bytes(count);
        asio::read(socket_, asio::buffer(bytes));
        return bytes;
    }

  private:
    asio::io_context context_;
    tcp::socket socket_;
};

// One comes after the other; each gets a header and what is on the air from then on, in real time.
TEST(SimulatedReceiver, PlaysItsScenesInRealTimeToWhoeverListens) {
    std::vector<int> model;
    for (int64_t count = 0; count < 20; count++) {
        SceneSource source(short_scene(count));
        for (const float sample : source.next()) {
            model.push_back(std::clamp(static_cast<int>(std::lround(127.5F + 127.5F * sample)), 0, 255));
        }
    }
    const SimulatedReceiver receiver(short_scene);
    const double begin = monotonic_now();
    auto played = model.begin();
    for (int k = 0; k < 2; k++) {
        Listener listener(receiver);
        const std::vector<uint8_t> header = listener.take(12);
        EXPECT_EQ(std::string(header.begin(), header.begin() + 4), "RTL0");
        const std::vector<uint8_t> bytes = listener.take(2 * RATE * 3 / 10);
        played = std::search(played, model.end(), bytes.begin(), bytes.end());
        ASSERT_NE(played, model.end()) << "listener " << k;
        EXPECT_EQ((played - model.begin()) % 2, 0) << "whole pairs";
        played += std::ssize(bytes);
        const double due_s = static_cast<double>(played - model.begin()) / (2 * RATE);
        EXPECT_GE(monotonic_now() - begin, due_s - 0.1) << "not before its time";
    }
}

TEST(SimulatedReceiver, EndsWithinASecondThoughSomebodyListens) {
    double begin = 0;
    {
        const SimulatedReceiver receiver([](int64_t count) {
            SimScene scene = short_scene(count);
            scene.seconds = 3600;
            return scene;
        });
        Listener listener(receiver);
        listener.take(12);
        begin = monotonic_now();
    }
    EXPECT_LT(monotonic_now() - begin, 1);
}

}  // namespace

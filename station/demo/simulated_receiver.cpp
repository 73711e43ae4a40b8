#include "demo/simulated_receiver.h"

#include <algorithm>
#include <array>
#include <boost/asio/write.hpp>
#include <cmath>
#include <csignal>
#include <utility>

#include "base/interrupts.h"

namespace asio = boost::asio;
using tcp = asio::ip::tcp;
using Error = boost::system::error_code;

namespace {

constexpr int32_t PIECES_PER_SECOND = 20;
constexpr double MOST_BEHIND_S = 1;  // beyond it, what could not be sent is never sent

// The tuner R820T, and how many gains it has.
constexpr std::array<uint8_t, 12> HEADER = {'R', 'T', 'L', '0', 0, 0, 0, 5, 0, 0, 0, 29};

uint8_t octet_of(float sample) {
    return static_cast<uint8_t>(std::clamp(std::lround(127.5F + 127.5F * sample), 0L, 255L));
}

}  // namespace

SimulatedReceiver::SimulatedReceiver(SceneAt scene_at)
    : scene_at_(std::move(scene_at)),
      acceptor_(context_, tcp::endpoint(asio::ip::address_v4::loopback(), 0)),
      listener_(context_),
      port_(acceptor_.local_endpoint().port()),
      begin_s_(monotonic_now()) {
    acceptor_.non_blocking(true);
    thread_ = std::thread([this] { run(); });
}

SimulatedReceiver::~SimulatedReceiver() {
    ended_ = true;
    thread_.join();
}

void SimulatedReceiver::run() {
    sigset_t all;  // signals are the station's
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    for (int64_t count = 0; !ended_; count++) play(scene_at_(count));
}

void SimulatedReceiver::play(const SimScene& scene) {
    SceneSource source(scene);
    const auto piece = 2 * static_cast<std::size_t>(scene.rate / PIECES_PER_SECOND);
    for (auto samples = source.next(); !samples.empty(); samples = source.next()) {
        while (!samples.empty()) {
            const auto some = samples.first(std::min(piece, samples.size()));
            samples = samples.subspan(some.size());
            bytes_.resize(some.size());
            std::ranges::transform(some, bytes_.begin(), octet_of);
            sent_ += std::ssize(some) / 2;
            wait_until_sent(sent_, scene.rate);
            if (ended_) return;
            take_listener();
            send(bytes_);
        }
    }
}

// Samples are there when their time is over.
void SimulatedReceiver::wait_until_sent(int64_t pairs, int32_t rate) {
    const double left_s = begin_s_ + static_cast<double>(pairs) / rate - monotonic_now();
    if (left_s < -MOST_BEHIND_S) begin_s_ -= left_s;
    if (left_s > 0) sleep_seconds(left_s);
}

void SimulatedReceiver::take_listener() {
    Error none_came;
    tcp::socket came = acceptor_.accept(none_came);
    if (none_came) return;
    listener_ = std::move(came);
    listener_.non_blocking(true, none_came);
    send(HEADER);
}

// Who does not take all of it is let go, comes back and knows what it lost.
void SimulatedReceiver::send(std::span<const uint8_t> bytes) {
    if (!listener_.is_open()) return;
    Error error;
    asio::write(listener_, asio::buffer(bytes.data(), bytes.size()), error);
    if (error) listener_.close(error);
}

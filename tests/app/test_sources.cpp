// Sources of live samples, piece by piece.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <memory>
#include <numeric>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "base/error.h"
#include "base/interrupts.h"
#include "sources/rtl_tcp.h"
#include "sources/sample_ring.h"
#include "sources/source.h"
#include "sources/standard_input.h"
#include "tcp_server.h"

namespace {

// ---- Standard input -------------------------------------------------------------------------------------------------

SourceOptions raw_iq(const SampleFormat& samples) {
    return {.rate = 8000, .samples = samples, .iq = true};
}

// All that a source brings until it ends, in pieces of whole pairs.
std::vector<float> all_of(Source& source) {
    std::vector<float> all;
    Piece piece;
    for (auto state = source.read(piece); state != Source::State::ENDED; state = source.read(piece)) {
        EXPECT_EQ(piece.samples.size() % 2, 0u);
        all.insert(all.end(), piece.samples.begin(), piece.samples.end());
    }
    return all;
}

// Standard input of this process, from a pipe.
class RawSamples : public ::testing::Test {
  protected:
    RawSamples() : saved_(dup(STDIN_FILENO)) {
        std::array<int, 2> ends{};
        if (pipe(ends.data()) == 0) {
            dup2(ends[0], STDIN_FILENO);
            close(ends[0]);
            write_end_ = ends[1];
        }
    }
    ~RawSamples() override {
        finish();
        dup2(saved_, STDIN_FILENO);
        close(saved_);
    }

    void send(const void* bytes, std::size_t count) {
        ASSERT_EQ(write(write_end_, bytes, count), static_cast<ssize_t>(count));
    }
    void finish() {
        if (write_end_ >= 0) close(write_end_);
        write_end_ = -1;
    }

  private:
    int saved_;
    int write_end_ = -1;
};

TEST_F(RawSamples, ComeInWholeFramesHoweverTheyAreSent) {
    const std::array<uint8_t, 8> bytes = {0x00, 0x40, 0x00, 0x80, 0xff, 0x7f, 0x01, 0x00};
    StandardInput input(raw_iq({}));
    Piece piece;
    send(bytes.data(), 3);
    EXPECT_EQ(input.read(piece), Source::State::NONE_YET);
    EXPECT_TRUE(piece.samples.empty());
    send(bytes.data() + 3, 2);
    EXPECT_EQ(input.read(piece), Source::State::SAMPLES);
    std::vector<float> all = piece.samples;
    send(bytes.data() + 5, 3);
    finish();
    for (const float sample : all_of(input)) all.push_back(sample);
    EXPECT_EQ(all, (std::vector<float>{0.5f, -1.0f, 32767 / 32768.0f, 1 / 32768.0f}));
    EXPECT_FALSE(input.failed()) << "the end is no failure";
}

TEST_F(RawSamples, ThatAreNoNumbersOrBeyondAnyScaleAreSilence) {
    const std::array<float, 6> sent = {0.25f, NAN, HUGE_VALF, -0x1p31f, 0x1.1p31f, -2.0f};
    StandardInput input(raw_iq({.kind = SampleFormat::Kind::FLOAT, .bytes = 4}));
    send(sent.data(), sizeof sent);
    finish();
    EXPECT_EQ(all_of(input), (std::vector<float>{0.25f, 0, 0, -0x1p31f, 0, -2.0f}));
}

TEST_F(RawSamples, OfSeveralChannelsTheMeanIsTaken) {
    const std::array<uint8_t, 6> bytes = {0, 128, 255, 255, 0, 100};
    StandardInput input({.rate = 8000, .samples = {.kind = SampleFormat::Kind::UNSIGNED, .bytes = 1}, .channels = 3});
    send(bytes.data(), bytes.size());
    finish();
    Piece piece;
    ASSERT_EQ(input.read(piece), Source::State::SAMPLES);
    ASSERT_EQ(piece.samples.size(), 2u);
    EXPECT_FLOAT_EQ(piece.samples[0], (-127.5f + 0.5f + 127.5f) / 128 / 3);
    EXPECT_FLOAT_EQ(piece.samples[1], (127.5f - 127.5f - 27.5f) / 128 / 3);
}

// ---- A ring ---------------------------------------------------------------------------------------------------------

std::vector<float> counting(float first, std::size_t count) {
    std::vector<float> samples(count);
    std::iota(samples.begin(), samples.end(), first);
    return samples;
}

TEST(TheRingOfSamples, HandsThemOutInOrderAcrossItsEnd) {
    SampleRing ring(10);
    std::vector<float> taken;
    float next = 0;
    for (const std::size_t count : {7U, 0U, 10U, 6U, 9U}) {
        EXPECT_TRUE(ring.push(counting(next, count)));
        EXPECT_EQ(ring.take(taken), 0u);
        EXPECT_EQ(taken, counting(next, count));
        next += static_cast<float>(count);
    }
}

TEST(TheRingOfSamples, DropsWhatHasNoRoomAndAllBehindItUntilItIsEmpty) {
    SampleRing ring(10);
    std::vector<float> taken;
    EXPECT_TRUE(ring.push(counting(0, 8)));
    EXPECT_FALSE(ring.push(counting(8, 4)));
    EXPECT_FALSE(ring.push(counting(12, 1))) << "though there is room for it";
    EXPECT_EQ(ring.take(taken), 0u) << "the loss is behind them";
    EXPECT_EQ(taken, counting(0, 8));
    EXPECT_EQ(ring.take(taken), 0u);
    EXPECT_TRUE(taken.empty());
    EXPECT_TRUE(ring.push(counting(13, 3)));
    EXPECT_EQ(ring.take(taken), 5u);
    EXPECT_EQ(taken, counting(13, 3));
    EXPECT_TRUE(ring.push(counting(16, 1)));
    EXPECT_EQ(ring.take(taken), 0u) << "it is told once";
}

TEST(TheRingOfSamples, OfTwoThreadsAccountsForEverySample) {
    constexpr int32_t ALL = 200000;
    SampleRing ring(64);
    std::atomic<bool> written = false;
    std::thread writer([&] {
        for (int32_t k = 0; k < ALL; k += 4) ring.push(counting(static_cast<float>(k), 4));
        written = true;
    });
    std::vector<float> taken;
    int64_t expected = 0;
    bool right = true;
    const auto take = [&] {
        expected += static_cast<int64_t>(ring.take(taken));
        for (const float sample : taken) right = right && sample == static_cast<float>(expected++);
    };
    while (!written) take();
    writer.join();
    take();
    take();
    EXPECT_TRUE(ring.push(counting(ALL, 4)));
    take();
    EXPECT_TRUE(right);
    EXPECT_EQ(expected, ALL + 4);
}

// ---- Addresses of rtl_tcp -------------------------------------------------------------------------------------------

TEST(RtlTcpAddresses, SayWhatTheServerIsAskedFor) {
    const RtlTcpAddress plain = parse_rtl_tcp("shack");
    EXPECT_EQ(plain.text(), "shack:1234");
    EXPECT_EQ(plain.tuner.rate, 250000);
    EXPECT_FALSE(plain.tuner.freq_hz || plain.tuner.gain_db);

    const RtlTcpAddress full = parse_rtl_tcp("[::1]:1235?freq=0.1375M&rate=1024k&gain=-1.5&ppm=-12&direct=2");
    EXPECT_EQ(full.host, "::1");
    EXPECT_EQ(full.text(), "[::1]:1235");
    EXPECT_EQ(full.tuner.freq_hz, 137500);
    EXPECT_EQ(full.tuner.rate, 1024000);
    EXPECT_EQ(full.tuner.gain_db, -1.5);
    EXPECT_EQ(full.tuner.ppm, -12);
    EXPECT_EQ(full.tuner.direct, 2);
    EXPECT_FALSE(parse_rtl_tcp("10.0.0.1:1?gain=auto").tuner.gain_db);
}

TEST(RtlTcpAddresses, ThatMakeNoSenseAreRefused) {
    for (const char* const text : {"",
                                   ":1234",
                                   "shack:",
                                   "shack:x",
                                   "[::1",
                                   "[]:1",
                                   "shack?freq",
                                   "shack?freq=",
                                   "shack?freq=-1",
                                   "shack?freq=4294967296",
                                   "shack?freq=1.5",
                                   "shack?freq=k",
                                   "shack?rate=7999",
                                   "shack?rate=3200001",
                                   "shack?rate=nan",
                                   "shack?gain=loud",
                                   "shack?gain=inf",
                                   "shack?ppm=1e9",
                                   "shack?direct=3",
                                   "shack?volume=3"}) {
        EXPECT_THROW(parse_rtl_tcp(text), UsageError) << text;
    }
}

TEST(RtlTcpAddresses, BecomeCommandsOfFiveOctets) {
    const std::vector<uint8_t> expected = {2, 0,   3, 0xd0, 0x90, 3,    0,    0, 0, 1, 4,    0,   0,
                                           0, 207, 5, 0xff, 0xff, 0xff, 0xfd, 1, 0, 2, 0x19, 0x1c};
    EXPECT_EQ(rtl_tcp_commands(parse_rtl_tcp("x?freq=137500&gain=20.7&ppm=-3")), expected);
    EXPECT_EQ(rtl_tcp_commands(parse_rtl_tcp("x")), (std::vector<uint8_t>{2, 0, 3, 0xd0, 0x90, 3, 0, 0, 0, 0}));
}

// ---- What a server sends --------------------------------------------------------------------------------------------

std::vector<uint8_t> bytes_of(const std::string& text) {
    return {text.begin(), text.end()};
}

const std::string HEADER("RTL0\0\0\0\x05\0\0\0\x1d", 12);

std::vector<float> samples_of(const std::vector<uint8_t>& bytes, std::size_t piece) {
    RtlTcpStream stream;
    std::vector<float> samples;
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
        stream.push(std::span(bytes).subspan(at, std::min(piece, bytes.size() - at)), samples);
        EXPECT_EQ(samples.size() % 2, 0u);
    }
    return samples;
}

TEST(RtlTcpStreams, AreTheSameHoweverTheyAreCutWithAHeaderOrWithout) {
    const std::vector<uint8_t> pairs = {0, 255, 127, 128, 'R', 'T', 'L', '0', 64, 192, 7};
    const std::vector<float> expected = {-127.5f / 128, 127.5f / 128, -0.5f / 128,  0.5f / 128,   -45.5f / 128,
                                         -43.5f / 128,  -51.5f / 128, -79.5f / 128, -63.5f / 128, 64.5f / 128};
    std::vector<uint8_t> with_header = bytes_of(HEADER);
    with_header.insert(with_header.end(), pairs.begin(), pairs.end());
    for (std::size_t piece = 1; piece <= with_header.size(); piece++) {
        EXPECT_EQ(samples_of(pairs, piece), expected) << piece;
        EXPECT_EQ(samples_of(with_header, piece), expected) << piece;
    }
    EXPECT_EQ(samples_of(bytes_of("RTLx"), 1).size(), 4u) << "as far as it is no header";
    EXPECT_TRUE(samples_of(bytes_of("RTL0abc"), 3).empty()) << "a header that does not end";
}

TEST(RtlTcpStreams, NameTheTuner) {
    RtlTcpStream stream;
    std::vector<float> samples;
    EXPECT_EQ(stream.tuner(), "");
    stream.push(bytes_of(HEADER), samples);
    EXPECT_EQ(stream.tuner(), "R820T");
    RtlTcpStream liar;
    liar.push(bytes_of("RTL0zzzzzzzz"), samples);
    EXPECT_EQ(liar.tuner(), "unknown");
}

// ---- A server -------------------------------------------------------------------------------------------------------

// What comes until so many samples have, or the time is over; the pieces that began behind a loss count.
struct Came {
    std::vector<float> samples;
    std::vector<double> losses;
};
Came receive(Source& source, std::size_t count, double seconds = 20) {
    Came came;
    Piece piece;
    const double end = monotonic_now() + seconds;
    while (came.samples.size() < count && monotonic_now() < end) {
        const double begin = monotonic_now();
        const auto state = source.read(piece);
        EXPECT_LT(monotonic_now() - begin, 2) << "it delays the others";
        EXPECT_TRUE(state == Source::State::SAMPLES || state == Source::State::NONE_YET);
        EXPECT_EQ(piece.samples.empty(), state == Source::State::NONE_YET);
        came.samples.insert(came.samples.end(), piece.samples.begin(), piece.samples.end());
        if (piece.lost_s > 0) came.losses.push_back(piece.lost_s);
    }
    return came;
}

std::unique_ptr<Source> client_of(const TcpServer& server, const std::string& settings = "") {
    return open_source("rtl_tcp://" + server.address() + settings, {.name = "test"});
}

TEST(AnRtlTcpServer, IsToldTheSettingsAndBringsItsSamplesInOrder) {
    std::vector<uint8_t> ramp(100000);
    for (std::size_t k = 0; k < ramp.size(); k++) ramp[k] = static_cast<uint8_t>(k * 7 + k / 256);
    std::string commands;
    TcpServer server([&](TcpServer::Connection& connection, int32_t) {
        connection.send(bytes_of(HEADER));
        commands = connection.receive(15);
        connection.send(ramp);
        connection.pause(60);
    });
    const auto source = client_of(server, "?freq=136k&rate=900001");
    EXPECT_TRUE(source->format().iq);
    EXPECT_EQ(source->format().rate, 900001);
    ASSERT_TRUE(source->format().tuning);
    EXPECT_EQ(source->format().tuning->dial_hz, 136000);
    const Came came = receive(*source, ramp.size());
    EXPECT_EQ(came.samples, samples_of(ramp, ramp.size()));
    EXPECT_TRUE(came.losses.empty());
    EXPECT_EQ(bytes_of(commands), rtl_tcp_commands(parse_rtl_tcp("x?freq=136k&rate=900001")));
}

TEST(AnRtlTcpServer, ThatSendsAnOctetAtATimeIsHeard) {
    const std::vector<uint8_t> pairs = {1, 2, 3, 4, 5, 6, 7, 8};
    TcpServer server([&](TcpServer::Connection& connection, int32_t) {
        for (const uint8_t byte : pairs) {
            if (!connection.send({&byte, 1}) || !connection.pause(0.01)) return;
        }
        connection.pause(60);
    });
    EXPECT_EQ(receive(*client_of(server), pairs.size()).samples, samples_of(pairs, 1));
}

TEST(AnRtlTcpServer, ThatGoesAwayIsCalledAgainAndWhatWasLostIsKnown) {
    const std::vector<uint8_t> pairs(1000, 200);
    TcpServer server([&](TcpServer::Connection& connection, int32_t which) {
        if (which == 1) return;  // it refuses
        connection.send(bytes_of(HEADER));
        connection.send(pairs);
        if (which == 2) connection.pause(60);
    });
    const double begin = monotonic_now();
    const Came came = receive(*client_of(server), 2 * pairs.size());
    EXPECT_EQ(came.samples.size(), 2 * pairs.size());
    ASSERT_EQ(came.losses.size(), 1u);
    EXPECT_NEAR(came.losses[0], monotonic_now() - begin, 1);
    EXPECT_GE(came.losses[0], 2.9) << "the waits of one second and of two";
}

TEST(AnRtlTcpServer, ThatIsNotThereIsWaitedFor) {
    uint16_t port = 0;
    {
        const TcpServer gone([](TcpServer::Connection&, int32_t) {});
        port = gone.port();
    }
    const auto source = open_source("rtl_tcp://127.0.0.1:" + std::to_string(port), {.name = "test"});
    EXPECT_TRUE(receive(*source, 1, 0.5).samples.empty());
    const auto nowhere = open_source("rtl_tcp://no.such.host.invalid", {.name = "test"});
    EXPECT_TRUE(receive(*nowhere, 1, 0.5).samples.empty());
}

// Sends at a rate, a tenth of a second at a time.
bool send_at(TcpServer::Connection& connection, int32_t rate, double seconds) {
    const std::vector<uint8_t> tenth(static_cast<std::size_t>(rate / 5), 100);
    const double begin = monotonic_now();
    for (int32_t k = 1; k <= 10 * seconds; k++) {
        if (!connection.send(tenth) || !connection.pause(std::max(begin + 0.1 * k - monotonic_now(), 0.0)))
            return false;
    }
    return true;
}

TEST(RatesOfReceivers, AreKnownButForAHundredth) {
    EXPECT_EQ(usual_rate(48200, 48000), 48000);
    EXPECT_EQ(usual_rate(2047000, 48000), 2048000);
    EXPECT_EQ(usual_rate(1999000, 48000), 2000000);
    EXPECT_EQ(usual_rate(77700, 77000), 77000) << "what was asked for is usual";
    EXPECT_FALSE(usual_rate(700000, 48000));
    EXPECT_FALSE(usual_rate(0, 48000));
}

TEST(AnRtlTcpServer, ThatSendsAtAnotherRateIsFollowedThere) {
    const TcpServer server([](TcpServer::Connection& connection, int32_t) { send_at(connection, 96000, 60); });
    RtlTcp source(parse_rtl_tcp(server.address() + "?rate=48000"), {.name = "test"}, {.still_s = 10, .rate_s = 2});
    Piece piece;
    const double begin = monotonic_now();
    auto state = Source::State::NONE_YET;
    while (state != Source::State::BROKEN && monotonic_now() < begin + 30) {
        EXPECT_EQ(source.format().rate, 48000);
        state = source.read(piece);
    }
    ASSERT_EQ(state, Source::State::BROKEN);
    EXPECT_TRUE(piece.samples.empty());
    EXPECT_EQ(source.format().rate, 96000);
    const double followed = monotonic_now();
    while (monotonic_now() < followed + 3) EXPECT_NE(source.read(piece), Source::State::BROKEN);
}

// It says nothing for longer than is waited for, and then sends on to whoever may listen.
TEST(AnRtlTcpServer, ThatStopsForLongIsCalledAgainAndWhatWasLostIsKnown) {
    const std::vector<uint8_t> pairs(1000, 200);
    const TcpServer server([&](TcpServer::Connection& connection, int32_t which) {
        connection.send(bytes_of(HEADER));
        connection.send(pairs);
        connection.pause(which == 0 ? 2.5 : 0.6);
        connection.send(pairs);
    });
    const double begin = monotonic_now();
    RtlTcp source(parse_rtl_tcp(server.address()), {.name = "test"}, {.still_s = 0.5, .rate_s = 30});
    const Came came = receive(source, 2 * pairs.size());
    EXPECT_EQ(came.samples.size(), 2 * pairs.size());
    ASSERT_EQ(came.losses.size(), 1u);
    EXPECT_NEAR(came.losses[0], monotonic_now() - begin, 1);
    EXPECT_GE(came.losses[0], 1.5) << "the half second that it is waited for, and one before it is called again";
}

}  // namespace

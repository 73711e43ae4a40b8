// Days on one frequency: `orvel listen` receives hours of stations at many times real time, and is compared with what
// `orvel decode` finds in the same audio afterwards.
//
// ORVEL_HOURS is how many, a part of one when it is not set; scripts/long-run sets it.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iostream>
#include <limits>
#include <string>
#include <vector>

#include "command.h"
#include "json_value.h"
#include "liborvel.h"
#include "process.h"
#include "siggen.h"

namespace {

constexpr int32_t RATE = 12000;
constexpr double MINUTE_S = 60;
constexpr double HOUR_S = 3600;
constexpr double LONGEST_HOURS = 49;  // of samples that a WAVE file of 4 GB can hold
constexpr double PATIENCE_S = 120;
constexpr std::size_t SECOND_BYTES = 2 * RATE;
constexpr double SHORT_HOURS = 0.15;

// ---- The air -------------------------------------------------------------------------------------------------------

struct Frame {
    std::string call, protocol, locator;
    double start = 0;  // s from the first sample
    double freq = 0;   // Hz
    double snr = 0;    // dB
};

// One frame, however often and by whomever it was found.
bool same_frame(const Frame& a, const Frame& b) {
    return a.call == b.call && a.protocol == b.protocol && a.locator == b.locator && std::fabs(a.start - b.start) < 1 &&
           std::fabs(a.freq - b.freq) < 5;
}

double frame_seconds(const Frame& frame) {
    return CHIP_SECONDS * (frame.protocol == "ORVEL L" ? 321 : 239);
}

// What is on the air: frames every few minutes, from the edge of what can be read to strong.
class Air {
  public:
    explicit Air(double seconds) {
        constexpr std::array<const char*, 4> LOCATORS = {"JO31", "IO91", "FN31", "QF56"};
        constexpr std::array<uint32_t, 3> PROTOCOLS = {OVL_OPERA, OVL_ORVEL_S, OVL_ORVEL_L};
        std::vector<std::string> calls(40);
        for (std::string& call : calls) call = random_.callsign();
        const auto pick = [this](const auto& from) {
            return from[static_cast<std::size_t>(random_.integer(0, static_cast<int32_t>(from.size()) - 1))];
        };
        // A station has one transmitter: when the one drawn is on the air already, the next one sends.
        const auto pick_free = [&](double t) {
            auto k = static_cast<std::size_t>(random_.integer(0, static_cast<int32_t>(calls.size()) - 1));
            while (is_busy(calls[k], t)) k = (k + 1) % calls.size();
            return calls[k];
        };
        for (double t = 15; t < seconds; t += random_.uniform(30, 240)) {
            const double low_hz = random_.uniform(1330, 1480);
            const uint32_t protocol = pick(PROTOCOLS);
            const std::string call = pick_free(t);
            send(protocol, call, pick(LOCATORS), t, low_hz, random_.uniform(-25, -8));
            const int32_t chance = random_.integer(0, 5);
            if (chance == 0) {  // another one at the same time
                send(pick(PROTOCOLS), pick_free(t), pick(LOCATORS), t + random_.uniform(-10, 20),
                     low_hz + random_.uniform(60, 190), random_.uniform(-25, -8));
            } else if (chance == 1) {  // the same again, as soon as can be
                t += frame_seconds(frames_.back()) + random_.uniform(1, 5);
                send(protocol, call, frames_.back().locator, t, low_hz, random_.uniform(-20, -8));
            }
        }
    }

    const std::vector<Frame>& frames() const { return frames_; }

    // The samples of minute k, 16 bits each.
    std::string minute(int64_t k) const {
        Scene scene;
        scene.rate = RATE;
        scene.seconds = MINUTE_S;
        scene.seed = 20280228 + static_cast<uint64_t>(k);
        const double begin = MINUTE_S * static_cast<double>(k);
        for (std::size_t i = 0; i < frames_.size(); i++) {
            const double from_begin = frames_[i].start - begin;
            if (from_begin > MINUTE_S + 1 || from_begin + frame_seconds(frames_[i]) < -1) continue;
            scene.stations.push_back(stations_[i]);
            scene.stations.back().t_start = from_begin;
        }
        std::string bytes;
        bytes.reserve(static_cast<std::size_t>(2 * MINUTE_S * RATE));
        for (const double x : render_real(scene)) append(bytes, static_cast<int16_t>(std::lround(32768 * x)));
        return bytes;
    }

  private:
    bool is_busy(const std::string& call, double t) const {
        constexpr double NEAR_S = 62;  // the longest frame, and what another one is put off by at most
        return std::any_of(frames_.begin(), frames_.end(), [&](const Frame& frame) {
            return frame.call == call && std::fabs(frame.start - t) < NEAR_S;
        });
    }

    void send(uint32_t protocol, const std::string& call, const std::string& locator, double t, double freq,
              double snr) {
        Station station;
        station.chips.resize(static_cast<std::size_t>(ovl_frame_chips(protocol)));
        EXPECT_GT(ovl_encode(protocol, call.c_str(), locator.c_str(), station.chips.data(), ovl_frame_chips(protocol)),
                  0)
            << call;
        station.freq_hz = freq;
        station.snr_db = snr;
        station.drift_hz_s = random_.uniform(-0.05, 0.05);
        station.phase = random_.uniform(0, 6);
        stations_.push_back(station);
        frames_.push_back({call, ovl_proto_name(protocol), protocol == OVL_ORVEL_L ? locator : "", t, freq, snr});
    }

    Random random_{1};
    std::vector<Frame> frames_;
    std::vector<Station> stations_;  // of the frames, in their order
};

// ---- What the command says -----------------------------------------------------------------------------------------

// Seconds since 1970 of "2028-02-28T23:45:00.00Z".
double utc_seconds(const std::string& text) {
    std::tm date{};
    double second = 0;
    char zone = 0;
    if (std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%lf%c", &date.tm_year, &date.tm_mon, &date.tm_mday,
                    &date.tm_hour, &date.tm_min, &second, &zone) != 7 ||
        zone != 'Z') {
        ADD_FAILURE() << "no such time: " << text;
        return 0;
    }
    date.tm_year -= 1900;
    date.tm_mon -= 1;
    return static_cast<double>(timegm(&date)) + second;
}

Frame frame_of(const JsonValue& object, double start) {
    return {object.at("call"),    object.at("protocol"),
            object.at("locator"), start,
            object.at("freq_hz"), object.at("snr_db").is_number() ? object.at("snr_db").number() : -99.0};
}

std::ostream& operator<<(std::ostream& out, const Frame& frame) {
    return out << frame.protocol << " " << frame.call << " " << frame.locator << " at " << frame.start << " s, "
               << frame.freq << " Hz, " << frame.snr << " dB";
}

auto times_in(const std::vector<Frame>& frames, const Frame& wanted) {
    return std::count_if(frames.begin(), frames.end(), [&](const Frame& frame) { return same_frame(frame, wanted); });
}

// As long as asked for, in the way that listeners listen; otherwise a few minutes, decoded less often.
struct Length {
    double hours = SHORT_HOURS;
    std::string every_s = "15";
};
Length length_wanted() {
    const char* const text = std::getenv("ORVEL_HOURS");
    if (text == nullptr) return {};
    return {std::clamp(std::atof(text), 0.1, LONGEST_HOURS), "4"};
}

// Memory that a process has at the moment, kB.
long memory_of(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("VmRSS:")) return std::stol(line.substr(6));
    }
    ADD_FAILURE() << "no VmRSS";
    return 0;
}

// Surroundings in which memory that is freed goes back at once, so that a process has what it holds and little more.
ProcessInput with_tidy_memory() {
    ProcessInput input;
    input.environment = {
        {"MALLOC_ARENA_MAX", "1"}, {"MALLOC_TRIM_THRESHOLD_", "0"}, {"MALLOC_MMAP_THRESHOLD_", "65536"}};
    return input;
}

double seconds_since(std::chrono::steady_clock::time_point begin) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// ---- Listening -----------------------------------------------------------------------------------------------------

using Days = TestWithFiles;

// Every frame that the decoder of recordings finds is printed once, in order of the frames' ends. The two search
// different blocks: what one finds at the edge of readability may escape the other. They are compared:
//   found in the recording    printed exactly once, without exception
//   printed                   was sent, and then
//   sent well readable        found by both
TEST_F(Days, ListeningPrintsWhatTheRecordingHoldsOnceAtTheRightTimeInMemoryThatStaysFlat) {
    const Length length = length_wanted();
    const auto minutes = static_cast<int64_t>(std::ceil(60 * length.hours));
    const double seconds = MINUTE_S * static_cast<double>(minutes);
    const Air air(seconds);
    const std::string start = "2028-02-28T23:55:00Z";  // midnight comes soon, and a 29th of February
    const double start_utc = utc_seconds(start);

    std::vector<Frame> printed;
    double last_end = -1;
    const auto take = [&](const std::string& line) {
        const auto object = JsonValue::parse(line);
        const double end = utc_seconds(object.at("utc_end")) - start_utc;
        EXPECT_GE(end, last_end) << "out of order: " << line;
        last_end = end;
        printed.push_back(frame_of(object, utc_seconds(object.at("utc_start")) - start_utc));
    };

    const std::string file = path("audio.wav");
    std::ofstream recording(file, std::ios::binary);
    const std::string header = wave_file(1, 1, RATE, 16, "");
    recording << header;
    std::vector<long> memory_kb(static_cast<std::size_t>(minutes), std::numeric_limits<long>::max());  // least of each
    const auto began = std::chrono::steady_clock::now();
    RunningProcess listener(
        orvel_arguments({"listen", "--stdin", "--rate=12000", "--json", "--start", start, "--every", length.every_s}),
        with_tidy_memory());
    for (int64_t k = 0; k < minutes; k++) {
        const std::string samples = air.minute(k);
        recording << samples;
        long& least_kb = memory_kb[static_cast<std::size_t>(k)];
        for (std::size_t at = 0; at < samples.size(); at += SECOND_BYTES) {
            ASSERT_TRUE(listener.write(samples.substr(at, SECOND_BYTES)));
            least_kb = std::min(least_kb, memory_of(listener.pid()));
        }
        while (const auto line = listener.read_line(0)) take(*line);
        if ((k + 1) % 60 == 0) {
            std::cout << "hour " << (k + 1) / 60 << ": " << least_kb << " kB, " << printed.size() << " frames, "
                      << seconds_since(began) << " s" << std::endl;
        }
    }
    listener.close_stdin();
    while (const auto line = listener.read_line(PATIENCE_S)) take(*line);
    const auto ended = listener.wait(PATIENCE_S);
    ASSERT_TRUE(ended);
    EXPECT_EQ(ended->status, 0);
    EXPECT_EQ(ended->err, "");
    const double listened_s = seconds_since(began);

    // The header was written before the samples.
    const auto bytes = static_cast<uint32_t>(recording.tellp());
    for (const auto& [at, size] : {std::pair<std::streamoff, uint32_t>{4, bytes - 8}, {40, bytes - 44}}) {
        std::string field;
        append(field, size);
        recording.seekp(at);
        recording << field;
    }
    recording.close();
    ASSERT_TRUE(recording);
    const ProcessResult decoded = orvel({"decode", "--json", file});
    EXPECT_EQ(decoded.status, 0);
    EXPECT_EQ(decoded.err, "");
    std::vector<Frame> found;
    for (const std::string& line : lines_of(decoded.out)) {
        const auto object = JsonValue::parse(line);
        found.push_back(frame_of(object, object.at("t_start")));
    }

    std::cout << seconds / HOUR_S << " h in " << listened_s << " s: " << air.frames().size() << " frames sent, "
              << found.size() << " found in the recording, " << printed.size() << " printed" << std::endl;

    for (const Frame& frame : found) EXPECT_EQ(times_in(printed, frame), 1) << frame;
    for (const Frame& frame : printed) {
        EXPECT_EQ(times_in(printed, frame), 1) << "twice: " << frame;
        EXPECT_EQ(times_in(air.frames(), frame), 1) << "never sent: " << frame;
    }
    std::size_t readable = 0;
    for (const Frame& sent : air.frames()) {
        if (sent.snr < -16 || sent.start + frame_seconds(sent) > seconds) continue;
        readable++;
        EXPECT_EQ(times_in(found, sent), 1) << sent;
        const auto heard =
            std::find_if(printed.begin(), printed.end(), [&](const Frame& frame) { return same_frame(frame, sent); });
        ASSERT_NE(heard, printed.end()) << sent;
        EXPECT_NEAR(heard->start, sent.start, 0.1) << sent;
    }
    EXPECT_GE(static_cast<double>(readable), seconds / 600) << "too few for the test to say anything";

    // Between two looks it holds what it always holds, however much comes and goes with a look.
    const std::ptrdiff_t third = minutes / 3;
    const long before_kb = *std::min_element(memory_kb.begin() + third, memory_kb.end() - third);
    const long after_kb = *std::min_element(memory_kb.end() - third, memory_kb.end());
    std::cout << before_kb << " kB in the second third, " << after_kb << " kB in the last" << std::endl;
    EXPECT_LE(after_kb, before_kb + 512);
}

}  // namespace

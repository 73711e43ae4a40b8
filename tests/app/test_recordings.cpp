// Recordings as our programs read and decode them.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "base/error.h"
#include "command.h"
#include "recordings/decode_recording.h"
#include "recordings/open_recording.h"
#include "siggen.h"

namespace {

class Recordings : public TestWithFiles {
  protected:
    // Why a file cannot be opened.
    static std::string refusal(const std::string& file, const RecordingOptions& options = {}) {
        try {
            open_recording(file, options);
            return "it was opened";
        } catch (const IoError& error) {
            return error.what();
        }
    }

    // 16-bit audio at 8000 Hz with these stations in noise.
    std::string audio(const std::string& name, const std::vector<Station>& stations, double seconds) const {
        Scene scene;
        scene.rate = 8000;
        scene.seconds = seconds;
        scene.stations = stations;
        std::string samples;
        for (const double sample : render_real(scene))
            append(samples, static_cast<int16_t>(std::lround(20000 * sample)));
        return write(name, wave_file(1, 1, 8000, 16, samples));
    }
};

Station opera(const std::string& call, double t_start, double freq_hz) {
    Station station;
    station.chips = opera_chips(call);
    station.t_start = t_start;
    station.freq_hz = freq_hz;
    station.snr_db = -5;
    return station;
}

TEST_F(Recordings, ThatCannotBeReadAreRefusedWithTheirNameAndTheReason) {
    const std::string second(8000, '\0');
    EXPECT_EQ(refusal(path("none.wav")), "cannot read '" + path("none.wav") + "': No such file or directory");
    EXPECT_EQ(refusal(path("")), "cannot read '" + path("") + "': it is a directory");
    const std::string odd = write("odd.wav", wave_file(30583, 1, 8000, 16, second));
    EXPECT_EQ(refusal(odd), "cannot read '" + odd + "': unsupported audio format 30583 (integer PCM required)");
    const std::string mono = write("mono.wav", wave_file(1, 1, 8000, 16, second));
    EXPECT_NE(refusal(mono, {true, 0}).find("'" + mono + "'"), std::string::npos);
    EXPECT_EQ(refusal(mono, {false, 2}), "cannot read '" + mono + "': it has 1 channel");
    EXPECT_EQ(refusal(mono), "it was opened");
}

// A reader that took hold of the process's standard error would keep what other threads print meanwhile.
TEST_F(Recordings, LeaveStandardErrorToOtherThreads) {
    const std::string odd = write("odd.wav", wave_file(30583, 1, 8000, 16, std::string(8000, '\0')));
    ::testing::internal::CaptureStderr();
    std::atomic<bool> end = false;
    int printed = 0;
    std::thread other([&] {
        for (; !end || printed < 100; printed++) std::fputs("mine\n", stderr);
    });
    for (int round = 0; round < 100; round++) EXPECT_NE(refusal(odd), "it was opened");
    end = true;
    other.join();
    std::string expected;
    for (int k = 0; k < printed; k++) expected += "mine\n";
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), expected);
}

TEST_F(Recordings, AreReadByTheStretch) {
    std::string samples;
    for (int16_t k = 0; k < 8000; k++) append(samples, k);
    const auto recording = open_recording(write("ramp.wav", wave_file(1, 1, 8000, 16, samples)), {});
    EXPECT_EQ(recording->rate(), 8000);
    EXPECT_EQ(recording->seconds(), 1);
    const Stretch stretch = recording->read(0.25, 0.5);
    EXPECT_EQ(stretch.begin_s, 0.25);
    ASSERT_EQ(stretch.x.size(), 4000u);
    EXPECT_EQ(stretch.x.front(), 2000 / 32768.0);
    EXPECT_EQ(stretch.x.back(), 5999 / 32768.0);
    EXPECT_TRUE(stretch.q.empty());
    EXPECT_EQ(recording->read(0.75, 9).x.size(), 2000u);
    EXPECT_TRUE(recording->read(2, 1).x.empty());
}

// Blocks of 60 s that overlap by 50: every frame lies in several of them.
TEST_F(Recordings, GiveEachFrameOnceInOrderWhateverTheBlocks) {
    const std::string file =
        audio("three.wav", {opera("K2QRX", 2, 1400), opera("G4QZB", 40, 1500), opera("DL1QXA", 41, 1600)}, 76);
    for (const unsigned jobs : {1U, 2U}) {
        const auto recording = open_recording(file, {});
        std::vector<std::string> calls;
        std::vector<double> done_s;
        bool begun = false;
        SpotTaker taker;
        taker.begin = [&] { begun = calls.empty(); };
        taker.take = [&](const ov_spot& spot) { calls.emplace_back(spot.call); };
        taker.progress = [&](double s, std::size_t spots) {
            done_s.push_back(s);
            EXPECT_EQ(spots, calls.size());
        };
        taker.go_on = [] { return true; };
        decode_recording(*recording, {Search{}, 60.0, jobs}, 0, recording->seconds(), taker);
        EXPECT_EQ(calls, (std::vector<std::string>{"K2QRX", "G4QZB", "DL1QXA"}));
        EXPECT_TRUE(begun);
        ASSERT_GE(done_s.size(), 2u);
        EXPECT_EQ(done_s.back(), 76);
    }
}

TEST_F(Recordings, EndEarlyWhenTheTakerHasEnough) {
    const auto recording = open_recording(audio("one.wav", {opera("K2QRX", 2, 1400)}, 76), {});
    int blocks = 0;
    SpotTaker taker;
    taker.begin = [] {};
    taker.take = [](const ov_spot&) {};
    taker.progress = [&](double, std::size_t) { blocks++; };
    taker.go_on = [] { return false; };
    decode_recording(*recording, {Search{}, 60.0, 1}, 0, recording->seconds(), taker);
    EXPECT_EQ(blocks, 0);
}

TEST_F(Recordings, ThatAreTooShortAreAnError) {
    const auto recording = open_recording(write("short.wav", wave_file(1, 1, 8000, 8, std::string(800, '\x80'))), {});
    SpotTaker taker;
    taker.begin = [] { ADD_FAILURE() << "nothing was decoded"; };
    taker.take = [](const ov_spot&) {};
    taker.progress = [](double, std::size_t) {};
    taker.go_on = [] { return true; };
    try {
        decode_recording(*recording, {}, 0, recording->seconds(), taker);
        FAIL() << "nothing was thrown";
    } catch (const IoError& error) {
        EXPECT_EQ(error.what(),
                  "cannot decode '" + path("short.wav") + "': it is too short (0.100 s, a chip is 0.128 s)");
    }
}

}  // namespace

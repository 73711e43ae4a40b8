// The shipped recordings: they are what the generator makes, and the decoder finds what they hold.
#include <gtest/gtest.h>
#include <sndfile.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "iqread.h"
#include "json_value.h"
#include "liborvel.h"
#include "ovpipe.h"
#include "recordings.h"
#include "wavread.h"

namespace {

const std::filesystem::path DIRECTORY = ORVEL_RECORDINGS;

constexpr double TIME_TOLERANCE_S = 0.005;
constexpr double FREQUENCY_TOLERANCE_HZ = 0.5;
constexpr double DRIFT_TOLERANCE_HZ_S = 0.032;  // one step of the decoder's search
constexpr double SNR_TOLERANCE_DB = 1;
constexpr double SNR_LOSS_DB = 2;  // what the other stations leave of themselves counts as noise

std::string path_of(const ShippedRecording& recording) {
    return (DIRECTORY / (recording.name + ".wav")).string();
}

// Each station of the recording is found once, at its place, and nothing else is.
struct Found {
    std::string call;
    int32_t protocol;
    std::string locator;
    double t_start, freq_hz, drift_hz_s, snr_db;
};
void expect_truth(const std::vector<Found>& found, const ShippedRecording& recording) {
    EXPECT_EQ(found.size(), recording.senders.size());
    for (const Found& spot : found) {
        std::size_t k = 0;
        while (k < recording.senders.size() && recording.senders[k].call != spot.call) ++k;
        if (k == recording.senders.size()) {
            ADD_FAILURE() << spot.call << " is not in " << recording.name;
            continue;
        }
        EXPECT_EQ(static_cast<uint32_t>(spot.protocol), recording.senders[k].protocol) << spot.call;
        EXPECT_EQ(spot.locator, recording.senders[k].locator) << spot.call;
        const Station& station = recording.scene.stations[k];
        EXPECT_NEAR(spot.t_start, station.t_start, TIME_TOLERANCE_S) << spot.call;
        EXPECT_NEAR(spot.freq_hz, station.freq_hz, FREQUENCY_TOLERANCE_HZ) << spot.call;
        EXPECT_NEAR(spot.drift_hz_s, station.drift_hz_s, DRIFT_TOLERANCE_HZ_S) << spot.call;
        EXPECT_LE(spot.snr_db, station.snr_db + SNR_TOLERANCE_DB) << spot.call;
        EXPECT_GE(spot.snr_db, station.snr_db - SNR_TOLERANCE_DB - SNR_LOSS_DB) << spot.call;
    }
    for (const Sender& sender : recording.senders) {
        const auto times =
            std::count_if(found.begin(), found.end(), [&](const Found& spot) { return spot.call == sender.call; });
        EXPECT_EQ(times, 1) << sender.call << " in " << recording.name;
    }
}

TEST(Recordings, TakeAtMostTwoMegabytes) {
    std::uintmax_t bytes = 0;
    for (const auto& entry : std::filesystem::directory_iterator(DIRECTORY)) bytes += entry.file_size();
    EXPECT_LE(bytes, 2'000'000U);
}

TEST(Recordings, AreAllOfTheGeneratorsAndNoOthers) {
    std::vector<std::string> expected;
    for (const ShippedRecording& recording : shipped_recordings()) {
        expected.push_back(recording.name + ".jsonl");
        expected.push_back(recording.name + ".wav");
    }
    std::vector<std::string> shipped;
    for (const auto& entry : std::filesystem::directory_iterator(DIRECTORY))
        shipped.push_back(entry.path().filename().string());
    std::sort(expected.begin(), expected.end());
    std::sort(shipped.begin(), shipped.end());
    EXPECT_EQ(shipped, expected);
}

TEST(Recordings, EqualWhatTheGeneratorMakesAgainSampleBySample) {
    for (const ShippedRecording& recording : shipped_recordings()) {
        SF_INFO info{};
        const std::unique_ptr<SNDFILE, int (*)(SNDFILE*)> file(sf_open(path_of(recording).c_str(), SFM_READ, &info),
                                                               sf_close);
        ASSERT_NE(file, nullptr) << recording.name;
        EXPECT_EQ(info.samplerate, recording.scene.rate);
        EXPECT_EQ(info.channels, recording.iq ? 2 : 1);
        EXPECT_EQ(info.format & SF_FORMAT_SUBMASK, recording.bits == 8 ? SF_FORMAT_PCM_U8 : SF_FORMAT_PCM_16);
        std::vector<int16_t> samples(static_cast<std::size_t>(info.frames * info.channels));
        ASSERT_EQ(sf_read_short(file.get(), samples.data(), static_cast<sf_count_t>(samples.size())),
                  static_cast<sf_count_t>(samples.size()));
        EXPECT_TRUE(samples == quantised_samples(recording)) << recording.name;
    }
}

TEST(Recordings, TruthFilesTellWhatTheGeneratorPutIn) {
    for (const ShippedRecording& recording : shipped_recordings()) {
        std::ifstream file(DIRECTORY / (recording.name + ".jsonl"));
        std::size_t k = 0;
        for (std::string line; std::getline(file, line); ++k) {
            ASSERT_LT(k, recording.senders.size()) << recording.name;
            const Station& station = recording.scene.stations[k];
            const auto truth = JsonValue::parse(line);
            EXPECT_EQ(truth.at("call"), recording.senders[k].call);
            EXPECT_EQ(truth.at("protocol"), ovl_proto_name(recording.senders[k].protocol));
            EXPECT_EQ(truth.at("locator"), recording.senders[k].locator);
            EXPECT_EQ(truth.at("t_start"), station.t_start);
            EXPECT_EQ(truth.at("freq_hz"), station.freq_hz);
            EXPECT_EQ(truth.at("drift_hz_s"), station.drift_hz_s);
            EXPECT_EQ(truth.at("snr_db"), station.snr_db);
        }
        EXPECT_EQ(k, recording.senders.size()) << recording.name;
    }
}

TEST(Recordings, AudioDecodesToItsTruthThroughThePublicInterface) {
    for (const ShippedRecording& recording : shipped_recordings()) {
        if (recording.iq) continue;
        wav_audio audio{};
        ASSERT_EQ(wav_read(path_of(recording).c_str(), audio), 0);
        const std::vector<float> samples(audio.samples, audio.samples + audio.count);
        const auto rate = static_cast<int32_t>(audio.rate);
        wav_free(audio);

        const std::unique_ptr<ovl_decoder, void (*)(ovl_decoder*)> decoder(ovl_create(), ovl_destroy);
        ovl_settings settings;
        ovl_settings_default(&settings);
        std::vector<ovl_result> results(64);
        const int32_t count = ovl_decode(decoder.get(), samples.data(), static_cast<int32_t>(samples.size()), rate,
                                         &settings, results.data(), 64);
        ASSERT_GE(count, 0) << ovl_last_error(decoder.get());
        results.resize(static_cast<std::size_t>(count));

        std::vector<Found> found;
        for (const ovl_result& result : results) {
            const int32_t chips = ovl_frame_chips(static_cast<uint32_t>(result.protocol));
            EXPECT_NEAR(result.t_end - result.t_start, chips * CHIP_SECONDS, 1e-9);
            found.push_back({result.call, result.protocol, result.locator, result.t_start, result.freq_hz,
                             result.drift_hz_s, result.snr_db});
        }
        expect_truth(found, recording);
    }
}

TEST(Recordings, IqDecodesToItsTruth) {
    for (const ShippedRecording& recording : shipped_recordings()) {
        if (!recording.iq) continue;
        iq_recording pairs{};
        ASSERT_EQ(iq_read(path_of(recording).c_str(), pairs), 0);
        ov_params params;
        ov_params_default(params);
        params.center_hz = 0;
        std::vector<ov_spot> spots(64);
        const int32_t count =
            ov_decode_iq(pairs.i, pairs.q, pairs.count, static_cast<int32_t>(pairs.rate), params, spots.data(), 64);
        iq_free(pairs);
        ASSERT_GE(count, 0);
        spots.resize(static_cast<std::size_t>(count));

        std::vector<Found> found;
        for (const ov_spot& spot : spots) {
            found.push_back({spot.call, spot.protocol, spot.locator, spot.t, spot.freq, spot.drift, spot.snr});
        }
        expect_truth(found, recording);
    }
}

}  // namespace

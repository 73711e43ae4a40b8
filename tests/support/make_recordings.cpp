// Writes the example recordings and the truth of each: one JSON object per line and station.
//
//     make_recordings DIRECTORY
#include <sndfile.h>

#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "liborvel.h"
#include "recordings.h"

namespace {

struct CloseSound {
    void operator()(SNDFILE* file) const noexcept { sf_close(file); }
};

void write_samples(const ShippedRecording& recording, const std::filesystem::path& path) {
    SF_INFO info{};
    info.samplerate = recording.scene.rate;
    info.channels = recording.iq ? 2 : 1;
    info.format = SF_FORMAT_WAV | (recording.bits == 8 ? SF_FORMAT_PCM_U8 : SF_FORMAT_PCM_16);
    const std::unique_ptr<SNDFILE, CloseSound> file(sf_open(path.c_str(), SFM_WRITE, &info));
    if (!file) throw std::runtime_error(path.string() + ": " + sf_strerror(nullptr));
    const std::vector<int16_t> samples = quantised_samples(recording);
    const auto count = static_cast<sf_count_t>(samples.size());
    if (sf_write_short(file.get(), samples.data(), count) != count) {
        throw std::runtime_error(path.string() + ": " + sf_strerror(file.get()));
    }
}

void write_truth(const ShippedRecording& recording, const std::filesystem::path& path) {
    std::ofstream file(path);
    for (std::size_t k = 0; k < recording.senders.size(); ++k) {
        const Station& station = recording.scene.stations[k];
        nlohmann::ordered_json line;
        const Sender& sender = recording.senders[k];
        line["call"] = sender.call;
        line["protocol"] = ovl_proto_name(sender.protocol);
        line["locator"] = sender.locator;
        line["t_start"] = station.t_start;
        line["freq_hz"] = station.freq_hz;
        line["drift_hz_s"] = station.drift_hz_s;
        line["snr_db"] = station.snr_db;
        file << line.dump() << '\n';
    }
    if (!file.flush()) throw std::runtime_error(path.string() + ": cannot be written");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fputs("usage: make_recordings DIRECTORY\n", stderr);
        return 2;
    }
    try {
        const std::filesystem::path directory = argv[1];
        for (const ShippedRecording& recording : shipped_recordings()) {
            write_samples(recording, directory / (recording.name + ".wav"));
            write_truth(recording, directory / (recording.name + ".jsonl"));
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "make_recordings: %s\n", error.what());
        return 1;
    }
    return 0;
}

// Decodes the first channel of recordings: WAV, FLAC and whatever else libsndfile reads.
//
//     decode_file FILE...
#include <sndfile.h>

#include <cstdio>
#include <exception>
#include <liborvel.hpp>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

struct Audio {
    std::vector<float> samples;
    int32_t rate = 0;
};

Audio read_audio(const std::string &path) {
    constexpr sf_count_t BLOCK = 4096;  // frames
    SF_INFO info{};
    const std::unique_ptr<SNDFILE, decltype(&sf_close)> file(sf_open(path.c_str(), SFM_READ, &info), sf_close);
    if (!file) throw std::runtime_error(sf_strerror(nullptr));

    Audio audio;
    audio.rate = info.samplerate;
    const auto channels = static_cast<std::size_t>(info.channels);
    std::vector<float> block(BLOCK * channels);
    while (const sf_count_t frames = sf_readf_float(file.get(), block.data(), BLOCK)) {
        for (std::size_t k = 0; k < static_cast<std::size_t>(frames); k++) audio.samples.push_back(block[k * channels]);
    }
    return audio;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2) {
        std::fputs("usage: decode_file FILE...\n", stderr);
        return 2;
    }
    int status = 0;
    ovl::Decoder decoder;
    for (int k = 1; k < argc; k++) {
        try {
            const Audio audio = read_audio(argv[k]);
            for (const ovl_result &result : decoder.decode(audio.samples, audio.rate)) {
                std::printf("%7.2f s  %8.2f Hz  %+5.1f dB  %-8s  %s\n", result.t_start, result.freq_hz, result.snr_db,
                            ovl_proto_name(static_cast<uint32_t>(result.protocol)), result.call);
            }
        } catch (const std::exception &error) {
            std::fprintf(stderr, "decode_file: '%s': %s\n", argv[k], error.what());
            status = 1;
        }
    }
    return status;
}

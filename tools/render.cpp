#include "render.h"

#include <sndfile.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "console.h"
#include "steps.h"

namespace {

constexpr int32_t BLOCK = 4096;  // samples rendered at a time

// The command line, as typed.
struct Options {
    StepOptions steps;
    std::string output;
    std::string sample_format = "s16";
};

struct CloseSound {
    void operator()(SNDFILE* file) const noexcept { sf_close(file); }
};
using SoundPtr = std::unique_ptr<SNDFILE, CloseSound>;

// 16-bit samples rounded to the nearest: libsndfile's own conversion cuts them off.
int16_t to_s16(float sample) {
    return static_cast<int16_t>(std::clamp(std::lround(sample * 32768.0), -32768L, 32767L));
}

// Writes all that the transmitter has to say. False when the file takes no more.
bool write_all(SNDFILE* file, ovl_transmitter* tx, bool s16) {
    std::array<float, BLOCK> block;
    std::array<int16_t, BLOCK> rounded;
    for (;;) {
        const int32_t rendered = ovl_tx_render(tx, block.data(), BLOCK);
        std::transform(block.begin(), block.end(), rounded.begin(), to_s16);
        const sf_count_t written =
            s16 ? sf_write_short(file, rounded.data(), rendered) : sf_write_float(file, block.data(), rendered);
        if (written != rendered) return false;
        if (rendered < BLOCK) return true;
    }
}

// libsndfile says "System error : No space left on device." where a reason is enough.
int failure(const std::string& path, std::string reason) {
    constexpr std::string_view PREFIX = "System error : ";
    if (reason.starts_with(PREFIX)) reason.erase(0, PREFIX.size());
    if (reason.ends_with('.')) reason.pop_back();
    print_error("cannot write '" + path + "': " + reason);
    return EXIT_FAILED;
}

int render(const Options& options) {
    if (options.sample_format != "s16" && options.sample_format != "float") {
        throw CLI::ValidationError("--format: '" + options.sample_format + "' is not one of s16, float");
    }
    const TransmitterPtr tx = make_transmitter();
    start_transmitter(tx.get(), options.steps);

    const bool s16 = options.sample_format == "s16";

    // Files of more than 4 GB become RF64.
    SF_INFO info{};
    info.samplerate = options.steps.rate;
    info.channels = 1;
    info.format = SF_FORMAT_RF64 | (s16 ? SF_FORMAT_PCM_16 : SF_FORMAT_FLOAT);
    SoundPtr file(sf_open(options.output.c_str(), SFM_WRITE, &info));
    if (!file) return failure(options.output, sf_strerror(nullptr));
    sf_command(file.get(), SFC_RF64_AUTO_DOWNGRADE, nullptr, SF_TRUE);

    if (!write_all(file.get(), tx.get(), s16)) return failure(options.output, sf_strerror(file.get()));
    if (const int error = sf_close(file.release()); error != 0) {
        return failure(options.output, sf_error_number(error));
    }
    return EXIT_DONE;
}

}  // namespace

void add_render(CLI::App& app, int& status) {
    CLI::App* sub = app.add_subcommand("render", "Write a transmission into a WAV file");
    const auto options = std::make_shared<Options>();
    add_step_options(*sub, options->steps);
    sub->add_option("-o,--output", options->output, "WAV file to write")->required()->type_name("FILE");
    sub->add_option("--format", options->sample_format, "Samples of the file: s16 (16-bit) or float [s16]")
        ->type_name("FORMAT");
    sub->footer(step_help());
    sub->callback([options, &status] { status = render(*options); });
}

#include "subcommands.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "exit_status.h"
#include "options.h"
#include "recordings/sound_writer.h"

namespace {

constexpr int32_t BLOCK = 4096;  // samples rendered at a time

// The command line, as typed.
struct RenderOptions {
    Transmission transmission;
    std::string output;
    std::string sample_format = "s16";
};

// Writes the whole transmission, or as much of it as the file takes.
void write_all(SoundWriter& file, ovl_transmitter* tx) {
    std::array<float, BLOCK> block;
    for (;;) {
        const int32_t rendered = ovl_tx_render(tx, block.data(), BLOCK);
        if (!file.write({block.data(), static_cast<std::size_t>(rendered)}) || rendered < BLOCK) return;
    }
}

int render(const RenderOptions& options) {
    const bool s16 = is_s16(options.sample_format);
    const SoundWriter::Container container = container_of(options.output, s16);
    const TransmitterPtr tx = make_transmitter();
    start_transmitter(tx.get(), options.transmission);

    const auto frames = static_cast<int64_t>(total_seconds(tx.get()) * options.transmission.rate);
    SoundWriter file(options.output, {container, options.transmission.rate, 1, s16, frames});
    write_all(file, tx.get());
    file.close();
    return EXIT_DONE;
}

}  // namespace

void add_render(CLI::App& app, int& status) {
    CLI::App* sub = app.add_subcommand("render", "Write a transmission into a sound file");
    const auto options = std::make_shared<RenderOptions>();
    add_transmission_options(*sub, options->transmission);
    sub->add_option("-o,--output", options->output, "File to write: .wav or .flac")->required()->type_name("FILE");
    sub->add_option("--format", options->sample_format, "Samples of the file: s16 (16-bit) or float [s16]")
        ->type_name("FORMAT");
    sub->footer(step_help());
    sub->callback([options, &status] { status = render(*options); });
}

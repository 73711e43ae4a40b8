// The command line: any words are a command or wrong usage, said with a text, and the same when parsed again. Nothing
// is opened, played or written: of the subcommands only encode runs.
#include <CLI/CLI.hpp>
#include <optional>
#include <vector>

#include "console.h"
#include "input.h"
#include "recording.h"
#include "search.h"
#include "steps.h"
#include "subcommands.h"

namespace {

constexpr std::size_t MAX_WORDS = 80;

// The words, one a line.
std::vector<std::string> split_words(const std::string& text) {
    std::vector<std::string> words = {"orvel"};
    for (std::size_t begin = 0; begin < text.size() && words.size() < MAX_WORDS;) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        words.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return words;
}

// Thrown when all words were understood, in place of what they ask for.
struct Parsed {};

// What the words gave: nothing, or the text of what was thrown.
std::optional<std::string> parse(CLI::App& app, const std::vector<std::string>& words) {
    std::vector<const char*> arguments;
    for (const std::string& word : words) arguments.push_back(word.c_str());
    try {
        app.parse(static_cast<int>(arguments.size()), arguments.data());
        return std::nullopt;
    } catch (const Parsed&) {
        return std::nullopt;
    } catch (const CLI::CallForHelp&) {
        return app.help();
    } catch (const CLI::ParseError& error) {
        return std::string(error.what());
    }
}

std::optional<std::string> parse_command(const std::vector<std::string>& words) {
    int status = EXIT_DONE;
    CLI::App app("Encoder and decoder for slow, weak radio beacons", "orvel");
    app.set_version_flag("--version", "orvel");
    app.require_subcommand(1);
    add_subcommands(app, status);
    app.parse_complete_callback([&app] {
        if (!app.got_subcommand("encode")) throw Parsed();
    });
    const auto result = parse(app, words);
    expect(status == EXIT_DONE);
    return result;
}

// The options of a search, and what the subcommands make of them.
std::optional<std::string> parse_search(const std::vector<std::string>& words) {
    CLI::App app;
    SearchOptions search;
    RecordingOptions recording;
    std::string band;
    add_search_options(app, search, "1500");
    add_recording_options(app, recording);
    app.add_option("--band", band);
    app.callback([&] {
        search.known_file.clear();
        const int32_t mask = protocol_mask(search);
        expect(mask >= 1 && mask <= 7);
        const std::vector<ovc_known> known = known_callsigns(search);
        expect(known.size() <= 256 && (!search.known_only || !known.empty()));
        expect(!search.center_hz || std::isfinite(*search.center_hz));
        expect(std::isfinite(search.search_hz) && search.search_hz >= 0);
        expect(std::isfinite(search.spread_hz) && search.spread_hz >= 0);
        expect(recording.channel >= 0);
        if (band.empty()) return;
        const Band parsed = parse_band(band);
        expect(std::isfinite(parsed.low_hz) && std::isfinite(parsed.high_hz) && parsed.low_hz < parsed.high_hz);
    });
    return parse(app, words);
}

// The steps and options of a transmission, up to the transmitter that they start.
std::optional<std::string> parse_transmission(const std::vector<std::string>& words) {
    CLI::App app;
    StepOptions options;
    add_step_options(app, options);
    app.callback([&] {
        const TransmitterPtr tx = make_transmitter();
        start_transmitter(tx.get(), options);
        expect(total_seconds(tx.get()) >= 0.05 && total_seconds(tx.get()) <= 64 * 3600.1);
    });
    return parse(app, words);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    Input input(data, size);
    constexpr std::array PARSERS = {parse_command, parse_search, parse_transmission};
    const auto parser = PARSERS[static_cast<std::size_t>(input.int32(0, PARSERS.size() - 1))];
    const std::vector<std::string> words = split_words(input.rest());
    const auto result = parser(words);
    expect(!result || !result->empty());
    expect(parser(words) == result);
    return 0;
}

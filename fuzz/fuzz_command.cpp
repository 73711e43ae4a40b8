// The command line: any words are a command or wrong usage, with a message, and the same when parsed again. Nothing is
// opened, played or written: of the subcommands only encode runs.
#include <CLI/CLI.hpp>
#include <optional>
#include <vector>

#include "base/error.h"
#include "exit_status.h"
#include "input.h"
#include "options.h"
#include "subcommands.h"

namespace {

constexpr std::size_t MAX_WORDS = 80;

// The words, one per line.
std::vector<std::string> split_words(const std::string& text) {
    std::vector<std::string> words = {"orvel"};
    for (std::size_t begin = 0; begin < text.size() && words.size() < MAX_WORDS;) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        words.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return words;
}

// Thrown once all words are understood, instead of running the subcommand.
struct Parsed {};

// The outcome of parsing: nothing, or the text of the exception.
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
    } catch (const UsageError& error) {
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
    SearchOptions options;
    RecordingOptions recording;
    add_search_options(app, options, "1500");
    add_recording_options(app, recording);
    app.add_option("--band", options.band);
    app.callback([&] {
        options.known_file.clear();
        const Search search = search_of(options, recording.iq);
        expect(search.protocols >= 1 && search.protocols <= 7);
        expect(search.known.size() <= 256 && (!search.known_only || !search.known.empty()));
        expect(std::isfinite(center_of(search)));
        expect(std::isfinite(search.search_hz) && search.search_hz >= 0);
        const ov_params params = decode_params(search);
        expect(std::isfinite(params.spread_hz) && params.spread_hz >= 0);
        expect(recording.channel >= 0);
        if (search.band) expect(search.band->low < search.band->high);
    });
    return parse(app, words);
}

// The steps and options of a transmission, up to the transmitter that they start.
std::optional<std::string> parse_transmission(const std::vector<std::string>& words) {
    CLI::App app;
    Transmission transmission;
    add_transmission_options(app, transmission);
    app.callback([&] {
        const TransmitterPtr tx = make_transmitter();
        start_transmitter(tx.get(), transmission);
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

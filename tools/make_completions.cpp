// Writes completion files for bash, zsh and fish. They are generated from the command's own options, so that nothing is
// forgotten; only the possible values of an option are listed here.
//
//     make_completions DIRECTORY      writes orvel (bash), _orvel (zsh) and orvel.fish there
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "protocol.h"
#include "subcommands.h"

namespace {

enum class Values {
    NONE,   // a flag
    OTHER,  // no values to offer
    FILES,
    WORDS,  // one of some words
    WORDS_OR_FILES,
    LIST,  // some of them, comma-separated
    STEMS  // a word and what the user adds to it
};

struct Offer {
    Values values = Values::OTHER;
    std::vector<std::string> words;
};

struct Option {
    std::vector<std::string> names;  // "-v", "--verbose"
    std::string description;
    Offer offer;
};

struct Subcommand {
    std::string name;
    std::string description;
    std::vector<Option> options;
    Offer positional;
};

// ---- What the command has ------------------------------------------------------------------------------------------

std::vector<std::string> protocol_words() {
    std::vector<std::string> words(OV_PROTOCOLS.size());
    std::ranges::transform(OV_PROTOCOLS, words.begin(), &ov_protocol::option);
    return words;
}

Offer offer_of(const CLI::Option& option) {
    const std::string& name = option.get_single_name();
    if (!option.get_positional() && option.get_items_expected_max() == 0) return {Values::NONE, {}};
    if (name == "format") return {Values::WORDS, {"s16", "float"}};
    if (name == "protocol") return {Values::WORDS, protocol_words()};
    if (name == "raw") return {Values::WORDS, {"u8", "s8", "s16", "s24", "s32", "f32", "f64"}};
    if (name == "sideband") return {Values::WORDS, {"usb", "lsb"}};
    if (name == "protocols") {
        std::vector<std::string> words = protocol_words();
        words.emplace_back("all");
        return {Values::LIST, words};
    }
    if (name == "STEP") {
        std::vector<std::string> words = {"carrier=", "pause="};
        for (const std::string& protocol : protocol_words()) words.push_back(protocol + "=");
        return {Values::STEMS, words};
    }
    if (name == "FILE" || name == "ptt-command" || option.get_type_name() == "FILE") return {Values::FILES, {}};
    return {Values::OTHER, {}};
}

std::vector<Option> options_of(const CLI::App& app) {
    std::vector<Option> options;
    for (const CLI::Option* option : app.get_options()) {
        if (option->get_positional()) continue;
        Option found;
        for (const std::string& name : option->get_snames()) found.names.push_back("-" + name);
        for (const std::string& name : option->get_lnames()) found.names.push_back("--" + name);
        found.description = option->get_description();
        found.offer = offer_of(*option);
        options.push_back(found);
    }
    return options;
}

std::vector<Subcommand> subcommands_of(const CLI::App& app) {
    std::vector<Subcommand> subcommands;
    for (const CLI::App* sub : app.get_subcommands([](const CLI::App*) { return true; })) {
        Subcommand subcommand{sub->get_name(), sub->get_description(), options_of(*sub), {}};
        for (const CLI::Option* option : sub->get_options()) {
            if (option->get_positional() && subcommand.positional.values == Values::OTHER) {
                subcommand.positional = offer_of(*option);
            }
        }
        if (subcommand.name == "station") {  // whose commands are another program's
            subcommand.positional = {Values::WORDS_OR_FILES, {"run", "check", "doctor", "demo"}};
        }
        subcommands.push_back(subcommand);
    }
    return subcommands;
}

// ---- Text -----------------------------------------------------------------------------------------------------------

std::string join(const std::vector<std::string>& words, std::string_view separator) {
    std::string text;
    for (const std::string& word : words) {
        if (!text.empty()) text += separator;
        text += word;
    }
    return text;
}

// The text with a backslash before each of some characters.
std::string escape(std::string_view text, std::string_view characters) {
    std::string escaped;
    for (const char c : text) {
        if (characters.find(c) != std::string_view::npos) escaped += '\\';
        escaped += c;
    }
    return escaped;
}

// In single quotes, for bash and zsh.
std::string quote(std::string_view text) {
    std::string quoted = "'";
    for (const char c : text) {
        if (c == '\'') {
            quoted += "'\\''";
        } else {
            quoted += c;
        }
    }
    return quoted + "'";
}

std::string quote_fish(std::string_view text) {
    return "'" + escape(text, "\\'") + "'";
}

std::vector<std::string> names_of(const std::vector<Option>& options) {
    std::vector<std::string> names;
    for (const Option& option : options) names.insert(names.end(), option.names.begin(), option.names.end());
    return names;
}

// ---- bash -----------------------------------------------------------------------------------------------------------

std::string bash_offer(const Offer& offer) {
    switch (offer.values) {
        case Values::FILES:
            return "_orvel_files";
        case Values::WORDS:
            return "_orvel_words " + quote(join(offer.words, " "));
        case Values::WORDS_OR_FILES:
            return "_orvel_words_or_files " + quote(join(offer.words, " "));
        case Values::LIST:
            return "_orvel_list " + quote(join(offer.words, " "));
        case Values::STEMS:
            return "_orvel_stems " + quote(join(offer.words, " "));
        case Values::NONE:
        case Values::OTHER:
            break;
    }
    return ":";
}

std::string bash_completion(const std::vector<Subcommand>& subcommands, const std::vector<Option>& common) {
    std::vector<std::string> names(subcommands.size());
    std::transform(subcommands.begin(), subcommands.end(), names.begin(), [](const Subcommand& s) { return s.name; });

    std::string text = R"(# bash completion of orvel, generated from its options

# Each of these completes $word.
_orvel_words() { mapfile -t COMPREPLY < <(compgen -W "$1" -- "$word"); }
_orvel_list() {
    local last=${word##*,}
    mapfile -t COMPREPLY < <(compgen -P "${word%"$last"}" -W "$1" -- "$last")
}
_orvel_stems() {
    compopt -o nospace 2>/dev/null
    _orvel_words "$1"
}
_orvel_files() {
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$word")
}

_orvel_words_or_files() {
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -W "$1" -f -- "$word")
}

_orvel() {
    local word=${COMP_WORDS[COMP_CWORD]} option=${COMP_WORDS[COMP_CWORD - 1]} subcommand= k
    COMPREPLY=()
    # readline takes --option=value for three words.
    if [[ $word == = ]]; then
        word=
    elif [[ $option == = && COMP_CWORD -ge 2 ]]; then
        option=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    for ((k = 1; k < COMP_CWORD; k++)); do
        case ${COMP_WORDS[k]} in
            )" + join(names, " | ") +
                       R"() subcommand=${COMP_WORDS[k]} && break ;;
        esac
    done

    case "$subcommand $option" in
)";
    for (const Subcommand& subcommand : subcommands) {
        for (const Option& option : subcommand.options) {
            if (option.offer.values == Values::NONE) continue;
            std::vector<std::string> patterns;
            for (const std::string& name : option.names) patterns.push_back(quote(subcommand.name + " " + name));
            const std::string offer = option.offer.values == Values::OTHER ? "" : bash_offer(option.offer) + " && ";
            text += "        " + join(patterns, " | ") + ") " + offer + "return ;;\n";
        }
    }
    text += "    esac\n\n    case \"$subcommand $word\" in\n";
    for (const Subcommand& subcommand : subcommands) {
        text += "        " + quote(subcommand.name + " -") + "*) _orvel_words " +
                quote(join(names_of(subcommand.options), " ")) + " ;;\n";
        text += "        " + quote(subcommand.name + " ") + "*) " + bash_offer(subcommand.positional) + " ;;\n";
    }
    text += "        *) _orvel_words " + quote(join(names, " ") + " " + join(names_of(common), " ")) + " ;;\n";
    return text + "    esac\n}\ncomplete -F _orvel orvel\n";
}

// ---- zsh ------------------------------------------------------------------------------------------------------------

std::string zsh_offer(const Offer& offer) {
    switch (offer.values) {
        case Values::FILES:
            return "_files";
        case Values::WORDS:
            return "(" + join(offer.words, " ") + ")";
        case Values::WORDS_OR_FILES:
            return "_alternative \"commands:command:(" + join(offer.words, " ") + ")\" \"files:file:_files\"";
        case Values::LIST:
            return "_sequence compadd - " + join(offer.words, " ");
        case Values::STEMS:
            return "compadd -S \"\" - " + join(offer.words, " ");
        case Values::NONE:
        case Values::OTHER:
            break;
    }
    return " ";
}

// An option as _arguments takes it.
std::string zsh_option(const Option& option) {
    const bool several = option.names.size() > 1;
    std::string spec = several ? quote("(" + join(option.names, " ") + ")") + "{" + join(option.names, ",") + "}"
                               : option.names.front();
    std::string rest = "[" + escape(option.description, "\\[]") + "]";
    if (option.offer.values != Values::NONE) {
        rest += ":" + option.names.back().substr(2) + ":" + zsh_offer(option.offer);
    }
    return spec + quote(rest);
}

std::string zsh_completion(const std::vector<Subcommand>& subcommands, const std::vector<Option>& common) {
    std::string text = R"(#compdef orvel
# zsh completion of orvel, generated from its options

_orvel() {
    local curcontext=$curcontext state line
    local -a subcommands
    subcommands=(
)";
    for (const Subcommand& subcommand : subcommands) {
        text += "        " + quote(subcommand.name + ":" + subcommand.description) + "\n";
    }
    text += "    )\n    _arguments -C \\\n";
    for (const Option& option : common) text += "        " + zsh_option(option) + " \\\n";
    text += R"(        '1:subcommand:->subcommand' \
        '*::argument:->argument'
    case $state in
        subcommand) _describe subcommand subcommands ;;
        argument)
            case $words[1] in
)";
    for (const Subcommand& subcommand : subcommands) {
        text += "                " + subcommand.name + ")\n                    _arguments";
        for (const Option& option : subcommand.options) text += " \\\n                        " + zsh_option(option);
        if (subcommand.positional.values != Values::OTHER) {
            text += " \\\n                        " + quote("*:argument:" + zsh_offer(subcommand.positional));
        }
        text += "\n                    ;;\n";
    }
    return text + R"(            esac
            ;;
    esac
}

_orvel "$@"
)";
}

// ---- fish -----------------------------------------------------------------------------------------------------------

std::string fish_offer(const Offer& offer) {
    switch (offer.values) {
        case Values::FILES:
            return " -F";
        case Values::WORDS:
        case Values::STEMS:
            return " -f -a " + quote_fish(join(offer.words, " "));
        case Values::WORDS_OR_FILES:
            return " -F -a " + quote_fish(join(offer.words, " "));
        case Values::LIST:
            return " -f -a " + quote_fish("(__fish_append , " + join(offer.words, " ") + ")");
        case Values::NONE:
        case Values::OTHER:
            break;
    }
    return " -f";
}

std::string fish_option(const std::string& condition, const Option& option) {
    std::string line = "complete -c orvel -n " + quote_fish(condition);
    for (const std::string& name : option.names) {
        line += name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
    }
    if (option.offer.values != Values::NONE) line += " -r" + fish_offer(option.offer);
    return line + " -d " + quote_fish(option.description) + "\n";
}

std::string fish_completion(const std::vector<Subcommand>& subcommands, const std::vector<Option>& common) {
    const std::string none = "__fish_use_subcommand";
    std::string text = "# fish completion of orvel, generated from its options\ncomplete -c orvel -f\n";
    for (const Option& option : common) text += fish_option(none, option);
    for (const Subcommand& subcommand : subcommands) {
        text += "complete -c orvel -n " + quote_fish(none) + " -a " + subcommand.name + " -d " +
                quote_fish(subcommand.description) + "\n";
    }
    for (const Subcommand& subcommand : subcommands) {
        const std::string chosen = "__fish_seen_subcommand_from " + subcommand.name;
        text += "\n";
        for (const Option& option : subcommand.options) text += fish_option(chosen, option);
        if (subcommand.positional.values != Values::OTHER) {
            text += "complete -c orvel -n " + quote_fish(chosen) + fish_offer(subcommand.positional) + "\n";
        }
    }
    return text;
}

void write(const std::filesystem::path& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary);
    file << text;
    if (!file.flush()) throw std::runtime_error(path.string() + ": cannot be written");
}

void write_completions(const std::filesystem::path& directory) {
    int status = 0;
    CLI::App app("", "orvel");
    app.set_version_flag("--version", "");
    add_subcommands(app, status);
    const std::vector<Subcommand> subcommands = subcommands_of(app);
    const std::vector<Option> common = options_of(app);
    std::filesystem::create_directories(directory);
    write(directory / "orvel", bash_completion(subcommands, common));
    write(directory / "_orvel", zsh_completion(subcommands, common));
    write(directory / "orvel.fish", fish_completion(subcommands, common));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fputs("usage: make_completions DIRECTORY\n", stderr);
        return 2;
    }
    try {
        write_completions(argv[1]);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "make_completions: %s\n", error.what());
        return 1;
    }
    return 0;
}

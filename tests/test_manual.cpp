// The manual pages and the completion files compared with the command's own help: each option of each subcommand is in
// all of them, and nothing else is. The subcommands, too, are those that the help lists.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "command.h"
#include "pattern.h"

namespace {

using Names = std::set<std::string>;

std::string contents(const std::string& path) {
    std::ifstream file(path);
    EXPECT_TRUE(file) << path;
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::vector<std::string> words_of(const std::string& text) {
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), {}};
}

// ---- The command's help -------------------------------------------------------------------------------------------

// Help of a subcommand, or of the command for "", where $COLUMNS is as given. Asked for once.
const std::string& help_of(const std::string& subcommand, const std::string& columns = "80") {
    static std::map<std::pair<std::string, std::string>, std::string> known;
    const auto [place, is_new] = known.try_emplace({subcommand, columns});
    if (!is_new) return place->second;
    ProcessInput input;
    input.environment = {{"COLUMNS", columns}};
    const ProcessResult result =
        orvel(subcommand.empty() ? Arguments{"--help"} : Arguments{subcommand, "--help"}, input);
    EXPECT_EQ(result.status, 0) << result.err;
    return place->second = result.out;
}

Arguments subcommands() {
    static const Arguments names = [] {
        Arguments found;
        bool listed = false;
        for (const std::string& line : lines_of(help_of(""))) {
            if (listed && line.starts_with("  ") && line[2] != ' ') found.push_back(words_of(line).front());
            if (line == "Subcommands:") listed = true;
        }
        return found;
    }();
    EXPECT_GE(names.size(), 7);
    return names;
}

// The subcommands, and "" for the command itself.
Arguments all_commands() {
    Arguments commands = subcommands();
    commands.insert(commands.begin(), "");
    return commands;
}

constexpr const char* OPTIONAL_VALUE = "=";  // before the name of a value that may be missing: "--chips[=FRAME]"

// What the help lists: names of an option and of its value, "" for a flag. What continues a description is further in.
std::map<std::string, std::string> options_of(const std::string& subcommand) {
    std::map<std::string, std::string> options;
    for (const std::string& line : lines_of(help_of(subcommand))) {
        if (!line.starts_with("  -")) continue;
        const auto match = match_of(line, R"(  (-[^ =\[]+)(?:\[(=[A-Z]+)\]| ([A-Z][A-Z:/,=]*)(?:\.\.\.)?)?(?:  .*)?)");
        if (!match) {
            ADD_FAILURE() << line;
            continue;
        }
        std::istringstream names(match->at(1));
        for (std::string name; std::getline(names, name, ',');) options[name] = match->at(2) + match->at(3);
    }
    EXPECT_TRUE(options.contains("--help")) << subcommand;
    return options;
}

Names names_of(const std::map<std::string, std::string>& options) {
    Names names;
    for (const auto& [name, value] : options) names.insert(name);
    return names;
}

// Columns of the widest line, in characters of UTF-8. A line of one word does not count: words stay whole.
std::ptrdiff_t widest_line(const std::string& text) {
    std::ptrdiff_t widest = 0;
    for (const std::string& line : lines_of(text)) {
        if (words_of(line).size() == 1) continue;
        const auto begins = [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; };
        widest = std::max(widest, std::count_if(line.begin(), line.end(), begins));
    }
    return widest;
}

// A text with one blank around each of its words.
std::string in_one_line(const std::string& text) {
    std::string line = " ";
    for (const std::string& word : words_of(text)) line += word + " ";
    return line;
}

TEST(Help, IsAsWideAsTheSurroundingsSay) {
    // What is no width from 40 to 1000 is not believed; nothing is narrower than 60 or wider than 120.
    const std::map<std::string, std::ptrdiff_t> widths = {{"80", 80},    {"120", 120}, {"97", 97},   {"40", 60},
                                                          {"1000", 120}, {"39", 80},   {"1001", 80}, {"", 80},
                                                          {"-97", 80},   {"97x", 80},  {"wide", 80}};
    for (const auto& [columns, width] : widths) {
        std::ptrdiff_t widest = 0;
        for (const std::string& subcommand : all_commands()) {
            widest = std::max(widest, widest_line(help_of(subcommand, columns)));
        }
        EXPECT_LE(widest, width) << "COLUMNS=" << columns;
        EXPECT_GT(widest, width - 4) << "COLUMNS=" << columns;
    }
}

TEST(Help, IsAsWideAsTheTerminal) {
    for (const std::ptrdiff_t width : {72, 101}) {
        ProcessInput input;
        input.environment = {{"COLUMNS", "90"}};
        const std::string script = "stty cols " + std::to_string(width) + " && '" ORVEL_COMMAND "' decode --help";
        const ProcessResult result = run_process({"/usr/bin/script", "-qec", script, "/dev/null"}, input);
        EXPECT_EQ(result.status, 0) << result.out << result.err;
        const std::ptrdiff_t widest = widest_line(replaced(result.out, "\r", ""));
        EXPECT_LE(widest, width) << result.out;
        EXPECT_GT(widest, width - 10) << result.out;
    }
}

TEST(Help, BreaksLinesBetweenWordsAndLosesNone) {
    for (const std::string& subcommand : all_commands()) {
        const std::string words = in_one_line(help_of(subcommand, "120"));
        EXPECT_EQ(in_one_line(help_of(subcommand, "60")), words);
        EXPECT_EQ(in_one_line(help_of(subcommand, "80")), words);
    }
    // The completions have the descriptions whole.
    int32_t descriptions = 0;
    for (const std::string& line : lines_of(contents(ORVEL_COMPLETIONS "/orvel.fish"))) {
        const auto option = match_of(line, R"(.* -n '(?:__fish_seen_subcommand_from )?([a-z_]+)'.* -d '(.*)')");
        if (!option) continue;
        descriptions++;
        const std::string description = replaced(option->at(2), R"(\\(.))", "$1");
        const std::string help = in_one_line(help_of(option->at(1) == "__fish_use_subcommand" ? "" : option->at(1)));
        EXPECT_NE(help.find(in_one_line(description)), std::string::npos) << line;
    }
    EXPECT_GT(descriptions, 70);
}

TEST(Help, GoesOnUnderTheDescription) {
    const std::string help = help_of("listen");
    EXPECT_NE(help.find("\n  --start TIME          UTC time of the first sample of standard input:\n"
                        "                        12:00[:00] (the latest such) or"),
              std::string::npos)
        << help;
    // A table in a footer likewise.
    EXPECT_NE(help_of("simulate")
                  .find("\n  ,fading=NAME          Watterson channel: good (spread 0.1 Hz, delay 0.5 ms),\n"
                        "                        moderate (0.5, 1), poor (1, 2)\n"
                        "  ,spread=HZ            its Doppler spread"),
              std::string::npos);
}

TEST(Help, SaysInWordsWhatDescriptionsLeaveUnsaid) {
    const std::string decode = in_one_line(help_of("decode"));
    for (const char* text :
         {"FILE... Recordings: ", " --channel N Channel ", " [mean] (1 to 1024) ",
          " [all that the sample rate holds] (needs --wide) ", "are decoded, 60 to 3600 [by rate] -"}) {
        EXPECT_NE(decode.find(text), std::string::npos) << text << "\n" << decode;
    }
    EXPECT_NE(in_one_line(help_of("send"))
                  .find(" --times N Number of transmissions [no limit] "
                        "(1 to 1000000; needs --every) "),
              std::string::npos);
    EXPECT_NE(in_one_line(help_of("encode")).find(" (not with --json) "), std::string::npos);
    EXPECT_NE(in_one_line(help_of("render")).find(" -o,--output FILE File to write: .wav or .flac (required) "),
              std::string::npos);
    EXPECT_NE(help_of("plot").find("\n  --chips[=FRAME]       Draw"), std::string::npos);
    for (const std::string& subcommand : all_commands()) {
        const std::string help = help_of(subcommand);
        for (const char* text : {"REQUIRED", "Needs:", "Excludes:", "TEXT ", ":INT", ":FLOAT", " in [", "{"}) {
            if (subcommand == "plot" && text == std::string("TEXT ")) continue;  // the value of --title
            EXPECT_EQ(help.find(text), std::string::npos) << text << "\n" << help;
        }
    }
}

// ---- Manual pages -------------------------------------------------------------------------------------------------

std::string page_of(const std::string& subcommand) {
    return ORVEL_MAN "/orvel" + (subcommand.empty() ? "" : "-" + subcommand) + ".1";
}

// The lines of one section of a page.
std::vector<std::string> section(const std::string& page, const std::string& heading) {
    std::vector<std::string> lines;
    bool inside = false;
    for (const std::string& line : lines_of(contents(page))) {
        if (line.starts_with(".Sh")) inside = line == ".Sh " + heading;
        if (inside) lines.push_back(line);
    }
    EXPECT_FALSE(lines.empty()) << page << " has no " << heading;
    return lines;
}

// The options of a line of macros like "It Fl o , Fl -output Ar FILE" or "It Fl -chips Ns Op = Ns Ar FRAME", each with
// its value.
void add_options(const std::string& line, std::map<std::string, std::string>& options) {
    std::vector<std::string> names;
    std::string equals, value;
    const std::vector<std::string> words = words_of(line);
    for (std::size_t k = 0; k + 1 < words.size(); k++) {
        if (words[k] == "Fl" || words[k] == ".Fl") names.push_back("-" + words[k + 1]);
        if (words[k] == OPTIONAL_VALUE) equals = OPTIONAL_VALUE;
        if (words[k] == "Ar") value = equals + words[k + 1];
    }
    for (const std::string& name : names) options[name] = value;
}

TEST(ManualPages, AreThereForEverySubcommandAndNothingElse) {
    Names expected = {"orvel.1"};
    for (const std::string& subcommand : subcommands()) expected.insert("orvel-" + subcommand + ".1");
    Names found;
    for (const auto& entry : std::filesystem::directory_iterator(ORVEL_MAN)) found.insert(entry.path().filename());
    EXPECT_EQ(found, expected);
}

TEST(ManualPages, DescribeTheOptionsThatTheHelpShowsWithTheirValues) {
    for (const std::string& subcommand : all_commands()) {
        std::map<std::string, std::string> described;
        for (const std::string& line : section(page_of(subcommand), "DESCRIPTION")) {
            if (line.starts_with(".It Fl")) add_options(line, described);
        }
        EXPECT_EQ(described, options_of(subcommand)) << page_of(subcommand);
    }
}

TEST(ManualPages, ShowTheSameOptionsInTheirSynopsis) {
    for (const std::string& subcommand : all_commands()) {
        std::map<std::string, std::string> shown;
        for (const std::string& line : section(page_of(subcommand), "SYNOPSIS")) add_options(line, shown);
        EXPECT_EQ(shown, options_of(subcommand)) << page_of(subcommand);
    }
}

TEST(ManualPages, ListEverySubcommandOnTheMainPage) {
    Names listed;
    Names referred;
    for (const std::string& line : section(page_of(""), "DESCRIPTION")) {
        if (line.starts_with(".It Cm ")) listed.insert(words_of(line).at(2));
    }
    for (const std::string& line : section(page_of(""), "SEE ALSO")) {
        if (line.starts_with(".Xr orvel-")) referred.insert(words_of(line).at(1).substr(6));
    }
    const Arguments names = subcommands();
    EXPECT_EQ(listed, Names(names.begin(), names.end()));
    EXPECT_EQ(referred, Names(names.begin(), names.end()));
}

TEST(ManualPages, HaveExamplesAndExitStatuses) {
    for (const std::string& subcommand : all_commands()) {
        const auto statuses = section(page_of(subcommand), "EXIT STATUS");
        for (const char* status : {".It 0", ".It 1", ".It 2"}) {
            EXPECT_EQ(std::count(statuses.begin(), statuses.end(), status), 1) << page_of(subcommand) << status;
        }
        // Each example is a command line whose options exist.
        int32_t examples = 0;
        for (const std::string& line : section(page_of(subcommand), "EXAMPLES")) {
            const std::size_t begin = line.find("orvel ");
            if (line.starts_with(".Xr") || begin == std::string::npos) continue;
            examples++;
            const auto words = words_of(line.substr(begin, line.find('|', begin) - begin));
            const auto options = options_of(words.at(1));
            for (const std::string& word : words) {
                if (word.starts_with("-") && word != "-") {
                    EXPECT_TRUE(options.contains(word.substr(0, word.find('=')))) << line;
                }
            }
        }
        EXPECT_GE(examples, 1) << page_of(subcommand);
    }
}

TEST(ManualPages, AreCleanMdoc) {
    for (const std::string& subcommand : all_commands()) {
        const ProcessResult lint = run_process({"/usr/bin/mandoc", "-T", "lint", "-W", "warning", page_of(subcommand)});
        EXPECT_EQ(lint.status, 0) << lint.out << lint.err;
    }
}

// ---- bash -----------------------------------------------------------------------------------------------------------

class Completion : public TestWithFiles {
  protected:
    // What bash offers for the last of some words.
    Names offered_by_bash(const Arguments& words) const {
        std::string line;
        for (const std::string& word : words) line += " '" + word + "'";
        const std::string script = "source '" ORVEL_COMPLETIONS "/orvel'; cd '" + path("") + "'; COMP_WORDS=(orvel" +
                                   line + "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); " +
                                   "complete -p orvel >/dev/null && _orvel && printf '%s\\n' \"${COMPREPLY[@]}\"";
        const ProcessResult result = run_process({"/bin/bash", "--norc", "-c", script});
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.err, "");
        return lines_as_set(result.out);
    }

    // What fish offers for the end of a command line.
    Names offered_by_fish(const std::string& line) const {
        const std::string script =
            "source '" ORVEL_COMPLETIONS "/orvel.fish'; cd '" + path("") + "'; complete -C '" + line + "'";
        const ProcessResult result = run_process({"/usr/bin/fish", "--no-config", "-c", script});
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.err, "");
        return lines_as_set(replaced(result.out, "\t[^\n]*", ""));  // without descriptions
    }

    // The arguments that zsh's completion gives to _arguments for a subcommand.
    std::vector<std::string> zsh_arguments(const std::string& subcommand) const {
        const std::string script =
            "emulate -L zsh; function _describe { print -rl -- $subcommands }; "
            "function _arguments { [[ $1 == -C ]] && { state=" +
            std::string(subcommand.empty() ? "subcommand" : "argument") + "; [[ -z '" + subcommand +
            "' ]] || return 0 }; print -rl -- \"$@\" }; words=('" + subcommand +
            "'); source '" ORVEL_COMPLETIONS "/_orvel'";
        const ProcessResult result = run_process({"/usr/bin/zsh", "-f", "-c", script});
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.err, "");
        return lines_of(result.out);
    }

    static Names lines_as_set(const std::string& text) {
        const auto lines = lines_of(text);
        Names names(lines.begin(), lines.end());
        names.erase("");
        return names;
    }
};

Names operator|(Names a, const Names& b) {
    a.insert(b.begin(), b.end());
    return a;
}

TEST_F(Completion, OfBashOffersTheSubcommandsAndTheirOptions) {
    const Arguments names = subcommands();
    EXPECT_EQ(offered_by_bash({""}), Names(names.begin(), names.end()) | names_of(options_of("")));
    for (const std::string& subcommand : names) {
        EXPECT_EQ(offered_by_bash({subcommand, "-"}), names_of(options_of(subcommand))) << subcommand;
    }
    EXPECT_EQ(offered_by_bash({"dec"}), Names{"decode"});
    EXPECT_EQ(offered_by_bash({"decode", "--iq", "--known-"}), (Names{"--known-file", "--known-only"}));
}

TEST_F(Completion, OfBashOffersValues) {
    write("a.wav", "");
    write("b c.wav", "");
    EXPECT_EQ(offered_by_bash({"render", "--format", ""}), (Names{"s16", "float"}));
    EXPECT_EQ(offered_by_bash({"render", "--format", "=", "f"}), Names{"float"});
    EXPECT_EQ(offered_by_bash({"render", "--format", "="}), (Names{"s16", "float"}));
    EXPECT_EQ(offered_by_bash({"encode", "--protocol", "orvel-"}), (Names{"orvel-s", "orvel-l"}));
    EXPECT_EQ(offered_by_bash({"listen", "--protocols", "opera,orvel-l,a"}), Names{"opera,orvel-l,all"});
    EXPECT_EQ(offered_by_bash({"send", "or"}), (Names{"orvel-s=", "orvel-l="}));
    EXPECT_EQ(offered_by_bash({"decode", ""}), (Names{"a.wav", "b c.wav"}));
    EXPECT_EQ(offered_by_bash({"decode", "--known-file", "a"}), Names{"a.wav"});
    EXPECT_EQ(offered_by_bash({"render", "-o", "b"}), Names{"b c.wav"});
    EXPECT_EQ(offered_by_bash({"decode", "--center", ""}), Names{});
    EXPECT_EQ(offered_by_bash({"encode", ""}), Names{});
}

TEST_F(Completion, OfFishOffersTheSubcommandsAndTheirOptions) {
    const Arguments names = subcommands();
    EXPECT_EQ(offered_by_fish("orvel "), Names(names.begin(), names.end()));
    EXPECT_EQ(offered_by_fish("orvel --"), (Names{"--help", "--version"}));
    for (const std::string& subcommand : names) {
        Names expected = names_of(options_of(subcommand));
        EXPECT_EQ(offered_by_fish("orvel " + subcommand + " --") | offered_by_fish("orvel " + subcommand + " -"),
                  expected)
            << subcommand;
    }
}

TEST_F(Completion, OfFishOffersValues) {
    write("a.wav", "");
    EXPECT_EQ(offered_by_fish("orvel render --format "), (Names{"s16", "float"}));
    EXPECT_EQ(offered_by_fish("orvel encode --protocol "), (Names{"opera", "orvel-s", "orvel-l"}));
    EXPECT_EQ(offered_by_fish("orvel decode --center "), Names{});
    EXPECT_EQ(offered_by_fish("orvel decode a"), Names{"a.wav"});
    EXPECT_EQ(offered_by_fish("orvel render -o a"), Names{"a.wav"});
    EXPECT_EQ(offered_by_fish("orvel send orvel-"), (Names{"orvel-s=", "orvel-l="}));
}

TEST_F(Completion, OfZshOffersTheSubcommandsAndTheirOptions) {
    // Each is "(exclusions)name[explanation]:message:action", of which the first part may be missing.
    for (const std::string& subcommand : all_commands()) {
        Names offered;
        for (const std::string& line : zsh_arguments(subcommand)) {
            const auto option = match_of(line, R"((?:\([^)]*\))?(-[-a-z]+)\[.*)");
            if (option) offered.insert(option->at(1));
        }
        EXPECT_EQ(offered, names_of(options_of(subcommand))) << subcommand;
    }
    Names offered;
    for (const std::string& line : zsh_arguments("")) {
        const std::size_t colon = line.find(':');
        if (colon != std::string::npos && line.find_first_of("*1([-") != 0) offered.insert(line.substr(0, colon));
    }
    const Arguments names = subcommands();
    EXPECT_EQ(offered, Names(names.begin(), names.end()));
}

TEST_F(Completion, FilesAreSyntacticallyRight) {
    for (const Arguments& check : {Arguments{"/bin/bash", "-n", ORVEL_COMPLETIONS "/orvel"},
                                   {"/usr/bin/zsh", "-n", ORVEL_COMPLETIONS "/_orvel"},
                                   {"/usr/bin/fish", "--no-execute", ORVEL_COMPLETIONS "/orvel.fish"}}) {
        const ProcessResult result = run_process(check);
        EXPECT_EQ(result.status, 0) << check[0] << result.err;
    }
}

}  // namespace

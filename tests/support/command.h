// The built orvel command, for tests that run it: ORVEL_COMMAND is its path.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "process.h"
#include "sound_server.h"

using Arguments = std::vector<std::string>;

inline Arguments orvel_arguments(Arguments arguments) {
    arguments.insert(arguments.begin(), ORVEL_COMMAND);
    return arguments;
}

inline ProcessResult orvel(const Arguments& arguments, const ProcessInput& input = {}) {
    return run_process(orvel_arguments(arguments), input);
}

// One line on standard error, which holds all of the texts.
inline ::testing::AssertionResult one_line_with(const ProcessResult& result, const Arguments& texts) {
    using ::testing::AssertionFailure;
    const auto lines = lines_of(result.err);
    if (lines.size() != 1) return AssertionFailure() << lines.size() << " lines on standard error:\n" << result.err;
    if (!lines[0].starts_with("orvel: ")) return AssertionFailure() << lines[0];
    for (const std::string& text : texts) {
        if (lines[0].find(text) == std::string::npos) return AssertionFailure() << lines[0] << " lacks " << text;
    }
    return ::testing::AssertionSuccess();
}

inline ::testing::AssertionResult usage_error_with(const Arguments& arguments, const Arguments& texts,
                                                   const ProcessInput& input = {}) {
    using ::testing::AssertionFailure;
    const ProcessResult result = orvel(arguments, input);
    if (result.status != 2) return AssertionFailure() << "exit status " << result.status << "\n" << result.err;
    if (!result.out.empty()) return AssertionFailure() << "output: " << result.out;
    return one_line_with(result, texts);
}

template <class T>
void append(std::string& bytes, T value) {
    std::array<char, sizeof value> raw{};
    std::memcpy(raw.data(), &value, sizeof value);
    bytes.append(raw.data(), raw.size());
}

// A WAVE file of the given format around some bytes of samples.
inline std::string wave_file(uint16_t tag, uint16_t channels, uint32_t rate, uint16_t bits, const std::string& data) {
    std::string bytes = "RIFF";
    append(bytes, static_cast<uint32_t>(36 + data.size()));
    bytes += "WAVEfmt ";
    append(bytes, uint32_t{16});
    append(bytes, tag);
    append(bytes, channels);
    append(bytes, rate);
    append(bytes, rate * channels * bits / 8);
    append(bytes, static_cast<uint16_t>(channels * bits / 8));
    append(bytes, bits);
    bytes += "data";
    append(bytes, static_cast<uint32_t>(data.size()));
    return bytes + data;
}

// A test with a directory for its files.
class TestWithFiles : public ::testing::Test {
  protected:
    std::string path(const std::string& name) const {
        return (std::filesystem::path(directory_.path()) / name).string();
    }
    std::string write(const std::string& name, const std::string& bytes) const {
        std::ofstream(path(name), std::ios::binary) << bytes;
        return path(name);
    }

    // Surroundings in which numbers have a decimal comma: a locale of our own, as none need be installed.
    ProcessInput decimal_comma() const {
        const std::string source =
            write("comma", "LC_NUMERIC\ndecimal_point \",\"\nthousands_sep \".\"\ngrouping 3\nEND LC_NUMERIC\n");
        run_process({"/usr/bin/localedef", "-c", "-i", source, path("xx_XX")});
        ProcessInput input;
        input.environment = {{"LOCPATH", path("")}, {"LC_ALL", "xx_XX"}, {"LANG", "xx_XX"}};
        EXPECT_EQ(run_process({"/usr/bin/printf", "%.1f", "0"}, input).out, "0,0") << "the locale is not in force";
        return input;
    }

  private:
    TemporaryDirectory directory_;
};

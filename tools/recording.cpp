#include "recording.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <vector>

#include "captured_stderr.h"
#include "console.h"

namespace {

// Why the file cannot be opened, or an empty text when it can.
std::string open_problem(const std::string& path) {
    std::error_code error;
    if (std::filesystem::is_directory(path, error)) return "it is a directory";
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (!file) return std::strerror(errno);
    std::fclose(file);
    return {};
}

// A reader's line as this command says it: without the reader's name, and always with the name of the file.
std::string reader_message(const std::string& line, const std::string& path) {
    std::string text = line;
    for (const std::string_view prefix : {"wav_read: ", "iq_read: "}) {
        if (text.starts_with(prefix)) text.erase(0, prefix.size());
    }
    const bool names_file = text.find("'" + path + "'") != std::string::npos;
    return names_file ? text : "cannot read '" + path + "': " + text;
}

// Reads with one of the readers, which returns 0, or not 0 after printing why.
template <class Read>
bool read_with(const std::string& path, const Read& read) {
    if (const std::string problem = open_problem(path); !problem.empty()) {
        print_error("cannot read '" + path + "': " + problem);
        return false;
    }
    CapturedStderr messages;
    const bool good = read() == 0;
    const std::vector<std::string> lines = messages.lines();
    if (good) {
        for (const std::string& line : lines) print_error(reader_message(line, path));
    } else {
        print_error(lines.empty() ? "cannot read '" + path + "'" : reader_message(lines.back(), path));
    }
    return good;
}

}  // namespace

void FreeAudio::operator()(wav_audio* audio) const noexcept {
    wav_free(*audio);
    delete audio;
}

void FreeIq::operator()(iq_recording* recording) const noexcept {
    iq_free(*recording);
    delete recording;
}

AudioPtr read_audio(const std::string& path) {
    AudioPtr audio(new wav_audio{});
    if (!read_with(path, [&] { return wav_read(path.c_str(), *audio); })) return nullptr;
    return audio;
}

IqPtr read_iq(const std::string& path) {
    IqPtr recording(new iq_recording{});
    if (!read_with(path, [&] { return iq_read(path.c_str(), *recording); })) return nullptr;
    return recording;
}

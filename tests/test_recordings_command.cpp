// What orvel decode and orvel scan make of recordings of every kind, as their user meets them: formats, channels,
// sample rates, files that lie, long recordings in blocks, wide bands, and the progress line.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sndfile.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <numbers>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "command.h"
#include "json_value.h"
#include "liborvel.h"
#include "pattern.h"
#include "process.h"
#include "siggen.h"

namespace {

// Where protocols do not matter: the search for OPERA alone takes a fraction of the time.
const std::string OPERA = "--protocols=opera";

std::string shipped(const std::string& name) {
    return std::string(ORVEL_RECORDINGS) + "/" + name;
}

std::vector<JsonValue> truth_of(const std::string& name) {
    std::vector<JsonValue> stations;
    std::ifstream file(shipped(name + ".jsonl"));
    for (std::string line; std::getline(file, line);) stations.push_back(JsonValue::parse(line));
    EXPECT_FALSE(stations.empty());
    return stations;
}

std::string bytes_of(const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    std::stringstream bytes;
    bytes << stream.rdbuf();
    return bytes.str();
}

void run(const std::string& shell_command) {
    EXPECT_EQ(std::system(shell_command.c_str()), 0) << shell_command;
}

using RecordingsCommand = TestWithFiles;

// ---- Sound files ----------------------------------------------------------------------------------------------------

struct Sound {
    int rate = 0;
    int channels = 0;
    std::vector<double> samples;  // interleaved, full scale 1
};

using SoundPtr = std::unique_ptr<SNDFILE, decltype(&sf_close)>;

SoundPtr open_sound(const std::string& path, int mode, SF_INFO& info) {
    SoundPtr file(sf_open(path.c_str(), mode, &info), sf_close);
    if (!file) throw std::runtime_error(path + ": " + sf_strerror(nullptr));
    return file;
}

Sound read_sound(const std::string& path) {
    SF_INFO info{};
    const SoundPtr file = open_sound(path, SFM_READ, info);
    Sound sound{info.samplerate, info.channels, {}};
    sound.samples.resize(static_cast<std::size_t>(info.frames * info.channels));
    EXPECT_EQ(sf_readf_double(file.get(), sound.samples.data(), info.frames), info.frames);
    return sound;
}

// Integer formats round samples; float ones and those that compress with loss take them as they are.
std::string write_sound(const std::string& path, int format, const Sound& sound) {
    SF_INFO info{};
    info.samplerate = sound.rate;
    info.channels = sound.channels;
    info.format = format;
    const SoundPtr file = open_sound(path, SFM_WRITE, info);
    constexpr std::size_t PIECE = 1 << 14;  // more at once is too much for the coder of Vorbis
    const auto channels = static_cast<std::size_t>(sound.channels);
    for (std::size_t at = 0; at < sound.samples.size(); at += PIECE * channels) {
        const auto frames = static_cast<sf_count_t>(std::min(PIECE * channels, sound.samples.size() - at) / channels);
        EXPECT_EQ(sf_writef_double(file.get(), sound.samples.data() + at, frames), frames);
    }
    return path;
}

// Rewrites a file of integer samples in a format that holds them all, bit by bit.
std::string rewrite(const std::string& from, const std::string& to, int format) {
    SF_INFO info{};
    const SoundPtr in = open_sound(from, SFM_READ, info);
    std::vector<int> samples(static_cast<std::size_t>(info.frames * info.channels));
    EXPECT_EQ(sf_readf_int(in.get(), samples.data(), info.frames), info.frames);
    SF_INFO as{};
    as.samplerate = info.samplerate;
    as.channels = info.channels;
    as.format = format;
    const SoundPtr out = open_sound(to, SFM_WRITE, as);
    EXPECT_EQ(sf_writef_int(out.get(), samples.data(), info.frames), info.frames);
    return to;
}

constexpr int FLOAT_WAV = SF_FORMAT_WAV | SF_FORMAT_FLOAT;

Sound mono(int rate, std::vector<double> samples) {
    return {rate, 1, std::move(samples)};
}

Sound stereo(int rate, const IqSamples& pairs) {
    Sound sound{rate, 2, {}};
    for (std::size_t k = 0; k < pairs.i.size(); k++) {
        sound.samples.push_back(pairs.i[k]);
        sound.samples.push_back(pairs.q[k]);
    }
    return sound;
}

// A file of more channels, in which each frame comes from one of `sound`.
Sound spread(const Sound& sound, int channels, const std::function<void(const double*, double*)>& fill) {
    Sound result{sound.rate, channels, {}};
    const std::size_t frames = sound.samples.size() / static_cast<std::size_t>(sound.channels);
    result.samples.resize(frames * static_cast<std::size_t>(channels));
    for (std::size_t k = 0; k < frames; k++) {
        fill(sound.samples.data() + k * static_cast<std::size_t>(sound.channels),
             result.samples.data() + k * static_cast<std::size_t>(channels));
    }
    return result;
}

Station station(uint32_t protocol, const std::string& call, double t_start, double freq_hz, double snr_db,
                const char* locator = "") {
    Station made;
    const int32_t room = ovl_frame_chips(protocol);
    made.chips.resize(static_cast<std::size_t>(room));
    EXPECT_EQ(ovl_encode(protocol, call.c_str(), locator, made.chips.data(), room), room) << call;
    made.t_start = t_start;
    made.freq_hz = freq_hz;
    made.snr_db = snr_db;
    return made;
}

Station opera(const std::string& call, double t_start, double freq_hz, double snr_db) {
    return station(OVL_OPERA, call, t_start, freq_hz, snr_db);
}

Scene scene(int32_t rate, double seconds, const std::vector<Station>& stations) {
    Scene made;
    made.rate = rate;
    made.seconds = seconds;
    made.seed = 77;
    made.stations = stations;
    return made;
}

// ---- Spots ----------------------------------------------------------------------------------------------------------

using Spots = std::vector<JsonValue>;

// The objects of an output, without the name of the file.
Spots objects_of(const ProcessResult& result) {
    Spots spots;
    for (const std::string& line : lines_of(result.out)) spots.push_back(JsonValue::parse(line).without("file"));
    return spots;
}

ProcessResult run_json(const std::string& command, const Arguments& arguments) {
    Arguments all = {command, "--json"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return orvel(all);
}

// What a decode or scan of good files finds without a word on standard error.
Spots decoded(const Arguments& arguments) {
    const ProcessResult result = run_json("decode", arguments);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    return objects_of(result);
}

Spots scanned(const Arguments& arguments) {
    const ProcessResult result = run_json("scan", arguments);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    return objects_of(result);
}

// orvel where 2 GB are all the memory: unbounded requests must not take that of the machine.
ProcessResult orvel_within_memory(const Arguments& arguments) {
    Arguments all = {"/bin/sh", "-c", "ulimit -v 2000000; exec \"$0\" \"$@\""};
    const Arguments command = orvel_arguments(arguments);
    all.insert(all.end(), command.begin(), command.end());
    return run_process(all);
}

double number(const JsonValue& spot, const char* field) {
    return spot.at(field).number();
}

std::vector<std::string> calls_of(const Spots& spots) {
    std::vector<std::string> calls;
    for (const auto& spot : spots) calls.push_back(spot.at("call"));
    std::sort(calls.begin(), calls.end());
    return calls;
}

struct Tolerance {
    double time_s, freq_hz, snr_db;
};

// The same frames, each once, with values that differ by a little.
void expect_alike(const Spots& spots, const Spots& expected, const Tolerance& tolerance) {
    EXPECT_EQ(calls_of(spots), calls_of(expected));
    for (const auto& model : expected) {
        const auto same = [&](const JsonValue& spot) {
            return spot.at("call") == model.at("call") && spot.at("protocol") == model.at("protocol") &&
                   spot.at("locator") == model.at("locator") &&
                   std::fabs(number(spot, "t_start") - number(model, "t_start")) <= tolerance.time_s &&
                   std::fabs(number(spot, "freq_hz") - number(model, "freq_hz")) <= tolerance.freq_hz &&
                   std::fabs(number(spot, "snr_db") - number(model, "snr_db")) <= tolerance.snr_db;
        };
        EXPECT_EQ(std::count_if(spots.begin(), spots.end(), same), 1) << model << " among\n"
                                                                      << testing::PrintToString(spots);
    }
}

// ---- Formats --------------------------------------------------------------------------------------------------------

// The same samples bit by bit: the same spots to the last digit.
TEST_F(RecordingsCommand, AudioOfEveryLosslessFormatIsTheSame) {
    const std::string original = shipped("audio-crowded.wav");
    const Spots expected = decoded({OPERA, original});
    ASSERT_EQ(expected.size(), truth_of("audio-crowded").size());
    const Sound sound = read_sound(original);
    const std::vector<std::string> files = {
        write_sound(path("float.wav"), FLOAT_WAV, sound),
        write_sound(path("double.w64"), SF_FORMAT_W64 | SF_FORMAT_DOUBLE, sound),
        rewrite(original, path("24.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_24),
        rewrite(original, path("16.flac"), SF_FORMAT_FLAC | SF_FORMAT_PCM_16),
        rewrite(original, path("24.flac"), SF_FORMAT_FLAC | SF_FORMAT_PCM_24),
        rewrite(original, path("16.aiff"), SF_FORMAT_AIFF | SF_FORMAT_PCM_16),
        rewrite(original, path("16.w64"), SF_FORMAT_W64 | SF_FORMAT_PCM_16),
        rewrite(original, path("16.rf64"), SF_FORMAT_RF64 | SF_FORMAT_PCM_16),
        rewrite(original, path("32.caf"), SF_FORMAT_CAF | SF_FORMAT_PCM_32),
    };
    for (const std::string& file : files) {
        SCOPED_TRACE(file);
        EXPECT_EQ(decoded({OPERA, file}), expected);
    }
}

TEST_F(RecordingsCommand, WhatOtherProgramsWriteIsTheSame) {
    const std::string original = shipped("audio-crowded.wav");
    const Spots expected = decoded({OPERA, original});
    for (const std::string name : {"float.wav", "24.wav", "16.flac", "16.aiff", "16.w64"}) {
        const std::string encoding = name == "float.wav" ? "-e floating-point -b 32 "
                                     : name == "24.wav"  ? "-b 24 "
                                                         : "";
        const std::string file = path("sox-" + name);
        run("sox -D " + original + " " + encoding + file);
        SCOPED_TRACE(file);
        EXPECT_EQ(decoded({OPERA, file}), expected);
    }
    for (const auto& [name, codec] : std::map<std::string, std::string>{{"float.au", "pcm_f32be"},
                                                                        {"24.wav", "pcm_s24le"},
                                                                        {"16.flac", "flac"},
                                                                        {"24.aiff", "pcm_s24be"},
                                                                        {"24.w64", "pcm_s24le"}}) {
        const std::string file = path("ffmpeg-" + name);
        run("ffmpeg -v error -nostdin -y -i " + original + " -c:a " + codec + " " + file);
        SCOPED_TRACE(file);
        EXPECT_EQ(decoded({OPERA, file}), expected);
    }
}

// Several programs write floats so.
TEST_F(RecordingsCommand, FloatsOfAnExtensibleWaveFileAreFloats) {
    const std::string audio = shipped("audio-crowded.wav");
    const std::string iq = shipped("iq-narrow.wav");
    const std::string audio_float = write_sound(path("a.wav"), SF_FORMAT_WAVEX | SF_FORMAT_FLOAT, read_sound(audio));
    const std::string iq_float = write_sound(path("iq.wav"), SF_FORMAT_WAVEX | SF_FORMAT_FLOAT, read_sound(iq));
    EXPECT_EQ(decoded({OPERA, "--channel", "1", audio_float}), decoded({OPERA, audio}));
    EXPECT_EQ(decoded({OPERA, audio_float}), decoded({OPERA, audio}));
    EXPECT_EQ(decoded({OPERA, "--iq", iq_float}), decoded({OPERA, "--iq", iq}));
    run("ffmpeg -v error -nostdin -y -i " + audio + " -c:a pcm_f32le " + path("ffmpeg.wav"));
    EXPECT_EQ(decoded({OPERA, path("ffmpeg.wav")}), decoded({OPERA, audio}));
}

TEST_F(RecordingsCommand, IqOfEveryLosslessFormatIsTheSame) {
    const std::string original = shipped("iq-narrow.wav");
    const Spots expected = decoded({OPERA, "--iq", original});
    ASSERT_EQ(expected.size(), truth_of("iq-narrow").size());
    const Sound sound = read_sound(original);
    std::vector<std::string> files = {
        write_sound(path("float.wav"), FLOAT_WAV, sound),
        rewrite(original, path("24.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_24),
        rewrite(original, path("16.flac"), SF_FORMAT_FLAC | SF_FORMAT_PCM_16),
        rewrite(original, path("16.w64"), SF_FORMAT_W64 | SF_FORMAT_PCM_16),
        path("sox.flac"),
        path("ffmpeg.w64"),
    };
    run("sox -D " + original + " -b 16 " + path("sox.flac"));
    run("ffmpeg -v error -nostdin -y -i " + original + " -c:a pcm_s24le " + path("ffmpeg.w64"));
    for (const std::string& file : files) {
        SCOPED_TRACE(file);
        EXPECT_EQ(decoded({OPERA, "--iq", file}), expected);
    }
}

TEST_F(RecordingsCommand, CompressionWithLossLeavesTheStations) {
    const std::string original = shipped("audio-crowded.wav");
    const std::string vorbis = write_sound(path("vorbis.ogg"), SF_FORMAT_OGG | SF_FORMAT_VORBIS, read_sound(original));
    expect_alike(decoded({OPERA, vorbis}), decoded({OPERA, original}), {0.01, 0.3, 2});
    const std::string by_sox = path("sox.ogg");
    run("sox -D " + original + " -C 6 " + by_sox);
    expect_alike(decoded({OPERA, by_sox}), decoded({OPERA, original}), {0.01, 0.3, 2});
}

TEST_F(RecordingsCommand, FormatsMayBeMixedOnOneCommandLine) {
    const std::string wave = shipped("audio-crowded.wav");
    const std::string flac = rewrite(shipped("audio-edges.wav"), path("edges.flac"), SF_FORMAT_FLAC | SF_FORMAT_PCM_16);
    const std::string expected =
        wave + ":\n" + orvel({"decode", OPERA, wave}).out + "\n" + flac + ":\n" + orvel({"decode", OPERA, flac}).out;
    EXPECT_EQ(orvel({"decode", OPERA, wave, flac}).out, expected);
    EXPECT_EQ(lines_of(expected).size(), 5U + truth_of("audio-crowded").size() + truth_of("audio-edges").size());
}

// ---- Channels -------------------------------------------------------------------------------------------------------

TEST_F(RecordingsCommand, OneChannelOfSeveralMayBeTaken) {
    const std::string original = shipped("audio-crowded.wav");
    const Spots expected = decoded({OPERA, original});
    Random random(9);
    const Sound three = spread(read_sound(original), 3, [&](const double* from, double* to) {
        to[0] = 0.05 * random.normal();
        to[1] = from[0];
        to[2] = 0;
    });
    const std::string file = write_sound(path("three.wav"), FLOAT_WAV, three);
    EXPECT_EQ(decoded({OPERA, "--channel", "2", file}), expected);
    EXPECT_EQ(decoded({OPERA, "--channel", "1", file}), Spots());
    EXPECT_EQ(decoded({OPERA, "--channel", "3", file}), Spots());

    // The noise of the first channel joins in: the mean of the channels is 3 dB worse.
    const Spots mean = decoded({OPERA, file});
    ASSERT_FALSE(mean.empty());
    for (const auto& spot : mean) {
        const auto model = std::find_if(expected.begin(), expected.end(),
                                        [&](const JsonValue& each) { return each.at("call") == spot.at("call"); });
        ASSERT_NE(model, expected.end()) << spot;
        EXPECT_NEAR(number(spot, "snr_db"), number(*model, "snr_db") - 3, 1.5) << spot;
    }
}

TEST_F(RecordingsCommand, TheMeanOfTheChannelsIsTakenInEveryFormat) {
    const std::string original = shipped("audio-crowded.wav");
    // All of the signal on one channel, and on others what cancels in the mean.
    const Sound four = spread(read_sound(original), 4, [](const double* from, double* to) {
        to[0] = 4 * from[0];
        to[1] = 0.25;
        to[2] = -0.25;
        to[3] = 0;
    });
    const Spots expected = decoded({OPERA, original});
    EXPECT_EQ(decoded({OPERA, write_sound(path("four.wav"), FLOAT_WAV, four)}), expected);
    EXPECT_EQ(decoded({OPERA, write_sound(path("four.w64"), SF_FORMAT_W64 | SF_FORMAT_FLOAT, four)}), expected);
}

TEST_F(RecordingsCommand, AChannelThatIsNotThereIsAFailureThatNamesIt) {
    const std::string file = shipped("audio-crowded.wav");
    EXPECT_EQ(decoded({OPERA, "--channel", "1", file}), decoded({OPERA, file}));
    for (const std::string channel : {"2", "1024"}) {
        for (const std::string command : {"decode", "scan"}) {
            const ProcessResult result = orvel({command, "--channel", channel, file});
            EXPECT_EQ(result.status, 1);
            EXPECT_EQ(result.out, "");
            EXPECT_TRUE(one_line_with(result, {"'" + file + "'", "channel"}));
        }
    }
    const ProcessResult second_half = orvel({"decode", "--iq", "--channel", "2", shipped("iq-narrow.wav")});
    EXPECT_EQ(second_half.status, 1);
    EXPECT_TRUE(one_line_with(second_half, {"iq-narrow.wav", "channel"}));
}

TEST_F(RecordingsCommand, IqMayBeAPairOfManyChannels) {
    const std::string original = shipped("iq-narrow.wav");
    const Sound four = spread(read_sound(original), 4, [](const double* from, double* to) {
        to[0] = 0.1;
        to[1] = -0.1;
        to[2] = from[0];
        to[3] = from[1];
    });
    const Spots expected = decoded({OPERA, "--iq", original});
    for (const std::string& file : {write_sound(path("four.wav"), FLOAT_WAV, four),
                                    write_sound(path("four.w64"), SF_FORMAT_W64 | SF_FORMAT_FLOAT, four)}) {
        SCOPED_TRACE(file);
        EXPECT_EQ(decoded({OPERA, "--iq", "--channel", "3", file}), expected);
        EXPECT_EQ(decoded({OPERA, "--iq", "--channel", "1", file}), Spots());
        const ProcessResult unsaid = orvel({"decode", "--iq", file});
        EXPECT_EQ(unsaid.status, 1);
        EXPECT_EQ(unsaid.out, "");
        EXPECT_TRUE(one_line_with(unsaid, {"'" + file + "'", "--channel"}));
        const ProcessResult beyond = orvel({"decode", "--iq", "--channel", "4", file});
        EXPECT_EQ(beyond.status, 1);
        EXPECT_TRUE(one_line_with(beyond, {"'" + file + "'", "channel"}));
    }
}

// ---- Sample rates ---------------------------------------------------------------------------------------------------

TEST_F(RecordingsCommand, RatesThatAreNotServedAreConverted) {
    const std::string original = shipped("audio-crowded.wav");
    const Spots expected = decoded({OPERA, original});
    for (const auto& [rate, served] : std::map<std::string, std::string>{
             {"11000", "12000"}, {"22000", "24000"}, {"44000", "48000"}, {"48001", "48000"}}) {
        const std::string file = path(rate + ".wav");
        run("sox -D " + original + " -e floating-point -b 32 " + file + " rate -v " + rate);
        const ProcessResult result = run_json("decode", {OPERA, file});
        EXPECT_EQ(result.status, 0);
        EXPECT_TRUE(one_line_with(result, {file, "sample rate converted from " + rate + " to " + served + " Hz"}));
        SCOPED_TRACE(file);
        expect_alike(objects_of(result), expected, {0.005, 0.3, 1});
    }
}

TEST_F(RecordingsCommand, ConvertedBlocksAreInTheirPlace) {
    const std::string original = path("long.wav");
    const std::string crowded = shipped("audio-crowded.wav");
    run("sox -D " + crowded + " " + crowded + " " + crowded + " " + original);
    const std::string file = path("long.flac");
    run("sox -D " + original + " -b 24 " + file + " rate -v 11000");
    const ProcessResult result = run_json("decode", {OPERA, "--block", "60", file});
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(one_line_with(result, {"sample rate converted from 11000 to 12000 Hz"})) << "one note for all blocks";
    expect_alike(objects_of(result), decoded({OPERA, original}), {0.006, 0.3, 1.5});
}

TEST_F(RecordingsCommand, IqIsConvertedWithItsSigns) {
    const std::string original = shipped("iq-narrow.wav");
    const std::string file = path("iq.wav");
    run("sox -D " + original + " -e floating-point -b 32 " + file + " rate -v 11000");
    const ProcessResult result = run_json("decode", {OPERA, "--iq", file});
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(one_line_with(result, {"sample rate converted from 11000 to 12000 Hz"}));
    expect_alike(objects_of(result), decoded({OPERA, "--iq", original}), {0.005, 0.3, 1.5});
}

// ---- Files that are not what they say -------------------------------------------------------------------------------

TEST_F(RecordingsCommand, ATruncatedFlacIsDecodedAsFarAsItGoes) {
    const std::string crowded = shipped("audio-crowded.wav");
    run("sox -D " + crowded + " " + crowded + " " + path("twice.flac"));
    const std::string whole = bytes_of(path("twice.flac"));
    const std::string file = write("cut.flac", whole.substr(0, whole.size() / 2));
    for (const char* block : {"300", "60"}) {
        const ProcessResult result = run_json("decode", {OPERA, "--block", block, file});
        EXPECT_EQ(result.status, 0);
        EXPECT_TRUE(one_line_with(result, {"'" + file + "' ends before its header says"}));
        expect_alike(objects_of(result), decoded({OPERA, crowded}), {0.005, 0.3, 2});
    }
}

TEST_F(RecordingsCommand, ATruncatedFlacOfManyBlocksIsNoFailureEither) {
    const std::string crowded = shipped("audio-crowded.wav");
    run("sox -D " + crowded + " " + crowded + " " + crowded + " " + crowded + " " + path("four.flac"));
    const std::string whole = bytes_of(path("four.flac"));
    const std::string file = write("cut.flac", whole.substr(0, whole.size() / 2));
    for (const char* block : {"300", "60"}) {
        const ProcessResult result = run_json("decode", {OPERA, "--block", block, file});
        EXPECT_EQ(result.status, 0) << block;
        EXPECT_TRUE(one_line_with(result, {"'" + file + "' ends before its header says"})) << block;
        EXPECT_EQ(objects_of(result).size(), 2 * truth_of("audio-crowded").size());
    }
}

// A program that writes into a pipe does not know the length in advance.
TEST_F(RecordingsCommand, FlacOfUnknownLengthIsReadToItsEnd) {
    const std::string original = shipped("audio-crowded.wav");
    run("ffmpeg -v error -nostdin -i " + original + " -c:a flac -f flac pipe:1 | cat > " + path("stream.flac"));
    const ProcessResult result = orvel_within_memory({"decode", "--json", OPERA, path("stream.flac")});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(objects_of(result), decoded({OPERA, original}));
    EXPECT_EQ(orvel_within_memory({"scan", "--json", path("stream.flac")}).status, 0);
}

TEST_F(RecordingsCommand, ATruncatedOggIsDecodedAsFarAsItGoes) {
    const std::string crowded = shipped("audio-crowded.wav");
    run("sox -D " + crowded + " " + crowded + " " + path("twice.ogg"));
    const std::string whole = bytes_of(path("twice.ogg"));
    const std::string file = write("cut.ogg", whole.substr(0, whole.size() * 11 / 20));
    const ProcessResult result = orvel_within_memory({"decode", "--json", OPERA, file, crowded});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(objects_of(result).size(), 2 * truth_of("audio-crowded").size());
}

TEST_F(RecordingsCommand, BrokenFilesOfOtherFormatsAreOneLine) {
    run("sox -D " + shipped("audio-crowded.wav") + " " + path("whole.flac"));
    const std::string flac = bytes_of(path("whole.flac"));
    std::string scrambled = flac;
    for (std::size_t k = 4; k < std::min<std::size_t>(scrambled.size(), 200); k++) scrambled[k] = '\x5a';
    for (const std::string& file :
         {write("magic.flac", flac.substr(0, 4)), write("head.flac", flac.substr(0, 30)),
          write("scrambled.flac", scrambled), write("empty.ogg", ""), write("text.aiff", "FORM: a story\n")}) {
        for (const std::string command : {"decode", "scan"}) {
            const ProcessResult result = orvel({command, file});
            EXPECT_EQ(result.status, 1) << file;
            EXPECT_EQ(result.out, "") << file;
            EXPECT_TRUE(one_line_with(result, {"'" + file + "'"}));
        }
    }
}

// The samples of a WAVE file on several equal channels.
std::string on_channels(const std::string& samples, std::size_t channels) {
    std::string bytes;
    bytes.reserve(samples.size() * channels);
    for (std::size_t at = 0; at + 2 <= samples.size(); at += 2) {
        for (std::size_t channel = 0; channel < channels; channel++) bytes.append(samples, at, 2);
    }
    return bytes;
}

constexpr std::size_t LARGE = 32 << 20;  // bytes of a file that is no more held in memory

TEST_F(RecordingsCommand, LargeFilesGiveTheSpotsOfSmallOnes) {
    const std::string original = shipped("audio-crowded.wav");
    const Spots expected = decoded({OPERA, original});
    const std::string large = wave_file(1, 64, 8000, 16, on_channels(bytes_of(original).substr(44), 64));
    ASSERT_GT(large.size(), LARGE);
    const std::string file = write("large.wav", large);
    EXPECT_EQ(decoded({OPERA, file}), expected);
    EXPECT_EQ(decoded({OPERA, "--channel", "64", file}), expected);
}

TEST_F(RecordingsCommand, ALargeFileMayHoldLessThanItsHeaderClaims) {
    const std::string original = shipped("audio-crowded.wav");
    std::string large = wave_file(1, 64, 8000, 16, on_channels(bytes_of(original).substr(44), 64));
    ASSERT_GT(large.size(), LARGE);
    for (const std::size_t at : {std::size_t{4}, std::size_t{40}})
        large.replace(at, 4, "\xf0\xff\xff\xef");  // of RIFF and data
    const ProcessResult result = run_json("decode", {OPERA, write("claims.wav", large)});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(objects_of(result), decoded({OPERA, original}));
}

// At a high rate, so that the file is large; it takes no space where it holds nothing.
TEST_F(RecordingsCommand, ALongSilenceAroundAFrameIsNoHindrance) {
    const Scene busy = scene(96000, 36, {opera("G4QZB", 3, 1500, 10)});
    std::string samples;
    for (const double x : render_real(busy)) append(samples, static_cast<int16_t>(std::lround(8000 * x)));
    const std::size_t before = 96000 * 2 * 70;
    const auto length = static_cast<uint32_t>(96000 * 2 * 180);
    std::string bytes = wave_file(1, 1, 96000, 16, "");
    std::string riff_length;
    std::string data_length;
    append(riff_length, uint32_t{36} + length);
    append(data_length, length);
    bytes.replace(4, 4, riff_length).replace(40, 4, data_length);
    const std::string file = write("sparse.wav", bytes);
    {
        std::fstream stream(file, std::ios::binary | std::ios::in | std::ios::out);
        stream.seekp(static_cast<std::streamoff>(44 + before));
        stream << samples;
    }
    std::filesystem::resize_file(file, 44 + length);
    ASSERT_GT(std::filesystem::file_size(file), LARGE);
    const Spots spots = decoded({OPERA, "--block", "90", file});
    ASSERT_EQ(calls_of(spots), std::vector<std::string>{"G4QZB"});
    EXPECT_NEAR(number(spots[0], "t_start"), 73, 0.01);
    EXPECT_NEAR(number(spots[0], "freq_hz"), 1500, 0.3);
}

// ---- Samples that hold nothing --------------------------------------------------------------------------------------

TEST_F(RecordingsCommand, WhatIsNoNumberCountsAsSilenceAndTheRestIsDecoded) {
    std::vector<double> samples =
        render_real(scene(8000, 110, {opera("G4QZB", 4, 1450, -12), opera("K2QRX", 72, 1550, -12)}));
    const std::array<double, 3> wrong = {std::numeric_limits<double>::quiet_NaN(),
                                         std::numeric_limits<double>::infinity(),
                                         -std::numeric_limits<double>::infinity()};
    for (std::size_t k = 45 * 8000; k < 65 * 8000; k++) samples[k] = wrong[k % 3];
    const std::string wave = write_sound(path("nan.wav"), FLOAT_WAV, mono(8000, samples));
    const std::string w64 = write_sound(path("nan.w64"), SF_FORMAT_W64 | SF_FORMAT_FLOAT, mono(8000, samples));
    for (const Arguments& arguments : std::vector<Arguments>{
             {wave}, {w64}, {"--block", "60", w64}, {"--wide", wave}, {"--jobs=3", "--block=60", wave}}) {
        Arguments all = arguments;
        all.push_back(OPERA);
        const ProcessResult result = run_json("decode", all);
        EXPECT_EQ(result.status, 0);
        EXPECT_TRUE(one_line_with(result, {"nan.w", "not finite numbers; they count as silence"}));
        EXPECT_EQ(calls_of(objects_of(result)), (std::vector<std::string>{"G4QZB", "K2QRX"})) << arguments[0];
    }
    const ProcessResult scan = run_json("scan", {wave});
    EXPECT_EQ(scan.status, 0);
    EXPECT_TRUE(one_line_with(scan, {"nan.wav", "not finite numbers; they count as silence"}));
}

TEST_F(RecordingsCommand, ADeadChannelOfIqMirrorsTheBand) {
    const Sound original = read_sound(shipped("iq-narrow.wav"));
    std::map<std::string, double> freq;
    for (const auto& sender : truth_of("iq-narrow")) freq[sender.at("call")] = number(sender, "freq_hz");
    for (const bool keep_i : {true, false}) {
        const Sound dead = spread(original, 2, [&](const double* from, double* to) {
            to[0] = keep_i ? from[0] : 0;
            to[1] = keep_i ? 0 : from[1];
        });
        const Spots spots = decoded({OPERA, "--iq", write_sound(path("dead.wav"), FLOAT_WAV, dead)});
        EXPECT_GE(spots.size(), 2U);  // the strong ones are 3 dB weaker
        for (const auto& spot : spots) {
            ASSERT_TRUE(freq.contains(spot.at("call"))) << spot;
            EXPECT_NEAR(std::fabs(number(spot, "freq_hz")), std::fabs(freq[spot.at("call")]), 0.5) << spot;
        }
    }
}

TEST_F(RecordingsCommand, DigitalSilenceHoldsNothing) {
    const std::string audio = write("zero.wav", wave_file(1, 1, 8000, 16, std::string(2 * 8000 * 60, '\0')));
    const std::string iq = write("zero-iq.wav", wave_file(1, 2, 4000, 16, std::string(4 * 4000 * 60, '\0')));
    EXPECT_EQ(decoded({audio}), Spots());
    EXPECT_EQ(decoded({"--wide", audio}), Spots());
    EXPECT_EQ(decoded({"--iq", iq}), Spots());
    EXPECT_EQ(decoded({"--iq", "--wide", iq}), Spots());
    EXPECT_EQ(scanned({audio}), Spots());
    EXPECT_EQ(scanned({"--iq", iq}), Spots());
    EXPECT_EQ(lines_of(orvel({"decode", audio}).out).size(), 1U);
    EXPECT_EQ(lines_of(orvel({"scan", audio}).out).size(), 1U);
}

// ---- Long recordings ------------------------------------------------------------------------------------------------

// Nearly seven minutes. Blocks of 90 s begin every 40 s, blocks of 120 s every 70 s: frames lie across many of their
// edges. Two stations are outside the band that is searched unless --wide is given.
Scene long_scene() {
    return scene(6000, 400,
                 {
                     opera("VE7QHC", -2.5, 1345, -12),  // began before
                     opera("G4QZB", 2.0, 1500, -14),
                     opera("K2QRX", 25.3, 1620, -15),
                     opera("DL1QXA", 66.7, 1400.4, -13),
                     opera("OH3QKJ", 81.2, 1540, -16),
                     opera("OE3QTN", 105.0, 1460, -12),
                     opera("F5QVB", 118.9, 1650, -14),
                     opera("SM5QWA", 139.98, 1350, -15),
                     opera("9A5QQA", 165.1, 1580, -14),
                     opera("M0QYF", 205.5, 1420.7, -13),
                     opera("G4QZB", 249.0, 1500, -14),  // the same station again
                     opera("EA5QGD", 275.0, 1610, -16),
                     opera("PA3QCW", 315.2, 1380, -12),
                     opera("JA1QEM", 367.0, 1520, -13),
                     opera("W7QNH", 372.5, 1670, -11),  // cut off by the end
                     opera("LA6QTN", 110.0, 700, -13),
                     opera("HB9QLD", 255.0, 2700, -12),
                 });
}

class LongRecordings : public RecordingsCommand {
  protected:
    void SetUp() override {
        std::string samples;
        for (const double x : render_real(long_scene())) append(samples, static_cast<int16_t>(std::lround(32768 * x)));
        file_ = write("long.wav", wave_file(1, 1, 6000, 16, samples));
    }

    // The frames on the air in a band, as a decode should show them.
    static void expect_truth(const Spots& spots, double low_hz, double high_hz) {
        std::size_t expected = 0;
        for (const Station& sent : long_scene().stations) {
            if (sent.freq_hz < low_hz || sent.freq_hz > high_hz) continue;
            expected++;
            const auto near = [&](const JsonValue& spot) {
                return std::fabs(number(spot, "t_start") - sent.t_start) < 0.012 &&
                       std::fabs(number(spot, "freq_hz") - sent.freq_hz) < 0.5 &&
                       std::fabs(number(spot, "snr_db") - sent.snr_db) < 4;
            };
            EXPECT_EQ(std::count_if(spots.begin(), spots.end(), near), 1) << sent.t_start << " s " << sent.freq_hz;
        }
        EXPECT_EQ(spots.size(), expected);
    }

    // The frames that no end of the recording cuts off.
    static Spots within(const Spots& spots) {
        Spots whole;
        std::copy_if(spots.begin(), spots.end(), std::back_inserter(whole), [](const JsonValue& spot) {
            return number(spot, "t_start") >= 0 && number(spot, "t_end") <= 400;
        });
        return whole;
    }

    static void expect_in_order(const Spots& spots) {
        for (std::size_t k = 1; k < spots.size(); k++) {
            EXPECT_LE(number(spots[k - 1], "t_start"), number(spots[k], "t_start"));
        }
    }

    std::string file_;
};

TEST_F(LongRecordings, BlocksOfEveryLengthFindTheSameFramesOnceAndInOrder) {
    for (const bool wide : {false, true}) {
        SCOPED_TRACE(wide ? "wide" : "narrow");
        Arguments arguments = {OPERA, file_, "--block", "600"};
        if (wide) arguments.insert(arguments.begin(), "--wide");
        const Spots whole = decoded(arguments);
        expect_truth(whole, wide ? 0 : 1300, wide ? 3000 : 1700);
        expect_in_order(whole);
        for (const std::string& block : wide ? Arguments{"90"} : Arguments{"90", "120"}) {
            SCOPED_TRACE(block);
            arguments.back() = block;
            const Spots spots = decoded(arguments);
            expect_truth(spots, wide ? 0 : 1300, wide ? 3000 : 1700);
            expect_alike(within(spots), within(whole), {0.01, 0.3, 1.5});
            expect_in_order(spots);
        }
    }
}

TEST_F(RecordingsCommand, BlocksHoldTheFramesOfAllProtocols) {
    const Scene three = scene(8000, 200,
                              {station(OVL_ORVEL_L, "OE3QTN", 61.2, 1480, -12, "JN88"),
                               station(OVL_ORVEL_S, "9A5QQA", 72.4, 1530, -13), opera("G4QZB", 103, 1475, -12)});
    const std::string file = write_sound(path("three.wav"), FLOAT_WAV, mono(8000, render_real(three)));
    Arguments arguments = {"--search", "50", "--block", "300", file};
    const Spots whole = decoded(arguments);
    EXPECT_EQ(calls_of(whole), (std::vector<std::string>{"9A5QQA", "G4QZB", "OE3QTN"}));
    arguments[3] = "90";
    expect_alike(decoded(arguments), whole, {0.01, 0.3, 1.5});
}

// Nor does the order in which blocks speak of what they do.
TEST_F(LongRecordings, JobsChangeNothing) {
    for (const Arguments& options :
         std::vector<Arguments>{{"-v", OPERA, "--block=120"}, {OPERA, "--wide", "--block=120", "--json"}}) {
        Arguments one = {"decode", "--jobs", "1", file_};
        Arguments three = {"decode", "--jobs", "3", file_};
        one.insert(one.end(), options.begin(), options.end());
        three.insert(three.end(), options.begin(), options.end());
        const ProcessResult expected = orvel(one);
        const ProcessResult result = orvel(three);
        EXPECT_EQ(result.out, expected.out);
        EXPECT_EQ(result.err, expected.err) << "no line about progress where no terminal is";
        EXPECT_EQ(result.err.empty(), options[0] != "-v") << result.err;
        EXPECT_GE(lines_of(result.out).size(), 13U);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(expected.status, 0);
    }
}

// ---- Wide bands -----------------------------------------------------------------------------------------------------

class WideIq : public RecordingsCommand {
  protected:
    void SetUp() override {
        const Scene wide = scene(24000, 40,
                                 {opera("G4QZB", 2, -9000.5, -10), opera("K2QRX", 3.5, -300, -12),
                                  opera("DL1QXA", 5, 5000.25, -11), opera("F5QVB", 6, 11000, -8)});
        file_ = write_sound(path("wide.w64"), SF_FORMAT_W64 | SF_FORMAT_PCM_16, stereo(24000, render_iq(wide)));
    }
    std::vector<std::string> found(const Arguments& options) const {
        Arguments all = {"--iq", "--wide", OPERA, file_};
        all.insert(all.end(), options.begin(), options.end());
        return calls_of(decoded(all));
    }
    std::string file_;
};

using Calls = std::vector<std::string>;

TEST_F(WideIq, StationsOnBothSidesOfTheCentreAreFound) {
    const Spots spots = decoded({"--iq", "--wide", OPERA, file_});
    const std::map<std::string, double> freq = {
        {"G4QZB", -9000.5}, {"K2QRX", -300}, {"DL1QXA", 5000.25}, {"F5QVB", 11000}};
    ASSERT_EQ(calls_of(spots), (Calls{"DL1QXA", "F5QVB", "G4QZB", "K2QRX"}));
    for (const auto& spot : spots) EXPECT_NEAR(number(spot, "freq_hz"), freq.at(spot.at("call")), 0.5) << spot;
}

TEST_F(WideIq, ABandLeavesOutWhatIsNotInIt) {
    EXPECT_EQ(found({"--band", "-10000:6000"}), (Calls{"DL1QXA", "G4QZB", "K2QRX"}));
    EXPECT_EQ(found({"--band=-10000:-8000"}), Calls{"G4QZB"});
    EXPECT_EQ(found({"--band", "100:12000"}), (Calls{"DL1QXA", "F5QVB"}));
    EXPECT_EQ(found({"--band", "-1e3:+1e3"}), Calls{"K2QRX"});
    EXPECT_EQ(found({"--band", "6000:10000"}), Calls());
}

TEST_F(WideIq, AThresholdThatNothingReachesIsNoFailure) {
    EXPECT_EQ(found({"--min-z", "1e9"}), Calls());
    EXPECT_EQ(scanned({"--iq", "--min-z", "1e9", file_}), Spots());
    EXPECT_EQ(found({"--min-z", "20"}).size(), 4U);
}

TEST_F(WideIq, ABandThatDoesNotFitIsOneLine) {
    for (const char* command : {"decode", "scan"}) {
        Arguments arguments = {command, "--iq", "--band", "1e6:2e6", file_};
        if (command == std::string("decode")) arguments.emplace_back("--wide");
        const ProcessResult result = orvel(arguments);
        EXPECT_EQ(result.status, 1);
        EXPECT_TRUE(one_line_with(
            result, {"'" + file_ + "'", command == std::string("decode") ? "holds -12000 to 12000 Hz" : "band"}));
    }
}

// A band of more than 24 kHz goes through the channeliser.
TEST_F(RecordingsCommand, AWideReceiversBandIsDecodedInSlices) {
    const Scene band = scene(32000, 75,
                             {opera("G4QZB", 2, -15000.5, -10), opera("K2QRX", 38, -300, -12),
                              opera("DL1QXA", 5, 5000.25, -11), opera("F5QVB", 41, 14000, -8)});
    const std::string file =
        write_sound(path("band.w64"), SF_FORMAT_W64 | SF_FORMAT_PCM_16, stereo(32000, render_iq(band)));
    const Spots spots = decoded({"--iq", "--wide", OPERA, file});
    ASSERT_EQ(spots.size(), band.stations.size());
    for (const Station& sent : band.stations) {
        EXPECT_EQ(std::ranges::count_if(spots,
                                        [&](const JsonValue& spot) {
                                            return std::fabs(number(spot, "t_start") - sent.t_start) < 0.012 &&
                                                   std::fabs(number(spot, "freq_hz") - sent.freq_hz) < 0.5 &&
                                                   std::fabs(number(spot, "snr_db") - sent.snr_db) < 1.5;
                                        }),
                  1)
            << sent.freq_hz;
    }
    EXPECT_EQ(decoded({"--iq", "--wide", "--jobs", "3", OPERA, file}), spots);
    EXPECT_EQ(decoded({"--iq", "--wide", "--band", "-15500:10000", OPERA, file}).size(), 3U);
    EXPECT_EQ(decoded({"--iq", "--wide", "--min-z", "1e9", OPERA, file}), Spots());
}

// A piece must not lose a part of a sample: the times of all that follow would be off.
TEST_F(RecordingsCommand, AWideBandThatIsConvertedKeepsItsFrequencies) {
    const Scene band = scene(48011, 36, {opera("G4QZB", 2, 20000, -10)});
    const std::string file =
        write_sound(path("odd.w64"), SF_FORMAT_W64 | SF_FORMAT_PCM_16, stereo(48011, render_iq(band)));
    const Spots spots = objects_of(run_json("decode", {"--iq", "--wide", OPERA, file}));
    ASSERT_EQ(spots.size(), 1U);
    EXPECT_NEAR(number(spots[0], "freq_hz"), 20000, 0.1);
}

// ---- orvel scan -----------------------------------------------------------------------------------------------------

bool lists(const Spots& hits, double freq_hz) {
    return std::any_of(hits.begin(), hits.end(),
                       [&](const JsonValue& hit) { return std::fabs(number(hit, "freq_hz") - freq_hz) <= 5; });
}

TEST_F(RecordingsCommand, ScanListsTheStationsOfEveryShippedRecording) {
    for (const char* name : {"audio-crowded", "audio-edges", "audio-modes", "iq-narrow", "iq-slow"}) {
        Arguments arguments = {shipped(std::string(name) + ".wav")};
        if (std::string(name).starts_with("iq")) arguments.emplace_back("--iq");
        const Spots hits = scanned(arguments);
        const auto truth = truth_of(name);
        for (const auto& sender : truth) EXPECT_TRUE(lists(hits, number(sender, "freq_hz"))) << name << sender;
        // Weak shadows of the strongest may follow them.
        EXPECT_LE(hits.size(), truth.size() + 3) << name;
        for (std::size_t k = 0; k < hits.size(); k++) {
            ASSERT_EQ(hits[k].names().size(), 4U) << hits[k];
            EXPECT_EQ(number(hits[k], "t_from"), 0);
            EXPECT_GT(number(hits[k], "t_to"), 39);
            EXPECT_GE(number(hits[k], "z"), 6);
            EXPECT_LE(number(hits[k], "z"), number(hits[k == 0 ? 0 : k - 1], "z")) << "strongest first";
        }
    }
}

TEST_F(RecordingsCommand, ScanShowsATableOfWhatJsonHolds) {
    const std::string file = shipped("iq-narrow.wav");
    const ProcessResult result = orvel({"scan", "--iq", file});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    const auto rows = lines_of(result.out);
    const Spots hits = scanned({"--iq", file});
    ASSERT_EQ(rows.size(), 1 + hits.size());
    ASSERT_FALSE(hits.empty());
    EXPECT_EQ(rows[0], "   from s       to s  frequency Hz        z");
    for (std::size_t k = 0; k < hits.size(); k++) {
        const auto match = match_of(rows[k + 1], R"( *(-?\d+\.\d)  +(\d+\.\d)  +(-?\d+\.\d)  +(\d+\.\d))");
        ASSERT_TRUE(match) << rows[k + 1];
        const std::array<const char*, 4> fields = {"t_from", "t_to", "freq_hz", "z"};
        for (std::size_t field = 0; field < fields.size(); field++) {
            EXPECT_NEAR(std::stod(match->at(field + 1)), number(hits[k], fields[field]), 0.051) << rows[k + 1];
        }
    }
    EXPECT_EQ(JsonValue::parse(lines_of(run_json("scan", {"--iq", file}).out)[0]).at("file"), file);

    const std::string audio = shipped("audio-edges.wav");
    EXPECT_EQ(orvel({"scan", audio, audio}).out,
              audio + ":\n" + orvel({"scan", audio}).out + "\n" + audio + ":\n" + orvel({"scan", audio}).out);
}

TEST_F(RecordingsCommand, ScanListsNoSteadyCarrier) {
    std::vector<double> samples = render_real(scene(8000, 60, {opera("G4QZB", 5, 2000, -5)}));
    for (std::size_t k = 0; k < samples.size(); k++) {
        samples[k] += 0.1 * std::cos(2 * std::numbers::pi * 1000 / 8000 * static_cast<double>(k));
    }
    const Spots hits = scanned({write_sound(path("carrier.wav"), FLOAT_WAV, mono(8000, samples))});
    EXPECT_TRUE(lists(hits, 2000));
    for (const auto& hit : hits) EXPECT_GT(std::fabs(number(hit, "freq_hz") - 1000), 40) << hit;
}

TEST_F(RecordingsCommand, ScanKeepsToTheBandAndTheThreshold) {
    const std::string file = shipped("iq-narrow.wav");
    const Spots low = scanned({"--iq", "--band", "-200:-50", file});
    EXPECT_TRUE(lists(low, -71) && lists(low, -164.2));
    for (const auto& hit : low) {
        EXPECT_GE(number(hit, "freq_hz"), -200);
        EXPECT_LE(number(hit, "freq_hz"), -50);
    }
    const Spots strong = scanned({"--iq", "--min-z", "100", file});
    EXPECT_TRUE(lists(strong, 178) && lists(strong, -71));
    EXPECT_FALSE(lists(strong, 92.6));
    for (const auto& hit : strong) EXPECT_GE(number(hit, "z"), 100);
    const std::string audio = shipped("audio-crowded.wav");
    const Spots narrow = scanned({"--band", "1400:1500", audio});
    ASSERT_EQ(narrow.size(), 1U);
    EXPECT_TRUE(lists(narrow, 1437.5));
}

TEST_F(RecordingsCommand, ScanReportsInWhichBlockSomethingIsKeyed) {
    const Scene two = scene(8000, 130, {opera("G4QZB", 5, 1200, -8), opera("K2QRX", 92, 2500, -8)});
    const std::string file = write_sound(path("two.wav"), FLOAT_WAV, mono(8000, render_real(two)));
    std::map<std::pair<double, double>, Spots> blocks;
    for (const auto& hit : scanned({"--block", "45", file})) {
        blocks[{number(hit, "t_from"), number(hit, "t_to")}].push_back(hit);
    }
    ASSERT_EQ(blocks.size(), 2U);
    EXPECT_TRUE(lists(blocks[std::pair(0.0, 45.0)], 1200));
    EXPECT_TRUE(lists(blocks[std::pair(85.0, 130.0)], 2500)) << "the last block is as long as the others";
    EXPECT_EQ(scanned({"--block", "120", file}).size(), 2U);  // one block is as good
    for (const auto& hit : scanned({"--block", "120", file})) EXPECT_EQ(number(hit, "t_to"), 130);
}

TEST_F(RecordingsCommand, ScanOfABrokenFileFailsAndTheOthersAreScanned) {
    const std::string good = shipped("audio-edges.wav");
    for (const auto& [file, reason] : std::map<std::string, std::string>{
             {path("no-such.wav"), "No such file"},
             {write("text.wav", "no recording"), "not a valid RIFF/WAVE file"},
             {write("short.wav", wave_file(1, 1, 8000, 16, std::string(200, '\0'))), "too short"}}) {
        const ProcessResult result = run_json("scan", {file, good});
        EXPECT_EQ(result.status, 1);
        EXPECT_TRUE(one_line_with(result, {"'" + file + "'", reason}));
        EXPECT_EQ(objects_of(result), scanned({good}));
    }
    const ProcessResult one_channel = orvel({"scan", "--iq", good});
    EXPECT_EQ(one_channel.status, 1);
    EXPECT_EQ(one_channel.out, "");
}

// ---- Options --------------------------------------------------------------------------------------------------------

TEST_F(RecordingsCommand, OptionsThatMakeNoSenseAreRefused) {
    const std::string file = shipped("audio-crowded.wav");
    EXPECT_TRUE(usage_error_with({"decode", "--band", "0:100", file}, {"--band", "--wide"}));
    EXPECT_TRUE(usage_error_with({"decode", "--min-z", "7", file}, {"--min-z", "--wide"}));
    EXPECT_TRUE(usage_error_with({"decode", "--wide", "--center", "1500", file}, {"--center", "--band"}));
    for (const char* band : {":", "1:", ":1", "1", "2:1", "1:1", "nan:3", "0:inf", "1:2:3", "1,5:2", "a:b", "1 :2"}) {
        EXPECT_TRUE(usage_error_with({"scan", "--band=" + std::string(band), file}, {"--band"})) << band;
        EXPECT_TRUE(usage_error_with({"decode", "--wide", "--band=" + std::string(band), file}, {"--band"})) << band;
    }
    for (const char* block : {"59", "59.999", "3601", "inf", "-90", "x", "1e9"}) {
        EXPECT_TRUE(usage_error_with({"decode", "--block=" + std::string(block), file}, {"--block"})) << block;
    }
    for (const char* block : {"9.9", "3601", "inf", "0"}) {
        EXPECT_TRUE(usage_error_with({"scan", "--block", block, file}, {"--block"})) << block;
    }
    for (const char* count : {"0", "-1", "257", "1.5", "two"}) {
        EXPECT_TRUE(usage_error_with({"decode", "--jobs=" + std::string(count), file}, {"--jobs"})) << count;
    }
    for (const char* channel : {"0", "-1", "1025", "1.5", "left"}) {
        EXPECT_TRUE(usage_error_with({"decode", "--channel", channel, file}, {"--channel"})) << channel;
        EXPECT_TRUE(usage_error_with({"scan", "--channel", channel, file}, {"--channel"})) << channel;
    }
    for (const char* z : {"nan", "inf", "x"}) {
        EXPECT_TRUE(usage_error_with({"decode", "--wide", "--min-z=" + std::string(z), file}, {"--min-z"})) << z;
        EXPECT_TRUE(usage_error_with({"scan", "--min-z=" + std::string(z), file}, {"--min-z"})) << z;
    }
    EXPECT_TRUE(usage_error_with({"scan"}, {"FILE"}));
}

TEST_F(RecordingsCommand, AnEmptyBandIsNone) {
    const std::string file = shipped("audio-edges.wav");
    EXPECT_TRUE(usage_error_with({"scan", file, "--band", ""}, {"--band"}));
    EXPECT_TRUE(usage_error_with({"decode", "--wide", OPERA, file, "--band", ""}, {"--band"}));
}

TEST_F(RecordingsCommand, ABlockIsANumberOfSeconds) {
    const std::string file = shipped("audio-edges.wav");
    for (const Arguments& arguments :
         std::vector<Arguments>{{"decode", OPERA, "--block", "nan", file}, {"scan", "--block", "nan", file}}) {
        const ProcessResult result = orvel_within_memory(arguments);
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.out, "");
        EXPECT_TRUE(one_line_with(result, {"--block"}));
    }
}

// ---- Progress -------------------------------------------------------------------------------------------------------

// What a program writes whose standard error, and output unless a file takes it, are a terminal.
struct TerminalResult {
    int status = -1;
    std::string bytes;
};

// A terminal of 0 columns does not know how many it has.
TerminalResult run_on_terminal(const Arguments& arguments, const std::string& stdout_file, unsigned short columns = 0) {
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) throw std::runtime_error("no terminal");
    const int slave = open(ptsname(master), O_RDWR | O_NOCTTY);
    if (slave < 0) throw std::runtime_error("no terminal");
    const winsize size = {24, columns, 0, 0};
    if (ioctl(slave, TIOCSWINSZ, &size) != 0) throw std::runtime_error("no terminal");
    std::vector<char*> argv;
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    const pid_t child = fork();
    if (child < 0) throw std::runtime_error("no process");
    if (child == 0) {
        unsetenv("COLUMNS");
        const int out = stdout_file.empty() ? slave : open(stdout_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(out, STDOUT_FILENO);
        dup2(slave, STDERR_FILENO);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(slave);
    TerminalResult result;
    std::array<char, 4096> block{};
    // At the end of the last program that has it open, a terminal gives an error.
    for (ssize_t got = 0; (got = read(master, block.data(), block.size())) > 0;) {
        result.bytes.append(block.data(), static_cast<std::size_t>(got));
    }
    close(master);
    int status = 0;
    waitpid(child, &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

// The lines that stand on an endless terminal at the end. Knows what the command uses: return, line feed, erase to the
// end of the line.
std::vector<std::string> screen_of(const std::string& bytes) {
    std::vector<std::string> lines(1);
    std::size_t column = 0;
    for (std::size_t at = 0; at < bytes.size(); at++) {
        std::string& line = lines.back();
        if (bytes[at] == '\r') {
            column = 0;
        } else if (bytes[at] == '\n') {
            lines.emplace_back();
            column = 0;
        } else if (bytes.compare(at, 3, "\033[K") == 0) {
            line.resize(std::min(line.size(), column));
            at += 2;
        } else {
            EXPECT_NE(bytes[at], '\033') << "a sequence unknown to the test";
            if (line.size() <= column) line.resize(column + 1, ' ');
            line[column++] = bytes[at];
        }
    }
    return lines;
}

class OnATerminal : public RecordingsCommand {
  protected:
    // 135 s of I/Q at a rate that costs nothing.
    std::string long_recording() const {
        const std::string slow = shipped("iq-slow.wav");
        run("sox -D " + slow + " " + slow + " " + slow + " " + path("long.wav"));
        return path("long.wav");
    }
};

TEST_F(OnATerminal, ALineShowsTheProgressOfALongRecording) {
    const std::string file = long_recording();
    const Arguments arguments = {"decode", "--iq", OPERA, "--block", "60", file};
    const TerminalResult result = run_on_terminal(orvel_arguments(arguments), path("out"));
    EXPECT_EQ(result.status, 0);
    const std::string expected = orvel(arguments).out;
    EXPECT_EQ(bytes_of(path("out")), expected);
    EXPECT_NE(result.bytes.find("'" + file + "'  ....................    0 %  0 spots"), std::string::npos);
    EXPECT_TRUE(first_match(result.bytes, R"(#+\.+ +\d+ % +\d+\.\d x real time +\d+:\d\d left +\d+ spots?)"))
        << result.bytes;
    const auto complete = first_match(result.bytes, R"(#{20}  100 % +\d+\.\d x real time +0:00 left +(\d+) spots)");
    ASSERT_TRUE(complete) << result.bytes;
    EXPECT_EQ(std::stoul(complete->at(1)), lines_of(expected).size() - 1);
    EXPECT_EQ(screen_of(result.bytes), std::vector<std::string>{""}) << "the line is cleared at the end";
}

TEST_F(OnATerminal, TheLineDoesNotMixWithTheSpots) {
    const Arguments arguments = {"decode", "--iq", OPERA, "--block", "60", "--jobs", "3", long_recording()};
    const TerminalResult result = run_on_terminal(orvel_arguments(arguments), "");
    EXPECT_EQ(result.status, 0);
    std::vector<std::string> expected = lines_of(orvel(arguments).out);
    ASSERT_GE(expected.size(), 7U);
    expected.emplace_back();
    EXPECT_EQ(screen_of(result.bytes), expected);
}

TEST_F(OnATerminal, TheLineDoesNotMixWithNotes) {
    const std::string slow = shipped("iq-slow.wav");
    run("sox -D " + slow + " " + slow + " " + slow + " " + slow + " " + path("whole.flac"));
    const std::string whole = bytes_of(path("whole.flac"));
    const std::string file = write("cut.flac", whole.substr(0, whole.size() * 3 / 4));
    const TerminalResult result =
        run_on_terminal(orvel_arguments({"decode", "--iq", OPERA, "--block", "300", file}), path("out"));
    EXPECT_EQ(result.status, 0);
    const std::vector<std::string> expected = {"orvel: '" + file + "' ends before its header says", ""};
    EXPECT_EQ(screen_of(result.bytes), expected);
}

TEST_F(OnATerminal, ShortRecordingsAreNotWorthALine) {
    const TerminalResult result =
        run_on_terminal(orvel_arguments({"decode", OPERA, shipped("audio-crowded.wav")}), path("out"));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.bytes, "");
}

// The lines that were shown in place, one after the other.
std::vector<std::string> shown_lines(const std::string& bytes) {
    std::vector<std::string> lines;
    for (std::size_t begin = 0, end = 0; (begin = bytes.find('\r', end)) != std::string::npos;) {
        end = std::min(bytes.find("\033[K", begin), bytes.size());
        lines.push_back(bytes.substr(begin + 1, end - begin - 1));
    }
    return lines;
}

TEST_F(OnATerminal, OnThirtyColumnsTheLineKeepsShareTimeLeftAndABarAndDoesNotWrap) {
    const Arguments arguments = {"decode", "--iq", OPERA, "--block", "60", long_recording()};
    const TerminalResult result = run_on_terminal(orvel_arguments(arguments), path("out"), 30);
    EXPECT_EQ(result.status, 0);
    const std::vector<std::string> lines = shown_lines(result.bytes);
    ASSERT_GE(lines.size(), 3U);
    for (const std::string& line : lines) EXPECT_LE(line.size(), 29U) << line;
    EXPECT_TRUE(first_match(result.bytes, R"(\r +\d+ %  \d+:\d\d left  #+\.+)")) << result.bytes;
    EXPECT_EQ(screen_of(result.bytes), std::vector<std::string>{""});
}

TEST_F(OnATerminal, SimulateScanAndPlotShowTheirProgressToo) {
    const std::string file = path("noise.wav");
    const std::vector<Arguments> jobs = {
        {"simulate", "--iq", "--rate", "1000", "--seconds", "300", "-o", file},
        {"scan", "--iq", file},
        {"plot", "--iq", OPERA, "-o", path("noise.svg"), file},
        {"plot", "--iq", "--no-decode", "-o", path("noise.svg"), file},
    };
    for (const Arguments& job : jobs) {
        const TerminalResult result = run_on_terminal(orvel_arguments(job), path("out"));
        EXPECT_EQ(result.status, 0);
        const std::vector<std::string> lines = shown_lines(result.bytes);
        ASSERT_GE(lines.size(), 3U) << job.front();
        EXPECT_TRUE(lines.front().starts_with("'" + file + "'  ....................    0 %")) << lines.front();
        EXPECT_TRUE(first_match(result.bytes, R"(#{20}  100 % +\d+\.\d x real time +0:00 left)")) << result.bytes;
        double before = 0;  // one bar that does not begin again
        for (const std::string& line : lines) {
            const auto share = first_match(line, R"((\d+) %)");
            if (!share) continue;
            EXPECT_GE(std::stod(share->at(1)), before) << job.front();
            before = std::stod(share->at(1));
        }
        EXPECT_EQ(screen_of(result.bytes), std::vector<std::string>{""}) << "the line is cleared at the end";
    }
}

}  // namespace

// orvel listen with one receiver and with many, as its user meets it: the built program, servers on this machine.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "command.h"
#include "json_value.h"
#include "process.h"
#include "siggen.h"
#include "tcp_server.h"

namespace {

using Receivers = TestWithFiles;

const std::string OPERA = "--protocols=opera";
const std::string MIDNIGHT = "--start=2026-01-01T00:00:00Z";
constexpr double PATIENCE_S = 60;

// One OPERA frame from 3 s on: it has ended at 33.6 s.
Scene scene_of(const char* call, int32_t rate, double freq_hz, double seconds = 40) {
    Scene scene;
    scene.rate = rate;
    scene.seconds = seconds;
    scene.seed = 3;
    scene.stations.push_back({.chips = opera_chips(call), .t_start = 3, .freq_hz = freq_hz, .snr_db = -12});
    return scene;
}

std::string s16_audio(const Scene& scene) {
    std::string bytes;
    for (const double x : render_real(scene)) append(bytes, static_cast<int16_t>(std::lround(32768 * x)));
    return bytes;
}

std::string s16_iq(const Scene& scene) {
    const IqSamples samples = render_iq(scene);
    std::string bytes;
    for (std::size_t k = 0; k < samples.i.size(); k++) {
        append(bytes, static_cast<int16_t>(std::lround(32768 * samples.i[k])));
        append(bytes, static_cast<int16_t>(std::lround(32768 * samples.q[k])));
    }
    return bytes;
}

std::vector<uint8_t> u8_iq(const Scene& scene) {
    const IqSamples samples = render_iq(scene);
    std::vector<uint8_t> bytes;
    for (std::size_t k = 0; k < samples.i.size(); k++) {
        for (const double x : {samples.i[k], samples.q[k]}) {
            bytes.push_back(static_cast<uint8_t>(std::lround(127.5 + 127.5 * x)));
        }
    }
    return bytes;
}

// A receiver's server that sends these samples once and then stands still.
TcpServer server_of(std::vector<uint8_t> bytes) {
    return TcpServer([bytes = std::move(bytes)](TcpServer::Connection& connection, int32_t) {
        const std::string header("RTL0\0\0\0\x05\0\0\0\x1d", 12);
        connection.send(std::vector<uint8_t>(header.begin(), header.end()));
        connection.send(bytes);
        connection.pause(PATIENCE_S);
    });
}

Arguments listening(const Arguments& options) {
    Arguments all = {"listen", OPERA};
    all.insert(all.end(), options.begin(), options.end());
    return orvel_arguments(all);
}

ProcessResult listen(const std::string& stdin_file, const Arguments& options) {
    ProcessInput input;
    input.stdin_file = stdin_file;
    return run_process(listening(options), input);
}

using Lines = std::vector<JsonValue>;

Lines of_type(const std::string& type, const std::string& out) {
    Lines lines;
    for (const std::string& line : lines_of(out)) {
        if (JsonValue::parse(line).at("type") == type) lines.push_back(JsonValue::parse(line));
    }
    return lines;
}

TEST_F(Receivers, EachSpotNamesTheOneThatHeardIt) {
    const TcpServer server = server_of(u8_iq(scene_of("G4QZB", 12000, 100)));
    RunningProcess process(
        listening({"--json", "--receiver", "lf=rtl_tcp://" + server.address() + "?freq=137500&rate=12000",
                   "--receiver=hf=-", "--rate=12000"}));
    ASSERT_TRUE(process.write(s16_audio(scene_of("K2QRX", 12000, 1480))));
    process.close_stdin();
    const auto first = process.read_line(PATIENCE_S);
    ASSERT_TRUE(first) << "the receiver that goes on keeps back the spots of the one that ended";
    const JsonValue hf = JsonValue::parse(*first);
    EXPECT_EQ(hf.at("type"), "spot");
    EXPECT_EQ(hf.at("receiver"), "hf");
    EXPECT_EQ(hf.at("call"), "K2QRX");
    EXPECT_EQ(first->find("rf_hz"), std::string::npos) << "nobody knows how it was tuned";

    std::this_thread::sleep_for(std::chrono::seconds(1));
    process.send_signal(SIGINT);
    const auto second = process.read_line(PATIENCE_S);
    ASSERT_TRUE(second);
    const JsonValue lf = JsonValue::parse(*second);
    EXPECT_EQ(lf.at("receiver"), "lf");
    EXPECT_EQ(lf.at("call"), "G4QZB");
    EXPECT_NEAR(lf.at("freq_hz").number(), 100, 0.5);
    EXPECT_NEAR(lf.at("rf_hz").number(), 137600, 0.5);
    const auto result = process.wait(PATIENCE_S);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, 0) << result->err;
    EXPECT_EQ(result->err, "");
}

TEST_F(Receivers, OneThatIsDeadDelaysNoOther) {
    std::string nobody;
    {
        const TcpServer gone([](TcpServer::Connection&, int32_t) {});
        nobody = gone.address();
    }
    RunningProcess process(
        listening({"--json", "--receiver=dead=rtl_tcp://" + nobody, "--receiver=hf=-", "--rate=12000"}));
    ASSERT_TRUE(process.write(s16_audio(scene_of("K2QRX", 12000, 1480))));
    process.close_stdin();
    ASSERT_TRUE(process.read_line(PATIENCE_S));
    process.send_signal(SIGINT);
    const auto result = process.wait(PATIENCE_S / 6);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, 0);
    EXPECT_TRUE(one_line_with(*result, {"dead: " + nobody + ": Connection refused; trying again"}));
}

TEST_F(Receivers, TheTableAndCommaSeparatedValuesNameThem) {
    const std::string file = write("audio.raw", s16_audio(scene_of("K2QRX", 12000, 1480)));
    const Arguments options = {"--receiver=hf=-", "--rate=12000", MIDNIGHT, "--dial=28000000", "--sideband=lsb"};
    const auto rows = lines_of(listen(file, options).out);
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_NE(rows[0].find("  receiver  "), std::string::npos) << rows[0];
    EXPECT_NE(rows[1].find("  hf  "), std::string::npos) << rows[1];
    EXPECT_NE(rows[1].find("  27998519."), std::string::npos) << rows[1];
    Arguments csv = options;
    csv.emplace_back("--csv");
    const auto lines = lines_of(listen(file, csv).out);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(lines[0].ends_with(",receiver")) << lines[0];
    EXPECT_TRUE(lines[1].ends_with(",hf")) << lines[1];
    EXPECT_NE(lines[0].find(",rf_hz,"), std::string::npos) << lines[0];
}

// The rate of a receiver of 250 kHz, and samples of a side.
TEST_F(Receivers, IqOfStandardInputIsDecodedWhereverItsCentreIs) {
    const std::string file = write("iq.raw", s16_iq(scene_of("K2QRX", 50000, -12340)));
    const ProcessResult result =
        listen(file, {"--stdin", "--iq", "--rate=50000", "--center=-12300", MIDNIGHT, "--json"});
    EXPECT_EQ(result.status, 0) << result.err;
    const auto lines = lines_of(result.out);
    ASSERT_EQ(lines.size(), 1u) << result.err;
    const JsonValue spot = JsonValue::parse(lines[0]);
    EXPECT_EQ(spot.at("call"), "K2QRX");
    EXPECT_NEAR(spot.at("freq_hz").number(), -12340, 0.5);
    EXPECT_TRUE(spot.at("utc_start").text().starts_with("2026-01-01T00:00:0")) << spot;
    EXPECT_EQ(
        lines_of(listen(file, {"--stdin", "--iq", "--rate=50000", "--center=12300", MIDNIGHT, "--json"}).out).size(),
        0u);
}

TEST_F(Receivers, AWideBandIsSearchedAsItComes) {
    Scene scene = scene_of("K2QRX", 48000, -20340, 60);
    scene.stations.push_back({.chips = opera_chips("G4QZB"), .t_start = 12, .freq_hz = 17001, .snr_db = -12});
    const std::string file = write("iq.raw", s16_iq(scene));
    const Arguments options = {"--stdin", "--iq", "--rate=48000", "--wide", MIDNIGHT, "--json", "--dial=137500"};
    std::map<std::string, double> heard;
    for (const std::string& line : lines_of(listen(file, options).out)) {
        const JsonValue spot = JsonValue::parse(line);
        EXPECT_TRUE(heard.emplace(spot.at("call"), spot.at("freq_hz")).second) << "twice";
        EXPECT_NEAR(spot.at("rf_hz").number(), 137500 + spot.at("freq_hz").number(), 1e-3);
    }
    ASSERT_EQ(heard.size(), 2u);
    EXPECT_NEAR(heard["K2QRX"], -20340, 0.5);
    EXPECT_NEAR(heard["G4QZB"], 17001, 0.5);
    Arguments part = options;
    part.emplace_back("--band=10000:20000");
    EXPECT_EQ(lines_of(listen(file, part).out).size(), 1u);
}

TEST_F(Receivers, AProvisionalSpotComesAtOnceAndAgainWhenItIsConfirmed) {
    const std::string bytes = s16_audio(scene_of("K2QRX", 12000, 1480, 92));
    RunningProcess process(listening({"--stdin", "--rate=12000", MIDNIGHT, "--json", "--provisional"}));
    ASSERT_TRUE(process.write(bytes.substr(0, 24000 * 40)));
    const auto provisional = process.read_line(PATIENCE_S);
    ASSERT_TRUE(provisional) << "before its hold-off";
    EXPECT_EQ(JsonValue::parse(*provisional).at("type"), "spot");
    EXPECT_EQ(JsonValue::parse(*provisional).at("standing"), "provisional");
    EXPECT_EQ(JsonValue::parse(*provisional).at("call"), "K2QRX");
    EXPECT_FALSE(process.read_line(0.3));
    ASSERT_TRUE(process.write(bytes.substr(24000 * 40)));
    const auto confirmed = process.read_line(PATIENCE_S);
    ASSERT_TRUE(confirmed);
    EXPECT_EQ(JsonValue::parse(*confirmed).at("standing"), "confirmed");
    process.close_stdin();
    EXPECT_EQ(process.read_rest(PATIENCE_S), "");
}

TEST_F(Receivers, StatusSaysHowEachIsDoing) {
    Scene scene = scene_of("K2QRX", 12000, 1480, 30);
    std::string bytes = s16_audio(scene);
    for (int k = 0; k < 7; k++) append(bytes, int16_t{-32768});
    RunningProcess process(listening({"--stdin", "--rate=12000", "--json", "--status=0.5s"}));
    ASSERT_TRUE(process.write(bytes));
    double captured_s = 0;
    double clipped = 0;
    double peak_db = -120;
    while (captured_s < 30) {
        const auto line = process.read_line(PATIENCE_S);
        ASSERT_TRUE(line);
        const JsonValue status = JsonValue::parse(*line);
        EXPECT_EQ(status.at("type"), "status");
        EXPECT_EQ(status.at("rate"), 12000.0);
        EXPECT_EQ(status.at("lost_s"), 0.0);
        EXPECT_TRUE(status.at("clock_error_ppm").is_null());
        EXPECT_GE(status.at("decode_s").number(), 0);
        EXPECT_EQ(status.at("spots"), 0.0);
        if (status.at("captured_s").number() > captured_s + 5) {
            EXPECT_NEAR(status.at("level_db").number(), 20 * std::log10(0.05), 1);
            EXPECT_NEAR(status.at("noise_db").number(), 20 * std::log10(0.05) - 10 * std::log10(6000), 1);
        }
        captured_s = status.at("captured_s");
        clipped += status.at("clipped").number();
        peak_db = std::max(peak_db, status.at("peak_db").number());
    }
    EXPECT_NEAR(captured_s, 30, 0.01);
    EXPECT_EQ(clipped, 7);
    EXPECT_NEAR(peak_db, 0, 0.01);
    process.close_stdin();
    EXPECT_FALSE(of_type("status", process.read_rest(PATIENCE_S)).empty()) << "one more at the end";
}

std::vector<int> levels_in(const std::string& base64) {
    const std::string digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::vector<int> levels;
    uint32_t bits = 0;
    int held = 0;
    for (const char c : base64) {
        if (c == '=') break;
        bits = (bits << 6 | static_cast<uint32_t>(digits.find(c))) & 0xffffU;
        held += 6;
        if (held >= 8) levels.push_back(static_cast<int>(bits >> (held -= 8) & 0xffU));
    }
    return levels;
}

TEST_F(Receivers, RowsOfASpectrumShowTheCarrierWhereItIs) {
    Scene scene = scene_of("K2QRX", 12000, 1480, 30);
    scene.stations[0].snr_db = 10;
    const std::string file = write("audio.raw", s16_audio(scene));
    const ProcessResult result = listen(file, {"--stdin", "--rate=12000", MIDNIGHT, "--json", "--spectrum=5"});
    const Lines rows = of_type("spectrum", result.out);
    ASSERT_GE(rows.size(), 4u) << result.out << result.err;
    const JsonValue& row = rows[2];
    const double low_hz = row.at("low_hz");
    const double high_hz = row.at("high_hz");
    EXPECT_NEAR(low_hz, 1300, 1);
    EXPECT_NEAR(high_hz, 1700, 1);
    const std::vector<int> levels = levels_in(row.at("levels"));
    ASSERT_GE(levels.size(), 512u);
    EXPECT_LE(levels.size(), 1024u);
    const auto peak = std::max_element(levels.begin(), levels.end()) - levels.begin();
    const double width_hz = (high_hz - low_hz) / static_cast<double>(levels.size());
    EXPECT_NEAR(low_hz + (static_cast<double>(peak) + 0.5) * width_hz, 1480, 2 * width_hz);
    std::vector<int> sorted = levels;
    std::sort(sorted.begin(), sorted.end());
    const double floor_db = row.at("zero_db").number() + row.at("step_db").number() * sorted[sorted.size() / 2];
    EXPECT_NEAR(floor_db, 20 * std::log10(0.05) - 10 * std::log10(6000), 2);
    EXPECT_EQ(of_type("spot", result.out).size() + rows.size(), lines_of(result.out).size());
}

// ---- Recording ------------------------------------------------------------------------------------------------------

std::vector<std::string> files_in(const std::string& directory) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

TEST_F(Receivers, WhatIsRecordedDecodesToTheSameSpots) {
    Scene scene = scene_of("K2QRX", 12000, 100, 150);
    scene.stations.push_back({.chips = opera_chips("G4QZB"), .t_start = 75, .freq_hz = -80, .snr_db = -12});
    std::filesystem::create_directory(path("kept"));
    for (const char* const name : {"kept/orvel_20251230_000000.sigmf-data", "kept/orvel_20251230_000000.sigmf-meta",
                                   "kept/orvel_20251231_230000.sigmf-data", "kept/orvel_20251230.sigmf-data",
                                   "kept/other_20251230_000000.sigmf-data"}) {
        write(name, "");
    }
    const ProcessResult listened =
        listen(write("iq.raw", s16_iq(scene)), {"--stdin", "--iq", "--rate=12000", MIDNIGHT, "--json", "--dial=137500",
                                                "--record", path("kept"), "--record-length=1m"});
    EXPECT_EQ(listened.status, 0);
    EXPECT_EQ(listened.err, "");
    EXPECT_EQ(files_in(path("kept")), (Arguments{"orvel_20251230.sigmf-data", "orvel_20251231_230000.sigmf-data",
                                                 "orvel_20260101_000000.sigmf-data", "orvel_20260101_000000.sigmf-meta",
                                                 "orvel_20260101_000100.sigmf-data", "orvel_20260101_000100.sigmf-meta",
                                                 "orvel_20260101_000200.sigmf-data", "orvel_20260101_000200.sigmf-meta",
                                                 "other_20251230_000000.sigmf-data"}));
    const auto expected = lines_of(listened.out);
    ASSERT_EQ(expected.size(), 2u) << listened.out;
    const auto annotated = [&](const std::string& name) {
        std::ifstream file(path("kept/" + name));
        std::string labels;
        for (std::string line; std::getline(file, line);) {
            if (line.find("core:label") != std::string::npos) labels += line;
        }
        return labels;
    };
    EXPECT_NE(annotated("orvel_20260101_000000.sigmf-meta").find("K2QRX"), std::string::npos);
    EXPECT_NE(annotated("orvel_20260101_000100.sigmf-meta").find("G4QZB"), std::string::npos);
    EXPECT_EQ(annotated("orvel_20260101_000200.sigmf-meta"), "");
    const Arguments files = {"orvel_20260101_000000.sigmf-meta", "orvel_20260101_000100.sigmf-meta"};
    for (std::size_t k = 0; k < 2; k++) {
        const JsonValue spot = JsonValue::parse(expected[k]);
        const ProcessResult decoded = orvel({"decode", "--json", OPERA, path("kept/" + files[k])});
        bool same = false;
        for (const std::string& line : lines_of(decoded.out)) {
            const JsonValue other = JsonValue::parse(line);
            same = same || (other.at("call") == spot.at("call").text() &&
                            std::fabs(other.at("rf_hz").number() - spot.at("rf_hz").number()) < 0.2 &&
                            other.at("utc_start").text().substr(0, 20) == spot.at("utc_start").text().substr(0, 20));
        }
        EXPECT_TRUE(same) << spot << decoded.out << decoded.err;
    }
}

TEST_F(Receivers, OnlyRecordingsAroundSpotsAreKeptIfThatIsAskedFor) {
    const Scene scene = scene_of("K2QRX", 12000, 1480, 300);
    const ProcessResult listened = listen(write("audio.raw", s16_audio(scene)),
                                          {"--stdin", "--rate=12000", MIDNIGHT, "--json", "--every=15", "--record",
                                           path("kept"), "--record-length=1m", "--around-spots=5s"});
    EXPECT_EQ(lines_of(listened.out).size(), 1u) << listened.err;
    EXPECT_EQ(files_in(path("kept")),
              (Arguments{"orvel_20260101_000000.sigmf-data", "orvel_20260101_000000.sigmf-meta"}));
}

TEST_F(Receivers, ListeningGoesOnWhereNothingCanBeRecorded) {
    const std::string file = write("audio.raw", s16_audio(scene_of("K2QRX", 12000, 1480)));
    const ProcessResult result =
        listen(file, {"--stdin", "--rate=12000", MIDNIGHT, "--json", "--record", "/dev/null/recordings"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(lines_of(result.out).size(), 1u);
    EXPECT_TRUE(one_line_with(result, {"not recorded: cannot write '/dev/null/recordings"}));
}

TEST_F(Receivers, WrongOptionsAreWrongUsage) {
    const std::vector<std::pair<Arguments, Arguments>> wrong = {
        {{"--receiver", "hf"}, {"--receiver", "'hf'", "NAME=SOURCE"}},
        {{"--receiver", "=-"}, {"--receiver", "NAME=SOURCE"}},
        {{"--receiver", "a=-", "--receiver", "a=1"}, {"--receiver", "'a'"}},
        {{"--receiver", "a=-", "--receiver", "b=-"}, {"'a'", "'b'", "same source"}},
        {{"--receiver", "a=-", "--stdin"}, {"--receiver", "--stdin"}},
        {{"--receiver", "a=-", "--device", "1"}, {"--receiver", "--device"}},
        {{"--receiver", "a=rtl_tcp://x?freq=high"}, {"rtl_tcp://x", "'freq=high'"}},
        {{"--device", "rtl_tcp://"}, {"rtl_tcp://", "HOST"}},
        {{"--iq", "--device", "rtl_tcp://x"}, {"--iq", "sound devices"}},
        {{"--stdin", "--iq", "--rate", "3200001"}, {"--rate", "8000 to 3200000"}},
        {{"--stdin", "--raw", "s12"}, {"--format", "'s12'"}},
        {{"--stdin", "--status"}, {"--status", "--json"}},
        {{"--stdin", "--status=never", "--json"}, {"--status", "'never'"}},
        {{"--stdin", "--spectrum=5"}, {"--spectrum", "--json"}},
        {{"--stdin", "--json", "--spectrum=0"}, {"--spectrum", "'0'"}},
        {{"--stdin", "--keep=1h"}, {"--keep", "--record"}},
        {{"--stdin", "--record=x", "--keep=soon"}, {"--keep", "'soon'"}},
        {{"--stdin", "--record=x", "--keep=80s"}, {"--keep", "more than one recording"}},
        {{"--stdin", "--band=0:9"}, {"--band", "--wide"}},
        {{"--stdin", "--sideband", "am"}, {"--sideband", "'am'"}},
    };
    for (const auto& [options, texts] : wrong) {
        Arguments all = {"listen"};
        all.insert(all.end(), options.begin(), options.end());
        EXPECT_TRUE(usage_error_with(all, texts)) << ::testing::PrintToString(options);
    }
}

}  // namespace

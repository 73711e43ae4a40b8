// The orvel command as its user meets it: the built program, run on files.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "command.h"
#include "json_value.h"
#include "liborvel.h"
#include "pattern.h"
#include "process.h"
#include "recordings.h"

namespace {

std::string shipped(const std::string& name) {
    return std::string(ORVEL_RECORDINGS) + "/" + name;
}

// Where protocols do not matter: the search for OPERA alone takes a fraction of the time.
const std::string OPERA = "--protocols=opera";

// A row of the table. Protocol names hold a blank.
struct Row {
    double time, freq, drift, snr;
    std::string protocol, call, locator;
};
Row parse_row(const std::string& line) {
    const auto match = match_of(
        line,
        R"( *(-?\d+\.\d{3})  +(-?\d+\.\d\d)  +([+-]\d+\.\d{3})  +([+-]\d+\.\d)  (OPERA 05|ORVEL S|ORVEL L)  +(\w+)  +(-|\w+))");
    if (!match) {
        ADD_FAILURE() << "no row of the table: " << line;
        return {};
    }
    const auto number = [&](std::size_t group) { return std::stod(match->at(group)); };
    return {number(1), number(2), number(3), number(4), match->at(5), match->at(6), match->at(7)};
}

std::vector<JsonValue> truth_of(const std::string& name) {
    std::vector<JsonValue> stations;
    std::ifstream file(shipped(name + ".jsonl"));
    for (std::string line; std::getline(file, line);) stations.push_back(JsonValue::parse(line));
    EXPECT_FALSE(stations.empty());
    return stations;
}

class Command : public TestWithFiles {};

// ---- Spots ----------------------------------------------------------------------------------------------------------

TEST_F(Command, TableShowsTheTruthOfEveryShippedRecording) {
    for (const ShippedRecording& recording : shipped_recordings()) {
        Arguments arguments = {"decode", shipped(recording.name + ".wav")};
        if (recording.iq) arguments.emplace_back("--iq");
        const ProcessResult result = orvel(arguments);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.err, "");

        const auto lines = lines_of(result.out);
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines[0], "   time s  frequency Hz  drift Hz/s  SNR dB  protocol  callsign  locator");
        std::map<std::string, Row> rows;
        double last_time = -1e9;
        for (std::size_t k = 1; k < lines.size(); ++k) {
            const Row row = parse_row(lines[k]);
            EXPECT_TRUE(rows.emplace(row.call, row).second) << row.call << " twice";
            EXPECT_LE(last_time, row.time) << "rows are not in order of time";
            last_time = row.time;
        }
        const auto truth = truth_of(recording.name);
        EXPECT_EQ(rows.size(), truth.size());
        for (const auto& station : truth) {
            const std::string call = station.at("call");
            ASSERT_TRUE(rows.contains(call)) << call << " in " << recording.name;
            EXPECT_EQ(rows[call].protocol, station.at("protocol")) << call;
            const std::string locator = station.at("locator");
            EXPECT_EQ(rows[call].locator, locator.empty() ? "-" : locator) << call;
            EXPECT_NEAR(rows[call].time, station.at("t_start"), 0.006) << call;
            EXPECT_NEAR(rows[call].freq, station.at("freq_hz"), 0.5) << call;
            EXPECT_NEAR(rows[call].drift, station.at("drift_hz_s"), 0.033) << call;
            EXPECT_NEAR(rows[call].snr, station.at("snr_db"), 3) << call;
        }
    }
}

TEST_F(Command, JsonAgreesWithTheTable) {
    const std::string file = shipped("audio-crowded.wav");
    const auto rows = lines_of(orvel({"decode", OPERA, file}).out);
    const ProcessResult result = orvel({"decode", OPERA, "--json", file});
    EXPECT_EQ(result.status, 0);
    const auto objects = lines_of(result.out);
    ASSERT_EQ(objects.size(), rows.size() - 1);
    ASSERT_FALSE(objects.empty());
    for (std::size_t k = 0; k < objects.size(); ++k) {
        const Row row = parse_row(rows[k + 1]);
        const auto object = JsonValue::parse(objects[k]);
        EXPECT_EQ(object.at("file"), file);
        EXPECT_NEAR(object.at("t_start"), row.time, 0.00051);
        EXPECT_NEAR(object.at("t_end").number() - object.at("t_start").number(), 30.592, 1e-9);
        EXPECT_NEAR(object.at("freq_hz"), row.freq, 0.0051);
        EXPECT_NEAR(object.at("drift_hz_s"), row.drift, 0.00051);
        EXPECT_NEAR(object.at("snr_db"), row.snr, 0.051);
        EXPECT_EQ(object.at("protocol"), row.protocol);
        EXPECT_EQ(object.at("call"), row.call);
        EXPECT_EQ(object.at("locator"), "");
        EXPECT_EQ(object.at("deep"), false);
    }
}

TEST_F(Command, SeveralFilesAreToldApart) {
    const std::string first = shipped("audio-crowded.wav");
    const std::string second = shipped("audio-edges.wav");
    const std::string expected = first + ":\n" + orvel({"decode", OPERA, first}).out + "\n" + second + ":\n" +
                                 orvel({"decode", OPERA, second}).out;
    EXPECT_EQ(orvel({"decode", OPERA, first, second}).out, expected);

    std::map<std::string, int> spots;
    for (const std::string& line : lines_of(orvel({"decode", OPERA, "--json", first, second}).out)) {
        ++spots[JsonValue::parse(line).at("file")];
    }
    const auto sent = [](const char* name) {
        const auto truth = truth_of(name);
        return std::count_if(truth.begin(), truth.end(),
                             [](const JsonValue& station) { return station.at("protocol") == "OPERA 05"; });
    };
    EXPECT_EQ(spots[first], sent("audio-crowded"));
    EXPECT_EQ(spots[second], sent("audio-edges"));
}

// The callsigns of a decode with --json, and their times.
std::map<std::string, double> decoded(const Arguments& arguments) {
    Arguments all = {"decode", OPERA, "--json"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    const ProcessResult result = orvel(all);
    EXPECT_EQ(result.status, 0) << result.err;
    std::map<std::string, double> calls;
    for (const std::string& line : lines_of(result.out)) {
        const auto object = JsonValue::parse(line);
        calls.emplace(object.at("call"), object.at("freq_hz"));
    }
    return calls;
}

TEST_F(Command, CenterAndSearchLimitTheBand) {
    const auto calls = decoded({"--center", "1400", "--search", "60", shipped("audio-crowded.wav")});
    EXPECT_TRUE(calls.contains("DL1QXA"));  // at 1380 Hz
    EXPECT_TRUE(calls.contains("G4QZB"));   // at 1437.5 Hz
    EXPECT_EQ(calls.size(), 2U);
}

TEST_F(Command, CenterMayBeNegativeInIq) {
    const auto calls = decoded({"--iq", "--center", "-120", "--search", "30", shipped("iq-slow.wav")});
    EXPECT_EQ(calls.size(), 1U);
    ASSERT_TRUE(calls.contains("OK2QJB"));
    EXPECT_NEAR(calls.at("OK2QJB"), -120, 0.5);
}

TEST_F(Command, KnownOnlyAcceptsTheKnownCallsigns) {
    const std::string file = shipped("audio-crowded.wav");
    EXPECT_EQ(decoded({file}).size(), 5U);
    const auto calls = decoded({"--known-only", "--known", "g4qzb, K2QRX,K9ZZZ", file});
    EXPECT_EQ(calls.size(), 2U);
    EXPECT_TRUE(calls.contains("G4QZB"));
    EXPECT_TRUE(calls.contains("K2QRX"));

    const std::string list = write("known.txt", "# heard lately\nDL1QXA OH3QKJ  # two on a line\r\n\nK9ZZZ\n");
    const auto from_file = decoded({"--known-only", "--known-file", list, file});
    EXPECT_EQ(from_file.size(), 2U);
    EXPECT_TRUE(from_file.contains("DL1QXA"));
    EXPECT_TRUE(from_file.contains("OH3QKJ"));

    EXPECT_EQ(decoded({"--known-only", "--known", "G4QZB", "--known-file", list, file}).size(), 3U);
}

// A recording with one station of each protocol, 80 Hz apart. (One callsign is reported once at a time, whatever the
// protocol.)
std::string three_protocols() {
    Scene scene;
    scene.rate = 8000;
    scene.seconds = 50;
    scene.seed = 11;
    double frequency = 1420;
    for (const auto& [protocol, call] :
         {std::pair(OVL_OPERA, "G4QZB"), std::pair(OVL_ORVEL_S, "K2QRX"), std::pair(OVL_ORVEL_L, "DL1QXA")}) {
        Station station;
        const int32_t room = ovl_frame_chips(protocol);
        station.chips.resize(static_cast<std::size_t>(room));
        EXPECT_EQ(ovl_encode(protocol, call, "JO31", station.chips.data(), room), room);
        station.t_start = 2;
        station.freq_hz = frequency;
        station.snr_db = -14;
        scene.stations.push_back(station);
        frequency += 80;
    }
    std::string samples;
    for (const double sample : render_real(scene)) append(samples, static_cast<int16_t>(std::lround(32768 * sample)));
    return wave_file(1, 1, 8000, 16, samples);
}

// Protocol, callsign and locator of what a decode finds.
std::vector<std::string> protocols_found(const Arguments& arguments) {
    Arguments all = {"decode", "--json"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    std::vector<std::string> protocols;
    for (const std::string& line : lines_of(orvel(all).out)) {
        const auto object = JsonValue::parse(line);
        protocols.push_back(object.at("protocol").text() + " " + object.at("call").text() +
                            object.at("locator").text());
    }
    std::sort(protocols.begin(), protocols.end());
    return protocols;
}

TEST_F(Command, ProtocolsAreChosenByName) {
    const std::string file = write("three.wav", three_protocols());
    const std::vector<std::string> all = {"OPERA 05 G4QZB", "ORVEL L DL1QXAJO31", "ORVEL S K2QRX"};
    EXPECT_EQ(protocols_found({file}), all);
    EXPECT_EQ(protocols_found({"--protocols", "all", file}), all);
    EXPECT_EQ(protocols_found({"--protocols", "opera,orvel-s,orvel-l", file}), all);
    EXPECT_EQ(protocols_found({"--protocols", "opera", file}), std::vector{all[0]});
    EXPECT_EQ(protocols_found({"--protocols", "orvel-s", file}), std::vector{all[2]});
    EXPECT_EQ(protocols_found({"--protocols", "orvel-l", file}), std::vector{all[1]});

    const std::string table = orvel({"decode", "--protocols", "orvel-l", file}).out;
    EXPECT_TRUE(first_match(table, R"(ORVEL L +DL1QXA +JO31\n)")) << table;
}

// ---- orvel encode ---------------------------------------------------------------------------------------------------

std::string chips_as_text(uint32_t protocol, const char* call, const char* locator) {
    std::vector<uint8_t> chips(static_cast<std::size_t>(ovl_frame_chips(protocol)));
    EXPECT_GT(ovl_encode(protocol, call, locator, chips.data(), static_cast<int32_t>(chips.size())), 0);
    std::string text;
    for (const uint8_t chip : chips) text += static_cast<char>('0' + chip);
    return text;
}

TEST_F(Command, EncodePrintsTheChipsOfAFrame) {
    EXPECT_EQ(orvel({"encode", "G4QZB"}).out, chips_as_text(OVL_OPERA, "G4QZB", nullptr) + "\n");
    EXPECT_EQ(orvel({"encode", "g4qzb", "--protocol", "orvel-s"}).out,
              chips_as_text(OVL_ORVEL_S, "G4QZB", nullptr) + "\n");
    const std::string long_frame = chips_as_text(OVL_ORVEL_L, "G4QZB", "IO91");
    EXPECT_EQ(orvel({"encode", "G4QZB", "io91"}).out, long_frame + "\n");

    const auto object = JsonValue::parse(orvel({"encode", "G4QZB", "IO91", "--json"}).out);
    EXPECT_EQ(object.at("protocol"), "ORVEL L");
    EXPECT_EQ(object.at("call"), "G4QZB");
    EXPECT_EQ(object.at("locator"), "IO91");
    EXPECT_EQ(object.at("chip_seconds"), 0.128);
    EXPECT_EQ(object.at("chips"), long_frame);
}

TEST_F(Command, EncodeDrawsAFrameWithinEightyColumns) {
    ASSERT_EQ(setenv("LC_ALL", "C", 1), 0);
    const auto lines = lines_of(orvel({"encode", "G4QZB", "--draw"}).out);
    ASSERT_EQ(unsetenv("LC_ALL"), 0);
    ASSERT_EQ(lines.size(), 1U + 4U);
    EXPECT_EQ(lines[0], "OPERA 05  G4QZB: 239 chips of 0.128 s, 30.592 s, 120 on");
    std::string drawn;
    for (std::size_t k = 1; k < lines.size(); ++k) {
        EXPECT_LE(lines[k].size(), 80U);
        EXPECT_NEAR(std::stod(lines[k]), 8.192 * static_cast<double>(k - 1), 1e-9);
        drawn += lines[k].substr(lines[k].find('s') + 3);
    }
    std::replace(drawn.begin(), drawn.end(), '#', '1');
    std::replace(drawn.begin(), drawn.end(), '.', '0');
    EXPECT_EQ(drawn, chips_as_text(OVL_OPERA, "G4QZB", nullptr));
}

TEST_F(Command, EncodeRefusesWhatNoFrameCarries) {
    for (const Arguments& arguments : std::vector<Arguments>{{"encode"},
                                                             {"encode", ""},
                                                             {"encode", "G4/QZB"},
                                                             {"encode", "G4QZB", "ZZ99"},
                                                             {"encode", "G4QZB", "IO9"},
                                                             {"encode", "G4QZB", "--protocol", "orvel-l"},
                                                             {"encode", "G4QZB", "IO91", "--protocol", "opera"},
                                                             {"encode", "G4QZB", "--protocol", "morse"},
                                                             {"encode", "G4QZB", "--draw", "--json"}}) {
        const ProcessResult result = orvel(arguments);
        EXPECT_EQ(result.status, 2) << result.err;
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(lines_of(result.err).size(), 1U) << result.err;
    }
}

// ---- More of orvel decode -------------------------------------------------------------------------------------------

TEST_F(Command, KnownCallsignsAreFoundBelowTheOrdinaryThreshold) {
    Scene scene;
    scene.rate = 8000;
    scene.seconds = 40;
    scene.seed = 11;
    scene.stations.push_back({opera_chips("G4QZB"), 3, 1500, 0, -25, 0});
    std::string samples;
    for (const double sample : render_real(scene)) append(samples, static_cast<int16_t>(std::lround(32768 * sample)));
    const std::string file = write("weak.wav", wave_file(1, 1, 8000, 16, samples));
    EXPECT_EQ(orvel({"decode", "--json", file}).out, "");
    const ProcessResult result = orvel({"decode", "--json", "--known", "K2QRX,G4QZB", file});
    ASSERT_EQ(lines_of(result.out).size(), 1U) << result.out;
    const auto object = JsonValue::parse(result.out);
    EXPECT_EQ(object.at("call"), "G4QZB");
    EXPECT_EQ(object.at("deep"), true);
}

// ---- orvel decode --coherent ----------------------------------------------------------------------------------------

class CoherentCommand : public Command {
  protected:
    // A recording of simulated stations.
    std::string simulated(const Arguments& stations) const {
        Arguments all = {"simulate", "-o", path("weak.wav"), "--rate=12000", "--seconds=40"};
        all.insert(all.end(), stations.begin(), stations.end());
        EXPECT_EQ(orvel(all).status, 0);
        return path("weak.wav");
    }
};

const std::string ORVEL_S = "--protocols=orvel-s";
const std::string WEAK_STATION = "orvel-s=K2QRX,snr=-29,start=4.5,freq=1520,drift=0.01";

TEST_F(CoherentCommand, FindsWhatTheOrdinarySearchCannot) {
    const std::string file = simulated({WEAK_STATION});
    EXPECT_EQ(orvel({"decode", ORVEL_S, "--json", file}).out, "");
    const ProcessResult result = orvel({"decode", ORVEL_S, "--json", "--coherent", file});
    EXPECT_EQ(result.status, 0) << result.err;
    ASSERT_EQ(lines_of(result.out).size(), 1u) << result.out;
    const auto object = JsonValue::parse(result.out);
    EXPECT_EQ(object.names(), (Arguments{"file", "t_start", "t_end", "freq_hz", "drift_hz_s", "snr_db", "protocol",
                                         "call", "locator", "deep", "method", "odds"}));
    EXPECT_EQ(object.at("call"), "K2QRX");
    EXPECT_EQ(object.at("protocol"), "ORVEL S");
    EXPECT_EQ(object.at("method"), "coherent");
    EXPECT_EQ(object.at("deep"), false);
    EXPECT_GT(object.at("odds").number(), 0);
    EXPECT_NEAR(object.at("t_start"), 4.5, 0.05);
    EXPECT_NEAR(object.at("freq_hz"), 1520, 0.2);
    EXPECT_NEAR(object.at("drift_hz_s"), 0.01, 0.006);
    EXPECT_NEAR(object.at("snr_db"), -29, 4);

    const auto rows = lines_of(orvel({"decode", ORVEL_S, "--coherent", file}).out);
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_TRUE(rows[0].ends_with("  locator  method")) << rows[0];
    EXPECT_TRUE(rows[1].ends_with("  K2QRX     -        coherent")) << rows[1];
}

TEST_F(CoherentCommand, LeavesWhatTheOrdinarySearchFinds) {
    const std::string file = shipped("audio-modes.wav");
    const auto ordinary = lines_of(orvel({"decode", ORVEL_S, "--json", file}).out);
    ASSERT_EQ(ordinary.size(), 2u);
    const auto all = lines_of(orvel({"decode", ORVEL_S, "--json", "--coherent", file}).out);
    ASSERT_EQ(all.size(), ordinary.size());
    for (std::size_t k = 0; k < all.size(); k++) {
        const std::string same = ordinary[k].substr(0, ordinary[k].size() - 1);
        EXPECT_EQ(all[k], same + R"(,"method":"standard","odds":null})");
    }
}

// A weak station 10 Hz beside a strong one; elsewhere in the band nothing is keyed.
TEST_F(CoherentCommand, OfAWideBandSearchesAroundWhatIsKeyed) {
    const std::string file =
        simulated({"--iq", "opera=G4QZB,snr=-15,start=3,freq=-4010", "orvel-s=K2QRX,snr=-26.5,start=4.5,freq=-4000",
                   "orvel-s=DL1QXA,snr=-26.5,start=4.5,freq=3000"});
    std::map<std::string, std::string> methods;
    for (const std::string& line : lines_of(orvel({"decode", "--json", "--iq", "--wide", "--coherent", file}).out)) {
        const auto object = JsonValue::parse(line);
        methods[object.at("call")] = std::string(object.at("method"));
        EXPECT_NEAR(object.at("freq_hz"), object.at("call") == "K2QRX" ? -4000 : -4010, 0.3);
    }
    EXPECT_EQ(methods, (std::map<std::string, std::string>{{"G4QZB", "standard"}, {"K2QRX", "coherent"}}));
}

TEST_F(CoherentCommand, DrawsWhatItFinds) {
    const std::string file = simulated({WEAK_STATION});
    Arguments plot = {"plot", ORVEL_S, "--search=60", "--chips=K2QRX", "-o", path("weak.svg"), file};
    EXPECT_TRUE(one_line_with(orvel(plot), {"no frame found"}));
    plot.emplace_back("--coherent");
    EXPECT_EQ(orvel(plot).status, 0);
    EXPECT_TRUE(std::filesystem::exists(path("weak.svg")));
}

// ---- Still more of orvel decode -------------------------------------------------------------------------------------

TEST_F(Command, VerbosePrintsTheDiagnosticsToStandardError) {
    const std::string file = shipped("audio-crowded.wav");
    const ProcessResult result = orvel({"decode", OPERA, "-v", file});
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(result.err.starts_with("Baseband: 500 Hz around 1500.00 Hz")) << result.err;
    EXPECT_NE(result.err.find("Classic score map: "), std::string::npos) << result.err;
    EXPECT_EQ(result.out, orvel({"decode", OPERA, file}).out);
    EXPECT_EQ(orvel({"decode", OPERA, "--verbose", file}).err, result.err);
}

TEST_F(Command, ARecordingWithoutStationsHasNoSpots) {
    std::string samples;
    Random random(5);
    for (int k = 0; k < 8000 * 40; ++k) append(samples, static_cast<int16_t>(1000 * random.normal()));
    const std::string file = write("noise.wav", wave_file(1, 1, 8000, 16, samples));
    EXPECT_EQ(lines_of(orvel({"decode", file}).out).size(), 1U);
    EXPECT_EQ(orvel({"decode", "--json", file}).out, "");
    EXPECT_EQ(orvel({"decode", file}).status, 0);
}

TEST_F(Command, FileNamesThatAreNoUtf8MakeValidJson) {
    const std::string file = path("recording-\xff.wav");
    std::filesystem::copy_file(shipped("audio-crowded.wav"), file);
    const ProcessResult result = orvel({"decode", "--json", file});
    EXPECT_EQ(result.status, 0);
    for (const std::string& line : lines_of(result.out)) EXPECT_TRUE(JsonValue::accept(line)) << line;
    EXPECT_EQ(lines_of(result.out).size(), truth_of("audio-crowded").size());
}

TEST_F(Command, SamplesThatAreNoNumbersCountAsSilence) {
    std::string samples;
    for (int k = 0; k < 8000; ++k) append(samples, k == 4001 ? std::numeric_limits<float>::quiet_NaN() : 0.1F);
    const ProcessResult result =
        orvel({"decode", "--iq", "--json", write("nan.wav", wave_file(3, 2, 4000, 32, samples))});
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(one_line_with(result, {"nan.wav", "not finite numbers; they count as silence"}));
}

// ---- Files that cannot be used --------------------------------------------------------------------------------------

TEST_F(Command, AMissingFileIsOneLineAndTheOthersAreDecoded) {
    const std::string good = shipped("audio-crowded.wav");
    const ProcessResult result = orvel({"decode", OPERA, "--json", "no-such.wav", good});
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(one_line_with(result, {"cannot read 'no-such.wav'", "No such file"}));
    EXPECT_EQ(result.out, orvel({"decode", OPERA, "--json", good}).out);

    const ProcessResult reversed = orvel({"decode", OPERA, "--json", good, "no-such.wav"});
    EXPECT_EQ(reversed.status, 1);
    EXPECT_EQ(reversed.out, result.out);
}

TEST_F(Command, EveryBrokenFileIsOneLineThatNamesItAndTheReason) {
    const std::string good = shipped("audio-crowded.wav");
    const std::string second(16000, '\0');
    const std::map<std::string, std::string> reasons = {
        {write("empty.wav", ""), "not a valid RIFF/WAVE file"},
        {write("text.wav", "This is no recording at all.\n"), "not a valid RIFF/WAVE file"},
        {write("header.wav", wave_file(1, 1, 8000, 16, "").substr(0, 36)), "missing fmt or data chunk"},
        {write("silent.wav", wave_file(1, 1, 8000, 16, "")), "no usable audio data"},
        {write("no-channels.wav", wave_file(1, 0, 8000, 16, second)), "invalid channel count"},
        {path(""), "directory"},
        {write("short.wav", wave_file(1, 1, 8000, 16, second.substr(0, 200))), "too short"},
        {write("no-rate.wav", wave_file(1, 1, 0, 16, second)), "sample rate of 0 Hz is not served"},
        {write("huge-rate.wav", wave_file(1, 1, 4294967295U, 16, second)), "4294967295 Hz is not served"},
    };
    for (const auto& [file, reason] : reasons) {
        const ProcessResult result = orvel({"decode", OPERA, "--json", file, good});
        EXPECT_EQ(result.status, 1) << file;
        EXPECT_TRUE(one_line_with(result, {"'" + file + "'", reason}));
        EXPECT_EQ(lines_of(result.out).size(), truth_of("audio-crowded").size()) << file;
    }
}

TEST_F(Command, BrokenIqIsOneLineThatNamesTheFileAndTheReason) {
    const std::map<std::string, std::string> reasons = {
        {shipped("audio-edges.wav"), "I/Q needs two channels, it has 1"},
        {write("empty.wav", ""), "not a valid RIFF/RF64 WAVE file"},
    };
    for (const auto& [file, reason] : reasons) {
        const ProcessResult result = orvel({"decode", "--iq", file});
        EXPECT_EQ(result.status, 1) << file;
        EXPECT_TRUE(one_line_with(result, {"'" + file + "'", reason}));
        EXPECT_EQ(result.out, "");
    }
}

TEST_F(Command, ATruncatedFileIsDecodedAsFarAsItGoesWithAWarning) {
    std::ifstream whole(shipped("audio-crowded.wav"), std::ios::binary);
    std::stringstream bytes;
    bytes << whole.rdbuf();
    const std::string file = write("cut.wav", bytes.str().substr(0, 44 + 2 * 8000 * 34));
    const ProcessResult result = orvel({"decode", "--json", file});
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(one_line_with(result, {"'" + file + "' ends before its header says"}));
    EXPECT_NE(result.out.find("DL1QXA"), std::string::npos);
}

TEST_F(Command, ASearchWiderThanTheRecordingEndsAtItsBand) {
    const std::string file = shipped("audio-modes.wav");
    const auto within = [&](const char* search) {
        std::map<std::string, double> snrs;
        for (const std::string& line : lines_of(orvel({"decode", "--json", "--search", search, file}).out)) {
            const auto object = JsonValue::parse(line);
            snrs.emplace(object.at("call"), object.at("snr_db"));
        }
        return snrs;
    };
    const auto narrow = within("200");
    EXPECT_EQ(narrow.size(), 4u);
    for (const char* search : {"2000", "1e12"}) {
        const auto wide = within(search);
        ASSERT_EQ(wide.size(), narrow.size()) << search;
        for (const auto& [call, snr] : wide) EXPECT_NEAR(snr, narrow.at(call), 1) << search << " " << call;
    }
}

TEST_F(Command, ASearchBesideTheRecordingIsOneLine) {
    const std::string file = shipped("audio-crowded.wav");
    for (const Arguments& search :
         {Arguments{"--center", "-150"}, {"--center", "4100"}, {"--wide", "--band", "5000:6000"}}) {
        Arguments all = {"decode", file};
        all.insert(all.end(), search.begin(), search.end());
        const ProcessResult result = orvel(all);
        EXPECT_EQ(result.status, 1);
        EXPECT_TRUE(one_line_with(result, {"'" + file + "' holds 0 to 4000 Hz, and nothing at"}));
    }
    EXPECT_EQ(orvel({"scan", "--band", "5000:6000", file}).status, 1);
}

TEST_F(Command, CallsignsThatAFrameWouldNotCarryAsTypedAreRefused) {
    EXPECT_TRUE(usage_error_with({"encode", "K2 QRX"}, {"'K2 QRX': a callsign holds no blank"}));
    EXPECT_TRUE(usage_error_with({"encode", "3DA0RU"}, {"'3DA0RU': a prefix of that form does not fit"}));
    EXPECT_TRUE(usage_error_with({"render", "-o", path("x.wav"), "opera=K2Q RX"}, {"a callsign holds no blank"}));
    EXPECT_TRUE(usage_error_with({"simulate", "-o", path("x.wav"), "opera=K2Q RX"}, {"a callsign holds no blank"}));
    EXPECT_TRUE(usage_error_with({"decode", "--known", "DL1QXA/P", "x.wav"}, {"--known", "letters and digits only"}));
}

// Such a frame goes on the air, and nobody's decoder shows it.
TEST_F(Command, CallsignsThatDecodersDoNotReportAreWarnedOf) {
    for (const char* call : {"K2", "A1", "123ABC", "00AAA"}) {
        const ProcessResult result = orvel({"encode", call});
        EXPECT_EQ(result.status, 0) << call;
        EXPECT_NE(result.err.find("'" + std::string(call) + "' is not of a form that administrations issue"),
                  std::string::npos)
            << call;
    }
    EXPECT_EQ(orvel({"encode", "K2QRX"}).err, "");
}

// ---- Usage ----------------------------------------------------------------------------------------------------------

TEST_F(Command, AMistypedSubcommandIsToldTheNearest) {
    EXPECT_TRUE(usage_error_with({"decod", "x.wav"}, {"'decod' is not a subcommand; did you mean 'decode'?"}));
    EXPECT_TRUE(usage_error_with({"simulation"}, {"'simulation' is not a subcommand"}));
    EXPECT_TRUE(usage_error_with({"xyz"}, {"orvel --help lists them"}));
    EXPECT_TRUE(usage_error_with({"help", "lisen"}, {"did you mean 'listen'?"}));
}

// A program of its own takes the command's place, with the words that it was given.
TEST_F(Command, StationsAreRunByTheirProgram) {
    namespace fs = std::filesystem;
    const fs::path alone = fs::path(path("alone"));
    fs::create_directory(alone);
    fs::copy_file(ORVEL_COMMAND, alone / "orvel");
    const auto run = [&](Arguments words) {
        words.insert(words.begin(), (alone / "orvel").string());
        return run_process(words);
    };
    EXPECT_EQ(run({"spots"}).err, "orvel: orvel-station is not installed; it comes in a package of this name\n");
    EXPECT_EQ(run({"spots"}).status, 1);
    EXPECT_EQ(run({"station"}).status, 2);
    std::ofstream(alone / "orvel-station") << "#!/bin/sh\nprintf '%s|' \"$@\"\nexit 7\n";
    fs::permissions(alone / "orvel-station", fs::perms::owner_all);
    EXPECT_EQ(run({"station", "run", "a b.toml", "--help"}).out, "run|a b.toml|--help|");
    EXPECT_EQ(run({"station", "check", "x"}).status, 7);
    EXPECT_EQ(run({"spots", "--newest", "3", "--json", "--call=K2*", "--store", "x y"}).out,
              "spots|--store=x y|--call=K2*|--newest=3|--json|");
    EXPECT_EQ(run({"spots", "--jsn"}).status, 2);

    EXPECT_EQ(run({"collect", "x"}).err,
              "orvel: orvel-collector is not installed; it comes in a package of this name\n");
    std::ofstream(alone / "orvel-collector") << "#!/bin/sh\nprintf '%s|' \"$@\"\nexit 7\n";
    fs::permissions(alone / "orvel-collector", fs::perms::owner_all);
    EXPECT_EQ(run({"collect", "a b.toml"}).out, "collect|--|a b.toml|");
    EXPECT_EQ(run({"collect", "--check", "x"}).out, "collect|--check|--|x|");
    EXPECT_EQ(run({"collect"}).status, 2);
}

TEST_F(Command, HelpAndVersionAreAnsweredInEveryForm) {
    EXPECT_EQ(orvel({"help"}).out, orvel({"--help"}).out);
    EXPECT_EQ(orvel({"help", "decode"}).out, orvel({"decode", "--help"}).out);
    EXPECT_EQ(orvel({"decode", "--version"}).out, "orvel 1.6.1\n");
    const ProcessResult file = orvel({"decode", "--", "-no-such.wav"});
    EXPECT_EQ(file.status, 1);
    EXPECT_TRUE(one_line_with(file, {"'-no-such.wav'"}));
}

TEST_F(Command, AStartMakesTheFieldsThoseOfListening) {
    const std::string file = path("rx_20260301_120000Z.wav");
    std::filesystem::copy_file(shipped("audio-modes.wav"), file);
    for (const char* start : {"2026-03-01T12:00:00Z", "name"}) {
        const auto lines = lines_of(orvel({"decode", OPERA, "--json", "--start", start, file}).out);
        ASSERT_EQ(lines.size(), 1u) << start;
        EXPECT_EQ(JsonValue::parse(lines[0]).at("utc_start"), "2026-03-01T12:00:04.85Z");
        const auto rows = lines_of(orvel({"decode", OPERA, "--start", start, file}).out);
        ASSERT_EQ(rows.size(), 2u);
        EXPECT_EQ(rows[1].rfind("2026-03-01T12:00:04.9Z  ", 0), 0u) << rows[1];
        const auto csv = lines_of(orvel({"decode", OPERA, "--csv", "--start", start, file, file}).out);
        ASSERT_EQ(csv.size(), 3u);
        EXPECT_EQ(csv[0], "file,utc_start,utc_end,t_start,t_end,freq_hz,drift_hz_s,snr_db,protocol,call,locator,deep");
        EXPECT_EQ(csv[1], csv[2]);
    }
    EXPECT_TRUE(usage_error_with({"decode", "--start", "noon", file}, {"--start", "'noon'"}));
    EXPECT_EQ(orvel({"decode", "--start", "name", shipped("audio-modes.wav")}).status, 1);
}

TEST_F(Command, HelpAndVersionSucceed) {
    EXPECT_EQ(orvel({"--version"}).out, "orvel 1.6.1\n");
    EXPECT_EQ(orvel({"--version"}).status, 0);
    EXPECT_EQ(orvel({"--help"}).status, 0);
    EXPECT_NE(orvel({"--help"}).out.find("decode"), std::string::npos);
    const ProcessResult help = orvel({"decode", "--help"});
    EXPECT_EQ(help.status, 0);
    for (const char* option : {"--iq", "--center", "--search", "--spread", "--protocols", "--known", "--known-file",
                               "--known-only", "--json", "--verbose"}) {
        EXPECT_NE(help.out.find(option), std::string::npos) << option;
    }
}

TEST_F(Command, NoArgumentsShowTheHelp) {
    const ProcessResult result = orvel({});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, orvel({"--help"}).out);
}

TEST_F(Command, WrongUsageIsOneLineAndStatusTwo) {
    const std::string file = shipped("audio-crowded.wav");
    EXPECT_TRUE(usage_error_with({"decode"}, {"FILE"}));
    EXPECT_TRUE(usage_error_with({"--json"}, {}));
    EXPECT_TRUE(usage_error_with({"dance"}, {}));
    EXPECT_TRUE(usage_error_with({"decode", "--no-such-option", file}, {"--no-such-option"}));
    EXPECT_TRUE(usage_error_with({"decode", "--protocols", "opera,morse", file}, {"--protocols", "'morse'"}));
    EXPECT_TRUE(usage_error_with({"decode", "--protocols", ",", file}, {"--protocols"}));
    EXPECT_EQ(orvel({"decode", "--protocols", "ORVEL S, opera 05", file}).out,
              orvel({"decode", "--protocols", "orvel-s,opera", file}).out);
    EXPECT_TRUE(usage_error_with({"decode", file, "--center"}, {"--center"}));
}

TEST_F(Command, NumbersMustBeFiniteAndWidthsNotNegative) {
    const std::string file = shipped("audio-crowded.wav");
    for (const char* option : {"--center", "--search", "--spread"}) {
        for (const char* value : {"nan", "inf", "-inf", "1e999", "12x", "", "0x10", "1,5", " 7"}) {
            EXPECT_TRUE(usage_error_with({"decode", option, value, file}, {option})) << option << " " << value;
        }
    }
    for (const char* option : {"--search", "--spread"}) {
        EXPECT_TRUE(usage_error_with({"decode", option, "-1", file}, {option, "'-1'"}));
        EXPECT_EQ(orvel({"decode", OPERA, option, "0", file}).status, 0) << option;
    }
    EXPECT_EQ(orvel({"decode", OPERA, "--center", "1.5e2", file}).status, 0);
}

TEST_F(Command, KnownCallsignsAreChecked) {
    const std::string file = shipped("audio-crowded.wav");
    EXPECT_TRUE(usage_error_with({"decode", "--known-only", file}, {"--known-only", "--known"}));
    EXPECT_TRUE(usage_error_with({"decode", "--known-only", "--known", " , ", file}, {"--known-only"}));
    EXPECT_TRUE(usage_error_with({"decode", "--known", "DL1QXA,DL1QXA/P", file}, {"--known", "'DL1QXA/P'"}));
    EXPECT_TRUE(usage_error_with({"decode", "--known-file", "no-such.txt", file}, {"--known-file", "'no-such.txt'"}));
    EXPECT_TRUE(usage_error_with({"decode", "--known-file", path(""), file}, {"--known-file"}));
    EXPECT_TRUE(usage_error_with({"decode", "--known-file", write("bad.txt", "K1AB\nhello\n"), file},
                                 {"--known-file", "'hello'"}));

    std::string calls;
    for (char a = 'A'; a <= 'P'; ++a) {
        for (char b = 'A'; b <= 'P'; ++b) calls += std::string("K1") + a + b + ",";
    }
    EXPECT_EQ(orvel({"decode", OPERA, "--known", calls, file}).status, 0);
    EXPECT_TRUE(usage_error_with({"decode", "--known", calls + "K1ZZ", file}, {"too many known callsigns (max 256)"}));
}

// ---- Surroundings ---------------------------------------------------------------------------------------------------

TEST_F(Command, OutputThatCannotBeWrittenIsAFailure) {
    const std::string file = shipped("audio-crowded.wav");
    ProcessInput closed;
    closed.stdout_closed_pipe = true;
    ProcessInput full;
    full.stdout_file = "/dev/full";
    for (const ProcessInput& input : {closed, full}) {
        for (const Arguments& arguments : {Arguments{"decode", OPERA, file},
                                           {"decode", OPERA, "--json", file, file},
                                           {"--help"},
                                           {"--version"},
                                           {"decode", "--help"}}) {
            const ProcessResult result = orvel(arguments, input);
            EXPECT_EQ(result.status, 1);
            EXPECT_TRUE(one_line_with(result, {"cannot write"}));
        }
    }
}

TEST_F(Command, NumbersHaveADecimalPointUnderEveryLocale) {
    const ProcessInput comma = decimal_comma();
    const std::string file = shipped("audio-crowded.wav");
    const Arguments table = {"decode", OPERA, "--center", "1500.5", file};
    const Arguments json = {"decode", OPERA, "--json", "--center", "1500.5", file};
    EXPECT_EQ(orvel(table, comma).out, orvel(table).out);
    EXPECT_EQ(orvel(json, comma).out, orvel(json).out);
    EXPECT_NE(orvel(table, comma).out.find("DL1QXA"), std::string::npos);
}

// ---- The shared library from C -------------------------------------------------------------------------------------

TEST_F(Command, AProgramInCDecodesThroughTheSharedLibrary) {
    std::ifstream whole(shipped("audio-crowded.wav"), std::ios::binary);
    std::stringstream bytes;
    bytes << whole.rdbuf();
    ProcessInput input;
    input.stdin_file = write("samples.raw", bytes.str().substr(44));
    const ProcessResult result = run_process({ORVEL_C_EXAMPLE, "8000"}, input);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(lines_of(result.out).size(), truth_of("audio-crowded").size());
    for (const auto& station : truth_of("audio-crowded")) {
        EXPECT_NE(result.out.find(station.at("call").text()), std::string::npos) << station;
    }

    const ProcessResult nothing = run_process({ORVEL_C_EXAMPLE, "8000"});
    EXPECT_EQ(nothing.status, 1);
    EXPECT_EQ(nothing.err, "decode_raw: invalid argument\n");
}

}  // namespace

// Archives decoded in parts: whatever the parts, what is merged is what one machine prints.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <limits>
#include <numeric>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <variant>
#include <vector>

#include "archive/merge.h"
#include "archive/shard.h"
#include "archive/shard_lines.h"
#include "base/error.h"
#include "command.h"
#include "liborvel.h"
#include "process.h"
#include "recordings/decode_recording.h"
#include "sources/url_file.h"

namespace {

constexpr double INFINITE = std::numeric_limits<double>::infinity();
constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();

// ---- Which part -----------------------------------------------------------------------------------------------------

TEST(Shards, AreNamedByTwoNumbers) {
    EXPECT_EQ(parse_shard("2/7"), (Shard{2, 7}));
    EXPECT_EQ(parse_shard("1/1"), (Shard{1, 1}));
    EXPECT_EQ(name_of({2, 7}), "2/7");
    for (const char* const text : {"", "/", "1", "1/", "/2", "0/3", "4/3", "-1/3", "1/3x", " 1/3", "1/9999999999"}) {
        EXPECT_FALSE(parse_shard(text)) << text;
    }
}

TEST(Shards, HoldEachBlockOnceAndEndTogether) {
    std::mt19937 random(1);
    for (int32_t round = 0; round < 200; round++) {
        std::vector<uint64_t> weights(1 + random() % 20);
        for (uint64_t& weight : weights) weight = 1 + random() % (random() % 2 == 0 ? 10 : 1000000);
        const auto shards = static_cast<int32_t>(1 + random() % 9);
        const std::size_t count = 1 + random() % 40;  // blocks of each recording
        const Division division(weights, shards);
        const double total = std::accumulate(weights.begin(), weights.end(), 0.0);
        const double heaviest = static_cast<double>(*std::ranges::max_element(weights)) / static_cast<double>(count);
        std::vector<std::vector<int32_t>> holders(weights.size(), std::vector<int32_t>(count));
        for (int32_t shard = 1; shard <= shards; shard++) {
            double held = 0;
            for (std::size_t k = 0; k < weights.size(); k++) {
                const auto [first, end] = division.blocks(shard, k, count);
                EXPECT_TRUE(first == end || division.reaches(shard, k));
                for (std::size_t block = first; block < end; block++) holders[k][block]++;
                held += static_cast<double>((end - first) * weights[k]) / static_cast<double>(count);
            }
            EXPECT_NEAR(held, total / shards, 1.001 * heaviest);
        }
        for (const auto& recording : holders) EXPECT_EQ(recording, std::vector<int32_t>(count, 1));
    }
}

// Of what headers tell nothing, bytes are as good as anything.
TEST(Shards, WeighWorkRatherThanBytes) {
    DecodingOptions wide;
    wide.search.wide = true;
    const RecordingSize audio = {.bytes = 86'400'000, .rate = 12000, .seconds = 3600, .iq = false};
    const RecordingSize iq = {.bytes = 2'764'800'000, .rate = 192000, .seconds = 3600, .iq = true};
    RecordingSize packed = audio;
    packed.bytes /= 2;
    for (const DecodingOptions& options : {DecodingOptions(), wide}) {
        const double work = expected_work_s(audio, options);
        EXPECT_GT(work, 5);
        EXPECT_LT(work, 200);
        EXPECT_EQ(expected_work_s(packed, options), work);
        EXPECT_GT(expected_work_s(iq, options), work);
        EXPECT_LT(expected_work_s(iq, options), 8 * work) << "of 32 times the bytes";
        for (RecordingSize size : {audio, iq}) {
            const double one = expected_work_s(size, options);
            size.seconds *= 3;
            EXPECT_NEAR(expected_work_s(size, options), 3 * one, 1e-9 * one);
        }
        EXPECT_EQ(expected_work_s({.bytes = audio.bytes}, options), work);
        EXPECT_EQ(expected_work_s({}, options), 0);
        EXPECT_GT(expected_work_s({.rate = UINT32_MAX, .seconds = 4e7, .iq = true}, options), 0);
    }
    EXPECT_GT(expected_work_s(audio, wide), expected_work_s(audio, {}));
}

// ---- Lines ----------------------------------------------------------------------------------------------------------

Found some_find() {
    Found found{};
    std::string("K2QRX").copy(found.call, sizeof found.call - 1);
    std::string("JO62").copy(found.locator, sizeof found.locator - 1);
    found.t = 0.1 + 0.2;
    found.freq = -1e-300;
    found.snr = -99;
    found.drift = -0.0;
    found.z = INFINITE;
    found.score = -INFINITE;
    found.gap = NOT_A_NUMBER;
    found.contrast = 1.0 / 3;
    found.off_excess = std::nextafter(1.0, 2.0);
    found.rank = -1;
    found.shift = -3;
    found.chips_ok = 238;
    found.deep = OVL_DEEP;
    found.protocol = OVL_ORVEL_L;
    return found;
}

template <class Line>
Line reread(const Line& line) {
    const auto read = parse_shard_line(shard_line(line));
    EXPECT_TRUE(read && std::holds_alternative<Line>(*read)) << shard_line(line);
    return read ? std::get<Line>(*read) : Line{};
}

TEST(ShardLines, KeepEveryBitOfAFind) {
    std::mt19937_64 random(2);
    std::vector<Found> sent(100, some_find());
    for (std::size_t k = 1; k < sent.size(); k++) {
        sent[k].freq = std::uniform_real_distribution(-1e6, 1e6)(random);
        sent[k].odds = std::bit_cast<double>(random() >> 2);
    }
    const auto read = reread(BlockFinds{3, 4, {.spots = sent, .problem = "", .until_s = 0.7}});
    EXPECT_EQ(read.recording, 3u);
    EXPECT_EQ(read.block, 4u);
    EXPECT_EQ(read.decoded.until_s, 0.7);
    ASSERT_EQ(read.decoded.spots->size(), sent.size());
    const auto same = [](double a, double b) {
        return std::bit_cast<uint64_t>(a) == std::bit_cast<uint64_t>(b) || (std::isnan(a) && std::isnan(b));
    };
    for (std::size_t k = 0; k < sent.size(); k++) {
        const Found& a = sent[k];
        const Found& b = (*read.decoded.spots)[k];
        EXPECT_STREQ(a.call, b.call);
        EXPECT_STREQ(a.locator, b.locator);
        for (double Found::*const member : std::initializer_list<double Found::*>{
                 &Found::t, &Found::freq, &Found::snr, &Found::drift, &Found::z, &Found::score, &Found::gap,
                 &Found::contrast, &Found::off_excess, &Found::odds}) {
            EXPECT_TRUE(same(a.*member, b.*member)) << a.*member << " and " << b.*member;
        }
        for (const auto member : {&Found::rank, &Found::shift, &Found::chips_ok, &Found::deep, &Found::protocol}) {
            EXPECT_EQ(a.*member, b.*member);
        }
    }
}

TEST(ShardLines, KeepWhatIsKnownOfARecording) {
    const std::vector<Take> takes = {
        {}, {12.5, 1772366400.25, Tuning{137500, Sideband::LOWER}}, {20, {}, Tuning{1, {}}}};
    const RecordingHead sent{.recording = 7, .file = "a \xff.wav", .blocks = 9, .coherent = true, .takes = takes};
    const RecordingHead read = reread(sent);
    EXPECT_EQ(read.file, sent.file);
    EXPECT_EQ(read.blocks, 9u);
    EXPECT_TRUE(read.coherent);
    ASSERT_EQ(read.takes.size(), 3u);
    EXPECT_EQ(read.takes[1].utc, takes[1].utc);
    EXPECT_EQ(read.takes[1].tuning->dial_hz, 137500);
    EXPECT_EQ(read.takes[1].tuning->sideband, Sideband::LOWER);
    EXPECT_FALSE(read.takes[0].utc || read.takes[0].tuning);
    EXPECT_EQ(reread(BlockFinds{0, 1, {.spots = {}, .problem = "why"}}).decoded.problem, "why");
    EXPECT_FALSE(reread(BlockFinds{0, 1, {.spots = {}, .problem = "why"}}).decoded.spots);
    EXPECT_EQ(reread(BlockFinds{}).decoded.until_s, HUGE_VAL);
}

TEST(ShardLines, FromAnywhereAreRefusedNotTrusted) {
    const std::string block = shard_line(BlockFinds{0, 0, {.spots = std::vector{some_find()}, .problem = ""}});
    ASSERT_TRUE(parse_shard_line(block));
    const auto changed = [&](const std::string& from, const std::string& to) {
        std::string line = block;
        const std::size_t at = line.find(from);
        EXPECT_NE(at, std::string::npos) << from;
        return line.replace(at, from.size(), to);
    };
    for (const std::string& line :
         {std::string(), std::string("7"), std::string("[]"), std::string("{}"), std::string(R"({"type":"spot"})"),
          block.substr(0, block.size() / 2), changed("K2QRX", "K2QRXXXXX"), changed(R"("deep":1)", R"("deep":4)"),
          changed(R"("deep":1)", R"("deep":99999999999)"), changed(R"("protocol":4)", R"("protocol":64)"),
          changed(R"("t":0.3)", R"("t":9e99,"u":0.3)"), changed(R"("freq":)", R"("freq":null,"f":)"),
          changed(R"("block":0)", R"("block":-1)"), changed(R"("until_s":"inf")", R"("until_s":null)"),
          changed(R"("spots":[)", R"("spots":[7,)")}) {
        EXPECT_FALSE(parse_shard_line(line)) << line;
    }
    std::string head = shard_line(ShardHead{{1, 2}, "x", 3});
    ASSERT_TRUE(parse_shard_line(head));
    head.replace(head.find(ovl_version()), 1, "0");
    EXPECT_FALSE(parse_shard_line(head)) << "of another version";
}

// ---- Merges ---------------------------------------------------------------------------------------------------------

// What a shard of one recording says, of which it could read that much.
std::string shard_of(const std::string& problem, const std::vector<DecodedBlock>& blocks) {
    std::string text = shard_line(ShardHead{{1, 1}, "x", 1});
    RecordingHead head{.recording = 0, .file = "a.wav", .problem = problem};
    if (problem.empty()) {
        head.blocks = 2;
        head.takes = {{}};
    }
    text += shard_line(head);
    for (std::size_t k = 0; k < blocks.size(); k++) text += shard_line(BlockFinds{0, k, blocks[k]});
    return text + shard_line(ShardEnd{});
}

// The callsigns and problems that shards merge into, or why they do not.
std::string merged_texts(const std::vector<std::string>& shards) {
    Merge merge;
    try {
        for (const std::string& shard : shards) {
            std::istringstream lines(shard);
            merge.add("s", lines);
        }
    } catch (const IoError& error) {
        return error.what();
    }
    std::string all;
    for (const std::string& line : merge.missing()) all += line + ";";
    if (all.empty()) {
        merge.finish([&](const Spot& spot) { all += spot.call + ";"; },
                     [&](const std::string& problem) { all += problem + ";"; });
    }
    return all;
}

TEST(Merges, TakeWhatAnyMachineCouldRead) {
    Found late = some_find();
    late.t = 70;
    const DecodedBlock first{.spots = std::vector{some_find()}, .problem = "", .until_s = 40};
    const DecodedBlock second{.spots = std::vector{late}, .problem = ""};
    const DecodedBlock failed{.spots = std::nullopt, .problem = "broken", .until_s = 40};
    const std::string whole = shard_of("", {first, second});
    const std::string half = shard_of("", {failed, second});
    const std::string none = shard_of("not there", {});
    EXPECT_EQ(merged_texts({whole}), "K2QRX;K2QRX;");
    EXPECT_EQ(merged_texts({half}), "K2QRX;broken;");
    EXPECT_EQ(merged_texts({none}), "not there;");
    for (const auto& shards : {std::vector{half, whole}, {whole, half}, {none, whole}, {whole, none, half}}) {
        EXPECT_EQ(merged_texts(shards), "K2QRX;K2QRX;");
    }
    EXPECT_EQ(merged_texts({none, shard_of("", {first})}), "of 'a.wav' block 2 of 2 is missing;");
}

TEST(Merges, OfShardsThatDisagreeAreRefused) {
    const DecodedBlock first{.spots = std::vector{some_find()}, .problem = "", .until_s = 40};
    DecodedBlock other = first;
    other.spots->front().freq = std::nextafter(other.spots->front().freq, 0);
    EXPECT_EQ(merged_texts({shard_of("", {first}), shard_of("", {other})}),
              "'s': block 1 of 'a.wav' is not as another shard found it");
    const std::string foreign = shard_line(ShardHead{{1, 1}, "y", 1}) + shard_line(ShardEnd{});
    EXPECT_NE(merged_texts({shard_of("", {}), foreign}).find("of another list"), std::string::npos);
    EXPECT_NE(merged_texts({""}).find("holds no shard"), std::string::npos);
}

// ---- Archives -------------------------------------------------------------------------------------------------------

#ifdef ORVEL_SANITIZED
const std::vector<int32_t> SHARDS = {3};
#else
const std::vector<int32_t> SHARDS = {1, 2, 3, 7};
#endif

class Archives : public TestWithFiles {
  protected:
    std::string simulated(const std::string& name, const Arguments& arguments) const {
        Arguments all = {"simulate", "-o", path(name)};
        all.insert(all.end(), arguments.begin(), arguments.end());
        EXPECT_EQ(orvel(all).status, 0);
        return path(name);
    }

    // 200 s with three stations, and blocks of 90 s that overlap by 50.
    std::string audio(const std::string& name, const std::string& seed) const {
        return simulated(name, {"--rate=4000", "--seconds=200", "--seed", seed, "opera=K2QRX,start=2,snr=-5",
                                "opera=W1AB,start=62,freq=1450,snr=-5", "opera=OH2XY,start=130,freq=1600,snr=-5"});
    }

    static ProcessResult decoded(const std::string& how, const Arguments& arguments) {
        Arguments all = {"decode", how, "--protocols=opera", "--block=90"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return orvel(all);
    }

    static std::string contents(const std::string& path) {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    // The file that a shard writes.
    std::string shard(const std::string& which, const Arguments& arguments) const {
        std::string name = "shard-" + which;
        std::ranges::replace(name, '/', '-');
        return write(name, decoded("--shard=" + which, arguments).out);
    }

    static ProcessResult merged(Arguments files) {
        files.insert(files.begin(), "merge");
        return orvel(files);
    }

    // That any number of shards is one machine.
    void expect_same(const Arguments& arguments, std::size_t least_spots,
                     const std::vector<int32_t>& counts = SHARDS) const {
        const ProcessResult one = decoded("--json", arguments);
        EXPECT_GE(lines_of(one.out).size(), least_spots) << one.err;
        for (const int32_t count : counts) {
            Arguments files;
            for (int32_t k = count; k >= 1; k--) {
                files.push_back(shard(std::to_string(k) + "/" + std::to_string(count), arguments));
            }
            files.push_back(files.front());
            const ProcessResult all = merged(files);
            EXPECT_EQ(all.out, one.out) << count << " shards";
            EXPECT_EQ(all.status, one.status) << all.err;
        }
    }
};

TEST_F(Archives, InShardsAreWhatOneMachineFindsInThem) {
    const std::string list = write("all.list", "# what there is\n" + audio("a.wav", "1") + "\r\n\n  " +
                                                   path("none.wav") + "\n" + audio("b.flac", "2") + "\n");
    expect_same({list}, 6);
}

// Samples take as long however they are stored.
TEST_F(Archives, OfSeveralKindsAreDividedByTheWorkThatTheyTake) {
    const std::string wave = simulated("a.wav", {"--rate=4000", "--seconds=200", "--format=float"});
    const std::string flac = audio("a.flac", "1");
    ASSERT_LT(2 * std::filesystem::file_size(flac), std::filesystem::file_size(wave));
    for (const char* const which : {"1/2", "2/2"}) {
        std::set<std::size_t> held;
        for (const std::string& text : lines_of(contents(shard(which, {wave, flac})))) {
            const auto line = parse_shard_line(text);
            if (line && std::holds_alternative<RecordingHead>(*line))
                held.insert(std::get<RecordingHead>(*line).recording);
        }
        EXPECT_EQ(held, std::set<std::size_t>{which[0] == '1' ? 0U : 1U}) << which;
    }
}

TEST_F(Archives, TellTheirSizeByTheirHeaders) {
    const auto size_of = [](const std::string& name, const RecordingOptions& options = {}) {
        const RecordingSize size = size_in_archive(name, [&](const std::string&) { return options; });
        return std::tuple(size.bytes, size.rate, size.seconds, size.iq);
    };
    const Arguments iq = {"--iq", "--rate=8000", "--seconds=3"};
    const std::string wave = simulated("q.wav", iq);
    const std::string flac = simulated("q.flac", iq);
    simulated("q.sigmf-data", iq);
    EXPECT_EQ(size_of(wave), std::tuple(96044, 8000, 3, false));
    EXPECT_EQ(size_of(wave, {.iq = true}), std::tuple(96044, 8000, 3, true));
    EXPECT_EQ(size_of(flac), std::tuple(std::filesystem::file_size(flac), 8000, 3, false));
    EXPECT_EQ(size_of(path("q.sigmf-meta")), std::tuple(96000, 8000, 3, true));
    EXPECT_EQ(size_of(simulated("q.sigmf", iq)), std::tuple(96000, 8000, 3, true));
    EXPECT_EQ(size_of(write("q.cu8", std::string(4000, 'x')), {.raw_rate = 1000}), std::tuple(4000, 1000, 2, true));
    EXPECT_EQ(size_of(write("q.bin", "no recording")), std::tuple(12, 0, 0, false));
    EXPECT_EQ(size_of(path("none.wav")), std::tuple(0, 0, 0, false));
}

TEST_F(Archives, OfIqInShardsAreWhatOneMachineFinds) {
    const std::string iq = simulated("q.wav", {"--iq", "--rate=2000", "--seconds=170", "opera=K2QRX,start=20,snr=-8",
                                               "opera=W1AB,start=95,freq=90,snr=-8"});
    expect_same({"--iq", iq}, 2);
}

TEST_F(Archives, OfSigmfAndWideBandsInShardsAreWhatOneMachineFinds) {
    const std::string narrow =
        simulated("n.sigmf", {"--iq", "--rate=8000", "--seconds=130", "--start=2026-03-01T12:00:00Z", "--dial=137500",
                              "opera=K2QRX,start=20,freq=-900,snr=-8", "opera=W1AB,start=70,freq=1400,snr=-8"});
    const std::string wide =
        simulated("w.sigmf", {"--iq", "--rate=32000", "--seconds=45", "--start=2026-03-01T13:00:00Z", "--dial=137500",
                              "opera=OH2XY,start=5,freq=9000,snr=-8"});
    expect_same({"--wide", narrow, wide}, 3);
}

// Steps of 25.6 s, and frames over their borders. The second take comes after a gap.
TEST_F(Archives, OfWideBandsAreDividedWithinARecording) {
    Arguments stations = {"--iq", "--seconds=150"};
    for (int32_t k = 0; k < 5; k++) {
        stations.push_back("opera=K" + std::to_string(k) + "QRX,start=" + std::to_string(4 + 24 * k) +
                           ",freq=" + std::to_string(-18000 + 8001 * k) + ",snr=-10");
    }
    stations.push_back("--rate=48011");  // is converted
    const std::string bytes = contents(simulated("w.wav", stations));
    const std::string cut = write("cut.wav", bytes.substr(0, bytes.size() * 5 / 8));
    stations.back() = "--rate=48000";
    stations.insert(stations.end(), {"--start=2026-03-01T12:00:00Z", "--dial=137500"});
    const std::string meta = simulated("w.sigmf-meta", stations);
    const std::string text = contents(meta);
    const std::size_t at = text.find(R"("captures": [)");
    ASSERT_NE(at, std::string::npos);
    const std::size_t end = text.find(']', at);
    write("w.sigmf-meta", text.substr(0, end) +
                              R"(, {"core:sample_start": 4000000, "core:frequency": 475000,)"
                              R"( "core:datetime": "2026-03-02T12:00:00Z"})" +
                              text.substr(end));
    const std::string tiny = simulated("tiny.wav", {"--iq", "--rate=48000", "--seconds=20"});
    expect_same({"--iq", "--wide", meta, tiny, cut}, 7, {7});
}

// What a file does not hold, or not any more, is told in the same way.
TEST_F(Archives, WithDamagedRecordingsAreWhatOneMachineMakesOfThem) {
    const std::string whole = audio("a.wav", "3");
    const std::string bytes = contents(whole);
    const std::string cut = write("cut.wav", bytes.substr(0, bytes.size() / 2));
    const std::string tiny = write("tiny.wav", wave_file(1, 1, 8000, 16, std::string(100, '\0')));
    expect_same({cut, tiny, whole}, 4);
}

TEST_F(Archives, OfWhichAPartIsMissingAreNotMerged) {
    const std::string file = audio("a.wav", "1");
    const std::string first = shard("1/2", {file});
    const std::string second = shard("2/2", {file});
    const ProcessResult half = merged({second});
    EXPECT_EQ(half.status, 1);
    EXPECT_EQ(half.out, "");
    EXPECT_NE(half.err.find("is missing"), std::string::npos) << half.err;
    EXPECT_NE(half.err.find("shard 1/2 is missing or cut short"), std::string::npos) << half.err;

    const std::string bytes = contents(first);
    for (std::size_t size = 1; size < bytes.size(); size += bytes.size() / 25 + 1) {
        const std::string cut = write("cut", bytes.substr(0, size));
        const ProcessResult some = merged({cut, second});
        EXPECT_EQ(some.status, 1) << size;
        EXPECT_EQ(some.out, "");
        EXPECT_FALSE(some.err.empty());
    }
    const std::string cut = write("cut", bytes.substr(0, bytes.size() - bytes.size() / 3));
    const ProcessResult all = merged({second, cut, first});
    EXPECT_EQ(all.status, 0) << "the whole one makes up for it";
    EXPECT_NE(all.err.find("cut short"), std::string::npos) << "but it is told";
    EXPECT_EQ(all.out, decoded("--json", {file}).out);
}

TEST_F(Archives, OfSeveralDivisionsAreMergedToo) {
    const std::string file = audio("a.wav", "1");
    const Arguments files = {shard("2/3", {file}), shard("2/2", {file}), shard("1/2", {file}), shard("3/3", {file})};
    EXPECT_EQ(merged(files).out, decoded("--json", {file}).out);
    std::string together;
    for (const std::string& name : files) together += contents(name);
    ProcessInput input;
    input.stdin_file = write("together", together);
    EXPECT_EQ(orvel({"merge", "-"}, input).out, decoded("--json", {file}).out);
}

TEST_F(Archives, ThatAreNotTheSameAreNotMixed) {
    const std::string file = audio("a.wav", "1");
    const std::string first = shard("1/2", {file});
    const std::string other_options = shard("2/2", {file, "--search=100"});
    EXPECT_TRUE(one_line_with(merged({first, other_options}), {"shard 2/2 is of another list, of other options"}));
    std::ofstream(file, std::ios::binary | std::ios::app) << "more";
    EXPECT_TRUE(one_line_with(merged({first, shard("2/2", {file})}), {"have changed meanwhile"}));
    EXPECT_TRUE(one_line_with(merged({file}), {"line 1 is not one of a shard"}) || !merged({file}).err.empty());
    EXPECT_EQ(merged({file}).status, 1);
    EXPECT_EQ(merged({path("none")}).status, 1);
}

TEST_F(Archives, TakeOptionsThatMakeSense) {
    const std::string file = audio("a.wav", "1");
    for (const char* const text : {"0/2", "3/2", "x"}) {
        EXPECT_TRUE(usage_error_with({"decode", std::string("--shard=") + text, file}, {"--shard"})) << text;
    }
    EXPECT_TRUE(usage_error_with({"decode", "--shard=1/2", "--csv", file}, {"--shard", "--csv"}));
    EXPECT_TRUE(usage_error_with({"decode", "--shard=1/2", "-"}, {"--shard", "comes only once"}));
    EXPECT_TRUE(usage_error_with({"decode", write("empty.list", "# none\n")}, {"no recordings"}));
    EXPECT_TRUE(one_line_with(orvel({"decode", path("none.list")}), {"cannot read", "none.list"}));
}

// ---- URLs -----------------------------------------------------------------------------------------------------------

constexpr UrlPatience IMPATIENT = {.attempts = 4, .first_wait_s = 0.01, .stall_s = 1, .most_s = 20};

class Urls : public Archives {
  protected:
    Urls() : server_({"/usr/bin/python3", ORVEL_AWKWARD_SERVER, path("")}), port_(server_.read_line(20).value_or("")) {}

    std::string url(const std::string& fault, const std::string& name) const {
        return "http://127.0.0.1:" + port_ + "/" + fault + "/" + name;
    }

    std::string noise(const std::string& name, std::size_t size) const {
        std::mt19937 random(static_cast<uint32_t>(size));
        std::string bytes(size, '\0');
        std::ranges::generate(bytes, [&] { return static_cast<char>(random() & 0x7F); });
        write(name, bytes);
        return bytes;
    }

    static std::string read(UrlFile& file, uint64_t offset, std::size_t count) {
        std::vector<uint8_t> bytes(count);
        bytes.resize(file.read_at(offset, bytes));
        return {bytes.begin(), bytes.end()};
    }

    // Why all of a file cannot be had.
    std::string refusal(const std::string& fault, const std::string& name) const {
        try {
            UrlFile file(url(fault, name), IMPATIENT);
            read(file, 0, 1 << 20);
            return "it was read";
        } catch (const IoError& error) {
            return error.what();
        }
    }

    uint64_t served() const {
        const ProcessResult result = run_process({"/usr/bin/python3", "-c",
                                                  "import urllib.request, sys;"
                                                  "print(urllib.request.urlopen(sys.argv[1]).read().decode())",
                                                  "http://127.0.0.1:" + port_ + "/served"});
        return std::stoull(result.out);
    }

    // That each third of a recording costs no more than such a share of it: a third, what parts overlap by, the header,
    // and what is fetched ahead.
    void expect_fetched_in_parts(const std::string& name, Arguments options, double most) const {
        const auto size = static_cast<double>(std::filesystem::file_size(path(name)));
        options.push_back(url("plain", name));
        Arguments shards;
        for (const char* const which : {"1/3", "2/3", "3/3"}) {
            served();
            shards.push_back(shard(which, options));
            EXPECT_LT(static_cast<double>(served()), most * size) << name << ' ' << which;
        }
        const ProcessResult one = decoded("--json", options);
        EXPECT_GE(lines_of(one.out).size(), 2u) << one.err;
        EXPECT_EQ(merged(shards).out, one.out);
    }

  private:
    RunningProcess server_;
    std::string port_;
};

TEST_F(Urls, AreReadAtAnyPlaceWhateverTheConnectionDoes) {
    const std::string bytes = noise("data", 300000);
    std::vector<std::jthread> readers;  // side by side: they wait most of the time
    for (const char* const fault : {"plain", "untagged", "trips", "breaks", "busy", "hops"}) {
        readers.emplace_back([&, fault] {
            try {
                UrlFile file(url(fault, "data"), IMPATIENT);
                EXPECT_EQ(file.size(), bytes.size()) << fault;
                EXPECT_EQ(read(file, 0, bytes.size()), bytes) << fault;
                EXPECT_EQ(read(file, bytes.size() - 10, 100), bytes.substr(bytes.size() - 10)) << fault;
                EXPECT_EQ(read(file, bytes.size() + 10, 100), "") << fault;
                std::mt19937 random(3);
                for (int32_t k = 0; k < 20; k++) {
                    const std::size_t place = random() % bytes.size();
                    const std::size_t count = random() % 50000;
                    EXPECT_EQ(read(file, place, count), bytes.substr(place, count)) << fault;
                }
            } catch (const IoError& error) {
                ADD_FAILURE() << fault << ": " << error.what();
            }
        });
    }
    UrlFile file(url("stalls", "data"), IMPATIENT);
    EXPECT_EQ(read(file, 0, 20000), bytes.substr(0, 20000));
}

TEST_F(Urls, ThatCannotBeReadAreRefusedWithTheReason) {
    noise("data", 300000);
    write("empty", "");
    const std::vector<std::pair<std::string, std::string>> reasons = {
        {"whole", "does not serve parts of files"},     {"gone", "its server says 404"},
        {"changes", "it has changed meanwhile"},        {"swaps", "it has changed meanwhile"},
        {"shrinks", "it has become shorter meanwhile"}, {"astray", "sends another part of the file"},
        {"silent", "does not say which part"},          {"huge", "does not say which part"},
        {"nonsense", "does not say which part"},        {"dead", "(4 attempts)"},
    };
    for (const auto& [fault, reason] : reasons) {
        const std::string said = refusal(fault, "data");
        EXPECT_NE(said.find(reason), std::string::npos) << fault << ": " << said;
        EXPECT_TRUE(said.starts_with("cannot read '" + url(fault, "data") + "': ")) << said;
    }
    for (const char* const fault : {"circles", "elsewhere", "long"}) EXPECT_NE(refusal(fault, "data"), "it was read");
    EXPECT_NE(refusal("plain", "empty").find("it is empty"), std::string::npos);
    EXPECT_NE(refusal("plain", "none").find("404"), std::string::npos);
    EXPECT_THROW(UrlFile("http://127.0.0.1:1/data", IMPATIENT), Unreachable);
}

TEST_F(Urls, OfRecordingsOfAllKindsAreDecodedAsTheirFiles) {
    audio("a.wav", "1");
    audio("b.flac", "2");
    simulated("n.sigmf", {"--iq", "--rate=2000", "--seconds=70", "opera=K2QRX,start=2,snr=-5"});
    simulated("p.sigmf-data", {"--iq", "--rate=2000", "--seconds=70", "opera=K2QRX,start=2,snr=-5"});
    for (const char* const name : {"a.wav", "b.flac", "n.sigmf", "p.sigmf-meta"}) {
        std::string here = decoded("--json", {path(name)}).out;
        const ProcessResult there = decoded("--json", {url("trips", name)});
        EXPECT_EQ(there.status, 0) << there.err;
        for (std::size_t at = 0; (at = here.find(path(name), at)) != std::string::npos;) {
            here.replace(at, path(name).size(), url("trips", name));
        }
        EXPECT_FALSE(here.empty());
        EXPECT_EQ(there.out, here) << name;
    }
    EXPECT_TRUE(one_line_with(orvel({"decode", url("gone", "a.wav")}), {"its server says 404"}));
    EXPECT_TRUE(one_line_with(orvel({"decode", url("whole", "a.wav")}), {"parts of files"}));
}

TEST_F(Urls, InShardsAreFetchedOnlyWhereTheyAreDecoded) {
    audio("a.wav", "1");
    expect_fetched_in_parts("a.wav", {}, 0.85);
}

TEST_F(Urls, OfWideBandsAreFetchedOnlyWhereTheyAreDecoded) {
    simulated("w.wav", {"--iq", "--rate=28000", "--seconds=250", "opera=K2QRX,start=70,freq=-9000,snr=-8",
                        "opera=W1AB,start=150,freq=9000,snr=-8"});
    expect_fetched_in_parts("w.wav", {"--iq", "--wide"}, 0.75);
}

}  // namespace

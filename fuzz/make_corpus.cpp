// Writes the seeds of the fuzzers: make_corpus fuzz/corpus. A seed holds the draws of its fuzzer in order, with values
// that make something happen; when a fuzzer changes the order of its draws, it needs new seeds.
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <random>
#include <vector>

#include "decode_settings.h"
#include "recordings/tar.h"
#include "scene.h"
#include "wave.h"

namespace {

std::filesystem::path root;

void write(const std::string& fuzzer, const std::string& seed, const std::vector<uint8_t>& bytes) {
    std::filesystem::create_directories(root / fuzzer);
    std::ofstream file(root / fuzzer / seed, std::ios::binary);
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!file.flush()) {
        std::fprintf(stderr, "make_corpus: cannot write %s\n", (root / fuzzer / seed).c_str());
        std::exit(1);
    }
}

// The counterpart of Input.
class Seed {
  public:
    Seed& integer(int64_t value, int64_t low, int64_t high) {
        put_le(bytes_, static_cast<uint64_t>(value - low), static_cast<int>(bytes_for(low, high)));
        return *this;
    }
    Seed& flag(bool value) { return integer(value ? 1 : 0, 0, 1); }
    Seed& number(double value, double low, double high) {
        put_le(bytes_, static_cast<uint64_t>(std::lround((value - low) / (high - low) * 65535.0)), 2);
        return *this;
    }
    Seed& mostly(double value, double low, double high) { return integer(0, 0, 7).number(value, low, high); }
    Seed& text(std::string_view text, int32_t most) {
        integer(static_cast<int64_t>(text.size()), 0, most);
        return rest(text);
    }
    Seed& rest(std::string_view text) {
        bytes_.insert(bytes_.end(), text.begin(), text.end());
        return *this;
    }
    template <class T>
    Seed& raw(T value) {
        std::array<uint8_t, sizeof(T)> bytes;
        std::memcpy(bytes.data(), &value, sizeof value);
        bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
        return *this;
    }
    Seed& bytes(std::size_t n, uint64_t seed) {
        std::linear_congruential_engine<uint64_t, 0x5DEECE66D, 11, uint64_t{1} << 48> random(seed);
        for (; n > 0; n--) bytes_.push_back(static_cast<uint8_t>(random() >> 24 & 0xFF));
        return *this;
    }

    // Parts of a scene.
    Seed& frame(int32_t protocol, std::string_view call, std::string_view locator, double start_s, double freq_hz,
                double amplitude, int32_t rate, double drift_hz_s = 0) {
        return part(Part::FRAME)
            .integer(protocol, 0, 2)
            .text(call, 8)
            .text(locator, 6)
            .number(start_s, MIN_FRAME_START_S, MAX_FRAME_START_S)
            .number(freq_hz, 0, rate / 2.0)
            .number(amplitude, 0, MAX_AMPLITUDE)
            .number(drift_hz_s, -MAX_DRIFT_HZ_S, MAX_DRIFT_HZ_S);
    }
    Seed& noise(uint16_t seed, double amplitude) {
        return part(Part::NOISE).raw(seed).number(amplitude, 0, MAX_AMPLITUDE);
    }
    Seed& carrier(double freq_hz, double amplitude, int32_t rate) {
        return part(Part::CARRIER).number(freq_hz, 0, rate / 2.0).number(amplitude, 0, MAX_AMPLITUDE);
    }
    Seed& part(Part part) { return integer(static_cast<int64_t>(part), 0, LAST_PART); }
    Seed& anything(int64_t place, int64_t n, int32_t edge) {
        return part(Part::ANYTHING).integer(place, 0, n - 1).integer(edge, 0, 15);
    }

    // A search in an ordinary block, of frames that end between two times.
    Seed& settings(double center_hz, double search_hz, int32_t rate, int32_t protocols = 7, bool known_only = false,
                   std::optional<double> end_min = {}, std::optional<double> end_max = {}) {
        flag(protocols != 7);
        if (protocols != 7) raw(protocols);
        mostly(center_hz, 0, std::clamp(rate, 1, 8000) / 2.0)
            .mostly(search_hz, 0, MAX_SEARCH_HZ)
            .flag(false)
            .integer(2, 0, 2)
            .integer(known_only ? 7 : 0, 0, 7)
            .flag(end_min.has_value());
        if (end_min) mostly(*end_min, -10, 60);
        flag(end_max.has_value());
        return end_max ? mostly(*end_max, -1, 60) : *this;
    }

    void save(const std::string& fuzzer, const std::string& seed) const { write(fuzzer, seed, bytes_); }

  private:
    std::vector<uint8_t> bytes_;
};

// ---- Recordings -----------------------------------------------------------------------------------------------------

std::vector<uint8_t> ramp(std::size_t n) {
    std::vector<uint8_t> data(n);
    for (std::size_t k = 0; k < n; k++) data[k] = static_cast<uint8_t>(k * 37 & 0xFF);
    return data;
}

std::vector<uint8_t> floats(std::initializer_list<float> values) {
    std::vector<uint8_t> data;
    for (const float value : values) {
        uint32_t bits = 0;
        std::memcpy(&bits, &value, sizeof bits);
        put_le(data, bits, 4);
    }
    return data;
}

// Chunks after a header of 12 bytes.
std::vector<uint8_t> header(std::string_view id) {
    std::vector<uint8_t> bytes;
    put_id(bytes, id);
    put_le(bytes, 0xFFFFFFFF, 4);
    put_id(bytes, "WAVE");
    return bytes;
}

void put_chunk(std::vector<uint8_t>& bytes, std::string_view id, uint64_t claimed, const std::vector<uint8_t>& body) {
    put_id(bytes, id);
    put_le(bytes, claimed, 4);
    bytes.insert(bytes.end(), body.begin(), body.end());
    if (body.size() % 2 != 0) bytes.push_back(0);
}

void recordings() {
    write("wav_read", "mono16", wave_file({1, 1, 12000, 16}, ramp(20)));
    write("wav_read", "stereo8", wave_file({1, 2, 8000, 8}, ramp(14)));
    write("wav_read", "stereo24", wave_file({1, 2, 48000, 24}, ramp(30)));
    write("wav_read", "mono32", wave_file({0xFFFE, 1, 192000, 32}, ramp(16)));
    write("wav_read", "float", wave_file({3, 1, 12000, 32}, floats({0, 0.5f})));
    std::vector<uint8_t> odd = header("RIFF");
    put_chunk(odd, "data", 4, ramp(4));
    put_chunk(odd, "LIST", 5, ramp(5));
    put_format(odd, {1, 1, 11025, 16});
    put_chunk(odd, "data", 1000, ramp(9));
    write("wav_read", "chunks", odd);

    write("iq_read", "integers16", wave_file({1, 2, 12000, 16}, ramp(20)));
    write("iq_read", "integers24", wave_file({1, 2, 12000, 24}, ramp(24)));
    write("iq_read", "floats", wave_file({3, 2, 48000, 32}, floats({0, 0.5f, -1, 1, 1e30f, INFINITY, NAN, -0.0f})));
    std::vector<uint8_t> rf64 = header("RF64");
    std::vector<uint8_t> sizes;
    for (const uint64_t size : {72u, 16u, 4u}) put_le(sizes, size, 8);
    put_le(sizes, 0, 4);
    put_chunk(rf64, "ds64", sizes.size(), sizes);
    put_format(rf64, {1, 2, 96000, 16});
    put_chunk(rf64, "data", 0xFFFFFFFF, ramp(16));
    write("iq_read", "rf64", rf64);
}

// ---- Callsigns, frames and codes ------------------------------------------------------------------------------------

void texts_and_codes() {
    Seed().rest("K2QRX, g4qzb;DL1QXA nonsense\tOH3QKJ").save("set_known", "list");
    std::string many;
    for (int k = 0; k < 260; k++) many += "K" + std::to_string(k % 10) + "A ";
    Seed().rest(many).save("set_known", "too_many");

    const auto encode = [](int32_t protocol, std::string_view call, std::string_view locator) {
        Seed seed;
        seed.flag(false).integer(protocol, 0, 2).integer(0, 0, 7).text(call, 24).text(locator, 12);
        return seed;
    };
    encode(0, "K2QRX", "").save("encode", "opera");
    encode(1, " dl1qxa x", "").save("encode", "orvel_s");
    encode(2, "g4qzb", "io91wm").save("encode", "orvel_l");

    Seed().integer(0, 0, 6).text("f5qvb", 255).save("codecs", "callsign_text");
    Seed().integer(1, 0, 6).rest("DL1QXA").save("codecs", "callsign_characters");
    Seed().integer(2, 0, 6).raw<uint32_t>(123456789).save("codecs", "callsign_value");
    Seed().integer(3, 0, 6).text("jo31ab", 255).save("codecs", "locator_text");
    Seed().integer(4, 0, 6).raw<uint32_t>(18694799).save("codecs", "locator_value");
    Seed().integer(5, 0, 6).flag(true).integer(98765, 0, 262177559).integer(0, 0, 3).save("codecs", "vector");
    Seed().integer(6, 0, 6).integer(0, 0, 1).bytes(44, 1).save("codecs", "message");

    const auto ldpc = [](int32_t code, int32_t kind, std::size_t n_bytes) {
        Seed seed;
        seed.integer(code, 0, 7);
        if (code == 7) seed.integer(20, -1, 48).integer(8, -1, 48).integer(3, -1, 9).raw<uint32_t>(5);
        seed.integer(10, -1, 50).integer(2, -1, 3).integer(0, -1, 80).integer(kind, 0, 2).bytes(n_bytes, 3);
        return seed;
    };
    ldpc(0, 2, 44 + 119).save("ldpc_decode", "noisy_s");
    ldpc(1, 2, 69 + 160).save("ldpc_decode", "noisy_l");
    ldpc(0, 1, 119).save("ldpc_decode", "noise");
    ldpc(7, 1, 30).save("ldpc_decode", "new_code");

    Seed().integer(100, -1, 295).integer(0, 0, 2).bytes(119, 7).save("soft_bits", "noise");
    Seed().integer(285, -1, 295).integer(1, 0, 2).text("K2QRX", 15).bytes(119, 5).save("soft_bits", "frame");
    Seed().integer(20, -1, 295).integer(2, 0, 2).bytes(238, 9).flag(false).save("soft_bits", "energies");
}

// ---- Blocks ---------------------------------------------------------------------------------------------------------

constexpr int32_t RATE = 250;
constexpr int32_t N_RATES = 12;

Seed decode_block(std::string_view known, int32_t n) {
    Seed seed;
    seed.integer(0, 0, N_RATES).text(known, 40).integer(n, 1, MAX_SAMPLES);
    return seed;
}

// After the settings: room for 64 results, the whole block, and no coherent search.
Seed& whole(Seed& seed) {
    return seed.flag(true).flag(false).integer(0, 0, 7);
}

// The same with it, a few places and passes, in one thread.
Seed& coherent(Seed& seed) {
    return seed.flag(true)
        .flag(false)
        .integer(7, 0, 7)
        .flag(false)
        .integer(8, 2, 8)
        .integer(2, 1, 3)
        .integer(1, 1, 2)
        .integer(1, 0, 1);
}

void blocks() {
    for (int32_t protocol = 0; protocol < 3; protocol++) {
        Seed seed = decode_block("", protocol == 2 ? 11000 : 8500);
        seed.noise(1, 0.3).frame(protocol, "K2QRX", "FN31", 1, 60, 1, RATE, 0.01).part(Part::END);
        whole(seed.settings(60, 6, RATE, 1 << protocol))
            .save("decode", std::array{"opera", "orvel_s", "orvel_l"}.at(static_cast<std::size_t>(protocol)));
    }
    Seed weak = decode_block("G4QZB,K2QRX", 8500);
    weak.noise(2, 2).frame(0, "K2QRX", "", 1, 60, 0.3, RATE).part(Part::END);
    whole(weak.settings(60, 6, RATE, 1, true)).save("decode", "known");

    Seed crowded = decode_block("K2QRX", 9500);
    crowded.noise(3, 0.2)
        .frame(0, "K2QRX", "", 1, 45, 0.6, RATE)
        .frame(0, "G4QZB", "", 3, 80, 1, RATE)
        .frame(1, "OH3QKJ", "", 6, 63, 0.8, RATE)
        .carrier(20, 0.5, RATE)
        .part(Part::END);
    whole(crowded.settings(60, 24, RATE, 1));
    crowded.settings(62, 6, RATE, 3)
        .flag(true)
        .flag(true)
        .mostly(4, 0, 60)
        .integer(0, 0, 7)
        .save("decode", "crowded_then_recent");

    // Too weak for the standard search.
    Seed phase = decode_block("", 9000);
    phase.noise(8, 2).frame(1, "K2QRX", "", 1.5, 58, 0.5, RATE).part(Part::END);
    coherent(phase.settings(65, 15, RATE, 3)).save("decode", "coherent");

    // The one and then the other.
    Seed windows = decode_block("", 11500);
    windows.noise(7, 0.2).frame(0, "K2QRX", "", 1, 45, 1, RATE).frame(0, "G4QZB", "", 12, 75, 1, RATE).part(Part::END);
    whole(windows.settings(60, 24, RATE, 1, false, 38, {}));
    whole(windows.settings(60, 24, RATE, 1, false, {}, 36)).save("decode", "windows");

    Seed over_the_edge = decode_block("", 7000);
    over_the_edge.noise(4, 0.2).frame(0, "DL1QXA", "", -5, 60, 1, RATE).part(Part::END);
    whole(over_the_edge.settings(60, 6, RATE, 1)).save("decode", "over_the_edge");

    Seed not_finite = decode_block("", 8500);
    not_finite.frame(0, "K2QRX", "", 1, 60, 1, RATE).anything(4000, 8500, 14).part(Part::END);
    whole(not_finite.settings(60, 6, RATE)).save("decode", "not_finite");

    Seed bytes = decode_block("", 6500);
    bytes.part(Part::BYTES).integer(100, 0, 6499).integer(600, 0, 4095).bytes(600, 11).part(Part::END);
    whole(bytes.settings(60, 6, RATE, 1)).save("decode", "bytes");

    constexpr int32_t KEYED_RATE = 4000;
    Seed keyed;
    keyed.integer(0, 0, 7).integer(14000, 1, 16000).noise(5, 0.3).frame(0, "K2QRX", "", -2, 1500, 1, KEYED_RATE);
    keyed.frame(0, "G4QZB", "", -3, 1400, 0.6, KEYED_RATE).carrier(1450, 0.5, KEYED_RATE).part(Part::END);
    keyed.settings(1500, 60, KEYED_RATE).mostly(3.1, 2.5, 10).mostly(5, -2, 12).integer(64, 0, 70);
    keyed.save("keyed", "two_frames");

    const auto pipeline = [](bool iq, bool wide, int32_t protocol, bool known) {
        Seed seed;
        seed.integer(0, 0, N_RATES).integer(protocol == 2 ? 11000 : 8500, 1, MAX_SAMPLES).flag(iq).flag(wide);
        seed.noise(6, 0.2).frame(protocol, "K2QRX", "FN31", 1, 60, known ? 0.1 : 1, RATE).part(Part::END);
        seed.settings(60, wide ? 60 : 6, RATE, 1 << protocol)
            .integer(12, -1, 12)
            .integer(285, -1, 300)
            .integer(1, 0, 1);
        seed.integer(1, 0, 1);
        for (int k = 0; k < 7; k++) seed.flag(false);
        seed.text(known ? "K2QRX" : "", 6).text("", 6);
        return seed.mostly(4, 2, 10).integer(4, -1, 4).integer(32, -1, 32);
    };
    pipeline(true, false, 0, false).save("pipeline", "iq_opera");
    pipeline(true, false, 2, false).save("pipeline", "iq_orvel_l");
    pipeline(true, true, 0, false).save("pipeline", "wide_iq");
    pipeline(false, true, 1, false).save("pipeline", "wide_real");
    pipeline(false, false, 0, true).save("pipeline", "known");
}

// ---- Transmission and capture ---------------------------------------------------------------------------------------

// Draws of fuzz_transmit.
Seed& start(Seed& seed, int32_t n_steps) {
    seed.integer(0, 0, 6).integer(0, 0, 7).integer(8000, 8000, 12000).mostly(1500, 1, 5400).mostly(0.5, 0.01, 1);
    return seed.mostly(0.005, 0, 0.05).integer(0, 0, 15).integer(n_steps, 1, 4);
}

Seed& step(Seed& seed, int32_t kind, int32_t protocol, std::string_view call, std::string_view locator,
           double seconds) {
    seed.integer(0, 0, 15).integer(kind, 1, 3).integer(0, 0, 15).integer(protocol, 0, 2);
    if (kind == OVL_TX_FRAME) seed.text(call, 16).text(locator, 8);
    return seed.mostly(seconds, 0.05, 4).integer(0, 0, 1);
}

Seed& render(Seed& seed, int32_t n) {
    return seed.integer(1, 0, 6).flag(false).integer(n, 0, 65535);
}

void on_the_air() {
    Seed all;
    step(step(start(all, 2), OVL_TX_CARRIER, 0, "", "", 1), OVL_TX_FRAME, 0, "K2QRX", "", 1);
    for (int k = 0; k < 5; k++) render(all, 65535).integer(5, 0, 6);
    all.save("transmit", "to_the_end");
    Seed stopped;
    step(step(start(stopped, 2), OVL_TX_PAUSE, 0, "", "", 0.1), OVL_TX_FRAME, 2, "G4QZB", "IO91", 1);
    render(stopped, 3000).integer(4, 0, 6).mostly(0.9, 0, 1.1);
    render(stopped, 300).integer(3, 0, 6).integer(5, 0, 6);
    render(stopped, 20).integer(6, 0, 6).save("transmit", "stopped");
    Seed refused;
    step(start(refused, 1), OVL_TX_FRAME, 1, "nonsense", "", 1).integer(5, 0, 6);
    render(refused, 100).save("transmit", "refused");

    const auto capture = [](int32_t rate) {
        Seed seed;
        seed.integer(0, 0, 7).integer(0, 0, 3).integer(rate, 8000, 48000).mostly(1, 0, 3);
        for (int k = 0; k < 6; k++) {
            seed.integer(2, 0, 7).integer(0, 0, 7).integer(1 + k % 2, 1, 3).integer(0, 0, 15).integer(4000, 0, 4000);
            seed.bytes(5, static_cast<uint64_t>(k)).integer(0, 0, 7).integer(5, 0, 7);
        }
        return seed.integer(6, 0, 7).flag(false).integer(20000, 0, 40000).integer(1, 0, 7);
    };
    capture(8000).save("capture", "as_it_is");
    capture(48000).save("capture", "filtered");
}

// ---- The command line -----------------------------------------------------------------------------------------------

// What an rtl_tcp server sends, and what names it.
void servers() {
    Seed().rest(std::string_view("RTL0\0\0\0\x05\0\0\0\x1d", 12)).bytes(20, 7).save("rtl_tcp", "header");
    Seed().bytes(20, 8).save("rtl_tcp", "no_header");
    Seed().rest("[::1]:1235?freq=0.1375M&rate=1024k&gain=-1.5&ppm=-12&direct=2").save("rtl_tcp", "address");
}

void command_line() {
    const auto words = [](int32_t parser, std::string_view text) {
        Seed seed;
        seed.integer(parser, 0, 2).rest(text);
        return seed;
    };
    words(0, "encode\nK2QRX\nFN31\n--draw").save("command", "encode");
    words(0, "encode\nK2QRX\n--protocol\norvel-s\n--json").save("command", "encode_json");
    words(0, "decode\n--wide\n--band\n-2e4:20000\n--iq\n--block\n90\n--jobs=2\n-v\na.wav\nb.wav")
        .save("command", "decode");
    words(0, "send\n--every\n10m\n--offset\n2\n--times\n3\nopera=K2QRX").save("command", "send");
    words(0, "listen\n--stdin\n--format\nfloat\n--channels\n2\n--start\n12:00\n--json").save("command", "listen");
    words(0, "scan\n--min-z\n5.5\na.wav\n--help").save("command", "help");
    words(0, "simulate\n-o\na.wav\n--carrier\n-300,-10\n--impulses\n2,20\nopera=K2QRX,freq=1450,fading=poor")
        .save("command", "simulate");
    words(0, "plot\na.wav\n-o\na.png\n--range\n2:24\n--from\n1\n--to\n60\n--chips=K2QRX").save("command", "plot");
    words(1,
          "--center\n1400\n--search\n100\n--protocols\nopera,orvel-l\n--known\nK2QRX,G4QZB\n--known-only\n--band\n-5:7")
        .save("command", "search");
    words(2, "carrier=1\npause=1e0\nopera=K2QRX\norvel-l=G4QZB,IO91WM\n--rate\n8000\n--tone\n700\n--level\n0.3")
        .save("command", "steps");

    constexpr int32_t LAST_KIND = 11;
    Seed().integer(0, 0, LAST_KIND).rest("orvel-l=G4QZB,IO91").save("texts", "step");
    Seed().integer(1, 0, LAST_KIND).number(1e9, 0, 4e9).rest("2026-03-01T12:00:02.5Z").save("texts", "date");
    Seed().integer(1, 0, LAST_KIND).number(1e9, 0, 4e9).rest("12:00:00").save("texts", "time");
    Seed().integer(2, 0, LAST_KIND).mostly(1.8e9, 0, 253402300799.0).integer(3, 0, 6).save("texts", "to_text");
    Seed().integer(3, 0, LAST_KIND).flag(true).rest("1.5h").save("texts", "length");
    Seed().integer(4, 0, LAST_KIND).number(1e9, 0, 4e9).number(600, 1, 1e6).number(2, 0, 1e6).save("texts", "slot");
    Seed().integer(5, 0, LAST_KIND).rest("+1e-3").save("texts", "number");
    Seed().integer(6, 0, LAST_KIND).rest("opera, orvel-s;all").save("texts", "list");
    Seed().integer(7, 0, LAST_KIND).rest("-20e3:+20000.5").save("texts", "range");
    Seed()
        .integer(8, 0, LAST_KIND)
        .rest("orvel-l=K2QRX,FN31,freq=1450,snr=-18,start=-3.5,drift=0.1,spread=0.5,delay=1")
        .save("texts", "station");
    Seed()
        .integer(9, 0, LAST_KIND)
        .rest(
            "{\"call\":\"K2QRX\",\"protocol\":\"orvel-l\",\"locator\":\"FN31\",\"t_start\":1.5,\"freq_hz\":1400,"
            "\"drift_hz_s\":0.1,\"snr_db\":-9}\n\n{\"call\":\"G4QZB\",\"fading\":\"good\"}\n")
        .save("texts", "station_lines");
    Seed().integer(9, 0, LAST_KIND).rest("[{\"call\":\"K2QRX\"}]").save("texts", "station_array");
    Seed().integer(10, 0, LAST_KIND).rest("K2QRX, G4QZB # friends\n\nDL1QXA\r\n").save("texts", "callsigns");
    const std::string found =
        "\"freq_hz\":1500.5,\"drift_hz_s\":0,\"snr_db\":null,\"protocol\":\"ORVEL L\",\"call\":\"K2QRX\",\"locator\":"
        "\"FN31\",\"deep\":false,\"method\":\"coherent\",\"odds\":12.5}";
    Seed()
        .integer(11, 0, LAST_KIND)
        .rest("{\"file\":\"a.wav\",\"t_start\":-1.5,\"t_end\":39.6," + found)
        .save("texts", "spot_of_recording");
    Seed()
        .integer(11, 0, LAST_KIND)
        .rest("{\"utc_start\":\"2026-03-01T12:00:02.50Z\",\"utc_end\":\"2026-03-01T12:00:43.59Z\"," + found)
        .save("texts", "spot_of_receiver");
}

// Metadata of I/Q with two captures, and an archive of it.
void samples() {
    const std::string metadata =
        R"({"global":{"core:datatype":"ci16_le","core:sample_rate":8000,"core:version":"1.2.5","core:offset":2},)"
        R"("captures":[{"core:sample_start":2,"core:frequency":137000,"core:datetime":"2026-03-01T12:00:00.5Z"},)"
        R"({"core:sample_start":5,"core:header_bytes":3,"orvel:sideband":"lsb"}],"annotations":[]})";
    const std::string data = "0123456789abcdefghijklmnopqrstuvwxyz";
    Seed().flag(false).text(data, 200).rest(metadata).save("sigmf", "pair");
    const auto filled = [](std::string text) { return text.append((512 - text.size() % 512) % 512, '\0'); };
    Seed()
        .flag(true)
        .rest(tar_header("x/x.sigmf-meta", metadata.size()) + filled(metadata))
        .rest(tar_header("x/x.sigmf-data", data.size()) + filled(data))
        .save("sigmf", "archive");
    for (const auto& [name, format] : {std::pair{"u8", 0}, {"s24", 4}, {"f32", 7}, {"f64be", 15}}) {
        Seed().integer(format, 0, 15).flag(true).number(0.0005, 0, 0.1).rest(data).save("raw", name);
    }
}

// What stations read: their configuration, and their receivers' lines.
void stations() {
    Seed()
        .text("orvel", 20)
        .rest(std::string_view("\xad\xbc\xcb\xda\0\0\0\2\0\0\0\7\0\0\0\5orvel", 21))
        .save("replies", "replay");
    Seed()
        .rest(
            "[station]\n"
            "callsign = \"DL1QXA\"\n"
            "locator = \"JO62\"\n"
            "[store]\n"
            "path = \"x\"\n"
            "keep_days = 400\n"
            "[web]\n"
            "port = 8073\n"
            "[[receiver]]\n"
            "name = \"lf\"\n"
            "source = \"\"\n"
            "iq = true\n"
            "dial = 137500\n"
            "known = [\"K2QRX\"]\n"
            "hours = [\"18:00-06:00\"]\n"
            "[[output]]\n"
            "type = \"one\"\n"
            "text = \"x\"\n"
            "number = 5\n"
            "flag = true\n"
            "texts = \"x\"\n")
        .save("config", "whole");
    Seed()
        .rest(
            "[station]\n"
            "callsign = \"\"\n"
            "[web]\n"
            "port = 70000\n"
            "[[receiver]]\n"
            "name = \"l f\"\n"
            "[[output]]\n"
            "type = \"fax\"\n")
        .save("config", "mistakes");
    Seed()
        .rest(
            R"({"type":"spot","utc_start":"2026-03-01T12:00:00.00Z","utc_end":"2026-03-01T12:00:30.59Z","freq_hz":1500.0,"rf_hz":137500.0,"drift_hz_s":0.0,"snr_db":-20.0,"protocol":"OPERA 05","call":"K2QRX","locator":"","deep":false,"receiver":"lf"})")
        .save("child_lines", "spot");
    Seed()
        .rest(
            R"({"type":"status","utc":"2026-03-01T12:00:00.00Z","rate":12000,"level_db":-30.0,"peak_db":-10.0,"noise_db":-70.0,"clipped":0,"captured_s":60.0,"lost_s":1.5,"clock_error_ppm":null,"decode_s":0.5,"spots":1,"receiver":"lf"})")
        .save("child_lines", "status");
}

// What asks for a station's page.
void web_requests() {
    constexpr int32_t MOST_NAME = 40;
    const auto save = [](const char* name, std::string_view target, std::string_view authorization = "",
                         std::string_view tag = "", std::string_view coding = "") {
        Seed()
            .flag(true)
            .flag(true)
            .text("", MOST_NAME)
            .text(authorization, MOST_NAME)
            .text("", 60)
            .text(tag, MOST_NAME)
            .text(coding, 20)
            .rest(target)
            .save("web_requests", name);
    };
    constexpr std::string_view BEARER = "Bearer 0123456789abcdef";
    save("page", "", "", "", "gzip");
    save("unchanged", "style.css", "", "*");
    save("spots", "api/spots?call=K2*&receiver=lf&protocol=opera+05&from=0&until=2026-03-01T12%3A00Z&low_hz=1&limit=5",
         BEARER);
    save("page_of_spots", "api/spots?before=10&after=2", BEARER);
    save("transmissions", "api/transmissions?call=DL1QXA&before=9&limit=3", BEARER);
    save("curve", "api/curve?call=K2QRX&from=1769999999&until=1770001000&points=7", BEARER);
    save("minutes", "api/receivers?receiver=lf&from=1769999000&until=1770001000", BEARER);
    save("spectrum", "api/spectrum?receiver=lf", BEARER);
    save("status", "api/status", BEARER);
    save("login", "api/login", BEARER);
    save("metrics", "metrics", BEARER);
    Seed()
        .flag(true)
        .flag(false)
        .text("[::1]:8137", MOST_NAME)
        .text("http://[::1]:8137", MOST_NAME)
        .text("", MOST_NAME)
        .text("a=b; orvel_token=0123456789abcdef", 60)
        .text("", MOST_NAME)
        .text("", 20)
        .rest("api/beacons")
        .save("web_requests", "cookie");
}

// The same as it comes through a connection, and what follows once it is a WebSocket.
void web_connections() {
    const auto save = [](const char* name, bool upgraded, uint16_t cut, std::string_view bytes) {
        Seed().flag(upgraded).raw(cut).rest(bytes).save("web_connection", name);
    };
    save("two_requests", false, 20,
         "GET /api/status HTTP/1.1\r\nHost: localhost\r\n\r\n"
         "GET / HTTP/1.1\r\nHost: localhost\r\nAccept-Encoding: gzip\r\nConnection: close\r\n\r\n");
    save("body", false, 5, "POST /api/spots HTTP/1.1\r\nHost: localhost\r\nContent-Length: 3\r\n\r\nabc");
    save("chunks", false, 5,
         "GET / HTTP/1.1\r\nHost: localhost\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n");
    save("upgrade", false, 9,
         "GET /live HTTP/1.1\r\nHost: localhost\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
         "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n\x88\x80\1\2\3\4");
    using namespace std::string_view_literals;
    save("ping_and_goodbye", true, 3, "\x89\x82\0\0\0\0hi\x88\x82\0\0\0\0\3\xe8"sv);
    save("text", true, 9, "\x81\x85\1\2\3\4igohn"sv);
    save("fragments", true, 9, "\1\x81\0\0\0\0a\0\x81\0\0\0\0b\x80\x80\0\0\0\0"sv);
    save("long", true, 9, "\x82\xfe\4\1\0\0\0\0abc"sv);
    save("longer", true, 9, "\x82\xff\0\0\0\1\0\0\0\0\0\0\0\0abc"sv);
    save("not_masked", true, 9, "\x81\2hi"sv);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fputs("usage: make_corpus DIRECTORY\n", stderr);
        return 2;
    }
    root = argv[1];
    recordings();
    texts_and_codes();
    blocks();
    on_the_air();
    command_line();
    servers();
    samples();
    stations();
    web_requests();
    web_connections();
    return 0;
}

// The two recording readers: every rule by hand-made files, every message to the character, recordings of three other
// programs sample by sample, and damaged files against a plain model that works on the bytes in memory.
//
// The linker's --wrap makes single calls of the readers fail here (see Faults).
#include <gtest/gtest.h>
#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "failing_memory.h"
#include "iqread.h"
#include "wavread.h"

namespace {

// --- Calls that fail on demand ---------------------------------------------------------------------------------------

// The n-th call from now on fails, counted from 1; with 0 all succeed.
struct Countdown {
    int left = 0;
    bool strikes() { return left > 0 && --left == 0; }
};

struct Faults {
    Countdown read, seek, tell;
};
Faults faults;

}  // namespace

extern "C" {
std::size_t __real_fread(void* to, std::size_t size, std::size_t n, std::FILE* file);
std::size_t __wrap_fread(void* to, std::size_t size, std::size_t n, std::FILE* file);
int __real_fseeko(std::FILE* file, off_t offset, int whence);
int __wrap_fseeko(std::FILE* file, off_t offset, int whence);
off_t __real_ftello(std::FILE* file);
off_t __wrap_ftello(std::FILE* file);

std::size_t __wrap_fread(void* to, std::size_t size, std::size_t n, std::FILE* file) {
    const std::size_t got = __real_fread(to, size, n, file);
    return faults.read.strikes() && got > 0 ? got - 1 : got;
}
int __wrap_fseeko(std::FILE* file, off_t offset, int whence) {
    return faults.seek.strikes() ? -1 : __real_fseeko(file, offset, whence);
}
off_t __wrap_ftello(std::FILE* file) {
    return faults.tell.strikes() ? -1 : __real_ftello(file);
}
}

namespace {

// --- Files -----------------------------------------------------------------------------------------------------------

using Bytes = std::vector<uint8_t>;

Bytes little_endian(uint64_t value, int n_bytes) {
    Bytes bytes;
    for (int k = 0; k < n_bytes; ++k) bytes.push_back(static_cast<uint8_t>(value >> (8 * k)));
    return bytes;
}
Bytes text(std::string_view s) {
    return {s.begin(), s.end()};
}

template <class... Parts>
Bytes join(const Parts&... parts) {
    Bytes all;
    (all.insert(all.end(), parts.begin(), parts.end()), ...);
    return all;
}

constexpr uint32_t no_size = 0xFFFFFFFF;

// A chunk whose header claims any size; the body is padded to an even length.
Bytes chunk_claiming(std::string_view id, uint64_t size, const Bytes& body) {
    return join(text(id), little_endian(size, 4), body, Bytes(body.size() % 2));
}
Bytes chunk(std::string_view id, const Bytes& body) {
    return chunk_claiming(id, body.size(), body);
}

Bytes fmt_body(unsigned tag, unsigned channels, unsigned bits, uint32_t rate = 8000) {
    const unsigned frame = bits / 8 * channels;
    return join(little_endian(tag, 2), little_endian(channels, 2), little_endian(rate, 4),
                little_endian(uint64_t{rate} * frame, 4), little_endian(frame, 2), little_endian(bits, 2));
}
Bytes fmt(unsigned tag, unsigned channels, unsigned bits, uint32_t rate = 8000) {
    return chunk("fmt ", fmt_body(tag, channels, bits, rate));
}
Bytes ds64(uint64_t data_bytes) {
    return chunk("ds64",
                 join(little_endian(0, 8), little_endian(data_bytes, 8), little_endian(0, 8), little_endian(0, 4)));
}

template <class... Chunks>
Bytes file_of(std::string_view id, const Chunks&... chunks) {
    const Bytes body = join(chunks...);
    return join(text(id), little_endian(body.size() + 4, 4), text("WAVE"), body);
}
template <class... Chunks>
Bytes riff(const Chunks&... chunks) {
    return file_of("RIFF", chunks...);
}
template <class... Chunks>
Bytes rf64(const Chunks&... chunks) {
    return file_of("RF64", chunks...);
}

Bytes samples16(std::initializer_list<int> values) {
    Bytes bytes;
    for (const int value : values) bytes = join(bytes, little_endian(static_cast<uint64_t>(value), 2));
    return bytes;
}

// A name in the directory for temporary files that no other running test has; the file goes with it.
class TempPath {
  public:
    TempPath() {
        static int n = 0;
        path_ = testing::TempDir() + "orvel_readers_" + std::to_string(getpid()) + "_" + std::to_string(n++);
    }
    TempPath(const TempPath&) = delete;
    TempPath& operator=(const TempPath&) = delete;
    ~TempPath() { std::remove(path_.c_str()); }
    const std::string& str() const { return path_; }
    const char* c_str() const { return path_.c_str(); }

    void write(const Bytes& bytes) const {
        std::ofstream file(path_, std::ios::binary | std::ios::trunc);
        file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        ASSERT_TRUE(file.flush());
    }

    // Bytes, then a hole up to the size.
    void write_sparse(const Bytes& bytes, int64_t size) const {
        write(bytes);
        ASSERT_EQ(truncate(path_.c_str(), size), 0);
    }

  private:
    std::string path_;
};

// --- What a reader has made of a file --------------------------------------------------------------------------------

struct Outcome {
    int result = -1;
    std::string messages;
    uint32_t rate = 0;
    int32_t channels = 0;
    int32_t bits = 0;
    std::vector<double> a, b;  // samples, or I and Q
};

// As it is after a failed call, whatever was in it before.
wav_audio used_wav_record() {
    static double stale;
    return {.rate = 1, .channels = 2, .bits = 3, .samples = &stale, .count = 4};
}
iq_recording used_iq_record() {
    static double stale;
    return {.rate = 1, .bits = 3, .i = &stale, .q = &stale, .count = 4};
}

Outcome wav(const char* path) {
    Outcome outcome;
    wav_audio audio = used_wav_record();
    testing::internal::CaptureStderr();
    outcome.result = wav_read(path, audio);
    outcome.messages = testing::internal::GetCapturedStderr();
    if (outcome.result == 0) {
        outcome.rate = audio.rate;
        outcome.channels = audio.channels;
        outcome.bits = audio.bits;
        EXPECT_GT(audio.count, 0);
        EXPECT_NE(audio.samples, nullptr);
        outcome.a.assign(audio.samples, audio.samples + audio.count);
    } else {
        EXPECT_EQ(outcome.result, -1);
        EXPECT_EQ(audio.samples, nullptr);
        EXPECT_EQ(audio.count, 0);
    }
    wav_free(audio);
    EXPECT_EQ(audio.samples, nullptr);
    EXPECT_EQ(audio.count, 0);
    return outcome;
}

Outcome iq(const char* path) {
    Outcome outcome;
    iq_recording recording = used_iq_record();
    testing::internal::CaptureStderr();
    outcome.result = iq_read(path, recording);
    outcome.messages = testing::internal::GetCapturedStderr();
    if (outcome.result == 0) {
        outcome.rate = recording.rate;
        outcome.channels = 2;
        outcome.bits = recording.bits;
        EXPECT_GT(recording.count, 0);
        EXPECT_NE(recording.i, nullptr);
        EXPECT_NE(recording.q, nullptr);
        outcome.a.assign(recording.i, recording.i + recording.count);
        outcome.b.assign(recording.q, recording.q + recording.count);
    } else {
        EXPECT_EQ(outcome.result, -1);
        EXPECT_EQ(recording.i, nullptr);
        EXPECT_EQ(recording.q, nullptr);
        EXPECT_EQ(recording.count, 0);
    }
    iq_free(recording);
    EXPECT_EQ(recording.i, nullptr);
    EXPECT_EQ(recording.q, nullptr);
    EXPECT_EQ(recording.count, 0);
    return outcome;
}

using Reader = Outcome (*)(const char* path);

Outcome read_bytes(Reader reader, const TempPath& path, const Bytes& bytes) {
    path.write(bytes);
    return reader(path.c_str());
}
Outcome read_bytes(Reader reader, const Bytes& bytes) {
    return read_bytes(reader, TempPath(), bytes);
}

// The samples, and that nothing was said.
using Values = std::vector<double>;
Values quiet_samples(const Outcome& outcome) {
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.messages, "");
    return outcome.a;
}

// The message of a file that is refused, with P for its path.
std::string refusal(Reader reader, const Bytes& bytes) {
    const TempPath path;
    const Outcome outcome = read_bytes(reader, path, bytes);
    EXPECT_EQ(outcome.result, -1);
    const std::string& messages = outcome.messages;
    const auto at = messages.find(path.str());
    return at == std::string::npos ? messages : messages.substr(0, at) + "P" + messages.substr(at + path.str().size());
}

const Bytes four_zeros = Bytes(4);

// --- Chunks ----------------------------------------------------------------------------------------------------------

TEST(WavReader, FillsTheRecordOfAPlainFile) {
    const Outcome outcome =
        read_bytes(wav, riff(fmt(1, 1, 16, 44100), chunk("data", samples16({0, 1, -1, 32767, -32768}))));
    EXPECT_EQ(quiet_samples(outcome), (Values{0, 1 / 32768.0, -1 / 32768.0, 32767 / 32768.0, -1}));
    EXPECT_EQ(outcome.rate, 44100U);
    EXPECT_EQ(outcome.channels, 1);
    EXPECT_EQ(outcome.bits, 16);
}

TEST(WavReader, GivesTheMeanOfTheChannels) {
    EXPECT_EQ(quiet_samples(read_bytes(wav, riff(fmt(1, 2, 16), chunk("data", samples16({0x4000, 0}))))), Values{0.25});
    const Outcome three =
        read_bytes(wav, riff(fmt(1, 3, 16), chunk("data", samples16({0x4000, -0x2000, 0x1000, 1, 2, 5}))));
    EXPECT_EQ(quiet_samples(three), (Values{0x3000 / 32768.0 / 3, 8 / 32768.0 / 3}));
    EXPECT_EQ(three.channels, 3);
}

TEST(WavReader, ReadsAsManyChannelsAsTheFieldHolds) {
    constexpr unsigned channels = 65535;
    Bytes data(2 * 4 * channels);
    for (std::size_t k = 0; k < channels; ++k) data[4 * k + 3] = 0x80;  // every channel of the first frame at -1
    EXPECT_EQ(quiet_samples(read_bytes(wav, riff(fmt(1, channels, 32), chunk("data", data)))), (Values{-1, 0}));
}

TEST(WavReader, TakesNoMoreMemoryThanTheFileHolds) {
    const TempPath path;
    path.write(riff(fmt(1, 65535, 32), chunk_claiming("data", no_size, Bytes(4 * 65535))));
    FailingMemory memory;
    const Outcome outcome = memory.watch([&] { return wav(path.c_str()); });
    EXPECT_EQ(outcome.a, Values{0});
    EXPECT_LT(memory.largest_request(), 1'000'000U);
    EXPECT_GE(memory.largest_request(), 4 * 65535U);
}

TEST(IqReader, FillsTheRecordOfAPlainFile) {
    const Outcome outcome = read_bytes(iq, riff(fmt(1, 2, 16, 96000), chunk("data", samples16({1, -2, 3, -32768}))));
    EXPECT_EQ(quiet_samples(outcome), (Values{1 / 32768.0, 3 / 32768.0}));
    EXPECT_EQ(outcome.b, (Values{-2 / 32768.0, -1}));
    EXPECT_EQ(outcome.rate, 96000U);
    EXPECT_EQ(outcome.bits, 16);
}

TEST(Readers, TakeUnsignedRates) {
    const Bytes bytes = riff(fmt(1, 2, 16, 4000000000), chunk("data", four_zeros));
    EXPECT_EQ(read_bytes(wav, bytes).rate, 4000000000U);
    EXPECT_EQ(read_bytes(iq, bytes).rate, 4000000000U);
}

class BothReaders : public testing::TestWithParam<std::string> {
  protected:
    const Reader reader = GetParam() == "wav_read" ? wav : iq;
};
INSTANTIATE_TEST_SUITE_P(All, BothReaders, testing::Values("wav_read", "iq_read"),
                         [](const auto& parameter) { return parameter.param; });

// Stereo, so that both readers take it: one frame of two equal samples of value / 32768.
Bytes frame(int value) {
    return samples16({value, value});
}
Bytes data(int value) {
    return chunk("data", frame(value));
}
double as_sample(int value) {
    return value / 32768.0;
}
const Bytes stereo = fmt(1, 2, 16);

std::string missing(Reader reader, const std::string& path = "P") {
    return (reader == wav ? "wav_read: '" : "iq_read: '") + path + "' - missing fmt or data chunk\n";
}
std::string invalid(Reader reader, const std::string& path = "P") {
    return reader == wav ? "wav_read: '" + path + "' is not a valid RIFF/WAVE file\n"
                         : "iq_read: '" + path + "' is not a valid RIFF/RF64 WAVE file\n";
}

TEST_P(BothReaders, TakeDataBeforeFormat) {
    EXPECT_EQ(quiet_samples(read_bytes(reader, riff(data(7), stereo))), Values{as_sample(7)});
}

TEST_P(BothReaders, SkipOtherChunksWithThePadByteOfOddOnes) {
    const Bytes odd = chunk("LIST", Bytes(5, 0xEE));
    ASSERT_EQ(odd.size(), 14U);
    EXPECT_EQ(quiet_samples(read_bytes(reader, riff(odd, stereo, odd, chunk("fact", four_zeros), data(7)))),
              Values{as_sample(7)});
    EXPECT_EQ(quiet_samples(read_bytes(reader, riff(chunk("data", Bytes{7, 0, 7, 0, 9}), odd, stereo))),
              Values{as_sample(7)});
    EXPECT_EQ(quiet_samples(read_bytes(reader, riff(chunk("fmt ", join(fmt_body(1, 2, 16), Bytes(1))), data(7)))),
              Values{as_sample(7)});
}

TEST_P(BothReaders, SkipEmptyChunks) {
    EXPECT_EQ(quiet_samples(read_bytes(reader, riff(chunk("junk", {}), stereo, chunk("", four_zeros), data(7)))),
              Values{as_sample(7)});
}

TEST_P(BothReaders, LetALaterFormatOverrideAnEarlier) {
    const Outcome outcome = read_bytes(reader, riff(fmt(1, 2, 8), fmt(1, 2, 16, 11025), data(7)));
    EXPECT_EQ(quiet_samples(outcome), Values{as_sample(7)});
    EXPECT_EQ(outcome.rate, 11025U);
    EXPECT_EQ(outcome.bits, 16);
    EXPECT_EQ(quiet_samples(read_bytes(reader, riff(data(7), fmt(9, 0, 1), stereo))), Values{as_sample(7)});
}

TEST_P(BothReaders, StopAtTheFirstDataAfterTheFormat) {
    EXPECT_EQ(quiet_samples(read_bytes(reader, riff(stereo, data(7), data(8), fmt(9, 0, 1)))), Values{as_sample(7)});
}

TEST_P(BothReaders, PreferTheLatestOfSeveralDataChunksBeforeTheFormat) {
    EXPECT_EQ(quiet_samples(read_bytes(reader, riff(data(7), data(8), stereo))), Values{as_sample(8)});
    EXPECT_EQ(quiet_samples(read_bytes(reader, riff(data(7), stereo, data(8), data(9)))), Values{as_sample(8)});
}

TEST_P(BothReaders, EndTheWalkAtAFormatBelow16Bytes) {
    const Bytes short_format = chunk("fmt ", Bytes(14));
    EXPECT_EQ(refusal(reader, riff(short_format, stereo, data(7))), missing(reader));
    EXPECT_EQ(refusal(reader, riff(stereo, short_format, data(7))), missing(reader));
    EXPECT_EQ(quiet_samples(read_bytes(reader, riff(data(7), stereo, short_format, data(8)))), Values{as_sample(7)});
    EXPECT_EQ(refusal(reader, riff(chunk_claiming("fmt ", 15, fmt_body(1, 2, 16)), data(7))), missing(reader));
}

TEST_P(BothReaders, TakeALongFormatChunkWholeOnlyWhenItsFirst40BytesAreThere) {
    for (const std::size_t extra : {1U, 2U, 23U, 24U, 25U, 30U, 1000U}) {
        const Bytes format = chunk("fmt ", join(fmt_body(1, 2, 16), Bytes(extra)));
        EXPECT_EQ(quiet_samples(read_bytes(reader, riff(format, data(7)))), Values{as_sample(7)}) << extra;
    }
    const Bytes body = fmt_body(1, 2, 16);
    for (const std::size_t extra : {0U, 1U, 22U, 23U})
        EXPECT_EQ(refusal(reader, riff(data(7), text("fmt "), little_endian(1000, 4), body, Bytes(extra))),
                  missing(reader))
            << extra;
    EXPECT_EQ(
        quiet_samples(read_bytes(reader, riff(data(7), text("fmt "), little_endian(0xFFFFFFFE, 4), body, Bytes(24)))),
        Values{as_sample(7)});
    EXPECT_EQ(refusal(reader, riff(data(7), text("fmt "), little_endian(18, 4), body)), missing(reader));
}

TEST_P(BothReaders, DoNotMindTheSizeInTheFileHeader) {
    for (const uint64_t size : {uint64_t{0}, uint64_t{1}, uint64_t{no_size}}) {
        const Bytes bytes = join(text("RIFF"), little_endian(size, 4), text("WAVE"), stereo, data(7));
        EXPECT_EQ(quiet_samples(read_bytes(reader, bytes)), Values{as_sample(7)});
    }
}

TEST_P(BothReaders, DropAPartialLastFrame) {
    for (const std::size_t extra : {1U, 2U, 3U})
        EXPECT_EQ(quiet_samples(read_bytes(reader, riff(stereo, chunk("data", join(frame(7), Bytes(extra, 9)))))),
                  Values{as_sample(7)});
}

TEST_P(BothReaders, JoinBlocksWithoutASeam) {
    for (const int n : {65535, 65536, 65537, 131072, 140000}) {
        Bytes body;
        Values expected;
        for (int k = 0; k < n; ++k) {
            const int value = (k * 7919) % 65536 - 32768;
            for (int channel = 0; channel < 2; ++channel) {
                body.push_back(static_cast<uint8_t>(value));
                body.push_back(static_cast<uint8_t>(value >> 8));
            }
            expected.push_back(as_sample(value));
        }
        EXPECT_EQ(quiet_samples(read_bytes(reader, riff(stereo, chunk("data", body)))), expected) << n;
    }
}

TEST_P(BothReaders, RefuseWhatIsNoRiffWave) {
    const Bytes good = riff(stereo, data(7));
    for (std::size_t n = 0; n < 12; ++n)
        EXPECT_EQ(refusal(reader, Bytes(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(n))), invalid(reader));
    for (const std::string_view id : {"RIFX", "riff", "FORM", "RF65"})
        EXPECT_EQ(refusal(reader, file_of(id, stereo, data(7))), invalid(reader)) << id;
    Bytes other = good;
    other[11] = 'e';
    EXPECT_EQ(refusal(reader, other), invalid(reader));
}

TEST_P(BothReaders, RefuseAFileWithoutFormatOrData) {
    EXPECT_EQ(refusal(reader, riff()), missing(reader));
    EXPECT_EQ(refusal(reader, riff(stereo)), missing(reader));
    EXPECT_EQ(refusal(reader, riff(data(7))), missing(reader));
    EXPECT_EQ(refusal(reader, riff(fmt(9, 0, 1))), missing(reader));
    EXPECT_EQ(refusal(reader, riff(stereo, text("data"), Bytes(3))), missing(reader));
}

TEST_P(BothReaders, CannotOpenWhatIsNotThere) {
    const TempPath path;
    const Outcome outcome = reader(path.c_str());
    EXPECT_EQ(outcome.result, -1);
    EXPECT_EQ(outcome.messages, GetParam() + ": cannot open '" + path.str() + "'\n");
    EXPECT_EQ(reader("").messages, GetParam() + ": cannot open ''\n");
}

TEST_P(BothReaders, RefuseDirectoriesAndDevices) {
    for (const std::string& path : {testing::TempDir(), std::string("/dev/null"), std::string("/dev/zero")}) {
        const Outcome outcome = reader(path.c_str());
        EXPECT_EQ(outcome.result, -1);
        EXPECT_EQ(outcome.messages, invalid(reader, path));
    }
}

TEST_P(BothReaders, EndTheWalkWhereAFileCannotBePositioned) {
    const TempPath path;
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const Bytes bytes = riff(stereo, data(7));
    std::thread writer([&] { path.write(bytes); });
    const Outcome outcome = reader(path.c_str());
    writer.join();
    EXPECT_EQ(outcome.result, -1);
    EXPECT_EQ(outcome.messages, missing(reader, path.str()));
}

TEST_P(BothReaders, FreeARecordMoreThanOnce) {
    if (reader == wav) {
        wav_audio audio = {};
        wav_free(audio);
        const TempPath path;
        path.write(riff(stereo, data(7)));
        ASSERT_EQ(wav_read(path.c_str(), audio), 0);
        wav_free(audio);
        wav_free(audio);
        EXPECT_EQ(audio.samples, nullptr);
        EXPECT_EQ(audio.rate, 8000U);
    } else {
        iq_recording recording = {};
        iq_free(recording);
        const TempPath path;
        path.write(riff(stereo, data(7)));
        ASSERT_EQ(iq_read(path.c_str(), recording), 0);
        iq_free(recording);
        iq_free(recording);
        EXPECT_EQ(recording.i, nullptr);
        EXPECT_EQ(recording.rate, 8000U);
    }
}

// --- Formats ---------------------------------------------------------------------------------------------------------

TEST(WavReader, TakesPcmAndExtensibleOnly) {
    for (const unsigned tag : {1U, 65534U})
        EXPECT_EQ(quiet_samples(read_bytes(wav, riff(fmt(tag, 1, 16), data(7)))), (Values(2, as_sample(7))));
    for (const unsigned tag : {0U, 2U, 3U, 6U, 65533U, 65535U}) {
        const std::string expected =
            "wav_read: unsupported audio format " + std::to_string(tag) + " (integer PCM required)\n";
        EXPECT_EQ(refusal(wav, riff(fmt(tag, 1, 32), data(7))), expected);
        EXPECT_EQ(refusal(wav, riff(data(7), fmt(tag, 1, 32))), expected);
    }
}

TEST(WavReader, TakesDepthsOf8To32BitsInWholeBytes) {
    for (const unsigned bits : {0U, 1U, 7U, 9U, 12U, 20U, 25U, 31U, 33U, 40U, 64U, 65535U})
        EXPECT_EQ(refusal(wav, riff(fmt(1, 1, bits), data(7))),
                  "wav_read: unsupported bit depth " + std::to_string(bits) + "\n");
}

TEST(WavReader, RefusesFilesWithoutChannels) {
    EXPECT_EQ(refusal(wav, riff(fmt(1, 0, 16), data(7))), "wav_read: invalid channel count\n");
}

TEST(WavReader, ChecksFormatThenDepthThenChannelsThenData) {
    EXPECT_EQ(refusal(wav, riff(fmt(3, 0, 5), chunk("data", {}))),
              "wav_read: unsupported audio format 3 (integer PCM required)\n");
    EXPECT_EQ(refusal(wav, riff(fmt(1, 0, 5), chunk("data", {}))), "wav_read: unsupported bit depth 5\n");
    EXPECT_EQ(refusal(wav, riff(fmt(1, 0, 8), chunk("data", {}))), "wav_read: invalid channel count\n");
    EXPECT_EQ(refusal(wav, riff(fmt(1, 1, 8), chunk("data", {}))), "wav_read: no usable audio data in 'P'\n");
}

TEST(IqReader, TakesPcmFloatAndExtensibleOnly) {
    for (const unsigned tag : {1U, 65534U})
        EXPECT_EQ(quiet_samples(read_bytes(iq, riff(fmt(tag, 2, 16), data(7)))), Values{as_sample(7)});
    for (const unsigned tag : {0U, 2U, 6U, 65533U, 65535U})
        EXPECT_EQ(refusal(iq, riff(fmt(tag, 2, 16), data(7))),
                  "iq_read: unsupported audio format " + std::to_string(tag) + " (integer or float32 PCM required)\n");
}

TEST(IqReader, TakesFloatOf32BitsOnly) {
    for (const unsigned bits : {0U, 8U, 16U, 24U, 33U, 64U})
        EXPECT_EQ(refusal(iq, riff(fmt(3, 2, bits), chunk("data", Bytes(32)))),
                  "iq_read: float format requires 32-bit samples (got " + std::to_string(bits) + "-bit)\n");
}

TEST(IqReader, TakesDepthsOf8To32BitsInWholeBytes) {
    for (const unsigned bits : {0U, 1U, 7U, 9U, 12U, 20U, 25U, 31U, 33U, 40U, 64U, 65535U})
        EXPECT_EQ(refusal(iq, riff(fmt(1, 2, bits), data(7))),
                  "iq_read: unsupported bit depth " + std::to_string(bits) + "\n");
}

TEST(IqReader, TakesTwoChannelsOnly) {
    for (const unsigned channels : {0U, 1U, 3U, 65535U})
        EXPECT_EQ(refusal(iq, riff(fmt(1, channels, 16), data(7))),
                  "iq_read: 'P' has " + std::to_string(channels) +
                      " channel(s) - I/Q capture requires exactly 2 (left=I, right=Q)\n");
}

TEST(IqReader, ChecksFormatThenFloatThenDepthThenChannelsThenData) {
    EXPECT_EQ(refusal(iq, riff(fmt(2, 1, 5), chunk("data", {}))),
              "iq_read: unsupported audio format 2 (integer or float32 PCM required)\n");
    EXPECT_EQ(refusal(iq, riff(fmt(3, 1, 5), chunk("data", {}))),
              "iq_read: float format requires 32-bit samples (got 5-bit)\n");
    EXPECT_EQ(refusal(iq, riff(fmt(1, 1, 5), chunk("data", {}))), "iq_read: unsupported bit depth 5\n");
    EXPECT_EQ(refusal(iq, riff(fmt(1, 1, 8), chunk("data", {}))),
              "iq_read: 'P' has 1 channel(s) - I/Q capture requires exactly 2 (left=I, right=Q)\n");
    EXPECT_EQ(refusal(iq, riff(fmt(1, 2, 8), chunk("data", {}))), "iq_read: no usable I/Q data in 'P'\n");
}

TEST(IqReader, WidensFloats) {
    const float infinity = std::numeric_limits<float>::infinity();
    const std::vector<float> floats = {0.1F, -2.5F, infinity, std::numeric_limits<float>::denorm_min(), -0.0F, 1e38F};
    Bytes body;
    for (const float value : floats) body = join(body, little_endian(std::bit_cast<uint32_t>(value), 4));
    const Outcome outcome = read_bytes(iq, riff(fmt(3, 2, 32), chunk("data", body)));
    EXPECT_EQ(quiet_samples(outcome), (Values{double{0.1F}, double{infinity}, -0.0}));
    EXPECT_EQ(outcome.b, (Values{-2.5, double{std::numeric_limits<float>::denorm_min()}, double{1e38F}}));
    EXPECT_TRUE(std::signbit(outcome.a[2]));
    EXPECT_EQ(outcome.bits, 32);
}

TEST(IqReader, ConvertsExtensibleFilesAsIntegersEvenOf32Bits) {
    const Bytes one = little_endian(std::bit_cast<uint32_t>(1.0F), 4);
    const Outcome outcome = read_bytes(iq, riff(fmt(65534, 2, 32), chunk("data", join(one, one))));
    EXPECT_EQ(quiet_samples(outcome), Values{0x3F800000 / 2147483648.0});
}

// --- Scaling ---------------------------------------------------------------------------------------------------------

double scaled(uint64_t word, int32_t bits) {
    return pcm_value(little_endian(word, bits / 8).data(), bits);
}

TEST(PcmValue, IsOffsetBinaryOf8Bits) {
    for (int word = 0; word < 256; ++word) EXPECT_EQ(scaled(static_cast<uint64_t>(word), 8), (word - 128) / 128.0);
}

TEST(PcmValue, IsTwosComplementOf16Bits) {
    for (int value = -32768; value < 32768; ++value)
        ASSERT_EQ(scaled(static_cast<uint64_t>(value), 16), value / 32768.0);
}

TEST(PcmValue, IsTwosComplementOf24Bits) {
    for (int value = -8388608; value < 8388608; value += 37)
        ASSERT_EQ(scaled(static_cast<uint64_t>(value), 24), value / 8388608.0);
    EXPECT_EQ(scaled(0x7FFFFF, 24), 8388607 / 8388608.0);
    EXPECT_EQ(scaled(0x800000, 24), -1);
    EXPECT_EQ(scaled(0xFFFFFF, 24), -1 / 8388608.0);
}

TEST(PcmValue, IsTwosComplementOf32Bits) {
    EXPECT_EQ(scaled(0x7FFFFFFF, 32), 2147483647 / 2147483648.0);
    EXPECT_EQ(scaled(0x80000000, 32), -1);
    EXPECT_EQ(scaled(0xFFFFFFFF, 32), -1 / 2147483648.0);
    for (int64_t value = -2147483648; value < 2147483648; value += 99991)
        ASSERT_EQ(scaled(static_cast<uint64_t>(value), 32), static_cast<double>(value) / 2147483648.0);
}

// --- Sizes -----------------------------------------------------------------------------------------------------------

TEST(WavReader, WarnsOfDataThatClaimsMoreThanTheFileHolds) {
    for (const uint32_t claim : {5U, 0x7FFFFFFFU, no_size}) {
        const Outcome outcome = read_bytes(wav, riff(stereo, chunk_claiming("data", claim, frame(7))));
        EXPECT_EQ(outcome.result, 0);
        EXPECT_EQ(outcome.a, Values{as_sample(7)});
        EXPECT_EQ(outcome.messages, "wav_read: warning - data chunk claims " + std::to_string(claim) +
                                        " bytes but only 4 are available in the file; truncating.\n");
    }
}

TEST(IqReader, WarnsOfDataThatClaimsMoreThanTheFileHolds) {
    for (const uint32_t claim : {5U, 0x7FFFFFFFU, no_size}) {
        const Outcome outcome = read_bytes(iq, riff(stereo, chunk_claiming("data", claim, frame(7))));
        EXPECT_EQ(outcome.result, 0);
        EXPECT_EQ(outcome.a, Values{as_sample(7)});
        EXPECT_EQ(outcome.messages, "iq_read: warning - data chunk claims " + std::to_string(claim) +
                                        " bytes but only 4 are available; truncating.\n");
    }
}

TEST(WavReader, NeedsOneWholeFrame) {
    for (const std::size_t n : {0U, 1U, 3U})
        EXPECT_EQ(refusal(wav, riff(stereo, chunk("data", Bytes(n)), chunk("LIST", Bytes(8)))),
                  "wav_read: no usable audio data in 'P'\n");
    EXPECT_EQ(refusal(wav, riff(stereo, text("data"), little_endian(100, 4), Bytes(3))),
              "wav_read: warning - data chunk claims 100 bytes but only 3 are available in the file; truncating.\n"
              "wav_read: no usable audio data in 'P'\n");
}

TEST(IqReader, NeedsOneWholePair) {
    for (const std::size_t n : {0U, 1U, 3U})
        EXPECT_EQ(refusal(iq, riff(stereo, chunk("data", Bytes(n)), chunk("LIST", Bytes(8)))),
                  "iq_read: no usable I/Q data in 'P'\n");
    EXPECT_EQ(refusal(iq, riff(stereo, text("data"), little_endian(100, 4), Bytes(3))),
              "iq_read: warning - data chunk claims 100 bytes but only 3 are available; truncating.\n"
              "iq_read: no usable I/Q data in 'P'\n");
}

TEST(WavReader, RefusesRf64) {
    EXPECT_EQ(refusal(wav, rf64(ds64(4), stereo, chunk_claiming("data", no_size, frame(7)))),
              "wav_read: 'P' is not a valid RIFF/WAVE file\n");
}

TEST(WavReader, SkipsDs64) {
    EXPECT_EQ(read_bytes(wav, riff(ds64(4), stereo, chunk_claiming("data", no_size, join(frame(7), frame(8))))).a,
              (Values{as_sample(7), as_sample(8)}));
}

TEST(WavReader, GoesOnAfterDataOfUnknownSizeAsAfterAnyOther) {
    EXPECT_EQ(refusal(wav, riff(chunk_claiming("data", no_size, frame(7)), stereo)),
              "wav_read: 'P' - missing fmt or data chunk\n");
}

TEST(IqReader, TakesTheSizeFromDs64) {
    const Bytes unsized = chunk_claiming("data", no_size, join(frame(7), frame(8), frame(9)));
    EXPECT_EQ(quiet_samples(read_bytes(iq, rf64(ds64(8), stereo, unsized))), (Values{as_sample(7), as_sample(8)}));
    EXPECT_EQ(quiet_samples(read_bytes(iq, rf64(stereo, ds64(8), unsized))), (Values{as_sample(7), as_sample(8)}));
    EXPECT_EQ(quiet_samples(read_bytes(iq, riff(ds64(8), stereo, unsized))), (Values{as_sample(7), as_sample(8)}));
    EXPECT_EQ(quiet_samples(read_bytes(iq, rf64(ds64(12), ds64(4), stereo, unsized))), Values{as_sample(7)});
}

TEST(IqReader, PrefersASizeOf32BitsToThatInDs64) {
    EXPECT_EQ(quiet_samples(read_bytes(iq, rf64(ds64(4), stereo, chunk("data", join(frame(7), frame(8)))))),
              (Values{as_sample(7), as_sample(8)}));
}

TEST(IqReader, TakesAnySizeInDs64) {
    for (const uint64_t claim : {uint64_t{9}, uint64_t{1} << 32, (uint64_t{1} << 63) - 1, uint64_t{1} << 63,
                                 std::numeric_limits<uint64_t>::max()}) {
        const Outcome outcome = read_bytes(iq, rf64(ds64(claim), stereo, chunk_claiming("data", no_size, frame(7))));
        EXPECT_EQ(outcome.result, 0);
        EXPECT_EQ(outcome.a, Values{as_sample(7)});
        EXPECT_EQ(outcome.messages, "iq_read: warning - data chunk claims " + std::to_string(claim) +
                                        " bytes but only 4 are available; truncating.\n");
    }
    EXPECT_EQ(refusal(iq, rf64(ds64(0), stereo, chunk_claiming("data", no_size, frame(7)))),
              "iq_read: no usable I/Q data in 'P'\n");
}

TEST(IqReader, NeedsTheFormatBeforeDataOfUnknownSize) {
    EXPECT_EQ(refusal(iq, rf64(ds64(4), chunk_claiming("data", no_size, frame(7)), stereo)),
              "iq_read: 'P' - missing fmt or data chunk\n");
    EXPECT_EQ(refusal(iq, rf64(chunk_claiming("data", no_size, frame(7)), stereo)),
              "iq_read: 'P' - missing fmt or data chunk\n");
    EXPECT_EQ(quiet_samples(read_bytes(iq, rf64(ds64(99), data(7), stereo))), Values{as_sample(7)});
}

TEST(IqReader, ReadsDs64FromTheFileWhateverSizeItsChunkClaims) {
    const Bytes body = join(little_endian(0, 8), little_endian(4, 8), Bytes(12));
    const Bytes unsized = chunk_claiming("data", no_size, join(frame(7), frame(8)));
    EXPECT_EQ(quiet_samples(read_bytes(iq, rf64(chunk("ds64", join(body, Bytes(12))), stereo, unsized))),
              Values{as_sample(7)});
    // The fields of an empty one are those bytes of the following chunks that lie in their place.
    const Bytes empty = chunk("ds64", {});
    const Bytes junk = chunk("junk", join(little_endian(4, 8), Bytes(12)));
    EXPECT_EQ(quiet_samples(read_bytes(iq, rf64(empty, junk, stereo, unsized))), Values{as_sample(7)});
    // A ds64 that the file cuts short counts for nothing and does not end the walk.
    EXPECT_EQ(quiet_samples(read_bytes(iq, rf64(data(7), stereo, empty, text("junk")))), Values{as_sample(7)});
    EXPECT_EQ(quiet_samples(read_bytes(iq, rf64(ds64(4), stereo, empty, unsized))), Values{as_sample(7)});
}

TEST(WavReader, RefusesMoreSamplesThan31BitsCount) {
    const TempPath path;
    const int64_t data_bytes = int64_t{INT32_MAX} + 1;
    const Bytes start = riff(fmt(1, 1, 8), chunk_claiming("data", static_cast<uint64_t>(data_bytes), {}));
    path.write_sparse(start, static_cast<int64_t>(start.size()) + data_bytes);
    EXPECT_EQ(wav(path.c_str()).messages,
              "wav_read: '" + path.str() + "' is too long (2147483648 samples, max 2147483647)\n");
}

TEST(IqReader, RefusesMorePairsThan31BitsCount) {
    const TempPath path;
    const int64_t data_bytes = 2 * (int64_t{INT32_MAX} + 1) + 1;
    const Bytes start =
        rf64(ds64(static_cast<uint64_t>(data_bytes)), fmt(1, 2, 8), chunk_claiming("data", no_size, {}));
    path.write_sparse(start, static_cast<int64_t>(start.size()) + data_bytes);
    EXPECT_EQ(iq(path.c_str()).messages,
              "iq_read: '" + path.str() + "' is too long (2147483648 samples per channel, max 2147483647)\n");
}

// A file with chunks before and after four gigabytes that are not written.
void write_around_hole(const TempPath& path, const Bytes& start, uint32_t hole, const Bytes& end) {
    path.write_sparse(start, static_cast<int64_t>(start.size()) + int64_t{hole});
    std::ofstream file(path.str(), std::ios::binary | std::ios::app);
    file.write(reinterpret_cast<const char*>(end.data()), static_cast<std::streamsize>(end.size()));
    ASSERT_TRUE(file.flush());
}

TEST(Readers, FindChunksBeyond4GiB) {
    const TempPath path;
    constexpr uint32_t size = 0xFFFFFFF0;
    write_around_hole(path, riff(stereo, chunk_claiming("junk", size, {})), size, data(7));
    EXPECT_EQ(quiet_samples(wav(path.c_str())), Values{as_sample(7)});
    EXPECT_EQ(quiet_samples(iq(path.c_str())), Values{as_sample(7)});
}

// The largest size is one like any other to the one, and to the other means that the size is elsewhere.
TEST(Readers, DifferOverWhatFollowsDataOfTheLargestSize) {
    const TempPath path;
    const Bytes behind = join(Bytes(1), fmt(1, 2, 12));
    write_around_hole(path, riff(chunk_claiming("data", no_size, {})), no_size, behind);
    EXPECT_EQ(wav(path.c_str()).messages, "wav_read: unsupported bit depth 12\n");
    EXPECT_EQ(iq(path.c_str()).messages, "iq_read: '" + path.str() + "' - missing fmt or data chunk\n");
}

// --- Calls that fail -------------------------------------------------------------------------------------------------

// What is left of the faults must not reach the next test.
class FailingCalls : public testing::Test {
  protected:
    ~FailingCalls() override { faults = {}; }
};

TEST_F(FailingCalls, AllocationGivesTheMessageOfTheWavReader) {
    const TempPath path;
    path.write(riff(stereo, data(7)));
    const int64_t refused = refuse_each_request([&](FailingMemory& memory) {
        wav_audio audio = used_wav_record();
        testing::internal::CaptureStderr();
        const int result = memory.watch([&] { return wav_read(path.c_str(), audio); });
        const std::string messages = testing::internal::GetCapturedStderr();
        if (memory.has_refused()) {
            EXPECT_EQ(result, -1);
            EXPECT_EQ(messages, "wav_read: memory allocation failed (1 samples)\n");
            EXPECT_EQ(audio.samples, nullptr);
            EXPECT_EQ(audio.count, 0);
        } else {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(messages, "");
            ASSERT_EQ(audio.count, 1);
            EXPECT_EQ(audio.samples[0], as_sample(7));
        }
        wav_free(audio);
    });
    EXPECT_EQ(refused, 2);
}

TEST_F(FailingCalls, TheLongestFileIsTooMuchForMemoryOnly) {
    const TempPath path;
    const Bytes start = riff(fmt(1, 1, 8), chunk_claiming("data", INT32_MAX, {}));
    path.write_sparse(start, static_cast<int64_t>(start.size()) + INT32_MAX);
    wav_audio audio = used_wav_record();
    testing::internal::CaptureStderr();
    FailingMemory memory(1, Refuses::ALL_FURTHER);
    EXPECT_EQ(memory.watch([&] { return wav_read(path.c_str(), audio); }), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "wav_read: memory allocation failed (2147483647 samples)\n");
    EXPECT_EQ(audio.samples, nullptr);
}

TEST_F(FailingCalls, AllocationGivesTheMessageOfTheIqReader) {
    const TempPath path;
    path.write(riff(stereo, chunk("data", join(frame(7), frame(8)))));
    const int64_t refused = refuse_each_request([&](FailingMemory& memory) {
        iq_recording recording = used_iq_record();
        testing::internal::CaptureStderr();
        const int result = memory.watch([&] { return iq_read(path.c_str(), recording); });
        const std::string messages = testing::internal::GetCapturedStderr();
        if (memory.has_refused()) {
            EXPECT_EQ(result, -1);
            EXPECT_EQ(messages, "iq_read: memory allocation failed (2 samples per channel)\n");
            EXPECT_EQ(recording.i, nullptr);
            EXPECT_EQ(recording.q, nullptr);
            EXPECT_EQ(recording.count, 0);
        } else {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(messages, "");
            ASSERT_EQ(recording.count, 2);
            EXPECT_EQ(recording.i[1], as_sample(8));
        }
        iq_free(recording);
    });
    EXPECT_EQ(refused, 3);
}

// A file of fmt and data is positioned after fmt, at the end, back, and at the data.
TEST_F(FailingCalls, PositioningGivesTheMessageOfItsStep) {
    for (const auto& [reader, name] : {std::pair<Reader, const char*>{wav, "wav_read"}, {iq, "iq_read"}}) {
        const std::string size = std::string(name) + ": cannot determine the size of 'P'\n";
        const std::string at_data = std::string(name) + ": seek error in 'P'\n";
        const std::vector<std::string> expected = {missing(reader), size, size, at_data};
        for (std::size_t n = 0; n < expected.size(); ++n) {
            faults.seek.left = static_cast<int>(n) + 1;
            EXPECT_EQ(refusal(reader, riff(stereo, data(7))), expected[n]);
        }
        faults.tell.left = 1;
        EXPECT_EQ(refusal(reader, riff(stereo, data(7))), size);
    }
}

// Read are the file header, a chunk header, fmt, the header of data and its frames in two blocks.
TEST_F(FailingCalls, ReadingGivesTheMessageOfItsStep) {
    const Bytes bytes = riff(stereo, chunk("data", Bytes(4 * 65537)));
    for (const auto& [reader, message] :
         {std::pair<Reader, const char*>{wav, "wav_read: incomplete read of audio data\n"},
          {iq, "iq_read: incomplete read of I/Q data\n"}}) {
        const std::vector<std::string> expected = {invalid(reader), missing(reader), missing(reader),
                                                   missing(reader), message,         message};
        for (std::size_t n = 0; n < expected.size(); ++n) {
            faults.read.left = static_cast<int>(n) + 1;
            EXPECT_EQ(refusal(reader, bytes), expected[n]) << n;
        }
    }
}

// --- Recordings of other programs ------------------------------------------------------------------------------------

// Full-scale 32-bit samples that keep their value in fewer bits: the extremes, then noise.
std::vector<int32_t> test_signal(std::size_t n, int bits) {
    const auto mask = static_cast<uint32_t>(~uint64_t{0} << (32 - bits));
    std::mt19937 random(static_cast<uint32_t>(bits));
    std::vector<int32_t> signal = {INT32_MIN, INT32_MAX, 0, -1, 1 << (32 - bits)};
    while (signal.size() < n) signal.push_back(static_cast<int32_t>(random()));
    for (int32_t& value : signal) value = static_cast<int32_t>(static_cast<uint32_t>(value) & mask);
    return signal;
}

Bytes raw32(const std::vector<int32_t>& signal) {
    Bytes bytes;
    bytes.reserve(4 * signal.size());
    for (const int32_t value : signal)
        for (int k = 0; k < 4; ++k) bytes.push_back(static_cast<uint8_t>(static_cast<uint32_t>(value) >> (8 * k)));
    return bytes;
}

double full_scale(int32_t value) {
    return value / 2147483648.0;
}

// The readers' outcome must be the signal that was written.
void expect_mix(const Outcome& outcome, const std::vector<int32_t>& signal, int channels, int bits, uint32_t rate) {
    ASSERT_EQ(outcome.result, 0) << outcome.messages;
    EXPECT_EQ(outcome.rate, rate);
    EXPECT_EQ(outcome.channels, channels);
    EXPECT_EQ(outcome.bits, bits);
    const auto width = static_cast<std::size_t>(channels);
    ASSERT_EQ(outcome.a.size(), signal.size() / width);
    for (std::size_t k = 0; k < outcome.a.size(); ++k) {
        int64_t sum = 0;
        for (std::size_t channel = 0; channel < width; ++channel) sum += signal[k * width + channel];
        ASSERT_EQ(outcome.a[k], static_cast<double>(sum) / 2147483648.0 / channels) << k;
    }
}
void expect_pairs(const Outcome& outcome, const std::vector<int32_t>& signal, int bits, uint32_t rate) {
    ASSERT_EQ(outcome.result, 0) << outcome.messages;
    EXPECT_EQ(outcome.rate, rate);
    EXPECT_EQ(outcome.bits, bits);
    ASSERT_EQ(outcome.a.size(), signal.size() / 2);
    for (std::size_t k = 0; k < outcome.a.size(); ++k) {
        ASSERT_EQ(outcome.a[k], full_scale(signal[2 * k])) << k;
        ASSERT_EQ(outcome.b[k], full_scale(signal[2 * k + 1])) << k;
    }
}

void run(const std::string& command) {
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
}

// More frames than are read at once, where that is cheap.
std::size_t signal_length(int channels) {
    return static_cast<std::size_t>(channels) * (channels > 2 ? 5000 : 70000);
}

TEST(OtherPrograms, SoxWritesWhatIsRead) {
    for (const int bits : {8, 16, 24, 32})
        for (const int channels : {1, 2, 3, 5})
            for (const char* type : {"wav", "wavpcm"}) {
                SCOPED_TRACE(std::string(type) + ", bits " + std::to_string(bits) + ", channels " +
                             std::to_string(channels));
                const auto signal = test_signal(signal_length(channels), bits);
                const TempPath raw, path;
                raw.write(raw32(signal));
                run("sox -D -t raw -r 12000 -e signed-integer -L -b 32 -c " + std::to_string(channels) + " " +
                    raw.str() + " -t " + type + " -b " + std::to_string(bits) + " " + path.str());
                const Outcome outcome = wav(path.c_str());
                EXPECT_EQ(outcome.messages, "");
                expect_mix(outcome, signal, channels, bits, 12000);
                if (channels == 2) expect_pairs(iq(path.c_str()), signal, bits, 12000);
            }
}

TEST(OtherPrograms, SoxWritesFloatsThatAreRead) {
    const auto signal = test_signal(signal_length(2), 24);
    const TempPath raw, path;
    raw.write(raw32(signal));
    run("sox -D -t raw -r 48000 -e signed-integer -L -b 32 -c 2 " + raw.str() + " -t wav -e floating-point -b 32 " +
        path.str());
    expect_pairs(iq(path.c_str()), signal, 32, 48000);
    EXPECT_EQ(wav(path.c_str()).messages, "wav_read: unsupported audio format 3 (integer PCM required)\n");
}

TEST(OtherPrograms, FfmpegWritesWhatIsRead) {
    for (const auto& [codec, bits] : {std::pair{"pcm_u8", 8}, {"pcm_s16le", 16}, {"pcm_s24le", 24}, {"pcm_s32le", 32}})
        for (const int channels : {1, 2, 3, 6}) {
            SCOPED_TRACE(std::string(codec) + ", channels " + std::to_string(channels));
            const auto signal = test_signal(signal_length(channels), bits);
            const TempPath raw, path;
            raw.write(raw32(signal));
            run("ffmpeg -v error -nostdin -y -f s32le -ar 96000 -ac " + std::to_string(channels) + " -i " + raw.str() +
                " -c:a " + codec + " -f wav " + path.str());
            const Outcome outcome = wav(path.c_str());
            EXPECT_EQ(outcome.messages, "");
            expect_mix(outcome, signal, channels, bits, 96000);
            if (channels == 2) expect_pairs(iq(path.c_str()), signal, bits, 96000);
        }
}

TEST(OtherPrograms, FfmpegWritesRf64ThatIsRead) {
    const auto signal = test_signal(signal_length(2), 24);
    const TempPath raw, path;
    raw.write(raw32(signal));
    run("ffmpeg -v error -nostdin -y -f s32le -ar 48000 -ac 2 -i " + raw.str() +
        " -c:a pcm_s24le -rf64 always -f wav " + path.str());
    const Outcome outcome = iq(path.c_str());
    EXPECT_EQ(outcome.messages, "");
    expect_pairs(outcome, signal, 24, 48000);
    EXPECT_EQ(wav(path.c_str()).messages, "wav_read: '" + path.str() + "' is not a valid RIFF/WAVE file\n");
}

// The sizes cannot be written into a pipe afterwards.
TEST(OtherPrograms, FfmpegWritesIntoAPipeWhatIsReadToItsEnd) {
    const auto signal = test_signal(10000, 16);
    const TempPath raw, path;
    raw.write(raw32(signal));
    run("ffmpeg -v error -nostdin -f s32le -ar 48000 -ac 2 -i " + raw.str() + " -c:a pcm_s16le -f wav pipe:1 | cat > " +
        path.str());
    Outcome outcome = wav(path.c_str());
    EXPECT_EQ(outcome.messages,
              "wav_read: warning - data chunk claims 4294967295 bytes but only 20000 are available in the file; "
              "truncating.\n");
    expect_mix(outcome, signal, 2, 16, 48000);
    outcome = iq(path.c_str());
    EXPECT_EQ(outcome.messages,
              "iq_read: warning - data chunk claims 4294967295 bytes but only 20000 are available; truncating.\n");
    expect_pairs(outcome, signal, 16, 48000);
}

void write_with_sndfile(const TempPath& path, int format, int channels, const std::vector<int32_t>& signal) {
    SF_INFO info = {};
    info.samplerate = 22050;
    info.channels = channels;
    info.format = format;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(file, nullptr) << sf_strerror(nullptr);
    sf_command(file, SFC_SET_SCALE_INT_FLOAT_WRITE, nullptr, SF_TRUE);
    const auto n = static_cast<sf_count_t>(signal.size());
    EXPECT_EQ(sf_write_int(file, signal.data(), n), n);
    EXPECT_EQ(sf_close(file), 0);
}

TEST(OtherPrograms, LibsndfileWritesWhatIsRead) {
    for (const auto& [depth, bits] : {std::pair{int{SF_FORMAT_PCM_U8}, 8},
                                      {int{SF_FORMAT_PCM_16}, 16},
                                      {int{SF_FORMAT_PCM_24}, 24},
                                      {int{SF_FORMAT_PCM_32}, 32}})
        for (const int type : {int{SF_FORMAT_WAV}, int{SF_FORMAT_WAVEX}, int{SF_FORMAT_RF64}})
            for (const int channels : {1, 2, 4}) {
                SCOPED_TRACE("type " + std::to_string(type) + ", bits " + std::to_string(bits) + ", channels " +
                             std::to_string(channels));
                const auto signal = test_signal(signal_length(channels), bits);
                const TempPath path;
                write_with_sndfile(path, type | depth, channels, signal);
                const Outcome mix = wav(path.c_str());
                if (type == SF_FORMAT_RF64) {
                    EXPECT_EQ(mix.messages, "wav_read: '" + path.str() + "' is not a valid RIFF/WAVE file\n");
                } else {
                    EXPECT_EQ(mix.messages, "");
                    expect_mix(mix, signal, channels, bits, 22050);
                }
                const Outcome pairs = iq(path.c_str());
                if (channels == 2) {
                    EXPECT_EQ(pairs.messages, "");
                    expect_pairs(pairs, signal, bits, 22050);
                } else {
                    EXPECT_EQ(pairs.messages, "iq_read: '" + path.str() + "' has " + std::to_string(channels) +
                                                  " channel(s) - I/Q capture requires exactly 2 (left=I, right=Q)\n");
                }
            }
}

TEST(OtherPrograms, LibsndfileWritesFloatsThatAreRead) {
    const auto signal = test_signal(signal_length(2), 24);
    const TempPath path;
    write_with_sndfile(path, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 2, signal);
    expect_pairs(iq(path.c_str()), signal, 32, 22050);
}

// Extensible floats cannot be distinguished from integers without the sub-format: their bits are taken as integers.
void expect_float_bits(const Outcome& outcome, const std::vector<int32_t>& signal) {
    ASSERT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.messages, "");
    ASSERT_EQ(outcome.a.size(), signal.size() / 2);
    for (std::size_t k = 0; k < outcome.a.size(); ++k) {
        const auto i = static_cast<float>(full_scale(signal[2 * k]));
        const auto q = static_cast<float>(full_scale(signal[2 * k + 1]));
        ASSERT_EQ(outcome.a[k], full_scale(std::bit_cast<int32_t>(i))) << k;
        ASSERT_EQ(outcome.b[k], full_scale(std::bit_cast<int32_t>(q))) << k;
    }
}

TEST(OtherPrograms, ExtensibleFloatsAreTakenAsIntegers) {
    const auto signal = test_signal(1000, 24);
    const TempPath raw, path;
    write_with_sndfile(path, SF_FORMAT_WAVEX | SF_FORMAT_FLOAT, 2, signal);
    expect_float_bits(iq(path.c_str()), signal);
    write_with_sndfile(path, SF_FORMAT_RF64 | SF_FORMAT_FLOAT, 2, signal);
    expect_float_bits(iq(path.c_str()), signal);
    raw.write(raw32(signal));
    run("ffmpeg -v error -nostdin -y -f s32le -ar 48000 -ac 2 -i " + raw.str() + " -c:a pcm_f32le -f wav " +
        path.str());
    expect_float_bits(iq(path.c_str()), signal);
}

// --- Damaged files against a plain model -----------------------------------------------------------------------------

// A file is its bytes in memory, a read past the end is no bytes, and the steps follow one another as described.
class Model {
  public:
    Model(const Bytes& bytes, std::string path, bool is_iq) : bytes_(bytes), path_(std::move(path)), is_iq_(is_iq) {}

    Outcome read() {
        const std::string name = is_iq_ ? "iq_read: " : "wav_read: ";
        const std::string quoted = "'" + path_ + "'";
        const auto stop = [&](const std::string& message) {
            outcome_.messages += name + message + "\n";
            return outcome_;
        };

        const bool riff_id = id(0, "RIFF") || (is_iq_ && id(0, "RF64"));
        if (bytes_.size() < 12 || !riff_id || !id(8, "WAVE"))
            return stop(quoted + (is_iq_ ? " is not a valid RIFF/RF64 WAVE file" : " is not a valid RIFF/WAVE file"));

        walk();
        if (!format_seen_ || !data_seen_) return stop(quoted + " - missing fmt or data chunk");

        const bool tag_known = tag_ == 1 || tag_ == 65534 || (is_iq_ && tag_ == 3);
        if (!tag_known)
            return stop("unsupported audio format " + std::to_string(tag_) +
                        (is_iq_ ? " (integer or float32 PCM required)" : " (integer PCM required)"));
        if (tag_ == 3 && bits_ != 32)
            return stop("float format requires 32-bit samples (got " + std::to_string(bits_) + "-bit)");
        if (bits_ % 8 != 0 || bits_ < 8 || bits_ > 32) return stop("unsupported bit depth " + std::to_string(bits_));
        if (is_iq_ && channels_ != 2)
            return stop(quoted + " has " + std::to_string(channels_) +
                        " channel(s) - I/Q capture requires exactly 2 (left=I, right=Q)");
        if (!is_iq_ && channels_ == 0) return stop("invalid channel count");

        const uint64_t available = bytes_.size() - data_position_;
        if (data_bytes_ > available) {
            stop("warning - data chunk claims " + std::to_string(data_bytes_) + " bytes but only " +
                 std::to_string(available) +
                 (is_iq_ ? " are available; truncating." : " are available in the file; truncating."));
            data_bytes_ = available;
        }
        const uint64_t frame_bytes = bits_ / 8 * channels_;
        if (data_bytes_ < frame_bytes)
            return stop(is_iq_ ? "no usable I/Q data in " + quoted : "no usable audio data in " + quoted);
        for (uint64_t n = 0; n + frame_bytes <= data_bytes_; n += frame_bytes) add_frame(data_position_ + n);
        outcome_.result = 0;
        outcome_.rate = rate_;
        outcome_.channels = static_cast<int32_t>(channels_);
        outcome_.bits = static_cast<int32_t>(bits_);
        return outcome_;
    }

  private:
    bool id(uint64_t at, std::string_view name) const {
        return at + 4 <= bytes_.size() && std::equal(name.begin(), name.end(), bytes_.begin() + std::ptrdiff_t(at));
    }
    uint64_t number(uint64_t at, int n_bytes) const {
        uint64_t value = 0;
        for (int k = n_bytes - 1; k >= 0; --k) value = value * 256 + bytes_.at(at + static_cast<uint64_t>(k));
        return value;
    }

    void walk() {
        uint64_t at = 12;
        while (at + 8 <= bytes_.size()) {
            const uint64_t header = at;
            const uint64_t size = number(at + 4, 4);
            at += 8;
            if (id(header, "fmt ")) {
                if (size < 16 || at + std::min<uint64_t>(size, 40) > bytes_.size()) return;
                tag_ = number(at, 2);
                channels_ = number(at + 2, 2);
                rate_ = static_cast<uint32_t>(number(at + 4, 4));
                bits_ = number(at + 14, 2);
                format_seen_ = true;
            }
            if (is_iq_ && id(header, "ds64") && at + 28 <= bytes_.size()) {
                ds64_ = number(at + 8, 8);
                ds64_seen_ = true;
            }
            if (id(header, "data")) {
                data_seen_ = true;
                data_position_ = at;
                data_bytes_ = size;
                if (is_iq_ && size == 0xFFFFFFFF) {
                    if (ds64_seen_) data_bytes_ = ds64_;
                    return;
                }
                if (format_seen_) return;
            }
            at += size + size % 2;
        }
    }

    double value(uint64_t at) const {
        const int n = static_cast<int>(bits_ / 8);
        if (tag_ == 3) return std::bit_cast<float>(static_cast<uint32_t>(number(at, 4)));
        const auto word = static_cast<double>(number(at, n));
        const double half = static_cast<double>(uint64_t{1} << (bits_ - 1));
        if (bits_ == 8) return (word - half) / half;
        return (word >= half ? word - 2 * half : word) / half;
    }

    void add_frame(uint64_t at) {
        if (is_iq_) {
            outcome_.a.push_back(value(at));
            outcome_.b.push_back(value(at + bits_ / 8));
            return;
        }
        double sum = 0;
        for (uint64_t k = 0; k < channels_; ++k) sum += value(at + k * (bits_ / 8));
        outcome_.a.push_back(sum / static_cast<double>(channels_));
    }

    const Bytes& bytes_;
    std::string path_;
    bool is_iq_;
    Outcome outcome_;
    bool format_seen_ = false, data_seen_ = false, ds64_seen_ = false;
    uint64_t tag_ = 0, channels_ = 0, bits_ = 0, data_position_ = 0, data_bytes_ = 0, ds64_ = 0;
    uint32_t rate_ = 0;
};

std::vector<uint64_t> bit_patterns(const Values& values) {
    std::vector<uint64_t> patterns;
    for (const double value : values) patterns.push_back(std::bit_cast<uint64_t>(value));
    return patterns;
}

void expect_as_model(const Bytes& bytes) {
    const TempPath path;
    path.write(bytes);
    for (const Reader reader : {wav, iq}) {
        const Outcome expected = Model(bytes, path.str(), reader == iq).read();
        const Outcome outcome = reader(path.c_str());
        ASSERT_EQ(outcome.result, expected.result);
        ASSERT_EQ(outcome.messages, expected.messages);
        ASSERT_EQ(outcome.rate, expected.rate);
        ASSERT_EQ(outcome.bits, expected.bits);
        ASSERT_EQ(outcome.channels, expected.channels);
        ASSERT_EQ(bit_patterns(outcome.a), bit_patterns(expected.a));
        ASSERT_EQ(bit_patterns(outcome.b), bit_patterns(expected.b));
    }
}

Bytes noise(std::size_t n, uint32_t seed) {
    std::mt19937 random(seed);
    Bytes bytes(n);
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
    return bytes;
}

// Small files of every layout and depth.
std::vector<Bytes> small_files() {
    const Bytes list = chunk("LIST", noise(7, 1));
    std::vector<Bytes> files;
    for (const unsigned bits : {8U, 16U, 24U, 32U}) {
        files.push_back(riff(fmt(1, 2, bits), list, chunk("data", noise(49, bits))));
        files.push_back(rf64(ds64(48), chunk("fmt ", join(fmt_body(65534, 2, bits), Bytes(24))),
                             chunk_claiming("data", no_size, noise(48, bits))));
    }
    files.push_back(riff(chunk("data", noise(24, 5)), list, fmt(1, 3, 16)));
    files.push_back(rf64(ds64(64), list, fmt(3, 2, 32), chunk_claiming("data", no_size, noise(64, 6))));
    files.push_back(rf64(list, chunk("data", noise(64, 7)), ds64(60), fmt(3, 2, 32)));
    files.push_back(riff(fmt(1, 5, 24), ds64(10), chunk("data", noise(30, 8))));
    return files;
}

TEST(DamagedFiles, AreReadAsTheModelReadsThemWhenCutAnywhere) {
    for (const Bytes& file : small_files())
        for (std::size_t n = 0; n <= file.size(); ++n) {
            SCOPED_TRACE(n);
            expect_as_model(Bytes(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(n)));
            if (HasFatalFailure()) return;
        }
}

TEST(DamagedFiles, AreReadAsTheModelReadsThemWhenBytesChange) {
    const std::vector<Bytes> files = small_files();
    const std::vector<Bytes> words = {text("data"), text("fmt "),  text("ds64"),      text("RIFF"), text("RF64"),
                                      Bytes(4),     Bytes(4, 255), Bytes{0xFE, 0xFF}, Bytes{3, 0},  Bytes{8}};
    std::mt19937 random(20240501);
    const auto below = [&](std::size_t n) { return random() % n; };
    for (int round = 0; round < 4000; ++round) {
        SCOPED_TRACE(round);
        Bytes bytes = files[below(files.size())];
        for (std::size_t changes = 1 + below(4); changes > 0; --changes) {
            const std::size_t at = below(std::min<std::size_t>(bytes.size(), below(4) == 0 ? SIZE_MAX : 80));
            const auto place = bytes.begin() + static_cast<std::ptrdiff_t>(at);
            switch (below(5)) {
                case 0:
                    *place = static_cast<uint8_t>(random());
                    break;
                case 1:
                    *place = static_cast<uint8_t>(*place ^ (1U << below(8)));
                    break;
                case 2: {
                    const Bytes& word = words[below(words.size())];
                    for (std::size_t k = 0; k < word.size() && at + k < bytes.size(); ++k) bytes[at + k] = word[k];
                    break;
                }
                case 3:
                    bytes.insert(place, static_cast<uint8_t>(random()));
                    break;
                default:
                    if (bytes.size() > 1) bytes.erase(place);
            }
        }
        expect_as_model(bytes);
        if (HasFatalFailure()) return;
    }
}

// Chunks in any order, with sizes that are right, slightly wrong or absurd.
TEST(DamagedFiles, AreReadAsTheModelReadsThemWhenChunksAreShuffled) {
    std::mt19937 random(7);
    const auto below = [&](std::size_t n) { return random() % n; };
    const unsigned depths[] = {8, 16, 24, 32, 32, 12};
    const unsigned tags[] = {1, 1, 1, 3, 65534, 2};
    const unsigned channel_counts[] = {2, 2, 2, 1, 3, 0};
    int readable = 0;
    for (int round = 0; round < 3000; ++round) {
        SCOPED_TRACE(round);
        Bytes body;
        for (std::size_t n = 1 + below(6); n > 0; --n) {
            Bytes next;
            switch (below(4)) {
                case 0:
                    next = fmt(tags[below(6)], channel_counts[below(6)], depths[below(6)]);
                    break;
                case 1:
                    next = chunk("data", noise(below(40), static_cast<uint32_t>(round)));
                    break;
                case 2:
                    next = ds64(below(3) == 0 ? below(40) : uint64_t{random()} << below(40));
                    break;
                default:
                    next = chunk("junk", noise(below(9), 3));
            }
            if (below(6) == 0) {
                const uint64_t sizes[] = {no_size, 0, 15, 16, 17, 41, 0xFFFFFFFE, 0x80000000};
                const Bytes size = little_endian(sizes[below(8)], 4);
                std::copy(size.begin(), size.end(), next.begin() + 4);
            }
            body = join(body, next);
        }
        const Bytes bytes = below(2) == 0 ? riff(body) : rf64(body);
        readable += Model(bytes, "", true).read().result == 0;
        expect_as_model(bytes);
        if (HasFatalFailure()) return;
    }
    EXPECT_GT(readable, 100);  // or nothing but refusals would have been compared
}

}  // namespace

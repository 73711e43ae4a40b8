// SigMF from anywhere: metadata, pairs and archives are read or refused with a reason, no sample is read that is not
// there, and what annotations are added to is metadata again.
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <fstream>

#include "base/error.h"
#include "input.h"
#include "recordings/sigmf.h"

namespace {

// Where the files of an input lie; removed at the end.
class Scratch {
  public:
    Scratch() : path_(std::filesystem::temp_directory_path() / ("fuzz-sigmf-" + std::to_string(getpid()))) {
        std::filesystem::create_directories(path_);
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    ~Scratch() { std::filesystem::remove_all(path_); }

    std::string write(const std::string& name, const std::string& bytes) const {
        const std::string file = (path_ / name).string();
        std::ofstream(file, std::ios::binary | std::ios::trunc) << bytes;
        return file;
    }

  private:
    std::filesystem::path path_;
};

void check_metadata(const std::string& json) {
    try {
        const SigmfMetadata metadata = parse_sigmf(json);
        expect(metadata.channels >= 1 && metadata.channels <= 1024);
        expect(!metadata.rate || *metadata.rate > 0);
        expect(parse_sample_format(name_of(metadata.format)) == metadata.format);
        for (const SigmfCapture& capture : metadata.captures) {
            expect(!capture.utc || std::isfinite(*capture.utc));
            expect(!capture.frequency_hz || std::abs(*capture.frequency_hz) <= 1e12);
        }
        const std::string annotated = sigmf_annotated(json, {{5, 7, -1.5, 2, "K2QRX", "a frame"}});
        const SigmfMetadata again = parse_sigmf(annotated);
        expect(again.format == metadata.format && again.iq == metadata.iq && again.offset == metadata.offset);
        expect(again.captures.size() == metadata.captures.size());
    } catch (const IoError& error) {
        expect(*error.what() != '\0');
    }
}

// `bytes` of data are there at most.
void check_recording(const std::string& path, std::size_t bytes) {
    try {
        const auto recording = open_sigmf(path, {});
        const double seconds = recording->seconds();
        expect(recording->file_rate() >= 1 && seconds > 0);
        expect(seconds * recording->file_rate() <= static_cast<double>(bytes));
        expect(recording->utc_zero(seconds).value_or(0) <= 1e13);
        expect(std::isfinite(recording->tuning(seconds / 2).value_or(Tuning{}).rf_hz(1)));
        if (static_cast<uint32_t>(recording->rate()) != recording->file_rate()) return;  // it is converted
        const Stretch all = recording->read(0, seconds);
        expect(all.q.empty() || all.q.size() == all.x.size());
        expect(std::llround(seconds * recording->file_rate()) == static_cast<int64_t>(all.x.size()));
        expect(std::ranges::all_of(all.x, [](double sample) { return std::isfinite(sample); }));
    } catch (const IoError& error) {
        expect(*error.what() != '\0');
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    static const Scratch scratch;
    Input input(data, size);
    if (input.flag()) {
        const std::string archive = input.rest();
        check_recording(scratch.write("x.sigmf", archive), archive.size());
        return 0;
    }
    const std::string samples = input.text(200);
    const std::string json = input.rest();
    check_metadata(json);
    scratch.write("x.sigmf-data", samples);
    check_recording(scratch.write("x.sigmf-meta", json), samples.size());
    return 0;
}

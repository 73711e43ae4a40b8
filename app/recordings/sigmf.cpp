#include "recordings/sigmf.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <utility>

#include "base/console.h"
#include "base/error.h"
#include "base/json.h"
#include "base/text.h"
#include "base/utc.h"
#include "liborvel.h"
#include "recordings/input_file.h"
#include "recordings/raw_recording.h"
#include "recordings/tar.h"
#include "system/files.h"

namespace {

using Json = nlohmann::ordered_json;

constexpr std::string_view META = ".sigmf-meta";
constexpr std::string_view DATA = ".sigmf-data";
constexpr std::string_view ARCHIVE = ".sigmf";
constexpr const char* VERSION = "1.2.5";
constexpr const char* SIDEBAND = "orvel:sideband";  // of audio from a receiver on LSB: our own extension

constexpr uint64_t MOST_METADATA = 16 << 20;  // bytes
constexpr int MOST_DEPTH = 32;                // of arrays and objects in one another
constexpr double MOST_COUNT = 0x1p53;
constexpr double MOST_HZ = 1e12;
constexpr uint64_t MOST_CHANNELS = 1024;
constexpr double KEYED_HZ = 10;  // of a frame to each side of its carrier

// ---- JSON from anywhere ---------------------------------------------------------------------------------------------

Json parse_bounded(std::string_view text) {
    if (text.size() > MOST_METADATA) throw IoError("its metadata is longer than 16 MB");
    const auto bounded = [](int depth, Json::parse_event_t, Json&) {
        if (depth > MOST_DEPTH) throw IoError("its metadata is nested too deeply");
        return true;
    };
    try {
        Json object = Json::parse(text, bounded);
        if (object.is_object()) return object;
    } catch (const Json::exception&) {
    }
    throw IoError("its metadata is not a JSON object");
}

const Json* find(const Json& object, const char* name) {
    const auto field = object.find(name);
    return field == object.end() ? nullptr : &*field;
}

std::optional<double> number(const Json& object, const char* name) {
    const Json* const field = find(object, name);
    if (field == nullptr || !field->is_number()) return std::nullopt;
    const auto value = field->get<double>();
    return std::isfinite(value) ? std::optional(value) : std::nullopt;
}

// A count, 0 where there is none. Throws IoError when it is none that can be worked with.
uint64_t count(const Json& object, const char* name, uint64_t missing = 0) {
    if (find(object, name) == nullptr) return missing;
    const auto value = number(object, name);
    if (!value || *value < 0 || *value > MOST_COUNT || *value != std::floor(*value)) {
        throw IoError(std::string("in its metadata ") + name + " is not a whole number from 0 to 2^53");
    }
    return static_cast<uint64_t>(*value);
}

std::string text_in(const Json& object, const char* name) {
    const Json* const field = find(object, name);
    return field != nullptr && field->is_string() ? field->get<std::string>() : "";
}

const Json& array_in(const Json& object, const char* name) {
    static const Json NONE = Json::array();
    const Json* const field = find(object, name);
    if (field == nullptr) return NONE;
    if (!field->is_array() || !std::ranges::all_of(*field, [](const Json& item) { return item.is_object(); })) {
        throw IoError(std::string("in its metadata ") + name + " is not an array of objects");
    }
    return *field;
}

// ---- Metadata -------------------------------------------------------------------------------------------------------

struct DataType {
    std::string_view name;
    SampleFormat format;
};
constexpr std::array DATA_TYPES = {
    DataType{"u8", {SampleFormat::Kind::UNSIGNED, 1}},  DataType{"i8", {SampleFormat::Kind::SIGNED, 1}},
    DataType{"u16", {SampleFormat::Kind::UNSIGNED, 2}}, DataType{"i16", {SampleFormat::Kind::SIGNED, 2}},
    DataType{"u32", {SampleFormat::Kind::UNSIGNED, 4}}, DataType{"i32", {SampleFormat::Kind::SIGNED, 4}},
    DataType{"f32", {SampleFormat::Kind::FLOAT, 4}},    DataType{"f64", {SampleFormat::Kind::FLOAT, 8}}};

void take_datatype(const std::string& name, SigmfMetadata& out) {
    for (const DataType& type : DATA_TYPES) {
        for (const bool iq : {false, true}) {
            for (const bool big : {false, true}) {
                SampleFormat format = type.format;
                format.big_endian = big && format.bytes > 1;
                if (name != sigmf_datatype(format, iq)) continue;
                out.format = format;
                out.iq = iq;
                return;
            }
        }
    }
    throw IoError("its core:datatype is '" + printable(name.substr(0, 40)) + "', which is none");
}

// What cannot be understood of it is passed over with a line.
SigmfCapture capture_of(const Json& object, std::vector<std::string>& passed_over) {
    if (find(object, "core:sample_start") == nullptr) throw IoError("a capture has no core:sample_start");
    SigmfCapture capture;
    capture.sample_start = count(object, "core:sample_start");
    capture.header_bytes = count(object, "core:header_bytes");
    if (find(object, "core:datetime") != nullptr) {
        const std::string datetime = text_in(object, "core:datetime");
        if (datetime.ends_with('Z') && datetime.find('T') != std::string::npos) capture.utc = parse_utc(datetime, 0);
        if (!capture.utc) passed_over.push_back("a core:datetime is not a UTC time");
    }
    if (find(object, "core:frequency") != nullptr) {
        capture.frequency_hz = number(object, "core:frequency");
        if (capture.frequency_hz && std::abs(*capture.frequency_hz) > MOST_HZ) capture.frequency_hz.reset();
        if (!capture.frequency_hz) passed_over.push_back("a core:frequency is not one");
    }
    const std::string side = text_in(object, SIDEBAND);
    if (!side.empty()) capture.sideband = side == "lsb" ? Sideband::LOWER : Sideband::UPPER;
    return capture;
}

// ---- Metadata and data → a recording --------------------------------------------------------------------------------

// A part of a file.
struct Stored {
    std::string path;
    uint64_t offset, size;
};

struct Content {
    std::string json;
    std::optional<Stored> data;  // of an archive
};

std::string read_text(const InputFile& file, const std::string& path, uint64_t offset, uint64_t size) {
    if (size > MOST_METADATA) refuse_recording(path, "its metadata is longer than 16 MB");
    std::vector<uint8_t> bytes(size);
    bytes.resize(file.read_at(offset, bytes));
    return {bytes.begin(), bytes.end()};
}

// The first recording of an archive.
Content read_archive(const std::string& path) {
    const InputFile file(path);
    const std::vector<TarMember> members = tar_members(file);
    if (members.empty()) refuse_recording(path, "it is not a tar archive");
    const auto ends = [](std::string_view end) { return [=](const TarMember& m) { return m.name.ends_with(end); }; };
    const auto meta = std::ranges::find_if(members, ends(META));
    if (meta == members.end()) refuse_recording(path, "it holds no .sigmf-meta");
    if (std::ranges::count_if(members, ends(META)) > 1) {
        print_error("'" + path + "' holds several recordings, of which the first is taken");
    }
    Content content{read_text(file, path, meta->offset, meta->size), {}};
    const std::string data_name = sigmf_base(meta->name) + std::string(DATA);
    const auto data = std::ranges::find(members, data_name, &TarMember::name);
    if (data == members.end()) return content;
    const uint64_t there = std::min(data->size, file.size() - std::min(file.size(), data->offset));
    if (there < data->size) print_error("'" + path + "' ends before its header says");
    content.data = Stored{path, data->offset, there};
    return content;
}

Content read_content(const std::string& path) {
    if (lower_case(path).ends_with(ARCHIVE)) return read_archive(path);
    const std::string meta = sigmf_base(path) + std::string(META);
    const InputFile file(meta);
    return {read_text(file, meta, 0, file.size()), {}};
}

// The file that holds the samples of a pair. One of another name lies beside its metadata.
Stored data_of(const std::string& path, const SigmfMetadata& metadata) {
    std::string data = sigmf_base(path) + std::string(DATA);
    if (!metadata.dataset.empty()) {
        if (!is_file_name(metadata.dataset)) {
            refuse_recording(path, "its core:dataset is not the name of a file beside it");
        }
        data = path_in(text_of(native_path(path).parent_path()), metadata.dataset);
    }
    return {data, 0, InputFile(data).size()};
}

std::string bytes_text(uint64_t bytes) {
    return format("%llu byte%s", static_cast<unsigned long long>(bytes), bytes == 1 ? "" : "s");
}

// Where the samples of each capture lie. Before the first capture nothing is known of them.
void lay_out(const std::string& path, const SigmfMetadata& metadata, const Stored& data, RawLayout& layout) {
    if (metadata.trailing_bytes > data.size) refuse_recording(path, "its metadata is for more data than there is");
    uint64_t left = data.size - metadata.trailing_bytes;  // bytes
    uint64_t place = data.offset;
    uint64_t frame = metadata.offset;
    const auto add_run = [&](uint64_t most) {
        const uint64_t frames = std::min(most, left / layout.frame_bytes());
        if (frames == 0) return;
        layout.runs.push_back({static_cast<int64_t>(frames), place});
        left -= frames * layout.frame_bytes();
        place += frames * layout.frame_bytes();
        frame += frames;
    };
    Take take;
    for (const SigmfCapture& capture : metadata.captures) {
        if (capture.sample_start < frame) refuse_recording(path, "its captures are not in order");
        add_run(capture.sample_start - frame);
        if (frame < capture.sample_start || capture.header_bytes > left) {
            print_error("'" + path + "' ends before its metadata says");
            return;
        }
        left -= capture.header_bytes;
        place += capture.header_bytes;
        const double begin_s = static_cast<double>(frame - metadata.offset) / layout.rate;
        if (take.utc) take.utc = *take.utc + begin_s - take.begin_s;
        take.begin_s = begin_s;
        if (capture.utc) take.utc = capture.utc;
        if (capture.frequency_hz) {
            take.tuning = Tuning{*capture.frequency_hz, capture.sideband.value_or(Sideband::UPPER)};
        }
        if (layout.takes.empty() && begin_s > 0) layout.takes.emplace_back();
        layout.takes.push_back(take);
    }
    add_run(static_cast<uint64_t>(MOST_COUNT));
    if (left > 0)
        print_error("'" + path + "': " + bytes_text(left) + " at the end are less than a sample, passed over");
}

uint32_t rate_of(const std::string& path, const SigmfMetadata& metadata, const RecordingOptions& options) {
    if (options.raw_rate) return *options.raw_rate;
    if (!metadata.rate) refuse_recording(path, "its metadata has no core:sample_rate; --rate gives one");
    const double rounded = std::round(*metadata.rate);
    if (rounded < 1 || rounded > MOST_RAW_RATE) {
        refuse_recording(path, format("its core:sample_rate of %g Hz is not served", *metadata.rate));
    }
    if (rounded != *metadata.rate) {
        print_error(
            format("'%s': its sample rate of %.6f Hz is taken as %.0f Hz", path.c_str(), *metadata.rate, rounded));
    }
    return static_cast<uint32_t>(rounded);
}

// The layout of the samples but for their rate and where they lie.
RawLayout layout_of(const SigmfMetadata& metadata) {
    RawLayout layout;
    layout.format = metadata.format;
    layout.iq = metadata.iq;
    layout.channels = metadata.channels * (metadata.iq ? 2 : 1);
    return layout;
}

// Metadata of a recording that has a name.
SigmfMetadata parse_named(const std::string& path, std::string_view json) {
    try {
        return parse_sigmf(json);
    } catch (const IoError& error) {
        refuse_recording(path, error.what());
    }
}

}  // namespace

bool is_sigmf(const std::string& path) {
    const std::string lower = lower_case(path);
    return std::ranges::any_of(std::array{META, DATA, ARCHIVE},
                               [&](std::string_view end) { return lower.ends_with(end) && lower.size() > end.size(); });
}

std::string sigmf_base(const std::string& path) {
    const std::string lower = lower_case(path);
    for (const std::string_view end : {META, DATA, ARCHIVE}) {
        if (lower.ends_with(end)) return path.substr(0, path.size() - end.size());
    }
    return path;
}

std::string sigmf_metadata(const std::string& path) {
    return read_content(path).json;
}

RecordingSize sigmf_size(const std::string& path, const RecordingOptions& options) {
    const Content content = read_content(path);
    const SigmfMetadata metadata = parse_named(path, content.json);
    RawLayout layout = layout_of(metadata);
    const double rate = options.raw_rate ? *options.raw_rate : std::round(metadata.rate.value_or(0));
    if (rate <= MOST_RAW_RATE) layout.rate = static_cast<uint32_t>(rate);
    return layout.size_of((content.data ? *content.data : data_of(path, metadata)).size);
}

std::unique_ptr<Recording> open_sigmf(const std::string& path, const RecordingOptions& options) {
    const Content content = read_content(path);
    const SigmfMetadata metadata = parse_named(path, content.json);
    for (const std::string& line : metadata.passed_over)
        print_error(format("'%s': %s; it is passed over", path.c_str(), line.c_str()));
    if (metadata.metadata_only) refuse_recording(path, "it is metadata only, without samples");
    if (!content.data && lower_case(path).ends_with(ARCHIVE)) refuse_recording(path, "it holds no .sigmf-data");
    const Stored data = content.data ? *content.data : data_of(path, metadata);
    RawLayout layout = layout_of(metadata);
    layout.rate = rate_of(path, metadata, options);
    lay_out(path, metadata, data, layout);
    return open_samples(path, data.path, options, std::move(layout));
}

// ---- Metadata -------------------------------------------------------------------------------------------------------

SigmfMetadata parse_sigmf(std::string_view json) {
    const Json object = parse_bounded(json);
    const Json* const global = find(object, "global");
    if (global == nullptr || !global->is_object()) throw IoError("its metadata has no global object");
    SigmfMetadata metadata;
    take_datatype(text_in(*global, "core:datatype"), metadata);
    const uint64_t channels = count(*global, "core:num_channels", 1);
    if (channels < 1 || channels > MOST_CHANNELS) throw IoError("its core:num_channels is not from 1 to 1024");
    metadata.channels = static_cast<int32_t>(channels);
    if (find(*global, "core:sample_rate") != nullptr) {
        metadata.rate = number(*global, "core:sample_rate");
        if (!metadata.rate || !(*metadata.rate > 0)) throw IoError("its core:sample_rate is not a number above 0");
    }
    metadata.offset = count(*global, "core:offset");
    metadata.trailing_bytes = count(*global, "core:trailing_bytes");
    metadata.dataset = text_in(*global, "core:dataset");
    const Json* const only = find(*global, "core:metadata_only");
    metadata.metadata_only = only != nullptr && only->is_boolean() && only->get<bool>();
    for (const Json& capture : array_in(object, "captures")) {
        metadata.captures.push_back(capture_of(capture, metadata.passed_over));
    }
    auto& lines = metadata.passed_over;
    lines.erase(std::unique(lines.begin(), lines.end()), lines.end());
    return metadata;
}

// ---- Writing --------------------------------------------------------------------------------------------------------

std::string sigmf_datatype(const SampleFormat& format, bool iq) {
    std::string name = iq ? "c" : "r";
    for (const DataType& type : DATA_TYPES) {
        if (type.format.kind == format.kind && type.format.bytes == format.bytes) name += type.name;
    }
    if (format.bytes > 1) name += format.big_endian ? "_be" : "_le";
    return name;
}

SigmfAnnotation annotation_of(const Spot& spot, double rate, uint64_t offset) {
    const double begin = std::max(std::round(spot.start * rate), 0.0);
    const double end = std::max(std::round(spot.end * rate), begin);
    const double reach_hz = KEYED_HZ + std::abs(spot.drift_hz_s) * (spot.end - spot.start) / 2;
    const double centre_hz = spot.rf_hz.value_or(spot.freq_hz);
    std::string comment = ovl_proto_name(spot.protocol);
    if (!spot.locator.empty()) comment += ", " + spot.locator;
    if (spot.snr_db) comment += format(", %.1f dB in 2500 Hz", *spot.snr_db);
    comment += format(", %.3f Hz, %+.4f Hz/s", centre_hz, spot.drift_hz_s);
    return {offset + static_cast<uint64_t>(begin),
            static_cast<uint64_t>(end - begin),
            centre_hz - reach_hz,
            centre_hz + reach_hz,
            spot.call,
            comment};
}

namespace {

std::string generator() {
    return std::string("orvel ") + ovl_version();
}

Json json_of(const SigmfAnnotation& annotation) {
    Json object;
    object["core:sample_start"] = annotation.sample_start;
    object["core:sample_count"] = annotation.sample_count;
    object["core:freq_lower_edge"] = annotation.low_hz;
    object["core:freq_upper_edge"] = annotation.high_hz;
    object["core:label"] = annotation.label;
    object["core:comment"] = annotation.comment;
    object["core:generator"] = generator();
    return object;
}

Json json_of(const Take& take, int32_t rate) {
    Json object;
    object["core:sample_start"] = static_cast<uint64_t>(std::max(std::llround(take.begin_s * rate), 0LL));
    if (take.tuning) {
        object["core:frequency"] = take.tuning->dial_hz;
        if (take.tuning->sideband == Sideband::LOWER) object[SIDEBAND] = "lsb";
    }
    if (take.utc) object["core:datetime"] = utc_text(*take.utc, 6);
    return object;
}

bool is_lower(const Take& take) {
    return take.tuning && take.tuning->sideband == Sideband::LOWER;
}

std::string dump(const Json& object) {
    return json_text(object, 4) + "\n";
}

}  // namespace

std::string sigmf_text(const SigmfDescription& description, const std::vector<Take>& takes,
                       const std::vector<SigmfAnnotation>& annotations) {
    Json global;
    global["core:datatype"] = sigmf_datatype(description.format, description.iq);
    global["core:sample_rate"] = description.rate;
    global["core:version"] = VERSION;
    if (!description.text.empty()) global["core:description"] = description.text;
    global["core:recorder"] = generator();
    if (std::ranges::any_of(takes, is_lower)) {
        global["core:extensions"] = {{{"name", "orvel"}, {"version", "1.0.0"}, {"optional", true}}};
    }
    Json object;
    object["global"] = global;
    object["captures"] = Json::array();
    for (const Take& take : takes) object["captures"].push_back(json_of(take, description.rate));
    object["annotations"] = Json::array();
    for (const SigmfAnnotation& annotation : annotations) object["annotations"].push_back(json_of(annotation));
    return dump(object);
}

std::string sigmf_annotated(std::string_view json, const std::vector<SigmfAnnotation>& annotations) {
    Json object = parse_bounded(json);
    std::vector<Json> all = array_in(object, "annotations");
    for (const SigmfAnnotation& annotation : annotations) all.push_back(json_of(annotation));
    std::ranges::stable_sort(all, {}, [](const Json& item) { return number(item, "core:sample_start").value_or(0); });
    object["annotations"] = all;
    return dump(object);
}

void replace_file(const std::string& path, std::string_view text) {
    struct Close {
        void operator()(std::FILE* file) const noexcept { std::fclose(file); }
    };
    const std::string temporary = path + ".part";
    errno = 0;
    std::unique_ptr<std::FILE, Close> file(open_file(temporary, "wb"));
    const bool written = file && std::fwrite(text.data(), 1, text.size(), file.get()) == text.size() &&
                         std::fflush(file.get()) == 0 && sync_file(file.get()) && std::fclose(file.release()) == 0 &&
                         move_file(temporary, path);
    if (written) return;
    const std::string reason = last_reason();
    if (file) remove_file(temporary);
    throw IoError("cannot write '" + path + "': " + reason);
}

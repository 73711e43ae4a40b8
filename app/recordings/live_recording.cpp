#include "recordings/live_recording.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <span>
#include <utility>
#include <vector>

#include "base/console.h"
#include "base/interrupts.h"
#include "base/text.h"
#include "base/utc.h"
#include "recordings/input_file.h"
#include "sources/source.h"

namespace {

constexpr SampleFormat FLOATS = {SampleFormat::Kind::FLOAT, 4, std::endian::native == std::endian::big};

constexpr double LATE_S = 5;  // samples that a source owes are waited for so long

class LiveRecording : public PipedRecording {
  public:
    LiveRecording(const std::string& text, const RecordingOptions& options, std::unique_ptr<Source> source, Piece first)
        : PipedRecording(text, options, static_cast<uint32_t>(source->format().rate), FLOATS, options.iq ? 2 : 1),
          source_(std::move(source)),
          format_(source_->format()),
          width_(format_.iq ? 2 : 1),
          piece_(std::move(first)),
          deadline_(monotonic_now() + options.most_s.value_or(HUGE_VAL) + LATE_S) {
        piece_.lost_s = 0;
        take_time();
    }

  private:
    bool receive(std::vector<uint8_t>& bytes) override {
        while (silence_ == 0 && piece_.samples.empty()) {
            if (!source_ || interrupted() || monotonic_now() > deadline_ || !read_source()) {
                source_.reset();
                return false;
            }
        }
        const int64_t silence = std::min<int64_t>(silence_, format_.rate);
        silence_ -= silence;
        bytes.resize(bytes.size() + static_cast<std::size_t>(silence) * width_ * FLOATS.bytes);
        if (silence_ == 0) hand_on_piece(bytes);
        if (options_.most_s && seconds_of(frames_ - silence_) >= *options_.most_s) source_.reset();
        return true;
    }

    void hand_on_piece(std::vector<uint8_t>& bytes) {
        const auto samples = std::as_bytes(std::span(piece_.samples));
        const std::size_t held = bytes.size();
        bytes.resize(held + samples.size());
        std::memcpy(bytes.data() + held, samples.data(), samples.size());
        piece_.samples.clear();
    }

    // False at the end.
    bool read_source() {
        const Source::State state = source_->read(piece_);
        if (state == Source::State::ENDED) return false;
        if (state == Source::State::BROKEN) broken_ = true;
        if (state != Source::State::SAMPLES) return true;
        if (broken_ && source_->format().rate != format_.rate) {
            print_error(::format("'%s' goes on at %d Hz: what it sends from there on is left out", path_.c_str(),
                                 source_->format().rate));
            return false;
        }
        take_time();
        return true;
    }

    // Buffers arrive more or less late: the soonest tells the time. Behind a break only the clock knows what is
    // missing.
    void take_time() {
        const int64_t came = std::ssize(piece_.samples) / static_cast<int64_t>(width_);
        const double now = utc_now();
        const double lost_s = std::exchange(broken_, false) ? now - begin_ - seconds_of(frames_ + came) : piece_.lost_s;
        silence_ = std::max<int64_t>(std::llround(lost_s * format_.rate), 0);
        frames_ += silence_ + came;
        begin_ = std::min(begin_, now - seconds_of(frames_));
        set_take({.utc = begin_, .tuning = format_.tuning});
    }

    double seconds_of(int64_t frames) const { return static_cast<double>(frames) / format_.rate; }

    std::unique_ptr<Source> source_;  // up to the end
    SourceFormat format_;
    std::size_t width_;
    Piece piece_;  // to be handed on
    double deadline_;
    int64_t silence_ = 0;      // frames before it
    int64_t frames_ = 0;       // with the piece
    double begin_ = HUGE_VAL;  // UTC of the first
    bool broken_ = false;
};

}  // namespace

std::unique_ptr<PipedRecording> open_live(const std::string& text, const RecordingOptions& options) {
    watch_interrupts();
    SourceOptions how;
    if (options.raw_rate) how.rate = static_cast<int32_t>(*options.raw_rate);
    how.iq = options.iq;
    auto source = open_source(text, how);
    Piece first;
    while (source->read(first) != Source::State::SAMPLES) {
        if (interrupted()) refuse_recording(text, "no samples came");
    }
    RecordingOptions known = options;
    known.iq = source->format().iq;
    require_channels(text, known, known.iq ? 2 : 1);
    return std::make_unique<LiveRecording>(text, known, std::move(source), std::move(first));
}

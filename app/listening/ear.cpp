#include "listening/ear.h"

#include <algorithm>
#include <limits>
#include <thread>
#include <utility>
#include <vector>

#include "base/error.h"
#include "listening/history.h"
#include "wideband/channeliser.h"
#include "wideband/wide_decoder.h"

namespace {

class AudioEar : public Ear {
  public:
    AudioEar(int32_t rate, const Search& search, const ListenerOptions& options, Listener::Taker take,
             Listener::Teller tell)
        : history_(rate, Listener::history_seconds(options)),
          listener_(search, options, history_, std::move(take), std::move(tell)) {
        require_served("audio captured", search, history_.rate());
    }

    void push(std::span<const float> samples) override { history_.push(samples); }
    double captured_s() const override { return history_.captured_s(); }
    void update(const Listener::Clock& utc) override { listener_.update(utc); }
    void finish(const Listener::Clock& utc) override { listener_.finish(utc); }
    bool last_decode_failed() const override { return listener_.last_decode_failed(); }
    double decode_seconds() const override { return listener_.decode_seconds(); }

  private:
    AudioHistory history_;
    Listener listener_;
};

// I/Q, of which one slice around the centre of the search is kept.
class IqEar : public Ear {
  public:
    IqEar(int32_t rate, const Search& search, const ListenerOptions& options, Listener::Taker take,
          Listener::Teller tell)
        : rate_(rate),
          channeliser_(Channeliser::narrow(rate, true, center_of(search), search.search_hz + search.spread_hz)),
          center_hz_(channeliser_.slices().front().center_hz),
          search_(around(center_hz_, search)),
          history_(channeliser_.slice_rate(), Listener::history_seconds(options)),
          listener_(search_, options, history_, in_the_band(std::move(take)), std::move(tell)) {}

    void push(std::span<const float> samples) override {
        channeliser_.push(samples,
                          [this](std::size_t, std::span<const std::complex<float>> slice) { history_.push(slice); });
        pairs_ += std::ssize(samples) / 2;
    }
    double captured_s() const override { return static_cast<double>(pairs_) / rate_; }
    void update(const Listener::Clock& utc) override { listener_.update(utc); }
    void finish(const Listener::Clock& utc) override {
        channeliser_.finish([this](std::size_t, std::span<const std::complex<float>> slice) { history_.push(slice); });
        listener_.finish(utc);
    }
    bool last_decode_failed() const override { return listener_.last_decode_failed(); }
    double decode_seconds() const override { return listener_.decode_seconds(); }

  private:
    // The search as the slice around that frequency has it.
    static Search around(double center_hz, Search search) {
        search.center_hz = center_of(search) - center_hz;
        return search;
    }
    Listener::Taker in_the_band(Listener::Taker take) const {
        return [take = std::move(take), center_hz = center_hz_](Found found, Standing standing) {
            found.freq += center_hz;
            take(found, standing);
        };
    }

    int32_t rate_;
    Channeliser channeliser_;
    double center_hz_;
    Search search_;
    IqHistory history_;
    Listener listener_;
    int64_t pairs_ = 0;
};

// A wide band, decoded slice by slice.
class WideEar : public Ear {
  public:
    WideEar(const SourceFormat& format, const Search& search, bool provisional, Listener::Taker take,
            Listener::Teller tell)
        : rate_(format.rate),
          width_(format.iq ? 2 : 1),
          take_(std::move(take)),
          tell_(std::move(tell)),
          decoder_(format.rate, search,
                   {.jobs = std::max(std::thread::hardware_concurrency(), 1u),
                    .live = !format.waits,
                    .provisional = provisional},
                   [this](const Found& found, Standing standing) { found_.emplace_back(found, standing); }) {}

    void push(std::span<const float> samples) override {
        decoder_.push(samples);
        frames_ += std::ssize(samples) / width_;
    }
    double captured_s() const override { return static_cast<double>(frames_) / rate_; }
    void update(const Listener::Clock& utc) override {
        decoder_.push({});
        give(utc);
    }
    void finish(const Listener::Clock& utc) override {
        decoder_.finish();
        give(utc);
    }
    bool last_decode_failed() const override { return !problem_.empty(); }
    double decode_seconds() const override { return std::numeric_limits<double>::quiet_NaN(); }

  private:
    void give(const Listener::Clock& utc) {
        for (auto& [found, standing] : found_) {
            found.t = utc(found.t);
            take_(found, standing);
        }
        found_.clear();
        const std::string problem = decoder_.problem();
        if (std::exchange(problem_, problem) != problem && !problem.empty()) tell_(problem);
    }

    int32_t rate_;
    std::ptrdiff_t width_;
    int64_t frames_ = 0;
    std::vector<std::pair<Found, Standing>> found_;
    std::string problem_;
    Listener::Taker take_;
    Listener::Teller tell_;
    WideDecoder decoder_;
};

}  // namespace

std::unique_ptr<Ear> make_ear(const SourceFormat& format, const Search& search, const ListenerOptions& options,
                              Listener::Taker take, Listener::Teller tell) {
    if (search.wide)
        return std::make_unique<WideEar>(format, search, options.provisional, std::move(take), std::move(tell));
    if (!format.iq) return std::make_unique<AudioEar>(format.rate, search, options, std::move(take), std::move(tell));
    require_within("I/Q", search, format.rate);
    return std::make_unique<IqEar>(format.rate, search, options, std::move(take), std::move(tell));
}

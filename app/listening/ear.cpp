#include "listening/ear.h"

#include <utility>

#include "base/error.h"
#include "listening/history.h"
#include "wideband/channeliser.h"

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
    int64_t decodes() const override { return listener_.decodes(); }

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
    int64_t decodes() const override { return listener_.decodes(); }

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

}  // namespace

std::unique_ptr<Ear> make_ear(const SourceFormat& format, const Search& search, const ListenerOptions& options,
                              Listener::Taker take, Listener::Teller tell) {
    if (!format.iq) return std::make_unique<AudioEar>(format.rate, search, options, std::move(take), std::move(tell));
    require_within("I/Q", search, format.rate);
    return std::make_unique<IqEar>(format.rate, search, options, std::move(take), std::move(tell));
}

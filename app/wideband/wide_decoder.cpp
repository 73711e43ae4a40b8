// A step decides on what is keyed most in the runs that begin in its 26 seconds, and on what is keyed beside it within
// 8 seconds. It needs what lies around that, so that the samples kept are those of a step, of the longest frame and of
// 22 seconds before and after.
#include "wideband/wide_decoder.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <new>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "base/console.h"
#include "base/error.h"
#include "base/text.h"
#include "decoding/decode_block.h"
#include "spots/spot_log.h"
#include "wideband/channeliser.h"
#include "wideband/look.h"
#include "wideband/slice_store.h"

namespace {

constexpr int64_t STEP = 400;                     // windows: 25.6 s
constexpr int64_t MARGIN = 219;                   // windows: 14 s, that a decode reaches past what is keyed, each side
constexpr int64_t BEFORE = LOOK_AROUND + MARGIN;  // windows needed before a step,
constexpr int64_t AFTER = LOOK_AROUND + LOOK_RUN + MARGIN;  // and after it
constexpr double LIVE_SLACK_S = 12;                         // that samples come while a step is decoded
constexpr double SLACK_S = 2;                               // the same where they wait
constexpr double UNDECIDED_S = 20;                          // a frame may begin this long before its run
constexpr double TILE_HZ = 33;                              // half-width of a decode, without the spread
constexpr double BESIDE_HZ = 16;                            // past its border a slice is searched, too
constexpr double FLAT_HZ = 1790;                            // of a slice, each side
constexpr double EASE_Z = 1.5;  // below the scan's: the weakest frames of ORVEL S that decode stand out less

// What one step found, slice by slice.
struct Step {
    int64_t number;
    bool last;
    int64_t stored;           // samples of each slice when it was begun
    std::size_t next = 0;     // slice to begin
    std::size_t working = 0;  // slices begun and not ended
    std::size_t skipped = 0;
    bool given_up = false;
    std::vector<std::vector<Found>> found;  // by slices

    Windows own() const { return {number * STEP, (number + 1) * STEP}; }
    bool is_done() const { return working == 0 && (given_up || next == found.size()); }
};

}  // namespace

class WideDecoder::Engine {
  public:
    Engine(int32_t rate, const Search& search, const WideOptions& options, WidePart part, Taker take)
        : search_(search),
          live_(options.live),
          provisional_(options.provisional),
          part_(std::move(part)),
          take_(std::move(take)),
          channeliser_(rate, search.iq, band_of(rate, search)),
          rate_(channeliser_.slice_rate()),
          tile_hz_(TILE_HZ + 0.5 * search.spread_hz),
          tile_rate_(tile_rate(rate_, search, tile_hz_)),
          look_times_(rate_, FLAT_HZ),
          begin_(channeliser_.begin_at(first_of(part_.first) / SliceStore::CHUNK * SliceStore::CHUNK)),
          store_(channeliser_.slices().size(),
                 static_cast<int64_t>((static_cast<double>(BEFORE + STEP + AFTER) * LOOK_STEP_S +
                                       (options.live ? LIVE_SLACK_S : SLACK_S)) *
                                      rate_),
                 begin_.slice),
          received_(begin_.slice),
          begun_(part_.first) {
        search_.wide = false;
        search_.iq = true;
        try {
            for (unsigned k = 0; k < std::max(1u, options.jobs); k++) threads_.emplace_back([this] { labour(); });
        } catch (...) {
            end();
            throw;
        }
    }
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;
    ~Engine() { end(); }

    void push(std::span<const float> samples) {
        channeliser_.push(samples, sink());
        deliver(false);
    }

    void finish() {
        channeliser_.finish(sink());
        for (std::size_t k = 0; k < slices(); k++) store_.complete(k);
        const int64_t windows = look_times_.windows_in(0, received_);
        while (takes_more() && (begun_ == 0 || begun_ * STEP + LOOK_RUN < windows)) begin_step(true);
        deliver(true);
        release(HUGE_VAL);
    }

    int64_t first_sample() const { return begin_.input; }
    bool takes_more() const { return begun_ < part_.end; }
    double done_s() const { return done_s_; }
    std::string problem() const {
        const std::lock_guard guard(lock_);
        return problem_;
    }
    double skipped_share() const { return searched_ > 0 ? skipped_ / searched_ : 0; }

  private:
    static Range band_of(int32_t rate, const Search& search) {
        require_within(format("%d Hz", rate), search, rate);
        const Range whole = whole_band(search.iq, rate);
        const Range asked = search.band.value_or(whole);
        return {std::max(asked.low, whole.low), std::min(asked.high, whole.high)};
    }

    // Throws UsageError when the slices do not hold that.
    static int32_t tile_rate(int32_t slice_rate, const Search& search, double half_hz) {
        const int32_t rate = keyed_rate(search, half_hz);
        static_cast<void>(Channeliser::baseband(slice_rate, 0, rate));
        return rate;
    }

    std::size_t slices() const { return channeliser_.slices().size(); }

    // ---- The thread that pushes -------------------------------------------------------------------------------------

    Channeliser::Sink sink() {
        return [this](std::size_t slice, std::span<const std::complex<float>> samples) {
            if (slice == 0) make_room(static_cast<int64_t>(samples.size()));
            store_.append(slice, samples);
            if (slice + 1 < slices()) return;
            received_ += static_cast<int64_t>(samples.size());
            const int64_t windows = look_times_.windows_in(0, store_.stored(0));
            while (takes_more() && windows >= (begun_ + 1) * STEP + AFTER) begin_step(false);
        };
    }

    // First sample that a step needs.
    int64_t first_of(int64_t step) const {
        const int64_t first = std::max<int64_t>(0, step * STEP - BEFORE);
        return look_times_.sample_of(first);
    }

    // Sees to it that what comes next overwrites nothing that is still needed.
    void make_room(int64_t count) {
        std::unique_lock guard(lock_);
        const int64_t kept_from = store_.oldest(received_ + count + SliceStore::CHUNK);
        const auto in_the_way = [&] { return !steps_.empty() && first_of(steps_.front().number) < kept_from; };
        while (in_the_way()) {
            Step& step = steps_.front();
            if (live_) step.given_up = true;
            changed_.wait(guard, [&] { return step.is_done(); });
            deliver_front(guard);
        }
    }

    void begin_step(bool last) {
        {
            const std::lock_guard guard(lock_);
            Step& step = steps_.emplace_back();
            step.number = begun_;
            step.last = last;
            step.stored = std::min(received_, store_.stored(0));
            step.found.resize(slices());
        }
        begun_++;
        work_.notify_all();
    }

    // Hands out what the steps that have ended found; all of them, at the end.
    void deliver(bool all) {
        std::unique_lock guard(lock_);
        while (!steps_.empty()) {
            Step& step = steps_.front();
            if (all) changed_.wait(guard, [&] { return step.is_done(); });
            if (!step.is_done()) return;
            deliver_front(guard);
        }
    }

    void deliver_front(std::unique_lock<std::mutex>& guard) {
        const Step step = std::move(steps_.front());
        steps_.pop_front();
        guard.unlock();
        const double end_s = static_cast<double>(step.own().end) * LOOK_STEP_S;
        const std::size_t skipped = step.found.size() - step.next;
        searched_ += static_cast<double>(step.found.size());
        skipped_ += static_cast<double>(skipped);
        if (skipped > 0) {
            print_error(
                format("decoding fell behind: %zu of %zu slices of the band were not searched from %.0f to "
                       "%.0f s",
                       skipped, step.found.size(), end_s - STEP * LOOK_STEP_S, end_s));
        }
        done_s_ = end_s;
        if (part_.take) {
            part_.take(joined(step.found));
        } else {
            log_step(step);
        }
        guard.lock();
    }

    static std::vector<Found> joined(const std::vector<std::vector<Found>>& slices) {
        std::vector<Found> all;
        for (const auto& found : slices) all.insert(all.end(), found.begin(), found.end());
        return all;
    }

    void log_step(const Step& step) {
        for (const auto& found : step.found) log_.add(found);
        if (provisional_) log_.show_new([this](const Found& spot) { take_(spot, Standing::PROVISIONAL); });
        release(decided_s(step.number + 1));
    }

    void release(double time) {
        log_.release(time, [this](const Found& spot, int32_t) { take_(spot, Standing::CONFIRMED); });
    }

    // ---- The threads that decode ------------------------------------------------------------------------------------

    void labour() {
        std::optional<Look> look;
        std::unique_lock guard(lock_);
        while (true) {
            Step* step = nullptr;
            work_.wait(guard, [&] {
                const auto open =
                    std::ranges::find_if(steps_, [](const Step& s) { return !s.given_up && s.next < s.found.size(); });
                step = open == steps_.end() ? nullptr : &*open;
                return ended_ || step != nullptr;
            });
            if (ended_) return;
            const std::size_t slice = step->next++;
            step->working++;
            const Windows own = step->own();
            const bool last = step->last;
            const int64_t stored = step->stored;
            guard.unlock();
            std::vector<Found> found;
            std::string problem;
            try {
                if (!look) look.emplace(rate_, FLAT_HZ);
                found = decode_slice(*look, slice, own, stored, last, problem);
            } catch (const std::bad_alloc&) {
                problem = "memory is short";
            }
            guard.lock();
            if (problem_.empty()) problem_ = std::move(problem);
            step->found[slice] = std::move(found);
            step->working--;
            if (step->is_done()) changed_.notify_all();
        }
    }

    void end() {
        {
            const std::lock_guard guard(lock_);
            ended_ = true;
        }
        work_.notify_all();
        for (std::thread& thread : threads_) thread.join();
    }

    std::vector<Found> decode_slice(Look& look, std::size_t slice, const Windows& own, int64_t stored, bool last,
                                    std::string& problem) const {
        const int64_t first_window = std::max<int64_t>(0, own.first - BEFORE);
        const int64_t first = look.sample_of(first_window);
        const int64_t end_window = first_window + look.windows_in(first_window, stored - first);
        const Windows block = {std::max(first_window, own.first - LOOK_AROUND),
                               last ? end_window : std::min(end_window, own.end + LOOK_AROUND + LOOK_RUN)};
        if (block.end <= own.first) return {};
        const auto samples = [&](int64_t from, std::span<std::complex<float>> out) { store_.copy(slice, from, out); };
        const auto& [center_hz, own_hz] = channeliser_.slices()[slice];
        const Range band = {own_hz.low - center_hz - BESIDE_HZ, own_hz.high - center_hz + BESIDE_HZ};
        const auto keyed = look.find(samples, block, own, band, search_.scan_z - EASE_Z);
        std::vector<Found> all;
        for (const Keyed& key : keyed) {
            auto found = decode_around(look, key, slice, first_window, stored, keyed.size());
            if (!found) {
                problem = "memory is short";
                continue;
            }
            for (Found& spot : *found) spot.freq += center_hz;
            all.insert(all.end(), found->begin(), found->end());
        }
        return all;
    }

    // The frames around one find, in time and frequency, within those samples; t counts from the beginning.
    std::optional<std::vector<Found>> decode_around(Look& look, const Keyed& key, std::size_t slice,
                                                    int64_t first_window, int64_t end, std::size_t shares) const {
        const int64_t first = look_times_.sample_of(first_window);
        const auto sample_at = [&](int64_t window) {
            return std::clamp<int64_t>(look_times_.sample_of(window), first, end);
        };
        const int64_t begin_window = std::max(key.first_window - MARGIN, first_window);
        const int64_t begin = sample_at(begin_window);
        std::vector<std::complex<float>> part(
            static_cast<std::size_t>(sample_at(key.last_window + LOOK_RUN + MARGIN) - begin));
        store_.copy(slice, begin, part);
        Channeliser tile = Channeliser::baseband(rate_, key.freq_hz, tile_rate_);
        std::vector<std::complex<double>> samples;
        samples.reserve(part.size() * static_cast<std::size_t>(tile_rate_) / static_cast<std::size_t>(rate_) + 1);
        const auto take = [&](std::size_t, std::span<const std::complex<float>> narrow) {
            samples.insert(samples.end(), narrow.begin(), narrow.end());
        };
        tile.push({reinterpret_cast<const float*>(part.data()), 2 * part.size()}, take);
        tile.finish(take);
        ov_baseband baseband{samples.data(), static_cast<int32_t>(samples.size()), static_cast<double>(tile_rate_),
                             tile.slices().front().center_hz};
        const auto is_keyed = [&](const ov_baseband& rest) {
            return look.is_keyed(rest, tile_hz_,
                                 {key.first_window - LOOK_AROUND - begin_window,
                                  key.last_window + LOOK_AROUND + LOOK_RUN - begin_window});
        };
        auto found = decode_keyed(baseband, search_, {key.freq_hz, tile_hz_}, is_keyed, shares);
        if (!found) return std::nullopt;
        // What lies past the border has a find of its own, where its frequency is not that of the border.
        std::erase_if(*found, [&](const Found& spot) { return std::fabs(spot.freq - key.freq_hz) > tile_hz_; });
        for (Found& spot : *found) spot.t += static_cast<double>(begin) / rate_;
        return found;
    }

    Search search_;
    bool live_;
    bool provisional_;
    WidePart part_;
    Taker take_;
    Channeliser channeliser_;
    int32_t rate_;
    double tile_hz_;  // half-width of a decode
    int32_t tile_rate_;
    Look look_times_;  // of the thread that pushes
    Channeliser::Place begin_;
    SliceStore store_;
    int64_t received_;  // samples of each slice, with those before a part
    int64_t begun_;     // steps, with those before a part
    SpotLog log_{SpotLog::Order::START};
    double done_s_ = 0;
    double searched_ = 0;
    double skipped_ = 0;

    mutable std::mutex lock_;  // of what follows
    std::condition_variable work_, changed_;
    std::deque<Step> steps_;  // begun, in order
    std::string problem_;
    bool ended_ = false;
    std::vector<std::thread> threads_;
};

WideDecoder::WideDecoder(int32_t rate, const Search& search, const WideOptions& options, Taker take)
    : engine_(std::make_unique<Engine>(rate, search, options, WidePart{}, std::move(take))) {}
WideDecoder::WideDecoder(int32_t rate, const Search& search, const WideOptions& options, WidePart part)
    : engine_(std::make_unique<Engine>(rate, search, options, std::move(part), Taker())) {}
WideDecoder::~WideDecoder() = default;

int64_t WideDecoder::steps_in(double seconds) {
    const double windows = seconds / LOOK_STEP_S;
    return std::max<int64_t>(1, static_cast<int64_t>(std::ceil((windows - LOOK_RUN) / STEP)));
}

double WideDecoder::decided_s(int64_t steps) {
    return static_cast<double>(steps * STEP) * LOOK_STEP_S - UNDECIDED_S;
}

int64_t WideDecoder::first_sample() const {
    return engine_->first_sample();
}

bool WideDecoder::takes_more() const {
    return engine_->takes_more();
}

void WideDecoder::push(std::span<const float> samples) {
    engine_->push(samples);
}

void WideDecoder::finish() {
    engine_->finish();
}

double WideDecoder::done_s() const {
    return engine_->done_s();
}

std::string WideDecoder::problem() const {
    return engine_->problem();
}

double WideDecoder::skipped_share() const {
    return engine_->skipped_share();
}

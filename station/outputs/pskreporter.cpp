#include <algorithm>
#include <deque>
#include <memory>
#include <random>
#include <string>
#include <utility>

#include "base/error.h"
#include "base/interrupts.h"
#include "base/utc.h"
#include "outputs/datagrams.h"
#include "outputs/psk_reports.h"
#include "outputs/types.h"

namespace {

constexpr double REPORTS_PORT = 4739;
constexpr std::size_t MOST_AT_ONCE = 20'000;

class PskReporterOutput : public Output {
  public:
    PskReporterOutput(const Values& values, Keeper keeper)
        : datagrams_(values.text("host", "report.pskreporter.info"),
                     static_cast<int>(values.number("port", REPORTS_PORT))),
          reports_(std::move(keeper), monotonic_now(), std::random_device()()) {
        if (values.flag("doubtful")) throw UsageError("pskreporter: doubtful spots are not for others to rely on");
    }

    // Arrived are those that were sent, and those that need not be: their callsigns have been reported.
    std::size_t send(std::span<const StoredSpot> spots) override {
        for (const StoredSpot& stored : spots) {
            if (stored.number > taken_) reports_.add(stored);
            taken_ = std::max(taken_, stored.number);
        }
        flush();
        return reports_.has_due(monotonic_now()) ? 0 : spots.size();
    }

    void tick() override { flush(); }
    std::size_t most_at_once() const override { return MOST_AT_ONCE; }

  private:
    void flush() {
        datagrams_.open();
        for (std::string& message : reports_.take(monotonic_now(), utc_now())) unsent_.push_back(std::move(message));
        for (; !unsent_.empty(); unsent_.pop_front()) {
            if (!datagrams_.send(unsent_.front())) throw IoError("the network takes no datagrams");
        }
    }

    Datagrams datagrams_;
    PskReports reports_;
    std::deque<std::string> unsent_;
    int64_t taken_ = 0;
};

}  // namespace

std::unique_ptr<Output> make_pskreporter_output(const Values& values, const Keeper& keeper) {
    return std::make_unique<PskReporterOutput>(values, keeper);
}

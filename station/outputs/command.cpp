#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/error.h"
#include "base/interrupts.h"
#include "base/text.h"
#include "outputs/types.h"
#include "system/child.h"

namespace {

constexpr double POLL_S = 0.01;
constexpr double PATIENCE_S = 10;

class CommandOutput : public Output {
  public:
    CommandOutput(const Values& values, Keeper keeper)
        : program_(find_program(values.text("program"))),
          words_({values.text("program")}),
          patience_s_(values.number("seconds", PATIENCE_S)),
          keeper_(std::move(keeper)) {
        if (program_.empty()) throw UsageError("there is no program '" + values.text("program") + "'");
        for (std::string& word : values.texts("arguments")) words_.push_back(std::move(word));
    }

    // A spot has arrived when the program has ended well.
    std::size_t send(std::span<const StoredSpot> spots) override {
        if (spots.empty()) return 0;
        run(stored_line(spots.front(), keeper_));
        return 1;
    }

  private:
    void run(const std::string& line) const {
        Child child(program_, words_, {.input = line});
        const double end = monotonic_now() + patience_s_;
        std::optional<int> status;
        while (!(status = child.ended())) {
            drop_output(child);
            if (monotonic_now() > end) throw IoError("'" + words_[0] + format("' takes longer than %g s", patience_s_));
            sleep_seconds(POLL_S);
        }
        if (*status != 0) throw IoError("'" + words_[0] + "': " + ending_text(*status));
    }

    static void drop_output(const Child& child) {
        std::array<char, 4096> block;
        for (int k = 0; k < 64 && read(child.output(), block.data(), block.size()) > 0; k++) {
        }
    }

    std::string program_;
    std::vector<std::string> words_;
    double patience_s_;
    Keeper keeper_;
};

}  // namespace

std::unique_ptr<Output> make_command_output(const Values& values, const Keeper& keeper) {
    return std::make_unique<CommandOutput>(values, keeper);
}

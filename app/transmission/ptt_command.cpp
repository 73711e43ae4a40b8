#include <algorithm>
#include <array>
#include <optional>
#include <sstream>

#include "base/error.h"
#include "base/interrupts.h"
#include "base/text.h"
#include "system/child.h"
#include "transmission/ptt.h"

namespace {

constexpr std::size_t MOST_TEXT = 1000;   // of what the program prints
constexpr std::size_t MOST_BLOCKS = 256;  // read at once
constexpr int TICK_MS = 10;

// What a program prints, of which its last line may be wanted.
class Said {
  public:
    void read_from(Child& child) {
        std::array<char, 256> block{};
        for (std::size_t k = 0; k < MOST_BLOCKS; k++) {
            const std::size_t got = child.read_output(block);
            if (got == 0) return;
            text_.append(block.data(), std::min(got, MOST_TEXT - text_.size()));
        }
    }

    std::string last_line() const {
        std::string last;
        std::istringstream stream(text_);
        for (std::string line; std::getline(stream, line);) {
            if (!line.empty()) last = line;
        }
        return last;
    }

  private:
    std::string text_;
};

class CommandPtt : public Ptt {
  public:
    CommandPtt(const std::string& program, double patience_s)
        : program_(program), path_(find_program(program)), patience_s_(patience_s) {}

    void check() override {
        if (path_.empty()) throw UsageError("--ptt-command: there is no program '" + program_ + "'");
    }

    void set(bool on) override {
        const std::string word = on ? "on" : "off";
        try {
            run(word);
        } catch (const IoError& error) {
            throw IoError("cannot run '" + program_ + " " + word + "': " + error.what());
        }
    }

  private:
    void run(const std::string& word) const {
        Child child(path_, {path_, word}, {.variables = {"ORVEL_PTT=" + word}});
        Said said;
        const double end = monotonic_now() + patience_s_;
        std::optional<int> status;
        while (!(status = child.ended())) {
            said.read_from(child);
            if (monotonic_now() > end) throw IoError(format("takes longer than %.0f s", patience_s_));
            sleep_seconds(0.001 * TICK_MS);
        }
        said.read_from(child);
        if (*status == 0) return;
        const std::string line = said.last_line();
        throw IoError(ending_text(*status) + (line.empty() ? "" : ": " + line));
    }

    std::string program_;
    std::string path_;
    double patience_s_;
};

}  // namespace

std::unique_ptr<Ptt> make_command_ptt(const std::string& program, double patience_s) {
    return std::make_unique<CommandPtt>(program, patience_s);
}

#include "receivers/receiver_process.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <optional>
#include <utility>

#include "base/console.h"
#include "base/error.h"
#include "base/text.h"

namespace {

constexpr const char* STATUS_S = "60";
constexpr const char* SPECTRUM_S = "1";
constexpr double LONGEST_FRAME_S = 45;  // and somewhat more
constexpr double TOLERANCE_S = 10;
constexpr std::size_t LONGEST_LINE = 1 << 20;
constexpr int MOST_READS = 64;

// Appends what can be read. False when there may be more.
bool read_some(int descriptor, std::string& text) {
    std::array<char, 16384> block{};
    for (int k = 0; k < MOST_READS; k++) {
        const ssize_t got = ::read(descriptor, block.data(), block.size());
        if (got <= 0) return true;
        text.append(block.data(), static_cast<std::size_t>(got));
    }
    return false;
}

// Takes the lines that have ended out of a text.
template <class Take>
void take_lines(std::string& text, const Take& take) {
    std::size_t begin = 0;
    for (std::size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', begin)) {
        take(text.substr(begin, end - begin));
        begin = end + 1;
    }
    text.erase(0, begin);
    if (text.size() > LONGEST_LINE) text.clear();  // no line of ours
}

}  // namespace

ReceiverProcess::ReceiverProcess(ReceiverConfig config, std::string program, const Limits& limits)
    : config_(std::move(config)), program_(std::move(program)), limits_(limits), pause_s_(limits.first_pause_s) {}

ReceiverProcess::ReceiverProcess(ReceiverConfig config, std::string program)
    : ReceiverProcess(std::move(config), std::move(program), Limits()) {}

void ReceiverProcess::say(const std::string& text) const {
    print_error("receiver '" + config_.name + "': " + text, Level::WARNING);
}

bool ReceiverProcess::is_its_time(double utc) const {
    return config_.hours.empty() ||
           std::ranges::any_of(config_.hours, [&](const Hours& hours) { return hours.contain(utc); });
}

void ReceiverProcess::step(double now, double utc, bool source_is_free) {
    if (child_) {
        look_after(now);
        if (child_ && state_ == State::RUNNING && !is_its_time(utc) && !is_its_time(utc - LONGEST_FRAME_S)) stop(now);
    } else if (!is_its_time(utc)) {
        state_ = State::OFF;
    } else if (!source_is_free) {
        if (!std::exchange(has_told_, true)) {
            say("waits until its source is free; frames that have begun by then are lost");
        }
        state_ = State::WAITING;
    } else if (now >= start_at_) {
        start(now);
    } else {
        state_ = State::WAITING;
    }
}

bool ReceiverProcess::is_looked_after(double now) const {
    if (state_ == State::RUNNING) return now < heard_at_ + limits_.silence_s + TOLERANCE_S;
    if (state_ == State::ENDING) return now < kill_at_ + TOLERANCE_S;
    return true;
}

void ReceiverProcess::start(double now) {
    std::vector<std::string> arguments = {"orvel", "listen", "--json", "--status=" + std::string(STATUS_S)};
    if (spectrum_) arguments.push_back("--spectrum=" + std::string(SPECTRUM_S));
    arguments.insert(arguments.end(), config_.arguments.begin(), config_.arguments.end());
    try {
        child_ =
            std::make_unique<Child>(program_, arguments, Child::Options{.errors_apart = true, .ends_with_us = true});
    } catch (const IoError& error) {
        say(std::string("cannot start: ") + error.what());
        return restart_later(now);
    }
    output_.clear();
    errors_.clear();
    started_at_ = heard_at_ = now;
    status_ = {};
    has_told_ = false;
    state_ = State::RUNNING;
}

void ReceiverProcess::look_after(double now) {
    if (state_ == State::RUNNING && now - heard_at_ > limits_.silence_s) {
        say(format("no sample for %g s, starting it again", limits_.silence_s));
        stop(now);
    }
    if (state_ == State::ENDING && now > kill_at_) child_->signal(SIGKILL);
}

void ReceiverProcess::restart_later(double now) {
    state_ = State::WAITING;
    start_at_ = now + pause_s_;
    pause_s_ = std::min(2 * pause_s_, limits_.longest_pause_s);
}

void ReceiverProcess::stop(double now) {
    if (!child_ || state_ == State::ENDING) return;
    child_->signal(SIGTERM);
    state_ = State::ENDING;
    kill_at_ = now + limits_.ending_s;
}

// What a child printed before its end is in the pipes when its end is known.
void ReceiverProcess::read(const Takers& takers, double now) {
    if (!child_) return;
    const auto ended = child_->ended();
    const bool all = read_some(child_->output(), output_) && read_some(child_->errors(), errors_);
    take_lines(output_, [&](const std::string& line) { take_line(line, takers, now); });
    take_lines(errors_, [&](std::string line) {
        if (line.starts_with("orvel: ")) line.erase(0, 7);
        say(line);
    });
    if (!ended || !all) return;
    if (state_ == State::RUNNING) say(ending_text(*ended) + ", starting it again");
    if (now - started_at_ > limits_.steady_s) pause_s_ = limits_.first_pause_s;
    child_.reset();
    restart_later(now);
}

void ReceiverProcess::take_line(const std::string& line, const Takers& takers, double now) {
    if (auto status = parse_status_line(line)) {
        const Status before = status_.value_or(Status{});
        if (status->captured_s > before.captured_s) heard_at_ = now;
        takers.minute({config_.name, status->utc, status->level_db, status->noise_db,
                       status->captured_s - before.captured_s, status->lost_s - before.lost_s, status->decode_s,
                       status->clipped});
        status_ = std::move(*status);
    } else if (auto spot = parse_spot_line(line); spot && spot->file.empty()) {
        spot->receiver = config_.name;
        takers.spot(*spot);
    } else if (auto row = parse_spectrum_line(line)) {
        row->receiver = config_.name;
        takers.row(*row);
    } else {
        say("printed what is no spot: " + line.substr(0, 200));
    }
}

std::vector<pollfd> ReceiverProcess::descriptors() const {
    if (!child_) return {};
    return {{child_->output(), POLLIN, 0}, {child_->errors(), POLLIN, 0}};
}

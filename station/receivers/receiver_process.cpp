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
constexpr double SILENCE_S = 150;  // without a new sample: it hangs
constexpr double ENDING_S = 20;    // that it may take to end
constexpr double FIRST_PAUSE_S = 1;
constexpr double LONGEST_PAUSE_S = 60;
constexpr double STEADY_S = 120;  // a child that ran as long is started again at once
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

ReceiverProcess::ReceiverProcess(ReceiverConfig config, std::string program)
    : config_(std::move(config)), program_(std::move(program)), pause_s_(FIRST_PAUSE_S) {}

void ReceiverProcess::say(const std::string& text) const {
    print_error("receiver '" + config_.name + "': " + text);
}

bool ReceiverProcess::is_its_time(double utc) const {
    return config_.hours.empty() ||
           std::ranges::any_of(config_.hours, [&](const Hours& hours) { return hours.contain(utc); });
}

void ReceiverProcess::step(double now, double utc) {
    if (child_) {
        look_after(now);
        if (child_ && state_ == State::RUNNING && !is_its_time(utc)) {
            say("its hours are over; a frame that is on the air now is lost");
            stop(now);
        }
    } else if (!is_its_time(utc)) {
        state_ = State::OFF;
    } else if (now >= start_at_) {
        start(now);
    } else {
        state_ = State::WAITING;
    }
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
    state_ = State::RUNNING;
}

void ReceiverProcess::look_after(double now) {
    if (state_ == State::RUNNING && now - heard_at_ > SILENCE_S) {
        say(format("no sample for %.0f s, starting it again", SILENCE_S));
        stop(now);
    }
    if (state_ == State::ENDING && now > kill_at_) child_->signal(SIGKILL);
}

void ReceiverProcess::restart_later(double now) {
    state_ = State::WAITING;
    start_at_ = now + pause_s_;
    pause_s_ = std::min(2 * pause_s_, LONGEST_PAUSE_S);
}

void ReceiverProcess::stop(double now) {
    if (!child_ || state_ == State::ENDING) return;
    child_->signal(SIGTERM);
    state_ = State::ENDING;
    kill_at_ = now + ENDING_S;
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
    if (now - started_at_ > STEADY_S) pause_s_ = FIRST_PAUSE_S;
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

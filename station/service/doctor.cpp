#include "service/doctor.h"

#include <sys/statvfs.h>
#include <sys/timex.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <optional>
#include <sstream>
#include <vector>

#include "base/console.h"
#include "base/error.h"
#include "base/interrupts.h"
#include "base/text.h"
#include "config/config.h"
#include "outputs/output.h"
#include "service/station.h"
#include "spots/status.h"
#include "store/store.h"
#include "system/child.h"

namespace {

namespace fs = std::filesystem;

constexpr double LISTEN_S = 8;    // for a receiver's samples
constexpr double ENOUGH_S = 3;    // of them
constexpr double QUIET_DB = -90;  // of full scale: nothing is connected
constexpr double WORST_CLOCK_S = 0.5;
constexpr double MEGABYTE = 1e6;
constexpr double LITTLE = 1000 * MEGABYTE, TOO_LITTLE = 100 * MEGABYTE;
constexpr double TICK_S = 0.05;

class Report {
  public:
    void ok(const std::string& what, const std::string& how) { line("ok  ", what, how); }
    void note(const std::string& what, const std::string& how) { line("note", what, how); }
    void bad(const std::string& what, const std::string& how) {
        line("bad ", what, how);
        is_well_ = false;
    }
    bool is_well() const { return is_well_; }

  private:
    static void line(const std::string& mark, const std::string& what, const std::string& how) {
        print(printable(mark + "  " + what + ": " + how) + "\n");
        flush_output();
    }
    bool is_well_ = true;
};

std::string drain(int descriptor) {
    std::string text;
    std::array<char, 4096> block{};
    for (ssize_t got = 0; (got = read(descriptor, block.data(), block.size())) > 0;) {
        text.append(block.data(), static_cast<std::size_t>(got));
    }
    return text;
}

std::string last_line(const std::string& text) {
    std::istringstream lines(text);
    std::string last;
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty()) last = line;
    }
    return last.starts_with("orvel: ") ? last.substr(7) : last;
}

// The last status among lines, some of which may not have ended.
std::optional<Status> last_status(const std::string& text) {
    std::istringstream lines(text);
    std::optional<Status> last;
    for (std::string line; std::getline(lines, line);) {
        if (auto status = parse_status_line(line)) last = status;
    }
    return last;
}

void judge(Report& report, const std::string& what, const Status& status) {
    const std::string how = format("%d Hz, level %.1f dB", status.rate, status.level_db);
    if (status.level_db < QUIET_DB) return report.note(what, how + ": is it connected?");
    if (status.clipped > 0) return report.note(what, how + ", and some samples are clipped");
    if (status.lost_s > 0) return report.note(what, how + format(", but %.1f s were lost", status.lost_s));
    report.ok(what, how);
}

void examine_receiver(Report& report, const ReceiverConfig& receiver, const std::string& program) {
    const std::string what = "receiver '" + receiver.name + "'";
    std::vector<std::string> arguments = {"orvel", "listen", "--json", "--status=1"};
    arguments.insert(arguments.end(), receiver.arguments.begin(), receiver.arguments.end());
    Child child(program, arguments, {.errors_apart = true, .ends_with_us = true});
    const double end = monotonic_now() + LISTEN_S;
    std::string printed;
    std::string errors;
    std::optional<Status> status;
    bool ended = false;
    while (!ended && monotonic_now() < end && !(status && status->captured_s >= ENOUGH_S)) {
        ended = child.ended().has_value();
        printed += drain(child.output());
        errors += drain(child.errors());
        status = last_status(printed);
        sleep_seconds(TICK_S);
    }
    if (ended) return report.bad(what, errors.empty() ? "it ended" : last_line(errors));
    if (!status || status->captured_s <= 0) return report.bad(what, format("no sample within %.0f s", LISTEN_S));
    judge(report, what, *status);
}

// What the kernel knows of those who set it.
void examine_clock(Report& report) {
    timex time{};
    if (adjtimex(&time) < 0) return report.note("clock", std::strerror(errno));
    const double error_s = static_cast<double>(time.maxerror) / 1e6;
    if ((time.status & STA_UNSYNC) != 0) {
        return report.bad("clock", "nothing sets it: install chrony, and give it some minutes");
    }
    const std::string how = format("it is set, and off by %.3f s at most", error_s);
    if (error_s > WORST_CLOCK_S) return report.note("clock", how);
    report.ok("clock", how);
}

// Chrony says who sets the clock, where it runs.
void examine_chrony(Report& report) {
    const std::string program = find_program("chronyc");
    if (program.empty()) return;
    Child child(program, {"chronyc", "-n", "tracking"}, {});
    const double end = monotonic_now() + LISTEN_S;
    std::string printed;
    std::optional<int> status;
    while (!(status = child.ended()) && monotonic_now() < end) {
        printed += drain(child.output());
        sleep_seconds(TICK_S);
    }
    printed += drain(child.output());
    if (status != 0) return report.note("chrony", printed.empty() ? "no answer" : last_line(printed));
    std::istringstream lines(printed);
    for (std::string line; std::getline(lines, line);) {
        const std::size_t colon = line.find(':');
        if (line.starts_with("System time") && colon != std::string::npos) report.ok("chrony", line.substr(colon + 2));
    }
}

void examine_disk(Report& report, const std::string& path) {
    const fs::path parent = fs::path(path).parent_path();
    const std::string folder = parent.empty() ? "." : parent.string();
    const std::string what = "store '" + path + "'";
    struct statvfs disk {};
    if (statvfs(folder.c_str(), &disk) != 0) return report.bad(what, std::strerror(errno));
    if (access(folder.c_str(), W_OK) != 0 || (fs::exists(path) && access(path.c_str(), W_OK) != 0)) {
        return report.bad(what, std::string("cannot be written: ") + std::strerror(errno));
    }
    const double free = static_cast<double>(disk.f_bavail) * static_cast<double>(disk.f_frsize);
    const std::string how = format("%.0f MB are free", free / MEGABYTE);
    if (free < TOO_LITTLE) return report.bad(what, how);
    if (free < LITTLE) return report.note(what, how);
    report.ok(what, how);
}

void examine_output(Report& report, const OutputConfig& output, const Keeper& keeper) {
    const std::string what = "output '" + output.name + "'";
    make_output(output, keeper)->check();
    report.ok(what, output.type);
}

// A part that cannot be examined is bad; the next is looked at.
template <class Examine>
void part(Report& report, const std::string& what, const Examine& examine) {
    try {
        examine();
    } catch (const std::runtime_error& error) {
        report.bad(what, error.what());
    }
}

}  // namespace

bool examine_station(const std::string& config_path, const std::string& program) {
    const Config config = read_or_refuse(config_path);
    Report report;
    const Keeper keeper = keeper_of(config);
    for (const ReceiverConfig& receiver : config.receivers) {
        part(report, "receiver '" + receiver.name + "'", [&] { examine_receiver(report, receiver, program); });
    }
    if (config.receivers.empty()) report.note("receivers", "there are none");
    examine_clock(report);
    part(report, "chrony", [&] { examine_chrony(report); });
    part(report, "store", [&] { examine_disk(report, config.store.text("path")); });
    for (const OutputConfig& output : config.outputs) {
        part(report, "output '" + output.name + "'", [&] { examine_output(report, output, keeper); });
    }
    return report.is_well();
}

#include "process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace {

using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

// A file without a name for what a program writes: it cannot block on it.
File output_file() {
    File file(std::tmpfile(), std::fclose);
    if (!file) throw std::runtime_error("no temporary file");
    return file;
}

std::string content(std::FILE* file) {
    std::string text;
    std::array<char, 4096> block{};
    std::rewind(file);
    while (const std::size_t got = std::fread(block.data(), 1, block.size(), file)) text.append(block.data(), got);
    return text;
}

// The write end of a pipe whose read end is closed.
int closed_pipe() {
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0) throw std::runtime_error("no pipe");
    close(ends[0]);
    return ends[1];
}

// Starts a program with these files as its standard input, output and error. -1 for input or output: as `input` says.
pid_t start_program(const std::vector<std::string>& arguments, const ProcessInput& input, int in, int out, int err) {
    std::vector<char*> argv;
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);

    const pid_t child = fork();
    if (child < 0) throw std::runtime_error("no process");
    if (child > 0) return child;

    const int from = in >= 0 ? in : open(input.stdin_file.c_str(), O_RDONLY);
    const int to = input.stdout_closed_pipe     ? closed_pipe()
                   : !input.stdout_file.empty() ? open(input.stdout_file.c_str(), O_WRONLY)
                                                : out;
    if (from < 0 || to < 0) _exit(126);
    dup2(from, STDIN_FILENO);
    dup2(to, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    std::signal(SIGPIPE, SIG_DFL);
    std::signal(SIGHUP, SIG_DFL);  // also under nohup
    for (const auto& [name, value] : input.environment) setenv(name.c_str(), value.c_str(), 1);
    execv(argv[0], argv.data());
    _exit(127);
}

int exit_status(int status, const std::string& program) {
    if (!WIFEXITED(status)) return -WTERMSIG(status);
    const int code = WEXITSTATUS(status);
    if (code == 126 || code == 127) throw std::runtime_error("cannot start " + program);
    return code;
}

double steady_seconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

}  // namespace

ProcessResult run_process(const std::vector<std::string>& arguments, const ProcessInput& input) {
    const File out = output_file();
    const File err = output_file();
    const pid_t child = start_program(arguments, input, -1, fileno(out.get()), fileno(err.get()));
    int status = 0;
    if (waitpid(child, &status, 0) != child) throw std::runtime_error("the process got lost");
    ProcessResult result;
    result.status = exit_status(status, arguments[0]);
    result.out = content(out.get());
    result.err = content(err.get());
    return result;
}

RunningProcess::RunningProcess(const std::vector<std::string>& arguments, const ProcessInput& input) {
    // The program closes its copies of our ends as it starts. A write after its end is an error, not our end.
    std::array<int, 2> in{};
    std::array<int, 2> out{};
    if (pipe2(in.data(), O_CLOEXEC) != 0 || pipe2(out.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    std::signal(SIGPIPE, SIG_IGN);
    const File err = output_file();
    pid_ = start_program(arguments, input, in[0], out[1], fileno(err.get()));
    close(in[0]);
    close(out[1]);
    in_ = in[1];
    out_ = out[0];
    err_ = dup(fileno(err.get()));
}

RunningProcess::~RunningProcess() {
    if (pid_ != 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    close_stdin();
    close(out_);
    close(err_);
}

bool RunningProcess::write(const std::string& bytes) {
    for (std::size_t at = 0; at < bytes.size();) {
        const ssize_t written = ::write(in_, bytes.data() + at, bytes.size() - at);
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return false;
        at += static_cast<std::size_t>(written);
    }
    return true;
}

void RunningProcess::close_stdin() {
    if (in_ >= 0) close(in_);
    in_ = -1;
}

// Takes more of the output. False at its end, or when nothing comes.
bool RunningProcess::fill(double seconds) {
    pollfd ready{out_, POLLIN, 0};
    if (poll(&ready, 1, static_cast<int>(1000 * std::max(seconds, 0.0))) <= 0) return false;
    std::array<char, 4096> block{};
    const ssize_t got = read(out_, block.data(), block.size());
    if (got > 0) held_.append(block.data(), static_cast<std::size_t>(got));
    return got > 0;
}

std::optional<std::string> RunningProcess::read_line(double seconds) {
    const double end = steady_seconds() + seconds;
    std::size_t length = held_.find('\n');
    while (length == std::string::npos) {
        if (!fill(end - steady_seconds())) return std::nullopt;
        length = held_.find('\n');
    }
    const std::string line = held_.substr(0, length);
    held_.erase(0, length + 1);
    return line;
}

std::string RunningProcess::read_rest(double seconds) {
    const double end = steady_seconds() + seconds;
    while (fill(end - steady_seconds())) {
    }
    return std::exchange(held_, "");
}

void RunningProcess::send_signal(int signal) {
    if (pid_ != 0) kill(pid_, signal);
}

std::optional<ProcessResult> RunningProcess::wait(double seconds) {
    int status = 0;
    for (const double end = steady_seconds() + seconds; waitpid(pid_, &status, WNOHANG) == 0;) {
        if (steady_seconds() > end) return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    pid_ = 0;
    ProcessResult result;
    result.status = exit_status(status, "the program");
    const File err(fdopen(dup(err_), "r"), std::fclose);
    result.err = content(err.get());
    return result;
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

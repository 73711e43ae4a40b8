#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <string_view>
#include <system_error>
#include <utility>

#include "system/child.h"
#include "system/io_error.h"

namespace {

constexpr int NOT_STARTED = 127;
constexpr std::size_t PIPE_BYTES = 65536;  // that it holds before a reader comes

bool is_program(const std::string& path) {
    struct stat file {};
    return stat(path.c_str(), &file) == 0 && S_ISREG(file.st_mode) && access(path.c_str(), X_OK) == 0;
}

// A descriptor and its owner.
class Fd {
  public:
    Fd() = default;
    explicit Fd(int number) : number_(number) {}
    Fd(Fd&& other) noexcept : number_(other.release()) {}
    Fd& operator=(Fd&& other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    ~Fd() {
        if (number_ >= 0) close(number_);
    }
    int get() const { return number_; }
    int release() { return std::exchange(number_, -1); }

  private:
    int number_ = -1;
};

struct Pipe {
    Fd reader, writer;
};

Pipe make_pipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) throw IoError(std::strerror(errno));
    return {Fd(ends[0]), Fd(ends[1])};
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> all;
    all.reserve(texts.size() + 1);
    for (std::string& text : texts) all.push_back(text.data());
    all.push_back(nullptr);
    return all;
}

// This process's variables, of which others replace those of the same name.
std::vector<std::string> environment_with(const std::vector<std::string>& others) {
    std::vector<std::string> all = others;
    for (char** variable = environ; *variable != nullptr; variable++) {
        const std::string_view text = *variable;
        const std::string_view name = text.substr(0, text.find('=') + 1);
        bool replaced = false;
        for (const std::string& other : others) replaced = replaced || (!name.empty() && other.starts_with(name));
        if (!replaced) all.emplace_back(text);
    }
    return all;
}

// In the child: only calls that may follow a fork of several threads.
[[noreturn]] void become(const char* path, char* const* arguments, char* const* variables, int input, int output,
                         int errors, int problem, bool ends_with_us, pid_t parent) {
    setpgid(0, 0);
    if (ends_with_us) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent) _exit(NOT_STARTED);
    }
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGXFSZ}) signal(number, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);  // not every library's sockets are
    if (dup2(input, STDIN_FILENO) >= 0 && dup2(output, STDOUT_FILENO) >= 0 && dup2(errors, STDERR_FILENO) >= 0) {
        execve(path, arguments, variables);
    }
    const int reason = errno;
    [[maybe_unused]] const ssize_t told = write(problem, &reason, sizeof reason);
    _exit(NOT_STARTED);
}

}  // namespace

std::string find_program(const std::string& program) {
    if (program.find('/') != std::string::npos) return is_program(program) ? program : "";
    const char* const path = std::getenv("PATH");
    std::istringstream directories(path != nullptr ? path : "");
    for (std::string directory; std::getline(directories, directory, ':');) {
        directory += "/" + program;
        if (is_program(directory)) return directory;
    }
    return "";
}

std::string find_beside(const std::string& program) {
    std::error_code error;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
    const std::string beside = error ? "" : find_program((self.parent_path() / program).string());
    return beside.empty() ? find_program(program) : beside;
}

void become_program(const std::string& path, std::vector<std::string> arguments) {
    execv(path.c_str(), pointers(arguments).data());
    throw IoError(std::strerror(errno));
}

struct Child::Process {
    pid_t id = 0;
    std::optional<int> status = {};
    Fd output = {}, errors = {};
};

Child::Child(const std::string& path, std::vector<std::string> arguments, const Options& options)
    : process_(std::make_unique<Process>()) {
    std::vector<std::string> variables = environment_with(options.variables);
    const std::vector<char*> argument_list = pointers(arguments);
    const std::vector<char*> variable_list = pointers(variables);
    Pipe output = make_pipe();
    Pipe errors = options.errors_apart ? make_pipe() : Pipe{};
    Pipe problem = make_pipe();
    Pipe input = make_pipe();
    if (options.input.size() > PIPE_BYTES) throw IoError("its input is too long");
    if (!options.input.empty() && write(input.writer.get(), options.input.data(), options.input.size()) < 0) {
        throw IoError(std::strerror(errno));
    }
    const pid_t parent = getpid();
    const pid_t id = fork();
    if (id < 0) throw IoError(std::strerror(errno));
    if (id == 0) {
        const int error_end = options.errors_apart ? errors.writer.get() : output.writer.get();
        become(path.c_str(), argument_list.data(), variable_list.data(), input.reader.get(), output.writer.get(),
               error_end, problem.writer.get(), options.ends_with_us, parent);
    }
    problem.writer = Fd();
    int reason = 0;
    ssize_t got = 0;
    do {
        got = read(problem.reader.get(), &reason, sizeof reason);
    } while (got < 0 && errno == EINTR);
    if (got > 0) {
        waitpid(id, nullptr, 0);
        throw IoError(std::strerror(reason));
    }
    process_->id = id;
    process_->output = std::move(output.reader);
    process_->errors = std::move(errors.reader);
    for (const int end : {this->output(), this->errors()}) {
        if (end >= 0) fcntl(end, F_SETFL, O_NONBLOCK);
    }
}

Child::~Child() {
    if (ended()) return;
    signal(SIGKILL);
    waitpid(process_->id, nullptr, 0);
}

std::size_t Child::read_output(std::span<char> room) {
    const ssize_t got = read(output(), room.data(), room.size());
    return got > 0 ? static_cast<std::size_t>(got) : 0;
}

int Child::output() const {
    return process_->output.get();
}

int Child::errors() const {
    return process_->errors.get();
}

std::optional<int> Child::ended() {
    int status = 0;
    if (!process_->status && waitpid(process_->id, &status, WNOHANG) == process_->id) process_->status = status;
    return process_->status;
}

void Child::signal(int number) {
    if (!process_->status) kill(-process_->id, number);
}

std::string ending_text(int status) {
    return WIFEXITED(status) ? "exit status " + std::to_string(WEXITSTATUS(status))
                             : "ended by signal " + std::to_string(WTERMSIG(status));
}

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string_view>
#include <vector>

#include "base/error.h"
#include "base/interrupts.h"
#include "base/text.h"
#include "transmission/ptt.h"

namespace {

constexpr std::size_t MOST_TEXT = 1000;  // of what the program prints
constexpr int TICK_MS = 10;

bool is_program(const std::string& path) {
    struct stat file {};
    return stat(path.c_str(), &file) == 0 && S_ISREG(file.st_mode) && access(path.c_str(), X_OK) == 0;
}

// Where the program is, as a shell would look for it; "" when it is nowhere.
std::string path_of(const std::string& program) {
    if (program.find('/') != std::string::npos) return is_program(program) ? program : "";
    const char* const path = std::getenv("PATH");
    std::istringstream directories(path != nullptr ? path : "");
    for (std::string directory; std::getline(directories, directory, ':');) {
        directory += "/" + program;
        if (is_program(directory)) return directory;
    }
    return "";
}

// This process's variables with ORVEL_PTT.
std::vector<std::string> environment_with(const std::string& word) {
    std::vector<std::string> all = {"ORVEL_PTT=" + word};
    for (char** variable = environ; *variable != nullptr; variable++) {
        if (!std::string_view(*variable).starts_with("ORVEL_PTT=")) all.emplace_back(*variable);
    }
    return all;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> all;
    all.reserve(texts.size() + 1);
    for (std::string& text : texts) all.push_back(text.data());
    all.push_back(nullptr);
    return all;
}

// A running program in a process group of its own, which the terminal's Ctrl-C does not reach, and what it prints.
class Program {
  public:
    Program(const std::string& path, const std::string& word) {
        std::array<int, 2> ends{};
        if (pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) throw IoError(std::strerror(errno));
        output_ = ends[0];
        const int error = spawn(path, word, ends[1]);
        close(ends[1]);
        if (error == 0) return;
        close(output_);
        throw IoError(std::strerror(error));
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    ~Program() {
        if (pid_ > 0) {
            kill(-pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        close(output_);
    }

    // False when it does not end in time.
    bool wait(double seconds, int& status) {
        const double end = monotonic_now() + seconds;
        while (true) {
            const bool ended = waitpid(pid_, &status, WNOHANG) == pid_;
            read_output();
            if (ended) pid_ = 0;
            if (ended || monotonic_now() > end) return ended;
            sleep_seconds(0.001 * TICK_MS);
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
    int spawn(const std::string& path, const std::string& word, int output) {
        std::vector<std::string> arguments = {path, word};
        std::vector<std::string> variables = environment_with(word);
        sigset_t none;
        sigset_t defaults;
        sigemptyset(&none);
        sigemptyset(&defaults);
        for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) sigaddset(&defaults, signal);

        posix_spawn_file_actions_t files;
        posix_spawnattr_t attributes;
        posix_spawn_file_actions_init(&files);
        posix_spawnattr_init(&attributes);
        posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&files, output, STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&files, output, STDERR_FILENO);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setsigdefault(&attributes, &defaults);
        const int error = posix_spawn(&pid_, path.c_str(), &files, &attributes, pointers(arguments).data(),
                                      pointers(variables).data());
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&files);
        if (error != 0) pid_ = 0;
        return error;
    }

    void read_output() {
        std::array<char, 256> block{};
        for (ssize_t got = 1; got > 0 && text_.size() < MOST_TEXT;) {
            got = read(output_, block.data(), block.size());
            if (got > 0) text_.append(block.data(), static_cast<std::size_t>(got));
        }
        // What is more is not worth a program that waits to print it.
        if (text_.size() >= MOST_TEXT) {
            while (read(output_, block.data(), block.size()) > 0) {
            }
        }
    }

    pid_t pid_ = 0;
    int output_ = -1;
    std::string text_;
};

class CommandPtt : public Ptt {
  public:
    CommandPtt(const std::string& program, double patience_s)
        : program_(program), path_(path_of(program)), patience_s_(patience_s) {}

    void check() override {
        if (path_.empty()) throw UsageError("--ptt-command: there is no program '" + program_ + "'");
    }

    void set(bool on) override {
        const std::string word = on ? "on" : "off";
        const std::string what = "'" + program_ + " " + word + "'";
        int status = 0;
        try {
            Program program(path_, word);
            if (!program.wait(patience_s_, status)) throw IoError(format("takes longer than %.0f s", patience_s_));
            if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return;
            const std::string line = program.last_line();
            const std::string said = line.empty() ? "" : ": " + line;
            if (WIFEXITED(status)) throw IoError(format("exit status %d", WEXITSTATUS(status)) + said);
            throw IoError(format("ended by signal %d", WTERMSIG(status)) + said);
        } catch (const IoError& error) {
            throw IoError("cannot run " + what + ": " + error.what());
        }
    }

  private:
    std::string program_;
    std::string path_;
    double patience_s_;
};

}  // namespace

std::unique_ptr<Ptt> make_command_ptt(const std::string& program, double patience_s) {
    return std::make_unique<CommandPtt>(program, patience_s);
}

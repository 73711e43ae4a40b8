#include "process.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <stdexcept>

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

}  // namespace

ProcessResult run_process(const std::vector<std::string>& arguments, const ProcessInput& input) {
    const File out = output_file();
    const File err = output_file();
    std::vector<char*> argv;
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);

    const pid_t child = fork();
    if (child < 0) throw std::runtime_error("no process");
    if (child == 0) {
        const int in = open(input.stdin_file.c_str(), O_RDONLY);
        const int to = input.stdout_closed_pipe     ? closed_pipe()
                       : !input.stdout_file.empty() ? open(input.stdout_file.c_str(), O_WRONLY)
                                                    : fileno(out.get());
        if (in < 0 || to < 0) _exit(126);
        dup2(in, STDIN_FILENO);
        dup2(to, STDOUT_FILENO);
        dup2(fileno(err.get()), STDERR_FILENO);
        for (const auto& [name, value] : input.environment) setenv(name.c_str(), value.c_str(), 1);
        execv(argv[0], argv.data());
        _exit(127);
    }

    int status = 0;
    if (waitpid(child, &status, 0) != child) throw std::runtime_error("the process got lost");
    ProcessResult result;
    if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
    if (result.status == 126 || result.status == 127) throw std::runtime_error("cannot start " + arguments[0]);
    result.out = content(out.get());
    result.err = content(err.get());
    return result;
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

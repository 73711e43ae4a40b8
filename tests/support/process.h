// Runs a program as a shell would, and returns its output and status.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

struct ProcessInput {
    std::string stdin_file = "/dev/null";
    std::string stdout_file;                                       // takes the output away when given
    bool stdout_closed_pipe = false;                               // standard output is a pipe that nobody reads
    std::vector<std::pair<std::string, std::string>> environment;  // variables to set
};

struct ProcessResult {
    int status = -1;  // exit status, or less than 0 the signal that ended the program
    std::string out;  // standard output and standard error
    std::string err;
};

// arguments[0] is the program, with its path. Throws std::runtime_error when it cannot be started.
ProcessResult run_process(const std::vector<std::string>& arguments, const ProcessInput& input = {});

// A program that runs concurrently with the test, which writes its standard input through a pipe and reads what it
// prints.
class RunningProcess {
  public:
    // input.stdin_file is not used; what the program prints can be read when the output is not taken away.
    explicit RunningProcess(const std::vector<std::string>& arguments, const ProcessInput& input = {});
    ~RunningProcess();  // ends the program if it still runs
    RunningProcess(const RunningProcess&) = delete;
    RunningProcess& operator=(const RunningProcess&) = delete;

    bool write(const std::string& bytes);  // all of them; false when the program reads no more
    void close_stdin();
    std::optional<std::string> read_line(double seconds);  // without line feed; nothing when none comes in time
    std::string read_rest(double seconds);                 // up to the end of the output
    void send_signal(int signal);
    pid_t pid() const { return pid_; }                  // 0 when it has ended
    std::optional<ProcessResult> wait(double seconds);  // nothing when the program does not end; `out` is not filled

  private:
    bool fill(double seconds);

    pid_t pid_ = 0;
    int in_ = -1;
    int out_ = -1;
    int err_ = -1;
    std::string held_;
};

// The lines of a text, without their line feeds.
std::vector<std::string> lines_of(const std::string& text);

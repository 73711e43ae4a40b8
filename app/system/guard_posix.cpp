#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "system/guard.h"
#include "system/io_error.h"

namespace {

constexpr char ARMED = 'a';
constexpr char IDLE = 'i';
constexpr int FROM_US = STDERR_FILENO + 1;  // the guard's end of the socket

// It holds nothing of ours open but the socket, and outlives what ends us.
void leave_our_surroundings(int from_us) {
    setsid();
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGQUIT}) std::signal(signal, SIG_IGN);
    if (from_us != FROM_US) dup3(from_us, FROM_US, O_CLOEXEC);
    const int nothing = open("/dev/null", O_RDWR);
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(nothing, fd);
    close_range(FROM_US + 1, ~0U, 0);
}

// Until we end.
[[noreturn]] void watch(const std::function<void()>& last) {
    char state = IDLE;
    for (ssize_t got = 1; got != 0;) {
        char next = IDLE;
        got = read(FROM_US, &next, 1);
        if (got == 1) state = next;
        if (got < 0 && errno != EINTR) break;
    }
    if (state == ARMED) last();
    _exit(0);
}

}  // namespace

struct Guard::Process {
    pid_t id = 0;
    int socket = -1;
    bool armed = false;
};

Guard::Guard(std::function<void()> last) : process_(std::make_unique<Process>()) {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) throw IoError(std::strerror(errno));
    process_->id = fork();
    if (process_->id == 0) {
        close(ends[0]);
        leave_our_surroundings(ends[1]);
        watch(last);
    }
    const int error = errno;
    close(ends[1]);
    process_->socket = ends[0];
    if (process_->id > 0) return;
    close(ends[0]);
    throw IoError(std::strerror(error));
}

Guard::~Guard() {
    close(process_->socket);
    if (!process_->armed) waitpid(process_->id, nullptr, 0);
}

void Guard::arm(bool armed) {
    process_->armed = armed;
    const char state = armed ? ARMED : IDLE;
    send(process_->socket, &state, 1, MSG_NOSIGNAL);
}

#include "transmission/keyer.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include "base/console.h"
#include "base/error.h"

namespace {

constexpr char KEYED = 'k';
constexpr char RELEASED = 'r';

// Twice: a rigctld or a program may have been busy with the call before.
std::string release_reason(Ptt& ptt) {
    std::string reason;
    for (int32_t tries = 0; tries < 2; tries++) {
        try {
            ptt.set(false);
            return "";
        } catch (const IoError& error) {
            reason = error.what();
        }
    }
    return reason;
}

constexpr int FROM_US = STDERR_FILENO + 1;  // the guard's end of the socket

// Of the guard: it holds nothing of ours open but the socket, and outlives what ends us.
void leave_our_surroundings(int from_us) {
    setsid();
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGQUIT}) std::signal(signal, SIG_IGN);
    if (from_us != FROM_US) dup3(from_us, FROM_US, O_CLOEXEC);
    const int nothing = open("/dev/null", O_RDWR);
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(nothing, fd);
    close_range(FROM_US + 1, ~0U, 0);
}

// Until we end.
[[noreturn]] void watch(Ptt& ptt) {
    char state = RELEASED;
    for (ssize_t got = 1; got != 0;) {
        char next = RELEASED;
        got = read(FROM_US, &next, 1);
        if (got == 1) state = next;
        if (got < 0 && errno != EINTR) break;
    }
    if (state == KEYED) release_reason(ptt);
    _exit(0);
}

}  // namespace

Keyer::Keyer(std::unique_ptr<Ptt> ptt) : ptt_(std::move(ptt)) {
    if (ptt_ && ptt_->outlives_us()) start_guard();
}

Keyer::~Keyer() {
    const bool released = release();
    if (to_guard_ < 0) return;
    close(to_guard_);
    if (released) waitpid(guard_, nullptr, 0);
}

void Keyer::start_guard() {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) throw IoError(std::strerror(errno));
    flush_output();
    guard_ = fork();
    if (guard_ == 0) {
        close(ends[0]);
        leave_our_surroundings(ends[1]);
        watch(*ptt_);
    }
    const int error = errno;
    close(ends[1]);
    to_guard_ = ends[0];
    if (guard_ > 0) return;
    close(std::exchange(to_guard_, -1));
    throw IoError(std::strerror(error));
}

void Keyer::tell_guard(char state) {
    if (to_guard_ >= 0) send(to_guard_, &state, 1, MSG_NOSIGNAL);
}

void Keyer::check() {
    if (ptt_) ptt_->check();
}

void Keyer::key() {
    if (!ptt_ || keyed_) return;
    keyed_ = true;
    tell_guard(KEYED);
    ptt_->set(true);
}

bool Keyer::release() {
    if (!keyed_) return true;
    keyed_ = false;
    const std::string reason = release_reason(*ptt_);
    if (!reason.empty()) {
        print_error("the transmitter may still be keyed: " + reason);
        return false;
    }
    tell_guard(RELEASED);
    return true;
}

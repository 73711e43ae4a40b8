#include "service/notify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "base/parse.h"

void notify_service(const std::string& state) {
    const char* const path = std::getenv("NOTIFY_SOCKET");
    sockaddr_un address{};
    if (path == nullptr || (path[0] != '/' && path[0] != '@') || std::strlen(path) >= sizeof address.sun_path) return;
    address.sun_family = AF_UNIX;
    std::copy_n(path, std::strlen(path), address.sun_path);
    if (path[0] == '@') address.sun_path[0] = '\0';  // an abstract name
    const int end = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (end < 0) return;
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(path));
    sendto(end, state.data(), state.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address), size);
    close(end);
}

double watchdog_seconds() {
    const char* const us = std::getenv("WATCHDOG_USEC");
    const char* const pid = std::getenv("WATCHDOG_PID");
    if (us == nullptr || (pid != nullptr && parse_finite(pid) != static_cast<double>(getpid()))) return 0;
    return 1e-6 * parse_finite(us).value_or(0);
}

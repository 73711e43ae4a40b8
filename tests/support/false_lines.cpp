// To be loaded before the C library (LD_PRELOAD): serial lines for pseudo terminals, which have none. What is done to
// the lines goes into the file that ORVEL_FALSE_LINES names: "+" or "-" and the lines' number, and the time.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace {

void note(bool raised, int lines) {
    const char* const path = std::getenv("ORVEL_FALSE_LINES");
    std::FILE* const file = path != nullptr ? std::fopen(path, "a") : nullptr;
    if (file == nullptr) return;
    const double now = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    std::fprintf(file, "%c%d %.3f\n", raised ? '+' : '-', lines, now);
    std::fclose(file);
}

}  // namespace

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (request != TIOCMBIS && request != TIOCMBIC) return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
    note(request == TIOCMBIS, *static_cast<const int*>(argument));
    return 0;
}

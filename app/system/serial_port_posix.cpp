#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "system/io_error.h"
#include "system/serial_port.h"

namespace {

bool change(intptr_t port, unsigned long how, int lines) {
    return ioctl(static_cast<int>(port), how, &lines) == 0;
}

}  // namespace

void SerialPort::refuse(const std::string& what) {
    const std::string reason = std::strerror(errno);
    close();
    throw IoError(what.empty() ? reason : what + ": " + reason);
}

bool SerialPort::is_port() const {
    struct stat file {};
    if (stat(name_.c_str(), &file) != 0) throw IoError(std::strerror(errno));
    if (!S_ISCHR(file.st_mode)) return false;
    if (access(name_.c_str(), R_OK | W_OK) != 0) throw IoError(std::strerror(errno));
    return true;
}

void SerialPort::open() {
    if (is_open()) return;
    handle_ = ::open(name_.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (!is_open()) refuse("");
    const int port = static_cast<int>(handle_);
    termios settings{};
    if (tcgetattr(port, &settings) != 0) refuse("");
    settings.c_cflag |= CLOCAL | HUPCL;
    settings.c_cflag &= ~static_cast<tcflag_t>(CRTSCTS);  // it would move RTS by itself
    if (tcsetattr(port, TCSANOW, &settings) != 0) refuse("");
    if (!change(handle_, TIOCMBIC, TIOCM_RTS | TIOCM_DTR)) refuse("cannot lower the lines");
}

void SerialPort::raise(SerialLine line) {
    if (!change(handle_, TIOCMBIS, line == SerialLine::RTS ? TIOCM_RTS : TIOCM_DTR)) refuse("cannot raise the line");
}

void SerialPort::lower() {
    if (!change(handle_, TIOCMBIC, TIOCM_RTS | TIOCM_DTR)) refuse("cannot lower the line");
    close();
}

void SerialPort::close() {
    if (is_open()) ::close(static_cast<int>(std::exchange(handle_, CLOSED)));
}

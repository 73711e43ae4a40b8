#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "base/error.h"
#include "transmission/ptt.h"

namespace {

class SerialPtt : public Ptt {
  public:
    SerialPtt(const std::string& port, SerialLine line) : port_(port), line_(line) {}
    SerialPtt(const SerialPtt&) = delete;
    SerialPtt& operator=(const SerialPtt&) = delete;
    ~SerialPtt() override { close_port(); }

    void check() override {
        struct stat file {};
        if (stat(port_.c_str(), &file) != 0) refuse("");
        if (!S_ISCHR(file.st_mode)) throw UsageError("--ptt: '" + port_ + "' is no serial port");
        if (access(port_.c_str(), R_OK | W_OK) != 0) refuse("");
    }

    void set(bool on) override {
        if (on) {
            open_port();
            if (!change(TIOCMBIS, line_ == SerialLine::RTS ? TIOCM_RTS : TIOCM_DTR)) refuse("cannot raise the line");
        } else if (fd_ >= 0) {
            const bool lowered = change(TIOCMBIC, TIOCM_RTS | TIOCM_DTR);
            const int error = errno;
            close_port();
            errno = error;
            if (!lowered) refuse("cannot lower the line");
        }
    }

    // The system lowers both lines when it closes the port, however we end.
    bool outlives_us() const override { return false; }

  private:
    [[noreturn]] void refuse(const std::string& what) {
        const std::string reason = std::strerror(errno);
        close_port();
        throw IoError("cannot use '" + port_ + "': " + (what.empty() ? "" : what + ": ") + reason);
    }

    bool change(unsigned long how, int lines) { return ioctl(fd_, how, &lines) == 0; }

    void open_port() {
        if (fd_ >= 0) return;
        fd_ = open(port_.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
        if (fd_ < 0) refuse("");
        termios settings{};
        if (tcgetattr(fd_, &settings) != 0) refuse("");
        settings.c_cflag |= CLOCAL | HUPCL;
        settings.c_cflag &= ~static_cast<tcflag_t>(CRTSCTS);  // it would move RTS by itself
        if (tcsetattr(fd_, TCSANOW, &settings) != 0) refuse("");
        if (!change(TIOCMBIC, TIOCM_RTS | TIOCM_DTR)) refuse("cannot lower the lines");
    }

    void close_port() {
        if (fd_ >= 0) close(std::exchange(fd_, -1));
    }

    std::string port_;
    SerialLine line_;
    int fd_ = -1;
};

}  // namespace

std::unique_ptr<Ptt> make_serial_ptt(const std::string& port, SerialLine line) {
    return std::make_unique<SerialPtt>(port, line);
}

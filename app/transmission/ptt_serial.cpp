#include "base/error.h"
#include "system/serial_port.h"
#include "transmission/ptt.h"

namespace {

// What `call` throws, with the port's name before it.
template <class Call>
auto in_words(const std::string& name, Call call) {
    try {
        return call();
    } catch (const IoError& error) {
        throw IoError("cannot use '" + name + "': " + error.what());
    }
}

class SerialPtt : public Ptt {
  public:
    SerialPtt(const std::string& name, SerialLine line) : name_(name), port_(name), line_(line) {}

    void check() override {
        if (!in_words(name_, [this] { return port_.is_port(); }))
            throw UsageError("--ptt: '" + name_ + "' is no serial port");
    }

    void set(bool on) override {
        in_words(name_, [this, on] {
            if (on) {
                port_.open();
                port_.raise(line_);
            } else if (port_.is_open()) {
                port_.lower();
            }
        });
    }

    // The system lowers both lines when it closes the port, however we end.
    bool outlives_us() const override { return false; }

  private:
    std::string name_;
    SerialPort port_;
    SerialLine line_;
};

}  // namespace

std::unique_ptr<Ptt> make_serial_ptt(const std::string& port, SerialLine line) {
    return std::make_unique<SerialPtt>(port, line);
}

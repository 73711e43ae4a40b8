// A serial port whose lines are all that is wanted of it.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

enum class SerialLine { RTS, DTR };

// Each of these but is_port() throws IoError, whose text is the reason, and the port is closed then.
class SerialPort {
  public:
    // As a user names it: /dev/ttyUSB0, on Windows COM3.
    explicit SerialPort(std::string name) : name_(std::move(name)) {}
    SerialPort(const SerialPort&) = delete;
    SerialPort& operator=(const SerialPort&) = delete;
    ~SerialPort() { close(); }

    // False when what is there is something else. Throws IoError when it is not there, or not for us.
    bool is_port() const;

    bool is_open() const { return handle_ != CLOSED; }
    void open();  // with both lines low
    void raise(SerialLine line);
    void lower();  // both, and closes it
    void close();  // by which the system lowers them too

  private:
    static constexpr intptr_t CLOSED = -1;
    [[noreturn]] void refuse(const std::string& what);

    std::string name_;
    intptr_t handle_ = CLOSED;
};

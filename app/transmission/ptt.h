// Push to talk: what switches a transmitter to sending and back.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "system/serial_port.h"

class Ptt {
  public:
    virtual ~Ptt() = default;

    // Throws UsageError or IoError when what shall switch is not there.
    virtual void check() = 0;

    // Switches; takes as long as the patience below, about. Throws IoError with the reason.
    virtual void set(bool on) = 0;

    // What set(true) began does not end with this process.
    virtual bool outlives_us() const { return true; }
};

constexpr double PTT_PATIENCE_S = 5;

// A program of the user's, run without a shell as PROGRAM on or PROGRAM off, with the same word in the variable
// ORVEL_PTT. Exit status 0 is success.
std::unique_ptr<Ptt> make_command_ptt(const std::string& program, double patience_s = PTT_PATIENCE_S);

// A line of a serial port, which is open while it sends only, as opening a port raises its lines.
std::unique_ptr<Ptt> make_serial_ptt(const std::string& port, SerialLine line);

// A rig that Hamlib's rigctld controls. Throws UsageError when the port is no number of one.
std::unique_ptr<Ptt> make_rigctld_ptt(const std::string& host, const std::string& port,
                                      double patience_s = PTT_PATIENCE_S);

// As a user types it: serial:PORT:rts, serial:PORT:dtr or rigctld:HOST:PORT. Throws UsageError when it is not one of
// them.
std::unique_ptr<Ptt> make_ptt(const std::string& text);

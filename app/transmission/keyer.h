// A transmitter that sends no longer than we do.
#pragma once

#include <memory>
#include <optional>

#include "system/guard.h"
#include "transmission/ptt.h"

// Keys and releases. A second process, which no signal to us reaches, releases what we leave keyed: killed, crashed, or
// by a release that failed. Make it before any thread.
class Keyer {
  public:
    // Without a Ptt nothing is keyed.
    explicit Keyer(std::unique_ptr<Ptt> ptt);
    ~Keyer();  // releases
    Keyer(const Keyer&) = delete;
    Keyer& operator=(const Keyer&) = delete;

    bool keyed() const { return keyed_; }
    bool has_ptt() const { return ptt_ != nullptr; }

    // As Ptt::check().
    void check();

    // Throws IoError when that fails; then it counts as keyed, as nobody knows.
    void key();

    // Harmless when not keyed. False, with a line on standard error, when it fails twice.
    bool release();

  private:
    std::unique_ptr<Ptt> ptt_;
    bool keyed_ = false;
    std::optional<Guard> guard_;
};

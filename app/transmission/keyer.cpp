#include "transmission/keyer.h"

#include <string>
#include <utility>

#include "base/console.h"
#include "base/error.h"

namespace {

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

}  // namespace

Keyer::Keyer(std::unique_ptr<Ptt> ptt) : ptt_(std::move(ptt)) {
    if (!ptt_ || !ptt_->outlives_us()) return;
    flush_output();
    guard_.emplace([this] { release_reason(*ptt_); });
}

Keyer::~Keyer() {
    release();
}

void Keyer::check() {
    if (ptt_) ptt_->check();
}

void Keyer::key() {
    if (!ptt_ || keyed_) return;
    keyed_ = true;
    if (guard_) guard_->arm(true);
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
    if (guard_) guard_->arm(false);
    return true;
}

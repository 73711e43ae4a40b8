#include "transmission/ptt.h"

#include <string_view>

#include "base/error.h"

namespace {

// A text in two at its last colon: ports of serial interfaces and addresses have colons of their own.
bool split(std::string_view text, std::string& head, std::string& tail) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string_view::npos || colon == 0 || colon + 1 == text.size()) return false;
    head = text.substr(0, colon);
    tail = text.substr(colon + 1);
    return true;
}

}  // namespace

std::unique_ptr<Ptt> make_ptt(const std::string& text) {
    constexpr std::string_view SERIAL = "serial:";
    constexpr std::string_view RIGCTLD = "rigctld:";
    std::string name;
    std::string detail;
    if (text.starts_with(SERIAL) && split(text.substr(SERIAL.size()), name, detail)) {
        if (detail == "rts") return make_serial_ptt(name, SerialLine::RTS);
        if (detail == "dtr") return make_serial_ptt(name, SerialLine::DTR);
    }
    if (text.starts_with(RIGCTLD) && split(text.substr(RIGCTLD.size()), name, detail)) {
        if (name.starts_with('[') && name.ends_with(']')) name = name.substr(1, name.size() - 2);
        return make_rigctld_ptt(name, detail);
    }
    throw UsageError("--ptt: '" + text + "' is not serial:PORT:rts, serial:PORT:dtr or rigctld:HOST:PORT");
}

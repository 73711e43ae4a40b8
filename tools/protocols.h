// The protocols' names on the command line.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "liborvel.h"

struct Protocol {
    const char* name;
    int32_t id;
};
inline constexpr std::array PROTOCOLS = {Protocol{"opera", OVL_OPERA}, Protocol{"orvel-s", OVL_ORVEL_S},
                                         Protocol{"orvel-l", OVL_ORVEL_L}};

// Null when no protocol has that name.
inline const Protocol* find_protocol(std::string_view name) {
    for (const Protocol& protocol : PROTOCOLS) {
        if (name == protocol.name) return &protocol;
    }
    return nullptr;
}

// "opera, orvel-s, orvel-l"
inline std::string protocol_names() {
    std::string names;
    for (const Protocol& protocol : PROTOCOLS) {
        if (!names.empty()) names += ", ";
        names += protocol.name;
    }
    return names;
}

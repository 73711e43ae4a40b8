// How collectors divide the stations among them: by shares of equal size, each of which one collector has.
#pragma once

#include <cstdint>
#include <string_view>

inline constexpr int SHARES = 64;

// The same on every machine.
constexpr uint32_t stable_hash(std::string_view text) {
    uint64_t hash = 0x811c9dc5;  // FNV-1a
    for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 0x01000193 & 0xffffffff;
    return static_cast<uint32_t>(hash);
}

constexpr int share_of(std::string_view station) {
    return static_cast<int>(stable_hash(station) % static_cast<uint32_t>(SHARES));
}

// The shares that each of some collectors may have at most.
constexpr int most_shares(int collectors) {
    return collectors <= 1 ? SHARES : (SHARES + collectors - 1) / collectors;
}

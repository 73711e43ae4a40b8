// A station to look at: simulated receivers on a simulated band, and the page.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "simulation/scene.h"

struct DemoReceiver {
    std::string_view name;
    int32_t rate;          // Hz
    double center_hz;      // on the air
    double half_width_hz;  // of what it searches
    bool wide;
    double gain_db;  // by which it hears better than others
};

std::span<const DemoReceiver> demo_receivers();

// What one of them hears, after `count` other scenes. Receivers of a band hear the same transmissions, each in its own
// noise.
SimScene demo_scene(std::size_t which, int64_t count);

// Runs until it is interrupted: the store is a temporary one, the page on loopback, and nothing leaves this machine.
// The receivers' children are `program`. Returns an exit status. Throws IoError.
int run_demo(const std::string& program);

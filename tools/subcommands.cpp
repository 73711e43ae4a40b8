#include "subcommands.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace {

constexpr std::array LEFT_OUT = {
#ifndef ORVEL_PICTURES
    std::string_view("plot"),
#endif
#ifndef ORVEL_STATION
    std::string_view("station"), std::string_view("spots"), std::string_view("collect"),
#endif
    std::string_view()};

}  // namespace

bool is_left_out(const std::string& name) {
    return !name.empty() && std::ranges::find(LEFT_OUT, name) != LEFT_OUT.end();
}

void add_subcommands(CLI::App& app, int& status) {
    add_decode(app, status);
    add_merge(app, status);
    add_encode(app, status);
    add_render(app, status);
    add_simulate(app, status);
#ifdef ORVEL_PICTURES
    add_plot(app, status);
#endif
    add_scan(app, status);
    add_devices(app, status);
    add_send(app, status);
    add_listen(app, status);
#ifdef ORVEL_STATION
    add_station(app, status);
    add_spots(app, status);
    add_collect(app, status);
#endif
}

#include "subcommands.h"

void add_subcommands(CLI::App& app, int& status) {
    add_decode(app, status);
    add_merge(app, status);
    add_encode(app, status);
    add_render(app, status);
    add_simulate(app, status);
    add_plot(app, status);
    add_scan(app, status);
    add_devices(app, status);
    add_send(app, status);
    add_listen(app, status);
    add_station(app, status);
    add_spots(app, status);
    add_collect(app, status);
}

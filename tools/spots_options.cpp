#include "spots_options.h"

CLI::App* add_spots_options(CLI::App& app, SpotsOptions& options) {
    CLI::App* const sub = app.add_subcommand("spots", "List what a station has heard");
    sub->add_option("--store", options.store, "The station's database [/var/lib/orvel/spots.db]")->type_name("FILE");
    sub->add_option("--call", options.call, "Callsign; * stands for any letters and digits")->type_name("CALL");
    sub->add_option("--receiver", options.receiver, "Name of the receiver")->type_name("NAME");
    sub->add_option("--protocol", options.protocol, "One protocol")->type_name("NAME");
    sub->add_option("--from", options.from, "Earliest start: a UTC time, or 24h for as long ago")->type_name("TIME");
    sub->add_option("--until", options.until, "Latest start")->type_name("TIME");
    sub->add_option("--band", options.band, "Radio frequencies, as 137400:137600 Hz")->type_name("LO:HI");
    sub->add_option("--newest", options.newest, "The latest so many")->type_name("N");
    CLI::Option* const json = sub->add_flag("--json", options.json, "Print one JSON object per line");
    CLI::Option* const csv =
        sub->add_flag("--csv", options.csv, "Print comma-separated values, their names first")->excludes(json);
    CLI::Option* const adif =
        sub->add_flag("--adif", options.adif, "Print ADIF, for logbooks")->excludes(json)->excludes(csv);
    sub->add_option("--plot", options.plot, "Draw SNR and frequency over time instead: PNG, SVG or PDF")
        ->type_name("FILE")
        ->excludes(json)
        ->excludes(csv)
        ->excludes(adif);
    return sub;
}

#include "subcommands.h"

#include <memory>
#include <string>
#include <vector>

#include "base/console.h"
#include "base/error.h"
#include "base/json.h"
#include "base/text.h"
#include "exit_status.h"
#include "sources/devices.h"

namespace {

void print_table(const std::vector<ovl_audio_device>& devices) {
    print(format("%6s  %2s  %3s  %7s  %-9s  %s\n", "number", "in", "out", "rate Hz", "system", "name"));
    for (std::size_t i = 0; i < devices.size(); i++) {
        const ovl_audio_device& device = devices[i];
        std::string role;
        if (device.is_default_input != 0) role += ", default input";
        if (device.is_default_output != 0) role += ", default output";
        print(format("%6zu  %2d  %3d  %7.0f  %-9s  %s%s\n", i, device.input_channels, device.output_channels,
                     device.default_rate, device.host_api, device.name, role.c_str()));
    }
}

void print_json(const std::vector<ovl_audio_device>& devices) {
    for (std::size_t i = 0; i < devices.size(); i++) {
        const ovl_audio_device& device = devices[i];
        nlohmann::ordered_json object;
        object["number"] = i;
        object["name"] = device.name;
        object["system"] = device.host_api;
        object["input_channels"] = device.input_channels;
        object["output_channels"] = device.output_channels;
        object["default_rate"] = device.default_rate;
        object["default_input"] = device.is_default_input != 0;
        object["default_output"] = device.is_default_output != 0;
        print(json_line(object));
    }
}

int devices(bool json) {
    const std::vector<ovl_audio_device> found = list_devices();
    if (found.empty()) throw IoError("no sound devices");
    if (json) {
        print_json(found);
    } else {
        print_table(found);
    }
    return flush_output() ? EXIT_DONE : EXIT_FAILED;
}

}  // namespace

void add_devices(CLI::App& app, int& status) {
    CLI::App* sub = app.add_subcommand("devices", "List the sound devices");
    const auto json = std::make_shared<bool>(false);
    sub->add_flag("--json", *json, "Print one JSON object per line");
    sub->callback([json, &status] { status = devices(*json); });
}

// Configurations of stations: any file is read or its mistakes are told, each with a place in it.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "base/error.h"
#include "config/config.h"
#include "input.h"

namespace {

constexpr std::array KEYS = {Key{"text", Kind::TEXT, true}, Key{"texts", Kind::TEXTS},
                             Key{"number", Kind::NUMBER, false, -1, 10}, Key{"flag", Kind::FLAG},
                             Key{"password", Kind::TEXT}};
constexpr std::array KINDS = {OutputKind{"one", KEYS}, OutputKind{"none", {}}};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    static const std::string path =
        (std::filesystem::temp_directory_path() / ("fuzz-config-" + std::to_string(getpid()))).string();
    const std::string text = Input(data, size).rest();
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    std::vector<Mistake> mistakes;
    try {
        const Config config = read_config(path, KINDS, mistakes);
        const auto lines = static_cast<uint32_t>(std::count(text.begin(), text.end(), '\n'));
        uint32_t before = 0;
        for (const Mistake& mistake : mistakes) {
            expect(mistake.line >= before && mistake.line <= lines + 1 && !mistake.text.empty());
            before = mistake.line;
        }
        if (mistakes.empty()) {
            expect(!config.station.text("callsign").empty() && config.store.has("path"));
            for (const OutputConfig& output : config.outputs) {
                expect(output.type == "one" || output.type == "none");
                expect(output.values.number("number", 0) >= -1 && output.values.number("number", 0) <= 10);
            }
            for (const ReceiverConfig& receiver : config.receivers) {
                expect(!receiver.name.empty() && receiver.name.size() <= 64);
                for (const Hours& hours : receiver.hours) expect(hours.from_minute != hours.to_minute);
            }
        }
    } catch (const IoError& error) {
        expect(*error.what() != '\0');
    }
    return 0;
}

// Who includes whom: the layers of the project, as CONTRIBUTING.md draws them.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

const fs::path ROOT = ORVEL_SOURCE;

// The names that a file includes, in angle brackets or quotes.
std::vector<std::string> includes_of(const fs::path& path) {
    std::ifstream file(path);
    std::vector<std::string> names;
    for (std::string line; std::getline(file, line);) {
        if (!line.starts_with("#include ") || line.size() < 12) continue;
        names.push_back(line.substr(10, line.find_first_of(">\"", 10) - 10));
    }
    return names;
}

std::vector<fs::path> sources_in(const std::string& folder) {
    std::vector<fs::path> files;
    for (const auto& entry : fs::recursive_directory_iterator(ROOT / folder)) {
        const auto extension = entry.path().extension();
        if (extension == ".h" || extension == ".hpp" || extension == ".cpp") files.push_back(entry.path());
    }
    EXPECT_FALSE(files.empty()) << folder;
    return files;
}

// All headers of src/ that a file of src/ reaches.
std::set<std::string> reached_from(const std::string& name) {
    std::set<std::string> reached;
    std::vector<std::string> open = {name};
    while (!open.empty()) {
        const fs::path path = ROOT / "src" / open.back();
        open.pop_back();
        for (const std::string& include : includes_of(path)) {
            if (fs::exists(ROOT / "src" / include) && reached.insert(include).second) open.push_back(include);
        }
    }
    return reached;
}

TEST(Layers, NothingBelowTheToolsKnowsACommandLine) {
    for (const char* const folder : {"include", "src", "app"}) {
        for (const fs::path& file : sources_in(folder)) {
            for (const std::string& include : includes_of(file)) {
                EXPECT_FALSE(include.starts_with("CLI/")) << file;
                EXPECT_FALSE(fs::exists(ROOT / "tools" / include)) << file << " includes " << include;
            }
        }
    }
}

TEST(Layers, TheLibraryKnowsNothingAboveIt) {
    for (const fs::path& file : sources_in("src")) {
        for (const std::string& include : includes_of(file)) {
            EXPECT_FALSE(fs::exists(ROOT / "app" / include)) << file << " includes " << include;
        }
    }
}

// What the standard search finds does not depend on the coherent one.
TEST(Layers, OnlyTheExportedFunctionsKnowTheCoherentSearch) {
    for (const fs::path& file : sources_in("src")) {
        if (file.parent_path().filename() == "coherent" || file.filename() == "liborvel.cpp") continue;
        for (const std::string& include : includes_of(file)) {
            EXPECT_FALSE(include.starts_with("coherent/")) << file << " includes " << include;
        }
    }
}

// What a frame is does not depend on how one is found.
TEST(Layers, CodersDoNotKnowTheReceiver) {
    const std::set<std::string> receiver = {"ovbb.h",   "ovsync.h",  "ovcandidates.h", "ovhypothesis.h", "ovsnr.h",
                                            "ovcdec.h", "ovcdeep.h", "ovpipe.h",       "ovscan.h",       "ovfft.h"};
    for (const char* const coder : {"protocol", "ovcenc", "orvel", "ldpc", "ldpc_tables"}) {
        for (const char* const extension : {".h", ".cpp"}) {
            for (const std::string& include : reached_from(coder + std::string(extension))) {
                EXPECT_EQ(receiver.count(include), 0u) << coder << " reaches " << include;
            }
        }
    }
}

// Of the library's inside the programs use its pipeline, and what is listed here with its reason.
TEST(Layers, ProgramsUseOfTheLibraryWhatIsListed) {
    const std::map<std::string, std::set<std::string>> allowed = {
        {"ovpipe.h", {}},    // decodes of I/Q and of wide bands: everywhere
        {"protocol.h", {}},  // the names of the protocols: everywhere
        {"platform.h",
         {"app/base/text.h", "app/base/utc.cpp", "app/system/files_windows.cpp"}},  // as the library has it
        {"windows_path.h",                                                          // names for Windows
         {"app/system/child_windows.cpp", "app/system/files_windows.cpp", "app/system/libraries_windows.cpp",
          "app/system/serial_port_windows.cpp", "app/system/sockets_windows.cpp", "app/system/sound_files_windows.cpp",
          "app/system/standard_streams_windows.cpp"}},
        // The same search of I/Q; frames that are taken out.
        {"coherent/coherent.h", {"app/decoding/coherent_block.cpp", "app/decoding/decode_block.cpp"}},
        {"ovscan.h", {"app/decoding/bands.cpp", "tools/scan.cpp"}},  // a scan of I/Q, and of any band
        {"ovcenc.h", {"app/base/callsign.cpp"}},                     // whether a callsign passes for one
        {"ovcdec.h", {"app/base/callsign.cpp"}},
        {"ovpassband.h", {"app/decoding/decode_block.cpp"}},   // SNRs that are right at the edge of a filter
        {"wavread.h", {"app/recordings/open_recording.cpp"}},  // the library's readers
        {"ovaudio.h", {"tools/send.cpp"}},                     // gaps in what was sent
        {"iqread.h", {"app/recordings/open_recording.cpp"}},
        // Parts of a wide band; one frame chip by chip.
        {"ovbb.h",
         {"app/decoding/coherent_block.h", "app/decoding/decode_block.cpp", "app/decoding/decode_block.h",
          "app/decoding/decimation.h", "app/pictures/chip_view.cpp", "app/wideband/look.h"}},
        {"ovsync.h", {"app/pictures/chip_view.cpp"}},
        {"owners.h", {"app/decoding/decode_block.cpp", "app/pictures/chip_view.cpp"}},
        {"robust.h", {"app/wideband/look.cpp"}},  // the level of noise with signals in it
        {"multiversion.h",
         {"app/decoding/decimation.cpp", "app/wideband/look.cpp", "app/wideband/slice_store.cpp",
          "app/wideband/channeliser.cpp"}},
        {"ovfft.h", {"app/decoding/decimation.h", "app/pictures/waterfall.cpp"}},  // spectra
        {"bigpages.h", {"app/recordings/recording.cpp"}},                          // blocks of minutes
    };
    for (const char* const folder : {"app", "tools"}) {
        for (const fs::path& file : sources_in(folder)) {
            const std::string name = fs::relative(file, ROOT).generic_string();
            for (const std::string& include : includes_of(file)) {
                if (!fs::exists(ROOT / "src" / include)) continue;
                const auto found = allowed.find(include);
                const bool listed = found != allowed.end() && (found->second.empty() || found->second.count(name) != 0);
                EXPECT_TRUE(listed) << name << " includes " << include;
            }
        }
    }
}

// The rooms of app/, from the bottom up: each may include those before it that are listed in its line.
TEST(Layers, RoomsKnowOnlyTheRoomsBelowThem) {
    const std::map<std::string, std::set<std::string>> below = {
        {"system", {}},
        {"base", {"system"}},
        {"spots", {"base", "system"}},
        {"decoding", {"base", "spots", "system"}},
        {"transmission", {"base", "system"}},
        {"simulation", {"base", "system"}},
        {"recordings", {"base", "system", "spots", "decoding", "sources", "wideband"}},
        {"wideband", {"base", "spots", "decoding"}},
        {"sources", {"base", "system"}},
        {"archive", {"base", "system", "spots", "recordings", "sources"}},
        {"listening", {"base", "system", "spots", "decoding", "sources", "wideband", "recordings"}},
        {"pictures", {"base", "system", "spots", "decoding", "recordings"}},
    };
    std::set<std::string> rooms;
    for (const fs::path& file : sources_in("app")) {
        const std::string room = file.parent_path().filename().string();
        rooms.insert(room);
        ASSERT_EQ(below.count(room), 1u) << room;
        for (const std::string& include : includes_of(file)) {
            if (!fs::exists(ROOT / "app" / include)) continue;
            const std::string other = include.substr(0, include.find('/'));
            EXPECT_TRUE(other == room || below.at(room).count(other) != 0) << file << " includes " << include;
        }
    }
    EXPECT_EQ(rooms.size(), below.size());
}

// What the programs share with the command: how they begin and end, and options that it explains and they take.
const std::set<std::string> PROGRAMS = {"collect_options.h", "exit_status.h", "program.h", "spots_options.h"};

// It runs receivers as programs of their own, and knows of them what they print.
TEST(Layers, TheStationRestsOnSpotsAndBase) {
    for (const char* const folder : {"include", "src", "app", "tools"}) {
        for (const fs::path& file : sources_in(folder)) {
            for (const std::string& include : includes_of(file)) {
                EXPECT_FALSE(fs::exists(ROOT / "station" / include)) << file << " includes " << include;
                EXPECT_FALSE(fs::exists(ROOT / "collector" / include)) << file << " includes " << include;
            }
        }
    }
    for (const fs::path& file : sources_in("station")) {
        for (const std::string& include : includes_of(file)) {
            if (fs::exists(ROOT / "app" / include)) {
                const bool draws = file.filename() == "spots_command.cpp" && include == "pictures/history.h";
                const bool plays = file.parent_path().filename() == "demo" && include.starts_with("simulation/");
                EXPECT_TRUE(draws || plays || include.starts_with("base/") || include.starts_with("spots/") ||
                            include.starts_with("system/"))
                    << file << ": " << include;
            }
            EXPECT_TRUE(include == "protocol.h" || !fs::exists(ROOT / "src" / include)) << file << ": " << include;
            EXPECT_TRUE(PROGRAMS.contains(include) || !fs::exists(ROOT / "tools" / include)) << file << ": " << include;
        }
    }
}

// It shares with the station what both say to each other, how they reach a broker, and how files are read.
TEST(Layers, TheCollectorRestsOnTheNetworkOfTheStation) {
    for (const fs::path& file : sources_in("collector")) {
        for (const std::string& include : includes_of(file)) {
            if (fs::exists(ROOT / "station" / include)) {
                const bool shared =
                    include.starts_with("config/") || include.starts_with("mqtt/") || include.starts_with("network/");
                EXPECT_TRUE(shared) << file << ": " << include;
            }
            if (fs::exists(ROOT / "app" / include)) {
                EXPECT_TRUE(include.starts_with("base/") || include.starts_with("system/")) << file << ": " << include;
            }
            EXPECT_FALSE(fs::exists(ROOT / "src" / include)) << file << ": " << include;
            EXPECT_TRUE(PROGRAMS.contains(include) || !fs::exists(ROOT / "tools" / include)) << file << ": " << include;
        }
    }
    for (const fs::path& file : sources_in("station")) {
        for (const std::string& include : includes_of(file)) {
            const bool own = fs::exists(ROOT / "station" / include) || fs::exists(file.parent_path() / include);
            EXPECT_TRUE(own || !fs::exists(ROOT / "collector" / include)) << file << ": " << include;
        }
    }
}

}  // namespace

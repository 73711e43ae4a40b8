#include "demo/demo.h"

#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <vector>

#include "base/console.h"
#include "base/error.h"
#include "base/text.h"
#include "config/web_config.h"
#include "demo/simulated_receiver.h"
#include "service/station.h"
#include "simulation/gaussian.h"
#include "simulation/stations.h"

namespace {

constexpr double SCENE_S = 120;
constexpr double NOISE_RMS = 0.1;  // of full scale: some 13 steps of 8 bits
constexpr uint64_t SCENES_PER_SEED = 1 << 20;

constexpr std::array RECEIVERS = {DemoReceiver{"630m-wide", 16000, 475500, 4000, true, 0},
                                  DemoReceiver{"630m-narrow", 8000, 475300, 250, false, 4},
                                  DemoReceiver{"2200m", 8000, 137400, 250, false, 0}};

// Each sends in every scene: at a frequency on the air, and so many seconds after the scene's beginning.
constexpr std::array BEACONS = {
    "orvel-l=DL1QXA,JO62,freq=137380,start=2,snr=-9",   "orvel-l=EI4QZB,IO63,freq=137560,start=4,snr=-14",
    "opera=OH3QKJ,freq=137270,start=9,snr=-7",          "orvel-s=F5QVB,freq=137470,start=58,snr=-12",
    "orvel-l=UA9QXC,MO05,freq=137210,start=61,snr=-16", "opera=SV3QXE,freq=137530,start=66,snr=-10",
    "orvel-l=K2QRX,FN31,freq=475210,start=2,snr=-12",   "orvel-l=ZL3QXB,RE66,freq=475390,start=3,snr=-15",
    "opera=LA3QXD,freq=475300,start=7,snr=-8",          "orvel-l=PY2QZA,GG66,freq=475480,start=60,snr=-14",
    "orvel-s=PA3QZC,freq=475140,start=63,snr=-9",       "orvel-l=JA8QXF,QN03,freq=475330,start=65,snr=-13",
    "orvel-l=VK7QXD,QE37,freq=472650,start=5,snr=-11",  "opera=G4QZB,freq=474100,start=12,snr=-6",
    "orvel-l=ZS6QXA,KG33,freq=477720,start=16,snr=-10", "orvel-s=VE7QXG,freq=473300,start=57,snr=-9",
    "orvel-l=KL7QXH,BP51,freq=476500,start=62,snr=-12", "opera=EA8QXJ,freq=478900,start=70,snr=-7"};

const std::vector<SimStation>& beacons() {
    static const auto all = [] {
        std::vector<SimStation> parsed;
        parsed.reserve(BEACONS.size());
        for (const char* const text : BEACONS) parsed.push_back(parse_station(text, 0));
        return parsed;
    }();
    return all;
}

// A directory that goes with all it holds.
class TemporaryFolder {
  public:
    TemporaryFolder() : path_((std::filesystem::temp_directory_path() / "orvel-demo-XXXXXX").string()) {
        if (mkdtemp(path_.data()) == nullptr) throw IoError("cannot make '" + path_ + "': " + std::strerror(errno));
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

// The page's usual port, or 0 for any other where that is taken.
uint16_t port_for_the_page() {
    using boost::asio::ip::tcp;
    boost::asio::io_context context;
    tcp::acceptor acceptor(context, tcp::v4());
    acceptor.set_option(tcp::acceptor::reuse_address(true));
    boost::system::error_code taken;
    const uint16_t usual = WebConfig().port;
    acceptor.bind({boost::asio::ip::address_v4::loopback(), usual}, taken);
    if (!taken) acceptor.listen(1, taken);
    return taken ? uint16_t{0} : usual;
}

std::string receiver_table(const DemoReceiver& receiver, uint16_t port) {
    std::string text = format("[[receiver]]\nname = \"%s\"\n", std::string(receiver.name).c_str()) +
                       format("source = \"rtl_tcp://127.0.0.1:%d?freq=%.0f&rate=%d\"\n", static_cast<int>(port),
                              receiver.center_hz, receiver.rate);
    return text + (receiver.wide
                       ? format("wide = true\nband = \"-%.0f:%.0f\"\n", receiver.half_width_hz, receiver.half_width_hz)
                       : format("search = %.0f\n", receiver.half_width_hz));
}

}  // namespace

std::span<const DemoReceiver> demo_receivers() {
    return RECEIVERS;
}

SimScene demo_scene(std::size_t which, int64_t count) {
    const DemoReceiver& receiver = RECEIVERS.at(which);
    const auto place_stream = static_cast<uint32_t>(which + 1);
    const auto scene_seed = static_cast<uint64_t>(count) % SCENES_PER_SEED;
    SimScene scene{.rate = receiver.rate,
                   .seconds = SCENE_S,
                   .iq = true,
                   .seed = place_stream * SCENES_PER_SEED + scene_seed,
                   .noise_rms = NOISE_RMS,
                   .stations = {},
                   .carriers = {},
                   .impulses = {}};
    GaussianSource air(scene_seed, 0);  // the same for all receivers
    GaussianSource place(scene_seed, place_stream);
    for (SimStation station : beacons()) {
        station.freq_hz += 0.3 * air.normal() - receiver.center_hz;
        station.drift_hz_s = 0.01 * air.normal();
        station.snr_db += 1.5 * air.normal() + 1.5 * place.normal() + receiver.gain_db;
        if (std::fabs(station.freq_hz) < receiver.half_width_hz) scene.stations.push_back(station);
    }
    return scene;
}

int run_demo(const std::string& program) {
    const TemporaryFolder folder;
    const std::string config_path = folder.path() + "/station.toml";
    std::ofstream config(config_path);
    config << "[station]\ncallsign = \"N0CALL\"\nlocator = \"JO62\"\nantenna = \"simulated\"\n"
           << "[store]\npath = \"" << folder.path() << "/spots.db\"\n"
           << "[web]\nport = " << port_for_the_page() << "\n";
    std::deque<SimulatedReceiver> receivers;
    for (std::size_t which = 0; which < RECEIVERS.size(); which++) {
        receivers.emplace_back([which](int64_t count) { return demo_scene(which, count); });
        config << receiver_table(RECEIVERS[which], receivers.back().port());
    }
    config.close();
    if (!config) throw IoError("cannot write '" + config_path + "'");
    print_error("simulated beacons on simulated receivers, the first spots after some 90 s; Ctrl-C ends it",
                Level::NOTICE);
    return run_station(config_path, program);
}

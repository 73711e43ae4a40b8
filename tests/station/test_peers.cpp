// Outputs as programs of others read them.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "outputs/cluster_line.h"
#include "outputs/output.h"
#include "outputs/psk_reports.h"
#include "process.h"
#include "sound_server.h"

namespace {

namespace fs = std::filesystem;

constexpr double NOON = 1.7724e9;  // 2026-03-01T21:20:00Z
const Keeper KEEPER = {"DL1QXA", "JO62QM", "wire"};

StoredSpot heard(const std::string& call, double rf_hz) {
    StoredSpot stored{1, "id", 1, {}};
    stored.spot.call = call;
    stored.spot.protocol = OVL_OPERA;
    stored.spot.start = NOON;
    stored.spot.end = NOON + 30.592;
    stored.spot.freq_hz = 1500.4;
    stored.spot.rf_hz = rf_hz;
    stored.spot.snr_db = -20.6;
    return stored;
}

std::string big_endian(std::size_t value, int bytes) {
    std::string text;
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) text += static_cast<char>(value >> shift & 0xff);
    return text;
}

// A capture of one datagram to PSK Reporter's port: bare IPv4.
std::string capture_of(const std::string& datagram) {
    const std::string udp =
        big_endian(40000, 2) + big_endian(4739, 2) + big_endian(8 + datagram.size(), 2) + big_endian(0, 2) + datagram;
    const std::string ip = std::string("\x45\0", 2) + big_endian(20 + udp.size(), 2) + big_endian(0, 4) + "\x40\x11" +
                           big_endian(0, 2) + big_endian(0x7f000001, 4) + big_endian(0x7f000001, 4) + udp;
    const std::string file = big_endian(0xa1b2c3d4, 4) + big_endian(0x00020004, 4) + big_endian(0, 8) +
                             big_endian(65535, 4) + big_endian(101, 4);
    return file + big_endian(1, 4) + big_endian(0, 4) + big_endian(ip.size(), 4) + big_endian(ip.size(), 4) + ip;
}

// Wireshark finds no template for what an options template describes: of the receiver our own collector tells.
TEST(StationPeers, WiresharkReadsReportsToPskReporter) {
    ASSERT_TRUE(fs::exists("/usr/bin/tshark")) << "./test all installs it";
    PskReports reports(KEEPER, 0, 12345);
    reports.add(heard("K2QRX", 137501.4));
    reports.add(heard("G4QZB", 474200.6));
    const TemporaryDirectory folder;
    const std::string file = folder.path() + "/x.pcap";
    std::ofstream(file, std::ios::binary) << capture_of(reports.take(400, NOON + 60).at(0));
    const auto shown = run_process({"/usr/bin/tshark", "-r", file, "-V", "-d", "udp.port==4739,cflow"}).out;
    for (const char* const text :
         {"Version: 10", "Observation Domain Id: 12345", "FlowSet Id: Options Template (V10 [IPFIX]) (3)",
          "FlowSet Id: Data Template (V10 [IPFIX]) (2)", "[id=39315] (2 flows)",
          "Type 1: Value (hex bytes): 4b 32 51 52 58\n", "Type 5: Value (hex bytes): 00 00 02 19 1d\n",
          "Type 10: Value (hex bytes): 4f 50 45 52 41\n", "StartTime: Mar  1, 2026 21:20:00.0"}) {
        EXPECT_NE(shown.find(text), std::string::npos) << text << "\n" << shown;
    }
}

TEST(StationPeers, PyhamtoolsReadsClusterLines) {
    ASSERT_TRUE(fs::exists("/usr/lib/python3/dist-packages/pyhamtools")) << "./test all installs it";
    const std::string line = cluster_line(heard("K2QRX", 1838201.3).spot, "DL1QXA");
    const auto done = run_process({"/usr/bin/python3", "-c",
                                   "import sys; from pyhamtools.dxcluster import decode_char_spot as read; spot = "
                                   "read(sys.argv[1]); print(spot['spotter'], spot['dx'], spot['frequency'], "
                                   "spot['comment'], sep='|')",
                                   line});
    EXPECT_EQ(done.out, "DL1QXA|K2QRX|1838.2|OPERA 05 -21 dB 1838201.3 Hz\n") << done.err;
}

TEST(StationPeers, WsjtxsDaemonReadsDatagrams) {
    ASSERT_TRUE(fs::exists("/usr/bin/udp_daemon")) << "./test all installs it";
    constexpr int PORT = 22377;  // only this program takes it
    ProcessInput input;
    input.environment = {{"QT_QPA_PLATFORM", "offscreen"}};
    RunningProcess daemon({"/bin/sh", "-c", "exec stdbuf -oL -eL udp_daemon -p " + std::to_string(PORT) + " 2>&1"},
                          input);
    const TemporaryDirectory folder;
    std::ofstream(folder.path() + "/c.toml")
        << "[station]\ncallsign = \"DL1QXA\"\nlocator = \"JO62\"\n[store]\npath = \"x\"\n[[output]]\ntype = \"udp\"\n"
        << "host = \"127.0.0.1\"\nport = " << PORT << "\n";
    std::vector<Mistake> mistakes;
    const Config config = read_config(folder.path() + "/c.toml", output_kinds(), mistakes);
    ASSERT_TRUE(mistakes.empty());
    const StoredSpot stored = heard("K2QRX", 137501.4);
    // It may not be there yet for the first.
    for (int k = 0; k < 40; k++) {
        const auto output = make_output(config.outputs.at(0), KEEPER);
        output->tick();
        output->send(std::span(&stored, 1));
        while (const auto line = daemon.read_line(0.25)) {
            if (line->find("Df: 1500") == std::string::npos) continue;
            for (const char* const text : {"QTime(\"21:20:00.000\")", "snr: -21", "mode: \"OPERA 05\"", "high"}) {
                EXPECT_NE(line->find(text), std::string::npos) << *line;
            }
            EXPECT_NE(daemon.read_line(10).value_or("").find("DE K2QRX"), std::string::npos);  // the message itself
            return;
        }
    }
    FAIL() << "nothing was shown";
}

}  // namespace

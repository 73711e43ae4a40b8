// Outputs: every spot that is wanted arrives, in order, whatever happens on the way.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "base/error.h"
#include "outputs/outbox.h"
#include "outputs/output.h"
#include "process.h"
#include "sound_server.h"

namespace {

namespace fs = std::filesystem;
using Access = Database::Access;

constexpr double NOON = 1.77e9;
const Keeper KEEPER = {"DL1QXA", "JO62QM", "wire"};

bool eventually(const std::function<bool()>& holds) {
    for (int patience = 0; patience < 2000; patience++) {
        if (holds()) return true;
        usleep(5000);
    }
    return false;
}

class OutputTest : public testing::Test {
  protected:
    std::string path(const std::string& name) const { return (folder_ / name).string(); }
    std::string store_path() const { return path("spots.db"); }

    std::string bytes_of(const std::string& name) const {
        std::ifstream file(folder_ / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    std::vector<std::string> lines_of(const std::string& name) const {
        std::ifstream file(folder_ / name);
        std::vector<std::string> lines;
        for (std::string line; std::getline(file, line);) lines.push_back(line);
        return lines;
    }

    // A configuration of one output, from its table.
    OutputConfig config(const std::string& table) const {
        std::ofstream(folder_ / "c.toml")
            << "[station]\ncallsign = \"DL1QXA\"\nlocator = \"JO62\"\n[store]\npath = \"x\"\n"
            << "[[output]]\n"
            << table;
        std::vector<Mistake> mistakes;
        const std::vector<OutputKind> kinds = output_kinds();
        const Config read = read_config(path("c.toml"), kinds, mistakes);
        EXPECT_TRUE(mistakes.empty()) << mistakes[0].text;
        return read.outputs.at(0);
    }

    TemporaryDirectory directory_;
    fs::path folder_ = directory_.path();
};

Spot heard(int k, bool deep = false) {
    Spot spot{};
    spot.receiver = "lf";
    spot.call = "K" + std::to_string(k % 10) + "ABC";
    spot.protocol = OVL_OPERA;
    spot.start = NOON + 60 * k;
    spot.end = spot.start + 30.592;
    spot.freq_hz = 1500.4;
    spot.snr_db = -20.6;
    spot.deep = deep;
    return spot;
}

std::vector<Spot> some(int first, int count) {
    std::vector<Spot> all;
    for (int k = first; k < first + count; k++) all.push_back(heard(k));
    return all;
}

std::vector<double> starts_in(const std::vector<std::string>& lines) {
    std::vector<double> starts;
    for (const std::string& line : lines) {
        const auto spot = parse_spot_line(line);
        starts.push_back(spot ? (spot->start - NOON) / 60 : -1);
    }
    return starts;
}

TEST_F(OutputTest, FileHoldsEachSpotAsALine) {
    Store store(store_path(), Access::WRITE);
    store.add(some(0, 3));
    const OutputConfig file = config("type = \"file\"\npath = \"" + path("log") + "\"\n");
    {
        Outbox outbox(store_path(), file, KEEPER);
        EXPECT_TRUE(eventually([&] { return outbox.state().position == 3; })) << "a new one begins with what comes";
        store.add(some(3, 300));
        outbox.notify();
        EXPECT_TRUE(eventually([&] { return outbox.state().position == 303; }));
    }
    store.add(some(303, 2));
    {
        const Outbox outbox(store_path(), file, KEEPER);
        EXPECT_TRUE(eventually([&] { return outbox.state().position == 305; })) << "and goes on where it was";
    }
    const auto lines = lines_of("log");
    ASSERT_EQ(lines.size(), 302u);
    const auto starts = starts_in(lines);
    for (std::size_t k = 0; k < starts.size(); k++) EXPECT_EQ(starts[k], 3 + static_cast<double>(k));
    const auto first = nlohmann::json::parse(lines[0]);
    EXPECT_EQ(first["id"].get<std::string>().size(), 36u);
    EXPECT_EQ(first["station"], "DL1QXA");
    EXPECT_EQ(first["receiver"], "lf");
    EXPECT_EQ(first["call"], "K3ABC");
}

TEST_F(OutputTest, FileIsFollowedByTheNextWhenItIsFull) {
    Store store(store_path(), Access::WRITE);
    const OutputConfig file =
        config("type = \"file\"\npath = \"" + path("log") + "\"\nmost_megabytes = 0.002\nkeep_files = 3\n");
    Outbox outbox(store_path(), file, KEEPER);
    ASSERT_TRUE(eventually([&] { return fs::exists(store_path()) && outbox.state().problem.empty(); }));
    for (int k = 0; k < 20; k++) {
        store.add(some(k, 1));
        outbox.notify();
        ASSERT_TRUE(eventually([&] { return outbox.state().position == k + 1; }));
    }
    std::vector<double> starts;
    for (const char* const name : {"log.2", "log.1", "log"}) {
        EXPECT_LE(bytes_of(name).size(), 2000u);
        for (const double start : starts_in(lines_of(name))) starts.push_back(start);
    }
    EXPECT_FALSE(fs::exists(path("log.3")));
    ASSERT_GT(starts.size(), 6u);
    for (std::size_t k = 0; k < starts.size(); k++) EXPECT_EQ(starts[k], 20.0 - static_cast<double>(starts.size() - k));
}

TEST_F(OutputTest, ThatFailsIsTriedAgainAndSaysSo) {
    Store store(store_path(), Access::WRITE);
    const OutputConfig file = config("type = \"file\"\npath = \"" + path("none/log") + "\"\n");
    Outbox outbox(store_path(), file, KEEPER);
    ASSERT_TRUE(eventually([&] { return outbox.state().problem.empty(); }));
    usleep(50'000);
    store.add(some(0, 2));
    outbox.notify();
    ASSERT_TRUE(eventually([&] { return outbox.state().problem.find("none/log") != std::string::npos; }));
    EXPECT_EQ(outbox.state().position, 0);
    fs::create_directory(path("none"));
    EXPECT_TRUE(eventually([&] { return outbox.state().position == 2; }));
    EXPECT_EQ(lines_of("none/log").size(), 2u);
    EXPECT_TRUE(eventually([&] { return outbox.state().problem.empty(); }));
}

TEST_F(OutputTest, KeepsTheDoubtfulToItselfUnlessAsked) {
    Store store(store_path(), Access::WRITE);
    const OutputConfig sure = config("type = \"file\"\npath = \"" + path("sure") + "\"\n");
    const OutputConfig all =
        config("type = \"file\"\nname = \"all\"\ndoubtful = true\npath = \"" + path("all") + "\"\n");
    Outbox sure_box(store_path(), sure, KEEPER);
    Outbox all_box(store_path(), all, KEEPER);
    usleep(100'000);
    const std::vector<Spot> three = {heard(0), heard(1, true), heard(2)};
    store.add(three);
    sure_box.notify();
    all_box.notify();
    ASSERT_TRUE(eventually([&] { return sure_box.state().position == 3 && all_box.state().position == 3; }));
    EXPECT_EQ(starts_in(lines_of("sure")), (std::vector<double>{0, 2}));
    EXPECT_EQ(starts_in(lines_of("all")), (std::vector<double>{0, 1, 2}));
}

// The program fails for its first two spots until a file appears.
TEST_F(OutputTest, CommandGetsEachSpotUntilItEndsWell) {
    std::ofstream(path("take")) << "#!/bin/sh\nread -r line\ntest -e '" << path("go")
                                << "' || exit 3\necho \"$1 $line\" >> '" << path("got") << "'\n";
    ::chmod(path("take").c_str(), 0755);
    Store store(store_path(), Access::WRITE);
    const OutputConfig command =
        config("type = \"command\"\nprogram = \"" + path("take") + "\"\narguments = [\"$(x) y\"]\n");
    Outbox outbox(store_path(), command, KEEPER);
    usleep(100'000);
    store.add(some(0, 3));
    outbox.notify();
    ASSERT_TRUE(eventually([&] { return outbox.state().problem.find("exit status 3") != std::string::npos; }));
    EXPECT_EQ(outbox.state().position, 0);
    std::ofstream(path("go")) << "";
    ASSERT_TRUE(eventually([&] { return outbox.state().position == 3; }));
    const auto lines = lines_of("got");
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_TRUE(lines[2].starts_with("$(x) y {\"id\":")) << lines[2];
    EXPECT_THROW(Outbox(store_path(), config("type = \"command\"\nprogram = \"orvel-none\"\n"), KEEPER), UsageError);
}

TEST_F(OutputTest, CommandThatHangsIsEnded) {
    const auto output =
        make_output(config("type = \"command\"\nprogram = \"sleep\"\narguments = \"1000\"\nseconds = 0.2\n"), KEEPER);
    const std::vector<StoredSpot> spots = {{1, "id", 1, heard(0)}};
    EXPECT_THROW(output->send(spots), IoError);
}

// A socket that takes datagrams.
class Listener {
  public:
    Listener() {
        socket_ = ::socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        socklen_t size = sizeof address;
        ::getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &size);
        port = ntohs(address.sin_port);
        const timeval limit{10, 0};
        ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }
    ~Listener() { ::close(socket_); }
    std::string receive() const {
        std::array<char, 2048> block{};
        const ssize_t got = ::recv(socket_, block.data(), block.size(), 0);
        return {block.data(), got > 0 ? static_cast<std::size_t>(got) : 0};
    }
    int port = 0;

  private:
    int socket_;
};

std::string hex(const std::string& bytes) {
    std::string text;
    for (const char c : bytes) {
        constexpr const char* DIGITS = "0123456789abcdef";
        text += DIGITS[static_cast<unsigned char>(c) >> 4];
        text += DIGITS[static_cast<unsigned char>(c) & 15];
    }
    return text;
}

// Written out by hand from the message's description.
TEST_F(OutputTest, UdpSendsTheMessagesOfItsProtocol) {
    const Listener peer;
    const std::string table = "type = \"udp\"\nhost = \"127.0.0.1\"\nport = " + std::to_string(peer.port) + "\n";
    const std::string head = "adbccbda00000002";
    const std::string id = "000000056f7276656c";
    {
        const auto output = make_output(config(table), KEEPER);
        output->tick();
        EXPECT_EQ(hex(peer.receive()), head + "00000000" + id + "00000002" + "00000005312e362e31" + "00000000");
        output->tick();  // too soon for another
        StoredSpot stored{1, "id", 1, heard(0)};
        stored.spot.start = 86400.0 * 20000 + 3600 + 2.5;
        stored.spot.locator = "JO62";
        EXPECT_EQ(output->send(std::span(&stored, 1)), 1u);
        EXPECT_EQ(hex(peer.receive()), head + "00000002" + id + "01" + "0036f844" + "ffffffeb" + "0000000000000000" +
                                           "000005dc" + "000000084f50455241203035" + "0000000d4445204b304142432" +
                                           "04a4f3632" + "00" + "00");
    }
    EXPECT_EQ(hex(peer.receive()), head + "00000006" + id) << "goodbye";
    const auto nowhere = make_output(config("type = \"udp\"\nhost = \"no.such.host.invalid\"\n"), KEEPER);
    EXPECT_THROW(nowhere->tick(), IoError);
}

// A broker that keeps its sessions over a restart.
class Broker {
  public:
    explicit Broker(fs::path folder) : folder_(std::move(folder)) {
        const Listener free_port;  // its number is free for TCP as well, as a rule
        port = free_port.port;
        std::ofstream(folder_ / "broker.conf")
            << "listener " << port << " 127.0.0.1\nallow_anonymous true\nuser root\n"
            << "persistence true\npersistence_location " << folder_.string() << "/\n";
    }
    void start() {
        process_.emplace(std::vector<std::string>{"/usr/sbin/mosquitto", "-c", (folder_ / "broker.conf").string()});
        EXPECT_TRUE(eventually([&] {
            return run_process({"/usr/bin/mosquitto_pub", "-h", "127.0.0.1", "-p", std::to_string(port), "-t", "probe",
                                "-m", "x"})
                       .status == 0;
        }));
    }
    void stop() {
        process_->send_signal(SIGTERM);
        EXPECT_TRUE(process_->wait(20));
        process_.reset();
    }
    int port = 0;

  private:
    fs::path folder_;
    std::optional<RunningProcess> process_;
};

std::vector<std::string> subscriber(int port, const std::string& topic) {
    return {
        "/usr/bin/mosquitto_sub", "-V", "5",  "-c", "-i", "watcher", "-x", "3600", "-q", "1", "-h", "127.0.0.1", "-p",
        std::to_string(port),     "-t", topic};
}

TEST_F(OutputTest, MqttDeliversAllInOrderAlsoOverARestartOfTheBroker) {
    Broker broker(folder_);
    broker.start();
    Store store(store_path(), Access::WRITE);
    const std::string port = std::to_string(broker.port);
    Outbox outbox(store_path(),
                  config("type = \"mqtt\"\nhost = \"127.0.0.1\"\nport = " + port + "\ndiscovery = \"homeassistant\"\n"),
                  KEEPER);
    std::vector<std::string> lines;
    {
        RunningProcess watcher(subscriber(broker.port, "orvel/DL1QXA/lf/spot"));
        usleep(300'000);
        store.add(some(0, 250));
        outbox.notify();
        while (lines.size() < 250) {
            auto line = watcher.read_line(20);
            ASSERT_TRUE(line) << lines.size();
            lines.push_back(*line);
        }
    }
    const auto retained = [&](const std::string& topic) {
        const auto got =
            run_process({"/usr/bin/mosquitto_sub", "-h", "127.0.0.1", "-p", port, "-t", topic, "-C", "1", "-W", "10"})
                .out;
        return got.substr(0, got.find('\n'));
    };
    EXPECT_EQ(retained("orvel/DL1QXA/status"), "online");
    const auto found = nlohmann::json::parse(retained("homeassistant/device/orvel-DL1QXA/config"));
    EXPECT_EQ(found["cmps"]["last"]["stat_t"], "orvel/DL1QXA/last");
    EXPECT_EQ(nlohmann::json::parse(retained("orvel/DL1QXA/last"))["call"], "K9ABC");

    broker.stop();
    store.add(some(250, 30));
    outbox.notify();
    ASSERT_TRUE(eventually([&] { return !outbox.state().problem.empty(); }));
    EXPECT_EQ(outbox.state().position, 250);
    broker.start();
    ASSERT_TRUE(eventually([&] { return outbox.state().position == 280; }));
    RunningProcess watcher(subscriber(broker.port, "orvel/DL1QXA/lf/spot"));
    while (lines.size() < 280) {
        auto line = watcher.read_line(20);
        ASSERT_TRUE(line) << lines.size();
        lines.push_back(*line);
    }
    const auto starts = starts_in(lines);
    for (std::size_t k = 0; k < starts.size(); k++) EXPECT_EQ(starts[k], static_cast<double>(k));
}

TEST_F(OutputTest, EveryTypeHasItsOwnName) {
    std::vector<std::string_view> names;
    for (const OutputType& type : output_types()) names.push_back(type.kind.type);
    std::ranges::sort(names);
    EXPECT_EQ(std::ranges::adjacent_find(names), names.end());
}

}  // namespace

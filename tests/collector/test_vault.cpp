// The database as it is: PostgreSQL on a port and in a folder of its own.
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cmath>
#include <csignal>
#include <filesystem>
#include <functional>
#include <memory>
#include <numbers>
#include <optional>
#include <string>
#include <vector>

#include "base/error.h"
#include "base/utc.h"
#include "process.h"
#include "schema.h"
#include "sound_server.h"
#include "vault.h"

namespace {

namespace fs = std::filesystem;

constexpr double NOON = 1.7724e9;
const std::string EPOCH = "c6f4c1a2-0000-4000-8000-0000000000aa";

bool eventually(const std::function<bool()>& holds) {
    for (int patience = 0; patience < 600; patience++) {
        if (holds()) return true;
        usleep(100'000);
    }
    return false;
}

// For all tests: it takes a second to make. It listens on a socket in its folder, and not as root, which it refuses.
class Server {
  public:
    Server() {
        fs::permissions(folder_.path(), fs::perms::all);
        const fs::path programs = newest();
        run_as_user({programs / "initdb", "-D", data(), "-U", "orvel", "-A", "trust", "--no-sync", "-E", "UTF8"});
        process_.emplace(as_user({programs / "postgres", "-D", data(), "-c", "listen_addresses=", "-c", "fsync=off",
                                  "-c", "unix_socket_directories=" + folder_.path()}));
    }
    ~Server() {
        process_->send_signal(SIGINT);
        process_->wait(20);
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    std::string where() const { return "host=" + folder_.path() + " dbname=postgres user=orvel"; }

  private:
    static fs::path newest() {
        fs::path found;
        for (const auto& version : fs::directory_iterator("/usr/lib/postgresql")) {
            found = std::max(found, version.path() / "bin");
        }
        return found;
    }
    std::string data() const { return folder_.path() + "/data"; }
    static std::vector<std::string> as_user(std::vector<std::string> command) {
        if (getuid() == 0) {
            const std::array<std::string, 4> words = {"/usr/bin/setpriv", "--reuid=nobody", "--regid=nogroup",
                                                      "--clear-groups"};
            command.insert(command.begin(), words.begin(), words.end());
        }
        return command;
    }
    static void run_as_user(std::vector<std::string> command) {
        const ProcessResult done = run_process(as_user(std::move(command)));
        if (done.status != 0) throw std::runtime_error(done.err);
    }

    TemporaryDirectory folder_;
    std::optional<RunningProcess> process_;
};

class VaultTest : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(fs::exists("/usr/lib/postgresql")) << "./test all installs it";
        server_ = std::make_unique<Server>();
        ASSERT_TRUE(eventually([] {
            try {
                Postgres(server_->where(), {}).run("SELECT 1");
                return true;
            } catch (const IoError&) {
                return false;
            }
        }));
    }
    static void TearDownTestSuite() { server_.reset(); }

    void SetUp() override {
        Postgres(server_->where(), {}).script("DROP SCHEMA IF EXISTS orvel CASCADE");
        vault_ = std::make_unique<PostgresVault>(server_->where(), std::nullopt, "net");
        database_ = std::make_unique<Postgres>(server_->where(), std::nullopt);
    }

    std::string value(const std::string& sql) const { return database_->run(sql.c_str()).text(0, 0); }
    double number(const std::string& sql) const { return std::stod(value(sql)); }

    static std::unique_ptr<Server> server_;
    std::unique_ptr<PostgresVault> vault_;
    std::unique_ptr<Postgres> database_;
};
std::unique_ptr<Server> VaultTest::server_;

StationSpot heard(int k, const std::string& call = "K2QRX") {
    StationSpot message{"c6f4c1a2-0000-4000-8000-" + std::to_string(100'000'000'000 + k), "N0CALL", "JO62QM", {}};
    Spot& spot = message.spot;
    spot.start = NOON + 60.0 * k;
    spot.end = spot.start + 30.59;
    spot.freq_hz = 1500.4;
    spot.snr_db = -20.0 - k;
    spot.protocol = OVL_OPERA;
    spot.call = call;
    spot.receiver = "lf";
    return message;
}

TEST(Clocks, ThatAreAnHourApartStopACollector) {
    EXPECT_NO_THROW(require_same_time(NOON, NOON));
    EXPECT_NO_THROW(require_same_time(NOON, NOON + 3600));
    EXPECT_THROW(require_same_time(NOON, NOON + 3601), IoError);
    EXPECT_THROW(require_same_time(NOON, NOON - 86400), IoError);
}

TEST_F(VaultTest, KeepsEachSpotOnce) {
    const std::vector<StationSpot> spots = {heard(1), heard(2), heard(1)};
    vault_->keep(spots, {});
    vault_->keep(spots, {});
    EXPECT_EQ(value("SELECT count(*) FROM orvel.spot"), "2");
    EXPECT_EQ(
        value("SELECT concat_ws('|', id, station, station_locator, receiver, utc_start AT TIME ZONE 'UTC', "
              "freq_hz, rf_hz IS NULL, snr_db, protocol, call, deep, method IS NULL) FROM orvel.spot ORDER BY id"),
        "c6f4c1a2-0000-4000-8000-100000000001|N0CALL|JO62QM|lf|2026-03-01 21:21:00|1500.4|t|-21|OPERA 05|K2QRX|f|t");
}

// What was said on the air is a value, and never a part of a statement.
TEST_F(VaultTest, QuotesAndBackslashesAreLetters) {
    vault_->keep(std::vector{heard(1, R"(');--'"\{}$1)")}, {});
    EXPECT_EQ(value("SELECT call FROM orvel.spot"), R"(');--'"\{}$1)");
}

TEST_F(VaultTest, DaysArePartitionsMadeAheadAndAsNeeded) {
    vault_->keep(std::vector{heard(0), heard(60 * 24), heard(60 * 24 * 400)}, {});
    EXPECT_EQ(value("SELECT count(*) FROM pg_inherits WHERE inhparent = 'orvel.spot'::regclass"), "7");
    EXPECT_EQ(value("SELECT count(*) FROM orvel.spot_20260301"), "1");
    EXPECT_EQ(value("SELECT count(*) FROM orvel.spot_20260302"), "1");
}

// Somebody's table of a day must not stop what other days bring.
TEST_F(VaultTest, ADayThatWasDetachedComesBackWithWhatItHeld) {
    vault_->keep(std::vector{heard(1)}, {});
    database_->script("ALTER TABLE orvel.spot DETACH PARTITION orvel.spot_20260301");
    PostgresVault later(server_->where(), std::nullopt, "another net");
    later.keep(std::vector{heard(1), heard(2)}, {});
    EXPECT_EQ(value("SELECT count(*) FROM orvel.spot"), "2");
}

TEST_F(VaultTest, OfManyEpochsTheLatestEightAreRead) {
    const auto epoch = [](int k) { return "c6f4c1a2-0000-4000-8000-" + std::to_string(100'000'000'000 + k); };
    for (int k = 0; k < 20; k++) vault_->keep({}, std::vector{StationMark{"N0CALL", {epoch(k), k + 1, "", 1}}});
    const std::vector<Mark> marks = vault_->marks("N0CALL");
    ASSERT_EQ(marks.size(), 8u);
    EXPECT_EQ(marks.front().epoch, epoch(12));
    EXPECT_EQ(marks.back().epoch, epoch(19));
}

TEST_F(VaultTest, AMarkMovesForwardOnlyAndTheLatestIsAtTheEnd) {
    const std::string later = "c6f4c1a2-0000-4000-8000-0000000000bb";
    const auto move = [&](const Mark& mark) { vault_->keep({}, std::vector{StationMark{"N0CALL", mark}}); };
    move({EPOCH, 7, heard(7).id, 1});
    move({EPOCH, 5, heard(5).id, 1});
    EXPECT_EQ(vault_->marks("N0CALL"), (std::vector{Mark{EPOCH, 7, heard(7).id, 0}}));
    move({later, 1, "", 1});
    ASSERT_EQ(vault_->marks("N0CALL").size(), 2u);
    EXPECT_EQ(vault_->marks("N0CALL")[1], (Mark{later, 1, "", 0}));
    EXPECT_TRUE(vault_->marks("OTHER").empty());
}

// A mark without its spots would lose them.
TEST_F(VaultTest, ABatchThatFailsLeavesNothingBehind) {
    const std::vector marks = {StationMark{"N0CALL", {"no epoch", 7, "", 1}}};
    EXPECT_THROW(vault_->keep(std::vector{heard(1)}, marks), IoError);
    EXPECT_EQ(value("SELECT count(*) FROM orvel.spot"), "0");
}

TEST_F(VaultTest, AShareHasOneCollectorAndIsFreeWhenThatDies) {
    auto other = std::make_unique<PostgresVault>(server_->where(), std::nullopt, "net");
    PostgresVault elsewhere(server_->where(), std::nullopt, "another net");
    EXPECT_TRUE(other->take_share(3));
    EXPECT_FALSE(vault_->take_share(3));
    EXPECT_TRUE(elsewhere.take_share(3));
    EXPECT_EQ(vault_->division().collectors, 2);
    EXPECT_EQ(vault_->division().taken, std::set<int>{3});
    other.reset();
    EXPECT_TRUE(eventually([&] { return vault_->take_share(3); }));
    EXPECT_EQ(vault_->division().collectors, 1);
    vault_->leave_share(3);
    EXPECT_TRUE(vault_->division().taken.empty());
}

TEST_F(VaultTest, ASchemaOfALaterProgramIsRefused) {
    database_->script("UPDATE orvel.version SET version = version + 1");
    EXPECT_THROW(PostgresVault(server_->where(), std::nullopt, "net"), IoError);
}

TEST_F(VaultTest, TheMiddleOfALocatorIsWhereItShouldBe) {
    EXPECT_EQ(number("SELECT orvel.locator_longitude('JO62')"), 13);
    EXPECT_EQ(number("SELECT orvel.locator_latitude('JO62')"), 52.5);
    EXPECT_NEAR(number("SELECT orvel.locator_longitude('JO62qm')"), 13 + 3 / 8.0, 1e-9);
    EXPECT_NEAR(number("SELECT orvel.locator_latitude('jo62QM')"), 52.5 + 1 / 48.0, 1e-9);
    for (const char* const none : {"", "JO6", "SO62", "JO62YA", "JO62QM1"}) {
        EXPECT_EQ(value(std::string("SELECT orvel.locator_latitude('") + none + "') IS NULL"), "t") << none;
        EXPECT_EQ(value(std::string("SELECT orvel.distance_km('JO62', '") + none + "') IS NULL"), "t") << none;
    }
}

// Unit vectors in place of angles on the sphere.
struct Vector {
    double x, y, z;
};
double dot(const Vector& a, const Vector& b) {
    return a.x * b.x + a.y * b.y + a.z * b.z;
}

double radians(double degrees) {
    return degrees * std::numbers::pi / 180;
}

Vector place(const std::string& locator) {
    const double lon = radians(20 * (locator[0] - 'A') + 2 * (locator[2] - '0') + 1 - 180);
    const double lat = radians(10 * (locator[1] - 'A') + (locator[3] - '0') + 0.5 - 90);
    return {std::cos(lat) * std::cos(lon), std::cos(lat) * std::sin(lon), std::sin(lat)};
}

TEST_F(VaultTest, DistanceAndBearingAreThoseOfTheGreatCircle) {
    for (const auto& [from, to] : {std::pair{"JO62", "FN31"}, std::pair{"FN31", "JO62"}, std::pair{"JO62", "QF56"},
                                   std::pair{"AA00", "RR99"}, std::pair{"JJ00", "II99"}, std::pair{"RF12", "AF12"}}) {
        const Vector a = place(from);
        const Vector b = place(to);
        const double lon = std::atan2(a.y, a.x);
        const Vector east = {-std::sin(lon), std::cos(lon), 0};
        const Vector north = {-a.z * std::cos(lon), -a.z * std::sin(lon), std::hypot(a.x, a.y)};
        const double course = std::atan2(dot(b, east), dot(b, north)) * 180 / std::numbers::pi;
        const std::string pair = std::string("('") + from + "', '" + to + "')";
        EXPECT_NEAR(number("SELECT orvel.distance_km" + pair), 6371 * std::acos(dot(a, b)), 1e-3) << pair;
        EXPECT_NEAR(number("SELECT orvel.bearing_deg" + pair), course < 0 ? course + 360 : course, 1e-6) << pair;
    }
    EXPECT_EQ(number("SELECT orvel.distance_km('JO62', 'JO62')"), 0);
}

TEST_F(VaultTest, ViewsAnswerWhatPeopleAsk) {
    std::vector<StationSpot> spots = {heard(0), heard(1), heard(50), heard(2, "G4QZB")};
    spots[1].spot.locator = "FN31";
    spots[3].station = "N1CALL";
    vault_->keep(spots, {});
    EXPECT_EQ(value("SELECT string_agg(concat_ws(' ', to_char(hour AT TIME ZONE 'UTC', 'HH24'), call, station, snr_db, "
                    "spots), ', ' ORDER BY hour, call) FROM orvel.best_snr_by_hour"),
              "21 G4QZB N1CALL -22 1, 21 K2QRX N0CALL -20 2, 22 K2QRX N0CALL -70 1");
    EXPECT_EQ(value("SELECT concat_ws(' ', station, spots, best_snr_db, round(distance_km), round(bearing_deg)) FROM "
                    "orvel.heard_by WHERE call = 'K2QRX'"),
              "N0CALL 3 -20 " + value("SELECT concat_ws(' ', round(orvel.distance_km('JO62QM', 'FN31')), "
                                      "round(orvel.bearing_deg('JO62QM', 'FN31')))"));
    EXPECT_EQ(value("SELECT distance_km IS NULL FROM orvel.heard_by WHERE call = 'G4QZB'"), "t");
    EXPECT_EQ(value("SELECT count(*) FROM orvel.spot_path WHERE distance_km > 6000"), "1");
}

}  // namespace

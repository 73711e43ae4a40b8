// The store: what was kept is there, once, whatever happens.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "base/error.h"
#include "sound_server.h"
#include "store/store.h"

namespace {

namespace fs = std::filesystem;
using Access = Database::Access;

constexpr double NOON = 1.77e9;

class StoreTest : public testing::Test {
  protected:
    std::string path() const { return (folder_ / "spots.db").string(); }

    TemporaryDirectory directory_;
    fs::path folder_ = directory_.path();
};

Spot spot(const std::string& call, double start, std::optional<double> rf_hz = std::nullopt) {
    Spot made{};
    made.call = call;
    made.protocol = OVL_OPERA;
    made.start = start;
    made.end = start + 30.592;
    made.freq_hz = 1500.25;
    made.rf_hz = rf_hz;
    made.drift_hz_s = -0.01;
    made.snr_db = -20.5;
    return made;
}

std::vector<StoredSpot> all(Store& store, const SpotFilter& filter = {}) {
    std::vector<StoredSpot> spots;
    store.query(filter, [&](const StoredSpot& stored) {
        spots.push_back(stored);
        return true;
    });
    return spots;
}

// Of one receiver; nothing when it is there already.
std::optional<StoredSpot> add(Store& store, const std::string& receiver, const Spot& one) {
    Spot heard = one;
    heard.receiver = receiver;
    const auto added = store.add(std::span(&heard, 1));
    return added.empty() ? std::nullopt : std::optional(added[0]);
}

std::vector<Spot> minutes_of(const std::string& receiver, double from, int count) {
    std::vector<Spot> heard;
    for (int k = 0; k < count; k++) {
        heard.push_back(spot("K2QRX", from + 60 * k));
        heard.back().receiver = receiver;
    }
    return heard;
}

std::string calls(Store& store, const SpotFilter& filter) {
    std::string text;
    for (const StoredSpot& stored : all(store, filter)) text += stored.spot.call + " ";
    return text;
}

TEST_F(StoreTest, GivesBackWhatItTook) {
    Spot sent = spot("K2QRX", NOON + 0.123456, 137501.75);
    sent.protocol = OVL_ORVEL_L;
    sent.locator = "JO62QM";
    sent.deep = true;
    sent.finding = ovl_finding{.method = OVL_COHERENT_KNOWN, .odds = 31.5};
    Spot bare = spot("DL1QXA", NOON + 100);
    bare.snr_db.reset();
    bare.finding = ovl_finding{.method = 0, .odds = NAN};
    {
        Store store(path(), Access::WRITE);
        ASSERT_TRUE(add(store, "lf", sent));
        ASSERT_TRUE(add(store, "lf", bare));
    }
    Store store(path(), Access::READ);
    const auto spots = all(store);
    ASSERT_EQ(spots.size(), 2u);
    EXPECT_EQ(spots[0].number, 1);
    EXPECT_EQ(spots[0].spot.receiver, "lf");
    EXPECT_EQ(spots[0].id.size(), 36u);
    EXPECT_NE(spots[0].id, spots[1].id);
    const Spot& read = spots[0].spot;
    EXPECT_EQ(read.call, "K2QRX");
    EXPECT_EQ(read.locator, "JO62QM");
    EXPECT_EQ(read.protocol, static_cast<uint32_t>(OVL_ORVEL_L));
    EXPECT_EQ(read.start, sent.start);
    EXPECT_EQ(read.end, sent.end);
    EXPECT_EQ(read.freq_hz, 1500.25);
    EXPECT_EQ(read.rf_hz, 137501.75);
    EXPECT_EQ(read.drift_hz_s, -0.01);
    EXPECT_EQ(read.snr_db, -20.5);
    EXPECT_TRUE(read.deep);
    ASSERT_TRUE(read.finding);
    EXPECT_EQ(read.finding->method, OVL_COHERENT_KNOWN);
    EXPECT_EQ(read.finding->odds, 31.5);
    EXPECT_FALSE(spots[1].spot.snr_db);
    EXPECT_FALSE(spots[1].spot.rf_hz);
    ASSERT_TRUE(spots[1].spot.finding);
    EXPECT_TRUE(std::isnan(spots[1].spot.finding->odds));
}

TEST_F(StoreTest, AFrameIsOneTransmissionWithASpotOfEachReceiver) {
    Store store(path(), Access::WRITE);
    const auto first = add(store, "east", spot("K2QRX", NOON, 137500));
    const auto second = add(store, "west", spot("K2QRX", NOON + 1.5, 137502));
    const auto untuned = add(store, "north", spot("K2QRX", NOON - 2));
    ASSERT_TRUE(first && second && untuned);
    EXPECT_EQ(second->transmission, first->transmission);
    EXPECT_EQ(untuned->transmission, first->transmission);
    EXPECT_FALSE(add(store, "east", spot("K2QRX", NOON + 0.2, 137500))) << "the receiver has it";

    EXPECT_NE(add(store, "east", spot("K2QRX", NOON + 32, 137500))->transmission, first->transmission) << "the next";
    EXPECT_NE(add(store, "east", spot("DL1QXA", NOON, 137500))->transmission, first->transmission) << "another station";
    EXPECT_NE(add(store, "mf", spot("K2QRX", NOON, 475700))->transmission, first->transmission) << "another band";
    Spot other = spot("K2QRX", NOON, 137500);
    other.protocol = OVL_ORVEL_S;
    EXPECT_NE(add(store, "east", other)->transmission, first->transmission) << "another protocol";
    EXPECT_EQ(all(store).size(), 7u);
    EXPECT_EQ(store.receivers(), (std::vector<std::string>{"east", "mf", "north", "west"}));
}

TEST_F(StoreTest, KeepsAllOfABatchOrNone) {
    Store store(path(), Access::WRITE);
    std::vector<Spot> heard = minutes_of("lf", NOON, 5);
    heard.push_back(heard[2]);
    const auto added = store.add(heard);
    ASSERT_EQ(added.size(), 5u);
    EXPECT_EQ(added[4].number, added[0].number + 4);
    heard = minutes_of("lf", NOON + 1e6, 3);
    heard[2].start = NAN;  // no time can be kept that is none
    EXPECT_THROW(store.add(heard), IoError);
    EXPECT_EQ(all(store).size(), 5u);
}

TEST_F(StoreTest, FindsWhatAFilterAsksFor) {
    Store store(path(), Access::WRITE);
    add(store, "lf", spot("K2QRX", NOON, 137500));
    add(store, "lf", spot("K2AB", NOON + 60, 137600));
    add(store, "mf", spot("DL1QXA", NOON + 120, 475700));
    EXPECT_EQ(calls(store, {}), "K2QRX K2AB DL1QXA ");
    EXPECT_EQ(calls(store, {.call = "k2*"}), "K2QRX K2AB ");
    EXPECT_EQ(calls(store, {.receiver = "mf"}), "DL1QXA ");
    EXPECT_EQ(calls(store, {.protocol = OVL_ORVEL_S}), "");
    EXPECT_EQ(calls(store, {.from = NOON + 60, .until = NOON + 120}), "K2AB ");
    EXPECT_EQ(calls(store, {.rf_low_hz = 137550, .rf_high_hz = 137650}), "K2AB ");
    EXPECT_EQ(calls(store, {.after = 1}), "K2AB DL1QXA ");
    EXPECT_EQ(calls(store, {.newest = 2}), "K2AB DL1QXA ");
    EXPECT_EQ(calls(store, {.call = "*", .from = NOON + 1, .newest = 1}), "DL1QXA ");
    EXPECT_EQ(calls(store, {.call = "' OR 1=1 --"}), "");
    int taken = 0;
    store.query({}, [&](const StoredSpot&) { return ++taken < 2; });
    EXPECT_EQ(taken, 2);
}

TEST_F(StoreTest, FindsOneBeaconAmongMany) {
    Store store(path(), Access::WRITE);
    std::vector<Spot> heard;
    for (int k = 0; k < 6000; k++) {
        heard.push_back(spot(k == 17 ? "ZL1RARE" : "DL1QXA", NOON + 60 * k));
        heard.back().receiver = "lf";
    }
    store.add(heard);
    EXPECT_EQ(calls(store, {.call = "zl*", .newest = 5}), calls(store, {.call = "ZL1RARE"}));
    EXPECT_EQ(all(store, {.call = "ZL*"}).size(), 1u);
    const auto page = all(store, {.call = "D*", .before = 19, .newest = 2});
    ASSERT_EQ(page.size(), 2u);
    EXPECT_EQ(page[0].number, 16);
    EXPECT_EQ(page[1].number, 17);
    EXPECT_EQ(store.last_number(), 6000);
}

// Many enough that neither one block of numbers nor the index of callsigns holds them.
TEST_F(StoreTest, TheNewestAreTheLastOfAllThatAFilterFinds) {
    Store store(path(), Access::WRITE);
    std::vector<Spot> heard;
    heard.reserve(9000);
    for (int k = 0; k < 9000; k++) {
        heard.push_back(spot(k % 3 == 0 ? "K2AB" : "K2QRX", NOON + 40 * k, 137000 + 7919 * k % 1000));
        heard.back().receiver = k % 5 == 0 ? "lf" : "mf";
        if (k % 1000 == 1) heard.back().protocol = OVL_ORVEL_S;
    }
    ASSERT_EQ(store.add(heard).size(), heard.size());
    store.forget(NOON + 40 * 1500, std::nullopt);
    const std::vector<SpotFilter> filters = {{},
                                             {.call = "K2QRX"},
                                             {.call = "k*"},
                                             {.call = "K2QRX", .receiver = "lf"},
                                             {.call = "K2A*", .rf_low_hz = 137990},
                                             {.call = "K*", .rf_high_hz = 137003},
                                             {.receiver = "none"},
                                             {.receiver = "lf", .before = 2049},
                                             {.protocol = OVL_ORVEL_S},
                                             {.from = NOON + 40 * 3000, .until = NOON + 40 * 3010},
                                             {.until = NOON + 40 * 1501},
                                             {.rf_low_hz = 1e6},
                                             {.after = 4095, .before = 4097},
                                             {.after = 9000}};
    for (SpotFilter filter : filters) {
        const std::vector<StoredSpot> every = all(store, filter);
        for (const std::size_t most : std::array<std::size_t, 4>{1, 7, 3000, 20000}) {
            filter.newest = most;
            const std::size_t left_out = every.size() - std::min(every.size(), most);
            const auto same = [](const StoredSpot& a, const StoredSpot& b) { return a.id == b.id; };
            EXPECT_TRUE(std::ranges::equal(std::span(every).subspan(left_out), all(store, filter), same))
                << filter.call << " " << filter.receiver << " " << most;
        }
    }
}

TEST_F(StoreTest, GivesTransmissionsWithAllWhoHeardThem) {
    Store store(path(), Access::WRITE);
    EXPECT_EQ(store.last_number(), 0);
    for (int k = 0; k < 5; k++) {
        add(store, "east", spot(k % 2 == 0 ? "K2QRX" : "DL1QXA", NOON + 100 * k));
        if (k != 3) add(store, "west", spot(k % 2 == 0 ? "K2QRX" : "DL1QXA", NOON + 100 * k + 1));
    }
    const auto ids = [](const std::vector<StoredSpot>& spots) {
        std::string text;
        for (const StoredSpot& stored : spots) text += std::to_string(stored.transmission) + stored.spot.receiver[0];
        return text;
    };
    EXPECT_EQ(ids(store.transmissions("", {}, 3)), "5e5w4e3e3w");
    EXPECT_EQ(ids(store.transmissions("", 3, 10)), "2e2w1e1w");
    EXPECT_EQ(ids(store.transmissions("dl1qxa", {}, 10)), "4e2e2w");
    EXPECT_EQ(ids(store.transmissions("K*", {}, 2)), "5e5w3e3w");
}

TEST_F(StoreTest, DrawsTheCurveOfABeacon) {
    Store store(path(), Access::WRITE);
    const std::vector<double> snr = {-20, -24, -10};
    for (std::size_t k = 0; k < snr.size(); k++) {
        Spot one = spot("K2QRX", NOON + 100.0 * static_cast<double>(k), 137500.0 + static_cast<double>(k));
        one.snr_db = snr[k];
        add(store, "east", one);
    }
    Spot unmeasured = spot("K2QRX", NOON + 200);
    unmeasured.snr_db = {};
    add(store, "west", unmeasured);
    add(store, "west", spot("DL1QXA", NOON));
    const auto points = store.curve("K2QRX", NOON, NOON + 300, 150);
    ASSERT_EQ(points.size(), 3u);
    EXPECT_EQ(points[0].receiver, "east");
    EXPECT_EQ(points[0].utc, NOON);
    EXPECT_EQ(points[0].spots, 2);
    EXPECT_EQ(points[0].snr_db, -22);
    EXPECT_EQ(points[0].least_snr_db, -24);
    EXPECT_EQ(points[0].most_snr_db, -20);
    EXPECT_EQ(points[0].freq_hz, 137500.5);
    EXPECT_EQ(points[1].utc, NOON + 150);
    EXPECT_EQ(points[1].snr_db, -10);
    EXPECT_EQ(points[2].receiver, "west");
    EXPECT_FALSE(points[2].snr_db);
    EXPECT_EQ(points[2].freq_hz, 1500.25);
    EXPECT_TRUE(store.curve("K2QRX", NOON + 201, NOON + 300, 10).empty());
}

TEST_F(StoreTest, KnowsWhereABeaconIsFromWhatItSent) {
    Store store(path(), Access::WRITE);
    EXPECT_TRUE(store.beacons().empty());
    Spot located = spot("DL1QXA", NOON);
    located.locator = "JO62";
    located.protocol = OVL_ORVEL_L;
    add(store, "lf", located);
    add(store, "lf", spot("DL1QXA", NOON + 60));
    add(store, "lf", spot("K2QRX", NOON + 10));
    const auto beacons = store.beacons();
    ASSERT_EQ(beacons.size(), 2u);
    EXPECT_EQ(beacons[0].last.spot.call, "DL1QXA");
    EXPECT_EQ(beacons[0].last.spot.start, NOON + 60);
    EXPECT_EQ(beacons[0].locator, "JO62");
    EXPECT_EQ(beacons[1].last.spot.call, "K2QRX");
    EXPECT_EQ(beacons[1].locator, "");
}

// Earlier versions had protocols, and the first one callsigns, with the transmissions alone.
TEST_F(StoreTest, BringsAnEarlierVersionUpToDate) {
    {
        Store store(path(), Access::WRITE);
        add(store, "lf", spot("K2QRX", NOON));
    }
    const std::string to_3 = "ALTER TABLE outbox DROP COLUMN epoch; PRAGMA user_version = 3;";
    const std::string to_2 =
        to_3 +
        "DROP INDEX spot_block_start; DROP INDEX spot_block_rf; DROP INDEX spot_block_receiver; DROP INDEX "
        "spot_block_protocol; ALTER TABLE spot DROP COLUMN protocol; PRAGMA user_version = 2;";
    const std::string to_1 =
        to_2 +
        "DROP INDEX spot_call; DROP INDEX spot_curve; DROP INDEX transmission_locator; ALTER TABLE spot DROP COLUMN "
        "call; PRAGMA user_version = 1;";
    for (const std::string& back : {to_3, to_2, to_1}) {
        Database(path(), Access::WRITE).run(back);
        EXPECT_THROW(Store(path(), Access::READ), IoError);
        Store store(path(), Access::WRITE);
        EXPECT_EQ(all(store, {.call = "K2QRX"}).size(), 1u);
        EXPECT_EQ(all(store, {.protocol = OVL_OPERA, .newest = 5}).size(), 1u);
        EXPECT_EQ(store.curve("K2QRX", NOON, NOON + 60, 10).size(), 1u);
    }
}

TEST_F(StoreTest, RemembersHowFarAnOutputIs) {
    {
        Store store(path(), Access::WRITE);
        EXPECT_EQ(store.position_or_last("mqtt"), 0);
        store.add(minutes_of("lf", NOON, 5));
        EXPECT_EQ(store.position_or_last("mqtt"), 0);
        EXPECT_EQ(store.position_or_last("udp"), 5);
        store.set_position("mqtt", 3);
    }
    Store store(path(), Access::WRITE);
    EXPECT_EQ(store.position_or_last("mqtt"), 3);
    EXPECT_EQ(store.position_or_last("udp"), 5);
}

TEST_F(StoreTest, KeepsAMinuteOfAReceiverOnce) {
    Store store(path(), Access::WRITE);
    store.add(ReceiverMinute{"lf", NOON, -30.5, -60, 60, 0, 1.5, 3});
    store.add(ReceiverMinute{"lf", NOON, -30.0, std::nullopt, 59, 1, 1.5, 4});
    store.add(ReceiverMinute{"lf", NOON + 60, std::nullopt, std::nullopt, 0, 60, 0, 0});
    store.add(ReceiverMinute{"mf", NOON, -10, -50, 60, 0, 1, 0});
    const auto minutes = store.minutes("lf", NOON, NOON + 100);
    ASSERT_EQ(minutes.size(), 2u);
    EXPECT_EQ(minutes[0].level_db, -30.0);
    EXPECT_FALSE(minutes[0].noise_db);
    EXPECT_EQ(minutes[0].lost_s, 1);
    EXPECT_EQ(minutes[0].clipped, 4);
    EXPECT_FALSE(minutes[1].level_db);
    EXPECT_EQ(store.minutes("lf", NOON + 1, NOON + 60).size(), 0u);
}

// Numbers are never used again: an output would pass over what follows.
TEST_F(StoreTest, ForgetsByAgeAndBySize) {
    Store store(path(), Access::WRITE);
    store.add(minutes_of("lf", NOON, 20));
    store.add(ReceiverMinute{"lf", NOON, -30.5, -60, 60, 0, 1.5, 3});
    EXPECT_EQ(store.forget(NOON + 60 * 5, std::nullopt), 5);
    EXPECT_EQ(all(store).size(), 15u);
    EXPECT_TRUE(store.minutes("lf", 0, 2 * NOON).empty());
    EXPECT_EQ(store.forget(NOON + 1e6, std::nullopt), 15);
    EXPECT_EQ(add(store, "lf", spot("K2QRX", NOON + 2e6))->number, 21);
}

TEST_F(StoreTest, StaysBelowItsSize) {
    Store store(path(), Access::WRITE);
    store.add(minutes_of("lf", NOON, 3000));
    EXPECT_EQ(store.forget(0, std::nullopt), 0);
    const auto size = static_cast<int64_t>(fs::file_size(path()));
    EXPECT_EQ(store.forget(0, size / 2) % 1000, 0);
    const auto left = all(store);
    EXPECT_LT(left.size(), 2001u);
    EXPECT_GT(left.size(), 500u);
    EXPECT_EQ(left.back().number, 3000);
    EXPECT_LT(static_cast<int64_t>(fs::file_size(path())), size * 6 / 10);
}

TEST_F(StoreTest, IsReadWhileItIsWritten) {
    Store writer(path(), Access::WRITE);
    add(writer, "lf", spot("K2QRX", NOON));
    Store reader(path(), Access::READ);
    EXPECT_EQ(all(reader).size(), 1u);
    add(writer, "lf", spot("K2QRX", NOON + 60));
    EXPECT_EQ(all(reader).size(), 2u);
    EXPECT_THROW(add(reader, "lf", spot("K2QRX", NOON + 120)), IoError);
}

TEST_F(StoreTest, RefusesWhatItCannotUse) {
    EXPECT_THROW(Store(path(), Access::READ), IoError) << "missing";
    EXPECT_THROW(Store((folder_ / "none" / "x.db").string(), Access::WRITE), IoError);
    {
        std::FILE* file = std::fopen(path().c_str(), "w");
        std::fputs("this is no database, however long it may be", file);
        std::fclose(file);
    }
    EXPECT_THROW(Store(path(), Access::WRITE), IoError);
    fs::remove(path());
    {
        Store store(path(), Access::WRITE);
        Database(path(), Access::WRITE).run("PRAGMA user_version = 99");
    }
    EXPECT_THROW(Store(path(), Access::WRITE), IoError) << "a later version";
}

// A child adds spots and prints the number of each that it was told is kept, until it is killed.
TEST_F(StoreTest, HoldsWhatItAcknowledgedWhenItIsKilled) {
    { Store store(path(), Access::WRITE); }
    std::size_t acknowledged = 0;
    for (int round = 0; round < 5; round++) {
        int ends[2];
        ASSERT_EQ(::pipe(ends), 0);
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            Store store(path(), Access::WRITE);
            for (int k = 0;; k++) {
                const auto kept = add(store, "lf", spot("K2QRX", NOON + 1e6 * round + 60 * k));
                if (::write(ends[1], kept ? "+" : "-", 1) != 1) ::_exit(1);
            }
        }
        ::close(ends[1]);
        char mark = 0;
        for (int k = 0; k < 10 + 7 * round; k++) {
            ASSERT_EQ(::read(ends[0], &mark, 1), 1);
            ASSERT_EQ(mark, '+');
            acknowledged++;
        }
        ::kill(child, SIGKILL);
        int status = 0;
        ::waitpid(child, &status, 0);
        while (::read(ends[0], &mark, 1) == 1) acknowledged++;
        ::close(ends[0]);
        Store store(path(), Access::WRITE);
        const auto spots = all(store);
        EXPECT_GE(spots.size(), acknowledged);
        EXPECT_LE(spots.size(), acknowledged + static_cast<std::size_t>(round) + 1) << "one may be kept but not told";
        std::set<std::string> ids;
        for (const StoredSpot& stored : spots) ids.insert(stored.id);
        EXPECT_EQ(ids.size(), spots.size());
    }
}

// The size of a file is limited as a disk is full.
TEST_F(StoreTest, SaysThatTheDiskIsFullAndKeepsTheRest) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        std::signal(SIGXFSZ, SIG_IGN);
        Store store(path(), Access::WRITE);
        add(store, "lf", spot("K2QRX", NOON));
        const rlimit limit{300000, 300000};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        int kept = 1;
        try {
            for (; kept < 100000; kept++) add(store, "lf", spot("K2QRX", NOON + 60 * kept));
        } catch (const IoError&) {
            int found = 0;
            store.query({}, [&](const StoredSpot&) { return ++found > 0; });
            ::_exit(found == kept ? 0 : 1);
        }
        ::_exit(2);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    Store store(path(), Access::WRITE);
    EXPECT_TRUE(add(store, "lf", spot("DL1QXA", NOON)));
}

}  // namespace

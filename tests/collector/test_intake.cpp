// How far a station's spots have come, and how collectors divide stations.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "intake.h"
#include "shares.h"

namespace {

const std::string EPOCH = "c6f4c1a2-0000-4000-8000-0000000000aa";
const std::string LATER = "c6f4c1a2-0000-4000-8000-0000000000bb";

SpotMessage message(int64_t number, int64_t after, const std::string& epoch = EPOCH) {
    StationSpot spot{"id" + std::to_string(number), "N0CALL", "JO62", {}};
    return {spot, Place{epoch, number, after}};
}

Mark only_mark(const Intake& intake) {
    const std::vector<StationMark> marks = intake.touched();
    EXPECT_EQ(marks.size(), 1u);
    return marks.at(0).mark;
}

Intake of_one(const std::vector<Mark>& marks = {}) {
    Intake intake(100);
    intake.own("N0CALL", marks);
    return intake;
}

TEST(Intake, AMarkFollowsSpotsThatFollowEachOther) {
    Intake intake = of_one();
    EXPECT_TRUE(intake.take("N0CALL", message(3, 0), 0));
    EXPECT_TRUE(intake.take("N0CALL", message(7, 3), 0));
    EXPECT_EQ(only_mark(intake).number, 7);
    EXPECT_EQ(only_mark(intake).id, "id7");
    EXPECT_EQ(intake.spots().size(), 2u);
    intake.stored();
    EXPECT_TRUE(intake.is_empty());
    EXPECT_EQ(intake.latest("N0CALL")->number, 7);
}

TEST(Intake, AGapHoldsTheMarkAndAsksForItOnceInAWhile) {
    Intake intake = of_one();
    intake.take("N0CALL", message(1, 0), 0);
    const int64_t again = only_mark(intake).again;
    intake.take("N0CALL", message(3, 2), 10);
    EXPECT_EQ(only_mark(intake).number, 1);
    EXPECT_EQ(only_mark(intake).again, again + 1);
    intake.take("N0CALL", message(4, 3), 11);
    EXPECT_EQ(only_mark(intake).again, again + 1);
    intake.take("N0CALL", message(5, 4), 10 + Intake::AGAIN_EVERY_S);
    EXPECT_EQ(only_mark(intake).again, again + 2);
    for (int64_t number = 2; number <= 5; number++) intake.take("N0CALL", message(number, number - 1), 13);
    EXPECT_EQ(only_mark(intake).number, 5);
}

TEST(Intake, WhatComesTwiceMovesNothingAndIsConfirmedAgain) {
    Intake intake = of_one();
    intake.take("N0CALL", message(1, 0), 0);
    intake.take("N0CALL", message(2, 1), 0);
    intake.stored();
    intake.take("N0CALL", message(1, 0), 1);
    EXPECT_EQ(only_mark(intake).number, 2);
    EXPECT_EQ(only_mark(intake).id, "id2");
}

// Any order, any losses, any repetitions: beside a model that knows all that came.
TEST(Intake, TheMarkNeverPassesWhatHasNotCome) {
    std::mt19937 random(1);
    for (int scene = 0; scene < 200; scene++) {
        Intake intake = of_one();
        std::set<int64_t> come;
        int64_t reached = 0;
        for (int step = 0; step < 60; step++) {
            const auto number = static_cast<int64_t>(1 + random() % 12);
            intake.take("N0CALL", message(number, number - 1), step);
            come.insert(number);
            const int64_t mark = only_mark(intake).number;
            EXPECT_GE(mark, reached);
            for (int64_t k = 1; k <= mark; k++) EXPECT_TRUE(come.contains(k));
            reached = mark;
        }
        for (int64_t number = 1; number <= 12; number++) intake.take("N0CALL", message(number, number - 1), 99);
        EXPECT_EQ(only_mark(intake).number, 12);
    }
}

TEST(Intake, WhatIsNoSpotIsPassedOverButNotStored) {
    Intake intake = of_one();
    EXPECT_FALSE(intake.take("N0CALL", {std::nullopt, Place{EPOCH, 1, 0}}, 0));
    EXPECT_EQ(only_mark(intake), (Mark{EPOCH, 1, "", only_mark(intake).again}));
    EXPECT_TRUE(intake.spots().empty());
    EXPECT_FALSE(intake.take("N0CALL", {}, 0));
}

// A station may write below its own name alone: brokers see to that by topic.
TEST(Intake, ASpotOfAnotherStationIsNone) {
    Intake intake = of_one();
    intake.own("OTHER", {});
    EXPECT_FALSE(intake.take("OTHER", message(1, 0), 0));
    EXPECT_TRUE(intake.spots().empty());
}

TEST(Intake, StationsThatAreNotOwnedDoNotCount) {
    Intake intake = of_one();
    EXPECT_TRUE(intake.take("OTHER", message(1, 0), 0));
    EXPECT_TRUE(intake.is_empty());
    intake.take("N0CALL", message(1, 0), 0);
    intake.disown("N0CALL");
    EXPECT_FALSE(intake.owns("N0CALL"));
    EXPECT_TRUE(intake.touched().empty());
}

TEST(Intake, SpotsWithoutPlaceAreStoredAndMoveNoMark) {
    Intake intake = of_one();
    SpotMessage plain = message(1, 0);
    plain.place.reset();
    EXPECT_TRUE(intake.take("N0CALL", plain, 0));
    EXPECT_EQ(intake.spots().size(), 1u);
    EXPECT_TRUE(intake.touched().empty());
    EXPECT_FALSE(intake.is_empty());
}

TEST(Intake, EpochsHaveMarksOfTheirOwn) {
    Intake intake = of_one({{EPOCH, 40, "id40", 0}});
    EXPECT_GT(intake.latest("N0CALL")->again, 100) << "asks for what follows";
    intake.take("N0CALL", message(1, 0, LATER), 0);
    EXPECT_EQ(only_mark(intake).epoch, LATER);
    EXPECT_EQ(only_mark(intake).number, 1);
    intake.take("N0CALL", message(41, 40), 0);
    EXPECT_EQ(intake.latest("N0CALL")->number, 41);
    EXPECT_EQ(intake.touched().size(), 2u);
}

TEST(Intake, AStationCannotFillTheMemoryWithEpochs) {
    Intake intake = of_one();
    for (int k = 0; k < 100; k++) intake.take("N0CALL", message(1, 0, EPOCH + std::to_string(k)), 0);
    EXPECT_EQ(intake.touched().size(), Intake::MOST_EPOCHS);
}

TEST(Intake, BatchesAreLimited) {
    Intake intake = of_one();
    for (int64_t k = 1; k <= 500; k++) {
        EXPECT_FALSE(intake.is_full());
        intake.take("N0CALL", message(k, k - 1), 5);
    }
    EXPECT_TRUE(intake.is_full());
    EXPECT_EQ(intake.since(), 5);
}

TEST(Shares, AreOfEqualSizeForStationsOfAnyName) {
    std::array<int, SHARES> stations{};
    for (int k = 0; k < 6400; k++) stations.at(static_cast<std::size_t>(share_of("N" + std::to_string(k) + "CALL")))++;
    EXPECT_GT(*std::ranges::min_element(stations), 50);
    EXPECT_LT(*std::ranges::max_element(stations), 150);
    static_assert(stable_hash("") == 0x811c9dc5 && stable_hash("a") == 0xe40c292c, "FNV-1a of 32 bits");
}

TEST(Shares, AnyNumberOfCollectorsHasRoomForAll) {
    for (int collectors = 1; collectors <= 200; collectors++) EXPECT_GE(collectors * most_shares(collectors), SHARES);
    EXPECT_EQ(most_shares(2), 32);
    EXPECT_EQ(most_shares(3), 22);
}

}  // namespace

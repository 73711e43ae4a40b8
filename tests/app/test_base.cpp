// What all of our programs are made of: times, texts, numbers, progress.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <map>
#include <optional>
#include <random>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "base/callsign.h"
#include "base/console.h"
#include "base/error.h"
#include "base/parse.h"
#include "base/progress.h"
#include "base/sample_format.h"
#include "base/text.h"
#include "base/utc.h"
#include "ovcenc.h"
#include "system/child.h"

namespace {

// ---- Times as text --------------------------------------------------------------------------------------------------

constexpr double DAY = 86400;
constexpr double MARCH_1 = 20513 * DAY;  // 2026-03-01

TEST(UtcText, ShowsUpToSixDecimals) {
    const double utc = MARCH_1 + 12 * 3600 + 2.5;
    EXPECT_EQ(utc_text(utc, 0), "2026-03-01T12:00:03Z");
    EXPECT_EQ(utc_text(utc, 1), "2026-03-01T12:00:02.5Z");
    EXPECT_EQ(utc_text(utc, 2), "2026-03-01T12:00:02.50Z");
    EXPECT_EQ(utc_text(utc, 3), "2026-03-01T12:00:02.500Z");
    EXPECT_EQ(utc_text(utc, 4), "2026-03-01T12:00:02.5000Z");
    EXPECT_EQ(utc_text(utc, 5), "2026-03-01T12:00:02.50000Z");
    EXPECT_EQ(utc_text(utc, 6), "2026-03-01T12:00:02.500000Z");
    EXPECT_EQ(utc_text(MARCH_1 + 0.015625, 6), "2026-03-01T00:00:00.015625Z");
    EXPECT_EQ(utc_text(0, 0), "1970-01-01T00:00:00Z");
}

TEST(UtcText, RoundsUpOverEveryBorder) {
    EXPECT_EQ(utc_text(MARCH_1 + 59.96, 1), "2026-03-01T00:01:00.0Z");
    EXPECT_EQ(utc_text(MARCH_1 + 59.94, 1), "2026-03-01T00:00:59.9Z");
    EXPECT_EQ(utc_text(MARCH_1 + 3599.6, 0), "2026-03-01T01:00:00Z");
    EXPECT_EQ(utc_text(MARCH_1 - 0.001, 2), "2026-03-01T00:00:00.00Z");
    EXPECT_EQ(utc_text(MARCH_1 - 0.01, 2), "2026-02-28T23:59:59.99Z");
    constexpr double YEAR_2027 = 20819 * DAY;
    EXPECT_EQ(utc_text(YEAR_2027 - 0.0001, 3), "2027-01-01T00:00:00.000Z");
    EXPECT_EQ(utc_text(YEAR_2027 - 0.4, 0), "2027-01-01T00:00:00Z");
    EXPECT_EQ(utc_text(YEAR_2027 - 0.6, 0), "2026-12-31T23:59:59Z");
}

TEST(UtcText, KnowsLeapYears) {
    EXPECT_EQ(utc_text(19782 * DAY, 0), "2024-02-29T00:00:00Z");
    EXPECT_EQ(utc_text(MARCH_1 - 1, 0), "2026-02-28T23:59:59Z");
}

TEST(UtcText, IsReadBackAsTheSameTime) {
    uint64_t state = 1;
    for (int k = 0; k < 1000; k++) {
        state = state * 6364136223846793005U + 1442695040888963407U;
        const double utc = static_cast<double>(state >> 20) / 1e3;  // milliseconds up to the year 2527
        const auto back = parse_utc(utc_text(utc, 3), 0);
        ASSERT_TRUE(back) << utc_text(utc, 3);
        EXPECT_NEAR(*back, utc, 1e-5);
    }
}

TEST(UtcClock, IsTheWallClock) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    EXPECT_NEAR(utc_now(), std::chrono::duration<double>(now).count(), 1);
}

// ---- Texts as times -------------------------------------------------------------------------------------------------

TEST(ParseUtc, TakesDateAndTimeInEveryLength) {
    const double noon = MARCH_1 + 12 * 3600;
    const std::vector<std::pair<std::string, double>> times = {
        {"2026-03-01T12:00", noon},
        {"2026-03-01T12:00:02", noon + 2},
        {"2026-03-01T12:00:02.5", noon + 2.5},
        {"2026-03-01T00:00", MARCH_1},
        {"2026-02-28T23:59:59", MARCH_1 - 1},
        {"1970-01-01T00:00", 0},
        {"2024-02-29T00:00", 19782 * DAY},
        {"2026-03-01T12:00:02.000001", noon + 2.000001},
    };
    for (const auto& [text, utc] : times) {
        for (const double now : {0.0, 1e9, 4e9}) {  // whenever it is asked
            for (const char* zone : {"", "Z"}) {
                const auto parsed = parse_utc(text + zone, now);
                ASSERT_TRUE(parsed) << text << zone;
                EXPECT_NEAR(*parsed, utc, 1e-6) << text << zone;
            }
        }
    }
}

TEST(ParseUtc, ATimeOfDayIsTheNextSuchTime) {
    const double now = MARCH_1 + 12 * 3600;  // noon
    const std::vector<std::pair<std::string, double>> times = {
        {"12:00", now},
        {"12:00:00", now},
        {"12:00:00.25", now + 0.25},
        {"12:01", now + 60},
        {"23:59:59", MARCH_1 + DAY - 1},
        {"00:00", MARCH_1 + DAY},
        {"11:59:59", now + DAY - 1},
        {"11:59:59.5", now + DAY - 0.5},
    };
    for (const auto& [text, utc] : times) {
        for (const char* zone : {"", "Z"}) {
            const auto parsed = parse_utc(text + zone, now);
            ASSERT_TRUE(parsed) << text << zone;
            EXPECT_NEAR(*parsed, utc, 1e-6) << text << zone;
        }
    }
    EXPECT_NEAR(*parse_utc("12:00", now + 0.001), now + DAY, 1e-6);
    EXPECT_NEAR(*parse_utc("12:00", now - 0.001), now, 1e-6);
}

TEST(ParseUtc, RefusesWhatIsNoTime) {
    for (const char* text : {"",
                             " ",
                             "Z",
                             "now",
                             "12",
                             "1200",
                             "12:0",
                             "1:00",
                             "12:00:",
                             "12:00:0",
                             "12:00:000",
                             "12:00:00.",
                             "12:00:00.x",
                             "12:00.5",
                             "24:00",
                             "12:60",
                             "12:00:60",
                             "-1:00",
                             "+1:00",
                             "12:-1",
                             "12:00:-1",
                             "12:00:00.-5",
                             "12:00:00.5e3",
                             " 12:00",
                             "12:00 ",
                             "12 :00",
                             "12:00 Z",
                             "12:00ZZ",
                             "12:00z",
                             "12:00+01",
                             "12:00\n",
                             "12:00:00,5",
                             "12.00",
                             "1e:00",
                             "0x:00",
                             "nan",
                             "inf",
                             "12:00:inf",
                             "2026-02-30T12:00",
                             "2026-02-29T12:00",
                             "2026-13-01T12:00",
                             "2026-00-01T12:00",
                             "2026-01-00T12:00",
                             "2026-01-32T12:00",
                             "2026-03-01",
                             "2026-03-01T",
                             "2026-03-01Z",
                             "2026-03-01 12:00",
                             "2026-03-01t12:00",
                             "2026-3-1T12:00",
                             "26-03-01T12:00",
                             "-026-03-01T12:00",
                             "12026-03-01T12:00",
                             "2026-03-01T24:00",
                             "2026-03-01T12:60",
                             "2026-03-01T12:00:00.5x",
                             "2026-03-01T12:00Zx",
                             "2026-03-01T-1:00",
                             "2026/03/01T12:00",
                             " 2026-03-01T12:00",
                             "2026-03-01T12:00 ",
                             "2026-03-01T 2:00",
                             "2026-03-01T12:00-01:00"}) {
        EXPECT_FALSE(parse_utc(text, MARCH_1)) << "'" << text << "'";
    }
    EXPECT_FALSE(parse_utc(std::string("12:00\0", 6), MARCH_1));
}

// ---- Lengths --------------------------------------------------------------------------------------------------------

TEST(UtcInName, IsReadInTheFormsThatReceiversWrite) {
    const double noon = *parse_utc("2026-03-01T12:00:00Z", 0);
    for (const char* name : {"20260301_120000.wav", "2026-03-01T12:00:00Z.flac", "x_20260301T120000Z_7100kHz.wav",
                             "260301_1200.wav", "260301_120000.wav", "/some/20250101_000000/2026-03-01_12-00-00.wav",
                             "rx_20260301_120000_7100000_fc.raw", "0123456_20260301-120000.wav"}) {
        const auto utc = utc_in_name(name);
        ASSERT_TRUE(utc) << name;
        EXPECT_EQ(*utc, noon) << name;
    }
    for (const char* name : {"", "x.wav", "20261399_999999.wav", "20260301.wav", "1234567890123456.wav",
                             "20260301_12.wav", "20260301_120000/x.wav"}) {
        EXPECT_FALSE(utc_in_name(name)) << name;
    }
}

// As a regular expression says it.
std::optional<double> utc_in_name_model(const std::string& name) {
    static const std::regex DATED(
        R"((?:^|\D)(20\d\d|\d\d)([-.]?)(\d\d)\2(\d\d)[-_T ]?(\d\d)[-:.]?(\d\d)(?:[-:.]?(\d\d))?(?!\d))");
    for (std::sregex_iterator match(name.begin(), name.end(), DATED), end; match != end; ++match) {
        const auto part = [&](std::size_t k) { return (*match)[k].str(); };
        const auto utc = parse_utc((part(1).size() == 2 ? "20" : "") + part(1) + "-" + part(3) + "-" + part(4) + "T" +
                                       part(5) + ":" + part(6) + ":" + (part(7).empty() ? "00" : part(7)),
                                   0);
        if (utc) return utc;
    }
    return std::nullopt;
}

TEST(UtcInName, IsWhatTheRegularExpressionFindsInNamesOfEveryKind) {
    // Stamps with a few of their characters changed, dropped or doubled, and others before and after them.
    constexpr std::string_view CHARACTERS = "0012-.:_T xZ";
    const std::vector<std::string> stamps = {"20260301_120000", "2026-03-01T12:00:00", "260301_1200",
                                             "01.02.03.04.05.06", "20.01-02"};
    std::mt19937 random(5);
    const auto below = [&](std::size_t n) { return random() % n; };
    std::size_t read = 0;
    for (int round = 0; round < 3000; round++) {
        std::string name;
        for (std::size_t k = 0; k <= below(3); k++) {
            name += stamps[below(stamps.size())];
            if (below(2) == 0) name += CHARACTERS[below(CHARACTERS.size())];
        }
        for (std::size_t k = below(4); k > 0 && !name.empty(); k--) {
            const std::size_t at = below(name.size());
            const char c = CHARACTERS[below(CHARACTERS.size())];
            if (below(3) == 0) {
                name.erase(at, 1);
            } else if (below(2) == 0) {
                name[at] = c;
            } else {
                name.insert(at, 1, c);
            }
        }
        const auto expected = utc_in_name_model(name);
        read += expected ? 1 : 0;
        ASSERT_EQ(utc_in_name(name), expected) << name;
    }
    EXPECT_GT(read, 500U);
}

TEST(ParseDuration, TakesSecondsMinutesAndHours) {
    const std::vector<std::pair<std::string, double>> lengths = {
        {"90", 90},   {"90s", 90}, {"10m", 600},  {"1h", 3600},   {"1.5h", 5400}, {"0.25", 0.25},
        {"0.5m", 30}, {".5", 0.5}, {"1e3", 1000}, {"1e3s", 1000}, {"1e9", 1e9},   {"24h", DAY},
    };
    for (const auto& [text, seconds] : lengths) {
        const auto parsed = parse_duration(text);
        ASSERT_TRUE(parsed) << text;
        EXPECT_DOUBLE_EQ(*parsed, seconds) << text;
    }
}

TEST(ParseDuration, RefusesWhatIsNoLength) {
    for (const char* text :
         {"",     " ",    "s",   "m",    "h",    "0",    "0s",    "0m",     "0.0h", "-0",   "-1",  "-1m",
          "nan",  "nans", "inf", "infh", "-inf", "1e10", "1e999", "1e-999", "1e8m", "1e9h", "1d",  "10ms",
          "10mm", "10 m", " 10", "10 ",  "10m ", "+10",  "0x10",  "1,5",    "1:30", "ten",  "10M", "10H"}) {
        EXPECT_FALSE(parse_duration(text)) << "'" << text << "'";
    }
}

TEST(NextSlot, IsTheFirstOneNotBefore) {
    EXPECT_DOUBLE_EQ(next_slot(1200, 600, 0), 1200);
    EXPECT_DOUBLE_EQ(next_slot(1200.001, 600, 0), 1800);
    EXPECT_DOUBLE_EQ(next_slot(1199.999, 600, 0), 1200);
    EXPECT_DOUBLE_EQ(next_slot(1200, 600, 30), 1230);
    EXPECT_DOUBLE_EQ(next_slot(1231, 600, 30), 1830);
    EXPECT_DOUBLE_EQ(next_slot(1200, 600, 630), 1230);  // a longer offset names the same slots
    EXPECT_DOUBLE_EQ(next_slot(0, 600, 30), 30);
    for (const double period : {0.5, 7.0, 90.0, 600.0, 86400.0}) {
        for (const double offset : {0.0, 0.25, 3.0, 100.0}) {
            for (double earliest = MARCH_1; earliest < MARCH_1 + 100; earliest += 9.7) {
                const double slot = next_slot(earliest, period, offset);
                EXPECT_GE(slot, earliest);
                EXPECT_LT(slot, earliest + period);
                EXPECT_NEAR(std::remainder(slot - offset, period), 0, 1e-6);
            }
        }
    }
}

// ---- Texts ----------------------------------------------------------------------------------------------------------

using Texts = std::vector<std::string>;

TEST(Cells, HaveNoNegativeZeroAndNoNumbersThatAreNone) {
    EXPECT_EQ(cell(-0.04, 1), "0.0");
    EXPECT_EQ(cell(-0.04, 1, true), "+0.0");
    EXPECT_EQ(cell(-0.06, 1, true), "-0.1");
    EXPECT_EQ(cell(1.25, 2, true), "+1.25");
    EXPECT_EQ(cell(NAN, 1), "-");
    EXPECT_EQ(cell(HUGE_VAL, 1), "-");
}

TEST(Lists, AreSplitAtCommasAndBlanks) {
    EXPECT_EQ(split_list("a,b c;d\te\r\nf"), (Texts{"a", "b", "c", "d", "e", "f"}));
    EXPECT_EQ(split_list(",, a ,;, b,"), (Texts{"a", "b"}));
    EXPECT_EQ(split_list("a/b-c"), Texts{"a/b-c"});
    EXPECT_TRUE(split_list("").empty());
    EXPECT_TRUE(split_list(" ,;\t\n\v\f").empty());
}

TEST(PrintableText, IsOneLineThatMovesNoCursor) {
    for (const char* const plain : {"", "a ~", "caf\xc3\xa9", "\xc2\xa0", "\xe2\x82\xac", "\xf0\x9f\x93\xbb", "\\x"}) {
        EXPECT_EQ(printable(plain), plain);
    }
    EXPECT_EQ(printable("a\nb\r\tc"), "a\\nb\\r\\tc");
    EXPECT_EQ(printable("\x1b[2J\x7f"), "\\x1b[2J\\x7f");
    EXPECT_EQ(printable(std::string(1, '\0')), "\\x00");
    EXPECT_EQ(printable("\xc2\x9b"
                        "2J"),
              "\\xc2\\x9b2J");                                         // U+009B, the same as ESC [
    EXPECT_EQ(printable("\xe9t\xe9"), "\\xe9t\\xe9");                  // Latin-1
    EXPECT_EQ(printable("\xe2\x82"), "\\xe2\\x82");                    // cut off
    EXPECT_EQ(printable("\xe2(\x82"), "\\xe2(\\x82");                  // in the middle
    EXPECT_EQ(printable("\xc0\x8a"), "\\xc0\\x8a");                    // a line feed, made longer
    EXPECT_EQ(printable("\xe0\x82\x9b"), "\\xe0\\x82\\x9b");           // and U+009B
    EXPECT_EQ(printable("\xed\xa0\x80"), "\\xed\\xa0\\x80");           // half a pair of UTF-16
    EXPECT_EQ(printable("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");  // beyond the last
    EXPECT_EQ(printable("\xf0\x80\x82\x9b\xff"), "\\xf0\\x80\\x82\\x9b\\xff");
}

TEST(Format, HoldsTextsOfEveryLength) {
    EXPECT_EQ(format("%s", ""), "");
    EXPECT_EQ(format("%d %s %.2f%%", 3, "x", 1.5), "3 x 1.50%");
    for (const std::size_t length : {1U, 255U, 256U, 1000U, 100000U}) {
        const std::string text(length, 'a');
        EXPECT_EQ(format("<%s>", text.c_str()), "<" + text + ">");
    }
}

TEST(Cases, ChangeAsciiLettersOnly) {
    EXPECT_EQ(upper_case("aZ09-/\xe9 i"), "AZ09-/\xe9 I");
    EXPECT_EQ(lower_case("AzI[`\xc9"), "azi[`\xc9");
}

// ---- Ranges ---------------------------------------------------------------------------------------------------------

TEST(Ranges, AreTwoFiniteNumbersInOrder) {
    const auto range = parse_range("-1.5:2e3");
    ASSERT_TRUE(range);
    EXPECT_EQ(range->low, -1.5);
    EXPECT_EQ(range->high, 2000);
    for (const char* text : {"", ":", "1", "1:", ":1", "2:1", "1:1", "a:2", "1:b", "1:2:3", "1:inf", "nan:1", " 1:2"}) {
        EXPECT_FALSE(parse_range(text)) << text;
    }
}

// ---- Progress -------------------------------------------------------------------------------------------------------

// With single blanks: how wide the columns are does not matter.
std::string progress(double done_s, double seconds, double elapsed_s, std::size_t spots) {
    return std::regex_replace(progress_text(done_s, seconds, elapsed_s, spots), std::regex(" +"), " ");
}

TEST(ProgressText, ShowsShareSpeedRestAndSpots) {
    EXPECT_EQ(progress(600, 1200, 600 / 38.5, 17), "##########.......... 50 % 38.5 x real time 0:16 left 17 spots");
    EXPECT_EQ(progress(300, 1200, 100, 2), "#####............... 25 % 3.0 x real time 5:00 left 2 spots");
    EXPECT_EQ(progress(36, 86400, 9, 0), ".................... 0 % 4.0 x real time 359:51 left 0 spots");
}

TEST(ProgressText, BeginsWithoutSpeedAndEndsWithNothingLeft) {
    EXPECT_EQ(progress(0, 1200, 0, 0), ".................... 0 % 0 spots");
    EXPECT_EQ(progress(0, 1200, 5, 0), ".................... 0 % 0 spots");
    EXPECT_EQ(progress(60, 1200, 0, 3), "#................... 5 % 3 spots");
    EXPECT_EQ(progress(1200, 1200, 48, 3), "#################### 100 % 25.0 x real time 0:00 left 3 spots");
    EXPECT_EQ(progress(1300, 1200, 52, 3), "#################### 100 % 25.0 x real time 0:00 left 3 spots");
}

TEST(ProgressText, OneSpotIsNoSpots) {
    EXPECT_EQ(progress(0, 1200, 0, 1), ".................... 0 % 1 spot");
    EXPECT_TRUE(progress(600, 1200, 10, 1).ends_with(" 1 spot"));
    EXPECT_TRUE(progress(600, 1200, 10, 21).ends_with(" 21 spots"));
}

TEST(ProgressText, AJobOfNoLengthIsDone) {
    EXPECT_EQ(progress(0, 0, 0, 0), "#################### 100 % 0 spots");
    EXPECT_EQ(progress(0, 0, 1, 0), "#################### 100 % 0 spots");
}

TEST(ProgressText, AJobThatLooksForNoSpotsCountsNone) {
    EXPECT_TRUE(progress_text(600, 1200, 16, std::nullopt).ends_with("  0:16 left"));
}

TEST(ProgressLine, KeepsWhatMattersInAFewColumns) {
    const auto line = [](std::size_t columns) { return progress_line("'long.wav'", 600, 1200, 16, 17, columns); };
    EXPECT_EQ(line(80), "'long.wav'  ##########..........   50 %   37.5 x real time  0:16 left  17 spots");
    EXPECT_EQ(line(79), line(80));
    EXPECT_EQ(line(78), " 50 %  0:16 left  ##########..........  'long.wav'");
    EXPECT_EQ(line(46), " 50 %  0:16 left  ##########..........  'long.");
    EXPECT_EQ(line(38), " 50 %  0:16 left  ##########..........");
    EXPECT_EQ(line(30), " 50 %  0:16 left  ######......");
    EXPECT_EQ(line(23), " 50 %  0:16 left  ###..");
    EXPECT_EQ(line(22), " 50 %  0:16 left");
    EXPECT_EQ(line(20), " 50 %  0:16 left");
    EXPECT_EQ(line(5), " 50 %");
    EXPECT_EQ(progress_line("'long.wav'", 0, 1200, 0, 0, 30), "  0 %  ....................  '");
}

TEST(ProgressLine, IsNeverWiderThanItsColumns) {
    for (const char* name : {"'a.wav'", "'f\u00fcr \u97f3\u97f3\u97f3\u97f3\u97f3\u97f3 \U0001f4fb\U0001f4fb.wav'"}) {
        for (std::size_t columns = 0; columns < 120; columns++) {
            const std::string line = progress_line(name, 36, 86400, 9, 100, columns);
            EXPECT_LE(columns_of(line), columns) << line;
            EXPECT_EQ(printable(line), line) << "no character is cut";
        }
    }
}

TEST(Columns, OfWideCharactersAreTwo) {
    EXPECT_EQ(columns_of(""), 0U);
    EXPECT_EQ(columns_of("f\u00fcr"), 3U);
    EXPECT_EQ(columns_of("\u97f3\U0001f4fb"), 4U);
    EXPECT_EQ(first_columns("a\u97f3b", 1), "a");
    EXPECT_EQ(first_columns("a\u97f3b", 2), "a");
    EXPECT_EQ(first_columns("a\u97f3b", 3), "a\u97f3");
    EXPECT_EQ(first_columns("ab  c", 4), "ab");
}

// ---- Callsigns ------------------------------------------------------------------------------------------------------

// What the coder would drop, a text behind a blank, is a problem as well.
TEST(Callsigns, AProblemIsWhatTheCoderRefusesOrDrops) {
    const std::string characters = "aB07 /";
    int32_t fine = 0;
    for (int32_t length = 0; length <= 6; length++) {
        const auto count = static_cast<int32_t>(std::lround(std::pow(characters.size(), length)));
        for (int32_t number = 0; number < count; number++) {
            std::string call;
            for (int32_t k = 0, rest = number; k < length; k++, rest /= 6) {
                call += characters[static_cast<std::size_t>(rest % 6)];
            }
            char normalised[7];
            const bool coded = ov_normalize_call(call.c_str(), normalised) == 0;
            const std::size_t blank = call.find(' ', call.find_first_not_of(' '));
            const bool dropped = blank != std::string::npos && call.find_first_not_of(' ', blank) != std::string::npos;
            const bool taken = callsign_problem(call).empty();
            ASSERT_EQ(taken, coded && !dropped) << "'" << call << "'";
            fine += taken ? 1 : 0;
        }
    }
    EXPECT_GT(fine, 100);
    EXPECT_EQ(callsign_problem("ABCDEFG"), "a frame holds at most 6 characters");
    EXPECT_EQ(callsign_problem("K2QRXY"), "at most three letters may follow the digit");
}

// ---- Samples of raw files
// --------------------------------------------------------------------------------------------

TEST(SampleFormats, HaveNamesThatReadBack) {
    for (const char* name : {"u8", "s8", "u16", "s16", "s24", "u32", "s32", "f32", "f64", "s16be", "s24be", "f64be"}) {
        const auto format = parse_sample_format(name);
        ASSERT_TRUE(format) << name;
        EXPECT_EQ(name_of(*format), name);
    }
    EXPECT_EQ(parse_sample_format("s16le"), parse_sample_format("s16"));
    EXPECT_EQ(parse_sample_format("f32be")->bytes, 4u);
    for (const char* name : {"", "be", "u8be", "s8le", "S16", "s12", "f16", "s16 ", "s16bebe", "u24", "float"}) {
        EXPECT_FALSE(parse_sample_format(name)) << name;
    }
}

// The samples of a format, given as bytes, as floats and doubles, which must be alike.
std::vector<double> converted(const std::string& name, const std::vector<uint8_t>& bytes) {
    const auto format = parse_sample_format(name).value();
    std::vector<double> doubles(bytes.size() / format.bytes);
    std::vector<float> floats(doubles.size());
    convert_samples(format, bytes, doubles);
    convert_samples(format, bytes, floats);
    for (std::size_t k = 0; k < doubles.size(); k++) EXPECT_EQ(floats[k], static_cast<float>(doubles[k])) << name;
    return doubles;
}

TEST(SampleFormats, AreOfFullScaleOne) {
    using Samples = std::vector<double>;
    EXPECT_EQ(converted("u8", {0, 127, 128, 255}), (Samples{-127.5 / 128, -0.5 / 128, 0.5 / 128, 127.5 / 128}));
    EXPECT_EQ(converted("s8", {0, 1, 127, 128, 255}), (Samples{0, 1 / 128.0, 127 / 128.0, -1, -1 / 128.0}));
    EXPECT_EQ(converted("u16", {0, 0, 0, 128}), (Samples{-32767.5 / 32768, 0.5 / 32768}));
    EXPECT_EQ(converted("s16", {1, 0, 0, 128, 255, 127}), (Samples{1 / 32768.0, -1, 32767 / 32768.0}));
    EXPECT_EQ(converted("s16be", {0, 1, 128, 0, 127, 255}), (Samples{1 / 32768.0, -1, 32767 / 32768.0}));
    EXPECT_EQ(converted("s24", {1, 0, 0, 0, 0, 128}), (Samples{0x1p-23, -1}));
    EXPECT_EQ(converted("s24be", {0, 0, 1, 128, 0, 0}), (Samples{0x1p-23, -1}));
    EXPECT_EQ(converted("u32", {0, 0, 0, 128}), Samples{0.5 * 0x1p-31});
    EXPECT_EQ(converted("s32be", {0, 0, 0, 1, 128, 0, 0, 0}), (Samples{0x1p-31, -1}));
}

TEST(SampleFormats, FloatsAreTakenAsTheyAreUnlessNobodyCouldHearThem) {
    const float infinity = std::numeric_limits<float>::infinity();
    const float most = 0x1p31f;
    std::vector<uint8_t> f32, f32be, f64;
    for (const float value : {0.25f, -3.0f, infinity, -infinity, std::nanf(""), most, -most, 2.2e9f, 1e-40f}) {
        const auto word = std::bit_cast<uint32_t>(value);
        const auto wide = std::bit_cast<uint64_t>(static_cast<double>(value));
        for (int shift = 0; shift < 32; shift += 8) {
            f32.push_back(static_cast<uint8_t>(word >> shift & 0xFF));
            f32be.push_back(static_cast<uint8_t>(word >> (24 - shift) & 0xFF));
        }
        for (int shift = 0; shift < 64; shift += 8) f64.push_back(static_cast<uint8_t>(wide >> shift & 0xFF));
    }
    const std::vector<double> expected = {0.25, -3, 0, 0, 0, 0x1p31, -0x1p31, 0, static_cast<double>(1e-40f)};
    EXPECT_EQ(converted("f32", f32), expected);
    EXPECT_EQ(converted("f32be", f32be), expected);
    EXPECT_EQ(converted("f64", f64), expected);
}

// ---- Children -------------------------------------------------------------------------------------------------------

// All that a child's end of a pipe gives until the child has ended.
std::string all_from(Child& child, int end) {
    std::string text;
    char block[4096];
    for (int patience = 0; patience < 1000; patience++) {
        const bool last = child.ended().has_value();
        for (ssize_t got = 1; got > 0;) {
            got = read(end, block, sizeof block);
            if (got > 0) text.append(block, static_cast<std::size_t>(got));
        }
        if (last) return text;
        usleep(5000);
    }
    ADD_FAILURE() << "it does not end";
    return text;
}

TEST(Child, GetsItsArgumentsAndVariablesAndAnEmptyInput) {
    setenv("ORVEL_TEST_WORD", "old", 1);
    Child child(find_program("sh"), {"sh", "-c", "cat; echo $ORVEL_TEST_WORD; echo \"$1\" >&2; exit 3", "sh", "a b"},
                {.variables = {"ORVEL_TEST_WORD=new"}});
    EXPECT_EQ(all_from(child, child.output()), "new\na b\n");
    EXPECT_EQ(ending_text(*child.ended()), "exit status 3");
    EXPECT_EQ(child.errors(), -1);
}

TEST(Child, HoldsNoFileOfOurs) {
    const int ours = open("/dev/null", O_RDONLY);
    ASSERT_GT(ours, STDERR_FILENO);
    Child child(find_program("sh"), {"sh", "-c", "test -e /proc/$$/fd/" + std::to_string(ours)}, {});
    EXPECT_EQ(all_from(child, child.output()), "");
    EXPECT_EQ(ending_text(*child.ended()), "exit status 1");
    close(ours);
}

TEST(Child, KeepsErrorsApart) {
    Child child(find_program("sh"), {"sh", "-c", "echo out; echo err >&2; kill -9 $$"}, {.errors_apart = true});
    EXPECT_EQ(all_from(child, child.output()), "out\n");
    EXPECT_EQ(all_from(child, child.errors()), "err\n");
    EXPECT_EQ(ending_text(*child.ended()), "ended by signal 9");
}

TEST(Child, ThatCannotBeStartedSaysWhy) {
    EXPECT_EQ(find_program("orvel-no-such-program"), "");
    EXPECT_EQ(find_program("/etc/passwd"), "");
    EXPECT_THROW(Child("/etc/passwd", {"passwd"}, {}), IoError);
    EXPECT_THROW(Child("/none", {"none"}, {}), IoError);
}

// Waits for a process to end; it may be a zombie until its new parent looks.
bool ends(int pid) {
    for (int patience = 0; patience < 1000; patience++) {
        std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
        std::string number;
        std::string name;
        std::string state;
        if (!(stat >> number >> name >> state) || state == "Z") return true;
        usleep(5000);
    }
    return false;
}

// The number that a child prints first.
int number_from(const Child& child) {
    char text[32] = {};
    for (int patience = 0; patience < 1000; patience++) {
        if (read(child.output(), text, sizeof text - 1) > 0) return std::atoi(text);
        usleep(5000);
    }
    return 0;
}

TEST(Child, IsKilledWithAllThatItStarted) {
    int inner = 0;
    {
        Child child(find_program("sh"), {"sh", "-c", "sleep 1000 & echo $!; wait"}, {});
        inner = number_from(child);
        ASSERT_GT(inner, 0);
        EXPECT_EQ(kill(inner, 0), 0);
        EXPECT_FALSE(child.ended());
    }
    EXPECT_TRUE(ends(inner));
}

TEST(Child, EndsWithTheProcessThatStartedIt) {
    int told[2];
    ASSERT_EQ(pipe(told), 0);
    const pid_t parent = fork();
    ASSERT_GE(parent, 0);
    if (parent == 0) {
        const Child child(find_program("sh"), {"sh", "-c", "echo $$; exec sleep 1000"}, {.ends_with_us = true});
        const int number = number_from(child);
        if (write(told[1], &number, sizeof number) != sizeof number) _exit(1);
        kill(getpid(), SIGKILL);
    }
    int number = 0;
    ASSERT_EQ(read(told[0], &number, sizeof number), static_cast<ssize_t>(sizeof number));
    waitpid(parent, nullptr, 0);
    ASSERT_GT(number, 0);
    EXPECT_TRUE(ends(number));
    close(told[0]);
    close(told[1]);
}

}  // namespace

// Options that several subcommands have.
#include <gtest/gtest.h>

#include <string>

#include "options.h"

namespace {

// ---- Checks of option values ----------------------------------------------------------------------------------------

TEST(OptionChecks, NumbersAreFiniteAndFillTheText) {
    std::string value;
    for (const char* text : {"0", "-0", "1", "-1.5", "+2", "1e3", "1e-300", ".5", "5.", "1e308"}) {
        value = text;
        EXPECT_EQ(finite_number()(value), "") << text;
        EXPECT_EQ(value, text);
    }
    for (const char* text : {"",         " ",     "+",  "-",  "+-1", "--1", "++1", "nan",  "inf", "-inf",
                             "infinity", "1e309", "1x", "x1", " 1",  "1 ",  "1,5", "0x10", "1e",  "."}) {
        value = text;
        EXPECT_EQ(finite_number()(value), "'" + std::string(text) + "' is not a finite number");
        EXPECT_EQ(width()(value), "'" + std::string(text) + "' is not a finite number of 0 or more");
    }
}

TEST(OptionChecks, WidthsAreNotNegative) {
    std::string value;
    for (const char* text : {"0", "-0", "0.5", "1e9"}) {
        value = text;
        EXPECT_EQ(width()(value), "") << text;
    }
    for (const char* text : {"-1", "-1e-300"}) {
        value = text;
        EXPECT_EQ(width()(value), "'" + std::string(text) + "' is not a finite number of 0 or more");
    }
}

}  // namespace

// Callsigns, locators and lists of them in hosts with a locale of their own. Turkish is the hard one: upper-case i is
// not I there, and in ISO 8859-9 a byte beyond ASCII has I as its upper case.
#include <gtest/gtest.h>

#include <array>
#include <cctype>
#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "liborvel.h"
#include "orvel.h"
#include "ovcenc.h"
#include "process.h"
#include "sound_server.h"

namespace {

// What everything that reads text answers to each byte in each place.
std::vector<std::string> all_answers() {
    std::vector<std::string> answers;
    for (int32_t byte = 1; byte < 256; byte++) {
        const auto c = static_cast<char>(byte);
        for (std::size_t place = 0; place < 6; place++) {
            std::string call = "QQ0XYZ";
            call[place] = c;
            std::array<char, 7> normalised{};
            const int result = ov_normalize_call(call.c_str(), normalised.data());
            answers.push_back(std::to_string(result) + normalised.data());

            std::string locator = "KP20LE";
            locator[place] = c;
            uint32_t value = 0;
            answers.push_back(std::to_string(ov_pack_loc(locator.c_str(), &value)) + " " + std::to_string(value));
        }
        ovl_decoder* const decoder = ovl_create();
        answers.push_back(std::to_string(ovl_set_known(decoder, ("A1A" + std::string(1, c) + "B2B").c_str())));
        ovl_destroy(decoder);
    }
    return answers;
}

int32_t encode(uint32_t protocol, const char* call, const char* locator) {
    std::array<uint8_t, 321> chips;
    return ovl_encode(protocol, call, locator, chips.data(), 321);
}

class Locale : public testing::TestWithParam<const char*> {
  protected:
    void SetUp() override {
        const std::string name = GetParam();
        const std::string charset = name.substr(name.find('.') + 1);
        const std::string folder = directory_.path();
        std::ofstream(folder + "/letters") << "LC_CTYPE\ncopy \"tr_TR\"\nEND LC_CTYPE\n";  // the rest takes seconds
        run_process({"/usr/bin/localedef", "-c", "-i", folder + "/letters", "-f", charset, folder + "/" + name});
        ASSERT_EQ(setenv("LOCPATH", folder.c_str(), 1), 0);
        reference_ = all_answers();
        ASSERT_NE(std::setlocale(LC_CTYPE, name.c_str()), nullptr);
        ASSERT_NE(std::toupper('i'), 'I') << "the locale is not in force";
    }
    void TearDown() override {
        std::setlocale(LC_CTYPE, "C");
        unsetenv("LOCPATH");
    }

    TemporaryDirectory directory_;
    std::vector<std::string> reference_;  // in the locale "C"
};

TEST_P(Locale, LowerCaseIIsI) {
    EXPECT_EQ(encode(OVL_OPERA, "qi0iii", nullptr), 239);
    EXPECT_EQ(encode(OVL_ORVEL_L, "qi0iii", "ii11ii"), 321);
    std::array<char, 7> normalised;
    ASSERT_EQ(ov_normalize_call("qi0iii", normalised.data()), 0);
    EXPECT_STREQ(normalised.data(), "QI0III");
}

TEST_P(Locale, NoByteBeyondAsciiIsALetter) {
    EXPECT_EQ(encode(OVL_OPERA,
                     "q\xfd"
                     "0xyz",
                     nullptr),
              -1);
    EXPECT_EQ(encode(OVL_ORVEL_L, "QQ0XYZ",
                     "\xfd\xfd"
                     "11"),
              -1);
}

TEST_P(Locale, ChangesNoAnswer) {
    EXPECT_EQ(all_answers(), reference_);
}

INSTANTIATE_TEST_SUITE_P(Turkish, Locale, testing::Values("tr_TR.UTF-8", "tr_TR.ISO-8859-9"),
                         [](const auto& param) { return std::string(param.index == 0 ? "Utf8" : "Iso8859"); });

}  // namespace

// Numbers and names as texts.
#pragma once

#include <string>
#include <string_view>

#include "platform.h"

// printf into a string. Numbers have a decimal point in every locale, as our programs never leave the "C" locale.
[[gnu::format(PLATFORM_PRINTF, 1, 2)]] std::string format(const char* pattern, ...);

// A number for a table; "-" when it is NaN. A value that rounds to zero has no sign.
std::string cell(double value, int decimals, bool show_sign = false);

// Only ASCII letters change, in every locale.
std::string lower_case(std::string_view text);
std::string upper_case(std::string_view text);

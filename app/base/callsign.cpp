#include "base/callsign.h"

#include <algorithm>
#include <array>

#include "base/console.h"
#include "ovcdec.h"
#include "ovcenc.h"

namespace {

constexpr std::size_t MOST = 6;
constexpr std::size_t MOST_BEHIND_DIGIT = 3;

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

bool is_letter(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

std::string_view without_outer_blanks(std::string_view text) {
    const std::size_t first = text.find_first_not_of(' ');
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(' ') + 1 - first);
}

}  // namespace

std::string callsign_problem(std::string_view typed) {
    const std::string_view call = without_outer_blanks(typed);
    if (call.empty()) return "a callsign is missing";
    if (call.find(' ') != std::string_view::npos) return "a callsign holds no blank";
    const auto wrong = std::ranges::find_if_not(call, [](char c) { return is_digit(c) || is_letter(c); });
    if (wrong != call.end()) return "a callsign holds letters and digits only";
    if (call.size() > MOST) return "a frame holds at most 6 characters";
    // One or two characters, a digit, up to three letters.
    const std::size_t digit = call.size() > 2 && is_digit(call[2]) ? 2 : 1;
    if (call.size() <= digit || !is_digit(call[digit])) {
        return "a prefix of that form does not fit: the second or third character must be a digit";
    }
    const std::string_view suffix = call.substr(digit + 1);
    if (!std::ranges::all_of(suffix, is_letter)) return "only letters may follow the digit";
    if (suffix.size() > MOST_BEHIND_DIGIT) return "at most three letters may follow the digit";
    return "";
}

void warn_of_doubtful(std::string_view typed) {
    std::array<char, MOST + 1> normalised;
    if (ov_normalize_call(std::string(typed).c_str(), normalised.data()) != 0) return;
    if (ov_call_plausible(normalised.data()) != 0) return;
    print_error("'" + std::string(without_outer_blanks(typed)) +
                "' is not of a form that administrations issue; decoders take it for an error and do not report it");
}

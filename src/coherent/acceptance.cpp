#include "coherent/acceptance.h"

#include <cmath>

namespace coherent {
namespace {

// Starts, frequencies, drifts and walks that could have given as good a word in a block of noise: 10^7.
constexpr double LOG_PLACES = 16.12;
constexpr double LEAST_ODDS = 9.21;  // against noise: 10^4 blocks

constexpr double LEAST_DOUBT = -5.29;  // all other words at this start together: 1 in 200
constexpr double RIVAL_MARGIN = 8;     // over the best word at another start
constexpr double PATTERN_MARGIN = 7;   // over any pattern: other protocols and other keying
constexpr double OFF_SHARE = 0.12;     // of the energy of ON chips that OFF chips may have, as keying leaks
constexpr double OFF_SIGMAS = 3.5;

bool off_chips_empty(const Frame& frame) {
    const double margin = OFF_SIGMAS * frame.off_sigma;
    return frame.off < OFF_SHARE * frame.on + margin && frame.off_segments < OFF_SHARE * frame.on_segments + margin;
}

// For known frames.
constexpr double KNOWN_LEAST_FIT = 30;  // log likelihood ratio beyond the logarithm of the number of them
constexpr double KNOWN_PATTERN_MARGIN = 5;
constexpr double KNOWN_RIVAL_MARGIN = 12;  // by which another word would have to fit better

}  // namespace

std::optional<double> accepted_odds(const Frame& frame) {
    const double fit = frame.likelihood - frame.code->log_words;
    const double against_noise = fit - LOG_PLACES;
    const double against_rival = frame.likelihood - frame.rival;
    const double against_pattern = fit - frame.evidence;
    if (!(against_noise > LEAST_ODDS && frame.doubt < LEAST_DOUBT && against_rival > RIVAL_MARGIN &&
          against_pattern > PATTERN_MARGIN && off_chips_empty(frame))) {
        return std::nullopt;
    }
    return -std::log(std::exp(-against_noise) + std::exp(frame.doubt) + std::exp(-against_rival) +
                     std::exp(-against_pattern));
}

std::optional<double> accepted_known_odds(const Frame& frame, std::size_t known) {
    const double fit = frame.likelihood - std::log(static_cast<double>(known));
    const double against_pattern = fit - frame.evidence;
    if (!(fit > KNOWN_LEAST_FIT && against_pattern > KNOWN_PATTERN_MARGIN &&
          frame.rival < frame.likelihood + KNOWN_RIVAL_MARGIN && off_chips_empty(frame))) {
        return std::nullopt;
    }
    return -std::log(std::exp(LOG_PLACES - fit) + std::exp(-against_pattern));
}

}  // namespace coherent

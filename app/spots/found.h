// What a decode found, before it is a Spot.
#pragma once

#include <limits>

#include "liborvel.h"
#include "ovpipe.h"

// What is thought of a frame while more may be heard of it.
enum class Standing { PROVISIONAL, CONFIRMED, WITHDRAWN };

// A decoded frame; its `deep` is an OVL_ method.
struct Found : ov_spot {
    double odds = std::numeric_limits<double>::quiet_NaN();  // as in ovl_finding
};

inline ovl_finding finding_of(const Found& found) {
    return {.method = found.deep, .odds = found.odds};
}

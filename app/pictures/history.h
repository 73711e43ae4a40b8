// One beacon over hours, days or years.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "pictures/axis.h"
#include "pictures/drawing.h"

struct HistoryPoint {
    double utc;
    std::optional<double> snr_db;
    double hz;
    bool deep;  // only a search for known callsigns found it
};

// Ticks of days, as dates; of hours where there are less than two days.
std::vector<Tick> date_ticks(double from_utc, double to_utc, int32_t most);

// SNR above, frequency below, each point a mark; frequencies count from a whole one that the axis names. Nothing where
// there is no point. Returns the bytes of the file; throws as Canvas does.
std::string draw_history(const PictureLayout& layout, const std::vector<HistoryPoint>& points);

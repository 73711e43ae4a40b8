// The pictures of orvel plot, drawn from what was measured.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/tuning.h"
#include "ovpipe.h"
#include "pictures/canvas.h"
#include "pictures/chip_view.h"
#include "pictures/waterfall.h"

// What both pictures are made like.
struct PictureLayout {
    PictureFormat format = PictureFormat::PNG;
    int32_t width = 1200, height = 700;  // pixels
    double text_size = 13;               // pixels
    std::string title;
};

// Where a waterfall lies in its picture; whole pixels, none when the texts leave too little room.
std::optional<Box> waterfall_area(const PictureLayout& layout, bool with_radio_axis = false);

// A frame that reaches into a view, as the corners of its outline in the picture: start low, start high, end high, end
// low.
std::vector<Point> frame_outline(const ov_spot& spot, const View& view, const Box& area);

// A waterfall with axes, colour bar, and framed and labelled spots; the grid has a value for each pixel of the area.
// Returns the bytes of the file; throws as Canvas does.
struct WaterfallPicture {
    View view;
    const PowerGrid& grid;
    LevelRange levels;
    std::vector<ov_spot> spots;
    std::optional<double> start_utc;  // of the recording, s since 1970-01-01
    std::optional<Tuning> tuning;     // of the receiver: a second axis has the frequencies on the air
    std::string note;                 // on the right above the waterfall
};
std::string draw_waterfall(const PictureLayout& layout, const WaterfallPicture& picture);

// The energies of a frame's chips as bars, in as many rows as it takes to keep them apart, above the decided chips;
// wrong ones are crossed. Returns the bytes of the file; throws as Canvas does.
std::string draw_chips(const PictureLayout& layout, const ChipView& view,
                       const std::optional<Tuning>& tuning = std::nullopt);

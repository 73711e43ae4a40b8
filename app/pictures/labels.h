// Places for the labels of frames in a picture.
#pragma once

#include <vector>

#include "pictures/canvas.h"

struct LabelWish {
    Box frame;             // what is to be labelled
    double width, height;  // of the label
    double short_width;    // of a shorter one, where there is little room
};

struct LabelPlace {
    bool placed = false;
    bool shortened = false;
    bool away = false;  // not next to its frame: a line should lead there
    Box box;
};

// Places each label near its frame, within the area, on no other label and on no frame. Wishes come in order of
// importance: the last ones are shortened or left out where nothing is free.
std::vector<LabelPlace> place_labels(const Box& area, const std::vector<LabelWish>& wishes);

// Places for the labels of frames in a picture.
#pragma once

#include <vector>

#include "canvas.h"

struct LabelWish {
    Box frame;             // what is to be labelled
    double width, height;  // of the label
};

struct LabelPlace {
    bool placed = false;
    bool away = false;  // not beside its frame: a line should lead there
    Box box;
};

// Places each label near its frame, within the area and on no other label; on no frame either as long as there is room.
// Wishes come in order of importance: the last ones are left out where nothing is free.
std::vector<LabelPlace> place_labels(const Box& area, const std::vector<LabelWish>& wishes);

// Spots as ADIF, which logbooks read.
#pragma once

#include <string>

#include "store/store.h"

// "2190m"; "" outside of all bands.
std::string amateur_band(double hz);

std::string adif_header();
std::string adif_record(const StoredSpot& stored);

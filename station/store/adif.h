// Spots as ADIF, which logbooks read.
#pragma once

#include <string>

#include "store/store.h"

std::string adif_header();
std::string adif_record(const StoredSpot& stored);

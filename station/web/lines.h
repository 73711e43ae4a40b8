// What viewers are told, as JSON.
#pragma once

#include "base/json.h"
#include "store/store.h"
#include "web/hub.h"

// "number", "id", "transmission", and the fields of spot_line().
nlohmann::ordered_json spot_json(const StoredSpot& stored);

// Receivers, outputs and the store. `last_number` is that of the latest spot.
nlohmann::ordered_json receivers_json(const StationState& state);
nlohmann::ordered_json outputs_json(const StationState& state, int64_t last_number);

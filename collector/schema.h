// The tables, functions and views of a network's spots.
#pragma once

#include "postgres.h"

// Brings the schema "orvel" to the version of this program. Throws IoError, also where a later program was.
void bring_up_to_date(Postgres& database);

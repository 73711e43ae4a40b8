// Callsigns as a user types them, before the coder sees them: it ignores what follows a blank, and says only that it
// refuses a callsign.
#pragma once

#include <string>
#include <string_view>

// Why no frame carries a callsign, as a clause for an error; "" when one does.
std::string callsign_problem(std::string_view call);

// Warns on standard error when a decoder at its defaults would take a callsign that a frame can carry for a chance
// decode, and not report it.
void warn_of_doubtful(std::string_view call);

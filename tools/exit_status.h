// How our programs end.
#pragma once

enum ExitStatus : int {
    EXIT_DONE = 0,    // all went well
    EXIT_FAILED = 1,  // some input could not be used, or the output could not be written
    EXIT_USAGE = 2    // a wrong option, value or combination
};

// What our programs throw; what() is a sentence for the user.
#pragma once

#include <stdexcept>

#include "system/io_error.h"

// A request that makes no sense: a malformed value, an impossible combination.
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

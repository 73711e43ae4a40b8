// What our programs throw; what() is a sentence for the user.
#pragma once

#include <stdexcept>

// A request that makes no sense: a malformed value, an impossible combination.
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Some input or output cannot be used: a file, a device, a decode of it.
class IoError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// What our programs throw when the world outside refuses something; what() is a sentence for the user.
#pragma once

#include <stdexcept>

// Some input or output cannot be used: a file, a device, a decode of it.
class IoError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// What ends a program from outside.
#pragma once

#include <memory>

// Makes Ctrl-C (and termination, and the end of the terminal) raise a flag instead of ending the process; a second one
// ends it.
void watch_interrupts();
bool interrupted();

// Makes writing into a pipe that nobody reads, or beyond the limit of a file's size, an error like any other.
void ignore_broken_outputs();

// While it exists, threads are started that signals do not come to: they then end a write of this one, to an output
// that nobody reads.
class SignalsElsewhere {
  public:
    SignalsElsewhere();
    ~SignalsElsewhere();
    SignalsElsewhere(const SignalsElsewhere&) = delete;
    SignalsElsewhere& operator=(const SignalsElsewhere&) = delete;

  private:
    struct Before;
    std::unique_ptr<Before> before_;
};

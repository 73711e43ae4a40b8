// How far a long job has come, on standard error when that is a terminal.
#pragma once

#include <string>

#include "base/console.h"

class Progress {
  public:
    // Of a job of this many seconds of recording; short ones are not worth a bar.
    Progress(std::string name, double seconds);

    void show(double done_s, std::size_t spots);

    // Before other output.
    void clear() { line_.clear(); }

  private:
    std::string name_;
    double seconds_;
    double begin_;
    StatusLine line_;
};

// "##########..........   50 %   38.5 x real time  0:12 left  17 spots"; `elapsed_s` is what done_s took.
std::string progress_text(double done_s, double seconds, double elapsed_s, std::size_t spots);

// How far a long job has come, on standard error when that is a terminal.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "base/console.h"

class Progress {
  public:
    // Of a job of this many seconds of recording; short ones are not worth a bar. `spots` is nothing, here and below,
    // where the job looks for none.
    Progress(std::string name, double seconds, std::optional<std::size_t> spots = 0);

    // Seldom writes anything when called often.
    void show(double done_s, std::optional<std::size_t> spots);

    // Before other output.
    void clear() { line_.clear(); }

  private:
    std::string name_;
    double seconds_;
    double begin_;
    double shown_utc_, shown_s_;
    StatusLine line_;
};

// "##########..........   50 %   38.5 x real time  0:12 left  17 spots"; `elapsed_s` is what done_s took.
std::string progress_text(double done_s, double seconds, double elapsed_s, std::optional<std::size_t> spots);

// The same behind a name; where that takes more columns, what matters first: " 50 %  0:12 left  ##########..........",
// with a shorter bar if need be or none, and the name behind it as far as there is room for it.
std::string progress_line(const std::string& name, double done_s, double seconds, double elapsed_s,
                          std::optional<std::size_t> spots, std::size_t columns);

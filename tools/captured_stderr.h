// What foreign code prints to standard error, kept back.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

// Standard error of the process, kept in a file for the life of the object. Serves around
// code that prints messages itself; not for several threads.
class CapturedStderr {
  public:
    CapturedStderr() : file_(std::tmpfile()) {
        std::fflush(stderr);
        saved_ = dup(STDERR_FILENO);
        if (file_ && saved_ >= 0) dup2(fileno(file_), STDERR_FILENO);
    }
    CapturedStderr(const CapturedStderr&) = delete;
    CapturedStderr& operator=(const CapturedStderr&) = delete;
    ~CapturedStderr() {
        restore();
        if (file_) std::fclose(file_);
    }

    // Gives standard error back and returns the lines that went into the file.
    std::vector<std::string> lines() {
        restore();
        std::vector<std::string> lines;
        if (!file_) return lines;
        std::rewind(file_);
        std::string line;
        for (int c = std::fgetc(file_); c != EOF; c = std::fgetc(file_)) {
            if (c != '\n') {
                line += static_cast<char>(c);
                continue;
            }
            lines.push_back(line);
            line.clear();
        }
        if (!line.empty()) lines.push_back(line);
        return lines;
    }

  private:
    void restore() {
        if (saved_ < 0) return;
        std::fflush(stderr);
        dup2(saved_, STDERR_FILENO);
        close(saved_);
        saved_ = -1;
    }

    std::FILE* file_;
    int saved_ = -1;
};

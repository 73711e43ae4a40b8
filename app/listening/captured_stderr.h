// What foreign code prints to standard error, intercepted.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

// Standard error of the process, kept in memory for the life of the object: there may be no room on any disk. For use
// around code that prints messages itself; not for several threads.
class CapturedStderr {
  public:
    CapturedStderr() : file_(fdopen(memfd_create("messages", MFD_CLOEXEC), "w+")) {
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

    // Restores standard error and returns the lines that went into the file, with `name`, which may hold line feeds, as
    // `shown`, which does not.
    std::vector<std::string> lines(std::string_view name, std::string_view shown) {
        restore();
        std::string text = content();
        for (std::size_t at = text.find(name); !name.empty() && at != std::string::npos;
             at = text.find(name, at + shown.size())) {
            text.replace(at, name.size(), shown);
        }
        std::vector<std::string> lines;
        for (std::size_t begin = 0; begin < text.size();) {
            const std::size_t end = std::min(text.find('\n', begin), text.size());
            lines.push_back(text.substr(begin, end - begin));
            begin = end + 1;
        }
        return lines;
    }

  private:
    std::string content() {
        std::string text;
        if (!file_) return text;
        std::rewind(file_);
        for (int c = std::fgetc(file_); c != EOF; c = std::fgetc(file_)) text += static_cast<char>(c);
        return text;
    }

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

// A file behind http:// or https://, of which only what is read is fetched.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "base/error.h"

bool is_url(const std::string& path);

// What may be another time, and was not in all attempts: no network, a server that is busy.
class Unreachable : public IoError {
  public:
    using IoError::IoError;
};

struct UrlPatience {
    int32_t attempts = 6;     // of which the first five are followed by a wait,
    double first_wait_s = 1;  // each twice as long as the one before
    int32_t stall_s = 30;     // without a byte: the connection is given up
    int32_t most_s = 600;     // that an attempt takes
};

// Its server must serve parts of files (ranges). Any thread. libcurl is loaded when the first is opened.
class UrlFile {
  public:
    // Fetches the first bytes. Throws Unreachable or IoError, here and below, whose texts name the URL and the reason.
    explicit UrlFile(const std::string& url, const UrlPatience& patience = {});
    UrlFile(const UrlFile&) = delete;
    UrlFile& operator=(const UrlFile&) = delete;
    ~UrlFile();

    uint64_t size() const { return size_; }

    // Fills `out` from a place on. Returns how many bytes there were: fewer only at the end. Also throws IoError when
    // the file is no longer the one that was opened.
    std::size_t read_at(uint64_t offset, std::span<uint8_t> out);

  private:
    class Curl;
    struct Answer;
    struct Part {
        uint64_t begin;
        std::vector<uint8_t> bytes;
    };
    const Part& part_at(uint64_t offset);
    Part fetch(uint64_t begin, uint64_t count);
    bool fetch_rest(Part& part, uint64_t count, std::string& problem);
    void check(const Answer& answer, uint64_t asked, bool first);
    [[noreturn]] void refuse(const std::string& reason) const;

    std::string url_;
    UrlPatience patience_;
    std::unique_ptr<Curl> curl_;
    std::mutex lock_;
    std::string version_;  // ETag or date, "" when the server gives none
    uint64_t size_ = 0;
    std::list<Part> parts_;  // the latest first
};

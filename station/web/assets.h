// The files of the page, which are part of the program.
#pragma once

#include <span>
#include <string_view>

struct Asset {
    std::string_view path;  // "/index.html"
    std::string_view type;
    std::string_view etag;  // with its quotes
    std::string_view body;
    std::string_view gzipped;  // "" where the build had no gzip
};

std::span<const Asset> assets();

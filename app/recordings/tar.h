// Archives of the tar format.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "recordings/input_file.h"

// A file in an archive.
struct TarMember {
    std::string name;  // with its folders
    uint64_t offset;   // of its first byte in the archive
    uint64_t size;     // as its header says; the archive may end before
};

// The files of an archive in their order, up to the first that makes no sense; none when it is not an archive.
std::vector<TarMember> tar_members(const InputFile& archive);

inline constexpr std::size_t TAR_BLOCK = 512;  // bytes: what comes before a file, and what each is filled up to

// What comes before a file in an archive. The name takes 100 bytes at most, the size 2^63.
std::string tar_header(const std::string& name, uint64_t size);

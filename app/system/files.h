// Files and their names, which are UTF-8 on Windows and any bytes elsewhere, and may be of any length.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <span>
#include <string>

// A name for what the standard library does with files, and one that it gives back.
std::filesystem::path native_path(const std::string& name);
std::string text_of(const std::filesystem::path& path);

// A name, or a path, from a directory on; and whether a text is a name alone. native_path() of part of a path may be
// another file's: a long one becomes absolute.
std::string path_in(const std::string& directory, const std::string& name);
bool is_file_name(const std::string& text);

// As fopen().
std::FILE* open_file(const std::string& path, const char* mode);

// Whether what was written to a file is on its disk.
bool sync_file(std::FILE* file);

// As rename() and remove() of POSIX: what has the new name is replaced at once.
bool move_file(const std::string& from, const std::string& to);
bool remove_file(const std::string& path);

// Why the last of them, or the call of the C library before, failed.
std::string last_reason();

// A file that is read at any place, by several threads at once.
class DiskFile {
  public:
    // Opens a file. Throws IoError, here and below, whose text is the reason.
    explicit DiskFile(const std::string& path);

    // A new one in the directory for temporary files. It is gone with the process, however that ends.
    static DiskFile temporary();

    DiskFile(DiskFile&& other) noexcept;
    DiskFile& operator=(DiskFile&&) = delete;
    ~DiskFile();

    uint64_t size() const;

    // Fills `out` from a place on. Returns how many bytes there were: fewer only at the end, or where the file can be
    // read no further.
    std::size_t read_at(uint64_t offset, std::span<uint8_t> out) const;

    // Writes at the end, all or nothing more.
    void append(std::span<const uint8_t> bytes);

  private:
    struct Temporary {};
    explicit DiskFile(Temporary);

    intptr_t handle_;
};

// Where temporary files are.
std::string temporary_directory();

// Where operating systems differ: names of files, places in them, and the clock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

// Whose printf [[gnu::format()]] means.
#ifdef __MINGW32__
#define PLATFORM_PRINTF gnu_printf
#else
#define PLATFORM_PRINTF printf
#endif

// As fopen(), of a path in UTF-8, which may be of any length.
std::FILE* platform_open(const char* path, const char* mode);

// As fseek() and ftell(), in files of any length: false, and -1, when that fails.
bool platform_seek(std::FILE* file, int64_t offset, int whence);
int64_t platform_tell(std::FILE* file);

// As atexit(), where a library may still call another when the process ends.
void platform_at_exit(void (*function)());

// Asks for large pages behind a large buffer, before it is first touched. A hint: it may change nothing.
void platform_prefer_big_pages(void* buffer, std::size_t bytes) noexcept;

// Seconds since 1970-01-01 UTC, as exactly as the system tells them.
double platform_now();

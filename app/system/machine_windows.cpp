#include <windows.h>

#include "system/machine.h"

double memory_bytes() {
    MEMORYSTATUSEX memory{};
    memory.dwLength = sizeof memory;
    return GlobalMemoryStatusEx(&memory) != 0 ? static_cast<double>(memory.ullTotalPhys) : 0;
}

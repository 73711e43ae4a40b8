#include <unistd.h>

#include "system/machine.h"

double memory_bytes() {
    return static_cast<double>(sysconf(_SC_PHYS_PAGES)) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

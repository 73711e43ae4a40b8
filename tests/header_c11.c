/* The public header by itself, as C11. Compiled with every warning an error. */
#include <liborvel.h>

int32_t header_as_c11(void);
int32_t header_as_c11(void) {
    return OVL_OPERA | OVL_ORVEL_S | OVL_ORVEL_L;
}

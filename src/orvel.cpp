#include "orvel.h"

#include "liborvel.h"
#include "ovcenc.h"

int32_t ov_kbits(int32_t mode) {
    return mode != 0 ? 69 : 44;
}

int32_t ov_ncoded(int32_t mode) {
    return mode != 0 ? 160 : 119;
}

int32_t frame_chips(uint32_t proto) {
    switch (proto) {
        case OVL_OPERA:
            return OVC_CHIPS;
        case OVL_ORVEL_S:
            return 2 * ov_ncoded(0) + 1;
        case OVL_ORVEL_L:
            return 2 * ov_ncoded(1) + 1;
        default:
            return 0;
    }
}

#include "callback_loop.h"

ZYN_RETCODE put_bytes(const uint8_t* bytes, const uint8_t* lengths, size_t values,
                      ZYN_OUTPUT_FCN fcn, ZYN_OUTPUT_CTX ctx)
{
    for (size_t value = 0; value < values; value++) {
        for (uint8_t left = lengths[value]; left > 0; left--) {
            const ZYN_RETCODE rc = fcn(ctx, *bytes++);
            if (rc != sOKAY)
                return rc;
        }
    }
    return sOKAY;
}

ZYN_RETCODE get_bytes(const uint8_t* lengths, size_t values, ZYN_INPUT_FCN fcn, ZYN_INPUT_CTX ctx,
                      uint32_t* last)
{
    for (size_t value = 0; value < values; value++) {
        for (uint8_t left = lengths[value]; left > 0; left--) {
            const ZYN_RETCODE rc = fcn(ctx, last);
            if (rc != sOKAY)
                return rc;
        }
    }
    return sOKAY;
}

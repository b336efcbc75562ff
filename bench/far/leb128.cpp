#include "leb128.h"

namespace far {

ZYN_RETCODE leb128_encode(uint64_t value, ZYN_OUTPUT_FCN fcn, ZYN_OUTPUT_CTX ctx)
{
    for (; value > 0x7F; value >>= 7) {
        const ZYN_RETCODE rc = fcn(ctx, static_cast<uint32_t>(value & 0x7F) | 0x80);
        if (rc != sOKAY)
            return rc;
    }
    return fcn(ctx, static_cast<uint32_t>(value));
}

ZYN_RETCODE leb128_decode(ZYN_INPUT_FCN fcn, ZYN_INPUT_CTX ctx, uint64_t* value)
{
    uint64_t bits = 0;
    uint32_t byte = 0x80;
    for (unsigned shift = 0; (byte & 0x80) != 0; shift += 7) {
        if (shift > 63)
            return eINVVARINT;
        const ZYN_RETCODE rc = fcn(ctx, &byte);
        if (rc != sOKAY)
            return rc;
        bits |= static_cast<uint64_t>(byte & 0x7F) << shift;
    }
    *value = bits;
    return sOKAY;
}

} // namespace far

// LEB128, the usual encoding of integers in a variable number of bytes, over byte callbacks: seven
// bits a byte, the lowest first, the top bit set in all but the last.
#pragma once

#include <cstdint>

#include "psptypes.h"

namespace far {

ZYN_RETCODE leb128_encode(uint64_t value, ZYN_OUTPUT_FCN fcn, ZYN_OUTPUT_CTX ctx);
ZYN_RETCODE leb128_decode(ZYN_INPUT_FCN fcn, ZYN_INPUT_CTX ctx, uint64_t* value);

} // namespace far

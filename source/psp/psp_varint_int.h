// The tables of the codec of variable-length integers: one row a length, one byte a first byte.
#pragma once

#include "psp/varint.h"

#include <array>

// How one length is written and read.
struct PSP_ENCODE_INFO {
    size_t size; // of the encoding, 1 to 9 bytes

    // Puts out `val`, which lies in the range of this length.
    ZYN_RETCODE (*encode_fcn)(ZYN_OUTPUT_FCN fcn, ZYN_OUTPUT_CTX ctx, uintmax_t val);

    // Takes what follows the first byte; leaves `val` alone when a byte is missing.
    ZYN_RETCODE (*decode_fcn)(ZYN_INPUT_FCN fcn, ZYN_INPUT_CTX ctx, uint8_t first, uintmax_t* val);
};

// In order of length.
extern const std::array<PSP_ENCODE_INFO, 9> psp_encoder_fcns;

// The row of psp_encoder_fcns for each first byte; 9 and more for those that begin no encoding.
extern const std::array<uint8_t, 256> reverse_lookup;

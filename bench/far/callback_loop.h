// The least that a codec over byte callbacks can do: call back once a byte.
//
// The loops live in a shared library of their own, as the codec does: a call from one loaded image
// into another costs more than a call within one, and both sides of the comparison have to pay it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "psptypes.h"

// Hands `bytes` to the callback: value after value, each as many bytes as its length says.
ZYN_RETCODE put_bytes(const uint8_t* bytes, const uint8_t* lengths, size_t values,
                      ZYN_OUTPUT_FCN fcn, ZYN_OUTPUT_CTX ctx);

// Takes as many bytes from the callback; gives the last one.
ZYN_RETCODE get_bytes(const uint8_t* lengths, size_t values, ZYN_INPUT_FCN fcn, ZYN_INPUT_CTX ctx,
                      uint32_t* last);

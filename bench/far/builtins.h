// What the compiler offers for bits and bytes, beyond a library's boundary.
#pragma once

#include <cstdint>

#include "psp/bits.h"

namespace far {

uint32_t highest_bit(uint32_t value);
uint32_t highest_bit64(uint64_t value);
uint64_t reverse_bits(uint64_t value);
uint32_t align_up(uint32_t offset, ALIGN_TYPE type);
uint64_t align_up8(uint64_t size);
void swap16(uint16_t* value);
void swap32(uint32_t* value);
void swap64(uint64_t* value);

} // namespace far

// Alignment of data types in stored records, and of buffer sizes.
#include "psp/bits.h"

#include <array>

namespace {

// Alignments are powers of two: as masks, the bits of an offset that have to be 0.
constexpr std::array<uint32_t, 7> alignMasks = {
    0, // ALN_CHAR
    1, // ALN_INT16
    3, // ALN_WCHAR
    3, // ALN_INT32
    3, // ALN_FLOAT
    7, // ALN_INT64
    7, // ALN_DOUBLE
};

} // namespace

uint32_t psp_align(uint32_t offset, ALIGN_TYPE type)
{
    const auto index = static_cast<size_t>(type);
    if (index >= alignMasks.size())
        return offset; // no type: such an offset stays as it is
    const uint32_t mask = alignMasks[index];
    return (offset + mask) & ~mask;
}

size_t psp_alignBufferSize(size_t initialSize)
{
    return (initialSize + 7) & ~size_t{7};
}

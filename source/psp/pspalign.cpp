// Alignment of data types in stored records, and of buffer sizes.
#include "psp/bits.h"

#include <array>

namespace {

constexpr std::array<uint16_t, 7> alignData = {
    1, // ALN_CHAR
    2, // ALN_INT16
    4, // ALN_WCHAR
    4, // ALN_INT32
    4, // ALN_FLOAT
    8, // ALN_INT64
    8, // ALN_DOUBLE
};

// 0 for a value that is no type: such an offset stays as it is.
uint32_t alignmentOf(ALIGN_TYPE type)
{
    const auto index = static_cast<size_t>(type);
    return index < alignData.size() ? alignData[index] : 0;
}

} // namespace

uint32_t psp_align(uint32_t offset, ALIGN_TYPE type)
{
    const uint32_t alignment = alignmentOf(type);
    if (alignment == 0)
        return offset;
    return offset + (alignment - offset % alignment) % alignment;
}

size_t psp_alignBufferSize(size_t initialSize)
{
    return initialSize + (-initialSize & 7);
}

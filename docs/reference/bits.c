/* Where the columns of a stored row lie, and the row's key in an order that sorts. */
#include <stdio.h>
#include <string.h>

#include "psp.h"

typedef struct column {
    const char* name;
    ALIGN_TYPE type;
    uint32_t size;
} column;

/* Each column starts at the next offset that suits its type. The row's size, padding included. */
static size_t lay_out(void)
{
    static const column row[] = {{"flag", ALN_CHAR, 1},
                                 {"id", ALN_INT64, 8},
                                 {"count", ALN_INT16, 2},
                                 {"price", ALN_DOUBLE, 8}};
    uint32_t offset = 0;
    for (size_t i = 0; i < sizeof row / sizeof *row; i++) {
        offset = psp_align(offset, row[i].type);
        printf("%-5s at %2u\n", row[i].name, offset);
        offset += row[i].size;
    }
    return psp_alignBufferSize(offset);
}

/* The most significant byte first, the other way round than this processor has it: such keys
   compare with memcmp(). */
static void make_key(uint32_t id, unsigned char key[4])
{
    psp_swaporderUInt32(&id);
    memcpy(key, &id, 4);
}

/* Rows are kept in pages of a power of two: the least one that holds `size` bytes. */
static uint32_t page_for(uint32_t size)
{
    return UINT32_C(1) << psp_bitFirstSet(size - 1);
}

int main(void)
{
    const size_t size = lay_out();
    printf("a row takes %zu bytes, 40 rows a page of %u\n", size, page_for(40 * (uint32_t)size));

    unsigned char low[4], high[4];
    make_key(255, low);
    make_key(256, high);
    printf("255 sorts %s 256\n", memcmp(low, high, 4) < 0 ? "before" : "after");

    /* The places of a table of 8, visited in the order of their reversed bits. */
    for (uint64_t i = 0; i < 8; i++)
        printf("%d%s", (int)(psp_bitReverse64(i) >> 61), i == 7 ? "\n" : " ");
    return size == 32 && memcmp(low, high, 4) < 0 ? 0 : 1;
}

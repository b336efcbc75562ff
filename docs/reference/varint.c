/* A list of ascending numbers, as an index keeps for each word: the distances are small, and small
   numbers take a byte or two. */
#include <inttypes.h>
#include <stdio.h>

#include "psp.h"

typedef struct buffer {
    unsigned char bytes[64];
    size_t used;
    size_t taken;
} buffer;

/* The byte sink of the encoder. */
static ZYN_RETCODE put(ZYN_OUTPUT_CTX ctx, uint32_t byte)
{
    buffer* to = ctx;
    if (to->used == sizeof to->bytes)
        return eBADWRITE;
    to->bytes[to->used++] = (unsigned char)byte;
    return sOKAY;
}

/* The byte source of the decoder. */
static ZYN_RETCODE take(ZYN_INPUT_CTX ctx, uint32_t* byte)
{
    buffer* from = ctx;
    if (from->taken == from->used)
        return eEOD;
    *byte = from->bytes[from->taken++];
    return sOKAY;
}

int main(void)
{
    static const uint64_t pages[] = {3, 4, 130, 131, 20000, 5000000000};
    buffer list = {{0}, 0, 0};
    uint64_t last = 0;
    for (size_t i = 0; i < sizeof pages / sizeof *pages; i++) {
        if (psp_vintEncodeUIntmax(pages[i] - last, put, &list) != sOKAY)
            return 1;
        last = pages[i];
    }
    /* A number that may be negative is mapped to one that is not. */
    if (psp_vintEncodeUIntmax(psp_vintConvertToUnsigned(-40), put, &list) != sOKAY)
        return 1;
    printf("%zu bytes:", list.used);
    for (size_t i = 0; i < list.used; i++)
        printf(" %02X", list.bytes[i]);

    uintmax_t value;
    printf("\npages:");
    last = 0;
    for (size_t i = 0; i < sizeof pages / sizeof *pages; i++) {
        if (psp_vintDecodeUIntmax(take, &list, &value) != sOKAY)
            return 1;
        last += value;
        printf(" %" PRIu64, last);
    }
    if (psp_vintDecodeUIntmax(take, &list, &value) != sOKAY)
        return 1;
    printf("\nthen: %" PRIdMAX "\n", psp_vintConvertToSigned(value));
    return psp_vintDecodeUIntmax(take, &list, &value) == eEOD ? 0 : 1;
}

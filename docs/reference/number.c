/* Reads the settings of a server and says what is wrong with each that cannot be used. */
#include "psp.h"

#include <stdio.h>
#include <string.h>

static const char* reason(ZYN_RETCODE rc)
{
    return rc == eRANGE ? "is out of range" : "is no number";
}

/* A count: digits and nothing else, which psp_atoui32() alone would not insist on. */
static ZYN_RETCODE readCount(const char* text, uint32_t* count)
{
    return text[strspn(text, "0123456789")] == '\0' ? psp_atoui32(text, count) : eINVSTRING;
}

/* A ratio has to be finite: "inf" and "nan" are numbers to the reader. */
static ZYN_RETCODE readRatio(const char* text, double* ratio)
{
    const ZYN_RETCODE rc = psp_strtod(text, ratio);
    return rc == sOKAY && !psp_validateDouble(*ratio, NULL) ? eRANGE : rc;
}

int main(void)
{
    static const char* const counts[] = {"8080", "0", "4294967296", "00", "12abc"};
    static const char* const ratios[] = {"0.625", "1e999", "inf"};
    int refused = 0;

    for (size_t i = 0; i < sizeof counts / sizeof *counts; i++) {
        uint32_t count;
        const ZYN_RETCODE rc = readCount(counts[i], &count);
        if (rc == sOKAY)
            printf("count %s: %u\n", counts[i], (unsigned)count);
        else
            printf("count %s %s\n", counts[i], reason(rc));
        refused += rc != sOKAY;
    }
    for (size_t i = 0; i < sizeof ratios / sizeof *ratios; i++) {
        double ratio;
        const ZYN_RETCODE rc = readRatio(ratios[i], &ratio);
        if (rc == sOKAY)
            printf("ratio %s: %.0f percent\n", ratios[i], psp_round(ratio * 100));
        else
            printf("ratio %s %s\n", ratios[i], reason(rc));
        refused += rc != sOKAY;
    }
    return refused == 5 ? 0 : 1;
}

/* Test data that looks arbitrary and is the same in every run: whoever knows the seed can make a
   failing case again. */
#include <stdio.h>

#include "psp.h"

#define CARDS 8

/* A number below `limit`, each as likely as any other: draws beyond the last whole multiple of it
   are thrown away. */
static uint32_t below(PSP_RAND rand, uint32_t limit)
{
    const uint32_t excess = (UINT32_MAX % limit + 1) % limit;
    uint32_t draw;
    do {
        draw = psp_randGetUInt32(rand);
    } while (draw > UINT32_MAX - excess);
    return draw % limit;
}

static void shuffle(PSP_RAND rand, char* cards)
{
    for (uint32_t left = CARDS; left > 1; left--) {
        const uint32_t at = below(rand, left);
        const char card = cards[at];
        cards[at] = cards[left - 1];
        cards[left - 1] = card;
    }
}

/* The share of random points of a square that fall into the circle in it, times 4. */
static double estimate_pi(PSP_RAND rand, int points)
{
    int inside = 0;
    for (int i = 0; i < points; i++) {
        const double x = psp_randGetDouble(rand);
        const double y = psp_randGetDouble(rand);
        inside += x * x + y * y < 1;
    }
    return 4.0 * inside / points;
}

int main(void)
{
    if (psp_init() != sOKAY)
        return 1;
    PSP_RAND rand = psp_randCreateNoSem(2026);
    if (rand == NULL) {
        psp_term();
        return 1;
    }
    char first[CARDS + 1] = "ABCDEFGH";
    char second[CARDS + 1] = "ABCDEFGH";
    shuffle(rand, first);
    shuffle(rand, second);
    printf("%s\n%s\n", first, second);

    psp_randResetSeed(rand, 2026); /* and the first one comes again */
    char again[CARDS + 1] = "ABCDEFGH";
    shuffle(rand, again);
    printf("%s\n", again);
    printf("pi is about %.2f\n", estimate_pi(rand, 1000000));
    psp_randDestroy(rand);
    psp_term();
    return 0;
}

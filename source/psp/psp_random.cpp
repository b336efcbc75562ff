// The Mersenne Twister MT19937: 624 words of state, handed out tempered one by one and made anew
// all at once, four side by side, so that a draw costs a constant on average.
//
// The record has room for a lock, but none is ever stored: a generator from psp_randCreate only
// holds on to one synchronisation object. Callers count on both kinds behaving alike.

#include "psp/mem.h"
#include "psp/random.h"
#include "psp/sync.h"

#include <cstring>

namespace {

constexpr uint32_t STATE_WORDS = 624;
constexpr uint32_t MIDDLE_DISTANCE = 397;
constexpr uint32_t DEFAULT_SEED = 0x8DF1337C;

} // namespace

struct PSP_RAND_CTX {
    uint32_t* curr;               // the next word to hand out
    uint32_t* end;                // one past the last one, &MT[624]
    PSP_SEM sem;                  // room for a lock: always PSP_SEM_INVALID
    uint32_t MT[STATE_WORDS + 1]; // the state, and a word that ends its round
};

namespace {

// The handle is constant for callers; the record behind it was allocated writable.
PSP_RAND_CTX* record(PSP_RAND randCtx)
{
    return const_cast<PSP_RAND_CTX*>(randCtx);
}

// Four words side by side.
using Words = uint32_t __attribute__((vector_size(16)));
constexpr uint32_t LANES = sizeof(Words) / sizeof(uint32_t);

Words wordsAt(const uint32_t* at)
{
    Words words;
    memcpy(&words, at, sizeof words);
    return words;
}

// The recurrence, for a word or for words side by side.
template <class Word>
Word twist(Word high, Word low, Word middle)
{
    const Word y = (high & 0x80000000U) | (low & 0x7FFFFFFFU);
    return middle ^ (y >> 1) ^ (-(low & 1U) & 0x9908B0DFU);
}

// Makes the words of [begin, end) anew; `distance` leads to the middle of each.
void twistWords(uint32_t* begin, const uint32_t* end, ptrdiff_t distance)
{
#pragma GCC unroll 3
    for (uint32_t* at = begin; at != end; at += LANES) {
        const Words words = twist(wordsAt(at), wordsAt(at + 1), wordsAt(at + distance));
        memcpy(at, &words, sizeof words);
    }
}

// No word depends on one that is made less than 227 words before it, so that four can be made at
// once. The words behind the state's end are those of its beginning, anew: the one of them that is
// needed is made first, and put there.
void psp_randGenerateNumbers(PSP_RAND_CTX* ctx)
{
    uint32_t* MT = ctx->MT;
    constexpr uint32_t before = STATE_WORDS - MIDDLE_DISTANCE; // so many words lie behind a middle
    constexpr uint32_t wrap = before + 1; // from here on the middle wraps round
    static_assert(wrap % LANES == 0 && STATE_WORDS % LANES == 0);
    MT[STATE_WORDS] = twist(MT[0], MT[1], MT[MIDDLE_DISTANCE]);
    twistWords(MT, MT + wrap, MIDDLE_DISTANCE);
    twistWords(MT + wrap, MT + STATE_WORDS, -ptrdiff_t{before});
    ctx->curr = MT;
}

uint32_t mixed(uint32_t word)
{
    return word ^ (word >> 30);
}

// Apart, or the compiler makes every step of the seeding wait for the choice.
[[gnu::cold, gnu::noinline]] uint32_t mixedAfterCarry(uint32_t word)
{
    return mixed(word);
}

// MT[i] = 1812433253 * mixed(MT[i - 1]) + i. Every word waits for the one before, and nothing else
// takes the time. So the two topmost bits are taken before the addition, which changes them only
// when it carries through the bits between, and leaves those 0.
void psp_randSetSeed(PSP_RAND_CTX* ctx, uint32_t seed)
{
    constexpr uint32_t between = 0x3FFFFC00;
    static_assert(STATE_WORDS <= (between & -between));
    uint32_t* MT = ctx->MT;
    MT[0] = seed;
    uint32_t next = mixed(seed);
    for (uint32_t i = 1; i < STATE_WORDS; ++i) {
        const uint32_t product = 1812433253U * next;
        MT[i] = product + i;
        next = MT[i] ^ (product >> 30);
        if ((MT[i] & between) == 0)
            next = mixedAfterCarry(MT[i]);
    }
    psp_randGenerateNumbers(ctx);
}

uint32_t psp_randGetNext(PSP_RAND_CTX* ctx)
{
    if (ctx->curr == ctx->end)
        psp_randGenerateNumbers(ctx);
    uint32_t y = *ctx->curr++;
    y ^= y >> 11;
    y ^= (y << 7) & 0x9D2C5680U;
    y ^= (y << 15) & 0xEFC60000U;
    return y ^ (y >> 18);
}

PSP_RAND psp_randCreateEx(uint32_t seed, ZYN_BOOL_T bUseSem)
{
    auto* ctx = static_cast<PSP_RAND_CTX*>(psp_getMem(sizeof(PSP_RAND_CTX), PSP_GLOBAL_TAG,
                                                      PSP_MEM_PLAIN, nullptr, __FILE__, __LINE__));
    if (ctx == nullptr)
        return nullptr;
    if (bUseSem && psp_syncCreate_check(PSP_SEM_MUTEX, __FILE__, __LINE__) == PSP_SEM_INVALID) {
        psp_freeMem(ctx, PSP_GLOBAL_TAG, __FILE__, __LINE__);
        return nullptr;
    }
    ctx->sem = PSP_SEM_INVALID;
    ctx->end = &ctx->MT[STATE_WORDS];
    psp_randSetSeed(ctx, seed != 0 ? seed : DEFAULT_SEED);
    return ctx;
}

} // namespace

PSP_RAND psp_randCreate(uint32_t seed)
{
    return psp_randCreateEx(seed, ZYN_TRUE);
}

PSP_RAND psp_randCreateNoSem(uint32_t seed)
{
    return psp_randCreateEx(seed, ZYN_FALSE);
}

void psp_randDestroy(PSP_RAND randCtx)
{
    if (randCtx == nullptr)
        return;
    psp_freeMem(randCtx, PSP_GLOBAL_TAG, __FILE__, __LINE__);
}

void psp_randResetSeed(PSP_RAND randCtx, uint32_t seed)
{
    psp_randSetSeed(record(randCtx), seed);
}

uint32_t psp_randGetUInt32(PSP_RAND randCtx)
{
    return psp_randGetNext(record(randCtx));
}

int32_t psp_randGet(PSP_RAND randCtx)
{
    return static_cast<int32_t>(psp_randGetNext(record(randCtx)) & 0x7FFFFFFFU);
}

uint64_t psp_randGetUInt64(PSP_RAND randCtx)
{
    const uint64_t high = psp_randGetNext(record(randCtx));
    return high << 32 | psp_randGetNext(record(randCtx));
}

double psp_randGetDouble(PSP_RAND randCtx)
{
    return psp_randGetNext(record(randCtx)) * 0x1p-32;
}

// The Mersenne Twister MT19937: 624 words of state, handed out tempered one by one and made anew
// all at once, so that a draw costs a constant on average.
//
// The record has room for a lock, but none is ever stored: a generator from psp_randCreate only
// holds on to one synchronisation object. Callers count on both kinds behaving alike.

#include "psp/mem.h"
#include "psp/random.h"
#include "psp/sync.h"

namespace {

constexpr uint32_t STATE_WORDS = 624;
constexpr uint32_t MIDDLE_DISTANCE = 397;
constexpr uint32_t DEFAULT_SEED = 0x8DF1337C;

} // namespace

struct PSP_RAND_CTX {
    uint32_t* curr;               // the next word to hand out
    uint32_t* end;                // one past the last one, &MT[624]
    PSP_SEM sem;                  // room for a lock: always PSP_SEM_INVALID
    uint32_t MT[STATE_WORDS + 1]; // the state; the last word is not used
};

namespace {

// The handle is constant for callers; the record behind it was allocated writable.
PSP_RAND_CTX* record(PSP_RAND randCtx)
{
    return const_cast<PSP_RAND_CTX*>(randCtx);
}

uint32_t twist(uint32_t high, uint32_t low, uint32_t middle)
{
    const uint32_t y = (high & 0x80000000U) | (low & 0x7FFFFFFFU);
    return middle ^ (y >> 1) ^ ((y & 1U) != 0 ? 0x9908B0DFU : 0U);
}

void psp_randGenerateNumbers(PSP_RAND_CTX* ctx)
{
    uint32_t* MT = ctx->MT;
    constexpr uint32_t wrap = STATE_WORDS - MIDDLE_DISTANCE; // from here on the middle wraps round
    for (uint32_t i = 0; i < wrap; ++i)
        MT[i] = twist(MT[i], MT[i + 1], MT[i + MIDDLE_DISTANCE]);
    for (uint32_t i = wrap; i < STATE_WORDS - 1; ++i)
        MT[i] = twist(MT[i], MT[i + 1], MT[i - wrap]);
    MT[STATE_WORDS - 1] = twist(MT[STATE_WORDS - 1], MT[0], MT[MIDDLE_DISTANCE - 1]);
    ctx->curr = MT;
}

void psp_randSetSeed(PSP_RAND_CTX* ctx, uint32_t seed)
{
    uint32_t* MT = ctx->MT;
    MT[0] = seed;
    for (uint32_t i = 1; i < STATE_WORDS; ++i)
        MT[i] = 1812433253U * (MT[i - 1] ^ (MT[i - 1] >> 30)) + i;
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

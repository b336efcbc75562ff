/**
 * @file random.h
 * Reproducible pseudo-random numbers: the Mersenne Twister MT19937. Equal seeds give equal
 * sequences. Not fit for secrets.
 *
 * A generator must be used by one thread at a time. Each draw of 32 bits advances the sequence by
 * one; psp_randGetUInt64() advances it by two.
 */
#ifndef PSP_RANDOM_H
#define PSP_RANDOM_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/** Handle of a generator. */
typedef const struct PSP_RAND_CTX* PSP_RAND;

/**
 * Makes a generator. It takes one synchronisation object (psp/sync.h) for good, without using
 * it: prefer psp_randCreateNoSem().
 * @param seed start of the sequence; 0 means the library's default, 8DF1337C hexadecimal
 * @return the generator, to be given to psp_randDestroy(); NULL when memory ran out or the library
 *         is not initialised
 */
PSP_API PSP_RAND psp_randCreate(uint32_t seed);

/**
 * Makes a generator without taking a synchronisation object.
 * @param seed as in psp_randCreate()
 * @return as psp_randCreate()
 */
PSP_API PSP_RAND psp_randCreateNoSem(uint32_t seed);

/**
 * Releases a generator.
 * @param randCtx the generator; nothing happens for NULL
 */
PSP_API void psp_randDestroy(PSP_RAND randCtx);

/**
 * Starts the sequence of a seed.
 * @param randCtx the generator
 * @param seed    the seed, taken as it is: 0 does not mean the default here
 */
PSP_API void psp_randResetSeed(PSP_RAND randCtx, uint32_t seed);

/**
 * @param randCtx the generator
 * @return the next 32 random bits
 */
PSP_API uint32_t psp_randGetUInt32(PSP_RAND randCtx);

/**
 * @param randCtx the generator
 * @return the low 31 bits of the next draw, 0 to 2147483647
 */
PSP_API int32_t psp_randGet(PSP_RAND randCtx);

/**
 * @param randCtx the generator
 * @return the next two draws, the first in the high half
 */
PSP_API uint64_t psp_randGetUInt64(PSP_RAND randCtx);

/**
 * @param randCtx the generator
 * @return the next draw divided by 2^32: at least 0 and less than 1
 */
PSP_API double psp_randGetDouble(PSP_RAND randCtx);

PSP_END_DECLS

#endif

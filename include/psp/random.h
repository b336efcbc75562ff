/**
 * @file random.h
 * Reproducible pseudo-random numbers: the Mersenne Twister MT19937. Equal seeds give equal
 * sequences. Not fit for secrets.
 *
 * Each draw of 32 bits advances the sequence by one; psp_randGetUInt64() advances it by two.
 */
#ifndef PSP_RANDOM_H
#define PSP_RANDOM_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/**
 * @addtogroup random
 * @{
 */

/** Handle of a generator, made by psp_randCreateNoSem() and freed by psp_randDestroy(). */
typedef const struct PSP_RAND_CTX* PSP_RAND;

/**
 * Makes a generator. It takes one synchronisation object (psp/sync.h) for good, without using
 * it: prefer psp_randCreateNoSem(). Where no such object is left the process ends, as in
 * psp_syncCreate_check().
 * @param seed start of the sequence; 0 means the library's default, 8DF1337C hexadecimal
 * @return the generator; NULL when memory is short or the library is not started
 * @threads{any} @before{NULL} @jumps{by the global tag, if psp_resetTag() gave it a buffer}
 * @owner{the caller frees it with psp_randDestroy()}
 */
PSP_API PSP_RAND psp_randCreate(uint32_t seed);

/**
 * Makes a generator without taking a synchronisation object.
 * @param seed as for psp_randCreate()
 * @return the generator; NULL when memory is short or the library is not started
 * @threads{any} @before{NULL} @jumps{by the global tag, if psp_resetTag() gave it a buffer}
 * @owner{the caller frees it with psp_randDestroy()}
 */
PSP_API PSP_RAND psp_randCreateNoSem(uint32_t seed);

/**
 * Frees a generator.
 * @param randCtx the generator, not to be used again; nothing happens for NULL
 * @threads{any; no other thread may still use the generator} @before{does nothing} @jumps{never}
 * @owner{frees the generator}
 */
PSP_API void psp_randDestroy(PSP_RAND randCtx);

/**
 * Starts the sequence of a seed.
 * @param randCtx the generator; must not be NULL
 * @param seed    the seed, taken as it is: 0 does not mean the default here
 * @threads{one at a time per generator} @before{undefined: no generator is alive} @jumps{never}
 * @owner{nothing}
 */
PSP_API void psp_randResetSeed(PSP_RAND randCtx, uint32_t seed);

/**
 * Draws 32 random bits.
 * @param randCtx the generator; must not be NULL
 * @return the next number of the sequence, 0 to 4294967295
 * @threads{one at a time per generator} @before{undefined: no generator is alive} @jumps{never}
 * @owner{nothing}
 */
PSP_API uint32_t psp_randGetUInt32(PSP_RAND randCtx);

/**
 * Draws a number that is not negative.
 * @param randCtx the generator; must not be NULL
 * @return the low 31 bits of the next draw, 0 to 2147483647
 * @threads{one at a time per generator} @before{undefined: no generator is alive} @jumps{never}
 * @owner{nothing}
 */
PSP_API int32_t psp_randGet(PSP_RAND randCtx);

/**
 * Draws 64 random bits.
 * @param randCtx the generator; must not be NULL
 * @return the next two draws, the first in the high half
 * @threads{one at a time per generator} @before{undefined: no generator is alive} @jumps{never}
 * @owner{nothing}
 */
PSP_API uint64_t psp_randGetUInt64(PSP_RAND randCtx);

/**
 * Draws a number between 0 and 1.
 * @param randCtx the generator; must not be NULL
 * @return the next draw divided by 2^32: at least 0 and less than 1
 * @threads{one at a time per generator} @before{undefined: no generator is alive} @jumps{never}
 * @owner{nothing}
 */
PSP_API double psp_randGetDouble(PSP_RAND randCtx);

/** @} */

PSP_END_DECLS

#endif

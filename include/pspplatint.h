/**
 * @file pspplatint.h
 * What the platform gives: the C headers whose types the interface uses, the platform's own
 * integer and thread types under the library's names, and the compiler's attributes.
 *
 * The library supports 64-bit Linux on x86-64.
 */
#ifndef PSPPLATINT_H
#define PSPPLATINT_H

#include <locale.h>
#include <pthread.h>
#include <setjmp.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <time.h>
#include <wchar.h>

#if !defined(__linux__) || !defined(__x86_64__)
#error "this library supports 64-bit Linux on x86-64 only"
#endif

/**
 * @addtogroup types
 * @{
 */

/** The C library's locale object. <locale.h> hides it from strict C11 code; this repeats it. */
typedef struct __locale_struct* locale_t;

/** Signed count of seconds since 1970-01-01 00:00:00 UTC. */
typedef int64_t time64_t;

/** Identity of a thread; compare with `==`. */
typedef pthread_t psp_thread_id_t;

/** Everything marked with this is the library's surface; all else stays hidden. */
#define PSP_API __attribute__((visibility("default")))

/**
 * The function formats like `printf`, and the compiler checks its calls. Positions count from 1.
 * @param fmt   position of the format among the function's arguments
 * @param first position of the first value; 0: the values come as a va_list
 */
#define PSP_PRINTF(fmt, first) __attribute__((format(printf, fmt, first)))

/** The result must be looked at: dropping it leaks what it names. */
#define PSP_MUST_USE __attribute__((warn_unused_result))

#ifdef __cplusplus
#define PSP_BEGIN_DECLS extern "C" { /**< From here on names are those of C. */
#define PSP_END_DECLS }              /**< The end of what PSP_BEGIN_DECLS began. */
#else
#define PSP_BEGIN_DECLS /**< From here on names are those of C. */
#define PSP_END_DECLS   /**< The end of what PSP_BEGIN_DECLS began. */
#endif

/** @} */

#endif

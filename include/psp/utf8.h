/**
 * @file utf8.h
 * UTF-8: encoding one code point, counting, copying and converting whole texts to wide characters;
 * and the bounded byte buffer that formatted text is gathered in.
 *
 * Malformed, and subject to ::PSP_UTF8_ERROR_BEHAVIOR, are stray and missing continuation bytes,
 * the bytes F8 to FF, overlong forms, surrogates, FFFE, FFFF and values above 10FFFF. `wchar_t` has
 * 32 bits and holds one code point. Only the two functions that take a memory tag need psp_init().
 */
#ifndef PSP_UTF8_H
#define PSP_UTF8_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/** @addtogroup utf8
 *  @{ */

/** What the functions below return when malformed text makes them fail. */
#define PSP_UTF8_FAILED SIZE_MAX

/* ---- One code point ---- */

/**
 * Encodes a code point; surrogates are encoded like any other value.
 * @param val   the code point
 * @param bytes receives the encoding, up to 4 bytes and no NUL; NULL to ask for the length
 * @return the length of the encoding, 1 to 4; 0 when `val` is above 10FFFF (nothing is written)
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API uint32_t psp_utf8_codes(uint32_t val, uint8_t* bytes);

/**
 * Encodes a code point and fills the rest of the buffer with zero bytes.
 * @param ch     the code point; a value above 10FFFF leaves nothing but zero bytes
 * @param buffer receives the encoding; may be NULL only when `size` is 0
 * @param size   room at `buffer` in bytes
 * @return the length of the encoding, 0 to 4; when it exceeds `size`, nothing was written
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API size_t psp_uchar_to_utf8(uint32_t ch, uint8_t* buffer, size_t size);

/* ---- Texts ---- */

/**
 * Copies as many whole characters as fit; all of `src` is checked even so. No NUL is appended.
 * @param dst           receives the characters; NULL to count what would be copied
 * @param dst_size      room at `dst` in bytes, also when `dst` is NULL
 * @param src           the text, which may hold NUL bytes; may be NULL when `src_size` is 0
 * @param src_size      its length in bytes
 * @param chars_copied  receives the number of characters copied, except on failure; may be NULL
 * @param errorBehavior what to do with malformed text
 * @return the number of bytes copied; ::PSP_UTF8_FAILED when the text is malformed and
 *         `errorBehavior` is `PSP_UTF8_ERROR_BREAK` (`dst` then holds what was copied so far)
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API size_t psp_copyUTF8Chars(char* dst, size_t dst_size, const char* src, size_t src_size,
                                 size_t* chars_copied, PSP_UTF8_ERROR_BEHAVIOR errorBehavior);

/**
 * Counts the bytes that the first characters of a text take when encoded anew: a replaced piece
 * and an overlong form count as the character that stands for them.
 * @param src           the text, which may hold NUL bytes; may be NULL when `size` is 0
 * @param size          its length in bytes
 * @param chars         the number of characters to count; 0 for all. What follows is not looked at
 * @param errorBehavior what to do with malformed text
 * @return the number of bytes; ::PSP_UTF8_FAILED when what was looked at is malformed and
 *         `errorBehavior` is `PSP_UTF8_ERROR_BREAK`
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API size_t psp_countUTF8bytes(const char* src, size_t size, size_t chars,
                                  PSP_UTF8_ERROR_BEHAVIOR errorBehavior);

/**
 * Counts the characters of a text.
 * @param src           the text, which may hold NUL bytes; may be NULL when `size` is 0
 * @param size          its length in bytes
 * @param errorBehavior what to do with malformed text
 * @return the number of characters modulo 2^32; 0, unlike the other functions, when the text is
 *         malformed and `errorBehavior` is `PSP_UTF8_ERROR_BREAK`
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API size_t psp_countUTF8chars(const char* src, size_t size,
                                  PSP_UTF8_ERROR_BEHAVIOR errorBehavior);

/**
 * Converts a NUL-terminated text to wide characters; what does not fit is dropped.
 * @param dest          receives the characters and a terminating 0; NULL to count only
 * @param src           the text; must not be NULL
 * @param destlen       room at `dest` in elements, at least 1; not looked at when `dest` is NULL
 * @param errorBehavior what to do with malformed text
 * @return the number of elements stored, or needed when `dest` is NULL, the terminating 0
 *         included; ::PSP_UTF8_FAILED when the text is malformed and `errorBehavior` is
 *         `PSP_UTF8_ERROR_BREAK` (`dest` is then not terminated)
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API size_t psp_utf8_to_wchar(wchar_t* dest, const char* src, size_t destlen,
                                 PSP_UTF8_ERROR_BEHAVIOR errorBehavior);

/**
 * Converts a text of a given length to wide characters, as psp_utf8_to_wchar() does; a NUL byte in
 * it is a character.
 * @param dest          receives the characters and a terminating 0; NULL to count only
 * @param destlen       room at `dest` in elements, at least 1; not looked at when `dest` is NULL
 * @param src           the text; may be NULL when `srclen` is 0
 * @param srclen        its length in bytes
 * @param errorBehavior what to do with malformed text
 * @return the number of elements stored, or needed when `dest` is NULL, the terminating 0
 *         included; ::PSP_UTF8_FAILED when the text is malformed and `errorBehavior` is
 *         `PSP_UTF8_ERROR_BREAK` (`dest` is then not terminated)
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API size_t psp_utf8_to_wchar_len(wchar_t* dest, size_t destlen, const char* src, size_t srclen,
                                     PSP_UTF8_ERROR_BEHAVIOR errorBehavior);

/**
 * Converts a NUL-terminated text to a new string of wide characters.
 * @param str           the text; must not be NULL
 * @param errorBehavior what to do with malformed text
 * @param tag           owner of the result; the special values are accepted
 * @return the string with its terminating 0; NULL when memory runs out, and when the text is
 *         malformed and `errorBehavior` is `PSP_UTF8_ERROR_BREAK`
 * @threads{one at a time per tag without a mutex} @before{NULL} @jumps{by the tag}
 * @owner{the caller frees the string with psp_freeMem()}
 */
PSP_API PSP_MUST_USE wchar_t*
psp_convToWchar(const char* str, PSP_UTF8_ERROR_BEHAVIOR errorBehavior, PSP_MEMTAG tag);

/**
 * Converts like psp_convToWchar(), with a status.
 * @param str           the text; must not be NULL
 * @param errorBehavior what to do with malformed text
 * @param wstr          receives the string with its terminating 0, or NULL on failure; must not be
 *                      NULL
 * @param tag           owner of the result; the special values are accepted
 * @retval sOKAY     the string is there
 * @retval eNOMEMORY there is none: memory ran out, or the text is malformed and `errorBehavior` is
 *                   `PSP_UTF8_ERROR_BREAK`
 * @threads{one at a time per tag without a mutex} @before{`eNOMEMORY`} @jumps{by the tag}
 * @owner{the caller frees the string with psp_freeMem()}
 */
PSP_API ZYN_RETCODE psp_convToWchar_rc(const char* str, PSP_UTF8_ERROR_BEHAVIOR errorBehavior,
                                       wchar_t** wstr, PSP_MEMTAG tag);

/* ---- The bounded byte buffer ---- */

/**
 * A byte buffer that never fails: it keeps what fits and goes on counting. Bytes are counted under
 * both names, elements and characters. psp_utf8BuffInit() fills the caller's record; nothing has to
 * be freed.
 */
typedef struct ZYN_OUTPUT_BUFF {
    char* buff;          /**< the caller's memory, or NULL: count only */
    size_t size;         /**< bytes that may be stored; one more is held back for the NUL */
    size_t used_elems;   /**< bytes stored */
    size_t used_chars;   /**< as `used_elems` */
    size_t needed_elems; /**< bytes produced, stored or not */
    size_t needed_chars; /**< as `needed_elems` */
    ZYN_BOOL_T done;     /**< set by the first byte that did not fit; nothing is stored any more */
} ZYN_OUTPUT_BUFF;

/**
 * Starts an empty buffer over the caller's memory, holding one byte back for the terminating NUL.
 * @param info the buffer record, which is overwritten; must not be NULL
 * @param buff the memory, untouched for now; NULL to count only
 * @param size its size in bytes; 0 to count only
 * @threads{one at a time per buffer} @before{works} @jumps{never}
 * @owner{nothing: the memory stays the caller's and must outlive the use of the buffer}
 */
PSP_API void psp_utf8BuffInit(ZYN_OUTPUT_BUFF* info, char* buff, size_t size);

/**
 * Appends one byte to a buffer; a ::ZYN_OUTPUT_FCN.
 * @param ctx   the ::ZYN_OUTPUT_BUFF; must not be NULL
 * @param uchar the byte in its low eight bits; no encoding takes place
 * @retval sOKAY always: what does not fit is only counted
 * @threads{one at a time per buffer} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_emitCharAsUtf8(ZYN_OUTPUT_CTX ctx, uint32_t uchar);

/**
 * Ends the text: stores the terminating NUL in the byte held back for it and counts it, so that
 * `needed_elems` - 1 is then the length of the complete text. Call it once.
 * @param info the buffer record; must not be NULL
 * @threads{one at a time per buffer} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API void psp_utf8BuffTerm(ZYN_OUTPUT_BUFF* info);

/**
 * Hands a NUL-terminated string to a callback, byte by byte.
 * @param fcn called with each byte, 0 to 255; must not be NULL
 * @param ctx handed to `fcn` unchanged
 * @param str the string; must not be NULL
 * @retval sOKAY all bytes were handed over; any other code is the callback's, which ended the
 *               output
 * @threads{any} @before{works} @jumps{only through the callback} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_outputString(ZYN_OUTPUT_FCN fcn, ZYN_OUTPUT_CTX ctx, const char* str);

/** @} */

PSP_END_DECLS

#endif

/**
 * @file utf8.h
 * UTF-8: encoding one code point, counting, copying and converting whole texts to wide characters;
 * and the bounded byte buffer that formatted text is gathered in.
 *
 * The texts that a function reads pass through one strict decoder. Malformed are stray and missing
 * continuation bytes, the bytes F8 to FF, overlong forms, surrogates, FFFE, FFFF and values above
 * 10FFFF. What happens then is the caller's choice: `PSP_UTF8_ERROR_BREAK` makes the function
 * fail; with `PSP_UTF8_ERROR_CONTINUE` one '?' stands for each malformed piece, a character that
 * the input ends inside included, and an overlong form stands for the value it encodes.
 *
 * Everything here works before psp_init() and from any thread, apart from psp_convToWchar() and
 * psp_convToWchar_rc(), which allocate from a tag. `wchar_t` has 32 bits and holds one code point.
 */
#ifndef PSP_UTF8_H
#define PSP_UTF8_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/** What the functions below return when malformed text makes them fail. */
#define PSP_UTF8_FAILED SIZE_MAX

/* ---- One code point ---- */

/**
 * Encodes a code point; surrogates are encoded like any other value.
 * @param val   the code point
 * @param bytes receives the encoding, up to 4 bytes and no NUL; NULL to ask for the length
 * @return the length of the encoding, 1 to 4; 0 when `val` is above 10FFFF (nothing is written)
 */
PSP_API uint32_t psp_utf8_codes(uint32_t val, uint8_t* bytes);

/**
 * Encodes a code point and fills the rest of the buffer with zero bytes.
 * @param ch     the code point; a value above 10FFFF leaves nothing but zero bytes
 * @param buffer receives the encoding; may be NULL only when `size` is 0
 * @param size   room at `buffer` in bytes
 * @return the length of the encoding, 0 to 4; when it exceeds `size`, nothing was written
 */
PSP_API size_t psp_uchar_to_utf8(uint32_t ch, uint8_t* buffer, size_t size);

/* ---- Texts ---- */

/**
 * Copies as many whole characters as fit; all of `src` is checked even so. No NUL is appended.
 * @param dst           receives the characters; NULL to count what would be copied
 * @param dst_size      room at `dst` in bytes
 * @param src           the text, which may hold NUL bytes
 * @param src_size      its length in bytes
 * @param chars_copied  receives the number of characters copied, except on failure; may be NULL
 * @param errorBehavior what to do with malformed text
 * @return the number of bytes copied, or ::PSP_UTF8_FAILED
 */
PSP_API size_t psp_copyUTF8Chars(char* dst, size_t dst_size, const char* src, size_t src_size,
                                 size_t* chars_copied, PSP_UTF8_ERROR_BEHAVIOR errorBehavior);

/**
 * Counts the bytes that the first characters of a text take when encoded anew: a replaced piece
 * and an overlong form count as the character that stands for them.
 * @param src           the text, which may hold NUL bytes
 * @param size          its length in bytes
 * @param chars         the number of characters to count; 0 for all. What follows is not looked at
 * @param errorBehavior what to do with malformed text
 * @return the number of bytes, or ::PSP_UTF8_FAILED
 */
PSP_API size_t psp_countUTF8bytes(const char* src, size_t size, size_t chars,
                                  PSP_UTF8_ERROR_BEHAVIOR errorBehavior);

/**
 * Counts the characters of a text.
 * @param src           the text, which may hold NUL bytes
 * @param size          its length in bytes
 * @param errorBehavior what to do with malformed text
 * @return the number of characters modulo 2^32; 0 on failure, unlike the other functions
 */
PSP_API size_t psp_countUTF8chars(const char* src, size_t size,
                                  PSP_UTF8_ERROR_BEHAVIOR errorBehavior);

/**
 * Converts a NUL-terminated text to wide characters; what does not fit is dropped.
 * @param dest          receives the characters and a terminating 0; NULL to count only
 * @param src           the text; it must not be NULL
 * @param destlen       room at `dest` in elements, at least 1; not looked at when `dest` is NULL
 * @param errorBehavior what to do with malformed text
 * @return the number of elements stored, or needed when `dest` is NULL, the terminating 0
 *         included; or ::PSP_UTF8_FAILED
 */
PSP_API size_t psp_utf8_to_wchar(wchar_t* dest, const char* src, size_t destlen,
                                 PSP_UTF8_ERROR_BEHAVIOR errorBehavior);

/**
 * psp_utf8_to_wchar() for a text of a given length, in which a NUL byte is a character.
 * @param dest          receives the characters and a terminating 0; NULL to count only
 * @param destlen       room at `dest` in elements, at least 1; not looked at when `dest` is NULL
 * @param src           the text
 * @param srclen        its length in bytes
 * @param errorBehavior what to do with malformed text
 * @return as psp_utf8_to_wchar()
 */
PSP_API size_t psp_utf8_to_wchar_len(wchar_t* dest, size_t destlen, const char* src, size_t srclen,
                                     PSP_UTF8_ERROR_BEHAVIOR errorBehavior);

/**
 * Converts a NUL-terminated text to a new string of wide characters.
 * @param str           the text; it must not be NULL
 * @param errorBehavior what to do with malformed text
 * @param tag           owner of the result; the special values are accepted
 * @return the string with its terminating 0, to be freed with psp_freeMem() into `tag`; NULL when
 *         the text is malformed or the allocation fails (under a tag with a jump buffer a failed
 *         allocation jumps instead)
 */
PSP_API PSP_MUST_USE wchar_t*
psp_convToWchar(const char* str, PSP_UTF8_ERROR_BEHAVIOR errorBehavior, PSP_MEMTAG tag);

/**
 * psp_convToWchar() with a status.
 * @param str           the text; it must not be NULL
 * @param errorBehavior what to do with malformed text
 * @param wstr          receives the string, or NULL on failure; it must not be NULL
 * @param tag           owner of the result; the special values are accepted
 * @return `sOKAY`, or `eNOMEMORY` wherever psp_convToWchar() gives NULL
 */
PSP_API ZYN_RETCODE psp_convToWchar_rc(const char* str, PSP_UTF8_ERROR_BEHAVIOR errorBehavior,
                                       wchar_t** wstr, PSP_MEMTAG tag);

/* ---- The bounded byte buffer ---- */

/**
 * A byte buffer that never fails: it keeps what fits and goes on counting. Bytes are counted under
 * both names, elements and characters.
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
 * @param info the buffer record
 * @param buff the memory; NULL to count only
 * @param size its size in bytes; 0 to count only
 */
PSP_API void psp_utf8BuffInit(ZYN_OUTPUT_BUFF* info, char* buff, size_t size);

/**
 * Appends one byte; a ::ZYN_OUTPUT_FCN.
 * @param ctx   the ::ZYN_OUTPUT_BUFF
 * @param uchar the byte in its low eight bits; no encoding takes place
 * @return always `sOKAY`
 */
PSP_API ZYN_RETCODE psp_emitCharAsUtf8(ZYN_OUTPUT_CTX ctx, uint32_t uchar);

/**
 * Ends the text: stores the terminating NUL in the byte held back for it and counts it, so that
 * `needed_elems` - 1 is then the length of the complete text.
 * @param info the buffer record
 */
PSP_API void psp_utf8BuffTerm(ZYN_OUTPUT_BUFF* info);

/**
 * Hands a NUL-terminated string to a callback, byte by byte.
 * @param fcn called with each byte, 0 to 255; it must not be NULL
 * @param ctx handed to `fcn` unchanged
 * @param str the string; it must not be NULL
 * @return `sOKAY`, or the first other result of `fcn`, which ends the output
 */
PSP_API ZYN_RETCODE psp_outputString(ZYN_OUTPUT_FCN fcn, ZYN_OUTPUT_CTX ctx, const char* str);

PSP_END_DECLS

#endif

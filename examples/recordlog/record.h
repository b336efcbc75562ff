/* One record: its fields, its place in memory and its form on a binary stream. */
#ifndef RECORDLOG_RECORD_H
#define RECORDLOG_RECORD_H

#include "bytes.h"

typedef struct record {
    uint64_t sequence; /* counts on through all segments of a log */
    uint64_t millis;   /* when it was appended, since 1970 */
    int16_t priority;  /* any sign */
    bytes text;        /* ends with a NUL; its room is kept when the record is used again */
} record;

/* A pool of records: one that is given back keeps the room of its text for the next user. */
ZYN_RETCODE record_pool(PSP_MEMTAG tag, PSP_POOL* pool);

/* Sets the text. */
ZYN_RETCODE record_set_text(record* self, const char* text, uint32_t size);

/* Puts the fields onto a stream: sequence and priority as variable-length integers, because they
   are small nearly always; the time in eight bytes; the text with its length. */
ZYN_RETCODE record_put(const record* self, PSP_OUTPUTBUFF out);

/* Gets them back from a stream that holds at most `size` bytes. */
ZYN_RETCODE record_get(record* self, PSP_INPUTBUFF in, uint32_t size);

#endif

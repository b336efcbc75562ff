/* A growing run of bytes in memory, and the transports of binary streams over it. */
#ifndef RECORDLOG_BYTES_H
#define RECORDLOG_BYTES_H

#include "psp.h"

typedef struct bytes {
    char* data;
    uint32_t size; /* bytes in use */
    uint32_t room; /* bytes allocated */
    uint32_t pos;  /* where bytes_read() goes on */
    PSP_MEMTAG tag;
} bytes;

/* Makes room for so many bytes in all; what is in use is kept. */
ZYN_RETCODE bytes_reserve(bytes* self, uint32_t room);

/* Transport of an output stream: appends. The context is the bytes. */
ZYN_RETCODE bytes_write(const void* self, const void* data, uint32_t size);

/* Transport of an input stream: delivers what lies behind `pos`, then eEOD. */
ZYN_RETCODE bytes_read(const void* self, void* buf, uint32_t size, uint32_t* len, uint32_t flags);

#endif

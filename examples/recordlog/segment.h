/* The files of a log: segments that are only ever appended to.
 *
 * A log is a directory of files segment-00000001.log, segment-00000002.log and so on. A segment is
 * a row of frames:
 *
 *     length      variable-length integer, 1 to RECORD_LIMIT
 *     checksum    4 bytes, CRC-32 of the record
 *     record      `length` bytes
 *
 * A crash can leave the last frame incomplete, or with bytes that never reached the disk. A reader
 * takes frames as long as they are whole and their checksums are right; what follows in the segment
 * is its torn tail. A writer that finds a torn tail leaves it alone and begins the next segment:
 * nothing that was once written is ever changed. Numbers are stored in the byte order of the
 * machine.
 */
#ifndef RECORDLOG_SEGMENT_H
#define RECORDLOG_SEGMENT_H

#include "record.h"

enum {
    RECORD_LIMIT = 1 << 20,  /* highest length of a record, in bytes */
    SEGMENT_SIZE = 64 * 1024 /* a segment that has reached this size is followed by the next */
};

/* ---- Listing ---- */

/* The numbers of a log's segments, in order. */
typedef struct segment_list {
    uint32_t* numbers; /* in the tag */
    uint32_t count;
} segment_list;

/* The file of a segment; NULL without memory. The string belongs to the tag. */
char* segment_path(const char* dir, uint32_t number, PSP_MEMTAG tag);

/* Lists the segments of a directory. */
ZYN_RETCODE segment_list_get(const char* dir, PSP_MEMTAG tag, segment_list* list);

/* ---- Reading ---- */

/* What reading a segment brought to light. */
typedef struct segment_info {
    uint64_t records;     /* complete records */
    uint64_t last;        /* sequence number of the last one, if there are any */
    PSP_FILE_OFFSET end;  /* where the last one ends */
    PSP_FILE_OFFSET size; /* of the file: the torn tail lies between */
} segment_info;

/* Called for each record; anything but sOKAY stops the reading and becomes its result. */
typedef ZYN_RETCODE (*record_fcn)(void* ctx, const record* rec);

typedef struct segment_reader segment_reader;

ZYN_RETCODE segment_reader_create(PSP_MEMTAG tag, PSP_POOL pool, segment_reader** reader);
void segment_reader_destroy(segment_reader* self);

/* Reads all complete records of a file; `visit` may be NULL. A torn tail is no failure. */
ZYN_RETCODE segment_read(segment_reader* self, const char* path, record_fcn visit, void* ctx,
                         segment_info* info);

/* ---- Writing ---- */

typedef struct segment_writer segment_writer;

/* Writes behind `end` of segment `number`, or into a new segment when `end` is 0. */
ZYN_RETCODE segment_writer_create(PSP_MEMTAG tag, const char* dir, uint32_t number,
                                  PSP_FILE_OFFSET end, segment_writer** writer);

/* Appends a record. It may wait in memory until segment_writer_sync(). eRANGE: too long. */
ZYN_RETCODE segment_write(segment_writer* self, const record* rec);

/* Makes everything appended so far durable. Once this or a write has failed it fails always. */
ZYN_RETCODE segment_writer_sync(segment_writer* self);

void segment_writer_destroy(segment_writer* self);

#endif

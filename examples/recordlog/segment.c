#include "segment.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* ---- Checksum: CRC-32 with the polynomial EDB88320, four bits at a time ---- */

static uint32_t checksum(const bytes* data)
{
    static const uint32_t table[16] = {0x00000000, 0x1DB71064, 0x3B6E20C8, 0x26D930AC,
                                       0x76DC4190, 0x6B6B51F4, 0x4DB26158, 0x5005713C,
                                       0xEDB88320, 0xF00F9344, 0xD6D6A3E8, 0xCB61B38C,
                                       0x9B64C2B0, 0x86D3D2D4, 0xA00AE278, 0xBDBDF21C};
    uint32_t sum = UINT32_MAX;
    for (uint32_t i = 0; i < data->size; i++) {
        sum ^= (unsigned char)data->data[i];
        sum = (sum >> 4) ^ table[sum & 0xF];
        sum = (sum >> 4) ^ table[sum & 0xF];
    }
    return ~sum;
}

/* ---- Listing ---- */

char* segment_path(const char* dir, uint32_t number, PSP_MEMTAG tag)
{
    return psp_makeStrVA(__FILE__, __LINE__, tag, "%s/segment-%08X.log", dir, number);
}

static int by_number(const void* one, const void* other)
{
    const uint32_t a = *(const uint32_t*)one;
    const uint32_t b = *(const uint32_t*)other;
    return (a > b) - (a < b);
}

static ZYN_RETCODE list_add(segment_list* list, uint32_t number, PSP_MEMTAG tag)
{
    uint32_t* grown = psp_extendMem(list->numbers, (list->count + 1) * sizeof number, tag,
                                    PSP_MEM_PLAIN, sizeof number, NULL, __FILE__, __LINE__);
    if (grown == NULL)
        return eNOMEMORY;
    list->numbers = grown;
    list->numbers[list->count++] = number;
    return sOKAY;
}

ZYN_RETCODE segment_list_get(const char* dir, PSP_MEMTAG tag, segment_list* list)
{
    ZYN_RETCODE rc = sOKAY;
    uint32_t isdir = 0;
    const char* name;
    *list = (segment_list){0};
    /* '#' stands for a hexadecimal digit: nothing else that lies in the directory matches. */
    PSP_DIR scan = psp_pathOpen(dir, "segment-########.log");
    if (scan == NULL)
        return eFILEOPEN;
    while (rc == sOKAY && (name = psp_pathNext(scan, &isdir)) != NULL) {
        if (!isdir)
            rc = list_add(list, (uint32_t)strtoul(name + strlen("segment-"), NULL, 16), tag);
    }
    psp_pathClose(scan);
    if (list->count > 1)
        qsort(list->numbers, list->count, sizeof *list->numbers, by_number);
    return rc;
}

/* ---- Reading ---- */

struct segment_reader {
    PSP_MEMTAG tag;
    PSP_POOL pool;
    PSP_FH file;
    PSP_FILE_OFFSET size;      /* of the file */
    PSP_FILE_OFFSET delivered; /* bytes of the file that `frames` was given */
    PSP_FILE_OFFSET taken;     /* bytes of the file that were taken off `frames` */
    PSP_INPUTBUFF frames;      /* over the file */
    bytes payload;             /* the record of one frame */
    PSP_INPUTBUFF fields;      /* over the payload */
};

/* Transport of `frames`. A read that gives nothing is the end of the file or an error. */
static ZYN_RETCODE read_file(const void* context, void* buf, uint32_t size, uint32_t* len,
                             uint32_t flags)
{
    segment_reader* self = (segment_reader*)context;
    (void)flags;
    *len = psp_fileRead(self->file, buf, size);
    self->delivered += *len;
    if (*len != 0)
        return sOKAY;
    return self->delivered < self->size ? eBADREAD : eEOD;
}

static ZYN_RETCODE take(segment_reader* self, void* data, uint32_t size)
{
    const ZYN_RETCODE rc = psp_inputBuffGetBytes(self->frames, data, size);
    if (rc == sOKAY)
        self->taken += size;
    return rc;
}

static ZYN_RETCODE take_byte(ZYN_INPUT_CTX reader, uint32_t* ch)
{
    unsigned char byte;
    const ZYN_RETCODE rc = take(reader, &byte, 1);
    if (rc == sOKAY)
        *ch = byte;
    return rc;
}

/* Takes one frame and checks it: sNOTFOUND when there is no whole one. */
static ZYN_RETCODE take_payload(segment_reader* self)
{
    uintmax_t size = 0;
    uint32_t sum = 0;
    ZYN_RETCODE rc = psp_vintDecodeUIntmax(take_byte, self, &size);
    if (rc == sOKAY && (size == 0 || size > RECORD_LIMIT))
        return sNOTFOUND;
    if (rc == sOKAY)
        rc = take(self, &sum, sizeof sum);
    if (rc == sOKAY)
        rc = bytes_reserve(&self->payload, (uint32_t)size);
    if (rc == sOKAY)
        rc = take(self, self->payload.data, (uint32_t)size);
    if (rc == eEOD || rc == eINVVARINT)
        return sNOTFOUND;
    if (rc != sOKAY)
        return rc;
    self->payload.size = (uint32_t)size;
    return checksum(&self->payload) == sum ? sOKAY : sNOTFOUND;
}

/* Takes one record; sNOTFOUND where the segment's complete records end. */
static ZYN_RETCODE take_record(segment_reader* self, record* rec)
{
    ZYN_RETCODE rc = take_payload(self);
    if (rc != sOKAY)
        return rc;
    self->payload.pos = 0;
    psp_inputBuffReset(self->fields);
    rc = record_get(rec, self->fields, self->payload.size);
    return rc == eEOD || rc == eINVVARINT ? sNOTFOUND : rc;
}

static ZYN_RETCODE read_records(segment_reader* self, record* rec, record_fcn visit, void* ctx,
                                segment_info* info)
{
    ZYN_RETCODE rc;
    while ((rc = take_record(self, rec)) == sOKAY) {
        info->records++;
        info->last = rec->sequence;
        info->end = self->taken;
        if (visit != NULL && (rc = visit(ctx, rec)) != sOKAY)
            return rc;
    }
    return rc == sNOTFOUND ? sOKAY : rc;
}

ZYN_RETCODE segment_read(segment_reader* self, const char* path, record_fcn visit, void* ctx,
                         segment_info* info)
{
    *info = (segment_info){0};
    self->file = psp_fileOpen(path, O_RDONLY, 0);
    if (self->file == NULL)
        return eFILEOPEN;
    info->size = self->size = psp_fileLength(self->file);
    self->delivered = self->taken = 0;
    psp_inputBuffReset(self->frames);
    ZYN_RETCODE rc = eNOMEMORY;
    /* Mode 1 leaves the object as its last user left it: with the room of its text. */
    record* rec = psp_poolGetMem(self->pool, sizeof *rec, PSP_MEM_PLAIN, NULL, __FILE__, __LINE__);
    if (rec != NULL)
        rc = read_records(self, rec, visit, ctx, info);
    psp_poolPut(self->pool, rec);
    psp_fileClose(self->file);
    return rc;
}

ZYN_RETCODE segment_reader_create(PSP_MEMTAG tag, PSP_POOL pool, segment_reader** reader)
{
    segment_reader* self = psp_getMem(sizeof *self, tag, PSP_MEM_ZERO, NULL, __FILE__, __LINE__);
    if (self == NULL)
        return eNOMEMORY;
    self->tag = self->payload.tag = tag;
    self->pool = pool;
    ZYN_RETCODE rc = psp_inputBuffCreate(read_file, self, 0, &self->frames);
    if (rc == sOKAY)
        rc = psp_inputBuffCreate(bytes_read, &self->payload, 0, &self->fields);
    if (rc == sOKAY)
        *reader = self;
    else
        segment_reader_destroy(self);
    return rc;
}

void segment_reader_destroy(segment_reader* self)
{
    if (self == NULL)
        return;
    psp_inputBuffDestroy(self->fields);
    psp_inputBuffDestroy(self->frames);
    psp_freeMem(self->payload.data, self->tag, __FILE__, __LINE__);
    psp_freeMem(self, self->tag, __FILE__, __LINE__);
}

/* ---- Writing ---- */

struct segment_writer {
    PSP_MEMTAG tag;
    const char* dir;
    uint32_t number;       /* of the segment */
    PSP_FH file;           /* NULL until it is opened */
    PSP_FILE_OFFSET size;  /* of the segment, with what waits in `frames` */
    PSP_OUTPUTBUFF frames; /* over the file */
    bytes payload;         /* the record of one frame */
    PSP_OUTPUTBUFF fields; /* over the payload */
    ZYN_BOOL_T failed;     /* to write or to sync */
};

/* Transport of `frames`, which keeps what was refused and offers it again. A part of it may have
   reached the file, so after a failure nothing is written behind that. */
static ZYN_RETCODE write_file(const void* context, const void* data, uint32_t size)
{
    segment_writer* self = (segment_writer*)context;
    if (!self->failed)
        self->failed = psp_fileWrite(self->file, data, size) != size;
    return self->failed ? eBADWRITE : sOKAY;
}

static ZYN_RETCODE put(segment_writer* self, const void* data, uint32_t size)
{
    self->size += size;
    return psp_outputBuffPutBytes(self->frames, data, size);
}

static ZYN_RETCODE put_frame_byte(ZYN_OUTPUT_CTX writer, uint32_t ch)
{
    const unsigned char byte = (unsigned char)ch;
    return put(writer, &byte, 1);
}

/* Opens the segment with the writer's number. A new one must be new: O_EXCL. */
static ZYN_RETCODE open_segment(segment_writer* self)
{
    const uint32_t flags = self->size == 0 ? O_WRONLY | O_CREAT | O_EXCL : O_WRONLY;
    char* path = segment_path(self->dir, self->number, self->tag);
    if (path == NULL)
        return eNOMEMORY;
    self->file = psp_fileOpen(path, flags, 0);
    psp_freeMem(path, self->tag, __FILE__, __LINE__);
    if (self->file == NULL)
        return eFILEOPEN;
    if (self->size != 0)
        return psp_fileSeek(self->file, self->size, SEEK_SET, NULL);
    return psp_dirSync(self->dir); /* the new name must outlast a crash as the records do */
}

static ZYN_RETCODE next_segment(segment_writer* self)
{
    const ZYN_RETCODE rc = segment_writer_sync(self);
    if (rc != sOKAY)
        return rc;
    psp_fileClose(self->file);
    self->file = NULL;
    self->number++;
    self->size = 0;
    return open_segment(self);
}

/* Brings a record into the form that a frame holds, in `payload`. */
static ZYN_RETCODE make_payload(segment_writer* self, const record* rec)
{
    self->payload.size = 0;
    ZYN_RETCODE rc = record_put(rec, self->fields);
    if (rc == sOKAY)
        rc = psp_outputBuffFlush(self->fields);
    if (rc == sOKAY && self->payload.size > RECORD_LIMIT)
        rc = eRANGE;
    return rc;
}

ZYN_RETCODE segment_write(segment_writer* self, const record* rec)
{
    ZYN_RETCODE rc = make_payload(self, rec);
    if (rc == sOKAY && self->size >= SEGMENT_SIZE)
        rc = next_segment(self);
    if (rc != sOKAY)
        return rc;
    const uint32_t sum = checksum(&self->payload);
    rc = psp_vintEncodeUIntmax(self->payload.size, put_frame_byte, self);
    if (rc == sOKAY)
        rc = put(self, &sum, sizeof sum);
    if (rc == sOKAY)
        rc = put(self, self->payload.data, self->payload.size);
    return rc;
}

ZYN_RETCODE segment_writer_sync(segment_writer* self)
{
    if (self->file == NULL)
        return sOKAY; /* the next segment could not be begun: the one before it is durable */
    ZYN_RETCODE rc = self->failed ? eBADWRITE : psp_outputBuffFlush(self->frames);
    if (rc == sOKAY)
        rc = psp_fileSync(self->file);
    self->failed = rc != sOKAY; /* for good: the system tells of a failed sync only once */
    return rc;
}

ZYN_RETCODE segment_writer_create(PSP_MEMTAG tag, const char* dir, uint32_t number,
                                  PSP_FILE_OFFSET end, segment_writer** writer)
{
    segment_writer* self = psp_getMem(sizeof *self, tag, PSP_MEM_ZERO, NULL, __FILE__, __LINE__);
    if (self == NULL)
        return eNOMEMORY;
    self->tag = self->payload.tag = tag;
    self->dir = dir;
    self->number = number;
    self->size = end;
    ZYN_RETCODE rc = psp_outputBuffCreate(write_file, self, 0, &self->frames);
    if (rc == sOKAY)
        rc = psp_outputBuffCreate(bytes_write, &self->payload, 0, &self->fields);
    if (rc == sOKAY)
        rc = open_segment(self);
    if (rc == sOKAY)
        *writer = self;
    else
        segment_writer_destroy(self);
    return rc;
}

void segment_writer_destroy(segment_writer* self)
{
    if (self == NULL)
        return;
    psp_fileClose(self->file);
    psp_outputBuffDestroy(self->fields);
    psp_outputBuffDestroy(self->frames);
    psp_freeMem(self->payload.data, self->tag, __FILE__, __LINE__);
    psp_freeMem(self, self->tag, __FILE__, __LINE__);
}

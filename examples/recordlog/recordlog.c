/* An append-only log of records that survives a crash at any byte.
 *
 *     recordlog append DIR    appends the lines of the standard input, one record a line
 *     recordlog dump DIR      prints all records
 *     recordlog verify DIR    checks all segments and tells what it found
 *
 * A line may begin with a priority, as in "<3>disk full"; without one it is 6. The exit status is
 * 0 when all is well, 1 after a failure or when records are missing, 2 for a wrong command line
 * and, for verify only, 3 when a segment has a torn tail: a crash left it behind, and no record
 * that was made durable is missing.
 *
 * What the program shows: binary streams over a file and over memory, variable-length integers
 * through a stream (record.c), frames with checksums and their recovery (segment.c), pooled
 * objects, a directory scan, a lock file, and one memory tag that owns everything else.
 */
#include <fcntl.h>
#include <string.h>

#include "segment.h"

enum { DEFAULT_PRIORITY = 6 };

/* What all commands work with. */
typedef struct context {
    const char* dir;
    PSP_MEMTAG tag;
    PSP_POOL pool; /* of records */
    segment_reader* reader;
    segment_list segments;
    ZYN_BOOL_T torn;  /* a segment had a torn tail */
    ZYN_BOOL_T show;  /* print records */
    uint64_t records; /* read so far */
    uint64_t last;    /* sequence number of the last one */
} context;

/* ---- dump and verify ---- */

static void print_record(const record* rec)
{
    char when[32];
    struct tm fields = {0};
    psp_timeLocaltime((time64_t)(rec->millis / 1000), &fields);
    strftime(when, sizeof when, "%F %T", &fields);
    psp_printf("%llu %s.%03u <%d> %s\n", (unsigned long long)rec->sequence, when,
               (unsigned)(rec->millis % 1000), rec->priority, rec->text.data);
}

/* Sequence numbers go on through all segments; a gap means that records are missing. The first
   segments may have been removed on purpose, so the first number is free. */
static ZYN_RETCODE visit(void* ctx, const record* rec)
{
    context* self = ctx;
    if (self->records != 0 && rec->sequence != self->last + 1) {
        psp_log_err("recordlog: record %llu follows record %llu\n",
                    (unsigned long long)rec->sequence, (unsigned long long)self->last);
        return eINVFILE;
    }
    self->records++;
    self->last = rec->sequence;
    if (self->show)
        print_record(rec);
    return sOKAY;
}

static ZYN_RETCODE read_segment(context* self, uint32_t number)
{
    segment_info info;
    char* path = segment_path(self->dir, number, self->tag);
    if (path == NULL)
        return eNOMEMORY;
    const ZYN_RETCODE rc = segment_read(self->reader, path, visit, self, &info);
    if (!self->show)
        psp_printf("%s: %llu records in %llu bytes\n", path, (unsigned long long)info.records,
                   (unsigned long long)info.end);
    if (rc == sOKAY && info.end != info.size) {
        self->torn = ZYN_TRUE;
        psp_log_err("%s: torn tail of %llu bytes behind byte %llu\n", path,
                    (unsigned long long)(info.size - info.end), (unsigned long long)info.end);
    }
    psp_freeMem(path, self->tag, __FILE__, __LINE__);
    return rc;
}

static ZYN_RETCODE read_all(context* self)
{
    ZYN_RETCODE rc = segment_list_get(self->dir, self->tag, &self->segments);
    for (uint32_t i = 0; rc == sOKAY && i < self->segments.count; i++)
        rc = read_segment(self, self->segments.numbers[i]);
    return rc;
}

static ZYN_RETCODE dump(context* self)
{
    self->show = ZYN_TRUE;
    return read_all(self);
}

static ZYN_RETCODE verify(context* self)
{
    const ZYN_RETCODE rc = read_all(self);
    if (rc == sOKAY)
        psp_printf("%llu records in %u segments\n", (unsigned long long)self->records,
                   self->segments.count);
    return rc;
}

/* ---- append ---- */

/* The place where the log goes on. */
typedef struct resumption {
    uint32_t number;     /* of the segment */
    PSP_FILE_OFFSET end; /* of its records; 0: the segment is to be made */
    uint64_t last;       /* sequence number of the log's last record */
} resumption;

/* Finds that place. It is in the last segment, or behind it when that has a torn tail; the last
   record may be further back when a crash left no complete one in the last segment. */
static ZYN_RETCODE recover(context* self, resumption* at)
{
    segment_info info = {0};
    ZYN_RETCODE rc = segment_list_get(self->dir, self->tag, &self->segments);
    *at = (resumption){.number = 1};
    for (uint32_t i = self->segments.count; rc == sOKAY && i > 0 && info.records == 0; i--) {
        char* path = segment_path(self->dir, self->segments.numbers[i - 1], self->tag);
        if (path == NULL)
            return eNOMEMORY;
        rc = segment_read(self->reader, path, NULL, NULL, &info);
        psp_freeMem(path, self->tag, __FILE__, __LINE__);
        at->last = info.last;
        if (i < self->segments.count)
            continue;
        const ZYN_BOOL_T whole = info.end == info.size && info.end != 0;
        at->number = self->segments.numbers[i - 1] + (whole ? 0 : 1);
        at->end = whole ? info.end : 0;
    }
    return rc;
}

/* Takes "<3>" off the line; a line that does not begin so has the default priority. */
static const char* parse_priority(const char* line, int16_t* priority)
{
    int32_t value;
    const char* close = strchr(line, '>');
    *priority = DEFAULT_PRIORITY;
    if (line[0] != '<' || close == NULL)
        return line;
    char digits[8];
    psp_strncpyZ(digits, line + 1, sizeof digits);
    char* end = strchr(digits, '>');
    if (end == NULL)
        return line;
    *end = '\0';
    /* psp_atoi32() alone would take "5 km" for 5, and the text with it. */
    const char* number = digits + (digits[0] == '-');
    if (number[strspn(number, "0123456789")] != '\0')
        return line;
    if (psp_atoi32(digits, &value) != sOKAY || value < INT16_MIN || value > INT16_MAX)
        return line;
    *priority = (int16_t)value;
    return close + 1;
}

static ZYN_RETCODE append_line(context* self, segment_writer* writer, const char* line)
{
    record* rec = psp_poolGetMem(self->pool, sizeof *rec, PSP_MEM_PLAIN, NULL, __FILE__, __LINE__);
    if (rec == NULL)
        return eNOMEMORY;
    const char* text = parse_priority(line, &rec->priority);
    rec->sequence = self->last + 1;
    rec->millis = psp_timeMilliSecs();
    ZYN_RETCODE rc = record_set_text(rec, text, (uint32_t)strcspn(text, "\n"));
    if (rc == sOKAY)
        rc = segment_write(writer, rec);
    if (rc == sOKAY) {
        self->last++;
        self->records++;
    }
    psp_poolPut(self->pool, rec);
    return rc;
}

/* Says that records were appended once they are durable, and not when that failed. */
static ZYN_RETCODE acknowledge(const context* self, segment_writer* writer)
{
    const ZYN_RETCODE rc = segment_writer_sync(writer);
    if (rc == sOKAY)
        psp_printf("appended %llu records up to number %llu\n", (unsigned long long)self->records,
                   (unsigned long long)self->last);
    return rc;
}

static ZYN_RETCODE append_lines(context* self, segment_writer* writer)
{
    char* line = NULL;
    uint32_t room = 0;
    ZYN_RETCODE rc = sOKAY;
    PSP_FILE_STREAM input = psp_fopenStd("stdin");
    if (input == NULL)
        return eFILEOPEN;
    while (rc == sOKAY && psp_fGetLine(input, &line, &room, self->tag) != NULL)
        rc = append_line(self, writer, line);
    psp_fclose(input);
    psp_freeMem(line, self->tag, __FILE__, __LINE__);
    /* Also after a failure: what was appended before it is to be kept. */
    const ZYN_RETCODE kept = acknowledge(self, writer);
    return rc == sOKAY ? kept : rc;
}

static ZYN_RETCODE append_locked(context* self)
{
    resumption at;
    segment_writer* writer;
    ZYN_RETCODE rc = recover(self, &at);
    if (rc != sOKAY)
        return rc;
    self->last = at.last;
    rc = segment_writer_create(self->tag, self->dir, at.number, at.end, &writer);
    if (rc != sOKAY)
        return rc;
    rc = append_lines(self, writer);
    segment_writer_destroy(writer);
    return rc;
}

/* One writer at a time: the lock lies on a file of its own and ends with the process. */
static ZYN_RETCODE append(context* self)
{
    ZYN_RETCODE rc = psp_dirCreateAll(self->dir);
    if (rc != sOKAY && rc != sDUPLICATE)
        return rc;
    char* path = psp_makeStrVA(__FILE__, __LINE__, self->tag, "%s/lock", self->dir);
    if (path == NULL)
        return eNOMEMORY;
    PSP_FH lock = psp_fileOpen(path, O_RDWR | O_CREAT, 0);
    psp_freeMem(path, self->tag, __FILE__, __LINE__);
    if (lock == NULL)
        return eFILEOPEN;
    rc = psp_fileLock(lock);
    if (rc == sOKAY)
        rc = append_locked(self);
    psp_fileClose(lock);
    return rc;
}

/* ---- Command line ---- */

typedef struct command {
    const char* name;
    ZYN_RETCODE (*run)(context* self);
    int torn_status; /* exit status when a torn tail was met */
} command;

static const command commands[] = {
    {"append", append, 0},
    {"dump", dump, 0},
    {"verify", verify, 3},
};

static int run(const command* cmd, const char* dir, PSP_MEMTAG tag)
{
    context self = {.dir = dir, .tag = tag};
    ZYN_RETCODE rc = record_pool(tag, &self.pool);
    if (rc == sOKAY)
        rc = segment_reader_create(tag, self.pool, &self.reader);
    if (rc == sOKAY)
        rc = cmd->run(&self);
    segment_reader_destroy(self.reader);
    psp_poolDestroy(self.pool);
    if (rc != sOKAY) {
        psp_log_err("recordlog: %s failed with code %d\n", cmd->name, rc);
        return 1;
    }
    return self.torn ? cmd->torn_status : 0;
}

static const command* find(int argc, char** argv)
{
    for (size_t i = 0; argc == 3 && i < sizeof commands / sizeof *commands; i++) {
        if (strcmp(argv[1], commands[i].name) == 0)
            return &commands[i];
    }
    return NULL;
}

int main(int argc, char** argv)
{
    int status = 2;
    const command* cmd = find(argc, argv);
    if (psp_init() != sOKAY)
        return 1;
    PSP_MEMTAG tag = psp_createTagEx(NULL, 0, BLOCK_ALLOCATOR, NULL, NULL, __FILE__, __LINE__);
    if (cmd == NULL)
        psp_log_err("usage: recordlog append|dump|verify DIR\n");
    else
        status = tag != NULL ? run(cmd, argv[2], tag) : 1;
    psp_freeTagMem(tag, ZYN_TRUE, __FILE__, __LINE__);
    psp_term();
    return status;
}

/* A process to be looked at: tags of all four allocators, mutexes held and waited for in two
 * threads, open files, streams and output stacks. It prints what it knows of them, one fact a line,
 * calls scene_ready() and then waits for the end of its standard input.
 * usage: scene DIRECTORY [deadlocked|unstarted|stopped] */
#include <fcntl.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "psp.h"

enum { STACK_SIZE = 128 * 1024 }; /* of a thread; it goes into the core dump */

static PSP_SEM outer, inner, gate, open_gate;
static atomic_int holder, waiter; /* the kernel's ids of the two threads */

void scene_ready(void);

__attribute__((noinline)) void scene_ready(void)
{
    __asm__ volatile("");
}

static void check(int good, const char* what)
{
    if (good)
        return;
    fprintf(stderr, "scene: %s\n", what);
    exit(2);
}

/* ---- Tags ---- */

static void tell_tag(const char* name, PSP_MEMTAG tag, unsigned blocks)
{
    PSP_TAG_MEM_INFO info;
    psp_getTagMemInfo(tag, &info);
    printf("tag %s %p %u %zu %zu %zu %zu %zu %zu\n", name, (void*)tag, blocks, info.used.current,
           info.used.max, info.free.current, info.free.max, info.overhead.current,
           info.overhead.max);
}

static PSP_MEMTAG make_tag(PSP_ALLOCATOR_TYPE type, int16_t flags, jmp_buf* jump)
{
    PSP_MEMTAG tag = psp_createTagEx(jump, flags, type, NULL, NULL, __FILE__, __LINE__);
    check(tag != NULL, "no tag");
    return tag;
}

/* Blocks of many sizes, every third of which is freed again where the allocator can. */
static unsigned fill(PSP_MEMTAG tag, int frees)
{
    static const size_t sizes[] = {1, 16, 17, 100, 128, 1000, 4000, 8192, 8193, 100000};
    unsigned live = 0;
    for (unsigned i = 0; i < 300; ++i) {
        const size_t size = sizes[i % (sizeof sizes / sizeof *sizes)];
        void* block = psp_getMem(size, tag, PSP_MEM_PLAIN, NULL, __FILE__, __LINE__);
        check(block != NULL, "no block");
        memset(block, 0x5A, size);
        ++live;
        if (frees && i % 3 == 1) {
            psp_freeMem(block, tag, __FILE__, __LINE__);
            --live;
        }
    }
    return live;
}

static void make_tags(void)
{
    static jmp_buf jump;
    PSP_MEMTAG block = make_tag(BLOCK_ALLOCATOR, 1, NULL);
    PSP_MEMTAG list = make_tag(LIST_ALLOCATOR, 0, &jump);
    PSP_MEMTAG stack = make_tag(STACK_ALLOCATOR, 0, NULL);
    PSP_MEMTAG legacy = make_tag(LEGACY_ALLOCATOR, 0, NULL);
    tell_tag("block", block, fill(block, 1));
    tell_tag("list", list, fill(list, 1));
    tell_tag("stack", stack, fill(stack, 0));
    tell_tag("legacy", legacy, fill(legacy, 1));
    printf("jump %p\n", (void*)&jump);
}

/* ---- Locks ---- */

/* Waits at an event that nobody signals. */
static ZYN_RETCODE wait_at_gate(void* global)
{
    memset(global, 0, 1);
    atomic_store(&holder, (int)syscall(SYS_gettid));
    return psp_syncWait(gate, PSP_SYNC_FOREVER);
}

/* Holds one mutex, and the library's own of the named globals: that is held over the call that
 * makes one. */
static ZYN_RETCODE hold_outer(void* arg)
{
    void* global = NULL;
    psp_syncEnterExcl(outer);
    psp_globalGet("scene", 1, wait_at_gate, NULL, &global);
    atomic_store(&holder, (int)syscall(SYS_gettid));
    psp_syncEnterExcl(inner);
    return *(ZYN_RETCODE*)arg;
}

/* Holds another one three times and waits for the first. */
static ZYN_RETCODE hold_inner(void* arg)
{
    for (int i = 0; i < 3; ++i)
        psp_syncEnterExcl(inner);
    atomic_store(&waiter, (int)syscall(SYS_gettid));
    psp_syncEnterExcl(outer);
    return *(ZYN_RETCODE*)arg;
}

/* Neither thread has anything to sleep for but what it is to wait for. */
static void await_sleep(atomic_int* thread)
{
    char path[64], line[512];
    const char* state = NULL;
    do {
        usleep(1000);
        snprintf(path, sizeof path, "/proc/self/task/%d/stat", atomic_load(thread));
        FILE* file = fopen(path, "r");
        state = file != NULL && fgets(line, sizeof line, file) != NULL ? strrchr(line, ')') : NULL;
        if (file != NULL)
            fclose(file);
    } while (state == NULL || state[2] != 'S');
}

static void make_locks(void)
{
    static ZYN_RETCODE result = sOKAY;
    static psp_thread_t threads[2];
    PSP_SEM gone = psp_syncCreate_check(PSP_SEM_MUTEX, __FILE__, __LINE__);
    outer = psp_syncCreate_check(PSP_SEM_MUTEX, __FILE__, __LINE__);
    inner = psp_syncCreate_check(PSP_SEM_MUTEX, __FILE__, __LINE__);
    gate = psp_syncCreate_check(PSP_SEM_EVENT, __FILE__, __LINE__);
    open_gate = psp_syncCreate_check(PSP_SEM_EVENT, __FILE__, __LINE__);
    psp_syncDelete(gone);
    psp_syncStart(gate);
    check(psp_threadBegin(hold_outer, STACK_SIZE, &result, "outer", &threads[0]) == sOKAY,
          "no thread");
    await_sleep(&holder);
    check(psp_threadBegin(hold_inner, STACK_SIZE, &result, "inner", &threads[1]) == sOKAY,
          "no thread");
    await_sleep(&waiter);
    printf("lock outer %p 1 %d\n", (void*)outer, atomic_load(&holder));
    printf("lock inner %p 3 %d\n", (void*)inner, atomic_load(&waiter));
    printf("event gate %p\nevent open_gate %p\n", (void*)gate, (void*)open_gate);
}

/* Lets the holder of the first mutex wait for the other one. */
static void deadlock(void)
{
    atomic_store(&holder, 0);
    psp_syncResume(gate);
    await_sleep(&holder);
}

/* ---- Files, streams, stacks ---- */

/* Blocks of the global tag as long as the records of a stream and its cache, which lead to no
 * file. */
static void make_decoys(void)
{
    void** cache = psp_getMem(1072, PSP_GLOBAL_TAG, PSP_MEM_ZERO, NULL, __FILE__, __LINE__);
    void** stream = psp_getMem(128, PSP_GLOBAL_TAG, PSP_MEM_ZERO, NULL, __FILE__, __LINE__);
    cache[3] = stream;
    stream[0] = cache;
}

static void make_files(void)
{
    make_decoys();
    PSP_FH gone = psp_fileOpen("gone", O_RDWR | O_CREAT, 0);
    PSP_FH data = psp_fileOpen("data", O_RDWR | O_CREAT, PSP_XFLAG_NOSYNC);
    check(gone != NULL && data != NULL, "no file");
    psp_fileClose(gone);
    /* A name as long as a record of a file. */
    PSP_FH record = psp_fileOpen("a-name-that-has-as-many-bytes-as-a-record-has--",
                                 O_WRONLY | O_CREAT | O_APPEND, 0);
    PSP_FILE_STREAM text = psp_fopen("text", "w", PSP_FILE_MODE_UTF16);
    check(record != NULL && text != NULL, "no stream");
    psp_fputs("written", text);
    psp_fflush(text);
    psp_fputs("not", text);
    PSP_FILE_STREAM lines = psp_fopen("scene.lines", "w", PSP_FILE_MODE_UTF8);
    psp_fputs("first\nsecond\n", lines);
    psp_fclose(lines);
    lines = psp_fopen("scene.lines", "r", PSP_FILE_MODE_UTF8);
    check(psp_fgetc(lines) == 'f', "no text");
    psp_fungetc('F', lines);
    check(psp_log_openEx(NULL, "scene.log") == sOKAY && psp_log_openEx(NULL, "") == sOKAY &&
              psp_log_openEx(NULL, "SCENE.LOG") == sOKAY,
          "no log");
    printf("file data %p\nfile record %p\n", (void*)data, (void*)record);
    printf("stream text %p\nstream lines %p\n", (void*)text, (void*)lines);
}

int main(int argc, char** argv)
{
    check(argc > 1 && chdir(argv[1]) == 0, "no directory");
    const char* kind = argc > 2 ? argv[2] : "";
    if (strcmp(kind, "unstarted") != 0)
        check(psp_init() == sOKAY, "no start");
    if (strcmp(kind, "stopped") == 0)
        psp_term();
    if (argc == 2 || strcmp(kind, "deadlocked") == 0) {
        make_tags();
        make_locks();
        make_files();
    }
    if (strcmp(kind, "deadlocked") == 0)
        deadlock();
    fflush(stdout);
    scene_ready();
    while (getchar() != EOF)
        ;
    _exit(0);
}

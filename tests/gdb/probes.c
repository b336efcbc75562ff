/* Runs past every static probe. What each must tell stands on the standard output beforehand, one
 * line a probe that begins with "fired". */
#include <fcntl.h>
#include <stdatomic.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "psp.h"

#define HUGE_SIZE ((size_t)5 << 30) /* more than any allocator gives */

static PSP_SEM mutex;
static atomic_int waiter; /* the kernel's id of the thread that waits */

void probes_begin(void);

__attribute__((noinline)) void probes_begin(void)
{
    __asm__ volatile("");
}

static void* get(size_t size, PSP_MEMTAG tag)
{
    return psp_getMem(size, tag, PSP_MEM_PLAIN, NULL, __FILE__, __LINE__);
}

/* Each of the ways on which a tag has no memory: the allocator has none left, or gives none so
 * large, to resize or to move a block. */
static void fail_to_allocate(void)
{
    PSP_MEMTAG full = psp_createTagEx(NULL, 0, LIST_ALLOCATOR, NULL, NULL, __FILE__, __LINE__);
    PSP_MEMTAG other = psp_createTagEx(NULL, 0, LIST_ALLOCATOR, NULL, NULL, __FILE__, __LINE__);
    void* block = get(100000, other);
    printf("fired alloc_fail %d %p\n", 100000, (void*)full);
    while (get(100000, full) != NULL)
        ;
    printf("fired alloc_fail %zu %p\n", HUGE_SIZE, (void*)other);
    get(HUGE_SIZE, other);
    printf("fired alloc_fail %zu %p\n", HUGE_SIZE, (void*)other);
    psp_extendMem(block, HUGE_SIZE, other, PSP_MEM_PLAIN, 0, NULL, __FILE__, __LINE__);
    printf("fired alloc_fail %d %p\n", 99999, (void*)full);
    psp_moveMem(block, 99999, full, other, __FILE__, __LINE__);
    psp_freeTagMem(full, ZYN_TRUE, __FILE__, __LINE__);
    psp_freeTagMem(other, ZYN_TRUE, __FILE__, __LINE__);
}

static ZYN_RETCODE enter(void* arg)
{
    atomic_store(&waiter, (int)syscall(SYS_gettid));
    psp_syncEnterExcl(mutex);
    psp_syncExitExcl(mutex);
    return *(ZYN_RETCODE*)arg;
}

/* Until the other thread sleeps: it has nothing to sleep for but the mutex. */
static void await_sleep(void)
{
    char path[64], line[512];
    const char* state = NULL;
    do {
        usleep(1000);
        snprintf(path, sizeof path, "/proc/self/task/%d/stat", atomic_load(&waiter));
        FILE* file = fopen(path, "r");
        state = file != NULL && fgets(line, sizeof line, file) != NULL ? strrchr(line, ')') : NULL;
        if (file != NULL)
            fclose(file);
    } while (state == NULL || state[2] != 'S');
}

static void contend(void)
{
    ZYN_RETCODE result = sOKAY;
    psp_thread_t thread;
    mutex = psp_syncCreate_check(PSP_SEM_MUTEX, __FILE__, __LINE__);
    psp_syncEnterExcl(mutex); /* nobody has it: no probe */
    printf("fired lock_wait %p %#lx\n", (void*)mutex, (unsigned long)psp_threadId());
    printf("fired lock_got %p\n", (void*)mutex);
    psp_threadBegin(enter, 0, &result, "waiter", &thread);
    await_sleep();
    psp_syncExitExcl(mutex);
    psp_threadJoin(&thread);
}

static void use_files(void)
{
    printf("fired file_open nowhere/file 0 %d %d\n", O_RDONLY, ePSP_FAILURE);
    PSP_FH file = psp_fileOpen("nowhere/file", O_RDONLY, 0);
    const int next = dup(0); /* the descriptor that the file gets */
    close(next);
    const unsigned flags = O_RDWR | O_CREAT;
    printf("fired file_open data %d %u %d\n", next, flags, sOKAY);
    file = psp_fileOpen("data", flags, 0);
    printf("fired file_sync data %d %d\n", next, sOKAY);
    psp_fileSync(file);
    printf("fired file_close data %d %d\n", next, sOKAY);
    psp_fileClose(file);
    printf("fired file_sync . %d %d\n", next, sOKAY);
    psp_dirSync(".");
}

static void log_lines(void)
{
    psp_stdout_openEx(NULL, ""); /* what is logged does not mix with what stands here */
    printf("fired log_line 7 rows;6\n");
    psp_log("%d rows", 7);
    printf("fired log_line ;0\n");
    psp_log_err("%s", ""); /* an empty line is one, too */
    printf("fired log_line in pieces;9\n");
    PSP_LOG_CHUNK chunk = psp_log_chunk_init();
    psp_log_chunk(chunk, "in ");
    psp_log_chunk_end(chunk, "%s", "pieces");
}

int main(int argc, char** argv)
{
    if (argc != 2 || chdir(argv[1]) != 0)
        return 2;
    psp_setMemLimit(NULL, 8 << 20);
    if (psp_init() != sOKAY)
        return 2;
    probes_begin();
    fail_to_allocate();
    contend();
    use_files();
    log_lines();
    fflush(stdout);
    _exit(0);
}

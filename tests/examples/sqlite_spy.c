/*
 * Preloaded into a process, ends it when the SQLite library itself calls the operating system, the
 * heap or a mutex: status 86, the function's name on the standard error.
 *
 * Before the program starts, every reference of the SQLite library to such a function, in its jump
 * slots and in its tables of function pointers, is redirected to a trap. No other library's
 * references are touched, so it does not matter who else calls them, nor from where.
 */
#define _GNU_SOURCE
#include <elf.h>
#include <link.h>
#include <stdint.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

enum { caught = 86, no_sqlite = 87 };

static void say(const char* text)
{
    const ssize_t ignored = write(2, text, strlen(text));
    (void)ignored;
}

/* Everything that is forbidden: X(function). */
/* clang-format off */
#define FORBIDDEN(X)                                                                               \
    X(malloc) X(calloc) X(realloc) X(free)                                                         \
    X(open64) X(close) X(read) X(write) X(pread64) X(pwrite64) X(ftruncate64) X(fsync)             \
    X(fdatasync) X(fcntl64) X(fstat64) X(stat64) X(lstat64) X(access) X(unlink) X(mkdir) X(rmdir)  \
    X(getcwd) X(readlink) X(utime) X(fchmod) X(fchown) X(mmap64) X(mremap) X(munmap)               \
    X(gettimeofday) X(time) X(usleep) X(sleep) X(getpid) X(geteuid)                                \
    X(dlopen) X(dlsym) X(dlclose) X(dlerror)                                                       \
    X(pthread_create) X(pthread_join) X(pthread_mutex_init) X(pthread_mutex_destroy)               \
    X(pthread_mutex_lock) X(pthread_mutex_trylock) X(pthread_mutex_unlock)
/* clang-format on */

#define TRAP(function)                                                                             \
    static void trap_##function(void)                                                              \
    {                                                                                              \
        say("SQLite called " #function "\n");                                                      \
        _exit(caught);                                                                             \
    }
FORBIDDEN(TRAP)

typedef struct Row {
    const char* name;
    void (*trap)(void);
} Row;

#define ROW(function) {#function, trap_##function},
static const Row rows[] = {FORBIDDEN(ROW)};

/* The parts of a loaded library that its references are found with. */
typedef struct Library {
    uintptr_t base;
    const Elf64_Sym* symbols;
    const char* names;
    const Elf64_Rela* tables[2]; /* data, jump slots */
    size_t sizes[2];             /* in bytes */
} Library;

static Library read_dynamic_section(const struct dl_phdr_info* info, const Elf64_Dyn* entry)
{
    Library library = {.base = info->dlpi_addr};
    for (; entry->d_tag != DT_NULL; entry++) {
        const void* address = (const void*)entry->d_un.d_ptr;
        switch (entry->d_tag) {
        case DT_SYMTAB:
            library.symbols = address;
            break;
        case DT_STRTAB:
            library.names = address;
            break;
        case DT_RELA:
            library.tables[0] = address;
            break;
        case DT_RELASZ:
            library.sizes[0] = entry->d_un.d_val;
            break;
        case DT_JMPREL:
            library.tables[1] = address;
            break;
        case DT_PLTRELSZ:
            library.sizes[1] = entry->d_un.d_val;
            break;
        default:
            break;
        }
    }
    return library;
}

/* The references may lie in memory that was made read-only once the library was loaded. */
static void replace(uintptr_t at, void (*trap)(void))
{
    const uintptr_t page = (uintptr_t)sysconf(_SC_PAGESIZE);
    if (mprotect((void*)(at & ~(page - 1)), page, PROT_READ | PROT_WRITE) == 0)
        memcpy((void*)at, &trap, sizeof trap);
}

static void redirect(const Library* library, const Elf64_Rela* reference)
{
    const uint64_t type = ELF64_R_TYPE(reference->r_info);
    if (type != R_X86_64_JUMP_SLOT && type != R_X86_64_GLOB_DAT && type != R_X86_64_64)
        return;
    const Elf64_Sym* symbol = library->symbols + ELF64_R_SYM(reference->r_info);
    if (symbol->st_shndx != SHN_UNDEF)
        return;
    for (size_t i = 0; i < sizeof rows / sizeof rows[0]; i++) {
        if (strcmp(library->names + symbol->st_name, rows[i].name) == 0)
            replace(library->base + reference->r_offset, rows[i].trap);
    }
}

static int set_traps(struct dl_phdr_info* info, size_t size, void* data)
{
    (void)size;
    (void)data;
    if (strstr(info->dlpi_name, "/libsqlite3.so") == NULL)
        return 0;
    for (int i = 0; i < info->dlpi_phnum; i++) {
        if (info->dlpi_phdr[i].p_type != PT_DYNAMIC)
            continue;
        const uintptr_t dynamic = info->dlpi_addr + info->dlpi_phdr[i].p_vaddr;
        const Library library = read_dynamic_section(info, (const Elf64_Dyn*)dynamic);
        for (int table = 0; table < 2; table++) {
            for (size_t at = 0; at < library.sizes[table] / sizeof(Elf64_Rela); at++)
                redirect(&library, library.tables[table] + at);
        }
        return 1;
    }
    return 0;
}

__attribute__((constructor)) static void start(void)
{
    if (dl_iterate_phdr(set_traps, NULL) != 0)
        return;
    say("the spy finds no SQLite library\n");
    _exit(no_sqlite);
}

// A process that knows no library but the system's own, and what one of them costs it:
//
//     fresh load LIBRARY N     to load and unload it, N times
//     fresh first LIBRARY 1    to start it for the first time
//     fresh again LIBRARY N    to start and stop it, N times after a first time
//
// prints the nanoseconds. The name of the file tells how a library is started.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <dlfcn.h>

namespace {

[[noreturn]] void fail(const char* why)
{
    std::fprintf(stderr, "fresh: %s\n", why);
    std::exit(1);
}

void* load(const char* path)
{
    void* const library = dlopen(path, RTLD_LAZY | RTLD_LOCAL);
    if (library == nullptr)
        fail(dlerror());
    return library;
}

template <class Function>
void find(void* library, const char* name, Function& function)
{
    function = reinterpret_cast<Function>(dlsym(library, name));
    if (function == nullptr)
        fail(dlerror());
}

double now()
{
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

// ---- How each is started and stopped ----

int (*psp_start)();
void (*psp_stop)();
int (*apr_start)();
int (*apr_create_pool)(void** pool, void* parent, void* abort_function, void* allocator);
void (*apr_stop)();
void (*nspr_start)(int type, int priority, unsigned threads);
int (*nspr_stop)();

struct Kind {
    const char* part_of_name;
    void (*find_all)(void* library);
    bool (*start)();
    bool (*use)(); // what a program cannot do without; nullptr when the start has done it
    void (*stop)();
};

const Kind kinds[] = {
    {"psp",
     [](void* library) {
         find(library, "psp_init", psp_start);
         find(library, "psp_term", psp_stop);
     },
     [] { return psp_start() == 0; }, nullptr, [] { psp_stop(); }},
    {"apr",
     [](void* library) {
         find(library, "apr_initialize", apr_start);
         find(library, "apr_pool_create_ex", apr_create_pool);
         find(library, "apr_terminate", apr_stop);
     },
     [] { return apr_start() == 0; },
     [] {
         void* pool = nullptr;
         return apr_create_pool(&pool, nullptr, nullptr, nullptr) == 0;
     },
     [] { apr_stop(); }},
    {"nspr",
     [](void* library) {
         find(library, "PR_Init", nspr_start);
         find(library, "PR_Cleanup", nspr_stop);
     },
     [] {
         nspr_start(0, 1, 0);
         return true;
     },
     nullptr, [] { nspr_stop(); }},
};

const Kind& kind_of(const char* path)
{
    const char* const slash = std::strrchr(path, '/');
    const char* const name = slash != nullptr ? slash + 1 : path;
    for (const Kind& kind : kinds)
        if (std::strstr(name, kind.part_of_name) != nullptr)
            return kind;
    fail("a library of no known kind");
}

// ---- What is timed ----

double time_loads(const char* path, int n)
{
    const double begin = now();
    for (int i = 0; i < n; ++i)
        dlclose(load(path));
    return now() - begin;
}

double time_first(const Kind& kind)
{
    const double begin = now();
    if (!kind.start() || (kind.use != nullptr && !kind.use()))
        fail("no start");
    return now() - begin;
}

double time_again(const Kind& kind, int n)
{
    time_first(kind);
    kind.stop();
    const double begin = now();
    for (int i = 0; i < n; ++i) {
        if (!kind.start())
            fail("no start");
        kind.stop();
    }
    return now() - begin;
}

double time_starts(const char* path, bool first, int n)
{
    const Kind& kind = kind_of(path);
    kind.find_all(load(path));
    return first ? time_first(kind) : time_again(kind, n);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 4)
        fail("load, first or again; a library; a number");
    const int n = std::atoi(argv[3]);
    const bool only_load = std::strcmp(argv[1], "load") == 0;
    const bool first = std::strcmp(argv[1], "first") == 0;
    std::printf("%.0f\n", only_load ? time_loads(argv[2], n) : time_starts(argv[2], first, n));
    return 0;
}

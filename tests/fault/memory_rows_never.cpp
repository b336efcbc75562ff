// The functions that take no memory, each with a call that does its usual work. What such a call
// needs is made beforehand.
//
// Two of them can be made to allocate all the same: whatever names PSP_THREAD_TAG in a thread
// without a tag makes that tag, psp_freeMem too (the row of psp_resetTag), and closing a file after
// the registry lost its names makes the file layer's tag anew (the rows of psp_globalGet).
#include "fault/faults.h"
#include "memory_rows.h"
#include "support/file_test.h"
#include "support/mem_test.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstring>

#include <pthread.h>

namespace psptest {
namespace {

// ---- What the calls work on ----

struct Arguments {
    std::string file;
    std::string other;
    std::string new_dir;
    PSP_MEMTAG tag;
    PSP_SEM mutex;
    PSP_SEM event;
    psp_thread_t thread;
    PSP_POOL pool;
    PSP_FH handle;
    PSP_DIR scan;
    PSP_FILE_STREAM stream;
    PSP_LOG_CTX log;
    locale_t locale;
    PSP_INPUTBUFF in;
    PSP_OUTPUTBUFF out;
    PSP_RAND random;
    PSP_MOD_CTX* module;
    PSP_DAEMON_CTX daemon;
    void* block;
    void* object;
    char* rest;
    char bytes[64];
    wchar_t wide[64];
    std::uint32_t number;
    union {
        std::uint16_t u16;
        std::uint32_t u32;
        std::uint64_t u64;
        std::int16_t i16;
        std::int32_t i32;
        std::int64_t i64;
        float f32;
        double f64;
        std::size_t size;
        std::uintmax_t max;
        PSP_FILE_OFFSET offset;
        ZYN_BOOL_T flag;
        VOID_FCN function;
    } value;
    struct tm parts;
    ZYN_OUTPUT_BUFF text;
};

Arguments a;

pthread_mutex_t plain_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t plain_condition = PTHREAD_COND_INITIALIZER;

ZYN_RETCODE end_at_once(void*)
{
    return sOKAY;
}

std::int32_t serve(std::int32_t, const char**)
{
    return 0;
}

ZYN_RETCODE zeros(const void*, void* buf, std::uint32_t size, std::uint32_t* len, std::uint32_t)
{
    std::memset(buf, 0, *len = size);
    return sOKAY;
}

ZYN_RETCODE swallow(const void*, const void*, std::uint32_t)
{
    return sOKAY;
}

ZYN_RETCODE swallow_byte(ZYN_OUTPUT_CTX, std::uint32_t)
{
    return sOKAY;
}

ZYN_RETCODE give_byte(ZYN_INPUT_CTX, std::uint32_t* byte)
{
    *byte = 5;
    return sOKAY;
}

// Calls one of the functions that take a list of arguments.
template <class Function>
void with_list(Function function, ...)
{
    va_list args;
    va_start(args, function);
    function(args);
    va_end(args);
}

// Text to be changed in place.
char* fresh_text()
{
    return std::strcpy(a.bytes, "Some text");
}

} // namespace

void lay_out_arguments(const std::string& dir)
{
    Fault::replace(
        "dlopen", +[](const char*, int) -> void* { return &a; });
    Fault::replace(
        "dlclose", +[](void*) { return 0; });
    Fault::replace(
        "dlsym", +[](void*, const char*) -> void* { return nullptr; });
    a.file = dir + "/file";
    a.other = dir + "/other";
    a.new_dir = dir + "/new";
    write_file(a.other, "one line\nand more");
    a.tag = make_tag();
    a.block = get(10, PSP_GLOBAL_TAG);
    a.mutex = psp_syncCreate_check(PSP_SEM_MUTEX, __FILE__, __LINE__);
    a.event = psp_syncCreate_check(PSP_SEM_EVENT, __FILE__, __LINE__);
    ASSERT_EQ(psp_threadBeginEx(end_at_once, 0, nullptr, &a.thread, 0, nullptr), sOKAY);
    ASSERT_EQ(
        psp_poolCreateEx(nullptr, PSP_POOL_FIXED_SIZE, "lock", nullptr, nullptr, nullptr, &a.pool),
        sOKAY);
    a.object = psp_poolGetMem(a.pool, 10, 1, nullptr, __FILE__, __LINE__);
    a.handle = psp_fileOpen(a.file.c_str(), O_RDWR | O_CREAT, 0);
    ASSERT_EQ(psp_fileLock(a.handle), sOKAY);
    a.scan = psp_pathOpen(dir.c_str(), "*");
    a.stream = psp_fopen(a.other.c_str(), "r+", PSP_FILE_MODE_UTF8);
    ASSERT_EQ(psp_log_initCtx(&a.log), sOKAY);
    ASSERT_EQ(psp_log_openEx(&a.log, ""), sOKAY);
    ASSERT_EQ(psp_stdout_openEx(&a.log, ""), sOKAY);
    a.locale = psp_createlocale(LC_ALL_MASK, "C");
    ASSERT_EQ(psp_inputBuffCreate(zeros, nullptr, 0, &a.in), sOKAY);
    ASSERT_EQ(psp_outputBuffCreate(swallow, nullptr, 0, &a.out), sOKAY);
    a.random = psp_randCreateNoSem(1);
    ASSERT_EQ(psp_load("name", &a.module), sOKAY);
    const int fd = open("/dev/null", O_WRONLY);
    a.daemon = reinterpret_cast<PSP_DAEMON_CTX>(static_cast<std::intptr_t>(fd));
    psp_utf8BuffInit(&a.text, a.bytes, sizeof a.bytes);
}

#define CALL(function, ...)                                                                        \
    {                                                                                              \
#function, [] { static_cast<void>(function(__VA_ARGS__)); }                                \
    }
#define CALL_WITH_LIST(function, ...)                                                              \
    {                                                                                              \
#function, [] { with_list([](va_list args) { function(__VA_ARGS__, args); }, 7); }         \
    }

const std::vector<NeverAllocates>& never_allocating()
{
    // clang-format off
    static const std::vector<NeverAllocates> rows = {
        // Start and stop, locks, threads.
        CALL(psp_version, &a.value.i16, nullptr, nullptr),
        CALL(psp_errno),
        CALL(psp_errPrint, ""),
        CALL(psp_enterCritSec),
        CALL(psp_exitCritSec),
        CALL(psp_syncEnterExcl, a.mutex),
        CALL(psp_syncExitExcl, a.mutex),
        CALL(psp_syncWait, a.event, PSP_SYNC_FOREVER),
        CALL(psp_syncStart, a.event),
        CALL(psp_syncResume, a.event),
        CALL(psp_syncDelete, a.event),
        {"psp_posix_cond_timedwait",
         [] {
             pthread_mutex_lock(&plain_mutex);
             psp_posix_cond_timedwait(&plain_condition, &plain_mutex, 0);
             pthread_mutex_unlock(&plain_mutex);
         }},
        CALL(psp_threadJoin, &a.thread),
        CALL(psp_threadId),
        CALL(psp_atomicIncrUInt32, &a.number),
        CALL(psp_atomicDecrUInt32, &a.number),
        CALL(psp_atomicSetUInt32, &a.number, 0, 0),
        // Memory.
        CALL(psp_freeMem, a.block, PSP_GLOBAL_TAG, __FILE__, __LINE__),
        CALL(psp_freeTagMem, a.tag, ZYN_TRUE, __FILE__, __LINE__),
        CALL(psp_setMemLimit, nullptr, 0),
        CALL(psp_getMemUsage, &a.value.size, nullptr),
        CALL(psp_memReport, 0, nullptr),
        CALL(psp_poolSetMaxPooled, a.pool, 5),
        CALL(psp_poolPut, a.pool, a.object),
        CALL(psp_poolDestroy, a.pool),
        // Files.
        CALL(psp_fileWrite, a.handle, "text", 4),
        CALL(psp_fileSeekWrite, a.handle, 2, "text", 4),
        CALL(psp_fileConsoleWrite, a.handle, "text", 4),
        CALL(psp_fileSeek, a.handle, 0, SEEK_SET, &a.value.offset),
        CALL(psp_fileRead, a.handle, a.bytes, 4),
        CALL(psp_fileSeekRead, a.handle, 0, a.bytes, 4),
        CALL(psp_fileConsoleRead, a.handle, a.bytes, 4),
        CALL(psp_fileLength, a.handle),
        CALL(psp_fileSetSize, a.handle, 2),
        CALL(psp_fileSync, a.handle),
        CALL(psp_filePageOut, a.handle, 0, 2),
        CALL(psp_fileMap, a.handle, 2, nullptr),
        CALL(psp_fileRemap, a.handle, 2, nullptr, 2, nullptr),
        CALL(psp_fileUnmap, a.handle, 2, nullptr),
        CALL(psp_fileUnlock, a.handle),
        CALL(psp_fileClose, a.handle),
        CALL(psp_pathStripDrive, "a/b"),
        CALL(psp_pathIsDir, "a/b"),
        CALL(psp_dirCreate, a.new_dir.c_str()),
        CALL(psp_dirSync, a.new_dir.c_str()),
        CALL(psp_dirRemove, a.new_dir.c_str()),
        CALL(psp_pathClose, a.scan),
        CALL(psp_match, "name", "n*"),
        CALL(psp_fileValidateEx, a.file.c_str(), 0, &a.value.flag),
        CALL(psp_fileValidate, a.file.c_str()),
        CALL(psp_fileModTimeStat, a.file.c_str(), 0, nullptr),
        CALL(psp_fileRemoveEx, a.file.c_str(), 0),
        CALL(psp_fileRemove, a.file.c_str()),
        CALL(psp_setTmpDir, "/tmp"),
        // Text streams and output.
        CALL(psp_fgetc, a.stream),
        CALL(psp_fungetc, 'x', a.stream),
        CALL(psp_fgets, a.bytes, 40, a.stream),
        CALL(psp_fputc, 'x', a.stream),
        CALL(psp_fputs, "text", a.stream),
        CALL(psp_fflush, a.stream),
        CALL(psp_fsync, a.stream),
        CALL(psp_fIsATTY, a.stream, &a.value.flag),
        CALL(psp_fSetEcho, a.stream, ZYN_TRUE),
        CALL(psp_fIsStdIn, a.stream),
        CALL(psp_fclose, a.stream),
        CALL(psp_log_closeEx, &a.log),
        CALL(psp_stdout_closeEx, &a.log),
        CALL(psp_log_termCtx, &a.log),
        CALL(psp_flush),
        CALL(psp_flushErr),
        // Formatting.
        CALL_WITH_LIST(psp_vfnprintf, swallow_byte, nullptr, "%d"),
        CALL(psp_fnprintf, swallow_byte, nullptr, "%d %f %s", 7, 0.1, "text"),
        CALL_WITH_LIST(psp_vsnprintf, a.bytes, sizeof a.bytes, "%d"),
        CALL(psp_snprintf, a.bytes, sizeof a.bytes, "%d %f %s", 7, 0.1, "text"),
        // UTF-8.
        CALL(psp_utf8_codes, 0x20AC, nullptr),
        CALL(psp_uchar_to_utf8, 0x20AC, reinterpret_cast<std::uint8_t*>(a.bytes), 4),
        CALL(psp_copyUTF8Chars, a.bytes, 10, "text", 4, nullptr, PSP_UTF8_ERROR_BREAK),
        CALL(psp_countUTF8bytes, "text", 4, 0, PSP_UTF8_ERROR_BREAK),
        CALL(psp_countUTF8chars, "text", 4, PSP_UTF8_ERROR_BREAK),
        CALL(psp_utf8_to_wchar, a.wide, "text", 10, PSP_UTF8_ERROR_BREAK),
        CALL(psp_utf8_to_wchar_len, a.wide, 10, "text", 4, PSP_UTF8_ERROR_BREAK),
        CALL(psp_utf8BuffInit, &a.text, a.bytes, sizeof a.bytes),
        CALL(psp_emitCharAsUtf8, &a.text, 'x'),
        CALL(psp_utf8BuffTerm, &a.text),
        CALL(psp_outputString, swallow_byte, nullptr, "text"),
        // Strings.
        CALL(strupr, fresh_text()),
        CALL(strlwr, fresh_text()),
        CALL(psp_strncpyZ, a.bytes, "text", sizeof a.bytes),
        CALL(psp_strtok, fresh_text(), " ", &a.rest),
        CALL(psp_hexdigit, 'c'),
        CALL(psp_freelocale, a.locale),
        CALL(psp_locale_validate_utf8, "en_US.UTF-8"),
        // Numbers.
        CALL(psp_atoi64, "7", &a.value.i64),
        CALL(psp_atoi32, "7", &a.value.i32),
        CALL(psp_atoui64, "7", &a.value.u64),
        CALL(psp_atoui32, "7", &a.value.u32),
        CALL(psp_atof, "7.5"),
        CALL(psp_strtod, "7.5", &a.value.f64),
        CALL(psp_strtof, "7.5", &a.value.f32),
        CALL(psp_round, 7.5),
        CALL(psp_floorf, 7.5F),
        CALL(psp_ceilf, 7.5F),
        CALL(psp_isnan, 7.5, nullptr),
        CALL(psp_isnanf, 7.5F, nullptr),
        CALL(psp_isinff, 7.5F, nullptr),
        CALL(psp_validateDouble, 7.5, nullptr),
        CALL(psp_validateFloat, 7.5F, nullptr),
        // Binary values.
        CALL(psp_vintEncodeUIntmax, 1000, swallow_byte, nullptr),
        CALL(psp_vintDecodeUIntmax, give_byte, nullptr, &a.value.max),
        CALL(psp_vintDecodeUInt32, give_byte, nullptr, &a.value.u32),
        CALL(psp_vintDecodeSize_t, give_byte, nullptr, &a.value.size),
        CALL(psp_vintConvertToUnsigned, -7),
        CALL(psp_vintConvertToSigned, 7),
        CALL(psp_inputBuffGetChar, a.in, a.bytes),
        CALL(psp_inputBuffGetInt16, a.in, &a.value.i16),
        CALL(psp_inputBuffGetInt32, a.in, &a.value.i32),
        CALL(psp_inputBuffGetInt64, a.in, &a.value.i64),
        CALL(psp_inputBuffGetFloat32, a.in, &a.value.f32),
        CALL(psp_inputBuffGetFloat64, a.in, &a.value.f64),
        CALL(psp_inputBuffGetBytes, a.in, a.bytes, sizeof a.bytes),
        CALL(psp_inputBuffGetStringWithLength, a.in, a.bytes, sizeof a.bytes),
        CALL(psp_inputBuffReset, a.in),
        CALL(psp_inputBuffDestroy, a.in),
        CALL(psp_outputBuffSendDirect, a.out, "text", 4),
        CALL(psp_outputBuffFlush, a.out),
        CALL(psp_outputBuffDestroy, a.out),
        CALL(psp_swaporderUInt16, &a.value.u16),
        CALL(psp_swaporderUInt32, &a.value.u32),
        CALL(psp_swaporderUInt64, &a.value.u64),
        CALL(psp_swaporderInt16, &a.value.i16),
        CALL(psp_swaporderInt32, &a.value.i32),
        CALL(psp_swaporderInt64, &a.value.i64),
        CALL(psp_swaporderFloat, &a.value.f32),
        CALL(psp_swaporderDouble, &a.value.f64),
        CALL(psp_bitFirstSet, 7),
        CALL(psp_bitFirstSet64, 7),
        CALL(psp_bitReverse64, 7),
        CALL(psp_align, 7, ALN_INT64),
        CALL(psp_alignBufferSize, 7),
        // Time and random numbers.
        CALL(psp_timeNanoSecs),
        CALL(psp_timeMilliSecs),
        CALL(psp_timeSecs),
        CALL(psp_seed),
        CALL(psp_timeUTC, &a.parts, nullptr),
        CALL(psp_timeLocaltime, 0, &a.parts),
        CALL(psp_sleep, 0),
        CALL(psp_randResetSeed, a.random, 7),
        CALL(psp_randGetUInt32, a.random),
        CALL(psp_randGet, a.random),
        CALL(psp_randGetUInt64, a.random),
        CALL(psp_randGetDouble, a.random),
        CALL(psp_randDestroy, a.random),
        // Processes and modules.
        CALL(psp_daemonComplete, a.daemon, sOKAY),
        CALL(psp_serviceStart, nullptr, nullptr, 0, nullptr, serve),
        CALL(psp_serviceStarted),
        CALL(psp_serviceDone),
        CALL(psp_serviceInstall, "", "", "", "", "", "", "", ""),
        CALL(psp_serviceUninstall, "", ""),
        CALL(psp_get_pid),
        CALL(psp_getcpucount),
        CALL(psp_getenv, "HOME"),
        CALL(psp_getFcnAddr, a.module, "name", &a.value.function),
        CALL(psp_unload, a.module),
        // What cannot be taken back.
        CALL(psp_rdonly),
        CALL(psp_nodisk),
        CALL(psp_term),
    };
    // clang-format on
    return rows;
}

#undef CALL
#undef CALL_WITH_LIST

} // namespace psptest

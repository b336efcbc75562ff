// The output stacks below their public surface: the records of a stack, and what printing and
// logging (psp_log.cpp) use of it.
//
// Nothing here jumps. `exhausted` is set when PSP_GLOBAL_TAG ran out of memory, to be raised once
// no lock is held; a stack's own tag never carries a jump buffer.
#pragma once

#include "psp/output.h"
#include "psptypes.h"

constexpr uint32_t PSP_LOG_CTX_MAGIC = 0x2784ADB1;

// An open destination, shared by all levels of the stack that name it.
struct PSP_FILE_INFO {
    const char* name;     // own copy; NULL for a destination without a file
    PSP_FILE_STREAM file; // NULL for a destination without a file
    uint32_t count;       // levels that lead here
};

struct _psp_file_entry {
    PSP_FILE_INFO* info;   // where it leads
    _psp_file_entry* next; // the level below
};

typedef struct _psp_file_entry PSP_FILE_ENTRY;

// The stack of a kind: the context's, or the process's for NULL.
PSP_FILE_STACK* get_stdout_stack(PSP_LOG_CTX* ctx);
PSP_FILE_STACK* get_stderr_stack(PSP_LOG_CTX* ctx);
PSP_FILE_STACK* get_log_stack(PSP_LOG_CTX* ctx);

// An empty stack, or one with `initname` on it. After a failure nothing is left to be freed.
ZYN_RETCODE psp_fileStackInit(PSP_FILE_STACK* stack, const char* initname, bool* exhausted);

// Pops everything and frees the stack; harmless on a stack that was freed already.
void psp_fileStackTerm(PSP_FILE_STACK* stack);

// Pushes a destination. sOKAY, eNOMEMORY or eFILEOPEN; the stack is as before after a failure.
ZYN_RETCODE psp_fileStackOpen(PSP_FILE_STACK* stack, const char* name, bool* exhausted);
void psp_fileStackClose(PSP_FILE_STACK* stack);

// The stack's mutex. A stack of a library that does not run has none, and needs none.
void psp_fileStackLock(PSP_FILE_STACK* stack);
void psp_fileStackRelease(PSP_FILE_STACK* stack);

// The stream that output goes to, to be used under the mutex. NULL: an empty stack, or a
// destination without a file.
inline PSP_FILE_STREAM psp_fileStackTop(const PSP_FILE_STACK* stack)
{
    return stack->root == nullptr ? nullptr : stack->root->info->file;
}

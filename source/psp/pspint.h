// What the families of the library tell one another behind the public headers: the start and stop
// hooks that the frame calls in its fixed order, allocation that never jumps, and the few calls
// that go up a layer. Everything here is hidden in the shared library.
#pragma once

#include "psp/global.h"
#include "psp/mem.h"
#include "psptypes.h"

// ---- Start and stop: called by psp_init and psp_term only, inside the critical section. ----

void psp_syncInit();     // an empty, usable table of synchronisation objects
void psp_syncShutdown(); // from here on every operation on a handle does nothing

// On failure everything that psp_memInit made is gone again.
ZYN_RETCODE psp_memInit();
void psp_memTerm();

ZYN_RETCODE psp_globalInit(); // ePSP_MUTEX_FAILURE when its mutex cannot be made
void psp_globalTerm();

void psp_osInit();  // descriptor limit, SIGPIPE, clock choice
void psp_tmpTerm(); // frees the cached temporary directory

// The three global output stacks. On failure those already made are gone again.
ZYN_RETCODE psp_outputInit();
void psp_outputTerm();

// ---- Allocation that never jumps. ----
//
// Library code that holds a lock, a descriptor or half-built state allocates with these, undoes
// its work when they give NULL, and then calls psp_memRaise, which jumps if the tag carries a
// jump buffer and returns otherwise. `tag` may be one of the special values.

void* psp_memTryGet(size_t size, PSP_MEMTAG tag, int32_t mode, const void* data);
void* psp_memTryExtend(const void* ptr, size_t newsize, PSP_MEMTAG tag, int32_t mode,
                       size_t incsize, const void* data);
void psp_memRaise(PSP_MEMTAG tag);

// psp_globalGet without the jump; `exhausted` is set when PSP_GLOBAL_TAG ran out of memory.
//
// What it gave stays right until names leave the registry, which psp_globalRemovals counts. It is
// read without a lock.
extern uint64_t psp_globalRemovals;
ZYN_RETCODE psp_globalTryGet(const char* name, size_t size, PSP_GLOBAL_CREATE_FCN create_fcn,
                             PSP_GLOBAL_DELETE_FCN delete_fcn, void** pglobal, bool* exhausted);

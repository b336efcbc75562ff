// The inside of the file layer: the table of primitives through which an open file is reached, the
// record behind a handle, and the few path services that never jump.
//
// A handle chooses its table once, by the file's name, and from then on talks to the operating
// system through that table only. A third kind of file is a third table.
#pragma once

#include "psptypes.h"

// ---- Primitives ----

// A file descriptor, carried in a pointer.
typedef const void* PSP_HANDLE;

// Every primitive returns sOKAY or a code, except unlock, which cannot fail. Sizes and offsets
// are in bytes.
typedef ZYN_RETCODE (*PSP_FILE_OPEN_FCN)(const void* ctx, const char* name, uint32_t flags,
                                         uint16_t xflags, PSP_HANDLE* desc, ZYN_BOOL_T* is_console);
typedef ZYN_RETCODE (*PSP_FILE_CLOSE_FCN)(PSP_HANDLE desc);
typedef ZYN_RETCODE (*PSP_FILE_SEEK_FCN)(PSP_HANDLE desc, PSP_FILE_OFFSET addr, int32_t origin,
                                         PSP_FILE_OFFSET* pnewaddr);
typedef ZYN_RETCODE (*PSP_FILE_READ_FCN)(PSP_HANDLE desc, void* buf, size_t size, size_t* pbytes);
typedef ZYN_RETCODE (*PSP_FILE_WRITE_FCN)(PSP_HANDLE desc, const void* buf, size_t size);
typedef ZYN_RETCODE (*PSP_FILE_CONSOLE_READ_FCN)(PSP_HANDLE desc, void* buf, size_t size,
                                                 size_t* pbytes);
typedef ZYN_RETCODE (*PSP_FILE_CONSOLE_WRITE_FCN)(PSP_HANDLE desc, const void* buf, size_t size);
typedef ZYN_RETCODE (*PSP_FILE_SEEK_READ_FCN)(PSP_HANDLE desc, PSP_FILE_OFFSET addr, void* buf,
                                              size_t size, size_t* pbytes);
typedef ZYN_RETCODE (*PSP_FILE_SEEK_WRITE_FCN)(PSP_HANDLE desc, PSP_FILE_OFFSET addr,
                                               const void* buf, size_t size);
typedef ZYN_RETCODE (*PSP_FILE_PAGE_OUT_FCN)(PSP_HANDLE desc, PSP_FILE_OFFSET addr, size_t size);
typedef ZYN_RETCODE (*PSP_FILE_PUNCH_HOLE_FCN)(PSP_HANDLE desc, PSP_FILE_OFFSET addr, size_t size);
typedef ZYN_RETCODE (*PSP_FILE_LENGTH_FCN)(PSP_HANDLE desc, PSP_FILE_OFFSET* psize);
typedef ZYN_RETCODE (*PSP_FILE_SET_SIZE_FCN)(PSP_HANDLE desc, PSP_FILE_OFFSET size);
typedef ZYN_RETCODE (*PSP_FILE_SYNC_FCN)(PSP_HANDLE desc);
typedef ZYN_RETCODE (*PSP_FILE_MAP_FCN)(PSP_HANDLE desc, size_t size, void** pmap);
typedef ZYN_RETCODE (*PSP_FILE_REMAP_FCN)(PSP_HANDLE desc, size_t old_size, void* old_map,
                                          size_t new_size, void** pmap);
typedef ZYN_RETCODE (*PSP_FILE_UNMAP_FCN)(PSP_HANDLE desc, size_t size, void* map);
typedef ZYN_RETCODE (*PSP_FILE_IS_TTY_FCN)(PSP_HANDLE desc, ZYN_BOOL_T* is_tty);
typedef ZYN_RETCODE (*PSP_FILE_SET_ECHO)(PSP_HANDLE desc, ZYN_BOOL_T echo);
typedef ZYN_RETCODE (*PSP_FILE_LOCK_FCN)(PSP_HANDLE desc);
typedef void (*PSP_FILE_UNLOCK_FCN)(PSP_HANDLE desc);

// One kind of file. A null slot is an operation that this kind does not have; the callers of
// open, close, the console, page_out, sync, the mappings, is_tty and set_echo test for it. The
// other slots are always filled.
struct PSP_FILE_FCNS {
    PSP_FILE_OPEN_FCN open;
    PSP_FILE_CLOSE_FCN close;
    PSP_FILE_SEEK_FCN seek;
    PSP_FILE_READ_FCN read;
    PSP_FILE_WRITE_FCN write;
    PSP_FILE_CONSOLE_READ_FCN console_read;
    PSP_FILE_CONSOLE_WRITE_FCN console_write;
    PSP_FILE_SEEK_READ_FCN seek_read;
    PSP_FILE_SEEK_WRITE_FCN seek_write;
    PSP_FILE_PAGE_OUT_FCN page_out;
    PSP_FILE_PUNCH_HOLE_FCN punch_hole;
    PSP_FILE_LENGTH_FCN length;
    PSP_FILE_SET_SIZE_FCN set_size;
    PSP_FILE_SYNC_FCN sync;
    PSP_FILE_MAP_FCN map;
    PSP_FILE_REMAP_FCN remap;
    PSP_FILE_UNMAP_FCN unmap;
    PSP_FILE_IS_TTY_FCN is_tty;
    PSP_FILE_SET_ECHO set_echo;
    PSP_FILE_LOCK_FCN lock;
    PSP_FILE_UNLOCK_FCN unlock;
};

extern const PSP_FILE_FCNS stdio_file_fcns;  // the process's descriptors 0, 1 and 2
extern const PSP_FILE_FCNS normal_file_fcns; // files opened by name

// The standard streams; the value is the descriptor.
enum PSP_STD_HANDLE {
    PSP_STD_HANDLE_IN = 0,
    PSP_STD_HANDLE_OUT = 1,
    PSP_STD_HANDLE_ERR = 2,
};

struct PSP_STD_HANDLE_INFO {
    const char* name;
    PSP_STD_HANDLE type;
};

// Whether `name` names a standard stream; if so its type is stored through `ptype`, unless that
// is null.
ZYN_BOOL_T check_for_stdio(const char* name, PSP_STD_HANDLE* ptype);

// ---- Handles ----

// One open file, in the file tag.
struct PSPFTAB {
    const char* name;          // own copy, in the file tag
    PSP_HANDLE handle;         // what the table's open gave; null until then
    const void* ctx;           // for the table's open; always null
    uint32_t flags;            // as opened, less O_CREAT and O_TRUNC once open
    uint16_t xflags;           // as given by the caller
    const PSP_FILE_FCNS* fcns; // the kind of file
    PSP_SEM lock;              // made by the first psp_fileLock
};

// The state of the file layer, in the registry of globals under "pspfile".
struct PSP_FILE_GLOBALS {
    PSP_MEMTAG fileTag; // all handles and their names; has its own mutex
};

// Fetches the state, made on first use; null when the registry refuses.
PSP_FILE_GLOBALS* psp_fileGlobals();
ZYN_RETCODE psp_fileInit(void* data); // the registry's create callback
void psp_fileTerm(void* data);        // and its delete callback: the handles' memory goes with it

// ---- Paths, for callers that may not be jumped out of ----

// Drops one '/' at the end of a string that is not empty; returns its argument.
char* normalize_path(char* path);

// The current directory, stored through `dir`. sOKAY, or with *dir null: eNOMEMORY (the caller may
// raise it), ePSP_FAILURE (the reason is in errno). Never jumps.
ZYN_RETCODE psp_currdirTry(PSP_MEMTAG tag, char** dir);

// `dir`, a '/' and `name` as one new string; null when memory is short. Never jumps.
char* psp_pathJoin(const char* dir, const char* name, PSP_MEMTAG tag);

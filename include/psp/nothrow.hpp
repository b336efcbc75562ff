/**
 * @file nothrow.hpp
 * The functions that the C++ face calls, as the compiler should know them: they throw nothing.
 *
 * A C header cannot say so. Without it a compiler that has exceptions on expects one of every call,
 * and a member that is `noexcept` pays for catching what never comes. The names here stand for the
 * same functions, symbol by symbol, and are the face's own.
 */
#ifndef PSP_NOTHROW_HPP
#define PSP_NOTHROW_HPP

#include "psp/binstream.h"
#include "psp/core.h"
#include "psp/file.h"
#include "psp/fileutil.h"
#include "psp/format.h"
#include "psp/mem.h"
#include "psp/output.h"
#include "psp/pool.h"
#include "psp/random.h"
#include "psp/scan.h"
#include "psp/stream.h"
#include "psp/sync.h"

/** @cond */
namespace psp::nothrow {

template <class Result, class... Arguments>
struct declared {
    using type = Result(Arguments...) noexcept;
};
template <class Result, class... Arguments>
declared<Result, Arguments...> nothrow_as(Result (*)(Arguments...));

// clang-format off
#define PSP_NOTHROW(name) PSP_API decltype(nothrow_as(::name))::type name __asm__(#name);
PSP_NOTHROW(psp_init)
PSP_NOTHROW(psp_term)
PSP_NOTHROW(psp_errno)
PSP_NOTHROW(psp_syncCreate_check)
PSP_NOTHROW(psp_syncEnterExcl)
PSP_NOTHROW(psp_syncExitExcl)
PSP_NOTHROW(psp_syncStart)
PSP_NOTHROW(psp_syncResume)
PSP_NOTHROW(psp_syncWait)
PSP_NOTHROW(psp_syncDelete)
PSP_NOTHROW(psp_createTagEx_rc)
PSP_NOTHROW(psp_getMem)
PSP_NOTHROW(psp_extendMem)
PSP_NOTHROW(psp_freeMem)
PSP_NOTHROW(psp_freeTagMem)
PSP_NOTHROW(psp_getTagMemInfo)
PSP_NOTHROW(psp_poolCreateEx)
PSP_NOTHROW(psp_poolGetMem)
PSP_NOTHROW(psp_poolPut)
PSP_NOTHROW(psp_poolDestroy)
PSP_NOTHROW(psp_poolSetMaxPooled)
PSP_NOTHROW(psp_fileOpen)
PSP_NOTHROW(psp_fileClose)
PSP_NOTHROW(psp_fileRead)
PSP_NOTHROW(psp_fileWrite)
PSP_NOTHROW(psp_fileSeekRead)
PSP_NOTHROW(psp_fileSeekWrite)
PSP_NOTHROW(psp_fileSeek)
PSP_NOTHROW(psp_fileLength)
PSP_NOTHROW(psp_fileSetSize)
PSP_NOTHROW(psp_fileSync)
PSP_NOTHROW(psp_filePageOut)
PSP_NOTHROW(psp_fileLock)
PSP_NOTHROW(psp_fileUnlock)
PSP_NOTHROW(psp_fileRemove)
PSP_NOTHROW(psp_fileCreateTmpName)
PSP_NOTHROW(psp_pathOpenEx)
PSP_NOTHROW(psp_pathNext)
PSP_NOTHROW(psp_pathClose)
PSP_NOTHROW(psp_vsnprintf)
PSP_NOTHROW(psp_makeStrV)
PSP_NOTHROW(psp_vfprintf)
PSP_NOTHROW(psp_fopenEx)
PSP_NOTHROW(psp_fopenStdEx)
PSP_NOTHROW(psp_fclose)
PSP_NOTHROW(psp_fgetc)
PSP_NOTHROW(psp_fungetc)
PSP_NOTHROW(psp_fgets)
PSP_NOTHROW(psp_fputc)
PSP_NOTHROW(psp_fputs)
PSP_NOTHROW(psp_fflush)
PSP_NOTHROW(psp_fsync)
PSP_NOTHROW(psp_fIsATTY)
PSP_NOTHROW(psp_fSetEcho)
PSP_NOTHROW(psp_fGetLine)
PSP_NOTHROW(psp_inputBuffCreate)
PSP_NOTHROW(psp_inputBuffDestroy)
PSP_NOTHROW(psp_inputBuffReset)
PSP_NOTHROW(psp_inputBuffGetChar)
PSP_NOTHROW(psp_inputBuffGetInt16)
PSP_NOTHROW(psp_inputBuffGetInt32)
PSP_NOTHROW(psp_inputBuffGetInt64)
PSP_NOTHROW(psp_inputBuffGetFloat32)
PSP_NOTHROW(psp_inputBuffGetFloat64)
PSP_NOTHROW(psp_inputBuffGetBytes)
PSP_NOTHROW(psp_inputBuffGetString)
PSP_NOTHROW(psp_outputBuffCreate)
PSP_NOTHROW(psp_outputBuffDestroy)
PSP_NOTHROW(psp_outputBuffFlush)
PSP_NOTHROW(psp_outputBuffPutChar)
PSP_NOTHROW(psp_outputBuffPutInt16)
PSP_NOTHROW(psp_outputBuffPutInt32)
PSP_NOTHROW(psp_outputBuffPutInt64)
PSP_NOTHROW(psp_outputBuffPutFloat32)
PSP_NOTHROW(psp_outputBuffPutFloat64)
PSP_NOTHROW(psp_outputBuffPutBytes)
PSP_NOTHROW(psp_outputBuffPutStringWithLength)
PSP_NOTHROW(psp_outputBuffSendDirect)
PSP_NOTHROW(psp_randCreateNoSem)
PSP_NOTHROW(psp_randDestroy)
PSP_NOTHROW(psp_randResetSeed)
PSP_NOTHROW(psp_randGetUInt32)
PSP_NOTHROW(psp_randGetUInt64)
PSP_NOTHROW(psp_randGetDouble)
#undef PSP_NOTHROW
// clang-format on

} // namespace psp::nothrow
/** @endcond */

#endif

/**
 * @file zynretcodetypes.h
 * The status type that every fallible function returns, and its values.
 *
 * Zero is success, a positive value is a status that is no error, a negative value is an error.
 * Compare with `sOKAY`: a positive status (for example `sNOTFOUND`) is not success either.
 */
#ifndef ZYNRETCODETYPES_H
#define ZYNRETCODETYPES_H

#include <stdint.h>

/**
 * @addtogroup types
 * @{
 */

/** Status of an operation. */
typedef int32_t ZYN_RETCODE;

/**
 * Every status that the library produces: X(identifier, value, text).
 * The identifiers below are made from this list; use it to print names and texts:
 *
 *     #define ROW(id, value, text) case id: return #id ": " text;
 *
 * @param X a macro of three arguments: the identifier, its value, and what it says as a string
 */
#define ZYN_RETCODE_LIST(X)                                                                        \
    X(sOKAY, 0, "success")                                                                         \
    X(sNOTFOUND, 10000, "something looked for does not exist")                                     \
    X(sDUPLICATE, 10001, "the directory to be created exists already")                             \
    X(sTIMEOUT, 10002, "a timed wait ran out")                                                     \
    X(sNEEDDATA, 10008, "the input ended inside a multi-byte character")                           \
    X(sCHILD, 10038, "this is the child's side of a daemon start")                                 \
    X(eNOMEMORY, -10000, "memory could not be allocated")                                          \
    X(eNOTIMPLEMENTED, -10020, "the operation is not available on this platform")                  \
    X(eINVNULLARG, -10022, "a required pointer argument is NULL")                                  \
    X(eFILEOPEN, -10029, "the file could not be opened")                                           \
    X(eBADREAD, -10037, "a read failed")                                                           \
    X(eBADWRITE, -10038, "a write failed")                                                         \
    X(eRANGE, -10039, "a number is out of range")                                                  \
    X(eINVVARINT, -10052, "a variable-length integer is malformed")                                \
    X(eEOD, -10072, "the input data ended")                                                        \
    X(eINVUNICODE, -10074, "the text is not valid UTF-8 or Unicode")                               \
    X(eUNAVAIL, -10092, "the module could not be unloaded")                                        \
    X(eINVFILE, -12056, "the status of the file could not be read")                                \
    X(eINVSTRING, -12060, "the text is not a valid number")                                        \
    X(ePSP_FAILURE, -14000, "the platform refused, or the library is not initialised")             \
    X(ePSP_MUTEX_FAILURE, -14001, "a mutex could not be created")                                  \
    X(ePSP_NOSOURCE, -14006, "the first file of two could not be opened")                          \
    X(ePSP_NODEST, -14007, "the second file of two could not be opened")                           \
    X(eTX_TRUNCATED, -18001, "the string does not fit the buffer and was cut")

/** The values of ::ZYN_RETCODE, made from ::ZYN_RETCODE_LIST. */
enum {
/** One row of the list as an enumerator. */
#define ZYN_RETCODE_ENUMERATOR(id, value, text) id = (value),
    ZYN_RETCODE_LIST(ZYN_RETCODE_ENUMERATOR)
#undef ZYN_RETCODE_ENUMERATOR
};

/** @} */

#endif

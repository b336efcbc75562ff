/**
 * @file psp.hpp
 * The C++ face of the library: everything in psp.h, and classes that own what its functions make.
 *
 * It is optional and made of headers alone: each member is one call of the C interface, the
 * compiler leaves nothing else. C++17 is enough, exceptions and run-time type information are not
 * needed. What is not covered here is called as in C; both mix freely, owner::native() gives the C
 * handle.
 *
 * One style throughout:
 * - A class owns one handle and is moved, not copied. An empty one, made by default, left behind by
 *   a move or given by a factory that failed, converts to false; destroying it does nothing.
 * - A factory is a static member, usually `create` or `open`. Where the C function tells why it
 *   failed, the factory's parameter `rc` receives the code.
 * - Members return what the C functions return. psp/error.hpp turns codes into `std::error_code`.
 * - Nothing throws, with the exception of psp::memory_resource, whose base class knows no other
 * way.
 * - The last psp_term() releases everything, so owners are destroyed before it: make the
 *   psp::library first.
 */
#ifndef PSP_HPP
#define PSP_HPP

#include "psp.h"

#include "psp/error.hpp"
#include "psp/owner.hpp"

#include "psp/core.hpp"
#include "psp/sync.hpp"

#include "psp/mem.hpp"
#include "psp/pool.hpp"

#include "psp/file.hpp"
#include "psp/fileutil.hpp"
#include "psp/scan.hpp"

#include "psp/format.hpp"
#include "psp/stream.hpp"

#include "psp/binstream.hpp"
#include "psp/random.hpp"

#endif

// Static probes: places in the code that bpftrace, perf, SystemTap and gdb can stop at by name.
//
// A build with PSP_PROBES has a nop at each, and a note in the file that tells the tools where it
// is and where the arguments lie. Nothing is computed for a probe that the code does not need
// anyway; what is must not have an effect, for other builds leave it out. The provider is `zynpsp`;
// docs/debugging.md lists the probes.
#pragma once

#ifdef PSP_PROBES

#include <sys/sdt.h>

#define PSP_PROBE1(name, a) STAP_PROBE1(zynpsp, name, a)
#define PSP_PROBE2(name, a, b) STAP_PROBE2(zynpsp, name, a, b)
#define PSP_PROBE3(name, a, b, c) STAP_PROBE3(zynpsp, name, a, b, c)
#define PSP_PROBE4(name, a, b, c, d) STAP_PROBE4(zynpsp, name, a, b, c, d)

#else

#define PSP_PROBE1(name, a) static_cast<void>(0)
#define PSP_PROBE2(name, a, b) static_cast<void>(0)
#define PSP_PROBE3(name, a, b, c) static_cast<void>(0)
#define PSP_PROBE4(name, a, b, c, d) static_cast<void>(0)

#endif

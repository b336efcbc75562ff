// The version of the library: the one place that knows the three numbers.

#include "psp/core.h"

void psp_version(int16_t* major, int16_t* minor, int16_t* build)
{
    if (major != nullptr)
        *major = 14;
    if (minor != nullptr)
        *minor = 1;
    if (build != nullptr)
        *build = 3222;
}

// How much a test does: little in the daily run, much when somebody asks for it (scripts/long).
#pragma once

#include <cstdlib>

namespace psptest {

// `fully` when the environment has PSP_LONG, else `daily`.
template <class Count>
Count in_long_run(Count daily, Count fully)
{
    return std::getenv("PSP_LONG") != nullptr ? fully : daily;
}

} // namespace psptest

// The same from C++, with a mutex for good measure.
#include <psp.h>

#include <string>

int main()
{
    int16_t major = 0, minor = 0, build = 0;
    if (psp_init() != sOKAY)
        return 1;
    psp_version(&major, &minor, &build);
    const PSP_SEM mutex = psp_syncCreate_check(PSP_SEM_MUTEX, __FILE__, __LINE__);
    if (mutex == PSP_SEM_INVALID || psp_syncEnterExcl(mutex) != sOKAY)
        return 1;
    const std::string line = "C++ on " + std::to_string(major) + '.' + std::to_string(minor) + '.' +
                             std::to_string(build);
    psp_printf("%s\n", line.c_str());
    psp_syncExitExcl(mutex);
    psp_syncDelete(mutex);
    psp_term();
    return 0;
}

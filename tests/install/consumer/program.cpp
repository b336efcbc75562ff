// The same from C++, with a mutex for good measure, and with exceptions.
#include <psp.h>

#include <stdexcept>
#include <string>

static void must(bool good, const char* what)
{
    if (!good)
        throw std::runtime_error(what);
}

static void greet()
{
    int16_t major = 0, minor = 0, build = 0;
    must(psp_init() == sOKAY, "start");
    psp_version(&major, &minor, &build);
    const PSP_SEM mutex = psp_syncCreate_check(PSP_SEM_MUTEX, __FILE__, __LINE__);
    must(mutex != PSP_SEM_INVALID && psp_syncEnterExcl(mutex) == sOKAY, "mutex");
    const std::string line = "C++ on " + std::to_string(major) + '.' + std::to_string(minor) + '.' +
                             std::to_string(build);
    psp_printf("%s\n", line.c_str());
    psp_syncExitExcl(mutex);
    psp_syncDelete(mutex);
    psp_term();
}

int main()
{
    try {
        greet();
        throw std::length_error("enough");
    } catch (const std::length_error&) {
        return 0;
    } catch (const std::exception&) {
        return 1;
    }
}

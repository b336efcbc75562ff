/* Starts the library, formats one line in a memory tag and prints it. Rounding needs the maths
   library where the static library was built without optimisation. */
#include <psp.h>

int main(void)
{
    int16_t major = 0, minor = 0, build = 0;
    if (psp_init() != sOKAY)
        return 1;
    psp_version(&major, &minor, &build);
    char* line = psp_makeStrVA(__FILE__, __LINE__, PSP_THREAD_TAG, "C on %d.%d.%d",
                               (int)psp_round(major), minor, build);
    if (line == NULL)
        return 1;
    psp_printf("%s\n", line);
    psp_freeMem(line, PSP_THREAD_TAG, __FILE__, __LINE__);
    psp_term();
    return 0;
}

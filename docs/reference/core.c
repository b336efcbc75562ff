/* A report made of two parts that know nothing of each other. Each starts the library for itself
 * and stops it again; the program that checks what they left must not change it, and says so. */
#include <fcntl.h>
#include <stdio.h>

#include "psp.h"

/* Writes one section of the report into a file of its own. */
static ZYN_RETCODE write_section(const char* name)
{
    ZYN_RETCODE rc = psp_init();
    if (rc != sOKAY)
        return rc;
    PSP_FILE_STREAM file = psp_fopen(name, "w", PSP_FILE_MODE_UTF8);
    if (file == NULL)
        rc = eFILEOPEN;
    else
        psp_fprintf(file, "%s, with the library started %d times\n", name, psp_inited);
    psp_fclose(file);
    psp_term();
    return rc;
}

/* Shows a section. Whatever else it tries, it cannot write. */
static ZYN_RETCODE check_section(const char* name)
{
    char line[80];
    PSP_FILE_STREAM file = psp_fopen(name, "r", PSP_FILE_MODE_UTF8);
    if (file == NULL)
        return eFILEOPEN;
    const char* read = psp_fgets(line, sizeof line, file);
    psp_fclose(file);
    if (read == NULL)
        return eBADREAD;
    psp_printf("%s", line);
    return psp_fileOpen(name, O_WRONLY | O_TRUNC, 0) == NULL ? sOKAY : ePSP_FAILURE;
}

int main(void)
{
    int16_t major, minor, build;
    psp_version(&major, &minor, &build); /* works before the start */
    if (psp_init() != sOKAY)
        return 1;
    psp_printf("library %d.%d.%d\n", major, minor, build);
    ZYN_RETCODE rc = write_section("totals");
    if (rc == sOKAY)
        rc = write_section("details");
    if (rc == sOKAY) {
        psp_rdonly(); /* for the rest of the process */
        rc = check_section("totals");
    }
    if (rc == sOKAY)
        rc = check_section("details");
    psp_printf("started %d time%s when it ends\n", psp_inited, psp_inited == 1 ? "" : "s");
    psp_term();
    remove("totals"); /* psp_fileRemove() would refuse */
    remove("details");
    return rc == sOKAY && psp_inited == 0 ? 0 : 1;
}

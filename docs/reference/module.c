/* Asks a library at run time which of its functions it has, and uses what is there. The module of
 * this program is the platform library itself; the second one does not exist. */
#include "psp.h"

typedef void (*version_fcn)(int16_t* major, int16_t* minor, int16_t* build);

/* The way over void (*)(void) tells the compiler that the change of type is meant. */
static version_fcn as_version_fcn(VOID_FCN fcn)
{
    return (version_fcn)(void (*)(void))fcn;
}

static ZYN_RETCODE show_version(const PSP_MOD_CTX* module)
{
    VOID_FCN fcn;
    int16_t major, minor, build;
    psp_getFcnAddr(module, "psp_version", &fcn);
    if (fcn == NULL)
        return sNOTFOUND;
    as_version_fcn(fcn)(&major, &minor, &build);
    psp_printf("%s is version %d.%d\n", module->name, major, minor);
    psp_getFcnAddr(module, "psp_fileCompress", &fcn);
    psp_printf("%s %s compress files\n", module->name, fcn == NULL ? "cannot" : "can");
    return sOKAY;
}

static ZYN_RETCODE use_module(const char* name)
{
    PSP_MOD_CTX* module;
    const ZYN_RETCODE rc = psp_load(name, &module);
    if (rc != sOKAY) { /* sNOTFOUND is positive: only sOKAY is success */
        psp_printf("%s is not installed\n", name);
        return rc;
    }
    const ZYN_RETCODE shown = show_version(module);
    const ZYN_RETCODE unloaded = psp_unload(module);
    return shown != sOKAY ? shown : unloaded;
}

int main(void)
{
    if (psp_init() != sOKAY)
        return 1;
    const ZYN_RETCODE there = use_module("zynpsp-14"); /* libzynpsp-14.so */
    const ZYN_RETCODE missing = use_module("no-such-module");
    psp_term();
    return there == sOKAY && missing == sNOTFOUND ? 0 : 1;
}

/* A file of fixed-size records, one writer at a time: record n lies at byte n times its size. */
#include <fcntl.h>
#include <inttypes.h>
#include <stdio.h>

#include "psp.h"

typedef struct account {
    char name[24];
    int64_t cents;
} account;

static const char* const path = "accounts.dat";

static int put(PSP_FH file, uint32_t number, account row)
{
    return psp_fileSeekWrite(file, number * sizeof row, &row, sizeof row) == sizeof row;
}

static int get(PSP_FH file, uint32_t number, account* row)
{
    return psp_fileSeekRead(file, number * sizeof *row, row, sizeof *row) == sizeof *row;
}

/* Writes three accounts and returns once they would survive a loss of power. */
static int fill(PSP_FH file)
{
    return put(file, 0, (account){"cash", 1250}) && put(file, 1, (account){"rent", -90000}) &&
           put(file, 2, (account){"wages", 310000}) && psp_fileSync(file) == sOKAY &&
           psp_dirSync(".") == sOKAY; /* the file is new: its name must last as well */
}

static int use(PSP_FH file)
{
    if (psp_fileLock(file) != sOKAY || !fill(file))
        return 0;
    printf("%" PRIu64 " records\n", psp_fileLength(file) / sizeof(account));

    /* Whoever opens the file meanwhile finds out at once that it is taken. */
    PSP_FH other = psp_fileOpen(path, O_RDWR, 0);
    const ZYN_RETCODE taken = psp_fileLock(other);
    printf("second writer: %s\n", taken == sOKAY ? "let in" : "refused");
    psp_fileClose(other);

    account row;
    if (!get(file, 1, &row))
        return 0;
    printf("record 1: %s, %" PRId64 " cents\n", row.name, row.cents);
    printf("record 3: %s\n", get(file, 3, &row) ? "there" : "beyond the end");

    /* The last record is dropped by cutting the file. */
    return psp_fileSetSize(file, 2 * sizeof row) == sOKAY &&
           psp_fileLength(file) == 2 * sizeof row && taken == ePSP_FAILURE;
}

int main(void)
{
    if (psp_init() != sOKAY)
        return 1;
    PSP_FH file = psp_fileOpen(path, O_RDWR | O_CREAT | O_TRUNC, 0);
    const int done = file != NULL && use(file);
    psp_fileClose(file); /* gives the lock up too */
    const int removed = psp_fileRemove(path) == sOKAY;
    psp_term();
    return done && removed ? 0 : 1;
}

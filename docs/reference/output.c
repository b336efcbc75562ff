/* Checks accounts: the report goes into a file, the findings into a log. Then both are shown. */
#include "psp.h"

#include <stdio.h>
#include <string.h>

#define REPORT "report.txt"
#define LOG "check.log"

struct Account {
    const char* name;
    int balance;
    int limit;
};

static const struct Account accounts[] = {{"Ada", 120, 0}, {"Ben", -30, -10}, {"Cay", -5, -10}};

/* The report goes where the standard output leads; who overdraws is one message in the log. */
static int check(void)
{
    int found = 0;
    PSP_LOG_CHUNK message = psp_log_chunk_init();
    psp_log_chunk(message, "overdrawn:");
    for (size_t i = 0; i < sizeof accounts / sizeof *accounts; i++) {
        const struct Account* account = &accounts[i];
        psp_printf("%-5s%5d\n", account->name, account->balance);
        if (account->balance < account->limit) {
            psp_log_chunk(message, " %s by %d", account->name, account->limit - account->balance);
            found++;
        }
    }
    psp_log_chunk_end(message, "\n");
    return found;
}

/* Prints the lines of a file without the first `skipped` bytes of each. */
static void show(const char* name, size_t skipped)
{
    char line[100];
    PSP_FILE_STREAM in = psp_fopen(name, "r", PSP_FILE_MODE_UTF8);
    psp_printf("-- %s\n", name);
    while (in != NULL && psp_fgets(line, sizeof line, in) != NULL)
        psp_printf("%s", strlen(line) > skipped ? line + skipped : line);
    psp_fclose(in);
}

int main(void)
{
    int found = -1;

    if (psp_init() != sOKAY)
        return 1;
    if (psp_log_openEx(NULL, LOG) == sOKAY) {
        psp_log("checking %zu accounts\n", sizeof accounts / sizeof *accounts);
        if (psp_stdout_openEx(NULL, REPORT) == sOKAY) {
            found = check();
            psp_stdout_closeEx(NULL);
        }
        psp_log("done, %d found\n", found);
        psp_log_closeEx(NULL);
    }
    show(REPORT, 0);
    show(LOG, strlen("[2024-05-01 13:07:42]  "));
    psp_flush();
    remove(REPORT);
    remove(LOG);
    psp_term();
    return found == 1 ? 0 : 1;
}

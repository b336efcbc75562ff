/* SQLite on its own platform code: what the spy must catch, or it proves nothing. */
#include <sqlite3.h>

int main(int argc, char** argv)
{
    sqlite3* db = 0;
    int rc = argc == 2 ? sqlite3_open(argv[1], &db) : SQLITE_MISUSE;
    if (rc == SQLITE_OK)
        rc = sqlite3_exec(db, "CREATE TABLE t(a)", 0, 0, 0);
    sqlite3_close(db);
    return rc != SQLITE_OK;
}

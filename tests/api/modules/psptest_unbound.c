/* A module with a symbol that nobody defines: it can be loaded only by a lazy loader. */

int psptest_missing(void);
int psptest_call_missing(void);

int psptest_call_missing(void)
{
    return psptest_missing();
}

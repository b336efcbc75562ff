/* The module that module_test.cpp loads. */

int psptest_answer(void);
void psptest_store(void* place);
extern int psptest_number;

int psptest_number = 4711;

int psptest_answer(void)
{
    return 42;
}

/* Has the very type that looked-up addresses have. */
void psptest_store(void* place)
{
    *(int*)place = psptest_number;
}

/* Counts the primes below 20000 with four threads. They take ranges of 1000 numbers off a shared
 * counter, without a lock. */
#include "psp.h"

enum { THREADS = 4, LIMIT = 20000, RANGE = 1000 };

static volatile uint32_t next_range;
static volatile uint32_t primes;
static volatile uint32_t at_work;

static int is_prime(uint32_t n)
{
    for (uint32_t d = 2; d * d <= n; d++)
        if (n % d == 0)
            return 0;
    return n >= 2;
}

/* Takes the next range: two threads may look at the same one, only one gets it. */
static int take_range(uint32_t* first)
{
    do {
        *first = next_range;
        if (*first >= LIMIT)
            return 0;
    } while (!psp_atomicSetUInt32(&next_range, *first, *first + RANGE));
    return 1;
}

static ZYN_RETCODE count_primes(void* arg)
{
    uint32_t* counted = arg; /* this thread's own */
    uint32_t first;
    psp_atomicIncrUInt32(&at_work);
    while (take_range(&first)) {
        for (uint32_t n = first; n < first + RANGE; n++) {
            if (is_prime(n)) {
                psp_atomicIncrUInt32(&primes);
                ++*counted;
            }
        }
    }
    psp_atomicDecrUInt32(&at_work);
    return *counted == 0 ? sNOTFOUND : sOKAY;
}

int main(void)
{
    psp_thread_t threads[THREADS];
    uint32_t counted[THREADS] = {0};
    uint32_t sum = 0;
    int started = 0;
    if (psp_init() != sOKAY)
        return 1;
    while (started < THREADS && psp_threadBegin(count_primes, 0, &counted[started], "primes",
                                                &threads[started]) == sOKAY)
        started++;
    for (int i = 0; i < started; i++) {
        const ZYN_RETCODE rc = psp_threadJoin(&threads[i]);
        if (rc != sOKAY && rc != sNOTFOUND) /* a thread that came too late has nothing to count */
            psp_printf("thread %d failed with code %d\n", i, rc);
        sum += counted[i];
    }
    psp_printf("%u primes below %d, %u threads at work\n", primes, LIMIT, at_work);
    psp_term();
    return started > 0 && sum == primes ? 0 : 1;
}

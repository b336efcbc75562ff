// The watch over the order of locks: a checked build's list of the locks that each thread holds.
//
// A list is as long as locks nest, which is four or five deep; the last one on it has the highest
// rank, so one comparison tells whether a further one may follow.

#include "psp_lock_rank.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace {

struct HeldLock {
    LockRank rank;
    const void* lock;
};

constexpr int MOST_HELD = 64;

__thread HeldLock held[MOST_HELD]; // in the order of their acquisition
__thread int num_held = 0;

constexpr const char* names[] = {
    "a caller's mutex", // never on the list
    "the critical section",
    "a pool",
    "an output stack",
    "the registry",
    "a file handle",
    "the table of synchronisation objects",
    "a tag",
    "the list of tags",
    "the records of tags",
    "the large blocks",
    "an event",
};

static_assert(std::size(names) == static_cast<size_t>(LockRank::event) + 1);

const char* name_of(LockRank rank)
{
    return names[static_cast<size_t>(rank)];
}

bool may_follow(LockRank inner, LockRank outer)
{
    return inner > outer || (inner == LockRank::pool && outer == LockRank::pool);
}

[[noreturn]] void report(LockRank inner, LockRank outer)
{
    fprintf(stderr, "Lock order broken: %s inside %s. The order is:", name_of(inner),
            name_of(outer));
    for (size_t i = 1; i < std::size(names); ++i)
        fprintf(stderr, "%s %s", i == 1 ? "" : ",", names[i]);
    fputs(".\n", stderr);
    abort();
}

} // namespace

void psp_rankEnter(LockRank rank, const void* lock)
{
    if (rank == LockRank::unranked)
        return;
    if (num_held > 0 && !may_follow(rank, held[num_held - 1].rank))
        report(rank, held[num_held - 1].rank);
    if (num_held == MOST_HELD) {
        fputs("More locks are held than a checked build can watch.\n", stderr);
        abort();
    }
    held[num_held++] = {rank, lock};
}

void psp_rankLeave(const void* lock)
{
    for (int i = num_held - 1; i >= 0; --i) {
        if (held[i].lock == lock) {
            --num_held;
            memmove(&held[i], &held[i + 1], static_cast<size_t>(num_held - i) * sizeof(HeldLock));
            return;
        }
    }
}

int psp_ranksHeld()
{
    return num_held;
}

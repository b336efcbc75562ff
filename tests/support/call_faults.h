// The driver of the tests in which every call of the system fails: a row is one operation of the
// library and one call that it makes. The operation runs with the n-th of these calls failing, for
// n = 1, 2, … until a run needs fewer, once and from there on, with each error that the call can
// have (many times instead, where the library makes the call anew). After every run the row's own
// table says what the operation had to give, errno, and what had to be left behind; nothing may be
// lost or locked, and the same operation then succeeds.
#pragma once

#include "support/fault_test.h"
#include "support/file_test.h"
#include "support/mem_test.h"
#include "support/system_calls.h"

#include "psp/sync.h"
#include "psp_file_int.h"
#include "psp_sync_int.h"

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <set>
#include <span>
#include <string>

namespace psptest {

// What a run of an operation must leave as it found it.
struct Footprint {
    std::size_t descriptors;
    std::size_t global; // bytes in use of the tags
    std::size_t thread;
    std::size_t files;
    std::size_t objects; // of synchronisation

    static Footprint now()
    {
        if (psp_inited == 0)
            return {open_descriptors(), memory_in_use(), 0, 0, 0};
        return {open_descriptors(), info_of(PSP_GLOBAL_TAG).used.current,
                info_of(PSP_THREAD_TAG).used.current,
                info_of(psp_fileGlobals()->fileTag).used.current, count_objects(false)};
    }
    // The objects of synchronisation, or the mutexes among them that somebody holds.
    static std::size_t count_objects(bool held)
    {
        std::size_t count = 0;
        for (const PSP_SEM_TABLE& slot : sem_table)
            for (int i = 0; i < slot.untouched; i++) {
                const PSP_SEM_ENTRY& entry = slot.entry[i];
                if (entry.avail == SEM_ALLOCATED)
                    count += !held || (entry.type == PSP_SEM_MUTEX && entry.obj.m.count != 0);
            }
        return count;
    }
    bool operator==(const Footprint&) const = default;
};

inline std::ostream& operator<<(std::ostream& out, const Footprint& print)
{
    return out << print.descriptors << " descriptors, " << print.global << " global, "
               << print.thread << " thread, " << print.files << " file bytes, " << print.objects
               << " objects";
}

inline void expect_nothing_held()
{
    if (psp_inited != 0) {
        EXPECT_EQ(Footprint::count_objects(true), 0u) << "a mutex is held";
    }
    EXPECT_EQ(pthread_mutex_trylock(&semTabMutex), 0) << "the table's mutex is held";
    pthread_mutex_unlock(&semTabMutex);
    psp_enterCritSec(); // hangs when it is held
    psp_exitCritSec();
}

// How a call was made to fail.
struct Failure {
    int error;
    int n;        // the first call that failed
    bool forever; // and all after it

    bool hits(int call) const
    {
        return call == n || (forever && call > n);
    }
};

inline constexpr int any_errno = -1;
inline constexpr int many_times = 50;

// The usual columns of a row: one result whatever the error, and what becomes of errno.
template <long result>
long always(const Failure&)
{
    return result;
}
inline int kept(const Failure& failure)
{
    return failure.error;
}
inline int unsaid(const Failure&)
{
    return any_errno;
}

// `World` is what the operation works on, made anew for each run.
template <class World>
struct Row {
    const char* operation; // how the test is called
    const char* call;
    // The operation: a code, a count, or 1 and 0 for a pointer that is there or not.
    long (*run)(World&);
    long success;
    // What it gives, and errno after it, when the call failed as told.
    long (*expected)(const Failure&);
    int (*errno_after)(const Failure&) = kept;
    // What is to be seen afterwards, and once more after the operation was repeated and succeeded.
    // The failure is null when none was met, or one after which the call is made anew.
    void (*check)(World&, const Failure*) = nullptr;
    void (*check_again)(World&, const Failure*) = nullptr;
    // Failures after which the operation goes on without end, as it is meant to.
    bool (*endless)(const Failure&) = nullptr;
};

template <class World>
std::ostream& operator<<(std::ostream& out, const Row<World>& row)
{
    return out << row.operation << " and " << row.call;
}

// One run: true when the call failed in it.
template <class World>
bool drive_once(const Row<World>& row, const Failure& failure, bool repeated)
{
    SCOPED_TRACE(std::string(row.operation) + ", " + row.call + " " + std::to_string(failure.n) +
                 (failure.forever ? " and on: " : ": ") + strerrorname_np(failure.error));
    const Footprint before = Footprint::now();
    bool met = false;
    {
        World world;
        Fault fault(row.call, failure.n, failure.forever, failure.error);
        if (repeated && failure.forever) // which would never end
            Fault::fail_run(row.call, failure.n, many_times, failure.error);
        errno = 0;
        const long result = row.run(world);
        const int error = errno;
        fault.disarm();
        met = fault.failures() > 0;
        if constexpr (requires { world.met_elsewhere; }) // in a process of its own
            met = met || world.met_elsewhere;
        const Failure* const seen = met && !repeated ? &failure : nullptr;
        EXPECT_EQ(result, seen != nullptr ? row.expected(failure) : row.success);
        const int expected_errno = seen != nullptr ? row.errno_after(failure) : any_errno;
        if (expected_errno != any_errno) {
            EXPECT_STREQ(strerrorname_np(error), strerrorname_np(expected_errno));
        }
        expect_nothing_held();
        if (row.check != nullptr)
            row.check(world, seen);
        EXPECT_EQ(row.run(world), row.success) << "the same again, with nothing failing";
        if (row.check_again != nullptr)
            row.check_again(world, seen);
    }
    EXPECT_EQ(Footprint::now(), before);
    return met;
}

template <class World>
void drive(const Row<World>& row)
{
    const SystemCall* const call = find_system_call(row.call);
    ASSERT_NE(call, nullptr) << row.call;
    {
        World world; // whatever the library makes once is made now
        ASSERT_EQ(row.run(world), row.success) << row;
    }
    int met = 0;
    for (const int error : call->errors)
        for (const bool forever : {false, true}) {
            const bool repeated = error == call->repeated;
            for (int n = 1;; n++, met++) {
                const Failure failure = {error, n, forever};
                if ((row.endless != nullptr && row.endless(failure)) ||
                    !drive_once(row, failure, repeated))
                    break;
                if (::testing::Test::HasFailure())
                    return; // all others would fail alike
            }
        }
    EXPECT_GT(met, 0) << row << " was never made";
}

// The names that the table has for a suite, and those that its rows drive.
inline std::set<std::string> calls_for(unsigned suite)
{
    std::set<std::string> names;
    for (const SystemCall& call : system_calls)
        if ((call.suites & suite) != 0)
            names.insert(call.name);
    return names;
}

template <class Rows>
std::set<std::string> calls_in(const Rows& rows)
{
    std::set<std::string> names;
    for (const auto& row : rows)
        names.insert(row.call);
    return names;
}

// "psp_fileOpen" and "open" make the test "psp_fileOpen_open".
template <class World>
std::string name_of_row(const ::testing::TestParamInfo<Row<World>>& info)
{
    std::string name = std::string(info.param.operation) + "_" + info.param.call;
    for (char& ch : name)
        if (ch == ' ')
            ch = '_';
    return name;
}

} // namespace psptest

// Events under threads that wait with and without limit: no signal is lost, none passes twice, and
// what was written before a signal is there behind the wait. A lost signal shows as a wait that
// runs out or as a test that does not end. The data handed over is plain, for the thread sanitizer.
#include "support/psp_test.h"
#include "support/scale.h"
#include "support/threads.h"

#include "psp/sync.h"

#include <atomic>
#include <cstdint>
#include <random>

using namespace psptest;

namespace {

constexpr std::uint32_t long_enough = 60000;

class EventStress : public PspTest {};

// An event, reset at first, for the length of a scope.
class Event {
  public:
    Event() : sem_(psp_syncCreate_check(PSP_SEM_EVENT, __FILE__, __LINE__))
    {
        psp_syncStart(sem_);
    }
    ~Event()
    {
        psp_syncDelete(sem_);
    }
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;
    operator PSP_SEM() const
    {
        return sem_;
    }

  private:
    PSP_SEM sem_;
};

TEST_F(EventStress, TwoThreadsPlayPingPongWithoutALostSignal)
{
    const int turns = in_long_run(20000, 1000000);
    const Event ping;
    const Event pong;
    int ball = 0;
    run_together(2, [&](int player) {
        const PSP_SEM mine = player == 0 ? ping : pong;
        const PSP_SEM other = player == 0 ? pong : ping;
        if (player == 0)
            psp_syncResume(mine);
        for (int turn = player; turn < turns; turn += 2) {
            // Every other pair of turns waits on the way with a limit.
            const std::uint32_t timeout = turn / 2 % 2 == 0 ? PSP_SYNC_FOREVER : long_enough;
            ASSERT_EQ(psp_syncWait(mine, timeout), sOKAY);
            psp_syncStart(mine);
            ASSERT_EQ(ball, turn);
            ball = turn + 1;
            psp_syncResume(other);
        }
    });
    EXPECT_EQ(ball, turns);
}

TEST_F(EventStress, WaitsThatKeepRunningOutMissNoSignal)
{
    const int signals = in_long_run(2000, 100000);
    const Event ready;
    const Event taken;
    int plain = 0;
    run_together(2, [&](int side) {
        for (int i = 1; i <= signals; i++) {
            if (side == 0) {
                plain = i;
                psp_syncResume(ready);
                ASSERT_EQ(psp_syncWait(taken, long_enough), sOKAY);
                psp_syncStart(taken);
                continue;
            }
            // Looks, and waits too short on purpose, until the signal is there.
            while (psp_syncWait(ready, static_cast<std::uint32_t>(i) % 3) != sOKAY)
                std::this_thread::yield();
            ASSERT_EQ(plain, i);
            psp_syncStart(ready);
            ASSERT_EQ(psp_syncWait(ready, 0), sTIMEOUT) << "one signal passed twice";
            psp_syncResume(taken);
        }
    });
}

TEST_F(EventStress, AWaitThatRunsOutTakesNoSignalAway)
{
    const int laps = in_long_run(2000, 100000);
    const Event go;
    const Event signal;
    const Event done;
    run_together(2, [&](int side) {
        std::mt19937 random(static_cast<unsigned>(side));
        for (int lap = 0; lap < laps; lap++) {
            if (side == 0) {
                ASSERT_EQ(psp_syncWait(go, long_enough), sOKAY);
                psp_syncStart(go);
                for (unsigned i = random() % 4; i > 0; i--)
                    std::this_thread::yield();
                psp_syncResume(signal);
                psp_syncResume(done);
                continue;
            }
            psp_syncStart(signal);
            psp_syncResume(go);
            psp_syncWait(signal, random() % 2); // either answer is right
            ASSERT_EQ(psp_syncWait(done, long_enough), sOKAY);
            psp_syncStart(done);
            ASSERT_EQ(psp_syncWait(signal, 0), sOKAY) << "the signal stays until it is reset";
        }
    });
}

TEST_F(EventStress, EverySignalLetsEachWaiterPassOnce)
{
    constexpr int waiters = 7;
    const int laps = in_long_run(1000, 50000);
    const Event gates[2]; // in turn, so that nobody passes one gate twice in a lap
    const Event all_passed;
    std::atomic<int> passed{0};
    int plain = 0;
    int seen[waiters] = {};
    run_together(waiters + 1, [&](int number) {
        for (int lap = 1; lap <= laps; lap++) {
            const PSP_SEM gate = gates[lap % 2];
            if (number == waiters) {
                plain = lap;
                psp_syncResume(gate);
                ASSERT_EQ(psp_syncWait(all_passed, long_enough), sOKAY);
                psp_syncStart(all_passed);
                psp_syncStart(gate);
                ASSERT_EQ(passed, lap * waiters);
                for (const int value : seen)
                    ASSERT_EQ(value, lap);
                continue;
            }
            const std::uint32_t timeout = number % 3 == 0 ? PSP_SYNC_FOREVER : long_enough;
            if (number % 3 == 1) // some come with short waits
                while (psp_syncWait(gate, 1) != sOKAY)
                    continue;
            else
                ASSERT_EQ(psp_syncWait(gate, timeout), sOKAY);
            seen[number] = plain;
            if (++passed == lap * waiters)
                psp_syncResume(all_passed);
        }
    });
    EXPECT_EQ(passed, laps * waiters);
}

} // namespace

// Threads for tests that press the library from several sides at once.
#pragma once

#include <atomic>
#include <thread>
#include <vector>

namespace psptest {

// Runs body(number) in `count` threads, which begin together, and waits for their end.
template <class Body>
void run_together(int count, Body body)
{
    std::atomic<int> waiting{count};
    std::vector<std::thread> threads;
    for (int number = 0; number < count; number++)
        threads.emplace_back([&waiting, &body, number] {
            waiting--;
            while (waiting > 0)
                std::this_thread::yield();
            body(number);
        });
    for (std::thread& thread : threads)
        thread.join();
}

} // namespace psptest

// Mutexes and events of the library beside those of the system and of other libraries.

#include <condition_variable>
#include <mutex>
#include <thread>

#include <pthread.h>

#ifdef PSP_PEER_APR
#include <apr_general.h>
#include <apr_thread_mutex.h>
#endif
#ifdef PSP_PEER_GLIB
#include <glib.h>
#endif
#ifdef PSP_PEER_NSPR
#include <prmon.h>
#endif
#ifdef PSP_PEER_UV
#include <uv.h>
#endif

#include "row.h"

namespace {

using bench::Registered;
using bench::Row;
using bench::Work;

// ---- Mutexes: every peer's is recursive, as the library's is ----

class LibraryMutex {
  public:
    LibraryMutex() : sem_(psp_syncCreate_check(PSP_SEM_MUTEX, __FILE__, __LINE__)) {}
    ~LibraryMutex()
    {
        psp_syncDelete(sem_);
    }
    LibraryMutex(const LibraryMutex&) = delete;
    LibraryMutex& operator=(const LibraryMutex&) = delete;

    void enter()
    {
        psp_syncEnterExcl(sem_);
    }
    void exit()
    {
        psp_syncExitExcl(sem_);
    }

  private:
    PSP_SEM sem_;
};

class SystemMutex {
  public:
    SystemMutex()
    {
        pthread_mutexattr_t attr;
        pthread_mutexattr_init(&attr);
        pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_init(&mutex_, &attr);
        pthread_mutexattr_destroy(&attr);
    }
    ~SystemMutex()
    {
        pthread_mutex_destroy(&mutex_);
    }
    SystemMutex(const SystemMutex&) = delete;
    SystemMutex& operator=(const SystemMutex&) = delete;

    void enter()
    {
        pthread_mutex_lock(&mutex_);
    }
    void exit()
    {
        pthread_mutex_unlock(&mutex_);
    }

  private:
    pthread_mutex_t mutex_;
};

class StandardMutex {
  public:
    void enter()
    {
        mutex_.lock();
    }
    void exit()
    {
        mutex_.unlock();
    }

  private:
    std::recursive_mutex mutex_;
};

#ifdef PSP_PEER_APR
class AprMutex {
  public:
    AprMutex()
    {
        apr_pool_create(&pool_, nullptr);
        apr_thread_mutex_create(&mutex_, APR_THREAD_MUTEX_NESTED, pool_);
    }
    ~AprMutex()
    {
        apr_pool_destroy(pool_); // the mutex goes with it
    }
    AprMutex(const AprMutex&) = delete;
    AprMutex& operator=(const AprMutex&) = delete;

    void enter()
    {
        apr_thread_mutex_lock(mutex_);
    }
    void exit()
    {
        apr_thread_mutex_unlock(mutex_);
    }

  private:
    apr_pool_t* pool_ = nullptr;
    apr_thread_mutex_t* mutex_ = nullptr;
};
#endif

#ifdef PSP_PEER_GLIB
class GlibMutex {
  public:
    GlibMutex()
    {
        g_rec_mutex_init(&mutex_);
    }
    ~GlibMutex()
    {
        g_rec_mutex_clear(&mutex_);
    }
    GlibMutex(const GlibMutex&) = delete;
    GlibMutex& operator=(const GlibMutex&) = delete;

    void enter()
    {
        g_rec_mutex_lock(&mutex_);
    }
    void exit()
    {
        g_rec_mutex_unlock(&mutex_);
    }

  private:
    GRecMutex mutex_;
};
#endif

#ifdef PSP_PEER_NSPR
class NsprMutex {
  public:
    NsprMutex() : monitor_(PR_NewMonitor()) {}
    ~NsprMutex()
    {
        PR_DestroyMonitor(monitor_);
    }
    NsprMutex(const NsprMutex&) = delete;
    NsprMutex& operator=(const NsprMutex&) = delete;

    void enter()
    {
        PR_EnterMonitor(monitor_);
    }
    void exit()
    {
        PR_ExitMonitor(monitor_);
    }

  private:
    PRMonitor* monitor_;
};
#endif

#ifdef PSP_PEER_UV
class UvMutex {
  public:
    UvMutex()
    {
        uv_mutex_init_recursive(&mutex_);
    }
    ~UvMutex()
    {
        uv_mutex_destroy(&mutex_);
    }
    UvMutex(const UvMutex&) = delete;
    UvMutex& operator=(const UvMutex&) = delete;

    void enter()
    {
        uv_mutex_lock(&mutex_);
    }
    void exit()
    {
        uv_mutex_unlock(&mutex_);
    }

  private:
    uv_mutex_t mutex_;
};
#endif

// Adds a side for each kind of mutex, with a goal against the system's own.
template <template <class Mutex> class Use>
void run_mutexes(Row& row, double goal)
{
    const bench::Server server;
    row.psp(Use<LibraryMutex>::work());
    row.peer("pthread recursive", Use<SystemMutex>::work(), goal);
    row.peer("C++", Use<StandardMutex>::work());
#ifdef PSP_PEER_APR
    apr_initialize();
    row.peer("APR", Use<AprMutex>::work());
#endif
#ifdef PSP_PEER_GLIB
    row.peer("GLib", Use<GlibMutex>::work());
#endif
#ifdef PSP_PEER_NSPR
    row.peer("NSPR", Use<NsprMutex>::work());
#endif
#ifdef PSP_PEER_UV
    row.peer("libuv", Use<UvMutex>::work());
#endif
    row.run();
}

template <class Mutex>
void enter_and_exit(Mutex& mutex, size_t n)
{
    for (size_t i = 0; i < n; ++i) {
        mutex.enter();
        benchmark::ClobberMemory(); // the work under the lock, which may not move out
        mutex.exit();
    }
}

template <class Mutex>
struct Free {
    static Work work()
    {
        return [](size_t n) {
            Mutex mutex;
            enter_and_exit(mutex, n);
        };
    }
};

template <class Mutex>
struct Nested {
    static Work work()
    {
        return [](size_t n) {
            Mutex mutex;
            mutex.enter();
            enter_and_exit(mutex, n);
            mutex.exit();
        };
    }
};

// The same work by two threads; the second one's start is a small part of a batch.
template <class Mutex>
struct Contended {
    static Work work()
    {
        return [](size_t n) {
            Mutex mutex;
            size_t count = 0;
            const auto work_under_lock = [&mutex, &count, n] {
                for (size_t i = 0; i < n / 2; ++i) {
                    mutex.enter();
                    benchmark::DoNotOptimize(++count);
                    mutex.exit();
                }
            };
            std::thread other(work_under_lock);
            work_under_lock();
            other.join();
            if (count != n)
                std::abort();
        };
    }
};

void free_mutex(Row& row)
{
    run_mutexes<Free>(row, 1.1);
}

void nested_mutex(Row& row)
{
    run_mutexes<Nested>(row, 0.6);
}

void contended_mutex(Row& row)
{
    row.batch(20'000);
    row.longer(5); // a batch is quick or slow, as the threads meet
    run_mutexes<Contended>(row, 1.2);
}

template <class Object>
void make_and_drop(size_t n)
{
    for (size_t i = 0; i < n; ++i) {
        Object object;
        benchmark::DoNotOptimize(&object);
    }
}

void create_mutex(Row& row)
{
    const bench::Server server;
    row.psp(make_and_drop<LibraryMutex>);
    row.peer("pthread recursive", make_and_drop<SystemMutex>, 0.8);
#ifdef PSP_PEER_GLIB
    row.peer("GLib", make_and_drop<GlibMutex>);
#endif
#ifdef PSP_PEER_NSPR
    row.peer("NSPR", make_and_drop<NsprMutex>);
#endif
#ifdef PSP_PEER_UV
    row.peer("libuv", make_and_drop<UvMutex>);
#endif
    row.run();
}

const Registered free_row("sync", "mutex, enter and exit", "ns/pair", free_mutex);
const Registered nested_row("sync", "mutex, nested pair", "ns/pair", nested_mutex);
const Registered contended_row("sync", "mutex, two threads", "ns/pair", contended_mutex);
const Registered create_row("sync", "mutex, create and delete", "ns/pair", create_mutex);

// ---- Events: peers make one of a mutex, a condition variable and a flag ----

class LibraryEvent {
  public:
    LibraryEvent() : event_(psp_syncCreate_check(PSP_SEM_EVENT, __FILE__, __LINE__))
    {
        psp_syncStart(event_);
    }
    ~LibraryEvent()
    {
        psp_syncDelete(event_);
    }
    LibraryEvent(const LibraryEvent&) = delete;
    LibraryEvent& operator=(const LibraryEvent&) = delete;

    void signal()
    {
        psp_syncResume(event_);
    }
    void take()
    {
        psp_syncWait(event_, PSP_SYNC_FOREVER);
        psp_syncStart(event_);
    }
    bool is_signalled()
    {
        return psp_syncWait(event_, 0) == sOKAY;
    }

  private:
    PSP_SEM event_;
};

class SystemEvent {
  public:
    void signal()
    {
        pthread_mutex_lock(&mutex_);
        flag_ = true;
        pthread_cond_broadcast(&cond_);
        pthread_mutex_unlock(&mutex_);
    }
    void take()
    {
        pthread_mutex_lock(&mutex_);
        while (!flag_)
            pthread_cond_wait(&cond_, &mutex_);
        flag_ = false;
        pthread_mutex_unlock(&mutex_);
    }
    bool is_signalled()
    {
        pthread_mutex_lock(&mutex_);
        timespec now;
        clock_gettime(CLOCK_REALTIME, &now);
        while (!flag_ && pthread_cond_timedwait(&cond_, &mutex_, &now) == 0) {
        }
        const bool signalled = flag_;
        pthread_mutex_unlock(&mutex_);
        return signalled;
    }

  private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t cond_ = PTHREAD_COND_INITIALIZER;
    bool flag_ = false;
};

class StandardEvent {
  public:
    void signal()
    {
        const std::lock_guard guard(mutex_);
        flag_ = true;
        cond_.notify_all();
    }
    void take()
    {
        std::unique_lock lock(mutex_);
        cond_.wait(lock, [this] { return flag_; });
        flag_ = false;
    }
    bool is_signalled()
    {
        std::unique_lock lock(mutex_);
        return cond_.wait_for(lock, std::chrono::seconds(0), [this] { return flag_; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable cond_;
    bool flag_ = false;
};

// A thread that answers every ball.
template <class Event>
class Partner {
  public:
    Partner()
        : thread_([this] {
              for (ball_.take(); !over_; ball_.take())
                  answer_.signal();
          })
    {
    }
    ~Partner()
    {
        over_ = true; // the ball carries it over
        ball_.signal();
        thread_.join();
    }
    Partner(const Partner&) = delete;
    Partner& operator=(const Partner&) = delete;

    Work work()
    {
        return [this](size_t n) {
            for (size_t i = 0; i < n; ++i) {
                ball_.signal();
                answer_.take();
            }
        };
    }

  private:
    Event ball_;
    Event answer_;
    bool over_ = false;
    std::thread thread_;
};

void ping_pong(Row& row)
{
    const bench::Server server;
    Partner<LibraryEvent> library;
    Partner<SystemEvent> system;
    Partner<StandardEvent> standard;
    row.batch(200);
    row.longer(5); // a batch is quick or slow, as the threads share processors or do not
    row.psp(library.work());
    row.peer("condition variable", system.work(), 1.0);
    row.peer("C++", standard.work());
    row.run();
}

template <class Event>
void look(size_t n)
{
    Event event;
    for (size_t i = 0; i < n; ++i) {
        if (event.is_signalled())
            std::abort();
    }
}

void look_at_event(Row& row)
{
    const bench::Server server;
    row.at_most(200);
    row.psp(look<LibraryEvent>);
    row.peer("condition variable", look<SystemEvent>);
    row.peer("C++", look<StandardEvent>);
    row.run();
}

const Registered ping_pong_row("sync", "event, there and back", "ns/round", ping_pong);
const Registered look_row("sync", "event, wait of no time", "ns/call", look_at_event);

} // namespace

// The C++ face in a program without exceptions and run-time type information: exits 0 when all
// goes well, and ends in std::terminate where a container runs out of memory.
#include "psp.hpp"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <functional>
#include <iterator>
#include <map>
#include <memory_resource>
#include <mutex>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Objects of every class, made, used and destroyed.
bool use_everything()
{
    psp::tag tag = psp::tag::create(BLOCK_ALLOCATOR, psp::access::any_thread);
    psp::pool pool = psp::pool::create(tag.native());
    psp::mutex mutex = psp::mutex::create();
    psp::try_mutex first = psp::try_mutex::create();
    psp::try_mutex second = psp::try_mutex::create();
    psp::event event = psp::event::create();
    psp::random random = psp::random::create(5);
    psp::scan scan = psp::scan::open("/");
    psp::temporary_file temporary = psp::temporary_file::create();
    psp::string text = psp::string::format(tag.native(), "%d", 5);
    psp::stream stream = psp::stream::open("/dev/null", "w");
    auto sink = [](const void*, std::uint32_t) noexcept -> ZYN_RETCODE { return sOKAY; };
    psp::binary_writer writer = psp::binary_writer::create(sink);
    const std::lock_guard<psp::mutex> guard(mutex);
    const std::scoped_lock both(first, second);
    pool.put(pool.get(10));
    std::vector<int> numbers(10);
    std::generate(numbers.begin(), numbers.end(), std::ref(random));
    return temporary && event.wait(0) == sOKAY && scan.begin() != scan.end() &&
           temporary.file().write("x", 1) == 1 && text.append("%d", 6) && text.view() == "56" &&
           stream.print("%s", text.c_str()) == 2 && writer.put_int32(1) == sOKAY &&
           writer.flush() == sOKAY && psp::error(eNOMEMORY) == std::errc::not_enough_memory;
}

bool keep_containers()
{
    psp::tag tag = psp::tag::create(STACK_ALLOCATOR);
    psp::memory_resource resource(tag);
    psp::memory_resource equal(tag);
    std::pmr::map<int, std::pmr::string> map(&resource);
    for (int i = 0; i < 1000; i++)
        map.emplace(i, "a value that does not fit into the string itself");
    return map.size() == 1000 && resource == equal &&
           !(resource == *std::pmr::new_delete_resource());
}

// How a child ends that asks a container for more than a tag has.
bool runs_out_into_terminate()
{
    const pid_t child = fork();
    if (child == 0) {
        std::set_terminate([] { _exit(42); });
        psp::tag tag = psp::tag::create();
        psp::memory_resource resource(tag);
        std::pmr::vector<char> vector(&resource);
        vector.reserve(std::size_t{5} << 30);
        _exit(0);
    }
    int status = 0;
    return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) &&
           WEXITSTATUS(status) == 42;
}

} // namespace

int main()
{
    const psp::library started = psp::library::start();
    return started && use_everything() && keep_containers() && runs_out_into_terminate() ? 0 : 1;
}

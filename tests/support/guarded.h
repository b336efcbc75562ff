// Bytes in front of a page that nobody may touch: reading or writing beyond their end ends the
// process, in every build.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <sys/mman.h>
#include <unistd.h>

namespace psptest {

// Room for one text at a time, used again for the next: making it costs two calls of the system.
class GuardedRoom {
  public:
    explicit GuardedRoom(std::size_t most)
        : page_(static_cast<std::size_t>(sysconf(_SC_PAGESIZE))),
          size_((most + page_ - 1) / page_ * page_)
    {
        void* const room = mmap(nullptr, size_ + page_, PROT_READ | PROT_WRITE,
                                MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (room == MAP_FAILED)
            std::abort();
        room_ = static_cast<char*>(room);
        if (mprotect(room_ + size_, page_, PROT_NONE) != 0)
            std::abort();
    }
    ~GuardedRoom()
    {
        munmap(room_, size_ + page_);
    }
    GuardedRoom(const GuardedRoom&) = delete;
    GuardedRoom& operator=(const GuardedRoom&) = delete;

    // A copy of the text that ends where the room ends.
    const char* place(std::string_view text)
    {
        if (text.size() > size_)
            std::abort();
        char* const start = room_ + size_ - text.size();
        std::memcpy(start, text.data(), text.size());
        return start;
    }

  private:
    std::size_t page_;
    std::size_t size_;
    char* room_ = nullptr;
};

} // namespace psptest

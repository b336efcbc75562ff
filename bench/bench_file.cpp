// Files through handles and by name beside the bare system calls.
//
// A peer makes the system calls that the library makes, no others, in the way of a careful caller:
// it begins anew what a signal interrupts and checks every result. The file lies in memory where
// the machine has such a file system, so that no device hides the difference.

#include <cerrno>
#include <cstdlib>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "row.h"

namespace {

using bench::Registered;
using bench::Row;
using bench::Work;

constexpr double GOAL = 1.03;
constexpr uint32_t SMALL = 64;
constexpr uint32_t PAGE = 4096;
constexpr uint32_t BLOCKS = 256; // of the file, each a page apart

void expect(bool good)
{
    if (!good)
        std::abort();
}

uint64_t place(size_t i)
{
    return (i % BLOCKS) * PAGE;
}

template <class Call>
ssize_t uninterrupted(Call call)
{
    ssize_t count;
    do
        count = call();
    while (count == -1 && errno == EINTR);
    return count;
}

class ScratchFile {
  public:
    ScratchFile()
    {
        if (psp_dirWritable("/dev/shm"))
            psp_setTmpDir("/dev/shm");
        uint32_t counter = 0;
        name_ = psp_fileCreateTmpName(&counter, "bench", nullptr, 0, PSP_GLOBAL_TAG);
        handle_ = psp_fileOpen(name_, O_RDWR | O_CREAT, 0);
        fd_ = open(name_, O_RDWR);
        expect(handle_ != nullptr && fd_ != -1);
        for (size_t i = 0; i < BLOCKS; ++i)
            expect(pwrite(fd_, block_, PAGE, static_cast<off_t>(place(i))) == PAGE);
    }
    ~ScratchFile()
    {
        close(fd_);
        psp_fileClose(handle_);
        psp_fileRemove(name_);
        psp_freeMem(name_, PSP_GLOBAL_TAG, __FILE__, __LINE__);
    }
    ScratchFile(const ScratchFile&) = delete;
    ScratchFile& operator=(const ScratchFile&) = delete;

    const char* name() const
    {
        return name_;
    }

    // The transfers of the library, and the system's.
    Work read(uint32_t size)
    {
        return [this, size](size_t n) {
            for (size_t i = 0; i < n; ++i)
                expect(psp_fileSeekRead(handle_, place(i), block_, size) == size);
        };
    }
    Work write(uint32_t size)
    {
        return [this, size](size_t n) {
            for (size_t i = 0; i < n; ++i)
                expect(psp_fileSeekWrite(handle_, place(i), block_, size) == size);
        };
    }
    Work bare_read(uint32_t size)
    {
        return [this, size](size_t n) {
            for (size_t i = 0; i < n; ++i)
                expect(uninterrupted([&] {
                           return pread(fd_, block_, size, static_cast<off_t>(place(i)));
                       }) == size);
        };
    }
    Work bare_write(uint32_t size)
    {
        return [this, size](size_t n) {
            for (size_t i = 0; i < n; ++i)
                expect(uninterrupted([&] {
                           return pwrite(fd_, block_, size, static_cast<off_t>(place(i)));
                       }) == size);
        };
    }

  private:
    const char* name_;
    PSP_FH handle_;
    int fd_;
    alignas(64) char block_[PAGE] = {};
};

template <uint32_t size>
void read_at(Row& row)
{
    const bench::Server server;
    ScratchFile file;
    row.psp(file.read(size));
    row.peer("pread", file.bare_read(size), GOAL);
    row.run();
}

template <uint32_t size>
void write_at(Row& row)
{
    const bench::Server server;
    ScratchFile file;
    row.psp(file.write(size));
    row.peer("pwrite", file.bare_write(size), GOAL);
    row.run();
}

void open_and_close(Row& row)
{
    const bench::Server server;
    ScratchFile file;
    row.psp([&file](size_t n) {
        for (size_t i = 0; i < n; ++i) {
            const PSP_FH handle = psp_fileOpen(file.name(), O_RDWR, 0);
            expect(handle != nullptr);
            psp_fileClose(handle);
        }
    });
    row.peer(
        "open, close",
        [&file](size_t n) {
            for (size_t i = 0; i < n; ++i) {
                const int fd = open(file.name(), O_RDWR, 0666);
                expect(fd != -1);
                expect(close(fd) == 0);
            }
        },
        GOAL);
    row.run();
}

void exists(Row& row)
{
    const bench::Server server;
    ScratchFile file;
    row.psp([&file](size_t n) {
        for (size_t i = 0; i < n; ++i)
            expect(psp_fileValidate(file.name()) == ZYN_TRUE);
    });
    row.peer(
        "stat",
        [&file](size_t n) {
            for (size_t i = 0; i < n; ++i) {
                struct stat status;
                expect(stat(file.name(), &status) == 0);
            }
        },
        GOAL);
    row.run();
}

const Registered read_small_row("file", "pread 64 B", "ns/call", read_at<SMALL>);
const Registered read_page_row("file", "pread 4 KiB", "ns/call", read_at<PAGE>);
const Registered write_small_row("file", "pwrite 64 B", "ns/call", write_at<SMALL>);
const Registered write_page_row("file", "pwrite 4 KiB", "ns/call", write_at<PAGE>);
const Registered open_row("file", "open and close", "ns/pair", open_and_close);
const Registered exists_row("file", "exists", "ns/call", exists);

} // namespace

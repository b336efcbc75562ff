// Transfers of 4 KiB through a file handle against the bare system calls.
//
// Both sides work on one file, in memory where the machine has such a file system and otherwise
// in the page cache, and take turns in batches of the same run, so that a disturbance of the
// machine meets both. Each side counts with its quickest batch. The counters `psp_ns` and
// `peer_ns` tell the time of one transfer, `ratio` the first by the second: at most 1.03.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <limits>

#include <fcntl.h>
#include <unistd.h>

#include "psp.h"

namespace {

constexpr uint32_t BLOCK = 4096;
constexpr uint32_t BLOCKS = 256; // the file, and one batch

class HandleFile {
  public:
    explicit HandleFile(const char* name) : file_(psp_fileOpen(name, O_RDWR | O_CREAT, 0)) {}
    ~HandleFile()
    {
        psp_fileClose(file_);
    }
    HandleFile(const HandleFile&) = delete;
    HandleFile& operator=(const HandleFile&) = delete;

    bool usable() const
    {
        return file_ != nullptr;
    }
    void rewind()
    {
        psp_fileSeek(file_, 0, SEEK_SET, nullptr);
    }
    bool read(void* block)
    {
        return psp_fileRead(file_, block, BLOCK) == BLOCK;
    }
    bool write(const void* block)
    {
        return psp_fileWrite(file_, block, BLOCK) == BLOCK;
    }
    bool readAt(uint32_t number, void* block)
    {
        return psp_fileSeekRead(file_, uint64_t{number} * BLOCK, block, BLOCK) == BLOCK;
    }
    bool writeAt(uint32_t number, const void* block)
    {
        return psp_fileSeekWrite(file_, uint64_t{number} * BLOCK, block, BLOCK) == BLOCK;
    }

  private:
    PSP_FH file_;
};

class BareFile {
  public:
    explicit BareFile(const char* name) : fd_(open(name, O_RDWR | O_CREAT, 0666)) {}
    ~BareFile()
    {
        close(fd_);
    }
    BareFile(const BareFile&) = delete;
    BareFile& operator=(const BareFile&) = delete;

    bool usable() const
    {
        return fd_ != -1;
    }
    void rewind()
    {
        lseek(fd_, 0, SEEK_SET);
    }
    bool read(void* block)
    {
        return ::read(fd_, block, BLOCK) == BLOCK;
    }
    bool write(const void* block)
    {
        return ::write(fd_, block, BLOCK) == BLOCK;
    }
    bool readAt(uint32_t number, void* block)
    {
        return pread(fd_, block, BLOCK, off_t{number} * BLOCK) == BLOCK;
    }
    bool writeAt(uint32_t number, const void* block)
    {
        return pwrite(fd_, block, BLOCK, off_t{number} * BLOCK) == BLOCK;
    }

  private:
    int fd_;
};

// The four transfers, each of block `number` where that counts.
constexpr auto doRead = [](auto& file, uint32_t, char* block) { return file.read(block); };
constexpr auto doWrite = [](auto& file, uint32_t, char* block) { return file.write(block); };
constexpr auto doReadAt = [](auto& file, uint32_t number, char* block) {
    return file.readAt(number, block);
};
constexpr auto doWriteAt = [](auto& file, uint32_t number, char* block) {
    return file.writeAt(number, block);
};

// Nanoseconds of one transfer; clears `good` when one failed.
template <class File, class Transfer>
double timeBatch(File& file, char* block, Transfer transfer, bool& good)
{
    file.rewind();
    const auto begin = std::chrono::steady_clock::now();
    for (uint32_t number = 0; number < BLOCKS; ++number) {
        good &= transfer(file, number, block);
        benchmark::ClobberMemory();
    }
    const std::chrono::duration<double, std::nano> elapsed =
        std::chrono::steady_clock::now() - begin;
    return elapsed.count() / BLOCKS;
}

template <class Transfer>
void compare(benchmark::State& state, const char* name, Transfer transfer)
{
    alignas(64) static char block[BLOCK];
    HandleFile handle(name);
    BareFile bare(name);
    bool good = handle.usable() && bare.usable();
    if (good)
        timeBatch(bare, block, doWrite, good); // the blocks exist before anything is timed

    double psp = std::numeric_limits<double>::infinity();
    double peer = psp;
    for (auto _ : state) {
        psp = std::min(psp, timeBatch(handle, block, transfer, good));
        peer = std::min(peer, timeBatch(bare, block, transfer, good));
    }
    if (!good)
        state.SkipWithError("a transfer failed");
    state.counters["psp_ns"] = psp;
    state.counters["peer_ns"] = peer;
    state.counters["ratio"] = psp / peer;
}

template <class Transfer>
void transferBlocks(benchmark::State& state, Transfer transfer)
{
    if (psp_init() != sOKAY) {
        state.SkipWithError("psp_init failed");
        return;
    }
    if (psp_dirWritable("/dev/shm"))
        psp_setTmpDir("/dev/shm");
    uint32_t counter = 0;
    const char* name = psp_fileCreateTmpName(&counter, "bench", nullptr, 0, PSP_THREAD_TAG);
    compare(state, name, transfer);
    psp_fileRemove(name);
    psp_term();
}

BENCHMARK_CAPTURE(transferBlocks, read, doRead);
BENCHMARK_CAPTURE(transferBlocks, write, doWrite);
BENCHMARK_CAPTURE(transferBlocks, seekRead, doReadAt);
BENCHMARK_CAPTURE(transferBlocks, seekWrite, doWriteAt);

} // namespace

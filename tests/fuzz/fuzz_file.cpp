// File handles and whole files by name, step by step beside a model that keeps the files in memory.
// What lies on the disk in the end must be what the model has.
#include "file_model.h"
#include "fuzz.h"
#include "library.h"
#include "scratch.h"

#include "psp/file.h"
#include "psp/fileutil.h"
#include "psp_file_int.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::size_t most_handles = 6;
constexpr uint64_t far_away = 1 << 16; // no write goes there: files stay short

Scratch& scratch()
{
    static Scratch instance;
    return instance;
}

struct Handle {
    PSP_FH handle;
    std::unique_ptr<OpenModel> model;
    bool tried_lock = false;
};

// ---- Inputs ----

std::string any_name(FuzzedDataProvider& input)
{
    return input.PickValueInArray<const char*>(
        {"a", "b", "c", "a", "b", "STDOUT", "d/e", "d", "a/x", "none/x", "stdoutx"});
}

// Bytes that differ from place to place and from write to write.
std::string any_bytes(FuzzedDataProvider& input)
{
    const auto start = input.ConsumeIntegral<uint8_t>();
    const auto dice = input.ConsumeIntegral<uint8_t>();
    const std::size_t size = dice < 0x40   ? 1
                             : dice < 0xA0 ? dice % 0x20
                                           : input.ConsumeIntegralInRange<std::size_t>(1000, 2100);
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; i++)
        bytes[i] = static_cast<char>(start + i + i / 256);
    return bytes;
}

// A place in a file, often next to its end and seldom one that cannot be.
int64_t any_place(FuzzedDataProvider& input, int64_t least, std::size_t length)
{
    const auto dice = input.ConsumeIntegral<uint8_t>();
    if (dice == 0xFF)
        return INT64_MIN;
    if (dice % 4 == 0)
        return std::max(static_cast<int64_t>(length) - dice / 4 % 4, least);
    return dice % 4 == 1 ? input.ConsumeIntegralInRange<int64_t>(least, 40)
                         : input.ConsumeIntegralInRange<int64_t>(0, 6000);
}

uint32_t any_flags(FuzzedDataProvider& input)
{
    const auto bits = input.ConsumeIntegral<uint8_t>();
    uint32_t flags = bits % 3;
    flags |= (bits & 0x10) != 0 ? O_CREAT : 0;
    flags |= (bits & 0x20) != 0 ? O_TRUNC : 0;
    flags |= (bits & 0x40) != 0 ? O_APPEND : 0;
    flags |= (bits & 0x8C) == 0x8C ? O_EXCL : 0;
    return flags;
}

// ---- Steps ----

class Run {
  public:
    explicit Run(FuzzedDataProvider& input) : input_(input)
    {
        scratch().enter();
        CHECK(mkdir("d", 0777) == 0);
        CHECK(names_.open("d/keep", O_CREAT) != nullptr);
        std::ofstream("d/keep").flush();
    }
    ~Run()
    {
        while (!handles_.empty())
            close_last();
        check_files();
        scratch().leave();
    }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    void step()
    {
        const auto dice = input_.ConsumeIntegralInRange(0, 31);
        if (dice < 8 || handles_.empty())
            return by_name(dice % 8);
        const std::size_t which = input_.ConsumeIntegralInRange<std::size_t>(0, most_handles - 1);
        std::swap(handles_[which % handles_.size()], handles_.back());
        by_handle(handles_.back(), dice);
    }

  private:
    void by_name(int dice)
    {
        const std::string name = any_name(input_);
        switch (dice) {
        case 0:
            return remove(name);
        case 1:
            return rename(name, any_name(input_));
        case 2:
            return copy(name, any_name(input_));
        case 3:
            return compare(name, any_name(input_));
        case 4:
            return ask(name);
        default:
            return open(name, any_flags(input_), input_.ConsumeBool() ? PSP_XFLAG_NOSYNC : 0);
        }
    }

    void by_handle(Handle& file, int dice)
    {
        const std::size_t length = file.model->file->bytes.size();
        switch (dice) {
        case 8:
            return close_last();
        case 9:
        case 10:
        case 11:
        case 12:
            return write(file, any_bytes(input_));
        case 13:
        case 14:
        case 15:
            return write_at(file, any_place(input_, 0, length), any_bytes(input_));
        case 16:
        case 17:
        case 18:
            return read(file, input_.ConsumeIntegralInRange<uint32_t>(0, 3000));
        case 19:
        case 20:
        case 21:
            return read_at(file, any_place(input_, 0, length),
                           input_.ConsumeIntegralInRange<uint32_t>(0, 3000));
        case 22:
        case 23:
            return seek(file, any_place(input_, -40, length), input_.ConsumeIntegralInRange(0, 2));
        case 24:
            return seek(file, 0, input_.PickValueInArray({-1, 5, 42}));
        case 25:
        case 26:
            return resize(file, any_place(input_, 0, length));
        case 27:
        case 28:
            return lock(file);
        case 29:
            return unlock(file);
        default:
            return rest(file);
        }
    }

    // ---- By name ----

    void open(const std::string& name, uint32_t flags, uint16_t xflags)
    {
        // What a directory opened for reading gives is the file system's affair.
        if (handles_.size() == most_handles ||
            (names_.is_directory(name) && (flags & (O_ACCMODE | O_CREAT | O_TRUNC)) == 0))
            return;
        ZYN_BOOL_T console = 42;
        const PSP_FH handle = psp_fileOpenStd(name.c_str(), flags, xflags, &console);
        auto model = names_.open(name, flags);
        CHECK((handle == nullptr) == (model == nullptr));
        CHECK(console == (handle == nullptr ? 42 : ZYN_FALSE));
        if (handle != nullptr)
            handles_.push_back({handle, std::move(model)});
    }

    void remove(const std::string& name)
    {
        const ZYN_RETCODE rc = psp_fileRemove(name.c_str());
        CHECK(rc == (names_.remove(name) ? ZYN_RETCODE{sOKAY} : ZYN_RETCODE{ePSP_FAILURE}));
    }

    // The library has no call for it, but its handles must not mind.
    void rename(const std::string& from, const std::string& to)
    {
        if (names_.find(from) == nullptr || names_.is_directory(to) || !names_.has_place(to))
            return;
        CHECK(std::rename(from.c_str(), to.c_str()) == 0);
        if (names_.find(from) != names_.find(to))
            names_.rename(from, to);
    }

    void copy(const std::string& from, const std::string& to)
    {
        if (names_.is_directory(from))
            return;
        const ZYN_RETCODE rc = psp_fileCopy(from.c_str(), to.c_str());
        const FileRef source = names_.find(from);
        const auto dest = source == nullptr ? nullptr : names_.open(to, O_RDWR | O_CREAT);
        CHECK(rc == (dest == nullptr ? ZYN_RETCODE{ePSP_FAILURE} : ZYN_RETCODE{sOKAY}));
        if (dest != nullptr)
            dest->file->bytes = source->bytes;
    }

    void compare(const std::string& first, const std::string& second)
    {
        if (names_.is_directory(first) || names_.is_directory(second))
            return;
        const FileRef a = names_.find(first);
        const FileRef b = names_.find(second);
        CHECK(psp_fileCmp(first.c_str(), second.c_str()) ==
              (a == nullptr           ? ZYN_RETCODE{ePSP_NOSOURCE}
               : b == nullptr         ? ZYN_RETCODE{ePSP_NODEST}
               : a->bytes == b->bytes ? ZYN_RETCODE{sOKAY}
                                      : ZYN_RETCODE{ePSP_FAILURE}));
    }

    void ask(const std::string& name)
    {
        const bool exists = names_.exists(name);
        ZYN_BOOL_T isdir = 42;
        CHECK(psp_fileValidateEx(name.c_str(), 0, &isdir) == (exists ? ZYN_TRUE : ZYN_FALSE));
        CHECK(!exists || isdir == (names_.is_directory(name) ? ZYN_TRUE : ZYN_FALSE));
        time64_t time = 42;
        CHECK(psp_fileModTimeStat(name.c_str(), 0, &time) == (exists ? ZYN_RETCODE{sOKAY}
                                                              : names_.is_below_file(name)
                                                                  ? ZYN_RETCODE{eINVFILE}
                                                                  : ZYN_RETCODE{eFILEOPEN}));
        CHECK(exists == (time != 42));
        // The process's own streams stay open whatever is done with their handles.
        const PSP_FH standard = psp_fileOpen("stdERR", O_WRONLY, 0);
        CHECK(standard != nullptr);
        psp_fileClose(standard);
        CHECK(fcntl(2, F_GETFD) >= 0);
    }

    // ---- By handle ----

    void close_last()
    {
        Handle& file = handles_.back();
        file.model->unlock();
        errno = 4711;
        psp_fileClose(file.handle);
        CHECK(errno == 4711);
        handles_.pop_back();
    }

    void write(Handle& file, const std::string& bytes)
    {
        if (!file.model->append && file.model->offset > far_away)
            return;
        const auto size = static_cast<uint32_t>(bytes.size());
        const bool written = file.model->writable && size != 0;
        CHECK(psp_fileWrite(file.handle, exact(bytes).get(), size) == (written ? size : 0));
        if (written)
            file.model->write(bytes);
    }

    void write_at(Handle& file, int64_t at, const std::string& bytes)
    {
        const auto size = static_cast<uint32_t>(bytes.size());
        const bool written = file.model->writable && size != 0 && at >= 0;
        CHECK(psp_fileSeekWrite(file.handle, static_cast<uint64_t>(at), exact(bytes).get(), size) ==
              (written ? size : 0));
        if (written)
            file.model->write_at(static_cast<uint64_t>(at), bytes);
    }

    void read(Handle& file, uint32_t size)
    {
        const auto buffer = exact(std::string(size, '\x5A'));
        const uint32_t count = psp_fileRead(file.handle, buffer.get(), size);
        CHECK(std::string(buffer.get(), count) ==
              (file.model->readable ? file.model->read(size) : ""));
    }

    void read_at(Handle& file, int64_t at, uint32_t size)
    {
        const auto buffer = exact(std::string(size, '\x5A'));
        const auto place = static_cast<uint64_t>(at);
        const uint32_t count = psp_fileSeekRead(file.handle, place, buffer.get(), size);
        CHECK(std::string(buffer.get(), count) ==
              (file.model->readable ? file.model->file->get(place, size) : ""));
    }

    void seek(Handle& file, int64_t distance, int origin)
    {
        PSP_FILE_OFFSET now = 4711;
        const ZYN_RETCODE rc =
            psp_fileSeek(file.handle, static_cast<uint64_t>(distance), origin, &now);
        const bool moved = file.model->seek(distance, origin);
        CHECK(rc == (moved ? ZYN_RETCODE{sOKAY} : ZYN_RETCODE{ePSP_FAILURE}));
        CHECK(now == (moved ? file.model->offset : 4711));
    }

    void resize(Handle& file, int64_t size)
    {
        const ZYN_RETCODE rc = psp_fileSetSize(file.handle, static_cast<uint64_t>(size));
        CHECK(rc == (!file.model->writable ? ZYN_RETCODE{eBADWRITE}
                     : size < 0            ? ZYN_RETCODE{ePSP_FAILURE}
                                           : ZYN_RETCODE{sOKAY}));
        if (rc == sOKAY)
            file.model->file->resize(static_cast<std::size_t>(size));
    }

    void lock(Handle& file)
    {
        file.tried_lock = true;
        CHECK(psp_fileLock(file.handle) ==
              (file.model->lock() ? ZYN_RETCODE{sOKAY} : ZYN_RETCODE{ePSP_FAILURE}));
    }

    void unlock(Handle& file)
    {
        psp_fileUnlock(file.handle);
        if (file.tried_lock)
            file.model->unlock();
    }

    // What changes nothing.
    void rest(Handle& file)
    {
        CHECK(psp_fileLength(file.handle) == file.model->file->bytes.size());
        CHECK(psp_fileSync(file.handle) == sOKAY);
        CHECK(psp_filePageOut(file.handle, 0, 4096) == sOKAY);
        void* map = &map;
        CHECK(psp_fileMap(file.handle, 1, &map) == eNOTIMPLEMENTED && map == &map);
        char byte = 0;
        CHECK(psp_fileConsoleRead(file.handle, &byte, 1) == 0);
        CHECK(psp_fileConsoleWrite(file.handle, &byte, 1) == 0);
    }

    void check_files() const
    {
        for (const auto& [name, model] : names_.all()) {
            std::ifstream file(name, std::ios::binary);
            const std::string bytes{std::istreambuf_iterator<char>(file), {}};
            CHECK(file && bytes == model->bytes);
        }
    }

    FuzzedDataProvider& input_;
    NamesModel names_;
    std::vector<Handle> handles_;
};

int next_descriptor()
{
    const int fd = dup(2);
    CHECK(fd >= 0 && close(fd) == 0);
    return fd;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    scratch();
    start_library();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const int descriptor = next_descriptor();
    const std::size_t records = used_bytes(psp_fileGlobals()->fileTag);
    {
        Run run(input);
        for (int steps = 0; steps < 60 && input.remaining_bytes() > 0; steps++)
            run.step();
    }
    CHECK(next_descriptor() == descriptor);
    CHECK(used_bytes(psp_fileGlobals()->fileTag) == records);
    CHECK(used_bytes(PSP_THREAD_TAG) == 0);
    return 0;
}

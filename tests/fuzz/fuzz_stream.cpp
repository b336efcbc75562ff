// Text streams against a model that works on the whole file in memory: marks and encodings found
// on opening, characters, lines and push-back while reading, and the UTF-16 writer.
#include "fuzz.h"
#include "support/utf8_model.h"

#include "psp/core.h"
#include "psp/mem.h"
#include "psp/stream.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr std::size_t pushback_size = 20;

// What a stream opened for reading gives.
class Model {
  public:
    Model(std::string_view file, PSP_FILE_MODE mode) : rest_(file), mode_(mode)
    {
        using namespace std::string_view_literals;
        for (const auto mark : {"\xEF\xBB\xBF"sv, "\xFF\xFE"sv, "\xFE\xFF"sv}) {
            if (file.substr(0, mark.size()) == mark) {
                mode_ = mark.size() == 3 ? PSP_FILE_MODE_UTF8 : PSP_FILE_MODE_UTF16;
                swap_ = mark[0] == '\xFE';
                rest_.remove_prefix(mark.size());
                return;
            }
            if (!file.empty() && mark.substr(0, file.size()) == file) {
                rest_ = {}; // the mark's bytes are lost, and the caller's mode stays
                return;
            }
        }
        mode_ = PSP_FILE_MODE_UTF8;
    }

    bool undecided() const
    {
        return mode_ == PSP_FILE_MODE_UNKNOWN;
    }

    int32_t getc()
    {
        if (!pushed_.empty()) {
            const int32_t c = pushed_.back();
            pushed_.pop_back();
            return c;
        }
        if (mode_ == PSP_FILE_MODE_UTF16)
            return wide();
        if (undecided())
            return 0;
        const std::string_view byte = take(1);
        return byte.empty() ? -1 : static_cast<signed char>(byte[0]);
    }

    int32_t ungetc(int32_t c)
    {
        if (pushed_.size() == pushback_size)
            return -1;
        pushed_.push_back(c);
        return c;
    }

    // Fills `size` bytes from `at` on as far as the line goes; false when there is none.
    bool gets(std::string& buffer, std::size_t at, std::size_t size)
    {
        std::size_t stored = 0;
        while (stored + 1 < size) {
            const int32_t c = getc();
            if (c == -1 && stored == 0)
                return false;
            if (c == -1)
                break;
            buffer[at + stored++] = static_cast<char>(c);
            if (c == '\n')
                break;
        }
        buffer[at + stored] = '\0';
        return true;
    }

    // A line of any length in a buffer that grows by 100 bytes a step.
    bool get_line(std::string& buffer)
    {
        std::size_t at = 0;
        bool any = false;
        while (gets(buffer, at, buffer.size() - at)) {
            any = true;
            buffer.back() = '\0';
            if (std::strchr(buffer.c_str() + at, '\n') != nullptr)
                break;
            at = buffer.size() - 1;
            buffer.resize(buffer.size() + 100);
        }
        return any;
    }

  private:
    std::string_view take(std::size_t size)
    {
        const std::string_view part = rest_.substr(0, size);
        rest_.remove_prefix(part.size());
        return part;
    }

    int32_t wide()
    {
        const std::string_view bytes = take(2);
        if (bytes.empty())
            return -1;
        const auto half = [&](std::size_t i) -> uint32_t {
            return i < bytes.size() ? static_cast<unsigned char>(bytes[i]) : 0;
        };
        uint32_t point = swap_ ? half(0) << 8 | half(1) : half(1) << 8 | half(0);
        if (point >= 0xDC00 && point <= 0xDFFF)
            return '.';
        if (point >= 0xD800 && point <= 0xDBFF) {
            const std::string_view low = take(2); // in the machine's order, whatever the mark says
            if (low.size() < 2)
                return -1;
            const uint32_t unit = static_cast<unsigned char>(low[0]) |
                                  static_cast<uint32_t>(static_cast<unsigned char>(low[1])) << 8;
            point = ((point & 0x3FF) << 10) + (unit & 0x3FF) + 0x10000;
        }
        const std::string text = psptest::encoded_utf8(point);
        for (std::size_t i = text.size() - 1; i > 0; i--)
            ungetc(static_cast<signed char>(text[i]));
        return static_cast<signed char>(text[0]);
    }

    std::string_view rest_;
    PSP_FILE_MODE mode_;
    bool swap_ = false;
    std::vector<int32_t> pushed_;
};

// A file in memory that has a name.
class MemoryFile {
  public:
    explicit MemoryFile(const std::string& bytes) : fd_(memfd_create("fuzz", 0))
    {
        CHECK(fd_ >= 0);
        CHECK(write(fd_, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
    }
    ~MemoryFile()
    {
        close(fd_);
    }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    std::string name() const
    {
        return "/proc/self/fd/" + std::to_string(fd_);
    }

    std::string contents() const
    {
        std::string bytes(static_cast<std::size_t>(lseek(fd_, 0, SEEK_END)), '\0');
        CHECK(pread(fd_, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()));
        return bytes;
    }

  private:
    int fd_;
};

void check_line(PSP_FILE_STREAM stream, Model& model, std::size_t size)
{
    std::string expected(size, '\x5A');
    std::string line = expected;
    const bool any = size == 1 || model.gets(expected, 0, size);
    if (size == 1)
        expected[0] = '\0';
    char* const result = psp_fgets(line.data(), static_cast<int32_t>(size), stream);
    CHECK(result == (any ? line.data() : nullptr));
    CHECK(!any || line == expected);
}

void check_long_line(PSP_FILE_STREAM stream, Model& model)
{
    if (model.undecided())
        return; // gives NUL without end: no line would ever be whole
    std::string expected(100, '\0');
    char* line = nullptr;
    uint32_t length = 0;
    const bool any = model.get_line(expected);
    CHECK((psp_fGetLine(stream, &line, &length, PSP_GLOBAL_TAG) != nullptr) == any);
    CHECK(length == expected.size());
    CHECK(!any || std::strcmp(line, expected.c_str()) == 0);
    psp_freeMem(line, PSP_GLOBAL_TAG, __FILE__, __LINE__);
}

void check_reading(FuzzedDataProvider& input)
{
    const auto mode = static_cast<PSP_FILE_MODE>(input.ConsumeIntegralInRange<int>(0, 2));
    const std::string steps = input.ConsumeRandomLengthString(64);
    // Texts longer than the stream's cache cost few bytes of the input.
    const auto repeat = input.ConsumeIntegralInRange<std::size_t>(1, 8);
    const std::string part = input.ConsumeRemainingBytesAsString();
    std::string bytes;
    for (std::size_t i = 0; i < repeat; i++)
        bytes += part;

    const MemoryFile file(bytes);
    Model model(bytes, mode);
    const PSP_FILE_STREAM stream = psp_fopen(file.name().c_str(), "r", mode);
    CHECK(stream != nullptr);
    for (const char step : steps) {
        const auto value = static_cast<unsigned char>(step);
        if (value < 0x60)
            CHECK(psp_fgetc(stream) == model.getc());
        else if (value < 0xA0)
            CHECK(psp_fungetc(value - 0x80, stream) == model.ungetc(value - 0x80));
        else if (value < 0xE0)
            check_line(stream, model, value - 0x9Fu);
        else
            check_long_line(stream, model);
    }
    for (std::size_t left = 2 * bytes.size() + pushback_size; left > 0; left--)
        CHECK(psp_fgetc(stream) == model.getc());
    psp_fclose(stream);
}

// ---- Writing UTF-16 ----

// The writer's state is the sequence so far: a byte that does not continue it is refused and leaves
// it as it is.
class Writer {
  public:
    bool put(unsigned char byte)
    {
        if (wanted_ == 0) {
            if (byte < 0x80) {
                unit(byte);
                return true;
            }
            if (byte < 0xC2 || byte > 0xF4)
                return false;
            wanted_ = byte < 0xE0 ? 1 : byte < 0xF0 ? 2 : 3;
            point_ = byte & (0x3Fu >> wanted_);
            return true;
        }
        if ((byte & 0xC0) != 0x80)
            return false;
        point_ = point_ << 6 | (byte & 0x3F);
        if (--wanted_ == 0)
            finish();
        return true;
    }

    const std::string& file() const
    {
        return file_;
    }

  private:
    void finish()
    {
        if (point_ > 0xFFFF) {
            unit(0xD800 | ((point_ - 0x10000) >> 10 & 0x3FF));
            point_ = 0xDC00 | (point_ & 0x3FF);
        }
        unit(point_);
    }

    void unit(uint32_t value)
    {
        file_.push_back(static_cast<char>(value));
        file_.push_back(static_cast<char>(value >> 8));
    }

    std::string file_ = "\xFF\xFE";
    uint32_t point_ = 0;
    unsigned wanted_ = 0;
};

void check_writing(const std::string& text)
{
    const MemoryFile file("");
    Writer writer;
    const PSP_FILE_STREAM stream = psp_fopen(file.name().c_str(), "w", PSP_FILE_MODE_UTF16);
    CHECK(stream != nullptr);
    for (const char c : text)
        CHECK((psp_fputc(c, stream) == 1) == writer.put(static_cast<unsigned char>(c)));
    psp_fclose(stream);
    CHECK(file.contents() == writer.file());
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    CHECK(psp_init() == sOKAY);
    std::atexit(psp_term);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    if (input.ConsumeBool())
        check_reading(input);
    else
        check_writing(input.ConsumeRemainingBytesAsString());
    return 0;
}

// Text streams: files of any bytes opened in every mode, and any sequence of reads, push-backs,
// lines and writes, beside the model; in the end the file must hold what the model's does.
#include "fuzz.h"
#include "library.h"
#include "memory_file.h"
#include "support/stream_model.h"

#include "psp/output.h"
#include "psp/stream.h"

#include <cstring>
#include <memory>
#include <string>

using namespace psptest;

namespace {

// A line buffer that goes from call to call, and what it must look like.
class LineBuffer {
  public:
    LineBuffer() = default;
    ~LineBuffer()
    {
        psp_freeMem(line_, PSP_GLOBAL_TAG, __FILE__, __LINE__);
    }
    LineBuffer(const LineBuffer&) = delete;
    LineBuffer& operator=(const LineBuffer&) = delete;

    // The caller's own to begin with.
    void start(uint32_t size)
    {
        if (line_ != nullptr)
            return;
        line_ = static_cast<char*>(
            psp_getMem(size, PSP_GLOBAL_TAG, PSP_MEM_PLAIN, nullptr, __FILE__, __LINE__));
        length_ = size;
        expected_.resize(size);
    }

    void read(PSP_FILE_STREAM stream, StreamModel& model)
    {
        const bool any = model.get_line(&expected_);
        char* const result = psp_fGetLine(stream, &line_, &length_, PSP_GLOBAL_TAG);
        CHECK(result == (any ? line_ : nullptr));
        CHECK(length_ == expected_.size());
        CHECK(!any || std::strcmp(line_, expected_.c_str()) == 0);
    }

  private:
    char* line_ = nullptr;
    uint32_t length_ = 0;
    std::string expected_{};
};

class Use {
  public:
    Use(FuzzedDataProvider& input, PSP_FILE_STREAM stream, StreamModel& model)
        : input_(input), stream_(stream), model_(model)
    {
    }

    void step()
    {
        switch (input_.ConsumeIntegralInRange(0, 15)) {
        case 0:
        case 1:
            return characters(input_.ConsumeIntegralInRange<std::size_t>(1, 8));
        case 2:
            return characters(input_.ConsumeIntegralInRange<std::size_t>(1, 1500));
        case 3:
        case 4:
            return push_back();
        case 5:
            return line(input_.ConsumeIntegralInRange(-1, 40));
        case 6:
            return line(input_.ConsumeIntegralInRange(1, 2000));
        case 7:
            buffer_.start(input_.ConsumeIntegralInRange<uint32_t>(1, 150));
            return buffer_.read(stream_, model_);
        case 8:
            return buffer_.read(stream_, model_);
        case 9:
        case 10:
            return byte();
        case 11:
        case 12:
            return string();
        case 13:
            return printed();
        case 14:
            CHECK(psp_fflush(stream_) == 0);
            model_.flush();
            return;
        default:
            queries();
        }
    }

    // What is left, and the end again and again. A byte FF looks like the end.
    void drain()
    {
        std::size_t left = 2 * model_.file.bytes.size() + model_.pushed.size() + 2;
        for (int ends = 0; left > 0 && ends < 20; left--) {
            const int32_t c = model_.fgetc();
            CHECK(psp_fgetc(stream_) == c);
            ends = c == -1 ? ends + 1 : 0;
        }
    }

  private:
    void characters(std::size_t count)
    {
        for (; count > 0; count--)
            CHECK(psp_fgetc(stream_) == model_.fgetc());
    }

    void push_back()
    {
        const auto c = input_.ConsumeIntegralInRange<int32_t>(-200, 300);
        for (int left = input_.ConsumeIntegralInRange(1, 6); left > 0; left--)
            CHECK(psp_fungetc(c, stream_) == model_.fungetc(c));
    }

    void line(int32_t room)
    {
        const auto size = static_cast<std::size_t>(room < 0 ? 0 : room);
        const std::unique_ptr<char[]> dest(new char[size]); // a byte beyond it is seen
        std::string expected;
        const bool any = model_.fgets(room, &expected);
        CHECK(psp_fgets(dest.get(), room, stream_) == (any ? dest.get() : nullptr));
        CHECK(!any || std::memcmp(dest.get(), expected.c_str(), expected.size() + 1) == 0);
    }

    void byte()
    {
        const auto byte = input_.ConsumeIntegral<uint8_t>();
        CHECK(psp_fputc(static_cast<char>(byte), stream_) == (model_.fputc(byte) ? 1 : 0));
    }

    // Without a NUL. A run that fills more than a window costs few bytes of the input.
    std::string text()
    {
        std::string text = input_.ConsumeRandomLengthString(60);
        text.resize(std::min(text.size(), text.find('\0')));
        if (input_.ConsumeIntegralInRange(0, 7) == 0)
            text += std::string(input_.ConsumeIntegralInRange<std::size_t>(0, 2500), 'q') + text;
        return text;
    }

    void string()
    {
        const std::string text = this->text();
        CHECK(psp_fputs(text.c_str(), stream_) == model_.fputs(text));
    }

    void printed()
    {
        const std::string text = this->text();
        CHECK(psp_fprintf(stream_, "%s%d", text.c_str(), 1) == model_.fputs(text + "1"));
    }

    void queries()
    {
        ZYN_BOOL_T is_tty = ZYN_TRUE;
        CHECK(psp_fIsATTY(stream_, &is_tty) == sOKAY && is_tty == ZYN_FALSE);
        CHECK(psp_fSetEcho(stream_, ZYN_TRUE) == sOKAY);
        CHECK(psp_fIsStdIn(stream_) == ZYN_FALSE);
        CHECK(psp_fsync(stream_) == 0);
        model_.flush();
    }

    FuzzedDataProvider& input_;
    PSP_FILE_STREAM stream_;
    StreamModel& model_;
    LineBuffer buffer_{};
};

// A mark, or a piece of one, and any bytes behind it; more than the stream's window holds cost few
// bytes of the input.
std::string make_file(FuzzedDataProvider& input)
{
    std::string file = input.PickValueInArray<const char*>(
        {"", "", "\xEF\xBB\xBF", "\xFF\xFE", "\xFE\xFF", "\xEF\xBB", "\xEF"});
    const auto repeat = input.ConsumeBool() ? 1 : input.ConsumeIntegralInRange(1, 100);
    const std::string part = input.ConsumeRandomLengthString(512);
    for (int i = 0; i < repeat && file.size() < 4096; i++)
        file += part;
    return file;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    start_library();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const Balance balance;
    FuzzedDataProvider input(data, size);
    const OpenMode& mode =
        open_modes[input.ConsumeIntegralInRange<std::size_t>(0, std::size(open_modes) - 1)];
    const int fmode = input.ConsumeIntegralInRange(0, 2);
    const std::string before = make_file(input);

    const MemoryFile file(before);
    StreamModel model;
    model.open(mode, before, fmode);
    const PSP_FILE_STREAM stream =
        psp_fopen(file.name().c_str(), mode.mode, static_cast<PSP_FILE_MODE>(fmode));
    CHECK(stream != nullptr);
    {
        Use use(input, stream, model);
        for (int left = 100; left > 0 && input.remaining_bytes() > 0; left--)
            use.step();
        use.drain();
    }
    psp_fclose(stream);
    model.flush();
    CHECK(file.contents() == model.file.bytes);
    return 0;
}

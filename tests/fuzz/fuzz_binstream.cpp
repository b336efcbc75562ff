// Binary streams: any sequence of gets over any bytes, from a transport that delivers them in
// pieces, pauses, fails and boasts; and any sequence of puts into one that refuses some blocks.
// Plain models tell every result, byte and block.
#include "fuzz.h"
#include "library.h"
#include "support/binstream_model.h"

#include "psp/binstream.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

using namespace psptest;

namespace {

constexpr std::size_t memory_limit = 16 << 20; // a string beyond it does not get its memory
constexpr std::size_t most_memory = 1 << 16;   // one below it does

// ---- Input ----

// The library's read callback.
ZYN_RETCODE deliver(const void* context, void* buffer, uint32_t size, uint32_t* length,
                    uint32_t flags)
{
    auto* const transport = static_cast<ReadTransport*>(const_cast<void*>(context));
    CHECK(flags == 0);
    Delivery delivery;
    const std::string part = transport->read(size, &delivery);
    if (delivery.rc != sOKAY) { // what a failed read leaves behind does not count
        std::memset(buffer, '!', size);
        *length = size;
        return delivery.rc;
    }
    std::memcpy(buffer, part.data(), part.size());
    *length = static_cast<uint32_t>(part.size() + (delivery.boasts ? 1000 : 0));
    return sOKAY;
}

class Reading {
  public:
    Reading(FuzzedDataProvider& input, const ReadTransport& transport, bool swap)
        : input_(input), transport_(transport), model_(transport, swap)
    {
        CHECK(psp_createTagEx_rc(nullptr, 0, BLOCK_ALLOCATOR, nullptr, nullptr, &tag_, __FILE__,
                                 __LINE__) == sOKAY);
        CHECK(psp_inputBuffCreate(deliver, &transport_, swap, &stream_) == sOKAY);
    }
    ~Reading()
    {
        CHECK(transport_.taken == model_.transport.taken);
        CHECK(transport_.calls == model_.transport.calls);
        psp_inputBuffDestroy(stream_);
        psp_freeTagMem(tag_, ZYN_TRUE, __FILE__, __LINE__);
    }
    Reading(const Reading&) = delete;
    Reading& operator=(const Reading&) = delete;

    void step()
    {
        switch (input_.ConsumeIntegralInRange(0, 11)) {
        case 0:
            return number(psp_inputBuffGetChar, model_);
        case 1:
            return number(psp_inputBuffGetInt16, model_);
        case 2:
            return number(psp_inputBuffGetInt32, model_);
        case 3:
            return number(psp_inputBuffGetInt64, model_);
        case 4:
            return number(psp_inputBuffGetFloat32, model_);
        case 5:
            return number(psp_inputBuffGetFloat64, model_);
        case 6:
        case 7:
            return bytes();
        case 8:
            return string();
        case 9:
        case 10:
            return string_with_length();
        default:
            psp_inputBuffReset(stream_);
            model_.reset();
        }
    }

  private:
    template <class T>
    void number(ZYN_RETCODE (*get)(PSP_INPUTBUFF, T*), BinaryInputModel& model)
    {
        const bool skips = input_.ConsumeBool();
        T expected{};
        T value{};
        const ZYN_RETCODE rc = model.get_number(&expected);
        CHECK(get(stream_, skips ? nullptr : &value) == rc);
        if (rc == sOKAY && !skips)
            CHECK(std::memcmp(&value, &expected, sizeof value) == 0); // also of what is no number
    }

    void bytes()
    {
        const auto size = input_.ConsumeBool()
                              ? input_.ConsumeIntegralInRange<std::size_t>(0, 40)
                              : input_.ConsumeIntegralInRange<std::size_t>(0, 10000);
        const bool skips = input_.ConsumeIntegralInRange(0, 3) == 0;
        const std::unique_ptr<char[]> dest(new char[size]);
        std::string expected;
        const ZYN_RETCODE rc = model_.get(size, &expected);
        CHECK(psp_inputBuffGetBytes(stream_, skips ? nullptr : dest.get(), size) == rc);
        CHECK(skips || std::memcmp(dest.get(), expected.data(), expected.size()) == 0);
    }

    // The length in front of a string as the model sees it, on a copy: nothing is taken.
    uint32_t coming_length() const
    {
        BinaryInputModel ahead = model_;
        uint32_t length = 0;
        return ahead.get_number(&length) == sOKAY ? length : 0;
    }

    void string()
    {
        const bool skips = input_.ConsumeIntegralInRange(0, 3) == 0;
        const uint32_t coming = coming_length();
        if (coming > most_memory && coming <= memory_limit)
            return; // memory may suffice or not
        char untouched = 0;
        char* str = &untouched;
        uint32_t length = 0;
        ZYN_RETCODE rc = model_.get_number(&length);
        const bool none = rc == sOKAY && length == BinaryInputModel::no_string;
        std::string text;
        if (rc == sOKAY && !none)
            rc = !skips && length > memory_limit ? ZYN_RETCODE{eNOMEMORY}
                                                 : model_.get(length, &text);
        CHECK(psp_inputBuffGetString(stream_, skips ? nullptr : &str, tag_) == rc);
        if (skips)
            return;
        if (rc != sOKAY)
            CHECK(str == &untouched); // a block that was begun stays with the tag
        else if (none)
            CHECK(str == nullptr);
        else
            CHECK(std::memcmp(str, text.c_str(), text.size() + 1) == 0);
    }

    void string_with_length()
    {
        const bool skips = input_.ConsumeIntegralInRange(0, 3) == 0;
        const auto size = input_.ConsumeIntegralInRange<std::size_t>(0, 40); // 0: whatever comes
        if (size == 0 && !skips && coming_length() > most_memory)
            return; // no buffer is large enough
        uint32_t length = 0;
        ZYN_RETCODE rc = model_.get_number(&length);
        const bool none = rc == sOKAY && length == BinaryInputModel::no_string;
        std::string text;
        if (rc == sOKAY && !none)
            rc = model_.get(length, &text);
        const bool whole = rc == sOKAY;
        if (whole && !none && size != 0 && length > size - 1)
            rc = eTX_TRUNCATED;
        const std::size_t stored = std::min<std::size_t>(size - 1, text.size());
        // Memory for what is stored alone, unless the buffer is as small as it may be.
        const std::size_t room = size != 0 ? size : stored + 1;
        const std::unique_ptr<char[]> dest(new char[room]);
        CHECK(psp_inputBuffGetStringWithLength(stream_, skips ? nullptr : dest.get(), size) == rc);
        if (skips)
            return;
        CHECK(std::memcmp(dest.get(), text.data(), stored) == 0);
        CHECK(!whole || dest[stored] == '\0');
    }

    FuzzedDataProvider& input_;
    ReadTransport transport_;
    BinaryInputModel model_;
    PSP_MEMTAG tag_ = nullptr;
    PSP_INPUTBUFF stream_ = nullptr;
};

ReadTransport make_transport(FuzzedDataProvider& input)
{
    ReadTransport transport;
    transport.end = input.PickValueInArray<ZYN_RETCODE>({eEOD, eBADWRITE, sNOTFOUND});
    for (int left = input.ConsumeIntegralInRange(0, 12); left > 0; left--) {
        Delivery delivery;
        switch (input.ConsumeIntegralInRange(0, 7)) {
        case 0:
            delivery.rc = input.PickValueInArray<ZYN_RETCODE>({eUNAVAIL, eRANGE, sNEEDDATA});
            break;
        case 1:
            delivery.most = 0;
            break;
        case 2:
            delivery.boasts = true;
            break;
        default:
            delivery.most = input.ConsumeIntegralInRange<std::size_t>(1, 20);
        }
        transport.coming.push_back(delivery);
    }
    // Bytes beyond the size of a buffer cost few of the input.
    const auto repeat = input.ConsumeBool() ? 1 : input.ConsumeIntegralInRange(1, 200);
    const std::string part = input.ConsumeRandomLengthString(256);
    for (int i = 0; i < repeat; i++)
        transport.bytes += part;
    return transport;
}

void check_reading(FuzzedDataProvider& input, bool swap)
{
    Reading reading(input, make_transport(input), swap);
    while (input.remaining_bytes() > 0)
        reading.step();
}

// ---- Output ----

// The library's write callback, with answers of its own.
ZYN_RETCODE accept(const void* context, const void* data, uint32_t size)
{
    auto* const taken = static_cast<BinaryOutputModel*>(const_cast<void*>(context));
    CHECK(size != 0);
    return taken->send({static_cast<const char*>(data), size});
}

class Writing {
  public:
    Writing(FuzzedDataProvider& input, bool swap) : input_(input), swap_(swap)
    {
        for (int left = input.ConsumeIntegralInRange(0, 6); left > 0; left--)
            model_.answers.push_back(
                input.PickValueInArray<ZYN_RETCODE>({sOKAY, eBADWRITE, sNOTFOUND, sNEEDDATA}));
        transport_.answers = model_.answers;
        CHECK(psp_outputBuffCreate(accept, &transport_, swap, &stream_) == sOKAY);
    }
    ~Writing()
    {
        psp_outputBuffDestroy(stream_);
        CHECK(transport_.blocks == model_.blocks); // destroying writes nothing
        CHECK(transport_.bytes == model_.bytes);
    }
    Writing(const Writing&) = delete;
    Writing& operator=(const Writing&) = delete;

    void step()
    {
        one();
        CHECK(transport_.blocks == model_.blocks);
    }

  private:
    void one()
    {
        switch (input_.ConsumeIntegralInRange(0, 12)) {
        case 0:
            return number<char>(psp_outputBuffPutChar);
        case 1:
            return number<int16_t>(psp_outputBuffPutInt16);
        case 2:
            return number<int32_t>(psp_outputBuffPutInt32);
        case 3:
            return number<int64_t>(psp_outputBuffPutInt64);
        case 4:
            return number<float>(psp_outputBuffPutFloat32);
        case 5:
            return number<double>(psp_outputBuffPutFloat64);
        case 6:
        case 7: {
            const std::string data = run();
            CHECK(psp_outputBuffPutBytes(stream_, data.data(), data.size()) == model_.put(data));
            return;
        }
        case 8:
            return string();
        case 9:
            return string_with_length();
        case 10: {
            const std::string data = run();
            CHECK(psp_outputBuffSendDirect(stream_, data.data(), data.size()) == model_.send(data));
            return;
        }
        default:
            CHECK(psp_outputBuffFlush(stream_) == model_.flush());
        }
    }

    template <class T>
    void number(ZYN_RETCODE (*put)(PSP_OUTPUTBUFF, T))
    {
        const auto bits = input_.ConsumeIntegral<uint64_t>();
        T value;
        std::memcpy(&value, &bits, sizeof value);
        CHECK(put(stream_, value) == model_.put(number_bytes(value, swap_)));
    }

    // A short text, or a long one that steps over the sizes of the buffer.
    std::string run()
    {
        std::string data = input_.ConsumeRandomLengthString(40);
        if (input_.ConsumeIntegralInRange(0, 3) == 0)
            data.resize(input_.ConsumeIntegralInRange<std::size_t>(0, 34000), 'r');
        return data;
    }

    void string()
    {
        const std::string text = run();
        CHECK(psp_outputBuffPutString(stream_, text.c_str()) == model_.put(text.c_str()));
    }

    void string_with_length()
    {
        const bool none = input_.ConsumeIntegralInRange(0, 3) == 0;
        const std::string text = none ? "" : run().c_str();
        const auto length = static_cast<uint32_t>(text.size());
        ZYN_RETCODE rc =
            model_.put(number_bytes(none ? BinaryInputModel::no_string : length, swap_));
        if (rc == sOKAY)
            rc = model_.put(text);
        CHECK(psp_outputBuffPutStringWithLength(stream_, none ? nullptr : text.c_str()) == rc);
    }

    FuzzedDataProvider& input_;
    bool swap_;
    BinaryOutputModel model_{};
    BinaryOutputModel transport_{}; // what arrives: only ever sent to
    PSP_OUTPUTBUFF stream_ = nullptr;
};

void check_writing(FuzzedDataProvider& input, bool swap)
{
    Writing writing(input, swap);
    for (int left = 64; left > 0 && input.remaining_bytes() > 0; left--)
        writing.step();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    start_library();
    CHECK(psp_setMemLimit(nullptr, memory_limit) == sOKAY);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const Balance balance;
    FuzzedDataProvider input(data, size);
    const bool swap = input.ConsumeBool();
    if (input.ConsumeBool())
        check_reading(input, swap);
    else
        check_writing(input, swap);
    return 0;
}

// Binary streams: the bytes of every item, the sizes of the blocks that reach the transport, and
// what is left after a transport failed.
#include "support/binstream_model.h"
#include "support/psp_test.h"

#include "psp.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

// A transport that records each block, and refuses blocks while `refusals` lasts.
struct Writer {
    std::string bytes;
    std::vector<uint32_t> blocks;
    int refusals = 0;
    ZYN_RETCODE code = eBADWRITE;
    const void* last_data = nullptr;

    static ZYN_RETCODE write(const void* dataCB, const void* data, uint32_t size)
    {
        auto* self = static_cast<Writer*>(const_cast<void*>(dataCB));
        if (self->refusals > 0) {
            self->refusals--;
            return self->code;
        }
        self->blocks.push_back(size);
        self->bytes.append(static_cast<const char*>(data), size);
        self->last_data = data;
        return sOKAY;
    }
};

// A transport that delivers at most `piece` bytes a call and fails with `code` at the end.
struct Reader {
    std::string bytes;
    std::size_t piece = SIZE_MAX;
    ZYN_RETCODE code = eEOD;
    std::size_t taken = 0;
    int calls = 0;
    int empty_calls = 0; // so many calls deliver nothing, with success
    std::vector<uint32_t> sizes{};
    std::vector<uint32_t> reserved{};

    static ZYN_RETCODE read(const void* dataCB, void* buf, uint32_t size, uint32_t* len,
                            uint32_t reserved)
    {
        auto* self = static_cast<Reader*>(const_cast<void*>(dataCB));
        self->calls++;
        self->sizes.push_back(size);
        self->reserved.push_back(reserved);
        if (self->empty_calls > 0) {
            self->empty_calls--;
            *len = 0;
            return sOKAY;
        }
        const std::size_t count =
            std::min({self->piece, self->bytes.size() - self->taken, std::size_t{size}});
        if (count == 0)
            return self->code;
        std::memcpy(buf, self->bytes.data() + self->taken, count);
        self->taken += count;
        *len = static_cast<uint32_t>(count);
        return sOKAY;
    }
};

class Out {
  public:
    explicit Out(Writer& writer, int16_t byteswap = 0)
    {
        EXPECT_EQ(psp_outputBuffCreate(Writer::write, &writer, byteswap, &stream_), sOKAY);
    }
    ~Out()
    {
        psp_outputBuffDestroy(stream_);
    }
    operator PSP_OUTPUTBUFF() const
    {
        return stream_;
    }

  private:
    PSP_OUTPUTBUFF stream_ = nullptr;
};

class In {
  public:
    explicit In(Reader& reader, int16_t byteswap = 0)
    {
        EXPECT_EQ(psp_inputBuffCreate(Reader::read, &reader, byteswap, &stream_), sOKAY);
    }
    ~In()
    {
        psp_inputBuffDestroy(stream_);
    }
    operator PSP_INPUTBUFF() const
    {
        return stream_;
    }

  private:
    PSP_INPUTBUFF stream_ = nullptr;
};

std::string hex(const std::string& bytes)
{
    std::string text;
    for (const char byte : bytes) {
        static const char digits[] = "0123456789ABCDEF";
        text += digits[static_cast<unsigned char>(byte) >> 4];
        text += digits[static_cast<unsigned char>(byte) & 15];
    }
    return text;
}

class OutputStream : public psptest::PspTest {};
class InputStream : public psptest::PspTest {};

void put_one_of_each(PSP_OUTPUTBUFF out)
{
    EXPECT_EQ(psp_outputBuffPutChar(out, 'c'), sOKAY);
    EXPECT_EQ(psp_outputBuffPutInt16(out, 0x0102), sOKAY);
    EXPECT_EQ(psp_outputBuffPutInt32(out, 0x01020304), sOKAY);
    EXPECT_EQ(psp_outputBuffPutInt64(out, 0x0102030405060708), sOKAY);
    EXPECT_EQ(psp_outputBuffPutFloat32(out, 1.0f), sOKAY);
    EXPECT_EQ(psp_outputBuffPutFloat64(out, -2.0), sOKAY);
    EXPECT_EQ(psp_outputBuffPutBytes(out, "\0raw", 4), sOKAY);
    EXPECT_EQ(psp_outputBuffPutString(out, "bare"), sOKAY);
    EXPECT_EQ(psp_outputBuffPutStringWithLength(out, "led"), sOKAY);
    EXPECT_EQ(psp_outputBuffPutStringWithLength(out, ""), sOKAY);
    EXPECT_EQ(psp_outputBuffPutStringWithLength(out, nullptr), sOKAY);
    EXPECT_EQ(psp_outputBuffFlush(out), sOKAY);
}

TEST_F(OutputStream, WritesEveryItemInTheHostsByteOrder)
{
    Writer writer;
    Out out(writer);
    put_one_of_each(out);
    EXPECT_EQ(hex(writer.bytes), "63"
                                 "0201"
                                 "04030201"
                                 "0807060504030201"
                                 "0000803F"
                                 "00000000000000C0"
                                 "00726177"
                                 "62617265"
                                 "030000006C6564"
                                 "00000000"
                                 "FFFFFFFF");
}

TEST_F(OutputStream, ReversesEveryNumberWhenItSwaps)
{
    Writer writer;
    Out out(writer, 1);
    put_one_of_each(out);
    EXPECT_EQ(hex(writer.bytes), "63"
                                 "0102"
                                 "01020304"
                                 "0102030405060708"
                                 "3F800000"
                                 "C000000000000000"
                                 "00726177"
                                 "62617265"
                                 "000000036C6564"
                                 "00000000"
                                 "FFFFFFFF");
}

TEST_F(OutputStream, WritesOnlyWhenFlushedAndNothingForAnEmptyBuffer)
{
    Writer writer;
    Out out(writer);
    EXPECT_EQ(psp_outputBuffFlush(out), sOKAY);
    EXPECT_EQ(psp_outputBuffPutInt32(out, 1), sOKAY);
    EXPECT_TRUE(writer.blocks.empty());
    EXPECT_EQ(psp_outputBuffFlush(out), sOKAY);
    EXPECT_EQ(psp_outputBuffFlush(out), sOKAY);
    EXPECT_EQ(writer.blocks, std::vector<uint32_t>{4});
}

TEST_F(OutputStream, GrowsWithoutWritingUntilItWrites31744BytesOnceAnd32768FromThenOn)
{
    Writer writer;
    Out out(writer);
    for (int i = 0; i < 40000; ++i)
        ASSERT_EQ(psp_outputBuffPutChar(out, static_cast<char>(i)), sOKAY);
    EXPECT_EQ(writer.blocks, std::vector<uint32_t>{31744});
    for (int i = 40000; i < 100000; ++i)
        ASSERT_EQ(psp_outputBuffPutChar(out, static_cast<char>(i)), sOKAY);
    EXPECT_EQ(writer.blocks, (std::vector<uint32_t>{31744, 32768, 32768}));
    EXPECT_EQ(psp_outputBuffFlush(out), sOKAY);
    EXPECT_EQ(writer.blocks.back(), 100000u - 31744 - 2 * 32768);
    std::string expected;
    for (int i = 0; i < 100000; ++i)
        expected += static_cast<char>(i);
    EXPECT_EQ(writer.bytes, expected);
}

TEST_F(OutputStream, WritesAFullBufferOnlyWhenTheNextByteComes)
{
    Writer writer;
    Out out(writer);
    const std::string bytes(31744, 'x');
    EXPECT_EQ(psp_outputBuffPutBytes(out, bytes.data(), bytes.size()), sOKAY);
    EXPECT_TRUE(writer.blocks.empty());
    EXPECT_EQ(psp_outputBuffPutChar(out, 'y'), sOKAY);
    EXPECT_EQ(writer.blocks, std::vector<uint32_t>{31744});
}

TEST_F(OutputStream, WritesTheBlocksThatAModelOfItsBufferPredicts)
{
    for (unsigned seed = 1; seed <= 5; ++seed) {
        std::mt19937 random(seed);
        Writer writer;
        const bool swap = seed % 2 == 1;
        Out out(writer, swap);
        psptest::BinaryOutputModel model;
        std::string data(100'000, '\0');
        std::generate(data.begin(), data.end(), [&] { return static_cast<char>(random()); });
        for (int i = 0; i < 4000; ++i) {
            const std::size_t count = random() % (random() % 50 == 0 ? 90'000 : 300);
            switch (random() % 8) {
            case 0:
                ASSERT_EQ(psp_outputBuffPutChar(out, 'c'), sOKAY);
                model.put("c");
                break;
            case 1:
                ASSERT_EQ(psp_outputBuffPutInt16(out, 0x0102), sOKAY);
                model.put(psptest::number_bytes(int16_t{0x0102}, swap));
                break;
            case 2:
                ASSERT_EQ(psp_outputBuffPutInt32(out, 0x01020304), sOKAY);
                model.put(psptest::number_bytes(int32_t{0x01020304}, swap));
                break;
            case 3:
                ASSERT_EQ(psp_outputBuffPutInt64(out, 0x0102030405060708), sOKAY);
                model.put(psptest::number_bytes(int64_t{0x0102030405060708}, swap));
                break;
            case 4:
                ASSERT_EQ(psp_outputBuffPutFloat32(out, 1.7f), sOKAY);
                model.put(psptest::number_bytes(1.7f, swap));
                break;
            case 5:
                ASSERT_EQ(psp_outputBuffPutFloat64(out, 1.7), sOKAY);
                model.put(psptest::number_bytes(1.7, swap));
                break;
            case 6:
                ASSERT_EQ(psp_outputBuffPutBytes(out, data.data(), count), sOKAY);
                model.put(data.substr(0, count));
                break;
            default:
                if (count % 16 == 0) {
                    ASSERT_EQ(psp_outputBuffSendDirect(out, data.data(), count), sOKAY);
                    model.send(data.substr(0, count));
                } else if (count % 16 == 1) {
                    ASSERT_EQ(psp_outputBuffFlush(out), sOKAY);
                    model.flush();
                }
            }
            ASSERT_EQ(writer.blocks, model.blocks) << "seed " << seed << " step " << i;
        }
        EXPECT_EQ(writer.bytes, model.bytes);
    }
}

TEST_F(OutputStream, KeepsBufferedBytesWhenAWriteFailsAndWritesThemLater)
{
    Writer writer;
    Out out(writer);
    EXPECT_EQ(psp_outputBuffPutString(out, "kept"), sOKAY);
    writer.refusals = 2;
    writer.code = eTX_TRUNCATED;
    EXPECT_EQ(psp_outputBuffFlush(out), eTX_TRUNCATED);
    EXPECT_EQ(psp_outputBuffFlush(out), eTX_TRUNCATED);
    EXPECT_EQ(psp_outputBuffFlush(out), sOKAY);
    EXPECT_EQ(writer.bytes, "kept");
}

TEST_F(OutputStream, ReturnsTheFailureOfAWriteFromThePutThatNeededIt)
{
    Writer writer;
    Out out(writer);
    const std::string full(31744, 'f');
    ASSERT_EQ(psp_outputBuffPutBytes(out, full.data(), full.size()), sOKAY);
    writer.refusals = 1;
    EXPECT_EQ(psp_outputBuffPutChar(out, 'x'), eBADWRITE);
    EXPECT_EQ(psp_outputBuffFlush(out), sOKAY);
    EXPECT_EQ(writer.bytes, full) << "what was buffered went out, the refused byte did not enter";
}

TEST_F(OutputStream, PutsNoTextWhoseLengthIsRefused)
{
    Writer writer;
    Out out(writer);
    const std::string full(31744, 'f');
    ASSERT_EQ(psp_outputBuffPutBytes(out, full.data(), full.size()), sOKAY);
    writer.refusals = 1;
    EXPECT_EQ(psp_outputBuffPutStringWithLength(out, "text"), eBADWRITE);
    EXPECT_EQ(psp_outputBuffFlush(out), sOKAY);
    EXPECT_EQ(writer.bytes, full);
}

TEST_F(OutputStream, SendsLargeRunsDirectlyBehindWhatIsBuffered)
{
    Writer writer;
    Out out(writer);
    const std::string run(50'000, 'r');
    ASSERT_EQ(psp_outputBuffPutString(out, "head"), sOKAY);
    EXPECT_EQ(psp_outputBuffSendDirect(out, run.data(), run.size()), sOKAY);
    EXPECT_EQ(writer.blocks, (std::vector<uint32_t>{4, 50'000}));
    EXPECT_EQ(writer.last_data, run.data()) << "not copied";
    EXPECT_EQ(psp_outputBuffSendDirect(out, run.data(), 0), sOKAY);
    EXPECT_EQ(writer.blocks.size(), 2u);
}

TEST_F(OutputStream, FlushesNothingForADirectSendOfNoBytes)
{
    Writer writer;
    Out out(writer);
    ASSERT_EQ(psp_outputBuffPutChar(out, 'x'), sOKAY);
    EXPECT_EQ(psp_outputBuffSendDirect(out, "y", 0), sOKAY);
    EXPECT_TRUE(writer.blocks.empty());
}

TEST_F(OutputStream, SendsNothingDirectlyWhenTheFlushBeforeItFails)
{
    Writer writer;
    Out out(writer);
    ASSERT_EQ(psp_outputBuffPutChar(out, 'x'), sOKAY);
    writer.refusals = 1;
    EXPECT_EQ(psp_outputBuffSendDirect(out, "run", 3), eBADWRITE);
    EXPECT_TRUE(writer.blocks.empty());
    EXPECT_EQ(psp_outputBuffFlush(out), sOKAY);
    EXPECT_EQ(writer.bytes, "x");
}

TEST_F(OutputStream, LosesUnflushedBytesWhenItIsDestroyed)
{
    Writer writer;
    {
        Out out(writer);
        ASSERT_EQ(psp_outputBuffPutString(out, "lost"), sOKAY);
    }
    EXPECT_TRUE(writer.blocks.empty());
}

TEST_F(InputStream, ReadsBackWhatAnOutputStreamWrote)
{
    for (const int16_t byteswap : {int16_t{0}, int16_t{1}, int16_t{-1}}) {
        Writer writer;
        Out out(writer, byteswap);
        put_one_of_each(out);
        Reader reader{writer.bytes};
        In in(reader, byteswap);

        char c = 0;
        int16_t i16 = 0;
        int32_t i32 = 0;
        int64_t i64 = 0;
        float f32 = 0;
        double f64 = 0;
        char raw[4];
        char bare[4];
        EXPECT_EQ(psp_inputBuffGetChar(in, &c), sOKAY);
        EXPECT_EQ(psp_inputBuffGetInt16(in, &i16), sOKAY);
        EXPECT_EQ(psp_inputBuffGetInt32(in, &i32), sOKAY);
        EXPECT_EQ(psp_inputBuffGetInt64(in, &i64), sOKAY);
        EXPECT_EQ(psp_inputBuffGetFloat32(in, &f32), sOKAY);
        EXPECT_EQ(psp_inputBuffGetFloat64(in, &f64), sOKAY);
        EXPECT_EQ(psp_inputBuffGetBytes(in, raw, sizeof raw), sOKAY);
        EXPECT_EQ(psp_inputBuffGetBytes(in, bare, sizeof bare), sOKAY);
        EXPECT_EQ(c, 'c');
        EXPECT_EQ(i16, 0x0102);
        EXPECT_EQ(i32, 0x01020304);
        EXPECT_EQ(i64, 0x0102030405060708);
        EXPECT_EQ(f32, 1.0f);
        EXPECT_EQ(f64, -2.0);
        EXPECT_EQ(std::string(raw, 4), std::string("\0raw", 4));
        EXPECT_EQ(std::string(bare, 4), "bare");

        char* led = nullptr;
        EXPECT_EQ(psp_inputBuffGetString(in, &led, PSP_GLOBAL_TAG), sOKAY);
        EXPECT_STREQ(led, "led");
        psp_freeMem(led, PSP_GLOBAL_TAG, __FILE__, __LINE__);
        EXPECT_EQ(psp_inputBuffGetString(in, &led, PSP_GLOBAL_TAG), sOKAY);
        EXPECT_STREQ(led, "");
        psp_freeMem(led, PSP_GLOBAL_TAG, __FILE__, __LINE__);
        EXPECT_EQ(psp_inputBuffGetString(in, &led, PSP_GLOBAL_TAG), sOKAY);
        EXPECT_EQ(led, nullptr);
        EXPECT_EQ(psp_inputBuffGetChar(in, &c), eEOD);
    }
}

TEST_F(InputStream, AsksForAWholeBufferWithNothingInTheFifthArgument)
{
    Reader reader{std::string(5000, 'a')};
    In in(reader);
    std::string got(5000, ' ');
    EXPECT_EQ(psp_inputBuffGetBytes(in, got.data(), got.size()), sOKAY);
    EXPECT_EQ(got, reader.bytes);
    EXPECT_EQ(reader.sizes, (std::vector<uint32_t>{4096, 4096}));
    EXPECT_EQ(reader.reserved, (std::vector<uint32_t>{0, 0}));
}

TEST_F(InputStream, DoesNotReadForZeroBytes)
{
    Reader reader{"x"};
    In in(reader);
    char nothing = 'n';
    EXPECT_EQ(psp_inputBuffGetBytes(in, &nothing, 0), sOKAY);
    EXPECT_EQ(reader.calls, 0);
    EXPECT_EQ(nothing, 'n');
}

TEST_F(InputStream, ReadsTheSameWhateverPiecesTheTransportDelivers)
{
    Writer writer;
    Out out(writer);
    for (int i = 0; i < 3000; ++i) {
        ASSERT_EQ(psp_outputBuffPutInt32(out, i), sOKAY);
        ASSERT_EQ(psp_outputBuffPutStringWithLength(out, std::to_string(i).c_str()), sOKAY);
    }
    ASSERT_EQ(psp_outputBuffFlush(out), sOKAY);
    for (const std::size_t piece : {1u, 2u, 3u, 7u, 4095u, 4096u, 9999u}) {
        Reader reader{writer.bytes, piece};
        In in(reader);
        for (int i = 0; i < 3000; ++i) {
            int32_t number = -1;
            char text[16];
            ASSERT_EQ(psp_inputBuffGetInt32(in, &number), sOKAY);
            ASSERT_EQ(number, i);
            ASSERT_EQ(psp_inputBuffGetStringWithLength(in, text, sizeof text), sOKAY);
            ASSERT_EQ(text, std::to_string(i));
        }
        EXPECT_EQ(psp_inputBuffGetInt32(in, nullptr), eEOD);
    }
}

// The library's read callback over the model's transport.
ZYN_RETCODE deliver(const void* dataCB, void* buf, uint32_t size, uint32_t* len, uint32_t)
{
    auto* const transport = static_cast<psptest::ReadTransport*>(const_cast<void*>(dataCB));
    psptest::Delivery delivery;
    const std::string part = transport->read(size, &delivery);
    std::memcpy(buf, part.data(), part.size());
    *len = static_cast<uint32_t>(part.size());
    return delivery.rc;
}

template <class T>
void expect_number(ZYN_RETCODE (*get)(PSP_INPUTBUFF, T*), PSP_INPUTBUFF in, bool skips,
                   psptest::BinaryInputModel& model)
{
    T expected{};
    T value{};
    const ZYN_RETCODE rc = model.get_number(&expected);
    ASSERT_EQ(get(in, skips ? nullptr : &value), rc);
    if (rc == sOKAY && !skips) {
        ASSERT_EQ(std::memcmp(&value, &expected, sizeof value), 0);
    }
}

void expect_bytes(PSP_INPUTBUFF in, std::size_t size, psptest::BinaryInputModel& model)
{
    std::string expected;
    std::string got(size, '-');
    ASSERT_EQ(psp_inputBuffGetBytes(in, got.data(), size), model.get(size, &expected));
    ASSERT_EQ(got.substr(0, expected.size()), expected);
}

// A random transport: mostly whole buffers, so that numbers straddle their ends, and some pieces,
// pauses and failures.
psptest::ReadTransport random_transport(std::mt19937& random)
{
    psptest::ReadTransport transport;
    transport.end = eEOD;
    transport.bytes.resize(100'000);
    std::generate(transport.bytes.begin(), transport.bytes.end(),
                  [&] { return static_cast<char>(random()); });
    for (int i = 0; i < 60; ++i) {
        const auto kind = random() % 10;
        transport.coming.push_back({kind == 0 ? ZYN_RETCODE{eBADREAD} : ZYN_RETCODE{sOKAY},
                                    kind < 7 ? SIZE_MAX : random() % 9});
    }
    return transport;
}

TEST_F(InputStream, GivesWhatAModelOfItsBufferPredicts)
{
    for (unsigned seed = 1; seed <= 6; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const bool swap = seed % 2 == 0;
        psptest::ReadTransport transport = random_transport(random);
        psptest::BinaryInputModel model(transport, swap);
        PSP_INPUTBUFF in = nullptr;
        ASSERT_EQ(psp_inputBuffCreate(deliver, &transport, swap, &in), sOKAY);
        for (int i = 0; i < 25'000 && !HasFatalFailure(); ++i) {
            const bool skips = random() % 8 == 0;
            switch (random() % 8) {
            case 0:
                expect_number(psp_inputBuffGetChar, in, skips, model);
                break;
            case 1:
                expect_number(psp_inputBuffGetInt16, in, skips, model);
                break;
            case 2:
                expect_number(psp_inputBuffGetInt32, in, skips, model);
                break;
            case 3:
                expect_number(psp_inputBuffGetInt64, in, skips, model);
                break;
            case 4:
                expect_number(psp_inputBuffGetFloat32, in, skips, model);
                break;
            case 5:
                expect_number(psp_inputBuffGetFloat64, in, skips, model);
                break;
            default:
                expect_bytes(in, random() % 20, model);
            }
        }
        EXPECT_EQ(transport.calls, model.transport.calls);
        EXPECT_EQ(transport.taken, transport.bytes.size());
        psp_inputBuffDestroy(in);
    }
}

TEST_F(InputStream, CallsAgainWhenTheTransportDeliversNothingWithSuccess)
{
    Reader reader{"x"};
    reader.empty_calls = 3;
    In in(reader);
    char c = 0;
    EXPECT_EQ(psp_inputBuffGetChar(in, &c), sOKAY);
    EXPECT_EQ(c, 'x');
    EXPECT_EQ(reader.calls, 4);
}

TEST_F(InputStream, DoesNotBelieveACountBeyondItsBuffer)
{
    PSP_INPUTBUFF in = nullptr;
    const auto boasting = [](const void*, void* buf, uint32_t size, uint32_t* len, uint32_t) {
        std::memset(buf, 'b', size);
        *len = UINT32_MAX;
        return ZYN_RETCODE{sOKAY};
    };
    ASSERT_EQ(psp_inputBuffCreate(boasting, nullptr, 0, &in), sOKAY);
    std::string got(10'000, ' ');
    EXPECT_EQ(psp_inputBuffGetBytes(in, got.data(), got.size()), sOKAY);
    EXPECT_EQ(got, std::string(10'000, 'b'));
    psp_inputBuffDestroy(in);
}

TEST_F(InputStream, ReturnsTheTransportsFailureAtEveryByteOfARecord)
{
    Writer writer;
    Out out(writer);
    ASSERT_EQ(psp_outputBuffPutInt64(out, 42), sOKAY);
    ASSERT_EQ(psp_outputBuffPutStringWithLength(out, "text"), sOKAY);
    ASSERT_EQ(psp_outputBuffFlush(out), sOKAY);
    for (std::size_t length = 0; length < writer.bytes.size(); ++length) {
        Reader reader{writer.bytes.substr(0, length), 1, eINVFILE};
        In in(reader);
        int64_t number = 0;
        const ZYN_RETCODE first = psp_inputBuffGetInt64(in, &number);
        EXPECT_EQ(first, length < 8 ? eINVFILE : sOKAY);
        char text[8] = "";
        if (first == sOKAY) {
            EXPECT_EQ(psp_inputBuffGetStringWithLength(in, text, sizeof text), eINVFILE);
        }
        EXPECT_EQ(reader.taken, length) << "what was delivered stays consumed";
    }
}

TEST_F(InputStream, KeepsBytesCopiedBeforeAFailure)
{
    Reader reader{"ab"};
    In in(reader);
    char bytes[4] = {'-', '-', '-', '-'};
    EXPECT_EQ(psp_inputBuffGetBytes(in, bytes, 4), eEOD);
    EXPECT_EQ(std::string(bytes, 4), "ab--");
}

TEST_F(InputStream, GoesOnAfterATransportRecovers)
{
    Reader reader{"abcd"};
    reader.bytes.resize(2);
    In in(reader);
    EXPECT_EQ(psp_inputBuffGetInt32(in, nullptr), eEOD);
    reader.bytes += "EFGH";
    int32_t number = 0;
    EXPECT_EQ(psp_inputBuffGetInt32(in, &number), sOKAY);
    EXPECT_EQ(std::memcmp(&number, "EFGH", 4), 0);
}

TEST_F(InputStream, SkipsAnItemForANullDestination)
{
    Writer writer;
    Out out(writer);
    put_one_of_each(out);
    Reader reader{writer.bytes};
    In in(reader);
    EXPECT_EQ(psp_inputBuffGetChar(in, nullptr), sOKAY);
    EXPECT_EQ(psp_inputBuffGetInt16(in, nullptr), sOKAY);
    EXPECT_EQ(psp_inputBuffGetInt32(in, nullptr), sOKAY);
    EXPECT_EQ(psp_inputBuffGetInt64(in, nullptr), sOKAY);
    EXPECT_EQ(psp_inputBuffGetFloat32(in, nullptr), sOKAY);
    EXPECT_EQ(psp_inputBuffGetFloat64(in, nullptr), sOKAY);
    EXPECT_EQ(psp_inputBuffGetBytes(in, nullptr, 8), sOKAY);
    EXPECT_EQ(psp_inputBuffGetString(in, nullptr, PSP_GLOBAL_TAG), sOKAY);
    EXPECT_EQ(psp_inputBuffGetStringWithLength(in, nullptr, 0), sOKAY);
    EXPECT_EQ(psp_inputBuffGetString(in, nullptr, PSP_GLOBAL_TAG), sOKAY);
    EXPECT_EQ(psp_inputBuffGetChar(in, nullptr), eEOD) << "everything was consumed";
}

TEST_F(InputStream, ResetDropsWhatIsBuffered)
{
    Reader reader{"oldnew", 3};
    In in(reader);
    char c = 0;
    EXPECT_EQ(psp_inputBuffGetChar(in, &c), sOKAY);
    EXPECT_EQ(c, 'o');
    psp_inputBuffReset(in);
    EXPECT_EQ(psp_inputBuffGetChar(in, &c), sOKAY);
    EXPECT_EQ(c, 'n');
    EXPECT_EQ(reader.calls, 2);
}

std::string with_length(const std::string& text)
{
    const auto length = static_cast<uint32_t>(text.size());
    return std::string(reinterpret_cast<const char*>(&length), 4) + text;
}

TEST_F(InputStream, CutsAStringThatDoesNotFitAndStaysOnTheNextItem)
{
    Reader reader{with_length("0123456789") + "!"};
    In in(reader);
    char text[4];
    EXPECT_EQ(psp_inputBuffGetStringWithLength(in, text, sizeof text), eTX_TRUNCATED);
    EXPECT_STREQ(text, "012");
    char next = 0;
    EXPECT_EQ(psp_inputBuffGetChar(in, &next), sOKAY);
    EXPECT_EQ(next, '!');
}

TEST_F(InputStream, FitsAStringWithItsTerminatorExactly)
{
    Reader reader{with_length("012") + with_length("") + with_length("x")};
    In in(reader);
    char text[4];
    EXPECT_EQ(psp_inputBuffGetStringWithLength(in, text, sizeof text), sOKAY);
    EXPECT_STREQ(text, "012");
    EXPECT_EQ(psp_inputBuffGetStringWithLength(in, text, 1), sOKAY);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(psp_inputBuffGetStringWithLength(in, text, 1), eTX_TRUNCATED);
    EXPECT_STREQ(text, "");
}

TEST_F(InputStream, TakesASizeOfZeroAsNoLimit)
{
    Reader reader{with_length("0123456789")};
    In in(reader);
    char text[16];
    EXPECT_EQ(psp_inputBuffGetStringWithLength(in, text, 0), sOKAY);
    EXPECT_STREQ(text, "0123456789");
}

TEST_F(InputStream, GivesAnEmptyStringForANullOneWithLength)
{
    Reader reader{"\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"};
    In in(reader);
    char text[4] = "old";
    EXPECT_EQ(psp_inputBuffGetStringWithLength(in, text, sizeof text), sOKAY);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(psp_inputBuffGetStringWithLength(in, nullptr, 0), sOKAY);
}

TEST_F(InputStream, ReturnsTheFailureOfSkippingTheRestOfACutString)
{
    Reader reader{with_length("0123456789").substr(0, 8), SIZE_MAX, eBADREAD};
    In in(reader);
    char text[4];
    EXPECT_EQ(psp_inputBuffGetStringWithLength(in, text, sizeof text), eBADREAD);
    EXPECT_STREQ(text, "012");
}

TEST_F(InputStream, GivesNoTextWhoseLengthCannotBeRead)
{
    Reader reader{std::string("\x04\x00", 2), SIZE_MAX, eBADREAD};
    In in(reader);
    char untouched = 'u';
    char* text = &untouched;
    EXPECT_EQ(psp_inputBuffGetString(in, &text, PSP_GLOBAL_TAG), eBADREAD);
    EXPECT_EQ(text, &untouched);
}

TEST_F(InputStream, LeavesTheTextUnreadWhenThereIsNoMemoryForIt)
{
    Reader reader{with_length("text")};
    In in(reader);
    char* text = nullptr;
    EXPECT_EQ(psp_inputBuffGetString(in, &text, nullptr), eNOMEMORY) << "NULL is no tag";
    EXPECT_EQ(text, nullptr);
    char next[4];
    EXPECT_EQ(psp_inputBuffGetBytes(in, next, 4), sOKAY);
    EXPECT_EQ(std::string(next, 4), "text");
}

TEST_F(InputStream, JumpsWhenTheTagOfAStringSaysSo)
{
    Reader reader{std::string("\xFE\xFF\xFF\xFF", 4) + "text"};
    In in(reader);
    jmp_buf buffer;
    PSP_MEMTAG tag =
        psp_createTagEx(&buffer, 0, BLOCK_ALLOCATOR, nullptr, nullptr, __FILE__, __LINE__);
    ASSERT_NE(tag, nullptr);
    char* text = nullptr;
    volatile bool returned = false;
    const int jumped = setjmp(buffer);
    if (jumped == 0) {
        (void)psp_inputBuffGetString(in, &text, tag);
        returned = true;
    }
    EXPECT_EQ(jumped, 1);
    EXPECT_FALSE(returned);
    psp_freeTagMem(tag, ZYN_TRUE, __FILE__, __LINE__);
}

TEST_F(InputStream, LeavesTheBlockOfAStringThatFailsInItsTag)
{
    PSP_MEMTAG tag =
        psp_createTagEx(nullptr, 0, BLOCK_ALLOCATOR, nullptr, nullptr, __FILE__, __LINE__);
    Reader reader{with_length("text").substr(0, 6)};
    In in(reader);
    char* text = nullptr;
    EXPECT_EQ(psp_inputBuffGetString(in, &text, tag), eEOD);
    EXPECT_EQ(text, nullptr);
    PSP_TAG_MEM_INFO info;
    ASSERT_EQ(psp_getTagMemInfo(tag, &info), sOKAY);
    EXPECT_EQ(info.used.current, 5u);
    psp_freeTagMem(tag, ZYN_TRUE, __FILE__, __LINE__);
}

TEST_F(InputStream, PassesNaNsThroughBitByBit)
{
    const uint32_t quiet = 0x7FC12345;
    const uint64_t negative = 0xFFF8000000ABCDEF;
    float single;
    double twice;
    std::memcpy(&single, &quiet, 4);
    std::memcpy(&twice, &negative, 8);
    for (const int16_t byteswap : {int16_t{0}, int16_t{1}}) {
        Writer writer;
        Out out(writer, byteswap);
        ASSERT_EQ(psp_outputBuffPutFloat32(out, single), sOKAY);
        ASSERT_EQ(psp_outputBuffPutFloat64(out, twice), sOKAY);
        ASSERT_EQ(psp_outputBuffFlush(out), sOKAY);
        Reader reader{writer.bytes};
        In in(reader, byteswap);
        float single_back;
        double twice_back;
        ASSERT_EQ(psp_inputBuffGetFloat32(in, &single_back), sOKAY);
        ASSERT_EQ(psp_inputBuffGetFloat64(in, &twice_back), sOKAY);
        EXPECT_EQ(std::memcmp(&single_back, &quiet, 4), 0);
        EXPECT_EQ(std::memcmp(&twice_back, &negative, 8), 0);
    }
}

class StreamBeforeStart : public psptest::RawTest {};

TEST_F(StreamBeforeStart, CannotBeCreated)
{
    Writer writer;
    Reader reader;
    PSP_OUTPUTBUFF out = nullptr;
    PSP_INPUTBUFF in = nullptr;
    EXPECT_EQ(psp_outputBuffCreate(Writer::write, &writer, 0, &out), eNOMEMORY);
    EXPECT_EQ(psp_inputBuffCreate(Reader::read, &reader, 0, &in), eNOMEMORY);
}

} // namespace

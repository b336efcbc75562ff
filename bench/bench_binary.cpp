// Variable-length integers against the bare loop over the callback, and binary streams against
// XDR, both over memory.
//
// Both sides take turns in batches of the same run, so that a disturbance of the machine meets
// both, and each side counts with its quickest batch. The counters `psp_ns` and `peer_ns` tell the
// time of one value or one record, `ratio` the first by the second: at most 1.5 for integers, at
// most 0.75 for records.
//
// The lengths of the integers are mixed in two ways: in turn, which a processor learns to foresee,
// and by chance, where both sides pay for wrong guesses. What one side puts is checked before the
// clock runs.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#ifdef PSP_PEER_XDR
#include <rpc/rpc.h>
#endif

#include "callback_loop.h"
#include "psp.h"

namespace {

constexpr size_t BATCH = 1000;

// Nanoseconds of one of the batch's items; negative when the batch failed.
template <class Run>
double timeBatch(Run run)
{
    const auto begin = std::chrono::steady_clock::now();
    const bool done = run();
    benchmark::ClobberMemory();
    const std::chrono::duration<double, std::nano> elapsed =
        std::chrono::steady_clock::now() - begin;
    return done ? elapsed.count() / static_cast<double>(BATCH) : -1.0;
}

// Each side is a function that works through one batch and tells whether it could.
template <class Library, class Peer>
void compare(benchmark::State& state, Library library, Peer other)
{
    double psp = std::numeric_limits<double>::infinity();
    double peer = psp;
    for (auto _ : state) {
        psp = std::min(psp, timeBatch(library));
        peer = std::min(peer, timeBatch(other));
    }
    if (psp < 0 || peer < 0) {
        state.SkipWithError("a batch failed");
        return;
    }
    state.counters["psp_ns"] = psp;
    state.counters["peer_ns"] = peer;
    state.counters["ratio"] = psp / peer;
}

// ---- Variable-length integers ----

// The bytes between the ends, for both directions.
struct Cursor {
    uint8_t* next;
    uint8_t* end;
};

ZYN_RETCODE putByte(ZYN_OUTPUT_CTX ctx, uint32_t ch)
{
    auto* cursor = static_cast<Cursor*>(ctx);
    if (cursor->next == cursor->end)
        return eBADWRITE;
    *cursor->next++ = static_cast<uint8_t>(ch);
    return sOKAY;
}

ZYN_RETCODE getByte(ZYN_INPUT_CTX ctx, uint32_t* ch)
{
    auto* cursor = static_cast<Cursor*>(ctx);
    if (cursor->next == cursor->end)
        return eEOD;
    *ch = *cursor->next++;
    return sOKAY;
}

// Values with their encodings, one behind the other.
struct Integers {
    std::vector<uintmax_t> values;
    std::vector<uint8_t> lengths;
    std::vector<uint8_t> bytes;
    std::vector<uint8_t> scratch;

    void encode()
    {
        std::array<uint8_t, 9> one;
        for (const uintmax_t value : values) {
            Cursor cursor{one.begin(), one.end()};
            psp_vintEncodeUIntmax(value, putByte, &cursor);
            lengths.push_back(static_cast<uint8_t>(cursor.next - one.begin()));
            bytes.insert(bytes.end(), one.begin(), cursor.next);
        }
        scratch.resize(bytes.size());
    }
};

// A value of each of the nine lengths after the other.
Integers inTurn()
{
    Integers integers;
    for (size_t i = 0; i < BATCH; i++)
        integers.values.push_back(uintmax_t{1} << (7 * (i % 9)));
    integers.encode();
    return integers;
}

// Every number of bits equally likely.
Integers byChance()
{
    Integers integers;
    std::mt19937_64 random;
    for (size_t i = 0; i < BATCH; i++)
        integers.values.push_back(random() >> (random() % 64));
    integers.encode();
    return integers;
}

void encode(benchmark::State& state, Integers (*make)())
{
    Integers integers = make();
    const auto library = [&integers] {
        Cursor cursor{integers.scratch.data(), integers.scratch.data() + integers.scratch.size()};
        return std::all_of(integers.values.begin(), integers.values.end(), [&](uintmax_t value) {
            return psp_vintEncodeUIntmax(value, putByte, &cursor) == sOKAY;
        });
    };
    const auto loop = [&integers] {
        Cursor cursor{integers.scratch.data(), integers.scratch.data() + integers.scratch.size()};
        return put_bytes(integers.bytes.data(), integers.lengths.data(), BATCH, putByte, &cursor) ==
               sOKAY;
    };
    if (!library() || integers.scratch != integers.bytes) {
        state.SkipWithError("wrong encoding");
        return;
    }
    compare(state, library, loop);
}

void decode(benchmark::State& state, Integers (*make)())
{
    Integers integers = make();
    std::vector<uintmax_t> decoded(BATCH);
    const auto library = [&integers, &decoded] {
        Cursor cursor{integers.bytes.data(), integers.bytes.data() + integers.bytes.size()};
        return std::all_of(decoded.begin(), decoded.end(), [&](uintmax_t& value) {
            return psp_vintDecodeUIntmax(getByte, &cursor, &value) == sOKAY;
        });
    };
    const auto loop = [&integers] {
        Cursor cursor{integers.bytes.data(), integers.bytes.data() + integers.bytes.size()};
        uint32_t last = 0;
        return get_bytes(integers.lengths.data(), BATCH, getByte, &cursor, &last) == sOKAY;
    };
    if (!library() || decoded != integers.values) {
        state.SkipWithError("wrong decoding");
        return;
    }
    compare(state, library, loop);
}

BENCHMARK_CAPTURE(encode, inTurn, inTurn);
BENCHMARK_CAPTURE(encode, byChance, byChance);
BENCHMARK_CAPTURE(decode, inTurn, inTurn);
BENCHMARK_CAPTURE(decode, byChance, byChance);

// ---- Records ----

#ifdef PSP_PEER_XDR

constexpr size_t NAME_SIZE = 16;

struct Record {
    char kind;
    int16_t part;
    int32_t page;
    int64_t position;
    float weight;
    double value;
    char name[NAME_SIZE];

    bool operator==(const Record&) const = default;
};

std::vector<Record> makeRecords()
{
    std::vector<Record> records;
    for (size_t i = 0; i < BATCH; i++) {
        const auto n = static_cast<int32_t>(i);
        records.push_back({static_cast<char>('a' + n % 26), static_cast<int16_t>(n - 500), n * 4096,
                           int64_t{n} << 33, static_cast<float>(n) / 8, n * 1.5, "orders by day"});
    }
    return records;
}

// The memory behind both sides.
struct Store {
    std::vector<char> bytes = std::vector<char>(BATCH * 128);
    size_t used = 0;     // by the writer
    size_t consumed = 0; // by the reader
};

ZYN_RETCODE writeStore(const void* dataCB, const void* data, uint32_t size)
{
    auto* store = static_cast<Store*>(const_cast<void*>(dataCB));
    if (store->bytes.size() - store->used < size)
        return eBADWRITE;
    memcpy(store->bytes.data() + store->used, data, size);
    store->used += size;
    return sOKAY;
}

ZYN_RETCODE readStore(const void* dataCB, void* buf, uint32_t size, uint32_t* len, uint32_t)
{
    auto* store = static_cast<Store*>(const_cast<void*>(dataCB));
    const size_t piece = std::min<size_t>(size, store->used - store->consumed);
    if (piece == 0)
        return eEOD;
    memcpy(buf, store->bytes.data() + store->consumed, piece);
    store->consumed += piece;
    *len = static_cast<uint32_t>(piece);
    return sOKAY;
}

bool putRecord(PSP_OUTPUTBUFF out, const Record& record, bool withName)
{
    return psp_outputBuffPutChar(out, record.kind) == sOKAY &&
           psp_outputBuffPutInt16(out, record.part) == sOKAY &&
           psp_outputBuffPutInt32(out, record.page) == sOKAY &&
           psp_outputBuffPutInt64(out, record.position) == sOKAY &&
           psp_outputBuffPutFloat32(out, record.weight) == sOKAY &&
           psp_outputBuffPutFloat64(out, record.value) == sOKAY &&
           (!withName || psp_outputBuffPutStringWithLength(out, record.name) == sOKAY);
}

bool getRecord(PSP_INPUTBUFF in, Record& record, bool withName)
{
    return psp_inputBuffGetChar(in, &record.kind) == sOKAY &&
           psp_inputBuffGetInt16(in, &record.part) == sOKAY &&
           psp_inputBuffGetInt32(in, &record.page) == sOKAY &&
           psp_inputBuffGetInt64(in, &record.position) == sOKAY &&
           psp_inputBuffGetFloat32(in, &record.weight) == sOKAY &&
           psp_inputBuffGetFloat64(in, &record.value) == sOKAY &&
           (!withName || psp_inputBuffGetStringWithLength(in, record.name, NAME_SIZE) == sOKAY);
}

// One function for both directions, as XDR has it.
bool xdrRecord(XDR* xdrs, Record& record, bool withName)
{
    char* name = record.name;
    return xdr_char(xdrs, &record.kind) && xdr_short(xdrs, &record.part) &&
           xdr_int(xdrs, &record.page) && xdr_int64_t(xdrs, &record.position) &&
           xdr_float(xdrs, &record.weight) && xdr_double(xdrs, &record.value) &&
           (!withName || xdr_string(xdrs, &name, NAME_SIZE - 1));
}

// A pair of streams over one store, and XDR's pair over another.
struct Streams {
    Store store;
    PSP_OUTPUTBUFF out = nullptr;
    PSP_INPUTBUFF in = nullptr;
    Store xdrStore;
    XDR xdrOut{};
    XDR xdrIn{};

    bool open()
    {
        const auto size = static_cast<u_int>(xdrStore.bytes.size());
        xdrmem_create(&xdrOut, xdrStore.bytes.data(), size, XDR_ENCODE);
        xdrmem_create(&xdrIn, xdrStore.bytes.data(), size, XDR_DECODE);
        return psp_outputBuffCreate(writeStore, &store, 0, &out) == sOKAY &&
               psp_inputBuffCreate(readStore, &store, 0, &in) == sOKAY;
    }

    void close()
    {
        psp_inputBuffDestroy(in);
        psp_outputBuffDestroy(out);
        xdr_destroy(&xdrOut);
        xdr_destroy(&xdrIn);
    }

    bool put(const std::vector<Record>& records, bool withName)
    {
        store.used = 0;
        for (const Record& record : records) {
            if (!putRecord(out, record, withName))
                return false;
        }
        return psp_outputBuffFlush(out) == sOKAY;
    }

    bool get(std::vector<Record>& records, bool withName)
    {
        store.consumed = 0;
        psp_inputBuffReset(in);
        return std::all_of(records.begin(), records.end(),
                           [&](Record& record) { return getRecord(in, record, withName); });
    }

    bool xdr(XDR* xdrs, std::vector<Record>& records, bool withName)
    {
        return xdr_setpos(xdrs, 0) && std::all_of(records.begin(), records.end(), [&](Record& one) {
                   return xdrRecord(xdrs, one, withName);
               });
    }
};

// Measures one direction after a round trip of each side.
void runRecords(benchmark::State& state, Streams& streams, bool putting, bool withName)
{
    std::vector<Record> records = makeRecords();
    std::vector<Record> read = records;
    std::vector<Record> xdrRead = records;
    for (size_t i = 0; i < BATCH; i++)
        read[i].page = xdrRead[i].page = -1;
    if (!streams.put(records, withName) || !streams.get(read, withName) || read != records ||
        !streams.xdr(&streams.xdrOut, records, withName) ||
        !streams.xdr(&streams.xdrIn, xdrRead, withName) || xdrRead != records) {
        state.SkipWithError("the records did not come back");
        return;
    }
    if (putting)
        compare(
            state, [&] { return streams.put(records, withName); },
            [&] { return streams.xdr(&streams.xdrOut, records, withName); });
    else
        compare(
            state, [&] { return streams.get(read, withName); },
            [&] { return streams.xdr(&streams.xdrIn, xdrRead, withName); });
}

void records(benchmark::State& state, bool putting, bool withName)
{
    if (psp_init() != sOKAY) {
        state.SkipWithError("psp_init failed");
        return;
    }
    Streams streams;
    if (streams.open())
        runRecords(state, streams, putting, withName);
    else
        state.SkipWithError("no memory for the streams");
    streams.close();
    psp_term();
}

BENCHMARK_CAPTURE(records, putNumbers, true, false);
BENCHMARK_CAPTURE(records, getNumbers, false, false);
BENCHMARK_CAPTURE(records, putNumbersAndName, true, true);
BENCHMARK_CAPTURE(records, getNumbersAndName, false, true);

#else

void records(benchmark::State& state)
{
    for (auto _ : state) {
    }
    state.SkipWithError("built without XDR (libtirpc): nothing to compare with");
}

BENCHMARK(records);

#endif

} // namespace

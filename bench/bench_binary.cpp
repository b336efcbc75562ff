// Binary streams beside XDR, both over memory: records of numbers, with and without a name.

#include "row.h"

#ifdef PSP_PEER_XDR

#include <algorithm>
#include <cstring>
#include <vector>

#include <rpc/rpc.h>

#include "psp/binstream.h"

namespace {

constexpr size_t RECORDS = 1000;
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

std::vector<Record> make_records()
{
    std::vector<Record> records;
    for (size_t i = 0; i < RECORDS; i++) {
        const auto n = static_cast<int32_t>(i);
        records.push_back({static_cast<char>('a' + n % 26), static_cast<int16_t>(n - 500), n * 4096,
                           int64_t{n} << 33, static_cast<float>(n) / 8, n * 1.5, "orders by day"});
    }
    return records;
}

// The memory behind a side.
struct Store {
    std::vector<char> bytes = std::vector<char>(RECORDS * 128);
    size_t used = 0;     // by the writer
    size_t consumed = 0; // by the reader
};

ZYN_RETCODE write_store(const void* dataCB, const void* data, uint32_t size)
{
    auto* store = static_cast<Store*>(const_cast<void*>(dataCB));
    if (store->bytes.size() - store->used < size)
        return eBADWRITE;
    memcpy(store->bytes.data() + store->used, data, size);
    store->used += size;
    return sOKAY;
}

ZYN_RETCODE read_store(const void* dataCB, void* buf, uint32_t size, uint32_t* len, uint32_t)
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

bool put_record(PSP_OUTPUTBUFF out, const Record& record, bool with_name)
{
    return psp_outputBuffPutChar(out, record.kind) == sOKAY &&
           psp_outputBuffPutInt16(out, record.part) == sOKAY &&
           psp_outputBuffPutInt32(out, record.page) == sOKAY &&
           psp_outputBuffPutInt64(out, record.position) == sOKAY &&
           psp_outputBuffPutFloat32(out, record.weight) == sOKAY &&
           psp_outputBuffPutFloat64(out, record.value) == sOKAY &&
           (!with_name || psp_outputBuffPutStringWithLength(out, record.name) == sOKAY);
}

bool get_record(PSP_INPUTBUFF in, Record& record, bool with_name)
{
    return psp_inputBuffGetChar(in, &record.kind) == sOKAY &&
           psp_inputBuffGetInt16(in, &record.part) == sOKAY &&
           psp_inputBuffGetInt32(in, &record.page) == sOKAY &&
           psp_inputBuffGetInt64(in, &record.position) == sOKAY &&
           psp_inputBuffGetFloat32(in, &record.weight) == sOKAY &&
           psp_inputBuffGetFloat64(in, &record.value) == sOKAY &&
           (!with_name || psp_inputBuffGetStringWithLength(in, record.name, NAME_SIZE) == sOKAY);
}

// One function for both directions, as XDR has it.
bool xdr_record(XDR* xdrs, Record& record, bool with_name)
{
    char* name = record.name;
    return xdr_char(xdrs, &record.kind) && xdr_short(xdrs, &record.part) &&
           xdr_int(xdrs, &record.page) && xdr_int64_t(xdrs, &record.position) &&
           xdr_float(xdrs, &record.weight) && xdr_double(xdrs, &record.value) &&
           (!with_name || xdr_string(xdrs, &name, NAME_SIZE - 1));
}

// A pair of streams over one store, and XDR's pair over another.
class Streams {
  public:
    // XDR reverses numbers on their way, as a stream does that swaps.
    explicit Streams(bool swap)
    {
        const auto size = static_cast<u_int>(xdr_store_.bytes.size());
        xdrmem_create(&xdr_out, xdr_store_.bytes.data(), size, XDR_ENCODE);
        xdrmem_create(&xdr_in, xdr_store_.bytes.data(), size, XDR_DECODE);
        psp_outputBuffCreate(write_store, &store_, swap, &out_);
        psp_inputBuffCreate(read_store, &store_, swap, &in_);
    }
    ~Streams()
    {
        psp_inputBuffDestroy(in_);
        psp_outputBuffDestroy(out_);
        xdr_destroy(&xdr_out);
        xdr_destroy(&xdr_in);
    }
    Streams(const Streams&) = delete;
    Streams& operator=(const Streams&) = delete;

    bool put(const std::vector<Record>& records, bool with_name)
    {
        store_.used = 0;
        for (const Record& record : records) {
            if (!put_record(out_, record, with_name))
                return false;
        }
        return psp_outputBuffFlush(out_) == sOKAY;
    }

    bool get(std::vector<Record>& records, bool with_name)
    {
        store_.consumed = 0;
        psp_inputBuffReset(in_);
        return std::all_of(records.begin(), records.end(),
                           [&](Record& record) { return get_record(in_, record, with_name); });
    }

    static bool xdr(XDR* xdrs, std::vector<Record>& records, bool with_name)
    {
        return xdr_setpos(xdrs, 0) && std::all_of(records.begin(), records.end(), [&](Record& one) {
                   return xdr_record(xdrs, one, with_name);
               });
    }

    XDR xdr_out{};
    XDR xdr_in{};

  private:
    bench::Server server_{};
    Store store_{};
    Store xdr_store_{};
    PSP_OUTPUTBUFF out_ = nullptr;
    PSP_INPUTBUFF in_ = nullptr;
};

// Both sides go through all records; each works over the same ones, made before.
void measure(bench::Row& row, bool putting, bool with_name, bool swap)
{
    Streams streams(swap);
    std::vector<Record> records = make_records();
    std::vector<Record> read = records;
    std::vector<Record> xdr_read = records;
    for (size_t i = 0; i < RECORDS; ++i)
        read[i].page = xdr_read[i].page = -1;
    if (!streams.put(records, with_name) || !streams.get(read, with_name) || read != records ||
        !Streams::xdr(&streams.xdr_out, records, with_name) ||
        !Streams::xdr(&streams.xdr_in, xdr_read, with_name) || xdr_read != records)
        return row.fail("the records did not come back");
    row.psp([&](size_t n) {
        for (; n > 0; --n)
            putting ? streams.put(records, with_name) : streams.get(read, with_name);
    });
    row.peer(
        "XDR",
        [&](size_t n) {
            for (; n > 0; --n)
                Streams::xdr(putting ? &streams.xdr_out : &streams.xdr_in,
                             putting ? records : xdr_read, with_name);
        },
        0.6);
    row.divide_by(RECORDS);
    row.run();
}

void add(const char* name, bool putting, bool with_name, bool swap)
{
    bench::Registered("binary", name, "ns/record",
                      [=](bench::Row& row) { measure(row, putting, with_name, swap); });
}

const bool added = [] {
    add("put numbers", true, false, false);
    add("get numbers", false, false, false);
    add("put numbers and a name", true, true, false);
    add("get numbers and a name", false, true, false);
    add("put swapped numbers and a name", true, true, true);
    add("get swapped numbers and a name", false, true, true);
    return true;
}();

} // namespace

#endif

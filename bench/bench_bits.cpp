// Bits, byte order and alignment beside the compiler's builtins. Either side is called beyond a
// library's boundary: what is measured is a call with next to nothing in it.

#include <array>

#include "far/builtins.h"
#include "psp/bits.h"
#include "row.h"

namespace {

constexpr double GOAL = 1.1;

// Values with all numbers of bits, in no order, 0 among them.
template <class T>
const std::array<T, 4096>& values()
{
    static const auto all = [] {
        std::array<T, 4096> some{};
        uint64_t next = 1;
        for (T& value : some) {
            next = next * 6364136223846793005 + 1442695040888963407;
            value = static_cast<T>(next >> (next >> 58));
        }
        some[0] = 0;
        return some;
    }();
    return all;
}

// Calls `function` with one value after the other and keeps the sum. The same loop serves either
// side: where a loop of its own lies would tell more than what it calls.
template <class Result, class T>
[[gnu::noinline]] void call_all(size_t n, Result (*function)(T))
{
    const auto& all = values<T>();
    Result sum = 0;
    for (size_t i = 0; i < n; ++i)
        sum += function(all[i % all.size()]);
    benchmark::DoNotOptimize(sum);
}

template <class T>
[[gnu::noinline]] void swap_all(size_t n, void (*swap)(T*))
{
    auto all = values<T>();
    for (size_t i = 0; i < n; ++i)
        swap(&all[i % all.size()]);
    benchmark::DoNotOptimize(all);
}

template <class Result, class T>
void compare(bench::Row& row, Result (*library)(T), Result (*builtin)(T))
{
    for (const T value : values<T>()) {
        if (library(value) != builtin(value))
            return row.fail("the results differ");
    }
    row.psp([=](size_t n) { call_all(n, library); });
    row.peer(
        "builtin", [=](size_t n) { call_all(n, builtin); }, GOAL);
    row.run();
}

template <class T>
void compare_swaps(bench::Row& row, void (*library)(T*), void (*builtin)(T*))
{
    for (const T value : values<T>()) {
        T ours = value;
        T theirs = value;
        library(&ours);
        builtin(&theirs);
        if (ours != theirs)
            return row.fail("the results differ");
    }
    row.psp([=](size_t n) { swap_all(n, library); });
    row.peer(
        "builtin", [=](size_t n) { swap_all(n, builtin); }, GOAL);
    row.run();
}

uint32_t align_double(uint32_t offset)
{
    return psp_align(offset, ALN_DOUBLE);
}

uint32_t align_double_up(uint32_t offset)
{
    return far::align_up(offset, ALN_DOUBLE);
}

const bench::Registered highest("bits", "highest bit of 32", "ns/call", [](bench::Row& row) {
    compare(row, psp_bitFirstSet, far::highest_bit);
});
const bench::Registered highest64("bits", "highest bit of 64", "ns/call", [](bench::Row& row) {
    compare(row, psp_bitFirstSet64, far::highest_bit64);
});
const bench::Registered reverse("bits", "reversal of 64", "ns/call", [](bench::Row& row) {
    compare(row, psp_bitReverse64, far::reverse_bits);
});
const bench::Registered swap_16("bits", "swap of 16", "ns/call", [](bench::Row& row) {
    compare_swaps(row, psp_swaporderUInt16, far::swap16);
});
const bench::Registered swap_32("bits", "swap of 32", "ns/call", [](bench::Row& row) {
    compare_swaps(row, psp_swaporderUInt32, far::swap32);
});
const bench::Registered swap_64("bits", "swap of 64", "ns/call", [](bench::Row& row) {
    compare_swaps(row, psp_swaporderUInt64, far::swap64);
});
const bench::Registered align("bits", "alignment to a type", "ns/call",
                              [](bench::Row& row) { compare(row, align_double, align_double_up); });
const bench::Registered align_size("bits", "alignment of a size", "ns/call", [](bench::Row& row) {
    compare(row, psp_alignBufferSize, far::align_up8);
});

} // namespace

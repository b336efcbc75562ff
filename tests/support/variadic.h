// Calls of variadic functions with values that are known at run time only: they are laid out as the
// System V calling convention of x86-64 passes them.
#pragma once

#include "support/format_model.h"

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

namespace psptest {

// The registers that the named arguments leave over, and the memory for all the rest. What belongs
// to no value is filled with a pattern.
class LaidOut {
  public:
    struct alignas(16) Memory {
        char bytes[512];
    };

    LaidOut(const std::vector<FormatValue>& values, std::size_t named) : general_used_(named)
    {
        std::memset(&memory, 0xA5, sizeof memory);
        std::memset(general, 0xA5, sizeof general);
        for (const FormatValue& value : values)
            std::visit([this](auto typed) { add(typed); }, value);
    }

    uint64_t general[6];
    double vectors[8] = {};
    Memory memory;

  private:
    template <class T>
    void add(T value)
    {
        if (general_used_ < 6)
            std::memcpy(&general[general_used_++], &value, sizeof value);
        else
            push(value);
    }
    void add(double value)
    {
        if (vectors_used_ < 8)
            vectors[vectors_used_++] = value;
        else
            push(value);
    }
    void add(long double value)
    {
        memory_used_ = (memory_used_ + 15) / 16 * 16;
        push(value);
    }
    template <class T>
    void push(T value)
    {
        if (memory_used_ + sizeof value > sizeof memory.bytes)
            std::abort(); // more values than these calls are for
        std::memcpy(memory.bytes + memory_used_, &value, sizeof value);
        memory_used_ += (sizeof value + 7) / 8 * 8;
    }

    std::size_t general_used_;
    std::size_t vectors_used_ = 0;
    std::size_t memory_used_ = 0;
};

// function(named..., values...); no named argument is a floating one.
template <class Function, class... Named>
auto call_with(const std::vector<FormatValue>& values, Function* function, Named... named)
{
    constexpr std::size_t count = sizeof...(Named);
    const LaidOut args(values, count);
    return [&]<std::size_t... i, std::size_t... v>(std::index_sequence<i...>,
                                                   std::index_sequence<v...>)
    {
        return function(named..., args.general[count + i]..., args.vectors[v]..., args.memory);
    }
    (std::make_index_sequence<6 - count>{}, std::make_index_sequence<8>{});
}

template <class Body>
void run_with_list(Body* body, ...)
{
    va_list list;
    va_start(list, body);
    (*body)(list);
    va_end(list);
}

// body(list) with a list of the values.
template <class Body>
void call_with_list(const std::vector<FormatValue>& values, Body body)
{
    call_with(values, run_with_list<Body>, &body);
}

} // namespace psptest

// Turns an input's bytes into values. Numbers are taken from its end and texts from its front, so
// that a mutation of either leaves the other alone. An input that is used up gives zeros and empty
// texts: every input is a valid one.
//
// Names and meaning are those of the class that comes with clang, which other compilers lack.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <string>
#include <type_traits>

class FuzzedDataProvider {
  public:
    FuzzedDataProvider(const std::uint8_t* data, std::size_t size) : data_(data), left_(size) {}

    std::size_t remaining_bytes() const
    {
        return left_;
    }

    // As many bytes as the range needs, the last one first.
    template <class T>
    T ConsumeIntegralInRange(T least, T most)
    {
        static_assert(std::is_integral_v<T> && sizeof(T) <= sizeof(std::uint64_t));
        const auto range = static_cast<std::uint64_t>(most) - static_cast<std::uint64_t>(least);
        std::uint64_t value = 0;
        for (unsigned bits = 0; bits < 8 * sizeof(T) && range >> bits > 0 && left_ > 0; bits += 8)
            value = value << 8 | data_[--left_];
        if (range != std::numeric_limits<std::uint64_t>::max())
            value %= range + 1;
        return static_cast<T>(static_cast<std::uint64_t>(least) + value);
    }

    template <class T>
    T ConsumeIntegral()
    {
        return ConsumeIntegralInRange(std::numeric_limits<T>::min(), std::numeric_limits<T>::max());
    }

    bool ConsumeBool()
    {
        return (ConsumeIntegral<std::uint8_t>() & 1) != 0;
    }

    template <class T>
    T PickValueInArray(std::initializer_list<const T> values)
    {
        return values.begin()[ConsumeIntegralInRange<std::size_t>(0, values.size() - 1)];
    }

    template <class T, std::size_t size>
    T PickValueInArray(const T (&values)[size])
    {
        return values[ConsumeIntegralInRange<std::size_t>(0, size - 1)];
    }

    template <class T, std::size_t size>
    T PickValueInArray(const std::array<T, size>& values)
    {
        return values[ConsumeIntegralInRange<std::size_t>(0, size - 1)];
    }

    // Ends at `most` bytes or at a backslash that no other follows; two of them are one.
    std::string ConsumeRandomLengthString(std::size_t most)
    {
        std::string text;
        while (text.size() < most && left_ > 0) {
            std::uint8_t next = take();
            if (next == '\\' && left_ > 0) {
                next = take();
                if (next != '\\')
                    break;
            }
            text += static_cast<char>(next);
        }
        return text;
    }

    std::string ConsumeBytesAsString(std::size_t most)
    {
        std::string text(reinterpret_cast<const char*>(data_), std::min(most, left_));
        data_ += text.size();
        left_ -= text.size();
        return text;
    }

    std::string ConsumeRemainingBytesAsString()
    {
        return ConsumeBytesAsString(left_);
    }

  private:
    std::uint8_t take()
    {
        left_--;
        return *data_++;
    }

    const std::uint8_t* data_;
    std::size_t left_;
};

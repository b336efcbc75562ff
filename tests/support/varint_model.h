// Variable-length integers by the table of their format alone: tests hold the library against it,
// and so it takes nothing from the library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string>

namespace psptest {

// The encodings of one length: row r holds those of r + 1 bytes.
struct VarintForm {
    unsigned mark;        // of the first byte
    unsigned first_bits;  // payload bits of the first byte
    std::uint64_t offset; // where the values begin
};
inline constexpr VarintForm varint_forms[] = {
    {0x00, 7, 0x0},
    {0x80, 6, 0x80},
    {0xC0, 5, 0x4080},
    {0xE0, 3, 0x204080},
    {0xE8, 3, 0x8204080},
    {0xF0, 3, 0x808204080},
    {0xF8, 0, 0x80808204080},
    {0xF9, 0, 0x1080808204080},
    {0xFA, 0, 0x101080808204080},
};

inline std::size_t varint_row(std::uint64_t value)
{
    std::size_t row = std::size(varint_forms) - 1;
    while (value < varint_forms[row].offset)
        row--;
    return row;
}

// The row of the encodings that begin with `first`; nothing when none does.
inline std::optional<std::size_t> varint_row_of_byte(unsigned first)
{
    if (first > 0xFA)
        return std::nullopt;
    std::size_t row = std::size(varint_forms) - 1;
    while (first < varint_forms[row].mark)
        row--;
    return row;
}

// The bytes of a value, in a string or in any other sequence of numbers.
template <class Bytes = std::string>
Bytes encoded_varint(std::uint64_t value)
{
    using Byte = typename Bytes::value_type;
    const std::size_t row = varint_row(value);
    std::uint64_t payload = value - varint_forms[row].offset;
    Bytes bytes(row + 1, Byte{});
    for (std::size_t i = row; i > 0; i--, payload >>= 8)
        bytes[i] = static_cast<Byte>(payload & 0xFF);
    bytes[0] = static_cast<Byte>(varint_forms[row].mark | payload);
    return bytes;
}

// The value of one whole encoding, whose size tells its row.
template <class Bytes>
std::uint64_t decoded_varint(const Bytes& bytes)
{
    const VarintForm& form = varint_forms[bytes.size() - 1];
    std::uint64_t payload = static_cast<unsigned char>(bytes[0]) & ((1u << form.first_bits) - 1);
    for (std::size_t i = 1; i < bytes.size(); i++)
        payload = payload << 8 | static_cast<unsigned char>(bytes[i]);
    return payload + form.offset;
}

} // namespace psptest

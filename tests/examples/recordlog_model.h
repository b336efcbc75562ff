// The format of a record log written down a second time, plainly: frames of length, CRC-32 and
// record, read from a whole segment in memory and made from a record's fields.
#pragma once

#include "support/varint_model.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace logmodel {

inline constexpr std::size_t record_limit = 1 << 20;
inline constexpr std::size_t segment_size = 64 * 1024;

struct Record {
    std::uint64_t sequence;
    std::uint64_t millis;
    int priority;
    std::string text;
};

// What a reader finds in a segment: the complete records, and where each of them ends.
struct Segment {
    std::vector<Record> records;
    std::vector<std::size_t> ends;

    std::size_t end() const
    {
        return ends.empty() ? 0 : ends.back();
    }
};

// ---- Numbers ----

inline std::uint32_t crc32(std::string_view bytes)
{
    std::uint32_t sum = UINT32_MAX;
    for (const char byte : bytes) {
        sum ^= static_cast<unsigned char>(byte);
        for (int bit = 0; bit < 8; bit++)
            sum = (sum >> 1) ^ ((sum & 1) != 0 ? 0xEDB88320 : 0);
    }
    return ~sum;
}

inline std::string varint(std::uint64_t value)
{
    return psptest::encoded_varint(value);
}

template <class T>
std::string raw(T value)
{
    std::string bytes(sizeof value, '\0');
    std::memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

// Takes from the front of a text; every function gives nothing when there is too little.
class Reader {
  public:
    explicit Reader(std::string_view bytes) : bytes_(bytes) {}

    std::optional<std::string_view> take(std::size_t size)
    {
        if (size > bytes_.size() - pos_)
            return std::nullopt;
        pos_ += size;
        return bytes_.substr(pos_ - size, size);
    }

    template <class T>
    std::optional<T> number()
    {
        const auto part = take(sizeof(T));
        if (!part)
            return std::nullopt;
        T value;
        std::memcpy(&value, part->data(), sizeof value);
        return value;
    }

    std::optional<std::uint64_t> varint()
    {
        const auto first = number<unsigned char>();
        const auto row = first ? psptest::varint_row_of_byte(*first) : std::nullopt;
        if (!row || !take(*row))
            return std::nullopt;
        return psptest::decoded_varint(bytes_.substr(pos_ - *row - 1, *row + 1));
    }

    std::size_t pos() const
    {
        return pos_;
    }

  private:
    std::string_view bytes_;
    std::size_t pos_ = 0;
};

// ---- Records and frames ----

inline std::string payload_of(const Record& record)
{
    const auto priority = static_cast<std::int64_t>(record.priority);
    const auto zigzag = static_cast<std::uint64_t>(priority < 0 ? -2 * priority - 1 : 2 * priority);
    return varint(record.sequence) + raw(record.millis) + varint(zigzag) +
           raw(static_cast<std::uint32_t>(record.text.size())) + record.text;
}

inline std::string frame_of(const std::string& payload)
{
    return varint(payload.size()) + raw(crc32(payload)) + payload;
}

inline std::optional<Record> parse_payload(std::string_view payload)
{
    Reader in(payload);
    const auto sequence = in.varint();
    const auto millis = in.number<std::uint64_t>();
    const auto priority = millis ? in.varint() : std::nullopt;
    const auto length = priority ? in.number<std::uint32_t>() : std::nullopt;
    if (!sequence || !length)
        return std::nullopt;
    const auto text = in.take(*length);
    if (!text)
        return std::nullopt;
    const auto half = static_cast<std::int64_t>(*priority >> 1);
    return Record{*sequence, *millis, static_cast<std::int16_t>(*priority & 1 ? ~half : half),
                  std::string(*text)};
}

inline std::optional<Record> parse_frame(Reader& in)
{
    const auto size = in.varint();
    if (!size || *size == 0 || *size > record_limit)
        return std::nullopt;
    const auto sum = in.number<std::uint32_t>();
    const auto payload = sum ? in.take(*size) : std::nullopt;
    if (!payload || crc32(*payload) != *sum)
        return std::nullopt;
    return parse_payload(*payload);
}

inline Segment parse_segment(std::string_view bytes)
{
    Segment segment;
    Reader in(bytes);
    while (auto record = parse_frame(in)) {
        segment.records.push_back(*record);
        segment.ends.push_back(in.pos());
    }
    return segment;
}

// ---- What dump prints ----

inline std::string line_of(const Record& record)
{
    const auto seconds = static_cast<time_t>(record.millis / 1000);
    struct tm local;
    localtime_r(&seconds, &local);
    char head[96];
    std::snprintf(head, sizeof head, "%llu %04d-%02d-%02d %02d:%02d:%02d.%03d <%d> ",
                  static_cast<unsigned long long>(record.sequence), local.tm_year + 1900,
                  local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                  static_cast<int>(record.millis % 1000), record.priority);
    return head + record.text + "\n";
}

inline std::string lines_of(const std::vector<Record>& records)
{
    std::string lines;
    for (const Record& record : records)
        lines += line_of(record);
    return lines;
}

} // namespace logmodel

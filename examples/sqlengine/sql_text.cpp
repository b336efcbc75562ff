// Widths and presentable text.
//
// The library's formats count bytes, as a platform should; columns are a matter of the screen, so
// they are counted here. Text is decoded once into code points by the library, judged by two short
// tables of ranges and encoded again. The tables hold whole blocks, not every single mark: enough
// to keep the columns of a table straight.

#include "sql_text.h"

#include "sql_memory.h"

namespace sql {
namespace {

struct Range {
    uint32_t first, last;
};

// clang-format off
constexpr Range no_width[] = { // drawn over the character before
    {0x0300, 0x036F}, {0x0483, 0x0489}, {0x0591, 0x05BD}, {0x05BF, 0x05BF}, {0x05C1, 0x05C2},
    {0x0610, 0x061A}, {0x064B, 0x065F}, {0x0670, 0x0670}, {0x06D6, 0x06DC}, {0x0711, 0x0711},
    {0x0730, 0x074A}, {0x07A6, 0x07B0}, {0x07EB, 0x07F3}, {0x0900, 0x0902}, {0x093C, 0x093C},
    {0x0941, 0x0948}, {0x094D, 0x094D}, {0x0E31, 0x0E31}, {0x0E34, 0x0E3A}, {0x0E47, 0x0E4E},
    {0x1AB0, 0x1ACE}, {0x1DC0, 0x1DFF}, {0x200B, 0x200D}, {0x20D0, 0x20F0}, {0xFE00, 0xFE0F},
    {0xFE20, 0xFE2F}, {0xE0100, 0xE01EF},
};
constexpr Range double_width[] = { // East Asian letters, and pictures
    {0x1100, 0x115F},   {0x231A, 0x231B},   {0x2E80, 0x303E},   {0x3041, 0x33FF},
    {0x3400, 0x4DBF},   {0x4E00, 0x9FFF},   {0xA000, 0xA4CF},   {0xA960, 0xA97F},
    {0xAC00, 0xD7A3},   {0xF900, 0xFAFF},   {0xFE30, 0xFE6F},   {0xFF00, 0xFF60},
    {0xFFE0, 0xFFE6},   {0x16FE0, 0x18D08}, {0x1AFF0, 0x1B2FB}, {0x1F18E, 0x1F18E},
    {0x1F191, 0x1F19A}, {0x1F200, 0x1F265}, {0x1F300, 0x1F64F}, {0x1F680, 0x1F6FC},
    {0x1F900, 0x1FAF8}, {0x20000, 0x3FFFD},
};
constexpr Range turns_text[] = { // marks that change the direction of what follows
    {0x061C, 0x061C}, {0x200E, 0x200F}, {0x2028, 0x202E}, {0x2066, 0x2069},
};
// clang-format on

template <size_t n>
bool within(const Range (&ranges)[n], uint32_t code)
{
    for (const Range& range : ranges) {
        if (code >= range.first && code <= range.last)
            return true;
    }
    return false;
}

constexpr uint32_t stand_in = 0x00B7;         // a middle dot
constexpr uint32_t control_pictures = 0x2400; // the block that shows what controls look like
constexpr uint32_t ellipsis = 0x2026;

uint32_t presentable(uint32_t code)
{
    if (code < 0x20)
        return control_pictures + code;
    if (code == 0x7F)
        return control_pictures + 0x21;
    if ((code >= 0x80 && code < 0xA0) || within(turns_text, code))
        return stand_in;
    return code;
}

uint32_t columns_of(uint32_t code)
{
    if (code < 0x0300)
        return 1;
    if (within(no_width, code))
        return 0;
    return within(double_width, code) ? 2 : 1;
}

// How many of the code points fit, leaving room for the ellipsis when not all do.
size_t fitting(const wchar_t* codes, size_t count, uint32_t limit)
{
    uint32_t columns = 0;
    size_t with_ellipsis = 0;
    for (size_t i = 0; i < count; i++) {
        columns += columns_of(presentable(static_cast<uint32_t>(codes[i])));
        if (columns > limit)
            return with_ellipsis;
        if (columns < limit)
            with_ellipsis = i + 1;
    }
    return count;
}

ShownText encoded(const wchar_t* codes, size_t count, bool cut)
{
    constexpr size_t longest = 4;
    auto* to = static_cast<uint8_t*>(memory_get(Owner::results, (count + 1) * longest + 1));
    ShownText result = {reinterpret_cast<char*>(to), 0, 0};
    if (to == nullptr)
        return result;
    for (size_t i = 0; i < count + (cut ? 1 : 0); i++) {
        const uint32_t code = i < count ? presentable(static_cast<uint32_t>(codes[i])) : ellipsis;
        result.bytes += psp_utf8_codes(code, to + result.bytes);
        result.columns += columns_of(code);
    }
    to[result.bytes] = 0;
    return result;
}

} // namespace

bool is_terminal(PSP_FILE_STREAM stream)
{
    ZYN_BOOL_T answer = ZYN_FALSE;
    return psp_fIsATTY(stream, &answer) == sOKAY && answer != ZYN_FALSE;
}

bool output_is_terminal()
{
    const PSP_FILE_STREAM output = psp_fopenStd("stdout");
    if (output == nullptr)
        return false;
    const bool answer = is_terminal(output);
    psp_fclose(output);
    return answer;
}

ShownText shown_text(const char* bytes, size_t size, uint32_t columns)
{
    // One element for each byte and the end is always enough.
    auto* codes = static_cast<wchar_t*>(memory_get(Owner::results, (size + 1) * sizeof(wchar_t)));
    if (codes == nullptr)
        return {nullptr, 0, 0};
    const size_t count =
        psp_utf8_to_wchar_len(codes, size + 1, bytes, size, PSP_UTF8_ERROR_CONTINUE) - 1;
    const size_t kept = columns != 0 ? fitting(codes, count, columns) : count;
    return encoded(codes, kept, kept < count);
}

Grouped::Grouped(uint64_t value)
{
    char digits[24];
    const int length =
        psp_snprintf(digits, sizeof digits, "%llu", static_cast<unsigned long long>(value));
    size_t to = 0;
    for (int i = 0; i < length; i++) {
        if (i > 0 && (length - i) % 3 == 0)
            text[to++] = ',';
        text[to++] = digits[i];
    }
    text[to] = 0;
}

} // namespace sql
